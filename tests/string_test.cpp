// The string table: entries and texts on the medium, cut reads, deletion and reuse, and the
// failures of unreadable media, missing space and keys that name no entry.
#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "testkit.hpp"
#include "treekit.hpp"

namespace {

constexpr uint32_t kEnd = 64 * 1024;
using Words = std::array<uint32_t, 4>;  // key, text medium, text offset, text length

TEST(StringTable, EntriesTextsCutReadsAndReuse) {
    kt::Db db;
    Session* s = &db.s;
    auto entryAt = [&](uint32_t key) {
        Words w{};
        std::memcpy(w.data(), kt::readBytes(db.mediumPath, key, 16).data(), 16);
        return w;
    };
    session_setError(s, 99, 9);
    const uint32_t k = str_create(s, "abc", 0), k2 = str_create(s, "abc", 0);
    EXPECT_EQ(mk::errorOf(*s), mk::Pair(0, 0));  // a full entry write records 0
    EXPECT_EQ(entryAt(k), (Words{16, 0, kEnd, 4}));  // the text at the former end
    EXPECT_EQ(entryAt(k2), (Words{32, 0, kEnd + 4, 4}));  // the same text again: a second copy
    EXPECT_EQ(entryAt(str_create(s, "", 0))[3], 1u);
    char buf[8];
    for (const auto& [size, expected] : {std::pair<int32_t, std::string>{2, "abXXX"}, {0, "XXXXX"}, {-5, "XXXXX"},
                                         {8, std::string("abc\0X", 5)}}) {
        std::memset(buf, 'X', sizeof buf);
        EXPECT_EQ(kesdb_getString(s, k, buf, size), buf);
        EXPECT_EQ(std::string(buf, 5), expected) << size;
    }
    // Key 0 reads the header; entries are deleted only where one lies; the text stays.
    StringEntry header{};
    ASSERT_EQ(kesdb_getStrEntry(s, 0, &header), &header);
    EXPECT_EQ(header.textLength, 64u);  // the free-list anchor
    const std::string before = kt::readFile(db.mediumPath);
    for (uint32_t key : {0u, 60000u, k + 4}) EXPECT_EQ(str_delete(s, key), KESDB_ERR_STR_READ);
    StringEntry inHeader{12, 0, 0, 0};
    EXPECT_EQ(str_setDeleted(s, &inHeader), 0);
    EXPECT_EQ(kt::readFile(db.mediumPath), before);
    EXPECT_EQ(str_delete(s, k), 0);
    EXPECT_TRUE(tk::isFree(tk::freeList(s, 0), k, 16));
    EXPECT_EQ(str_create(s, "xyz", 0), k);
    EXPECT_EQ(entryAt(k), (Words{k, 0, kEnd + 9, 4}));
    EXPECT_STREQ(kesdb_getString(s, k, buf, sizeof buf), "xyz");
}

TEST(StringTable, NoRoomUnopenableMediaAndMissingDatabase) {
    kt::DbOptions o;
    o.mediumSize = 24;  // one free element of 8 bytes
    kt::Db small(o);
    const std::string before = kt::readFile(small.mediumPath);
    EXPECT_EQ(str_create(&small.s, "abc", 0), 0u);
    EXPECT_EQ(mk::errorOf(small.s), mk::Pair(KESDB_ERR_STR_ALLOC, ENOSPC));
    EXPECT_EQ(kt::readFile(small.mediumPath), before);

    kt::Db db;
    Session* s = &db.s;
    const uint32_t k = str_create(s, "abc", 0);
    char buf[8] = {};
    EXPECT_EQ(kesdb_getString(s, tk::danglingString(s, 9), buf, sizeof buf), nullptr);
    EXPECT_EQ(tk::err(s), KESDB_ERR_MEDIA_INDEX);
    EXPECT_EQ(str_create(s, "abc", 9), 0u);
    EXPECT_EQ(tk::err(s), KESDB_ERR_MEDIA_INDEX);
    setenv("KESDB_DEFMEDIA", db.dir.file("missing.bin").c_str(), 1);
    EXPECT_EQ(kesdb_getString(s, k, buf, sizeof buf), nullptr);
    EXPECT_EQ(mk::errorOf(*s), mk::Pair(KESDB_ERR_STR_OPEN, ENOENT));
    EXPECT_EQ(str_delete(s, k), KESDB_ERR_STR_OPEN);
    StringEntry e{k, 0, 0, 0};
    EXPECT_EQ(str_setEntry(s, &e), KESDB_ERR_STR_OPEN);
    setenv("KESDB_DEFMEDIA", db.mediumPath.c_str(), 1);
    Session bad = tk::unregistered(*s);
    EXPECT_EQ(kesdb_getStrEntry(&bad, k, &e), nullptr);
    EXPECT_EQ(tk::err(&bad), KESDB_ERR_DB_NOTFOUND);
    EXPECT_EQ(str_create(nullptr, "abc", 0), 0u);
    for (int32_t code : {str_setEntry(&bad, &e), str_setDeleted(&bad, &e), str_delete(nullptr, k)})
        EXPECT_EQ(code, KESDB_ERR_DB_NOTFOUND);
    EXPECT_EQ(str_create(s, nullptr, 0), 0u);
    EXPECT_EQ(tk::err(s), KESDB_ERR_NULLARG);
    EXPECT_EQ(kesdb_getString(s, k, nullptr, 8), nullptr);
    EXPECT_EQ(str_setEntry(s, nullptr), KESDB_ERR_NULLARG);
    EXPECT_STREQ(kesdb_getString(s, k, buf, sizeof buf), "abc");
}

}  // namespace
