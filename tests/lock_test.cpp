// Semaphore sets and the lock table: layout, shared and exclusive locks, waiting, the full
// table, printing, broken tables, and locking between processes.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "kesosw.h"
#include "oswkit.hpp"

namespace {

constexpr uint32_t kTry = 1, kWait = 0, kShared = 0x100, kExclusive = 0x200;
constexpr int32_t kBusy = KESDB_ERR_LOCK_BUSY, kNotFound = KESDB_ERR_LOCK_NOTFOUND, kNoTable = KESDB_ERR_MMAP;
constexpr uint32_t kSize = 24624;

using Entry = std::array<uint32_t, 6>;  // dbId, key, owner, mode, next, prev
using List = std::vector<uint32_t>;
using Err = std::pair<uint32_t, uint32_t>;

Err err(const Session& s) { return {s.error, s.errorDetail}; }
Session session(uint32_t id, uint32_t dbId = 1) {
    Session s{};
    s.id = id;
    s.dbId = dbId;
    return s;
}
std::string show(uint32_t flags) { return kt::captureStdout([flags] { lock_show(flags); }); }

class LockTableTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(lock_init(path.c_str()), 0); }
    void TearDown() override { lock_term(); }
    uint32_t word(uint32_t offset) const { return kt::readWord(path, offset); }
    Entry entry(uint32_t k) const {
        Entry e{};
        const std::vector<uint8_t> bytes = kt::readBytes(path, 24 + 24 * k, 24);
        if (bytes.size() == 24) std::memcpy(e.data(), bytes.data(), 24);
        return e;
    }
    // The component lock list in order, checked for back links, tail and sort order by
    // (database, key); the free list's length.
    List compList() const {
        List list;
        uint32_t prev = 0;
        for (uint32_t i = word(4); i != 0 && list.size() <= 1024; prev = i, i = entry(i)[4]) {
            EXPECT_EQ(entry(i)[5], prev) << "entry " << i;
            if (prev) { EXPECT_LE((Err{entry(prev)[0], entry(prev)[1]}), (Err{entry(i)[0], entry(i)[1]})); }
            list.push_back(i);
        }
        EXPECT_EQ(word(8), prev);
        return list;
    }
    size_t freeCount() const {
        size_t n = 0;
        for (uint32_t i = word(0); i != 0 && n <= 1024; i = entry(i)[4]) ++n;
        return n;
    }
    kt::TempDir dir;
    std::string path = dir.file("lock.tbl");
    Session s1 = session(1), s2 = session(2), s3 = session(3);
};

TEST_F(LockTableTest, FreshTableAndReferenceCount) {
    struct stat st {};
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_size, kSize);
    const mode_t mask = umask(0);
    umask(mask);
    EXPECT_EQ(st.st_mode & 0777, 0664u & ~mask);
    // Entries 1..1024 chained both ways from the free head, nothing else set.
    std::vector<uint32_t> image(kSize / 4, 0);
    image[0] = 1;
    for (uint32_t k = 1; k <= 1024; ++k) {
        image[(24 + 24 * k + 16) / 4] = k < 1024 ? k + 1 : 0;
        image[(24 + 24 * k + 20) / 4] = k < 1024 ? k - 1 : 0;
    }
    const std::vector<uint8_t> before = kt::readBytes(path, 0, kSize);
    ASSERT_EQ(before.size(), kSize);
    EXPECT_EQ(std::memcmp(before.data(), image.data(), kSize), 0);
    // A second set-up only counts; the table stays mapped until the last shut-down, and an
    // extra shut-down does not unbalance the count.
    EXPECT_EQ(lock_init(path.c_str()), 0);
    EXPECT_EQ(kt::readBytes(path, 0, kSize), before);
    EXPECT_EQ(lock_term(), 0);
    EXPECT_EQ(lock_compLock(&s1, 5, kTry), 0);
    EXPECT_EQ(lock_term(), 0);
    EXPECT_EQ(lock_compLock(&s1, 6, kTry), kNoTable);
    EXPECT_EQ(err(s1), Err(kNoTable, 0));
    EXPECT_EQ(lock_term(), 0);
    EXPECT_EQ(lock_init(path.c_str()), 0);
    EXPECT_EQ(lock_compLock(&s1, 5, kTry | kShared), kBusy);
}

