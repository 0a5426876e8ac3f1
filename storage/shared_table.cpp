// Mapping of the shared table files.
#include "storage/shared_table.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "kesdbm/session.h"
#include "kesosw.h"
#include "storage/medium_io.hpp"

namespace kes {

namespace {

void* mapFile(int fd, uint32_t size) {
    void* map = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    return map == MAP_FAILED ? nullptr : map;
}

}  // namespace

SharedTableOpen mapSharedTable(const char* path, uint32_t size, const SharedTableCodes& codes) {
    SharedTableOpen result;
    int fd = open(path, O_RDWR);
    if (fd >= 0) {
        ScopeExit closeFd([fd] { ::close(fd); });
        struct stat st{};
        if (fstat(fd, &st) != 0 || st.st_size < static_cast<off_t>(size)) {
            result.code = KESDB_ERR_MMAP;
            return result;
        }
        result.map = mapFile(fd, size);
        if (!result.map) result.code = KESDB_ERR_MMAP;
        return result;
    }
    fd = open(path, O_RDWR | O_CREAT, 0664);
    if (fd < 0) {
        result.code = codes.noFile;
        return result;
    }
    ScopeExit closeFd([fd] { ::close(fd); });
    void* buffer = kesOSWSubAllocMem(size);
    if (!buffer) {
        result.code = KESDB_ERR_NOMEM;
        return result;
    }
    ScopeExit freeBuffer([buffer] { kesOSWOrgFreeMemPart(0, buffer); });
    std::memset(buffer, 0, size);
    if (write(fd, buffer, size) != static_cast<ssize_t>(size)) {
        result.code = codes.shortWrite;
        return result;
    }
    result.map = mapFile(fd, size);
    if (!result.map) {
        result.code = KESDB_ERR_MMAP;
        return result;
    }
    result.created = true;
    return result;
}

bool unmapSharedTable(void* map, uint32_t size) { return munmap(map, size) == 0; }

}  // namespace kes
