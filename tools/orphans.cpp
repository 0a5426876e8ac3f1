// kesdb orphans: the sessions and component locks that processes left behind when they
// ended without giving them back (killed, crashed), and their removal on request.
//
// The library keeps both for good: a session entry stays in use until a session with its id
// is terminated, and a lock stays until it is unlocked, whatever became of the process. The
// session table records the process id of each open session and a lock entry names the
// session that took it, so a session whose process no longer exists (kill(pid, 0) fails with
// ESRCH) is abandoned, and so are its locks. A lock whose session is no longer open at all
// (such as the one "kesdb lock" leaves on purpose) has no owner left to ask; it is listed as
// such and removed only when asked for explicitly.
//
// The tool maps the two table files itself and changes them under the same mutexes as the
// library (misc_getSems with the table's path reaches the same semaphore set), one mutex at
// a time, with the library's list rules: a released session entry goes to the end of the
// free list, a removed lock entry to the front of the free list, and each removal posts the
// lock event so that waiting lock requests look again at once.
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "commands.hpp"
#include "common.hpp"
#include "kesdbm/kesdbm.h"
#include "lock/lock_list.hpp"

namespace kesdb {

namespace {

constexpr uint32_t kLastSession = KESDB_SESSION_ENTRIES - 2;  // entries 1..1023 take part
constexpr uint32_t kLastLock = KESDB_LOCK_ENTRIES - 1;        // entries 1..1024 hold locks

// A shared table file mapped by the tool, with the semaphore set that guards it.
class TableFile {
public:
    TableFile(const std::string& path, uint32_t size, const std::string& what) : path_(path), what_(what), size_(size) {
        fd_ = open(path.c_str(), O_RDWR | O_CLOEXEC);
        if (fd_ < 0) fail("cannot open the " + what + " table " + path + ": " + std::strerror(errno));
        struct stat st {};
        if (fstat(fd_, &st) != 0 || st.st_size < static_cast<off_t>(size)) {
            close(fd_);
            fail("the " + what + " table " + path + " is not a table (" + std::to_string(st.st_size) +
                 " bytes, " + std::to_string(size) + " expected)");
        }
        map_ = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd_, 0);
        if (map_ == MAP_FAILED) {
            const int e = errno;
            close(fd_);
            fail("cannot map the " + what + " table " + path + ": " + std::strerror(e));
        }
        if (int32_t rc = misc_getSems(&sems_, path.c_str()); rc != 0) {
            const int e = errno;
            release();
            fail("cannot reach the semaphores of " + path + ": wrapper code " + std::to_string(rc) + " (" +
                 std::strerror(e) + ")");
        }
    }
    ~TableFile() { release(); }
    TableFile(const TableFile&) = delete;
    TableFile& operator=(const TableFile&) = delete;

    template <class T>
    T* as() {
        return static_cast<T*>(map_);
    }
    SemSet* sems() { return &sems_; }

    // Runs `body` with the table's mutex held; it is released also when `body` fails.
    template <class F>
    auto locked(F&& body) {
        if (int32_t rc = misc_waitMtx(&sems_); rc != 0)
            fail("cannot take the mutex of the " + what_ + " table: wrapper code " + std::to_string(rc) + " (" +
                 std::strerror(errno) + ")");
        struct Release {
            SemSet* sems;
            ~Release() { misc_postMtx(sems); }
        } release{&sems_};
        return body();
    }

    [[noreturn]] void damaged(const std::string& how) const {
        fail("the " + what_ + " table " + path_ + " is damaged: " + how + "; nothing was changed");
    }

private:
    void release() {
        if (map_ && map_ != MAP_FAILED) munmap(map_, size_);
        map_ = nullptr;
        if (fd_ >= 0) close(fd_);
        fd_ = -1;
    }

