// The media table: configuration file parsing, the built-in medium, getMedia, media_sync,
// IsCompMedia and compFileRead.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "kesdbm/kesdbm.h"
#include "testkit.hpp"

namespace {

const char* const kFileSyms[6] = {"fileMedia_open",  "fileMedia_close", "fileMedia_read",
                                  "fileMedia_write", "fileMedia_seek",  "fileMedia_sync"};

// A media configuration line for the named-file driver; `symbols` may replace its symbols.
std::string fileLine(const std::string& name, const char* const* symbols = kFileSyms) {
    std::string line = kt::libPath("libkesdrv_file.so");
    for (int i = 0; i < 6; ++i) line += std::string(" ") + symbols[i];
    return line + " " + name + "\n";
}

// media_init on a configuration file holding `text`, with what it printed.
struct InitResult {
    int32_t code;
    std::string output;
};

InitResult initWith(const kt::TempDir& dir, const std::string& text) {
    const std::string path = dir.file("media.conf");
    kt::writeFile(path, text);
    InitResult r{-100, ""};
    r.output = kt::captureStdout([&] { r.code = media_init(path.c_str()); });
    return r;
}

using Names = std::vector<std::string>;

// The names of the loaded drivers, entries 1 onwards.
Names loaded() {
    Names names;
    for (int32_t i = 1; i < media_getCount() && i < 200; ++i)
        names.push_back(media_table[i].name ? media_table[i].name : "(null)");
    return names;
}

}  // namespace

TEST(MediaConfig, EightTokensLoadAndANinthIsIgnored) {
    kt::TempDir dir;
    const std::string medium = dir.file("m1.bin");
    ASSERT_EQ(kesdb_layMedium(medium.c_str(), 64, 0x1234), 0);
    std::string line = fileLine(medium);
    line.insert(line.size() - 1, " ninth-token tenth");
    InitResult r = initWith(dir, line);
    EXPECT_EQ(r.code, 0);
    EXPECT_EQ(r.output, "");
    ASSERT_EQ(media_getCount(), 2);

    Session s{};
    MediaEntry* e = getMedia(&s, 1);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e, &media_table[1]);
    EXPECT_NE(e->handle, nullptr);
    EXPECT_STREQ(e->name, medium.c_str());
    EXPECT_EQ(e->arg, 0u);
    // The loaded operations reach the named file, each in its own slot.
    int32_t err = 0;
    int fd = e->open(e->name, e->arg, &err);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(e->seek(fd, 0, 2, &err), 64);
    EXPECT_EQ(e->write(fd, "\x21", 1, 63, &err), 1);
    EXPECT_EQ(e->close(fd, &err), 0);
    EXPECT_EQ(flst_m_getRoot(&s, 1), 0x1234u);
    EXPECT_EQ(media_sync(&s, 1, 0), 0);
    EXPECT_EQ(kt::readBytes(medium, 63, 1), std::vector<uint8_t>{0x21});

    EXPECT_EQ(media_term(), 0);
    EXPECT_EQ(media_getCount(), 1);
    EXPECT_EQ(getMedia(&s, 1), nullptr);
    EXPECT_EQ(s.error, 21u);
}

TEST(MediaConfig, CommentsBlankLinesAndIncompleteLines) {
    kt::TempDir dir;
    const std::string lib = kt::libPath("libkesdrv_file.so");
    // Comment-only and blank lines: err1 each; a library alone: err2; seven tokens: silent.
    std::string text = "# a comment line\n\n   \t\n" + lib + "\n" + lib +
                       " fileMedia_open fileMedia_close fileMedia_read fileMedia_write fileMedia_seek "
                       "fileMedia_sync\n" +
                       fileLine("/nowhere/a") +  // loads: the name is only used at open
                       "  " + lib + "   # everything behind the hash is gone: " + fileLine("/nowhere/b");
    InitResult r = initWith(dir, text);
    EXPECT_EQ(r.code, 0);
    EXPECT_EQ(r.output,
              "fillMediaEntry err1\nfillMediaEntry err1\nfillMediaEntry err1\nfillMediaEntry err2\n"
              "fillMediaEntry err2\n");
    EXPECT_EQ(loaded(), Names{"/nowhere/a"});
    // A driver whose file is missing fails at open with the driver's error number.
    Session s{};
    EXPECT_EQ(media_sync(&s, 1, 0), 22);
    EXPECT_EQ(s.error, 22u);
    EXPECT_EQ(s.errorDetail, static_cast<uint32_t>(ENOENT));
}

