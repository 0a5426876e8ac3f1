/**
 * @file kesdbm/constraint.h
 * @brief Constraints: header records, the range and enumeration families, the write check.
 *
 * A value may be bound by one constraint (ValueRecord::constraintKey): a range (min, max,
 * step) or an enumeration (the allowed members). Writes of the value are checked with
 * constraint_check(). Records lie in the constraint medium; the library reads and changes
 * them, and a program that prepares a database creates them with the *_new operations and
 * attaches them with kesDBMSetConstraintKey(). Nothing releases constraint records.
 *
 * Codes of every record access: #KESDB_ERR_DB_NOTFOUND, #KESDB_ERR_MEDIA_INDEX,
 * #KESDB_ERR_CSTRT_OPEN, #KESDB_ERR_CSTRT_READ, #KESDB_ERR_CSTRT_WRITE (detail: the driver's
 * error word), #KESDB_ERR_CSTRT_ALLOC (no space; errno).
 */
#ifndef KESDBM_CONSTRAINT_H
#define KESDBM_CONSTRAINT_H

#include <stdint.h>

#include "kesdbm/export.h"
#include "kesdbm/session.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Type codes: a range carries the guarded value type's code (2..11), an enumeration that
 *  code times this factor (512..2816). */
#define KESDB_CSTRT_ENUM_FACTOR 256u

/** Constraint header: the first 8 bytes of every constraint record. */
typedef struct ConstraintHeader {
    uint32_t key;  /**< The record's own key in the constraint medium. */
    uint32_t type; /**< Constraint type code (see #KESDB_CSTRT_ENUM_FACTOR). */
} ConstraintHeader;

/** Range record for Sint8 values, 12 bytes. */
typedef struct RangeRecordS8 {
    uint32_t key;  /**< The record's own key. */
    uint32_t type; /**< Range code: 2 (Sint8). */
    int8_t min;  /**< Lowest allowed value (inclusive). */
    int8_t max;  /**< Highest allowed value (inclusive). */
    int8_t step; /**< Step from min; 0: no step test. */
    uint8_t reserved[1]; /**< Stored as given, never interpreted. */
} RangeRecordS8;

/** Range record for Sint16 values, 16 bytes. */
typedef struct RangeRecordS16 {
    uint32_t key;  /**< The record's own key. */
    uint32_t type; /**< Range code: 3 (Sint16). */
    int16_t min;  /**< Lowest allowed value (inclusive). */
    int16_t max;  /**< Highest allowed value (inclusive). */
    int16_t step; /**< Step from min; 0: no step test. */
    uint8_t reserved[2]; /**< Stored as given, never interpreted. */
} RangeRecordS16;

/** Range record for Sint32 values, 20 bytes. */
typedef struct RangeRecordS32 {
    uint32_t key;  /**< The record's own key. */
    uint32_t type; /**< Range code: 4 (Sint32). */
    int32_t min;  /**< Lowest allowed value (inclusive). */
    int32_t max;  /**< Highest allowed value (inclusive). */
    int32_t step; /**< Step from min; 0: no step test. */
} RangeRecordS32;

/** Range record for Sint64 values, 32 bytes. */
typedef struct RangeRecordS64 {
    uint32_t key;  /**< The record's own key. */
    uint32_t type; /**< Range code: 5 (Sint64). */
    int64_t min;  /**< Lowest allowed value (inclusive). */
    int64_t max;  /**< Highest allowed value (inclusive). */
    int64_t step; /**< Step from min; 0: no step test. */
} RangeRecordS64;

/** Range record for Uint8 values, 12 bytes. */
typedef struct RangeRecordU8 {
    uint32_t key;  /**< The record's own key. */
    uint32_t type; /**< Range code: 6 (Uint8). */
    uint8_t min;  /**< Lowest allowed value (inclusive). */
    uint8_t max;  /**< Highest allowed value (inclusive). */
    uint8_t step; /**< Step from min; 0: no step test. */
    uint8_t reserved[1]; /**< Stored as given, never interpreted. */
} RangeRecordU8;

