// Class entity bodies: forms, sizes, defaults and their blob layouts.
#include "records/classent.h"

#include <cstring>

#include "frame/fcb.h"
#include "frame/globals.h"
#include "records/object.h"
#include "store/blob.h"

namespace {

constexpr int16_t kBadEntity = 199;

// Class forms in the order of comparison, with their sizes.
struct ClassForm {
    int16_t ksClassNumbers::*field;
    ksClassEntityForm form;
    uint32_t size;
};
constexpr ClassForm kClassForms[] = {
    {&ksClassNumbers::ole2frame, ksCeOle2Frame, ksOle2FrameBodySize},
    {&ksClassNumbers::hatch, ksCeHatch, ksHatchBodySize},
    {&ksClassNumbers::lwpolyline, ksCeLwpolyline, ksLwpolylineBodySize},
    {&ksClassNumbers::image, ksCeImage, ksImageBodySize},
    {&ksClassNumbers::rtext, ksCeRtext, ksRtextBodySize},
    {&ksClassNumbers::arcAlignedText, ksCeArcAlignedText, ksArcAlignedTextBodySize},
    {&ksClassNumbers::wipeout, ksCeWipeout, ksWipeoutBodySize},
};

uint32_t sizeOfForm(ksClassEntityForm form)
{
    if (form == ksCeProxy)
        return ksProxyEntityBodySize;
    for (const ClassForm& f : kClassForms) {
        if (f.form == form)
            return f.size;
    }
    return 0;
}

// The blob fields of a form, with the error of a failed free.
struct BlobField {
    ksClassEntityForm form;
    uint16_t offset;
    int16_t error;
};
constexpr BlobField kBlobFields[] = {
    {ksCeLwpolyline, offsetof(ksLwpolyline, vertices), 98},
    {ksCeHatch, offsetof(ksHatch, boundary), 98},
    {ksCeHatch, offsetof(ksHatch, patternLines), 98},
    {ksCeHatch, offsetof(ksHatch, boundaryHandles), 98},
    {ksCeHatch, offsetof(ksHatch, seedPoints), 98},
    {ksCeImage, offsetof(ksImage, clipVertices), 98},
    {ksCeImage, offsetof(ksImage, graphics), 98},
    {ksCeWipeout, offsetof(ksImage, clipVertices), 98},
    {ksCeWipeout, offsetof(ksImage, graphics), 98},
    {ksCeOle2Frame, offsetof(ksOle2Frame, data), 98},
    {ksCeRtext, offsetof(ksRtext, graphics), 98},
    {ksCeArcAlignedText, offsetof(ksArcAlignedText, graphics), 98},
    {ksCeProxy, offsetof(ksProxyEntity, data), 159},
    {ksCeProxy, offsetof(ksProxyEntity, references), 160},
    {ksCeProxy, offsetof(ksProxyEntity, graphics), 98},
};

// Sets the error for a failed step of a blob read; the value passes on.
int16_t bad(int16_t ok)
{
    if (!ok)
        ksSetError(kBadEntity);
    return ok;
}

}  // namespace

ksClassEntityForm ksClassEntityFormOf(const ksFcb* fcb, int16_t type)
{
    if (type < ksKindProxyEntity)
        return ksCeNone;
    if (fcb != nullptr && type >= ksFirstClassNumber) {
        for (const ClassForm& f : kClassForms) {
            if (fcb->classNumbers.*f.field == type)
                return f.form;
        }
    }
    return ksCeProxy;
}

uint32_t ksEntityClassBodySize(const ksFcb* fcb, int16_t type) { return sizeOfForm(ksClassEntityFormOf(fcb, type)); }

ksClassEntityForm ksClassEntityDefaults(const ksFcb* fcb, int16_t type, void* body)
{
    const ksClassEntityForm form = ksClassEntityFormOf(fcb, type);
    std::memset(body, 0, sizeOfForm(form));
    switch (form) {
    case ksCeImage:
    case ksCeWipeout:
        static_cast<ksImage*>(body)->clipType = 1;
        break;
    case ksCeOle2Frame: {
        auto* ole = static_cast<ksOle2Frame*>(body);
        ole->version = 2;
        ole->oleType = 1;
        break;
    }
    default:
        break;
    }
    return form;
}

