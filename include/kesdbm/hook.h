/**
 * @file kesdbm/hook.h
 * @brief The hook table, loaded from the hook configuration file, and the hook contract.
 *
 * A hook is a set of up to four functions from a shared library that the value calls run
 * around a read or a write of a leaf whose hook index names it (kesDBMCreateLeaf()). The hook
 * configuration file names one hook a line, five tokens separated by blanks, tabs or newlines:
 * the library's path (loaded with dlopen, RTLD_NOW), then the symbols of preSet, postSet,
 * preGet and postGet, each "NULL" when absent; "#" starts a comment. Hook index i (from 1)
 * names entry i - 1. The table belongs to the process and is loaded once, at start-up.
 */
#ifndef KESDBM_HOOK_H
#define KESDBM_HOOK_H

#include <stdint.h>

#include "kesdbm/export.h"
#include "kesdbm/session.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * A hook function, run on the caller's thread inside the value call.
 * @param valueKey Key of the value record accessed.
 * @param data For a write, the bytes about to be or just written; for a read, the caller's
 *        buffer.
 * @param lengthPtr The length: preSet may change it (the changed length is written). Reads
 *        with kesDBMGetCreateListGeneric() pass the byte count itself in this place.
 * @return 0 lets the call go on; any other value fails it (#KESDB_ERR_HOOK_PRESET,
 *         #KESDB_ERR_HOOK_POSTSET, #KESDB_ERR_HOOK_PREGET, #KESDB_ERR_HOOK_POSTGET) and becomes
 *         the session's error detail.
 */
typedef int (*kesHookFn)(uint32_t valueKey, void *data, int32_t *lengthPtr);

/** One hook: the library handle and its four functions (NULL: not called). */
typedef struct HookEntry {
    void *handle;      /**< Handle the dynamic loader returned for the hook library. */
    kesHookFn preSet;  /**< Before a value is written; may refuse the write or change its length. */
    kesHookFn postSet; /**< After a value was written. */
    kesHookFn preGet;  /**< Before a value is read; may refuse the read. */
    kesHookFn postGet; /**< After a value was read (the buffer is filled). */
} HookEntry;

/** The process's hook table: hook_getCount() entries, NULL while none is loaded. */
KESDB_API extern HookEntry *hook_table;

/**
 * Start-up step: loads every hook of the configuration file on the process's first call;
 * later calls only count.
 * @param path Path of the hook configuration file.
 * @return 0, or the code of the last line handled: #KESDB_ERR_HOOK_CONFOPEN,
 *         #KESDB_ERR_HOOK_CONFSEEK, #KESDB_ERR_HOOK_LOAD, #KESDB_ERR_HOOK_SYMPRESET to
 *         #KESDB_ERR_HOOK_SYMPOSTGET, #KESDB_ERR_HOOK_LINE (missing tokens), #KESDB_ERR_NOMEM.
 */
KESDB_API int32_t hook_init(const char *path);
/**
 * Shut-down step: the last call of the process unloads the hook libraries and frees the table.
 * @return 0.
 */
KESDB_API int32_t hook_term(void);
/**
 * The number of loaded hooks.
 * @return The hook count.
 */
KESDB_API int32_t hook_getCount(void);
/**
 * The hook entry of a hook index.
 * @param s The session.
 * @param index Hook index, 1..hook_getCount().
 * @return The entry, or NULL after recording #KESDB_ERR_HOOK_INDEX (index 0 or too high).
 */
KESDB_API HookEntry *getHook(Session *s, uint32_t index);
/**
 * Fills one hook entry from one configuration line (the line is split in place).
 * @param line The line; its tokens are cut out of it.
 * @param entry The entry to fill.
 * @return 0 (entry complete), -1 (not five tokens), #KESDB_ERR_HOOK_LOAD, or
 *         #KESDB_ERR_HOOK_SYMPRESET to #KESDB_ERR_HOOK_SYMPOSTGET.
 */
KESDB_API int32_t fillHookEntry(char *line, HookEntry *entry);

#ifdef __cplusplus
}
#endif

#endif
