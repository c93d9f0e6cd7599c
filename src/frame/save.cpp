// The save sequence: it checks that the target can hold the drawing, makes
// the scratch records and the target control block, runs the xref name
// pass and hands source and target to the writer of the file kind and
// release.
#include "frame/save.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "driver/hooks.h"
#include "dxfwrite/dxfwrite.h"
#include "dxfwrite/groups.h"
#include "frame/fcb.h"
#include "frame/globals.h"
#include "records/classent.h"
#include "records/entity.h"
#include "records/header.h"
#include "records/object.h"
#include "records/tables.h"
#include "store/blob.h"
#include "store/handles.h"
#include "store/tablelist.h"
#include "store/xdata.h"

namespace {

template <typename... T>
constexpr uint32_t largest()
{
    return std::max({static_cast<uint32_t>(sizeof(T))...});
}

}  // namespace

const uint32_t ksSaveScratchHeaderSize = largest<ksEntityHeader, ksObjectHeader>();
const uint32_t ksSaveScratchBodySize =
    largest<ksEntityBody, ksObjectBody, ksLwpolyline, ksHatch, ksImage, ksOle2Frame, ksRtext, ksArcAlignedText,
            ksProxyEntity>();
const uint32_t ksSaveScratchRecordSize =
    largest<ksLayer, ksLinetype, ksStyle, ksView, ksUcs, ksVport, ksAppid, ksDimstyle, ksBlockHeader>();
const uint32_t ksSaveScratchBlockSize = largest<ksXdataItem, ksBlockHeader>();

