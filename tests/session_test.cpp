// Sessions and start-up: the session table, the start-up order and its messages.
#include <gtest/gtest.h>

#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "testkit.hpp"

namespace {

// The ids session_show prints for `flags` (1: open sessions, 2: free entries), in order.
std::vector<std::string> shown(uint32_t flags) {
    std::istringstream in(kt::captureStdout([flags] { session_show(flags); }));
    std::vector<std::string> ids;
    for (std::string w; in >> w;)
        if (w != "free" && w != "session" && w != "head" && w != "->") ids.push_back(w);
    return ids;
}

TEST(Sessions, IdsAreHandedOutInOrderAndReleasedOnesLast) {
    kt::Db db;
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
    EXPECT_EQ(shown(2).back(), "1");
    EXPECT_EQ(kesDBMInitSession(nullptr, 1), KESDB_ERR_NULLARG);
    EXPECT_EQ(kesDBMTermSession(nullptr), KESDB_ERR_NULLARG);
    EXPECT_EQ(session_init("/nonexistent/dir/table"), 0);  // a second set-up only counts
    EXPECT_EQ(session_term(), 0);
}

// A full table refuses the 1024th session; the oldest session, last of the 1023 open ones, and
// one in the middle are still found and their entries reused.
TEST(Sessions, The1024thOpenSessionIsRefused) {
    kt::Db db;
    ASSERT_TRUE(db.sessionOpen);
    const std::vector<std::string> free = shown(2);  // in hexadecimal
    EXPECT_TRUE(free.size() == 1022 && free[0] == "2" && free[8] == "a" && free.back() == "3ff");
    EXPECT_EQ(kt::captureStdout([] { session_show(0); }), "\n");
    std::vector<Session> sessions(1023);
    for (size_t i = 1; i < sessions.size(); ++i) ASSERT_EQ(kesDBMInitSession(&sessions[i], 1), 0) << i;
    EXPECT_EQ(shown(3).size(), 1023u);
    Session extra{};
    extra.error = 1234;
    EXPECT_EQ(kesDBMInitSession(&extra, 1), KESDB_ERR_SESSION_FULL);
    EXPECT_EQ(extra.errorDetail, 0u);
    for (Session* gone : {&db.s, &sessions[500]}) {
        ASSERT_EQ(kesDBMTermSession(gone), 0);
        EXPECT_EQ(kesDBMInitSession(&extra, 1), 0);
        EXPECT_EQ(extra.id, gone->id);
    }
    db.sessionOpen = false;
}

TEST(Sessions, SessionsOfSeveralProcessesShareOneTable) {
    kt::Db db;
    ASSERT_TRUE(db.sessionOpen);
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
    const std::vector<std::string> used = shown(1);
    EXPECT_EQ(used.size(), 201u);
    EXPECT_EQ(std::set<std::string>(used.begin(), used.end()).size(), 201u);
}

// A failing step prints its message and those of every later step; the code is the first
// failure's.
TEST(StartUp, FailingStepsPrintEveryLaterMessage) {
    const std::string later = "kesDBMInit err4\nkesDBMInit err5\nkesDBMInit err6\nkesDBMInit err7\n";
    enum Broken { NullBlock, LockTable, MediaConf, HookConf };
    const struct { Broken what; std::string out; int32_t code; } cases[] = {
        {NullBlock, "kesDBMInit err1\n", KESDB_ERR_NULLARG},
        {LockTable, "kesDBMInit err2\nkesDBMInit err3\n" + later, KESDB_ERR_MMAP},
        {MediaConf, "kesDBMInit err3\n" + later, KESDB_ERR_MEDIA_CONFOPEN},
        {HookConf, "hook_init err3\n" + later, KESDB_ERR_HOOK_CONFOPEN},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        kt::DbOptions options;
        options.start = false;
        kt::Db db(options);
        DBMInitParam& p = db.param;
        const std::string absent = db.dir.file("absent.conf");
        int32_t err = 0;
        if (c.what == LockTable) kt::writeFile(p.lockTablePath, "too short to be a lock table");
        if (c.what == MediaConf) snprintf(p.mediaConfigPath, KESDB_PATH_MAX, "%s", absent.c_str());
        if (c.what == HookConf) snprintf(p.hookConfigPath, KESDB_PATH_MAX, "%s", absent.c_str());
        EXPECT_EQ(kt::captureStdout([&] { EXPECT_EQ(kesDBMInit(c.what == NullBlock ? nullptr : &p, &err), -1); }),
                  c.out);
        EXPECT_EQ(err, c.code);
        if (c.what == LockTable) {
            EXPECT_TRUE(media_getCount() == 1 && hook_getCount() == 0);  // not set up
        }
    }
}

// The later steps still run: the session table is set up.
TEST(StartUp, FullDatabaseTableStillSetsUpTheRest) {
    kt::DbOptions options;
    options.start = false;
    kt::Db db(options);
    int32_t err = 0;
    for (db.param.reserved = 1; db.param.reserved <= 31; ++db.param.reserved) ASSERT_GT(db_init(&db.param, &err), 0);
    EXPECT_EQ(kt::captureStdout([&] { EXPECT_EQ(kesDBMInit(&db.param, &err), -1); }), "kesDBMInit err1\n");
    EXPECT_EQ(err, KESDB_ERR_DB_FULL);
    Session s{};
    EXPECT_EQ(kesDBMInitSession(&s, 1), 0);
}

TEST(StartUp, RepeatedStartUpsCountAndShutDownRunsEveryStep) {
    kt::DbOptions options;
    options.start = false;
    kt::Db db(options);
    int32_t err = 12345;
    ASSERT_EQ(kesDBMInit(&db.param, &err), 1);
    ASSERT_EQ(kesDBMInit(&db.param, &err), 1);
    EXPECT_EQ(err, 12345);  // untouched on success
    EXPECT_EQ(kesDBMTerm(1), 0);
    EXPECT_NE(db_getDb(1), nullptr);
    EXPECT_EQ(kesDBMTerm(1), 0);
    EXPECT_EQ(kesDBMTerm(7), 0);  // not registered: every step still runs and succeeds
}

}  // namespace
