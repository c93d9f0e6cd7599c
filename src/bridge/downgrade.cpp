#include "bridge/downgrade.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <cstring>

#include "driver/hooks.h"
#include "dxfwrite/dxfwrite.h"
#include "dxfwrite/groups.h"
#include "frame/fcb.h"
#include "frame/globals.h"
#include "frame/save.h"
#include "records/classent.h"
#include "records/header.h"
#include "records/object.h"
#include "records/tables.h"
#include "store/blob.h"
#include "store/entitylist.h"
#include "store/handles.h"
#include "store/list.h"
#include "store/record.h"
#include "store/tablelist.h"
#include "store/xdata.h"

namespace {

ksDowngradeState state{};

// The tables behind the resolvers, with their error numbers.
struct RefTable {
    ksTableList table;
    int16_t error;
};
constexpr RefTable kRefTables[ksRefKindCount] = {
    {ksListLayers, 66}, {ksListLinetypes, 67}, {ksListShapeFiles, 68}, {ksListBlockHeaders, 75},
    {ksListDimStyles, 69},
};

// Records stand unaligned in the store: their fields are read by a copy.
ksObjHandle recordHandle(ksLoc node, const ksTableListInfo& info)
{
    ksObjHandle handle;
    std::memcpy(&handle, static_cast<const uint8_t*>(ksRecordOf(node)) + info.handleOffset, sizeof handle);
    return handle;
}

const char* recordName(ksLoc node, const ksTableListInfo& info)
{
    return static_cast<const char*>(ksRecordOf(node)) + info.nameOffset;
}

bool sameHandle(const ksObjHandle& a, const ksObjHandle& b) { return ksHandleCompare(a, b) == 0; }

// The place of the record with that handle among the first `limit` nodes
// of a table's list, or -1. Places of records whose handle is one of
// `skip` (null handles skip nothing) are not counted.
int32_t placeOf(ksFcb* source, ksTableList table, const ksObjHandle& handle, uint32_t limit,
                const ksObjHandle* skipA = nullptr, const ksObjHandle* skipB = nullptr)
{
    const ksTableListInfo& info = ksTableLists[table];
    int32_t place = 0;
    uint32_t seen = 0;
    for (ksLoc node = ksListFirst(source->*info.list); node != 0 && seen < limit; node = ksListNodeNext(node), ++seen) {
        const ksObjHandle own = recordHandle(node, info);
        if (sameHandle(own, handle))
            return place;
        const bool skipped = (skipA && !ksHandleIsNull(*skipA) && sameHandle(own, *skipA)) ||
                             (skipB && !ksHandleIsNull(*skipB) && sameHandle(own, *skipB));
        if (!skipped)
            ++place;
    }
    return -1;
}

// The resolver frame: the cache first, then the walk.
int16_t resolveIndex(ksFcb* source, ksRefKind kind, const ksObjHandle& handle, int32_t* outIndex,
                     int32_t (*walk)(ksFcb*, const ksObjHandle&))
{
    ksRefCache& cache = state.refs[kind];
    if (sameHandle(cache.handle, handle)) {
        *outIndex = cache.index;
        return 1;
    }
    const int32_t place = walk(source, handle);
    if (place < 0) {
        ksG->errorNumber = kRefTables[kind].error;
        return 0;
    }
    cache.handle = handle;
    cache.index = place;
    *outIndex = place;
    return 1;
}

int32_t decimalDigits(int32_t value, char* out)
{
    return static_cast<int32_t>(std::to_chars(out, out + 12, value).ptr - out);
}

// The packed node's type code (entitylist.h: offset 12).
int16_t nodeType(ksLoc node)
{
    int16_t type = 0;
    std::memcpy(&type, static_cast<const uint8_t*>(ksVmPtr(node)) + 12, sizeof type);
    return type;
}

// Sum of vertex count + 1 over the LWPOLYLINEs of one entity list.
bool addExpansion(ksFcb* source, ksLoc list, int16_t lwType, uint64_t* sum, ksEntityHeader* header, void* body)
{
    for (ksLoc node = ksListFirst(list); node != 0; node = ksListNodeNext(node)) {
        if (nodeType(node) != lwType)
            continue;
        uint32_t size = 0;
        ksLoc next = 0;
        if (!ksEntityUnpack(source, node, header, body, &size, &next))
            return false;
        *sum += static_cast<uint64_t>(std::max(static_cast<const ksLwpolyline*>(body)->vertexCount, 0)) + 1;
    }
    return true;
}

}  // namespace