namespace {

// The writers of this build, one per file kind and release range. A row
// stays null until its writer exists; saves that need it are refused.
ksSaveWriters writers = {nullptr, nullptr, ksDxfSaveOld, ksDxfSaveR13};

constexpr int kScratchCount = 4;

// What one save hands its writer.
struct SaveCall {
    ksFcb* source;
    ksFcb* target;
    void* scratch[kScratchCount];  // header, body, record, block
    uint8_t extendedR12;
    int16_t negativeZero;
    int16_t precision;
    int16_t writeZeroZ;
};

using WriterCall = int16_t (*)(const SaveCall&);

int16_t callDwgOld(const SaveCall& c)
{
    return writers.dwgOld(c.source, c.target, c.scratch[0], c.scratch[1], c.scratch[2], c.scratch[3]);
}

int16_t callDwg13(const SaveCall& c)
{
    return writers.dwg13(c.source, c.target, c.scratch[0], c.scratch[1], c.scratch[2]);
}

int16_t callDxfOld(const SaveCall& c)
{
    return writers.dxfOld(c.source, c.target, c.extendedR12, c.scratch[0], c.scratch[1], c.scratch[2],
                          c.scratch[3], c.negativeZero, c.precision, c.writeZeroZ);
}

int16_t callDxfR13(const SaveCall& c)
{
    return writers.dxfR13(c.source, c.target, c.scratch[0], c.scratch[1], c.scratch[2], c.scratch[3],
                          c.negativeZero, c.precision, c.writeZeroZ);
}

// The writer of a file type and release; null for a type or release out of
// range and for a writer that isn't built.
WriterCall chooseWriter(int16_t fileType, int16_t version)
{
    if (fileType < 0 || fileType > 2 || version < 0 || version >= ksVersionCount)
        return nullptr;
    const bool r13 = version >= ksAC1012;
    if (fileType == 0)
        return r13 ? (writers.dwg13 ? callDwg13 : nullptr) : (writers.dwgOld ? callDwgOld : nullptr);
    return r13 ? (writers.dxfR13 ? callDxfR13 : nullptr) : (writers.dxfOld ? callDxfOld : nullptr);
}

// Allocation with the report of a failure (the number is already set).
void* allocate(uint32_t size)
{
    void* block = ksMemAlloc(size);
    if (block == nullptr)
        ksAllocFailed(static_cast<int16_t>(ksG->errorNumber));
    return block;
}

void freeScratch(void* (&scratch)[kScratchCount])
{
    for (int i = kScratchCount; i-- > 0;) {
        ksMemFree(scratch[i]);
        scratch[i] = nullptr;
    }
}

// Record sizes of the pre-R13 releases, by version: the two entity
// sections, four tables, four more. The old DWG writer lays out its
// records by them.
constexpr int16_t kOldRecordSizes[ksAC1012][10] = {
    {38, 38, 194, 188, 92, 0, 0, 0, 0, 0},
    {38, 38, 194, 188, 92, 0, 0, 0, 0, 0},
    {37, 37, 194, 187, 91, 0, 0, 0, 0, 0},
    {37, 37, 194, 187, 149, 105, 249, 0, 0, 0},
    {45, 41, 198, 191, 153, 109, 253, 37, 324, 43},
};
static_assert(sizeof kOldRecordSizes[0] == sizeof ksFcb::oldRecordSizes);

// A fresh target: a zeroed block with a header, the open output and a
// write block; none of the lists of a drawing. Null with 1, 3 or 12.
ksFcb* makeTarget(const char* path, int16_t fileType, int16_t version)
{
    ksG->errorNumber = 1;
    auto* target = static_cast<ksFcb*>(allocate(sizeof(ksFcb)));
    if (target == nullptr)
        return nullptr;
    std::memset(target, 0, sizeof *target);
    target->header = static_cast<ksHeader*>(allocate(sizeof(ksHeader)));
    if (target->header == nullptr) {
        ksMemFree(target);
        return nullptr;
    }
    ksG->errorNumber = 3;
    target->outputFile = ksFileOpen(path, "w+b");  // the hook gives it its stream buffer
    if (target->outputFile == nullptr) {
        ksFreeSaveTarget(target);
        return nullptr;
    }
    ksG->errorNumber = 12;
    const auto blockSize = static_cast<uint32_t>(std::max<int16_t>(ksG->writeBlockSize, 1));
    target->writeBlock = static_cast<uint8_t*>(allocate(blockSize));
    if (target->writeBlock == nullptr) {
        ksFreeSaveTarget(target);
        return nullptr;
    }
    ksG->errorNumber = 0;
    target->isDxf = fileType != 0;
    target->fileType = static_cast<uint8_t>(fileType);
    target->fileVersion = version;
    target->sourceVersion = ksVersionUnknown;
    target->outputVersion = version;
    const bool r12Indices = version > ksAC1006;
    target->byBlockIndex = r12Indices ? 32766 : 255;
    target->byLayerIndex = r12Indices ? 32767 : 256;
    return target;
}

// The release's values in the target: ACADVER and the old record sizes.
void setVersionData(ksFcb* target, int16_t version)
{
    target->outputVersion = version;
    std::snprintf(target->header->ACADVER, sizeof target->header->ACADVER, "%s", ksVersionNames[version]);
    if (version < ksAC1012)
        std::memcpy(target->oldRecordSizes, kOldRecordSizes[version], sizeof target->oldRecordSizes);
}

// ---------------------------------------------------------------------------
// The xref name pass. A symbol named "xref|name" whose prefix is a block of
// the drawing keeps room for the name part to be shortened on the way out:
// per block the least room any of its symbols leaves.

void putInt32(uint8_t* out, int32_t value)
{
    const auto v = static_cast<uint32_t>(value);
    for (int i = 0; i < 4; ++i)
        out[i] = static_cast<uint8_t>(v >> (8 * i));
}

int32_t getInt32(const uint8_t* in)
{
    uint32_t v = 0;
    for (int i = 0; i < 4; ++i)
        v |= static_cast<uint32_t>(in[i]) << (8 * i);
    return static_cast<int32_t>(v);
}

// 30 less the length of the part behind the bar, at least 4. A part that
// begins with a \M or \U escape counts in escapes of 7 bytes.
int32_t xrefNameRoom(const char* part)
{
    auto length = static_cast<int32_t>(std::strlen(part));
    if (part[0] == '\\' && part[1] != '\0' && std::strchr("MUmu", part[1]) != nullptr)
        length /= 7;
    return std::max(30 - length, 4);
}

// Finds the entry of a block: its position in the blob and its room.
// -1 with nothing found, -2 when the blob can't be read.
int64_t findXrefEntry(ksLoc blob, const ksObjHandle& block, int32_t* room)
{
    ksBlobCursor* cursor = ksBlobOpenRead(blob);
    if (cursor == nullptr)
        return -2;
    uint8_t entry[ksXrefNameEntrySize];
    int64_t found = -1;
    for (uint32_t position = 0; ksBlobRead(cursor, entry, ksXrefNameEntrySize); position += ksXrefNameEntrySize) {
        if (std::memcmp(entry, block.bytes, sizeof block.bytes) == 0) {
            *room = getInt32(entry + ksXrefNameRoomOffset);
            found = position;
            break;
        }
    }
    ksBlobCloseRead(cursor);
    return found;
}

bool appendXrefEntry(ksFcb* fcb, const ksObjHandle& block, const char* blockName, size_t nameLength,
                     int32_t room)
{
    uint8_t entry[ksXrefNameEntrySize] = {};
    std::memcpy(entry, block.bytes, sizeof block.bytes);
    std::memcpy(entry + sizeof block.bytes, blockName, nameLength);
    putInt32(entry + ksXrefNameRoomOffset, room);
    ksBlobCursor* cursor = ksBlobOpenAppend(fcb->xrefNames);
    if (cursor == nullptr)
        return false;
    const bool written = ksBlobWrite(cursor, entry, ksXrefNameEntrySize) != 0;
    if (!ksBlobCloseWrite(cursor) || !written)
        return false;
    ++fcb->xrefNameCount;
    return true;
}

// Notes one symbol name. False only when the blob fails.
bool noteXrefName(ksFcb* fcb, const char* name)
{
    const auto* end = static_cast<const char*>(std::memchr(name, '\0', ksTableNameSize));
    const size_t length = end ? static_cast<size_t>(end - name) : ksTableNameSize;
    const char* bar = static_cast<const char*>(std::memchr(name, '|', length));
    if (bar == nullptr)
        return true;
    char prefix[ksXrefNameSize] = {};
    const auto prefixLength = static_cast<size_t>(bar - name);
    std::memcpy(prefix, name, prefixLength);
    ksObjHandle block;
    if (!ksBlockHeaderFind(fcb, prefix, &block))
        return true;
    char part[ksTableNameSize + 1] = {};
    std::memcpy(part, bar + 1, length - prefixLength - 1);
    const int32_t room = xrefNameRoom(part);

    int32_t present = 0;
    const int64_t position = findXrefEntry(fcb->xrefNames, block, &present);
    if (position == -2)
        return false;
    if (position < 0)
        return appendXrefEntry(fcb, block, prefix, prefixLength, room);
    if (room >= present)
        return true;
    uint8_t bytes[4];
    putInt32(bytes, room);
    return ksBlobPatch(fcb->xrefNames, static_cast<uint32_t>(position) + ksXrefNameRoomOffset, bytes, 4) != 0;
}

template <typename Record>
bool noteTableNames(ksFcb* fcb, ksTableList table, void* buffer)
{
    auto* record = static_cast<Record*>(buffer);
    ksTableRewind(fcb, table);
    while (ksTableNext(fcb, table, record)) {
        if (record->deleted == 0 && !noteXrefName(fcb, record->name))
            return false;
    }
    return true;
}

// Rebuilds the source's xrefNames from its applications, layers and
// linetypes, in that order. `record` has room for any table record.
bool xrefNamePass(ksFcb* fcb, void* record)
{
    ksFreeXrefNames(fcb);
    fcb->xrefNames = ksBlobNew();
    if (fcb->xrefNames == 0)
        return false;
    return noteTableNames<ksAppid>(fcb, ksListRegApps, record) &&
           noteTableNames<ksLayer>(fcb, ksListLayers, record) &&
           noteTableNames<ksLinetype>(fcb, ksListLinetypes, record);
}

void reportProgress(int16_t percent)
{
    if (ksG->saveProgress)
        ksG->saveProgress(percent);
}

}  // namespace

