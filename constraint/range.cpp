// Range constraints: one family member per numeric type. The members differ only in the
// width of min, max and step, and in the arithmetic of the test: one body serves them all,
// told the range code (the value type code it guards), and the exported names are thin
// wrappers generated below. Only the comparison itself is typed, in a table by code.
#include <cstddef>
#include <cstring>
#include <type_traits>

#include "constraint/record_io.hpp"
#include "kesdbm/constraint.h"
#include "storage/medium_io.hpp"

namespace {

using kes::cstrt::Detail;

// Record layout: header, then min, max, step packed from offset 8, then reserved bytes up to
// a multiple of four: 12, 16, 20 and 32 bytes for members of 1, 2, 4 and 8 bytes.
constexpr uint32_t kMinOffset = 8;
constexpr uint32_t recordSize(uint32_t code) {
    return (kMinOffset + kes::cstrt::rangeDataLength(code) + 3u) & ~3u;
}
constexpr uint32_t kLargestRecord = 32;

template <class Rec, uint32_t Code>
constexpr bool rangeLayoutOk() {
    constexpr size_t w = sizeof(Rec::min);
    return sizeof(Rec) == recordSize(Code) && sizeof(Rec) <= kLargestRecord &&
           kes::cstrt::widthOfValueType(Code) == w && offsetof(Rec, key) == 0 && offsetof(Rec, type) == 4 &&
           offsetof(Rec, min) == kMinOffset && offsetof(Rec, max) == kMinOffset + w &&
           offsetof(Rec, step) == kMinOffset + 2 * w;
}
static_assert(rangeLayoutOk<RangeRecordS8, 2>() && offsetof(RangeRecordS8, reserved) == 11);
static_assert(rangeLayoutOk<RangeRecordU8, 6>() && offsetof(RangeRecordU8, reserved) == 11);
static_assert(rangeLayoutOk<RangeRecordS16, 3>() && offsetof(RangeRecordS16, reserved) == 14);
static_assert(rangeLayoutOk<RangeRecordU16, 7>() && offsetof(RangeRecordU16, reserved) == 14);
static_assert(rangeLayoutOk<RangeRecordS32, 4>());
static_assert(rangeLayoutOk<RangeRecordU32, 8>());
static_assert(rangeLayoutOk<RangeRecordF32, 10>());
static_assert(rangeLayoutOk<RangeRecordS64, 5>());
static_assert(rangeLayoutOk<RangeRecordU64, 9>());
static_assert(rangeLayoutOk<RangeRecordF64, 11>());

// 0 when v lies in [min, max] and, for integers with a non-zero step, on the step grid from
// min; else 66, 67 or 68. W is the type in which the comparisons and the step remainder are
// computed (see kTests).
template <class W>
int32_t test(W v, W min, W max, W step) {
    if constexpr (std::is_floating_point_v<W>) {
        if (!(v >= min)) return KESDB_ERR_CSTRT_BELOWMIN;  // NaN fails here
        if (v > max) return KESDB_ERR_CSTRT_ABOVEMAX;
        return 0;
    } else {
        if (v < min) return KESDB_ERR_CSTRT_BELOWMIN;
        if (v > max) return KESDB_ERR_CSTRT_ABOVEMAX;
        if (step != 0) {
            // The difference wraps in W's width, as the machine arithmetic does; computing it
            // unsigned keeps it defined.
            using U = std::make_unsigned_t<W>;
            const W diff = static_cast<W>(static_cast<U>(static_cast<U>(v) - static_cast<U>(min)));
            // x % -1 is 0; asking the machine for it is undefined for the smallest x.
            W rem = 0;
            if constexpr (std::is_signed_v<W>) {
                rem = step == -1 ? W(0) : static_cast<W>(diff % step);
            } else {
                rem = static_cast<W>(diff % step);
            }
            if (rem != 0) return KESDB_ERR_CSTRT_STEP;
        }
        return 0;
    }
}

template <class T>
T load(const unsigned char* p) {
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

// The test of a value of type T against the packed min, max and step at `range`, computed in W.
template <class T, class W>
int32_t testAs(const unsigned char* value, const unsigned char* range) {
    return test<W>(static_cast<W>(load<T>(value)), static_cast<W>(load<T>(range)),
                   static_cast<W>(load<T>(range + sizeof(T))), static_cast<W>(load<T>(range + 2 * sizeof(T))));
}

// By range code. W: int32_t for S8, S16, S32 (sign-extended) and U8, U16 (zero-extended),
// with a signed 32-bit remainder; uint32_t for U32, int64_t for S64, uint64_t for U64;
// float/double for F32/F64 (no step test).
using TestFn = int32_t (*)(const unsigned char*, const unsigned char*);
constexpr TestFn kTests[12] = {
    nullptr,
    nullptr,
    testAs<int8_t, int32_t>,
    testAs<int16_t, int32_t>,
    testAs<int32_t, int32_t>,
    testAs<int64_t, int64_t>,
    testAs<uint8_t, int32_t>,
    testAs<uint16_t, int32_t>,
    testAs<uint32_t, uint32_t>,
    testAs<uint64_t, uint64_t>,
    testAs<float, float>,
    testAs<double, double>,
};

// The family's operations; `code` is the member's range code (2..11).
void* rangeGet(Session* s, uint32_t key, void* buffer, uint32_t code) {
    if (!buffer) {
        kes::cstrt::nullArgument(s);
        return nullptr;
    }
    return kes::cstrt::readRecord(s, key, buffer, recordSize(code)) ? buffer : nullptr;
}

int32_t rangeSet(Session* s, const void* record, uint32_t code) {
    if (!record) return kes::cstrt::nullArgument(s);
    uint32_t key;
    std::memcpy(&key, record, sizeof key);
    return kes::cstrt::writeRecord(s, key, record, recordSize(code), Detail::Errno);
}

void* rangeNew(Session* s, void* record, uint32_t code) {
    if (!record) {
        kes::cstrt::nullArgument(s);
        return nullptr;
    }
    return kes::cstrt::newRecord(s, record, recordSize(code), Detail::Errno, true) ? record : nullptr;
}

int32_t rangeCheck(Session* s, uint32_t key, uint32_t valueType, const void* data, int32_t length, uint32_t code) {
    if (valueType != code) return session_setError(s, KESDB_ERR_CSTRT_TYPE, 0);
    if (length != static_cast<int32_t>(kes::cstrt::widthOfValueType(code)))
        return session_setError(s, KESDB_ERR_CSTRT_LENGTH, 0);
    if (!data) return kes::cstrt::nullArgument(s);
    alignas(8) unsigned char r[kLargestRecord];
    if (!rangeGet(s, key, r, code)) return kes::lastError(s);
    const int32_t result = kTests[code](static_cast<const unsigned char*>(data), r + kMinOffset);
    return result == 0 ? 0 : session_setError(s, result, 0);
}

}  // namespace

namespace kes::cstrt {

int32_t rangeGetData(Session* s, uint32_t key, void* buffer, uint32_t size, uint32_t code) {
    const uint32_t length = rangeDataLength(code);
    if (size < length) return session_setError(s, KESDB_ERR_CSTRT_BUFFER, 0);
    if (!buffer) return nullArgument(s);
    alignas(8) unsigned char r[kLargestRecord];
    if (!rangeGet(s, key, r, code)) return lastError(s);
    std::memcpy(buffer, r + kMinOffset, length);
    return 0;
}

// The write's own result is not looked at: a failed write shows in the session.
int32_t rangeSetData(Session* s, uint32_t key, const void* data, uint32_t length, uint32_t code) {
    if (length != rangeDataLength(code)) return session_setError(s, KESDB_ERR_CSTRT_LENGTH, 0);
    if (!data) return nullArgument(s);
    alignas(8) unsigned char r[kLargestRecord];
    if (!rangeGet(s, key, r, code)) return lastError(s);
    std::memcpy(r + kMinOffset, data, length);
    rangeSet(s, r, code);
    return 0;
}

}  // namespace kes::cstrt

// The exported family members, one set per numeric type.
#define KES_RANGE_MEMBER(Suffix, Code)                                                                        \
    RangeRecord##Suffix* range##Suffix##_get(Session* s, uint32_t key, RangeRecord##Suffix* buffer) {        \
        return static_cast<RangeRecord##Suffix*>(rangeGet(s, key, buffer, Code));                            \
    }                                                                                                         \
    int32_t range##Suffix##_set(Session* s, const RangeRecord##Suffix* record) {                             \
        return rangeSet(s, record, Code);                                                                    \
    }                                                                                                         \
    RangeRecord##Suffix* range##Suffix##_new(Session* s, RangeRecord##Suffix* record) {                      \
        return static_cast<RangeRecord##Suffix*>(rangeNew(s, record, Code));                                 \
    }                                                                                                         \
    int32_t range##Suffix##_getData(Session* s, uint32_t key, void* buffer, uint32_t size) {                 \
        return kes::cstrt::rangeGetData(s, key, buffer, size, Code);                                         \
    }                                                                                                         \
    int32_t range##Suffix##_setData(Session* s, uint32_t key, const void* data, uint32_t length) {           \
        return kes::cstrt::rangeSetData(s, key, data, length, Code);                                         \
    }                                                                                                         \
    int32_t checkRange##Suffix(Session* s, uint32_t key, uint32_t valueType, const void* data, int32_t length) { \
        return rangeCheck(s, key, valueType, data, length, Code);                                            \
    }

extern "C" {

KES_RANGE_MEMBER(S8, 2)
KES_RANGE_MEMBER(S16, 3)
KES_RANGE_MEMBER(S32, 4)
KES_RANGE_MEMBER(S64, 5)
KES_RANGE_MEMBER(U8, 6)
KES_RANGE_MEMBER(U16, 7)
KES_RANGE_MEMBER(U32, 8)
KES_RANGE_MEMBER(U64, 9)
KES_RANGE_MEMBER(F32, 10)
KES_RANGE_MEMBER(F64, 11)

}  // extern "C"
