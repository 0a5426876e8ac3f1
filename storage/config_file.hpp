// Internal: opening a configuration file (media, hooks) for reading.
//
// A configuration is read line by line to its end at start-up, so only a regular file is
// taken: a FIFO, a device (/dev/zero) or a directory would hang the start-up or never end.
// The open itself does not block (a FIFO without a writer), and any other kind of file is
// refused as if it could not be opened; the null device, which ends at once, stands for an
// empty configuration.
#pragma once

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kes {

inline FILE* openConfigFile(const char* path) {
    if (!path) return nullptr;
    const int fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return nullptr;
    struct stat st {};
    struct stat null {};
    const bool usable = fstat(fd, &st) == 0 &&
                        (S_ISREG(st.st_mode) ||
                         (S_ISCHR(st.st_mode) && stat("/dev/null", &null) == 0 && st.st_rdev == null.st_rdev));
    FILE* file = usable ? fdopen(fd, "r") : nullptr;
    if (!file) close(fd);
    return file;
}

}  // namespace kes
