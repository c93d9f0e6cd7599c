// The phases of a load that resolve references and walk the entity
// lists: block headers, the main and block entities, the objects, the
// viewport entity headers and the header's references, with the steps
// behind them ($CMLSTYLE, the plot style dictionary, the block reference
// lists of external references).
#include "frame/loadphases.h"

#include <cstddef>
#include <cstdio>
#include <cstring>

#include "bridge/upgrade.h"
#include "driver/hooks.h"
#include "frame/fcb.h"
#include "frame/globals.h"
#include "frame/readerops.h"
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

namespace {

// A block header's node: the public record, and behind it what the reader
// gave with it. Only the nodes the load makes have the second part.
struct BlockNode {
    ksBlockHeader record;
    ksBlockWork work;
};
constexpr uint32_t kBlockNodeSize = sizeof(BlockNode);

// Working records of the entity and object loops: far too large for the
// stack, and the toolkit runs one load at a time.
ksEntityHeader entityHeader;
ksEntityBody entityBody;
ksObjectHeader objectHeader;
ksObjectBody objectBody;

bool named(const char* name, const char* what) { return ksStrCompare(name, what) == 0; }

template <size_t N>
void setText(char (&field)[N], const char* text)
{
    size_t n = strnlen(text, N - 1);
    std::memmove(field, text, n);
    field[n] = '\0';
}

bool sameHandle(const ksObjHandle& a, const ksObjHandle& b) { return ksHandleCompare(a, b) == 0; }

bool readBlockNode(ksLoc node, BlockNode* out)
{
    *out = BlockNode{};
    if (node == 0)
        return false;
    uint32_t size = ksVmBlockSize(node) >= ksListNodeHeaderSize + kBlockNodeSize ? kBlockNodeSize
                                                                                : sizeof(ksBlockHeader);
    std::memcpy(out, ksRecordOf(node), size);
    return true;
}

bool isSpace(const ksFcb* fcb, const ksBlockHeader& record)
{
    return record.entities != 0 && (record.entities == fcb->modelEntities || record.entities == fcb->paperEntities);
}

void dropBlockBlobs(ksBlockHeader& record)
{
    ksBlobFree(record.eed);
    ksBlobFree(record.reactors);
    ksBlobFree(record.previewData);
    record.eed = record.reactors = record.previewData = 0;
}

// Frees the entities of a list with their blobs and index entries; the
// list stays, empty.
void clearEntities(ksFcb* fcb, ksLoc list)
{
    for (ksLoc node = ksListFirst(list); node != 0; node = ksListNodeNext(node)) {
        if (ksEntityUnpack(fcb, node, &entityHeader, &entityBody, nullptr, nullptr)) {
            ksEntityFreeBlobs(fcb, entityHeader, &entityBody);
            ksBtreeDelete(fcb, entityHeader.handle);
        }
    }
    ksListClear(list);
}

void clearViewportRefs(ksFcb* fcb)
{
    ksListClear(fcb->vpEntList);
    fcb->paperViewportNode = 0;
}

// ---- Names of the block headers, for the BLOCK_RECORD pass of R13+ DXF.

uint32_t hashName(const char* name)
{
    uint32_t h = 2166136261u;
    for (const unsigned char* p = reinterpret_cast<const unsigned char*>(name); *p; ++p) {
        unsigned char c = (*p >= 'a' && *p <= 'z') ? static_cast<unsigned char>(*p - 'a' + 'A') : *p;
        h = (h ^ c) * 16777619u;
    }
    return h;
}

// Open addressing over the nodes of blockHeaders; the first node of a
// name wins, as a search from the head would find it.
struct NameIndex {
    ksLoc* slots = nullptr;
    uint32_t mask = 0;

    bool build(ksLoc list)
    {
        uint32_t size = 16;
        while (size < 2 * ksListCount(list) + 2)
            size *= 2;
        slots = static_cast<ksLoc*>(ksMemAlloc(size * sizeof(ksLoc)));
        if (slots == nullptr)
            return false;
        std::memset(slots, 0, size * sizeof(ksLoc));
        mask = size - 1;
        for (ksLoc node = ksListFirst(list); node != 0; node = ksListNodeNext(node)) {
            const char* name = static_cast<const ksBlockHeader*>(ksRecordOf(node))->name;
            uint32_t at = hashName(name) & mask;
            while (slots[at] != 0 && !named(static_cast<const ksBlockHeader*>(ksRecordOf(slots[at]))->name, name))
                at = (at + 1) & mask;
            if (slots[at] == 0)
                slots[at] = node;
        }
        return true;
    }
    ksLoc find(const char* name) const
    {
        for (uint32_t at = hashName(name) & mask; slots[at] != 0; at = (at + 1) & mask)
            if (named(static_cast<const ksBlockHeader*>(ksRecordOf(slots[at]))->name, name))
                return slots[at];
        return 0;
    }
    ~NameIndex() { ksMemFree(slots); }
};

// ---- Block headers

// What the load notes of a space while it reads the block headers.
// One of the two spaces while the block headers load: the record the file
// gave for it, when it gave one, with its blobs and extended data.
struct Space {
    ksBlockHeader record{};
    bool fromFile = false;
    ksBlockWork work{};