int16_t ksClassEntityFreeBlobs(const ksFcb* fcb, int16_t type, void* body)
{
    const ksClassEntityForm form = ksClassEntityFormOf(fcb, type);
    int16_t error = 0;
    for (const BlobField& f : kBlobFields) {
        if (f.form != form)
            continue;
        ksLoc blob;
        std::memcpy(&blob, static_cast<uint8_t*>(body) + f.offset, sizeof blob);
        if (blob != 0 && !ksBlobFree(blob) && error == 0)
            error = f.error;
        blob = 0;
        std::memcpy(static_cast<uint8_t*>(body) + f.offset, &blob, sizeof blob);
    }
    if (error != 0) {
        ksSetError(error);
        return 0;
    }
    return 1;
}

int16_t ksLwpolylineDxfFlags(int16_t flags)
{
    return static_cast<int16_t>(((flags & ksLwPlinegen) ? 128 : 0) | ((flags & ksLwClosed) ? 1 : 0));
}

int16_t ksLwpolylineFlagsFromDxf(int16_t flags, int16_t group70)
{
    flags = static_cast<int16_t>(flags & ~(ksLwPlinegen | ksLwClosed));
    if (group70 & 128)
        flags = static_cast<int16_t>(flags | ksLwPlinegen);
    if (group70 & 1)
        flags = static_cast<int16_t>(flags | ksLwClosed);
    return flags;
}

// ---------------------------------------------------------------------------
// LWPOLYLINE vertices

uint32_t ksLwVertexSize(int16_t flags)
{
    return 16 + ((flags & ksLwHasBulges) ? 8 : 0) + ((flags & ksLwHasWidths) ? 16 : 0);
}

int16_t ksLwVertexWrite(ksBlobCursor* cursor, int16_t flags, const ksLwVertex& vertex)
{
    if (!ksPoint2Write(cursor, vertex.point))
        return 0;
    if ((flags & ksLwHasBulges) && !ksBlobWriteReal(cursor, vertex.bulge))
        return 0;
    if ((flags & ksLwHasWidths) &&
        !(ksBlobWriteReal(cursor, vertex.startWidth) && ksBlobWriteReal(cursor, vertex.endWidth)))
        return 0;
    return 1;
}

int16_t ksLwVertexRead(ksBlobCursor* cursor, int16_t flags, ksLwVertex* vertex)
{
    *vertex = ksLwVertex{};
    if (!ksPoint2Read(cursor, &vertex->point))
        return bad(0);
    if ((flags & ksLwHasBulges) && !ksBlobReadReal(cursor, &vertex->bulge))
        return bad(0);
    if ((flags & ksLwHasWidths) &&
        !(ksBlobReadReal(cursor, &vertex->startWidth) && ksBlobReadReal(cursor, &vertex->endWidth)))
        return bad(0);
    return 1;
}

int16_t ksLwpolylineSetVertices(ksLwpolyline* body, const ksLwVertex* vertices, int32_t count)
{
    ksSetError(224);
    if (count < 0)
        return 0;
    int16_t flags = static_cast<int16_t>(body->flags & ~(ksLwHasBulges | ksLwHasWidths));
    for (int32_t i = 0; i < count; ++i) {
        if (vertices[i].bulge != 0.0)
            flags = static_cast<int16_t>(flags | ksLwHasBulges);
        if (vertices[i].startWidth != 0.0 || vertices[i].endWidth != 0.0)
            flags = static_cast<int16_t>(flags | ksLwHasWidths);
    }
    if (body->vertices == 0 && (body->vertices = ksBlobNew()) == 0)
        return 0;
    ksBlobCursor* cursor = ksBlobOpenWrite(body->vertices);
    if (cursor == nullptr)
        return 0;
    bool ok = true;
    for (int32_t i = 0; ok && i < count; ++i)
        ok = ksLwVertexWrite(cursor, flags, vertices[i]) != 0;
    ok = ksBlobCloseWrite(cursor) && ok;
    if (!ok) {
        ksSetError(224);
        return 0;
    }
    body->flags = flags;
    body->vertexCount = count;
    ksSetError(0);
    return 1;
}

int16_t ksLwpolylineGetVertices(const ksLwpolyline* body, ksLwVertex* out, int32_t capacity)
{
    ksSetError(kBadEntity);
    const int32_t count = body->vertexCount;
    if (count < 0 || count > capacity)
        return 0;
    if (count == 0) {
        ksSetError(0);
        return 1;
    }
    if (static_cast<uint64_t>(count) * ksLwVertexSize(body->flags) > ksBlobSize(body->vertices))
        return 0;
    ksBlobCursor* cursor = ksBlobOpenRead(body->vertices);
    if (cursor == nullptr)
        return 0;
    bool ok = true;
    for (int32_t i = 0; ok && i < count; ++i)
        ok = ksLwVertexRead(cursor, body->flags, &out[i]) != 0;
    ksBlobCloseRead(cursor);
    if (!ok)
        return bad(0);
    ksSetError(0);
    return 1;
}