ksDowngradeState& ksDowngrade() { return state; }

void ksClearRefCaches(ksFcb* /*fcb*/)
{
    for (ksRefCache& cache : state.refs)
        cache = {ksObjHandle{}, ksRefCacheEmpty};
    ++state.clears;
}

// ---------------------------------------------------------------------------
// What fits

bool ksEntityFitsVersion(const ksEntityHeader* header, const void* body, const ksFcb* source, const ksFcb* target)
{
    const int16_t type = header->type;
    if (type == ksEntShape && static_cast<const ksShapeBody*>(body)->shapeNumber > 254)
        return false;
    const int16_t version = target->outputVersion;
    if (version >= ksAC1012)
        return true;
    switch (type) {
        case ksEntEllipse: case ksEntSpline: case ksEntRegion: case ksEnt3dSolid: case ksEntRay:
        case ksEntXline: case ksEntMtext: case ksEntLeader: case ksEntTolerance: case ksEntMline:
        case ksEntBody:
            return false;
        default:
            break;
    }
    if (type >= ksEntClassBase && type != source->classNumbers.lwpolyline)
        return false;
    if (version == ksAC1009)
        return true;
    if (type == ksEntViewport)
        return false;
    if (version >= ksAC1003)
        return true;
    return type != ksEnt3dLine && type != ksEnt3dFace && type != ksEntDimension;
}

// ---------------------------------------------------------------------------
// LWPOLYLINE expansion

int16_t ksReserveHandles(ksFcb* source, ksFcb* /*target*/, ksObjHandle* seed)
{
    ksClass lwClass;
    if (!ksClassFindName(source, "LWPOLYLINE", &lwClass))
        return 1;
    auto* header = static_cast<ksEntityHeader*>(ksMemAlloc(sizeof(ksEntityHeader)));
    auto* body = static_cast<ksEntityBody*>(ksMemAlloc(sizeof(ksEntityBody)));
    ksG->errorNumber = 57;
    bool ok = header != nullptr && body != nullptr;
    uint64_t sum = 0;
    bool modelSeen = false;
    bool paperSeen = false;
    for (ksLoc node = ksListFirst(source->blockHeaders); ok && node != 0; node = ksListNodeNext(node)) {
        ksLoc list = 0;
        std::memcpy(&list, static_cast<const uint8_t*>(ksRecordOf(node)) + offsetof(ksBlockHeader, entities),
                    sizeof list);
        modelSeen |= list != 0 && list == source->modelEntities;
        paperSeen |= list != 0 && list == source->paperEntities;
        ok = addExpansion(source, list, lwClass.classNumber, &sum, header, body);
    }
    // Spaces whose block header doesn't hold their list are counted too.
    if (ok && !modelSeen)
        ok = addExpansion(source, source->modelEntities, lwClass.classNumber, &sum, header, body);
    if (ok && !paperSeen)
        ok = addExpansion(source, source->paperEntities, lwClass.classNumber, &sum, header, body);
    ksMemFree(body);
    ksMemFree(header);
    if (!ok)
        return 0;
    sum += 2;
    const uint64_t first = ksHandleToU64(*seed);
    state.expansionHandle = ksHandleFromU64(first + 1);
    *seed = ksHandleFromU64(first + sum);
    ksG->errorNumber = 0;
    return 1;
}

void ksLwToPolyline(const ksEntityHeader* header, const void* body, ksEntityHeader* outHeader,
                    ksPolylineBody* outBody)
{
    const auto* lw = static_cast<const ksLwpolyline*>(body);
    *outHeader = *header;
    outHeader->type = 15;
    *outBody = ksPolylineBody{};
    // A record whose elevation stands without the flag keeps it all the same.
    if ((lw->flags & 8) || lw->elevation != 0.0)
        outBody->elevation = lw->elevation;
    if (lw->flags & ksLwConstantWidth)
        outBody->startWidth = outBody->endWidth = lw->constantWidth;
    outBody->flags = static_cast<int16_t>(((lw->flags & ksLwClosed) ? 1 : 0) | ((lw->flags & ksLwPlinegen) ? 128 : 0));
}

