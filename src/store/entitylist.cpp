#include "store/entitylist.h"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstring>

#include "frame/fcb.h"
#include "frame/globals.h"
#include "records/classent.h"
#include "records/object.h"
#include "records/tables.h"
#include "store/blob.h"
#include "store/btree.h"
#include "store/handles.h"
#include "store/list.h"
#include "store/record.h"

namespace {

// Offsets in the packed head.
constexpr uint32_t kTypeAt = 12;
constexpr uint32_t kHandleAt = 14;
constexpr uint32_t kFlagsAt = 22;
constexpr uint32_t kPresenceAt = 23;
constexpr uint32_t kCommonSizeAt = 25;
constexpr uint32_t kHeadSize = 27;
// The longest common part: every optional field, two full handles.
constexpr uint32_t kCommonMax = 8 + 2 + 24 + 4 + 8 + 4 + 8 + 9 + 2 + 1 + 16 + 2;

enum : uint8_t {
    kHasThickness = 1,
    kHasColor = 2,
    kHasExtrusion = 4,
    kHasEed = 8,
    kHasLinetypeScale = 16,
    kHasUserData = 32,
    kHasReactors = 64,
    kHasXdict = 128,
};

// How a fixed type's body is kept: its fixed bytes, then up to three
// closing texts, each at its field offset in the full body with its field
// size.
struct BodyForm {
    uint16_t fixed;
    uint8_t textCount;
    uint16_t textAt[3];
    uint16_t textSize[3];
};

template <typename Body>
constexpr BodyForm whole()
{
    return {sizeof(Body), 0, {}, {}};
}

#define KS_TEXT_AT(Body, field) static_cast<uint16_t>(offsetof(Body, field)), sizeof(Body::field)

constexpr BodyForm kForms[ksEntityFixedCount] = {
    {},                                  // 0
    whole<ksLineBody>(),                 // LINE
    whole<ksPointBody>(),                // POINT
    whole<ksCircleBody>(),               // CIRCLE
    whole<ksShapeBody>(),                // SHAPE
    whole<ksEllipseBody>(),              // ELLIPSE
    whole<ksSplineBody>(),               // SPLINE
    {offsetof(ksTextBody, text), 1, {offsetof(ksTextBody, text)}, {sizeof(ksTextBody::text)}},  // TEXT
    whole<ksArcBody>(),                  // ARC
    whole<ksTraceBody>(),                // TRACE
    whole<ksModelerBody>(),              // REGION
    whole<ksTraceBody>(),                // SOLID
    whole<ksBlockBody>(),                // BLOCK
    {},                                  // ENDBLK
    whole<ksInsertBody>(),               // INSERT
    {offsetof(ksAttdefBody, prompt),
     3,
     {offsetof(ksAttdefBody, prompt), offsetof(ksAttdefBody, tag), offsetof(ksAttdefBody, defaultValue)},
     {sizeof(ksAttdefBody::prompt), sizeof(ksAttdefBody::tag), sizeof(ksAttdefBody::defaultValue)}},  // ATTDEF
    {offsetof(ksAttribBody, tag),
     2,
     {offsetof(ksAttribBody, tag), offsetof(ksAttribBody, value)},
     {sizeof(ksAttribBody::tag), sizeof(ksAttribBody::value)}},  // ATTRIB
    {},                                  // SEQEND
    {},                                  // 18
    whole<ksPolylineBody>(),             // POLYLINE
    whole<ksVertexBody>(),               // VERTEX, cut further below
    whole<ksLineBody>(),                 // 3DLINE
    whole<ks3dFaceBody>(),               // 3DFACE
    {offsetof(ksDimensionBody, text), 1, {offsetof(ksDimensionBody, text)}, {sizeof(ksDimensionBody::text)}},
    // A viewport keeps its name, so that it survives the store.
    {offsetof(ksViewportBody, name), 1, {offsetof(ksViewportBody, name)}, {sizeof(ksViewportBody::name)}},
    whole<ksModelerBody>(),              // 3DSOLID
    whole<ksRayBody>(),                  // RAY
    whole<ksRayBody>(),                  // XLINE
    {offsetof(ksMtextBody, text), 1, {offsetof(ksMtextBody, text)}, {sizeof(ksMtextBody::text)}},
    whole<ksLeaderBody>(),               // LEADER
    {offsetof(ksToleranceBody, text), 1, {offsetof(ksToleranceBody, text)}, {sizeof(ksToleranceBody::text)}},
    whole<ksMlineBody>(),                // MLINE
    {},
    {},
    {},
    whole<ksModelerBody>(),              // BODY
};

// The texts close each body, one after the other.
constexpr bool formsAreSound()
{
    for (const BodyForm& f : kForms) {
        for (int i = 0; i < f.textCount; ++i) {
            if (f.textAt[i] != (i == 0 ? f.fixed : f.textAt[i - 1] + f.textSize[i - 1]))
                return false;
            if (f.textAt[i] + f.textSize[i] > ksEntityBodyMax)
                return false;
        }
    }
    return true;
}
static_assert(formsAreSound());

// A VERTEX keeps only X and Y, or its point and flags, when the rest is
// zero.
uint32_t vertexSize(const ksVertexBody& v)
{
    if (v.hasStartWidth || v.hasEndWidth || v.bulge != 0 || v.tangent != 0 || (v.flags & (64 | 128)))
        return sizeof(ksVertexBody);
    if (v.flags == 0 && v.point.z == 0)
        return ksVertexCutXY;
    return ksVertexCutPoint;
}

// Length of a text field, its end mark included; a field without an end
// mark is cut at its size.
uint32_t textLength(const uint8_t* field, uint16_t size)
{
    const void* end = std::memchr(field, 0, size);
    return end ? static_cast<uint32_t>(static_cast<const uint8_t*>(end) - field) + 1 : size;
}

const BodyForm* formOf(int16_t type)
{
    return type >= 0 && type < ksEntityFixedCount ? &kForms[type] : nullptr;
}

// Writes the packed body of `body` to `out`; its size.
uint32_t packBody(const ksFcb* fcb, int16_t type, const uint8_t* body, uint8_t* out)
{
    if (type >= ksEntProxy) {
        uint32_t size = ksEntityClassBodySize(fcb, type);
        std::memcpy(out, body, size);
        return size;
    }
    const BodyForm* form = formOf(type);
    if (form == nullptr)
        return 0;
    uint32_t size = type == ksEntVertex ? vertexSize(*reinterpret_cast<const ksVertexBody*>(body)) : form->fixed;
    std::memcpy(out, body, size);
    for (int i = 0; i < form->textCount; ++i) {
        uint32_t n = textLength(body + form->textAt[i], form->textSize[i]);
        std::memcpy(out + size, body + form->textAt[i], n);
        out[size + n - 1] = 0;
        size += n;
    }
    return size;
}

// Copies a stored body back into a full body buffer.
bool unpackBody(int16_t type, const uint8_t* stored, uint32_t size, uint8_t* body)
{
    if (size > ksEntityBodyMax)
        return false;
    if (type >= ksEntProxy) {
        std::memcpy(body, stored, size);
        return true;
    }
    const BodyForm* form = formOf(type);
    if (form == nullptr || form->textCount == 0) {
        std::memcpy(body, stored, size);
        if (type == ksEntVertex && size < sizeof(ksVertexBody)) {
            auto* v = reinterpret_cast<ksVertexBody*>(body);
            if (size <= ksVertexCutXY) {
                v->point.z = 0;
                v->flags = 0;
            }
            std::memset(body + ksVertexCutPoint, 0, sizeof(ksVertexBody) - ksVertexCutPoint);
        }
        return true;
    }
    if (size < form->fixed)
        return false;
    std::memcpy(body, stored, form->fixed);
    // Each text goes to its own field; a stored text is found by its end
    // mark, within what the node holds.
    uint32_t at = form->fixed;
    for (int i = 0; i < form->textCount; ++i) {
        uint32_t limit = std::min<uint32_t>(size - at, form->textSize[i]);
        uint32_t n = limit ? textLength(stored + at, static_cast<uint16_t>(limit)) : 0;
        std::memcpy(body + form->textAt[i], stored + at, n);
        body[form->textAt[i] + (n ? n - 1 : 0)] = 0;  // a text cut short still ends
        at += n;
    }
    return true;
}

void putBytes(uint8_t*& p, const void* value, size_t n)
{
    std::memcpy(p, value, n);
    p += n;
}

void putHandleTail(uint8_t*& p, const ksObjHandle& h, int length)
{
    std::memcpy(p, h.bytes + 8 - length, length);
    p += length;
}

// Builds the head and common part in `node` (the list header zeroed) and
// returns the head size.
uint32_t packHead(const ksEntityHeader& h, uint8_t* node)
{
    std::memset(node, 0, kHeadSize);
    std::memcpy(node + kTypeAt, &h.type, 2);
    std::memcpy(node + kHandleAt, h.handle.bytes, 8);
    uint8_t flags = static_cast<uint8_t>(h.flags);
    uint8_t presence = 0;
    uint8_t* p = node + kHeadSize;
    if (h.thickness != 0) {
        presence |= kHasThickness;
        putBytes(p, &h.thickness, 8);
    }
    if (h.color != 256) {
        presence |= kHasColor;
        putBytes(p, &h.color, 2);
    }
    if (flags & ksEntityOwnExtrusion) {
        presence |= kHasExtrusion;
        putBytes(p, &h.extrusion, 24);
    }
    if (h.eed != 0) {
        presence |= kHasEed;
        putBytes(p, &h.eed, 4);
    }
    if (h.linetypeScale != 1.0) {
        presence |= kHasLinetypeScale;
        putBytes(p, &h.linetypeScale, 8);
    }
    if (h.userData != 0) {
        presence |= kHasUserData;
        putBytes(p, &h.userData, 4);
    }
    if (h.reactors != 0) {
        presence |= kHasReactors;
        putBytes(p, &h.reactorCount, 4);
        putBytes(p, &h.reactors, 4);
    }
    if (!ksHandleIsNull(h.xdictHandle)) {
        presence |= kHasXdict;
        int n = ksHandleLength(h.xdictHandle);
        *p++ = static_cast<uint8_t>(n);
        putHandleTail(p, h.xdictHandle, n);
    }
    putBytes(p, &h.lineweight, 2);
    int m = ksHandleLength(h.layerHandle);
    int l = ksHandleLength(h.linetypeHandle);
    *p++ = static_cast<uint8_t>(m << 4 | l);
    putHandleTail(p, h.layerHandle, m);
    putHandleTail(p, h.linetypeHandle, l);
    p += 2;  // body size, filled in by the caller
    uint16_t commonSize = static_cast<uint16_t>(p - (node + kHeadSize));
    node[kFlagsAt] = flags;
    node[kPresenceAt] = presence;
    std::memcpy(node + kCommonSizeAt, &commonSize, 2);
    return kHeadSize + commonSize;
}

// A handle from its last `length` bytes (at most 8). The bytes gather in a
// word, most significant first, which is stored at once.
ksObjHandle handleFromTail(const uint8_t* p, int length)
{
    uint64_t value = 0;
    for (int i = 0; i < length; ++i)
        value = value << 8 | p[i];
    if constexpr (std::endian::native == std::endian::little)
        value = __builtin_bswap64(value);
    ksObjHandle h;
    static_assert(sizeof h.bytes == sizeof value);
    std::memcpy(h.bytes, &value, sizeof value);
    return h;
}

// The block header record of an INSERT's block, or null.
const ksBlockHeader* blockOf(ksFcb* fcb, const ksObjHandle& block)
{
    ksLoc node = ksBtreeFind(fcb, block);
    if (node == 0 || ksListNodeOwner(node) != fcb->blockHeaders)
        return nullptr;
    return static_cast<const ksBlockHeader*>(ksRecordOf(node));
}

// Appends an INSERT to its block's reference list: the ID buffer that the
// block's extension dictionary names "ACAD_BLKREFS". A block without one
// has no list to keep. The objects' cursor is left where it stood.
bool appendBlockRef(ksFcb* fcb, const ksBlockHeader& block, const ksObjHandle& insert)
{
    if (ksHandleIsNull(block.xdictHandle))
        return true;
    ksLoc cursor = ksListCurrent(fcb->objects);
    ksObjectHeader head;
    ksObjectBody body;
    ksObjHandle idBuffer{};
    bool ok = true;
    if (ksObjectSeek(fcb, block.xdictHandle, &head, &body) &&
        ksObjectFormOf(fcb, head.kind) == ksFormDictionary && body.dictionary.entries != 0) {
        ksBlobCursor* entries = ksBlobOpenRead(body.dictionary.entries);
        ksDictionaryEntry entry;
        while (entries && ksDictionaryEntryRead(entries, &entry)) {
            if (ksStrCompare(entry.name, "ACAD_BLKREFS") == 0) {
                idBuffer = entry.handle;
                break;
            }
        }
        ksBlobCloseRead(entries);
    }
    if (!ksHandleIsNull(idBuffer) && ksObjectSeek(fcb, idBuffer, &head, &body) &&
        ksObjectFormOf(fcb, head.kind) == ksFormIdBuffer) {
        ksIdBuffer& list = body.idBuffer;
        bool fresh = list.handles == 0;
        if (fresh && (list.handles = ksBlobNew()) == 0)
            ok = false;
        ksBlobCursor* out = !ok ? nullptr : fresh ? ksBlobOpenWrite(list.handles) : ksBlobOpenAppend(list.handles);
        ok = out && ksBlobWriteHandle(out, insert);
        ok = ksBlobCloseWrite(out) && ok;
        if (ok) {
            ++list.handleCount;
            ok = ksObjectReplace(fcb, &head, &body);
        }
    }
    ksListSetCurrent(fcb->objects, cursor);
    return ok;
}

// Each INSERT of an external reference joins its block's reference list.
// While a drawing loads the pair is only noted, and the lists are built at
// the end of the load.
bool noteInsert(ksFcb* fcb, const ksEntityHeader& header, const void* body)
{
    const auto* insert = static_cast<const ksInsertBody*>(body);
    // An INSERT whose block a file never defined keeps a null block rather
    // than being lost; it joins no reference list.
    if (ksHandleIsNull(insert->blockHandle))
        return true;
    const ksBlockHeader* block = blockOf(fcb, insert->blockHandle);
    if (block == nullptr) {
        ksSetError(232);
        return false;
    }
    if ((block->flags & 4) && fcb->loading && fcb->pendingRefs2 != 0) {
        ksObjHandle pair[2] = {header.handle, insert->blockHandle};
        if (ksRecordCopy(pair, sizeof pair, fcb->pendingRefs2, ksAtTail, 0) == 0)
            return false;
    } else if ((block->flags & 4) && !fcb->loading && !ksG->skipBlockRefs) {
        return appendBlockRef(fcb, *block, header.handle);
    }
    return true;
}

// Viewport entities of paper space are also listed in vpEntList.
bool isPaperViewport(const ksFcb* fcb, ksLoc list, int16_t type)
{
    return type == ksEntViewport && list != 0 && list == fcb->paperEntities;
}

bool addVpEntRef(ksFcb* fcb, ksLoc node, const ksEntityHeader& header, const void* body)
{
    ksVpEntRef ref{};
    ref.location = node;
    ref.handle = header.handle;
    bool first = static_cast<const ksViewportBody*>(body)->viewportId == 1;
    return ksRecordCopy(&ref, sizeof ref, fcb->vpEntList, first ? ksAtHead : ksAtTail, 0) != 0;
}

void removeVpEntRef(ksFcb* fcb, const ksObjHandle& handle)
{
    for (ksLoc node = ksListFirst(fcb->vpEntList); node != 0; node = ksListNodeNext(node)) {
        const auto* ref = static_cast<const ksVpEntRef*>(ksRecordOf(node));
        if (ksHandleCompare(ref->handle, handle) == 0) {
            ksListRemove(fcb->vpEntList, node);
            ksVmFree(node);
            return;
        }
    }
}

// Blob fields of the fixed bodies.
struct BlobField {
    int16_t type;
    uint16_t offset;
};
constexpr BlobField kBlobFields[] = {
    {ksEntSpline, offsetof(ksSplineBody, data)},    {ksEntRegion, offsetof(ksModelerBody, satData)},
    {ksEnt3dSolid, offsetof(ksModelerBody, satData)}, {ksEntBody, offsetof(ksModelerBody, satData)},
    {ksEntViewport, offsetof(ksViewportBody, frozenLayers)}, {ksEntMtext, offsetof(ksMtextBody, longText)},
    {ksEntLeader, offsetof(ksLeaderBody, vertices)}, {ksEntMline, offsetof(ksMlineBody, data)},
    {ksEntRegion, offsetof(ksModelerBody, modelerTail)}, {ksEnt3dSolid, offsetof(ksModelerBody, modelerTail)},
    {ksEntBody, offsetof(ksModelerBody, modelerTail)},
};

// Scratch for unpacking inside list operations; the toolkit runs one
// operation at a time.
ksEntityHeader scratchHeader;
ksEntityBody scratchBody;

}  // namespace

