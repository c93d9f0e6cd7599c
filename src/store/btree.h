// The handle index of a drawing: an ordered map from handle to the store
// location of the record that has it. A B-tree of nodes in the store, at
// most ksBtMaxEntries entries a node, at least half that in all nodes but
// the root, so every operation is O(log n).
#pragma once

#include <cstdint>

#include "frame/kstypes.h"
#include "store/vm.h"

struct ksFcb;

inline constexpr int ksBtMaxEntries = 22;
inline constexpr int ksBtMinEntries = ksBtMaxEntries / 2;

// A stored node. Keys are handles as numbers (their byte order is their
// numeric order, most significant first).
struct ksBtNode {
    uint16_t count;
    uint64_t keys[ksBtMaxEntries];
    ksLoc locations[ksBtMaxEntries];
    ksLoc children[ksBtMaxEntries + 1];  // children[0] == 0 marks a leaf
};

// Results of ksBtreeAdd and ksBtreeDelete.
enum : int16_t {
    ksBtFailed = 0,     // no memory for a node (error 214)
    ksBtDone = 1,
    ksBtDuplicate = 2,  // add: the handle is present (error 292, duplicateHandle)
    ksBtMissing = 4,    // delete: the handle is not present
};

// The location stored for handle, or 0 when it isn't in the tree.
ksLoc ksBtreeFind(const ksFcb* fcb, const ksObjHandle& handle);
// Adds (handle, location); location must not be 0.
int16_t ksBtreeAdd(ksFcb* fcb, const ksObjHandle& handle, ksLoc location);
int16_t ksBtreeDelete(ksFcb* fcb, const ksObjHandle& handle);
// Frees every node; the tree is empty afterwards.
void ksBtreeFree(ksFcb* fcb);

// In-order walk: the first entry whose handle is at or above `from`.
// 1 with the entry in the out arguments, 0 when there is none.
int16_t ksBtreeSeekAtOrAbove(const ksFcb* fcb, const ksObjHandle& from, ksObjHandle* handleOut,
                             ksLoc* locationOut);
// Number of entries (kept by the drawing, O(1)).
uint32_t ksBtreeCount(const ksFcb* fcb);
