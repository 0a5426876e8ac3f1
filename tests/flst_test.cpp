// The path-based free-list allocator on real files, and laying down a medium.
#include <errno.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "kesdbm/kesdbm.h"
#include "testkit.hpp"

namespace {

using Bytes = std::vector<uint8_t>;

// A file of `size` zero bytes with the anchor word set.
class PathList : public ::testing::Test {
protected:
    void make(uint32_t size, uint32_t first) {
        kt::writeFile(path, std::string(size, '\0'));
        kt::writeBytes(path, 12, &first, 4);
    }
    void put(uint32_t key, uint32_t next, uint32_t size) {
        const uint32_t words[2] = {next, size};
        kt::writeBytes(path, key, words, 8);
    }
    uint32_t word(uint32_t key) { return kt::readWord(path, key); }
    Bytes all() { return kt::readBytes(path, 0, 1 << 16); }

    kt::TempDir dir;
    std::string path = dir.file("list.bin");
    Session s{};
};

}  // namespace

TEST_F(PathList, EmptyListGivesNothingAndTakesNothingBack) {
    make(256, 0);
    put(64, 0, 100);  // an element that is not on the list
    Bytes before = all();
    EXPECT_EQ(flst_get(&s, path.c_str(), 8), 0u);
    EXPECT_EQ(flst_get(&s, path.c_str(), 1), 0u);
    EXPECT_EQ(flst_release(&s, path.c_str(), 32, 16), 0);
    EXPECT_EQ(all(), before);
    EXPECT_EQ(s.error, 0u);
    EXPECT_EQ(flst_getAnchorOffset(&s, "/ignored"), 12u);
    EXPECT_EQ(flst_getAnchorOffset(nullptr, nullptr), 12u);
}

TEST_F(PathList, GetWholeFragmentedAndSplit) {
    // Exact fit: the element leaves the list.
    make(512, 64);
    put(64, 300, 100);
    EXPECT_EQ(flst_get(&s, path.c_str(), 100), 64u);
    EXPECT_EQ(word(12), 300u);

    // Remainder 5: DE AD DE AD DE at 159, the element leaves the list, the next byte is kept.
    make(512, 64);
    put(64, 300, 100);
    uint8_t guard = 0x77;
    kt::writeBytes(path, 164, &guard, 1);
    EXPECT_EQ(flst_get(&s, path.c_str(), 95), 64u);
    EXPECT_EQ(word(12), 300u);
    EXPECT_EQ(kt::readBytes(path, 159, 6), (Bytes{0xDE, 0xAD, 0xDE, 0xAD, 0xDE, 0x77}));

    // Remainder 8: an element of size 8 at 156 with the old next; no body fill for size 8.
    make(512, 64);
    put(64, 300, 100);
    kt::writeBytes(path, 164, &guard, 1);
    EXPECT_EQ(flst_get(&s, path.c_str(), 92), 64u);
    EXPECT_EQ(word(12), 156u);
    EXPECT_EQ(word(156), 300u);
    EXPECT_EQ(word(160), 8u);
    EXPECT_EQ(kt::readBytes(path, 164, 1), Bytes{0x77});

    // First fit: the too-small first element is passed over, its next is relinked.
    make(512, 32);
    put(32, 64, 16);
    put(64, 0, 200);
    EXPECT_EQ(flst_get(&s, path.c_str(), 40), 64u);
    EXPECT_EQ(word(12), 32u);
    EXPECT_EQ(word(32), 104u);
    EXPECT_EQ(word(104), 0u);
    EXPECT_EQ(word(108), 160u);
    // The split-off element of 160 bytes has its body filled with 0xBA.
    EXPECT_EQ(kt::readBytes(path, 112, 152), Bytes(152, 0xBA));
    // Nothing large enough: 0, nothing changes.
    Bytes before = all();
    EXPECT_EQ(flst_get(&s, path.c_str(), 161), 0u);
    EXPECT_EQ(all(), before);
    EXPECT_EQ(s.error, 0u);
}

TEST_F(PathList, GetOfZeroBytesLeavesTheElementFree) {
    make(512, 64);
    put(64, 300, 100);
    EXPECT_EQ(flst_get(&s, path.c_str(), 0), 64u);
    EXPECT_EQ(word(12), 64u);
    EXPECT_EQ(word(64), 300u);
    EXPECT_EQ(word(68), 100u);
}