uint32_t ksEntityPackedFixedSize(const ksFcb* fcb, const ksEntityHeader& header, const void* body)
{
    if (header.type >= ksEntProxy)
        return ksEntityClassBodySize(fcb, header.type);
    if (header.type == ksEntVertex)
        return vertexSize(*static_cast<const ksVertexBody*>(body));
    const BodyForm* form = formOf(header.type);
    return form ? form->fixed : 0;
}

ksLoc ksEntityPack(ksFcb* fcb, ksLoc list, const ksEntityHeader* header, const void* body, int16_t position,
                   ksLoc place)
{
    if (header->type == ksEntInsert && !noteInsert(fcb, *header, body))
        return 0;
    // Head, common part and body are built on the stack: no allocation
    // but the node's own.
    alignas(8) uint8_t image[kHeadSize + kCommonMax + ksEntityBodyMax];
    uint32_t headSize = packHead(*header, image);
    uint32_t bodySize = packBody(fcb, header->type, static_cast<const uint8_t*>(body), image + headSize);
    uint16_t stored = static_cast<uint16_t>(bodySize);
    std::memcpy(image + headSize - 2, &stored, 2);
    uint32_t total = headSize + bodySize;
    ksLoc node = ksVmAlloc(total);
    if (node == 0) {
        ksAllocFailed(223);
        return 0;
    }
    std::memcpy(ksVmPtr(node), image, total);
    bool inserted = true;
    switch (position) {
    case ksAtHead:
        inserted = ksListInsertHead(list, node) == 1;
        break;
    case ksAtTail:
        inserted = ksListAppend(list, node) == 1;
        break;
    case ksBeforePlace:
        inserted = ksListInsertBefore(list, place, node) == 1;
        break;
    default:
        break;
    }
    if (!inserted) {
        ksVmFree(node);
        ksSetError(223);
        return 0;
    }
    return node;
}

