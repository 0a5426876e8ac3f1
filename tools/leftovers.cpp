#include "leftovers.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>

#include "common.hpp"

namespace kesdb {

namespace {

constexpr const char* kMarker = "kesdb.building";
constexpr const char* kInfix = ".tmp-";
constexpr size_t kSuffix = 6;  // the XXXXXX of mkdtemp
constexpr time_t kUnmarkedAge = 60;

}  // namespace

BuildDir::BuildDir(const std::string& path) : path_(path) {
    fd_ = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd_ < 0 || flock(fd_, LOCK_EX) != 0) fail("cannot lock " + path + ": " + std::strerror(errno));
    const int marker = open((path + "/" + kMarker).c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (marker < 0) fail("cannot mark " + path + ": " + std::strerror(errno));
    close(marker);
}

BuildDir::~BuildDir() {
    if (fd_ >= 0) close(fd_);  // gives up the lock
}

void BuildDir::finish() { unlink((path_ + "/" + kMarker).c_str()); }

void removeLeftovers(const std::string& finalDir) {
    const size_t slash = finalDir.find_last_of('/');
    const std::string parent = slash == 0 ? "/" : finalDir.substr(0, slash);
    const std::string prefix = finalDir.substr(slash + 1) + kInfix;
    DIR* d = opendir(parent.c_str());
    if (!d) return;
    std::vector<std::string> candidates;
    while (const dirent* e = readdir(d)) {
        const std::string name = e->d_name;
        if (name.size() == prefix.size() + kSuffix && name.compare(0, prefix.size(), prefix) == 0)
            candidates.push_back(parent + "/" + name);
    }
    closedir(d);
    for (const std::string& c : candidates) {
        const int fd = open(c.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (fd < 0) continue;
        struct stat st {};
        const bool mine = fstat(fd, &st) == 0 && st.st_uid == geteuid();
        const bool marked = faccessat(fd, kMarker, F_OK, AT_SYMLINK_NOFOLLOW) == 0;
        const bool old = time(nullptr) - st.st_mtime > kUnmarkedAge;
        // A free lock: no create holds the directory.
        if (mine && (marked || old) && flock(fd, LOCK_EX | LOCK_NB) == 0) {
            std::error_code ec;
            std::filesystem::remove_all(c, ec);
            if (!ec) std::fprintf(stderr, "kesdb: removed %s, left by a create that was stopped\n", c.c_str());
        }
        close(fd);
    }
}

}  // namespace kesdb
