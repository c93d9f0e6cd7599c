#include "bridge/upgrade.h"

#include <cmath>
#include <cstdio>
#include <cstring>

#include "driver/hooks.h"
#include "frame/fcb.h"
#include "frame/globals.h"
#include "records/classent.h"
#include "records/entity.h"
#include "records/header.h"
#include "records/object.h"
#include "records/tables.h"
#include "store/blob.h"
#include "store/btree.h"
#include "store/entitylist.h"
#include "store/handles.h"
#include "store/list.h"
#include "store/record.h"
#include "store/tablelist.h"
#include "store/xdata.h"

// ---------------------------------------------------------------------------
// Working state of the entity step

namespace {

// The kinds of reference an entity makes by index or by name. The first
// five are tables; multiline styles are objects.
enum RefKind : int { kLayer, kLinetype, kStyle, kBlock, kDimStyle, kMlineStyle, kKindCount };
constexpr int kTableKinds = kMlineStyle;
constexpr ksTableList kTableOf[kTableKinds] = {ksListLayers, ksListLinetypes, ksListShapeFiles,
                                                ksListBlockHeaders, ksListDimStyles};

// The last reference resolved of a kind, by index (old DWG) or by name.
struct OneEntry {
    int16_t index;  // -1: none
    bool named;     // name holds a name
    ksObjHandle handle;
    char name[ksTableNameSize];
};

// Handles of a table by place, for the indices of old DWG.
struct PlaceTable {
    ksObjHandle* handles;
    uint32_t count;
    bool built;
};

// Names of all kinds, hashed without regard to case: open addressing over
// slots, with the names in one pool as a kind byte, the text and an end
// mark. Pool offset 0 marks an empty slot. Both grow by doubling up to a
// fixed bound; a kind whose names no longer fit is marked incomplete and
// its misses are searched in the list again.
struct NameSlot {
    uint32_t hash;
    uint32_t name;
    ksObjHandle handle;
};
constexpr uint32_t kFirstSlots = 1024;
constexpr uint32_t kMaxSlots = 1u << 18;
constexpr uint32_t kFirstPool = 16384;
constexpr uint32_t kMaxPool = 8u << 20;

struct NameIndex {
    NameSlot* slots;
    uint32_t capacity;  // a power of 2, or 0
    uint32_t used;
    char* pool;
    uint32_t poolSize;
    uint32_t poolUsed;
    uint32_t seen[kKindCount];  // the source's count when it was indexed
    bool built[kKindCount];
    bool complete[kKindCount];
};

// A POLYLINE being gathered: its records, in a blob, until its SEQEND.
struct Gather {
    bool collecting;
    bool abort;
    bool hasBulges;
    bool widthsVary;
    ksLoc blob;
    ksBlobCursor* cursor;
    ksLoc list;  // where the POLYLINE goes
    double startWidth;
    double endWidth;
    int32_t vertexCount;
    ksPoint3 lastPoint;
};

// DXF: what a VERTEX and a SEQEND take from their POLYLINE or INSERT.
struct Inherit {
    bool polyOpen;
    bool insertOpen;
    int8_t insertPaper;
    int8_t paper;
    int16_t color;
    char layer[ksTableNameSize];
    char linetype[ksTableNameSize];
};

}  // namespace

struct ksLoadState {
    OneEntry cache[kKindCount];
    PlaceTable places[kTableKinds];
    NameIndex names;
    Gather poly;
    Inherit inherit;
};