void ksLwVertexHead(ksEntityHeader* outHeader, void* outBody)
{
    outHeader->type = 10;
    outHeader->eed = 0;
    outHeader->xdictHandle = {};
    outHeader->reactors = 0;
    outHeader->reactorCount = 0;
    outHeader->flags = static_cast<int8_t>(outHeader->flags & ~ksEntityOwnExtrusion);
    outHeader->extrusion = {0.0, 0.0, 1.0};
    *static_cast<ksVertexBody*>(outBody) = ksVertexBody{};
}

int16_t ksLwReadVertex(ksBlobCursor* vertexStream, ksVertexBody* outBody, const void* body, double startWidth,
                       double endWidth)
{
    const auto* lw = static_cast<const ksLwpolyline*>(body);
    ksLwVertex vertex{};
    if (!ksLwVertexRead(vertexStream, lw->flags, &vertex))
        return 0;
    outBody->point = {vertex.point.x, vertex.point.y, 0.0};
    outBody->bulge = vertex.bulge;
    outBody->startWidth = vertex.startWidth;
    outBody->endWidth = vertex.endWidth;
    const bool constant = (lw->flags & ksLwConstantWidth) != 0;
    outBody->hasStartWidth = !constant && vertex.startWidth != startWidth;
    outBody->hasEndWidth = !constant && vertex.endWidth != endWidth;
    return 1;
}

int16_t ksDxfWriteLwpolyline(ksFcb* source, ksFcb* target, const ksEntityHeader* header, const void* body)
{
    const auto* lw = static_cast<const ksLwpolyline*>(body);
    ksEntityHeader head;
    ksEntityBody part;
    ksLwToPolyline(header, body, &head, &part.polyline);
    head.type = ksEntPolyline;
    if (!ksDxfWriteEntity(source, target, &head, &part))
        return 0;
    const double startWidth = part.polyline.startWidth;
    const double endWidth = part.polyline.endWidth;
    ksLwVertexHead(&head, &part);
    head.type = ksEntVertex;
    ksBlobCursor* cursor = lw->vertexCount > 0 ? ksBlobOpenRead(lw->vertices) : nullptr;
    ksG->errorNumber = 199;
    if (lw->vertexCount > 0 && cursor == nullptr)
        return 0;
    for (int32_t i = 0; i < lw->vertexCount; ++i) {
        part.vertex = ksVertexBody{};
        ksG->errorNumber = 199;
        if (!ksLwReadVertex(cursor, &part.vertex, body, startWidth, endWidth)) {
            ksBlobCloseRead(cursor);
            return 0;
        }
        head.handle = state.expansionHandle;
        ksHandleIncrement(&state.expansionHandle);
        if (!ksDxfWriteEntity(source, target, &head, &part)) {
            ksBlobCloseRead(cursor);
            return 0;
        }
    }
    ksBlobCloseRead(cursor);
    head.type = ksEntSeqend;
    head.handle = state.expansionHandle;
    ksHandleIncrement(&state.expansionHandle);
    return ksDxfWriteEntity(source, target, &head, &part);
}

// ---------------------------------------------------------------------------
// VIEWPORT view as extended data

