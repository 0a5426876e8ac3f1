// The kesdb command-line tool, run as a separate process in a fresh directory.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "mediakit.hpp"
#include "testkit.hpp"

namespace {

using kt::Outcome;

pid_t spawn(const kt::TempDir& dir, const std::vector<std::string>& args, const std::string& tag) {
    return kt::spawnProgram(dir, "kesdb", args, tag);
}

Outcome finish(const kt::TempDir& dir, pid_t pid, const std::string& tag) { return kt::finishProgram(dir, pid, tag); }

Outcome kesdb(const kt::TempDir& dir, const std::vector<std::string>& args) {
    return finish(dir, spawn(dir, args, ""), "");
}

// Waits until a session of the database in `db` is open (a started command is then past
// its set-up, its signal handlers included); false after 20 s.
bool sessionOpen(const kt::TempDir& dir) {
    for (int i = 0; i < 2000; ++i) {
        if (kt::readWord(dir.file("db/session.tbl"), 8) != 0) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

// Names in a directory, hidden ones left out.
std::vector<std::string> entries(const std::string& dir) {
    std::vector<std::string> names;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d))
            if (e->d_name[0] != '.') names.push_back(e->d_name);
        closedir(d);
    }
    std::sort(names.begin(), names.end());
    return names;
}

const std::string kHook = "libkeshook_sample.so policy_preSet log_postSet NULL NULL";
const std::string kDevice = std::string(KT_SOURCE_DIR) + "/examples/device.json";

class Tool : public ::testing::Test {
protected:
    void SetUp() override { setenv("KESDB_DBTABLE", dir.file("db.tbl").c_str(), 1); }
    // A database "db" made from the sample device description.
    void makeDevice() {
        Outcome r = kesdb(dir, {"create", "db", "--hook", kHook, "--from", kDevice});
        ASSERT_EQ(r.code, 0) << r.err;
        ASSERT_EQ(r.err, "");
        ASSERT_EQ(r.out, "");
    }
    Outcome db(std::vector<std::string> args) {
        args.insert(args.begin(), {"-d", "db"});
        return kesdb(dir, args);
    }
    // Sets the leaf at `path` from `text` (status 0 expected) and gives what it reads back.
    std::string setGet(const std::string& path, const std::string& text) {
        EXPECT_EQ(db({"set", path, "--", text}).code, 0) << path << " " << text;
        return db({"get", path}).out;
    }
    // The registrations of the shared database table (slots with a reference).
    std::vector<DbSlot> registered() {
        const std::string table = kt::readFile(dir.file("db/db.tbl"));
        EXPECT_EQ(table.size(), KESDB_DBTABLE_SIZE);
        std::vector<DbSlot> slots;
        if (table.size() == KESDB_DBTABLE_SIZE)
            for (const DbSlot& slot : reinterpret_cast<const DbTable*>(table.data())->slot)
                if (slot.refCount != 0) slots.push_back(slot);
        return slots;
    }
    kt::TempDir dir;
};

