// The kesdb tool as a script sees it, run as a separate process in a fresh directory: what
// each command prints on standard output and standard error, and the status it exits with.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <map>
#include <filesystem>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "mediakit.hpp"
#include "prockit.hpp"
#include "testkit.hpp"

namespace fs = std::filesystem;

namespace {

using kt::Outcome;
using Args = std::vector<std::string>;

const std::string kHook = "libkeshook_sample.so policy_preSet log_postSet NULL NULL";
const std::string kDevice = std::string(KT_SOURCE_DIR) + "/examples/device.json";

// One command: its exit status and a part of each output ("" for an output left empty).
struct Row {
    Args args;
    int code;
    std::string out, err;
};

// A description of `n` leaves "/n0".. at the root, each of `leaf` (its members after the name).
std::string many(int n, const std::string& leaf) {
    std::string json = "{\"children\":[";
    for (int i = 0; i < n; ++i) json += (i ? ",{\"name\":\"n" : "{\"name\":\"n") + std::to_string(i) + "\"," + leaf + "}";
    return json + "]}";
}
// A leaf with its current value and more members; a node with its children.
std::string L(const std::string& name, const std::string& type, const std::string& current, const std::string& more = "") {
    return "{\"name\": \"" + name + "\", \"type\": \"" + type + "\", \"current\": " + current + more + "}";
}
std::string N(const std::string& name, const std::string& children) { return "{\"name\": \"" + name + "\", \"children\": [" + children + "]}"; }
size_t entries(const std::string& dir) { return std::distance(fs::directory_iterator(dir), fs::directory_iterator()); }

class Tool : public ::testing::Test {
protected:
    void SetUp() override {
        setenv("KESDB_DBTABLE", dir.file("db.tbl").c_str(), 1);
        setenv("KESDB_DIR", "db", 1);
    }
    Outcome kesdb(const Args& args, const std::string& tag = "") {
        return kt::finishProgram(dir, kt::spawnProgram(dir, "kesdb", args, tag), tag);
    }
    void create(Args args) {
        args.insert(args.begin(), {"create", "db"});
        const Outcome r = kesdb(args);
        ASSERT_EQ(r.code, 0) << r.err;
        ASSERT_EQ(r.out + r.err, "");
    }
    void makeDevice() { create({"--hook", kHook, "--from", kDevice}); }
    std::string describe(const std::string& name, const std::string& children) {
        kt::writeFile(dir.file(name), "{\"children\": [" + children + "]}");
        return dir.file(name);
    }
    void createTree(const std::string& children) {
        fs::remove_all(dir.file("db"));
        create({"--hook", kHook, "--from", describe("old.json", children)});
    }
    void expectRows(const std::vector<Row>& rows) {
        for (const Row& row : rows) {
            const Outcome r = kesdb(row.args);
            const std::string label = ::testing::PrintToString(row.args) + "\n" + r.out + r.err;
            EXPECT_EQ(r.code, row.code) << label;
            for (const auto& [got, want] : {std::pair{r.out, row.out}, std::pair{r.err, row.err}})
                EXPECT_TRUE(want.empty() ? got.empty() : got.find(want) != std::string::npos) << label;
        }
    }
    void awaitSession() {
        for (int i = 0; i < 2000 && kt::readWord(dir.file("db/session.tbl"), 8) == 0; ++i) usleep(10000);
    }
    // In a child: starts the database in `where` from a working directory and an environment
    // of its own ($KESDB_DBTABLE, $PWD, $SIM_BYTE_ORDER naming nothing of the database).
    int32_t startElsewhere(const std::string& where, Session& s) {
        mkdir(dir.file("app").c_str(), 0775);
        if (chdir(dir.file("app").c_str()) != 0) return -1;
        for (const char* v : {"KESDB_DBTABLE=elsewhere.tbl", "PWD=/nowhere", "SIM_BYTE_ORDER=LITTLE_ENDIAN"}) putenv(const_cast<char*>(v));
        int32_t err = 0;
        const int32_t id = kesDBMInitDir(where.c_str(), &err);
        return id < 0 || kesDBMInitSession(&s, static_cast<uint32_t>(id)) != 0 ? -1 : id;
    }
    kt::TempDir dir;
    pk::Children children;
};

// Rows run in order on one database made from the sample description.
TEST_F(Tool, CommandsPrintWhatWasAskedAndExitByCause) {
    unsetenv("KESDB_DBTABLE");  // every table lives in the database directory then
    makeDevice();
    EXPECT_NE(kt::readFile(dir.file("db/kesdb.conf")).find("\nsession=session.tbl\nlock=lock.tbl\n"), std::string::npos);
    EXPECT_EQ(kt::readFile(dir.file("db/hook.conf")), std::string(KT_LIB_DIR) + "/" + kHook + "\n");
    const std::string long32(32, 'x');
    kt::writeFile(dir.file("xy.json"), R"({"children": [{"name": "time", "children": [{"name": "xy", "type": "Uint16", "current": 7}]}]})");
    expectRows({
        {{"set", "/net/port", "0"}, 4, "", "kesdb: /net/port: 0 is below the minimum 1 (range 1..65535)\n"},
        {{"set", "/net/mode", "7", "--default"}, 4, "", "kesdb: /net/mode: 7 is not one of 0, 1, 2\n"},
        {{"set", "/time/interval", "5000"}, 4, "", "kesdb: /time/interval: refused by its hook (result 1)\n"},
        {{"set", "/net/port", " 12"}, 2, "", "kesdb: value ' 12' does not parse as Uint16\n"},
        {{"set", "/net/port", "70000"}, 2, "", "kesdb: value '70000' is out of range for Uint16 (0 to 65535)\n"},
        {{"set", "/net/hostname", long32}, 2, "", "'" + long32 + "' does not fit /net/hostname (32 bytes with the NUL)\n"},
        {{"set", "/net/hostname", "\xff\xfe"}, 2, "", "kesdb: value for /net/hostname is not UTF-8 text\n"},
        {{"get", "/net/nothing"}, 3, "", "kesdb: unknown path /net/nothing\n"},
        {{"describe", "/net"}, 2, "", "kesdb: /net is a node, not a leaf; \"kesdb show /net\" lists its leaves\n"},
        {{"import", kDevice}, 2, "", "kesdb: the database is not empty (its root has children)\n"},
        {{"show", "/net"}, 0, "/net/hostname=device-1\n/net/ip=192.168.1.20\n/net/port=8080\n/net/mode=1\n", ""},
        {{"show", "time/", "--factory"}, 0, "/time/zone=UTC\n/time/interval=300\n", ""},
        {{"describe", "/net/port"}, 0, "path=/net/port\ntype=Uint16\nsize=2\ncurrent=8080\ndefault=80\nfactory=80\nmin=1\nmax=65535\nstep=0\nhook=0\n", ""},
        {{"set", "/net/port", "010"}, 0, "", ""},  // decimal, not octal
        {{"get", "/net/port", "--dir=db"}, 0, "10\n", ""},
        {{"set", "/net/port", "0x1f90"}, 0, "", ""},
        {{"diff", "/net/port"}, 0, "/net/port=8080 (default 80)\n", ""},
        {{"set", "/net/hostname", "--", "--dashes"}, 0, "", ""},
        {{"get", "/net/hostname"}, 0, "--dashes\n", ""},
        // The sample postSet hook prints a line: a diagnostic, kept off standard output.
        {{"set", "/time/interval", "900"}, 0, "", "keshook set key "},
        {{"-q", "set", "/time/interval", "900"}, 0, "", ""},
        {{"set", "/net/port", "8000", "--default"}, 0, "", ""},
        {{"get", "--default", "/net/port", "-d", "db"}, 0, "8000\n", ""},
        {{"reset", "/net"}, 0, "", ""},
        {{"show", "/"}, 0, "/net/hostname=kesdbm\n/net/ip=192.168.1.10\n/net/port=8000\n/net/mode=0\n/time/zone=Europe/Berlin\n", ""},
        {{"factory-to-default"}, 0, "", ""},
        {{"reset"}, 0, "", "keshook set key "},
        {{"show", "/"}, 0, "/net/port=80\n/net/mode=0\n/time/zone=UTC\n", ""},
        {{"print", "/net"}, 0, " [/port]\n", ""},
        // A node whose name begins a new leaf's: the leaf goes before it, so both are found.
        {{"add", "/time/x"}, 0, "", ""},
        {{"add", "/time/xy", "--type", "Uint16", "--range", "1", "100", "1", "--value", "80"}, 0, "", ""},
        {{"add", "/time/bad", "--type", "Uint8", "--enum", "1,2", "--value", "3"}, 4, "", "kesdb: "},
        {{"import", "--merge", "xy.json"}, 0, "", ""},
        {{"get", "/time/xy"}, 0, "7\n", ""},
        {{"export", "/time/xy"}, 0, "\"name\": \"xy\"", ""},  // a tree path is never a file name
        {{"delete", "/time/x"}, 0, "", ""},
        {{"get", "/time/x"}, 3, "", "kesdb: unknown path /time/x\n"},
        {{"set", "/net/mode", "2", "--factory"}, 0, "", ""},
        {{"factory-reset", "/net"}, 0, "", ""},
        {{"show", "/net", "--default"}, 0, "/net/mode=2\n", ""},
        {{"lock", "/net/port", "--try"}, 0, "", ""},
        {{"lock", "/net/port", "--try"}, 5, "", " (closed; \"kesdb unlock\" or \"kesdb orphans --clear --closed\" removes it)\n"},
        {{"locks"}, 0, "/net/port exclusive session ", ""},
        {{"unlock", "/net/port"}, 0, "", ""},
        {{"unlock", "/net/port"}, 2, "", "kesdb: unlock /net/port: 76 KESDB_ERR_LOCK_NOTFOUND\n"},
        {{"lock", "/net/port", "--shared", "--try"}, 0, "", ""},
        {{"lock", "/net/port", "--shared", "--try"}, 0, "", ""},
        {{"lock", "/net/port", "--try"}, 5, "", "locked by session "},
        {{"frobnicate"}, 1, "", "kesdb: unknown command 'frobnicate'\nRun 'kesdb --help' for the commands.\n"},
        {{"-d", "nowhere", "get", "/a"}, 2, "", "kesdb: cannot find nowhere: "},
        {{"--help"}, 0, "Exit status: 0 success, 1 usage error, 2 data or library error, 3 no such path,\n", ""},
        {{"create", "x", "--install-dir", "relative"}, 1, "", "kesdb: "},
    });
}

// Every command has a usage of its own, the same by "help CMD" and "CMD --help"; the manual
// page has an entry for each and names each of its options and the environment.
TEST_F(Tool, EachCommandHasItsOwnUsageAndManualEntry) {
    const std::string all = kesdb({"--help"}).out, manual = kt::readFile(std::string(KT_SOURCE_DIR) + "/tools/kesdb.1");
    std::istringstream lines(all.substr(all.find("Commands:\n")));
    int commands = 0;
    for (std::string line; std::getline(lines, line) && line.rfind("Options", 0) != 0;) {
        if (line.size() < 3 || line[2] == ' ' || line[0] != ' ') continue;
        const std::string usage = line.substr(2), name = usage.substr(0, usage.find(' '));
        const Outcome own = kesdb({"help", name});
        EXPECT_EQ(own.out.rfind("usage: kesdb [-d DIR] [-q] " + usage + "\n", 0), 0u) << own.out;
        EXPECT_EQ(kesdb({name, "--help"}).out, own.out) << name;
        std::string entry = "\n.B ";
        for (char c : name) entry += c == '-' ? std::string("\\-") : std::string(1, c);
        EXPECT_NE(manual.find(entry), std::string::npos) << name;
        ++commands;
    }
    EXPECT_GE(commands, 16);
}

// Export and import give back the same bytes, and every value "show" prints sets back to the
// same bits.
TEST_F(Tool, ExportImportAndShowRoundTripsAreByteIdentical) {
    kt::writeFile(dir.file("all.json"), R"({"children":[
      {"name":"a","children":[
        {"name":"s8","type":"Sint8","current":-128,"range":{"min":-128,"max":100,"step":4}},
        {"name":"s32","type":"Sint32","current":5,"range":{"min":-10,"max":10,"step":-5}},
        {"name":"s64","type":"Sint64","current":-9223372036854775808,"enum":[-9223372036854775808,5]},
        {"name":"deep","children":[{"name":"u64","type":"Uint64","current":18446744073709551615}]}]},
      {"name":"f32","type":"Float32","current":0.1,"range":{"min":-1.5,"max":2.5}},
      {"name":"g32","type":"Float32","current":1.401298464324817e-45,"default":3.4028234663852886e38},
      {"name":"f64","type":"Float64","current":-4.9406564584124654e-324,"default":"inf","factory":"nan"},
      {"name":"blob","type":"Generic","current":"00ff10","default":"ab"},
      {"name":"text","type":"String","current":"a b=\u00e9","default":"hello there"},
      {"name":"empty","children":[]}]})");
    create({"--from", "all.json"});
    const std::string medium = kt::readFile(dir.file("db/medium.bin"));
    std::istringstream lines(kesdb({"show"}).out);
    int leaves = 0;
    for (std::string line; std::getline(lines, line); ++leaves)
        EXPECT_EQ(kesdb({"set", line.substr(0, line.find('=')), "--", line.substr(line.find('=') + 1)}).code, 0) << line;
    EXPECT_EQ(leaves, 9);
    EXPECT_TRUE(kt::readFile(dir.file("db/medium.bin")) == medium);

    ASSERT_EQ(kesdb({"export", "e1.json"}).code, 0);
    const std::string e1 = kt::readFile(dir.file("e1.json"));
    for (const char* part : {"\"current\": 0.1,", "\"default\": \"inf\",", "\"factory\": \"nan\"", "\"step\": -5", "\"size\": 12,"})
        EXPECT_NE(e1.find(part), std::string::npos) << part;
    ASSERT_EQ(kesdb({"create", "db2", "--files", "--size", "65536"}).code, 0);
    EXPECT_EQ(kesdb({"-d", "db2", "import", "e1.json"}).code, 0);
    EXPECT_EQ(kesdb({"-d", "db2", "export"}).out, e1);
    expectRows({
        {{"get", "/blob", "--default"}, 0, "ab0000\n", ""},
        {{"set", "/a/s8", "-123"}, 4, "", "kesdb: /a/s8: -123 is not a whole number of steps 4 from the minimum (range -128..100 step 4)\n"},
        {{"set", "/a/s32", "-5"}, 0, "", ""},  // a negative step acts as its magnitude
        {{"set", "/f32", "nan"}, 4, "", "kesdb: /f32: nan is below the minimum -1.5 (range -1.5..2.5)\n"},
        {{"set", "/f32", "1e39"}, 2, "", "kesdb: value '1e39' is out of range for Float32\n"},
        // A node without children ends the library's search of a longer path: not taken for it.
        {{"print", "/empty/x"}, 3, "", "kesdb: unknown path /empty/x\n"},
    });
}

