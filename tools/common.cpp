#include "common.hpp"

#include <csignal>

#include "kesdbm/session.h"

namespace kesdb {

namespace {
volatile std::sig_atomic_t g_interrupted = 0;
extern "C" void onSignal(int) { g_interrupted = 1; }
}  // namespace

void fail(const std::string& what, int code) { throw Failure{what, code}; }

std::string codeText(int32_t code) { return std::to_string(code) + " " + kesdb_errorName(code); }

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
