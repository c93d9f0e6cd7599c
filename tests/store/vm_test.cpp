// The store's own guarantees: no location 0, reuse of freed blocks, and
// refusal of copies and frees it can't honour.
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "frame/globals.h"
#include "store/vm.h"

namespace {

class VmTest : public ::testing::Test {
protected:
    // Each test starts from an empty store, so new blocks come from its top.
    void SetUp() override
    {
        ksVmRelease();
        int16_t error = 0;
        ASSERT_EQ(ksInit(ZEMACAD_INIT_FILE, 0, &error), 1) << "error " << error;
    }
    void TearDown() override { ksShutdown(); }
};

TEST_F(VmTest, BlocksAreNeverZeroAndFreedOnesComeBack)
{
    const size_t emptyStore = ksVmBytesInUse();
    std::vector<ksLoc> blocks;
    for (uint32_t size : {0u, 1u, 12u, 16u, 17u, 4096u, 4108u, 5000u, 65536u, ksVmMaxBlock}) {
        ksLoc a = ksVmAlloc(size);
        ASSERT_NE(a, 0u) << size;
        EXPECT_GE(ksVmBlockSize(a), size);
        ASSERT_EQ(ksVmFree(a), 1);
        EXPECT_EQ(ksVmAlloc(size), a) << "a freed block of " << size << " bytes comes back";
        blocks.push_back(a);
    }
    // Over one chunk's worth: all distinct, none 0, each keeps its bytes.
    for (uint32_t i = 0; i < 3000; ++i) {
        blocks.push_back(ksVmAlloc(2000));
        ASSERT_EQ(ksVmWrite(blocks.back(), &i, sizeof i), 1);
    }
    for (uint32_t i = 0, back = 0; i < 3000; ++i)
        ASSERT_TRUE(ksVmRead(&back, blocks[blocks.size() - 3000 + i], sizeof back) && back == i) << i;
    std::sort(blocks.begin(), blocks.end());
    EXPECT_EQ(std::adjacent_find(blocks.begin(), blocks.end()), blocks.end());
    EXPECT_NE(blocks[0], 0u);
    for (ksLoc a : blocks)
        EXPECT_EQ(ksVmFree(a), 1);
    EXPECT_EQ(ksVmBytesInUse(), emptyStore);
}

TEST_F(VmTest, RefusesWhatItCantHonour)
{
    uint8_t bytes[16] = {};
    const ksLoc noChunk = (ksVmMaxChunks - 1) << ksVmChunkBits | 16;
    EXPECT_EQ(ksVmAlloc(ksVmMaxBlock + 1), 0u);
    EXPECT_EQ(ksVmRead(bytes, 0, 1) + ksVmWrite(0, bytes, 1), 0);
    EXPECT_EQ(ksVmRead(bytes, noChunk, 4) + ksVmWrite(noChunk, bytes, 4), 0);
    EXPECT_EQ(ksVmRead(bytes, 0, 0), 1);  // a count of 0 copies nothing
    EXPECT_EQ(ksVmFree(0), 1);            // tolerated
    ksLoc a = ksVmAlloc(32);
    ksLoc end = a + ksVmBlockSize(a);     // the top of the store
    ASSERT_NE(a, 0u);
    EXPECT_EQ(ksVmRead(bytes, end - 8, 8), 1);
    EXPECT_EQ(ksVmWrite(end - 8, bytes, 9), 0);
    EXPECT_EQ(ksVmFree(a + 16), 0);       // inside a block
    EXPECT_EQ(ksVmFree(a), 1);
    EXPECT_EQ(ksVmFree(a), 0);            // freed twice
    EXPECT_EQ(ksVmBlockSize(a), 0u);
}

}  // namespace