TEST_F(Tool, CreateImportGetSetAndTransfers) {
    // Without KESDB_DBTABLE every table lives in the database directory.
    unsetenv("KESDB_DBTABLE");
    makeDevice();
    EXPECT_EQ(entries(dir.file("db")),
              (std::vector<std::string>{"hook.conf", "kesdb.conf", "media.conf", "medium.bin"}));
    std::string conf = kt::readFile(dir.file("db/kesdb.conf"));
    EXPECT_NE(conf.find("\nsession=session.tbl\nlock=lock.tbl\nmedia=media.conf\nhook=hook.conf\n"
                        "component=0\nvalue=0\nconstraint=0\nstring=0\nreserved=0\ndefmedia=medium.bin\n"),
              std::string::npos)
        << conf;
    EXPECT_EQ(kt::readFile(dir.file("db/media.conf")), "");
    // One line per hook and nothing after it (a trailing comment would fail the start-up).
    EXPECT_EQ(kt::readFile(dir.file("db/hook.conf")), std::string(KT_LIB_DIR) + "/" + kHook + "\n");

    Outcome r = db({"get", "/net/port"});
    EXPECT_EQ(r.code, 0);
    EXPECT_EQ(r.out, "8080\n");
    EXPECT_EQ(db({"get", "/net/hostname"}).out, "device-1\n");
    // Options may follow the command; the directory may come last.
    EXPECT_EQ(kesdb(dir, {"get", "--default", "/net/port", "-d", "db"}).out, "80\n");
    EXPECT_EQ(kesdb(dir, {"get", "/net/port", "--dir=db"}).out, "8080\n");

    EXPECT_EQ(setGet("/net/port", "0x1f90"), "8080\n");  // hexadecimal
    EXPECT_EQ(setGet("/net/port", "010"), "10\n");       // decimal, not octal
    EXPECT_EQ(setGet("/net/hostname", "--dashes"), "--dashes\n");

    // Defaults: set, copy to current; factory back to default.
    EXPECT_EQ(db({"set", "/net/port", "8000", "--default"}).code, 0);
    EXPECT_EQ(db({"get", "/net/port", "--default"}).out, "8000\n");
    EXPECT_EQ(db({"reset", "/net"}).code, 0);
    EXPECT_EQ(db({"get", "/net/port"}).out, "8000\n");
    EXPECT_EQ(db({"get", "/net/hostname"}).out, "kesdbm\n");
    EXPECT_EQ(db({"get", "/time/zone"}).out, "Europe/Berlin\n");  // outside the reset subtree
    EXPECT_EQ(db({"factory-to-default"}).code, 0);
    EXPECT_EQ(db({"get", "/net/port", "--default"}).out, "80\n");
    EXPECT_EQ(db({"reset"}).code, 0);
    EXPECT_EQ(db({"get", "/time/zone"}).out, "UTC\n");

    EXPECT_NE(db({"print", "/net"}).out.find(" [/port]\n"), std::string::npos);
}

TEST_F(Tool, RefusedWritesAndBadValues) {
    makeDevice();
    struct Case {
        std::vector<std::string> args;
        const char* err;
        int code = 2;
    };
    const Case cases[] = {
        {{"set", "/net/port", "0"}, "kesdb: /net/port: 0 is below the minimum 1 (range 1..65535)\n", 4},
        {{"set", "/net/mode", "7"}, "kesdb: /net/mode: 7 is not one of 0, 1, 2\n", 4},
        // The sample hook refuses intervals above 1000.
        {{"set", "/time/interval", "5000"}, "kesdb: /time/interval: refused by its hook (result 1)\n", 4},
        {{"set", "/net/port", "abc"}, "kesdb: value 'abc' does not parse as Uint16\n"},
        {{"set", "/net/port", " 12"}, "kesdb: value ' 12' does not parse as Uint16\n"},
        {{"set", "/net/port", "70000"}, "kesdb: value '70000' is out of range for Uint16 (0 to 65535)\n"},
        {{"set", "/net/hostname", std::string(32, 'x')},
         "kesdb: value 'xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx' does not fit /net/hostname (32 bytes with the NUL)\n"},
        {{"set", "/net/hostname", "\xff\xfe"}, "kesdb: value for /net/hostname is not UTF-8 text\n"},
        {{"get", "/x"}, "kesdb: unknown path /x\n", 3},
        {{"get", "/net"}, "kesdb: /net is not a leaf\n"},
    };
    for (const Case& c : cases) {
        Outcome r = db(c.args);
        EXPECT_EQ(r.code, c.code) << c.args[1];
        EXPECT_EQ(r.err, c.err);
        EXPECT_EQ(r.out, "");  // the library's search lines stay off standard output
    }
    // Nothing was written.
    EXPECT_EQ(db({"get", "/net/port"}).out, "8080\n");
    EXPECT_EQ(db({"get", "/time/interval"}).out, "600\n");
    EXPECT_EQ(db({"get", "/net/hostname"}).out, "device-1\n");
    EXPECT_EQ(db({"set", "/net/mode", "2"}).code, 0);
    EXPECT_EQ(setGet("/time/interval", "900"), "900\n");

    // Usage errors.
    EXPECT_EQ(db({"get"}).code, 1);
    EXPECT_EQ(db({"get", "/net/port", "--default", "--factory"}).code, 1);
    EXPECT_EQ(kesdb(dir, {"get", "/net/port"}).code, 1);
    Outcome r = kesdb(dir, {"frobnicate"});
    EXPECT_EQ(r.code, 1);
    EXPECT_EQ(r.err, "kesdb: unknown command 'frobnicate'\nRun 'kesdb --help' for the commands.\n");
    r = kesdb(dir, {"-d", "nowhere", "get", "/a"});
    EXPECT_EQ(r.code, 2);
    EXPECT_EQ(r.err.rfind("kesdb: cannot find nowhere: ", 0), 0u) << r.err;

    r = db({"import", kDevice});
    EXPECT_EQ(r.code, 2);
    EXPECT_EQ(r.err, "kesdb: the database is not empty (its root has children)\n");
}

