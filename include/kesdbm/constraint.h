/* Constraints: header records, range and enumeration families, the check on writes. */
#ifndef KESDBM_CONSTRAINT_H
#define KESDBM_CONSTRAINT_H

#include <stdint.h>

#include "kesdbm/export.h"
#include "kesdbm/session.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Type codes: a range carries the value type code (2..11), an enumeration that code x 256. */
#define KESDB_CSTRT_ENUM_FACTOR 256u

/* Constraint header: the first 8 bytes of every constraint record. */
typedef struct ConstraintHeader {
    uint32_t key;
    uint32_t type;
} ConstraintHeader;

/* Range records: header, then min, max and step in the element width, then reserved bytes
 * (one for 1-byte elements, two for 2-byte elements). Sizes 12, 16, 20, 32. */
#define KESDB_RANGE_RECORD(Suffix, T, reservedBytes) \
    typedef struct RangeRecord##Suffix {              \
        uint32_t key;                                 \
        uint32_t type;                                \
        T min;                                        \
        T max;                                        \
        T step;                                       \
        uint8_t reserved[reservedBytes];              \
    } RangeRecord##Suffix;

/* Records of 4- and 8-byte elements have no reserved bytes. */
#define KESDB_RANGE_RECORD_NR(Suffix, T) \
    typedef struct RangeRecord##Suffix {  \
        uint32_t key;                     \
        uint32_t type;                    \
        T min;                            \
        T max;                            \
        T step;                           \
    } RangeRecord##Suffix;

KESDB_RANGE_RECORD(S8, int8_t, 1)
KESDB_RANGE_RECORD(S16, int16_t, 2)
KESDB_RANGE_RECORD_NR(S32, int32_t)
KESDB_RANGE_RECORD_NR(S64, int64_t)
KESDB_RANGE_RECORD(U8, uint8_t, 1)
KESDB_RANGE_RECORD(U16, uint16_t, 2)
KESDB_RANGE_RECORD_NR(U32, uint32_t)
KESDB_RANGE_RECORD_NR(U64, uint64_t)
KESDB_RANGE_RECORD_NR(F32, float)
KESDB_RANGE_RECORD_NR(F64, double)

/* Enumeration record, 20 bytes. */
typedef struct EnumRecord {
    uint32_t key;
    uint32_t type;
    uint32_t arrayKey;
    uint32_t elementSize;
    uint32_t count;
} EnumRecord;

KESDB_API int32_t constraint_init(void);
KESDB_API int32_t constraint_term(void);
KESDB_API ConstraintHeader *constraint_get(Session *s, uint32_t key, ConstraintHeader *buffer);
KESDB_API int32_t constraint_set(Session *s, const ConstraintHeader *header);
KESDB_API ConstraintHeader *constraint_new(Session *s, ConstraintHeader *buffer);
KESDB_API uint32_t constraint_getType(Session *s, uint32_t key);
KESDB_API int32_t constraint_getLength(Session *s, uint32_t key);
KESDB_API int32_t constraint_getData(Session *s, uint32_t key, void *buffer, uint32_t size);
KESDB_API int32_t constraint_setData(Session *s, uint32_t key, const void *data, uint32_t length);
KESDB_API uint32_t constraint_newEnumArray(Session *s, uint32_t size, uint32_t count);
KESDB_API void *constraint_getEnumArray(Session *s, uint32_t arrayKey, uint32_t size, uint32_t count);
KESDB_API int32_t constraint_setEnumArray(Session *s, uint32_t arrayKey, uint32_t size, uint32_t count,
                                          const void *data);
KESDB_API int32_t constraint_check(Session *s, uint32_t constraintKey, uint32_t valueType, const void *data,
                                   int32_t length);

/* One family member per numeric type: record transfers, data exchange and the check. */
#define KESDB_RANGE_API(Suffix)                                                                           \
    KESDB_API RangeRecord##Suffix *range##Suffix##_get(Session *s, uint32_t key, RangeRecord##Suffix *buffer); \
    KESDB_API int32_t range##Suffix##_set(Session *s, const RangeRecord##Suffix *record);                 \
    KESDB_API RangeRecord##Suffix *range##Suffix##_new(Session *s, RangeRecord##Suffix *record);          \
    KESDB_API int32_t range##Suffix##_getData(Session *s, uint32_t key, void *buffer, uint32_t size);     \
    KESDB_API int32_t range##Suffix##_setData(Session *s, uint32_t key, const void *data, uint32_t length); \
    KESDB_API int32_t checkRange##Suffix(Session *s, uint32_t key, uint32_t valueType, const void *data,  \
                                         int32_t length);                                                 \
    KESDB_API int32_t checkEnum##Suffix(Session *s, uint32_t key, uint32_t valueType, const void *data,   \
                                        int32_t length);

KESDB_RANGE_API(S8)
KESDB_RANGE_API(S16)
KESDB_RANGE_API(S32)
KESDB_RANGE_API(S64)
KESDB_RANGE_API(U8)
KESDB_RANGE_API(U16)
KESDB_RANGE_API(U32)
KESDB_RANGE_API(U64)
KESDB_RANGE_API(F32)
KESDB_RANGE_API(F64)

KESDB_API EnumRecord *enum_get(Session *s, uint32_t key, EnumRecord *buffer);
KESDB_API int32_t enum_set(Session *s, const EnumRecord *record);
KESDB_API EnumRecord *enum_new(Session *s, EnumRecord *record);
KESDB_API int32_t enum_setData(Session *s, uint32_t key, uint32_t size, uint32_t count, const void *data);

#ifdef __cplusplus
}
#endif

#endif
