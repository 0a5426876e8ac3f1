// The change record: a running count of the changes made through the public calls in every
// process of a database, a ring of the last ones, and a futex word waking the watchers.
//
// Invariants:
//   - `head` counts the changes claimed. A writer claims position p, marks slot p % ring as
//     being written (sequence p), writes it, then publishes it (sequence p + 1, release).
//     A reader takes a slot whose sequence reads p + 1 before and after its copy; an older
//     sequence is a change still being written, a newer one a change written over.
//   - `event` counts the published changes in its upper 31 bits; its low bit says someone
//     sleeps on it. A writer adds 2 and clears the bit in one step and wakes the sleepers only
//     when it was set; a watcher sets the bit and sleeps only while the count is the one it
//     saw before it looked at the ring, so no change published after that look goes unseen.
//     A watcher that was killed asleep leaves the bit set: the next change clears it.
//   - Nothing blocks a writer, and a writer that stops half-way stalls no one for good: the
//     watchers treat its slot as missed once a later change is published.
#include "value/changes.hpp"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstring>

#include "kesdbm/api.h"
#include "storage/shared_table.hpp"

namespace kes::changes {

static_assert(sizeof(Slot) == 16);
static_assert(offsetof(Slot, key) == 8);
static_assert(offsetof(Record, event) == 4);
static_assert(offsetof(Record, slot) == 16);
static_assert(sizeof(Record) == KESDB_WATCH_RECORD_SIZE);
static_assert((KESDB_WATCH_RING & (KESDB_WATCH_RING - 1)) == 0, "positions wrap onto the ring");

namespace {

struct ProcessState {
    Record* record = nullptr;
    int32_t count = 0;
    bool on = true;
};
ProcessState g_changes;

long futex(const uint32_t* word, int op, uint32_t value, const timespec* timeout) {
    return syscall(SYS_futex, const_cast<uint32_t*>(word), op, value, timeout, nullptr, 0);
}

}  // namespace

void init(const char* sessionTablePath) {
    if (++g_changes.count != 1 || !sessionTablePath) return;
    const size_t n = strnlen(sessionTablePath, KESDB_PATH_MAX);
    char path[KESDB_PATH_MAX + sizeof KESDB_WATCH_SUFFIX];
    std::memcpy(path, sessionTablePath, n);
    std::memcpy(path + n, KESDB_WATCH_SUFFIX, sizeof KESDB_WATCH_SUFFIX);
    // All zero is an empty record, so a new file needs nothing more.
    const SharedTableOpen opened = mapSharedTable(path, KESDB_WATCH_RECORD_SIZE, {KESDB_ERR_MMAP, KESDB_ERR_MMAP});
    if (opened.code == 0) g_changes.record = static_cast<Record*>(opened.map);
}

void term() {
    if (g_changes.count <= 0 || --g_changes.count != 0) return;
    if (g_changes.record && unmapSharedTable(g_changes.record, KESDB_WATCH_RECORD_SIZE)) g_changes.record = nullptr;
}

void record(const Session* s, uint32_t key, uint32_t parent) {
    Record* r = g_changes.record;
    if (!r || !g_changes.on || !s || key == 0) return;
    const uint32_t p = __atomic_fetch_add(&r->head, 1u, __ATOMIC_RELAXED);
    Slot& slot = r->slot[p % KESDB_WATCH_RING];
    __atomic_store_n(&slot.sequence, p, __ATOMIC_RELAXED);
    __atomic_thread_fence(__ATOMIC_RELEASE);
    __atomic_store_n(&slot.dbId, s->dbId, __ATOMIC_RELAXED);
    __atomic_store_n(&slot.key, key, __ATOMIC_RELAXED);
    __atomic_store_n(&slot.parent, parent, __ATOMIC_RELAXED);
    __atomic_store_n(&slot.sequence, p + 1u, __ATOMIC_RELEASE);
    uint32_t v = __atomic_load_n(&r->event, __ATOMIC_RELAXED);
    while (!__atomic_compare_exchange_n(&r->event, &v, (v + 2u) & ~1u, true, __ATOMIC_SEQ_CST, __ATOMIC_RELAXED)) {
    }
    if (v & 1u) futex(&r->event, FUTEX_WAKE, INT_MAX, nullptr);
}

bool recording() { return g_changes.record && g_changes.on; }

const Record* mapped() { return g_changes.record; }

uint32_t head(const Record* r) { return __atomic_load_n(&r->head, __ATOMIC_ACQUIRE); }

uint32_t event(const Record* r) { return __atomic_load_n(&r->event, __ATOMIC_ACQUIRE); }

Read at(const Record* r, uint32_t position, Slot& out) {
    const Slot& slot = r->slot[position % KESDB_WATCH_RING];
    const uint32_t want = position + 1u;
    const uint32_t before = __atomic_load_n(&slot.sequence, __ATOMIC_ACQUIRE);
    if (before != want) return static_cast<int32_t>(before - want) > 0 ? Read::Gone : Read::Pending;
    out.dbId = __atomic_load_n(&slot.dbId, __ATOMIC_RELAXED);
    out.key = __atomic_load_n(&slot.key, __ATOMIC_RELAXED);
    out.parent = __atomic_load_n(&slot.parent, __ATOMIC_RELAXED);
    __atomic_thread_fence(__ATOMIC_ACQUIRE);
    if (__atomic_load_n(&slot.sequence, __ATOMIC_RELAXED) != want) return Read::Gone;
    out.sequence = want;
    return Read::Ready;
}

bool wait(const Record* r, uint32_t seen, int64_t timeoutNs) {
    uint32_t* word = const_cast<uint32_t*>(&r->event);
    timespec limit{static_cast<time_t>(timeoutNs / 1000000000), static_cast<long>(timeoutNs % 1000000000)};
    for (;;) {
        uint32_t v = __atomic_load_n(word, __ATOMIC_ACQUIRE);
        if ((v >> 1) != (seen >> 1)) return true;
        if (!(v & 1u) && !__atomic_compare_exchange_n(word, &v, v | 1u, false, __ATOMIC_SEQ_CST, __ATOMIC_ACQUIRE))
            continue;
        if (futex(word, FUTEX_WAIT, v | 1u, timeoutNs < 0 ? nullptr : &limit) == 0) return true;
        if (errno != EAGAIN) return false;  // time is up, a signal came, or no futex
    }
}

}  // namespace kes::changes

extern "C" void kesdb_recordChanges(int32_t on) { kes::changes::g_changes.on = on != 0; }