TEST_F(Tool, ExportImportRoundTripIsByteIdentical) {
    const std::string all = R"({"children":[
      {"name":"a","children":[
        {"name":"s8","type":"Sint8","current":-128,"range":{"min":-128,"max":100,"step":4}},
        {"name":"s16","type":"Sint16","current":-300,"default":7},
        {"name":"s32","type":"Sint32","current":5,"range":{"min":-10,"max":10,"step":-5}},
        {"name":"s64","type":"Sint64","current":-9223372036854775807,"enum":[-9223372036854775807,5]},
        {"name":"deep","children":[{"name":"u64","type":"Uint64","current":18446744073709551615}]}]},
      {"name":"u32","type":"Uint32","current":4294967295,"factory":1},
      {"name":"f32","type":"Float32","current":0.1,"range":{"min":-1.5,"max":2.5}},
      {"name":"f64","type":"Float64","current":3.141592653589793,"default":"inf","factory":"nan"},
      {"name":"blob","type":"Generic","current":"00ff10","default":"ab"},
      {"name":"text","type":"String","current":"h\u00e9","default":"hello there"},
      {"name":"empty","children":[]}]})";
    kt::writeFile(dir.file("all.json"), all);
    Outcome r = kesdb(dir, {"create", "db", "--from", "all.json"});
    ASSERT_EQ(r.code, 0) << r.err;
    r = db({"export", "e1.json"});
    ASSERT_EQ(r.code, 0) << r.err;
    const std::string e1 = kt::readFile(dir.file("e1.json"));
    EXPECT_EQ(db({"export"}).out, e1);
    // Floating-point values in their shortest exact form; 64-bit integers exact.
    for (const char* part :
         {"\"current\": 0.1,", "\"current\": 3.141592653589793,", "\"default\": \"inf\",", "\"factory\": \"nan\"",
          "\"current\": 18446744073709551615,", "\"current\": -9223372036854775807,", "\"step\": -5", "\"size\": 12,",
          "\"current\": \"h\u00e9\""})
        EXPECT_NE(e1.find(part), std::string::npos) << part;

    // Into a database on four files through the file driver, by create and by import.
    r = kesdb(dir, {"create", "db2", "--files", "--size", "65536"});
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(entries(dir.file("db2")),
              (std::vector<std::string>{"components.med", "constraints.med", "hook.conf", "kesdb.conf", "media.conf",
                                        "strings.med", "values.med"}));
    std::string media = kt::readFile(dir.file("db2/media.conf"));
    EXPECT_NE(media.find("libkesdrv_file.so fileMedia_open fileMedia_close fileMedia_read fileMedia_write "
                         "fileMedia_seek fileMedia_sync components.med\n"),
              std::string::npos)
        << media;
    EXPECT_EQ(kesdb(dir, {"-d", "db2", "import", "e1.json"}).code, 0);
    EXPECT_EQ(kesdb(dir, {"-d", "db2", "export"}).out, e1);

    // Values as the library holds them, and writes checked as the library checks them.
    EXPECT_EQ(db({"get", "/f64", "--factory"}).out, "nan\n");
    EXPECT_EQ(db({"get", "/blob", "--default"}).out, "ab0000\n");
    EXPECT_EQ(db({"set", "/a/s8", "-124"}).code, 0);
    EXPECT_EQ(db({"set", "/a/s8", "-123"}).err,
              "kesdb: /a/s8: -123 is not a whole number of steps 4 from the minimum (range -128..100 step 4)\n");
    EXPECT_EQ(db({"set", "/a/s32", "-5"}).code, 0);  // a negative step acts as its magnitude
    EXPECT_EQ(db({"set", "/f32", "nan"}).err, "kesdb: /f32: nan is below the minimum -1.5 (range -1.5..2.5)\n");
    EXPECT_EQ(db({"set", "/f32", "1e39"}).err, "kesdb: value '1e39' is out of range for Float32\n");
    EXPECT_EQ(db({"set", "/text", "hello there"}).code, 0);
    EXPECT_EQ(db({"set", "/text", "hello there!"}).code, 2);  // size 12 with the NUL
    // A node without children ends the library's search for any longer path; the tool
    // does not take it for the path.
    EXPECT_EQ(db({"print", "/empty"}).code, 0);
    EXPECT_EQ(db({"print", "/empty/x"}).err, "kesdb: unknown path /empty/x\n");
}

