// Constraint records and the check on writes: transfers of every record kind and their
// failures, lengths and data of both kinds, unknown type codes, the dispatch over the twenty
// type codes, and the check seen through every public path that writes a value.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <array>
#include <functional>
#include <string>
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
constexpr uint32_t kRead = KESDB_ERR_CSTRT_READ;

// The session holds `code` and `detail`.
void expectError(const Session& s, int64_t code, int64_t detail) {
    EXPECT_EQ(s.error, static_cast<uint32_t>(code));
    EXPECT_EQ(s.errorDetail, static_cast<uint32_t>(detail));
}

// The value's data as it lies in the medium.
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

// A Sint32 value holding `v` under the constraint `c` (0: none).
uint32_t s32Value(kt::Db& db, int32_t v, uint32_t c = 0) {
    const uint32_t key = vk::make<int32_t>(&db.s, Sint32, v);
    EXPECT_NE(key, 0u);
    EXPECT_EQ(value_setConstraintKey(&db.s, key, c), 0);
    return key;
}

// Through constraint_check: a range [1, 1] passes 1 and gives 66 for 0 and 67 for 2; an
// enumeration {1} passes 1 and gives 71 for 2; another value type gives 64, another length 65.
template <class T, class Rec>
void dispatch(kt::Db& db, uint32_t type, Rec* (*create)(Session*, Rec*)) {
    SCOPED_TRACE(type);
    const uint32_t range = vk::newRange(&db.s, create, type, T(1), T(1)), e = newEnum<T>(db, type, {T(1)});
    const struct {
        uint32_t key;
        T v;
        int32_t code;
    } cases[] = {{range, T(1), 0}, {range, T(0), KESDB_ERR_CSTRT_BELOWMIN}, {range, T(2), KESDB_ERR_CSTRT_ABOVEMAX},
                 {e, T(1), 0}, {e, T(2), KESDB_ERR_CSTRT_NOTMEMBER}};
    for (const auto& c : cases) EXPECT_EQ(constraint_check(&db.s, c.key, type, &c.v, sizeof(T)), c.code);
    for (uint32_t key : {range, e}) {
        const T v = T(1);
        EXPECT_EQ(constraint_check(&db.s, key, type == Uint8 ? Sint8 : Uint8, &v, 1), KESDB_ERR_CSTRT_TYPE);
        EXPECT_EQ(constraint_check(&db.s, key, type, &v, sizeof v + 1), KESDB_ERR_CSTRT_LENGTH);
    }
}

}  // namespace

// Blocks are taken in order and exactly as large as their records: a header writes nothing
// into its new block before it is set, an array is zero-filled, an empty array takes a block.
TEST_F(Constraint, RecordsTakeExactBlocks) {
    const Bytes before = kt::readBytes(db.mediumPath, 16, 8);
    ConstraintHeader h{0, 77};
    ASSERT_EQ(constraint_new(s, &h), &h);
    EXPECT_EQ(h.key, 16u);
    EXPECT_EQ(kt::readBytes(db.mediumPath, 16, 8), before);
    mark(db.s);
    EXPECT_EQ(constraint_set(s, &h), 0);
    EXPECT_EQ(db.s.error, 0u);
    EXPECT_EQ(kt::readWord(db.mediumPath, 20), 77u);
    EXPECT_EQ(constraint_getType(s, 16), 77u);
    ASSERT_NE(kt::readWord(db.mediumPath, 28), 0u);  // the free element's size word
    EXPECT_EQ(constraint_newEnumArray(s, 4, 3), 24u);
    EXPECT_EQ(kt::readBytes(db.mediumPath, 24, 12), Bytes(12, 0));
    EXPECT_EQ(constraint_newEnumArray(s, 8, 0), 36u);
    ASSERT_NE(constraint_new(s, &h), nullptr);
    EXPECT_GT(h.key, 36u);
}

