// Store lists against a model of (node order, cursor): random inserts of
// chains, removals and cursor moves, with the list walked both ways after
// every step; then named cases.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <random>
#include <vector>

#include "frame/globals.h"
#include "store/list.h"
#include "support/fixtures.h"

namespace {

using Nodes = std::vector<ksLoc>;

uint64_t tagOf(ksLoc node) { return node * 0x9E3779B97F4A7C15ull; }

class ListTest : public zt::ToolkitTest {
protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(ToolkitTest::SetUp());
        ASSERT_TRUE((list = ksListNew()) != 0 && (other = ksListNew()) != 0);
    }
    void TearDown() override
    {
        ksListFree(list);
        ksListFree(other);
        for (ksLoc node : spare)
            ksVmFree(node);
        ToolkitTest::TearDown();
    }

    // A node whose payload tags it with its location; kept in `spare`
    // unless `keep` is false.
    ksLoc newNode(bool keep = false)
    {
        ksLoc node = ksListAddNode(ksListNodeHeaderSize + 8);
        uint64_t tag = tagOf(node);
        EXPECT_EQ(ksVmWrite(node + ksListNodeHeaderSize, &tag, sizeof tag), 1);
        if (keep)
            spare.push_back(node);
        return node;
    }
    // Links nodes into a chain by their next fields only.
    static ksLoc chainOf(const Nodes& nodes)
    {
        for (size_t i = 0; i < nodes.size(); ++i) {
            ksLoc next = i + 1 < nodes.size() ? nodes[i + 1] : 0;
            ksVmWrite(nodes[i] + offsetof(ksListNode, next), &next, sizeof next);
        }
        return nodes.empty() ? 0 : nodes[0];
    }

    // Count, ends, cursor, order both ways, owners and untouched payloads.
    static void expectList(ksLoc l, const Nodes& order, ksLoc current)
    {
        ASSERT_EQ(ksListCount(l), order.size());
        EXPECT_EQ(ksListFirst(l), order.empty() ? 0 : order.front());
        EXPECT_EQ(ksListLast(l), order.empty() ? 0 : order.back());
        EXPECT_EQ(ksListCurrent(l), current);
        Nodes forward, backward;
        for (ksLoc at = ksListFirst(l); at != 0 && forward.size() <= order.size(); at = ksListNodeNext(at))
            forward.push_back(at);
        for (ksLoc at = ksListLast(l); at != 0 && backward.size() <= order.size(); at = ksListNodePrev(at))
            backward.insert(backward.begin(), at);
        ASSERT_EQ(forward, order);
        ASSERT_EQ(backward, order);
        for (ksLoc node : order) {
            uint64_t tag = 0;
            ksVmRead(&tag, node + ksListNodeHeaderSize, sizeof tag);
            EXPECT_TRUE(ksListNodeOwner(node) == l && tag == tagOf(node)) << "node " << node;
        }
    }

    ksLoc list = 0, other = 0;
    Nodes spare;  // nodes in no list
};

