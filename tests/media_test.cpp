// The media table: configuration file parsing, the built-in medium, getMedia, media_sync,
// IsCompMedia and compFileRead.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "kesdbm/kesdbm.h"
#include "mediakit.hpp"

namespace {

using mk::errorOf;
using mk::Pair;
using Names = std::vector<std::string>;

// A named-file driver line; `bad` replaces the symbol of one slot (0 open .. 5 sync).
std::string fileLine(const std::string& name, int bad = -1) {
    std::string line = kt::libPath("libkesdrv_file.so");
    int slot = 0;
    for (const char* op : {"open", "close", "read", "write", "seek", "sync"})
        line += slot++ == bad ? std::string(" noSuchSymbol") : std::string(" fileMedia_") + op;
    return line + " " + name + "\n";
}

// What media_init gave: its result, what it printed, the names of entries 1 onwards.
struct Init {
    int32_t code;
    std::string output;
    Names loaded;
    bool operator==(const Init&) const = default;
};
void PrintTo(const Init& r, std::ostream* os) {
    *os << r.code << " \"" << r.output << "\" " << ::testing::PrintToString(r.loaded);
}

// media_init on a configuration file holding `text`.
Init initWith(const kt::TempDir& dir, const std::string& text) {
    kt::writeFile(dir.file("media.conf"), text);
    Init r{-100, "", {}};
    r.output = kt::captureStdout([&] { r.code = media_init(dir.file("media.conf").c_str()); });
    for (int32_t i = 1; i < media_getCount() && i < 200; ++i)
        r.loaded.push_back(media_table[i].name ? media_table[i].name : "(null)");
    return r;
}

}  // namespace

TEST(MediaConfig, EightTokensLoadAndANinthIsIgnored) {
    kt::TempDir dir;
    const std::string medium = dir.file("m1.bin");
    ASSERT_EQ(kesdb_layMedium(medium.c_str(), 64, 0x1234), 0);
    std::string line = fileLine(medium);
    EXPECT_EQ(initWith(dir, line.insert(line.size() - 1, " ninth-token tenth")), (Init{0, "", {medium}}));

    Session s{};
    MediaEntry* e = getMedia(&s, 1);
    ASSERT_EQ(e, &media_table[1]);
    EXPECT_TRUE(e->handle != nullptr && e->arg == 0);
    int32_t err = 0;
    mk::checkOps(mk::Ops(*e), e->open(e->name, e->arg, &err), medium);
    EXPECT_EQ(flst_m_getRoot(&s, 1), 0x1234u);
    EXPECT_EQ(media_sync(&s, 1, 0), 0);
    EXPECT_EQ(media_term(), 0);
    EXPECT_EQ(media_getCount(), 1);
    EXPECT_EQ(getMedia(&s, 1), nullptr);
    EXPECT_EQ(s.error, 21u);
}

