// Table entries of R13-R2000 DWG files, read through the load's table
// phases from the drawings of the corpus and held against the DXF exports
// of the same drawings; block headers, viewport entity headers and damaged
// entries.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <map>
#include <numbers>
#include <random>
#include <string>
#include <vector>

#include "driver/hooks.h"
#include "dwgread/dwgfile.h"
#include "dwgread/ops.h"
#include "frame/globals.h"
#include "frame/load.h"
#include "frame/loadphases.h"
#include "frame/readerops.h"
#include "records/header.h"
#include "store/blob.h"
#include "store/handles.h"
#include "store/tablelist.h"
#include "support/fixtures.h"
#include "support/support.h"

namespace {

using namespace zt;

// ---- DXF exports: the entries of the TABLES section, groups in order.

struct DxfEntry {
    std::vector<std::pair<int, std::string>> groups;

    // The first value of a group outside the application groups (102).
    const std::string* text(int code) const
    {
        bool inside = false;
        for (const auto& [c, v] : groups) {
            if (c == 102)
                inside = v.starts_with("{");
            else if (c == code && !inside)
                return &v;
        }
        return nullptr;
    }
    uint64_t handle(int code) const { return text(code) ? std::strtoull(text(code)->c_str(), nullptr, 16) : 0; }
    std::vector<uint64_t> reactors() const
    {
        std::vector<uint64_t> out;
        bool inside = false;
        for (const auto& [c, v] : groups) {
            if (c == 102)
                inside = v == "{ACAD_REACTORS";
            else if (inside && c == 330)
                out.push_back(std::strtoull(v.c_str(), nullptr, 16));
        }
        return out;
    }
};
using DxfTables = std::map<std::string, std::vector<DxfEntry>>;  // by table

DxfTables readDxfTables(const fs::path& file)
{
    DxfTables out;
    std::ifstream in(file, std::ios::binary);
    std::string code, value, table;
    bool inTables = false;
    DxfEntry* entry = nullptr;
    while (std::getline(in, code) && std::getline(in, value)) {
        const long group = std::strtol(code.c_str(), nullptr, 10);
        value.erase(0, value.find_first_not_of(' '));
        value.erase(value.find_last_not_of(" \r") + 1);
        if (group == 0) {
            inTables = inTables && value != "ENDSEC";
            entry = inTables && value != "TABLE" && value != "ENDTAB" ? &out[table].emplace_back() : nullptr;
        } else if (entry != nullptr) {
            entry->groups.emplace_back(group, value);
        } else if (group == 2) {
            inTables = inTables || value == "TABLES";
            table = value;
        }
    }
    return out;
}

// ---- Loading

class DwgTablesTest : public ToolkitTest {
protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(ToolkitTest::SetUp());
        ksDwgFillOps(&ksG->dwgOps);
    }
    void TearDown() override
    {
        if (fcb)
            ksCloseDrawing(fcb);
        ToolkitTest::TearDown();
    }

    // Opens a DWG file as the load does and runs the table phases in the
    // load's order: the step that failed, or empty.
    std::string load(const fs::path& file)
    {
        static constexpr std::pair<int16_t (*)(ksFcb*), int16_t> kPhases[] = {
            {ksLoadLinetypes, 45}, {ksLoadLayers, 46}, {ksLoadClasses, 47},      {ksLoadVports, 48},
            {ksLoadUcses, 49},     {ksLoadRegApps, 50}, {ksLoadViews, 51},       {ksLoadShapeFiles, 52},
            {ksLoadBlockHeaders, 54}, {ksLoadDimStyles, 53},
        };
        if (fcb)
            ksCloseDrawing(fcb);
        fcb = ksNewFcb();
        fcb->header = static_cast<ksHeader*>(ksMemAlloc(sizeof(ksHeader)));
        ksHeaderSetDefaults(fcb->header);
        std::snprintf(fcb->fileName, sizeof fcb->fileName, "%s", file.c_str());
        if ((fcb->file = ksFileOpenRead(fcb->fileName)) == nullptr)
            return "open";
        fcb->fileVersion = ksSniffBytes(readFile(file, ksSniffSize)).version;
        fcb->ops = &ksG->dwgOps;
        fcb->loading = 1;
        ksResetHeaderReferences();
        ksG->errorNumber = 22;
        if (!ksDwgReadHeader(fcb))
            return "header, error " + std::to_string(ksG->errorNumber);
        fcb->nextHandle = fcb->handleSeed;
        for (const auto& [run, error] : kPhases) {
            ksG->errorNumber = error;
            if (!run(fcb))
                return "phase error " + std::to_string(ksG->errorNumber);
        }
        return {};
    }

