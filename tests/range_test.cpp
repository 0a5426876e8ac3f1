// Range constraints: record transfers, data exchange, and the check of every family member.
// Transfer failures shared by all record kinds are in constraint_test.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <type_traits>
#include <utility>
#include <vector>

#include "valcstrtkit.hpp"

namespace {

using RangeRecord = vk::DbTest;
using RangeData = vk::DbTest;
using RangeCheck = vk::DbTest;

// Free elements in host order, as on the big-endian target.
[[maybe_unused]] const int kHostOrderElements = setenv("SIM_BYTE_ORDER", "BIG_ENDIAN", 1);

using vk::mark;

template <class T>
struct Expect {
    T v;
    int32_t code;
};

// Checks each value; a refusal must record its code with detail 0, a pass must leave the session as it was.
template <class T>
void expectChecks(kt::Db& db, vk::CheckFn fn, uint32_t key, uint32_t type, std::vector<Expect<T>> cases) {
    ASSERT_NE(key, 0u);
    for (const Expect<T>& c : cases) {
        SCOPED_TRACE(testing::Message() << "type " << type << " value " << +c.v);
        mark(db.s);
        EXPECT_EQ(fn(&db.s, key, type, &c.v, static_cast<int32_t>(sizeof c.v)), c.code);
        EXPECT_EQ(db.s.error, c.code == 0 ? 5u : static_cast<uint32_t>(c.code));
        EXPECT_EQ(db.s.errorDetail, c.code == 0 ? 0x1234u : 0u);
    }
}

// A range of the record type `Rec`; its key.
template <class Rec, class T = decltype(Rec::min)>
uint32_t range(kt::Db& db, Rec* (*create)(Session*, Rec*), uint32_t type, std::type_identity_t<T> min,
               std::type_identity_t<T> max, std::type_identity_t<T> step = 0) {
    return vk::newRange<Rec, T>(&db.s, create, type, min, max, step);
}

// A range [min, max] with `step` checked against each case.
template <class Rec, class T = decltype(Rec::min)>
void checks(kt::Db& db, Rec* (*create)(Session*, Rec*), vk::CheckFn fn, uint32_t type, std::type_identity_t<T> min,
            std::type_identity_t<T> max, std::type_identity_t<T> step, std::vector<Expect<T>> cases) {
    expectChecks<T>(db, fn, range(db, create, type, min, max, step), type, std::move(cases));
}

constexpr int32_t kBelow = KESDB_ERR_CSTRT_BELOWMIN, kAbove = KESDB_ERR_CSTRT_ABOVEMAX, kStep = KESDB_ERR_CSTRT_STEP;
constexpr uint32_t kPastEnd = 64 * 1024 - 4;

}  // namespace

TEST_F(RangeRecord, NewWritesWholeRecordAndGetSetRoundTrip) {
    RangeRecordS16 r{0, Sint16, -300, 300, 3, {0xA5, 0x5A}};
    ASSERT_EQ(rangeS16_new(&db.s, &r), &r);
    EXPECT_EQ(r.key, 16u);
    const std::vector<uint8_t> bytes = kt::readBytes(db.mediumPath, r.key, sizeof r);
    ASSERT_EQ(bytes.size(), sizeof r);
    EXPECT_EQ(std::memcmp(bytes.data(), &r, sizeof r), 0);
    // Blocks are exactly the record's size: 16 bytes, then 12.
    EXPECT_EQ(range(db, rangeS8_new, Sint8, 0, 0), 32u);
    EXPECT_EQ(range(db, rangeF64_new, Float64, 0, 0), 44u);

    RangeRecordS16 back{};
    ASSERT_EQ(rangeS16_get(&db.s, r.key, &back), &back);
    EXPECT_EQ(std::memcmp(&back, &r, sizeof r), 0);
    mark(db.s);
    back.max = 299;
    EXPECT_EQ(rangeS16_set(&db.s, &back), 0);
    EXPECT_EQ(db.s.error, 0u);
    ASSERT_NE(rangeS16_get(&db.s, r.key, &r), nullptr);
    EXPECT_EQ(r.max, 299);
}

