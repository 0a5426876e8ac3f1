// Component locks used the way applications use them: processes serialise their
// read-modify-write sequences on a leaf through kesDBMLock/kesDBMUnlock.
#include <gtest/gtest.h>

#include <vector>

#include "testkit.hpp"
#include "treekit.hpp"

TEST(LockedCounter, EightProcessesIncrementingUnderTheLockLoseNoUpdate) {
    constexpr int kProcesses = 8, kRounds = 100;
    kt::Db db;
    ASSERT_GT(db.id, 0);
    const uint32_t counter = tk::leaf(&db.s, tk::makeRoot(&db.s, "/"), 0, "counter", tk::u32(&db.s, 0));
    ASSERT_NE(counter, 0u);
    std::vector<pid_t> children;
    for (int p = 0; p < kProcesses; ++p) {
        children.push_back(kt::forkChild([&] {
            Session own{};
            if (kesDBMInitSession(&own, static_cast<uint32_t>(db.id)) != 0) return 10;
            for (int i = 0; i < kRounds; ++i) {
                uint32_t v = 0;
                if (kesDBMLock(&own, counter, 0) != 0 || kesDBMGetUint32(&own, counter, &v) != 0) return 11;
                if (kesDBMSetUint32(&own, counter, v + 1) != 0 || kesDBMUnlock(&own, counter) != 0) return 12;
            }
            return kesDBMTermSession(&own) == 0 ? 0 : 13;
        }));
    }
    for (pid_t pid : children) EXPECT_EQ(kt::waitChild(pid), 0);
    uint32_t total = 0;
    ASSERT_EQ(kesDBMGetUint32(&db.s, counter, &total), 0);
    EXPECT_EQ(total, static_cast<uint32_t>(kProcesses * kRounds));
    EXPECT_EQ(kt::captureStdout([] { lock_show(1); }), "\ncomp  head ->\n");  // every lock given back
}