TEST(MediaConfig, LastLineDecidesTheResult) {
    kt::TempDir dir;
    // A missing symbol in each slot, on the last line, gives the code of that slot.
    for (int slot = 0; slot < 6; ++slot) {
        const char* syms[6];
        for (int i = 0; i < 6; ++i) syms[i] = kFileSyms[i];
        syms[slot] = "noSuchSymbol";
        InitResult r = initWith(dir, fileLine("/x/good") + fileLine("/x/bad", syms));
        EXPECT_EQ(r.code, 14 + slot) << "slot " << slot;
        EXPECT_EQ(r.output, "");
        // The good line before it stays loaded.
        EXPECT_EQ(loaded(), Names{"/x/good"});
        EXPECT_EQ(media_term(), 0);
        EXPECT_EQ(loaded(), Names{});
    }
    // An unknown library on the last line: 20.
    const std::string unknown = dir.file("libnothere.so") + " a b c d e f /x/n\n";
    InitResult r = initWith(dir, unknown);
    EXPECT_EQ(r.code, 20);
    EXPECT_EQ(media_getCount(), 1);
    media_term();
    // The same line followed by a valid one: 0, and the valid line is entry 1.
    r = initWith(dir, unknown + fileLine("/x/after"));
    EXPECT_EQ(r.code, 0);
    EXPECT_EQ(loaded(), Names{"/x/after"});
    media_term();
    // A failing line followed by a comment line: the comment line gives 0.
    const char* badRead[6] = {"fileMedia_open",  "fileMedia_close", "nope",
                              "fileMedia_write", "fileMedia_seek",  "fileMedia_sync"};
    r = initWith(dir, fileLine("/x/bad", badRead) + "# trailing\n");
    EXPECT_EQ(r.code, 0);
    EXPECT_EQ(r.output, "fillMediaEntry err1\n");
    media_term();
    // A failed line does not take a slot: the next good line is built in the same one.
    r = initWith(dir,
                 fileLine("/x/bad", badRead) + fileLine("/x/ok1") + fileLine("/x/bad", badRead) + fileLine("/x/ok2"));
    EXPECT_EQ(r.code, 0);
    EXPECT_EQ(loaded(), (Names{"/x/ok1", "/x/ok2"}));
    media_term();
}

TEST(MediaConfig, TableHoldsAtMost127Drivers) {
    kt::TempDir dir;
    std::string text;
    for (int i = 1; i <= 130; ++i) text += fileLine("/x/m" + std::to_string(i));
    InitResult r = initWith(dir, text);
    EXPECT_EQ(r.code, 0);
    EXPECT_EQ(media_getCount(), 128);
    EXPECT_STREQ(media_table[127].name, "/x/m127");
    Session s{};
    EXPECT_EQ(getMedia(&s, 127), &media_table[127]);
    EXPECT_EQ(getMedia(&s, 128), nullptr);
    EXPECT_EQ(s.error, 21u);
    media_term();
    EXPECT_EQ(media_getCount(), 1);

    // Once the table is full, further lines are not looked at: no message for the blank ones,
    // and a bad last line does not set the result.
    text.clear();
    for (int i = 1; i <= 127; ++i) text += fileLine("/x/m" + std::to_string(i));
    text += "\n# comment\n" + dir.file("libnothere.so") + " a b c d e f g\n";
    r = initWith(dir, text);
    EXPECT_EQ(r.code, 0);
    EXPECT_EQ(r.output, "");
    EXPECT_EQ(media_getCount(), 128);
    media_term();
}

