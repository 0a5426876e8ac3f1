// Values: records and data areas on the media, the public value calls of every type width,
// length rules, copies and their failed source reads, the printout, and unreachable data media.
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "mediakit.hpp"
#include "valcstrtkit.hpp"

namespace {

using Value = vk::DbTest;
using Bytes = std::vector<uint8_t>;
using vk::dataOf;
using vk::make;
using vk::makeLeaf;

std::string printed(Session* s, uint32_t key) {
    return kt::captureStdout([&] { value_print(s, key); });
}

template <class T>
void roundTrip(kt::Db& db, uint32_t type, int32_t (*set)(Session*, uint32_t, T), int32_t (*get)(Session*, uint32_t, T*),
               T value, const std::string& print) {
    SCOPED_TRACE(type);
    const uint32_t v = value_create(&db.s, type, 0, nullptr, sizeof(T), 0), leaf = makeLeaf(&db.s, v);
    ASSERT_EQ(set(&db.s, leaf, value), 0);
    T out{};
    ASSERT_EQ(get(&db.s, leaf, &out), 0);
    EXPECT_EQ(std::memcmp(&out, &value, sizeof(T)), 0);
    EXPECT_EQ(dataOf(db, v, sizeof(T)), Bytes(reinterpret_cast<uint8_t*>(&value), reinterpret_cast<uint8_t*>(&value) + sizeof(T)));
    EXPECT_EQ(kesDBMGetType(&db.s, leaf), static_cast<int32_t>(type));
    EXPECT_EQ(kesDBMGetLength(&db.s, leaf), static_cast<int32_t>(sizeof(T)));
    EXPECT_EQ(printed(&db.s, v), "value " + std::to_string(v) + " " + print + "\n");
}

TEST_F(Value, EveryTypeRoundTripsAndPrints) {
    roundTrip<double>(db, Float64, kesDBMSetFloat64, kesDBMGetFloat64, 2.25, "flaot64 [2.250000]");
    roundTrip<float>(db, Float32, kesDBMSetFloat32, kesDBMGetFloat32, -1.5f, "float32 [-1.500000]");
    roundTrip<uint64_t>(db, Uint64, kesDBMSetUint64, kesDBMGetUint64, 1ull << 63, "Uint64 [9223372036854775808]");
    roundTrip<uint32_t>(db, Uint32, kesDBMSetUint32, kesDBMGetUint32, 4000000000u, "Uint32 [4000000000]");
    roundTrip<uint16_t>(db, Uint16, kesDBMSetUint16, kesDBMGetUint16, 65535, "Uint16 [65535]");
    roundTrip<uint8_t>(db, Uint8, kesDBMSetUint8, kesDBMGetUint8, 255, "Uint8 [255]");
    roundTrip<int64_t>(db, Sint64, kesDBMSetSint64, kesDBMGetSint64, INT64_MIN, "Sint64 [-9223372036854775808]");
    roundTrip<int32_t>(db, Sint32, kesDBMSetSint32, kesDBMGetSint32, INT32_MIN, "Sint32 [-2147483648]");
    roundTrip<int16_t>(db, Sint16, kesDBMSetSint16, kesDBMGetSint16, -32768, "Sint16 [-32768]");
    roundTrip<int8_t>(db, Sint8, kesDBMSetSint8, kesDBMGetSint8, -128, "Sint8 [-128]");
    // Strings: the text and its NUL are written, the rest is left; a longer text is cut.
    const uint32_t sv = value_create(s, String, 0, "ZZZZZZZZZZZZ", 12, 0), leaf = makeLeaf(s, sv);
    ASSERT_EQ(kesDBMSetString(s, leaf, "hi"), 0);
    EXPECT_EQ(dataOf(db, sv, 5), (Bytes{'h', 'i', 0, 'Z', 'Z'}));
    char text[16];
    ASSERT_EQ(kesDBMGetString(s, leaf, text, sizeof text), 0);
    EXPECT_STREQ(text, "hi");
    EXPECT_EQ(printed(s, sv), "value " + std::to_string(sv) + " str [hi]\n");
    ASSERT_EQ(kesDBMSetString(s, leaf, "0123456789abcdef"), 0);
    const std::string cut = "0123456789ab";
    EXPECT_EQ(dataOf(db, sv, 12), Bytes(cut.begin(), cut.end()));
    EXPECT_EQ(kesDBMSetString(s, leaf, nullptr), KESDB_ERR_NULLARG);
    // Default and factory values are their own records.
    const uint32_t three = makeLeaf(s, make<uint32_t>(s, Uint32, 1), make<uint32_t>(s, Uint32, 2), make<uint32_t>(s, Uint32, 3));
    auto read = [&](int32_t (*get)(Session*, uint32_t, void*, int32_t*)) {
        uint32_t out = 0;
        int32_t len = 4;
        return get(s, three, &out, &len) == 0 ? out : 0xBADu;
    };
    const uint32_t nd = 20;
    ASSERT_EQ(kesDBMSetDefaultGeneric(s, three, &nd, 4), 0);
    EXPECT_EQ(read(kesDBMGetGeneric) * 100 + read(kesDBMGetDefaultGeneric) * 10 + read(kesDBMGetFactoryGeneric), 303u);
}

// Generic values print their first 8 bytes; short values read missing bytes as zeros and never
// past their data; a text ends at the value's end or an inner NUL; a constraint key is shown.
TEST_F(Value, PrintSpotChecks) {
    const uint8_t generic[10] = {0x01, 0x02, 0x03, 0x04, 0xAB, 0xCD, 0xEF, 0x00, 0x99, 0x98}, one = 0x80;
    const uint32_t constrained = make<int32_t>(s, Sint32, -5);
    ASSERT_EQ(value_setConstraintKey(s, constrained, 2048), 0);
    uint32_t w32 = 0;
    std::memcpy(&w32, &one, 1);
    const std::pair<uint32_t, std::string> lines[] = {
        {value_create(s, Generic, 0, generic, 10, 0), " Generic [01020304 abcdef00 ...]\n"},
        {value_create(s, Generic, 0, generic, 3, 0), " Generic [01020300 00000000 ...]\n"},
        {value_create(s, Uint32, 0, &one, 1, 0), " Uint32 [" + std::to_string(w32) + "]\n"},
        {value_create(s, Float64, 0, nullptr, 2, 0), " flaot64 [0.000000]\n"},
        {value_create(s, String, 0, "abc", 3, 0), " str [abc]\n"},
        {value_create(s, String, 0, "ab\0cd", 5, 0), " str [ab]\n"},
        {constrained, " cstrt 2048 Sint32 [-5]\n"},
        {value_create(s, 12, 0, "abcd", 4, 0), ""},  // an unknown type leaves the line open
    };
    ASSERT_NE(value_create(s, Generic, 0, "\x11\x11\x11\x11\x11\x11\x11\x11", 8, 0), 0u);
    for (const auto& [key, tail] : lines) EXPECT_EQ(printed(s, key), "value " + std::to_string(key) + tail);
    EXPECT_EQ(printed(s, 0), "no value\n");
    EXPECT_EQ(printed(s, static_cast<uint32_t>(kt::readFile(db.mediumPath).size()) + 100), "");
    EXPECT_EQ(db.s.error, 46u);
    ValueRecord r{};
    ASSERT_NE(value_get(s, constrained, &r), nullptr);
    r.length = 0x80000000u;  // not allocated
    ASSERT_EQ(value_set(s, &r), 0);
    EXPECT_EQ(printed(s, constrained), "err 0\n");
}

TEST_F(Value, CreateLaysRecordAndAppendsAdjacentZeroedDataAreas) {
    const uint32_t oldEnd = static_cast<uint32_t>(kt::readFile(db.mediumPath).size()), word = 0xA1B2C3D4u;
    const uint32_t k1 = value_create(s, Uint32, 0x77, &word, 4, 0);
    const uint32_t want[7] = {k1, Uint32, 0, oldEnd, 4, 0x77, 0};
    EXPECT_EQ(kt::readBytes(db.mediumPath, k1, 28), Bytes(reinterpret_cast<const uint8_t*>(want), reinterpret_cast<const uint8_t*>(want) + 28));
    EXPECT_EQ(kt::readWord(db.mediumPath, oldEnd), word);
    const uint32_t k2 = value_create(s, Generic, 0, nullptr, 5, 0), k3 = value_create(s, 99, 0, nullptr, 3, 0);
    ValueRecord r3{};
    ASSERT_NE(value_get(s, k3, &r3), nullptr);
    EXPECT_EQ(r3.dataOffset, oldEnd + 9);
    EXPECT_EQ(value_getType(s, k3), 99);
    EXPECT_EQ(value_getLength(s, k2), 5);
    EXPECT_EQ(kt::readBytes(db.mediumPath, oldEnd + 4, 8), Bytes(8, 0));
    EXPECT_EQ(value_create(s, Generic, 0, nullptr, -1, 0), 0u);  // refused before anything happens
    EXPECT_EQ(db.s.error, static_cast<uint32_t>(KESDB_ERR_MEDIA_WRITE));
    EXPECT_EQ(kt::readFile(db.mediumPath).size(), oldEnd + 12u);
    session_setError(s, 51, 9);
    EXPECT_EQ(value_setConstraintKey(s, k1, 0x1234), 0);  // writes the whole record, clears the error
    EXPECT_EQ(mk::errorOf(db.s), mk::Pair(0, 0));
    EXPECT_EQ(kt::readWord(db.mediumPath, k1 + 24), 0x1234u);
    // A deleted record's block is reused; its data area is not.
    EXPECT_EQ(value_delete(s, k1), 0);
    EXPECT_EQ(value_create(s, Uint32, 0, nullptr, 4, 0), k1);
    ValueRecord r1{};
    ASSERT_NE(value_get(s, k1, &r1), nullptr);
    EXPECT_EQ(r1.dataOffset, oldEnd + 12);
}

TEST_F(Value, LengthRules) {
    const uint32_t u8v = make<uint8_t>(s, Uint8, 0x7B);
    ASSERT_NE(value_create(s, Generic, 0, "\xEE\xEE\xEE\xEE", 4, 0), 0u);  // right behind its byte
    const uint32_t leaf = makeLeaf(s, u8v);
    // A 4-byte variable and a 1-byte value: the first byte moves, the length stays 1.
    uint32_t out = 0xAABBCCDDu;
    ASSERT_EQ(kesDBMGetUint32(s, leaf, &out), 0);
    EXPECT_EQ(out, vk::firstBytes(0xAABBCCDDu, 0x7B7B7B7Bu, 1));
    const uint32_t word = 0x11223344u;
    ASSERT_EQ(kesDBMSetUint32(s, leaf, word), 0);
    EXPECT_EQ(dataOf(db, u8v, 5), (Bytes{reinterpret_cast<const uint8_t*>(&word)[0], 0xEE, 0xEE, 0xEE, 0xEE}));
    EXPECT_EQ(value_getLength(s, u8v), 1);
    // A longer value read into a shorter buffer; a shorter write overwrites the first bytes.
    const uint32_t g8 = value_create(s, Generic, 0, "ABCDEFGH", 8, 0);
    uint8_t buf[6];
    std::memset(buf, 0xCC, sizeof buf);
    int32_t len = 4;
    EXPECT_EQ(value_getGeneric(s, g8, buf, &len), 0);
    EXPECT_EQ(Bytes(buf, buf + 6), (Bytes{'A', 'B', 'C', 'D', 0xCC, 0xCC}));
    EXPECT_EQ(value_setGeneric(s, g8, "xy", 2), 0);
    EXPECT_EQ(value_setGeneric(s, g8, "zz", -1), 0);  // negative lengths move nothing
    len = -5;
    EXPECT_EQ(value_getGeneric(s, g8, buf, &len), 0);
    EXPECT_EQ(len, 0);
    EXPECT_EQ(dataOf(db, g8, 8), (Bytes{'x', 'y', 'C', 'D', 'E', 'F', 'G', 'H'}));
    // The create-list read runs past the value's length; a negative count reads nothing.
    std::memset(buf, 0xCC, sizeof buf);
    EXPECT_EQ(kesDBMGetCreateListGeneric(s, leaf, buf, 5), 0);
    EXPECT_EQ(Bytes(buf, buf + 6), (Bytes{reinterpret_cast<const uint8_t*>(&word)[0], 0xEE, 0xEE, 0xEE, 0xEE, 0xCC}));
    EXPECT_EQ(value_getCreateListGeneric(s, u8v, buf, -3), 0);
    EXPECT_EQ(value_getCreateListGeneric(s, u8v, nullptr, 3), KESDB_ERR_NULLARG);
}

// Nodes give 1, key 0 gives 4 (detail 0, nothing moved); unreadable records give their codes.
TEST_F(Value, NodesKeyZeroAndUnreadableRecords) {
    const uint32_t node = vk::makeNode(s);
    uint32_t out = 0x55555555u;
    int32_t len = 4;
    const uint32_t v = 9;
    const std::function<int32_t(uint32_t)> calls[] = {
        [&](uint32_t k) { return kesDBMGetGeneric(s, k, &out, &len); },
        [&](uint32_t k) { return kesDBMGetDefaultGeneric(s, k, &out, &len); },
        [&](uint32_t k) { return kesDBMGetFactoryGeneric(s, k, &out, &len); },
        [&](uint32_t k) { return kesDBMGetCreateListGeneric(s, k, &out, 4); },
        [&](uint32_t k) { return kesDBMSetGeneric(s, k, &v, 4); },
        [&](uint32_t k) { return kesDBMSetDefaultGeneric(s, k, &v, 4); },
        [&](uint32_t k) { return kesDBMSetUint32(s, k, 5); },
        [&](uint32_t k) { return kesDBMGetString(s, k, reinterpret_cast<char*>(&out), 4); },
    };
    for (const auto& [key, code] : {std::pair<uint32_t, int32_t>{node, 1}, {0u, 4}}) {
        for (size_t i = 0; i < std::size(calls); ++i) {
            session_setError(s, 0, 0);
            EXPECT_EQ(calls[i](key), code) << key << " " << i;
            EXPECT_EQ(mk::errorOf(*s), mk::Pair(code, 0));
        }
        EXPECT_EQ(out, 0x55555555u);
        EXPECT_EQ(kesDBMGetType(s, key), -1);
        EXPECT_EQ(kesDBMGetLength(s, key), 0);
    }
    EXPECT_EQ(kesDBMGetGeneric(s, node, &out, nullptr), KESDB_ERR_NULLARG);
    EXPECT_EQ(kesDBMGetUint32(nullptr, node, &out), KESDB_ERR_DB_NOTFOUND);
    // A leaf without a value record: -1, reads give 0 with 51 recorded.
    const uint32_t orphan = makeLeaf(s, 0);
    EXPECT_EQ(kesDBMGetType(s, orphan), -1);
    EXPECT_EQ(kesDBMGetLength(s, orphan), -1);
    EXPECT_EQ(kesDBMGetUint32(s, orphan, &out), 0);
    EXPECT_EQ(db.s.error, 51u);
    EXPECT_EQ(value_getCreateListGeneric(s, 0, &out, 3), 0);
    EXPECT_EQ(value_delete(s, 0), 51);
    const uint32_t end = static_cast<uint32_t>(kt::readFile(db.mediumPath).size());
    EXPECT_EQ(value_getLength(s, end - 10), -1);  // cut short by the medium's end
    EXPECT_EQ(db.s.error, 46u);
    EXPECT_EQ(value_set(s, nullptr), KESDB_ERR_NULLARG);
}

// A shorter source fills the front (the copy between leaves then zeros the rest), a longer one
// is refused with 49; types are not compared; a source that cannot be read gives zeros, 0
// returned and 51 left in the session.
TEST_F(Value, Copies) {
    const uint32_t v4 = value_create(s, Uint32, 0, "\1\2\3\4", 4, 0), v8 = value_create(s, Generic, 0, "\t\t\t\t\t\t\t\t", 8, 0);
    EXPECT_EQ(value_copy(s, v8, v4), 0);
    EXPECT_EQ(dataOf(db, v8, 8), (Bytes{1, 2, 3, 4, 9, 9, 9, 9}));
    EXPECT_EQ(value_copy(s, v4, v8), 49);
    EXPECT_EQ(value_copy2(s, v4, v8, 0), 49);
    EXPECT_EQ(mk::errorOf(*s), mk::Pair(49, 0));
    for (const auto& copy : {std::function<int32_t()>([&] { return value_copy(s, 0, v4); }),
                             std::function<int32_t()>([&] { return value_copy2(s, v8, 0, 1); })}) {
        session_setError(s, 0, 0);
        EXPECT_EQ(copy(), 0);
        EXPECT_EQ(db.s.error, 51u);
    }
    const uint32_t l4 = makeLeaf(s, v4), l8 = makeLeaf(s, v8), orphan = makeLeaf(s, 0);
    ASSERT_EQ(value_setGeneric(s, v8, "\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF", 8), 0);
    EXPECT_EQ(kesDBMCopy(s, l4, l8), 0);
    EXPECT_EQ(dataOf(db, v8, 8), (Bytes{1, 2, 3, 4, 0, 0, 0, 0}));
    EXPECT_EQ(kesDBMCopy(s, l8, l4), 0);  // cut to the destination
    EXPECT_EQ(kesDBMCopy(s, l4, vk::makeNode(s)), 1);
    EXPECT_EQ(kesDBMCopy(s, orphan, l4), 0);
    EXPECT_EQ(db.s.error, 51u);
    EXPECT_EQ(dataOf(db, v4, 4), Bytes(4, 0));
    EXPECT_EQ(kesDBMCopy(s, l4, orphan), KESDB_ERR_NOMEM);  // no length to allocate
}

// A read of the source's value record that fails once (the copy between leaves reads it for
// the length and again for the data) returns 0 with its code: the destination gets zeros.
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
    Session* s = &db.s;
    const uint32_t src = make<uint32_t>(s, Uint32, 77), dst = make<uint32_t>(s, Uint32, 1234);
    const uint32_t srcLeaf = makeLeaf(s, src), dstLeaf = makeLeaf(s, dst);
    const struct {
        uint32_t failingRead;
        std::function<int32_t()> copy;
    } copies[] = {{3, [&] { return value_copy(s, dst, src); }},
                  {3, [&] { return value_copy2(s, dst, src, 0); }},
                  {1, [&] { return kesDBMCopy(s, srcLeaf, dstLeaf); }},
                  {3, [&] { return kesDBMCopy(s, srcLeaf, dstLeaf); }}};
    for (const auto& c : copies) {
        SCOPED_TRACE(&c - copies);
        ASSERT_EQ(value_setGeneric(s, dst, "\1\2\3\4", 4), 0);
        fault.reset();
        fault.fail(KESDRV_FAULT_READ, c.failingRead, EIO);
        session_setError(s, 0, 0);
        EXPECT_EQ(c.copy(), 0);
        EXPECT_EQ(mk::errorOf(*s), mk::Pair(KESDB_ERR_VALUE_READ, EIO));
        EXPECT_EQ(vk::readU32(s, dst), 0u);
        fault.reset();
        session_setError(s, 7, 3);
        EXPECT_EQ(c.copy(), 0);
        EXPECT_EQ(vk::readU32(s, dst), 77u);
        EXPECT_EQ(mk::errorOf(*s), mk::Pair(7, 3));
        EXPECT_EQ(fault.opens(), fault.closes());
    }
}