    ksFcb* fcb = nullptr;
};

std::vector<std::string> newDwgs()
{
    std::vector<std::string> out;
    for (const CorpusEntry& e : corpusManifest())
        if (e.path.starts_with("dwg/") && (e.version == "AC1012" || e.version == "AC1014" || e.version == "AC1015"))
            out.push_back(e.path);
    return out;
}

TEST_F(DwgTablesTest, EveryDrawingLoadsItsTables)
{
    ZT_REQUIRE_CORPUS();
    ASSERT_FALSE(newDwgs().empty());
    for (const std::string& path : newDwgs())
        EXPECT_EQ(load(corpusDir() / path), "") << path;
}

// ---- Against the DXF exports

// One group of a DXF entry against the record: a number, flags under a
// mask, an angle (degrees in DXF), a handle (hex in DXF) or a text.
enum class As { number, flags, angle, handle, text };
template <typename R>
struct Field {
    int group;
    As as;
    double (*number)(const R&);
    std::string (*text)(const R&) = nullptr;
    int mask = 0;
};

#define NUM(g, e) Field<R>{g, As::number, [](const R& r) { return double(r.e); }}
#define FLAGS(g, e, m) Field<R>{g, As::flags, [](const R& r) { return double(r.e); }, nullptr, m}
#define ANGLE(g, e) Field<R>{g, As::angle, [](const R& r) { return double(r.e); }}
#define REF(g, e) Field<R>{g, As::handle, [](const R& r) { return double(ksHandleToU64(r.e)); }}
#define TEXT(g, e) Field<R>{g, As::text, nullptr, [](const R& r) { return std::string(r.e); }}
#define P2(g, e) NUM(g, e.x), NUM(g + 10, e.y)
#define P3(g, e) P2(g, e), NUM(g + 20, e.z)

// A DXF table against a table list: records by handle, and those the
// load makes itself rather than take from the reader.
template <typename R>
struct Table {
    const char* dxfName;
    ksTableList list;
    int handleGroup;
    std::vector<Field<R>> fields;
    bool (*madeByLoad)(ksFcb*, const R&) = nullptr;
    void (*more)(ksFcb*, const R&, const DxfEntry&, const std::string&) = nullptr;
};

bool sameText(const std::string& a, const std::string& b) { return ksStrCompare(a.c_str(), b.c_str()) == 0; }

// Names agree: equal but for case; an anonymous name that the export
// numbered ("*D" as "*D3"); a long name that it cut.
bool sameName(const std::string& dwg, const std::string& dxf)
{
    if (sameText(dwg, dxf))
        return true;
    if (dwg.starts_with("*") && dxf.starts_with(dwg))
        return dxf.find_first_not_of("0123456789", dwg.size()) == std::string::npos;
    return dxf.size() >= 16 && dwg.starts_with(dxf);
}

// BYLAYER and BYBLOCK, and the two spaces, are the load's own records.
template <typename R, ksObjHandle ksFcb::*A, ksObjHandle ksFcb::*B>
bool madeByLoad(ksFcb* fcb, const R& r)
{
    return ksHandleCompare(r.entryHandle, fcb->*A) == 0 || ksHandleCompare(r.entryHandle, fcb->*B) == 0;
}

void layerLinetype(ksFcb* fcb, const ksLayer& layer, const DxfEntry& entry, const std::string& where)
{
    ksLinetype linetype;
    if (entry.text(6) == nullptr)
        return;
    ASSERT_TRUE(ksLinetypeSeek(fcb, layer.linetypeHandle, &linetype)) << where;
    EXPECT_PRED2(sameText, linetype.name, *entry.text(6)) << where;
}