TEST_F(Tool, BadDescriptionIsRejectedAndLeavesNothing) {
    struct Case {
        std::string json;
        const char* message;
    };
    const Case cases[] = {
        {R"({"children":[{"name":"a","type":"Uint8","current":300}]})", "/a current: 300 is not a Uint8 value"},
        {R"({"children":[{"name":"a","children":[]},{"name":"a","type":"Uint8","current":1}]})",
         "/a: name used twice among siblings"},
        {R"({"children":[{"name":"a/b","children":[]}]})", "/a/b: name contains '/'"},
        {R"({"children":[{"name":"n","children":[{"name":"p","type":"Uint16","current":0,"range":{"min":1,"max":9}}]}]})",
         "/n/p: current value 0 is below the range minimum (66 KESDB_ERR_CSTRT_BELOWMIN)"},
        {R"({"children":[{"name":"m","type":"Uint8","current":1,"default":3,"enum":[0,1]}]})",
         "/m: default value 3 is not a member of the enumeration (71 KESDB_ERR_CSTRT_NOTMEMBER)"},
        // The difference from min wraps in 32 bits, as in the library's check.
        {R"({"children":[{"name":"w","type":"Sint32","current":2147483647,"range":{"min":-2147483648,"max":2147483647,"step":3}}]})",
         "/w: current value 2147483647 is not on a step of the range (68 KESDB_ERR_CSTRT_STEP)"},
        {R"({"children":[{"name":"s","type":"String","size":3,"current":"abc"}]})", "does not fit size 3"},
        {R"({"children":[{"name":"h","type":"Uint8","current":1,"hook":2}]})",
         "uses hook 2 but only 1 --hook lines are given"},
        {R"({"children":[{"name":"net","children":[]},{"name":"network","type":"Uint8","current":1}]})",
         "/network: could not be found by its path behind the node /net"},
        {R"({"children":[{"name":"x","children":[{"name":"ip","children":[]},{"name":"ipv6","children":[]}]}]})",
         "/x/ipv6: could not be found by its path behind the node /x/ip"},
        {"{\"children\":[\n{\"name\":", "not valid JSON: parse error at line 2, column 9"},
    };
    kt::writeFile(dir.file("big.json"), "");  // kept while the cases run
    for (const Case& c : cases) {
        kt::writeFile(dir.file("bad.json"), c.json);
        Outcome r = kesdb(dir, {"create", "db", "--hook", kHook, "--from", "bad.json"});
        EXPECT_EQ(r.code, 2) << c.json;
        EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
        EXPECT_EQ(r.err.rfind("kesdb: bad.json: ", 0), 0u) << r.err;
        EXPECT_EQ(entries(dir.path()), (std::vector<std::string>{"bad.json", "big.json"})) << c.json;
    }
    // A leaf listed before the node whose name begins its own is found.
    kt::writeFile(dir.file("ok.json"), R"({"children":[{"name":"network","type":"Uint8","current":4},
                                                       {"name":"net","children":[{"name":"a","type":"Uint8","current":5}]}]})");
    ASSERT_EQ(kesdb(dir, {"create", "ok", "--from", "ok.json"}).code, 0);
    EXPECT_EQ(kesdb(dir, {"-d", "ok", "get", "/network"}).out, "4\n");
    EXPECT_EQ(kesdb(dir, {"-d", "ok", "get", "/net/a"}).out, "5\n");

    // Wrong hook lines are refused before anything is made.
    Outcome r = kesdb(dir, {"create", "db", "--hook", "libkeshook_sample.so policy_preSet NULL NULL"});
    EXPECT_EQ(r.code, 1);
    EXPECT_NE(r.err.find("needs LIB PRESET POSTSET PREGET POSTGET"), std::string::npos) << r.err;

    // A valid description that does not fit the medium fails inside the library, half-way
    // through the build: the temporary directory goes as well.
    std::string many = "{\"children\":[";
    for (int i = 0; i < 40; ++i)
        many += std::string(i ? "," : "") + "{\"name\":\"n" + std::to_string(i) +
                "\",\"type\":\"String\",\"size\":200,\"current\":\"x\"}";
    kt::writeFile(dir.file("big.json"), many + "]}");
    r = kesdb(dir, {"create", "db", "--size", "4096", "--from", "big.json"});
    EXPECT_EQ(r.code, 2);
    // For example "kesdb: cannot create leaf /n28: 54 KESDB_ERR_COMP_WRITE".
    EXPECT_EQ(r.err.rfind("kesdb: cannot create leaf /n", 0), 0u) << r.err;
    EXPECT_NE(r.err.find(" KESDB_ERR_"), std::string::npos) << r.err;
    std::vector<std::string> left = entries(dir.path());
    EXPECT_EQ(left, (std::vector<std::string>{"bad.json", "big.json", "ok", "ok.json"}));

    // Names of 254 bytes are accepted, 255 are not.
    kt::writeFile(dir.file("bad.json"),
                  "{\"children\":[{\"name\":\"" + std::string(255, 'n') + "\",\"children\":[]}]}");
    EXPECT_NE(kesdb(dir, {"create", "db", "--from", "bad.json"}).err.find("longer than 254"), std::string::npos);
    kt::writeFile(dir.file("ok.json"), "{\"children\":[{\"name\":\"a\",\"children\":[{\"name\":\"" +
                                           std::string(254, 'n') + "\",\"type\":\"Uint8\",\"current\":1}]}]}");
    ASSERT_EQ(kesdb(dir, {"create", "db", "--from", "ok.json"}).code, 0);
    EXPECT_EQ(kesdb(dir, {"-d", "db", "get", "/a/" + std::string(254, 'n')}).out, "1\n");
    // An existing database is never overwritten; an empty directory is taken.
    r = kesdb(dir, {"create", "db"});
    EXPECT_EQ(r.code, 2);
    EXPECT_NE(r.err.find("already exists"), std::string::npos);
    mkdir(dir.file("empty").c_str(), 0775);
    EXPECT_EQ(kesdb(dir, {"create", "empty"}).code, 0);
}

