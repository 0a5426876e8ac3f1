// Sessions and start-up: the session table, the start-up order and its messages.
#include <gtest/gtest.h>

#include <set>
#include <sstream>

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
    EXPECT_TRUE(db.s.id == 1 && db.s.dbId == 1 && db.s.error == 0 && db.s.current == kesDBMGetRoot(&db.s));
    Session second{}, third{}, never{0, 1, 0, 0, 0};  // id 0: never handed out, not even past the end
    EXPECT_TRUE(kesDBMInitSession(&second, 1) == 0 && second.id == 2u && kesDBMTermSession(&db.s) == 0);
    db.sessionOpen = false;
    EXPECT_EQ(kesDBMTermSession(&db.s), KESDB_ERR_SESSION_NOTFOUND);
    EXPECT_EQ(db.s.error, static_cast<uint32_t>(KESDB_ERR_SESSION_NOTFOUND));
    EXPECT_EQ(kesDBMTermSession(&never), KESDB_ERR_SESSION_NOTFOUND);
    EXPECT_TRUE(kesDBMInitSession(&third, 1) == 0 && third.id == 3u);  // 1 went to the end of the free list
    EXPECT_EQ(shown(2).back(), "1");
    EXPECT_TRUE(kesDBMInitSession(nullptr, 1) == KESDB_ERR_NULLARG && kesDBMTermSession(nullptr) == KESDB_ERR_NULLARG);
    EXPECT_TRUE(session_init("/nonexistent/dir/table") == 0 && session_term() == 0);  // a second set-up only counts
    Session fourth{};
    EXPECT_TRUE(kesDBMInitSession(&fourth, 1) == 0 && fourth.id == 4u);  // and its shut-down left the table mapped
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
    Session extra{0, 0, 0, 1234, 0};
    EXPECT_TRUE(kesDBMInitSession(&extra, 1) == KESDB_ERR_SESSION_FULL && extra.errorDetail == 0u);
    for (Session* gone : {&db.s, &sessions[500]}) {
        ASSERT_EQ(kesDBMTermSession(gone), 0);
        EXPECT_TRUE(kesDBMInitSession(&extra, 1) == 0 && extra.id == gone->id);
    }
    db.sessionOpen = false;
}

TEST(Sessions, SessionsOfSeveralProcessesShareOneTable) {
    kt::Db db;
    ASSERT_TRUE(db.sessionOpen);
    auto open50 = [&db] {
        std::vector<Session> own(50);
        int failed = 0;
        for (Session& s : own) failed += kesDBMInitSession(&s, static_cast<uint32_t>(db.id)) != 0;
        return failed;
    };
    const pid_t children[] = {kt::forkChild(open50), kt::forkChild(open50), kt::forkChild(open50), kt::forkChild(open50)};
    for (pid_t pid : children) EXPECT_EQ(kt::waitChild(pid), 0);
    const std::vector<std::string> used = shown(1);
    EXPECT_EQ(used.size(), 201u);
    EXPECT_EQ(std::set<std::string>(used.begin(), used.end()).size(), 201u);
}

kt::DbOptions unstarted() {
    kt::DbOptions o;
    o.start = false;
    return o;
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
        kt::Db db(unstarted());
        DBMInitParam& p = db.param;
        const std::string absent = db.dir.file("absent.conf");
        int32_t err = 0, id = 0;
        if (c.what == LockTable) kt::writeFile(p.lockTablePath, "too short to be a lock table");
        if (c.what == MediaConf) snprintf(p.mediaConfigPath, KESDB_PATH_MAX, "%s", absent.c_str());
        if (c.what == HookConf) snprintf(p.hookConfigPath, KESDB_PATH_MAX, "%s", absent.c_str());
        EXPECT_EQ(kt::captureStdout([&] { id = kesDBMInit(c.what == NullBlock ? nullptr : &p, &err); }), c.out);
        EXPECT_TRUE(id == -1 && err == c.code);
        EXPECT_TRUE(c.what != LockTable || (media_getCount() == 1 && hook_getCount() == 0));  // not set up
    }
}

// The later steps still run: the session table is set up.
TEST(StartUp, FullDatabaseTableStillSetsUpTheRest) {
    kt::Db db(unstarted());
    int32_t err = 0;
    Session s{};
    for (db.param.reserved = 1; db.param.reserved <= 31; ++db.param.reserved) ASSERT_GT(db_init(&db.param, &err), 0);
    EXPECT_EQ(kt::captureStdout([&] { EXPECT_EQ(kesDBMInit(&db.param, &err), -1); }), "kesDBMInit err1\n");
    EXPECT_TRUE(err == KESDB_ERR_DB_FULL && kesDBMInitSession(&s, 1) == 0);
}

TEST(StartUp, RepeatedStartUpsCountAndShutDownRunsEveryStep) {
    kt::Db db(unstarted());
    int32_t err = 12345;
    EXPECT_TRUE(kesDBMInit(&db.param, &err) == 1 && kesDBMInit(&db.param, &err) == 1 && err == 12345);
    EXPECT_TRUE(kesDBMTerm(1) == 0 && db_getDb(1) != nullptr && kesDBMTerm(1) == 0);
    EXPECT_EQ(kesDBMTerm(7), 0);  // not registered: every step still runs and succeeds
}

}  // namespace