// ---------------------------------------------------------------------------
// HATCH boundary and pattern lines

int16_t ksHatchLoopWrite(ksBlobCursor* cursor, const ksHatchLoop& loop)
{
    if (!ksBlobWriteInt32(cursor, loop.flags))
        return 0;
    if ((loop.flags & ksHatchPolylineLoop) &&
        !(ksBlobWriteInt16(cursor, loop.hasBulge) && ksBlobWriteInt16(cursor, loop.closed)))
        return 0;
    return ksBlobWriteInt32(cursor, loop.count);
}

int16_t ksHatchLoopRead(ksBlobCursor* cursor, ksHatchLoop* loop)
{
    *loop = ksHatchLoop{};
    if (!ksBlobReadInt32(cursor, &loop->flags))
        return bad(0);
    if ((loop->flags & ksHatchPolylineLoop) &&
        !(ksBlobReadInt16(cursor, &loop->hasBulge) && ksBlobReadInt16(cursor, &loop->closed)))
        return bad(0);
    return bad(ksBlobReadInt32(cursor, &loop->count) && loop->count >= 0);
}

int16_t ksHatchVertexWrite(ksBlobCursor* cursor, int16_t hasBulge, const ksHatchVertex& vertex)
{
    return ksPoint2Write(cursor, vertex.point) && (!hasBulge || ksBlobWriteReal(cursor, vertex.bulge));
}

int16_t ksHatchVertexRead(ksBlobCursor* cursor, int16_t hasBulge, ksHatchVertex* vertex)
{
    *vertex = ksHatchVertex{};
    return bad(ksPoint2Read(cursor, &vertex->point) && (!hasBulge || ksBlobReadReal(cursor, &vertex->bulge)));
}

int16_t ksHatchEdgeWrite(ksBlobCursor* cursor, const ksHatchEdge& e)
{
    if (!ksBlobWriteByte(cursor, e.kind))
        return 0;
    switch (e.kind) {
    case ksHatchLine:
        return ksPoint2Write(cursor, e.first) && ksPoint2Write(cursor, e.second);
    case ksHatchArc:
        return ksPoint2Write(cursor, e.first) && ksBlobWriteReal(cursor, e.radius) &&
               ksBlobWriteReal(cursor, e.start) && ksBlobWriteReal(cursor, e.end) &&
               ksBlobWriteInt16(cursor, e.counterClockwise);
    case ksHatchEllipse:
        return ksPoint2Write(cursor, e.first) && ksPoint2Write(cursor, e.second) &&
               ksBlobWriteReal(cursor, e.radius) && ksBlobWriteReal(cursor, e.start) &&
               ksBlobWriteReal(cursor, e.end) && ksBlobWriteInt16(cursor, e.counterClockwise);
    case ksHatchSpline:
        return ksBlobWriteInt32(cursor, e.degree) && ksBlobWriteInt16(cursor, e.rational) &&
               ksBlobWriteInt16(cursor, e.periodic) && ksBlobWriteInt32(cursor, e.knotCount) &&
               ksBlobWriteInt32(cursor, e.controlCount);
    default:
        ksSetError(kBadEntity);
        return 0;
    }
}

int16_t ksHatchEdgeRead(ksBlobCursor* cursor, ksHatchEdge* e)
{
    *e = ksHatchEdge{};
    if (!ksBlobReadByte(cursor, &e->kind))
        return bad(0);
    switch (e->kind) {
    case ksHatchLine:
        return bad(ksPoint2Read(cursor, &e->first) && ksPoint2Read(cursor, &e->second));
    case ksHatchArc:
        return bad(ksPoint2Read(cursor, &e->first) && ksBlobReadReal(cursor, &e->radius) &&
                   ksBlobReadReal(cursor, &e->start) && ksBlobReadReal(cursor, &e->end) &&
                   ksBlobReadInt16(cursor, &e->counterClockwise));
    case ksHatchEllipse:
        return bad(ksPoint2Read(cursor, &e->first) && ksPoint2Read(cursor, &e->second) &&
                   ksBlobReadReal(cursor, &e->radius) && ksBlobReadReal(cursor, &e->start) &&
                   ksBlobReadReal(cursor, &e->end) && ksBlobReadInt16(cursor, &e->counterClockwise));
    case ksHatchSpline:
        return bad(ksBlobReadInt32(cursor, &e->degree) && ksBlobReadInt16(cursor, &e->rational) &&
                   ksBlobReadInt16(cursor, &e->periodic) && ksBlobReadInt32(cursor, &e->knotCount) &&
                   ksBlobReadInt32(cursor, &e->controlCount) && e->knotCount >= 0 && e->controlCount >= 0);
    default:
        return bad(0);
    }
}

