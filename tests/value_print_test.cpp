// Value print (byte-for-byte lines for every type, short values, failures) and the value
// copies (value_copy, value_copy2 and the copy between leaves) where they share their source
// read: its failure and the buffer that cannot be had. Data medium failures are in value_test.
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "mediakit.hpp"
#include "valcstrtkit.hpp"

namespace {

using ValuePrint = vk::DbTest;
using ValueCopy = vk::DbTest;

using vk::make;

std::string printed(Session* s, uint32_t key) {
    return kt::captureStdout([&] { value_print(s, key); });
}

// Each value prints "value <key>" and its tail.
using Line = std::pair<uint32_t, std::string>;
void expectLines(Session* s, const std::vector<Line>& lines) {
    for (const auto& [key, tail] : lines) {
        ASSERT_NE(key, 0u);
        EXPECT_EQ(printed(s, key), "value " + std::to_string(key) + tail);
    }
}

TEST_F(ValuePrint, EveryTypeInItsFormat) {
    const uint8_t generic[10] = {0x01, 0x02, 0x03, 0x04, 0xAB, 0xCD, 0xEF, 0x00, 0x99, 0x98};
    const char text[] = "hello world";
    const uint32_t constrained = make<int32_t>(s, Sint32, -5);
    ASSERT_EQ(value_setConstraintKey(s, constrained, 2048), 0);  // not looked up by the print
    const std::vector<Line> lines = {
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
        {make<int32_t>(s, Sint32, -5), " Sint32 [-5]\n"},
        {constrained, " cstrt 2048 Sint32 [-5]\n"},
        {value_create(s, 12, 0, "abcd", 4, 0), ""},  // an unknown type leaves the line open
    };
    expectLines(s, lines);
}

// Each short value is followed in the medium by bytes that must not show up: the missing
// bytes read as zeros, the present ones in host order; a text ends at the value's end or at an
// inner NUL.
TEST_F(ValuePrint, ShortValuesNeverReadPastTheirData) {
    const uint8_t three[3] = {0xAA, 0xBB, 0xCC}, one = 0x80, wide[4] = {0x80, 0, 0, 0};
    uint32_t w32 = 0;
    int16_t w16 = 0;
    std::memcpy(&w32, wide, 4);
    std::memcpy(&w16, wide, 2);
    const std::vector<Line> lines = {
        {value_create(s, Generic, 0, three, 3, 0), " Generic [aabbcc00 00000000 ...]\n"},
        {value_create(s, Uint32, 0, &one, 1, 0), " Uint32 [" + std::to_string(w32) + "]\n"},
        {value_create(s, Sint16, 0, &one, 1, 0), " Sint16 [" + std::to_string(w16) + "]\n"},
        {value_create(s, Float64, 0, nullptr, 2, 0), " flaot64 [0.000000]\n"},
        {value_create(s, String, 0, "abc", 3, 0), " str [abc]\n"},  // no NUL
        {value_create(s, String, 0, nullptr, 0, 0), " str []\n"},
        {value_create(s, Uint64, 0, nullptr, 0, 0), " Uint64 [0]\n"},
        {value_create(s, String, 0, "ab\0cd", 5, 0), " str [ab]\n"},
    };
    ASSERT_NE(value_create(s, Generic, 0, "\x11\x11\x11\x11\x11\x11\x11\x11", 8, 0), 0u);
    expectLines(s, lines);
}

TEST_F(ValuePrint, KeyZeroUnreadableRecordAndAbsurdLength) {
    EXPECT_EQ(printed(s, 0), "no value\n");
    const uint32_t end = static_cast<uint32_t>(kt::readFile(db.mediumPath).size());
    EXPECT_EQ(printed(s, end + 100), "");  // the record cannot be read: nothing
    EXPECT_EQ(db.s.error, 46u);
    // A length of 2^31 or more is not allocated.
    const uint32_t k = make<uint32_t>(s, Uint32, 7);
    ValueRecord r{};
    ASSERT_NE(value_get(s, k, &r), nullptr);
    r.length = 0x80000000u;
    ASSERT_EQ(value_set(s, &r), 0);
    EXPECT_EQ(printed(s, k), "err 0\n");
}

std::vector<uint8_t> bytesOf(Session* s, uint32_t key, int32_t n) {
    std::vector<uint8_t> b(static_cast<size_t>(n));
    int32_t len = n;
    if (value_getGeneric(s, key, b.data(), &len) != 0 || len < 0) return {};
    b.resize(static_cast<size_t>(len));
    return b;
}

// A shorter source fills the front of the destination; a longer one is refused with 49 and
// nothing written; types are not compared. (The destination's constraint: constraint_write_test.)
TEST_F(ValueCopy, LengthRules) {
    const uint32_t v4 = value_create(s, Uint32, 0, "\1\2\3\4", 4, 0);
    const uint32_t v8 = value_create(s, Generic, 0, "\t\t\t\t\t\t\t\t", 8, 0);

    EXPECT_EQ(value_copy(s, v8, v4), 0);
    EXPECT_EQ(bytesOf(s, v8, 8), (std::vector<uint8_t>{1, 2, 3, 4, 9, 9, 9, 9}));
    ASSERT_EQ(value_setGeneric(s, v4, "\a\a\a\a", 4), 0);
    EXPECT_EQ(value_copy(s, v4, v8), 49);
    EXPECT_EQ(mk::errorOf(*s), mk::Pair(49, 0));
    EXPECT_EQ(value_copy2(s, v4, v8, 0), 49);
    EXPECT_EQ(bytesOf(s, v4, 4), (std::vector<uint8_t>{7, 7, 7, 7}));
    const uint32_t f = make<float>(s, Float32, 1.0f);
    EXPECT_EQ(value_copy(s, f, v4), 0);
    EXPECT_EQ(bytesOf(s, f, 4), (std::vector<uint8_t>{7, 7, 7, 7}));

    // Unreadable lengths: 0, with the cause in the session, nothing written.
    const std::function<int32_t()> unreadable[] = {[&] { return value_copy(s, 0, v4); },
                                                   [&] { return value_copy(s, v8, 0); },
                                                   [&] { return value_copy2(s, v8, 0, 1); }};
    for (const auto& copy : unreadable) {
        session_setError(s, 0, 0);
        EXPECT_EQ(copy(), 0);
        EXPECT_EQ(db.s.error, 51u);
    }
    EXPECT_EQ(bytesOf(s, v8, 8), (std::vector<uint8_t>{1, 2, 3, 4, 9, 9, 9, 9}));
}

// A read of the source's value record that fails once (the copy between leaves reads it first
// for the length and again for the data; the value copies read it after both lengths) returns
// 0 with its code recorded, so the copy goes on: the destination receives the zero-filled
// buffer and the code stays in the session.
TEST(ValueCopyFault, SourceRecordThatCannotBeReadGivesZeros) {
    kt::TempDir side;
    const std::string records = side.file("values.bin");
    ASSERT_EQ(kesdb_layMedium(records.c_str(), 4096, 0), 0);
    kt::DbOptions o;
    o.mediaConfig = mk::driverLine("libkesdrv_fault.so", "faultMedia_", records);
    o.valueMedium = 1;  // value records through the fault driver; leaves and data in medium 0
    mk::FaultControl fault;
    ASSERT_TRUE(fault.ok());
    kt::Db db(o);
    ASSERT_GT(db.id, 0);
    Session* s = &db.s;
    const uint32_t src = make<uint32_t>(s, Uint32, 77);
    const uint32_t dst = make<uint32_t>(s, Uint32, 1234);
    const uint32_t srcLeaf = vk::makeLeaf(s, src), dstLeaf = vk::makeLeaf(s, dst);
    ASSERT_NE(srcLeaf * dstLeaf, 0u);
    const struct {
        const char* name;
        uint32_t failingRead;
        std::function<int32_t()> copy;
    } copies[] = {
        {"value_copy", 3, [&] { return value_copy(s, dst, src); }},
        {"value_copy2", 3, [&] { return value_copy2(s, dst, src, 0); }},
        {"kesDBMCopy length", 1, [&] { return kesDBMCopy(s, srcLeaf, dstLeaf); }},
        {"kesDBMCopy data", 3, [&] { return kesDBMCopy(s, srcLeaf, dstLeaf); }},
    };
    for (const auto& c : copies) {
        SCOPED_TRACE(c.name);
        ASSERT_EQ(value_setGeneric(s, dst, "\1\2\3\4", 4), 0);
        fault.reset();
        fault.fail(KESDRV_FAULT_READ, c.failingRead, EIO);
        session_setError(s, 0, 0);
        EXPECT_EQ(c.copy(), 0);
        EXPECT_EQ(mk::errorOf(*s), mk::Pair(KESDB_ERR_VALUE_READ, EIO));
        EXPECT_EQ(vk::readU32(s, dst), 0u);
        EXPECT_EQ(fault.opens(), fault.closes());
    }
    // Unhindered, each copy goes through and leaves an earlier error as it was.
    for (const auto& c : copies) {
        SCOPED_TRACE(c.name);
        fault.reset();
        ASSERT_EQ(value_setGeneric(s, dst, "\0\0\0\0", 4), 0);
        session_setError(s, 7, 3);
        EXPECT_EQ(c.copy(), 0);
        EXPECT_EQ(vk::readU32(s, dst), 77u);
        EXPECT_EQ(mk::errorOf(*s), mk::Pair(7, 3));
    }
}

// A destination too long to buffer under the address space limit: every copy gives 86.
TEST_F(ValueCopy, NoMemoryForTheBufferGives86) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "address space limits do not work under the address sanitizer";
#else
    const uint32_t src = make<uint32_t>(s, Uint32, 1);
    const uint32_t dst = make<uint32_t>(s, Uint32, 2);
    const uint32_t srcLeaf = vk::makeLeaf(s, src), dstLeaf = vk::makeLeaf(s, dst);
    ASSERT_NE(srcLeaf * dstLeaf, 0u);
    ValueRecord r{};
    ASSERT_NE(value_get(s, dst, &r), nullptr);
    r.length = 0x7FFFFFFFu;
    ASSERT_EQ(value_set(s, &r), 0);
    const int child = kt::runChild([&] {
        if (!kt::leaveNoRoomFor(0x7FFFFFFFu)) return 2;
        const std::function<int32_t()> copies[] = {[&] { return value_copy(s, dst, src); },
                                                   [&] { return value_copy2(s, dst, src, 0); },
                                                   [&] { return kesDBMCopy(s, srcLeaf, dstLeaf); }};
        int step = 3;
        for (const auto& copy : copies) {
            session_setError(s, 0, 0);
            if (copy() != 86 || mk::errorOf(*s) != mk::Pair(86, ENOMEM)) return step;
            ++step;
        }
        return 0;
    });
    EXPECT_EQ(child, 0);
#endif
}

}  // namespace
