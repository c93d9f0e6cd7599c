// Owner-tagged doubly linked lists in the store. A list's descriptor and
// each node are store blocks; a node starts with ksListNode and its payload
// follows. Every list has one cursor, `current`, shared by all its readers.
//
// Inserts take a chain (one node, or several linked by `next`, the last
// with next 0) and return the number of nodes inserted, 0 for a null
// chain, -1 for a null list, -2 when the node named as the place is not of
// this list. Inserts into a list with nodes leave `current` alone; removals
// leave it alone unless the list empties.
#pragma once

#include <cstdint>

#include "store/vm.h"

struct ksList {
    uint32_t count;
    ksLoc first;
    ksLoc current;  // 0 past the end
    ksLoc last;
};

struct ksListNode {
    ksLoc next;
    ksLoc prev;
    ksLoc owner;  // the list the node stands in (kept after removal)
};

inline constexpr uint32_t ksListNodeHeaderSize = sizeof(ksListNode);
static_assert(ksListNodeHeaderSize == 12);

ksLoc ksListNew();                           // 0 with error 218
uint32_t ksListCount(ksLoc list);
ksLoc ksListFirst(ksLoc list);
ksLoc ksListLast(ksLoc list);
ksLoc ksListCurrent(ksLoc list);
void ksListRewind(ksLoc list);
int16_t ksListSetCurrent(ksLoc list, ksLoc node);  // 0, or -1 (null list, foreign node)
int16_t ksListNext(ksLoc list);
ksLoc ksListAddNode(uint32_t size);          // size includes the header; 0 with error 219
// Links of a node: 0 for none or for a location that is no node.
ksLoc ksListNodeNext(ksLoc node);
ksLoc ksListNodePrev(ksLoc node);
ksLoc ksListNodeOwner(ksLoc node);

int32_t ksListInsertHead(ksLoc list, ksLoc chain);
int32_t ksListInsertTail(ksLoc list, ksLoc chain);
int32_t ksListInsertBefore(ksLoc list, ksLoc node, ksLoc chain);
int32_t ksListInsertAfter(ksLoc list, ksLoc node, ksLoc chain);  // node 0: at the head
int32_t ksListInsertBeforeCurrent(ksLoc list, ksLoc chain);
int32_t ksListInsertAfterCurrent(ksLoc list, ksLoc chain);
int16_t ksListAppend(ksLoc list, ksLoc node);  // 1, 0 for a null node, -1 for a null list

// Removals unlink and return the node (the first of a chain for
// ksListRemoveFirstN); the caller frees it. 0 when there is nothing to
// remove or the node is not of this list.
ksLoc ksListRemoveFirst(ksLoc list);
ksLoc ksListRemoveLast(ksLoc list);
ksLoc ksListRemove(ksLoc list, ksLoc node);
ksLoc ksListRemoveAfterCurrent(ksLoc list);
ksLoc ksListRemoveBeforeCurrent(ksLoc list);
ksLoc ksListRemoveFirstN(ksLoc list, uint32_t n);

void ksListClear(ksLoc list);  // frees all nodes
void ksListFree(ksLoc list);   // frees the nodes and the descriptor