/** Range record for Uint16 values, 16 bytes. */
typedef struct RangeRecordU16 {
    uint32_t key;  /**< The record's own key. */
    uint32_t type; /**< Range code: 7 (Uint16). */
    uint16_t min;  /**< Lowest allowed value (inclusive). */
    uint16_t max;  /**< Highest allowed value (inclusive). */
    uint16_t step; /**< Step from min; 0: no step test. */
    uint8_t reserved[2]; /**< Stored as given, never interpreted. */
} RangeRecordU16;

/** Range record for Uint32 values, 20 bytes. */
typedef struct RangeRecordU32 {
    uint32_t key;  /**< The record's own key. */
    uint32_t type; /**< Range code: 8 (Uint32). */
    uint32_t min;  /**< Lowest allowed value (inclusive). */
    uint32_t max;  /**< Highest allowed value (inclusive). */
    uint32_t step; /**< Step from min; 0: no step test. */
} RangeRecordU32;

/** Range record for Uint64 values, 32 bytes. */
typedef struct RangeRecordU64 {
    uint32_t key;  /**< The record's own key. */
    uint32_t type; /**< Range code: 9 (Uint64). */
    uint64_t min;  /**< Lowest allowed value (inclusive). */
    uint64_t max;  /**< Highest allowed value (inclusive). */
    uint64_t step; /**< Step from min; 0: no step test. */
} RangeRecordU64;

/** Range record for Float32 values, 20 bytes. */
typedef struct RangeRecordF32 {
    uint32_t key;  /**< The record's own key. */
    uint32_t type; /**< Range code: 10 (Float32). */
    float min;  /**< Lowest allowed value (inclusive). */
    float max;  /**< Highest allowed value (inclusive). */
    float step; /**< Step from min; 0: no step test (stored, not applied to floating-point values). */
} RangeRecordF32;

/** Range record for Float64 values, 32 bytes. */
typedef struct RangeRecordF64 {
    uint32_t key;  /**< The record's own key. */
    uint32_t type; /**< Range code: 11 (Float64). */
    double min;  /**< Lowest allowed value (inclusive). */
    double max;  /**< Highest allowed value (inclusive). */
    double step; /**< Step from min; 0: no step test (stored, not applied to floating-point values). */
} RangeRecordF64;

/** Enumeration record, 20 bytes: the members lie in an array of their own. */
typedef struct EnumRecord {
    uint32_t key;         /**< The record's own key. */
    uint32_t type;        /**< Enumeration code: value type code times #KESDB_CSTRT_ENUM_FACTOR. */
    uint32_t arrayKey;    /**< Key of the member array (constraint_newEnumArray()). */
    uint32_t elementSize; /**< Member size in bytes (1, 2, 4 or 8). */
    uint32_t count;       /**< Number of members. */
} EnumRecord;

/** Start-up step (nothing to set up). @return 0. */
KESDB_API int32_t constraint_init(void);
/** Shut-down step (nothing to undo). @return 0. */
KESDB_API int32_t constraint_term(void);
/**
 * Reads a constraint header.
 * @param s The session.
 * @param key Constraint key.
 * @param buffer Receives the header.
 * @return @p buffer, or NULL on failure (codes of the record accesses).
 */
KESDB_API ConstraintHeader *constraint_get(Session *s, uint32_t key, ConstraintHeader *buffer);
/**
 * Writes a constraint header at its key; a full write records 0.
 * @param s The session.
 * @param header The header; its key gives the position.
 * @return The driver close's result (0), or #KESDB_ERR_DB_NOTFOUND; failed writes are recorded.
 */
KESDB_API int32_t constraint_set(Session *s, const ConstraintHeader *header);
/**
 * Allocates an 8-byte block in the constraint medium; writes nothing into it.
 * @param s The session.
 * @param buffer Receives the new key.
 * @return @p buffer, or NULL on failure (#KESDB_ERR_CSTRT_ALLOC and the access codes).
 */
KESDB_API ConstraintHeader *constraint_new(Session *s, ConstraintHeader *buffer);
/**
 * The type code of a constraint.
 * @param s The session.
 * @param key Constraint key.
 * @return The code, or 0 on failure.
 */
