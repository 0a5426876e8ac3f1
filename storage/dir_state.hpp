// Internal: the database directory a process started its database from (kesDBMInitDir).
//
// While it is set, the directory replaces the environment: the database table is the
// directory's (or the table directory's) db.tbl instead of $KESDB_DBTABLE, the built-in
// medium is the descriptor's file instead of $KESDB_DEFMEDIA, relative names in the media and
// hook configurations are taken relative to the directory, and free-list elements are written
// in host order whatever $SIM_BYTE_ORDER says. It is set by the start-up that maps the
// database table and cleared by the shut-down that unmaps it, so it lasts exactly as long as
// the process's facilities; a process that started without a directory never sees it.
#pragma once

#include <cstdint>

#include "kesdbm/api.h"

namespace kes {

struct DirState {
    char dir[KESDB_PATH_MAX];        // the database directory, absolute
    char dbTable[KESDB_PATH_MAX];    // the database table file
    char defMedia[KESDB_PATH_MAX];   // the built-in medium's file; empty: $KESDB_DEFMEDIA
    char driverDir[KESDB_PATH_MAX];  // directory of drivers that replace the configured ones; empty: none
    uint32_t flags;                  // KESDB_DIR_* of the start-up
};

// db_init calls of the process not yet matched by db_term: 0 when nothing is started.
int32_t dbUsers();

// The state, or null when the process was not started from a directory.
DirState* dirState();
// Makes `state` (heap memory, taken over) the process's state; clearing frees it.
void dirSet(DirState* state);
void dirClear();

// A name from a configuration file as it is used: a file name not beginning with '/' is
// taken relative to the directory; a library name containing a '/' likewise (a bare name is
// left to the loader's search), and a driver library is replaced by the one of the same base
// name in the driver directory when that exists there. Returns `name` itself or `buffer`
// (KESDB_PATH_MAX bytes) holding the resolved name.
enum class DirName { File, Driver, Hook };
const char* dirResolve(const char* name, DirName kind, char* buffer);

// The cause of the last failed start-up step that names a file or library ("cannot load
// /x/libd.so: ..."), kept for kesDBMInitDirFailure; dirNote("") forgets it.
void dirNote(const char* what, const char* name, const char* detail);
const char* dirNoted();

}  // namespace kes
