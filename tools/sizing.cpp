#include "sizing.hpp"

#include <algorithm>

namespace kesdb {

namespace {

constexpr uint64_t kNode = 28, kLeaf = 40, kValue = 28, kName = 16, kEnum = 20;
constexpr uint64_t kHeadroom = 4096;
// Most free elements looked at to tell whether a medium is full.
constexpr uint32_t kFreeWalkMax = 1u << 20;

uint64_t constraintBytes(const Item& it) {
    if (it.hasRange) return 32;
    if (it.hasEnum) return kEnum + it.members.size();
    return 0;
}

}  // namespace

uint64_t recordBytes(const std::vector<Item>& items) {
    uint64_t bytes = 0;
    for (const Item& it : items)
        bytes += kName + (it.leaf ? kLeaf + 3 * kValue + constraintBytes(it) : kNode + recordBytes(it.children));
    return bytes;
}

uint32_t mediumSizeFor(const std::vector<Item>& items, uint32_t floor) {
    const uint64_t wanted = 2 * (recordBytes(items) + kNode + kName) + kHeadroom;
    if (wanted > 0xFFFFFFF0ull) fail("the description needs media of " + std::to_string(wanted) + " bytes, more than a medium can hold");
    return static_cast<uint32_t>(std::max<uint64_t>(wanted, floor));
}

void creationFailure(Database& db, uint32_t medium, const char* kind, uint32_t bytes, const std::string& what) {
    Session& s = db.s;
    std::string text = what + ": " + codeText(static_cast<int32_t>(s.error));
    // Full: no free element of the medium is large enough. The walk is bounded, and a list
    // that cannot be read is not called full.
    const Session saved = s;
    bool full = true;
    uint32_t steps = 0;
    for (uint32_t key = flst_m_getFirstOffset(&s, medium); key != 0 && full; ++steps) {
        FreeElement e{};
        if (steps > kFreeWalkMax || !flst_m_getElement(&s, medium, key, &e)) {
            full = false;
            break;
        }
        if (e.size >= bytes) full = false;
        key = e.next;
    }
    s = saved;
    if (full)
        text += "; the " + std::string(kind) +
                " medium is full: give create a larger --size, or enlarge the database with "
                "\"kesdb grow DIR --size BYTES\"";
    fail(text);
}

}  // namespace kesdb
