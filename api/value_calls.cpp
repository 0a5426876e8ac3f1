// The public value calls: generic reads and writes of a leaf's current, default and factory
// values with the leaf's hooks run around them, the typed wrappers, and the copy between leaves.
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "kesdbm/api.h"
#include "kesdbm/hook.h"
#include "kesdbm/session.h"
#include "kesdbm/storage.h"
#include "kesdbm/tree.h"
#include "kesdbm/value.h"
#include "storage/medium_io.hpp"
#include "value/changes.hpp"

namespace {

enum class Slot { Current, Default, Factory };

uint32_t valueKeyOf(const LeafRecord& leaf, Slot slot) {
    switch (slot) {
        case Slot::Current: return leaf.currentValue;
        case Slot::Default: return leaf.defaultValue;
        case Slot::Factory: return leaf.factoryValue;
    }
    return leaf.currentValue;
}

// Reads the leaf at `key`. 0 when it is a leaf; otherwise the code to return: the one the
// failed read recorded (4 for key 0), or 1 (recorded) when the component is not a leaf.
// A failed read without a session records nowhere; it is then always the missing database.
int32_t resolveLeaf(Session* s, uint32_t key, LeafRecord& leaf) {
    if (!comp_getLeaf(s, key, &leaf)) {
        const int32_t code = kes::lastError(s);
        return code != 0 ? code : KESDB_ERR_DB_NOTFOUND;
    }
    if (leaf.comp.kind != KESDB_KIND_LEAF) return session_setError(s, KESDB_ERR_COMP_NOTLEAF, 0);
    return 0;
}

// The hook entry of a leaf, or null for none (index 0) or an invalid index (28 recorded; the
// call then goes on without hooks).
const HookEntry* hookOf(Session* s, const LeafRecord& leaf) {
    return leaf.hookIndex != 0 ? getHook(s, leaf.hookIndex) : nullptr;
}

// The read sequence: preGet, the value operation, postGet. `hookLength` is what the hooks
// receive as their length pointer.
template <class ValueOp>
int32_t readWithHooks(Session* s, const LeafRecord& leaf, uint32_t valueKey, void* buffer, int32_t* hookLength,
                      ValueOp valueOp) {
    const HookEntry* hook = hookOf(s, leaf);
    if (!hook) return valueOp();
    if (hook->preGet) {
        const int r = hook->preGet(valueKey, buffer, hookLength);
        if (r != 0) return session_setError(s, KESDB_ERR_HOOK_PREGET, static_cast<uint32_t>(r));
    }
    const int32_t rc = valueOp();
    if (rc != 0) return rc;
    if (hook->postGet) {
        const int r = hook->postGet(valueKey, buffer, hookLength);
        if (r != 0) return session_setError(s, KESDB_ERR_HOOK_POSTGET, static_cast<uint32_t>(r));
    }
    return 0;
}

int32_t getGeneric(Session* s, uint32_t key, Slot slot, void* buffer, int32_t* length) {
    if (!buffer || !length) return session_setError(s, KESDB_ERR_NULLARG, 0);
    LeafRecord leaf;
    if (const int32_t code = resolveLeaf(s, key, leaf)) return code;
    const uint32_t valueKey = valueKeyOf(leaf, slot);
    return readWithHooks(s, leaf, valueKey, buffer, length,
                         [&] { return value_getGeneric(s, valueKey, buffer, length); });
}

// Enters a change of the leaf for watchers once its value is written; gives the write's result.
int32_t entered(Session* s, uint32_t key, int32_t written) {
    if (written == 0) kes::changes::record(s, key, 0);
    return written;
}

// The write sequence: preSet (which may change the length), value_setGeneric with that
// length, postSet. The hooks get a pointer to the call's own copy of the length.
int32_t setGeneric(Session* s, uint32_t key, Slot slot, const void* data, int32_t length) {
    if (!data) return session_setError(s, KESDB_ERR_NULLARG, 0);
    LeafRecord leaf;
    if (const int32_t code = resolveLeaf(s, key, leaf)) return code;
    const uint32_t valueKey = valueKeyOf(leaf, slot);
    const HookEntry* hook = hookOf(s, leaf);
    if (!hook) return entered(s, key, value_setGeneric(s, valueKey, data, length));
    // Hook functions take a non-const data pointer; they are handed the caller's bytes as
    // they are, and a hook that writes to them writes to the caller's memory.
    void* hookData = const_cast<void*>(data);
    if (hook->preSet) {
        const int r = hook->preSet(valueKey, hookData, &length);
        if (r != 0) return session_setError(s, KESDB_ERR_HOOK_PRESET, static_cast<uint32_t>(r));
    }
    const int32_t rc = entered(s, key, value_setGeneric(s, valueKey, data, length));
    if (rc != 0) return rc;
    if (hook->postSet) {
        const int r = hook->postSet(valueKey, hookData, &length);
        if (r != 0) return session_setError(s, KESDB_ERR_HOOK_POSTSET, static_cast<uint32_t>(r));
    }
    return 0;
}

// Typed calls: the natural length of the type, through the generic calls; one body for the
// ten numeric types, told the width. The read does not hand the number of bytes read back;
// a value shorter than the type fills only its first bytes.
__attribute__((noinline)) int32_t getTyped(Session* s, uint32_t key, void* value, int32_t width) {
    return kesDBMGetGeneric(s, key, value, &width);
}

__attribute__((noinline)) int32_t setTyped(Session* s, uint32_t key, const void* value, int32_t width) {
    return kesDBMSetGeneric(s, key, value, width);
}

}  // namespace

