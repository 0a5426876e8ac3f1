// Copying one value's data into another (with or without the set hooks of a hook entry) and
// the one-line printout of a value.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kesdbm/hook.h"
#include "kesdbm/session.h"
#include "kesdbm/value.h"
#include "storage/medium_io.hpp"

namespace {

// A heap buffer owned for the duration of one operation.
struct Buffer {
    explicit Buffer(size_t size) : data(static_cast<unsigned char*>(std::calloc(size ? size : 1u, 1))) {}
    ~Buffer() { std::free(data); }
    Buffer(const Buffer&) = delete;
    Buffer& operator=(const Buffer&) = delete;
    unsigned char* data;
};

// Steps shared by both copies: the two lengths, the length rule, the buffer of the
// destination's length and the read of the source into it.
struct CopySource {
    int32_t result = 0;             // what the copy returns when the read did not succeed
    int32_t length = 0;             // bytes read from the source
    unsigned char* data = nullptr;  // freed on every path
    ~CopySource() { std::free(data); }
};

// True when the copy goes on to the write with `out.data`; false with `out.result` set otherwise.
bool readSource(Session* s, uint32_t destination, uint32_t source, CopySource& out) {
    const int32_t destLength = value_getLength(s, destination);
    if (destLength < 0) return false;  // unreadable destination: 0, cause in the session
    const int32_t srcLength = value_getLength(s, source);
    if (srcLength < 0) return false;
    if (destLength < srcLength) {
        out.result = session_setError(s, KESDB_ERR_VALUE_SHORTDEST, 0);
        return false;
    }
    errno = 0;
    out.data = static_cast<unsigned char*>(std::calloc(destLength ? static_cast<size_t>(destLength) : 1u, 1));
    if (!out.data) {
        out.result = session_setError(s, KESDB_ERR_NOMEM, static_cast<uint32_t>(errno ? errno : ENOMEM));
        return false;
    }
    out.length = destLength;
    // Only a non-zero result of the read ends the copy (with 0; the cause stays in the
    // session). A read that returns 0 after a failure (the source's record could not be read,
    // which leaves the buffer zero and the length the destination's, or its data read failed,
    // which leaves a negative length that moves nothing) goes on to the write.
    return value_getGeneric(s, source, out.data, &out.length) == 0;
}

}  // namespace

extern "C" {

int32_t value_copy(Session* s, uint32_t destination, uint32_t source) {
    CopySource src;
    if (!readSource(s, destination, source, src)) return src.result;
    return value_setGeneric(s, destination, src.data, src.length);
}

int32_t value_copy2(Session* s, uint32_t destination, uint32_t source, uint32_t hookIndex) {
    CopySource src;
    if (!readSource(s, destination, source, src)) return src.result;

    const HookEntry* hook = hookIndex != 0 ? getHook(s, hookIndex) : nullptr;
    if (!hook) return value_setGeneric(s, destination, src.data, src.length);
    if (hook->preSet) {
        const int r = hook->preSet(destination, src.data, &src.length);
        if (r != 0) return session_setError(s, KESDB_ERR_HOOK_PRESET, static_cast<uint32_t>(r));
    }
    const int32_t rc = value_setGeneric(s, destination, src.data, src.length);
    if (rc != 0) return rc;
    if (hook->postSet) {
        const int r = hook->postSet(destination, src.data, &src.length);
        if (r != 0) return session_setError(s, KESDB_ERR_HOOK_POSTSET, static_cast<uint32_t>(r));
    }
    return 0;
}

// Longest data area the printout reads without asking its medium how much it holds.
constexpr int32_t kPrintUnchecked = 4096;

// The part of a value's data area that its medium holds: `length` cut at the medium's end
// (0 when the medium cannot be opened; the read then fails and says so). A damaged length word
// thus never makes the printout allocate or read more than the medium holds.
static int32_t heldLength(Session* s, const ValueRecord& record, int32_t length) {
    MediaEntry* entry = getMedia(s, record.dataMedium);
    if (!entry) return 0;
    kes::Medium medium(entry);
    if (!medium.open()) return 0;
    const int end = medium.seek(0, 2);
    if (end < 0) return length;
    const uint32_t size = static_cast<uint32_t>(end);
    const uint32_t held = size > record.dataOffset ? size - record.dataOffset : 0;
    return held < static_cast<uint32_t>(length) ? static_cast<int32_t>(held) : length;
}

// Prints one line showing a value. The buffer is zero-filled and 8 bytes longer than the
// value, so a value shorter than its format (a Generic of fewer than 8 bytes, a numeric value
// shorter than its natural width) shows zero bytes for what is missing, and nothing past the
// value's data is ever read from the medium or from memory. A String is printed with at most
// `length` characters, so text without a NUL ends at the value's end. A length of 2^31 or
// more (negative as a signed count) is not allocated and prints "err 0".
void value_print(Session* s, uint32_t key) {
    if (key == 0) {
        std::printf("no value\n");
        return;
    }
    ValueRecord record;
    if (!value_get(s, key, &record)) return;
    int32_t length = static_cast<int32_t>(record.length);
    if (length < 0) {
        std::printf("err %d\n", 0);
        return;
    }
    if (length > kPrintUnchecked) length = heldLength(s, record, length);
    Buffer buffer(static_cast<size_t>(length) + 8u);
    if (!buffer.data) {
        std::printf("err %d\n", 0);
        return;
    }
    int32_t got = length;
    const int32_t rc = value_getGeneric(s, key, buffer.data, &got);
    if (rc != 0) {
        std::printf("err %d\n", rc);
        return;
    }
    std::printf("value %d", static_cast<int>(key));
    if (record.constraintKey != 0) std::printf(" cstrt %d", static_cast<int>(record.constraintKey));

    const unsigned char* b = buffer.data;
    auto as = [b](auto zero) {
        decltype(zero) v;
        std::memcpy(&v, b, sizeof v);
        return v;
    };
    switch (record.type) {
        case Generic:
            std::printf(" Generic [%02x%02x%02x%02x %02x%02x%02x%02x ...]\n", b[0], b[1], b[2], b[3], b[4], b[5],
                        b[6], b[7]);
            break;
        case String:
            std::printf(" str [%.*s]\n", static_cast<int>(length), reinterpret_cast<const char*>(b));
            break;
        case Sint8: std::printf(" Sint8 [%d]\n", static_cast<int>(as(int8_t{}))); break;
        case Sint16: std::printf(" Sint16 [%d]\n", static_cast<int>(as(int16_t{}))); break;
        case Sint32: std::printf(" Sint32 [%ld]\n", static_cast<long>(as(int32_t{}))); break;
        case Sint64: std::printf(" Sint64 [%lld]\n", static_cast<long long>(as(int64_t{}))); break;
        case Uint8: std::printf(" Uint8 [%u]\n", static_cast<unsigned>(as(uint8_t{}))); break;
        case Uint16: std::printf(" Uint16 [%u]\n", static_cast<unsigned>(as(uint16_t{}))); break;
        case Uint32: std::printf(" Uint32 [%lu]\n", static_cast<unsigned long>(as(uint32_t{}))); break;
        case Uint64: std::printf(" Uint64 [%llu]\n", static_cast<unsigned long long>(as(uint64_t{}))); break;
        case Float32: std::printf(" float32 [%f]\n", static_cast<double>(as(float{}))); break;
        case Float64: std::printf(" flaot64 [%f]\n", as(double{})); break;
        default: break;  // unknown type: the line stays open
    }
}

}  // extern "C"
