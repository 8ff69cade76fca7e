// Generic doubly linked list of untyped pointers (list, stack, queue, set).
#include "quovix-ds.hpp"

#include <cstdio>
#include <cstdlib>

namespace {

QUOVIX_LIST_NODE *node_new() {
    return static_cast<QUOVIX_LIST_NODE *>(std::calloc(1, sizeof(QUOVIX_LIST_NODE)));
}

bool list_ready(const QUOVIX_LIST *list) {
    if (list && list->head && list->tail) return true;
    std::fputs("Error: QUOVIX_LIST has not been properly initialized.\n", stderr);
    return false;
}

// Inserts a new node holding `data` between `prev` and `prev->next`.
void *insert_after(QUOVIX_LIST *list, QUOVIX_LIST_NODE *prev, void *data) {
    QUOVIX_LIST_NODE *node = node_new();
    if (!node) {
        std::fputs("Error: unable to allocate QUOVIX_LIST_NODE.\n", stderr);
        return nullptr;
    }
    node->data = data;
    node->prev = prev;
    node->next = prev->next;
    prev->next->prev = node;
    prev->next = node;
    list->curr = node;
    return data;
}

// Unlinks and frees an element node (never a sentinel), returning its data.
void *unlink(QUOVIX_LIST_NODE *node) {
    void *data = node->data;
    node->prev->next = node->next;
    node->next->prev = node->prev;
    std::free(node);
    return data;
}

}  // namespace

/// New empty list with its two sentinels; `func_free` (may be null) releases
/// element data when the list is emptied or freed. Null on failure; release
/// with quovix_list_free (or quovix_list_free_ref to keep the data).
QUOVIX_LIST *quovix_list_new(void (*func_free)(void *)) {
    auto *list = static_cast<QUOVIX_LIST *>(std::calloc(1, sizeof(QUOVIX_LIST)));
    if (!list) {
        std::fputs("Error: unable to allocate QUOVIX_LIST.\n", stderr);
        return nullptr;
    }
    list->head = node_new();
    if (!list->head) {
        std::fputs("Error: unable to allocate list->head.\n", stderr);
        std::free(list);
        return nullptr;
    }
    list->tail = node_new();
    if (!list->tail) {
        std::fputs("Error: unable to allocate list->tail.\n", stderr);
        std::free(list->head);
        std::free(list);
        return nullptr;
    }
    list->head->next = list->tail;
    list->tail->prev = list->head;
    list->curr = nullptr;
    list->func_free = func_free;
    return list;
}

/// Frees every node and the list, applying `func_free` (when set) to the data
/// of every node from head to tail, sentinels included: the release function
/// is called with null twice and must accept it. Null is accepted.
void quovix_list_free(QUOVIX_LIST *list) {
    if (!list) return;
    QUOVIX_LIST_NODE *node = list->head;
    while (node) {
        QUOVIX_LIST_NODE *next = node->next;
        if (list->func_free) list->func_free(node->data);
        std::free(node);
        node = next;
    }
    std::free(list);
}

/// Frees the list and its nodes but leaves the data alive. Null is accepted.
void quovix_list_free_ref(QUOVIX_LIST *list) {
    if (!list) return;
    list->func_free = nullptr;
    quovix_list_free(list);
}

/// Removes every element (releasing its data when `func_free` is set); the list
/// stays usable and the cursor is cleared.
void quovix_list_empty(QUOVIX_LIST *list) {
    QUOVIX_LIST_NODE *node = list->head->next;
    while (node != list->tail) {
        QUOVIX_LIST_NODE *next = node->next;
        if (list->func_free) list->func_free(node->data);
        std::free(node);
        node = next;
    }
    list->head->next = list->tail;
    list->tail->prev = list->head;
    list->curr = nullptr;
}

/// True when the list holds no element.
bool quovix_list_is_empty(const QUOVIX_LIST *list) { return list->head->next == list->tail; }

/// Inserts `data` at the front; the cursor moves to it. Returns `data`, or null
/// on failure (list unchanged).
void *quovix_list_insert_first(QUOVIX_LIST *list, void *data) {
    if (!list_ready(list)) return nullptr;
    return insert_after(list, list->head, data);
}

