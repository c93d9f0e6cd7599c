// The table phases of a load over scripted drawings posing as DXF, R13+
// DWG and pre-R13 DWG, and new drawings made in memory.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "frame/fcb.h"
#include "frame/globals.h"
#include "frame/load.h"
#include "frame/loadphases.h"
#include "frame/newdrawing.h"
#include "records/header.h"
#include "store/blob.h"
#include "store/btree.h"
#include "store/handles.h"
#include "store/tablelist.h"
#include "store/xdata.h"
#include "support/support.h"
#include "support/testreader.h"

namespace {

using zt::FileKind;

struct Kind {
    const char* label;
    FileKind kind;
    int16_t version;
    bool dxf() const { return kind == FileKind::dxf; }
};
constexpr Kind kDxf14{"DXF R14", FileKind::dxf, ksAC1014};
constexpr Kind kDxf12{"DXF R12", FileKind::dxf, ksAC1009};
constexpr Kind kDwg14{"DWG R14", FileKind::dwg, ksAC1014};
constexpr Kind kDwg12{"DWG R12", FileKind::dwg, ksAC1009};

// Names of a table's records in list order, joined by commas.
std::string names(ksFcb* fcb, ksTableList table)
{
    std::vector<uint8_t> record(ksTableLists[table].recordSize);
    std::string out;
    ksTableRewind(fcb, table);
    while (ksTableNext(fcb, table, record.data())) {
        if (!out.empty())
            out += ',';
        out += reinterpret_cast<const char*>(record.data() + ksTableLists[table].nameOffset);
    }
    return out;
}

uint64_t handleOf(ksFcb* fcb, ksTableList table, const char* name)
{
    ksObjHandle h{};
    ksTableFind(fcb, table, name, &h);
    return ksHandleToU64(h);
}

uint64_t u64(const ksObjHandle& h) { return ksHandleToU64(h); }

// One 1070 item of value 42 in the DXF and old DWG coding.
const std::vector<uint8_t> kXdata1070{70, 42, 0};

class PhasesTest : public ::testing::Test {
protected:
    zt::ReaderScript script;
    zt::TempDir dir;

    void SetUp() override
    {
        int16_t error = 0;
        ASSERT_EQ(ksInit(ZEMACAD_INIT_FILE, 0, &error), 1) << error;
    }
    void TearDown() override
    {
        zt::uninstallTestReader();
        ksShutdown();
    }

    ksFcb* load(const Kind& k)
    {
        zt::installTestReader(script);
        std::string path = zt::writeDrawingStub(dir / "drawing", k.kind, k.version);
        return ksLoadDrawing(path.c_str(), 1, 0);
    }

