#include "frame/save.h"

#include "frame/globals.h"

int16_t ksSaveDrawing(ksFcb* fcb, const char* path, int16_t /*fileType*/, int16_t /*version*/,
                      int16_t /*negativeZero*/, int16_t /*precision*/, int16_t /*writeZeroZ*/,
                      int16_t /*extendedR12*/)
{
    ksG->errorNumber = 1;
    if (fcb == nullptr || path == nullptr)
        return 0;
    // No writer is registered for any target yet: every save is refused.
    ksG->errorNumber = 21;
    return 0;
}
