// The entity records' setup and their DXF field tables.
#include "records/entity.h"

#include "frame/fcb.h"
#include "records/classent.h"
#include "store/tablelist.h"

#include <array>
#include <bit>
#include <algorithm>
#include <cstring>

namespace {

constexpr ksEntityHeader makeHeaderImage() {
    ksEntityHeader h{};
    h.color = 256;
    h.extrusion = {0.0, 0.0, 1.0};
    h.linetypeScale = 1.0;
    h.lineweight = -1;
    return h;
}

constexpr ksEntityHeader headerImage = makeHeaderImage();

// Body sizes by type code.
constexpr std::array<uint16_t, ksEntityFixedCount> makeBodySizes() {
    std::array<uint16_t, ksEntityFixedCount> s{};
    s[ksEntLine] = s[ksEnt3dLine] = sizeof(ksLineBody);
    s[ksEntPoint] = sizeof(ksPointBody);
    s[ksEntCircle] = sizeof(ksCircleBody);
    s[ksEntShape] = sizeof(ksShapeBody);
    s[ksEntEllipse] = sizeof(ksEllipseBody);
    s[ksEntSpline] = sizeof(ksSplineBody);
    s[ksEntText] = sizeof(ksTextBody);
    s[ksEntArc] = sizeof(ksArcBody);
    s[ksEntTrace] = s[ksEntSolid] = sizeof(ksTraceBody);
    s[ksEntRegion] = s[ksEnt3dSolid] = s[ksEntBody] = sizeof(ksModelerBody);
    s[ksEntBlock] = sizeof(ksBlockBody);
    s[ksEntInsert] = sizeof(ksInsertBody);
    s[ksEntAttdef] = sizeof(ksAttdefBody);
    s[ksEntAttrib] = sizeof(ksAttribBody);
    s[ksEntPolyline] = sizeof(ksPolylineBody);
    s[ksEntVertex] = sizeof(ksVertexBody);
    s[ksEnt3dFace] = sizeof(ks3dFaceBody);
    s[ksEntDimension] = sizeof(ksDimensionBody);
    s[ksEntViewport] = sizeof(ksViewportBody);
    s[ksEntRay] = s[ksEntXline] = sizeof(ksRayBody);
    s[ksEntMtext] = sizeof(ksMtextBody);
    s[ksEntLeader] = sizeof(ksLeaderBody);
    s[ksEntTolerance] = sizeof(ksToleranceBody);
    s[ksEntMline] = sizeof(ksMlineBody);
    return s;
}

constexpr std::array<uint16_t, ksEntityFixedCount> bodySizes = makeBodySizes();

template <typename T>
T* as(void* body) {
    return static_cast<T*>(body);
}

}  // namespace

size_t ksEntityBodySize(int type) {
    if (type < 0 || type >= ksEntityFixedCount) return 0;
    return bodySizes[static_cast<size_t>(type)];
}

void ksEntityDefaults(ksEntityHeader* header, void* body, int16_t type) {
    if (header) {
        std::memcpy(header, &headerImage, sizeof *header);
        header->type = type;
    }
    const size_t size = ksEntityBodySize(type);
    if (!body || size == 0) return;
    std::memset(body, 0, size);
    switch (type) {
        case ksEntShape: as<ksShapeBody>(body)->widthFactor = 1.0; break;
        case ksEntText: as<ksTextBody>(body)->widthFactor = 1.0; break;
        case ksEntAttdef: as<ksAttdefBody>(body)->widthFactor = 1.0; break;
        case ksEntAttrib: as<ksAttribBody>(body)->widthFactor = 1.0; break;
        case ksEntInsert: {
            ksInsertBody* b = as<ksInsertBody>(body);
            b->xScale = b->yScale = b->zScale = 1.0;
            b->rowCount = b->columnCount = 1;
            break;
        }
        case ksEntViewport: {
            ksViewportBody* b = as<ksViewportBody>(body);
            b->active = 1;
            b->statusFlags = 32800;
            b->ucsIcon = 1;
            b->ucsXAxis = {1.0, 0.0, 0.0};
            b->ucsYAxis = {0.0, 1.0, 0.0};
            b->lensLength = 50.0;
            b->circleZoom = 100;
            b->snapSpacing = {0.5, 0.5};
            b->gridSpacing = {0.5, 0.5};
            break;
        }
        case ksEntMtext: as<ksMtextBody>(body)->direction = {1.0, 0.0, 0.0}; break;
        case ksEntDimension: {
            ksDimensionBody* b = as<ksDimensionBody>(body);
            b->attachment = 5;
            b->lineSpacingStyle = 1;
            b->lineSpacingFactor = std::bit_cast<double>(uint64_t{0x3FFAAAAA98C55E44});
            break;
        }
        case ksEntLeader: {
            ksLeaderBody* b = as<ksLeaderBody>(body);
            b->arrowFlag = 1;
            b->creationFlag = 3;
            b->horizontalDirection = {1.0, 0.0, 0.0};
            break;
        }
        case ksEntTolerance: as<ksToleranceBody>(body)->direction = {1.0, 0.0, 0.0}; break;
        default: break;
    }
}

