// Constraint records: the common header, the enumeration arrays, and the operations that
// move a constraint's data between the caller and the constraint medium whatever its kind.
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "constraint/record_io.hpp"
#include "kesdbm/constraint.h"
#include "storage/medium_io.hpp"

static_assert(sizeof(ConstraintHeader) == 8, "constraint header is 8 bytes");
static_assert(offsetof(ConstraintHeader, key) == 0 && offsetof(ConstraintHeader, type) == 4,
              "constraint header layout");

namespace kes::cstrt {
namespace {

enum class Reach { Ok, NoDb, NoDriver };

struct Target {
    Reach reach;
    MediaEntry* entry;
    uint32_t index;
};

// Finds the database's constraint medium: 83 is recorded when the session's database is
// not registered; getMedia records 21 itself when the index is not in the media table.
Target reachMedium(Session* s) {
    const DBMInitParam* p = kes::dbOf(s);
    if (!p) {
        session_setError(s, KESDB_ERR_DB_NOTFOUND, 0);
        return {Reach::NoDb, nullptr, 0};
    }
    const uint32_t index = kes::mediumIndex(p, kes::RecordKind::Constraint);
    MediaEntry* entry = getMedia(s, index);
    if (!entry) return {Reach::NoDriver, nullptr, index};
    return {Reach::Ok, entry, index};
}

uint32_t detailOf(Detail kind, const kes::Medium& m, int savedErrno) {
    return kind == Detail::Driver ? m.err() : static_cast<uint32_t>(savedErrno);
}

}  // namespace

int32_t nullArgument(Session* s) { return session_setError(s, KESDB_ERR_NULLARG, 0); }

bool readRecord(Session* s, uint32_t key, void* buffer, uint32_t size) {
    const Target t = reachMedium(s);
    if (t.reach != Reach::Ok) return false;
    kes::Medium m(t.entry);
    if (!m.open()) {
        session_setError(s, KESDB_ERR_CSTRT_OPEN, m.err());
        return false;
    }
    if (m.read(buffer, size, key) != static_cast<int>(size)) {
        session_setError(s, KESDB_ERR_CSTRT_READ, m.err());
        return false;
    }
    return true;
}

int32_t writeRecord(Session* s, uint32_t key, const void* record, uint32_t size, Detail detail) {
    const Target t = reachMedium(s);
    if (t.reach == Reach::NoDb) return KESDB_ERR_DB_NOTFOUND;
    if (t.reach == Reach::NoDriver) return 0;
    kes::Medium m(t.entry);
    if (!m.open()) {
        const int e = errno;
        return session_setError(s, KESDB_ERR_CSTRT_OPEN, detailOf(detail, m, e));
    }
    if (m.write(record, size, key) != static_cast<int>(size)) {
        const int e = errno;
        session_setError(s, KESDB_ERR_CSTRT_WRITE, detailOf(detail, m, e));
    } else {
        session_setError(s, 0, 0);
    }
    return m.close();
}

// A block handed out by the allocator: its key, or 0 after a failure has been recorded.
// The allocator's 0 means either that no free element was large enough or that it could not
// read or walk its list (it recorded that failure then, with the driver's error word, and it
// stays). Nothing may be written then, since key 0 is the medium header. No room is recorded
// as 62 with detail 0 (the allocator's own failure, 0xFFFFFFFF, carries errno as its
// detail). A successful allocation leaves the session's earlier error pair as it was.
static uint32_t allocateBlock(Session* s, uint32_t medium, uint32_t size) {
    uint32_t key = 0;
    const bool allocatorFailed = kes::recordedBy(s, [&] { key = flst_m_get(s, medium, size); }) != 0;
    if (key == KESDB_FLST_FAILED) {
        session_setError(s, KESDB_ERR_CSTRT_ALLOC, static_cast<uint32_t>(errno));
        return 0;
    }
    if (key == 0 && !allocatorFailed) session_setError(s, KESDB_ERR_CSTRT_ALLOC, 0);
    return key;
}

bool newRecord(Session* s, void* record, uint32_t size, Detail openDetail, bool write) {
    const Target t = reachMedium(s);
    if (t.reach != Reach::Ok) return false;
    kes::Medium m(t.entry);
    if (!m.open()) {
        const int e = errno;
        session_setError(s, KESDB_ERR_CSTRT_OPEN, detailOf(openDetail, m, e));
        return false;
    }
    const uint32_t key = allocateBlock(s, t.index, size);
    if (key == 0) return false;
    std::memcpy(record, &key, sizeof key);
    if (write && m.write(record, size, key) != static_cast<int>(size)) {
        session_setError(s, KESDB_ERR_CSTRT_WRITE, static_cast<uint32_t>(errno));
        return false;
    }
    return true;
}

}  // namespace kes::cstrt

