// The string table: 16-byte entries in the string medium that say where a text lies; the
// texts themselves are appended to a medium chosen when the string is created.
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstring>

#include "kesdbm/storage.h"
#include "kesdbm/value.h"
#include "storage/medium_io.hpp"

static_assert(sizeof(StringEntry) == 16, "string entry is 16 bytes");
static_assert(offsetof(StringEntry, key) == 0);
static_assert(offsetof(StringEntry, textMedium) == 4);
static_assert(offsetof(StringEntry, textOffset) == 8);
static_assert(offsetof(StringEntry, textLength) == 12);

namespace {

constexpr uint32_t kEntrySize = sizeof(StringEntry);
// Records start behind the 16-byte medium header.
constexpr uint32_t kFirstRecordKey = 16;

// The string medium's driver entry, or null (83 or 21 recorded).
MediaEntry* stringMedium(Session* s, uint32_t* index = nullptr) {
    const DBMInitParam* p = kes::dbOf(s);
    if (!p) {
        session_setError(s, KESDB_ERR_DB_NOTFOUND, 0);
        return nullptr;
    }
    const uint32_t medium = kes::mediumIndex(p, kes::RecordKind::String);
    if (index) *index = medium;
    return getMedia(s, medium);
}

// A new 16-byte block from the rooted allocator. The allocator yields 0 both when no free
// element is large enough and when one of its own reads failed (it recorded that code).
// Only the first case is recorded here: KESDB_ERR_STR_ALLOC (41) with ENOSPC as detail. A
// successful allocation leaves the session's earlier error pair untouched.
uint32_t allocateEntry(Session* s, uint32_t medium) {
    uint32_t key = 0;
    if (kes::recordedBy(s, [&] { key = flst_m_get(s, medium, kEntrySize); }) == 0 && key == 0)
        session_setError(s, KESDB_ERR_STR_ALLOC, ENOSPC);
    return key;
}

}  // namespace