KESDB_API uint32_t constraint_getType(Session *s, uint32_t key);
/**
 * The length of a constraint's data: 3 × width for a range, size × count for an enumeration.
 * @param s The session.
 * @param key Constraint key.
 * @return The length, or 0 on failure (#KESDB_ERR_CSTRT_UNKNOWN for another type code).
 */
KESDB_API int32_t constraint_getLength(Session *s, uint32_t key);
/**
 * Reads a constraint's data: min, max, step of a range, or the members of an enumeration.
 * @param s The session.
 * @param key Constraint key.
 * @param buffer Receives the data.
 * @param size Size of @p buffer.
 * @return 0, #KESDB_ERR_CSTRT_BUFFER (buffer too small; nothing written), or the access codes;
 *         0 also after #KESDB_ERR_CSTRT_UNKNOWN was recorded.
 */
KESDB_API int32_t constraint_getData(Session *s, uint32_t key, void *buffer, uint32_t size);
/**
 * Replaces a constraint's data: a range needs exactly 3 × width bytes; an enumeration
 * overwrites its array in place with length / member size members.
 * @param s The session.
 * @param key Constraint key.
 * @param data The new data.
 * @param length Its length.
 * @return 0, #KESDB_ERR_CSTRT_LENGTH, or the access codes; 0 also after
 *         #KESDB_ERR_CSTRT_UNKNOWN was recorded.
 */
KESDB_API int32_t constraint_setData(Session *s, uint32_t key, const void *data, uint32_t length);
/**
 * Allocates and zero-fills an enumeration member array in the constraint medium.
 * @param s The session.
 * @param size Member size in bytes.
 * @param count Number of members.
 * @return The array key, or 0xFFFFFFFF on failure (#KESDB_ERR_CSTRT_ALLOC, #KESDB_ERR_NOMEM,
 *         the access codes).
 */
KESDB_API uint32_t constraint_newEnumArray(Session *s, uint32_t size, uint32_t count);
/**
 * Reads an enumeration member array into new memory.
 * @param s The session.
 * @param arrayKey Key of the array.
 * @param size Member size in bytes.
 * @param count Number of members.
 * @return A copy of size × count bytes that the caller frees with free(), or NULL on failure
 *         (#KESDB_ERR_NOMEM, the access codes).
 */
KESDB_API void *constraint_getEnumArray(Session *s, uint32_t arrayKey, uint32_t size, uint32_t count);
/**
 * Overwrites an enumeration member array.
 * @param s The session.
 * @param arrayKey Key of the array.
 * @param size Member size in bytes.
 * @param count Number of members.
 * @param data size × count bytes.
 * @return 0, or the code recorded (#KESDB_ERR_CSTRT_READ when the write falls short).
 */
KESDB_API int32_t constraint_setEnumArray(Session *s, uint32_t arrayKey, uint32_t size, uint32_t count,
                                          const void *data);
/**
 * The check run before every write of a constrained value: dispatches on the constraint's
 * type code to the range or enumeration check of its value type.
 * @param s The session.
 * @param constraintKey Key of the value's constraint.
 * @param valueType Type code of the value written.
 * @param data The data written.
 * @param length Its length.
 * @return 0 when the value passes; else the code recorded: #KESDB_ERR_CSTRT_TYPE,
 *         #KESDB_ERR_CSTRT_LENGTH, #KESDB_ERR_CSTRT_BELOWMIN, #KESDB_ERR_CSTRT_ABOVEMAX,
 *         #KESDB_ERR_CSTRT_STEP, #KESDB_ERR_CSTRT_NOTMEMBER, #KESDB_ERR_CSTRT_CHECKTYPE, or an
 *         access code.
 */
KESDB_API int32_t constraint_check(Session *s, uint32_t constraintKey, uint32_t valueType, const void *data,
                                   int32_t length);

/** @name range*_get
 *  @{ */
/**
 * Reads a range record (one per numeric type: S8, S16, S32, S64, U8, U16, U32, U64, F32, F64).
 * @param s The session.
 * @param key Constraint key.
 * @param buffer Receives the record.
 * @return @p buffer, or NULL on failure (the access codes).
 */
