// kesdb migrate, import --merge, add, delete and factory-reset, run as separate processes.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
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
using Checks = std::vector<std::pair<std::string, std::string>>;  // path, expected "get" output

const std::string kHook = "libkeshook_sample.so policy_preSet log_postSet NULL NULL";

class Migrate : public ::testing::Test {
protected:
    void SetUp() override { setenv("KESDB_DBTABLE", dir.file("db.tbl").c_str(), 1); }
    Outcome run(std::vector<std::string> args, bool onDb = true) {
        if (onDb) args.insert(args.begin(), {"-d", "db"});
        return kt::finishProgram(dir, kt::spawnProgram(dir, "kesdb", args), "");
    }
    // Writes {"children": [children]} to `name`.
    std::string describe(const std::string& name, const std::string& children) {
        kt::writeFile(dir.file(name), "{\"children\": [" + children + "]}");
        return dir.file(name);
    }
    void create(const std::string& children) {
        Outcome r = run({"create", "db", "--hook", kHook, "--from", describe("old.json", children)}, false);
        ASSERT_EQ(r.code, 0) << r.err;
    }
    void expectValues(const Checks& checks) {
        for (const auto& [path, value] : checks) EXPECT_EQ(run({"get", path}).out, value + "\n") << path;
    }
    std::string exported() { return run({"export"}).out; }
    kt::TempDir dir;
};

std::string leaf(const std::string& name, const std::string& type, const std::string& rest) {
    return "{\"name\": \"" + name + "\", \"type\": \"" + type + "\", " + rest + "}";
}
std::string node(const std::string& name, const std::string& children) {
    return "{\"name\": \"" + name + "\", \"children\": [" + children + "]}";
}

struct MigrateRow {
    const char* what;
    std::string before, after, report;
    Checks values;
};

TEST_F(Migrate, KeepsWhatTheNewStructureAcceptsAndReportsTheRest) {
    const MigrateRow rows[] = {
        {"enumeration member removed", leaf("mode", "Uint8", "\"current\": 2"),
         leaf("mode", "Uint8", "\"current\": 0, \"default\": 1, \"enum\": [0, 1]"),
         "/mode: reset to 1 (2 is not one of 0, 1)\n", {{"/mode", "1"}}},
        {"String shorter than its value", leaf("host", "String", "\"size\": 16, \"current\": \"longhostname\""),
         leaf("host", "String", "\"size\": 8, \"current\": \"h\"") + "," +
             leaf("id", "String", "\"size\": 4, \"current\": \"x\""),
         "/host: reset to \"h\" (text of 12 bytes does not fit size 8)\n/id: added with \"x\"\n", {{"/host", "h"}}},
        {"exact numeric conversions only",
         leaf("a", "Uint32", "\"current\": 300") + "," + leaf("b", "Uint32", "\"current\": 200") + "," +
             leaf("c", "Float64", "\"current\": 2.5") + "," + leaf("d", "Sint32", "\"current\": -3") + "," +
             leaf("e", "Uint32", "\"current\": 16777217"),
         leaf("a", "Uint8", "\"current\": 1") + "," + leaf("b", "Uint8", "\"current\": 1") + "," +
             leaf("c", "Sint16", "\"current\": 1") + "," + leaf("d", "Float32", "\"current\": 0") + "," +
             leaf("e", "Float32", "\"current\": 0"),
         "/a: reset to 1 (300 is out of range for Uint8)\n/c: reset to 1 (2.5 is not a whole number for Sint16)\n"
         "/e: reset to 0 (16777217 has no exact value for Float32)\n",
         {{"/b", "200"}, {"/d", "-3"}}},
        {"range tightened", leaf("p", "Uint16", "\"current\": 70"),
         leaf("p", "Uint16", "\"current\": 10, \"range\": {\"min\": 10, \"max\": 60, \"step\": 5}"),
         "/p: reset to 10 (70 is above the maximum 60)\n", {{"/p", "10"}}},
        {"leaf becomes a node and a node a leaf",
         leaf("a", "Uint8", "\"current\": 5") + "," + node("b", leaf("x", "Uint8", "\"current\": 6")),
         node("a", leaf("y", "Uint8", "\"current\": 7")) + "," + leaf("b", "Uint8", "\"current\": 8"),
         "/a/y: added with 7\n/b: added with 8 (was a node)\n"
         "/a: dropped (now a node)\n/b/x: dropped (/b is now a leaf)\n",
         {{"/a/y", "7"}, {"/b", "8"}}},
        {"hook goes away, siblings swapped, prefix names",
         leaf("eth10", "Uint32", "\"current\": 1, \"hook\": 1") + "," +
             node("eth1", leaf("ip", "Uint32", "\"current\": 2")) + "," + leaf("x", "Uint8", "\"current\": 3") + "," +
             leaf("y", "Sint8", "\"current\": -4"),
         leaf("eth10", "Uint32", "\"current\": 0") + "," + node("eth1", leaf("ip", "Uint32", "\"current\": 0")) + "," +
             leaf("y", "Sint8", "\"current\": 0") + "," + leaf("x", "Uint8", "\"current\": 0"),
         "", {{"/eth10", "1"}, {"/eth1/ip", "2"}, {"/x", "3"}, {"/y", "-4"}}},
    };
    for (const MigrateRow& row : rows) {
        SCOPED_TRACE(row.what);
        create(row.before);
        const std::string file = describe("new.json", row.after);
        const std::string before = exported();
        Outcome check = run({"migrate", file, "--check"});
        EXPECT_EQ(check.code, 0) << check.err;
        EXPECT_EQ(check.out, row.report);
        EXPECT_EQ(exported(), before) << "--check changed the database";
        Outcome r = run({"migrate", file});
        EXPECT_EQ(r.code, 0) << r.err;
        EXPECT_EQ(r.out, row.report);
        expectValues(row.values);
        EXPECT_EQ(exported().find("\"hook\""), std::string::npos);
        std::system(("rm -rf " + dir.file("db")).c_str());
    }
}

