// Test support for media and free lists: driver libraries opened by hand, the control calls
// of the fault-injection driver, media configuration lines and free-list files.
#pragma once

#include <dlfcn.h>

#include <cstdint>
#include <string>
#include <vector>

#include "../../drivers/kesdrv_fault.h"
#include "testkit.hpp"

namespace mk {

using Bytes = std::vector<uint8_t>;

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
    Ops(const Lib& lib, const std::string& prefix)
        : open(lib.sym<kesMediaOpenFn>((prefix + "open").c_str())),
          close(lib.sym<kesMediaCloseFn>((prefix + "close").c_str())),
          read(lib.sym<kesMediaReadFn>((prefix + "read").c_str())),
          write(lib.sym<kesMediaWriteFn>((prefix + "write").c_str())),
          seek(lib.sym<kesMediaSeekFn>((prefix + "seek").c_str())),
          sync(lib.sym<kesMediaSyncFn>((prefix + "sync").c_str())) {}
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
    bool ok() const { return reset && fail && failFrom && shortOp && calls && opens && closes; }
    kesdrvFault_resetFn reset = sym<kesdrvFault_resetFn>(KESDRV_FAULT_SYM_RESET);
    kesdrvFault_failFn fail = sym<kesdrvFault_failFn>(KESDRV_FAULT_SYM_FAIL);
    kesdrvFault_failFromFn failFrom = sym<kesdrvFault_failFromFn>(KESDRV_FAULT_SYM_FAILFROM);
    kesdrvFault_shortFn shortOp = sym<kesdrvFault_shortFn>(KESDRV_FAULT_SYM_SHORT);
    kesdrvFault_callsFn calls = sym<kesdrvFault_callsFn>(KESDRV_FAULT_SYM_CALLS);
    kesdrvFault_opensFn opens = sym<kesdrvFault_opensFn>(KESDRV_FAULT_SYM_OPENS);
    kesdrvFault_closesFn closes = sym<kesdrvFault_closesFn>(KESDRV_FAULT_SYM_CLOSES);
};

// A media configuration line: library, the six `prefix` operations, the medium name.
inline std::string driverLine(const std::string& lib, const std::string& prefix, const std::string& name) {
    std::string line = kt::libPath(lib);
    for (const char* op : {"open", "close", "read", "write", "seek", "sync"}) line += " " + prefix + op;
    return line + " " + name + "\n";
}

// A file holding a free list: elements are {next, size} word pairs, the anchor is at 12.
struct ListFile {
    std::string path;
    void anchor(uint32_t first) const { kt::writeBytes(path, 12, &first, 4); }
    void put(uint32_t key, uint32_t next, uint32_t size) const {
        const uint32_t words[2] = {next, size};
        kt::writeBytes(path, key, words, 8);
    }
    uint32_t word(uint32_t key) const { return kt::readWord(path, key); }
    Bytes bytes(uint32_t key, uint32_t n) const { return kt::readBytes(path, key, n); }
    Bytes all() const { return kt::readBytes(path, 0, 1 << 16); }
};

}  // namespace mk