TEST(MediaConfig, EachLineAndTheLastLineDecidesTheResult) {
    kt::TempDir dir;
    const std::string lib = kt::libPath("libkesdrv_file.so");
    const std::string unknown = dir.file("libnothere.so") + " a b c d e f /x/n\n";
    std::string overlong = fileLine("/x/long");
    overlong.insert(overlong.size() - 1, std::string(5000 - overlong.size(), ' '));
    struct Case { std::string what, text; Init expect; };
    std::vector<Case> cases = {
        // Comment-only and blank lines: err1; a library alone: err2; seven tokens: silent.
        {"incomplete lines",
         "# a comment line\n\n   \t\n" + lib + "\n" + fileLine("") + fileLine("/nowhere/a") + "  " + lib +
             "   # everything behind the hash is gone: " + fileLine("/nowhere/b"),
         {0,
          "fillMediaEntry err1\nfillMediaEntry err1\nfillMediaEntry err1\nfillMediaEntry err2\nfillMediaEntry err2\n",
          {"/nowhere/a"}}},
        {"unknown library last", unknown, {20, "", {}}},
        {"unknown library, then a valid line", unknown + fileLine("/x/after"), {0, "", {"/x/after"}}},
        {"failing line, then a comment", fileLine("/x/bad", 2) + "# trailing\n", {0, "fillMediaEntry err1\n", {}}},
        {"a failed line takes no slot",
         fileLine("/x/bad", 2) + fileLine("/x/ok1") + fileLine("/x/bad", 2) + fileLine("/x/ok2"),
         {0, "", {"/x/ok1", "/x/ok2"}}},
        // Beyond 4095 characters the rest of a line comes back as a (blank) line of its own.
        {"overlong line", overlong + fileLine("/x/next"), {0, "fillMediaEntry err1\n", {"/x/long", "/x/next"}}},
        {"empty file", "", {0, "", {}}},
    };
    for (int slot = 0; slot < 6; ++slot)
        cases.push_back({"missing symbol " + std::to_string(slot), fileLine("/x/good") + fileLine("/x/bad", slot),
                         {14 + slot, "", {"/x/good"}}});
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(initWith(dir, c.text), c.expect);
        EXPECT_EQ(media_term(), 0);
        EXPECT_EQ(media_getCount(), 1);
    }
}

TEST(MediaConfig, TableHoldsAtMost127Drivers) {
    kt::TempDir dir;
    std::string text;
    for (int i = 1; i <= 128; ++i) text += fileLine("/x/m" + std::to_string(i));
    // Once the table is full, further lines are not looked at: no message for the blank one,
    // and a bad last line does not set the result.
    Init expect{0, "", {}};
    for (int i = 1; i <= 127; ++i) expect.loaded.push_back("/x/m" + std::to_string(i));
    EXPECT_EQ(initWith(dir, text + "\n" + dir.file("libnothere.so") + " a b c d e f g\n"), expect);
    Session s{};
    EXPECT_EQ(getMedia(&s, 127), &media_table[127]);
    EXPECT_EQ(getMedia(&s, 128), nullptr);
    EXPECT_EQ(s.error, 21u);
    media_term();
    EXPECT_EQ(media_getCount(), 1);
}

TEST(MediaConfig, OnlyTheFirstInitReadsItsFile) {
    kt::TempDir dir;
    const std::string conf = dir.file("media.conf"), missing = dir.file("missing.conf");
    kt::writeFile(conf, fileLine("/x/a"));
    EXPECT_EQ(media_init(nullptr), 12);
    EXPECT_EQ(media_term(), 0);
    // A failed first init still counts: the next one returns 0 without reading its file.
    EXPECT_EQ(media_init(missing.c_str()), 12);
    EXPECT_EQ(media_init(conf.c_str()), 0);
    EXPECT_EQ(media_getCount(), 1);
    media_term();
    media_term();
    // Back at zero the file is read; later inits only count, whatever their path.
    EXPECT_EQ(media_init(conf.c_str()), 0);
    EXPECT_EQ(media_init(missing.c_str()), 0);
    EXPECT_EQ(media_init(nullptr), 0);
    for (int i = 0; i < 2; ++i) EXPECT_EQ(media_term(), 0);
    EXPECT_EQ(media_getCount(), 2);
    EXPECT_EQ(media_term(), 0);
    EXPECT_EQ(media_getCount(), 1);
}