TEST_F(ListTest, RandomOperationsAgreeWithModel)
{
    enum { Head, Tail, Before, After, BeforeCurrent, AfterCurrent, Append, RemoveFirst, RemoveLast, Remove,
           RemoveAfterCurrent, RemoveBeforeCurrent, RemoveFirstN, SetCurrent, Next, Rewind, OpCount };
    ksLoc foreign = newNode();
    ASSERT_EQ(ksListAppend(other, foreign), 1);
    for (uint32_t seed = 1; seed <= 6; ++seed) {
        SCOPED_TRACE(::testing::Message() << "seed " << seed);
        std::mt19937 rng(seed);
        Nodes order;
        ksLoc current = 0;
        auto at = [&](ksLoc n) { return std::find(order.begin(), order.end(), n); };
        auto pick = [&] { return order[rng() % order.size()]; };
        for (int step = 0; step < (seed % 2 ? 3000 : 600); ++step) {  // long runs grow, short ones empty often
            int op = static_cast<int>(rng() % OpCount);
            // A cursor left on a removed node must be set again before use.
            if (current != 0 && at(current) == order.end() &&
                (op == BeforeCurrent || op == AfterCurrent || op == RemoveAfterCurrent || op == RemoveBeforeCurrent || op == Next))
                op = Rewind;
            if (seed % 2 && op >= RemoveFirst && op <= RemoveFirstN && rng() % 3 == 0)
                op = Tail;
            SCOPED_TRACE(::testing::Message() << "step " << step << ", operation " << op);
            Nodes nodes;
            for (size_t k = op == Append ? 1 : 1 + rng() % 3; nodes.size() < k;) {
                size_t i = spare.empty() ? (spare.push_back(newNode()), 0) : rng() % spare.size();
                nodes.push_back(spare[i]);
                spare.erase(spare.begin() + static_cast<ptrdiff_t>(i));
            }
            ksLoc chain = chainOf(nodes);
            spare.insert(spare.end(), nodes.begin(), nodes.end());  // taken back out when inserted
            // An insert that was expected at `where` (empty list: the cursor moves in).
            auto inserted = [&](int32_t got, Nodes::iterator where) {
                ASSERT_EQ(got, static_cast<int32_t>(nodes.size()));
                current = order.empty() ? nodes[0] : current;
                order.insert(where, nodes.begin(), nodes.end());
                spare.resize(spare.size() - nodes.size());
            };
            // A removal that was expected to give `node`, alone (0: none).
            auto removed = [&](ksLoc got, ksLoc node) {
                ASSERT_EQ(got, node);
                if (node == 0)
                    return;
                EXPECT_EQ(ksListNodeNext(node) | ksListNodePrev(node), 0u);
                order.erase(at(node));
                spare.push_back(node);
                current = order.empty() ? 0 : current;
            };
            ksLoc front = order.empty() ? 0 : order.front(), back = order.empty() ? 0 : order.back();
            switch (op) {
            case Head: inserted(ksListInsertHead(list, chain), order.begin()); break;
            case Tail: inserted(ksListInsertTail(list, chain), order.end()); break;
            case Before:
                if (order.empty()) {
                    EXPECT_EQ(ksListInsertBefore(list, foreign, chain), -2);
                } else {
                    ksLoc place = pick();
                    inserted(ksListInsertBefore(list, place, chain), at(place));
                }
                break;
            case After: {
                ksLoc place = order.empty() || rng() % 5 == 0 ? 0 : pick();
                inserted(ksListInsertAfter(list, place, chain), place ? at(place) + 1 : order.begin());
                break;
            }
            case BeforeCurrent:
            case AfterCurrent: {
                int32_t got = op == BeforeCurrent ? ksListInsertBeforeCurrent(list, chain)
                                                  : ksListInsertAfterCurrent(list, chain);
                if (current == 0) {
                    EXPECT_EQ(got, -1);
                } else {
                    inserted(got, at(current) + (op == AfterCurrent));
                }
                break;
            }
            case Append: inserted(ksListAppend(list, chain), order.end()); break;
            case RemoveFirst: removed(ksListRemoveFirst(list), front); break;
            case RemoveLast: removed(ksListRemoveLast(list), back); break;
            case Remove: {
                ksLoc node = order.empty() ? 0 : pick();
                removed(ksListRemove(list, node ? node : foreign), node);
                break;
            }
            case RemoveAfterCurrent: removed(ksListRemoveAfterCurrent(list), current == 0 || current == back ? 0 : *(at(current) + 1)); break;
            case RemoveBeforeCurrent: removed(ksListRemoveBeforeCurrent(list), current == 0 || current == front ? 0 : *(at(current) - 1)); break;
            case RemoveFirstN: {
                uint32_t n = static_cast<uint32_t>(rng() % (order.size() + 2));
                ksLoc got = ksListRemoveFirstN(list, n);
                if (n == 0 || n > order.size()) {
                    ASSERT_EQ(got, 0u) << "first " << n << " of " << order.size();
                    break;
                }
                Nodes out;  // the removed nodes still form a chain
                for (ksLoc c = got; c != 0 && out.size() <= n; c = ksListNodeNext(c))
                    out.push_back(c);
                ASSERT_EQ(out, Nodes(order.begin(), order.begin() + n));
                spare.insert(spare.end(), out.begin(), out.end());
                order.erase(order.begin(), order.begin() + n);
                current = order.empty() ? 0 : current;
                break;
            }
            case SetCurrent: {
                if (rng() % 6 == 0) {
                    EXPECT_EQ(ksListSetCurrent(list, foreign), -1);
                    break;
                }
                ksLoc node = order.empty() || rng() % 6 == 0 ? 0 : pick();
                ASSERT_EQ(ksListSetCurrent(list, node), 0);
                current = node;
                break;
            }
            case Next:
                EXPECT_EQ(ksListNext(list), 0);
                current = current == 0 || current == back ? 0 : *(at(current) + 1);
                break;
            case Rewind: ksListRewind(list), current = front; break;
            }
            ASSERT_FALSE(HasFatalFailure());
            ASSERT_NO_FATAL_FAILURE(expectList(list, order, current));
        }
        ASSERT_NO_FATAL_FAILURE(expectList(other, {foreign}, foreign));
        EXPECT_EQ(ksListRemoveFirstN(list, static_cast<uint32_t>(order.size())), order.empty() ? 0 : order.front());
        spare.insert(spare.end(), order.begin(), order.end());
        expectList(list, {}, 0);
    }
}

