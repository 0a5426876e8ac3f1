// Value print (byte-for-byte lines for every type, short values, failures) and value copy.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include "testkit.hpp"

namespace {

std::string printed(Session* s, uint32_t key) {
    return kt::captureStdout([&] { value_print(s, key); });
}

template <class T>
uint32_t make(Session* s, uint32_t type, T v) {
    return value_create(s, type, 0, &v, static_cast<int32_t>(sizeof v), 0);
}

std::string head(uint32_t key) { return "value " + std::to_string(key); }

TEST(ValuePrint, EveryTypeInItsFormat) {
    kt::Db db;
    ASSERT_GT(db.id, 0);
    Session* s = &db.s;
    struct Case {
        uint32_t key;
        std::string tail;
    };
    const uint8_t generic[10] = {0x01, 0x02, 0x03, 0x04, 0xAB, 0xCD, 0xEF, 0x00, 0x99, 0x98};
    const char text[] = "hello world";
    const std::vector<Case> cases = {
        {value_create(s, Generic, 0, generic, 10, 0), " Generic [01020304 abcdef00 ...]\n"},
        {value_create(s, String, 0, text, sizeof text, 0), " str [hello world]\n"},
        {make<int8_t>(s, Sint8, -128), " Sint8 [-128]\n"},
        {make<int16_t>(s, Sint16, -32768), " Sint16 [-32768]\n"},
        {make<int32_t>(s, Sint32, INT32_MIN), " Sint32 [-2147483648]\n"},
        {make<int64_t>(s, Sint64, INT64_MIN), " Sint64 [-9223372036854775808]\n"},
        {make<uint8_t>(s, Uint8, 255), " Uint8 [255]\n"},
        {make<uint16_t>(s, Uint16, 65535), " Uint16 [65535]\n"},
        {make<uint32_t>(s, Uint32, 4000000000u), " Uint32 [4000000000]\n"},
        {make<uint64_t>(s, Uint64, 1ull << 63), " Uint64 [9223372036854775808]\n"},
        {make<float>(s, Float32, -1.5f), " float32 [-1.500000]\n"},
        {make<double>(s, Float64, 2.25), " flaot64 [2.250000]\n"},
    };
    for (const Case& c : cases) {
        ASSERT_NE(c.key, 0u);
        EXPECT_EQ(printed(s, c.key), head(c.key) + c.tail);
    }

    // The example line, with and without a constraint key (not looked up by the print).
    const uint32_t k = make<int32_t>(s, Sint32, -5);
    EXPECT_EQ(printed(s, k), head(k) + " Sint32 [-5]\n");
    ASSERT_EQ(value_setConstraintKey(s, k, 2048), 0);
    EXPECT_EQ(printed(s, k), head(k) + " cstrt 2048 Sint32 [-5]\n");

    // An unknown type leaves the line open.
    const uint32_t odd = value_create(s, 12, 0, "abcd", 4, 0);
    EXPECT_EQ(printed(s, odd), head(odd));
}

TEST(ValuePrint, KeyZeroUnreadableRecordAndUnreadableData) {
    kt::TempDir side;
    const std::string dataPath = side.file("data.bin");
    kt::writeFile(dataPath, "");
    kt::DbOptions o;
    o.mediaConfig = kt::libPath("libkesdrv_file.so") +
                    " fileMedia_open fileMedia_close fileMedia_read fileMedia_write fileMedia_seek fileMedia_sync " +
                    dataPath + "\n";
    kt::Db db(o);
    ASSERT_GT(db.id, 0);
    Session* s = &db.s;
    EXPECT_EQ(printed(s, 0), "no value\n");
    const uint32_t end = static_cast<uint32_t>(kt::readFile(db.mediumPath).size());
    EXPECT_EQ(printed(s, end + 100), "");  // the record cannot be read: nothing
    EXPECT_EQ(db.s.error, 46u);

    const uint32_t far = make<uint32_t>(s, Uint32, 7);
    ValueRecord r{};
    ASSERT_NE(value_get(s, far, &r), nullptr);
    ASSERT_EQ(r.dataMedium, 0u);
    r.dataMedium = 1;
    r.dataOffset = 0;
    ASSERT_EQ(value_set(s, &r), 0);
    ASSERT_EQ(unlink(dataPath.c_str()), 0);
    EXPECT_EQ(printed(s, far), "err 22\n");

    // A length of 2^31 or more is not allocated.
    r.dataMedium = 0;
    r.length = 0x80000000u;
    ASSERT_EQ(value_set(s, &r), 0);
    EXPECT_EQ(printed(s, far), "err 0\n");
}

TEST(ValuePrint, ShortValuesNeverReadPastTheirData) {
    kt::Db db;
    ASSERT_GT(db.id, 0);
    Session* s = &db.s;
    // Each short value is followed in the medium by bytes that must not show up.
    const uint8_t three[3] = {0xAA, 0xBB, 0xCC};
    const uint32_t g = value_create(s, Generic, 0, three, 3, 0);
    const uint8_t one = 0x80;
    const uint32_t u32 = value_create(s, Uint32, 0, &one, 1, 0);
    const uint32_t s16 = value_create(s, Sint16, 0, &one, 1, 0);
    const uint32_t f64 = value_create(s, Float64, 0, nullptr, 2, 0);
    const uint32_t str = value_create(s, String, 0, "abc", 3, 0);  // no NUL
    const uint32_t empty = value_create(s, String, 0, nullptr, 0, 0);
    const uint32_t emptyU64 = value_create(s, Uint64, 0, nullptr, 0, 0);
    const uint8_t after[8] = {0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11};
    ASSERT_NE(value_create(s, Generic, 0, after, 8, 0), 0u);

    EXPECT_EQ(printed(s, g), head(g) + " Generic [aabbcc00 00000000 ...]\n");
    // The missing bytes read as zeros, the present ones in host order.
    const uint8_t wide[4] = {0x80, 0, 0, 0};
    uint32_t w32 = 0;
    int16_t w16 = 0;
    std::memcpy(&w32, wide, 4);
    std::memcpy(&w16, wide, 2);
    EXPECT_EQ(printed(s, u32), head(u32) + " Uint32 [" + std::to_string(w32) + "]\n");
    EXPECT_EQ(printed(s, s16), head(s16) + " Sint16 [" + std::to_string(w16) + "]\n");
    EXPECT_EQ(printed(s, f64), head(f64) + " flaot64 [0.000000]\n");
    EXPECT_EQ(printed(s, str), head(str) + " str [abc]\n");
    EXPECT_EQ(printed(s, empty), head(empty) + " str []\n");
    EXPECT_EQ(printed(s, emptyU64), head(emptyU64) + " Uint64 [0]\n");
    // A text with an inner NUL ends at it.
    const uint32_t inner = value_create(s, String, 0, "ab\0cd", 5, 0);
    EXPECT_EQ(printed(s, inner), head(inner) + " str [ab]\n");
}

uint32_t readU32(Session* s, uint32_t key) {
    uint32_t v = 0;
    int32_t len = 4;
    return value_getGeneric(s, key, &v, &len) == 0 ? v : 0xBADBADu;
}

std::vector<uint8_t> bytesOf(Session* s, uint32_t key, int32_t n) {
    std::vector<uint8_t> b(static_cast<size_t>(n));
    int32_t len = n;
    if (value_getGeneric(s, key, b.data(), &len) != 0 || len < 0) return {};
    b.resize(static_cast<size_t>(len));
    return b;
}

TEST(ValueCopy, LengthRulesAndConstraint) {
    kt::Db db;
    ASSERT_GT(db.id, 0);
    Session* s = &db.s;
    const uint8_t four[4] = {1, 2, 3, 4};
    const uint8_t eight[8] = {9, 9, 9, 9, 9, 9, 9, 9};
    const uint32_t v4 = value_create(s, Uint32, 0, four, 4, 0);
    const uint32_t v8 = value_create(s, Generic, 0, eight, 8, 0);

    // 4 into 8: the first 4 bytes, the other 4 kept.
    EXPECT_EQ(value_copy(s, v8, v4), 0);
    EXPECT_EQ(bytesOf(s, v8, 8), (std::vector<uint8_t>{1, 2, 3, 4, 9, 9, 9, 9}));
    // 8 into 4: 49, nothing changed.
    const uint8_t other[4] = {7, 7, 7, 7};
    ASSERT_EQ(value_setGeneric(s, v4, other, 4), 0);
    EXPECT_EQ(value_copy(s, v4, v8), 49);
    EXPECT_EQ(db.s.error, 49u);
    EXPECT_EQ(db.s.errorDetail, 0u);
    EXPECT_EQ(value_copy2(s, v4, v8, 0), 49);
    EXPECT_EQ(bytesOf(s, v4, 4), (std::vector<uint8_t>{7, 7, 7, 7}));

    // Types are not compared; equal lengths copy whole.
    const uint32_t f = make<float>(s, Float32, 1.0f);
    EXPECT_EQ(value_copy(s, f, v4), 0);
    EXPECT_EQ(bytesOf(s, f, 4), (std::vector<uint8_t>{7, 7, 7, 7}));

    // The destination's constraint applies.
    const uint32_t low = make<uint32_t>(s, Uint32, 5);
    const uint32_t dest = make<uint32_t>(s, Uint32, 50);
    RangeRecordU32 range{};
    range.type = Uint32;
    range.min = 10;
    range.max = 100;
    ASSERT_NE(rangeU32_new(s, &range), nullptr);
    ASSERT_EQ(value_setConstraintKey(s, dest, range.key), 0);
    EXPECT_EQ(value_copy(s, dest, low), 66);
    EXPECT_EQ(readU32(s, dest), 50u);

    // Unreadable lengths or data: 0, with the cause in the session, nothing written.
    EXPECT_EQ(value_copy(s, 0, v4), 0);
    EXPECT_EQ(db.s.error, 51u);
    EXPECT_EQ(value_copy(s, v8, 0), 0);
    EXPECT_EQ(db.s.error, 51u);
    EXPECT_EQ(value_copy2(s, v8, 0, 1), 0);
    EXPECT_EQ(bytesOf(s, v8, 8), (std::vector<uint8_t>{1, 2, 3, 4, 9, 9, 9, 9}));
}

TEST(ValueCopy, SourceDataThatCannotBeReadIsNotWritten) {
    kt::TempDir side;
    const std::string dataPath = side.file("data.bin");
    kt::writeFile(dataPath, "");
    kt::DbOptions o;
    o.mediaConfig = kt::libPath("libkesdrv_file.so") +
                    " fileMedia_open fileMedia_close fileMedia_read fileMedia_write fileMedia_seek fileMedia_sync " +
                    dataPath + "\n";
    kt::Db db(o);
    ASSERT_GT(db.id, 0);
    Session* s = &db.s;
    const uint32_t src = value_create(s, Uint32, 0, "abcd", 4, 1);
    const uint32_t dst = make<uint32_t>(s, Uint32, 1234);
    ASSERT_NE(src, 0u);
    // A data medium that opens but cannot be read: the read records 24 and the copy gives 0.
    ASSERT_EQ(unlink(dataPath.c_str()), 0);
    ASSERT_EQ(mkfifo(dataPath.c_str(), 0600), 0);
    EXPECT_EQ(value_copy(s, dst, src), 0);
    EXPECT_EQ(db.s.error, 24u);
    EXPECT_EQ(readU32(s, dst), 1234u);
    EXPECT_EQ(value_copy2(s, dst, src, 0), 0);
    EXPECT_EQ(readU32(s, dst), 1234u);
    // A data medium that cannot be opened: the read's 22 is the result.
    ASSERT_EQ(unlink(dataPath.c_str()), 0);
    EXPECT_EQ(value_copy(s, dst, src), 0);
    EXPECT_EQ(db.s.error, 22u);
    EXPECT_EQ(readU32(s, dst), 1234u);
}

TEST(ValueCopy, NoMemoryForTheBufferGives86) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "address space limits do not work under the address sanitizer";
#else
    kt::Db db;
    ASSERT_GT(db.id, 0);
    Session* s = &db.s;
    const uint32_t src = make<uint32_t>(s, Uint32, 1);
    const uint32_t dst = make<uint32_t>(s, Uint32, 2);
    ValueRecord r{};
    ASSERT_NE(value_get(s, dst, &r), nullptr);
    r.length = 0x7FFFFFFFu;
    ASSERT_EQ(value_set(s, &r), 0);
    const int child = kt::runChild([&] {
        if (!kt::leaveNoRoomFor(0x7FFFFFFFu)) return 2;
        if (value_copy(&db.s, dst, src) != 86) return 3;
        if (db.s.error != 86 || db.s.errorDetail != static_cast<uint32_t>(ENOMEM)) return 4;
        if (value_copy2(&db.s, dst, src, 0) != 86) return 5;
        return 0;
    });
    EXPECT_EQ(child, 0);
#endif
}

}  // namespace
