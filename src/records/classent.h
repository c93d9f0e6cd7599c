// The bodies of the entities a drawing holds through its class list:
// LWPOLYLINE, HATCH, IMAGE and WIPEOUT, OLE2FRAME, RTEXT, ARCALIGNEDTEXT,
// and the proxy entity that keeps any class nobody here decodes.
//
// Their type codes are class numbers of the drawing (ksClassNumbers), so
// the form of a body is always asked of the drawing. In the entity lists a
// body is cut to a fixed size per form; each struct is exactly that size
// (a tail marked reserved fills the difference), so a body of one of
// these types may be packed straight from its struct.
//
// The variable parts stand in blobs; their layouts are given beside the
// helpers that read and write them. Reads that run out of bytes, or meet a
// count or kind that can't be, fail with error 199 and never read past the
// blob.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "frame/kstypes.h"
#include "records/entity.h"
#include "store/vm.h"

struct ksFcb;
struct ksBlobCursor;

// ---------------------------------------------------------------------------
// Forms and sizes

enum ksClassEntityForm : uint8_t {
    ksCeNone,  // a fixed entity type, not a class
    ksCeLwpolyline,
    ksCeHatch,
    ksCeImage,
    ksCeWipeout,
    ksCeOle2Frame,
    ksCeRtext,
    ksCeArcAlignedText,
    ksCeProxy,  // 498, and any class number without a body of its own
};

// Body bytes in the entity lists.
inline constexpr uint32_t ksOle2FrameBodySize = 72;
inline constexpr uint32_t ksHatchBodySize = 600;
inline constexpr uint32_t ksLwpolylineBodySize = 32;
inline constexpr uint32_t ksImageBodySize = 176;
inline constexpr uint32_t ksRtextBodySize = 1080;
inline constexpr uint32_t ksArcAlignedTextBodySize = 2192;
inline constexpr uint32_t ksWipeoutBodySize = 168;
inline constexpr uint32_t ksProxyEntityBodySize = 32;

// The form of a type code in this drawing: class numbers are compared with
// the drawing's OLE2FRAME, HATCH, LWPOLYLINE, IMAGE, RTEXT, ARCALIGNEDTEXT
// and WIPEOUT numbers in that order; any other code from 498 up is a proxy;
// codes below are none.
ksClassEntityForm ksClassEntityFormOf(const ksFcb* fcb, int16_t type);
// The body size of a type code from 498 up; 0 below.
uint32_t ksEntityClassBodySize(const ksFcb* fcb, int16_t type);

// ---------------------------------------------------------------------------
// Bodies

// LWPOLYLINE flags in memory. DXF group 70 holds only the last two, as
// 128 and 1.
enum : int16_t {
    ksLwConstantWidth = 4,
    ksLwHasBulges = 16,
    ksLwHasWidths = 32,
    ksLwPlinegen = 256,
    ksLwClosed = 512,
};

struct ksLwpolyline {
    int32_t vertexCount;   // 90
    int16_t flags;
    double elevation;      // 38
    double constantWidth;  // 43
    ksLoc vertices;        // 10, see ksLwVertexWrite
};

struct ksHatch {
    ksPoint3 elevation;        // 10
    char patternName[512];     // 2
    int16_t associative;       // 71
    int16_t solidFill;         // 70
    ksLoc boundary;            // loopCount loops, see ksHatchLoopWrite
    int32_t loopCount;         // 91
    int16_t hatchStyle;        // 75
    int16_t patternType;       // 76
    double patternAngle;       // 52
    double patternScale;       // 41
    int16_t patternDouble;     // 77
    int16_t patternLineCount;  // 78
    ksLoc patternLines;        // see ksHatchPatternLineWrite
    ksLoc boundaryHandles;     // 330, 8 bytes each, in loop order
    double pixelSize;          // 47
    ksLoc seedPoints;          // 10, point2 each (ksPoint2Write)
    int32_t seedCount;         // 98
};

