// "kesdb orphans": the sessions and locks of processes that ended without giving them back
// are listed and, on request, cleared, so that a process waiting for such a lock goes on.
// Sessions and locks of running processes are never listed nor touched.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
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

using kt::Outcome;

// Runs the tool in `dir` with `args`; its exit status and both outputs.
Outcome kesdb(const kt::TempDir& dir, const std::vector<std::string>& args) {
    return kt::finishProgram(dir, kt::spawnProgram(dir, "kesdb", args));
}

// What a child reports once it holds what it was asked to take.
struct Report {
    uint32_t pid, session;
};

// The two tables as they are in their files.
LockTable lockTable(const kt::Db& db) {
    LockTable t{};
    const std::string bytes = kt::readFile(db.param.lockTablePath);
    if (bytes.size() == sizeof t) std::memcpy(&t, bytes.data(), sizeof t);
    return t;
}
SessionTable sessionTable(const kt::Db& db) {
    SessionTable t{};
    const std::string bytes = kt::readFile(db.param.sessionTablePath);
    if (bytes.size() == sizeof t) std::memcpy(&t, bytes.data(), sizeof t);
    return t;
}

// The locks in list order as (key, owner session) pairs; both lists together must hold
// every entry exactly once.
std::vector<std::pair<uint32_t, uint32_t>> locksOf(const kt::Db& db) {
    const LockTable t = lockTable(db);
    std::vector<std::pair<uint32_t, uint32_t>> locks;
    std::vector<int> seen(KESDB_LOCK_ENTRIES, 0);
    for (uint32_t i = t.compHead; i != 0 && i < KESDB_LOCK_ENTRIES && locks.size() < 2000; i = t.entry[i].next) {
        ++seen[i];
        locks.push_back({t.entry[i].key, t.entry[i].owner});
    }
    size_t free = 0;
    for (uint32_t i = t.freeHead; i != 0 && i < KESDB_LOCK_ENTRIES && free < 2000; i = t.entry[i].next, ++free) ++seen[i];
    for (uint32_t i = 1; i < KESDB_LOCK_ENTRIES; ++i) EXPECT_EQ(seen[i], 1) << "lock entry " << i;
    return locks;
}

// The open sessions' ids in list order; free and used lists together hold each entry once.
std::vector<uint32_t> sessionsOf(const kt::Db& db) {
    const SessionTable t = sessionTable(db);
    std::vector<uint32_t> ids;
    std::vector<int> seen(KESDB_SESSION_ENTRIES, 0);
    for (uint32_t i = t.usedHead; i != 0 && i < 1024 && ids.size() < 2000; i = t.entry[i].next) {
        ++seen[i];
        ids.push_back(i);
    }
    size_t free = 0;
    for (uint32_t i = t.freeHead; i != 0 && i < 1024 && free < 2000; i = t.entry[i].next, ++free) ++seen[i];
    for (uint32_t i = 1; i < 1024; ++i) EXPECT_EQ(seen[i], 1) << "session entry " << i;
    return ids;
}

// The index of the lock entry on `key` owned by session `owner` (0: none).
uint32_t entryOf(const kt::Db& db, uint32_t key, uint32_t owner) {
    const LockTable t = lockTable(db);
    for (uint32_t i = t.compHead; i != 0 && i < KESDB_LOCK_ENTRIES; i = t.entry[i].next)
        if (t.entry[i].key == key && t.entry[i].owner == owner) return i;
    return 0;
}

std::string hex(uint32_t v) {
    char b[16];
    std::snprintf(b, sizeof b, "0x%x", v);
    return b;
}

// A started database in a directory the tool knows as a database (a descriptor naming the
// test kit's files), with a root node.
struct Orphans : ::testing::Test {
    kt::Db db;
    uint32_t root = 0;
    std::string id;
    pk::Children children;

    void SetUp() override {
        ASSERT_GT(db.id, 0);
        root = tk::makeRoot(&db.s, "/");
        ASSERT_NE(root, 0u);
        kt::writeFile(db.dir.file("kesdb.conf"),
                      "session=session.tbl\nlock=lock.tbl\nmedia=media.conf\nhook=hook.conf\n"
                      "component=0\nvalue=0\nconstraint=0\nstring=0\nreserved=0\ndefmedia=medium.bin\n");
        id = std::to_string(db.id);
    }
    Outcome tool(std::vector<std::string> args) {
        args.insert(args.begin(), {"-d", "."});
        return kesdb(db.dir, args);
    }
    // A child that opens a session, takes `locks` (key, mode), reports and waits to be killed.
    pid_t holder(pk::Pipe& reports, std::vector<std::pair<uint32_t, uint32_t>> locks) {
        return children.start([this, &reports, locks] {
            Session own{};
            if (kesDBMInitSession(&own, static_cast<uint32_t>(db.id)) != 0) return 1;
            for (const auto& [key, mode] : locks)
                if (kesDBMLock(&own, key, mode) != 0) return 2;
            reports.send(Report{static_cast<uint32_t>(getpid()), own.id});
            for (;;) pause();
        });
    }
};

