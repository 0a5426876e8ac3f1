// The consistency checker of the test kit: silent on a database built through the library,
// and each planted kind of damage is reported under its own rule with the damaged record
// among its places.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>

#include "consistency.hpp"
#include "testkit.hpp"
#include "treekit.hpp"
#include "valcstrtkit.hpp"

namespace {

// A small tree, all four kinds of record in the built-in medium:
//   /  (node) -> name (String leaf), net (node) -> ip (Uint32 leaf, range on its current
//   value), port (Uint16 leaf, enumeration on its current value).
class Consistency : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_GT(db.id, 0);
        root = tk::makeRoot(s, "/");
        net = tk::node(s, root, 0, "net");
        const char text[] = "eth0";
        nameLeaf = tk::leaf(s, root, net, "name", value_create(s, String, 0, text, sizeof text, 0),
                            value_create(s, String, 0, text, sizeof text, 0),
                            value_create(s, String, 0, text, sizeof text, 0));
        ipValue = tk::u32(s, 7);
        ip = tk::leaf(s, net, 0, "ip", ipValue, tk::u32(s, 1), tk::u32(s, 2));
        portValue = vk::make<uint16_t>(s, Uint16, 80);
        port = tk::leaf(s, net, ip, "port", portValue, vk::make<uint16_t>(s, Uint16, 80),
                        vk::make<uint16_t>(s, Uint16, 80));
        range = vk::newRange<RangeRecordU32, uint32_t>(s, rangeU32_new, Uint32, 0, 100);
        ASSERT_EQ(value_setConstraintKey(s, ipValue, range), 0);
        const uint32_t array = constraint_newEnumArray(s, 2, 2);
        EnumRecord e{0, Uint16 * KESDB_CSTRT_ENUM_FACTOR, array, 2, 2};
        ASSERT_NE(enum_new(s, &e), nullptr);
        enumKey = e.key;
        const uint16_t members[2] = {80, 443};
        ASSERT_EQ(enum_setData(s, enumKey, 2, 2, members), 0);
        ASSERT_EQ(value_setConstraintKey(s, portValue, enumKey), 0);
        ASSERT_EQ(tk::childNames(s, net), "ip,port");
        ASSERT_EQ(tk::childNames(s, root), "net,name");
        layout.files[0] = db.mediumPath;
    }

    void put(uint32_t offset, uint32_t word) { kt::writeBytes(db.mediumPath, offset, &word, 4); }
    uint32_t get(uint32_t offset) const { return kt::readWord(db.mediumPath, offset); }

    // The report after `damage`, which must name `rule` with `key` among its places.
    void expectReported(const std::string& rule, uint32_t key, const std::function<void()>& damage) {
        SCOPED_TRACE(rule);
        const std::string before = kt::readFile(db.mediumPath);
        damage();
        const ck::Report r = ck::check(layout);
        bool found = false;
        for (const ck::Violation& v : r.violations)
            for (const ck::Place& p : v.places) found |= v.rule == rule && p.key <= key && key < p.key + p.size;
        EXPECT_TRUE(found) << r.text();
        kt::writeFile(db.mediumPath, before);
        EXPECT_TRUE(ck::check(layout).ok());
    }

    kt::Db db;
    Session* s = &db.s;
    ck::Layout layout;
    uint32_t root = 0, net = 0, nameLeaf = 0, ip = 0, port = 0, ipValue = 0, portValue = 0, range = 0, enumKey = 0;
};

TEST_F(Consistency, ADatabaseBuiltThroughTheLibraryIsConsistentAndCounted) {
    const ck::Report r = ck::check(layout);
    EXPECT_TRUE(r.ok()) << r.text();
    EXPECT_EQ(r.nodes, 2u);
    EXPECT_EQ(r.leaves, 3u);
    EXPECT_EQ(r.values, 9u);
    EXPECT_EQ(r.strings, 5u);
    EXPECT_EQ(r.constraints, 2u);
    EXPECT_EQ(r.freeElements.at(0), 1u);
    EXPECT_EQ(r.dataAreas.size(), 9u);
    // Moves, deletions and releases keep it so.
    ASSERT_EQ(kesDBMMoveLeaf(s, port, root, 0), 0);
    ASSERT_EQ(kesDBMDeleteComponent(s, net), 0);  // ip takes its place under the root
    ASSERT_EQ(kesDBMDeleteValue(s, leaf_getFactoryValueKey(s, ip)), 0);
    ASSERT_EQ(leaf_setFactoryValueKey(s, ip, 0), 0);
    const ck::Report after = ck::check(layout);
    EXPECT_TRUE(after.ok()) << after.text();
    EXPECT_EQ(after.nodes, 1u);
    EXPECT_EQ(after.values, 8u);
    EXPECT_EQ(after.freeElements.at(0), 3u);  // node, value record, and the rest of the medium
}

