// The rooted free-list allocator through medium drivers: layouts on real medium files, the
// byte-order rule of element writes, and every failure path through the fault-injection driver.
#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstring>
#include <functional>
#include <regex>
#include <string>

#include "kesdbm/kesdbm.h"
#include "mediakit.hpp"

namespace {

using mk::Bytes;
using mk::errorOf;
using mk::Pair;
using Element = mk::ListFile::Element;

constexpr uint32_t kFile = 1;   // the named-file driver on the medium file
constexpr uint32_t kFault = 2;  // the fault-injection driver on the same file
constexpr int kOpen = KESDRV_FAULT_OPEN, kClose = KESDRV_FAULT_CLOSE, kRead = KESDRV_FAULT_READ,
              kWrite = KESDRV_FAULT_WRITE;

// A medium file reached through both drivers. Element words are written in host order unless
// a test says otherwise.
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
    // A medium laid down anew; a fresh session and disarmed faults.
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

bool isErr1(const std::string& out) { return std::regex_match(out, std::regex("flst_m_getRoot err1 0x[0-9a-f]+\n")); }

}  // namespace

TEST_F(Rooted, AllocationSplitsFragmentsAndUnlinks) {
    make(1016, 16, {{16, 0, 1000}});
    EXPECT_EQ(flst_m_get(&s, kFile, 40), 16u);
    EXPECT_EQ(word(12), 56u);
    EXPECT_EQ(element(56), Pair(0, 960));
    EXPECT_EQ(bytes(64, 8), Bytes(8, 0));  // no body fill in this allocator
    // First fit over several elements: the predecessor's next is relinked; remainder 3 is
    // filled and lost.
    make(1024, 32, {{32, 64, 16}, {64, 200, 31}, {200, 0, 300}});
    kt::writeBytes(path, 95, "\x77", 1);
    EXPECT_EQ(flst_m_get(&s, kFile, 28), 64u);
    EXPECT_EQ(word(32), 200u);
    EXPECT_EQ(bytes(92, 4), (Bytes{0xDE, 0xAD, 0xDE, 0x77}));
    // Exact fit of the last element: the predecessor's next becomes 0.
    EXPECT_EQ(flst_m_get(&s, kFile, 300), 200u);
    EXPECT_EQ(word(32), 0u);
    // Nothing fits, or zero bytes (the first key): nothing changes.
    Bytes before = all();
    EXPECT_EQ(flst_m_get(&s, kFile, 17), 0u);
    EXPECT_EQ(flst_m_get(&s, kFile, 0), 32u);
    EXPECT_EQ(all(), before);
    make(64, 0);
    EXPECT_EQ(flst_m_get(&s, kFile, 8), 0u);
    EXPECT_EQ(s.error, 0u);
}