namespace {

constexpr double kTiny = 1e-10;

void copyName(char* to, const char* from)
{
    size_t n = strnlen(from, ksTableNameSize - 1);
    std::memcpy(to, from, n);
    to[n] = '\0';
}

ksLoadState* stateOf(ksFcb* fcb)
{
    if (fcb->loadState != nullptr)
        return fcb->loadState;
    auto* st = static_cast<ksLoadState*>(ksMemAlloc(sizeof(ksLoadState)));
    if (st == nullptr)
        return nullptr;
    std::memset(st, 0, sizeof *st);
    for (OneEntry& c : st->cache)
        c.index = -1;
    fcb->loadState = st;
    return st;
}

// --- Sources of names and handles

uint32_t sourceCount(const ksFcb* fcb, int kind)
{
    return kind < kTableKinds ? ksTableCount(fcb, kTableOf[kind]) : ksObjectCount(fcb);
}

// Calls visit(name, handle) for each record of the kind in list order
// until it returns false. The lists' cursors stay where they stand.
template <typename Visit>
void walkSource(const ksFcb* fcb, int kind, Visit visit)
{
    if (kind < kTableKinds) {
        const ksTableListInfo& t = ksTableLists[kTableOf[kind]];
        for (ksLoc node = ksListFirst(fcb->*t.list); node != 0; node = ksListNodeNext(node)) {
            const auto* record = static_cast<const uint8_t*>(ksRecordOf(node));
            ksObjHandle handle;
            std::memcpy(&handle, record + t.handleOffset, sizeof handle);
            if (!visit(reinterpret_cast<const char*>(record + t.nameOffset), handle))
                return;
        }
        return;
    }
    // An object node holds its header, then its body.
    for (ksLoc node = ksListFirst(fcb->objects); node != 0; node = ksListNodeNext(node)) {
        const auto* record = static_cast<const uint8_t*>(ksRecordOf(node));
        ksObjectHeader head;
        std::memcpy(&head, record, sizeof head);
        if (head.kind != ksKindMlineStyle)
            continue;
        const uint8_t* body = record + sizeof head;
        if (!visit(reinterpret_cast<const char*>(body + offsetof(ksMlineStyle, name)), head.handle))
            return;
    }
}

bool searchSource(const ksFcb* fcb, int kind, const char* name, ksObjHandle* out)
{
    bool found = false;
    walkSource(fcb, kind, [&](const char* candidate, const ksObjHandle& handle) {
        if (ksStrCompare(candidate, name) != 0)
            return true;
        *out = handle;
        found = true;
        return false;
    });
    return found;
}

// --- The name index

constexpr unsigned char fold(unsigned char c) { return (c >= 'a' && c <= 'z') ? c - 'a' + 'A' : c; }

uint32_t hashName(int kind, const char* name)
{
    uint32_t h = 2166136261u ^ static_cast<uint32_t>(kind);
    for (const char* p = name; *p; ++p)
        h = (h ^ fold(static_cast<unsigned char>(*p))) * 16777619u;
    return h;
}

void indexFree(NameIndex& ix)
{
    ksMemFree(ix.slots);
    ksMemFree(ix.pool);
    ix = NameIndex{};
}

// The slot of a name of the kind, or the empty slot where it would go.
NameSlot* probe(NameIndex& ix, int kind, const char* name, uint32_t hash)
{
    for (uint32_t i = hash & (ix.capacity - 1);; i = (i + 1) & (ix.capacity - 1)) {
        NameSlot& s = ix.slots[i];
        if (s.name == 0)
            return &s;
        const char* stored = ix.pool + s.name;
        if (s.hash == hash && stored[0] == static_cast<char>(kind) && ksStrCompare(stored + 1, name) == 0)
            return &s;
    }
}

bool growSlots(NameIndex& ix)
{
    uint32_t capacity = ix.capacity ? ix.capacity * 2 : kFirstSlots;
    if (capacity > kMaxSlots)
        return false;
    auto* slots = static_cast<NameSlot*>(ksMemAlloc(capacity * sizeof(NameSlot)));
    if (slots == nullptr)
        return false;
    std::memset(slots, 0, capacity * sizeof(NameSlot));
    NameSlot* old = ix.slots;
    uint32_t oldCapacity = ix.capacity;
    ix.slots = slots;
    ix.capacity = capacity;
    for (uint32_t i = 0; i < oldCapacity; ++i) {
        if (old[i].name == 0)
            continue;
        uint32_t j = old[i].hash & (capacity - 1);
        while (slots[j].name != 0)
            j = (j + 1) & (capacity - 1);
        slots[j] = old[i];
    }
    ksMemFree(old);
    return true;
}

bool growPool(NameIndex& ix, uint32_t need)
{
    // Offset 0 stays unused: it marks an empty slot.
    const uint32_t used = ix.pool ? ix.poolUsed : 1;
    uint32_t size = ix.poolSize ? ix.poolSize : kFirstPool;
    while (size < used + need && size <= kMaxPool / 2)
        size *= 2;
    if (size < used + need)
        return false;
    auto* pool = static_cast<char*>(ksMemAlloc(size));
    if (pool == nullptr)
        return false;
    if (ix.pool != nullptr)
        std::memcpy(pool, ix.pool, ix.poolUsed);
    ksMemFree(ix.pool);
    ix.pool = pool;
    ix.poolSize = size;
    ix.poolUsed = used;
    return true;
}

// Adds a name unless the kind has it already (the first record of a name
// is the one a search finds). False when the bound is reached.
bool indexAdd(NameIndex& ix, int kind, const char* name, const ksObjHandle& handle)
{
    uint32_t length = static_cast<uint32_t>(std::strlen(name));
    if ((ix.used + 1) * 2 > ix.capacity && !growSlots(ix))
        return false;
    uint32_t hash = hashName(kind, name);
    NameSlot* slot = probe(ix, kind, name, hash);
    if (slot->name != 0)
        return true;
    if ((ix.pool == nullptr || ix.poolUsed + length + 2 > ix.poolSize) && !growPool(ix, length + 2))
        return false;
    char* stored = ix.pool + ix.poolUsed;
    stored[0] = static_cast<char>(kind);
    std::memcpy(stored + 1, name, length + 1);
    *slot = NameSlot{hash, ix.poolUsed, handle};
    ix.poolUsed += length + 2;
    ++ix.used;
    return true;
}

// Makes sure the kind's names are in the index as its source stands. A
// source that changed behind the step's back (its count differs) makes
// the whole index start again.
void indexSource(const ksFcb* fcb, NameIndex& ix, int kind)
{
    uint32_t count = sourceCount(fcb, kind);
    if (ix.built[kind] && ix.seen[kind] == count)
        return;
    if (ix.built[kind]) {
        for (uint32_t i = 0; i < ix.capacity; ++i)
            ix.slots[i] = NameSlot{};
        ix.used = 0;
        ix.poolUsed = ix.pool ? 1 : 0;
        for (int k = 0; k < kKindCount; ++k)
            ix.built[k] = false;
    }
    ix.built[kind] = true;
    ix.complete[kind] = true;
    ix.seen[kind] = count;
    walkSource(fcb, kind, [&](const char* name, const ksObjHandle& handle) {
        ix.complete[kind] = indexAdd(ix, kind, name, handle);
        return ix.complete[kind];
    });
}

bool findByName(const ksFcb* fcb, ksLoadState* st, int kind, const char* name, ksObjHandle* out)
{
    NameIndex& ix = st->names;
    indexSource(fcb, ix, kind);
    if (ix.capacity != 0) {
        const NameSlot* slot = probe(ix, kind, name, hashName(kind, name));
        if (slot->name != 0) {
            *out = slot->handle;
            return true;
        }
    }
    return !ix.complete[kind] && searchSource(fcb, kind, name, out);
}

// A record the step added itself joins the index.
void noteAdded(const ksFcb* fcb, ksLoadState* st, int kind, const char* name, const ksObjHandle& handle)
{
    NameIndex& ix = st->names;
    if (!ix.built[kind] || ix.seen[kind] + 1 != sourceCount(fcb, kind))
        return;  // indexed afresh on the next search
    ++ix.seen[kind];
    if (ix.complete[kind])
        ix.complete[kind] = indexAdd(ix, kind, name, handle);
}

// --- Resolving, with the one-entry caches

// By name: the cache, then the index. False on a miss; the cache stays.
bool byName(const ksFcb* fcb, ksLoadState* st, int kind, const char* name, ksObjHandle* out)
{
    OneEntry& c = st->cache[kind];
    if (c.named && ksStrCompare(c.name, name) == 0) {
        *out = c.handle;
        return true;
    }
    if (!findByName(fcb, st, kind, name, out)) {
        *out = ksObjHandle{};
        return false;
    }
    if (std::strlen(name) < ksTableNameSize) {
        copyName(c.name, name);
        c.named = true;
        c.handle = *out;
    }
    return true;
}

// By place in the table (old DWG): record index + 1 of the list.
bool byIndex(const ksFcb* fcb, ksLoadState* st, int kind, int16_t index, ksObjHandle* out)
{
    OneEntry& c = st->cache[kind];
    if (c.index >= 0 && c.index == index) {
        *out = c.handle;
        return true;
    }
    *out = ksObjHandle{};
    PlaceTable& p = st->places[kind];
    uint32_t count = sourceCount(fcb, kind);
    if (!p.built || p.count != count) {
        ksMemFree(p.handles);
        p = PlaceTable{};
        if (count != 0) {
            p.handles = static_cast<ksObjHandle*>(ksMemAlloc(count * sizeof(ksObjHandle)));
            if (p.handles == nullptr)
                return false;
            walkSource(fcb, kind, [&](const char*, const ksObjHandle& handle) {
                p.handles[p.count++] = handle;
                return true;
            });
        }
        p.built = true;
    }
    if (index < 0 || static_cast<uint32_t>(index) >= p.count)
        return false;
    *out = p.handles[index];
    c.index = index;
    c.handle = *out;
    return true;
}

const char* nameOr(const char* name, const char* fallback) { return name != nullptr ? name : fallback; }

// --- Shapes by name (the shape files of the drawing, through its cache)

uint16_t le16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | p[1] << 8); }

