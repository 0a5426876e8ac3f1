#include "progress.hpp"

#include <unistd.h>

#include <cstdio>

namespace kesdb {

namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kQuiet = std::chrono::seconds(1);
constexpr auto kInterval = std::chrono::milliseconds(100);

}  // namespace

Progress::Progress(std::string what, uint64_t total, const char* unit)
    : what_(std::move(what)),
      unit_(unit),
      total_(total),
      terminal_(isatty(2) == 1),
      start_(Clock::now()),
      last_(start_) {}

Progress::~Progress() {
    if (!shown_) return;
    last_ = Clock::time_point{};
    show();
    std::fputc('\n', stderr);
}

void Progress::show() {
    if (!terminal_) return;
    const auto now = Clock::now();
    if (now - start_ < kQuiet || now - last_ < kInterval) return;
    last_ = now;
    shown_ = true;
    if (total_ != 0)
        std::fprintf(stderr, "\r%s: %llu of %llu %s (%llu%%)", what_.c_str(),
                     static_cast<unsigned long long>(done_), static_cast<unsigned long long>(total_), unit_,
                     static_cast<unsigned long long>(done_ * 100 / total_));
    else
        std::fprintf(stderr, "\r%s: %llu %s", what_.c_str(), static_cast<unsigned long long>(done_), unit_);
    std::fflush(stderr);
}

}  // namespace kesdb
