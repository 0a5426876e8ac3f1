// The public value calls on real media: typed round trips, leaf resolution, the length rules,
// the copy between leaves and the create-list read. The copy's failed source read and missing
// buffer are in value_print_test, data medium failures in value_test.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "mediakit.hpp"
#include "testkit.hpp"
#include "valcstrtkit.hpp"

namespace {

using ValueCalls = vk::DbTest;

using vk::dataOf;
using vk::makeLeaf;
using vk::makeNode;

// A leaf whose current value has the given type and natural length, zero-filled.
uint32_t typedLeaf(Session* s, uint32_t type, int32_t length) {
    return makeLeaf(s, value_create(s, type, 0, nullptr, length, 0));
}

template <class T>
void roundTrip(kt::Db& db, uint32_t type, int32_t (*set)(Session*, uint32_t, T), int32_t (*get)(Session*, uint32_t, T*),
               T value) {
    SCOPED_TRACE(type);
    const uint32_t leaf = typedLeaf(&db.s, type, static_cast<int32_t>(sizeof(T)));
    ASSERT_NE(leaf, 0u);
    ASSERT_EQ(set(&db.s, leaf, value), 0);
    T out{};
    ASSERT_EQ(get(&db.s, leaf, &out), 0);
    EXPECT_EQ(std::memcmp(&out, &value, sizeof(T)), 0);
    // Stored in host order, exactly the bytes of the caller's variable.
    std::vector<uint8_t> raw = dataOf(db, leaf_getCurrentValueKey(&db.s, leaf), sizeof(T));
    ASSERT_EQ(raw.size(), sizeof(T));
    EXPECT_EQ(std::memcmp(raw.data(), &value, sizeof(T)), 0);
    EXPECT_EQ(kesDBMGetType(&db.s, leaf), static_cast<int32_t>(type));
    EXPECT_EQ(kesDBMGetLength(&db.s, leaf), static_cast<int32_t>(sizeof(T)));
}

TEST_F(ValueCalls, TypedRoundTripsOfAllTypes) {
    roundTrip<double>(db, Float64, kesDBMSetFloat64, kesDBMGetFloat64, -1234.5e100);
    roundTrip<float>(db, Float32, kesDBMSetFloat32, kesDBMGetFloat32, 3.25f);
    roundTrip<uint64_t>(db, Uint64, kesDBMSetUint64, kesDBMGetUint64, 0xFEDCBA9876543210ull);
    roundTrip<uint32_t>(db, Uint32, kesDBMSetUint32, kesDBMGetUint32, 0xDEADBEEFu);
    roundTrip<uint16_t>(db, Uint16, kesDBMSetUint16, kesDBMGetUint16, 0xBEEF);
    roundTrip<uint8_t>(db, Uint8, kesDBMSetUint8, kesDBMGetUint8, 0xA5);
    roundTrip<int64_t>(db, Sint64, kesDBMSetSint64, kesDBMGetSint64, INT64_MIN + 7);
    roundTrip<int32_t>(db, Sint32, kesDBMSetSint32, kesDBMGetSint32, -123456789);
    roundTrip<int16_t>(db, Sint16, kesDBMSetSint16, kesDBMGetSint16, -12345);
    roundTrip<int8_t>(db, Sint8, kesDBMSetSint8, kesDBMGetSint8, -100);

    // Strings: the text and its NUL are written, the rest of the area is left alone.
    const std::string fill(12, 'Z');
    const uint32_t sv = value_create(&db.s, String, 0, fill.data(), 12, 0);
    const uint32_t leaf = makeLeaf(&db.s, sv);
    ASSERT_NE(leaf, 0u);
    ASSERT_EQ(kesDBMSetString(&db.s, leaf, "hi"), 0);
    EXPECT_EQ(dataOf(db, sv, 5), (std::vector<uint8_t>{'h', 'i', 0, 'Z', 'Z'}));
    char text[16];
    std::memset(text, '#', sizeof text);
    ASSERT_EQ(kesDBMGetString(&db.s, leaf, text, sizeof text), 0);
    EXPECT_STREQ(text, "hi");
    // A text longer than the value is cut to the value's length.
    ASSERT_EQ(kesDBMSetString(&db.s, leaf, "0123456789abcdef"), 0);
    EXPECT_EQ(dataOf(db, sv, 12), std::vector<uint8_t>(std::begin("0123456789ab"), std::end("0123456789ab") - 1));
    EXPECT_EQ(kesDBMSetString(&db.s, leaf, nullptr), KESDB_ERR_NULLARG);
}

TEST_F(ValueCalls, DefaultAndFactoryValuesAreTheirOwnRecords) {
    const uint32_t leaf = makeLeaf(s, vk::make<uint32_t>(s, Uint32, 1), vk::make<uint32_t>(s, Uint32, 2),
                                   vk::make<uint32_t>(s, Uint32, 3));
    ASSERT_NE(leaf, 0u);
    auto read = [&](int32_t (*get)(Session*, uint32_t, void*, int32_t*)) {
        uint32_t out = 0;
        int32_t len = 4;
        return get(s, leaf, &out, &len) == 0 ? out : 0xBADu;
    };
    EXPECT_EQ(read(kesDBMGetDefaultGeneric), 2u);
    EXPECT_EQ(read(kesDBMGetFactoryGeneric), 3u);
    const uint32_t nd = 20;
    ASSERT_EQ(kesDBMSetDefaultGeneric(s, leaf, &nd, 4), 0);
    EXPECT_EQ(read(kesDBMGetDefaultGeneric), 20u);
    EXPECT_EQ(read(kesDBMGetGeneric), 1u);
    EXPECT_EQ(read(kesDBMGetFactoryGeneric), 3u);
}

TEST_F(ValueCalls, NodesKeyZeroAndUnreadableComponents) {
    const uint32_t node = makeNode(s);
    ASSERT_NE(node, 0u);
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
        [&](uint32_t k) { return kesDBMGetUint32(s, k, &out); },
        [&](uint32_t k) { return kesDBMGetString(s, k, reinterpret_cast<char*>(&out), 4); },
    };
    // A node gives 1, key 0 gives 4, detail 0, and nothing is read or written.
    for (const auto& [key, code] : {std::pair<uint32_t, int32_t>{node, 1}, {0u, 4}}) {
        for (size_t i = 0; i < std::size(calls); ++i) {
            SCOPED_TRACE(testing::Message() << "key " << key << " call " << i);
            session_setError(s, 0, 0);
            EXPECT_EQ(calls[i](key), code);
            EXPECT_EQ(mk::errorOf(*s), mk::Pair(code, 0));
        }
        EXPECT_EQ(out, 0x55555555u);
        EXPECT_EQ(kesDBMGetType(s, key), -1);
        EXPECT_EQ(db.s.error, static_cast<uint32_t>(code));
        EXPECT_EQ(kesDBMGetLength(s, key), 0);
        EXPECT_EQ(db.s.error, static_cast<uint32_t>(code));
    }

