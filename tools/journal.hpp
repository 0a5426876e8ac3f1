// kesdb: all or nothing for a command that changes records of a database in place (import,
// import --merge, add, delete, factory-reset, reset and factory-to-default of a node), and the
// exclusion of two such commands.
//
// Before the first write, each media file is copied aside ("FILE.kesdb-saved", synced),
// then the journal "kesdb.journal" appears in the directory by a rename: it names the
// media files and the process making the change. The change is kept by removing the
// journal (then the copies); it is undone by renaming the copies back over the media.
// At any moment a kill or a power cut leaves either no journal (the media are whole: old
// before it appeared, new after it went) or a journal with whole copies, which the next
// command that opens the directory puts back once the journal's process is gone.
#pragma once

#include <string>
#include <vector>

namespace kesdb {

// Undoes the change of a journal whose command ended without finishing, and removes
// copies no journal names. Nothing happens while that command still runs (it holds the
// directory, see DirectoryGuard).
void journalRecover(const std::string& dir);

// Holds DIR against other commands that rebuild or journal it (an advisory lock on its
// descriptor, released when the process ends however it ends); fails with the lock-busy
// status when one holds it.
class DirectoryGuard {
public:
    explicit DirectoryGuard(const std::string& dir);
    ~DirectoryGuard();
    DirectoryGuard(const DirectoryGuard&) = delete;
    DirectoryGuard& operator=(const DirectoryGuard&) = delete;

private:
    int fd_ = -1;
};

class MediaJournal {
public:
    MediaJournal(const std::string& dir, const std::vector<std::string>& media);
    // Not committed: the copies are put back.
    ~MediaJournal();
    void commit();
    MediaJournal(const MediaJournal&) = delete;
    MediaJournal& operator=(const MediaJournal&) = delete;

private:
    std::string dir_;
    std::vector<std::string> media_;
    bool open_ = false;
};

// fsync of a file or directory; false when it cannot be opened or synced (no failure:
// also used while undoing).
bool syncQuietly(const std::string& path);

}  // namespace kesdb
