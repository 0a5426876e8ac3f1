// The path-based free-list allocator on real files, and laying down a medium. The first-fit
// walk it shares with the rooted allocator is covered in depth there.
#include <errno.h>
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>

#include "kesdbm/kesdbm.h"
#include "listkit.hpp"

namespace {

using lk::Free;
using mk::Bytes;
using mk::errorOf;
using mk::Pair;
using Element = mk::ListFile::Element;

class PathList : public ::testing::Test, public mk::ListFile {
protected:
    void SetUp() override { path = dir.file("list.bin"); }
    void make(uint32_t size, uint32_t first, std::initializer_list<Element> elements = {}) {
        lay(size, first, elements);
        s = Session{};
    }
    const char* p() const { return path.c_str(); }
    kt::TempDir dir;
    Session s{};
};

}  // namespace

TEST_F(PathList, GetFillsFragmentsAndSmallBodies) {
    // Remainder 5 is filled DE AD DE AD DE and lost; remainder 8 becomes an element, too small
    // for a body fill; zero bytes rewrite the element in place, its body filled with 0xBA. The
    // guard byte behind the element stays.
    struct Case { uint32_t size; Free after; Bytes at159; } cases[] = {
        {100, {{300, 50}}, Bytes(5, 0)},
        {95, {{300, 50}}, {0xDE, 0xAD, 0xDE, 0xAD, 0xDE}},
        {92, {{156, 8}, {300, 50}}, {}},
        {0, {{64, 100}, {300, 50}}, Bytes(5, 0xBA)},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.size);
        make(512, 64, {{64, 300, 100}, {300, 0, 50}});
        kt::writeBytes(path, 164, "\x77", 1);
        EXPECT_EQ(flst_get(&s, p(), c.size), 64u);
        EXPECT_EQ(lk::freeList(*this), c.after);
        if (!c.at159.empty()) { EXPECT_EQ(bytes(159, 5), c.at159); }
        EXPECT_EQ(bytes(164, 1), Bytes{0x77});
    }
    // Bodies of split-off elements up to 1024 bytes are filled with 0xBA; larger ones are not.
    for (auto [size, marked] : {Pair{9, 1}, {1032, 1024}, {1033, 0}}) {
        SCOPED_TRACE(size);
        make(2200, 16, {{16, 0, size + 8}});
        EXPECT_EQ(flst_get(&s, p(), 8), 16u);
        EXPECT_EQ(element(24), Pair(0, size));
        const Bytes body = bytes(32, 1030);
        uint32_t n = 0;
        while (n < body.size() && body[n] == 0xBA) ++n;
        EXPECT_EQ(n, marked);
    }
    EXPECT_EQ(s.error, 0u);
}

