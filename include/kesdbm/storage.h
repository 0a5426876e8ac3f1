/**
 * @file kesdbm/storage.h
 * @brief Storage: the database table, the media table and drivers, byte order, and the
 * free-list allocators that manage space inside a medium.
 *
 * A medium is a byte-addressed store reached through a driver with six file-like operations.
 * Entry 0 of the media table is the built-in medium, the file named by $KESDB_DEFMEDIA; the
 * media configuration file adds one driver a line, eight tokens separated by blanks, tabs or
 * newlines ("#" starts a comment): the driver library's path (dlopen, RTLD_NOW), the symbols
 * of its open, close, read, write, seek and sync operations, and the medium's name (passed to
 * open). Nothing is cached: every record access opens the medium, transfers one record and
 * closes it again. The library never creates or formats a medium: kesdb_layMedium() lays one
 * down.
 */
#ifndef KESDBM_STORAGE_H
#define KESDBM_STORAGE_H

#include <stdint.h>

#include "kesdbm/api.h"
#include "kesdbm/export.h"
#include "kesdbm/session.h"

#ifdef __cplusplus
extern "C" {
#endif

/** @name Database table
 * The device-wide registry of started databases, a file every process maps shared: its path
 * is $KESDB_DBTABLE, or #KESDB_DBTABLE_DEFAULT when that is not set.
 *  @{ */

/** The database table's path when $KESDB_DBTABLE is not set. */
#define KESDB_DBTABLE_DEFAULT "/tmp/kesdb_dbTable"
/** Slots of the database table: 0 and 32 unused, so database ids are 1..31. */
#define KESDB_DB_SLOTS 33
/** Size in bytes of the database table file. */
#define KESDB_DBTABLE_SIZE 541740u

/** One slot of the database table: a registered database. */
typedef struct DbSlot {
    uint32_t id;        /**< The database id: the slot's index. */
    DBMInitParam param; /**< Copy of the start-up parameter block; record accesses take their media indexes here. */
    uint32_t refCount;  /**< Registrations not yet released, over all processes. */
    uint32_t next;      /**< Next slot of its list; 0 ends it. */
} DbSlot;

/** The shared database table, mapped from its file. */
typedef struct DbTable {
    uint32_t freeHead;           /**< First free slot; 0 when none. */
    uint32_t freeTail;           /**< Last free slot. */
    uint32_t usedHead;           /**< First slot in use. */
    DbSlot slot[KESDB_DB_SLOTS]; /**< The slots. */
} DbTable;

/**
 * Start-up step 1: maps the database table (creating it when missing) on the process's first
 * call, and registers the database on every call: a slot whose block names the same database
 * gets its reference count raised, else a free slot is taken.
 * @param param The start-up parameter block.
 * @param errorWord Receives the code on failure.
 * @return The database id (1..31), or -1 with #KESDB_ERR_DB_TABLEWRITE, #KESDB_ERR_DB_FULL,
 *         #KESDB_ERR_NOMEM, #KESDB_ERR_MMAP, #KESDB_ERR_NULLARG or #KESDB_ERR_DB_MUTEX in
 *         @p errorWord.
 */
KESDB_API int32_t db_init(const DBMInitParam *param, int32_t *errorWord);
/**
 * Shut-down step: releases one registration (the slot is freed when no process holds it) and
 * unmaps the table on the process's last call.
 * @param dbId The database id.
 * @return 0, #KESDB_ERR_MUNMAP, or a semaphore code.
 */
KESDB_API int32_t db_term(uint32_t dbId);
/**
 * The stored parameter block of a registered database.
 * @param dbId The database id.
 * @return The slot's copy of the block, or NULL when no slot in use has that id.
 */
KESDB_API DBMInitParam *db_getDb(uint32_t dbId);
/**
 * Prints the database table's lists on standard output.
 * @param flags 2: the free list; 1: the used list.
 */
KESDB_API void db_show(uint32_t flags);
/**
 * Whether two paths name the same path (relative ones resolved against $PWD).
 * @param a A NUL-terminated path.
 * @param b Another.
 * @return 0 when they are the same, non-zero otherwise.
 */
KESDB_API int32_t misc_pathCompare(const char *a, const char *b);
/** @} */

/** @name Media and drivers
 * The driver contract: every operation stores an error number at its error pointer when it
 * fails; the library records it as the detail of its code.
 *  @{ */

/** Driver open: @p name and @p arg of the media entry; a descriptor >= 0, or -1. */
typedef int (*kesMediaOpenFn)(const char *name, uint32_t arg, int32_t *errPtr);
/** Driver close: 0, or -1. */
typedef int (*kesMediaCloseFn)(int descriptor, int32_t *errPtr);
/** Driver read of @p length bytes at byte @p offset: the number read, or -1. */
typedef int (*kesMediaReadFn)(int descriptor, void *buffer, uint32_t length, uint32_t offset, int32_t *errPtr);
/** Driver write of @p length bytes at byte @p offset: the number written, or -1. */
typedef int (*kesMediaWriteFn)(int descriptor, const void *buffer, uint32_t length, uint32_t offset,
                               int32_t *errPtr);
/** Driver seek as lseek (whence 0 start, 1 current, 2 end): the resulting offset, or -1. */
typedef int (*kesMediaSeekFn)(int descriptor, uint32_t offset, int whence, int32_t *errPtr);
/** Driver sync: 0, or non-zero; @p syncArg comes from kesDBMSync(). */
typedef int (*kesMediaSyncFn)(int descriptor, int32_t *errPtr, uint32_t syncArg);

/** One medium: its driver and name. */
typedef struct MediaEntry {
    void *handle;          /**< Handle of the driver library; NULL for the built-in medium. */
    char *name;            /**< The medium's name, first argument of open (owned by the table). */
    uint32_t arg;          /**< Second argument of open (0). */
    kesMediaOpenFn open;   /**< Opens the medium. */
    kesMediaCloseFn close; /**< Closes a descriptor. */
    kesMediaReadFn read;   /**< Positioned read. */
    kesMediaWriteFn write; /**< Positioned write. */
    kesMediaSeekFn seek;   /**< Seek (data areas are appended at the end). */
    kesMediaSyncFn sync;   /**< Flush. */
} MediaEntry;

/** Entries of the media table: the built-in medium and up to 127 configured drivers. */
#define KESDB_MEDIA_MAX 128
/** Longest configuration line read, in bytes. */
#define KESDB_CONF_LINE 4096

/** The process's media table; entry 0 is the built-in medium. */
KESDB_API extern MediaEntry media_table[KESDB_MEDIA_MAX];

/**
 * Start-up step: loads every driver of the media configuration file into entries 1.. on the
 * process's first call. A line that fails adds no entry.
 * @param path Path of the media configuration file.
 * @return 0, or #KESDB_ERR_MEDIA_CONFOPEN, #KESDB_ERR_NOMEM, or the code of the last line
 *         handled (#KESDB_ERR_MEDIA_LOAD, #KESDB_ERR_MEDIA_SYMOPEN to #KESDB_ERR_MEDIA_SYMSYNC).
 */
KESDB_API int32_t media_init(const char *path);
/**
 * Shut-down step: the last call of the process unloads the drivers.
 * @return 0.
 */
KESDB_API int32_t media_term(void);
/**
 * The number of media-table entries in use, the built-in medium included.
 * @return The media count (1 when no driver is loaded).
 */
KESDB_API int32_t media_getCount(void);
/**
 * The media-table entry of an index.
 * @param s The session.
 * @param index Media-table index.
 * @return The entry, or NULL after recording #KESDB_ERR_MEDIA_INDEX.
 */
KESDB_API MediaEntry *getMedia(Session *s, uint32_t index);
/**
 * Flushes a medium: open, sync, close. kesDBMSync() forwards here.
 * @param s The session.
 * @param index Media-table index.
 * @param syncArg Passed to the driver's sync.
 * @return 0, #KESDB_ERR_MEDIA_INDEX, #KESDB_ERR_MEDIA_OPEN or #KESDB_ERR_MEDIA_SYNC.
 */
KESDB_API int32_t media_sync(Session *s, uint32_t index, uint32_t syncArg);
/**
 * Whether a medium name begins with the first eight characters of "compMedia".
 * @param name NUL-terminated name.
 * @return 1 or 0.
 */
KESDB_API int32_t IsCompMedia(const char *name);
/**
 * A read operation for drivers: pread, storing -1 (not errno) at @p errPtr on failure.
 * @param descriptor Descriptor.
 * @param buffer Receives the bytes.
 * @param length Number of bytes.
 * @param offset Byte offset.
 * @param errPtr Error word.
 * @return The number of bytes read, or -1.
 */
KESDB_API int compFileRead(int descriptor, void *buffer, uint32_t length, uint32_t offset, int32_t *errPtr);
/**
 * Fills one media entry from one configuration line (the line is split in place).
 * @param line The line.
 * @param entry The entry to fill.
 * @return 0 (complete), -1 (line not usable), #KESDB_ERR_MEDIA_LOAD, or
 *         #KESDB_ERR_MEDIA_SYMOPEN to #KESDB_ERR_MEDIA_SYMSYNC.
 */
KESDB_API int32_t fillMediaEntry(char *line, MediaEntry *entry);

/**
 * Built-in medium open: opens the file named by $KESDB_DEFMEDIA, read at every call
 * (O_RDWR | O_DSYNC, never created).
 * @param name Ignored.
 * @param arg Ignored.
 * @param errPtr Receives errno on failure (nothing when the variable is not set).
 * @return A descriptor, or -1.
 */
KESDB_API int defMedia_open(const char *name, uint32_t arg, int32_t *errPtr);
/**
 * Built-in medium close.
 * @param descriptor Descriptor.
 * @param errPtr Receives errno on failure.
 * @return 0, or -1.
 */
KESDB_API int defMedia_close(int descriptor, int32_t *errPtr);
/**
 * Built-in medium read (pread).
 * @param descriptor Descriptor.
 * @param buffer Receives the bytes.
 * @param length Number of bytes.
 * @param offset Byte offset.
 * @param errPtr Receives errno on failure.
 * @return The number of bytes read, or -1.
 */
KESDB_API int defMedia_read(int descriptor, void *buffer, uint32_t length, uint32_t offset, int32_t *errPtr);
/**
 * Built-in medium write (pwrite).
 * @param descriptor Descriptor.
 * @param buffer The bytes.
 * @param length Number of bytes.
 * @param offset Byte offset.
 * @param errPtr Receives errno on failure.
 * @return The number of bytes written, or -1.
 */
KESDB_API int defMedia_write(int descriptor, const void *buffer, uint32_t length, uint32_t offset, int32_t *errPtr);
/**
 * Built-in medium seek (lseek).
 * @param descriptor Descriptor.
 * @param offset Offset.
 * @param whence 0 start, 1 current, 2 end.
 * @param errPtr Receives errno on failure.
 * @return The resulting offset, or -1.
 */
KESDB_API int defMedia_seek(int descriptor, uint32_t offset, int whence, int32_t *errPtr);
/**
 * Built-in medium sync (fsync).
 * @param descriptor Descriptor.
 * @param errPtr Receives errno on failure.
 * @param syncArg Ignored.
 * @return 0, or -1.
 */
KESDB_API int defMedia_sync(int descriptor, int32_t *errPtr, uint32_t syncArg);
/** @} */

/** @name Byte-order adjustment
 * Records are stored in the host's byte order. Only the rooted allocator's free-list element
 * writes pass through here: they are stored byte-reversed when boadj_type() is 1.
 *  @{ */
/** @return 1 when the host is little-endian, else 0. */
KESDB_API uint32_t boadj_judge(void);
/**
 * The byte-order type, computed afresh on each call: 1 when $SIM_BYTE_ORDER is exactly
 * "LITTLE_ENDIAN", 0 for any other value; boadj_judge() when it is not set.
 * @return 1 or 0.
 */
KESDB_API uint32_t boadj_type(void);
/**
 * Reverses the four bytes of a word in place.
 * @param word Four bytes at any address.
 * @param keep 0 reverses; any other value leaves the word untouched.
 */
KESDB_API void boadj_word(void *word, uint32_t keep);
/**
 * Reverses the bytes inside each of two words (b0..b7 become b3 b2 b1 b0 b7 b6 b5 b4) into a
 * destination.
 * @param pair Eight bytes.
 * @param keep 0 also writes the result back over @p pair; any other value leaves it.
 * @param destination Eight writable bytes; always receives the result.
 */
KESDB_API void boadj_wordx2(void *pair, uint32_t keep, void *destination);
/** @} */

/** @name Free lists
 * Free space in a medium is a list of free elements in ascending key order, anchored at
 * offset 12 of the medium header. Allocation is first fit; a block is split when the rest
 * holds at least 8 bytes, and a rest of 1..7 bytes is filled with DE AD ... and lost.
 * Released blocks are merged with free neighbours. The path-based allocator (flst_*) works
 * on a file named by its path and records #KESDB_ERR_COMP_OPEN, #KESDB_ERR_COMP_READ,
 * #KESDB_ERR_COMP_WRITE (detail errno); the rooted allocator (flst_m_*) works on a medium
 * through its driver and records #KESDB_ERR_MEDIA_INDEX, #KESDB_ERR_MEDIA_OPEN,
 * #KESDB_ERR_MEDIA_READ, #KESDB_ERR_MEDIA_WRITE (detail: the driver's error word).
 *  @{ */

/** Medium header: the first 16 bytes of every medium. */
typedef struct MediumHeader {
    uint32_t word0; /**< Not interpreted by the library. */
    uint32_t word1; /**< Not interpreted by the library. */
    uint32_t root;  /**< Root component's key (in the component medium). */
    uint32_t first; /**< Free-list anchor: key of the first free element, 0 when none. */
} MediumHeader;

/** A free element: the first 8 bytes of a free block. */
typedef struct FreeElement {
    uint32_t next; /**< Key of the next free element; 0 for the last. */
    uint32_t size; /**< Size of the whole free block, these 8 bytes included. */
} FreeElement;

/** Offset of the free-list anchor in a medium. */
#define KESDB_FLST_ANCHOR 12u
/** Result of flst_m_get() when a split could not be written. */
#define KESDB_FLST_FAILED 0xFFFFFFFFu

/**
 * The anchor's offset.
 * @param s The session (unused).
 * @param path The file (unused).
 * @return 12.
 */
KESDB_API uint32_t flst_getAnchorOffset(Session *s, const char *path);
/**
 * The first free element of a file's list.
 * @param s The session.
 * @param path The file.
 * @return Its key; 0 when the list is empty or on failure.
 */
KESDB_API uint32_t flst_getFirstOffset(Session *s, const char *path);
/**
 * Sets the anchor of a file's list.
 * @param s The session.
 * @param path The file.
 * @param first Key of the new first element.
 * @return 0, or the code recorded.
 */
KESDB_API int32_t flst_setFirstOffset(Session *s, const char *path, uint32_t first);
/**
 * Reads a free element of a file.
 * @param s The session.
 * @param path The file.
 * @param key The element's key.
 * @param buffer Receives it.
 * @return @p buffer, or NULL on failure.
 */
KESDB_API FreeElement *flst_getElement(Session *s, const char *path, uint32_t key, FreeElement *buffer);
/**
 * Writes a free element of a file (its body is filled with 0xBA for sizes 9..1032).
 * @param s The session.
 * @param path The file.
 * @param key The element's key.
 * @param element next and size.
 * @return 0, or the code recorded.
 */
KESDB_API int32_t flst_setElement(Session *s, const char *path, uint32_t key, const FreeElement *element);
/**
 * Writes the next link of a free element of a file.
 * @param s The session.
 * @param path The file.
 * @param key The element's key.
 * @param next The next key.
 * @return 0, or the code recorded.
 */
KESDB_API int32_t flst_setNext(Session *s, const char *path, uint32_t key, uint32_t next);
/**
 * Fills a lost rest of a file with the pattern DE AD DE AD ...
 * @param s The session.
 * @param path The file.
 * @param key Its offset.
 * @param count Number of bytes (at most 7 are used).
 * @return 0, or the code recorded.
 */
KESDB_API int32_t flst_fillFlagmented(Session *s, const char *path, uint32_t key, uint32_t count);
/**
 * Allocates a block in a file (first fit).
 * @param s The session.
 * @param path The file.
 * @param size Bytes requested.
 * @return The block's key, or 0 when no free block is large enough.
 */
KESDB_API uint32_t flst_get(Session *s, const char *path, uint32_t size);
/**
 * Gives a block of a file back to its free list, merged with free neighbours.
 * @param s The session.
 * @param path The file.
 * @param key The block's key.
 * @param size Its size.
 * @return 0 (failures are recorded).
 */
KESDB_API int32_t flst_release(Session *s, const char *path, uint32_t key, uint32_t size);

/**
 * The anchor's offset.
 * @param s The session (unused).
 * @param medium Media-table index (unused).
 * @return 12.
 */
KESDB_API uint32_t flst_m_getAnchorOffset(Session *s, uint32_t medium);
/**
 * The first free element of a medium's list.
 * @param s The session.
 * @param medium Media-table index.
 * @return Its key; 0 when the list is empty or on failure.
 */
KESDB_API uint32_t flst_m_getFirstOffset(Session *s, uint32_t medium);
/**
 * Sets the anchor of a medium's list.
 * @param s The session.
 * @param medium Media-table index.
 * @param first Key of the new first element.
 * @return 0, or the code recorded.
 */
KESDB_API int32_t flst_m_setFirstOffset(Session *s, uint32_t medium, uint32_t first);
/**
 * Reads a free element of a medium (accepted when at least 4 bytes came back).
 * @param s The session.
 * @param medium Media-table index.
 * @param key The element's key.
 * @param buffer Receives it.
 * @return @p buffer, or NULL on failure.
 */
KESDB_API FreeElement *flst_m_getElement(Session *s, uint32_t medium, uint32_t key, FreeElement *buffer);
/**
 * Writes a free element of a medium, byte-reversed when boadj_type() is 1.
 * @param s The session.
 * @param medium Media-table index.
 * @param key The element's key.
 * @param element next and size.
 * @return 0, or the code recorded.
 */
KESDB_API int32_t flst_m_setElement(Session *s, uint32_t medium, uint32_t key, const FreeElement *element);
/**
 * Writes the next link of a free element of a medium.
 * @param s The session.
 * @param medium Media-table index.
 * @param key The element's key.
 * @param next The next key.
 * @return 0, or the code recorded.
 */
KESDB_API int32_t flst_m_setNext(Session *s, uint32_t medium, uint32_t key, uint32_t next);
/**
 * Fills a lost rest of a medium with the pattern DE AD DE AD ...
 * @param s The session.
 * @param medium Media-table index.
 * @param key Its offset.
 * @param count Number of bytes (at most 7 are used).
 * @return 0, or the code recorded.
 */
KESDB_API int32_t flst_m_fillFlagmented(Session *s, uint32_t medium, uint32_t key, uint32_t count);
/**
 * Allocates a block in a medium (first fit); records use it for their space.
 * @param s The session.
 * @param medium Media-table index.
 * @param size Bytes requested.
 * @return The block's key; 0 when no free block is large enough; #KESDB_FLST_FAILED when the
 *         split could not be written.
 */
KESDB_API uint32_t flst_m_get(Session *s, uint32_t medium, uint32_t size);
/**
 * Gives a block of a medium back to its free list, merged with free neighbours.
 * @param s The session.
 * @param medium Media-table index.
 * @param key The block's key.
 * @param size Its size.
 * @return 0 (failures are recorded).
 */
KESDB_API int32_t flst_m_release(Session *s, uint32_t medium, uint32_t key, uint32_t size);
/**
 * The root word of a medium's header (the root component's key in the component medium).
 * @param s The session.
 * @param medium Media-table index.
 * @return The root key, or 0 on failure ("flst_m_getRoot errN 0x..." is printed).
 */
KESDB_API uint32_t flst_m_getRoot(Session *s, uint32_t medium);
/**
 * Sets the root word of a medium's header; a preparing program names the root node so.
 * @param s The session.
 * @param medium Media-table index.
 * @param root The root component's key.
 * @return 0, or the code recorded.
 */
KESDB_API int32_t flst_m_setRoot(Session *s, uint32_t medium, uint32_t root);
/** @} */

/**
 * Lays down a medium file for a new database: the 16-byte header with the given root word
 * and one free element covering everything behind it. Creates (mode 0664) or truncates the
 * file. No library start-up is needed.
 * @param path The file.
 * @param size Its size in bytes, at least 24.
 * @param root The header's root word (0 until a root node exists).
 * @return 0, or an errno value (EINVAL for a null path or a size below 24).
 */
KESDB_API int32_t kesdb_layMedium(const char *path, uint32_t size, uint32_t root);

/**
 * Extension, for tools: the file the built-in medium opens now.
 * @return The descriptor's file of a database started from its directory (kesDBMInitDir()),
 *         else $KESDB_DEFMEDIA; NULL when neither names one.
 */
KESDB_API const char *kesdb_defMediaFile(void);

/**
 * Extension, for tools: the start-up parameter block kesDBMInitDirEx() would start @p dir
 * with, without starting anything.
 * @param dir The database directory.
 * @param options As for kesDBMInitDirEx(); NULL for none.
 * @param param Receives the block.
 * @return 0, #KESDB_ERR_NULLARG, #KESDB_ERR_NOMEM or #KESDB_ERR_DIR_BAD (the cause in
 *         kesDBMInitDirFailure()).
 */
KESDB_API int32_t kesdb_dirParam(const char *dir, const DBMDirOptions *options, DBMInitParam *param);

#ifdef __cplusplus
}
#endif

#endif
