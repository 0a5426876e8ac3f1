// Semaphore sets and the lock table: layout, shared and exclusive locks, waiting, the full
// table, printing, persistence across runs, and locking between processes.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "kesosw.h"
#include "testkit.hpp"

namespace {

constexpr uint32_t kTry = 1;            // low byte: try once
constexpr uint32_t kWait = 0;           // low byte: wait
constexpr uint32_t kShared = 0x100;     // second byte: shared
constexpr uint32_t kExclusive = 0x200;  // any other second byte: exclusive

uint32_t entryOffset(uint32_t k) { return 24 + 24 * k; }
enum Field : uint32_t { kDbId = 0, kKey = 4, kOwner = 8, kMode = 12, kNext = 16, kPrev = 20 };

double nowMs() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000.0 + ts.tv_nsec / 1e6;
}

Session makeSession(uint32_t id, uint32_t dbId) {
    Session s{};
    s.id = id;
    s.dbId = dbId;
    return s;
}

// A lock table in a fresh directory, set up for the test's process.
class LockTableTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(lock_init(path.c_str()), 0); }
    void TearDown() override { lock_term(); }

    uint32_t word(uint32_t offset) const { return kt::readWord(path, offset); }
    uint32_t field(uint32_t k, Field f) const { return word(entryOffset(k) + f); }
    // The component lock list as (index) in order, checked for matching back links.
    std::vector<uint32_t> compList() const {
        std::vector<uint32_t> list;
        uint32_t prev = 0;
        for (uint32_t i = word(4); i != 0 && list.size() <= 1024; i = field(i, kNext)) {
            EXPECT_EQ(field(i, kPrev), prev) << "entry " << i;
            list.push_back(i);
            prev = i;
        }
        EXPECT_EQ(word(8), prev);  // compTail
        return list;
    }
    size_t freeCount() const {
        size_t n = 0;
        for (uint32_t i = word(0); i != 0 && n <= 1024; i = field(i, kNext)) ++n;
        return n;
    }
    std::string show(uint32_t flags) const {
        return kt::captureStdout([flags] { lock_show(flags); });
    }

    kt::TempDir dir;
    std::string path = dir.file("lock.tbl");
    Session s1 = makeSession(1, 1);
    Session s2 = makeSession(2, 1);
    Session s3 = makeSession(3, 1);
};

TEST_F(LockTableTest, FreshTableLayoutAndReferenceCount) {
    struct stat st {};
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_size, 24624);
    mode_t mask = umask(0);
    umask(mask);
    EXPECT_EQ(st.st_mode & 0777, 0664u & ~mask);

    // Header {free head 1, 0...}, entry 0 unused, entries 1..1024 chained both ways.
    std::vector<uint32_t> image(24624 / 4, 0);
    image[0] = 1;
    for (uint32_t k = 1; k <= 1024; ++k) {
        image[(entryOffset(k) + kNext) / 4] = k < 1024 ? k + 1 : 0;
        image[(entryOffset(k) + kPrev) / 4] = k < 1024 ? k - 1 : 0;
    }
    std::vector<uint8_t> before = kt::readBytes(path, 0, 24624);
    ASSERT_EQ(before.size(), 24624u);
    EXPECT_EQ(std::memcmp(before.data(), image.data(), 24624), 0);

    // A second set-up only counts; the table stays mapped until the last shut-down.
    EXPECT_EQ(lock_init(path.c_str()), 0);
    EXPECT_EQ(kt::readBytes(path, 0, 24624), before);
    EXPECT_EQ(lock_term(), 0);
    EXPECT_EQ(lock_compLock(&s1, 5, kTry), 0);
    EXPECT_EQ(lock_term(), 0);
    s1.error = 0;
    EXPECT_EQ(lock_compLock(&s1, 6, kTry), KESDB_ERR_MMAP);  // unmapped now
    EXPECT_EQ(s1.error, static_cast<uint32_t>(KESDB_ERR_MMAP));
    // A shut-down without set-up does not unbalance the count: the next set-up maps again.
    EXPECT_EQ(lock_term(), 0);
    EXPECT_EQ(lock_init(path.c_str()), 0);
    EXPECT_EQ(lock_compLock(&s1, 5, kTry), KESDB_ERR_LOCK_BUSY);
}