namespace {

template <typename T>
inline T readAt(const uint8_t* p)
{
    T value;
    std::memcpy(&value, p, sizeof value);
    return value;
}

}  // namespace

int16_t ksEntityUnpack(const ksFcb* /*fcb*/, ksLoc node, ksEntityHeader* header, void* body, uint32_t* bodySizeOut,
                       ksLoc* nextOut)
{
    const auto* n = static_cast<const uint8_t*>(ksVmPtr(node));
    if (n == nullptr)
        return 0;
    // The fields gather in locals and go to the header field by field once
    // the body is in: a header is left as it was when the node is refused.
    const auto type = readAt<int16_t>(n + kTypeAt);
    uint8_t flags = n[kFlagsAt];
    const uint8_t presence = n[kPresenceAt];
    const uint8_t* p = n + kHeadSize;
    double thickness = 0.0;
    int16_t color = 256;
    ksPoint3 extrusion{0, 0, 1.0};
    ksLoc eed = 0;
    double linetypeScale = 1.0;
    int32_t userData = 0;
    int32_t reactorCount = 0;
    ksLoc reactors = 0;
    ksObjHandle xdictHandle{};
    flags &= static_cast<uint8_t>(~ksEntityOwnExtrusion);
    if (presence & kHasThickness) {
        thickness = readAt<double>(p);
        p += 8;
    }
    if (presence & kHasColor) {
        color = readAt<int16_t>(p);
        p += 2;
    }
    if (presence & kHasExtrusion) {
        extrusion = readAt<ksPoint3>(p);
        p += 24;
        flags |= ksEntityOwnExtrusion;
    }
    if (presence & kHasEed) {
        eed = readAt<ksLoc>(p);
        p += 4;
    }
    if (presence & kHasLinetypeScale) {
        linetypeScale = readAt<double>(p);
        p += 8;
    }
    if (presence & kHasUserData) {
        userData = readAt<int32_t>(p);
        p += 4;
    }
    if (presence & kHasReactors) {
        reactorCount = readAt<int32_t>(p);
        reactors = readAt<ksLoc>(p + 4);
        p += 8;
    }
    if (presence & kHasXdict) {
        int length = *p++ & 15;
        xdictHandle = handleFromTail(p, length > 8 ? 8 : length);
        p += length;
    }
    const auto lineweight = readAt<int16_t>(p);
    p += 2;
    int m = *p >> 4 & 15, l = *p & 15;
    ++p;
    const ksObjHandle layerHandle = handleFromTail(p, m > 8 ? 8 : m);
    p += m;
    const ksObjHandle linetypeHandle = handleFromTail(p, l > 8 ? 8 : l);
    p += l;
    const auto bodySize = readAt<uint16_t>(p);
    p += 2;
    if (!unpackBody(type, p, bodySize, static_cast<uint8_t*>(body)))
        return 0;
    // Every field of the header is set here.
    static_assert(sizeof(ksEntityHeader) == 112, "a new header field is unpacked here too");
    header->type = type;
    std::memcpy(header->handle.bytes, n + kHandleAt, 8);
    header->layerHandle = layerHandle;
    header->linetypeHandle = linetypeHandle;
    header->xdictHandle = xdictHandle;
    header->thickness = thickness;
    header->color = color;
    header->extrusion = extrusion;
    header->linetypeScale = linetypeScale;
    header->flags = static_cast<int8_t>(flags);
    header->lineweight = lineweight;
    header->userData = userData;
    header->eed = eed;
    header->reactorCount = reactorCount;
    header->reactors = reactors;
    if (bodySizeOut)
        *bodySizeOut = bodySize;
    if (nextOut)
        *nextOut = ksListNodeNext(node);
    return 1;
}

