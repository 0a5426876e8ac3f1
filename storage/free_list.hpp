// Internal: the free-list format shared by the path-based and the rooted allocator, and the
// first-fit allocation that both run over it.
#pragma once

#include <cstdint>

#include "kesdbm/storage.h"

namespace kes {

constexpr uint32_t kFreeListAnchor = KESDB_FLST_ANCHOR;

// A step of a walk from `from` to `to` is accepted when `to` lies at least one element header
// past `from` (past the anchor's word when `from` is the anchor). A list that keeps this rule
// ends within (medium size / 8) steps, because reads beyond the end of the medium fail; a link
// that breaks it (a loop, a key going backwards) ends the walk.
inline bool advances(uint32_t from, uint32_t to) {
    const uint32_t gap = from == kFreeListAnchor ? 4u : 8u;
    return to >= gap && to - gap >= from;
}

// True when the block [key, key + size) ends within 32-bit keys.
inline bool fitsIn32(uint32_t key, uint32_t size) { return size <= UINT32_MAX - key; }

// Fill pattern of fragments too small to be elements: DE AD DE AD ...
constexpr uint32_t kFragmentMax = 8;
inline constexpr unsigned char kDeadPattern[kFragmentMax] = {0xDE, 0xAD, 0xDE, 0xAD, 0xDE, 0xAD, 0xDE, 0xAD};

// First fit from the front of the list. `List` reaches one free list:
//   uint32_t first();                               the anchor's next link
//   bool element(uint32_t key, FreeElement& e);     reads an element (recording a failure)
//   int32_t setNext(uint32_t key, uint32_t next);   0 or the code recorded
//   int32_t setElement(uint32_t key, const FreeElement& e);
//   void fill(uint32_t key, uint32_t count);        writes the DE AD pattern
//   void broken(uint32_t key);                      records a broken link found at key
// Returns the key handed out, or 0 when no element is large enough or the list cannot be read.
// When the element of a split cannot be written, the result is KESDB_FLST_FAILED if
// `splitFailureFails`, else the key (the failure stays recorded).
template <class List>
uint32_t allocateFirstFit(List& list, uint32_t size, bool splitFailureFails) {
    const uint32_t first = list.first();
    if (first == 0) return 0;
    if (!advances(kFreeListAnchor, first)) {
        list.broken(kFreeListAnchor);
        return 0;
    }
    uint32_t predecessor = kFreeListAnchor;
    uint32_t current = first;
    FreeElement e{0, 0};
    for (;;) {
        if (!list.element(current, e)) return 0;
        if (e.size >= size) break;
        if (e.next == 0) return 0;
        if (!advances(current, e.next)) {
            list.broken(current);
            return 0;
        }
        predecessor = current;
        current = e.next;
    }
    if (!fitsIn32(current, e.size)) {
        list.broken(current);
        return 0;
    }
    // Write failures below are recorded by the list and, but for the split, do not change
    // the result.
    const uint32_t remainder = e.size - size;
    if (remainder < 8) {
        if (remainder != 0) list.fill(current + size, remainder);
        list.setNext(predecessor, e.next);
        return current;
    }
    // Split: the front of the element is handed out, the rest stays free.
    list.setNext(predecessor, current + size);
    const FreeElement rest{e.next, remainder};
    if (list.setElement(current + size, rest) != 0 && splitFailureFails) return KESDB_FLST_FAILED;
    return current;
}

}  // namespace kes
