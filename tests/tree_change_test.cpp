// Creating, moving and deleting components, and the value-set transfers over subtrees: sibling
// order, parent words, released blocks, the order of writes, and refused changes.
#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "testkit.hpp"
#include "treekit.hpp"

namespace {

// A root r holding P and Q; P holds the leaf A, the node B and the leaf C (current, default
// and factory values 1, 2, 3 each, one more for each next leaf); B holds the leaves X and Y.
struct Tree {
    Session* s;
    uint32_t r = 0, P = 0, Q = 0, A = 0, B = 0, C = 0, X = 0, Y = 0;
    uint32_t leaf(uint32_t parent, const char* name, uint32_t v) {
        return tk::leaf(s, parent, 0, name, tk::u32(s, v), tk::u32(s, v + 10), tk::u32(s, v + 20));
    }
    explicit Tree(Session* session) : s(session) {
        r = tk::makeRoot(s, "r");
        P = tk::node(s, r, 0, "P");
        Q = tk::node(s, r, P, "Q");
        C = leaf(P, "C", 3);
        B = tk::node(s, P, 0, "B");
        A = leaf(P, "A", 1);
        Y = leaf(B, "Y", 5);
        X = leaf(B, "X", 4);
        EXPECT_TRUE(r && P && Q && A && B && C && X && Y);
    }
    std::string list(uint32_t key) const { return tk::childNames(s, key); }
    std::string lists() const { return list(P) + "|" + list(Q) + "|" + list(B); }
    // One value (0 current, 1 default, 2 factory) of A, C and X.
    std::array<uint32_t, 3> column(int which) const {
        std::array<uint32_t, 3> v{};
        for (int i = 0; i < 3; ++i) {
            const LeafRecord l = tk::leafRecord(s, i == 0 ? A : i == 1 ? C : X);
            v[i] = tk::u32Of(s, which == 0 ? l.currentValue : which == 1 ? l.defaultValue : l.factoryValue);
        }
        return v;
    }
};

class TreeChange : public ::testing::Test {
protected:
    kt::Db db;
    Session* s = &db.s;
    Tree t{s};
    uint32_t m = tk::componentMedium(s);
};

TEST_F(TreeChange, Moves) {
    const struct {
        uint32_t Tree::*leaf, Tree::*parent, Tree::*previous;  // previous null: to the head
        const char *p, *q;
    } moves[] = {
        {&Tree::A, &Tree::Q, nullptr, "B,C", "A"},   {&Tree::A, &Tree::P, &Tree::C, "B,C,A", ""},
        {&Tree::A, &Tree::P, nullptr, "A,B,C", ""},  {&Tree::C, &Tree::P, &Tree::A, "A,C,B", ""},
        {&Tree::C, &Tree::P, &Tree::B, "A,B,C", ""}, {&Tree::C, &Tree::P, &Tree::B, "A,B,C", ""},
    };
    for (const auto& mv : moves) {
        SCOPED_TRACE(mv.p);
        EXPECT_EQ(leaf_move(s, t.*mv.leaf, t.*mv.parent, mv.previous ? t.*mv.previous : 0), 0);
        EXPECT_EQ(t.list(t.P) + "|" + t.list(t.Q), std::string(mv.p) + "|" + mv.q);
    }
    // node_move leaves the children behind (they name P now), node_moveWithSub takes them.
    EXPECT_EQ(node_move(s, t.B, t.Q, 0, 0), 0);
    EXPECT_EQ(t.lists(), "A,X,Y,C|B|");
    EXPECT_EQ(node_move(s, t.B, t.P, t.A, t.X), 0);  // back behind A, wrapping X
    EXPECT_EQ(t.lists(), "A,B,Y,C||X");
    const uint32_t D = tk::node(s, t.Q, 0, "D"), d2 = tk::leaf(s, D, 0, "d2");
    tk::leaf(s, D, 0, "d1");
    EXPECT_EQ(node_move(s, D, t.Q, d2, 0), 0);  // behind one of its own former children
    EXPECT_EQ(t.list(t.Q), "d1,d2,D");
    EXPECT_EQ(node_moveWithSub(s, t.B, t.Q, 0), 0);
    EXPECT_EQ(t.lists(), "A,Y,C|B,d1,d2,D|X");
    EXPECT_EQ(node_moveWithSub(s, t.P, t.B, t.X), 0);  // P below B, which no longer lies below P
    EXPECT_EQ(t.list(t.B) + "|" + t.list(t.r), "X,P|Q");
}

TEST_F(TreeChange, DeleteSplicesChildrenDeleteWithSubReleasesTheSubtree) {
    const uint32_t cValue = leaf_getCurrentValueKey(s, t.C);
    EXPECT_EQ(comp_delete(s, t.B), 0);
    EXPECT_EQ(comp_delete(s, t.C), 0);
    EXPECT_EQ(t.list(t.P), "A,X,Y");
    EXPECT_TRUE(tk::isFree(tk::freeList(s, m), t.B, 28));
    EXPECT_FALSE(tk::isFree(tk::freeList(s, m), t.B, 29));
    EXPECT_TRUE(tk::isFree(tk::freeList(s, m), t.C, 40));
    EXPECT_EQ(tk::u32Of(s, cValue), 3u);  // the leaf's value stays
    EXPECT_EQ(comp_delete(s, t.A), 0);
    EXPECT_EQ(t.list(t.P), "X,Y");
    const uint32_t Z = tk::node(s, t.P, t.X, "Z"), W = tk::leaf(s, Z, 0, "W");
    EXPECT_EQ(comp_deleteWithSub(s, t.P, 1), 0);
    EXPECT_EQ(t.list(t.r), "Q");
    const std::vector<tk::FreeBlock> blocks = tk::freeList(s, m);
    for (uint32_t node : {t.P, Z}) EXPECT_TRUE(tk::isFree(blocks, node, 28));
    for (uint32_t leaf : {t.X, W, t.Y}) EXPECT_TRUE(tk::isFree(blocks, leaf, 40));
    EXPECT_EQ(comp_deleteWithSub(s, t.Q, 0), 0);  // without unlinking
    EXPECT_TRUE(tk::isFree(tk::freeList(s, m), t.Q, 28));
    EXPECT_EQ(comp_getFirstChild(s, t.r), t.Q);
}

// Refused changes and changes whose reads fail write nothing at all.
TEST_F(TreeChange, RefusedOrUnreadableChangesLeaveTheMediumUnchanged) {
    const uint32_t garbage = 60000;  // a block that is no record: its key word is 0
    const std::string before = kt::readFile(db.mediumPath);
    const std::pair<int32_t, int32_t> refused[] = {
        {leaf_move(s, t.A, t.C, 0), KESDB_ERR_COMP_NOTNODE},          // the new parent is a leaf
        {node_moveWithSub(s, t.P, t.B, 0), KESDB_ERR_COMP_NOTNODE},   // below itself
        {node_moveWithSub(s, t.B, t.B, 0), KESDB_ERR_COMP_NOTNODE},
        {node_move(s, t.B, t.B, 0, 0), KESDB_ERR_COMP_NOTNODE},
        {node_move(s, t.B, t.P, t.B, 0), KESDB_ERR_COMP_NOTNODE},     // behind itself
        {node_move(s, t.B, t.Q, 0, t.B), KESDB_ERR_COMP_NOTNODE},     // wrapping itself
        {node_move(s, t.B, t.P, 0, t.C), KESDB_ERR_COMP_NOTNODE},     // C is not behind the place
        {leaf_move(s, t.A, t.P, t.X), KESDB_ERR_COMP_NOTNODE},        // X lies under B, not P
        {leaf_move(s, t.B, t.Q, 0), KESDB_ERR_COMP_NOTLEAF},
        {node_moveWithSub(s, t.A, t.Q, 0), KESDB_ERR_COMP_NOTNODE},
        {node_move(s, t.B, t.Q, garbage, 0), KESDB_ERR_COMP_READ},
        {leaf_move(s, t.A, 0, 0), KESDB_ERR_COMP_NULLKEY},
        {node_moveWithSub(s, t.B, garbage, 0), KESDB_ERR_COMP_READ},
        {leaf_move(s, garbage, t.Q, 0), KESDB_ERR_COMP_READ},
        {comp_delete(s, garbage), KESDB_ERR_COMP_READ},
        {comp_deleteWithSub(s, garbage, 1), KESDB_ERR_COMP_READ},
        {comp_delete(s, 0), KESDB_ERR_COMP_NULLKEY},
    };
    for (size_t i = 0; i < std::size(refused); ++i) EXPECT_EQ(refused[i].first, refused[i].second) << i;
    EXPECT_EQ(kt::readFile(db.mediumPath), before);

    // Nodes that cannot be placed give their block back. A leaf whose place cannot be read
    // keeps its block, unwritten.
    const uint32_t nameKey = tk::name(s, "n");
    const std::vector<tk::FreeBlock> freeNow = tk::freeList(s, m);
    EXPECT_EQ(node_create(s, nameKey, t.P, t.A, t.C), 0u);  // C is not behind A
    EXPECT_EQ(node_create(s, nameKey, t.P, garbage, 0), 0u);
    EXPECT_EQ(node_create(s, nameKey, t.C, 0, 0), 0u);  // a leaf as parent
    EXPECT_EQ(tk::freeList(s, m), freeNow);
    for (uint32_t previous : {garbage, 0u}) {
        const std::vector<tk::FreeBlock> freeBefore = tk::freeList(s, m);
        const std::string mediumBefore = kt::readFile(db.mediumPath);
        EXPECT_EQ(leaf_create(s, nameKey, previous ? t.P : 0, previous, 0, 0, 0, 0), 0u);
        EXPECT_FALSE(tk::isFree(tk::freeList(s, m), freeBefore.at(0).key, 40));
        EXPECT_EQ(kt::readFile(db.mediumPath).compare(freeBefore[0].key, 40, mediumBefore, freeBefore[0].key, 40), 0);
    }
    EXPECT_EQ(t.lists(), "A,B,C||X,Y");
    // A parent word that names a leaf, or a block that is no record: no list to take it out of.
    for (const auto& [parent, code] :
         {std::pair<uint32_t, int32_t>{t.C, KESDB_ERR_COMP_NOTNODE}, {garbage, KESDB_ERR_COMP_READ}}) {
        ASSERT_EQ(comp_setParent(s, t.X, parent), 0);
        const std::string beforeParent = kt::readFile(db.mediumPath);
        EXPECT_EQ(comp_delete(s, t.X), code);
        EXPECT_EQ(leaf_move(s, t.X, t.Q, 0), code);
        EXPECT_EQ(kt::readFile(db.mediumPath), beforeParent);
    }
    ASSERT_EQ(comp_setParent(s, t.X, t.B), 0);
    // A node whose child list cannot be read to its end is not taken out: its children would be lost.
    ASSERT_EQ(comp_setNextSibling(s, t.Y, garbage), 0);
    const std::string beforeSplice = kt::readFile(db.mediumPath);
    EXPECT_EQ(comp_delete(s, t.B), KESDB_ERR_COMP_READ);
    EXPECT_EQ(kt::readFile(db.mediumPath), beforeSplice);
    ASSERT_EQ(comp_setNextSibling(s, t.Y, 0), 0);
    // Unreadable records met on the way: above the new place (is it below the moved node?),
    // and as the component behind the place that the moved node is to wrap.
    for (const bool above : {true, false}) {
        ASSERT_EQ(above ? comp_setParent(s, t.Q, garbage) : comp_setFirstChild(s, t.Q, garbage), 0);
        const std::string beforeMove = kt::readFile(db.mediumPath);
        EXPECT_EQ(above ? node_moveWithSub(s, t.B, t.Q, 0) : node_move(s, t.B, t.Q, 0, garbage), KESDB_ERR_COMP_READ);
        EXPECT_EQ(kt::readFile(db.mediumPath), beforeMove);
        ASSERT_EQ(above ? comp_setParent(s, t.Q, t.r) : comp_setFirstChild(s, t.Q, 0), 0);
    }
}

// A record of a kind that is neither node nor leaf leaves its parent's list and is not
// released: 3. Below a subtree being deleted it is skipped; the rest is released.
TEST_F(TreeChange, DeleteOfAnUnknownKindUnlinksAndReleasesNothing) {
    for (int withSub : {0, 1}) {
        Tree u{s};
        CompRecord odd = tk::common(s, u.C);
        odd.kind = 9;
        ASSERT_EQ(comp_setComponent(s, &odd), 0);
        EXPECT_EQ(withSub ? comp_deleteWithSub(s, u.C, 1) : comp_delete(s, u.C), KESDB_ERR_COMP_BADKIND);
        EXPECT_EQ(tk::childNames(s, u.P), "A,B");
        EXPECT_FALSE(tk::isFree(tk::freeList(s, m), u.C, 40));
    }
    CompRecord odd = tk::common(s, t.X);
    odd.kind = 9;
    ASSERT_EQ(comp_setComponent(s, &odd), 0);
    EXPECT_EQ(comp_deleteWithSub(s, t.B, 1), 0);
    const std::vector<tk::FreeBlock> blocks = tk::freeList(s, m);
    EXPECT_TRUE(tk::isFree(blocks, t.B, 28) && tk::isFree(blocks, t.Y, 40));
    EXPECT_FALSE(tk::isFree(blocks, t.X, 40));
}

TEST_F(TreeChange, LoopedListsAndCyclesEndWithErrorAndReleaseNothing) {
    ASSERT_EQ(comp_setNextSibling(s, t.C, t.A), 0);  // P's list loops
    EXPECT_EQ(comp_getChildCount(s, t.P), 0);
    EXPECT_EQ(tk::err(s), KESDB_ERR_COMP_READ);
    EXPECT_EQ(comp_getChildByIndex(s, t.P, 1), t.B);  // positions before the loop closes
    EXPECT_EQ(comp_getChildByIndex(s, t.P, 100), 0u);
    const uint32_t stray = tk::leaf(s, t.Q, 0, "stray");  // names P, not in its list
    ASSERT_EQ(comp_setParent(s, stray, t.P), 0);
    const std::string before = kt::readFile(db.mediumPath);
    EXPECT_EQ(leaf_move(s, stray, t.Q, 0), KESDB_ERR_COMP_READ);
    EXPECT_EQ(comp_deleteWithSub(s, t.P, 0), KESDB_ERR_COMP_READ);
    EXPECT_EQ(kt::readFile(db.mediumPath), before);
    EXPECT_EQ(comp_defaultToCurrent(s, t.P), KESDB_ERR_COMP_READ);
    // A node holding itself: the subtree is endlessly deep.
    ASSERT_EQ(comp_setFirstChild(s, t.Q, t.Q), 0);
    EXPECT_EQ(comp_currentToDefault(s, t.Q), KESDB_ERR_COMP_READ);
}

// Each transfer copies its set over the subtree (or one leaf) and stops at the first failure.
TEST_F(TreeChange, Transfers) {
    const uint32_t narrow = leaf_getCurrentValueKey(s, t.X);
    ASSERT_EQ(leaf_setCurrentValueKey(s, t.X, tk::u64(s, 5)), 0);  // 8 bytes into a default of 4
    EXPECT_EQ(comp_currentToDefault(s, t.P), KESDB_ERR_VALUE_SHORTDEST);
    EXPECT_EQ(t.column(1), (std::array<uint32_t, 3>{1, 13, 14}));  // A before it, C never reached
    ASSERT_EQ(leaf_setCurrentValueKey(s, t.X, narrow), 0);
    EXPECT_EQ(comp_currentToDefault(s, t.r), 0);
    EXPECT_EQ(t.column(1), (std::array<uint32_t, 3>{1, 3, 4}));
    EXPECT_EQ(comp_factoryToDefault(s, t.P), 0);
    EXPECT_EQ(t.column(1), (std::array<uint32_t, 3>{21, 23, 24}));
    EXPECT_EQ(comp_defaultToCurrent(s, t.C), 0);
    EXPECT_EQ(t.column(0), (std::array<uint32_t, 3>{1, 23, 4}));
    EXPECT_EQ(comp_defaultToCurrent(s, t.P), 0);
    EXPECT_EQ(t.column(0), (std::array<uint32_t, 3>{21, 23, 24}));
    CompRecord odd = tk::common(s, t.C);
    odd.kind = 2;
    ASSERT_EQ(comp_setComponent(s, &odd), 0);
    EXPECT_EQ(comp_currentToDefault(s, t.P), KESDB_ERR_COMP_BADKIND);
    EXPECT_EQ(comp_factoryToDefault(s, 0), KESDB_ERR_COMP_NULLKEY);
    EXPECT_EQ(comp_factoryToDefault(s, 60000), KESDB_ERR_COMP_READ);
}

TEST(TreeTransferHooks, DefaultToCurrentRunsTheLeafsSetHooks) {
    kt::DbOptions o;
    o.hookConfig = kt::libPath("libkeshook_sample.so") + " test_refuse5 NULL NULL NULL\n";
    kt::Db db(o);
    Tree t(&db.s);
    LeafRecord hooked = tk::leafRecord(&db.s, t.C);
    hooked.hookIndex = 1;
    ASSERT_EQ(comp_setLeaf(&db.s, &hooked), 0);
    EXPECT_EQ(comp_defaultToCurrent(&db.s, t.P), KESDB_ERR_HOOK_PRESET);
    EXPECT_EQ(db.s.errorDetail, 5u);
    EXPECT_EQ(t.column(0), (std::array<uint32_t, 3>{11, 3, 14}));  // C refused by its hook
    EXPECT_EQ(comp_currentToDefault(&db.s, t.P), 0);  // the other transfers run no hooks
}

// A chain of nodes 1030 levels deep, all named "a": walks follow it down to 1024 levels below
// where they start and end with 55 beyond that, without using the stack up.
TEST(TreeDepth, DeepChainsKeepTheDepthLimit) {
    kt::DbOptions o;
    o.mediumSize = 256 * 1024;
    kt::Db db(o);
    Session* s = &db.s;
    const uint32_t m = tk::componentMedium(s), root = tk::makeRoot(s, "/"), a = tk::name(s, "a");
    std::vector<uint32_t> chain{root};
    while (chain.size() <= 1030 && chain.back() != 0) chain.push_back(node_create(s, a, chain.back(), 0, 0));
    ASSERT_NE(chain.back(), 0u);
    auto search = [&](size_t depth) {
        return tk::keyAndOutput([&] { return comp_searchByName(s, root, ("/" + std::string(depth, 'a')).c_str()); });
    };
    EXPECT_EQ(search(1000).first, chain[1000]);
    EXPECT_EQ(search(1030), std::make_pair(0u, std::string()));
    EXPECT_EQ(mk::errorOf(*s), mk::Pair(KESDB_ERR_COMP_READ, chain[1025]));
    // Whether a place lies below the moved node is not told beyond that depth: refused as well.
    EXPECT_EQ(node_moveWithSub(s, chain[1], chain[1029], 0), KESDB_ERR_COMP_READ);

    const std::vector<tk::FreeBlock> before = tk::freeList(s, m);
    EXPECT_EQ(comp_deleteWithSub(s, chain[1], 1), KESDB_ERR_COMP_READ);
    EXPECT_EQ(tk::freeList(s, m), before);
    EXPECT_EQ(comp_getFirstChild(s, root), chain[1]);  // not even unlinked
    EXPECT_EQ(comp_deleteWithSub(s, chain[10], 1), 0);
    EXPECT_TRUE(tk::isFree(tk::freeList(s, m), chain[1030], 28));
}

// The order of writes, seen through the fault-injection driver: from the n-th write on every
// write fails, so the records written are the first n - 1.
TEST(TreeChangeFaults, WritesComeInTheOrderThatKeepsAnInterruptedChangeKnown) {
    uint32_t nameKey = 0;
    const struct {
        int failFrom;
        std::function<void(Tree&)> change;
        const char* lists;  // afterwards (null: checked by the change itself)
    } cases[] = {
        // leaf_move of the first child: the old parent, the new neighbour, the leaf.
        {2, [](Tree& t) { EXPECT_EQ(leaf_move(t.s, t.A, t.Q, 0), KESDB_ERR_COMP_WRITE); }, "B,C||X,Y"},
        {3, [](Tree& t) { EXPECT_EQ(leaf_move(t.s, t.A, t.Q, 0), KESDB_ERR_COMP_WRITE); }, "B,C|A^,B^,C^|X,Y"},
        // node_move with splice: the children first (X, then Y), then the old predecessor A.
        {3, [](Tree& t) { EXPECT_EQ(node_move(t.s, t.B, t.Q, 0, 0), KESDB_ERR_COMP_WRITE); }, "A,B,C||X^,Y^,C^"},
        // node_create: the allocator's two writes, the neighbour (naming the node already), then the wrapped child.
        {4,
         [&](Tree& t) {
             const uint32_t n = node_create(t.s, nameKey, t.P, t.A, t.B);
             EXPECT_NE(n, 0u);
             EXPECT_EQ(comp_getNextSibling(t.s, t.A), n);
             EXPECT_EQ(comp_getParent(t.s, t.B), t.P);
         },
         nullptr},
        // leaf_create: a neighbour that cannot be written keeps the leaf from being written.
        {3, [&](Tree& t) { EXPECT_EQ(leaf_create(t.s, nameKey, t.P, t.A, 0, 0, 0, 0), 0u); }, "A,B,C||X,Y"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        tk::FaultComponents o;
        ASSERT_TRUE(o.ready());
        Tree t(&o.db.s);
        nameKey = tk::name(t.s, "N");
        o.reset();
        o.failFrom(KESDRV_FAULT_WRITE, c.failFrom, EIO);
        c.change(t);
        o.reset();
        if (c.lists) {
            EXPECT_EQ(t.lists(), c.lists);
        }
    }
    // A neighbour that cannot be written keeps the leaf out even when the writes after it succeed.
    for (const bool head : {false, true}) {
        tk::FaultComponents o;
        ASSERT_TRUE(o.ready());
        Tree t(&o.db.s);
        nameKey = tk::name(t.s, "N");
        o.reset();
        o.fail(KESDRV_FAULT_WRITE, 3, EIO);
        EXPECT_EQ(leaf_create(t.s, nameKey, t.P, head ? 0 : t.A, 0, 0, 0, 0), 0u);
        o.reset();
        EXPECT_EQ(t.lists(), "A,B,C||X,Y");
    }
}

}  // namespace
