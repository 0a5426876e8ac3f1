// Enumeration constraints: the enumeration record, its data, and the membership test per
// numeric type (one body, exported through thin wrappers).
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "constraint/record_io.hpp"
#include "kesdbm/constraint.h"
#include "storage/medium_io.hpp"

static_assert(sizeof(EnumRecord) == 20, "enumeration record is 20 bytes");
static_assert(offsetof(EnumRecord, key) == 0 && offsetof(EnumRecord, type) == 4 &&
                  offsetof(EnumRecord, arrayKey) == 8 && offsetof(EnumRecord, elementSize) == 12 &&
                  offsetof(EnumRecord, count) == 16,
              "enumeration record layout");

namespace {

using kes::cstrt::Detail;

// Whether two members of value type `code` are equal. Integers compare by value in their
// width, which is equality of their bytes; floating-point members by IEEE equality (+0 == -0,
// a NaN equals nothing).
bool sameMember(const unsigned char* a, const unsigned char* b, uint32_t code) {
    if (code == 10) {
        float x, y;
        std::memcpy(&x, a, sizeof x);
        std::memcpy(&y, b, sizeof y);
        return x == y;
    }
    if (code == 11) {
        double x, y;
        std::memcpy(&x, a, sizeof x);
        std::memcpy(&y, b, sizeof y);
        return x == y;
    }
    return std::memcmp(a, b, kes::cstrt::widthOfValueType(code)) == 0;
}

// Membership test for members guarding value type `code` (2..11): one body for the family,
// which differs only in the member width and in how two members compare.
int32_t checkEnum(Session* s, uint32_t key, uint32_t valueType, const void* data, int32_t length, uint32_t code) {
    if (valueType != code) return session_setError(s, KESDB_ERR_CSTRT_TYPE, 0);
    EnumRecord r;
    if (!enum_get(s, key, &r)) return kes::lastError(s);
    // The length must be the record's element size. A record whose element size is not
    // the member width of its type is refused the same way (65) before its array is read:
    // comparing it would step outside the copy of the array or the caller's data.
    const uint32_t width = kes::cstrt::widthOfValueType(code);
    if (r.elementSize != static_cast<uint32_t>(length) || r.elementSize != width)
        return session_setError(s, KESDB_ERR_CSTRT_LENGTH, 0);
    if (!data) return kes::cstrt::nullArgument(s);
    void* copy = constraint_getEnumArray(s, r.arrayKey, r.elementSize, r.count);
    if (!copy) return kes::lastError(s);
    const unsigned char* members = static_cast<const unsigned char*>(copy);
    bool found = false;
    for (uint32_t i = 0; i < r.count && !found; ++i)
        found = sameMember(members + static_cast<size_t>(i) * width, static_cast<const unsigned char*>(data), code);
    std::free(copy);
    return found ? 0 : session_setError(s, KESDB_ERR_CSTRT_NOTMEMBER, 0);
}

}  // namespace

#define KES_ENUM_MEMBER(Suffix, Code)                                                                       \
    int32_t checkEnum##Suffix(Session* s, uint32_t key, uint32_t valueType, const void* data, int32_t length) { \
        return checkEnum(s, key, valueType, data, length, Code);                                             \
    }

extern "C" {

EnumRecord* enum_get(Session* s, uint32_t key, EnumRecord* buffer) {
    if (!buffer) {
        kes::cstrt::nullArgument(s);
        return nullptr;
    }
    return kes::cstrt::readRecord(s, key, buffer, sizeof *buffer) ? buffer : nullptr;
}

int32_t enum_set(Session* s, const EnumRecord* record) {
    if (!record) return kes::cstrt::nullArgument(s);
    return kes::cstrt::writeRecord(s, record->key, record, sizeof *record, Detail::Errno);
}

EnumRecord* enum_new(Session* s, EnumRecord* record) {
    if (!record) {
        kes::cstrt::nullArgument(s);
        return nullptr;
    }
    return kes::cstrt::newRecord(s, record, sizeof *record, Detail::Errno, true) ? record : nullptr;
}

// Overwrites the front of the stored array in place; the record (its count included) is
// not rewritten. Data longer than the stored array (elementSize x count of the record) is
// refused with 65, detail 0, and nothing is written: cutting it short would silently drop
// members the caller meant to store.
int32_t enum_setData(Session* s, uint32_t key, uint32_t size, uint32_t count, const void* data) {
    if (!data) return kes::cstrt::nullArgument(s);
    EnumRecord r;
    if (!enum_get(s, key, &r)) return 0;
    if (kes::cstrt::arrayBytes(size, count) > kes::cstrt::arrayBytes(r.elementSize, r.count))
        return session_setError(s, KESDB_ERR_CSTRT_LENGTH, 0);
    return constraint_setEnumArray(s, r.arrayKey, size, count, data);
}

KES_ENUM_MEMBER(S8, 2)
KES_ENUM_MEMBER(S16, 3)
KES_ENUM_MEMBER(S32, 4)
KES_ENUM_MEMBER(S64, 5)
KES_ENUM_MEMBER(U8, 6)
KES_ENUM_MEMBER(U16, 7)
KES_ENUM_MEMBER(U32, 8)
KES_ENUM_MEMBER(U64, 9)
KES_ENUM_MEMBER(F32, 10)
KES_ENUM_MEMBER(F64, 11)

}  // extern "C"
