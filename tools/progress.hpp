// kesdb: progress of long work on standard error.
//
// Nothing is shown unless standard error is a terminal and the work has lasted over a
// second; then one line is rewritten in place at most ten times a second, and ended with a
// newline when the work is done, so that messages after it start on a line of their own.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace kesdb {

class Progress {
public:
    // `what` starts the line ("create"); `total` is the number of steps, 0 when unknown;
    // `unit` names what a step does. The work is taken to start now.
    Progress(std::string what, uint64_t total, const char* unit = "components");
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    // The number of steps, once known (0: unknown).
    void setTotal(uint64_t total) { total_ = total; }
    uint64_t done() const { return done_; }
    // One more step done.
    void step() {
        if (++done_ % kStride == 0) show();
    }

private:
    static constexpr uint64_t kStride = 256;  // steps between looks at the clock
    void show();

    std::string what_;
    const char* unit_;
    uint64_t total_;
    uint64_t done_ = 0;
    bool terminal_;
    bool shown_ = false;
    std::chrono::steady_clock::time_point start_, last_;
};

}  // namespace kesdb
