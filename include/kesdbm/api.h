/**
 * @file kesdbm/api.h
 * @brief The public kesDBM* calls: start-up and shut-down, sessions, value access, tree and
 * structure.
 *
 * Order of use: kesDBMInit(), kesDBMInitSession() with the returned id, any other calls with
 * the session, kesDBMTermSession(), kesDBMTerm(). Every call after start-up takes the
 * caller's Session first and records its failures there (@ref errors): read
 * Session::error after a call whose result cannot tell (a key of 0, a count of 0). Keys are
 * byte offsets of records in their medium; 0 names no record. Component keys name nodes or
 * leaves; value keys name value records.
 *
 * None of these calls takes a lock of its own; callers that change the same records from
 * several processes serialise with kesDBMLock() and kesDBMUnlock(). Start-up, shut-down and
 * one session record must not be used by two threads at once.
 */
#ifndef KESDBM_API_H
#define KESDBM_API_H

#include <stdint.h>

#include "kesdbm/export.h"
#include "kesdbm/session.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Size of each path field of DBMInitParam, the terminating NUL included. */
#define KESDB_PATH_MAX 4096

/**
 * The start-up parameter block, 16404 bytes, owned by the caller and copied byte for byte into
 * the database's slot of the shared database table. Two blocks that agree in all four paths
 * (relative paths resolved against $PWD) and all five words name the same database.
 */
typedef struct DBMInitParam {
    char sessionTablePath[KESDB_PATH_MAX]; /**< Shared session table file (created when missing). */
    char lockTablePath[KESDB_PATH_MAX];    /**< Shared lock table file (created when missing). */
    char mediaConfigPath[KESDB_PATH_MAX];  /**< Media configuration file: one driver a line. */
    char hookConfigPath[KESDB_PATH_MAX];   /**< Hook configuration file: one hook entry a line. */
    uint32_t componentMedium;  /**< Media-table index of the medium of component records. */
    uint32_t valueMedium;      /**< Media-table index of the medium of value records. */
    uint32_t constraintMedium; /**< Media-table index of the medium of constraint records and arrays. */
    uint32_t stringMedium;     /**< Media-table index of the medium of string-table entries. */
    uint32_t reserved;         /**< Takes part in recognising the database; nothing else reads it. */
} DBMInitParam;

/** @name Start-up and shut-down
 *  @{ */
/**
 * Starts a database in this process: registers it in the database table (KESDB_DBTABLE,
 * default "/tmp/kesdb_dbTable"), then maps the lock table, loads the media drivers and the
 * hooks, and maps the session table. Each facility is set up by the process's first user and
 * counted by later ones; a second call with the same block returns the same id.
 * A failing step prints "kesDBMInit errN
" (N = 1..7) on standard output.
 * @param param The start-up parameter block (read only).
 * @param errorWord Receives the code when the call fails; left untouched on success.
 * @return The database id (1..31), or -1 with the code in @p errorWord: from the database
 *         table #KESDB_ERR_DB_TABLEWRITE, #KESDB_ERR_DB_FULL, #KESDB_ERR_NOMEM, #KESDB_ERR_MMAP,
 *         #KESDB_ERR_NULLARG, #KESDB_ERR_DB_MUTEX; the lock table #KESDB_ERR_LOCK_TABLEWRITE,
 *         #KESDB_ERR_NOMEM, #KESDB_ERR_MMAP; the media #KESDB_ERR_MEDIA_CONFOPEN,
 *         #KESDB_ERR_MEDIA_SYMOPEN to #KESDB_ERR_MEDIA_LOAD, #KESDB_ERR_NOMEM; the hooks
 *         #KESDB_ERR_HOOK_CONFOPEN to #KESDB_ERR_HOOK_SYMPOSTGET, #KESDB_ERR_HOOK_LINE,
 *         #KESDB_ERR_NOMEM; the session table #KESDB_ERR_SESSION_TABLEWRITE, #KESDB_ERR_NOMEM,
 *         #KESDB_ERR_MMAP. Steps that succeeded before a failure stay set up.
 */
KESDB_API int32_t kesDBMInit(const DBMInitParam *param, int32_t *errorWord);
/**
 * Undoes one kesDBMInit(): runs all eight shut-down steps (components, values, constraints,
 * sessions, media, hooks, locks, database table) even when one fails. The last shut-down of
 * the process unmaps the tables and unloads drivers and hooks.
 * @param dbId The database id.
 * @return 0, or the first non-zero result in that order (#KESDB_ERR_MUNMAP, a semaphore code).
 */
KESDB_API int32_t kesDBMTerm(uint32_t dbId);

