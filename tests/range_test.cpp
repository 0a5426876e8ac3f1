// Range constraints: record transfers, data exchange, and the check of every family member.
#include <gtest/gtest.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstdint>
#include <cstring>
#include <limits>
#include <vector>

#include "testkit.hpp"

namespace {

// Free elements are written in host order, as on the big-endian target: on a
// little-endian test host the allocator would otherwise store them byte-reversed and
// misread its own free list.
[[maybe_unused]] const int kHostOrderElements = setenv("SIM_BYTE_ORDER", "BIG_ENDIAN", 1);

constexpr uint32_t kSentinelCode = 5;
constexpr uint32_t kSentinelDetail = 0x1234;

// Leaves a recognisable pair in the session, so that a recorded detail of 0 and an
// untouched session can both be told apart from what was there before.
void mark(Session& s) { session_setError(&s, kSentinelCode, kSentinelDetail); }

RangeRecordS32 s32(int32_t min, int32_t max, int32_t step) {
    RangeRecordS32 r{};
    r.type = Sint32;
    r.min = min;
    r.max = max;
    r.step = step;
    return r;
}

// Checks a Sint32 value and expects `code`; a refusal must carry detail 0, a pass must
// leave the session as it was.
void expectS32(kt::Db& db, uint32_t key, int32_t v, int32_t code) {
    mark(db.s);
    EXPECT_EQ(checkRangeS32(&db.s, key, Sint32, &v, 4), code) << "value " << v;
    if (code == 0) {
        EXPECT_EQ(db.s.error, kSentinelCode) << "value " << v;
        EXPECT_EQ(db.s.errorDetail, kSentinelDetail) << "value " << v;
    } else {
        EXPECT_EQ(db.s.error, static_cast<uint32_t>(code)) << "value " << v;
        EXPECT_EQ(db.s.errorDetail, 0u) << "value " << v;
    }
}

// Creates a range of element type T (record Rec) and runs `check` on values.
template <class Rec>
uint32_t newRange(kt::Db& db, Rec r, Rec* (*create)(Session*, Rec*)) {
    Rec* out = create(&db.s, &r);
    EXPECT_NE(out, nullptr);
    EXPECT_NE(r.key, 0u);
    return r.key;
}

template <class T>
int32_t check(int32_t (*fn)(Session*, uint32_t, uint32_t, const void*, int32_t), kt::Db& db, uint32_t key,
              uint32_t type, T v) {
    return fn(&db.s, key, type, &v, static_cast<int32_t>(sizeof v));
}

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
    EXPECT_EQ(r.key, 16u);  // first block of a freshly laid medium
    // The whole 16-byte record lies at its key, exactly as in memory.
    std::vector<uint8_t> bytes = kt::readBytes(db.mediumPath, r.key, sizeof r);
    ASSERT_EQ(bytes.size(), sizeof r);
    EXPECT_EQ(std::memcmp(bytes.data(), &r, sizeof r), 0);
    // The next record follows directly: the block was exactly 16 bytes.
    RangeRecordS8 r8{};
    r8.type = Sint8;
    ASSERT_NE(rangeS8_new(&db.s, &r8), nullptr);
    EXPECT_EQ(r8.key, 32u);
    RangeRecordF64 rf{};
    rf.type = Float64;
    ASSERT_NE(rangeF64_new(&db.s, &rf), nullptr);
    EXPECT_EQ(rf.key, 44u);

    RangeRecordS16 back{};
    ASSERT_EQ(rangeS16_get(&db.s, r.key, &back), &back);
    EXPECT_EQ(std::memcmp(&back, &r, sizeof r), 0);

    mark(db.s);
    back.max = 299;
    EXPECT_EQ(rangeS16_set(&db.s, &back), 0);
    EXPECT_EQ(db.s.error, 0u);  // a full write records 0
    RangeRecordS16 again{};
    ASSERT_NE(rangeS16_get(&db.s, r.key, &again), nullptr);
    EXPECT_EQ(again.max, 299);
    // The neighbour behind is untouched.
    RangeRecordS8 n{};
    ASSERT_NE(rangeS8_get(&db.s, r8.key, &n), nullptr);
    EXPECT_EQ(n.type, static_cast<uint32_t>(Sint8));
}

