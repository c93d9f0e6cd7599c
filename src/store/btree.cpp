#include "store/btree.h"

#include <cstring>
#include <utility>

#include "frame/fcb.h"
#include "frame/globals.h"
#include "store/handles.h"

namespace {

inline ksBtNode* node(ksLoc location) { return static_cast<ksBtNode*>(ksVmPtr(location)); }

// The first position whose key is not below k. A key above the last entry
// (handles added in rising order) costs one comparison.
inline int position(const ksBtNode* n, uint64_t k)
{
    int count = n->count;
    if (count == 0 || k > n->keys[count - 1])
        return count;
    int i = 0;
    while (n->keys[i] < k)
        ++i;
    return i;
}

ksLoc newNode()
{
    ksLoc location = ksVmAlloc(sizeof(ksBtNode));
    if (location != 0)
        std::memset(node(location), 0, sizeof(ksBtNode));
    return location;
}

// Room at position p: entries and the children right of p move up by one.
void openGap(ksBtNode* n, int p)
{
    int count = n->count;
    std::memmove(&n->keys[p + 1], &n->keys[p], (count - p) * sizeof n->keys[0]);
    std::memmove(&n->locations[p + 1], &n->locations[p], (count - p) * sizeof n->locations[0]);
    std::memmove(&n->children[p + 2], &n->children[p + 1], (count - p) * sizeof n->children[0]);
}

// Removes entry p and the child right of it.
void closeGap(ksBtNode* n, int p)
{
    int count = n->count;
    std::memmove(&n->keys[p], &n->keys[p + 1], (count - p - 1) * sizeof n->keys[0]);
    std::memmove(&n->locations[p], &n->locations[p + 1], (count - p - 1) * sizeof n->locations[0]);
    std::memmove(&n->children[p + 1], &n->children[p + 2], (count - p - 1) * sizeof n->children[0]);
    --n->count;
}

// An entry travelling up after a split, with the node right of it.
struct PassUp {
    uint64_t key;
    ksLoc location;
    ksLoc right;
};

enum InsertResult { kInserted, kPassUp, kDuplicate, kNoMemory };

InsertResult insert(ksLoc at, uint64_t key, ksLoc value, PassUp& up)
{
    if (at == 0) {
        up = {key, value, 0};
        return kPassUp;
    }
    ksBtNode* n = node(at);
    int p = position(n, key);
    if (p < n->count && n->keys[p] == key)
        return kDuplicate;
    InsertResult r = insert(n->children[p], key, value, up);
    if (r != kPassUp)
        return r;
    if (n->count < ksBtMaxEntries) {
        openGap(n, p);
        n->keys[p] = up.key;
        n->locations[p] = up.location;
        n->children[p + 1] = up.right;
        ++n->count;
        return kInserted;
    }
    // Full: split around the median of the 23 entries, the new one included.
    ksLoc rightLoc = newNode();
    if (rightLoc == 0)
        return kNoMemory;
    ksBtNode* right = node(rightLoc);
    n = node(at);
    uint64_t keys[ksBtMaxEntries + 1];
    ksLoc locations[ksBtMaxEntries + 1];
    ksLoc children[ksBtMaxEntries + 2];
    std::memcpy(keys, n->keys, p * sizeof keys[0]);
    std::memcpy(locations, n->locations, p * sizeof locations[0]);
    std::memcpy(children, n->children, (p + 1) * sizeof children[0]);
    keys[p] = up.key;
    locations[p] = up.location;
    children[p + 1] = up.right;
    std::memcpy(keys + p + 1, n->keys + p, (ksBtMaxEntries - p) * sizeof keys[0]);
    std::memcpy(locations + p + 1, n->locations + p, (ksBtMaxEntries - p) * sizeof locations[0]);
    std::memcpy(children + p + 2, n->children + p + 1, (ksBtMaxEntries - p) * sizeof children[0]);

    constexpr int half = ksBtMinEntries;  // 11 left, the median, 11 right
    std::memcpy(n->keys, keys, half * sizeof keys[0]);
    std::memcpy(n->locations, locations, half * sizeof locations[0]);
    std::memcpy(n->children, children, (half + 1) * sizeof children[0]);
    n->count = half;
    std::memcpy(right->keys, keys + half + 1, half * sizeof keys[0]);
    std::memcpy(right->locations, locations + half + 1, half * sizeof locations[0]);
    std::memcpy(right->children, children + half + 1, (half + 1) * sizeof children[0]);
    right->count = half;
    up = {keys[half], locations[half], rightLoc};
    return kPassUp;
}

// Fixes child c of n after it fell below the minimum: borrow from a
// sibling that can spare an entry, or merge with one.
void rebalance(ksBtNode* n, int c)
{
    ksBtNode* child = node(n->children[c]);
    ksBtNode* left = c > 0 ? node(n->children[c - 1]) : nullptr;
    ksBtNode* right = c < n->count ? node(n->children[c + 1]) : nullptr;
    if (left && left->count > ksBtMinEntries) {
        openGap(child, 0);
        child->children[1] = child->children[0];
        child->keys[0] = n->keys[c - 1];
        child->locations[0] = n->locations[c - 1];
        child->children[0] = left->children[left->count];
        ++child->count;
        n->keys[c - 1] = left->keys[left->count - 1];
        n->locations[c - 1] = left->locations[left->count - 1];
        --left->count;
        return;
    }
    if (right && right->count > ksBtMinEntries) {
        child->keys[child->count] = n->keys[c];
        child->locations[child->count] = n->locations[c];
        child->children[child->count + 1] = right->children[0];
        ++child->count;
        n->keys[c] = right->keys[0];
        n->locations[c] = right->locations[0];
        right->children[0] = right->children[1];
        closeGap(right, 0);
        return;
    }
    // Merge the pair (left part, separator, right part) into the left node.
    int s = left ? c - 1 : c;
    ksBtNode* a = node(n->children[s]);
    ksLoc bLoc = n->children[s + 1];
    ksBtNode* b = node(bLoc);
    a->keys[a->count] = n->keys[s];
    a->locations[a->count] = n->locations[s];
    std::memcpy(&a->keys[a->count + 1], b->keys, b->count * sizeof b->keys[0]);
    std::memcpy(&a->locations[a->count + 1], b->locations, b->count * sizeof b->locations[0]);
    std::memcpy(&a->children[a->count + 1], b->children, (b->count + 1) * sizeof b->children[0]);
    a->count = static_cast<uint16_t>(a->count + 1 + b->count);
    closeGap(n, s);
    ksVmFree(bLoc);
}

// Deletes key below node `at`; true when found.
bool erase(ksLoc at, uint64_t key)
{
    ksBtNode* n = node(at);
    int p = position(n, key);
    bool here = p < n->count && n->keys[p] == key;
    if (n->children[0] == 0) {
        if (!here)
            return false;
        closeGap(n, p);
        return true;
    }
    if (here) {
        // Exchange with the in-order predecessor, which stands last in the
        // rightmost leaf of the left subtree; the key then goes from there.
        ksBtNode* leaf = node(n->children[p]);
        while (leaf->children[0] != 0)
            leaf = node(leaf->children[leaf->count]);
        int last = leaf->count - 1;
        std::swap(n->keys[p], leaf->keys[last]);
        std::swap(n->locations[p], leaf->locations[last]);
    }
    if (!erase(n->children[p], key))
        return false;
    if (node(n->children[p])->count < ksBtMinEntries)
        rebalance(n, p);
    return true;
}

void freeSubtree(ksLoc at)
{
    ksBtNode* n = node(at);
    if (n->children[0] != 0)
        for (int i = 0; i <= n->count; ++i)
            freeSubtree(n->children[i]);
    ksVmFree(at);
}

}  // namespace