TEST_F(PathList, ReleaseExaminesOnlyTheHead) {
    // In front of the head, apart from it: the new head.
    make(256, 48);
    put(48, 200, 32);
    EXPECT_EQ(flst_release(&s, path.c_str(), 20, 16), 0);
    EXPECT_EQ(word(12), 20u);
    EXPECT_EQ(word(20), 48u);
    EXPECT_EQ(word(24), 16u);
    EXPECT_EQ(kt::readBytes(path, 28, 8), Bytes(8, 0xBA));

    // Adjoining the head: 16 bytes at 32 merge with the element at 48.
    make(256, 48);
    put(48, 200, 32);
    EXPECT_EQ(flst_release(&s, path.c_str(), 32, 16), 0);
    EXPECT_EQ(word(12), 32u);
    EXPECT_EQ(word(32), 200u);
    EXPECT_EQ(word(36), 48u);

    // A block at the anchor's own key is written over the anchor as an element.
    make(256, 48);
    put(48, 200, 32);
    EXPECT_EQ(flst_release(&s, path.c_str(), 12, 8), 0);
    EXPECT_EQ(word(12), 48u);
    EXPECT_EQ(word(16), 8u);
    make(256, 48);
    put(48, 200, 32);
    EXPECT_EQ(flst_release(&s, path.c_str(), 12, 36), 0);
    EXPECT_EQ(word(12), 200u);
    EXPECT_EQ(word(16), 68u);

    // Behind the head, overlapping it, or reaching beyond 4 GiB: nothing changes.
    make(256, 48);
    put(48, 200, 32);
    Bytes before = all();
    EXPECT_EQ(flst_release(&s, path.c_str(), 100, 16), 0);
    EXPECT_EQ(flst_release(&s, path.c_str(), 40, 16), 0);
    EXPECT_EQ(flst_release(&s, path.c_str(), 0xFFFFFFF0u, 0x20), 0);
    EXPECT_EQ(all(), before);
    EXPECT_EQ(s.error, 0u);

    // The head cannot be read: nothing changes, 55 recorded.
    make(256, 254);
    before = all();
    EXPECT_EQ(flst_release(&s, path.c_str(), 20, 16), 0);
    EXPECT_EQ(all(), before);
    EXPECT_EQ(s.error, 55u);
}

TEST_F(PathList, ElementBodyFill) {
    make(2200, 0);
    auto marked = [&](uint32_t key, uint32_t size) {
        const FreeElement e{0, size};
        EXPECT_EQ(flst_setElement(&s, path.c_str(), key, &e), 0);
        Bytes body = kt::readBytes(path, key + 8, 1030);
        uint32_t n = 0;
        while (n < body.size() && body[n] == 0xBA) ++n;
        return n;
    };
    EXPECT_EQ(marked(16, 9), 1u);
    make(2200, 0);
    EXPECT_EQ(marked(16, 1032), 1024u);
    make(2200, 0);
    EXPECT_EQ(marked(16, 1033), 0u);
    make(2200, 0);
    EXPECT_EQ(marked(16, 8), 0u);
    EXPECT_EQ(word(16), 0u);
    EXPECT_EQ(word(20), 8u);
}