extern "C" {

int32_t kesDBMGetGeneric(Session* s, uint32_t key, void* buffer, int32_t* length) {
    return getGeneric(s, key, Slot::Current, buffer, length);
}

int32_t kesDBMGetDefaultGeneric(Session* s, uint32_t key, void* buffer, int32_t* length) {
    return getGeneric(s, key, Slot::Default, buffer, length);
}

int32_t kesDBMGetFactoryGeneric(Session* s, uint32_t key, void* buffer, int32_t* length) {
    return getGeneric(s, key, Slot::Factory, buffer, length);
}

// Reads `count` bytes from the start of the current value's data area, not bounded by the
// value's length. The hooks receive the count itself where the other read calls hand a pointer
// to a length: hook functions registered for such leaves take their third argument as the
// count (converted back with (int32_t)(intptr_t)) and must not dereference it.
int32_t kesDBMGetCreateListGeneric(Session* s, uint32_t key, void* buffer, int32_t count) {
    if (!buffer) return session_setError(s, KESDB_ERR_NULLARG, 0);
    LeafRecord leaf;
    if (const int32_t code = resolveLeaf(s, key, leaf)) return code;
    const uint32_t valueKey = leaf.currentValue;
    int32_t* countInPlace = reinterpret_cast<int32_t*>(static_cast<intptr_t>(count));
    return readWithHooks(s, leaf, valueKey, buffer, countInPlace,
                         [&] { return value_getCreateListGeneric(s, valueKey, buffer, count); });
}

int32_t kesDBMSetGeneric(Session* s, uint32_t key, const void* data, int32_t length) {
    return setGeneric(s, key, Slot::Current, data, length);
}

int32_t kesDBMSetDefaultGeneric(Session* s, uint32_t key, const void* data, int32_t length) {
    return setGeneric(s, key, Slot::Default, data, length);
}

#define KESDB_TYPED_CALLS(Name, T)                                                                       \
    int32_t kesDBMGet##Name(Session* s, uint32_t key, T* value) {                                      \
        return getTyped(s, key, value, static_cast<int32_t>(sizeof(T)));                                \
    }                                                                                                   \
    int32_t kesDBMSet##Name(Session* s, uint32_t key, T value) {                                       \
        return setTyped(s, key, &value, static_cast<int32_t>(sizeof(T)));                               \
    }