TEST_F(LockTableTest, SharedHoldersBlockAnExclusiveRequestUntilBothRelease) {
    ASSERT_EQ(lock_compLock(&s1, 0x40, kTry | kShared), 0);
    ASSERT_EQ(lock_compLock(&s2, 0x40, kTry | kShared), 0);
    // Equal keys stand together, the most recent first.
    EXPECT_EQ(compList(), (std::vector<uint32_t>{2, 1}));
    EXPECT_EQ(field(2, kOwner), 2u);
    EXPECT_EQ(field(2, kMode), kShared);
    EXPECT_EQ(field(2, kDbId), 1u);
    EXPECT_EQ(field(2, kKey), 0x40u);

    s3.error = 42;
    s3.errorDetail = 7;
    EXPECT_EQ(lock_compLock(&s3, 0x40, kTry | kExclusive), KESDB_ERR_LOCK_BUSY);
    EXPECT_EQ(lock_compLock(&s3, 0x40, kTry), KESDB_ERR_LOCK_BUSY);  // second byte 0: exclusive
    EXPECT_EQ(s3.error, 42u);                                        // 75 is not recorded
    EXPECT_EQ(s3.errorDetail, 7u);

    // In waiting mode the request (in another process) is held until both holders release.
    pid_t waiter = kt::forkChild([&] {
        lock_term();  // set up this process's table anew, as an independent process would
        if (lock_init(path.c_str()) != 0) return 10;
        int32_t rc = lock_compLockW(&s3, 0x40, kWait | kExclusive);
        return rc == 0 ? 0 : 11;
    });
    int status = -1;
    for (int holders = 2; holders > 0; --holders) {
        usleep(150 * 1000);
        ASSERT_NE(waitpid(waiter, &status, WNOHANG), waiter) << holders;
        if (holders == 2) {
            EXPECT_EQ(lock_compUnlock(&s1, 0x40), 0);
        }
    }
    EXPECT_EQ(lock_compUnlock(&s1, 0x40), 0);  // any session of the database may release
    double start = nowMs();
    while (nowMs() - start < 5000) {
        if (waitpid(waiter, &status, WNOHANG) == waiter) break;
        usleep(1000);
    }
    double took = nowMs() - start;
    if (!WIFEXITED(status)) {
        kill(waiter, SIGKILL);
        kt::waitChild(waiter);
        FAIL() << "the waiting request did not finish";
    }
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_LT(took, 1000.0);
    // The waiter's lock is exclusive and in the table for everyone.
    EXPECT_EQ(lock_compLock(&s1, 0x40, kTry | kShared), KESDB_ERR_LOCK_BUSY);
    ASSERT_EQ(compList().size(), 1u);
    EXPECT_EQ(field(compList()[0], kOwner), 3u);
    EXPECT_EQ(field(compList()[0], kMode), kExclusive);
}

