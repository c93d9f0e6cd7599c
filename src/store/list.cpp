#include "store/list.h"

#include "frame/globals.h"

namespace {

inline ksList* desc(ksLoc list) { return static_cast<ksList*>(ksVmPtr(list)); }
inline ksListNode* hdr(ksLoc node) { return static_cast<ksListNode*>(ksVmPtr(node)); }

// A node of this list, or null.
inline ksListNode* member(ksLoc list, ksLoc node)
{
    ksListNode* n = hdr(node);
    return n && n->owner == list ? n : nullptr;
}

// Splices a chain in behind `place` (0: at the head).
int32_t splice(ksLoc list, ksLoc place, ksLoc chain)
{
    ksList* l = desc(list);
    if (l == nullptr)
        return -1;
    ksListNode* p = nullptr;
    if (place != 0 && (p = member(list, place)) == nullptr)
        return -2;
    if (chain == 0)
        return 0;
    int32_t added = 0;
    ksLoc lastOfChain = 0;
    for (ksLoc at = chain; at != 0;) {
        ksListNode* n = hdr(at);
        if (n == nullptr)
            break;
        n->owner = list;
        n->prev = lastOfChain;  // the chain links forward only
        ++added;
        lastOfChain = at;
        at = n->next;
    }
    l->count += added;
    ksListNode* firstNode = hdr(chain);
    ksListNode* lastNode = hdr(lastOfChain);
    if (l->first == 0) {
        firstNode->prev = 0;
        lastNode->next = 0;
        l->first = l->current = chain;
        l->last = lastOfChain;
    } else if (p != nullptr) {
        firstNode->prev = place;
        lastNode->next = p->next;
        if (p->next != 0)
            hdr(p->next)->prev = lastOfChain;
        else
            l->last = lastOfChain;
        p->next = chain;
    } else {
        firstNode->prev = 0;
        lastNode->next = l->first;
        hdr(l->first)->prev = lastOfChain;
        l->first = chain;
    }
    return added;
}

// Unlinks the connected range a..b of this list and returns a.
ksLoc unlink(ksLoc list, ksLoc a, ksLoc b)
{
    ksList* l = desc(list);
    if (l == nullptr || l->count == 0)
        return 0;
    ksListNode* na = member(list, a);
    ksListNode* nb = member(list, b);
    if (na == nullptr || nb == nullptr)
        return 0;
    // A node that was removed before keeps its owner: only linked ends count.
    if ((na->prev == 0) != (l->first == a) || (nb->next == 0) != (l->last == b))
        return 0;
    uint32_t removed = 1;
    for (ksLoc at = a; at != b; ++removed) {
        at = hdr(at)->next;
        if (at == 0)
            return 0;  // b does not follow a
    }
    l->count -= removed;
    if (na->prev == 0 && nb->next == 0) {
        l->first = l->current = l->last = 0;
    } else if (na->prev == 0) {
        l->first = nb->next;
        hdr(nb->next)->prev = 0;
        nb->next = 0;
    } else if (nb->next == 0) {
        l->last = na->prev;
        hdr(na->prev)->next = 0;
        na->prev = 0;
    } else {
        hdr(na->prev)->next = nb->next;
        hdr(nb->next)->prev = na->prev;
        na->prev = 0;
        nb->next = 0;
    }
    return a;
}

}  // namespace

ksLoc ksListNew()
{
    ksLoc list = ksVmAlloc(sizeof(ksList));
    if (list == 0) {
        ksAllocFailed(218);
        return 0;
    }
    *desc(list) = ksList{};
    return list;
}

uint32_t ksListCount(ksLoc list)
{
    ksList* l = desc(list);
    return l ? l->count : 0;
}

ksLoc ksListFirst(ksLoc list)
{
    ksList* l = desc(list);
    return l ? l->first : 0;
}

ksLoc ksListLast(ksLoc list)
{
    ksList* l = desc(list);
    return l ? l->last : 0;
}

ksLoc ksListCurrent(ksLoc list)
{
    ksList* l = desc(list);
    return l ? l->current : 0;
}

void ksListRewind(ksLoc list)
{
    if (ksList* l = desc(list))
        l->current = l->first;
}

