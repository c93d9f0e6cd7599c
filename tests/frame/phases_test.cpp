// The table phases of a load over scripted drawings posing as DXF, R13+
// DWG and pre-R13 DWG, and new drawings made in memory.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "frame/load.h"
#include "frame/loadphases.h"
#include "frame/newdrawing.h"
#include "records/header.h"
#include "store/blob.h"
#include "store/btree.h"
#include "store/xdata.h"
#include "support/testreader.h"

namespace {

using namespace zt;
using Strings = std::vector<std::string>;
using Handles = std::vector<uint64_t>;

// names() of the linetype, layer, vport, appid, style and dimension style tables.
Strings tableNames(ksFcb* fcb)
{
    Strings out;
    for (ksTableList t : {ksListLinetypes, ksListLayers, ksListVports, ksListRegApps, ksListShapeFiles, ksListDimStyles})
        out.push_back(names(fcb, t));
    return out;
}

Handles handlesOf(ksFcb* fcb, ksTableList table, std::initializer_list<const char*> list)
{
    Handles out;
    for (const char* name : list)
        out.push_back(handleOf(fcb, table, name));
    return out;
}

class PhasesTest : public ScriptedLoadTest {
protected:
    // One record of each table but the dimension styles (none when null),
    // with handles 0x40 on.
    void records(const char* linetype, const char* layerName, const char* vport, const char* appid, const char* style)
    {
        script.linetypes = {entry<ksLinetype>(linetype, 0x40)};
        script.layers = {layer(layerName, 0x41)};
        script.vports = {entry<ksVport>(vport, 0x42)};
        script.appids = {entry<ksAppid>(appid, 0x43)};
        script.styles = {entry<ksStyle>(style, 0x44)};
    }
    // Records of every table, none of them a default.
    void ownRecords()
    {
        records("DASHED", "WALLS", "VP1", "MYAPP", "ROMANS");
        script.dimstyles = {entry<ksDimstyle>("DS1", 0x45)};
        script.ucses = {entry<ksUcs>("U1", 0x46)};
        script.views = {entry<ksView>("V1", 0x47)};
    }
};

TEST_F(PhasesTest, DefaultRecordsByFileKind)
{
    enum Content { empty, own, present };
    const Strings present2{"continuous,ByBlock,ByLayer", "0", "*active", "Acad", "standard", "Standard"};
    const Strings expect[3][2] = {  // [content][dxf]
        {{"ByBlock,ByLayer", "", "*ACTIVE", "ACAD", "", "Standard"},
         {"Continuous,ByBlock,ByLayer", "0", "*ACTIVE", "ACAD", "Standard", "Standard"}},
        {{"DASHED,ByBlock,ByLayer", "WALLS", "*ACTIVE,VP1", "MYAPP", "ROMANS", "DS1"},
         {"Continuous,DASHED,ByBlock,ByLayer", "0,WALLS", "*ACTIVE,VP1", "ACAD,MYAPP", "Standard,ROMANS", "DS1"}},
        {present2, present2},
    };
    for (const Kind& k : {kDxf14, kDxf12, kDwg14, kDwg12}) {
        for (Content content : {empty, own, present}) {
            script = ReaderScript{};
            if (content == own)
                ownRecords();
            if (content == present)
                records("continuous", "0", "*active", "Acad", "standard");
            SCOPED_TRACE(std::string(k.label) + " content " + std::to_string(content));
            ZT_LOAD(k);
            EXPECT_EQ(tableNames(fcb), expect[content][k.dxf()]);
            EXPECT_EQ(ksClassCount(fcb), static_cast<uint32_t>(ksDefaultClassCount));
            // The made "Standard" dimension style isn't counted as read.
            EXPECT_EQ(fcb->tableCount[ksHeadDimstyles], content == own ? 1 : 0);
        }
    }
}

TEST_F(PhasesTest, LinetypesKeepByBlockAndByLayerLast)
{
    auto lt = [](const char* name, uint64_t handle = 0) { return entry<ksLinetype>(name, handle); };
    // R13 on: the file's BYBLOCK and BYLAYER give the two handles wherever
    // they stand, and their records come behind the loop.
    script.linetypes = {lt("BYLAYER", 0x15), lt("DASHED", 0x16), lt("ByBlock", 0x14), lt("CONTINUOUS", 0x17)};
    ZT_LOAD(kDxf14);
    EXPECT_EQ(names(fcb, ksListLinetypes), "DASHED,CONTINUOUS,ByBlock,ByLayer");
    EXPECT_EQ((Handles{u64(fcb->byBlockHandle), u64(fcb->byLayerHandle), handleOf(fcb, ksListLinetypes, "ByLayer"),
                       u64(ksG->continuousHandle)}),
              (Handles{0x14, 0x15, 0x15, 0x17}));

    // Below R13 the two come first, with new handles after the twelve
    // control handles, and the file's records follow them in handles.
    script.linetypes = {lt("DASHED"), lt("CENTER")};
    ZT_LOAD(kDwg12);
    EXPECT_EQ(names(fcb, ksListLinetypes), "DASHED,CENTER,ByBlock,ByLayer");
    EXPECT_EQ((Handles{u64(fcb->byBlockHandle), u64(fcb->byLayerHandle), handleOf(fcb, ksListLinetypes, "DASHED"),
                       handleOf(fcb, ksListLinetypes, "CENTER")}),
              (Handles{13, 14, 15, 16}));
}

TEST_F(PhasesTest, DxfPassesOverDuplicateLinetypesAndLayers)
{
    script.linetypes = {entry<ksLinetype>("DASHED", 0x40), entry<ksLinetype>("Dashed", 0x41)};
    script.layers = {layer("WALLS", 0x50), layer("walls", 0x51), layer("WALLS", 0x52)};
    script.styles = {entry<ksStyle>("Standard", 0x60), entry<ksStyle>("STANDARD", 0x61)};
    script.layers[1].xdata = kXdata1070;  // dropped with its record
    for (const Kind& k : {kDxf14, kDwg14}) {
        SCOPED_TRACE(k.label);
        ZT_LOAD(k);
        // Styles keep both.
        EXPECT_EQ(std::make_tuple(names(fcb, ksListLinetypes), names(fcb, ksListLayers),
                                  handleOf(fcb, ksListLayers, "WALLS"), names(fcb, ksListShapeFiles)),
                  std::make_tuple(std::string(k.dxf() ? "Continuous,DASHED,ByBlock,ByLayer" : "DASHED,Dashed,ByBlock,ByLayer"),
                                  std::string(k.dxf() ? "0,WALLS" : "WALLS,walls,WALLS"), uint64_t{0x50},
                                  std::string("Standard,STANDARD")));
    }
}

TEST_F(PhasesTest, LayerLinetypeReferences)
{
    struct Case {
        Kind kind;
        int16_t visRetain;
        const char* layer;
        const char* linetypeName;
        int16_t linetypeIndex;
        const char* expected;
    } cases[] = {
        // The name must match exactly; no hit on the two specials.
        {kDxf14, 0, "A", "CENTER", -1, "CENTER"}, {kDxf14, 0, "A", "center", -1, "DASHED"},
        {kDxf14, 0, "A", "ByLayer", -1, "DASHED"}, {kDxf14, 0, "A", "", -1, "DASHED"},
        {kDxf14, 0, "X|A", "CENTER", -1, "Continuous"}, {kDxf14, 1, "X|A", "CENTER", -1, "CENTER"},
        {kDxf12, 0, "A", "CENTER", -1, "CENTER"},
        // By place in the table; place 3 is ByBlock.
        {kDwg12, 0, "A", "", 2, "CENTER"}, {kDwg12, 0, "A", "", 3, "DASHED"}, {kDwg12, 0, "A", "", 9, "DASHED"},
        {kDwg12, 0, "X|A", "", 2, "DASHED"}, {kDwg12, 1, "X|A", "", 2, "CENTER"},
        {kDwg14, 0, "A", "DASHED", 0, "CENTER"},  // R13+ DWG keeps the handle it gave
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(&c - cases);
        script = ReaderScript{};
        script.visRetain = c.visRetain;
        script.linetypes = {entry<ksLinetype>("DASHED", 0x30), entry<ksLinetype>("Continuous", 0x31),
                            entry<ksLinetype>("CENTER", 0x32)};
        script.layers = {layer(c.layer, 0x40, c.linetypeName, c.linetypeIndex)};
        script.layers[0].record.linetypeHandle = ksHandleFromU64(0x32);
        ZT_LOAD(c.kind);
        ksLayer layer;
        ksLinetype linetype;
        ASSERT_TRUE(ksLayerSeek(fcb, ksHandleFromU64(handleOf(fcb, ksListLayers, c.layer)), &layer));
        ASSERT_TRUE(ksLinetypeSeek(fcb, layer.linetypeHandle, &linetype));
        EXPECT_STREQ(linetype.name, c.expected);
    }
}

TEST_F(PhasesTest, ClassesByVersionAndKind)
{
    // The numbers of the named classes (0 for none).
    auto numbers = [](ksFcb* fcb, std::initializer_list<const char*> list) {
        std::vector<int> out;
        for (const char* name : list) {
            ksClass c;
            out.push_back(ksClassFindName(fcb, name, &c) ? c.classNumber : 0);
        }
        return out;
    };
    using Ints = std::vector<int>;
    // DXF numbers from 500 in the order read, the defaults follow.
    script.classes = {classRecord("MYCLASS", 777), classRecord("DxfZombieEntity"), classRecord("LAYOUT")};
    ZT_LOAD(kDxf14);
    EXPECT_EQ(numbers(fcb, {"MYCLASS", "LWPOLYLINE"}), (Ints{500, 503}));
    EXPECT_EQ((Ints{fcb->classNumbers.zombieEntityClass, fcb->classNumbers.layout, fcb->classNumbers.classCount}),
              (Ints{501, 502, 3 + ksDefaultClassCount - 1}));

    // DWG keeps its numbers; a missing default takes the next one.
    script.classes = {classRecord("LAYOUT", 510), classRecord("MYCLASS", 505)};
    ZT_LOAD(kDwg14);
    EXPECT_EQ(fcb->classNumbers.layout, 510);
    EXPECT_EQ(numbers(fcb, {"MYCLASS", "LWPOLYLINE"}), (Ints{505, 511}));

    // Below R13 there is no class section: only the defaults, from 500.
    ZT_LOAD(kDwg12);
    EXPECT_EQ(script.callsOf(Slot::startClasses), 0);
    EXPECT_EQ(numbers(fcb, {"MYCLASS", "LWPOLYLINE"}), (Ints{0, 500}));
    EXPECT_EQ(ksClassCount(fcb), static_cast<uint32_t>(ksDefaultClassCount));
}

TEST_F(PhasesTest, ViewportCountLimitAndActiveDefault)
{
    for (int count : {5000, 5001}) {
        script = ReaderScript{};
        for (int i = 0; i < count; ++i)
            script.vports.push_back(entry<ksVport>("VP", 0x100 + static_cast<uint64_t>(i)));
        if (count == 5001) {
            expectRefused(kDwg14, 48);
            EXPECT_EQ(script.callsOf(Slot::readVport), 0);
            continue;
        }
        ZT_LOAD(kDwg14);
        EXPECT_EQ(ksVportCount(fcb), 5001u);  // with *ACTIVE
    }

    script = ReaderScript{};
    script.onHeader = [](ksFcb* fcb) {
        fcb->header->VIEWDIR = {1, 2, 3};
        fcb->header->VIEWCTR = {4, 5, 6};
        fcb->header->VIEWSIZE = 7;
    };
    ZT_LOAD(kDwg12);
    ksVport active;
    ksVportRewind(fcb);
    ASSERT_TRUE(ksVportNext(fcb, &active));
    EXPECT_EQ(std::make_tuple(std::string(active.name), active.direction.z, active.center.x, active.center.y,
                              active.height, ksHandleIsNull(active.entryHandle)),
              std::make_tuple(std::string("*ACTIVE"), 3.0, 4.0, 5.0, 7.0, false));
}

TEST_F(PhasesTest, DimensionStylesTakeTheFirstTextStyle)
{
    script.styles = {entry<ksStyle>("ROMANS", 0x70)};
    script.dimstyles = {entry<ksDimstyle>("A", 0x80), entry<ksDimstyle>("B", 0x81)};
    script.dimstyles[1].record.DIMTXSTY = ksHandleFromU64(0x70);
    ZT_LOAD(kDxf14);
    ksDimstyle a, b;
    ASSERT_TRUE(ksDimstyleSeek(fcb, ksHandleFromU64(0x80), &a));
    ASSERT_TRUE(ksDimstyleSeek(fcb, ksHandleFromU64(0x81), &b));
    // A takes the "Standard" added at the head.
    EXPECT_EQ((Handles{u64(a.DIMTXSTY), u64(b.DIMTXSTY)}), (Handles{handleOf(fcb, ksListShapeFiles, "Standard"), 0x70}));

    script.dimstyles.clear();
    ZT_LOAD(kDwg14);
    ASSERT_EQ(names(fcb, ksListDimStyles), "Standard");
    ksDimstyleRewind(fcb);
    ASSERT_TRUE(ksDimstyleNext(fcb, &a));
    EXPECT_EQ(u64(a.DIMTXSTY), 0x70u);
}

TEST_F(PhasesTest, FailureInEachTablePhaseTearsDown)
{
    // Each phase's start and read slot, by the load's error (45 on); then
    // a reader's own error.
    const std::vector<Slot> phases[] = {
        {Slot::startLinetypes, Slot::readLinetype}, {Slot::startLayers, Slot::readLayer},
        {Slot::startClasses},                       {Slot::startVports, Slot::readVport},
        {Slot::startUcses, Slot::readUcs},          {Slot::startRegApps, Slot::readRegApp},
        {Slot::startViews, Slot::readView},         {Slot::startShapeFiles, Slot::readShapeFile},
        {Slot::startDimStyles, Slot::readDimStyle},
    };
    struct Case {
        Slot slot;
        int16_t error;  // set by the failing slot; 0 none
        int16_t expected;
    };
    std::vector<Case> cases{{Slot::readLayer, 8, 8}};
    for (int16_t i = 0; i < 9; ++i)
        for (Slot slot : phases[i])
            cases.push_back({slot, 0, static_cast<int16_t>(45 + i)});
    for (const Case& c : cases) {
        SCOPED_TRACE(static_cast<int>(c.slot));
        script = ReaderScript{};
        ownRecords();
        script.linetypes.push_back(entry<ksLinetype>("CENTER", 0x48));
        script.layers.push_back(layer("DOORS", 0x49));
        script.linetypes[0].xdata = script.layers[0].xdata = script.layers[1].xdata = kXdata1070;
        // The second read of a table, so that the phase has stored records.
        const bool twoRecords = c.slot == Slot::readLinetype || c.slot == Slot::readLayer;
        script.failures = {{c.slot, twoRecords ? 1 : 0, c.error}};
        expectRefused(kDxf14, c.expected);
    }
}

TEST_F(PhasesTest, ExtendedDataAndUndo)
{
    ownRecords();
    script.layers[0].xdata = kXdata1070;
    ZT_LOAD(kDxf12);
    ksLayer walls;
    ASSERT_TRUE(ksLayerSeek(fcb, ksHandleFromU64(handleOf(fcb, ksListLayers, "WALLS")), &walls));
    ksBlobCursor* cursor = ksBlobOpenRead(walls.eed);
    ASSERT_NE(cursor, nullptr);
    auto item = std::make_unique<ksXdataItem>();
    ASSERT_TRUE(ksXdataRead(cursor, item.get()));
    EXPECT_EQ(item->code, 1070);
    EXPECT_EQ(ksXdataGet<int16_t>(*item), 42);
    ksBlobCloseRead(cursor);

    struct Undo {
        void (*undo)(ksFcb*);
        ksTableList table;
    } undos[] = {
        {ksUnloadDimStyles, ksListDimStyles}, {ksUnloadShapeFiles, ksListShapeFiles}, {ksUnloadViews, ksListViews},
        {ksUnloadRegApps, ksListRegApps},     {ksUnloadUcses, ksListUcses},           {ksUnloadVports, ksListVports},
        {ksUnloadLayers, ksListLayers},       {ksUnloadLinetypes, ksListLinetypes},
    };
    for (const Undo& u : undos) {
        EXPECT_GT(ksTableCount(fcb, u.table), 0u);
        u.undo(fcb);
        EXPECT_EQ(ksTableCount(fcb, u.table), 0u);
    }
    ksUnloadClasses(fcb);
    EXPECT_EQ(ksClassCount(fcb), 0u);
    EXPECT_EQ(fcb->classNumbers.lwpolyline, 0);
}

// ---------------------------------------------------------------------------
// New drawings

// The fields of the first sixteen fixed-handle slots.
ksObjHandle ksFcb::*const kFixedFields[16] = {
    &ksFcb::blockControlHandle, &ksFcb::layerControlHandle, &ksFcb::shapeFileControlHandle,
    &ksFcb::linetypeControlHandle, &ksFcb::viewControlHandle, &ksFcb::ucsControlHandle,
    &ksFcb::vportControlHandle, &ksFcb::regAppControlHandle, &ksFcb::dimStyleControlHandle,
    &ksFcb::vpEntControlHandle, &ksFcb::modelBlockHandle, &ksFcb::paperBlockHandle,
    &ksFcb::modelBlockBegin, &ksFcb::modelBlockEnd, &ksFcb::paperBlockBegin, &ksFcb::paperBlockEnd,
};

Handles fixedHandles(ksFcb* fcb)
{
    Handles out;
    for (auto field : kFixedFields)
        out.push_back(u64(fcb->*field));
    return out;
}

// What every new drawing holds, whatever its handles.
void expectNewContent(ksFcb* fcb, int16_t version)
{
    EXPECT_EQ(std::make_tuple(fcb->sourceVersion, fcb->loading, fcb->header->HANDLING),
              std::make_tuple(version, uint8_t{0}, int16_t{1}));
    EXPECT_EQ(tableNames(fcb),
              (Strings{"Continuous,ByBlock,ByLayer", "0", "*ACTIVE", "ACAD", "Standard", "Standard"}));
    EXPECT_EQ(names(fcb, ksListBlockHeaders), "*MODEL_SPACE,*PAPER_SPACE");
    EXPECT_EQ(handlesOf(fcb, ksListBlockHeaders, {"*MODEL_SPACE", "*PAPER_SPACE"}),
              (Handles{u64(fcb->modelBlockHandle), u64(fcb->paperBlockHandle)}));
    EXPECT_EQ(handlesOf(fcb, ksListLinetypes, {"ByBlock", "ByLayer"}),
              (Handles{u64(fcb->byBlockHandle), u64(fcb->byLayerHandle)}));
    ksBlockHeader model;
    ASSERT_TRUE(ksBlockHeaderSeek(fcb, fcb->modelBlockHandle, &model));
    EXPECT_EQ(model.entities, fcb->modelEntities);
    EXPECT_NE(fcb->paperEntities, 0u);

    const ksHeader& h = *fcb->header;
    const uint64_t style = handleOf(fcb, ksListShapeFiles, "Standard");
    EXPECT_EQ((Handles{u64(h.TEXTSTYLE), u64(h.DIMTXSTY), u64(h.CLAYER), u64(h.CELTYPE), u64(h.DIMSTYLE),
                       u64(h.UCSNAME), u64(h.PUCSNAME)}),
              (Handles{style, style, handleOf(fcb, ksListLayers, "0"), handleOf(fcb, ksListLinetypes, "Continuous"),
                       handleOf(fcb, ksListDimStyles, "Standard"), 0, 0}));
    ksDimstyle dimstyle;
    ASSERT_TRUE(ksDimstyleSeek(fcb, h.DIMSTYLE, &dimstyle));
    EXPECT_EQ(u64(dimstyle.DIMTXSTY), style);
    EXPECT_GE(ksObjectCount(fcb), 4u);

    // Nothing in the index stands at or above the seed.
    ksObjHandle above;
    ksLoc where;
    EXPECT_FALSE(ksBtreeSeekAtOrAbove(fcb, h.HANDSEED, &above, &where)) << u64(above);
    EXPECT_EQ(u64(h.HANDSEED), u64(fcb->nextHandle));
}

TEST_F(PhasesTest, NewDrawingDrawsHandlesInOrder)
{
    for (int16_t version = 0; version < ksVersionCount; ++version) {
        SCOPED_TRACE(version);
        close();
        fcb = ksNewDrawing(nullptr, nullptr, 0, version);
        ASSERT_NE(fcb, nullptr) << ksErrorMessage(ksErrorNumber());
        expectNewContent(fcb, version);
        // The first nine controls, the two spaces, then the viewport
        // entity control; the block entities; the special linetypes.
        EXPECT_EQ(fixedHandles(fcb), (Handles{1, 2, 3, 4, 5, 6, 7, 8, 9, 12, 10, 11, 13, 14, 15, 16}));
        EXPECT_EQ((Handles{u64(fcb->byBlockHandle), u64(fcb->byLayerHandle),
                           handleOf(fcb, ksListLinetypes, "Continuous"), handleOf(fcb, ksListDimStyles, "Standard")}),
                  (Handles{17, 18, 19, 24}));
        EXPECT_EQ(ksClassCount(fcb), static_cast<uint32_t>(ksDefaultClassCount));
    }
}

TEST_F(PhasesTest, NewDrawingTakesFixedHandles)
{
    ksObjHandle handles[ksFixedHandleCount];
    for (int slot = 0; slot < ksFixedHandleCount; ++slot)
        handles[slot] = ksHandleFromU64(0x100 + 0x10 * static_cast<uint64_t>(slot));
    handles[7] = ksHandleFromU64(0x2000);  // the greatest needn't be the last
    const ksClass classes[] = {classRecord("LWPOLYLINE"), classRecord("MYCLASS", 600)};

    for (int16_t version = 0; version < ksVersionCount; ++version) {
        SCOPED_TRACE(version);
        close();
        fcb = ksNewDrawing(handles, classes, 2, version);
        ASSERT_NE(fcb, nullptr) << ksErrorMessage(ksErrorNumber());
        expectNewContent(fcb, version);
        Handles want;
        for (int slot = 0; slot < 16; ++slot)
            want.push_back(u64(handles[slot]));
        EXPECT_EQ(fixedHandles(fcb), want);
        for (auto [table, name, slot] : {std::tuple{ksListLinetypes, "ByBlock", +ksFixedByBlock},
                                         {ksListLinetypes, "ByLayer", +ksFixedByLayer},
                                         {ksListLinetypes, "Continuous", +ksFixedContinuous},
                                         {ksListLayers, "0", +ksFixedLayerZero},
                                         {ksListVports, "*ACTIVE", +ksFixedActiveVport},
                                         {ksListRegApps, "ACAD", +ksFixedAcadRegApp},
                                         {ksListShapeFiles, "Standard", +ksFixedStandardStyle},
                                         {ksListDimStyles, "Standard", +ksFixedStandardDimStyle}})
            EXPECT_EQ(handleOf(fcb, table, name), u64(handles[slot])) << name;
        for (int slot = ksFixedDefaultObjects; slot < ksFixedHandleCount; ++slot)
            EXPECT_EQ(ksBtreeFind(fcb, handles[slot]) != 0, slot < ksFixedLayoutObjects || version >= ksAC1015)
                << slot;
        EXPECT_EQ(u64(fcb->header->HANDSEED), 0x2001u);
        // As given, without the defaults (the layouts bring their own).
        ksClass mine{};
        EXPECT_TRUE(ksClassFindName(fcb, "MYCLASS", &mine));
        EXPECT_EQ(std::make_pair(mine.classNumber, fcb->classNumbers.lwpolyline), std::make_pair(int16_t{600}, int16_t{500}));
        if (version < ksAC1015) {
            EXPECT_EQ(ksClassCount(fcb), 2u);
        }
    }
}

TEST_F(PhasesTest, NewDrawingFailureLeavesNothing)
{
    // Layer "0" with the handle of "Continuous": the index refuses it.
    ksObjHandle handles[ksFixedHandleCount];
    for (int slot = 0; slot < ksFixedHandleCount; ++slot)
        handles[slot] = ksHandleFromU64(0x100 + static_cast<uint64_t>(slot));
    handles[ksFixedLayerZero] = handles[ksFixedContinuous];
    const size_t storeBefore = ksVmBytesInUse();
    EXPECT_EQ(ksNewDrawing(handles, nullptr, 0, ksAC1015), nullptr);
    EXPECT_EQ(ksErrorNumber(), 172);
    EXPECT_EQ(ksVmBytesInUse(), storeBefore);

    // A class number below 500 is refused.
    const ksClass bad = classRecord("MYCLASS", 42);
    EXPECT_EQ(ksNewDrawing(nullptr, &bad, 1, ksAC1014), nullptr);
    EXPECT_EQ(ksErrorNumber(), 202);
    EXPECT_EQ(ksVmBytesInUse(), storeBefore);
}

}  // namespace
