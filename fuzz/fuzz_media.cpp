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
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "support.hpp"

namespace {

constexpr size_t kMaxOps = 32;
constexpr size_t kMaxWalks = 3;
constexpr size_t kMaxPool = 64;

struct Op {
    uint8_t code, a, b, c, d, e, f, g;
    uint32_t raw() const {
        return static_cast<uint32_t>(d) | static_cast<uint32_t>(e) << 8 | static_cast<uint32_t>(f) << 16 |
               static_cast<uint32_t>(g) << 24;
    }
};

struct Pool {
    std::vector<uint32_t> keys;
    void add(uint32_t key) {
        if (key == 0 || key == KESDB_FLST_FAILED || keys.size() >= kMaxPool) return;
        for (uint32_t k : keys)
            if (k == key) return;
        keys.push_back(key);
    }
    uint32_t pick(uint8_t selector, uint32_t raw) const {
        if (selector == 0xFE) return 0;
        if (selector == 0xFF || keys.empty()) return raw;
        return keys[selector % keys.size()];
    }
};

struct Pools {
    Pool comp, value, str, cstrt;
};

const char* const kPaths[] = {
    "/",         "/net",      "/net/port", "/net/mode", "/net/dns/x", "/time/zone", "/sys/s64", "net",
    "port",      "/port",     "/nope",     "",          "/net/xy",    "/times",     "flag",     "/sys/f64",
    "/net/dns/", "net/hostname", "//",     "/sys/blob",
};
constexpr size_t kPathCount = sizeof kPaths / sizeof kPaths[0];

Session* g_s = nullptr;

// Step 1: offsets of an image whose 32-bit word is the offset itself, from 16 on.
void scan(const kf::Bytes& image, Pool& pool) {
    for (size_t k = 16; k + 4 <= image.size() && pool.keys.size() < kMaxPool; ++k) {
        uint32_t word;
        memcpy(&word, image.data() + k, sizeof word);
        if (word == k) pool.add(word);
    }
}

void collect(Pools& pools) {
    const kf::Images& m = kf::media();
    if (m.m[0].size() >= 12) {
        uint32_t root;
        memcpy(&root, m.m[0].data() + 8, sizeof root);
        pools.comp.add(root);
    }
    scan(m.m[0], pools.comp);
    scan(m.m[1], pools.value);
    scan(m.m[2], pools.cstrt);
    scan(m.m[3], pools.str);
}

// Operations that walk a whole subtree.
bool walks(const Op& op) {
    switch ((op.code & 0x7F) % 24) {
        case 0: case 1: case 7: return true;
        case 8: return op.b & 1;
        default: return false;
    }
}

void check() {
    if (kf::openDescriptors() != 0) kf::fail("a medium was left open after a library call");
}

void run(Session* s, Pools& p, const Op& op) {
    alignas(8) uint8_t buf[256];
    memset(buf, 0x5A, sizeof buf);
    alignas(8) uint8_t data[32];
    const uint8_t* bytes = &op.code;
    for (size_t i = 0; i < sizeof data; ++i) data[i] = static_cast<uint8_t>(bytes[1 + i % 7] ^ (i * 37));
    const uint32_t raw = op.raw();
    const uint32_t comp = p.comp.pick(op.a, raw);

    switch ((op.code & 0x7F) % 24) {
        case 0: kesDBMtraverseAndPrint(s, p.comp.pick(op.a, raw)); break;
        case 1:
            if (op.b & 1) kesDBMSetCurrentComponent(s, comp);
            kesDBMSearchByName(s, kPaths[op.c % kPathCount]);
            if (op.b & 2) comp_searchByName(s, comp, kPaths[op.d % kPathCount]);
            break;
        case 2: {
            int32_t len = op.c % 65;
            switch (op.b % 4) {
                case 0: kesDBMGetGeneric(s, comp, buf, &len); break;
                case 1: kesDBMGetDefaultGeneric(s, comp, buf, &len); break;
                case 2: kesDBMGetFactoryGeneric(s, comp, buf, &len); break;
                default: kesDBMGetCreateListGeneric(s, comp, buf, len); break;
            }
            break;
        }
        case 3:
            if (op.b & 1)
                kesDBMSetDefaultGeneric(s, comp, data, op.c % 33);
            else
                kesDBMSetGeneric(s, comp, data, op.c % 33);
            break;
        case 4: {
            union {
                double f64;
                float f32;
                uint64_t u64;
                uint32_t u32;
                uint16_t u16;
                uint8_t u8;
                int64_t s64;
                int32_t s32;
                int16_t s16;
                int8_t s8;
            } v{};
            switch (op.b % 11) {
                case 0: kesDBMGetFloat64(s, comp, &v.f64); break;
                case 1: kesDBMGetFloat32(s, comp, &v.f32); break;
                case 2: kesDBMGetUint64(s, comp, &v.u64); break;
                case 3: kesDBMGetUint32(s, comp, &v.u32); break;
                case 4: kesDBMGetUint16(s, comp, &v.u16); break;
                case 5: kesDBMGetUint8(s, comp, &v.u8); break;
                case 6: kesDBMGetSint64(s, comp, &v.s64); break;
                case 7: kesDBMGetSint32(s, comp, &v.s32); break;
                case 8: kesDBMGetSint16(s, comp, &v.s16); break;
                case 9: kesDBMGetSint8(s, comp, &v.s8); break;
                default: kesDBMGetString(s, comp, reinterpret_cast<char*>(buf), op.c % 64 + 1); break;
            }
            break;
        }
        case 5: {
            uint64_t w;
            memcpy(&w, data, sizeof w);
            double f64;
            float f32;
            memcpy(&f64, data, sizeof f64);
            memcpy(&f32, data, sizeof f32);
            switch (op.b % 11) {
                case 0: kesDBMSetFloat64(s, comp, f64); break;
                case 1: kesDBMSetFloat32(s, comp, f32); break;
                case 2: kesDBMSetUint64(s, comp, w); break;
                case 3: kesDBMSetUint32(s, comp, static_cast<uint32_t>(w)); break;
                case 4: kesDBMSetUint16(s, comp, static_cast<uint16_t>(w)); break;
                case 5: kesDBMSetUint8(s, comp, static_cast<uint8_t>(w)); break;
                case 6: kesDBMSetSint64(s, comp, static_cast<int64_t>(w)); break;
                case 7: kesDBMSetSint32(s, comp, static_cast<int32_t>(w)); break;
                case 8: kesDBMSetSint16(s, comp, static_cast<int16_t>(w)); break;
                case 9: kesDBMSetSint8(s, comp, static_cast<int8_t>(w)); break;
                default: {
                    char text[] = "abcdefghijklmnopqrstuvwxyz0123456789";
                    text[op.c % (sizeof text)] = '\0';
                    kesDBMSetString(s, comp, text);
                    break;
                }
            }
            break;
        }
        case 6: kesDBMCopy(s, comp, p.comp.pick(op.b, raw)); break;
        case 7:
            switch (op.c % 3) {
                case 0: kesDBMCurrentToDefault(s, comp); break;
                case 1: kesDBMFactoryToDefault(s, comp); break;
                default: kesDBMDefaultToCurrent(s, comp); break;
            }
            break;
        case 8:
            if (op.b & 1)
                kesDBMDeleteComponentWithSub(s, comp);
            else
                kesDBMDeleteComponent(s, comp);
            break;
        case 9:
            if (op.c & 1)
                kesDBMDeleteValue(s, p.value.pick(op.a, raw));
            else
                kesDBMDeleteString(s, p.str.pick(op.b, raw));
            break;
        case 10:
            p.comp.add(kesDBMCreateNode(s, p.str.pick(op.a, raw), p.comp.pick(op.b, raw), p.comp.pick(op.c, raw),
                                        (op.g & 1) ? p.comp.pick(op.d, raw) : 0));
            break;
        case 11:
            p.comp.add(kesDBMCreateLeaf(s, p.str.pick(op.a, raw), p.comp.pick(op.b, raw), p.comp.pick(op.c, raw),
                                        p.value.pick(op.d, raw), p.value.pick(op.e, raw), p.value.pick(op.f, raw),
                                        op.g % 5));
            break;
        case 12:
            switch (op.g % 3) {
                case 0: kesDBMMoveLeaf(s, comp, p.comp.pick(op.b, raw), p.comp.pick(op.c, raw)); break;
                case 1:
                    kesDBMMoveNode(s, comp, p.comp.pick(op.b, raw), p.comp.pick(op.c, raw),
                                   (op.f & 1) ? p.comp.pick(op.d, raw) : 0);
                    break;
                default: kesDBMMoveSubTree(s, comp, p.comp.pick(op.b, raw), p.comp.pick(op.c, raw)); break;
            }
            break;
        case 13:
            if (op.g & 1) {
                kesDBMSetConstraintKey(s, p.value.pick(op.a, raw), p.cstrt.pick(op.b, raw));
            } else {
                const uint32_t medium = (op.d & 1) ? kf::kValueMedium : op.d % 6;
                p.value.add(kesDBMCreateValue(s, op.b % 13, raw, (op.c & 0x80) ? nullptr : data, op.c % 33, medium));
            }
            break;
        case 14: {
            char text[13];
            const size_t n = op.c % 12;
            for (size_t i = 0; i < n; ++i) text[i] = static_cast<char>('a' + data[i] % 26);
            text[n] = '\0';
            if (op.b & 1) text[0] = '/';
            const uint32_t medium = (op.d & 1) ? kf::kStringMedium : op.d % 6;
            p.str.add(kesDBMCreateString(s, n ? text : "", medium));
            break;
        }
        case 15:
            switch (op.b % 4) {
                case 0: kesDBMGetConstraintType(s, comp); break;
                case 1: kesDBMGetConstraintLength(s, comp); break;
                case 2: kesDBMGetConstraintData(s, comp, buf, op.c % 65); break;
                default: kesDBMSetConstraintData(s, comp, data, op.c % 33); break;
            }
            break;
        case 16:
            switch (op.b % 6) {
                case 0: kesDBMGetChildCount(s, comp); break;
                case 1: p.comp.add(kesDBMGetChildByIndex(s, comp, static_cast<int8_t>(op.c))); break;
                case 2: p.comp.add(kesDBMGetParent(s, comp)); break;
                case 3: p.comp.add(kesDBMGetFirstChild(s, comp)); break;
                case 4: p.comp.add(kesDBMGetNextChild(s, comp)); break;
                default: kesDBMSetCurrentComponent(s, comp); break;
            }
            break;
        case 17:
            value_print(s, p.value.pick(op.a, raw));
            kesDBMGetType(s, p.comp.pick(op.b, raw));
            kesDBMGetLength(s, p.comp.pick(op.c, raw));
            break;
        case 18:
            switch (op.c % 7) {
                case 0: kesDBMSetStringKey(s, comp, p.str.pick(op.b, raw)); break;
                case 1: kesDBMSetCurrentValueKey(s, comp, p.value.pick(op.b, raw)); break;
                case 2: kesDBMSetDefaultValueKey(s, comp, p.value.pick(op.b, raw)); break;
                case 3: kesDBMSetFactoryValueKey(s, comp, p.value.pick(op.b, raw)); break;
                case 4: comp_setParent(s, comp, p.comp.pick(op.b, raw)); break;
                case 5: comp_setNextSibling(s, comp, p.comp.pick(op.b, raw)); break;
                default: comp_setFirstChild(s, comp, p.comp.pick(op.b, raw)); break;
            }
            break;
        case 19: {
            const uint32_t medium = kf::kFirstMedium + op.b % kf::kMedia;
            if (op.g & 1)
                flst_m_release(s, medium, comp, op.c);
            else
                flst_m_get(s, medium, op.c + 1u);
            break;
        }
        case 20: {
            const uint32_t k = p.cstrt.pick(op.a, raw);
            switch (op.b % 5) {
                case 0: constraint_getData(s, k, buf, op.c % 65); break;
                case 1: constraint_setData(s, k, data, op.c % 33); break;
                case 2: constraint_check(s, k, op.c % 12, data, op.d % 9); break;
                case 3: constraint_getLength(s, k); break;
                default: {
                    EnumRecord e;
                    if (enum_get(s, k, &e)) free(constraint_getEnumArray(s, e.arrayKey, e.elementSize, e.count));
                    break;
                }
            }
            break;
        }
        case 21: kesDBMSync(s, op.b % 6, raw); break;
        case 22:
            if (op.c & 1)
                value_copy2(s, p.value.pick(op.a, raw), p.value.pick(op.b, raw), op.d % 5);
            else
                value_copy(s, p.value.pick(op.a, raw), p.value.pick(op.b, raw));
            break;
        default:
            kesdb_getString(s, p.str.pick(op.a, raw), reinterpret_cast<char*>(buf), op.c % 64 + 1);
            kesDBMGetStringKey(s, comp);
            break;
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    kf::silenceStdout();
    kf::preloadProjectLibraries();
    g_s = kf::startDatabase();
    kf::capAllocations();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const uint8_t* program = nullptr;
    size_t programSize = 0;
    kf::parseInput(data, size, kf::media(), &program, &programSize);
    Session* s = g_s;
    s->error = 0;
    s->errorDetail = 0;
    s->current = kesDBMGetRoot(s);

    Pools pools;
    collect(pools);
    size_t walkCount = 0;
    for (size_t i = 0; i + 8 <= programSize && i / 8 < kMaxOps; i += 8) {
        Op op;
        memcpy(&op, program + i, sizeof op);
        if (walks(op) && ++walkCount > kMaxWalks) continue;
        if (!(op.code & 0x80)) {
            s->error = 0;
            s->errorDetail = 0;
        }
        run(s, pools, op);
        check();
    }
    return 0;
}
