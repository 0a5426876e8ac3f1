// The kesdb command-line tool, run as a separate process in a fresh directory.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "testkit.hpp"

namespace {

struct Outcome {
    int code;
    std::string out;
    std::string err;
};

// Runs the tool with `args` in directory `dir`; standard output and error are captured.
Outcome kesdb(const kt::TempDir& dir, const std::vector<std::string>& args) {
    std::string outFile = dir.file(".out"), errFile = dir.file(".err");
    pid_t pid = fork();
    if (pid == 0) {
        if (chdir(dir.path().c_str()) != 0) _exit(126);
        int o = open(outFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        int e = open(errFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (o < 0 || e < 0) _exit(126);
        dup2(o, 1);
        dup2(e, 2);
        std::string bin = std::string(KT_BIN_DIR) + "/kesdb";
        std::vector<char*> argv{const_cast<char*>(bin.c_str())};
        for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        execv(bin.c_str(), argv.data());
        _exit(127);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    Outcome r{WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), kt::readFile(outFile),
          kt::readFile(errFile)};
    unlink(outFile.c_str());
    unlink(errFile.c_str());
    return r;
}

std::vector<std::string> entries(const std::string& dir) {
    std::vector<std::string> names;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d)) {
            std::string n = e->d_name;
            if (n != "." && n != ".." && n[0] != '.') names.push_back(n);
        }
        closedir(d);
    }
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
    }
    Outcome db(std::vector<std::string> args) {
        args.insert(args.begin(), {"-d", "db"});
        return kesdb(dir, args);
    }
    kt::TempDir dir;
};

TEST_F(Tool, CreateImportGetSetAndTransfers) {
    makeDevice();
    for (const char* f : {"kesdb.conf", "media.conf", "hook.conf", "medium.bin"})
        EXPECT_TRUE(kt::readFile(dir.file(std::string("db/") + f)).size() > 0 || std::string(f) == "media.conf") << f;
    EXPECT_EQ(kt::readFile(dir.file("db/media.conf")), "");
    EXPECT_EQ(kt::readFile(dir.file("db/hook.conf")),
              std::string(KT_LIB_DIR) + "/libkeshook_sample.so policy_preSet log_postSet NULL NULL\n");

    Outcome r = db({"get", "/net/port"});
    EXPECT_EQ(r.code, 0);
    EXPECT_EQ(r.out, "8080\n");
    EXPECT_EQ(db({"get", "/net/hostname"}).out, "device-1\n");
    EXPECT_EQ(db({"get", "/net/hostname", "--default"}).out, "kesdbm\n");
    EXPECT_EQ(db({"get", "/time/zone", "--factory"}).out, "UTC\n");
    EXPECT_EQ(db({"get", "/net/mode"}).out, "1\n");

    EXPECT_EQ(db({"set", "/net/port", "443"}).code, 0);
    EXPECT_EQ(db({"get", "/net/port"}).out, "443\n");
    EXPECT_EQ(db({"set", "/net/hostname", "gateway-7"}).code, 0);
    EXPECT_EQ(db({"get", "/net/hostname"}).out, "gateway-7\n");
    // A text that does not fit the leaf's 32 bytes is refused by the tool.
    r = db({"set", "/net/hostname", std::string(32, 'x')});
    EXPECT_EQ(r.code, 2);
    EXPECT_EQ(db({"get", "/net/hostname"}).out, "gateway-7\n");

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

    r = db({"print", "/net"});
    EXPECT_EQ(r.code, 0);
    EXPECT_NE(r.out.find("[/port]"), std::string::npos) << r.out;
}

