// The rooted free-list allocator through medium drivers: layouts on real medium files, the
// byte-order rule of element writes, and every failure path through the fault-injection driver.
#include <dlfcn.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstring>
#include <regex>
#include <string>
#include <vector>

#include "../drivers/kesdrv_fault.h"
#include "kesdbm/kesdbm.h"
#include "testkit.hpp"

namespace {

using Bytes = std::vector<uint8_t>;

// The control calls of the fault-injection driver, from the instance the media table loads.
struct FaultControl {
    FaultControl() {
        handle = dlopen(kt::libPath("libkesdrv_fault.so").c_str(), RTLD_NOW);
        if (!handle) return;
        reset = reinterpret_cast<kesdrvFault_resetFn>(dlsym(handle, KESDRV_FAULT_SYM_RESET));
        fail = reinterpret_cast<kesdrvFault_failFn>(dlsym(handle, KESDRV_FAULT_SYM_FAIL));
        failFrom = reinterpret_cast<kesdrvFault_failFromFn>(dlsym(handle, KESDRV_FAULT_SYM_FAILFROM));
        shortOp = reinterpret_cast<kesdrvFault_shortFn>(dlsym(handle, KESDRV_FAULT_SYM_SHORT));
        calls = reinterpret_cast<kesdrvFault_callsFn>(dlsym(handle, KESDRV_FAULT_SYM_CALLS));
        opens = reinterpret_cast<kesdrvFault_opensFn>(dlsym(handle, KESDRV_FAULT_SYM_OPENS));
        closes = reinterpret_cast<kesdrvFault_closesFn>(dlsym(handle, KESDRV_FAULT_SYM_CLOSES));
    }
    ~FaultControl() {
        if (handle) dlclose(handle);
    }
    bool ok() const { return reset && fail && failFrom && shortOp && calls && opens && closes; }

    void* handle = nullptr;
    kesdrvFault_resetFn reset = nullptr;
    kesdrvFault_failFn fail = nullptr;
    kesdrvFault_failFromFn failFrom = nullptr;
    kesdrvFault_shortFn shortOp = nullptr;
    kesdrvFault_callsFn calls = nullptr;
    kesdrvFault_opensFn opens = nullptr;
    kesdrvFault_closesFn closes = nullptr;
};

std::string driverLine(const std::string& lib, const std::string& prefix, const std::string& name) {
    std::string line = kt::libPath(lib);
    for (const char* op : {"open", "close", "read", "write", "seek", "sync"}) line += " " + prefix + op;
    return line + " " + name + "\n";
}

constexpr uint32_t kFile = 1;   // the named-file driver on the medium file
constexpr uint32_t kFault = 2;  // the fault-injection driver on the same file

// A medium file reached through the named-file driver (index 1) and the fault-injection
// driver (index 2). Element words are written in host order unless a test says otherwise.
class Rooted : public ::testing::Test {
protected:
    void SetUp() override {
        setenv("SIM_BYTE_ORDER", "BIG_ENDIAN", 1);
        ASSERT_EQ(kesdb_layMedium(path.c_str(), 1024, 0), 0);
        kt::writeFile(dir.file("media.conf"), driverLine("libkesdrv_file.so", "fileMedia_", path) +
                                                  driverLine("libkesdrv_fault.so", "faultMedia_", path));
        ASSERT_EQ(media_init(dir.file("media.conf").c_str()), 0);
        ASSERT_EQ(media_getCount(), 3);
        ASSERT_TRUE(fault.ok());
        fault.reset();
    }
    void TearDown() override {
        // Every successful open of the fault driver was closed again.
        EXPECT_EQ(fault.opens(), fault.closes());
        media_term();
    }
    // A medium of `size` bytes whose anchor is `first`.
    void make(uint32_t size, uint32_t first) {
        ASSERT_EQ(kesdb_layMedium(path.c_str(), size, 0), 0);
        kt::writeBytes(path, 12, &first, 4);
        kt::writeBytes(path, 16, "\0\0\0\0\0\0\0\0", 8);
    }
    void put(uint32_t key, uint32_t next, uint32_t size) {
        const uint32_t words[2] = {next, size};
        kt::writeBytes(path, key, words, 8);
    }
    uint32_t word(uint32_t key) { return kt::readWord(path, key); }
    Bytes all() { return kt::readBytes(path, 0, 1 << 16); }

