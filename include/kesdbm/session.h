/* Sessions, the shared session table and the list of error codes. */
#ifndef KESDBM_SESSION_H
#define KESDBM_SESSION_H

#include <stdint.h>

#include "kesdbm/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The caller's session record: five 32-bit words in caller memory. */
typedef struct Session {
    uint32_t id;          /* session table entry held (1..1023) */
    uint32_t dbId;        /* database id given to kesDBMInitSession */
    uint32_t error;       /* last recorded error code, 0 when none */
    uint32_t errorDetail; /* errno, driver error word, hook result, key or 0 */
    uint32_t current;     /* key of the current component */
} Session;

/* Error codes. 0 is success; the numbers not listed are not used. */
#define KESDB_ERR_HOOK_LINE (-1)
#define KESDB_ERR_COMP_NOTLEAF 1
#define KESDB_ERR_COMP_NOTNODE 2
#define KESDB_ERR_COMP_BADKIND 3
#define KESDB_ERR_COMP_NULLKEY 4
#define KESDB_ERR_COMP_ENDSEARCH 5
#define KESDB_ERR_HOOK_PREGET 7
#define KESDB_ERR_HOOK_POSTGET 8
#define KESDB_ERR_HOOK_PRESET 9
#define KESDB_ERR_HOOK_POSTSET 10
#define KESDB_ERR_MEDIA_CONFOPEN 12
#define KESDB_ERR_MEDIA_SYMOPEN 14
#define KESDB_ERR_MEDIA_SYMCLOSE 15
#define KESDB_ERR_MEDIA_SYMREAD 16
#define KESDB_ERR_MEDIA_SYMWRITE 17
#define KESDB_ERR_MEDIA_SYMSEEK 18
#define KESDB_ERR_MEDIA_SYMSYNC 19
#define KESDB_ERR_MEDIA_LOAD 20
#define KESDB_ERR_MEDIA_INDEX 21
#define KESDB_ERR_MEDIA_OPEN 22
#define KESDB_ERR_MEDIA_WRITE 23
#define KESDB_ERR_MEDIA_READ 24
#define KESDB_ERR_MEDIA_SYNC 26
#define KESDB_ERR_HOOK_INDEX 28
#define KESDB_ERR_HOOK_CONFOPEN 30
#define KESDB_ERR_HOOK_CONFSEEK 31
#define KESDB_ERR_HOOK_LOAD 32
#define KESDB_ERR_HOOK_SYMPRESET 33
#define KESDB_ERR_HOOK_SYMPOSTSET 34
#define KESDB_ERR_HOOK_SYMPREGET 35
#define KESDB_ERR_HOOK_SYMPOSTGET 36
#define KESDB_ERR_STR_OPEN 38
#define KESDB_ERR_STR_WRITE 39
#define KESDB_ERR_STR_READ 40
#define KESDB_ERR_STR_ALLOC 41
#define KESDB_ERR_VALUE_OPEN 44
#define KESDB_ERR_VALUE_WRITE 45
#define KESDB_ERR_VALUE_READ 46
#define KESDB_ERR_VALUE_SHORTDEST 49
#define KESDB_ERR_VALUE_NOVALUE 50
#define KESDB_ERR_VALUE_NULLKEY 51
#define KESDB_ERR_COMP_OPEN 53
#define KESDB_ERR_COMP_WRITE 54
#define KESDB_ERR_COMP_READ 55
#define KESDB_ERR_CSTRT_OPEN 59
#define KESDB_ERR_CSTRT_WRITE 60
#define KESDB_ERR_CSTRT_READ 61
#define KESDB_ERR_CSTRT_ALLOC 62
#define KESDB_ERR_CSTRT_TYPE 64
#define KESDB_ERR_CSTRT_LENGTH 65
#define KESDB_ERR_CSTRT_BELOWMIN 66
#define KESDB_ERR_CSTRT_ABOVEMAX 67
#define KESDB_ERR_CSTRT_STEP 68
#define KESDB_ERR_CSTRT_CHECKTYPE 69
#define KESDB_ERR_CSTRT_UNKNOWN 70
#define KESDB_ERR_CSTRT_NOTMEMBER 71
#define KESDB_ERR_CSTRT_BUFFER 72
#define KESDB_ERR_CSTRT_NONE 73
#define KESDB_ERR_LOCK_TABLEWRITE 74
#define KESDB_ERR_LOCK_BUSY 75
#define KESDB_ERR_LOCK_NOTFOUND 76
#define KESDB_ERR_LOCK_MODE 77
#define KESDB_ERR_LOCK_FULL 78
#define KESDB_ERR_SESSION_TABLEWRITE 79
#define KESDB_ERR_SESSION_FULL 80
#define KESDB_ERR_SESSION_NOTFOUND 81
#define KESDB_ERR_DB_TABLEWRITE 82
#define KESDB_ERR_DB_NOTFOUND 83
#define KESDB_ERR_DB_FULL 84
#define KESDB_ERR_NOMEM 86
#define KESDB_ERR_MMAP 87
#define KESDB_ERR_MUNMAP 88
#define KESDB_ERR_NULLARG 89
#define KESDB_ERR_DB_MUTEX 95
#define KESDB_ERR_COMP_NOMATCH 100

/* Session table file: 16412 bytes. */
#define KESDB_SESSION_ENTRIES 1025
#define KESDB_SESSION_TABLE_SIZE 16412u

typedef struct SessionTableEntry {
    uint32_t id;
    uint32_t pid;
    uint32_t dbId;
    uint32_t next;
} SessionTableEntry;

typedef struct SessionTable {
    uint32_t freeHead;
    uint32_t freeTail;
    uint32_t usedHead;
    SessionTableEntry entry[KESDB_SESSION_ENTRIES];
} SessionTable;

KESDB_API int32_t session_init(const char *path);
KESDB_API int32_t session_term(void);
KESDB_API int32_t session_initSession(Session *session, uint32_t dbId);
KESDB_API int32_t session_termSession(Session *session);
KESDB_API int32_t session_setError(Session *session, int32_t code, uint32_t detail);
KESDB_API void session_show(uint32_t flags);

/* Name of an error code ("KESDB_ERR_..."), or "unknown" for a number not in the list. */
KESDB_API const char *kesdb_errorName(int32_t code);

#ifdef __cplusplus
}
#endif

#endif
