// Value records: the 28-byte record in the value medium that gives a value's type, the place
// and length of its data area and its constraint, and the reads and writes of that data.
#include <cerrno>
#include <cstddef>
#include <cstdlib>

#include "kesdbm/constraint.h"
#include "kesdbm/session.h"
#include "kesdbm/storage.h"
#include "kesdbm/value.h"
#include "storage/medium_io.hpp"

static_assert(sizeof(ValueRecord) == 28, "a value record is 28 bytes");
static_assert(offsetof(ValueRecord, key) == 0);
static_assert(offsetof(ValueRecord, type) == 4);
static_assert(offsetof(ValueRecord, dataMedium) == 8);
static_assert(offsetof(ValueRecord, dataOffset) == 12);
static_assert(offsetof(ValueRecord, length) == 16);
static_assert(offsetof(ValueRecord, creatorWord) == 20);
static_assert(offsetof(ValueRecord, constraintKey) == 24);

namespace {

constexpr uint32_t kRecordSize = sizeof(ValueRecord);
constexpr int kSeekEnd = 2;

// The number of data bytes a transfer moves: the smaller of the value's length and the
// caller's length, compared as signed counts. A negative count (a corrupt record length of
// 2^31 or more, or a negative caller length) moves nothing: the driver takes its length
// unsigned, so passing it on would run far past the caller's buffer.
int32_t transferCount(uint32_t recordLength, int32_t callerLength) {
    const int32_t stored = static_cast<int32_t>(recordLength);
    const int32_t n = stored < callerLength ? stored : callerLength;
    return n < 0 ? 0 : n;
}

// The driver entry of the value medium of the session's database; null after recording 83
// (no database) or after getMedia recorded 21.
MediaEntry* valueMedium(Session* s, const DBMInitParam** param = nullptr) {
    const DBMInitParam* p = kes::dbOf(s);
    if (param) *param = p;
    if (!p) {
        session_setError(s, KESDB_ERR_DB_NOTFOUND, 0);
        return nullptr;
    }
    return getMedia(s, kes::mediumIndex(p, kes::RecordKind::Value));
}

}  // namespace

