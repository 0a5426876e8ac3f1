#include "lock_wait.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>

#include "common.hpp"

namespace kesdb {

namespace {

// A table file mapped read-only for the length of a scope; null when it cannot be.
class ReadOnlyMap {
public:
    ReadOnlyMap(const char* path, size_t size) : size_(size) {
        int fd = open(path, O_RDONLY | O_CLOEXEC);
        if (fd < 0) return;
        void* m = mmap(nullptr, size, PROT_READ, MAP_SHARED, fd, 0);
        close(fd);
        if (m != MAP_FAILED) map_ = m;
    }
    ~ReadOnlyMap() {
        if (map_) munmap(map_, size_);
    }
    ReadOnlyMap(const ReadOnlyMap&) = delete;
    ReadOnlyMap& operator=(const ReadOnlyMap&) = delete;
    template <class T>
    const T* as() const {
        return static_cast<const T*>(map_);
    }

private:
    void* map_ = nullptr;
    size_t size_;
};

double seconds() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

}  // namespace

std::string lockHolders(Database& db, uint32_t key) {
    ReadOnlyMap locks(db.param().lockTablePath, KESDB_LOCK_TABLE_SIZE);
    ReadOnlyMap sessions(db.param().sessionTablePath, KESDB_SESSION_TABLE_SIZE);
    const LockTable* lt = locks.as<LockTable>();
    const SessionTable* st = sessions.as<SessionTable>();
    if (!lt) return "an unknown holder (the lock table cannot be read)";
    std::string holders;
    uint32_t i = lt->compHead;
    for (uint32_t steps = 0; i >= 1 && i < KESDB_LOCK_ENTRIES && steps < KESDB_LOCK_ENTRIES; ++steps) {
        const LockEntry& e = lt->entry[i];
        if (e.dbId == db.s.dbId && e.key == key) {
            std::string who = "session " + std::to_string(e.owner);
            bool open = false;
            uint32_t j = st ? st->usedHead : 0;
            for (uint32_t n = 0; j >= 1 && j < KESDB_SESSION_ENTRIES && n < KESDB_SESSION_ENTRIES; ++n) {
                if (j == e.owner) {
                    who += " of process " + std::to_string(st->entry[j].pid);
                    open = true;
                    break;
                }
                j = st->entry[j].next;
            }
            if (!open) who += " (closed; \"kesdb unlock\" or \"kesdb orphans --clear --closed\" removes it)";
            holders += (holders.empty() ? "" : ", ") + who;
        }
        i = e.next;
    }
    return holders.empty() ? "nobody" : holders;
}

void lockWithin(Database& db, uint32_t key, bool shared, double wait, const std::string& what) {
    const uint32_t mode = (shared ? KESDB_LOCK_SHARED : 0u) | 1u;  // try once
    // Waiting is a try repeated every 20 ms rather than the library's own wait, so that an
    // interrupted or timed-out wait gives its session back before the tool leaves.
    const double deadline = seconds() + wait;
    int32_t rc = kesDBMLock(&db.s, key, mode);
    while (rc == KESDB_ERR_LOCK_BUSY && (wait < 0 || seconds() < deadline)) {
        if (interrupted()) failInterrupted();
        usleep(20 * 1000);
        rc = kesDBMLock(&db.s, key, mode);
    }
    if (rc == KESDB_ERR_LOCK_BUSY) {
        char waited[64];
        std::snprintf(waited, sizeof waited, "%g s", wait);
        fail(what + ": locked by " + lockHolders(db, key) + (wait > 0 ? std::string(" (waited ") + waited + ")" : ""),
             kExitBusy);
    }
    if (rc != 0) failCode(what, rc);
}

}  // namespace kesdb
