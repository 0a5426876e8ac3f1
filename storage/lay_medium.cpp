// Preparation of a medium file: the header and one free element covering all space behind it.
#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>

#include "kesdbm/storage.h"

extern "C" {

// The file is created (mode 0664) or truncated to `size` bytes, zero-filled. Header words 0
// and 1 are 0, root as given, first free element at 16; the element {next 0, size - 16} is
// written in host order. Returns 0 or an errno value (EINVAL for a null path or a size
// below 24, which leaves no room for a record behind the header).
int32_t kesdb_layMedium(const char* path, uint32_t size, uint32_t root) {
    if (!path || size < 24) return EINVAL;
    int fd = ::open(path, O_RDWR | O_CREAT | O_TRUNC, 0664);
    if (fd < 0) return errno;
    int32_t result = 0;
    const MediumHeader header{0, 0, root, 16};
    const FreeElement element{0, size - 16};
    errno = 0;
    if (::ftruncate(fd, static_cast<off_t>(size)) != 0) {
        result = errno;
    } else if (::pwrite(fd, &header, sizeof header, 0) != static_cast<ssize_t>(sizeof header)) {
        result = errno != 0 ? errno : EIO;
    } else if (::pwrite(fd, &element, sizeof element, 16) != static_cast<ssize_t>(sizeof element)) {
        result = errno != 0 ? errno : EIO;
    }
    if (::close(fd) != 0 && result == 0) result = errno;
    return result;
}

}  // extern "C"
