// kesdb migrate, import --merge, add, delete and factory-reset, run as separate processes.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "testkit.hpp"

namespace {

using kt::Outcome;
using Checks = std::vector<std::pair<std::string, std::string>>;  // path, what "get" prints

// A leaf with its current value and more members; a node with its children.
std::string L(const std::string& name, const std::string& type, const std::string& current, const std::string& more = "") {
    return "{\"name\": \"" + name + "\", \"type\": \"" + type + "\", \"current\": " + current + more + "}";
}
std::string N(const std::string& name, const std::string& children) {
    return "{\"name\": \"" + name + "\", \"children\": [" + children + "]}";
}

class Migrate : public ::testing::Test {
protected:
    void SetUp() override { setenv("KESDB_DBTABLE", dir.file("db.tbl").c_str(), 1); }
    Outcome run(std::vector<std::string> args) {
        args.insert(args.begin(), {"-d", "db"});
        return kt::finishProgram(dir, kt::spawnProgram(dir, "kesdb", args));
    }
    std::string describe(const std::string& name, const std::string& children) {
        kt::writeFile(dir.file(name), "{\"children\": [" + children + "]}");
        return dir.file(name);
    }
    void create(const std::string& children) {
        ASSERT_EQ(std::system(("rm -rf " + dir.file("db")).c_str()), 0);
        ASSERT_EQ(run({"create", "--hook", "libkeshook_sample.so policy_preSet log_postSet NULL NULL", "--from",
                       describe("old.json", children)}).code, 0);
    }
    void expectValues(const Checks& checks) {
        for (const auto& [path, value] : checks) EXPECT_EQ(run({"get", path}).out, value + "\n") << path;
    }
    std::string exported() { return run({"export"}).out; }
    kt::TempDir dir;
};

TEST_F(Migrate, KeepsWhatTheNewStructureAcceptsAndReportsTheRest) {
    const struct {
        std::string before, after, report;
        Checks values;
    } rows[] = {
        {L("mode", "Uint8", "2") + "," + L("host", "String", "\"longhostname\"") + "," + L("p", "Uint16", "70"),
         L("mode", "Uint8", "0", ", \"default\": 1, \"enum\": [0, 1]") + "," + L("host", "String", "\"h\"", ", \"size\": 8") + "," +
             L("id", "String", "\"x\"") + "," + L("p", "Uint16", "10", ", \"range\": {\"min\": 10, \"max\": 60, \"step\": 5}"),
         "/mode: reset to 1 (2 is not one of 0, 1)\n/host: reset to \"h\" (text of 12 bytes does not fit size 8)\n"
         "/id: added with \"x\"\n/p: reset to 10 (70 is above the maximum 60)\n",
         {{"/mode", "1"}, {"/host", "h"}, {"/p", "10"}}},
        {L("a", "Uint32", "300") + "," + L("b", "Uint32", "200") + "," + L("c", "Float64", "2.5") + "," +
             L("d", "Sint32", "-3") + "," + L("e", "Uint32", "16777217"),
         L("a", "Uint8", "1") + "," + L("b", "Uint8", "1") + "," + L("c", "Sint16", "1") + "," + L("d", "Float32", "0") +
             "," + L("e", "Float32", "0"),
         "/a: reset to 1 (300 is out of range for Uint8)\n/c: reset to 1 (2.5 is not a whole number for Sint16)\n"
         "/e: reset to 0 (16777217 has no exact value for Float32)\n",
         {{"/b", "200"}, {"/d", "-3"}}},
        {L("a", "Uint8", "5") + "," + N("b", L("x", "Uint8", "6")), N("a", L("y", "Uint8", "7")) + "," + L("b", "Uint8", "8"),
         "/a/y: added with 7\n/b: added with 8 (was a node)\n/a: dropped (now a node)\n/b/x: dropped (/b is now a leaf)\n",
         {{"/a/y", "7"}, {"/b", "8"}}},
        // A hook that goes away, siblings swapped, names that begin others.
        {L("eth10", "Uint32", "1", ", \"hook\": 1") + "," + N("eth1", L("ip", "Uint32", "2")) + "," + L("x", "Uint8", "3") +
             "," + L("y", "Sint8", "-4"),
         L("eth10", "Uint32", "0") + "," + N("eth1", L("ip", "Uint32", "0")) + "," + L("y", "Sint8", "0") + "," +
             L("x", "Uint8", "0"),
         "", {{"/eth10", "1"}, {"/eth1/ip", "2"}, {"/x", "3"}, {"/y", "-4"}}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.before);
        create(row.before);
        const std::string file = describe("new.json", row.after), before = exported();
        EXPECT_EQ(run({"migrate", file, "--check"}).out, row.report);
        EXPECT_EQ(exported(), before) << "--check changed the database";
        const Outcome r = run({"migrate", file});
        EXPECT_EQ(r.code, 0) << r.err;
        EXPECT_EQ(r.out, row.report);
        expectValues(row.values);
        EXPECT_EQ(exported().find("\"hook\""), std::string::npos);
    }
}

TEST_F(Migrate, RefusesBadInputAndBusyDatabasesWithoutChangingAnything) {
    create(L("a", "Uint32", "5", ", \"hook\": 1") + "," + N("n", L("b", "Uint32", "6")));
    const std::string before = exported();
    EXPECT_EQ(run({"migrate", describe("bad.json", L("a", "Uint32", "1", ", \"hook\": 2"))}).code, 2);
    EXPECT_EQ(run({"migrate", describe("broken.json", "{")}).code, 2);
    ASSERT_EQ(run({"lock", "/n"}).code, 0);
    EXPECT_EQ(run({"migrate", describe("ok.json", L("a", "Uint32", "1"))}).code, 5);
    ASSERT_EQ(run({"unlock", "/n"}).code, 0);
    // The hook refuses a after b was written: b is put back.
    EXPECT_EQ(run({"import", "--merge", describe("m.json", N("n", L("b", "Uint32", "9")) + "," + L("a", "Uint32", "2000"))}).code, 4);
    EXPECT_EQ(run({"import", "--merge", describe("m2.json", L("zz", "Uint32", "1"))}).code, 3);
    EXPECT_EQ(exported(), before);
}

// Leftovers of a killed migrate or a killed journaled command are undone by the next run.
TEST_F(Migrate, LeftoversOfAKilledCommandAreRecovered) {
    create(L("a", "Uint32", "5"));
    // Killed between the two renames of a file system without exchange: db is missing.
    ASSERT_EQ(std::system(("cd " + dir.path() + " && mv db db.kesdb-old && mkdir db.kesdb-new.tmp-1").c_str()), 0);
    EXPECT_EQ(run({"migrate", describe("new.json", L("a", "Uint32", "1"))}).code, 0);
    expectValues({{"/a", "5"}});
    EXPECT_EQ(run({"get", "/a", "--default"}).out, "1\n");
    for (const char* left : {"db.kesdb-old", "db.kesdb-new.tmp-1"}) EXPECT_NE(access(dir.file(left).c_str(), F_OK), 0);
    // Killed while a merge wrote: the journal and its copy are in place, the medium changed.
    ASSERT_EQ(std::system(("cd " + dir.path() + "/db && cp medium.bin medium.bin.kesdb-saved && printf '99999999\\n" +
                           dir.path() + "/db/medium.bin\\n' > kesdb.journal").c_str()), 0);
    ASSERT_EQ(run({"set", "/a", "7"}).code, 0);  // opening undoes it first
    ASSERT_EQ(run({"set", "/a", "8"}).code, 0);
    expectValues({{"/a", "8"}});
    EXPECT_NE(access(dir.file("db/kesdb.journal").c_str(), F_OK), 0);
}

// A migrate killed at any moment leaves the old database or the new one, never a mix.
TEST_F(Migrate, AKillAtAnyMomentLeavesOldOrNew) {
    std::string before, after;
    for (int n = 0; n < 40; ++n) {
        before += (n ? "," : "") + L("v" + std::to_string(n), "Uint32", std::to_string(n));
        after += (n ? "," : "") + L("v" + std::to_string(n), "Uint16", "0");
    }
    create(before);
    ASSERT_EQ(std::system(("cp -a " + dir.file("db") + " " + dir.file("pristine")).c_str()), 0);
    const std::string file = describe("new.json", after), oldText = exported();
    ASSERT_EQ(run({"migrate", file}).code, 0);
    const std::string newText = exported();
    ASSERT_NE(newText.find("\"Uint16\""), std::string::npos) << newText;
    for (int delayMs = 0; delayMs < 1000; delayMs += 100) {
        std::system(("rm -rf " + dir.file("db") + "* && cp -a " + dir.file("pristine") + " " + dir.file("db")).c_str());
        const pid_t pid = kt::spawnProgram(dir, "kesdb", {"-d", "db", "migrate", file}, "k");
        std::this_thread::sleep_for(std::chrono::milliseconds(delayMs));
        kill(pid, SIGKILL);
        kt::finishProgram(dir, pid, "k");
        const std::string text = exported();
        EXPECT_TRUE(text == oldText || text == newText) << "killed after " << delayMs << " ms";
        EXPECT_EQ(run({"migrate", file, "--check"}).code, 0);  // and the next run accepts the directory
    }
}

}  // namespace
