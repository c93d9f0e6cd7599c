// The TABLES and BLOCKS sections. A table record goes out as a list of
// steps: each names a group, whose field, element and kind come from the
// record's rows in ksTableFieldTable, so that the reader and this writer
// share one description of every field; a step adds only what the rows
// don't say: the order, the releases that have the group, points, full
// precision and the conditions between groups.
#include <algorithm>
#include <charconv>
#include <cstring>
#include <span>

#include "dxfwrite/dxfwrite.h"
#include "dxfwrite/groups.h"
#include "frame/fcb.h"
#include "frame/globals.h"
#include "records/entity.h"
#include "records/tables.h"
#include "store/blob.h"
#include "store/handles.h"
#include "store/list.h"
#include "store/record.h"
#include "store/tablelist.h"

namespace {

// ---- Steps ------------------------------------------------------------------

enum StepHow : uint8_t {
    kValue,       // the row's field by its kind
    kPoint2,      // the rows of group, group + 10
    kPoint3,      // and group + 20
    kFullPoint3,  // the same at full precision
    kNameRef,     // the name of the record the handle names, shortened
    kPlotFlag,    // LAYER 290: 0 for the layer DefPoints
    kDashes,      // LTYPE: the dashes with their groups
};

enum StepWhen : uint8_t {
    kAlways,
    kWhenOne,      // the field of whenGroup is 1
    kWhenNonZero,  // the field of whenGroup is not 0
};

struct Step {
    int16_t group;
    StepHow how = kValue;
    int8_t from = 0;  // releases (ksVersion) that have the step
    int8_t to = 7;
    StepWhen when = kAlways;
    int16_t whenGroup = 0;
};

constexpr int8_t R12 = ksAC1009, R13 = ksAC1012, R2000 = ksAC1015;

constexpr Step kLayerSteps[] = {
    {2}, {70}, {62}, {6, kNameRef}, {290, kPlotFlag, R2000}, {370, kValue, R2000}, {390, kValue, R2000},
};

constexpr Step kStyleSteps[] = {{2}, {70}, {40}, {41}, {50}, {71}, {42}, {3}, {4}};

constexpr Step kLinetypeSteps[] = {{2}, {70}, {3}, {72}, {73}, {40}, {49, kDashes}};

constexpr Step kViewSteps[] = {
    {2},
    {70},
    {40},
    {10, kPoint2},
    {41},
    {11, kPoint3},
    {12, kPoint3, ksAC1006},
    {42, kValue, ksAC1006},
    {43, kValue, ksAC1006},
    {44, kValue, ksAC1006},
    {50, kValue, ksAC1006},
    {71, kValue, ksAC1006},
    {281, kValue, R2000},
    {72, kValue, R2000},
    {110, kFullPoint3, R2000},
    {111, kFullPoint3, R2000},
    {112, kFullPoint3, R2000},
    {79, kValue, R2000, 7, kWhenOne, 72},
    {146, kValue, R2000, 7, kWhenOne, 72},
    {345, kValue, R2000, 7, kWhenOne, 72},
    {346, kValue, R2000, 7, kWhenOne, 72},
};

constexpr Step kUcsSteps[] = {
    {2},
    {70},
    {10, kFullPoint3},
    {11, kFullPoint3},
    {12, kFullPoint3},
    {79, kValue, R2000},
    {146, kValue, R2000},
    {346, kValue, R2000, 7, kWhenNonZero, 79},
    {71, kValue, R2000, 7, kWhenNonZero, 71},
    {13, kFullPoint3, R2000, 7, kWhenNonZero, 71},
};

constexpr Step kVportSteps[] = {
    {2},
    {70},
    {10, kPoint2},
    {11, kPoint2},
    {12, kPoint2},
    {13, kPoint2},
    {14, kPoint2},
    {15, kPoint2},
    {16, kPoint3},
    {17, kPoint3},
    {40},
    {41},
    {42},
    {43},
    {44},
    {50},
    {51},
    {71},
    {72},
    {73},
    {74},
    {75},
    {76},
    {77},
    {78},
    {281, kValue, R2000},
    {65, kValue, R2000},
    {110, kFullPoint3, R2000},
    {111, kFullPoint3, R2000},
    {112, kFullPoint3, R2000},
    {345, kValue, R2000},
    {346, kValue, R2000},
    {79, kValue, R2000},
    {146, kValue, R2000},
};

constexpr Step kAppidSteps[] = {{2}, {70}};

// Before R2000 groups 5 to 7 name the arrow blocks, in the form the block
// table gives them.
constexpr Step kDimstyleSteps[] = {
    {2},
    {70},
    {3},
    {4},
    {5, kNameRef, 0, 6},
    {6, kNameRef, 0, 6},
    {7, kNameRef, 0, 6},
    {40},
    {41},
    {42},
    {43},
    {44},
    {45},
    {46},
    {47},
    {48},
    {71},
    {72},
    {73},
    {74},
    {75},
    {76},
    {77},
    {78},
    {79, kValue, R2000},
    {140},
    {141},
    {142},
    {143},
    {144},
    {145},
    {146},
    {147},
    {148, kValue, R2000},
    {170},
    {171},
    {172},
    {173},
    {174},
    {175},
    {176},
    {177},
    {178},
    {179, kValue, R2000},
    {270, kValue, R13, 6},
    {271, kValue, R13},
    {272, kValue, R13},
    {273, kValue, R13},
    {274, kValue, R13},
    {275, kValue, R13},
    {276, kValue, R2000},
    {277, kValue, R2000},
    {278, kValue, R2000},
    {279, kValue, R2000},
    {280, kValue, R13},
    {281, kValue, R13},
    {282, kValue, R13},
    {283, kValue, R13},
    {284, kValue, R13},
    {285, kValue, R13},
    {286, kValue, R13},
    {287, kValue, R13, 6},
    {288, kValue, R13},
    {340, kValue, R13},
    {341, kValue, R2000},
    {342, kValue, R2000},
    {343, kValue, R2000},
    {344, kValue, R2000},
    {371, kValue, R2000},
    {372, kValue, R2000},
};

constexpr Step kBlockRecordSteps[] = {{2}, {340, kValue, R2000}, {310, kValue, R2000}};

// ---- Tables -----------------------------------------------------------------------

// One table as the file has it.
struct TableOut {
    const char* name;  // of the table and of its records
    ksTableNumber number;
    ksTableList list;
    ksObjHandle ksFcb::*control;  // the table's own handle
    const char* word;             // of AcDb<word>TableRecord
    int16_t handleGroup;
    int8_t from;  // first release with the table
    uint16_t deletedOffset;
    std::span<const Step> steps;
    int16_t progressR13;  // after the table, by the writer
    int16_t progressOld;
};

const TableOut kTables[] = {
    {"VPORT", ksTableVport, ksListVports, &ksFcb::vportControlHandle, "Viewport", 5, ksAC1006,
     offsetof(ksVport, deleted), kVportSteps, 8, 5},
    {"LTYPE", ksTableLtype, ksListLinetypes, &ksFcb::linetypeControlHandle, "Linetype", 5, 0,
     offsetof(ksLinetype, deleted), kLinetypeSteps, 16, 10},
    {"LAYER", ksTableLayer, ksListLayers, &ksFcb::layerControlHandle, "Layer", 5, 0, offsetof(ksLayer, deleted),
     kLayerSteps, 20, 15},
    {"STYLE", ksTableStyle, ksListShapeFiles, &ksFcb::shapeFileControlHandle, "TextStyle", 5, 0,
     offsetof(ksStyle, deleted), kStyleSteps, 24, 20},
    {"VIEW", ksTableView, ksListViews, &ksFcb::viewControlHandle, "View", 5, 0, offsetof(ksView, deleted),
     kViewSteps, 28, 25},
    {"UCS", ksTableUcs, ksListUcses, &ksFcb::ucsControlHandle, "UCS", 5, ksAC1006, offsetof(ksUcs, deleted),
     kUcsSteps, 32, 30},
    {"APPID", ksTableAppid, ksListRegApps, &ksFcb::regAppControlHandle, "RegApp", 5, R12,
     offsetof(ksAppid, deleted), kAppidSteps, 36, 35},
    {"DIMSTYLE", ksTableDimstyle, ksListDimStyles, &ksFcb::dimStyleControlHandle, "DimStyle", 105, R12,
     offsetof(ksDimstyle, deleted), kDimstyleSteps, 40, 35},
    {"BLOCK_RECORD", ksTableBlockRecord, ksListBlockHeaders, &ksFcb::blockControlHandle, "Block", 5, R13,
     offsetof(ksBlockHeader, deleted), kBlockRecordSteps, 44, 35},
};

// Every record keeps its reactor count right before its reactor list.
template <typename R>
constexpr bool countBeforeReactors()
{
    return offsetof(R, reactorCount) + sizeof(int32_t) == offsetof(R, reactors);
}
static_assert(countBeforeReactors<ksLayer>() && countBeforeReactors<ksLinetype>() && countBeforeReactors<ksStyle>() &&
              countBeforeReactors<ksView>() && countBeforeReactors<ksUcs>() && countBeforeReactors<ksVport>() &&
              countBeforeReactors<ksAppid>() && countBeforeReactors<ksDimstyle>() &&
              countBeforeReactors<ksBlockHeader>());

// The list number of the table a name reference points into.
ksTableList listOfTable(int number)
{
    switch (number) {
        case ksTableLtype: return ksListLinetypes;
        case ksTableLayer: return ksListLayers;
        case ksTableStyle: return ksListShapeFiles;
        case ksTableView: return ksListViews;
        case ksTableVport: return ksListVports;
        case ksTableAppid: return ksListRegApps;
        case ksTableDimstyle: return ksListDimStyles;
        case ksTableUcs: return ksListUcses;
        default: return ksListBlockHeaders;
    }
}

void progress(int16_t percent)
{
    if (ksG->saveProgress)
        ksG->saveProgress(percent);
}

inline bool isBelowR13(const ksFcb* target) { return target->outputVersion < ksAC1012; }

// Records stand unaligned in the store: every field, and any record as a
// whole, is read by a copy.
template <typename T>
T valueAt(const void* address)
{
    T value;
    std::memcpy(&value, address, sizeof value);
    return value;
}

// ---- Values --------------------------------------------------------------------------

// Where a record's fields are read: the record, its table, the target's
// release and the record's place for the short-name rule.
struct RecordIn {
    const void* record;
    int table;
    int32_t index;
};

// The value of a group's field as an integer (conditions).
int32_t intOf(const RecordIn& in, int16_t group, int16_t version)
{
    const ksTableField* row = ksTableFieldFind(in.table, group, version);
    if (row == nullptr)
        return 0;
    const void* at = ksTableFieldAddress(const_cast<void*>(in.record), row, 0);
    switch (row->kind) {
        case ksTfByte: return valueAt<int8_t>(at);
        case ksTfShort: return valueAt<int16_t>(at);
        case ksTfLong: return valueAt<int32_t>(at);
        case ksTfReal: return valueAt<double>(at) != 0.0;
        default: return 0;
    }
}

// The name of the record a handle names, for a name reference: the two
// fixed linetypes by their handles, a null handle as an empty text.
const char* referencedName(ksFcb* source, const ksTableField* row, const ksObjHandle& handle, int32_t* index)
{
    *index = 0;
    if (ksHandleIsNull(handle))
        return "";
    if (row->index == ksTableLtype) {
        if (ksHandleCompare(handle, source->byBlockHandle) == 0)
            return "ByBlock";
        if (ksHandleCompare(handle, source->byLayerHandle) == 0) {
            *index = 1;
            return "ByLayer";
        }
    }
    const char* name = ksDxfTableName(source, listOfTable(row->index), handle, index);
    if (row->index == ksTableLtype)
        *index += 2;
    return name;
}

// One group from its row. `dash` picks the dash of a dash row.
int16_t writeRow(ksFcb* source, ksFcb* target, const RecordIn& in, const ksTableField* row, int dash, bool shorten)
{
    const void* at = ksTableFieldAddress(const_cast<void*>(in.record), row, dash);
    const int16_t g = row->group;
    switch (row->kind) {
        case ksTfByte:
            // Flags are bit sets of the byte; the other byte fields hold small numbers.
            return ksDxfWriteInt16(target, g,
                                   g == 70 ? static_cast<int16_t>(valueAt<uint8_t>(at)) : valueAt<int8_t>(at));
        case ksTfShort:
            return ksDxfWriteInt16(target, g, valueAt<int16_t>(at));
        case ksTfLong:
            return ksDxfWriteInt32(target, g, valueAt<int32_t>(at));
        case ksTfReal:
        case ksTfDashStart:
            return ksDxfWriteReal(target, g, valueAt<double>(at));
        case ksTfAngle:
            return ksDxfWriteAngle(target, g, valueAt<double>(at));
        case ksTfText:
            return ksDxfWriteText(target, g, static_cast<const char*>(at));
        case ksTfCodedText:
            return ksDxfWriteCoded(target, g, static_cast<const char*>(at));
        case ksTfName:
            return ksDxfWriteName(source, target, g, static_cast<const char*>(at), in.index);
        case ksTfHandle:
            return ksDxfWriteHandle(target, g, valueAt<ksObjHandle>(at));
        case ksTfNameRef: {
            int32_t index = 0;
            const char* name = referencedName(source, row, valueAt<ksObjHandle>(at), &index);
            if (name == nullptr) {
                ksG->errorNumber = row->index == ksTableLtype ? 67 : 303;
                return 0;
            }
            char blockName[ksTableNameSize];
            if (row->index == ksTableBlock && name[0] != '\0') {
                ksDxfBlockFileName(name, index, blockName);
                name = blockName;
            }
            return shorten ? ksDxfWriteName(source, target, g, name, index) : ksDxfWriteText(target, g, name);
        }
        case ksTfByteChunks:
            return ksDxfWriteBinaryChunks(valueAt<ksLoc>(at), target, g, 127);
        case ksTfDashText:
            break;
    }
    return 0;
}

// A point from the rows of its axes.
int16_t writePoint(ksFcb* target, const RecordIn& in, int16_t group, int axes, bool full)
{
    for (int axis = 0; axis < axes; ++axis) {
        const int16_t g = static_cast<int16_t>(group + 10 * axis);
        const ksTableField* row = ksTableFieldFind(in.table, g, target->outputVersion);
        ksG->errorNumber = 27;
        if (row == nullptr)
            return 0;
        const double v = valueAt<double>(ksTableFieldAddress(const_cast<void*>(in.record), row, 0));
        if (!(full ? ksDxfWriteRealFull(target, g, v) : ksDxfWriteReal(target, g, v)))
            return 0;
    }
    return 1;
}

// A linetype's dashes: 49; from R13 on 74 and, when it isn't 0, the
// shape or text of the dash.
int16_t writeDashes(ksFcb* source, ksFcb* target, const RecordIn& in)
{
    static constexpr int16_t kShapeGroups[] = {75, 340, 46, 50, 44, 45};
    const auto linetype = valueAt<ksLinetype>(in.record);
    const int16_t version = target->outputVersion;
    const int count = std::clamp<int>(linetype.dashCount, 0, ksLinetypeMaxDashes);
    auto row = [&](int16_t group) { return ksTableFieldFind(ksTableLtype, group, version); };
    for (int dash = 0; dash < count; ++dash) {
        if (!writeRow(source, target, in, row(49), dash, false))
            return 0;
        if (version < ksAC1012)
            continue;
        const ksLinetypeDash& d = linetype.dashes[dash];
        if (!ksDxfWriteInt16(target, 74, d.dashFlags))
            return 0;
        if (d.dashFlags == 0)
            continue;
        for (int16_t g : kShapeGroups)
            if (!writeRow(source, target, in, row(g), dash, false))
                return 0;
        if ((d.dashFlags & 2) != 0) {
            const int offset = std::clamp<int>(d.textOffset, 0, ksLinetypeTextAreaSize - 1);
            const char* text = linetype.textArea + offset;
            const size_t length = strnlen(text, static_cast<size_t>(ksLinetypeTextAreaSize - offset));
            char buffer[ksLinetypeTextAreaSize + 1];
            std::memcpy(buffer, text, length);
            buffer[length] = '\0';
            if (!ksDxfWriteText(target, 9, buffer))
                return 0;
        }
    }
    return 1;
}

int16_t writeStep(ksFcb* source, ksFcb* target, const RecordIn& in, const Step& step)
{
    const int16_t version = target->outputVersion;
    if (version < step.from || version > step.to)
        return 1;
    if (step.when == kWhenOne && intOf(in, step.whenGroup, version) != 1)
        return 1;
    if (step.when == kWhenNonZero && intOf(in, step.whenGroup, version) == 0)
        return 1;
    switch (step.how) {
        case kPoint2: return writePoint(target, in, step.group, 2, false);
        case kPoint3: return writePoint(target, in, step.group, 3, false);
        case kFullPoint3: return writePoint(target, in, step.group, 3, true);
        case kDashes: return writeDashes(source, target, in);
        case kPlotFlag: {
            const auto layer = valueAt<ksLayer>(in.record);
            return ksDxfWriteInt16(target, 290, ksStrCompare(layer.name, "DEFPOINTS") == 0 ? 0 : layer.plotFlag);
        }
        default: break;
    }
    const ksTableField* row = ksTableFieldFind(in.table, step.group, version);
    ksG->errorNumber = 27;
    if (row == nullptr)
        return 0;
    return writeRow(source, target, in, row, 0, step.how == kNameRef);
}

// The whole record: its head, its steps, and from R13 on its extended data.
int16_t writeRecord(ksFcb* source, ksFcb* target, const TableOut& table, const void* record, int32_t index)
{
    const ksTableListInfo& info = ksTableLists[table.list];
    const auto* bytes = static_cast<const uint8_t*>(record);
    RecordIn in{record, table.number, index};
    ksObjHandle handle = valueAt<ksObjHandle>(bytes + info.handleOffset);
    ksObjHandle xdict{};
    ksLoc eed = valueAt<ksLoc>(bytes + info.eedOffset);
    const int32_t reactorCount = valueAt<int32_t>(bytes + info.reactorsOffset - sizeof(int32_t));
    const ksLoc reactors = valueAt<ksLoc>(bytes + info.reactorsOffset);

    // A block record is written from a working record of the table's rows.
    ksBlockRecordEntry entry{};
    if (table.number == ksTableBlockRecord) {
        const auto block = valueAt<ksBlockHeader>(record);
        entry.ownerHandle = block.ownerHandle;
        entry.layoutHandle = block.layoutHandle;
        entry.entryHandle = block.entryHandle;
        entry.xdictHandle = block.xdictHandle;
        entry.previewData = block.previewData;
        std::memcpy(entry.name, ksDxfCurrentBlock().name, sizeof entry.name);
        in.record = &entry;
        xdict = block.xdictHandle;
    } else if (const ksTableField* row = ksTableFieldFind(table.number, 360, target->outputVersion)) {
        xdict = valueAt<ksObjHandle>(bytes + row->offset);
    }
    if (!ksDxfRecordHead(target, table.name, handle, table.handleGroup, table.word, xdict, reactorCount, reactors))
        return 0;
    for (const Step& step : table.steps)
        if (!writeStep(source, target, in, step))
            return 0;
    return isBelowR13(target) || eed == 0 || ksDxfWriteObjectEed(source, target, eed);
}

int16_t writeTableHead(ksFcb* source, ksFcb* target, const TableOut& table, int32_t count)
{
    if (!ksDxfWriteText(target, 0, "TABLE") || !ksDxfWriteText(target, 2, table.name))
        return 0;
    if (!isBelowR13(target) &&
        (!ksDxfWriteHandle(target, 5, source->*table.control) || !ksDxfWriteText(target, 100, "AcDbSymbolTable")))
        return 0;
    if (!ksDxfWriteInt16(target, 70, static_cast<int16_t>(count)))
        return 0;
    if (table.number == ksTableDimstyle && target->outputVersion >= ksAC1015)
        return ksDxfWriteText(target, 100, "AcDbDimStyleTable") && ksDxfWriteInt16(target, 71, 0);
    return 1;
}

inline const void* recordOf(ksLoc node) { return ksRecordOf(node); }
inline const void* fieldOf(ksLoc node, size_t offset)
{
    return static_cast<const uint8_t*>(ksRecordOf(node)) + offset;
}

bool isDeleted(const TableOut& table, const void* record)
{
    return static_cast<const uint8_t*>(record)[table.deletedOffset] != 0;
}

// The ordinary tables: every record not deleted, with its place as index.
int16_t writeTable(ksFcb* source, ksFcb* target, const TableOut& table)
{
    const ksLoc list = source->*ksTableLists[table.list].list;
    int32_t count = static_cast<int32_t>(ksListCount(list));
    if (table.number == ksTableView && isBelowR13(target))
        count = 0;
    if (!writeTableHead(source, target, table, count))
        return 0;
    int32_t index = 0;
    for (ksLoc node = ksListFirst(list); node != 0; node = ksListNodeNext(node), ++index) {
        const void* record = recordOf(node);
        if (!isDeleted(table, record) && !writeRecord(source, target, table, record, index))
            return 0;
    }
    return ksDxfTableEnd(target);
}

bool named(const char* name, const char* what) { return ksStrCompare(name, what) == 0; }

// LTYPE: from R13 on the two fixed linetypes first, then the others; the
// others' index is their place + 2. Before R13 the two are left out.
int16_t writeLinetypes(ksFcb* source, ksFcb* target, const TableOut& table)
{
    const ksLoc list = source->linetypes;
    const bool r13 = !isBelowR13(target);
    int32_t count = static_cast<int32_t>(ksListCount(list));
    if (!writeTableHead(source, target, table, r13 ? count : std::max(count - 2, 0)))
        return 0;
    if (r13) {
        const ksObjHandle fixed[2] = {source->byBlockHandle, source->byLayerHandle};
        const char* names[2] = {"ByBlock", "ByLayer"};
        for (int i = 0; i < 2; ++i) {
            ksLinetype made;
            const void* record = nullptr;
            for (ksLoc node = ksListFirst(list); node != 0 && record == nullptr; node = ksListNodeNext(node)) {
                if (ksHandleCompare(valueAt<ksObjHandle>(fieldOf(node, offsetof(ksLinetype, entryHandle))),
                                    fixed[i]) == 0)
                    record = recordOf(node);
            }
            if (record == nullptr) {
                ksLinetypeDefaults(&made);
                std::strcpy(made.name, names[i]);
                made.entryHandle = fixed[i];
                record = &made;
            }
            if (!writeRecord(source, target, table, record, i))
                return 0;
        }
        progress(12);
    }
    int32_t index = 0;
    for (ksLoc node = ksListFirst(list); node != 0; node = ksListNodeNext(node), ++index) {
        const char* name = static_cast<const char*>(fieldOf(node, offsetof(ksLinetype, name)));
        const auto handle = valueAt<ksObjHandle>(fieldOf(node, offsetof(ksLinetype, entryHandle)));
        const bool special = r13 ? named(name, "BYLAYER") || named(name, "BYBLOCK")
                                 : ksHandleCompare(handle, source->byBlockHandle) == 0 ||
                                       ksHandleCompare(handle, source->byLayerHandle) == 0;
        if (special || isDeleted(table, recordOf(node)))
            continue;
        if (!writeRecord(source, target, table, recordOf(node), index + 2))
            return 0;
    }
    return ksDxfTableEnd(target);
}

// ---- Blocks --------------------------------------------------------------------------

ksDxfBlockNote blockNote{};

bool isPaperSpaceName(const char* name) { return ksStrNCompare(name, "*PAPER_SPACE", 12) == 0; }


// The blocks the file gets, in the list's order: not deleted, not the two
// spaces (the last two records), and below R2000 no further paper space.
template <typename Visit>
int16_t eachBlock(ksFcb* source, ksFcb* target, Visit&& visit)
{
    const ksLoc list = source->blockHeaders;
    const int32_t count = static_cast<int32_t>(ksListCount(list));
    int32_t index = 0;
    for (ksLoc node = ksListFirst(list); node != 0 && index < count - 2; node = ksListNodeNext(node), ++index) {
        const auto block = valueAt<ksBlockHeader>(recordOf(node));
        if (block.deleted || (target->outputVersion < ksAC1015 && isPaperSpaceName(block.name)))
            continue;
        if (!visit(block, index, count - 2))
            return 0;
    }
    return 1;
}

// The block header of a space, found by its handle, copied to *block.
bool spaceBlock(ksFcb* source, const ksObjHandle& handle, ksBlockHeader* block, int32_t* index)
{
    const char* name = ksDxfTableName(source, ksListBlockHeaders, handle, index);
    if (name == nullptr)
        return false;
    std::memcpy(block, name - offsetof(ksBlockHeader, name), sizeof *block);
    return true;
}

int16_t writeBlockRecords(ksFcb* source, ksFcb* target, const TableOut& table)
{
    const int32_t count = static_cast<int32_t>(ksListCount(source->blockHeaders));
    if (!writeTableHead(source, target, table, count - 2))
        return 0;
    for (const ksObjHandle* space : {&source->modelBlockHandle, &source->paperBlockHandle}) {
        int32_t index = 0;
        ksBlockHeader block;
        ksG->errorNumber = 75;
        if (!spaceBlock(source, *space, &block, &index))
            return 0;
        ksDxfStartBlock(target, block, index, true);
        if (!writeRecord(source, target, table, &block, index))
            return 0;
    }
    progress(44);
    const int16_t written = eachBlock(source, target, [&](const ksBlockHeader& block, int32_t index, int32_t) {
        ksDxfStartBlock(target, block, index);
        return writeRecord(source, target, table, &block, index) != 0;
    });
    return written && ksDxfTableEnd(target);
}

// The BLOCK and ENDBLK of a space, made from the block header.
int16_t writeSpaceBlock(ksFcb* source, ksFcb* target, const ksObjHandle& handle, const ksObjHandle& begin,
                        const ksObjHandle& end, bool paper, ksEntityHeader* header, void* body)
{
    int32_t index = 0;
    ksBlockHeader block;
    ksG->errorNumber = 75;
    if (!spaceBlock(source, handle, &block, &index))
        return 0;
    ksDxfStartBlock(target, block, index, true);
    blockNote.isPaperSpace = paper;
    for (const int16_t type : {int16_t{ksEntBlock}, int16_t{ksEntEndblk}}) {
        header->type = type;
        ksEntityDefaults(source, header, body);
        header->handle = type == ksEntBlock ? begin : end;
        if (paper)
            header->flags |= ksEntityPaperSpace;
        if (type == ksEntBlock)
            std::memcpy(static_cast<ksBlockBody*>(body)->name, blockNote.name, sizeof blockNote.name);
        if (!ksDxfWriteOneEntity(source, target, header, body))
            return 0;
    }
    blockNote.isPaperSpace = 0;
    return 1;
}

}  // namespace