KESDB_API RangeRecordS8 *rangeS8_get(Session *s, uint32_t key, RangeRecordS8 *buffer);
KESDB_API RangeRecordS16 *rangeS16_get(Session *s, uint32_t key, RangeRecordS16 *buffer);
KESDB_API RangeRecordS32 *rangeS32_get(Session *s, uint32_t key, RangeRecordS32 *buffer);
KESDB_API RangeRecordS64 *rangeS64_get(Session *s, uint32_t key, RangeRecordS64 *buffer);
KESDB_API RangeRecordU8 *rangeU8_get(Session *s, uint32_t key, RangeRecordU8 *buffer);
KESDB_API RangeRecordU16 *rangeU16_get(Session *s, uint32_t key, RangeRecordU16 *buffer);
KESDB_API RangeRecordU32 *rangeU32_get(Session *s, uint32_t key, RangeRecordU32 *buffer);
KESDB_API RangeRecordU64 *rangeU64_get(Session *s, uint32_t key, RangeRecordU64 *buffer);
KESDB_API RangeRecordF32 *rangeF32_get(Session *s, uint32_t key, RangeRecordF32 *buffer);
KESDB_API RangeRecordF64 *rangeF64_get(Session *s, uint32_t key, RangeRecordF64 *buffer);
/** @} */

/** @name range*_set
 *  @{ */
/**
 * Writes a range record at its key; a full write records 0.
 * @param s The session.
 * @param record The record; its key gives the position.
 * @return The driver close's result (0), or #KESDB_ERR_DB_NOTFOUND / #KESDB_ERR_CSTRT_OPEN;
 *         a short write is recorded (#KESDB_ERR_CSTRT_WRITE).
 */
KESDB_API int32_t rangeS8_set(Session *s, const RangeRecordS8 *record);
KESDB_API int32_t rangeS16_set(Session *s, const RangeRecordS16 *record);
KESDB_API int32_t rangeS32_set(Session *s, const RangeRecordS32 *record);
KESDB_API int32_t rangeS64_set(Session *s, const RangeRecordS64 *record);
KESDB_API int32_t rangeU8_set(Session *s, const RangeRecordU8 *record);
KESDB_API int32_t rangeU16_set(Session *s, const RangeRecordU16 *record);
KESDB_API int32_t rangeU32_set(Session *s, const RangeRecordU32 *record);
KESDB_API int32_t rangeU64_set(Session *s, const RangeRecordU64 *record);
KESDB_API int32_t rangeF32_set(Session *s, const RangeRecordF32 *record);
KESDB_API int32_t rangeF64_set(Session *s, const RangeRecordF64 *record);
/** @} */

/** @name range*_new
 *  @{ */
/**
 * Creates a range record: allocates it in the constraint medium, sets its key and writes it.
 * @param s The session.
 * @param record Filled with type, min, max and step; receives the key.
 * @return @p record, or NULL on failure (#KESDB_ERR_CSTRT_ALLOC, the access codes).
 */
KESDB_API RangeRecordS8 *rangeS8_new(Session *s, RangeRecordS8 *record);
KESDB_API RangeRecordS16 *rangeS16_new(Session *s, RangeRecordS16 *record);
KESDB_API RangeRecordS32 *rangeS32_new(Session *s, RangeRecordS32 *record);
KESDB_API RangeRecordS64 *rangeS64_new(Session *s, RangeRecordS64 *record);
KESDB_API RangeRecordU8 *rangeU8_new(Session *s, RangeRecordU8 *record);
KESDB_API RangeRecordU16 *rangeU16_new(Session *s, RangeRecordU16 *record);
KESDB_API RangeRecordU32 *rangeU32_new(Session *s, RangeRecordU32 *record);
KESDB_API RangeRecordU64 *rangeU64_new(Session *s, RangeRecordU64 *record);
KESDB_API RangeRecordF32 *rangeF32_new(Session *s, RangeRecordF32 *record);
KESDB_API RangeRecordF64 *rangeF64_new(Session *s, RangeRecordF64 *record);
/** @} */

/** @name range*_getData
 *  @{ */