bool shapeInFile(const char* path, const char* name, int16_t* number)
{
    ksStream* file = ksFileOpenRead(path);
    if (file == nullptr)
        return false;
    bool found = false;
    uint8_t head[30];
    if (ksFileRead(head, 1, sizeof head, file) == sizeof head) {
        uint16_t count = le16(head + 28);
        auto* index = static_cast<uint8_t*>(ksMemAlloc(count * 4u + 1));
        if (index != nullptr && ksFileRead(index, 4, count, file) == count) {
            for (uint16_t i = 0; i < count && !found; ++i) {
                uint16_t size = le16(index + 4 * i + 2);
                char piece[513] = {};
                size_t first = size < 512 ? size : 512;
                if (ksFileRead(piece, 1, first, file) != first)
                    break;
                if (std::strcmp(piece, name) == 0) {
                    *number = static_cast<int16_t>(le16(index + 4 * i));
                    found = true;
                } else if (size > first && ksFileSeek(file, static_cast<long>(size - first), 1) != 0) {
                    break;
                }
            }
        }
        ksMemFree(index);
    }
    ksFileClose(file);
    return found;
}

bool shapeByName(ksFcb* fcb, const char* name, ksObjHandle* style, int16_t* number)
{
    for (int i = 0; i < fcb->shapeCacheCount && i < ksShapeCacheSize; ++i) {
        if (std::strcmp(fcb->shapeCacheName[i], name) == 0) {
            *style = fcb->shapeCacheStyle[i];
            *number = fcb->shapeCacheNumber[i];
            return true;
        }
    }
    *style = ksObjHandle{};
    *number = 0;
    for (ksLoc node = ksListFirst(fcb->shapeFiles); node != 0; node = ksListNodeNext(node)) {
        // Records stand unaligned behind the list header: read them bytewise.
        const auto* record = static_cast<const uint8_t*>(ksRecordOf(node));
        if (!(record[offsetof(ksStyle, flags)] & 1))
            continue;
        char file[ksPathMax];
        const char* font = reinterpret_cast<const char*>(record + offsetof(ksStyle, fontFile));
        size_t n = std::strlen(font);
        bool hasExtension = std::strstr(font, ".shx") || std::strstr(font, ".SHX") || (n >= 4 && font[n - 4] == '.');
        std::snprintf(file, sizeof file, hasExtension ? "%s" : "%s.shx", font);
        char found[ksPathMax];
        if (ksG->findFile == nullptr || !ksG->findFile(file, found, 0))
            std::snprintf(found, sizeof found, "%s", file);
        int16_t shape = 0;
        if (!shapeInFile(found, name, &shape))
            continue;
        std::memcpy(style, record + offsetof(ksStyle, entryHandle), sizeof *style);
        *number = shape;
        if (fcb->shapeCacheCount >= ksShapeCacheSize)
            fcb->shapeCacheCount = 0;
        int16_t at = fcb->shapeCacheCount++;
        std::snprintf(fcb->shapeCacheName[at], sizeof fcb->shapeCacheName[at], "%s", name);
        fcb->shapeCacheStyle[at] = *style;
        fcb->shapeCacheNumber[at] = shape;
        return true;
    }
    return false;
}

// --- Storing

// The text style field of a type, or null for a type without one.
ksObjHandle* styleFieldOf(const ksFcb* fcb, int16_t type, void* body)
{
    auto* b = static_cast<ksEntityBody*>(body);
    switch (type) {
    case ksEntText:
        return &b->text.styleHandle;
    case ksEntAttdef:
    case ksEntAttrib:
        return &b->attdef.styleHandle;
    case ksEntMtext:
        return &b->mtext.styleHandle;
    default:
        break;
    }
    switch (ksClassEntityFormOf(fcb, type)) {
    case ksCeRtext:
        return &static_cast<ksRtext*>(body)->styleHandle;
    case ksCeArcAlignedText:
        return &static_cast<ksArcAlignedText*>(body)->styleHandle;
    default:
        return nullptr;
    }
}

