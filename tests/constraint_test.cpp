// Constraint records and checks: the ten range and enumeration families over one typed table,
// the edges of their arithmetic, record transfers and their failures, lengths and data, unknown
// type codes, and the check seen through every public path that writes a value.
#include <gtest/gtest.h>

#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <array>
#include <functional>
#include <limits>
#include <string>
#include <type_traits>
#include <vector>

#include "valcstrtkit.hpp"

namespace {

using Constraint = vk::DbTest;
using Bytes = std::vector<uint8_t>;
using vk::mark;
using vk::newEnum;
using vk::newHeader;

// Free elements in host order, as on the big-endian target.
[[maybe_unused]] const int kHostOrderElements = setenv("SIM_BYTE_ORDER", "BIG_ENDIAN", 1);

constexpr uint32_t kPastEnd = 64 * 1024 - 4;
constexpr int32_t kRead = KESDB_ERR_CSTRT_READ, kBelow = KESDB_ERR_CSTRT_BELOWMIN, kAbove = KESDB_ERR_CSTRT_ABOVEMAX,
                  kStep = KESDB_ERR_CSTRT_STEP, kLength = KESDB_ERR_CSTRT_LENGTH, kType = KESDB_ERR_CSTRT_TYPE,
                  kNotMember = KESDB_ERR_CSTRT_NOTMEMBER;

void expectError(const Session& s, int64_t code, int64_t detail) {
    EXPECT_EQ(s.error, static_cast<uint32_t>(code));
    EXPECT_EQ(s.errorDetail, static_cast<uint32_t>(detail));
}

template <class T>
T stored(kt::Db& db, uint32_t valueKey) {
    T v{};
    const Bytes bytes = vk::dataOf(db, valueKey, sizeof v);
    if (bytes.size() == sizeof v) std::memcpy(&v, bytes.data(), sizeof v);
    return v;
}

uint32_t s32Range(kt::Db& db, int32_t min, int32_t max, int32_t step = 0) {
    return vk::newRange(&db.s, rangeS32_new, Sint32, min, max, step);
}

uint32_t s32Value(kt::Db& db, int32_t v, uint32_t c = 0) {
    const uint32_t key = vk::make<int32_t>(&db.s, Sint32, v);
    EXPECT_EQ(value_setConstraintKey(&db.s, key, c), 0);
    return key;
}

// Checks each value: a refusal records its code with detail 0, a pass leaves the session as it was.
template <class T>
void expectChecks(kt::Db& db, vk::CheckFn fn, uint32_t key, uint32_t type, std::vector<std::pair<T, int32_t>> cases) {
    ASSERT_NE(key, 0u);
    for (const auto& [v, code] : cases) {
        SCOPED_TRACE(testing::Message() << "type " << type << " value " << +v);
        mark(db.s);
        EXPECT_EQ(fn(&db.s, key, type, &v, static_cast<int32_t>(sizeof v)), code);
        expectError(db.s, code ? code : 5, code ? 0 : 0x1234);
    }
}

// A range [min, max] with `step` checked against each case.
template <class Rec, class T = decltype(Rec::min)>
void checks(kt::Db& db, Rec* (*create)(Session*, Rec*), vk::CheckFn fn, uint32_t type, std::type_identity_t<T> min,
            std::type_identity_t<T> max, std::type_identity_t<T> step, std::vector<std::pair<T, int32_t>> cases) {
    expectChecks<T>(db, fn, vk::newRange<Rec, T>(&db.s, create, type, min, max, step), type, std::move(cases));
}

// One family: a range and an enumeration of its type, through every call of the family.
template <class Rec, class T = decltype(Rec::min)>
void family(kt::Db& db, uint32_t type, Rec* (*create)(Session*, Rec*), Rec* (*get)(Session*, uint32_t, Rec*),
            int32_t (*set)(Session*, const Rec*), int32_t (*setData)(Session*, uint32_t, const void*, uint32_t),
            int32_t (*getData)(Session*, uint32_t, void*, uint32_t), vk::CheckFn range, vk::CheckFn inEnum) {
    SCOPED_TRACE(type);
    Session* s = &db.s;
    constexpr bool kFloat = std::is_floating_point_v<T>;
    const T lo = std::is_signed_v<T> ? T(-10) : T(10), hi = T(20), step = T(5);
    // The record lies on the medium as given, reserved bytes included, and reads back whole.
    Rec r;
    std::memset(&r, 0x5A, sizeof r);
    r.type = type;
    r.min = lo;
    r.max = hi;
    r.step = step;
    ASSERT_EQ(create(s, &r), &r);
    EXPECT_EQ(kt::readBytes(db.mediumPath, r.key, sizeof r), Bytes(reinterpret_cast<uint8_t*>(&r), reinterpret_cast<uint8_t*>(&r) + sizeof r));
    Rec back{};
    ASSERT_EQ(get(s, r.key, &back), &back);
    EXPECT_EQ(std::memcmp(&back, &r, sizeof r), 0);
    expectChecks<T>(db, range, r.key, type,
                    {{lo, 0}, {hi, 0}, {T(lo + 5), 0}, {T(lo - 1), kBelow}, {T(hi + 1), kAbove}, {T(lo + 3), kFloat ? 0 : kStep}});
    // Data moves only in the exact size (65 and 67 otherwise, detail 0, nothing moved).
    constexpr uint32_t n = 3 * sizeof(T);
    const T data[3] = {T(lo + 1), T(hi - 1), T(0)};
    for (uint32_t wrong : {n - 1, n + 1}) {
        mark(db.s);
        EXPECT_EQ(setData(s, r.key, data, wrong), kLength);
        EXPECT_EQ(db.s.errorDetail, 0u);
    }
    uint8_t out[n + 1];
    std::memset(out, 7, sizeof out);
    EXPECT_EQ(getData(s, r.key, out, n - 1), KESDB_ERR_CSTRT_BUFFER);
    EXPECT_EQ(getData(s, r.key, out, n + 1), 0);
    EXPECT_EQ(std::memcmp(out, &r.min, n), 0);
    EXPECT_EQ(out[n], 7);
    EXPECT_EQ(setData(s, r.key, data, n), 0);
    ASSERT_NE(get(s, r.key, &back), nullptr);
    std::memcpy(&r.min, data, n);
    EXPECT_EQ(std::memcmp(&back, &r, sizeof r), 0);  // key, type and reserved bytes as stored
    back.min = lo;
    back.max = hi;
    mark(db.s);
    EXPECT_EQ(set(s, &back), 0);
    EXPECT_EQ(db.s.error, 0u);
    EXPECT_EQ(range(s, r.key, type, &hi, sizeof hi), 0);
    // The enumeration {lo, hi}: members pass, anything else gives 71.
    const uint32_t e = newEnum<T>(db, type, {lo, hi});
    expectChecks<T>(db, inEnum, e, type, {{lo, 0}, {hi, 0}, {T(lo + 5), kNotMember}});
    // Both through the dispatch: a wrong value type gives 64, a wrong length 65.
    for (uint32_t key : {r.key, e}) {
        const T v = lo;
        EXPECT_EQ(constraint_check(s, key, type, &v, sizeof v), 0);
        EXPECT_EQ(constraint_check(s, key, type == Uint8 ? Sint8 : Uint8, &v, 1), kType);
        EXPECT_EQ(constraint_check(s, key, type, &v, sizeof v + 1), kLength);
    }
    const T outside = T(hi + 1);
    EXPECT_EQ(constraint_check(s, r.key, type, &outside, sizeof outside), kAbove);
    EXPECT_EQ(constraint_check(s, e, type, &outside, sizeof outside), kNotMember);
}

}  // namespace

