// kesdb: the building directories of "create" and what killed ones leave.
//
// create builds a database in DIR.tmp-XXXXXX beside DIR and renames it into place when
// complete. While it builds, it holds an exclusive lock (flock) on that directory and keeps
// the file "kesdb.building" in it. A process that is killed gives up its lock, so a
// building directory whose marker is there but whose lock is free belongs to no running
// create: the next create of the same DIR removes it. One without the marker is removed only
// when it is older than a minute (its create may have been killed between making it and
// locking it, or may be about to lock it).
#pragma once

#include <string>

namespace kesdb {

class BuildDir {
public:
    // Locks the building directory `path` (made by mkdtemp) and marks it.
    explicit BuildDir(const std::string& path);
    ~BuildDir();
    BuildDir(const BuildDir&) = delete;
    BuildDir& operator=(const BuildDir&) = delete;
    // Removes the marker; call before the directory is renamed into place.
    void finish();

private:
    std::string path_;
    int fd_ = -1;
};

// Removes the building directories of `finalDir` that killed creates left.
void removeLeftovers(const std::string& finalDir);

}  // namespace kesdb
