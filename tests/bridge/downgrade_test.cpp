// Saving to older releases: which entities fit, the handles LWPOLYLINE
// expansion reserves, the POLYLINE and VERTEX made of one, name fixing,
// the MVIEW extended data, placeholder blocks and the index resolvers.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "bridge/downgrade.h"
#include "frame/fcb.h"
#include "frame/globals.h"
#include "frame/load.h"
#include "frame/newdrawing.h"
#include "frame/save.h"
#include "records/classent.h"
#include "records/entity.h"
#include "records/header.h"
#include "records/tables.h"
#include "store/blob.h"
#include "store/entitylist.h"
#include "store/handles.h"
#include "store/tablelist.h"
#include "store/xdata.h"
#include "support/fixtures.h"

namespace {

ksObjHandle H(uint64_t v) { return ksHandleFromU64(v); }

class Downgrade : public zt::ToolkitTest {
protected:
    ksFcb* fcb = nullptr;
    ksFcb target{};
    ksHeader targetHeader{};

    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(ToolkitTest::SetUp());
        ASSERT_NE(fcb = ksNewDrawing(nullptr, nullptr, 0, ksAC1015), nullptr);
        ksClearRefCaches(fcb);
    }
    void TearDown() override
    {
        EXPECT_EQ(ksCloseDrawing(fcb), 1);
        ToolkitTest::TearDown();
    }

    ksObjHandle addBlock(const char* name)
    {
        ksBlockHeader block;
        ksBlockHeaderDefaults(&block);
        std::strcpy(block.name, name);
        ksHandleNext(fcb, &block.entryHandle);
        EXPECT_EQ(ksBlockHeaderAdd(fcb, &block), 1);
        return block.entryHandle;
    }
    void addLw(ksLoc list, int32_t vertices)
    {
        ksEntityHeader h{};
        ksLwpolyline b{};
        h.type = fcb->classNumbers.lwpolyline;
        ksEntityDefaults(fcb, &h, nullptr);
        ksHandleNext(fcb, &h.handle);
        std::vector<ksLwVertex> v(static_cast<size_t>(vertices), ksLwVertex{{1, 2}, 0, 0, 0});
        ASSERT_EQ(ksLwpolylineSetVertices(&b, v.data(), vertices), 1);
        ASSERT_EQ(ksEntityAppend(fcb, list, &h, &b), 1);
    }
    void addXrefRoom(const char* block, int32_t room)
    {
        uint8_t entry[ksXrefNameEntrySize] = {};
        std::memcpy(entry + sizeof(ksObjHandle), block, std::strlen(block));
        for (int i = 0; i < 4; ++i)
            entry[ksXrefNameRoomOffset + i] = static_cast<uint8_t>(room >> (8 * i));
        fcb->xrefNames = zt::blobOf(zt::Bytes(entry, entry + sizeof entry));
        fcb->xrefNameCount = 1;
    }
    std::string fixed(const char* name, int32_t index, int32_t limit)
    {
        char out[1100];
        const size_t n = ksFixName(fcb, name, index, limit, out);
        EXPECT_EQ(n, std::strlen(out));
        return out;
    }
};

