// Constraint records and the check on writes: transfers of every record kind and their
// failures, lengths and data of both kinds, unknown type codes, and the dispatch over the
// twenty type codes.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "valcstrtkit.hpp"

namespace {

using ConstraintRecord = vk::DbTest;
using ConstraintCheck = vk::DbTest;

// Free elements in host order, as on the big-endian target.
[[maybe_unused]] const int kHostOrderElements = setenv("SIM_BYTE_ORDER", "BIG_ENDIAN", 1);

using vk::mark;
using vk::newEnum;
using vk::newHeader;

constexpr uint32_t kPastEnd = 64 * 1024 - 4;

// Through constraint_check: a range [1, 1] passes 1 and gives 66 for 0 and 67 for 2; an
// enumeration {1} passes 1 and gives 71 for 2; another value type gives 64, another length 65.
template <class T, class Rec>
void dispatch(kt::Db& db, uint32_t type, Rec* (*create)(Session*, Rec*)) {
    SCOPED_TRACE(type);
    const uint32_t other = type == Uint8 ? Sint8 : Uint8;
    const uint32_t range = vk::newRange(&db.s, create, type, T(1), T(1));
    ASSERT_NE(range, 0u);
    const uint32_t e = newEnum<T>(db, type, {T(1)});
    const struct {
        uint32_t key;
        T v;
        int32_t code;
    } cases[] = {{range, T(1), 0},
                 {range, T(0), KESDB_ERR_CSTRT_BELOWMIN},
                 {range, T(2), KESDB_ERR_CSTRT_ABOVEMAX},
                 {e, T(1), 0},
                 {e, T(2), KESDB_ERR_CSTRT_NOTMEMBER}};
    for (const auto& c : cases) EXPECT_EQ(constraint_check(&db.s, c.key, type, &c.v, sizeof(T)), c.code);
    for (uint32_t key : {range, e}) {
        const T v = T(1);
        EXPECT_EQ(constraint_check(&db.s, key, other, &v, 1), KESDB_ERR_CSTRT_TYPE);
        EXPECT_EQ(constraint_check(&db.s, key, type, &v, sizeof v + 1), KESDB_ERR_CSTRT_LENGTH);
    }
}

}  // namespace

// constraint_new takes an 8-byte block and writes nothing into it: the free element that
// stood there stays as it was.
TEST_F(ConstraintRecord, HeaderNewSetGet) {
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
    EXPECT_EQ(constraint_getType(&db.s, 16), 77u);
}

TEST_F(ConstraintRecord, NewEnumArrayIsZeroFilled) {
    ASSERT_NE(kt::readWord(db.mediumPath, 20), 0u);  // the free element's size word
    EXPECT_EQ(constraint_newEnumArray(&db.s, 4, 3), 16u);
    EXPECT_EQ(kt::readBytes(db.mediumPath, 16, 12), std::vector<uint8_t>(12, 0));
    ConstraintHeader h{};
    ASSERT_NE(constraint_new(&db.s, &h), nullptr);
    EXPECT_EQ(h.key, 28u);  // the array took exactly 12 bytes
    // An empty array still takes a block of its own.
    EXPECT_EQ(constraint_newEnumArray(&db.s, 8, 0), 36u);
    ASSERT_NE(constraint_new(&db.s, &h), nullptr);
    EXPECT_GT(h.key, 36u);
}