TEST_F(LockTableTest, SharedHoldersBlockAWaitingExclusiveRequestUntilBothRelease) {
    ASSERT_EQ(lock_compLock(&s1, 0x40, kTry | kShared), 0);
    ASSERT_EQ(lock_compLock(&s2, 0x40, kTry | kShared), 0);
    EXPECT_EQ(compList(), (List{2, 1}));  // equal keys: the most recent first
    EXPECT_EQ(entry(2), (Entry{1, 0x40, 2, kShared, 1, 0}));
    s3.error = 42;
    s3.errorDetail = 7;
    EXPECT_EQ(lock_compLock(&s3, 0x40, kTry | kExclusive), kBusy);
    EXPECT_EQ(lock_compLock(&s3, 0x40, kTry), kBusy);  // second byte 0: exclusive
    EXPECT_EQ(err(s3), Err(42, 7));                    // 75 is not recorded
    pid_t waiter = kt::forkChild([&] {
        lock_term();
        return lock_init(path.c_str()) == 0 && lock_compLockW(&s3, 0x40, kWait | kExclusive) == 0 ? 0 : 1;
    });
    usleep(150 * 1000);
    ASSERT_TRUE(ok::running(waiter));
    EXPECT_EQ(lock_compUnlock(&s1, 0x40), 0);
    usleep(150 * 1000);
    ASSERT_TRUE(ok::running(waiter));
    EXPECT_EQ(lock_compUnlock(&s1, 0x40), 0);  // any session of the database may release
    const double start = ok::nowMs();
    EXPECT_EQ(ok::waitWithin(waiter, 5000 * kt::timeScale()), 0);
    EXPECT_LT(ok::nowMs() - start, 1000.0 * kt::timeScale());
    EXPECT_EQ(compList(), (List{1}));
    EXPECT_EQ(entry(1), (Entry{1, 0x40, 3, kExclusive, 0, 0}));
    EXPECT_EQ(lock_compLock(&s1, 0x40, kTry | kShared), kBusy);
}

TEST_F(LockTableTest, ExclusiveLocksConflictDoNotNestAndAreKeptPerDatabase) {
    Session other = session(9, 2);
    ASSERT_EQ(lock_compLock(&s1, 0x10, kTry | kExclusive), 0);
    EXPECT_EQ(lock_compLock(&s2, 0x10, kTry | kShared), kBusy);
    EXPECT_EQ(lock_compLock(&s1, 0x10, kTry | kExclusive), kBusy);
    EXPECT_EQ(lock_compLock(&s1, 0x11, 0xABCD0101u), 0);  // only the second byte is kept
    EXPECT_EQ(lock_compLock(&s2, 0x11, kTry | kShared), 0);
    EXPECT_EQ(lock_compLock(&other, 0x10, kTry | kExclusive), 0);
    EXPECT_EQ(lock_compLock(&other, 0x05, kTry | kExclusive), 0);
    EXPECT_EQ(compList(), (List{1, 3, 2, 5, 4}));  // (1,10) (1,11) (1,11) (2,5) (2,10)
    EXPECT_EQ(entry(2), (Entry{1, 0x11, 1, kShared, 5, 3}));
    EXPECT_EQ(entry(5), (Entry{2, 0x05, 9, kExclusive, 4, 2}));
    // Unlocking touches only the session's database, the most recent shared lock first;
    // released entries go to the front of the free list; 76 is not recorded.
    EXPECT_EQ(lock_compUnlock(&other, 0x10), 0);
    EXPECT_EQ(lock_compLock(&s2, 0x10, kTry | kShared), kBusy);
    EXPECT_EQ(lock_compUnlock(&other, 0x11), kNotFound);
    EXPECT_EQ(lock_compUnlock(&s1, 0x11), 0);
    EXPECT_EQ(compList(), (List{1, 2, 5}));
    EXPECT_EQ(show(4).substr(0, 22), "\nfree  head -> 3 4 6 7");
    EXPECT_EQ(lock_compUnlock(&other, 0x05), 0);
    s1.error = 42;
    for (uint32_t key : {0x0Fu, 0x99u}) EXPECT_EQ(lock_compUnlock(&s1, key), kNotFound);
    EXPECT_EQ(lock_compUnlock(&s1, 0x11), 0);
    EXPECT_EQ(lock_compUnlock(&s1, 0x11), kNotFound);
    EXPECT_EQ(s1.error, 42u);
    EXPECT_EQ(compList(), (List{1}));
}

TEST_F(LockTableTest, FullTableRecords78AndOneUnlockMakesRoom) {
    for (uint32_t key = 1; key <= 1024; ++key) ASSERT_EQ(lock_compLock(&s1, key * 8, kTry), 0) << key;
    s2.errorDetail = 5;
    EXPECT_EQ(lock_compLock(&s2, 0x7777, kTry | kShared), KESDB_ERR_LOCK_FULL);
    EXPECT_EQ(err(s2), Err(KESDB_ERR_LOCK_FULL, 0));
    EXPECT_EQ(lock_compLock(&s2, 8, kTry), kBusy);  // a conflict is found first
    EXPECT_EQ(lock_compLockW(&s2, 0x7777, kWait), KESDB_ERR_LOCK_FULL);
    EXPECT_EQ(lock_compUnlock(&s1, 512 * 8), 0);
    EXPECT_EQ(lock_compLock(&s2, 0x7777, kTry), 0);
    EXPECT_EQ(entry(512)[1], 0x7777u);
    EXPECT_EQ(compList().size(), 1024u);
    EXPECT_EQ(lock_compUnlockAll(), 0);
    EXPECT_EQ(word(4), 0u);
    EXPECT_EQ(freeCount(), 1024u);
    EXPECT_EQ(lock_compLock(&s2, 8, kTry), 0);
    EXPECT_EQ(compList().size(), 1u);
}

