// The entity records: the common ksEntityHeader, the type codes, one body
// record per fixed type, their setup operation and the DXF field tables
// through which groups reach the header's and the bodies' fields.
//
// An entity in memory is a header and a body, both plain data copied whole.
// The store keeps the body cut to the size its type needs (the entity
// lists), so every body's field order is fixed: what the packed form keeps
// stands at the front, and a closing text is the body's last field. The
// class entities and the proxy have their bodies in classent.h; every body
// fits in a ksEntityBody.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "frame/kstypes.h"
#include "records/tables.h"
#include "store/vm.h"

struct ksFcb;

// Header flags.
enum : int8_t {
    ksEntityPaperSpace = 1,    // group 67
    ksEntityOwnExtrusion = 2,  // the extrusion isn't (0, 0, 1)
    ksEntityInvisible = 4,     // group 60
};

// The part every entity has.
struct ksEntityHeader {
    int16_t type;  // ksEntityType: a fixed code, ksEntProxy or a class number
    ksObjHandle handle;
    ksObjHandle layerHandle;
    ksObjHandle linetypeHandle;
    ksObjHandle xdictHandle;  // extension dictionary
    double thickness;
    int16_t color;  // 256 by layer, 0 by block
    ksPoint3 extrusion;
    double linetypeScale;
    int8_t flags;        // ksEntityPaperSpace, ksEntityOwnExtrusion, ksEntityInvisible
    int16_t lineweight;  // -1 and 28 never go to DXF
    int32_t userData;    // no meaning of its own: kept through the store as it is
    ksLoc eed;           // extended data
    int32_t reactorCount;
    ksLoc reactors;  // reactorCount handles of 8 bytes
};

// Type codes. Codes 18 and 32 to 34 name no entity. A DXF reader turns a
// 3DLINE into a LINE at once.
enum ksEntityType : int16_t {
    ksEntLine = 1,
    ksEntPoint = 2,
    ksEntCircle = 3,
    ksEntShape = 4,
    ksEntEllipse = 5,
    ksEntSpline = 6,
    ksEntText = 7,
    ksEntArc = 8,
    ksEntTrace = 9,
    ksEntRegion = 10,
    ksEntSolid = 11,
    ksEntBlock = 12,
    ksEntEndblk = 13,
    ksEntInsert = 14,
    ksEntAttdef = 15,
    ksEntAttrib = 16,
    ksEntSeqend = 17,
    ksEntPolyline = 19,
    ksEntVertex = 20,
    ksEnt3dLine = 21,
    ksEnt3dFace = 22,
    ksEntDimension = 23,
    ksEntViewport = 24,
    ksEnt3dSolid = 25,
    ksEntRay = 26,
    ksEntXline = 27,
    ksEntMtext = 28,
    ksEntLeader = 29,
    ksEntTolerance = 30,
    ksEntMline = 31,
    ksEntProxyRows = 32,  // the field table slot that serves the proxy
    ksEntBody = 35,
    ksEntProxy = 498,
    ksEntClassBase = 500,  // 500 + the place of a class in the class table
};

// Codes 0 to ksEntityFixedCount - 1 are fixed types.
inline constexpr int ksEntityFixedCount = 36;

// The DXF names by code; empty where a code names no entity.
inline constexpr const char* ksEntityNames[ksEntityFixedCount] = {
    "",        "LINE",      "POINT",     "CIRCLE",    "SHAPE",    "ELLIPSE", "SPLINE",   "TEXT",
    "ARC",     "TRACE",     "REGION",    "SOLID",     "BLOCK",    "ENDBLK",  "INSERT",   "ATTDEF",
    "ATTRIB",  "SEQEND",    "",          "POLYLINE",  "VERTEX",   "3DLINE",  "3DFACE",   "DIMENSION",
    "VIEWPORT", "3DSOLID",  "RAY",       "XLINE",     "MTEXT",    "LEADER",  "TOLERANCE", "MLINE",
    "",        "",          "",          "BODY",
};

// The room of any body, the largest (ATTRIB) included.
inline constexpr int ksEntityBodyMax = 2664;

