#include "private_medium.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

namespace kesdb {

namespace {

// Address space reserved beyond the file at least, and the least step by which the file
// is lengthened ahead of the written end.
constexpr uint64_t kReserve = 64u << 20;
constexpr uint64_t kStep = 1u << 20;

struct PrivateMedium {
    std::string path;
    int fd = -1;
    uint8_t* base = nullptr;
    uint64_t capacity = 0;  // bytes mapped
    uint64_t length = 0;    // the file's size now (lengthened ahead)
    uint64_t end = 0;       // the written end: the size the file will have
    int64_t position = 0;
};

std::vector<PrivateMedium> g_media;
bool g_readOnly = false;
// The name the last open was given, and what it found: the library opens a medium for each
// record, always with the name its media table holds.
const char* g_lastName = nullptr;
int g_lastFound = -1;

int failWith(int32_t* errPtr, int e) {
    if (errPtr) *errPtr = e;
    return -1;
}

PrivateMedium* mediumOf(int descriptor) {
    return descriptor >= 0 && static_cast<size_t>(descriptor) < g_media.size() && g_media[descriptor].fd >= 0
               ? &g_media[static_cast<size_t>(descriptor)]
               : nullptr;
}

uint64_t pageRound(uint64_t n) {
    const long p = sysconf(_SC_PAGESIZE);
    const uint64_t page = p > 0 ? static_cast<uint64_t>(p) : 4096u;
    return (n + page - 1) / page * page;
}

// Maps `capacity` bytes of the medium's file in place of its current mapping; 0 or errno.
int mapAgain(PrivateMedium& m, uint64_t capacity) {
    if (capacity > SIZE_MAX) return ENOMEM;
    const int protection = g_readOnly ? PROT_READ : PROT_READ | PROT_WRITE;
    void* base = mmap(nullptr, static_cast<size_t>(capacity), protection, MAP_SHARED, m.fd, 0);
    if (base == MAP_FAILED) return errno;
    if (m.base) munmap(m.base, static_cast<size_t>(m.capacity));
    m.base = static_cast<uint8_t*>(base);
    m.capacity = capacity;
    return 0;
}

// Makes [0, end) writable through the mapping; 0 or errno.
int reach(PrivateMedium& m, uint64_t end) {
    if (end <= m.length) return 0;
    const uint64_t step = m.length / 8 > kStep ? m.length / 8 : kStep;
    const uint64_t length = pageRound(end > m.length + step ? end : m.length + step);
    if (length > m.capacity) {
        if (const int e = mapAgain(m, length + kReserve)) return e;
    }
    if (ftruncate(m.fd, static_cast<off_t>(length)) != 0) return errno;
    m.length = length;
    return 0;
}

// Cuts the file back to the written end; 0 or errno.
int cut(PrivateMedium& m) {
    if (m.length == m.end) return 0;
    if (ftruncate(m.fd, static_cast<off_t>(m.end)) != 0) return errno;
    m.length = m.end;
    return 0;
}

// A read-only medium's end after another look at its file: what another process has
// appended since becomes readable. 0 or errno.
int look(PrivateMedium& m) {
    struct stat st;
    if (fstat(m.fd, &st) != 0) return errno;
    const uint64_t size = static_cast<uint64_t>(st.st_size);
    if (size <= m.end) return 0;
    if (size > m.capacity) {
        if (const int e = mapAgain(m, pageRound(size) + kReserve)) return e;
    }
    m.length = m.end = size;
    return 0;
}

}  // namespace

void privateMedium_setReadOnly(bool readOnly) { g_readOnly = readOnly; }

int privateMedium_open(const char* name, uint32_t, int32_t* errPtr) {
    if (!name) return failWith(errPtr, EFAULT);
    if (name == g_lastName && std::strcmp(g_media[static_cast<size_t>(g_lastFound)].path.c_str(), name) == 0)
        return g_lastFound;
    for (size_t i = 0; i < g_media.size(); ++i) {
        if (g_media[i].fd >= 0 && g_media[i].path == name) {
            g_lastName = name;
            return g_lastFound = static_cast<int>(i);
        }
    }
    PrivateMedium m;
    m.path = name;
    m.fd = ::open(name, (g_readOnly ? O_RDONLY : O_RDWR) | O_CLOEXEC);
    if (m.fd < 0) return failWith(errPtr, errno);
    struct stat st;
    int e = fstat(m.fd, &st) != 0 ? errno : !S_ISREG(st.st_mode) ? ENODEV : 0;
    if (e == 0) {
        m.length = m.end = static_cast<uint64_t>(st.st_size);
        e = mapAgain(m, pageRound(m.length) + kReserve);
    }
    if (e != 0) {
        ::close(m.fd);
        return failWith(errPtr, e);
    }
    g_media.push_back(std::move(m));
    return static_cast<int>(g_media.size() - 1);
}

int privateMedium_close(int descriptor, int32_t* errPtr) {
    return mediumOf(descriptor) ? 0 : failWith(errPtr, EBADF);
}

int privateMedium_read(int descriptor, void* buffer, uint32_t length, uint32_t offset, int32_t* errPtr) {
    PrivateMedium* m = mediumOf(descriptor);
    if (!m) return failWith(errPtr, EBADF);
    if (g_readOnly && static_cast<uint64_t>(offset) + length > m->end) {
        if (const int e = look(*m)) return failWith(errPtr, e);
    }
    if (offset >= m->end) return 0;
    uint64_t n = m->end - offset < length ? m->end - offset : length;
    if (n > INT32_MAX) n = INT32_MAX;
    std::memcpy(buffer, m->base + offset, static_cast<size_t>(n));
    return static_cast<int>(n);
}

int privateMedium_write(int descriptor, const void* buffer, uint32_t length, uint32_t offset, int32_t* errPtr) {
    PrivateMedium* m = mediumOf(descriptor);
    if (!m) return failWith(errPtr, EBADF);
    if (g_readOnly) return failWith(errPtr, EROFS);
    if (length > INT32_MAX) return failWith(errPtr, EINVAL);
    const uint64_t end = static_cast<uint64_t>(offset) + length;
    if (const int e = reach(*m, end)) return failWith(errPtr, e);
    std::memcpy(m->base + offset, buffer, length);
    if (end > m->end) m->end = end;
    return static_cast<int>(length);
}

int privateMedium_seek(int descriptor, uint32_t offset, int whence, int32_t* errPtr) {
    PrivateMedium* m = mediumOf(descriptor);
    if (!m) return failWith(errPtr, EBADF);
    if (whence == SEEK_END && g_readOnly) {
        if (const int e = look(*m)) return failWith(errPtr, e);
    }
    const int64_t base = whence == SEEK_SET   ? 0
                         : whence == SEEK_CUR ? m->position
                         : whence == SEEK_END ? static_cast<int64_t>(m->end)
                                              : -1;
    if (base < 0) return failWith(errPtr, EINVAL);
    const int64_t position = base + static_cast<int64_t>(offset);
    if (position > INT32_MAX) return failWith(errPtr, EOVERFLOW);
    m->position = position;
    return static_cast<int>(position);
}

int privateMedium_sync(int descriptor, int32_t* errPtr, uint32_t) {
    PrivateMedium* m = mediumOf(descriptor);
    if (!m) return failWith(errPtr, EBADF);
    if (g_readOnly) return 0;  // nothing was written
    if (const int e = cut(*m)) return failWith(errPtr, e);
    if (m->end != 0 && msync(m->base, static_cast<size_t>(pageRound(m->end)), MS_SYNC) != 0)
        return failWith(errPtr, errno);
    return 0;
}

void privateMedium_releaseAll() {
    for (PrivateMedium& m : g_media) {
        if (m.fd < 0) continue;
        if (!g_readOnly) cut(m);
        munmap(m.base, static_cast<size_t>(m.capacity));
        ::close(m.fd);
    }
    g_media.clear();
    g_readOnly = false;
    g_lastName = nullptr;
}

}  // namespace kesdb
