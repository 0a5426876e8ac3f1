// Navigation and search: child count and position, path search with its codes and its
// diagnostic lines, and searches over damaged trees that must end.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "testkit.hpp"
#include "treekit.hpp"

namespace {

[[maybe_unused]] const int kHostOrderElements = setenv("SIM_BYTE_ORDER", "BIG_ENDIAN", 1);

const char* const kNG1 = "comp_searchByName NG1 KESDB_ERR_COMP_ENDSEARCH\n";
const char* const kNG2 = "comp_searchByName NG2 KESDB_ERR_COMP_ENDSEARCH\n";

// A root named / with the children net (a node) and time (a leaf); below net the leaf /ip
// and the node /dns, which has no children.
struct Example {
    Session* s;
    uint32_t root = 0, net = 0, time = 0, ip = 0, dns = 0;
    explicit Example(Session* session) : s(session) {
        root = tk::makeRoot(s, "/");
        time = tk::leaf(s, root, 0, "time");
        net = tk::node(s, root, 0, "net");
        dns = tk::node(s, net, 0, "/dns");
        ip = tk::leaf(s, net, 0, "/ip");
        EXPECT_TRUE(root && time && net && dns && ip);
        EXPECT_EQ(tk::childNames(s, root), "net,time");
        EXPECT_EQ(tk::childNames(s, net), "/ip,/dns");
    }
    // Searches from `from`, returning the key found and what was printed.
    std::pair<uint32_t, std::string> search(uint32_t from, const char* path) {
        uint32_t found = 0;
        const std::string out = kt::captureStdout([&] { found = comp_searchByName(s, from, path); });
        return {found, out};
    }
};

TEST(Search, PathsThatReachAComponent) {
    kt::Db db;
    Example e(&db.s);
    Session* s = &db.s;
    EXPECT_EQ(e.search(e.root, "/net/ip"), std::make_pair(e.ip, std::string()));
    EXPECT_EQ(e.search(e.root, "/time"), std::make_pair(e.time, std::string()));
    EXPECT_EQ(e.search(e.root, "/net"), std::make_pair(e.net, std::string()));
    EXPECT_EQ(e.search(e.root, "/"), std::make_pair(e.root, std::string()));
    // A childless node is found by its path followed by '/' and anything.
    EXPECT_EQ(e.search(e.root, "/net/dns/x"), std::make_pair(e.dns, std::string()));
    EXPECT_EQ(e.search(e.root, "/net/dns/"), std::make_pair(e.dns, std::string()));
    // From another component the path starts with that component's own name.
    EXPECT_EQ(e.search(e.net, "net/dns"), std::make_pair(e.dns, std::string()));
    EXPECT_EQ(e.search(e.ip, "/ip"), std::make_pair(e.ip, std::string()));
    (void)s;
}

TEST(Search, PathsThatEndTheSearch) {
    kt::Db db;
    Example e(&db.s);
    Session* s = &db.s;

    // /ip and /dns record 100, net prints NG2 and records 5; the root stops at once (NG1) and
    // time is never tried.
    auto r = e.search(e.root, "/net/xy");
    EXPECT_EQ(r.first, 0u);
    EXPECT_EQ(r.second, std::string(kNG2) + kNG1);
    EXPECT_EQ(s->error, static_cast<uint32_t>(KESDB_ERR_COMP_ENDSEARCH));
    EXPECT_EQ(s->errorDetail, e.net);

    // time is a prefix of "times" but a leaf with a rest: no code of its own; the root ends it.
    session_setError(s, 0, 0);
    r = e.search(e.root, "/times");
    EXPECT_EQ(r.first, 0u);
    EXPECT_EQ(r.second, kNG2);
    EXPECT_EQ(s->error, static_cast<uint32_t>(KESDB_ERR_COMP_ENDSEARCH));
    EXPECT_EQ(s->errorDetail, e.root);

    // A node with children is not found by its path followed by '/': the children decide.
    session_setError(s, 0, 0);
    r = e.search(e.root, "/net/");
    EXPECT_EQ(r.first, 0u);
    EXPECT_EQ(r.second, std::string(kNG2) + kNG1);
    EXPECT_EQ(s->errorDetail, e.net);

    // The first name differs: 100 with the component's key, nothing printed.
    session_setError(s, 0, 0);
    r = e.search(e.root, "x/net");
    EXPECT_EQ(r, std::make_pair(0u, std::string()));
    EXPECT_EQ(s->error, static_cast<uint32_t>(KESDB_ERR_COMP_NOMATCH));
    EXPECT_EQ(s->errorDetail, e.root);
    // A path shorter than a name does not match it.
    session_setError(s, 0, 0);
    r = e.search(e.root, "/ne");
    EXPECT_EQ(r, std::make_pair(0u, std::string(kNG2)));

    // A childless node whose name leaves a rest: NG2, unless the session already holds 5,
    // which has the same effect as a 5 recorded during this search.
    session_setError(s, 0, 0);
    r = e.search(e.dns, "/dnsx");
    EXPECT_EQ(r, std::make_pair(0u, std::string(kNG2)));
    EXPECT_EQ(s->errorDetail, e.dns);
    session_setError(s, KESDB_ERR_COMP_ENDSEARCH, 77);
    r = e.search(e.dns, "/dnsx");
    EXPECT_EQ(r, std::make_pair(0u, std::string()));
    EXPECT_EQ(s->errorDetail, 77u);
}

TEST(Search, ChildCountAndPosition) {
    kt::Db db;
    Example e(&db.s);
    Session* s = &db.s;
    EXPECT_EQ(comp_getChildCount(s, e.net), 2);
    EXPECT_EQ(comp_getChildCount(s, e.root), 2);
    EXPECT_EQ(comp_getChildCount(s, e.dns), 0);
    EXPECT_EQ(s->error, 0u);
    EXPECT_EQ(comp_getChildCount(s, e.time), 0);
    EXPECT_EQ(s->error, static_cast<uint32_t>(KESDB_ERR_COMP_NOTNODE));

    session_setError(s, 0, 0);
    EXPECT_EQ(comp_getChildByIndex(s, e.root, 0), e.net);
    EXPECT_EQ(comp_getChildByIndex(s, e.root, 1), e.time);
    EXPECT_EQ(comp_getChildByIndex(s, e.root, 2), 0u);
    EXPECT_EQ(comp_getChildByIndex(s, e.root, -1), 0u);
    EXPECT_EQ(s->error, 0u);  // the end of the list records nothing
    EXPECT_EQ(comp_getChildByIndex(s, e.time, 0), 0u);
    EXPECT_EQ(s->error, static_cast<uint32_t>(KESDB_ERR_COMP_NOTNODE));
    EXPECT_EQ(comp_getChildByIndex(s, 0, 0), 0u);
    EXPECT_EQ(s->error, static_cast<uint32_t>(KESDB_ERR_COMP_NULLKEY));
}

TEST(Search, BadInput) {
    kt::Db db;
    Example e(&db.s);
    Session* s = &db.s;
    EXPECT_EQ(e.search(e.root, nullptr), std::make_pair(0u, std::string()));
    EXPECT_EQ(s->error, static_cast<uint32_t>(KESDB_ERR_NULLARG));
    EXPECT_EQ(e.search(0, "/"), std::make_pair(0u, std::string()));
    EXPECT_EQ(s->error, static_cast<uint32_t>(KESDB_ERR_COMP_NULLKEY));
    // A block that is no component (its key word is 0).
    EXPECT_EQ(e.search(60000, "/"), std::make_pair(0u, std::string()));
    EXPECT_EQ(s->error, static_cast<uint32_t>(KESDB_ERR_COMP_READ));
    EXPECT_EQ(comp_getChildCount(s, 60000), 0);

    Session bad = *s;
    bad.dbId = 30;
    uint32_t found = 1;
    const std::string out = kt::captureStdout([&] { found = comp_searchByName(&bad, e.root, "/"); });
    EXPECT_EQ(found, 0u);
    EXPECT_EQ(out, "comp_getComponent err4\n");
    EXPECT_EQ(bad.error, static_cast<uint32_t>(KESDB_ERR_DB_NOTFOUND));
    EXPECT_EQ(comp_getChildCount(&bad, e.root), 0);
    EXPECT_EQ(comp_getChildByIndex(&bad, e.root, 0), 0u);

    // A name that cannot be fetched (its text lies in a medium the table does not have).
    StringEntry entry{};
    ASSERT_NE(str_newEntry(s, &entry), nullptr);
    entry.textMedium = 77;
    entry.textLength = 4;
    str_setEntry(s, &entry);
    ASSERT_EQ(comp_setStringKey(s, e.ip, entry.key), 0);
    auto r = e.search(e.root, "/net/ip");
    EXPECT_EQ(r.first, 0u);
    EXPECT_EQ(r.second, std::string(kNG2) + kNG1);  // /dns did not match either
}

TEST(Search, NamesLongerThanTheNameBuffer) {
    kt::Db db;
    Example e(&db.s);
    Session* s = &db.s;
    const std::string longName(300, 'n');
    const uint32_t big = tk::leaf(s, e.root, e.time, longName);
    ASSERT_NE(big, 0u);
    // Names are read into 256 bytes: the first 255 characters are the name.
    EXPECT_EQ(e.search(e.root, ("/" + longName.substr(0, 255)).c_str()), std::make_pair(big, std::string()));
    // The full 300 leave a rest of 45 characters after a leaf: not found.
    auto r = e.search(e.root, ("/" + longName).c_str());
    EXPECT_EQ(r, std::make_pair(0u, std::string(kNG2)));
    // A path far longer than any name.
    const std::string huge = "/net/" + std::string(10000, 'z');
    r = e.search(e.root, huge.c_str());
    EXPECT_EQ(r.first, 0u);
}

TEST(Search, LoopedListsAndCyclesEndTheSearch) {
    kt::Db db;
    Example e(&db.s);
    Session* s = &db.s;
    // net's list loops: /dns links back to /ip. Nothing matches, so the search would go round.
    ASSERT_EQ(comp_setNextSibling(s, e.dns, e.ip), 0);
    auto r = e.search(e.root, "/net/zz");
    EXPECT_EQ(r, std::make_pair(0u, std::string()));
    EXPECT_EQ(s->error, static_cast<uint32_t>(KESDB_ERR_COMP_READ));
    EXPECT_EQ(comp_getChildCount(s, e.net), 0);
    EXPECT_EQ(s->error, static_cast<uint32_t>(KESDB_ERR_COMP_READ));
    ASSERT_EQ(comp_setNextSibling(s, e.dns, 0), 0);

    // /dns names net as its first child: /net/dns/net/dns/... is endlessly deep.
    ASSERT_EQ(comp_setFirstChild(s, e.dns, e.net), 0);
    std::string path = "/";
    for (int i = 0; i < 600; ++i) path += "net/dns";
    r = e.search(e.root, path.c_str());
    EXPECT_EQ(r, std::make_pair(0u, std::string()));
    EXPECT_EQ(s->error, static_cast<uint32_t>(KESDB_ERR_COMP_READ));
    // Short paths through the cycle still work.
    EXPECT_EQ(e.search(e.root, "/net/dnsnet/dnsnet/ip").first, e.ip);
    // An empty name matches every path without using it up: with a node named "" that holds
    // itself, every level sees the same path.
    const uint32_t empty = tk::node(s, e.root, 0, "");
    ASSERT_NE(empty, 0u);
    ASSERT_EQ(comp_setFirstChild(s, empty, empty), 0);
    session_setError(s, 0, 0);
    EXPECT_EQ(e.search(empty, "q").first, 0u);
    EXPECT_EQ(s->error, static_cast<uint32_t>(KESDB_ERR_COMP_READ));
}

}  // namespace