// Every transfer of every record kind fails alike without a database (83, detail 0) and on a
// medium that cannot be opened (59, ENOENT); reads past the end give 61; null buffers 89.
TEST_F(ConstraintRecord, TransferFailuresOfEveryRecordKind) {
    ConstraintHeader h{16, 4};
    RangeRecordS32 r{16, Sint32, 0, 9, 0};
    EnumRecord e{16, Sint32 * 256u, 16, 4, 1};
    const uint32_t w = 0;
    // Each call gives 0 for a null record or failed array key, or the code it returns.
    const struct {
        const char* name;
        std::function<int64_t(Session*)> run;
        bool returnsCode;
    } calls[] = {
        {"constraint_get", [&](Session* s) { return constraint_get(s, 16, &h) != nullptr; }, false},
        {"constraint_set", [&](Session* s) { return constraint_set(s, &h); }, true},
        {"constraint_new", [&](Session* s) { return constraint_new(s, &h) != nullptr; }, false},
        {"range_get", [&](Session* s) { return rangeS32_get(s, 16, &r) != nullptr; }, false},
        {"range_set", [&](Session* s) { return rangeS32_set(s, &r); }, true},
        {"range_new", [&](Session* s) { return rangeS32_new(s, &r) != nullptr; }, false},
        {"enum_get", [&](Session* s) { return enum_get(s, 16, &e) != nullptr; }, false},
        {"enum_set", [&](Session* s) { return enum_set(s, &e); }, true},
        {"enum_new", [&](Session* s) { return enum_new(s, &e) != nullptr; }, false},
        {"newEnumArray", [&](Session* s) { return constraint_newEnumArray(s, 4, 1) != KESDB_FLST_FAILED; }, false},
        {"getEnumArray",
         [&](Session* s) {
             void* p = constraint_getEnumArray(s, 16, 4, 1);
             std::free(p);
             return p != nullptr;
         },
         false},
        {"setEnumArray", [&](Session* s) { return constraint_setEnumArray(s, 16, 4, 1, &w); }, true},
    };
    Session other = db.s;
    other.dbId = 31;
    for (const auto& c : calls) {
        SCOPED_TRACE(c.name);
        mark(other);
        EXPECT_EQ(c.run(&other), c.returnsCode ? KESDB_ERR_DB_NOTFOUND : 0);
        EXPECT_EQ(other.error, static_cast<uint32_t>(KESDB_ERR_DB_NOTFOUND));
        EXPECT_EQ(other.errorDetail, 0u);
    }
    setenv("KESDB_DEFMEDIA", db.dir.file("missing.bin").c_str(), 1);
    for (const auto& c : calls) {
        SCOPED_TRACE(c.name);
        mark(db.s);
        EXPECT_EQ(c.run(&db.s), c.returnsCode ? KESDB_ERR_CSTRT_OPEN : 0);
        EXPECT_EQ(db.s.error, static_cast<uint32_t>(KESDB_ERR_CSTRT_OPEN));
        EXPECT_EQ(db.s.errorDetail, static_cast<uint32_t>(ENOENT));
    }
    setenv("KESDB_DEFMEDIA", db.mediumPath.c_str(), 1);

    EXPECT_EQ(constraint_getType(&db.s, kPastEnd), 0u);
    EXPECT_EQ(db.s.error, static_cast<uint32_t>(KESDB_ERR_CSTRT_READ));
    EXPECT_EQ(rangeS32_get(&db.s, kPastEnd, &r), nullptr);
    EXPECT_EQ(db.s.error, static_cast<uint32_t>(KESDB_ERR_CSTRT_READ));
    EXPECT_EQ(enum_get(&db.s, 64 * 1024 - 8, &e), nullptr);
    EXPECT_EQ(db.s.error, static_cast<uint32_t>(KESDB_ERR_CSTRT_READ));

    EXPECT_EQ(constraint_get(&db.s, 16, nullptr), nullptr);
    EXPECT_EQ(db.s.error, static_cast<uint32_t>(KESDB_ERR_NULLARG));
    EXPECT_EQ(rangeS32_get(&db.s, 16, nullptr), nullptr);
    EXPECT_EQ(rangeS32_set(&db.s, nullptr), KESDB_ERR_NULLARG);
    EXPECT_EQ(checkRangeS32(&db.s, 16, Sint32, nullptr, 4), KESDB_ERR_NULLARG);
    EXPECT_EQ(constraint_getData(&db.s, 16, nullptr, 100), KESDB_ERR_NULLARG);
    EXPECT_EQ(constraint_setData(&db.s, 16, nullptr, 100), KESDB_ERR_NULLARG);
}

