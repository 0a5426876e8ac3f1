// "kesdb orphans": the sessions and locks of processes that ended without giving them back
// are listed and, on request, cleared, so that a process waiting for such a lock goes on.
// Sessions and locks of running processes are never listed nor touched.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "prockit.hpp"
#include "testkit.hpp"
#include "treekit.hpp"

namespace {

constexpr uint32_t kExclusiveTry = 0x0001;
constexpr uint32_t kSharedTry = 0x0101;
constexpr int kKilled = 128 + SIGKILL;
constexpr uint32_t kSessions = 1024;  // entries of the session table in use, 0 aside

using kt::Outcome;
using Lock = std::pair<uint32_t, uint32_t>;  // key, owner session

struct Report {
    uint32_t pid, session;
};

template <class Table>
Table tableAt(const std::string& path, Table t = {}) {
    const std::string bytes = kt::readFile(path);
    return bytes.size() == sizeof t ? (std::memcpy(&t, bytes.data(), sizeof t), t) : t;
}

// The entries of a list from `head` (at most `entries`).
template <class Table>
std::vector<uint32_t> chain(const Table& t, uint32_t head, uint32_t entries) {
    std::vector<uint32_t> list;
    for (uint32_t i = head; i != 0 && i < entries && list.size() < entries; i = t.entry[i].next) list.push_back(i);
    return list;
}

struct Orphans : ::testing::Test {
    kt::Db db;
    uint32_t root = 0;
    pk::Children children;

