// The check on writes, seen through the public set paths of the value layer: a refused
// write returns the check's code and leaves the value's data as it was.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "valcstrtkit.hpp"

namespace {

using ConstraintWrite = vk::DbTest;

// Free elements in host order, as on the big-endian target.
[[maybe_unused]] const int kHostOrderElements = setenv("SIM_BYTE_ORDER", "BIG_ENDIAN", 1);

template <class T>
uint32_t newValue(kt::Db& db, uint32_t type, T initial) {
    const uint32_t key = vk::make<T>(&db.s, type, initial);
    EXPECT_NE(key, 0u);
    return key;
}

// The value's data as it lies in the medium.
template <class T>
T stored(kt::Db& db, uint32_t valueKey) {
    ValueRecord r{};
    EXPECT_NE(value_get(&db.s, valueKey, &r), nullptr);
    T v{};
    const std::vector<uint8_t> bytes = kt::readBytes(db.mediumPath, r.dataOffset, sizeof v);
    if (bytes.size() == sizeof v) std::memcpy(&v, bytes.data(), sizeof v);
    return v;
}

uint32_t s32Range(kt::Db& db, int32_t min, int32_t max, int32_t step) {
    return vk::newRange(&db.s, rangeS32_new, Sint32, min, max, step);
}

}  // namespace

TEST_F(ConstraintWrite, SetGenericRefusesAndLeavesDataUnchanged) {
    const uint32_t v = newValue<int32_t>(db, Sint32, 5);
    ASSERT_EQ(value_setConstraintKey(&db.s, v, s32Range(db, -10, 10, 5)), 0);

    const struct {
        int32_t v, length, code;
    } refused[] = {{11, 4, KESDB_ERR_CSTRT_ABOVEMAX},
                   {-11, 4, KESDB_ERR_CSTRT_BELOWMIN},
                   {3, 4, KESDB_ERR_CSTRT_STEP},
                   {10, 2, KESDB_ERR_CSTRT_LENGTH}};
    for (const auto& c : refused) {
        SCOPED_TRACE(c.v);
        EXPECT_EQ(value_setGeneric(&db.s, v, &c.v, c.length), c.code);
        EXPECT_EQ(db.s.error, static_cast<uint32_t>(c.code));
        EXPECT_EQ(stored<int32_t>(db, v), 5);
    }
    const int32_t ok = -10;
    EXPECT_EQ(value_setGeneric(&db.s, v, &ok, 4), 0);
    EXPECT_EQ(stored<int32_t>(db, v), -10);
}

TEST_F(ConstraintWrite, CopiesAreChecked) {
    const uint32_t dest = newValue<int32_t>(db, Sint32, 0);
    ASSERT_EQ(value_setConstraintKey(&db.s, dest, s32Range(db, 0, 100, 0)), 0);
    const uint32_t high = newValue<int32_t>(db, Sint32, 101);
    const uint32_t fine = newValue<int32_t>(db, Sint32, 42);

    EXPECT_EQ(value_copy(&db.s, dest, high), KESDB_ERR_CSTRT_ABOVEMAX);
    EXPECT_EQ(stored<int32_t>(db, dest), 0);
    EXPECT_EQ(value_copy2(&db.s, dest, high, 0), KESDB_ERR_CSTRT_ABOVEMAX);
    EXPECT_EQ(stored<int32_t>(db, dest), 0);
    EXPECT_EQ(value_copy(&db.s, dest, fine), 0);
    EXPECT_EQ(stored<int32_t>(db, dest), 42);
}

TEST_F(ConstraintWrite, EnumerationAndMismatchedTypes) {
    const uint32_t u16 = newValue<uint16_t>(db, Uint16, 100);
    ASSERT_EQ(value_setConstraintKey(&db.s, u16, vk::newEnum<uint16_t>(db, Uint16, {100, 200, 300})), 0);
    uint16_t x = 150;
    EXPECT_EQ(value_setGeneric(&db.s, u16, &x, 2), KESDB_ERR_CSTRT_NOTMEMBER);
    EXPECT_EQ(stored<uint16_t>(db, u16), 100);
    x = 300;
    EXPECT_EQ(value_setGeneric(&db.s, u16, &x, 2), 0);
    EXPECT_EQ(stored<uint16_t>(db, u16), 300);

    // A Sint32 range on a Uint32 value: 64, nothing written.
    const uint32_t u32 = newValue<uint32_t>(db, Uint32, 7);
    ASSERT_EQ(value_setConstraintKey(&db.s, u32, s32Range(db, 0, 10, 0)), 0);
    const uint32_t five = 5;
    EXPECT_EQ(value_setGeneric(&db.s, u32, &five, 4), KESDB_ERR_CSTRT_TYPE);
    EXPECT_EQ(stored<uint32_t>(db, u32), 7u);

    // A constraint whose type code is 1 stops every write with 69.
    ASSERT_EQ(value_setConstraintKey(&db.s, u16, vk::newHeader(db, 1)), 0);
    x = 100;
    EXPECT_EQ(value_setGeneric(&db.s, u16, &x, 2), KESDB_ERR_CSTRT_CHECKTYPE);
    EXPECT_EQ(stored<uint16_t>(db, u16), 300);
}

