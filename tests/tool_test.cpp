// The kesdb tool as a script sees it, run as a separate process in a fresh directory: what
// each command prints on standard output and standard error, and the status it exits with.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

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
    kt::TempDir dir;
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
        {{"get", "/net"}, 2, "", "kesdb: /net is not a leaf\n"},
        {{"describe", "/net"}, 2, "", "kesdb: /net is a node, not a leaf; \"kesdb show /net\" lists its leaves\n"},
        {{"import", kDevice}, 2, "", "kesdb: the database is not empty (its root has children)\n"},
        {{"show", "/net"}, 0, "/net/hostname=device-1\n/net/ip=192.168.1.20\n/net/port=8080\n/net/mode=1\n", ""},
        {{"show", "time/", "--factory"}, 0, "/time/zone=UTC\n/time/interval=300\n", ""},
        {{"describe", "/net/port"}, 0, "path=/net/port\ntype=Uint16\nsize=2\ncurrent=8080\ndefault=80\nfactory=80\nmin=1\nmax=65535\nstep=0\nhook=0\n", ""},
        {{"describe", "/net/hostname", "--json"}, 0, "\"type\": \"String\",\n  \"size\": 32,\n  \"current\": \"device-1\"", ""},
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
        {{"show", "/", "--default"}, 0, "/net/port=80\n/net/mode=0\n/time/zone=UTC\n", ""},
        {{"show", "/"}, 0, "/net/port=80\n/net/mode=0\n/time/zone=UTC\n", ""},
        {{"print", "/net"}, 0, " [/port]\n", ""},
        // A node whose name begins a new leaf's: the leaf goes before it, so both are found.
        {{"add", "/time/x"}, 0, "", ""},
        {{"add", "/time/xy", "--type", "Uint16", "--range", "1", "100", "1", "--value", "80"}, 0, "", ""},
        {{"add", "/time/bad", "--type", "Uint8", "--enum", "1,2", "--value", "3"}, 2, "", "kesdb: "},
        {{"add", "/nosuch/x", "--type", "Uint8"}, 3, "", "kesdb: "},
        {{"import", "--merge", "xy.json"}, 0, "", ""},
        {{"get", "/time/xy"}, 0, "7\n", ""},
        {{"export", "/time/xy"}, 0, "\"name\": \"xy\"", ""},  // a tree path is never a file name
        {{"delete", "/time/x"}, 0, "", ""},
        {{"get", "/time/x"}, 3, "", "kesdb: unknown path /time/x\n"},
        {{"set", "/net/mode", "2", "--factory"}, 0, "", ""},
        {{"set", "/net/mode", "5", "--factory"}, 4, "", "kesdb: /net/mode: 5 is not one of 0, 1, 2\n"},
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
        {{"show", "--bogus"}, 1, "", "kesdb: show: unknown option --bogus\nRun 'kesdb help show' for its usage.\n"},
        {{"-d", "nowhere", "get", "/a"}, 2, "", "kesdb: cannot find nowhere: "},
        {{"--help"}, 0, "Exit status: 0 success, 1 usage error, 2 data or library error, 3 no such path,\n", ""},
        {{}, 1, "", "kesdb: "},
        {{"create", "x", "--install-dir", "relative"}, 1, "", "kesdb: "},
    });
}

