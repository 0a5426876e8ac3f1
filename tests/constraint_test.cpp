// Constraint records and the check on writes: header transfers, lengths and data of both
// kinds, unknown type codes, and the dispatch over the twenty type codes.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "testkit.hpp"

namespace {

// Free elements are written in host order, as on the big-endian target: on a
// little-endian test host the allocator would otherwise store them byte-reversed and
// misread its own free list.
[[maybe_unused]] const int kHostOrderElements = setenv("SIM_BYTE_ORDER", "BIG_ENDIAN", 1);

using CheckFn = int32_t (*)(Session*, uint32_t, uint32_t, const void*, int32_t);

void mark(Session& s) { session_setError(&s, 5, 0x1234); }

// A bare constraint record (header only) with the given type code.
uint32_t newHeader(kt::Db& db, uint32_t type) {
    ConstraintHeader h{};
    EXPECT_EQ(constraint_new(&db.s, &h), &h);
    h.type = type;
    EXPECT_EQ(constraint_set(&db.s, &h), 0);
    return h.key;
}

template <class T>
uint32_t newEnum(kt::Db& db, uint32_t type, const std::vector<T>& members) {
    const uint32_t count = static_cast<uint32_t>(members.size());
    const uint32_t arrayKey = constraint_newEnumArray(&db.s, sizeof(T), count);
    EXPECT_NE(arrayKey, 0xFFFFFFFFu);
    EnumRecord r{0, type * 256u, arrayKey, sizeof(T), count};
    EXPECT_EQ(enum_new(&db.s, &r), &r);
    EXPECT_EQ(constraint_setData(&db.s, r.key, members.data(), count * sizeof(T)), 0);
    return r.key;
}

// Through constraint_check: a range [1, 1] passes 1 and gives 66 for 0 and 67 for 2; an
// enumeration {1} passes 1 and gives 71 for 2; another value type gives 64.
template <class T, class Rec>
void dispatchRange(kt::Db& db, uint32_t type, Rec* (*create)(Session*, Rec*)) {
    SCOPED_TRACE(type);
    Rec r{};
    r.type = type;
    r.min = T(1);
    r.max = T(1);
    ASSERT_NE(create(&db.s, &r), nullptr);
    T v = T(1);
    EXPECT_EQ(constraint_check(&db.s, r.key, type, &v, sizeof v), 0);
    v = T(0);
    EXPECT_EQ(constraint_check(&db.s, r.key, type, &v, sizeof v), KESDB_ERR_CSTRT_BELOWMIN);
    v = T(2);
    EXPECT_EQ(constraint_check(&db.s, r.key, type, &v, sizeof v), KESDB_ERR_CSTRT_ABOVEMAX);
    EXPECT_EQ(constraint_check(&db.s, r.key, type == Uint8 ? Sint8 : Uint8, &v, 1), KESDB_ERR_CSTRT_TYPE);
    EXPECT_EQ(constraint_check(&db.s, r.key, type, &v, sizeof v + 1), KESDB_ERR_CSTRT_LENGTH);

    const uint32_t e = newEnum<T>(db, type, {T(1)});
    v = T(1);
    EXPECT_EQ(constraint_check(&db.s, e, type, &v, sizeof v), 0);
    v = T(2);
    EXPECT_EQ(constraint_check(&db.s, e, type, &v, sizeof v), KESDB_ERR_CSTRT_NOTMEMBER);
    EXPECT_EQ(constraint_check(&db.s, e, type == Uint8 ? Sint8 : Uint8, &v, 1), KESDB_ERR_CSTRT_TYPE);
    EXPECT_EQ(constraint_check(&db.s, e, type, &v, sizeof v + 1), KESDB_ERR_CSTRT_LENGTH);
}

}  // namespace