/**
 * Extension: starts the database of a database directory, such as one made by
 * "kesdb create DIR", exactly as the kesdb tool starts it, whatever the caller's working
 * directory and environment. The directory's descriptor "kesdb.conf" (key=value lines:
 * session, lock, media, hook: file names; component, value, constraint, string, reserved:
 * the start-up parameter block's words; defmedia: the built-in medium's file, optional)
 * gives the parameter block, with every relative name taken relative to the directory, so a
 * copied or moved directory works where it lands. The database table is DIR/db.tbl
 * ($KESDB_DBTABLE is not read), the built-in medium is the descriptor's file ($KESDB_DEFMEDIA
 * is not read), names without a leading '/' in media.conf (medium names, and driver and hook
 * libraries named with a '/') are relative to the directory, and free-list elements are
 * written in host order ($SIM_BYTE_ORDER is not read). Every process that starts a directory
 * so gets the same database id, and the id stays the same as long as the directory's
 * database table exists, so component locks exclude each other across all of them.
 *
 * One database directory per process: the library keeps one media table, hook table and
 * database table per process, so a process that has started one directory (or anything with
 * kesDBMInit()) is refused another directory with #KESDB_ERR_DIR_OTHER until it has shut
 * down everything it started. Starting the same directory again only counts, as with
 * kesDBMInit(). A failed start-up undoes its own steps, leaving the process as before.
 * Shut down with kesDBMTerm(). kesDBMInitDirFailure() tells what failed.
 * @param dir The database directory.
 * @param errorWord Receives the code when the call fails; left untouched on success.
 * @return The database id (1..31), or -1 with the code in @p errorWord: the codes of
 *         kesDBMInit(), #KESDB_ERR_DIR_BAD or #KESDB_ERR_DIR_OTHER.
 */
KESDB_API int32_t kesDBMInitDir(const char *dir, int32_t *errorWord);

/** kesDBMInitDirEx() flag: start without hooks (hook indexes of leaves then name no hook). */
#define KESDB_DIR_NO_HOOKS 1u

/** Extension: options of kesDBMInitDirEx(). */
typedef struct DBMDirOptions {
    uint32_t flags;        /**< #KESDB_DIR_NO_HOOKS or 0. */
    const char *tableDir;  /**< Directory of the database, session and lock tables instead of the
                                database directory (a private one leaves nothing in it); NULL: none. */
    const char *driverDir; /**< Directory whose driver libraries replace those media.conf names,
                                by base name, where it has one (the host's own drivers for a
                                device image's database); NULL: none. */
} DBMDirOptions;

/**
 * Extension: kesDBMInitDir() with options, for inspecting a database prepared for another
 * machine (its hooks and drivers built for that one). A process started with some options is
 * refused the same directory with others (#KESDB_ERR_DIR_OTHER).
 * @param dir The database directory.
 * @param options The options; NULL for none (as kesDBMInitDir()).
 * @param errorWord Receives the code when the call fails.
 * @return As kesDBMInitDir().
 */
KESDB_API int32_t kesDBMInitDirEx(const char *dir, const DBMDirOptions *options, int32_t *errorWord);

/**
 * Extension: what made the last kesDBMInitDir() or kesDBMInitDirEx() of this process fail.
 * @return One line of text naming the file, library or directory ("cannot load the driver
 *         /usr/lib/kesdbm/libkesdrv_file.so: ..."); the empty string after a success.
 */
KESDB_API const char *kesDBMInitDirFailure(void);
/** @} */

/** @name Value access
 * A leaf carries three values: current, default and factory. The calls name the leaf by its
 * component key. When the leaf has a hook index, the hook entry's preGet/postGet (reads) or
 * preSet/postSet (writes) run around the access (hook.h); an invalid hook index leaves
 * #KESDB_ERR_HOOK_INDEX recorded and the call goes on without hooks. Writes of a value with
 * a constraint are checked first (constraint_check()).
 *
 * Codes of every value call: #KESDB_ERR_COMP_NULLKEY (key 0), #KESDB_ERR_COMP_NOTLEAF,
 * #KESDB_ERR_COMP_OPEN / #KESDB_ERR_COMP_READ (the leaf), #KESDB_ERR_VALUE_NULLKEY,
 * #KESDB_ERR_VALUE_OPEN / #KESDB_ERR_VALUE_READ (the value record), #KESDB_ERR_MEDIA_INDEX,
 * #KESDB_ERR_MEDIA_OPEN, #KESDB_ERR_MEDIA_READ / #KESDB_ERR_MEDIA_WRITE (the data area),
 * #KESDB_ERR_DB_NOTFOUND; reads #KESDB_ERR_HOOK_PREGET, #KESDB_ERR_HOOK_POSTGET; writes
 * #KESDB_ERR_HOOK_PRESET, #KESDB_ERR_HOOK_POSTSET and the constraint refusals
 * #KESDB_ERR_CSTRT_TYPE, #KESDB_ERR_CSTRT_LENGTH, #KESDB_ERR_CSTRT_BELOWMIN,
 * #KESDB_ERR_CSTRT_ABOVEMAX, #KESDB_ERR_CSTRT_STEP, #KESDB_ERR_CSTRT_NOTMEMBER,
 * #KESDB_ERR_CSTRT_CHECKTYPE.
 *  @{ */
/**
 * Reads the current value of a leaf: at most *@p length bytes (the smaller of the buffer
 * size and the value's length), with the leaf's preGet and postGet hooks.
 * @param s The session.
 * @param key Component key of the leaf.
 * @param buffer Receives the bytes.
 * @param length In: the buffer size; out: the number of bytes read.
 * @return 0 or a code (see the group); a refused preGet leaves the buffer untouched.
 */