void ksEntityDefaults(ksFcb* fcb, ksEntityHeader* header, void* body) {
    ksEntityDefaults(header, body, header->type);
    if (!fcb) return;
    header->layerHandle = ksTableFirstHandle(fcb, ksListLayers);
    header->linetypeHandle = fcb->byLayerHandle;
}

// Rows. The field is named once; offset and width follow from it.
#define KS_EF_ROW(R, group, field, kind, index, lo, hi, flags, note) \
    ksEntityField{group, offsetof(R, field), sizeof(R::field), kind, index, lo, hi, flags, note}
// A field read from and written to every version.
#define KS_EF(R, group, field, kind) KS_EF_ROW(R, group, field, kind, 0, 0, 7, 0, ksEfNoNote)
// Read in every version, written from version lo on.
#define KS_EF_FROM(R, group, field, kind, lo) \
    KS_EF_ROW(R, group, field, kind, 0, lo, 7, ksEfWriteVersions, ksEfNoNote)
// A handle named by a record of table `table`.
#define KS_EF_REF(R, group, field, table) KS_EF_ROW(R, group, field, ksEfNameRef, table, 0, 7, 0, ksEfNoNote)
// One axis of a point: X at the point's group, Y at group + 10, Z at + 20.
#define KS_EF_AXIS(R, group, field, axis) KS_EF_ROW(R, group, field, ksEfReal, axis, 0, 7, 0, ksEfNoNote)
#define KS_EF_P2(R, group, field) KS_EF_AXIS(R, group, field, 0), KS_EF_AXIS(R, group + 10, field, 1)
#define KS_EF_P3(R, group, field) KS_EF_P2(R, group, field), KS_EF_AXIS(R, group + 20, field, 2)
// Points and fields of the R2000 form only: before it the group carries
// nothing (a VIEWPORT's view stands in its extended data then).
#define KS_EF_R2000(R, group, field, kind) KS_EF_ROW(R, group, field, kind, 0, 7, 7, 0, ksEfNoNote)
#define KS_EF_R2000_P2(R, group, field)                       \
    KS_EF_ROW(R, group, field, ksEfReal, 0, 7, 7, 0, ksEfNoNote), \
        KS_EF_ROW(R, group + 10, field, ksEfReal, 1, 7, 7, 0, ksEfNoNote)
#define KS_EF_R2000_P3(R, group, field) \
    KS_EF_R2000_P2(R, group, field), KS_EF_ROW(R, group + 20, field, ksEfReal, 2, 7, 7, 0, ksEfNoNote)
// An element of a blob; `cond` ksEfInRun for the groups that only follow
// the run's first.
#define KS_EF_LIST(R, group, field, kind, part, cond) KS_EF_ROW(R, group, field, kind, part, 0, 7, cond, ksEfNoNote)

