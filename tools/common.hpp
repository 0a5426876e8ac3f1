// kesdb: what every part of the tool shares: failures, exit codes, interruption.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

namespace kesdb {

// Descriptions keep their keys in the order written, so an export reads like its source.
using json = nlohmann::ordered_json;

// Exit status: 0 success, 1 usage error, 2 data or library error, 5 a lock is held by
// another session (after waiting), 130 interrupted.
constexpr int kExitOk = 0;
constexpr int kExitUsage = 1;
constexpr int kExitData = 2;
constexpr int kExitBusy = 5;
constexpr int kExitInterrupted = 130;

// An error that ends the command: the message for standard error (without "kesdb: ")
// and the exit status. Thrown by fail() and caught in main(); it never reaches the library.
struct Failure {
    std::string what;
    int code;
};

[[noreturn]] void fail(const std::string& what, int code = kExitData);

// "66 KESDB_ERR_CSTRT_BELOWMIN": a library code with its name.
std::string codeText(int32_t code);

// SIGINT, SIGTERM and SIGHUP only set a flag: the command notices it between library
// calls, gives its session back and leaves with 130, so a waiting lock or an import that
// is stopped leaves no session entry and no half-written database behind.
void installSignalHandlers();
bool interrupted();
[[noreturn]] void failInterrupted();
void checkInterrupted();

}  // namespace kesdb