// Fails an entity that never reached the store.
int16_t refuse(const ksFcb* fcb, const ksEntityHeader* header, const void* body, int16_t number)
{
    ksEntityFreeBlobs(fcb, *header, body);
    ksSetError(number);
    return 0;
}

// At the tail of the list, with its handle in the index. On a failure the
// number of the entity loop stands; a record that never got in still owns
// its blobs.
bool store(ksFcb* fcb, ksLoc list, const ksEntityHeader& header, const void* body, int32_t filePosition)
{
    if (ksEntityAppend(fcb, list, &header, body)) {
        if (header.type == ksEntViewport && list == fcb->paperEntities && fcb->fileVersion < ksAC1012) {
            // The store put its viewport entry at the head or the tail.
            for (ksLoc node : {ksListFirst(fcb->vpEntList), ksListLast(fcb->vpEntList)}) {
                auto* ref = node ? static_cast<uint8_t*>(ksRecordOf(node)) : nullptr;
                if (ref && std::memcmp(ref + offsetof(ksVpEntRef, handle), header.handle.bytes, 8) == 0)
                    std::memcpy(ref + offsetof(ksVpEntRef, filePosition), &filePosition, sizeof filePosition);
            }
        }
        return true;
    }
    int16_t error = ksErrorNumber();
    if (error == 172 || error == 173)
        ksSetError(290);
    else if (ksBtreeFind(fcb, header.handle) != 0)
        ksSetError(291);  // in, but not in the viewport entity list
    else
        ksSetError(289);
    return false;
}

// --- Gathering a POLYLINE

bool gatherWrite(Gather& g, const ksEntityHeader& header, const void* body)
{
    size_t size = ksEntityBodySize(header.type);
    return ksBlobWrite(g.cursor, &header, sizeof header) &&
           (size == 0 || ksBlobWrite(g.cursor, body, static_cast<uint16_t>(size)));
}

bool gatherRead(ksBlobCursor* in, ksEntityHeader* header, ksEntityBody* body)
{
    if (!ksBlobRead(in, header, sizeof *header))
        return false;
    size_t size = ksEntityBodySize(header->type);
    return size == 0 || ksBlobRead(in, body, static_cast<uint16_t>(size));
}

void gatherReset(Gather& g)
{
    ksBlobFree(g.blob);
    g = Gather{};
}

// Frees what the gathered records own, from the reading cursor on.
void freeGathered(const ksFcb* fcb, ksBlobCursor* in)
{
    ksEntityHeader header;
    ksEntityBody body;
    while (gatherRead(in, &header, &body))
        ksEntityFreeBlobs(fcb, header, &body);
}

// Drops a POLYLINE still being gathered, with its records' blobs.
void gatherDrop(const ksFcb* fcb, Gather& g)
{
    ksBlobCloseWrite(g.cursor);
    g.cursor = nullptr;
    ksBlobCursor* in = ksBlobOpenRead(g.blob);
    freeGathered(fcb, in);
    ksBlobCloseRead(in);
    gatherReset(g);
}

// Begins a POLYLINE. False when the gathering can't start; the POLYLINE
// is then stored as it is.
bool gatherStart(Gather& g, ksLoc list, const ksEntityHeader& header, const ksPolylineBody& body)
{
    g = Gather{};
    g.blob = ksBlobNew();
    g.cursor = ksBlobOpenWrite(g.blob);
    if (g.cursor == nullptr || !gatherWrite(g, header, &body)) {
        ksBlobCloseWrite(g.cursor);
        gatherReset(g);
        return false;
    }
    g.collecting = true;
    g.list = list;
    g.startWidth = body.startWidth;
    g.endWidth = body.endWidth;
    g.widthsVary = body.startWidth != body.endWidth;
    return true;
}

bool gatherVertex(Gather& g, const ksEntityHeader& header, const ksVertexBody& v)
{
    if (g.vertexCount > 0 && std::memcmp(&v.point, &g.lastPoint, sizeof v.point) == 0)
        g.abort = true;
    g.lastPoint = v.point;
    ++g.vertexCount;
    if ((v.hasStartWidth && v.startWidth != g.startWidth) || (v.hasEndWidth && v.endWidth != g.startWidth))
        g.widthsVary = true;
    if (v.bulge != 0.0)
        g.hasBulges = true;
    if (header.eed != 0 || (v.flags & 2))
        g.abort = true;
    return gatherWrite(g, header, &v);
}