TEST(RangeRecord, TransferFailures) {
    kt::Db db;
    ASSERT_GT(db.id, 0);
    // A read beyond the end of the medium is short: 61.
    RangeRecordS32 r{};
    EXPECT_EQ(rangeS32_get(&db.s, 64 * 1024 - 4, &r), nullptr);
    EXPECT_EQ(db.s.error, static_cast<uint32_t>(KESDB_ERR_CSTRT_READ));
    // No database for the session: 83 with detail 0, returned by set.
    Session other = db.s;
    other.dbId = 30;
    mark(other);
    EXPECT_EQ(rangeS32_get(&other, 16, &r), nullptr);
    EXPECT_EQ(other.error, static_cast<uint32_t>(KESDB_ERR_DB_NOTFOUND));
    EXPECT_EQ(other.errorDetail, 0u);
    EXPECT_EQ(rangeS32_set(&other, &r), KESDB_ERR_DB_NOTFOUND);
    EXPECT_EQ(rangeS32_new(&other, &r), nullptr);
    // The medium cannot be opened: 59 with the error number.
    setenv("KESDB_DEFMEDIA", db.dir.file("missing.bin").c_str(), 1);
    EXPECT_EQ(rangeS32_set(&db.s, &r), KESDB_ERR_CSTRT_OPEN);
    EXPECT_EQ(db.s.errorDetail, static_cast<uint32_t>(ENOENT));
    EXPECT_EQ(rangeS32_get(&db.s, 16, &r), nullptr);
    EXPECT_EQ(db.s.error, static_cast<uint32_t>(KESDB_ERR_CSTRT_OPEN));
    EXPECT_EQ(db.s.errorDetail, static_cast<uint32_t>(ENOENT));
    EXPECT_EQ(rangeS32_new(&db.s, &r), nullptr);
    EXPECT_EQ(db.s.error, static_cast<uint32_t>(KESDB_ERR_CSTRT_OPEN));
    // Null buffers are refused, not dereferenced.
    setenv("KESDB_DEFMEDIA", db.mediumPath.c_str(), 1);
    EXPECT_EQ(rangeS32_get(&db.s, 16, nullptr), nullptr);
    EXPECT_EQ(rangeS32_set(&db.s, nullptr), KESDB_ERR_NULLARG);
    EXPECT_EQ(checkRangeS32(&db.s, 16, Sint32, nullptr, 4), KESDB_ERR_NULLARG);
}

TEST(RangeRecord, NoFreeBlockFailsWithoutWritingAtKeyZero) {
    kt::Db db;
    ASSERT_GT(db.id, 0);
    ASSERT_EQ(flst_m_setFirstOffset(&db.s, 0, 0), 0);  // empty free list
    const std::vector<uint8_t> header = kt::readBytes(db.mediumPath, 0, 64);
    mark(db.s);
    RangeRecordS64 r{};
    r.type = Sint64;
    r.min = 1;
    EXPECT_EQ(rangeS64_new(&db.s, &r), nullptr);
    EXPECT_EQ(db.s.error, static_cast<uint32_t>(KESDB_ERR_CSTRT_ALLOC));
    EXPECT_EQ(db.s.errorDetail, 0u);
    EXPECT_EQ(kt::readBytes(db.mediumPath, 0, 64), header);
}

