// Memory-mapped medium driver: the medium is an existing file mapped shared into the process
// once, and records are copied in and out of the mapping. Configuration line:
//   <dir>/libkesdrv_mmap.so mmapMedia_open mmapMedia_close mmapMedia_read mmapMedia_write
//   mmapMedia_seek mmapMedia_sync [sync:]/path/to/file
//
// The medium name is the file's path, optionally preceded by "sync:":
//   /path/to/file        writes land in the shared mapping (the page cache) and reach the
//                        device when the medium is synced (kesDBMSync: msync of the mapping)
//                        or when the kernel writes the pages back;
//   sync:/path/to/file   every write is followed by msync(MS_SYNC) of the pages it touched, so
//                        a write has reached the device when it returns. The option may also
//                        begin the file's own name, "/path/to/sync:file": what a relative
//                        "sync:file" becomes in a database directory's media configuration.
// The same name always gives the same descriptor in a process: the first open of a name opens
// and maps the file, every later open only looks the name up (no system call), and close does
// nothing but check the descriptor. Descriptors stay valid until the library is unloaded,
// which unmaps every mapping and closes the files.
//
// Size. A process knows the file's size from its last look (fstat) and maps a region larger
// than that, so the medium can grow without a new mapping. An access that reaches beyond the
// known size looks again: data that another process appended becomes visible then, and the
// mapping is replaced by a larger one when the file outgrew it. A write beyond the end of the
// file extends it with pwrite (which never shrinks a file that another process grew meanwhile).
// Seeking to the end always looks at the file, so appends start at its true end. Files must
// not shrink while they are mapped.
//
// Threads. Reads and writes inside the known size take no lock: they load the known size and
// the current mapping (published in that order with release semantics) and copy. Looking again
// at the size, growing and remapping happen under a per-medium mutex; a replaced mapping is
// kept until the library is unloaded, since another thread may still be copying from it. The
// library that calls the driver serialises changes of the same record through its component
// locks; the driver keeps its own state consistent on its own.
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>

#define KESDRV_EXPORT __attribute__((visibility("default")))
// The paths that look at the file or change the mapping stay out of the copying fast paths.
#define KESDRV_SLOW __attribute__((noinline, cold))