// The LWPOLYLINE of the gathered records; `in` stands behind the POLYLINE.
// The VERTEX and SEQEND records are dropped. False with the number
// standing; every blob is freed or stored by then.
bool convertGathered(ksFcb* fcb, Gather& g, ksBlobCursor* in, ksEntityHeader header, const ksPolylineBody& poly)
{
    ksLwpolyline lw{};
    lw.vertexCount = g.vertexCount;
    if (header.flags & ksEntityOwnExtrusion)
        lw.flags |= 1;
    if (std::fabs(header.thickness) >= kTiny)
        lw.flags |= 2;
    else
        header.thickness = 0.0;
    if (std::fabs(poly.elevation) >= kTiny) {
        lw.elevation = poly.elevation;
        lw.flags |= 8;
    }
    if (poly.flags & 1)
        lw.flags |= ksLwClosed;
    if (g.widthsVary) {
        lw.flags |= ksLwHasWidths;
    } else {
        lw.constantWidth = g.startWidth;
        if (std::fabs(g.startWidth) >= kTiny)
            lw.flags |= ksLwConstantWidth;
    }
    if (g.hasBulges)
        lw.flags |= ksLwHasBulges;
    if (poly.flags & 128)
        lw.flags |= ksLwPlinegen;

    bool ok = (lw.vertices = ksBlobNew()) != 0;
    ksBlobCursor* out = ok ? ksBlobOpenWrite(lw.vertices) : nullptr;
    ok = ok && out != nullptr;
    ksEntityHeader h;
    ksEntityBody b;
    while (gatherRead(in, &h, &b)) {
        if (ok && h.type == ksEntVertex) {
            const ksVertexBody& v = b.vertex;
            ksLwVertex lv{{v.point.x, v.point.y},
                          v.bulge,
                          v.hasStartWidth ? v.startWidth : g.startWidth,
                          v.hasEndWidth ? v.endWidth : g.endWidth};
            ok = ksLwVertexWrite(out, lw.flags, lv);
        }
        ksEntityFreeBlobs(fcb, h, &b);
    }
    ok = ksBlobCloseWrite(out) && ok;
    header.type = fcb->classNumbers.lwpolyline;
    if (!ok)
        ksSetError(289);
    if (!ok || !store(fcb, g.list, header, &lw, 0)) {
        int16_t error = ksErrorNumber();
        ksEntityFreeBlobs(fcb, header, &lw);
        ksSetError(error);
        return false;
    }
    return true;
}

// Ends the gathering: the LWPOLYLINE when it may be made, else every
// record as it came.
bool gatherFinish(ksFcb* fcb, Gather& g)
{
    bool ok = ksBlobCloseWrite(g.cursor);
    g.cursor = nullptr;
    ksBlobCursor* in = ksBlobOpenRead(g.blob);
    ksEntityHeader header;
    ksEntityBody body;
    if (!ok || in == nullptr || !gatherRead(in, &header, &body)) {
        // The records can't be read back: nothing of them can be kept.
        if (in)
            freeGathered(fcb, in);
        ksBlobCloseRead(in);
        gatherReset(g);
        ksSetError(289);
        return false;
    }
    if (!g.abort && fcb->classNumbers.lwpolyline != 0) {
        ksPolylineBody poly = body.polyline;
        ok = convertGathered(fcb, g, in, header, poly);
    } else {
        do {
            if (ok && !store(fcb, g.list, header, &body, 0))
                ok = false;
            if (!ok)
                ksEntityFreeBlobs(fcb, header, &body);
        } while (gatherRead(in, &header, &body));
    }
    ksBlobCloseRead(in);
    gatherReset(g);
    return ok;
}

// --- DXF inheritance of complex entities

// Returns the names the entity resolves: a VERTEX and a SEQEND may take
// those of their POLYLINE.
void inheritDxf(Inherit& in, ksEntityHeader* header, const char** layer, const char** linetype)
{
    const int8_t paper = header->flags & ksEntityPaperSpace;
    auto takeSaved = [&] {
        *layer = in.layer;
        *linetype = in.linetype;
        header->color = in.color;
        header->flags = static_cast<int8_t>((header->flags & ~ksEntityPaperSpace) | in.paper);
    };
    switch (header->type) {
    case ksEntPolyline:
        copyName(in.layer, *layer);
        copyName(in.linetype, *linetype);
        in.color = header->color;
        in.paper = paper;
        in.polyOpen = true;
        break;
    case ksEntVertex:
        if (in.polyOpen)
            takeSaved();
        break;
    case ksEntInsert:
        in.insertOpen = true;
        in.insertPaper = paper;
        break;
    case ksEntSeqend:
        if (in.polyOpen) {
            takeSaved();
            in.polyOpen = false;
        } else if (in.insertOpen) {
            header->flags = static_cast<int8_t>((header->flags & ~ksEntityPaperSpace) | in.insertPaper);
            in.insertOpen = false;
        }
        break;
    default:
        break;
    }
}

void missingReference()
{
    if (ksG->errorHandler != nullptr)
        ksG->errorHandler(6);
}

}  // namespace

// ---------------------------------------------------------------------------
// The entity step

void ksEntityRefsClear(ksEntityRefs* refs)
{
    *refs = ksEntityRefs{};
    refs->linetypeIndex = 32767;
    refs->dimStyleIndex = -1;
}

