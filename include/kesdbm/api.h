/* The public kesDBM* interface: start-up, value access, tree and structure calls. */
#ifndef KESDBM_API_H
#define KESDBM_API_H

#include <stdint.h>

#include "kesdbm/export.h"
#include "kesdbm/session.h"

#ifdef __cplusplus
extern "C" {
#endif

#define KESDB_PATH_MAX 4096

/* Start-up parameter block, 16404 bytes, copied byte for byte into the database table. */
typedef struct DBMInitParam {
    char sessionTablePath[KESDB_PATH_MAX];
    char lockTablePath[KESDB_PATH_MAX];
    char mediaConfigPath[KESDB_PATH_MAX];
    char hookConfigPath[KESDB_PATH_MAX];
    uint32_t componentMedium;
    uint32_t valueMedium;
    uint32_t constraintMedium;
    uint32_t stringMedium;
    uint32_t reserved;
} DBMInitParam;

/* Start-up and shut-down. */
KESDB_API int32_t kesDBMInit(const DBMInitParam *param, int32_t *errorWord);
KESDB_API int32_t kesDBMTerm(uint32_t dbId);

/* Value access. */
KESDB_API int32_t kesDBMGetGeneric(Session *s, uint32_t key, void *buffer, int32_t *length);
KESDB_API int32_t kesDBMGetDefaultGeneric(Session *s, uint32_t key, void *buffer, int32_t *length);
KESDB_API int32_t kesDBMGetFactoryGeneric(Session *s, uint32_t key, void *buffer, int32_t *length);
KESDB_API int32_t kesDBMGetCreateListGeneric(Session *s, uint32_t key, void *buffer, int32_t count);
KESDB_API int32_t kesDBMSetGeneric(Session *s, uint32_t key, const void *data, int32_t length);
KESDB_API int32_t kesDBMSetDefaultGeneric(Session *s, uint32_t key, const void *data, int32_t length);

KESDB_API int32_t kesDBMGetFloat64(Session *s, uint32_t key, double *value);
KESDB_API int32_t kesDBMGetFloat32(Session *s, uint32_t key, float *value);
KESDB_API int32_t kesDBMGetUint64(Session *s, uint32_t key, uint64_t *value);
KESDB_API int32_t kesDBMGetUint32(Session *s, uint32_t key, uint32_t *value);
KESDB_API int32_t kesDBMGetUint16(Session *s, uint32_t key, uint16_t *value);
KESDB_API int32_t kesDBMGetUint8(Session *s, uint32_t key, uint8_t *value);
KESDB_API int32_t kesDBMGetSint64(Session *s, uint32_t key, int64_t *value);
KESDB_API int32_t kesDBMGetSint32(Session *s, uint32_t key, int32_t *value);
KESDB_API int32_t kesDBMGetSint16(Session *s, uint32_t key, int16_t *value);
KESDB_API int32_t kesDBMGetSint8(Session *s, uint32_t key, int8_t *value);
KESDB_API int32_t kesDBMGetString(Session *s, uint32_t key, char *buffer, int32_t size);

KESDB_API int32_t kesDBMSetFloat64(Session *s, uint32_t key, double value);
KESDB_API int32_t kesDBMSetFloat32(Session *s, uint32_t key, float value);
KESDB_API int32_t kesDBMSetUint64(Session *s, uint32_t key, uint64_t value);
KESDB_API int32_t kesDBMSetUint32(Session *s, uint32_t key, uint32_t value);
KESDB_API int32_t kesDBMSetUint16(Session *s, uint32_t key, uint16_t value);
KESDB_API int32_t kesDBMSetUint8(Session *s, uint32_t key, uint8_t value);
KESDB_API int32_t kesDBMSetSint64(Session *s, uint32_t key, int64_t value);
KESDB_API int32_t kesDBMSetSint32(Session *s, uint32_t key, int32_t value);
KESDB_API int32_t kesDBMSetSint16(Session *s, uint32_t key, int16_t value);
KESDB_API int32_t kesDBMSetSint8(Session *s, uint32_t key, int8_t value);
KESDB_API int32_t kesDBMSetString(Session *s, uint32_t key, const char *text);

KESDB_API int32_t kesDBMGetType(Session *s, uint32_t key);
KESDB_API int32_t kesDBMGetLength(Session *s, uint32_t key);
KESDB_API int32_t kesDBMCopy(Session *s, uint32_t source, uint32_t destination);

/* Sessions. */
KESDB_API int32_t kesDBMInitSession(Session *s, uint32_t dbId);
KESDB_API int32_t kesDBMTermSession(Session *s);

/* Tree and structure. */
KESDB_API uint32_t kesDBMGetRoot(Session *s);
KESDB_API uint32_t kesDBMGetParent(Session *s, uint32_t key);
KESDB_API uint32_t kesDBMGetFirstChild(Session *s, uint32_t key);
KESDB_API uint32_t kesDBMGetNextChild(Session *s, uint32_t key);
KESDB_API int32_t kesDBMGetChildCount(Session *s, uint32_t key);
KESDB_API uint32_t kesDBMGetChildByIndex(Session *s, uint32_t key, int32_t index);
KESDB_API uint32_t kesDBMCreateNode(Session *s, uint32_t stringKey, uint32_t parent, uint32_t previous, uint32_t child);
KESDB_API uint32_t kesDBMCreateLeaf(Session *s, uint32_t stringKey, uint32_t parent, uint32_t previous,
                                    uint32_t currentValue, uint32_t defaultValue, uint32_t factoryValue,
                                    uint32_t hookIndex);
KESDB_API int32_t kesDBMMoveLeaf(Session *s, uint32_t leaf, uint32_t newParent, uint32_t newPrevious);
KESDB_API int32_t kesDBMMoveNode(Session *s, uint32_t node, uint32_t newParent, uint32_t newPrevious, uint32_t child);
KESDB_API int32_t kesDBMMoveSubTree(Session *s, uint32_t node, uint32_t newParent, uint32_t newPrevious);
KESDB_API int32_t kesDBMDeleteComponent(Session *s, uint32_t key);
KESDB_API int32_t kesDBMDeleteComponentWithSub(Session *s, uint32_t key);
KESDB_API int32_t kesDBMCurrentToDefault(Session *s, uint32_t key);
KESDB_API int32_t kesDBMFactoryToDefault(Session *s, uint32_t key);
KESDB_API int32_t kesDBMDefaultToCurrent(Session *s, uint32_t key);
KESDB_API int32_t kesDBMLock(Session *s, uint32_t key, uint32_t mode);
KESDB_API int32_t kesDBMUnlock(Session *s, uint32_t key);
KESDB_API uint32_t kesDBMGetCurrentValueKey(Session *s, uint32_t leaf);
KESDB_API uint32_t kesDBMGetDefaultValueKey(Session *s, uint32_t leaf);
KESDB_API uint32_t kesDBMGetFactoryValueKey(Session *s, uint32_t leaf);
KESDB_API int32_t kesDBMSetCurrentValueKey(Session *s, uint32_t leaf, uint32_t valueKey);
KESDB_API int32_t kesDBMSetDefaultValueKey(Session *s, uint32_t leaf, uint32_t valueKey);
KESDB_API int32_t kesDBMSetFactoryValueKey(Session *s, uint32_t leaf, uint32_t valueKey);
KESDB_API uint32_t kesDBMGetStringKey(Session *s, uint32_t key);
KESDB_API int32_t kesDBMSetStringKey(Session *s, uint32_t key, uint32_t stringKey);
KESDB_API uint32_t kesDBMCreateValue(Session *s, uint32_t type, uint32_t creatorWord, const void *data, int32_t size,
                                     uint32_t dataMedium);
KESDB_API int32_t kesDBMDeleteValue(Session *s, uint32_t valueKey);
KESDB_API uint32_t kesDBMGetConstraintKey(Session *s, uint32_t valueKey);
KESDB_API int32_t kesDBMSetConstraintKey(Session *s, uint32_t valueKey, uint32_t constraintKey);
KESDB_API uint32_t kesDBMCreateString(Session *s, const char *text, uint32_t medium);
KESDB_API int32_t kesDBMDeleteString(Session *s, uint32_t stringKey);
KESDB_API int32_t kesDBMSync(Session *s, uint32_t medium, uint32_t syncArg);

KESDB_API uint32_t kesDBMSearchByName(Session *s, const char *path);
KESDB_API uint32_t kesDBMSetCurrentComponent(Session *s, uint32_t key);
KESDB_API uint32_t kesDBMGetConstraintType(Session *s, uint32_t leaf);
KESDB_API int32_t kesDBMGetConstraintLength(Session *s, uint32_t leaf);
KESDB_API int32_t kesDBMGetConstraintData(Session *s, uint32_t leaf, void *buffer, uint32_t length);
KESDB_API int32_t kesDBMSetConstraintData(Session *s, uint32_t leaf, const void *data, uint32_t length);
KESDB_API void kesDBMtraverseAndPrint(Session *s, uint32_t key);

#ifdef __cplusplus
}
#endif

#endif