    Space() { ksBlockHeaderDefaults(&record); }
    ~Space() { dropBlockBlobs(record); }
    Space(const Space&) = delete;
    Space& operator=(const Space&) = delete;
};

// Adds one space's record at the tail of blockHeaders, with a new list
// that becomes the drawing's list of that space. The record passes to the
// list with its blobs.
bool addSpace(ksFcb* fcb, Space& space, ksObjHandle* handle, ksLoc* entities, int32_t* position)
{
    if (ksHandleIsNull(*handle))
        ksHandleNext(fcb, handle);
    BlockNode node{};
    node.record = space.record;
    node.record.deleted = 0;
    node.record.entryHandle = *handle;
    node.work = space.work;
    *position = space.work.filePosition;
    if ((node.record.entities = ksListNew()) == 0)
        return false;
    if (ksRecordAdd(&node, fcb, *handle, kBlockNodeSize, fcb->blockHeaders, ksAtTail, 0) == 0) {
        ksListFree(node.record.entities);
        return false;
    }
    // The list owns the blobs now.
    space.record.eed = space.record.reactors = space.record.previewData = 0;
    *entities = node.record.entities;
    return true;
}

// An external reference of a drawing below R14: its extension dictionary
// and ID buffer are made at the end of the load (ksMakeBlockRefObjects);
// here they get their handles and the block joins pendingRefs1.
bool noteExternalReference(ksFcb* fcb, ksBlockHeader& record)
{
    if (fcb->pendingRefs1 == 0 && (fcb->pendingRefs1 = ksListNew()) == 0)
        return false;
    if (fcb->pendingRefs2 == 0 && (fcb->pendingRefs2 = ksListNew()) == 0)
        return false;
    ksObjHandle triple[3];
    ksHandleNext(fcb, &record.xdictHandle);
    triple[0] = record.entryHandle;
    triple[1] = record.xdictHandle;
    ksHandleNext(fcb, &triple[2]);
    return ksRecordCopy(triple, sizeof triple, fcb->pendingRefs1, ksAtTail, 0) != 0;
}

// A block other than the two spaces, at the tail of blockHeaders.
bool addBlock(ksFcb* fcb, BlockNode& node, int16_t hasExtended)
{
    ksBlockHeader& record = node.record;
    if (fcb->fileVersion < ksAC1012 || ksHandleIsNull(record.entryHandle))
        ksHandleNext(fcb, &record.entryHandle);
    if (hasExtended && !ksXdataResolve(fcb, &record.eed))
        return false;
    if (fcb->fileVersion < ksAC1014 && (record.flags & 4) && !noteExternalReference(fcb, record))
        return false;
    if ((record.entities = ksListNew()) == 0)
        return false;
    if (ksRecordAdd(&node, fcb, record.entryHandle, kBlockNodeSize, fcb->blockHeaders, ksAtTail, 0) == 0) {
        ksListFree(record.entities);
        record.entities = 0;
        return false;
    }
    return true;
}

// Steps 5 and 8 for R13+ DXF: the BLOCK_RECORD entries, read through slot
// 5 to the end (the reader then starts them over). A failed read counts as
// the end: the text reader has no other way to say it.
template <typename Visit>
void eachBlockRecord(ksFcb* fcb, Visit visit)
{
    ksBlockHeader entry;
    for (;;) {
        ksBlockHeaderDefaults(&entry);
        if (!ksOpReadBlockRecord(fcb, &entry))
            return;
        visit(entry);
        dropBlockBlobs(entry);
    }
}

// Step 8: a block header takes the handles of its BLOCK_RECORD entry; its
// index entry moves along.
bool takeBlockRecords(ksFcb* fcb)
{
    NameIndex index;
    if (!index.build(fcb->blockHeaders))
        return false;
    bool ok = true;
    eachBlockRecord(fcb, [&](ksBlockHeader& entry) {
        ksLoc node = index.find(entry.name);
        if (node == 0 || !ok)
            return;
        ksBlockHeader record;
        std::memcpy(&record, ksRecordOf(node), sizeof record);
        const ksObjHandle old = record.entryHandle;
        const bool moves = !ksHandleIsNull(entry.entryHandle) && !sameHandle(old, entry.entryHandle);
        if (moves) {
            ksBtreeDelete(fcb, old);
            if (ksBtreeAdd(fcb, entry.entryHandle, node) != ksBtDone) {
                ksBtreeAdd(fcb, old, node);
                ok = false;
                return;
            }
            record.entryHandle = entry.entryHandle;
            if (sameHandle(fcb->modelBlockHandle, old))
                fcb->modelBlockHandle = record.entryHandle;
            else if (sameHandle(fcb->paperBlockHandle, old))
                fcb->paperBlockHandle = record.entryHandle;
        }
        record.ownerHandle = entry.ownerHandle;
        record.layoutHandle = entry.layoutHandle;
        if (entry.previewData != 0) {
            ksBlobFree(record.previewData);
            record.previewData = entry.previewData;
            entry.previewData = 0;
        }
        if (fcb->fileVersion >= ksAC1014)
            record.xdictHandle = entry.xdictHandle;
        std::memcpy(ksRecordOf(node), &record, sizeof record);
    });
    return ok;
}

// ---- Entities

// Progress of the main list: the file percentage in steps of 5.
struct Progress {
    long size = 0;
    int percent = 0;