TEST_F(Constraint, EveryFamily) {
    family(db, Sint8, rangeS8_new, rangeS8_get, rangeS8_set, rangeS8_setData, rangeS8_getData, checkRangeS8, checkEnumS8);
    family(db, Sint16, rangeS16_new, rangeS16_get, rangeS16_set, rangeS16_setData, rangeS16_getData, checkRangeS16, checkEnumS16);
    family(db, Sint32, rangeS32_new, rangeS32_get, rangeS32_set, rangeS32_setData, rangeS32_getData, checkRangeS32, checkEnumS32);
    family(db, Sint64, rangeS64_new, rangeS64_get, rangeS64_set, rangeS64_setData, rangeS64_getData, checkRangeS64, checkEnumS64);
    family(db, Uint8, rangeU8_new, rangeU8_get, rangeU8_set, rangeU8_setData, rangeU8_getData, checkRangeU8, checkEnumU8);
    family(db, Uint16, rangeU16_new, rangeU16_get, rangeU16_set, rangeU16_setData, rangeU16_getData, checkRangeU16, checkEnumU16);
    family(db, Uint32, rangeU32_new, rangeU32_get, rangeU32_set, rangeU32_setData, rangeU32_getData, checkRangeU32, checkEnumU32);
    family(db, Uint64, rangeU64_new, rangeU64_get, rangeU64_set, rangeU64_setData, rangeU64_getData, checkRangeU64, checkEnumU64);
    family(db, Float32, rangeF32_new, rangeF32_get, rangeF32_set, rangeF32_setData, rangeF32_getData, checkRangeF32, checkEnumF32);
    family(db, Float64, rangeF64_new, rangeF64_get, rangeF64_set, rangeF64_setData, rangeF64_getData, checkRangeF64, checkEnumF64);
}

