#include "store/tablelist.h"

#include <cstring>

#include "frame/globals.h"
#include "store/blob.h"
#include "store/btree.h"
#include "store/entitylist.h"
#include "store/handles.h"
#include "store/list.h"
#include "store/record.h"

#define KS_TABLE_ROW(member, Record, preview, empty, missing, xdata, del, freeing, alloc)                   \
    {&ksFcb::member,                                                                                    \
     sizeof(Record),                                                                                    \
     offsetof(Record, name),                                                                            \
     offsetof(Record, entryHandle),                                                                     \
     offsetof(Record, eed),                                                                             \
     offsetof(Record, reactors),                                                                        \
     preview,                                                                                           \
     empty,                                                                                             \
     missing,                                                                                           \
     xdata,                                                                                             \
     del,                                                                                               \
     freeing,                                                                                           \
     alloc}

const ksTableListInfo ksTableLists[ksTableListCount] = {
    KS_TABLE_ROW(layers, ksLayer, ksNoField, 90, 91, 103, 104, 105, 223),
    KS_TABLE_ROW(linetypes, ksLinetype, ksNoField, 76, 77, 106, 107, 108, 220),
    KS_TABLE_ROW(ucses, ksUcs, ksNoField, 88, 89, 121, 122, 123, 223),
    KS_TABLE_ROW(views, ksView, ksNoField, 84, 85, 112, 113, 114, 223),
    KS_TABLE_ROW(vports, ksVport, ksNoField, 86, 87, 115, 116, 117, 223),
    KS_TABLE_ROW(dimStyles, ksDimstyle, ksNoField, 82, 83, 118, 119, 120, 223),
    KS_TABLE_ROW(regApps, ksAppid, ksNoField, 78, 79, 100, 101, 102, 223),
    KS_TABLE_ROW(blockHeaders, ksBlockHeader, offsetof(ksBlockHeader, previewData), 92, 93, 124, 126, 127, 221),
    KS_TABLE_ROW(shapeFiles, ksStyle, ksNoField, 80, 81, 109, 110, 111, 223),
};
#undef KS_TABLE_ROW

namespace {

inline const ksTableListInfo& info(ksTableList table) { return ksTableLists[table]; }
inline ksLoc listOf(const ksFcb* fcb, ksTableList table) { return fcb->*info(table).list; }
inline const uint8_t* bytesOf(ksLoc node) { return static_cast<const uint8_t*>(ksRecordOf(node)); }

ksObjHandle handleIn(const void* record, const ksTableListInfo& t)
{
    ksObjHandle h;
    std::memcpy(&h, static_cast<const uint8_t*>(record) + t.handleOffset, sizeof h);
    return h;
}

ksLoc locIn(const void* record, uint16_t offset)
{
    ksLoc loc = 0;
    if (offset != ksNoField)
        std::memcpy(&loc, static_cast<const uint8_t*>(record) + offset, sizeof loc);
    return loc;
}

const char* nameIn(const void* record, const ksTableListInfo& t)
{
    return reinterpret_cast<const char*>(static_cast<const uint8_t*>(record) + t.nameOffset);
}

// Frees the blobs a record owns; false when one of them won't go.
bool freeBlobs(const void* record, const ksTableListInfo& t)
{
    bool ok = true;
    for (uint16_t offset : {t.eedOffset, t.reactorsOffset, t.previewOffset}) {
        ksLoc blob = locIn(record, offset);
        if (blob != 0 && !ksBlobFree(blob))
            ok = false;
    }
    return ok;
}

bool isNamed(const void* record, const ksTableListInfo& t, const char* name)
{
    return ksStrCompare(nameIn(record, t), name) == 0;
}

// First node of the list whose record has one of the two names.
ksLoc firstNamed(ksLoc list, const ksTableListInfo& t, const char* a, const char* b)
{
    for (ksLoc node = ksListFirst(list); node != 0; node = ksListNodeNext(node)) {
        const uint8_t* record = bytesOf(node);
        if (isNamed(record, t, a) || (b && isNamed(record, t, b)))
            return node;
    }
    return 0;
}

// The first of the records with one of the two names that stand together
// at the list's end (the two special linetypes, the two spaces); 0 when
// the last record is none of them. Adds keep them there, so the walk is
// short however long the list.
ksLoc firstOfTail(ksLoc list, const ksTableListInfo& t, const char* a, const char* b)
{
    ksLoc first = 0;
    for (ksLoc node = ksListLast(list); node != 0; node = ksListNodePrev(node)) {
        const uint8_t* record = bytesOf(node);
        if (!isNamed(record, t, a) && !isNamed(record, t, b))
            break;
        first = node;
    }
    return first;
}

}  // namespace

void ksTableRewind(ksFcb* fcb, ksTableList table) { ksListRewind(listOf(fcb, table)); }