    void check(ksFcb* fcb)
    {
        if (size <= 0 || ksG->loadProgress == nullptr)
            return;
        int p;
        if (fcb->readProgress != nullptr) {
            // A reader that doesn't read its file in order tells how far
            // along its lists it is.
            p = fcb->readProgress(fcb);
        } else {
            long at = ksFileTell(fcb->file);
            p = at <= 0 ? 0 : static_cast<int>(static_cast<long long>(at) * 100 / size);
        }
        p = p / 5 * 5;
        if (p > 100)
            p = 100;
        if (p != percent) {
            percent = p;
            ksG->loadProgress(static_cast<int16_t>(46 + p / 4));
        }
    }
};

// Reads one entity into the working records; false at the end.
bool readEntity(ksFcb* fcb, int16_t* hasExtended)
{
    std::memset(&entityHeader, 0, sizeof entityHeader);
    std::memset(&entityBody, 0, sizeof entityBody);
    ksEntityRefsClear(&ksG->entityRefs);
    *hasExtended = 0;
    return ksOpReadEntity(fcb, &entityHeader, &entityBody, hasExtended) != 0;
}

// ---- Viewport entity headers

// The vpEntList entry that a header names, searched from `from` round the
// list; 0 for none.
ksLoc matchViewport(ksFcb* fcb, const ksVpEntHeader& header, ksLoc from)
{
    const bool old = fcb->fileVersion < ksAC1012;
    int32_t position = header.viewportPosition;
    if (old && (static_cast<uint32_t>(position) & 0x80000000u))
        position = static_cast<int32_t>(static_cast<uint32_t>(position) & 0x7fffffffu) + fcb->blockEntitiesStart;
    const uint32_t count = ksListCount(fcb->vpEntList);
    ksLoc node = from ? from : ksListFirst(fcb->vpEntList);
    for (uint32_t i = 0; i < count && node != 0; ++i) {
        const auto* ref = static_cast<const ksVpEntRef*>(ksRecordOf(node));
        if (old ? ref->filePosition == position : sameHandle(ref->handle, header.viewportHandle))
            return node;
        node = ksListNodeNext(node);
        if (node == 0)
            node = ksListFirst(fcb->vpEntList);
    }
    return 0;
}

// Copies a header's settings into its VIEWPORT, whose node is packed anew:
// the name is kept to its end mark and may grow.
bool rewriteViewport(ksFcb* fcb, ksLoc refNode, const ksVpEntHeader& header, int16_t place)
{
    auto* ref = static_cast<ksVpEntRef*>(ksRecordOf(refNode));
    ksLoc node = ref->location;
    ksLoc list = ksListNodeOwner(node);
    std::memset(&entityBody, 0, sizeof entityBody);
    if (!ksEntityUnpack(fcb, node, &entityHeader, &entityBody, nullptr, nullptr) ||
        entityHeader.type != ksEntViewport)
        return false;
    ksViewportBody& vp = entityBody.viewport;
    vp.active = header.active;
    // Headers from R13 on carry no status of their own: the VIEWPORT's
    // stays.
    if (fcb->fileVersion < ksAC1012) {
        vp.status = header.status;
        vp.statusFlags = header.statusFlags;
    }
    setText(vp.name, header.name);
    if (fcb->fileVersion >= ksAC1012)
        vp.viewportId = place;
    ksLoc fresh = ksEntityPack(fcb, list, &entityHeader, &entityBody, ksBeforePlace, node);
    if (fresh == 0)
        return false;
    if (ksListCurrent(list) == node)
        ksListSetCurrent(list, fresh);
    ksListRemove(list, node);
    ksVmFree(node);
    ksBtreeDelete(fcb, entityHeader.handle);
    ksBtreeAdd(fcb, entityHeader.handle, fresh);
    static_cast<ksVpEntRef*>(ksRecordOf(refNode))->location = fresh;
    return true;
}

// ---- Header

// The handle of the record at `index` of a table (from 0); null past the
// end and for a negative index.
ksObjHandle recordAt(const ksFcb* fcb, ksTableList table, int32_t index)
{
    if (index < 0)
        return ksObjHandle{};
    const ksTableListInfo& t = ksTableLists[table];
    ksLoc node = ksListFirst(fcb->*t.list);
    for (int32_t i = 0; i < index && node != 0; ++i)
        node = ksListNodeNext(node);
    ksObjHandle h{};
    if (node != 0)
        std::memcpy(&h, static_cast<const uint8_t*>(ksRecordOf(node)) + t.handleOffset, sizeof h);
    return h;
}

ksObjHandle recordNamed(ksFcb* fcb, ksTableList table, const char* name)
{
    ksObjHandle h{};
    ksTableFind(fcb, table, name, &h);
    return h;
}

const char* headerName(const char* variable)
{
    const ksHeaderNameVar* v = ksHeaderNameFind(variable);
    return ksG->headerNames[v->buffer];
}

int16_t resolveOldDwgHeader(ksFcb* fcb, ksHeader& h)
{
    const ksHeaderIndices& ix = ksG->headerIndices;
    h.CLAYER = recordAt(fcb, ksListLayers, ix.layer);
    if (ix.linetype == 32767)
        h.CELTYPE = fcb->byLayerHandle;
    else if (ix.linetype == 32766)
        h.CELTYPE = fcb->byBlockHandle;
    else
        h.CELTYPE = recordAt(fcb, ksListLinetypes, ix.linetype);
    h.DIMSTYLE = recordAt(fcb, ksListDimStyles, ix.dimStyle);
    h.UCSNAME = recordAt(fcb, ksListUcses, ix.ucs);
    h.PUCSNAME = recordAt(fcb, ksListUcses, ix.paperUcs);
    h.TEXTSTYLE = recordAt(fcb, ksListShapeFiles, ix.textStyle);
    h.DIMTXSTY = recordAt(fcb, ksListShapeFiles, ix.dimTextStyle);
    return 1;
}

int16_t resolveDxfHeader(ksFcb* fcb, ksHeader& h)
{
    const char* layer = headerName("CLAYER");
    if (!ksLayerFind(fcb, layer, &h.CLAYER)) {
        // A layer the header names and no table holds is made, whatever
        // its name, even an empty one.
        ksLayer record;
        ksLayerDefaults(fcb, &record);
        setText(record.name, layer);
        ksHandleNext(fcb, &record.entryHandle);
        if (!ksLayerAdd(fcb, &record))
            return 0;
        h.CLAYER = record.entryHandle;
    }
    if (!ksLinetypeFind(fcb, headerName("CELTYPE"), &h.CELTYPE))
        h.CELTYPE = fcb->byBlockHandle;
    const char* dimstyle = headerName("DIMSTYLE");
    h.DIMSTYLE = (*dimstyle == '\0' || named(dimstyle, "*UNNAMED")) ? ksObjHandle{}
                                                                   : recordNamed(fcb, ksListDimStyles, dimstyle);
    for (auto [variable, field] : {std::pair{"UCSNAME", &ksHeader::UCSNAME}, std::pair{"PUCSNAME", &ksHeader::PUCSNAME}}) {
        const char* name = headerName(variable);
        h.*field = *name == '\0' ? ksObjHandle{} : recordNamed(fcb, ksListUcses, name);
    }
    h.TEXTSTYLE = recordNamed(fcb, ksListShapeFiles, headerName("TEXTSTYLE"));
    const char* dimText = headerName("DIMTXSTY");
    h.DIMTXSTY = recordNamed(fcb, ksListShapeFiles, *dimText == '\0' ? "Standard" : dimText);
    return 1;
}

// The arrow blocks are kept by name: "_NAME" is preferred to "NAME".
void resolveArrowBlocks(ksFcb* fcb, ksHeader& h)
{
    struct Arrow {
        char (ksHeader::*name)[512];
        ksObjHandle ksHeader::*handle;
    } arrows[] = {
        {&ksHeader::DIMBLK, &ksHeader::dimblkHandle},
        {&ksHeader::DIMBLK1, &ksHeader::dimblk1Handle},
        {&ksHeader::DIMBLK2, &ksHeader::dimblk2Handle},
        {&ksHeader::DIMLDRBLK, &ksHeader::dimldrblkHandle},
    };
    char underscored[sizeof h.DIMBLK + 1];
    for (const Arrow& a : arrows) {
        const char* name = h.*a.name;
        ksObjHandle& out = h.*a.handle;
        out = ksObjHandle{};
        if (*name == '\0')
            continue;
        std::snprintf(underscored, sizeof underscored, "_%s", name);
        if (!ksBlockHeaderFind(fcb, underscored, &out))
            ksBlockHeaderFind(fcb, name, &out);
    }
}

// ---- Objects

// A blob of one handle.
ksLoc handleBlob(const ksObjHandle& handle)
{
    ksLoc blob = ksBlobNew();
    ksBlobCursor* out = ksBlobOpenWrite(blob);
    bool ok = out && ksBlobWriteHandle(out, handle);
    ok = ksBlobCloseWrite(out) && ok;
    if (!ok) {
        ksBlobFree(blob);
        return 0;
    }
    return blob;
}

// Adds an object; on a refusal its blobs go again.
bool addObject(ksFcb* fcb, ksObjectHeader* head, ksObjectBody* body)
{
    if (ksObjectAdd(fcb, head, body))
        return true;
    ksObjectFreeBlobs(fcb, head, body);
    return false;
}

// The dictionary with the one entry ACAD_BLKREFS and the ID buffer it
// names, for one external reference.
bool addBlockRefObjects(ksFcb* fcb, const ksObjHandle (&triple)[3])
{
    ksObjectHeader head{};
    head.kind = ksKindDictionary;
    ksObjectDefaults(fcb, &head, &objectBody);
    head.handle = triple[1];
    head.owner = triple[0];
    objectBody.dictionary.cloning = 1;
    objectBody.dictionary.entryCount = 1;
    ksDictionaryEntry entry{};
    setText(entry.name, "ACAD_BLKREFS");
    entry.handle = triple[2];
    objectBody.dictionary.entries = ksBlobNew();
    ksBlobCursor* out = ksBlobOpenWrite(objectBody.dictionary.entries);
    bool ok = out && ksDictionaryEntryWrite(out, entry);
    ok = ksBlobCloseWrite(out) && ok;
    if (!ok) {
        ksObjectFreeBlobs(fcb, &head, &objectBody);
        return false;
    }
    if (!addObject(fcb, &head, &objectBody))
        return false;

    head = ksObjectHeader{};
    head.kind = fcb->classNumbers.idBuffer;
    ksObjectDefaults(fcb, &head, &objectBody);
    head.handle = triple[2];
    head.owner = triple[1];
    head.reactors = handleBlob(triple[1]);
    head.reactorCount = head.reactors ? 1 : 0;
    objectBody.idBuffer.handleCount = 0;
    objectBody.idBuffer.handles = 0;
    if (head.kind == 0 || head.reactors == 0 || !addObject(fcb, &head, &objectBody)) {
        ksBlobFree(head.reactors);
        ksObjectDelete(fcb, triple[1]);
        return false;
    }
    return true;
}

// Appends an INSERT to the ID buffer of its block: the block's extension
// dictionary names it.
bool appendInsert(ksFcb* fcb, const ksObjHandle& insert, const ksObjHandle& block)
{
    ksLoc node = ksBtreeFind(fcb, block);
    if (node == 0 || ksListNodeOwner(node) != fcb->blockHeaders)
        return false;
    ksObjHandle dictionary = static_cast<const ksBlockHeader*>(ksRecordOf(node))->xdictHandle;
    if (ksHandleIsNull(dictionary) || !ksObjectSeek(fcb, dictionary, &objectHeader, &objectBody) ||
        ksObjectFormOf(fcb, objectHeader.kind) != ksFormDictionary)
        return false;
    ksObjHandle idBuffer{};
    ksDictionaryEntry entry;
    ksBlobCursor* in = ksBlobOpenRead(objectBody.dictionary.entries);
    while (in && ksDictionaryEntryRead(in, &entry)) {
        if (named(entry.name, "ACAD_BLKREFS")) {
            idBuffer = entry.handle;
            break;
        }
    }
    ksBlobCloseRead(in);
    if (ksHandleIsNull(idBuffer) || !ksObjectSeek(fcb, idBuffer, &objectHeader, &objectBody) ||
        ksObjectFormOf(fcb, objectHeader.kind) != ksFormIdBuffer)
        return false;
    ksIdBuffer& ids = objectBody.idBuffer;
    const bool fresh = ids.handles == 0;
    if (fresh && (ids.handles = ksBlobNew()) == 0)
        return false;
    ksBlobCursor* out = fresh ? ksBlobOpenWrite(ids.handles) : ksBlobOpenAppend(ids.handles);
    bool ok = out && ksBlobWriteHandle(out, insert);
    ok = ksBlobCloseWrite(out) && ok;
    if (!ok) {
        if (fresh)
            ksBlobFree(ids.handles);
        return false;
    }
    ++ids.handleCount;
    return ksObjectReplace(fcb, &objectHeader, &objectBody) != 0;
}

}  // namespace