TEST_F(Tool, FailedImportLeavesTheDatabaseAsItWas) {
    ASSERT_EQ(kesdb(dir, {"create", "db", "--size", "8192", "--hook", kHook}).code, 0);
    const std::string before = kt::readFile(dir.file("db/medium.bin"));
    std::string many = "{\"children\":[";
    for (int i = 0; i < 300; ++i)
        many +=
            std::string(i ? "," : "") + "{\"name\":\"n" + std::to_string(i) + "\",\"type\":\"Uint32\",\"current\":1}";
    kt::writeFile(dir.file("big.json"), many + "]}");
    Outcome r = db({"import", "big.json"});
    EXPECT_EQ(r.code, 2);
    EXPECT_NE(r.err.find("KESDB_ERR_"), std::string::npos) << r.err;
    EXPECT_TRUE(kt::readFile(dir.file("db/medium.bin")) == before);
    EXPECT_EQ(db({"export"}).out, "{\n  \"children\": []\n}\n");
    for (const std::string& name : entries(dir.file("db"))) EXPECT_EQ(name.find("kesdb-import"), std::string::npos);
    // The import of a description that fits then succeeds, and the root is no longer locked.
    ASSERT_EQ(db({"import", kDevice}).code, 0);
    EXPECT_EQ(db({"get", "/net/ip"}).out, "192.168.1.20\n");
    EXPECT_EQ(db({"lock", "/", "--try"}).code, 0);
}