KESDB_TYPED_CALLS(Float64, double)
KESDB_TYPED_CALLS(Float32, float)
KESDB_TYPED_CALLS(Uint64, uint64_t)
KESDB_TYPED_CALLS(Uint32, uint32_t)
KESDB_TYPED_CALLS(Uint16, uint16_t)
KESDB_TYPED_CALLS(Uint8, uint8_t)
KESDB_TYPED_CALLS(Sint64, int64_t)
KESDB_TYPED_CALLS(Sint32, int32_t)
KESDB_TYPED_CALLS(Sint16, int16_t)
KESDB_TYPED_CALLS(Sint8, int8_t)

#undef KESDB_TYPED_CALLS

int32_t kesDBMGetString(Session* s, uint32_t key, char* buffer, int32_t size) {
    int32_t length = size;
    return kesDBMGetGeneric(s, key, buffer, &length);
}

int32_t kesDBMSetString(Session* s, uint32_t key, const char* text) {
    if (!text) return session_setError(s, KESDB_ERR_NULLARG, 0);
    const size_t n = std::strlen(text) + 1;  // the terminating NUL is written too
    const int32_t length = n > 0x7FFFFFFFu ? 0x7FFFFFFF : static_cast<int32_t>(n);
    return kesDBMSetGeneric(s, key, text, length);
}

int32_t kesDBMGetType(Session* s, uint32_t key) {
    LeafRecord leaf;
    if (resolveLeaf(s, key, leaf) != 0) return -1;
    return value_getType(s, leaf.currentValue);
}

int32_t kesDBMGetLength(Session* s, uint32_t key) {
    LeafRecord leaf;
    if (resolveLeaf(s, key, leaf) != 0) return 0;
    return value_getLength(s, leaf.currentValue);
}

// Copies the source leaf's current value into the destination's: the destination always
// receives its own length of bytes, the source's cut to it or followed by zeros, with the read
// hooks of the source and the write hooks of the destination.
//
// Only a non-zero result of the source read ends the copy. A source whose value record cannot
// be read gives a length of -1 and a read that returns 0 with its code left in the session:
// the copy then writes the zero buffer and returns the write's result, so that code stays in
// the session for the caller to see. A destination whose value record cannot be read (length
// -1) asks for more memory than any allocator gives: the copy fails with error 86.
int32_t kesDBMCopy(Session* s, uint32_t source, uint32_t destination) {
    const int32_t srcLength = kesDBMGetLength(s, source);
    const int32_t dstLength = kesDBMGetLength(s, destination);
    if (dstLength < 0) return session_setError(s, KESDB_ERR_NOMEM, ENOMEM);
    errno = 0;
    unsigned char* buffer =
        static_cast<unsigned char*>(std::calloc(dstLength > 0 ? static_cast<size_t>(dstLength) : 1u, 1));
    if (!buffer) return session_setError(s, KESDB_ERR_NOMEM, static_cast<uint32_t>(errno ? errno : ENOMEM));
    kes::ScopeExit release([buffer] { std::free(buffer); });
    int32_t length = srcLength > dstLength ? dstLength : srcLength;
    if (const int32_t rc = kesDBMGetGeneric(s, source, buffer, &length)) return rc;
    return kesDBMSetGeneric(s, destination, buffer, dstLength);
}

// Reads `count` bytes at the start of a value's data area; see kesDBMGetCreateListGeneric.
int32_t value_getCreateListGeneric(Session* s, uint32_t key, void* buffer, int32_t count) {
    if (!buffer) return session_setError(s, KESDB_ERR_NULLARG, 0);
    ValueRecord record;
    if (!value_get(s, key, &record)) return 0;
    MediaEntry* entry = getMedia(s, record.dataMedium);
    if (!entry) return 0;
    kes::Medium medium(entry);
    if (!medium.open()) return session_setError(s, KESDB_ERR_MEDIA_OPEN, medium.err());
    // A negative count reads nothing (the driver takes its length unsigned).
    const uint32_t n = count > 0 ? static_cast<uint32_t>(count) : 0u;
    if (medium.read(buffer, n, record.dataOffset) < 0) session_setError(s, KESDB_ERR_MEDIA_READ, medium.err());
    return medium.close();
}

}  // extern "C"