TEST_F(PathList, PrimitivesAndTheirFailures) {
    make(64, 0);
    EXPECT_EQ(flst_setFirstOffset(&s, path.c_str(), 40), 0);
    EXPECT_EQ(flst_getFirstOffset(&s, path.c_str()), 40u);
    EXPECT_EQ(flst_setNext(&s, path.c_str(), 40, 0x11223344u), 0);
    EXPECT_EQ(word(40), 0x11223344u);
    EXPECT_EQ(flst_fillFlagmented(&s, path.c_str(), 50, 3), 0);
    EXPECT_EQ(kt::readBytes(path, 50, 4), (Bytes{0xDE, 0xAD, 0xDE, 0x00}));
    EXPECT_EQ(flst_fillFlagmented(&s, path.c_str(), 50, 9), 54);  // more than a fragment
    EXPECT_EQ(s.errorDetail, static_cast<uint32_t>(EINVAL));
    s = Session{};

    // An element read that brings 4 to 7 bytes is accepted with size 0.
    FreeElement e{9, 9};
    EXPECT_EQ(flst_getElement(&s, path.c_str(), 58, &e), &e);
    EXPECT_EQ(e.size, 0u);
    // Fewer than 4 bytes: 55, detail 0, the buffer untouched.
    e = FreeElement{9, 9};
    EXPECT_EQ(flst_getElement(&s, path.c_str(), 61, &e), nullptr);
    EXPECT_EQ(s.error, 55u);
    EXPECT_EQ(s.errorDetail, 0u);
    EXPECT_EQ(e.next, 9u);
    EXPECT_EQ(flst_getElement(&s, path.c_str(), 16, nullptr), nullptr);
    EXPECT_EQ(s.error, 89u);

    // A missing file: 53 with ENOENT from every operation, never created.
    const std::string none = dir.file("none.bin");
    s = Session{};
    EXPECT_EQ(flst_getFirstOffset(&s, none.c_str()), 0u);
    EXPECT_EQ(s.error, 53u);
    EXPECT_EQ(s.errorDetail, static_cast<uint32_t>(ENOENT));
    s = Session{};
    EXPECT_EQ(flst_setNext(&s, none.c_str(), 16, 0), 53);
    EXPECT_EQ(s.errorDetail, static_cast<uint32_t>(ENOENT));
    s = Session{};
    EXPECT_EQ(flst_setElement(&s, none.c_str(), 16, &e), 53);
    EXPECT_EQ(flst_get(&s, none.c_str(), 8), 0u);
    EXPECT_EQ(flst_release(&s, none.c_str(), 16, 8), 0);
    EXPECT_EQ(s.error, 53u);
    EXPECT_EQ(flst_setFirstOffset(&s, nullptr, 16), 53);
    EXPECT_EQ(flst_get(nullptr, none.c_str(), 8), 0u);
    EXPECT_EQ(kt::readFile(none), "");

    // A directory opens read-only but not for writing: 54 is not reachable that way, but the
    // write-side open fails with 53 and EISDIR.
    s = Session{};
    EXPECT_EQ(flst_setNext(&s, dir.path().c_str(), 16, 0), 53);
    EXPECT_EQ(s.errorDetail, static_cast<uint32_t>(EISDIR));
    // Reading a directory fails after the open: 55 with EISDIR.
    s = Session{};
    EXPECT_EQ(flst_getFirstOffset(&s, dir.path().c_str()), 0u);
    EXPECT_EQ(s.error, 55u);
    EXPECT_EQ(s.errorDetail, static_cast<uint32_t>(EISDIR));
}

TEST_F(PathList, BrokenListsEndTheWalk) {
    // A loop: 32 -> 64 -> 32, all too small.
    make(256, 32);
    put(32, 64, 16);
    put(64, 32, 16);
    Bytes before = all();
    EXPECT_EQ(flst_get(&s, path.c_str(), 40), 0u);
    EXPECT_EQ(s.error, 55u);
    EXPECT_EQ(s.errorDetail, 64u);
    EXPECT_EQ(all(), before);
    // A self loop.
    s = Session{};
    put(32, 32, 16);
    EXPECT_EQ(flst_get(&s, path.c_str(), 40), 0u);
    EXPECT_EQ(s.errorDetail, 32u);
    // A link into the element's own header.
    s = Session{};
    put(32, 36, 16);
    EXPECT_EQ(flst_get(&s, path.c_str(), 40), 0u);
    EXPECT_EQ(s.error, 55u);
    // A first key inside the header.
    make(256, 8);
    s = Session{};
    EXPECT_EQ(flst_get(&s, path.c_str(), 4), 0u);
    EXPECT_EQ(s.error, 55u);
    EXPECT_EQ(s.errorDetail, 12u);
    // An element reaching beyond 4 GiB is not handed out.
    make(256, 32);
    put(32, 0, 0xFFFFFFF0u);
    s = Session{};
    EXPECT_EQ(flst_get(&s, path.c_str(), 16), 0u);
    EXPECT_EQ(s.error, 55u);
    // A list running off the end of the file ends at the failed read.
    make(256, 32);
    put(32, 4096, 16);
    s = Session{};
    EXPECT_EQ(flst_get(&s, path.c_str(), 40), 0u);
    EXPECT_EQ(s.error, 55u);
    EXPECT_EQ(s.errorDetail, 0u);
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
