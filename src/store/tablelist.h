// The symbol table lists of a drawing: one list per table, whose nodes
// hold whole records of one size, with every record's handle in the index.
// The nine tables work alike, so one engine serves them all, driven by a
// row per table; the named functions (ksLayerNext, ksViewSeek, ...) are
// thin entries into it.
#pragma once

#include <cstddef>
#include <cstdint>

#include "frame/fcb.h"
#include "frame/kstypes.h"
#include "records/tables.h"
#include "store/vm.h"

enum ksTableList : int {
    ksListLayers,
    ksListLinetypes,
    ksListUcses,
    ksListViews,
    ksListVports,
    ksListDimStyles,
    ksListRegApps,
    ksListBlockHeaders,
    ksListShapeFiles,
    ksTableListCount
};

// What the engine needs to know of one table.
struct ksTableListInfo {
    ksLoc ksFcb::*list;
    uint32_t recordSize;
    uint16_t nameOffset;
    uint16_t handleOffset;    // entryHandle
    uint16_t eedOffset;
    uint16_t reactorsOffset;
    uint16_t previewOffset;   // block headers only; kNoField elsewhere
    int16_t errEmpty, errMissing, errXdata, errDelete, errFree;
    int16_t errAlloc;
};
inline constexpr uint16_t ksNoField = UINT16_MAX;
extern const ksTableListInfo ksTableLists[ksTableListCount];

// The engine. `record` is a record of the table's type.
void ksTableRewind(ksFcb* fcb, ksTableList table);
int16_t ksTableNext(ksFcb* fcb, ksTableList table, void* record);  // 0 at the end
uint32_t ksTableCount(const ksFcb* fcb, ksTableList table);
// By handle: 303 not in the index, 304 the node is not of this table, 305
// the record can't be read. Leaves the cursor behind the record.
int16_t ksTableSeek(ksFcb* fcb, ksTableList table, const ksObjHandle& handle, void* record);
// By name, ignoring case; the first match wins. The cursor stays where it
// stood. 1 with the record's handle, or 0 with the null handle.
int16_t ksTableFind(ksFcb* fcb, ksTableList table, const char* name, ksObjHandle* handleOut);
// Copies the record over the stored one of the same handle; 303 on a miss.
int16_t ksTableUpdate(ksFcb* fcb, ksTableList table, const void* record);
// At the tail (linetypes and block headers keep their special order).
int16_t ksTableAdd(ksFcb* fcb, ksTableList table, const void* record);
// Removes the record of that handle with its extended data.
int16_t ksTableDelete(ksFcb* fcb, ksTableList table, const ksObjHandle& handle);
// Frees every record's blobs and the records; the list stays, empty.
void ksTableClear(ksFcb* fcb, ksTableList table);

// The family of each table.
#define KS_TABLE_FAMILY(Name, Record)                                                         \
    void ks##Name##Rewind(ksFcb* fcb);                                                        \
    int16_t ks##Name##Next(ksFcb* fcb, Record* record);                                       \
    uint32_t ks##Name##Count(const ksFcb* fcb);                                               \
    int16_t ks##Name##Seek(ksFcb* fcb, const ksObjHandle& handle, Record* record);            \
    int16_t ks##Name##Find(ksFcb* fcb, const char* name, ksObjHandle* handleOut);             \
    int16_t ks##Name##Update(ksFcb* fcb, const Record* record);                               \
    int16_t ks##Name##Add(ksFcb* fcb, const Record* record);                                  \
    int16_t ks##Name##Delete(ksFcb* fcb, const ksObjHandle& handle);

KS_TABLE_FAMILY(Layer, ksLayer)
KS_TABLE_FAMILY(Linetype, ksLinetype)
KS_TABLE_FAMILY(Ucs, ksUcs)
KS_TABLE_FAMILY(View, ksView)
KS_TABLE_FAMILY(Vport, ksVport)
KS_TABLE_FAMILY(Dimstyle, ksDimstyle)
KS_TABLE_FAMILY(Appid, ksAppid)
KS_TABLE_FAMILY(BlockHeader, ksBlockHeader)
KS_TABLE_FAMILY(Style, ksStyle)
#undef KS_TABLE_FAMILY

// A layer's state: on is a colour of 0 or above; frozen, frozenInNew and
// locked are the flag bits 1, 2 and 4. The setter makes an off layer's
// colour negative, keeping its absolute value.
int16_t ksLayerState(ksFcb* fcb, const ksObjHandle& handle, int16_t* on, int16_t* frozen,
                     int16_t* frozenInNew, int16_t* locked);
int16_t ksLayerSetState(ksFcb* fcb, const ksObjHandle& handle, int16_t on, int16_t frozen,
                        int16_t frozenInNew, int16_t locked);

// Handle of the table's first record, or the null handle.
ksObjHandle ksTableFirstHandle(const ksFcb* fcb, ksTableList table);

// Frees every table of a drawing (records and their blobs).
void ksTablesFree(ksFcb* fcb);