int16_t ksEntityRead(ksFcb* fcb, ksLoc list, ksEntityHeader* header, void* body)
{
    ksLoc node = ksListCurrent(list);
    if (node == 0 || !ksEntityUnpack(fcb, node, header, body, nullptr, nullptr))
        return 0;
    ksListNext(list);
    return 1;
}

int16_t ksEntitySeek(ksFcb* fcb, ksLoc list, const ksObjHandle& handle, ksEntityHeader* header, void* body)
{
    ksLoc node = ksBtreeFind(fcb, handle);
    if (node == 0 || ksListSetCurrent(list, node) != 0)
        return 0;
    return ksEntityRead(fcb, list, header, body);
}

namespace {

// Enters a packed node's handle in the index; on refusal the node goes
// again (its blobs are the caller's).
bool indexNode(ksFcb* fcb, ksLoc list, ksLoc node, const ksEntityHeader& header)
{
    int16_t added = ksBtreeAdd(fcb, header.handle, node);
    if (added == ksBtDone)
        return true;
    ksSetError(added == ksBtDuplicate ? 172 : 173);
    ksListRemove(list, node);
    ksVmFree(node);
    return false;
}

int16_t addAt(ksFcb* fcb, ksLoc list, const ksEntityHeader* header, const void* body, int16_t position,
              ksLoc place)
{
    // An INSERT notes itself in its block's reference list while it is
    // packed, so a duplicate is refused before that; any other entity is
    // refused by the index itself, which takes the node out again.
    if (header->type == ksEntInsert && ksBtreeFind(fcb, header->handle) != 0) {
        ksSetError(172);
        ksG->duplicateHandle = header->handle;
        return 0;
    }
    ksLoc node = ksEntityPack(fcb, list, header, body, position, place);
    if (node == 0 || !indexNode(fcb, list, node, *header))
        return 0;
    if (isPaperViewport(fcb, list, header->type) && !addVpEntRef(fcb, node, *header, body))
        return 0;
    return 1;
}

}  // namespace