KESDB_API int32_t kesDBMGetGeneric(Session *s, uint32_t key, void *buffer, int32_t *length);
/**
 * Reads the default value of a leaf, as kesDBMGetGeneric() reads the current one.
 * @param s The session.
 * @param key Component key of the leaf.
 * @param buffer Receives the bytes.
 * @param length In: the buffer size; out: the number of bytes read.
 * @return 0 or a code.
 */
KESDB_API int32_t kesDBMGetDefaultGeneric(Session *s, uint32_t key, void *buffer, int32_t *length);
/**
 * Reads the factory value of a leaf, as kesDBMGetGeneric() reads the current one.
 * @param s The session.
 * @param key Component key of the leaf.
 * @param buffer Receives the bytes.
 * @param length In: the buffer size; out: the number of bytes read.
 * @return 0 or a code.
 */
KESDB_API int32_t kesDBMGetFactoryGeneric(Session *s, uint32_t key, void *buffer, int32_t *length);
/**
 * Reads @p count bytes from the start of the current value's data area, not bounded by the
 * value's length. The hooks receive the count itself where other reads pass a length pointer.
 * @param s The session.
 * @param key Component key of the leaf.
 * @param buffer Receives @p count bytes.
 * @param count Number of bytes to read.
 * @return 0 or a code; a failed data read is recorded (#KESDB_ERR_MEDIA_READ) while the
 *         result is the driver close's result.
 */
KESDB_API int32_t kesDBMGetCreateListGeneric(Session *s, uint32_t key, void *buffer, int32_t count);
/**
 * Writes the current value of a leaf: preSet (which may change the length), the constraint
 * check, at most the value's length of bytes, then postSet.
 * @param s The session.
 * @param key Component key of the leaf.
 * @param data The bytes to write.
 * @param length Number of bytes.
 * @return 0 or a code; a refused preSet or constraint writes nothing.
 */
KESDB_API int32_t kesDBMSetGeneric(Session *s, uint32_t key, const void *data, int32_t length);
/**
 * Writes the default value of a leaf, as kesDBMSetGeneric() writes the current one. The
 * factory value's data is never written; only its key can be changed.
 * @param s The session.
 * @param key Component key of the leaf.
 * @param data The bytes to write.
 * @param length Number of bytes.
 * @return 0 or a code.
 */
KESDB_API int32_t kesDBMSetDefaultGeneric(Session *s, uint32_t key, const void *data, int32_t length);

/**
 * Reads the current value of a leaf as Float64: kesDBMGetGeneric() with a length of 8. No type
 * check is made; a shorter value fills only its first bytes of @p value.
 * @param s The session.
 * @param key Component key of the leaf.
 * @param value Receives the value.
 * @return 0 or a code.
 */
KESDB_API int32_t kesDBMGetFloat64(Session *s, uint32_t key, double *value);
/**
 * Reads the current value of a leaf as Float32: kesDBMGetGeneric() with a length of 4. No type
 * check is made; a shorter value fills only its first bytes of @p value.
 * @param s The session.
 * @param key Component key of the leaf.
 * @param value Receives the value.
 * @return 0 or a code.
 */
KESDB_API int32_t kesDBMGetFloat32(Session *s, uint32_t key, float *value);
/**
 * Reads the current value of a leaf as Uint64: kesDBMGetGeneric() with a length of 8. No type
 * check is made; a shorter value fills only its first bytes of @p value.
 * @param s The session.
 * @param key Component key of the leaf.
 * @param value Receives the value.
 * @return 0 or a code.
 */
KESDB_API int32_t kesDBMGetUint64(Session *s, uint32_t key, uint64_t *value);
/**
 * Reads the current value of a leaf as Uint32: kesDBMGetGeneric() with a length of 4. No type
 * check is made; a shorter value fills only its first bytes of @p value.
 * @param s The session.
 * @param key Component key of the leaf.
 * @param value Receives the value.
 * @return 0 or a code.
 */
KESDB_API int32_t kesDBMGetUint32(Session *s, uint32_t key, uint32_t *value);
/**
 * Reads the current value of a leaf as Uint16: kesDBMGetGeneric() with a length of 2. No type
 * check is made; a shorter value fills only its first bytes of @p value.
 * @param s The session.
 * @param key Component key of the leaf.
 * @param value Receives the value.
 * @return 0 or a code.
 */
KESDB_API int32_t kesDBMGetUint16(Session *s, uint32_t key, uint16_t *value);
/**
 * Reads the current value of a leaf as Uint8: kesDBMGetGeneric() with a length of 1. No type
 * check is made; a shorter value fills only its first bytes of @p value.
 * @param s The session.
 * @param key Component key of the leaf.
 * @param value Receives the value.
 * @return 0 or a code.
 */
KESDB_API int32_t kesDBMGetUint8(Session *s, uint32_t key, uint8_t *value);
/**
 * Reads the current value of a leaf as Sint64: kesDBMGetGeneric() with a length of 8. No type
 * check is made; a shorter value fills only its first bytes of @p value.
 * @param s The session.
 * @param key Component key of the leaf.
 * @param value Receives the value.
 * @return 0 or a code.
 */