// Text sizes, NUL included.
inline constexpr int ksEntityTextSize = 2048;        // TEXT
inline constexpr int ksEntityNameSize = 512;         // names, paths, short texts
inline constexpr int ksAttributeTextSize = 513;      // ATTDEF texts, the ATTRIB tag
inline constexpr int ksAttributeValueSize = 2049;    // the ATTRIB value

// Bodies. Angles are radians (DXF has degrees). Handles named "by name" are
// a name in DXF, resolved after the load.

// LINE and 3DLINE.
struct ksLineBody {
    ksPoint3 start;  // 10
    ksPoint3 end;    // 11
};

// RAY and XLINE: a point and the direction from it.
struct ksRayBody {
    ksPoint3 start;      // 10
    ksPoint3 direction;  // 11, a unit vector
};

struct ksPointBody {
    ksPoint3 position;   // 10
    double xAxisAngle;   // 50
};

struct ksCircleBody {
    ksPoint3 center;  // 10
    double radius;    // 40
};

// A circle's fields, then the two angles.
struct ksArcBody {
    ksPoint3 center;    // 10
    double radius;      // 40
    double startAngle;  // 50
    double endAngle;    // 51
};

struct ksShapeBody {
    ksPoint3 insertion;   // 10
    double size;          // 40
    int16_t shapeNumber;  // DXF has the shape's name (2); 255: not found
    double rotation;      // 50
    double widthFactor;   // 41
    double oblique;       // 51
    ksObjHandle styleHandle;  // the shape file; no group
};

struct ksEllipseBody {
    ksPoint3 center;     // 10
    ksPoint3 majorAxis;  // 11, relative to the center
    double ratio;        // 40
    double startParameter;  // 41
    double endParameter;    // 42
};

enum : int16_t { ksSplineWeighted = 4 };  // SPLINE flags: control points carry weights

struct ksSplineBody {
    int16_t degree;        // 71
    int16_t flags;         // 70
    int16_t knotCount;     // 72
    int16_t controlCount;  // 73
    int16_t fitCount;      // 74
    double knotTolerance;     // 42
    double controlTolerance;  // 43
    double fitTolerance;      // 44
    ksPoint3 startTangent;    // 12
    ksPoint3 endTangent;      // 13
    // knotCount reals (40); controlCount points (10), each followed by a
    // real weight (41) when flags has ksSplineWeighted; fitCount points (11).
    ksLoc data;
};

struct ksTextBody {
    ksPoint3 insertion;  // 10
    double height;       // 40
    double rotation;     // 50
    double widthFactor;  // 41
    double oblique;      // 51
    int8_t generation;       // 71
    int8_t horizontalAlign;  // 72
    int8_t verticalAlign;    // 73
    ksPoint2 alignment;      // 11; its Z is that of insertion (31)
    ksObjHandle styleHandle;  // 7 by name
    char text[ksEntityTextSize];  // 1; last: the store keeps it to its NUL
};

// TRACE and SOLID.
struct ksTraceBody {
    ksPoint3 corner1;  // 10
    ksPoint3 corner2;  // 11
    ksPoint3 corner3;  // 12
    ksPoint3 corner4;  // 13
};

// A trace's fields, then the edge flags.
struct ks3dFaceBody {
    ksPoint3 corner1;  // 10
    ksPoint3 corner2;  // 11
    ksPoint3 corner3;  // 12
    ksPoint3 corner4;  // 13
    int16_t invisibleEdges;  // 70; DXF gets the low 8 bits
};

// REGION, 3DSOLID and BODY: the solid model's text, lines ended by CR LF.
struct ksModelerBody {
    ksLoc satData;  // 1 and 3
    // What a DWG holds behind the text, kept to be written back: one byte,
    // 1 when the text was there; four bytes, the number n of bits; the n
    // bits packed from the top. Null for a model that came from DXF.
    ksLoc modelerTail;
};

struct ksBlockBody {
    ksPoint3 basePoint;  // 10
    char name[ksEntityNameSize];      // 3; 2 and 70 belong to the block header
    char xrefPath[ksEntityNameSize];  // 1
};