// ---------------------------------------------------------------------------
// Block headers

int16_t ksLoadBlockHeaders(ksFcb* fcb)
{
    const int32_t phaseError = ksG->errorNumber;
    const int16_t version = fcb->fileVersion;
    const bool dxf = fcb->isDxf != 0;
    const bool newDwg = !dxf && version >= ksAC1012;
    Space model, paper;
    setText(model.record.name, "*Model_Space");
    setText(paper.record.name, "*Paper_Space");
    // DWG from R13 on names the two spaces by handle in its header; the
    // others find them among the blocks. The handle is what tells paper
    // space from the blocks of further layouts, which R13 and R14 files
    // written by programs that know layouts name "*PAPER_SPACE" as well.
    if (!newDwg)
        fcb->modelBlockHandle = fcb->paperBlockHandle = ksObjHandle{};
    fcb->modelBlockPosition = fcb->paperBlockPosition = 0;
    if (!ksOpStartBlockHeaders(fcb))
        return 0;

    BlockNode node;
    for (int32_t i = 0; i < fcb->tableCount[ksHeadBlocks]; ++i) {
        node = BlockNode{};
        ksBlockHeaderDefaults(&node.record);
        ksG->blockWork = ksBlockWork{};
        int16_t hasExtended = 0;
        ksG->errorNumber = phaseError;
        if (!ksOpReadBlockHeader(fcb, &node.record, &hasExtended)) {
            dropBlockBlobs(node.record);
            return 0;
        }
        node.work = ksG->blockWork;
        ksBlockHeader& record = node.record;
        const bool byHandle = newDwg && !ksHandleIsNull(record.entryHandle);
        Space* space = nullptr;
        if (named(record.name, "*MODEL_SPACE") || (byHandle && sameHandle(record.entryHandle, fcb->modelBlockHandle)))
            space = &model;
        else if (!newDwg ? named(record.name, "*PAPER_SPACE")
                         : byHandle && sameHandle(record.entryHandle, fcb->paperBlockHandle))
            space = &paper;
        if (space != nullptr) {
            // The first record of a space is kept whole; a second one of
            // the same name is dropped.
            if (!space->fromFile) {
                if (hasExtended && !ksXdataResolve(fcb, &record.eed)) {
                    dropBlockBlobs(record);
                    return 0;
                }
                space->record = record;
                space->fromFile = true;
            } else {
                dropBlockBlobs(record);
            }
            space->work = node.work;
            if (newDwg && !ksHandleIsNull(record.entryHandle))
                (space == &model ? fcb->modelBlockHandle : fcb->paperBlockHandle) = record.entryHandle;
            continue;
        }
        if (!addBlock(fcb, node, hasExtended)) {
            dropBlockBlobs(record);
            return 0;
        }
    }
    ksG->errorNumber = phaseError;

    if (version < ksAC1012) {
        for (ksObjHandle* h : {&fcb->modelBlockHandle, &fcb->paperBlockHandle, &fcb->blockControlHandle,
                               &fcb->modelBlockBegin, &fcb->modelBlockEnd, &fcb->paperBlockBegin, &fcb->paperBlockEnd})
            ksHandleNext(fcb, h);
    } else if (dxf) {
        eachBlockRecord(fcb, [fcb](const ksBlockHeader& entry) {
            if (named(entry.name, "*MODEL_SPACE"))
                fcb->modelBlockHandle = entry.entryHandle;
            else if (named(entry.name, "*PAPER_SPACE"))
                fcb->paperBlockHandle = entry.entryHandle;
        });
    }
    ksG->errorNumber = phaseError;
    if (!addSpace(fcb, model, &fcb->modelBlockHandle, &fcb->modelEntities, &fcb->modelBlockPosition) ||
        !addSpace(fcb, paper, &fcb->paperBlockHandle, &fcb->paperEntities, &fcb->paperBlockPosition))
        return 0;
    ksG->errorNumber = phaseError;
    if (dxf && version >= ksAC1012 && !takeBlockRecords(fcb))
        return 0;
    ksG->errorNumber = phaseError;
    return 1;
}