extern "C" {

int32_t value_init(void) { return 0; }

int32_t value_term(void) { return 0; }

ValueRecord* value_get(Session* s, uint32_t key, ValueRecord* buffer) {
    MediaEntry* entry = valueMedium(s);
    if (!entry) return nullptr;
    if (key == 0) {
        session_setError(s, KESDB_ERR_VALUE_NULLKEY, 0);
        return nullptr;
    }
    // A record is always read into a caller's buffer; without one there is nowhere to put it.
    if (!buffer) {
        session_setError(s, KESDB_ERR_NULLARG, 0);
        return nullptr;
    }
    kes::Medium medium(entry);
    if (!medium.open()) {
        session_setError(s, KESDB_ERR_VALUE_OPEN, medium.err());
        return nullptr;
    }
    if (medium.read(buffer, kRecordSize, key) != static_cast<int>(kRecordSize)) {
        session_setError(s, KESDB_ERR_VALUE_READ, medium.err());
        return nullptr;
    }
    return buffer;
}

int32_t value_set(Session* s, const ValueRecord* record) {
    const DBMInitParam* p = nullptr;
    MediaEntry* entry = valueMedium(s, &p);
    if (!p) return KESDB_ERR_DB_NOTFOUND;
    if (!entry) return kes::lastError(s);
    if (!record) return session_setError(s, KESDB_ERR_NULLARG, 0);
    kes::Medium medium(entry);
    if (!medium.open()) return session_setError(s, KESDB_ERR_VALUE_OPEN, medium.err());
    int32_t code = 0;
    if (medium.write(record, kRecordSize, record->key) != static_cast<int>(kRecordSize)) {
        code = session_setError(s, KESDB_ERR_VALUE_WRITE, medium.err());
    } else {
        session_setError(s, 0, 0);  // a full write clears the session's error
    }
    medium.close();
    return code;
}

ValueRecord* value_new(Session* s, ValueRecord* record) {
    const DBMInitParam* p = kes::dbOf(s);
    if (!p) {
        session_setError(s, KESDB_ERR_DB_NOTFOUND, 0);
        return nullptr;
    }
    if (!record) {
        session_setError(s, KESDB_ERR_NULLARG, 0);
        return nullptr;
    }
    const uint32_t medium = kes::mediumIndex(p, kes::RecordKind::Value);
    // Looked up first so that a bad medium index keeps its own code (21) instead of being
    // mistaken below for a full medium.
    if (!getMedia(s, medium)) return nullptr;
    // The allocator yields 0 both when no free block is large enough and when it could not
    // read or walk its list (it recorded that failure then, with the driver's error word).
    // Only the first case is recorded here; a successful allocation leaves the session's
    // earlier error pair as it was.
    uint32_t key = 0;
    const bool allocatorFailed = kes::recordedBy(s, [&] { key = flst_m_get(s, medium, kRecordSize); }) != 0;
    if (key == KESDB_FLST_FAILED) return nullptr;  // the allocator recorded the cause
    if (key == 0) {
        // No free block is large enough: key 0 never names a record, so the creation fails
        // here and nothing is written. Recorded as a value record write that could not take
        // place (45, detail 0): the record has no place in the value medium.
        if (!allocatorFailed) session_setError(s, KESDB_ERR_VALUE_WRITE, 0);
        return nullptr;
    }
    record->key = key;
    return record;
}

int32_t value_setDeleted(Session* s, const ValueRecord* record) {
    const DBMInitParam* p = kes::dbOf(s);
    if (!p) return session_setError(s, KESDB_ERR_DB_NOTFOUND, 0);
    if (!record) return session_setError(s, KESDB_ERR_NULLARG, 0);
    return flst_m_release(s, kes::mediumIndex(p, kes::RecordKind::Value), record->key, kRecordSize);
}

int32_t value_delete(Session* s, uint32_t key) {
    ValueRecord record;
    if (!value_get(s, key, &record)) return kes::lastError(s);
    value_setDeleted(s, &record);
    return 0;
}

int32_t value_getLength(Session* s, uint32_t key) {
    ValueRecord record;
    if (!value_get(s, key, &record)) return -1;
    return static_cast<int32_t>(record.length);
}

int32_t value_getType(Session* s, uint32_t key) {
    ValueRecord record;
    if (!value_get(s, key, &record)) return -1;
    return static_cast<int32_t>(record.type);
}

uint32_t value_getConstraintKey(Session* s, uint32_t key) {
    ValueRecord record;
    if (!value_get(s, key, &record)) return 0;
    return record.constraintKey;
}

int32_t value_setConstraintKey(Session* s, uint32_t key, uint32_t constraintKey) {
    ValueRecord record;
    if (!value_get(s, key, &record)) return kes::lastError(s);
    record.constraintKey = constraintKey;
    value_set(s, &record);
    return 0;
}

int32_t value_getGeneric(Session* s, uint32_t key, void* buffer, int32_t* length) {
    if (!buffer || !length) return session_setError(s, KESDB_ERR_NULLARG, 0);
    ValueRecord record;
    if (!value_get(s, key, &record)) return 0;
    MediaEntry* entry = getMedia(s, record.dataMedium);
    if (!entry) return 0;
    kes::Medium medium(entry);
    if (!medium.open()) return session_setError(s, KESDB_ERR_MEDIA_OPEN, medium.err());
    const int32_t n = transferCount(record.length, *length);
    const int got = medium.read(buffer, static_cast<uint32_t>(n), record.dataOffset);
    *length = got;
    if (got < 0) session_setError(s, KESDB_ERR_MEDIA_READ, medium.err());
    return medium.close();
}

int32_t value_setGeneric(Session* s, uint32_t key, const void* data, int32_t length) {
    if (!data) return session_setError(s, KESDB_ERR_NULLARG, 0);
    ValueRecord record;
    if (!value_get(s, key, &record)) return 0;
    if (record.constraintKey != 0) {
        const int32_t rc = constraint_check(s, record.constraintKey, record.type, data, length);
        if (rc != 0) return rc;
    }
    MediaEntry* entry = getMedia(s, record.dataMedium);
    if (!entry) return 0;
    kes::Medium medium(entry);
    if (!medium.open()) return session_setError(s, KESDB_ERR_MEDIA_OPEN, medium.err());
    const int32_t n = transferCount(record.length, length);
    if (medium.write(data, static_cast<uint32_t>(n), record.dataOffset) < 0) {
        session_setError(s, KESDB_ERR_MEDIA_WRITE, medium.err());
    }
    return medium.close();
}

uint32_t value_create(Session* s, uint32_t type, uint32_t creatorWord, const void* data, int32_t size,
                      uint32_t dataMedium) {
    // A negative size cannot describe a data area (the write would take it as a count of
    // about 4 GiB); the creation is refused as a data write that cannot be made, before
    // anything is allocated.
    if (size < 0) {
        session_setError(s, KESDB_ERR_MEDIA_WRITE, EINVAL);
        return 0;
    }
    void* zeros = nullptr;
    if (!data) {
        zeros = std::calloc(size > 0 ? static_cast<size_t>(size) : 1u, 1);
        if (!zeros) {
            session_setError(s, KESDB_ERR_NOMEM, static_cast<uint32_t>(errno));
            return 0;
        }
        data = zeros;
    }
    kes::ScopeExit freeZeros([zeros] { std::free(zeros); });

    ValueRecord record{};
    if (!value_new(s, &record)) return 0;
    MediaEntry* entry = getMedia(s, dataMedium);
    if (!entry) return 0;
    record.dataMedium = dataMedium;
    kes::Medium medium(entry);
    if (!medium.open()) {
        session_setError(s, KESDB_ERR_MEDIA_OPEN, medium.err());
        return 0;
    }
    record.type = type;
    const int end = medium.seek(0, kSeekEnd);
    if (end < 0) {
        // Without the end of the medium there is no place for the data: refused like a
        // failed data write rather than writing at offset 0xFFFFFFFF.
        session_setError(s, KESDB_ERR_MEDIA_WRITE, medium.err());
        return 0;
    }
    record.dataOffset = static_cast<uint32_t>(end);
    record.creatorWord = creatorWord;
    record.length = static_cast<uint32_t>(size);
    record.constraintKey = 0;
    if (medium.write(data, static_cast<uint32_t>(size), record.dataOffset) < 0) {
        session_setError(s, KESDB_ERR_MEDIA_WRITE, medium.err());
        return 0;
    }
    value_set(s, &record);
    return record.key;
}

}  // extern "C"