namespace {

ksXdataItem mviewItem;

bool putItem(ksBlobCursor* cursor) { return ksXdataWrite(cursor, &mviewItem) != 0; }

template <typename T>
bool putValue(ksBlobCursor* cursor, int16_t code, const T& value)
{
    ksXdataSet(&mviewItem, code, value);
    return putItem(cursor);
}

bool putText(ksBlobCursor* cursor, int16_t code, const char* text)
{
    ksXdataSetText(&mviewItem, code, text);
    return putItem(cursor);
}

bool putFlag(ksBlobCursor* cursor, int32_t bits, int32_t mask)
{
    return putValue<int16_t>(cursor, 1070, (bits & mask) ? 1 : 0);
}

// The application "ACAD", compared exactly; else the last one; else none.
ksObjHandle acadApplication(ksFcb* source)
{
    ksObjHandle last{};
    const ksTableListInfo& info = ksTableLists[ksListRegApps];
    for (ksLoc node = ksListFirst(source->regApps); node != 0; node = ksListNodeNext(node)) {
        last = recordHandle(node, info);
        if (std::strcmp(recordName(node, info), "ACAD") == 0)
            return last;
    }
    return last;
}

bool writeMview(ksFcb* source, ksBlobCursor* out, const ksViewportBody* vp, ksLoc oldEed)
{
    const int32_t bits = vp->statusFlags;
    bool ok = putValue(out, 1001, acadApplication(source)) && putText(out, 1000, "MVIEW") &&
              putText(out, 1002, "{") && putValue<int16_t>(out, 1070, 16) && putValue(out, 1010, vp->target) &&
              putValue(out, 1010, vp->direction) && putValue(out, 1040, vp->twist) &&
              putValue(out, 1040, vp->viewHeight) && putValue(out, 1040, vp->viewCenter.x) &&
              putValue(out, 1040, vp->viewCenter.y) && putValue(out, 1040, vp->lensLength) &&
              putValue(out, 1040, vp->frontClip) && putValue(out, 1040, vp->backClip) &&
              putValue<int16_t>(out, 1070, static_cast<int16_t>(bits & 31)) &&
              putValue<int16_t>(out, 1070, vp->circleZoom) && putFlag(out, bits, 128) && putFlag(out, bits, 32) &&
              putFlag(out, bits, 256) && putFlag(out, bits, 512) && putFlag(out, bits, 1024) &&
              putFlag(out, bits, 4096 | 8192) && putValue(out, 1040, vp->snapAngle) &&
              putValue(out, 1040, vp->snapBase.x) && putValue(out, 1040, vp->snapBase.y) &&
              putValue(out, 1040, vp->snapSpacing.x) && putValue(out, 1040, vp->snapSpacing.y) &&
              putValue(out, 1040, vp->gridSpacing.x) && putValue(out, 1040, vp->gridSpacing.y) &&
              putFlag(out, bits, 2048) && putText(out, 1002, "{");
    if (ok && vp->frozenLayerCount > 0) {
        ksBlobCursor* layers = ksBlobOpenRead(vp->frozenLayers);
        ok = layers != nullptr;
        ksObjHandle layer;
        for (int32_t i = 0; ok && i < vp->frozenLayerCount; ++i)
            ok = ksBlobReadHandle(layers, &layer) && putValue(out, 1003, layer);
        ksBlobCloseRead(layers);
    }
    ok = ok && putText(out, 1002, "}") && putText(out, 1002, "}");
    if (ok && oldEed != 0) {
        ksBlobCursor* old = ksBlobOpenRead(oldEed);
        ok = old != nullptr;
        while (ok && ksXdataRead(old, &mviewItem))
            ok = putItem(out);
        ksBlobCloseRead(old);
    }
    return ok;
}

}  // namespace

int16_t ksMakeMviewEed(ksFcb* source, ksFcb* target, ksEntityHeader* header, const ksViewportBody* body,
                       ksLoc* savedEed)
{
    *savedEed = header->eed;
    if (target->outputVersion >= ksAC1015)
        return 1;
    ksG->errorNumber = 98;
    const ksLoc blob = ksBlobNew();
    if (blob == 0)
        return 0;
    ksBlobCursor* out = ksBlobOpenWrite(blob);
    bool ok = out != nullptr && writeMview(source, out, body, header->eed);
    ok = (out != nullptr && ksBlobCloseWrite(out)) && ok;
    if (!ok) {
        ksBlobFree(blob);
        return 0;
    }
    header->eed = blob;
    ksG->errorNumber = 0;
    return 1;
}

void ksRestoreMviewEed(ksEntityHeader* header, ksLoc savedEed)
{
    if (header->eed != savedEed)
        ksBlobFree(header->eed);
    header->eed = savedEed;
}

