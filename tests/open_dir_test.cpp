// Databases started from their directory: applications and the kesdb tool on one database,
// from different working directories and environments; moved and copied directories; an
// image's database inspected without a trace; one directory a process.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "prockit.hpp"
#include "testkit.hpp"

namespace fs = std::filesystem;

namespace {

const std::string kHook = "libkeshook_sample.so policy_preSet log_postSet NULL NULL";
const std::string kDevice = std::string(KT_SOURCE_DIR) + "/examples/device.json";

class OpenDir : public ::testing::Test {
protected:
    kt::Outcome kesdb(const std::vector<std::string>& args, const std::string& tag = "") {
        return kt::finishProgram(dir, kt::spawnProgram(dir, "kesdb", args, tag), tag);
    }
    void create(const std::vector<std::string>& more) {
        std::vector<std::string> args = {"create", "db", "--from", kDevice, "--hook", kHook};
        args.insert(args.end(), more.begin(), more.end());
        const kt::Outcome r = kesdb(args);
        ASSERT_EQ(r.code, 0) << r.err;
    }
    // An application in its own working directory and with an environment of its own
    // ($KESDB_DBTABLE, $PWD, $SIM_BYTE_ORDER naming nothing of the database).
    static void foreignPlace(const std::string& cwd) {
        mkdir(cwd.c_str(), 0775);
        if (chdir(cwd.c_str()) != 0) _exit(90);
        setenv("KESDB_DBTABLE", "elsewhere.tbl", 1);
        setenv("PWD", "/nowhere", 1);
        setenv("SIM_BYTE_ORDER", "LITTLE_ENDIAN", 1);
    }
    static uint32_t find(Session& s, const char* path) { return kesDBMSearchByName(&s, path); }
    kt::TempDir dir;
    pk::Children children;
};

// The application's lock keeps the tool out and the tool's keeps the application out; a
// "set" waits for the holder and then succeeds.
TEST_F(OpenDir, ApplicationAndToolShareLocks) {
    create({});
    pk::Pipe app, test;
    const pid_t pid = children.start([&] {
        foreignPlace(dir.file("app"));
        int32_t err = 0;
        Session s{};
        const int32_t id = kesDBMInitDir("../db", &err);
        if (id < 0 || kesDBMInitSession(&s, static_cast<uint32_t>(id)) != 0) return 1;
        if (kesDBMLock(&s, find(s, "/net/port"), 1) != 0) return 2;
        char go = 0;
        app.send('L');
        if (!test.receive(go, 20000) || kesDBMUnlock(&s, find(s, "/net/port")) != 0) return 3;
        if (!test.receive(go, 20000)) return 4;
        app.send(kesDBMLock(&s, find(s, "/net/mode"), 1));
        kesDBMTermSession(&s);
        return kesDBMTerm(static_cast<uint32_t>(id));
    });
    char c = 0;
    ASSERT_TRUE(app.receive(c, 20000));
    kt::Outcome r = kesdb({"-d", "db", "lock", "/net/port", "--try"});
    EXPECT_EQ(r.code, 5);
    EXPECT_NE(r.err.find(" of process " + std::to_string(pid)), std::string::npos) << r.err;
    EXPECT_EQ(kesdb({"-d", "db", "set", "/net/port", "9000", "--wait", "0.2"}).code, 5);

    const pid_t set = kt::spawnProgram(dir, "kesdb", {"-d", "db", "set", "/net/port", "9001"}, "set");
    usleep(300 * 1000);
    EXPECT_EQ(waitpid(set, nullptr, WNOHANG), 0);  // waiting for the application
    test.send('U');
    r = kt::finishProgram(dir, set, "set");
    EXPECT_EQ(r.code, 0) << r.err;
    setenv("KESDB_DIR", "db", 1);
    EXPECT_EQ(kesdb({"get", "/net/port"}).out, "9001\n");

    EXPECT_EQ(kesdb({"lock", "/net/mode"}).code, 0);
    test.send('M');
    int32_t rc = 0;
    ASSERT_TRUE(app.receive(rc, 20000));
    EXPECT_EQ(rc, KESDB_ERR_LOCK_BUSY);
    EXPECT_EQ(children.wait(pid), 0);
}

// A moved directory works where it lands; a copy is a database of its own.
TEST_F(OpenDir, MovedAndCopiedDirectories) {
    create({"--files"});
    fs::create_directories(dir.file("moved"));
    fs::rename(dir.file("db"), dir.file("moved/db"));
    ASSERT_EQ(kesdb({"-d", "moved/db", "set", "/net/port", "1234"}).code, 0);
    fs::copy(dir.file("moved/db"), dir.file("copy"), fs::copy_options::recursive);
    ASSERT_EQ(kesdb({"-d", "copy", "set", "/net/port", "4321"}).code, 0);
    for (const auto& [where, port] : std::map<std::string, uint16_t>{{"moved/db", 1234}, {"copy", 4321}}) {
        const pid_t pid = children.start([&, where = where] {
            foreignPlace(dir.file("app"));
            int32_t err = 0;
            Session s{};
            const int32_t id = kesDBMInitDir(dir.file(where).c_str(), &err);
            uint16_t value = 0;
            if (id < 0 || kesDBMInitSession(&s, static_cast<uint32_t>(id)) != 0) return 1;
            // Two allocations: the second reads the free element the first one wrote, in host
            // order whatever SIM_BYTE_ORDER says.
            for (const char* name : {"a", "b"})
                if (!kesDBMCreateNode(&s, kesDBMCreateString(&s, name, db_getDb(s.dbId)->stringMedium), kesDBMGetRoot(&s), 0, 0)) return 1;
            return kesDBMGetUint16(&s, find(s, "/net/port"), &value) == 0 ? value % 250 + 2 : 1;
        });
        EXPECT_EQ(children.wait(pid), port % 250 + 2) << where;
        // The free element behind the anchor still fits the medium (a byte-reversed size
        // would not).
        const std::string medium = dir.file(where + "/components.med");
        EXPECT_LT(kt::readWord(medium, kt::readWord(medium, 12) + 4), fs::file_size(medium)) << where;
    }
}

// An image's database, its hooks and drivers built for another machine, is read on the build
// host without hooks and left byte for byte as it was; what cannot be loaded is named.
TEST_F(OpenDir, ImageIsInspectedWithoutATrace) {
    const std::string target = "libtarget_only.so policy_preSet NULL NULL NULL";
    ASSERT_EQ(kesdb({"create", "db", "--files", "--from", kDevice, "--target-lib-dir", "/opt/target/lib", "--hook",
                     target})
                  .code,
              0);
    auto snapshot = [&] {
        std::map<std::string, std::string> files;
        for (const auto& e : fs::directory_iterator(dir.file("db"))) files[e.path().string()] = kt::readFile(e.path());
        return files;
    };
    const auto before = snapshot();
    struct Case {
        std::vector<std::string> args;
        int code;
        std::string part;  // of standard output, or of standard error when the command fails
    };
    const Case cases[] = {
        {{"get", "/net/port", "--no-hooks"}, 0, "8080\n"},
        {{"export", "--no-hooks"}, 0, "\"name\": \"port\""},
        {{"print", "--no-hooks"}, 0, "[net]"},
        {{"get", "/net/port"}, 2, "cannot load the hook library /opt/target/lib/libtarget_only.so"},
    };
    for (const Case& c : cases) {
        std::vector<std::string> args = {"-d", "db"};
        args.insert(args.end(), c.args.begin(), c.args.end());
        const kt::Outcome r = kesdb(args);
        EXPECT_EQ(r.code, c.code) << c.args[0] << r.err;
        EXPECT_NE((c.code ? r.err : r.out).find(c.part), std::string::npos) << c.args[0] << r.out << r.err;
    }
    EXPECT_TRUE(snapshot() == before);
}

// One directory a process: another one is refused (and so is a directory after kesDBMInit)
// until everything started is shut down; the same directory again gets the same id.
TEST_F(OpenDir, OneDirectoryAProcess) {
    create({});
    ASSERT_EQ(kesdb({"create", "other"}).code, 0);
    const pid_t pid = children.start([&] {
        const std::string a = dir.file("db"), b = dir.file("other");
        int32_t err = 0;
        const int32_t id = kesDBMInitDir(a.c_str(), &err);
        DBMDirOptions noHooks{KESDB_DIR_NO_HOOKS, nullptr, nullptr};
        if (id < 0 || kesDBMInitDir(b.c_str(), &err) != -1 || err != KESDB_ERR_DIR_OTHER) return 1;
        if (std::string(kesDBMInitDirFailure()).find(a) == std::string::npos) return 2;
        if (kesDBMInitDir(a.c_str(), &err) != id || kesDBMInitDirEx(a.c_str(), &noHooks, &err) != -1) return 3;
        kesDBMTerm(static_cast<uint32_t>(id));
        kesDBMTerm(static_cast<uint32_t>(id));
        const int32_t other = kesDBMInitDir(b.c_str(), &err);
        if (other < 0 || kesDBMTerm(static_cast<uint32_t>(other)) != 0) return 4;
        DBMInitParam p{};
        setenv("KESDB_DBTABLE", dir.file("plain.tbl").c_str(), 1);
        if (kesdb_dirParam(a.c_str(), nullptr, &p) != 0 || kesDBMInit(&p, &err) < 0) return 5;
        return kesDBMInitDir(a.c_str(), &err) == -1 && err == KESDB_ERR_DIR_OTHER ? 0 : 6;
    });
    EXPECT_EQ(children.wait(pid), 0);
}

// Directories that cannot be started are refused with the cause, and leave the process as
// it was: a good directory starts afterwards.
TEST_F(OpenDir, RefusedDirectoriesNameTheCause) {
    const std::string good = "session=s.tbl\nlock=l.tbl\nmedia=media.conf\nhook=hook.conf\n"
                             "component=1\nvalue=1\nconstraint=1\nstring=1\n";
    struct Case {
        std::string descriptor, media;
        int32_t code;
        std::string part;
    };
    const Case cases[] = {
        {"", "", KESDB_ERR_DIR_BAD, "no such directory"},
        {"# comment\nsession\n", "", KESDB_ERR_DIR_BAD, "kesdb.conf line 2 is not a valid"},
        {good + "component=x\n", "", KESDB_ERR_DIR_BAD, "line 9 is not a valid"},
        {"session=s.tbl\n", "", KESDB_ERR_DIR_BAD, "kesdb.conf has no lock line"},
        {good, "lib/libnone.so o c r w s y m\n", KESDB_ERR_MEDIA_LOAD, "/d/lib/libnone.so"},
    };
    for (const Case& c : cases) {
        const std::string d = dir.file("d");
        fs::remove_all(d);
        if (!c.descriptor.empty()) {
            fs::create_directories(d);
            kt::writeFile(d + "/kesdb.conf", c.descriptor);
            kt::writeFile(d + "/media.conf", c.media);
            kt::writeFile(d + "/hook.conf", "");
        }
        int32_t err = 0;
        EXPECT_EQ(kesDBMInitDir(d.c_str(), &err), -1) << c.descriptor;
        EXPECT_EQ(err, c.code) << c.descriptor;
        EXPECT_NE(std::string(kesDBMInitDirFailure()).find(c.part), std::string::npos) << kesDBMInitDirFailure();
    }
    create({});
    int32_t err = 0;
    const int32_t id = kesDBMInitDir(dir.file("db").c_str(), &err);
    EXPECT_GT(id, 0) << kesDBMInitDirFailure();
    EXPECT_EQ(kesDBMTerm(static_cast<uint32_t>(id)), 0);
}

}  // namespace