int16_t ksLoadEntity(ksFcb* fcb, ksLoc modelList, ksLoc paperList, uint8_t makeHandles, uint8_t inBlock,
                     ksEntityHeader* header, void* body, const ksEntityRefs* refs)
{
    ksEntityRefs none;
    if (refs == nullptr) {
        ksEntityRefsClear(&none);
        refs = &none;
    }
    ksLoadState* st = stateOf(fcb);
    if (st == nullptr) {
        ksAllocFailed(289);
        return refuse(fcb, header, body, 289);
    }
    const int16_t version = fcb->fileVersion;
    const bool dxf = fcb->isDxf != 0;
    const bool oldDwg = !dxf && version < ksAC1012;
    auto* b = static_cast<ksEntityBody*>(body);

    if (inBlock)
        header->flags = static_cast<int8_t>(header->flags & ~ksEntityPaperSpace);
    // Old viewports keep their view in extended data: one without it is broken.
    if (version <= ksAC1014 && header->type == ksEntViewport && (header->flags & ksEntityPaperSpace) &&
        !refs->hasExtended)
        return refuse(fcb, header, body, 287);
    if (makeHandles || (dxf && ksHandleIsNull(header->handle)))
        ksHandleNext(fcb, &header->handle);
    if (!dxf && version == ksAC1012 && fcb->classNumbers.zombieEntityClass != 0 &&
        header->type == fcb->classNumbers.zombieEntityClass)
        header->type = ksEntProxy;
    const int16_t type = header->type;

    // Layer and linetype.
    if (oldDwg) {
        byIndex(fcb, st, kLayer, refs->layerIndex, &header->layerHandle);
        if (refs->linetypeIndex == 32767)
            header->linetypeHandle = fcb->byLayerHandle;
        else if (refs->linetypeIndex == 32766)
            header->linetypeHandle = fcb->byBlockHandle;
        else
            byIndex(fcb, st, kLinetype, refs->linetypeIndex, &header->linetypeHandle);
    } else if (dxf) {
        const char* layer = nameOr(refs->layerName, "");
        const char* linetype = nameOr(refs->linetypeName, "");
        inheritDxf(st->inherit, header, &layer, &linetype);
        // A layer is made under its name as a record holds it, and searched so.
        char cut[ksTableNameSize];
        if (strnlen(layer, ksTableNameSize) == ksTableNameSize) {
            copyName(cut, layer);
            layer = cut;
        }
        if (!byName(fcb, st, kLayer, layer, &header->layerHandle)) {
            ksLayer record;
            ksLayerDefaults(fcb, &record);
            copyName(record.name, layer);
            ksHandleNext(fcb, &record.entryHandle);
            if (!ksLayerAdd(fcb, &record))
                return refuse(fcb, header, body, 289);
            header->layerHandle = record.entryHandle;
            noteAdded(fcb, st, kLayer, record.name, record.entryHandle);
        }
        if (!byName(fcb, st, kLinetype, linetype, &header->linetypeHandle))
            header->linetypeHandle = fcb->byLayerHandle;
    }

    // References of the body.
    if (type == ksEntShape) {
        if (dxf) {
            if (!shapeByName(fcb, nameOr(refs->shapeName, ""), &b->shape.styleHandle, &b->shape.shapeNumber))
                b->shape.shapeNumber = 255;
        } else if (oldDwg) {
            byIndex(fcb, st, kStyle, refs->styleIndex, &b->shape.styleHandle);
        }
    } else if (ksObjHandle* style = styleFieldOf(fcb, type, body)) {
        bool byText = dxf || (refs->styleName != nullptr && ksClassEntityFormOf(fcb, type) == ksCeArcAlignedText);
        if ((oldDwg && !byIndex(fcb, st, kStyle, refs->styleIndex, style)) ||
            (byText && !byName(fcb, st, kStyle, nameOr(refs->styleName, ""), style)))
            *style = ksTableFirstHandle(fcb, ksListShapeFiles);
    }
    if (type == ksEntInsert || type == ksEntDimension) {
        ksObjHandle* block = type == ksEntInsert ? &b->insert.blockHandle : &b->dimension.blockHandle;
        if (oldDwg)
            byIndex(fcb, st, kBlock, refs->blockIndex, block);
        else if (dxf && !byName(fcb, st, kBlock, nameOr(refs->blockName, ""), block))
            missingReference();
    }
    if (type == ksEntDimension) {
        ksObjHandle* dimStyle = &b->dimension.dimstyleHandle;
        if (oldDwg) {
            byIndex(fcb, st, kDimStyle, refs->dimStyleIndex, dimStyle);
        } else if (dxf) {
            const char* name = nameOr(refs->dimStyleName, "");
            if (*name == '\0' || ksStrCompare(name, "*UNNAMED") == 0)
                *dimStyle = ksObjHandle{};
            else if (!byName(fcb, st, kDimStyle, name, dimStyle))
                missingReference();
        }
    } else if (dxf && (type == ksEntLeader || type == ksEntTolerance)) {
        ksObjHandle* dimStyle = type == ksEntLeader ? &b->leader.dimstyleHandle : &b->tolerance.dimstyleHandle;
        byName(fcb, st, kDimStyle, nameOr(refs->dimStyleName, ""), dimStyle);
    } else if (dxf && type == ksEntMline) {
        ksObjHandle found;
        if (byName(fcb, st, kMlineStyle, nameOr(refs->mlineStyleName, ""), &found))
            b->mline.styleHandle = found;
    }

    if (refs->hasExtended) {
        ksLoc eed = 0;
        if (!ksXdataResolve(fcb, &eed))
            return refuse(fcb, header, body, 288);
        if (header->eed != 0)
            ksBlobFree(header->eed);
        header->eed = eed;
    }
    if (ksG->entityNotice != nullptr)
        ksG->entityNotice(header, body);

    const ksLoc list = (header->flags & ksEntityPaperSpace) ? paperList : modelList;
    Gather& g = st->poly;
    if (g.collecting) {
        if (type == ksEntVertex) {
            if (!gatherVertex(g, *header, b->vertex)) {
                gatherDrop(fcb, g);
                return refuse(fcb, header, body, 289);
            }
            return type;
        }
        if (type == ksEntSeqend) {
            // Extended data of a SEQEND that would be dropped keeps the records.
            if (header->eed != 0)
                g.abort = true;
            if (!gatherWrite(g, *header, body)) {
                gatherDrop(fcb, g);
                return refuse(fcb, header, body, 289);
            }
            return gatherFinish(fcb, g) ? type : 0;
        }
        // Anything else ends a POLYLINE whose SEQEND didn't come.
        g.abort = true;
        if (!gatherFinish(fcb, g))
            return refuse(fcb, header, body, ksErrorNumber());
    }
    if (ksG->convertPolylines && type == ksEntPolyline && (b->polyline.flags & 94) == 0 &&
        gatherStart(g, list, *header, b->polyline))
        return type;
    if (!store(fcb, list, *header, body, refs->filePosition)) {
        if (ksErrorNumber() != 291)  // else the store holds the record
            refuse(fcb, header, body, ksErrorNumber());
        return 0;
    }
    return type;
}

int16_t ksLoadEntityFinish(ksFcb* fcb)
{
    ksLoadState* st = fcb->loadState;
    if (st == nullptr || !st->poly.collecting)
        return 1;
    st->poly.abort = true;
    return gatherFinish(fcb, st->poly) ? 1 : 0;
}