// ---------------------------------------------------------------------------
// Names

int32_t ksXrefNameLimit(const ksFcb* source, const char* name)
{
    if (source->xrefNames == 0 || source->xrefNameCount == 0)
        return ksDefaultNameLimit;
    ksBlobCursor* cursor = ksBlobOpenRead(source->xrefNames);
    if (cursor == nullptr)
        return ksDefaultNameLimit;
    uint8_t entry[ksXrefNameEntrySize];
    int32_t limit = ksDefaultNameLimit;
    while (ksBlobRead(cursor, entry, ksXrefNameEntrySize)) {
        char entryName[ksXrefNameSize + 1];
        std::memcpy(entryName, entry + sizeof(ksObjHandle), ksXrefNameSize);
        entryName[ksXrefNameSize] = '\0';
        if (ksStrCompare(entryName, name) == 0) {
            uint32_t bits = 0;
            for (int i = 0; i < 4; ++i)
                bits |= static_cast<uint32_t>(entry[ksXrefNameRoomOffset + i]) << (8 * i);
            limit = static_cast<int32_t>(bits);
            break;
        }
    }
    ksBlobCloseRead(cursor);
    return limit;
}

int16_t ksFindBlockIndex(ksFcb* source, const char* name, int32_t* outIndex)
{
    const ksTableListInfo& info = ksTableLists[ksListBlockHeaders];
    int32_t place = 0;
    for (ksLoc node = ksListFirst(source->blockHeaders); node != 0; node = ksListNodeNext(node), ++place) {
        if (ksStrCompare(recordName(node, info), name) == 0) {
            *outIndex = place;
            return 1;
        }
    }
    *outIndex = 0;
    return 0;
}

size_t ksFixName(ksFcb* source, const char* name, int32_t index, int32_t limit, char* out)
{
    const size_t bytes = std::strlen(name);
    const char* bar = static_cast<const char*>(std::memchr(name, '|', bytes));
    if (bar == nullptr)
        return ksDxfShortName(name, bytes, limit, index, out);
    const auto prefixBytes = static_cast<size_t>(bar - name);
    char prefix[ksXrefNameSize + 1];
    const size_t kept = std::min(prefixBytes, sizeof prefix - 1);
    std::memcpy(prefix, name, kept);
    prefix[kept] = '\0';
    int32_t blockIndex = 0;
    if (kept > 0)
        ksFindBlockIndex(source, prefix, &blockIndex);
    size_t n = ksDxfShortName(prefix, kept, ksXrefNameLimit(source, prefix), blockIndex, out);
    out[n++] = '|';
    return n + ksDxfShortName(bar + 1, bytes - prefixBytes - 1, ksDefaultNameLimit, index, out + n);
}

// ---------------------------------------------------------------------------
// Deleted blocks

int16_t ksPlaceholderBlock(ksFcb* source, ksFcb* target, int32_t index, ksOldEntityWriter write)
{
    ksEntityHeader header;
    ksEntityBody body;
    ksEntityDefaults(&header, &body, ksEntBlock);
    char* name = body.block.name;
    std::memcpy(name, "FAKE", 4);
    name[4 + decimalDigits(index, name + 4)] = '\0';
    const bool freshHandles = target->outputVersion == ksAC1009 && target->header != nullptr &&
                              target->header->HANDLING != 0;
    if (freshHandles)
        ksHandleNext(target, &header.handle);
    if (!write(source, target, &header, &body, index))
        return 0;
    header.type = ksEntEndblk;
    if (freshHandles)
        ksHandleNext(target, &header.handle);
    if (!write(source, target, &header, &body, index))
        return 0;
    if (freshHandles) {
        ksObjHandle unused;
        ksHandleNext(target, &unused);
    }
    return 1;
}

// ---------------------------------------------------------------------------
// Handles to indices

int16_t ksLayerIndexOf(ksFcb* source, const ksObjHandle& handle, int32_t* outIndex)
{
    return resolveIndex(source, ksRefLayer, handle, outIndex, [](ksFcb* fcb, const ksObjHandle& h) {
        return placeOf(fcb, ksListLayers, h, UINT32_MAX);
    });
}

