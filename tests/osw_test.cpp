// The operating-system wrapper: handles, keyed semaphores shared between processes, private
// semaphores shared between threads, the event's bounded wait, and memory.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "kesosw.h"
#include "oswkit.hpp"

namespace {

constexpr uint32_t kForever = 0xFFFFFFFFu;

// Increments the counter without any atomicity; only the mutex keeps the total exact.
void slowIncrement(volatile uint32_t* counter) {
    uint32_t v = *counter;
    for (int spin = 0; spin < 20; ++spin) asm volatile("" ::: "memory");
    *counter = v + 1;
}

// Creates the mutex (or counting semaphore) of `key` in this process; 0 when that fails.
uint32_t keyed(const std::string& key, bool count = false) {
    uint32_t handle = 0;
    if (kesOSWSetCreateKey(key.c_str()) != 0) return 0;
    if ((count ? kesOSWCreateCountSem(&handle, 0, 0) : kesOSWCreateMutexSem(&handle, 0, 1)) != 0) handle = 0;
    kesOSWSetCreateKey(nullptr);
    return handle;
}

TEST(Osw, PrivateMutexExcludesThreadsAndCountSemaphoreCounts) {
    uint32_t mutex = 0;
    ASSERT_EQ(kesOSWCreateMutexSem(&mutex, 0, 1), 0);
    uint32_t counter = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 20000; ++i) {
                if (kesOSWRequestMutexSem(mutex, kForever) != 0) continue;  // the count comes out short
                slowIncrement(&counter);
                kesOSWReleaseMutexSem(mutex);
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(counter, 80000u);

    uint32_t count = 0;
    ASSERT_EQ(kesOSWCreateCountSem(&count, 0, 2), 0);
    EXPECT_EQ(kesOSWWaitCountSem(count, 0), 0);
    EXPECT_EQ(kesOSWWaitCountSem(count, 0), 0);
    EXPECT_EQ(kesOSWWaitCountSem(count, 30), KESOSW_ERR_SYSTEM);
    EXPECT_EQ(errno, ETIMEDOUT);
    std::thread poster([&] {
        usleep(50 * 1000);
        kesOSWPostCountSem(count);
    });
    EXPECT_EQ(kesOSWWaitCountSem(count, 0), 0);  // 0: no time limit
    poster.join();
}

// Keyed mutexes come in two kinds, chosen when a set is laid down and recorded in the first
// word of its file: the robust kind ("KSM1") where the kernel keeps a robust list for the
// process (natively), the tracked kind ("KSM2") where it does not (under a user-mode emulator)
// or when KESOSW_MUTEX=tracked asks for it. Each case runs with either kind asked for.
class KeyedMutex : public ::testing::TestWithParam<const char*> {
protected:
    void SetUp() override { setenv("KESOSW_MUTEX", GetParam(), 1); }
    void TearDown() override { unsetenv("KESOSW_MUTEX"); }
    void expectKind() const {
        void* head = nullptr;
        size_t length = 0;
        const bool robustList = syscall(SYS_get_robust_list, 0, &head, &length) == 0 && head != nullptr;
        const bool tracked = std::string(GetParam()) == "tracked" || !robustList;
        EXPECT_EQ(kt::readWord(key + ".sem", 0), tracked ? 0x4B534D32u : 0x4B534D31u);
    }
    kt::TempDir dir;
    const std::string key = dir.file("table");
};
INSTANTIATE_TEST_SUITE_P(Kinds, KeyedMutex, ::testing::Values("robust", "tracked"),
                         [](const auto& kind) { return std::string(kind.param); });

TEST_P(KeyedMutex, ExcludesAcrossProcesses) {
    ok::SharedPage page(dir.file("counter"));
    ASSERT_NE(page.words, nullptr);
    // Each child binds the key itself, at the same moment: they lay the set down together.
    // Each posts the counting semaphore once when done.
    auto body = [&] {
        uint32_t mutex = keyed(key);
        for (int i = 0; i < 20000; ++i) {
            if (mutex == 0 || kesOSWRequestMutexSem(mutex, kForever) != 0) return 10;
            slowIncrement(page.words);
            if (kesOSWReleaseMutexSem(mutex) != 0) return 11;
        }
        const uint32_t count = keyed(key, true);
        return count != 0 && kesOSWPostCountSem(count) == 0 ? 0 : 12;
    };
    const pid_t pids[3] = {kt::forkChild(body), kt::forkChild(body), kt::forkChild(body)};
    for (pid_t pid : pids) EXPECT_EQ(kt::waitChild(pid), 0);
    EXPECT_EQ(page.words[0], 60000u);
    const uint32_t count = keyed(key, true);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(kesOSWWaitCountSem(count, 2000), 0) << i;
    EXPECT_EQ(kesOSWWaitCountSem(count, 50), KESOSW_ERR_SYSTEM);
    EXPECT_EQ(errno, ETIMEDOUT);
    expectKind();
}

TEST_P(KeyedMutex, KilledHolderIsTakenOver) {
    ok::SharedPage flag(dir.file("flag"));
    ASSERT_NE(flag.words, nullptr);
    pid_t holder = kt::forkChild([&] {
        uint32_t mutex = keyed(key);
        if (mutex == 0 || kesOSWRequestMutexSem(mutex, kForever) != 0) return 1;
        flag.words[0] = 1;
        for (;;) pause();
    });
    for (int i = 0; i < 500 && flag.words[0] == 0; ++i) usleep(10 * 1000);
    ASSERT_EQ(flag.words[0], 1u);
    const uint32_t mutex = keyed(key);
    ASSERT_NE(mutex, 0u);
    EXPECT_EQ(kesOSWRequestMutexSem(mutex, 100), KESOSW_ERR_SYSTEM);  // really taken
    EXPECT_EQ(errno, ETIMEDOUT);

    kill(holder, SIGKILL);
    EXPECT_EQ(kt::waitChild(holder), 128 + SIGKILL);
    // Another process takes it over at once (the time limit only bounds a failing test), and
    // then this process takes and gives it normally.
    EXPECT_EQ(kt::runChild([&] {
                  const uint32_t m = keyed(key);
                  const double start = ok::nowMs();
                  if (m == 0 || kesOSWRequestMutexSem(m, 3000 * kt::timeScale()) != 0) return 2;
                  if (ok::nowMs() - start > 1000.0 * kt::timeScale()) return 3;
                  return kesOSWReleaseMutexSem(m) == 0 ? 0 : 4;
              }),
              0);
    EXPECT_EQ(kesOSWRequestMutexSem(mutex, 3000), 0);
    EXPECT_EQ(kesOSWReleaseMutexSem(mutex), 0);
    expectKind();
}

TEST_P(KeyedMutex, OwnerChecksAndEndedHolderThread) {
    const uint32_t mutex = keyed(key);
    ASSERT_NE(mutex, 0u);
    expectKind();
    // Error checking as for a private mutex: no second request by the owner, no release by
    // another thread or process, no release of a free mutex.
    ASSERT_EQ(kesOSWRequestMutexSem(mutex, kForever), 0);
    EXPECT_EQ(kesOSWRequestMutexSem(mutex, kForever), KESOSW_ERR_SYSTEM);
    EXPECT_EQ(errno, EDEADLK);
    int strangerResult = 0, strangerErrno = 0;
    std::thread([&] {
        strangerResult = kesOSWReleaseMutexSem(mutex);
        strangerErrno = errno;
    }).join();
    EXPECT_EQ(strangerResult, KESOSW_ERR_SYSTEM);
    EXPECT_EQ(strangerErrno, EPERM);
    EXPECT_EQ(kt::runChild([&] { return kesOSWReleaseMutexSem(keyed(key)) == KESOSW_ERR_SYSTEM ? 0 : 1; }), 0);
    // Another thread waits for its time limit, then gets it once it is released.
    double waited = 0;
    int waitResult = 0;
    std::thread([&] {
        const double start = ok::nowMs();
        waitResult = kesOSWRequestMutexSem(mutex, 150);
        waited = ok::nowMs() - start;
    }).join();
    EXPECT_EQ(waitResult, KESOSW_ERR_SYSTEM);
    EXPECT_GE(waited, 140.0);
    EXPECT_EQ(kesOSWReleaseMutexSem(mutex), 0);
    EXPECT_EQ(kesOSWReleaseMutexSem(mutex), KESOSW_ERR_SYSTEM);

    // A thread that ends while holding it does not block the others.
    std::thread([&] { EXPECT_EQ(kesOSWRequestMutexSem(mutex, kForever), 0); }).join();
    const double start = ok::nowMs();
    EXPECT_EQ(kesOSWRequestMutexSem(mutex, 3000 * kt::timeScale()), 0);
    EXPECT_LT(ok::nowMs() - start, 1000.0 * kt::timeScale());
    EXPECT_EQ(kesOSWReleaseMutexSem(mutex), 0);
}

TEST(Osw, KeyedSetsAreMappedOncePerProcessAndKeyedByFile) {
    kt::TempDir dir;
    const uint32_t first = keyed(dir.file("t"));
    ASSERT_NE(first, 0u);
    // The same key, even spelled differently, gives back the same handle: nothing leaks.
    for (int i = 0; i < 3000; ++i) ASSERT_EQ(keyed(dir.file("t")), first);
    EXPECT_EQ(keyed(dir.path() + "/./t"), first);
    const uint32_t other = keyed(dir.file("u"));
    EXPECT_TRUE(other != 0 && other != first);
    // With the key cleared the objects are private again.
    uint32_t priv = 0;
    ASSERT_EQ(kesOSWCreateMutexSem(&priv, 0, 1), 0);
    EXPECT_TRUE(priv != first && priv != other);

    // A key whose sidecar cannot be created fails instead of giving a private mutex.
    uint32_t handle = 12345;
    ASSERT_EQ(kesOSWSetCreateKey("/nonexistent-dir-kesdbm/x"), 0);
    EXPECT_EQ(kesOSWCreateMutexSem(&handle, 0, 1), KESOSW_ERR_SYSTEM);
    EXPECT_EQ(errno, ENOENT);
    kesOSWSetCreateKey(nullptr);
    EXPECT_EQ(handle, 12345u);
}

TEST(Osw, EventWaitIsBoundedAndDoesNotSpin) {
    kt::TempDir dir;
    uint32_t event = 0;
    ASSERT_EQ(kesOSWSetCreateKey(dir.file("t").c_str()), 0);
    ASSERT_EQ(kesOSWCreateEventSem(&event, 0, 0), 0);
    kesOSWSetCreateKey(nullptr);

    // A post that came before the wait is missed; the wait still ends soon with 0.
    ASSERT_EQ(kesOSWPostEventSem(event), 0);
    double start = ok::nowMs();
    EXPECT_EQ(kesOSWWaitEventSem(event, 0), 0);
    const double waited = ok::nowMs() - start;
    EXPECT_TRUE(waited >= 5.0 && waited < 200.0 * kt::timeScale()) << waited;

    // Waiting again and again for 300 ms costs almost no processor time.
    const double cpuStart = ok::nowMs(CLOCK_PROCESS_CPUTIME_ID);
    int waits = 0;
    for (start = ok::nowMs(); ok::nowMs() - start < 300.0; ++waits) ASSERT_EQ(kesOSWWaitEventSem(event, 0), 0);
    EXPECT_LT(ok::nowMs(CLOCK_PROCESS_CPUTIME_ID) - cpuStart, 30.0 * kt::timeScale());
    EXPECT_LE(waits, 40);

    // A post from another process wakes a waiter at once.
    EXPECT_TRUE(
        ok::wakesAtOnce([&] { return kesOSWWaitEventSem(event, 0); }, [&] { return kesOSWPostEventSem(event); }));
}

}  // namespace