TEST(ConstraintRecord, HeaderNewSetGet) {
    kt::Db db;
    ASSERT_GT(db.id, 0);
    EXPECT_EQ(constraint_init(), 0);
    EXPECT_EQ(constraint_term(), 0);
    // constraint_new takes an 8-byte block and writes nothing into it: the free element
    // that stood there stays as it was, and the next block starts 8 bytes further.
    const std::vector<uint8_t> before = kt::readBytes(db.mediumPath, 16, 8);
    ConstraintHeader h{0, 77};
    ASSERT_EQ(constraint_new(&db.s, &h), &h);
    EXPECT_EQ(h.key, 16u);
    EXPECT_EQ(h.type, 77u);
    EXPECT_EQ(kt::readBytes(db.mediumPath, 16, 8), before);
    ConstraintHeader h2{};
    ASSERT_NE(constraint_new(&db.s, &h2), nullptr);
    EXPECT_EQ(h2.key, 24u);

    mark(db.s);
    EXPECT_EQ(constraint_set(&db.s, &h), 0);
    EXPECT_EQ(db.s.error, 0u);
    EXPECT_EQ(kt::readWord(db.mediumPath, 16), 16u);
    EXPECT_EQ(kt::readWord(db.mediumPath, 20), 77u);
    ConstraintHeader back{};
    ASSERT_EQ(constraint_get(&db.s, 16, &back), &back);
    EXPECT_EQ(back.type, 77u);
    EXPECT_EQ(constraint_getType(&db.s, 16), 77u);

    // Failures: short read, no database, medium that cannot be opened.
    EXPECT_EQ(constraint_getType(&db.s, 64 * 1024 - 4), 0u);
    EXPECT_EQ(db.s.error, static_cast<uint32_t>(KESDB_ERR_CSTRT_READ));
    Session other = db.s;
    other.dbId = 31;
    EXPECT_EQ(constraint_get(&other, 16, &back), nullptr);
    EXPECT_EQ(other.error, static_cast<uint32_t>(KESDB_ERR_DB_NOTFOUND));
    EXPECT_EQ(constraint_set(&other, &h), KESDB_ERR_DB_NOTFOUND);
    EXPECT_EQ(constraint_new(&other, &h2), nullptr);
    EXPECT_EQ(constraint_newEnumArray(&other, 4, 1), 0xFFFFFFFFu);
    EXPECT_EQ(constraint_setEnumArray(&other, 16, 4, 1, &h), KESDB_ERR_DB_NOTFOUND);
    setenv("KESDB_DEFMEDIA", db.dir.file("missing.bin").c_str(), 1);
    EXPECT_EQ(constraint_set(&db.s, &h), KESDB_ERR_CSTRT_OPEN);
    EXPECT_EQ(db.s.errorDetail, static_cast<uint32_t>(ENOENT));
    EXPECT_EQ(constraint_new(&db.s, &h2), nullptr);
    EXPECT_EQ(db.s.error, static_cast<uint32_t>(KESDB_ERR_CSTRT_OPEN));
    EXPECT_EQ(constraint_newEnumArray(&db.s, 4, 1), 0xFFFFFFFFu);
    EXPECT_EQ(db.s.error, static_cast<uint32_t>(KESDB_ERR_CSTRT_OPEN));
    // Null buffers are refused.
    EXPECT_EQ(constraint_get(&db.s, 16, nullptr), nullptr);
    EXPECT_EQ(db.s.error, static_cast<uint32_t>(KESDB_ERR_NULLARG));
    EXPECT_EQ(constraint_getData(&db.s, 16, nullptr, 100), KESDB_ERR_NULLARG);
    EXPECT_EQ(constraint_setData(&db.s, 16, nullptr, 100), KESDB_ERR_NULLARG);
}

TEST(ConstraintRecord, NewEnumArrayIsZeroFilled) {
    kt::Db db;
    ASSERT_GT(db.id, 0);
    // The block at 16 held the free element (its size word is not 0) before.
    ASSERT_NE(kt::readWord(db.mediumPath, 20), 0u);
    const uint32_t key = constraint_newEnumArray(&db.s, 4, 3);
    EXPECT_EQ(key, 16u);
    EXPECT_EQ(kt::readBytes(db.mediumPath, 16, 12), std::vector<uint8_t>(12, 0));
    ConstraintHeader h{};
    ASSERT_NE(constraint_new(&db.s, &h), nullptr);
    EXPECT_EQ(h.key, 28u);  // the array took exactly 12 bytes
    // An empty array still takes a block of its own.
    const uint32_t empty = constraint_newEnumArray(&db.s, 8, 0);
    EXPECT_EQ(empty, 36u);
    ConstraintHeader h2{};
    ASSERT_NE(constraint_new(&db.s, &h2), nullptr);
    EXPECT_GT(h2.key, empty);
}