// The dashes, each from its group 49 on; the DXF form drops the DWG's
// dash flag 8.
void linetypeDashes(ksFcb*, const ksLinetype& lt, const DxfEntry& entry, const std::string& where)
{
    int dash = -1;
    for (const auto& [group, value] : entry.groups) {
        dash += group == 49;
        if (dash < 0 || dash >= lt.dashCount)
            continue;
        const ksLinetypeDash& d = lt.dashes[dash];
        const double v = std::strtod(value.c_str(), nullptr);
        const double got[] = {d.length, double(d.dashFlags & 7), double(d.shapeNumber), d.scale,
                              d.rotation * 180.0 / std::numbers::pi, d.xOffset, d.yOffset};
        constexpr int groups[] = {49, 74, 75, 46, 50, 44, 45};
        const auto at = std::find(std::begin(groups), std::end(groups), group);
        if (at != std::end(groups)) {
            EXPECT_NEAR(got[at - groups], v, 1e-9) << where << " dash " << dash << " group " << group;
        }
        if (group == 340) {
            EXPECT_EQ(ksHandleToU64(d.styleHandle), std::strtoull(value.c_str(), nullptr, 16)) << where;
        }
        if (group == 9) {
            ASSERT_TRUE((d.dashFlags & 2) && d.textOffset > 0) << where;
            EXPECT_STREQ(lt.textArea + d.textOffset, value.c_str()) << where;
        }
    }
    EXPECT_EQ(dash + 1, lt.dashCount) << where;
}

// What a pair of files is: one drawing, or a DXF export of a later
// revision, whose entries of other names under the same handles are passed
// over. Either may hold entries that its exporting program added.
enum class Pair { same, laterRevision };

// The DXF entries that the DWG has no record for.
template <typename R>
int compare(ksFcb* fcb, const DxfTables& dxf, const Table<R>& t, const std::string& pair, Pair kind)
{
    std::map<uint64_t, R> records;
    R record;
    ksTableRewind(fcb, t.list);
    while (ksTableNext(fcb, t.list, &record))
        records[ksHandleToU64(record.entryHandle)] = record;
    int missing = 0;
    for (const DxfEntry& entry : dxf.contains(t.dxfName) ? dxf.at(t.dxfName) : std::vector<DxfEntry>{}) {
        const std::string name = entry.text(2) ? *entry.text(2) : "";
        const std::string where = pair + " " + t.dxfName + " " + name;
        const auto at = records.find(entry.handle(t.handleGroup));
        if (at == records.end() || (kind == Pair::laterRevision && !sameName(at->second.name, name))) {
            ++missing;
            continue;
        }
        const R& r = at->second;
        if (t.madeByLoad && t.madeByLoad(fcb, r))
            continue;
        EXPECT_PRED2(sameName, r.name, name) << where;
        for (const Field<R>& f : t.fields) {
            const std::string* value = entry.text(f.group);
            if (value == nullptr)
                continue;
            const std::string at = where + " group " + std::to_string(f.group);
            const double v = f.as == As::handle ? double(std::strtoull(value->c_str(), nullptr, 16))
                                                : std::strtod(value->c_str(), nullptr);
            switch (f.as) {
            case As::text: EXPECT_PRED2(sameText, f.text(r), *value) << at; break;
            case As::flags: EXPECT_EQ(int(v) & f.mask, int(f.number(r)) & f.mask) << at; break;
            case As::angle: EXPECT_NEAR(f.number(r), v * std::numbers::pi / 180.0, 1e-9) << at; break;
            default: EXPECT_NEAR(f.number(r), v, 1e-9 * std::max(1.0, std::fabs(v))) << at; break;
            }
        }
        if (kind == Pair::same) {
            std::vector<uint64_t> reactors;
            ksBlobCursor* in = ksBlobOpenRead(r.reactors);
            ksObjHandle h;
            for (int32_t i = 0; in && i < r.reactorCount && ksBlobReadHandle(in, &h); ++i)
                reactors.push_back(ksHandleToU64(h));
            ksBlobCloseRead(in);
            EXPECT_EQ(reactors, entry.reactors()) << where << " reactors";
        }
        if (t.more)
            t.more(fcb, r, entry, where);
    }
    return missing;
}