namespace {

// Rows are written in the order of the record's fields and sorted here by
// group, condition and version.
constexpr bool rowBefore(const ksEntityField& a, const ksEntityField& b) {
    if (a.group != b.group) return a.group < b.group;
    const int ca = a.flags & ksEfConditions;
    const int cb = b.flags & ksEfConditions;
    if (ca != cb) return ca < cb;
    return a.minVersion < b.minVersion;
}

template <size_t N>
constexpr std::array<ksEntityField, N> sortRows(const ksEntityField (&rows)[N]) {
    std::array<ksEntityField, N> out{};
    for (size_t i = 0; i < N; ++i) {
        size_t j = i;
        for (; j > 0 && rowBefore(rows[i], out[j - 1]); --j) out[j] = out[j - 1];
        out[j] = rows[i];
    }
    return out;
}

using H = ksEntityHeader;

// 5 and 67 go out from the versions that have handles and a paper space
// flag; 60 and the bracketed groups with the R13 form; the lineweight with
// R2000. Reactors go out from R14 on (the proxy writes them in R13 too).
constexpr auto headerRows = sortRows({
    KS_EF_FROM(H, 5, handle, ksEfHandle, 3),
    KS_EF_REF(H, 8, layerHandle, ksTableLayer),
    KS_EF_REF(H, 6, linetypeHandle, ksTableLtype),
    KS_EF_ROW(H, 360, xdictHandle, ksEfHandle, 0, 5, 7, ksEfWriteVersions | ksEfInBrackets, ksEfNoNote),
    KS_EF(H, 39, thickness, ksEfReal),
    KS_EF(H, 62, color, ksEfShort),
    KS_EF_ROW(H, 210, extrusion, ksEfReal, 0, 3, 7, ksEfWriteVersions | ksEfExtrusion, ksEfNoNote),
    KS_EF_ROW(H, 220, extrusion, ksEfReal, 1, 3, 7, ksEfWriteVersions | ksEfExtrusion, ksEfNoNote),
    KS_EF_ROW(H, 230, extrusion, ksEfReal, 2, 3, 7, ksEfWriteVersions | ksEfExtrusion, ksEfNoNote),
    KS_EF(H, 48, linetypeScale, ksEfReal),
    KS_EF_ROW(H, 67, flags, ksEfBit, ksEntityPaperSpace, 3, 7, ksEfWriteVersions, ksEfNoNote),
    KS_EF_ROW(H, 60, flags, ksEfBit, ksEntityInvisible, 5, 7, ksEfWriteVersions, ksEfNoNote),
    KS_EF_FROM(H, 370, lineweight, ksEfShort, 7),
    KS_EF_ROW(H, 330, reactors, ksEfHandleList, 0, 6, 7, ksEfWriteVersions | ksEfInBrackets | ksEfListCount,
              offsetof(H, reactorCount)),
});

constexpr auto lineRows = sortRows({
    KS_EF_P3(ksLineBody, 10, start),
    KS_EF_P3(ksLineBody, 11, end),
});

constexpr auto rayRows = sortRows({
    KS_EF_P3(ksRayBody, 10, start),
    KS_EF_P3(ksRayBody, 11, direction),
});

constexpr auto pointRows = sortRows({
    KS_EF_P3(ksPointBody, 10, position),
    KS_EF(ksPointBody, 50, xAxisAngle, ksEfAngle),
});

constexpr auto circleRows = sortRows({
    KS_EF_P3(ksCircleBody, 10, center),
    KS_EF(ksCircleBody, 40, radius, ksEfReal),
});

constexpr auto arcRows = sortRows({
    KS_EF_P3(ksArcBody, 10, center),
    KS_EF(ksArcBody, 40, radius, ksEfReal),
    KS_EF(ksArcBody, 50, startAngle, ksEfAngle),
    KS_EF(ksArcBody, 51, endAngle, ksEfAngle),
});

// The shape's name (2) becomes shapeNumber through the style's shape file.
constexpr auto shapeRows = sortRows({
    KS_EF_P3(ksShapeBody, 10, insertion),
    KS_EF(ksShapeBody, 40, size, ksEfReal),
    KS_EF(ksShapeBody, 50, rotation, ksEfAngle),
    KS_EF(ksShapeBody, 41, widthFactor, ksEfReal),
    KS_EF(ksShapeBody, 51, oblique, ksEfAngle),
});

constexpr auto ellipseRows = sortRows({
    KS_EF_P3(ksEllipseBody, 10, center),
    KS_EF_P3(ksEllipseBody, 11, majorAxis),
    KS_EF(ksEllipseBody, 40, ratio, ksEfReal),
    KS_EF(ksEllipseBody, 41, startParameter, ksEfReal),
    KS_EF(ksEllipseBody, 42, endParameter, ksEfReal),
});

// data: section 0 the knots, 1 the control points with their weights, 2 the
// fit points. A weight belongs to the control point before it.
constexpr auto splineRows = sortRows({
    KS_EF(ksSplineBody, 71, degree, ksEfShort),
    KS_EF(ksSplineBody, 70, flags, ksEfShort),
    KS_EF(ksSplineBody, 72, knotCount, ksEfShort),
    KS_EF(ksSplineBody, 73, controlCount, ksEfShort),
    KS_EF(ksSplineBody, 74, fitCount, ksEfShort),
    KS_EF(ksSplineBody, 42, knotTolerance, ksEfReal),
    KS_EF(ksSplineBody, 43, controlTolerance, ksEfReal),
    KS_EF(ksSplineBody, 44, fitTolerance, ksEfReal),
    KS_EF_P3(ksSplineBody, 12, startTangent),
    KS_EF_P3(ksSplineBody, 13, endTangent),
    KS_EF_LIST(ksSplineBody, 40, data, ksEfRealList, 0, 0),
    KS_EF_LIST(ksSplineBody, 10, data, ksEfPointList, 1, 0),
    KS_EF_LIST(ksSplineBody, 41, data, ksEfRealList, 1, ksEfInRun),
    KS_EF_LIST(ksSplineBody, 11, data, ksEfPointList, 2, 0),
});

// The alignment point has no Z of its own: 31 goes out with the insertion's.
constexpr auto textRows = sortRows({
    KS_EF_P3(ksTextBody, 10, insertion),
    KS_EF_ROW(ksTextBody, 31, insertion, ksEfReal, 2, 3, 7, ksEfNoRead | ksEfWriteVersions, ksEfNoNote),
    KS_EF(ksTextBody, 40, height, ksEfReal),
    KS_EF(ksTextBody, 50, rotation, ksEfAngle),
    KS_EF(ksTextBody, 41, widthFactor, ksEfReal),
    KS_EF(ksTextBody, 51, oblique, ksEfAngle),
    KS_EF(ksTextBody, 71, generation, ksEfByte),
    KS_EF(ksTextBody, 72, horizontalAlign, ksEfByte),
    KS_EF_FROM(ksTextBody, 73, verticalAlign, ksEfByte, 4),
    KS_EF_P2(ksTextBody, 11, alignment),
    KS_EF_REF(ksTextBody, 7, styleHandle, ksTableStyle),
    KS_EF(ksTextBody, 1, text, ksEfCodedText),
});

#define KS_EF_CORNERS(R)                                                                   \
    KS_EF_P3(R, 10, corner1), KS_EF_P3(R, 11, corner2), KS_EF_P3(R, 12, corner3), \
        KS_EF_P3(R, 13, corner4)

constexpr auto traceRows = sortRows({KS_EF_CORNERS(ksTraceBody)});

constexpr auto faceRows = sortRows({
    KS_EF_CORNERS(ks3dFaceBody),
    KS_EF_ROW(ks3dFaceBody, 70, invisibleEdges, ksEfShort, 0, 3, 7, ksEfWriteVersions | ksEfLowByteOut,
              ksEfNoNote),
});

#undef KS_EF_CORNERS

// A group 1 ends a line of the model text, a group 3 carries a line's
// first 255 bytes.
constexpr auto modelerRows = sortRows({
    KS_EF_LIST(ksModelerBody, 1, satData, ksEfModelText, 1, 0),
    KS_EF_LIST(ksModelerBody, 3, satData, ksEfModelText, 0, 0),
});

// The block's 2 and 70 belong to its header record.
constexpr auto blockRows = sortRows({
    KS_EF_AXIS(ksBlockBody, 10, basePoint, 0),
    KS_EF_AXIS(ksBlockBody, 20, basePoint, 1),
    KS_EF_ROW(ksBlockBody, 30, basePoint, ksEfReal, 2, 4, 7, ksEfWriteVersions, ksEfNoNote),
    KS_EF(ksBlockBody, 3, name, ksEfName),
    KS_EF_FROM(ksBlockBody, 1, xrefPath, ksEfText, 4),
});

constexpr auto insertRows = sortRows({
    KS_EF(ksInsertBody, 66, hasAttributes, ksEfShort),
    KS_EF_P3(ksInsertBody, 10, insertion),
    KS_EF(ksInsertBody, 41, xScale, ksEfReal),
    KS_EF(ksInsertBody, 42, yScale, ksEfReal),
    KS_EF(ksInsertBody, 43, zScale, ksEfReal),
    KS_EF(ksInsertBody, 50, rotation, ksEfAngle),
    KS_EF(ksInsertBody, 45, rowSpacing, ksEfReal),
    KS_EF(ksInsertBody, 44, columnSpacing, ksEfReal),
    KS_EF(ksInsertBody, 71, rowCount, ksEfShort),
    KS_EF(ksInsertBody, 70, columnCount, ksEfShort),
    KS_EF_REF(ksInsertBody, 2, blockHandle, ksTableBlock),
});

// The head of ATTDEF and ATTRIB; as in TEXT, 31 is the insertion's Z.
#define KS_EF_ATTRIBUTE_HEAD(R)                                                                       \
    KS_EF_P3(R, 10, insertion),                                                                       \
        KS_EF_ROW(R, 31, insertion, ksEfReal, 2, 3, 7, ksEfNoRead | ksEfWriteVersions, ksEfNoNote), \
        KS_EF(R, 70, attributeFlags, ksEfByte), KS_EF(R, 73, fieldLength, ksEfShort),               \
        KS_EF(R, 40, height, ksEfReal), KS_EF(R, 50, rotation, ksEfAngle),                          \
        KS_EF(R, 41, widthFactor, ksEfReal), KS_EF(R, 51, oblique, ksEfAngle),                      \
        KS_EF(R, 71, generation, ksEfByte), KS_EF(R, 72, horizontalAlign, ksEfByte),                \
        KS_EF_FROM(R, 74, verticalAlign, ksEfByte, 4), KS_EF_P2(R, 11, alignment),                  \
        KS_EF_REF(R, 7, styleHandle, ksTableStyle)

constexpr auto attdefRows = sortRows({
    KS_EF_ATTRIBUTE_HEAD(ksAttdefBody),
    KS_EF(ksAttdefBody, 3, prompt, ksEfText),
    KS_EF(ksAttdefBody, 2, tag, ksEfText),
    KS_EF(ksAttdefBody, 1, defaultValue, ksEfCodedText),
});

constexpr auto attribRows = sortRows({
    KS_EF_ATTRIBUTE_HEAD(ksAttribBody),
    KS_EF(ksAttribBody, 2, tag, ksEfText),
    KS_EF(ksAttribBody, 1, value, ksEfCodedText),
});

#undef KS_EF_ATTRIBUTE_HEAD

// The 10 and 20 of a POLYLINE are zeros with no field; 30 is the elevation.
constexpr auto polylineRows = sortRows({
    KS_EF(ksPolylineBody, 30, elevation, ksEfReal),
    KS_EF(ksPolylineBody, 40, startWidth, ksEfReal),
    KS_EF(ksPolylineBody, 41, endWidth, ksEfReal),
    KS_EF_FROM(ksPolylineBody, 75, curveType, ksEfShort, 3),
    KS_EF_FROM(ksPolylineBody, 73, smoothM, ksEfShort, 3),
    KS_EF_FROM(ksPolylineBody, 74, smoothN, ksEfShort, 3),
    KS_EF_FROM(ksPolylineBody, 71, meshM, ksEfShort, 3),
    KS_EF_FROM(ksPolylineBody, 72, meshN, ksEfShort, 3),
    KS_EF(ksPolylineBody, 70, flags, ksEfShort),
});

#define KS_EF_FACE_INDEX(n)                                                                          \
    KS_EF_ROW(ksVertexBody, 71 + n, faceIndices, ksEfShort, n, 4, 7, ksEfWriteVersions | ksEfCounted, \
              offsetof(ksVertexBody, faceIndexCount))

constexpr auto vertexRows = sortRows({
    KS_EF_P3(ksVertexBody, 10, point),
    KS_EF(ksVertexBody, 70, flags, ksEfShort),
    KS_EF_ROW(ksVertexBody, 40, startWidth, ksEfReal, 0, 0, 7, ksEfPresence, offsetof(ksVertexBody, hasStartWidth)),
    KS_EF_ROW(ksVertexBody, 41, endWidth, ksEfReal, 0, 0, 7, ksEfPresence, offsetof(ksVertexBody, hasEndWidth)),
    KS_EF(ksVertexBody, 42, bulge, ksEfReal),
    KS_EF(ksVertexBody, 50, tangent, ksEfAngle),
    KS_EF_FACE_INDEX(0),
    KS_EF_FACE_INDEX(1),
    KS_EF_FACE_INDEX(2),
    KS_EF_FACE_INDEX(3),
});

#undef KS_EF_FACE_INDEX

#define KS_EF_DIM_INSERTION(group, axis)                                                           \
    KS_EF_ROW(ksDimensionBody, group, insertionPoint, ksEfReal, axis, 0, 7, ksEfPresence, \
              offsetof(ksDimensionBody, hasInsertionPoint))

constexpr auto dimensionRows = sortRows({
    KS_EF_DIM_INSERTION(12, 0),
    KS_EF_DIM_INSERTION(22, 1),
    KS_EF_DIM_INSERTION(32, 2),
    KS_EF(ksDimensionBody, 70, dimensionType, ksEfByte),
    KS_EF_P3(ksDimensionBody, 16, point16),
    KS_EF_P3(ksDimensionBody, 13, point13),
    KS_EF_P3(ksDimensionBody, 14, point14),
    KS_EF_P3(ksDimensionBody, 15, point15),
    KS_EF(ksDimensionBody, 40, leaderLength, ksEfReal),
    KS_EF(ksDimensionBody, 50, rotation, ksEfAngle),
    KS_EF_FROM(ksDimensionBody, 53, textRotation, ksEfAngle, 4),
    KS_EF_FROM(ksDimensionBody, 52, extensionOblique, ksEfAngle, 4),
    KS_EF_AXIS(ksDimensionBody, 11, textMidpoint, 0),
    KS_EF_AXIS(ksDimensionBody, 21, textMidpoint, 1),
    KS_EF_ROW(ksDimensionBody, 31, textMidpoint, ksEfReal, 2, 3, 7, ksEfWriteVersions, ksEfNoNote),
    KS_EF_P3(ksDimensionBody, 10, definitionPoint),
    KS_EF_FROM(ksDimensionBody, 51, horizontalDirection, ksEfAngle, 3),
    KS_EF_REF(ksDimensionBody, 2, blockHandle, ksTableBlock),
    KS_EF_ROW(ksDimensionBody, 3, dimstyleHandle, ksEfNameRef, ksTableDimstyle, 4, 7, ksEfWriteVersions,
              ksEfNoNote),
    KS_EF(ksDimensionBody, 54, horizontal, ksEfAngle),
    KS_EF_R2000(ksDimensionBody, 71, attachment, ksEfShort),
    KS_EF_R2000(ksDimensionBody, 72, lineSpacingStyle, ksEfShort),
    KS_EF_R2000(ksDimensionBody, 41, lineSpacingFactor, ksEfReal),
    KS_EF_R2000(ksDimensionBody, 42, measurement, ksEfReal),
    KS_EF(ksDimensionBody, 1, text, ksEfCodedText),
});

#undef KS_EF_DIM_INSERTION

// Before R2000 all but the frame (10, 40, 41, 68, 69) goes as extended
// data, so those groups have the fields from R2000 only. The name is read
// and never written.
using VP = ksViewportBody;
constexpr auto viewportRows = sortRows({
    KS_EF_ROW(VP, 341, frozenLayers, ksEfHandleList, 0, 7, 7, ksEfListCount, offsetof(VP, frozenLayerCount)),
    KS_EF(VP, 68, status, ksEfShort),
    KS_EF_P3(VP, 10, center),
    KS_EF(VP, 40, width, ksEfReal),
    KS_EF(VP, 41, height, ksEfReal),
    KS_EF(VP, 69, viewportId, ksEfShort),
    KS_EF_R2000(VP, 340, clipBoundaryHandle, ksEfHandle),
    KS_EF_R2000(VP, 90, statusFlags, ksEfLong),
    KS_EF_R2000(VP, 281, renderMode, ksEfShort),
    KS_EF_R2000(VP, 1, plotStyleName, ksEfText),
    KS_EF_R2000(VP, 71, ucsPerViewport, ksEfShort),
    KS_EF_R2000(VP, 74, ucsIcon, ksEfShort),
    KS_EF_R2000_P3(VP, 110, ucsOrigin),
    KS_EF_R2000_P3(VP, 111, ucsXAxis),
    KS_EF_R2000_P3(VP, 112, ucsYAxis),
    KS_EF_R2000(VP, 79, orthoType, ksEfShort),
    KS_EF_R2000(VP, 146, elevation, ksEfReal),
    KS_EF_R2000(VP, 345, baseUcsHandle, ksEfHandle),
    KS_EF_R2000(VP, 346, namedUcsHandle, ksEfHandle),
    KS_EF_R2000_P3(VP, 17, target),
    KS_EF_R2000_P3(VP, 16, direction),
    KS_EF_R2000(VP, 51, twist, ksEfAngle),
    KS_EF_R2000(VP, 45, viewHeight, ksEfReal),
    KS_EF_R2000_P2(VP, 12, viewCenter),
    KS_EF_R2000(VP, 42, lensLength, ksEfReal),
    KS_EF_R2000(VP, 43, frontClip, ksEfReal),
    KS_EF_R2000(VP, 44, backClip, ksEfReal),
    KS_EF_R2000(VP, 72, circleZoom, ksEfShort),
    KS_EF_R2000_P2(VP, 14, snapSpacing),
    KS_EF_R2000_P2(VP, 15, gridSpacing),
    KS_EF_R2000(VP, 50, snapAngle, ksEfAngle),
    KS_EF_R2000_P2(VP, 13, snapBase),
    KS_EF_ROW(VP, 2, name, ksEfText, 0, 0, 7, ksEfNoWrite, ksEfNoNote),
});

// A text of one group is 1 into `text`. A longer one is a run of 3 chunks
// closed by a 1, all into `longText`: the 1 that ends a run is the second
// row of the group. The line spacing is read and never written.
constexpr auto mtextRows = sortRows({
    KS_EF_P3(ksMtextBody, 10, insertion),
    KS_EF_P3(ksMtextBody, 11, direction),
    KS_EF(ksMtextBody, 40, height, ksEfReal),
    KS_EF(ksMtextBody, 41, referenceWidth, ksEfReal),
    KS_EF(ksMtextBody, 71, attachment, ksEfByte),
    KS_EF(ksMtextBody, 72, drawingDirection, ksEfByte),
    KS_EF_ROW(ksMtextBody, 73, lineSpacingStyle, ksEfShort, 0, 0, 7, ksEfNoWrite, ksEfNoNote),
    KS_EF_ROW(ksMtextBody, 44, lineSpacing, ksEfReal, 0, 0, 7, ksEfNoWrite, ksEfNoNote),
    KS_EF_REF(ksMtextBody, 7, styleHandle, ksTableStyle),
    // The frame the text takes: read-only groups that real files leave out.
    KS_EF_ROW(ksMtextBody, 42, boxWidth, ksEfReal, 0, 0, 7, ksEfNoWrite, ksEfNoNote),
    KS_EF_ROW(ksMtextBody, 43, boxHeight, ksEfReal, 0, 0, 7, ksEfNoWrite, ksEfNoNote),
    KS_EF_LIST(ksMtextBody, 3, longText, ksEfTextChunk, 0, 0),
    KS_EF_LIST(ksMtextBody, 1, longText, ksEfTextChunk, 0, ksEfInRun),
    KS_EF(ksMtextBody, 1, text, ksEfCodedText),
});

constexpr auto leaderRows = sortRows({
    KS_EF(ksLeaderBody, 76, vertexCount, ksEfShort),
    KS_EF(ksLeaderBody, 72, pathType, ksEfByte),
    KS_EF(ksLeaderBody, 71, arrowFlag, ksEfByte),
    KS_EF(ksLeaderBody, 74, hookDirection, ksEfByte),
    KS_EF(ksLeaderBody, 75, hookLine, ksEfByte),
    KS_EF(ksLeaderBody, 73, creationFlag, ksEfShort),
    KS_EF(ksLeaderBody, 77, color, ksEfShort),
    KS_EF(ksLeaderBody, 40, textHeight, ksEfReal),
    KS_EF(ksLeaderBody, 41, textWidth, ksEfReal),
    KS_EF_P3(ksLeaderBody, 213, annotationOffset),
    KS_EF_P3(ksLeaderBody, 211, horizontalDirection),
    KS_EF_P3(ksLeaderBody, 212, blockOffset),
    KS_EF(ksLeaderBody, 340, annotationHandle, ksEfHandle),
    KS_EF_REF(ksLeaderBody, 3, dimstyleHandle, ksTableDimstyle),
    KS_EF_LIST(ksLeaderBody, 10, vertices, ksEfPointList, 0, 0),
});

constexpr auto toleranceRows = sortRows({
    KS_EF_P3(ksToleranceBody, 10, insertion),
    KS_EF_P3(ksToleranceBody, 11, direction),
    KS_EF_REF(ksToleranceBody, 3, dimstyleHandle, ksTableDimstyle),
    KS_EF(ksToleranceBody, 1, text, ksEfCodedText),
});

// data: section 0 the vertices, a run opened by the first 11; section 1 the
// elements' parameters, which follow in the same run.
constexpr auto mlineRows = sortRows({
    KS_EF(ksMlineBody, 40, scale, ksEfReal),
    KS_EF(ksMlineBody, 70, justification, ksEfShort),
    KS_EF(ksMlineBody, 71, flags, ksEfShort),
    KS_EF(ksMlineBody, 73, styleCount, ksEfShort),
    KS_EF(ksMlineBody, 72, vertexCount, ksEfShort),
    KS_EF_P3(ksMlineBody, 10, start),
    KS_EF(ksMlineBody, 340, styleHandle, ksEfHandle),
    KS_EF_REF(ksMlineBody, 2, styleHandle, ksTableMlinestyle),
    KS_EF_LIST(ksMlineBody, 11, data, ksEfPointList, 0, 0),
    KS_EF_LIST(ksMlineBody, 12, data, ksEfPointList, 0, ksEfInRun),
    KS_EF_LIST(ksMlineBody, 13, data, ksEfPointList, 0, ksEfInRun),
    KS_EF_LIST(ksMlineBody, 74, data, ksEfShortList, 1, ksEfInRun),
    KS_EF_LIST(ksMlineBody, 41, data, ksEfRealList, 1, ksEfInRun),
    KS_EF_LIST(ksMlineBody, 75, data, ksEfShortList, 1, ksEfInRun),
    KS_EF_LIST(ksMlineBody, 42, data, ksEfRealList, 1, ksEfInRun),
});

}  // namespace

