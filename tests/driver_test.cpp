// The medium drivers built with the library: the named-file driver and the fault-injection
// driver with its control calls, and media_sync through them.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>

#include <functional>
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
    EXPECT_EQ(kt::readFile(dir.file("none")), "");
    EXPECT_EQ(d.open(nullptr, 0, &err), -1);
    EXPECT_EQ(err, EFAULT);
    err = 0;
    int fd = d.open(path.c_str(), 0, &err);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(fcntl(fd, F_GETFL) & (O_ACCMODE | O_DSYNC), O_RDWR | O_DSYNC);
    EXPECT_EQ(d.write(fd, "ab", 2, 4, &err), 2);
    char buf[4] = {};
    EXPECT_EQ(d.read(fd, buf, 4, 3, &err), 4);
    EXPECT_EQ(std::string(buf, 4), "3ab6");
    EXPECT_EQ(d.seek(fd, 0, 2, &err), 10);
    EXPECT_EQ(d.seek(fd, 2, 0, &err), 2);
    EXPECT_EQ(d.sync(fd, &err, 0), 0);
    EXPECT_EQ(d.close(fd, &err), 0);
    EXPECT_EQ(err, 0);
    EXPECT_EQ(kt::readFile(path), "0123ab6789");
    // Every operation on a closed descriptor fails with EBADF.
    const std::pair<const char*, std::function<int64_t()>> closed[] = {
        {"read", [&] { return d.read(fd, buf, 4, 0, &err); }}, {"write", [&] { return d.write(fd, buf, 4, 0, &err); }},
        {"seek", [&] { return d.seek(fd, 0, 0, &err); }},      {"sync", [&] { return d.sync(fd, &err, 0); }},
        {"close", [&] { return d.close(fd, &err); }},
    };
    for (const auto& [what, call] : closed) {
        SCOPED_TRACE(what);
        err = 0;
        EXPECT_EQ(call(), -1);
        EXPECT_EQ(err, EBADF);
    }
}

TEST(Driver, FaultDriverControls) {
    kt::TempDir dir;
    const std::string path = dir.file("f.bin");
    kt::writeFile(path, "0123456789");
    mk::FaultControl f;
    mk::Ops d(f, "faultMedia_");
    ASSERT_TRUE(d.ok() && f.ok());
    f.reset();

    // The second open from now fails with the chosen number; a failed open is not counted.
    int32_t err = 0;
    f.fail(KESDRV_FAULT_OPEN, 2, EMFILE);
    int fd = d.open(path.c_str(), 0, &err);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(d.open(path.c_str(), 0, &err), -1);
    EXPECT_EQ(err, EMFILE);
    EXPECT_EQ(f.calls(KESDRV_FAULT_OPEN), 2u);
    EXPECT_EQ(d.open(dir.file("none").c_str(), 0, &err), -1);  // a real failure
    EXPECT_EQ(err, ENOENT);
    EXPECT_EQ(f.opens(), 1u);

    // Short transfers really move only that many bytes.
    char buf[8] = {};
    f.shortOp(KESDRV_FAULT_READ, 1, 3);
    EXPECT_EQ(d.read(fd, buf, 8, 0, &err), 3);
    EXPECT_EQ(std::string(buf, 3), "012");
    EXPECT_EQ(d.read(fd, buf, 8, 0, &err), 8);
    f.shortOp(KESDRV_FAULT_WRITE, 1, 1);
    EXPECT_EQ(d.write(fd, "xy", 2, 0, &err), 1);
    EXPECT_EQ(kt::readFile(path), "x123456789");

    // From the nth call after arming on; NOERR stores nothing.
    f.failFrom(KESDRV_FAULT_WRITE, 2, EIO);
    EXPECT_EQ(d.write(fd, "a", 1, 0, &err), 1);
    err = 0;
    EXPECT_EQ(d.write(fd, "b", 1, 0, &err), -1);
    EXPECT_EQ(err, EIO);
    EXPECT_EQ(d.write(fd, "c", 1, 0, &err), -1);
    f.fail(KESDRV_FAULT_SEEK, 1, ESPIPE);
    EXPECT_EQ(d.seek(fd, 0, 2, &err), -1);
    EXPECT_EQ(err, ESPIPE);
    EXPECT_EQ(d.seek(fd, 0, 2, &err), 10);
    f.fail(KESDRV_FAULT_SYNC, 1, KESDRV_FAULT_NOERR);
    err = 4242;
    EXPECT_EQ(d.sync(fd, &err, 0), -1);
    EXPECT_EQ(err, 4242);
    EXPECT_EQ(d.sync(fd, &err, 0), 0);

    // A failing close still closes the descriptor.
    f.fail(KESDRV_FAULT_CLOSE, 1, EINTR);
    EXPECT_EQ(d.close(fd, &err), -1);
    EXPECT_EQ(err, EINTR);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    EXPECT_EQ(f.opens(), f.closes());
    EXPECT_EQ(kt::readFile(path), "a123456789");

    f.reset();
    EXPECT_EQ(f.calls(KESDRV_FAULT_WRITE), 0u);
    EXPECT_EQ(f.opens(), 0u);
    fd = d.open(path.c_str(), 0, &err);
    EXPECT_EQ(d.write(fd, "z", 1, 0, &err), 1);  // disarmed
    EXPECT_EQ(d.close(fd, &err), 0);
    // Unknown operations are ignored.
    f.fail(99, 1, EIO);
    f.shortOp(KESDRV_FAULT_OPEN, 1, 1);
    EXPECT_EQ(f.calls(-1), 0u);
}

TEST(Driver, MediaSyncThroughDrivers) {
    kt::TempDir dir;
    const std::string path = dir.file("m.bin");
    ASSERT_EQ(kesdb_layMedium(path.c_str(), 64, 0), 0);
    kt::writeFile(dir.file("media.conf"), mk::driverLine("libkesdrv_file.so", "fileMedia_", path) +
                                              mk::driverLine("libkesdrv_fault.so", "faultMedia_", path));
    mk::FaultControl f;
    ASSERT_TRUE(f.ok());
    ASSERT_EQ(media_init(dir.file("media.conf").c_str()), 0);
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
