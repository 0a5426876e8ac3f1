// Value-set transfers over subtrees and the printout of a subtree.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <string>

#include "testkit.hpp"
#include "treekit.hpp"

namespace {

std::string num(uint32_t v) { return std::to_string(static_cast<int>(v)); }

// A leaf's current, default and factory values.
using Values = std::array<uint32_t, 3>;

Values valuesOf(Session* s, uint32_t leaf) {
    const LeafRecord r = tk::leafRecord(s, leaf);
    return {tk::u32Of(s, r.currentValue), tk::u32Of(s, r.defaultValue), tk::u32Of(s, r.factoryValue)};
}

// A node N holding the leaves L1, L2, L3 (current, default and factory values 11, 21, 31 for
// L1, one more for each next leaf) and an empty node E.
struct Sets {
    Session* s;
    uint32_t root = 0, N = 0, E = 0, L[3] = {};
    explicit Sets(Session* session) : s(session) {
        root = tk::makeRoot(s, "/");
        N = tk::node(s, root, 0, "N");
        E = tk::node(s, root, N, "E");
        uint32_t previous = 0;
        for (uint32_t i = 0; i < 3; ++i) {
            L[i] = tk::leaf(s, N, previous, "L" + std::to_string(i + 1), tk::u32(s, 11 + i), tk::u32(s, 21 + i),
                            tk::u32(s, 31 + i));
            previous = L[i];
        }
        EXPECT_EQ(tk::childNames(s, N), "L1,L2,L3");
    }
    // One of the values (0 current, 1 default, 2 factory) of L1, L2 and L3.
    Values column(int which) const {
        return {valuesOf(s, L[0])[which], valuesOf(s, L[1])[which], valuesOf(s, L[2])[which]};
    }
};

class TreeTransfer : public ::testing::Test {
protected:
    kt::Db db;
    Session* s = &db.s;
    Sets t{s};
};

TEST_F(TreeTransfer, EachTransferCopiesItsSetOverTheSubtreeAndStopsAtTheFirstFailure) {
    // L2's current value is 8 bytes, its default only 4: the copy fails with 49 and the walk
    // stops there (L1 handled before, L3 never reached).
    const uint32_t narrow = leaf_getCurrentValueKey(s, t.L[1]);
    ASSERT_EQ(leaf_setCurrentValueKey(s, t.L[1], tk::u64(s, 5)), 0);
    EXPECT_EQ(comp_currentToDefault(s, t.root), KESDB_ERR_VALUE_SHORTDEST);
    EXPECT_EQ(t.column(1), (Values{11, 22, 23}));
    ASSERT_EQ(leaf_setCurrentValueKey(s, t.L[1], narrow), 0);

    EXPECT_EQ(comp_currentToDefault(s, t.root), 0);
    for (uint32_t i = 0; i < 3; ++i) EXPECT_EQ(valuesOf(s, t.L[i]), (Values{11 + i, 11 + i, 31 + i}));
    EXPECT_EQ(comp_factoryToDefault(s, t.N), 0);
    EXPECT_EQ(t.column(1), (Values{31, 32, 33}));
    EXPECT_EQ(comp_defaultToCurrent(s, t.L[1]), 0);  // a single leaf
    EXPECT_EQ(t.column(0), (Values{11, 32, 13}));
    EXPECT_EQ(comp_defaultToCurrent(s, t.N), 0);
    EXPECT_EQ(t.column(0), (Values{31, 32, 33}));
    EXPECT_EQ(comp_currentToDefault(s, t.E), 0);  // a node without children: nothing to copy
}

TEST(TreeTransferHooks, DefaultToCurrentRunsTheLeafsSetHooks) {
    kt::DbOptions o;
    o.hookConfig = kt::libPath("libkeshook_sample.so") + " test_refuse5 NULL NULL NULL\n";
    kt::Db db(o);
    ASSERT_GT(db.id, 0);
    Session* s = &db.s;
    Sets t(s);
    LeafRecord hooked = tk::leafRecord(s, t.L[1]);
    hooked.hookIndex = 1;
    ASSERT_EQ(comp_setLeaf(s, &hooked), 0);
    EXPECT_EQ(comp_defaultToCurrent(s, t.N), KESDB_ERR_HOOK_PRESET);
    EXPECT_EQ(s->errorDetail, 5u);
    EXPECT_EQ(t.column(0), (Values{21, 12, 13}));  // L2 refused by its hook
    // The other transfers do not run hooks.
    EXPECT_EQ(comp_currentToDefault(s, t.N), 0);
}

TEST_F(TreeTransfer, BadKindsUnreadableKeysAndLoops) {
    CompRecord odd = tk::common(s, t.L[2]);
    odd.kind = 2;
    ASSERT_EQ(comp_setComponent(s, &odd), 0);
    EXPECT_EQ(comp_currentToDefault(s, t.N), KESDB_ERR_COMP_BADKIND);
    EXPECT_EQ(t.column(1), (Values{11, 12, 23}));  // the leaves before it were handled
    EXPECT_EQ(kt::captureStdout([&] { comp_traverseAndPrint(s, t.L[2], 0); }), "");
    EXPECT_EQ(tk::err(s), KESDB_ERR_COMP_BADKIND);
    odd.kind = KESDB_KIND_LEAF;
    ASSERT_EQ(comp_setComponent(s, &odd), 0);

    EXPECT_EQ(comp_factoryToDefault(s, 0), KESDB_ERR_COMP_NULLKEY);
    EXPECT_EQ(comp_factoryToDefault(s, 60000), KESDB_ERR_COMP_READ);
    EXPECT_EQ(kt::captureStdout([&] { comp_traverseAndPrint(s, 60000, 0); }), "");

    // N's list loops (L3 links back to L1): the transfers and the printout end with 55.
    ASSERT_EQ(comp_setNextSibling(s, t.L[2], t.L[0]), 0);
    EXPECT_EQ(comp_defaultToCurrent(s, t.N), KESDB_ERR_COMP_READ);
    session_setError(s, 0, 0);
    std::string out = kt::captureStdout([&] { comp_traverseAndPrint(s, t.N, 0); });
    EXPECT_EQ(tk::err(s), KESDB_ERR_COMP_READ);
    EXPECT_LT(out.size(), 2000u);
    // A node holding itself: the walk ends when it meets the node a second time.
    ASSERT_EQ(comp_setNextSibling(s, t.L[2], 0), 0);
    ASSERT_EQ(comp_setFirstChild(s, t.E, t.E), 0);
    EXPECT_EQ(comp_currentToDefault(s, t.E), KESDB_ERR_COMP_READ);
    session_setError(s, 0, 0);
    out = kt::captureStdout([&] { comp_traverseAndPrint(s, t.E, 0); });
    EXPECT_EQ(mk::errorOf(*s), mk::Pair(KESDB_ERR_COMP_READ, t.E));
    EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 1) << out;  // its own line only
}

