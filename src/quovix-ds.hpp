// Generic doubly linked list of untyped pointers (list, stack, queue, set).
#pragma once

struct QUOVIX_LIST_NODE {
    QUOVIX_LIST_NODE *next;
    QUOVIX_LIST_NODE *prev;
    void *data;  // not owned by the node
};

struct QUOVIX_LIST {
    QUOVIX_LIST_NODE *head;     // sentinel before the first element
    QUOVIX_LIST_NODE *tail;     // sentinel after the last element
    QUOVIX_LIST_NODE *curr;     // node touched by the last operation
    void (*func_free)(void *);  // releases element data; null: the list only refers to it
};

QUOVIX_LIST *quovix_list_new(void (*func_free)(void *));
void quovix_list_free(QUOVIX_LIST *list);
void quovix_list_free_ref(QUOVIX_LIST *list);
void quovix_list_empty(QUOVIX_LIST *list);
bool quovix_list_is_empty(const QUOVIX_LIST *list);
void *quovix_list_insert_first(QUOVIX_LIST *list, void *data);
void *quovix_list_insert_last(QUOVIX_LIST *list, void *data);
void *quovix_list_remove(QUOVIX_LIST *list, QUOVIX_LIST_NODE *node);
void *quovix_list_remove_first(QUOVIX_LIST *list);
void *quovix_list_remove_last(QUOVIX_LIST *list);
void *quovix_list_read_first(QUOVIX_LIST *list);
void *quovix_list_read_last(QUOVIX_LIST *list);
bool quovix_list_contain(QUOVIX_LIST *list, void *data);
long quovix_list_count(const QUOVIX_LIST *list);
long quovix_list_union(QUOVIX_LIST *des, QUOVIX_LIST *src);
void quovix_list_print(const QUOVIX_LIST *list);

// Stack and queue names.
inline void *quovix_list_push(QUOVIX_LIST *l, void *d) { return quovix_list_insert_first(l, d); }
inline void *quovix_list_pop(QUOVIX_LIST *l) { return quovix_list_remove_first(l); }
inline void *quovix_list_top(QUOVIX_LIST *l) { return quovix_list_read_first(l); }
inline void *quovix_list_enqueue(QUOVIX_LIST *l, void *d) { return quovix_list_insert_first(l, d); }
inline void *quovix_list_dequeue(QUOVIX_LIST *l) { return quovix_list_remove_last(l); }
inline void *quovix_list_front(QUOVIX_LIST *l) { return quovix_list_read_last(l); }
inline void *quovix_list_prepend(QUOVIX_LIST *l, void *d) { return quovix_list_insert_first(l, d); }
inline void *quovix_list_append(QUOVIX_LIST *l, void *d) { return quovix_list_insert_last(l, d); }
