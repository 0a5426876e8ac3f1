// Start-up of a database from its database directory (kesDBMInitDir).
//
// The directory's descriptor, kesdb.conf, holds key=value lines ("#" starts a comment line)
// from which the start-up parameter block is filled; relative file names are taken relative to
// the directory (the tables' relative to the table directory when one is given), so the block
// holds absolute paths and is the same in every process, whatever its working directory.
//
// Invariants:
//  - A process has at most one directory state (storage/dir_state.hpp). It is made by a
//    start-up that finds nothing started in the process (no database table mapped) and goes
//    with the shut-down that unmaps the table. Any other start-up by directory must name the
//    same directory with the same options, or is refused before it changes anything.
//  - A failed start-up by directory undoes its steps, so it leaves no registration, count or
//    directory state behind.
#include <limits.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "api/start_up.hpp"
#include "kesdbm/kesdbm.h"
#include "storage/dir_state.hpp"

namespace {

constexpr const char kDescriptor[] = "kesdb.conf";

// Where a descriptor value goes: a path field or a word of the block, or the built-in
// medium's file (offset kDefMedia). Tables are resolved against the table directory.
constexpr size_t kDefMedia = sizeof(DBMInitParam);
struct Field {
    const char* key;
    size_t offset;
    bool path, table, required;
};
constexpr Field kFields[] = {
    {"session", offsetof(DBMInitParam, sessionTablePath), true, true, true},
    {"lock", offsetof(DBMInitParam, lockTablePath), true, true, true},
    {"media", offsetof(DBMInitParam, mediaConfigPath), true, false, true},
    {"hook", offsetof(DBMInitParam, hookConfigPath), true, false, true},
    {"component", offsetof(DBMInitParam, componentMedium), false, false, true},
    {"value", offsetof(DBMInitParam, valueMedium), false, false, true},
    {"constraint", offsetof(DBMInitParam, constraintMedium), false, false, true},
    {"string", offsetof(DBMInitParam, stringMedium), false, false, true},
    {"reserved", offsetof(DBMInitParam, reserved), false, false, false},
    {"defmedia", kDefMedia, true, false, false},
};

char g_failure[1200];

int32_t failed(int32_t code, const char* dir, const char* what) {
    snprintf(g_failure, sizeof g_failure, "%.500s: %.690s", dir, what);
    printf("kesDBMInitDir: %s\n", g_failure);
    return code;
}

// Puts `value` into `out` (KESDB_PATH_MAX bytes): as it is when absolute or empty, else
// after `base` and a '/'. False when it does not fit.
bool joinPath(char* out, const char* base, const char* value) {
    int n = value[0] == '/' || value[0] == '\0' ? snprintf(out, KESDB_PATH_MAX, "%s", value)
                                                : snprintf(out, KESDB_PATH_MAX, "%s/%s", base, value);
    return n >= 0 && n < KESDB_PATH_MAX;
}

// Fills the block and the state's built-in medium from the descriptor; 0 or a code.
int32_t readDescriptor(kes::DirState* st, const char* tableDir, DBMInitParam* param) {
    char line[KESDB_PATH_MAX + 32];
    snprintf(line, sizeof line, "%s/%s", st->dir, kDescriptor);
    FILE* file = fopen(line, "r");
    if (!file) return failed(KESDB_ERR_DIR_BAD, st->dir, "not a database directory (no readable kesdb.conf)");
    unsigned seen = 0;
    int32_t code = 0;
    for (int number = 1; code == 0 && fgets(line, sizeof line, file); ++number) {
        line[strcspn(line, "\r\n")] = '\0';
        if (line[0] == '\0' || line[0] == '#') continue;
        char* value = strchr(line, '=');
        size_t f = 0;
        if (value) {
            *value++ = '\0';
            while (f < sizeof kFields / sizeof kFields[0] && strcmp(kFields[f].key, line) != 0) ++f;
        }
        char* end = nullptr;
        unsigned long long number32 = 0;
        bool ok = value && f < sizeof kFields / sizeof kFields[0];
        if (ok && kFields[f].path) {
            char* to = kFields[f].offset == kDefMedia ? st->defMedia : reinterpret_cast<char*>(param) + kFields[f].offset;
            ok = joinPath(to, kFields[f].table ? tableDir : st->dir, value);
        } else if (ok) {
            number32 = strtoull(value, &end, 10);
            ok = value[0] >= '0' && value[0] <= '9' && *end == '\0' && number32 <= 0xFFFFFFFFull;
            if (ok) {
                uint32_t word = static_cast<uint32_t>(number32);
                memcpy(reinterpret_cast<char*>(param) + kFields[f].offset, &word, sizeof word);
            }
        }
        if (ok) {
            seen |= 1u << f;
        } else {
            char what[64];
            snprintf(what, sizeof what, "kesdb.conf line %d is not a valid key=value line", number);
            code = failed(KESDB_ERR_DIR_BAD, st->dir, what);
        }
    }
    fclose(file);
    for (size_t f = 0; code == 0 && f < sizeof kFields / sizeof kFields[0]; ++f) {
        if (kFields[f].required && !(seen & (1u << f))) {
            char what[64];
            snprintf(what, sizeof what, "kesdb.conf has no %s line", kFields[f].key);
            code = failed(KESDB_ERR_DIR_BAD, st->dir, what);
        }
    }
    return code;
}

// The state a start-up of `dir` with `options` would make; null with the code in *code.
kes::DirState* makeState(const char* dir, const DBMDirOptions* o, DBMInitParam* param, int32_t* code) {
    kes::DirState* st = static_cast<kes::DirState*>(calloc(1, sizeof(kes::DirState)));
    if (!st) {
        *code = failed(KESDB_ERR_NOMEM, dir, "no memory");
        return nullptr;
    }
    char tables[PATH_MAX];
    const char* tableDir = o && o->tableDir ? o->tableDir : dir;
    if (!realpath(dir, st->dir) || !realpath(tableDir, tables)) {
        *code = failed(KESDB_ERR_DIR_BAD, dir, "no such directory");
    } else if (!joinPath(st->dbTable, tables, "db.tbl")) {
        *code = failed(KESDB_ERR_DIR_BAD, dir, "a name is too long");
    } else {
        // A driver directory that does not exist replaces nothing.
        if (o && o->driverDir && !realpath(o->driverDir, st->driverDir)) st->driverDir[0] = '\0';
        st->flags = o ? o->flags : 0;
        *code = readDescriptor(st, tables, param);
        if (*code == 0 && (st->flags & KESDB_DIR_NO_HOOKS)) snprintf(param->hookConfigPath, KESDB_PATH_MAX, "/dev/null");
    }
    if (*code == 0) return st;
    free(st);
    return nullptr;
}

// The cause of a failed start-up, into `what` (`size` bytes): the library or configuration
// file when a step names one.
void startUpFailure(int32_t code, const DBMInitParam* param, char* what, size_t size) {
    const bool loading = (code >= KESDB_ERR_MEDIA_SYMOPEN && code <= KESDB_ERR_MEDIA_LOAD) ||
                         (code >= KESDB_ERR_HOOK_LOAD && code <= KESDB_ERR_HOOK_SYMPOSTGET);
    if (loading && kes::dirNoted()[0])
        snprintf(what, size, "%s", kes::dirNoted());
    else if (code == KESDB_ERR_MEDIA_CONFOPEN || code == KESDB_ERR_HOOK_CONFOPEN)
        snprintf(what, size, "cannot open %.600s",
                 code == KESDB_ERR_MEDIA_CONFOPEN ? param->mediaConfigPath : param->hookConfigPath);
    else if (code == KESDB_ERR_HOOK_LINE)
        snprintf(what, size, "%.500s: a line without its five tokens (or a blank or comment line after the last hook)",
                 param->hookConfigPath);
    else
        snprintf(what, size, "start-up failed with %d %s", code, kesdb_errorName(code));
}

}  // namespace

