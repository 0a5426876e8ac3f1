// Mapping of the shared table files.
//
// Set-up runs under an exclusive file lock on the table file, so of two processes that start
// at the same moment one lays the table down and the other finds it complete. An existing
// empty file (left by a process stopped before it could fill it) is laid down like a new one;
// a zero-fill that falls short truncates the file to empty again for the same reason.
#include "storage/shared_table.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "kesdbm/session.h"
#include "kesosw.h"
#include "storage/medium_io.hpp"

namespace kes {

namespace {

// Writes `size` zero bytes at the start of the file; false when it falls short.
bool zeroFill(int fd, const char* zeros, uint32_t size) {
    uint32_t done = 0;
    while (done < size) {
        ssize_t n = pwrite(fd, zeros + done, size - done, done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<uint32_t>(n);
    }
    return true;
}

}  // namespace

SharedTableOpen mapSharedTable(const char* path, uint32_t size, const SharedTableCodes& codes) {
    SharedTableOpen result;
    if (!path) {
        result.code = codes.noFile;
        return result;
    }
    // A symbolic link is never followed (one planted where a table is expected would make
    // the table, or a file created through it, lie wherever the link points).
    int fd = open(path, O_RDWR | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0 && errno == ENOENT) fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0664);
    if (fd < 0) {
        result.code = codes.noFile;
        return result;
    }
    ScopeExit closeFd([fd] { ::close(fd); });
    int locked;
    while ((locked = flock(fd, LOCK_EX)) != 0 && errno == EINTR) {
    }
    ScopeExit unlockFd([fd, locked] {
        if (locked == 0) flock(fd, LOCK_UN);
    });

    struct stat st{};
    if (fstat(fd, &st) != 0) {
        result.code = KESDB_ERR_MMAP;
        return result;
    }
    const bool fresh = st.st_size == 0;
    if (!fresh && st.st_size < static_cast<off_t>(size)) {
        result.code = KESDB_ERR_MMAP;  // mapping it would fault on the missing part
        return result;
    }
    if (fresh) {
        void* buffer = kesOSWSubAllocMem(size);
        if (!buffer) {
            result.code = KESDB_ERR_NOMEM;
            return result;
        }
        ScopeExit freeBuffer([buffer] { kesOSWOrgFreeMemPart(0, buffer); });
        std::memset(buffer, 0, size);
        if (!zeroFill(fd, static_cast<const char*>(buffer), size)) {
            if (ftruncate(fd, 0) != 0) {
                // Nothing more to do: the short file is refused at the next start-up.
            }
            result.code = codes.shortWrite;
            return result;
        }
    }
    void* map = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (map == MAP_FAILED) {
        result.code = KESDB_ERR_MMAP;
        return result;
    }
    result.map = map;
    result.created = fresh;
    return result;
}

bool unmapSharedTable(void* map, uint32_t size) { return munmap(map, size) == 0; }

}  // namespace kes
