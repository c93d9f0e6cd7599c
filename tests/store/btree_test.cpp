// The handle index against std::map: random adds, deletes, finds and seeks
// with in-order walks and shape checks along the way, then named cases.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <vector>

#include "frame/fcb.h"
#include "frame/globals.h"
#include "store/btree.h"
#include "store/handles.h"

namespace {

using Entries = std::vector<std::pair<uint64_t, ksLoc>>;

class BtreeTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        int16_t error = 0;
        ASSERT_EQ(ksInit(ZEMACAD_INIT_FILE, 0, &error), 1) << "error " << error;
        ASSERT_NE(fcb = ksNewFcb(), nullptr);
    }
    void TearDown() override
    {
        if (fcb)
            ksBtreeFree(fcb), ksFreeFcb(fcb);
        ksShutdown();
    }

    int16_t add(uint64_t k, ksLoc at) { return ksBtreeAdd(fcb, ksHandleFromU64(k), at); }
    int16_t erase(uint64_t k) { return ksBtreeDelete(fcb, ksHandleFromU64(k)); }
    ksLoc find(uint64_t k) { return ksBtreeFind(fcb, ksHandleFromU64(k)); }

    // The entries in order, by seeks from just above the last one found.
    Entries walk()
    {
        Entries out;
        ksObjHandle from{}, h;
        ksLoc at;
        while (out.size() <= ksBtreeCount(fcb) && ksBtreeSeekAtOrAbove(fcb, from, &h, &at) == 1) {
            out.emplace_back(ksHandleToU64(h), at);
            if (!ksHandleIncrement(&(from = h)))
                break;
        }
        return out;
    }

    // Keys sorted within their bounds, 11 to 22 entries in all nodes but the
    // root, leaves at one depth. Returns the number of entries below.
    size_t shape(ksLoc at, uint64_t low, uint64_t high, int depth, int& leafDepth)
    {
        ksBtNode n;
        EXPECT_EQ(ksVmRead(&n, at, sizeof n), 1);
        EXPECT_TRUE(n.count <= ksBtMaxEntries && n.count >= (depth ? ksBtMinEntries : 1)) << n.count;
        for (int i = 0; i < n.count; ++i)
            EXPECT_TRUE(n.keys[i] > (i ? n.keys[i - 1] : low) && n.keys[i] < high) << n.keys[i];
        if (n.children[0] == 0) {
            EXPECT_EQ(depth, leafDepth < 0 ? (leafDepth = depth) : leafDepth) << "uneven leaves";
            return n.count;
        }
        size_t entries = n.count;
        for (int i = 0; i <= n.count && !HasFailure(); ++i)
            entries += shape(n.children[i], i ? n.keys[i - 1] : low, i < n.count ? n.keys[i] : high,
                             depth + 1, leafDepth);
        return entries;
    }

    // Keys in these tests lie strictly between 0 and UINT64_MAX.
    void expectMatches(const std::map<uint64_t, ksLoc>& model)
    {
        ASSERT_EQ(ksBtreeCount(fcb), model.size());
        ASSERT_TRUE(walk() == Entries(model.begin(), model.end())) << "walk differs from the model";
        int leafDepth = -1;
        EXPECT_EQ(fcb->btreeRoot ? shape(fcb->btreeRoot, 0, UINT64_MAX, 0, leafDepth) : 0, model.size());
    }

    ksFcb* fcb = nullptr;
};

TEST_F(BtreeTest, RandomOperationsAgreeWithMap)
{
    enum Order { Random, Rising, Falling };
    struct Scenario { uint32_t seed; bool dense; Order order; };  // dense: keys up to 4000
    for (Scenario s : {Scenario{1, true, Random}, {2, false, Random}, {3, true, Rising},
                       {4, false, Rising}, {5, true, Falling}, {6, false, Falling}, {7, true, Random}}) {
        SCOPED_TRACE(::testing::Message() << "seed " << s.seed);
        std::mt19937_64 rng(s.seed);
        std::map<uint64_t, ksLoc> model;
        uint64_t counter = s.order == Falling ? (s.dense ? 40000 : UINT64_MAX - 1) : 1;
        auto randomKey = [&]() -> uint64_t {  // sparse keys are of any length
            return std::clamp<uint64_t>(s.dense ? 1 + rng() % 4000 : rng() >> (8 * (rng() % 8)), 1, UINT64_MAX - 1);
        };
        auto freshKey = [&]() -> uint64_t {
            uint64_t step = s.dense ? 1 + rng() % 2 : 1 + rng() % 1000000;
            return s.order == Rising ? counter += step
                 : s.order == Falling ? counter -= std::min(step, counter - 1) : randomKey();
        };
        auto probeKey = [&]() -> uint64_t {  // half of them hit a present key
            if (model.empty() || rng() % 2)
                return randomKey();
            uint64_t low = model.begin()->first, high = model.rbegin()->first;
            return model.lower_bound(low + rng() % (high - low + 1))->first;
        };
        for (int op = 0; op < 20000; ++op) {
            uint64_t k = probeKey();
            switch (rng() % 5) {
            case 0:
            case 1: {
                k = rng() % 4 ? freshKey() : k;
                ksLoc at = static_cast<ksLoc>(rng()) | 1;
                bool present = model.count(k);
                ksG->errorNumber = 0;
                ASSERT_EQ(add(k, at), present ? ksBtDuplicate : ksBtDone) << "add " << k;
                if (present) {
                    EXPECT_EQ(ksG->errorNumber, 292);
                    EXPECT_EQ(ksHandleToU64(ksG->duplicateHandle), k);
                }
                model.emplace(k, at);
                break;
            }
            case 2: ASSERT_EQ(erase(k), model.erase(k) ? ksBtDone : ksBtMissing) << "delete " << k; break;
            case 3: ASSERT_EQ(find(k), model.count(k) ? model[k] : 0) << "find " << k; break;
            default: {
                k += rng() % 4 == 0;
                auto it = model.lower_bound(k);
                ksObjHandle h{};
                ksLoc at = 0;
                ASSERT_EQ(ksBtreeSeekAtOrAbove(fcb, ksHandleFromU64(k), &h, &at), it != model.end()) << "seek " << k;
                ASSERT_TRUE(it == model.end() || (ksHandleToU64(h) == it->first && at == it->second));
            }
            }
            if (op % 1000 == 999) {
                SCOPED_TRACE(::testing::Message() << "after operation " << op);
                ASSERT_NO_FATAL_FAILURE(expectMatches(model));
            }
        }
        ksBtreeFree(fcb);
        EXPECT_EQ(fcb->btreeRoot | ksBtreeCount(fcb), 0u);
    }
}