    // Records of every table, none of them a default.
    void ownRecords()
    {
        script.linetypes = {zt::entry<ksLinetype>("DASHED", 0x40)};
        script.layers = {zt::layer("WALLS", 0x41)};
        script.vports = {zt::entry<ksVport>("VP1", 0x42)};
        script.appids = {zt::entry<ksAppid>("MYAPP", 0x43)};
        script.styles = {zt::entry<ksStyle>("ROMANS", 0x44)};
        script.dimstyles = {zt::entry<ksDimstyle>("DS1", 0x45)};
        script.ucses = {zt::entry<ksUcs>("U1", 0x46)};
        script.views = {zt::entry<ksView>("V1", 0x47)};
    }
};

TEST_F(PhasesTest, DefaultRecordsByFileKind)
{
    enum Content { empty, own, present };
    struct Expect {
        const char *linetypes, *layers, *vports, *appids, *styles, *dimstyles;
    };
    // [content][dxf]
    const Expect expect[3][2] = {
        {{"ByBlock,ByLayer", "", "*ACTIVE", "ACAD", "", "Standard"},
         {"Continuous,ByBlock,ByLayer", "0", "*ACTIVE", "ACAD", "Standard", "Standard"}},
        {{"DASHED,ByBlock,ByLayer", "WALLS", "*ACTIVE,VP1", "MYAPP", "ROMANS", "DS1"},
         {"Continuous,DASHED,ByBlock,ByLayer", "0,WALLS", "*ACTIVE,VP1", "ACAD,MYAPP", "Standard,ROMANS", "DS1"}},
        {{"continuous,ByBlock,ByLayer", "0", "*active", "Acad", "standard", "Standard"},
         {"continuous,ByBlock,ByLayer", "0", "*active", "Acad", "standard", "Standard"}},
    };
    for (const Kind& k : {kDxf14, kDxf12, kDwg14, kDwg12}) {
        for (Content content : {empty, own, present}) {
            script = zt::ReaderScript{};
            if (content == own)
                ownRecords();
            if (content == present) {
                script.linetypes = {zt::entry<ksLinetype>("continuous", 0x40)};
                script.layers = {zt::layer("0", 0x41)};
                script.vports = {zt::entry<ksVport>("*active", 0x42)};
                script.appids = {zt::entry<ksAppid>("Acad", 0x43)};
                script.styles = {zt::entry<ksStyle>("standard", 0x44)};
            }
            SCOPED_TRACE(std::string(k.label) + " content " + std::to_string(content));
            ksFcb* fcb = load(k);
            ASSERT_NE(fcb, nullptr) << ksErrorMessage(ksErrorNumber());
            const Expect& e = expect[content][k.dxf()];
            EXPECT_EQ(names(fcb, ksListLinetypes), e.linetypes);
            EXPECT_EQ(names(fcb, ksListLayers), e.layers);
            EXPECT_EQ(names(fcb, ksListVports), e.vports);
            EXPECT_EQ(names(fcb, ksListRegApps), e.appids);
            EXPECT_EQ(names(fcb, ksListShapeFiles), e.styles);
            EXPECT_EQ(names(fcb, ksListDimStyles), e.dimstyles);
            EXPECT_EQ(ksClassCount(fcb), static_cast<uint32_t>(ksDefaultClassCount));
            // The made "Standard" dimension style isn't counted as read.
            EXPECT_EQ(fcb->tableCount[ksHeadDimstyles], content == own ? 1 : 0);
            ksCloseDrawing(fcb);
        }
    }
}

TEST_F(PhasesTest, LinetypesKeepByBlockAndByLayerLast)
{
    // R13 on: the file's BYBLOCK and BYLAYER give the two handles wherever
    // they stand, and their records come behind the loop.
    script.linetypes = {zt::entry<ksLinetype>("BYLAYER", 0x15), zt::entry<ksLinetype>("DASHED", 0x16),
                        zt::entry<ksLinetype>("ByBlock", 0x14), zt::entry<ksLinetype>("CONTINUOUS", 0x17)};
    ksFcb* fcb = load(kDxf14);
    ASSERT_NE(fcb, nullptr);
    EXPECT_EQ(names(fcb, ksListLinetypes), "DASHED,CONTINUOUS,ByBlock,ByLayer");
    EXPECT_EQ(u64(fcb->byBlockHandle), 0x14u);
    EXPECT_EQ(u64(fcb->byLayerHandle), 0x15u);
    EXPECT_EQ(handleOf(fcb, ksListLinetypes, "ByLayer"), 0x15u);
    EXPECT_EQ(u64(ksG->continuousHandle), 0x17u);
    ksCloseDrawing(fcb);

    // Below R13 the two come first, with new handles after the twelve
    // control handles, and the file's records follow them in handles.
    script.linetypes = {zt::entry<ksLinetype>("DASHED"), zt::entry<ksLinetype>("CENTER")};
    fcb = load(kDwg12);
    ASSERT_NE(fcb, nullptr);
    EXPECT_EQ(names(fcb, ksListLinetypes), "DASHED,CENTER,ByBlock,ByLayer");
    EXPECT_EQ(u64(fcb->byBlockHandle), 13u);
    EXPECT_EQ(u64(fcb->byLayerHandle), 14u);
    EXPECT_EQ(handleOf(fcb, ksListLinetypes, "DASHED"), 15u);
    EXPECT_EQ(handleOf(fcb, ksListLinetypes, "CENTER"), 16u);
    ksCloseDrawing(fcb);
}

TEST_F(PhasesTest, DxfPassesOverDuplicateLinetypesAndLayers)
{
    script.linetypes = {zt::entry<ksLinetype>("DASHED", 0x40), zt::entry<ksLinetype>("Dashed", 0x41)};
    script.layers = {zt::layer("WALLS", 0x50), zt::layer("walls", 0x51), zt::layer("WALLS", 0x52)};
    script.styles = {zt::entry<ksStyle>("Standard", 0x60), zt::entry<ksStyle>("STANDARD", 0x61)};
    script.layers[1].xdata = kXdata1070;  // dropped with its record
    for (const Kind& k : {kDxf14, kDwg14}) {
        SCOPED_TRACE(k.label);
        ksFcb* fcb = load(k);
        ASSERT_NE(fcb, nullptr) << ksErrorMessage(ksErrorNumber());
        EXPECT_EQ(names(fcb, ksListLinetypes),
                  k.dxf() ? "Continuous,DASHED,ByBlock,ByLayer" : "DASHED,Dashed,ByBlock,ByLayer");
        EXPECT_EQ(names(fcb, ksListLayers), k.dxf() ? "0,WALLS" : "WALLS,walls,WALLS");
        EXPECT_EQ(handleOf(fcb, ksListLayers, "WALLS"), 0x50u);
        EXPECT_EQ(names(fcb, ksListShapeFiles), "Standard,STANDARD");  // styles keep both
        ksCloseDrawing(fcb);
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
        {kDxf14, 0, "A", "CENTER", -1, "CENTER"},
        {kDxf14, 0, "A", "center", -1, "DASHED"},   // the name must match exactly
        {kDxf14, 0, "A", "ByLayer", -1, "DASHED"},  // no hit on the two specials
        {kDxf14, 0, "A", "", -1, "DASHED"},
        {kDxf14, 0, "X|A", "CENTER", -1, "Continuous"},
        {kDxf14, 1, "X|A", "CENTER", -1, "CENTER"},
        {kDxf12, 0, "A", "CENTER", -1, "CENTER"},
        {kDwg12, 0, "A", "", 2, "CENTER"},
        {kDwg12, 0, "A", "", 3, "DASHED"},  // place 3 is ByBlock
        {kDwg12, 0, "A", "", 9, "DASHED"},
        {kDwg12, 0, "X|A", "", 2, "DASHED"},
        {kDwg12, 1, "X|A", "", 2, "CENTER"},
        {kDwg14, 0, "A", "DASHED", 0, "CENTER"},  // R13+ DWG keeps the handle it gave
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.kind.label) + " " + c.layer + " " + c.linetypeName + " " +
                     std::to_string(c.linetypeIndex) + " visretain " + std::to_string(c.visRetain));
        script = zt::ReaderScript{};
        script.visRetain = c.visRetain;
        script.linetypes = {zt::entry<ksLinetype>("DASHED", 0x30), zt::entry<ksLinetype>("Continuous", 0x31),
                            zt::entry<ksLinetype>("CENTER", 0x32)};
        script.layers = {zt::layer(c.layer, 0x40, c.linetypeName, c.linetypeIndex)};
        script.layers[0].record.linetypeHandle = ksHandleFromU64(0x32);
        ksFcb* fcb = load(c.kind);
        ASSERT_NE(fcb, nullptr);
        ksLayer layer;
        ASSERT_TRUE(ksLayerSeek(fcb, ksHandleFromU64(handleOf(fcb, ksListLayers, c.layer)), &layer));
        ksLinetype linetype;
        ASSERT_TRUE(ksLinetypeSeek(fcb, layer.linetypeHandle, &linetype));
        EXPECT_STREQ(linetype.name, c.expected);
        ksCloseDrawing(fcb);
    }
}