// Widening by signedness, overflowing differences (UBSan watches), steps in the high word,
// NaN below the minimum, IEEE equality of members, 64-bit members compared in both words.
TEST_F(Constraint, ArithmeticEdges) {
    const int32_t lo = std::numeric_limits<int32_t>::min(), hi = std::numeric_limits<int32_t>::max();
    checks(db, rangeS32_new, checkRangeS32, Sint32, 10, -10, 0, {{0, kBelow}, {10, kAbove}});
    checks(db, rangeS32_new, checkRangeS32, Sint32, lo, hi, -1, {{hi, 0}, {lo, 0}});
    checks(db, rangeS32_new, checkRangeS32, Sint32, lo, hi, lo, {{lo, 0}, {0, 0}, {1, kStep}});
    const int64_t lo64 = std::numeric_limits<int64_t>::min(), hi64 = std::numeric_limits<int64_t>::max();
    const int64_t two31 = int64_t{1} << 31, two32 = int64_t{1} << 32;
    checks(db, rangeS64_new, checkRangeS64, Sint64, lo64, hi64, 3, {{hi64, kStep}, {lo64 + 3, 0}});
    checks(db, rangeS64_new, checkRangeS64, Sint64, -two31, two31, 0,
           {{-two31 - 1, kBelow}, {two31 + 1, kAbove}, {-two32, kBelow}, {two32 << 8, kAbove}});
    checks(db, rangeS64_new, checkRangeS64, Sint64, 0, two32 << 8, two32, {{3 * two32, 0}, {3 * two32 + 1, kStep}});
    checks(db, rangeU8_new, checkRangeU8, Uint8, 128, 255, 127, {{255, 0}, {254, kStep}, {127, kBelow}});
    checks(db, rangeS8_new, checkRangeS8, Sint8, -128, 127, 5, {{-128, 0}, {127, 0}, {126, kStep}});
    checks(db, rangeU32_new, checkRangeU32, Uint32, 0x80000000u, 0xF0000000u, 0x10000000u,
           {{0xF0000000u, 0}, {5, kBelow}, {0xF0000001u, kAbove}, {0x90000001u, kStep}});
    const uint64_t top = std::numeric_limits<uint64_t>::max(), half = uint64_t{1} << 63;
    checks(db, rangeU64_new, checkRangeU64, Uint64, half, top, 2, {{top - 1, 0}, {top, kStep}, {5, kBelow}});
    checks(db, rangeF64_new, checkRangeF64, Float64, 0.0, 1.0, 0.25,
           {{-0.0, 0}, {std::nan(""), kBelow}, {1.0000001, kAbove}, {std::numeric_limits<double>::infinity(), kAbove}});
    checks(db, rangeF32_new, checkRangeF32, Float32, -1.5f, 2.5f, 1.0f, {{std::nanf(""), kBelow}, {2.6f, kAbove}});

    expectChecks<double>(db, checkEnumF64, newEnum<double>(db, Float64, {0.0, 1.5}), Float64,
                         {{-0.0, 0}, {std::nan(""), kNotMember}, {1.5000000001, kNotMember}});
    expectChecks<float>(db, checkEnumF32, newEnum<float>(db, Float32, {std::nanf(""), -0.0f}), Float32,
                        {{std::nanf(""), kNotMember}, {0.0f, 0}});
    expectChecks<int64_t>(db, checkEnumS64, newEnum<int64_t>(db, Sint64, {two32, -1}), Sint64, {{0, kNotMember}, {two32 + 1, kNotMember}});
    expectChecks<int32_t>(db, checkEnumS32, newEnum<int32_t>(db, Sint32, {}), Sint32, {{0, kNotMember}});
}

