// Removing an entry from the lock table's component lock list: shared by the library's unlock
// and by the tool that clears the locks of ended processes, so both leave the table alike.
#pragma once

#include <cstdint>

#include "kesdbm/lock.h"

// Unlinks entry `index` (whose predecessor in the list is `prev`, 0 for the head) and puts it at
// the front of the free list. The caller holds the lock table's mutex and has checked that the
// entry's `next` link is a valid index or 0.
inline void lockList_release(LockTable* t, uint32_t prev, uint32_t index) {
    LockEntry& e = t->entry[index];
    const uint32_t next = e.next;
    if (prev)
        t->entry[prev].next = next;
    else
        t->compHead = next;
    if (next)
        t->entry[next].prev = prev;
    else
        t->compTail = prev;
    e.next = t->freeHead;
    t->freeHead = index;
}
