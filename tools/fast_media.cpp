#include "fast_media.hpp"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "private_medium.hpp"

namespace kesdb {

namespace {

constexpr const char* kFileDriver = "libkesdrv_file.so";
constexpr const char* kMappedDriver = "libkesdrv_mmap.so";

bool isRegularFile(const std::string& path) {
    struct stat st;
    return !path.empty() && stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

// The file a media-table entry reaches, when the tool may map it instead: the built-in
// medium's file, or the name of a named-file driver entry. Empty otherwise.
std::string mappableFile(uint32_t index, const MediaEntry& e) {
    if (index == 0) {
        const char* path = kesdb_defMediaFile();
        return e.open == defMedia_open && path && isRegularFile(path) ? path : std::string();
    }
    Dl_info info{};
    if (!e.open || !e.name || dladdr(reinterpret_cast<void*>(e.open), &info) == 0 || !info.dli_fname)
        return std::string();
    const char* slash = std::strrchr(info.dli_fname, '/');
    const char* base = slash ? slash + 1 : info.dli_fname;
    return std::strcmp(base, kFileDriver) == 0 && isRegularFile(e.name) ? std::string(e.name) : std::string();
}

template <class F>
bool lookUp(void* lib, const char* symbol, F& slot) {
    slot = reinterpret_cast<F>(dlsym(lib, symbol));
    return slot != nullptr;
}

}  // namespace

FastMedia::FastMedia(Database& db, Access access) : private_(access != Access::Shared) {
    if (private_) privateMedium_setReadOnly(access == Access::ReadOnly);
    const DBMInitParam& p = db.param();
    const uint32_t indexes[4] = {p.componentMedium, p.valueMedium, p.constraintMedium, p.stringMedium};
    MediaEntry mapped{nullptr,           nullptr,           0,
                      privateMedium_open, privateMedium_close, privateMedium_read,
                      privateMedium_write, privateMedium_seek,  privateMedium_sync};
    for (uint32_t index : indexes) {
        if (static_cast<int32_t>(index) >= media_getCount()) continue;
        bool seen = false;
        for (const Saved& s : saved_) seen = seen || s.index == index;
        const std::string file = seen ? std::string() : mappableFile(index, media_table[index]);
        if (file.empty()) continue;
        if (!private_ && !lib_) {
            lib_ = dlopen((libDir() + "/" + kMappedDriver).c_str(), RTLD_NOW | RTLD_LOCAL);
            if (!lib_ || !lookUp(lib_, "mmapMedia_open", mapped.open) ||
                !lookUp(lib_, "mmapMedia_close", mapped.close) || !lookUp(lib_, "mmapMedia_read", mapped.read) ||
                !lookUp(lib_, "mmapMedia_write", mapped.write) || !lookUp(lib_, "mmapMedia_seek", mapped.seek) ||
                !lookUp(lib_, "mmapMedia_sync", mapped.sync))
                return;  // no mapped driver: every medium stays as it is
        }
        MediaEntry& e = media_table[index];
        saved_.push_back({index, e});
        if (index == 0) {
            entryZeroName_ = file;
            e.name = entryZeroName_.data();
        }
        e.open = mapped.open;
        e.close = mapped.close;
        e.read = mapped.read;
        e.write = mapped.write;
        e.seek = mapped.seek;
        e.sync = mapped.sync;
    }
}

FastMedia::~FastMedia() {
    for (const Saved& s : saved_) media_table[s.index] = s.entry;
    if (private_) privateMedium_releaseAll();
    // Unloading unmaps the files; what was written stays in the page cache until written back.
    if (lib_) dlclose(lib_);
}

void FastMedia::flush() {
    for (const Saved& s : saved_) {
        MediaEntry& e = media_table[s.index];
        int32_t err = 0;
        const int d = e.open(e.name, e.arg, &err);
        if (d < 0 || e.sync(d, &err, 0) != 0)
            fail(std::string("cannot write ") + e.name + " to the device: " + std::strerror(err));
        e.close(d, &err);
    }
}

void syncPath(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) fail("cannot open " + path + " to write it to the device: " + std::strerror(errno));
    const int rc = ::fsync(fd);
    const int e = errno;
    ::close(fd);
    if (rc != 0) fail("cannot write " + path + " to the device: " + std::strerror(e));
}

}  // namespace kesdb
