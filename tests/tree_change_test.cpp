// Creating, moving and deleting components: sibling order, parent words, released blocks,
// the order of writes, and changes that must leave the tree as it was.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "testkit.hpp"
#include "treekit.hpp"

namespace {

// A root r holding P and Q; P holds the leaf A, the node B and the leaf C in this order;
// B holds the leaves X and Y. list() marks a child whose parent word names another node.
struct Tree {
    Session* s;
    uint32_t r = 0, P = 0, Q = 0, A = 0, B = 0, C = 0, X = 0, Y = 0;

    explicit Tree(Session* session) : s(session) {
        r = tk::makeRoot(s, "r");
        P = tk::node(s, r, 0, "P");
        Q = tk::node(s, r, P, "Q");
        C = tk::leaf(s, P, 0, "C", tk::u32(s, 3));
        B = tk::node(s, P, 0, "B");
        A = tk::leaf(s, P, 0, "A");
        Y = tk::leaf(s, B, 0, "Y");
        X = tk::leaf(s, B, 0, "X");
        EXPECT_TRUE(r && P && Q && A && B && C && X && Y);
    }
    std::string list(uint32_t key) const { return tk::childNames(s, key); }
    std::string lists() const { return list(P) + "|" + list(Q) + "|" + list(B); }
};

// Each case starts from the example tree on a fresh database.
class TreeChange : public ::testing::Test {
protected:
    kt::Db db;
    Session* s = &db.s;
    Tree t{s};
};

TEST_F(TreeChange, CreateGoesToTheHeadOrBehindTheNamedSiblingAndWrapsTheChildBehind) {
    const uint32_t v1 = tk::u32(s, 1), v2 = tk::u32(s, 2), v3 = tk::u32(s, 3);
    const LeafRecord head = tk::leafRecord(s, tk::leaf(s, t.P, 0, "new", v1, v2, v3, 4));
    const LeafRecord expected{{head.comp.key, head.comp.stringKey, 0, t.P, t.A, KESDB_KIND_LEAF}, v1, v2, v3, 4};
    EXPECT_EQ(std::memcmp(&head, &expected, sizeof head), 0);
    const uint32_t behind = tk::leaf(s, t.P, t.A, "new2");
    const uint32_t tail = tk::leaf(s, t.P, t.C, "tail");
    EXPECT_EQ(t.list(t.P), "new,A,new2,B,C,tail");

    // A node wrapping B, the child behind its place: B keeps its own children.
    const uint32_t n = tk::node(s, t.P, behind, "node", t.B);
    EXPECT_EQ(t.list(t.P), "new,A,new2,node,C,tail");
    EXPECT_EQ(t.list(n), "B");
    EXPECT_EQ(t.list(t.B), "X,Y");
    EXPECT_EQ(tk::common(s, n).reserved, 0u);
    // At the head, wrapping the first child; at the tail without a child.
    EXPECT_EQ(t.list(tk::node(s, t.P, 0, "head", head.comp.key)), "new");
    EXPECT_EQ(comp_getFirstChild(s, tk::node(s, t.P, tail, "empty")), 0u);
    EXPECT_EQ(t.list(t.P), "head,A,new2,node,C,tail,empty");
}

TEST_F(TreeChange, LeafMoveUnlinksAndInserts) {
    const struct {
        uint32_t Tree::*leaf, Tree::*parent, Tree::*previous;  // previous null: to the head
        const char *p, *q;
    } moves[] = {
        {&Tree::A, &Tree::Q, nullptr, "B,C", "A"},     // first child to another head
        {&Tree::A, &Tree::P, &Tree::C, "B,C,A", ""},    // back, behind the last child
        {&Tree::A, &Tree::P, nullptr, "A,B,C", ""},    // same parent, tail to head
        {&Tree::C, &Tree::P, &Tree::A, "A,C,B", ""},    // tail into the middle
        {&Tree::C, &Tree::P, &Tree::B, "A,B,C", ""},    // behind its own successor
        {&Tree::C, &Tree::P, &Tree::B, "A,B,C", ""},    // where it already is
    };
    for (const auto& m : moves) {
        SCOPED_TRACE(m.p);
        EXPECT_EQ(leaf_move(s, t.*m.leaf, t.*m.parent, m.previous ? t.*m.previous : 0), 0);
        EXPECT_EQ(t.list(t.P), m.p);
        EXPECT_EQ(t.list(t.Q), m.q);
    }
    EXPECT_EQ(comp_getNextSibling(s, t.C), 0u);
}

TEST_F(TreeChange, NodeMoveLeavesTheChildrenBehindNodeMoveWithSubTakesThem) {
    EXPECT_EQ(node_move(s, t.B, t.Q, 0, 0), 0);
    EXPECT_EQ(t.list(t.P), "A,X,Y,C");  // the children left behind name P now
    EXPECT_EQ(t.list(t.Q), "B");
    EXPECT_EQ(comp_getFirstChild(s, t.B), 0u);
    // Back to P behind A, wrapping X (the component behind A).
    EXPECT_EQ(node_move(s, t.B, t.P, t.A, t.X), 0);
    EXPECT_EQ(t.list(t.P), "A,B,Y,C");
    EXPECT_EQ(t.list(t.B), "X");
    // The first child moved behind one of its own former children (which come to its place).
    const uint32_t D = tk::node(s, t.Q, 0, "D");
    const uint32_t d2 = tk::leaf(s, D, 0, "d2");
    tk::leaf(s, D, 0, "d1");
    EXPECT_EQ(node_move(s, D, t.Q, d2, 0), 0);
    EXPECT_EQ(t.list(t.Q), "d1,d2,D");

    EXPECT_EQ(node_moveWithSub(s, t.B, t.Q, 0), 0);
    EXPECT_EQ(t.list(t.P), "A,Y,C");
    EXPECT_EQ(t.list(t.Q), "B,d1,d2,D");
    EXPECT_EQ(t.list(t.B), "X");
    // P below B, which no longer lies below P.
    EXPECT_EQ(node_moveWithSub(s, t.P, t.B, t.X), 0);
    EXPECT_EQ(t.list(t.B), "X,P");
    EXPECT_EQ(t.list(t.P), "A,Y,C");
    EXPECT_EQ(t.list(t.r), "Q");
}

TEST_F(TreeChange, DeleteSplicesChildrenDeleteWithSubReleasesTheSubtree) {
    const uint32_t m = tk::componentMedium(s);
    const uint32_t cName = comp_getStringKey(s, t.C), cValue = leaf_getCurrentValueKey(s, t.C);
    EXPECT_EQ(comp_delete(s, t.B), 0);
    EXPECT_EQ(t.list(t.P), "A,X,Y,C");
    EXPECT_TRUE(tk::isFree(tk::freeList(s, m), t.B, 28));
    EXPECT_FALSE(tk::isFree(tk::freeList(s, m), t.B, 29));
    EXPECT_EQ(comp_delete(s, t.C), 0);  // the last child
    EXPECT_EQ(t.list(t.P), "A,X,Y");
    EXPECT_TRUE(tk::isFree(tk::freeList(s, m), t.C, 40));
    char text[8] = {};  // the leaf's name and value stay where they were
    EXPECT_STREQ(kesdb_getString(s, cName, text, sizeof text), "C");
    EXPECT_EQ(tk::u32Of(s, cValue), 3u);
    EXPECT_EQ(comp_delete(s, t.A), 0);  // the first child: its successor heads the list
    EXPECT_EQ(t.list(t.P), "X,Y");

    // P holds X, the node Z holding the leaf W, and Y.
    const uint32_t Z = tk::node(s, t.P, t.X, "Z");
    const uint32_t W = tk::leaf(s, Z, 0, "W");
    ASSERT_EQ(t.list(t.P), "X,Z,Y");
    EXPECT_EQ(comp_deleteWithSub(s, t.P, 1), 0);
    EXPECT_EQ(t.list(t.r), "Q");
    const std::vector<tk::FreeBlock> blocks = tk::freeList(s, m);
    for (uint32_t node : {t.P, Z}) EXPECT_TRUE(tk::isFree(blocks, node, 28));
    for (uint32_t leaf : {t.X, W, t.Y}) EXPECT_TRUE(tk::isFree(blocks, leaf, 40));
    EXPECT_FALSE(tk::isFree(blocks, t.Q, 1));
    // Without unlinking, the list is left as it is.
    EXPECT_EQ(comp_deleteWithSub(s, t.Q, 0), 0);
    EXPECT_TRUE(tk::isFree(tk::freeList(s, m), t.Q, 28));
    EXPECT_EQ(comp_getFirstChild(s, t.r), t.Q);
}

// Refused changes and changes whose reads fail write nothing at all.
TEST_F(TreeChange, RefusedOrUnreadableChangesLeaveTheMediumUnchanged) {
    const uint32_t m = tk::componentMedium(s);
    // A block that is no record: its key word is 0.
    const uint32_t garbage = 60000;
    const std::string before = kt::readFile(db.mediumPath);
    auto unchanged = [&] { return kt::readFile(db.mediumPath) == before; };

    EXPECT_EQ(leaf_move(s, t.A, t.C, 0), KESDB_ERR_COMP_NOTNODE);  // the new parent is a leaf
    EXPECT_EQ(node_moveWithSub(s, t.P, t.B, 0), KESDB_ERR_COMP_NOTNODE);  // below itself
    EXPECT_EQ(node_moveWithSub(s, t.B, t.B, 0), KESDB_ERR_COMP_NOTNODE);
    EXPECT_EQ(node_move(s, t.B, t.B, 0, 0), KESDB_ERR_COMP_NOTNODE);
    EXPECT_EQ(node_move(s, t.B, t.P, t.B, 0), KESDB_ERR_COMP_NOTNODE);  // behind itself
    EXPECT_EQ(node_move(s, t.B, t.Q, 0, t.B), KESDB_ERR_COMP_NOTNODE);  // wrapping itself
    EXPECT_EQ(node_move(s, t.B, t.P, 0, t.C), KESDB_ERR_COMP_NOTNODE);  // C is not behind the place
    EXPECT_EQ(leaf_move(s, t.A, t.P, t.X), KESDB_ERR_COMP_NOTNODE);  // X lies under B, not P
    EXPECT_EQ(leaf_move(s, t.B, t.Q, 0), KESDB_ERR_COMP_NOTLEAF);
    EXPECT_EQ(node_move(s, t.A, t.Q, 0, 0), KESDB_ERR_COMP_NOTNODE);
    EXPECT_EQ(node_moveWithSub(s, t.A, t.Q, 0), KESDB_ERR_COMP_NOTNODE);
    EXPECT_TRUE(unchanged());

    // Unreadable places and children: the read's code, nothing written.
    EXPECT_EQ(node_move(s, t.B, t.Q, garbage, 0), KESDB_ERR_COMP_READ);
    EXPECT_EQ(s->errorDetail, garbage);
    EXPECT_EQ(leaf_move(s, t.A, 0, 0), KESDB_ERR_COMP_NULLKEY);
    EXPECT_EQ(node_moveWithSub(s, t.B, garbage, 0), KESDB_ERR_COMP_READ);
    EXPECT_EQ(leaf_move(s, garbage, t.Q, 0), KESDB_ERR_COMP_READ);
    EXPECT_EQ(comp_delete(s, garbage), KESDB_ERR_COMP_READ);
    EXPECT_EQ(comp_deleteWithSub(s, garbage, 1), KESDB_ERR_COMP_READ);
    EXPECT_EQ(comp_delete(s, 0), KESDB_ERR_COMP_NULLKEY);
    EXPECT_TRUE(unchanged());

    // Nodes that cannot be placed give their block back: same tree, same free space. A leaf
    // whose place cannot be read keeps its block, unwritten.
    const uint32_t nameKey = tk::name(s, "n");  // (strings lie in the same medium: take it first)
    const std::vector<tk::FreeBlock> freeNow = tk::freeList(s, m);
    EXPECT_EQ(node_create(s, nameKey, t.P, t.A, t.C), 0u);  // C is not behind A
    EXPECT_EQ(tk::err(s), KESDB_ERR_COMP_NOTNODE);
    EXPECT_EQ(node_create(s, nameKey, t.P, garbage, 0), 0u);
    EXPECT_EQ(node_create(s, nameKey, t.C, 0, 0), 0u);  // a leaf as parent
    EXPECT_EQ(tk::freeList(s, m), freeNow);
    for (uint32_t previous : {garbage, 0u}) {
        const std::vector<tk::FreeBlock> freeBefore = tk::freeList(s, m);
        const std::string mediumBefore = kt::readFile(db.mediumPath);
        EXPECT_EQ(leaf_create(s, nameKey, previous ? t.P : 0, previous, 0, 0, 0, 0), 0u);
        ASSERT_FALSE(freeBefore.empty());
        EXPECT_FALSE(tk::isFree(tk::freeList(s, m), freeBefore[0].key, 40));
        const std::string mediumAfter = kt::readFile(db.mediumPath);
        EXPECT_EQ(mediumAfter.compare(freeBefore[0].key, 40, mediumBefore, freeBefore[0].key, 40), 0);
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

}

// A record with a kind that is neither node nor leaf leaves its parent's list and is not
// released: error 3. Below a subtree being deleted it is skipped; the rest is released.
TEST_F(TreeChange, DeleteOfAnUnknownKindUnlinksAndReleasesNothing) {
    const uint32_t m = tk::componentMedium(s);
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
    const uint32_t m = tk::componentMedium(s);
    // P's list loops: C links back to A.
    ASSERT_EQ(comp_setNextSibling(s, t.C, t.A), 0);
    EXPECT_EQ(comp_getChildCount(s, t.P), 0);
    EXPECT_EQ(tk::err(s), KESDB_ERR_COMP_READ);
    session_setError(s, 0, 0);
    EXPECT_EQ(comp_getChildByIndex(s, t.P, 1), t.B);  // positions before the loop closes
    EXPECT_EQ(comp_getChildByIndex(s, t.P, 100), 0u);
    EXPECT_EQ(tk::err(s), KESDB_ERR_COMP_READ);
    EXPECT_EQ(comp_getChildByIndex(s, t.P, -1), 0u);

    // A leaf that names P as parent but is not in its list: the search for its predecessor
    // runs into the loop.
    const uint32_t stray = tk::leaf(s, t.Q, 0, "stray");
    ASSERT_EQ(comp_setParent(s, stray, t.P), 0);
    const std::string before = kt::readFile(db.mediumPath);
    EXPECT_EQ(leaf_move(s, stray, t.Q, 0), KESDB_ERR_COMP_READ);
    const std::vector<tk::FreeBlock> freeBefore = tk::freeList(s, m);
    EXPECT_EQ(comp_deleteWithSub(s, t.P, 0), KESDB_ERR_COMP_READ);
    EXPECT_EQ(kt::readFile(db.mediumPath), before);
    EXPECT_EQ(tk::freeList(s, m), freeBefore);
    ASSERT_EQ(comp_setNextSibling(s, t.C, 0), 0);

    // A child that names its own ancestor as first child: the subtree is endlessly deep.
    ASSERT_EQ(comp_delete(s, t.X), 0);
    const uint32_t X = tk::node(s, t.B, 0, "X");
    ASSERT_EQ(comp_setFirstChild(s, X, t.B), 0);
    const std::vector<tk::FreeBlock> freeCycle = tk::freeList(s, m);
    EXPECT_EQ(comp_deleteWithSub(s, t.B, 0), KESDB_ERR_COMP_READ);
    EXPECT_EQ(tk::freeList(s, m), freeCycle);
    // Moving the subtree is refused before its endless depth matters (it is below itself).
    EXPECT_EQ(node_moveWithSub(s, t.B, X, 0), KESDB_ERR_COMP_NOTNODE);
}

// A chain of nodes 1030 levels deep below the root, all named "a". Walks follow it down to
// 1024 levels below where they start and end with 55 beyond that, without using the stack up.
TEST(TreeDepth, DeepChainsKeepTheDepthLimit) {
    kt::DbOptions o;
    o.mediumSize = 256 * 1024;
    kt::Db db(o);
    Session* s = &db.s;
    const uint32_t m = tk::componentMedium(s);
    const uint32_t root = tk::makeRoot(s, "/");
    const uint32_t a = tk::name(s, "a");
    std::vector<uint32_t> chain{root};
    while (chain.size() <= 1030 && chain.back() != 0) chain.push_back(node_create(s, a, chain.back(), 0, 0));
    ASSERT_NE(chain.back(), 0u);
    auto search = [&](size_t depth) {
        return tk::keyAndOutput([&] { return comp_searchByName(s, root, ("/" + std::string(depth, 'a')).c_str()); });
    };
    EXPECT_EQ(search(1000).first, chain[1000]);
    EXPECT_EQ(search(1030), std::make_pair(0u, std::string()));
    EXPECT_EQ(mk::errorOf(*s), mk::Pair(KESDB_ERR_COMP_READ, chain[1025]));

    const std::vector<tk::FreeBlock> before = tk::freeList(s, m);
    EXPECT_EQ(comp_deleteWithSub(s, chain[1], 1), KESDB_ERR_COMP_READ);
    EXPECT_EQ(tk::freeList(s, m), before);
    EXPECT_EQ(comp_getFirstChild(s, root), chain[1]);  // not even unlinked
    // From further down the whole rest is within reach.
    EXPECT_EQ(comp_deleteWithSub(s, chain[10], 1), 0);
    EXPECT_EQ(comp_getFirstChild(s, chain[9]), 0u);
    EXPECT_TRUE(tk::isFree(tk::freeList(s, m), chain[1030], 28));
}

// The order of writes, seen through the fault-injection driver: from the n-th write on every
// write fails, so the records written are the first n - 1.
TEST(TreeChangeFaults, WritesComeInTheOrderThatKeepsAnInterruptedChangeKnown) {
    uint32_t nameKey = 0;
    const struct {
        int failFrom;
        std::function<void(Tree&)> change;  // runs with the writes failing
        const char* lists;                  // afterwards (null: checked by the change itself)
    } cases[] = {
        // leaf_move of the first child: the old parent, the new neighbour, the leaf.
        {2, [](Tree& t) { EXPECT_EQ(leaf_move(t.s, t.A, t.Q, 0), KESDB_ERR_COMP_WRITE); }, "B,C||X,Y"},
        {3, [](Tree& t) { EXPECT_EQ(leaf_move(t.s, t.A, t.Q, 0), KESDB_ERR_COMP_WRITE); }, "B,C|A^,B^,C^|X,Y"},
        // node_move with splice: the children first (X, then Y), then the old predecessor A.
        {3, [](Tree& t) { EXPECT_EQ(node_move(t.s, t.B, t.Q, 0, 0), KESDB_ERR_COMP_WRITE); }, "A,B,C||X^,Y^,C^"},
        // node_create: the allocator's two writes (anchor link, remaining element), the
        // neighbour (which names the node already), then the wrapped child.
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
}

}  // namespace
