// Test support for tests with several processes: a pipe that children report on (a byte
// that says "here I am", or a time stamp), and a clock that all processes share.
#pragma once

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <vector>

#include "testkit.hpp"

namespace pk {

// Nanoseconds of the monotonic clock, the same clock in every process of the machine.
inline int64_t nowNs() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

inline double toMs(int64_t ns) { return static_cast<double>(ns) / 1e6; }

// A pipe a forked child writes fixed-size messages into and the test reads them from.
class Pipe {
public:
    Pipe() {
        if (pipe(fd_) != 0) fd_[0] = fd_[1] = -1;
    }
    ~Pipe() {
        for (int f : fd_)
            if (f >= 0) close(f);
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    bool ok() const { return fd_[0] >= 0; }

    template <class T>
    bool send(const T& value) const {
        return write(fd_[1], &value, sizeof value) == static_cast<ssize_t>(sizeof value);
    }
    // A message, waiting at most `timeoutMs` times the build's time scale; false when none
    // came (0: only look).
    template <class T>
    bool receive(T& value, int timeoutMs) const {
        pollfd p{fd_[0], POLLIN, 0};
        if (poll(&p, 1, timeoutMs * kt::timeScale()) != 1) return false;
        return read(fd_[0], &value, sizeof value) == static_cast<ssize_t>(sizeof value);
    }
    // Whether a message is waiting, without taking it.
    bool pending() const {
        pollfd p{fd_[0], POLLIN, 0};
        return poll(&p, 1, 0) == 1;
    }

private:
    int fd_[2];
};

// Forked children of a test. Those the test has not waited for when it ends (a failed
// assertion left them blocked) are killed and reaped, so no process outlives its test.
class Children {
public:
    Children() = default;
    ~Children() {
        for (pid_t p : pids_) {
            kill(p, SIGKILL);
            waitpid(p, nullptr, 0);
        }
    }
    Children(const Children&) = delete;
    Children& operator=(const Children&) = delete;

    pid_t start(const std::function<int()>& body) {
        const pid_t p = kt::forkChild(body);
        if (p > 0) pids_.push_back(p);
        return p;
    }
    // The child's exit status as kt::waitChild gives it.
    int wait(pid_t p) {
        pids_.erase(std::remove(pids_.begin(), pids_.end(), p), pids_.end());
        return kt::waitChild(p);
    }

private:
    std::vector<pid_t> pids_;
};

// A child's body: opens a session of database `dbId`, says so on `started`, waits for an
// exclusive lock of `key`, sends the time it got it (or gave up) on `done`, then unlocks and
// closes its session. 0 when every call succeeded.
inline int lockWhenFree(uint32_t dbId, uint32_t key, const Pipe& started, const Pipe& done) {
    Session own{};
    if (kesDBMInitSession(&own, dbId) != 0) return 1;
    started.send('w');
    const int32_t rc = kesDBMLock(&own, key, 0x0000);
    done.send(nowNs());
    if (rc != 0) return 2;
    if (kesDBMUnlock(&own, key) != 0) return 3;
    return kesDBMTermSession(&own) == 0 ? 0 : 4;
}

}  // namespace pk
