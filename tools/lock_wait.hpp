// kesdb: component locks taken by the tool, waiting a bounded time for another holder.
#pragma once

#include <cstdint>
#include <string>

#include "common.hpp"
#include "database.hpp"

namespace kesdb {

// Seconds a command that changes values waits for a lock another session holds (--wait).
constexpr double kDefaultWait = 10;

// Takes a lock on `key` (exclusive unless `shared`), trying again every 20 ms for up to
// `seconds` (0: one try; negative: as long as it takes). When the time is up the command
// fails with kExitBusy and a message naming the holder; `what` starts the message.
void lockWithin(Database& db, uint32_t key, bool shared, double seconds, const std::string& what);

// The holders of locks on `key` in `db`: "session 3 of process 1234", one per lock, joined
// by ", ", or "nobody" (read from the tables, for a message).
std::string lockHolders(Database& db, uint32_t key);

// An exclusive lock for the length of a scope, taken by lockWithin.
class ScopedLock {
public:
    ScopedLock(Database& db, uint32_t key, double seconds, const std::string& what) : db_(db), key_(key) {
        lockWithin(db, key, false, seconds, what);
    }
    ~ScopedLock() { kesDBMUnlock(&db_.s, key_); }
    ScopedLock(const ScopedLock&) = delete;
    ScopedLock& operator=(const ScopedLock&) = delete;

private:
    Database& db_;
    uint32_t key_;
};

// Runs `change` on every leaf at or below `key`, depth first in list order, each while
// holding its exclusive lock (the one of `held`, already taken, is not taken again); stops
// at the first result that is not 0 and returns it.
template <class Change>
int32_t forEachLeafLocked(Database& db, uint32_t key, uint32_t held, double wait, const std::string& what,
                          Change change) {
    CompRecord c{};
    if (!comp_getComponent(&db.s, key, &c)) return static_cast<int32_t>(db.s.error);
    if (c.kind == KESDB_KIND_LEAF) {
        if (key == held) return change(key);
        ScopedLock lock(db, key, wait, what + " " + db.pathOf(key));
        return change(key);
    }
    for (uint32_t child = kesDBMGetFirstChild(&db.s, key); child != 0; child = comp_getNextSibling(&db.s, child)) {
        checkInterrupted();
        if (int32_t rc = forEachLeafLocked(db, child, held, wait, what, change); rc != 0) return rc;
    }
    return 0;
}

}  // namespace kesdb
