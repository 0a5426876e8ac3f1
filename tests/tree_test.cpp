// Component records: layout on the medium, whole-record reads and writes with their codes and
// messages, allocation and release, the single-field accessors and their refusals.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "testkit.hpp"
#include "treekit.hpp"

namespace {

constexpr uint32_t kMediumSize = 64 * 1024;

NodeRecord makeNode(Session* s) {
    NodeRecord n{};
    EXPECT_NE(comp_newNode(s, &n), nullptr);
    n.comp.stringKey = 0x5A5A;
    EXPECT_EQ(comp_setNode(s, &n), 0);
    return n;
}

LeafRecord makeLeaf(Session* s, uint32_t hook = 0) {
    LeafRecord l{};
    EXPECT_NE(comp_newLeaf(s, &l), nullptr);
    l.comp.stringKey = 0x6B6B;
    l.currentValue = 0x100;
    l.defaultValue = 0x200;
    l.factoryValue = 0x300;
    l.hookIndex = hook;
    EXPECT_EQ(comp_setLeaf(s, &l), 0);
    return l;
}

std::string out(const std::function<void()>& body) { return kt::captureStdout(body); }

class TreeRecord : public ::testing::Test {
protected:
    kt::Db db;
    Session* s = &db.s;
};

TEST_F(TreeRecord, NewRecordsTakeBlocksInOrderAndLieOnTheMediumWordByWord) {
    ASSERT_GT(db.id, 0);
    NodeRecord n{};
    n.comp.stringKey = 0xAAAA;  // new leaves every other field as it was
    ASSERT_EQ(comp_newNode(s, &n), &n);
    EXPECT_EQ(n.comp.key, 16u);
    EXPECT_EQ(n.comp.kind, KESDB_KIND_NODE);
    EXPECT_EQ(n.comp.stringKey, 0xAAAAu);
    EXPECT_EQ(kt::readWord(db.mediumPath, 16 + 20), 0u);  // nothing written yet

    LeafRecord l{};
    l.comp.kind = 7;
    ASSERT_EQ(comp_newLeaf(s, &l), &l);
    EXPECT_EQ(l.comp.key, 16u + 28u);
    EXPECT_EQ(l.comp.kind, KESDB_KIND_LEAF);
    l.comp.stringKey = 0x11;
    l.comp.parent = 16;
    l.currentValue = 0x21;
    l.defaultValue = 0x22;
    l.factoryValue = 0x23;
    l.hookIndex = 3;
    ASSERT_EQ(comp_setLeaf(s, &l), 0);
    const uint32_t k = l.comp.key;
    const struct { uint32_t offset, word; } layout[] = {{0, k},     {4, 0x11},  {12, 16},   {20, 1},
                                                        {24, 0x21}, {28, 0x22}, {32, 0x23}, {36, 3}};
    for (const auto& w : layout) EXPECT_EQ(kt::readWord(db.mediumPath, k + w.offset), w.word) << w.offset;

    LeafRecord back{};
    ASSERT_EQ(comp_getLeaf(s, k, &back), &back);
    EXPECT_EQ(std::memcmp(&back, &l, sizeof l), 0);
    CompRecord c{};
    ASSERT_EQ(comp_getComponent(s, k, &c), &c);
    EXPECT_EQ(std::memcmp(&c, &l.comp, sizeof c), 0);
    EXPECT_EQ(comp_getRoot(s), 0u);
    ASSERT_EQ(flst_m_setRoot(s, 0, 16), 0);
    EXPECT_EQ(comp_getRoot(s), 16u);
    EXPECT_EQ(s->error, 0u);
}

TEST_F(TreeRecord, KeyZeroAndKeysInTheHeader) {
    const NodeRecord n = makeNode(s);
    NodeRecord node{};
    EXPECT_EQ(comp_getNode(s, 0, &node), nullptr);
    EXPECT_EQ(tk::err(s), KESDB_ERR_COMP_NULLKEY);

    // The whole-record read takes key 0 as it comes: the medium's first 24 bytes.
    CompRecord header{};
    ASSERT_EQ(comp_getComponent(s, 0, &header), &header);
    EXPECT_EQ(std::memcmp(&header, kt::readBytes(db.mediumPath, 0, 24).data(), 24), 0);

    LeafRecord leaf{};
    EXPECT_EQ(out([&] { EXPECT_EQ(comp_getLeaf(s, 0, &leaf), nullptr); }), "comp_getLeaf err2 \n");
    EXPECT_EQ(tk::err(s), KESDB_ERR_COMP_NULLKEY);

    const std::vector<uint8_t> before = kt::readBytes(db.mediumPath, 0, 64);
    session_setError(s, 0, 0);
    EXPECT_EQ(comp_getParent(s, 0), 0u);
    EXPECT_EQ(tk::err(s), KESDB_ERR_COMP_NULLKEY);
    CompRecord atTwelve{};
    atTwelve.key = 12;
    for (int32_t code : {comp_setParent(s, 0, 99), comp_setNextSibling(s, 0, 99), comp_setFirstChild(s, 0, 99),
                         comp_setComponent(s, &atTwelve), comp_setDeleted(s, &atTwelve)})
        EXPECT_EQ(code, KESDB_ERR_COMP_NULLKEY);
    EXPECT_EQ(kt::readBytes(db.mediumPath, 0, 64), before);
    EXPECT_EQ(comp_getParent(s, n.comp.key), 0u);
}

TEST_F(TreeRecord, LeafAccessorsRefuseNodesAndWorkOnLeaves) {
    const uint32_t n = makeNode(s).comp.key;
    const uint32_t l = makeLeaf(s, 5).comp.key;
    const std::vector<uint8_t> nodeBytes = kt::readBytes(db.mediumPath, n, 40);
    for (auto get : {leaf_getDefaultValueKey, leaf_getFactoryValueKey}) {  // the silent refusals
        session_setError(s, 0, 0);
        EXPECT_EQ(get(s, n), 0u);
        EXPECT_EQ(tk::err(s), KESDB_ERR_COMP_NOTLEAF);
    }
    for (auto set : {leaf_setDefaultValueKey, leaf_setCurrentValueKey, leaf_setFactoryValueKey})
        EXPECT_EQ(set(s, n, 0x999), 1);
    EXPECT_EQ(kt::readBytes(db.mediumPath, n, 40), nodeBytes);

    session_setError(s, 0, 0);
    char hex[16];
    std::snprintf(hex, sizeof hex, "%x", n);
    EXPECT_EQ(out([&] { EXPECT_EQ(leaf_getCurrentValueKey(s, n), 0u); }),
              "leaf_getCurrentValueKey err 0x" + std::string(hex));
    EXPECT_EQ(tk::err(s), KESDB_ERR_COMP_NOTLEAF);

    // On a leaf each setter changes its own word only.
    session_setError(s, 0, 0);
    const struct {
        uint32_t (*get)(Session*, uint32_t);
        int32_t (*set)(Session*, uint32_t, uint32_t);
        uint32_t was;
    } fields[] = {{leaf_getCurrentValueKey, leaf_setCurrentValueKey, 0x100},
                  {leaf_getDefaultValueKey, leaf_setDefaultValueKey, 0x200},
                  {leaf_getFactoryValueKey, leaf_setFactoryValueKey, 0x300}};
    for (const auto& f : fields) {
        EXPECT_EQ(f.get(s, l), f.was);
        EXPECT_EQ(f.set(s, l, f.was + f.was / 0x100), 0);
    }
    const LeafRecord back = tk::leafRecord(s, l);
    EXPECT_EQ(back.currentValue, 0x101u);
    EXPECT_EQ(back.defaultValue, 0x202u);
    EXPECT_EQ(back.factoryValue, 0x303u);
    EXPECT_EQ(back.hookIndex, 5u);
    EXPECT_EQ(back.comp.stringKey, 0x6B6Bu);
    EXPECT_EQ(s->error, 0u);
}

TEST_F(TreeRecord, CommonFieldsAndFirstChild) {
    const uint32_t n = makeNode(s).comp.key;
    const uint32_t l = makeLeaf(s).comp.key;
    EXPECT_EQ(comp_setStringKey(s, n, 0x77), 0);
    EXPECT_EQ(comp_setParent(s, n, 0x88), 0);
    EXPECT_EQ(comp_setNextSibling(s, n, 0x99), 0);
    EXPECT_EQ(comp_setFirstChild(s, n, l), 0);
    EXPECT_EQ(comp_getStringKey(s, n), 0x77u);
    EXPECT_EQ(comp_getParent(s, n), 0x88u);
    EXPECT_EQ(comp_getNextSibling(s, n), 0x99u);
    EXPECT_EQ(comp_getFirstChild(s, n), l);
    EXPECT_EQ(tk::nodeRecord(s, n).comp.kind, KESDB_KIND_NODE);

    // A common-part setter writes 24 bytes only: the leaf's value words stay.
    EXPECT_EQ(comp_setParent(s, l, n), 0);
    EXPECT_EQ(tk::leafRecord(s, l).currentValue, 0x100u);

    // A leaf has no first child: 0 without a code, and the setter refuses with 2.
    session_setError(s, 0, 0);
    EXPECT_EQ(comp_getFirstChild(s, l), 0u);
    EXPECT_EQ(s->error, 0u);
    const std::vector<uint8_t> leafBytes = kt::readBytes(db.mediumPath, l, 40);
    EXPECT_EQ(comp_setFirstChild(s, l, 0x44), KESDB_ERR_COMP_NOTNODE);
    EXPECT_EQ(kt::readBytes(db.mediumPath, l, 40), leafBytes);

    CompRecord odd = tk::common(s, n);
    odd.kind = 2;
    ASSERT_EQ(comp_setComponent(s, &odd), 0);
    EXPECT_EQ(comp_getFirstChild(s, n), 0u);
    EXPECT_EQ(tk::err(s), KESDB_ERR_COMP_BADKIND);
    EXPECT_EQ(comp_setFirstChild(s, n, 0), KESDB_ERR_COMP_BADKIND);

    // A record whose key word names another is not written back (it would land there).
    const uint32_t a = makeNode(s).comp.key;
    kt::writeBytes(db.mediumPath, a, &n, 4);
    const std::vector<uint8_t> before = kt::readBytes(db.mediumPath, 16, 200);
    EXPECT_EQ(comp_setParent(s, a, 0x1234), KESDB_ERR_COMP_READ);
    EXPECT_EQ(s->errorDetail, a);
    EXPECT_EQ(comp_setFirstChild(s, a, 0x1234), KESDB_ERR_COMP_READ);
    EXPECT_EQ(kt::readBytes(db.mediumPath, 16, 200), before);
}

TEST_F(TreeRecord, SetDeletedGivesTheRecordSizeBack) {
    const uint32_t m = tk::componentMedium(s);
    const NodeRecord n1 = makeNode(s);  // 16..44
    const LeafRecord l = makeLeaf(s);   // 44..84
    const NodeRecord n2 = makeNode(s);  // 84..112
    ASSERT_EQ(n2.comp.key, 84u);
    const uint32_t rest = kMediumSize - 112;
    using FL = std::vector<tk::FreeBlock>;

    CompRecord odd = n1.comp;
    odd.kind = 2;
    EXPECT_EQ(comp_setDeleted(s, &odd), KESDB_ERR_COMP_BADKIND);
    EXPECT_EQ(tk::freeList(s, m), (FL{{112, rest}}));
    EXPECT_EQ(comp_setDeleted(s, &n1.comp), 0);
    EXPECT_EQ(tk::freeList(s, m), (FL{{16, 28}, {112, rest}}));
    EXPECT_EQ(comp_setDeleted(s, &n2.comp), 0);  // merged with the block behind
    EXPECT_EQ(tk::freeList(s, m), (FL{{16, 28}, {84, 28 + rest}}));
    EXPECT_EQ(comp_setDeleted(s, &l.comp), 0);  // 40 bytes join both
    EXPECT_EQ(tk::freeList(s, m), (FL{{16, kMediumSize - 16}}));
    EXPECT_EQ(kt::readWord(db.mediumPath, 44 + 24), 0x100u);  // bytes stay until reused
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
    EXPECT_EQ(tk::err(s), KESDB_ERR_COMP_WRITE);
    EXPECT_EQ(s->errorDetail, static_cast<uint32_t>(ENOSPC));
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
    CompRecord c{};
    NodeRecord node{};
    LeafRecord leaf{};
    EXPECT_EQ(out([&] { EXPECT_EQ(comp_getComponent(&bad, k, &c), nullptr); }), "comp_getComponent err4\n");
    EXPECT_EQ(tk::err(&bad), KESDB_ERR_DB_NOTFOUND);
    EXPECT_EQ(out([&] { EXPECT_EQ(comp_getLeaf(&bad, k, &leaf), nullptr); }), "comp_getLeaf err4 \n");
    bad.error = 0;
    EXPECT_EQ(out([&] { EXPECT_EQ(comp_getNode(&bad, k, &node), nullptr); }), "");
    EXPECT_EQ(tk::err(&bad), KESDB_ERR_DB_NOTFOUND);
    EXPECT_EQ(comp_newNode(&bad, &node), nullptr);
    for (int32_t code : {comp_setNode(&bad, &n), comp_setDeleted(&bad, &n.comp), comp_setParent(&bad, k, 1),
                         leaf_setCurrentValueKey(&bad, k, 1)})
        EXPECT_EQ(code, KESDB_ERR_DB_NOTFOUND);
    bad.error = 0;
    EXPECT_EQ(comp_getRoot(&bad), 0u);
    EXPECT_EQ(bad.error, 0u);

    kt::captureStdout([&] {
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
    CompRecord c{};
    LeafRecord l{};
    NodeRecord n{};
    {
        kt::DbOptions o;
        o.componentMedium = 5;  // not in the media table
        kt::Db db(o);
        ASSERT_GT(db.id, 0);
        Session* s = &db.s;
        EXPECT_EQ(out([&] { EXPECT_EQ(comp_getComponent(s, 16, &c), nullptr); }), "comp_getComponent err3\n");
        EXPECT_EQ(tk::err(s), KESDB_ERR_MEDIA_INDEX);
        EXPECT_EQ(out([&] { EXPECT_EQ(comp_getLeaf(s, 16, &l), nullptr); }), "comp_getLeaf err3 \n");
        EXPECT_EQ(tk::err(s), KESDB_ERR_MEDIA_INDEX);
        n.comp.key = 16;
        EXPECT_EQ(comp_setNode(s, &n), KESDB_ERR_MEDIA_INDEX);
        session_setError(s, 0, 0);
        EXPECT_EQ(comp_getNode(s, 16, &n), nullptr);
        EXPECT_EQ(tk::err(s), KESDB_ERR_MEDIA_INDEX);
    }
    kt::Db db;
    Session* s = &db.s;
    const uint32_t key = kMediumSize - 10;  // 10 bytes before the end: reads come back short
    char expected[96];
    std::snprintf(expected, sizeof expected, "comp_getComponent err1 0xa 0x18 0x%x\n", key);
    EXPECT_EQ(out([&] { EXPECT_EQ(comp_getComponent(s, key, &c), nullptr); }), expected);
    EXPECT_EQ(tk::err(s), KESDB_ERR_COMP_READ);
    EXPECT_EQ(out([&] { EXPECT_EQ(comp_getLeaf(s, key, &l), nullptr); }), "comp_getLeaf err0  0xa\n");
    session_setError(s, 0, 0);
    EXPECT_EQ(comp_getNode(s, key, &n), nullptr);
    EXPECT_EQ(tk::err(s), KESDB_ERR_COMP_READ);

    const NodeRecord made = makeNode(s);
    setenv("KESDB_DEFMEDIA", db.dir.file("missing.bin").c_str(), 1);
    EXPECT_EQ(out([&] { EXPECT_EQ(comp_getComponent(s, made.comp.key, &c), nullptr); }), "comp_getComponent err2\n");
    EXPECT_EQ(tk::err(s), KESDB_ERR_COMP_OPEN);
    EXPECT_EQ(s->errorDetail, static_cast<uint32_t>(ENOENT));
    EXPECT_EQ(out([&] { EXPECT_EQ(comp_getLeaf(s, made.comp.key, &l), nullptr); }), "comp_getLeaf err1 \n");
    EXPECT_EQ(comp_setNode(s, &made), KESDB_ERR_COMP_OPEN);
    kt::captureStdout([&] { EXPECT_EQ(comp_setStringKey(s, made.comp.key, 1), KESDB_ERR_COMP_OPEN); });
}

TEST(TreeRecordMedia, DriverFailuresOfReadsAndWrites) {
    tk::FaultComponents f;
    ASSERT_TRUE(f.ready());
    Session* s = &f.db.s;
    const NodeRecord n = makeNode(s);
    ASSERT_EQ(n.comp.key, 16u);
    f.shortOp(KESDRV_FAULT_WRITE, 1, 10);
    EXPECT_EQ(comp_setNode(s, &n), KESDB_ERR_COMP_WRITE);
    f.shortOp(KESDRV_FAULT_READ, 1, 7);
    CompRecord c{};
    EXPECT_EQ(out([&] { EXPECT_EQ(comp_getComponent(s, 16, &c), nullptr); }), "comp_getComponent err1 0x7 0x18 0x10\n");
    EXPECT_EQ(tk::err(s), KESDB_ERR_COMP_READ);
    f.failFrom(KESDRV_FAULT_WRITE, 1, EIO);
    EXPECT_EQ(comp_setComponent(s, &n.comp), KESDB_ERR_COMP_WRITE);
    EXPECT_EQ(s->errorDetail, static_cast<uint32_t>(EIO));
    LeafRecord l{};
    f.failFrom(KESDRV_FAULT_OPEN, 1, EACCES);
    // A loaded medium's name is the configuration line's last token.
    EXPECT_EQ(out([&] { EXPECT_EQ(comp_getLeaf(s, 16, &l), nullptr); }), "comp_getLeaf err1 " + f.path + "\n");
    EXPECT_EQ(s->errorDetail, static_cast<uint32_t>(EACCES));
    EXPECT_EQ(f.opens(), f.closes());
}

}  // namespace
