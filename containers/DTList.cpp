#include "containers/DTList.h"

#include "containers/DTList_internal.h"
#include "foundation/DTMem.h"

namespace {

// A list without a release function can never give a node back, so its
// nodes come from the pool that is never released.
DTListNode *NewNode_(DTList *l, void *item) {
    DTListFreeFn freeItem = l->freeItem;
    void *mem = freeItem ? DTMem_LocalMalloc(sizeof(DTListNode))
                         : DTMem_LocalMalloc_Static(sizeof(DTListNode));
    if (!mem) return nullptr;
    DTListNode *node = static_cast<DTListNode *>(mem);
    node->next = nullptr;
    node->item = item;
    return node;
}

// Node at pos (0 = head), or null when the list is shorter.
DTListNode *NodeAt_(DTList *l, int32_t pos) {
    DTListNode *node = l->head;
    for (int32_t i = 0; node && i < pos; ++i) node = node->next;
    return node;
}

DTListNode *Tail_(DTList *l) {
    DTListNode *node = l->head;
    while (node && node->next) node = node->next;
    return node;
}

}  // namespace

extern "C" {

DTList *DTList_New(int32_t limit, DTListFreeFn freeItem) {
    DTList *l = static_cast<DTList *>(DTMem_LocalMalloc(sizeof(DTList)));
    if (!l) return nullptr;
    l->count = 0;
    l->limit = limit;
    l->freeItem = freeItem;
    l->head = nullptr;
    return l;
}

int32_t DTList_Length(DTList *l) { return l ? l->count : 0; }

int32_t DTList_Insert(DTList *l, int32_t pos, void *item) {
    if (!l) return 0;
    DTListNode *node = NewNode_(l, item);
    if (!node) return 0;
    if (!l->head) {
        l->head = node;
        l->count = 1;
        return 1;
    }
    if (pos < 0) {
        node->next = l->head;
        l->head = node;
    } else {
        DTListNode *prev = pos < l->count ? NodeAt_(l, pos) : Tail_(l);
        node->next = prev->next;
        prev->next = node;
    }
    l->count++;
    return 1;
}

int32_t DTList_Append(DTList *l, void *item) {
    if (!l) return 0;
    return DTList_Insert(l, l->count, item);
}

void *DTList_Set(DTList *l, int32_t pos, void *item) {
    if (!l) return nullptr;
    if (pos < l->count) {
        if (pos < 0) return nullptr;
        DTListNode *node = NodeAt_(l, pos);
        void *old = node->item;
        node->item = item;
        return old;
    }
    // Grow one node at a time so that a failed allocation leaves a
    // consistent list: every node made so far is linked and counted.
    DTListNode *tail = Tail_(l);
    while (l->count <= pos) {
        DTListNode *node = NewNode_(l, nullptr);
        if (!node) return nullptr;
        if (tail)
            tail->next = node;
        else
            l->head = node;
        tail = node;
        l->count++;
    }
    tail->item = item;
    return nullptr;
}

void *DTList_Get(DTList *l, int32_t pos) {
    if (!l || pos >= l->count || !l->head) return nullptr;
    if (pos <= 0) return l->head->item;
    return NodeAt_(l, pos)->item;
}

int32_t DTList_FindPos(DTList *l, DTListCmpFn cmp, void *key) {
    if (!l || !cmp) return -1;
    int32_t pos = 0;
    for (DTListNode *node = l->head; node; node = node->next, ++pos) {
        if (cmp(node->item, key) == 0) return pos;
    }
    return -1;
}

void *DTList_Find(DTList *l, DTListCmpFn cmp, void *key) {
    if (!l || !cmp) return nullptr;
    for (DTListNode *node = l->head; node; node = node->next) {
        if (cmp(node->item, key) == 0) return node->item;
    }
    return nullptr;
}

void *DTList_Remove(DTList *l, int32_t pos) {
    if (!l || !l->freeItem || pos < 0 || pos >= l->count) return nullptr;
    DTListNode *node = l->head;
    if (pos == 0) {
        l->head = node->next;
    } else {
        DTListNode *prev = NodeAt_(l, pos - 1);
        node = prev->next;
        prev->next = node->next;
    }
    void *item = node->item;
    DTMem_LocalFree(node);
    l->count--;
    return item;
}

void *DTList_PopTail(DTList *l) {
    if (!l || l->count == 0) return nullptr;
    return DTList_Remove(l, l->count - 1);
}

void *DTList_Popup(DTList *l) { return DTList_Remove(l, 0); }

int32_t DTList_Push(DTList *l, void *item) {
    if (!l) return 0;
    if (l->limit != 0 && l->count >= l->limit) {
        void *dropped = DTList_PopTail(l);
        DTListFreeFn freeItem = l->freeItem;
        if (dropped && freeItem) freeItem(dropped);
    }
    return DTList_Insert(l, -1, item);
}

void DTList_RemoveAll(DTList *l) {
    if (!l || !l->freeItem) return;
    DTListFreeFn freeItem = l->freeItem;
    DTListNode *node = l->head;
    // Unhook the chain first: a release function that looks at this list
    // then sees it empty rather than half torn down.
    l->head = nullptr;
    l->count = 0;
    while (node) {
        DTListNode *next = node->next;
        if (node->item) freeItem(node->item);
        DTMem_LocalFree(node);
        node = next;
    }
}

void DTList_Release(DTList *l) {
    if (!l || !l->freeItem) return;
    DTList_RemoveAll(l);
    DTMem_LocalFree(l);
}

}  // extern "C"