TEST(ConstraintRecord, NoFreeBlockFailsWithoutWritingAtKeyZero) {
    kt::Db db;
    ASSERT_GT(db.id, 0);
    ASSERT_EQ(flst_m_setFirstOffset(&db.s, 0, 0), 0);
    const std::vector<uint8_t> header = kt::readBytes(db.mediumPath, 0, 32);
    ConstraintHeader h{0, 4};
    mark(db.s);
    EXPECT_EQ(constraint_new(&db.s, &h), nullptr);
    EXPECT_EQ(db.s.error, static_cast<uint32_t>(KESDB_ERR_CSTRT_ALLOC));
    EXPECT_EQ(db.s.errorDetail, 0u);
    EXPECT_EQ(h.key, 0u);
    EXPECT_EQ(kt::readBytes(db.mediumPath, 0, 32), header);
}

TEST(ConstraintRecord, LengthOfEveryKind) {
    kt::Db db;
    ASSERT_GT(db.id, 0);
    RangeRecordS16 r16{};
    r16.type = Sint16;
    ASSERT_NE(rangeS16_new(&db.s, &r16), nullptr);
    EXPECT_EQ(constraint_getLength(&db.s, r16.key), 6);
    const uint32_t rangeLengths[12] = {0, 0, 3, 6, 12, 24, 3, 6, 12, 24, 12, 24};
    for (uint32_t type = 2; type <= 11; ++type)
        EXPECT_EQ(constraint_getLength(&db.s, newHeader(db, type)), static_cast<int32_t>(rangeLengths[type])) << type;

    const uint32_t e = newEnum<uint32_t>(db, Uint32, {1, 2, 3, 4, 5});
    EXPECT_EQ(constraint_getLength(&db.s, e), 20);
    // An enumeration record that cannot be read whole: 0 and the read's code.
    const uint32_t tail = 64 * 1024 - 8;
    const ConstraintHeader h{tail, Sint8 * 256u};
    ASSERT_EQ(constraint_set(&db.s, &h), 0);
    EXPECT_EQ(constraint_getLength(&db.s, tail), 0);
    EXPECT_EQ(db.s.error, static_cast<uint32_t>(KESDB_ERR_CSTRT_READ));
    // A byte size beyond any array (here 8 x 2^29 = 4 GiB) is refused with 65.
    EnumRecord huge{0, Uint64 * 256u, 16, 8, 0x20000000u};
    ASSERT_NE(enum_new(&db.s, &huge), nullptr);
    mark(db.s);
    EXPECT_EQ(constraint_getLength(&db.s, huge.key), 0);
    EXPECT_EQ(db.s.error, static_cast<uint32_t>(KESDB_ERR_CSTRT_LENGTH));
    EXPECT_EQ(db.s.errorDetail, 0u);
}

TEST(ConstraintRecord, GetDataOfBothKinds) {
    kt::Db db;
    ASSERT_GT(db.id, 0);
    const uint32_t e = newEnum<uint32_t>(db, Uint32, {11, 22, 33, 44, 55});
    uint8_t buf[24];
    std::memset(buf, 0xAB, sizeof buf);
    mark(db.s);
    EXPECT_EQ(constraint_getData(&db.s, e, buf, 16), KESDB_ERR_CSTRT_BUFFER);
    EXPECT_EQ(db.s.errorDetail, 0u);
    EXPECT_EQ(std::vector<uint8_t>(buf, buf + 24), std::vector<uint8_t>(24, 0xAB));
    EXPECT_EQ(constraint_getData(&db.s, e, buf, 24), 0);
    const uint32_t want[5] = {11, 22, 33, 44, 55};
    EXPECT_EQ(std::memcmp(buf, want, 20), 0);
    EXPECT_EQ(buf[20], 0xAB);

    RangeRecordS32 r{};
    r.type = Sint32;
    r.min = -1;
    r.max = 9;
    r.step = 2;
    ASSERT_NE(rangeS32_new(&db.s, &r), nullptr);
    int32_t out[3] = {};
    EXPECT_EQ(constraint_getData(&db.s, r.key, out, 11), KESDB_ERR_CSTRT_BUFFER);
    EXPECT_EQ(constraint_getData(&db.s, r.key, out, 12), 0);
    EXPECT_EQ(out[0], -1);
    EXPECT_EQ(out[1], 9);
    EXPECT_EQ(out[2], 2);
    // An unreadable header: 0 with the read's code in the session.
    EXPECT_EQ(constraint_getData(&db.s, 64 * 1024 - 4, out, 12), 0);
    EXPECT_EQ(db.s.error, static_cast<uint32_t>(KESDB_ERR_CSTRT_READ));
}