void ksLoadEntityCacheFree(ksFcb* fcb)
{
    ksLoadState* st = fcb ? fcb->loadState : nullptr;
    if (st == nullptr)
        return;
    if (st->poly.collecting)
        gatherDrop(fcb, st->poly);
    for (PlaceTable& p : st->places)
        ksMemFree(p.handles);
    indexFree(st->names);
    ksMemFree(st);
    fcb->loadState = nullptr;
}

// ---------------------------------------------------------------------------
// Default objects

namespace {


ksLoc entriesBlob(const ksDictionaryEntry* entries, int count)
{
    if (count == 0)
        return 0;
    ksLoc blob = ksBlobNew();
    ksBlobCursor* out = ksBlobOpenWrite(blob);
    bool ok = out != nullptr;
    for (int i = 0; ok && i < count; ++i)
        ok = ksDictionaryEntryWrite(out, entries[i]);
    ok = ksBlobCloseWrite(out) && ok;
    if (!ok) {
        ksBlobFree(blob);
        return 0;
    }
    return blob;
}

ksDictionaryEntry entry(const char* name, const ksObjHandle& handle)
{
    ksDictionaryEntry e{};
    std::snprintf(e.name, sizeof e.name, "%s", name);
    e.handle = handle;
    return e;
}

// Adds an object; on a refusal its blobs go again.
bool addObject(ksFcb* fcb, ksObjectHeader* head, ksObjectBody* body)
{
    if (ksObjectAdd(fcb, head, body))
        return true;
    int16_t error = ksErrorNumber();
    ksObjectFreeBlobs(fcb, head, body);
    ksSetError(error);
    return false;
}

bool addDictionary(ksFcb* fcb, const ksObjHandle& handle, const ksObjHandle* owner, const ksDictionaryEntry* entries,
                   int count, int16_t cloning)
{
    ksObjectHeader head{};
    ksObjectBody body;
    head.kind = ksKindDictionary;
    ksObjectDefaults(fcb, &head, &body);
    head.handle = handle;
    if (owner && !ksObjectSetOwner(&head, *owner))
        return false;
    body.dictionary.cloning = cloning;
    body.dictionary.entryCount = count;
    if (count != 0 && (body.dictionary.entries = entriesBlob(entries, count)) == 0) {
        ksObjectFreeBlobs(fcb, &head, &body);
        return false;
    }
    return addObject(fcb, &head, &body);
}

}  // namespace

int16_t ksAddDefaultObjects(ksFcb* fcb, const ksObjHandle* handles)
{
    auto take = [&](int slot) { return ksHandleFixedOrNext(fcb, handles, slot); };
    const ksObjHandle named = take(24);
    const ksObjHandle groups = take(25);
    const ksObjHandle mlineStyles = take(26);
    const ksDictionaryEntry top[2] = {entry("ACAD_GROUP", groups), entry("ACAD_MLINESTYLE", mlineStyles)};
    if (!addDictionary(fcb, named, nullptr, top, 2, 1) || !addDictionary(fcb, groups, &named, nullptr, 0, 0))
        return 0;
    const ksObjHandle standard = take(27);
    const ksDictionaryEntry styles[1] = {entry("Standard", standard)};
    if (!addDictionary(fcb, mlineStyles, &named, styles, 1, 0))
        return 0;

    ksObjectHeader head{};
    ksObjectBody body;
    head.kind = ksKindMlineStyle;
    ksObjectDefaults(fcb, &head, &body);
    head.handle = standard;
    std::snprintf(body.mlineStyle.name, sizeof body.mlineStyle.name, "Standard");
    if (!ksObjectSetOwner(&head, mlineStyles))
        return 0;
    body.mlineStyle.elementCount = 2;
    body.mlineStyle.elements = ksBlobNew();
    ksBlobCursor* out = ksBlobOpenWrite(body.mlineStyle.elements);
    bool ok = out && ksMlineElementWrite(out, ksMlineElement{256, ksMlineByLayer, 0.5}) &&
              ksMlineElementWrite(out, ksMlineElement{256, ksMlineByLayer, -0.5});
    ok = ksBlobCloseWrite(out) && ok;
    if (!ok) {
        ksObjectFreeBlobs(fcb, &head, &body);
        return 0;
    }
    if (!addObject(fcb, &head, &body))
        return 0;
    if (fcb->header != nullptr)
        fcb->header->CMLSTYLE = standard;
    ksSetError(0);
    return 1;
}

// ---------------------------------------------------------------------------
// Viewports of old files

