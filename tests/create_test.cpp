// kesdb create and grow: media sized from the description, a full medium named and grown in
// place, the directory's permissions from the umask, the leftovers of killed creates removed.
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <unistd.h>
#include <vector>

#include "testkit.hpp"

namespace {

namespace fs = std::filesystem;
using kt::Outcome;

class Create : public ::testing::Test {
protected:
    void SetUp() override {
        setenv("KESDB_DBTABLE", dir.file("db.tbl").c_str(), 1);
        std::string leaves;
        for (int i = 0; i < 60; ++i)
            leaves += std::string(i ? ", " : "") + R"({"name": "l)" + std::to_string(100 + i) + R"(", "type": "Uint32", "current": 1})";
        kt::writeFile(dir.file("d.json"), R"({"children": [)" + leaves + "]}");
    }
    Outcome kesdb(const std::vector<std::string>& args) {
        return kt::finishProgram(dir, kt::spawnProgram(dir, "kesdb", args, ""), "");
    }
    kt::TempDir dir;
};

// Rows run in order: 60 leaves do not fit 4 KiB until the media grow; create sizes its media
// from the description whatever --size says.
TEST_F(Create, MediaAreSizedAndGrow) {
    struct Row {
        std::vector<std::string> args;
        int code;
        std::string err;
    };
    const Row rows[] = {
        {{"create", "small", "--size", "4096"}, 0, ""},
        {{"-d", "small", "import", "d.json"}, 2, "45 KESDB_ERR_VALUE_WRITE; the value medium is full"},
        {{"-d", "small", "grow"}, 1, "grow needs --size BYTES"},
        {{"-d", "small", "grow", "--size", "65536"}, 0, "medium.bin: 4186 -> 65536 bytes"},
        {{"-d", "small", "import", "d.json"}, 0, ""},
        {{"check", "small"}, 0, ""},
        {{"-d", "small", "grow", "--size", "4096"}, 0, "already 6"},
        {{"create", "sized", "--size", "4096", "--from", "d.json"}, 0, ""},
        {{"check", "sized"}, 0, ""},
        {{"create", "nul", "--from", "nul.json"}, 2, "/a\\x00b: name contains a NUL character\n"},
        {{"create", "big", "--from", "big.json"}, 2, "big.json: not valid JSON: number overflow parsing '8e999'"},
    };
    kt::writeFile(dir.file("nul.json"), R"({"children": [{"name": "a\u0000b", "type": "Uint8", "current": 1}]})");
    kt::writeFile(dir.file("big.json"), R"({"children": [{"name": "a", "type": "Float64", "current": 8e999}]})");
    for (const Row& row : rows) {
        const Outcome r = kesdb(row.args);
        EXPECT_EQ(r.code, row.code) << ::testing::PrintToString(row.args) << "\n" << r.err;
        EXPECT_NE(r.err.find(row.err), std::string::npos) << ::testing::PrintToString(row.args) << "\n" << r.err;
    }
    EXPECT_EQ(kesdb({"-d", "sized", "get", "/l159"}).out, "1\n");
}

TEST_F(Create, DirectoryFollowsTheUmask) {
    for (const mode_t mask : {077, 022, 002}) {
        umask(mask);
        const std::string db = dir.file("db" + std::to_string(mask));
        ASSERT_EQ(kesdb({"create", db}).code, 0);
        struct stat st {};
        ASSERT_EQ(stat(db.c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 0777, 0777 & ~mask) << "umask " << mask;
    }
}

// Building directories beside the target: those of killed creates go, those of a running
// create (locked) and fresh unmarked ones stay.
TEST_F(Create, LeftoversOfKilledCreatesAreRemoved) {
    struct Row {
        std::string name;
        bool marked, locked, removed;
    };
    const Row rows[] = {
        {"db.tmp-aaaaaa", true, false, true},
        {"db.tmp-bbbbbb", true, true, false},
        {"db.tmp-cccccc", false, false, false},
        {"db.tmp-dddddddd", true, false, false},
        {"dbx.tmp-eeeeee", true, false, false},
    };
    std::vector<int> locks;
    for (const Row& row : rows) {
        fs::create_directory(dir.file(row.name));
        if (row.marked) kt::writeFile(dir.file(row.name + "/kesdb.building"), "");
        if (!row.locked) continue;
        locks.push_back(open(dir.file(row.name).c_str(), O_RDONLY | O_DIRECTORY));
        ASSERT_EQ(flock(locks.back(), LOCK_EX), 0);
    }
    // A create killed for real while it builds.
    const pid_t killed = kt::spawnProgram(dir, "kesdb", {"create", "db", "--from", "d.json"}, "killed");
    usleep(200 * 1000);
    kill(killed, SIGKILL);
    kt::finishProgram(dir, killed, "killed");
    fs::remove_all(dir.file("db"));  // in case it finished first
    ASSERT_EQ(kesdb({"create", "db"}).code, 0);
    for (const Row& row : rows) EXPECT_EQ(fs::exists(dir.file(row.name)), !row.removed) << row.name;
    size_t left = 0;
    for (const auto& e : fs::directory_iterator(dir.path()))
        left += e.path().filename().string().rfind("db.tmp-", 0) == 0;
    EXPECT_EQ(left, 3u);  // bbbbbb, cccccc, dddddddd
    for (int fd : locks) close(fd);
}

// The database table is lost while the lock table holds a lock: the next start-up gets the
// same id, or is refused, but never locks beside the old lock.
TEST_F(Create, LocksOutliveTheirRegistration) {
    ASSERT_EQ(kesdb({"create", "b"}).code, 0);
    ASSERT_EQ(kesdb({"-d", "b", "lock", "/", "--try"}).code, 0);
    for (const char* damage : {"removed", "emptied"}) {
        if (std::string(damage) == "removed") fs::remove(dir.file("b/db.tbl"));
        else kt::writeFile(dir.file("b/db.tbl"), "");
        const Outcome r = kesdb({"-d", "b", "lock", "/", "--try"});
        EXPECT_TRUE(r.code == 5 || (r.code == 2 && r.err.find("no longer registers database") != std::string::npos))
            << damage << ": " << r.code << " " << r.err;
    }
}

}  // namespace