TEST_F(Tool, BadDescriptionIsRejectedAndLeavesNothing) {
    const Args hook = {"--hook", kHook};
    const struct {
        std::string json, message;
        Args extra = {};
        int code = 2;
    } cases[] = {
        {R"({"children":[{"name":"a","type":"Uint8","current":300}]})", "/a current: 300 is not a Uint8 value"},
        {R"({"children":[{"name":"a","children":[]},{"name":"a","type":"Uint8","current":1}]})", "/a: name used twice among siblings"},
        {R"({"children":[{"name":"a/b","children":[]}]})", "/a/b: name contains '/'"},
        {"{\"children\":[{\"name\":\"" + std::string(255, 'n') + "\",\"children\":[]}]}", "longer than 254"},
        // The difference from min wraps in 32 bits, as in the library's check.
        {R"({"children":[{"name":"w","type":"Sint32","current":2147483647,"range":{"min":-2147483648,"max":2147483647,"step":3}}]})",
         "/w: current value 2147483647 is not on a step of the range (68 KESDB_ERR_CSTRT_STEP)", {}, 4},
        {R"({"children":[{"name":"s","type":"String","size":3,"current":"abc"}]})", "does not fit size 3"},
        {R"({"children":[{"name":"h","type":"Uint8","current":1,"hook":2}]})", "uses hook 2 but only 1 --hook lines are given", hook},
        {R"({"children":[{"name":"net","children":[]},{"name":"network","type":"Uint8","current":1}]})",
         "/network: could not be found by its path behind the node /net"},
        {"{\"children\":[\n{\"name\":", "not valid JSON: parse error at line 2, column 9"},
    };
    for (const auto& c : cases) {
        kt::writeFile(dir.file("bad.json"), c.json);
        Args args = {"create", "db", "--from", "bad.json"};
        args.insert(args.end(), c.extra.begin(), c.extra.end());
        expectRows({{args, c.code, "", c.message}});
        EXPECT_EQ(entries(dir.path()), 1u) << c.message;  // bad.json only
    }
    EXPECT_EQ(kesdb({"create", "db", "--hook", "libkeshook_sample.so policy_preSet NULL NULL"}).code, 1);
    create({});
    EXPECT_NE(kesdb({"create", "db"}).err.find("already exists"), std::string::npos);
}

