// Adding plain records (table records, objects) to a list of the store.
#pragma once

#include <cstdint>

#include "frame/kstypes.h"
#include "store/vm.h"

struct ksFcb;

// Where a new node goes.
enum ksPosition : int16_t {
    ksAtHead = -1,
    ksAtTail = -2,
    ksBeforePlace = -3,
    // any other value: the node is made but not inserted
};

// Makes a node of `size` record bytes behind the list header, enters
// `handle` in the index and inserts the node at `position`. The node, or
// 0 with 231 (null handle), 223 (no memory, or allocError when given),
// 172 (duplicate handle, duplicateHandle set) or 173 (any other refusal);
// on failure nothing is left behind.
ksLoc ksRecordAdd(const void* record, ksFcb* fcb, const ksObjHandle& handle, uint32_t size, ksLoc list,
                  int16_t position, ksLoc place, int16_t allocError = 223);
// The same for a record without a handle.
ksLoc ksRecordCopy(const void* record, uint32_t size, ksLoc list, int16_t position, ksLoc place,
                   int16_t allocError = 223);
// The record bytes of a node.
inline void* ksRecordOf(ksLoc node) { return static_cast<uint8_t*>(ksVmPtr(node)) + 12; }