TEST(ConstraintRecord, SetDataOfBothKinds) {
    kt::Db db;
    ASSERT_GT(db.id, 0);
    // A Sint16 enumeration of 4 members given 7 bytes: 3 members (6 bytes) are written.
    const uint32_t e = newEnum<int16_t>(db, Sint16, {1, 2, 3, 4});
    EnumRecord rec{};
    ASSERT_NE(enum_get(&db.s, e, &rec), nullptr);
    const uint8_t seven[7] = {0x10, 0x11, 0x20, 0x21, 0x30, 0x31, 0x40};
    EXPECT_EQ(constraint_setData(&db.s, e, seven, 7), 0);
    const std::vector<uint8_t> arr = kt::readBytes(db.mediumPath, rec.arrayKey, 8);
    int16_t fourth;
    std::memcpy(&fourth, arr.data() + 6, 2);
    EXPECT_EQ(std::vector<uint8_t>(arr.begin(), arr.begin() + 6), std::vector<uint8_t>(seven, seven + 6));
    EXPECT_EQ(fourth, 4);
    EXPECT_EQ(constraint_getLength(&db.s, e), 8);  // count stays 4

    // Longer than the array (5 members on 4): refused, nothing written.
    const std::vector<uint8_t> before = kt::readBytes(db.mediumPath, rec.arrayKey, 40);
    const int16_t five[5] = {9, 9, 9, 9, 9};
    mark(db.s);
    EXPECT_EQ(constraint_setData(&db.s, e, five, 10), KESDB_ERR_CSTRT_LENGTH);
    EXPECT_EQ(db.s.errorDetail, 0u);
    EXPECT_EQ(kt::readBytes(db.mediumPath, rec.arrayKey, 40), before);

    // Ranges need the exact data length.
    RangeRecordU64 r{};
    r.type = Uint64;
    ASSERT_NE(rangeU64_new(&db.s, &r), nullptr);
    const uint64_t d[3] = {5, 50, 5};
    EXPECT_EQ(constraint_setData(&db.s, r.key, d, 23), KESDB_ERR_CSTRT_LENGTH);
    EXPECT_EQ(constraint_setData(&db.s, r.key, d, 25), KESDB_ERR_CSTRT_LENGTH);
    EXPECT_EQ(constraint_setData(&db.s, r.key, d, 24), 0);
    RangeRecordU64 back{};
    ASSERT_NE(rangeU64_get(&db.s, r.key, &back), nullptr);
    EXPECT_EQ(back.min, 5u);
    EXPECT_EQ(back.max, 50u);
    EXPECT_EQ(back.step, 5u);
    uint64_t v = 45;
    EXPECT_EQ(constraint_check(&db.s, r.key, Uint64, &v, 8), 0);
    v = 46;
    EXPECT_EQ(constraint_check(&db.s, r.key, Uint64, &v, 8), KESDB_ERR_CSTRT_STEP);
}

TEST(ConstraintRecord, UnknownTypeCodes) {
    kt::Db db;
    ASSERT_GT(db.id, 0);
    for (uint32_t type : {0u, 1u, 12u, 256u, 3u * 256u + 1u, 12u * 256u, 0xFFFFFFFFu}) {
        SCOPED_TRACE(type);
        const uint32_t key = newHeader(db, type);
        EXPECT_EQ(constraint_getType(&db.s, key), type);
        mark(db.s);
        EXPECT_EQ(constraint_getLength(&db.s, key), 0);
        EXPECT_EQ(db.s.error, static_cast<uint32_t>(KESDB_ERR_CSTRT_UNKNOWN));
        EXPECT_EQ(db.s.errorDetail, 0u);
        uint8_t buf[32] = {};
        mark(db.s);
        EXPECT_EQ(constraint_getData(&db.s, key, buf, sizeof buf), 0);
        EXPECT_EQ(db.s.error, static_cast<uint32_t>(KESDB_ERR_CSTRT_UNKNOWN));
        mark(db.s);
        EXPECT_EQ(constraint_setData(&db.s, key, buf, 4), 0);
        EXPECT_EQ(db.s.error, static_cast<uint32_t>(KESDB_ERR_CSTRT_UNKNOWN));
        int32_t v = 0;
        mark(db.s);
        EXPECT_EQ(constraint_check(&db.s, key, Sint32, &v, 4), KESDB_ERR_CSTRT_CHECKTYPE);
        EXPECT_EQ(db.s.error, static_cast<uint32_t>(KESDB_ERR_CSTRT_CHECKTYPE));
        EXPECT_EQ(db.s.errorDetail, 0u);
    }
}