TEST(RangeData, ExactSizes) {
    kt::Db db;
    ASSERT_GT(db.id, 0);
    RangeRecordS32 r = s32(-10, 10, 5);
    const uint32_t key = newRange(db, r, rangeS32_new);

    int32_t data[3] = {-20, 20, 4};
    mark(db.s);
    EXPECT_EQ(rangeS32_setData(&db.s, key, data, 11), KESDB_ERR_CSTRT_LENGTH);
    EXPECT_EQ(db.s.errorDetail, 0u);
    EXPECT_EQ(rangeS32_setData(&db.s, key, data, 13), KESDB_ERR_CSTRT_LENGTH);
    int32_t out[4] = {7, 7, 7, 7};
    EXPECT_EQ(rangeS32_getData(&db.s, key, out, 12), 0);
    EXPECT_EQ(out[0], -10);  // the refused writes changed nothing
    EXPECT_EQ(out[1], 10);
    EXPECT_EQ(out[2], 5);
    EXPECT_EQ(out[3], 7);  // only 12 bytes are written
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
    const uint32_t ukey = newRange(db, u, rangeU16_new);
    const uint16_t ud[3] = {100, 200, 10};
    EXPECT_EQ(rangeU16_setData(&db.s, ukey, ud, 5), KESDB_ERR_CSTRT_LENGTH);
    EXPECT_EQ(rangeU16_setData(&db.s, ukey, ud, 6), 0);
    RangeRecordU16 ub{};
    ASSERT_NE(rangeU16_get(&db.s, ukey, &ub), nullptr);
    EXPECT_EQ(ub.min, 100);
    EXPECT_EQ(ub.max, 200);
    EXPECT_EQ(ub.step, 10);
    EXPECT_EQ(ub.reserved[0], 0x11);
    EXPECT_EQ(ub.reserved[1], 0x22);
    uint8_t b[3];
    EXPECT_EQ(rangeS8_getData(&db.s, ukey, b, 2), KESDB_ERR_CSTRT_BUFFER);
    RangeRecordF64 f{};
    f.type = Float64;
    const uint32_t fkey = newRange(db, f, rangeF64_new);
    double fd[3] = {0.5, 1.5, 0.0};
    EXPECT_EQ(rangeF64_setData(&db.s, fkey, fd, 23), KESDB_ERR_CSTRT_LENGTH);
    EXPECT_EQ(rangeF64_setData(&db.s, fkey, fd, 24), 0);
    double fo[3] = {};
    EXPECT_EQ(rangeF64_getData(&db.s, fkey, fo, 23), KESDB_ERR_CSTRT_BUFFER);
    EXPECT_EQ(rangeF64_getData(&db.s, fkey, fo, 24), 0);
    EXPECT_EQ(fo[1], 1.5);
    // An unreadable record: the read's code is the result.
    EXPECT_EQ(rangeS32_getData(&db.s, 64 * 1024 - 4, out, 12), KESDB_ERR_CSTRT_READ);
    EXPECT_EQ(rangeS32_setData(&db.s, 64 * 1024 - 4, data, 12), KESDB_ERR_CSTRT_READ);
}

TEST(RangeCheck, Sint32StepPositiveAndNegative) {
    kt::Db db;
    ASSERT_GT(db.id, 0);
    for (int32_t step : {5, -5}) {
        const uint32_t key = newRange(db, s32(-10, 10, step), rangeS32_new);
        for (int32_t v : {-10, -5, 0, 5, 10}) expectS32(db, key, v, 0);
        expectS32(db, key, -11, KESDB_ERR_CSTRT_BELOWMIN);
        expectS32(db, key, 11, KESDB_ERR_CSTRT_ABOVEMAX);
        expectS32(db, key, 3, KESDB_ERR_CSTRT_STEP);
        expectS32(db, key, -3, KESDB_ERR_CSTRT_STEP);
    }
}