// ---------------------------------------------------------------------------
// Entities

int16_t ksLoadEntities(ksFcb* fcb, ksLoc modelList, ksLoc paperList, uint8_t makeHandles, uint8_t inBlock)
{
    const int32_t phaseError = ksG->errorNumber;
    int32_t failure = 0;
    int count = 10;
    Progress progress;
    if (!inBlock && ksG->loadProgress != nullptr && fcb->file != nullptr)
        progress.size = ksFileSize(fcb->file);
    for (;;) {
        ksG->errorNumber = phaseError;
        int16_t hasExtended = 0;
        fcb->failureNumber = 0;
        if (!readEntity(fcb, &hasExtended)) {
            // The end of the list, unless the reader failed or said more.
            if (fcb->failureNumber != 0)
                failure = fcb->failureNumber > 0 ? fcb->failureNumber : phaseError;
            else if (ksG->errorNumber != phaseError && ksG->errorNumber != 0)
                failure = ksG->errorNumber;
            break;
        }
        ksEntityRefs refs = ksG->entityRefs;
        refs.hasExtended = hasExtended;
        int16_t type = ksLoadEntity(fcb, modelList, paperList, makeHandles, inBlock, &entityHeader, &entityBody, &refs);
        if (type == 0) {
            failure = ksG->errorNumber != 0 ? ksG->errorNumber : 289;
            break;
        }
        if (--count == 0) {
            count = 10;
            if (!inBlock)
                progress.check(fcb);
        }
        if (inBlock && type == ksEntEndblk)
            break;
        if (!ksG->loadContinue)
            break;
    }
    if (failure == 0) {
        ksG->errorNumber = phaseError;
        if (!ksLoadEntityFinish(fcb))
            failure = ksG->errorNumber != 0 ? ksG->errorNumber : 289;
    }
    if (failure != 0) {
        clearEntities(fcb, modelList);
        if (paperList != modelList)
            clearEntities(fcb, paperList);
        if (paperList == fcb->paperEntities)
            clearViewportRefs(fcb);
        ksG->errorNumber = failure;
        return 0;
    }
    ksG->errorNumber = phaseError;
    return 1;
}

