// The string table: entries and texts on the medium, cut reads, deletion and reuse, and the
// failures of unreadable media, missing space and keys that name no entry.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "testkit.hpp"
#include "treekit.hpp"

namespace {

constexpr uint32_t kMediumSize = 64 * 1024;

uint32_t fileSize(const std::string& path) {
    struct stat st{};
    return stat(path.c_str(), &st) == 0 ? static_cast<uint32_t>(st.st_size) : 0u;
}

StringEntry entryAt(const std::string& path, uint32_t key) {
    StringEntry e{};
    const std::vector<uint8_t> raw = kt::readBytes(path, key, 16);
    if (raw.size() == 16) std::memcpy(&e, raw.data(), 16);
    return e;
}

class StringTable : public ::testing::Test {
protected:
    kt::Db db;
    Session* s = &db.s;
};

TEST_F(StringTable, CreateAppendsTheTextReadsAreCutAtTheBufferSize) {
    session_setError(s, 99, 9);
    const uint32_t k = str_create(s, "abc", 0);
    ASSERT_NE(k, 0u);
    EXPECT_EQ(k, 16u);                 // the first free block of the string medium
    EXPECT_EQ(s->error, 0u);           // a full entry write records 0
    EXPECT_EQ(s->errorDetail, 0u);
    const StringEntry first = entryAt(db.mediumPath, k);
    EXPECT_EQ(first.key, k);
    EXPECT_EQ(first.textMedium, 0u);
    EXPECT_EQ(first.textOffset, kMediumSize);  // the former end of the medium
    EXPECT_EQ(first.textLength, 4u);
    EXPECT_EQ(kt::readBytes(db.mediumPath, kMediumSize, 4), (std::vector<uint8_t>{'a', 'b', 'c', 0}));
    EXPECT_EQ(fileSize(db.mediumPath), kMediumSize + 4);

    // The same text again: a new entry and a second copy behind the first.
    const uint32_t k2 = str_create(s, "abc", 0);
    ASSERT_NE(k2, 0u);
    EXPECT_NE(k2, k);
    EXPECT_EQ(entryAt(db.mediumPath, k2).textOffset, kMediumSize + 4);
    EXPECT_EQ(kt::readBytes(db.mediumPath, kMediumSize + 4, 4), (std::vector<uint8_t>{'a', 'b', 'c', 0}));

    StringEntry back{};
    ASSERT_EQ(kesdb_getStrEntry(s, k2, &back), &back);
    EXPECT_EQ(std::memcmp(&back, kt::readBytes(db.mediumPath, k2, 16).data(), 16), 0);

    // The empty text takes one byte, its NUL.
    const uint32_t k3 = str_create(s, "", 0);
    ASSERT_NE(k3, 0u);
    EXPECT_EQ(entryAt(db.mediumPath, k3).textLength, 1u);

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
    StringEntry e = entryAt(db.mediumPath, k);
    e.textLength = 0x7FFFFFFF;
    kt::writeBytes(db.mediumPath, k, &e, 16);
    char exact[3];
    EXPECT_EQ(kesdb_getString(s, k, exact, sizeof exact), exact);
    EXPECT_EQ(std::string(exact, 3), "abc");
    e.textLength = 0x80000000u;
    kt::writeBytes(db.mediumPath, k, &e, 16);
    EXPECT_EQ(read(8), "XXXXX");
}

TEST_F(StringTable, DeleteReleasesOnlyEntriesAndTheyAreReused) {
    const uint32_t k = str_create(s, "abc", 0);
    ASSERT_NE(k, 0u);
    // Key 0 reads the header as it comes.
    StringEntry header{};
    ASSERT_EQ(kesdb_getStrEntry(s, 0, &header), &header);
    EXPECT_EQ(header.textOffset, 0u);             // the root word
    EXPECT_EQ(header.textLength, k + 16);         // the free-list anchor
    const std::string before = kt::readFile(db.mediumPath);
    EXPECT_EQ(str_delete(s, 0), KESDB_ERR_STR_READ);
    EXPECT_EQ(str_delete(s, 60000), KESDB_ERR_STR_READ);   // zeros: no entry there
    EXPECT_EQ(str_delete(s, k + 4), KESDB_ERR_STR_READ);   // inside an entry
    StringEntry inHeader{};
    inHeader.key = 12;
    EXPECT_EQ(str_setDeleted(s, &inHeader), 0);
    EXPECT_EQ(kt::readFile(db.mediumPath), before);

    // An entry read that comes back short (at the end of the medium) fills the rest with 0.
    StringEntry tail;
    std::memset(&tail, 0xEE, sizeof tail);
    const uint32_t end = fileSize(db.mediumPath);
    ASSERT_EQ(kesdb_getStrEntry(s, end - 8, &tail), &tail);
    EXPECT_EQ(tail.textOffset, 0u);
    EXPECT_EQ(tail.textLength, 0u);

    const uint32_t other = str_create(s, "other", 0);
    ASSERT_NE(other, 0u);
    EXPECT_EQ(str_delete(s, k), 0);
    EXPECT_TRUE(tk::isFree(tk::freeList(s, 0), k, 16));
    // The text stays; the next creation may take the same entry, its text behind the others.
    const uint32_t again = str_create(s, "xyz", 0);
    EXPECT_EQ(again, k);
    EXPECT_EQ(entryAt(db.mediumPath, again).textOffset, kMediumSize + 4 + 6);
    EXPECT_EQ(kt::readBytes(db.mediumPath, kMediumSize, 4), (std::vector<uint8_t>{'a', 'b', 'c', 0}));
    char buf[8] = {};
    EXPECT_STREQ(kesdb_getString(s, again, buf, sizeof buf), "xyz");

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
    EXPECT_EQ(tk::err(s), KESDB_ERR_STR_ALLOC);
    EXPECT_EQ(s->errorDetail, static_cast<uint32_t>(ENOSPC));
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
    EXPECT_EQ(tk::err(s), KESDB_ERR_STR_OPEN);
    EXPECT_EQ(s->errorDetail, static_cast<uint32_t>(ENOENT));
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
    EXPECT_EQ(str_setEntry(&bad, &write), KESDB_ERR_DB_NOTFOUND);
    EXPECT_EQ(str_setDeleted(&bad, &write), KESDB_ERR_DB_NOTFOUND);
    EXPECT_EQ(str_delete(&bad, k), KESDB_ERR_DB_NOTFOUND);
    EXPECT_EQ(str_delete(nullptr, k), KESDB_ERR_DB_NOTFOUND);
    EXPECT_EQ(str_create(nullptr, "abc", 0), 0u);

    // Null arguments are refused.
    EXPECT_EQ(str_create(s, nullptr, 0), 0u);
    EXPECT_EQ(tk::err(s), KESDB_ERR_NULLARG);
    EXPECT_EQ(kesdb_getString(s, k, nullptr, 8), nullptr);
    EXPECT_EQ(kesdb_getStrEntry(s, k, nullptr), nullptr);
    EXPECT_EQ(str_newEntry(s, nullptr), nullptr);
    EXPECT_EQ(str_setEntry(s, nullptr), KESDB_ERR_NULLARG);
    // Everything still reads back.
    EXPECT_STREQ(kesdb_getString(s, k, buf, sizeof buf), "abc");
}

TEST(StringTableMedia, TextInAnotherMediumThatCannotBeOpened) {
    kt::DbOptions o;
    o.start = false;
    kt::Db db(o);
    const std::string missing = db.dir.file("texts-missing.bin");
    kt::writeFile(db.param.mediaConfigPath,
                  kt::libPath("libkesdrv_file.so") +
                      " fileMedia_open fileMedia_close fileMedia_read fileMedia_write fileMedia_seek "
                      "fileMedia_sync " + missing + "\n");
    ASSERT_GT(db.start(), 0);
    Session* s = &db.s;
    const std::vector<tk::FreeBlock> before = tk::freeList(s, 0);
    EXPECT_EQ(str_create(s, "abc", 1), 0u);
    EXPECT_EQ(tk::err(s), KESDB_ERR_MEDIA_OPEN);
    EXPECT_EQ(s->errorDetail, static_cast<uint32_t>(ENOENT));
    // The entry's block stays allocated (and unreferenced).
    EXPECT_NE(tk::freeList(s, 0), before);
    // Once the file exists the text goes there.
    kt::writeFile(missing, "0123");
    const uint32_t k = str_create(s, "abc", 1);
    ASSERT_NE(k, 0u);
    const StringEntry e = entryAt(db.mediumPath, k);
    EXPECT_EQ(e.textMedium, 1u);
    EXPECT_EQ(e.textOffset, 4u);
    EXPECT_EQ(kt::readFile(missing), std::string("0123abc", 7) + std::string(1, '\0'));
    char buf[8] = {};
    EXPECT_STREQ(kesdb_getString(s, k, buf, sizeof buf), "abc");
}

}  // namespace