// Data goes in and out only in the exact size, three member widths (65 and 64 otherwise, detail
// 0, nothing moved); key, type and reserved bytes stay as stored.
template <class Rec, class T = decltype(Rec::min)>
void exactSizes(kt::Db& db, Rec* (*create)(Session*, Rec*),
                int32_t (*setData)(Session*, uint32_t, const void*, uint32_t),
                int32_t (*getData)(Session*, uint32_t, void*, uint32_t), Rec* (*get)(Session*, uint32_t, Rec*),
                uint32_t type, T a, T b, T c) {
    SCOPED_TRACE(type);
    constexpr uint32_t n = 3 * sizeof(T);
    Rec r;
    std::memset(&r, 0x5A, sizeof r);
    r.type = type;
    ASSERT_EQ(create(&db.s, &r), &r);
    const T data[3] = {a, b, c};
    for (uint32_t wrong : {n - 1, n + 1}) {
        mark(db.s);
        EXPECT_EQ(setData(&db.s, r.key, data, wrong), KESDB_ERR_CSTRT_LENGTH);
        EXPECT_EQ(db.s.errorDetail, 0u);
    }
    uint8_t out[n + 1];
    std::memset(out, 7, sizeof out);
    mark(db.s);
    EXPECT_EQ(getData(&db.s, r.key, out, n - 1), KESDB_ERR_CSTRT_BUFFER);
    EXPECT_EQ(db.s.errorDetail, 0u);
    EXPECT_EQ(getData(&db.s, r.key, out, n + 1), 0);
    EXPECT_EQ(std::memcmp(out, &r.min, n), 0);  // as created
    EXPECT_EQ(out[n], 7);

    EXPECT_EQ(setData(&db.s, r.key, data, n), 0);
    Rec back;
    ASSERT_NE(get(&db.s, r.key, &back), nullptr);
    std::memcpy(&r.min, data, n);
    EXPECT_EQ(std::memcmp(&back, &r, sizeof r), 0);
}

TEST_F(RangeData, ExactSizes) {
    exactSizes(db, rangeS8_new, rangeS8_setData, rangeS8_getData, rangeS8_get, Sint8, int8_t{-2}, int8_t{2}, int8_t{1});
    exactSizes(db, rangeS32_new, rangeS32_setData, rangeS32_getData, rangeS32_get, Sint32, -20, 20, 4);
    exactSizes(db, rangeF64_new, rangeF64_setData, rangeF64_getData, rangeF64_get, Float64, 0.5, 1.5, 0.0);
    int32_t out[3];
    EXPECT_EQ(rangeS32_getData(&db.s, kPastEnd, out, 12), KESDB_ERR_CSTRT_READ);
    EXPECT_EQ(rangeS32_setData(&db.s, kPastEnd, out, 12), KESDB_ERR_CSTRT_READ);
}

TEST_F(RangeCheck, Sint32StepsBoundsAndExtremeArithmetic) {
    for (int32_t step : {5, -5}) {
        checks(db, rangeS32_new, checkRangeS32, Sint32, -10, 10, step,
               {{-10, 0}, {-5, 0}, {0, 0}, {5, 0}, {10, 0}, {-11, kBelow}, {11, kAbove}, {3, kStep}, {-3, kStep}});
    }
    // Min above max rejects everything.
    checks(db, rangeS32_new, checkRangeS32, Sint32, 10, -10, 0, {{0, kBelow}, {10, kAbove}, {-10, kBelow}});
    // Overflowing differences and the smallest value divided by -1 stay defined (UBSan watches).
    const int32_t lo = std::numeric_limits<int32_t>::min(), hi = std::numeric_limits<int32_t>::max();
    checks(db, rangeS32_new, checkRangeS32, Sint32, lo, hi, -1, {{hi, 0}, {lo, 0}, {0, 0}});
    checks(db, rangeS32_new, checkRangeS32, Sint32, lo, hi, 3, {{hi, kStep}, {lo + 3, 0}});
    checks(db, rangeS32_new, checkRangeS32, Sint32, lo, hi, lo, {{lo, 0}, {0, 0}, {1, kStep}});
    const int64_t lo64 = std::numeric_limits<int64_t>::min(), hi64 = std::numeric_limits<int64_t>::max();
    checks(db, rangeS64_new, checkRangeS64, Sint64, lo64, hi64, -1, {{hi64, 0}, {lo64, 0}});
    checks(db, rangeS64_new, checkRangeS64, Sint64, lo64, hi64, 3, {{hi64, kStep}, {lo64 + 3, 0}});
}

TEST_F(RangeCheck, OrderTypeAndLengthBeforeRead) {
    const uint32_t key = range(db, rangeS16_new, Sint16, -5, 5);
    int32_t four = 0;
    uint16_t u = 1;
    int16_t v = 1;
    mark(db.s);
    EXPECT_EQ(checkRangeS16(&db.s, key, Sint16, &four, 4), KESDB_ERR_CSTRT_LENGTH);
    EXPECT_EQ(db.s.errorDetail, 0u);
    EXPECT_EQ(checkRangeS16(&db.s, key, Uint16, &u, 2), KESDB_ERR_CSTRT_TYPE);
    EXPECT_EQ(db.s.errorDetail, 0u);
    // Against an unreadable key the type and length tests still come first.
    EXPECT_EQ(checkRangeS16(&db.s, kPastEnd, Sint16, &four, 4), KESDB_ERR_CSTRT_LENGTH);
    EXPECT_EQ(db.s.error, static_cast<uint32_t>(KESDB_ERR_CSTRT_LENGTH));
    EXPECT_EQ(checkRangeS16(&db.s, kPastEnd, Uint16, &u, 2), KESDB_ERR_CSTRT_TYPE);
    EXPECT_EQ(db.s.error, static_cast<uint32_t>(KESDB_ERR_CSTRT_TYPE));
    EXPECT_EQ(checkRangeS16(&db.s, kPastEnd, Sint16, &v, 2), KESDB_ERR_CSTRT_READ);
    EXPECT_EQ(checkRangeS16(&db.s, key, Sint16, &v, 2), 0);
    EXPECT_EQ(checkRangeS16(&db.s, key, Sint32, &four, 4), KESDB_ERR_CSTRT_TYPE);  // type before length
}