int16_t ksLoadMainEntities(ksFcb* fcb)
{
    if (!ksOpStartEntities(fcb))
        return 0;
    return ksLoadEntities(fcb, fcb->modelEntities, fcb->paperEntities, fcb->makeEntityHandles, 0);
}

int16_t ksLoadBlockEntities(ksFcb* fcb)
{
    const int32_t phaseError = ksG->errorNumber;
    const int16_t version = fcb->fileVersion;
    const bool dxf = fcb->isDxf != 0;
    const uint32_t total = ksListCount(fcb->blockHeaders);
    uint32_t k = 0;
    BlockNode node;
    // Block k of the total, counted from 0: the last block reports less
    // than the 96 of the next phase.
    for (ksLoc at = ksListFirst(fcb->blockHeaders); at != 0; at = ksListNodeNext(at), ++k) {
        if (ksG->loadProgress)
            ksG->loadProgress(static_cast<int16_t>(71 + 25 * k / total));
        readBlockNode(at, &node);
        const ksBlockHeader& record = node.record;
        if (version >= ksAC1012) {
            ksG->blockHandle = record.entryHandle;
            ksG->blockOwnerHandle = record.ownerHandle;
            ksG->blockXdictHandle = record.xdictHandle;
            setText(ksG->blockName, record.name);
        }
        ksG->errorNumber = phaseError;
        if (!isSpace(fcb, record)) {
            if (dxf || version < ksAC1012)
                fcb->entityFilePosition = node.work.filePosition;
            if (version >= ksAC1012)
                ksG->blockWork = node.work;
            if (record.deleted == 0) {
                if (!ksOpStartBlockEntities(fcb) ||
                    !ksLoadEntities(fcb, record.entities, record.entities, fcb->makeTableHandles, 1))
                    return 0;
                if (!ksG->loadContinue)
                    return 1;
            }
        } else if (dxf && version >= ksAC1012) {
            // The spaces' BLOCK and ENDBLK are not kept; their handles are.
            const bool isModel = record.entities == fcb->modelEntities;
            fcb->entityFilePosition = isModel ? fcb->modelBlockPosition : fcb->paperBlockPosition;
            if (!ksOpStartBlockEntities(fcb))
                return 0;
            ksObjHandle* ends[2] = {isModel ? &fcb->modelBlockBegin : &fcb->paperBlockBegin,
                                    isModel ? &fcb->modelBlockEnd : &fcb->paperBlockEnd};
            for (ksObjHandle* end : ends) {
                int16_t hasExtended = 0;
                if (!readEntity(fcb, &hasExtended))
                    break;
                *end = entityHeader.handle;
                ksEntityFreeBlobs(fcb, entityHeader, &entityBody);
            }
        }
    }
    ksG->errorNumber = phaseError;
    return 1;
}

