// Sessions and start-up: the session table, the start-up order and its messages.
#include <gtest/gtest.h>

#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "testkit.hpp"

namespace {

TEST(Sessions, IdsAreHandedOutInOrderAndReleasedOnesLast) {
    kt::Db db;
    ASSERT_EQ(db.id, 1);
    ASSERT_TRUE(db.sessionOpen);
    EXPECT_TRUE(db.s.id == 1 && db.s.dbId == 1 && db.s.error == 0 && db.s.errorDetail == 0);
    EXPECT_EQ(db.s.current, kesDBMGetRoot(&db.s));

    Session second{}, third{};
    ASSERT_EQ(kesDBMInitSession(&second, 1), 0);
    EXPECT_EQ(second.id, 2u);
    ASSERT_EQ(kesDBMTermSession(&db.s), 0);
    db.sessionOpen = false;
    EXPECT_EQ(kesDBMTermSession(&db.s), KESDB_ERR_SESSION_NOTFOUND);
    EXPECT_EQ(db.s.error, static_cast<uint32_t>(KESDB_ERR_SESSION_NOTFOUND));
    Session never{};  // id 0: never handed out, so found nowhere, also not past the list's end
    never.dbId = 1;
    EXPECT_EQ(kesDBMTermSession(&never), KESDB_ERR_SESSION_NOTFOUND);
    ASSERT_EQ(kesDBMInitSession(&third, 1), 0);
    EXPECT_EQ(third.id, 3u);  // 1 went to the end of the free list
    EXPECT_EQ(kesDBMInitSession(nullptr, 1), KESDB_ERR_NULLARG);
    EXPECT_EQ(kesDBMTermSession(nullptr), KESDB_ERR_NULLARG);
}

TEST(Sessions, The1024thOpenSessionIsRefused) {
    kt::Db db;
    ASSERT_TRUE(db.sessionOpen);
    std::vector<Session> sessions(1023);
    for (size_t i = 1; i < sessions.size(); ++i) ASSERT_EQ(kesDBMInitSession(&sessions[i], 1), 0) << i;
    Session extra{};
    extra.error = 1234;
    EXPECT_EQ(kesDBMInitSession(&extra, 1), KESDB_ERR_SESSION_FULL);
    EXPECT_EQ(extra.error, static_cast<uint32_t>(KESDB_ERR_SESSION_FULL));
    EXPECT_EQ(extra.errorDetail, 0u);
    ASSERT_EQ(kesDBMTermSession(&sessions[500]), 0);
    EXPECT_EQ(kesDBMInitSession(&extra, 1), 0);
    EXPECT_EQ(extra.id, sessions[500].id);
}

TEST(Sessions, ShowPrintsBothListsExactly) {
    kt::DbOptions options;
    options.start = false;
    kt::Db db(options);
    ASSERT_EQ(session_init(db.param.sessionTablePath), 0);
    std::string expected = "\nfree  head ->";
    char word[16];
    for (int i = 1; i <= 1023; ++i) expected += std::string(word, snprintf(word, sizeof word, " %x", i));
    expected += "\nsession  head ->\n";
    EXPECT_EQ(kt::captureStdout([] { session_show(3); }), expected);
    EXPECT_EQ(kt::captureStdout([] { session_show(0); }), "\n");
    // A second set-up in the process only counts: it does not even look at its path.
    EXPECT_EQ(session_init("/nonexistent/dir/table"), 0);
    EXPECT_EQ(session_term(), 0);
    EXPECT_EQ(session_term(), 0);
}

TEST(Sessions, SessionsOfSeveralProcessesShareOneTable) {
    kt::Db db;
    ASSERT_TRUE(db.sessionOpen);
    // Four processes open sessions at once; every id is handed out once.
    std::vector<pid_t> children;
    for (int c = 0; c < 4; ++c) {
        children.push_back(kt::forkChild([&db] {
            for (int i = 0; i < 50; ++i) {
                Session s{};
                if (kesDBMInitSession(&s, static_cast<uint32_t>(db.id)) != 0) return 1;
            }
            return 0;
        }));
    }
    for (pid_t pid : children) EXPECT_EQ(kt::waitChild(pid), 0);
    // 1 + 200 sessions are open: the used list holds 201 distinct ids.
    std::string used = kt::captureStdout([] { session_show(1); });
    std::set<std::string> ids;
    size_t count = 0;
    std::istringstream in(used.substr(used.find("->") + 2));
    for (std::string id; in >> id; ++count) ids.insert(id);
    EXPECT_EQ(count, 201u);
    EXPECT_EQ(ids.size(), 201u);
}

struct StartUp : ::testing::Test {
    kt::DbOptions options;
    StartUp() { options.start = false; }
    // What a start-up that fails prints, and the code it leaves.
    static std::pair<std::string, int32_t> failed(const DBMInitParam* p) {
        int32_t err = 0;
        std::string out = kt::captureStdout([&] { EXPECT_EQ(kesDBMInit(p, &err), -1); });
        return {out, err};
    }
    // The messages of the steps after the hook table.
    const std::string later = "kesDBMInit err4\nkesDBMInit err5\nkesDBMInit err6\nkesDBMInit err7\n";
};

TEST_F(StartUp, FailingLockStepPrintsEveryLaterMessage) {
    kt::Db db(options);
    kt::writeFile(db.param.lockTablePath, "too short to be a lock table");
    EXPECT_EQ(failed(&db.param), std::make_pair("kesDBMInit err2\nkesDBMInit err3\n" + later, KESDB_ERR_MMAP));
    EXPECT_EQ(media_getCount(), 1);  // the media were not set up
    EXPECT_EQ(hook_getCount(), 0);
}

TEST_F(StartUp, MissingConfigurationFilesFailTheirSteps) {
    kt::Db db(options);
    DBMInitParam p = db.param;
    snprintf(p.mediaConfigPath, KESDB_PATH_MAX, "%s", db.dir.file("absent.conf").c_str());
    EXPECT_EQ(failed(&p), std::make_pair("kesDBMInit err3\n" + later, KESDB_ERR_MEDIA_CONFOPEN));
}

TEST_F(StartUp, MissingHookFileFailsTheHookStep) {
    kt::Db db(options);
    DBMInitParam p = db.param;
    snprintf(p.hookConfigPath, KESDB_PATH_MAX, "%s", db.dir.file("absent.conf").c_str());
    EXPECT_EQ(failed(&p), std::make_pair("hook_init err3\n" + later, KESDB_ERR_HOOK_CONFOPEN));
}

TEST_F(StartUp, FullDatabaseTableStillSetsUpTheRest) {
    kt::Db db(options);
    int32_t err = 0;
    for (uint32_t i = 1; i <= 31; ++i) {
        db.param.reserved = i;
        ASSERT_EQ(db_init(&db.param, &err), static_cast<int32_t>(i));
    }
    db.param.reserved = 99;
    EXPECT_EQ(failed(&db.param), std::make_pair(std::string("kesDBMInit err1\n"), KESDB_ERR_DB_FULL));
    // The steps from the media on ran: the session table exists now.
    Session s{};
    EXPECT_EQ(kesDBMInitSession(&s, 1), 0);
}

TEST_F(StartUp, NullBlockFailsWithoutReadingIt) {
    kt::Db db(options);
    EXPECT_EQ(failed(nullptr), std::make_pair(std::string("kesDBMInit err1\n"), KESDB_ERR_NULLARG));
}

TEST_F(StartUp, RepeatedStartUpsCountAndShutDownRunsEveryStep) {
    kt::Db db(options);
    int32_t err = 12345;
    ASSERT_EQ(kesDBMInit(&db.param, &err), 1);
    EXPECT_EQ(err, 12345);  // untouched on success
    ASSERT_EQ(kesDBMInit(&db.param, &err), 1);
    EXPECT_EQ(kt::readWord(db.dir.file("db.tbl"), 12 + 16416 + 16408), 2u);
    EXPECT_EQ(kesDBMTerm(1), 0);
    EXPECT_NE(db_getDb(1), nullptr);
    EXPECT_EQ(kesDBMTerm(1), 0);
    EXPECT_EQ(kesDBMTerm(7), 0);  // not registered: every step still runs and succeeds
}

}  // namespace
