// Component locks used the way applications use them: processes serialise their
// read-modify-write sequences on a leaf through kesDBMLock/kesDBMUnlock.
#include <gtest/gtest.h>

#include <unistd.h>

#include <vector>

#include "testkit.hpp"
#include "treekit.hpp"

namespace {

constexpr uint32_t kExclusiveWait = 0x0000;
constexpr uint32_t kSharedTry = 0x0101;
constexpr uint32_t kExclusiveTry = 0x0001;

struct LockedCounter : ::testing::Test {
    kt::Db db;
    Session* s = &db.s;
    uint32_t root = 0, counter = 0;
    void SetUp() override {
        ASSERT_GT(db.id, 0);
        root = tk::makeRoot(s, "/");
        ASSERT_NE(root, 0u);
        counter = tk::leaf(s, root, 0, "counter", tk::u32(s, 0));
        ASSERT_NE(counter, 0u);
    }
};

TEST_F(LockedCounter, EightProcessesIncrementingUnderTheLockLoseNoUpdate) {
    constexpr int kProcesses = 8;
    constexpr int kRounds = 100;
    std::vector<pid_t> children;
    for (int p = 0; p < kProcesses; ++p) {
        children.push_back(kt::forkChild([this] {
            Session own{};
            if (kesDBMInitSession(&own, static_cast<uint32_t>(db.id)) != 0) return 10;
            for (int i = 0; i < kRounds; ++i) {
                if (kesDBMLock(&own, counter, kExclusiveWait) != 0) return 11;
                uint32_t v = 0;
                if (kesDBMGetUint32(&own, counter, &v) != 0) return 12;
                if (kesDBMSetUint32(&own, counter, v + 1) != 0) return 13;
                if (kesDBMUnlock(&own, counter) != 0) return 14;
            }
            return kesDBMTermSession(&own) == 0 ? 0 : 15;
        }));
    }
    for (pid_t pid : children) EXPECT_EQ(kt::waitChild(pid), 0);
    uint32_t total = 0;
    ASSERT_EQ(kesDBMGetUint32(s, counter, &total), 0);
    EXPECT_EQ(total, static_cast<uint32_t>(kProcesses * kRounds));
    // Every lock was given back.
    EXPECT_EQ(kt::captureStdout([] { lock_show(1); }), "\ncomp  head ->\n");
}

TEST_F(LockedCounter, LockHeldByOneProcessIsSeenByAnother) {
    ASSERT_EQ(kesDBMLock(s, counter, kExclusiveTry), 0);
    EXPECT_EQ(kt::runChild([this] {
                  Session own{};
                  kesDBMInitSession(&own, static_cast<uint32_t>(db.id));
                  return kesDBMLock(&own, counter, kSharedTry);
              }),
              KESDB_ERR_LOCK_BUSY);
    // A waiting child gets the lock once this process lets go of it.
    pid_t waiter = kt::forkChild([this] {
        Session own{};
        kesDBMInitSession(&own, static_cast<uint32_t>(db.id));
        if (kesDBMLock(&own, counter, kExclusiveWait) != 0) return 1;
        return kesDBMUnlock(&own, counter);
    });
    usleep(100 * 1000);
    ASSERT_EQ(kesDBMUnlock(s, counter), 0);
    EXPECT_EQ(kt::waitChild(waiter), 0);
    EXPECT_EQ(kesDBMUnlock(s, counter), KESDB_ERR_LOCK_NOTFOUND);
    EXPECT_EQ(kesDBMLock(s, counter, 2), KESDB_ERR_LOCK_MODE);
    EXPECT_EQ(db.s.error, static_cast<uint32_t>(KESDB_ERR_LOCK_MODE));
}

}  // namespace