    EXPECT_EQ(kesDBMGetGeneric(s, node, &out, nullptr), KESDB_ERR_NULLARG);

    // The component medium cannot be opened: the read's code comes back.
    const uint32_t leaf = typedLeaf(s, Uint32, 4);
    ASSERT_NE(leaf, 0u);
    setenv("KESDB_DEFMEDIA", db.dir.file("missing").c_str(), 1);
    EXPECT_EQ(kesDBMGetUint32(s, leaf, &out), 53);
    EXPECT_EQ(kesDBMSetUint32(s, leaf, 1), 53);
    EXPECT_EQ(kesDBMGetType(s, leaf), -1);
    EXPECT_EQ(kesDBMGetLength(s, leaf), 0);
    setenv("KESDB_DEFMEDIA", db.mediumPath.c_str(), 1);

    // A leaf whose value record cannot be read: type and length -1, reads and writes give 0
    // with the cause recorded.
    const uint32_t orphan = makeLeaf(s, 0);
    ASSERT_NE(orphan, 0u);
    EXPECT_EQ(kesDBMGetType(s, orphan), -1);
    EXPECT_EQ(kesDBMGetLength(s, orphan), -1);
    EXPECT_EQ(kesDBMGetUint32(s, orphan, &out), 0);
    EXPECT_EQ(db.s.error, 51u);

    EXPECT_EQ(kesDBMGetUint32(nullptr, leaf, &out), KESDB_ERR_DB_NOTFOUND);
}

