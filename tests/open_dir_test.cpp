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

const std::string kDevice = std::string(KT_SOURCE_DIR) + "/examples/device.json";

class OpenDir : public ::testing::Test {
protected:
    kt::Outcome kesdb(const std::vector<std::string>& args) { return kt::finishProgram(dir, kt::spawnProgram(dir, "kesdb", args)); }
    void create(std::vector<std::string> more = {}) {
        more.insert(more.begin(), {"create", "db", "--from", kDevice, "--hook", "libkeshook_sample.so policy_preSet log_postSet NULL NULL"});
        ASSERT_EQ(kesdb(more).code, 0);
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

// The application's lock keeps the tool out and the tool's keeps the application out; a
// "set" waits for the holder and then succeeds.
TEST_F(OpenDir, ApplicationAndToolShareLocks) {
    create();
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
TEST_F(OpenDir, MovedAndCopiedDirectories) {
    create({"--files"});
    fs::rename(dir.file("db"), dir.file("moved"));
    ASSERT_EQ(kesdb({"-d", "moved", "set", "/net/port", "1234"}).code, 0);
    fs::copy(dir.file("moved"), dir.file("copy"), fs::copy_options::recursive);
    ASSERT_EQ(kesdb({"-d", "copy", "set", "/net/port", "4321"}).code, 0);
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
}

// An image's database, its hooks built for another machine, is read on the build host
// without hooks and left byte for byte as it was; what cannot be loaded is named.
TEST_F(OpenDir, ImageIsInspectedWithoutATrace) {
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
}

// One directory a process: another one is refused (and so is a directory after kesDBMInit)
// until everything started is shut down; the same directory again gets the same id.
TEST_F(OpenDir, OneDirectoryAProcess) {
    create();
    ASSERT_EQ(kesdb({"create", "other"}).code, 0);
    EXPECT_EQ(kt::runChild([&] {
                  const std::string a = dir.file("db"), b = dir.file("other");
                  int32_t err = 0;
                  const int32_t id = kesDBMInitDir(a.c_str(), &err);
                  DBMDirOptions noHooks{KESDB_DIR_NO_HOOKS, nullptr, nullptr};
                  if (id < 0 || kesDBMInitDir(b.c_str(), &err) != -1 || err != KESDB_ERR_DIR_OTHER) return 1;
                  if (std::string(kesDBMInitDirFailure()).find(a) == std::string::npos) return 2;
                  if (kesDBMInitDir(a.c_str(), &err) != id || kesDBMInitDirEx(a.c_str(), &noHooks, &err) != -1) return 3;
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
TEST_F(OpenDir, RefusedDirectoriesNameTheCause) {
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
    create();
    int32_t err = 0;
    const int32_t id = kesDBMInitDir(dir.file("db").c_str(), &err);
    EXPECT_GT(id, 0) << kesDBMInitDirFailure();
    EXPECT_EQ(kesDBMTerm(static_cast<uint32_t>(id)), 0);
}

}  // namespace