TEST_F(Migrate, RefusesBadInputAndBusyDatabasesWithoutChangingAnything) {
    create(leaf("a", "Uint32", "\"current\": 5, \"hook\": 1") + "," + node("n", leaf("b", "Uint32", "\"current\": 6")));
    const std::string before = exported();
    EXPECT_EQ(run({"migrate", describe("bad.json", leaf("a", "Uint32", "\"current\": 1, \"hook\": 2"))}).code, 2);
    kt::writeFile(dir.file("broken.json"), "{\"children\": [");
    EXPECT_EQ(run({"migrate", dir.file("broken.json")}).code, 2);
    ASSERT_EQ(run({"lock", "/n"}).code, 0);
    EXPECT_EQ(run({"migrate", describe("ok.json", leaf("a", "Uint32", "\"current\": 1"))}).code, 5);
    ASSERT_EQ(run({"unlock", "/n"}).code, 0);
    EXPECT_EQ(run({"import", "--merge", describe("m.json", node("n", leaf("b", "Uint32", "\"current\": 9")) + "," +
                                                              leaf("a", "Uint32", "\"current\": 2000"))}).code,
              4);  // the hook refuses a after b was written: b is put back
    EXPECT_EQ(run({"import", "--merge", describe("m2.json", leaf("zz", "Uint32", "\"current\": 1"))}).code, 3);
    EXPECT_EQ(exported(), before);
}

// Leftovers of a killed migrate or a killed journaled command are undone by the next run.
TEST_F(Migrate, LeftoversOfAKilledCommandAreRecovered) {
    create(leaf("a", "Uint32", "\"current\": 5"));
    // Killed between the two renames of a file system without exchange: db is missing.
    ASSERT_EQ(std::system(("cd " + dir.path() + " && mv db db.kesdb-old && mkdir db.kesdb-new.tmp-1").c_str()), 0);
    Outcome r = run({"migrate", describe("new.json", leaf("a", "Uint32", "\"current\": 1"))});
    EXPECT_EQ(r.code, 0) << r.err;
    expectValues({{"/a", "5"}});
    EXPECT_EQ(run({"get", "/a", "--default"}).out, "1\n");
    for (const char* left : {"db.kesdb-old", "db.kesdb-new.tmp-1"}) EXPECT_NE(access(dir.file(left).c_str(), F_OK), 0);
    // Killed while a merge wrote: the journal and its copy are in place, the medium changed.
    ASSERT_EQ(std::system(("cd " + dir.path() + "/db && cp medium.bin medium.bin.kesdb-saved && printf '99999999\\n" +
                           dir.path() + "/db/medium.bin\\n' > kesdb.journal")
                              .c_str()),
              0);
    ASSERT_EQ(run({"set", "/a", "7"}).code, 0);  // opening undoes it first
    ASSERT_EQ(run({"set", "/a", "8"}).code, 0);
    EXPECT_EQ(run({"get", "/a"}).out, "8\n");
    EXPECT_NE(access(dir.file("db/kesdb.journal").c_str(), F_OK), 0);
}