// The value type is tested before anything is read; a range then tests the length, an
// enumeration reads its record first; an element size other than the type's width gives 65.
TEST_F(Constraint, OrderOfTheTests) {
    int32_t four = 0;
    const uint16_t u = 1;
    const int16_t v = 1;
    EXPECT_EQ(checkRangeS16(s, kPastEnd, Sint16, &four, 4), kLength);
    EXPECT_EQ(checkRangeS16(s, kPastEnd, Uint16, &u, 2), kType);
    EXPECT_EQ(checkRangeS16(s, kPastEnd, Sint16, &v, 2), kRead);
    EXPECT_EQ(checkRangeS16(s, vk::newRange(s, rangeS16_new, Sint16, int16_t(-5), int16_t(5)), Sint32, &four, 4), kType);
    EXPECT_EQ(checkEnumU16(s, kPastEnd, Sint16, &four, 2), kType);
    EXPECT_EQ(checkEnumU16(s, kPastEnd, Uint16, &four, 4), kRead);
    EnumRecord r{0, Uint16 * 256u, 64 * 1024 - 2, 2, 4};  // its array cannot be read
    ASSERT_NE(enum_new(s, &r), nullptr);
    EXPECT_EQ(checkEnumU16(s, r.key, Uint16, &v, 2), kRead);
    EnumRecord narrow{0, Sint32 * 256u, constraint_newEnumArray(s, 2, 3), 2, 3};
    ASSERT_NE(enum_new(s, &narrow), nullptr);
    for (int32_t length : {2, 4}) EXPECT_EQ(checkEnumS32(s, narrow.key, Sint32, &four, length), kLength);
    // Counts far beyond the medium (4 GiB, 64 MiB of members) make no absurd allocation: 61.
    for (uint32_t count : {0x40000000u, 0x01000000u}) {
        EnumRecord huge{0, Uint32 * 256u, narrow.arrayKey, 4, count};
        ASSERT_NE(enum_new(s, &huge), nullptr);
        EXPECT_EQ(checkEnumU32(s, huge.key, Uint32, &four, 4), kRead);
    }
}