namespace {

// Media one process can have open at once (the media table's size).
constexpr int kMaxMedia = 128;
// A mapping reserves at least this much address space beyond the file's size.
constexpr uint64_t kMinSlack = 1u << 20;
constexpr char kSyncPrefix[] = "sync:";

// Holds a mutex for the length of a scope (the driver needs nothing of the C++ runtime).
class Hold {
public:
    explicit Hold(pthread_mutex_t& m) : m_(m) { pthread_mutex_lock(&m_); }
    ~Hold() { pthread_mutex_unlock(&m_); }
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;

private:
    pthread_mutex_t& m_;
};

struct Mapping {
    uint8_t* base;
    uint64_t capacity;  // bytes of address space mapped (may exceed the file)
    Mapping* older;     // the mapping this one replaced, kept until unload
};

struct Medium {
    char* name = nullptr;  // the configured name, option included; fixed once published
    bool syncEachWrite = false;
    int fd = -1;
    std::atomic<Mapping*> map{nullptr};
    // Word-sized atomics, lock-free on 32-bit targets too: a size never exceeds the mapping,
    // which fits the address space, and the position never exceeds INT_MAX.
    std::atomic<size_t> size{0};  // known file size; [0, size) lies inside map
    std::atomic<int> position{0};  // the position seek moves (reads and writes are positioned)
    pthread_mutex_t grow = PTHREAD_MUTEX_INITIALIZER;  // looking at the size, growing, remapping
};

Medium g_media[kMaxMedia];
std::atomic<int> g_count{0};  // published media: 0 .. g_count-1
std::atomic<int> g_hint{0};   // the medium the last open found, tried first
pthread_mutex_t g_openLock = PTHREAD_MUTEX_INITIALIZER;  // adding a medium

inline void storeErr(int32_t* errPtr, int value) {
    if (errPtr) *errPtr = value;
}

inline int fail(int32_t* errPtr, int value) {
    storeErr(errPtr, value);
    return -1;
}

uint64_t pageSize() {
    const long p = sysconf(_SC_PAGESIZE);
    return p > 0 ? static_cast<uint64_t>(p) : 4096u;
}

inline uint64_t pageRound(uint64_t n) {
    const uint64_t p = pageSize();
    return (n + p - 1) / p * p;
}

// Address space to reserve for a file of `size` bytes: about twice its size.
uint64_t capacityFor(uint64_t size) {
    const uint64_t slack = size > kMinSlack ? size : kMinSlack;
    return pageRound(size + slack);
}

// Maps `capacity` bytes of the file; null with errno set on failure.
Mapping* mapFile(int fd, uint64_t capacity, Mapping* older) {
    if (capacity > SIZE_MAX) {
        errno = ENOMEM;
        return nullptr;
    }
    void* base = mmap(nullptr, static_cast<size_t>(capacity), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (base == MAP_FAILED) return nullptr;
    Mapping* m = static_cast<Mapping*>(malloc(sizeof(Mapping)));
    if (m) {
        *m = Mapping{static_cast<uint8_t*>(base), capacity, older};
    } else {
        munmap(base, static_cast<size_t>(capacity));
        errno = ENOMEM;
    }
    return m;
}

// Copies between the mapping and a caller's buffer (they never overlap). The short lengths of
// records and fields are copied inline, as two fixed-size moves that may overlap each other;
// longer ones by memcpy.
template <uint32_t kHalf>
inline void copyPair(uint8_t* d, const uint8_t* f, uint32_t n) {
    memcpy(d, f, kHalf);
    memcpy(d + n - kHalf, f + n - kHalf, kHalf);
}
inline void copyBytes(void* to, const void* from, uint32_t n) {
    uint8_t* d = static_cast<uint8_t*>(to);
    const uint8_t* f = static_cast<const uint8_t*>(from);
    if (n > 64 || n < 4) memcpy(d, f, n);
    else if (n >= 32) copyPair<32>(d, f, n);
    else if (n >= 16) copyPair<16>(d, f, n);
    else if (n >= 8) copyPair<8>(d, f, n);
    else copyPair<4>(d, f, n);
}

// The medium of a descriptor, or null.
inline Medium* mediumOf(int descriptor) {
    if (descriptor < 0 || descriptor >= g_count.load(std::memory_order_acquire)) return nullptr;
    return &g_media[descriptor];
}

// Makes [0, fileSize) part of the known size, with a larger mapping when the current one is
// too small. Called with m.grow held. 0, or an errno value.
int adoptSize(Medium& m, uint64_t fileSize) {
    const uint64_t known = m.size.load(std::memory_order_relaxed);
    if (fileSize <= known) return 0;
    Mapping* current = m.map.load(std::memory_order_relaxed);
    if (fileSize > current->capacity) {
        Mapping* larger = mapFile(m.fd, capacityFor(fileSize), current);
        if (!larger) return errno;
        m.map.store(larger, std::memory_order_release);
    }
    m.size.store(static_cast<size_t>(fileSize), std::memory_order_release);  // <= capacity
    return 0;
}

// Looks at the file's size again because an access reaches `end`, beyond the known size.
// Returns the known size afterwards, or -1 with the error number stored.
KESDRV_SLOW int64_t refresh(Medium& m, uint64_t end, int32_t* errPtr) {
    Hold lock(m.grow);
    const uint64_t known = m.size.load(std::memory_order_relaxed);
    if (end <= known) return static_cast<int64_t>(known);  // another thread looked meanwhile
    struct stat st;
    if (fstat(m.fd, &st) != 0) return fail(errPtr, errno);
    const int e = adoptSize(m, static_cast<uint64_t>(st.st_size));
    if (e != 0) return fail(errPtr, e);
    return static_cast<int64_t>(m.size.load(std::memory_order_relaxed));
}

// A read that reaches beyond the known size: what the file holds now, up to its end.
KESDRV_SLOW int readBeyond(Medium& m, void* buffer, uint32_t length, uint32_t offset, int32_t* errPtr) {
    const int64_t known = refresh(m, static_cast<uint64_t>(offset) + length, errPtr);
    if (known < 0) return -1;
    const uint64_t size = static_cast<uint64_t>(known);
    if (offset >= size) return 0;
    if (offset + static_cast<uint64_t>(length) > size) length = static_cast<uint32_t>(size - offset);
    memcpy(buffer, m.map.load(std::memory_order_acquire)->base + offset, length);
    return static_cast<int>(length);
}

// msync of the pages holding [offset, offset + length); 0 or -1 with errno.
KESDRV_SLOW int syncRange(const Mapping* map, uint64_t offset, uint64_t length) {
    if (length == 0) return 0;
    const uint64_t start = offset / pageSize() * pageSize();
    return msync(map->base + start, static_cast<size_t>(offset + length - start), MS_SYNC);
}

// A write that reaches beyond the known size: either the file is already long enough (another
// process grew it) and the write goes into the mapping, or it extends the file through pwrite.
KESDRV_SLOW int writeBeyond(Medium& m, const void* buffer, uint32_t length, uint32_t offset, int32_t* errPtr) {
    const uint64_t end = static_cast<uint64_t>(offset) + length;
    Hold lock(m.grow);
    struct stat st;
    if (fstat(m.fd, &st) != 0) return fail(errPtr, errno);
    const uint64_t fileSize = static_cast<uint64_t>(st.st_size);
    if (fileSize >= end) {
        if (const int e = adoptSize(m, fileSize)) return fail(errPtr, e);
        memcpy(m.map.load(std::memory_order_relaxed)->base + offset, buffer, length);
    } else {
        const uint8_t* bytes = static_cast<const uint8_t*>(buffer);
        uint32_t done = 0;
        while (done < length) {
            const ssize_t r = pwrite(m.fd, bytes + done, length - done, static_cast<off_t>(offset) + done);
            if (r < 0) {
                if (errno == EINTR) continue;
                return fail(errPtr, errno);
            }
            if (r == 0) return fail(errPtr, EIO);
            done += static_cast<uint32_t>(r);
        }
        if (const int e = adoptSize(m, end)) return fail(errPtr, e);
    }
    if (m.syncEachWrite && syncRange(m.map.load(std::memory_order_relaxed), offset, length) != 0)
        return fail(errPtr, errno);
    return static_cast<int>(length);
}

// Opens and maps the file of a name not seen before; the descriptor or -1.
KESDRV_SLOW int addMedium(const char* name, int32_t* errPtr) {
    Hold lock(g_openLock);
    const int count = g_count.load(std::memory_order_relaxed);
    for (int i = 0; i < count; ++i) {
        if (strcmp(g_media[i].name, name) == 0) return i;  // opened by another thread meanwhile
    }
    if (count >= kMaxMedia) return fail(errPtr, EMFILE);

    // The option begins the file's own name: "sync:FILE", or "DIR/sync:FILE" where a
    // database directory's relative name was made absolute.
    const size_t prefix = sizeof kSyncPrefix - 1;
    const char* slash = strrchr(name, '/');
    const char* base = strncmp(name, kSyncPrefix, prefix) == 0 ? name : slash ? slash + 1 : name;
    const bool syncEachWrite = strncmp(base, kSyncPrefix, prefix) == 0;
    char joined[PATH_MAX];
    const char* path = name;
    if (syncEachWrite && base == name) {
        path = name + prefix;
    } else if (syncEachWrite) {
        const int n = snprintf(joined, sizeof joined, "%.*s%s", static_cast<int>(base - name), name, base + prefix);
        if (n < 0 || static_cast<size_t>(n) >= sizeof joined) return fail(errPtr, ENAMETOOLONG);
        path = joined;
    }
    const int fd = ::open(path, O_RDWR | O_CLOEXEC);
    if (fd < 0) return fail(errPtr, errno);
    struct stat st;
    int e = 0;
    Mapping* map = nullptr;
    char* copy = nullptr;
    if (fstat(fd, &st) != 0) {
        e = errno;
    } else if (!S_ISREG(st.st_mode)) {
        e = ENODEV;  // only regular files have a size to map and grow
    } else if (!(map = mapFile(fd, capacityFor(static_cast<uint64_t>(st.st_size)), nullptr))) {
        e = errno;
    } else if (!(copy = strdup(name))) {
        e = ENOMEM;
    }
    if (e != 0) {
        if (map) {
            munmap(map->base, static_cast<size_t>(map->capacity));
            free(map);
        }
        ::close(fd);
        return fail(errPtr, e);
    }
    Medium& m = g_media[count];
    m.name = copy;
    m.syncEachWrite = syncEachWrite;
    m.fd = fd;
    m.map.store(map, std::memory_order_relaxed);
    m.size.store(static_cast<size_t>(st.st_size), std::memory_order_relaxed);  // mapped, so it fits
    m.position.store(0, std::memory_order_relaxed);
    g_count.store(count + 1, std::memory_order_release);
    return count;
}

// The descriptor of a name that is not the one the last open found: another medium already
// open, or a new one. -1 with the error number stored on failure.
KESDRV_SLOW int findMedium(const char* name, int32_t* errPtr) {
    const int count = g_count.load(std::memory_order_acquire);
    int d = -1;
    for (int i = 0; i < count && d < 0; ++i) {
        if (strcmp(g_media[i].name, name) == 0) d = i;
    }
    if (d < 0) d = addMedium(name, errPtr);
    if (d >= 0) g_hint.store(d, std::memory_order_relaxed);
    return d;
}

// Releases every mapping and file when the library is unloaded.
__attribute__((destructor)) void unloadAll() {
    const int count = g_count.load(std::memory_order_acquire);
    for (int i = 0; i < count; ++i) {
        Medium& m = g_media[i];
        Mapping* map = m.map.load(std::memory_order_relaxed);
        while (map) {
            Mapping* older = map->older;
            munmap(map->base, static_cast<size_t>(map->capacity));
            free(map);
            map = older;
        }
        m.map.store(nullptr, std::memory_order_relaxed);
        if (m.fd >= 0) ::close(m.fd);
        m.fd = -1;
        free(m.name);
        m.name = nullptr;
    }
    g_count.store(0, std::memory_order_release);
}

}  // namespace

extern "C" {

// The descriptor of the named medium; the first open in the process opens and maps the file
// (which must exist), later opens only find it. -1 with the error number stored on failure.
KESDRV_EXPORT int mmapMedia_open(const char* name, uint32_t arg, int32_t* errPtr) {
    (void)arg;
    if (!name) return fail(errPtr, EFAULT);
    const int hint = g_hint.load(std::memory_order_relaxed);
    if (hint < g_count.load(std::memory_order_acquire) && strcmp(g_media[hint].name, name) == 0) return hint;
    return findMedium(name, errPtr);
}

// Descriptors are shared and stay valid until unload: close only checks the descriptor.
KESDRV_EXPORT int mmapMedia_close(int descriptor, int32_t* errPtr) {
    return mediumOf(descriptor) ? 0 : fail(errPtr, EBADF);
}

// Copies up to `length` bytes at `offset`; like pread, fewer bytes come back when the medium
// ends first, and none at or beyond its end.
KESDRV_EXPORT int mmapMedia_read(int descriptor, void* buffer, uint32_t length, uint32_t offset,
                                 int32_t* errPtr) {
    Medium* m = mediumOf(descriptor);
    if (!m) return fail(errPtr, EBADF);
    if (length == 0) return 0;
    if (!buffer) return fail(errPtr, EFAULT);
    if (length > INT_MAX) length = INT_MAX;  // the count must fit the result
    const uint64_t end = static_cast<uint64_t>(offset) + length;
    if (end > m->size.load(std::memory_order_acquire)) return readBeyond(*m, buffer, length, offset, errPtr);
    copyBytes(buffer, m->map.load(std::memory_order_acquire)->base + offset, length);
    return static_cast<int>(length);
}

// Copies `length` bytes to `offset`, extending the medium when they reach beyond its end
// (a gap up to the offset reads as zeros). Returns length, or -1 with the error number.
KESDRV_EXPORT int mmapMedia_write(int descriptor, const void* buffer, uint32_t length, uint32_t offset,
                                  int32_t* errPtr) {
    Medium* m = mediumOf(descriptor);
    if (!m) return fail(errPtr, EBADF);
    if (length == 0) return 0;
    if (!buffer) return fail(errPtr, EFAULT);
    if (length > INT_MAX) return fail(errPtr, EINVAL);
    const uint64_t end = static_cast<uint64_t>(offset) + length;
    if (end > m->size.load(std::memory_order_acquire)) return writeBeyond(*m, buffer, length, offset, errPtr);
    const Mapping* map = m->map.load(std::memory_order_acquire);
    copyBytes(map->base + offset, buffer, length);
    if (m->syncEachWrite && syncRange(map, offset, length) != 0) return fail(errPtr, errno);
    return static_cast<int>(length);
}

// Moves the medium's position as lseek does and returns it. The end is the file's size as it
// is now, also when another process extended it.
KESDRV_EXPORT int mmapMedia_seek(int descriptor, uint32_t offset, int whence, int32_t* errPtr) {
    Medium* m = mediumOf(descriptor);
    if (!m) return fail(errPtr, EBADF);
    int64_t base = 0;
    switch (whence) {
        case SEEK_SET: break;
        case SEEK_CUR: base = m->position.load(std::memory_order_relaxed); break;
        case SEEK_END: {
            Hold lock(m->grow);
            struct stat st;
            if (fstat(m->fd, &st) != 0) return fail(errPtr, errno);
            if (const int e = adoptSize(*m, static_cast<uint64_t>(st.st_size))) return fail(errPtr, e);
            base = static_cast<int64_t>(st.st_size);
            break;
        }
        default: return fail(errPtr, EINVAL);
    }
    const int64_t position = base + static_cast<int64_t>(offset);
    if (position > INT_MAX) return fail(errPtr, EOVERFLOW);
    m->position.store(static_cast<int>(position), std::memory_order_relaxed);
    return static_cast<int>(position);
}

// Flushes the whole medium to the device (msync); 0, or -1 with the error number.
KESDRV_EXPORT int mmapMedia_sync(int descriptor, int32_t* errPtr, uint32_t syncArg) {
    (void)syncArg;
    Medium* m = mediumOf(descriptor);
    if (!m) return fail(errPtr, EBADF);
    const uint64_t size = m->size.load(std::memory_order_acquire);
    const Mapping* map = m->map.load(std::memory_order_acquire);
    if (size != 0 && msync(map->base, static_cast<size_t>(pageRound(size)), MS_SYNC) != 0)
        return fail(errPtr, errno);
    return 0;
}

}  // extern "C"
