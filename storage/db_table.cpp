// The database table: the device-wide registry of started databases, shared by all
// processes through a memory-mapped file.
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kesdbm/lock.h"
#include "kesdbm/storage.h"
#include "kesosw.h"
#include "storage/dir_state.hpp"
#include "storage/shared_table.hpp"

static_assert(sizeof(DBMInitParam) == 16404);
static_assert(offsetof(DBMInitParam, lockTablePath) == 4096);
static_assert(offsetof(DBMInitParam, mediaConfigPath) == 8192);
static_assert(offsetof(DBMInitParam, hookConfigPath) == 12288);
static_assert(offsetof(DBMInitParam, componentMedium) == 16384);
static_assert(offsetof(DBMInitParam, valueMedium) == 16388);
static_assert(offsetof(DBMInitParam, constraintMedium) == 16392);
static_assert(offsetof(DBMInitParam, stringMedium) == 16396);
static_assert(offsetof(DBMInitParam, reserved) == 16400);
static_assert(sizeof(DbSlot) == 16416);
static_assert(offsetof(DbSlot, param) == 4);
static_assert(offsetof(DbSlot, refCount) == 16408);
static_assert(offsetof(DbSlot, next) == 16412);
static_assert(offsetof(DbTable, slot) == 12);
static_assert(sizeof(DbTable) == KESDB_DBTABLE_SIZE);

namespace {

// Slots 1..31 take part in the lists; slot 0 means none and slot 32 is never used.
constexpr uint32_t kLastSlot = 31;

struct DbProcessState {
    DbTable* table = nullptr;
    SemSet sems{};
    int32_t count = 0;
};
DbProcessState g_db;

bool validSlot(uint32_t index) { return index >= 1 && index <= kLastSlot; }

const char* tablePath() {
    if (const kes::DirState* dir = kes::dirState()) return dir->dbTable;
    const char* path = getenv("KESDB_DBTABLE");
    return path ? path : KESDB_DBTABLE_DEFAULT;
}

void initialiseTable(DbTable* t) {
    t->freeHead = 1;
    t->usedHead = 0;
    for (uint32_t i = 1; i <= kLastSlot; ++i) {
        t->slot[i].id = i;
        t->slot[i].next = i + 1;
        t->slot[i].refCount = 0;
    }
    t->freeTail = kLastSlot;
    t->slot[kLastSlot].next = 0;
}

// Maps the table file, creating it when missing, and gets the semaphore set.
// A file that can be neither opened nor created fails like an unmappable one (87):
// start-up must not go on without a table.
int32_t mapTable() {
    const char* path = tablePath();
    kes::SharedTableOpen opened =
        kes::mapSharedTable(path, KESDB_DBTABLE_SIZE, {KESDB_ERR_DB_TABLEWRITE, KESDB_ERR_MMAP});
    if (opened.code != 0) return opened.code;
    g_db.table = static_cast<DbTable*>(opened.map);
    if (opened.created) initialiseTable(g_db.table);
    return misc_getSems(&g_db.sems, path);
}

bool sameDatabase(const DBMInitParam* given, const DBMInitParam* stored) {
    return misc_pathCompare(given->sessionTablePath, stored->sessionTablePath) == 0 &&
           misc_pathCompare(given->lockTablePath, stored->lockTablePath) == 0 &&
           misc_pathCompare(given->mediaConfigPath, stored->mediaConfigPath) == 0 &&
           misc_pathCompare(given->hookConfigPath, stored->hookConfigPath) == 0 &&
           given->componentMedium == stored->componentMedium && given->valueMedium == stored->valueMedium &&
           given->constraintMedium == stored->constraintMedium && given->stringMedium == stored->stringMedium &&
           given->reserved == stored->reserved;
}

// Takes slot i, behind prev in the used list (0: at its head), out of that list and puts it
// at the end of the free list.
void freeSlot(DbTable* t, uint32_t prev, uint32_t i) {
    if (prev)
        t->slot[prev].next = t->slot[i].next;
    else
        t->usedHead = t->slot[i].next;
    if (t->freeTail != 0 && validSlot(t->freeTail)) t->slot[t->freeTail].next = i;
    t->slot[i].next = 0;
    t->freeTail = i;
    if (t->freeHead == 0) t->freeHead = i;
}

// A directory's own database table keeps a slot for every place the directory was started
// from before it was moved or copied (a directory start keeps its slot for good). When no
// slot is free, a directory start frees one that nothing but that keep holds (a count of at
// most one) and that names other tables than its own: the first such; 0 when there is none.
uint32_t freeStaleSlot(DbTable* t, const DBMInitParam* param) {
    uint32_t prev = 0;
    uint32_t steps = 0;
    for (uint32_t i = t->usedHead; validSlot(i) && steps++ <= kLastSlot; prev = i, i = t->slot[i].next) {
        if (t->slot[i].refCount > 1 ||
            misc_pathCompare(t->slot[i].param.sessionTablePath, param->sessionTablePath) == 0)
            continue;
        freeSlot(t, prev, i);
        return t->freeHead;
    }
    return 0;
}

// Registers param under the held mutex; returns the id, or -1 with the code in *code.
int32_t registerDatabase(const DBMInitParam* param, int32_t* code) {
    DbTable* t = g_db.table;
    uint32_t steps = 0;
    for (uint32_t i = t->usedHead; validSlot(i) && steps++ <= kLastSlot; i = t->slot[i].next) {
        if (!sameDatabase(param, &t->slot[i].param)) continue;
        uint32_t id = t->slot[i].id;
        uint32_t again = 0;
        for (uint32_t j = t->usedHead; validSlot(j) && again++ <= kLastSlot; j = t->slot[j].next) {
            if (t->slot[j].id == id) ++t->slot[j].refCount;
        }
        return static_cast<int32_t>(id);
    }
    uint32_t i = t->freeHead;
    if (!validSlot(i) && kes::dirState()) i = freeStaleSlot(t, param);
    if (!validSlot(i)) {
        *code = KESDB_ERR_DB_FULL;
        return -1;
    }
    t->freeHead = t->slot[i].next;
    if (t->freeTail == i) t->freeTail = 0;
    t->slot[i].next = t->usedHead;
    t->usedHead = i;
    std::memcpy(&t->slot[i].param, param, sizeof(DBMInitParam));
    // A database started from its directory keeps its slot for good (its first registration
    // counts twice), so every later process gets the same id, and the locks named by it stay
    // meaningful after the processes that took them have ended.
    t->slot[i].refCount = kes::dirState() ? 2 : 1;
    return static_cast<int32_t>(t->slot[i].id);
}

void releaseDatabase(uint32_t id) {
    DbTable* t = g_db.table;
    uint32_t prev = 0;
    uint32_t steps = 0;
    for (uint32_t i = t->usedHead; validSlot(i) && steps++ <= kLastSlot; prev = i, i = t->slot[i].next) {
        if (t->slot[i].id != id) continue;
        if (t->slot[i].refCount > 0) --t->slot[i].refCount;
        if (t->slot[i].refCount == 0) freeSlot(t, prev, i);
        return;
    }
}

// Resolves a relative path against PWD into a 4097-byte wrapper buffer; the directory and
// the path are joined directly, without a separator. Null when PWD is unset or no memory.
char* resolveRelative(const char* path) {
    const char* pwd = getenv("PWD");
    if (!pwd) return nullptr;
    char* buffer = static_cast<char*>(kesOSWSubAllocMem(4097));
    if (!buffer) return nullptr;
    size_t dirLength = strnlen(pwd, 4096);
    std::memcpy(buffer, pwd, dirLength);
    buffer[dirLength] = '\0';
    strncat(buffer, path, 4096 - dirLength);
    buffer[4096] = '\0';
    return buffer;
}

}  // namespace