KESDB_API int32_t kesDBMGetSint64(Session *s, uint32_t key, int64_t *value);
/**
 * Reads the current value of a leaf as Sint32: kesDBMGetGeneric() with a length of 4. No type
 * check is made; a shorter value fills only its first bytes of @p value.
 * @param s The session.
 * @param key Component key of the leaf.
 * @param value Receives the value.
 * @return 0 or a code.
 */
KESDB_API int32_t kesDBMGetSint32(Session *s, uint32_t key, int32_t *value);
/**
 * Reads the current value of a leaf as Sint16: kesDBMGetGeneric() with a length of 2. No type
 * check is made; a shorter value fills only its first bytes of @p value.
 * @param s The session.
 * @param key Component key of the leaf.
 * @param value Receives the value.
 * @return 0 or a code.
 */
KESDB_API int32_t kesDBMGetSint16(Session *s, uint32_t key, int16_t *value);
/**
 * Reads the current value of a leaf as Sint8: kesDBMGetGeneric() with a length of 1. No type
 * check is made; a shorter value fills only its first bytes of @p value.
 * @param s The session.
 * @param key Component key of the leaf.
 * @param value Receives the value.
 * @return 0 or a code.
 */
KESDB_API int32_t kesDBMGetSint8(Session *s, uint32_t key, int8_t *value);
/**
 * Reads the current value of a String leaf: kesDBMGetGeneric() with the buffer size. A text
 * longer than the buffer (its NUL included) fills the buffer without a terminating NUL.
 * @param s The session.
 * @param key Component key of the leaf.
 * @param buffer Receives the text.
 * @param size Size of @p buffer.
 * @return 0 or a code.
 */
KESDB_API int32_t kesDBMGetString(Session *s, uint32_t key, char *buffer, int32_t size);

/**
 * Writes the current value of a leaf as Float64: kesDBMSetGeneric() with its 8 bytes.
 * @param s The session.
 * @param key Component key of the leaf.
 * @param value The value.
 * @return 0 or a code (constraint refusals included).
 */
KESDB_API int32_t kesDBMSetFloat64(Session *s, uint32_t key, double value);
/**
 * Writes the current value of a leaf as Float32: kesDBMSetGeneric() with its 4 bytes.
 * @param s The session.
 * @param key Component key of the leaf.
 * @param value The value.
 * @return 0 or a code (constraint refusals included).
 */
KESDB_API int32_t kesDBMSetFloat32(Session *s, uint32_t key, float value);
/**
 * Writes the current value of a leaf as Uint64: kesDBMSetGeneric() with its 8 bytes.
 * @param s The session.
 * @param key Component key of the leaf.
 * @param value The value.
 * @return 0 or a code (constraint refusals included).
 */
KESDB_API int32_t kesDBMSetUint64(Session *s, uint32_t key, uint64_t value);
/**
 * Writes the current value of a leaf as Uint32: kesDBMSetGeneric() with its 4 bytes.
 * @param s The session.
 * @param key Component key of the leaf.
 * @param value The value.
 * @return 0 or a code (constraint refusals included).
 */
KESDB_API int32_t kesDBMSetUint32(Session *s, uint32_t key, uint32_t value);
/**
 * Writes the current value of a leaf as Uint16: kesDBMSetGeneric() with its 2 bytes.
 * @param s The session.
 * @param key Component key of the leaf.
 * @param value The value.
 * @return 0 or a code (constraint refusals included).
 */
KESDB_API int32_t kesDBMSetUint16(Session *s, uint32_t key, uint16_t value);
/**
 * Writes the current value of a leaf as Uint8: kesDBMSetGeneric() with its 1 bytes.
 * @param s The session.
 * @param key Component key of the leaf.
 * @param value The value.
 * @return 0 or a code (constraint refusals included).
 */
KESDB_API int32_t kesDBMSetUint8(Session *s, uint32_t key, uint8_t value);
/**
 * Writes the current value of a leaf as Sint64: kesDBMSetGeneric() with its 8 bytes.
 * @param s The session.
 * @param key Component key of the leaf.
 * @param value The value.
 * @return 0 or a code (constraint refusals included).
 */
KESDB_API int32_t kesDBMSetSint64(Session *s, uint32_t key, int64_t value);
/**
 * Writes the current value of a leaf as Sint32: kesDBMSetGeneric() with its 4 bytes.
 * @param s The session.
 * @param key Component key of the leaf.
 * @param value The value.
 * @return 0 or a code (constraint refusals included).
 */
KESDB_API int32_t kesDBMSetSint32(Session *s, uint32_t key, int32_t value);
/**
 * Writes the current value of a leaf as Sint16: kesDBMSetGeneric() with its 2 bytes.
 * @param s The session.
 * @param key Component key of the leaf.
 * @param value The value.
 * @return 0 or a code (constraint refusals included).
 */
KESDB_API int32_t kesDBMSetSint16(Session *s, uint32_t key, int16_t value);
/**
 * Writes the current value of a leaf as Sint8: kesDBMSetGeneric() with its 1 bytes.
 * @param s The session.
 * @param key Component key of the leaf.
 * @param value The value.
 * @return 0 or a code (constraint refusals included).
 */
KESDB_API int32_t kesDBMSetSint8(Session *s, uint32_t key, int8_t value);
/**
 * Writes the current value of a String leaf: the text and its terminating NUL (at most the
 * value's length of bytes).
 * @param s The session.
 * @param key Component key of the leaf.
 * @param text NUL-terminated text.
 * @return 0 or a code.
 */
