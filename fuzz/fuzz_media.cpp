// Fuzz target: corrupted media contents.
//
// The input is the four medium images of a database (components, values, constraints,
// strings; format in support.hpp) followed by an operation program. Each run loads the images
// into the memory media of the database started once at initialisation, then
//   1. collects candidate keys from the images themselves, without a library call: every
//      offset of a medium whose word is its own offset (records begin with their own key),
//      plus the root word; they fill four pools (components, values, constraints, strings);
//   2. runs the program: up to kMaxOps operations of 8 bytes each,
//        byte 0    the operation (its value modulo the number of operations; with the top bit
//                  set, the session's error is left as the previous operation left it)
//        bytes 1-7 selectors a..g; bytes 4-7 read as a little-endian word give a raw value.
//      A selector picks a key from a pool (modulo its size); 0xFE gives key 0 and 0xFF the raw
//      word, so programs also reach keys that are no record. Operations that walk a whole
//      subtree (print, search, transfers, deletion with the subtree) run at most kMaxWalks
//      times per input; the others are a few record accesses each.
// The operations are the public calls (search, navigation, print, get and set of every type,
// copy, transfers, create, move, delete, keys, constraints, sync) and some record operations
// below them (free-list allocation and release, constraint records, value copy and print).
// After every operation no medium may be left open. The library's diagnostics go to
// /dev/null.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "support.hpp"

