// Database table: registration across processes, the full table, release order, paths.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <string>

#include "testkit.hpp"

namespace {

// A process-independent view of a slot in the table file.
uint32_t slotWord(const std::string& table, uint32_t slot, uint32_t offset) {
    return kt::readWord(table, 12 + 16416 * slot + offset);
}

struct DbTableTest : ::testing::Test {
    kt::TempDir dir;
    std::string table = dir.file("db.tbl");
    DBMInitParam param = kt::makeParam(dir);
    void SetUp() override { setenv("KESDB_DBTABLE", table.c_str(), 1); }
};

TEST_F(DbTableTest, NewTableIsCreatedAndSameBlockSharesIdAcrossProcesses) {
    int32_t err = 0;
    ASSERT_EQ(db_init(&param, &err), 1);
    struct stat st{};
    ASSERT_EQ(stat(table.c_str(), &st), 0);
    EXPECT_EQ(st.st_size, 541740);
    EXPECT_EQ(st.st_mode & 0777, 0664u & ~[] { mode_t m = umask(0); umask(m); return m; }());

    // Another process starting the same block gets the same id; the count is shared.
    EXPECT_EQ(kt::runChild([this] {
        int32_t e = 0;
        return db_init(&param, &e) == 1 ? 0 : 1;
    }), 0);
    EXPECT_EQ(slotWord(table, 1, 16408), 2u);  // refCount

    DBMInitParam other = param;
    other.reserved = 7;  // differs only in the reserved word: another database
    EXPECT_EQ(db_init(&other, &err), 2);
    EXPECT_EQ(err, 0);
    ASSERT_NE(db_getDb(2), nullptr);
    EXPECT_EQ(db_getDb(2)->reserved, 7u);
    for (uint32_t id : {0u, 3u, 33u}) EXPECT_EQ(db_getDb(id), nullptr) << id;
}

TEST_F(DbTableTest, ThirtySecondDatabaseIsRefusedAndReleasedSlotGoesLast) {
    int32_t err = 0;
    for (uint32_t i = 1; i <= 31; ++i) {
        param.reserved = i;
        ASSERT_EQ(db_init(&param, &err), static_cast<int32_t>(i));
    }
    param.reserved = 32;
    EXPECT_EQ(db_init(&param, &err), -1);
    EXPECT_EQ(err, KESDB_ERR_DB_FULL);

    // Two registrations of database 1, two releases: its slot goes to the end of the free list.
    param.reserved = 1;
    err = 0;
    ASSERT_EQ(db_init(&param, &err), 1);
    EXPECT_EQ(db_term(1), 0);
    EXPECT_NE(db_getDb(1), nullptr);
    EXPECT_EQ(db_term(1), 0);
    EXPECT_EQ(db_getDb(1), nullptr);
    EXPECT_EQ(db_term(5), 0);
    // Free list now 1, 5: a new block takes the front (1); the next one 5.
    param.reserved = 100;
    EXPECT_EQ(db_init(&param, &err), 1);
    param.reserved = 101;
    EXPECT_EQ(db_init(&param, &err), 5);
}

TEST_F(DbTableTest, ShowPrintsTheListsExactly) {
    EXPECT_EQ(kt::captureStdout([] { db_show(3); }), "\n");  // not mapped yet: nothing but the line end
    int32_t err = 0;
    ASSERT_EQ(db_init(&param, &err), 1);
    ASSERT_EQ(db_term(1), 0);  // unmapped again, table file stays
    ASSERT_EQ(db_init(nullptr, &err), -1);
    EXPECT_EQ(err, KESDB_ERR_NULLARG);
    std::string expected = "\nfree  head ->";
    for (int i = 2; i <= 31; ++i) expected += " " + std::to_string(i);
    expected += " 1\ndb  head ->\n";
    EXPECT_EQ(kt::captureStdout([] { db_show(3); }), expected);
    param.reserved = 9;
    ASSERT_EQ(db_init(&param, &err), 2);
    EXPECT_EQ(kt::captureStdout([] { db_show(1); }), "\ndb  head -> 2\n");
    EXPECT_EQ(kt::captureStdout([] { db_show(0); }), "\n");
}

TEST_F(DbTableTest, UnusableTableFileFailsEveryStartUp) {
    auto init = [&] {
        int32_t err = 0;
        return std::make_pair(db_init(&param, &err), err);
    };
    const auto refused = std::make_pair(-1, KESDB_ERR_MMAP);
    setenv("KESDB_DBTABLE", dir.file("missing/db.tbl").c_str(), 1);
    EXPECT_EQ(init(), refused);
    EXPECT_EQ(init(), refused);  // the count is up, but there is still no table
    EXPECT_EQ(db_getDb(1), nullptr);
    EXPECT_EQ(db_term(1), 0);
    EXPECT_EQ(db_term(1), 0);
    // A truncated table file is refused rather than mapped.
    kt::writeFile(table, std::string(100, '\0'));
    setenv("KESDB_DBTABLE", table.c_str(), 1);
    EXPECT_EQ(init(), refused);
}

TEST(PathCompare, RelativePathsJoinPwdWithoutSeparator) {
    setenv("PWD", "/home/app", 1);
    EXPECT_EQ(misc_pathCompare("db", "/home/appdb"), 0);
    EXPECT_NE(misc_pathCompare("db", "/home/app/db"), 0);
    EXPECT_EQ(misc_pathCompare("/home/appdb", "db"), 0);
    EXPECT_EQ(misc_pathCompare("x", "x"), 0);
    EXPECT_NE(misc_pathCompare("/a//b", "/a/b"), 0);
    EXPECT_NE(misc_pathCompare(nullptr, "/a"), 0);
    unsetenv("PWD");
    EXPECT_NE(misc_pathCompare("x", "x"), 0);
    EXPECT_NE(misc_pathCompare("x", "/x"), 0);
    EXPECT_NE(misc_pathCompare("/x", "x"), 0);
    EXPECT_EQ(misc_pathCompare("/x", "/x"), 0);
    // A path longer than the buffer is cut, never overrun.
    setenv("PWD", std::string(5000, 'd').c_str(), 1);
    EXPECT_EQ(misc_pathCompare("x", "y"), 0);  // both cut to the same 4096 characters
}

TEST_F(DbTableTest, RelativeAndAbsoluteFormsNameTheSameDatabase) {
    int32_t err = 0;
    ASSERT_EQ(db_init(&param, &err), 1);
    const std::string d = dir.path();

    // PWD followed directly by "session.tbl" lacks the separator: another file, another id.
    setenv("PWD", d.c_str(), 1);
    DBMInitParam relative = param;
    std::snprintf(relative.sessionTablePath, KESDB_PATH_MAX, "%s", "session.tbl");
    EXPECT_EQ(db_init(&relative, &err), 2);

    // PWD = the directory without its last character, path = that character + "/session.tbl".
    setenv("PWD", d.substr(0, d.size() - 1).c_str(), 1);
    std::snprintf(relative.sessionTablePath, KESDB_PATH_MAX, "%s", (d.substr(d.size() - 1) + "/session.tbl").c_str());
    EXPECT_EQ(db_init(&relative, &err), 1);
    EXPECT_EQ(slotWord(table, 1, 16408), 2u);
    EXPECT_EQ(err, 0);
}

}  // namespace
