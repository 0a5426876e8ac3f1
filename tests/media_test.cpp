// The media table: configuration file parsing, the built-in medium, getMedia, media_sync,
// IsCompMedia and compFileRead.
#include <unistd.h>

#include "mediakit.hpp"

namespace {

using mk::errorOf;
using mk::Pair;

// A named-file driver line; `bad` replaces the symbol of one slot (0 open .. 5 sync).
std::string fileLine(const std::string& name, int bad = -1) {
    std::string line = kt::libPath("libkesdrv_file.so");
    int slot = 0;
    for (const char* op : {"open", "close", "read", "write", "seek", "sync"})
        line += slot++ == bad ? std::string(" noSuchSymbol") : std::string(" fileMedia_") + op;
    return line + " " + name + "\n";
}

// What media_init on a file holding `text` gave: "result|printout|" and the names of entries 1
// onwards, each followed by a comma.
std::string initWith(const kt::TempDir& dir, const std::string& text) {
    kt::writeFile(dir.file("media.conf"), text);
    int32_t code = -100;
    std::string r = kt::captureStdout([&] { code = media_init(dir.file("media.conf").c_str()); });
    r = std::to_string(code) + "|" + r + "|";
    for (int32_t i = 1; i < media_getCount() && i < 200; ++i) r += std::string(media_table[i].name) + ",";
    return r;
}

}  // namespace

TEST(MediaConfig, EightTokensLoadAndANinthIsIgnored) {
    kt::TempDir dir;
    const std::string medium = dir.file("m1.bin");
    ASSERT_EQ(kesdb_layMedium(medium.c_str(), 64, 0x1234), 0);
    std::string line = fileLine(medium);
    EXPECT_EQ(initWith(dir, line.insert(line.size() - 1, " ninth-token tenth")), "0||" + medium + ",");
    Session s{};
    MediaEntry* e = getMedia(&s, 1);
    ASSERT_EQ(e, &media_table[1]);
    EXPECT_TRUE(e->handle != nullptr && e->arg == 0);
    int32_t err = 0;
    EXPECT_TRUE(e->open(nullptr, 0, &err) == -1 && err == EFAULT);
    EXPECT_TRUE(e->open(dir.file("none").c_str(), 0, &err) == -1 && err == ENOENT && access(dir.file("none").c_str(), F_OK));
    mk::checkOps(mk::Ops(*e), e->open(e->name, e->arg, &err), medium);
    EXPECT_TRUE(flst_m_getRoot(&s, 1) == 0x1234u && media_sync(&s, 1, 0) == 0 && media_term() == 0);
    EXPECT_EQ(getMedia(&s, 1), nullptr);
    EXPECT_EQ(errorOf(s), Pair(21, 0));
}

TEST(MediaConfig, EachLineAndTheLastLineDecidesTheResult) {
    kt::TempDir dir;
    const std::string lib = kt::libPath("libkesdrv_file.so"), err1 = "fillMediaEntry err1\n";
    const std::string unknown = dir.file("libnothere.so") + " a b c d e f /x/n\n";
    std::string overlong = fileLine("/x/long");
    overlong.insert(overlong.size() - 1, std::string(5000 - overlong.size(), ' '));
    std::vector<std::pair<std::string, std::string>> cases = {
        // Comment-only and blank lines: err1; a library alone: err2; seven tokens: silent.
        {"# a comment line\n\n   \t\n" + lib + "\n" + fileLine("") + fileLine("/nowhere/a") + "  " + lib +
             "   # everything behind the hash is gone: " + fileLine("/nowhere/b"),
         "0|" + err1 + err1 + err1 + "fillMediaEntry err2\nfillMediaEntry err2\n|/nowhere/a,"},
        {unknown, "20||"},
        {unknown + fileLine("/x/after"), "0||/x/after,"},
        {fileLine("/x/bad", 2) + "# trailing\n", "0|" + err1 + "|"},
        {fileLine("/x/bad", 2) + fileLine("/x/ok1") + fileLine("/x/bad", 2) + fileLine("/x/ok2"), "0||/x/ok1,/x/ok2,"},
        // Beyond 4095 characters the rest of a line comes back as a (blank) line of its own.
        {overlong + fileLine("/x/next"), "0|" + err1 + "|/x/long,/x/next,"},
        {"", "0||"},
    };
    for (int slot = 0; slot < 6; ++slot)
        cases.push_back({fileLine("/x/good") + fileLine("/x/bad", slot), std::to_string(14 + slot) + "||/x/good,"});
    // Once the table holds 127 drivers, further lines are not looked at: no message for the
    // blank one, and a bad last line does not set the result.
    std::pair<std::string, std::string> full{"", "0||"};
    for (int i = 1; i <= 128; ++i) full.first += fileLine("/x/m" + std::to_string(i));
    for (int i = 1; i <= 127; ++i) full.second += "/x/m" + std::to_string(i) + ",";
    cases.push_back({full.first + "\n" + unknown, full.second});
    for (const auto& [text, expect] : cases) {
        EXPECT_EQ(initWith(dir, text), expect);
        EXPECT_TRUE(media_term() == 0 && media_getCount() == 1);
    }
}

