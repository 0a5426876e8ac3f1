// kesdb: component locks taken by the tool, waiting a bounded time for another holder.
#pragma once

#include <cstdint>
#include <string>

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

}  // namespace kesdb