TEST_F(LockTableTest, ShowPrintsTheChosenLists) {
    std::string free = "\nfree  head ->";
    char item[16];
    for (int k = 4; k <= 1024; ++k) free += (snprintf(item, sizeof item, " %x", k), item);
    for (uint32_t key : {30, 10, 20}) ASSERT_EQ(lock_compLock(&s1, key, kTry), 0);
    EXPECT_EQ(show(7), free + "\ncomp  head -> 2:a 3:14 1:1e\nvalue head ->\n");
    EXPECT_EQ(show(8), "\n");
    ASSERT_EQ(lock_compUnlock(&s1, 10), 0);
    EXPECT_EQ(show(1), "\ncomp  head -> 3:14 1:1e\n");
}

TEST_F(LockTableTest, ModeDispatchWaitingThreadsAndValueLocks) {
    s1.errorDetail = 9;
    for (uint32_t mode : {2u, 0x1FFu}) EXPECT_EQ(comp_lock(&s1, 0x10, mode), KESDB_ERR_LOCK_MODE);
    EXPECT_EQ(err(s1), Err(KESDB_ERR_LOCK_MODE, 0));
    EXPECT_EQ(comp_lock(nullptr, 1, 2), KESDB_ERR_LOCK_MODE);
    EXPECT_EQ(word(4), 0u);
    EXPECT_EQ(comp_lock(&s1, 0x10, 0x100), 0);  // waits (nobody holds it)
    EXPECT_EQ(entry(1)[3], kShared);
    EXPECT_EQ(comp_lock(&s2, 0x10, 0x101), 0);  // tries: it would hang if it waited
    EXPECT_EQ(comp_lock(&s2, 0x10, 0x001), kBusy);
    for (int32_t rc : {0, 0, kNotFound}) EXPECT_EQ(comp_unlock(&s2, 0x10), rc);
    // A waiting request on a lock that another thread releases soon.
    ASSERT_EQ(comp_lock(&s1, 0x20, 0x001), 0);
    std::thread releaser([&] {
        usleep(60 * 1000);
        lock_compUnlock(&s2, 0x20);
    });
    EXPECT_EQ(comp_lock(&s3, 0x20, 0x000), 0);
    releaser.join();
    EXPECT_EQ(entry(compList().at(0))[2], 3u);
    const std::vector<uint8_t> before = kt::readBytes(path, 0, kSize);
    for (int32_t rc : {lock_valueLock(&s1, 0x20, kTry), lock_valueLockW(&s2, 0x20, kWait), lock_valueUnlock(&s1, 0x55),
                       lock_valueUnlockAll()})
        EXPECT_EQ(rc, 0);
    EXPECT_EQ(kt::readBytes(path, 0, kSize), before);
}

TEST_F(LockTableTest, NullSessionsAndCorruptListsChangeNothing) {
    EXPECT_EQ(lock_compLock(nullptr, 1, kTry), KESDB_ERR_NULLARG);
    EXPECT_EQ(lock_compLockW(nullptr, 1, kWait), KESDB_ERR_NULLARG);
    EXPECT_EQ(lock_compUnlock(nullptr, 1), KESDB_ERR_NULLARG);
    EXPECT_EQ(word(4), 0u);
    EXPECT_EQ(word(0), 1u);
    ASSERT_EQ(lock_compLock(&s1, 0x10, kTry), 0);
    ASSERT_EQ(lock_compLock(&s1, 0x20, kTry), 0);
    uint32_t bad = 1;  // entry 2 (key 0x20) points back to entry 1: a loop
    kt::writeBytes(path, 24 + 24 * 2 + 16, &bad, 4);
    EXPECT_EQ(lock_compLock(&s1, 0x30, kTry), kNoTable);
    EXPECT_EQ(err(s1), Err(kNoTable, 0));
    EXPECT_EQ(lock_compUnlock(&s1, 0x30), kNoTable);
    EXPECT_EQ(show(1).size(), std::string("\ncomp  head ->").size() + 1024 * 5 + 1);
    bad = 5000;  // an index outside the table: as head of the lock list, then of the free list
    kt::writeBytes(path, 4, &bad, 4);
    EXPECT_EQ(lock_compLock(&s1, 0x30, kTry), kNoTable);
    EXPECT_EQ(show(1), "\ncomp  head ->\n");
    EXPECT_EQ(lock_compUnlockAll(), 0);
    EXPECT_EQ(word(4), 0u);
    kt::writeBytes(path, 0, &bad, 4);
    EXPECT_EQ(lock_compLock(&s1, 0x30, kTry), kNoTable);
    EXPECT_EQ(word(4), 0u);
}

