#include "database.hpp"
#include "journal.hpp"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include <unistd.h>

#include "diagnose.hpp"
#include "fast_media.hpp"


namespace kesdb {

const char* const kMediaFiles[4] = {"components.med", "values.med", "constraints.med", "strings.med"};

namespace {

std::string g_libDir;
// Most ancestors walked up from a component (the library's walks stop 1024 levels deep).
constexpr int kAncestorsMax = 1100;

std::string parentDir(const std::string& path) {
    size_t slash = path.find_last_of('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

// A failed start-up or descriptor read of DIR: the library's own account of it.
[[noreturn]] void failStart(const std::string& what, const std::string& dir, int32_t code) {
    std::string cause = kesDBMInitDirFailure();
    if (cause.rfind(dir + ": ", 0) == 0) cause.erase(0, dir.size() + 2);
    const std::string named = codeText(code);
    if (cause.empty()) cause = named;
    else if (cause.find(named) == std::string::npos) cause += " (" + named + ")";
    fail(what + ": " + cause + startCause(dir));
}

}  // namespace

void setLibDir(const std::string& dir) { g_libDir = dir; }

std::string libDir() {
    if (!g_libDir.empty()) return g_libDir;
    if (const char* e = std::getenv("KESDB_LIB_DIR"); e && *e) return e;
    char buf[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
    if (n <= 0) return "../lib";
    buf[n] = '\0';
    const std::string bin = parentDir(buf);
    // Installed: the module directory relative to the program's directory (bin/../lib/kesdbm);
    // in the build tree: ../lib beside the program.
#ifdef KESDB_TOOL_MODULE_DIR
    const std::string installed = bin + "/" KESDB_TOOL_MODULE_DIR;
    if (access((installed + "/libkesdrv_file.so").c_str(), F_OK) == 0) {
        char* resolved = realpath(installed.c_str(), nullptr);
        std::string dir = resolved ? resolved : installed;
        std::free(resolved);
        return dir;
    }
#endif
    return parentDir(bin) + "/lib";
}

std::string descriptorText(bool fourFiles) {
    std::string d =
        "# kesdb database descriptor: file names relative to this directory\n"
        "session=session.tbl\nlock=lock.tbl\nmedia=media.conf\nhook=hook.conf\n";
    if (fourFiles) return d + "component=1\nvalue=2\nconstraint=3\nstring=4\nreserved=0\ndefmedia=\n";
    return d + "component=0\nvalue=0\nconstraint=0\nstring=0\nreserved=0\ndefmedia=" + kSingleMedium + "\n";
}

std::string mediaConfigText(bool fourFiles, const std::string& libDirectory) {
    std::string conf;
    if (!fourFiles) return conf;
    for (const char* m : kMediaFiles)
        conf += libDirectory +
                "/libkesdrv_file.so fileMedia_open fileMedia_close fileMedia_read fileMedia_write"
                " fileMedia_seek fileMedia_sync " + m + "\n";
    return conf;
}

TablePaths tablePaths(const std::string& dir) {
    DBMInitParam p{};
    if (int32_t rc = quietly([&] { return kesdb_dirParam(dir.c_str(), nullptr, &p); }); rc != 0)
        failStart("cannot read the database in " + dir, absolutePath(dir), rc);
    return {p.sessionTablePath, p.lockTablePath};
}

std::string defaultDir(const std::string& given) {
    if (!given.empty()) return given;
    const char* e = std::getenv("KESDB_DIR");
    return e ? e : "";
}

std::string absolutePath(const std::string& path) {
    char* r = realpath(path.c_str(), nullptr);
    if (!r) fail("cannot find " + path + ": " + std::strerror(errno));
    std::string out(r);
    std::free(r);
    return out;
}

Database::Database(const std::string& dirIn, Access access) {
    dir_ = absolutePath(dirIn);
    journalRecover(dir_);  // the change of a command killed half-way is undone first
    const std::string drivers = libDir();
    DBMDirOptions o{};
    o.driverDir = drivers.c_str();
    if (access != Access::Shared) {
        std::string tmpl = std::string(std::getenv("TMPDIR") ? std::getenv("TMPDIR") : "/tmp") + "/kesdb-XXXXXX";
        if (!mkdtemp(tmpl.data())) fail("cannot make a temporary directory " + tmpl + ": " + std::strerror(errno));
        tables_ = tmpl;
        o.tableDir = tables_.c_str();
        if (access == Access::ReadNoHooks) o.flags = KESDB_DIR_NO_HOOKS;
    }
    // The start-up's own lines ("kesDBMInit err4" ...) are replaced by the tool's message;
    // a failed start-up by directory undoes itself.
    int32_t err = 0;
    id_ = quietly([&] { return kesDBMInitDirEx(dir_.c_str(), &o, &err); });
    if (id_ < 0) {
        removeTables();
        failStart("cannot start the database in " + dir_, dir_, err);
    }
    if (const DBMInitParam* p = db_getDb(static_cast<uint32_t>(id_))) param_ = *p;
    if (access == Access::Read || access == Access::ReadNoHooks)
        readOnly_ = std::make_unique<FastMedia>(*this, FastMedia::Access::ReadOnly);
    // A root that cannot be read is named by root() when a command needs it, with its cause.
    const int32_t rc = quietly([&] { return kesDBMInitSession(&s, static_cast<uint32_t>(id_)); });
    if (rc != 0) {
        readOnly_.reset();
        kesDBMTerm(static_cast<uint32_t>(id_));
        removeTables();
        fail("cannot open a session: " + codeText(rc));
    }
}

Database::~Database() {
    readOnly_.reset();
    kesDBMTermSession(&s);
    kesDBMTerm(static_cast<uint32_t>(id_));
    removeTables();
}

void Database::removeTables() {
    if (tables_.empty()) return;
    std::error_code ec;
    std::filesystem::remove_all(tables_, ec);
    tables_.clear();
}

uint32_t Database::root() {
    const uint32_t r = quietly([&] { return kesDBMGetRoot(&s); });
    if (r != 0) return r;
    // The root word could not be read: name the component medium and what is wrong with it.
    const std::vector<std::string> files = mediaFiles();
    const std::string medium = files.empty() ? std::string() : files[0];
    if (s.error != 0 && !medium.empty() && access(medium.c_str(), R_OK | W_OK) != 0)
        fail(dir_ + ": cannot open the component medium " + medium + ": " + std::strerror(errno));
    if (s.error != 0) fail(dir_ + ": cannot read the root node from " + medium + ": " + codeText(s.error));
    fail(dir_ + ": the database has no root node");
}

std::string Database::name(uint32_t key) {
    char buf[KESDB_NAME_BUFFER] = {};
    uint32_t nameKey = kesDBMGetStringKey(&s, key);
    if (nameKey == 0 || !kesdb_getString(&s, nameKey, buf, sizeof buf - 1)) return std::string();
    return buf;
}

std::string Database::pathOf(uint32_t key) {
    const uint32_t top = root();
    std::vector<std::string> names;
    for (int steps = 0; steps <= kAncestorsMax; ++steps) {
        std::string n = name(key);
        if (n.empty()) return std::string();
        names.push_back(n);
        if (key == top) {
            std::string path;
            for (auto it = names.rbegin(); it != names.rend(); ++it) path += *it;
            return path;
        }
        key = kesDBMGetParent(&s, key);
        if (key == 0) return std::string();
    }
    return std::string();
}

uint32_t Database::find(const std::string& path) {
    const uint32_t top = root();
    std::string p = path;
    while (p.size() > 1 && p.back() == '/') p.pop_back();
    if (p.empty() || p == "/") return top;
    if (p[0] != '/') p = "/" + p;
    const uint32_t key = quietly([&] { return kesDBMSearchByName(&s, p.c_str()); });
    // The search also ends at a node without children when the path goes on below it;
    // only a component whose own path is the whole path is the one named.
    if (key == 0 || pathOf(key) != p) fail("unknown path " + path, kExitNoPath);
    return key;
}

std::vector<std::string> Database::mediaFiles() const {
    std::vector<std::string> files;
    for (uint32_t index : {param_.componentMedium, param_.valueMedium, param_.constraintMedium, param_.stringMedium}) {
        std::string f;
        if (index == 0) {
            const char* e = kesdb_defMediaFile();
            f = e ? e : "";
        } else if (static_cast<int32_t>(index) < media_getCount() && media_table[index].name) {
            f = media_table[index].name;
        }
        bool seen = false;
        for (const auto& g : files) seen = seen || g == f;
        if (!seen) files.push_back(f);
    }
    return files;
}

}  // namespace kesdb