// IMAGE and WIPEOUT. A WIPEOUT is cut before `reserved`.
struct ksImage {
    int32_t classVersion;   // 90
    ksPoint3 insertion;     // 10
    ksPoint2 size;          // 13
    ksPoint3 uVector;       // 11
    ksPoint3 vVector;       // 12
    int16_t clipState;      // 280
    int16_t brightness;     // 281
    int16_t contrast;       // 282
    int16_t fade;           // 283
    int16_t clipType;       // 71; 1: the two corners below
    int16_t display;        // 70
    int32_t clipVertexCount;  // 91
    ksPoint2 clipCorner1;     // 14, when clipType is 1
    ksPoint2 clipCorner2;     // 14, the same
    ksLoc clipVertices;       // 14, point2 each, when clipType is not 1
    ksLoc graphics;           // 92 and 310, carried as they are
    ksObjHandle imageDefHandle;         // 340
    ksObjHandle imageDefReactorHandle;  // 360
    uint8_t reserved[ksImageBodySize - ksWipeoutBodySize];
};

struct ksOle2Frame {
    int16_t version;      // 70; 2
    int16_t secondShort;  // no group: a second BS of R2000, carried
    int8_t oleType;       // 73; 1
    int32_t dataSize;     // 90, follows from data
    ksPoint3 upperLeft;   // 10
    ksPoint3 lowerRight;  // 11
    ksLoc data;           // 310
};

struct ksRtext {
    ksPoint3 insertion;       // 10
    double rotation;          // 50, radians in the file and here
    double height;            // 40
    ksObjHandle styleHandle;  // 7 by name
    int16_t rtextFlags;       // 70
    ksLoc graphics;           // 92 and 310
    char contents[512];       // 1
    uint8_t reserved[512];
};

struct ksArcAlignedText {
    char text[1024];          // 1
    char fontName[512];       // 2
    char bigFontName[512];    // 3
    ksObjHandle styleHandle;  // 7 by name
    ksPoint3 center;          // 10
    double radius;            // 40
    double widthFactor;       // 41
    double height;            // 42
    double spacing;           // 43
    double offsetFromArc;     // 44
    double rightOffset;       // 45
    double leftOffset;        // 46
    double startAngle;        // 50, radians; degrees in DXF
    double endAngle;          // 51, the same
    int16_t flags[10];        // 70 to 79
    int32_t color;            // 90
    int16_t wizard;           // 280
    ksLoc graphics;           // 92 and 310
    ksObjHandle arcHandle;    // 330
};

// The proxy entity. The two 16-bit fields stand together, so that the
// body has no padding in its 32 bytes.
struct ksProxyEntity {
    int32_t proxyClassId;   // 90 on reading; written as 498
    int32_t dataBitLength;  // 93
    int32_t handleCount;    // entries in references
    int32_t originalClass;  // 95
    int16_t applicationClass;  // 91
    int16_t flags;             // 70
    ksLoc data;             // 310 after 93
    ksLoc references;       // handle and kind, see ksProxyReferenceWrite
    ksLoc graphics;         // 310 after 92
};

