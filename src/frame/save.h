// Saving a drawing as a new file.
#pragma once

#include <cstdint>

struct ksFcb;

// Writes fcb to path. fileType: 0 DWG, 1 ASCII DXF, 2 binary DXF; version:
// the target ksVersion. The last four shape DXF output only: keep the sign
// of reals that round to zero, decimal places, write zero Z coordinates,
// extended header variables in R12 DXF. 1 on success, else 0 with the
// error number set.
int16_t ksSaveDrawing(ksFcb* fcb, const char* path, int16_t fileType, int16_t version,
                      int16_t negativeZero, int16_t precision, int16_t writeZeroZ, int16_t extendedR12);