TEST_F(LockTableTest, ExclusiveLocksConflictDoNotNestAndAreKeptPerDatabase) {
    Session other = makeSession(9, 2);
    ASSERT_EQ(lock_compLock(&s1, 0x10, kTry | kExclusive), 0);
    EXPECT_EQ(lock_compLock(&s2, 0x10, kTry | kShared), KESDB_ERR_LOCK_BUSY);
    EXPECT_EQ(lock_compLock(&s1, 0x10, kTry | kExclusive), KESDB_ERR_LOCK_BUSY);  // no nesting
    EXPECT_EQ(lock_compLock(&s1, 0x10, kTry | 0x300), KESDB_ERR_LOCK_BUSY);
    // A mode with more than the second byte set keeps only the second byte.
    EXPECT_EQ(lock_compLock(&s1, 0x11, 0xABCD0101u), 0);
    EXPECT_EQ(field(2, kMode), kShared);
    EXPECT_EQ(lock_compLock(&s2, 0x11, kTry | kShared), 0);
    // The same key in another database is another lock.
    EXPECT_EQ(lock_compLock(&other, 0x10, kTry | kExclusive), 0);
    EXPECT_EQ(lock_compLock(&other, 0x05, kTry | kExclusive), 0);
    // Sorted by database first, then key: (1,10) (1,11) (1,11) (2,5) (2,10).
    std::vector<uint32_t> list = compList();
    ASSERT_EQ(list.size(), 5u);
    std::vector<std::pair<uint32_t, uint32_t>> seen;
    for (uint32_t i : list) seen.emplace_back(field(i, kDbId), field(i, kKey));
    EXPECT_EQ(seen,
              (std::vector<std::pair<uint32_t, uint32_t>>{{1, 0x10}, {1, 0x11}, {1, 0x11}, {2, 0x05}, {2, 0x10}}));
    EXPECT_EQ(list[1], 3u);  // the later shared lock stands first

    // Unlocking: the other database's lock is untouched; a key of another database is 76.
    EXPECT_EQ(lock_compUnlock(&other, 0x10), 0);
    EXPECT_EQ(lock_compLock(&s2, 0x10, kTry | kShared), KESDB_ERR_LOCK_BUSY);
    EXPECT_EQ(lock_compUnlock(&other, 0x11), KESDB_ERR_LOCK_NOTFOUND);
    // With several shared holders the most recent lock goes first.
    EXPECT_EQ(lock_compUnlock(&s1, 0x11), 0);
    EXPECT_EQ(compList(), (std::vector<uint32_t>{1, 2, 5}));
    // The released entries went to the front of the free list.
    EXPECT_EQ(word(0), 3u);
    EXPECT_EQ(field(3, kNext), 4u);
    EXPECT_EQ(field(4, kNext), 6u);
}

TEST_F(LockTableTest, UnlockOfAFreeKeyIsNotRecorded) {
    s1.error = 42;
    s1.errorDetail = 7;
    EXPECT_EQ(lock_compUnlock(&s1, 0x99), KESDB_ERR_LOCK_NOTFOUND);
    ASSERT_EQ(lock_compLock(&s2, 0x10, kTry), 0);
    ASSERT_EQ(lock_compLock(&s2, 0x30, kTry), 0);
    EXPECT_EQ(lock_compUnlock(&s1, 0x20), KESDB_ERR_LOCK_NOTFOUND);  // between two locks
    EXPECT_EQ(lock_compUnlock(&s1, 0x40), KESDB_ERR_LOCK_NOTFOUND);  // past the end
    EXPECT_EQ(s1.error, 42u);
    EXPECT_EQ(s1.errorDetail, 7u);
    EXPECT_EQ(lock_compUnlock(&s1, 0x30), 0);
    EXPECT_EQ(lock_compUnlock(&s1, 0x30), KESDB_ERR_LOCK_NOTFOUND);
    EXPECT_EQ(compList(), (std::vector<uint32_t>{1}));
}

TEST_F(LockTableTest, FullTableRecords78AndOneUnlockMakesRoom) {
    for (uint32_t key = 1; key <= 1024; ++key) ASSERT_EQ(lock_compLock(&s1, key * 8, kTry), 0) << key;
    EXPECT_EQ(word(0), 0u);
    s2.error = 0;
    s2.errorDetail = 5;
    EXPECT_EQ(lock_compLock(&s2, 0x7777, kTry | kShared), KESDB_ERR_LOCK_FULL);
    EXPECT_EQ(s2.error, static_cast<uint32_t>(KESDB_ERR_LOCK_FULL));
    EXPECT_EQ(s2.errorDetail, 0u);
    // A conflict is found before the lack of room.
    s2.error = 0;
    EXPECT_EQ(lock_compLock(&s2, 8, kTry), KESDB_ERR_LOCK_BUSY);
    EXPECT_EQ(s2.error, 0u);
    // A waiting request fails at once too: 78 is no reason to wait.
    EXPECT_EQ(lock_compLockW(&s2, 0x7777, kWait), KESDB_ERR_LOCK_FULL);

    EXPECT_EQ(lock_compUnlock(&s1, 512 * 8), 0);
    EXPECT_EQ(lock_compLock(&s2, 0x7777, kTry), 0);
    EXPECT_EQ(field(512, kKey), 0x7777u);
    EXPECT_EQ(lock_compLock(&s2, 0x7778, kTry), KESDB_ERR_LOCK_FULL);
    EXPECT_EQ(compList().size(), 1024u);

    // Releasing everything gives every entry back and leaves a usable table.
    EXPECT_EQ(lock_compUnlockAll(), 0);
    EXPECT_EQ(word(4), 0u);
    EXPECT_EQ(freeCount(), 1024u);
    EXPECT_EQ(lock_compLock(&s2, 8, kTry), 0);
    EXPECT_EQ(compList().size(), 1u);
}