TEST_F(Tool, FailedImportLeavesTheDatabaseAsItWas) {
    create({"--size", "8192", "--hook", kHook});
    const std::string before = kt::readFile(dir.file("db/medium.bin"));
    kt::writeFile(dir.file("big.json"), many(300, "\"type\":\"Uint32\",\"current\":1"));
    EXPECT_NE(kesdb({"import", "big.json"}).err.find("KESDB_ERR_"), std::string::npos);
    EXPECT_TRUE(kt::readFile(dir.file("db/medium.bin")) == before);
    for (const auto& e : fs::directory_iterator(dir.file("db"))) EXPECT_EQ(e.path().string().find("kesdb-"), std::string::npos);
    // The import of a description that fits then succeeds, and the root is no longer locked.
    EXPECT_EQ(kesdb({"import", kDevice}).code, 0);
    EXPECT_EQ(kesdb({"lock", "/", "--try"}).code, 0);
    // A copy between value sets below a node that the hook refuses for one leaf changes none.
    createTree(N("n", L("a", "Uint32", "7", R"(, "default": 5, "hook": 1)") + "," +
                          L("b", "Uint32", "3", R"(, "default": 2000, "hook": 1)")));
    const std::string media = kt::readFile(dir.file("db/medium.bin"));
    expectRows({{{"reset", "/n"}, 4, "", "refused by a leaf's hook (result 1"}, {{"get", "/n/a"}, 0, "7\n", ""}});
    EXPECT_TRUE(kt::readFile(dir.file("db/medium.bin")) == media);
}

