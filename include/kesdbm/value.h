/* Value records, value copy and print, and the string table. */
#ifndef KESDBM_VALUE_H
#define KESDBM_VALUE_H

#include <stdint.h>

#include "kesdbm/export.h"
#include "kesdbm/session.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef enum ValueType {
    Generic = 0,
    String = 1,
    Sint8 = 2,
    Sint16 = 3,
    Sint32 = 4,
    Sint64 = 5,
    Uint8 = 6,
    Uint16 = 7,
    Uint32 = 8,
    Uint64 = 9,
    Float32 = 10,
    Float64 = 11
} ValueType;

/* Value record, 28 bytes in the value medium. */
typedef struct ValueRecord {
    uint32_t key;
    uint32_t type;
    uint32_t dataMedium;
    uint32_t dataOffset;
    uint32_t length;
    uint32_t creatorWord;
    uint32_t constraintKey;
} ValueRecord;

KESDB_API int32_t value_init(void);
KESDB_API int32_t value_term(void);
KESDB_API ValueRecord *value_get(Session *s, uint32_t key, ValueRecord *buffer);
KESDB_API int32_t value_set(Session *s, const ValueRecord *record);
KESDB_API ValueRecord *value_new(Session *s, ValueRecord *record);
KESDB_API int32_t value_setDeleted(Session *s, const ValueRecord *record);
KESDB_API int32_t value_delete(Session *s, uint32_t key);
KESDB_API int32_t value_getLength(Session *s, uint32_t key);
KESDB_API int32_t value_getType(Session *s, uint32_t key);
KESDB_API uint32_t value_getConstraintKey(Session *s, uint32_t key);
KESDB_API int32_t value_setConstraintKey(Session *s, uint32_t key, uint32_t constraintKey);
KESDB_API int32_t value_getGeneric(Session *s, uint32_t key, void *buffer, int32_t *length);
KESDB_API int32_t value_setGeneric(Session *s, uint32_t key, const void *data, int32_t length);
KESDB_API uint32_t value_create(Session *s, uint32_t type, uint32_t creatorWord, const void *data, int32_t size,
                                uint32_t dataMedium);
KESDB_API int32_t value_getCreateListGeneric(Session *s, uint32_t key, void *buffer, int32_t count);

/* Copy and print. */
KESDB_API int32_t value_copy(Session *s, uint32_t destination, uint32_t source);
KESDB_API int32_t value_copy2(Session *s, uint32_t destination, uint32_t source, uint32_t hookIndex);
KESDB_API void value_print(Session *s, uint32_t key);

/* String table: entries of 16 bytes in the string medium, text appended to a text medium. */
typedef struct StringEntry {
    uint32_t key;
    uint32_t textMedium;
    uint32_t textOffset;
    uint32_t textLength;
} StringEntry;

KESDB_API StringEntry *kesdb_getStrEntry(Session *s, uint32_t key, StringEntry *buffer);
KESDB_API char *kesdb_getString(Session *s, uint32_t key, char *buffer, int32_t size);
KESDB_API int32_t str_setEntry(Session *s, const StringEntry *entry);
KESDB_API StringEntry *str_newEntry(Session *s, StringEntry *buffer);
KESDB_API uint32_t str_create(Session *s, const char *text, uint32_t medium);
KESDB_API int32_t str_setDeleted(Session *s, const StringEntry *entry);
KESDB_API int32_t str_delete(Session *s, uint32_t key);

#ifdef __cplusplus
}
#endif

#endif
