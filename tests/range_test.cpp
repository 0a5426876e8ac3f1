// Range constraints: record transfers, data exchange, and the check of every family member.
#include <gtest/gtest.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <vector>

#include "valcstrtkit.hpp"

namespace {

// Free elements in host order, as on the big-endian target.
[[maybe_unused]] const int kHostOrderElements = setenv("SIM_BYTE_ORDER", "BIG_ENDIAN", 1);

using CheckFn = int32_t (*)(Session*, uint32_t, uint32_t, const void*, int32_t);

void mark(Session& s) { session_setError(&s, 5, 0x1234); }

template <class T>
struct Expect {
    T v;
    int32_t code;
};

// Checks each value; a refusal must record its code with detail 0, a pass must leave the session as it was.
template <class T>
void expectChecks(kt::Db& db, CheckFn fn, uint32_t key, uint32_t type, std::vector<Expect<T>> cases) {
    ASSERT_NE(key, 0u);
    for (const Expect<T>& c : cases) {
        SCOPED_TRACE(testing::Message() << "type " << type << " value " << +c.v);
        mark(db.s);
        EXPECT_EQ(fn(&db.s, key, type, &c.v, static_cast<int32_t>(sizeof c.v)), c.code);
        EXPECT_EQ(db.s.error, c.code == 0 ? 5u : static_cast<uint32_t>(c.code));
        EXPECT_EQ(db.s.errorDetail, c.code == 0 ? 0x1234u : 0u);
    }
}

uint32_t s32(kt::Db& db, int32_t min, int32_t max, int32_t step) {
    return vk::newRange(&db.s, rangeS32_new, Sint32, min, max, step);
}

constexpr int32_t kBelow = KESDB_ERR_CSTRT_BELOWMIN, kAbove = KESDB_ERR_CSTRT_ABOVEMAX, kStep = KESDB_ERR_CSTRT_STEP;
constexpr uint32_t kPastEnd = 64 * 1024 - 4;

}  // namespace

TEST(RangeRecord, NewWritesWholeRecordAndGetSetRoundTrip) {
    kt::Db db;
    ASSERT_GT(db.id, 0);
    RangeRecordS16 r{};
    r.type = Sint16;
    r.min = -300;
    r.max = 300;
    r.step = 3;
    r.reserved[0] = 0xA5;
    r.reserved[1] = 0x5A;
    ASSERT_EQ(rangeS16_new(&db.s, &r), &r);
    EXPECT_EQ(r.key, 16u);
    std::vector<uint8_t> bytes = kt::readBytes(db.mediumPath, r.key, sizeof r);
    ASSERT_EQ(bytes.size(), sizeof r);
    EXPECT_EQ(std::memcmp(bytes.data(), &r, sizeof r), 0);
    // Blocks are exactly the record's size: 16 bytes, then 12.
    const uint32_t k8 = vk::newRange<RangeRecordS8, int8_t>(&db.s, rangeS8_new, Sint8, 0, 0);
    EXPECT_EQ(k8, 32u);
    EXPECT_EQ((vk::newRange<RangeRecordF64, double>(&db.s, rangeF64_new, Float64, 0, 0)), 44u);

    RangeRecordS16 back{};
    ASSERT_EQ(rangeS16_get(&db.s, r.key, &back), &back);
    EXPECT_EQ(std::memcmp(&back, &r, sizeof r), 0);
    mark(db.s);
    back.max = 299;
    EXPECT_EQ(rangeS16_set(&db.s, &back), 0);
    EXPECT_EQ(db.s.error, 0u);
    RangeRecordS16 again{};
    ASSERT_NE(rangeS16_get(&db.s, r.key, &again), nullptr);
    EXPECT_EQ(again.max, 299);
    RangeRecordS8 n{};
    ASSERT_NE(rangeS8_get(&db.s, k8, &n), nullptr);
    EXPECT_EQ(n.type, static_cast<uint32_t>(Sint8));
}

