// The entities of R13 to R2000 DWG files: the walk along the chains of
// handles that link them, the data every entity has, the table of entity
// types and the bodies of the simple entities.
//
// An entity is an object (dwgfile.h) whose stream continues, behind the
// frame, with the common data:
//
//   B B     entity mode: 0 the owner handle is stored; 1 paper space and
//           2 model space, the owner (the space's block) is not
//   BL      number of reactors
//   B       (R13, R14) linetype BYLAYER: no linetype handle stored
//   B       no links: the previous and next entity are handle - 1 and + 1
//   BS      color
//   BD      linetype scale
//   B B     (R2000) linetype: 0 BYLAYER, 1 BYBLOCK, 2 CONTINUOUS, 3 stored
//   B B     (R2000) plot style: 3 stored
//   BS      invisible when the low byte is 1
//   RC      (R2000) lineweight index
//
// then the body of its type, then, from the handle stream, the common
// handles (owner, reactors, extension dictionary, layer, linetype and the
// links, in an order that differs between R13/R14 and R2000) and the
// body's own handles.
//
// The chains: the entities of *PAPER_SPACE are read first, then those of
// *MODEL_SPACE, each from its block header's first entity to its last; a
// block runs from its BLOCK entity through its entities to its ENDBLK. The
// vertices of a POLYLINE and the attributes of an INSERT are not on the
// chain: they hang behind their owner, closed by a SEQEND, and the chain
// goes on behind the owner once the SEQEND is read.
#include <cstring>

#include "dwgread/bodyread.h"
#include "dwgread/dwgfile.h"
#include "dwgread/ops.h"
#include "frame/fcb.h"
#include "frame/globals.h"
#include "records/classent.h"
#include "records/entity.h"
#include "records/object.h"
#include "records/tables.h"
#include "store/blob.h"
#include "store/entitylist.h"
#include "store/handles.h"
#include "store/tablelist.h"

