#include "common.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <csignal>

#include "kesdbm/session.h"

namespace kesdb {

namespace {
volatile std::sig_atomic_t g_interrupted = 0;
extern "C" void onSignal(int) { g_interrupted = 1; }
}  // namespace

void fail(const std::string& what, int code) { throw Failure{what, code}; }

std::string childPath(std::string_view parent, std::string_view name) {
    if (parent == "/") parent = {};
    std::string path;
    path.reserve(parent.size() + 1 + name.size());
    path.append(parent).append(1, '/').append(name);
    return path;
}

std::string printable(const std::string& message) {
    std::string out;
    for (const unsigned char c : message) {
        if ((c < 0x20 && c != '\n') || c == 0x7f) {
            char hex[5];
            std::snprintf(hex, sizeof hex, "\\x%02x", c);
            out += hex;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

std::string codeText(int32_t code) { return std::to_string(code) + " " + kesdb_errorName(code); }

void failCode(const std::string& what, int32_t code) { fail(what + ": " + codeText(code), exitFor(code)); }

int exitFor(int32_t code) {
    switch (code) {
        case KESDB_ERR_COMP_ENDSEARCH:
        case KESDB_ERR_COMP_NOMATCH:
            return kExitNoPath;
        case KESDB_ERR_HOOK_PREGET:
        case KESDB_ERR_HOOK_POSTGET:
        case KESDB_ERR_HOOK_PRESET:
        case KESDB_ERR_HOOK_POSTSET:
        case KESDB_ERR_CSTRT_TYPE:
        case KESDB_ERR_CSTRT_LENGTH:
        case KESDB_ERR_CSTRT_BELOWMIN:
        case KESDB_ERR_CSTRT_ABOVEMAX:
        case KESDB_ERR_CSTRT_STEP:
        case KESDB_ERR_CSTRT_NOTMEMBER:
            return kExitRefused;
        case KESDB_ERR_LOCK_BUSY:
            return kExitBusy;
        default:
            return kExitData;
    }
}

namespace {
FILE* g_data = stdout;
}

void separateOutput() {
    std::fflush(stdout);
    const int own = fcntl(1, F_DUPFD_CLOEXEC, 3);
    if (own < 0) return;  // no standard output at all: everything stays where it is
    FILE* f = fdopen(own, "w");
    if (!f) {
        close(own);
        return;
    }
    g_data = f;
    dup2(2, 1);
    // Diagnostics now share standard error with the tool's messages, line by line.
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
}

void quietDiagnostics() {
    std::fflush(stdout);
    const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (null < 0 || g_data == stdout) {
        if (null >= 0) close(null);
        return;
    }
    dup2(null, 1);
    close(null);
}

FILE* data() { return g_data; }

void installSignalHandlers() {
    struct sigaction sa {};
    sa.sa_handler = onSignal;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0;  // no SA_RESTART: a sleeping wait returns at once
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) sigaction(sig, &sa, nullptr);
}

bool interrupted() { return g_interrupted != 0; }

void failInterrupted() { fail("interrupted", kExitInterrupted); }

void checkInterrupted() {
    if (interrupted()) failInterrupted();
}

}  // namespace kesdb
