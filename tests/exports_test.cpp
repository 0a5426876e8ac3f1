// Every call and operation of the interface is exported from the shared library under its
// own name, and nothing else of the library's internals is. The dynamic symbol table of the
// built library is read from its ELF file (32- or 64-bit, either byte order, so the test runs
// on the target as well) and every defined, visible symbol must be one of the interface's.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <link.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "testkit.hpp"

namespace {

using Names = std::vector<std::string>;

// Blank-separated names; "pre{a b}" stands for "prea preb", and a '*' for each value type.
Names names(const std::string& text) {
    Names out;
    std::istringstream in(text);
    std::string prefix;
    for (std::string w; in >> w;) {
        if (const size_t b = w.find('{'); b != std::string::npos) {
            prefix = w.substr(0, b);
            w.erase(0, b + 1);
        }
        const bool last = !w.empty() && w.back() == '}';
        if (last) w.pop_back();
        const std::string n = prefix + w;
        if (last) prefix.clear();
        const size_t star = n.find('*');
        if (star == std::string::npos) {
            out.push_back(n);
            continue;
        }
        for (const char* t : {"U8", "S8", "U16", "S16", "U32", "S32", "U64", "S64", "F32", "F64"})
            out.push_back(n.substr(0, star) + t + n.substr(star + 1));
    }
    return out;
}

const Names kPublicCalls = names(
    "kesDBM{Copy CreateLeaf CreateNode CreateString CreateValue CurrentToDefault DefaultToCurrent "
    "DeleteComponentWithSub DeleteComponent DeleteString DeleteValue FactoryToDefault GetChildByIndex GetChildCount "
    "GetConstraintData GetConstraintKey GetConstraintLength GetConstraintType GetCreateListGeneric "
    "GetCurrentValueKey GetDefaultGeneric GetDefaultValueKey GetFactoryGeneric GetFactoryValueKey GetFirstChild "
    "GetFloat32 GetFloat64 GetGeneric GetLength GetNextChild GetParent GetRoot GetSint16 GetSint32 GetSint64 "
    "GetSint8 GetStringKey GetString GetType GetUint16 GetUint32 GetUint64 GetUint8 InitSession Init Lock MoveLeaf "
    "MoveNode MoveSubTree SearchByName SetConstraintData SetConstraintKey SetCurrentComponent SetCurrentValueKey "
    "SetDefaultGeneric SetDefaultValueKey SetFactoryValueKey SetFloat32 SetFloat64 SetGeneric SetSint16 SetSint32 "
    "SetSint64 SetSint8 SetStringKey SetString SetUint16 SetUint32 SetUint64 SetUint8 Sync TermSession Term Unlock "
    "traverseAndPrint}");

const Names kOperations = names(
    "IsCompMedia compFileRead dummydummy1 dummydummy2 fillHookEntry fillMediaEntry getHook getMedia "
    "kesdb_getStrEntry kesdb_getString boadj_{judge type word wordx2} checkEnum* checkRange* "
    "range*_{get getData new set setData} "
    "comp_{currentToDefault defaultToCurrent delete deleteWithSub factoryToDefault getChildByIndex getChildCount "
    "getComponent getFirstChild getLeaf getNextSibling getNode getParent getRoot getStringKey init lock newLeaf "
    "newNode searchByName setComponent setDeleted setFirstChild setLeaf setNextSibling setNode setParent "
    "setStringKey term traverseAndPrint unlock} "
    "constraint_{check get getData getEnumArray getLength getType init new newEnumArray set setData setEnumArray "
    "term} db_{getDb init show term} defMedia_{close open read seek sync write} enum_{get new set setData} "
    "flst_{fillFlagmented get getAnchorOffset getElement getFirstOffset release setElement setFirstOffset setNext} "
    "flst_m_{fillFlagmented get getAnchorOffset getElement getFirstOffset release setElement setFirstOffset "
    "setNext getRoot setRoot} hook_{getCount init table term} "
    "leaf_{create getCurrentValueKey getDefaultValueKey getFactoryValueKey move setCurrentValueKey "
    "setDefaultValueKey setFactoryValueKey} "
    "lock_{compLock compLockW compUnlock compUnlockAll init show term valueLock valueLockW valueUnlock "
    "valueUnlockAll} media_{getCount init sync table term} "
    "misc_{freeSems getSems pathCompare postCount postEvent postMtx resetEvent waitCount waitEvent waitMtx} "
    "node_{create move moveWithSub} session_{init initSession setError show term termSession} "
    "str_{create delete newEntry setDeleted setEntry} "
    "value_{copy copy2 create delete get getConstraintKey getCreateListGeneric getGeneric getLength getType init "
    "new print set setConstraintKey setDeleted setGeneric term}");

// Helpers of the library's own header that are exported besides the interface's names.
const Names kHelpers = {"kesdb_errorName",    "kesdb_layMedium",      "kesdb_recordChanges", "kesDBMWatch",
                        "kesdb_defMediaFile", "kesdb_dirParam",       "kesDBMInitDir",       "kesDBMInitDirEx",
                        "kesDBMInitDirFailure"};

// The wrapper library's calls (osw/include/kesosw.h).
const Names kWrapperCalls = names(
    "kesOSW{CreateMutexSem CreateCountSem CreateEventSem RequestMutexSem ReleaseMutexSem WaitCountSem PostCountSem "
    "WaitEventSem PostEventSem SubAllocMem OrgFreeMemPart SetCreateKey}");

// Symbols a linker may add to every shared object's dynamic table; tolerated, nothing else.
const std::set<std::string> kLinkerSymbols = {"_init", "_fini", "_edata", "_end", "__bss_start"};

// ---- Reading the dynamic symbol table of an ELF file -------------------------------------

struct DynSymbol {
    std::string name;
    unsigned binding, type, visibility;  // STB_*, STT_*, STV_*
    uint16_t section;                    // 0: undefined
    uint64_t value;
};

// The symbols of the SHT_DYNSYM section (index 0, the null symbol, left out), every field read
// bounds-checked in the image's own class and byte order; nullopt when the image is not a
// well-formed ELF file with such a section.
std::optional<std::vector<DynSymbol>> readDynamicSymbols(const std::vector<uint8_t>& bytes) {
    if (bytes.size() < 52 || std::memcmp(bytes.data(), "\x7f" "ELF", 4) != 0) return std::nullopt;
    if ((bytes[4] != 1 && bytes[4] != 2) || (bytes[5] != 1 && bytes[5] != 2)) return std::nullopt;
    const bool is64 = bytes[4] == 2, big = bytes[5] == 2;
    const unsigned word = is64 ? 8 : 4;  // address and offset width
    auto fits = [&](uint64_t offset, uint64_t size) { return offset <= bytes.size() && size <= bytes.size() - offset; };
    auto get = [&](uint64_t offset, unsigned width) {
        uint64_t v = 0;
        for (unsigned i = 0; i < width; ++i) v |= uint64_t{bytes[offset + i]} << (8 * (big ? width - 1 - i : i));
        return v;
    };
    if (!fits(0, is64 ? 64 : 52)) return std::nullopt;
    const uint64_t shoff = get(is64 ? 40 : 32, word), shentsize = get(is64 ? 58 : 46, 2);
    const uint64_t shnum = get(is64 ? 60 : 48, 2);
    if (shentsize < (is64 ? 64u : 40u) || !fits(shoff, shentsize * shnum)) return std::nullopt;
    // A section header field at its offset in the 32- and the 64-bit layout.
    auto sh = [&](uint64_t i, unsigned at32, unsigned at64, unsigned width) {
        return get(shoff + i * shentsize + (is64 ? at64 : at32), width);
    };
    for (uint64_t i = 0; i < shnum; ++i) {
        if (sh(i, 4, 4, 4) != 11) continue;  // SHT_DYNSYM
        const uint64_t symOff = sh(i, 16, 24, word), symSize = sh(i, 20, 32, word), entSize = sh(i, 36, 56, word);
        const uint64_t strIndex = sh(i, 24, 40, 4);
        if (entSize < (is64 ? 24u : 16u) || strIndex >= shnum || !fits(symOff, symSize)) return std::nullopt;
        const uint64_t strOff = sh(strIndex, 16, 24, word), strSize = sh(strIndex, 20, 32, word);
        if (!fits(strOff, strSize)) return std::nullopt;
        std::vector<DynSymbol> symbols;
        for (uint64_t e = 1; e < symSize / entSize; ++e) {
            // Elf32_Sym: name, value, size, info, other, shndx. Elf64_Sym: name, info, other,
            // shndx, value, size.
            const uint64_t s = symOff + e * entSize, nameOff = get(s, 4);
            const auto info = static_cast<unsigned>(get(s + (is64 ? 4 : 12), 1));
            if (nameOff >= strSize) return std::nullopt;
            const char* begin = reinterpret_cast<const char*>(bytes.data() + strOff + nameOff);
            const size_t length = strnlen(begin, static_cast<size_t>(strSize - nameOff));
            if (length == strSize - nameOff) return std::nullopt;  // unterminated name
            symbols.push_back({std::string(begin, length), info >> 4, info & 0xfu,
                               static_cast<unsigned>(get(s + (is64 ? 5 : 13), 1)) & 3u,
                               static_cast<uint16_t>(get(s + (is64 ? 6 : 14), 2)), get(s + (is64 ? 8 : 4), word)});
        }
        return symbols;
    }
    return std::nullopt;
}

// Names a shared object makes visible to others: defined, global, weak or unique binding,
// default or protected visibility. Version-definition symbols (absolute, value 0) are left out.
std::set<std::string> exportedNames(const std::vector<DynSymbol>& symbols) {
    std::set<std::string> names;
    for (const DynSymbol& s : symbols) {
        const bool visibleBinding = s.binding == 1 || s.binding == 2 || s.binding == 10;
        const bool visible = s.visibility == 0 || s.visibility == 3;
        const bool versionDefinition = s.section == 0xfff1 /* SHN_ABS */ && s.value == 0 && s.type == 1;
        if (s.section != 0 && visibleBinding && visible && !versionDefinition) names.insert(s.name);
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
void compareExports(const std::string& file, std::initializer_list<const Names*> expectedLists) {
    std::set<std::string> expected;
    for (const Names* list : expectedLists) expected.insert(list->begin(), list->end());
    std::ifstream in(kt::libPath(file), std::ios::binary);
    const std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    ASSERT_FALSE(bytes.empty()) << kt::libPath(file);
    const auto symbols = readDynamicSymbols(bytes);
    ASSERT_TRUE(symbols.has_value()) << file << ": no dynamic symbol table";
    const std::set<std::string> exported = exportedNames(*symbols);
    for (const std::string& name : exported)
        EXPECT_TRUE(expected.count(name) || kLinkerSymbols.count(name) || sanitizerCompanion(name, expected))
            << file << " exports " << name;
    for (const std::string& name : expected) EXPECT_TRUE(exported.count(name)) << file << " lacks " << name;
}

TEST(Exports, DynamicSymbolTableHoldsExactlyTheInterface) {
    EXPECT_EQ(kPublicCalls.size(), 75u);
    compareExports("libkesdbm.so", {&kPublicCalls, &kOperations, &kHelpers});
}

TEST(Exports, WrapperExportsOnlyItsCalls) { compareExports("libkesosw.so", {&kWrapperCalls}); }

// The exported tables are part of the interface: their entries' layout must not depend on the
// compiler's choices. On the 32-bit target every field is one 32-bit word: a MediaEntry is nine
// words (36 bytes), a HookEntry five (20 bytes). A 64-bit build widens the pointers to 8 bytes
// (and pads `arg`). The library's own table is checked too: its symbol spans 128 entries of
// that size, and entry 0 holds the built-in medium's operations at those offsets.
TEST(Exports, TableEntryLayout) {
    ASSERT_TRUE(sizeof(void*) == 4 || sizeof(void*) == 8);
    const size_t w = sizeof(void*) == 4 ? 4 : 8;  // 4: the target's layout
    EXPECT_EQ(sizeof(MediaEntry), 9 * w);
    const size_t media[9] = {offsetof(MediaEntry, handle), offsetof(MediaEntry, name),  offsetof(MediaEntry, arg),
                             offsetof(MediaEntry, open),   offsetof(MediaEntry, close), offsetof(MediaEntry, read),
                             offsetof(MediaEntry, write),  offsetof(MediaEntry, seek),  offsetof(MediaEntry, sync)};
    for (size_t i = 0; i < 9; ++i) EXPECT_EQ(media[i], i * w) << "MediaEntry field " << i;
    EXPECT_EQ(sizeof(HookEntry), 5 * w);
    const size_t hook[5] = {offsetof(HookEntry, handle), offsetof(HookEntry, preSet), offsetof(HookEntry, postSet),
                            offsetof(HookEntry, preGet), offsetof(HookEntry, postGet)};
    for (size_t i = 0; i < 5; ++i) EXPECT_EQ(hook[i], i * w) << "HookEntry field " << i;

    // The library's table spans 128 entries; entry 0 holds the built-in medium's operations.
    void* handle = dlopen(kt::libPath("libkesdbm.so").c_str(), RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(handle, nullptr) << dlerror();
    Dl_info info{};
    void* entry = nullptr;
    ASSERT_NE(dladdr1(dlsym(handle, "media_table"), &info, &entry, RTLD_DL_SYMENT), 0);
    EXPECT_EQ(static_cast<const ElfW(Sym)*>(entry)->st_size, 128 * 9 * w);
    const auto* table = static_cast<void* const*>(dlsym(handle, "media_table"));
    const char* operations[6] = {"open", "close", "read", "write", "seek", "sync"};
    for (int i = 0; i < 6; ++i)
        EXPECT_EQ(table[3 + i], dlsym(handle, (std::string("defMedia_") + operations[i]).c_str())) << i;
}

}  // namespace