    kt::TempDir dir;
    std::string path = dir.file("medium.bin");
    FaultControl fault;
    Session s{};
};

}  // namespace

TEST_F(Rooted, AllocationSplitsFragmentsAndUnlinks) {
    // 40 bytes from the only element, at 16 with size 1000: 16; first 56; {old next, 960} at 56.
    make(1016, 16);
    put(16, 0, 1000);
    EXPECT_EQ(flst_m_get(&s, kFile, 40), 16u);
    EXPECT_EQ(word(12), 56u);
    EXPECT_EQ(word(56), 0u);
    EXPECT_EQ(word(60), 960u);
    // No 0xBA body fill in this allocator.
    EXPECT_EQ(kt::readBytes(path, 64, 8), Bytes(8, 0));
    EXPECT_EQ(flst_m_get(&s, kFile, 28), 56u);
    EXPECT_EQ(word(12), 84u);
    EXPECT_EQ(word(88), 932u);

    // First fit over several elements; remainder 3 is filled and lost.
    make(1024, 32);
    put(32, 64, 16);
    put(64, 200, 31);
    put(200, 0, 300);
    uint8_t guard = 0x77;
    kt::writeBytes(path, 95, &guard, 1);
    EXPECT_EQ(flst_m_get(&s, kFile, 28), 64u);
    EXPECT_EQ(word(32), 200u);
    EXPECT_EQ(kt::readBytes(path, 92, 4), (Bytes{0xDE, 0xAD, 0xDE, 0x77}));
    // Exact fit of the last element: the predecessor's next becomes 0.
    EXPECT_EQ(flst_m_get(&s, kFile, 300), 200u);
    EXPECT_EQ(word(32), 0u);
    // Nothing fits: 0 and nothing changes.
    Bytes before = all();
    EXPECT_EQ(flst_m_get(&s, kFile, 17), 0u);
    EXPECT_EQ(all(), before);
    // Zero bytes: the first element's key, the list as it was.
    EXPECT_EQ(flst_m_get(&s, kFile, 0), 32u);
    EXPECT_EQ(all(), before);
    EXPECT_EQ(s.error, 0u);

    // An empty list.
    make(64, 0);
    EXPECT_EQ(flst_m_get(&s, kFile, 8), 0u);
    EXPECT_EQ(s.error, 0u);
}

TEST_F(Rooted, ReleaseInsertsAndMerges) {
    // Merge backward: 28 at 100 with elements at 16 (84) and 200.
    make(1024, 16);
    put(16, 200, 84);
    put(200, 0, 100);
    EXPECT_EQ(flst_m_release(&s, kFile, 100, 28), 0);
    EXPECT_EQ(word(12), 16u);
    EXPECT_EQ(word(16), 200u);
    EXPECT_EQ(word(20), 112u);

    // All three merge: 28 at 100 with elements at 16 (84) and 128 (next 500).
    make(1024, 16);
    put(16, 128, 84);
    put(128, 500, 40);
    EXPECT_EQ(flst_m_release(&s, kFile, 100, 28), 0);
    EXPECT_EQ(word(16), 500u);
    EXPECT_EQ(word(20), 152u);

    // Apart from both neighbours, in the middle of the list.
    make(1024, 16);
    put(16, 100, 16);
    put(100, 0, 20);
    EXPECT_EQ(flst_m_release(&s, kFile, 40, 8), 0);
    EXPECT_EQ(word(16), 40u);
    EXPECT_EQ(word(40), 100u);
    EXPECT_EQ(word(44), 8u);

    // Merge forward: 20 at 80 joins the element at 100.
    make(1024, 16);
    put(16, 100, 16);
    put(100, 400, 20);
    EXPECT_EQ(flst_m_release(&s, kFile, 80, 20), 0);
    EXPECT_EQ(word(16), 80u);
    EXPECT_EQ(word(80), 400u);
    EXPECT_EQ(word(84), 40u);

    // In front of the first element: the new head.
    make(1024, 100);
    put(100, 0, 20);
    EXPECT_EQ(flst_m_release(&s, kFile, 16, 28), 0);
    EXPECT_EQ(word(12), 16u);
    EXPECT_EQ(word(16), 100u);
    EXPECT_EQ(word(20), 28u);
    EXPECT_EQ(s.error, 0u);

    // Behind the last element, overlapping an element, beyond 4 GiB, or into an empty list:
    // 0 and nothing changes.
    make(1024, 16);
    put(16, 100, 16);
    put(100, 0, 20);
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
}

