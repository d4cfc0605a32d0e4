// Intrusive circular doubly linked list: a head of two links that points at
// itself when empty, the link inside the record, appends at the tail.
#pragma once

#include <cstddef>

namespace ravik {

struct list_head {
    list_head *next;
    list_head *prev;
};

inline void list_init(list_head *h) { h->next = h->prev = h; }
inline bool list_empty(const list_head *h) { return h->next == h; }

inline void list_add_tail(list_head *h, list_head *n)
{
    n->prev = h->prev;
    n->next = h;
    h->prev->next = n;
    h->prev = n;
}

// Unlinks and clears both links, so a removed node is recognisable.
inline void list_del(list_head *n)
{
    n->prev->next = n->next;
    n->next->prev = n->prev;
    n->next = n->prev = nullptr;
}

} // namespace ravik

#define list_entry(ptr, type, member)                                                              \
    reinterpret_cast<type *>(reinterpret_cast<char *>(ptr) - offsetof(type, member))

// Walks with the next node fetched first, so the visit may unlink the current one.
#define list_for_each_safe(pos, tmp, head)                                                         \
    for (::ravik::list_head *pos = (head)->next, *tmp = pos->next; pos != (head);                  \
         pos = tmp, tmp = pos->next)
