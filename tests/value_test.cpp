// Value records: layout on the medium, creation with data areas at the end of the data medium,
// the length rules of reads and writes, deletion, and the failures of unreadable records and
// media (for every call that reaches a value's data).
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "mediakit.hpp"
#include "valcstrtkit.hpp"

namespace {

using ValueRecords = vk::DbTest;

uint32_t fileSize(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 ? static_cast<uint32_t>(st.st_size) : 0u;
}

using vk::dataOf;

TEST_F(ValueRecords, CreateLaysRecordAndAppendsAdjacentZeroedDataAreas) {
    const uint32_t oldEnd = fileSize(db.mediumPath);

    const uint32_t word = 0xA1B2C3D4u;
    const uint32_t k1 = value_create(s, Uint32, 0x77, &word, 4, 0);
    ASSERT_NE(k1, 0u);
    // key, type, data medium, data offset (the old end), length, creator word as given, no constraint
    const uint32_t want[7] = {k1, Uint32, 0, oldEnd, 4, 0x77, 0};
    std::vector<uint8_t> raw = kt::readBytes(db.mediumPath, k1, 28);
    ASSERT_EQ(raw.size(), 28u);
    EXPECT_EQ(std::memcmp(raw.data(), want, 28), 0);
    EXPECT_EQ(kt::readWord(db.mediumPath, oldEnd), word);

    // Without data: zero-filled areas of the given size, each directly behind the previous one.
    const uint32_t k2 = value_create(s, Generic, 0, nullptr, 5, 0);
    const uint32_t k3 = value_create(s, 99, 0, nullptr, 3, 0);  // any type code is accepted
    ValueRecord r2{}, r3{};
    ASSERT_NE(value_get(s, k2, &r2), nullptr);
    ASSERT_NE(value_get(s, k3, &r3), nullptr);
    EXPECT_EQ(r2.dataOffset, oldEnd + 4);
    EXPECT_EQ(r3.dataOffset, oldEnd + 9);
    EXPECT_EQ(r3.type, 99u);
    EXPECT_EQ(fileSize(db.mediumPath), oldEnd + 12);
    EXPECT_EQ(kt::readBytes(db.mediumPath, r2.dataOffset, 8), std::vector<uint8_t>(8, 0));
    EXPECT_EQ(value_getType(s, k1), Uint32);
    EXPECT_EQ(value_getLength(s, k2), 5);

    // A size of 0 makes an empty data area; a negative size is refused before anything happens.
    EXPECT_EQ(value_getLength(s, value_create(s, Generic, 0, nullptr, 0, 0)), 0);
    const uint32_t before = fileSize(db.mediumPath);
    EXPECT_EQ(value_create(s, Generic, 0, nullptr, -1, 0), 0u);
    EXPECT_EQ(db.s.error, static_cast<uint32_t>(KESDB_ERR_MEDIA_WRITE));
    EXPECT_EQ(fileSize(db.mediumPath), before);
}

TEST_F(ValueRecords, UnreadableRecordsGiveTheirFailureValues) {
    ValueRecord r{};

    // Key 0 is refused before the medium is opened: with the medium gone it is still 51.
    setenv("KESDB_DEFMEDIA", db.dir.file("missing.bin").c_str(), 1);
    EXPECT_EQ(value_get(s, 0, &r), nullptr);
    EXPECT_EQ(db.s.error, 51u);
    EXPECT_EQ(db.s.errorDetail, 0u);
    EXPECT_EQ(value_getType(s, 0), -1);
    EXPECT_EQ(value_getLength(s, 0), -1);
    EXPECT_EQ(value_getConstraintKey(s, 0), 0u);
    EXPECT_EQ(value_delete(s, 0), 51);

    // The value medium cannot be opened: 44 with the driver's error number.
    EXPECT_EQ(value_get(s, 16, &r), nullptr);
    EXPECT_EQ(db.s.error, 44u);
    EXPECT_EQ(db.s.errorDetail, static_cast<uint32_t>(ENOENT));
    EXPECT_EQ(value_setConstraintKey(s, 16, 5), 44);
    r.key = 16;
    EXPECT_EQ(value_set(s, &r), 44);
    setenv("KESDB_DEFMEDIA", db.mediumPath.c_str(), 1);

    // A record that runs past the end of the medium: short read, 46.
    const uint32_t end = fileSize(db.mediumPath);
    EXPECT_EQ(value_get(s, end - 10, &r), nullptr);
    EXPECT_EQ(db.s.error, 46u);
    EXPECT_EQ(value_getType(s, end - 10), -1);
    EXPECT_EQ(value_getLength(s, end - 10), -1);

    // No database for the session: 83.
    Session other = db.s;
    other.dbId = 31;
    EXPECT_EQ(value_get(&other, 16, &r), nullptr);
    EXPECT_EQ(other.error, 83u);
    EXPECT_EQ(value_set(s, nullptr), KESDB_ERR_NULLARG);
}

TEST_F(ValueRecords, SetWritesWholeRecordAndClearsTheError) {
    const uint32_t k = value_create(s, Sint16, 0, nullptr, 2, 0);
    ASSERT_NE(k, 0u);
    session_setError(s, 51, 9);
    EXPECT_EQ(value_setConstraintKey(s, k, 0x1234), 0);
    EXPECT_EQ(db.s.error, 0u);
    EXPECT_EQ(value_getConstraintKey(s, k), 0x1234u);
    EXPECT_EQ(kt::readWord(db.mediumPath, k + 24), 0x1234u);
    EXPECT_EQ(value_getType(s, k), Sint16);  // the other words are written back unchanged
}

TEST_F(ValueRecords, LengthRulesOfDataReadsAndWrites) {
    const uint32_t u8 = value_create(s, Uint8, 0, nullptr, 1, 0);
    const uint8_t guardBytes[4] = {0xEE, 0xEE, 0xEE, 0xEE};
    ASSERT_NE(value_create(s, Generic, 0, guardBytes, 4, 0), 0u);  // right behind u8's byte

    // A 4-byte buffer into a 1-byte value stores its first byte only; the length stays 1.
    const uint8_t four[4] = {0x11, 0x22, 0x33, 0x44};
    EXPECT_EQ(value_setGeneric(s, u8, four, 4), 0);
    EXPECT_EQ(dataOf(db, u8, 5), (std::vector<uint8_t>{0x11, 0xEE, 0xEE, 0xEE, 0xEE}));
    EXPECT_EQ(value_getLength(s, u8), 1);

    // A 16-byte value read into an 8-byte buffer: 8 bytes, length word 8, nothing past them.
    uint8_t sixteen[16];
    for (int i = 0; i < 16; ++i) sixteen[i] = static_cast<uint8_t>(0x40 + i);
    const uint32_t g16 = value_create(s, Generic, 0, sixteen, 16, 0);
    ASSERT_NE(g16, 0u);
    uint8_t eight[10];
    std::memset(eight, 0xCC, sizeof eight);
    int32_t len = 8;
    EXPECT_EQ(value_getGeneric(s, g16, eight, &len), 0);
    EXPECT_EQ(len, 8);
    EXPECT_EQ(std::memcmp(eight, sixteen, 8), 0);
    EXPECT_EQ(eight[8], 0xCC);

    // A shorter write overwrites the first bytes only.
    const uint8_t two[2] = {0x01, 0x02};
    EXPECT_EQ(value_setGeneric(s, g16, two, 2), 0);
    std::vector<uint8_t> now = dataOf(db, g16, 16);
    ASSERT_EQ(now.size(), 16u);
    std::memcpy(sixteen, two, 2);
    EXPECT_EQ(std::memcmp(now.data(), sixteen, 16), 0);

    // Negative lengths move nothing.
    len = -5;
    EXPECT_EQ(value_getGeneric(s, g16, eight, &len), 0);
    EXPECT_EQ(len, 0);
    EXPECT_EQ(value_setGeneric(s, g16, four, -1), 0);
    EXPECT_EQ(dataOf(db, g16, 2), (std::vector<uint8_t>{0x01, 0x02}));

    // A corrupt record whose length is 2^31 or more reads and writes nothing.
    ValueRecord r{};
    ASSERT_NE(value_get(s, g16, &r), nullptr);
    r.length = 0x80000000u;
    ASSERT_EQ(value_set(s, &r), 0);
    len = 8;
    std::memset(eight, 0xCC, sizeof eight);
    EXPECT_EQ(value_getGeneric(s, g16, eight, &len), 0);
    EXPECT_EQ(len, 0);
    EXPECT_EQ(eight[0], 0xCC);
}

TEST(ValueDelete, ReturnsTheBlockButNotTheDataArea) {
    setenv("SIM_BYTE_ORDER", "", 1);  // free elements in host order, to read them back here
    kt::Db db;
    ASSERT_GT(db.id, 0);
    Session* s = &db.s;
    const uint32_t k1 = value_create(s, Uint32, 0, nullptr, 4, 0);
    ASSERT_LT(k1, value_create(s, Uint32, 0, nullptr, 4, 0));
    ValueRecord r1{};
    ASSERT_NE(value_get(s, k1, &r1), nullptr);

    EXPECT_EQ(value_delete(s, k1), 0);
    // The 28-byte block is the first free element now.
    EXPECT_EQ(flst_m_getFirstOffset(s, 0), k1);
    FreeElement e{};
    ASSERT_NE(flst_m_getElement(s, 0, k1, &e), nullptr);
    EXPECT_EQ(e.size, 28u);

    // The next value reuses the key; its data area is new, behind everything before.
    const uint32_t k3 = value_create(s, Uint32, 0, nullptr, 4, 0);
    EXPECT_EQ(k3, k1);
    ValueRecord r3{};
    ASSERT_NE(value_get(s, k3, &r3), nullptr);
    EXPECT_GT(r3.dataOffset, r1.dataOffset + 4);
}

// No free block fails creation with 45, detail 0; a free list the allocator cannot walk is
// reported as the allocator found it (24, the key of the broken link as detail), not as a full
// medium: that would lose the driver's error word of a failed read. Nothing is written either
// way (not at key 0, no data area); a successful allocation leaves an earlier error as it was.
TEST_F(ValueRecords, AllocationFailuresWriteNothing) {
    const struct {
        uint32_t first, code, detail;
    } lists[] = {{0, KESDB_ERR_VALUE_WRITE, 0}, {8, KESDB_ERR_MEDIA_READ, 12}};
    for (const auto& l : lists) {
        SCOPED_TRACE(l.first);
        ASSERT_EQ(flst_m_setFirstOffset(&db.s, 0, l.first), 0);
        const std::string before = kt::readFile(db.mediumPath);
        ValueRecord r{};
        r.key = 0xDEAD;
        EXPECT_EQ(value_new(&db.s, &r), nullptr);
        EXPECT_EQ(r.key, 0xDEADu);
        EXPECT_EQ(mk::errorOf(db.s), mk::Pair(l.code, l.detail));
        session_setError(&db.s, 0, 0);
        EXPECT_EQ(value_create(&db.s, Uint32, 0, nullptr, 4, 0), 0u);
        EXPECT_EQ(mk::errorOf(db.s), mk::Pair(l.code, l.detail));
        EXPECT_EQ(kt::readFile(db.mediumPath), before);
    }
    ASSERT_EQ(flst_m_setFirstOffset(&db.s, 0, 16), 0);
    session_setError(&db.s, 7, 3);
    ValueRecord r{};
    EXPECT_NE(value_new(&db.s, &r), nullptr);
    EXPECT_EQ(mk::errorOf(db.s), mk::Pair(7, 3));
}

// A data medium that cannot be reached fails every call that moves a value's data: index
// outside the media table 21, open 22 with the driver's error number, and on a medium that
// opens but cannot be read, written or sought (a FIFO) 24, 23, 23. A copy or print whose
// source cannot be read writes nothing.
TEST(ValueDataMedium, FailuresOfEveryCallReachingTheData) {
    kt::TempDir side;
    const std::string dataPath = side.file("data.bin");
    kt::Db db(vk::withFileMedium(dataPath, std::string(8, 'x')));
    ASSERT_GT(db.id, 0);
    Session* s = &db.s;
    const uint32_t v = 0x01020304;
    const uint32_t k = value_create(s, Uint32, 0, &v, 4, 1);
    ASSERT_NE(k, 0u);
    ValueRecord r{};
    ASSERT_NE(value_get(s, k, &r), nullptr);
    EXPECT_EQ(r.dataMedium, 1u);
    EXPECT_EQ(r.dataOffset, 8u);  // the end of the data medium, not of the value medium
    EXPECT_EQ(kt::readWord(dataPath, 8), v);
    const uint32_t leaf = vk::makeLeaf(s, k);
    uint32_t out = 0;
    ASSERT_EQ(kesDBMGetCreateListGeneric(s, leaf, &out, 4), 0);
    EXPECT_EQ(out, v);
    const uint32_t dst = vk::make<uint32_t>(s, Uint32, 1234);

    r.dataMedium = 7;  // outside the media table
    ASSERT_EQ(value_set(s, &r), 0);
    int32_t len = 4;
    EXPECT_EQ(value_getGeneric(s, k, &out, &len), 0);
    EXPECT_EQ(db.s.error, 21u);
    r.dataMedium = 1;
    ASSERT_EQ(value_set(s, &r), 0);

    ASSERT_EQ(unlink(dataPath.c_str()), 0);
    EXPECT_EQ(value_getGeneric(s, k, &out, &len), 22);
    EXPECT_EQ(db.s.errorDetail, static_cast<uint32_t>(ENOENT));
    EXPECT_EQ(kesDBMGetCreateListGeneric(s, leaf, &out, 4), 22);
    EXPECT_EQ(value_copy(s, dst, k), 0);
    EXPECT_EQ(db.s.error, 22u);
    EXPECT_EQ(vk::readU32(s, dst), 1234u);
    EXPECT_EQ(kt::captureStdout([&] { value_print(s, k); }), "err 22\n");

    ASSERT_EQ(mkfifo(dataPath.c_str(), 0600), 0);
    len = 4;
    out = 0xCAFEu;
    EXPECT_EQ(value_getGeneric(s, k, &out, &len), 0);
    EXPECT_EQ(mk::errorOf(db.s), mk::Pair(24, ESPIPE));
    EXPECT_EQ(len, -1);
    EXPECT_EQ(out, 0xCAFEu);
    EXPECT_EQ(value_setGeneric(s, k, &v, 4), 0);
    EXPECT_EQ(db.s.error, 23u);
    EXPECT_EQ(value_copy(s, dst, k), 0);
    EXPECT_EQ(db.s.error, 24u);
    EXPECT_EQ(value_copy2(s, dst, k, 0), 0);
    EXPECT_EQ(vk::readU32(s, dst), 1234u);
}

}  // namespace