int16_t ksTableNext(ksFcb* fcb, ksTableList table, void* record)
{
    ksLoc list = listOf(fcb, table);
    ksLoc node = ksListCurrent(list);
    if (node == 0)
        return 0;
    std::memcpy(record, bytesOf(node), info(table).recordSize);
    ksListNext(list);
    return 1;
}

uint32_t ksTableCount(const ksFcb* fcb, ksTableList table) { return ksListCount(listOf(fcb, table)); }

int16_t ksTableSeek(ksFcb* fcb, ksTableList table, const ksObjHandle& handle, void* record)
{
    ksLoc list = listOf(fcb, table);
    ksG->errorNumber = 303;
    ksLoc node = ksBtreeFind(fcb, handle);
    if (node == 0)
        return 0;
    ksG->errorNumber = 304;
    if (ksListSetCurrent(list, node) != 0)
        return 0;
    ksG->errorNumber = 305;
    if (!ksTableNext(fcb, table, record))
        return 0;
    ksG->errorNumber = 0;
    return 1;
}

int16_t ksTableFind(ksFcb* fcb, ksTableList table, const char* name, ksObjHandle* handleOut)
{
    const ksTableListInfo& t = info(table);
    ksLoc node = firstNamed(listOf(fcb, table), t, name, nullptr);
    *handleOut = node ? handleIn(bytesOf(node), t) : ksObjHandle{};
    return node != 0;
}

int16_t ksTableUpdate(ksFcb* fcb, ksTableList table, const void* record)
{
    const ksTableListInfo& t = info(table);
    ksLoc node = ksBtreeFind(fcb, handleIn(record, t));
    if (node == 0) {
        ksG->errorNumber = 303;
        return 0;
    }
    std::memcpy(ksRecordOf(node), record, t.recordSize);
    return 1;
}

int16_t ksTableAdd(ksFcb* fcb, ksTableList table, const void* record)
{
    const ksTableListInfo& t = info(table);
    ksLoc list = listOf(fcb, table);
    int16_t position = ksAtTail;
    ksLoc place = 0;
    if (table == ksListLinetypes && !isNamed(record, t, "BYBLOCK") && !isNamed(record, t, "BYLAYER")) {
        // BYBLOCK and BYLAYER stay at the end, so a walk meets the
        // drawing's own linetypes first.
        place = firstOfTail(list, t, "BYBLOCK", "BYLAYER");
    } else if (table == ksListBlockHeaders && !isNamed(record, t, "*MODEL_SPACE") &&
               !isNamed(record, t, "*PAPER_SPACE")) {
        // The two spaces stay the last two records.
        place = firstOfTail(list, t, "*MODEL_SPACE", "*PAPER_SPACE");
    }
    if (place != 0)
        position = ksBeforePlace;
    ksLoc node = ksRecordAdd(record, fcb, handleIn(record, t), t.recordSize, list, position, place, t.errAlloc);
    if (node == 0)
        return 0;
    if (table == ksListBlockHeaders) {
        // A block holds its entities in a list of its own.
        auto* block = static_cast<ksBlockHeader*>(ksRecordOf(node));
        if (block->entities == 0 && (block->entities = ksListNew()) == 0) {
            ksListRemove(list, node);
            ksBtreeDelete(fcb, handleIn(record, t));
            ksVmFree(node);
            return 0;
        }
    }
    return 1;
}

int16_t ksTableDelete(ksFcb* fcb, ksTableList table, const ksObjHandle& handle)
{
    const ksTableListInfo& t = info(table);
    ksLoc list = listOf(fcb, table);
    ksG->errorNumber = 0;
    ksListRewind(list);
    if (ksListFirst(list) == 0) {
        ksG->errorNumber = t.errEmpty;
        return 0;
    }
    ksLoc node = ksListFirst(list);
    while (node != 0 && ksHandleCompare(handleIn(bytesOf(node), t), handle) != 0)
        node = ksListNodeNext(node);
    if (node == 0) {
        ksG->errorNumber = t.errMissing;
        return 0;
    }
    if (!freeBlobs(bytesOf(node), t)) {
        ksG->errorNumber = t.errXdata;
        return 0;
    }
    // The rewind above left the cursor on the first record; never leave it
    // on a freed node.
    if (ksListCurrent(list) == node)
        ksListSetCurrent(list, ksListNodeNext(node));
    if (ksListRemove(list, node) != node) {
        ksG->errorNumber = t.errDelete;
        return 0;
    }
    if (!ksVmFree(node)) {
        ksG->errorNumber = t.errFree;
        return 0;
    }
    ksBtreeDelete(fcb, handle);
    return 1;
}

void ksTableClear(ksFcb* fcb, ksTableList table)
{
    const ksTableListInfo& t = info(table);
    ksLoc list = listOf(fcb, table);
    for (ksLoc node = ksListFirst(list); node != 0; node = ksListNodeNext(node)) {
        freeBlobs(bytesOf(node), t);
        if (table == ksListBlockHeaders) {
            ksLoc entities = static_cast<const ksBlockHeader*>(ksRecordOf(node))->entities;
            // The two spaces' lists are the drawing's own; it frees them.
            if (entities != fcb->modelEntities && entities != fcb->paperEntities)
                ksEntityListFree(fcb, entities);
        }
    }
    ksListClear(list);
}