TEST(RangeCheck, OrderTypeAndLengthBeforeRead) {
    kt::Db db;
    ASSERT_GT(db.id, 0);
    RangeRecordS16 r{};
    r.type = Sint16;
    r.min = -5;
    r.max = 5;
    const uint32_t key = newRange(db, r, rangeS16_new);
    int32_t four = 0;
    mark(db.s);
    EXPECT_EQ(checkRangeS16(&db.s, key, Sint16, &four, 4), KESDB_ERR_CSTRT_LENGTH);
    EXPECT_EQ(db.s.errorDetail, 0u);
    uint16_t u = 1;
    EXPECT_EQ(checkRangeS16(&db.s, key, Uint16, &u, 2), KESDB_ERR_CSTRT_TYPE);
    EXPECT_EQ(db.s.errorDetail, 0u);
    // Against an unreadable key the type and length tests still come first: no read is made.
    const uint32_t bad = 64 * 1024 - 4;
    EXPECT_EQ(checkRangeS16(&db.s, bad, Sint16, &four, 4), KESDB_ERR_CSTRT_LENGTH);
    EXPECT_EQ(db.s.error, static_cast<uint32_t>(KESDB_ERR_CSTRT_LENGTH));
    EXPECT_EQ(checkRangeS16(&db.s, bad, Uint16, &u, 2), KESDB_ERR_CSTRT_TYPE);
    EXPECT_EQ(db.s.error, static_cast<uint32_t>(KESDB_ERR_CSTRT_TYPE));
    // With type and length right, the read's failure is the result.
    int16_t v = 1;
    EXPECT_EQ(checkRangeS16(&db.s, bad, Sint16, &v, 2), KESDB_ERR_CSTRT_READ);
    EXPECT_EQ(checkRangeS16(&db.s, key, Sint16, &v, 2), 0);
    // Type is tested before length.
    EXPECT_EQ(checkRangeS16(&db.s, key, Sint32, &four, 4), KESDB_ERR_CSTRT_TYPE);
}

TEST(RangeCheck, NarrowTypesAreWidenedBySignedness) {
    kt::Db db;
    ASSERT_GT(db.id, 0);
    // Uint8 0..200 step 0: no step test.
    RangeRecordU8 u8r{};
    u8r.type = Uint8;
    u8r.min = 0;
    u8r.max = 200;
    uint32_t key = newRange(db, u8r, rangeU8_new);
    EXPECT_EQ(check<uint8_t>(checkRangeU8, db, key, Uint8, 200), 0);
    EXPECT_EQ(check<uint8_t>(checkRangeU8, db, key, Uint8, 0), 0);
    EXPECT_EQ(check<uint8_t>(checkRangeU8, db, key, Uint8, 201), KESDB_ERR_CSTRT_ABOVEMAX);
    EXPECT_EQ(check<uint8_t>(checkRangeU8, db, key, Uint8, 255), KESDB_ERR_CSTRT_ABOVEMAX);
    // Uint8 is zero-extended: 255 is above 128, not below.
    u8r.min = 128;
    u8r.max = 255;
    u8r.step = 127;
    key = newRange(db, u8r, rangeU8_new);
    EXPECT_EQ(check<uint8_t>(checkRangeU8, db, key, Uint8, 255), 0);
    EXPECT_EQ(check<uint8_t>(checkRangeU8, db, key, Uint8, 254), KESDB_ERR_CSTRT_STEP);
    EXPECT_EQ(check<uint8_t>(checkRangeU8, db, key, Uint8, 127), KESDB_ERR_CSTRT_BELOWMIN);

    // Sint8 is sign-extended: -128..127 step 5 from -128.
    RangeRecordS8 s8r{};
    s8r.type = Sint8;
    s8r.min = -128;
    s8r.max = 127;
    s8r.step = 5;
    key = newRange(db, s8r, rangeS8_new);
    EXPECT_EQ(check<int8_t>(checkRangeS8, db, key, Sint8, -128), 0);
    EXPECT_EQ(check<int8_t>(checkRangeS8, db, key, Sint8, -123), 0);
    EXPECT_EQ(check<int8_t>(checkRangeS8, db, key, Sint8, 127), 0);  // 127 - (-128) = 255 = 51 x 5
    EXPECT_EQ(check<int8_t>(checkRangeS8, db, key, Sint8, 126), KESDB_ERR_CSTRT_STEP);
    s8r.min = -1;
    s8r.max = 1;
    s8r.step = 0;
    key = newRange(db, s8r, rangeS8_new);
    EXPECT_EQ(check<int8_t>(checkRangeS8, db, key, Sint8, -1), 0);
    EXPECT_EQ(check<int8_t>(checkRangeS8, db, key, Sint8, -2), KESDB_ERR_CSTRT_BELOWMIN);
    EXPECT_EQ(check<int8_t>(checkRangeS8, db, key, Sint8, 2), KESDB_ERR_CSTRT_ABOVEMAX);

    // Uint16 full range step 3; Sint16 negative bounds.
    RangeRecordU16 u16r{};
    u16r.type = Uint16;
    u16r.min = 0;
    u16r.max = 65535;
    u16r.step = 3;
    key = newRange(db, u16r, rangeU16_new);
    EXPECT_EQ(check<uint16_t>(checkRangeU16, db, key, Uint16, 65535), 0);
    EXPECT_EQ(check<uint16_t>(checkRangeU16, db, key, Uint16, 65534), KESDB_ERR_CSTRT_STEP);
    RangeRecordS16 s16r{};
    s16r.type = Sint16;
    s16r.min = -32768;
    s16r.max = -100;
    s16r.step = -2;
    key = newRange(db, s16r, rangeS16_new);
    EXPECT_EQ(check<int16_t>(checkRangeS16, db, key, Sint16, -32768), 0);
    EXPECT_EQ(check<int16_t>(checkRangeS16, db, key, Sint16, -100), 0);
    EXPECT_EQ(check<int16_t>(checkRangeS16, db, key, Sint16, -101), KESDB_ERR_CSTRT_STEP);
    EXPECT_EQ(check<int16_t>(checkRangeS16, db, key, Sint16, -99), KESDB_ERR_CSTRT_ABOVEMAX);
    EXPECT_EQ(check<int16_t>(checkRangeS16, db, key, Sint16, 100), KESDB_ERR_CSTRT_ABOVEMAX);
}