TEST_F(ValueCalls, LengthRulesOfTypedCalls) {
    const uint32_t u8v = vk::make<uint8_t>(s, Uint8, 0x7B);
    const uint8_t guard[4] = {0xEE, 0xEE, 0xEE, 0xEE};
    ASSERT_NE(value_create(s, Generic, 0, guard, 4, 0), 0u);
    const uint32_t leaf = makeLeaf(s, u8v);
    ASSERT_NE(leaf, 0u);

    // GetUint32 of a 1-byte value fills only the first byte of the variable; SetUint32 stores
    // only the first byte of its variable.
    uint32_t out = 0xAABBCCDDu;
    ASSERT_EQ(kesDBMGetUint32(s, leaf, &out), 0);
    EXPECT_EQ(out, vk::firstBytes(0xAABBCCDDu, 0x7B7B7B7Bu, 1));
    const uint32_t word = 0x11223344u;
    ASSERT_EQ(kesDBMSetUint32(s, leaf, word), 0);
    std::vector<uint8_t> now = dataOf(db, u8v, 5);
    ASSERT_EQ(now.size(), 5u);
    EXPECT_EQ(now[0], reinterpret_cast<const uint8_t*>(&word)[0]);
    EXPECT_EQ(std::vector<uint8_t>(now.begin() + 1, now.end()), std::vector<uint8_t>(4, 0xEE));
    EXPECT_EQ(kesDBMGetLength(s, leaf), 1);

}

TEST_F(ValueCalls, CopyWidensWithZerosAndNarrowsByCutting) {
    const uint8_t eightBytes[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    const uint8_t fourBytes[4] = {0xA1, 0xA2, 0xA3, 0xA4};
    const uint8_t full[8] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    const uint32_t src8v = value_create(s, Uint64, 0, eightBytes, 8, 0);
    const uint32_t dst4v = value_create(s, Uint32, 0, full, 4, 0);
    const uint32_t src4v = value_create(s, Uint32, 0, fourBytes, 4, 0);
    const uint32_t dst8v = value_create(s, Float64, 0, full, 8, 0);
    const uint32_t src8 = makeLeaf(s, src8v), dst4 = makeLeaf(s, dst4v);
    const uint32_t src4 = makeLeaf(s, src4v), dst8 = makeLeaf(s, dst8v);
    ASSERT_NE(src8 * dst4 * src4 * dst8, 0u);

    EXPECT_EQ(kesDBMCopy(s, src8, dst4), 0);
    EXPECT_EQ(dataOf(db, dst4v, 4), (std::vector<uint8_t>{1, 2, 3, 4}));
    // A shorter source is followed by zeros: the destination's whole length is written.
    EXPECT_EQ(kesDBMCopy(s, src4, dst8), 0);
    EXPECT_EQ(dataOf(db, dst8v, 8), (std::vector<uint8_t>{0xA1, 0xA2, 0xA3, 0xA4, 0, 0, 0, 0}));
    EXPECT_EQ(dataOf(db, src8v, 8), std::vector<uint8_t>(eightBytes, eightBytes + 8));

    EXPECT_EQ(kesDBMCopy(s, src4, makeNode(s)), 1);
    // A source whose value record cannot be read: its read returns 0, so the destination
    // receives zeros and the read's code stays in the session.
    const uint32_t orphan = makeLeaf(s, 0);
    EXPECT_EQ(kesDBMCopy(s, orphan, dst4), 0);
    EXPECT_EQ(db.s.error, 51u);
    EXPECT_EQ(dataOf(db, dst4v, 4), (std::vector<uint8_t>{0, 0, 0, 0}));
    // A destination whose value record cannot be read has no length to allocate.
    EXPECT_EQ(kesDBMCopy(s, src4, orphan), KESDB_ERR_NOMEM);
}

TEST_F(ValueCalls, CreateListReadsPastTheValueLength) {
    const uint8_t a[2] = {0x10, 0x11};
    const uint8_t b[3] = {0x20, 0x21, 0x22};
    const uint32_t av = value_create(s, Generic, 0, a, 2, 0);
    ASSERT_NE(value_create(s, Generic, 0, b, 3, 0), 0u);
    const uint32_t leaf = makeLeaf(s, av);
    ASSERT_NE(leaf, 0u);
    uint8_t out[6];
    std::memset(out, 0xCC, sizeof out);
    EXPECT_EQ(kesDBMGetCreateListGeneric(s, leaf, out, 5), 0);
    EXPECT_EQ(std::vector<uint8_t>(out, out + 6), (std::vector<uint8_t>{0x10, 0x11, 0x20, 0x21, 0x22, 0xCC}));
    // A negative count reads nothing.
    std::memset(out, 0xCC, sizeof out);
    EXPECT_EQ(value_getCreateListGeneric(s, av, out, -3), 0);
    EXPECT_EQ(out[0], 0xCC);
    EXPECT_EQ(value_getCreateListGeneric(s, av, nullptr, 3), KESDB_ERR_NULLARG);
    // An unreadable record gives 0 with the cause recorded.
    EXPECT_EQ(value_getCreateListGeneric(s, 0, out, 3), 0);
    EXPECT_EQ(db.s.error, 51u);
}

}  // namespace