namespace {

constexpr size_t kMaxOps = 32;
constexpr size_t kMaxWalks = 3;
constexpr size_t kMaxPool = 64;
constexpr uint8_t kOperations = 24;

struct Op {
    uint8_t code, a, b, c, d, e, f, g;
    uint8_t kind() const { return (code & 0x7F) % kOperations; }
    uint32_t raw() const { return d | uint32_t{e} << 8 | uint32_t{f} << 16 | uint32_t{g} << 24; }
    // Operations that walk a whole subtree.
    bool walks() const { return kind() <= 1 || kind() == 7 || (kind() == 8 && (b & 1)); }
};

struct Pool {
    std::vector<uint32_t> keys;
    uint32_t raw = 0;
    uint32_t add(uint32_t key) {
        if (key != 0 && key != KESDB_FLST_FAILED && keys.size() < kMaxPool &&
            std::find(keys.begin(), keys.end(), key) == keys.end())
            keys.push_back(key);
        return key;
    }
    uint32_t operator()(uint8_t selector) const {
        if (selector == 0xFE) return 0;
        return selector == 0xFF || keys.empty() ? raw : keys[selector % keys.size()];
    }
    // Step 1: offsets of an image whose 32-bit word is the offset itself, from 16 on.
    void scan(const kf::Bytes& image) {
        for (uint32_t k = 16, word; k + 4 <= image.size() && keys.size() < kMaxPool; ++k)
            if (memcpy(&word, image.data() + k, 4), word == k) add(word);
    }
};

Session* g_s = nullptr;

// One operation; `comp`, `value`, `str` and `cstrt` pick from the four pools.
void run(Session* s, Pool& comp, Pool& value, Pool& str, Pool& cstrt, const Op& op) {
    alignas(8) uint8_t buf[256];
    memset(buf, 0x5A, sizeof buf);
    alignas(8) uint8_t data[32];
    for (size_t i = 0; i < sizeof data; ++i) data[i] = static_cast<uint8_t>((&op.code)[1 + i % 7] ^ (i * 37));
    uint64_t w;
    memcpy(&w, data, sizeof w);
    char* text = reinterpret_cast<char*>(buf);
    const uint32_t k = comp(op.a);

    switch (op.kind()) {
        case 0: kesDBMtraverseAndPrint(s, k); break;
        case 1:
            if (op.b & 1) kesDBMSetCurrentComponent(s, k);
            kesDBMSearchByName(s, kf::kPaths[op.c % kf::kPathCount]);
            if (op.b & 2) comp_searchByName(s, k, kf::kPaths[op.d % kf::kPathCount]);
            break;
        case 2: {
            int32_t len = op.c % 65, which = op.b % 4;
            if (which == 3) kesDBMGetCreateListGeneric(s, k, buf, len);
            if (which < 3) (which ? which == 1 ? kesDBMGetDefaultGeneric : kesDBMGetFactoryGeneric : kesDBMGetGeneric)(
                               s, k, buf, &len);
            break;
        }
        case 3: (op.b & 1 ? kesDBMSetDefaultGeneric : kesDBMSetGeneric)(s, k, data, op.c % 33); break;
        case 4:
            switch (op.b % 11) {
                case 0: kesDBMGetFloat64(s, k, reinterpret_cast<double*>(buf)); break;
                case 1: kesDBMGetFloat32(s, k, reinterpret_cast<float*>(buf)); break;
                case 2: kesDBMGetUint64(s, k, reinterpret_cast<uint64_t*>(buf)); break;
                case 3: kesDBMGetUint32(s, k, reinterpret_cast<uint32_t*>(buf)); break;
                case 4: kesDBMGetUint16(s, k, reinterpret_cast<uint16_t*>(buf)); break;
                case 5: kesDBMGetUint8(s, k, buf); break;
                case 6: kesDBMGetSint64(s, k, reinterpret_cast<int64_t*>(buf)); break;
                case 7: kesDBMGetSint32(s, k, reinterpret_cast<int32_t*>(buf)); break;
                case 8: kesDBMGetSint16(s, k, reinterpret_cast<int16_t*>(buf)); break;
                case 9: kesDBMGetSint8(s, k, reinterpret_cast<int8_t*>(buf)); break;
                default: kesDBMGetString(s, k, text, op.c % 64 + 1); break;
            }
            break;
        case 5:
            switch (op.b % 11) {
                case 0: kesDBMSetFloat64(s, k, *reinterpret_cast<const double*>(data)); break;
                case 1: kesDBMSetFloat32(s, k, *reinterpret_cast<const float*>(data)); break;
                case 2: kesDBMSetUint64(s, k, w); break;
                case 3: kesDBMSetUint32(s, k, static_cast<uint32_t>(w)); break;
                case 4: kesDBMSetUint16(s, k, static_cast<uint16_t>(w)); break;
                case 5: kesDBMSetUint8(s, k, static_cast<uint8_t>(w)); break;
                case 6: kesDBMSetSint64(s, k, static_cast<int64_t>(w)); break;
                case 7: kesDBMSetSint32(s, k, static_cast<int32_t>(w)); break;
                case 8: kesDBMSetSint16(s, k, static_cast<int16_t>(w)); break;
                case 9: kesDBMSetSint8(s, k, static_cast<int8_t>(w)); break;
                default: kesDBMSetString(s, k, std::string("abcdefghijklmnopqrstuvwxyz0123456789", op.c % 37).c_str());
            }
            break;
        case 6: kesDBMCopy(s, k, comp(op.b)); break;
        case 7:
            (op.c % 3 ? op.c % 3 == 1 ? kesDBMFactoryToDefault : kesDBMDefaultToCurrent : kesDBMCurrentToDefault)(s, k);
            break;
        case 8: (op.b & 1 ? kesDBMDeleteComponentWithSub : kesDBMDeleteComponent)(s, k); break;
        case 9: op.c & 1 ? kesDBMDeleteValue(s, value(op.a)) : kesDBMDeleteString(s, str(op.b)); break;
        case 10: comp.add(kesDBMCreateNode(s, str(op.a), comp(op.b), comp(op.c), op.g & 1 ? comp(op.d) : 0)); break;
        case 11:
            comp.add(kesDBMCreateLeaf(s, str(op.a), comp(op.b), comp(op.c), value(op.d), value(op.e), value(op.f),
                                      op.g % 5));
            break;
        case 12:
            if (op.g % 3 == 1) kesDBMMoveNode(s, k, comp(op.b), comp(op.c), op.f & 1 ? comp(op.d) : 0);
            else (op.g % 3 ? kesDBMMoveSubTree : kesDBMMoveLeaf)(s, k, comp(op.b), comp(op.c));
            break;
        case 13:
            op.g & 1 ? kesDBMSetConstraintKey(s, value(op.a), cstrt(op.b))
                     : value.add(kesDBMCreateValue(s, op.b % 13, value.raw, op.c & 0x80 ? nullptr : data, op.c % 33,
                                                   op.d & 1 ? kf::kValueMedium : op.d % 6));
            break;
        case 14: {
            std::string name(op.c % 12, 'a');
            for (size_t i = 0; i < name.size(); ++i) name[i] = static_cast<char>('a' + data[i] % 26);
            if (op.b & 1 && !name.empty()) name[0] = '/';
            str.add(kesDBMCreateString(s, name.c_str(), op.d & 1 ? kf::kStringMedium : op.d % 6));
            break;
        }
        case 15:
            switch (op.b % 4) {
                case 0: kesDBMGetConstraintType(s, k); break;
                case 1: kesDBMGetConstraintLength(s, k); break;
                case 2: kesDBMGetConstraintData(s, k, buf, op.c % 65); break;
                default: kesDBMSetConstraintData(s, k, data, op.c % 33); break;
            }
            break;
        case 16:
            switch (op.b % 6) {
                case 0: kesDBMGetChildCount(s, k); break;
                case 1: comp.add(kesDBMGetChildByIndex(s, k, static_cast<int8_t>(op.c))); break;
                case 2: comp.add(kesDBMGetParent(s, k)); break;
                case 3: comp.add(kesDBMGetFirstChild(s, k)); break;
                case 4: comp.add(kesDBMGetNextChild(s, k)); break;
                default: kesDBMSetCurrentComponent(s, k); break;
            }
            break;
        case 17: value_print(s, value(op.a)), kesDBMGetType(s, comp(op.b)), kesDBMGetLength(s, comp(op.c)); break;
        case 18:
            switch (op.c % 7) {
                case 0: kesDBMSetStringKey(s, k, str(op.b)); break;
                case 1: kesDBMSetCurrentValueKey(s, k, value(op.b)); break;
                case 2: kesDBMSetDefaultValueKey(s, k, value(op.b)); break;
                case 3: kesDBMSetFactoryValueKey(s, k, value(op.b)); break;
                case 4: comp_setParent(s, k, comp(op.b)); break;
                case 5: comp_setNextSibling(s, k, comp(op.b)); break;
                default: comp_setFirstChild(s, k, comp(op.b)); break;
            }
            break;
        case 19:
            op.g & 1 ? flst_m_release(s, kf::kFirstMedium + op.b % kf::kMedia, k, op.c)
                     : flst_m_get(s, kf::kFirstMedium + op.b % kf::kMedia, op.c + 1u);
            break;
        case 20: {
            const uint32_t c = cstrt(op.a);
            EnumRecord e;
            switch (op.b % 5) {
                case 0: constraint_getData(s, c, buf, op.c % 65); break;
                case 1: constraint_setData(s, c, data, op.c % 33); break;
                case 2: constraint_check(s, c, op.c % 12, data, op.d % 9); break;
                case 3: constraint_getLength(s, c); break;
                default:
                    if (enum_get(s, c, &e)) free(constraint_getEnumArray(s, e.arrayKey, e.elementSize, e.count));
                    break;
            }
            break;
        }
        case 21: kesDBMSync(s, op.b % 6, value.raw); break;
        case 22:
            op.c & 1 ? value_copy2(s, value(op.a), value(op.b), op.d % 5) : value_copy(s, value(op.a), value(op.b));
            break;
        default: kesdb_getString(s, str(op.a), text, op.c % 64 + 1), kesDBMGetStringKey(s, k);
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    g_s = kf::startDatabase();
    kf::capAllocations();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const size_t start = kf::parseInput(data, size);
    Session* s = g_s;
    session_setError(s, 0, 0);
    s->current = kesDBMGetRoot(s);

    Pool pools[kf::kMedia];  // components, values, constraints, strings: as the media
    if (uint32_t root; kf::g_media[0].size() >= 12) pools[0].add((memcpy(&root, kf::g_media[0].data() + 8, 4), root));
    for (uint32_t i = 0; i < kf::kMedia; ++i) pools[i].scan(kf::g_media[i]);
    size_t walkCount = 0;
    for (size_t i = start; i + 8 <= size && (i - start) / 8 < kMaxOps; i += 8) {
        Op op;
        memcpy(&op, data + i, sizeof op);
        if (op.walks() && ++walkCount > kMaxWalks) continue;
        if (!(op.code & 0x80)) session_setError(s, 0, 0);
        for (Pool& p : pools) p.raw = op.raw();
        run(s, pools[0], pools[1], pools[3], pools[2], op);
        if (kf::openDescriptors() != 0) kf::fail("a medium was left open after a library call");
    }
    return 0;
}
