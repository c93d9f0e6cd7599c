// The header section of R13, R14 and R2000 drawings: real files against
// DXF exports of the same drawings, and streams made here for the cases
// that the files don't show (the R2000 flag bits, dropped bits, a stream
// that ends early).
#include "dwgread/headervars.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <map>
#include <numbers>
#include <set>
#include <string>
#include <vector>

#include "dwgread/bitcodes.h"
#include "dwgread/dwgfile.h"
#include "dwgread/ops.h"
#include "support/fixtures.h"
#include "support/support.h"

namespace {

namespace fs = std::filesystem;

uint64_t value(const ksObjHandle& h)
{
    uint64_t v = 0;
    for (uint8_t b : h.bytes)
        v = (v << 8) | b;
    return v;
}

std::string upper(std::string s)
{
    for (char& c : s)
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return s;
}

// ---------------------------------------------------------------------------
// What a DXF file tells: the HEADER variables, and the handles of the
// tables, their entries and the dictionaries.

struct DxfFacts {
    std::map<std::string, std::vector<std::pair<int, std::string>>> vars;  // without '$'
    std::map<std::string, uint64_t> tables;   // "LAYER" -> the table's handle
    std::map<std::string, uint64_t> entries;  // "LAYER/0" (upper case) -> handle
    std::map<uint64_t, std::map<std::string, uint64_t>> dictionaries;
    uint64_t rootDictionary = 0;  // the first dictionary of OBJECTS