int16_t ksEntityAppend(ksFcb* fcb, ksLoc list, const ksEntityHeader* header, const void* body)
{
    return addAt(fcb, list, header, body, ksAtTail, 0);
}

int16_t ksEntityAddAfter(ksFcb* fcb, ksLoc list, const ksEntityHeader* header, const void* body,
                         const ksObjHandle& after)
{
    if (ksHandleIsNull(after))
        return addAt(fcb, list, header, body, ksAtHead, 0);
    ksLoc node = ksBtreeFind(fcb, after);
    if (node == 0 || ksListNodeOwner(node) != list) {
        ksSetError(152);
        return 0;
    }
    ksLoc next = ksListNodeNext(node);
    return addAt(fcb, list, header, body, next ? ksBeforePlace : ksAtTail, next);
}

int16_t ksEntityFreeBlobs(const ksFcb* fcb, const ksEntityHeader& header, const void* body)
{
    bool ok = true;
    if ((header.eed && !ksBlobFree(header.eed)) || (header.reactors && !ksBlobFree(header.reactors))) {
        ksSetError(97);
        ok = false;
    }
    if (header.type >= ksEntProxy)
        return ksClassEntityFreeBlobs(fcb, header.type, const_cast<void*>(body)) && ok;
    for (const BlobField& f : kBlobFields) {
        if (f.type != header.type)
            continue;
        ksLoc blob;
        std::memcpy(&blob, static_cast<const uint8_t*>(body) + f.offset, sizeof blob);
        if (blob && !ksBlobFree(blob)) {
            ksSetError(98);
            return 0;
        }
    }
    return ok;
}