#undef KS_EF_LIST
#undef KS_EF_R2000_P3
#undef KS_EF_R2000_P2
#undef KS_EF_R2000
#undef KS_EF_P3
#undef KS_EF_P2
#undef KS_EF_AXIS
#undef KS_EF_REF
#undef KS_EF_FROM
#undef KS_EF
#undef KS_EF_ROW

namespace {

template <typename R, size_t N>
constexpr ksEntityFieldSet rowSet(const std::array<ksEntityField, N>& rows) {
    return {rows.data(), static_cast<uint16_t>(N), static_cast<uint16_t>(sizeof(R))};
}

constexpr ksEntityFieldSet noRows{nullptr, 0, 0};

}  // namespace

constexpr ksEntityFieldSet ksEntityHeaderFields = rowSet<ksEntityHeader>(headerRows);

constexpr ksEntityFieldSet ksEntityFieldTable[ksEntityFixedCount] = {
    noRows,                                    // 0
    rowSet<ksLineBody>(lineRows),              // LINE
    rowSet<ksPointBody>(pointRows),            // POINT
    rowSet<ksCircleBody>(circleRows),          // CIRCLE
    rowSet<ksShapeBody>(shapeRows),            // SHAPE
    rowSet<ksEllipseBody>(ellipseRows),        // ELLIPSE
    rowSet<ksSplineBody>(splineRows),          // SPLINE
    rowSet<ksTextBody>(textRows),              // TEXT
    rowSet<ksArcBody>(arcRows),                // ARC
    rowSet<ksTraceBody>(traceRows),            // TRACE
    rowSet<ksModelerBody>(modelerRows),        // REGION
    rowSet<ksTraceBody>(traceRows),            // SOLID
    rowSet<ksBlockBody>(blockRows),            // BLOCK
    noRows,                                    // ENDBLK
    rowSet<ksInsertBody>(insertRows),          // INSERT
    rowSet<ksAttdefBody>(attdefRows),          // ATTDEF
    rowSet<ksAttribBody>(attribRows),          // ATTRIB
    noRows,                                    // SEQEND
    noRows,                                    // 18
    rowSet<ksPolylineBody>(polylineRows),      // POLYLINE
    rowSet<ksVertexBody>(vertexRows),          // VERTEX
    rowSet<ksLineBody>(lineRows),              // 3DLINE
    rowSet<ks3dFaceBody>(faceRows),            // 3DFACE
    rowSet<ksDimensionBody>(dimensionRows),    // DIMENSION
    rowSet<ksViewportBody>(viewportRows),      // VIEWPORT
    rowSet<ksModelerBody>(modelerRows),        // 3DSOLID
    rowSet<ksRayBody>(rayRows),                // RAY
    rowSet<ksRayBody>(rayRows),                // XLINE
    rowSet<ksMtextBody>(mtextRows),            // MTEXT
    rowSet<ksLeaderBody>(leaderRows),          // LEADER
    rowSet<ksToleranceBody>(toleranceRows),    // TOLERANCE
    rowSet<ksMlineBody>(mlineRows),            // MLINE
    ksProxyEntityFields,                       // the proxy, for every code from 498 up
    noRows,                                    // 33
    noRows,                                    // 34
    rowSet<ksModelerBody>(modelerRows),        // BODY
};