// Blocks are taken in order and exactly as large as their records; an array is zero-filled and
// read back as a copy the caller frees; enumeration data overwrites the array in place.
TEST_F(Constraint, RecordsArraysAndEnumerationData) {
    const Bytes before = kt::readBytes(db.mediumPath, 16, 8);
    ConstraintHeader h{0, 77};
    ASSERT_EQ(constraint_new(s, &h), &h);
    EXPECT_EQ(h.key, 16u);
    EXPECT_EQ(kt::readBytes(db.mediumPath, 16, 8), before);
    EXPECT_EQ(constraint_set(s, &h), 0);
    EXPECT_EQ(constraint_getType(s, 16), 77u);
    EXPECT_EQ(constraint_newEnumArray(s, 4, 3), 24u);
    EXPECT_EQ(kt::readBytes(db.mediumPath, 24, 12), Bytes(12, 0));
    EnumRecord r{0, Sint32 * 256u, 24, 4, 3};
    ASSERT_EQ(enum_new(s, &r), &r);
    EXPECT_EQ(r.key, 36u);
    EXPECT_EQ(vk::newRange(s, rangeS8_new, Sint8, int8_t(0), int8_t(0)), 56u);
    const int32_t m[3] = {1, 2, 3};
    EXPECT_EQ(constraint_setEnumArray(s, 24, 4, 3, m), 0);
    void* copy = constraint_getEnumArray(s, 24, 4, 3);
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(std::memcmp(copy, m, 12), 0);
    std::free(copy);
    EnumRecord back{};
    ASSERT_EQ(enum_get(s, r.key, &back), &back);
    EXPECT_EQ(std::memcmp(&back, &r, sizeof r), 0);

    const int32_t two[2] = {8, 9}, four[4] = {40, 41, 42, 43};
    EXPECT_EQ(enum_setData(s, r.key, 4, 2, two), 0);
    expectChecks<int32_t>(db, checkEnumS32, r.key, Sint32, {{3, 0}, {9, 0}, {1, kNotMember}});
    // Data longer than the array (a huge count cannot overflow into a small size): 65, nothing moved.
    const Bytes stored = kt::readBytes(db.mediumPath, 24, 64);
    for (const auto& [size, count] : {std::pair<uint32_t, uint32_t>{4, 4}, {4, 0x40000001u}})
        EXPECT_EQ(enum_setData(s, r.key, size, count, four), kLength);
    EXPECT_EQ(kt::readBytes(db.mediumPath, 24, 64), stored);
    EXPECT_EQ(enum_setData(s, kPastEnd - 4, 4, 1, four), 0);  // unreadable: 0, the read's code
    EXPECT_EQ(db.s.error, static_cast<uint32_t>(kRead));
    EXPECT_EQ(constraint_getEnumArray(s, 24, 0xFFFFFFFFu, 0xFFFFFFFFu), nullptr);
    EXPECT_EQ(constraint_setEnumArray(s, 24, 0x10000u, 0x10000u, four), kRead);
}

// Every transfer of every record kind fails alike without a database (83, detail 0) and on a
// medium that cannot be opened (59, ENOENT); reads past the end give 61; null buffers 89.
TEST_F(Constraint, TransferFailuresOfEveryRecordKind) {
    ConstraintHeader h{16, 4};
    RangeRecordS32 r{16, Sint32, 0, 9, 0};
    EnumRecord e{16, Sint32 * 256u, 16, 4, 1};
    const uint32_t w = 0;
    // Each call gives the code it returns, or whether it gave a record or key.
    const std::function<int64_t(Session*)> calls[] = {
        [&](Session* s) { return constraint_get(s, 16, &h) != nullptr; },
        [&](Session* s) { return rangeS32_set(s, &r); },
        [&](Session* s) { return rangeS32_new(s, &r) != nullptr; },
        [&](Session* s) { return enum_get(s, 16, &e) != nullptr; },
        [&](Session* s) { return enum_set(s, &e); },
        [&](Session* s) { return constraint_newEnumArray(s, 4, 1) != KESDB_FLST_FAILED; },
        [&](Session* s) { return constraint_setEnumArray(s, 16, 4, 1, &w); },
    };
    const bool returnsCode[] = {0, 1, 0, 0, 1, 0, 1};
    Session other = db.s;
    other.dbId = 31;
    for (int missing = 0; missing < 2; ++missing) {
        if (missing) setenv("KESDB_DEFMEDIA", db.dir.file("missing.bin").c_str(), 1);
        Session& t = missing ? db.s : other;
        const int32_t code = missing ? KESDB_ERR_CSTRT_OPEN : KESDB_ERR_DB_NOTFOUND;
        for (size_t i = 0; i < std::size(calls); ++i) {
            SCOPED_TRACE(i);
            mark(t);
            EXPECT_EQ(calls[i](&t), returnsCode[i] ? code : 0);
            expectError(t, code, missing ? ENOENT : 0);
        }
    }
    setenv("KESDB_DEFMEDIA", db.mediumPath.c_str(), 1);
    int32_t out[3];
    EXPECT_EQ(constraint_getType(s, kPastEnd), 0u);
    EXPECT_EQ(rangeS32_getData(s, kPastEnd, out, 12), kRead);
    EXPECT_EQ(rangeS32_setData(s, kPastEnd, out, 12), kRead);
    EXPECT_EQ(constraint_getData(s, kPastEnd, out, 12), 0);
    EXPECT_EQ(db.s.error, static_cast<uint32_t>(kRead));
    EXPECT_EQ(constraint_get(s, 16, nullptr), nullptr);
    EXPECT_EQ(db.s.error, static_cast<uint32_t>(KESDB_ERR_NULLARG));
    EXPECT_EQ(rangeS32_get(s, 16, nullptr), nullptr);
    for (int32_t code : {rangeS32_set(s, nullptr), checkRangeS32(s, 16, Sint32, nullptr, 4), constraint_setData(s, 16, nullptr, 100)})
        EXPECT_EQ(code, KESDB_ERR_NULLARG);
}

