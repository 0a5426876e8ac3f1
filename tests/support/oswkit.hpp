// Test support for semaphores and locks: a clock, a page shared with forked children, and
// bounded waits for children.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <functional>
#include <string>

#include "testkit.hpp"

namespace ok {

inline double nowMs(clockid_t clock = CLOCK_MONOTONIC) {
    timespec ts{};
    clock_gettime(clock, &ts);
    return ts.tv_sec * 1000.0 + ts.tv_nsec / 1e6;
}

// A zero-filled page in a file, mapped shared: words the parent and forked children all see.
class SharedPage {
public:
    explicit SharedPage(const std::string& path) {
        int fd = open(path.c_str(), O_RDWR | O_CREAT, 0600);
        if (fd < 0) return;
        void* map = MAP_FAILED;
        if (ftruncate(fd, 4096) == 0) map = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        close(fd);
        if (map != MAP_FAILED) words = static_cast<volatile uint32_t*>(map);
    }
    ~SharedPage() {
        if (words) munmap(const_cast<uint32_t*>(words), 4096);
    }
    SharedPage(const SharedPage&) = delete;
    SharedPage& operator=(const SharedPage&) = delete;
    volatile uint32_t* words = nullptr;
};

// True while a child started by kt::forkChild has not ended (it is not reaped).
inline bool running(pid_t pid) {
    siginfo_t info{};
    return waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid == 0;
}

// Waits at most `ms` for such a child; one still running then is killed. Its exit status as
// kt::waitChild gives it, or -1 when it had to be killed.
inline int waitWithin(pid_t pid, double ms) {
    for (double start = nowMs(); running(pid) && nowMs() - start < ms;) usleep(1000);
    if (!running(pid)) return kt::waitChild(pid);
    kill(pid, SIGKILL);
    kt::waitChild(pid);
    return -1;
}

// True when `wait` returns 0 well before the event's 25 ms poll interval would end it, woken by
// `post` run in another process 5 ms after the wait began. The poster is started, and has posted
// once already (a post nobody waits for), before the wait begins, so the cost of starting a
// process (large under an emulator) falls outside the measured time. Scheduling delays may
// spoil one attempt, so up to five are made.
inline bool wakesAtOnce(const std::function<int()>& wait, const std::function<int()>& post) {
    void* map = mmap(nullptr, 2 * sizeof(uint32_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (map == MAP_FAILED) return false;
    auto* flags = static_cast<volatile uint32_t*>(map);  // [0] poster ready, [1] wait begins
    bool woken = false;
    for (int attempt = 0; attempt < 5 && !woken; ++attempt) {
        flags[0] = 0;
        flags[1] = 0;
        pid_t poster = kt::forkChild([&] {
            if (post() != 0) return 1;
            flags[0] = 1;
            for (double start = nowMs(); flags[1] == 0; usleep(100))
                if (nowMs() - start > 10000.0) return 2;
            usleep(5 * 1000);
            return post();
        });
        for (double start = nowMs(); flags[0] == 0 && nowMs() - start < 10000.0;) usleep(100);
        flags[1] = 1;
        const double start = nowMs();
        const bool quick = wait() == 0 && nowMs() - start < 18.0;
        if (kt::waitChild(poster) != 0) break;
        woken = quick;
    }
    munmap(map, 2 * sizeof(uint32_t));
    return woken;
}

}  // namespace ok
