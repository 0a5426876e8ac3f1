/* Semaphore sets over the operating-system wrapper, and the shared lock table. */
#ifndef KESDBM_LOCK_H
#define KESDBM_LOCK_H

#include <stdint.h>

#include "kesdbm/export.h"
#include "kesdbm/session.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct SemSet {
    uint32_t mutex;
    uint32_t counter;
    uint32_t event;
} SemSet;

KESDB_API int32_t misc_getSems(SemSet *set, const char *path);
KESDB_API int32_t misc_waitMtx(SemSet *set);
KESDB_API int32_t misc_postMtx(SemSet *set);
KESDB_API int32_t misc_waitCount(SemSet *set);
KESDB_API int32_t misc_postCount(SemSet *set);
KESDB_API int32_t misc_waitEvent(SemSet *set);
KESDB_API int32_t misc_postEvent(SemSet *set);
KESDB_API int32_t misc_resetEvent(SemSet *set);
KESDB_API int32_t misc_freeSems(SemSet *set);

/* Lock table file: 24624 bytes, a 24-byte header and 1025 entries. */
#define KESDB_LOCK_ENTRIES 1025
#define KESDB_LOCK_TABLE_SIZE 24624u
#define KESDB_LOCK_SHARED 0x100u

typedef struct LockEntry {
    uint32_t dbId;
    uint32_t key;
    uint32_t owner;
    uint32_t mode;
    uint32_t next;
    uint32_t prev;
} LockEntry;

typedef struct LockTable {
    uint32_t freeHead;
    uint32_t compHead;
    uint32_t compTail;
    uint32_t valueHead;
    uint32_t valueTail;
    uint32_t reserved;
    LockEntry entry[KESDB_LOCK_ENTRIES];
} LockTable;

KESDB_API int32_t lock_init(const char *path);
KESDB_API int32_t lock_term(void);
KESDB_API int32_t lock_compLock(Session *s, uint32_t key, uint32_t mode);
KESDB_API int32_t lock_compLockW(Session *s, uint32_t key, uint32_t mode);
KESDB_API int32_t lock_compUnlock(Session *s, uint32_t key);
KESDB_API int32_t lock_compUnlockAll(void);
KESDB_API int32_t lock_valueLock(Session *s, uint32_t key, uint32_t mode);
KESDB_API int32_t lock_valueLockW(Session *s, uint32_t key, uint32_t mode);
KESDB_API int32_t lock_valueUnlock(Session *s, uint32_t key);
KESDB_API int32_t lock_valueUnlockAll(void);
KESDB_API void lock_show(uint32_t flags);

#ifdef __cplusplus
}
#endif

#endif