TEST_F(Tool, LockPersistsBetweenProcesses) {
    makeDevice();
    EXPECT_EQ(db({"lock", "/net/port", "--try"}).code, 0);
    Outcome r = db({"lock", "/net/port", "--try"});
    EXPECT_EQ(r.code, 5);
    EXPECT_EQ(r.err, "kesdb: lock /net/port: locked by session 1 (closed; \"kesdb unlock\" or \"kesdb orphans --clear "
                     "--closed\" removes it)\n");
    EXPECT_EQ(db({"lock", "/net/port", "--try", "--shared"}).code, 5);
    EXPECT_EQ(db({"lock", "/net/mode", "--try"}).code, 0);  // another key is free
    EXPECT_NE(db({"locks"}).out.find("/net/port exclusive session "), std::string::npos);

    // A waiting lock ends when another process releases the key.
    pid_t waiter = spawn(dir, {"-d", "db", "lock", "/net/port"}, "w");
    ASSERT_TRUE(sessionOpen(dir));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    int status = 0;
    EXPECT_EQ(waitpid(waiter, &status, WNOHANG), 0);  // still waiting
    EXPECT_EQ(db({"unlock", "/net/port"}).code, 0);
    r = finish(dir, waiter, "w");
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(db({"lock", "/net/port", "--try"}).code, 5);  // now the waiter's

    // An interrupted wait leaves with 130 and gives its session back.
    waiter = spawn(dir, {"-d", "db", "lock", "/net/port", "--shared"}, "i");
    ASSERT_TRUE(sessionOpen(dir));
    kill(waiter, SIGINT);
    r = finish(dir, waiter, "i");
    EXPECT_EQ(r.code, 130);
    EXPECT_EQ(r.err, "kesdb: interrupted\n");
    EXPECT_EQ(kt::readWord(dir.file("db/session.tbl"), 8), 0u);  // no session in use

    EXPECT_EQ(db({"unlock", "/net/port"}).code, 0);
    r = db({"unlock", "/net/port"});
    EXPECT_EQ(r.code, 2);
    EXPECT_EQ(r.err, "kesdb: unlock /net/port: 76 KESDB_ERR_LOCK_NOTFOUND\n");
    // Shared locks go together; an exclusive one must wait.
    EXPECT_EQ(db({"lock", "/net/port", "--shared", "--try"}).code, 0);
    EXPECT_EQ(db({"lock", "/net/port", "--shared", "--try"}).code, 0);
    EXPECT_EQ(db({"lock", "/net/port", "--try"}).code, 5);
}