// A destination too long to buffer under the address space limit: every copy gives 86.
TEST_F(Value, NoMemoryForTheCopyBufferGives86) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "address space limits do not work under the address sanitizer";
#else
    const uint32_t src = make<uint32_t>(s, Uint32, 1), dst = make<uint32_t>(s, Uint32, 2);
    const uint32_t srcLeaf = makeLeaf(s, src), dstLeaf = makeLeaf(s, dst);
    ValueRecord r{};
    ASSERT_NE(value_get(s, dst, &r), nullptr);
    r.length = 0x7FFFFFFFu;
    ASSERT_EQ(value_set(s, &r), 0);
    EXPECT_EQ(kt::runChild([&] {
                  if (!kt::leaveNoRoomFor(0x7FFFFFFFu)) return 2;
                  const int32_t codes[] = {value_copy(s, dst, src), value_copy2(s, dst, src, 0),
                                           kesDBMCopy(s, srcLeaf, dstLeaf)};
                  for (int32_t code : codes)
                      if (code != 86) return 3;
                  return mk::errorOf(*s) == mk::Pair(86, ENOMEM) ? 0 : 4;
              }),
              0);
#endif
}

// Data in a medium of its own, at that medium's end; when it cannot be reached (outside the
// media table 21, not openable 22 with the driver's error number) reads move nothing, a copy
// writes nothing and the printout shows the code.
TEST(ValueDataMedium, DataThatCannotBeReached) {
    kt::TempDir side;
    const std::string dataPath = side.file("data.bin");
    kt::Db db(vk::withFileMedium(dataPath, std::string(8, 'x')));
    Session* s = &db.s;
    const uint32_t v = 0x01020304, k = value_create(s, Uint32, 0, &v, 4, 1), dst = make<uint32_t>(s, Uint32, 1234);
    EXPECT_EQ(kt::readWord(dataPath, 8), v);
    ValueRecord r{};
    ASSERT_NE(value_get(s, k, &r), nullptr);
    r.dataMedium = 7;
    ASSERT_EQ(value_set(s, &r), 0);
    uint32_t out = 0xCAFEu;
    int32_t len = 4;
    EXPECT_EQ(value_getGeneric(s, k, &out, &len), 0);
    EXPECT_EQ(db.s.error, 21u);
    r.dataMedium = 1;
    ASSERT_EQ(value_set(s, &r), 0);
    ASSERT_EQ(unlink(dataPath.c_str()), 0);
    EXPECT_EQ(value_getGeneric(s, k, &out, &len), 22);
    EXPECT_EQ(mk::errorOf(db.s), mk::Pair(22, ENOENT));
    EXPECT_EQ(out, 0xCAFEu);
    EXPECT_EQ(value_copy(s, dst, k), 0);
    EXPECT_EQ(db.s.error, 22u);
    EXPECT_EQ(vk::readU32(s, dst), 1234u);
    EXPECT_EQ(printed(s, k), "err 22\n");
}

// No free block fails creation with 45, detail 0; a free list the allocator cannot walk as the
// allocator found it (24, the broken link's key). Nothing is written either way.
TEST_F(Value, AllocationFailuresWriteNothing) {
    for (const auto [first, code, detail] : {std::array<uint32_t, 3>{0, KESDB_ERR_VALUE_WRITE, 0},
                                             std::array<uint32_t, 3>{8, KESDB_ERR_MEDIA_READ, 12}}) {
        ASSERT_EQ(flst_m_setFirstOffset(s, 0, first), 0);
        const std::string before = kt::readFile(db.mediumPath);
        session_setError(s, 0, 0);
        EXPECT_EQ(value_create(s, Uint32, 0, nullptr, 4, 0), 0u);
        EXPECT_EQ(mk::errorOf(db.s), mk::Pair(code, detail));
        EXPECT_EQ(kt::readFile(db.mediumPath), before);
    }
}

}  // namespace