ksObjHandle ksTableFirstHandle(const ksFcb* fcb, ksTableList table)
{
    ksLoc first = ksListFirst(listOf(fcb, table));
    return first ? handleIn(bytesOf(first), info(table)) : ksObjHandle{};
}

ksObjHandle ksFirstLinetypeHandle(const ksFcb* fcb) { return fcb ? ksTableFirstHandle(fcb, ksListLinetypes) : ksObjHandle{}; }
ksObjHandle ksFirstStyleHandle(const ksFcb* fcb) { return fcb ? ksTableFirstHandle(fcb, ksListShapeFiles) : ksObjHandle{}; }

void ksTablesFree(ksFcb* fcb)
{
    for (int table = 0; table < ksTableListCount; ++table)
        ksTableClear(fcb, static_cast<ksTableList>(table));
}

#define KS_TABLE_FAMILY(Name, Record, Table)                                                               \
    void ks##Name##Rewind(ksFcb* fcb) { ksTableRewind(fcb, Table); }                                       \
    int16_t ks##Name##Next(ksFcb* fcb, Record* record) { return ksTableNext(fcb, Table, record); }         \
    uint32_t ks##Name##Count(const ksFcb* fcb) { return ksTableCount(fcb, Table); }                        \
    int16_t ks##Name##Seek(ksFcb* fcb, const ksObjHandle& handle, Record* record)                          \
    {                                                                                                      \
        return ksTableSeek(fcb, Table, handle, record);                                                    \
    }                                                                                                      \
    int16_t ks##Name##Find(ksFcb* fcb, const char* name, ksObjHandle* handleOut)                           \
    {                                                                                                      \
        return ksTableFind(fcb, Table, name, handleOut);                                                   \
    }                                                                                                      \
    int16_t ks##Name##Update(ksFcb* fcb, const Record* record) { return ksTableUpdate(fcb, Table, record); } \
    int16_t ks##Name##Add(ksFcb* fcb, const Record* record) { return ksTableAdd(fcb, Table, record); }     \
    int16_t ks##Name##Delete(ksFcb* fcb, const ksObjHandle& handle) { return ksTableDelete(fcb, Table, handle); }

KS_TABLE_FAMILY(Layer, ksLayer, ksListLayers)
KS_TABLE_FAMILY(Linetype, ksLinetype, ksListLinetypes)
KS_TABLE_FAMILY(Ucs, ksUcs, ksListUcses)
KS_TABLE_FAMILY(View, ksView, ksListViews)
KS_TABLE_FAMILY(Vport, ksVport, ksListVports)
KS_TABLE_FAMILY(Dimstyle, ksDimstyle, ksListDimStyles)
KS_TABLE_FAMILY(Appid, ksAppid, ksListRegApps)
KS_TABLE_FAMILY(BlockHeader, ksBlockHeader, ksListBlockHeaders)
KS_TABLE_FAMILY(Style, ksStyle, ksListShapeFiles)
#undef KS_TABLE_FAMILY

namespace {

bool readLayer(ksFcb* fcb, const ksObjHandle& handle, ksLayer** layer)
{
    ksLoc node = ksBtreeFind(fcb, handle);
    if (node == 0 || ksListNodeOwner(node) != fcb->layers) {
        ksG->errorNumber = 303;
        return false;
    }
    *layer = static_cast<ksLayer*>(ksRecordOf(node));
    return true;
}

}  // namespace

int16_t ksLayerState(ksFcb* fcb, const ksObjHandle& handle, int16_t* on, int16_t* frozen, int16_t* frozenInNew,
                     int16_t* locked)
{
    ksLayer* layer;
    if (!readLayer(fcb, handle, &layer))
        return 0;
    *on = layer->color >= 0;
    *frozen = (layer->flags & 1) != 0;
    *frozenInNew = (layer->flags & 2) != 0;
    *locked = (layer->flags & 4) != 0;
    return 1;
}

int16_t ksLayerSetState(ksFcb* fcb, const ksObjHandle& handle, int16_t on, int16_t frozen, int16_t frozenInNew,
                        int16_t locked)
{
    ksLayer* layer;
    if (!readLayer(fcb, handle, &layer))
        return 0;
    int16_t magnitude = static_cast<int16_t>(layer->color < 0 ? -layer->color : layer->color);
    layer->color = static_cast<int16_t>(on ? magnitude : -magnitude);
    layer->flags = static_cast<int8_t>((layer->flags & ~7) | (frozen ? 1 : 0) | (frozenInNew ? 2 : 0) |
                                       (locked ? 4 : 0));
    return 1;
}