KESDB_API int32_t kesDBMSetString(Session *s, uint32_t key, const char *text);

/**
 * The type of a leaf's current value.
 * @param s The session.
 * @param key Component key of the leaf.
 * @return The ValueType code; -1 when the leaf cannot be read, is not a leaf
 *         (#KESDB_ERR_COMP_NOTLEAF) or its value record cannot be read.
 */
KESDB_API int32_t kesDBMGetType(Session *s, uint32_t key);
/**
 * The length in bytes of a leaf's current value.
 * @param s The session.
 * @param key Component key of the leaf.
 * @return The length; 0 when the leaf cannot be read or is not a leaf
 *         (#KESDB_ERR_COMP_NOTLEAF); -1 when its value record cannot be read.
 */
KESDB_API int32_t kesDBMGetLength(Session *s, uint32_t key);
/**
 * Copies the current value of one leaf to another, with the hooks of both: the destination
 * receives exactly its own length of bytes, the source's cut short or followed by zeros.
 * Types are not compared; the destination's constraint applies. Only a non-zero result of
 * the source read ends the copy: a source whose value record cannot be read gives the
 * destination zeros, and the read's code stays in the session while the call returns the
 * write's result.
 * @param s The session.
 * @param source Component key of the leaf read.
 * @param destination Component key of the leaf written.
 * @return 0, #KESDB_ERR_NOMEM (recorded with errno; also for a destination whose value record
 *         cannot be read, as its length -1 cannot be allocated), or a code of the read or the write.
 */
KESDB_API int32_t kesDBMCopy(Session *s, uint32_t source, uint32_t destination);
/** @} */

/** @name Sessions
 *  @{ */
/**
 * Opens a session on a started database: takes an entry of the shared session table, clears
 * the session's error and makes the root its current component.
 * @param s The caller's session record.
 * @param dbId The id returned by kesDBMInit().
 * @return 0, #KESDB_ERR_NULLARG (null session; nothing is written), #KESDB_ERR_SESSION_FULL,
 *         or a semaphore code.
 */
KESDB_API int32_t kesDBMInitSession(Session *s, uint32_t dbId);
/**
 * Closes a session: gives its entry back. Locks it took stay until unlocked.
 * @param s The session.
 * @return 0, #KESDB_ERR_NULLARG, #KESDB_ERR_SESSION_NOTFOUND or a semaphore code.
 */
KESDB_API int32_t kesDBMTermSession(Session *s);
/** @} */

/** @name Tree and structure
 * Calls that walk and change the component tree and the records it links. Unless a call says
 * otherwise, failures are those of the record accesses, recorded in the session:
 * #KESDB_ERR_DB_NOTFOUND, #KESDB_ERR_MEDIA_INDEX, #KESDB_ERR_COMP_NULLKEY,
 * #KESDB_ERR_COMP_OPEN, #KESDB_ERR_COMP_READ, #KESDB_ERR_COMP_WRITE (components),
 * KESDB_ERR_VALUE_... (values), KESDB_ERR_STR_... (strings), #KESDB_ERR_MEDIA_OPEN,
 * #KESDB_ERR_MEDIA_READ, #KESDB_ERR_MEDIA_WRITE (allocators and data areas). Nothing checks
 * names for uniqueness, that a parent is a node or that a node is not moved below itself.
 *  @{ */
/**
 * The root component: the root word of the component medium's header.
 * @param s The session.
 * @return The root key, or 0 on failure.
 */
KESDB_API uint32_t kesDBMGetRoot(Session *s);
/**
 * The parent of a component.
 * @param s The session.
 * @param key Component key.
 * @return The parent key (0 for the root), or 0 on failure.
 */
KESDB_API uint32_t kesDBMGetParent(Session *s, uint32_t key);
/**
 * The first child of a node.
 * @param s The session.
 * @param key Component key.
 * @return The first child's key; 0 when there is none, for a leaf (nothing recorded) or on failure.
 */
KESDB_API uint32_t kesDBMGetFirstChild(Session *s, uint32_t key);
/**
 * The next sibling of a component.
 * @param s The session.
 * @param key Component key.
 * @return The next sibling's key; 0 at the end of the list or on failure.
 */
KESDB_API uint32_t kesDBMGetNextChild(Session *s, uint32_t key);
/**
 * The number of children of a node.
 * @param s The session.
 * @param key Component key.
 * @return The count; 0 for a leaf (#KESDB_ERR_COMP_NOTNODE) or on failure.
 */
KESDB_API int32_t kesDBMGetChildCount(Session *s, uint32_t key);
/**
 * The child of a node at a position, counted from 0 along the sibling links.
 * @param s The session.
 * @param key Component key of the node.
 * @param index Position; a negative one gives 0.
 * @return The child's key; 0 when there is none (nothing recorded), for a leaf
 *         (#KESDB_ERR_COMP_NOTNODE) or on failure.
 */