// An interrupted wait for a lock leaves with 130 and gives its session back (a wait that ends
// when the holder lets go is run with an application holding the lock).
TEST_F(Tool, InterruptedLockWaitGivesItsSessionBack) {
    makeDevice();
    ASSERT_EQ(kesdb({"lock", "/net/port", "--try"}).code, 0);
    const pid_t waiter = kt::spawnProgram(dir, "kesdb", {"lock", "/net/port", "--shared"}, "i");
    awaitSession();
    kill(waiter, SIGINT);
    const Outcome r = kt::finishProgram(dir, waiter, "i");
    EXPECT_EQ(std::to_string(r.code) + " " + r.err, "130 kesdb: interrupted\n");
    EXPECT_EQ(kt::readWord(dir.file("db/session.tbl"), 8), 0u);
}

TEST_F(Tool, WatchPrintsEachChangeBelowItsPathUntilInterrupted) {
    makeDevice();
    const pid_t watcher = kt::spawnProgram(dir, "kesdb", {"watch", "/net"}, "w");
    awaitSession();
    auto printed = [&](const std::string& line, int tries = 1000) {
        for (int i = 0; i < tries; ++i, usleep(10000))
            if (kt::readFile(dir.file(".outw")).find(line) != std::string::npos) return true;
        return false;
    };
    // The watch begins a moment after its session opens: set until a change is printed.
    std::string first;
    for (int port = 1000; port < 1100 && first.empty(); ++port)
        if (kesdb({"set", "/net/port", std::to_string(port)}).code == 0 && printed("=" + std::to_string(port) + "\n", 30))
            first = "/net/port=" + std::to_string(port) + "\n";
    ASSERT_FALSE(first.empty());
    for (const Args& change : {Args{"set", "/time/zone", "UTC"}, Args{"set", "/net/hostname", "foo"},
                               Args{"delete", "/net/ip"}, Args{"add", "/net/extra", "--type", "Uint8", "--value", "3"}})
        ASSERT_EQ(kesdb(change).code, 0);
    EXPECT_TRUE(printed("/net/extra=3\n"));
    kill(watcher, SIGINT);
    const Outcome r = kt::finishProgram(dir, watcher, "w");
    EXPECT_EQ(r.code, 130);
    EXPECT_EQ(r.out.substr(r.out.find(first)), first + "/net/hostname=foo\n/net/ip\n/net/extra=3\n");
}

// A start-up that fails after registering the database gives the registration back.
TEST_F(Tool, FailedStartUpLeavesNoRegistration) {
    makeDevice();
    kt::writeFile(dir.file("db/hook.conf"), kt::readFile(dir.file("db/hook.conf")) + "# a trailing comment\n");
    const std::string why = "kesdb: cannot start the database in " + dir.file("db") + ": " + dir.file("db/hook.conf") +
                            ": a line without its five tokens (or a blank or comment line after the last hook) (-1 KESDB_ERR_HOOK_LINE)\n";
    for (int i = 0; i < 3; ++i) expectRows({{{"set", "/net/port", "1"}, 2, "", why}});
    const std::string table = kt::readFile(dir.file("db/db.tbl"));
    ASSERT_EQ(table.size(), KESDB_DBTABLE_SIZE);
    uint32_t slots = 0, refs = 0;
    for (const DbSlot& slot : reinterpret_cast<const DbTable*>(table.data())->slot)
        if (slot.refCount != 0) ++slots, refs += slot.refCount;
    EXPECT_EQ(std::pair(slots, refs), std::pair(1u, 1u));  // the slot a database started by directory keeps
}

// kesdb migrate and import --merge.
TEST_F(Tool, MigrateKeepsWhatTheNewStructureAcceptsAndReportsTheRest) {
    const struct {
        std::string before, after, report;
        std::vector<std::pair<std::string, std::string>> values;  // path, what "get" prints
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
        createTree(row.before);
        const std::string file = describe("new.json", row.after), before = kesdb({"export"}).out;
        EXPECT_EQ(kesdb({"migrate", file, "--check"}).out, row.report);
        EXPECT_EQ(kesdb({"export"}).out, before) << "--check changed the database";
        EXPECT_EQ(kesdb({"migrate", file}).out, row.report);
        for (const auto& [path, value] : row.values) expectRows({{{"get", path}, 0, value + "\n", ""}});
        EXPECT_EQ(kesdb({"export"}).out.find("\"hook\""), std::string::npos);
    }
}