// ---- Shared pieces ----------------------------------------------------------------

int16_t ksDxfSectionEnd(ksFcb* target) { return ksDxfWriteText(target, 0, "ENDSEC"); }

int16_t ksDxfTableEnd(ksFcb* target) { return ksDxfWriteText(target, 0, "ENDTAB"); }

int16_t ksDxfWriteReactorGroups(ksFcb* target, int32_t count, ksLoc reactors)
{
    if (count <= 0 || reactors == 0)
        return 1;
    if (!ksDxfWriteText(target, 102, "{ACAD_REACTORS"))
        return 0;
    ksBlobCursor* cursor = ksBlobOpenRead(reactors);
    ksObjHandle handle;
    bool ok = cursor != nullptr;
    for (int32_t i = 0; ok && i < count && ksBlobReadHandle(cursor, &handle); ++i)
        ok = ksDxfWriteHandle(target, 330, handle) != 0;
    ksBlobCloseRead(cursor);
    return ok && ksDxfWriteText(target, 102, "}");
}

int16_t ksDxfRecordHead(ksFcb* target, const char* name, const ksObjHandle& handle, int16_t handleGroup,
                        const char* word, const ksObjHandle& xdictHandle, int32_t reactorCount, ksLoc reactors)
{
    if (!ksDxfWriteText(target, 0, name))
        return 0;
    if (isBelowR13(target))
        return 1;
    if (!ksDxfWriteHandle(target, handleGroup, handle))
        return 0;
    if (!ksHandleIsNull(xdictHandle) &&
        (!ksDxfWriteText(target, 102, "{ACAD_XDICTIONARY") || !ksDxfWriteHandle(target, 360, xdictHandle) ||
         !ksDxfWriteText(target, 102, "}")))
        return 0;
    if (!ksDxfWriteReactorGroups(target, reactorCount, reactors))
        return 0;
    char marker[64] = "AcDb";
    std::strncat(marker, word, 40);
    std::strcat(marker, "TableRecord");
    return ksDxfWriteText(target, 100, "AcDbSymbolTableRecord") && ksDxfWriteText(target, 100, marker);
}