TEST_F(PhasesTest, ClassesByVersionAndKind)
{
    auto number = [](ksFcb* fcb, const char* name) {
        ksClass c;
        return ksClassFindName(fcb, name, &c) ? c.classNumber : int16_t{0};
    };
    // DXF numbers from 500 in the order read, the defaults follow.
    script.classes = {zt::classRecord("MYCLASS", 777), zt::classRecord("DxfZombieEntity"), zt::classRecord("LAYOUT")};
    ksFcb* fcb = load(kDxf14);
    ASSERT_NE(fcb, nullptr);
    EXPECT_EQ(number(fcb, "MYCLASS"), 500);
    EXPECT_EQ(fcb->classNumbers.zombieEntityClass, 501);
    EXPECT_EQ(fcb->classNumbers.layout, 502);
    EXPECT_EQ(number(fcb, "LWPOLYLINE"), 503);
    EXPECT_EQ(fcb->classNumbers.classCount, 3 + ksDefaultClassCount - 1);
    ksCloseDrawing(fcb);

    // DWG keeps its numbers; a missing default takes the next one.
    script.classes = {zt::classRecord("LAYOUT", 510), zt::classRecord("MYCLASS", 505)};
    fcb = load(kDwg14);
    ASSERT_NE(fcb, nullptr);
    EXPECT_EQ(fcb->classNumbers.layout, 510);
    EXPECT_EQ(number(fcb, "MYCLASS"), 505);
    EXPECT_EQ(number(fcb, "LWPOLYLINE"), 511);
    ksCloseDrawing(fcb);

    // Below R13 there is no class section: only the defaults, from 500.
    fcb = load(kDwg12);
    ASSERT_NE(fcb, nullptr);
    EXPECT_EQ(script.callsOf(zt::Slot::startClasses), 0);
    EXPECT_EQ(number(fcb, "MYCLASS"), 0);
    EXPECT_EQ(number(fcb, "LWPOLYLINE"), 500);
    EXPECT_EQ(ksClassCount(fcb), static_cast<uint32_t>(ksDefaultClassCount));
    ksCloseDrawing(fcb);
}

