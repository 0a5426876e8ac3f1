// kesdb: the database directory, its descriptor, and a started database with a session.
//
// A database directory made by "kesdb create" holds
//   kesdb.conf   the descriptor: key=value lines from which the start-up parameter block is
//                filled (session, lock, media, hook: file names, relative to the directory
//                unless absolute; component, value, constraint, string, reserved: the four
//                media indexes and the reserved word; defmedia: the built-in medium's file);
//                the library reads it (kesDBMInitDir)
//   media.conf   media drivers (empty when the built-in medium holds every record); medium
//                names relative to the directory, so the directory can be moved
//   hook.conf    hook libraries, one line per hook index 1, 2, ...
//   medium.bin   the built-in medium, or components.med, values.med, constraints.med and
//                strings.med reached through the named-file driver
//   db.tbl, session.tbl, lock.tbl and their .sem sidecars, made by the library.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
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
// media files (relative to the directory) and the file driver in LIBDIR (empty for the
// single-file layout).
std::string descriptorText(bool fourFiles);
std::string mediaConfigText(bool fourFiles, const std::string& libDirectory);

// The session and lock table files named by the descriptor of DIR.
struct TablePaths {
    std::string session, lock;
};
TablePaths tablePaths(const std::string& dir);

// The database directory: -d DIR, else $KESDB_DIR; "" when neither names one.
std::string defaultDir(const std::string& given);

// Absolute form of an existing path.
std::string absolutePath(const std::string& path);

// Runs `body` with standard output sent to /dev/null: library diagnostics of a step whose
// outcome the tool reports itself (a search that finds nothing prints its own lines). The
// diagnostics' descriptor and /dev/null are kept open after the first use: a command that
// searches for every leaf of a large tree pays two dup2 calls a search, not an open and five.
template <class F>
auto quietly(F&& body) {
    static const int loud = fcntl(1, F_DUPFD_CLOEXEC, 3);
    static const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    std::fflush(stdout);
    struct Restore {
        bool moved;
        ~Restore() {
            std::fflush(stdout);
            if (moved) dup2(loud, 1);
        }
    };
    Restore restore{loud >= 0 && null >= 0 && dup2(null, 1) >= 0};
    return body();
}

// How a command opens the database.
enum class Access {
    Shared,   // the directory's own tables: the locks and sessions of every process
    Private,  // tables in a private temporary directory, removed afterwards
    Read,     // as Private, and the media read through a read-only mapping: reads that leave
              // nothing in the directory they read, which may be a read-only image
    ReadNoHooks,  // as Read, and without hooks (hook libraries built for another machine)
};

// Reads leave nothing in the directory they read: their tables are private.
inline Access readAccess(bool noHooks) { return noHooks ? Access::ReadNoHooks : Access::Read; }

class FastMedia;

// A started database with one open session, closed again in the destructor. It is started
// as applications start it (kesDBMInitDir), with the tool's own drivers standing in for the
// drivers media.conf names where the tool has one of the same name.
class Database {
public:
    explicit Database(const std::string& dir, Access access = Access::Shared);
    ~Database();
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

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
    void removeTables();

    std::string dir_;
    std::string tables_;  // private table directory, or empty
    std::unique_ptr<FastMedia> readOnly_;  // the media taken over for reading only, or null
    DBMInitParam param_{};
    int32_t id_ = -1;
};

}  // namespace kesdb
