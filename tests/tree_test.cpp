// Component records: layout on the medium, whole-record reads and writes with their codes and
// messages, allocation and release, the single-field accessors and their refusals.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "testkit.hpp"
#include "treekit.hpp"

namespace {

constexpr uint32_t kMediumSize = 64 * 1024;

NodeRecord makeNode(Session* s) {
    NodeRecord n{};
    n.comp.stringKey = 0x5A5A;
    EXPECT_NE(comp_newNode(s, &n), nullptr);
    EXPECT_EQ(comp_setNode(s, &n), 0);
    return n;
}

std::string out(const std::function<void()>& body) { return kt::captureStdout(body); }

// What the whole-record reads of `key` (component, node, leaf) print and record, each from a
// cleared session; a read that succeeds shows -1.
using Reads = std::array<std::pair<std::string, int32_t>, 3>;
Reads reads(Session* s, uint32_t key) {
    Reads r;
    auto one = [&](auto read, auto record, size_t i) {
        session_setError(s, 0, 0);
        bool ok = false;
        r[i].first = out([&] { ok = read(s, key, &record) != nullptr; });
        r[i].second = ok ? -1 : tk::err(s);
    };
    one(comp_getComponent, CompRecord{}, 0);
    one(comp_getNode, NodeRecord{}, 1);
    one(comp_getLeaf, LeafRecord{}, 2);
    return r;
}
// Three failed reads recording `code`, the node read silently.
Reads failed(int32_t code, const std::string& component, const std::string& leaf) {
    return {{{component, code}, {"", code}, {leaf, code}}};
}

class TreeRecord : public ::testing::Test {
protected:
    kt::Db db;
    Session* s = &db.s;
    std::vector<uint8_t> bytes(uint32_t key, uint32_t n = 40) const { return kt::readBytes(db.mediumPath, key, n); }
};

TEST_F(TreeRecord, NewRecordsLieOnTheMediumWordByWordAndGiveTheirSizeBack) {
    NodeRecord n{};
    session_setError(s, 99, 9);
    ASSERT_EQ(comp_newNode(s, &n), &n);
    EXPECT_EQ(n.comp.key, 16u);
    EXPECT_EQ(n.comp.kind, KESDB_KIND_NODE);
    EXPECT_EQ(s->error, 99u);  // an allocation that succeeds leaves the session's error as it was
    EXPECT_EQ(kt::readWord(db.mediumPath, 16 + 20), 0u);  // nothing written yet
    ASSERT_EQ(comp_setNode(s, &n), 0);

    LeafRecord l{};
    l.comp.kind = 7;
    ASSERT_EQ(comp_newLeaf(s, &l), &l);
    EXPECT_EQ(l.comp.kind, KESDB_KIND_LEAF);
    l = {{l.comp.key, 0x11, 0, 16, 0, l.comp.kind}, 0x21, 0x22, 0x23, 3};
    ASSERT_EQ(comp_setLeaf(s, &l), 0);
    const uint32_t k = l.comp.key;
    const struct { uint32_t offset, word; } layout[] = {{0, 44},    {4, 0x11},  {12, 16},   {20, 1},
                                                        {24, 0x21}, {28, 0x22}, {32, 0x23}, {36, 3}};
    for (const auto& w : layout) EXPECT_EQ(kt::readWord(db.mediumPath, k + w.offset), w.word) << w.offset;
    LeafRecord back{};
    ASSERT_EQ(comp_getLeaf(s, k, &back), &back);
    EXPECT_EQ(std::memcmp(&back, &l, sizeof l), 0);

    // Releases: 28 bytes for a node, 40 for a leaf, merged with their free neighbours.
    const NodeRecord n2 = makeNode(s);
    ASSERT_EQ(n2.comp.key, 84u);
    const uint32_t m = tk::componentMedium(s), rest = kMediumSize - 112;
    using FL = std::vector<tk::FreeBlock>;
    CompRecord odd = n.comp;
    odd.kind = 2;
    EXPECT_EQ(comp_setDeleted(s, &odd), KESDB_ERR_COMP_BADKIND);
    EXPECT_EQ(tk::freeList(s, m), (FL{{112, rest}}));
    EXPECT_EQ(comp_setDeleted(s, &n.comp), 0);
    EXPECT_EQ(tk::freeList(s, m), (FL{{16, 28}, {112, rest}}));
    EXPECT_EQ(comp_setDeleted(s, &n2.comp), 0);
    EXPECT_EQ(tk::freeList(s, m), (FL{{16, 28}, {84, 28 + rest}}));
    EXPECT_EQ(comp_setDeleted(s, &l.comp), 0);
    EXPECT_EQ(tk::freeList(s, m), (FL{{16, kMediumSize - 16}}));
    EXPECT_EQ(kt::readWord(db.mediumPath, k + 24), 0x21u);  // the bytes stay until reused
}

TEST_F(TreeRecord, KeyZeroAndKeysInTheHeader) {
    const NodeRecord n = makeNode(s);
    const int32_t nullKey = KESDB_ERR_COMP_NULLKEY;
    EXPECT_EQ(reads(s, 0), (Reads{{{"", -1}, {"", nullKey}, {"comp_getLeaf err2 \n", nullKey}}}));
    // The whole-record read takes key 0 as it comes: the medium's first 24 bytes.
    CompRecord header{};
    ASSERT_EQ(comp_getComponent(s, 0, &header), &header);
    EXPECT_EQ(std::memcmp(&header, bytes(0, 24).data(), 24), 0);

    const std::vector<uint8_t> before = bytes(0, 64);
    session_setError(s, 0, 0);
    EXPECT_EQ(comp_getParent(s, 0), 0u);
    EXPECT_EQ(tk::err(s), KESDB_ERR_COMP_NULLKEY);
    CompRecord atTwelve{};
    atTwelve.key = 12;
    for (int32_t code : {comp_setParent(s, 0, 99), comp_setNextSibling(s, 0, 99), comp_setFirstChild(s, 0, 99),
                         comp_setComponent(s, &atTwelve), comp_setDeleted(s, &atTwelve)})
        EXPECT_EQ(code, KESDB_ERR_COMP_NULLKEY);
    EXPECT_EQ(bytes(0, 64), before);
    EXPECT_EQ(comp_getParent(s, n.comp.key), 0u);
}

// Each setter changes its own word and nothing else; the value-key accessors refuse nodes.
TEST_F(TreeRecord, FieldAccessors) {
    const uint32_t n = makeNode(s).comp.key;
    LeafRecord leaf{};
    ASSERT_NE(comp_newLeaf(s, &leaf), nullptr);
    leaf = {{leaf.comp.key, 0x6B, 0x6C, 0x6D, 0x6E, KESDB_KIND_LEAF}, 0x100, 0x200, 0x300, 5};
    ASSERT_EQ(comp_setLeaf(s, &leaf), 0);
    const uint32_t l = leaf.comp.key;
    char currentOut[64];
    std::snprintf(currentOut, sizeof currentOut, "leaf_getCurrentValueKey err 0x%x", n);
    const struct {
        uint32_t (*get)(Session*, uint32_t);
        int32_t (*set)(Session*, uint32_t, uint32_t);
        uint32_t key, offset;
        const char* onNode;  // what the getter prints for a node (null: the field is not a leaf's)
    } fields[] = {
        {comp_getStringKey, comp_setStringKey, l, 4, nullptr},
        {comp_getParent, comp_setParent, l, 12, nullptr},
        {comp_getNextSibling, comp_setNextSibling, l, 16, nullptr},
        {comp_getFirstChild, comp_setFirstChild, n, 24, nullptr},
        {leaf_getCurrentValueKey, leaf_setCurrentValueKey, l, 24, currentOut},
        {leaf_getDefaultValueKey, leaf_setDefaultValueKey, l, 28, ""},
        {leaf_getFactoryValueKey, leaf_setFactoryValueKey, l, 32, ""},
    };
    for (const auto& f : fields) {
        SCOPED_TRACE(f.offset);
        std::vector<uint8_t> expected = bytes(f.key);
        const uint32_t v = 0xC0DE00 + f.offset;
        std::memcpy(&expected[f.offset], &v, 4);
        EXPECT_EQ(f.set(s, f.key, v), 0);
        EXPECT_EQ(bytes(f.key), expected);
        EXPECT_EQ(f.get(s, f.key), v);
        EXPECT_EQ(s->error, 0u);
        if (!f.onNode) continue;
        const std::vector<uint8_t> node = bytes(n);
        EXPECT_EQ(out([&] { EXPECT_EQ(f.get(s, n), 0u); }), f.onNode);
        EXPECT_EQ(tk::err(s), KESDB_ERR_COMP_NOTLEAF);
        session_setError(s, 0, 0);
        EXPECT_EQ(f.set(s, n, 1), KESDB_ERR_COMP_NOTLEAF);
        EXPECT_EQ(bytes(n), node);
        session_setError(s, 0, 0);
    }

    // A leaf has no first child: 0 without a code, and the setter refuses with 2.
    const std::vector<uint8_t> leafBytes = bytes(l);
    EXPECT_EQ(comp_getFirstChild(s, l), 0u);
    EXPECT_EQ(s->error, 0u);
    EXPECT_EQ(comp_setFirstChild(s, l, 0x44), KESDB_ERR_COMP_NOTNODE);
    EXPECT_EQ(bytes(l), leafBytes);
    // A kind that is neither: 3 from both.
    CompRecord odd = tk::common(s, n);
    odd.kind = 2;
    ASSERT_EQ(comp_setComponent(s, &odd), 0);
    EXPECT_EQ(comp_getFirstChild(s, n), 0u);
    EXPECT_EQ(tk::err(s), KESDB_ERR_COMP_BADKIND);
    EXPECT_EQ(comp_setFirstChild(s, n, 0), KESDB_ERR_COMP_BADKIND);

    // A record whose key word names another is not written back (it would land there).
    kt::writeBytes(db.mediumPath, l, &n, 4);
    const std::vector<uint8_t> before = bytes(16, 200);
    EXPECT_EQ(comp_setParent(s, l, 0x1234), KESDB_ERR_COMP_READ);
    EXPECT_EQ(mk::errorOf(*s), mk::Pair(KESDB_ERR_COMP_READ, l));
    EXPECT_EQ(leaf_setCurrentValueKey(s, l, 0x1234), KESDB_ERR_COMP_READ);
    EXPECT_EQ(bytes(16, 200), before);
}

// A node whose record the end of the medium cuts short: its common part reads, the node does
// not, so it has no first child.
TEST_F(TreeRecord, NodeCutShortByTheMediumEndHasNoFirstChild) {
    CompRecord c{kMediumSize - 24, 0, 0, 0, 0, KESDB_KIND_NODE};
    ASSERT_EQ(comp_setComponent(s, &c), 0);
    out([&] { EXPECT_EQ(comp_getFirstChild(s, c.key), 0u); });
    EXPECT_EQ(tk::err(s), KESDB_ERR_COMP_READ);
}

TEST(TreeRecordMedia, NoRoomForARecordGivesNoneAndWritesNothing) {
    kt::DbOptions o;
    o.mediumSize = 16 + 24;  // one free element too small for any record
    kt::Db db(o);
    ASSERT_GT(db.id, 0);
    Session* s = &db.s;
    const std::string before = kt::readFile(db.mediumPath);
    NodeRecord n{};
    EXPECT_EQ(comp_newNode(s, &n), nullptr);
    EXPECT_EQ(mk::errorOf(*s), mk::Pair(KESDB_ERR_COMP_WRITE, ENOSPC));
    LeafRecord l{};
    EXPECT_EQ(comp_newLeaf(s, &l), nullptr);
    EXPECT_EQ(leaf_create(s, 0, 16, 0, 0, 0, 0, 0), 0u);
    EXPECT_EQ(node_create(s, 0, 16, 0, 0), 0u);
    EXPECT_EQ(kt::readFile(db.mediumPath), before);
}

TEST_F(TreeRecord, UnregisteredDatabaseAndNullSession) {
    const NodeRecord n = makeNode(s);
    const uint32_t k = n.comp.key;
    Session bad = tk::unregistered(*s);
    EXPECT_EQ(reads(&bad, k), failed(KESDB_ERR_DB_NOTFOUND, "comp_getComponent err4\n", "comp_getLeaf err4 \n"));
    NodeRecord node{};
    EXPECT_EQ(comp_newNode(&bad, &node), nullptr);
    for (int32_t code : {comp_setNode(&bad, &n), comp_setDeleted(&bad, &n.comp), comp_setParent(&bad, k, 1),
                         leaf_setCurrentValueKey(&bad, k, 1)})
        EXPECT_EQ(code, KESDB_ERR_DB_NOTFOUND);
    bad.error = 0;
    EXPECT_EQ(comp_getRoot(&bad), 0u);
    EXPECT_EQ(bad.error, 0u);

    kt::captureStdout([&] {
        CompRecord c{};
        EXPECT_EQ(comp_getComponent(nullptr, k, &c), nullptr);
        EXPECT_EQ(comp_getParent(nullptr, k), 0u);
        for (int32_t code : {comp_setParent(nullptr, k, 1), comp_setFirstChild(nullptr, k, 1),
                             leaf_setDefaultValueKey(nullptr, k, 1), node_move(nullptr, k, 16, 0, 0),
                             comp_delete(nullptr, k), comp_currentToDefault(nullptr, k)})
            EXPECT_EQ(code, KESDB_ERR_DB_NOTFOUND);
        EXPECT_EQ(comp_getRoot(nullptr), 0u);
        EXPECT_EQ(comp_getChildCount(nullptr, k), 0);
        comp_traverseAndPrint(nullptr, k, 0);
        EXPECT_EQ(comp_searchByName(nullptr, k, "x"), 0u);
    });
    EXPECT_EQ(comp_getComponent(s, k, nullptr), nullptr);
    EXPECT_EQ(tk::err(s), KESDB_ERR_NULLARG);
    EXPECT_EQ(comp_setLeaf(s, nullptr), KESDB_ERR_NULLARG);
}

TEST(TreeRecordMedia, MissingMediumEntryShortReadAndUnopenableMedium) {
    {
        kt::DbOptions o;
        o.componentMedium = 5;  // not in the media table
        kt::Db db(o);
        ASSERT_GT(db.id, 0);
        EXPECT_EQ(reads(&db.s, 16), failed(KESDB_ERR_MEDIA_INDEX, "comp_getComponent err3\n", "comp_getLeaf err3 \n"));
        NodeRecord n{};
        n.comp.key = 16;
        EXPECT_EQ(comp_setNode(&db.s, &n), KESDB_ERR_MEDIA_INDEX);
    }
    kt::Db db;
    Session* s = &db.s;
    const uint32_t key = kMediumSize - 10;  // 10 bytes before the end: reads come back short
    char shortRead[96];
    std::snprintf(shortRead, sizeof shortRead, "comp_getComponent err1 0xa 0x18 0x%x\n", key);
    EXPECT_EQ(reads(s, key), failed(KESDB_ERR_COMP_READ, shortRead, "comp_getLeaf err0  0xa\n"));

    const NodeRecord made = makeNode(s);
    setenv("KESDB_DEFMEDIA", db.dir.file("missing.bin").c_str(), 1);
    EXPECT_EQ(reads(s, made.comp.key), failed(KESDB_ERR_COMP_OPEN, "comp_getComponent err2\n", "comp_getLeaf err1 \n"));
    EXPECT_EQ(s->errorDetail, static_cast<uint32_t>(ENOENT));
    EXPECT_EQ(comp_setNode(s, &made), KESDB_ERR_COMP_OPEN);
    kt::captureStdout([&] { EXPECT_EQ(comp_setStringKey(s, made.comp.key, 1), KESDB_ERR_COMP_OPEN); });
}

// When the root word cannot be read, a search from the root and the printout of the whole tree
// stop there with the read's own failure (24 and the driver's error number), rather than going
// on from key 0 and replacing it with 4. A tree without a root still gives 4 as before.
TEST(TreeRecordMedia, UnreadableRootStopsSearchAndPrintWithTheReadFailure) {
    tk::FaultComponents f;
    ASSERT_TRUE(f.ready());
    Session* s = &f.db.s;
    session_setError(s, 0, 0);
    EXPECT_EQ(kt::captureStdout([&] { EXPECT_EQ(kesDBMSearchByName(s, "/x"), 0u); }), "");
    EXPECT_EQ(tk::err(s), KESDB_ERR_COMP_NULLKEY);
    ASSERT_NE(tk::makeRoot(s, "/"), 0u);
    f.failFrom(KESDRV_FAULT_READ, 1, EIO);
    const std::function<void()> walks[] = {[&] { EXPECT_EQ(kesDBMSearchByName(s, "/x"), 0u); },
                                           [&] { kesDBMtraverseAndPrint(s, 0); }};
    for (const auto& walk : walks) {
        session_setError(s, 0, 0);
        const std::string out = kt::captureStdout(walk);
        EXPECT_EQ(out.rfind("flst_m_getRoot err1 0x", 0), 0u) << out;
        EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 1) << out;
        EXPECT_EQ(mk::errorOf(*s), mk::Pair(KESDB_ERR_MEDIA_READ, EIO));
    }
    f.reset();
    session_setError(s, 7, 3);
    EXPECT_EQ(kt::captureStdout([&] { kesDBMtraverseAndPrint(s, 0); }), "node 16 [/]\n");
    EXPECT_EQ(tk::err(s), 7);  // a root read that succeeds leaves an earlier error as it was
    EXPECT_EQ(f.opens(), f.closes());
}

}  // namespace