struct ksInsertBody {
    int16_t hasAttributes;  // 66
    ksPoint3 insertion;     // 10
    double xScale;          // 41
    double yScale;          // 42
    double zScale;          // 43
    double rotation;        // 50
    double rowSpacing;      // 45
    double columnSpacing;   // 44
    int16_t rowCount;       // 71
    int16_t columnCount;    // 70
    ksObjHandle blockHandle;  // 2 by name
};

// ATTDEF and ATTRIB begin with the same fields.
struct ksAttdefBody {
    ksPoint3 insertion;      // 10
    int8_t attributeFlags;   // 70
    int16_t fieldLength;     // 73
    double height;           // 40
    double rotation;         // 50
    double widthFactor;      // 41
    double oblique;          // 51
    int8_t generation;       // 71
    int8_t horizontalAlign;  // 72
    int8_t verticalAlign;    // 74
    ksPoint2 alignment;      // 11
    ksObjHandle styleHandle;  // 7 by name
    char prompt[ksAttributeTextSize];        // 3
    char tag[ksAttributeTextSize];           // 2
    char defaultValue[ksAttributeTextSize];  // 1
};

struct ksAttribBody {
    ksPoint3 insertion;      // 10
    int8_t attributeFlags;   // 70
    int16_t fieldLength;     // 73
    double height;           // 40
    double rotation;         // 50
    double widthFactor;      // 41
    double oblique;          // 51
    int8_t generation;       // 71
    int8_t horizontalAlign;  // 72
    int8_t verticalAlign;    // 74
    ksPoint2 alignment;      // 11
    ksObjHandle styleHandle;  // 7 by name
    char tag[ksAttributeTextSize];     // 2
    char value[ksAttributeValueSize];  // 1; last
};

// POLYLINE flags; the kind is tested in this order, the last match winning.
enum : int16_t {
    ksPolyline3d = 8,
    ksPolylinePolygonMesh = 16,
    ksPolylinePolyfaceMesh = 64,
};

struct ksPolylineBody {
    double elevation;   // 30
    double startWidth;  // 40
    double endWidth;    // 41
    int16_t curveType;  // 75
    int16_t smoothM;    // 73
    int16_t smoothN;    // 74
    int16_t meshM;      // 71
    int16_t meshN;      // 72
    int16_t flags;      // 70
};

// The store keeps a vertex whole, or only its X and Y (16 bytes), or its
// point and flags (32 bytes).
inline constexpr int ksVertexCutXY = 16;
inline constexpr int ksVertexCutPoint = 32;

struct ksVertexBody {
    ksPoint3 point;          // 10
    int16_t flags;           // 70
    double startWidth;       // 40
    double endWidth;         // 41
    int16_t hasStartWidth;   // set when 40 is read; 40 is written only then
    int16_t hasEndWidth;     // the same for 41
    double bulge;            // 42
    double tangent;          // 50
    int16_t faceIndexCount;  // one for each of 71 to 74 read
    int16_t faceIndices[4];  // 71, 72, 73, 74
};

struct ksDimensionBody {
    int16_t hasInsertionPoint;  // set when 12, 22 or 32 is read
    ksPoint3 insertionPoint;    // 12
    int8_t dimensionType;       // 70; the low 3 bits tell the geometry
    ksPoint3 point16;           // 16
    ksPoint3 point13;           // 13
    ksPoint3 point14;           // 14
    ksPoint3 point15;           // 15
    double leaderLength;        // 40
    double rotation;            // 50
    double textRotation;        // 53
    double extensionOblique;    // 52
    ksPoint3 textMidpoint;      // 11
    ksPoint3 definitionPoint;   // 10
    double horizontalDirection;  // 51
    ksObjHandle blockHandle;     // 2 by name
    ksObjHandle dimstyleHandle;  // 3 by name
    double horizontal;           // 54
    // The text's frame in R2000: attachment (71), line spacing style (72)
    // and factor (41), and the measured value (42), which older files
    // don't hold: 5, 1, 5/3 and 0 then.
    int16_t attachment;
    int16_t lineSpacingStyle;
    double lineSpacingFactor;
    double measurement;
    char text[ksEntityNameSize];  // 1; last
};