extern "C" {

// A short read returns the buffer as the table always did; the bytes the read did not reach
// are 0 (the buffer is cleared first), never left over from the caller.
StringEntry* kesdb_getStrEntry(Session* s, uint32_t key, StringEntry* buffer) {
    MediaEntry* entry = stringMedium(s);
    if (!entry) return nullptr;
    if (!buffer) {
        session_setError(s, KESDB_ERR_NULLARG, 0);
        return nullptr;
    }
    kes::Medium medium(entry);
    if (!medium.open()) {
        session_setError(s, KESDB_ERR_STR_OPEN, medium.err());
        return nullptr;
    }
    std::memset(buffer, 0, sizeof *buffer);
    if (medium.read(buffer, kEntrySize, key) < 0) {
        session_setError(s, KESDB_ERR_STR_READ, medium.err());
        return nullptr;
    }
    return buffer;
}

// Reads at most `size` bytes of the text; no NUL is added when the text is cut. A size or a
// stored length of 0 or less reads nothing and returns the buffer unchanged.
char* kesdb_getString(Session* s, uint32_t key, char* buffer, int32_t size) {
    if (!buffer && size > 0) {
        session_setError(s, KESDB_ERR_NULLARG, 0);
        return nullptr;
    }
    StringEntry entry{};
    if (!kesdb_getStrEntry(s, key, &entry)) return nullptr;
    MediaEntry* text = getMedia(s, entry.textMedium);
    if (!text) return nullptr;
    kes::Medium medium(text);
    if (!medium.open()) {
        session_setError(s, KESDB_ERR_MEDIA_OPEN, medium.err());
        return nullptr;
    }
    const int32_t length = static_cast<int32_t>(entry.textLength);
    const int32_t n = length < size ? length : size;
    if (n > 0 && medium.read(buffer, static_cast<uint32_t>(n), entry.textOffset) < 0) {
        session_setError(s, KESDB_ERR_MEDIA_READ, medium.err());
        return nullptr;
    }
    return buffer;
}

// Failures are seen through the session: a full write records 0, a short one 39. The result
// is the close operation's (or the code recorded when the medium could not be opened).
int32_t str_setEntry(Session* s, const StringEntry* entry) {
    MediaEntry* driver = stringMedium(s);
    if (!driver) return kes::dbOf(s) ? 0 : KESDB_ERR_DB_NOTFOUND;
    if (!entry) return session_setError(s, KESDB_ERR_NULLARG, 0);
    kes::Medium medium(driver);
    if (!medium.open()) return session_setError(s, KESDB_ERR_STR_OPEN, medium.err());
    if (medium.write(entry, kEntrySize, entry->key) != static_cast<int>(kEntrySize)) {
        session_setError(s, KESDB_ERR_STR_WRITE, medium.err());
    } else {
        session_setError(s, 0, 0);
    }
    return medium.close();
}

// Nothing is written into the new block here, and a block is never handed out at key 0.
StringEntry* str_newEntry(Session* s, StringEntry* buffer) {
    uint32_t index = 0;
    MediaEntry* driver = stringMedium(s, &index);
    if (!driver) return nullptr;
    if (!buffer) {
        session_setError(s, KESDB_ERR_NULLARG, 0);
        return nullptr;
    }
    kes::Medium medium(driver);
    if (!medium.open()) {
        session_setError(s, KESDB_ERR_STR_OPEN, medium.err());
        return nullptr;
    }
    const uint32_t key = allocateEntry(s, index);
    if (key == KESDB_FLST_FAILED) {
        session_setError(s, KESDB_ERR_STR_ALLOC, static_cast<uint32_t>(errno));
        return nullptr;
    }
    if (key == 0) return nullptr;
    buffer->key = key;
    return buffer;
}

// The text goes to the end of its medium. Creation fails (result 0) when the end cannot be
// found (seek failure: 23, as the text cannot be appended), when the text is not written
// whole (23; a short write counts as a failure, the entry would name a cut text), or when the
// entry itself cannot be written (its code stays recorded). The entry's block then stays
// allocated and unreferenced.
uint32_t str_create(Session* s, const char* text, uint32_t medium) {
    if (!text) {
        session_setError(s, KESDB_ERR_NULLARG, 0);
        return 0;
    }
    StringEntry entry{};
    if (!str_newEntry(s, &entry)) return 0;
    MediaEntry* driver = getMedia(s, medium);
    if (!driver) return 0;
    entry.textMedium = medium;
    kes::Medium textMedium(driver);
    if (!textMedium.open()) {
        session_setError(s, KESDB_ERR_MEDIA_OPEN, textMedium.err());
        return 0;
    }
    const int end = textMedium.seek(0, 2);
    if (end < 0) {
        session_setError(s, KESDB_ERR_MEDIA_WRITE, textMedium.err());
        return 0;
    }
    const size_t length = std::strlen(text);
    if (length >= static_cast<size_t>(INT32_MAX)) {
        session_setError(s, KESDB_ERR_MEDIA_WRITE, EFBIG);
        return 0;
    }
    entry.textOffset = static_cast<uint32_t>(end);
    entry.textLength = static_cast<uint32_t>(length + 1);
    if (textMedium.write(text, entry.textLength, entry.textOffset) != static_cast<int>(entry.textLength)) {
        session_setError(s, KESDB_ERR_MEDIA_WRITE, textMedium.err());
        return 0;
    }
    str_setEntry(s, &entry);
    if (kes::lastError(s) != 0) return 0;
    return entry.key;
}

// A key inside the medium header (below 16) never names an entry, and a release there would
// overwrite the header: nothing is released and the result is 0.
int32_t str_setDeleted(Session* s, const StringEntry* entry) {
    const DBMInitParam* p = kes::dbOf(s);
    if (!p) return session_setError(s, KESDB_ERR_DB_NOTFOUND, 0);
    if (!entry) return session_setError(s, KESDB_ERR_NULLARG, 0);
    if (entry->key < kFirstRecordKey) return 0;
    return flst_m_release(s, kes::mediumIndex(p, kes::RecordKind::String), entry->key, kEntrySize);
}

// Every stored entry begins with its own key. A key whose 16 bytes do not (key 0, the
// medium header, or anything that is not an entry) is refused with error 40, detail 0, and
// nothing is released: releasing the key stored there could free space in use.
int32_t str_delete(Session* s, uint32_t key) {
    StringEntry entry{};
    if (!kesdb_getStrEntry(s, key, &entry)) {
        const int32_t code = kes::lastError(s);
        return code != 0 ? code : KESDB_ERR_DB_NOTFOUND;
    }
    if (entry.key != key || key == 0) return session_setError(s, KESDB_ERR_STR_READ, 0);
    str_setDeleted(s, &entry);
    return 0;
}

}  // extern "C"
