// Path-based free-list allocator: the free list of a file named by its path, reached with
// open/pread/pwrite/close directly.
//
// Every primitive opens the file afresh (read-only to read, read-write to write, never creating
// it), does one transfer and closes it. Errors: 53 open failed, 54 short or failed write, 55 short
// or failed read, each with errno as detail (0 when a transfer came back short without an error).
//
// The allocation walk is bounded: each step must move to a higher key, at least one element
// header (8 bytes) past the previous element (the first element at 16 or beyond, behind the
// anchor's word). Such a list ends after at most (file size / 8) steps, because a read beyond the
// end of the file fails. A link that breaks the rule (a loop, a key going backwards, or an
// element reaching beyond 4 GiB) ends the walk like a failed element read: 55
// (KESDB_ERR_COMP_READ) is recorded with the key of the element holding the bad link as detail
// (12 for the anchor), nothing is changed, and flst_get returns 0.
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <cstdint>

#include "kesdbm/session.h"
#include "kesdbm/storage.h"
#include "storage/free_list.hpp"

namespace {

constexpr uint32_t kAnchor = kes::kFreeListAnchor;
constexpr uint32_t kPatternMax = kes::kFragmentMax;
using kes::fitsIn32;
using kes::kDeadPattern;

// Element bodies of 1 to 1024 bytes are filled with 0xBA from a buffer of this size.
constexpr uint32_t kBodyBuffer = 1024;

// One opened file, closed when the scope ends.
class File {
public:
    File(const char* path, int flags) {
        errno = EFAULT;  // a null path is reported like an unreadable address
        if (path) fd_ = ::open(path, flags);
    }
    ~File() {
        if (fd_ >= 0) ::close(fd_);
    }
    File(const File&) = delete;
    File& operator=(const File&) = delete;
    bool ok() const { return fd_ >= 0; }
    ssize_t read(void* data, uint32_t length, uint32_t key) {
        errno = 0;
        return ::pread(fd_, data, length, static_cast<off_t>(key));
    }
    ssize_t write(const void* data, uint32_t length, uint32_t key) {
        errno = 0;
        return ::pwrite(fd_, data, length, static_cast<off_t>(key));
    }

private:
    int fd_ = -1;
};

uint32_t errnoDetail() { return static_cast<uint32_t>(errno); }

// Writes `length` bytes at `key`: 0, or 53/54 recorded.
int32_t writeAt(Session* s, const char* path, uint32_t key, const void* data, uint32_t length) {
    File f(path, O_RDWR);
    if (!f.ok()) {
        session_setError(s, KESDB_ERR_COMP_OPEN, errnoDetail());
        return KESDB_ERR_COMP_OPEN;
    }
    ssize_t r = f.write(data, length, key);
    if (r < 0 || static_cast<uint32_t>(r) != length) {
        session_setError(s, KESDB_ERR_COMP_WRITE, errnoDetail());
        return KESDB_ERR_COMP_WRITE;
    }
    return 0;
}

// Reads up to `length` bytes at `key`; true when at least 4 came back.
bool readAt(Session* s, const char* path, uint32_t key, void* data, uint32_t length) {
    File f(path, O_RDONLY);
    if (!f.ok()) {
        session_setError(s, KESDB_ERR_COMP_OPEN, errnoDetail());
        return false;
    }
    ssize_t r = f.read(data, length, key);
    if (r < 4) {
        session_setError(s, KESDB_ERR_COMP_READ, r < 0 ? errnoDetail() : 0u);
        return false;
    }
    return true;
}

}  // namespace