    void SetUp() override {
        root = tk::makeRoot(&db.s, "/");
        kt::writeFile(db.dir.file("kesdb.conf"),
                      "session=session.tbl\nlock=lock.tbl\nmedia=media.conf\nhook=hook.conf\n"
                      "component=0\nvalue=0\nconstraint=0\nstring=0\nreserved=0\ndefmedia=medium.bin\n");
    }
    Outcome kesdb(const std::vector<std::string>& args) { return kt::finishProgram(db.dir, kt::spawnProgram(db.dir, "kesdb", args)); }
    Outcome tool(std::vector<std::string> args) {
        args.insert(args.begin(), {"-d", "."});
        return kesdb(args);
    }
    LockTable locks() { return tableAt<LockTable>(db.param.lockTablePath); }
    SessionTable sessions() { return tableAt<SessionTable>(db.param.sessionTablePath); }
    // The locks in list order; with the free list, the list holds every entry once.
    std::vector<Lock> locksInOrder() {
        const LockTable t = locks();
        std::vector<Lock> held;
        for (uint32_t i : chain(t, t.compHead, KESDB_LOCK_ENTRIES)) held.push_back({t.entry[i].key, t.entry[i].owner});
        EXPECT_EQ(held.size() + chain(t, t.freeHead, KESDB_LOCK_ENTRIES).size(), KESDB_LOCK_ENTRIES - 1u);
        return held;
    }
    std::vector<uint32_t> sessionsInOrder() { return chain(sessions(), sessions().usedHead, kSessions); }
    // The line "orphans" prints for the lock on `key` owned by `owner`, ending in `why`.
    std::string lockLine(uint32_t key, uint32_t owner, const char* mode, const std::string& why) {
        const LockTable t = locks();
        char k[16];
        std::snprintf(k, sizeof k, "0x%x", key);
        for (uint32_t i : chain(t, t.compHead, KESDB_LOCK_ENTRIES))
            if (t.entry[i].key == key && t.entry[i].owner == owner)
                return "lock " + std::to_string(i) + " db " + std::to_string(t.entry[i].dbId) + " key " + k + " " + mode +
                       " session " + std::to_string(owner) + why;
        return "no lock entry";
    }
    // A child that opens a session, takes `held` (key, mode), reports, and is then killed.
    Report killedHolder(std::vector<std::pair<uint32_t, uint32_t>> held) {
        pk::Pipe reports;
        const pid_t pid = children.start([this, &reports, held] {
            Session own{};
            if (kesDBMInitSession(&own, static_cast<uint32_t>(db.id)) != 0) return 1;
            for (const auto& [key, mode] : held)
                if (kesDBMLock(&own, key, mode) != 0) return 2;
            reports.send(Report{static_cast<uint32_t>(getpid()), own.id});
            for (;;) pause();
        });
        Report r{};
        EXPECT_TRUE(reports.receive(r, 5000));
        EXPECT_EQ(kill(pid, SIGKILL), 0);
        EXPECT_EQ(children.wait(pid), kKilled);
        return r;
    }
};

TEST_F(Orphans, ListsAndClearsOnlyWhatEndedProcessesLeft) {
    constexpr uint32_t kA = 0x100, kB = 0x200, kC = 0x300;
    // A killed victim held B and a shared C; this process shares C too (its entry stands in
    // front of the victim's) and takes A; the tool's lock command leaves a closed session's.
    const Report v = killedHolder({{kB, kExclusiveTry}, {kC, kSharedTry}});
    ASSERT_EQ(kesDBMLock(&db.s, kC, kSharedTry), 0);
    ASSERT_EQ(kesDBMLock(&db.s, kA, kExclusiveTry), 0);
    ASSERT_EQ(tool({"lock", "/", "--try"}).code, 0);
    const uint32_t toolSession = locksInOrder().front().second;  // on the root, the lowest key
    const std::string ended = " pid " + std::to_string(v.pid) + ": process ended\n";
    const std::string closed = lockLine(root, toolSession, "exclusive", ": session closed\n");
    const std::string summary = "1 session and 2 locks of ended processes, 1 lock of a closed session\n";
    const std::string listed = "session " + std::to_string(v.session) + " pid " + std::to_string(v.pid) + " db " +
                               std::to_string(db.id) + ": process ended\n" + closed +
                               lockLine(kB, v.session, "exclusive", ended) + lockLine(kC, v.session, "shared", ended);
    const std::string before = kt::readFile(db.param.lockTablePath) + kt::readFile(db.param.sessionTablePath);
    EXPECT_EQ(tool({"orphans"}).out, listed + summary);
    EXPECT_EQ(kt::readFile(db.param.lockTablePath) + kt::readFile(db.param.sessionTablePath), before);

    EXPECT_EQ(tool({"orphans", "--clear"}).out, listed + summary + "cleared 1 session and 2 locks\n");
    EXPECT_EQ(locksInOrder(), (std::vector<Lock>{{root, toolSession}, {kA, db.s.id}, {kC, db.s.id}}));
    EXPECT_EQ(sessionsInOrder(), std::vector<uint32_t>{db.s.id});
    EXPECT_EQ(sessions().freeTail, v.session);
    EXPECT_EQ(kesDBMLock(&db.s, kB, kExclusiveTry), 0);
    EXPECT_EQ(kesDBMUnlock(&db.s, kB), 0);

    // The closed session's lock goes only when asked for.
    const std::string none = "0 sessions and 0 locks of ended processes, ";
    EXPECT_EQ(tool({"orphans", "--clear"}).out, closed + none + "1 lock of a closed session\ncleared 0 sessions and 0 locks\n");
    EXPECT_EQ(tool({"orphans", "--clear", "--closed"}).out,
              closed + none + "1 lock of a closed session\ncleared 0 sessions and 1 lock\n");
    EXPECT_EQ(tool({"orphans"}).out, none + "0 locks of closed sessions\n");
}

TEST_F(Orphans, WaiterOnAnAbandonedLockGoesOnAfterTheClear) {
    constexpr uint32_t kKey = 0x4242;
    killedHolder({{kKey, kExclusiveTry}});
    pk::Pipe started, done;
    const pid_t waiter =
        children.start([&] { return pk::lockWhenFree(static_cast<uint32_t>(db.id), kKey, started, done); });
    char c = 0;
    ASSERT_TRUE(started.receive(c, 5000));
    // The lock of the killed process stays in force; listing it does not release it.
    EXPECT_EQ(tool({"orphans"}).code, 0);
    usleep(300 * 1000);
    EXPECT_FALSE(done.pending()) << "the waiter got a lock that is held";
    const int64_t clearAt = pk::nowNs();
    EXPECT_NE(tool({"orphans", "--clear"}).out.find("cleared 1 session and 1 lock\n"), std::string::npos);
    int64_t gotAt = 0;
    ASSERT_TRUE(done.receive(gotAt, 5000)) << "the waiter is still blocked after the clear";
    EXPECT_EQ(children.wait(waiter), 0);
    EXPECT_LT(gotAt - clearAt, kt::timeScale() * int64_t{1000000000});
    EXPECT_EQ(locksInOrder(), std::vector<Lock>{});
    EXPECT_EQ(sessionsInOrder(), std::vector<uint32_t>{db.s.id});
}

TEST_F(Orphans, TablesGivenByPathAndDamagedTables) {
    // Without a database directory the table files are named directly.
    kt::writeFile(db.dir.file("short.tbl"), "xx");
    EXPECT_EQ(kesdb({"orphans", "--session-table", "session.tbl", "--lock-table", "lock.tbl"}).out,
              "0 sessions and 0 locks of ended processes, 0 locks of closed sessions\n");
    EXPECT_NE(kesdb({"orphans", "--session-table", "short.tbl", "--lock-table", "lock.tbl"}).err.find("is not a table (2 bytes, 16412 expected)"),
              std::string::npos);
    EXPECT_EQ(tool({"orphans", "--closed"}).code, 1);  // goes with --clear
    // A list that leads out of the table is refused and left as it is.
    killedHolder({{0x10, kExclusiveTry}, {0x20, kExclusiveTry}});
    const uint32_t bad = 5000;
    kt::writeBytes(db.param.lockTablePath, 24 + 24 * locks().compHead + 16, &bad, 4);  // the first entry's next
    const std::string before = kt::readFile(db.param.lockTablePath) + kt::readFile(db.param.sessionTablePath);
    EXPECT_EQ(tool({"orphans", "--clear"}).err,
              "kesdb: the lock table " + db.dir.file("lock.tbl") + " is damaged: lock list link 5000; nothing was changed\n");
    EXPECT_EQ(kt::readFile(db.param.lockTablePath) + kt::readFile(db.param.sessionTablePath), before);
}

}  // namespace