TEST_F(Tool, MigrateRefusesBadInputAndBusyDatabasesWithoutChangingAnything) {
    createTree(L("a", "Uint32", "5", ", \"hook\": 1") + "," + N("n", L("b", "Uint32", "6")));
    const std::string before = kesdb({"export"}).out;
    EXPECT_EQ(kesdb({"migrate", describe("bad.json", L("a", "Uint32", "1", ", \"hook\": 2"))}).code, 2);
    EXPECT_EQ(kesdb({"migrate", describe("broken.json", "{")}).code, 2);
    ASSERT_EQ(kesdb({"lock", "/n"}).code, 0);
    EXPECT_EQ(kesdb({"migrate", describe("ok.json", L("a", "Uint32", "1"))}).code, 5);
    ASSERT_EQ(kesdb({"unlock", "/n"}).code, 0);
    // The hook refuses a after b was written: b is put back.
    EXPECT_EQ(kesdb({"import", "--merge", describe("m.json", N("n", L("b", "Uint32", "9")) + "," + L("a", "Uint32", "2000"))}).code, 4);
    EXPECT_EQ(kesdb({"import", "--merge", describe("m2.json", L("zz", "Uint32", "1"))}).code, 3);
    EXPECT_EQ(kesdb({"export"}).out, before);
}

// Leftovers of a killed migrate or a killed journaled command are undone by the next run.
TEST_F(Tool, MigrateLeftoversOfAKilledCommandAreRecovered) {
    createTree(L("a", "Uint32", "5"));
    // Killed between the two renames of a file system without exchange: db is missing.
    ASSERT_EQ(std::system(("cd " + dir.path() + " && mv db db.kesdb-old && mkdir db.kesdb-new.tmp-1").c_str()), 0);
    EXPECT_EQ(kesdb({"migrate", describe("new.json", L("a", "Uint32", "1"))}).code, 0);
    expectRows({{{"get", "/a"}, 0, "5\n", ""}, {{"get", "/a", "--default"}, 0, "1\n", ""}});
    for (const char* left : {"db.kesdb-old", "db.kesdb-new.tmp-1"}) EXPECT_NE(access(dir.file(left).c_str(), F_OK), 0);
    // Killed while a merge wrote: the journal and its copy are in place, the medium changed.
    ASSERT_EQ(std::system(("cd " + dir.path() + "/db && cp medium.bin medium.bin.kesdb-saved && printf '99999999\\n" +
                           dir.path() + "/db/medium.bin\\n' > kesdb.journal").c_str()), 0);
    ASSERT_EQ(kesdb({"set", "/a", "7"}).code, 0);  // opening undoes it first
    ASSERT_EQ(kesdb({"set", "/a", "8"}).code, 0);
    expectRows({{{"get", "/a"}, 0, "8\n", ""}});
    EXPECT_NE(access(dir.file("db/kesdb.journal").c_str(), F_OK), 0);
}

// A migrate killed at any moment leaves the old database or the new one, never a mix.
TEST_F(Tool, MigrateAKillAtAnyMomentLeavesOldOrNew) {
    std::string before, after;
    for (int n = 0; n < 40; ++n) {
        before += (n ? "," : "") + L("v" + std::to_string(n), "Uint32", std::to_string(n));
        after += (n ? "," : "") + L("v" + std::to_string(n), "Uint16", "0");
    }
    createTree(before);
    ASSERT_EQ(std::system(("cp -a " + dir.file("db") + " " + dir.file("pristine")).c_str()), 0);
    const std::string file = describe("new.json", after), oldText = kesdb({"export"}).out;
    ASSERT_EQ(kesdb({"migrate", file}).code, 0);
    const std::string newText = kesdb({"export"}).out;
    ASSERT_NE(newText.find("\"Uint16\""), std::string::npos) << newText;
    for (int delayMs = 0; delayMs < 1000; delayMs += 100) {
        std::system(("rm -rf " + dir.file("db") + "* && cp -a " + dir.file("pristine") + " " + dir.file("db")).c_str());
        const pid_t pid = kt::spawnProgram(dir, "kesdb", {"migrate", file}, "k");
        std::this_thread::sleep_for(std::chrono::milliseconds(delayMs));
        kill(pid, SIGKILL);
        kt::finishProgram(dir, pid, "k");
        const std::string text = kesdb({"export"}).out;
        EXPECT_TRUE(text == oldText || text == newText) << "killed after " << delayMs << " ms";
        EXPECT_EQ(kesdb({"migrate", file, "--check"}).code, 0);  // and the next run accepts the directory
    }
}

