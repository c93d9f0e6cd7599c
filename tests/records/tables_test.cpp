// The symbol table records: setup images, layout, and the DXF field tables.
#include "records/tables.h"

#include <gtest/gtest.h>

#include <cstring>
#include <iterator>

namespace {

// A record full of garbage, then set up: whatever the setup misses shows
// up as 0xA5 bytes.
template <typename T, typename Setup>
T setUpOverGarbage(Setup setup) {
    T r;
    std::memset(&r, 0xA5, sizeof r);
    setup(&r);
    return r;
}

bool isNull(const ksObjHandle& h) {
    static const ksObjHandle null{};
    return std::memcmp(&h, &null, sizeof h) == 0;
}

// One expected value; fields of any arithmetic type compare as doubles.
struct Expect {
    template <typename A, typename B>
    Expect(const char* w, A a, B e) : what(w), actual(static_cast<double>(a)), expected(static_cast<double>(e)) {}
    const char* what;
    double actual;
    double expected;
};

void checkAll(std::initializer_list<Expect> list) {
    for (const Expect& e : list) EXPECT_EQ(e.actual, e.expected) << e.what;
}

TEST(TableDefaults, LayerLinetypeStyleAndPlainRecords) {
    const auto layer = setUpOverGarbage<ksLayer>([](ksLayer* r) { ksLayerDefaults(nullptr, r); });
    checkAll({{"layer color", layer.color, 7}, {"layer flags", layer.flags, 0},
              {"layer plotFlag", layer.plotFlag, 1}, {"layer lineweight", layer.lineweight, -3},
              {"layer xrefIndex", layer.xrefIndex, -1}, {"layer eed", layer.eed, 0}});
    EXPECT_STREQ(layer.name, "");
    EXPECT_TRUE(isNull(layer.linetypeHandle));
    EXPECT_TRUE(isNull(layer.plotStyleHandle));

    const auto ltype = setUpOverGarbage<ksLinetype>(ksLinetypeDefaults);
    checkAll({{"ltype alignment", ltype.alignment, 'A'}, {"ltype flags", ltype.flags, 64},
              {"ltype dashCount", ltype.dashCount, 0}, {"ltype patternLength", ltype.patternLength, 0}});
    for (const ksLinetypeDash& d : ltype.dashes) {
        EXPECT_EQ(d.scale, 1.0);
        EXPECT_EQ(d.length, 0.0);
        EXPECT_EQ(d.textOffset, 0);
    }
    EXPECT_EQ(ltype.textArea[sizeof ltype.textArea - 1], 0);

    const auto style = setUpOverGarbage<ksStyle>(ksStyleDefaults);
    checkAll({{"style widthFactor", style.widthFactor, 1.0}, {"style height", style.height, 0},
              {"style xrefIndex", style.xrefIndex, -1}});
    EXPECT_STREQ(style.bigFont, "");

    const auto ucs = setUpOverGarbage<ksUcs>(ksUcsDefaults);
    const auto appid = setUpOverGarbage<ksAppid>(ksAppidDefaults);
    const auto block = setUpOverGarbage<ksBlockHeader>(ksBlockHeaderDefaults);
    checkAll({{"ucs xAxis.x", ucs.xAxis.x, 0}, {"ucs orthoOrigin.z", ucs.orthoOrigin.z, 0},
              {"ucs xrefIndex", ucs.xrefIndex, -1}, {"appid xrefIndex", appid.xrefIndex, -1},
              {"appid deleted", appid.deleted, 0}, {"block xrefIndex", block.xrefIndex, -1},
              {"block deleted", block.deleted, 0}, {"block entities", block.entities, 0},
              {"block eed", block.eed, 0}, {"block reactors", block.reactors, 0}});
}

TEST(TableDefaults, ViewAndViewportImages) {
    const auto v = setUpOverGarbage<ksView>(ksViewDefaults);
    checkAll({{"height", v.height, 1.0}, {"width", v.width, 1.0}, {"direction.z", v.direction.z, 1.0},
              {"direction.x", v.direction.x, 0}, {"lensLength", v.lensLength, 50.0},
              {"ucsXAxis.x", v.ucsXAxis.x, 1.0}, {"ucsYAxis.y", v.ucsYAxis.y, 1.0},
              {"ucsYAxis.x", v.ucsYAxis.x, 0}, {"viewFlags2", v.viewFlags2, 0}});

    const auto p = setUpOverGarbage<ksVport>(ksVportDefaults);
    checkAll({{"xrefIndex", p.xrefIndex, -1},         {"upperRight.x", p.upperRight.x, 1.0},
              {"upperRight.y", p.upperRight.y, 1.0},  {"snapSpacing.y", p.snapSpacing.y, 1.0},
              {"gridSpacing.x", p.gridSpacing.x, 0},  {"center.x", p.center.x, 6.21},
              {"center.y", p.center.y, 9.02},         {"direction.z", p.direction.z, 1.0},
              {"height", p.height, 18.04},            {"circleZoom", p.circleZoom, 100},
              {"fastZoom", p.fastZoom, 1},            {"ucsIcon", p.ucsIcon, 1},
              {"aspect", p.aspect, 0.688564},         {"lensLength", p.lensLength, 50.0},
              {"ucsXAxis.x", p.ucsXAxis.x, 0},        {"reactorCount", p.reactorCount, 0}});
}

TEST(TableDefaults, DimensionStyleImage) {
    const auto d = setUpOverGarbage<ksDimstyle>([](ksDimstyle* r) { ksDimstyleDefaults(nullptr, r); });
    checkAll({{"xrefIndex", d.xrefIndex, -1},   {"DIMALTD", d.DIMALTD, 2},   {"DIMALTF", d.DIMALTF, 25.4},
              {"DIMASZ", d.DIMASZ, 0.18},       {"DIMCEN", d.DIMCEN, 0.09},  {"DIMDLI", d.DIMDLI, 0.38},
              {"DIMEXE", d.DIMEXE, 0.18},       {"DIMEXO", d.DIMEXO, 0.0625}, {"DIMGAP", d.DIMGAP, 0.09},
              {"DIMLFAC", d.DIMLFAC, 1.0},      {"DIMSCALE", d.DIMSCALE, 1.0}, {"DIMTFAC", d.DIMTFAC, 1.0},
              {"DIMTIH", d.DIMTIH, 1},          {"DIMTOH", d.DIMTOH, 1},     {"DIMTXT", d.DIMTXT, 0.18},
              {"DIMALTTD", d.DIMALTTD, 2},      {"DIMALTU", d.DIMALTU, 2},   {"DIMDEC", d.DIMDEC, 4},
              {"DIMTDEC", d.DIMTDEC, 4},        {"DIMTOLJ", d.DIMTOLJ, 1},   {"DIMUNIT", d.DIMUNIT, 2},
              {"DIMDSEP", d.DIMDSEP, 46},       {"DIMLWD", d.DIMLWD, -2},    {"DIMLWE", d.DIMLWE, -2},
              {"DIMFIT", d.DIMFIT, 0},          {"DIMTMOVE", d.DIMTMOVE, 0}, {"DIMALTRND", d.DIMALTRND, 0}});
    EXPECT_STREQ(d.DIMPOST, "");
    EXPECT_STREQ(d.DIMAPOST, "");
    for (const ksObjHandle* h : {&d.DIMBLK, &d.DIMBLK1, &d.DIMBLK2, &d.DIMLDRBLK, &d.DIMTXSTY}) {
        EXPECT_TRUE(isNull(*h));
    }
}

TEST(TableLayout, FixedPositionsTheListsAndWritersRelyOn) {
    static_assert(std::size(ksLinetype{}.dashes) == 15, "a linetype holds 15 dashes, not 12");
    EXPECT_EQ(sizeof ksLinetype{}.textArea, 256u);
    // The application and dimension style records keep xrefIndex ahead of
    // deleted; the others the other way round.
    EXPECT_LT(offsetof(ksAppid, xrefIndex), offsetof(ksAppid, deleted));
    EXPECT_LT(offsetof(ksDimstyle, xrefIndex), offsetof(ksDimstyle, deleted));
    EXPECT_LT(offsetof(ksLayer, deleted), offsetof(ksLayer, xrefIndex));
    EXPECT_LT(offsetof(ksBlockHeader, previewData), offsetof(ksBlockHeader, deleted));
    EXPECT_EQ(offsetof(ksStyle, bigFont), sizeof(ksObjHandle));
    for (size_t owner : {offsetof(ksLayer, ownerHandle), offsetof(ksStyle, ownerHandle),
                         offsetof(ksVport, ownerHandle), offsetof(ksDimstyle, ownerHandle),
                         offsetof(ksBlockHeader, ownerHandle), offsetof(ksBlockRecordEntry, ownerHandle)}) {
        EXPECT_EQ(owner, 0u);
    }
}

TEST(TableFields, EveryRowFitsItsRecordAndKind) {
    for (int t = 0; t < ksTableNumberCount; ++t) {
        const ksTableFieldSet& set = ksTableFieldTable[t];
        ASSERT_NE(set.rows, nullptr) << ksTableNames[t];
        for (size_t i = 0; i < set.count; ++i) {
            const ksTableField& row = set.rows[i];
            const size_t unit = ksTableFieldElementWidth(row.kind);
            const bool indexed = row.kind == ksTfShort || row.kind == ksTfReal || row.kind == ksTfLong;
            const size_t element = indexed ? static_cast<size_t>(row.index) : 0;
            EXPECT_LE(row.offset + row.width, set.recordSize) << ksTableNames[t] << " " << row.group;
            EXPECT_LE((element + 1) * unit, row.width) << ksTableNames[t] << " " << row.group;
            if (unit > 1) {
                EXPECT_EQ(row.width % unit, 0u) << ksTableNames[t] << " " << row.group;
            }
            EXPECT_EQ(ksTableFieldFind(t, row.group, row.minVersion), &row) << ksTableNames[t];
            if (i > 0) {
                EXPECT_LE(set.rows[i - 1].group, row.group) << ksTableNames[t];
            }
        }
    }
}

TEST(TableFields, GroupsLandInTheRightPlace) {
    ksVport vport{};
    ksView view{};
    ksLinetype ltype{};
    const struct {
        int table;
        int group;
        void* record;
        int dash;
        const void* expected;
    } cases[] = {
        {ksTableVport, 36, &vport, 0, &vport.direction.z},
        {ksTableVport, 51, &vport, 0, &vport.twist},
        {ksTableVport, 50, &vport, 0, &vport.snapAngle},
        {ksTableView, 21, &view, 0, &view.direction.y},
        {ksTableView, 132, &view, 0, &view.ucsYAxis.z},
        {ksTableLtype, 46, &ltype, 3, &ltype.dashes[3].scale},
        {ksTableLtype, 9, &ltype, 14, &ltype.dashes[14].textOffset},
        {ksTableLtype, 40, &ltype, 7, &ltype.patternLength},
    };
    for (const auto& c : cases) {
        const ksTableField* row = ksTableFieldFind(c.table, c.group, ksAC1015);
        ASSERT_NE(row, nullptr) << ksTableNames[c.table] << " " << c.group;
        EXPECT_EQ(ksTableFieldAddress(c.record, row, c.dash), c.expected) << ksTableNames[c.table] << " " << c.group;
    }
    EXPECT_EQ(ksTableFieldAddress(&ltype, ksTableFieldFind(ksTableLtype, 49, ksAC1012), 15), nullptr);

    const struct {
        int table;
        int group;
        ksTableFieldKind kind;
    } kinds[] = {
        {ksTableVport, 51, ksTfAngle},   {ksTableLtype, 49, ksTfDashStart}, {ksTableLtype, 9, ksTfDashText},
        {ksTableLayer, 2, ksTfName},     {ksTableAppid, 2, ksTfText},       {ksTableLayer, 6, ksTfNameRef},
        {ksTableBlockRecord, 310, ksTfByteChunks}, {ksTableDimstyle, 105, ksTfHandle},
    };
    for (const auto& k : kinds) {
        const ksTableField* row = ksTableFieldFind(k.table, k.group, ksAC1012);
        ASSERT_NE(row, nullptr) << ksTableNames[k.table] << " " << k.group;
        EXPECT_EQ(row->kind, k.kind) << ksTableNames[k.table] << " " << k.group;
    }
    EXPECT_EQ(ksTableFieldFind(ksTableLayer, 6, ksAC1012)->index, ksTableLtype);
}

TEST(TableFields, DimensionStyleGroupsDependOnTheVersion) {
    const struct {
        int group;
        int version;
        size_t offset;  // 0: the group has no field in that version
        ksTableFieldKind kind;
    } cases[] = {
        {270, ksAC1014, offsetof(ksDimstyle, DIMUNIT), ksTfShort},
        {270, ksAC1015, 0, ksTfShort},
        {277, ksAC1015, offsetof(ksDimstyle, DIMUNIT), ksTfShort},
        {277, ksAC1014, 0, ksTfShort},
        {5, ksAC1012, offsetof(ksDimstyle, DIMBLK), ksTfNameRef},
        {7, ksAC1009, offsetof(ksDimstyle, DIMBLK2), ksTfNameRef},
        {5, ksAC1015, 0, ksTfShort},
        {342, ksAC1015, offsetof(ksDimstyle, DIMBLK), ksTfHandle},
        {344, ksAC1015, offsetof(ksDimstyle, DIMBLK2), ksTfHandle},
        {342, ksAC1014, 0, ksTfShort},
        {287, ksAC1014, offsetof(ksDimstyle, DIMFIT), ksTfByte},
        {287, ksAC1015, 0, ksTfShort},
        {105, ksAC1012, offsetof(ksDimstyle, entryHandle), ksTfHandle},
        {105, ksAC1015, offsetof(ksDimstyle, entryHandle), ksTfHandle},
        {270, 99, 0, ksTfShort},  // an unknown later version is taken as R2000
    };
    for (const auto& c : cases) {
        const ksTableField* row = ksTableFieldFind(ksTableDimstyle, c.group, c.version);
        if (c.offset == 0) {
            EXPECT_EQ(row, nullptr) << c.group << " in version " << c.version;
            continue;
        }
        ASSERT_NE(row, nullptr) << c.group << " in version " << c.version;
        EXPECT_EQ(row->offset, c.offset) << c.group;
        EXPECT_EQ(row->kind, c.kind) << c.group;
    }
    EXPECT_EQ(ksTableFieldFind(ksTableDimstyle, 5, ksAC1012)->index, ksTableBlock);
    EXPECT_EQ(ksTableFieldFind(ksTableLayer, 1000, ksAC1015), nullptr);
    EXPECT_NE(ksTableFieldFind(ksTableClass, 1, ksAC1015), nullptr);  // the class's DXF name
    EXPECT_EQ(ksTableFieldFind(ksTableNumberCount, 2, ksAC1015), nullptr);
    EXPECT_EQ(ksTableFieldFind(-1, 2, ksAC1015), nullptr);
}

TEST(TableNames, OrderAndLookup) {
    const char* expected[] = {"LTYPE", "LAYER", "STYLE", "VIEW", "VPORT", "APPID",
                              "DIMSTYLE", "UCS", "BLOCK", "BLOCK_RECORD", "MLINESTYLE", "CLASS"};
    for (int t = 0; t < ksTableNumberCount; ++t) {
        EXPECT_STREQ(ksTableNames[t], expected[t]);
        EXPECT_EQ(ksTableNumberFind(expected[t]), t);
    }
    EXPECT_EQ(ksTableNumberFind("block_Record"), ksTableBlockRecord);
    EXPECT_EQ(ksTableNumberFind("dimstyle"), ksTableDimstyle);
    for (const char* name : {"", "BLOCK_", "BLOCKS", "LTYP", "ENDTAB", "VPORTX"}) {
        EXPECT_EQ(ksTableNumberFind(name), -1) << name;
    }
}

}  // namespace
