// Shared harness of the fuzz targets: see support.hpp.
#include "support.hpp"

#include <dlfcn.h>
#include <errno.h>
#include <ftw.h>
#include <sanitizer/asan_interface.h>
#include <sanitizer/common_interface_defs.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <climits>

#ifndef KESDB_FUZZ_LIB_DIR
#define KESDB_FUZZ_LIB_DIR "."
#endif

extern "C" void* __real_dlopen(const char* file, int mode);

namespace kf {

Images g_media;
uint64_t g_writes;

namespace {

int g_open[kMedia];
constexpr int kDescriptorBase = 10;  // descriptor of medium i: kDescriptorBase + i

// The medium of a descriptor handed to read, write, seek, sync or close; it must be open.
Bytes& mediumOf(int descriptor) {
    const int i = descriptor - kDescriptorBase;
    if (i < 0 || i >= static_cast<int>(kMedia) || g_open[i] <= 0)
        fail("medium operation on a descriptor that is not open");
    return g_media[i];
}

// The library hands a buffer and a length: the whole length must be addressable. Very long
// regions are checked at both ends only (a corrupted length may ask for gigabytes).
void checkBuffer(const void* buffer, uint32_t length, const char* what) {
    char* p = static_cast<char*>(const_cast<void*>(buffer));
    if (length != 0 && (!p || (length <= kMediumCap ? __asan_region_is_poisoned(p, length) != nullptr
                                                    : __asan_address_is_poisoned(p) ||
                                                          __asan_address_is_poisoned(p + length - 1))))
        fail(what);
}

int refuse(int32_t* errPtr, int code) { return errPtr ? *errPtr = code, -1 : -1; }

int memOpen(const char*, uint32_t arg, int32_t* errPtr) {
    return arg >= kMedia ? refuse(errPtr, ENODEV) : (++g_open[arg], kDescriptorBase + static_cast<int>(arg));
}

int memClose(int descriptor, int32_t*) { return mediumOf(descriptor), --g_open[descriptor - kDescriptorBase], 0; }

int memRead(int descriptor, void* buffer, uint32_t length, uint32_t offset, int32_t*) {
    const Bytes& m = mediumOf(descriptor);
    checkBuffer(buffer, length, "read into a buffer shorter than the length handed to the driver");
    const size_t n = offset >= m.size() ? 0 : std::min<size_t>(length, m.size() - offset);
    if (n) memcpy(buffer, m.data() + offset, n);
    return static_cast<int>(n);
}

int memWrite(int descriptor, const void* buffer, uint32_t length, uint32_t offset, int32_t* errPtr) {
    Bytes& m = mediumOf(descriptor);
    if (length == 0) return 0;
    if (offset > kMediumCap || length > kMediumCap - offset) return refuse(errPtr, ENOSPC);
    checkBuffer(buffer, length, "write from a buffer shorter than the length handed to the driver");
    if (m.size() < offset + length) m.resize(offset + length);
    memcpy(m.data() + offset, buffer, length);
    ++g_writes;
    return static_cast<int>(length);
}

// The library seeks only to learn a medium's size; positions relative to the current one are
// refused.
int memSeek(int descriptor, uint32_t offset, int whence, int32_t* errPtr) {
    const int64_t at = (whence == SEEK_END ? int64_t(mediumOf(descriptor).size()) : 0) + offset;
    if (whence != SEEK_SET && whence != SEEK_END) return refuse(errPtr, EINVAL);
    return at > INT_MAX ? refuse(errPtr, EOVERFLOW) : static_cast<int>(at);
}

int memSync(int descriptor, int32_t*, uint32_t) { return mediumOf(descriptor), 0; }

const char* const kProjectLibraries[] = {"libkesdrv_file.so", "libkesdrv_fault.so", "libkeshook_sample.so"};

std::string g_dir;
Session g_session;
int32_t g_dbId = -1;

int removeEntry(const char* path, const struct stat*, int, struct FTW*) { return ::remove(path), 0; }

void stopDatabase() {
    kesDBMTermSession(&g_session);
    kesDBMTerm(static_cast<uint32_t>(g_dbId));
    nftw(g_dir.c_str(), removeEntry, 8, FTW_DEPTH | FTW_PHYS);
}

void writeText(const std::string& path, const std::string& text) {
    FILE* f = fopen(path.c_str(), "w");
    if (!f || fwrite(text.data(), 1, text.size(), f) != text.size() || fclose(f) != 0) fail("cannot write a file");
}

// Empty media of the given sizes: the header (root 0, first free element at 16) and one free
// element covering everything behind it, in host order.
void layEmptyMedia(const std::array<uint32_t, kMedia>& sizes) {
    for (uint32_t i = 0; i < kMedia; ++i) {
        const uint32_t words[6] = {0, 0, 0, 16, 0, sizes[i] - 16};
        g_media[i].assign(sizes[i], 0);
        memcpy(g_media[i].data(), words, sizeof words);
    }
}

std::string libPath(const std::string& fileName) {
    const char* dir = getenv("KESDB_FUZZ_LIB_DIR");
    return std::string(dir && *dir ? dir : KESDB_FUZZ_LIB_DIR) + "/" + fileName;
}

}  // namespace

int openDescriptors() { return g_open[0] + g_open[1] + g_open[2] + g_open[3]; }

void fail(const char* what) {
    fprintf(stderr, "kesdb fuzz harness: %s\n", what);
    __sanitizer_print_stack_trace();
    abort();
}

size_t parseInput(const uint8_t* data, size_t size) {
    size_t pos = 0;
    for (Bytes& m : g_media) {
        const size_t length = pos + 2 <= size ? std::min(data[pos] | size_t{data[pos + 1]} << 8, size - pos - 2) : 0;
        pos = std::min(pos + 2, size);
        m.assign(data + pos, data + pos + length);
        pos += length;
    }
    return pos;
}

Bytes serialize(const Images& images, const Bytes& rest) {
    Bytes out;
    for (const Bytes& m : images) {
        if (m.size() > 0xFFFF) fail("a seed medium is longer than 65535 bytes");
        out.insert(out.end(), {static_cast<uint8_t>(m.size()), static_cast<uint8_t>(m.size() >> 8)});
        out.insert(out.end(), m.begin(), m.end());
    }
    out.insert(out.end(), rest.begin(), rest.end());
    return out;
}

void setUp() {
    fflush(stdout);
    if (!getenv("KESDB_FUZZ_VERBOSE") && !freopen("/dev/null", "w", stdout)) fail("cannot silence standard output");
    for (const char* lib : kProjectLibraries) {
        if (!__real_dlopen(libPath(lib).c_str(), RTLD_NOW)) {
            fprintf(stderr, "cannot load %s: %s\n", libPath(lib).c_str(), dlerror());
            fail("a project library is missing from the build");
        }
    }
}

const char* const kHookConfig =
    "libkeshook_sample.so policy_preSet log_postSet test_countPreGet NULL\n"
    "libkeshook_sample.so test_recPreSet test_recPostSet NULL test_refuse5\n"
    "libkeshook_sample.so test_refuse5 NULL test_refuse5 NULL\n";

std::string tempDirWithTable(const std::string& tag) {
    const char* tmp = getenv("TMPDIR");
    std::string dir = std::string(tmp && *tmp ? tmp : "/tmp") + "/kesdb-fuzz-" + tag + "-XXXXXX";
    if (!mkdtemp(dir.data())) fail("cannot make a temporary directory");
    setenv("KESDB_DBTABLE", (dir + "/db.tbl").c_str(), 1);
    return dir;
}

Session* startDatabase() {
    setUp();
    g_dir = tempDirWithTable("media");
    setenv("SIM_BYTE_ORDER", "BIG_ENDIAN", 1);
    unsetenv("KESDB_DEFMEDIA");

    std::string mediaConfig;
    for (uint32_t i = 0; i < kMedia; ++i)
        mediaConfig += "libkesdrv_file.so fileMedia_open fileMedia_close fileMedia_read fileMedia_write "
                       "fileMedia_seek fileMedia_sync memory-" + std::to_string(i) + "\n";
    writeText(g_dir + "/media.conf", mediaConfig);
    writeText(g_dir + "/hook.conf", kHookConfig);

    static DBMInitParam param;
    char* const fields[] = {param.sessionTablePath, param.lockTablePath, param.mediaConfigPath, param.hookConfigPath};
    const char* const files[] = {"/session.tbl", "/lock.tbl", "/media.conf", "/hook.conf"};
    for (int i = 0; i < 4; ++i)
        if (snprintf(fields[i], KESDB_PATH_MAX, "%s%s", g_dir.c_str(), files[i]) >= KESDB_PATH_MAX)
            fail("path too long");
    param.componentMedium = kFirstMedium;
    param.valueMedium = kValueMedium;
    param.constraintMedium = kFirstMedium + 2;
    param.stringMedium = kStringMedium;
    layEmptyMedia({64, 64, 64, 64});

    int32_t error = 0;
    if ((g_dbId = kesDBMInit(&param, &error)) < 0) {
        fprintf(stderr, "kesDBMInit: %d\n", error);
        fail("the database does not start");
    }
    // The harness's own operations replace those of the four driver lines.
    if (media_getCount() < static_cast<int32_t>(kFirstMedium + kMedia)) fail("the four driver lines did not load");
    for (uint32_t i = 0; i < kMedia; ++i)
        media_table[kFirstMedium + i] = {media_table[kFirstMedium + i].handle, media_table[kFirstMedium + i].name, i,
                                         memOpen, memClose, memRead, memWrite, memSeek, memSync};
    if (kesDBMInitSession(&g_session, static_cast<uint32_t>(g_dbId)) != 0) fail("no session");
    atexit(stopDatabase);
    return &g_session;
}

// ---- The seed database ----------------------------------------------------------------

namespace {

// A leaf (values holds current, default, factory, each `size` bytes) or a node (size 0), with
// a range (cdata: min, max, step) or an enumeration (cdata: the members) when `cstrt` says so.
enum class Cstrt { None, Range, Enum };
struct Item {
    const char* name;
    uint32_t type = 0, size = 0;
    Bytes values;
    Cstrt cstrt = Cstrt::None;
    Bytes cdata;
    uint32_t hook = 0;
    std::vector<Item> children;
};

template <class T>
Bytes bytesOf(std::initializer_list<T> vs) {
    Bytes b(vs.size() * sizeof(T));
    if (vs.size()) memcpy(b.data(), vs.begin(), b.size());
    return b;
}

template <class T>
Item leafOf(const char* name, uint32_t type, std::initializer_list<T> values, Cstrt c = Cstrt::None,
            std::initializer_list<T> cdata = {}, uint32_t hook = 0) {
    return {name, type, sizeof(T), bytesOf(values), c, bytesOf(cdata), hook, {}};
}

Item stringLeaf(const char* name, uint32_t size, const char* cur, const char* def) {
    Bytes b(3 * size, 0);
    for (int i = 0; i < 3; ++i) memcpy(b.data() + i * size, i ? def : cur, strlen(i ? def : cur));
    return {name, String, size, b, Cstrt::None, {}, 0, {}};
}

// A range of the item's type; its key, or 0.
template <class Rec>
uint32_t makeRange(Session* s, const Item& it, Rec* (*create)(Session*, Rec*)) {
    Rec rec{};
    rec.type = it.type;
    return create(s, &rec) && constraint_setData(s, rec.key, it.cdata.data(), it.cdata.size()) == 0 ? rec.key : 0;
}

uint32_t makeConstraint(Session* s, const Item& it) {
    if (it.cstrt == Cstrt::Enum) {
        EnumRecord rec{0, it.type * KESDB_CSTRT_ENUM_FACTOR, 0, it.size, uint32_t(it.cdata.size()) / it.size};
        rec.arrayKey = constraint_newEnumArray(s, rec.elementSize, rec.count);
        if (rec.arrayKey == 0 || rec.arrayKey == KESDB_FLST_FAILED || !enum_new(s, &rec)) return 0;
        return enum_setData(s, rec.key, rec.elementSize, rec.count, it.cdata.data()) == 0 ? rec.key : 0;
    }
    switch (it.type) {
        case Sint8: return makeRange(s, it, rangeS8_new);
        case Sint16: return makeRange(s, it, rangeS16_new);
        case Sint32: return makeRange(s, it, rangeS32_new);
        case Sint64: return makeRange(s, it, rangeS64_new);
        case Uint8: return makeRange(s, it, rangeU8_new);
        case Uint16: return makeRange(s, it, rangeU16_new);
        case Uint32: return makeRange(s, it, rangeU32_new);
        case Uint64: return makeRange(s, it, rangeU64_new);
        case Float32: return makeRange(s, it, rangeF32_new);
        default: return makeRange(s, it, rangeF64_new);
    }
}

void build(Session* s, SeedTree& tree, size_t parentIndex, const std::vector<Item>& items, int depth) {
    uint32_t previous = 0;
    for (const Item& it : items) {
        const std::string stored = depth == 1 ? it.name : std::string("/") + it.name;
        const uint32_t name = kesDBMCreateString(s, stored.c_str(), kStringMedium), parent = tree[parentIndex].key;
        uint32_t key = 0, values[3] = {}, constraint = 0;
        if (it.cstrt != Cstrt::None && (constraint = makeConstraint(s, it)) == 0) fail("seed: no constraint");
        for (int i = 0; it.size != 0 && i < 3; ++i) {
            values[i] = kesDBMCreateValue(s, it.type, 0, it.values.data() + i * it.size, it.size, kValueMedium);
            if (values[i] == 0 || (constraint != 0 && kesDBMSetConstraintKey(s, values[i], constraint) != 0))
                fail("seed: cannot create a value");
        }
        if (name != 0)
            key = it.size ? kesDBMCreateLeaf(s, name, parent, previous, values[0], values[1], values[2], it.hook)
                          : kesDBMCreateNode(s, name, parent, previous, 0);
        if (key == 0) fail("seed: cannot create a component");
        tree.push_back({key, stored, it.size != 0, {}});
        tree[parentIndex].children.push_back(tree.size() - 1);
        build(s, tree, tree.size() - 1, it.children, depth + 1);
        previous = key;
    }
}

std::vector<Item> seedItems(unsigned parts) {
    const Cstrt R = Cstrt::Range, E = Cstrt::Enum, N = Cstrt::None;
    const Item all[] = {
        {"net", 0, 0, {}, N, {}, 0, {
            stringLeaf("hostname", 32, "device-1", "kesdbm"),
            leafOf<uint16_t>("port", Uint16, {8080, 80, 80}, R, {1, 65535, 0}),
            leafOf<uint8_t>("mode", Uint8, {1, 0, 0}, E, {0, 1, 2}),
            {"dns", 0, 0, {}, N, {}, 0, {}}}},
        {"time", 0, 0, {}, N, {}, 0, {
            stringLeaf("zone", 48, "Europe/Berlin", "UTC"),
            leafOf<uint32_t>("interval", Uint32, {600, 300, 300}, N, {}, 1)}},
        {"sys", 0, 0, {}, N, {}, 0, {
            leafOf<int8_t>("s8", Sint8, {4, 0, 0}, R, {-10, 10, 2}),
            leafOf<int16_t>("s16", Sint16, {7, -1, -1}, E, {-1, 0, 7}),
            leafOf<int32_t>("s32", Sint32, {25, 0, 0}, R, {-1000, 1000, 5}, 2),
            leafOf<int64_t>("s64", Sint64, {-5, 5, 5}, E, {-5, 5, 1LL << 40}),
            leafOf<uint16_t>("u16", Uint16, {3, 3, 3}),
            leafOf<uint32_t>("u32", Uint32, {10, 1, 1}, E, {1, 10, 100}),
            leafOf<uint64_t>("u64", Uint64, {7, 0, 0}, R, {0, 1000000000000ULL, 0}),
            leafOf<float>("f32", Float32, {0.5f, 0.0f, 0.0f}, R, {-1.5f, 1.5f, 0.0f}),
            leafOf<double>("f64", Float64, {2.5, 0.5, 0.5}, E, {0.5, 2.5}),
            leafOf<uint64_t>("blob", Generic, {0x0102030405060708ULL, 0, 0}, N, {}, 3),
            leafOf<uint8_t>("u8", Uint8, {9, 9, 9}, R, {1, 9, 2})}},
        leafOf<uint8_t>("flag", Uint8, {1, 0, 0}),
    };
    std::vector<Item> items;
    for (unsigned i = 0; i < 4; ++i)
        if (parts >> i & 1) items.push_back(all[i]);
    return items;
}

}  // namespace

const char* const kPaths[] = {
    "/",          "/net",          "/net/port", "/net/hostname", "/net/dns",  "/net/dns/x", "/net/dns/", "/net/mode",
    "/time/zone", "/time/interval", "/sys/s8",  "/sys/s64",      "/sys/f64",  "/sys/blob",  "/flag",     "flag",
    "net",        "net/mode",       "net/hostname", "port",      "/port",     "/net/xy",    "/times",    "",
    "//",         "/net//port",     "/sys/u64/x", "time/zone/",  "/nope/net", "/nope",
};
const size_t kPathCount = sizeof kPaths / sizeof kPaths[0];

SeedTree buildSeedDatabase(Session* s, unsigned parts) {
    // Room for the records with some to spare for creations.
    layEmptyMedia(parts == kSeedFull ? std::array<uint32_t, kMedia>{1024, 1600, 384, 480}
                                     : std::array<uint32_t, kMedia>{640, 1024, 320, 288});
    session_setError(s, 0, 0);
    NodeRecord root{};
    if (!comp_newNode(s, &root)) fail("seed: no root record");
    root.comp.stringKey = kesDBMCreateString(s, "/", kStringMedium);
    root.comp.kind = KESDB_KIND_NODE;
    if (root.comp.stringKey == 0 || comp_setNode(s, &root) != 0 || flst_m_setRoot(s, kFirstMedium, root.comp.key))
        fail("seed: cannot write the root");
    kesDBMSetCurrentComponent(s, root.comp.key);
    SeedTree tree{{root.comp.key, "/", false, {}}};
    build(s, tree, 0, seedItems(parts), 1);
    if (openDescriptors() != 0) fail("seed: a medium was left open");
    return tree;
}

}  // namespace kf

