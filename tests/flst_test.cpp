// The path-based free-list allocator on real files, and laying down a medium.
#include <errno.h>
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <functional>
#include <string>

#include "kesdbm/kesdbm.h"
#include "mediakit.hpp"

namespace {

using mk::Bytes;
using Element = std::array<uint32_t, 3>;  // key, next, size

// A file of `size` zero bytes with the anchor word set and the given elements.
class PathList : public ::testing::Test, public mk::ListFile {
protected:
    void make(uint32_t size, uint32_t first, std::initializer_list<Element> elements = {}) {
        kt::writeFile(path, std::string(size, '\0'));
        anchor(first);
        for (const Element& e : elements) put(e[0], e[1], e[2]);
        s = Session{};
    }
    // The element at `key` is {next, size}.
    void expectElement(uint32_t key, uint32_t next, uint32_t size) {
        EXPECT_EQ(word(key), next) << "next of " << key;
        EXPECT_EQ(word(key + 4), size) << "size of " << key;
    }
    kt::TempDir dir;
    Session s{};
    const char* p() const { return path.c_str(); }
    void SetUp() override { path = dir.file("list.bin"); }
};

}  // namespace

TEST_F(PathList, GetWholeFragmentedAndSplit) {
    make(256, 0, {{64, 0, 100}});  // an element that is not on the list
    Bytes before = all();
    EXPECT_EQ(flst_get(&s, p(), 8), 0u);
    EXPECT_EQ(flst_release(&s, p(), 32, 16), 0);
    EXPECT_EQ(all(), before);
    EXPECT_EQ(flst_getAnchorOffset(nullptr, nullptr), 12u);

    // Exact fit leaves the list; remainder 5 is filled DE AD DE AD DE and lost; remainder 8
    // becomes an element without body fill; zero bytes leave the element free.
    struct Case {
        uint32_t size, anchorAfter;
        Bytes at159;  // 6 bytes from 159 (164 holds a guard byte 0x77); empty: not checked
    } cases[] = {
        {100, 300, {0, 0, 0, 0, 0, 0x77}},
        {95, 300, {0xDE, 0xAD, 0xDE, 0xAD, 0xDE, 0x77}},
        {92, 156, {}},
        {0, 64, {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.size);
        make(512, 64, {{64, 300, 100}});
        kt::writeBytes(path, 164, "\x77", 1);
        EXPECT_EQ(flst_get(&s, p(), c.size), 64u);
        EXPECT_EQ(word(12), c.anchorAfter);
        if (c.size == 92) {
            expectElement(156, 300, 8);
        }
        if (c.size == 0) {
            expectElement(64, 300, 100);
        }
        if (!c.at159.empty()) {
            EXPECT_EQ(bytes(159, 6), c.at159);
        }
    }
    EXPECT_EQ(bytes(164, 1), Bytes{0x77});

    // First fit: the too-small first element is passed over, its next is relinked, the
    // split-off element of 160 bytes has its body filled with 0xBA.
    make(512, 32, {{32, 64, 16}, {64, 0, 200}});
    EXPECT_EQ(flst_get(&s, p(), 40), 64u);
    EXPECT_EQ(word(12), 32u);
    EXPECT_EQ(word(32), 104u);
    expectElement(104, 0, 160);
    EXPECT_EQ(bytes(112, 152), Bytes(152, 0xBA));
    before = all();
    EXPECT_EQ(flst_get(&s, p(), 161), 0u);  // nothing large enough
    EXPECT_EQ(all(), before);
    EXPECT_EQ(s.error, 0u);
}

TEST_F(PathList, ReleaseExaminesOnlyTheHead) {
    struct Case {
        const char* what;
        uint32_t key, size, anchorAfter;
        Element expect;
    } cases[] = {
        {"in front, apart", 20, 16, 20, {20, 48, 16}},
        {"adjoining the head", 32, 16, 32, {32, 200, 48}},
        {"over the anchor", 12, 8, 48, {12, 48, 8}},
        {"over the anchor, merged", 12, 36, 200, {12, 200, 68}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        make(256, 48, {{48, 200, 32}});
        EXPECT_EQ(flst_release(&s, p(), c.key, c.size), 0);
        EXPECT_EQ(word(12), c.anchorAfter);
        EXPECT_EQ(word(c.expect[0] + 4), c.expect[2]);
        if (c.key != 12) {
            EXPECT_EQ(word(c.expect[0]), c.expect[1]);
        }
    }
    make(256, 48, {{48, 200, 32}});
    EXPECT_EQ(flst_release(&s, p(), 20, 16), 0);
    EXPECT_EQ(bytes(28, 8), Bytes(8, 0xBA));

    // Behind the head, overlapping it, or reaching beyond 4 GiB: nothing changes.
    make(256, 48, {{48, 200, 32}});
    Bytes before = all();
    EXPECT_EQ(flst_release(&s, p(), 100, 16), 0);
    EXPECT_EQ(flst_release(&s, p(), 40, 16), 0);
    EXPECT_EQ(flst_release(&s, p(), 0xFFFFFFF0u, 0x20), 0);
    EXPECT_EQ(all(), before);
    EXPECT_EQ(s.error, 0u);
    // The head cannot be read: nothing changes, 55 recorded.
    make(256, 254);
    before = all();
    EXPECT_EQ(flst_release(&s, p(), 20, 16), 0);
    EXPECT_EQ(all(), before);
    EXPECT_EQ(s.error, 55u);
}

TEST_F(PathList, ElementBodyFill) {
    // Bodies up to 1024 bytes are filled with 0xBA; larger ones and empty ones are not.
    for (auto [size, marked] : {std::pair<uint32_t, uint32_t>{9, 1}, {1032, 1024}, {1033, 0}, {8, 0}}) {
        SCOPED_TRACE(size);
        make(2200, 0);
        const FreeElement e{0, size};
        EXPECT_EQ(flst_setElement(&s, p(), 16, &e), 0);
        expectElement(16, 0, size);
        Bytes body = bytes(24, 1030);
        uint32_t n = 0;
        while (n < body.size() && body[n] == 0xBA) ++n;
        EXPECT_EQ(n, marked);
    }
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
    EXPECT_EQ(s.errorDetail, static_cast<uint32_t>(EINVAL));
    s = Session{};

    // An element read that brings 4 to 7 bytes is accepted with size 0; fewer than 4 bytes:
    // 55, detail 0, the buffer untouched.
    FreeElement e{9, 9};
    EXPECT_EQ(flst_getElement(&s, p(), 58, &e), &e);
    EXPECT_EQ(e.size, 0u);
    e = FreeElement{9, 9};
    EXPECT_EQ(flst_getElement(&s, p(), 61, &e), nullptr);
    EXPECT_EQ(s.error, 55u);
    EXPECT_EQ(s.errorDetail, 0u);
    EXPECT_EQ(e.next, 9u);
    EXPECT_EQ(flst_getElement(&s, p(), 16, nullptr), nullptr);
    EXPECT_EQ(s.error, 89u);

    // A missing file: 53 with ENOENT from every operation, never created.
    const std::string none = dir.file("none.bin");
    const std::pair<const char*, std::function<uint32_t()>> missing[] = {
        {"getFirstOffset", [&] { return flst_getFirstOffset(&s, none.c_str()); }},
        {"setNext", [&] { return uint32_t(flst_setNext(&s, none.c_str(), 16, 0)) - 53; }},
        {"setElement", [&] { return uint32_t(flst_setElement(&s, none.c_str(), 16, &e)) - 53; }},
        {"get", [&] { return flst_get(&s, none.c_str(), 8); }},
        {"release", [&] { return uint32_t(flst_release(&s, none.c_str(), 16, 8)); }},
    };
    for (const auto& [what, call] : missing) {
        SCOPED_TRACE(what);
        s = Session{};
        EXPECT_EQ(call(), 0u);
        EXPECT_EQ(s.error, 53u);
        EXPECT_EQ(s.errorDetail, static_cast<uint32_t>(ENOENT));
    }
    EXPECT_EQ(flst_setFirstOffset(&s, nullptr, 16), 53);
    EXPECT_EQ(flst_get(nullptr, none.c_str(), 8), 0u);
    EXPECT_EQ(kt::readFile(none), "");

    // A directory: the write-side open fails with 53 and EISDIR, reading fails after the
    // open with 55 and EISDIR.
    s = Session{};
    EXPECT_EQ(flst_setNext(&s, dir.path().c_str(), 16, 0), 53);
    EXPECT_EQ(s.errorDetail, static_cast<uint32_t>(EISDIR));
    s = Session{};
    EXPECT_EQ(flst_getFirstOffset(&s, dir.path().c_str()), 0u);
    EXPECT_EQ(s.error, 55u);
    EXPECT_EQ(s.errorDetail, static_cast<uint32_t>(EISDIR));
}

TEST_F(PathList, BrokenListsEndTheWalk) {
    constexpr uint32_t kAny = 0xFFFFFFFFu;
    struct Case {
        const char* what;
        uint32_t first;
        Element a, b;
        uint32_t getSize, detail;
    } cases[] = {
        {"loop", 32, {32, 64, 16}, {64, 32, 16}, 40, 64},
        {"self loop", 32, {32, 32, 16}, {32, 32, 16}, 40, 32},
        {"link into own header", 32, {32, 36, 16}, {32, 36, 16}, 40, kAny},
        {"first key in the header", 8, {32, 0, 16}, {32, 0, 16}, 4, 12},
        {"beyond 4 GiB", 32, {32, 0, 0xFFFFFFF0u}, {32, 0, 0xFFFFFFF0u}, 16, kAny},
        {"off the end", 32, {32, 4096, 16}, {32, 4096, 16}, 40, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        make(256, c.first, {c.a, c.b});
        Bytes before = all();
        EXPECT_EQ(flst_get(&s, p(), c.getSize), 0u);
        EXPECT_EQ(s.error, 55u);
        if (c.detail != kAny) {
            EXPECT_EQ(s.errorDetail, c.detail);
        }
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
    EXPECT_EQ(kt::readFile(path).size(), 100u);
    const uint32_t expect[6] = {0, 0, 0x40, 16, 0, 84};
    Bytes head = kt::readBytes(path, 0, 24);
    ASSERT_EQ(head.size(), 24u);
    EXPECT_EQ(std::memcmp(head.data(), expect, 24), 0);
    EXPECT_EQ(kt::readBytes(path, 24, 76), Bytes(76, 0));

    // The smallest medium serves one 8-byte block.
    ASSERT_EQ(kesdb_layMedium(path.c_str(), 24, 0), 0);
    Session s{};
    EXPECT_EQ(flst_get(&s, path.c_str(), 8), 16u);
    EXPECT_EQ(kt::readWord(path, 12), 0u);
    EXPECT_EQ(flst_get(&s, path.c_str(), 8), 0u);
}