// A viewport entity: the R2000 fields, which older files hold as extended
// data. `name` stands last and is kept like a closing text.
struct ksViewportBody {
    ksLoc frozenLayers;        // 341, frozenLayerCount handles
    int32_t frozenLayerCount;
    int16_t active;            // set when status isn't 0
    int16_t status;            // 68
    ksPoint3 center;           // 10
    double width;              // 40
    double height;             // 41
    int16_t viewportId;        // 69
    ksObjHandle clipBoundaryHandle;  // 340
    int32_t statusFlags;       // 90
    int16_t renderMode;        // 281
    char plotStyleName[ksEntityNameSize];  // 1
    int16_t ucsPerViewport;    // 71
    int16_t ucsIcon;           // 74
    ksPoint3 ucsOrigin;        // 110
    ksPoint3 ucsXAxis;         // 111
    ksPoint3 ucsYAxis;         // 112
    int16_t orthoType;         // 79
    double elevation;          // 146
    ksObjHandle baseUcsHandle;   // 345
    ksObjHandle namedUcsHandle;  // 346
    ksPoint3 target;           // 17
    ksPoint3 direction;        // 16
    double twist;              // 51
    double viewHeight;         // 45
    ksPoint2 viewCenter;       // 12
    double lensLength;         // 42
    double frontClip;          // 43
    double backClip;           // 44
    int16_t circleZoom;        // 72
    ksPoint2 snapSpacing;      // 14
    ksPoint2 gridSpacing;      // 15
    double snapAngle;          // 50
    ksPoint2 snapBase;         // 13
    char name[ksEntityNameSize];  // 2
};

struct ksMtextBody {
    ksPoint3 insertion;        // 10
    ksPoint3 direction;        // 11
    double height;             // 40
    double referenceWidth;     // 41
    int8_t attachment;         // 71
    int8_t drawingDirection;   // 72
    int16_t lineSpacingStyle;  // 73
    double lineSpacing;        // 44
    ksObjHandle styleHandle;   // 7 by name
    ksLoc longText;            // a text of more than one group: 3 ... 3, 1
    double boxWidth;           // 42, the width the text takes; read, not written
    double boxHeight;          // 43, its height; the same
    char text[ksEntityNameSize];  // 1, a text of one group; last
};

struct ksLeaderBody {
    int16_t vertexCount;     // 76
    int8_t pathType;         // 72
    int8_t arrowFlag;        // 71
    int8_t hookDirection;    // 74
    int8_t hookLine;         // 75
    int16_t creationFlag;    // 73
    int16_t color;           // 77
    double textHeight;       // 40
    double textWidth;        // 41
    ksPoint3 annotationOffset;     // 213
    ksPoint3 horizontalDirection;  // 211
    ksPoint3 blockOffset;          // 212
    ksObjHandle annotationHandle;  // 340
    ksObjHandle dimstyleHandle;    // 3 by name
    ksLoc vertices;                // 10: vertexCount points
};

struct ksToleranceBody {
    ksPoint3 insertion;          // 10
    ksPoint3 direction;          // 11
    ksObjHandle dimstyleHandle;  // 3 by name
    char text[ksEntityNameSize];  // 1; last
};

struct ksMlineBody {
    double scale;           // 40
    int16_t justification;  // 70
    int16_t flags;          // 71
    int16_t styleCount;     // 73
    int16_t vertexCount;    // 72
    ksPoint3 start;         // 10
    ksObjHandle styleHandle;  // 340, and 2 by name
    // Per vertex three points: position (11), direction (12), miter (13);
    // then per style element an int16 count (74), that many reals (41), an
    // int16 count (75), that many reals (42).
    ksLoc data;
};