namespace {

constexpr double kFullTurn = 6.28318530718;

// The item class id of a class whose items are objects (498: entities).
constexpr int32_t kObjectClassId = 499;

using EntityRead = ksBodyRead;
using BodyReader = ksBodyReader;

// R2000 plot style flags of the entity being read: with 3 a plot style
// handle follows the linetype in the handle stream. Loads run one at a
// time.
uint8_t plotStyleFlags = 0;

bool same(const ksObjHandle& a, const ksObjHandle& b)
{
    return ksHandleCompare(a, b) == 0;
}

// ---- Pieces of the bodies

template <size_t N>
void readText(ksBitReader& r, char (&field)[N], int32_t limit)
{
    ksReadTextField(r, field, limit);
}

// The style handle of TEXT, ATTDEF and ATTRIB, and of SHAPE.
bool readStyleHandle(EntityRead& e, ksObjHandle* style)
{
    if (!ksReadEntityHandles(e.fcb, e.header))
        return false;
    ksReadHandle(e.r, style);
    return true;
}

// The fields that TEXT, ATTDEF and ATTRIB share, up to the style handle.
// The text in TEXT's place goes to `text`. The elevation stands in front
// of the insertion point in all three: files with an ATTDEF above the
// plane have it there.
template <typename Body, size_t N>
void readTextData(EntityRead& e, Body& b, char (&text)[N], int32_t limit)
{
    ksBitReader& r = e.r;
    if (!e.r2000) {
        b.insertion.z = ksReadBDValue(r);
        b.insertion.x = ksReadRDValue(r);
        b.insertion.y = ksReadRDValue(r);
        ksRead2RD(r, &b.alignment);
        ksReadExtrusion(r, &e.header->extrusion);
        e.header->thickness = ksReadBDValue(r);
        b.oblique = ksReadBDValue(r);
        b.rotation = ksReadBDValue(r);
        b.height = ksReadBDValue(r);
        b.widthFactor = ksReadBDValue(r);
        readText(r, text, limit);
        b.generation = static_cast<int8_t>(ksReadBS(r));
        b.horizontalAlign = static_cast<int8_t>(ksReadBS(r));
        b.verticalAlign = static_cast<int8_t>(ksReadBS(r));
        return;
    }
    // R2000: a bit of the data flags set leaves its field at the default.
    const uint8_t flags = ksReadRC(r);
    b.insertion.z = (flags & 1) ? 0.0 : ksReadRDValue(r);
    b.insertion.x = ksReadRDValue(r);
    b.insertion.y = ksReadRDValue(r);
    b.alignment = ksPoint2{0.0, 0.0};
    if (!(flags & 2)) {
        b.alignment.x = ksReadDDValue(r, b.insertion.x);
        b.alignment.y = ksReadDDValue(r, b.insertion.y);
    }
    ksReadBE(r, &e.header->extrusion);
    e.header->thickness = ksReadBTValue(r);
    b.oblique = (flags & 4) ? 0.0 : ksReadRDValue(r);
    b.rotation = (flags & 8) ? 0.0 : ksReadRDValue(r);
    b.height = ksReadRDValue(r);
    b.widthFactor = (flags & 16) ? 1.0 : ksReadRDValue(r);
    readText(r, text, limit);
    b.generation = (flags & 32) ? 0 : static_cast<int8_t>(ksReadBS(r));
    b.horizontalAlign = (flags & 64) ? 0 : static_cast<int8_t>(ksReadBS(r));
    b.verticalAlign = (flags & 128) ? 0 : static_cast<int8_t>(ksReadBS(r));
}

// ---- Simple entities

bool readLine(EntityRead& e)
{
    ksLineBody& b = e.body->line;
    if (e.r2000) {
        ksReadSpan(e.r, &b.start, &b.end);
    } else {
        ksRead3BD(e.r, &b.start);
        ksRead3BD(e.r, &b.end);
    }
    ksReadEntityThickness(e);
    ksReadEntityExtrusion(e);
    return ksReadEntityHandles(e.fcb, e.header) != 0;
}

bool readPoint(EntityRead& e)
{
    ksPointBody& b = e.body->point;
    ksRead3BD(e.r, &b.position);
    ksReadEntityThickness(e);
    ksReadEntityExtrusion(e);
    b.xAxisAngle = ksReadBDValue(e.r);
    return ksReadEntityHandles(e.fcb, e.header) != 0;
}

// CIRCLE, and the circle that an ARC begins with. A negative radius is
// not kept.
void readCircleData(EntityRead& e, ksPoint3* center, double* radius)
{
    ksRead3BD(e.r, center);
    *radius = ksReadBDValue(e.r);
    if (*radius < 0.0)
        *radius = 0.0;
    ksReadEntityThickness(e);
    ksReadEntityExtrusion(e);
}

bool readCircle(EntityRead& e)
{
    readCircleData(e, &e.body->circle.center, &e.body->circle.radius);
    return ksReadEntityHandles(e.fcb, e.header) != 0;
}

bool readArc(EntityRead& e)
{
    ksArcBody& b = e.body->arc;
    readCircleData(e, &b.center, &b.radius);
    b.startAngle = ksReadBDValue(e.r);
    b.endAngle = ksReadBDValue(e.r);
    return ksReadEntityHandles(e.fcb, e.header) != 0;
}

// SOLID and TRACE: four corners in the plane of one elevation.
bool readTrace(EntityRead& e)
{
    ksTraceBody& b = e.body->trace;
    ksReadEntityThickness(e);
    const double elevation = ksReadBDValue(e.r);
    for (ksPoint3* corner : {&b.corner1, &b.corner2, &b.corner3, &b.corner4}) {
        corner->x = ksReadRDValue(e.r);
        corner->y = ksReadRDValue(e.r);
        corner->z = elevation;
    }
    ksReadEntityExtrusion(e);
    return ksReadEntityHandles(e.fcb, e.header) != 0;
}

bool read3dFace(EntityRead& e)
{
    ks3dFaceBody& b = e.body->face;
    ksBitReader& r = e.r;
    if (!e.r2000) {
        for (ksPoint3* corner : {&b.corner1, &b.corner2, &b.corner3, &b.corner4})
            ksRead3BD(r, corner);
        b.invisibleEdges = ksReadBS(r);
    } else {
        // Each corner is coded against the one before.
        const bool noFlags = ksReadBit(r) != 0;
        ksReadFlaggedPoint(r, &b.corner1);
        ksRead3DD(r, &b.corner2, b.corner1);
        ksRead3DD(r, &b.corner3, b.corner2);
        ksRead3DD(r, &b.corner4, b.corner3);
        b.invisibleEdges = noFlags ? 0 : ksReadBS(r);
    }
    return ksReadEntityHandles(e.fcb, e.header) != 0;
}

bool readShape(EntityRead& e)
{
    ksShapeBody& b = e.body->shape;
    ksBitReader& r = e.r;
    ksRead3BD(r, &b.insertion);
    b.size = ksReadBDValue(r);
    b.rotation = ksReadBDValue(r);
    b.widthFactor = ksReadBDValue(r);
    b.oblique = ksReadBDValue(r);
    e.header->thickness = ksReadBDValue(r);
    b.shapeNumber = ksReadBS(r);
    ksReadExtrusion(r, &e.header->extrusion);
    return readStyleHandle(e, &b.styleHandle);
}

bool readEllipse(EntityRead& e)
{
    ksEllipseBody& b = e.body->ellipse;
    ksBitReader& r = e.r;
    ksRead3BD(r, &b.center);
    ksRead3BD(r, &b.majorAxis);
    ksReadExtrusion(r, &e.header->extrusion);
    b.ratio = ksReadBDValue(r);
    b.startParameter = ksReadBDValue(r);
    b.endParameter = ksReadBDValue(r);
    // The end goes round once more while it lies below the start. Values
    // far apart stop raising where a turn no longer changes them.
    for (int turns = 0; b.endParameter < b.startParameter && turns < 64; ++turns)
        b.endParameter += kFullTurn;
    return ksReadEntityHandles(e.fcb, e.header) != 0;
}

// RAY and XLINE: a point and a direction, nothing else.
bool readRay(EntityRead& e)
{
    ksRead3BD(e.r, &e.body->ray.start);
    ksRead3BD(e.r, &e.body->ray.direction);
    return ksReadEntityHandles(e.fcb, e.header) != 0;
}

bool readTextEntity(EntityRead& e)
{
    ksTextBody& b = e.body->text;
    readTextData(e, b, b.text, 2048);
    return readStyleHandle(e, &b.styleHandle);
}

bool readAttdef(EntityRead& e)
{
    ksAttdefBody& b = e.body->attdef;
    readTextData(e, b, b.defaultValue, 513);
    readText(e.r, b.tag, 513);
    b.fieldLength = ksReadBS(e.r);
    b.attributeFlags = static_cast<int8_t>(ksReadRC(e.r));
    readText(e.r, b.prompt, 513);
    return readStyleHandle(e, &b.styleHandle);
}

bool readAttrib(EntityRead& e)
{
    ksAttribBody& b = e.body->attrib;
    readTextData(e, b, b.value, 2049);
    readText(e.r, b.tag, 513);
    b.fieldLength = ksReadBS(e.r);
    b.attributeFlags = static_cast<int8_t>(ksReadRC(e.r));
    return readStyleHandle(e, &b.styleHandle);
}

// BLOCK: the name; the base point and the external reference path are the
// block header's.
bool readBlock(EntityRead& e)
{
    ksBlockBody& b = e.body->block;
    readText(e.r, b.name, 512);
    if (!ksReadEntityHandles(e.fcb, e.header))
        return false;
    // Anonymous blocks keep their kind only ("*U12" reads "*U"); paper
    // space layouts keep their whole name.
    if (b.name[0] == '*' && ksStrNCompare(b.name, "*PAPER_SPACE", 12) != 0)
        b.name[2] = '\0';
    b.basePoint = e.st.blockBase;
    const size_t n = strnlen(e.st.blockXrefPath, sizeof b.xrefPath - 1);
    std::memcpy(b.xrefPath, e.st.blockXrefPath, n);
    b.xrefPath[n] = '\0';
    return true;
}

// ENDBLK and SEQEND: the common handles only.
bool readHandlesOnly(EntityRead& e)
{
    return ksReadEntityHandles(e.fcb, e.header) != 0;
}

// ---- The type table

struct EntityKind {
    int16_t code;       // the type code in memory; 0 for a type that is no entity
    BodyReader read;    // null while the type has no reader
};

// By DWG type 0 to 47. Types without a reader end the load when a chain
// meets them. The reader of a POLYLINE or of an INSERT with attributes
// leaves, behind its own handles, its first and last vertex or attribute
// and its SEQEND in the state (firstSub, lastSub, seqend): the chain goes
// through them before it goes on.
constexpr EntityKind kEntityKinds[] = {
    {0, nullptr},                   //  0
    {ksEntText, readTextEntity},    //  1 TEXT
    {ksEntAttrib, readAttrib},      //  2 ATTRIB
    {ksEntAttdef, readAttdef},      //  3 ATTDEF
    {ksEntBlock, readBlock},        //  4 BLOCK
    {ksEntEndblk, readHandlesOnly}, //  5 ENDBLK
    {ksEntSeqend, readHandlesOnly}, //  6 SEQEND
    {ksEntInsert, ksReadInsertBody},       //  7 INSERT
    {ksEntInsert, ksReadInsertBody},       //  8 MINSERT
    {0, nullptr},                   //  9
    {ksEntVertex, ksReadVertexBody},         // 10 VERTEX 2D
    {ksEntVertex, ksReadVertexBody},         // 11 VERTEX 3D
    {ksEntVertex, ksReadVertexBody},         // 12 VERTEX of a polygon mesh
    {ksEntVertex, ksReadVertexBody},         // 13 VERTEX of a polyface mesh
    {ksEntVertex, ksReadVertexBody},         // 14 face of a polyface mesh
    {ksEntPolyline, ksReadPolylineBody},       // 15 POLYLINE 2D
    {ksEntPolyline, ksReadPolylineBody},       // 16 POLYLINE 3D
    {ksEntArc, readArc},            // 17 ARC
    {ksEntCircle, readCircle},      // 18 CIRCLE
    {ksEntLine, readLine},          // 19 LINE
    {ksEntDimension, ksReadDimensionBody},      // 20 DIMENSION ordinate
    {ksEntDimension, ksReadDimensionBody},      // 21 linear
    {ksEntDimension, ksReadDimensionBody},      // 22 aligned
    {ksEntDimension, ksReadDimensionBody},      // 23 angular, 3 points
    {ksEntDimension, ksReadDimensionBody},      // 24 angular, 2 lines
    {ksEntDimension, ksReadDimensionBody},      // 25 radius
    {ksEntDimension, ksReadDimensionBody},      // 26 diameter
    {ksEntPoint, readPoint},        // 27 POINT
    {ksEnt3dFace, read3dFace},      // 28 3DFACE
    {ksEntPolyline, ksReadPolylineBody},       // 29 POLYLINE polyface mesh
    {ksEntPolyline, ksReadPolylineBody},       // 30 POLYLINE polygon mesh
    {ksEntSolid, readTrace},        // 31 SOLID
    {ksEntTrace, readTrace},        // 32 TRACE
    {ksEntShape, readShape},        // 33 SHAPE
    {ksEntViewport, ksReadViewportBody},       // 34 VIEWPORT
    {ksEntEllipse, readEllipse},    // 35 ELLIPSE
    {ksEntSpline, ksReadSplineBody},         // 36 SPLINE
    {ksEntRegion, ksReadModelerBody},         // 37 REGION
    {ksEnt3dSolid, ksReadModelerBody},        // 38 3DSOLID
    {ksEntBody, ksReadModelerBody},           // 39 BODY
    {ksEntRay, readRay},            // 40 RAY
    {ksEntXline, readRay},          // 41 XLINE
    {0, nullptr},                   // 42 a dictionary
    {0, nullptr},                   // 43
    {ksEntMtext, ksReadMtextBody},          // 44 MTEXT
    {ksEntLeader, ksReadLeaderBody},         // 45 LEADER
    {ksEntTolerance, ksReadToleranceBody},      // 46 TOLERANCE
    {ksEntMline, ksReadMlineBody},          // 47 MLINE
};
constexpr int kEntityKindCount = static_cast<int>(sizeof kEntityKinds / sizeof kEntityKinds[0]);
static_assert(kEntityKindCount == 48);

// ---- Common data

void readCommonData(EntityRead& e)
{
    ksBitReader& r = e.r;
    ksEntityHeader& h = *e.header;
    // Mode 0: the owner handle is stored; 1 (paper space) and 2 (model
    // space): the owner is the space's block and is not stored. Entities
    // of the other paper space layouts stand in blocks with mode 1.
    const int16_t first = ksReadBit(r);
    const int16_t second = ksReadBit(r);
    r.ownerStored = first == 0 && second == 0;
    r.ownerImplied = static_cast<uint8_t>(!r.ownerStored);
    h.reactorCount = ksReadBL(r);
    r.linetypeByLayer = e.r2000 ? 0 : static_cast<uint8_t>(ksReadBit(r));
    r.noLinks = static_cast<uint8_t>(ksReadBit(r));
    h.color = ksReadBS(r);
    h.linetypeScale = ksReadBDValue(r);
    r.linetypeFlags = 0;
    plotStyleFlags = 0;
    if (e.r2000) {
        r.linetypeFlags = static_cast<uint16_t>(ksReadBits(r, 2));
        plotStyleFlags = static_cast<uint8_t>(ksReadBits(r, 2));
    }
    if ((ksReadBS(r) & 0xff) == 1)
        h.flags = static_cast<int8_t>(h.flags | ksEntityInvisible);
    if (e.r2000)
        h.lineweight = ksLineweightFromIndex(ksReadRC(r));
}

// The previous and next entity.
void readLinks(ksBitReader& r, const ksObjHandle& self)
{
    if (r.noLinks) {
        r.prevEntity = ksHandleSub(self, 1);
        r.nextEntity = ksHandleAdd(self, 1);
        return;
    }
    ksReadRelHandle(r, self, &r.prevEntity);
    ksReadRelHandle(r, self, &r.nextEntity);
}

// The class number of an entity type that R2000 files store with a fixed
// code. A file whose class section lacks the class gets it from the
// defaults, so that the entity is read and written as what it is.
int16_t fixedClass(ksFcb* fcb, const char* dxfName, int16_t ksClassNumbers::*field)
{
    if (fcb->classNumbers.*field != 0)
        return fcb->classNumbers.*field;
    for (const ksDefaultClass& d : ksDefaultClasses) {
        if (std::strcmp(d.dxfName, dxfName) == 0) {
            ksClassAddIfMissing(fcb, d.dxfName, d.cppName, d.appName, d.classVersion, d.itemClassId, 0);
            break;
        }
    }
    return fcb->classNumbers.*field;
}

bool failEntity(ksFcb* fcb, ksEntityHeader* header, void* body)
{
    ksEntityFreeBlobs(fcb, *header, body);
    header->reactors = 0;
    header->reactorCount = 0;
    return ksDwgFail(fcb);
}

}  // namespace

