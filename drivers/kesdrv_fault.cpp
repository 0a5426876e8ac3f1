// Fault-injection medium driver for tests; see kesdrv_fault.h for its control calls.
#include "kesdrv_fault.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <mutex>
#include <string>

#define KESDRV_EXPORT __attribute__((visibility("default")))

namespace {

enum class Mode { None, Fail, Short };

struct Fault {
    Mode mode = Mode::None;
    uint32_t nth = 0;
    bool onward = false;  // every call from nth on
    int32_t errorNumber = 0;
    uint32_t bytes = 0;
    uint32_t base = 0;  // calls of the operation made before the fault was armed
};

struct State {
    // Room for any medium name from the start, so that recording a fault allocates nothing
    // (a test may compare the heap in use before and after a faulty call).
    State() { firedName.reserve(4096); }
    std::mutex mutex;
    Fault fault[KESDRV_FAULT_OPS];
    uint32_t calls[KESDRV_FAULT_OPS] = {};
    uint32_t opens = 0;
    uint32_t closes = 0;
    uint32_t fired = 0;
    std::string firedName;              // medium of the last call a fault changed
    uint32_t firedOffset = 0;           // and the transfer it asked for (reads and writes)
    uint32_t firedLength = 0;
    std::map<int, std::string> names;   // open descriptors and the names they were opened with
};

State& state() {
    static State s;
    return s;
}

bool validOp(int op) { return op >= 0 && op < KESDRV_FAULT_OPS; }

// Counts a call of op and tells what the armed fault asks of this call.
Fault next(int op) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    uint32_t n = ++s.calls[op];
    const Fault& f = s.fault[op];
    if (f.mode == Mode::None) return Fault{};
    const uint32_t since = n - f.base;
    if (since == f.nth || (f.onward && since > f.nth)) return f;
    return Fault{};
}

// Counts a call whose outcome a fault changed, on the medium open under `descriptor` (or, for an
// open, on the medium `name`); a read or a write gives the transfer it asked for.
void fired(int descriptor, uint32_t offset = 0, uint32_t length = 0, const char* name = nullptr) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    ++s.fired;
    if (name) {
        s.firedName = name;
    } else {
        auto it = s.names.find(descriptor);
        s.firedName = it != s.names.end() ? it->second : std::string();
    }
    s.firedOffset = offset;
    s.firedLength = length;
}

void storeErr(int32_t* errPtr, int32_t value) {
    if (errPtr && value != KESDRV_FAULT_NOERR) *errPtr = value;
}

void arm(int op, const Fault& f) {
    if (!validOp(op)) return;
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.fault[op] = f;
    s.fault[op].base = s.calls[op];
}

}  // namespace

extern "C" {

KESDRV_EXPORT void kesdrvFault_reset(void) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    for (int i = 0; i < KESDRV_FAULT_OPS; ++i) {
        s.fault[i] = Fault{};
        s.calls[i] = 0;
    }
    s.opens = 0;
    s.closes = 0;
    s.fired = 0;
    s.firedName.clear();  // keeps its room
    s.firedOffset = s.firedLength = 0;
}

KESDRV_EXPORT void kesdrvFault_fail(int op, uint32_t nth, int32_t errorNumber) {
    arm(op, Fault{Mode::Fail, nth, false, errorNumber, 0, 0});
}

KESDRV_EXPORT void kesdrvFault_failFrom(int op, uint32_t nth, int32_t errorNumber) {
    arm(op, Fault{Mode::Fail, nth, true, errorNumber, 0, 0});
}

KESDRV_EXPORT void kesdrvFault_short(int op, uint32_t nth, uint32_t bytes) {
    if (op != KESDRV_FAULT_READ && op != KESDRV_FAULT_WRITE) return;
    arm(op, Fault{Mode::Short, nth, false, 0, bytes, 0});
}

KESDRV_EXPORT uint32_t kesdrvFault_calls(int op) {
    if (!validOp(op)) return 0;
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    return s.calls[op];
}

KESDRV_EXPORT uint32_t kesdrvFault_opens(void) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    return s.opens;
}

KESDRV_EXPORT uint32_t kesdrvFault_closes(void) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    return s.closes;
}

KESDRV_EXPORT uint32_t kesdrvFault_fired(void) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    return s.fired;
}

