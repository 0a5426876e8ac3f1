// Test support for media and free lists: driver libraries opened by hand, the control calls
// of the fault-injection driver, media configuration lines and free-list files.
#pragma once

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

#include "../../drivers/kesdrv_fault.h"
#include "testkit.hpp"

namespace mk {

using Bytes = std::vector<uint8_t>;
using Pair = std::pair<uint32_t, uint32_t>;

// The error recorded in a session and its detail.
inline Pair errorOf(const Session& s) { return {s.error, s.errorDetail}; }

// A driver library built by the project, opened by path; sym() looks up one of its functions.
struct Lib {
    explicit Lib(const char* file) : handle(dlopen(kt::libPath(file).c_str(), RTLD_NOW)) {}
    ~Lib() {
        if (handle) dlclose(handle);
    }
    Lib(const Lib&) = delete;
    Lib& operator=(const Lib&) = delete;
    template <class F>
    F sym(const char* name) const {
        return handle ? reinterpret_cast<F>(dlsym(handle, name)) : nullptr;
    }
    void* handle;
};

// The six medium operations of a driver whose symbols start with `prefix`.
struct Ops {
    Ops(const Lib& l, const std::string& p)
        : Ops(MediaEntry{nullptr, nullptr, 0, l.sym<kesMediaOpenFn>((p + "open").c_str()),
                         l.sym<kesMediaCloseFn>((p + "close").c_str()), l.sym<kesMediaReadFn>((p + "read").c_str()),
                         l.sym<kesMediaWriteFn>((p + "write").c_str()), l.sym<kesMediaSeekFn>((p + "seek").c_str()),
                         l.sym<kesMediaSyncFn>((p + "sync").c_str())}) {}
    explicit Ops(const MediaEntry& e)
        : open(e.open), close(e.close), read(e.read), write(e.write), seek(e.seek), sync(e.sync) {}
    bool ok() const { return open && close && read && write && seek && sync; }
    kesMediaOpenFn open;
    kesMediaCloseFn close;
    kesMediaReadFn read;
    kesMediaWriteFn write;
    kesMediaSeekFn seek;
    kesMediaSyncFn sync;
};

// The control calls of the fault-injection driver, from the instance the media table loads.
struct FaultControl : Lib {
    FaultControl() : Lib("libkesdrv_fault.so") {}
    bool ok() const { return reset && fail && failFrom && shortOp && calls && opens && closes && fired && firedMedium &&
                                  firedTransfer; }
    kesdrvFault_resetFn reset = sym<kesdrvFault_resetFn>(KESDRV_FAULT_SYM_RESET);
    kesdrvFault_failFn fail = sym<kesdrvFault_failFn>(KESDRV_FAULT_SYM_FAIL);
    kesdrvFault_failFromFn failFrom = sym<kesdrvFault_failFromFn>(KESDRV_FAULT_SYM_FAILFROM);
    kesdrvFault_shortFn shortOp = sym<kesdrvFault_shortFn>(KESDRV_FAULT_SYM_SHORT);
    kesdrvFault_callsFn calls = sym<kesdrvFault_callsFn>(KESDRV_FAULT_SYM_CALLS);
    kesdrvFault_opensFn opens = sym<kesdrvFault_opensFn>(KESDRV_FAULT_SYM_OPENS);
    kesdrvFault_closesFn closes = sym<kesdrvFault_closesFn>(KESDRV_FAULT_SYM_CLOSES);
    kesdrvFault_firedFn fired = sym<kesdrvFault_firedFn>(KESDRV_FAULT_SYM_FIRED);
    kesdrvFault_firedMediumFn firedMedium = sym<kesdrvFault_firedMediumFn>(KESDRV_FAULT_SYM_FIREDMEDIUM);
    kesdrvFault_firedTransferFn firedTransfer = sym<kesdrvFault_firedTransferFn>(KESDRV_FAULT_SYM_FIREDTRANSFER);
    // The name of the medium on which a fault last took effect ("" when none has).
    std::string lastFiredMedium() const {
        char name[4096] = {};
        if (firedMedium) firedMedium(name, sizeof name);
        return name;
    }
};

// A media configuration line: library, the six `prefix` operations, the medium name.
inline std::string driverLine(const std::string& lib, const std::string& prefix, const std::string& name) {
    std::string line = kt::libPath(lib);
    for (const char* op : {"open", "close", "read", "write", "seek", "sync"}) line += " " + prefix + op;
    return line + " " + name + "\n";
}

// Drives the operations over `fd`, open on `path` (at least 8 bytes long): the descriptor is
// read-write with synchronous writes, each operation reaches the file through its own slot, and
// once closed every operation fails with EBADF stored.
inline void checkOps(const Ops& d, int fd, const std::string& path) {
    ASSERT_GE(fd, 0);
    int32_t err = 0;
    EXPECT_EQ(fcntl(fd, F_GETFL) & (O_ACCMODE | O_DSYNC), O_RDWR | O_DSYNC);
    EXPECT_EQ(d.write(fd, "ab", 2, 4, &err), 2);
    uint8_t buf[4] = {};
    EXPECT_EQ(d.read(fd, buf, 4, 3, &err), 4);
    const Bytes file = kt::readBytes(path, 0, 1 << 20);
    ASSERT_GE(file.size(), 8u);
    EXPECT_EQ(Bytes(buf, buf + 4), Bytes(file.begin() + 3, file.begin() + 7));
    EXPECT_EQ(std::string(file.begin() + 4, file.begin() + 6), "ab");
    EXPECT_EQ(d.seek(fd, 0, SEEK_END, &err), static_cast<int>(file.size()));
    EXPECT_EQ(d.read(fd, buf, 4, static_cast<uint32_t>(file.size()), &err), 0);
    EXPECT_EQ(d.sync(fd, &err, 99), 0);
    EXPECT_EQ(d.close(fd, &err), 0);
    EXPECT_EQ(err, 0);
    const std::pair<const char*, std::function<int()>> closed[] = {
        {"read", [&] { return d.read(fd, buf, 4, 0, &err); }}, {"write", [&] { return d.write(fd, buf, 4, 0, &err); }},
        {"seek", [&] { return d.seek(fd, 0, 0, &err); }},      {"sync", [&] { return d.sync(fd, &err, 0); }},
        {"close", [&] { return d.close(fd, &err); }},
    };
    for (const auto& [what, call] : closed) {
        err = 0;
        EXPECT_EQ(call(), -1) << what;
        EXPECT_EQ(err, EBADF) << what;
    }
}

// Loads the media table with the named-file driver (index 1) and the fault-injection driver
// (index 2), both on the medium file `path`; true when both loaded.
inline bool loadFileAndFault(const kt::TempDir& dir, const std::string& path) {
    kt::writeFile(dir.file("media.conf"), driverLine("libkesdrv_file.so", "fileMedia_", path) +
                                              driverLine("libkesdrv_fault.so", "faultMedia_", path));
    return media_init(dir.file("media.conf").c_str()) == 0 && media_getCount() == 3;
}

// A file holding a free list: elements are {next, size} word pairs, the anchor is at 12.
struct ListFile {
    using Element = std::array<uint32_t, 3>;  // key, next, size
    std::string path;
    // Lays the file down anew: `size` zero bytes, the anchor `first` and the given elements.
    void lay(uint32_t size, uint32_t first, std::initializer_list<Element> elements = {}) const {
        kt::writeFile(path, std::string(size, '\0'));
        kt::writeBytes(path, 12, &first, 4);
        for (const Element& e : elements) kt::writeBytes(path, e[0], &e[1], 8);
    }
    uint32_t word(uint32_t key) const { return kt::readWord(path, key); }
    Pair element(uint32_t key) const { return {word(key), word(key + 4)}; }  // {next, size}
    Bytes bytes(uint32_t key, uint32_t n) const { return kt::readBytes(path, key, n); }
    Bytes all() const { return kt::readBytes(path, 0, 1 << 16); }
};

}  // namespace mk