TEST_F(Rooted, AllocateAndReleaseRoundTrip) {
    // Blocks handed out and given back in any order end as the one element they came from.
    make(1024, 16);
    put(16, 0, 1008);
    const uint32_t sizes[5] = {28, 40, 16, 12, 100};
    uint32_t keys[5];
    for (int i = 0; i < 5; ++i) keys[i] = flst_m_get(&s, kFile, sizes[i]);
    EXPECT_EQ(keys[0], 16u);
    EXPECT_EQ(keys[4], 16u + 28 + 40 + 16 + 12);
    for (int i : {1, 3, 0, 2}) EXPECT_EQ(flst_m_release(&s, kFile, keys[i], sizes[i]), 0);
    EXPECT_EQ(flst_m_release(&s, kFile, keys[4], sizes[4]), 0);
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
    EXPECT_EQ(kt::readBytes(path, 50, 8), (Bytes{0xDE, 0xAD, 0xDE, 0xAD, 0xDE, 0xAD, 0xDE, 0}));
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
    EXPECT_EQ(word(0), 0xDEADBEEFu);
    EXPECT_EQ(word(4), 0x01020304u);
    EXPECT_EQ(word(8), 0x5150u);
    EXPECT_EQ(word(12), 40u);
    EXPECT_EQ(s.error, 0u);

    // The built-in medium serves the same calls.
    setenv("KESDB_DEFMEDIA", path.c_str(), 1);
    EXPECT_EQ(flst_m_getRoot(&s, 0), 0x5150u);
    // A medium shorter than its header.
    kt::writeFile(path, std::string(12, '\0'));
    std::string out = kt::captureStdout([&] { EXPECT_EQ(flst_m_getRoot(&s, kFile), 0u); });
    EXPECT_TRUE(std::regex_match(out, std::regex("flst_m_getRoot err1 0x[0-9a-f]+\n"))) << out;
    EXPECT_EQ(s.error, 24u);
    s = Session{};
    EXPECT_EQ(flst_m_setRoot(&s, kFile, 1), 24);
    EXPECT_EQ(kt::readFile(path), std::string(12, '\0'));
    EXPECT_EQ(flst_m_getFirstOffset(&s, kFile), 0u);  // only 0 bytes at 12
    EXPECT_EQ(s.error, 24u);
}