TEST(MediaConfig, EmptyFileMissingFileAndSecondInit) {
    kt::TempDir dir;
    InitResult r = initWith(dir, "");
    EXPECT_EQ(r.code, 0);
    EXPECT_EQ(r.output, "");
    EXPECT_EQ(media_getCount(), 1);
    // A second init only counts: it does not open its path, even a missing one.
    EXPECT_EQ(media_init(dir.file("missing.conf").c_str()), 0);
    EXPECT_EQ(media_init(nullptr), 0);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(media_term(), 0);

    // First init of a missing file: 12; the count stays raised, so the next init returns 0.
    EXPECT_EQ(media_init(dir.file("missing.conf").c_str()), 12);
    kt::writeFile(dir.file("media.conf"), fileLine("/x/late"));
    EXPECT_EQ(media_init(dir.file("media.conf").c_str()), 0);
    EXPECT_EQ(media_getCount(), 1);
    media_term();
    media_term();
    // Back at zero: the next init reads its file.
    EXPECT_EQ(media_init(dir.file("media.conf").c_str()), 0);
    EXPECT_EQ(media_getCount(), 2);
    media_term();
}

TEST(MediaConfig, OverlongLineContinuesAsALineOfItsOwn) {
    kt::TempDir dir;
    // A valid line padded with blanks beyond 4095 characters: the first read takes the eight
    // tokens, the rest of the line comes back as a blank line (err1).
    std::string line = fileLine("/x/long");
    line.insert(line.size() - 1, std::string(5000 - line.size(), ' '));
    InitResult r = initWith(dir, line + fileLine("/x/next"));
    EXPECT_EQ(r.code, 0);
    EXPECT_EQ(r.output, "fillMediaEntry err1\n");
    EXPECT_EQ(loaded(), (Names{"/x/long", "/x/next"}));
    media_term();
}

TEST(BuiltInMedium, Entry0AndItsOpen) {
    kt::TempDir dir;
    const MediaEntry& e0 = media_table[0];
    EXPECT_EQ(media_getCount(), 1);
    EXPECT_TRUE(e0.handle == nullptr && e0.arg == 0 && e0.open == &defMedia_open && e0.sync == &defMedia_sync);
    ASSERT_NE(e0.name, nullptr);
    EXPECT_STREQ(e0.name, "");

    // Unset: -1 and nothing stored.
    unsetenv("KESDB_DEFMEDIA");
    int32_t err = 12345;
    EXPECT_EQ(defMedia_open("", 0, &err), -1);
    EXPECT_EQ(err, 12345);
    // A missing file: -1 and ENOENT; the file is not created.
    setenv("KESDB_DEFMEDIA", dir.file("none.bin").c_str(), 1);
    EXPECT_EQ(defMedia_open("", 0, &err), -1);
    EXPECT_EQ(err, ENOENT);
    EXPECT_NE(access(dir.file("none.bin").c_str(), F_OK), 0);

    // The variable is read at every open: name and arg are ignored.
    const std::string a = dir.file("a.bin"), b = dir.file("b.bin");
    ASSERT_EQ(kesdb_layMedium(a.c_str(), 32, 0xA), 0);
    ASSERT_EQ(kesdb_layMedium(b.c_str(), 48, 0xB), 0);
    setenv("KESDB_DEFMEDIA", a.c_str(), 1);
    err = 0;
    int fd = defMedia_open(b.c_str(), 7, &err);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(fcntl(fd, F_GETFL) & (O_ACCMODE | O_DSYNC), O_RDWR | O_DSYNC);
    EXPECT_EQ(defMedia_seek(fd, 0, 2, &err), 32);
    uint32_t word = 0xCAFE;
    EXPECT_EQ(defMedia_write(fd, &word, 4, 24, &err), 4);
    word = 0;
    EXPECT_EQ(defMedia_read(fd, &word, 4, 24, &err), 4);
    EXPECT_EQ(word, 0xCAFEu);
    EXPECT_EQ(defMedia_read(fd, &word, 4, 32, &err), 0);  // at the end
    EXPECT_EQ(defMedia_sync(fd, &err, 99), 0);
    EXPECT_EQ(defMedia_close(fd, &err), 0);
    EXPECT_EQ(err, 0);
    EXPECT_EQ(kt::readWord(a, 24), 0xCAFEu);
    setenv("KESDB_DEFMEDIA", b.c_str(), 1);
    Session s{};
    EXPECT_EQ(flst_m_getRoot(&s, 0), 0xBu);

    // Failures store errno.
    const std::pair<const char*, std::function<int64_t()>> bad[] = {
        {"read", [&] { return defMedia_read(-1, &word, 4, 0, &err); }},
        {"write", [&] { return defMedia_write(-1, &word, 4, 0, &err); }},
        {"seek", [&] { return defMedia_seek(-1, 0, 0, &err); }},
        {"sync", [&] { return defMedia_sync(-1, &err, 0); }},
        {"close", [&] { return defMedia_close(-1, &err); }},
    };
    for (const auto& [what, call] : bad) {
        SCOPED_TRACE(what);
        err = 0;
        EXPECT_EQ(call(), -1);
        EXPECT_EQ(err, EBADF);
    }
}