/// Inserts `data` at the back; the cursor moves to it. Returns `data`, or null
/// on failure (list unchanged).
void *quovix_list_insert_last(QUOVIX_LIST *list, void *data) {
    if (!list_ready(list)) return nullptr;
    return insert_after(list, list->tail->prev, data);
}

/// Unlinks and frees `node` (an element of `list`) and returns its data, which
/// is not released. Null when the list is empty or `node` is null or a sentinel.
/// A cursor left on the removed node is cleared.
void *quovix_list_remove(QUOVIX_LIST *list, QUOVIX_LIST_NODE *node) {
    if (!list_ready(list)) return nullptr;
    if (!node || quovix_list_is_empty(list) || node == list->head || node == list->tail) {
        return nullptr;
    }
    if (list->curr == node) list->curr = nullptr;
    return unlink(node);
}

/// Removes the first element and returns its data (not released); the cursor
/// goes to the new first node. Null on an empty list.
void *quovix_list_remove_first(QUOVIX_LIST *list) {
    if (!list_ready(list)) return nullptr;
    if (quovix_list_is_empty(list)) return nullptr;
    void *data = unlink(list->head->next);
    list->curr = list->head->next;
    return data;
}

/// Removes the last element and returns its data (not released); the cursor
/// goes to the new last node. Null on an empty list.
void *quovix_list_remove_last(QUOVIX_LIST *list) {
    if (!list_ready(list)) return nullptr;
    if (quovix_list_is_empty(list)) return nullptr;
    void *data = unlink(list->tail->prev);
    list->curr = list->tail->prev;
    return data;
}

/// Data of the first element (null when empty); the cursor moves there.
void *quovix_list_read_first(QUOVIX_LIST *list) {
    if (!list_ready(list)) return nullptr;
    list->curr = list->head->next;
    return list->curr->data;
}

/// Data of the last element (null when empty); the cursor moves there.
void *quovix_list_read_last(QUOVIX_LIST *list) {
    if (!list_ready(list)) return nullptr;
    list->curr = list->tail->prev;
    return list->curr->data;
}

/// True when some element holds the same pointer as `data` (identity, not
/// content). The cursor is left on the match, or on the tail.
bool quovix_list_contain(QUOVIX_LIST *list, void *data) {
    for (list->curr = list->head->next; list->curr != list->tail; list->curr = list->curr->next) {
        if (list->curr->data == data) return true;
    }
    return false;
}

/// Number of elements, by walking the list.
long quovix_list_count(const QUOVIX_LIST *list) {
    long n = 0;
    for (QUOVIX_LIST_NODE *node = list->head->next; node != list->tail; node = node->next) n++;
    return n;
}

/// Inserts at the front of `des`, in the order of `src`, every pointer of
/// `src` that `des` does not hold yet. Returns how many were added (0 when
/// either list is null). `src` is unchanged.
long quovix_list_union(QUOVIX_LIST *des, QUOVIX_LIST *src) {
    if (!des || !src) return 0;
    // With des == src every pointer is already present, so the walk never meets
    // a node inserted during it.
    long added = 0;
    for (QUOVIX_LIST_NODE *node = src->head->next; node != src->tail; node = node->next) {
        if (quovix_list_contain(des, node->data)) continue;
        if (!quovix_list_insert_first(des, node->data)) break;
        added++;
    }
    return added;
}

/// Prints "QUOVIX_LIST: head^", "->N" per element (1-based, "^" added when its
/// data is null) and "->tail^" to stdout.
void quovix_list_print(const QUOVIX_LIST *list) {
    if (!list || !list->head || !list->tail) {
        std::fputs("QUOVIX_LIST: (not allocated)\n", stdout);
        return;
    }
    std::fputs("QUOVIX_LIST: head^", stdout);
    long i = 0;
    for (QUOVIX_LIST_NODE *node = list->head->next; node != list->tail; node = node->next) {
        std::printf("->%ld", ++i);
        if (!node->data) std::fputc('^', stdout);
    }
    std::fputs("->tail^\n", stdout);
}