// A migrate killed at any moment leaves the old database or the new one, never a mix.
TEST_F(Migrate, AKillAtAnyMomentLeavesOldOrNew) {
    std::string before, after;
    for (int n = 0; n < 40; ++n) {
        const std::string name = "v" + std::to_string(n), sep = n ? "," : "";
        before += sep + leaf(name, "Uint32", "\"current\": " + std::to_string(n));
        after += sep + leaf(name, "Uint16", "\"current\": 0");
    }
    create(before);
    ASSERT_EQ(std::system(("cp -a " + dir.file("db") + " " + dir.file("pristine")).c_str()), 0);
    const std::string file = describe("new.json", after), oldText = exported();
    std::string newText;
    for (int delayMs = 0; delayMs < 1000; delayMs += 100) {
        std::system(("rm -rf " + dir.file("db") + "* && cp -a " + dir.file("pristine") + " " + dir.file("db")).c_str());
        const pid_t pid = kt::spawnProgram(dir, "kesdb", {"-d", "db", "migrate", file}, "k");
        std::this_thread::sleep_for(std::chrono::milliseconds(delayMs));
        kill(pid, SIGKILL);
        kt::finishProgram(dir, pid, "k");
        const std::string text = run({"export"}).out;
        if (text != oldText) {
            if (newText.empty()) {
                ASSERT_NE(text.find("\"Uint16\""), std::string::npos) << text;
                newText = text;
            }
            EXPECT_EQ(text, newText) << "killed after " << delayMs << " ms";
        }
        EXPECT_EQ(run({"migrate", file, "--check"}).code, 0);  // and the next run accepts the directory
    }
}

TEST_F(Migrate, SingleComponentsAndFactoryValues) {
    create(node("net", leaf("mode", "Uint8", "\"current\": 1, \"enum\": [0, 1, 2]")));
    // A node whose name begins the new leaf's: the leaf goes before it, so both are found.
    ASSERT_EQ(run({"add", "/net/p"}).code, 0);
    Outcome r = run({"add", "/net/port", "--type", "Uint16", "--range", "1", "100", "1", "--value", "80"});
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(run({"add", "/net/bad", "--type", "Uint8", "--enum", "1,2", "--value", "3"}).code, 2);
    EXPECT_EQ(run({"add", "/nosuch/x", "--type", "Uint8"}).code, 3);
    expectValues({{"/net/port", "80"}});
    ASSERT_EQ(run({"set", "/net/mode", "2", "--factory"}).code, 0);
    EXPECT_EQ(run({"set", "/net/mode", "5", "--factory"}).code, 4);
    ASSERT_EQ(run({"factory-reset", "/net"}).code, 0);
    EXPECT_EQ(run({"get", "/net/mode", "--default"}).out, "2\n");
    expectValues({{"/net/mode", "2"}});
    ASSERT_EQ(run({"delete", "/net/p"}).code, 0);
    EXPECT_NE(run({"get", "/net/p"}).code, 0);
    // A tree path is never a file name; "-" is standard output, and its text merges back.
    Outcome e = run({"export", "/net/port"});
    EXPECT_EQ(e.code, 0);
    EXPECT_NE(e.out.find("\"name\": \"port\""), std::string::npos);
    EXPECT_EQ(e.out.find("\"mode\""), std::string::npos);
    EXPECT_EQ(run({"export", "--path", "/net/port", "-"}).out, e.out);
    kt::writeFile(dir.file("port.json"), e.out);
    ASSERT_EQ(run({"set", "/net/port", "9"}).code, 0);
    ASSERT_EQ(run({"import", "--merge", dir.file("port.json")}).code, 0);
    expectValues({{"/net/port", "80"}});
}

}  // namespace