TEST_F(Tool, RefusedWritesAndBadInput) {
    makeDevice();
    Outcome r = db({"set", "/net/port", "0"});
    EXPECT_EQ(r.code, 2);
    EXPECT_EQ(r.err, "kesdb: set /net/port: 66 KESDB_ERR_CSTRT_BELOWMIN\n");
    r = db({"set", "/net/mode", "7"});
    EXPECT_EQ(r.code, 2);
    EXPECT_EQ(r.err, "kesdb: set /net/mode: 71 KESDB_ERR_CSTRT_NOTMEMBER\n");
    EXPECT_EQ(db({"get", "/net/port"}).out, "8080\n");
    EXPECT_EQ(db({"get", "/net/mode"}).out, "1\n");
    EXPECT_EQ(db({"set", "/net/mode", "2"}).code, 0);

    // The hook refuses intervals above 1000.
    r = db({"set", "/time/interval", "5000"});
    EXPECT_EQ(r.code, 2);
    EXPECT_EQ(r.err, "kesdb: set /time/interval: 9 KESDB_ERR_HOOK_PRESET (hook result 1)\n");
    EXPECT_EQ(db({"set", "/time/interval", "900"}).code, 0);
    EXPECT_EQ(db({"get", "/time/interval"}).out, "900\n");

    r = db({"set", "/net/port", "abc"});
    EXPECT_EQ(r.code, 2);
    EXPECT_EQ(r.err, "kesdb: value 'abc' does not parse as Uint16\n");
    EXPECT_EQ(db({"set", "/net/port", "70000"}).err, "kesdb: value '70000' does not parse as Uint16\n");
    EXPECT_EQ(db({"set", "/net/port", "-1"}).code, 2);
    EXPECT_EQ(db({"set", "/net/port", "12x"}).code, 2);

    r = db({"get", "/x"});
    EXPECT_EQ(r.code, 2);
    EXPECT_EQ(r.err, "kesdb: unknown path /x\n");
    EXPECT_EQ(r.out, "");  // the library's search diagnostics are kept off standard output
    r = db({"get", "/net"});
    EXPECT_EQ(r.code, 2);
    EXPECT_EQ(r.err, "kesdb: /net is not a leaf\n");

    // Usage errors.
    EXPECT_EQ(db({"get"}).code, 1);
    EXPECT_EQ(db({"get", "/net/port", "--bogus"}).code, 1);
    EXPECT_EQ(kesdb(dir, {"get", "/net/port"}).code, 1);
    EXPECT_EQ(kesdb(dir, {"frobnicate"}).code, 1);
    EXPECT_EQ(kesdb(dir, {"-d", "nowhere", "get", "/a"}).code, 2);

    // Importing into a database that already has components is refused.
    r = db({"import", kDevice});
    EXPECT_EQ(r.code, 2);
    EXPECT_EQ(r.err, "kesdb: the database is not empty (its root has children)\n");
}

