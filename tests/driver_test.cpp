// The medium drivers built with the library: the named-file driver and the fault-injection
// driver with its control calls, and media_sync through them.
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>

#include <string>

#include "../drivers/kesdrv_fault.h"
#include "kesdbm/kesdbm.h"
#include "testkit.hpp"

namespace {

template <class F>
F sym(void* handle, const char* name) {
    return reinterpret_cast<F>(dlsym(handle, name));
}

std::string driverLine(const std::string& lib, const std::string& prefix, const std::string& name) {
    std::string line = kt::libPath(lib);
    for (const char* op : {"open", "close", "read", "write", "seek", "sync"}) line += " " + prefix + op;
    return line + " " + name + "\n";
}

}  // namespace

TEST(Driver, FileDriverOperations) {
    kt::TempDir dir;
    const std::string path = dir.file("f.bin");
    kt::writeFile(path, "0123456789");
    void* h = dlopen(kt::libPath("libkesdrv_file.so").c_str(), RTLD_NOW);
    ASSERT_NE(h, nullptr);
    auto open = sym<kesMediaOpenFn>(h, "fileMedia_open");
    auto close = sym<kesMediaCloseFn>(h, "fileMedia_close");
    auto read = sym<kesMediaReadFn>(h, "fileMedia_read");
    auto write = sym<kesMediaWriteFn>(h, "fileMedia_write");
    auto seek = sym<kesMediaSeekFn>(h, "fileMedia_seek");
    auto sync = sym<kesMediaSyncFn>(h, "fileMedia_sync");
    ASSERT_TRUE(open && close && read && write && seek && sync);

    int32_t err = 0;
    EXPECT_EQ(open(dir.file("none").c_str(), 0, &err), -1);
    EXPECT_EQ(err, ENOENT);
    EXPECT_EQ(kt::readFile(dir.file("none")), "");
    err = 0;
    EXPECT_EQ(open(nullptr, 0, &err), -1);
    EXPECT_EQ(err, EFAULT);
    err = 0;
    int fd = open(path.c_str(), 0, &err);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(fcntl(fd, F_GETFL) & (O_ACCMODE | O_DSYNC), O_RDWR | O_DSYNC);
    EXPECT_EQ(write(fd, "ab", 2, 4, &err), 2);
    char buf[4] = {};
    EXPECT_EQ(read(fd, buf, 4, 3, &err), 4);
    EXPECT_EQ(std::string(buf, 4), "3ab6");
    EXPECT_EQ(seek(fd, 0, 2, &err), 10);
    EXPECT_EQ(seek(fd, 2, 0, &err), 2);
    EXPECT_EQ(sync(fd, &err, 0), 0);
    EXPECT_EQ(close(fd, &err), 0);
    EXPECT_EQ(err, 0);
    EXPECT_EQ(read(fd, buf, 4, 0, &err), -1);
    EXPECT_EQ(err, EBADF);
    err = 0;
    EXPECT_EQ(write(fd, buf, 4, 0, &err), -1);
    EXPECT_EQ(err, EBADF);
    err = 0;
    EXPECT_EQ(seek(fd, 0, 0, &err), -1);
    EXPECT_EQ(err, EBADF);
    err = 0;
    EXPECT_EQ(sync(fd, &err, 0), -1);
    EXPECT_EQ(err, EBADF);
    err = 0;
    EXPECT_EQ(close(fd, &err), -1);
    EXPECT_EQ(err, EBADF);
    EXPECT_EQ(kt::readFile(path), "0123ab6789");
    dlclose(h);
}