TEST_F(PhasesTest, ViewportCountLimitAndActiveDefault)
{
    for (int count : {5000, 5001}) {
        script = zt::ReaderScript{};
        for (int i = 0; i < count; ++i)
            script.vports.push_back(zt::entry<ksVport>("VP", 0x100 + static_cast<uint64_t>(i)));
        ksFcb* fcb = load(kDwg14);
        if (count == 5000) {
            ASSERT_NE(fcb, nullptr);
            EXPECT_EQ(ksVportCount(fcb), 5001u);  // with *ACTIVE
            ksCloseDrawing(fcb);
        } else {
            EXPECT_EQ(fcb, nullptr);
            EXPECT_EQ(ksErrorNumber(), 48);
            EXPECT_EQ(script.callsOf(zt::Slot::readVport), 0);
        }
    }

    script = zt::ReaderScript{};
    script.onHeader = [](ksFcb* fcb) {
        fcb->header->VIEWDIR = {1, 2, 3};
        fcb->header->VIEWCTR = {4, 5, 6};
        fcb->header->VIEWSIZE = 7;
    };
    ksFcb* fcb = load(kDwg12);
    ASSERT_NE(fcb, nullptr);
    ksVport active;
    ksVportRewind(fcb);
    ASSERT_TRUE(ksVportNext(fcb, &active));
    EXPECT_STREQ(active.name, "*ACTIVE");
    EXPECT_EQ(active.direction.z, 3);
    EXPECT_EQ(active.center.x, 4);
    EXPECT_EQ(active.center.y, 5);
    EXPECT_EQ(active.height, 7);
    EXPECT_FALSE(ksHandleIsNull(active.entryHandle));
    ksCloseDrawing(fcb);
}

TEST_F(PhasesTest, DimensionStylesTakeTheFirstTextStyle)
{
    script.styles = {zt::entry<ksStyle>("ROMANS", 0x70)};
    script.dimstyles = {zt::entry<ksDimstyle>("A", 0x80), zt::entry<ksDimstyle>("B", 0x81)};
    script.dimstyles[1].record.DIMTXSTY = ksHandleFromU64(0x70);
    ksFcb* fcb = load(kDxf14);
    ASSERT_NE(fcb, nullptr);
    ksDimstyle a, b;
    ASSERT_TRUE(ksDimstyleSeek(fcb, ksHandleFromU64(0x80), &a));
    ASSERT_TRUE(ksDimstyleSeek(fcb, ksHandleFromU64(0x81), &b));
    EXPECT_EQ(u64(a.DIMTXSTY), handleOf(fcb, ksListShapeFiles, "Standard"));  // added at the head
    EXPECT_EQ(u64(b.DIMTXSTY), 0x70u);
    ksCloseDrawing(fcb);

    script.dimstyles.clear();
    fcb = load(kDwg14);
    ASSERT_NE(fcb, nullptr);
    ASSERT_EQ(names(fcb, ksListDimStyles), "Standard");
    ksDimstyleRewind(fcb);
    ASSERT_TRUE(ksDimstyleNext(fcb, &a));
    EXPECT_EQ(u64(a.DIMTXSTY), 0x70u);
    ksCloseDrawing(fcb);
}