TEST_F(Tool, ExportImportRoundTripIsByteIdentical) {
    const std::string all = R"({"children":[
      {"name":"a","children":[
        {"name":"s8","type":"Sint8","current":-128,"range":{"min":-128,"max":100,"step":4}},
        {"name":"s16","type":"Sint16","current":-300,"default":7},
        {"name":"s32","type":"Sint32","current":-2147483648},
        {"name":"s64","type":"Sint64","current":-9223372036854775807,"enum":[-9223372036854775807,5]},
        {"name":"deep","children":[{"name":"u64","type":"Uint64","current":18446744073709551615}]}]},
      {"name":"u32","type":"Uint32","current":4294967295,"factory":1},
      {"name":"f32","type":"Float32","current":0.1,"range":{"min":-1.5,"max":2.5}},
      {"name":"f64","type":"Float64","current":3.141592653589793},
      {"name":"blob","type":"Generic","current":"00ff10","default":"ab"},
      {"name":"text","type":"String","current":"hi","default":"hello there"},
      {"name":"empty","children":[]}]})";
    kt::writeFile(dir.file("all.json"), all);
    Outcome r = kesdb(dir, {"create", "db", "--from", "all.json"});
    ASSERT_EQ(r.code, 0) << r.err;
    r = db({"export", "e1.json"});
    ASSERT_EQ(r.code, 0) << r.err;
    std::string e1 = kt::readFile(dir.file("e1.json"));
    EXPECT_NE(e1.find("\"name\": \"deep\""), std::string::npos);
    EXPECT_EQ(db({"export"}).out, e1);

    // Into a database on four files through the file driver, by create and by import.
    r = kesdb(dir, {"create", "db2", "--files", "--size", "65536"});
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(kesdb(dir, {"-d", "db2", "import", "e1.json"}).code, 0);
    EXPECT_EQ(kesdb(dir, {"-d", "db2", "export"}).out, e1);
    ASSERT_EQ(kesdb(dir, {"create", "db3", "--from", "e1.json"}).code, 0);
    EXPECT_EQ(kesdb(dir, {"-d", "db3", "export"}).out, e1);

    // Values as the library holds them.
    EXPECT_EQ(db({"get", "/a/s8"}).out, "-128\n");
    EXPECT_EQ(db({"get", "/a/deep/u64"}).out, "18446744073709551615\n");
    EXPECT_EQ(db({"get", "/f32"}).out, "0.100000001\n");
    EXPECT_EQ(db({"get", "/f64"}).out, "3.1415926535897931\n");
    EXPECT_EQ(db({"get", "/blob"}).out, "00ff10\n");
    EXPECT_EQ(db({"get", "/blob", "--default"}).out, "ab0000\n");
    EXPECT_EQ(db({"get", "/text", "--factory"}).out, "hi\n");
    EXPECT_EQ(db({"set", "/a/s8", "-124"}).code, 0);
    EXPECT_NE(db({"set", "/a/s8", "-123"}).err.find("68 KESDB_ERR_CSTRT_STEP"), std::string::npos);
    EXPECT_EQ(db({"set", "/text", "hello there"}).code, 0);
    EXPECT_EQ(db({"set", "/text", "hello there!"}).code, 2);  // size 12 with the NUL
}

TEST_F(Tool, BadDescriptionIsRejectedAndLeavesNothing) {
    struct Case {
        const char* json;
        const char* message;
    };
    const Case cases[] = {
        {"{\"children\":[{\"name\":\"a\",\"type\":\"Uint8\",\"current\":300}]}", "/a current: 300 is not a Uint8 value"},
        {"{\"children\":[{\"name\":\"a\",\"children\":[]},{\"name\":\"a\",\"type\":\"Uint8\",\"current\":1}]}",
         "/a: name used twice among siblings"},
        {"{\"children\":[{\"name\":\"a/b\",\"children\":[]}]}", "/a/b: name contains '/'"},
        {"{\"children\":[{\"name\":\"\",\"children\":[]}]}", "empty component name"},
        {"{\"children\":[{\"name\":\"n\",\"children\":[{\"name\":\"p\",\"type\":\"Uint16\",\"current\":0,"
         "\"range\":{\"min\":1,\"max\":9}}]}]}",
         "/n/p: current value is below the range minimum"},
        {"{\"children\":[{\"name\":\"m\",\"type\":\"Uint8\",\"current\":1,\"default\":3,\"enum\":[0,1]}]}",
         "/m: default value is not a member of the enumeration"},
        {"{\"children\":[{\"name\":\"t\",\"type\":\"Text\",\"current\":1}]}", "/t: unknown type \"Text\""},
        {"{\"children\":[{\"name\":\"s\",\"type\":\"String\",\"size\":3,\"current\":\"abc\"}]}",
         "does not fit size 3"},
        {"{\"children\":[{\"name\":\"h\",\"type\":\"Uint8\",\"current\":1,\"hook\":2}]}",
         "uses hook 2 but only 1 hooks are configured"},
        {"{\"children\":[{\"name\":\"a\"}]}", "exactly one of \"type\" (leaf) or \"children\" (node)"},
        {"{\"children\":[", "not valid JSON"},
    };
    for (const Case& c : cases) {
        kt::writeFile(dir.file("bad.json"), c.json);
        Outcome r = kesdb(dir, {"create", "db", "--hook", kHook, "--from", "bad.json"});
        EXPECT_EQ(r.code, 2) << c.json;
        EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
        EXPECT_EQ(r.err.rfind("kesdb: bad.json: ", 0), 0u) << r.err;
        std::vector<std::string> left = entries(dir.path());
        EXPECT_EQ(left, std::vector<std::string>{"bad.json"}) << c.json;
    }
    // A valid description that does not fit the medium fails inside the library, half-way
    // through the build: the temporary directory is removed as well.
    std::string many = "{\"children\":[";
    for (int i = 0; i < 40; ++i)
        many += std::string(i ? "," : "") + "{\"name\":\"n" + std::to_string(i) +
                "\",\"type\":\"String\",\"size\":200,\"current\":\"x\"}";
    kt::writeFile(dir.file("bad.json"), many + "]}");
    Outcome full = kesdb(dir, {"create", "db", "--size", "4096", "--from", "bad.json"});
    EXPECT_EQ(full.code, 2);
    EXPECT_EQ(full.err.rfind("kesdb: cannot create ", 0), 0u) << full.err;
    for (const std::string& name : entries(dir.path()))
        EXPECT_TRUE(name == "bad.json" || name.rfind("db.tbl", 0) == 0) << name;
    // A name of 200 characters is accepted, 201 are not.
    kt::writeFile(dir.file("bad.json"), "{\"children\":[{\"name\":\"" + std::string(201, 'n') + "\",\"children\":[]}]}");
    EXPECT_NE(kesdb(dir, {"create", "db", "--from", "bad.json"}).err.find("longer than 200"), std::string::npos);
    kt::writeFile(dir.file("ok.json"), "{\"children\":[{\"name\":\"" + std::string(200, 'n') + "\",\"children\":[]}]}");
    EXPECT_EQ(kesdb(dir, {"create", "db", "--from", "ok.json"}).code, 0);
    // An existing database is never overwritten.
    Outcome r = kesdb(dir, {"create", "db"});
    EXPECT_EQ(r.code, 2);
    EXPECT_NE(r.err.find("already exists"), std::string::npos);
}