// ---------------------------------------------------------------------------

void ksReadEntityThickness(ksBodyRead& e)
{
    e.header->thickness = e.r2000 ? ksReadBTValue(e.r) : ksReadBDValue(e.r);
}

void ksReadEntityExtrusion(ksBodyRead& e)
{
    if (e.r2000)
        ksReadBE(e.r, &e.header->extrusion);
    else
        ksReadExtrusion(e.r, &e.header->extrusion);
}

int16_t ksReadEntityHandles(ksFcb* fcb, ksEntityHeader* header)
{
    ksDwgState& st = *ksDwg(fcb);
    ksBitReader& r = st.bits;
    // Data read beyond the start of the handles was not what we took it for.
    if (r.bad || r.bitPos > r.bitSize || !ksSeekHandleStream(r)) {
        ksBitReaderFail(r);
        return 0;
    }
    const ksObjHandle self = header->handle;
    r.owner = ksObjHandle{};
    if (r.ownerStored)
        ksReadRelHandle(r, self, &r.owner);
    if (header->reactorCount < 0) {
        ksBitReaderFail(r);
        return 0;
    }
    if (header->reactorCount > 0) {
        header->reactors = ksReadHandleBlob(r, static_cast<uint32_t>(header->reactorCount));
        if (header->reactors == 0) {
            ksBitReaderFail(r);
            return 0;
        }
    }
    header->layerHandle = header->linetypeHandle = ksObjHandle{};
    ksReadHandle(r, &header->xdictHandle);
    if (st.version < ksAC1015) {
        ksReadHandle(r, &header->layerHandle);
        if (r.linetypeByLayer)
            header->linetypeHandle = fcb->byLayerHandle;
        else
            ksReadHandle(r, &header->linetypeHandle);
        readLinks(r, self);
    } else {
        readLinks(r, self);
        ksReadHandle(r, &header->layerHandle);
        switch (r.linetypeFlags) {
        case 0: header->linetypeHandle = fcb->byLayerHandle; break;
        case 1: header->linetypeHandle = fcb->byBlockHandle; break;
        case 2: header->linetypeHandle = st.continuous; break;
        default: ksReadHandle(r, &header->linetypeHandle); break;
        }
        // A named plot style: its handle, which the records don't keep.
        if (plotStyleFlags == 3) {
            ksObjHandle plotStyle;
            ksReadHandle(r, &plotStyle);
        }
    }
    return r.bad ? 0 : 1;
}