// Constraint medium outside the media table (21): an unconstrained value never touches it; a
// constrained one is written unchecked and 21 stays in the session.
TEST(ConstraintMedium, UntouchedOrUnreadable) {
    kt::DbOptions o;
    o.constraintMedium = 7;
    kt::Db db(o);
    ASSERT_GT(db.id, 0);
    const uint32_t free = newValue<int32_t>(db, Sint32, 1);
    const uint32_t bound = newValue<int32_t>(db, Sint32, 1);
    ASSERT_EQ(value_setConstraintKey(&db.s, bound, 16), 0);
    session_setError(&db.s, 0, 0);
    const int32_t big = 1000000;
    EXPECT_EQ(value_setGeneric(&db.s, free, &big, 4), 0);
    EXPECT_EQ(db.s.error, 0u);
    EXPECT_EQ(stored<int32_t>(db, free), big);
    EXPECT_EQ(value_setGeneric(&db.s, bound, &big, 4), 0);
    EXPECT_EQ(db.s.error, static_cast<uint32_t>(KESDB_ERR_MEDIA_INDEX));
    EXPECT_EQ(stored<int32_t>(db, bound), big);
}

// Every public call writing a leaf's value passes through the check.
TEST_F(ConstraintWrite, EveryPublicSetPathIsChecked) {
    const uint32_t range = s32Range(db, 0, 100, 0);
    const uint32_t cur = newValue<int32_t>(db, Sint32, 50);
    const uint32_t def = newValue<int32_t>(db, Sint32, 500);
    const uint32_t fac = newValue<int32_t>(db, Sint32, 600);
    ASSERT_EQ(value_setConstraintKey(&db.s, cur, range), 0);
    const uint32_t leaf = vk::makeLeaf(&db.s, cur, def, fac);
    ASSERT_NE(leaf, 0u);

    EXPECT_EQ(kesDBMSetSint32(&db.s, leaf, 101), KESDB_ERR_CSTRT_ABOVEMAX);
    EXPECT_EQ(kesDBMSetSint32(&db.s, leaf, -1), KESDB_ERR_CSTRT_BELOWMIN);
    const int32_t big = 1000;
    EXPECT_EQ(kesDBMSetGeneric(&db.s, leaf, &big, 4), KESDB_ERR_CSTRT_ABOVEMAX);
    EXPECT_EQ(kesDBMSetSint16(&db.s, leaf, 7), KESDB_ERR_CSTRT_LENGTH);
    EXPECT_EQ(kesDBMSetUint32(&db.s, leaf, 7), 0);  // no type test in the typed calls: 4 bytes of Sint32
    EXPECT_EQ(stored<int32_t>(db, cur), 7);
    session_setError(&db.s, 0, 0);
    EXPECT_NE(kesDBMDefaultToCurrent(&db.s, leaf), 0);
    EXPECT_EQ(db.s.error, static_cast<uint32_t>(KESDB_ERR_CSTRT_ABOVEMAX));
    EXPECT_EQ(stored<int32_t>(db, cur), 7);

    const uint32_t other = vk::makeLeaf(&db.s, newValue<int32_t>(db, Sint32, 500), 0, 0);
    ASSERT_NE(other, 0u);
    EXPECT_EQ(kesDBMCopy(&db.s, other, leaf), KESDB_ERR_CSTRT_ABOVEMAX);
    EXPECT_EQ(stored<int32_t>(db, cur), 7);
    EXPECT_EQ(kesDBMSetSint32(&db.s, leaf, 100), 0);
    EXPECT_EQ(stored<int32_t>(db, cur), 100);

    // The default value constrained: default set and both transfers into it are refused.
    ASSERT_EQ(value_setConstraintKey(&db.s, def, range), 0);
    ASSERT_EQ(value_setConstraintKey(&db.s, cur, 0), 0);
    ASSERT_EQ(kesDBMSetSint32(&db.s, leaf, 200), 0);
    EXPECT_EQ(kesDBMSetDefaultGeneric(&db.s, leaf, &big, 4), KESDB_ERR_CSTRT_ABOVEMAX);
    session_setError(&db.s, 0, 0);
    EXPECT_NE(kesDBMCurrentToDefault(&db.s, leaf), 0);
    EXPECT_EQ(db.s.error, static_cast<uint32_t>(KESDB_ERR_CSTRT_ABOVEMAX));
    session_setError(&db.s, 0, 0);
    EXPECT_NE(kesDBMFactoryToDefault(&db.s, leaf), 0);
    EXPECT_EQ(db.s.error, static_cast<uint32_t>(KESDB_ERR_CSTRT_ABOVEMAX));
    EXPECT_EQ(stored<int32_t>(db, def), 500);
    const int32_t fine = 60;
    EXPECT_EQ(kesDBMSetDefaultGeneric(&db.s, leaf, &fine, 4), 0);
    EXPECT_EQ(stored<int32_t>(db, def), 60);

    // A String value with a constraint attached can never be written.
    const uint32_t text = value_create(&db.s, String, 0, "abc", 4, 0);
    ASSERT_NE(text, 0u);
    ASSERT_EQ(value_setConstraintKey(&db.s, text, range), 0);
    const uint32_t textLeaf = vk::makeLeaf(&db.s, text, 0, 0);
    EXPECT_EQ(kesDBMSetString(&db.s, textLeaf, "xyz"), KESDB_ERR_CSTRT_TYPE);
    ValueRecord textRecord{};
    ASSERT_NE(value_get(&db.s, text, &textRecord), nullptr);
    EXPECT_EQ(kt::readBytes(db.mediumPath, textRecord.dataOffset, 4), std::vector<uint8_t>({'a', 'b', 'c', 0}));
}
