// kesdb: the tool's own fast way to its database's media.
//
// The built-in medium and the named-file driver open the file, write synchronously and
// close it again on every record access: right for a device, where each write must last,
// but thousands of times slower than needed while the tool builds a database that nobody
// else sees yet, or reads one through. For the length of a scope, FastMedia points the
// media-table entries of such media at a driver that maps the file, on the very same files
// and under the same indexes, so every record lands at the same key with the same bytes:
//   Shared     the memory-mapped driver, which sees what other processes write meanwhile
//              (reading a database in use);
//   Exclusive  the tool's private driver (private_medium.hpp), which trusts that no one
//              else touches the files (building in a directory nobody knows yet);
//   ReadOnly   the private driver, reading only (inspection, of a read-only image too).
// `flush` then writes each mapping to its file once. Only this process's table changes: the
// configuration files, and every other process, keep naming the media as they were.
//
// Invariants: an entry is taken over only when its driver is the built-in medium or the
// named-file driver and its name is a regular file; every entry taken over is given back
// as it was before the database is shut down (declare FastMedia after the Database).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "database.hpp"

namespace kesdb {

class FastMedia {
public:
    enum class Access { Shared, Exclusive, ReadOnly };

    // Takes over the media of `db` that can be mapped; a medium that cannot (another
    // driver, the mapped driver missing) stays as it is, which is only slower.
    FastMedia(Database& db, Access access);
    ~FastMedia();
    FastMedia(const FastMedia&) = delete;
    FastMedia& operator=(const FastMedia&) = delete;

    // Writes the mapped pages of every medium taken over to their files (the driver's sync,
    // msync); fails with the file's name and the cause. The caller then syncs the files
    // (syncPath) and their directory once.
    void flush();
    // The media taken over.
    size_t count() const { return saved_.size(); }

private:
    struct Saved {
        uint32_t index;
        MediaEntry entry;
    };
    std::vector<Saved> saved_;
    std::string entryZeroName_;  // the name entry 0 carries while taken over
    void* lib_ = nullptr;
    bool private_ = false;
};

// fsync of a file or directory; fails with its name and the cause.
void syncPath(const std::string& path);

}  // namespace kesdb