TEST_F(LockTableTest, ShowPrintsTheListsExactly) {
    auto freeLine = [](int from) {
        std::string line = "\nfree  head ->";
        char item[16];
        for (int k = from; k <= 1024; ++k) line += (snprintf(item, sizeof item, " %x", k), item);
        return line;
    };
    EXPECT_EQ(show(0), "\n");
    EXPECT_EQ(show(4), freeLine(1) + "\n");

    ASSERT_EQ(lock_compLock(&s1, 30, kTry), 0);
    ASSERT_EQ(lock_compLock(&s1, 10, kTry), 0);
    ASSERT_EQ(lock_compLock(&s1, 20, kTry), 0);
    EXPECT_EQ(show(1), "\ncomp  head -> 2:a 3:14 1:1e\n");
    EXPECT_EQ(show(2), "\nvalue head ->\n");
    EXPECT_EQ(show(7), freeLine(4) + "\ncomp  head -> 2:a 3:14 1:1e\nvalue head ->\n");
    EXPECT_EQ(show(8), "\n");
    ASSERT_EQ(lock_compUnlock(&s1, 10), 0);
    EXPECT_EQ(show(1), "\ncomp  head -> 3:14 1:1e\n");
    EXPECT_EQ(show(4).substr(0, 22), "\nfree  head -> 2 4 5 6");
}

TEST_F(LockTableTest, CompLockDispatchesOnTheLowByte) {
    // Any other low byte: 77, recorded with detail 0, nothing locked.
    s1.errorDetail = 9;
    EXPECT_EQ(comp_lock(&s1, 0x10, 2), KESDB_ERR_LOCK_MODE);
    EXPECT_EQ(s1.error, static_cast<uint32_t>(KESDB_ERR_LOCK_MODE));
    EXPECT_EQ(s1.errorDetail, 0u);
    EXPECT_EQ(comp_lock(&s1, 0x10, 0x1FF), KESDB_ERR_LOCK_MODE);
    EXPECT_EQ(word(4), 0u);
    EXPECT_EQ(word(0), 1u);

    // 0x100: waiting and shared; 0x101 tries (it would hang forever if it waited).
    EXPECT_EQ(comp_lock(&s1, 0x10, 0x100), 0);
    EXPECT_EQ(field(1, kMode), kShared);
    EXPECT_EQ(comp_lock(&s2, 0x10, 0x101), 0);
    EXPECT_EQ(comp_lock(&s2, 0x10, 0x001), KESDB_ERR_LOCK_BUSY);
    EXPECT_EQ(comp_lock(&s2, 0x10, 0x201), KESDB_ERR_LOCK_BUSY);
    EXPECT_EQ(comp_unlock(&s2, 0x10), 0);
    EXPECT_EQ(comp_unlock(&s2, 0x10), 0);
    EXPECT_EQ(comp_unlock(&s2, 0x10), KESDB_ERR_LOCK_NOTFOUND);
    // A waiting request on a lock another thread releases soon.
    ASSERT_EQ(comp_lock(&s1, 0x20, 0x001), 0);
    std::thread releaser([&] {
        usleep(60 * 1000);
        lock_compUnlock(&s2, 0x20);
    });
    EXPECT_EQ(comp_lock(&s3, 0x20, 0x000), 0);
    releaser.join();
    EXPECT_EQ(field(compList()[0], kOwner), 3u);
}

