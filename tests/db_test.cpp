// Database table: registration across processes, the full table, release order, paths.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "testkit.hpp"

namespace {

struct DbTableTest : ::testing::Test {
    kt::TempDir dir;
    std::string table = dir.file("db.tbl");
    DBMInitParam param = kt::makeParam(dir);
    int32_t err = 0;
    void SetUp() override { setenv("KESDB_DBTABLE", table.c_str(), 1); }
    uint32_t refCount(uint32_t slot) { return kt::readWord(table, 12 + 16416 * slot + 16408); }
    int32_t initAs(uint32_t reserved) {
        param.reserved = reserved;
        return db_init(&param, &err);
    }
};

TEST_F(DbTableTest, NewTableIsCreatedAndSameBlockSharesIdAcrossProcesses) {
    EXPECT_EQ(kt::captureStdout([] { db_show(3); }), "\n");  // not mapped yet
    ASSERT_EQ(db_init(&param, &err), 1);
    struct stat st{};
    ASSERT_EQ(stat(table.c_str(), &st), 0);
    EXPECT_EQ(st.st_size, 541740);
    EXPECT_EQ(st.st_mode & 0777, 0664u & ~[] { mode_t m = umask(0); umask(m); return m; }());
    EXPECT_EQ(kt::runChild([this] { return db_init(&param, &err) == 1 ? 0 : 1; }), 0);
    EXPECT_EQ(refCount(1), 2u);
    EXPECT_TRUE(initAs(7) == 2 && err == 0);  // differs only in the reserved word: another database
    EXPECT_TRUE(db_getDb(2) && db_getDb(2)->reserved == 7u);
    for (uint32_t id : {0u, 3u, 33u}) EXPECT_EQ(db_getDb(id), nullptr) << id;
    EXPECT_TRUE(db_init(nullptr, &err) == -1 && err == KESDB_ERR_NULLARG);
}

TEST_F(DbTableTest, ThirtySecondDatabaseIsRefusedAndReleasedSlotGoesLast) {
    for (uint32_t i = 1; i <= 31; ++i) ASSERT_EQ(initAs(i), static_cast<int32_t>(i));
    EXPECT_TRUE(initAs(32) == -1 && err == KESDB_ERR_DB_FULL);
    ASSERT_EQ(initAs(1), 1);  // registered twice: released at the second release
    EXPECT_TRUE(db_term(1) == 0 && db_getDb(1) != nullptr);
    EXPECT_TRUE(db_term(1) == 0 && db_getDb(1) == nullptr && db_term(5) == 0);
    EXPECT_EQ(kt::captureStdout([] { db_show(3); }).substr(0, 28), "\nfree  head -> 1 5\ndb  head ");
    EXPECT_TRUE(initAs(100) == 1 && initAs(101) == 5);
    EXPECT_EQ(kt::captureStdout([] { db_show(1); }).substr(0, 16), "\ndb  head -> 5 1");
}

TEST_F(DbTableTest, UnusableTableFileFailsEveryStartUp) {
    setenv("KESDB_DBTABLE", dir.file("missing/db.tbl").c_str(), 1);
    for (int i = 0; i < 2; ++i)  // the second time the count is up, but there is no table
        EXPECT_TRUE(db_init(&param, &err) == -1 && err == KESDB_ERR_MMAP && (err = 0) == 0);
    EXPECT_TRUE(db_getDb(1) == nullptr && db_term(1) == 0 && db_term(1) == 0);
    kt::writeFile(table, std::string(100, '\0'));  // truncated: refused rather than mapped
    setenv("KESDB_DBTABLE", table.c_str(), 1);
    EXPECT_TRUE(db_init(&param, &err) == -1 && err == KESDB_ERR_MMAP);
}

// Relative paths are PWD joined to them without a separator; no PWD or a null path: different.
TEST(PathCompare, RelativePathsJoinPwdWithoutSeparator) {
    const struct { const char* pwd; const char* a; const char* b; bool same; } cases[] = {
        {"/home/app", "db", "/home/appdb", true}, {"/home/app", "db", "/home/app/db", false}, {"/home/app", "x", "x", true},
        {"/home/app", "/home/appdb", "db", true}, {"/home/app", "/a//b", "/a/b", false},    {nullptr, "x", "x", false},
        {"/home/app", nullptr, "/a", false},      {"/home/app", "/a", nullptr, false},      {nullptr, "x", "/x", false},
        {nullptr, "/x", "x", false},              {nullptr, "/x", "/x", true},
    };
    for (const auto& c : cases) {
        c.pwd ? setenv("PWD", c.pwd, 1) : unsetenv("PWD");
        EXPECT_EQ(misc_pathCompare(c.a, c.b) == 0, c.same) << (c.a ? c.a : "null") << " " << (c.b ? c.b : "null");
    }
    setenv("PWD", std::string(5000, 'd').c_str(), 1);
    EXPECT_EQ(misc_pathCompare("x", "y"), 0);  // both cut to the same 4096 characters, never overrun
}

TEST_F(DbTableTest, RelativeAndAbsoluteFormsNameTheSameDatabase) {
    ASSERT_EQ(db_init(&param, &err), 1);
    const std::string d = dir.path();
    setenv("PWD", d.c_str(), 1);  // PWD + "session.tbl" lacks the separator: another file
    DBMInitParam relative = param;
    std::snprintf(relative.sessionTablePath, KESDB_PATH_MAX, "%s", "session.tbl");
    EXPECT_EQ(db_init(&relative, &err), 2);
    setenv("PWD", d.substr(0, d.size() - 1).c_str(), 1);
    std::snprintf(relative.sessionTablePath, KESDB_PATH_MAX, "%s", (d.substr(d.size() - 1) + "/session.tbl").c_str());
    EXPECT_EQ(db_init(&relative, &err), 1);
    EXPECT_EQ(refCount(1), 2u);
}

}  // namespace
