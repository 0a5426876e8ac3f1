// The shared libraries export exactly the names their public headers declare for export, and
// nothing else of their internals. The dynamic symbol table is read from the built ELF file.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <link.h>

#include <cstddef>
#include <cstring>
#include <filesystem>
#include <regex>
#include <set>

#include "testkit.hpp"

namespace {

using Names = std::set<std::string>;

// Every name declared by a line starting with `marker` in the headers of `dir`: the identifier
// before the declaration's first '(', or for a variable the one before its '[' or ';'.
Names declared(const std::string& dir, const std::string& marker) {
    Names names;
    const std::regex function(R"(([A-Za-z_]\w*)\s*\()"), variable(R"(([A-Za-z_]\w*)\s*[\[;])");
    for (const auto& entry : std::filesystem::directory_iterator(std::string(KT_SOURCE_DIR) + "/" + dir)) {
        const std::string text = kt::readFile(entry.path().string());
        for (size_t at = text.find("\n" + marker); at != std::string::npos; at = text.find("\n" + marker, at + 1)) {
            const std::string decl = text.substr(at, text.find(';', at) - at + 1);
            std::smatch m;
            if (std::regex_search(decl, m, function) || std::regex_search(decl, m, variable)) names.insert(m[1]);
        }
    }
    return names;
}

// Names the library makes visible to others: defined, global, weak or unique, default or
// protected visibility; version definitions (absolute, value 0) and linker symbols left out.
// The test runs as a program of the library's own machine: the file has the native ELF class
// and byte order.
Names exported(const std::string& file) {
    const std::string image = kt::readFile(kt::libPath(file));
    const char* base = image.data();
    if (image.size() < sizeof(ElfW(Ehdr)) || std::memcmp(base, ELFMAG, SELFMAG) != 0) return {"(not an ELF file)"};
    const auto* eh = reinterpret_cast<const ElfW(Ehdr)*>(base);
    const auto* sections = reinterpret_cast<const ElfW(Shdr)*>(base + eh->e_shoff);
    const Names linker = {"_init", "_fini", "_edata", "_end", "__bss_start"};
    Names names;
    for (int i = 0; i < eh->e_shnum; ++i) {
        if (sections[i].sh_type != SHT_DYNSYM) continue;
        const char* strings = base + sections[sections[i].sh_link].sh_offset;
        const auto* sym = reinterpret_cast<const ElfW(Sym)*>(base + sections[i].sh_offset);
        for (size_t e = 1; e < sections[i].sh_size / sizeof(ElfW(Sym)); ++e) {
            const unsigned bind = ELF64_ST_BIND(sym[e].st_info), vis = ELF64_ST_VISIBILITY(sym[e].st_other);
            const bool version = sym[e].st_shndx == SHN_ABS && sym[e].st_value == 0;
            const std::string name = strings + sym[e].st_name;
            if (sym[e].st_shndx != SHN_UNDEF && !version && !linker.count(name) &&
                (bind == STB_GLOBAL || bind == STB_WEAK || bind == STB_GNU_UNIQUE) &&
                (vis == STV_DEFAULT || vis == STV_PROTECTED))
                names.insert(name.rfind("__odr_asan.", 0) == 0 ? name.substr(11) : name);  // sanitizer companions
        }
    }
    return names;
}

TEST(Exports, LibrariesExportExactlyTheirDeclaredNames) {
    const Names library = declared("include/kesdbm", "KESDB_API");
    EXPECT_TRUE(library.size() > 300 && library.count("kesDBMGetUint32") && library.count("media_table"));
    EXPECT_EQ(exported("libkesdbm.so"), library);
    const Names wrapper = declared("osw/include", "KESOSW_API");
    EXPECT_EQ(wrapper.size(), 12u);
    EXPECT_EQ(exported("libkesosw.so"), wrapper);
}

// The exported tables' entries are pointer-sized words (on the 32-bit target: 36 and 20 bytes),
// and the library's media table spans 128 entries, entry 0 holding the built-in medium.
static_assert(sizeof(MediaEntry) == 9 * sizeof(void*) && offsetof(MediaEntry, arg) == 2 * sizeof(void*) &&
              offsetof(MediaEntry, open) == 3 * sizeof(void*) && offsetof(MediaEntry, sync) == 8 * sizeof(void*));

TEST(Exports, MediaTableSpans128Entries) {
    void* handle = dlopen(kt::libPath("libkesdbm.so").c_str(), RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(handle, nullptr) << dlerror();
    Dl_info info{};
    void* entry = nullptr;
    ASSERT_NE(dladdr1(dlsym(handle, "media_table"), &info, &entry, RTLD_DL_SYMENT), 0);
    EXPECT_EQ(static_cast<const ElfW(Sym)*>(entry)->st_size, 128 * sizeof(MediaEntry));
}

}  // namespace