TEST_F(LockTableTest, ValueLocksTouchNothing) {
    ASSERT_EQ(lock_compLock(&s1, 0x10, kTry), 0);
    std::vector<uint8_t> before = kt::readBytes(path, 0, 24624);
    EXPECT_EQ(lock_valueLock(&s1, 0x10, kTry), 0);
    EXPECT_EQ(lock_valueLock(&s1, 0x10, kTry), 0);
    EXPECT_EQ(lock_valueLockW(&s2, 0x10, kWait), 0);
    EXPECT_EQ(lock_valueUnlock(&s1, 0x55), 0);
    EXPECT_EQ(lock_valueUnlockAll(), 0);
    EXPECT_EQ(lock_valueLock(nullptr, 0, 2), 0);
    EXPECT_EQ(kt::readBytes(path, 0, 24624), before);
    EXPECT_EQ(s1.error, 0u);
}

TEST(LockTable, LocksOfAnEarlierRunStayInForce) {
    kt::TempDir dir;
    const std::string path = dir.file("lock.tbl");
    // The earlier run: another process that locks a key and ends without unlocking.
    ASSERT_EQ(kt::runChild([&] {
                  Session s = makeSession(4, 3);
                  if (lock_init(path.c_str()) != 0) return 1;
                  if (lock_compLock(&s, 0x123, kTry) != 0) return 2;
                  return lock_term();
              }),
              0);
    ASSERT_EQ(lock_init(path.c_str()), 0);
    Session s = makeSession(1, 3);
    EXPECT_EQ(lock_compLock(&s, 0x123, kTry | kShared), KESDB_ERR_LOCK_BUSY);
    EXPECT_EQ(lock_term(), 0);
    // A restart in this process: still locked.
    ASSERT_EQ(lock_init(path.c_str()), 0);
    EXPECT_EQ(lock_compLock(&s, 0x123, kTry), KESDB_ERR_LOCK_BUSY);
    EXPECT_EQ(lock_compUnlock(&s, 0x123), 0);
    EXPECT_EQ(lock_compLock(&s, 0x123, kTry), 0);
    EXPECT_EQ(lock_term(), 0);
}

TEST(LockTable, MissingShortOrEmptyTableFiles) {
    kt::TempDir dir;
    Session s = makeSession(1, 1);
    // Neither opened nor created: start-up goes on, the lock calls report 87.
    ASSERT_EQ(lock_init(dir.file("no/such/dir/lock.tbl").c_str()), 0);
    EXPECT_EQ(lock_compLock(&s, 1, kTry), KESDB_ERR_MMAP);
    EXPECT_EQ(s.error, static_cast<uint32_t>(KESDB_ERR_MMAP));
    EXPECT_EQ(s.errorDetail, 0u);
    s.error = 0;
    EXPECT_EQ(lock_compLockW(&s, 1, kWait), KESDB_ERR_MMAP);
    EXPECT_EQ(lock_compUnlock(&s, 1), KESDB_ERR_MMAP);
    EXPECT_EQ(s.error, static_cast<uint32_t>(KESDB_ERR_MMAP));
    EXPECT_EQ(lock_compUnlockAll(), KESDB_ERR_MMAP);
    EXPECT_EQ(kt::captureStdout([] { lock_show(7); }), "\n");
    EXPECT_EQ(lock_term(), 0);

    // A file shorter than the table is refused, not mapped.
    const std::string shortFile = dir.file("short.tbl");
    kt::writeFile(shortFile, std::string(100, 'x'));
    EXPECT_EQ(lock_init(shortFile.c_str()), KESDB_ERR_MMAP);
    EXPECT_EQ(lock_compLock(&s, 1, kTry), KESDB_ERR_MMAP);
    EXPECT_EQ(kt::readFile(shortFile), std::string(100, 'x'));
    EXPECT_EQ(lock_term(), 0);

    // An empty file is laid down as a fresh table.
    const std::string emptyFile = dir.file("empty.tbl");
    kt::writeFile(emptyFile, "");
    ASSERT_EQ(lock_init(emptyFile.c_str()), 0);
    EXPECT_EQ(kt::readFile(emptyFile).size(), 24624u);
    EXPECT_EQ(kt::readWord(emptyFile, 0), 1u);
    EXPECT_EQ(lock_compLock(&s, 1, kTry), 0);
    EXPECT_EQ(lock_term(), 0);

    // A null path sets up no table, like an impossible one.
    ASSERT_EQ(lock_init(nullptr), 0);
    EXPECT_EQ(lock_compLock(&s, 1, kTry), KESDB_ERR_MMAP);
    EXPECT_EQ(lock_term(), 0);
}

