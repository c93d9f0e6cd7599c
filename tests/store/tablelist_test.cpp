// Table lists: walking, finding, seeking, updating, the insertion orders
// of linetypes and block headers, deletion with extended data, record adds.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "frame/fcb.h"
#include "frame/globals.h"
#include "store/blob.h"
#include "store/btree.h"
#include "store/handles.h"
#include "store/list.h"
#include "store/record.h"
#include "store/tablelist.h"

namespace {

class TableListTest : public ::testing::Test {
protected:
    ksFcb* fcb = nullptr;

    void SetUp() override
    {
        int16_t error = 0;
        ASSERT_EQ(ksInit(ZEMACAD_INIT_FILE, 0, &error), 1) << error;
        fcb = ksNewFcb();
        ASSERT_NE(fcb, nullptr);
    }
    void TearDown() override
    {
        ksTablesFree(fcb);
        ksBtreeFree(fcb);
        ksFreeFcb(fcb);
        ksShutdown();
    }

    ksObjHandle addLayer(const char* name, uint64_t handle)
    {
        ksLayer layer;
        ksLayerDefaults(fcb, &layer);
        std::snprintf(layer.name, sizeof layer.name, "%s", name);
        layer.entryHandle = ksHandleFromU64(handle);
        EXPECT_EQ(ksLayerAdd(fcb, &layer), 1) << name;
        return layer.entryHandle;
    }