int16_t ksLinetypeIndex(ksFcb* source, const ksObjHandle& handle, int32_t* outIndex)
{
    if (!ksHandleIsNull(handle) && sameHandle(handle, source->byLayerHandle)) {
        *outIndex = 32767;
        return 1;
    }
    if (!ksHandleIsNull(handle) && sameHandle(handle, source->byBlockHandle)) {
        *outIndex = 32766;
        return 1;
    }
    // Places behind BYLAYER and BYBLOCK are lowered past them.
    return resolveIndex(source, ksRefLinetype, handle, outIndex, [](ksFcb* fcb, const ksObjHandle& h) {
        return placeOf(fcb, ksListLinetypes, h, UINT32_MAX, &fcb->byLayerHandle, &fcb->byBlockHandle);
    });
}

int16_t ksStyleIndex(ksFcb* source, const ksObjHandle& handle, int32_t* outIndex)
{
    const int16_t found = resolveIndex(source, ksRefStyle, handle, outIndex, [](ksFcb* fcb, const ksObjHandle& h) {
        return placeOf(fcb, ksListShapeFiles, h, UINT32_MAX);
    });
    if (found)
        *outIndex &= 0xFF;
    return found;
}

int16_t ksBlockIndex(ksFcb* source, const ksObjHandle& handle, int32_t* outIndex)
{
    return resolveIndex(source, ksRefBlock, handle, outIndex, [](ksFcb* fcb, const ksObjHandle& h) {
        const uint32_t count = ksListCount(fcb->blockHeaders);
        return placeOf(fcb, ksListBlockHeaders, h, count >= 2 ? count - 2 : 0);
    });
}

int16_t ksDimstyleIndex(ksFcb* source, const ksObjHandle& handle, int32_t* outIndex)
{
    return resolveIndex(source, ksRefDimstyle, handle, outIndex, [](ksFcb* fcb, const ksObjHandle& h) {
        return ksHandleIsNull(h) ? ksRefCacheEmpty : placeOf(fcb, ksListDimStyles, h, UINT32_MAX);
    });
}

int16_t ksResolveEntityRefs(ksFcb* source, const ksEntityHeader* header, const void* body)
{
    if (!ksLinetypeIndex(source, header->linetypeHandle, &state.linetypeIndex) ||
        !ksLayerIndexOf(source, header->layerHandle, &state.layerIndex))
        return 0;
    const int16_t type = header->type;
    if (type == ksEntShape || type == ksEntText || type == ksEntAttdef || type == ksEntAttrib) {
        const ksObjHandle& style = type == ksEntShape  ? static_cast<const ksShapeBody*>(body)->styleHandle
                                   : type == ksEntText ? static_cast<const ksTextBody*>(body)->styleHandle
                                                       : static_cast<const ksAttdefBody*>(body)->styleHandle;
        int32_t index = 0;
        if (!ksStyleIndex(source, style, &index))
            return 0;
        state.styleIndex = static_cast<uint8_t>(index);
    }
    if (type == ksEntInsert && !ksBlockIndex(source, static_cast<const ksInsertBody*>(body)->blockHandle,
                                             &state.blockIndex))
        return 0;
    if (type == ksEntDimension) {
        const auto* dim = static_cast<const ksDimensionBody*>(body);
        if (!ksBlockIndex(source, dim->blockHandle, &state.blockIndex) ||
            !ksDimstyleIndex(source, dim->dimstyleHandle, &state.dimstyleIndex))
            return 0;
    }
    ksG->errorNumber = 0;
    return 1;
}

int16_t ksResolveEedRefs(ksFcb* source, ksXdataItem* item)
{
    if (item->code != 1001 && item->code != 1003)
        return 1;
    const bool application = item->code == 1001;
    const int32_t place =
        placeOf(source, application ? ksListRegApps : ksListLayers, ksXdataGet<ksObjHandle>(*item), UINT32_MAX);
    if (place < 0) {
        ksG->errorNumber = application ? 71 : 72;
        return 0;
    }
    ksXdataSet<int16_t>(item, item->code, static_cast<int16_t>(place));
    return 1;
}
