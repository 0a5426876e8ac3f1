/* The hook table loaded from the hook configuration file. */
#ifndef KESDBM_HOOK_H
#define KESDBM_HOOK_H

#include <stdint.h>

#include "kesdbm/export.h"
#include "kesdbm/session.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A hook function: (value key, data, length pointer); 0 lets the call go on. */
typedef int (*kesHookFn)(uint32_t valueKey, void *data, int32_t *lengthPtr);

typedef struct HookEntry {
    void *handle;
    kesHookFn preSet;
    kesHookFn postSet;
    kesHookFn preGet;
    kesHookFn postGet;
} HookEntry;

KESDB_API extern HookEntry *hook_table;

KESDB_API int32_t hook_init(const char *path);
KESDB_API int32_t hook_term(void);
KESDB_API int32_t hook_getCount(void);
KESDB_API HookEntry *getHook(Session *s, uint32_t index);
KESDB_API int32_t fillHookEntry(char *line, HookEntry *entry);

#ifdef __cplusplus
}
#endif

#endif
