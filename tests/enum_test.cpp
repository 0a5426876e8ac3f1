// Enumeration constraints: records, data, and the membership test of every family member.
// Transfer failures shared by all record kinds are in constraint_test.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <vector>

#include "valcstrtkit.hpp"

namespace {

using EnumRecordOps = vk::DbTest;
using EnumCheck = vk::DbTest;
using EnumData = vk::DbTest;

// Free elements in host order, as on the big-endian target.
[[maybe_unused]] const int kHostOrderElements = setenv("SIM_BYTE_ORDER", "BIG_ENDIAN", 1);

using vk::CheckFn;
using vk::mark;
using vk::newEnum;

constexpr uint32_t kPastEnd = 64 * 1024 - 8;

template <class T>
int32_t check(CheckFn fn, kt::Db& db, uint32_t key, uint32_t type, T v) {
    return fn(&db.s, key, type, &v, static_cast<int32_t>(sizeof v));
}

// Members pass, a non-member gives 71 with detail 0, another value type gives 64, and a
// pass leaves the session untouched.
template <class T>
void familyMember(kt::Db& db, CheckFn fn, uint32_t type, std::vector<T> members, T outsider) {
    SCOPED_TRACE(type);
    const uint32_t key = newEnum<T>(db, type, members);
    for (T m : members) {
        mark(db.s);
        EXPECT_EQ(check<T>(fn, db, key, type, m), 0);
        EXPECT_EQ(db.s.error, 5u);
        EXPECT_EQ(db.s.errorDetail, 0x1234u);
    }
    mark(db.s);
    EXPECT_EQ(check<T>(fn, db, key, type, outsider), KESDB_ERR_CSTRT_NOTMEMBER);
    EXPECT_EQ(db.s.errorDetail, 0u);
    EXPECT_EQ(check<T>(fn, db, key, type == Sint8 ? Uint8 : Sint8, members[0]), KESDB_ERR_CSTRT_TYPE);
}

}  // namespace

TEST_F(EnumRecordOps, NewGetSetAndArrays) {
    const uint32_t arrayKey = constraint_newEnumArray(&db.s, 4, 3);
    EXPECT_EQ(arrayKey, 16u);
    EnumRecord r{0, Uint32 * 256u, arrayKey, 4, 3};
    ASSERT_EQ(enum_new(&db.s, &r), &r);
    EXPECT_EQ(r.key, 28u);  // right behind the 12-byte array
    std::vector<uint8_t> bytes = kt::readBytes(db.mediumPath, r.key, 20);
    ASSERT_EQ(bytes.size(), 20u);
    EXPECT_EQ(std::memcmp(bytes.data(), &r, 20), 0);

    EnumRecord back{};
    ASSERT_EQ(enum_get(&db.s, r.key, &back), &back);
    EXPECT_EQ(std::memcmp(&back, &r, sizeof r), 0);
    back.count = 2;
    mark(db.s);
    EXPECT_EQ(enum_set(&db.s, &back), 0);
    EXPECT_EQ(db.s.error, 0u);
    EXPECT_EQ(kt::readWord(db.mediumPath, r.key + 16), 2u);

    // The read-back copy of the array is the caller's to free.
    const uint32_t m[3] = {10, 20, 30};
    EXPECT_EQ(constraint_setEnumArray(&db.s, arrayKey, 4, 3, m), 0);
    void* copy = constraint_getEnumArray(&db.s, arrayKey, 4, 3);
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(std::memcmp(copy, m, 12), 0);
    std::free(copy);
}

TEST_F(EnumCheck, OrderTypeThenRecordThenLength) {
    const uint32_t key = newEnum<uint16_t>(db, Uint16, {1, 2});
    uint32_t four = 1;
    mark(db.s);
    EXPECT_EQ(checkEnumU16(&db.s, key, Uint16, &four, 4), KESDB_ERR_CSTRT_LENGTH);
    EXPECT_EQ(db.s.errorDetail, 0u);
    // The type is tested first, before any read.
    EXPECT_EQ(checkEnumU16(&db.s, kPastEnd, Sint16, &four, 2), KESDB_ERR_CSTRT_TYPE);
    // Then the record is read: an unreadable one gives its code even with a wrong length.
    EXPECT_EQ(checkEnumU16(&db.s, kPastEnd, Uint16, &four, 4), KESDB_ERR_CSTRT_READ);
    // An unreadable array gives the array's code.
    EnumRecord r{0, Uint16 * 256u, 64 * 1024 - 2, 2, 4};
    ASSERT_NE(enum_new(&db.s, &r), nullptr);
    uint16_t v = 1;
    EXPECT_EQ(checkEnumU16(&db.s, r.key, Uint16, &v, 2), KESDB_ERR_CSTRT_READ);
}