TEST(RangeCheck, Uint32IsUnsigned) {
    kt::Db db;
    ASSERT_GT(db.id, 0);
    RangeRecordU32 r{};
    r.type = Uint32;
    r.min = 0;
    r.max = 0xFFFFFFFFu;
    r.step = 2;
    uint32_t key = newRange(db, r, rangeU32_new);
    EXPECT_EQ(check<uint32_t>(checkRangeU32, db, key, Uint32, 0xFFFFFFFEu), 0);
    EXPECT_EQ(check<uint32_t>(checkRangeU32, db, key, Uint32, 0xFFFFFFFFu), KESDB_ERR_CSTRT_STEP);
    EXPECT_EQ(check<uint32_t>(checkRangeU32, db, key, Uint32, 0), 0);
    // Bounds above 2^31 compare unsigned.
    r.min = 0x80000000u;
    r.max = 0xF0000000u;
    r.step = 0x10000000u;
    key = newRange(db, r, rangeU32_new);
    EXPECT_EQ(check<uint32_t>(checkRangeU32, db, key, Uint32, 0xF0000000u), 0);
    EXPECT_EQ(check<uint32_t>(checkRangeU32, db, key, Uint32, 5), KESDB_ERR_CSTRT_BELOWMIN);
    EXPECT_EQ(check<uint32_t>(checkRangeU32, db, key, Uint32, 0xF0000001u), KESDB_ERR_CSTRT_ABOVEMAX);
    EXPECT_EQ(check<uint32_t>(checkRangeU32, db, key, Uint32, 0x90000001u), KESDB_ERR_CSTRT_STEP);
}

