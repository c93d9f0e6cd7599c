// Table entries of R13-R2000 DWG files, read through the load's table
// phases from the drawings of the corpus and held against the DXF exports
// of the same drawings; block headers and viewport entity headers.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <numbers>
#include <string>
#include <type_traits>
#include <vector>

#include "dwgread/dwgfile.h"
#include "frame/globals.h"
#include "frame/load.h"
#include "frame/readerops.h"
#include "records/tables.h"
#include "store/blob.h"
#include "store/handles.h"
#include "store/tablelist.h"
#include "support/dwgtest.h"

namespace {

using namespace zt;

uint64_t U(const ksObjHandle& h) { return ksHandleToU64(h); }

// Names agree: equal but for case; an anonymous name that the export
// numbered ("*D" as "*D3"); a long name that it cut.
bool sameName(const std::string& dwg, const std::string& dxf)
{
    if (ksStrCompare(dwg.c_str(), dxf.c_str()) == 0)
        return true;
    if (dwg.starts_with("*") && dxf.starts_with(dwg))
        return dxf.find_first_not_of("0123456789", dwg.size()) == std::string::npos;
    return dxf.size() >= 16 && dwg.starts_with(dxf);
}

// Each group of a DXF entry against the record's field that the DXF reader
// stores it in (the rows of ksTableFieldTable for the export's version),
// the dashes of a linetype each from its group 49 on. Left out: the name
// (sameName), flags that the DWG form doesn't hold (dash flag 8, the bits
// of xref resolution and use), and the view of the active viewport, which
// follows the exporting program's window.
template <typename R>
void compareFields(const DxfFile& dxf, int table, const R& r, const DxfRecord& entry,
                   const std::string& where)
{
    int dash = -1;
    bool application = false;
    for (const auto& [group, value] : entry.groups) {
        application = group == 102 ? value.starts_with("{") : application;
        dash += table == ksTableLtype && group == 49;
        const ksTableField* row = application || group >= 1000 ? nullptr : ksTableFieldFind(table, group, dxf.version);
        const void* at = row ? ksTableFieldAddress(const_cast<R*>(&r), row, dash) : nullptr;
        const bool window = table == ksTableVport && (group == 12 || group == 22 || group == 40 || group == 41);
        if (at == nullptr || group == 2 || window)
            continue;
        if (row->kind == ksTfDashText) {
            if constexpr (std::is_same_v<R, ksLinetype>) {
                const int16_t offset = *static_cast<const int16_t*>(at);
                EXPECT_TRUE(offset > 0 && value == r.textArea + offset) << where << " dash text " << dash;
            }
        } else {
            const int mask = group == 74 ? 7 : group == 70 ? ~(32 | 64) : ~0;
            EXPECT_EQ(fieldDiffers(dxf, at, row->kind, row->index, value, 1e-9, mask), "") << where << " " << group;
        }
    }
}

// A table's entries in the export against the records of its list. The
// DXF entries that the DWG has no record for are counted; another save's
// entries of other names under the drawing's handles are passed over, and
// so are its reactors.
template <typename R>
int compare(ksFcb* fcb, const DxfFile& dxf, int table, ksTableList list, bool sameSave)
{
    std::map<uint64_t, R> records;
    R record;
    ksTableRewind(fcb, list);
    while (ksTableNext(fcb, list, &record))
        records[U(record.entryHandle)] = record;
    const std::string name = table == ksTableBlockRecord ? "BLOCK_RECORD" : ksTableNames[table];
    int missing = 0;
    for (const DxfRecord& entry : dxf.section("TABLES")) {
        if (entry.type != name)
            continue;
        const std::string where = name + " " + entry.text(2);
        const auto at = records.find(entry.handle());
        if (at == records.end() || (!sameSave && !sameName(at->second.name, entry.text(2)))) {
            ++missing;
            continue;
        }
        // BYLAYER and BYBLOCK are the load's own records. Some exporters
        // rename the spaces' block records and keep their true names apart.
        const R& r = at->second;
        auto is = [&](const ksObjHandle& h) { return ksHandleCompare(r.entryHandle, h) == 0; };
        if (table == ksTableLtype && (is(fcb->byLayerHandle) || is(fcb->byBlockHandle)))
            continue;
        EXPECT_TRUE(sameName(r.name, entry.text(2)) || dxf.entry(name, r.name) == entry.handle()) << where;
        if constexpr (std::is_same_v<R, ksBlockHeader>) {
            EXPECT_TRUE(!entry.has(330) || U(r.ownerHandle) == entry.hex(330)) << where;
            EXPECT_TRUE(!entry.has(340) || U(r.layoutHandle) == entry.hex(340)) << where;
        } else {
            compareFields(dxf, table, r, entry, where);
        }
        if (sameSave) {
            std::vector<uint64_t> reactors;
            ksBlobCursor* in = ksBlobOpenRead(r.reactors);
            ksObjHandle h;
            for (int32_t i = 0; in && i < r.reactorCount && ksBlobReadHandle(in, &h); ++i)
                reactors.push_back(U(h));
            ksBlobCloseRead(in);
            EXPECT_EQ(reactors, entry.reactors()) << where << " reactors";
        }
    }
    return missing;
}

using DwgTables = DwgLoadTest;

TEST_F(DwgTables, EntriesMatchTheDxfExportOfTheSameDrawing)
{
    ZT_REQUIRE_CORPUS();
    for (const DrawingPair& p : drawingPairs()) {
        SCOPED_TRACE(p.dwg);
        ASSERT_EQ(open(corpusDir() / p.dwg, DwgPhases::tables), "");
        const DxfFile dxf(corpusDir() / p.dxf);
        // The layers under the same handles and names make one drawing;
        // another save may have added some.
        const int layers = int(std::ranges::count(dxf.section("TABLES"), "LAYER", &DxfRecord::type));
        ASSERT_GT(layers, 0);
        EXPECT_LE(compare<ksLayer>(fcb, dxf, ksTableLayer, ksListLayers, p.sameSave) * 2, p.sameSave ? 0 : layers);
        compare<ksLinetype>(fcb, dxf, ksTableLtype, ksListLinetypes, p.sameSave);
        compare<ksStyle>(fcb, dxf, ksTableStyle, ksListShapeFiles, p.sameSave);
        compare<ksVport>(fcb, dxf, ksTableVport, ksListVports, p.sameSave);
        compare<ksView>(fcb, dxf, ksTableView, ksListViews, p.sameSave);
        compare<ksUcs>(fcb, dxf, ksTableUcs, ksListUcses, p.sameSave);
        compare<ksAppid>(fcb, dxf, ksTableAppid, ksListRegApps, p.sameSave);
        compare<ksDimstyle>(fcb, dxf, ksTableDimstyle, ksListDimStyles, p.sameSave);
        compare<ksBlockHeader>(fcb, dxf, ksTableBlockRecord, ksListBlockHeaders, p.sameSave);
    }
}

// Every drawing loads its tables. Every block header names its BLOCK (4)
// and ENDBLK (5), and both or neither of its first and last entities; none
// for an external reference. The first viewport entity header read gets id
// 0; a later one that is on takes 1 + its viewport's place along the chain
// from the header section, which in these drawings is the list's order;
// each such viewport handle names a VIEWPORT (34).
TEST_F(DwgTables, BlockHeadersAndViewportEntityHeadersFollowTheirChains)
{
    ZT_REQUIRE_CORPUS();
    int viewports = 0;
    for (const std::string& path : corpusDwgs()) {
        ASSERT_EQ(open(corpusDir() / path, DwgPhases::tables), "") << path;
        auto typeOf = [this](const ksObjHandle& h) { return ksSeekHandle(fcb, h) ? ksPeekObjectType(fcb) : 0; };
        ASSERT_EQ(ksOpStartBlockHeaders(fcb), 1) << path;
        for (int32_t i = 0; i < fcb->tableCount[ksHeadBlocks]; ++i) {
            ksBlockHeader record;
            ksBlockHeaderDefaults(&record);
            int16_t hasExtended = 0;
            ASSERT_EQ(ksOpReadBlockHeader(fcb, &record, &hasExtended), 1) << path;
            ksBlobFree(record.previewData);
            ksBlobFree(record.reactors);
            const std::string where = path + " " + record.name;
            const ksBlockWork w = ksG->blockWork;
            EXPECT_EQ(record.deleted, 0) << where;
            EXPECT_EQ(typeOf(w.blockEntity), 4) << where;
            EXPECT_EQ(typeOf(w.endblkEntity), 5) << where;
            EXPECT_EQ(ksHandleIsNull(w.firstEntity), ksHandleIsNull(w.lastEntity)) << where;
            EXPECT_TRUE(!(record.flags & 4) || ksHandleIsNull(w.firstEntity)) << where;
        }
        const int16_t count = int16_t(fcb->tableCount[ksHeadVpEntHeaders]);
        viewports += count > 1;
        ASSERT_EQ(ksOpStartVpEntHeaders(fcb), 1) << path;
        for (int16_t i = 0; i < count; ++i) {
            ksVpEntHeader header{};
            ASSERT_EQ(ksOpReadVpEntHeader(fcb, &header), 1) << path;
            EXPECT_EQ(header.deleted, 0) << path;
            EXPECT_EQ(header.viewportId, i) << path;
            EXPECT_TRUE(i == 0 || typeOf(header.viewportHandle) == 34) << path << " header " << i;
        }
        ksVpEntHeader past{};
        EXPECT_EQ(ksOpReadVpEntHeader(fcb, &past), 0) << path << ": a read past the list";
    }
    EXPECT_GT(viewports, 0);
}

}  // namespace