// Every creator fails without writing: with no free block as 62 with detail 0, with a free
// list the allocator cannot walk as the allocator found it (24, the broken link's key); arrays
// larger than 32 bits or than the free space get no block.
TEST_F(Constraint, AllocationFailuresOfEveryCreator) {
    for (uint32_t count : {0x20000000u, 10000u}) {
        mark(db.s);
        EXPECT_EQ(constraint_newEnumArray(s, 8, count), KESDB_FLST_FAILED);
        expectError(db.s, KESDB_ERR_CSTRT_ALLOC, 0);
    }
    ConstraintHeader h{0, 4};
    RangeRecordS64 range{0, Sint64, 1, 0, 0};
    EnumRecord e{0, Sint32 * 256u, 100, 4, 1};
    const std::function<bool()> creators[] = {
        [&] { return constraint_new(s, &h) != nullptr; },
        [&] { return rangeS64_new(s, &range) != nullptr; },
        [&] { return enum_new(s, &e) != nullptr; },
        [&] { return constraint_newEnumArray(s, 4, 3) != KESDB_FLST_FAILED; },
    };
    for (const auto [first, code, detail] : {std::array<uint32_t, 3>{0, KESDB_ERR_CSTRT_ALLOC, 0},
                                             std::array<uint32_t, 3>{8, KESDB_ERR_MEDIA_READ, 12}}) {
        ASSERT_EQ(flst_m_setFirstOffset(s, 0, first), 0);
        const std::string before = kt::readFile(db.mediumPath);
        for (const auto& create : creators) {
            mark(db.s);
            EXPECT_FALSE(create());
            expectError(db.s, code, detail);
        }
        EXPECT_EQ(h.key, 0u);
        EXPECT_EQ(kt::readFile(db.mediumPath), before);
    }
}