TEST_F(ListTest, RemovingTheOnlyNodeEmptiesTheList)
{
    ksLoc node = newNode(true);
    ASSERT_EQ(ksListAppend(list, node), 1);
    EXPECT_EQ(ksListCurrent(list), node);
    EXPECT_EQ(ksListRemove(list, node), node);
    expectList(list, {}, 0);
    EXPECT_EQ(ksListRemove(list, node) | ksListRemoveFirst(list) | ksListRemoveLast(list), 0u);
}

TEST_F(ListTest, RemovingTheCurrentNodeLeavesTheCursorOnIt)
{
    Nodes nodes = {newNode(), newNode(true), newNode()};
    for (ksLoc node : nodes)
        ASSERT_EQ(ksListAppend(list, node), 1);
    ASSERT_EQ(ksListSetCurrent(list, nodes[1]), 0);
    EXPECT_EQ(ksListRemove(list, nodes[1]), nodes[1]);
    expectList(list, {nodes[0], nodes[2]}, nodes[1]);
}

TEST_F(ListTest, PlaceOfAnotherListIsRefused)
{
    ksLoc mine = newNode(), theirs = newNode(), loose = newNode(true);
    ASSERT_EQ(ksListAppend(list, mine) + ksListAppend(other, theirs), 2);
    chainOf({loose});
    for (ksLoc place : {theirs, loose}) {  // of another list, of none
        EXPECT_EQ(ksListInsertAfter(list, place, loose), -2);
        EXPECT_EQ(ksListInsertBefore(list, place, loose), -2);
        EXPECT_EQ(ksListSetCurrent(list, place), -1);
        EXPECT_EQ(ksListRemove(list, place), 0u);
    }
    expectList(list, {mine}, mine);
    expectList(other, {theirs}, theirs);
}

TEST_F(ListTest, ChainOfThreeAtTheHead)
{
    ksLoc old = newNode();
    ASSERT_EQ(ksListAppend(list, old), 1);
    ASSERT_EQ(ksListSetCurrent(list, 0), 0);  // past the end stays past the end
    Nodes chain = {newNode(), newNode(), newNode()};
    EXPECT_EQ(ksListInsertHead(list, chainOf(chain)), 3);
    expectList(list, {chain[0], chain[1], chain[2], old}, 0);
    EXPECT_EQ(ksListInsertHead(list, 0), 0);
    EXPECT_EQ(ksListCount(list), 4u);
}

TEST_F(ListTest, NullListIsRefused)
{
    ksLoc node = chainOf({newNode(true)});
    for (int32_t got : {ksListInsertHead(0, node), ksListInsertTail(0, node), ksListInsertAfter(0, 0, node),
                        ksListInsertBefore(0, node, node), ksListInsertBeforeCurrent(0, node),
                        ksListInsertAfterCurrent(0, node), int32_t{ksListAppend(0, node)}, int32_t{ksListSetCurrent(0, 0)}})
        EXPECT_EQ(got, -1);
    EXPECT_EQ(ksListAppend(list, 0), 0);
    EXPECT_EQ(ksListCount(0) | ksListFirst(0) | ksListLast(0) | ksListCurrent(0), 0u);
    EXPECT_EQ(ksListRemoveFirst(0) | ksListRemoveLast(0) | ksListRemoveFirstN(0, 1), 0u);
    EXPECT_EQ(ksListNodeOwner(node), 0u);  // untouched
}

}  // namespace
