#include "database.hpp"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include <unistd.h>

namespace kesdb {

const char* const kMediaFiles[4] = {"components.med", "values.med", "constraints.med", "strings.med"};

namespace {

std::string g_libDir;
// Whether the caller named the database table; read before the tool changes the environment.
const bool g_callerDbTable = std::getenv("KESDB_DBTABLE") != nullptr;
// Most ancestors walked up from a component (the library's walks stop 1024 levels deep).
constexpr int kAncestorsMax = 1100;

std::string parentDir(const std::string& path) {
    size_t slash = path.find_last_of('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

struct Descriptor {
    std::string dir;
    std::map<std::string, std::string> values;

    const std::string* find(const char* key) const {
        auto it = values.find(key);
        return it == values.end() ? nullptr : &it->second;
    }
    std::string path(const char* key) const {
        const std::string* v = find(key);
        if (!v || v->empty()) fail(dir + "/" + kDescriptorFile + ": no " + key + " file");
        return (*v)[0] == '/' ? *v : dir + "/" + *v;
    }
    uint32_t number(const char* key) const {
        const std::string* v = find(key);
        if (!v) fail(dir + "/" + kDescriptorFile + ": no " + key + " index");
        char* end = nullptr;
        errno = 0;
        unsigned long n = std::strtoul(v->c_str(), &end, 10);
        if (v->empty() || *end != '\0' || errno != 0 || n > UINT32_MAX)
            fail(dir + "/" + kDescriptorFile + ": " + key + "=" + *v + " is not a number");
        return static_cast<uint32_t>(n);
    }
};

Descriptor readDescriptor(const std::string& dir) {
    std::ifstream in(dir + "/" + kDescriptorFile);
    if (!in) fail(dir + " is not a kesdb database (no " + kDescriptorFile + ")");
    Descriptor d;
    d.dir = dir;
    std::string line;
    for (int n = 1; std::getline(in, line); ++n) {
        if (line.empty() || line[0] == '#') continue;
        size_t eq = line.find('=');
        if (eq == std::string::npos)
            fail(dir + "/" + kDescriptorFile + ":" + std::to_string(n) + ": not a key=value line");
        d.values[line.substr(0, eq)] = line.substr(eq + 1);
    }
    return d;
}

void putPath(char* field, const std::string& value, const std::string& what) {
    if (value.size() >= KESDB_PATH_MAX)
        fail(what + " path longer than " + std::to_string(KESDB_PATH_MAX - 1) + " bytes");
    std::snprintf(field, KESDB_PATH_MAX, "%s", value.c_str());
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

std::string mediaConfigText(const std::string& dir, bool fourFiles, const std::string& libDirectory) {
    std::string conf;
    if (!fourFiles) return conf;
    for (const char* m : kMediaFiles)
        conf += libDirectory +
                "/libkesdrv_file.so fileMedia_open fileMedia_close fileMedia_read fileMedia_write"
                " fileMedia_seek fileMedia_sync " +
                dir + "/" + m + "\n";
    return conf;
}

TablePaths tablePaths(const std::string& dir) {
    const Descriptor d = readDescriptor(dir);
    return {d.path("session"), d.path("lock")};
}

std::string absolutePath(const std::string& path) {
    char* r = realpath(path.c_str(), nullptr);
    if (!r) fail("cannot find " + path + ": " + std::strerror(errno));
    std::string out(r);
    std::free(r);
    return out;
}

Database::Database(const std::string& dirIn) {
    dir_ = absolutePath(dirIn);
    Descriptor d = readDescriptor(dir_);
    if (!g_callerDbTable) setenv("KESDB_DBTABLE", (dir_ + "/db.tbl").c_str(), 1);
    setenv("SIM_BYTE_ORDER", "BIG_ENDIAN", 0);
    if (const std::string* m = d.find("defmedia"); m && !m->empty())
        setenv("KESDB_DEFMEDIA", d.path("defmedia").c_str(), 1);
    putPath(param_.sessionTablePath, d.path("session"), "session table");
    putPath(param_.lockTablePath, d.path("lock"), "lock table");
    putPath(param_.mediaConfigPath, d.path("media"), "media configuration");
    putPath(param_.hookConfigPath, d.path("hook"), "hook configuration");
    param_.componentMedium = d.number("component");
    param_.valueMedium = d.number("value");
    param_.constraintMedium = d.number("constraint");
    param_.stringMedium = d.number("string");
    param_.reserved = d.find("reserved") ? d.number("reserved") : 0;

    // A start-up that fails after registering the database leaves the registration in the
    // shared database table (a failed start-up undoes nothing), and only its id could give
    // it back. So the tool registers once itself first, which names the id, and gives
    // back its own registration after the start-up, and the start-up's too if it failed.
    int32_t err = 0;
    const int32_t own = db_init(&param_, &err);
    if (own < 0) fail("cannot register the database in " + dir_ + ": " + codeText(err));
    err = 0;
    // The start-up's own lines ("kesDBMInit err4" ...) are replaced by the tool's message.
    id_ = quietly([&] { return kesDBMInit(&param_, &err); });
    db_term(static_cast<uint32_t>(own));
    if (id_ < 0) {
        db_term(static_cast<uint32_t>(own));
        fail("cannot start the database in " + dir_ + ": " + codeText(err));
    }
    const int32_t rc = kesDBMInitSession(&s, static_cast<uint32_t>(id_));
    if (rc != 0) {
        kesDBMTerm(static_cast<uint32_t>(id_));
        fail("cannot open a session: " + codeText(rc));
    }
}

Database::~Database() {
    kesDBMTermSession(&s);
    if (!keepRegistered_) kesDBMTerm(static_cast<uint32_t>(id_));
}

uint32_t Database::root() {
    uint32_t r = kesDBMGetRoot(&s);
    if (r == 0) fail(dir_ + ": the database has no root node");
    return r;
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
            const char* e = std::getenv("KESDB_DEFMEDIA");
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