TEST_F(PhasesTest, FailureInEachTablePhaseTearsDown)
{
    using zt::Slot;
    struct Case {
        Slot slot;
        int16_t error;    // set by the failing slot; 0 none
        int16_t expected;
    } cases[] = {
        {Slot::startLinetypes, 0, 45}, {Slot::readLinetype, 0, 45},  {Slot::startLayers, 0, 46},
        {Slot::readLayer, 0, 46},      {Slot::startClasses, 0, 47},  {Slot::startVports, 0, 48},
        {Slot::readVport, 0, 48},      {Slot::startUcses, 0, 49},    {Slot::readUcs, 0, 49},
        {Slot::startRegApps, 0, 50},   {Slot::readRegApp, 0, 50},    {Slot::startViews, 0, 51},
        {Slot::readView, 0, 51},       {Slot::startShapeFiles, 0, 52}, {Slot::readShapeFile, 0, 52},
        {Slot::startDimStyles, 0, 53}, {Slot::readDimStyle, 0, 53},  {Slot::readLayer, 8, 8},
    };
    const size_t storeBefore = ksVmBytesInUse();
    for (const Case& c : cases) {
        SCOPED_TRACE(static_cast<int>(c.slot));
        script = zt::ReaderScript{};
        ownRecords();
        script.linetypes.push_back(zt::entry<ksLinetype>("CENTER", 0x48));
        script.layers.push_back(zt::layer("DOORS", 0x49));
        script.linetypes[0].xdata = script.layers[0].xdata = script.layers[1].xdata = kXdata1070;
        // The second read of a table, so that the phase has stored records.
        const bool twoRecords = c.slot == Slot::readLinetype || c.slot == Slot::readLayer;
        script.failures = {{c.slot, twoRecords ? 1 : 0, c.error}};
        EXPECT_EQ(load(kDxf14), nullptr);
        EXPECT_EQ(ksErrorNumber(), c.expected);
        EXPECT_EQ(ksVmBytesInUse(), storeBefore);
    }
}

TEST_F(PhasesTest, ExtendedDataAndUndo)
{
    ownRecords();
    script.layers[0].xdata = kXdata1070;
    ksFcb* fcb = load(kDxf12);
    ASSERT_NE(fcb, nullptr);
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
    EXPECT_EQ(ksCloseDrawing(fcb), 1);
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

// What every new drawing holds, whatever its handles.
void expectNewContent(ksFcb* fcb, int16_t version)
{
    EXPECT_EQ(fcb->sourceVersion, version);
    EXPECT_EQ(fcb->loading, 0);
    EXPECT_EQ(fcb->header->HANDLING, 1);
    EXPECT_EQ(names(fcb, ksListLinetypes), "Continuous,ByBlock,ByLayer");
    EXPECT_EQ(names(fcb, ksListLayers), "0");
    EXPECT_EQ(names(fcb, ksListVports), "*ACTIVE");
    EXPECT_EQ(names(fcb, ksListRegApps), "ACAD");
    EXPECT_EQ(names(fcb, ksListShapeFiles), "Standard");
    EXPECT_EQ(names(fcb, ksListDimStyles), "Standard");
    EXPECT_EQ(names(fcb, ksListBlockHeaders), "*MODEL_SPACE,*PAPER_SPACE");
    EXPECT_EQ(handleOf(fcb, ksListBlockHeaders, "*MODEL_SPACE"), u64(fcb->modelBlockHandle));
    EXPECT_EQ(handleOf(fcb, ksListBlockHeaders, "*PAPER_SPACE"), u64(fcb->paperBlockHandle));
    EXPECT_EQ(handleOf(fcb, ksListLinetypes, "ByBlock"), u64(fcb->byBlockHandle));
    EXPECT_EQ(handleOf(fcb, ksListLinetypes, "ByLayer"), u64(fcb->byLayerHandle));
    ksBlockHeader model;
    ASSERT_TRUE(ksBlockHeaderSeek(fcb, fcb->modelBlockHandle, &model));
    EXPECT_EQ(model.entities, fcb->modelEntities);
    EXPECT_NE(fcb->paperEntities, 0u);

    const ksHeader& h = *fcb->header;
    uint64_t style = handleOf(fcb, ksListShapeFiles, "Standard");
    EXPECT_EQ(u64(h.TEXTSTYLE), style);
    EXPECT_EQ(u64(h.DIMTXSTY), style);
    EXPECT_EQ(u64(h.CLAYER), handleOf(fcb, ksListLayers, "0"));
    EXPECT_EQ(u64(h.CELTYPE), handleOf(fcb, ksListLinetypes, "Continuous"));
    EXPECT_EQ(u64(h.DIMSTYLE), handleOf(fcb, ksListDimStyles, "Standard"));
    EXPECT_TRUE(ksHandleIsNull(h.UCSNAME));
    EXPECT_TRUE(ksHandleIsNull(h.PUCSNAME));
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
        ksFcb* fcb = ksNewDrawing(nullptr, nullptr, 0, version);
        ASSERT_NE(fcb, nullptr) << ksErrorMessage(ksErrorNumber());
        expectNewContent(fcb, version);
        // The first nine controls, the two spaces, then the viewport
        // entity control; the block entities; the special linetypes.
        const uint64_t drawn[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 12, 10, 11, 13, 14, 15, 16};
        for (int slot = 0; slot < 16; ++slot)
            EXPECT_EQ(u64(fcb->*kFixedFields[slot]), drawn[slot]) << slot;
        EXPECT_EQ(u64(fcb->byBlockHandle), 17u);
        EXPECT_EQ(u64(fcb->byLayerHandle), 18u);
        EXPECT_EQ(handleOf(fcb, ksListLinetypes, "Continuous"), 19u);
        EXPECT_EQ(handleOf(fcb, ksListDimStyles, "Standard"), 24u);
        EXPECT_EQ(ksClassCount(fcb), static_cast<uint32_t>(ksDefaultClassCount));
        ksCloseDrawing(fcb);
    }
}