TEST_F(Tool, LockPersistsBetweenProcesses) {
    makeDevice();
    EXPECT_EQ(db({"lock", "/net/port", "--try"}).code, 0);
    Outcome r = db({"lock", "/net/port", "--try"});
    EXPECT_EQ(r.code, 2);
    EXPECT_EQ(r.err, "kesdb: lock /net/port: 75 KESDB_ERR_LOCK_BUSY\n");
    EXPECT_EQ(db({"lock", "/net/port", "--try", "--shared"}).code, 2);
    EXPECT_EQ(db({"lock", "/net/mode", "--try"}).code, 0);  // another key is free
    EXPECT_EQ(db({"unlock", "/net/port"}).code, 0);
    r = db({"unlock", "/net/port"});
    EXPECT_EQ(r.code, 2);
    EXPECT_EQ(r.err, "kesdb: unlock /net/port: 76 KESDB_ERR_LOCK_NOTFOUND\n");
    // Shared locks go together, an exclusive one then waits its turn.
    EXPECT_EQ(db({"lock", "/net/port", "--shared", "--try"}).code, 0);
    EXPECT_EQ(db({"lock", "/net/port", "--shared", "--try"}).code, 0);
    EXPECT_EQ(db({"lock", "/net/port", "--try"}).code, 2);
}

TEST_F(Tool, HelpListsEveryCommand) {
    Outcome r = kesdb(dir, {"--help"});
    EXPECT_EQ(r.code, 0);
    for (const char* c : {"create DIR", "--files", "--size", "--hook", "--from", "import FILE", "export [FILE]",
                          "get PATH", "--default", "--factory", "set PATH VALUE", "reset [PATH]",
                          "factory-to-default [PATH]", "print [PATH]", "lock PATH", "--shared", "--try",
                          "unlock PATH", "help"})
        EXPECT_NE(r.out.find(c), std::string::npos) << c;
    EXPECT_EQ(kesdb(dir, {"help"}).out, r.out);
    EXPECT_EQ(kesdb(dir, {}).code, 1);
}

}  // namespace
