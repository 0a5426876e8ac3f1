// Semaphore sets: the mutex, counting semaphore and event that guard one shared table.
//
// The wrapper binds the objects created with name 0 to a create key; the set of a table is
// created with the table file's path as that key, so every process that maps the same table
// file gets semaphores acting on one another. The key is cleared again before returning.
#include <cstdint>

#include "kesdbm/lock.h"
#include "kesdbm/session.h"
#include "kesosw.h"
#include "storage/medium_io.hpp"

extern "C" {

// A null set makes no wrapper call and returns KESDB_ERR_NULLARG. A null path binds nothing:
// the set then acts only within this process.
int32_t misc_getSems(SemSet* set, const char* path) {
    if (!set) return KESDB_ERR_NULLARG;
    int32_t rc = kesOSWSetCreateKey(path);
    kes::ScopeExit clearKey([] { kesOSWSetCreateKey(nullptr); });
    // A key the wrapper refuses would silently give process-private semaphores: fail instead.
    if (rc != 0) return rc;
    rc = kesOSWCreateMutexSem(&set->mutex, 0, 1);
    if (rc != 0) return rc;
    rc = kesOSWCreateCountSem(&set->counter, 0, 0);
    if (rc != 0) return rc;
    return kesOSWCreateEventSem(&set->event, 0, 0);
}

int32_t misc_waitMtx(SemSet* set) {
    return set ? kesOSWRequestMutexSem(set->mutex, 0xFFFFFFFFu) : KESDB_ERR_NULLARG;
}

int32_t misc_postMtx(SemSet* set) {
    return set ? kesOSWReleaseMutexSem(set->mutex) : KESDB_ERR_NULLARG;
}

int32_t misc_waitCount(SemSet* set) {
    return set ? kesOSWWaitCountSem(set->counter, 0) : KESDB_ERR_NULLARG;
}

int32_t misc_postCount(SemSet* set) {
    return set ? kesOSWPostCountSem(set->counter) : KESDB_ERR_NULLARG;
}

int32_t misc_waitEvent(SemSet* set) {
    return set ? kesOSWWaitEventSem(set->event, 0) : KESDB_ERR_NULLARG;
}

int32_t misc_postEvent(SemSet* set) {
    return set ? kesOSWPostEventSem(set->event) : KESDB_ERR_NULLARG;
}

// Posts the event: the same call as misc_postEvent.
int32_t misc_resetEvent(SemSet* set) {
    return set ? kesOSWPostEventSem(set->event) : KESDB_ERR_NULLARG;
}

// Sets are kept for the life of the process (the wrapper hands the same handles out again
// when the table is set up anew), so there is nothing to free.
int32_t misc_freeSems(SemSet* /*set*/) { return 0; }

}  // extern "C"
