/**
 * @file kesdbm/value.h
 * @brief Value records, value copy and print, and the string table of component names.
 *
 * A value record lies in the value medium and names its data area, which lies in a medium
 * chosen when the value is created and is appended there, never reused. Record operations
 * record #KESDB_ERR_DB_NOTFOUND, #KESDB_ERR_MEDIA_INDEX, #KESDB_ERR_VALUE_NULLKEY,
 * #KESDB_ERR_VALUE_OPEN, #KESDB_ERR_VALUE_READ, #KESDB_ERR_VALUE_WRITE; string entries
 * #KESDB_ERR_STR_OPEN, #KESDB_ERR_STR_READ, #KESDB_ERR_STR_WRITE, #KESDB_ERR_STR_ALLOC.
 */
#ifndef KESDBM_VALUE_H
#define KESDBM_VALUE_H

#include <stdint.h>

#include "kesdbm/export.h"
#include "kesdbm/session.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Value type codes. Numbers are stored in the host's byte order, as they lie in memory. */
typedef enum ValueType {
    Generic = 0,  /**< Opaque bytes, any length. */
    String = 1,   /**< NUL-terminated text in the value's own data area. */
    Sint8 = 2,    /**< Signed 8-bit integer. */
    Sint16 = 3,   /**< Signed 16-bit integer. */
    Sint32 = 4,   /**< Signed 32-bit integer. */
    Sint64 = 5,   /**< Signed 64-bit integer. */
    Uint8 = 6,    /**< Unsigned 8-bit integer. */
    Uint16 = 7,   /**< Unsigned 16-bit integer. */
    Uint32 = 8,   /**< Unsigned 32-bit integer. */
    Uint64 = 9,   /**< Unsigned 64-bit integer. */
    Float32 = 10, /**< IEEE 754 single precision. */
    Float64 = 11  /**< IEEE 754 double precision. */
} ValueType;

/** Value record, 28 bytes in the value medium. */
typedef struct ValueRecord {
    uint32_t key;           /**< The record's own key. */
    uint32_t type;          /**< ValueType code. */
    uint32_t dataMedium;    /**< Media-table index of the medium of the data area. */
    uint32_t dataOffset;    /**< Byte offset of the data area in that medium. */
    uint32_t length;        /**< Length of the data area, fixed at creation. */
    uint32_t creatorWord;   /**< The word given at creation; not interpreted. */
    uint32_t constraintKey; /**< Constraint guarding writes; 0 for none. */
} ValueRecord;

/**
 * Start-up step (nothing to set up).
 * @return 0.
 */
KESDB_API int32_t value_init(void);
/**
 * Shut-down step (nothing to undo).
 * @return 0.
 */
KESDB_API int32_t value_term(void);
/**
 * Reads a value record.
 * @param s The session.
 * @param key Value key.
 * @param buffer Receives 28 bytes.
 * @return @p buffer, or NULL on failure (#KESDB_ERR_DB_NOTFOUND, #KESDB_ERR_MEDIA_INDEX,
 *         #KESDB_ERR_VALUE_NULLKEY, #KESDB_ERR_VALUE_OPEN, #KESDB_ERR_VALUE_READ).
 */
KESDB_API ValueRecord *value_get(Session *s, uint32_t key, ValueRecord *buffer);
/**
 * Writes a value record at its key; a full write records 0.
 * @param s The session.
 * @param record The record.
 * @return 0, or the code recorded (#KESDB_ERR_VALUE_OPEN, #KESDB_ERR_VALUE_WRITE, ...).
 */
KESDB_API int32_t value_set(Session *s, const ValueRecord *record);
/**
 * Allocates a value record in the value medium and sets its key in the buffer.
 * @param s The session.
 * @param record Receives the key.
 * @return @p record, or NULL on failure.
 */
KESDB_API ValueRecord *value_new(Session *s, ValueRecord *record);
/**
 * Gives a value record's 28 bytes back to the value medium's allocator.
 * @param s The session.
 * @param record The record.
 * @return The allocator's result (0).
 */