// delete gives back every record of what it deletes, constraints included, but keeps a
// constraint that a value left in the database still uses.
TEST_F(Tool, DeleteGivesBackItsRecordsButSharedConstraints) {
    makeDevice();
    const std::string medium = dir.file("db/medium.bin");
    auto freeBytes = [&] {
        uint32_t n = 0;
        for (uint32_t k = kt::readWord(medium, 12); k != 0; k = kt::readWord(medium, k)) n += kt::readWord(medium, k + 4);
        return n;
    };
    const uint32_t before = freeBytes();
    const Args addExtra{"add", "/net/extra", "--type", "Uint16", "--range", "1", "9", "1"};
    for (const Args& change : {addExtra, Args{"add", "/net/emode", "--type", "Uint8", "--enum", "1,2,3"},
                               Args{"delete", "/net/extra"}, Args{"delete", "/net/emode"}, addExtra})
        ASSERT_EQ(kesdb(change).code, 0);
    EXPECT_LT(freeBytes(), before);
    ASSERT_EQ(kesdb({"delete", "/net/extra"}).code, 0);
    EXPECT_EQ(freeBytes(), before);
    // The range of a new /net/extra also guards the current value of /net/port.
    ASSERT_EQ(kesdb(addExtra).code, 0);
    const pid_t pid = children.start([&] {
        Session s{};
        LeafRecord extra{}, port{};
        ValueRecord v{};
        if (startElsewhere("../db", s) < 0 || !comp_getLeaf(&s, kesDBMSearchByName(&s, "/net/extra"), &extra) ||
            !comp_getLeaf(&s, kesDBMSearchByName(&s, "/net/port"), &port) || !value_get(&s, extra.currentValue, &v))
            return 1;
        return kesDBMSetConstraintKey(&s, port.currentValue, v.constraintKey) | kesDBMTermSession(&s);
    });
    ASSERT_EQ(children.wait(pid), 0);
    ASSERT_EQ(kesdb({"delete", "/net/extra"}).code, 0);
    expectRows({{{"set", "/net/port", "10"}, 4, "", "above the maximum 9"}, {{"check"}, 0, "consistent", ""}});
    // A subtree of more components than the lock table has entries.
    std::string leaves;
    for (int i = 1000; i < 2500; ++i) leaves += (i > 1000 ? "," : "") + L("l" + std::to_string(i), "Uint8", "1");
    createTree(N("big", leaves));
    expectRows({{{"delete", "/big"}, 0, "", ""}, {{"check"}, 0, "(1 nodes, 0 leaves", ""}});
}

// Applications started from the database directory, beside the tool.
// The application's lock keeps the tool out and the tool's keeps the application out; a
// "set" waits for the holder and then succeeds.
TEST_F(Tool, ApplicationAndToolShareLocks) {
    makeDevice();
    pk::Pipe app, test;
    const pid_t pid = children.start([&] {
        Session s{};
        const int32_t id = startElsewhere("../db", s);
        const uint32_t port = kesDBMSearchByName(&s, "/net/port");
        if (id < 0 || kesDBMLock(&s, port, 1) != 0) return 1;
        char go = 0;
        app.send('L');
        if (!test.receive(go, 20000) || kesDBMUnlock(&s, port) != 0 || !test.receive(go, 20000)) return 2;
        app.send(kesDBMLock(&s, kesDBMSearchByName(&s, "/net/mode"), 1));
        kesDBMTermSession(&s);
        return kesDBMTerm(static_cast<uint32_t>(id));
    });
    char c = 0;
    ASSERT_TRUE(app.receive(c, 20000));
    EXPECT_NE(kesdb({"-d", "db", "lock", "/net/port", "--try"}).err.find(" of process " + std::to_string(pid)), std::string::npos);
    EXPECT_EQ(kesdb({"-d", "db", "set", "/net/port", "9000", "--wait", "0.2"}).code, 5);
    const pid_t set = kt::spawnProgram(dir, "kesdb", {"-d", "db", "set", "/net/port", "9001"}, "set");
    usleep(300 * 1000);
    EXPECT_EQ(waitpid(set, nullptr, WNOHANG), 0);  // waiting for the application
    test.send('U');
    EXPECT_EQ(kt::finishProgram(dir, set, "set").code, 0);
    EXPECT_EQ(kesdb({"-d", "db", "get", "/net/port"}).out, "9001\n");
    EXPECT_EQ(kesdb({"-d", "db", "lock", "/net/mode"}).code, 0);
    test.send('M');
    int32_t rc = 0;
    ASSERT_TRUE(app.receive(rc, 20000));
    EXPECT_EQ(rc, KESDB_ERR_LOCK_BUSY);
    EXPECT_EQ(children.wait(pid), 0);
}

// A moved directory works where it lands; a copy is a database of its own.
TEST_F(Tool, MovedAndCopiedDirectories) {
    create({"--hook", kHook, "--from", kDevice, "--files"});
    fs::rename(dir.file("db"), dir.file("moved"));
    ASSERT_EQ(kesdb({"-d", "moved", "set", "/net/port", "1234"}).code, 0);
    fs::copy(dir.file("moved"), dir.file("copy"), fs::copy_options::recursive);
    ASSERT_EQ(kesdb({"-d", "copy", "set", "/net/port", "4321"}).code, 0);
    EXPECT_EQ(kesdb({"-d", "copy", "check"}).code, 0);
    for (const auto& [where, port] : std::map<std::string, uint16_t>{{"moved", 1234}, {"copy", 4321}}) {
        const pid_t pid = children.start([&, where = where] {
            Session s{};
            uint16_t value = 0;
            if (startElsewhere(dir.file(where), s) < 0) return 1;
            // Two allocations: the second reads the free element the first one wrote, in host
            // order whatever SIM_BYTE_ORDER says.
            for (const char* name : {"a", "b"})
                if (!kesDBMCreateNode(&s, kesDBMCreateString(&s, name, db_getDb(s.dbId)->stringMedium), kesDBMGetRoot(&s), 0, 0)) return 1;
            return kesDBMGetUint16(&s, kesDBMSearchByName(&s, "/net/port"), &value) == 0 ? value % 250 + 2 : 1;
        });
        EXPECT_EQ(children.wait(pid), port % 250 + 2) << where;
        // The free element behind the anchor still fits the medium (a byte-reversed size would not).
        const std::string medium = dir.file(where + "/components.med");
        EXPECT_LT(kt::readWord(medium, kt::readWord(medium, 12) + 4), fs::file_size(medium)) << where;
    }
    // Moved more often than its database table has slots, it still starts: the slots of the
    // places it left are taken back.
    EXPECT_EQ(kt::runChild([&] {
                  std::string at = dir.file("moved");
                  for (int i = 0; i < 40; ++i) {
                      const std::string to = dir.file("m" + std::to_string(i));
                      int32_t err = 0;
                      const int32_t id = rename(at.c_str(), to.c_str()) == 0 ? kesDBMInitDir(to.c_str(), &err) : -1;
                      if (id < 0 || kesDBMTerm(static_cast<uint32_t>(id)) != 0) return 1 + i;
                      at = to;
                  }
                  return 0;
              }),
              0);
}

