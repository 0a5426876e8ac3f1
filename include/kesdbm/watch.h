/**
 * @file kesdbm/watch.h
 * @brief Extension of the interface: waiting for changes made by any process.
 *
 * Every change made through the public calls (the generic and typed sets, kesDBMCopy(), the
 * value-set transfers, creating, moving and deleting components, changing a leaf's value
 * keys or a component's name) is entered in a change record shared by every process of the
 * database: a file beside the session table (its path with ".changes" added), made by
 * kesDBMInit() when missing. The record holds a running count of changes and a ring of the
 * last #KESDB_WATCH_RING component keys changed. kesDBMWatch() sleeps on it until a change
 * under the watched component is entered, or its time is up. The writer pays a few stores and
 * atomic operations per change, and a wake-up call only while someone waits.
 *
 * A start-up whose change record cannot be made goes on as without it: changes made by this
 * process are then not entered, and kesDBMWatch() fails with #KESDB_ERR_MMAP. A process maps
 * the change record beside the first session table it maps, as it uses that session table for
 * all its databases.
 */
#ifndef KESDBM_WATCH_H
#define KESDBM_WATCH_H

#include <stdint.h>

#include "kesdbm/export.h"
#include "kesdbm/session.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Changes the ring of the change record keeps; a watcher further behind misses some. */
#define KESDB_WATCH_RING 1024u
/** Size in bytes of the change record file: a 16-byte header and the ring. */
#define KESDB_WATCH_RECORD_SIZE (16u + 16u * KESDB_WATCH_RING)
/** Suffix added to the session table's path to name the change record file. */
#define KESDB_WATCH_SUFFIX ".changes"

/**
 * Extension. Waits until a component at or below @p key changes in any process of the
 * session's database, and tells which.
 *
 * A change is entered with the component it touched: a leaf whose value was set (current or
 * default value) or whose value keys changed; a node or leaf created, renamed, moved or deleted
 * (with its parent, or former parent); the component a value-set transfer started at. It
 * counts for the watch when that component lies at or below @p key, or when @p key lies below
 * it (a transfer or deletion of a whole subtree covers the components in it). The keys handed
 * back are those components: a leaf's key, or a node's key meaning "something below this node
 * changed", or the key of a component that no longer exists. A set of the same value is a
 * change too.
 *
 * @param s The session.
 * @param key The component watched (leaf or node); 0 or the root watches the whole database.
 * @param sequence In: the position a previous call handed back, or 0 to start now (only changes
 *        entered after the call began count). Out: the position to pass to the next call, so
 *        that no change is missed between calls.
 * @param timeoutMs Longest wait in milliseconds; 0 only looks, a negative value waits without
 *        limit.
 * @param changed Receives the changed component keys, each once (may be null when *@p count
 *        is 0).
 * @param count In: room in @p changed. Out: the number of keys stored; 0 when the time ran out
 *        or a signal interrupted the wait; -1 when changes were missed: the watcher fell more
 *        than #KESDB_WATCH_RING changes behind, more components changed than @p changed holds,
 *        or a writer stopped half-way. After -1, re-read everything below @p key.
 * @return 0; #KESDB_ERR_NULLARG (recorded, detail 0) for a null @p sequence or @p count, or a
 *         null @p changed with room; #KESDB_ERR_MMAP (recorded, detail 0) when this process has
 *         no change record. Reads of the tree that fail on the way leave the session's error as
 *         it was and count the change in (a watcher rather wakes once too often).
 */
KESDB_API int32_t kesDBMWatch(Session *s, uint32_t key, uint32_t *sequence, int32_t timeoutMs, uint32_t *changed,
                              int32_t *count);

/**
 * Extension, for measurements. Turns the entering of changes by this process off (0) or back
 * on (any other value; the default). Watchers learn nothing of changes made while it is off.
 * @param on 0 to stop entering changes, non-zero to enter them again.
 */
KESDB_API void kesdb_recordChanges(int32_t on);

#ifdef __cplusplus
}
#endif

#endif