TEST_F(Rooted, UnknownMediumIndex) {
    make(64, 16);
    put(16, 0, 48);
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
    // Each word reversed from host order: on a little-endian host 00 00 01 00 00 00 00 40,
    // on a big-endian one 00 01 00 00 40 00 00 00.
    Bytes reversed = boadj_judge() ? Bytes{0, 0, 1, 0, 0, 0, 0, 0x40} : Bytes{0, 1, 0, 0, 0x40, 0, 0, 0};
    Bytes host(8);
    std::memcpy(host.data(), &e, 8);

    setenv("SIM_BYTE_ORDER", "LITTLE_ENDIAN", 1);
    EXPECT_EQ(flst_m_setElement(&s, kFile, 32, &e), 0);
    EXPECT_EQ(kt::readBytes(path, 32, 8), reversed);
    EXPECT_EQ(e.next, 0x100u);  // the caller's element is unchanged
    EXPECT_EQ(e.size, 0x40u);
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
        EXPECT_EQ(kt::readBytes(path, 32, 8), host) << '"' << value << '"';
    }
    unsetenv("SIM_BYTE_ORDER");
    EXPECT_EQ(flst_m_setElement(&s, kFile, 32, &e), 0);
    EXPECT_EQ(kt::readBytes(path, 32, 8), boadj_judge() ? reversed : host);
    // The split element of an allocation goes through the rule as well.
    setenv("SIM_BYTE_ORDER", "LITTLE_ENDIAN", 1);
    make(128, 16);
    put(16, 0, 0x70);
    EXPECT_EQ(flst_m_get(&s, kFile, 0x30), 16u);
    EXPECT_EQ(word(12), 0x40u);
    FreeElement split{0, 0x40};
    uint8_t expect[8];
    boadj_wordx2(&split, 1, expect);
    EXPECT_EQ(kt::readBytes(path, 0x40, 8), Bytes(expect, expect + 8));
    EXPECT_EQ(s.error, 0u);
}

