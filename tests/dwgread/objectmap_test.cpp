// The object map of R13-R2000 files: pages of modular deltas read into a
// sorted index, and handles found in it, on a map of a million entries
// written with the map writer's codes.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <numeric>
#include <random>
#include <vector>

#include "dwgread/bitcodes.h"
#include "dwgread/dwgfile.h"
#include "frame/fcb.h"
#include "store/handles.h"
#include "support/fixtures.h"

namespace {

using Entries = std::vector<std::pair<uint64_t, uint32_t>>;  // handle, location

// Pages as a writer makes them: at most 2032 bytes of size and entries,
// deltas from the entry before, absolute at a page's start, and an empty
// closing page.
std::vector<uint8_t> writeMap(const Entries& entries, bool closingPage = true)
{
    std::vector<uint8_t> out;
    auto page = [&](size_t from, size_t to) {
        std::vector<uint8_t> page = {0, 0};
        uint8_t code[10];
        for (size_t k = from; k < to; ++k) {
            const auto [handle, location] = k == from ? Entries::value_type{0, 0} : entries[k - 1];
            page.insert(page.end(), code, code + ksWriteModularU(entries[k].first - handle, code));
            page.insert(page.end(), code, code + ksWriteModularS(int32_t(entries[k].second - location), code));
        }
        page[0] = uint8_t(page.size() >> 8), page[1] = uint8_t(page.size());
        const uint16_t crc = ksCrc16(ksCrcSeed, page.data(), page.size());
        page.insert(page.end(), {uint8_t(crc >> 8), uint8_t(crc)});
        out.insert(out.end(), page.begin(), page.end());
    };
    // Each entry takes at most 10 + 5 bytes; stay under 2032.
    for (size_t from = 0; from < entries.size(); from += 2000 / 15)
        page(from, std::min(entries.size(), from + 2000 / 15));
    if (closingPage)
        page(0, 0);
    return out;
}

ksDwgState stateOver(std::vector<uint8_t> bytes)
{
    ksDwgState st;
    st.version = ksAC1015;
    st.size = uint32_t(bytes.size());
    bytes.resize(bytes.size() + 8, 0);
    st.image = std::move(bytes);
    st.objectMapPos = 0;
    return st;
}

class ObjectMap : public zt::ToolkitTest {
protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(zt::ToolkitTest::SetUp());
        ASSERT_NE(fcb = ksNewFcb(), nullptr);
    }
    void TearDown() override
    {
        fcb->dwgState = nullptr;
        ksFreeFcb(fcb);
        zt::ToolkitTest::TearDown();
    }
    // Whether the handle is found, at the location.
    bool at(ksDwgState& st, uint64_t handle, uint32_t location)
    {
        fcb->dwgState = &st;
        return ksSeekHandle(fcb, ksHandleFromU64(handle)) && st.pos == location;
    }
    ksFcb* fcb = nullptr;
};

TEST_F(ObjectMap, MillionEntriesFoundInAnyOrder)
{
    std::mt19937_64 rng(7);
    Entries entries;
    uint64_t handle = 0;
    for (uint32_t i = 0, location = 0x100; i < 1'000'000; ++i) {
        handle += 1 + rng() % 3;  // gaps leave handles the map doesn't hold
        location += 10 + uint32_t(rng() % 200);
        entries.emplace_back(handle, location);
    }
    ksDwgState st = stateOver(writeMap(entries));
    ASSERT_TRUE(ksReadObjectMap(st));
    ASSERT_EQ(st.map.size(), entries.size());

    // Random order, then the ascending walk of a chain.
    std::vector<size_t> order(entries.size());
    std::iota(order.begin(), order.end(), 0);
    std::shuffle(order.begin(), order.end(), rng);
    size_t wrong = 0;
    for (size_t i : order)
        wrong += !at(st, entries[i].first, entries[i].second);
    for (const auto& [h, location] : entries)
        wrong += !at(st, h, location);
    EXPECT_EQ(wrong, 0u);

    // Handles between entries, above all and the null handle are absent;
    // a seek after a miss still works.
    for (size_t i = 0; i + 1 < 2000; ++i) {
        if (entries[i + 1].first - entries[i].first > 1) {
            EXPECT_EQ(ksSeekHandle(fcb, ksHandleFromU64(entries[i].first + 1)), 0);
        }
    }
    EXPECT_EQ(ksSeekHandle(fcb, ksHandleFromU64(handle + 1)), 0);
    EXPECT_EQ(ksSeekHandle(fcb, ksObjHandle{}), 0);
    EXPECT_TRUE(at(st, entries[5].first, entries[5].second));
    EXPECT_EQ(ksHandleToU64(st.currentHandle), entries[5].first);
}

TEST_F(ObjectMap, EndsAndDamage)
{
    // A page whose last location delta is 0 ends the list there, closing
    // page or not; what follows is not read.
    std::vector<uint8_t> bytes = writeMap({{1, 100}, {2, 100}}, false), more = writeMap({{9, 900}});
    bytes.insert(bytes.end(), more.begin(), more.end());
    ksDwgState st = stateOver(bytes);
    ASSERT_TRUE(ksReadObjectMap(st));
    EXPECT_EQ(st.map.size(), 2u);

    // Unsorted entries (a page going back) are sorted, so every one is
    // found.
    bytes = writeMap({{50, 500}, {60, 600}}, false), more = writeMap({{10, 100}});
    bytes.insert(bytes.end(), more.begin(), more.end());
    ksDwgState back = stateOver(bytes);
    ASSERT_TRUE(ksReadObjectMap(back));
    for (auto [h, location] : std::map<uint64_t, uint32_t>{{10, 100}, {50, 500}, {60, 600}})
        EXPECT_TRUE(at(back, h, location)) << h;

    // A map cut anywhere, or with a page size beyond the file, is refused;
    // random bytes never crash and never read outside the image.
    const std::vector<uint8_t> whole = writeMap({{1, 10}, {2, 20}, {3, 30}});
    for (size_t cut = 0; cut + 1 < whole.size(); ++cut) {
        ksDwgState part = stateOver({whole.begin(), whole.begin() + long(cut)});
        EXPECT_FALSE(ksReadObjectMap(part)) << "cut at " << cut;
    }
    std::mt19937 rng(3);
    for (int i = 0; i < 2000; ++i) {
        std::vector<uint8_t> noise(rng() % 64);
        for (uint8_t& b : noise)
            b = uint8_t(rng());
        ksDwgState junk = stateOver(noise);
        ksReadObjectMap(junk);
    }
}

}  // namespace
