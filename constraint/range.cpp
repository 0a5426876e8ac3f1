// Range constraints: one family member per numeric type. All members are instances of
// one template; the exported names are thin wrappers generated below.
#include <cstddef>
#include <cstring>
#include <type_traits>

#include "constraint/record_io.hpp"
#include "kesdbm/constraint.h"
#include "storage/medium_io.hpp"

namespace {

using kes::cstrt::Detail;

// Record layout: header, then min, max, step packed from offset 8, then reserved bytes.
template <class Rec, size_t Size>
constexpr bool rangeLayoutOk() {
    constexpr size_t w = sizeof(Rec::min);
    return sizeof(Rec) == Size && offsetof(Rec, key) == 0 && offsetof(Rec, type) == 4 && offsetof(Rec, min) == 8 &&
           offsetof(Rec, max) == 8 + w && offsetof(Rec, step) == 8 + 2 * w;
}
static_assert(rangeLayoutOk<RangeRecordS8, 12>() && offsetof(RangeRecordS8, reserved) == 11);
static_assert(rangeLayoutOk<RangeRecordU8, 12>() && offsetof(RangeRecordU8, reserved) == 11);
static_assert(rangeLayoutOk<RangeRecordS16, 16>() && offsetof(RangeRecordS16, reserved) == 14);
static_assert(rangeLayoutOk<RangeRecordU16, 16>() && offsetof(RangeRecordU16, reserved) == 14);
static_assert(rangeLayoutOk<RangeRecordS32, 20>());
static_assert(rangeLayoutOk<RangeRecordU32, 20>());
static_assert(rangeLayoutOk<RangeRecordF32, 20>());
static_assert(rangeLayoutOk<RangeRecordS64, 32>());
static_assert(rangeLayoutOk<RangeRecordU64, 32>());
static_assert(rangeLayoutOk<RangeRecordF64, 32>());

// Rec: the record type. Code: the value type code it guards. W: the type in which the
// comparisons and the step remainder are computed:
//   int32_t  for S8, S16, S32 (sign-extended) and U8, U16 (zero-extended): signed 32-bit
//            remainder;
//   uint32_t for U32, int64_t for S64, uint64_t for U64;
//   float/double for F32/F64: no step test.
template <class Rec, uint32_t Code, class W>
struct Range {
    using T = decltype(Rec::min);
    static constexpr uint32_t kWidth = sizeof(T);
    static constexpr uint32_t kDataLength = 3 * kWidth;
    static_assert(kes::cstrt::widthOfValueType(Code) == kWidth);
    static_assert(kes::cstrt::rangeDataLength(Code) == kDataLength);

    static Rec* get(Session* s, uint32_t key, Rec* buffer) {
        if (!buffer) {
            kes::cstrt::nullArgument(s);
            return nullptr;
        }
        return kes::cstrt::readRecord(s, key, buffer, sizeof(Rec)) ? buffer : nullptr;
    }

    static int32_t set(Session* s, const Rec* record) {
        if (!record) return kes::cstrt::nullArgument(s);
        return kes::cstrt::writeRecord(s, record->key, record, sizeof(Rec), Detail::Errno);
    }

    static Rec* create(Session* s, Rec* record) {
        if (!record) {
            kes::cstrt::nullArgument(s);
            return nullptr;
        }
        return kes::cstrt::newRecord(s, record, sizeof(Rec), Detail::Errno, true) ? record : nullptr;
    }

    static int32_t getData(Session* s, uint32_t key, void* buffer, uint32_t size) {
        if (size < kDataLength) return session_setError(s, KESDB_ERR_CSTRT_BUFFER, 0);
        if (!buffer) return kes::cstrt::nullArgument(s);
        Rec r;
        if (!get(s, key, &r)) return kes::lastError(s);
        std::memcpy(buffer, &r.min, kDataLength);
        return 0;
    }