namespace {

constexpr size_t elementWidth(ksEntityFieldKind kind) {
    switch (kind) {
        case ksEfByte:
        case ksEfBit: return 1;
        case ksEfShort: return 2;
        case ksEfLong: return 4;
        case ksEfReal:
        case ksEfAngle: return 8;
        case ksEfHandle:
        case ksEfNameRef: return sizeof(ksObjHandle);
        case ksEfTextChunk:
        case ksEfModelText:
        case ksEfRealList:
        case ksEfPointList:
        case ksEfShortList:
        case ksEfHandleList: return sizeof(ksLoc);
        case ksEfText:
        case ksEfCodedText:
        case ksEfName: return 1;
    }
    return 0;
}

constexpr bool isTextKind(ksEntityFieldKind kind) {
    return kind == ksEfText || kind == ksEfCodedText || kind == ksEfName;
}

constexpr bool isIndexedKind(ksEntityFieldKind kind) {
    return kind == ksEfShort || kind == ksEfReal || kind == ksEfLong;
}

// The kind fits its field: a text has room for a byte and its NUL; an
// indexed element lies inside its array; a bit is a single flag value of
// an int8; a table number is one; every other kind fills its field.
constexpr bool rowFitsField(const ksEntityField& row) {
    const size_t unit = elementWidth(row.kind);
    if (isTextKind(row.kind)) return row.width >= 2 && row.index == 0;
    if (isIndexedKind(row.kind)) {
        return row.index >= 0 && row.width % unit == 0 && (row.index + 1) * unit <= row.width;
    }
    if (row.kind == ksEfBit) return row.width == 1 && row.index > 0 && (row.index & (row.index - 1)) == 0;
    if (row.kind == ksEfNameRef) return row.width == unit && row.index >= 0 && row.index < ksTableNumberCount;
    if (row.width != unit) return false;
    return row.index >= 0;  // the list kinds name a part of their blob
}

// The companion field: an int16 for presence and counts, the int32 count
// of a list, none otherwise; inside the record.
constexpr bool noteFits(const ksEntityField& row, size_t recordSize) {
    const bool marks = (row.flags & (ksEfPresence | ksEfCounted)) != 0;
    const bool counts = (row.flags & ksEfListCount) != 0;
    if (!marks && !counts) return row.note == ksEfNoNote;
    if (marks && counts) return false;
    const size_t width = marks ? sizeof(int16_t) : sizeof(int32_t);
    return row.note != ksEfNoNote && row.note + width <= recordSize;
}

constexpr bool readsIn(const ksEntityField& row, int version) {
    if (row.flags & ksEfNoRead) return false;
    return (row.flags & ksEfWriteVersions) || (version >= row.minVersion && version <= row.maxVersion);
}

// Rows lie inside the record and fit their fields, version ranges are sane,
// a row isn't both unread and unwritten, and the rows stand sorted with at
// most one row read for a group, condition and version.
constexpr bool rowsWellFormed(const ksEntityFieldSet& set) {
    for (size_t i = 0; i < set.count; ++i) {
        const ksEntityField& row = set.rows[i];
        if (row.offset + row.width > set.recordSize || !rowFitsField(row)) return false;
        if (!noteFits(row, set.recordSize)) return false;
        if (row.minVersion < 0 || row.minVersion > row.maxVersion || row.maxVersion >= ksVersionCount) {
            return false;
        }
        if ((row.flags & ksEfNoRead) && (row.flags & ksEfNoWrite)) return false;
        if (i == 0) continue;
        const ksEntityField& prev = set.rows[i - 1];
        if (rowBefore(row, prev)) return false;
        if (prev.group != row.group || (prev.flags & ksEfConditions) != (row.flags & ksEfConditions)) continue;
        for (int v = 0; v < ksVersionCount; ++v) {
            if (readsIn(prev, v) && readsIn(row, v)) return false;
        }
    }
    return true;
}

constexpr bool allSetsWellFormed() {
    if (!rowsWellFormed(ksEntityHeaderFields)) return false;
    for (const ksEntityFieldSet& set : ksEntityFieldTable) {
        if (!rowsWellFormed(set)) return false;
        if (set.count == 0 && set.rows != nullptr) return false;
    }
    return true;
}

static_assert(allSetsWellFormed(), "a ksEntityFieldTable row is out of order or does not fit its field");

// Every body has its rows, and only the bodies; the proxy's slot has the
// proxy body's.
constexpr bool everyBodyHasRows() {
    if (ksEntityFieldTable[ksEntProxyRows].recordSize != sizeof(ksProxyEntity)) return false;
    for (int t = 0; t < ksEntityFixedCount; ++t) {
        if (t == ksEntProxyRows) continue;
        const bool hasBody = bodySizes[static_cast<size_t>(t)] != 0;
        if (hasBody != (ksEntityFieldTable[t].rows != nullptr)) return false;
        if (hasBody && ksEntityFieldTable[t].recordSize != bodySizes[static_cast<size_t>(t)]) return false;
    }
    return true;
}

static_assert(everyBodyHasRows(), "a body type without its rows, or rows of another record");

}  // namespace