TEST_F(Rooted, FaultsInPrimitives) {
    make(256, 16);
    put(16, 0, 240);
    Bytes before = all();

    // Open fails: 22 with the driver's error number, nothing transferred.
    fault.fail(KESDRV_FAULT_OPEN, 1, EIO);
    EXPECT_EQ(flst_m_getFirstOffset(&s, kFault), 0u);
    EXPECT_EQ(s.error, 22u);
    EXPECT_EQ(s.errorDetail, static_cast<uint32_t>(EIO));
    EXPECT_EQ(fault.calls(KESDRV_FAULT_READ), 0u);
    // An open that stores no error number leaves detail 0.
    fault.reset();
    fault.fail(KESDRV_FAULT_OPEN, 1, KESDRV_FAULT_NOERR);
    s.errorDetail = 99;
    EXPECT_EQ(flst_m_setNext(&s, kFault, 16, 0), 22);
    EXPECT_EQ(s.errorDetail, 0u);
    fault.reset();
    fault.fail(KESDRV_FAULT_OPEN, 1, ENODEV);
    const FreeElement e{0, 8};
    EXPECT_EQ(flst_m_setElement(&s, kFault, 16, &e), 22);
    EXPECT_EQ(s.errorDetail, static_cast<uint32_t>(ENODEV));
    fault.reset();
    fault.fail(KESDRV_FAULT_OPEN, 1, EIO);
    EXPECT_EQ(flst_m_setRoot(&s, kFault, 9), 22);
    fault.reset();
    fault.fail(KESDRV_FAULT_OPEN, 1, EIO);
    std::string out = kt::captureStdout([&] { EXPECT_EQ(flst_m_getRoot(&s, kFault), 0u); });
    EXPECT_EQ(out, "flst_m_getRoot err2 0xffffffff\n");
    EXPECT_EQ(s.error, 22u);
    EXPECT_EQ(all(), before);

    // Short and failed reads: 24 with the driver's error number.
    fault.reset();
    s = Session{};
    fault.shortOp(KESDRV_FAULT_READ, 1, 3);
    EXPECT_EQ(flst_m_getFirstOffset(&s, kFault), 0u);
    EXPECT_EQ(s.error, 24u);
    EXPECT_EQ(s.errorDetail, 0u);
    fault.reset();
    fault.fail(KESDRV_FAULT_READ, 1, EIO);
    FreeElement got{};
    EXPECT_EQ(flst_m_getElement(&s, kFault, 16, &got), nullptr);
    EXPECT_EQ(s.error, 24u);
    EXPECT_EQ(s.errorDetail, static_cast<uint32_t>(EIO));
    fault.reset();
    fault.shortOp(KESDRV_FAULT_READ, 1, 4);  // 4 bytes of an element are enough
    EXPECT_EQ(flst_m_getElement(&s, kFault, 16, &got), &got);
    EXPECT_EQ(got.next, 0u);
    EXPECT_EQ(got.size, 0u);
    fault.reset();
    fault.shortOp(KESDRV_FAULT_READ, 1, 15);
    s = Session{};
    out = kt::captureStdout([&] { EXPECT_EQ(flst_m_getRoot(&s, kFault), 0u); });
    EXPECT_TRUE(std::regex_match(out, std::regex("flst_m_getRoot err1 0x[0-9a-f]+\n"))) << out;
    EXPECT_EQ(s.error, 24u);
    fault.reset();
    fault.shortOp(KESDRV_FAULT_READ, 1, 15);
    EXPECT_EQ(flst_m_setRoot(&s, kFault, 9), 24);
    EXPECT_EQ(fault.calls(KESDRV_FAULT_WRITE), 0u);
    EXPECT_EQ(all(), before);

    // Short and failed writes: 23.
    fault.reset();
    s = Session{};
    fault.shortOp(KESDRV_FAULT_WRITE, 1, 2);
    EXPECT_EQ(flst_m_setNext(&s, kFault, 100, 0xFFFFFFFFu), 23);
    EXPECT_EQ(s.errorDetail, 0u);
    EXPECT_EQ(kt::readBytes(path, 100, 4), (Bytes{0xFF, 0xFF, 0, 0}));
    fault.reset();
    fault.fail(KESDRV_FAULT_WRITE, 1, ENOSPC);
    EXPECT_EQ(flst_m_setElement(&s, kFault, 100, &e), 23);
    EXPECT_EQ(s.errorDetail, static_cast<uint32_t>(ENOSPC));
    fault.reset();
    fault.shortOp(KESDRV_FAULT_WRITE, 1, 7);
    EXPECT_EQ(flst_m_setElement(&s, kFault, 100, &e), 23);
    fault.reset();
    fault.fail(KESDRV_FAULT_WRITE, 1, EIO);
    EXPECT_EQ(flst_m_setFirstOffset(&s, kFault, 0), 23);
    fault.reset();
    fault.shortOp(KESDRV_FAULT_WRITE, 1, 1);
    EXPECT_EQ(flst_m_fillFlagmented(&s, kFault, 100, 5), 23);
    fault.reset();
    fault.shortOp(KESDRV_FAULT_WRITE, 1, 15);
    EXPECT_EQ(flst_m_setRoot(&s, kFault, 9), 23);
    EXPECT_EQ(s.error, 23u);
    // A failing close is ignored: the transfer decides.
    fault.reset();
    s = Session{};
    fault.fail(KESDRV_FAULT_CLOSE, 1, EIO);
    EXPECT_EQ(flst_m_getFirstOffset(&s, kFault), 16u);
    EXPECT_EQ(s.error, 0u);
    EXPECT_EQ(fault.calls(KESDRV_FAULT_OPEN), fault.calls(KESDRV_FAULT_CLOSE));
}

