// The medium drivers built with the library: the named-file driver, the fault-injection driver
// with its control calls, and media_sync through them.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "kesdbm/kesdbm.h"
#include "mediakit.hpp"

TEST(Driver, FileDriverOperations) {
    kt::TempDir dir;
    const std::string path = dir.file("f.bin");
    kt::writeFile(path, "0123456789");
    mk::Lib lib("libkesdrv_file.so");
    mk::Ops d(lib, "fileMedia_");
    ASSERT_TRUE(d.ok());
    int32_t err = 0;
    EXPECT_EQ(d.open(dir.file("none").c_str(), 0, &err), -1);
    EXPECT_EQ(err, ENOENT);
    EXPECT_EQ(kt::readFile(dir.file("none")), "");  // not created
    EXPECT_EQ(d.open(nullptr, 0, &err), -1);
    EXPECT_EQ(err, EFAULT);
    mk::checkOps(d, d.open(path.c_str(), 0, &err), path);
    EXPECT_EQ(kt::readFile(path), "0123ab6789");
}

// The fault-injection driver's arming, counting and short transfers are relied on, and checked
// call by call, by the rooted allocator's failure tests; here what those do not reach.
TEST(Driver, FaultDriverControls) {
    kt::TempDir dir;
    const std::string path = dir.file("f.bin");
    kt::writeFile(path, "0123456789");
    mk::FaultControl f;
    mk::Ops d(f, "faultMedia_");
    ASSERT_TRUE(d.ok() && f.ok());
    f.reset();
    int32_t err = 0;
    mk::checkOps(d, d.open(path.c_str(), 0, &err), path);  // disarmed, it is the file driver

    // Failed opens, armed or real, are not counted as opens; a failing close still closes.
    f.reset();
    f.fail(KESDRV_FAULT_OPEN, 2, EMFILE);
    const int fd = d.open(path.c_str(), 0, &err);
    EXPECT_EQ(d.open(path.c_str(), 0, &err), -1);
    EXPECT_EQ(err, EMFILE);
    EXPECT_EQ(d.open(dir.file("none").c_str(), 0, &err), -1);
    EXPECT_EQ(err, ENOENT);
    EXPECT_EQ(f.calls(KESDRV_FAULT_OPEN), 3u);
    EXPECT_EQ(f.opens(), 1u);
    f.fail(KESDRV_FAULT_SEEK, 1, KESDRV_FAULT_NOERR);
    EXPECT_EQ(d.seek(fd, 0, 2, &err), -1);
    EXPECT_EQ(err, ENOENT);  // nothing stored
    EXPECT_EQ(d.seek(fd, 0, 2, &err), 10);
    f.fail(KESDRV_FAULT_CLOSE, 1, EINTR);
    EXPECT_EQ(d.close(fd, &err), -1);
    EXPECT_EQ(err, EINTR);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    EXPECT_EQ(f.opens(), f.closes());
}

// Keys are 32-bit unsigned byte offsets: a record at a key past 2 GiB is read and written
// like any other, by the built-in medium, the file driver, the path-based allocator and the
// record layer, also where file offsets of the C library are 32 bits wide by default (the
// 32-bit target). The medium is a sparse file of 2 GiB and a few pages.
TEST(Driver, KeysPast2GiB) {
    constexpr uint32_t kFar = 0x80000800u;
    kt::DbOptions options;
    options.start = false;
    kt::Db db(options);
    const std::string path = db.mediumPath;
    {
        const int fd = open(path.c_str(), O_RDWR);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(ftruncate64(fd, off64_t{kFar} + 0x1000), 0) << "no sparse file of 2 GiB here";
        close(fd);
    }
    auto farBytes = [&](uint32_t n) {
        std::string bytes(n, '\0');
        const int fd = open(path.c_str(), O_RDONLY);
        const ssize_t got = fd >= 0 ? pread64(fd, bytes.data(), n, kFar) : -1;
        if (fd >= 0) close(fd);
        return got == static_cast<ssize_t>(n) ? bytes : std::string("(unreadable)");
    };
    int32_t err = 0;
    mk::Lib lib("libkesdrv_file.so");
    const struct { const char* what; mk::Ops d; std::string text; } drivers[] = {
        {"built-in medium", mk::Ops(media_table[0]), "abcdef"}, {"file driver", mk::Ops(lib, "fileMedia_"), "ghijkl"}};
    for (const auto& [what, d, text] : drivers) {
        SCOPED_TRACE(what);
        ASSERT_TRUE(d.ok());
        const int fd = d.open(path.c_str(), 0, &err);
        ASSERT_GE(fd, 0);
        char back[6] = {};
        EXPECT_EQ(d.write(fd, text.data(), 6, kFar, &err), 6) << err;
        EXPECT_EQ(d.read(fd, back, 6, kFar, &err), 6) << err;
        d.close(fd, &err);
        EXPECT_EQ(std::string(back, 6), text);
        EXPECT_EQ(farBytes(6), text);
    }
    // The path-based allocator's element at that key.
    Session s{};
    const FreeElement e{0x12345678u, 0x40};
    FreeElement got{};
    EXPECT_EQ(flst_setElement(&s, path.c_str(), kFar, &e), 0);
    EXPECT_EQ(flst_getElement(&s, path.c_str(), kFar, &got), &got);
    EXPECT_EQ(got.next, e.next);
    EXPECT_EQ(s.error, 0u);
    // A node record there, through the database's medium.
    ASSERT_GT(db.start(), 0);
    NodeRecord node{{kFar, 0x10, 0, 0x20, 0x30, 0}, 0x40};
    EXPECT_EQ(comp_setNode(&db.s, &node), 0);
    NodeRecord read{};
    EXPECT_EQ(comp_getNode(&db.s, kFar, &read), &read);
    EXPECT_EQ(read.firstChild, 0x40u);
    EXPECT_EQ(read.comp.parent, 0x20u);
    EXPECT_EQ(db.s.error, 0u);
}
