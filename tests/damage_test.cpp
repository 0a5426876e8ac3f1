// The kesdb tool on damaged databases: every command ends, in bounded time and memory, with a
// message that names what is wrong, and "kesdb check" lists it.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "testkit.hpp"

namespace {

namespace fs = std::filesystem;
using kt::Outcome;

const char kDescription[] =
    R"({"children": [{"name": "net", "children": [{"name": "host", "type": "String", "current": "dev"},)"
    R"( {"name": "port", "type": "Uint16", "current": 80, "range": {"min": 1, "max": 65535}}]},)"
    R"( {"name": "mode", "type": "Uint8", "current": 1}]})";

constexpr uint32_t kSelf = 0xFFFFFFFFu;  // a word set to the key of its own record

class Damage : public ::testing::Test {
protected:
    void SetUp() override {
        setenv("KESDB_DBTABLE", dir.file("db.tbl").c_str(), 1);
        kt::writeFile(dir.file("d.json"), kDescription);
        ASSERT_EQ(kesdb({"create", "db", "--from", "d.json"}).code, 0);
        // Keys from the printout: "leaf 204 [/host]" and the value lines below it.
        std::istringstream lines(kesdb({"-d", "db", "print"}).out);
        std::string kind, name, last;
        for (uint32_t key; lines >> kind >> key && std::getline(lines, name);) {
            if (kind == "value") {
                keys[last + (keys.count(last + ".current") ? ".default" : ".current")] = key;
            } else {
                last = name.substr(2, name.find(']') - 2);
                keys[last] = key;
            }
        }
    }
    Outcome kesdb(const std::vector<std::string>& args) {
        return kt::finishProgram(dir, kt::spawnProgram(dir, "kesdb", args, ""), "");
    }
    // A copy of the database with the word at `offset` of the record `record` set to `value`.
    std::string damaged(const std::string& record, uint32_t offset, uint32_t value) {
        const std::string copy = "d" + std::to_string(++copies);
        fs::copy(dir.file("db"), dir.file(copy));
        const uint32_t key = record.empty() ? 0 : keys.at(record);  // "": the medium header
        if (value == kSelf) value = key;
        kt::writeBytes(dir.file(copy + "/medium.bin"), key + offset, &value, 4);
        return copy;
    }
    kt::TempDir dir;
    std::map<std::string, uint32_t> keys;
    int copies = 0;
};

// Each row damages one word of a fresh copy and runs one command on it.
TEST_F(Damage, CommandsEndWithTheCause) {
    // No command may take more than a small part of this (a damaged length word once made
    // the printout allocate 2 GiB). Only in a plain build: sanitizers, valgrind and the
    // emulator reserve far more address space than they use.
    if (kt::timeScale() == 1) {
        const rlimit limit{512u << 20, 512u << 20};
        ASSERT_EQ(setrlimit(RLIMIT_AS, &limit), 0);
    }
    struct Row {
        std::string record;
        uint32_t offset, value;
        std::vector<std::string> args;
        int code;
        std::string err, out;
    };
    const Row rows[] = {
        {"/host", 16, kSelf, {"export"}, 2, "component " + std::to_string(keys["/host"]) + " (/net/host) is reached a second time", ""},
        {"/host", 16, kSelf, {"show"}, 2, "is reached a second time from /net", "/net/host=dev\n"},
        {"/host", 16, kSelf, {"print"}, 2, "print stopped at component " + std::to_string(keys["/host"]) + ": 55", "str [dev]"},
        {"net", 24, keys["/"], {"show"}, 2, "is reached a second time", ""},
        {"/host.current", 16, 0x7FFFFFF0, {"print"}, 0, "", "value " + std::to_string(keys["/host.current"]) + " str [dev]\n"},
        {"/host.current", 16, 0x7FFFFFF0, {"get", "/net/host"}, 2, "its length word says 2147483632 bytes, outside 1..65536", ""},
        {"/host.current", 16, 0, {"get", "/net/host"}, 2, "length word says 0 bytes", ""},
    };
    for (const Row& row : rows) {
        const std::string copy = damaged(row.record, row.offset, row.value);
        std::vector<std::string> args = {"-d", copy};
        args.insert(args.end(), row.args.begin(), row.args.end());
        const Outcome r = kesdb(args);
        const std::string label = row.record + "+" + std::to_string(row.offset) + " " + ::testing::PrintToString(row.args);
        EXPECT_EQ(r.code, row.code) << label << "\n" << r.err;
        EXPECT_NE(r.err.find(row.err), std::string::npos) << label << "\n" << r.err;
        EXPECT_NE(r.out.find(row.out), std::string::npos) << label << "\n" << r.out;
    }
}

}  // namespace