void ksDwgChainNext(ksDwgState& st, int16_t code, const ksObjHandle& self, const ksObjHandle& next,
                    bool hasAttributes)
{
    const bool isLast = st.inBlock ? same(self, st.lastEntity)
                                   : same(self, st.secondPass ? st.modelLast : st.paperLast);
    // A POLYLINE, or an INSERT with attributes: its vertices or attributes
    // come next, then its SEQEND, then the chain goes on behind it.
    const bool complex = code == ksEntPolyline || (code == ksEntInsert && hasAttributes);
    if (code == ksEntInsert || code == ksEntPolyline) {
        st.current = next;
        st.resumeHandle = next;
        if (st.inBlock && isLast)
            st.resumeHandle = st.current = st.endblkEntity;
        if (complex) {
            st.complexLast = st.lastSub;
            st.complexEnd = st.seqend;
            st.current = ksHandleIsNull(st.firstSub) ? st.seqend : st.firstSub;
        }
    } else if ((code == ksEntVertex || code == ksEntAttrib) && same(self, st.complexLast)) {
        st.current = st.complexEnd;
    } else if (code == ksEntBlock) {
        st.current = ksHandleIsNull(st.firstEntity) ? st.endblkEntity : st.firstEntity;
    } else if (code == ksEntSeqend) {
        st.current = st.resumeHandle;
        if (st.chainEndAt == 1)
            st.current = st.endblkEntity;
        else if (st.chainEndAt == 2)
            st.current = ksObjHandle{};
        st.chainEndAt = 0;
    } else {
        st.current = next;
    }
    // The last entity of a space ends its pass; that of a block leads to
    // the ENDBLK. Behind a complex entity this waits for its SEQEND.
    if (isLast) {
        if (complex)
            st.chainEndAt = st.inBlock ? 1 : 2;
        else
            st.current = st.inBlock ? st.endblkEntity : ksObjHandle{};
    }
}