const ksEntityField* ksEntityFieldFindIn(const ksEntityFieldSet& set, int group, int version,
                                         uint16_t condition) {
    if (version < 0) version = 0;
    if (version >= ksVersionCount) version = ksVersionCount - 1;
    // Rows stand sorted by group: the first of the group, then its versions.
    const ksEntityField* end = set.rows + set.count;
    for (const ksEntityField* it = std::lower_bound(set.rows, end, group,
                                             [](const ksEntityField& row, int g) { return row.group < g; });
         it != end && it->group == group; ++it) {
        const ksEntityField& row = *it;
        if ((row.flags & ksEfConditions) == condition && readsIn(row, version)) return &row;
    }
    return nullptr;
}

const ksEntityField* ksEntityFieldFind(int type, int group, int version, uint16_t condition) {
    if (type >= ksEntProxy) type = ksEntProxyRows;
    if (type < 0 || type >= ksEntityFixedCount) return nullptr;
    return ksEntityFieldFindIn(ksEntityFieldTable[type], group, version, condition);
}

const ksEntityField* ksEntityHeaderFieldFind(int group, int version, uint16_t condition) {
    return ksEntityFieldFindIn(ksEntityHeaderFields, group, version, condition);
}

bool ksEntityFieldWritten(const ksEntityField& row, int version) {
    if (row.flags & ksEfNoWrite) return false;
    return version >= row.minVersion && version <= row.maxVersion;
}

size_t ksEntityFieldElementWidth(ksEntityFieldKind kind) {
    return elementWidth(kind);
}

void* ksEntityFieldAddress(void* record, const ksEntityField& row) {
    size_t at = row.offset;
    if (isIndexedKind(row.kind)) at += static_cast<size_t>(row.index) * elementWidth(row.kind);
    return static_cast<unsigned char*>(record) + at;
}