// An image's database, its hooks built for another machine, is read on the build host
// without hooks and left byte for byte as it was; what cannot be loaded is named.
TEST_F(Tool, ImageIsInspectedWithoutATrace) {
    ASSERT_EQ(kesdb({"create", "db", "--files", "--from", kDevice, "--install-dir", "/etc/kesdb", "--target-lib-dir",
                     "/opt/target/lib", "--hook", "libtarget_only.so policy_preSet NULL NULL NULL"}).code, 0);
    EXPECT_EQ(kt::readFile(dir.file("db/media.conf")).rfind("/opt/target/lib/libkesdrv_file.so fileMedia_open ", 0), 0u);
    auto snapshot = [&] {
        std::map<std::string, std::string> files;
        for (const auto& e : fs::directory_iterator(dir.file("db"))) files[e.path().string()] = kt::readFile(e.path());
        return files;
    };
    const auto before = snapshot();
    EXPECT_EQ(kesdb({"-d", "db", "get", "/net/port", "--no-hooks"}).out, "8080\n");
    EXPECT_NE(kesdb({"-d", "db", "export", "--no-hooks"}).out.find("\"name\": \"port\""), std::string::npos);
    EXPECT_NE(kesdb({"-d", "db", "get", "/net/port"}).err.find("cannot load the hook library /opt/target/lib/libtarget_only.so"),
              std::string::npos);
    EXPECT_TRUE(snapshot() == before);
    // A read-only image (its files and directory not writable; as root, inspected as nobody).
    for (const auto& e : fs::directory_iterator(dir.file("db"))) chmod(e.path().c_str(), 0444);
    chmod(dir.file("db").c_str(), 0555);
    chmod(dir.path().c_str(), 0777);
    const pid_t pid = children.start([&] {
        if (geteuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0)) return 100;
        if (access((std::string(KT_BIN_DIR) + "/kesdb").c_str(), X_OK) != 0) return 77;  // out of nobody's reach
        const Outcome r = kt::finishProgram(dir, kt::spawnProgram(dir, "kesdb", {"-d", "db", "show", "--no-hooks"}, "ro"), "ro");
        return r.code == 0 && r.out.find("/net/port=8080\n") != std::string::npos ? 0 : 1;
    });
    const int status = children.wait(pid);
    chmod(dir.file("db").c_str(), 0755);
    if (status == 77) GTEST_SKIP() << "the build directory is out of reach of the user nobody";
    EXPECT_EQ(status, 0) << kt::readFile(dir.file(".errro"));
}

// One directory a process: another one is refused (and so is a directory after kesDBMInit)
// until everything started is shut down; the same directory again gets the same id.
TEST_F(Tool, OneDirectoryAProcess) {
    makeDevice();
    ASSERT_EQ(kesdb({"create", "other"}).code, 0);
    EXPECT_EQ(kt::runChild([&] {
                  const std::string a = dir.file("db"), b = dir.file("other");
                  int32_t err = 0;
                  const int32_t id = kesDBMInitDir(a.c_str(), &err);
                  const std::string tables = dir.path();
                  DBMDirOptions noHooks{KESDB_DIR_NO_HOOKS, nullptr, nullptr}, otherTables{0, tables.c_str(), nullptr};
                  if (id < 0 || kesDBMInitDir(b.c_str(), &err) != -1 || err != KESDB_ERR_DIR_OTHER) return 1;
                  if (std::string(kesDBMInitDirFailure()).find(a) == std::string::npos) return 2;
                  if (kesDBMInitDir(a.c_str(), &err) != id || kesDBMInitDirEx(a.c_str(), &noHooks, &err) != -1 ||
                      kesDBMInitDirEx(a.c_str(), &otherTables, &err) != -1)
                      return 3;
                  for (int i = 0; i < 2; ++i) kesDBMTerm(static_cast<uint32_t>(id));
                  const int32_t other = kesDBMInitDir(b.c_str(), &err);
                  if (other < 0 || kesDBMTerm(static_cast<uint32_t>(other)) != 0) return 4;
                  DBMInitParam p{};
                  setenv("KESDB_DBTABLE", dir.file("plain.tbl").c_str(), 1);
                  if (kesdb_dirParam(a.c_str(), nullptr, &p) != 0 || kesDBMInit(&p, &err) < 0) return 5;
                  return kesDBMInitDir(a.c_str(), &err) == -1 && err == KESDB_ERR_DIR_OTHER ? 0 : 6;
              }),
              0);
}

// Directories that cannot be started are refused with the cause, and leave the process as
// it was: a good directory starts afterwards.
TEST_F(Tool, RefusedDirectoriesNameTheCause) {
    const std::string good = "session=s.tbl\nlock=l.tbl\nmedia=media.conf\nhook=hook.conf\ncomponent=1\nvalue=1\nconstraint=1\nstring=1\n";
    const struct {
        std::string descriptor, media;
        int32_t code;
        std::string part;
    } cases[] = {
        {"", "", KESDB_ERR_DIR_BAD, "no such directory"},
        {"# comment\nsession\n", "", KESDB_ERR_DIR_BAD, "kesdb.conf line 2 is not a valid"},
        {"session=s.tbl\n", "", KESDB_ERR_DIR_BAD, "kesdb.conf has no lock line"},
        {good, "lib/libnone.so o c r w s y m\n", KESDB_ERR_MEDIA_LOAD, "/d/lib/libnone.so"},
    };
    const std::string d = dir.file("d");
    for (const auto& c : cases) {
        fs::remove_all(d);
        if (!c.descriptor.empty()) {
            fs::create_directories(d);
            kt::writeFile(d + "/kesdb.conf", c.descriptor);
            kt::writeFile(d + "/media.conf", c.media);
            kt::writeFile(d + "/hook.conf", "");
        }
        int32_t err = 0;
        EXPECT_EQ(std::pair(kesDBMInitDir(d.c_str(), &err), err), std::pair(-1, c.code)) << c.descriptor;
        EXPECT_NE(std::string(kesDBMInitDirFailure()).find(c.part), std::string::npos) << kesDBMInitDirFailure();
    }
    makeDevice();
    int32_t err = 0;
    const int32_t id = kesDBMInitDir(dir.file("db").c_str(), &err);
    EXPECT_GT(id, 0) << kesDBMInitDirFailure();
    EXPECT_EQ(kesDBMTerm(static_cast<uint32_t>(id)), 0);
}