TEST_F(LockTableTest, ProcessesChangeTheTableUnderOneMutex) {
    std::vector<pid_t> pids;
    for (uint32_t p = 0; p < 4; ++p) {
        pids.push_back(kt::forkChild([&, p] {
            lock_term();
            if (lock_init(path.c_str()) != 0) return 10;
            Session s = session(10 + p);
            for (uint32_t r = 0; r < 400; ++r) {
                const uint32_t key = p * 100000 + r % 7;
                if (lock_compLock(&s, key, kTry) != 0 || lock_compLock(&s, key + 50, kTry | kShared) != 0) return 11;
                if (lock_compUnlock(&s, key) != 0 || lock_compUnlock(&s, key + 50) != 0) return 12;
            }
            return 0;
        }));
    }
    for (pid_t pid : pids) EXPECT_EQ(kt::waitChild(pid), 0);
    EXPECT_TRUE(compList().empty());
    EXPECT_EQ(freeCount(), 1024u);
}

TEST(LockTable, MissingShortOrEmptyTableFiles) {
    kt::TempDir dir;
    const std::string missing = dir.file("no/such/dir/lock.tbl"), shortFile = dir.file("short.tbl");
    kt::writeFile(shortFile, std::string(100, 'x'));
    // No table (start-up goes on) or a short one (refused, left alone): the lock calls report 87.
    for (auto [table, initResult] :
         {std::pair<const char*, int32_t>{missing.c_str(), 0}, {nullptr, 0}, {shortFile.c_str(), kNoTable}}) {
        SCOPED_TRACE(table ? table : "(null)");
        ASSERT_EQ(lock_init(table), initResult);
        Session s = session(1);
        EXPECT_EQ(lock_compLock(&s, 1, kTry), kNoTable);
        EXPECT_EQ(err(s), Err(kNoTable, 0));
        EXPECT_EQ(lock_compLockW(&s, 1, kWait), kNoTable);
        EXPECT_EQ(lock_compUnlock(&s, 1), kNoTable);
        EXPECT_EQ(lock_compUnlockAll(), kNoTable);
        EXPECT_EQ(show(7), "\n");
        EXPECT_EQ(lock_term(), 0);
    }
    EXPECT_EQ(kt::readFile(shortFile), std::string(100, 'x'));
    const std::string emptyFile = dir.file("empty.tbl");  // laid down as a fresh table
    kt::writeFile(emptyFile, "");
    ASSERT_EQ(lock_init(emptyFile.c_str()), 0);
    EXPECT_EQ(kt::readFile(emptyFile).size(), kSize);
    Session s = session(1);
    EXPECT_EQ(lock_compLock(&s, 1, kTry), 0);
    EXPECT_EQ(lock_term(), 0);
}

TEST(Sems, SetsBindToThePathAndFreeingKeepsThem) {
    kt::TempDir dir;
    const std::string path = dir.file("table");
    SemSet set{};
    ASSERT_EQ(misc_getSems(&set, path.c_str()), 0);
    EXPECT_EQ(access((path + ".sem").c_str(), F_OK), 0);
    uint32_t plain = 0;  // the key is cleared afterwards: a plain create is private
    ASSERT_EQ(kesOSWCreateMutexSem(&plain, 0, 1), 0);
    EXPECT_NE(plain, set.mutex);
    SemSet again{};
    ASSERT_EQ(misc_getSems(&again, path.c_str()), 0);
    EXPECT_TRUE(again.mutex == set.mutex && again.counter == set.counter && again.event == set.event);
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
    // The reset posts the event: a waiter in another process wakes at once.
    EXPECT_TRUE(ok::wakesAtOnce([&] { return misc_waitEvent(&set); }, [&] { return misc_resetEvent(&set); }));
    SemSet unbound{0xAAAA, 0xBBBB, 0xCCCC};  // a path that cannot be bound is refused
    EXPECT_EQ(misc_getSems(&unbound, dir.file("no/such/dir/t").c_str()), KESOSW_ERR_SYSTEM);
    EXPECT_EQ(unbound.mutex, 0xAAAAu);
    EXPECT_EQ(misc_getSems(nullptr, path.c_str()), KESDB_ERR_NULLARG);
    EXPECT_EQ(misc_waitMtx(nullptr), KESDB_ERR_NULLARG);
}

}  // namespace