    // The write's own result is not looked at: a failed write shows in the session.
    static int32_t setData(Session* s, uint32_t key, const void* data, uint32_t length) {
        if (length != kDataLength) return session_setError(s, KESDB_ERR_CSTRT_LENGTH, 0);
        if (!data) return kes::cstrt::nullArgument(s);
        Rec r;
        if (!get(s, key, &r)) return kes::lastError(s);
        std::memcpy(&r.min, data, kDataLength);
        set(s, &r);
        return 0;
    }

    // 0 when v lies in [min, max] and, for integers with a non-zero step, on the step grid
    // from min; else 66, 67 or 68.
    static int32_t test(W v, W min, W max, W step) {
        if constexpr (std::is_floating_point_v<W>) {
            if (!(v >= min)) return KESDB_ERR_CSTRT_BELOWMIN;  // NaN fails here
            if (v > max) return KESDB_ERR_CSTRT_ABOVEMAX;
            return 0;
        } else {
            if (v < min) return KESDB_ERR_CSTRT_BELOWMIN;
            if (v > max) return KESDB_ERR_CSTRT_ABOVEMAX;
            if (step != 0) {
                // The difference wraps in W's width, as the machine arithmetic does;
                // computing it unsigned keeps it defined.
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

    static int32_t check(Session* s, uint32_t key, uint32_t valueType, const void* data, int32_t length) {
        if (valueType != Code) return session_setError(s, KESDB_ERR_CSTRT_TYPE, 0);
        if (length != static_cast<int32_t>(kWidth)) return session_setError(s, KESDB_ERR_CSTRT_LENGTH, 0);
        if (!data) return kes::cstrt::nullArgument(s);
        Rec r;
        if (!get(s, key, &r)) return kes::lastError(s);
        T v;
        std::memcpy(&v, data, kWidth);
        const int32_t code = test(static_cast<W>(v), static_cast<W>(r.min), static_cast<W>(r.max),
                                  static_cast<W>(r.step));
        return code == 0 ? 0 : session_setError(s, code, 0);
    }
};

}  // namespace

// The exported family members, one set per numeric type.
#define KES_RANGE_MEMBER(Suffix, Code, W)                                                                    \
    RangeRecord##Suffix* range##Suffix##_get(Session* s, uint32_t key, RangeRecord##Suffix* buffer) {        \
        return Range<RangeRecord##Suffix, Code, W>::get(s, key, buffer);                                     \
    }                                                                                                         \
    int32_t range##Suffix##_set(Session* s, const RangeRecord##Suffix* record) {                             \
        return Range<RangeRecord##Suffix, Code, W>::set(s, record);                                          \
    }                                                                                                         \
    RangeRecord##Suffix* range##Suffix##_new(Session* s, RangeRecord##Suffix* record) {                      \
        return Range<RangeRecord##Suffix, Code, W>::create(s, record);                                       \
    }                                                                                                         \
    int32_t range##Suffix##_getData(Session* s, uint32_t key, void* buffer, uint32_t size) {                 \
        return Range<RangeRecord##Suffix, Code, W>::getData(s, key, buffer, size);                           \
    }                                                                                                         \
    int32_t range##Suffix##_setData(Session* s, uint32_t key, const void* data, uint32_t length) {           \
        return Range<RangeRecord##Suffix, Code, W>::setData(s, key, data, length);                           \
    }                                                                                                         \
    int32_t checkRange##Suffix(Session* s, uint32_t key, uint32_t valueType, const void* data, int32_t length) { \
        return Range<RangeRecord##Suffix, Code, W>::check(s, key, valueType, data, length);                  \
    }

extern "C" {

KES_RANGE_MEMBER(S8, 2, int32_t)
KES_RANGE_MEMBER(S16, 3, int32_t)
KES_RANGE_MEMBER(S32, 4, int32_t)
KES_RANGE_MEMBER(S64, 5, int64_t)
KES_RANGE_MEMBER(U8, 6, int32_t)
KES_RANGE_MEMBER(U16, 7, int32_t)
KES_RANGE_MEMBER(U32, 8, uint32_t)
KES_RANGE_MEMBER(U64, 9, uint64_t)
KES_RANGE_MEMBER(F32, 10, float)
KES_RANGE_MEMBER(F64, 11, double)

}  // extern "C"