// Every command has a usage of its own, the same by "help CMD" and "CMD --help"; the manual
// page has an entry for each and names each of its options and the environment.
TEST_F(Tool, EachCommandHasItsOwnUsageAndManualEntry) {
    const Outcome all = kesdb({"--help"});
    const std::string manual = kt::readFile(std::string(KT_SOURCE_DIR) + "/tools/kesdb.1");
    auto inManual = [&](const std::string& word) {
        std::string e;
        for (char c : word) e += c == '-' ? std::string("\\-") : std::string(1, c);
        return manual.find(e) != std::string::npos;
    };
    std::istringstream lines(all.out.substr(all.out.find("Commands:\n")));
    int commands = 0;
    for (std::string line; std::getline(lines, line) && line.rfind("Options", 0) != 0;) {
        if (line.size() < 3 || line[2] == ' ' || line[0] != ' ') continue;
        const std::string usage = line.substr(2), name = usage.substr(0, usage.find(' '));
        ++commands;
        const Outcome own = kesdb({"help", name});
        EXPECT_EQ(own.out.rfind("usage: kesdb [-d DIR] [-q] " + usage + "\n", 0), 0u) << own.out;
        EXPECT_EQ(kesdb({name, "--help"}).out, own.out) << name;
        EXPECT_TRUE(inManual("\n.B " + name)) << name;
        std::istringstream words(usage);
        for (std::string w; words >> w;)
            if (w.find("--") != std::string::npos) {
                const std::string option = w.substr(w.find("--"));
                EXPECT_TRUE(inManual(option.substr(0, option.find_first_of("]| ")))) << name << " " << w;
            }
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
    const Outcome shown = kesdb({"show"});
    std::istringstream lines(shown.out);
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
    std::string many = "{\"children\":[";
    for (int i = 0; i < 40; ++i)
        many += (i ? ",{\"name\":\"n" : "{\"name\":\"n") + std::to_string(i) + "\",\"type\":\"String\",\"size\":200,\"current\":\"x\"}";
    const Args hook = {"--hook", kHook};
    const struct {
        std::string json, message;
        Args extra = {};
    } cases[] = {
        {R"({"children":[{"name":"a","type":"Uint8","current":300}]})", "/a current: 300 is not a Uint8 value"},
        {R"({"children":[{"name":"a","children":[]},{"name":"a","type":"Uint8","current":1}]})", "/a: name used twice among siblings"},
        {R"({"children":[{"name":"a/b","children":[]}]})", "/a/b: name contains '/'"},
        {"{\"children\":[{\"name\":\"" + std::string(255, 'n') + "\",\"children\":[]}]}", "longer than 254"},
        // The difference from min wraps in 32 bits, as in the library's check.
        {R"({"children":[{"name":"w","type":"Sint32","current":2147483647,"range":{"min":-2147483648,"max":2147483647,"step":3}}]})",
         "/w: current value 2147483647 is not on a step of the range (68 KESDB_ERR_CSTRT_STEP)"},
        {R"({"children":[{"name":"s","type":"String","size":3,"current":"abc"}]})", "does not fit size 3"},
        {R"({"children":[{"name":"h","type":"Uint8","current":1,"hook":2}]})", "uses hook 2 but only 1 --hook lines are given", hook},
        {R"({"children":[{"name":"net","children":[]},{"name":"network","type":"Uint8","current":1}]})",
         "/network: could not be found by its path behind the node /net"},
        {"{\"children\":[\n{\"name\":", "not valid JSON: parse error at line 2, column 9"},
        // Valid, but too large for the medium: the library fails half-way through the build.
        {many + "]}", "kesdb: cannot create leaf /n", {"--size", "4096"}},
    };
    for (const auto& c : cases) {
        kt::writeFile(dir.file("bad.json"), c.json);
        Args args = {"create", "db", "--from", "bad.json"};
        args.insert(args.end(), c.extra.begin(), c.extra.end());
        const Outcome r = kesdb(args);
        EXPECT_EQ(r.code, 2) << c.message;
        EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
        EXPECT_EQ(entries(dir.path()), 1u) << c.message;  // bad.json only
    }
    EXPECT_EQ(kesdb({"create", "db", "--hook", "libkeshook_sample.so policy_preSet NULL NULL"}).code, 1);
    create({});
    EXPECT_NE(kesdb({"create", "db"}).err.find("already exists"), std::string::npos);
}

TEST_F(Tool, FailedImportLeavesTheDatabaseAsItWas) {
    create({"--size", "8192", "--hook", kHook});
    const std::string before = kt::readFile(dir.file("db/medium.bin"));
    std::string many = "{\"children\":[";
    for (int i = 0; i < 300; ++i)
        many += (i ? ",{\"name\":\"n" : "{\"name\":\"n") + std::to_string(i) + "\",\"type\":\"Uint32\",\"current\":1}";
    kt::writeFile(dir.file("big.json"), many + "]}");
    EXPECT_NE(kesdb({"import", "big.json"}).err.find("KESDB_ERR_"), std::string::npos);
    EXPECT_TRUE(kt::readFile(dir.file("db/medium.bin")) == before);
    for (const auto& e : fs::directory_iterator(dir.file("db"))) EXPECT_EQ(e.path().string().find("kesdb-"), std::string::npos);
    // The import of a description that fits then succeeds, and the root is no longer locked.
    ASSERT_EQ(kesdb({"import", kDevice}).code, 0);
    EXPECT_EQ(kesdb({"get", "/net/ip"}).out, "192.168.1.20\n");
    EXPECT_EQ(kesdb({"lock", "/", "--try"}).code, 0);
}

// A waiting lock ends when another process releases the key; an interrupted one leaves with
// 130 and gives its session back.
TEST_F(Tool, LockWaitsForAnotherProcess) {
    makeDevice();
    ASSERT_EQ(kesdb({"lock", "/net/port", "--try"}).code, 0);
    pid_t waiter = kt::spawnProgram(dir, "kesdb", {"lock", "/net/port"}, "w");
    awaitSession();
    usleep(100 * 1000);
    EXPECT_EQ(waitpid(waiter, nullptr, WNOHANG), 0);
    EXPECT_EQ(kesdb({"unlock", "/net/port"}).code, 0);
    EXPECT_EQ(kt::finishProgram(dir, waiter, "w").code, 0);
    EXPECT_EQ(kesdb({"lock", "/net/port", "--try"}).code, 5);  // now the waiter's

    waiter = kt::spawnProgram(dir, "kesdb", {"lock", "/net/port", "--shared"}, "i");
    awaitSession();
    kill(waiter, SIGINT);
    const Outcome r = kt::finishProgram(dir, waiter, "i");
    EXPECT_EQ(r.code, 130);
    EXPECT_EQ(r.err, "kesdb: interrupted\n");
    EXPECT_EQ(kt::readWord(dir.file("db/session.tbl"), 8), 0u);
}

// A start-up that fails after registering the database gives the registration back.
TEST_F(Tool, FailedStartUpLeavesNoRegistration) {
    makeDevice();
    kt::writeFile(dir.file("db/hook.conf"), kt::readFile(dir.file("db/hook.conf")) + "# a trailing comment\n");
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(kesdb({"set", "/net/port", "1"}).err,
                  "kesdb: cannot start the database in " + dir.file("db") + ": " + dir.file("db/hook.conf") +
                      ": a line without its five tokens (or a blank or comment line after the last hook) (-1 "
                      "KESDB_ERR_HOOK_LINE)\n");
    const std::string table = kt::readFile(dir.file("db/db.tbl"));
    ASSERT_EQ(table.size(), KESDB_DBTABLE_SIZE);
    uint32_t slots = 0, refs = 0;
    for (const DbSlot& slot : reinterpret_cast<const DbTable*>(table.data())->slot)
        if (slot.refCount != 0) ++slots, refs += slot.refCount;
    EXPECT_EQ(std::pair(slots, refs), std::pair(1u, 1u));  // the slot a database started by directory keeps
}

}  // namespace