KESDRV_EXPORT uint32_t kesdrvFault_firedMedium(char* buffer, uint32_t size) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (buffer && size > 0) {
        const size_t n = s.firedName.size() < size - 1 ? s.firedName.size() : size - 1;
        std::memcpy(buffer, s.firedName.data(), n);
        buffer[n] = '\0';
    }
    return static_cast<uint32_t>(s.firedName.size());
}

KESDRV_EXPORT void kesdrvFault_firedTransfer(uint32_t* offset, uint32_t* length) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (offset) *offset = s.firedOffset;
    if (length) *length = s.firedLength;
}

KESDRV_EXPORT int faultMedia_open(const char* name, uint32_t arg, int32_t* errPtr) {
    (void)arg;
    Fault f = next(KESDRV_FAULT_OPEN);
    if (f.mode == Mode::Fail) {
        fired(-1, 0, 0, name ? name : "");
        storeErr(errPtr, f.errorNumber);
        return -1;
    }
    if (!name) {
        storeErr(errPtr, EFAULT);
        return -1;
    }
    int fd = ::open(name, O_RDWR | O_DSYNC);
    if (fd < 0) {
        storeErr(errPtr, errno);
        return -1;
    }
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    ++s.opens;
    s.names[fd] = name;
    return fd;
}

KESDRV_EXPORT int faultMedia_close(int descriptor, int32_t* errPtr) {
    Fault f = next(KESDRV_FAULT_CLOSE);
    {
        State& s = state();
        std::lock_guard<std::mutex> lock(s.mutex);
        ++s.closes;
        s.names.erase(descriptor);
    }
    int r = ::close(descriptor);
    if (r == -1) storeErr(errPtr, errno);
    if (f.mode == Mode::Fail) {
        storeErr(errPtr, f.errorNumber);
        return -1;
    }
    return r;
}

KESDRV_EXPORT int faultMedia_read(int descriptor, void* buffer, uint32_t length, uint32_t offset,
                                  int32_t* errPtr) {
    Fault f = next(KESDRV_FAULT_READ);
    if (f.mode == Mode::Fail) {
        fired(descriptor, offset, length);
        storeErr(errPtr, f.errorNumber);
        return -1;
    }
    if (f.mode == Mode::Short && f.bytes < length) {
        fired(descriptor, offset, length);
        length = f.bytes;
    }
    ssize_t r = ::pread(descriptor, buffer, length, static_cast<off_t>(offset));
    if (r == -1) storeErr(errPtr, errno);
    return static_cast<int>(r);
}

KESDRV_EXPORT int faultMedia_write(int descriptor, const void* buffer, uint32_t length, uint32_t offset,
                                   int32_t* errPtr) {
    Fault f = next(KESDRV_FAULT_WRITE);
    if (f.mode == Mode::Fail) {
        fired(descriptor, offset, length);
        storeErr(errPtr, f.errorNumber);
        return -1;
    }
    if (f.mode == Mode::Short && f.bytes < length) {
        fired(descriptor, offset, length);
        length = f.bytes;
    }
    ssize_t r = ::pwrite(descriptor, buffer, length, static_cast<off_t>(offset));
    if (r == -1) storeErr(errPtr, errno);
    return static_cast<int>(r);
}

KESDRV_EXPORT int faultMedia_seek(int descriptor, uint32_t offset, int whence, int32_t* errPtr) {
    Fault f = next(KESDRV_FAULT_SEEK);
    if (f.mode == Mode::Fail) {
        fired(descriptor);
        storeErr(errPtr, f.errorNumber);
        return -1;
    }
    off_t r = ::lseek(descriptor, static_cast<off_t>(offset), whence);
    if (r == -1) storeErr(errPtr, errno);
    return static_cast<int>(r);
}

KESDRV_EXPORT int faultMedia_sync(int descriptor, int32_t* errPtr, uint32_t syncArg) {
    (void)syncArg;
    Fault f = next(KESDRV_FAULT_SYNC);
    if (f.mode == Mode::Fail) {
        fired(descriptor);
        storeErr(errPtr, f.errorNumber);
        return -1;
    }
    int r = ::fsync(descriptor);
    if (r == -1) storeErr(errPtr, errno);
    return r;
}

}  // extern "C"
