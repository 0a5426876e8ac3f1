/* Storage: database table, media table and drivers, byte order, free-list allocators. */
#ifndef KESDBM_STORAGE_H
#define KESDBM_STORAGE_H

#include <stdint.h>

#include "kesdbm/api.h"
#include "kesdbm/export.h"
#include "kesdbm/session.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Database table ---------------------------------------------------- */

#define KESDB_DBTABLE_DEFAULT "/tmp/kesdb_dbTable"
#define KESDB_DB_SLOTS 33
#define KESDB_DBTABLE_SIZE 541740u

typedef struct DbSlot {
    uint32_t id;
    DBMInitParam param;
    uint32_t refCount;
    uint32_t next;
} DbSlot;

typedef struct DbTable {
    uint32_t freeHead;
    uint32_t freeTail;
    uint32_t usedHead;
    DbSlot slot[KESDB_DB_SLOTS];
} DbTable;

KESDB_API int32_t db_init(const DBMInitParam *param, int32_t *errorWord);
KESDB_API int32_t db_term(uint32_t dbId);
KESDB_API DBMInitParam *db_getDb(uint32_t dbId);
KESDB_API void db_show(uint32_t flags);
KESDB_API int32_t misc_pathCompare(const char *a, const char *b);

/* ---- Media ------------------------------------------------------------- */

typedef int (*kesMediaOpenFn)(const char *name, uint32_t arg, int32_t *errPtr);
typedef int (*kesMediaCloseFn)(int descriptor, int32_t *errPtr);
typedef int (*kesMediaReadFn)(int descriptor, void *buffer, uint32_t length, uint32_t offset, int32_t *errPtr);
typedef int (*kesMediaWriteFn)(int descriptor, const void *buffer, uint32_t length, uint32_t offset,
                               int32_t *errPtr);
typedef int (*kesMediaSeekFn)(int descriptor, uint32_t offset, int whence, int32_t *errPtr);
typedef int (*kesMediaSyncFn)(int descriptor, int32_t *errPtr, uint32_t syncArg);

typedef struct MediaEntry {
    void *handle;
    char *name;
    uint32_t arg;
    kesMediaOpenFn open;
    kesMediaCloseFn close;
    kesMediaReadFn read;
    kesMediaWriteFn write;
    kesMediaSeekFn seek;
    kesMediaSyncFn sync;
} MediaEntry;

#define KESDB_MEDIA_MAX 128
#define KESDB_CONF_LINE 4096

KESDB_API extern MediaEntry media_table[KESDB_MEDIA_MAX];

KESDB_API int32_t media_init(const char *path);
KESDB_API int32_t media_term(void);
KESDB_API int32_t media_getCount(void);
KESDB_API MediaEntry *getMedia(Session *s, uint32_t index);
KESDB_API int32_t media_sync(Session *s, uint32_t index, uint32_t syncArg);
KESDB_API int32_t IsCompMedia(const char *name);
KESDB_API int compFileRead(int descriptor, void *buffer, uint32_t length, uint32_t offset, int32_t *errPtr);
KESDB_API int32_t fillMediaEntry(char *line, MediaEntry *entry);

/* The built-in medium: the file named by KESDB_DEFMEDIA. */
KESDB_API int defMedia_open(const char *name, uint32_t arg, int32_t *errPtr);
KESDB_API int defMedia_close(int descriptor, int32_t *errPtr);
KESDB_API int defMedia_read(int descriptor, void *buffer, uint32_t length, uint32_t offset, int32_t *errPtr);
KESDB_API int defMedia_write(int descriptor, const void *buffer, uint32_t length, uint32_t offset, int32_t *errPtr);
KESDB_API int defMedia_seek(int descriptor, uint32_t offset, int whence, int32_t *errPtr);
KESDB_API int defMedia_sync(int descriptor, int32_t *errPtr, uint32_t syncArg);

/* ---- Byte-order adjustment --------------------------------------------- */

KESDB_API uint32_t boadj_judge(void);
KESDB_API uint32_t boadj_type(void);
KESDB_API void boadj_word(void *word, uint32_t keep);
KESDB_API void boadj_wordx2(void *pair, uint32_t keep, void *destination);

/* ---- Free lists -------------------------------------------------------- */

/* Medium header: the first 16 bytes of every medium. */
typedef struct MediumHeader {
    uint32_t word0;
    uint32_t word1;
    uint32_t root;
    uint32_t first;
} MediumHeader;

/* A free element: 8 header bytes at the start of a free block. */
typedef struct FreeElement {
    uint32_t next;
    uint32_t size;
} FreeElement;

#define KESDB_FLST_ANCHOR 12u
#define KESDB_FLST_FAILED 0xFFFFFFFFu

/* Path-based allocator: the file is named by its path. */
KESDB_API uint32_t flst_getAnchorOffset(Session *s, const char *path);
KESDB_API uint32_t flst_getFirstOffset(Session *s, const char *path);
KESDB_API int32_t flst_setFirstOffset(Session *s, const char *path, uint32_t first);
KESDB_API FreeElement *flst_getElement(Session *s, const char *path, uint32_t key, FreeElement *buffer);
KESDB_API int32_t flst_setElement(Session *s, const char *path, uint32_t key, const FreeElement *element);
KESDB_API int32_t flst_setNext(Session *s, const char *path, uint32_t key, uint32_t next);
KESDB_API int32_t flst_fillFlagmented(Session *s, const char *path, uint32_t key, uint32_t count);
KESDB_API uint32_t flst_get(Session *s, const char *path, uint32_t size);
KESDB_API int32_t flst_release(Session *s, const char *path, uint32_t key, uint32_t size);

/* Rooted allocator: the medium is named by its media-table index. */
KESDB_API uint32_t flst_m_getAnchorOffset(Session *s, uint32_t medium);
KESDB_API uint32_t flst_m_getFirstOffset(Session *s, uint32_t medium);
KESDB_API int32_t flst_m_setFirstOffset(Session *s, uint32_t medium, uint32_t first);
KESDB_API FreeElement *flst_m_getElement(Session *s, uint32_t medium, uint32_t key, FreeElement *buffer);
KESDB_API int32_t flst_m_setElement(Session *s, uint32_t medium, uint32_t key, const FreeElement *element);
KESDB_API int32_t flst_m_setNext(Session *s, uint32_t medium, uint32_t key, uint32_t next);
KESDB_API int32_t flst_m_fillFlagmented(Session *s, uint32_t medium, uint32_t key, uint32_t count);
KESDB_API uint32_t flst_m_get(Session *s, uint32_t medium, uint32_t size);
KESDB_API int32_t flst_m_release(Session *s, uint32_t medium, uint32_t key, uint32_t size);
KESDB_API uint32_t flst_m_getRoot(Session *s, uint32_t medium);
KESDB_API int32_t flst_m_setRoot(Session *s, uint32_t medium, uint32_t root);

/* Preparation: lay down a medium file of `size` bytes (at least 24): the header with the
 * given root word, and one free element covering all space behind the header.
 * Creates or truncates the file. Returns 0, or an errno value. */
KESDB_API int32_t kesdb_layMedium(const char *path, uint32_t size, uint32_t root);

#ifdef __cplusplus
}
#endif

#endif