TEST(Driver, FaultDriverControls) {
    kt::TempDir dir;
    const std::string path = dir.file("f.bin");
    kt::writeFile(path, "0123456789");
    void* h = dlopen(kt::libPath("libkesdrv_fault.so").c_str(), RTLD_NOW);
    ASSERT_NE(h, nullptr);
    auto open = sym<kesMediaOpenFn>(h, "faultMedia_open");
    auto close = sym<kesMediaCloseFn>(h, "faultMedia_close");
    auto read = sym<kesMediaReadFn>(h, "faultMedia_read");
    auto write = sym<kesMediaWriteFn>(h, "faultMedia_write");
    auto seek = sym<kesMediaSeekFn>(h, "faultMedia_seek");
    auto sync = sym<kesMediaSyncFn>(h, "faultMedia_sync");
    auto reset = sym<kesdrvFault_resetFn>(h, KESDRV_FAULT_SYM_RESET);
    auto fail = sym<kesdrvFault_failFn>(h, KESDRV_FAULT_SYM_FAIL);
    auto failFrom = sym<kesdrvFault_failFromFn>(h, KESDRV_FAULT_SYM_FAILFROM);
    auto shortOp = sym<kesdrvFault_shortFn>(h, KESDRV_FAULT_SYM_SHORT);
    auto calls = sym<kesdrvFault_callsFn>(h, KESDRV_FAULT_SYM_CALLS);
    auto opens = sym<kesdrvFault_opensFn>(h, KESDRV_FAULT_SYM_OPENS);
    auto closes = sym<kesdrvFault_closesFn>(h, KESDRV_FAULT_SYM_CLOSES);
    ASSERT_TRUE(open && close && read && write && seek && sync);
    ASSERT_TRUE(reset && fail && failFrom && shortOp && calls && opens && closes);
    reset();

    // The second open from now fails with the chosen number; a failed open is not counted
    // as open.
    int32_t err = 0;
    fail(KESDRV_FAULT_OPEN, 2, EMFILE);
    int fd = open(path.c_str(), 0, &err);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(open(path.c_str(), 0, &err), -1);
    EXPECT_EQ(err, EMFILE);
    EXPECT_EQ(calls(KESDRV_FAULT_OPEN), 2u);
    EXPECT_EQ(opens(), 1u);
    err = 0;
    EXPECT_EQ(open(dir.file("none").c_str(), 0, &err), -1);  // a real failure
    EXPECT_EQ(err, ENOENT);
    EXPECT_EQ(opens(), 1u);

    // Short transfers really move only that many bytes.
    char buf[8] = {};
    shortOp(KESDRV_FAULT_READ, 1, 3);
    EXPECT_EQ(read(fd, buf, 8, 0, &err), 3);
    EXPECT_EQ(std::string(buf, 3), "012");
    EXPECT_EQ(read(fd, buf, 8, 0, &err), 8);
    shortOp(KESDRV_FAULT_WRITE, 1, 1);
    EXPECT_EQ(write(fd, "xy", 2, 0, &err), 1);
    EXPECT_EQ(kt::readFile(path), "x123456789");

    // From the nth call after arming on; NOERR stores nothing.
    failFrom(KESDRV_FAULT_WRITE, 2, EIO);
    EXPECT_EQ(write(fd, "a", 1, 0, &err), 1);
    err = 0;
    EXPECT_EQ(write(fd, "b", 1, 0, &err), -1);
    EXPECT_EQ(err, EIO);
    EXPECT_EQ(write(fd, "c", 1, 0, &err), -1);
    fail(KESDRV_FAULT_SEEK, 1, ESPIPE);
    EXPECT_EQ(seek(fd, 0, 2, &err), -1);
    EXPECT_EQ(err, ESPIPE);
    EXPECT_EQ(seek(fd, 0, 2, &err), 10);
    fail(KESDRV_FAULT_SYNC, 1, KESDRV_FAULT_NOERR);
    err = 4242;
    EXPECT_EQ(sync(fd, &err, 0), -1);
    EXPECT_EQ(err, 4242);
    EXPECT_EQ(sync(fd, &err, 0), 0);

    // A failing close still closes the descriptor.
    fail(KESDRV_FAULT_CLOSE, 1, EINTR);
    EXPECT_EQ(close(fd, &err), -1);
    EXPECT_EQ(err, EINTR);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    EXPECT_EQ(opens(), closes());
    EXPECT_EQ(kt::readFile(path), "a123456789");

    reset();
    EXPECT_EQ(calls(KESDRV_FAULT_WRITE), 0u);
    EXPECT_EQ(opens(), 0u);
    fd = open(path.c_str(), 0, &err);
    EXPECT_EQ(write(fd, "z", 1, 0, &err), 1);  // disarmed
    EXPECT_EQ(close(fd, &err), 0);
    // Unknown operations are ignored.
    fail(99, 1, EIO);
    shortOp(KESDRV_FAULT_OPEN, 1, 1);
    EXPECT_EQ(calls(-1), 0u);
    dlclose(h);
}

TEST(Driver, MediaSyncThroughDrivers) {
    kt::TempDir dir;
    const std::string path = dir.file("m.bin");
    ASSERT_EQ(kesdb_layMedium(path.c_str(), 64, 0), 0);
    kt::writeFile(dir.file("media.conf"), driverLine("libkesdrv_file.so", "fileMedia_", path) +
                                              driverLine("libkesdrv_fault.so", "faultMedia_", path));
    void* h = dlopen(kt::libPath("libkesdrv_fault.so").c_str(), RTLD_NOW);
    ASSERT_NE(h, nullptr);
    auto reset = sym<kesdrvFault_resetFn>(h, KESDRV_FAULT_SYM_RESET);
    auto fail = sym<kesdrvFault_failFn>(h, KESDRV_FAULT_SYM_FAIL);
    auto opens = sym<kesdrvFault_opensFn>(h, KESDRV_FAULT_SYM_OPENS);
    auto closes = sym<kesdrvFault_closesFn>(h, KESDRV_FAULT_SYM_CLOSES);
    ASSERT_EQ(media_init(dir.file("media.conf").c_str()), 0);
    reset();

    Session s{};
    EXPECT_EQ(media_sync(&s, 1, 0), 0);
    EXPECT_EQ(media_sync(&s, 2, 0), 0);
    EXPECT_EQ(s.error, 0u);
    fail(KESDRV_FAULT_SYNC, 1, EIO);
    EXPECT_EQ(media_sync(&s, 2, 7), 26);
    EXPECT_EQ(s.error, 26u);
    EXPECT_EQ(s.errorDetail, static_cast<uint32_t>(EIO));
    fail(KESDRV_FAULT_OPEN, 1, ENXIO);
    EXPECT_EQ(media_sync(&s, 2, 0), 22);
    EXPECT_EQ(s.errorDetail, static_cast<uint32_t>(ENXIO));
    // A failing close does not change the result.
    fail(KESDRV_FAULT_CLOSE, 1, EIO);
    s = Session{};
    EXPECT_EQ(media_sync(&s, 2, 0), 0);
    EXPECT_EQ(s.error, 0u);
    EXPECT_EQ(opens(), 3u);
    EXPECT_EQ(opens(), closes());
    media_term();
    dlclose(h);
}