int16_t ksDxfWriteBinaryChunks(ksLoc blob, ksFcb* target, int16_t group, uint32_t chunkSize)
{
    if (blob == 0)
        return 1;
    chunkSize = std::clamp<uint32_t>(chunkSize, 1, 127);
    uint32_t left = ksBlobSize(blob);
    ksBlobCursor* cursor = ksBlobOpenRead(blob);
    bool ok = cursor != nullptr || left == 0;
    uint8_t bytes[127];
    while (ok && left > 0) {
        const auto part = static_cast<uint8_t>(std::min(left, chunkSize));
        ok = ksBlobRead(cursor, bytes, part) && ksDxfWriteBytes(target, group, bytes, part);
        left -= part;
    }
    ksBlobCloseRead(cursor);
    return ok;
}

const char* ksDxfTableName(ksFcb* source, int table, const ksObjHandle& handle, int32_t* index)
{
    const ksTableListInfo& info = ksTableLists[table];
    int32_t place = 0;
    for (ksLoc node = ksListFirst(source->*info.list); node != 0; node = ksListNodeNext(node), ++place) {
        const auto* bytes = static_cast<const uint8_t*>(ksRecordOf(node));
        if (std::memcmp(bytes + info.handleOffset, handle.bytes, sizeof handle.bytes) == 0) {
            *index = place;
            return reinterpret_cast<const char*>(bytes + info.nameOffset);
        }
    }
    return nullptr;
}