// Floating-point members compare by IEEE equality: -0 is 0, a NaN matches nothing, not even
// the same NaN bits.
TEST_F(EnumCheck, FloatingPointUsesIeeeEquality) {
    const uint32_t key = newEnum<double>(db, Float64, {0.0, 1.5});
    const std::pair<double, int32_t> doubles[] = {
        {-0.0, 0}, {1.5, 0}, {std::nan(""), KESDB_ERR_CSTRT_NOTMEMBER}, {1.5000000001, KESDB_ERR_CSTRT_NOTMEMBER}};
    for (const auto& [v, code] : doubles) EXPECT_EQ(check<double>(checkEnumF64, db, key, Float64, v), code) << v;
    const uint32_t nanKey = newEnum<float>(db, Float32, {std::nanf(""), -0.0f});
    EXPECT_EQ(check<float>(checkEnumF32, db, nanKey, Float32, std::nanf("")), KESDB_ERR_CSTRT_NOTMEMBER);
    EXPECT_EQ(check<float>(checkEnumF32, db, nanKey, Float32, 0.0f), 0);
}

TEST_F(EnumCheck, EveryFamilyMember) {
    familyMember<int8_t>(db, checkEnumS8, Sint8, {-128, 5, 127}, -127);
    familyMember<int16_t>(db, checkEnumS16, Sint16, {-32768, 300}, 301);
    familyMember<int32_t>(db, checkEnumS32, Sint32, {std::numeric_limits<int32_t>::min(), 1}, 2);
    // 64-bit members compare both words: values differing in one word only are not equal.
    familyMember<int64_t>(db, checkEnumS64, Sint64, {int64_t{1} << 32, -1}, 0);
    familyMember<int64_t>(db, checkEnumS64, Sint64, {int64_t{1} << 32}, (int64_t{1} << 32) + 1);
    familyMember<uint8_t>(db, checkEnumU8, Uint8, {0, 255}, 254);
    familyMember<uint16_t>(db, checkEnumU16, Uint16, {65535, 7}, 8);
    familyMember<uint32_t>(db, checkEnumU32, Uint32, {0xFFFFFFFFu, 0x80000000u}, 0x7FFFFFFFu);
    familyMember<uint64_t>(db, checkEnumU64, Uint64, {uint64_t{5} << 32}, 5);
    familyMember<float>(db, checkEnumF32, Float32, {1.25f, -3.5f}, 1.2500001f);
    familyMember<double>(db, checkEnumF64, Float64, {1e300, -2.0}, 2.0);
    const uint32_t empty = newEnum<int32_t>(db, Sint32, {});
    for (int32_t v : {0, 3, -1})
        EXPECT_EQ(check<int32_t>(checkEnumS32, db, empty, Sint32, v), KESDB_ERR_CSTRT_NOTMEMBER);
}

// An element size other than the type's width is refused (65) before the array is read.
TEST_F(EnumCheck, ElementSizeNotTheTypesWidthIsRefused) {
    const uint32_t arrayKey = constraint_newEnumArray(&db.s, 2, 3);
    ASSERT_NE(arrayKey, 0xFFFFFFFFu);
    EnumRecord narrow{0, Sint32 * 256u, arrayKey, 2, 3};
    ASSERT_NE(enum_new(&db.s, &narrow), nullptr);
    uint16_t v2 = 0;
    mark(db.s);
    EXPECT_EQ(checkEnumS32(&db.s, narrow.key, Sint32, &v2, 2), KESDB_ERR_CSTRT_LENGTH);
    EXPECT_EQ(db.s.errorDetail, 0u);
    int32_t v4 = 0;
    EXPECT_EQ(checkEnumS32(&db.s, narrow.key, Sint32, &v4, 4), KESDB_ERR_CSTRT_LENGTH);

    EnumRecord wide{0, Uint8 * 256u, arrayKey, 8, 0};
    ASSERT_NE(enum_new(&db.s, &wide), nullptr);
    uint64_t v8 = 0;
    EXPECT_EQ(checkEnumU8(&db.s, wide.key, Uint8, &v8, 8), KESDB_ERR_CSTRT_LENGTH);
}