    template <typename Record>
    std::vector<std::string> names(ksTableList table)
    {
        std::vector<std::string> out;
        Record record;
        ksTableRewind(fcb, table);
        while (ksTableNext(fcb, table, &record))
            out.push_back(record.name);
        return out;
    }
};

TEST_F(TableListTest, FindIgnoresCaseTakesTheFirstAndKeepsTheWalk)
{
    addLayer("0", 0x10);
    addLayer("Walls", 0x11);
    addLayer("WALLS", 0x12);  // a second entry of the same name: the first wins
    addLayer("Doors", 0x13);

    ksLayer layer;
    ksLayerRewind(fcb);
    ASSERT_EQ(ksLayerNext(fcb, &layer), 1);  // a walk is under way, at "Walls"

    ksObjHandle found;
    EXPECT_EQ(ksLayerFind(fcb, "walls", &found), 1);
    EXPECT_EQ(ksHandleToU64(found), 0x11u);
    EXPECT_EQ(ksLayerFind(fcb, "Roof", &found), 0);
    EXPECT_TRUE(ksHandleIsNull(found));

    ASSERT_EQ(ksLayerNext(fcb, &layer), 1);
    EXPECT_STREQ(layer.name, "Walls");
    EXPECT_EQ(ksLayerCount(fcb), 4u);
}

TEST_F(TableListTest, SeekByHandleAndItsErrors)
{
    addLayer("0", 0x10);
    addLayer("A", 0x11);
    ksAppid app;
    ksAppidDefaults(&app);
    std::snprintf(app.name, sizeof app.name, "ACAD");
    app.entryHandle = ksHandleFromU64(0x20);
    ASSERT_EQ(ksAppidAdd(fcb, &app), 1);

    ksLayer layer;
    EXPECT_EQ(ksLayerSeek(fcb, ksHandleFromU64(0x10), &layer), 1);
    EXPECT_STREQ(layer.name, "0");
    EXPECT_EQ(ksLayerNext(fcb, &layer), 1);  // the cursor stands behind the record
    EXPECT_STREQ(layer.name, "A");

    EXPECT_EQ(ksLayerSeek(fcb, ksHandleFromU64(0x99), &layer), 0);
    EXPECT_EQ(ksErrorNumber(), 303);
    EXPECT_EQ(ksLayerSeek(fcb, ksHandleFromU64(0x20), &layer), 0);  // a record of another table
    EXPECT_EQ(ksErrorNumber(), 304);
}

TEST_F(TableListTest, UpdateAndLayerState)
{
    ksObjHandle h = addLayer("A", 0x11);
    ksLayer layer;
    ASSERT_EQ(ksLayerSeek(fcb, h, &layer), 1);
    layer.color = 3;
    EXPECT_EQ(ksLayerUpdate(fcb, &layer), 1);

    int16_t on, frozen, frozenInNew, locked;
    ASSERT_EQ(ksLayerSetState(fcb, h, 0, 1, 0, 1), 1);
    ASSERT_EQ(ksLayerSeek(fcb, h, &layer), 1);
    EXPECT_EQ(layer.color, -3);
    EXPECT_EQ(layer.flags, 5);
    ASSERT_EQ(ksLayerState(fcb, h, &on, &frozen, &frozenInNew, &locked), 1);
    EXPECT_EQ(on, 0);
    EXPECT_EQ(frozen, 1);
    EXPECT_EQ(locked, 1);
    ASSERT_EQ(ksLayerSetState(fcb, h, 1, 0, 0, 0), 1);
    ASSERT_EQ(ksLayerSeek(fcb, h, &layer), 1);
    EXPECT_EQ(layer.color, 3);

    layer.entryHandle = ksHandleFromU64(0x77);
    EXPECT_EQ(ksLayerUpdate(fcb, &layer), 0);
    EXPECT_EQ(ksErrorNumber(), 303);
}

TEST_F(TableListTest, LinetypesKeepByblockAndBylayerLast)
{
    uint64_t handle = 0x30;
    for (const char* name : {"BYBLOCK", "BYLAYER", "DASHED", "Continuous", "ByLayer2"}) {
        ksLinetype lt;
        ksLinetypeDefaults(&lt);
        std::snprintf(lt.name, sizeof lt.name, "%s", name);
        lt.entryHandle = ksHandleFromU64(handle++);
        ASSERT_EQ(ksLinetypeAdd(fcb, &lt), 1);
    }
    EXPECT_EQ(names<ksLinetype>(ksListLinetypes),
              (std::vector<std::string>{"DASHED", "Continuous", "ByLayer2", "BYBLOCK", "BYLAYER"}));
    EXPECT_EQ(ksHandleToU64(ksFirstLinetypeHandle(fcb)), 0x32u);

    ksLayer layer;  // a new layer starts with the first linetype
    ksLayerDefaults(fcb, &layer);
    EXPECT_EQ(ksHandleToU64(layer.linetypeHandle), 0x32u);
}

TEST_F(TableListTest, BlockHeadersStayInFrontOfTheSpaces)
{
    uint64_t handle = 0x40;
    for (const char* name : {"*Model_Space", "*Paper_Space", "DOOR", "WINDOW"}) {
        ksBlockHeader block;
        ksBlockHeaderDefaults(&block);
        std::snprintf(block.name, sizeof block.name, "%s", name);
        block.entryHandle = ksHandleFromU64(handle++);
        ASSERT_EQ(ksBlockHeaderAdd(fcb, &block), 1);
    }
    EXPECT_EQ(names<ksBlockHeader>(ksListBlockHeaders),
              (std::vector<std::string>{"DOOR", "WINDOW", "*Model_Space", "*Paper_Space"}));
    ksBlockHeader block;
    ASSERT_EQ(ksBlockHeaderSeek(fcb, ksHandleFromU64(0x42), &block), 1);
    EXPECT_NE(block.entities, 0u);  // each block gets its entity list
    EXPECT_EQ(ksListCount(block.entities), 0u);
}

TEST_F(TableListTest, DeleteFreesExtendedDataAndReportsEachCase)
{
    addLayer("0", 0x10);
    ksLayer layer;
    ksLayerDefaults(fcb, &layer);
    std::snprintf(layer.name, sizeof layer.name, "X");
    layer.entryHandle = ksHandleFromU64(0x11);
    layer.eed = ksBlobNew();
    ksBlobCursor* cursor = ksBlobOpenWrite(layer.eed);
    ksBlobWriteInt32(cursor, 42);
    ksBlobCloseWrite(cursor);
    ASSERT_EQ(ksLayerAdd(fcb, &layer), 1);
    size_t before = ksVmBytesInUse();

    EXPECT_EQ(ksLayerDelete(fcb, ksHandleFromU64(0x99)), 0);
    EXPECT_EQ(ksErrorNumber(), 91);
    EXPECT_EQ(ksLayerDelete(fcb, ksHandleFromU64(0x11)), 1);
    EXPECT_LT(ksVmBytesInUse(), before);
    EXPECT_EQ(ksBtreeFind(fcb, ksHandleFromU64(0x11)), 0u);
    EXPECT_EQ(ksLayerDelete(fcb, ksHandleFromU64(0x10)), 1);
    EXPECT_EQ(ksLayerCount(fcb), 0u);
    EXPECT_EQ(ksLayerDelete(fcb, ksHandleFromU64(0x10)), 0);
    EXPECT_EQ(ksErrorNumber(), 90);
}

TEST_F(TableListTest, RecordAddRefusesWithoutLeaving)
{
    addLayer("0", 0x10);
    ksLayer layer;
    ksLayerDefaults(fcb, &layer);
    layer.entryHandle = ksHandleFromU64(0x10);
    EXPECT_EQ(ksLayerAdd(fcb, &layer), 0);  // duplicate handle
    EXPECT_EQ(ksErrorNumber(), 172);
    EXPECT_EQ(ksHandleToU64(ksG->duplicateHandle), 0x10u);
    EXPECT_EQ(ksLayerCount(fcb), 1u);

    layer.entryHandle = ksObjHandle{};
    EXPECT_EQ(ksLayerAdd(fcb, &layer), 0);
    EXPECT_EQ(ksErrorNumber(), 231);
    EXPECT_EQ(ksLayerCount(fcb), 1u);

    // Position codes: head, tail, before a place, and none at all.
    ksLoc list = ksListNew();
    int a = 1, b = 2, c = 3, d = 4;
    ksLoc na = ksRecordCopy(&a, sizeof a, list, ksAtTail, 0);
    ksRecordCopy(&b, sizeof b, list, ksAtHead, 0);
    ksRecordCopy(&c, sizeof c, list, ksBeforePlace, na);
    ksLoc loose = ksRecordCopy(&d, sizeof d, list, 0, 0);
    std::vector<int> order;
    for (ksLoc n = ksListFirst(list); n; n = ksListNodeNext(n))
        order.push_back(*static_cast<int*>(ksRecordOf(n)));
    EXPECT_EQ(order, (std::vector<int>{2, 3, 1}));
    EXPECT_EQ(ksListNodeOwner(loose), 0u);
    ksVmFree(loose);
    ksListFree(list);
}

}  // namespace
