// Rooted free-list allocator: the free list and header of a medium reached through its driver.
//
// Every primitive opens the medium, does one transfer at an absolute offset and closes it again
// (kes::Medium closes on every path). Errors: 22 open failed, 23 short or failed write, 24 short
// or failed read, each with the driver's error number as detail.
//
// Walks over the list are bounded: each step must move to a higher key, at least one element
// header (8 bytes) past the previous element (the first element must lie behind the anchor's
// word, so at 16 or beyond). Such a list ends after at most (medium size / 8) steps, because a
// read beyond the end of the medium fails. A link that breaks the rule (a loop, a key that goes
// backwards, or an element reaching beyond 4 GiB) ends the walk like a failed element read: the
// call records 24 (KESDB_ERR_MEDIA_READ) with the key of the element holding the bad link as
// detail (12 for the anchor), changes nothing, and returns what it returns when no element fits:
// flst_m_get gives 0, flst_m_release gives 0.
#include <errno.h>
#include <stdio.h>
#include <string.h>

#include <cstdint>

#include "kesdbm/session.h"
#include "kesdbm/storage.h"
#include "storage/dir_state.hpp"
#include "storage/free_list.hpp"
#include "storage/medium_io.hpp"

namespace {

constexpr uint32_t kAnchor = kes::kFreeListAnchor;
constexpr uint32_t kPatternMax = kes::kFragmentMax;
using kes::advances;
using kes::fitsIn32;
using kes::kDeadPattern;

// Writes `length` bytes at `key`: 0, or 22/23 recorded. A missing media entry gives 0 with
// error 21 left recorded by getMedia.
int32_t writeAt(Session* s, uint32_t medium, uint32_t key, const void* data, uint32_t length) {
    MediaEntry* entry = getMedia(s, medium);
    if (!entry) return 0;
    kes::Medium m(entry);
    if (!m.open()) {
        session_setError(s, KESDB_ERR_MEDIA_OPEN, m.err());
        return KESDB_ERR_MEDIA_OPEN;
    }
    int r = m.write(data, length, key);
    if (r < 0 || static_cast<uint32_t>(r) != length) {
        session_setError(s, KESDB_ERR_MEDIA_WRITE, m.err());
        return KESDB_ERR_MEDIA_WRITE;
    }
    return 0;
}

// Reads up to `length` bytes at `key`; true when at least `minimum` came back.
bool readAt(Session* s, uint32_t medium, uint32_t key, void* data, uint32_t length, uint32_t minimum) {
    MediaEntry* entry = getMedia(s, medium);
    if (!entry) return false;
    kes::Medium m(entry);
    if (!m.open()) {
        session_setError(s, KESDB_ERR_MEDIA_OPEN, m.err());
        return false;
    }
    int r = m.read(data, length, key);
    if (r < 0 || static_cast<uint32_t>(r) < minimum) {
        session_setError(s, KESDB_ERR_MEDIA_READ, m.err());
        return false;
    }
    return true;
}

// A broken link ends a walk; see the file comment.
void brokenLink(Session* s, uint32_t key) { session_setError(s, KESDB_ERR_MEDIA_READ, key); }

}  // namespace