ksSaveWriters ksGetSaveWriters() { return writers; }

ksSaveWriters ksSetSaveWriters(const ksSaveWriters& replacement)
{
    ksSaveWriters previous = writers;
    writers = replacement;
    return previous;
}

void ksFreeSaveTarget(ksFcb* target)
{
    if (target == nullptr)
        return;
    if (target->outputFile) {
        // The DXF writer's gathered groups go to the file before it closes.
        ksDxfCloseOutput(target);
        ksFileCloseOutput(target->outputFile);
    }
    ksMemFree(target->writeBlock);
    ksMemFree(target->header);
    ksMemFree(target);
}

int16_t ksSetDxfNumberFormats(int16_t negativeZero, int16_t precision, int16_t writeZeroZ)
{
    precision = std::clamp<int16_t>(precision, 0, ksDxfMaxPrecision);
    ksG->dxfNegativeZero = negativeZero;
    ksG->dxfWriteZeroZ = writeZeroZ;
    ksG->dxfPrecision = precision;
    const auto places = static_cast<uint8_t>(precision);  // two digits at most
    std::snprintf(ksG->dxfIntegerFormat, sizeof ksG->dxfIntegerFormat, "%%%dd", places);
    std::snprintf(ksG->dxfRealFormat, sizeof ksG->dxfRealFormat, "%%.%df", places);
    std::snprintf(ksG->dxfExpFormat, sizeof ksG->dxfExpFormat, "%%.%dlE", places);
    double scale = 1.0;
    for (int i = 0; i < precision; ++i)
        scale *= 10.0;
    ksG->dxfScale = scale;
    ksG->dxfHalfUnit = 0.5 / scale;
    return precision;
}

