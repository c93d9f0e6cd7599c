#include "store/record.h"

#include <cstring>

#include "frame/fcb.h"
#include "frame/globals.h"
#include "store/btree.h"
#include "store/handles.h"
#include "store/list.h"

namespace {

ksLoc makeNode(const void* record, uint32_t size, int16_t allocError)
{
    if (size > ksVmMaxBlock - ksListNodeHeaderSize) {
        ksSetError(allocError);
        return 0;
    }
    ksLoc node = ksVmAlloc(ksListNodeHeaderSize + size);
    if (node == 0) {
        ksAllocFailed(allocError);
        return 0;
    }
    *static_cast<ksListNode*>(ksVmPtr(node)) = ksListNode{};
    std::memcpy(ksRecordOf(node), record, size);
    return node;
}

// Inserts by position code; true when the node went in (or, for a code
// that asks for no insertion, stays out).
bool place(ksLoc list, ksLoc node, int16_t position, ksLoc where)
{
    switch (position) {
    case ksAtHead:
        return ksListInsertHead(list, node) == 1;
    case ksAtTail:
        return ksListAppend(list, node) == 1;
    case ksBeforePlace:
        return ksListInsertBefore(list, where, node) == 1;
    default:
        return true;
    }
}

}  // namespace

ksLoc ksRecordAdd(const void* record, ksFcb* fcb, const ksObjHandle& handle, uint32_t size, ksLoc list,
                  int16_t position, ksLoc where, int16_t allocError)
{
    if (ksHandleIsNull(handle)) {
        ksSetError(231);
        return 0;
    }
    ksLoc node = makeNode(record, size, allocError);
    if (node == 0)
        return 0;
    int16_t added = ksBtreeAdd(fcb, handle, node);
    if (added != ksBtDone) {
        ksSetError(added == ksBtDuplicate ? 172 : 173);
        ksVmFree(node);
        return 0;
    }
    if (!place(list, node, position, where)) {
        ksBtreeDelete(fcb, handle);
        ksVmFree(node);
        ksSetError(173);
        return 0;
    }
    return node;
}

ksLoc ksRecordCopy(const void* record, uint32_t size, ksLoc list, int16_t position, ksLoc where,
                   int16_t allocError)
{
    ksLoc node = makeNode(record, size, allocError);
    if (node == 0)
        return 0;
    if (!place(list, node, position, where)) {
        ksVmFree(node);
        ksSetError(223);
        return 0;
    }
    return node;
}
