// The database directory of the process and the names it resolves (see dir_state.hpp).
#include "storage/dir_state.hpp"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

namespace kes {

namespace {

DirState* g_state = nullptr;
char g_noted[1024];

}  // namespace

DirState* dirState() { return g_state; }

void dirSet(DirState* state) {
    free(g_state);
    g_state = state;
}

void dirClear() { dirSet(nullptr); }

const char* dirResolve(const char* name, DirName kind, char* buffer) {
    if (!g_state || !name) return name;
    if (kind == DirName::Driver && g_state->driverDir[0]) {
        const char* slash = strrchr(name, '/');
        int n = snprintf(buffer, KESDB_PATH_MAX, "%s/%s", g_state->driverDir, slash ? slash + 1 : name);
        if (n > 0 && n < KESDB_PATH_MAX && access(buffer, R_OK) == 0) return buffer;
    }
    if (name[0] == '/' || (kind != DirName::File && !strchr(name, '/'))) return name;
    int n = snprintf(buffer, KESDB_PATH_MAX, "%s/%s", g_state->dir, name);
    return n > 0 && n < KESDB_PATH_MAX ? buffer : name;
}

void dirNote(const char* what, const char* name, const char* detail) {
    if (!detail) detail = "";
    snprintf(g_noted, sizeof g_noted, "%s%s%s%s%s", what, name[0] ? " " : "", name, detail[0] ? ": " : "", detail);
}

const char* dirNoted() { return g_noted; }

}  // namespace kes