TEST_F(Constraint, LengthAndDataOfBothKinds) {
    const int32_t rangeLengths[12] = {0, 0, 3, 6, 12, 24, 3, 6, 12, 24, 12, 24};
    for (uint32_t type = 2; type <= 11; ++type)
        EXPECT_EQ(constraint_getLength(s, newHeader(db, type)), rangeLengths[type]) << type;
    const ConstraintHeader cut{64 * 1024 - 8, Sint8 * 256u};  // an enumeration cut by the medium's end
    ASSERT_EQ(constraint_set(s, &cut), 0);
    EXPECT_EQ(constraint_getLength(s, cut.key), 0);
    EXPECT_EQ(db.s.error, static_cast<uint32_t>(kRead));

    // A Sint16 enumeration of 4 members given 7 bytes: 3 members are written; 5 are refused.
    const uint32_t e16 = newEnum<int16_t>(db, Sint16, {1, 2, 3, 4});
    EnumRecord rec{};
    ASSERT_NE(enum_get(s, e16, &rec), nullptr);
    const uint8_t seven[7] = {0x10, 0x11, 0x20, 0x21, 0x30, 0x31, 0x40};
    EXPECT_EQ(constraint_setData(s, e16, seven, 7), 0);
    Bytes written = {0x10, 0x11, 0x20, 0x21, 0x30, 0x31, 0, 0};  // the fourth member stays 4, in host order
    const int16_t four = 4;
    std::memcpy(&written[6], &four, 2);
    EXPECT_EQ(kt::readBytes(db.mediumPath, rec.arrayKey, 8), written);
    EXPECT_EQ(constraint_getLength(s, e16), 8);
    EXPECT_EQ(constraint_setData(s, e16, seven, 10), kLength);
    uint8_t buf[9];
    std::memset(buf, 0xAB, sizeof buf);
    EXPECT_EQ(constraint_getData(s, e16, buf, 7), KESDB_ERR_CSTRT_BUFFER);
    EXPECT_EQ(buf[0], 0xAB);
    EXPECT_EQ(constraint_getData(s, e16, buf, 9), 0);
    written.push_back(0xAB);
    EXPECT_EQ(Bytes(buf, buf + 9), written);
    // Ranges need the exact data length.
    const uint32_t r64 = vk::newRange<RangeRecordU64, uint64_t>(s, rangeU64_new, Uint64, 0, 0);
    const uint64_t d[3] = {5, 50, 5};
    EXPECT_EQ(constraint_setData(s, r64, d, 25), kLength);
    EXPECT_EQ(constraint_setData(s, r64, d, 24), 0);
    uint64_t back[3] = {};
    EXPECT_EQ(constraint_getData(s, r64, back, 23), KESDB_ERR_CSTRT_BUFFER);
    EXPECT_EQ(constraint_getData(s, r64, back, 24), 0);
    EXPECT_EQ(back[1], 50u);
}

TEST_F(Constraint, UnknownTypeCodes) {
    for (uint32_t type : {0u, 1u, 12u, 256u, 3u * 256u + 1u, 12u * 256u, 0xFFFFFFFFu}) {
        SCOPED_TRACE(type);
        const uint32_t key = newHeader(db, type);
        uint8_t buf[32] = {};
        const std::function<int32_t()> calls[] = {[&] { return constraint_getLength(s, key); },
                                                  [&] { return constraint_getData(s, key, buf, sizeof buf); },
                                                  [&] { return constraint_setData(s, key, buf, 4); },
                                                  [&] { return constraint_check(s, key, Sint32, buf, 4); }};
        for (size_t i = 0; i < 4; ++i) {
            mark(db.s);
            EXPECT_EQ(calls[i](), i == 3 ? KESDB_ERR_CSTRT_CHECKTYPE : 0);
            expectError(db.s, i == 3 ? KESDB_ERR_CSTRT_CHECKTYPE : KESDB_ERR_CSTRT_UNKNOWN, 0);
        }
    }
}

// A constraint that cannot be read lets the write through: 0, the read's code in the session.
TEST_F(Constraint, UnreadableConstraintLetsTheWriteThrough) {
    const int32_t v = 1000;
    for (uint32_t key : {kPastEnd, 0x7FFFFFF0u}) {
        mark(db.s);
        EXPECT_EQ(constraint_check(s, key, Sint32, &v, 4), 0);
        EXPECT_EQ(db.s.error, static_cast<uint32_t>(kRead));
    }
    Session other = db.s;
    other.dbId = 30;
    EXPECT_EQ(constraint_check(&other, 16, Sint32, &v, 4), 0);
    EXPECT_EQ(other.error, static_cast<uint32_t>(KESDB_ERR_DB_NOTFOUND));
}