int16_t ksDwgStartEntities(ksFcb* fcb)
{
    ksDwgState* st = ksDwg(fcb);
    if (st == nullptr)
        return 0;
    st->secondPass = st->inBlock = st->chainEndAt = 0;
    st->entitiesRead = 0;
    st->current = st->paperFirst;
    return 1;
}

int16_t ksDwgStartBlockEntities(ksFcb* fcb)
{
    ksDwgState* st = ksDwg(fcb);
    if (st == nullptr)
        return 0;
    // The load gives back what the block header phase noted of this block.
    const ksBlockWork work = ksG->blockWork;
    // The BLOCK entity takes its base point and path from the block header,
    // which is read once more for them: the header phase read all blocks
    // before the first entity.
    if (!ksSeekHandle(fcb, ksG->blockHandle))
        return ksDwgFail(fcb);
    ksBlockHeader record;
    ksBlockHeaderDefaults(&record);
    int16_t hasExtended = 0;
    const int16_t read = ksReadBlockHeaderAt(fcb, &record, &hasExtended);
    ksBlobFree(record.previewData);
    ksBlobFree(record.reactors);
    ksBlobFree(record.eed);
    ksG->blockWork = work;
    if (!read)
        return ksDwgFail(fcb);
    st->blockEntity = work.blockEntity;
    st->firstEntity = work.firstEntity;
    st->lastEntity = work.lastEntity;
    st->endblkEntity = work.endblkEntity;
    st->current = work.blockEntity;
    st->inBlock = st->secondPass = 1;
    st->chainEndAt = 0;
    st->entitiesRead = 0;
    return 1;
}