// ---------------------------------------------------------------------------
// Objects

int16_t ksLoadObjects(ksFcb* fcb)
{
    if (fcb->fileVersion < ksAC1012)
        return 1;
    const int32_t phaseError = ksG->errorNumber;
    if (!ksOpStartObjects(fcb))
        return 0;
    for (;;) {
        ksG->errorNumber = phaseError;
        fcb->failureNumber = 0;
        int16_t kind = ksOpNextObjectType(fcb);
        if (kind == 0) {
            if (fcb->failureNumber != 0) {
                if (fcb->failureNumber > 0)
                    ksG->errorNumber = fcb->failureNumber;
                return 0;
            }
            break;
        }
        ksReadObjectOp read = ksOpReadObject;
        switch (kind) {
        case ksKindDictionary:
            read = ksOpReadDictionary;
            break;
        case ksKindGroup:
            read = ksOpReadGroup;
            break;
        case ksKindMlineStyle:
            read = ksOpReadMlineStyle;
            break;
        case ksKindPlotSettings:
            read = ksOpReadPlotSettings;
            break;
        default:
            break;
        }
        objectHeader = ksObjectHeader{};
        objectHeader.kind = kind;
        ksObjectDefaults(fcb, &objectHeader, &objectBody);
        int16_t hasExtended = 0;
        bool ok = read(fcb, &objectHeader, &objectBody, &hasExtended) != 0;
        if (ok && hasExtended) {
            ksLoc eed = 0;
            ok = ksXdataResolve(fcb, &eed) != 0;
            if (ok) {
                ksBlobFree(objectHeader.eed);
                objectHeader.eed = eed;
            }
        }
        if (ok && ksHandleIsNull(objectHeader.handle))
            ksHandleNext(fcb, &objectHeader.handle);
        if (!ok || !ksObjectAdd(fcb, &objectHeader, &objectBody)) {
            const int32_t error = ksG->errorNumber;
            ksObjectFreeBlobs(fcb, &objectHeader, &objectBody);
            ksG->errorNumber = error;
            return 0;
        }
    }
    ksG->errorNumber = phaseError;
    return 1;
}

// ---------------------------------------------------------------------------
// Viewport entity headers

int16_t ksLoadVpEntHeaders(ksFcb* fcb)
{
    const int32_t count = fcb->tableCount[ksHeadVpEntHeaders];
    if (fcb->isDxf || count <= 0)
        return 1;
    const int32_t phaseError = ksG->errorNumber;
    const bool old = fcb->fileVersion < ksAC1012;
    fcb->vpEntRefsSorted = 0;
    fcb->paperViewportNode = 0;
    if (!ksOpStartVpEntHeaders(fcb))
        return 0;
    ksVpEntHeader header{};
    if (!ksOpReadVpEntHeader(fcb, &header))
        return 0;
    ksLoc from = 0;
    ksLoc idOne = 0;
    for (int32_t i = 1; i < count; ++i) {
        header = ksVpEntHeader{};
        ksG->errorNumber = phaseError;
        if (!ksOpReadVpEntHeader(fcb, &header))
            return 0;
        if (header.deleted || (!old && ksHandleIsNull(header.viewportHandle)))
            continue;
        ksLoc ref = matchViewport(fcb, header, from);
        if (ref == 0) {
            if (old) {
                ksG->errorNumber = 302;
                return 0;
            }
            ref = ksListLast(fcb->vpEntList);
            if (ref == 0)
                continue;
        }
        if (!rewriteViewport(fcb, ref, header, static_cast<int16_t>(i)))
            return 0;
        fcb->vpEntRefsSorted = 1;
        if (!old && i == 1)
            idOne = ref;
        from = ksListNodeNext(ref);
    }
    if (fcb->vpEntRefsSorted && !old) {
        if (idOne == 0)
            return 0;
        if (idOne != ksListFirst(fcb->vpEntList)) {
            ksVpEntRef copy = *static_cast<const ksVpEntRef*>(ksRecordOf(idOne));
            ksListRemove(fcb->vpEntList, idOne);
            ksVmFree(idOne);
            if ((fcb->paperViewportNode = ksRecordCopy(&copy, sizeof copy, fcb->vpEntList, ksAtHead, 0)) == 0)
                return 0;
        }
    }
    ksG->errorNumber = phaseError;
    return 1;
}

// ---------------------------------------------------------------------------
// Header