TEST_F(BtreeTest, EmptyTree)
{
    ksObjHandle h;
    ksLoc at;
    EXPECT_EQ(find(1), 0u);
    EXPECT_EQ(erase(1), ksBtMissing);
    EXPECT_EQ(ksBtreeSeekAtOrAbove(fcb, ksObjHandle{}, &h, &at), 0);
    EXPECT_EQ(fcb->btreeRoot | ksBtreeCount(fcb), 0u);
}

TEST_F(BtreeTest, DuplicateAddLeavesTreeUnchanged)
{
    std::map<uint64_t, ksLoc> model;
    for (uint64_t k = 10; k <= 1000; k += 10)
        ASSERT_EQ(add(k, model[k] = static_cast<ksLoc>(k * 3)), ksBtDone);
    ksBtNode root;
    ASSERT_EQ(ksVmRead(&root, fcb->btreeRoot, sizeof root), 1);
    for (uint64_t k : {root.keys[0], uint64_t{500}, uint64_t{10}, uint64_t{1000}}) {  // root, leaf, ends
        ksG->errorNumber = 0;
        ksG->duplicateHandle = ksObjHandle{};
        EXPECT_EQ(add(k, 7), ksBtDuplicate);
        EXPECT_EQ(ksG->errorNumber, 292);
        EXPECT_EQ(ksHandleToU64(ksG->duplicateHandle), k);
    }
    expectMatches(model);
}

// 00..01 00 is above 00..00 FF, and a longer handle above every shorter one.
TEST_F(BtreeTest, HandlesOrderAsBytesMostSignificantFirst)
{
    const ksObjHandle handles[] = {{{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFE}},
                                   {{0, 0, 0, 0, 0, 0, 1, 0}}, {{1, 0, 0, 0, 0, 0, 0, 0}},
                                   {{0, 0, 0, 0, 0, 0, 0, 0xFF}}};
    for (ksLoc i = 0; i < 4; ++i)
        ASSERT_EQ(ksBtreeAdd(fcb, handles[i], i + 1), ksBtDone);
    EXPECT_EQ(walk(), (Entries{{0xFF, 4}, {0x100, 2}, {0x0100000000000000, 3}, {0xFFFFFFFFFFFFFFFE, 1}}));
    ksObjHandle next = handles[3];
    ASSERT_EQ(ksHandleIncrement(&next), 1);
    EXPECT_EQ(ksBtreeFind(fcb, next), 2u);
}

// Rising adds, then deletes in random order: each size ends in an empty
// tree that holds no store, and takes new entries again.
TEST_F(BtreeTest, DeletingEverythingLeavesAnEmptyTree)
{
    std::mt19937 rng(42);
    const size_t emptyStore = ksVmBytesInUse();
    for (uint64_t n : {1, 22, 23, 24, 1000, 100000}) {
        SCOPED_TRACE(::testing::Message() << n << " entries");
        std::vector<uint64_t> keys(n);
        for (uint64_t k = 1; k <= n; ++k)
            ASSERT_EQ(add(keys[k - 1] = k, static_cast<ksLoc>(k)), ksBtDone);
        ASSERT_EQ(ksBtreeCount(fcb), n);
        std::shuffle(keys.begin(), keys.end(), rng);
        for (size_t i = 0; i < n; ++i) {
            ASSERT_EQ(erase(keys[i]), ksBtDone) << "key " << keys[i];
            if (i % 97 == 0) {
                EXPECT_EQ(find(keys[i]), 0u);
                EXPECT_EQ(erase(keys[i]), ksBtMissing);
                EXPECT_TRUE(i + 1 == n || find(keys[i + 1]) == keys[i + 1]);
            }
        }
        EXPECT_EQ(fcb->btreeRoot | ksBtreeCount(fcb), 0u);
        EXPECT_EQ(ksVmBytesInUse(), emptyStore) << "nodes left behind";
        EXPECT_TRUE(walk().empty());
    }
    ASSERT_EQ(add(5, 9), ksBtDone);
    EXPECT_EQ(find(5), 9u);
}

}  // namespace
