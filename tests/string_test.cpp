// The string table: entries and texts on the medium, cut reads, deletion and reuse, and the
// failures of unreadable media, missing space and keys that name no entry.
#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "testkit.hpp"
#include "treekit.hpp"

namespace {

constexpr uint32_t kMediumSize = 64 * 1024;

// An entry's four words: key, text medium, text offset, text length.
using Words = std::array<uint32_t, 4>;

class StringTable : public ::testing::Test {
protected:
    kt::Db db;
    Session* s = &db.s;
    Words entryAt(uint32_t key) const {
        Words w{};
        const std::vector<uint8_t> raw = kt::readBytes(db.mediumPath, key, 16);
        if (raw.size() == 16) std::memcpy(w.data(), raw.data(), 16);
        return w;
    }
    std::string text(uint32_t offset, uint32_t length) const {
        const std::vector<uint8_t> raw = kt::readBytes(db.mediumPath, offset, length);
        return std::string(raw.begin(), raw.end());
    }
};

TEST_F(StringTable, CreateAppendsTheTextReadsAreCutAtTheBufferSize) {
    session_setError(s, 99, 9);
    const uint32_t k = str_create(s, "abc", 0);
    EXPECT_EQ(k, 16u);  // the first free block of the string medium
    EXPECT_EQ(mk::errorOf(*s), mk::Pair(0, 0));  // a full entry write records 0
    EXPECT_EQ(entryAt(k), (Words{16, 0, kMediumSize, 4}));  // the text at the former end
    EXPECT_EQ(kt::readFile(db.mediumPath).size(), kMediumSize + 4u);
    // The same text again: a new entry and a second copy behind the first.
    const uint32_t k2 = str_create(s, "abc", 0);
    EXPECT_EQ(k2, 32u);
    EXPECT_EQ(entryAt(k2), (Words{32, 0, kMediumSize + 4, 4}));
    EXPECT_EQ(text(kMediumSize, 8), std::string("abc\0abc\0", 8));
    StringEntry back{};
    ASSERT_EQ(kesdb_getStrEntry(s, k2, &back), &back);
    EXPECT_EQ(std::memcmp(&back, kt::readBytes(db.mediumPath, k2, 16).data(), 16), 0);
    // The empty text takes one byte, its NUL.
    EXPECT_EQ(entryAt(str_create(s, "", 0))[3], 1u);

    char buf[8];
    auto read = [&](int32_t size) {
        std::memset(buf, 'X', sizeof buf);
        EXPECT_EQ(kesdb_getString(s, k, buf, size), buf);
        return std::string(buf, 5);
    };
    // Cut without a NUL added; nothing for sizes up to 0; only the text's 4 bytes at most.
    const std::pair<int32_t, std::string> cuts[] = {
        {2, "abXXX"}, {0, "XXXXX"}, {-5, "XXXXX"}, {8, std::string("abc\0X", 5)}};
    for (const auto& [size, expected] : cuts) EXPECT_EQ(read(size), expected) << size;
    // A damaged entry: a huge stored length reads no more than the buffer size; a negative
    // one reads nothing.
    Words damaged = entryAt(k);
    damaged[3] = 0x7FFFFFFF;
    kt::writeBytes(db.mediumPath, k, damaged.data(), 16);
    char exact[3];
    EXPECT_EQ(kesdb_getString(s, k, exact, sizeof exact), exact);
    EXPECT_EQ(std::string(exact, 3), "abc");
    damaged[3] = 0x80000000u;
    kt::writeBytes(db.mediumPath, k, damaged.data(), 16);
    EXPECT_EQ(read(8), "XXXXX");
}

TEST_F(StringTable, DeleteReleasesOnlyEntriesAndTheyAreReused) {
    const uint32_t k = str_create(s, "abc", 0);
    ASSERT_NE(k, 0u);
    // Key 0 reads the header as it comes: the root word and the free-list anchor.
    StringEntry header{};
    ASSERT_EQ(kesdb_getStrEntry(s, 0, &header), &header);
    EXPECT_EQ(header.textOffset, 0u);
    EXPECT_EQ(header.textLength, k + 16);
    const std::string before = kt::readFile(db.mediumPath);
    EXPECT_EQ(str_delete(s, 0), KESDB_ERR_STR_READ);
    EXPECT_EQ(str_delete(s, 60000), KESDB_ERR_STR_READ);  // zeros: no entry there
    EXPECT_EQ(str_delete(s, k + 4), KESDB_ERR_STR_READ);  // inside an entry
    StringEntry inHeader{};
    inHeader.key = 12;
    EXPECT_EQ(str_setDeleted(s, &inHeader), 0);
    EXPECT_EQ(kt::readFile(db.mediumPath), before);
    // An entry read that comes back short (at the end of the medium) fills the rest with 0.
    StringEntry tail;
    std::memset(&tail, 0xEE, sizeof tail);
    ASSERT_EQ(kesdb_getStrEntry(s, static_cast<uint32_t>(before.size()) - 8, &tail), &tail);
    EXPECT_EQ(tail.textOffset, 0u);
    EXPECT_EQ(tail.textLength, 0u);

    const uint32_t other = str_create(s, "other", 0);
    EXPECT_EQ(str_delete(s, k), 0);
    EXPECT_TRUE(tk::isFree(tk::freeList(s, 0), k, 16));
    // The text stays; the next creation may take the same entry, its text behind the others.
    EXPECT_EQ(str_create(s, "xyz", 0), k);
    EXPECT_EQ(entryAt(k), (Words{k, 0, kMediumSize + 4 + 6, 4}));
    EXPECT_EQ(text(kMediumSize, 4), std::string("abc", 4));
    char buf[8] = {};
    EXPECT_STREQ(kesdb_getString(s, k, buf, sizeof buf), "xyz");
    // str_setDeleted gives the 16 bytes back at the entry's key.
    StringEntry e{};
    ASSERT_NE(kesdb_getStrEntry(s, other, &e), nullptr);
    EXPECT_EQ(str_setDeleted(s, &e), 0);
    EXPECT_TRUE(tk::isFree(tk::freeList(s, 0), other, 16));
}

TEST(StringTableMedia, NoRoomForAnEntry) {
    kt::DbOptions o;
    o.mediumSize = 24;  // one free element of 8 bytes
    kt::Db db(o);
    ASSERT_GT(db.id, 0);
    Session* s = &db.s;
    const std::string before = kt::readFile(db.mediumPath);
    StringEntry e{};
    e.key = 0x55;
    EXPECT_EQ(str_newEntry(s, &e), nullptr);
    EXPECT_EQ(mk::errorOf(*s), mk::Pair(KESDB_ERR_STR_ALLOC, ENOSPC));
    EXPECT_EQ(e.key, 0x55u);
    EXPECT_EQ(str_create(s, "abc", 0), 0u);
    EXPECT_EQ(tk::err(s), KESDB_ERR_STR_ALLOC);
    EXPECT_EQ(kt::readFile(db.mediumPath), before);  // nothing written, at key 0 or anywhere
}

TEST_F(StringTable, UnopenableMediaAndMissingDatabase) {
    const uint32_t k = str_create(s, "abc", 0);
    ASSERT_NE(k, 0u);
    // An entry whose text lies in a medium that is not in the table.
    char buf[8] = {};
    EXPECT_EQ(kesdb_getString(s, tk::danglingString(s, 9), buf, sizeof buf), nullptr);
    EXPECT_EQ(tk::err(s), KESDB_ERR_MEDIA_INDEX);
    EXPECT_EQ(str_create(s, "abc", 9), 0u);
    EXPECT_EQ(tk::err(s), KESDB_ERR_MEDIA_INDEX);

    // The medium file is gone: 38 for the entry, and str_delete returns the read's code.
    setenv("KESDB_DEFMEDIA", db.dir.file("missing.bin").c_str(), 1);
    EXPECT_EQ(kesdb_getString(s, k, buf, sizeof buf), nullptr);
    EXPECT_EQ(mk::errorOf(*s), mk::Pair(KESDB_ERR_STR_OPEN, ENOENT));
    EXPECT_EQ(str_delete(s, k), KESDB_ERR_STR_OPEN);
    EXPECT_EQ(str_create(s, "abc", 0), 0u);
    EXPECT_EQ(tk::err(s), KESDB_ERR_STR_OPEN);
    StringEntry write{};
    write.key = k;
    EXPECT_EQ(str_setEntry(s, &write), KESDB_ERR_STR_OPEN);
    setenv("KESDB_DEFMEDIA", db.mediumPath.c_str(), 1);

    Session bad = tk::unregistered(*s);
    EXPECT_EQ(kesdb_getStrEntry(&bad, k, &write), nullptr);
    EXPECT_EQ(tk::err(&bad), KESDB_ERR_DB_NOTFOUND);
    EXPECT_EQ(kesdb_getString(&bad, k, buf, sizeof buf), nullptr);
    EXPECT_EQ(str_newEntry(&bad, &write), nullptr);
    EXPECT_EQ(str_create(&bad, "abc", 0), 0u);
    EXPECT_EQ(str_create(nullptr, "abc", 0), 0u);
    for (int32_t code : {str_setEntry(&bad, &write), str_setDeleted(&bad, &write), str_delete(&bad, k),
                         str_delete(nullptr, k)})
        EXPECT_EQ(code, KESDB_ERR_DB_NOTFOUND);
    // Null arguments are refused.
    EXPECT_EQ(str_create(s, nullptr, 0), 0u);
    EXPECT_EQ(tk::err(s), KESDB_ERR_NULLARG);
    EXPECT_EQ(kesdb_getString(s, k, nullptr, 8), nullptr);
    EXPECT_EQ(kesdb_getStrEntry(s, k, nullptr), nullptr);
    EXPECT_EQ(str_newEntry(s, nullptr), nullptr);
    EXPECT_EQ(str_setEntry(s, nullptr), KESDB_ERR_NULLARG);
    EXPECT_STREQ(kesdb_getString(s, k, buf, sizeof buf), "abc");  // everything still reads back
}

}  // namespace
