// Loading and closing a drawing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

struct ksFcb;

// What the first bytes of a file tell: its kind and release.
struct ksSniff {
    uint8_t isDxf;       // 0 DWG, 1 DXF of either form
    uint8_t fileType;    // 0 DWG, 1 ASCII DXF, 2 binary DXF
    int16_t version;     // ksVersion, or -1 when no version string was found
    int16_t betaSeen;    // 1 when the file starts with the R14 beta signature
    bool sectionFound;   // DXF only: "SECTION" found, or the text starts with "999"
};

// Number of leading bytes the detection looks at.
inline constexpr size_t ksSniffSize = 2000;

// Detection on the first bytes of a file (at most ksSniffSize are looked at).
ksSniff ksSniffBytes(std::span<const uint8_t> head);

// Loads the drawing at path. closeAfterLoad 1 closes the input at the end
// of the load; makeLayouts asks for R2000 layout objects on older
// drawings. Null on failure, with the reason in the error number.
ksFcb* ksLoadDrawing(const char* path, uint8_t closeAfterLoad, int16_t makeLayouts);
// The working form: *fcbOut takes the drawing as soon as it exists.
ksFcb* ksLoadDrawingInto(const char* path, uint8_t closeAfterLoad, int16_t makeLayouts, ksFcb** fcbOut);

// Closes a drawing and all drawings loaded under it. 0 for a null drawing.
int16_t ksCloseDrawing(ksFcb* fcb);
