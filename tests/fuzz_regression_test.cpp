// Damaged trees found by the fuzz targets (fuzz/): walks that met them ran for minutes to
// hours inside their bounds. Every such case runs in a child process under an alarm, so a
// walk that does not end fails the test instead of hanging it.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <string>

#include "testkit.hpp"
#include "treekit.hpp"

namespace {

constexpr unsigned kAlarmSeconds = 30;
constexpr int kTimedOut = 128 + SIGALRM;

// Runs `body` in a child that is killed after kAlarmSeconds; its exit status.
template <class F>
int bounded(F body) {
    return kt::runChild([&] {
        alarm(kAlarmSeconds);
        return body();
    });
}

// A ladder of shared lists: the root holds /a and /b, and at every level below, /a holds a
// new pair /a, /b while /b names that same pair as its own children. Each level doubles the
// ways down, so a walk that enters the shared lists again visits 2^kLevels components; with
// the visit budget alone it ran for millions of record reads. A leaf /x with three values
// hangs below the deepest /a.
constexpr int kLevels = 22;

class SharedLists : public ::testing::Test {
protected:
    void SetUp() override {
        root = tk::makeRoot(s, "/");
        ASSERT_NE(root, 0u);
        uint32_t a = root, b = 0;
        for (int level = 0; level < kLevels; ++level) {
            const uint32_t nextB = tk::node(s, a, 0, "/b");
            const uint32_t nextA = tk::node(s, a, 0, "/a");
            ASSERT_TRUE(nextA && nextB);
            ASSERT_EQ(b == 0 ? 0 : comp_setFirstChild(s, b, nextA), 0);
            if (level == 0) top = nextA;
            a = nextA;
            b = nextB;
        }
        deepest = a;
        leaf = tk::leaf(s, a, 0, "/x", tk::u32(s, 7), tk::u32(s, 1), tk::u32(s, 1));
        ASSERT_NE(leaf, 0u);
        ASSERT_EQ(tk::childNames(s, root), "/a,/b");
    }

    kt::Db db;
    Session* s = &db.s;
    uint32_t root = 0, top = 0, deepest = 0, leaf = 0;
};

// Depth first, print meets the root, each /a down to the deepest, the leaf with its three
// values, the deepest /b, then the /b one level up, whose first child is the deepest /a again.
// The transfers handle the leaf, met before the repeated node; deletion with the subtree
// unlinks and releases nothing.
TEST_F(SharedLists, WalksEndAtTheFirstComponentMetAgain) {
    const uint32_t medium = tk::componentMedium(s), firstFree = flst_m_getFirstOffset(s, medium);
    EXPECT_EQ(bounded([&] {
                  session_setError(s, 0, 0);
                  const std::string out = kt::captureStdout([&] { kesDBMtraverseAndPrint(s, 0); });
                  if (std::count(out.begin(), out.end(), '\n') != 1 + kLevels + 4 + 2) return 1;
                  if (s->error != KESDB_ERR_COMP_READ || s->errorDetail != deepest) return 2;
                  if (comp_currentToDefault(s, root) != KESDB_ERR_COMP_READ || s->errorDetail != deepest) return 3;
                  if (tk::u32Of(s, leaf_getDefaultValueKey(s, leaf)) != 7) return 4;
                  if (kesDBMDefaultToCurrent(s, top) != KESDB_ERR_COMP_READ) return 5;
                  session_setError(s, 0, 0);
                  if (kesDBMDeleteComponentWithSub(s, top) != KESDB_ERR_COMP_READ) return 6;
                  return s->errorDetail == deepest ? 0 : 7;
              }),
              0);
    EXPECT_EQ(flst_m_getFirstOffset(s, medium), firstFree);
    EXPECT_EQ(tk::childNames(s, root), "/a,/b");
}

// A path search still follows a cycle as far as its path leads: here /a names the root as
// its second child, so / a / a /x passes through the root twice.
TEST(CycleSearch, SearchFollowsTheCycleAlongThePath) {
    kt::Db db;
    Session* s = &db.s;
    const uint32_t root = tk::makeRoot(s, "/");
    const uint32_t a = tk::node(s, root, 0, "a");
    const uint32_t x = tk::leaf(s, a, 0, "/x");
    ASSERT_TRUE(root && a && x);
    ASSERT_EQ(comp_setNextSibling(s, x, root), 0);
    EXPECT_EQ(tk::keyAndOutput([&] { return kesDBMSearchByName(s, "/a/a/x"); }).first, x);
    session_setError(s, 0, 0);
    EXPECT_EQ(tk::keyAndOutput([&] { return kesDBMSearchByName(s, "/a/a/y"); }).first, 0u);
    EXPECT_EQ(s->error, static_cast<uint32_t>(KESDB_ERR_COMP_NOMATCH));
}

// The current component's own child list loops; a relative path that matches none of the
// children went round it for good.
TEST(RelativeSearch, ALoopedChildListEndsTheSearch) {
    kt::Db db;
    Session* s = &db.s;
    const uint32_t root = tk::makeRoot(s, "/");
    const uint32_t net = tk::node(s, root, 0, "net");
    const uint32_t two = tk::leaf(s, net, 0, "two");
    const uint32_t one = tk::leaf(s, net, 0, "one");
    ASSERT_TRUE(root && net && one && two);
    ASSERT_EQ(kesDBMSetCurrentComponent(s, net), net);
    EXPECT_EQ(kesDBMSearchByName(s, "two"), two);
    ASSERT_EQ(comp_setNextSibling(s, two, one), 0);  // one, two, one, two, ...

    EXPECT_EQ(bounded([&] {
                  session_setError(s, 0, 0);
                  if (tk::keyAndOutput([&] { return kesDBMSearchByName(s, "zz"); }).first != 0) return 1;
                  if (s->error != KESDB_ERR_COMP_READ || (s->errorDetail != one && s->errorDetail != two)) return 2;
                  // Children before the loop closes are still searched.
                  if (kesDBMSearchByName(s, "two") != two) return 3;
                  return 0;
              }),
              0);
}

}  // namespace
