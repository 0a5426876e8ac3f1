// The rooted free-list allocator through medium drivers: allocations and releases checked
// against the whole list they leave, the byte-order rule of element writes, broken lists, and
// every failure path through the fault-injection driver.
#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
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

constexpr uint32_t kFile = 1;   // the named-file driver on the medium file
constexpr uint32_t kFault = 2;  // the fault-injection driver on the same file
constexpr int kOpen = KESDRV_FAULT_OPEN, kClose = KESDRV_FAULT_CLOSE, kRead = KESDRV_FAULT_READ,
              kWrite = KESDRV_FAULT_WRITE;

class Rooted : public ::testing::Test, public mk::ListFile {
protected:
    void SetUp() override {
        setenv("SIM_BYTE_ORDER", "BIG_ENDIAN", 1);
        path = dir.file("medium.bin");
        ASSERT_EQ(kesdb_layMedium(path.c_str(), 1024, 0), 0);
        ASSERT_TRUE(fault.ok() && mk::loadFileAndFault(dir, path));
    }
    void TearDown() override {
        EXPECT_EQ(fault.opens(), fault.closes());  // every successful open was closed again
        media_term();
    }
    void make(uint32_t size, uint32_t first, std::initializer_list<Element> elements = {}) {
        lay(size, first, elements);
        s = Session{};
        fault.reset();
    }
    std::string getRootOutput(uint32_t index) {
        return kt::captureStdout([&] { EXPECT_EQ(flst_m_getRoot(&s, index), 0u); });
    }
    kt::TempDir dir;
    mk::FaultControl fault;
    Session s{};
};

// The message of a short header read: err1 and the descriptor in hexadecimal.
bool isErr1(const std::string& out) {
    const std::string head = "flst_m_getRoot err1 0x";
    return out.size() > head.size() + 1 && out.compare(0, head.size(), head) == 0 && out.back() == '\n' &&
           out.find_first_not_of("0123456789abcdef", head.size()) == out.size() - 1;
}

}  // namespace