TEST(ConstraintCheck, DispatchOverAllTwentyCodes) {
    kt::DbOptions o;
    o.mediumSize = 16 * 1024;
    kt::Db db(o);
    ASSERT_GT(db.id, 0);
    dispatchRange<int8_t>(db, Sint8, rangeS8_new);
    dispatchRange<int16_t>(db, Sint16, rangeS16_new);
    dispatchRange<int32_t>(db, Sint32, rangeS32_new);
    dispatchRange<int64_t>(db, Sint64, rangeS64_new);
    dispatchRange<uint8_t>(db, Uint8, rangeU8_new);
    dispatchRange<uint16_t>(db, Uint16, rangeU16_new);
    dispatchRange<uint32_t>(db, Uint32, rangeU32_new);
    dispatchRange<uint64_t>(db, Uint64, rangeU64_new);
    dispatchRange<float>(db, Float32, rangeF32_new);
    dispatchRange<double>(db, Float64, rangeF64_new);
}

TEST(ConstraintCheck, TypeAndLengthMismatches) {
    kt::Db db;
    ASSERT_GT(db.id, 0);
    RangeRecordS32 r{};
    r.type = Sint32;
    r.min = -100;
    r.max = 100;
    ASSERT_NE(rangeS32_new(&db.s, &r), nullptr);
    uint32_t u = 5;
    EXPECT_EQ(constraint_check(&db.s, r.key, Uint32, &u, 4), KESDB_ERR_CSTRT_TYPE);
    EXPECT_EQ(constraint_check(&db.s, r.key, Generic, &u, 4), KESDB_ERR_CSTRT_TYPE);
    EXPECT_EQ(constraint_check(&db.s, r.key, String, "ab", 3), KESDB_ERR_CSTRT_TYPE);
    RangeRecordS8 r8{};
    r8.type = Sint8;
    r8.min = -1;
    r8.max = 1;
    ASSERT_NE(rangeS8_new(&db.s, &r8), nullptr);
    const int16_t two = 0;
    mark(db.s);
    EXPECT_EQ(constraint_check(&db.s, r8.key, Sint8, &two, 2), KESDB_ERR_CSTRT_LENGTH);
    EXPECT_EQ(db.s.errorDetail, 0u);
    EXPECT_EQ(constraint_check(&db.s, r8.key, Sint8, &two, -1), KESDB_ERR_CSTRT_LENGTH);
}

// A constraint key that cannot be read lets the write through: the result is 0 and the
// session keeps the code of the failed read.
TEST(ConstraintCheck, UnreadableConstraintLetsTheWriteThrough) {
    kt::Db db;
    ASSERT_GT(db.id, 0);
    int32_t v = 1000;
    mark(db.s);
    EXPECT_EQ(constraint_check(&db.s, 64 * 1024 - 4, Sint32, &v, 4), 0);
    EXPECT_EQ(db.s.error, static_cast<uint32_t>(KESDB_ERR_CSTRT_READ));
    EXPECT_EQ(constraint_check(&db.s, 0x7FFFFFF0u, Sint32, &v, 4), 0);
    EXPECT_EQ(db.s.error, static_cast<uint32_t>(KESDB_ERR_CSTRT_READ));

    Session other = db.s;
    other.dbId = 30;
    EXPECT_EQ(constraint_check(&other, 16, Sint32, &v, 4), 0);
    EXPECT_EQ(other.error, static_cast<uint32_t>(KESDB_ERR_DB_NOTFOUND));

    RangeRecordS32 r{};
    r.type = Sint32;
    ASSERT_NE(rangeS32_new(&db.s, &r), nullptr);
    setenv("KESDB_DEFMEDIA", db.dir.file("missing.bin").c_str(), 1);
    mark(db.s);
    EXPECT_EQ(constraint_check(&db.s, r.key, Sint32, &v, 4), 0);
    EXPECT_EQ(db.s.error, static_cast<uint32_t>(KESDB_ERR_CSTRT_OPEN));
    EXPECT_EQ(db.s.errorDetail, static_cast<uint32_t>(ENOENT));
    setenv("KESDB_DEFMEDIA", db.mediumPath.c_str(), 1);
    EXPECT_EQ(constraint_check(&db.s, r.key, Sint32, &v, 4), KESDB_ERR_CSTRT_ABOVEMAX);
}