// Every creator fails without writing at key 0: with no free block as 62 with detail 0, and
// with a free list the allocator cannot walk as the allocator found it (24, the key of the
// broken link as detail), not as a medium without room.
TEST_F(ConstraintRecord, AllocationFailuresOfEveryCreator) {
    ConstraintHeader h{0, 4};
    RangeRecordS64 range{0, Sint64, 1, 0, 0};
    EnumRecord e{0, Sint32 * 256u, 100, 4, 1};
    const std::pair<const char*, std::function<bool()>> creators[] = {
        {"header", [&] { return constraint_new(&db.s, &h) != nullptr; }},
        {"range", [&] { return rangeS64_new(&db.s, &range) != nullptr; }},
        {"enumeration", [&] { return enum_new(&db.s, &e) != nullptr; }},
        {"array", [&] { return constraint_newEnumArray(&db.s, 4, 3) != KESDB_FLST_FAILED; }},
    };
    const struct {
        uint32_t first, code, detail;
    } lists[] = {{0, KESDB_ERR_CSTRT_ALLOC, 0}, {8, KESDB_ERR_MEDIA_READ, 12}};
    for (const auto& l : lists) {
        ASSERT_EQ(flst_m_setFirstOffset(&db.s, 0, l.first), 0);
        const std::string before = kt::readFile(db.mediumPath);
        for (const auto& [what, create] : creators) {
            SCOPED_TRACE(testing::Message() << what << " first " << l.first);
            mark(db.s);
            EXPECT_FALSE(create());
            EXPECT_EQ(db.s.error, l.code);
            EXPECT_EQ(db.s.errorDetail, l.detail);
        }
        EXPECT_EQ(h.key, 0u);
        EXPECT_EQ(kt::readFile(db.mediumPath), before);
    }
}