// Room for the body of any fixed type, viewed as the type's record.
union ksEntityBody {
    ksLineBody line;  // also 3DLINE
    ksRayBody ray;    // RAY, XLINE
    ksPointBody point;
    ksCircleBody circle;
    ksArcBody arc;
    ksShapeBody shape;
    ksEllipseBody ellipse;
    ksSplineBody spline;
    ksTextBody text;
    ksTraceBody trace;  // also SOLID
    ks3dFaceBody face;
    ksModelerBody modeler;  // REGION, 3DSOLID, BODY
    ksBlockBody block;
    ksInsertBody insert;
    ksAttdefBody attdef;
    ksAttribBody attrib;
    ksPolylineBody polyline;
    ksVertexBody vertex;
    ksDimensionBody dimension;
    ksViewportBody viewport;
    ksMtextBody mtext;
    ksLeaderBody leader;
    ksToleranceBody tolerance;
    ksMlineBody mline;
    unsigned char bytes[ksEntityBodyMax];
};

#define KS_ENTITY_RECORD_CHECKS(T)                                                 \
    static_assert(std::is_trivially_copyable_v<T>, #T " is copied as bytes");     \
    static_assert(std::is_standard_layout_v<T>, "the field tables use offsetof"); \
    static_assert(sizeof(T) <= ksEntityBodyMax, #T " doesn't fit a body")
KS_ENTITY_RECORD_CHECKS(ksLineBody);
KS_ENTITY_RECORD_CHECKS(ksRayBody);
KS_ENTITY_RECORD_CHECKS(ksPointBody);
KS_ENTITY_RECORD_CHECKS(ksCircleBody);
KS_ENTITY_RECORD_CHECKS(ksArcBody);
KS_ENTITY_RECORD_CHECKS(ksShapeBody);
KS_ENTITY_RECORD_CHECKS(ksEllipseBody);
KS_ENTITY_RECORD_CHECKS(ksSplineBody);
KS_ENTITY_RECORD_CHECKS(ksTextBody);
KS_ENTITY_RECORD_CHECKS(ksTraceBody);
KS_ENTITY_RECORD_CHECKS(ks3dFaceBody);
KS_ENTITY_RECORD_CHECKS(ksModelerBody);
KS_ENTITY_RECORD_CHECKS(ksBlockBody);
KS_ENTITY_RECORD_CHECKS(ksInsertBody);
KS_ENTITY_RECORD_CHECKS(ksAttdefBody);
KS_ENTITY_RECORD_CHECKS(ksAttribBody);
KS_ENTITY_RECORD_CHECKS(ksPolylineBody);
KS_ENTITY_RECORD_CHECKS(ksVertexBody);
KS_ENTITY_RECORD_CHECKS(ksDimensionBody);
KS_ENTITY_RECORD_CHECKS(ksViewportBody);
KS_ENTITY_RECORD_CHECKS(ksMtextBody);
KS_ENTITY_RECORD_CHECKS(ksLeaderBody);
KS_ENTITY_RECORD_CHECKS(ksToleranceBody);
KS_ENTITY_RECORD_CHECKS(ksMlineBody);
KS_ENTITY_RECORD_CHECKS(ksEntityHeader);
KS_ENTITY_RECORD_CHECKS(ksEntityBody);
#undef KS_ENTITY_RECORD_CHECKS
static_assert(sizeof(ksEntityBody) == ksEntityBodyMax, "ATTRIB sets the room of a body");

// Shared heads: the bodies that begin with another's fields keep them at
// the same places, so either view reads them.
static_assert(offsetof(ksArcBody, radius) == offsetof(ksCircleBody, radius));
static_assert(offsetof(ks3dFaceBody, corner4) == offsetof(ksTraceBody, corner4));
static_assert(offsetof(ksAttribBody, styleHandle) == offsetof(ksAttdefBody, styleHandle));
static_assert(offsetof(ksAttribBody, tag) == offsetof(ksAttdefBody, prompt));

// The store keeps the first bytes of a body (the entity lists). These hold
// in the layouts as they stand: each body's kept fields end exactly where
// the kept size ends, and a closing text begins there.
static_assert(sizeof(ksLineBody) == 48 && sizeof(ksRayBody) == 48);
static_assert(sizeof(ksPointBody) == 32 && sizeof(ksCircleBody) == 32);
static_assert(sizeof(ksShapeBody) == 72 && sizeof(ksEllipseBody) == 72);
static_assert(sizeof(ksSplineBody) == 96 && sizeof(ksArcBody) == 48);
static_assert(sizeof(ksTraceBody) == 96 && sizeof(ks3dFaceBody) == 104);
static_assert(offsetof(ksTextBody, text) == 88);
static_assert(sizeof(ksBlockBody) == 1048 && sizeof(ksInsertBody) == 96);
static_assert(offsetof(ksAttdefBody, prompt) == 96 && offsetof(ksAttribBody, tag) == 96);
static_assert(sizeof(ksPolylineBody) == 40 && sizeof(ksVertexBody) == 88);
static_assert(offsetof(ksVertexBody, point.z) == ksVertexCutXY);
static_assert(offsetof(ksVertexBody, startWidth) == ksVertexCutPoint);
static_assert(sizeof(ksLeaderBody) == 128 && sizeof(ksMlineBody) == 56);
// The solid models, DIMENSION, MTEXT, TOLERANCE and VIEWPORT are kept to
// the end of their fields (a solid model's two blobs; the fixed fields and
// the closing text of the others, the VIEWPORT's name included), which is
// never more than these bounds.
static_assert(sizeof(ksModelerBody) <= 40);
static_assert(offsetof(ksDimensionBody, text) <= 296);
static_assert(offsetof(ksMtextBody, text) <= 136);
static_assert(offsetof(ksToleranceBody, text) <= 64);
static_assert(offsetof(ksViewportBody, name) <= 880);

// The size of the body record of a type code; 0 for the codes with no body
// (ENDBLK, SEQEND, the free codes) and for codes outside the fixed types,
// whose bodies classent.h has.
size_t ksEntityBodySize(int type);

// Setup of a new entity. The header takes type and the defaults of every
// field: color 256, extrusion (0, 0, 1), linetype scale 1.0, lineweight -1,
// all else zero or null. The body, when given, is cleared over the type's
// body size and takes the type's defaults (a scale of 1.0, an INSERT's
// counts 1, a VIEWPORT's view, ...). Style and dimension style names
// ("Standard") are the reader's: the body's handles stay null.
void ksEntityDefaults(ksEntityHeader* header, void* body, int16_t type);
// The same for an entity of a drawing, with the type already in the
// header: the layer is the drawing's first layer and the linetype BYLAYER.
void ksEntityDefaults(ksFcb* fcb, ksEntityHeader* header, void* body);

// How a DXF group's value is stored into its field. The kinds that table
// records have too keep their ksTableFieldKind numbers, so one store routine
// can serve both.
enum ksEntityFieldKind : uint8_t {
    ksEfByte = ksTfByte,            // int8: the low 8 bits of the integer
    ksEfShort = ksTfShort,          // int16[index]
    ksEfReal = ksTfReal,            // double[index]; a point's axes are 0, 1, 2
    ksEfAngle = ksTfAngle,          // double: degrees in DXF, radians here
    ksEfText = ksTfText,            // char field, copied and cut to width - 1
    ksEfCodedText = ksTfCodedText,  // as text, with the caret coding undone
    ksEfHandle = ksTfHandle,        // ksObjHandle
    ksEfLong = ksTfLong,            // int32[index]
    ksEfName = ksTfName,            // a record name: the DXF writer may shorten it
    ksEfNameRef = ksTfNameRef,      // ksObjHandle of the record of that name in
                                    // table `index` (a ksTableNumber); the
                                    // entity reader keeps the name until the
                                    // tables resolve it after the load
    // Entity kinds.
    ksEfBit = 32,    // flag value `index` of the int8: set by a value not 0,
                     // cleared by 0; written as 1 when set
    ksEfTextChunk,   // a piece of text, caret coding undone, appended to the
                     // blob at the ksLoc field
    ksEfModelText,   // a piece of solid-model text, its bytes uncoded,
                     // appended to the blob; index 1: the piece ends its
                     // line, and CR LF follows it
    ksEfRealList,    // a real appended to the blob; index: the section of the
                     // blob's layout it belongs to
    ksEfPointList,   // a point (the group, + 10, + 20) appended to the blob;
                     // index as for ksEfRealList
    ksEfShortList,   // an int16 appended to the blob; index as above
    ksEfHandleList,  // a handle appended to the blob
};

// Row flags.
enum : uint16_t {
    // The group is read but never written.
    ksEfNoWrite = 1,
    // The group is written but not read: the field gets its value from
    // another group.
    ksEfNoRead = 2,
    // minVersion..maxVersion limit the writing only: the group is read from
    // files of every version.
    ksEfWriteVersions = 4,
    // Reading the group sets the int16 at `note` to 1; the group is written
    // only when it isn't 0.
    ksEfPresence = 8,
    // Reading the group raises the int16 at `note` by one; the group is
    // written only when `index` is below it.
    ksEfCounted = 16,
    // The list kinds: the int32 at `note` counts the elements appended.
    ksEfListCount = 32,
    // Only the low 8 bits of the integer go out.
    ksEfLowByteOut = 64,
    // Reading an axis sets ksEntityOwnExtrusion; the group is written only
    // with it set.
    ksEfExtrusion = 128,
    // Conditions. A row with one is used only where the condition holds, so
    // a group can have a row of each condition.
    // Within a run that an earlier group of the record opened (the list and
    // chunk kinds read ahead to its end).
    ksEfInRun = 256,
    // Only between 102 "{ACAD_REACTORS" or "{ACAD_XDICTIONARY" and 102 "}".
    ksEfInBrackets = 512,
    ksEfConditions = ksEfInRun | ksEfInBrackets,
};

inline constexpr uint16_t ksEfNoNote = 0xFFFF;

// One DXF group of an entity: where its value goes, and in which versions.
struct ksEntityField {
    int16_t group;
    uint16_t offset;  // offsetof the field in the header or the body
    uint16_t width;   // bytes of the whole field (a whole point, a whole text)
    ksEntityFieldKind kind;
    int8_t index;      // element; table number for ksEfNameRef; bit for ksEfBit
    int8_t minVersion; // ksVersion codes in which the group carries the
    int8_t maxVersion; // field (see ksEfWriteVersions)
    uint16_t flags;
    uint16_t note;  // offset of the companion field of ksEfPresence,
                    // ksEfCounted, ksEfListCount; else ksEfNoNote
};

// The rows of one record, sorted by group, then condition, then version.
struct ksEntityFieldSet {
    const ksEntityField* rows;  // null for a type without rows
    uint16_t count;
    uint16_t recordSize;  // sizeof the record the offsets refer to
};

// The common rows, into ksEntityHeader. Group 38 (the first point's Z), 102
// and extended data (1000 up) have none: the entity reader takes them.
extern const ksEntityFieldSet ksEntityHeaderFields;

// The body rows by type code. Types without a body have none. The groups of
// the by-name handles are ksEfNameRef rows, but the SHAPE's name (2) has no
// row: it becomes a number through the style's shape file. The slot of
// ksEntProxyRows has the proxy body's rows (classent.h).
extern const ksEntityFieldSet ksEntityFieldTable[ksEntityFixedCount];

// The row that reading the group stores through, for a file of the given
// ksVersion, under the given condition (0, ksEfInRun or ksEfInBrackets);
// null when the group has no field there. ksEntityFieldFind takes the body
// rows of the type (the proxy's for a code from 498 up);
// ksEntityHeaderFieldFind the common rows. A version outside 0..7 is taken
// as the nearest known one.
const ksEntityField* ksEntityFieldFind(int type, int group, int version, uint16_t condition = 0);
const ksEntityField* ksEntityHeaderFieldFind(int group, int version, uint16_t condition = 0);
const ksEntityField* ksEntityFieldFindIn(const ksEntityFieldSet& set, int group, int version,
                                         uint16_t condition);

// Whether a writer for the given ksVersion puts the row's group out at all
// (its own tests of values aside).
bool ksEntityFieldWritten(const ksEntityField& row, int version);

// Bytes of one element of a field of the kind: 1 for the texts.
size_t ksEntityFieldElementWidth(ksEntityFieldKind kind);

// The storage a row names in its record: the field, or its element `index`
// for short, real and long.
void* ksEntityFieldAddress(void* record, const ksEntityField& row);