    std::string path_, what_;
    uint32_t size_;
    int fd_ = -1;
    void* map_ = nullptr;
    SemSet sems_{};
};

enum class Process { Alive, Ended, Unknown };

// Whether the process of a session still exists. A process of another user counts as
// alive (EPERM); a word that is no process id at all is not judged.
Process processState(uint32_t pid) {
    if (pid == 0 || pid > static_cast<uint32_t>(INT_MAX)) return Process::Unknown;
    if (kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM) return Process::Alive;
    return errno == ESRCH ? Process::Ended : Process::Unknown;
}

struct OpenSession {
    uint32_t id, pid, dbId;
    Process process;
};

// The sessions in use, in list order.
std::vector<OpenSession> openSessions(TableFile& table) {
    return table.locked([&] {
        const SessionTable* t = table.as<SessionTable>();
        std::vector<OpenSession> sessions;
        for (uint32_t i = t->usedHead; i != 0; i = t->entry[i].next) {
            if (i > kLastSession) table.damaged("used list link " + std::to_string(i));
            if (sessions.size() >= kLastSession) table.damaged("the used list does not end");
            const SessionTableEntry& e = t->entry[i];
            sessions.push_back({e.id, e.pid, e.dbId, processState(e.pid)});
        }
        return sessions;
    });
}

struct HeldLock {
    uint32_t index;
    LockEntry entry;
};

// The component locks, in list order.
std::vector<HeldLock> heldLocks(TableFile& table) {
    return table.locked([&] {
        const LockTable* t = table.as<LockTable>();
        std::vector<HeldLock> locks;
        for (uint32_t i = t->compHead; i != 0; i = t->entry[i].next) {
            if (i > kLastLock) table.damaged("lock list link " + std::to_string(i));
            if (locks.size() >= kLastLock) table.damaged("the lock list does not end");
            locks.push_back({i, t->entry[i]});
        }
        return locks;
    });
}

const OpenSession* sessionById(const std::vector<OpenSession>& sessions, uint32_t id) {
    for (const OpenSession& s : sessions)
        if (s.id == id) return &s;
    return nullptr;
}

bool sameLock(const LockEntry& a, const LockEntry& b) {
    return a.dbId == b.dbId && a.key == b.key && a.owner == b.owner && a.mode == b.mode;
}

// Removes the listed locks that are still in the table as they were seen, as an unlock does:
// unlinked from the lock list, put at the front of the free list, the lock event posted.
uint32_t removeLocks(TableFile& table, const std::vector<HeldLock>& gone) {
    return table.locked([&] {
        LockTable* t = table.as<LockTable>();
        uint32_t removed = 0;
        for (const HeldLock& g : gone) {
            uint32_t prev = 0;
            uint32_t steps = 0;
            for (uint32_t i = t->compHead; i != 0; prev = i, i = t->entry[i].next) {
                if (i > kLastLock || ++steps > kLastLock) table.damaged("lock list link " + std::to_string(i));
                LockEntry& e = t->entry[i];
                if (i != g.index || !sameLock(e, g.entry)) continue;
                if (e.next > kLastLock) table.damaged("lock list link " + std::to_string(e.next));
                lockList_release(t, prev, i);
                misc_postEvent(table.sems());
                ++removed;
                break;
            }
        }
        return removed;
    });
}

// Releases the listed sessions that are still open by the same, still ended, process, as
// terminating them does: unlinked from the used list and appended to the free list.
uint32_t releaseSessions(TableFile& table, const std::vector<OpenSession>& gone) {
    return table.locked([&] {
        SessionTable* t = table.as<SessionTable>();
        uint32_t released = 0;
        uint32_t prev = 0;
        uint32_t steps = 0;
        for (uint32_t i = t->usedHead; i != 0;) {
            if (i > kLastSession || ++steps > kLastSession) table.damaged("used list link " + std::to_string(i));
            SessionTableEntry& e = t->entry[i];
            const uint32_t next = e.next;
            bool release = false;
            for (const OpenSession& g : gone)
                release = release || (g.id == e.id && g.pid == e.pid && processState(e.pid) == Process::Ended);
            if (!release) {
                prev = i;
                i = next;
                continue;
            }
            if (next > kLastSession) table.damaged("used list link " + std::to_string(next));
            if (prev)
                t->entry[prev].next = next;
            else
                t->usedHead = next;
            if (t->freeTail != 0) t->entry[t->freeTail].next = i;
            e.next = 0;
            t->freeTail = i;
            if (t->freeHead == 0) t->freeHead = i;
            ++released;
            i = next;
        }
        return released;
    });
}

std::string count(uint32_t n, const char* what) {
    return std::to_string(n) + " " + what + (n == 1 ? "" : "s");
}

const char* kindOf(const LockEntry& e) { return e.mode == KESDB_LOCK_SHARED ? "shared" : "exclusive"; }

}  // namespace

