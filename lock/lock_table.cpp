// The lock table: component locks shared by every process through a mapped file.
//
// The file is a 24-byte header and 1025 entries of 24 bytes. Entry 0 means "none" in every
// link, so at most 1024 locks exist at once. Locks of all databases stand in one doubly
// linked list sorted by (database id, key); free entries are chained through `next`.
//
// Choices where the table's contract leaves room:
//  - A table file that can be neither opened nor created: lock_init returns 0 and no table is
//    mapped; every lock call then records and returns KESDB_ERR_MMAP (detail 0),
//    lock_compUnlockAll returns KESDB_ERR_MMAP, and lock_show prints only the final "\n".
//  - An existing file shorter than the table is refused with KESDB_ERR_MMAP instead of being
//    mapped (touching the missing part of the mapping would fault). An empty file (one just
//    created by a process that was stopped before filling it) is laid down as a fresh table.
//    Set-up runs under an exclusive file lock, so of two processes that start at once one lays
//    the table down and the other finds it complete.
//  - A zero-fill that falls short (74) truncates the file to empty again, so a later start-up
//    lays it down anew rather than finding a short file.
//  - Every walk over a list stops after 1024 entries and at any index outside 1..1024. A lock
//    or unlock that meets such a corrupt link records and returns KESDB_ERR_MMAP (detail 0):
//    the table is unusable, and nothing is changed.
//  - A null session locks and unlocks nothing and gets KESDB_ERR_NULLARG (recorded nowhere).
//  - lock_term without a matching lock_init leaves the count at 0 and returns 0, so a later
//    lock_init still sets the table up.

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "kesdbm/lock.h"
#include "kesdbm/session.h"
#include "kesosw.h"
#include "lock/lock_list.hpp"
#include "storage/medium_io.hpp"
#include "storage/shared_table.hpp"

static_assert(sizeof(LockEntry) == 24);
static_assert(offsetof(LockEntry, key) == 4);
static_assert(offsetof(LockEntry, owner) == 8);
static_assert(offsetof(LockEntry, mode) == 12);
static_assert(offsetof(LockEntry, next) == 16);
static_assert(offsetof(LockEntry, prev) == 20);
static_assert(offsetof(LockTable, compHead) == 4);
static_assert(offsetof(LockTable, compTail) == 8);
static_assert(offsetof(LockTable, valueHead) == 12);
static_assert(offsetof(LockTable, valueTail) == 16);
static_assert(offsetof(LockTable, reserved) == 20);
static_assert(offsetof(LockTable, entry) == 24);
static_assert(sizeof(LockTable) == KESDB_LOCK_TABLE_SIZE);

namespace {

constexpr uint32_t kLastEntry = KESDB_LOCK_ENTRIES - 1;  // entries 1..1024 hold locks
constexpr uint32_t kSharedKind = KESDB_LOCK_SHARED;
constexpr int32_t kBusy = KESDB_ERR_LOCK_BUSY;

struct LockProcessState {
    LockTable* table = nullptr;
    SemSet sems{};
    int32_t count = 0;
};
LockProcessState g_lock;

bool validEntry(uint32_t index) { return index >= 1 && index <= kLastEntry; }

// (dbA, keyA) comes after (dbB, keyB) in the component lock list.
bool after(uint32_t dbA, uint32_t keyA, uint32_t dbB, uint32_t keyB) {
    return dbA > dbB || (dbA == dbB && keyA > keyB);
}

void initialiseTable(LockTable* t) {
    std::memset(t, 0, sizeof(LockTable));
    t->freeHead = 1;
    for (uint32_t k = 1; k < kLastEntry; ++k) {
        t->entry[k].next = k + 1;
        t->entry[k].prev = k - 1;
    }
    t->entry[kLastEntry].next = 0;
    t->entry[kLastEntry].prev = 0;
}

// Maps the table file, laying down a fresh table when this process created it, and gets
// the semaphore set. A file that can be neither opened nor created leaves no table.
int32_t setUpTable(const char* path) {
    kes::SharedTableOpen opened = kes::mapSharedTable(path, KESDB_LOCK_TABLE_SIZE, {KESDB_ERR_LOCK_TABLEWRITE, 0});
    if (opened.code != 0 || !opened.map) return opened.code;
    g_lock.table = static_cast<LockTable*>(opened.map);
    if (opened.created) initialiseTable(g_lock.table);
    return misc_getSems(&g_lock.sems, path);
}

// Records a failure of the lock mutex: the code, with errno as the detail.
int32_t mutexFailure(Session* s, int32_t code) {
    uint32_t detail = static_cast<uint32_t>(errno);
    return session_setError(s, code, detail);
}

// Runs `change` on the table under the lock mutex, with the recording rules shared by lock
// and unlock. A null session or a missing table changes nothing.
template <class Change>
int32_t underMutex(Session* s, Change change) {
    if (!s) return KESDB_ERR_NULLARG;
    LockTable* t = g_lock.table;
    if (!t) return session_setError(s, KESDB_ERR_MMAP, 0);
    int32_t c = misc_waitMtx(&g_lock.sems);
    if (c != 0) return mutexFailure(s, c);
    int32_t result = change(t);
    c = misc_postMtx(&g_lock.sems);
    if (result == 0 && c != 0) return mutexFailure(s, c);
    return result;
}

// Inserts a lock of `s` on `key`; 0, 75 (not recorded), 78 or 87 (recorded). Mutex held.
int32_t insertLock(LockTable* t, Session* s, uint32_t key, uint32_t mode) {
    const uint32_t db = s->dbId;
    const uint32_t kind = mode & 0xFF00u;
    uint32_t prev = 0;
    uint32_t cur = t->compHead;
    for (uint32_t steps = 0; cur != 0; ++steps) {
        if (!validEntry(cur) || steps >= kLastEntry) return session_setError(s, KESDB_ERR_MMAP, 0);
        const LockEntry& e = t->entry[cur];
        if (after(e.dbId, e.key, db, key)) break;
        if (e.dbId == db && e.key == key) {
            if (e.mode == kSharedKind && kind == kSharedKind) break;
            return kBusy;
        }
        prev = cur;
        cur = e.next;
    }
    const uint32_t n = t->freeHead;
    if (n == 0) return session_setError(s, KESDB_ERR_LOCK_FULL, 0);
    if (!validEntry(n) || n == cur || n == prev) return session_setError(s, KESDB_ERR_MMAP, 0);
    LockEntry& e = t->entry[n];
    t->freeHead = e.next;
    e.dbId = db;
    e.key = key;
    e.owner = s->id;
    e.mode = kind;
    e.next = cur;
    e.prev = prev;
    if (prev)
        t->entry[prev].next = n;
    else
        t->compHead = n;
    if (cur)
        t->entry[cur].prev = n;
    else
        t->compTail = n;
    return 0;
}

// Removes the most recent lock of the session's database on `key`; 0, 76 (not recorded) or
// 87 (recorded). Mutex held.
int32_t removeLock(LockTable* t, Session* s, uint32_t key) {
    const uint32_t db = s->dbId;
    uint32_t prev = 0;
    uint32_t cur = t->compHead;
    for (uint32_t steps = 0; cur != 0; ++steps) {
        if (!validEntry(cur) || steps >= kLastEntry) return session_setError(s, KESDB_ERR_MMAP, 0);
        LockEntry& e = t->entry[cur];
        if (after(e.dbId, e.key, db, key)) break;
        if (e.dbId == db && e.key == key) {
            if (e.next != 0 && !validEntry(e.next)) return session_setError(s, KESDB_ERR_MMAP, 0);
            lockList_release(t, prev, cur);
            misc_postEvent(&g_lock.sems);
            return 0;
        }
        prev = cur;
        cur = e.next;
    }
    return KESDB_ERR_LOCK_NOTFOUND;
}

// Prints a list from `head`, one item per entry, stopping at a corrupt link.
template <class Print>
void printList(const LockTable* t, uint32_t head, Print print) {
    uint32_t cur = head;
    for (uint32_t steps = 0; validEntry(cur) && steps < kLastEntry; ++steps) {
        print(cur, t->entry[cur]);
        cur = t->entry[cur].next;
    }
}

}  // namespace