TEST_F(RangeCheck, NarrowTypesAreWidenedBySignedness) {
    checks(db, rangeU8_new, checkRangeU8, Uint8, 0, 200, 0, {{200, 0}, {0, 0}, {201, kAbove}, {255, kAbove}});
    // Uint8 is zero-extended: 255 is above 128, not below.
    checks(db, rangeU8_new, checkRangeU8, Uint8, 128, 255, 127, {{255, 0}, {254, kStep}, {127, kBelow}});
    // Sint8 is sign-extended: 127 - (-128) = 255 = 51 x 5.
    checks(db, rangeS8_new, checkRangeS8, Sint8, -128, 127, 5, {{-128, 0}, {-123, 0}, {127, 0}, {126, kStep}});
    checks(db, rangeS8_new, checkRangeS8, Sint8, -1, 1, 0, {{-1, 0}, {-2, kBelow}, {2, kAbove}});
    checks(db, rangeU16_new, checkRangeU16, Uint16, 0, 65535, 3, {{65535, 0}, {65534, kStep}});
    checks(db, rangeS16_new, checkRangeS16, Sint16, -32768, -100, -2,
           {{-32768, 0}, {-100, 0}, {-101, kStep}, {-99, kAbove}, {100, kAbove}});
}

TEST_F(RangeCheck, WideIntegersCompareInTheirOwnSignedness) {
    checks(db, rangeU32_new, checkRangeU32, Uint32, 0, 0xFFFFFFFFu, 2,
           {{0xFFFFFFFEu, 0}, {0xFFFFFFFFu, kStep}, {0, 0}});
    checks(db, rangeU32_new, checkRangeU32, Uint32, 0x80000000u, 0xF0000000u, 0x10000000u,
           {{0xF0000000u, 0}, {5, kBelow}, {0xF0000001u, kAbove}, {0x90000001u, kStep}});
    const int64_t two31 = int64_t{1} << 31, two32 = int64_t{1} << 32;
    checks(
        db, rangeS64_new, checkRangeS64, Sint64, -two31, two31, 0,
        {{-two31, 0}, {two31, 0}, {-two31 - 1, kBelow}, {two31 + 1, kAbove}, {-two32, kBelow}, {two32 << 8, kAbove}});
    // A step only in the high word.
    checks(db, rangeS64_new, checkRangeS64, Sint64, 0, two32 << 8, two32, {{3 * two32, 0}, {3 * two32 + 1, kStep}});
    const uint64_t top = std::numeric_limits<uint64_t>::max(), half = uint64_t{1} << 63;
    checks(db, rangeU64_new, checkRangeU64, Uint64, 0, top, 2, {{top - 1, 0}, {top, kStep}});
    checks(db, rangeU64_new, checkRangeU64, Uint64, half, top, 0, {{5, kBelow}, {half, 0}});
}

// The step is not applied to floating-point ranges; NaN is below the minimum.
TEST_F(RangeCheck, FloatingPoint) {
    const double inf = std::numeric_limits<double>::infinity();
    checks(db, rangeF64_new, checkRangeF64, Float64, 0.0, 1.0, 0.25,
           {{0.3, 0}, {0.0, 0}, {-0.0, 0}, {1.0, 0}, {std::nan(""), kBelow}, {1.0000001, kAbove}});
    checks(db, rangeF64_new, checkRangeF64, Float64, 0.0, 1.0, 0.25, {{-1e-300, kBelow}, {inf, kAbove}});
    checks(db, rangeF32_new, checkRangeF32, Float32, -1.5f, 2.5f, 1.0f,
           {{0.1f, 0}, {-1.5f, 0}, {2.5f, 0}, {-1.6f, kBelow}, {std::nanf(""), kBelow}, {2.6f, kAbove}});
    const uint32_t key = range(db, rangeF64_new, Float64, 0.0, 1.0);
    const float f = 0.5f;
    EXPECT_EQ(checkRangeF64(&db.s, key, Float64, &f, 4), KESDB_ERR_CSTRT_LENGTH);
    EXPECT_EQ(checkRangeF64(&db.s, key, Float32, &f, 4), KESDB_ERR_CSTRT_TYPE);
}