TEST(BuiltInMedium, OpenAndSyncFollowTheVariableAtEveryCall) {
    kt::TempDir dir;
    const MediaEntry& e0 = media_table[0];
    EXPECT_TRUE(e0.open == defMedia_open && e0.sync == defMedia_sync && e0.name && *e0.name == '\0');

    // Unset: -1 with no error number stored, and media_sync records detail 0, not a stale one.
    unsetenv("KESDB_DEFMEDIA");
    int32_t err = 12345;
    EXPECT_EQ(defMedia_open("", 0, &err), -1);
    EXPECT_EQ(err, 12345);
    Session s{};
    s.errorDetail = 5;
    EXPECT_EQ(media_sync(&s, 0, 0), 22);
    EXPECT_EQ(errorOf(s), Pair(22, 0));
    // A missing file is not created.
    setenv("KESDB_DEFMEDIA", dir.file("none.bin").c_str(), 1);
    EXPECT_EQ(defMedia_open("", 0, &err), -1);
    EXPECT_EQ(err, ENOENT);
    EXPECT_EQ(media_sync(&s, 0, 0), 22);
    EXPECT_EQ(errorOf(s), Pair(22, ENOENT));
    EXPECT_NE(access(dir.file("none.bin").c_str(), F_OK), 0);

    // Name and arg are ignored.
    const std::string a = dir.file("a.bin"), b = dir.file("b.bin");
    ASSERT_EQ(kesdb_layMedium(a.c_str(), 32, 0xA), 0);
    ASSERT_EQ(kesdb_layMedium(b.c_str(), 48, 0xB), 0);
    setenv("KESDB_DEFMEDIA", a.c_str(), 1);
    mk::checkOps(mk::Ops(e0), defMedia_open(b.c_str(), 7, &err), a);
    setenv("KESDB_DEFMEDIA", b.c_str(), 1);
    s = Session{};
    EXPECT_EQ(flst_m_getRoot(&s, 0), 0xBu);
    EXPECT_EQ(media_sync(&s, 0, 1), 0);
    EXPECT_EQ(kesDBMSync(&s, 0, 0), 0);
    EXPECT_EQ(s.error, 0u);
}

TEST(MediaSync, IndexOutsideTheTable) {
    Session s{};
    EXPECT_EQ(getMedia(&s, 0), &media_table[0]);
    EXPECT_EQ(s.error, 0u);
    s.errorDetail = 77;
    for (uint32_t index : {1u, 0xFFFFFFFFu}) {
        EXPECT_EQ(getMedia(&s, index), nullptr);
        EXPECT_EQ(errorOf(s), Pair(21, 0));
        EXPECT_EQ(getMedia(nullptr, index), nullptr);
        s = Session{};
        EXPECT_EQ(media_sync(&s, index, 0), 0);
        EXPECT_EQ(media_sync(nullptr, index, 0), 0);
        EXPECT_EQ(s.error, 21u);
        s = Session{};
        EXPECT_EQ(kesDBMSync(&s, index, 0), 0);
        EXPECT_EQ(s.error, 21u);
    }
}

TEST(MediaMisc, IsCompMediaCompFileReadAndNullArguments) {
    const std::pair<const char*, int> names[] = {{"compMedia", 1}, {"compMedi", 1},  {"compMedia_values_2", 1},
                                                 {"compMed", 0},   {"CompMedia", 0}, {"xcompMedia", 0},
                                                 {"", 0},          {nullptr, 0}};
    for (const auto& [name, expect] : names) EXPECT_EQ(IsCompMedia(name), expect) << (name ? name : "null");
    MediaEntry e{};
    char line[] = "x";
    EXPECT_EQ(fillMediaEntry(nullptr, &e), -1);
    EXPECT_EQ(fillMediaEntry(line, nullptr), -1);

    kt::TempDir dir;
    kt::writeFile(dir.file("c.bin"), "abcdefgh");
    int fd = open(dir.file("c.bin").c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    char buf[8] = {};
    int32_t err = 99;
    EXPECT_EQ(compFileRead(fd, buf, 8, 2, &err), 6);
    EXPECT_EQ(std::string(buf, 6), "cdefgh");
    EXPECT_EQ(err, 0);  // set to 0 even on success
    close(fd);
    EXPECT_EQ(compFileRead(-1, buf, 4, 0, &err), -1);
    EXPECT_EQ(err, -1);  // -1, not errno
}