int16_t ksListSetCurrent(ksLoc list, ksLoc node)
{
    ksList* l = desc(list);
    if (l == nullptr || (node != 0 && member(list, node) == nullptr))
        return -1;
    l->current = node;
    return 0;
}

int16_t ksListNext(ksLoc list)
{
    ksList* l = desc(list);
    if (l && l->current != 0)
        l->current = hdr(l->current)->next;
    return 0;
}

ksLoc ksListAddNode(uint32_t size)
{
    ksLoc node = ksVmAlloc(size < ksListNodeHeaderSize ? ksListNodeHeaderSize : size);
    if (node == 0) {
        ksAllocFailed(219);
        return 0;
    }
    *hdr(node) = ksListNode{};
    return node;
}

ksLoc ksListNodeNext(ksLoc node)
{
    ksListNode* n = hdr(node);
    return n ? n->next : 0;
}

ksLoc ksListNodePrev(ksLoc node)
{
    ksListNode* n = hdr(node);
    return n ? n->prev : 0;
}

ksLoc ksListNodeOwner(ksLoc node)
{
    ksListNode* n = hdr(node);
    return n ? n->owner : 0;
}

int32_t ksListInsertHead(ksLoc list, ksLoc chain) { return splice(list, 0, chain); }
int32_t ksListInsertTail(ksLoc list, ksLoc chain) { return splice(list, ksListLast(list), chain); }
int32_t ksListInsertAfter(ksLoc list, ksLoc node, ksLoc chain) { return splice(list, node, chain); }

int32_t ksListInsertBefore(ksLoc list, ksLoc node, ksLoc chain)
{
    if (desc(list) == nullptr)
        return -1;
    ksListNode* n = member(list, node);
    if (n == nullptr)
        return -2;
    return splice(list, n->prev, chain);
}

int32_t ksListInsertBeforeCurrent(ksLoc list, ksLoc chain)
{
    ksLoc current = ksListCurrent(list);
    if (desc(list) == nullptr || current == 0)
        return -1;
    return ksListInsertBefore(list, current, chain);
}

int32_t ksListInsertAfterCurrent(ksLoc list, ksLoc chain)
{
    ksLoc current = ksListCurrent(list);
    if (desc(list) == nullptr || current == 0)
        return -1;
    return splice(list, current, chain);
}

int16_t ksListAppend(ksLoc list, ksLoc node)
{
    ksList* l = desc(list);
    if (l == nullptr)
        return -1;
    ksListNode* n = hdr(node);
    if (n == nullptr)
        return 0;
    n->owner = list;
    n->next = 0;
    n->prev = l->last;
    if (l->last != 0)
        hdr(l->last)->next = node;
    else
        l->first = l->current = node;
    l->last = node;
    ++l->count;
    return 1;
}

ksLoc ksListRemoveFirst(ksLoc list)
{
    ksLoc first = ksListFirst(list);
    return unlink(list, first, first);
}

ksLoc ksListRemoveLast(ksLoc list)
{
    ksLoc last = ksListLast(list);
    return unlink(list, last, last);
}

ksLoc ksListRemove(ksLoc list, ksLoc node) { return unlink(list, node, node); }

ksLoc ksListRemoveAfterCurrent(ksLoc list)
{
    ksLoc next = ksListNodeNext(ksListCurrent(list));
    return unlink(list, next, next);
}

ksLoc ksListRemoveBeforeCurrent(ksLoc list)
{
    ksLoc prev = ksListNodePrev(ksListCurrent(list));
    return unlink(list, prev, prev);
}

ksLoc ksListRemoveFirstN(ksLoc list, uint32_t n)
{
    ksList* l = desc(list);
    if (l == nullptr || n == 0 || n > l->count)
        return 0;
    ksLoc b = l->first;
    for (uint32_t i = 1; i < n; ++i)
        b = hdr(b)->next;
    return unlink(list, l->first, b);
}

void ksListClear(ksLoc list)
{
    ksList* l = desc(list);
    if (l == nullptr)
        return;
    for (ksLoc at = l->first; at != 0;) {
        ksLoc next = hdr(at)->next;
        ksVmFree(at);
        at = next;
    }
    *l = ksList{};
}

void ksListFree(ksLoc list)
{
    ksListClear(list);
    ksVmFree(list);
}