int16_t ksEntityDelete(ksFcb* fcb, ksLoc list, const ksObjHandle& handle, int16_t deep)
{
    if (list == 0) {
        ksSetError(151);
        return 0;
    }
    ksLoc node = ksBtreeFind(fcb, handle);
    if (node == 0 || ksListNodeOwner(node) != list ||
        !ksEntityUnpack(fcb, node, &scratchHeader, &scratchBody, nullptr, nullptr)) {
        ksSetError(152);
        return 0;
    }
    if (deep && !ksEntityFreeBlobs(fcb, scratchHeader, &scratchBody))
        return 0;
    // The cursor moves off the node that goes.
    if (ksListCurrent(list) == node)
        ksListSetCurrent(list, ksListNodeNext(node));
    if (ksListRemove(list, node) != node) {
        ksSetError(99);
        return 0;
    }
    ksVmFree(node);
    if (isPaperViewport(fcb, list, scratchHeader.type))
        removeVpEntRef(fcb, handle);
    ksBtreeDelete(fcb, handle);
    return 1;
}

int16_t ksEntityReplace(ksFcb* fcb, ksLoc list, const ksObjHandle& handle, const ksEntityHeader* header,
                        const void* body)
{
    if (list == 0) {
        ksSetError(151);
        return 0;
    }
    ksLoc node = ksBtreeFind(fcb, handle);
    if (node == 0) {
        ksSetError(226);
        return 0;
    }
    if (ksListNodeOwner(node) != list) {
        ksSetError(227);
        return 0;
    }
    if (!ksEntityUnpack(fcb, node, &scratchHeader, &scratchBody, nullptr, nullptr)) {
        ksSetError(152);
        return 0;
    }
    // Where the record stands, and where the list's cursor stands.
    ksLoc prev = ksListNodePrev(node), next = ksListNodeNext(node);
    int16_t position = prev == 0 ? ksAtHead : next ? ksBeforePlace : ksAtTail;
    ksLoc current = ksListCurrent(list);
    bool cursorOnIt = current == node;

    if (header->type == scratchHeader.type) {
        // The same type: blobs that the new record no longer names go.
        ksEntityHeader old = scratchHeader;
        if (old.eed && old.eed != header->eed)
            ksBlobFree(old.eed);
        if (old.reactors && old.reactors != header->reactors)
            ksBlobFree(old.reactors);
        old.eed = old.reactors = 0;
        if (header->type < ksEntProxy) {
            for (const BlobField& f : kBlobFields) {
                if (f.type != header->type)
                    continue;
                ksLoc was, now;
                std::memcpy(&was, scratchBody.bytes + f.offset, sizeof was);
                std::memcpy(&now, static_cast<const uint8_t*>(body) + f.offset, sizeof now);
                if (was && was != now)
                    ksBlobFree(was);
            }
        }
    } else if (!ksEntityFreeBlobs(fcb, scratchHeader, &scratchBody)) {
        ksSetError(175);
        return 0;
    }
    if (isPaperViewport(fcb, list, scratchHeader.type))
        removeVpEntRef(fcb, handle);
    ksListRemove(list, node);
    ksVmFree(node);
    ksBtreeDelete(fcb, handle);

    ksLoc fresh = ksEntityPack(fcb, list, header, body, position, next);
    if (fresh == 0) {
        ksSetError(228);
        return 0;
    }
    if (!indexNode(fcb, list, fresh, *header))
        return 0;
    if (isPaperViewport(fcb, list, header->type) && !addVpEntRef(fcb, fresh, *header, body)) {
        ksSetError(229);
        return 0;
    }
    // The cursor stands behind the record, as it did behind the old one.
    if (cursorOnIt)
        ksListSetCurrent(list, fresh);
    return 1;
}

