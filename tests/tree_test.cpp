// Component records (layout, transfers with their codes and messages, allocation and release,
// single-field accessors), navigation and path search, and the printout of a subtree.
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
const std::string kNG1 = "comp_searchByName NG1 KESDB_ERR_COMP_ENDSEARCH\n";
const std::string kNG2 = "comp_searchByName NG2 KESDB_ERR_COMP_ENDSEARCH\n";

std::string out(const std::function<void()>& body) { return kt::captureStdout(body); }
std::string num(uint32_t v) { return std::to_string(static_cast<int>(v)); }

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
Reads failed(int32_t code, const std::string& component, const std::string& leaf) {
    return {{{component, code}, {"", code}, {leaf, code}}};
}

// A root named / with the children net (a node) and time (a leaf); below net the leaf /ip
// and the node /dns, which has no children.
struct Tree : ::testing::Test {
    kt::Db db;
    Session* s = &db.s;
    uint32_t root = tk::makeRoot(s, "/"), time = tk::leaf(s, root, 0, "time", tk::u32(s, 4)),
             net = tk::node(s, root, 0, "net"), dns = tk::node(s, net, 0, "/dns"), ip = tk::leaf(s, net, 0, "/ip");
    std::vector<uint8_t> bytes(uint32_t key, uint32_t n = 40) const { return kt::readBytes(db.mediumPath, key, n); }
    std::pair<uint32_t, std::string> search(uint32_t from, const std::string& path) {
        return tk::keyAndOutput([&] { return comp_searchByName(s, from, path.c_str()); });
    }
    std::string print(uint32_t key, int32_t depth = 0) { return out([&] { comp_traverseAndPrint(s, key, depth); }); }
};

TEST(TreeRecord, LayoutAllocationAndRelease) {
    kt::Db db;
    Session* s = &db.s;
    NodeRecord n{};
    session_setError(s, 99, 9);
    ASSERT_EQ(comp_newNode(s, &n), &n);
    EXPECT_EQ(n.comp.key, 16u);
    EXPECT_EQ(n.comp.kind, KESDB_KIND_NODE);
    EXPECT_EQ(s->error, 99u);  // a successful allocation leaves an earlier error as it was
    ASSERT_EQ(comp_setNode(s, &n), 0);
    LeafRecord l{};
    l.comp.kind = 7;
    ASSERT_EQ(comp_newLeaf(s, &l), &l);
    EXPECT_EQ(l.comp.kind, KESDB_KIND_LEAF);
    l = {{l.comp.key, 0x11, 0, 16, 0, l.comp.kind}, 0x21, 0x22, 0x23, 3};
    ASSERT_EQ(comp_setLeaf(s, &l), 0);
    const uint32_t k = l.comp.key;
    const uint32_t layout[][2] = {{0, 44}, {4, 0x11}, {12, 16}, {20, 1}, {24, 0x21}, {28, 0x22}, {32, 0x23}, {36, 3}};
    for (const auto& w : layout) EXPECT_EQ(kt::readWord(db.mediumPath, k + w[0]), w[1]) << w[0];
    LeafRecord back{};
    ASSERT_EQ(comp_getLeaf(s, k, &back), &back);
    EXPECT_EQ(std::memcmp(&back, &l, sizeof l), 0);

    // Releases: 28 bytes for a node, 40 for a leaf, merged with their free neighbours.
    NodeRecord n2{};
    ASSERT_NE(comp_newNode(s, &n2), nullptr);
    ASSERT_EQ(comp_setNode(s, &n2), 0);
    const uint32_t m = tk::componentMedium(s), rest = kMediumSize - 112;
    using FL = std::vector<tk::FreeBlock>;
    EXPECT_EQ(comp_setDeleted(s, &n.comp), 0);
    EXPECT_EQ(tk::freeList(s, m), (FL{{16, 28}, {112, rest}}));
    EXPECT_EQ(comp_setDeleted(s, &n2.comp), 0);
    EXPECT_EQ(tk::freeList(s, m), (FL{{16, 28}, {84, 28 + rest}}));
    EXPECT_EQ(comp_setDeleted(s, &l.comp), 0);
    EXPECT_EQ(tk::freeList(s, m), (FL{{16, kMediumSize - 16}}));
}