KESDB_API uint32_t kesDBMGetChildByIndex(Session *s, uint32_t key, int32_t index);
/**
 * Creates a node and links it behind @p previous, or at the head of @p parent's children.
 * With a @p child, that component (the one that followed the insertion point) leaves the list
 * and becomes the new node's only child, the node taking its place.
 * @param s The session.
 * @param stringKey Name: key of a string-table entry (kesDBMCreateString()).
 * @param parent Key of the parent node.
 * @param previous Key of the previous sibling; 0 inserts at the head.
 * @param child Key of a component to wrap; 0 for none.
 * @return The new node's key, or 0 on failure (no space in the component medium included).
 */
KESDB_API uint32_t kesDBMCreateNode(Session *s, uint32_t stringKey, uint32_t parent, uint32_t previous, uint32_t child);
/**
 * Creates a leaf and links it behind @p previous, or at the head of @p parent's children.
 * @param s The session.
 * @param stringKey Name: key of a string-table entry.
 * @param parent Key of the parent node.
 * @param previous Key of the previous sibling; 0 inserts at the head.
 * @param currentValue Key of the current value record (kesDBMCreateValue()).
 * @param defaultValue Key of the default value record.
 * @param factoryValue Key of the factory value record.
 * @param hookIndex Hook entry run around its value accesses (1-based); 0 for none.
 * @return The new leaf's key, or 0 on failure.
 */
KESDB_API uint32_t kesDBMCreateLeaf(Session *s, uint32_t stringKey, uint32_t parent, uint32_t previous,
                                    uint32_t currentValue, uint32_t defaultValue, uint32_t factoryValue,
                                    uint32_t hookIndex);
/**
 * Moves a leaf to another place.
 * @param s The session.
 * @param leaf Key of the leaf.
 * @param newParent Key of the new parent node.
 * @param newPrevious Key of the new previous sibling; 0 for the head.
 * @return 0, or a code.
 */
KESDB_API int32_t kesDBMMoveLeaf(Session *s, uint32_t leaf, uint32_t newParent, uint32_t newPrevious);
/**
 * Moves a node alone: its children take its old place; at the new place it may wrap
 * @p child as kesDBMCreateNode() does.
 * @param s The session.
 * @param node Key of the node.
 * @param newParent Key of the new parent node.
 * @param newPrevious Key of the new previous sibling; 0 for the head.
 * @param child Key of a component to wrap; 0 for none.
 * @return 0, or a code.
 */
KESDB_API int32_t kesDBMMoveNode(Session *s, uint32_t node, uint32_t newParent, uint32_t newPrevious, uint32_t child);
/**
 * Moves a node with everything below it.
 * @param s The session.
 * @param node Key of the node.
 * @param newParent Key of the new parent node.
 * @param newPrevious Key of the new previous sibling; 0 for the head.
 * @return 0, or a code.
 */
KESDB_API int32_t kesDBMMoveSubTree(Session *s, uint32_t node, uint32_t newParent, uint32_t newPrevious);
/**
 * Deletes one component and gives its record's space back; a node's children take its place.
 * Its values and name are not deleted.
 * @param s The session.
 * @param key Component key.
 * @return 0, or a code (#KESDB_ERR_COMP_BADKIND for a record of another kind).
 */
KESDB_API int32_t kesDBMDeleteComponent(Session *s, uint32_t key);
/**
 * Unlinks a component from its parent and deletes it with everything below it.
 * @param s The session.
 * @param key Component key.
 * @return 0, or a code.
 */
KESDB_API int32_t kesDBMDeleteComponentWithSub(Session *s, uint32_t key);
/**
 * Copies the current value to the default value of every leaf at and below a component
 * (without hooks; the default value's constraint applies).
 * @param s The session.
 * @param key Component key.
 * @return 0, or the first code met (#KESDB_ERR_COMP_BADKIND, #KESDB_ERR_VALUE_SHORTDEST, a
 *         constraint refusal), which ends the walk.
 */
KESDB_API int32_t kesDBMCurrentToDefault(Session *s, uint32_t key);
/**
 * Copies the factory value to the default value of every leaf at and below a component.
 * @param s The session.
 * @param key Component key.
 * @return 0, or the first code met, which ends the walk.
 */
KESDB_API int32_t kesDBMFactoryToDefault(Session *s, uint32_t key);
/**
 * Copies the default value to the current value of every leaf at and below a component,
 * running each leaf's preSet and postSet hooks around the write.
 * @param s The session.
 * @param key Component key.
 * @return 0, or the first code met (#KESDB_ERR_HOOK_PRESET, #KESDB_ERR_HOOK_POSTSET included),
 *         which ends the walk.
 */
KESDB_API int32_t kesDBMDefaultToCurrent(Session *s, uint32_t key);
/**
 * Locks a key of the session's database in the shared lock table, seen by every process.
 * Locks do not nest, do not cover children, and are not looked at by the library's own
 * reads and writes; they last until unlocked (also beyond the session and the process).
 * @param s The session.
 * @param key The key to lock (usually a component key).
 * @param mode Low byte: 0 waits until the lock is free, 1 tries once. Second byte: 0x01
(mode 0x100) asks for a shared lock, anything else for an exclusive one.
 * @return 0 when the lock is taken; #KESDB_ERR_LOCK_BUSY (not recorded) when trying and the key
 *         is locked exclusively, or shared while an exclusive lock is asked for;
 *         #KESDB_ERR_LOCK_MODE for another low byte; #KESDB_ERR_LOCK_FULL when 1024 locks are held;
 *         a semaphore code.
 */