// The fields a DXF export has of each table. The active viewport's view
// (its centre, height and aspect) follows the exporting program's window
// and is left out.
template <typename R>
Table<R> table();
template <>
Table<ksLayer> table()
{
    using R = ksLayer;
    return {"LAYER", ksListLayers, 5,
            {NUM(62, color), FLAGS(70, flags, 1 | 2 | 4 | 16), NUM(290, plotFlag), NUM(370, lineweight),
             REF(330, ownerHandle), REF(390, plotStyleHandle)},
            nullptr, layerLinetype};
}
template <>
Table<ksLinetype> table()
{
    using R = ksLinetype;
    return {"LTYPE", ksListLinetypes, 5,
            {FLAGS(70, flags, 16), NUM(72, alignment), NUM(73, dashCount), NUM(40, patternLength),
             TEXT(3, description), REF(330, ownerHandle)},
            madeByLoad<R, &ksFcb::byLayerHandle, &ksFcb::byBlockHandle>, linetypeDashes};
}
template <>
Table<ksStyle> table()
{
    using R = ksStyle;
    return {"STYLE", ksListShapeFiles, 5,
            {FLAGS(70, flags, 1 | 4 | 16), NUM(40, height), NUM(41, widthFactor), NUM(42, lastHeight),
             ANGLE(50, obliqueAngle), NUM(71, generation), TEXT(3, fontFile), TEXT(4, bigFont), REF(330, ownerHandle)}};
}
template <>
Table<ksVport> table()
{
    using R = ksVport;
    return {"VPORT", ksListVports, 5,
            {P2(10, lowerLeft), P2(11, upperRight), P2(13, snapBase), P2(14, snapSpacing), P2(15, gridSpacing),
             P3(16, direction), P3(17, target), NUM(42, lensLength), NUM(43, frontClip), NUM(44, backClip),
             ANGLE(50, snapAngle), ANGLE(51, twist), NUM(71, viewMode), NUM(72, circleZoom), NUM(73, fastZoom),
             NUM(74, ucsIcon), NUM(75, snapOn), NUM(76, gridOn), NUM(77, snapStyle), NUM(78, snapIsoPair),
             NUM(281, renderMode), NUM(65, ucsFollow), P3(110, ucsOrigin), P3(111, ucsXAxis), P3(112, ucsYAxis),
             NUM(79, orthoType), NUM(146, elevation), REF(330, ownerHandle), REF(345, baseUcsHandle),
             REF(346, namedUcsHandle)}};
}
template <>
Table<ksView> table()
{
    using R = ksView;
    return {"VIEW", ksListViews, 5,
            {NUM(40, height), NUM(41, width), P2(10, center), P3(11, direction), P3(12, target),
             NUM(42, lensLength), NUM(43, frontClip), NUM(44, backClip), ANGLE(50, twist), NUM(71, viewMode),
             FLAGS(70, flags, 1), NUM(281, renderMode), NUM(72, ucsAssociated), P3(110, ucsOrigin),
             P3(111, ucsXAxis), P3(112, ucsYAxis), NUM(79, orthoType), NUM(146, elevation), REF(330, ownerHandle),
             REF(345, baseUcsHandle), REF(346, namedUcsHandle)}};
}
template <>
Table<ksDimstyle> table()
{
    using R = ksDimstyle;
    return {"DIMSTYLE", ksListDimStyles, 105,
            {NUM(40, DIMSCALE),  NUM(41, DIMASZ),    NUM(42, DIMEXO),   NUM(43, DIMDLI),   NUM(44, DIMEXE),
             NUM(45, DIMRND),    NUM(46, DIMDLE),    NUM(47, DIMTP),    NUM(48, DIMTM),    NUM(140, DIMTXT),
             NUM(141, DIMCEN),   NUM(142, DIMTSZ),   NUM(143, DIMALTF), NUM(144, DIMLFAC), NUM(145, DIMTVP),
             NUM(146, DIMTFAC),  NUM(147, DIMGAP),   NUM(148, DIMALTRND), NUM(71, DIMTOL), NUM(72, DIMLIM),
             NUM(73, DIMTIH),    NUM(74, DIMTOH),    NUM(75, DIMSE1),   NUM(76, DIMSE2),   NUM(77, DIMTAD),
             NUM(78, DIMZIN),    NUM(79, DIMAZIN),   NUM(170, DIMALT),  NUM(171, DIMALTD), NUM(172, DIMTOFL),
             NUM(173, DIMSAH),   NUM(174, DIMTIX),   NUM(175, DIMSOXD), NUM(176, DIMCLRD), NUM(177, DIMCLRE),
             NUM(178, DIMCLRT),  NUM(179, DIMADEC),  NUM(271, DIMDEC),  NUM(272, DIMTDEC), NUM(273, DIMALTU),
             NUM(274, DIMALTTD), NUM(275, DIMAUNIT), NUM(276, DIMFRAC), NUM(277, DIMUNIT), NUM(278, DIMDSEP),
             NUM(279, DIMTMOVE), NUM(280, DIMJUST),  NUM(281, DIMSD1),  NUM(282, DIMSD2),  NUM(283, DIMTOLJ),
             NUM(284, DIMTZIN),  NUM(285, DIMALTZ),  NUM(286, DIMALTTZ), NUM(288, DIMUPT), NUM(371, DIMLWD),
             NUM(372, DIMLWE),   TEXT(3, DIMPOST),   TEXT(4, DIMAPOST), REF(330, ownerHandle), REF(340, DIMTXSTY),
             REF(341, DIMLDRBLK), REF(342, DIMBLK),  REF(343, DIMBLK1), REF(344, DIMBLK2)}};
}
template <>
Table<ksBlockHeader> table()
{
    using R = ksBlockHeader;
    return {"BLOCK_RECORD", ksListBlockHeaders, 5, {REF(330, ownerHandle), REF(340, layoutHandle)},
            madeByLoad<R, &ksFcb::modelBlockHandle, &ksFcb::paperBlockHandle>};
}

