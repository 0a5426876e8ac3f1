// The hook table: one entry per line of the hook configuration file, loaded once per process,
// and the lookup of a leaf's hook index.
#include <dlfcn.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kesdbm/hook.h"
#include "kesdbm/session.h"
#include "kesdbm/storage.h"
#include "storage/config_file.hpp"
#include "storage/dir_state.hpp"

// The entry is five pointer-sized words, in this order (one 32-bit word each on the target).
static_assert(sizeof(HookEntry) == 5 * sizeof(void*));
static_assert(offsetof(HookEntry, handle) == 0);
static_assert(offsetof(HookEntry, preSet) == 1 * sizeof(void*));
static_assert(offsetof(HookEntry, postSet) == 2 * sizeof(void*));
static_assert(offsetof(HookEntry, preGet) == 3 * sizeof(void*));
static_assert(offsetof(HookEntry, postGet) == 4 * sizeof(void*));
static_assert(sizeof(kesHookFn) == sizeof(void*));

extern "C" {
HookEntry* hook_table = nullptr;
}

namespace {

int32_t hookCount = 0;  // loaded entries
int32_t hookRefs = 0;   // hook_init calls not yet matched by hook_term

constexpr int kLineSize = KESDB_CONF_LINE;
constexpr const char* kDelimiters = " \t\n";

// A counted line: after leading blanks it neither starts a comment nor ends.
bool countsAsHookLine(const char* line) {
    line += std::strspn(line, " \t");
    return *line != '#' && *line != '\n';
}

// Releases the library of an entry whose line failed, so that it is not left loaded with no
// entry referring to it, and clears the entry for the next line.
void discardEntry(HookEntry& entry) {
    if (entry.handle) dlclose(entry.handle);
    entry = HookEntry{};
}

}  // namespace

extern "C" {

int32_t fillHookEntry(char* line, HookEntry* entry) {
    if (!line || !entry) return KESDB_ERR_HOOK_LINE;
    *entry = HookEntry{};
    char* save = nullptr;
    const char* token = strtok_r(line, kDelimiters, &save);
    if (!token) return KESDB_ERR_HOOK_LINE;
    char library[KESDB_PATH_MAX];
    const char* libraryName = kes::dirResolve(token, kes::DirName::Hook, library);
    entry->handle = dlopen(libraryName, RTLD_NOW);
    if (!entry->handle) {
        kes::dirNote("cannot load the hook library", libraryName, dlerror());
        return KESDB_ERR_HOOK_LOAD;
    }

    kesHookFn HookEntry::*const slots[] = {&HookEntry::preSet, &HookEntry::postSet, &HookEntry::preGet,
                                           &HookEntry::postGet};
    const int32_t missingSymbol[] = {KESDB_ERR_HOOK_SYMPRESET, KESDB_ERR_HOOK_SYMPOSTSET, KESDB_ERR_HOOK_SYMPREGET,
                                     KESDB_ERR_HOOK_SYMPOSTGET};
    for (size_t i = 0; i < 4; ++i) {
        token = strtok_r(nullptr, kDelimiters, &save);
        if (!token) return KESDB_ERR_HOOK_LINE;
        if (std::strcmp(token, "NULL") == 0) continue;  // exact and case-sensitive
        void* symbol = dlsym(entry->handle, token);
        if (!symbol) {
            kes::dirNote(libraryName, "has no function", token);
            return missingSymbol[i];
        }
        entry->*slots[i] = reinterpret_cast<kesHookFn>(symbol);
    }
    return 0;
}

int32_t hook_init(const char* path) {
    if (++hookRefs != 1) return 0;
    int32_t status = 0;
    FILE* file = kes::openConfigFile(path);
    if (!file) {
        std::printf("hook_init err3\n");
        return KESDB_ERR_HOOK_CONFOPEN;
    }
    char* line = static_cast<char*>(std::malloc(kLineSize));
    if (!line) {
        std::printf("hook_init err2\n");
        std::fclose(file);
        return KESDB_ERR_NOMEM;
    }

    // Counting pass: one entry per line that is neither blank nor a comment.
    int32_t counted = 0;
    if (std::fseek(file, 0, SEEK_SET) != 0) {
        status = KESDB_ERR_HOOK_CONFSEEK;
    } else {
        while (std::fgets(line, kLineSize, file)) {
            if (countsAsHookLine(line)) ++counted;
        }
        if (std::fseek(file, 0, SEEK_SET) != 0) status = KESDB_ERR_HOOK_CONFSEEK;
    }

    // A file without hook lines gives a table of no entries; one element is allocated so
    // that the table pointer is never null while loaded.
    hook_table = static_cast<HookEntry*>(std::calloc(counted > 0 ? static_cast<size_t>(counted) : 1u,
                                                      sizeof(HookEntry)));
    if (!hook_table) {
        std::printf("hook_init err1\n");
        std::free(line);
        std::fclose(file);
        return KESDB_ERR_NOMEM;
    }

    // Loading pass. The result is the status of the last line handled.
    while (std::fgets(line, kLineSize, file)) {
        if (hookCount > counted) break;
        if (char* hash = std::strchr(line, '#')) *hash = '\0';
        int32_t lineStatus;
        if (hookCount < counted) {
            lineStatus = fillHookEntry(line, &hook_table[hookCount]);
            if (lineStatus != 0) discardEntry(hook_table[hookCount]);
        } else {
            // Every entry is filled (the file grew between the passes, or the first rewind
            // failed and nothing was counted). A line with tokens has no entry to go to: it
            // is never stored, not even loaded, and its status is -1, as for a line that
            // cannot be used; a line without tokens gives -1 as well.
            lineStatus = KESDB_ERR_HOOK_LINE;
        }
        status = lineStatus;
        if (lineStatus == 0) ++hookCount;
    }
    std::free(line);
    std::fclose(file);
    return status;
}

int32_t hook_term(void) {
    // A shut-down without a matching start-up leaves the count at 0, so that the next
    // hook_init still loads the table.
    if (hookRefs <= 0) return 0;
    if (--hookRefs != 0) return 0;
    if (hook_table) {
        for (int32_t i = 0; i < hookCount; ++i) {
            if (hook_table[i].handle) dlclose(hook_table[i].handle);
        }
        std::free(hook_table);
        hook_table = nullptr;
    }
    hookCount = 0;
    return 0;
}

int32_t hook_getCount(void) { return hookCount; }

HookEntry* getHook(Session* s, uint32_t index) {
    if (index == 0 || index > static_cast<uint32_t>(hookCount) || !hook_table) {
        session_setError(s, KESDB_ERR_HOOK_INDEX, 0);
        return nullptr;
    }
    return &hook_table[index - 1];
}

}  // extern "C"
