// Every call and operation of the interface is exported from the shared library under its
// own name, and nothing else of the library's internals is. The dynamic symbol table of the
// built library is read from its ELF file (32- or 64-bit, either byte order, so the test runs
// on the target as well) and every defined, visible symbol must be one of the interface's.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <link.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "testkit.hpp"

namespace {

const std::vector<std::string> kPublicCalls = {
    "kesDBMCopy", "kesDBMCreateLeaf", "kesDBMCreateNode", "kesDBMCreateString", "kesDBMCreateValue",
    "kesDBMCurrentToDefault", "kesDBMDefaultToCurrent", "kesDBMDeleteComponentWithSub",
    "kesDBMDeleteComponent", "kesDBMDeleteString", "kesDBMDeleteValue", "kesDBMFactoryToDefault",
    "kesDBMGetChildByIndex", "kesDBMGetChildCount", "kesDBMGetConstraintData",
    "kesDBMGetConstraintKey", "kesDBMGetConstraintLength", "kesDBMGetConstraintType",
    "kesDBMGetCreateListGeneric", "kesDBMGetCurrentValueKey", "kesDBMGetDefaultGeneric",
    "kesDBMGetDefaultValueKey", "kesDBMGetFactoryGeneric", "kesDBMGetFactoryValueKey",
    "kesDBMGetFirstChild", "kesDBMGetFloat32", "kesDBMGetFloat64", "kesDBMGetGeneric",
    "kesDBMGetLength", "kesDBMGetNextChild", "kesDBMGetParent", "kesDBMGetRoot", "kesDBMGetSint16",
    "kesDBMGetSint32", "kesDBMGetSint64", "kesDBMGetSint8", "kesDBMGetStringKey", "kesDBMGetString",
    "kesDBMGetType", "kesDBMGetUint16", "kesDBMGetUint32", "kesDBMGetUint64", "kesDBMGetUint8",
    "kesDBMInitSession", "kesDBMInit", "kesDBMLock", "kesDBMMoveLeaf", "kesDBMMoveNode",
    "kesDBMMoveSubTree", "kesDBMSearchByName", "kesDBMSetConstraintData", "kesDBMSetConstraintKey",
    "kesDBMSetCurrentComponent", "kesDBMSetCurrentValueKey", "kesDBMSetDefaultGeneric",
    "kesDBMSetDefaultValueKey", "kesDBMSetFactoryValueKey", "kesDBMSetFloat32", "kesDBMSetFloat64",
    "kesDBMSetGeneric", "kesDBMSetSint16", "kesDBMSetSint32", "kesDBMSetSint64", "kesDBMSetSint8",
    "kesDBMSetStringKey", "kesDBMSetString", "kesDBMSetUint16", "kesDBMSetUint32",
    "kesDBMSetUint64", "kesDBMSetUint8", "kesDBMSync", "kesDBMTermSession", "kesDBMTerm",
    "kesDBMUnlock", "kesDBMtraverseAndPrint",
};

const std::vector<std::string> kOperations = {
    "IsCompMedia", "boadj_judge", "boadj_type", "boadj_word", "boadj_wordx2", "checkEnumF32",
    "checkEnumF64", "checkEnumS16", "checkEnumS32", "checkEnumS64", "checkEnumS8", "checkEnumU16",
    "checkEnumU32", "checkEnumU64", "checkEnumU8", "checkRangeF32", "checkRangeF64",
    "checkRangeS16", "checkRangeS32", "checkRangeS64", "checkRangeS8", "checkRangeU16",
    "checkRangeU32", "checkRangeU64", "checkRangeU8", "compFileRead", "comp_currentToDefault",
    "comp_defaultToCurrent", "comp_delete", "comp_deleteWithSub", "comp_factoryToDefault",
    "comp_getChildByIndex", "comp_getChildCount", "comp_getComponent", "comp_getFirstChild",
    "comp_getLeaf", "comp_getNextSibling", "comp_getNode", "comp_getParent", "comp_getRoot",
    "comp_getStringKey", "comp_init", "comp_lock", "comp_newLeaf", "comp_newNode",
    "comp_searchByName", "comp_setComponent", "comp_setDeleted", "comp_setFirstChild",
    "comp_setLeaf", "comp_setNextSibling", "comp_setNode", "comp_setParent", "comp_setStringKey",
    "comp_term", "comp_traverseAndPrint", "comp_unlock", "constraint_check", "constraint_get",
    "constraint_getData", "constraint_getEnumArray", "constraint_getLength", "constraint_getType",
    "constraint_init", "constraint_new", "constraint_newEnumArray", "constraint_set",
    "constraint_setData", "constraint_setEnumArray", "constraint_term", "db_getDb", "db_init",
    "db_show", "db_term", "defMedia_close", "defMedia_open", "defMedia_read", "defMedia_seek",
    "defMedia_sync", "defMedia_write", "dummydummy1", "dummydummy2", "enum_get", "enum_new",
    "enum_set", "enum_setData", "fillHookEntry", "fillMediaEntry", "flst_fillFlagmented",
    "flst_get", "flst_getAnchorOffset", "flst_getElement", "flst_getFirstOffset",
    "flst_m_fillFlagmented", "flst_m_get", "flst_m_getAnchorOffset", "flst_m_getElement",
    "flst_m_getFirstOffset", "flst_m_getRoot", "flst_m_release", "flst_m_setElement",
    "flst_m_setFirstOffset", "flst_m_setNext", "flst_m_setRoot", "flst_release", "flst_setElement",
    "flst_setFirstOffset", "flst_setNext", "getHook", "getMedia", "hook_getCount", "hook_init",
    "hook_table", "hook_term", "kesdb_getStrEntry", "kesdb_getString", "leaf_create",
    "leaf_getCurrentValueKey", "leaf_getDefaultValueKey", "leaf_getFactoryValueKey", "leaf_move",
    "leaf_setCurrentValueKey", "leaf_setDefaultValueKey", "leaf_setFactoryValueKey",
    "lock_compLock", "lock_compLockW", "lock_compUnlock", "lock_compUnlockAll", "lock_init",
    "lock_show", "lock_term", "lock_valueLock", "lock_valueLockW", "lock_valueUnlock",
    "lock_valueUnlockAll", "media_getCount", "media_init", "media_sync", "media_table",
    "media_term", "misc_freeSems", "misc_getSems", "misc_pathCompare", "misc_postCount",
    "misc_postEvent", "misc_postMtx", "misc_resetEvent", "misc_waitCount", "misc_waitEvent",
    "misc_waitMtx", "node_create", "node_move", "node_moveWithSub", "rangeF32_get",
    "rangeF32_getData", "rangeF32_new", "rangeF32_set", "rangeF32_setData", "rangeF64_get",
    "rangeF64_getData", "rangeF64_new", "rangeF64_set", "rangeF64_setData", "rangeS16_get",
    "rangeS16_getData", "rangeS16_new", "rangeS16_set", "rangeS16_setData", "rangeS32_get",
    "rangeS32_getData", "rangeS32_new", "rangeS32_set", "rangeS32_setData", "rangeS64_get",
    "rangeS64_getData", "rangeS64_new", "rangeS64_set", "rangeS64_setData", "rangeS8_get",
    "rangeS8_getData", "rangeS8_new", "rangeS8_set", "rangeS8_setData", "rangeU16_get",
    "rangeU16_getData", "rangeU16_new", "rangeU16_set", "rangeU16_setData", "rangeU32_get",
    "rangeU32_getData", "rangeU32_new", "rangeU32_set", "rangeU32_setData", "rangeU64_get",
    "rangeU64_getData", "rangeU64_new", "rangeU64_set", "rangeU64_setData", "rangeU8_get",
    "rangeU8_getData", "rangeU8_new", "rangeU8_set", "rangeU8_setData", "session_init",
    "session_initSession", "session_setError", "session_show", "session_term",
    "session_termSession", "str_create", "str_delete", "str_newEntry", "str_setDeleted",
    "str_setEntry", "value_copy", "value_copy2", "value_create", "value_delete", "value_get",
    "value_getConstraintKey", "value_getCreateListGeneric", "value_getGeneric", "value_getLength",
    "value_getType", "value_init", "value_new", "value_print", "value_set",
    "value_setConstraintKey", "value_setDeleted", "value_setGeneric", "value_term",
};

// Helpers of the library's own header that are exported besides the interface's names.
const std::vector<std::string> kHelpers = {"kesdb_errorName", "kesdb_layMedium"};

// The wrapper library's calls (osw/include/kesosw.h).
const std::vector<std::string> kWrapperCalls = {
    "kesOSWCreateMutexSem", "kesOSWCreateCountSem", "kesOSWCreateEventSem", "kesOSWRequestMutexSem",
    "kesOSWReleaseMutexSem", "kesOSWWaitCountSem", "kesOSWPostCountSem", "kesOSWWaitEventSem",
    "kesOSWPostEventSem", "kesOSWSubAllocMem", "kesOSWOrgFreeMemPart", "kesOSWSetCreateKey",
};

// Symbols a linker may add to every shared object's dynamic table; tolerated, nothing else.
const std::set<std::string> kLinkerSymbols = {"_init", "_fini", "_edata", "_end", "__bss_start"};

// ---- Reading the dynamic symbol table of an ELF file -------------------------------------

struct DynSymbol {
    std::string name;
    unsigned binding;     // STB_*
    unsigned type;        // STT_*
    unsigned visibility;  // STV_*
    uint16_t section;     // 0: undefined
    uint64_t value;
};

// Reads fixed-width fields of an ELF image in its own byte order, bounds-checked.
class ElfReader {
public:
    ElfReader(const std::vector<uint8_t>& bytes, bool bigEndian) : bytes_(bytes), big_(bigEndian) {}
    bool fits(uint64_t offset, uint64_t size) const {
        return offset <= bytes_.size() && size <= bytes_.size() - offset;
    }
    uint64_t get(uint64_t offset, unsigned width) const {
        uint64_t v = 0;
        for (unsigned i = 0; i < width; ++i) {
            uint64_t b = bytes_[offset + i];
            v |= big_ ? b << (8 * (width - 1 - i)) : b << (8 * i);
        }
        return v;
    }

private:
    const std::vector<uint8_t>& bytes_;
    bool big_;
};

// The symbols of the SHT_DYNSYM section (index 0, the null symbol, left out); nullopt when the
// image is not a well-formed ELF file with such a section.
std::optional<std::vector<DynSymbol>> readDynamicSymbols(const std::vector<uint8_t>& bytes) {
    constexpr uint32_t kShtDynsym = 11;
    if (bytes.size() < 52 || std::memcmp(bytes.data(), "\x7f" "ELF", 4) != 0) return std::nullopt;
    const bool is64 = bytes[4] == 2;
    if ((bytes[4] != 1 && bytes[4] != 2) || (bytes[5] != 1 && bytes[5] != 2)) return std::nullopt;
    ElfReader r(bytes, bytes[5] == 2);
    const unsigned word = is64 ? 8 : 4;  // address and offset width
    if (!r.fits(0, is64 ? 64 : 52)) return std::nullopt;
    const uint64_t shoff = r.get(is64 ? 40 : 32, word);
    const uint64_t shentsize = r.get(is64 ? 58 : 46, 2);
    const uint64_t shnum = r.get(is64 ? 60 : 48, 2);
    if (shentsize < (is64 ? 64u : 40u) || !r.fits(shoff, shentsize * shnum)) return std::nullopt;
    // Section header fields: type at 4; offset, size, link and entry size by class.
    auto section = [&](uint64_t i, unsigned field) -> uint64_t {
        const uint64_t h = shoff + i * shentsize;
        switch (field) {
            case 0: return r.get(h + 4, 4);                          // sh_type
            case 1: return r.get(h + (is64 ? 24 : 16), word);        // sh_offset
            case 2: return r.get(h + (is64 ? 32 : 20), word);        // sh_size
            case 3: return r.get(h + (is64 ? 40 : 24), 4);           // sh_link
            default: return r.get(h + (is64 ? 56 : 36), word);       // sh_entsize
        }
    };
    for (uint64_t i = 0; i < shnum; ++i) {
        if (section(i, 0) != kShtDynsym) continue;
        const uint64_t symOff = section(i, 1), symSize = section(i, 2), entSize = section(i, 4);
        const uint64_t strIndex = section(i, 3);
        if (entSize < (is64 ? 24u : 16u) || strIndex >= shnum || !r.fits(symOff, symSize)) return std::nullopt;
        const uint64_t strOff = section(strIndex, 1), strSize = section(strIndex, 2);
        if (!r.fits(strOff, strSize)) return std::nullopt;
        std::vector<DynSymbol> symbols;
        for (uint64_t e = 1; e < symSize / entSize; ++e) {
            const uint64_t s = symOff + e * entSize;
            // Elf32_Sym: name, value, size, info, other, shndx. Elf64_Sym: name, info, other,
            // shndx, value, size.
            const uint64_t nameOff = r.get(s, 4);
            const unsigned info = static_cast<unsigned>(r.get(s + (is64 ? 4 : 12), 1));
            const unsigned other = static_cast<unsigned>(r.get(s + (is64 ? 5 : 13), 1));
            const uint16_t shndx = static_cast<uint16_t>(r.get(s + (is64 ? 6 : 14), 2));
            const uint64_t value = r.get(s + (is64 ? 8 : 4), word);
            if (nameOff >= strSize) return std::nullopt;
            const char* begin = reinterpret_cast<const char*>(bytes.data() + strOff + nameOff);
            const size_t length = strnlen(begin, static_cast<size_t>(strSize - nameOff));
            if (length == strSize - nameOff) return std::nullopt;  // unterminated name
            symbols.push_back({std::string(begin, length), info >> 4, info & 0xfu, other & 3u, shndx, value});
        }
        return symbols;
    }
    return std::nullopt;
}

std::vector<uint8_t> readAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Names a shared object makes visible to others: defined, global, weak or unique binding,
// default or protected visibility. Version-definition symbols (absolute, value 0) are left out.
std::set<std::string> exportedNames(const std::vector<DynSymbol>& symbols) {
    constexpr uint16_t kShnAbs = 0xfff1;
    std::set<std::string> names;
    for (const DynSymbol& s : symbols) {
        const bool visibleBinding = s.binding == 1 || s.binding == 2 || s.binding == 10;
        const bool visible = s.visibility == 0 || s.visibility == 3;
        if (s.section == 0 || !visibleBinding || !visible) continue;
        if (s.section == kShnAbs && s.value == 0 && s.type == 1) continue;
        names.insert(s.name);
    }
    return names;
}

// AddressSanitizer gives every exported variable an ODR indicator "__odr_asan.<name>"; in a
// sanitizer build those of expected variables are the instrumentation's, not the library's.
bool sanitizerCompanion(const std::string& name, const std::set<std::string>& expected) {
#if defined(__SANITIZE_ADDRESS__)
    const std::string prefix = "__odr_asan.";
    return name.compare(0, prefix.size(), prefix) == 0 && expected.count(name.substr(prefix.size())) != 0;
#else
    (void)name;
    (void)expected;
    return false;
#endif
}

// Exported names of a built library not in `expected` (linker symbols tolerated), and names of
// `expected` it does not export.
void compareExports(const std::string& file, const std::vector<std::vector<std::string>>& expectedLists) {
    std::set<std::string> expected;
    for (const auto& list : expectedLists) expected.insert(list.begin(), list.end());
    const std::vector<uint8_t> bytes = readAll(kt::libPath(file));
    ASSERT_FALSE(bytes.empty()) << kt::libPath(file);
    const auto symbols = readDynamicSymbols(bytes);
    ASSERT_TRUE(symbols.has_value()) << file << ": no dynamic symbol table";
    const std::set<std::string> exported = exportedNames(*symbols);
    for (const std::string& name : exported)
        EXPECT_TRUE(expected.count(name) || kLinkerSymbols.count(name) || sanitizerCompanion(name, expected))
            << file << " exports " << name;
    for (const std::string& name : expected) EXPECT_TRUE(exported.count(name)) << file << " lacks " << name;
}

// ---- A synthetic ELF image: checks the reader in every class and byte order ---------------

struct SyntheticSymbol {
    std::string name;
    unsigned binding, type, visibility;
    uint16_t section;
};

// Writes an ELF file of the given class and byte order with a null section, .dynsym, .dynstr.
std::vector<uint8_t> syntheticElf(bool is64, bool bigEndian, const std::vector<SyntheticSymbol>& symbols) {
    std::vector<uint8_t> out;
    auto put = [&](uint64_t offset, uint64_t v, unsigned width) {
        if (out.size() < offset + width) out.resize(offset + width);
        for (unsigned i = 0; i < width; ++i)
            out[offset + i] = static_cast<uint8_t>(v >> (8 * (bigEndian ? width - 1 - i : i)));
    };
    const unsigned word = is64 ? 8 : 4, ehsize = is64 ? 64 : 52, shentsize = is64 ? 64 : 40;
    const unsigned symentsize = is64 ? 24 : 16;
    std::string strtab(1, '\0');
    std::vector<uint64_t> nameOffsets;
    for (const auto& s : symbols) {
        nameOffsets.push_back(strtab.size());
        strtab += s.name + '\0';
    }
    const uint64_t symOff = ehsize, symSize = symentsize * (symbols.size() + 1);
    const uint64_t strOff = symOff + symSize, shoff = (strOff + strtab.size() + 7) & ~7ull;
    out.assign(shoff + 3 * shentsize, 0);
    std::memcpy(out.data(), "\x7f" "ELF", 4);
    out[4] = is64 ? 2 : 1;
    out[5] = bigEndian ? 2 : 1;
    out[6] = 1;
    put(16, 3, 2);  // ET_DYN
    put(is64 ? 40 : 32, shoff, word);
    put(is64 ? 52 : 40, ehsize, 2);
    put(is64 ? 58 : 46, shentsize, 2);
    put(is64 ? 60 : 48, 3, 2);
    for (size_t i = 0; i < symbols.size(); ++i) {
        const uint64_t s = symOff + (i + 1) * symentsize;
        const auto& sym = symbols[i];
        put(s, nameOffsets[i], 4);
        put(s + (is64 ? 4 : 12), (sym.binding << 4) | sym.type, 1);
        put(s + (is64 ? 5 : 13), sym.visibility, 1);
        put(s + (is64 ? 6 : 14), sym.section, 2);
        put(s + (is64 ? 8 : 4), sym.section == 0xfff1 ? 0 : 0x1000 + i * 16, word);
    }
    std::memcpy(out.data() + strOff, strtab.data(), strtab.size());
    auto header = [&](unsigned index, uint32_t type, uint64_t offset, uint64_t size, uint32_t link, uint64_t entsize) {
        const uint64_t h = shoff + index * shentsize;
        put(h + 4, type, 4);
        put(h + (is64 ? 24 : 16), offset, word);
        put(h + (is64 ? 32 : 20), size, word);
        put(h + (is64 ? 40 : 24), link, 4);
        put(h + (is64 ? 56 : 36), entsize, word);
    };
    header(1, 11, symOff, symSize, 2, symentsize);  // .dynsym, strings in section 2
    header(2, 3, strOff, strtab.size(), 0, 0);      // .dynstr
    return out;
}

void* openLibrary() {
    void* handle = dlopen(kt::libPath("libkesdbm.so").c_str(), RTLD_NOW | RTLD_LOCAL);
    EXPECT_NE(handle, nullptr) << dlerror();
    return handle;
}

TEST(Exports, EveryPublicCallIsExported) {
    void* handle = openLibrary();
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(kPublicCalls.size(), 75u);
    for (const std::string& name : kPublicCalls) EXPECT_NE(dlsym(handle, name.c_str()), nullptr) << name;
}

TEST(Exports, EveryOperationIsExported) {
    void* handle = openLibrary();
    ASSERT_NE(handle, nullptr);
    for (const std::string& name : kOperations) EXPECT_NE(dlsym(handle, name.c_str()), nullptr) << name;
}

TEST(Exports, DynamicSymbolTableHoldsExactlyTheInterface) {
    compareExports("libkesdbm.so", {kPublicCalls, kOperations, kHelpers});
}

TEST(Exports, WrapperExportsOnlyItsCalls) { compareExports("libkesosw.so", {kWrapperCalls}); }

// The reader itself, on images of both classes and both byte orders (the device's is 32-bit
// big-endian): defined global, weak and protected names count; undefined, local, hidden and
// version-definition symbols do not.
TEST(Exports, SymbolTableReaderHandlesEveryClassAndByteOrder) {
    const std::vector<SyntheticSymbol> symbols = {
        {"kesDBMInit", 1, 2, 0, 7},        // global function
        {"media_table", 1, 1, 0, 9},       // global object
        {"weakOne", 2, 2, 0, 7},           // weak
        {"protectedOne", 1, 2, 3, 7},      // protected visibility
        {"hiddenOne", 1, 2, 2, 7},         // hidden
        {"localOne", 0, 2, 0, 7},          // local
        {"printf", 1, 2, 0, 0},            // undefined: imported
        {"KESDBM_1", 1, 1, 0, 0xfff1},     // version definition
    };
    for (bool is64 : {false, true}) {
        for (bool big : {false, true}) {
            SCOPED_TRACE(std::string(is64 ? "ELF64 " : "ELF32 ") + (big ? "big-endian" : "little-endian"));
            const std::vector<uint8_t> image = syntheticElf(is64, big, symbols);
            const auto read = readDynamicSymbols(image);
            ASSERT_TRUE(read.has_value());
            ASSERT_EQ(read->size(), symbols.size());
            EXPECT_EQ((*read)[1].name, "media_table");
            EXPECT_EQ((*read)[1].section, 9u);
            EXPECT_EQ((*read)[3].visibility, 3u);
            EXPECT_EQ((*read)[2].value, 0x1000u + 2 * 16);
            EXPECT_EQ(exportedNames(*read),
                      (std::set<std::string>{"kesDBMInit", "media_table", "protectedOne", "weakOne"}));
            // A cut image or a name offset out of its string table is refused, not read past.
            std::vector<uint8_t> cut(image.begin(), image.end() - 8);
            EXPECT_FALSE(readDynamicSymbols(cut).has_value());
            std::vector<uint8_t> badName = image;
            const unsigned ehsize = is64 ? 64 : 52, entsize = is64 ? 24 : 16;
            std::memset(badName.data() + ehsize + entsize, 0x7f, 4);
            EXPECT_FALSE(readDynamicSymbols(badName).has_value());
        }
    }
    EXPECT_FALSE(readDynamicSymbols(std::vector<uint8_t>(100, 0)).has_value());
}

TEST(Exports, InternalHelpersAreHidden) {
    void* handle = openLibrary();
    ASSERT_NE(handle, nullptr);
    // C++ helpers of the library stay inside it.
    EXPECT_EQ(dlsym(handle, "_ZN3kes14mapSharedTableEPKcjRKNS_16SharedTableCodesE"), nullptr);
}

// The exported tables are part of the interface: their entries' layout must not depend on the
// compiler's choices. On the 32-bit target every field is one 32-bit word: a MediaEntry is nine
// words (36 bytes), a HookEntry five (20 bytes). A 64-bit build widens the pointers to 8 bytes
// (and pads `arg`). The library's own table is checked too: its symbol spans 128 entries of
// that size, and entry 0 holds the built-in medium's operations at those offsets.
TEST(Exports, TableEntryLayout) {
    struct Layout {
        size_t mediaSize, media[9], hookSize, hook[5];
    };
    const Layout target32{36, {0, 4, 8, 12, 16, 20, 24, 28, 32}, 20, {0, 4, 8, 12, 16}};
    const Layout host64{72, {0, 8, 16, 24, 32, 40, 48, 56, 64}, 40, {0, 8, 16, 24, 32}};
    ASSERT_TRUE(sizeof(void*) == 4 || sizeof(void*) == 8);
    const Layout& want = sizeof(void*) == 4 ? target32 : host64;

    EXPECT_EQ(sizeof(MediaEntry), want.mediaSize);
    const size_t media[9] = {offsetof(MediaEntry, handle), offsetof(MediaEntry, name),  offsetof(MediaEntry, arg),
                             offsetof(MediaEntry, open),   offsetof(MediaEntry, close), offsetof(MediaEntry, read),
                             offsetof(MediaEntry, write),  offsetof(MediaEntry, seek),  offsetof(MediaEntry, sync)};
    for (int i = 0; i < 9; ++i) EXPECT_EQ(media[i], want.media[i]) << "MediaEntry field " << i;
    EXPECT_EQ(sizeof(HookEntry), want.hookSize);
    const size_t hook[5] = {offsetof(HookEntry, handle), offsetof(HookEntry, preSet), offsetof(HookEntry, postSet),
                            offsetof(HookEntry, preGet), offsetof(HookEntry, postGet)};
    for (int i = 0; i < 5; ++i) EXPECT_EQ(hook[i], want.hook[i]) << "HookEntry field " << i;

    void* handle = openLibrary();
    ASSERT_NE(handle, nullptr);
    auto symbolSize = [handle](const char* name) -> size_t {
        void* address = dlsym(handle, name);
        Dl_info info{};
        void* entry = nullptr;
        if (!address || !dladdr1(address, &info, &entry, RTLD_DL_SYMENT) || !entry) return 0;
        return static_cast<const ElfW(Sym)*>(entry)->st_size;
    };
    EXPECT_EQ(symbolSize("media_table"), 128 * want.mediaSize);
    EXPECT_EQ(symbolSize("hook_table"), sizeof(void*));
    // Entry 0 read as raw bytes at the offsets above: handle null, name "", arg 0, then the
    // built-in medium's six operations in order.
    const auto* table = static_cast<const unsigned char*>(dlsym(handle, "media_table"));
    ASSERT_NE(table, nullptr);
    auto pointerAt = [table](size_t offset) {
        void* p = nullptr;
        std::memcpy(&p, table + offset, sizeof p);
        return p;
    };
    EXPECT_EQ(pointerAt(want.media[0]), nullptr);
    ASSERT_NE(pointerAt(want.media[1]), nullptr);
    EXPECT_STREQ(static_cast<const char*>(pointerAt(want.media[1])), "");
    uint32_t arg = 0xFFFFFFFFu;
    std::memcpy(&arg, table + want.media[2], 4);
    EXPECT_EQ(arg, 0u);
    const char* operations[6] = {"defMedia_open",  "defMedia_close", "defMedia_read",
                                 "defMedia_write", "defMedia_seek",  "defMedia_sync"};
    for (int i = 0; i < 6; ++i) EXPECT_EQ(pointerAt(want.media[3 + i]), dlsym(handle, operations[i])) << operations[i];
    std::printf("MediaEntry %zu bytes, HookEntry %zu bytes, %zu-bit pointers\n", sizeof(MediaEntry),
                sizeof(HookEntry), 8 * sizeof(void*));
}

}  // namespace