void ksFreeXrefNames(ksFcb* fcb)
{
    if (fcb == nullptr)
        return;
    ksBlobFree(fcb->xrefNames);
    fcb->xrefNames = 0;
    fcb->xrefNameCount = 0;
}

int16_t ksSaveDrawing(ksFcb* fcb, const char* path, int16_t fileType, int16_t version,
                      int16_t negativeZero, int16_t precision, int16_t writeZeroZ, int16_t extendedR12)
{
    ksG->errorNumber = 2;
    if (fcb == nullptr || fcb->header == nullptr || path == nullptr)
        return 0;

    // A loaded drawing (sourceVersion -1) goes to any release; one made in
    // memory for a release below R2000 can't be written as R2000.
    ksG->errorNumber = 306;
    if (fcb->sourceVersion != ksVersionUnknown && fcb->sourceVersion < ksAC1015 && version >= ksAC1015)
        return 0;

    // Without a writer nothing is touched: no file is made (an existing
    // one isn't truncated) and the source keeps its state.
    ksG->errorNumber = 21;
    const WriterCall writer = chooseWriter(fileType, version);
    if (writer == nullptr)
        return 0;

    reportProgress(0);

    SaveCall call{};
    const uint32_t scratchSizes[kScratchCount] = {ksSaveScratchHeaderSize, ksSaveScratchBodySize,
                                                  ksSaveScratchRecordSize, ksSaveScratchBlockSize};
    ksG->errorNumber = 57;
    for (int i = 0; i < kScratchCount; ++i) {
        call.scratch[i] = allocate(scratchSizes[i]);
        if (call.scratch[i] == nullptr) {
            freeScratch(call.scratch);
            return 0;
        }
    }

    if (version < ksAC1015 && !xrefNamePass(fcb, call.scratch[2])) {
        freeScratch(call.scratch);
        return 0;
    }

    ksG->errorNumber = 0;
    ksFcb* target = makeTarget(path, fileType, version);
    if (target == nullptr) {
        freeScratch(call.scratch);
        return 0;
    }
    *target->header = *fcb->header;
    setVersionData(target, version);
    // From here the writers and the record routines see the target's
    // release on both sides.
    fcb->fileVersion = version;
    target->header->HANDSEED = target->header->HANDLING ? fcb->nextHandle : ksG->firstHandle;

    call.source = fcb;
    call.target = target;
    call.extendedR12 = static_cast<uint8_t>(extendedR12);
    call.negativeZero = negativeZero;
    call.precision = precision;
    call.writeZeroZ = writeZeroZ;
    if (fileType != 0)
        call.precision = ksSetDxfNumberFormats(negativeZero, precision, writeZeroZ);

    const int16_t result = writer(call);

    freeScratch(call.scratch);
    reportProgress(100);
    // A writer that succeeded has closed the output and released the
    // target; after a failure the output is closed here, as far as it was
    // written, and the target goes with it.
    if (!result) {
        ksFreeSaveTarget(target);
        return 0;
    }
    ksG->errorNumber = 0;
    return 1;
}