TEST_F(Rooted, FaultsInsideGetAndRelease) {
    // The split element write fails: 0xFFFFFFFF, after the link was already moved.
    make(256, 16);
    put(16, 0, 240);
    fault.fail(KESDRV_FAULT_WRITE, 2, EIO);
    EXPECT_EQ(flst_m_get(&s, kFault, 40), KESDB_FLST_FAILED);
    EXPECT_EQ(s.error, 23u);
    EXPECT_EQ(s.errorDetail, static_cast<uint32_t>(EIO));
    EXPECT_EQ(word(12), 56u);
    // The same when the split element's open fails.
    make(256, 16);
    put(16, 0, 240);
    fault.reset();
    fault.fail(KESDRV_FAULT_OPEN, 4, EIO);  // first, element, link, split element
    EXPECT_EQ(flst_m_get(&s, kFault, 40), KESDB_FLST_FAILED);
    EXPECT_EQ(s.error, 22u);
    // A failed link write is recorded but the key is still handed out.
    make(256, 16);
    put(16, 0, 240);
    fault.reset();
    s = Session{};
    fault.fail(KESDRV_FAULT_WRITE, 1, EIO);
    EXPECT_EQ(flst_m_get(&s, kFault, 40), 16u);
    EXPECT_EQ(s.error, 23u);
    // Remainder below 8: fill and link failures do not change the result.
    make(256, 16);
    put(16, 0, 240);
    fault.reset();
    s = Session{};
    fault.failFrom(KESDRV_FAULT_WRITE, 1, EIO);
    EXPECT_EQ(flst_m_get(&s, kFault, 235), 16u);
    EXPECT_EQ(fault.calls(KESDRV_FAULT_WRITE), 2u);
    EXPECT_EQ(s.error, 23u);
    // A failed read while walking: 0, nothing written.
    make(256, 16);
    put(16, 100, 20);
    put(100, 0, 100);
    fault.reset();
    s = Session{};
    fault.fail(KESDRV_FAULT_READ, 3, EIO);
    EXPECT_EQ(flst_m_get(&s, kFault, 40), 0u);
    EXPECT_EQ(s.error, 24u);
    EXPECT_EQ(fault.calls(KESDRV_FAULT_WRITE), 0u);
    // The anchor read fails: 0.
    fault.reset();
    fault.fail(KESDRV_FAULT_OPEN, 1, EIO);
    EXPECT_EQ(flst_m_get(&s, kFault, 8), 0u);
    EXPECT_EQ(s.error, 22u);

    // Release: a failed read ends it with nothing changed; write failures are recorded; the
    // result is always 0.
    Bytes before = all();
    fault.reset();
    s = Session{};
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

    // Every access opened and closed the medium once.
    EXPECT_GT(fault.opens(), 0u);
    EXPECT_EQ(fault.calls(KESDRV_FAULT_OPEN), fault.calls(KESDRV_FAULT_CLOSE));
}

TEST_F(Rooted, BrokenListsEndTheWalk) {
    // A loop of elements too small for the request.
    make(256, 32);
    put(32, 64, 16);
    put(64, 32, 16);
    Bytes before = all();
    EXPECT_EQ(flst_m_get(&s, kFile, 40), 0u);
    EXPECT_EQ(s.error, 24u);
    EXPECT_EQ(s.errorDetail, 64u);
    s = Session{};
    EXPECT_EQ(flst_m_release(&s, kFile, 200, 8), 0);
    EXPECT_EQ(s.error, 24u);
    EXPECT_EQ(s.errorDetail, 64u);
    EXPECT_EQ(all(), before);
    // A self loop and a link into the element's own header.
    put(32, 32, 16);
    s = Session{};
    EXPECT_EQ(flst_m_get(&s, kFile, 40), 0u);
    EXPECT_EQ(s.errorDetail, 32u);
    put(32, 39, 16);
    s = Session{};
    EXPECT_EQ(flst_m_release(&s, kFile, 200, 8), 0);
    EXPECT_EQ(s.error, 24u);
    // A first key inside the header, an element reaching beyond 4 GiB.
    make(256, 4);
    s = Session{};
    EXPECT_EQ(flst_m_get(&s, kFile, 8), 0u);
    EXPECT_EQ(s.errorDetail, 12u);
    make(256, 32);
    put(32, 0, 0xFFFFFFF0u);
    s = Session{};
    EXPECT_EQ(flst_m_get(&s, kFile, 8), 0u);
    EXPECT_EQ(s.error, 24u);
    // A list running off the end of the medium ends at the failed read.
    make(256, 32);
    put(32, 1000, 16);
    s = Session{};
    EXPECT_EQ(flst_m_release(&s, kFile, 300, 8), 0);
    EXPECT_EQ(s.error, 24u);
    EXPECT_EQ(s.errorDetail, 0u);
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