TEST(MediaConfig, OnlyTheFirstInitReadsItsFile) {
    kt::TempDir dir;
    const std::string conf = dir.file("media.conf"), missing = dir.file("missing.conf");
    kt::writeFile(conf, fileLine("/x/a"));
    EXPECT_TRUE(media_init(nullptr) == 12 && media_term() == 0);
    // A failed first init still counts: the next one returns 0 without reading its file.
    EXPECT_TRUE(media_init(missing.c_str()) == 12 && media_init(conf.c_str()) == 0 && media_getCount() == 1);
    EXPECT_TRUE(media_term() == 0 && media_term() == 0);
    // Back at zero the file is read; later inits only count, whatever their path.
    EXPECT_TRUE(media_init(conf.c_str()) == 0 && media_init(nullptr) == 0 && media_term() == 0);
    EXPECT_EQ(media_getCount(), 2);
    EXPECT_TRUE(media_term() == 0 && media_getCount() == 1);
}

TEST(BuiltInMedium, OpenAndSyncFollowTheVariableAtEveryCall) {
    kt::TempDir dir;
    const MediaEntry& e0 = media_table[0];
    EXPECT_TRUE(e0.open == defMedia_open && e0.sync == defMedia_sync && e0.name && *e0.name == '\0');
    // Unset: -1 with no error number stored, and media_sync records detail 0, not a stale one.
    unsetenv("KESDB_DEFMEDIA");
    int32_t err = 12345;
    EXPECT_TRUE(defMedia_open("", 0, &err) == -1 && err == 12345);
    Session s{0, 0, 0, 5, 0};
    EXPECT_EQ(media_sync(&s, 0, 0), 22);
    EXPECT_EQ(errorOf(s), Pair(22, 0));
    // A missing file is not created.
    setenv("KESDB_DEFMEDIA", dir.file("none.bin").c_str(), 1);
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
    EXPECT_TRUE(flst_m_getRoot(&s, 0) == 0xBu && kesDBMSync(&s, 0, 1) == 0 && s.error == 0u);
}

// An index outside the table records 21 (detail 0) and syncs nothing; without a session too.
TEST(MediaSync, IndexOutsideTheTable) {
    for (uint32_t index : {1u, 0xFFFFFFFFu}) {
        Session s{0, 0, 0, 77, 0};
        EXPECT_EQ(getMedia(&s, index), nullptr);
        EXPECT_EQ(errorOf(s), Pair(21, 0));
        s = Session{};
        EXPECT_TRUE(kesDBMSync(&s, index, 0) == 0 && s.error == 21u);
        EXPECT_TRUE(getMedia(nullptr, index) == nullptr && media_sync(nullptr, index, 0) == 0);
    }
}

TEST(MediaMisc, IsCompMediaCompFileReadAndNullArguments) {
    const std::pair<const char*, int> names[] = {{"compMedia", 1}, {"compMedi", 1}, {"compMedia_values_2", 1},
                                                 {"compMed", 0},   {"CompMedia", 0}, {nullptr, 0}};
    for (const auto& [name, expect] : names) EXPECT_EQ(IsCompMedia(name), expect) << (name ? name : "null");
    MediaEntry e{};
    char line[] = "x";
    EXPECT_TRUE(fillMediaEntry(nullptr, &e) == -1 && fillMediaEntry(line, nullptr) == -1);
    kt::TempDir dir;
    kt::writeFile(dir.file("c.bin"), "abcdefgh");
    const int fd = open(dir.file("c.bin").c_str(), O_RDONLY);
    char buf[8] = {};
    int32_t err = 99;
    EXPECT_TRUE(compFileRead(fd, buf, 8, 2, &err) == 6 && std::string(buf, 6) == "cdefgh" && err == 0);
    close(fd);
    EXPECT_TRUE(compFileRead(-1, buf, 4, 0, &err) == -1 && err == -1);  // -1, not errno
}