std::vector<LockView> listLocks(const std::string& sessionPath, const std::string& lockPath) {
    TableFile sessionTable(sessionPath, KESDB_SESSION_TABLE_SIZE, "session");
    TableFile lockTable(lockPath, KESDB_LOCK_TABLE_SIZE, "lock");
    const std::vector<HeldLock> locks = heldLocks(lockTable);
    const std::vector<OpenSession> sessions = openSessions(sessionTable);
    std::vector<LockView> out;
    for (const HeldLock& l : locks) {
        const OpenSession* owner = sessionById(sessions, l.entry.owner);
        const char* process = !owner                               ? "session closed"
                              : owner->process == Process::Alive ? "running"
                              : owner->process == Process::Ended ? "ended"
                                                                 : "unknown";
        out.push_back({l.entry.dbId, l.entry.key, l.entry.mode == KESDB_LOCK_SHARED, l.entry.owner,
                       owner ? owner->pid : 0u, process});
    }
    return out;
}

int cmdOrphans(const OrphanOptions& o) {
    TableFile sessionTable(o.sessionTable, KESDB_SESSION_TABLE_SIZE, "session");
    TableFile lockTable(o.lockTable, KESDB_LOCK_TABLE_SIZE, "lock");

    // Locks first, then sessions: a lock seen here was taken by a session opened before the
    // sessions are read, so a lock whose session is not open then has really lost it.
    const std::vector<HeldLock> locks = heldLocks(lockTable);
    const std::vector<OpenSession> sessions = openSessions(sessionTable);

    std::vector<OpenSession> endedSessions;
    for (const OpenSession& s : sessions) {
        if (s.process != Process::Ended) continue;
        endedSessions.push_back(s);
        std::fprintf(data(), "session %u pid %u db %u: process ended\n", s.id, s.pid, s.dbId);
    }
    std::vector<HeldLock> endedLocks, closedLocks;
    for (const HeldLock& l : locks) {
        const OpenSession* owner = sessionById(sessions, l.entry.owner);
        if (owner && owner->process == Process::Ended) {
            endedLocks.push_back(l);
            std::fprintf(data(), "lock %u db %u key 0x%x %s session %u pid %u: process ended\n", l.index, l.entry.dbId,
                        l.entry.key, kindOf(l.entry), l.entry.owner, owner->pid);
        } else if (!owner) {
            closedLocks.push_back(l);
            std::fprintf(data(), "lock %u db %u key 0x%x %s session %u: session closed\n", l.index, l.entry.dbId, l.entry.key,
                        kindOf(l.entry), l.entry.owner);
        }
    }
    std::fprintf(data(), "%s and %s of ended processes, %s\n",
                count(static_cast<uint32_t>(endedSessions.size()), "session").c_str(),
                count(static_cast<uint32_t>(endedLocks.size()), "lock").c_str(),
                closedLocks.size() == 1 ? "1 lock of a closed session"
                                        : (std::to_string(closedLocks.size()) + " locks of closed sessions").c_str());
    if (!o.clear) return kExitOk;

    // The locks go before their sessions: a session id given back is handed out again only
    // after every other free one, so no new session can take a lock under it meanwhile.
    std::vector<HeldLock> gone = endedLocks;
    if (o.closedLocks) gone.insert(gone.end(), closedLocks.begin(), closedLocks.end());
    const uint32_t removed = removeLocks(lockTable, gone);
    const uint32_t released = releaseSessions(sessionTable, endedSessions);
    std::fprintf(data(), "cleared %s and %s\n", count(released, "session").c_str(), count(removed, "lock").c_str());
    std::fflush(data());
    return kExitOk;
}

}  // namespace kesdb