int16_t ksHatchControlWrite(ksBlobCursor* cursor, int16_t rational, const ksHatchControl& control)
{
    return ksPoint2Write(cursor, control.point) && (!rational || ksBlobWriteReal(cursor, control.weight));
}

int16_t ksHatchControlRead(ksBlobCursor* cursor, int16_t rational, ksHatchControl* control)
{
    *control = ksHatchControl{};
    return bad(ksPoint2Read(cursor, &control->point) && (!rational || ksBlobReadReal(cursor, &control->weight)));
}

int16_t ksHatchLoopEndWrite(ksBlobCursor* cursor, int32_t objectCount) { return ksBlobWriteInt32(cursor, objectCount); }

int16_t ksHatchLoopEndRead(ksBlobCursor* cursor, int32_t* objectCount)
{
    return bad(ksBlobReadInt32(cursor, objectCount) && *objectCount >= 0);
}

namespace {

// Steps over `count` records of `size` bytes; never past the blob.
bool skip(ksBlobCursor* cursor, uint64_t count, uint32_t size)
{
    const uint64_t to = ksBlobTell(cursor) + count * size;
    return to <= ksBlobLength(cursor) && ksBlobSeek(cursor, static_cast<uint32_t>(to));
}

bool checkLoop(ksBlobCursor* cursor, int32_t* objects, bool* pixel)
{
    ksHatchLoop loop;
    if (!ksHatchLoopRead(cursor, &loop))
        return false;
    if (loop.flags & ksHatchPixelLoop)
        *pixel = true;
    if (loop.flags & ksHatchPolylineLoop) {
        if (!skip(cursor, static_cast<uint64_t>(loop.count), loop.hasBulge ? 24 : 16))
            return false;
    } else {
        for (int32_t i = 0; i < loop.count; ++i) {
            ksHatchEdge edge;
            if (!ksHatchEdgeRead(cursor, &edge))
                return false;
            if (edge.kind == ksHatchSpline &&
                !(skip(cursor, static_cast<uint64_t>(edge.knotCount), 8) &&
                  skip(cursor, static_cast<uint64_t>(edge.controlCount), edge.rational ? 24 : 16)))
                return false;
        }
    }
    int32_t count;
    if (!ksHatchLoopEndRead(cursor, &count) || count > INT32_MAX - *objects)
        return false;
    *objects += count;
    return true;
}

}  // namespace

int16_t ksHatchBoundaryCheck(const ksHatch* body, int32_t* objectCount, bool* hasPixelSize)
{
    *objectCount = 0;
    *hasPixelSize = false;
    ksSetError(kBadEntity);
    if (body->loopCount < 0)
        return 0;
    if (body->loopCount == 0) {
        if (ksBlobSize(body->boundary) != 0)
            return 0;
        ksSetError(0);
        return 1;
    }
    ksBlobCursor* cursor = ksBlobOpenRead(body->boundary);
    if (cursor == nullptr)
        return 0;
    bool ok = true;
    for (int32_t i = 0; ok && i < body->loopCount; ++i)
        ok = checkLoop(cursor, objectCount, hasPixelSize);
    ok = ok && ksBlobTell(cursor) == ksBlobLength(cursor);
    ksBlobCloseRead(cursor);
    if (!ok) {
        ksSetError(kBadEntity);
        return 0;
    }
    ksSetError(0);
    return 1;
}

int16_t ksHatchPatternLineWrite(ksBlobCursor* cursor, const ksHatchPatternLine& line)
{
    return ksBlobWriteReal(cursor, line.angle) && ksPoint2Write(cursor, line.base) &&
           ksPoint2Write(cursor, line.offset) && ksBlobWriteInt16(cursor, line.dashCount);
}

int16_t ksHatchPatternLineRead(ksBlobCursor* cursor, ksHatchPatternLine* line)
{
    *line = ksHatchPatternLine{};
    return bad(ksBlobReadReal(cursor, &line->angle) && ksPoint2Read(cursor, &line->base) &&
               ksPoint2Read(cursor, &line->offset) && ksBlobReadInt16(cursor, &line->dashCount) &&
               line->dashCount >= 0);
}