extern "C" {

uint32_t flst_getAnchorOffset(Session* s, const char* path) {
    (void)s;
    (void)path;
    return kAnchor;
}

uint32_t flst_getFirstOffset(Session* s, const char* path) {
    uint32_t first = 0;
    if (!readAt(s, path, kAnchor, &first, 4)) return 0;
    return first;
}

int32_t flst_setFirstOffset(Session* s, const char* path, uint32_t first) {
    return writeAt(s, path, kAnchor, &first, 4);
}

FreeElement* flst_getElement(Session* s, const char* path, uint32_t key, FreeElement* buffer) {
    if (!buffer) {
        session_setError(s, KESDB_ERR_NULLARG, 0);
        return nullptr;
    }
    // Zeroed first: an element of which only the next word could be read has size 0.
    FreeElement local{0, 0};
    if (!readAt(s, path, key, &local, sizeof local)) return nullptr;
    *buffer = local;
    return buffer;
}

int32_t flst_setElement(Session* s, const char* path, uint32_t key, const FreeElement* element) {
    if (!element) {
        session_setError(s, KESDB_ERR_NULLARG, 0);
        return KESDB_ERR_NULLARG;
    }
    File f(path, O_RDWR);
    if (!f.ok()) {
        session_setError(s, KESDB_ERR_COMP_OPEN, errnoDetail());
        return KESDB_ERR_COMP_OPEN;
    }
    const FreeElement out = *element;
    ssize_t r = f.write(&out, sizeof out, key);
    if (r != static_cast<ssize_t>(sizeof out)) {
        session_setError(s, KESDB_ERR_COMP_WRITE, errnoDetail());
        return KESDB_ERR_COMP_WRITE;
    }
    // The body of a small element is marked with 0xBA; the outcome of that write is ignored.
    if (out.size >= 9 && out.size <= 8 + kBodyBuffer && fitsIn32(key, out.size)) {
        unsigned char body[kBodyBuffer];
        memset(body, 0xBA, sizeof body);
        (void)f.write(body, out.size - 8, key + 8);
    }
    return 0;
}

int32_t flst_setNext(Session* s, const char* path, uint32_t key, uint32_t next) {
    return writeAt(s, path, key, &next, 4);
}

int32_t flst_fillFlagmented(Session* s, const char* path, uint32_t key, uint32_t count) {
    if (count > kPatternMax) {
        // Remainders are below 8 bytes; a larger count is refused before anything is written
        // (detail EINVAL).
        session_setError(s, KESDB_ERR_COMP_WRITE, EINVAL);
        return KESDB_ERR_COMP_WRITE;
    }
    return writeAt(s, path, key, kDeadPattern, count);
}

uint32_t flst_get(Session* s, const char* path, uint32_t size) {
    // The file's free list, through the path-based primitives.
    struct PathList {
        Session* s;
        const char* path;
        uint32_t first() { return flst_getFirstOffset(s, path); }
        bool element(uint32_t key, FreeElement& e) { return flst_getElement(s, path, key, &e) != nullptr; }
        int32_t setNext(uint32_t key, uint32_t next) { return flst_setNext(s, path, key, next); }
        int32_t setElement(uint32_t key, const FreeElement& e) { return flst_setElement(s, path, key, &e); }
        void fill(uint32_t key, uint32_t count) { flst_fillFlagmented(s, path, key, count); }
        void broken(uint32_t key) { session_setError(s, KESDB_ERR_COMP_READ, key); }
    } list{s, path};
    return kes::allocateFirstFit(list, size, false);
}

// Only the head of the list is examined: a block that neither precedes nor adjoins the first
// free element stays unrecorded. Such space is lost to the allocator until whoever prepares the
// file lays the list down again.
int32_t flst_release(Session* s, const char* path, uint32_t key, uint32_t size) {
    uint32_t first = flst_getFirstOffset(s, path);
    if (first == 0) return 0;
    FreeElement e{0, 0};
    if (!flst_getElement(s, path, first, &e)) return 0;
    // A block reaching beyond 4 GiB cannot be a record; it is not recorded.
    if (!fitsIn32(key, size)) return 0;
    const uint32_t end = key + size;
    if (kAnchor < key && end < first) {
        flst_setNext(s, path, kAnchor, key);
        FreeElement n{first, size};
        flst_setElement(s, path, key, &n);
    } else if (kAnchor == key && end < first) {
        FreeElement n{first, size};
        flst_setElement(s, path, kAnchor, &n);
    } else if (kAnchor < key && end == first) {
        flst_setNext(s, path, kAnchor, key);
        FreeElement n{e.next, e.size + size};
        flst_setElement(s, path, key, &n);
    } else if (kAnchor == key && end == first) {
        FreeElement n{e.next, size + e.size};
        flst_setElement(s, path, kAnchor, &n);
    }
    return 0;
}

}  // extern "C"
