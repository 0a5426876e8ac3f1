#include "diagnose.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace kesdb {

namespace {

// What keeps the start-up from mapping a table file of `size` bytes ("" when nothing does;
// a file that does not exist yet is made by the start-up).
std::string tableFault(const std::string& path, uint32_t size) {
    struct stat st {};
    if (lstat(path.c_str(), &st) != 0) return errno == ENOENT ? "" : std::strerror(errno);
    if (S_ISLNK(st.st_mode)) return "a symbolic link, which is never followed for a table";
    if (!S_ISREG(st.st_mode)) return "not a regular file";
    const int fd = open(path.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return std::strerror(errno);
    close(fd);
    if (st.st_size != 0 && st.st_size < static_cast<off_t>(size))
        return std::to_string(st.st_size) + " bytes, shorter than the table's " + std::to_string(size) +
               " (damaged or cut short; remove it when no process uses the database)";
    return "";
}

std::string configFault(const std::string& path) {
    struct stat st {};
    if (stat(path.c_str(), &st) != 0) return std::strerror(errno);
    if (!S_ISREG(st.st_mode)) return "not a regular file";
    if (access(path.c_str(), R_OK) != 0) return std::strerror(errno);
    return "";
}

}  // namespace

std::string startCause(const std::string& dir) {
    const std::pair<std::string, std::string> faults[] = {
        {dir + "/db.tbl", tableFault(dir + "/db.tbl", KESDB_DBTABLE_SIZE)},
        {dir + "/lock.tbl", tableFault(dir + "/lock.tbl", KESDB_LOCK_TABLE_SIZE)},
        {dir + "/media.conf", configFault(dir + "/media.conf")},
        {dir + "/hook.conf", configFault(dir + "/hook.conf")},
        {dir + "/session.tbl", tableFault(dir + "/session.tbl", KESDB_SESSION_TABLE_SIZE)},
    };
    std::string out;
    for (const auto& [file, fault] : faults)
        if (!fault.empty()) out += "; " + file + ": " + fault;
    return out;
}

}  // namespace kesdb