TEST(RangeRecord, TransferFailures) {
    kt::Db db;
    ASSERT_GT(db.id, 0);
    RangeRecordS32 r{};
    EXPECT_EQ(rangeS32_get(&db.s, kPastEnd, &r), nullptr);
    EXPECT_EQ(db.s.error, static_cast<uint32_t>(KESDB_ERR_CSTRT_READ));
    Session other = db.s;
    other.dbId = 30;
    mark(other);
    EXPECT_EQ(rangeS32_get(&other, 16, &r), nullptr);
    EXPECT_EQ(other.error, static_cast<uint32_t>(KESDB_ERR_DB_NOTFOUND));
    EXPECT_EQ(other.errorDetail, 0u);
    EXPECT_EQ(rangeS32_set(&other, &r), KESDB_ERR_DB_NOTFOUND);
    EXPECT_EQ(rangeS32_new(&other, &r), nullptr);
    setenv("KESDB_DEFMEDIA", db.dir.file("missing.bin").c_str(), 1);
    EXPECT_EQ(rangeS32_set(&db.s, &r), KESDB_ERR_CSTRT_OPEN);
    EXPECT_EQ(db.s.errorDetail, static_cast<uint32_t>(ENOENT));
    EXPECT_EQ(rangeS32_get(&db.s, 16, &r), nullptr);
    EXPECT_EQ(db.s.error, static_cast<uint32_t>(KESDB_ERR_CSTRT_OPEN));
    EXPECT_EQ(rangeS32_new(&db.s, &r), nullptr);
    EXPECT_EQ(db.s.error, static_cast<uint32_t>(KESDB_ERR_CSTRT_OPEN));
    setenv("KESDB_DEFMEDIA", db.mediumPath.c_str(), 1);
    EXPECT_EQ(rangeS32_get(&db.s, 16, nullptr), nullptr);
    EXPECT_EQ(rangeS32_set(&db.s, nullptr), KESDB_ERR_NULLARG);
    EXPECT_EQ(checkRangeS32(&db.s, 16, Sint32, nullptr, 4), KESDB_ERR_NULLARG);

    // No free block: 60 with detail 0 and nothing written at key 0.
    ASSERT_EQ(flst_m_setFirstOffset(&db.s, 0, 0), 0);
    const std::vector<uint8_t> header = kt::readBytes(db.mediumPath, 0, 64);
    mark(db.s);
    EXPECT_EQ((vk::newRange<RangeRecordS64, int64_t>(&db.s, rangeS64_new, Sint64, 1, 0)), 0u);
    EXPECT_EQ(db.s.error, static_cast<uint32_t>(KESDB_ERR_CSTRT_ALLOC));
    EXPECT_EQ(db.s.errorDetail, 0u);
    EXPECT_EQ(kt::readBytes(db.mediumPath, 0, 64), header);
}

TEST(RangeData, ExactSizes) {
    kt::Db db;
    ASSERT_GT(db.id, 0);
    const uint32_t key = s32(db, -10, 10, 5);
    int32_t data[3] = {-20, 20, 4};
    mark(db.s);
    EXPECT_EQ(rangeS32_setData(&db.s, key, data, 11), KESDB_ERR_CSTRT_LENGTH);
    EXPECT_EQ(db.s.errorDetail, 0u);
    EXPECT_EQ(rangeS32_setData(&db.s, key, data, 13), KESDB_ERR_CSTRT_LENGTH);
    int32_t out[4] = {7, 7, 7, 7};
    EXPECT_EQ(rangeS32_getData(&db.s, key, out, 12), 0);
    EXPECT_EQ(std::vector<int32_t>(out, out + 4), (std::vector<int32_t>{-10, 10, 5, 7}));
    mark(db.s);
    EXPECT_EQ(rangeS32_getData(&db.s, key, out, 11), KESDB_ERR_CSTRT_BUFFER);
    EXPECT_EQ(db.s.errorDetail, 0u);
    EXPECT_EQ(rangeS32_setData(&db.s, key, data, 12), 0);
    RangeRecordS32 back{};
    ASSERT_NE(rangeS32_get(&db.s, key, &back), nullptr);
    EXPECT_EQ(back.key, key);
    EXPECT_EQ(back.type, static_cast<uint32_t>(Sint32));
    EXPECT_EQ(back.min, -20);
    EXPECT_EQ(back.max, 20);
    EXPECT_EQ(back.step, 4);

    // Narrow widths: 3 and 6 bytes; key, type and reserved bytes stay as stored.
    RangeRecordU16 u{};
    u.type = Uint16;
    u.reserved[0] = 0x11;
    u.reserved[1] = 0x22;
    ASSERT_NE(rangeU16_new(&db.s, &u), nullptr);
    const uint16_t ud[3] = {100, 200, 10};
    EXPECT_EQ(rangeU16_setData(&db.s, u.key, ud, 5), KESDB_ERR_CSTRT_LENGTH);
    EXPECT_EQ(rangeU16_setData(&db.s, u.key, ud, 6), 0);
    RangeRecordU16 ub{};
    ASSERT_NE(rangeU16_get(&db.s, u.key, &ub), nullptr);
    EXPECT_EQ(ub.min, 100);
    EXPECT_EQ(ub.max, 200);
    EXPECT_EQ(ub.step, 10);
    EXPECT_EQ(ub.reserved[0], 0x11);
    EXPECT_EQ(ub.reserved[1], 0x22);
    uint8_t b[3];
    EXPECT_EQ(rangeS8_getData(&db.s, u.key, b, 2), KESDB_ERR_CSTRT_BUFFER);
    const uint32_t fkey = vk::newRange<RangeRecordF64, double>(&db.s, rangeF64_new, Float64, 0, 0);
    double fd[3] = {0.5, 1.5, 0.0}, fo[3] = {};
    EXPECT_EQ(rangeF64_setData(&db.s, fkey, fd, 23), KESDB_ERR_CSTRT_LENGTH);
    EXPECT_EQ(rangeF64_setData(&db.s, fkey, fd, 24), 0);
    EXPECT_EQ(rangeF64_getData(&db.s, fkey, fo, 23), KESDB_ERR_CSTRT_BUFFER);
    EXPECT_EQ(rangeF64_getData(&db.s, fkey, fo, 24), 0);
    EXPECT_EQ(fo[1], 1.5);
    EXPECT_EQ(rangeS32_getData(&db.s, kPastEnd, out, 12), KESDB_ERR_CSTRT_READ);
    EXPECT_EQ(rangeS32_setData(&db.s, kPastEnd, data, 12), KESDB_ERR_CSTRT_READ);
}