TEST_F(Tree, KeyZeroIsRefusedButReadWhole) {
    EXPECT_EQ(reads(s, 0), (Reads{{{"", -1}, {"", KESDB_ERR_COMP_NULLKEY}, {"comp_getLeaf err2 \n", KESDB_ERR_COMP_NULLKEY}}}));
    const std::vector<uint8_t> before = bytes(0, 64);
    EXPECT_EQ(comp_getParent(s, 0), 0u);
    EXPECT_EQ(tk::err(s), KESDB_ERR_COMP_NULLKEY);
    CompRecord atTwelve{};
    atTwelve.key = 12;
    for (int32_t code : {comp_setParent(s, 0, 99), comp_setNextSibling(s, 0, 99), comp_setFirstChild(s, 0, 99),
                         comp_setComponent(s, &atTwelve), comp_setDeleted(s, &atTwelve)})
        EXPECT_EQ(code, KESDB_ERR_COMP_NULLKEY);
    EXPECT_EQ(bytes(0, 64), before);
}

// Each setter changes its own word and nothing else; the value-key accessors refuse nodes.
TEST_F(Tree, FieldAccessors) {
    const uint32_t l = time, n = dns;
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
        out([&] { EXPECT_EQ(f.get(s, kMediumSize - 8), 0u); });  // a record the medium cuts short
        EXPECT_EQ(tk::err(s), KESDB_ERR_COMP_READ);
        session_setError(s, 0, 0);
        if (!f.onNode) continue;
        const std::vector<uint8_t> node = bytes(n);
        EXPECT_EQ(out([&] { EXPECT_EQ(f.get(s, n), 0u); }), f.onNode);
        EXPECT_EQ(tk::err(s), KESDB_ERR_COMP_NOTLEAF);
        EXPECT_EQ(f.set(s, n, 1), KESDB_ERR_COMP_NOTLEAF);
        EXPECT_EQ(bytes(n), node);
    }
    // A leaf has no first child: 0 without a code, and the setter refuses with 2.
    session_setError(s, 0, 0);
    EXPECT_EQ(comp_getFirstChild(s, l), 0u);
    EXPECT_EQ(s->error, 0u);
    EXPECT_EQ(comp_setFirstChild(s, l, 0x44), KESDB_ERR_COMP_NOTNODE);
    // A kind that is neither: 3 from both.
    CompRecord odd = tk::common(s, n);
    odd.kind = 2;
    ASSERT_EQ(comp_setComponent(s, &odd), 0);
    EXPECT_EQ(comp_getFirstChild(s, n), 0u);
    EXPECT_EQ(tk::err(s), KESDB_ERR_COMP_BADKIND);
    EXPECT_EQ(comp_setFirstChild(s, n, 0), KESDB_ERR_COMP_BADKIND);
    // A record whose key word names another is not written back (it would land there).
    kt::writeBytes(db.mediumPath, l, &n, 4);
    const std::vector<uint8_t> before = bytes(16, 400);
    EXPECT_EQ(comp_setParent(s, l, 0x1234), KESDB_ERR_COMP_READ);
    EXPECT_EQ(mk::errorOf(*s), mk::Pair(KESDB_ERR_COMP_READ, l));
    EXPECT_EQ(leaf_setCurrentValueKey(s, l, 0x1234), KESDB_ERR_COMP_READ);
    EXPECT_EQ(bytes(16, 400), before);
    // A node whose record the end of the medium cuts short has no first child.
    CompRecord c{static_cast<uint32_t>(kt::readFile(db.mediumPath).size()) - 24, 0, 0, 0, 0, KESDB_KIND_NODE};
    ASSERT_EQ(comp_setComponent(s, &c), 0);
    out([&] { EXPECT_EQ(comp_getFirstChild(s, c.key), 0u); });
    EXPECT_EQ(tk::err(s), KESDB_ERR_COMP_READ);
}