TEST_F(LockTableTest, NullSessionsAndCorruptListsAreSurvived) {
    EXPECT_EQ(lock_compLock(nullptr, 1, kTry), KESDB_ERR_NULLARG);
    EXPECT_EQ(lock_compLockW(nullptr, 1, kWait), KESDB_ERR_NULLARG);
    EXPECT_EQ(lock_compUnlock(nullptr, 1), KESDB_ERR_NULLARG);
    EXPECT_EQ(comp_lock(nullptr, 1, 2), KESDB_ERR_LOCK_MODE);
    EXPECT_EQ(word(4), 0u);
    EXPECT_EQ(word(0), 1u);

    ASSERT_EQ(lock_compLock(&s1, 0x10, kTry), 0);
    ASSERT_EQ(lock_compLock(&s1, 0x20, kTry), 0);
    // Entry 2 (key 0x20) now points back to entry 1: a loop.
    uint32_t loop = 1;
    kt::writeBytes(path, entryOffset(2) + kNext, &loop, 4);
    EXPECT_EQ(lock_compLock(&s1, 0x30, kTry), KESDB_ERR_MMAP);
    EXPECT_EQ(s1.error, static_cast<uint32_t>(KESDB_ERR_MMAP));
    EXPECT_EQ(lock_compUnlock(&s1, 0x30), KESDB_ERR_MMAP);
    std::string shown = show(1);
    EXPECT_EQ(shown.size(), std::string("\ncomp  head ->").size() + 1024 * 5 + 1);
    // An index outside the table.
    uint32_t wild = 5000;
    kt::writeBytes(path, 4, &wild, 4);
    EXPECT_EQ(lock_compLock(&s1, 0x30, kTry), KESDB_ERR_MMAP);
    EXPECT_EQ(show(1), "\ncomp  head ->\n");
    EXPECT_EQ(lock_compUnlockAll(), 0);
    EXPECT_EQ(word(4), 0u);
    // A free-list head outside the table.
    kt::writeBytes(path, 0, &wild, 4);
    EXPECT_EQ(lock_compLock(&s1, 0x30, kTry), KESDB_ERR_MMAP);
    EXPECT_EQ(word(4), 0u);
}

TEST_F(LockTableTest, ProcessesChangeTheTableUnderOneMutex) {
    // Four processes lock and unlock their own keys as fast as they can; without one mutex
    // for all of them the shared lists would be torn apart.
    constexpr int kProcs = 4;
    constexpr int kRounds = 400;
    std::vector<pid_t> pids;
    for (int p = 0; p < kProcs; ++p) {
        pids.push_back(kt::forkChild([&, p] {
            lock_term();
            if (lock_init(path.c_str()) != 0) return 10;
            Session s = makeSession(10 + p, 1);
            for (int r = 0; r < kRounds; ++r) {
                uint32_t key = static_cast<uint32_t>(p * 100000 + r % 7);
                if (lock_compLock(&s, key, kTry) != 0) return 11;
                if (lock_compLock(&s, key + 50, kTry | kShared) != 0) return 12;
                if (lock_compUnlock(&s, key) != 0) return 13;
                if (lock_compUnlock(&s, key + 50) != 0) return 14;
            }
            return 0;
        }));
    }
    for (pid_t pid : pids) EXPECT_EQ(kt::waitChild(pid), 0);
    EXPECT_TRUE(compList().empty());
    EXPECT_EQ(freeCount(), 1024u);
}