// Every call writing a value passes through the check: a refusal returns (or, for the
// transfers, records) its code and leaves the data as it was; copies are checked on their
// destination; a type code 1 stops every write; a constrained String can never be written.
TEST_F(Constraint, EveryWritePathIsChecked) {
    const uint32_t range = s32Range(db, 0, 100, 5);
    const uint32_t cur = s32Value(db, 50, range), def = s32Value(db, 500), fac = s32Value(db, 600);
    const uint32_t leaf = vk::makeLeaf(s, cur, def, fac), other = vk::makeLeaf(s, s32Value(db, 500));
    const uint32_t high = s32Value(db, 500), u16 = vk::make<uint16_t>(s, Uint16, 100);
    ASSERT_EQ(value_setConstraintKey(s, u16, newEnum<uint16_t>(db, Uint16, {100, 200})), 0);
    const int32_t big = 1000, offStep = 3;
    const uint16_t notMember = 150;
    const struct {
        uint32_t value;
        std::function<int32_t()> write;
        int32_t code;
    } refused[] = {
        {cur, [&] { return kesDBMSetSint32(s, leaf, 101); }, kAbove},
        {cur, [&] { return value_setGeneric(s, cur, &offStep, 4); }, kStep},
        {cur, [&] { return kesDBMSetGeneric(s, leaf, &big, 4); }, kAbove},
        {cur, [&] { return kesDBMSetSint16(s, leaf, 7); }, kLength},
        {cur, [&] { return value_copy(s, cur, high); }, kAbove},
        {cur, [&] { return kesDBMDefaultToCurrent(s, leaf) ? kAbove : 0; }, kAbove},
        {cur, [&] { return kesDBMCopy(s, other, leaf); }, kAbove},
        {u16, [&] { return value_setGeneric(s, u16, &notMember, 2); }, kNotMember},
        {def, [&] { return kesDBMSetDefaultGeneric(s, leaf, &big, 4); }, kAbove},
        {def, [&] { return kesDBMCurrentToDefault(s, leaf) ? kAbove : 0; }, kAbove},
        {def, [&] { return kesDBMFactoryToDefault(s, leaf) ? kAbove : 0; }, kAbove},
        {u16, [&] { return value_setGeneric(s, u16, &notMember, 2); }, KESDB_ERR_CSTRT_CHECKTYPE},
    };
    for (const auto& c : refused) {
        SCOPED_TRACE(&c - refused);
        if (c.value == def) {  // the default value constrained, the current one free at 200
            ASSERT_EQ(value_setConstraintKey(s, def, range) | value_setConstraintKey(s, cur, 0), 0);
            ASSERT_EQ(kesDBMSetSint32(s, leaf, 200), 0);
        }
        if (c.code == KESDB_ERR_CSTRT_CHECKTYPE) {
            ASSERT_EQ(value_setConstraintKey(s, u16, newHeader(db, 1)), 0);
        }
        const Bytes before = vk::dataOf(db, c.value, 4);
        session_setError(s, 0, 0);
        EXPECT_EQ(c.write(), c.code);
        EXPECT_EQ(db.s.error, static_cast<uint32_t>(c.code));
        EXPECT_EQ(vk::dataOf(db, c.value, 4), before);
    }
    const int32_t fine = 60;
    EXPECT_EQ(kesDBMSetDefaultGeneric(s, leaf, &fine, 4), 0);
    EXPECT_EQ(stored<int32_t>(db, def), 60);
    // No type test in the typed calls: 4 bytes of a Uint32 into a Sint32 pass.
    ASSERT_EQ(value_setConstraintKey(s, cur, range), 0);
    EXPECT_EQ(kesDBMSetUint32(s, leaf, 5), 0);
    EXPECT_EQ(stored<int32_t>(db, cur), 5);
    const uint32_t text = value_create(s, String, 0, "abc", 4, 0);
    ASSERT_EQ(value_setConstraintKey(s, text, range), 0);
    EXPECT_EQ(kesDBMSetString(s, vk::makeLeaf(s, text), "xyz"), kType);
    EXPECT_EQ(vk::dataOf(db, text, 4), Bytes({'a', 'b', 'c', 0}));
}
