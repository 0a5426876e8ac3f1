// Value records: layout on the medium, creation with data areas at the end of the data medium,
// the length rules of reads and writes, deletion, the constraint on writes, and the failures
// of unreadable records and media.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "testkit.hpp"
#include "valcstrtkit.hpp"

namespace {

uint32_t fileSize(const std::string& path) {
    struct stat st{};
    return stat(path.c_str(), &st) == 0 ? static_cast<uint32_t>(st.st_size) : 0u;
}

using vk::dataOf;

TEST(ValueRecord, CreateLaysRecordAndAppendsAdjacentZeroedDataAreas) {
    kt::Db db;
    ASSERT_GT(db.id, 0);
    Session* s = &db.s;
    const uint32_t oldEnd = fileSize(db.mediumPath);

    const uint32_t word = 0xA1B2C3D4u;
    const uint32_t k1 = value_create(s, Uint32, 0x77, &word, 4, 0);
    ASSERT_NE(k1, 0u);
    // The record, word by word, on the medium at its own key.
    std::vector<uint32_t> w(7);
    std::vector<uint8_t> raw = kt::readBytes(db.mediumPath, k1, 28);
    ASSERT_EQ(raw.size(), 28u);
    std::memcpy(w.data(), raw.data(), 28);
    EXPECT_EQ(w[0], k1);
    EXPECT_EQ(w[1], static_cast<uint32_t>(Uint32));
    EXPECT_EQ(w[2], 0u);       // data medium
    EXPECT_EQ(w[3], oldEnd);   // data area at the old end of the medium
    EXPECT_EQ(w[4], 4u);       // length
    EXPECT_EQ(w[5], 0x77u);    // creator word, stored as given
    EXPECT_EQ(w[6], 0u);       // no constraint
    EXPECT_EQ(kt::readWord(db.mediumPath, oldEnd), word);

    // Without data: zero-filled areas of the given size, each directly behind the previous one.
    const uint32_t k2 = value_create(s, Generic, 0, nullptr, 5, 0);
    const uint32_t k3 = value_create(s, 99, 0, nullptr, 3, 0);  // any type code is accepted
    ASSERT_NE(k2, 0u);
    ASSERT_NE(k3, 0u);
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
    EXPECT_EQ(value_getConstraintKey(s, k1), 0u);

    // A size of 0 makes an empty data area; a negative size is refused before anything happens.
    const uint32_t k4 = value_create(s, Generic, 0, nullptr, 0, 0);
    ASSERT_NE(k4, 0u);
    EXPECT_EQ(value_getLength(s, k4), 0);
    const uint32_t before = fileSize(db.mediumPath);
    EXPECT_EQ(value_create(s, Generic, 0, nullptr, -1, 0), 0u);
    EXPECT_EQ(db.s.error, static_cast<uint32_t>(KESDB_ERR_MEDIA_WRITE));
    EXPECT_EQ(fileSize(db.mediumPath), before);
}

TEST(ValueRecord, UnreadableRecordsGiveTheirFailureValues) {
    kt::Db db;
    ASSERT_GT(db.id, 0);
    Session* s = &db.s;
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

    // No database for the session: 83; a null session or buffer is no crash.
    Session other = db.s;
    other.dbId = 31;
    EXPECT_EQ(value_get(&other, 16, &r), nullptr);
    EXPECT_EQ(other.error, 83u);
    EXPECT_EQ(value_set(&other, &r), 83);
    EXPECT_EQ(value_create(&other, Uint8, 0, nullptr, 1, 0), 0u);
    EXPECT_EQ(other.error, 83u);
    EXPECT_EQ(value_get(nullptr, 16, &r), nullptr);
    EXPECT_EQ(value_create(nullptr, Uint8, 0, nullptr, 1, 0), 0u);
    EXPECT_EQ(value_get(s, 16, nullptr), nullptr);
    EXPECT_EQ(value_set(s, nullptr), KESDB_ERR_NULLARG);
    int32_t len = 4;
    EXPECT_EQ(value_getGeneric(s, 16, nullptr, &len), KESDB_ERR_NULLARG);
    EXPECT_EQ(value_setGeneric(s, 16, nullptr, 4), KESDB_ERR_NULLARG);
}

TEST(ValueRecord, SetWritesWholeRecordAndClearsTheError) {
    kt::Db db;
    ASSERT_GT(db.id, 0);
    Session* s = &db.s;
    const uint32_t k = value_create(s, Sint16, 0, nullptr, 2, 0);
    ASSERT_NE(k, 0u);
    session_setError(s, 51, 9);
    EXPECT_EQ(value_setConstraintKey(s, k, 0x1234), 0);
    EXPECT_EQ(db.s.error, 0u);  // the full record write records 0
    EXPECT_EQ(value_getConstraintKey(s, k), 0x1234u);
    EXPECT_EQ(kt::readWord(db.mediumPath, k + 24), 0x1234u);
    EXPECT_EQ(value_getType(s, k), Sint16);  // the other words are written back unchanged
}

TEST(ValueRecord, LengthRulesOfDataReadsAndWrites) {
    kt::Db db;
    ASSERT_GT(db.id, 0);
    Session* s = &db.s;
    const uint32_t u8 = value_create(s, Uint8, 0, nullptr, 1, 0);
    const uint8_t guardBytes[4] = {0xEE, 0xEE, 0xEE, 0xEE};
    const uint32_t guard = value_create(s, Generic, 0, guardBytes, 4, 0);  // right behind u8's byte
    ASSERT_NE(u8, 0u);
    ASSERT_NE(guard, 0u);

    // A 4-byte buffer into a 1-byte value stores its first byte only; the length stays 1.
    const uint8_t four[4] = {0x11, 0x22, 0x33, 0x44};
    EXPECT_EQ(value_setGeneric(s, u8, four, 4), 0);
    EXPECT_EQ(dataOf(db, u8, 5), (std::vector<uint8_t>{0x11, 0xEE, 0xEE, 0xEE, 0xEE}));
    EXPECT_EQ(value_getLength(s, u8), 1);

    // A 16-byte value read into an 8-byte buffer: 8 bytes, length word 8, result 0.
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
    EXPECT_EQ(eight[8], 0xCC);  // nothing past the buffer's size

    // A buffer larger than the value: the value's length is read.
    uint8_t big[32] = {};
    len = 32;
    EXPECT_EQ(value_getGeneric(s, g16, big, &len), 0);
    EXPECT_EQ(len, 16);

    // A shorter write overwrites the first bytes only.
    const uint8_t two[2] = {0x01, 0x02};
    EXPECT_EQ(value_setGeneric(s, g16, two, 2), 0);
    std::vector<uint8_t> now = dataOf(db, g16, 16);
    ASSERT_EQ(now.size(), 16u);
    EXPECT_EQ(now[0], 0x01);
    EXPECT_EQ(now[1], 0x02);
    EXPECT_EQ(std::memcmp(now.data() + 2, sixteen + 2, 14), 0);

    // Negative lengths move nothing.
    len = -5;
    EXPECT_EQ(value_getGeneric(s, g16, big, &len), 0);
    EXPECT_EQ(len, 0);
    EXPECT_EQ(value_setGeneric(s, g16, sixteen, -1), 0);
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

TEST(ValueRecord, DeleteReturnsTheBlockButNotTheDataArea) {
    setenv("SIM_BYTE_ORDER", "", 1);  // free elements in host order, to read them back here
    kt::Db db;
    ASSERT_GT(db.id, 0);
    Session* s = &db.s;
    const uint32_t k1 = value_create(s, Uint32, 0, nullptr, 4, 0);
    const uint32_t k2 = value_create(s, Uint32, 0, nullptr, 4, 0);
    ASSERT_NE(k1, 0u);
    ASSERT_NE(k2, 0u);
    ASSERT_LT(k1, k2);
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

TEST(ValueRecord, FullValueMediumFailsCreationWithoutWritingAtKeyZero) {
    kt::DbOptions o;
    o.mediumSize = 32;  // header and one free element of 16 bytes: too small for a record
    kt::Db db(o);
    ASSERT_GT(db.id, 0);
    const std::vector<uint8_t> before = kt::readBytes(db.mediumPath, 0, 32);
    ValueRecord r{};
    r.key = 0xDEAD;
    EXPECT_EQ(value_new(&db.s, &r), nullptr);
    EXPECT_EQ(r.key, 0xDEADu);
    EXPECT_EQ(db.s.error, static_cast<uint32_t>(KESDB_ERR_VALUE_WRITE));
    EXPECT_EQ(db.s.errorDetail, 0u);
    EXPECT_EQ(value_create(&db.s, Uint32, 0, nullptr, 4, 0), 0u);
    EXPECT_EQ(db.s.error, static_cast<uint32_t>(KESDB_ERR_VALUE_WRITE));
    EXPECT_EQ(kt::readBytes(db.mediumPath, 0, 32), before);
    EXPECT_EQ(fileSize(db.mediumPath), 32u);  // no data area appended either
}

TEST(ValueRecord, ConstraintRefusalLeavesTheDataUnchanged) {
    kt::Db db;
    ASSERT_GT(db.id, 0);
    Session* s = &db.s;
    const uint32_t v = 50;
    const uint32_t k = value_create(s, Uint32, 0, &v, 4, 0);
    ASSERT_NE(k, 0u);
    RangeRecordU32 range{};
    range.type = Uint32;
    range.min = 10;
    range.max = 100;
    range.step = 0;
    ASSERT_NE(rangeU32_new(s, &range), nullptr);
    ASSERT_EQ(value_setConstraintKey(s, k, range.key), 0);

    const uint32_t above = 101, below = 9, inside = 70;
    EXPECT_EQ(value_setGeneric(s, k, &above, 4), 67);
    EXPECT_EQ(value_setGeneric(s, k, &below, 4), 66);
    uint32_t out = 0;
    int32_t len = 4;
    ASSERT_EQ(value_getGeneric(s, k, &out, &len), 0);
    EXPECT_EQ(out, 50u);
    EXPECT_EQ(value_setGeneric(s, k, &inside, 4), 0);
    ASSERT_EQ(value_getGeneric(s, k, &out, &len), 0);
    EXPECT_EQ(out, 70u);
}

TEST(ValueRecord, DataMediumFailures) {
    kt::TempDir side;
    const std::string dataPath = side.file("data.bin");
    kt::writeFile(dataPath, std::string(8, 'x'));
    kt::DbOptions o;
    o.mediaConfig = vk::fileMediumLine(dataPath);
    kt::Db db(o);
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

    // Data medium index outside the media table: 21, the calls give 0.
    const uint32_t bad = value_create(s, Uint32, 0, &v, 4, 7);
    EXPECT_EQ(bad, 0u);
    EXPECT_EQ(db.s.error, 21u);
    r.dataMedium = 7;
    const uint32_t orphanKey = k;
    ASSERT_EQ(value_set(s, &r), 0);
    uint32_t out = 0;
    int32_t len = 4;
    EXPECT_EQ(value_getGeneric(s, orphanKey, &out, &len), 0);
    EXPECT_EQ(db.s.error, 21u);
    EXPECT_EQ(value_setGeneric(s, orphanKey, &v, 4), 0);
    EXPECT_EQ(db.s.error, 21u);
    r.dataMedium = 1;
    ASSERT_EQ(value_set(s, &r), 0);

    // The data medium cannot be opened: 22 with the driver's error number.
    ASSERT_EQ(unlink(dataPath.c_str()), 0);
    EXPECT_EQ(value_getGeneric(s, k, &out, &len), 22);
    EXPECT_EQ(db.s.errorDetail, static_cast<uint32_t>(ENOENT));
    EXPECT_EQ(value_setGeneric(s, k, &v, 4), 22);
    EXPECT_EQ(value_create(s, Uint32, 0, &v, 4, 1), 0u);
    EXPECT_EQ(db.s.error, 22u);

    // The data medium opens but cannot be read, written or sought (a FIFO): 24, 23, 23.
    ASSERT_EQ(mkfifo(dataPath.c_str(), 0600), 0);
    len = 4;
    out = 0xCAFEu;
    EXPECT_EQ(value_getGeneric(s, k, &out, &len), 0);
    EXPECT_EQ(db.s.error, 24u);
    EXPECT_EQ(db.s.errorDetail, static_cast<uint32_t>(ESPIPE));
    EXPECT_EQ(len, -1);
    EXPECT_EQ(out, 0xCAFEu);
    EXPECT_EQ(value_setGeneric(s, k, &v, 4), 0);
    EXPECT_EQ(db.s.error, 23u);
    EXPECT_EQ(value_create(s, Uint32, 0, &v, 4, 1), 0u);  // no end to append at
    EXPECT_EQ(db.s.error, 23u);
}

TEST(ValueRecord, ValueMediumThatCannotTransferRecords) {
    kt::Db db;
    ASSERT_GT(db.id, 0);
    Session* s = &db.s;
    const uint32_t k = value_create(s, Uint32, 0, nullptr, 4, 0);
    ASSERT_NE(k, 0u);
    ValueRecord r{};
    ASSERT_NE(value_get(s, k, &r), nullptr);
    const std::string fifo = db.dir.file("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    setenv("KESDB_DEFMEDIA", fifo.c_str(), 1);
    EXPECT_EQ(value_set(s, &r), 45);
    EXPECT_EQ(db.s.errorDetail, static_cast<uint32_t>(ESPIPE));
    EXPECT_EQ(value_get(s, k, &r), nullptr);
    EXPECT_EQ(db.s.error, 46u);
    EXPECT_EQ(db.s.errorDetail, static_cast<uint32_t>(ESPIPE));
}

}  // namespace
