// The medium drivers built with the library: the named-file driver, the fault-injection driver
// with its control calls, and media_sync through them.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>

#include <string>

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
    // Unknown operations are ignored.
    f.fail(99, 1, EIO);
    f.shortOp(KESDRV_FAULT_OPEN, 1, 1);
    EXPECT_EQ(f.calls(-1) + f.calls(99), 0u);
    mk::checkOps(d, d.open(path.c_str(), 0, &err), path);
}

TEST(Driver, MediaSyncThroughDrivers) {
    kt::TempDir dir;
    const std::string path = dir.file("m.bin");
    ASSERT_EQ(kesdb_layMedium(path.c_str(), 64, 0), 0);
    mk::FaultControl f;
    ASSERT_TRUE(f.ok() && mk::loadFileAndFault(dir, path));
    f.reset();
    Session s{};
    EXPECT_EQ(media_sync(&s, 1, 0), 0);
    EXPECT_EQ(media_sync(&s, 2, 0), 0);
    EXPECT_EQ(s.error, 0u);
    f.fail(KESDRV_FAULT_SYNC, 1, EIO);
    EXPECT_EQ(media_sync(&s, 2, 7), 26);
    EXPECT_EQ(s.error, 26u);
    EXPECT_EQ(s.errorDetail, static_cast<uint32_t>(EIO));
    f.fail(KESDRV_FAULT_OPEN, 1, ENXIO);
    EXPECT_EQ(media_sync(&s, 2, 0), 22);
    EXPECT_EQ(s.errorDetail, static_cast<uint32_t>(ENXIO));
    // A failing close does not change the result.
    f.fail(KESDRV_FAULT_CLOSE, 1, EIO);
    s = Session{};
    EXPECT_EQ(media_sync(&s, 2, 0), 0);
    EXPECT_EQ(s.error, 0u);
    EXPECT_EQ(f.opens(), 3u);
    EXPECT_EQ(f.opens(), f.closes());
    media_term();
}