/**
 * Reads min, max and step of a range, packed in the element width (3, 6, 12 or 24 bytes).
 * @param s The session.
 * @param key Constraint key.
 * @param buffer Receives the data.
 * @param size Size of @p buffer, at least 3 × width.
 * @return 0, #KESDB_ERR_CSTRT_BUFFER, or the session's code after a failed read.
 */
KESDB_API int32_t rangeS8_getData(Session *s, uint32_t key, void *buffer, uint32_t size);
KESDB_API int32_t rangeS16_getData(Session *s, uint32_t key, void *buffer, uint32_t size);
KESDB_API int32_t rangeS32_getData(Session *s, uint32_t key, void *buffer, uint32_t size);
KESDB_API int32_t rangeS64_getData(Session *s, uint32_t key, void *buffer, uint32_t size);
KESDB_API int32_t rangeU8_getData(Session *s, uint32_t key, void *buffer, uint32_t size);
KESDB_API int32_t rangeU16_getData(Session *s, uint32_t key, void *buffer, uint32_t size);
KESDB_API int32_t rangeU32_getData(Session *s, uint32_t key, void *buffer, uint32_t size);
KESDB_API int32_t rangeU64_getData(Session *s, uint32_t key, void *buffer, uint32_t size);
KESDB_API int32_t rangeF32_getData(Session *s, uint32_t key, void *buffer, uint32_t size);
KESDB_API int32_t rangeF64_getData(Session *s, uint32_t key, void *buffer, uint32_t size);
/** @} */

/** @name range*_setData
 *  @{ */
/**
 * Replaces min, max and step of a range.
 * @param s The session.
 * @param key Constraint key.
 * @param data min, max, step packed in the element width.
 * @param length Exactly 3 × width.
 * @return 0, #KESDB_ERR_CSTRT_LENGTH, or the session's code after a failed read.
 */
KESDB_API int32_t rangeS8_setData(Session *s, uint32_t key, const void *data, uint32_t length);
KESDB_API int32_t rangeS16_setData(Session *s, uint32_t key, const void *data, uint32_t length);
KESDB_API int32_t rangeS32_setData(Session *s, uint32_t key, const void *data, uint32_t length);
KESDB_API int32_t rangeS64_setData(Session *s, uint32_t key, const void *data, uint32_t length);
KESDB_API int32_t rangeU8_setData(Session *s, uint32_t key, const void *data, uint32_t length);
KESDB_API int32_t rangeU16_setData(Session *s, uint32_t key, const void *data, uint32_t length);
KESDB_API int32_t rangeU32_setData(Session *s, uint32_t key, const void *data, uint32_t length);
KESDB_API int32_t rangeU64_setData(Session *s, uint32_t key, const void *data, uint32_t length);
KESDB_API int32_t rangeF32_setData(Session *s, uint32_t key, const void *data, uint32_t length);
KESDB_API int32_t rangeF64_setData(Session *s, uint32_t key, const void *data, uint32_t length);
/** @} */

/** @name checkRange*
 *  @{ */
/**
 * Checks a value against a range (bounds inclusive; the step counts from min).
 * @param s The session.
 * @param key Constraint key.
 * @param valueType Type code of the value; it must be the member's type.
 * @param data The value.
 * @param length Its length; it must be the element width.
 * @return 0 when it passes; else the code recorded: #KESDB_ERR_CSTRT_TYPE,
 *         #KESDB_ERR_CSTRT_LENGTH, #KESDB_ERR_CSTRT_BELOWMIN (also a NaN), #KESDB_ERR_CSTRT_ABOVEMAX,
 *         #KESDB_ERR_CSTRT_STEP, or a read code.
 */