ksLoc ksBlockEntityList(ksFcb* fcb, const ksObjHandle& block)
{
    const ksBlockHeader* header = blockOf(fcb, block);
    if (header == nullptr) {
        ksSetError(73);
        return 0;
    }
    return header->entities;
}

int16_t ksEntityAddReactor(ksEntityHeader* header, const ksObjHandle& handle)
{
    bool fresh = header->reactors == 0;
    if (fresh && (header->reactors = ksBlobNew()) == 0)
        return 0;
    ksBlobCursor* cursor = fresh ? ksBlobOpenWrite(header->reactors) : ksBlobOpenAppend(header->reactors);
    if (cursor == nullptr)
        return 0;
    bool ok = ksBlobWriteHandle(cursor, handle);
    if (!ksBlobCloseWrite(cursor) || !ok)
        return 0;
    ++header->reactorCount;
    return 1;
}

void ksEntityListFree(ksFcb* fcb, ksLoc list)
{
    for (ksLoc node = ksListFirst(list); node != 0; node = ksListNodeNext(node)) {
        if (ksEntityUnpack(fcb, node, &scratchHeader, &scratchBody, nullptr, nullptr)) {
            ksEntityFreeBlobs(fcb, scratchHeader, &scratchBody);
            ksBtreeDelete(fcb, scratchHeader.handle);
        }
    }
    ksListFree(list);
}