TEST_F(PhasesTest, NewDrawingTakesFixedHandles)
{
    ksObjHandle handles[ksFixedHandleCount];
    for (int slot = 0; slot < ksFixedHandleCount; ++slot)
        handles[slot] = ksHandleFromU64(0x100 + 0x10 * static_cast<uint64_t>(slot));
    handles[7] = ksHandleFromU64(0x2000);  // the greatest needn't be the last
    const ksClass classes[] = {zt::classRecord("LWPOLYLINE"), zt::classRecord("MYCLASS", 600)};

    for (int16_t version = 0; version < ksVersionCount; ++version) {
        SCOPED_TRACE(version);
        ksFcb* fcb = ksNewDrawing(handles, classes, 2, version);
        ASSERT_NE(fcb, nullptr) << ksErrorMessage(ksErrorNumber());
        expectNewContent(fcb, version);
        for (int slot = 0; slot < 16; ++slot)
            EXPECT_EQ(u64(fcb->*kFixedFields[slot]), u64(handles[slot])) << slot;
        struct Record {
            ksTableList table;
            const char* name;
            int slot;
        } records[] = {
            {ksListLinetypes, "ByBlock", ksFixedByBlock},       {ksListLinetypes, "ByLayer", ksFixedByLayer},
            {ksListLinetypes, "Continuous", ksFixedContinuous}, {ksListLayers, "0", ksFixedLayerZero},
            {ksListVports, "*ACTIVE", ksFixedActiveVport},      {ksListRegApps, "ACAD", ksFixedAcadRegApp},
            {ksListShapeFiles, "Standard", ksFixedStandardStyle},
            {ksListDimStyles, "Standard", ksFixedStandardDimStyle},
        };
        for (const Record& r : records)
            EXPECT_EQ(handleOf(fcb, r.table, r.name), u64(handles[r.slot])) << r.name;
        for (int slot = ksFixedDefaultObjects; slot < ksFixedHandleCount; ++slot)
            EXPECT_EQ(ksBtreeFind(fcb, handles[slot]) != 0, slot < ksFixedLayoutObjects || version >= ksAC1015)
                << slot;
        EXPECT_EQ(u64(fcb->header->HANDSEED), 0x2001u);
        // As given, without the defaults (the layouts bring their own).
        ksClass mine;
        EXPECT_TRUE(ksClassFindName(fcb, "MYCLASS", &mine));
        EXPECT_EQ(mine.classNumber, 600);
        EXPECT_EQ(fcb->classNumbers.lwpolyline, 500);
        if (version < ksAC1015) {
            EXPECT_EQ(ksClassCount(fcb), 2u);
        }
        ksCloseDrawing(fcb);
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
    const ksClass bad = zt::classRecord("MYCLASS", 42);
    EXPECT_EQ(ksNewDrawing(nullptr, &bad, 1, ksAC1014), nullptr);
    EXPECT_EQ(ksErrorNumber(), 202);
    EXPECT_EQ(ksVmBytesInUse(), storeBefore);
}

}  // namespace