ksDxfBlockNote& ksDxfCurrentBlock() { return blockNote; }

void ksDxfBlockFileName(const char* name, int32_t index, char* out, bool fixedSpace)
{
    const size_t length = strnlen(name, ksTableNameSize - 1);
    // A DWG names every layout's block "*Paper_Space"; in DXF only the
    // fixed paper space keeps the bare name, the others get their index.
    if (!fixedSpace && ksStrCompare(name, "*PAPER_SPACE") == 0) {
        std::memcpy(out, name, length);
        *std::to_chars(out + length, out + length + 12, index).ptr = '\0';
        return;
    }
    if (name[0] != '*' || isPaperSpaceName(name) || ksStrCompare(name, "*MODEL_SPACE") == 0) {
        std::memcpy(out, name, length);
        out[length] = '\0';
        return;
    }
    const size_t keep = std::min<size_t>(length, 2);
    std::memcpy(out, name, keep);
    char* end = std::to_chars(out + keep, out + keep + 12, index).ptr;
    *end = '\0';
}

void ksDxfStartBlock(ksFcb* target, const ksBlockHeader& block, int32_t index, bool fixedSpace)
{
    ksDxfBlockFileName(block.name, index, blockNote.name, fixedSpace);
    blockNote.flags = static_cast<uint8_t>(block.flags);
    if (block.overlay && target->outputVersion >= ksAC1014)
        blockNote.flags |= 8;
    blockNote.index = index;
    blockNote.isPaperSpace = 0;
}