TEST_F(PathList, ReleaseExaminesOnlyTheHead) {
    struct Case { const char* what; uint32_t key, size, anchorAfter; Pair element; } cases[] = {
        {"in front, apart", 20, 16, 20, {48, 16}},
        {"adjoining the head", 32, 16, 32, {200, 48}},
        {"over the anchor", 12, 8, 48, {48, 8}},
        {"over the anchor, merged", 12, 36, 200, {200, 68}},
        {"behind the head", 100, 16, 48, {0, 0}},
        {"overlapping the head", 40, 16, 48, {0, 0}},
        {"beyond 4 GiB", 0xFFFFFFF0u, 0x20, 48, {0, 0}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        make(256, 48, {{48, 200, 32}});
        EXPECT_EQ(flst_release(&s, p(), c.key, c.size), 0);
        EXPECT_EQ(word(12), c.anchorAfter);
        EXPECT_EQ(element(c.key), c.element);
        EXPECT_EQ(s.error, 0u);
    }
    make(256, 254);  // the head cannot be read: nothing changes, 55 recorded
    const Bytes before = all();
    EXPECT_EQ(flst_release(&s, p(), 20, 16), 0);
    EXPECT_EQ(all(), before);
    EXPECT_EQ(s.error, 55u);
}

TEST_F(PathList, PrimitivesAndTheirFailures) {
    make(64, 0);
    EXPECT_EQ(flst_setFirstOffset(&s, p(), 40), 0);
    EXPECT_EQ(flst_getFirstOffset(&s, p()), 40u);
    EXPECT_EQ(flst_setNext(&s, p(), 40, 0x11223344u), 0);
    EXPECT_EQ(word(40), 0x11223344u);
    EXPECT_EQ(flst_fillFlagmented(&s, p(), 50, 3), 0);
    EXPECT_EQ(bytes(50, 4), (Bytes{0xDE, 0xAD, 0xDE, 0x00}));
    EXPECT_EQ(flst_fillFlagmented(&s, p(), 50, 9), 54);  // more than a fragment
    EXPECT_EQ(errorOf(s), Pair(54, EINVAL));
    // 4 to 7 bytes read: accepted with size 0; fewer: 55, detail 0, the buffer untouched.
    FreeElement e{9, 9};
    EXPECT_EQ(flst_getElement(&s, p(), 58, &e), &e);
    EXPECT_EQ(e.size, 0u);
    e = FreeElement{9, 9};
    EXPECT_EQ(flst_getElement(&s, p(), 61, &e), nullptr);
    EXPECT_EQ(errorOf(s), Pair(55, 0));
    EXPECT_EQ(e.next, 9u);
    const FreeElement written{0x40, 8};
    EXPECT_EQ(flst_setElement(&s, p(), 16, &written), 0);
    EXPECT_EQ(element(16), Pair(0x40, 8));
    EXPECT_EQ(flst_getElement(&s, p(), 16, nullptr), nullptr);
    EXPECT_EQ(s.error, 89u);
    // A missing file: 53 with ENOENT from every operation, never created.
    const std::string none = dir.file("none.bin");
    const std::pair<const char*, std::function<int64_t()>> missing[] = {
        {"getFirstOffset", [&] { return flst_getFirstOffset(&s, none.c_str()); }},
        {"setNext", [&] { return flst_setNext(&s, none.c_str(), 16, 0) - 53; }},
        {"setElement", [&] { return flst_setElement(&s, none.c_str(), 16, &e) - 53; }},
        {"get", [&] { return flst_get(&s, none.c_str(), 8); }},
        {"release", [&] { return flst_release(&s, none.c_str(), 16, 8); }},
    };
    for (const auto& [what, call] : missing) {
        SCOPED_TRACE(what);
        s = Session{};
        EXPECT_EQ(call(), 0);
        EXPECT_EQ(errorOf(s), Pair(53, ENOENT));
    }
    EXPECT_EQ(flst_setFirstOffset(&s, nullptr, 16), 53);
    EXPECT_EQ(kt::readFile(none), "");
    // A directory: the write-side open fails (53), reading fails after the open (55).
    EXPECT_EQ(flst_setNext(&s, dir.path().c_str(), 16, 0), 53);
    EXPECT_EQ(errorOf(s), Pair(53, EISDIR));
    EXPECT_EQ(flst_getFirstOffset(&s, dir.path().c_str()), 0u);
    EXPECT_EQ(errorOf(s), Pair(55, EISDIR));
}

TEST_F(PathList, BrokenListsEndTheWalk) {
    // 55 with the key holding the bad link (12: the anchor) as detail; nothing changes.
    struct Case { const char* what; uint32_t first; Element a, b; uint32_t getSize, detail; } cases[] = {
        {"loop", 32, {32, 64, 16}, {64, 32, 16}, 40, 64},
        {"first key in the header", 8, {32, 0, 16}, {32, 0, 16}, 4, 12},
        {"beyond 4 GiB", 32, {32, 0, 0xFFFFFFF0u}, {32, 0, 0xFFFFFFF0u}, 16, 32},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        make(256, c.first, {c.a, c.b});
        const Bytes before = all();
        EXPECT_EQ(flst_get(&s, p(), c.getSize), 0u);
        EXPECT_EQ(errorOf(s), Pair(55, c.detail));
        EXPECT_EQ(all(), before);
    }
}

TEST(LayMedium, HeaderAndOneFreeElement) {
    kt::TempDir dir;
    const std::string path = dir.file("m.bin");
    EXPECT_EQ(kesdb_layMedium(path.c_str(), 23, 0), EINVAL);
    EXPECT_EQ(kt::readFile(path), "");
    EXPECT_EQ(kesdb_layMedium(nullptr, 100, 0), EINVAL);
    EXPECT_EQ(kesdb_layMedium(dir.file("no/such/dir").c_str(), 100, 0), ENOENT);
    kt::writeFile(path, std::string(500, 'x'));  // truncated and zeroed
    ASSERT_EQ(kesdb_layMedium(path.c_str(), 100, 0x40), 0);
    const uint32_t expect[6] = {0, 0, 0x40, 16, 0, 84};
    Bytes image(100, 0);
    std::memcpy(image.data(), expect, sizeof expect);
    EXPECT_EQ(kt::readBytes(path, 0, 200), image);
    ASSERT_EQ(kesdb_layMedium(path.c_str(), 24, 0), 0);  // the smallest serves one 8-byte block
    Session s{};
    EXPECT_EQ(flst_get(&s, path.c_str(), 8), 16u);
    EXPECT_EQ(kt::readWord(path, 12), 0u);
    EXPECT_EQ(flst_get(&s, path.c_str(), 8), 0u);
}