void ksResetHeaderReferences()
{
    std::memset(ksG->headerNames, 0, sizeof ksG->headerNames);
    // What a DXF file without these variables means.
    for (auto [variable, value] : {std::pair{"CLAYER", "0"}, std::pair{"CELTYPE", "BYLAYER"},
                                   std::pair{"DIMSTYLE", "STANDARD"}, std::pair{"TEXTSTYLE", "STANDARD"},
                                   std::pair{"CMLSTYLE", "STANDARD"}})
        setText(ksG->headerNames[ksHeaderNameFind(variable)->buffer], value);
    ksG->headerIndices = ksHeaderIndices{0, 32767, -1, -1, -1, 0, 0};
    ksG->blockWork = ksBlockWork{};
    ksG->blockHandle = ksG->blockOwnerHandle = ksG->blockXdictHandle = ksObjHandle{};
    ksG->blockName[0] = '\0';
    ksEntityRefsClear(&ksG->entityRefs);
}

int16_t ksResolveHeader(ksFcb* fcb)
{
    ksHeader& h = *fcb->header;
    const int16_t version = fcb->fileVersion;
    if (fcb->isDxf) {
        if (!resolveDxfHeader(fcb, h))
            return 0;
    } else if (version < ksAC1012) {
        resolveOldDwgHeader(fcb, h);
    }
    if (fcb->isDxf || version == ksAC1012 || version == ksAC1014)
        resolveArrowBlocks(fcb, h);
    return 1;
}

int16_t ksResolveCmlStyle(ksFcb* fcb)
{
    const char* name = headerName("CMLSTYLE");
    ksObjectRewind(fcb);
    while (ksObjectNext(fcb, &objectHeader, &objectBody)) {
        if (objectHeader.kind == ksKindMlineStyle && named(objectBody.mlineStyle.name, name)) {
            fcb->header->CMLSTYLE = objectHeader.handle;
            return 1;
        }
    }
    objectHeader = ksObjectHeader{};
    objectHeader.kind = ksKindMlineStyle;
    ksObjectDefaults(fcb, &objectHeader, &objectBody);
    setText(objectBody.mlineStyle.name, name);
    ksHandleNext(fcb, &objectHeader.handle);
    if (!addObject(fcb, &objectHeader, &objectBody))
        return 0;
    fcb->header->CMLSTYLE = objectHeader.handle;
    return 1;
}

void ksFindPlotStyleDictionary(ksFcb* fcb)
{
    fcb->plotStyleDictionary = ksObjHandle{};
    ksObjectRewind(fcb);
    if (!ksObjectNext(fcb, &objectHeader, &objectBody) ||
        ksObjectFormOf(fcb, objectHeader.kind) != ksFormDictionary)
        return;
    ksDictionaryEntry entry;
    ksBlobCursor* in = ksBlobOpenRead(objectBody.dictionary.entries);
    while (in && ksDictionaryEntryRead(in, &entry)) {
        if (named(entry.name, "ACAD_PLOTSTYLENAME")) {
            fcb->plotStyleDictionary = entry.handle;
            fcb->defaultPlotStyleHandle = entry.handle;
            break;
        }
    }
    ksBlobCloseRead(in);
}

int16_t ksMakeBlockRefObjects(ksFcb* fcb)
{
    if (fcb->pendingRefs1 == 0)
        return 1;
    bool ok = true;
    ksObjHandle triple[3];
    for (ksLoc node = ksListFirst(fcb->pendingRefs1); node != 0; node = ksListNodeNext(node)) {
        std::memcpy(triple, ksRecordOf(node), sizeof triple);
        if (!addBlockRefObjects(fcb, triple))
            ok = false;
    }
    // One pass over the INSERTs: each finds its list through its block.
    ksObjHandle pair[2];
    for (ksLoc node = ksListFirst(fcb->pendingRefs2); node != 0; node = ksListNodeNext(node)) {
        std::memcpy(pair, ksRecordOf(node), sizeof pair);
        if (!appendInsert(fcb, pair[0], pair[1]))
            ok = false;
    }
    return ok ? 1 : 0;
}

// ---------------------------------------------------------------------------
// Undo

void ksUnloadBlockHeaders(ksFcb* fcb)
{
    ksTableClear(fcb, ksListBlockHeaders);
    ksEntityListFree(fcb, fcb->modelEntities);
    ksEntityListFree(fcb, fcb->paperEntities);
    fcb->modelEntities = fcb->paperEntities = 0;
    ksListFree(fcb->pendingRefs1);
    ksListFree(fcb->pendingRefs2);
    fcb->pendingRefs1 = fcb->pendingRefs2 = 0;
}

void ksUnloadMainEntities(ksFcb* fcb)
{
    ksLoadEntityCacheFree(fcb);
    clearEntities(fcb, fcb->modelEntities);
    clearEntities(fcb, fcb->paperEntities);
    clearViewportRefs(fcb);
}

void ksUnloadBlockEntities(ksFcb* fcb)
{
    ksLoadEntityCacheFree(fcb);
    for (ksLoc at = ksListFirst(fcb->blockHeaders); at != 0; at = ksListNodeNext(at)) {
        const auto* record = static_cast<const ksBlockHeader*>(ksRecordOf(at));
        if (!isSpace(fcb, *record))
            clearEntities(fcb, record->entities);
    }
}

void ksUnloadObjects(ksFcb* fcb) { ksObjectsFree(fcb); }