extern "C" {

uint32_t flst_m_getAnchorOffset(Session* s, uint32_t medium) {
    (void)s;
    (void)medium;
    return kAnchor;
}

uint32_t flst_m_getFirstOffset(Session* s, uint32_t medium) {
    uint32_t first = 0;
    if (!readAt(s, medium, kAnchor, &first, 4, 4)) return 0;
    return first;
}

int32_t flst_m_setFirstOffset(Session* s, uint32_t medium, uint32_t first) {
    return writeAt(s, medium, kAnchor, &first, 4);
}

FreeElement* flst_m_getElement(Session* s, uint32_t medium, uint32_t key, FreeElement* buffer) {
    if (!buffer) {
        session_setError(s, KESDB_ERR_NULLARG, 0);
        return nullptr;
    }
    // Zeroed first: an element of which only the next word could be read has size 0.
    FreeElement local{0, 0};
    if (!readAt(s, medium, key, &local, sizeof local, 4)) return nullptr;
    *buffer = local;
    return buffer;
}

int32_t flst_m_setElement(Session* s, uint32_t medium, uint32_t key, const FreeElement* element) {
    if (!element) {
        session_setError(s, KESDB_ERR_NULLARG, 0);
        return KESDB_ERR_NULLARG;
    }
    MediaEntry* entry = getMedia(s, medium);
    if (!entry) return 0;
    kes::Medium m(entry);
    if (!m.open()) {
        session_setError(s, KESDB_ERR_MEDIA_OPEN, m.err());
        return KESDB_ERR_MEDIA_OPEN;
    }
    // The byte-order rule is asked afresh for every element write; the caller's element
    // stays unchanged, an adjusted copy is written. A database started from its directory is
    // kept in host order, as it is read back.
    FreeElement out = *element;
    if (!kes::dirState() && boadj_type() == 1) {
        FreeElement source = *element;
        boadj_wordx2(&source, 1, &out);
    }
    int r = m.write(&out, sizeof out, key);
    if (r != static_cast<int>(sizeof out)) {
        session_setError(s, KESDB_ERR_MEDIA_WRITE, m.err());
        return KESDB_ERR_MEDIA_WRITE;
    }
    return 0;
}

int32_t flst_m_setNext(Session* s, uint32_t medium, uint32_t key, uint32_t next) {
    return writeAt(s, medium, key, &next, 4);
}

int32_t flst_m_fillFlagmented(Session* s, uint32_t medium, uint32_t key, uint32_t count) {
    if (count > kPatternMax) {
        // Remainders are below 8 bytes; a larger count is refused before anything is written
        // (detail EINVAL).
        session_setError(s, KESDB_ERR_MEDIA_WRITE, EINVAL);
        return KESDB_ERR_MEDIA_WRITE;
    }
    return writeAt(s, medium, key, kDeadPattern, count);
}

uint32_t flst_m_get(Session* s, uint32_t medium, uint32_t size) {
    // The medium's free list, through the rooted primitives.
    struct MediumList {
        Session* s;
        uint32_t medium;
        uint32_t first() { return flst_m_getFirstOffset(s, medium); }
        bool element(uint32_t key, FreeElement& e) { return flst_m_getElement(s, medium, key, &e) != nullptr; }
        int32_t setNext(uint32_t key, uint32_t next) { return flst_m_setNext(s, medium, key, next); }
        int32_t setElement(uint32_t key, const FreeElement& e) { return flst_m_setElement(s, medium, key, &e); }
        void fill(uint32_t key, uint32_t count) { flst_m_fillFlagmented(s, medium, key, count); }
        void broken(uint32_t key) { brokenLink(s, key); }
    } list{s, medium};
    return kes::allocateFirstFit(list, size, true);
}

int32_t flst_m_release(Session* s, uint32_t medium, uint32_t key, uint32_t size) {
    uint32_t first = flst_m_getFirstOffset(s, medium);
    if (first == 0) return 0;  // an empty list: the block stays unrecorded
    // A block reaching beyond 4 GiB cannot be a record; it is not recorded.
    if (!fitsIn32(key, size)) return 0;
    if (!advances(kAnchor, first)) {
        brokenLink(s, kAnchor);
        return 0;
    }
    const uint32_t end = key + size;
    uint32_t predecessor = kAnchor;
    uint32_t predecessorSize = 0;  // the anchor counts as an element of size 0
    uint32_t current = first;
    for (;;) {
        FreeElement c{0, 0};
        if (!flst_m_getElement(s, medium, current, &c)) return 0;
        const uint32_t pend = predecessor + predecessorSize;
        if (pend < key && end < current) {
            flst_m_setNext(s, medium, predecessor, key);
            FreeElement n{current, size};
            flst_m_setElement(s, medium, key, &n);
            return 0;
        }
        if (pend == key && end < current) {
            FreeElement n{current, predecessorSize + size};
            flst_m_setElement(s, medium, predecessor, &n);
            return 0;
        }
        if (pend < key && end == current) {
            flst_m_setNext(s, medium, predecessor, key);
            FreeElement n{c.next, c.size + size};
            flst_m_setElement(s, medium, key, &n);
            return 0;
        }
        if (pend == key && end == current) {
            FreeElement n{c.next, predecessorSize + size + c.size};
            flst_m_setElement(s, medium, predecessor, &n);
            return 0;
        }
        if (c.next == 0) return 0;  // behind the last free element: not recorded
        if (!fitsIn32(current, c.size) || !advances(current, c.next)) {
            brokenLink(s, current);
            return 0;
        }
        predecessor = current;
        predecessorSize = c.size;
        current = c.next;
    }
}

uint32_t flst_m_getRoot(Session* s, uint32_t medium) {
    MediaEntry* entry = getMedia(s, medium);
    if (!entry) return 0;
    MediumHeader header{0, 0, 0, 0};
    kes::Medium m(entry);
    if (!m.open()) {
        printf("flst_m_getRoot err2 0x%x\n", static_cast<unsigned>(m.descriptor()));
        session_setError(s, KESDB_ERR_MEDIA_OPEN, m.err());
        return 0;
    }
    int r = m.read(&header, sizeof header, 0);
    if (r < static_cast<int>(sizeof header)) {
        printf("flst_m_getRoot err1 0x%x\n", static_cast<unsigned>(m.descriptor()));
        session_setError(s, KESDB_ERR_MEDIA_READ, m.err());
        return 0;
    }
    return header.root;
}

int32_t flst_m_setRoot(Session* s, uint32_t medium, uint32_t root) {
    MediaEntry* entry = getMedia(s, medium);
    if (!entry) return 0;
    MediumHeader header{0, 0, 0, 0};
    kes::Medium m(entry);
    if (!m.open()) {
        session_setError(s, KESDB_ERR_MEDIA_OPEN, m.err());
        return KESDB_ERR_MEDIA_OPEN;
    }
    int r = m.read(&header, sizeof header, 0);
    if (r < static_cast<int>(sizeof header)) {
        session_setError(s, KESDB_ERR_MEDIA_READ, m.err());
        return KESDB_ERR_MEDIA_READ;
    }
    // Words 0 and 1 are not interpreted; they go back exactly as they were read.
    header.root = root;
    r = m.write(&header, sizeof header, 0);
    if (r != static_cast<int>(sizeof header)) {
        session_setError(s, KESDB_ERR_MEDIA_WRITE, m.err());
        return KESDB_ERR_MEDIA_WRITE;
    }
    return 0;
}

}  // extern "C"
