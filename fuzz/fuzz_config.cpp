// Fuzz target: the media configuration and hook configuration parsers.
//
// The input is a configuration file. Each run writes it to a memory file and loads it twice:
// as the media configuration (media_init, one driver per line) and as the hook configuration
// (hook_init, one hook per line); both use the same syntax, so lines meant for one parser are
// malformed or unknown lines for the other. Library names go through the loader guard
// (support.hpp): the project's driver and hook libraries load, every other name is a library
// that does not exist. After each load the run checks what the tables hold and undoes the load
// (media_term, hook_term), so every run starts from the state before start-up.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>

#include "support.hpp"

namespace {

int g_fd = -1;
std::string g_path;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    kf::setUp();
    g_fd = memfd_create("kesdb-fuzz-config", 0);
    if (g_fd < 0) kf::fail("memfd_create");
    g_path = "/proc/self/fd/" + std::to_string(g_fd);
    kf::capAllocations();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (ftruncate(g_fd, 0) != 0 || pwrite(g_fd, data, size, 0) != static_cast<ssize_t>(size)) kf::fail("memfd write");

    // Media configuration.
    const int32_t r = media_init(g_path.c_str());
    if (r != 0 && r != KESDB_ERR_MEDIA_CONFOPEN && r != KESDB_ERR_NOMEM &&
        (r < KESDB_ERR_MEDIA_SYMOPEN || r > KESDB_ERR_MEDIA_LOAD))
        kf::fail("media_init returned a code it does not have");
    const int32_t count = media_getCount();
    if (count < 1 || count > KESDB_MEDIA_MAX) kf::fail("media count out of range");
    for (int32_t i = 1; i < count; ++i) {
        const MediaEntry& e = media_table[i];
        if (!e.handle || !e.name || !e.open || !e.close || !e.read || !e.write || !e.seek || !e.sync)
            kf::fail("a loaded media entry is incomplete");
    }
    Session s{};
    if (getMedia(&s, static_cast<uint32_t>(count)) != nullptr || s.error != KESDB_ERR_MEDIA_INDEX)
        kf::fail("getMedia accepted the index behind the last entry");
    if (media_term() != 0 || media_getCount() != 1) kf::fail("media_term left entries behind");

    // Hook configuration.
    const int32_t h = hook_init(g_path.c_str()), hooks = hook_getCount();
    if (h != 0 && h != KESDB_ERR_HOOK_LINE && h != KESDB_ERR_HOOK_CONFSEEK && h != KESDB_ERR_NOMEM &&
        (h < KESDB_ERR_HOOK_LOAD || h > KESDB_ERR_HOOK_SYMPOSTGET))
        kf::fail("hook_init returned a code it does not have");
    if (hooks < 0) kf::fail("negative hook count");
    for (int32_t i = 1; i <= hooks; ++i) {
        const HookEntry* e = getHook(&s, static_cast<uint32_t>(i));
        if (!e || !e->handle) kf::fail("a loaded hook has no entry or no library");
    }
    s.error = 0;
    if (getHook(&s, static_cast<uint32_t>(hooks) + 1) != nullptr || s.error != KESDB_ERR_HOOK_INDEX)
        kf::fail("getHook accepted the index behind the last hook");
    if (getHook(&s, 0) != nullptr) kf::fail("getHook accepted index 0");
    if (hook_term() != 0 || hook_getCount() != 0 || hook_table != nullptr) kf::fail("hook_term left hooks behind");
    return 0;
}