// Every transfer of every record kind fails alike without a database (83, detail 0) and on a
// medium that cannot be opened (59, ENOENT); reads past the end give 61; null buffers 89.
TEST_F(Constraint, TransferFailuresOfEveryRecordKind) {
    ConstraintHeader h{16, 4};
    RangeRecordS32 r{16, Sint32, 0, 9, 0};
    EnumRecord e{16, Sint32 * 256u, 16, 4, 1};
    const uint32_t w = 0;
    // Each call gives the code it returns, or 0 for a null record or a failed array key.
    const std::function<int64_t(Session*)> calls[] = {
        [&](Session* s) { return constraint_get(s, 16, &h) != nullptr; },
        [&](Session* s) { return constraint_set(s, &h); },
        [&](Session* s) { return constraint_new(s, &h) != nullptr; },
        [&](Session* s) { return rangeS32_get(s, 16, &r) != nullptr; },
        [&](Session* s) { return rangeS32_set(s, &r); },
        [&](Session* s) { return rangeS32_new(s, &r) != nullptr; },
        [&](Session* s) { return enum_get(s, 16, &e) != nullptr; },
        [&](Session* s) { return enum_set(s, &e); },
        [&](Session* s) { return enum_new(s, &e) != nullptr; },
        [&](Session* s) { return constraint_newEnumArray(s, 4, 1) != KESDB_FLST_FAILED; },
        [&](Session* s) {
            void* p = constraint_getEnumArray(s, 16, 4, 1);
            std::free(p);
            return p != nullptr;
        },
        [&](Session* s) { return constraint_setEnumArray(s, 16, 4, 1, &w); },
    };
    const bool returnsCode[] = {0, 1, 0, 0, 1, 0, 0, 1, 0, 0, 0, 1};
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

    EXPECT_EQ(constraint_getType(s, kPastEnd), 0u);
    EXPECT_EQ(db.s.error, kRead);
    EXPECT_EQ(rangeS32_get(s, kPastEnd, &r), nullptr);
    EXPECT_EQ(db.s.error, kRead);
    EXPECT_EQ(enum_get(s, 64 * 1024 - 8, &e), nullptr);
    EXPECT_EQ(db.s.error, kRead);
    EXPECT_EQ(constraint_get(s, 16, nullptr), nullptr);
    EXPECT_EQ(db.s.error, static_cast<uint32_t>(KESDB_ERR_NULLARG));
    EXPECT_EQ(rangeS32_get(s, 16, nullptr), nullptr);
    for (int32_t code : {rangeS32_set(s, nullptr), checkRangeS32(s, 16, Sint32, nullptr, 4),
                         constraint_getData(s, 16, nullptr, 100), constraint_setData(s, 16, nullptr, 100)})
        EXPECT_EQ(code, KESDB_ERR_NULLARG);
}

