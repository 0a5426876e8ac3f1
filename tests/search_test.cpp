// Navigation and search: child count and position, path search with its codes and its
// diagnostic lines, and searches over damaged trees that must end.
#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "testkit.hpp"
#include "treekit.hpp"

namespace {

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
    std::pair<uint32_t, std::string> search(uint32_t from, const char* path) {
        return tk::keyAndOutput([&] { return comp_searchByName(s, from, path); });
    }
};

// One search from a member of the example tree, the member it finds (null: none), what it
// prints, and for a failed search the code and detail it leaves in a cleared session.
struct Case {
    uint32_t Example::*from;
    const char* path;
    uint32_t Example::*found;
    std::string printed;
    int32_t error = 0;
    uint32_t Example::*detail = nullptr;
};

class Search : public ::testing::Test {
protected:
    kt::Db db;
    Session* s = &db.s;
    Example e{s};
};

TEST_F(Search, PathsThatReachOrEndTheSearch) {
    using E = Example;  // members named in the table
    const std::string ng21 = std::string(kNG2) + kNG1;
    const Case cases[] = {
        {&E::root, "/net/ip", &E::ip, ""},
        {&E::root, "/net", &E::net, ""},
        {&E::root, "/time", &E::time, ""},
        {&E::root, "/", &E::root, ""},
        // A childless node is found by its path followed by '/' and anything.
        {&E::root, "/net/dns/x", &E::dns, ""},
        // From another component the path starts with that component's own name.
        {&E::net, "net/dns", &E::dns, ""},
        {&E::ip, "/ip", &E::ip, ""},
        // /ip and /dns record 100, net prints NG2 and records 5; the root stops at once (NG1)
        // and time is never tried.
        {&E::root, "/net/xy", nullptr, ng21, KESDB_ERR_COMP_ENDSEARCH, &E::net},
        // time is a prefix of "times" but a leaf with a rest: the root ends it.
        {&E::root, "/times", nullptr, kNG2, KESDB_ERR_COMP_ENDSEARCH, &E::root},
        // A node with children is not found by its path followed by '/': the children decide.
        {&E::root, "/net/", nullptr, ng21, KESDB_ERR_COMP_ENDSEARCH, &E::net},
        // The first name differs: 100 with the component's key, nothing printed.
        {&E::root, "x/net", nullptr, "", KESDB_ERR_COMP_NOMATCH, &E::root},
        {&E::root, "/ne", nullptr, kNG2, KESDB_ERR_COMP_ENDSEARCH, &E::root},
        {&E::dns, "/dnsx", nullptr, kNG2, KESDB_ERR_COMP_ENDSEARCH, &E::dns},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.path);
        session_setError(s, 0, 0);
        EXPECT_EQ(e.search(e.*c.from, c.path), std::make_pair(c.found ? e.*c.found : 0u, c.printed));
        if (c.found) continue;  // a search that finds may keep the code of a sibling it passed
        EXPECT_EQ(mk::errorOf(*s), mk::Pair(c.error, e.*c.detail));
    }
    // A session that already holds 5 has the same effect as a 5 recorded during this search.
    session_setError(s, KESDB_ERR_COMP_ENDSEARCH, 77);
    EXPECT_EQ(e.search(e.dns, "/dnsx"), std::make_pair(0u, std::string()));
    EXPECT_EQ(s->errorDetail, 77u);
}

