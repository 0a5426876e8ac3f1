// Named-file medium driver: the medium is the existing file named by the medium's name
// (the eighth token of its media configuration line). Configuration line:
//   <dir>/libkesdrv_file.so fileMedia_open fileMedia_close fileMedia_read fileMedia_write
//   fileMedia_seek fileMedia_sync /path/to/file
#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>

#define KESDRV_EXPORT __attribute__((visibility("default")))

namespace {

inline void storeErr(int32_t* errPtr) {
    if (errPtr) *errPtr = errno;
}

}  // namespace

extern "C" {

// Opens the named file read-write with synchronous writes; the file must exist.
KESDRV_EXPORT int fileMedia_open(const char* name, uint32_t arg, int32_t* errPtr) {
    (void)arg;
    if (!name) {
        if (errPtr) *errPtr = EFAULT;
        return -1;
    }
    int fd = ::open(name, O_RDWR | O_DSYNC);
    if (fd < 0) storeErr(errPtr);
    return fd;
}

KESDRV_EXPORT int fileMedia_close(int descriptor, int32_t* errPtr) {
    int r = ::close(descriptor);
    if (r == -1) storeErr(errPtr);
    return r;
}

KESDRV_EXPORT int fileMedia_read(int descriptor, void* buffer, uint32_t length, uint32_t offset,
                                 int32_t* errPtr) {
    ssize_t r = ::pread(descriptor, buffer, length, static_cast<off_t>(offset));
    if (r == -1) storeErr(errPtr);
    return static_cast<int>(r);
}

KESDRV_EXPORT int fileMedia_write(int descriptor, const void* buffer, uint32_t length, uint32_t offset,
                                  int32_t* errPtr) {
    ssize_t r = ::pwrite(descriptor, buffer, length, static_cast<off_t>(offset));
    if (r == -1) storeErr(errPtr);
    return static_cast<int>(r);
}

KESDRV_EXPORT int fileMedia_seek(int descriptor, uint32_t offset, int whence, int32_t* errPtr) {
    off_t r = ::lseek(descriptor, static_cast<off_t>(offset), whence);
    if (r == -1) storeErr(errPtr);
    return static_cast<int>(r);
}

KESDRV_EXPORT int fileMedia_sync(int descriptor, int32_t* errPtr, uint32_t syncArg) {
    (void)syncArg;
    int r = ::fsync(descriptor);
    if (r == -1) storeErr(errPtr);
    return r;
}

}  // extern "C"