int16_t ksDwgReadEntity(ksFcb* fcb, ksEntityHeader* header, void* body, int16_t* hasExtended)
{
    ksDwgState* state = ksDwg(fcb);
    if (state == nullptr)
        return ksDwgFail(fcb);
    ksDwgState& st = *state;
    *hasExtended = 0;
    if (ksHandleIsNull(st.current)) {
        // A block's chain ends at its ENDBLK, which the load stops at.
        if (st.inBlock)
            return ksDwgFail(fcb);
        if (st.secondPass || ksHandleIsNull(st.modelFirst))
            return 0;
        st.current = st.modelFirst;
        st.secondPass = 1;
    }
    // No chain holds more entities than the map has objects: one that
    // does goes round in a loop.
    if (++st.entitiesRead > st.map.size())
        return ksDwgFail(fcb);
    const ksObjHandle wanted = st.current;
    if (!ksSeekHandle(fcb, wanted))
        return ksDwgFail(fcb);

    ksEntityDefaults(header, nullptr, 0);
    ksLoc graphic = 0;
    int16_t type = ksOpenObject(fcb, &header->handle, hasExtended, true, &graphic);
    if (type == 0 || !same(header->handle, wanted)) {
        ksBlobFree(graphic);
        return ksDwgFail(fcb);
    }
    const bool r2000 = st.version >= ksAC1015;
    if (r2000) {
        // Three classes have fixed types in R2000 files.
        if (type == 74)
            type = fixedClass(fcb, "OLE2FRAME", &ksClassNumbers::ole2frame);
        else if (type == 77)
            type = fixedClass(fcb, "LWPOLYLINE", &ksClassNumbers::lwpolyline);
        else if (type == 78)
            type = fixedClass(fcb, "HATCH", &ksClassNumbers::hatch);
    }
    // Types from 498 on are class numbers (or the proxy) and keep their
    // code; the fixed types take theirs from the table. Any other type is
    // no entity.
    const bool classType = type >= ksEntProxy;
    if (!classType && (type <= 0 || type >= kEntityKindCount || kEntityKinds[type].read == nullptr)) {
        ksBlobFree(graphic);
        return ksDwgFail(fcb);
    }
    // A class the file says is one of objects is no entity, whatever chain
    // leads to it; an unknown class is taken as a proxy entity. Only the
    // classes without a body of their own are looked up: the list is walked
    // for them, not for every LWPOLYLINE or HATCH.
    ksClass entityClass;
    if (type > ksEntProxy && ksClassEntityFormOf(fcb, type) == ksCeProxy &&
        ksClassFindNumber(fcb, type, &entityClass) && entityClass.itemClassId == kObjectClassId) {
        ksBlobFree(graphic);
        return ksDwgFail(fcb);
    }
    const int16_t code = classType ? type : kEntityKinds[type].code;
    header->type = code;
    if (!classType)
        ksEntityDefaults(nullptr, body, code);
    if (!st.secondPass)
        header->flags = static_cast<int8_t>(header->flags | ksEntityPaperSpace);
    EntityRead e{fcb, st, st.bits, header, static_cast<ksEntityBody*>(body), r2000, type, graphic};
    // The image of a fixed type isn't kept; a class body that keeps one
    // takes it over.
    if (!classType) {
        ksBlobFree(graphic);
        e.graphic = 0;
    }
    readCommonData(e);
    st.firstSub = st.lastSub = st.seqend = ksObjHandle{};
    st.bits.nextEntity = ksObjHandle{};
    const BodyReader read = classType ? ksReadClassEntity : kEntityKinds[type].read;
    const bool ok = !st.bits.bad && read(e) && !st.bits.bad;
    ksBlobFree(e.graphic);
    if (!ok)
        return failEntity(fcb, header, body);

    const ksPoint3& x = header->extrusion;
    if (x.x != 0.0 || x.y != 0.0 || x.z != 1.0)
        header->flags = static_cast<int8_t>(header->flags | ksEntityOwnExtrusion);
    const bool hasAttributes = code == ksEntInsert && e.body->insert.hasAttributes != 0;
    ksDwgChainNext(st, code, header->handle, st.bits.nextEntity, hasAttributes);
    if ((code == ksEntBlock || code == ksEntEndblk) && ksHandleIsNull(header->layerHandle))
        header->layerHandle = ksTableFirstHandle(fcb, ksListLayers);
    return 1;
}