TEST_F(ConstraintRecord, LengthOfEveryKind) {
    const int32_t rangeLengths[12] = {0, 0, 3, 6, 12, 24, 3, 6, 12, 24, 12, 24};
    for (uint32_t type = 2; type <= 11; ++type)
        EXPECT_EQ(constraint_getLength(&db.s, newHeader(db, type)), rangeLengths[type]) << type;
    EXPECT_EQ(constraint_getLength(&db.s, newEnum<uint32_t>(db, Uint32, {1, 2, 3, 4, 5})), 20);

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

TEST_F(ConstraintRecord, GetDataOfBothKinds) {
    const uint32_t want[5] = {11, 22, 33, 44, 55};
    const uint32_t e = newEnum<uint32_t>(db, Uint32, std::vector<uint32_t>(want, want + 5));
    uint8_t buf[24];
    std::memset(buf, 0xAB, sizeof buf);
    mark(db.s);
    EXPECT_EQ(constraint_getData(&db.s, e, buf, 16), KESDB_ERR_CSTRT_BUFFER);
    EXPECT_EQ(db.s.errorDetail, 0u);
    EXPECT_EQ(std::vector<uint8_t>(buf, buf + 24), std::vector<uint8_t>(24, 0xAB));
    EXPECT_EQ(constraint_getData(&db.s, e, buf, 24), 0);
    EXPECT_EQ(std::memcmp(buf, want, 20), 0);
    EXPECT_EQ(buf[20], 0xAB);

    const uint32_t r = vk::newRange(&db.s, rangeS32_new, Sint32, -1, 9, 2);
    int32_t out[3] = {};
    EXPECT_EQ(constraint_getData(&db.s, r, out, 11), KESDB_ERR_CSTRT_BUFFER);
    EXPECT_EQ(constraint_getData(&db.s, r, out, 12), 0);
    EXPECT_EQ(std::vector<int32_t>(out, out + 3), (std::vector<int32_t>{-1, 9, 2}));
    // An unreadable header: 0 with the read's code in the session.
    EXPECT_EQ(constraint_getData(&db.s, kPastEnd, out, 12), 0);
    EXPECT_EQ(db.s.error, static_cast<uint32_t>(KESDB_ERR_CSTRT_READ));
}

TEST_F(ConstraintRecord, SetDataOfBothKinds) {
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
    const uint32_t r = vk::newRange<RangeRecordU64, uint64_t>(&db.s, rangeU64_new, Uint64, 0, 0);
    const uint64_t d[3] = {5, 50, 5};
    EXPECT_EQ(constraint_setData(&db.s, r, d, 23), KESDB_ERR_CSTRT_LENGTH);
    EXPECT_EQ(constraint_setData(&db.s, r, d, 25), KESDB_ERR_CSTRT_LENGTH);
    EXPECT_EQ(constraint_setData(&db.s, r, d, 24), 0);
    RangeRecordU64 back{};
    ASSERT_NE(rangeU64_get(&db.s, r, &back), nullptr);
    EXPECT_EQ(back.min, 5u);
    EXPECT_EQ(back.max, 50u);
    EXPECT_EQ(back.step, 5u);
}

TEST_F(ConstraintRecord, UnknownTypeCodes) {
    for (uint32_t type : {0u, 1u, 12u, 256u, 3u * 256u + 1u, 12u * 256u, 0xFFFFFFFFu}) {
        SCOPED_TRACE(type);
        const uint32_t key = newHeader(db, type);
        EXPECT_EQ(constraint_getType(&db.s, key), type);
        uint8_t buf[32] = {};
        const std::pair<int32_t, std::function<int32_t()>> calls[] = {
            {KESDB_ERR_CSTRT_UNKNOWN, [&] { return constraint_getLength(&db.s, key); }},
            {KESDB_ERR_CSTRT_UNKNOWN, [&] { return constraint_getData(&db.s, key, buf, sizeof buf); }},
            {KESDB_ERR_CSTRT_UNKNOWN, [&] { return constraint_setData(&db.s, key, buf, 4); }},
            {KESDB_ERR_CSTRT_CHECKTYPE, [&] { return constraint_check(&db.s, key, Sint32, buf, 4); }},
        };
        for (const auto& [code, call] : calls) {
            mark(db.s);
            EXPECT_EQ(call(), code == KESDB_ERR_CSTRT_CHECKTYPE ? code : 0);
            EXPECT_EQ(db.s.error, static_cast<uint32_t>(code));
            EXPECT_EQ(db.s.errorDetail, 0u);
        }
    }
}

TEST_F(ConstraintCheck, DispatchOverAllTwentyCodes) {
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
TEST_F(ConstraintCheck, UnreadableConstraintLetsTheWriteThrough) {
    const int32_t v = 1000;
    for (uint32_t key : {kPastEnd, 0x7FFFFFF0u}) {
        mark(db.s);
        EXPECT_EQ(constraint_check(&db.s, key, Sint32, &v, 4), 0);
        EXPECT_EQ(db.s.error, static_cast<uint32_t>(KESDB_ERR_CSTRT_READ));
    }
    Session other = db.s;
    other.dbId = 30;
    EXPECT_EQ(constraint_check(&other, 16, Sint32, &v, 4), 0);
    EXPECT_EQ(other.error, static_cast<uint32_t>(KESDB_ERR_DB_NOTFOUND));

    const uint32_t r = vk::newRange(&db.s, rangeS32_new, Sint32, 0, 0);
    setenv("KESDB_DEFMEDIA", db.dir.file("missing.bin").c_str(), 1);
    mark(db.s);
    EXPECT_EQ(constraint_check(&db.s, r, Sint32, &v, 4), 0);
    EXPECT_EQ(db.s.error, static_cast<uint32_t>(KESDB_ERR_CSTRT_OPEN));
    EXPECT_EQ(db.s.errorDetail, static_cast<uint32_t>(ENOENT));
    setenv("KESDB_DEFMEDIA", db.mediumPath.c_str(), 1);
    EXPECT_EQ(constraint_check(&db.s, r, Sint32, &v, 4), KESDB_ERR_CSTRT_ABOVEMAX);
}