// A database prepared for a device image names the places it will have there, loads no hook
// of the other machine, and keeps no table; installed, it works.
TEST_F(Tool, DatabaseForAnotherMachine) {
    Outcome r =
        kesdb(dir, {"create", "img", "--files", "--install-dir", "/etc/kesdb", "--target-lib-dir", "/usr/lib/kesdbm",
                    "--hook", "libtarget_only.so policy_preSet NULL NULL NULL", "--from", kDevice});
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(entries(dir.file("img")),
              (std::vector<std::string>{"components.med", "constraints.med", "hook.conf", "kesdb.conf", "media.conf",
                                        "strings.med", "values.med"}));
    EXPECT_EQ(kt::readFile(dir.file("img/hook.conf")),
              "/usr/lib/kesdbm/libtarget_only.so policy_preSet NULL NULL NULL\n");
    std::string media;
    for (const char* m : {"components", "values", "constraints", "strings"})
        media += std::string(
                     "/usr/lib/kesdbm/libkesdrv_file.so fileMedia_open fileMedia_close fileMedia_read "
                     "fileMedia_write fileMedia_seek fileMedia_sync ") +
                 m + ".med\n";
    EXPECT_EQ(kt::readFile(dir.file("img/media.conf")), media);

    // "Installed" here: the two files rewritten for this machine.
    std::string local;
    for (const char* m : {"components", "values", "constraints", "strings"})
        local += mk::driverLine("libkesdrv_file.so", "fileMedia_", dir.file("img/") + m + ".med");
    kt::writeFile(dir.file("img/media.conf"), local);
    kt::writeFile(dir.file("img/hook.conf"), kt::libPath("libkeshook_sample.so") + " policy_preSet NULL NULL NULL\n");
    EXPECT_EQ(kesdb(dir, {"-d", "img", "get", "/net/port"}).out, "8080\n");
    EXPECT_EQ(kesdb(dir, {"-d", "img", "set", "/time/interval", "2000"}).err,
              "kesdb: /time/interval: refused by its hook (result 1)\n");
    EXPECT_EQ(kesdb(dir, {"create", "x", "--install-dir", "relative"}).code, 1);
}

// A start-up that fails after registering the database would leave its registration in the
// shared database table for good; a failed start-up by directory gives it back.
TEST_F(Tool, FailedStartUpLeavesNoRegistration) {
    makeDevice();
    kt::writeFile(dir.file("db/hook.conf"), kt::readFile(dir.file("db/hook.conf")) + "# a trailing comment\n");
    for (int i = 0; i < 3; ++i) {
        Outcome r = db({"set", "/net/port", "1"});
        EXPECT_EQ(r.code, 2);
        EXPECT_EQ(r.err, "kesdb: cannot start the database in " + dir.file("db") + ": " + dir.file("db/hook.conf") +
                             ": a line without its five tokens (or a blank or comment line after the last hook) (-1 "
                             "KESDB_ERR_HOOK_LINE)\n");
        EXPECT_EQ(r.out, "");
    }
    const std::vector<DbSlot> slots = registered();
    ASSERT_EQ(slots.size(), 1u);
    EXPECT_EQ(std::string(slots[0].param.sessionTablePath), dir.file("db/session.tbl"));
    EXPECT_EQ(slots[0].refCount, 1u);  // the slot a database started from its directory keeps
}

TEST_F(Tool, HelpAndManualPageListEveryCommand) {
    Outcome r = kesdb(dir, {"--help"});
    EXPECT_EQ(r.code, 0);
    const std::string manual = kt::readFile(std::string(KT_SOURCE_DIR) + "/tools/kesdb.1");
    for (const char* c : {"create", "--files", "--size", "--hook", "--from", "import", "export", "get", "--default",
                          "--factory", "set", "reset", "factory-to-default", "print", "lock", "--shared", "--try",
                          "unlock", "locks", "--lib-dir", "--install-dir", "--target-lib-dir", "KESDB_DBTABLE",
                          "SIM_BYTE_ORDER", "KESDB_LIB_DIR", "KESDB_DIR", "--wait", "--no-hooks"}) {
        EXPECT_NE(r.out.find(c), std::string::npos) << c;
        std::string escaped;
        for (char ch : std::string(c)) escaped += ch == '-' ? std::string("\\-") : std::string(1, ch);
        EXPECT_TRUE(manual.find(escaped) != std::string::npos || manual.find(c) != std::string::npos) << c;
    }
    EXPECT_NE(r.out.find("Exit status: 0 success, 1 usage error, 2 data or library error, 3 no such path,\n"),
              std::string::npos);
    EXPECT_EQ(kesdb(dir, {"help"}).out, r.out);
    EXPECT_EQ(kesdb(dir, {}).code, 1);
}

}  // namespace