KESDB_API int32_t kesDBMLock(Session *s, uint32_t key, uint32_t mode);
/**
 * Releases the most recent lock of the session's database on a key (whichever session took
 * it) and wakes the waiters.
 * @param s The session.
 * @param key The locked key.
 * @return 0, #KESDB_ERR_LOCK_NOTFOUND (not recorded) when the key is not locked, or a semaphore code.
 */
KESDB_API int32_t kesDBMUnlock(Session *s, uint32_t key);
/**
 * The key of a leaf's current value record.
 * @param s The session.
 * @param leaf Component key of the leaf.
 * @return The value key, or 0 on failure (#KESDB_ERR_COMP_NOTLEAF for a node).
 */
KESDB_API uint32_t kesDBMGetCurrentValueKey(Session *s, uint32_t leaf);
/**
 * The key of a leaf's default value record.
 * @param s The session.
 * @param leaf Component key of the leaf.
 * @return The value key, or 0 on failure (#KESDB_ERR_COMP_NOTLEAF for a node).
 */
KESDB_API uint32_t kesDBMGetDefaultValueKey(Session *s, uint32_t leaf);
/**
 * The key of a leaf's factory value record.
 * @param s The session.
 * @param leaf Component key of the leaf.
 * @return The value key, or 0 on failure (#KESDB_ERR_COMP_NOTLEAF for a node).
 */
KESDB_API uint32_t kesDBMGetFactoryValueKey(Session *s, uint32_t leaf);
/**
 * Makes a value record the leaf's current value.
 * @param s The session.
 * @param leaf Component key of the leaf.
 * @param valueKey Key of the value record.
 * @return 0, or a code (#KESDB_ERR_COMP_NOTLEAF for a node).
 */
KESDB_API int32_t kesDBMSetCurrentValueKey(Session *s, uint32_t leaf, uint32_t valueKey);
/**
 * Makes a value record the leaf's default value.
 * @param s The session.
 * @param leaf Component key of the leaf.
 * @param valueKey Key of the value record.
 * @return 0, or a code (#KESDB_ERR_COMP_NOTLEAF for a node).
 */
KESDB_API int32_t kesDBMSetDefaultValueKey(Session *s, uint32_t leaf, uint32_t valueKey);
/**
 * Makes a value record the leaf's factory value.
 * @param s The session.
 * @param leaf Component key of the leaf.
 * @param valueKey Key of the value record.
 * @return 0, or a code (#KESDB_ERR_COMP_NOTLEAF for a node).
 */
KESDB_API int32_t kesDBMSetFactoryValueKey(Session *s, uint32_t leaf, uint32_t valueKey);
/**
 * The name of a component: the key of its string-table entry (kesdb_getString() reads it).
 * @param s The session.
 * @param key Component key.
 * @return The string key, or 0 on failure.
 */
KESDB_API uint32_t kesDBMGetStringKey(Session *s, uint32_t key);
/**
 * Renames a component.
 * @param s The session.
 * @param key Component key.
 * @param stringKey Key of a string-table entry.
 * @return 0, or a code.
 */
KESDB_API int32_t kesDBMSetStringKey(Session *s, uint32_t key, uint32_t stringKey);
/**
 * Creates a value record in the value medium and appends its data area (never reused) at the
 * end of the data medium.
 * @param s The session.
 * @param type ValueType code (not checked).
 * @param creatorWord A word stored with the record, never interpreted.
 * @param data Initial contents of @p size bytes; NULL for zeros.
 * @param size Length of the data area in bytes, fixed from now on.
 * @param dataMedium Media-table index of the medium of the data area.
 * @return The new value key, or 0 on failure (#KESDB_ERR_NOMEM, KESDB_ERR_MEDIA_...,
 *         KESDB_ERR_VALUE_...).
 */
KESDB_API uint32_t kesDBMCreateValue(Session *s, uint32_t type, uint32_t creatorWord, const void *data, int32_t size,
                                     uint32_t dataMedium);
/**
 * Deletes a value record (its data area is not reclaimed).
 * @param s The session.
 * @param valueKey Key of the value record.
 * @return 0, or the session's current code when the record cannot be read.
 */
KESDB_API int32_t kesDBMDeleteValue(Session *s, uint32_t valueKey);
/**
 * The constraint that guards writes of a value.
 * @param s The session.
 * @param valueKey Key of the value record.
 * @return The constraint key; 0 when there is none or on failure.
 */
KESDB_API uint32_t kesDBMGetConstraintKey(Session *s, uint32_t valueKey);
/**
 * Binds a constraint record (constraint.h) to a value; 0 removes the binding.
 * @param s The session.
 * @param valueKey Key of the value record.
 * @param constraintKey Key of a range or enumeration record; 0 for none.
 * @return 0, or the session's current code when the record cannot be read.
 */
KESDB_API int32_t kesDBMSetConstraintKey(Session *s, uint32_t valueKey, uint32_t constraintKey);
/**
 * Creates a string-table entry (a component name) in the string medium; the text is
 * appended to the text medium.
 * @param s The session.
 * @param text NUL-terminated text.
 * @param medium Media-table index of the medium that receives the text.
 * @return The string key, or 0 on failure (KESDB_ERR_STR_..., KESDB_ERR_MEDIA_...).
 */