TEST_F(DwgTablesTest, EntriesMatchTheDxfExportOfTheSameDrawing)
{
    ZT_REQUIRE_CORPUS();
    constexpr struct {
        const char* dwg;
        const char* dxf;
        Pair kind;
    } kPairs[] = {
        {"AC1012/example_r13.dwg", "AC1012/libredwg_example_r13.dxf", Pair::same},
        {"AC1014/example_r14.dwg", "AC1014/libredwg_example_r14.dxf", Pair::same},
        {"AC1014/v.dwg", "AC1012/v.dxf", Pair::same},
        {"AC1015/Constraints.dwg", "AC1015/Constraints.dxf", Pair::same},
        {"AC1015/TS1.dwg", "AC1015/libredwg_TS1.dxf", Pair::same},
        {"AC1015/circle_2000.dwg", "AC1015/circle_2000.dxf", Pair::same},
        {"AC1015/libredwg_entities-2d.dwg", "AC1015/libredwg_entities-2d.dxf", Pair::same},
        {"AC1015/libredwg_sample_2000.dwg", "AC1015/libredwg_sample_2000.dxf", Pair::same},
        {"AC1015/libredwg_test-data_example_2000.dwg", "AC1015/libredwg_test-data_example_2000.dxf", Pair::same},
        {"AC1015/line_2000.dwg", "AC1015/line_2000.dxf", Pair::same},
        {"AC1015/mtext_2000.dwg", "AC1015/mtext_2000.dxf", Pair::same},
        {"AC1015/point2d_2000.dwg", "AC1015/point2d_2000.dxf", Pair::same},
        {"AC1015/polyline2d_line_2000.dwg", "AC1015/polyline2d_line_2000.dxf", Pair::same},
        {"AC1015/text_2000.dwg", "AC1015/text_2000.dxf", Pair::same},
        // Linetypes with dashes and texts, a view with its own UCS.
        {"AC1015/acadsharp_sample_AC1015.dwg", "AC1015/acadsharp_sample_AC1015_ascii.dxf", Pair::laterRevision},
        {"AC1015/acadsharp_samples_sample_AC1015.dwg", "AC1015/acadsharp_samples_sample_AC1015_ascii.dxf",
         Pair::laterRevision},
    };
    for (const auto& p : kPairs) {
        ASSERT_EQ(load(corpusDir() / "dwg" / p.dwg), "") << p.dwg;
        const DxfTables dxf = readDxfTables(corpusDir() / "dxf" / p.dxf);
        const std::string pair = std::string(p.dwg) + " ~ " + p.dxf;
        // The layers under the same handles and names make one drawing; a
        // later revision may have added a few.
        ASSERT_TRUE(dxf.contains("LAYER")) << pair;
        const int missing = compare(fcb, dxf, table<ksLayer>(), pair, p.kind);
        EXPECT_LE(missing * 4, p.kind == Pair::same ? 0 : int(dxf.at("LAYER").size())) << pair;
        compare(fcb, dxf, table<ksLinetype>(), pair, p.kind);
        compare(fcb, dxf, table<ksStyle>(), pair, p.kind);
        compare(fcb, dxf, table<ksVport>(), pair, p.kind);
        compare(fcb, dxf, table<ksView>(), pair, p.kind);
        compare(fcb, dxf, table<ksDimstyle>(), pair, p.kind);
        compare(fcb, dxf, table<ksBlockHeader>(), pair, p.kind);
    }
}