// A database that "kesdb create --from" builds holds, byte for byte, the media that the
// library's own calls make through the synchronous drivers for the same tree.
constexpr uint32_t kSize = 1024 * 1024;  // the tool's default medium size

// One leaf the way the tool makes it: constraint, three values tied to it, the component.
uint32_t leaf(Session* s, uint32_t parent, uint32_t previous, const char* name, uint32_t type, const std::string& data,
              uint32_t max = 0) {
    const auto* p = db_getDb(s->dbId);
    const uint32_t nameKey = kesDBMCreateString(s, name, p->stringMedium);
    RangeRecordU32 range{};
    range.type = Uint32, range.min = 1, range.max = max, range.step = 1;
    const uint32_t constraint = max && rangeU32_new(s, &range) ? range.key : 0;
    uint32_t v[3];
    for (uint32_t& key : v) {
        key = kesDBMCreateValue(s, type, 0, data.data(), static_cast<int32_t>(data.size()), p->valueMedium);
        if (constraint) kesDBMSetConstraintKey(s, key, constraint);
    }
    return kesDBMCreateLeaf(s, nameKey, parent, previous, v[0], v[1], v[2], 0);
}

class FastBuild : public ::testing::TestWithParam<bool> {};  // four files through the file driver

TEST_P(FastBuild, MediaEqualThoseOfSynchronousLibraryCalls) {
    const bool files = GetParam();
    const std::vector<std::string> media = files ? std::vector<std::string>{"components.med", "values.med", "constraints.med", "strings.med"}
                                                 : std::vector<std::string>{"medium.bin"};
    kt::DbOptions o;
    o.start = false;
    o.mediumSize = files ? 0 : kSize;
    if (files) o.componentMedium = 1, o.valueMedium = 2, o.constraintMedium = 3, o.stringMedium = 4;
    kt::Db ref(o);
    for (const std::string& m : files ? media : std::vector<std::string>{}) {
        ASSERT_EQ(kesdb_layMedium(ref.dir.file(m).c_str(), kSize, 0), 0);
        o.mediaConfig += mk::driverLine("libkesdrv_file.so", "fileMedia_", ref.dir.file(m));
    }
    kt::writeFile(ref.param.mediaConfigPath, o.mediaConfig);
    ASSERT_GT(ref.start(), 0);
    Session* s = &ref.s;
    NodeRecord root{};
    ASSERT_NE(comp_newNode(s, &root), nullptr);
    root.comp.stringKey = kesDBMCreateString(s, "/", ref.param.stringMedium);
    root.comp.kind = KESDB_KIND_NODE;
    ASSERT_EQ(comp_setNode(s, &root), 0);
    ASSERT_EQ(flst_m_setRoot(s, ref.param.componentMedium, root.comp.key), 0);
    const uint32_t net = kesDBMCreateNode(s, kesDBMCreateString(s, "net", ref.param.stringMedium), root.comp.key, 0, 0);
    auto word = [](uint32_t v) { return std::string(reinterpret_cast<const char*>(&v), 4); };
    const uint32_t portKey = leaf(s, net, 0, "/port", Uint32, word(8080), 65535);
    ASSERT_NE(leaf(s, net, portKey, "/host", String, std::string("dev", 3) + std::string(13, '\0')), 0u);
    ASSERT_NE(leaf(s, root.comp.key, net, "mode", Uint32, word(2)), 0u);
    EXPECT_EQ(s->error, 0u);
    ref.stop();

    kt::TempDir dir;
    kt::writeFile(dir.file("tree.json"),
                  R"({"children": [{"name": "net", "children": [)"
                  R"({"name": "port", "type": "Uint32", "current": 8080, "range": {"min": 1, "max": 65535, "step": 1}},)"
                  R"({"name": "host", "type": "String", "size": 16, "current": "dev"}]},)"
                  R"({"name": "mode", "type": "Uint32", "current": 2}]})");
    std::vector<std::string> args{"create", "db", "--from", "tree.json"};
    if (files) args.push_back("--files");
    ASSERT_EQ(kt::finishProgram(dir, kt::spawnProgram(dir, "kesdb", args)).code, 0);
    for (const std::string& m : media) EXPECT_EQ(kt::readFile(dir.file("db/" + m)), kt::readFile(ref.dir.file(m))) << m;
    // A merge writes what the typed set writes.
    ASSERT_GT(ref.start(), 0);
    ASSERT_EQ(kesDBMSetUint32(&ref.s, portKey, 9090), 0);
    ref.stop();
    kt::writeFile(dir.file("m.json"), R"({"children": [{"name": "net", "children": [{"name": "port", "current": 9090}]}]})");
    ASSERT_EQ(kt::finishProgram(dir, kt::spawnProgram(dir, "kesdb", {"-d", "db", "import", "--merge", "m.json"})).code, 0);
    for (const std::string& m : media) EXPECT_EQ(kt::readFile(dir.file("db/" + m)), kt::readFile(ref.dir.file(m))) << m;
}

INSTANTIATE_TEST_SUITE_P(Layouts, FastBuild, ::testing::Bool());

}  // namespace
