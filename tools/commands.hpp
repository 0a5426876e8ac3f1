// kesdb: the commands. Each returns the exit status or fails (common.hpp).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "description.hpp"
#include "progress.hpp"

namespace kesdb {

class Database;

struct CreateOptions {
    std::string dir;
    bool fourFiles = false;          // --files: four media files through the named-file driver
    uint32_t size = 1024 * 1024;     // --size: bytes of each medium file
    std::vector<std::string> hooks;  // --hook lines, hook indexes 1, 2, ...
    std::string from;                // --from: description to import
    std::vector<Item> items;         // or a tree already read and checked (migrate)
    // A database prepared for another place or machine: the directory it will have there
    // (--install-dir) and the directory of the driver and hook libraries there
    // (--target-lib-dir). The configuration files name those; the tool builds with its
    // own libraries and does not load the hooks.
    std::string installDir;
    std::string targetLibDir;
    Progress* progress = nullptr;  // the progress of the command that creates (migrate), or its own
};

enum class ValueSet { Current, Default, Factory };

int cmdCreate(const CreateOptions& options);
// Commands that change values hold the exclusive lock of what they change, waiting up to
// `wait` seconds for another holder (lock: negative waits without limit, 0 tries once).
// Reads (`noHooks`: without the hooks) use private tables and leave nothing in DIR.
int cmdImport(const std::string& dir, const std::string& file, double wait);
// "" or "-" for standard output; `path`: the subtree at that path, with its ancestors.
int cmdExport(const std::string& dir, const std::string& file, const std::string& path, bool noHooks);
int cmdGet(const std::string& dir, const std::string& path, ValueSet which, bool noHooks);
int cmdSet(const std::string& dir, const std::string& path, const std::string& text, ValueSet which, double wait);
int cmdReset(const std::string& dir, const std::string& path, double wait);
int cmdFactoryToDefault(const std::string& dir, const std::string& path, double wait);
int cmdPrint(const std::string& dir, const std::string& path, bool noHooks);  // "" for the whole tree
// show: PATH=VALUE per leaf; diff: the leaves whose current value differs from the default
// (factory) one; describe: one leaf's type, size, values, constraint and hook. --json for each.
int cmdShow(const std::string& dir, const std::string& path, ValueSet which, bool asJson, bool noHooks);
int cmdDiff(const std::string& dir, const std::string& path, bool factory, bool asJson, bool noHooks);
int cmdDescribe(const std::string& dir, const std::string& path, bool asJson, bool noHooks);
// Why the library refused to read or write `value` at the leaf `key` (code `rc`), in words:
// "/net/port: 0 is below the minimum 1 (range 1..65535)".
std::string refusalText(Database& db, uint32_t key, const std::string& path, int32_t rc, const std::string& value);
int cmdLock(const std::string& dir, const std::string& path, bool shared, double wait);
int cmdUnlock(const std::string& dir, const std::string& path);
int cmdLocks(const std::string& dir, bool asJson);
// check: the media verified read-only; the problems on standard output, exit 2 when any.
int cmdCheck(const std::string& dir);
// watch: prints PATH=VALUE (or JSON lines) for each leaf below `path` as it changes, until
// interrupted ("" for the whole tree).
int cmdWatch(const std::string& dir, const std::string& path, bool asJson);

// orphans: the sessions and locks of ended processes, removed with `clear`.
struct OrphanOptions {
    std::string sessionTable, lockTable;  // the table files
    bool clear = false;                   // --clear
    bool closedLocks = false;             // --closed: with --clear, also locks of closed sessions
};
int cmdOrphans(const OrphanOptions& options);

// The component locks of a lock table with the session that took each and its process.
struct LockView {
    uint32_t dbId, key;
    bool shared;
    uint32_t session;
    uint32_t pid;         // 0 when the session is no longer open
    const char* process;  // "running", "ended", "unknown", or "session closed"
};
std::vector<LockView> listLocks(const std::string& sessionTable, const std::string& lockTable);

}  // namespace kesdb