TEST_F(Orphans, ListsAndClearsOnlyWhatEndedProcessesLeft) {
    constexpr uint32_t kA = 0x100, kB = 0x200, kC = 0x300, kE = 0x500;
    pk::Pipe reports;
    // The victim takes B and a shared C, then this process shares C too (its entry stands in
    // front of the victim's) and takes A; a child that stays alive holds E.
    const pid_t victim = holder(reports, {{kB, kExclusiveTry}, {kC, kSharedTry}});
    Report v{}, live{};
    ASSERT_TRUE(reports.receive(v, 5000));
    ASSERT_EQ(kesDBMLock(&db.s, kC, kSharedTry), 0);
    ASSERT_EQ(kesDBMLock(&db.s, kA, kExclusiveTry), 0);
    holder(reports, {{kE, kExclusiveTry}});
    ASSERT_TRUE(reports.receive(live, 5000));
    ASSERT_EQ(kill(victim, SIGKILL), 0);
    ASSERT_EQ(children.wait(victim), kKilled);
    // The tool's own lock command leaves a lock whose session is closed.
    Outcome r = tool({"lock", "/", "--try"});
    ASSERT_EQ(r.code, 0) << r.err;
    const LockTable table = lockTable(db);
    uint32_t rootEntry = table.compHead;
    while (rootEntry != 0 && rootEntry < KESDB_LOCK_ENTRIES && table.entry[rootEntry].key != root)
        rootEntry = table.entry[rootEntry].next;
    ASSERT_TRUE(rootEntry != 0 && rootEntry < KESDB_LOCK_ENTRIES);
    const uint32_t toolSession = table.entry[rootEntry].owner;

    const std::string ended = ": process ended\n";
    const std::string victimLines =
        "session " + std::to_string(v.session) + " pid " + std::to_string(v.pid) + " db " + id + ended;
    const std::string closedLine = "lock " + std::to_string(rootEntry) + " db " +
                                   std::to_string(table.entry[rootEntry].dbId) + " key " +
                                   hex(root) + " exclusive session " + std::to_string(toolSession) +
                                   ": session closed\n";
    const std::string victimLocks =
        "lock " + std::to_string(entryOf(db, kB, v.session)) + " db " + id + " key " + hex(kB) +
        " exclusive session " + std::to_string(v.session) + " pid " + std::to_string(v.pid) + ended + "lock " +
        std::to_string(entryOf(db, kC, v.session)) + " db " + id + " key " + hex(kC) + " shared session " +
        std::to_string(v.session) + " pid " + std::to_string(v.pid) + ended;
    // Listing changes nothing.
    const std::string locksBefore = kt::readFile(db.param.lockTablePath);
    const std::string sessionsBefore = kt::readFile(db.param.sessionTablePath);
    r = tool({"orphans"});
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(r.out, victimLines + closedLine + victimLocks +
                         "1 session and 2 locks of ended processes, 1 lock of a closed session\n");
    EXPECT_EQ(kt::readFile(db.param.lockTablePath), locksBefore);
    EXPECT_EQ(kt::readFile(db.param.sessionTablePath), sessionsBefore);

    r = tool({"orphans", "--clear"});
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(r.out, victimLines + closedLine + victimLocks +
                         "1 session and 2 locks of ended processes, 1 lock of a closed session\n"
                         "cleared 1 session and 2 locks\n");
    // The victim's session went to the end of the free list, its locks are gone; the shared
    // lock of this process on C and every live lock stay.
    using Lock = std::pair<uint32_t, uint32_t>;
    EXPECT_EQ(locksOf(db), (std::vector<Lock>{{root, toolSession}, {kA, db.s.id}, {kC, db.s.id}, {kE, live.session}}));
    EXPECT_EQ(sessionsOf(db), (std::vector<uint32_t>{live.session, db.s.id}));
    EXPECT_EQ(sessionTable(db).freeTail, v.session);
    // The library goes on with the tables: B is free, one shared lock is left on C.
    Session other{};
    ASSERT_EQ(kesDBMInitSession(&other, static_cast<uint32_t>(db.id)), 0);
    EXPECT_EQ(kesDBMLock(&other, kB, kExclusiveTry), 0);
    EXPECT_EQ(kesDBMLock(&other, kE, kSharedTry), KESDB_ERR_LOCK_BUSY);
    EXPECT_EQ(kesDBMUnlock(&other, kB), 0);
    EXPECT_EQ(kesDBMUnlock(&db.s, kC), 0);
    EXPECT_EQ(kesDBMUnlock(&db.s, kC), KESDB_ERR_LOCK_NOTFOUND);
    EXPECT_EQ(kesDBMTermSession(&other), 0);

    // The closed session's lock goes only when asked for.
    r = tool({"orphans", "--clear"});
    EXPECT_EQ(r.out, closedLine + "0 sessions and 0 locks of ended processes, 1 lock of a closed session\n"
                                  "cleared 0 sessions and 0 locks\n");
    r = tool({"orphans", "--clear", "--closed"});
    EXPECT_EQ(r.out, closedLine + "0 sessions and 0 locks of ended processes, 1 lock of a closed session\n"
                                  "cleared 0 sessions and 1 lock\n");
    EXPECT_EQ(tool({"lock", "/", "--try"}).code, 0);
    EXPECT_EQ(tool({"unlock", "/"}).code, 0);
    EXPECT_EQ(locksOf(db), (std::vector<Lock>{{kA, db.s.id}, {kE, live.session}}));
    r = tool({"orphans"});
    EXPECT_EQ(r.out, "0 sessions and 0 locks of ended processes, 0 locks of closed sessions\n");
}