// ---- Block headers and viewport entity headers

// Every block header names its BLOCK (4) and ENDBLK (5), and both or
// neither of its first and last entities; none for an external reference.
TEST_F(DwgTablesTest, BlockHeadersNameTheirBlockAndEndblk)
{
    ZT_REQUIRE_CORPUS();
    for (const std::string& path : newDwgs()) {
        ASSERT_EQ(load(corpusDir() / path), "") << path;
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
    }
}

// The first header read gets id 0; a later one that is on takes 1 + its
// viewport's place along the chain from the header section, which in these
// drawings is the list's order. Each viewport handle names a VIEWPORT (34).
TEST_F(DwgTablesTest, ViewportEntityHeadersTakeTheirIdsFromTheChain)
{
    ZT_REQUIRE_CORPUS();
    int drawings = 0;
    for (const std::string& path : newDwgs()) {
        ASSERT_EQ(load(corpusDir() / path), "") << path;
        const int32_t count = fcb->tableCount[ksHeadVpEntHeaders];
        if (count == 0)
            continue;
        ++drawings;
        ASSERT_EQ(ksOpStartVpEntHeaders(fcb), 1) << path;
        for (int16_t i = 0; i < count; ++i) {
            ksVpEntHeader header{};
            ASSERT_EQ(ksOpReadVpEntHeader(fcb, &header), 1) << path;
            EXPECT_EQ(header.deleted, 0) << path;
            EXPECT_EQ(header.viewportId, i) << path;
            if (i > 0) {
                ASSERT_EQ(ksSeekHandle(fcb, header.viewportHandle), 1) << path << " header " << i;
                EXPECT_EQ(ksPeekObjectType(fcb), 34) << path << " header " << i;
            }
        }
        ksVpEntHeader past{};
        EXPECT_EQ(ksOpReadVpEntHeader(fcb, &past), 0) << path << ": a read past the list";
    }
    EXPECT_GT(drawings, 0);
}

// ---- Damage

// Bytes flipped inside the table entries of real drawings: the phases go
// through or fail with an error number; none reads outside an object (the
// sanitizer build checks that) or runs away on a count.
TEST_F(DwgTablesTest, DamagedEntriesLoadOrFail)
{
    ZT_REQUIRE_CORPUS();
    TempDir dir;
    std::mt19937 rng(7);
    for (const char* name : {"dwg/AC1012/example_r13.dwg", "dwg/AC1014/acadsharp_sample_AC1014.dwg",
                             "dwg/AC1015/acadsharp_sample_AC1015.dwg"}) {
        const std::vector<uint8_t> whole = readFile(corpusDir() / name);
        ASSERT_EQ(load(corpusDir() / name), "") << name;
        // Each entry's bytes behind its size word.
        std::vector<std::pair<uint32_t, uint32_t>> spans;
        ksDwgState& st = *ksDwg(fcb);
        for (int table = 0; table < ksTableHeadCount; ++table) {
            ksBeginTable(fcb, table, false);
            for (const ksObjHandle& h : st.tableEntries) {
                if (ksSeekHandle(fcb, h) && st.pos + 4 < whole.size())
                    spans.emplace_back(st.pos + 2, std::min<uint32_t>(whole[st.pos] | (whole[st.pos + 1] & 0x7f) << 8,
                                                                      uint32_t(whole.size()) - st.pos - 2));
            }
        }
        ASSERT_GT(spans.size(), 20u) << name;
        for (int round = 0; round < 80; ++round) {
            std::vector<uint8_t> bytes = whole;
            const auto [from, size] = spans[rng() % spans.size()];
            for (int flips = 1 + int(rng() % 3); flips > 0 && size > 0; --flips)
                bytes[from + rng() % size] ^= uint8_t(1 + rng() % 255);
            writeFile(dir / "damaged.dwg", bytes);
            if (const std::string failure = load(dir / "damaged.dwg"); !failure.empty()) {
                EXPECT_NE(ksG->errorNumber, 0) << name << " round " << round << ": " << failure;
            }
        }
    }
}

}  // namespace
