// kesdb: the database directory, its descriptor, and a started database with a session.
//
// A database directory made by "kesdb create" holds
//   kesdb.conf   the descriptor: key=value lines from which the start-up parameter block is
//                filled (session, lock, media, hook: file names, relative to the directory
//                unless absolute; component, value, constraint, string, reserved: the four
//                media indexes and the reserved word; defmedia: the built-in medium's file)
//   media.conf   media drivers (empty when the built-in medium holds every record)
//   hook.conf    hook libraries, one line per hook index 1, 2, ...
//   medium.bin   the built-in medium, or components.med, values.med, constraints.med and
//                strings.med reached through the named-file driver
//   db.tbl, session.tbl, lock.tbl and their .sem sidecars, made by the library.
#pragma once

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "common.hpp"
#include "kesdbm/kesdbm.h"

namespace kesdb {

constexpr const char* kDescriptorFile = "kesdb.conf";
constexpr const char* kSingleMedium = "medium.bin";
extern const char* const kMediaFiles[4];  // components, values, constraints, strings

// Directory of the driver and hook libraries: --lib-dir, else $KESDB_LIB_DIR, else the
// installed module directory beside the program (bin/../lib/kesdbm) when it holds the file
// driver, else ../lib beside the program's own executable (the build tree).
void setLibDir(const std::string& dir);
std::string libDir();

// The descriptor of a new database, and the media configuration that names the four
// media files of DIR and the file driver in LIBDIR (empty for the single-file layout).
std::string descriptorText(bool fourFiles);
std::string mediaConfigText(const std::string& dir, bool fourFiles, const std::string& libDirectory);

// The session and lock table files named by the descriptor of DIR.
struct TablePaths {
    std::string session, lock;
};
TablePaths tablePaths(const std::string& dir);

// Absolute form of an existing path.
std::string absolutePath(const std::string& path);

// Runs `body` with standard output sent to /dev/null: library diagnostics of a step whose
// outcome the tool reports itself (a search that finds nothing prints its own lines).
template <class F>
auto quietly(F&& body) {
    std::fflush(stdout);
    struct Restore {
        int saved;
        ~Restore() {
            std::fflush(stdout);
            if (saved >= 0) {
                dup2(saved, 1);
                close(saved);
            }
        }
    };
    Restore restore{dup(1)};
    if (FILE* null = std::fopen("/dev/null", "w")) {
        if (restore.saved >= 0) dup2(fileno(null), 1);
        std::fclose(null);
    }
    return body();
}

// A started database with one open session, closed again in the destructor.
//
// Environment: KESDB_DBTABLE is set to DIR/db.tbl unless the caller set it, so every
// table stays inside the directory; SIM_BYTE_ORDER is set to BIG_ENDIAN unless set (the
// free-list elements are then written in host order, which the allocator reads back; see
// main.cpp); KESDB_DEFMEDIA names the built-in medium of a single-file database.
class Database {
public:
    explicit Database(const std::string& dir);
    ~Database();
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    // Leaves this start-up's registration in the database table when the process ends,
    // so the database keeps its id for later processes (locks are named by it).
    void keepRegistered() { keepRegistered_ = true; }

    const DBMInitParam& param() const { return param_; }
    const std::string& dir() const { return dir_; }

    // Key of the root node; fails when there is none.
    uint32_t root();
    // Key of the component named by `path` ("/net/port"; "/" or "" is the root). Fails
    // with "unknown path" unless the component's own path is exactly `path`.
    uint32_t find(const std::string& path);
    // The path of a component: its name and its ancestors' names joined (empty when a
    // name or parent cannot be read).
    std::string pathOf(uint32_t key);
    // The files of the database's four media (fewer when they share one).
    std::vector<std::string> mediaFiles() const;

    Session s{};

private:
    std::string name(uint32_t key);

    std::string dir_;
    DBMInitParam param_{};
    int32_t id_ = -1;
    bool keepRegistered_ = false;
};

}  // namespace kesdb