// The loader guard: only the project's own libraries are loaded (see support.hpp).
extern "C" void* __wrap_dlopen(const char* file, int mode) {
    const char* slash = file ? strrchr(file, '/') : nullptr;
    const char* base = slash ? slash + 1 : file;
    for (const char* lib : kf::kProjectLibraries)
        if (base && strcmp(base, lib) == 0) return __real_dlopen(kf::libPath(lib).c_str(), mode);
    return nullptr;
}

// A corrupted length word may ask the library for gigabytes (a value's data buffer, an
// enumeration array). The device cannot allocate that much, and here each large block would
// cost the sanitizer's allocator a mapping and the poisoning of its shadow. Once a target is
// initialised, allocations above kAllocationCap fail the way an exhausted heap does (null,
// errno ENOMEM), so the library's out-of-memory paths run instead. The cap is the largest
// medium image an input can hold, so no data area of an input is cut by it. The targets are
// linked with --wrap=malloc and --wrap=calloc.
namespace {
constexpr size_t kAllocationCap = 0xFFFF;
bool g_capAllocations = false;
void* refuseAllocation() {
    errno = ENOMEM;
    return nullptr;
}
}  // namespace

void kf::capAllocations() { g_capAllocations = true; }

extern "C" void* __real_malloc(size_t size);
extern "C" void* __real_calloc(size_t count, size_t size);

extern "C" void* __wrap_malloc(size_t size) {
    return g_capAllocations && size > kAllocationCap ? refuseAllocation() : __real_malloc(size);
}

extern "C" void* __wrap_calloc(size_t count, size_t size) {
    return g_capAllocations && size != 0 && count > kAllocationCap / size ? refuseAllocation()
                                                                          : __real_calloc(count, size);
}

// Allocation stacks of 10 frames are enough to place a report and cost a third of the default
// 30 at every allocation; a quarantine of 16 MiB (instead of 256) still holds the blocks freed
// by many runs, and lets memory be reused while it is hot instead of faulting in fresh pages.
extern "C" const char* __asan_default_options() { return "malloc_context_size=10:quarantine_size_mb=16"; }