TEST_F(Orphans, WaiterOnAnAbandonedLockGoesOnAfterTheClear) {
    constexpr uint32_t kKey = 0x4242;
    pk::Pipe reports, started, done;
    const pid_t killed = holder(reports, {{kKey, kExclusiveTry}});
    Report h{};
    ASSERT_TRUE(reports.receive(h, 5000));
    ASSERT_EQ(kill(killed, SIGKILL), 0);
    ASSERT_EQ(children.wait(killed), kKilled);
    const pid_t waiter =
        children.start([&] { return pk::lockWhenFree(static_cast<uint32_t>(db.id), kKey, started, done); });
    char c = 0;
    ASSERT_TRUE(started.receive(c, 5000));
    // The lock of the killed process stays in force; listing it does not release it.
    usleep(300 * 1000);
    EXPECT_FALSE(done.pending());
    EXPECT_EQ(tool({"orphans"}).code, 0);
    usleep(200 * 1000);
    EXPECT_FALSE(done.pending()) << "the waiter got a lock that is held";

    const int64_t clearAt = pk::nowNs();
    const Outcome r = tool({"orphans", "--clear"});
    const int64_t toolDone = pk::nowNs();
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_NE(r.out.find("cleared 1 session and 1 lock\n"), std::string::npos) << r.out;
    int64_t gotAt = 0;
    ASSERT_TRUE(done.receive(gotAt, 5000)) << "the waiter is still blocked after the clear";
    EXPECT_EQ(children.wait(waiter), 0);
    EXPECT_LT(gotAt - clearAt, kt::timeScale() * int64_t{1000000000});
    EXPECT_EQ(locksOf(db), (std::vector<std::pair<uint32_t, uint32_t>>{}));
    EXPECT_EQ(sessionsOf(db), std::vector<uint32_t>{db.s.id});
    std::printf("[recovery] lock of a killed process: its waiter got the lock %.3f ms after \"kesdb orphans "
                "--clear\" started (the tool ran %.3f ms)\n",
                pk::toMs(gotAt - clearAt), pk::toMs(toolDone - clearAt));
}

TEST_F(Orphans, TablesGivenByPathRefusalsAndDamage) {
    // Without a database directory the table files are named directly.
    Outcome r = kesdb(db.dir, {"orphans", "--session-table", "session.tbl", "--lock-table", db.param.lockTablePath});
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(r.out, "0 sessions and 0 locks of ended processes, 0 locks of closed sessions\n");
    EXPECT_EQ(kesdb(db.dir, {"orphans"}).code, 1);
    EXPECT_EQ(kesdb(db.dir, {"orphans", "--session-table", "session.tbl"}).code, 1);
    r = tool({"orphans", "--closed"});
    EXPECT_EQ(r.code, 1);
    EXPECT_NE(r.err.find("--closed goes with --clear"), std::string::npos) << r.err;
    r = tool({"orphans", "extra"});
    EXPECT_EQ(r.code, 1);

    // A table that is not one, and a list that leads out of the table, are refused and left.
    kt::writeFile(db.dir.file("short.tbl"), "xx");
    r = kesdb(db.dir, {"orphans", "--session-table", "short.tbl", "--lock-table", "lock.tbl"});
    EXPECT_EQ(r.code, 2);
    EXPECT_NE(r.err.find("is not a table (2 bytes, 16412 expected)"), std::string::npos) << r.err;
    pk::Pipe reports;
    const pid_t victim = holder(reports, {{0x10, kExclusiveTry}, {0x20, kExclusiveTry}});
    Report v{};
    ASSERT_TRUE(reports.receive(v, 5000));
    ASSERT_EQ(kill(victim, SIGKILL), 0);
    ASSERT_EQ(children.wait(victim), kKilled);
    const uint32_t first = lockTable(db).compHead;
    const uint32_t bad = 5000;
    kt::writeBytes(db.param.lockTablePath, 24 + 24 * first + 16, &bad, 4);  // the first entry's next
    const std::string locksBefore = kt::readFile(db.param.lockTablePath);
    const std::string sessionsBefore = kt::readFile(db.param.sessionTablePath);
    r = tool({"orphans", "--clear"});
    EXPECT_EQ(r.code, 2);
    EXPECT_EQ(r.err, "kesdb: the lock table " + db.dir.file("lock.tbl") +
                         " is damaged: lock list link 5000; nothing was changed\n");
    EXPECT_EQ(kt::readFile(db.param.lockTablePath), locksBefore);
    EXPECT_EQ(kt::readFile(db.param.sessionTablePath), sessionsBefore);
}

}  // namespace