ksLoc ksBtreeFind(const ksFcb* fcb, const ksObjHandle& handle)
{
    uint64_t key = ksHandleToU64(handle);
    for (ksLoc at = fcb->btreeRoot; at != 0;) {
        const ksBtNode* n = node(at);
        int p = position(n, key);
        if (p < n->count && n->keys[p] == key)
            return n->locations[p];
        at = n->children[p];
    }
    return 0;
}

int16_t ksBtreeAdd(ksFcb* fcb, const ksObjHandle& handle, ksLoc location)
{
    PassUp up{};
    switch (insert(fcb->btreeRoot, ksHandleToU64(handle), location, up)) {
    case kInserted:
        ++fcb->btreeCount;
        return ksBtDone;
    case kDuplicate:
        ksG->errorNumber = 292;
        ksG->duplicateHandle = handle;
        return ksBtDuplicate;
    case kNoMemory:
        ksAllocFailed(214);
        return ksBtFailed;
    case kPassUp:
        break;
    }
    // The root split, or the tree was empty: a new root above.
    ksLoc rootLoc = newNode();
    if (rootLoc == 0) {
        ksAllocFailed(214);
        return ksBtFailed;
    }
    ksBtNode* root = node(rootLoc);
    root->count = 1;
    root->keys[0] = up.key;
    root->locations[0] = up.location;
    root->children[0] = fcb->btreeRoot;
    root->children[1] = up.right;
    fcb->btreeRoot = rootLoc;
    ++fcb->btreeCount;
    return ksBtDone;
}

int16_t ksBtreeDelete(ksFcb* fcb, const ksObjHandle& handle)
{
    if (fcb->btreeRoot == 0 || !erase(fcb->btreeRoot, ksHandleToU64(handle)))
        return ksBtMissing;
    --fcb->btreeCount;
    ksBtNode* root = node(fcb->btreeRoot);
    if (root->count == 0) {
        ksLoc old = fcb->btreeRoot;
        fcb->btreeRoot = root->children[0];
        ksVmFree(old);
    }
    return ksBtDone;
}

void ksBtreeFree(ksFcb* fcb)
{
    if (fcb->btreeRoot != 0)
        freeSubtree(fcb->btreeRoot);
    fcb->btreeRoot = 0;
    fcb->btreeCount = 0;
}

int16_t ksBtreeSeekAtOrAbove(const ksFcb* fcb, const ksObjHandle& from, ksObjHandle* handleOut,
                             ksLoc* locationOut)
{
    uint64_t key = ksHandleToU64(from);
    bool found = false;
    uint64_t bestKey = 0;
    ksLoc bestLocation = 0;
    // The answer is the last entry not below the key met on the way down.
    for (ksLoc at = fcb->btreeRoot; at != 0;) {
        const ksBtNode* n = node(at);
        int p = position(n, key);
        if (p < n->count) {
            found = true;
            bestKey = n->keys[p];
            bestLocation = n->locations[p];
            if (bestKey == key)
                break;
        }
        at = n->children[p];
    }
    if (!found)
        return 0;
    *handleOut = ksHandleFromU64(bestKey);
    *locationOut = bestLocation;
    return 1;
}

uint32_t ksBtreeCount(const ksFcb* fcb) { return fcb->btreeCount; }