TEST_F(Rooted, ReleaseInsertsAndMerges) {
    // The element at `at` then holds `element`; the anchor is 16 in every case.
    struct Case { const char* what; uint32_t first; Element a, b; uint32_t key, size, at; Pair element; } cases[] = {
        {"merge backward", 16, {16, 200, 84}, {200, 0, 100}, 100, 28, 16, {200, 112}},
        {"merge both", 16, {16, 128, 84}, {128, 500, 40}, 100, 28, 16, {500, 152}},
        {"apart from both", 16, {16, 100, 16}, {100, 0, 20}, 40, 8, 40, {100, 8}},
        {"merge forward", 16, {16, 100, 16}, {100, 400, 20}, 80, 20, 80, {400, 40}},
        {"new head", 100, {100, 0, 20}, {100, 0, 20}, 16, 28, 16, {100, 28}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        make(1024, c.first, {c.a, c.b});
        EXPECT_EQ(flst_m_release(&s, kFile, c.key, c.size), 0);
        EXPECT_EQ(word(12), 16u);
        EXPECT_EQ(element(c.at), c.element);
        EXPECT_EQ(s.error, 0u);
    }
    // Behind the last element, overlapping one, beyond 4 GiB, or into an empty list: nothing
    // changes.
    make(1024, 16, {{16, 100, 16}, {100, 0, 20}});
    Bytes before = all();
    EXPECT_EQ(flst_m_release(&s, kFile, 300, 28), 0);
    EXPECT_EQ(flst_m_release(&s, kFile, 24, 16), 0);
    EXPECT_EQ(flst_m_release(&s, kFile, 0xFFFFFFF0u, 0x20), 0);
    EXPECT_EQ(all(), before);
    make(1024, 0);
    before = all();
    EXPECT_EQ(flst_m_release(&s, kFile, 100, 28), 0);
    EXPECT_EQ(all(), before);
    EXPECT_EQ(s.error, 0u);

    // Blocks handed out and given back in any order end as the one element they came from.
    make(1024, 16, {{16, 0, 1008}});
    const uint32_t sizes[5] = {28, 40, 16, 12, 100};
    uint32_t keys[5];
    for (int i = 0; i < 5; ++i) keys[i] = flst_m_get(&s, kFile, sizes[i]);
    EXPECT_EQ(keys[4], 16u + 28 + 40 + 16 + 12);
    for (int i : {1, 3, 0, 2, 4}) EXPECT_EQ(flst_m_release(&s, kFile, keys[i], sizes[i]), 0);
    EXPECT_EQ(word(12), 16u);
    EXPECT_EQ(element(16), Pair(0, 1008));
    EXPECT_EQ(s.error, 0u);
}

TEST_F(Rooted, PrimitivesAndTheHeader) {
    make(64, 0);
    EXPECT_EQ(flst_m_setFirstOffset(&s, kFile, 40), 0);
    EXPECT_EQ(flst_m_getFirstOffset(&s, kFile), 40u);
    EXPECT_EQ(flst_m_setNext(&s, kFile, 40, 0xABCDu), 0);
    EXPECT_EQ(word(40), 0xABCDu);
    EXPECT_EQ(flst_m_fillFlagmented(&s, kFile, 50, 7), 0);
    EXPECT_EQ(bytes(50, 8), (Bytes{0xDE, 0xAD, 0xDE, 0xAD, 0xDE, 0xAD, 0xDE, 0}));
    const FreeElement e{0x100, 0x40};
    EXPECT_EQ(flst_m_setElement(&s, kFile, 24, &e), 0);
    EXPECT_EQ(element(24), Pair(0x100, 0x40));
    FreeElement got{1, 1};
    EXPECT_EQ(flst_m_getElement(&s, kFile, 24, &got), &got);
    EXPECT_EQ(Pair(got.next, got.size), Pair(0x100, 0x40));
    // 4 to 7 bytes are accepted (size 0), fewer are a read error.
    EXPECT_EQ(flst_m_getElement(&s, kFile, 58, &got), &got);
    EXPECT_EQ(got.size, 0u);
    EXPECT_EQ(s.error, 0u);
    EXPECT_EQ(flst_m_getElement(&s, kFile, 61, &got), nullptr);
    EXPECT_EQ(errorOf(s), Pair(24, 0));
    EXPECT_EQ(flst_m_getElement(&s, kFile, 24, nullptr), nullptr);
    EXPECT_EQ(flst_m_setElement(&s, kFile, 24, nullptr), 89);
    EXPECT_EQ(flst_m_fillFlagmented(&s, kFile, 50, 9), 23);  // more than a fragment
    EXPECT_EQ(errorOf(s), Pair(23, EINVAL));
    EXPECT_EQ(bytes(50, 8), (Bytes{0xDE, 0xAD, 0xDE, 0xAD, 0xDE, 0xAD, 0xDE, 0}));

    // The root: words 0 and 1 pass through unchanged.
    const uint32_t head[2] = {0xDEADBEEFu, 0x01020304u};
    kt::writeBytes(path, 0, head, 8);
    s = Session{};
    EXPECT_EQ(flst_m_setRoot(&s, kFile, 0x5150u), 0);
    EXPECT_EQ(flst_m_getRoot(&s, kFile), 0x5150u);
    const uint32_t expect[4] = {0xDEADBEEFu, 0x01020304u, 0x5150u, 40u};
    const auto* expectBytes = reinterpret_cast<const uint8_t*>(expect);
    EXPECT_EQ(bytes(0, 16), Bytes(expectBytes, expectBytes + 16));
    EXPECT_EQ(s.error, 0u);
    setenv("KESDB_DEFMEDIA", path.c_str(), 1);  // the built-in medium serves the same calls
    EXPECT_EQ(flst_m_getRoot(&s, 0), 0x5150u);

    // A medium shorter than its header.
    kt::writeFile(path, std::string(12, '\0'));
    std::string out = getRootOutput(kFile);
    EXPECT_TRUE(isErr1(out)) << out;
    EXPECT_EQ(s.error, 24u);
    s = Session{};
    EXPECT_EQ(flst_m_setRoot(&s, kFile, 1), 24);
    EXPECT_EQ(kt::readFile(path), std::string(12, '\0'));
    EXPECT_EQ(flst_m_getFirstOffset(&s, kFile), 0u);  // no bytes at 12
    EXPECT_EQ(s.error, 24u);
}

TEST_F(Rooted, UnknownMediumIndex) {
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
    // Each word reversed from host order: 0x100 and 0x40 stored most significant byte last on
    // the big-endian target, first on a little-endian host.
    const bool little = kt::hostIsLittleEndian();
    const Bytes reversed = little ? Bytes{0, 0, 1, 0, 0, 0, 0, 0x40} : Bytes{0, 1, 0, 0, 0x40, 0, 0, 0};
    const Bytes host(reinterpret_cast<const uint8_t*>(&e), reinterpret_cast<const uint8_t*>(&e) + 8);

    setenv("SIM_BYTE_ORDER", "LITTLE_ENDIAN", 1);
    EXPECT_EQ(flst_m_setElement(&s, kFile, 32, &e), 0);
    EXPECT_EQ(bytes(32, 8), reversed);
    EXPECT_EQ(e.next, 0x100u);  // the caller's element is unchanged
    // Reads, the anchor and next links are not adjusted.
    FreeElement got{};
    EXPECT_EQ(flst_m_getElement(&s, kFile, 32, &got), &got);
    EXPECT_EQ(std::memcmp(&got, reversed.data(), 8), 0);
    EXPECT_EQ(flst_m_setNext(&s, kFile, 48, 0x100), 0);
    EXPECT_EQ(flst_m_setFirstOffset(&s, kFile, 0x100), 0);
    EXPECT_EQ(word(48), 0x100u);
    EXPECT_EQ(word(12), 0x100u);
    // Decided afresh at each write.
    for (const char* value : {"", "little_endian", "BIG_ENDIAN", static_cast<const char*>(nullptr)}) {
        value ? setenv("SIM_BYTE_ORDER", value, 1) : unsetenv("SIM_BYTE_ORDER");
        EXPECT_EQ(flst_m_setElement(&s, kFile, 32, &e), 0);
        // Unset: the host decides, so elements are stored as they are on the big-endian target.
        EXPECT_EQ(bytes(32, 8), value || !little ? host : reversed) << (value ? value : "(unset)");
    }
    // The split element of an allocation goes through the rule as well.
    setenv("SIM_BYTE_ORDER", "LITTLE_ENDIAN", 1);
    make(128, 16, {{16, 0, 0x70}});
    EXPECT_EQ(flst_m_get(&s, kFile, 0x30), 16u);
    EXPECT_EQ(word(12), 0x40u);
    EXPECT_EQ(bytes(0x40, 8), (little ? Bytes{0, 0, 0, 0, 0, 0, 0, 0x40} : Bytes{0, 0, 0, 0, 0x40, 0, 0, 0}));
    EXPECT_EQ(s.error, 0u);
}

// With SIM_BYTE_ORDER unset, as on a device, the host decides: on the big-endian target
// elements are stored in host order and the allocator reads its own list back; on a
// little-endian host they are stored reversed and read back as written.
TEST_F(Rooted, UnsetRuleOnThisHost) {
    unsetenv("SIM_BYTE_ORDER");
    make(128, 16, {{16, 0, 0x70}});
    EXPECT_EQ(flst_m_get(&s, kFile, 0x30), 16u);
    // Either way the split element's bytes are the big-endian ones.
    EXPECT_EQ(bytes(0x40, 8), (Bytes{0, 0, 0, 0, 0, 0, 0, 0x40}));
    if (kt::hostIsLittleEndian()) {
        EXPECT_EQ(element(0x40), Pair(0, 0x40000000u));
        return;
    }
    EXPECT_EQ(flst_m_get(&s, kFile, 0x10), 0x40u);
    EXPECT_EQ(element(0x50), Pair(0, 0x30));
    EXPECT_EQ(flst_m_release(&s, kFile, 16, 0x30), 0);
    EXPECT_EQ(word(12), 16u);
    EXPECT_EQ(element(16), Pair(0x50, 0x30));
    // Released again next to it: the two merge into one element of the whole rest.
    EXPECT_EQ(flst_m_release(&s, kFile, 0x40, 0x10), 0);
    EXPECT_EQ(element(16), Pair(0, 0x70));
    EXPECT_EQ(flst_m_get(&s, kFile, 0x70), 16u);
    EXPECT_EQ(word(12), 0u);
    EXPECT_EQ(s.error, 0u);
}

TEST_F(Rooted, FaultsInPrimitives) {
    const FreeElement e{0, 8};
    FreeElement got{};
    constexpr int32_t kShort = -1, kNoErr = KESDRV_FAULT_NOERR;  // kShort: `n` bytes are transferred
    struct Case {
        const char* what;
        int op;
        uint32_t n;
        int32_t errNo;
        std::function<int64_t()> call;
        int64_t result;
        uint32_t error, detail;
    };
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
    // A short write moves only its bytes.
    fault.shortOp(kWrite, 1, 2);
    EXPECT_EQ(flst_m_setNext(&s, kFault, 100, 0xFFFFFFFFu), 23);
    EXPECT_EQ(bytes(100, 4), (Bytes{0xFF, 0xFF, 0, 0}));
}

TEST_F(Rooted, FaultsInsideGetAndRelease) {
    struct Case { const char* what; int op; bool from; uint32_t nth, getSize, result, error, anchorAfter; } cases[] = {
        // The split element write fails after the link was already moved.
        {"split element write", kWrite, false, 2, 40, KESDB_FLST_FAILED, 23, 56},
        // A failed link write is recorded but the key is still handed out.
        {"link write", kWrite, false, 1, 40, 16, 23, 16},
        // Remainder below 8: fill and link failures do not change the result.
        {"fill and link", kWrite, true, 1, 235, 16, 23, 16},
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
    // Release: a failed read ends it with nothing changed; write failures are recorded; the
    // result is always 0.
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
    // A loop, a link into the element's own header, a first key inside the header, an element
    // reaching beyond 4 GiB, a link off the end: 24 with the key holding the bad link.
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
        if (c.release) {
            EXPECT_EQ(flst_m_release(&s, kFile, 200, 8), 0);
        } else {
            EXPECT_EQ(flst_m_get(&s, kFile, 40), 0u);
        }
        EXPECT_EQ(errorOf(s), Pair(24, c.detail));
        EXPECT_EQ(all(), before);
    }
}

TEST(RootedDefMedium, WithoutItsVariable) {
    // No media table loaded: entry 0 alone, KESDB_DEFMEDIA unset.
    unsetenv("KESDB_DEFMEDIA");
    Session s{};
    std::string out = kt::captureStdout([&] { EXPECT_EQ(flst_m_getRoot(&s, 0), 0u); });
    EXPECT_EQ(out, "flst_m_getRoot err2 0xffffffff\n");
    EXPECT_EQ(errorOf(s), Pair(22, 0));
    EXPECT_EQ(flst_m_get(&s, 0, 8), 0u);
    EXPECT_EQ(flst_m_release(nullptr, 0, 16, 8), 0);
}
