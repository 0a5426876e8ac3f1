// Internal to the component tree: the bounds every walk over records read from a medium
// keeps, and small helpers shared by the tree operations.
//
// Nothing read from a medium is trusted. A sibling list that loops back on itself, a child
// that names one of its ancestors, or lists that share their tails (so that a walk would visit
// the same subtree again and again) must end a walk with an error, never hang it or exhaust
// the stack. Every walk therefore keeps:
//   - a loop guard on each sibling list (exact cycle detection, so a long legitimate list is
//     never cut short);
//   - the set of components it has entered: in a tree every component is reached once, so a
//     component met a second time (a child naming an ancestor, lists sharing a tail) ends a
//     walk over whole subtrees (printing, transfers, deletion) before it repeats any work.
//     Without it such a walk could branch at every level of a cycle and run for hours inside
//     its other bounds. A path search does not use it (see navigation.cpp);
//   - a depth limit of kMaxDepth levels below the component it started at;
//   - a budget of kMaxVisits components per walk.
// A walk that runs into one of them records KESDB_ERR_COMP_READ (55) with the key of the
// component where it stopped as the detail, and the whole walk ends there. (When the set
// cannot grow for lack of memory, the walk ends with KESDB_ERR_NOMEM instead.)
#pragma once

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "kesdbm/session.h"
#include "kesdbm/tree.h"
#include "kesdbm/value.h"
#include "storage/medium_io.hpp"

namespace kes::tree {

// Deepest nesting a recursive walk follows below its starting component.
constexpr int32_t kMaxDepth = 1024;
// Most components one walk visits; far above any tree a device keeps.
constexpr uint32_t kMaxVisits = 1u << 22;
// Records start behind the 16-byte medium header; a smaller key never names one.
constexpr uint32_t kFirstRecordKey = 16;

// Records the walk-limit failure and returns its code.
inline int32_t walkLimit(Session* s, uint32_t key) {
    return session_setError(s, KESDB_ERR_COMP_READ, key);
}

// Cycle detection over the keys of one list (Brent's method): visit() is called with each
// key in turn and yields false once a key repeats, after at most about twice the length of
// the list's tail plus its loop.
class LoopGuard {
public:
    bool visit(uint32_t key) {
        if (!started_) {
            started_ = true;
            saved_ = key;
            return true;
        }
        if (key == saved_) return false;
        if (++steps_ == power_) {
            saved_ = key;
            power_ <<= 1;
            steps_ = 0;
        }
        return true;
    }

private:
    bool started_ = false;
    uint32_t saved_ = 0;
    uint64_t power_ = 1;
    uint64_t steps_ = 0;
};

// The keys one walk has entered: an open-addressing hash set on the C heap (no exception can
// leave it), freed when the walk ends.
class KeySet {
public:
    KeySet() = default;
    KeySet(const KeySet&) = delete;
    KeySet& operator=(const KeySet&) = delete;
    ~KeySet() { std::free(slots_); }

    enum class Insert { Added, Present, NoMemory };

    Insert insert(uint32_t key) {
        if (key == 0) {  // 0 marks a free slot; it is kept apart
            if (hasZero_) return Insert::Present;
            hasZero_ = true;
            return Insert::Added;
        }
        if ((count_ + 1) * 2 > capacity_ && !grow()) return Insert::NoMemory;
        size_t i = slotOf(key);
        while (slots_[i] != 0) {
            if (slots_[i] == key) return Insert::Present;
            i = (i + 1) & (capacity_ - 1);
        }
        slots_[i] = key;
        ++count_;
        return Insert::Added;
    }

private:
    size_t slotOf(uint32_t key) const { return (key * 0x9E3779B1u) & (capacity_ - 1); }

    bool grow() {
        const size_t capacity = capacity_ ? capacity_ * 2 : 64;
        auto* slots = static_cast<uint32_t*>(std::calloc(capacity, sizeof(uint32_t)));
        if (!slots) return false;
        uint32_t* old = slots_;
        const size_t oldCapacity = capacity_;
        slots_ = slots;
        capacity_ = capacity;
        for (size_t i = 0; i < oldCapacity; ++i) {
            if (old[i] == 0) continue;
            size_t j = slotOf(old[i]);
            while (slots_[j] != 0) j = (j + 1) & (capacity_ - 1);
            slots_[j] = old[i];
        }
        std::free(old);
        return true;
    }

    uint32_t* slots_ = nullptr;
    size_t capacity_ = 0;  // a power of two, or 0
    size_t count_ = 0;
    bool hasZero_ = false;
};

// Depth and visit accounting of one recursive walk.
struct WalkBudget {
    uint32_t visits = 0;
    bool aborted = false;
    bool enterOnce = true;  // a component entered a second time ends the walk
    KeySet entered;

    // Accounts for entering `key` at `level` levels below the start; false (with the
    // walk-limit error recorded once) when the walk must stop.
    bool enter(Session* s, uint32_t key, int64_t level) {
        if (aborted) return false;
        if (level > kMaxDepth || ++visits > kMaxVisits) return stop(s, key);
        if (!enterOnce) return true;
        switch (entered.insert(key)) {
            case KeySet::Insert::Added: return true;
            case KeySet::Insert::Present: return stop(s, key);
            case KeySet::Insert::NoMemory:
                session_setError(s, KESDB_ERR_NOMEM, ENOMEM);
                aborted = true;
                return false;
        }
        return true;
    }
    // Ends the walk at `key` (a loop was found there).
    bool stop(Session* s, uint32_t key) {
        if (!aborted) walkLimit(s, key);
        aborted = true;
        return false;
    }
};

// The code to return after a read failed: the one the read recorded. A null session records
// nothing; its reads always fail at the database lookup, so that is the code then.
inline int32_t failureCode(const Session* s) {
    const int32_t code = kes::lastError(s);
    return code != 0 ? code : KESDB_ERR_DB_NOTFOUND;
}

// Every stored record begins with its own key, and every write of a record goes to that key.
// A block whose key word differs is no component (a wrong key, or a damaged medium): it is
// refused with error 55, detail the key, so that it is neither followed nor written over
// another record.
inline bool ownKey(Session* s, uint32_t key, uint32_t stored) {
    if (stored == key) return true;
    session_setError(s, KESDB_ERR_COMP_READ, key);
    return false;
}

// Reads the common part of a component that a tree operation or field accessor works on.
// Key 0 is the medium header and never a component: it is refused with error 4 instead of
// being read. A block that does not carry its own key is refused (see ownKey).
inline CompRecord* readCommon(Session* s, uint32_t key, CompRecord* rec) {
    if (key == 0) {
        session_setError(s, KESDB_ERR_COMP_NULLKEY, 0);
        return nullptr;
    }
    if (!comp_getComponent(s, key, rec)) return nullptr;
    return ownKey(s, key, rec->key) ? rec : nullptr;
}

// Fetches a component name into a name buffer, always NUL-terminated inside it (a name of
// 256 bytes or more is cut to 255 characters). The buffer holds the empty name when the
// name cannot be fetched; the result says whether it was. String key 0 names no entry (it
// would read the string medium's header as one): a component without a name has the empty
// name.
inline bool fetchName(Session* s, uint32_t stringKey, char (&name)[KESDB_NAME_BUFFER]) {
    std::memset(name, 0, sizeof name);
    if (stringKey == 0) return true;
    const bool fetched = kesdb_getString(s, stringKey, name, KESDB_NAME_BUFFER) != nullptr;
    if (!fetched) std::memset(name, 0, sizeof name);
    name[KESDB_NAME_BUFFER - 1] = '\0';
    return fetched;
}

}  // namespace kes::tree