// ---- The sections --------------------------------------------------------------------

int16_t ksDxfWriteTables(ksFcb* source, ksFcb* target, void* /*scratchRecord*/)
{
    const bool old = isBelowR13(target);
    if (!ksDxfWriteText(target, 0, "SECTION") || !ksDxfWriteText(target, 2, "TABLES"))
        return 0;
    for (const TableOut& table : kTables) {
        if (target->outputVersion < table.from)
            continue;
        int16_t written;
        if (table.number == ksTableLtype)
            written = writeLinetypes(source, target, table);
        else if (table.number == ksTableBlockRecord)
            written = writeBlockRecords(source, target, table);
        else
            written = writeTable(source, target, table);
        if (!written)
            return 0;
        if (table.number != ksTableBlockRecord)
            progress(old ? table.progressOld : table.progressR13);
    }
    return ksDxfSectionEnd(target);
}

int16_t ksDxfWriteBlocks(ksFcb* source, ksFcb* target, ksEntityHeader* header, void* body, void* /*scratchBlock*/)
{
    const bool old = isBelowR13(target);
    if (!ksDxfWriteText(target, 0, "SECTION") || !ksDxfWriteText(target, 2, "BLOCKS"))
        return 0;
    progress(old ? 40 : 48);
    blockNote.inBlocksSection = old;
    if (!old && (!writeSpaceBlock(source, target, source->modelBlockHandle, source->modelBlockBegin,
                                  source->modelBlockEnd, false, header, body) ||
                 !writeSpaceBlock(source, target, source->paperBlockHandle, source->paperBlockBegin,
                                  source->paperBlockEnd, true, header, body))) {
        blockNote.inBlocksSection = 0;
        return 0;
    }
    const int16_t written = eachBlock(source, target, [&](const ksBlockHeader& block, int32_t index, int32_t count) {
        progress(static_cast<int16_t>((old ? 40 : 50) + 25 * index / std::max(count, 1)));
        ksDxfStartBlock(target, block, index);
        return ksDxfWriteEntityList(source, target, block.entities, header, body) != 0;
    });
    blockNote.inBlocksSection = 0;
    if (!written || !ksDxfSectionEnd(target))
        return 0;
    if (old)
        progress(70);
    return 1;
}