TEST(RangeCheck, Sixty4BitMembers) {
    kt::Db db;
    ASSERT_GT(db.id, 0);
    const int64_t two31 = int64_t{1} << 31;
    RangeRecordS64 r{};
    r.type = Sint64;
    r.min = -two31;
    r.max = two31;
    const uint32_t key = newRange(db, r, rangeS64_new);
    EXPECT_EQ(check<int64_t>(checkRangeS64, db, key, Sint64, -two31), 0);
    EXPECT_EQ(check<int64_t>(checkRangeS64, db, key, Sint64, two31), 0);
    EXPECT_EQ(check<int64_t>(checkRangeS64, db, key, Sint64, -two31 - 1), KESDB_ERR_CSTRT_BELOWMIN);
    EXPECT_EQ(check<int64_t>(checkRangeS64, db, key, Sint64, two31 + 1), KESDB_ERR_CSTRT_ABOVEMAX);
    EXPECT_EQ(check<int64_t>(checkRangeS64, db, key, Sint64, -(int64_t{1} << 32)), KESDB_ERR_CSTRT_BELOWMIN);
    EXPECT_EQ(check<int64_t>(checkRangeS64, db, key, Sint64, int64_t{1} << 40), KESDB_ERR_CSTRT_ABOVEMAX);

    // Step only in the high word still counts as a step; a 64-bit step of 2^32.
    r.min = 0;
    r.max = int64_t{1} << 40;
    r.step = int64_t{1} << 32;
    const uint32_t k2 = newRange(db, r, rangeS64_new);
    EXPECT_EQ(check<int64_t>(checkRangeS64, db, k2, Sint64, int64_t{3} << 32), 0);
    EXPECT_EQ(check<int64_t>(checkRangeS64, db, k2, Sint64, (int64_t{3} << 32) + 1), KESDB_ERR_CSTRT_STEP);

    RangeRecordU64 u{};
    u.type = Uint64;
    u.min = 0;
    u.max = std::numeric_limits<uint64_t>::max();
    u.step = 2;
    const uint32_t k3 = newRange(db, u, rangeU64_new);
    EXPECT_EQ(check<uint64_t>(checkRangeU64, db, k3, Uint64, std::numeric_limits<uint64_t>::max() - 1), 0);
    EXPECT_EQ(check<uint64_t>(checkRangeU64, db, k3, Uint64, std::numeric_limits<uint64_t>::max()),
              KESDB_ERR_CSTRT_STEP);
    u.min = uint64_t{1} << 63;
    u.step = 0;
    const uint32_t k4 = newRange(db, u, rangeU64_new);
    EXPECT_EQ(check<uint64_t>(checkRangeU64, db, k4, Uint64, 5), KESDB_ERR_CSTRT_BELOWMIN);
    EXPECT_EQ(check<uint64_t>(checkRangeU64, db, k4, Uint64, uint64_t{1} << 63), 0);
}

// Extreme bounds and steps whose arithmetic would be undefined if done naively
// (overflowing differences, the smallest value divided by -1). Run under UBSan in CI.
TEST(RangeCheck, ExtremeArithmeticIsDefined) {
    kt::Db db;
    ASSERT_GT(db.id, 0);
    const int32_t i32min = std::numeric_limits<int32_t>::min();
    const int32_t i32max = std::numeric_limits<int32_t>::max();
    uint32_t key = newRange(db, s32(i32min, i32max, -1), rangeS32_new);
    expectS32(db, key, i32max, 0);
    expectS32(db, key, i32min, 0);
    expectS32(db, key, 0, 0);
    // The difference max - min wraps to -1 in 32 bits; -1 is not a multiple of 3.
    key = newRange(db, s32(i32min, i32max, 3), rangeS32_new);
    expectS32(db, key, i32max, KESDB_ERR_CSTRT_STEP);
    expectS32(db, key, i32min + 3, 0);
    key = newRange(db, s32(i32min, i32max, i32min), rangeS32_new);
    expectS32(db, key, i32min, 0);
    expectS32(db, key, 0, 0);  // 0 - min wraps to min, min % min == 0
    expectS32(db, key, 1, KESDB_ERR_CSTRT_STEP);

    const int64_t i64min = std::numeric_limits<int64_t>::min();
    const int64_t i64max = std::numeric_limits<int64_t>::max();
    RangeRecordS64 r{};
    r.type = Sint64;
    r.min = i64min;
    r.max = i64max;
    r.step = -1;
    key = newRange(db, r, rangeS64_new);
    EXPECT_EQ(check<int64_t>(checkRangeS64, db, key, Sint64, i64max), 0);
    EXPECT_EQ(check<int64_t>(checkRangeS64, db, key, Sint64, i64min), 0);
    r.step = 3;
    key = newRange(db, r, rangeS64_new);
    EXPECT_EQ(check<int64_t>(checkRangeS64, db, key, Sint64, i64max), KESDB_ERR_CSTRT_STEP);
    EXPECT_EQ(check<int64_t>(checkRangeS64, db, key, Sint64, i64min + 3), 0);
}