TEST_F(Consistency, DamagedComponentsAndLinksAreReported) {
    expectReported("T2", ip, [&] { put(ip, 0x1234); });                 // own key
    expectReported("T2", net, [&] { put(net + 24, 0x7FFFFFF0); });      // a first child outside the medium
    expectReported("T3", net, [&] { put(net + 20, 7); });               // kind
    expectReported("T3", ip, [&] { put(ip + 8, 1); });                  // reserved word
    expectReported("T4", ip, [&] { put(ip + 12, root); });              // parent word
    expectReported("T5", ip, [&] { put(port + 16, ip); });              // a looped sibling list
    expectReported("T5", ip, [&] { put(nameLeaf + 16, ip); });          // a list sharing another's tail
    expectReported("T1", root, [&] { put(root + 12, net); });           // a root with a parent
    layout.hookCount = 0;
    expectReported("T6", ip, [&] { put(ip + 36, 1); });                 // hook index beyond the table
}

TEST_F(Consistency, DamagedNamesValuesAndConstraintsAreReported) {
    const uint32_t entry = comp_getStringKey(s, ip);
    StringEntry e{};
    ASSERT_NE(kesdb_getStrEntry(s, entry, &e), nullptr);
    expectReported("S1", ip, [&] { put(ip + 4, entry + 4); });                        // not an entry
    expectReported("S2", entry, [&] { put(entry + 12, 0); });                         // no text
    expectReported("S2", entry, [&] { put(e.textOffset, 0x78787878); });              // NUL gone ("ip\0" -> "xxxx")
    expectReported("V1", ip, [&] { put(ip + 28, ipValue + 4); });                     // default key off its record
    expectReported("V2", ipValue, [&] { put(ipValue + 4, 12); });                     // type
    expectReported("V3", ipValue, [&] { put(ipValue + 16, 0x10000000); });            // data beyond the file
    expectReported("V3", ipValue, [&] { put(ipValue + 8, 5); });                      // unknown data medium
    expectReported("C1", ipValue, [&] { put(ipValue + 24, range + 4); });             // constraint key off its record
    expectReported("C2", range, [&] { put(range + 4, 1); });                          // type
    expectReported("C3", enumKey, [&] { put(enumKey + 12, 4); });                     // element size
    expectReported("C3", enumKey, [&] { put(enumKey + 16, 0x10000000); });            // array beyond the file
}

TEST_F(Consistency, DamagedFreeListsAndOverlapsAreReported) {
    const uint32_t first = get(12);
    expectReported("M2", first, [&] { put(first + 4, 4); });                          // size below an element
    expectReported("M2", first, [&] { put(first + 4, 0x7FFFFFFF); });                 // beyond the file
    expectReported("M2", 12, [&] { put(12, 8); });                                    // inside the header
    // An element behind the first whose successor goes backwards.
    expectReported("M2", first + 64, [&] {
        put(first + 4, 32);
        put(first, first + 64);
        put(first + 64, first + 8);
        put(first + 68, 16);
    });
    // A live record given back to the allocator: its first word becomes the element's link,
    // so it no longer begins with its key.
    expectReported("T2", ip, [&] { ASSERT_EQ(flst_m_release(s, 0, ip, 40), 0); });
    // The tail of a live record given back: free space inside a reachable record.
    expectReported("P2", ip + 32, [&] { ASSERT_EQ(flst_m_release(s, 0, ip + 32, 8), 0); });
    // A data area laid over a component record.
    expectReported("P1", net, [&] { put(ipValue + 12, net); });
    // Two leaves sharing a value is no damage.
    ASSERT_EQ(leaf_setDefaultValueKey(s, port, portValue), 0);
    EXPECT_TRUE(ck::check(layout).ok()) << ck::check(layout).text();
}

TEST_F(Consistency, ShortOrMissingMediaAreReported) {
    layout.files[0] = db.dir.file("none");
    const ck::Report r = ck::check(layout);
    ASSERT_EQ(r.violations.size(), 1u);
    EXPECT_EQ(r.violations[0].rule, "M1");
    // An empty tree is consistent.
    kesdb_layMedium(db.dir.file("empty").c_str(), 4096, 0);
    layout.files[0] = db.dir.file("empty");
    EXPECT_TRUE(ck::check(layout).ok());
}

}  // namespace