    uint64_t entry(const std::string& table, const std::string& name) const
    {
        auto it = entries.find(table + "/" + upper(name));
        return it == entries.end() ? 0 : it->second;
    }
    uint64_t member(uint64_t dictionary, const std::string& name) const
    {
        auto d = dictionaries.find(dictionary);
        if (d == dictionaries.end())
            return 0;
        auto it = d->second.find(name);
        return it == d->second.end() ? 0 : it->second;
    }
    std::string text(const std::string& var) const
    {
        auto it = vars.find(var);
        return it == vars.end() || it->second.empty() ? std::string() : it->second[0].second;
    }
};

DxfFacts readDxf(const fs::path& file)
{
    const std::vector<uint8_t> bytes = zt::readFile(file);
    std::vector<std::string> lines(1);
    for (uint8_t b : bytes) {
        if (b == '\n')
            lines.emplace_back();
        else if (b != '\r')
            lines.back() += static_cast<char>(b);
    }
    auto trim = [](const std::string& s) {
        const size_t a = s.find_first_not_of(' ');
        return a == std::string::npos ? std::string() : s.substr(a, s.find_last_not_of(' ') - a + 1);
    };

    DxfFacts dxf;
    std::string section, record, var, name, trueName, member, application;
    uint64_t handle = 0;
    bool sectionName = false;  // the next group 2 names a section
    // A record ends at the next group 0; then what it named is noted.
    auto finish = [&] {
        if (record == "TABLE") {
            dxf.tables[name] = handle;
        } else if (section == "TABLES") {
            dxf.entries[record + "/" + upper(name)] = handle;
            if (!trueName.empty())
                dxf.entries[record + "/" + upper(trueName)] = handle;
        } else if (record == "DICTIONARY" && section == "OBJECTS" && dxf.rootDictionary == 0) {
            dxf.rootDictionary = handle;
        }
        name.clear();
        trueName.clear();
        handle = 0;
    };
    for (size_t i = 0; i + 1 < lines.size(); i += 2) {
        const int code = std::atoi(lines[i].c_str());
        const std::string v = trim(lines[i + 1]);
        if (code == 0) {
            finish();
            record = v;
            sectionName = v == "SECTION";
            continue;
        }
        if (sectionName && code == 2) {
            section = v;
            sectionName = false;
            continue;
        }
        if (section == "HEADER") {
            if (code == 9)
                var = v.substr(1);
            else
                dxf.vars[var].emplace_back(code, v);
            continue;
        }
        if (code == 2 && name.empty())
            name = v;
        else if ((code == 5 || code == 105) && handle == 0)
            handle = std::strtoull(v.c_str(), nullptr, 16);
        else if (code == 1001)
            application = v;
        else if (code == 1000 && application == "ACDBDYNAMICBLOCKTRUENAME2")
            trueName = v;  // some exports rename the spaces' block records "*U"
        else if (record == "DICTIONARY" && code == 3)
            member = v;
        else if (record == "DICTIONARY" && (code == 350 || code == 360) && handle != 0)
            dxf.dictionaries[handle][member] = std::strtoull(v.c_str(), nullptr, 16);
    }
    finish();
    return dxf;
}

// ---------------------------------------------------------------------------
// Drawings of the corpus that have a DXF export of the same save. Each pair
// was checked to be one drawing: equal $TDCREATE, or one that differs by
// whole hours (the exporter wrote local time) and equals $TDUCREATE.
//
// The variables that change whenever a drawing is saved are not compared:
// $TDUPDATE, $TDINDWG, $TDUSRTIMER, $VERSIONGUID and $HANDSEED (the
// exporter made objects of its own). `differ` names the other variables in
// which the export is not the drawing, and why.
struct Pair {
    const char* dwg;
    const char* dxf;
    std::set<std::string> differ;
};

const Pair kPairs[] = {
    {"dwg/AC1012/example_r13.dwg", "dxf/AC1012/libredwg_example_r13.dxf", {}},
    // R14: the exporter has no ATTDIA in its drawings and writes its own.
    {"dwg/AC1014/example_r14.dwg", "dxf/AC1014/libredwg_example_r14.dxf", {"ATTDIA"}},
    {"dwg/AC1014/v.dwg", "dxf/AC1012/v.dxf", {}},
    {"dwg/AC1015/line_2000.dwg", "dxf/AC1015/line_2000.dxf", {}},
    {"dwg/AC1015/circle_2000.dwg", "dxf/AC1015/circle_2000.dxf", {}},
    {"dwg/AC1015/text_2000.dwg", "dxf/AC1015/text_2000.dxf", {}},
    {"dwg/AC1015/mtext_2000.dwg", "dxf/AC1015/mtext_2000.dxf", {}},
    {"dwg/AC1015/point2d_2000.dwg", "dxf/AC1015/point2d_2000.dxf", {}},
    {"dwg/AC1015/polyline2d_line_2000.dwg", "dxf/AC1015/polyline2d_line_2000.dxf", {}},
    {"dwg/AC1015/Constraints.dwg", "dxf/AC1015/Constraints.dxf", {}},
    {"dwg/AC1015/libredwg_entities-2d.dwg", "dxf/AC1015/libredwg_entities-2d.dxf", {}},
    // The exporter computed the extents anew.
    {"dwg/AC1015/libredwg_test-data_example_2000.dwg", "dxf/AC1015/libredwg_test-data_example_2000.dxf",
     {"EXTMIN", "EXTMAX"}},
    {"dwg/AC1015/libredwg_sample_2000.dwg", "dxf/AC1015/libredwg_sample_2000.dxf", {"EXTMIN", "EXTMAX"}},
    {"dwg/AC1015/TS1.dwg", "dxf/AC1015/libredwg_TS1.dxf", {"EXTMIN", "EXTMAX"}},
    {"dwg/AC1015/acadsharp_sample_AC1015.dwg", "dxf/AC1015/acadsharp_sample_AC1015_ascii.dxf", {}},
};

const std::set<std::string> kChangedBySaving = {"TDUPDATE", "TDINDWG", "TDUSRTIMER", "VERSIONGUID", "HANDSEED"};

// Whether the section of this form holds the field at `offset`.
bool formHolds(size_t offset, uint8_t form)
{
    for (const ksHeaderItem& item : ksHeaderItems)
        if ((item.forms & form) && item.target == ksHtField && item.code != ksHcFlags && item.offset == offset)
            return true;
    if (form == ksHfR2000)
        for (const ksHeaderFlagBit& bit : ksHeaderFlagBits)
            if (bit.offset == offset)
                return true;
    return false;
}

bool nearValue(double ours, double reference)
{
    // The exports of R13 write six decimals.
    return std::fabs(ours - reference) <= 1e-6 * std::max(1.0, std::fabs(reference));
}

class DwgHeaderVars : public zt::DrawingTest {
protected:
    // The drawing opened by the file-open operation; null when that fails.
    ksFcb* open(const fs::path& file)
    {
        ksFcb* d = newDrawing(true);
        if (d == nullptr || file.string().size() >= ksPathMax)
            return nullptr;
        std::strcpy(d->fileName, file.string().c_str());
        d->file = ksFileOpenRead(d->fileName);
        if (d->file == nullptr)
            return nullptr;
        d->ops = &ksG->dwgOps;
        return ksDwgReadHeader(d) == 1 ? d : nullptr;
    }
};

// Every variable that both the export and the section hold, by its kind.
// Returns the number compared.
int compareVariables(const ksHeader& h, const DxfFacts& dxf, const Pair& pair, uint8_t form)
{
    int compared = 0;
    for (const auto& [name, groups] : dxf.vars) {
        const ksHeaderVar* var = ksHeaderVarFind(name);
        if (var == nullptr || groups.empty() || kChangedBySaving.count(name) || pair.differ.count(name))
            continue;
        const auto* field = static_cast<const uint8_t*>(ksHeaderVarField(&h, var));
        if (!formHolds(static_cast<size_t>(field - reinterpret_cast<const uint8_t*>(&h)), form))
            continue;
        const std::string& text = groups[0].second;
        SCOPED_TRACE("$" + name + " = " + text);
        switch (var->kind) {
        case ksHvByte:
        case ksHvShort:
        case ksHvShortIndex:
        case ksHvLowByte:
            EXPECT_EQ(ksHeaderVarGetInt(&h, var), std::atoi(text.c_str()));
            break;
        case ksHvReal:
        case ksHvRealIndex: {
            double reference = std::atof(text.c_str());
            if (var->group == 50)  // angles: degrees in DXF
                reference *= std::numbers::pi / 180.0;
            EXPECT_PRED2(nearValue, ksHeaderVarGetReal(&h, var), reference);
            break;
        }
        case ksHvPoint2:
        case ksHvPoint3: {
            double ours[3];
            std::memcpy(ours, field, var->kind == ksHvPoint2 ? 16 : 24);
            for (const auto& [code, v] : groups) {
                const int axis = (code - var->group) / 10;
                if (axis >= 0 && axis < (var->kind == ksHvPoint2 ? 2 : 3)) {
                    EXPECT_PRED2(nearValue, ours[axis], std::atof(v.c_str())) << "axis " << axis;
                }
            }
            break;
        }
        case ksHvText:
            EXPECT_STREQ(reinterpret_cast<const char*>(field), text.c_str());
            break;
        case ksHvDate: {
            // The creation date: the export's local time, whole hours (to
            // a few seconds) from what the drawing holds.
            ksDate date;
            std::memcpy(&date, field, sizeof date);
            const double hours = (std::atof(text.c_str()) - (date.days + date.milliseconds / 86400000.0)) * 24.0;
            EXPECT_NEAR(hours, std::round(hours), 1e-3);
            EXPECT_LE(std::fabs(hours), 14.0);
            break;
        }
        default: ADD_FAILURE() << "kind not compared"; break;
        }
        ++compared;
    }
    return compared;
}

// The handles of the section against the tables and dictionaries of the
// export.
void compareHandles(ksFcb* fcb, const DxfFacts& dxf, uint8_t form)
{
    const ksDwgState& st = *ksDwg(fcb);
    const ksHeader& h = *fcb->header;
    const struct {
        const char* table;
        int head;
    } controls[] = {
        {"BLOCK_RECORD", ksHeadBlocks}, {"LAYER", ksHeadLayers}, {"STYLE", ksHeadStyles},
        {"LTYPE", ksHeadLinetypes},     {"VIEW", ksHeadViews},   {"UCS", ksHeadUcses},
        {"VPORT", ksHeadVports},        {"APPID", ksHeadAppids}, {"DIMSTYLE", ksHeadDimstyles},
    };
    for (const auto& c : controls)
        EXPECT_EQ(value(st.controls[c.head]), dxf.tables.count(c.table) ? dxf.tables.at(c.table) : 0)
            << c.table << " control";

    const uint64_t mlineStyles = dxf.member(dxf.rootDictionary, "ACAD_MLINESTYLE");
    const struct {
        const char* what;
        const ksObjHandle& ours;
        uint64_t expected;
        bool mayBeNull = false;
    } handles[] = {
        {"BYLAYER", st.byLayer, dxf.entry("LTYPE", "BYLAYER")},
        {"BYBLOCK", st.byBlock, dxf.entry("LTYPE", "BYBLOCK")},
        {"CONTINUOUS", st.continuous, dxf.entry("LTYPE", "CONTINUOUS")},
        {"*MODEL_SPACE", st.modelBlockHeader, dxf.entry("BLOCK_RECORD", "*MODEL_SPACE")},
        {"*PAPER_SPACE", st.paperBlockHeader, dxf.entry("BLOCK_RECORD", "*PAPER_SPACE")},
        {"named objects", st.namedObjects, dxf.rootDictionary},
        {"ACAD_GROUP", st.groupDictionary, dxf.member(dxf.rootDictionary, "ACAD_GROUP")},
        {"ACAD_MLINESTYLE", st.mlineStyleDictionary, mlineStyles},
        {"$CLAYER", h.CLAYER, dxf.entry("LAYER", dxf.text("CLAYER"))},
        {"$TEXTSTYLE", h.TEXTSTYLE, dxf.entry("STYLE", dxf.text("TEXTSTYLE"))},
        {"$CELTYPE", h.CELTYPE, dxf.entry("LTYPE", dxf.text("CELTYPE"))},
        {"$DIMSTYLE", h.DIMSTYLE, dxf.entry("DIMSTYLE", dxf.text("DIMSTYLE"))},
        {"$DIMTXSTY", h.DIMTXSTY, dxf.entry("STYLE", dxf.text("DIMTXSTY"))},
        {"$CMLSTYLE", h.CMLSTYLE, dxf.member(mlineStyles, dxf.text("CMLSTYLE"))},
        {"$UCSNAME", h.UCSNAME, dxf.entry("UCS", dxf.text("UCSNAME")), dxf.text("UCSNAME").empty()},
    };
    for (const auto& x : handles) {
        if (!x.mayBeNull) {
            EXPECT_NE(x.expected, 0u) << x.what << " not found in the export";
        }
        EXPECT_EQ(value(x.ours), x.expected) << x.what;
    }
    if (form == ksHfR2000) {
        EXPECT_EQ(value(st.layoutDictionary), dxf.member(dxf.rootDictionary, "ACAD_LAYOUT"));
        EXPECT_EQ(value(st.plotSettingsDictionary), dxf.member(dxf.rootDictionary, "ACAD_PLOTSETTINGS"));
        EXPECT_EQ(value(st.plotStyleDictionary), dxf.member(dxf.rootDictionary, "ACAD_PLOTSTYLENAME"));
        // R2000 holds the arrow blocks by handle; the export names them
        // without the '_' that their block records have.
        const std::pair<const char*, const ksObjHandle&> arrows[] = {
            {"DIMBLK", h.dimblkHandle}, {"DIMBLK1", h.dimblk1Handle},
            {"DIMBLK2", h.dimblk2Handle}, {"DIMLDRBLK", h.dimldrblkHandle},
        };
        for (const auto& [var, ours] : arrows) {
            std::string record(1, '_');
            record += dxf.text(var);
            EXPECT_EQ(value(ours), record.size() == 1 ? 0 : dxf.entry("BLOCK_RECORD", record)) << var;
        }
    }

    // The copies in the drawing block.
    const ksObjHandle* fcbControls[ksTableHeadCount] = {
        &fcb->blockControlHandle, &fcb->layerControlHandle, &fcb->shapeFileControlHandle,
        &fcb->linetypeControlHandle, &fcb->viewControlHandle, &fcb->ucsControlHandle,
        &fcb->vportControlHandle, &fcb->regAppControlHandle, &fcb->dimStyleControlHandle,
        &fcb->vpEntControlHandle,
    };
    for (int i = 0; i < ksTableHeadCount; ++i)
        EXPECT_EQ(value(*fcbControls[i]), value(st.controls[i])) << "control " << i;
    EXPECT_EQ(value(fcb->modelBlockHandle), value(st.modelBlockHeader));
    EXPECT_EQ(value(fcb->paperBlockHandle), value(st.paperBlockHeader));
    EXPECT_EQ(value(fcb->byLayerHandle), value(st.byLayer));
    EXPECT_EQ(value(fcb->byBlockHandle), value(st.byBlock));
    EXPECT_EQ(value(ksG->continuousHandle), value(st.continuous));
    EXPECT_EQ(value(fcb->handleSeed), value(h.HANDSEED));
    EXPECT_NE(value(h.HANDSEED), 0u);
    EXPECT_EQ(h.HANDLING, 1);
    EXPECT_EQ(fcb->handlesEnabled, 1);
}

TEST_F(DwgHeaderVars, AgreesWithDxfExportsOfTheSameDrawings)
{
    ZT_REQUIRE_CORPUS();
    for (const Pair& pair : kPairs) {
        SCOPED_TRACE(pair.dwg);
        const fs::path dwgPath = zt::corpusDir() / pair.dwg;
        const fs::path dxfPath = zt::corpusDir() / pair.dxf;
        ASSERT_TRUE(fs::exists(dwgPath) && fs::exists(dxfPath)) << "corpus lacks the pair";
        ksFcb* fcb = open(dwgPath);
        if (fcb == nullptr) {
            ADD_FAILURE() << "not opened, error " << ksG->errorNumber;
            continue;
        }
        const uint8_t form = ksHeaderForm(fcb->fileVersion);
        const DxfFacts dxf = readDxf(dxfPath);

        // A spread of every kind: the R2000 exports hold some 170
        // variables that the section has, the R13 and R14 ones some 145.
        EXPECT_GE(compareVariables(*fcb->header, dxf, pair, form), form == ksHfR2000 ? 160 : 140);
        compareHandles(fcb, dxf, form);

        // Where the export has the creation date in universal time, it is
        // what the drawing holds, to the millisecond.
        if (dxf.vars.count("TDUCREATE")) {
            const ksDate& d = fcb->header->TDCREATE;
            EXPECT_NEAR(d.days + d.milliseconds / 86400000.0, std::atof(dxf.text("TDUCREATE").c_str()), 2e-8);
        }
    }
}

// ---------------------------------------------------------------------------
// Streams made here: every item of a form written as zero, except the
// values given by name.

struct Stream {
    std::vector<uint8_t> bytes;  // with 8 bytes of padding behind
    uint64_t bits = 0;
};

Stream makeStream(uint8_t form, const std::map<std::string, int32_t>& values, bool dropsSet = false)
{
    ksBitWriter w{};
    ksResetBits(w, form == ksHfR2000 ? ksAC1015 : ksAC1014);
    for (const ksHeaderItem& item : ksHeaderItems) {
        if ((item.forms & form) == 0)
            continue;
        auto it = values.find(item.name);
        const int32_t v = it != values.end() ? it->second : (item.target == ksHtDrop && dropsSet ? 1 : 0);
        switch (item.code) {
        case ksHcB: ksWriteBit(w, v); break;
        case ksHcRC: ksWriteRC(w, static_cast<uint8_t>(v)); break;
        case ksHcBS: ksWriteBS(w, static_cast<uint16_t>(v)); break;
        case ksHcBL:
        case ksHcFlags: ksWriteBL(w, static_cast<uint32_t>(v)); break;
        case ksHcBD: ksWriteBD(w, v); break;
        case ksHcT: ksWriteText(w, std::string(static_cast<size_t>(v), 'x').c_str()); break;
        case ksHcH: {
            ksObjHandle h{};
            h.bytes[7] = static_cast<uint8_t>(v);
            ksWriteHandle(w, h, 0x50);
            break;
        }
        case ksHc2RD: ksWrite2RD(w, ksPoint2{}); break;
        case ksHc3BD: ksWrite3BD(w, ksPoint3{}); break;
        case ksHcDate:
            ksWriteBL(w, static_cast<uint32_t>(v));
            ksWriteBL(w, 0);
            break;
        }
    }
    EXPECT_EQ(w.failed, 0);
    Stream s;
    s.bits = w.bitPos;
    const size_t n = ksBitWriterBytes(w);
    s.bytes = std::vector<uint8_t>(n + 8, 0);
    if (n > 0)
        std::memcpy(s.bytes.data(), w.data, n);
    ksBitWriterFree(w);
    return s;
}

class DwgHeaderStream : public zt::DrawingTest {
protected:
    void SetUp() override
    {
        withHeader = true;
        ASSERT_NO_FATAL_FAILURE(zt::DrawingTest::SetUp());
        fcb->dwgState = &state;
    }
    void TearDown() override
    {
        fcb->dwgState = nullptr;
        zt::DrawingTest::TearDown();
    }
    int16_t read(int16_t version, const Stream& s, uint64_t bits = UINT64_MAX)
    {
        fcb->fileVersion = version;
        ksBitReader r{};
        ksBitReaderOpen(r, s.bytes.data(), s.bytes.size() - 8, 0);
        r.bitEnd = std::min(bits, s.bits);
        return ksDwgReadHeaderVars(fcb, r);
    }
    ksDwgState state;
};

TEST_F(DwgHeaderStream, FlagsOfR2000)
{
    const struct {
        int32_t flags;
        int celweight, endcaps, joinstyle, lwdisplay, xedit, extnames, pstylemode, olestartup;
    } cases[] = {
        {0, 0, 0, 0, 1, 1, 0, 0, 0},
        {0x200, 0, 0, 0, 0, 1, 0, 0, 0},  // bit 9 set: lineweights not shown
        {0x400, 0, 0, 0, 1, 0, 0, 0, 0},
        {29, -1, 0, 0, 1, 1, 0, 0, 0},    // BYLAYER
        {25, 0, 0, 0, 1, 1, 0, 0, 0},
        {28, 28, 0, 0, 1, 1, 0, 0, 0},
        {31 | 2 << 5 | 3 << 7, -3, 2, 3, 1, 1, 0, 0, 0},
        {0x800 | 0x1000 | 0x2000 | 0x4000, 0, 0, 0, 1, 1, 1, 1, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.flags);
        ksHeaderSetDefaults(fcb->header);
        fcb->header->EXTNAMES = 0;
        ASSERT_EQ(read(ksAC1015, makeStream(ksHfR2000, {{"flags", c.flags}})), 1);
        const ksHeader& h = *fcb->header;
        EXPECT_EQ(h.CELWEIGHT, c.celweight);
        EXPECT_EQ(h.ENDCAPS, c.endcaps);
        EXPECT_EQ(h.JOINSTYLE, c.joinstyle);
        EXPECT_EQ(h.LWDISPLAY, c.lwdisplay);
        EXPECT_EQ(h.XEDIT, c.xedit);
        EXPECT_EQ(h.EXTNAMES, c.extnames);
        EXPECT_EQ(h.PSTYLEMODE, c.pstylemode);
        EXPECT_EQ(h.OLESTARTUP, c.olestartup);
    }
}

TEST(DwgLineweight, IndexTable)
{
    const int expected[][2] = {{0, 0}, {1, 5}, {12, 53}, {23, 211}, {24, 0}, {27, 0},
                               {28, 28}, {29, -1}, {30, -2}, {31, -3}, {-1, 0}, {32, 0}};
    for (const auto& e : expected)
        EXPECT_EQ(ksLineweightFromIndex(e[0]), e[1]) << "index " << e[0];
}

TEST_F(DwgHeaderStream, FormsOfR13AndR2000)
{
    // R13: DIMFIT is a byte that replaces the low byte of its field; the
    // two dropped bits change nothing; a zero seed still turns handles on.
    const std::map<std::string, int32_t> r13 = {{"DIMFIT", 0x34}, {"DIMTAD", 0xFF}, {"DELOBJ", 0}};
    fcb->header->DIMATFIT = 0x0100;
    fcb->header->HANDLING = 0;
    ASSERT_EQ(read(ksAC1012, makeStream(ksHfR13, r13)), 1);
    EXPECT_EQ(fcb->header->DIMATFIT, 0x0134);
    EXPECT_EQ(fcb->header->DIMTAD, -1);
    EXPECT_EQ(fcb->header->DELOBJ, 0);
    EXPECT_EQ(fcb->header->HANDLING, 1);
    EXPECT_EQ(fcb->handlesEnabled, 1);
    const ksHeader dropsClear = *fcb->header;
    ASSERT_EQ(read(ksAC1014, makeStream(ksHfR13, r13, true)), 1);
    EXPECT_EQ(std::memcmp(&dropsClear, fcb->header, sizeof dropsClear), 0);

    // R2000: DIMATFIT takes 16 bits, DIMLWD is a plain number, not a
    // lineweight index; what the form doesn't hold keeps its default.
    ksHeaderSetDefaults(fcb->header);
    ASSERT_EQ(read(ksAC1015, makeStream(ksHfR2000, {{"DIMATFIT", 0x1234}, {"DIMLWD", 29},
                                                    {"named objects dictionary", 0x42}})),
              1);
    EXPECT_EQ(fcb->header->DIMATFIT, 0x1234);
    EXPECT_EQ(fcb->header->DIMLWD, 29);
    EXPECT_EQ(fcb->header->DELOBJ, 1);
    EXPECT_EQ(fcb->header->ATTREQ, 1);
    EXPECT_EQ(value(state.namedObjects), 0x42u);
}

TEST_F(DwgHeaderStream, BadStreamsChangeNothing)
{
    const Stream good = makeStream(ksHfR2000, {{"TDCREATE", 2451545}, {"BYBLOCK linetype", 0x14}});
    const ksHeader before = *fcb->header;
    for (uint64_t bits : {uint64_t{0}, uint64_t{100}, good.bits - 1}) {
        SCOPED_TRACE(bits);
        EXPECT_EQ(read(ksAC1015, good, bits), 0);
        EXPECT_EQ(std::memcmp(&before, fcb->header, sizeof before), 0);
        EXPECT_EQ(value(state.byBlock), 0u);
    }
    // A text longer than its limit.
    EXPECT_EQ(read(ksAC1015, makeStream(ksHfR2000, {{"FINGERPRINTGUID", 40}})), 0);
    EXPECT_EQ(read(ksAC1015, makeStream(ksHfR2000, {{"FINGERPRINTGUID", 39}})), 1);
    EXPECT_EQ(std::strlen(fcb->header->FINGERPRINTGUID), 38u);  // cut to its field
    // Not a release of this section.
    EXPECT_EQ(read(ksAC1009, good), 0);
}

}  // namespace