TEST_F(Downgrade, NamesAreShortenedWithTheirIndexCleanedAndUpperCased)
{
    addBlock("XREF");
    int32_t place = -1;
    EXPECT_EQ(ksFindBlockIndex(fcb, "nothere", &place), 0);
    EXPECT_EQ(place, 0);
    ASSERT_EQ(ksFindBlockIndex(fcb, "xref", &place), 1) << "block names compare in any case";
    ASSERT_LT(place, 10);
    addXrefRoom("XREF", 3);
    const std::string escape5 = "\\M+1A2B\\M+1A2C\\M+1A2D\\M+1A2E\\M+1A2F";
    const struct {
        std::string name;
        int32_t index, limit;
        std::string expected;
    } cases[] = {
        {"a style name of forty characters (long)!", 7, 26, "A_STYLE_NAME_OF_FORTY_CHA7"},
        {"abcdefghijklmnopqrstuvwxyz0123", 123, 26, "ABCDEFGHIJKLMNOPQRSTUVW123"},
        {"short (name)", 0, 26, "SHORT__NAME_"},
        {"exactly twenty-six chars x", 5, 26, "EXACTLY_TWENTY-SIX_CHARS_X"},
        {escape5, 9, 3, "\\M+1A2B\\M+1A2C"},
        {escape5, 9, 5, "\\M+1A2B\\M+1A2C\\M+1A2D\\M+1A2E\\M+1A2F"},
        {"XREF|layer (a)", 4, 26, "XR" + std::to_string(place) + "|LAYER__A_"},
        {"xref|x", 4, 26, "XR" + std::to_string(place) + "|X"},
        {"xref", place, 3, "XR" + std::to_string(place)},  // the block itself with its room
        {"XREF|a|b (c)", 4, 26, "XR" + std::to_string(place) + "|A|B__C_"},
        {"nothere|a b", 4, 26, "NOTHERE|A_B"},
        {"|part", 4, 26, "|PART"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(fixed(c.name.c_str(), c.index, c.limit), c.expected) << c.name;
    EXPECT_EQ(ksXrefNameLimit(fcb, "xref"), 3);
    EXPECT_EQ(ksXrefNameLimit(fcb, "OTHER"), 26);
}

TEST_F(Downgrade, EntitiesFitTheReleasesThatHoldThem)
{
    const int16_t lw = fcb->classNumbers.lwpolyline, hatch = fcb->classNumbers.hatch;
    // Bit v of the mask: the entity fits ksVersion v.
    const struct {
        int16_t type;
        int16_t shapeNumber;
        unsigned mask;
    } cases[] = {
        {ksEntLine, 0, 0xFF},     {ksEntShape, 254, 0xFF},  {ksEntShape, 255, 0x00},  {ksEntEllipse, 0, 0xE0},
        {ksEntMtext, 0, 0xE0},    {ksEntBody, 0, 0xE0},     {ksEntViewport, 0, 0xF0}, {ksEnt3dFace, 0, 0xFE},
        {ksEntDimension, 0, 0xFE}, {ksEnt3dLine, 0, 0xFE},  {lw, 0, 0xFF},            {hatch, 0, 0xE0},
        {ksEntProxy, 0, 0xFF},
    };
    for (const auto& c : cases) {
        ksEntityHeader h{};
        ksEntityBody b{};
        h.type = c.type;
        b.shape.shapeNumber = c.shapeNumber;
        for (int16_t v = 0; v < ksVersionCount; ++v) {
            target.outputVersion = v;
            EXPECT_EQ(ksEntityFitsVersion(&h, &b, fcb, &target), ((c.mask >> v) & 1) != 0)
                << "type " << c.type << " version " << v;
        }
    }
}

TEST_F(Downgrade, ExpansionHandlesAreReservedAboveTheSeed)
{
    addLw(fcb->modelEntities, 3);
    addLw(ksBlockEntityList(fcb, addBlock("B")), 1);
    ksObjHandle seed = H(0x100);
    ASSERT_EQ(ksReserveHandles(fcb, &target, &seed), 1);
    EXPECT_EQ(ksHandleToU64(ksDowngrade().expansionHandle), 0x101u);
    EXPECT_EQ(ksHandleToU64(seed), 0x100u + 4 + 2 + 2);

    // Without the class nothing is reserved.
    ksFcb* bare = ksNewFcb();
    ASSERT_NE(bare, nullptr);
    seed = H(0x100);
    EXPECT_EQ(ksReserveHandles(bare, &target, &seed), 1);
    EXPECT_EQ(ksHandleToU64(seed), 0x100u);
    ksFreeFcb(bare);
}

TEST_F(Downgrade, PolylineAndVerticesFromAnLwpolyline)
{
    const struct {
        int16_t flags;
        double constantWidth, elevation, vertexWidth;
        int16_t polylineFlags;
        double width, z;
        int16_t marks;
    } cases[] = {
        {ksLwConstantWidth, 0.5, 0, 0, 0, 0.5, 0, 0},
        {ksLwClosed | ksLwPlinegen | 8, 0, 2.5, 0, 129, 0, 2.5, 0},
        {ksLwHasWidths, 0, 0, 0, 0, 0, 0, 0},
        {ksLwHasWidths, 0, 0, 0.25, 0, 0, 0, 1},
    };
    for (const auto& c : cases) {
        ksEntityHeader h{}, out{};
        ksEntityDefaults(fcb, &h, nullptr);
        h.type = fcb->classNumbers.lwpolyline;
        h.eed = 77;
        h.flags = ksEntityOwnExtrusion;
        ksLwpolyline lw{};
        lw.flags = c.flags;
        lw.constantWidth = c.constantWidth;
        lw.elevation = c.elevation;
        const ksLwVertex v{{3, 4}, 0, c.vertexWidth, c.vertexWidth};
        lw.vertices = ksBlobNew();
        ksBlobCursor* w = ksBlobOpenWrite(lw.vertices);
        ASSERT_EQ(ksLwVertexWrite(w, lw.flags, v), 1);
        ASSERT_EQ(ksBlobCloseWrite(w), 1);

        ksEntityBody body{};
        ksLwToPolyline(&h, &lw, &out, &body.polyline);
        EXPECT_EQ(out.type, 15);
        EXPECT_EQ(out.eed, 77u) << "the POLYLINE keeps the extended data";
        EXPECT_EQ(body.polyline.flags, c.polylineFlags);
        EXPECT_EQ(body.polyline.startWidth, c.width);
        EXPECT_EQ(body.polyline.endWidth, c.width);
        EXPECT_EQ(body.polyline.elevation, c.z);
        const double start = body.polyline.startWidth, end = body.polyline.endWidth;
        ksLwVertexHead(&out, &body);
        EXPECT_EQ(out.type, 10);
        EXPECT_EQ(out.eed, 0u);
        EXPECT_EQ(out.flags & ksEntityOwnExtrusion, 0);
        ksBlobCursor* r = ksBlobOpenRead(lw.vertices);
        ASSERT_EQ(ksLwReadVertex(r, &body.vertex, &lw, start, end), 1);
        EXPECT_EQ(ksLwReadVertex(r, &body.vertex, &lw, start, end), 0) << "one vertex only";
        ksBlobCloseRead(r);
        EXPECT_EQ(body.vertex.point.x, 3);
        EXPECT_EQ(body.vertex.hasStartWidth + body.vertex.hasEndWidth, 2 * c.marks);
        ksBlobFree(lw.vertices);
    }
}

std::vector<int16_t> eedCodes(ksLoc blob, std::vector<ksObjHandle>* handles)
{
    static ksXdataItem item;
    std::vector<int16_t> codes;
    ksBlobCursor* r = ksBlobOpenRead(blob);
    while (ksXdataRead(r, &item)) {
        codes.push_back(item.code);
        if (item.code == 1001 || item.code == 1003)
            handles->push_back(ksXdataGet<ksObjHandle>(item));
    }
    ksBlobCloseRead(r);
    return codes;
}

TEST_F(Downgrade, ViewportViewGoesIntoExtendedDataBeforeR2000)
{
    ksObjHandle acad{}, layer0{};
    ASSERT_EQ(ksAppidFind(fcb, "ACAD", &acad), 1);
    ASSERT_EQ(ksLayerFind(fcb, "0", &layer0), 1);
    ksEntityHeader h{};
    ksEntityBody b{};
    h.type = ksEntViewport;
    ksEntityDefaults(fcb, &h, &b);
    b.viewport.frozenLayerCount = 2;
    b.viewport.frozenLayers = zt::blobOf(zt::Bytes(16, 0));
    ksBlobPatch(b.viewport.frozenLayers, 0, layer0.bytes, 8);
    ksBlobPatch(b.viewport.frozenLayers, 8, layer0.bytes, 8);
    static ksXdataItem old;
    const ksLoc oldEed = ksBlobNew();
    ksBlobCursor* w = ksBlobOpenWrite(oldEed);
    ksXdataSet(&old, 1001, acad);
    ksXdataWrite(w, &old);
    ksXdataSet<int16_t>(&old, 1070, 7);
    ksXdataWrite(w, &old);
    ksBlobCloseWrite(w);
    h.eed = oldEed;

    target.outputVersion = ksAC1015;
    ksLoc saved = 0;
    ASSERT_EQ(ksMakeMviewEed(fcb, &target, &h, &b.viewport, &saved), 1);
    EXPECT_EQ(h.eed, oldEed) << "R2000 keeps the view in the body";

    target.outputVersion = ksAC1014;
    ASSERT_EQ(ksMakeMviewEed(fcb, &target, &h, &b.viewport, &saved), 1);
    EXPECT_EQ(saved, oldEed);
    std::vector<ksObjHandle> refs;
    const std::vector<int16_t> codes = eedCodes(h.eed, &refs);
    const std::vector<int16_t> expected = {
        1001, 1000, 1002, 1070, 1010, 1010, 1040, 1040, 1040, 1040, 1040, 1040, 1040, 1070, 1070, 1070, 1070,
        1070, 1070, 1070, 1070, 1040, 1040, 1040, 1040, 1040, 1040, 1040, 1070, 1002, 1003, 1003, 1002, 1002,
        1001, 1070};
    EXPECT_EQ(codes, expected);
    ASSERT_EQ(refs.size(), 4u);
    EXPECT_EQ(ksHandleCompare(refs[0], acad), 0);
    EXPECT_EQ(ksHandleCompare(refs[1], layer0), 0);
    ksRestoreMviewEed(&h, saved);
    EXPECT_EQ(h.eed, oldEed);
    ksBlobFree(oldEed);
    ksBlobFree(b.viewport.frozenLayers);
}

struct Written {
    int16_t type;
    std::string name;
    uint64_t handle;
};
std::vector<Written> written;
int16_t recordEntity(ksFcb*, ksFcb*, ksEntityHeader* header, void* body, int32_t)
{
    const char* name = header->type == ksEntBlock ? static_cast<ksBlockBody*>(body)->name : "";
    written.push_back({header->type, name, ksHandleToU64(header->handle)});
    return 1;
}

TEST_F(Downgrade, DeletedBlockLeavesAPlaceholder)
{
    targetHeader.HANDLING = 1;
    target.header = &targetHeader;
    for (int16_t version : {ksAC1006, ksAC1009}) {
        written.clear();
        target.outputVersion = version;
        target.nextHandle = H(0x40);
        ASSERT_EQ(ksPlaceholderBlock(fcb, &target, 3, recordEntity), 1);
        ASSERT_EQ(written.size(), 2u);
        EXPECT_EQ(written[0].type, ksEntBlock);
        EXPECT_EQ(written[0].name, "FAKE3");
        EXPECT_EQ(written[1].type, ksEntEndblk);
        const bool handles = version == ksAC1009;
        EXPECT_EQ(written[0].handle, handles ? 0x40u : 0u);
        EXPECT_EQ(written[1].handle, handles ? 0x41u : 0u);
        EXPECT_EQ(ksHandleToU64(target.nextHandle), handles ? 0x43u : 0x40u);
    }
}

TEST_F(Downgrade, ResolversGiveTablePlacesThroughTheirCaches)
{
    int32_t index = -1;
    EXPECT_EQ(ksLayerIndexOf(fcb, ksObjHandle{}, &index), 1) << "a null handle meets the cleared cache";
    EXPECT_EQ(index, ksRefCacheEmpty);
    EXPECT_EQ(ksLinetypeIndex(fcb, fcb->byLayerHandle, &index), 1);
    EXPECT_EQ(index, 32767);
    EXPECT_EQ(ksLinetypeIndex(fcb, fcb->byBlockHandle, &index), 1);
    EXPECT_EQ(index, 32766);
    ksObjHandle layer0{};
    ASSERT_EQ(ksLayerFind(fcb, "0", &layer0), 1);
    EXPECT_EQ(ksLayerIndexOf(fcb, layer0, &index), 1);
    EXPECT_EQ(index, 0);
    EXPECT_EQ(ksLayerIndexOf(fcb, H(0xFFFFF), &index), 0);
    EXPECT_EQ(ksErrorNumber(), 66);
    const ksObjHandle block = addBlock("B");
    EXPECT_EQ(ksBlockIndex(fcb, block, &index), 1);
    EXPECT_EQ(index, static_cast<int32_t>(ksBlockHeaderCount(fcb)) - 3) << "the two spaces stay last";
    EXPECT_EQ(ksBlockIndex(fcb, fcb->modelBlockHandle, &index), 0);
    EXPECT_EQ(ksErrorNumber(), 75);
}

}  // namespace