KESDB_API uint32_t kesDBMCreateString(Session *s, const char *text, uint32_t medium);
/**
 * Deletes a string-table entry (its text is not reclaimed).
 * @param s The session.
 * @param stringKey Key of the entry.
 * @return 0, or the session's current code when the entry cannot be read.
 */
KESDB_API int32_t kesDBMDeleteString(Session *s, uint32_t stringKey);
/**
 * Flushes a medium through its driver's sync operation.
 * @param s The session.
 * @param medium Media-table index.
 * @param syncArg Passed to the driver.
 * @return 0, #KESDB_ERR_MEDIA_INDEX, #KESDB_ERR_MEDIA_OPEN or #KESDB_ERR_MEDIA_SYNC (recorded with
 *         the driver's error word).
 */
KESDB_API int32_t kesDBMSync(Session *s, uint32_t medium, uint32_t syncArg);
/**
 * Finds a component by path. Each component's whole name is matched against the start of
 * what is left of the path: the names from the start down to the component must spell the
 * path (a root named "/" with a child "net" holding a leaf "/port" is reached by
 * "/net/port"). A path beginning with '/' starts at the root; any other path is tried
 * against each child of the session's current component. Prints diagnostic lines on
 * standard output when nothing matches.
 * @param s The session.
 * @param path NUL-terminated path.
 * @return The component's key, or 0: #KESDB_ERR_NULLARG for a null path, #KESDB_ERR_COMP_NOMATCH
 *         (an absolute path not found), #KESDB_ERR_COMP_ENDSEARCH (a relative one), or a read code.
 */
KESDB_API uint32_t kesDBMSearchByName(Session *s, const char *path);
/**
 * Makes a component the session's current one, where relative searches start.
 * @param s The session.
 * @param key Component key (node or leaf).
 * @return @p key, or 0 on failure (#KESDB_ERR_COMP_BADKIND, a read code).
 */
KESDB_API uint32_t kesDBMSetCurrentComponent(Session *s, uint32_t key);
/**
 * The type code of the constraint of a leaf's current value: the value type (2..11) for a
 * range, that code times #KESDB_CSTRT_ENUM_FACTOR for an enumeration. Reads the leaf, its current value and that value's constraint record; the default and
 * factory values' constraints are not reached.
 * @param s The session.
 * @param leaf Component key of the leaf.
 * @return The type code, or 0: #KESDB_ERR_COMP_NOTLEAF, #KESDB_ERR_VALUE_NOVALUE,
 *         #KESDB_ERR_CSTRT_NONE, or a read code.
 */
KESDB_API uint32_t kesDBMGetConstraintType(Session *s, uint32_t leaf);
/**
 * The length of the constraint data of a leaf's current value (a range: min, max and step;
 * an enumeration: its members). Reads the leaf, its current value and that value's constraint record; the default and
 * factory values' constraints are not reached.
 * @param s The session.
 * @param leaf Component key of the leaf.
 * @return The length in bytes, or -1: #KESDB_ERR_COMP_NOTLEAF, #KESDB_ERR_VALUE_NOVALUE,
 *         #KESDB_ERR_CSTRT_NONE, #KESDB_ERR_CSTRT_UNKNOWN, or a read code.
 */
KESDB_API int32_t kesDBMGetConstraintLength(Session *s, uint32_t leaf);
/**
 * Reads the constraint data of a leaf's current value: min, max, step of a range, or the
 * members of an enumeration, in the element width. Reads the leaf, its current value and that value's constraint record; the default and
 * factory values' constraints are not reached.
 * @param s The session.
 * @param leaf Component key of the leaf.
 * @param buffer Receives the data.
 * @param length Size of @p buffer.
 * @return The result of constraint_getData() (0, #KESDB_ERR_CSTRT_BUFFER, ...), or 0 after
 *         #KESDB_ERR_COMP_NOTLEAF, #KESDB_ERR_VALUE_NOVALUE or #KESDB_ERR_CSTRT_NONE was recorded:
 *         read Session::error.
 */
KESDB_API int32_t kesDBMGetConstraintData(Session *s, uint32_t leaf, void *buffer, uint32_t length);
/**
 * Replaces the constraint data of a leaf's current value (see kesDBMGetConstraintData()).
 * @param s The session.
 * @param leaf Component key of the leaf.
 * @param data The new data.
 * @param length Its length; it must fit the constraint (#KESDB_ERR_CSTRT_LENGTH).
 * @return The result of constraint_setData(), or 0 after a recorded failure: read Session::error.
 */
KESDB_API int32_t kesDBMSetConstraintData(Session *s, uint32_t leaf, const void *data, uint32_t length);
/**
 * Prints a subtree on standard output: one line per component, indented by depth, with each
 * leaf's values (comp_traverseAndPrint()).
 * @param s The session.
 * @param key Component key where to start; 0 for the root.
 */
KESDB_API void kesDBMtraverseAndPrint(Session *s, uint32_t key);
/** @} */

#ifdef __cplusplus
}
#endif

#endif
