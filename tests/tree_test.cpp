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

// Free-list elements in host order, so that released blocks can be read back on any host.
[[maybe_unused]] const int kHostOrderElements = setenv("SIM_BYTE_ORDER", "BIG_ENDIAN", 1);

constexpr uint32_t kMediumSize = 64 * 1024;

// A session naming a database id that is not registered.
Session unregistered(const Session& s) {
    Session bad = s;
    bad.dbId = 30;
    bad.error = 0;
    bad.errorDetail = 0;
    return bad;
}

NodeRecord makeNode(Session* s, uint32_t parent = 0) {
    NodeRecord n{};
    EXPECT_NE(comp_newNode(s, &n), nullptr);
    n.comp.stringKey = 0x5A5A;
    n.comp.parent = parent;
    n.comp.kind = KESDB_KIND_NODE;
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

TEST(TreeRecord, NewRecordsTakeBlocksInOrderAndLieOnTheMediumWordByWord) {
    kt::Db db;
    ASSERT_GT(db.id, 0);
    Session* s = &db.s;

    NodeRecord n{};
    n.comp.stringKey = 0xAAAA;  // new leaves every other field as it was
    ASSERT_EQ(comp_newNode(s, &n), &n);
    EXPECT_EQ(n.comp.key, 16u);  // the first free byte behind the header
    EXPECT_EQ(n.comp.kind, KESDB_KIND_NODE);
    EXPECT_EQ(n.comp.stringKey, 0xAAAAu);
    // comp_newNode writes nothing: the block still holds the free element's bytes.
    EXPECT_EQ(kt::readWord(db.mediumPath, 16 + 20), 0u);

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
    EXPECT_EQ(kt::readWord(db.mediumPath, k + 0), k);
    EXPECT_EQ(kt::readWord(db.mediumPath, k + 4), 0x11u);
    EXPECT_EQ(kt::readWord(db.mediumPath, k + 12), 16u);
    EXPECT_EQ(kt::readWord(db.mediumPath, k + 20), 1u);   // kind leaf
    EXPECT_EQ(kt::readWord(db.mediumPath, k + 24), 0x21u);
    EXPECT_EQ(kt::readWord(db.mediumPath, k + 28), 0x22u);
    EXPECT_EQ(kt::readWord(db.mediumPath, k + 32), 0x23u);
    EXPECT_EQ(kt::readWord(db.mediumPath, k + 36), 3u);   // hook index

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

TEST(TreeRecord, KeyZeroAndKeysInTheHeader) {
    kt::Db db;
    Session* s = &db.s;
    const NodeRecord n = makeNode(s);

    NodeRecord node{};
    EXPECT_EQ(comp_getNode(s, 0, &node), nullptr);
    EXPECT_EQ(s->error, static_cast<uint32_t>(KESDB_ERR_COMP_NULLKEY));

    // The whole-record read takes key 0 as it comes: the medium's first 24 bytes.
    CompRecord header{};
    session_setError(s, 0, 0);
    ASSERT_EQ(comp_getComponent(s, 0, &header), &header);
    const std::vector<uint8_t> raw = kt::readBytes(db.mediumPath, 0, 24);
    EXPECT_EQ(std::memcmp(&header, raw.data(), 24), 0);

    LeafRecord leaf{};
    std::string out = kt::captureStdout([&] { EXPECT_EQ(comp_getLeaf(s, 0, &leaf), nullptr); });
    EXPECT_EQ(out, "comp_getLeaf err2 \n");  // the built-in medium's name is empty
    EXPECT_EQ(s->error, static_cast<uint32_t>(KESDB_ERR_COMP_NULLKEY));

    // The field accessors never take key 0 for a component, and no write lands in the header.
    const std::vector<uint8_t> before = kt::readBytes(db.mediumPath, 0, 64);
    session_setError(s, 0, 0);
    EXPECT_EQ(comp_getParent(s, 0), 0u);
    EXPECT_EQ(s->error, static_cast<uint32_t>(KESDB_ERR_COMP_NULLKEY));
    EXPECT_EQ(comp_setParent(s, 0, 99), KESDB_ERR_COMP_NULLKEY);
    EXPECT_EQ(comp_setNextSibling(s, 0, 99), KESDB_ERR_COMP_NULLKEY);
    EXPECT_EQ(comp_setFirstChild(s, 0, 99), KESDB_ERR_COMP_NULLKEY);
    CompRecord atTwelve{};
    atTwelve.key = 12;
    EXPECT_EQ(comp_setComponent(s, &atTwelve), KESDB_ERR_COMP_NULLKEY);
    EXPECT_EQ(comp_setDeleted(s, &atTwelve), KESDB_ERR_COMP_NULLKEY);
    EXPECT_EQ(kt::readBytes(db.mediumPath, 0, 64), before);
    EXPECT_EQ(comp_getParent(s, n.comp.key), 0u);
}

TEST(TreeRecord, LeafAccessorsRefuseNodesAndWorkOnLeaves) {
    kt::Db db;
    Session* s = &db.s;
    const NodeRecord n = makeNode(s);
    const LeafRecord l = makeLeaf(s, 5);
    const std::vector<uint8_t> nodeBytes = kt::readBytes(db.mediumPath, n.comp.key, 40);

    EXPECT_EQ(leaf_getDefaultValueKey(s, n.comp.key), 0u);
    EXPECT_EQ(s->error, static_cast<uint32_t>(KESDB_ERR_COMP_NOTLEAF));
    session_setError(s, 0, 0);
    EXPECT_EQ(leaf_getFactoryValueKey(s, n.comp.key), 0u);
    EXPECT_EQ(s->error, static_cast<uint32_t>(KESDB_ERR_COMP_NOTLEAF));
    EXPECT_EQ(leaf_setDefaultValueKey(s, n.comp.key, 0x999), 1);
    EXPECT_EQ(leaf_setCurrentValueKey(s, n.comp.key, 0x999), 1);
    EXPECT_EQ(leaf_setFactoryValueKey(s, n.comp.key, 0x999), 1);
    EXPECT_EQ(kt::readBytes(db.mediumPath, n.comp.key, 40), nodeBytes);

    session_setError(s, 0, 0);
    std::string out = kt::captureStdout([&] { EXPECT_EQ(leaf_getCurrentValueKey(s, n.comp.key), 0u); });
    EXPECT_EQ(out, "leaf_getCurrentValueKey err 0x" + [&] {
        char hex[16];
        std::snprintf(hex, sizeof hex, "%x", n.comp.key);
        return std::string(hex);
    }());
    EXPECT_EQ(s->error, static_cast<uint32_t>(KESDB_ERR_COMP_NOTLEAF));

    // On a leaf: each setter changes its own word only.
    session_setError(s, 0, 0);
    EXPECT_EQ(leaf_getCurrentValueKey(s, l.comp.key), 0x100u);
    EXPECT_EQ(leaf_getDefaultValueKey(s, l.comp.key), 0x200u);
    EXPECT_EQ(leaf_getFactoryValueKey(s, l.comp.key), 0x300u);
    EXPECT_EQ(leaf_setCurrentValueKey(s, l.comp.key, 0x101), 0);
    EXPECT_EQ(leaf_setDefaultValueKey(s, l.comp.key, 0x202), 0);
    EXPECT_EQ(leaf_setFactoryValueKey(s, l.comp.key, 0x303), 0);
    const LeafRecord back = tk::leafRecord(s, l.comp.key);
    EXPECT_EQ(back.currentValue, 0x101u);
    EXPECT_EQ(back.defaultValue, 0x202u);
    EXPECT_EQ(back.factoryValue, 0x303u);
    EXPECT_EQ(back.hookIndex, 5u);
    EXPECT_EQ(back.comp.stringKey, 0x6B6Bu);
    EXPECT_EQ(s->error, 0u);
}

TEST(TreeRecord, CommonFieldsAndFirstChild) {
    kt::Db db;
    Session* s = &db.s;
    const NodeRecord n = makeNode(s);
    const LeafRecord l = makeLeaf(s);

    EXPECT_EQ(comp_setStringKey(s, n.comp.key, 0x77), 0);
    EXPECT_EQ(comp_setParent(s, n.comp.key, 0x88), 0);
    EXPECT_EQ(comp_setNextSibling(s, n.comp.key, 0x99), 0);
    EXPECT_EQ(comp_setFirstChild(s, n.comp.key, l.comp.key), 0);
    EXPECT_EQ(comp_getStringKey(s, n.comp.key), 0x77u);
    EXPECT_EQ(comp_getParent(s, n.comp.key), 0x88u);
    EXPECT_EQ(comp_getNextSibling(s, n.comp.key), 0x99u);
    EXPECT_EQ(comp_getFirstChild(s, n.comp.key), l.comp.key);
    EXPECT_EQ(tk::nodeRecord(s, n.comp.key).comp.kind, KESDB_KIND_NODE);

    // A common-part setter writes 24 bytes only: the leaf's value words stay.
    EXPECT_EQ(comp_setParent(s, l.comp.key, n.comp.key), 0);
    EXPECT_EQ(tk::leafRecord(s, l.comp.key).currentValue, 0x100u);

    // A leaf has no first child: 0 without a code, and the setter refuses with 2.
    session_setError(s, 0, 0);
    EXPECT_EQ(comp_getFirstChild(s, l.comp.key), 0u);
    EXPECT_EQ(s->error, 0u);
    const std::vector<uint8_t> leafBytes = kt::readBytes(db.mediumPath, l.comp.key, 40);
    EXPECT_EQ(comp_setFirstChild(s, l.comp.key, 0x44), KESDB_ERR_COMP_NOTNODE);
    EXPECT_EQ(kt::readBytes(db.mediumPath, l.comp.key, 40), leafBytes);

    // A kind that is neither: 3 from both.
    CompRecord odd = tk::common(s, n.comp.key);
    odd.kind = 2;
    ASSERT_EQ(comp_setComponent(s, &odd), 0);
    session_setError(s, 0, 0);
    EXPECT_EQ(comp_getFirstChild(s, n.comp.key), 0u);
    EXPECT_EQ(s->error, static_cast<uint32_t>(KESDB_ERR_COMP_BADKIND));
    EXPECT_EQ(comp_setFirstChild(s, n.comp.key, 0), KESDB_ERR_COMP_BADKIND);
}

TEST(TreeRecord, RecordThatDoesNotCarryItsOwnKeyIsNotWrittenBack) {
    kt::Db db;
    Session* s = &db.s;
    const NodeRecord a = makeNode(s);
    const NodeRecord b = makeNode(s);
    // a's key word names b: writing a back would land on b.
    const uint32_t wrong = b.comp.key;
    kt::writeBytes(db.mediumPath, a.comp.key, &wrong, 4);
    const std::vector<uint8_t> before = kt::readBytes(db.mediumPath, 16, 200);
    EXPECT_EQ(comp_setParent(s, a.comp.key, 0x1234), KESDB_ERR_COMP_READ);
    EXPECT_EQ(s->errorDetail, a.comp.key);
    EXPECT_EQ(comp_setFirstChild(s, a.comp.key, 0x1234), KESDB_ERR_COMP_READ);
    EXPECT_EQ(kt::readBytes(db.mediumPath, 16, 200), before);
}

TEST(TreeRecord, SetDeletedGivesTheRecordSizeBack) {
    kt::Db db;
    Session* s = &db.s;
    const uint32_t m = tk::componentMedium(s);
    const NodeRecord n1 = makeNode(s);  // 16..44
    const LeafRecord l = makeLeaf(s);   // 44..84
    const NodeRecord n2 = makeNode(s);  // 84..112
    ASSERT_EQ(n1.comp.key, 16u);
    ASSERT_EQ(l.comp.key, 44u);
    ASSERT_EQ(n2.comp.key, 84u);
    const uint32_t rest = kMediumSize - 112;
    EXPECT_EQ(tk::freeList(s, m), (std::vector<tk::FreeBlock>{{112, rest}}));

    // Kind 2: error 3, nothing released.
    CompRecord odd = n1.comp;
    odd.kind = 2;
    EXPECT_EQ(comp_setDeleted(s, &odd), KESDB_ERR_COMP_BADKIND);
    EXPECT_EQ(tk::freeList(s, m), (std::vector<tk::FreeBlock>{{112, rest}}));

    EXPECT_EQ(comp_setDeleted(s, &n1.comp), 0);  // 28 bytes at 16
    EXPECT_EQ(tk::freeList(s, m), (std::vector<tk::FreeBlock>{{16, 28}, {112, rest}}));
    EXPECT_EQ(comp_setDeleted(s, &n2.comp), 0);  // 28 bytes at 84, merged with the block behind
    EXPECT_EQ(tk::freeList(s, m), (std::vector<tk::FreeBlock>{{16, 28}, {84, 28 + rest}}));
    EXPECT_EQ(comp_setDeleted(s, &l.comp), 0);   // 40 bytes at 44 join both
    EXPECT_EQ(tk::freeList(s, m), (std::vector<tk::FreeBlock>{{16, kMediumSize - 16}}));
    // The record's bytes stay until the space is handed out again.
    EXPECT_EQ(kt::readWord(db.mediumPath, 44 + 24), 0x100u);
}

TEST(TreeRecord, NoRoomForARecordGivesNoneAndWritesNothing) {
    kt::DbOptions o;
    o.mediumSize = 16 + 24;  // one free element of 24 bytes: too small for any record
    kt::Db db(o);
    ASSERT_GT(db.id, 0);
    Session* s = &db.s;
    const std::string before = kt::readFile(db.mediumPath);
    NodeRecord n{};
    EXPECT_EQ(comp_newNode(s, &n), nullptr);
    EXPECT_EQ(s->error, static_cast<uint32_t>(KESDB_ERR_COMP_WRITE));
    EXPECT_EQ(s->errorDetail, static_cast<uint32_t>(ENOSPC));
    LeafRecord l{};
    EXPECT_EQ(comp_newLeaf(s, &l), nullptr);
    EXPECT_EQ(leaf_create(s, 0, 16, 0, 0, 0, 0, 0), 0u);
    EXPECT_EQ(node_create(s, 0, 16, 0, 0), 0u);
    EXPECT_EQ(kt::readFile(db.mediumPath), before);
}

TEST(TreeRecord, UnregisteredDatabaseAndNullSession) {
    kt::Db db;
    const NodeRecord n = makeNode(&db.s);
    Session bad = unregistered(db.s);
    CompRecord c{};
    NodeRecord node{};
    LeafRecord leaf{};

    std::string out = kt::captureStdout([&] { EXPECT_EQ(comp_getComponent(&bad, n.comp.key, &c), nullptr); });
    EXPECT_EQ(out, "comp_getComponent err4\n");
    EXPECT_EQ(bad.error, static_cast<uint32_t>(KESDB_ERR_DB_NOTFOUND));
    out = kt::captureStdout([&] { EXPECT_EQ(comp_getLeaf(&bad, n.comp.key, &leaf), nullptr); });
    EXPECT_EQ(out, "comp_getLeaf err4 \n");
    bad.error = 0;
    out = kt::captureStdout([&] { EXPECT_EQ(comp_getNode(&bad, n.comp.key, &node), nullptr); });
    EXPECT_EQ(out, "");
    EXPECT_EQ(bad.error, static_cast<uint32_t>(KESDB_ERR_DB_NOTFOUND));
    EXPECT_EQ(comp_setNode(&bad, &n), KESDB_ERR_DB_NOTFOUND);
    EXPECT_EQ(comp_setDeleted(&bad, &n.comp), KESDB_ERR_DB_NOTFOUND);
    EXPECT_EQ(comp_newNode(&bad, &node), nullptr);
    EXPECT_EQ(comp_setParent(&bad, n.comp.key, 1), KESDB_ERR_DB_NOTFOUND);
    EXPECT_EQ(leaf_setCurrentValueKey(&bad, n.comp.key, 1), KESDB_ERR_DB_NOTFOUND);
    bad.error = 0;
    EXPECT_EQ(comp_getRoot(&bad), 0u);
    EXPECT_EQ(bad.error, 0u);  // nothing recorded

    // A null session: every call fails cleanly, the setters with 83.
    kt::captureStdout([&] {
        EXPECT_EQ(comp_getComponent(nullptr, n.comp.key, &c), nullptr);
        EXPECT_EQ(comp_getParent(nullptr, n.comp.key), 0u);
        EXPECT_EQ(comp_setParent(nullptr, n.comp.key, 1), KESDB_ERR_DB_NOTFOUND);
        EXPECT_EQ(comp_setFirstChild(nullptr, n.comp.key, 1), KESDB_ERR_DB_NOTFOUND);
        EXPECT_EQ(leaf_setDefaultValueKey(nullptr, n.comp.key, 1), KESDB_ERR_DB_NOTFOUND);
        EXPECT_EQ(comp_getRoot(nullptr), 0u);
        EXPECT_EQ(comp_getChildCount(nullptr, n.comp.key), 0);
        EXPECT_EQ(node_move(nullptr, n.comp.key, 16, 0, 0), KESDB_ERR_DB_NOTFOUND);
        EXPECT_EQ(comp_delete(nullptr, n.comp.key), KESDB_ERR_DB_NOTFOUND);
        EXPECT_EQ(comp_currentToDefault(nullptr, n.comp.key), KESDB_ERR_DB_NOTFOUND);
        comp_traverseAndPrint(nullptr, n.comp.key, 0);
        EXPECT_EQ(comp_searchByName(nullptr, n.comp.key, "x"), 0u);
    });
    // Null buffers are refused, not written through.
    EXPECT_EQ(comp_getComponent(&db.s, n.comp.key, nullptr), nullptr);
    EXPECT_EQ(db.s.error, static_cast<uint32_t>(KESDB_ERR_NULLARG));
    EXPECT_EQ(comp_setLeaf(&db.s, nullptr), KESDB_ERR_NULLARG);
}

TEST(TreeRecord, MissingMediumEntryAndUnopenableMedium) {
    {
        kt::DbOptions o;
        o.componentMedium = 5;  // not in the media table
        kt::Db db(o);
        ASSERT_GT(db.id, 0);
        Session* s = &db.s;
        CompRecord c{};
        LeafRecord l{};
        NodeRecord n{};
        std::string out = kt::captureStdout([&] { EXPECT_EQ(comp_getComponent(s, 16, &c), nullptr); });
        EXPECT_EQ(out, "comp_getComponent err3\n");
        EXPECT_EQ(s->error, static_cast<uint32_t>(KESDB_ERR_MEDIA_INDEX));
        out = kt::captureStdout([&] { EXPECT_EQ(comp_getLeaf(s, 16, &l), nullptr); });
        EXPECT_EQ(out, "comp_getLeaf err3 \n");  // no medium, no name
        EXPECT_EQ(s->error, static_cast<uint32_t>(KESDB_ERR_MEDIA_INDEX));
        n.comp.key = 16;
        EXPECT_EQ(comp_setNode(s, &n), KESDB_ERR_MEDIA_INDEX);
        EXPECT_EQ(comp_getNode(s, 16, &n), nullptr);
        EXPECT_EQ(s->error, static_cast<uint32_t>(KESDB_ERR_MEDIA_INDEX));
    }
    {
        kt::Db db;
        Session* s = &db.s;
        const NodeRecord made = makeNode(s);
        setenv("KESDB_DEFMEDIA", db.dir.file("missing.bin").c_str(), 1);
        CompRecord c{};
        LeafRecord l{};
        std::string out = kt::captureStdout([&] { EXPECT_EQ(comp_getComponent(s, made.comp.key, &c), nullptr); });
        EXPECT_EQ(out, "comp_getComponent err2\n");
        EXPECT_EQ(s->error, static_cast<uint32_t>(KESDB_ERR_COMP_OPEN));
        EXPECT_EQ(s->errorDetail, static_cast<uint32_t>(ENOENT));
        out = kt::captureStdout([&] { EXPECT_EQ(comp_getLeaf(s, made.comp.key, &l), nullptr); });
        EXPECT_EQ(out, "comp_getLeaf err1 \n");
        EXPECT_EQ(comp_setNode(s, &made), KESDB_ERR_COMP_OPEN);
        // A setter that cannot read its record returns the read's code.
        kt::captureStdout([&] { EXPECT_EQ(comp_setStringKey(s, made.comp.key, 1), KESDB_ERR_COMP_OPEN); });
    }
}

TEST(TreeRecord, ShortReadsAtTheEndOfTheMedium) {
    kt::Db db;
    Session* s = &db.s;
    const uint32_t key = kMediumSize - 10;  // 10 bytes before the end
    CompRecord c{};
    NodeRecord n{};
    LeafRecord l{};
    std::string out = kt::captureStdout([&] { EXPECT_EQ(comp_getComponent(s, key, &c), nullptr); });
    char expected[96];
    std::snprintf(expected, sizeof expected, "comp_getComponent err1 0xa 0x18 0x%x\n", key);
    EXPECT_EQ(out, expected);
    EXPECT_EQ(s->error, static_cast<uint32_t>(KESDB_ERR_COMP_READ));
    out = kt::captureStdout([&] { EXPECT_EQ(comp_getLeaf(s, key, &l), nullptr); });
    EXPECT_EQ(out, "comp_getLeaf err0  0xa\n");
    session_setError(s, 0, 0);
    EXPECT_EQ(comp_getNode(s, key, &n), nullptr);
    EXPECT_EQ(s->error, static_cast<uint32_t>(KESDB_ERR_COMP_READ));
}

TEST(TreeRecord, DriverFailuresOfReadsAndWrites) {
    tk::FaultComponents f;
    ASSERT_TRUE(f.ready());
    Session* s = &f.db.s;
    const NodeRecord n = makeNode(s);
    ASSERT_EQ(n.comp.key, 16u);

    f.shortOp(KESDRV_FAULT_WRITE, 1, 10);
    EXPECT_EQ(comp_setNode(s, &n), KESDB_ERR_COMP_WRITE);
    f.shortOp(KESDRV_FAULT_READ, 1, 7);
    CompRecord c{};
    const std::string out = kt::captureStdout([&] { EXPECT_EQ(comp_getComponent(s, 16, &c), nullptr); });
    EXPECT_EQ(out, "comp_getComponent err1 0x7 0x18 0x10\n");
    EXPECT_EQ(s->error, static_cast<uint32_t>(KESDB_ERR_COMP_READ));
    f.failFrom(KESDRV_FAULT_WRITE, 1, EIO);
    EXPECT_EQ(comp_setComponent(s, &n.comp), KESDB_ERR_COMP_WRITE);
    EXPECT_EQ(s->errorDetail, static_cast<uint32_t>(EIO));
    LeafRecord l{};
    f.failFrom(KESDRV_FAULT_OPEN, 1, EACCES);
    const std::string leafOut = kt::captureStdout([&] { EXPECT_EQ(comp_getLeaf(s, 16, &l), nullptr); });
    // A loaded medium's name is the configuration line's last token.
    EXPECT_EQ(leafOut, "comp_getLeaf err1 " + f.path + "\n");
    EXPECT_EQ(s->errorDetail, static_cast<uint32_t>(EACCES));
    // Every successful open was closed again.
    EXPECT_EQ(f.opens(), f.closes());
}

}  // namespace
