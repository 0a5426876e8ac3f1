/**
 * @file kesdbm/session.h
 * @brief Sessions, the shared session table and the error codes.
 *
 * A session is a five-word record in the caller's memory, opened with kesDBMInitSession() and
 * passed first to every later call. Every failure is recorded in it as a code (@ref errors)
 * and a detail word; a recorded code stays until the next one is recorded (success does not
 * clear it, except for the record writes that record 0 and the opening of a session).
 */
#ifndef KESDBM_SESSION_H
#define KESDBM_SESSION_H

#include <stdint.h>

#include "kesdbm/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/** The caller's session record: five 32-bit words in the caller's memory. */
typedef struct Session {
    uint32_t id;          /**< Session table entry the session holds (1..1023). */
    uint32_t dbId;        /**< Database id given to kesDBMInitSession(); selects the database of every call. */
    uint32_t error;       /**< Code of the last recorded failure (@ref errors); 0 when none. */
    uint32_t errorDetail; /**< Detail recorded with it: errno, a driver's error word, a hook's result, a key or 0. */
    uint32_t current;     /**< Key of the current component: the root when opened, see kesDBMSetCurrentComponent(). */
} Session;

/**
 * @defgroup errors Error codes
 * @brief The codes recorded in Session::error and returned by the calls; 0 is success.
 *
 * Status calls return 0 or a code. Calls that return a key, pointer, count, length or type
 * return their failure value (0, -1 or NULL, as each states) and leave the code in the
 * session, with Session::errorDetail. Start-up and shut-down return their codes directly.
 * A failing semaphore call of the operating-system wrapper is handed on as its own number,
 * with errno as the detail. Numbers not listed are not used. kesdb_errorName() gives the name.
 * @{
 */
