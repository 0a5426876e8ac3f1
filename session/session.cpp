// Sessions: the caller's session record and the session table shared by all processes.
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>

#include "kesdbm/api.h"
#include "kesdbm/lock.h"
#include "kesdbm/session.h"
#include "storage/shared_table.hpp"

static_assert(sizeof(Session) == 20);
static_assert(offsetof(Session, dbId) == 4);
static_assert(offsetof(Session, error) == 8);
static_assert(offsetof(Session, errorDetail) == 12);
static_assert(offsetof(Session, current) == 16);
static_assert(sizeof(SessionTableEntry) == 16);
static_assert(offsetof(SessionTableEntry, pid) == 4);
static_assert(offsetof(SessionTableEntry, dbId) == 8);
static_assert(offsetof(SessionTableEntry, next) == 12);
static_assert(offsetof(SessionTable, entry) == 12);
static_assert(sizeof(SessionTable) == KESDB_SESSION_TABLE_SIZE);

namespace {

// Entries 1..1023 take part in the lists; 0 means none and 1024 is never used.
constexpr uint32_t kLastEntry = 1023;

struct SessionProcessState {
    SessionTable* table = nullptr;
    SemSet sems{};
    int32_t count = 0;
};
SessionProcessState g_sess;

bool validEntry(uint32_t index) { return index >= 1 && index <= kLastEntry; }

void initialiseTable(SessionTable* t) {
    t->usedHead = 0;
    t->freeHead = 1;
    for (uint32_t i = 1; i <= kLastEntry; ++i) {
        t->entry[i].id = i;
        t->entry[i].next = i + 1;
    }
    t->freeTail = kLastEntry;
    t->entry[kLastEntry].next = 0;
}

// Takes the first free entry for the session; 0 or the code recorded.
int32_t takeEntry(SessionTable* t, Session* session, uint32_t dbId) {
    uint32_t i = t->freeHead;
    if (!validEntry(i)) return session_setError(session, KESDB_ERR_SESSION_FULL, 0);
    t->freeHead = t->entry[i].next;
    if (t->freeTail == i) t->freeTail = 0;
    t->entry[i].next = t->usedHead;
    t->usedHead = i;
    session->id = t->entry[i].id;
    t->entry[i].pid = static_cast<uint32_t>(getpid());
    t->entry[i].dbId = dbId;
    session->dbId = dbId;
    session->current = kesDBMGetRoot(session);
    session->error = 0;
    session->errorDetail = 0;
    return 0;
}

// Gives the session's entry back at the end of the free list; 0 or the code recorded.
int32_t giveEntry(SessionTable* t, Session* session) {
    uint32_t prev = 0;
    uint32_t steps = 0;
    for (uint32_t i = t->usedHead; validEntry(i) && steps++ <= kLastEntry; prev = i, i = t->entry[i].next) {
        if (t->entry[i].id != session->id) continue;
        if (prev)
            t->entry[prev].next = t->entry[i].next;
        else
            t->usedHead = t->entry[i].next;
        if (validEntry(t->freeTail)) t->entry[t->freeTail].next = i;
        t->entry[i].next = 0;
        t->freeTail = i;
        if (t->freeHead == 0) t->freeHead = i;
        return 0;
    }
    return session_setError(session, KESDB_ERR_SESSION_NOTFOUND, 0);
}

// Runs `change` on the table under the session table's mutex, with the recording rules of
// opening and closing a session.
template <class Change>
int32_t underMutex(Session* session, Change change) {
    int32_t c = misc_waitMtx(&g_sess.sems);
    if (c != 0) return session_setError(session, c, static_cast<uint32_t>(errno));
    int32_t status;
    if (!session)
        status = KESDB_ERR_NULLARG;  // recorded against the null session: nowhere
    else if (!g_sess.table)
        status = session_setError(session, KESDB_ERR_MMAP, 0);  // no table in this process
    else
        status = change(g_sess.table, session);
    c = misc_postMtx(&g_sess.sems);
    if (c != 0 && status == 0) return session_setError(session, c, static_cast<uint32_t>(errno));
    return status;
}

}  // namespace

extern "C" {

// A table file that can be neither opened nor created fails start-up with 87, like one that
// cannot be mapped: the library must not go on without the table.
int32_t session_init(const char* path) {
    if (++g_sess.count != 1) return 0;
    if (!path) return KESDB_ERR_NULLARG;
    kes::SharedTableOpen opened =
        kes::mapSharedTable(path, KESDB_SESSION_TABLE_SIZE, {KESDB_ERR_SESSION_TABLEWRITE, KESDB_ERR_MMAP});
    if (opened.code != 0) return opened.code;
    g_sess.table = static_cast<SessionTable*>(opened.map);
    if (opened.created) initialiseTable(g_sess.table);
    return misc_getSems(&g_sess.sems, path);
}

int32_t session_term(void) {
    if (g_sess.count <= 0) return 0;  // more shut-downs than set-ups: nothing to undo
    if (--g_sess.count != 0) return 0;
    if (g_sess.table) {
        if (!kes::unmapSharedTable(g_sess.table, KESDB_SESSION_TABLE_SIZE)) return KESDB_ERR_MUNMAP;
        g_sess.table = nullptr;
    }
    return misc_freeSems(&g_sess.sems);
}

int32_t session_initSession(Session* session, uint32_t dbId) {
    return underMutex(session, [dbId](SessionTable* t, Session* s) { return takeEntry(t, s, dbId); });
}

int32_t session_termSession(Session* session) { return underMutex(session, giveEntry); }

int32_t kesDBMInitSession(Session* session, uint32_t dbId) { return session_initSession(session, dbId); }

int32_t kesDBMTermSession(Session* session) { return session_termSession(session); }

int32_t session_setError(Session* session, int32_t code, uint32_t detail) {
    if (session) {
        session->errorDetail = detail;
        session->error = static_cast<uint32_t>(code);
    }
    return code;
}

void session_show(uint32_t flags) {
    const SessionTable* t = g_sess.table;
    if (t && (flags & 2)) {
        printf("\nfree  head ->");
        uint32_t steps = 0;
        for (uint32_t i = t->freeHead; validEntry(i) && steps++ <= kLastEntry; i = t->entry[i].next) printf(" %x", i);
    }
    if (t && (flags & 1)) {
        printf("\nsession  head ->");
        uint32_t steps = 0;
        for (uint32_t i = t->usedHead; validEntry(i) && steps++ <= kLastEntry; i = t->entry[i].next)
            printf(" %x", t->entry[i].id);
    }
    printf("\n");
}

}  // extern "C"