extern "C" {

int32_t lock_init(const char* path) {
    if (++g_lock.count != 1) return 0;
    return setUpTable(path);
}

int32_t lock_term(void) {
    if (g_lock.count <= 0) {
        g_lock.count = 0;  // a shut-down without set-up: nothing to undo
        return 0;
    }
    if (--g_lock.count != 0) return 0;
    if (g_lock.table) {
        if (!kes::unmapSharedTable(g_lock.table, KESDB_LOCK_TABLE_SIZE)) return KESDB_ERR_MUNMAP;
        g_lock.table = nullptr;
    }
    return misc_freeSems(&g_lock.sems);
}

int32_t lock_compLock(Session* s, uint32_t key, uint32_t mode) {
    return underMutex(s, [&](LockTable* t) { return insertLock(t, s, key, mode); });
}

int32_t lock_compLockW(Session* s, uint32_t key, uint32_t mode) {
    for (;;) {
        int32_t rc = lock_compLock(s, key, mode);
        if (rc != kBusy) return rc;
        // The event wait returns after an unlock or after a short interval; then look again.
        rc = misc_waitEvent(&g_lock.sems);
        if (rc != 0) return rc;
    }
}

int32_t lock_compUnlock(Session* s, uint32_t key) {
    return underMutex(s, [&](LockTable* t) { return removeLock(t, s, key); });
}

int32_t lock_compUnlockAll(void) {
    LockTable* t = g_lock.table;
    if (!t) return KESDB_ERR_MMAP;
    uint32_t cur = t->compHead;
    for (uint32_t steps = 0; validEntry(cur) && steps < kLastEntry; ++steps) {
        LockEntry& e = t->entry[cur];
        const uint32_t next = e.next;
        e.next = t->freeHead;
        t->freeHead = cur;
        cur = next;
    }
    t->compHead = 0;
    return 0;
}

// Value locks exist in the interface only.
int32_t lock_valueLock(Session* /*s*/, uint32_t /*key*/, uint32_t /*mode*/) { return 0; }
int32_t lock_valueLockW(Session* /*s*/, uint32_t /*key*/, uint32_t /*mode*/) { return 0; }
int32_t lock_valueUnlock(Session* /*s*/, uint32_t /*key*/) { return 0; }
int32_t lock_valueUnlockAll(void) { return 0; }

void lock_show(uint32_t flags) {
    const LockTable* t = g_lock.table;
    if (t) {
        if (flags & 4u) {
            std::printf("\nfree  head ->");
            printList(t, t->freeHead, [](uint32_t i, const LockEntry&) { std::printf(" %x", i); });
        }
        if (flags & 1u) {
            std::printf("\ncomp  head ->");
            printList(t, t->compHead,
                      [](uint32_t i, const LockEntry& e) { std::printf(" %x:%x", i, e.key); });
        }
        if (flags & 2u) {
            std::printf("\nvalue head ->");
            printList(t, t->valueHead,
                      [](uint32_t i, const LockEntry& e) { std::printf(" %x:%x", i, e.key); });
        }
    }
    std::printf("\n");
}

}  // extern "C"