extern "C" {

int32_t kesDBMInitDirEx(const char* dir, const DBMDirOptions* options, int32_t* errorWord) {
    g_failure[0] = '\0';
    kes::dirNote("", "", "");
    int32_t code = dir ? 0 : KESDB_ERR_NULLARG;
    DBMInitParam* param = static_cast<DBMInitParam*>(calloc(1, sizeof(DBMInitParam)));
    kes::DirState* st = nullptr;
    if (code == 0 && !param) code = failed(KESDB_ERR_NOMEM, dir, "no memory");
    if (code == 0) st = makeState(dir, options, param, &code);
    if (code == 0 && kes::dbUsers() > 0) {
        // Something is started: it must be this directory, started the same way.
        const kes::DirState* now = kes::dirState();
        if (!now) {
            code = failed(KESDB_ERR_DIR_OTHER, st->dir, "this process has started a database with kesDBMInit");
        } else if (strcmp(now->dir, st->dir) != 0) {
            char what[KESDB_PATH_MAX + 64];
            snprintf(what, sizeof what, "this process has started the database of %.3900s (one directory a process)", now->dir);
            code = failed(KESDB_ERR_DIR_OTHER, st->dir, what);
        } else if (strcmp(now->dbTable, st->dbTable) != 0 || strcmp(now->driverDir, st->driverDir) != 0 ||
                   now->flags != st->flags) {
            code = failed(KESDB_ERR_DIR_OTHER, st->dir, "this process has started the directory with other options");
        }
        free(st);
    } else if (code == 0) {
        kes::dirSet(st);  // taken over; cleared by the shut-down that unmaps the database table
    }
    int32_t id = -1;
    if (code == 0) {
        id = kes::startUp(param, &code, true);
        if (id < 0) {
            char what[700];
            startUpFailure(code, param, what, sizeof what);
            failed(code, dir, what);
        }
    }
    free(param);
    if (id < 0 && errorWord) *errorWord = code;
    return id;
}

int32_t kesDBMInitDir(const char* dir, int32_t* errorWord) { return kesDBMInitDirEx(dir, nullptr, errorWord); }

const char* kesDBMInitDirFailure(void) { return g_failure; }

int32_t kesdb_dirParam(const char* dir, const DBMDirOptions* options, DBMInitParam* param) {
    g_failure[0] = '\0';
    int32_t code = dir && param ? 0 : KESDB_ERR_NULLARG;
    if (code == 0) {
        memset(param, 0, sizeof *param);
        free(makeState(dir, options, param, &code));
    }
    return code;
}

}  // extern "C"
