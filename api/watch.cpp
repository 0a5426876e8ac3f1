// Waiting for changes made by any process: the public call over the change record
// (value/changes.cpp). A change counts for a watch when the component it touched lies at or
// below the watched one, or the watched one lies below it; both are found by walking parent
// links, each walk bounded by the tree's depth limit.
#include <time.h>

#include "kesdbm/kesdbm.h"
#include "kesdbm/watch.h"
#include "storage/medium_io.hpp"
#include "tree/walk_guard.hpp"
#include "value/changes.hpp"

namespace {

namespace changes = kes::changes;

// Ancestors of the watched component a change may name to cover it (a deeper one is still
// seen through the changes below it).
constexpr int32_t kChain = 64;

int64_t nowNs() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

// The parent of a component, 0 when it has none or cannot be read (a deleted component's
// space no longer carries its key and ends the walk). Read as a node, which prints nothing.
uint32_t parentOf(Session* s, uint32_t key) {
    NodeRecord node;
    return key != 0 && comp_getNode(s, key, &node) && node.comp.key == key ? node.comp.parent : 0u;
}

struct Watch {
    Session* s;
    uint32_t key;
    bool whole;                // the whole database is watched
    uint32_t chain[kChain];    // the watched component and its ancestors, nearest first
    int32_t chainLength;

    Watch(Session* session, uint32_t watched) : s(session), key(watched), chain{}, chainLength(0) {
        whole = key == 0 || key == comp_getRoot(s);
        for (uint32_t k = key; k != 0 && chainLength < kChain; k = parentOf(s, k)) chain[chainLength++] = k;
    }

    // Whether `key` is the watched component or lies below it.
    bool below(uint32_t k) const {
        for (int32_t level = 0; k != 0 && level <= kes::tree::kMaxDepth; ++level, k = parentOf(s, k))
            if (k == key) return true;
        return false;
    }

    bool covers(const changes::Slot& c) const {
        if (c.dbId != s->dbId) return false;
        if (whole) return true;
        for (int32_t i = 0; i < chainLength; ++i)
            if (chain[i] == c.key) return true;
        return below(c.key) || (c.parent != 0 && below(c.parent));
    }
};

bool listed(const uint32_t* keys, int32_t n, uint32_t key) {
    for (int32_t i = 0; i < n; ++i)
        if (keys[i] == key) return true;
    return false;
}

// Whether the change after a pending one is complete: the pending writer is late or gone.
bool overtaken(const changes::Record* r, uint32_t position, uint32_t head) {
    changes::Slot next;
    return position + 1u != head && changes::at(r, position + 1u, next) != changes::Read::Pending;
}

}  // namespace

extern "C" int32_t kesDBMWatch(Session* s, uint32_t key, uint32_t* sequence, int32_t timeoutMs, uint32_t* changed,
                               int32_t* count) {
    if (!sequence || !count || (!changed && *count > 0)) return session_setError(s, KESDB_ERR_NULLARG, 0);
    const changes::Record* r = changes::mapped();
    if (!r) return session_setError(s, KESDB_ERR_MMAP, 0);
    const int32_t room = *count > 0 ? *count : 0;
    *count = 0;
    // Callers see positions plus one, so that 0 can mean "now" (it comes round again only
    // after 2^32 changes).
    uint32_t next = *sequence == 0 ? changes::head(r) : *sequence - 1u;
    kes::ScopeExit handBack([&] { *sequence = next + 1u; });
    const int64_t deadline = timeoutMs < 0 ? -1 : nowNs() + static_cast<int64_t>(timeoutMs) * 1000000;
    // The walks may record read failures; the call leaves the session's error as it found it.
    const uint32_t savedError = s ? s->error : 0u;
    const uint32_t savedDetail = s ? s->errorDetail : 0u;
    const Watch watch(s, key);
    kes::ScopeExit restore([&] { session_setError(s, static_cast<int32_t>(savedError), savedDetail); });
    for (;;) {
        const uint32_t seen = changes::event(r);
        const uint32_t head = changes::head(r);
        uint32_t position = next;
        int32_t n = 0;
        bool missed = head - position > KESDB_WATCH_RING;
        for (; !missed && position != head; ++position) {
            changes::Slot c;
            const changes::Read state = changes::at(r, position, c);
            if (state == changes::Read::Pending) {
                missed = overtaken(r, position, head);
                break;
            }
            missed = state == changes::Read::Gone;
            if (missed || !watch.covers(c) || listed(changed, n, c.key)) continue;
            if (n == room) {
                missed = true;
                break;
            }
            changed[n++] = c.key;
        }
        if (missed) {
            next = head;
            *count = -1;
            return 0;
        }
        next = position;
        if (n > 0) {
            *count = n;
            return 0;
        }
        const int64_t left = deadline < 0 ? -1 : deadline - nowNs();
        if (deadline >= 0 && left <= 0) return 0;
        if (!changes::wait(r, seen, left)) return 0;
    }
}
