// Shared harness of the fuzz targets: see support.hpp.
#include "support.hpp"

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <ftw.h>
#include <sanitizer/asan_interface.h>
#include <sanitizer/common_interface_defs.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <string>

#ifndef KESDB_FUZZ_LIB_DIR
#define KESDB_FUZZ_LIB_DIR "."
#endif

extern "C" void* __real_dlopen(const char* file, int mode);

namespace kf {

namespace {

Images g_media;
int g_open[kMedia];
int64_t g_position[kMedia];
uint64_t g_writes;

constexpr int kDescriptorBase = 10;  // descriptor of medium i: kDescriptorBase + i

[[noreturn]] void failWithStack(const char* what) {
    fprintf(stderr, "kesdb fuzz harness: %s\n", what);
    __sanitizer_print_stack_trace();
    abort();
}

// The medium of a descriptor handed to read, write, seek, sync or close; it must be open.
uint32_t mediumOf(int descriptor) {
    const int i = descriptor - kDescriptorBase;
    if (i < 0 || i >= static_cast<int>(kMedia) || g_open[i] <= 0)
        failWithStack("medium operation on a descriptor that is not open");
    return static_cast<uint32_t>(i);
}

// The library hands a buffer and a length: the whole length must be addressable. Very long
// regions are checked at both ends only (a corrupted length may ask for gigabytes).
void checkBuffer(const void* buffer, uint32_t length, const char* what) {
    if (length == 0) return;
    if (!buffer) failWithStack(what);
    void* p = const_cast<void*>(buffer);
    if (length <= (1u << 20)) {
        if (__asan_region_is_poisoned(p, length)) failWithStack(what);
    } else if (__asan_address_is_poisoned(p) || __asan_address_is_poisoned(static_cast<char*>(p) + length - 1)) {
        failWithStack(what);
    }
}

int memOpen(const char*, uint32_t arg, int32_t* errPtr) {
    if (arg >= kMedia) {
        if (errPtr) *errPtr = ENODEV;
        return -1;
    }
    ++g_open[arg];
    return kDescriptorBase + static_cast<int>(arg);
}

int memClose(int descriptor, int32_t*) {
    --g_open[mediumOf(descriptor)];
    return 0;
}

int memRead(int descriptor, void* buffer, uint32_t length, uint32_t offset, int32_t*) {
    const Bytes& m = g_media.m[mediumOf(descriptor)];
    checkBuffer(buffer, length, "read into a buffer shorter than the length handed to the driver");
    if (offset >= m.size()) return 0;
    const size_t n = std::min<size_t>(length, m.size() - offset);
    std::memcpy(buffer, m.data() + offset, n);
    return static_cast<int>(n);
}

int memWrite(int descriptor, const void* buffer, uint32_t length, uint32_t offset, int32_t* errPtr) {
    Bytes& m = g_media.m[mediumOf(descriptor)];
    if (length == 0) return 0;
    if (offset > kMediumCap || length > kMediumCap - offset) {
        if (errPtr) *errPtr = ENOSPC;
        return -1;
    }
    checkBuffer(buffer, length, "write from a buffer shorter than the length handed to the driver");
    if (m.size() < offset + length) m.resize(offset + length);
    std::memcpy(m.data() + offset, buffer, length);
    ++g_writes;
    return static_cast<int>(length);
}

int memSeek(int descriptor, uint32_t offset, int whence, int32_t* errPtr) {
    const uint32_t i = mediumOf(descriptor);
    int64_t base = 0;
    switch (whence) {
        case SEEK_SET: base = 0; break;
        case SEEK_CUR: base = g_position[i]; break;
        case SEEK_END: base = static_cast<int64_t>(g_media.m[i].size()); break;
        default:
            if (errPtr) *errPtr = EINVAL;
            return -1;
    }
    const int64_t position = base + static_cast<int64_t>(offset);
    if (position > INT_MAX) {
        if (errPtr) *errPtr = EOVERFLOW;
        return -1;
    }
    g_position[i] = position;
    return static_cast<int>(position);
}

int memSync(int descriptor, int32_t*, uint32_t) {
    mediumOf(descriptor);
    return 0;
}

void installMemoryMedia() {
    if (media_getCount() < static_cast<int32_t>(kFirstMedium + kMedia)) fail("the four driver lines did not load");
    for (uint32_t i = 0; i < kMedia; ++i) {
        MediaEntry& e = media_table[kFirstMedium + i];
        e.arg = i;
        e.open = memOpen;
        e.close = memClose;
        e.read = memRead;
        e.write = memWrite;
        e.seek = memSeek;
        e.sync = memSync;
    }
}

const char* const kProjectLibraries[] = {"libkesdrv_file.so", "libkesdrv_fault.so", "libkeshook_sample.so"};

std::string g_dir;
Session g_session;
int32_t g_dbId = -1;

int removeEntry(const char* path, const struct stat*, int, struct FTW*) {
    ::remove(path);
    return 0;
}

void stopDatabase() {
    if (g_dbId < 0) return;
    kesDBMTermSession(&g_session);
    kesDBMTerm(static_cast<uint32_t>(g_dbId));
    g_dbId = -1;
    if (!g_dir.empty()) nftw(g_dir.c_str(), removeEntry, 8, FTW_DEPTH | FTW_PHYS);
}

void writeText(const std::string& path, const std::string& text) {
    FILE* f = fopen(path.c_str(), "w");
    if (!f || fwrite(text.data(), 1, text.size(), f) != text.size() || fclose(f) != 0) fail("cannot write a file");
}

void putPath(char* field, const std::string& path) {
    if (path.size() >= KESDB_PATH_MAX) fail("path too long");
    memcpy(field, path.c_str(), path.size() + 1);
}

// An empty medium of `size` bytes: the header (root 0, first free element at 16) and one free
// element covering everything behind it, in host order.
Bytes emptyMedium(uint32_t size) {
    Bytes b(size, 0);
    const uint32_t header[4] = {0, 0, 0, 16};
    const uint32_t element[2] = {0, size - 16};
    memcpy(b.data(), header, sizeof header);
    memcpy(b.data() + 16, element, sizeof element);
    return b;
}

}  // namespace

Images& media() { return g_media; }

int openDescriptors() {
    int n = 0;
    for (int c : g_open) n += c;
    return n;
}

uint64_t writes() { return g_writes; }
void clearWrites() { g_writes = 0; }

void fail(const char* what) { failWithStack(what); }

void parseInput(const uint8_t* data, size_t size, Images& images, const uint8_t** rest, size_t* restSize) {
    size_t pos = 0;
    for (Bytes& m : images.m) {
        size_t length = 0;
        if (pos + 2 <= size) {
            length = static_cast<size_t>(data[pos]) | static_cast<size_t>(data[pos + 1]) << 8;
            pos += 2;
        } else {
            pos = size;
        }
        length = std::min(length, size - pos);
        m.assign(data + pos, data + pos + length);
        pos += length;
    }
    *rest = data + pos;
    *restSize = size - pos;
}

Bytes serialize(const Images& images, const Bytes& rest) {
    Bytes out;
    for (const Bytes& m : images.m) {
        if (m.size() > 0xFFFF) fail("a seed medium is longer than 65535 bytes");
        out.push_back(static_cast<uint8_t>(m.size() & 0xFF));
        out.push_back(static_cast<uint8_t>(m.size() >> 8));
        out.insert(out.end(), m.begin(), m.end());
    }
    out.insert(out.end(), rest.begin(), rest.end());
    return out;
}

void silenceStdout() {
    if (getenv("KESDB_FUZZ_VERBOSE")) return;
    fflush(stdout);
    const int fd = ::open("/dev/null", O_WRONLY);
    if (fd < 0) return;
    dup2(fd, STDOUT_FILENO);
    ::close(fd);
}

std::string libPath(const std::string& fileName) {
    const char* dir = getenv("KESDB_FUZZ_LIB_DIR");
    return std::string(dir && *dir ? dir : KESDB_FUZZ_LIB_DIR) + "/" + fileName;
}

void preloadProjectLibraries() {
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

Session* startDatabase() {
    if (g_dbId >= 0) return &g_session;
    const char* tmp = getenv("TMPDIR");
    std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/kesdb-fuzz-XXXXXX";
    if (!mkdtemp(pattern.data())) fail("cannot make a temporary directory");
    g_dir = pattern;
    setenv("KESDB_DBTABLE", (g_dir + "/db.tbl").c_str(), 1);
    setenv("SIM_BYTE_ORDER", "BIG_ENDIAN", 1);
    unsetenv("KESDB_DEFMEDIA");

    std::string mediaConfig;
    for (uint32_t i = 0; i < kMedia; ++i)
        mediaConfig +=
            "libkesdrv_file.so fileMedia_open fileMedia_close fileMedia_read fileMedia_write fileMedia_seek "
            "fileMedia_sync memory-" +
            std::to_string(i) + "\n";
    writeText(g_dir + "/media.conf", mediaConfig);
    writeText(g_dir + "/hook.conf", kHookConfig);

    static DBMInitParam param;
    putPath(param.sessionTablePath, g_dir + "/session.tbl");
    putPath(param.lockTablePath, g_dir + "/lock.tbl");
    putPath(param.mediaConfigPath, g_dir + "/media.conf");
    putPath(param.hookConfigPath, g_dir + "/hook.conf");
    param.componentMedium = kComponentMedium;
    param.valueMedium = kValueMedium;
    param.constraintMedium = kConstraintMedium;
    param.stringMedium = kStringMedium;

    g_media.m[0] = emptyMedium(64);
    g_media.m[1] = emptyMedium(64);
    g_media.m[2] = emptyMedium(64);
    g_media.m[3] = emptyMedium(64);

    int32_t error = 0;
    g_dbId = kesDBMInit(&param, &error);
    if (g_dbId < 0) {
        fprintf(stderr, "kesDBMInit: %d\n", error);
        fail("the database does not start");
    }
    installMemoryMedia();
    if (kesDBMInitSession(&g_session, static_cast<uint32_t>(g_dbId)) != 0) fail("no session");
    atexit(stopDatabase);
    return &g_session;
}

// ---- The seed database ----------------------------------------------------------------

namespace {

template <class T>
Bytes bytesOf(T v) {
    Bytes b(sizeof v);
    memcpy(b.data(), &v, sizeof v);
    return b;
}

template <class T>
Bytes bytesOf(std::initializer_list<T> vs) {
    Bytes b;
    for (T v : vs) {
        Bytes one = bytesOf(v);
        b.insert(b.end(), one.begin(), one.end());
    }
    return b;
}

Bytes text(const char* t, size_t size) {
    Bytes b(size, 0);
    memcpy(b.data(), t, std::min(size - 1, strlen(t)));
    return b;
}

enum class Cstrt { None, Range, Enum };

struct Item {
    const char* name = "";
    bool leaf = false;
    uint32_t type = 0;
    uint32_t size = 0;
    Bytes current, defaults, factory;
    Cstrt cstrt = Cstrt::None;
    Bytes cdata;  // range: min, max, step; enumeration: the members
    uint32_t hook = 0;
    std::vector<Item> children;
};

uint32_t widthOf(uint32_t type) {
    switch (type) {
        case Sint8: case Uint8: return 1;
        case Sint16: case Uint16: return 2;
        case Sint32: case Uint32: case Float32: return 4;
        default: return 8;
    }
}

template <class T>
Item leafOf(const char* name, uint32_t type, T cur, T def, T fac, Cstrt c = Cstrt::None, Bytes cdata = {},
            uint32_t hook = 0) {
    Item it;
    it.name = name;
    it.leaf = true;
    it.type = type;
    it.size = sizeof(T);
    it.current = bytesOf(cur);
    it.defaults = bytesOf(def);
    it.factory = bytesOf(fac);
    it.cstrt = c;
    it.cdata = std::move(cdata);
    it.hook = hook;
    return it;
}

Item stringLeaf(const char* name, uint32_t size, const char* cur, const char* def, uint32_t hook = 0) {
    Item it;
    it.name = name;
    it.leaf = true;
    it.type = String;
    it.size = size;
    it.current = text(cur, size);
    it.defaults = text(def, size);
    it.factory = text(def, size);
    it.hook = hook;
    return it;
}

Item nodeOf(const char* name, std::vector<Item> children) {
    Item it;
    it.name = name;
    it.leaf = false;
    it.children = std::move(children);
    return it;
}

template <class Rec>
uint32_t makeRange(Session* s, uint32_t type, const Bytes& data, Rec* (*create)(Session*, Rec*)) {
    Rec rec{};
    rec.type = type;
    const size_t w = sizeof rec.min;
    memcpy(&rec.min, data.data(), w);
    memcpy(&rec.max, data.data() + w, w);
    memcpy(&rec.step, data.data() + 2 * w, w);
    return create(s, &rec) ? rec.key : 0;
}

uint32_t makeConstraint(Session* s, const Item& it) {
    if (it.cstrt == Cstrt::Enum) {
        EnumRecord rec{};
        rec.type = it.type * KESDB_CSTRT_ENUM_FACTOR;
        rec.elementSize = widthOf(it.type);
        rec.count = static_cast<uint32_t>(it.cdata.size()) / rec.elementSize;
        rec.arrayKey = constraint_newEnumArray(s, rec.elementSize, rec.count);
        if (rec.arrayKey == 0 || rec.arrayKey == KESDB_FLST_FAILED || !enum_new(s, &rec)) return 0;
        if (enum_setData(s, rec.key, rec.elementSize, rec.count, it.cdata.data()) != 0) return 0;
        return rec.key;
    }
    switch (it.type) {
        case Sint8: return makeRange<RangeRecordS8>(s, it.type, it.cdata, rangeS8_new);
        case Sint16: return makeRange<RangeRecordS16>(s, it.type, it.cdata, rangeS16_new);
        case Sint32: return makeRange<RangeRecordS32>(s, it.type, it.cdata, rangeS32_new);
        case Sint64: return makeRange<RangeRecordS64>(s, it.type, it.cdata, rangeS64_new);
        case Uint8: return makeRange<RangeRecordU8>(s, it.type, it.cdata, rangeU8_new);
        case Uint16: return makeRange<RangeRecordU16>(s, it.type, it.cdata, rangeU16_new);
        case Uint32: return makeRange<RangeRecordU32>(s, it.type, it.cdata, rangeU32_new);
        case Uint64: return makeRange<RangeRecordU64>(s, it.type, it.cdata, rangeU64_new);
        case Float32: return makeRange<RangeRecordF32>(s, it.type, it.cdata, rangeF32_new);
        default: return makeRange<RangeRecordF64>(s, it.type, it.cdata, rangeF64_new);
    }
}

void build(Session* s, SeedTree& tree, size_t parentIndex, const std::vector<Item>& items, int depth) {
    uint32_t previous = 0;
    for (const Item& it : items) {
        const std::string stored = depth == 1 ? it.name : std::string("/") + it.name;
        const uint32_t name = kesDBMCreateString(s, stored.c_str(), kStringMedium);
        if (name == 0) fail("seed: cannot store a name");
        const uint32_t parent = tree.components[parentIndex].key;
        uint32_t key = 0;
        if (it.leaf) {
            uint32_t constraint = 0;
            if (it.cstrt != Cstrt::None && (constraint = makeConstraint(s, it)) == 0)
                fail("seed: cannot create a constraint");
            uint32_t values[3];
            const Bytes* data[3] = {&it.current, &it.defaults, &it.factory};
            for (int i = 0; i < 3; ++i) {
                values[i] = kesDBMCreateValue(s, it.type, 0, data[i]->data(), static_cast<int32_t>(it.size),
                                              kValueMedium);
                if (values[i] == 0) fail("seed: cannot create a value");
                if (constraint != 0 && kesDBMSetConstraintKey(s, values[i], constraint) != 0)
                    fail("seed: cannot attach a constraint");
            }
            key = kesDBMCreateLeaf(s, name, parent, previous, values[0], values[1], values[2], it.hook);
        } else {
            key = kesDBMCreateNode(s, name, parent, previous, 0);
        }
        if (key == 0) fail("seed: cannot create a component");
        tree.components.push_back({key, stored, it.leaf, {}});
        const size_t index = tree.components.size() - 1;
        tree.components[parentIndex].children.push_back(index);
        if (!it.leaf) build(s, tree, index, it.children, depth + 1);
        previous = key;
    }
}

std::vector<Item> seedItems(Seed which) {
    const Cstrt R = Cstrt::Range, E = Cstrt::Enum;
    std::vector<Item> net = {
        stringLeaf("hostname", 32, "device-1", "kesdbm"),
        leafOf<uint16_t>("port", Uint16, 8080, 80, 80, R, bytesOf<uint16_t>({1, 65535, 0})),
        leafOf<uint8_t>("mode", Uint8, 1, 0, 0, E, bytesOf<uint8_t>({0, 1, 2})),
        nodeOf("dns", {}),
    };
    if (which == Seed::Small) return {nodeOf("net", net), leafOf<uint8_t>("flag", Uint8, 1, 0, 0)};
    std::vector<Item> time = {
        stringLeaf("zone", 48, "Europe/Berlin", "UTC"),
        leafOf<uint32_t>("interval", Uint32, 600, 300, 300, Cstrt::None, {}, 1),
    };
    std::vector<Item> sys = {
        leafOf<int8_t>("s8", Sint8, 4, 0, 0, R, bytesOf<int8_t>({-10, 10, 2})),
        leafOf<int16_t>("s16", Sint16, 7, -1, -1, E, bytesOf<int16_t>({-1, 0, 7})),
        leafOf<int32_t>("s32", Sint32, 25, 0, 0, R, bytesOf<int32_t>({-1000, 1000, 5}), 2),
        leafOf<int64_t>("s64", Sint64, -5, 5, 5, E, bytesOf<int64_t>({-5, 5, 1LL << 40})),
        leafOf<uint16_t>("u16", Uint16, 3, 3, 3),
        leafOf<uint32_t>("u32", Uint32, 10, 1, 1, E, bytesOf<uint32_t>({1, 10, 100})),
        leafOf<uint64_t>("u64", Uint64, 7, 0, 0, R, bytesOf<uint64_t>({0, 1000000000000ULL, 0})),
        leafOf<float>("f32", Float32, 0.5f, 0.0f, 0.0f, R, bytesOf<float>({-1.5f, 1.5f, 0.0f})),
        leafOf<double>("f64", Float64, 2.5, 0.5, 0.5, E, bytesOf<double>({0.5, 2.5})),
        leafOf<uint64_t>("blob", Generic, 0x0102030405060708ULL, 0, 0, Cstrt::None, {}, 3),
        leafOf<uint8_t>("u8", Uint8, 9, 9, 9, R, bytesOf<uint8_t>({1, 9, 2})),
    };
    if (which == Seed::Types) return {nodeOf("sys", sys)};
    return {nodeOf("net", net), nodeOf("time", time), nodeOf("sys", sys), leafOf<uint8_t>("flag", Uint8, 1, 0, 0)};
}

}  // namespace

SeedTree buildSeedDatabase(Session* s, Seed which) {
    // Room for the records with some to spare for creations; data areas and texts are
    // appended behind.
    static const uint32_t sizes[3][kMedia] = {{1024, 1600, 384, 480}, {384, 448, 128, 192}, {640, 1024, 320, 288}};
    const uint32_t* size = sizes[static_cast<int>(which)];
    for (uint32_t i = 0; i < kMedia; ++i) g_media.m[i] = emptyMedium(size[i]);
    s->error = 0;
    s->errorDetail = 0;

    NodeRecord root{};
    if (!comp_newNode(s, &root)) fail("seed: no root record");
    root.comp.stringKey = kesDBMCreateString(s, "/", kStringMedium);
    root.comp.kind = KESDB_KIND_NODE;
    if (root.comp.stringKey == 0 || comp_setNode(s, &root) != 0) fail("seed: cannot write the root");
    if (flst_m_setRoot(s, kComponentMedium, root.comp.key) != 0) fail("seed: cannot record the root");
    kesDBMSetCurrentComponent(s, root.comp.key);

    SeedTree tree;
    tree.components.push_back({root.comp.key, "/", false, {}});
    build(s, tree, 0, seedItems(which), 1);
    if (openDescriptors() != 0) fail("seed: a medium was left open");
    return tree;
}

}  // namespace kf

// The loader guard: only the project's own libraries are loaded (see support.hpp).
extern "C" void* __wrap_dlopen(const char* file, int mode) {
    if (!file) return nullptr;
    const char* slash = strrchr(file, '/');
    const char* base = slash ? slash + 1 : file;
    for (const char* lib : kf::kProjectLibraries)
        if (strcmp(base, lib) == 0) return __real_dlopen(kf::libPath(lib).c_str(), mode);
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
}  // namespace

void kf::capAllocations() { g_capAllocations = true; }

extern "C" void* __real_malloc(size_t size);
extern "C" void* __real_calloc(size_t count, size_t size);

extern "C" void* __wrap_malloc(size_t size) {
    if (g_capAllocations && size > kAllocationCap) {
        errno = ENOMEM;
        return nullptr;
    }
    return __real_malloc(size);
}

extern "C" void* __wrap_calloc(size_t count, size_t size) {
    if (g_capAllocations && size != 0 && count > kAllocationCap / size) {
        errno = ENOMEM;
        return nullptr;
    }
    return __real_calloc(count, size);
}

// Allocation stacks of 10 frames are enough to place a report and cost a third of the default
// 30 at every allocation; a quarantine of 16 MiB (instead of 256) still holds the blocks freed
// by many runs, and lets memory be reused while it is hot instead of faulting in fresh pages.
extern "C" const char* __asan_default_options() { return "malloc_context_size=10:quarantine_size_mb=16"; }
