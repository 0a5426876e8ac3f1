#include "journal.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "common.hpp"
#include "database.hpp"

namespace fs = std::filesystem;

namespace kesdb {

namespace {

constexpr const char* kJournal = "kesdb.journal";
constexpr const char* kSaved = ".kesdb-saved";

std::string copyOf(const std::string& medium) { return medium + kSaved; }

void removeStrayCopies(const std::string& dir) {
    std::error_code ec;
    for (const auto& e : fs::directory_iterator(dir, ec)) {
        const std::string name = e.path().filename().string();
        if (name.find(kSaved) != std::string::npos) fs::remove(e.path(), ec);
    }
}

}  // namespace

bool syncQuietly(const std::string& path) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    const bool ok = fsync(fd) == 0;
    close(fd);
    return ok;
}

namespace {

// The undo itself; the caller holds the directory.
void recoverHeld(const std::string& dir) {
    const std::string journal = dir + "/" + kJournal;
    std::ifstream in(journal);
    if (in) {
        std::string line;
        std::getline(in, line);  // the process id, for whoever reads the file
        while (std::getline(in, line))
            if (!line.empty() && access(copyOf(line).c_str(), F_OK) == 0) rename(copyOf(line).c_str(), line.c_str());
        syncQuietly(dir);
        unlink(journal.c_str());
        syncQuietly(dir);
    }
    removeStrayCopies(dir);
}

}  // namespace

void journalRecover(const std::string& dir) {
    const std::string journal = dir + "/" + kJournal;
    if (access(journal.c_str(), F_OK) != 0 && access((journal + ".tmp").c_str(), F_OK) != 0) {
        // No journal: only copies of a command killed while it prepared can be left.
        bool stray = false;
        std::error_code ec;
        for (const auto& e : fs::directory_iterator(dir, ec))
            stray = stray || e.path().filename().string().find(kSaved) != std::string::npos;
        if (!stray) return;
    }
    // The command that wrote them holds the directory while it runs.
    const int fd = open((dir + "/" + kDescriptorFile).c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return;
    if (flock(fd, LOCK_EX | LOCK_NB) == 0) recoverHeld(dir);
    close(fd);
}

DirectoryGuard::DirectoryGuard(const std::string& dir) {
    const std::string conf = dir + "/" + kDescriptorFile;
    fd_ = open(conf.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd_ < 0) fail(dir + " is not a kesdb database (no " + kDescriptorFile + ")");
    if (flock(fd_, LOCK_EX | LOCK_NB) != 0) {
        close(fd_);
        fd_ = -1;
        fail(dir + " is being changed by another kesdb command (migrate, import, add, delete or factory-reset); "
                   "try again when it has ended",
             kExitBusy);
    }
}

DirectoryGuard::~DirectoryGuard() {
    if (fd_ >= 0) close(fd_);
}

MediaJournal::MediaJournal(const std::string& dir, const std::vector<std::string>& media) : dir_(dir), media_(media) {
    std::error_code ec;
    for (const std::string& m : media_)
        if (m.empty() || !fs::is_regular_file(m, ec))
            fail("this command needs media kept in files ('" + m + "' is not)");
    recoverHeld(dir_);
    std::ostringstream text;
    text << getpid() << "\n";
    for (const std::string& m : media_) {
        if (!fs::copy_file(m, copyOf(m), fs::copy_options::overwrite_existing, ec))
            fail("cannot copy " + m + " aside: " + ec.message());
        if (!syncQuietly(copyOf(m))) fail("cannot sync the copy of " + m + ": " + std::strerror(errno));
        text << m << "\n";
    }
    const std::string journal = dir_ + "/" + kJournal, tmp = journal + ".tmp";
    {
        std::ofstream out(tmp, std::ios::trunc);
        out << text.str();
        out.close();
        if (!out) fail("cannot write " + tmp + ": " + std::strerror(errno));
    }
    if (!syncQuietly(tmp) || rename(tmp.c_str(), journal.c_str()) != 0 || !syncQuietly(dir_))
        fail("cannot write " + journal + ": " + std::strerror(errno));
    open_ = true;
}

void MediaJournal::commit() {
    for (const std::string& m : media_) syncQuietly(m);
    unlink((dir_ + "/" + kJournal).c_str());
    syncQuietly(dir_);
    for (const std::string& m : media_) unlink(copyOf(m).c_str());
    open_ = false;
}

MediaJournal::~MediaJournal() {
    if (open_) recoverHeld(dir_);
}

}  // namespace kesdb
