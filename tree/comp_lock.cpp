// Component locks as seen from the tree: the low byte of the mode picks waiting or trying.
#include <cstdint>

#include "kesdbm/lock.h"
#include "kesdbm/session.h"
#include "kesdbm/tree.h"

extern "C" {

// Low byte 0 waits until the lock can be taken, 1 tries once; the whole mode word is passed
// on (its second byte chooses shared or exclusive).
int32_t comp_lock(Session* s, uint32_t key, uint32_t mode) {
    switch (mode & 0xFFu) {
        case 0: return lock_compLockW(s, key, mode);
        case 1: return lock_compLock(s, key, mode);
        default:
            session_setError(s, KESDB_ERR_LOCK_MODE, 0);
            return KESDB_ERR_LOCK_MODE;
    }
}

int32_t comp_unlock(Session* s, uint32_t key) { return lock_compUnlock(s, key); }

}  // extern "C"
