// kesdb: what every part of the tool shares: failures, exit codes, interruption.
#pragma once

#include <cstdint>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

namespace kesdb {

// Descriptions keep their keys in the order written, so an export reads like its source.
using json = nlohmann::ordered_json;

// Exit status, for scripts to branch on: 0 success, 1 usage error, 2 data or library error,
// 3 no such path, 4 refused by a constraint or a hook, 5 lock busy or wait timed out,
// 130 interrupted.
constexpr int kExitOk = 0;
constexpr int kExitUsage = 1;
constexpr int kExitData = 2;
constexpr int kExitNoPath = 3;
constexpr int kExitRefused = 4;
constexpr int kExitBusy = 5;
constexpr int kExitInterrupted = 130;

// The exit status for a library code: 3 for a search that found nothing, 4 for a
// constraint's or a hook's refusal, 5 for a busy lock, 2 for anything else.
int exitFor(int32_t code);

// An error that ends the command: the message for standard error (without "kesdb: ")
// and the exit status. Thrown by fail() and caught in main(); it never reaches the library.
struct Failure {
    std::string what;
    int code;
};

[[noreturn]] void fail(const std::string& what, int code = kExitData);
// A message as printed: control characters other than line ends (a NUL in a name read from a
// description or a medium) as \xNN, so that nothing cuts or garbles it.
std::string printable(const std::string& message);

// The path of the child `name` of the component at `parent` ("/" for the root's children).
std::string childPath(std::string_view parent, std::string_view name);

// "66 KESDB_ERR_CSTRT_BELOWMIN": a library code with its name.
std::string codeText(int32_t code);
// Fails with "WHAT: CODE NAME" and the exit status of the code.
[[noreturn]] void failCode(const std::string& what, int32_t code);

// Standard output carries only what a command was asked for, and the library prints its
// diagnostics there with printf. So the tool, first thing, keeps its standard output for
// itself (data()) and points descriptor 1 at standard error; quietDiagnostics() sends it to
// /dev/null instead (-q).
void separateOutput();
void quietDiagnostics();
FILE* data();

// SIGINT, SIGTERM and SIGHUP only set a flag: the command notices it between library
// calls, gives its session back and leaves with 130, so a waiting lock or an import that
// is stopped leaves no session entry and no half-written database behind.
void installSignalHandlers();
bool interrupted();
[[noreturn]] void failInterrupted();
void checkInterrupted();

}  // namespace kesdb
