// The object map of R13-R2000 files: pages of modular deltas read into a
// sorted index, and handles found in it, on a map of a million entries
// written with the map writer's codes.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <vector>

#include "dwgread/bitcodes.h"
#include "dwgread/dwgfile.h"
#include "frame/fcb.h"
#include "store/handles.h"
#include "support/fixtures.h"

namespace {

struct Entry {
    uint64_t handle;
    uint32_t location;
};

// Pages as a writer makes them: at most 2032 bytes of size and entries,
// deltas from the entry before, absolute at a page's start, and an empty
// closing page.
std::vector<uint8_t> writeMap(const std::vector<Entry>& entries, bool closingPage = true)
{
    std::vector<uint8_t> out;
    size_t i = 0;
    auto page = [&](size_t from, size_t to) {
        std::vector<uint8_t> body;
        uint64_t handle = 0;
        int64_t location = 0;
        for (size_t k = from; k < to; ++k) {
            uint8_t code[10];
            body.insert(body.end(), code, code + ksWriteModularU(entries[k].handle - handle, code));
            body.insert(body.end(), code,
                        code + ksWriteModularS(static_cast<int32_t>(entries[k].location - location), code));
            handle = entries[k].handle;
            location = entries[k].location;
        }
        const size_t size = body.size() + 2;
        out.push_back(static_cast<uint8_t>(size >> 8));
        out.push_back(static_cast<uint8_t>(size));
        out.insert(out.end(), body.begin(), body.end());
        const uint16_t crc = ksCrc16(ksCrcSeed, out.data() + out.size() - size, size);
        out.push_back(static_cast<uint8_t>(crc >> 8));
        out.push_back(static_cast<uint8_t>(crc));
    };
    while (i < entries.size()) {
        // Each entry takes at most 10 + 5 bytes; stay under 2032.
        size_t to = std::min(entries.size(), i + 2000 / 15);
        page(i, to);
        i = to;
    }
    if (closingPage)
        page(0, 0);
    return out;
}

ksDwgState stateOver(std::vector<uint8_t> bytes)
{
    ksDwgState st;
    st.version = ksAC1015;
    st.size = static_cast<uint32_t>(bytes.size());
    bytes.resize(bytes.size() + 8, 0);
    st.image = std::move(bytes);
    st.objectMapPos = 0;
    return st;
}

class ObjectMap : public zt::ToolkitTest {
protected:
    void SetUp() override
    {
        zt::ToolkitTest::SetUp();
        fcb_ = ksNewFcb();
        ASSERT_NE(fcb_, nullptr);
    }
    void TearDown() override
    {
        fcb_->dwgState = nullptr;
        ksFreeFcb(fcb_);
        zt::ToolkitTest::TearDown();
    }
    ksFcb* fcb_ = nullptr;
};

TEST_F(ObjectMap, MillionEntriesFoundInAnyOrder)
{
    std::mt19937_64 rng(7);
    std::vector<Entry> entries;
    uint64_t handle = 0;
    uint32_t location = 0x100;
    for (int i = 0; i < 1'000'000; ++i) {
        handle += 1 + rng() % 3;  // gaps leave handles the map doesn't hold
        location += 10 + static_cast<uint32_t>(rng() % 200);
        entries.push_back({handle, location});
    }
    ksDwgState st = stateOver(writeMap(entries));
    ASSERT_TRUE(ksReadObjectMap(st));
    ASSERT_EQ(st.map.size(), entries.size());
    fcb_->dwgState = &st;

    // Random order, then the ascending walk of a chain.
    std::vector<size_t> order(entries.size());
    for (size_t i = 0; i < order.size(); ++i)
        order[i] = i;
    std::shuffle(order.begin(), order.end(), rng);
    size_t wrong = 0;
    for (size_t i : order) {
        if (!ksSeekHandle(fcb_, ksHandleFromU64(entries[i].handle)) || st.pos != entries[i].location)
            ++wrong;
    }
    EXPECT_EQ(wrong, 0u);
    for (const Entry& e : entries)
        wrong += !ksSeekHandle(fcb_, ksHandleFromU64(e.handle)) || st.pos != e.location;
    EXPECT_EQ(wrong, 0u);

    // Handles between entries, above all and the null handle are absent;
    // a seek after a miss still works.
    for (size_t i = 0; i + 1 < 2000; ++i) {
        if (entries[i + 1].handle - entries[i].handle > 1) {
            EXPECT_EQ(ksSeekHandle(fcb_, ksHandleFromU64(entries[i].handle + 1)), 0);
        }
    }
    EXPECT_EQ(ksSeekHandle(fcb_, ksHandleFromU64(handle + 1)), 0);
    EXPECT_EQ(ksSeekHandle(fcb_, ksObjHandle{}), 0);
    EXPECT_EQ(ksSeekHandle(fcb_, ksHandleFromU64(entries[5].handle)), 1);
    EXPECT_EQ(st.pos, entries[5].location);
    EXPECT_EQ(ksHandleToU64(st.currentHandle), entries[5].handle);
}

TEST_F(ObjectMap, EndsAndDamage)
{
    // A page whose last location delta is 0 ends the list there, closing
    // page or not; what follows is not read.
    std::vector<Entry> entries{{1, 100}, {2, 100}};
    std::vector<uint8_t> bytes = writeMap(entries, false);
    std::vector<uint8_t> more = writeMap({{9, 900}});
    bytes.insert(bytes.end(), more.begin(), more.end());
    ksDwgState st = stateOver(bytes);
    ASSERT_TRUE(ksReadObjectMap(st));
    EXPECT_EQ(st.map.size(), 2u);

    // Unsorted entries (a page going back) are sorted, so every one is
    // found.
    ksDwgState back = stateOver([] {
        std::vector<uint8_t> a = writeMap({{50, 500}, {60, 600}}, false);
        std::vector<uint8_t> b = writeMap({{10, 100}});
        a.insert(a.end(), b.begin(), b.end());
        return a;
    }());
    ASSERT_TRUE(ksReadObjectMap(back));
    fcb_->dwgState = &back;
    for (auto [h, at] : std::map<uint64_t, uint32_t>{{10, 100}, {50, 500}, {60, 600}}) {
        EXPECT_EQ(ksSeekHandle(fcb_, ksHandleFromU64(h)), 1);
        EXPECT_EQ(back.pos, at);
    }

    // A map cut anywhere, or with a page size beyond the file, is refused;
    // random bytes never crash and never read outside the image.
    std::vector<uint8_t> whole = writeMap({{1, 10}, {2, 20}, {3, 30}});
    for (size_t cut = 0; cut + 1 < whole.size(); ++cut) {
        ksDwgState part = stateOver({whole.begin(), whole.begin() + static_cast<long>(cut)});
        EXPECT_FALSE(ksReadObjectMap(part)) << "cut at " << cut;
    }
    std::mt19937 rng(3);
    for (int i = 0; i < 2000; ++i) {
        std::vector<uint8_t> noise(rng() % 64);
        for (uint8_t& b : noise)
            b = static_cast<uint8_t>(rng());
        ksDwgState junk = stateOver(noise);
        ksReadObjectMap(junk);
    }
}

}  // namespace
