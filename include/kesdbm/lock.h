/**
 * @file kesdbm/lock.h
 * @brief Semaphore sets over the operating-system wrapper, and the shared lock table.
 *
 * Each shared table (database, session, lock) is changed only while its own semaphore set's
 * mutex is held. Component locks (kesDBMLock(), kesDBMUnlock()) live in the lock table file,
 * seen by every process that maps it; they are named by database id and key.
 */
#ifndef KESDBM_LOCK_H
#define KESDBM_LOCK_H

#include <stdint.h>

#include "kesdbm/export.h"
#include "kesdbm/session.h"

#ifdef __cplusplus
extern "C" {
#endif

/** The semaphores guarding one shared table: wrapper handles. */
typedef struct SemSet {
    uint32_t mutex;   /**< Mutex around every change of the table. */
    uint32_t counter; /**< Counting semaphore. */
    uint32_t event;   /**< Event posted by every unlock; lock waiters wait on it. */
} SemSet;

/**
 * Creates the mutex, counting semaphore and event of a set, shared by every process that
 * creates a set for the same file.
 * @param set Receives the handles.
 * @param path The shared file the set guards.
 * @return 0, or the first non-zero result of a wrapper create call.
 */
KESDB_API int32_t misc_getSems(SemSet *set, const char *path);
/** Takes the set's mutex, waiting without limit. @param set The set. @return The wrapper's result (0). */
KESDB_API int32_t misc_waitMtx(SemSet *set);
/** Releases the set's mutex. @param set The set. @return The wrapper's result (0). */
KESDB_API int32_t misc_postMtx(SemSet *set);
/** Waits on the counting semaphore. @param set The set. @return The wrapper's result (0). */
KESDB_API int32_t misc_waitCount(SemSet *set);
/** Raises the counting semaphore. @param set The set. @return The wrapper's result (0). */
KESDB_API int32_t misc_postCount(SemSet *set);
/** Waits until the event is posted. @param set The set. @return The wrapper's result (0). */
KESDB_API int32_t misc_waitEvent(SemSet *set);
/** Posts the event, waking its waiters. @param set The set. @return The wrapper's result (0). */
KESDB_API int32_t misc_postEvent(SemSet *set);
/** Posts the event (the same call as misc_postEvent()). @param set The set. @return The wrapper's result (0). */
KESDB_API int32_t misc_resetEvent(SemSet *set);
/** Frees nothing: the handles stay valid. @param set The set. @return 0. */
KESDB_API int32_t misc_freeSems(SemSet *set);

/** Entries of the lock table (entry 0 unused: 1024 locks at most). */
#define KESDB_LOCK_ENTRIES 1025
/** Size in bytes of the lock table file: a 24-byte header and the entries. */
#define KESDB_LOCK_TABLE_SIZE 24624u
/** Lock kind bit of a mode: shared; any other second byte asks for an exclusive lock. */
#define KESDB_LOCK_SHARED 0x100u

/** One lock of the lock table. */
typedef struct LockEntry {
    uint32_t dbId;  /**< Database id of the session that took the lock. */
    uint32_t key;   /**< The locked key. */
    uint32_t owner; /**< Id of the session that took it (stored, never read). */
    uint32_t mode;  /**< Lock kind: the request's mode AND 0xFF00; 0x100 shared, else exclusive. */
    uint32_t next;  /**< Next entry of its list; 0 ends it. */
    uint32_t prev;  /**< Previous entry of the component lock list; 0 for the first. */
} LockEntry;

/** The shared lock table, mapped from its file. The component lock list is sorted by
 *  (dbId, key). */
typedef struct LockTable {
    uint32_t freeHead;  /**< First free entry; 0 when all are in use. */
    uint32_t compHead;  /**< First entry of the component lock list. */
    uint32_t compTail;  /**< Last entry of the component lock list. */
    uint32_t valueHead; /**< Head of the value lock list (always 0). */
    uint32_t valueTail; /**< Tail of the value lock list (always 0). */
    uint32_t reserved;  /**< 0. */
    LockEntry entry[KESDB_LOCK_ENTRIES]; /**< The entries, 0 unused. */
} LockTable;

/**
 * Start-up step: maps the lock table (creating and initialising the file, mode 0664, when it
 * is missing) and creates its semaphore set on the process's first call.
 * @param path Path of the lock table file.
 * @return 0, #KESDB_ERR_LOCK_TABLEWRITE, #KESDB_ERR_NOMEM, #KESDB_ERR_MMAP or a semaphore code.
 */
KESDB_API int32_t lock_init(const char *path);
/**
 * Shut-down step: the last call of the process unmaps the table.
 * @return 0, #KESDB_ERR_MUNMAP, or the result of freeing the semaphore set.
 */
KESDB_API int32_t lock_term(void);
/**
 * Tries once to lock a key of the session's database.
 * @param s The session.
 * @param key The key.
 * @param mode Lock kind in its second byte (#KESDB_LOCK_SHARED or exclusive).
 * @return 0 when taken; #KESDB_ERR_LOCK_BUSY (not recorded) on a conflicting lock;
 *         #KESDB_ERR_LOCK_FULL (recorded); a semaphore code (recorded with errno).
 */
KESDB_API int32_t lock_compLock(Session *s, uint32_t key, uint32_t mode);
/**
 * Locks a key of the session's database, waiting on the lock event as long as it is held in a
 * conflicting way.
 * @param s The session.
 * @param key The key.
 * @param mode Lock kind in its second byte.
 * @return 0 when taken; #KESDB_ERR_LOCK_FULL, or a semaphore code (a failed wait is returned
 *         without being recorded).
 */
KESDB_API int32_t lock_compLockW(Session *s, uint32_t key, uint32_t mode);
/**
 * Removes the most recent lock of the session's database on a key and posts the lock event.
 * The owner is not compared.
 * @param s The session.
 * @param key The key.
 * @return 0, #KESDB_ERR_LOCK_NOTFOUND (not recorded), or a semaphore code.
 */
KESDB_API int32_t lock_compUnlock(Session *s, uint32_t key);
/**
 * Releases every component lock of every database and process, without the mutex and
 * without waking waiters.
 * @return 0.
 */
KESDB_API int32_t lock_compUnlockAll(void);
/**
 * Value locks exist in the interface only: does nothing.
 * @param s The session.
 * @param key The key.
 * @param mode The mode.
 * @return 0.
 */
KESDB_API int32_t lock_valueLock(Session *s, uint32_t key, uint32_t mode);
/**
 * Does nothing (see lock_valueLock()).
 * @param s The session.
 * @param key The key.
 * @param mode The mode.
 * @return 0.
 */
KESDB_API int32_t lock_valueLockW(Session *s, uint32_t key, uint32_t mode);
/**
 * Does nothing (see lock_valueLock()).
 * @param s The session.
 * @param key The key.
 * @return 0.
 */
KESDB_API int32_t lock_valueUnlock(Session *s, uint32_t key);
/** Does nothing (see lock_valueLock()). @return 0. */
KESDB_API int32_t lock_valueUnlockAll(void);
/**
 * Prints the lock table's lists on standard output, without the mutex.
 * @param flags 4: the free list; 1: the component locks ("entry:key" in hexadecimal);
 *        2: the value locks. A final newline is always printed.
 */
KESDB_API void lock_show(uint32_t flags);

#ifdef __cplusplus
}
#endif

#endif