TEST_F(Rooted, GetAndReleaseLeaveTheExpectedList) {
    constexpr bool kGet = false, kRelease = true;
    const Element a{32, 64, 16}, b{64, 0, 300};  // a two-element list
    struct Case { const char* what; uint32_t first; Element e1, e2; bool release; uint32_t key, size, result; Free after; };
    const Case cases[] = {
        {"split", 16, {16, 0, 1000}, {16, 0, 1000}, kGet, 0, 40, 16, {{56, 960}}},
        {"first fit, remainder 3 lost", 32, {32, 64, 16}, {64, 200, 31}, kGet, 0, 28, 64, {{32, 16}, {200, 0}}},
        {"remainder 8 splits", 16, {16, 0, 48}, {16, 0, 48}, kGet, 0, 40, 16, {{56, 8}}},
        {"remainder 7 lost", 16, {16, 0, 47}, {16, 0, 47}, kGet, 0, 40, 16, {}},
        {"exact fit of the last", 32, a, b, kGet, 0, 300, 64, {{32, 16}}},
        {"exact fit of the head", 32, a, b, kGet, 0, 16, 32, {{64, 300}}},
        {"nothing fits", 32, a, b, kGet, 0, 301, 0, {{32, 16}, {64, 300}}},
        {"zero bytes: the first key", 32, a, b, kGet, 0, 0, 32, {{32, 16}, {64, 300}}},
        {"empty list", 0, a, b, kGet, 0, 8, 0, {}},
        {"merge backward", 16, {16, 200, 84}, {200, 0, 100}, kRelease, 100, 28, 0, {{16, 112}, {200, 100}}},
        {"merge both", 16, {16, 128, 84}, {128, 0, 40}, kRelease, 100, 28, 0, {{16, 152}}},
        {"apart from both", 16, {16, 100, 16}, {100, 0, 20}, kRelease, 40, 8, 0, {{16, 16}, {40, 8}, {100, 20}}},
        {"merge forward", 16, {16, 100, 16}, {100, 0, 20}, kRelease, 80, 20, 0, {{16, 16}, {80, 40}}},
        {"new head", 100, {100, 0, 20}, {100, 0, 20}, kRelease, 16, 28, 0, {{16, 28}, {100, 20}}},
        {"new head, merged", 100, {100, 0, 20}, {100, 0, 20}, kRelease, 72, 28, 0, {{72, 48}}},
        {"behind the last", 32, a, b, kRelease, 400, 28, 0, {{32, 16}, {64, 300}}},
        {"overlapping", 32, a, b, kRelease, 40, 16, 0, {{32, 16}, {64, 300}}},
        {"beyond 4 GiB", 32, a, b, kRelease, 0xFFFFFFF0u, 0x20, 0, {{32, 16}, {64, 300}}},
        {"into an empty list", 0, a, b, kRelease, 100, 28, 0, {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        make(1024, c.first, {c.e1, c.e2});
        EXPECT_EQ(c.release ? flst_m_release(&s, kFile, c.key, c.size) : flst_m_get(&s, kFile, c.size), c.result);
        EXPECT_EQ(lk::freeList(*this), c.after);
        EXPECT_EQ(s.error, 0u);
    }
    // A remainder below 8 is filled up to the guard byte behind it; a split element's body is not.
    make(1024, 32, {{32, 100, 40}, {100, 0, 31}});
    kt::writeBytes(path, 131, "\x77", 1);
    EXPECT_EQ(flst_m_get(&s, kFile, 28), 32u);
    EXPECT_EQ(flst_m_get(&s, kFile, 28), 100u);
    EXPECT_EQ(bytes(68, 4), Bytes(4, 0));
    EXPECT_EQ(bytes(128, 4), (Bytes{0xDE, 0xAD, 0xDE, 0x77}));
    EXPECT_EQ(lk::freeList(*this), (Free{{60, 12}}));
}

TEST_F(Rooted, BlocksGivenBackInAnyOrderEndAsTheElementTheyCameFrom) {
    const uint32_t sizes[5] = {28, 40, 16, 12, 100};
    std::vector<int> order = {0, 1, 2, 3, 4};
    do {
        make(1024, 16, {{16, 0, 1008}});
        uint32_t keys[5], next = 16;
        for (int i = 0; i < 5; ++i) {
            keys[i] = flst_m_get(&s, kFile, sizes[i]);
            EXPECT_EQ(keys[i], next);
            next += sizes[i];
        }
        for (int i : order) {
            EXPECT_EQ(flst_m_release(&s, kFile, keys[i], sizes[i]), 0);
            const Free list = lk::freeList(*this);
            EXPECT_TRUE(std::is_sorted(list.begin(), list.end()));
            for (size_t j = 1; j < list.size(); ++j) EXPECT_LT(list[j - 1].first + list[j - 1].second, list[j].first);
        }
        EXPECT_EQ(lk::freeList(*this), (Free{{16, 1008}}));
        EXPECT_EQ(s.error, 0u);
    } while (std::next_permutation(order.begin(), order.end()) && !HasFailure());
}

TEST_F(Rooted, PrimitivesAndTheHeader) {
    make(64, 0);
    EXPECT_EQ(flst_m_setFirstOffset(&s, kFile, 40), 0);
    EXPECT_EQ(flst_m_getFirstOffset(&s, kFile), 40u);
    EXPECT_EQ(flst_m_setNext(&s, kFile, 40, 0xABCDu), 0);
    EXPECT_EQ(word(40), 0xABCDu);
    const Bytes dead7{0xDE, 0xAD, 0xDE, 0xAD, 0xDE, 0xAD, 0xDE, 0};
    EXPECT_EQ(flst_m_fillFlagmented(&s, kFile, 50, 7), 0);
    EXPECT_EQ(bytes(50, 8), dead7);
    const FreeElement e{0x100, 0x40};
    EXPECT_EQ(flst_m_setElement(&s, kFile, 24, &e), 0);
    FreeElement got{1, 1};
    EXPECT_EQ(flst_m_getElement(&s, kFile, 24, &got), &got);
    EXPECT_EQ(Pair(got.next, got.size), Pair(0x100, 0x40));
    EXPECT_EQ(flst_m_getElement(&s, kFile, 58, &got), &got);  // 4 to 7 bytes: size 0
    EXPECT_EQ(got.size, 0u);
    EXPECT_EQ(s.error, 0u);
    EXPECT_EQ(flst_m_getElement(&s, kFile, 61, &got), nullptr);  // fewer: a read error
    EXPECT_EQ(errorOf(s), Pair(24, 0));
    EXPECT_EQ(flst_m_getElement(&s, kFile, 24, nullptr), nullptr);
    EXPECT_EQ(flst_m_setElement(&s, kFile, 24, nullptr), 89);
    EXPECT_EQ(flst_m_fillFlagmented(&s, kFile, 50, 9), 23);  // more than a fragment
    EXPECT_EQ(errorOf(s), Pair(23, EINVAL));
    EXPECT_EQ(bytes(50, 8), dead7);
    // The root: words 0 and 1 pass through unchanged; the built-in medium serves the same calls.
    const uint32_t head[2] = {0xDEADBEEFu, 0x01020304u};
    kt::writeBytes(path, 0, head, 8);
    s = Session{};
    EXPECT_EQ(flst_m_setRoot(&s, kFile, 0x5150u), 0);
    EXPECT_EQ(flst_m_getRoot(&s, kFile), 0x5150u);
    const uint32_t expect[4] = {0xDEADBEEFu, 0x01020304u, 0x5150u, 40u};
    EXPECT_EQ(bytes(0, 16), Bytes(reinterpret_cast<const uint8_t*>(expect), reinterpret_cast<const uint8_t*>(expect) + 16));
    EXPECT_EQ(s.error, 0u);
    setenv("KESDB_DEFMEDIA", path.c_str(), 1);
    EXPECT_EQ(flst_m_getRoot(&s, 0), 0x5150u);
    // A medium shorter than its header.
    kt::writeFile(path, std::string(12, '\0'));
    std::string out = getRootOutput(kFile);
    EXPECT_TRUE(isErr1(out)) << out;
    EXPECT_EQ(s.error, 24u);
    s = Session{};
    EXPECT_EQ(flst_m_setRoot(&s, kFile, 1), 24);
    EXPECT_EQ(kt::readFile(path), std::string(12, '\0'));
}

TEST_F(Rooted, UnknownMediumIndexChangesNothing) {
    make(64, 16, {{16, 0, 48}});
    Bytes before = all();
    const FreeElement e{0, 8};
    FreeElement got{};
    std::string out = kt::captureStdout([&] {
        EXPECT_EQ(flst_m_getFirstOffset(&s, 3) + flst_m_getRoot(&s, 3) + flst_m_get(&s, 3, 8), 0u);
        EXPECT_EQ(flst_m_getElement(&s, 3, 16, &got), nullptr);
        for (int32_t rc : {flst_m_setFirstOffset(&s, 3, 0), flst_m_setElement(&s, 3, 16, &e),
                           flst_m_setNext(&s, 3, 16, 0), flst_m_fillFlagmented(&s, 3, 16, 2),
                           flst_m_release(&s, 3, 32, 8), flst_m_setRoot(&s, 3, 5), flst_m_release(nullptr, 3, 32, 8)})
            EXPECT_EQ(rc, 0);
    });
    EXPECT_EQ(out, "");
    EXPECT_EQ(errorOf(s), Pair(21, 0));
    EXPECT_EQ(all(), before);
}

TEST_F(Rooted, ByteOrderRuleAppliesToElementWritesOnly) {
    make(128, 0);
    const FreeElement e{0x100, 0x40};
    const bool little = kt::hostIsLittleEndian();
    const Bytes reversed = little ? Bytes{0, 0, 1, 0, 0, 0, 0, 0x40} : Bytes{0, 1, 0, 0, 0x40, 0, 0, 0};
    const Bytes host(reinterpret_cast<const uint8_t*>(&e), reinterpret_cast<const uint8_t*>(&e) + 8);
    setenv("SIM_BYTE_ORDER", "LITTLE_ENDIAN", 1);
    EXPECT_EQ(flst_m_setElement(&s, kFile, 32, &e), 0);
    EXPECT_EQ(bytes(32, 8), reversed);
    EXPECT_EQ(e.next, 0x100u);  // the caller's element is unchanged
    FreeElement got{};          // reads, the anchor and next links are not adjusted
    EXPECT_EQ(flst_m_getElement(&s, kFile, 32, &got), &got);
    EXPECT_EQ(std::memcmp(&got, reversed.data(), 8), 0);
    EXPECT_EQ(flst_m_setNext(&s, kFile, 48, 0x100), 0);
    EXPECT_EQ(flst_m_setFirstOffset(&s, kFile, 0x100), 0);
    EXPECT_EQ(word(48), 0x100u);
    EXPECT_EQ(word(12), 0x100u);
    // Decided afresh at each write; unset, the host decides.
    for (const char* value : {"little_endian", "BIG_ENDIAN", static_cast<const char*>(nullptr)}) {
        value ? setenv("SIM_BYTE_ORDER", value, 1) : unsetenv("SIM_BYTE_ORDER");
        EXPECT_EQ(flst_m_setElement(&s, kFile, 32, &e), 0);
        EXPECT_EQ(bytes(32, 8), value || !little ? host : reversed) << (value ? value : "(unset)");
    }
    // The split element of an allocation goes through the rule as well: with the variable
    // unset its bytes are the big-endian ones on any host.
    make(128, 16, {{16, 0, 0x70}});
    EXPECT_EQ(flst_m_get(&s, kFile, 0x30), 16u);
    EXPECT_EQ(word(12), 0x40u);
    EXPECT_EQ(bytes(0x40, 8), (Bytes{0, 0, 0, 0, 0, 0, 0, 0x40}));
    EXPECT_EQ(s.error, 0u);
}

TEST_F(Rooted, FaultsInPrimitives) {
    const FreeElement e{0, 8};
    FreeElement got{};
    constexpr int32_t kShort = -1, kNoErr = KESDRV_FAULT_NOERR;  // kShort: `n` bytes are transferred
    struct Case { const char* what; int op; uint32_t n; int32_t errNo; std::function<int64_t()> call; int64_t result;
                  uint32_t error, detail; };
    const Case cases[] = {
        {"open: getFirstOffset", kOpen, 1, EIO, [&] { return flst_m_getFirstOffset(&s, kFault); }, 0, 22, EIO},
        {"open, no errno: setNext", kOpen, 1, kNoErr, [&] { return flst_m_setNext(&s, kFault, 16, 0); }, 22, 22, 0},
        {"open: setElement", kOpen, 1, ENODEV, [&] { return flst_m_setElement(&s, kFault, 16, &e); }, 22, 22, ENODEV},
        {"open: setRoot", kOpen, 1, EIO, [&] { return flst_m_setRoot(&s, kFault, 9); }, 22, 22, EIO},
        {"read: getElement", kRead, 1, EIO, [&] { return !!flst_m_getElement(&s, kFault, 16, &got); }, 0, 24, EIO},
        {"short read: setRoot", kRead, 15, kShort, [&] { return flst_m_setRoot(&s, kFault, 9); }, 24, 24, 0},
        {"write: setElement", kWrite, 1, ENOSPC, [&] { return flst_m_setElement(&s, kFault, 16, &e); }, 23, 23, ENOSPC},
        {"short: setElement", kWrite, 7, kShort, [&] { return flst_m_setElement(&s, kFault, 16, &e); }, 23, 23, 0},
        {"write: setFirstOffset", kWrite, 1, EIO, [&] { return flst_m_setFirstOffset(&s, kFault, 0); }, 23, 23, EIO},
        {"short write: setRoot", kWrite, 15, kShort, [&] { return flst_m_setRoot(&s, kFault, 9); }, 23, 23, 0},
        {"close: ignored", kClose, 1, EIO, [&] { return flst_m_getFirstOffset(&s, kFault); }, 16, 0, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        make(256, 16, {{16, 0, 240}});
        Bytes before = all();
        s.errorDetail = 99;
        c.errNo == kShort ? fault.shortOp(c.op, 1, c.n) : fault.fail(c.op, c.n, c.errNo);
        EXPECT_EQ(c.call(), c.result);
        EXPECT_EQ(errorOf(s), Pair(c.error, c.error ? c.detail : 99));
        if (c.op == kOpen) { EXPECT_EQ(fault.calls(kRead) + fault.calls(kWrite), 0u); }
        if (c.op != kWrite) { EXPECT_EQ(all(), before); }
    }
    // Messages of getRoot: err2 when the open fails, err1 when the read is short.
    make(256, 16, {{16, 0, 240}});
    fault.fail(kOpen, 1, EIO);
    EXPECT_EQ(getRootOutput(kFault), "flst_m_getRoot err2 0xffffffff\n");
    EXPECT_EQ(s.error, 22u);
    fault.shortOp(kRead, 1, 15);
    std::string out = getRootOutput(kFault);
    EXPECT_TRUE(isErr1(out)) << out;
    EXPECT_EQ(s.error, 24u);
    fault.shortOp(kWrite, 1, 2);  // a short write moves only its bytes
    EXPECT_EQ(flst_m_setNext(&s, kFault, 100, 0xFFFFFFFFu), 23);
    EXPECT_EQ(bytes(100, 4), (Bytes{0xFF, 0xFF, 0, 0}));
}

TEST_F(Rooted, FaultsInsideGetAndRelease) {
    struct Case { const char* what; int op; bool from; uint32_t nth, getSize, result, error, anchorAfter; } cases[] = {
        {"split element write: after the link moved", kWrite, false, 2, 40, KESDB_FLST_FAILED, 23, 56},
        {"link write: the key is still handed out", kWrite, false, 1, 40, 16, 23, 16},
        {"remainder below 8: fill and link", kWrite, true, 1, 235, 16, 23, 16},
        {"anchor open", kOpen, false, 1, 8, 0, 22, 16},
        {"walk read", kRead, false, 2, 8, 0, 24, 16},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        make(256, 16, {{16, 0, 240}});
        (c.from ? fault.failFrom : fault.fail)(c.op, c.nth, EIO);
        EXPECT_EQ(flst_m_get(&s, kFault, c.getSize), c.result);
        EXPECT_EQ(errorOf(s), Pair(c.error, EIO));
        EXPECT_EQ(word(12), c.anchorAfter);
        EXPECT_EQ(fault.calls(kWrite), c.op == kWrite ? 2u : 0u);
    }
    // Release: a failed read ends it with nothing changed; write failures are recorded.
    make(256, 16, {{16, 100, 20}, {100, 0, 100}});
    Bytes before = all();
    fault.fail(kRead, 2, EIO);
    EXPECT_EQ(flst_m_release(&s, kFault, 50, 8), 0);
    EXPECT_EQ(s.error, 24u);
    EXPECT_EQ(all(), before);
    fault.reset();
    s = Session{};
    fault.failFrom(kWrite, 1, EROFS);
    EXPECT_EQ(flst_m_release(&s, kFault, 50, 8), 0);
    EXPECT_EQ(errorOf(s), Pair(23, EROFS));
    EXPECT_EQ(fault.calls(kWrite), 2u);
    EXPECT_EQ(all(), before);
}

TEST_F(Rooted, BrokenListsEndTheWalk) {
    // 24 with the key holding the bad link as detail; nothing changes.
    struct Case { const char* what; uint32_t first; Element a, b; bool release; uint32_t detail; } cases[] = {
        {"loop, get", 32, {32, 64, 16}, {64, 32, 16}, false, 64},
        {"loop, release", 32, {32, 64, 16}, {64, 32, 16}, true, 64},
        {"own header, get", 32, {32, 39, 16}, {32, 39, 16}, false, 32},
        {"own header, release", 32, {32, 39, 16}, {32, 39, 16}, true, 32},
        {"first key in the header, get", 4, {32, 0, 16}, {32, 0, 16}, false, 12},
        {"first key in the header, release", 15, {32, 0, 16}, {32, 0, 16}, true, 12},
        {"beyond 4 GiB, get", 32, {32, 0, 0xFFFFFFF0u}, {32, 0, 0xFFFFFFF0u}, false, 32},
        {"beyond 4 GiB, release", 32, {32, 64, 0xFFFFFFF0u}, {32, 64, 0xFFFFFFF0u}, true, 32},
        {"off the end", 32, {32, 1000, 16}, {32, 1000, 16}, true, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        make(256, c.first, {c.a, c.b});
        Bytes before = all();
        EXPECT_EQ(c.release ? flst_m_release(&s, kFile, 200, 8) : flst_m_get(&s, kFile, 40), 0u);
        EXPECT_EQ(errorOf(s), Pair(24, c.detail));
        EXPECT_EQ(all(), before);
    }
}

TEST(RootedDefMedium, WithoutItsVariable) {
    unsetenv("KESDB_DEFMEDIA");  // no media table loaded: entry 0 alone
    Session s{};
    std::string out = kt::captureStdout([&] { EXPECT_EQ(flst_m_getRoot(&s, 0), 0u); });
    EXPECT_EQ(out, "flst_m_getRoot err2 0xffffffff\n");
    EXPECT_EQ(errorOf(s), Pair(22, 0));
    EXPECT_EQ(flst_m_get(&s, 0, 8), 0u);
    EXPECT_EQ(flst_m_release(nullptr, 0, 16, 8), 0);
}