TEST(Sems, SetsBindToThePathAndFreeingKeepsThem) {
    kt::TempDir dir;
    const std::string path = dir.file("table");
    SemSet set{};
    ASSERT_EQ(misc_getSems(&set, path.c_str()), 0);
    EXPECT_EQ(access((path + ".sem").c_str(), F_OK), 0);
    EXPECT_TRUE(set.mutex && set.counter && set.event);
    // The key is cleared afterwards: a plain create gives a new, private handle, while the
    // same path gives the same set again.
    uint32_t plain = 0;
    ASSERT_EQ(kesOSWCreateMutexSem(&plain, 0, 1), 0);
    EXPECT_NE(plain, set.mutex);
    SemSet again{};
    ASSERT_EQ(misc_getSems(&again, path.c_str()), 0);
    EXPECT_TRUE(again.mutex == set.mutex && again.counter == set.counter && again.event == set.event);

    // Freeing keeps the set usable.
    EXPECT_EQ(misc_freeSems(&set), 0);
    for (auto call :
         {misc_waitMtx, misc_postMtx, misc_postCount, misc_waitCount, misc_postEvent, misc_resetEvent, misc_waitEvent})
        EXPECT_EQ(call(&set), 0);

    // The mutex of one path excludes another process that binds the same path.
    ASSERT_EQ(misc_waitMtx(&set), 0);
    EXPECT_EQ(kt::runChild([&] {
                  SemSet mine{};
                  if (misc_getSems(&mine, path.c_str()) != 0) return 1;
                  return kesOSWRequestMutexSem(mine.mutex, 100) == KESOSW_ERR_SYSTEM ? 0 : 2;
              }),
              0);
    EXPECT_EQ(misc_postMtx(&set), 0);

    // The reset posts the event like misc_postEvent: a waiter in another process wakes well
    // before the poll interval ends (a few attempts allow for scheduling delays).
    bool quick = false;
    for (int attempt = 0; attempt < 5 && !quick; ++attempt) {
        pid_t poster = kt::forkChild([&] {
            usleep(5 * 1000);
            return misc_resetEvent(&set) == 0 ? 0 : 1;
        });
        double start = nowMs();
        EXPECT_EQ(misc_waitEvent(&set), 0);
        quick = nowMs() - start < 18.0;
        EXPECT_EQ(kt::waitChild(poster), 0);
    }
    EXPECT_TRUE(quick);

    EXPECT_EQ(misc_getSems(nullptr, path.c_str()), KESDB_ERR_NULLARG);
    EXPECT_EQ(misc_waitMtx(nullptr), KESDB_ERR_NULLARG);
    EXPECT_EQ(misc_freeSems(nullptr), 0);
}

TEST(Sems, AFailingCreateLeavesTheLaterHandlesUnset) {
    kt::TempDir dir;
    // Use up all but one handle of the process.
    uint32_t h = 0;
    for (int i = 0; i < 1023; ++i) ASSERT_EQ(kesOSWCreateEventSem(&h, 0, 0), 0) << i;
    SemSet set{0xAAAA, 0xBBBB, 0xCCCC};
    EXPECT_EQ(misc_getSems(&set, dir.file("a").c_str()), KESOSW_ERR_FULL);
    EXPECT_EQ(set.mutex, 1024u);
    EXPECT_EQ(set.counter, 0xBBBBu);
    EXPECT_EQ(set.event, 0xCCCCu);
    SemSet none{0xAAAA, 0xBBBB, 0xCCCC};
    EXPECT_EQ(misc_getSems(&none, dir.file("b").c_str()), KESOSW_ERR_FULL);
    EXPECT_EQ(none.mutex, 0xAAAAu);
    EXPECT_EQ(none.counter, 0xBBBBu);
    // A path the wrapper cannot bind is refused rather than silently made private.
    SemSet unbound{0xAAAA, 0xBBBB, 0xCCCC};
    EXPECT_EQ(misc_getSems(&unbound, dir.file("no/such/dir/t").c_str()), KESOSW_ERR_SYSTEM);
    EXPECT_EQ(unbound.mutex, 0xAAAAu);
}

}  // namespace