TEST(RangeCheck, FloatingPoint) {
    kt::Db db;
    ASSERT_GT(db.id, 0);
    RangeRecordF64 r{};
    r.type = Float64;
    r.min = 0.0;
    r.max = 1.0;
    r.step = 0.25;
    const uint32_t key = newRange(db, r, rangeF64_new);
    EXPECT_EQ(check<double>(checkRangeF64, db, key, Float64, 0.3), 0);  // the step is not applied
    EXPECT_EQ(check<double>(checkRangeF64, db, key, Float64, 0.0), 0);
    EXPECT_EQ(check<double>(checkRangeF64, db, key, Float64, -0.0), 0);
    EXPECT_EQ(check<double>(checkRangeF64, db, key, Float64, 1.0), 0);
    EXPECT_EQ(check<double>(checkRangeF64, db, key, Float64, std::nan("")), KESDB_ERR_CSTRT_BELOWMIN);
    EXPECT_EQ(check<double>(checkRangeF64, db, key, Float64, 1.0000001), KESDB_ERR_CSTRT_ABOVEMAX);
    EXPECT_EQ(check<double>(checkRangeF64, db, key, Float64, -1e-300), KESDB_ERR_CSTRT_BELOWMIN);
    EXPECT_EQ(check<double>(checkRangeF64, db, key, Float64, std::numeric_limits<double>::infinity()),
              KESDB_ERR_CSTRT_ABOVEMAX);
    float f = 0.5f;
    EXPECT_EQ(checkRangeF64(&db.s, key, Float64, &f, 4), KESDB_ERR_CSTRT_LENGTH);

    RangeRecordF32 rf{};
    rf.type = Float32;
    rf.min = -1.5f;
    rf.max = 2.5f;
    rf.step = 1.0f;
    const uint32_t kf = newRange(db, rf, rangeF32_new);
    EXPECT_EQ(check<float>(checkRangeF32, db, kf, Float32, 0.1f), 0);
    EXPECT_EQ(check<float>(checkRangeF32, db, kf, Float32, -1.5f), 0);
    EXPECT_EQ(check<float>(checkRangeF32, db, kf, Float32, 2.5f), 0);
    EXPECT_EQ(check<float>(checkRangeF32, db, kf, Float32, -1.6f), KESDB_ERR_CSTRT_BELOWMIN);
    EXPECT_EQ(check<float>(checkRangeF32, db, kf, Float32, std::nanf("")), KESDB_ERR_CSTRT_BELOWMIN);
    EXPECT_EQ(check<float>(checkRangeF32, db, kf, Float32, 2.6f), KESDB_ERR_CSTRT_ABOVEMAX);
    // A Float32 range does not serve Float64 values.
    EXPECT_EQ(check<double>(checkRangeF32, db, kf, Float64, 0.0), KESDB_ERR_CSTRT_TYPE);
}

TEST(RangeCheck, MinAboveMaxRejectsEverything) {
    kt::Db db;
    ASSERT_GT(db.id, 0);
    const uint32_t key = newRange(db, s32(10, -10, 0), rangeS32_new);
    expectS32(db, key, 0, KESDB_ERR_CSTRT_BELOWMIN);
    expectS32(db, key, 10, KESDB_ERR_CSTRT_ABOVEMAX);
    expectS32(db, key, -10, KESDB_ERR_CSTRT_BELOWMIN);
}