KESDB_API int32_t value_setDeleted(Session *s, const ValueRecord *record);
/**
 * Deletes a value record (its data area is not reclaimed).
 * @param s The session.
 * @param key Value key.
 * @return 0, or the session's code when the record cannot be read.
 */
KESDB_API int32_t value_delete(Session *s, uint32_t key);
/**
 * The length of a value's data area.
 * @param s The session.
 * @param key Value key.
 * @return The length, or -1 (0xFFFFFFFF) when the record cannot be read.
 */
KESDB_API int32_t value_getLength(Session *s, uint32_t key);
/**
 * The type of a value.
 * @param s The session.
 * @param key Value key.
 * @return The ValueType code, or -1 when the record cannot be read.
 */
KESDB_API int32_t value_getType(Session *s, uint32_t key);
/**
 * The constraint of a value.
 * @param s The session.
 * @param key Value key.
 * @return The constraint key; 0 for none or on failure.
 */
KESDB_API uint32_t value_getConstraintKey(Session *s, uint32_t key);
/**
 * Binds a constraint to a value.
 * @param s The session.
 * @param key Value key.
 * @param constraintKey The constraint key; 0 for none.
 * @return 0 once the record was read and written back, else the session's code.
 */
KESDB_API int32_t value_setConstraintKey(Session *s, uint32_t key, uint32_t constraintKey);
/**
 * Reads a value's data: the smaller of its length and *@p length bytes.
 * @param s The session.
 * @param key Value key.
 * @param buffer Receives the bytes.
 * @param length In: the buffer size; out: the driver's read result.
 * @return The driver close's result (0), #KESDB_ERR_MEDIA_OPEN, or 0 after a recorded failure
 *         (#KESDB_ERR_MEDIA_READ, the record codes).
 */
KESDB_API int32_t value_getGeneric(Session *s, uint32_t key, void *buffer, int32_t *length);
/**
 * Writes a value's data after its constraint check: the smaller of its length and
 * @p length bytes.
 * @param s The session.
 * @param key Value key.
 * @param data The bytes.
 * @param length Their number.
 * @return The driver close's result (0), a constraint code, #KESDB_ERR_MEDIA_OPEN, or 0 after a
 *         recorded failure (#KESDB_ERR_MEDIA_WRITE, the record codes).
 */
KESDB_API int32_t value_setGeneric(Session *s, uint32_t key, const void *data, int32_t length);
/**
 * Creates a value (kesDBMCreateValue()): a record in the value medium and a data area
 * appended to the data medium.
 * @param s The session.
 * @param type ValueType code (not checked).
 * @param creatorWord Stored, not interpreted.
 * @param data Initial contents; NULL for zeros.
 * @param size Length of the data area.
 * @param dataMedium Media-table index of the data area's medium.
 * @return The new key, or 0 (#KESDB_ERR_NOMEM, #KESDB_ERR_MEDIA_OPEN, #KESDB_ERR_MEDIA_WRITE, the
 *         record codes).
 */
KESDB_API uint32_t value_create(Session *s, uint32_t type, uint32_t creatorWord, const void *data, int32_t size,
                                uint32_t dataMedium);
/**
 * Reads @p count bytes from the start of a value's data area, not bounded by its length.
 * @param s The session.
 * @param key Value key.
 * @param buffer Receives @p count bytes.
 * @param count Number of bytes.
 * @return The driver close's result (0), #KESDB_ERR_MEDIA_OPEN, or 0 after a recorded failure
 *         (#KESDB_ERR_MEDIA_READ, the record codes).
 */
KESDB_API int32_t value_getCreateListGeneric(Session *s, uint32_t key, void *buffer, int32_t count);

/* Copy and print. */
/**
 * Copies one value's data into another (no hooks; the destination's constraint applies);
 * bytes of a longer destination beyond the source's length keep their contents. Only a
 * non-zero result of the source read ends the copy (with 0, the cause in the session).
 * @param s The session.
 * @param destination Value key written.
 * @param source Value key read.
 * @return 0, #KESDB_ERR_VALUE_SHORTDEST, #KESDB_ERR_NOMEM, or a code of the read or the write.
 */