TEST_F(Search, ChildCountPositionAndBadInput) {
    EXPECT_EQ(comp_getChildCount(s, e.net), 2);
    EXPECT_EQ(comp_getChildCount(s, e.dns), 0);
    EXPECT_EQ(s->error, 0u);
    EXPECT_EQ(comp_getChildCount(s, e.time), 0);
    EXPECT_EQ(tk::err(s), KESDB_ERR_COMP_NOTNODE);

    session_setError(s, 0, 0);
    EXPECT_EQ(comp_getChildByIndex(s, e.root, 0), e.net);
    EXPECT_EQ(comp_getChildByIndex(s, e.root, 1), e.time);
    EXPECT_EQ(comp_getChildByIndex(s, e.root, 2), 0u);
    EXPECT_EQ(comp_getChildByIndex(s, e.root, -1), 0u);
    EXPECT_EQ(s->error, 0u);  // the end of the list records nothing
    EXPECT_EQ(comp_getChildByIndex(s, e.time, 0), 0u);
    EXPECT_EQ(tk::err(s), KESDB_ERR_COMP_NOTNODE);
    EXPECT_EQ(comp_getChildByIndex(s, 0, 0), 0u);
    EXPECT_EQ(tk::err(s), KESDB_ERR_COMP_NULLKEY);

    EXPECT_EQ(e.search(e.root, nullptr), std::make_pair(0u, std::string()));
    EXPECT_EQ(tk::err(s), KESDB_ERR_NULLARG);
    EXPECT_EQ(e.search(0, "/"), std::make_pair(0u, std::string()));
    EXPECT_EQ(tk::err(s), KESDB_ERR_COMP_NULLKEY);
    // A block that is no component (its key word is 0).
    EXPECT_EQ(e.search(60000, "/"), std::make_pair(0u, std::string()));
    EXPECT_EQ(tk::err(s), KESDB_ERR_COMP_READ);
    EXPECT_EQ(comp_getChildCount(s, 60000), 0);

    Session bad = tk::unregistered(*s);
    EXPECT_EQ(tk::keyAndOutput([&] { return comp_searchByName(&bad, e.root, "/"); }),
              std::make_pair(0u, std::string("comp_getComponent err4\n")));
    EXPECT_EQ(tk::err(&bad), KESDB_ERR_DB_NOTFOUND);
    EXPECT_EQ(comp_getChildCount(&bad, e.root), 0);
    EXPECT_EQ(comp_getChildByIndex(&bad, e.root, 0), 0u);

    // A name that cannot be fetched (its text lies in a medium the table does not have).
    ASSERT_EQ(comp_setStringKey(s, e.ip, tk::danglingString(s, 77)), 0);
    EXPECT_EQ(e.search(e.root, "/net/ip"), std::make_pair(0u, std::string(kNG2) + kNG1));
    // Names are read into 256 bytes: the first 255 characters of a longer one are the name.
    const std::string longName(300, 'n');
    const uint32_t big = tk::leaf(s, e.root, e.time, longName);
    EXPECT_EQ(e.search(e.root, ("/" + longName.substr(0, 255)).c_str()), std::make_pair(big, std::string()));
    EXPECT_EQ(e.search(e.root, ("/net/" + std::string(10000, 'z')).c_str()).first, 0u);
}

TEST_F(Search, LoopedListsAndCyclesEndTheSearch) {
    // net's list loops: /dns links back to /ip. Nothing matches, so the search would go round.
    ASSERT_EQ(comp_setNextSibling(s, e.dns, e.ip), 0);
    EXPECT_EQ(e.search(e.root, "/net/zz"), std::make_pair(0u, std::string()));
    EXPECT_EQ(tk::err(s), KESDB_ERR_COMP_READ);
    EXPECT_EQ(comp_getChildCount(s, e.net), 0);
    EXPECT_EQ(tk::err(s), KESDB_ERR_COMP_READ);
    ASSERT_EQ(comp_setNextSibling(s, e.dns, 0), 0);

    // /dns names net as its first child: /net/dns/net/dns/... is endlessly deep.
    ASSERT_EQ(comp_setFirstChild(s, e.dns, e.net), 0);
    std::string path = "/";
    for (int i = 0; i < 600; ++i) path += "net/dns";
    EXPECT_EQ(e.search(e.root, path.c_str()), std::make_pair(0u, std::string()));
    EXPECT_EQ(tk::err(s), KESDB_ERR_COMP_READ);
    // Short paths through the cycle still work.
    EXPECT_EQ(e.search(e.root, "/net/dnsnet/dnsnet/ip").first, e.ip);
    // An empty name matches every path without using it up: with a node named "" that holds
    // itself, every level sees the same path.
    const uint32_t empty = tk::node(s, e.root, 0, "");
    ASSERT_NE(empty, 0u);
    ASSERT_EQ(comp_setFirstChild(s, empty, empty), 0);
    session_setError(s, 0, 0);
    EXPECT_EQ(e.search(empty, "q").first, 0u);
    EXPECT_EQ(tk::err(s), KESDB_ERR_COMP_READ);
}

}  // namespace