TEST(GetMedia, BoundsAndNullSession) {
    Session s{};
    EXPECT_EQ(getMedia(&s, 0), &media_table[0]);
    EXPECT_EQ(s.error, 0u);
    s.errorDetail = 77;
    EXPECT_EQ(getMedia(&s, 1), nullptr);
    EXPECT_EQ(s.error, 21u);
    EXPECT_EQ(s.errorDetail, 0u);
    EXPECT_EQ(getMedia(&s, 0xFFFFFFFFu), nullptr);
    EXPECT_EQ(getMedia(nullptr, 5), nullptr);
    EXPECT_EQ(getMedia(nullptr, 0), &media_table[0]);
}

TEST(MediaSync, AllPaths) {
    kt::TempDir dir;
    Session s{};
    // Out of range: 0, with 21 recorded.
    EXPECT_EQ(media_sync(&s, 3, 0), 0);
    EXPECT_EQ(s.error, 21u);
    EXPECT_EQ(media_sync(nullptr, 3, 0), 0);
    // Built-in medium without its variable: 22 with detail 0.
    unsetenv("KESDB_DEFMEDIA");
    s = Session{};
    s.errorDetail = 5;
    EXPECT_EQ(media_sync(&s, 0, 0), 22);
    EXPECT_EQ(s.error, 22u);
    EXPECT_EQ(s.errorDetail, 0u);
    EXPECT_EQ(media_sync(nullptr, 0, 0), 22);
    // Missing file: 22 with ENOENT.
    setenv("KESDB_DEFMEDIA", dir.file("none.bin").c_str(), 1);
    EXPECT_EQ(media_sync(&s, 0, 0), 22);
    EXPECT_EQ(s.errorDetail, static_cast<uint32_t>(ENOENT));
    // A real file: 0.
    ASSERT_EQ(kesdb_layMedium(dir.file("m.bin").c_str(), 32, 0), 0);
    setenv("KESDB_DEFMEDIA", dir.file("m.bin").c_str(), 1);
    s = Session{};
    EXPECT_EQ(media_sync(&s, 0, 1), 0);
    EXPECT_EQ(s.error, 0u);
    // kesDBMSync forwards unchanged.
    EXPECT_EQ(kesDBMSync(&s, 0, 0), 0);
    EXPECT_EQ(kesDBMSync(&s, 9, 0), 0);
    EXPECT_EQ(s.error, 21u);
}

TEST(MediaMisc, IsCompMediaAndNullArguments) {
    const std::pair<const char*, int> cases[] = {{"compMedia", 1},          {"compMedi", 1},   {"compMediX", 1},
                                                 {"compMedia_values_2", 1}, {"compMed", 0},    {"", 0},
                                                 {"CompMedia", 0},          {"xcompMedia", 0}, {nullptr, 0}};
    for (const auto& [name, expect] : cases) EXPECT_EQ(IsCompMedia(name), expect) << (name ? name : "null");
    MediaEntry e{};
    char line[] = "x";
    EXPECT_EQ(fillMediaEntry(nullptr, &e), -1);
    EXPECT_EQ(fillMediaEntry(line, nullptr), -1);
}

TEST(MediaMisc, CompFileRead) {
    kt::TempDir dir;
    const std::string path = dir.file("c.bin");
    kt::writeFile(path, "abcdefgh");
    int fd = open(path.c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    char buf[8] = {};
    int32_t err = 99;
    EXPECT_EQ(compFileRead(fd, buf, 4, 2, &err), 4);
    EXPECT_EQ(std::string(buf, 4), "cdef");
    EXPECT_EQ(err, 0);  // set to 0 even on success
    err = 99;
    EXPECT_EQ(compFileRead(fd, buf, 8, 6, &err), 2);
    EXPECT_EQ(err, 0);
    close(fd);
    err = 0;
    EXPECT_EQ(compFileRead(-1, buf, 4, 0, &err), -1);
    EXPECT_EQ(err, -1);  // -1, not errno
}