class TreePrint : public ::testing::Test {
protected:
    kt::Db db;
    Session* s = &db.s;
    const uint32_t root = tk::makeRoot(s, "/");
};

// A root named / holding the node net, which holds the leaf ip with hook index 2, and the
// leaf time without a hook.
TEST_F(TreePrint, TheExampleTree) {
    const uint32_t time = tk::leaf(s, root, 0, "time", tk::u32(s, 4), tk::u32(s, 5), tk::u32(s, 6));
    const uint32_t net = tk::node(s, root, 0, "net");
    const uint32_t v1 = tk::u32(s, 7), v2 = tk::u32(s, 8), v3 = tk::u32(s, 9);
    const uint32_t ip = tk::leaf(s, net, 0, "ip", v1, v2, v3, 2);
    ASSERT_TRUE(root && time && net && ip);
    const LeafRecord tl = tk::leafRecord(s, time);

    const std::string expected = "node " + num(root) + " [/]\n" +
                                 "  node " + num(net) + " [net]\n" +
                                 "    leaf " + num(ip) + " [ip]\n" +
                                 "      value " + num(v1) + " Uint32 [7]\n" +
                                 "      value " + num(v2) + " Uint32 [8]\n" +
                                 "      value " + num(v3) + " Uint32 [9]\n" +
                                 "      hook 2\n" +
                                 "  leaf " + num(time) + " [time]\n" +
                                 "    value " + num(tl.currentValue) + " Uint32 [4]\n" +
                                 "    value " + num(tl.defaultValue) + " Uint32 [5]\n" +
                                 "    value " + num(tl.factoryValue) + " Uint32 [6]\n";
    EXPECT_EQ(kt::captureStdout([&] { comp_traverseAndPrint(s, root, 0); }), expected);

    // A leaf printed by itself: no indentation on its line at depth 0 or less, two spaces
    // before the value lines at depth 0, none at -1; a value key of 0 prints "no value".
    ASSERT_EQ(leaf_setFactoryValueKey(s, ip, 0), 0);
    const std::string values0 = "  value " + num(v1) + " Uint32 [7]\n  value " + num(v2) + " Uint32 [8]\n  no value\n";
    EXPECT_EQ(kt::captureStdout([&] { comp_traverseAndPrint(s, ip, 0); }),
              "leaf " + num(ip) + " [ip]\n" + values0 + "  hook 2\n");
    EXPECT_EQ(kt::captureStdout([&] { comp_traverseAndPrint(s, ip, -1); }),
              "leaf " + num(ip) + " [ip]\nvalue " + num(v1) + " Uint32 [7]\nvalue " + num(v2) +
                  " Uint32 [8]\nno value\nhook 2\n");
    EXPECT_EQ(kt::captureStdout([&] { comp_traverseAndPrint(s, net, 3); }).substr(0, 11), "      node ");
}

TEST_F(TreePrint, NamesThatCannotBeFetchedOrAreTooLong) {
    const std::string longName(300, 'q');
    const uint32_t big = tk::node(s, root, 0, longName);
    ASSERT_NE(big, 0u);
    EXPECT_EQ(kt::captureStdout([&] { comp_traverseAndPrint(s, big, 0); }),
              "node " + num(big) + " [" + longName.substr(0, 255) + "]\n");

    // The name's text lies in a medium the table does not have: printed empty.
    ASSERT_EQ(comp_setStringKey(s, big, tk::danglingString(s, 42, 5)), 0);
    EXPECT_EQ(kt::captureStdout([&] { comp_traverseAndPrint(s, big, 0); }), "node " + num(big) + " []\n");
    // No name at all (string key 0): printed empty too.
    ASSERT_EQ(comp_setStringKey(s, big, 0), 0);
    EXPECT_EQ(kt::captureStdout([&] { comp_traverseAndPrint(s, root, 0); }),
              "node " + num(root) + " [/]\n  node " + num(big) + " []\n");

    Session bad = tk::unregistered(*s);
    EXPECT_EQ(kt::captureStdout([&] { comp_traverseAndPrint(&bad, root, 0); }), "comp_getComponent err4\n");
    EXPECT_EQ(tk::err(&bad), KESDB_ERR_DB_NOTFOUND);
}

}  // namespace
