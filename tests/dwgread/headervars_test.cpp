// The header section of R13, R14 and R2000 drawings: real files against
// DXF exports of the same drawings, and streams made here for what the
// files don't show (the R2000 flag bits, dropped bits, a stream that ends
// early).
#include "dwgread/headervars.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <map>
#include <numbers>
#include <set>

#include "dwgread/bitcodes.h"
#include "dwgread/dwgfile.h"
#include "dwgread/ops.h"
#include "store/handles.h"
#include "support/dwgtest.h"

namespace {

using namespace zt;

uint64_t U(const ksObjHandle& h) { return ksHandleToU64(h); }

// Whether the section of this form holds the field at `offset`.
bool formHolds(size_t offset, uint8_t form)
{
    for (const ksHeaderItem& item : ksHeaderItems)
        if ((item.forms & form) && item.target == ksHtField && item.code != ksHcFlags && item.offset == offset)
            return true;
    return form == ksHfR2000 && std::ranges::any_of(ksHeaderFlagBits, [&](auto& b) { return b.offset == offset; });
}

// The exports of R13 write six decimals.
bool nearValue(double ours, double reference)
{
    return std::fabs(ours - reference) <= 1e-6 * std::max(1.0, std::fabs(reference));
}

// Every variable that both the export and the section hold, by its kind,
// but those that change whenever a drawing is saved ($HANDSEED: the
// exporter made objects of its own). Returns the number compared.
int compareVariables(const ksHeader& h, const DxfFile& dxf, const DrawingPair& pair, uint8_t form)
{
    static const std::set<std::string> changedBySaving = {"TDUPDATE", "TDINDWG", "TDUSRTIMER", "VERSIONGUID",
                                                          "HANDSEED"};
    int compared = 0;
    for (const auto& [name, v] : dxf.vars) {
        const ksHeaderVar* var = ksHeaderVarFind(name);
        if (!var || v.groups.empty() || changedBySaving.count(name) || std::ranges::count(pair.differ, name))
            continue;
        const auto* field = static_cast<const uint8_t*>(ksHeaderVarField(&h, var));
        if (!formHolds(size_t(field - reinterpret_cast<const uint8_t*>(&h)), form))
            continue;
        const std::string& text = v.groups[0].value;
        SCOPED_TRACE("$" + name + " = " + text);
        switch (var->kind) {
        case ksHvByte:
        case ksHvShort:
        case ksHvShortIndex:
        case ksHvLowByte: EXPECT_EQ(ksHeaderVarGetInt(&h, var), std::atoi(text.c_str())); break;
        case ksHvReal:
        case ksHvRealIndex:  // angles in degrees in DXF
            EXPECT_PRED2(nearValue, ksHeaderVarGetReal(&h, var),
                         std::atof(text.c_str()) * (var->group == 50 ? std::numbers::pi / 180.0 : 1.0));
            break;
        case ksHvPoint2:
        case ksHvPoint3:
            for (const auto& [code, value] : v.groups) {
                const int axis = (code - var->group) / 10;
                if (axis >= 0 && axis < (var->kind == ksHvPoint2 ? 2 : 3)) {
                    EXPECT_PRED2(nearValue, reinterpret_cast<const double*>(field)[axis], std::atof(value.c_str()));
                }
            }
            break;
        case ksHvText: EXPECT_STREQ(reinterpret_cast<const char*>(field), text.c_str()); break;
        case ksHvDate: {
            // The creation date: the export's local time, whole hours (to
            // a few seconds) from what the drawing holds.
            const auto* date = reinterpret_cast<const ksDate*>(field);
            const double hours = (std::atof(text.c_str()) - (date->days + date->milliseconds / 86400000.0)) * 24;
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
// export, and their copies in the drawing block.
void compareHandles(ksFcb* fcb, const DxfFile& dxf, uint8_t form)
{
    const ksDwgState& st = *ksDwg(fcb);
    const ksHeader& h = *fcb->header;
    const std::pair<const char*, ksObjHandle ksFcb::*> controls[ksTableHeadCount] = {
        {"BLOCK_RECORD", &ksFcb::blockControlHandle}, {"LAYER", &ksFcb::layerControlHandle},
        {"STYLE", &ksFcb::shapeFileControlHandle},    {"LTYPE", &ksFcb::linetypeControlHandle},
        {"VIEW", &ksFcb::viewControlHandle},          {"UCS", &ksFcb::ucsControlHandle},
        {"VPORT", &ksFcb::vportControlHandle},        {"APPID", &ksFcb::regAppControlHandle},
        {"DIMSTYLE", &ksFcb::dimStyleControlHandle},  {"", &ksFcb::vpEntControlHandle},
    };
    for (int i = 0; i < ksTableHeadCount; ++i) {
        if (*controls[i].first) {
            EXPECT_EQ(U(st.controls[i]), dxf.entry("TABLE", controls[i].first)) << controls[i].first << " control";
        }
        EXPECT_EQ(U(fcb->*controls[i].second), U(st.controls[i])) << "control " << i;
    }
    const auto dictionary = std::ranges::find(dxf.section("OBJECTS"), "DICTIONARY", &DxfRecord::type);
    ASSERT_NE(dictionary, dxf.section("OBJECTS").end());
    const uint64_t root = dictionary->handle(), mlineStyles = dxf.member(root, "ACAD_MLINESTYLE");
    auto arrow = [&](const char* var) {
        std::string record(1, '_');
        return dxf.entry("BLOCK_RECORD", record += dxf.var(var));
    };
    const struct {
        const char* what;
        const ksObjHandle& ours;
        uint64_t expected;
        bool mayBeNull = false;
        uint8_t forms = ksHfBoth;
    } handles[] = {
        {"BYLAYER", st.byLayer, dxf.entry("LTYPE", "BYLAYER")},
        {"BYLAYER copy", fcb->byLayerHandle, dxf.entry("LTYPE", "BYLAYER")},
        {"BYBLOCK", st.byBlock, dxf.entry("LTYPE", "BYBLOCK")},
        {"BYBLOCK copy", fcb->byBlockHandle, dxf.entry("LTYPE", "BYBLOCK")},
        {"CONTINUOUS", st.continuous, dxf.entry("LTYPE", "CONTINUOUS")},
        {"CONTINUOUS copy", ksG->continuousHandle, dxf.entry("LTYPE", "CONTINUOUS")},
        {"*MODEL_SPACE", st.modelBlockHeader, dxf.entry("BLOCK_RECORD", "*MODEL_SPACE")},
        {"*MODEL_SPACE copy", fcb->modelBlockHandle, dxf.entry("BLOCK_RECORD", "*MODEL_SPACE")},
        {"*PAPER_SPACE", st.paperBlockHeader, dxf.entry("BLOCK_RECORD", "*PAPER_SPACE")},
        {"*PAPER_SPACE copy", fcb->paperBlockHandle, dxf.entry("BLOCK_RECORD", "*PAPER_SPACE")},
        {"named objects", st.namedObjects, root},
        {"ACAD_GROUP", st.groupDictionary, dxf.member(root, "ACAD_GROUP")},
        {"ACAD_MLINESTYLE", st.mlineStyleDictionary, mlineStyles},
        {"$CLAYER", h.CLAYER, dxf.entry("LAYER", dxf.var("CLAYER"))},
        {"$TEXTSTYLE", h.TEXTSTYLE, dxf.entry("STYLE", dxf.var("TEXTSTYLE"))},
        {"$CELTYPE", h.CELTYPE, dxf.entry("LTYPE", dxf.var("CELTYPE"))},
        {"$DIMSTYLE", h.DIMSTYLE, dxf.entry("DIMSTYLE", dxf.var("DIMSTYLE"))},
        {"$DIMTXSTY", h.DIMTXSTY, dxf.entry("STYLE", dxf.var("DIMTXSTY"))},
        {"$CMLSTYLE", h.CMLSTYLE, dxf.member(mlineStyles, dxf.var("CMLSTYLE"))},
        {"$UCSNAME", h.UCSNAME, dxf.entry("UCS", dxf.var("UCSNAME")), dxf.var("UCSNAME").empty()},
        // R2000 only, as are the arrow blocks, which it holds by handle;
        // the export names them without the '_' of their block records.
        {"ACAD_LAYOUT", st.layoutDictionary, dxf.member(root, "ACAD_LAYOUT"), true, ksHfR2000},
        {"ACAD_PLOTSETTINGS", st.plotSettingsDictionary, dxf.member(root, "ACAD_PLOTSETTINGS"), true, ksHfR2000},
        {"ACAD_PLOTSTYLENAME", st.plotStyleDictionary, dxf.member(root, "ACAD_PLOTSTYLENAME"), true, ksHfR2000},
        {"$DIMBLK", h.dimblkHandle, arrow("DIMBLK"), true, ksHfR2000},
        {"$DIMBLK1", h.dimblk1Handle, arrow("DIMBLK1"), true, ksHfR2000},
        {"$DIMBLK2", h.dimblk2Handle, arrow("DIMBLK2"), true, ksHfR2000},
        {"$DIMLDRBLK", h.dimldrblkHandle, arrow("DIMLDRBLK"), true, ksHfR2000},
    };
    for (const auto& x : handles) {
        if (!(x.forms & form))
            continue;
        EXPECT_TRUE(x.mayBeNull || x.expected != 0) << x.what << " not found in the export";
        EXPECT_EQ(U(x.ours), x.expected) << x.what;
    }
    EXPECT_TRUE(U(fcb->handleSeed) == U(h.HANDSEED) && U(h.HANDSEED) != 0);
    EXPECT_TRUE(h.HANDLING == 1 && fcb->handlesEnabled == 1);
}

using DwgHeaderVars = DwgLoadTest;

TEST_F(DwgHeaderVars, AgreesWithDxfExportsOfTheSameDrawings)
{
    ZT_REQUIRE_CORPUS();
    for (const DrawingPair& pair : drawingPairs()) {
        if (!pair.sameSave)
            continue;
        SCOPED_TRACE(pair.dwg);
        ASSERT_EQ(open(corpusDir() / pair.dwg, DwgPhases::header), "");
        const uint8_t form = ksHeaderForm(fcb->fileVersion);
        const DxfFile dxf(corpusDir() / pair.dxf);
        // A spread of every kind: the R2000 exports hold some 170
        // variables that the section has, the R13 and R14 ones some 145.
        EXPECT_GE(compareVariables(*fcb->header, dxf, pair, form), form == ksHfR2000 ? 160 : 140);
        compareHandles(fcb, dxf, form);
        // Where the export has the creation date in universal time, it is
        // what the drawing holds, to the millisecond.
        if (dxf.vars.count("TDUCREATE")) {
            const ksDate& d = fcb->header->TDCREATE;
            EXPECT_NEAR(d.days + d.milliseconds / 86400000.0, std::atof(dxf.var("TDUCREATE").c_str()), 2e-8);
        }
    }
}

// ---------------------------------------------------------------------------
// Streams made here: every item of a form written as zero, except the
// values given by name (a text: that many letters; dropped bits all 1
// with dropsSet).

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
        case ksHcRC: ksWriteRC(w, uint8_t(v)); break;
        case ksHcBS: ksWriteBS(w, uint16_t(v)); break;
        case ksHcBL:
        case ksHcFlags: ksWriteBL(w, uint32_t(v)); break;
        case ksHcBD: ksWriteBD(w, v); break;
        case ksHcT: ksWriteText(w, std::string(size_t(v), 'x').c_str()); break;
        case ksHcH: ksWriteHandle(w, ksHandleFromU64(uint64_t(v)), 0x50); break;
        case ksHc2RD: ksWrite2RD(w, ksPoint2{}); break;
        case ksHc3BD: ksWrite3BD(w, ksPoint3{}); break;
        case ksHcDate: ksWriteBL(w, uint32_t(v)), ksWriteBL(w, 0); break;
        }
    }
    EXPECT_EQ(w.failed, 0);
    Stream s{std::vector<uint8_t>(w.data, w.data + ksBitWriterBytes(w)), w.bitPos};
    s.bytes.resize(s.bytes.size() + 8);
    ksBitWriterFree(w);
    return s;
}

class DwgHeaderStream : public DrawingTest {
protected:
    void SetUp() override
    {
        withHeader = true;
        ASSERT_NO_FATAL_FAILURE(DrawingTest::SetUp());
        fcb->dwgState = &state;
    }
    void TearDown() override
    {
        fcb->dwgState = nullptr;
        DrawingTest::TearDown();
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
        {29, -1, 0, 0, 1, 1, 0, 0, 0},  // BYLAYER
        {31 | 2 << 5 | 3 << 7, -3, 2, 3, 1, 1, 0, 0, 0},
        {0x800 | 0x1000 | 0x2000 | 0x4000, 0, 0, 0, 1, 1, 1, 1, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.flags);
        ksHeaderSetDefaults(fcb->header);
        fcb->header->EXTNAMES = 0;
        ASSERT_EQ(read(ksAC1015, makeStream(ksHfR2000, {{"flags", c.flags}})), 1);
        const ksHeader& h = *fcb->header;
        EXPECT_EQ(std::vector<int>({h.CELWEIGHT, h.ENDCAPS, h.JOINSTYLE, h.LWDISPLAY, h.XEDIT, h.EXTNAMES,
                                    h.PSTYLEMODE, h.OLESTARTUP}),
                  std::vector<int>({c.celweight, c.endcaps, c.joinstyle, c.lwdisplay, c.xedit, c.extnames,
                                    c.pstylemode, c.olestartup}));
    }
    // The lineweight indices, with those that name no lineweight.
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
    EXPECT_TRUE(fcb->header->HANDLING == 1 && fcb->handlesEnabled == 1);
    const ksHeader dropsClear = *fcb->header;
    ASSERT_EQ(read(ksAC1014, makeStream(ksHfR13, r13, true)), 1);
    EXPECT_EQ(std::memcmp(&dropsClear, fcb->header, sizeof dropsClear), 0);

    // R2000: DIMATFIT takes 16 bits, DIMLWD is a plain number, not a
    // lineweight index; what the form doesn't hold keeps its default.
    ksHeaderSetDefaults(fcb->header);
    ASSERT_EQ(read(ksAC1015, makeStream(ksHfR2000, {{"DIMATFIT", 0x1234}, {"DIMLWD", 29}})), 1);
    EXPECT_EQ(fcb->header->DIMATFIT, 0x1234);
    EXPECT_EQ(fcb->header->DIMLWD, 29);
    EXPECT_TRUE(fcb->header->DELOBJ == 1 && fcb->header->ATTREQ == 1);
}

TEST_F(DwgHeaderStream, BadStreamsChangeNothing)
{
    const Stream good = makeStream(ksHfR2000, {{"TDCREATE", 2451545}, {"BYBLOCK linetype", 0x14}});
    const ksHeader before = *fcb->header;
    for (uint64_t bits : {uint64_t{0}, uint64_t{100}, good.bits - 1}) {
        SCOPED_TRACE(bits);
        EXPECT_EQ(read(ksAC1015, good, bits), 0);
        EXPECT_EQ(std::memcmp(&before, fcb->header, sizeof before), 0);
        EXPECT_EQ(U(state.byBlock), 0u);
    }
    // A text longer than its limit; one at the limit, cut to its field.
    EXPECT_EQ(read(ksAC1015, makeStream(ksHfR2000, {{"FINGERPRINTGUID", 40}})), 0);
    EXPECT_EQ(read(ksAC1015, makeStream(ksHfR2000, {{"FINGERPRINTGUID", 39}})), 1);
    EXPECT_EQ(std::strlen(fcb->header->FINGERPRINTGUID), 38u);
    // Not a release of this section.
    EXPECT_EQ(read(ksAC1009, good), 0);
}

}  // namespace