#define KS_CLASS_BODY_CHECK(T, size)                                          \
    static_assert(std::is_trivially_copyable_v<T>, #T " is copied as bytes"); \
    static_assert(std::is_standard_layout_v<T>, "rows use offsetof");        \
    static_assert(sizeof(T) == (size), #T " is cut to its body size in the entity lists")
KS_CLASS_BODY_CHECK(ksLwpolyline, ksLwpolylineBodySize);
KS_CLASS_BODY_CHECK(ksHatch, ksHatchBodySize);
KS_CLASS_BODY_CHECK(ksImage, ksImageBodySize);
KS_CLASS_BODY_CHECK(ksOle2Frame, ksOle2FrameBodySize);
KS_CLASS_BODY_CHECK(ksRtext, ksRtextBodySize);
KS_CLASS_BODY_CHECK(ksArcAlignedText, ksArcAlignedTextBodySize);
KS_CLASS_BODY_CHECK(ksProxyEntity, ksProxyEntityBodySize);
#undef KS_CLASS_BODY_CHECK
static_assert(offsetof(ksImage, reserved) <= ksWipeoutBodySize, "a WIPEOUT keeps every field of its body");

// ---------------------------------------------------------------------------
// Setup and release

// Clears the body of the type's form and gives it its defaults: IMAGE and
// WIPEOUT clipType 1, OLE2FRAME version 2 and oleType 1; all else 0.
// Returns the form (nothing is written for ksCeNone).
ksClassEntityForm ksClassEntityDefaults(const ksFcb* fcb, int16_t type, void* body);
// Frees the blobs of the body and nulls their fields. 0 with error 159
// (proxy data), 160 (proxy references) or 98 (any other blob) when one
// would not go; the rest are freed all the same.
int16_t ksClassEntityFreeBlobs(const ksFcb* fcb, int16_t type, void* body);

// LWPOLYLINE flags and DXF group 70.
int16_t ksLwpolylineDxfFlags(int16_t flags);
int16_t ksLwpolylineFlagsFromDxf(int16_t flags, int16_t group70);

// ---------------------------------------------------------------------------
// LWPOLYLINE vertices
//
//   size  content                              present
//      8  X (10)                               always
//      8  Y (20)                               always
//      8  bulge (42)                           flags has ksLwHasBulges
//      8  start width (40)                     flags has ksLwHasWidths
//      8  end width (41)                       flags has ksLwHasWidths
// All reals IEEE doubles, lowest byte first; vertexCount vertices.

struct ksLwVertex {
    ksPoint2 point;
    double bulge;
    double startWidth;
    double endWidth;
};

uint32_t ksLwVertexSize(int16_t flags);
int16_t ksLwVertexWrite(ksBlobCursor* cursor, int16_t flags, const ksLwVertex& vertex);
// A vertex without bulge or widths by the flags reads them as 0.
int16_t ksLwVertexRead(ksBlobCursor* cursor, int16_t flags, ksLwVertex* vertex);
// Writes `count` vertices over the body's blob (made if null), with
// flags 16 and 32 set only when some vertex has a bulge or a width.
// vertexCount follows. 0 with 224 when the blob can't be made or written.
int16_t ksLwpolylineSetVertices(ksLwpolyline* body, const ksLwVertex* vertices, int32_t count);
// Reads the body's vertexCount vertices into `out` of `capacity`. 0 with
// 199 for a negative count, a count above the capacity or a blob that
// holds fewer vertices than the count.
int16_t ksLwpolylineGetVertices(const ksLwpolyline* body, ksLwVertex* out, int32_t capacity);

// ---------------------------------------------------------------------------
// HATCH boundary
//
// `boundary` holds loopCount loops, each:
//
//   size  content
//      4  flags (92); bit value 2: polyline loop; 4: the hatch has pixelSize
//   polyline loop:
//      2  has-bulge (72)
//      2  closed (73)
//      4  vertex count n (93)
//      n  vertices: X, Y (10, 20) and, with has-bulge, bulge (42): 16 or 24
//   any other loop:
//      4  edge count n (93)
//      n  edges: a kind byte (72), then by kind
//            1 line      X1 Y1 (10, 20), X2 Y2 (11, 21)                   32
//            2 arc       centre X Y (10, 20), radius (40), start (50),
//                        end (51), int16 counter-clockwise (73)         42
//            3 ellipse   centre X Y (10, 20), major axis X Y (11, 21),
//                        ratio (40), start, end parameters,
//                        int16 counter-clockwise (73)                   58
//            4 spline    int32 degree (94), int16 rational (73),
//                        int16 periodic (74), int32 knot count k (95),
//                        int32 control count c (96): 16; then k knots (40)
//                        of 8, then c controls: X Y (10, 20) and, when
//                        rational, weight (42): 16 or 24 each
//      4  count of boundary objects (97); their handles stand in order in
//         boundaryHandles
//
// Write a loop as ksHatchLoopWrite, its vertices or edges (a spline's
// knots with ksBlobWriteReal, its controls with ksHatchControlWrite), then
// ksHatchLoopEndWrite. Reading runs the same way.

struct ksHatchLoop {
    int32_t flags;
    int16_t hasBulge;  // polyline loops
    int16_t closed;    // polyline loops
    int32_t count;     // vertices of a polyline loop, else edges
};
inline constexpr int32_t ksHatchPolylineLoop = 2;
inline constexpr int32_t ksHatchPixelLoop = 4;

struct ksHatchVertex {
    ksPoint2 point;
    double bulge;
};

enum : uint8_t { ksHatchLine = 1, ksHatchArc = 2, ksHatchEllipse = 3, ksHatchSpline = 4 };

struct ksHatchEdge {
    uint8_t kind;
    ksPoint2 first;   // line start; arc and ellipse centre
    ksPoint2 second;  // line end; ellipse major axis
    double radius;    // arc radius; ellipse ratio
    double start;     // arc start angle; ellipse start parameter
    double end;
    int16_t counterClockwise;
    // spline head; knots and controls follow the edge
    int32_t degree;
    int16_t rational;
    int16_t periodic;
    int32_t knotCount;
    int32_t controlCount;
};

struct ksHatchControl {
    ksPoint2 point;
    double weight;  // rational splines; 0 otherwise
};

int16_t ksHatchLoopWrite(ksBlobCursor* cursor, const ksHatchLoop& loop);
// 199 for a negative count.
int16_t ksHatchLoopRead(ksBlobCursor* cursor, ksHatchLoop* loop);
int16_t ksHatchVertexWrite(ksBlobCursor* cursor, int16_t hasBulge, const ksHatchVertex& vertex);
int16_t ksHatchVertexRead(ksBlobCursor* cursor, int16_t hasBulge, ksHatchVertex* vertex);
// 199 for a kind outside 1 to 4, or a spline with a negative count.
int16_t ksHatchEdgeWrite(ksBlobCursor* cursor, const ksHatchEdge& edge);
int16_t ksHatchEdgeRead(ksBlobCursor* cursor, ksHatchEdge* edge);
int16_t ksHatchControlWrite(ksBlobCursor* cursor, int16_t rational, const ksHatchControl& control);
int16_t ksHatchControlRead(ksBlobCursor* cursor, int16_t rational, ksHatchControl* control);
int16_t ksHatchLoopEndWrite(ksBlobCursor* cursor, int32_t objectCount);
int16_t ksHatchLoopEndRead(ksBlobCursor* cursor, int32_t* objectCount);

// Walks the whole boundary: 1 when its loopCount loops read to the end of
// the blob, with the sum of their boundary object counts and whether a
// loop has the pixel flag. 0 with 199 for anything that can't be.
int16_t ksHatchBoundaryCheck(const ksHatch* body, int32_t* objectCount, bool* hasPixelSize);

// ---------------------------------------------------------------------------
// HATCH pattern lines
//
//   size  content
//      8  angle (53)
//     16  base point X, Y (43, 44)
//     16  offset X, Y (45, 46)
//      2  dash count n (79)
//    8 n  dash lengths (49)

struct ksHatchPatternLine {
    double angle;
    ksPoint2 base;
    ksPoint2 offset;
    int16_t dashCount;
};

// The head of a line; its dashCount dashes follow with ksBlobWriteReal.
int16_t ksHatchPatternLineWrite(ksBlobCursor* cursor, const ksHatchPatternLine& line);
// 199 for a negative dash count.
int16_t ksHatchPatternLineRead(ksBlobCursor* cursor, ksHatchPatternLine* line);

// ---------------------------------------------------------------------------
// Other blobs
//
// IMAGE/WIPEOUT clipVertices and HATCH seedPoints: clipVertexCount or
// seedCount point2 of 16 bytes (ksPoint2Write). HATCH boundaryHandles:
// 8-byte handles. Proxy references: 9 bytes each, handle then kind
// (ksProxyReferenceWrite). graphics, OLE2FRAME and proxy data: bytes as the
// file had them.

// ---------------------------------------------------------------------------
// DXF rows of the proxy entity, for the entity field table's slot
// ksEntProxyRows, which serves every type from 498 up. 91, 92, 93 and the
// references are also read specially (91 sets the type, 92 and 93 start
// byte chunk runs); 90 is written as the constant 498, not from the field.

#define KS_PROXY_ROW(group, field, kind, flags)                                                              \
    ksEntityField{group, offsetof(ksProxyEntity, field), sizeof(ksProxyEntity::field), kind, 0, 0, 7, flags, \
                  ksEfNoNote}
inline constexpr ksEntityField ksProxyEntityFieldRows[] = {
    KS_PROXY_ROW(70, flags, ksEfShort, 0),
    KS_PROXY_ROW(90, proxyClassId, ksEfLong, ksEfNoWrite),
    KS_PROXY_ROW(91, applicationClass, ksEfShort, 0),
    KS_PROXY_ROW(93, dataBitLength, ksEfLong, 0),
    KS_PROXY_ROW(95, originalClass, ksEfLong, 0),
};
#undef KS_PROXY_ROW

inline constexpr ksEntityFieldSet ksProxyEntityFields = {
    ksProxyEntityFieldRows, static_cast<uint16_t>(sizeof ksProxyEntityFieldRows / sizeof(ksEntityField)),
    static_cast<uint16_t>(sizeof(ksProxyEntity))};