KESDB_API int32_t checkRangeS8(Session *s, uint32_t key, uint32_t valueType, const void *data, int32_t length);
KESDB_API int32_t checkRangeS16(Session *s, uint32_t key, uint32_t valueType, const void *data, int32_t length);
KESDB_API int32_t checkRangeS32(Session *s, uint32_t key, uint32_t valueType, const void *data, int32_t length);
KESDB_API int32_t checkRangeS64(Session *s, uint32_t key, uint32_t valueType, const void *data, int32_t length);
KESDB_API int32_t checkRangeU8(Session *s, uint32_t key, uint32_t valueType, const void *data, int32_t length);
KESDB_API int32_t checkRangeU16(Session *s, uint32_t key, uint32_t valueType, const void *data, int32_t length);
KESDB_API int32_t checkRangeU32(Session *s, uint32_t key, uint32_t valueType, const void *data, int32_t length);
KESDB_API int32_t checkRangeU64(Session *s, uint32_t key, uint32_t valueType, const void *data, int32_t length);
KESDB_API int32_t checkRangeF32(Session *s, uint32_t key, uint32_t valueType, const void *data, int32_t length);
KESDB_API int32_t checkRangeF64(Session *s, uint32_t key, uint32_t valueType, const void *data, int32_t length);
/** @} */

/** @name checkEnum*
 *  @{ */
/**
 * Checks a value against an enumeration: it must equal one of the members.
 * @param s The session.
 * @param key Constraint key.
 * @param valueType Type code of the value; it must be the member's type.
 * @param data The value.
 * @param length Its length; it must be the member size.
 * @return 0 when it is a member; else the code recorded: #KESDB_ERR_CSTRT_TYPE,
 *         #KESDB_ERR_CSTRT_LENGTH, #KESDB_ERR_CSTRT_NOTMEMBER, #KESDB_ERR_NOMEM, or a read code.
 */
KESDB_API int32_t checkEnumS8(Session *s, uint32_t key, uint32_t valueType, const void *data, int32_t length);
KESDB_API int32_t checkEnumS16(Session *s, uint32_t key, uint32_t valueType, const void *data, int32_t length);
KESDB_API int32_t checkEnumS32(Session *s, uint32_t key, uint32_t valueType, const void *data, int32_t length);
KESDB_API int32_t checkEnumS64(Session *s, uint32_t key, uint32_t valueType, const void *data, int32_t length);
KESDB_API int32_t checkEnumU8(Session *s, uint32_t key, uint32_t valueType, const void *data, int32_t length);
KESDB_API int32_t checkEnumU16(Session *s, uint32_t key, uint32_t valueType, const void *data, int32_t length);
KESDB_API int32_t checkEnumU32(Session *s, uint32_t key, uint32_t valueType, const void *data, int32_t length);
KESDB_API int32_t checkEnumU64(Session *s, uint32_t key, uint32_t valueType, const void *data, int32_t length);
KESDB_API int32_t checkEnumF32(Session *s, uint32_t key, uint32_t valueType, const void *data, int32_t length);
KESDB_API int32_t checkEnumF64(Session *s, uint32_t key, uint32_t valueType, const void *data, int32_t length);
/** @} */

/**
 * Reads an enumeration record.
 * @param s The session.
 * @param key Constraint key.
 * @param buffer Receives the record.
 * @return @p buffer, or NULL on failure (the access codes).
 */
KESDB_API EnumRecord *enum_get(Session *s, uint32_t key, EnumRecord *buffer);
/**
 * Writes an enumeration record at its key; a full write records 0.
 * @param s The session.
 * @param record The record; its key gives the position.
 * @return The driver close's result (0), or an access code.
 */
KESDB_API int32_t enum_set(Session *s, const EnumRecord *record);
/**
 * Creates an enumeration record: allocates it, sets its key and writes it.
 * @param s The session.
 * @param record Filled with type, arrayKey, elementSize and count; receives the key.
 * @return @p record, or NULL on failure (#KESDB_ERR_CSTRT_ALLOC, the access codes).
 */
KESDB_API EnumRecord *enum_new(Session *s, EnumRecord *record);
/**
 * Writes the members of an enumeration into its array in place.
 * @param s The session.
 * @param key Constraint key of the enumeration record.
 * @param size Member size in bytes.
 * @param count Number of members.
 * @param data size × count bytes.
 * @return The result of constraint_setEnumArray(); 0 when the record cannot be read (its
 *         code stays in the session). The record's count is not rewritten.
 */
KESDB_API int32_t enum_setData(Session *s, uint32_t key, uint32_t size, uint32_t count, const void *data);

#ifdef __cplusplus
}
#endif

#endif