using kes::cstrt::arrayBytes;
using kes::cstrt::Detail;
using kes::cstrt::kArraySeekCheck;
using kes::cstrt::kMaxArrayBytes;

extern "C" {

int32_t constraint_init(void) { return 0; }
int32_t constraint_term(void) { return 0; }

ConstraintHeader* constraint_get(Session* s, uint32_t key, ConstraintHeader* buffer) {
    if (!buffer) {
        kes::cstrt::nullArgument(s);
        return nullptr;
    }
    return kes::cstrt::readRecord(s, key, buffer, sizeof *buffer) ? buffer : nullptr;
}

int32_t constraint_set(Session* s, const ConstraintHeader* header) {
    if (!header) return kes::cstrt::nullArgument(s);
    return kes::cstrt::writeRecord(s, header->key, header, sizeof *header, Detail::Driver);
}

// Only the block is taken; nothing is written into it.
ConstraintHeader* constraint_new(Session* s, ConstraintHeader* buffer) {
    if (!buffer) {
        kes::cstrt::nullArgument(s);
        return nullptr;
    }
    return kes::cstrt::newRecord(s, buffer, sizeof *buffer, Detail::Driver, false) ? buffer : nullptr;
}

uint32_t constraint_getType(Session* s, uint32_t key) {
    ConstraintHeader h;
    return constraint_get(s, key, &h) ? h.type : 0u;
}

// An enumeration whose member size x count is beyond any array that can exist (more than
// a signed 32-bit length) gives 65 with detail 0 and the result 0.
int32_t constraint_getLength(Session* s, uint32_t key) {
    ConstraintHeader h;
    if (!constraint_get(s, key, &h)) return 0;
    if (kes::cstrt::isRangeCode(h.type)) return static_cast<int32_t>(kes::cstrt::rangeDataLength(h.type));
    if (kes::cstrt::isEnumCode(h.type)) {
        EnumRecord r;
        if (!enum_get(s, key, &r)) return 0;
        const uint64_t bytes = arrayBytes(r.elementSize, r.count);
        if (bytes > kMaxArrayBytes) {
            session_setError(s, KESDB_ERR_CSTRT_LENGTH, 0);
            return 0;
        }
        return static_cast<int32_t>(bytes);
    }
    session_setError(s, KESDB_ERR_CSTRT_UNKNOWN, 0);
    return 0;
}

int32_t constraint_getData(Session* s, uint32_t key, void* buffer, uint32_t size) {
    if (!buffer) return kes::cstrt::nullArgument(s);
    ConstraintHeader h;
    if (!constraint_get(s, key, &h)) return 0;
    if (kes::cstrt::isRangeCode(h.type)) return kes::cstrt::rangeGetData(s, key, buffer, size, h.type);
    if (kes::cstrt::isEnumCode(h.type)) {
        EnumRecord r;
        if (!enum_get(s, key, &r)) return kes::lastError(s);
        const uint64_t bytes = arrayBytes(r.elementSize, r.count);
        if (size < bytes) return session_setError(s, KESDB_ERR_CSTRT_BUFFER, 0);
        void* copy = constraint_getEnumArray(s, r.arrayKey, r.elementSize, r.count);
        if (!copy) return 0;
        std::memcpy(buffer, copy, static_cast<size_t>(bytes));
        std::free(copy);
        return 0;
    }
    session_setError(s, KESDB_ERR_CSTRT_UNKNOWN, 0);
    return 0;
}

// For an enumeration the member count is the length divided by the member size of the
// type code; enum_setData refuses data longer than the stored array.
int32_t constraint_setData(Session* s, uint32_t key, const void* data, uint32_t length) {
    if (!data) return kes::cstrt::nullArgument(s);
    ConstraintHeader h;
    if (!constraint_get(s, key, &h)) return 0;
    if (kes::cstrt::isRangeCode(h.type)) return kes::cstrt::rangeSetData(s, key, data, length, h.type);
    if (kes::cstrt::isEnumCode(h.type)) {
        const uint32_t size = kes::cstrt::enumMemberSize(h.type);
        return enum_setData(s, key, size, length / size, data);
    }
    session_setError(s, KESDB_ERR_CSTRT_UNKNOWN, 0);
    return 0;
}

// A request beyond any array that can exist (more than a signed 32-bit length) is refused
// with 62, detail 0, before the allocator is asked. An empty array (count 0) takes a
// 1-byte block: the allocator would otherwise hand out the head of its free list while
// keeping it free.
uint32_t constraint_newEnumArray(Session* s, uint32_t size, uint32_t count) {
    const kes::cstrt::Target t = kes::cstrt::reachMedium(s);
    if (t.reach != kes::cstrt::Reach::Ok) return KESDB_FLST_FAILED;
    kes::Medium m(t.entry);
    if (!m.open()) {
        session_setError(s, KESDB_ERR_CSTRT_OPEN, m.err());
        return KESDB_FLST_FAILED;
    }
    const uint64_t bytes64 = arrayBytes(size, count);
    if (bytes64 > kMaxArrayBytes) {
        session_setError(s, KESDB_ERR_CSTRT_ALLOC, 0);
        return KESDB_FLST_FAILED;
    }
    const uint32_t bytes = bytes64 == 0 ? 1u : static_cast<uint32_t>(bytes64);
    const uint32_t key = kes::cstrt::allocateBlock(s, t.index, bytes);
    if (key == 0) return KESDB_FLST_FAILED;
    void* zeros = std::calloc(bytes, 1);
    if (!zeros) {
        session_setError(s, KESDB_ERR_NOMEM, static_cast<uint32_t>(errno));
        return key;
    }
    if (m.write(zeros, bytes, key) != static_cast<int>(bytes)) session_setError(s, KESDB_ERR_CSTRT_WRITE, m.err());
    std::free(zeros);
    return key;
}

// Bounds: a request beyond any array that can exist (more than a signed 32-bit length), or
// a large one reaching past the end of the medium, is a read that cannot bring its bytes:
// 61 is recorded (detail 0, or the driver's error word when the end cannot be found) and
// nothing is allocated.
void* constraint_getEnumArray(Session* s, uint32_t arrayKey, uint32_t size, uint32_t count) {
    const kes::cstrt::Target t = kes::cstrt::reachMedium(s);
    if (t.reach != kes::cstrt::Reach::Ok) return nullptr;
    kes::Medium m(t.entry);
    if (!m.open()) {
        session_setError(s, KESDB_ERR_CSTRT_OPEN, m.err());
        return nullptr;
    }
    const uint64_t bytes = arrayBytes(size, count);
    if (bytes > kMaxArrayBytes) {
        session_setError(s, KESDB_ERR_CSTRT_READ, 0);
        return nullptr;
    }
    if (bytes > kArraySeekCheck) {
        const int end = m.seek(0, 2);
        if (end < 0) {
            session_setError(s, KESDB_ERR_CSTRT_READ, m.err());
            return nullptr;
        }
        if (static_cast<uint64_t>(arrayKey) + bytes > static_cast<uint64_t>(static_cast<unsigned>(end))) {
            session_setError(s, KESDB_ERR_CSTRT_READ, 0);
            return nullptr;
        }
    }
    const uint32_t n = static_cast<uint32_t>(bytes);
    void* copy = std::malloc(n == 0 ? 1u : n);
    if (!copy) {
        session_setError(s, KESDB_ERR_NOMEM, static_cast<uint32_t>(errno));
        return nullptr;
    }
    if (n != 0 && m.read(copy, n, arrayKey) != static_cast<int>(n)) {
        session_setError(s, KESDB_ERR_CSTRT_READ, m.err());
        std::free(copy);
        return nullptr;
    }
    return copy;
}

// A request beyond any array that can exist (more than a signed 32-bit length) is a write
// that cannot transfer its bytes: 61, detail 0.
int32_t constraint_setEnumArray(Session* s, uint32_t arrayKey, uint32_t size, uint32_t count, const void* data) {
    if (!data) return kes::cstrt::nullArgument(s);
    const kes::cstrt::Target t = kes::cstrt::reachMedium(s);
    if (t.reach == kes::cstrt::Reach::NoDb) return KESDB_ERR_DB_NOTFOUND;
    if (t.reach == kes::cstrt::Reach::NoDriver) return kes::lastError(s);
    kes::Medium m(t.entry);
    if (!m.open()) return session_setError(s, KESDB_ERR_CSTRT_OPEN, m.err());
    const uint64_t bytes = arrayBytes(size, count);
    if (bytes > kMaxArrayBytes) return session_setError(s, KESDB_ERR_CSTRT_READ, 0);
    const uint32_t n = static_cast<uint32_t>(bytes);
    if (n != 0 && m.write(data, n, arrayKey) != static_cast<int>(n))
        return session_setError(s, KESDB_ERR_CSTRT_READ, m.err());
    return 0;
}

}  // extern "C"