TEST(RangeCheck, Sint32StepsBoundsAndExtremeArithmetic) {
    kt::Db db;
    ASSERT_GT(db.id, 0);
    for (int32_t step : {5, -5}) {
        expectChecks<int32_t>(db, checkRangeS32, s32(db, -10, 10, step), Sint32,
                              {{-10, 0}, {-5, 0}, {0, 0}, {5, 0}, {10, 0}, {-11, kBelow}, {11, kAbove}, {3, kStep},
                               {-3, kStep}});
    }
    // Min above max rejects everything.
    expectChecks<int32_t>(db, checkRangeS32, s32(db, 10, -10, 0), Sint32, {{0, kBelow}, {10, kAbove}, {-10, kBelow}});
    // Overflowing differences and the smallest value divided by -1 stay defined (UBSan watches).
    const int32_t lo = std::numeric_limits<int32_t>::min(), hi = std::numeric_limits<int32_t>::max();
    expectChecks<int32_t>(db, checkRangeS32, s32(db, lo, hi, -1), Sint32, {{hi, 0}, {lo, 0}, {0, 0}});
    expectChecks<int32_t>(db, checkRangeS32, s32(db, lo, hi, 3), Sint32, {{hi, kStep}, {lo + 3, 0}});
    expectChecks<int32_t>(db, checkRangeS32, s32(db, lo, hi, lo), Sint32, {{lo, 0}, {0, 0}, {1, kStep}});
    const int64_t lo64 = std::numeric_limits<int64_t>::min(), hi64 = std::numeric_limits<int64_t>::max();
    expectChecks<int64_t>(db, checkRangeS64, vk::newRange(&db.s, rangeS64_new, Sint64, lo64, hi64, int64_t{-1}),
                          Sint64, {{hi64, 0}, {lo64, 0}});
    expectChecks<int64_t>(db, checkRangeS64, vk::newRange(&db.s, rangeS64_new, Sint64, lo64, hi64, int64_t{3}),
                          Sint64, {{hi64, kStep}, {lo64 + 3, 0}});
}

