// A sample hook library (libkeshook_sample.so), to be named in a hook configuration file:
//
//   /path/to/libkeshook_sample.so policy_preSet log_postSet NULL log_postGet
//
// Hook functions take (value key, data, length pointer) and return 0 to let the value call go
// on; any other result stops it and becomes the detail of the call's error.
//
// Sample hooks:
//   policy_preSet  the write policy: a write of no bytes is refused with 2; a write of exactly
//                  4 bytes is read as a Uint32 and refused with 1 when it is above
//                  KESHOOK_POLICY_MAX (1000). Everything else passes.
//   log_postSet    prints "keshook set key <key> len <length>\n" after a write.
//   log_postGet    prints "keshook get key <key> len <length>\n" after a read.
//
// Test hooks (used by the library's tests; not meant for a device):
//   test_shortenTo2    sets the length to 2 and lets the call go on.
//   test_refuse5       returns 5 (refuses) in whatever place it is put.
//   test_recPreSet, test_recPostSet, test_recPreGet, test_recPostGet
//                      count their calls and remember the last key, length and first data
//                      word; read back through test_calls, test_lastKey, test_lastLength,
//                      test_lastWord, and cleared by test_reset (slot 0..3 in that order).
//   test_countPreGet, test_countPostGet
//                      for leaves read with kesDBMGetCreateListGeneric, which hands the
//                      byte count itself where other reads hand a length pointer: they
//                      record that count (slots 2 and 3) without dereferencing it.
#include <cstdint>
#include <cstdio>
#include <cstring>

#define KESHOOK_EXPORT __attribute__((visibility("default")))

namespace {

constexpr uint32_t kPolicyMax = 1000;  // KESHOOK_POLICY_MAX

struct Record {
    int calls;
    uint32_t key;
    int32_t length;
    uint32_t word;
};
Record records[4];

int32_t lengthOf(const int32_t* length) { return length ? *length : -1; }

int recordCall(int slot, uint32_t key, const void* data, const int32_t* length) {
    Record& r = records[slot];
    ++r.calls;
    r.key = key;
    r.length = lengthOf(length);
    r.word = 0;
    if (data && length && *length > 0) {
        std::memcpy(&r.word, data, *length < 4 ? static_cast<size_t>(*length) : 4u);
    }
    return 0;
}

bool validSlot(int slot) { return slot >= 0 && slot < 4; }

}  // namespace

extern "C" {

KESHOOK_EXPORT int policy_preSet(uint32_t, void* data, int32_t* length) {
    if (!data || !length || *length <= 0) return 2;
    if (*length == 4) {
        uint32_t v;
        std::memcpy(&v, data, sizeof v);
        if (v > kPolicyMax) return 1;
    }
    return 0;
}

KESHOOK_EXPORT int log_postSet(uint32_t key, void*, int32_t* length) {
    std::printf("keshook set key %u len %d\n", static_cast<unsigned>(key), static_cast<int>(lengthOf(length)));
    return 0;
}

KESHOOK_EXPORT int log_postGet(uint32_t key, void*, int32_t* length) {
    std::printf("keshook get key %u len %d\n", static_cast<unsigned>(key), static_cast<int>(lengthOf(length)));
    return 0;
}

// ---- Test hooks ------------------------------------------------------------------------

KESHOOK_EXPORT int test_shortenTo2(uint32_t, void*, int32_t* length) {
    if (length) *length = 2;
    return 0;
}

KESHOOK_EXPORT int test_refuse5(uint32_t, void*, int32_t*) { return 5; }

KESHOOK_EXPORT int test_recPreSet(uint32_t key, void* data, int32_t* length) {
    return recordCall(0, key, data, length);
}
KESHOOK_EXPORT int test_recPostSet(uint32_t key, void* data, int32_t* length) {
    return recordCall(1, key, data, length);
}
KESHOOK_EXPORT int test_recPreGet(uint32_t key, void* data, int32_t* length) {
    return recordCall(2, key, data, length);
}
KESHOOK_EXPORT int test_recPostGet(uint32_t key, void* data, int32_t* length) {
    return recordCall(3, key, data, length);
}

// The create-list read passes its count in the pointer's place.
int32_t countOf(const int32_t* countInPlace) {
    return static_cast<int32_t>(reinterpret_cast<intptr_t>(countInPlace));
}

KESHOOK_EXPORT int test_countPreGet(uint32_t key, void*, int32_t* countInPlace) {
    int32_t count = countOf(countInPlace);
    return recordCall(2, key, nullptr, &count);
}
KESHOOK_EXPORT int test_countPostGet(uint32_t key, void* data, int32_t* countInPlace) {
    int32_t count = countOf(countInPlace);
    return recordCall(3, key, data, &count);
}

KESHOOK_EXPORT int test_calls(int slot) { return validSlot(slot) ? records[slot].calls : -1; }
KESHOOK_EXPORT uint32_t test_lastKey(int slot) { return validSlot(slot) ? records[slot].key : 0; }
KESHOOK_EXPORT int32_t test_lastLength(int slot) { return validSlot(slot) ? records[slot].length : 0; }
KESHOOK_EXPORT uint32_t test_lastWord(int slot) { return validSlot(slot) ? records[slot].word : 0; }
KESHOOK_EXPORT void test_reset(void) { std::memset(records, 0, sizeof records); }

}  // extern "C"
