// Watching for changes across processes: a watcher in one process learns of the changes
// another process makes under the component it watches, and of nothing else.
#include <gtest/gtest.h>

#include <functional>

#include "prockit.hpp"
#include "treekit.hpp"

namespace {

// "/" with nodes "a" (leaves "/x", "/z") and "b" (leaf "/y").
struct Tree {
    kt::Db db;
    Session* s = &db.s;
    uint32_t root = tk::makeRoot(s, "/");
    uint32_t a = tk::node(s, root, 0, "a");
    uint32_t b = tk::node(s, root, a, "b");
    uint32_t x = tk::leaf(s, a, 0, "/x", tk::u32(s, 1), tk::u32(s, 2));
    uint32_t z = tk::leaf(s, a, x, "/z", tk::u32(s, 3), tk::u32(s, 4));
    uint32_t y = tk::leaf(s, b, 0, "/y", tk::u32(s, 5), tk::u32(s, 6));
};

struct Report {
    int32_t rc = -1, count = 0;
    uint32_t keys[4] = {};
};

// The position a watch started now begins at.
uint32_t now(Session* s) {
    uint32_t sequence = 0;
    int32_t count = 0;
    return kesDBMWatch(s, 0, &sequence, 0, nullptr, &count) == 0 ? sequence : 0;
}

// A watcher process: opens a session, says so, watches `key` from `sequence` and reports.
pid_t watcher(pk::Children& kids, const pk::Pipe& out, uint32_t dbId, uint32_t key, uint32_t sequence,
              int32_t timeoutMs = 5000) {
    return kids.start([&out, dbId, key, sequence, timeoutMs] {
        Session own{};
        if (kesDBMInitSession(&own, dbId) != 0) return 1;
        out.send(char('w'));
        Report r;
        r.count = 4;
        uint32_t from = sequence;
        r.rc = kesDBMWatch(&own, key, &from, timeoutMs, r.keys, &r.count);
        out.send(r);
        return kesDBMTermSession(&own);
    });
}

Report awaitReport(const pk::Pipe& out) {
    Report r;
    EXPECT_TRUE(out.receive(r, 5000));
    return r;
}

TEST(Watch, EveryKindOfChangeWakesAWatcherOfItsSubtreeInAnotherProcess) {
    // Each change is made under node "a" (or covers it); the watcher of "a" must be told the
    // key the case names, and only that one: changes under "b" made first are not reported.
    struct Case {
        const char* name;
        std::function<uint32_t(Tree&)> change;  // makes the change, returns the key expected
    };
    const Case cases[] = {
        {"typed set", [](Tree& t) { return kesDBMSetUint32(t.s, t.y, 9) == 0 && kesDBMSetUint32(t.s, t.x, 9) == 0 ? t.x : 0; }},
        {"generic set", [](Tree& t) { uint32_t v = 8; return kesDBMSetGeneric(t.s, t.z, &v, 4) == 0 ? t.z : 0; }},
        {"default set", [](Tree& t) { uint32_t v = 8; return kesDBMSetDefaultGeneric(t.s, t.x, &v, 4) == 0 ? t.x : 0; }},
        {"copy", [](Tree& t) { return kesDBMCopy(t.s, t.y, t.z) == 0 ? t.z : 0; }},
        {"transfer", [](Tree& t) { return kesDBMDefaultToCurrent(t.s, t.a) == 0 ? t.a : 0; }},
        {"transfer above", [](Tree& t) { return kesDBMCurrentToDefault(t.s, t.root) == 0 ? t.root : 0; }},
        {"create", [](Tree& t) { return kesDBMCreateLeaf(t.s, tk::name(t.s, "/n"), t.a, t.z, tk::u32(t.s, 0), 0, 0, 0); }},
        {"move in", [](Tree& t) { return kesDBMMoveLeaf(t.s, t.y, t.a, 0) == 0 ? t.y : 0; }},
        {"move out", [](Tree& t) { return kesDBMMoveLeaf(t.s, t.x, t.b, 0) == 0 ? t.x : 0; }},
        {"delete", [](Tree& t) { return kesDBMDeleteComponent(t.s, t.z) == 0 ? t.z : 0; }},
        {"delete subtree", [](Tree& t) { return kesDBMDeleteComponentWithSub(t.s, t.a) == 0 ? t.a : 0; }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Tree t;
        pk::Children kids;
        pk::Pipe out;
        const pid_t w = watcher(kids, out, t.db.id, t.a, now(t.s));
        char started = 0;
        ASSERT_TRUE(out.receive(started, 5000));
        usleep(20 * 1000);  // let it fall asleep
        const uint32_t expected = c.change(t);
        ASSERT_NE(expected, 0u);
        const Report r = awaitReport(out);
        EXPECT_EQ(r.rc, 0);
        ASSERT_EQ(r.count, 1);
        EXPECT_EQ(r.keys[0], expected);
        EXPECT_EQ(kids.wait(w), 0);
    }
}

TEST(Watch, AWatcherThatFellBehindLearnsItMissedChangesAndGoesOn) {
    Tree t;
    uint32_t sequence = now(t.s);
    ASSERT_EQ(kt::runChild([&] {
                  for (uint32_t i = 0; i <= KESDB_WATCH_RING; ++i)
                      if (kesDBMSetUint32(t.s, t.y, i) != 0) return 1;
                  return 0;
              }),
              0);
    uint32_t keys[4];
    int32_t count = 4;
    ASSERT_EQ(kesDBMWatch(t.s, 0, &sequence, 0, keys, &count), 0);
    EXPECT_EQ(count, -1);
    // More changed components than the caller has room for are missed changes too.
    ASSERT_EQ(kesDBMSetUint32(t.s, t.x, 1), 0);
    ASSERT_EQ(kesDBMSetUint32(t.s, t.y, 1), 0);
    count = 1;
    ASSERT_EQ(kesDBMWatch(t.s, 0, &sequence, 0, keys, &count), 0);
    EXPECT_EQ(count, -1);
    ASSERT_EQ(kesDBMSetUint32(t.s, t.x, 2), 0);
    count = 4;
    ASSERT_EQ(kesDBMWatch(t.s, 0, &sequence, 0, keys, &count), 0);
    ASSERT_EQ(count, 1);
    EXPECT_EQ(keys[0], t.x);
    count = 4;
    ASSERT_EQ(kesDBMWatch(t.s, 0, &sequence, 50, keys, &count), 0);
    EXPECT_EQ(count, 0);  // nothing new: the time runs out
}

TEST(Watch, AKilledWatcherLeavesNothingStuck) {
    Tree t;
    pk::Children kids;
    pk::Pipe first, second;
    const uint32_t sequence = now(t.s);
    const pid_t killed = watcher(kids, first, t.db.id, t.x, sequence, -1);
    char started = 0;
    ASSERT_TRUE(first.receive(started, 5000));
    usleep(20 * 1000);
    ASSERT_EQ(kill(killed, SIGKILL), 0);
    EXPECT_EQ(kids.wait(killed), 128 + SIGKILL);
    const pid_t w = watcher(kids, second, t.db.id, t.x, sequence);
    ASSERT_TRUE(second.receive(started, 5000));
    usleep(20 * 1000);
    ASSERT_EQ(kesDBMSetUint32(t.s, t.x, 7), 0);
    const Report r = awaitReport(second);
    ASSERT_EQ(r.count, 1);
    EXPECT_EQ(r.keys[0], t.x);
    EXPECT_EQ(kids.wait(w), 0);
}

}  // namespace