TEST(RangeCheck, OrderTypeAndLengthBeforeRead) {
    kt::Db db;
    ASSERT_GT(db.id, 0);
    const uint32_t key = vk::newRange<RangeRecordS16, int16_t>(&db.s, rangeS16_new, Sint16, -5, 5);
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

TEST(RangeCheck, NarrowTypesAreWidenedBySignedness) {
    kt::Db db;
    ASSERT_GT(db.id, 0);
    expectChecks<uint8_t>(db, checkRangeU8, vk::newRange<RangeRecordU8, uint8_t>(&db.s, rangeU8_new, Uint8, 0, 200),
                          Uint8, {{200, 0}, {0, 0}, {201, kAbove}, {255, kAbove}});
    // Uint8 is zero-extended: 255 is above 128, not below.
    expectChecks<uint8_t>(db, checkRangeU8,
                          vk::newRange<RangeRecordU8, uint8_t>(&db.s, rangeU8_new, Uint8, 128, 255, 127), Uint8,
                          {{255, 0}, {254, kStep}, {127, kBelow}});
    // Sint8 is sign-extended: 127 - (-128) = 255 = 51 x 5.
    expectChecks<int8_t>(db, checkRangeS8, vk::newRange<RangeRecordS8, int8_t>(&db.s, rangeS8_new, Sint8, -128, 127, 5),
                         Sint8, {{-128, 0}, {-123, 0}, {127, 0}, {126, kStep}});
    expectChecks<int8_t>(db, checkRangeS8, vk::newRange<RangeRecordS8, int8_t>(&db.s, rangeS8_new, Sint8, -1, 1), Sint8,
                         {{-1, 0}, {-2, kBelow}, {2, kAbove}});
    expectChecks<uint16_t>(db, checkRangeU16,
                           vk::newRange<RangeRecordU16, uint16_t>(&db.s, rangeU16_new, Uint16, 0, 65535, 3), Uint16,
                           {{65535, 0}, {65534, kStep}});
    expectChecks<int16_t>(db, checkRangeS16,
                          vk::newRange<RangeRecordS16, int16_t>(&db.s, rangeS16_new, Sint16, -32768, -100, -2), Sint16,
                          {{-32768, 0}, {-100, 0}, {-101, kStep}, {-99, kAbove}, {100, kAbove}});
}

TEST(RangeCheck, WideIntegersCompareInTheirOwnSignedness) {
    kt::Db db;
    ASSERT_GT(db.id, 0);
    expectChecks<uint32_t>(db, checkRangeU32, vk::newRange(&db.s, rangeU32_new, Uint32, 0u, 0xFFFFFFFFu, 2u), Uint32,
                           {{0xFFFFFFFEu, 0}, {0xFFFFFFFFu, kStep}, {0, 0}});
    expectChecks<uint32_t>(db, checkRangeU32,
                           vk::newRange(&db.s, rangeU32_new, Uint32, 0x80000000u, 0xF0000000u, 0x10000000u), Uint32,
                           {{0xF0000000u, 0}, {5, kBelow}, {0xF0000001u, kAbove}, {0x90000001u, kStep}});
    const int64_t two31 = int64_t{1} << 31, two32 = int64_t{1} << 32;
    expectChecks<int64_t>(db, checkRangeS64, vk::newRange(&db.s, rangeS64_new, Sint64, -two31, two31), Sint64,
                          {{-two31, 0}, {two31, 0}, {-two31 - 1, kBelow}, {two31 + 1, kAbove}, {-two32, kBelow},
                           {int64_t{1} << 40, kAbove}});
    // A step only in the high word.
    expectChecks<int64_t>(db, checkRangeS64, vk::newRange(&db.s, rangeS64_new, Sint64, int64_t{0}, two32 << 8, two32),
                          Sint64, {{3 * two32, 0}, {3 * two32 + 1, kStep}});
    const uint64_t top = std::numeric_limits<uint64_t>::max(), half = uint64_t{1} << 63;
    expectChecks<uint64_t>(db, checkRangeU64, vk::newRange(&db.s, rangeU64_new, Uint64, uint64_t{0}, top, uint64_t{2}),
                           Uint64, {{top - 1, 0}, {top, kStep}});
    expectChecks<uint64_t>(db, checkRangeU64, vk::newRange(&db.s, rangeU64_new, Uint64, half, top), Uint64,
                           {{5, kBelow}, {half, 0}});
}

TEST(RangeCheck, FloatingPoint) {
    kt::Db db;
    ASSERT_GT(db.id, 0);
    // The step is not applied; NaN is below the minimum.
    const uint32_t key = vk::newRange(&db.s, rangeF64_new, Float64, 0.0, 1.0, 0.25);
    expectChecks<double>(db, checkRangeF64, key, Float64,
                         {{0.3, 0}, {0.0, 0}, {-0.0, 0}, {1.0, 0}, {std::nan(""), kBelow}, {1.0000001, kAbove},
                          {-1e-300, kBelow}, {std::numeric_limits<double>::infinity(), kAbove}});
    float f = 0.5f;
    EXPECT_EQ(checkRangeF64(&db.s, key, Float64, &f, 4), KESDB_ERR_CSTRT_LENGTH);
    const uint32_t kf = vk::newRange(&db.s, rangeF32_new, Float32, -1.5f, 2.5f, 1.0f);
    expectChecks<float>(db, checkRangeF32, kf, Float32,
                        {{0.1f, 0}, {-1.5f, 0}, {2.5f, 0}, {-1.6f, kBelow}, {std::nanf(""), kBelow}, {2.6f, kAbove}});
    const double d = 0.0;
    EXPECT_EQ(checkRangeF32(&db.s, kf, Float64, &d, 8), KESDB_ERR_CSTRT_TYPE);
}
