// Test support for the free-list allocators: a free list read back as it stands, for checks of
// the whole list after an allocation or release.
#pragma once

#include <vector>

#include "mediakit.hpp"

namespace lk {

using Free = std::vector<mk::Pair>;  // {key, size} of every free element, from the anchor on

inline Free freeList(const mk::ListFile& f) {
    Free list;
    for (uint32_t k = f.word(12); k != 0 && list.size() < 64; k = f.word(k)) list.push_back({k, f.word(k + 4)});
    return list;
}

// Free bytes on the list: allocations and releases move exact amounts.
inline uint64_t total(const Free& list) {
    uint64_t n = 0;
    for (const mk::Pair& e : list) n += e.second;
    return n;
}

}  // namespace lk
