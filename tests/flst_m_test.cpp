// The rooted free-list allocator through medium drivers: layouts on real medium files, the
// byte-order rule of element writes, and every failure path through the fault-injection driver.
#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <array>
#include <cstring>
#include <functional>
#include <regex>
#include <string>

#include "kesdbm/kesdbm.h"
#include "mediakit.hpp"

namespace {

using mk::Bytes;

constexpr uint32_t kFile = 1;   // the named-file driver on the medium file
constexpr uint32_t kFault = 2;  // the fault-injection driver on the same file
constexpr uint32_t kAny = 0xFFFFFFFFu;

// A medium file reached through the named-file driver (index 1) and the fault-injection
// driver (index 2). Element words are written in host order unless a test says otherwise.
class Rooted : public ::testing::Test, public mk::ListFile {
protected:
    void SetUp() override {
        setenv("SIM_BYTE_ORDER", "BIG_ENDIAN", 1);
        path = dir.file("medium.bin");
        ASSERT_EQ(kesdb_layMedium(path.c_str(), 1024, 0), 0);
        kt::writeFile(dir.file("media.conf"), mk::driverLine("libkesdrv_file.so", "fileMedia_", path) +
                                                  mk::driverLine("libkesdrv_fault.so", "faultMedia_", path));
        ASSERT_EQ(media_init(dir.file("media.conf").c_str()), 0);
        ASSERT_EQ(media_getCount(), 3);
        ASSERT_TRUE(fault.ok());
        fault.reset();
    }
    void TearDown() override {
        EXPECT_EQ(fault.opens(), fault.closes());  // every successful open was closed again
        media_term();
    }
    // A medium of `size` bytes whose anchor is `first`, holding the given elements; a fresh
    // session and disarmed faults.
    void make(uint32_t size, uint32_t first, std::initializer_list<std::array<uint32_t, 3>> elements = {}) {
        ASSERT_EQ(kesdb_layMedium(path.c_str(), size, 0), 0);
        anchor(first);
        kt::writeBytes(path, 16, "\0\0\0\0\0\0\0\0", 8);
        for (const auto& e : elements) put(e[0], e[1], e[2]);
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
    EXPECT_EQ(word(56), 0u);
    EXPECT_EQ(word(60), 960u);
    EXPECT_EQ(bytes(64, 8), Bytes(8, 0));  // no body fill in this allocator

    // First fit over several elements; remainder 3 is filled and lost.
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
    struct Case {
        const char* what;
        uint32_t first;
        std::array<uint32_t, 3> a, b;
        uint32_t key, size;
        std::array<uint32_t, 3> expect;  // key whose {next, size} is checked, then the anchor
        uint32_t anchorAfter;
    } cases[] = {
        {"merge backward", 16, {16, 200, 84}, {200, 0, 100}, 100, 28, {16, 200, 112}, 16},
        {"merge both", 16, {16, 128, 84}, {128, 500, 40}, 100, 28, {16, 500, 152}, 16},
        {"apart from both", 16, {16, 100, 16}, {100, 0, 20}, 40, 8, {40, 100, 8}, 16},
        {"merge forward", 16, {16, 100, 16}, {100, 400, 20}, 80, 20, {80, 400, 40}, 16},
        {"new head", 100, {100, 0, 20}, {100, 0, 20}, 16, 28, {16, 100, 28}, 16},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        make(1024, c.first, {c.a, c.b});
        EXPECT_EQ(flst_m_release(&s, kFile, c.key, c.size), 0);
        EXPECT_EQ(word(12), c.anchorAfter);
        EXPECT_EQ(word(c.expect[0]), c.expect[1]);
        EXPECT_EQ(word(c.expect[0] + 4), c.expect[2]);
        EXPECT_EQ(s.error, 0u);
    }
    make(1024, 16, {{16, 100, 16}, {100, 0, 20}});

    // Behind the last element, overlapping an element, beyond 4 GiB, or into an empty list:
    // 0 and nothing changes.
    Bytes before = all();
    EXPECT_EQ(flst_m_release(&s, kFile, 300, 28), 0);
    EXPECT_EQ(flst_m_release(&s, kFile, 24, 16), 0);
    EXPECT_EQ(flst_m_release(&s, kFile, 90, 16), 0);
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
    EXPECT_EQ(word(16), 0u);
    EXPECT_EQ(word(20), 1008u);
    EXPECT_EQ(s.error, 0u);
}

TEST_F(Rooted, PrimitivesAndTheHeader) {
    make(64, 0);
    EXPECT_EQ(flst_m_getAnchorOffset(nullptr, 99), 12u);
    EXPECT_EQ(flst_m_setFirstOffset(&s, kFile, 40), 0);
    EXPECT_EQ(flst_m_getFirstOffset(&s, kFile), 40u);
    EXPECT_EQ(flst_m_setNext(&s, kFile, 40, 0xABCDu), 0);
    EXPECT_EQ(word(40), 0xABCDu);
    EXPECT_EQ(flst_m_fillFlagmented(&s, kFile, 50, 7), 0);
    EXPECT_EQ(bytes(50, 8), (Bytes{0xDE, 0xAD, 0xDE, 0xAD, 0xDE, 0xAD, 0xDE, 0}));
    const FreeElement e{0x100, 0x40};
    EXPECT_EQ(flst_m_setElement(&s, kFile, 24, &e), 0);
    FreeElement got{1, 1};
    EXPECT_EQ(flst_m_getElement(&s, kFile, 24, &got), &got);
    EXPECT_EQ(got.next, 0x100u);
    EXPECT_EQ(got.size, 0x40u);
    // 4 to 7 bytes are accepted (size 0), fewer are a read error.
    EXPECT_EQ(flst_m_getElement(&s, kFile, 58, &got), &got);
    EXPECT_EQ(got.size, 0u);
    EXPECT_EQ(s.error, 0u);
    EXPECT_EQ(flst_m_getElement(&s, kFile, 61, &got), nullptr);
    EXPECT_EQ(s.error, 24u);
    EXPECT_EQ(s.errorDetail, 0u);

    // The root: words 0 and 1 pass through unchanged.
    const uint32_t head[2] = {0xDEADBEEFu, 0x01020304u};
    kt::writeBytes(path, 0, head, 8);
    s = Session{};
    EXPECT_EQ(flst_m_setRoot(&s, kFile, 0x5150u), 0);
    EXPECT_EQ(flst_m_getRoot(&s, kFile), 0x5150u);
    const uint32_t expect[4] = {0xDEADBEEFu, 0x01020304u, 0x5150u, 40u};
    EXPECT_EQ(bytes(0, 16),
              Bytes(reinterpret_cast<const uint8_t*>(expect), reinterpret_cast<const uint8_t*>(expect) + 16));
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
    EXPECT_EQ(flst_m_getFirstOffset(&s, kFile), 0u);  // only 0 bytes at 12
    EXPECT_EQ(s.error, 24u);
}

TEST_F(Rooted, UnknownMediumIndex) {
    make(64, 16, {{16, 0, 48}});
    Bytes before = all();
    const FreeElement e{0, 8};
    FreeElement got{};
    std::string out = kt::captureStdout([&] {
        EXPECT_EQ(flst_m_getFirstOffset(&s, 3), 0u);
        EXPECT_EQ(flst_m_setFirstOffset(&s, 3, 0), 0);
        EXPECT_EQ(flst_m_getElement(&s, 3, 16, &got), nullptr);
        EXPECT_EQ(flst_m_setElement(&s, 3, 16, &e), 0);
        EXPECT_EQ(flst_m_setNext(&s, 3, 16, 0), 0);
        EXPECT_EQ(flst_m_fillFlagmented(&s, 3, 16, 2), 0);
        EXPECT_EQ(flst_m_get(&s, 3, 8), 0u);
        EXPECT_EQ(flst_m_release(&s, 3, 32, 8), 0);
        EXPECT_EQ(flst_m_getRoot(&s, 3), 0u);
        EXPECT_EQ(flst_m_setRoot(&s, 3, 5), 0);
        EXPECT_EQ(flst_m_get(nullptr, 3, 8), 0u);
    });
    EXPECT_EQ(out, "");
    EXPECT_EQ(s.error, 21u);
    EXPECT_EQ(s.errorDetail, 0u);
    EXPECT_EQ(all(), before);
}

TEST_F(Rooted, ByteOrderRuleAppliesToElementWritesOnly) {
    make(128, 0);
    const FreeElement e{0x100, 0x40};
    // Each word reversed from host order.
    Bytes reversed = boadj_judge() ? Bytes{0, 0, 1, 0, 0, 0, 0, 0x40} : Bytes{0, 1, 0, 0, 0x40, 0, 0, 0};
    Bytes host(8);
    std::memcpy(host.data(), &e, 8);

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
    for (const char* value : {"", "little_endian", "LITTLE_ENDIAN ", "BIG_ENDIAN"}) {
        setenv("SIM_BYTE_ORDER", value, 1);
        EXPECT_EQ(flst_m_setElement(&s, kFile, 32, &e), 0);
        EXPECT_EQ(bytes(32, 8), host) << '"' << value << '"';
    }
    unsetenv("SIM_BYTE_ORDER");
    EXPECT_EQ(flst_m_setElement(&s, kFile, 32, &e), 0);
    EXPECT_EQ(bytes(32, 8), boadj_judge() ? reversed : host);
    // The split element of an allocation goes through the rule as well.
    setenv("SIM_BYTE_ORDER", "LITTLE_ENDIAN", 1);
    make(128, 16, {{16, 0, 0x70}});
    EXPECT_EQ(flst_m_get(&s, kFile, 0x30), 16u);
    EXPECT_EQ(word(12), 0x40u);
    FreeElement split{0, 0x40};
    uint8_t expect[8];
    boadj_wordx2(&split, 1, expect);
    EXPECT_EQ(bytes(0x40, 8), Bytes(expect, expect + 8));
    EXPECT_EQ(s.error, 0u);
}

TEST_F(Rooted, FaultsInPrimitives) {
    const FreeElement e{0, 8};
    FreeElement got{};
    using Call = std::function<uint32_t()>;
    struct Case {
        const char* what;
        int op;
        bool isShort;  // a short transfer of `n` bytes instead of a failure with `errNo`
        uint32_t n;
        int32_t errNo;
        Call call;
        uint32_t result, error, detail;
    } cases[] = {
        {"open: getFirstOffset", KESDRV_FAULT_OPEN, false, 1, EIO, [&] { return flst_m_getFirstOffset(&s, kFault); }, 0,
         22, EIO},
        {"open, no errno: setNext", KESDRV_FAULT_OPEN, false, 1, KESDRV_FAULT_NOERR,
         [&] { return uint32_t(flst_m_setNext(&s, kFault, 16, 0)); }, 22, 22, 0},
        {"open: setElement", KESDRV_FAULT_OPEN, false, 1, ENODEV,
         [&] { return uint32_t(flst_m_setElement(&s, kFault, 16, &e)); }, 22, 22, ENODEV},
        {"open: setRoot", KESDRV_FAULT_OPEN, false, 1, EIO, [&] { return uint32_t(flst_m_setRoot(&s, kFault, 9)); }, 22,
         22, EIO},
        {"short read: getFirstOffset", KESDRV_FAULT_READ, true, 3, 0, [&] { return flst_m_getFirstOffset(&s, kFault); },
         0, 24, 0},
        {"read: getElement", KESDRV_FAULT_READ, false, 1, EIO,
         [&] { return uint32_t(flst_m_getElement(&s, kFault, 16, &got) != nullptr); }, 0, 24, EIO},
        {"short read: setRoot", KESDRV_FAULT_READ, true, 15, 0, [&] { return uint32_t(flst_m_setRoot(&s, kFault, 9)); },
         24, 24, 0},
        {"short write: setElement", KESDRV_FAULT_WRITE, true, 7, 0,
         [&] { return uint32_t(flst_m_setElement(&s, kFault, 100, &e)); }, 23, 23, 0},
        {"write: setElement", KESDRV_FAULT_WRITE, false, 1, ENOSPC,
         [&] { return uint32_t(flst_m_setElement(&s, kFault, 100, &e)); }, 23, 23, ENOSPC},
        {"write: setFirstOffset", KESDRV_FAULT_WRITE, false, 1, EIO,
         [&] { return uint32_t(flst_m_setFirstOffset(&s, kFault, 0)); }, 23, 23, EIO},
        {"short write: fill", KESDRV_FAULT_WRITE, true, 1, 0,
         [&] { return uint32_t(flst_m_fillFlagmented(&s, kFault, 100, 5)); }, 23, 23, 0},
        {"short write: setRoot", KESDRV_FAULT_WRITE, true, 15, 0,
         [&] { return uint32_t(flst_m_setRoot(&s, kFault, 9)); }, 23, 23, 0},
        {"close: ignored", KESDRV_FAULT_CLOSE, false, 1, EIO, [&] { return flst_m_getFirstOffset(&s, kFault); }, 16, 0,
         0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        make(256, 16, {{16, 0, 240}});
        Bytes before = all();
        s.errorDetail = 99;
        if (c.isShort)
            fault.shortOp(c.op, 1, c.n);
        else
            fault.fail(c.op, c.n, c.errNo);
        EXPECT_EQ(c.call(), c.result);
        EXPECT_EQ(s.error, c.error);
        if (c.error != 0) {
            EXPECT_EQ(s.errorDetail, c.detail);
        }
        if (c.op == KESDRV_FAULT_OPEN) {
            EXPECT_EQ(fault.calls(KESDRV_FAULT_READ) + fault.calls(KESDRV_FAULT_WRITE), 0u);
        }
        if (c.op != KESDRV_FAULT_WRITE) {
            EXPECT_EQ(all(), before);
        }
    }

    // Messages of getRoot: err2 when the open fails, err1 when the read is short.
    make(256, 16, {{16, 0, 240}});
    fault.fail(KESDRV_FAULT_OPEN, 1, EIO);
    EXPECT_EQ(getRootOutput(kFault), "flst_m_getRoot err2 0xffffffff\n");
    EXPECT_EQ(s.error, 22u);
    make(256, 16, {{16, 0, 240}});
    fault.shortOp(KESDRV_FAULT_READ, 1, 15);
    std::string out = getRootOutput(kFault);
    EXPECT_TRUE(isErr1(out)) << out;
    EXPECT_EQ(s.error, 24u);
    // A short write moves only its bytes.
    fault.shortOp(KESDRV_FAULT_WRITE, 1, 2);
    EXPECT_EQ(flst_m_setNext(&s, kFault, 100, 0xFFFFFFFFu), 23);
    EXPECT_EQ(bytes(100, 4), (Bytes{0xFF, 0xFF, 0, 0}));
}

TEST_F(Rooted, FaultsInsideGetAndRelease) {
    struct Case {
        const char* what;
        int op;
        bool from;  // every call from the nth on fails
        uint32_t nth, getSize, result, error, anchorAfter;
    } cases[] = {
        // The split element write fails after the link was already moved.
        {"split element write", KESDRV_FAULT_WRITE, false, 2, 40, KESDB_FLST_FAILED, 23, 56},
        {"split element open", KESDRV_FAULT_OPEN, false, 4, 40, KESDB_FLST_FAILED, 22, 56},
        // A failed link write is recorded but the key is still handed out.
        {"link write", KESDRV_FAULT_WRITE, false, 1, 40, 16, 23, 16},
        // Remainder below 8: fill and link failures do not change the result.
        {"fill and link", KESDRV_FAULT_WRITE, true, 1, 235, 16, 23, 16},
        {"anchor open", KESDRV_FAULT_OPEN, false, 1, 8, 0, 22, 16},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        make(256, 16, {{16, 0, 240}});
        (c.from ? fault.failFrom : fault.fail)(c.op, c.nth, EIO);
        EXPECT_EQ(flst_m_get(&s, kFault, c.getSize), c.result);
        EXPECT_EQ(s.error, c.error);
        EXPECT_EQ(s.errorDetail, static_cast<uint32_t>(EIO));
        EXPECT_EQ(word(12), c.anchorAfter);
        if (c.from) {
            EXPECT_EQ(fault.calls(KESDRV_FAULT_WRITE), 2u);
        }
    }
    // A failed read while walking: 0, nothing written.
    make(256, 16, {{16, 100, 20}, {100, 0, 100}});
    fault.fail(KESDRV_FAULT_READ, 3, EIO);
    EXPECT_EQ(flst_m_get(&s, kFault, 40), 0u);
    EXPECT_EQ(s.error, 24u);
    EXPECT_EQ(fault.calls(KESDRV_FAULT_WRITE), 0u);

    // Release: a failed read ends it with nothing changed; write failures are recorded; the
    // result is always 0.
    make(256, 16, {{16, 100, 20}, {100, 0, 100}});
    Bytes before = all();
    fault.fail(KESDRV_FAULT_READ, 2, EIO);
    EXPECT_EQ(flst_m_release(&s, kFault, 50, 8), 0);
    EXPECT_EQ(s.error, 24u);
    EXPECT_EQ(all(), before);
    fault.reset();
    s = Session{};
    fault.failFrom(KESDRV_FAULT_WRITE, 1, EROFS);
    EXPECT_EQ(flst_m_release(&s, kFault, 50, 8), 0);
    EXPECT_EQ(s.error, 23u);
    EXPECT_EQ(s.errorDetail, static_cast<uint32_t>(EROFS));
    EXPECT_EQ(fault.calls(KESDRV_FAULT_WRITE), 2u);
    EXPECT_EQ(all(), before);
    EXPECT_EQ(fault.calls(KESDRV_FAULT_OPEN), fault.calls(KESDRV_FAULT_CLOSE));
}

TEST_F(Rooted, BrokenListsEndTheWalk) {
    struct Case {
        const char* what;
        uint32_t first;
        std::array<uint32_t, 3> a, b;
        uint32_t getSize;  // 0: release 8 bytes at 200 instead
        uint32_t detail;   // kAny: not checked
    } cases[] = {
        {"loop, get", 32, {32, 64, 16}, {64, 32, 16}, 40, 64},
        {"loop, release", 32, {32, 64, 16}, {64, 32, 16}, 0, 64},
        {"self loop", 32, {32, 32, 16}, {32, 32, 16}, 40, 32},
        {"link into own header", 32, {32, 39, 16}, {32, 39, 16}, 0, kAny},
        {"first key in the header", 4, {32, 0, 16}, {32, 0, 16}, 8, 12},
        {"beyond 4 GiB", 32, {32, 0, 0xFFFFFFF0u}, {32, 0, 0xFFFFFFF0u}, 8, kAny},
        {"off the end", 32, {32, 1000, 16}, {32, 1000, 16}, 0, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        make(256, c.first, {c.a, c.b});
        Bytes before = all();
        if (c.getSize == 0)
            EXPECT_EQ(flst_m_release(&s, kFile, 200, 8), 0);
        else
            EXPECT_EQ(flst_m_get(&s, kFile, c.getSize), 0u);
        EXPECT_EQ(s.error, 24u);
        if (c.detail != kAny) {
            EXPECT_EQ(s.errorDetail, c.detail);
        }
        EXPECT_EQ(all(), before);
    }
}

TEST(RootedDefMedium, WithoutItsVariable) {
    // No media table loaded: entry 0 alone, KESDB_DEFMEDIA unset.
    unsetenv("KESDB_DEFMEDIA");
    Session s{};
    std::string out = kt::captureStdout([&] { EXPECT_EQ(flst_m_getRoot(&s, 0), 0u); });
    EXPECT_EQ(out, "flst_m_getRoot err2 0xffffffff\n");
    EXPECT_EQ(s.error, 22u);
    EXPECT_EQ(s.errorDetail, 0u);
    EXPECT_EQ(flst_m_get(&s, 0, 8), 0u);
    EXPECT_EQ(flst_m_release(nullptr, 0, 16, 8), 0);
}