TEST(TreeRecordMedia, NoRoomForARecordGivesNoneAndWritesNothing) {
    kt::DbOptions o;
    o.mediumSize = 16 + 24;  // one free element too small for any record
    kt::Db db(o);
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

TEST_F(Tree, UnregisteredDatabaseNullSessionAndUnreadableMedia) {
    Session bad = tk::unregistered(*s);
    CompRecord netRecord = tk::common(s, net);
    EXPECT_EQ(reads(&bad, net), failed(KESDB_ERR_DB_NOTFOUND, "comp_getComponent err4\n", "comp_getLeaf err4 \n"));
    for (int32_t code : {comp_setDeleted(&bad, &netRecord), comp_setParent(&bad, net, 1),
                         leaf_setCurrentValueKey(&bad, time, 1)})
        EXPECT_EQ(code, KESDB_ERR_DB_NOTFOUND);
    EXPECT_EQ(tk::keyAndOutput([&] { return comp_searchByName(&bad, root, "/"); }),
              std::make_pair(0u, std::string("comp_getComponent err4\n")));
    EXPECT_EQ(out([&] { comp_traverseAndPrint(&bad, root, 0); }), "comp_getComponent err4\n");
    out([&] { EXPECT_EQ(comp_delete(nullptr, net), KESDB_ERR_DB_NOTFOUND); });
    EXPECT_EQ(comp_getComponent(s, net, nullptr), nullptr);
    EXPECT_EQ(tk::err(s), KESDB_ERR_NULLARG);
    EXPECT_EQ(comp_searchByName(s, root, nullptr), 0u);

    const uint32_t key = static_cast<uint32_t>(kt::readFile(db.mediumPath).size()) - 10;  // reads come back short
    char shortRead[96];
    std::snprintf(shortRead, sizeof shortRead, "comp_getComponent err1 0xa 0x18 0x%x\n", key);
    EXPECT_EQ(reads(s, key), failed(KESDB_ERR_COMP_READ, shortRead, "comp_getLeaf err0  0xa\n"));
    setenv("KESDB_DEFMEDIA", db.dir.file("missing.bin").c_str(), 1);
    EXPECT_EQ(reads(s, net), failed(KESDB_ERR_COMP_OPEN, "comp_getComponent err2\n", "comp_getLeaf err1 \n"));
    EXPECT_EQ(s->errorDetail, static_cast<uint32_t>(ENOENT));
    setenv("KESDB_DEFMEDIA", db.mediumPath.c_str(), 1);
    kt::DbOptions o;
    o.componentMedium = 5;  // not in the media table
    kt::Db other(o);
    EXPECT_EQ(reads(&other.s, 16), failed(KESDB_ERR_MEDIA_INDEX, "comp_getComponent err3\n", "comp_getLeaf err3 \n"));
}

// When the root word cannot be read, a search from the root and the printout of the whole tree
// stop there with the read's own failure (24 and the driver's error number); a tree without a
// root gives 4.
TEST(TreeRecordMedia, UnreadableRootStopsSearchAndPrintWithTheReadFailure) {
    tk::FaultComponents f;
    ASSERT_TRUE(f.ready());
    Session* s = &f.db.s;
    EXPECT_EQ(out([&] { EXPECT_EQ(kesDBMSearchByName(s, "/x"), 0u); }), "");
    EXPECT_EQ(tk::err(s), KESDB_ERR_COMP_NULLKEY);
    ASSERT_NE(tk::makeRoot(s, "/"), 0u);
    f.failFrom(KESDRV_FAULT_READ, 1, EIO);
    const std::function<void()> walks[] = {[&] { EXPECT_EQ(kesDBMSearchByName(s, "/x"), 0u); },
                                           [&] { kesDBMtraverseAndPrint(s, 0); }};
    for (const auto& walk : walks) {
        session_setError(s, 0, 0);
        const std::string text = out(walk);
        EXPECT_EQ(text.rfind("flst_m_getRoot err1 0x", 0), 0u) << text;
        EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << text;
        EXPECT_EQ(mk::errorOf(*s), mk::Pair(KESDB_ERR_MEDIA_READ, EIO));
    }
    f.reset();
    session_setError(s, 7, 3);
    EXPECT_EQ(out([&] { kesDBMtraverseAndPrint(s, 0); }), "node 16 [/]\n");
    EXPECT_EQ(tk::err(s), 7);
    EXPECT_EQ(f.opens(), f.closes());
}

TEST_F(Tree, SearchPaths) {
    const struct {
        uint32_t Tree::*from;
        std::string path;
        uint32_t Tree::*found;  // null: none, and then the code and detail recorded
        std::string printed;
        int32_t error = 0;
        uint32_t Tree::*detail = nullptr;
    } cases[] = {
        {&Tree::root, "/net/ip", &Tree::ip, ""},
        {&Tree::root, "/time", &Tree::time, ""},
        {&Tree::root, "/", &Tree::root, ""},
        {&Tree::root, "/net/dns/x", &Tree::dns, ""},  // a childless node by its path, '/' and anything
        {&Tree::net, "net/dns", &Tree::dns, ""},      // from elsewhere: starting with its own name
        // /ip and /dns record 100, net prints NG2 and records 5; the root stops at once (NG1).
        {&Tree::root, "/net/xy", nullptr, kNG2 + kNG1, KESDB_ERR_COMP_ENDSEARCH, &Tree::net},
        {&Tree::root, "/times", nullptr, kNG2, KESDB_ERR_COMP_ENDSEARCH, &Tree::root},  // a leaf with a rest
        {&Tree::root, "/net/", nullptr, kNG2 + kNG1, KESDB_ERR_COMP_ENDSEARCH, &Tree::net},
        {&Tree::root, "x/net", nullptr, "", KESDB_ERR_COMP_NOMATCH, &Tree::root},
        {&Tree::dns, "/dnsx", nullptr, kNG2, KESDB_ERR_COMP_ENDSEARCH, &Tree::dns},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        session_setError(s, 0, 0);
        EXPECT_EQ(search(this->*c.from, c.path), std::make_pair(c.found ? this->*c.found : 0u, c.printed));
        if (c.found) continue;
        EXPECT_EQ(mk::errorOf(*s), mk::Pair(c.error, this->*c.detail));
    }
    // A session that already holds 5 has the same effect as a 5 recorded during this search.
    session_setError(s, KESDB_ERR_COMP_ENDSEARCH, 77);
    EXPECT_EQ(search(dns, "/dnsx"), std::make_pair(0u, std::string()));
    EXPECT_EQ(s->errorDetail, 77u);
    // Names are read into 256 bytes; a name that cannot be fetched matches nothing.
    const std::string longName(300, 'n');
    const uint32_t big = tk::leaf(s, root, time, longName);
    EXPECT_EQ(search(root, "/" + longName.substr(0, 255)), std::make_pair(big, std::string()));
    ASSERT_EQ(comp_setStringKey(s, ip, tk::danglingString(s, 77)), 0);
    EXPECT_EQ(search(root, "/net/ip"), std::make_pair(0u, kNG2 + kNG1));
}

TEST_F(Tree, ChildCountAndPosition) {
    EXPECT_EQ(comp_getChildCount(s, net), 2);
    EXPECT_EQ(comp_getChildCount(s, dns), 0);
    EXPECT_EQ(comp_getChildByIndex(s, root, 1), time);
    EXPECT_EQ(comp_getChildByIndex(s, root, 2), 0u);
    EXPECT_EQ(comp_getChildByIndex(s, root, -1), 0u);
    EXPECT_EQ(s->error, 0u);  // the end of the list records nothing
    EXPECT_EQ(comp_getChildCount(s, time), 0);
    EXPECT_EQ(tk::err(s), KESDB_ERR_COMP_NOTNODE);
    session_setError(s, 0, 0);
    EXPECT_EQ(comp_getChildByIndex(s, time, 0), 0u);
    EXPECT_EQ(tk::err(s), KESDB_ERR_COMP_NOTNODE);
    EXPECT_EQ(comp_getChildByIndex(s, 0, 0), 0u);
    EXPECT_EQ(tk::err(s), KESDB_ERR_COMP_NULLKEY);
    EXPECT_EQ(search(60000, "/").first, 0u);  // a block that is no component
    EXPECT_EQ(tk::err(s), KESDB_ERR_COMP_READ);
}

TEST_F(Tree, LoopedListsAndCyclesEndTheSearch) {
    ASSERT_EQ(comp_setNextSibling(s, dns, ip), 0);  // net's list loops
    EXPECT_EQ(search(root, "/net/zz"), std::make_pair(0u, std::string()));
    EXPECT_EQ(tk::err(s), KESDB_ERR_COMP_READ);
    ASSERT_EQ(comp_setNextSibling(s, dns, 0), 0);
    // /dns names net as its first child: /net/dns/net/dns/... is endlessly deep.
    ASSERT_EQ(comp_setFirstChild(s, dns, net), 0);
    std::string path = "/";
    for (int i = 0; i < 600; ++i) path += "net/dns";
    EXPECT_EQ(search(root, path), std::make_pair(0u, std::string()));
    EXPECT_EQ(tk::err(s), KESDB_ERR_COMP_READ);
    EXPECT_EQ(search(root, "/net/dnsnet/dnsnet/ip").first, ip);
    // An empty name matches without using the path up: a node named "" holding itself.
    const uint32_t empty = tk::node(s, root, 0, "");
    ASSERT_EQ(comp_setFirstChild(s, empty, empty), 0);
    session_setError(s, 0, 0);
    EXPECT_EQ(search(empty, "q").first, 0u);
    EXPECT_EQ(tk::err(s), KESDB_ERR_COMP_READ);
}

TEST_F(Tree, PrintOfASubtree) {
    const uint32_t v1 = tk::u32(s, 7), v2 = tk::u32(s, 8);
    ASSERT_EQ(comp_delete(s, ip), 0);
    ASSERT_EQ(comp_delete(s, dns), 0);
    const uint32_t leaf = tk::leaf(s, net, 0, "ip", v1, v2, 0, 2);
    const uint32_t cur = leaf_getCurrentValueKey(s, time);
    const std::string values = "value " + num(v1) + " Uint32 [7]\nvalue " + num(v2) + " Uint32 [8]\nno value\n";
    EXPECT_EQ(print(root), "node " + num(root) + " [/]\n  node " + num(net) + " [net]\n    leaf " + num(leaf) +
                               " [ip]\n      value " + num(v1) + " Uint32 [7]\n      value " + num(v2) +
                               " Uint32 [8]\n      no value\n      hook 2\n  leaf " + num(time) + " [time]\n    value " +
                               num(cur) + " Uint32 [4]\n    no value\n    no value\n");
    // By itself: the leaf's line unindented, values two spaces in at depth 0 and none at -1.
    EXPECT_EQ(print(leaf, -1), "leaf " + num(leaf) + " [ip]\n" + values + "hook 2\n");
    EXPECT_EQ(print(net, 3).substr(0, 11), "      node ");
    // Names too long are cut to 255 characters; names that cannot be fetched print empty.
    ASSERT_EQ(comp_setStringKey(s, net, tk::name(s, std::string(300, 'q'))), 0);
    EXPECT_EQ(print(net).find("[" + std::string(255, 'q') + "]\n"), 6 + num(net).size());
    ASSERT_EQ(comp_setStringKey(s, time, tk::danglingString(s, 42, 5)), 0);
    EXPECT_EQ(print(time).substr(0, num(time).size() + 9), "leaf " + num(time) + " []\n");
}

}  // namespace