TEST_F(EnumData, SetDataOverwritesInPlace) {
    const uint32_t key = newEnum<int32_t>(db, Sint32, {1, 2, 3});
    EnumRecord r{};
    ASSERT_NE(enum_get(&db.s, key, &r), nullptr);
    const int32_t two[2] = {8, 9};
    EXPECT_EQ(enum_setData(&db.s, key, 4, 2, two), 0);
    const int32_t now[3] = {8, 9, 3};
    EXPECT_EQ(kt::readBytes(db.mediumPath, r.arrayKey, 12),
              std::vector<uint8_t>(reinterpret_cast<const uint8_t*>(now), reinterpret_cast<const uint8_t*>(now) + 12));
    EnumRecord after{};
    ASSERT_NE(enum_get(&db.s, key, &after), nullptr);
    EXPECT_EQ(after.count, 3u);
    EXPECT_EQ(check<int32_t>(checkEnumS32, db, key, Sint32, 3), 0);
    EXPECT_EQ(check<int32_t>(checkEnumS32, db, key, Sint32, 1), KESDB_ERR_CSTRT_NOTMEMBER);

    // Data longer than the stored array: 65, neither the array nor the record behind it changes.
    const std::vector<uint8_t> before = kt::readBytes(db.mediumPath, r.arrayKey, 64);
    const int32_t four[4] = {40, 41, 42, 43};
    mark(db.s);
    EXPECT_EQ(enum_setData(&db.s, key, 4, 4, four), KESDB_ERR_CSTRT_LENGTH);
    EXPECT_EQ(db.s.errorDetail, 0u);
    EXPECT_EQ(enum_setData(&db.s, key, 1, 13, four), KESDB_ERR_CSTRT_LENGTH);
    // A huge count cannot overflow into a small byte size.
    EXPECT_EQ(enum_setData(&db.s, key, 4, 0x40000001u, four), KESDB_ERR_CSTRT_LENGTH);
    EXPECT_EQ(kt::readBytes(db.mediumPath, r.arrayKey, 64), before);
    // An unreadable record: 0, the read's code stays in the session.
    EXPECT_EQ(enum_setData(&db.s, kPastEnd, 4, 1, four), 0);
    EXPECT_EQ(db.s.error, static_cast<uint32_t>(KESDB_ERR_CSTRT_READ));
}

// A corrupt count far beyond the medium makes no absurd allocation and no overflow: 61.
TEST_F(EnumCheck, HugeCountIsBounded) {
    const uint32_t arrayKey = constraint_newEnumArray(&db.s, 4, 1);
    EnumRecord r{0, Uint32 * 256u, arrayKey, 4, 0x40000000u};  // 4 GiB: past 32 bits
    ASSERT_NE(enum_new(&db.s, &r), nullptr);
    EnumRecord m{0, Uint32 * 256u, arrayKey, 4, 0x01000000u};  // 64 MiB: past the medium's end
    ASSERT_NE(enum_new(&db.s, &m), nullptr);
    uint32_t v = 0;
    for (uint32_t key : {r.key, m.key}) {
        mark(db.s);
        EXPECT_EQ(checkEnumU32(&db.s, key, Uint32, &v, 4), KESDB_ERR_CSTRT_READ);
        EXPECT_EQ(db.s.errorDetail, 0u);
    }
    EXPECT_EQ(constraint_getEnumArray(&db.s, arrayKey, 0xFFFFFFFFu, 0xFFFFFFFFu), nullptr);
    EXPECT_EQ(db.s.error, static_cast<uint32_t>(KESDB_ERR_CSTRT_READ));
    const uint32_t w = 0;
    EXPECT_EQ(constraint_setEnumArray(&db.s, arrayKey, 0x10000u, 0x10000u, &w), KESDB_ERR_CSTRT_READ);
    // Arrays larger than 32 bits or than the free space of the 64 KiB medium get no block.
    for (uint32_t count : {0x20000000u, 10000u}) {
        mark(db.s);
        EXPECT_EQ(constraint_newEnumArray(&db.s, 8, count), 0xFFFFFFFFu);
        EXPECT_EQ(db.s.error, static_cast<uint32_t>(KESDB_ERR_CSTRT_ALLOC));
        EXPECT_EQ(db.s.errorDetail, 0u);
    }
}