namespace {

// Working items: far too large for the stack.
ksXdataItem xitem;

// Moves the view settings of one VIEWPORT out of its extended data. 1 done
// (the record rewritten), 0 the data is broken (the record as it was), -1
// the record can't be written back.
int upgradeViewport(ksFcb* fcb, ksLoc list, const ksObjHandle& acad, ksEntityHeader& header, ksEntityBody& body)
{
    ksBlobCursor* in = ksBlobOpenRead(header.eed);
    ksLoc rest = ksBlobNew();
    ksBlobCursor* out = ksBlobOpenWrite(rest);
    ksLoc frozen = 0;
    ksBlobCursor* frozenOut = nullptr;
    int32_t frozenCount = 0;
    ksViewportBody v = body.viewport;
    bool ok = in != nullptr && out != nullptr;

    // Everything ahead of the application's data stays.
    bool atAcad = false;
    while (ok && ksXdataRead(in, &xitem)) {
        if (xitem.code == 1001 && !ksHandleIsNull(acad) &&
            std::memcmp(xitem.value, acad.bytes, sizeof acad.bytes) == 0) {
            atAcad = true;
            break;
        }
        ok = ksXdataWrite(out, &xitem);
    }
    bool atView = false;
    while (ok && atAcad && ksXdataRead(in, &xitem)) {
        if (xitem.code == 1010) {
            atView = true;
            break;
        }
    }
    ok = ok && atView;

    // Each value in turn; the first 1010 is in hand already.
    bool first = true;
    auto next = [&](int16_t code) {
        if (!ok)
            return false;
        ok = (first || ksXdataRead(in, &xitem)) && xitem.code == code;
        first = false;
        return ok;
    };
    auto real = [&](double& to) {
        if (next(1040))
            to = ksXdataGet<double>(xitem);
    };
    auto flag = [&](int32_t bit) {
        if (next(1070) && ksXdataGet<int16_t>(xitem) != 0)
            v.statusFlags |= bit;
    };
    if (next(1010))
        v.target = ksXdataGet<ksPoint3>(xitem);
    if (next(1010)) {
        v.direction = ksXdataGet<ksPoint3>(xitem);
        for (double* c : {&v.direction.x, &v.direction.y, &v.direction.z})
            if (std::fabs(*c) < 1e-13)
                *c = 0.0;
    }
    real(v.twist);
    real(v.viewHeight);
    real(v.viewCenter.x);
    real(v.viewCenter.y);
    real(v.lensLength);
    real(v.frontClip);
    real(v.backClip);
    if (next(1070))
        v.statusFlags = ksXdataGet<int16_t>(xitem);
    if (next(1070))
        v.circleZoom = ksXdataGet<int16_t>(xitem);
    for (int32_t bit : {128, 32, 256, 512, 1024})
        flag(bit);
    if (next(1070)) {
        int16_t isoPair = ksXdataGet<int16_t>(xitem);
        v.statusFlags |= isoPair == 1 ? 4096 : isoPair == 2 ? 8192 : 0;
    }
    real(v.snapAngle);
    real(v.snapBase.x);
    real(v.snapBase.y);
    real(v.snapSpacing.x);
    real(v.snapSpacing.y);
    real(v.gridSpacing.x);
    real(v.gridSpacing.y);
    flag(2048);

    // The frozen layers stand between two pairs of items that are dropped
    // (the brackets of the list): up to two before the first 1003 and up
    // to two brackets behind the last.
    auto peek = [&](auto wanted) {
        uint32_t at = ksBlobTell(in);
        if (!ksXdataRead(in, &xitem))
            return false;
        if (wanted(xitem.code))
            return true;
        ksBlobSeek(in, at);
        return false;
    };
    int dropped = 0;
    while (ok && dropped < 2 && peek([](int16_t code) { return code != 1003; }))
        ++dropped;
    while (ok && peek([](int16_t code) { return code == 1003; })) {
        if (frozenOut == nullptr) {
            frozen = ksBlobNew();
            frozenOut = ksBlobOpenWrite(frozen);
            ok = frozenOut != nullptr;
        }
        ksObjHandle layer;
        std::memcpy(layer.bytes, xitem.value, sizeof layer.bytes);
        ok = ok && ksBlobWriteHandle(frozenOut, layer);
        ++frozenCount;
    }
    dropped = 0;
    while (ok && dropped < 2 && peek([](int16_t code) { return code == 1002; }))
        ++dropped;
    while (ok && ksXdataRead(in, &xitem))
        ok = ksXdataWrite(out, &xitem);

    if (frozenOut != nullptr)
        ok = ksBlobCloseWrite(frozenOut) && ok;
    ok = ksBlobCloseWrite(out) && ok;
    ksBlobCloseRead(in);
    if (!ok) {
        ksBlobFree(frozen);
        ksBlobFree(rest);
        return 0;
    }
    if (frozen != 0) {
        v.frozenLayers = frozen;
        v.frozenLayerCount = frozenCount;
    }
    if (ksBlobSize(rest) == 0) {
        ksBlobFree(rest);
        rest = 0;
    }
    // The store frees the blobs the record no longer names.
    ksEntityHeader h = header;
    h.eed = rest;
    ksEntityBody b = body;
    b.viewport = v;
    if (!ksEntityReplace(fcb, list, header.handle, &h, &b)) {
        if (ksErrorNumber() != 229) {  // else the record is in, with them
            ksBlobFree(frozen);
            ksBlobFree(rest);
        }
        return -1;
    }
    return 1;
}

}  // namespace

int16_t ksUpgradeViewports(ksFcb* fcb)
{
    ksObjHandle acad{};
    ksAppidFind(fcb, "ACAD", &acad);
    // The entity lists of all blocks, the two spaces among them.
    ksLoc lists[2] = {fcb->modelEntities, fcb->paperEntities};
    bool broken = false;
    auto walk = [&](ksLoc list) {
        ksEntityHeader header;
        ksEntityBody body;
        ksLoc node = ksListFirst(list);
        while (node != 0) {
            ksLoc next = 0;
            if (!ksEntityUnpack(fcb, node, &header, &body, nullptr, &next))
                return true;
            if (header.type == ksEntViewport && header.eed != 0) {
                int done = upgradeViewport(fcb, list, acad, header, body);
                if (done < 0)
                    return false;
                broken = broken || done == 0;
            }
            node = next;
        }
        return true;
    };
    for (ksLoc node = ksListFirst(fcb->blockHeaders); node != 0; node = ksListNodeNext(node)) {
        ksLoc list;
        std::memcpy(&list, static_cast<const uint8_t*>(ksRecordOf(node)) + offsetof(ksBlockHeader, entities),
                    sizeof list);
        for (ksLoc& space : lists)
            if (space == list)
                space = 0;
        if (list != 0 && !walk(list))
            return 0;
    }
    for (ksLoc space : lists)
        if (space != 0 && !walk(space))
            return 0;
    if (broken)
        return 0;
    ksSetError(0);
    return 1;
}