#define KESDB_ERR_HOOK_LINE (-1) /**< The last hook configuration line handled had missing tokens (returned by hook_init() at start-up). */
#define KESDB_ERR_COMP_NOTLEAF 1 /**< The component is not a leaf (value, constraint and leaf-field calls; detail 0). */
#define KESDB_ERR_COMP_NOTNODE 2 /**< The component is a leaf where a node is needed (child count, child by index, set first child; detail 0). */
#define KESDB_ERR_COMP_BADKIND 3 /**< The component's kind is neither node nor leaf (detail 0). */
#define KESDB_ERR_COMP_NULLKEY 4 /**< Component key 0 given to a node or leaf read (detail 0). */
#define KESDB_ERR_COMP_ENDSEARCH 5 /**< A path search ended without a match (detail: the key of the node where it ended, or 0). */
#define KESDB_ERR_HOOK_PREGET 7 /**< The hook run before a read refused (detail: the hook's result). */
#define KESDB_ERR_HOOK_POSTGET 8 /**< The hook run after a read refused (detail: the hook's result). */
#define KESDB_ERR_HOOK_PRESET 9 /**< The hook run before a write refused; nothing was written (detail: the hook's result). */
#define KESDB_ERR_HOOK_POSTSET 10 /**< The hook run after a write refused; the value was written (detail: the hook's result). */
#define KESDB_ERR_MEDIA_CONFOPEN 12 /**< The media configuration file cannot be opened (start-up). */
#define KESDB_ERR_MEDIA_SYMOPEN 14 /**< A driver library lacks its open operation (start-up). */
#define KESDB_ERR_MEDIA_SYMCLOSE 15 /**< A driver library lacks its close operation (start-up). */
#define KESDB_ERR_MEDIA_SYMREAD 16 /**< A driver library lacks its read operation (start-up). */
#define KESDB_ERR_MEDIA_SYMWRITE 17 /**< A driver library lacks its write operation (start-up). */
#define KESDB_ERR_MEDIA_SYMSEEK 18 /**< A driver library lacks its seek operation (start-up). */
#define KESDB_ERR_MEDIA_SYMSYNC 19 /**< A driver library lacks its sync operation (start-up). */
#define KESDB_ERR_MEDIA_LOAD 20 /**< A driver library cannot be loaded (start-up). */
#define KESDB_ERR_MEDIA_INDEX 21 /**< Medium index not below the media count (detail 0). */
#define KESDB_ERR_MEDIA_OPEN 22 /**< A medium's driver could not open it (detail: the driver's error word). */
#define KESDB_ERR_MEDIA_WRITE 23 /**< A write through a medium's driver failed or fell short (detail: the driver's error word). */
#define KESDB_ERR_MEDIA_READ 24 /**< A read through a medium's driver failed or fell short (detail: the driver's error word). */
#define KESDB_ERR_MEDIA_SYNC 26 /**< A medium's sync failed (detail: the driver's error word). */
#define KESDB_ERR_HOOK_INDEX 28 /**< Hook index 0 or above the hook count (detail 0); value calls go on without hooks. */
#define KESDB_ERR_HOOK_CONFOPEN 30 /**< The hook configuration file cannot be opened (start-up). */
#define KESDB_ERR_HOOK_CONFSEEK 31 /**< Rewinding the hook configuration file failed (start-up). */
#define KESDB_ERR_HOOK_LOAD 32 /**< A hook library cannot be loaded (start-up). */
#define KESDB_ERR_HOOK_SYMPRESET 33 /**< A hook library lacks its preSet function (start-up). */
#define KESDB_ERR_HOOK_SYMPOSTSET 34 /**< A hook library lacks its postSet function (start-up). */
#define KESDB_ERR_HOOK_SYMPREGET 35 /**< A hook library lacks its preGet function (start-up). */
#define KESDB_ERR_HOOK_SYMPOSTGET 36 /**< A hook library lacks its postGet function (start-up). */
#define KESDB_ERR_STR_OPEN 38 /**< The string medium could not be opened (detail: the driver's error word). */
#define KESDB_ERR_STR_WRITE 39 /**< A string entry write fell short (detail: the driver's error word). */
#define KESDB_ERR_STR_READ 40 /**< A string entry read failed (detail: the driver's error word). */
#define KESDB_ERR_STR_ALLOC 41 /**< No space for a string entry in its medium (detail: errno). */
#define KESDB_ERR_VALUE_OPEN 44 /**< The value medium could not be opened (detail: the driver's error word). */
#define KESDB_ERR_VALUE_WRITE 45 /**< A value record write fell short (detail: the driver's error word). */
#define KESDB_ERR_VALUE_READ 46 /**< A value record read fell short (detail: the driver's error word). */
#define KESDB_ERR_VALUE_SHORTDEST 49 /**< The destination value is shorter than the source of a copy (detail 0). */
#define KESDB_ERR_VALUE_NOVALUE 50 /**< The leaf has no current value (detail 0). */
#define KESDB_ERR_VALUE_NULLKEY 51 /**< Value key 0 given (detail 0). */
#define KESDB_ERR_COMP_OPEN 53 /**< The component medium, or a free-list file, could not be opened (detail: driver error word or errno). */
#define KESDB_ERR_COMP_WRITE 54 /**< A component record or free-list write fell short (detail: driver error word or errno). */
#define KESDB_ERR_COMP_READ 55 /**< A component record or free-list read fell short (detail: driver error word or errno). */
#define KESDB_ERR_CSTRT_OPEN 59 /**< The constraint medium could not be opened (detail: driver error word or errno). */
#define KESDB_ERR_CSTRT_WRITE 60 /**< A constraint record or array write fell short (detail: driver error word or errno). */
#define KESDB_ERR_CSTRT_READ 61 /**< A constraint record or array read fell short (detail: the driver's error word). */
#define KESDB_ERR_CSTRT_ALLOC 62 /**< No space for a constraint record or array in its medium (detail: errno). */
#define KESDB_ERR_CSTRT_TYPE 64 /**< The value's type differs from the constraint's type (detail 0). */
#define KESDB_ERR_CSTRT_LENGTH 65 /**< The data length does not fit the constraint's element size (detail 0). */
#define KESDB_ERR_CSTRT_BELOWMIN 66 /**< The value is below the range's minimum (detail 0). */
#define KESDB_ERR_CSTRT_ABOVEMAX 67 /**< The value is above the range's maximum (detail 0). */
#define KESDB_ERR_CSTRT_STEP 68 /**< The value is off the range's step grid (detail 0). */
#define KESDB_ERR_CSTRT_CHECKTYPE 69 /**< Unknown constraint type met by the write check (detail 0). */
#define KESDB_ERR_CSTRT_UNKNOWN 70 /**< Unknown constraint type met by a length or data call (detail 0). */
#define KESDB_ERR_CSTRT_NOTMEMBER 71 /**< The value is not a member of the enumeration (detail 0). */
#define KESDB_ERR_CSTRT_BUFFER 72 /**< The caller's buffer is too small for the constraint data (detail 0). */
#define KESDB_ERR_CSTRT_NONE 73 /**< The current value has no constraint (detail 0). */
#define KESDB_ERR_LOCK_TABLEWRITE 74 /**< The new lock table could not be written whole (start-up). */
#define KESDB_ERR_LOCK_BUSY 75 /**< The key is locked in a conflicting way (returned, not recorded). */
#define KESDB_ERR_LOCK_NOTFOUND 76 /**< No lock of the session's database on that key (returned, not recorded). */
#define KESDB_ERR_LOCK_MODE 77 /**< The lock mode's low byte is neither 0 nor 1 (detail 0). */
#define KESDB_ERR_LOCK_FULL 78 /**< No free lock entry: 1024 locks are held (detail 0). */
#define KESDB_ERR_SESSION_TABLEWRITE 79 /**< The new session table could not be written whole (start-up). */
#define KESDB_ERR_SESSION_FULL 80 /**< No free session entry (detail 0). */
#define KESDB_ERR_SESSION_NOTFOUND 81 /**< The session is not open (detail 0). */
#define KESDB_ERR_DB_TABLEWRITE 82 /**< The new database table could not be written whole (start-up). */
#define KESDB_ERR_DB_NOTFOUND 83 /**< No registered database has the session's database id (detail 0). */
#define KESDB_ERR_DB_FULL 84 /**< The database table has no free slot (start-up). */
#define KESDB_ERR_NOMEM 86 /**< Memory could not be obtained (detail: errno where recorded). */
#define KESDB_ERR_MMAP 87 /**< A shared table file could not be mapped (start-up). */
#define KESDB_ERR_MUNMAP 88 /**< A shared table could not be unmapped (shut-down). */
#define KESDB_ERR_NULLARG 89 /**< A required pointer argument is null (detail 0; nothing is recorded for a null session). */
#define KESDB_ERR_DB_MUTEX 95 /**< The database table's mutex could not be taken (start-up). */
#define KESDB_ERR_COMP_NOMATCH 100 /**< A component's name is not a prefix of the searched path, or an absolute path was not found (detail: the component's key, or unchanged). */
#define KESDB_ERR_DIR_BAD 110 /**< Extension: the directory is not a database directory (no readable kesdb.conf, a line or a value of it not valid, a name too long) (start-up). */
#define KESDB_ERR_DIR_OTHER 111 /**< Extension: the process has started another database, or this directory with other options (start-up). */
/** @} */