// Files of the database replaced by what a start-up cannot use: the command ends at once
// and names the file and its fault; nothing is made where a link points.
TEST_F(Damage, StartUpNamesTheFileItCannotUse) {
    struct Row {
        std::string file, replacement;  // "fifo", "zero", "dangling" or "short"
        std::vector<std::string> args;
        std::string err;
    };
    const Row rows[] = {
        {"media.conf", "fifo", {"show"}, "12 KESDB_ERR_MEDIA_CONFOPEN); " + dir.file("d1/media.conf") + ": not a regular file"},
        {"hook.conf", "zero", {"show"}, "30 KESDB_ERR_HOOK_CONFOPEN); " + dir.file("d2/hook.conf") + ": not a regular file"},
        {"session.tbl", "dangling", {"lock", "/net", "--try"}, "session.tbl: a symbolic link, which is never followed"},
        {"lock.tbl", "short", {"lock", "/net", "--try"}, "lock.tbl: 100 bytes, shorter than the table's"},
        {"db.tbl", "dangling", {"lock", "/net", "--try"}, "db.tbl: a symbolic link"},
    };
    for (const Row& row : rows) {
        const std::string copy = damaged("/", 0, keys["/"]), file = dir.file(copy + "/" + row.file);
        fs::remove(file);
        if (row.replacement == "fifo") {
            ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
        }
        if (row.replacement == "zero") fs::create_symlink("/dev/zero", file);
        if (row.replacement == "dangling") fs::create_symlink(dir.file("planted"), file);
        if (row.replacement == "short") kt::writeFile(file, std::string(100, '\0'));
        std::vector<std::string> args = {"-d", copy};
        args.insert(args.end(), row.args.begin(), row.args.end());
        const Outcome r = kesdb(args);
        EXPECT_EQ(r.code, 2) << row.file << " " << row.replacement;
        EXPECT_NE(r.err.find(row.err), std::string::npos) << row.file << " " << row.replacement << "\n" << r.err;
        EXPECT_FALSE(fs::exists(dir.file("planted"))) << row.file;
    }
}

// Shut-downs without a matching start-up undo nothing, and the next start-up works.
TEST(StartUp, ExtraShutDownsLeaveTheNextStartUpWorking) {
    kt::DbOptions options;
    options.start = false;
    kt::Db db(options);
    for (int round = 0; round < 2; ++round) {
        ASSERT_GT(db.start(), 0) << "round " << round << ": " << db.initError;
        EXPECT_TRUE(db.sessionOpen) << "round " << round;
        db.stop();
        for (int extra = 0; extra < 3; ++extra) kesDBMTerm(static_cast<uint32_t>(db.id));
    }
}

// "kesdb check" names the rule each damage breaks and exits 2; an intact copy passes.
TEST_F(Damage, CheckNamesTheBrokenRule) {
    struct Row {
        std::string record;
        uint32_t offset, value;
        std::string rule;
    };
    const Row rows[] = {
        {"/", 0, keys["/"], ""},  // unchanged
        {"/host", 16, kSelf, "T5: component " + std::to_string(keys["/host"]) + " is reached a second time"},
        {"/host", 20, 7, "T3: component " + std::to_string(keys["/host"]) + " has kind 7"},
        {"/host", 12, keys["/"], "T4: "},
        {"/host", 36, 9, "T6: "},
        {"/host", 4, 3, "S1: "},
        {"/host.current", 4, 99, "V2: "},
        {"/host.current", 16, 0x7FFFFFF0, "V3: current value " + std::to_string(keys["/host.current"])},
        {"/port.current", 24, 8, "C1: "},
        {"", 12, 8, "M2: "},
        {"", 12, keys["/host"], "P2: "},
    };
    for (const Row& row : rows) {
        const Outcome r = kesdb({"check", damaged(row.record, row.offset, row.value)});
        EXPECT_EQ(r.code, row.rule.empty() ? 0 : 2) << row.rule << "\n" << r.out << r.err;
        const std::string expected = row.rule.empty() ? ": consistent (2 nodes, 3 leaves" : row.rule;
        EXPECT_NE(r.out.find(expected), std::string::npos) << row.rule << "\n" << r.out;
    }
}