int32_t kes::dbUsers() { return g_db.count; }

extern "C" {

int32_t db_init(const DBMInitParam* param, int32_t* errorWord) {
    int32_t code = 0;
    int32_t id = -1;
    if (g_db.count == 0) {
        code = mapTable();
    } else if (!g_db.table) {
        // An earlier start-up in this process could not map the table: every later one
        // fails the same way rather than use the missing mapping.
        code = KESDB_ERR_MMAP;
    }
    if (code == 0) {
        if (misc_waitMtx(&g_db.sems) != 0) {
            code = KESDB_ERR_DB_MUTEX;
        } else {
            if (!param)
                code = KESDB_ERR_NULLARG;
            else
                id = registerDatabase(param, &code);
            misc_postMtx(&g_db.sems);
        }
    }
    ++g_db.count;
    if (code != 0 && errorWord) *errorWord = code;
    return code != 0 ? -1 : id;
}

int32_t db_term(uint32_t dbId) {
    if (g_db.table && misc_waitMtx(&g_db.sems) == 0) {
        releaseDatabase(dbId);
        misc_postMtx(&g_db.sems);
    }
    if (g_db.count <= 0) return 0;  // more shut-downs than set-ups: nothing to undo
    if (--g_db.count != 0) return 0;
    kes::dirClear();
    if (g_db.table) {
        if (!kes::unmapSharedTable(g_db.table, KESDB_DBTABLE_SIZE)) return KESDB_ERR_MUNMAP;
        g_db.table = nullptr;
    }
    return misc_freeSems(&g_db.sems);
}

DBMInitParam* db_getDb(uint32_t dbId) {
    DbTable* t = g_db.table;
    if (!t) return nullptr;
    uint32_t steps = 0;
    for (uint32_t i = t->usedHead; validSlot(i) && steps++ <= kLastSlot; i = t->slot[i].next) {
        if (t->slot[i].id == dbId) return &t->slot[i].param;
    }
    return nullptr;
}

void db_show(uint32_t flags) {
    const DbTable* t = g_db.table;
    if (t && (flags & 2)) {
        printf("\nfree  head ->");
        uint32_t steps = 0;
        for (uint32_t i = t->freeHead; validSlot(i) && steps++ <= kLastSlot; i = t->slot[i].next) printf(" %d", i);
    }
    if (t && (flags & 1)) {
        printf("\ndb  head ->");
        uint32_t steps = 0;
        for (uint32_t i = t->usedHead; validSlot(i) && steps++ <= kLastSlot; i = t->slot[i].next)
            printf(" %ld", static_cast<long>(t->slot[i].id));
    }
    printf("\n");
}

// A relative path is taken as PWD followed directly by the path. Without PWD, or without
// memory for the resolved path, the paths count as different (result non-zero).
int32_t misc_pathCompare(const char* a, const char* b) {
    if (!a || !b) return 2;
    char* ra = a[0] == '/' ? nullptr : resolveRelative(a);
    char* rb = b[0] == '/' ? nullptr : resolveRelative(b);
    int32_t result = 2;
    const char* left = a[0] == '/' ? a : ra;
    const char* right = b[0] == '/' ? b : rb;
    if (left && right) result = strcmp(left, right);
    if (ra) kesOSWOrgFreeMemPart(0, ra);
    if (rb) kesOSWOrgFreeMemPart(0, rb);
    return result;
}

}  // extern "C"