/** Entries of the session table (entry 0 unused, so 1024 sessions at most). */
#define KESDB_SESSION_ENTRIES 1025
/** Size in bytes of the session table file. */
#define KESDB_SESSION_TABLE_SIZE 16412u

/** One entry of the shared session table. */
typedef struct SessionTableEntry {
    uint32_t id;   /**< The entry's own index. */
    uint32_t pid;  /**< Process id of the session's owner. */
    uint32_t dbId; /**< Database id of the session. */
    uint32_t next; /**< Next entry of the free or used list; 0 ends it. */
} SessionTableEntry;

/** The shared session table, mapped from its file: list heads and the entries. */
typedef struct SessionTable {
    uint32_t freeHead;                             /**< First free entry; 0 when none. */
    uint32_t freeTail;                             /**< Last free entry (entries are given back here). */
    uint32_t usedHead;                             /**< Most recently opened session's entry. */
    SessionTableEntry entry[KESDB_SESSION_ENTRIES]; /**< The entries, 0 unused. */
} SessionTable;

/**
 * Start-up step: maps the session table (creating and initialising the file, mode 0664, when
 * it is missing) on the process's first call; later calls only count.
 * @param path Path of the session table file.
 * @return 0, or #KESDB_ERR_SESSION_TABLEWRITE, #KESDB_ERR_NOMEM, #KESDB_ERR_MMAP or a
 *         semaphore code. Called by kesDBMInit().
 */
KESDB_API int32_t session_init(const char *path);
/**
 * Shut-down step: unmaps the session table when the process's count returns to 0.
 * @return 0, or #KESDB_ERR_MUNMAP. Called by kesDBMTerm().
 */
KESDB_API int32_t session_term(void);
/**
 * Opens a session: takes an entry of the session table, clears the recorded error and sets
 * the current component to the database's root. kesDBMInitSession() forwards here.
 * @param session The caller's session record.
 * @param dbId Database id returned by kesDBMInit().
 * @return 0, #KESDB_ERR_NULLARG for a null session (nothing is written), #KESDB_ERR_SESSION_FULL
 *         (recorded), or a semaphore code (recorded with errno).
 */
KESDB_API int32_t session_initSession(Session *session, uint32_t dbId);
/**
 * Closes a session: gives its entry back. kesDBMTermSession() forwards here.
 * @param session The session.
 * @return 0, #KESDB_ERR_NULLARG, #KESDB_ERR_SESSION_NOTFOUND (recorded) or a semaphore code.
 */
KESDB_API int32_t session_termSession(Session *session);
/**
 * Records a code and its detail in a session; the only writer of Session::error.
 * @param session The session; NULL records nothing.
 * @param code The code (0 clears the pair).
 * @param detail The detail word.
 * @return @p code.
 */
KESDB_API int32_t session_setError(Session *session, int32_t code, uint32_t detail);
/**
 * Prints the session table's lists on standard output.
 * @param flags 2: the free list; 1: the used list.
 */
KESDB_API void session_show(uint32_t flags);

/**
 * The name of an error code.
 * @param code A code of @ref errors.
 * @return "KESDB_ERR_..." for a listed code, "OK" for 0, "unknown" for any other number.
 */
KESDB_API const char *kesdb_errorName(int32_t code);

#ifdef __cplusplus
}
#endif

#endif
