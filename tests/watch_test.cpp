// Watching for changes across processes: a watcher in one process learns of the changes
// another process makes under the component it watches, and of nothing else.
#include <gtest/gtest.h>

#include <cstdio>
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
    pk::Children kids;

    // The position a watch started now begins at.
    uint32_t now() {
        uint32_t sequence = 0;
        int32_t count = 0;
        return kesDBMWatch(s, 0, &sequence, 0, nullptr, &count) == 0 ? sequence : 0;
    }
    // A watcher process of `key` from now, asleep in its watch when this returns; it tells
    // `told` the one key it learnt of (0: another outcome).
    pid_t watcher(uint32_t key, int32_t timeoutMs = 5000) {
        const pid_t pid = kids.start([&, id = static_cast<uint32_t>(db.id), from = now()]() mutable {
            Session own{};
            uint32_t keys[4] = {};
            int32_t count = 4;
            if (kesDBMInitSession(&own, id) != 0 || !told.send(uint32_t{0})) return 1;
            const int32_t rc = kesDBMWatch(&own, key, &from, timeoutMs, keys, &count);
            return told.send(rc == 0 && count == 1 ? keys[0] : 0) ? kesDBMTermSession(&own) : 1;
        });
        EXPECT_EQ(learnt(), 0u);
        usleep(20 * 1000);  // let it fall asleep
        return pid;
    }
    uint32_t learnt(uint32_t key = ~0u) { return told.receive(key, 5000) ? key : ~0u; }
    pk::Pipe told;
};

TEST(Watch, EveryKindOfChangeWakesAWatcherOfItsSubtreeInAnotherProcessAfterAKilledOne) {
    // Each change is made under node "a" (or covers it); the watcher of "a" must be told the
    // key the case names, and only that one: changes under "b" made first are not reported.
    const struct {
        const char* name;
        std::function<uint32_t(Tree&)> change;  // makes the change, returns the key expected
    } cases[] = {
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
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Tree t;
        // A watcher killed in its wait leaves nothing that keeps the next one from waking.
        const pid_t killed = t.watcher(t.a, -1);
        ASSERT_EQ(kill(killed, SIGKILL), 0);
        EXPECT_EQ(t.kids.wait(killed), 128 + SIGKILL);
        const pid_t w = t.watcher(t.a);
        const uint32_t expected = c.change(t);
        ASSERT_NE(expected, 0u);
        EXPECT_EQ(t.learnt(), expected);
        EXPECT_EQ(t.kids.wait(w), 0);
    }
}

TEST(Watch, ChangesOfAnotherDatabaseOnTheSameSessionTableAreNotReported) {
    Tree t;
    const pid_t w = t.watcher(0);
    // Another database (its own medium and hook configuration) started on the same session
    // table: its changes share the record.
    ASSERT_EQ(kt::runChild([&] {
        const std::string medium = t.db.dir.file("other.bin");
        DBMInitParam other = t.db.param;
        const std::string hooks = t.db.dir.file("other.hooks");
        kt::writeFile(hooks, "");
        std::snprintf(other.hookConfigPath, sizeof other.hookConfigPath, "%s", hooks.c_str());
        setenv("KESDB_DEFMEDIA", medium.c_str(), 1);
        Session s{};
        int32_t err = 0;
        const int32_t id = kesdb_layMedium(medium.c_str(), 64 * 1024, 0) == 0 ? kesDBMInit(&other, &err) : -1;
        if (id <= 0 || id == t.db.id || kesDBMInitSession(&s, static_cast<uint32_t>(id)) != 0) return 1;
        const uint32_t root = tk::makeRoot(&s, "/");
        return kesDBMSetUint32(&s, tk::leaf(&s, root, 0, "x", tk::u32(&s, 1), tk::u32(&s, 2)), 7) == 0 ? 0 : 2;
    }), 0);
    ASSERT_EQ(kesDBMSetUint32(t.s, t.y, 9), 0);
    EXPECT_EQ(t.learnt(), t.y);
    EXPECT_EQ(t.kids.wait(w), 0);
}

TEST(Watch, AWatcherThatFellBehindLearnsItMissedChangesAndGoesOn) {
    Tree t;
    uint32_t sequence = t.now(), keys[4];
    ASSERT_EQ(kt::runChild([&] {
        for (uint32_t i = 0; i <= KESDB_WATCH_RING; ++i) kesDBMSetUint32(t.s, t.y, i);
        return static_cast<int>(t.s->error);
    }), 0);
    // Rows: sets made, room for keys, timeout, count told (-1: changes missed).
    const struct {
        std::vector<uint32_t> sets;
        int32_t room, timeoutMs, count;
    } rows[] = {{{}, 4, 0, -1}, {{t.x, t.y}, 1, 0, -1}, {{t.x}, 4, 0, 1}, {{}, 4, 50, 0}};
    for (const auto& row : rows) {
        for (uint32_t key : row.sets) ASSERT_EQ(kesDBMSetUint32(t.s, key, 1), 0);
        int32_t count = row.room;
        ASSERT_EQ(kesDBMWatch(t.s, 0, &sequence, row.timeoutMs, keys, &count), 0);
        EXPECT_EQ(count, row.count);
        EXPECT_TRUE(count != 1 || keys[0] == t.x);
    }
}

}  // namespace