// Every creator fails without writing at key 0: with no free block as 62 with detail 0, and
// with a free list the allocator cannot walk as the allocator found it (24, the key of the
// broken link as detail), not as a medium without room.
TEST_F(Constraint, AllocationFailuresOfEveryCreator) {
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

TEST_F(Constraint, LengthOfEveryKind) {
    const int32_t rangeLengths[12] = {0, 0, 3, 6, 12, 24, 3, 6, 12, 24, 12, 24};
    for (uint32_t type = 2; type <= 11; ++type)
        EXPECT_EQ(constraint_getLength(s, newHeader(db, type)), rangeLengths[type]) << type;
    EXPECT_EQ(constraint_getLength(s, newEnum<uint32_t>(db, Uint32, {1, 2, 3, 4, 5})), 20);
    // An enumeration record that cannot be read whole: 0 and the read's code.
    const ConstraintHeader h{64 * 1024 - 8, Sint8 * 256u};
    ASSERT_EQ(constraint_set(s, &h), 0);
    EXPECT_EQ(constraint_getLength(s, h.key), 0);
    EXPECT_EQ(db.s.error, kRead);
    // A byte size beyond any array (here 8 x 2^29 = 4 GiB) is refused with 65.
    EnumRecord huge{0, Uint64 * 256u, 16, 8, 0x20000000u};
    ASSERT_NE(enum_new(s, &huge), nullptr);
    mark(db.s);
    EXPECT_EQ(constraint_getLength(s, huge.key), 0);
    expectError(db.s, KESDB_ERR_CSTRT_LENGTH, 0);
}

TEST_F(Constraint, DataOfBothKinds) {
    const uint32_t want[5] = {11, 22, 33, 44, 55};
    const uint32_t e = newEnum<uint32_t>(db, Uint32, std::vector<uint32_t>(want, want + 5));
    uint8_t buf[24];
    std::memset(buf, 0xAB, sizeof buf);
    mark(db.s);
    EXPECT_EQ(constraint_getData(s, e, buf, 16), KESDB_ERR_CSTRT_BUFFER);
    EXPECT_EQ(db.s.errorDetail, 0u);
    EXPECT_EQ(Bytes(buf, buf + 24), Bytes(24, 0xAB));
    EXPECT_EQ(constraint_getData(s, e, buf, 24), 0);
    EXPECT_EQ(std::memcmp(buf, want, 20), 0);
    EXPECT_EQ(buf[20], 0xAB);
    const uint32_t r = s32Range(db, -1, 9, 2);
    int32_t out[3] = {};
    EXPECT_EQ(constraint_getData(s, r, out, 11), KESDB_ERR_CSTRT_BUFFER);
    EXPECT_EQ(constraint_getData(s, r, out, 12), 0);
    EXPECT_EQ(std::vector<int32_t>(out, out + 3), (std::vector<int32_t>{-1, 9, 2}));
    EXPECT_EQ(constraint_getData(s, kPastEnd, out, 12), 0);  // unreadable: 0, the read's code
    EXPECT_EQ(db.s.error, kRead);

    // A Sint16 enumeration of 4 members given 7 bytes: 3 members (6 bytes) are written; 5
    // members are refused with nothing written.
    const uint32_t e16 = newEnum<int16_t>(db, Sint16, {1, 2, 3, 4});
    EnumRecord rec{};
    ASSERT_NE(enum_get(s, e16, &rec), nullptr);
    const uint8_t seven[7] = {0x10, 0x11, 0x20, 0x21, 0x30, 0x31, 0x40};
    EXPECT_EQ(constraint_setData(s, e16, seven, 7), 0);
    const Bytes written = {0x10, 0x11, 0x20, 0x21, 0x30, 0x31, 4, 0};
    EXPECT_EQ(kt::readBytes(db.mediumPath, rec.arrayKey, 8), written);
    EXPECT_EQ(constraint_getLength(s, e16), 8);
    mark(db.s);
    EXPECT_EQ(constraint_setData(s, e16, want, 10), KESDB_ERR_CSTRT_LENGTH);
    EXPECT_EQ(db.s.errorDetail, 0u);
    EXPECT_EQ(kt::readBytes(db.mediumPath, rec.arrayKey, 8), written);
    // Ranges need the exact data length.
    const uint32_t r64 = vk::newRange<RangeRecordU64, uint64_t>(s, rangeU64_new, Uint64, 0, 0);
    const uint64_t d[3] = {5, 50, 5};
    EXPECT_EQ(constraint_setData(s, r64, d, 23), KESDB_ERR_CSTRT_LENGTH);
    EXPECT_EQ(constraint_setData(s, r64, d, 25), KESDB_ERR_CSTRT_LENGTH);
    EXPECT_EQ(constraint_setData(s, r64, d, 24), 0);
    uint64_t back[3] = {};
    EXPECT_EQ(constraint_getData(s, r64, back, 24), 0);
    EXPECT_EQ(std::memcmp(back, d, 24), 0);
}

TEST_F(Constraint, UnknownTypeCodes) {
    for (uint32_t type : {0u, 1u, 12u, 256u, 3u * 256u + 1u, 12u * 256u, 0xFFFFFFFFu}) {
        SCOPED_TRACE(type);
        const uint32_t key = newHeader(db, type);
        EXPECT_EQ(constraint_getType(s, key), type);
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

TEST_F(Constraint, DispatchOverAllTwentyCodes) {
    dispatch<int8_t>(db, Sint8, rangeS8_new);
    dispatch<int16_t>(db, Sint16, rangeS16_new);
    dispatch<int32_t>(db, Sint32, rangeS32_new);
    dispatch<int64_t>(db, Sint64, rangeS64_new);
    dispatch<uint8_t>(db, Uint8, rangeU8_new);
    dispatch<uint16_t>(db, Uint16, rangeU16_new);
    dispatch<uint32_t>(db, Uint32, rangeU32_new);
    dispatch<uint64_t>(db, Uint64, rangeU64_new);
    dispatch<float>(db, Float32, rangeF32_new);
    dispatch<double>(db, Float64, rangeF64_new);
}

// A constraint key that cannot be read lets the write through: the result is 0 and the
// session keeps the code of the failed read.
TEST_F(Constraint, UnreadableConstraintLetsTheWriteThrough) {
    const int32_t v = 1000;
    for (uint32_t key : {kPastEnd, 0x7FFFFFF0u}) {
        mark(db.s);
        EXPECT_EQ(constraint_check(s, key, Sint32, &v, 4), 0);
        EXPECT_EQ(db.s.error, kRead);
    }
    Session other = db.s;
    other.dbId = 30;
    EXPECT_EQ(constraint_check(&other, 16, Sint32, &v, 4), 0);
    EXPECT_EQ(other.error, static_cast<uint32_t>(KESDB_ERR_DB_NOTFOUND));
    const uint32_t r = s32Range(db, 0, 0);
    setenv("KESDB_DEFMEDIA", db.dir.file("missing.bin").c_str(), 1);
    mark(db.s);
    EXPECT_EQ(constraint_check(s, r, Sint32, &v, 4), 0);
    expectError(db.s, KESDB_ERR_CSTRT_OPEN, ENOENT);
    setenv("KESDB_DEFMEDIA", db.mediumPath.c_str(), 1);
    EXPECT_EQ(constraint_check(s, r, Sint32, &v, 4), KESDB_ERR_CSTRT_ABOVEMAX);
}

// A refused write returns the check's code and leaves the value's data as it was; copies are
// checked on their destination; a mismatched type gives 64, a type code 1 stops every write.
TEST_F(Constraint, RefusedWritesLeaveTheDataUnchanged) {
    const uint32_t v = s32Value(db, 5, s32Range(db, -10, 10, 5));
    const uint32_t high = s32Value(db, 11), u32 = vk::make<uint32_t>(s, Uint32, 5);
    const uint32_t u16 = vk::make<uint16_t>(s, Uint16, 100);
    ASSERT_EQ(value_setConstraintKey(s, u16, newEnum<uint16_t>(db, Uint16, {100, 200, 300})), 0);
    const uint16_t member = 300;
    EXPECT_EQ(value_setGeneric(s, u16, &member, 2), 0);
    const int32_t above = 11, below = -11, offStep = 3;
    const uint16_t notMember = 150;
    const struct {
        uint32_t key;
        std::function<int32_t()> write;
        int32_t code;
    } refused[] = {
        {v, [&] { return value_setGeneric(s, v, &above, 4); }, KESDB_ERR_CSTRT_ABOVEMAX},
        {v, [&] { return value_setGeneric(s, v, &below, 4); }, KESDB_ERR_CSTRT_BELOWMIN},
        {v, [&] { return value_setGeneric(s, v, &offStep, 4); }, KESDB_ERR_CSTRT_STEP},
        {v, [&] { return value_setGeneric(s, v, &offStep, 2); }, KESDB_ERR_CSTRT_LENGTH},
        {v, [&] { return value_copy(s, v, high); }, KESDB_ERR_CSTRT_ABOVEMAX},
        {v, [&] { return value_copy2(s, v, high, 0); }, KESDB_ERR_CSTRT_ABOVEMAX},
        {u16, [&] { return value_setGeneric(s, u16, &notMember, 2); }, KESDB_ERR_CSTRT_NOTMEMBER},
        {u32, [&] { return value_setGeneric(s, u32, &above, 4); }, KESDB_ERR_CSTRT_TYPE},
        {u16, [&] { return value_setGeneric(s, u16, &member, 2); }, KESDB_ERR_CSTRT_CHECKTYPE},
    };
    ASSERT_EQ(value_setConstraintKey(s, u32, s32Range(db, 0, 10)), 0);
    for (const auto& c : refused) {
        SCOPED_TRACE(c.code);
        if (c.code == KESDB_ERR_CSTRT_CHECKTYPE) {
            ASSERT_EQ(value_setConstraintKey(s, u16, newHeader(db, 1)), 0);
        }
        const Bytes before = vk::dataOf(db, c.key, 4);
        EXPECT_EQ(c.write(), c.code);
        EXPECT_EQ(db.s.error, static_cast<uint32_t>(c.code));
        EXPECT_EQ(vk::dataOf(db, c.key, 4), before);
    }
    const int32_t ok = -10;
    EXPECT_EQ(value_setGeneric(s, v, &ok, 4), 0);
    EXPECT_EQ(stored<int32_t>(db, v), -10);
    EXPECT_EQ(value_copy(s, v, s32Value(db, 5)), 0);
    EXPECT_EQ(stored<int32_t>(db, v), 5);
}

// Constraint medium outside the media table (21): an unconstrained value never touches it; a
// constrained one is written unchecked and 21 stays in the session.
TEST(ConstraintMedium, UntouchedOrUnreadable) {
    kt::DbOptions o;
    o.constraintMedium = 7;
    kt::Db db(o);
    ASSERT_GT(db.id, 0);
    const int32_t big = 1000000;
    for (uint32_t c : {0u, 16u}) {
        const uint32_t v = s32Value(db, 1, c);
        session_setError(&db.s, 0, 0);
        EXPECT_EQ(value_setGeneric(&db.s, v, &big, 4), 0);
        EXPECT_EQ(db.s.error, c ? static_cast<uint32_t>(KESDB_ERR_MEDIA_INDEX) : 0u);
        EXPECT_EQ(stored<int32_t>(db, v), big);
    }
}

// Every public call writing a leaf's value passes through the check.
TEST_F(Constraint, EveryPublicSetPathIsChecked) {
    const uint32_t range = s32Range(db, 0, 100);
    const uint32_t cur = s32Value(db, 50, range), def = s32Value(db, 500), fac = s32Value(db, 600);
    const uint32_t leaf = vk::makeLeaf(s, cur, def, fac), other = vk::makeLeaf(s, s32Value(db, 500));
    ASSERT_NE(leaf * other, 0u);
    const int32_t big = 1000, fine = 60;
    const struct {
        uint32_t value;
        std::function<int32_t()> write;
        int32_t code;  // in the session (the transfers return another code)
    } refused[] = {
        {cur, [&] { return kesDBMSetSint32(s, leaf, 101); }, KESDB_ERR_CSTRT_ABOVEMAX},
        {cur, [&] { return kesDBMSetSint32(s, leaf, -1); }, KESDB_ERR_CSTRT_BELOWMIN},
        {cur, [&] { return kesDBMSetGeneric(s, leaf, &big, 4); }, KESDB_ERR_CSTRT_ABOVEMAX},
        {cur, [&] { return kesDBMSetSint16(s, leaf, 7); }, KESDB_ERR_CSTRT_LENGTH},
        {cur, [&] { return kesDBMDefaultToCurrent(s, leaf) ? KESDB_ERR_CSTRT_ABOVEMAX : 0; }, KESDB_ERR_CSTRT_ABOVEMAX},
        {cur, [&] { return kesDBMCopy(s, other, leaf); }, KESDB_ERR_CSTRT_ABOVEMAX},
        {def, [&] { return kesDBMSetDefaultGeneric(s, leaf, &big, 4); }, KESDB_ERR_CSTRT_ABOVEMAX},
        {def, [&] { return kesDBMCurrentToDefault(s, leaf) ? KESDB_ERR_CSTRT_ABOVEMAX : 0; }, KESDB_ERR_CSTRT_ABOVEMAX},
        {def, [&] { return kesDBMFactoryToDefault(s, leaf) ? KESDB_ERR_CSTRT_ABOVEMAX : 0; }, KESDB_ERR_CSTRT_ABOVEMAX},
    };
    for (const auto& c : refused) {
        SCOPED_TRACE(c.code);
        if (c.value == def) {  // the default value constrained, the current one free at 200
            ASSERT_EQ(value_setConstraintKey(s, def, range) | value_setConstraintKey(s, cur, 0), 0);
            ASSERT_EQ(kesDBMSetSint32(s, leaf, 200), 0);
        }
        const int32_t before = stored<int32_t>(db, c.value);
        session_setError(s, 0, 0);
        EXPECT_EQ(c.write(), c.code);
        EXPECT_EQ(db.s.error, static_cast<uint32_t>(c.code));
        EXPECT_EQ(stored<int32_t>(db, c.value), before);
    }
    EXPECT_EQ(kesDBMSetDefaultGeneric(s, leaf, &fine, 4), 0);
    EXPECT_EQ(stored<int32_t>(db, def), 60);
    // No type test in the typed calls: 4 bytes of a Uint32 into a Sint32 pass.
    ASSERT_EQ(value_setConstraintKey(s, cur, range), 0);
    EXPECT_EQ(kesDBMSetUint32(s, leaf, 7), 0);
    EXPECT_EQ(stored<int32_t>(db, cur), 7);

    // A String value with a constraint attached can never be written.
    const uint32_t text = value_create(s, String, 0, "abc", 4, 0);
    ASSERT_EQ(value_setConstraintKey(s, text, range), 0);
    EXPECT_EQ(kesDBMSetString(s, vk::makeLeaf(s, text), "xyz"), KESDB_ERR_CSTRT_TYPE);
    EXPECT_EQ(vk::dataOf(db, text, 4), Bytes({'a', 'b', 'c', 0}));
}