KESDB_API int32_t value_copy(Session *s, uint32_t destination, uint32_t source);
/**
 * Copies one value's data into another as value_copy(), running the preSet and postSet
 * functions of a hook entry around the write.
 * @param s The session.
 * @param destination Value key written.
 * @param source Value key read.
 * @param hookIndex Hook index; 0 for none.
 * @return 0, #KESDB_ERR_VALUE_SHORTDEST, #KESDB_ERR_NOMEM, #KESDB_ERR_HOOK_PRESET,
 *         #KESDB_ERR_HOOK_POSTSET, or a code of the write.
 */
KESDB_API int32_t value_copy2(Session *s, uint32_t destination, uint32_t source, uint32_t hookIndex);
/**
 * Prints a value (type and data by its type) on standard output; "no value" for key 0.
 * @param s The session.
 * @param key Value key, or 0.
 */
KESDB_API void value_print(Session *s, uint32_t key);

/** String-table entry, 16 bytes in the string medium; the text is appended to a text medium. */
typedef struct StringEntry {
    uint32_t key;        /**< The entry's own key. */
    uint32_t textMedium; /**< Media-table index of the text's medium. */
    uint32_t textOffset; /**< Byte offset of the text. */
    uint32_t textLength; /**< Length of the text, its NUL included. */
} StringEntry;

/**
 * Reads a string-table entry.
 * @param s The session.
 * @param key String key.
 * @param buffer Receives 16 bytes.
 * @return @p buffer, or NULL on failure (#KESDB_ERR_DB_NOTFOUND, #KESDB_ERR_MEDIA_INDEX,
 *         #KESDB_ERR_STR_OPEN, #KESDB_ERR_STR_READ).
 */
KESDB_API StringEntry *kesdb_getStrEntry(Session *s, uint32_t key, StringEntry *buffer);
/**
 * Reads the text of a string-table entry (a component name).
 * @param s The session.
 * @param key String key.
 * @param buffer Receives the text, NUL-terminated.
 * @param size Size of @p buffer.
 * @return @p buffer, or NULL on failure (the entry codes, #KESDB_ERR_MEDIA_OPEN,
 *         #KESDB_ERR_MEDIA_READ).
 */
KESDB_API char *kesdb_getString(Session *s, uint32_t key, char *buffer, int32_t size);
/**
 * Writes a string-table entry at its key; a full write records 0.
 * @param s The session.
 * @param entry The entry.
 * @return 0, or the code recorded (#KESDB_ERR_STR_OPEN, #KESDB_ERR_STR_WRITE).
 */
KESDB_API int32_t str_setEntry(Session *s, const StringEntry *entry);
/**
 * Allocates a string-table entry in the string medium and sets its key in the buffer.
 * @param s The session.
 * @param buffer Receives the key.
 * @return @p buffer, or NULL on failure (#KESDB_ERR_STR_ALLOC, ...).
 */
KESDB_API StringEntry *str_newEntry(Session *s, StringEntry *buffer);
/**
 * Creates a string (kesDBMCreateString()): an entry in the string medium and the text
 * appended to the text medium.
 * @param s The session.
 * @param text NUL-terminated text.
 * @param medium Media-table index of the text's medium.
 * @return The string key, or 0.
 */
KESDB_API uint32_t str_create(Session *s, const char *text, uint32_t medium);
/**
 * Gives a string entry's 16 bytes back to the string medium's allocator.
 * @param s The session.
 * @param entry The entry.
 * @return The allocator's result (0).
 */
KESDB_API int32_t str_setDeleted(Session *s, const StringEntry *entry);
/**
 * Deletes a string-table entry (its text is not reclaimed).
 * @param s The session.
 * @param key String key.
 * @return 0, or the session's code when the entry cannot be read.
 */
KESDB_API int32_t str_delete(Session *s, uint32_t key);

#ifdef __cplusplus
}
#endif

#endif
