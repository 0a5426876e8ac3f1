#include "commands.hpp"

#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>

#include "common.hpp"
#include "database.hpp"
#include "description.hpp"
#include "diagnose.hpp"
#include "leftovers.hpp"
#include "registration.hpp"
#include "sizing.hpp"
#include "fast_media.hpp"
#include "journal.hpp"
#include "lock_wait.hpp"
#include "progress.hpp"
#include "treeio.hpp"
#include "values.hpp"

namespace fs = std::filesystem;

namespace kesdb {

namespace {

void writeText(const std::string& file, const std::string& text) {
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out << text;
    out.close();
    if (!out) fail("cannot write " + file + ": " + std::strerror(errno));
}

std::string baseName(const std::string& path) {
    size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string parentOf(const std::string& path) {
    size_t slash = path.find_last_of('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

// The hook configuration for the --hook lines: five tokens each, the library looked up in
// `libDirectory` when it has no '/'. Unless `check` is false (libraries of another
// machine), every library and function is loaded here first, so a wrong line is reported
// by name before anything is made.
std::string hookConfig(const std::vector<std::string>& hooks, const std::string& libDirectory, bool check) {
    std::string conf;
    for (size_t i = 0; i < hooks.size(); ++i) {
        const std::string label = "--hook " + std::to_string(i + 1) + " '" + hooks[i] + "'";
        std::istringstream words(hooks[i]);
        std::vector<std::string> w;
        for (std::string x; words >> x;) w.push_back(x);
        if (w.size() != 5) fail(label + ": needs LIB PRESET POSTSET PREGET POSTGET (NULL for none)", kExitUsage);
        for (const std::string& x : w)
            if (x.find('#') != std::string::npos) fail(label + ": '#' starts a comment in the hook file", kExitUsage);
        if (w[0].find('/') == std::string::npos) w[0] = libDirectory + "/" + w[0];
        conf += w[0] + " " + w[1] + " " + w[2] + " " + w[3] + " " + w[4] + "\n";
        if (!check) continue;
        void* lib = dlopen(w[0].c_str(), RTLD_NOW | RTLD_LOCAL);
        if (!lib) fail(label + ": " + dlerror());
        for (size_t k = 1; k < 5; ++k) {
            if (w[k] != "NULL" && !dlsym(lib, w[k].c_str())) {
                dlclose(lib);
                fail(label + ": " + w[0] + " has no function " + w[k]);
            }
        }
        dlclose(lib);
    }
    // No comment and no blank line after the last hook: the hook file's result is that of
    // its last line, and such a line would fail the start-up.
    return conf;
}

// A refused read or write: the rule that refused it, with the exit status of its code.
[[noreturn]] void refused(Database& db, uint32_t key, const std::string& path, int32_t rc,
                          const std::string& value = "") {
    fail(refusalText(db, key, path, rc, value), exitFor(rc));
}

// A copy between value sets below PATH, refused on one of the leaves it went through.
[[noreturn]] void copyRefused(const std::string& what, const Session& s, int32_t rc) {
    std::string why;
    if (rc >= KESDB_ERR_HOOK_PREGET && rc <= KESDB_ERR_HOOK_POSTSET)
        why = "refused by a leaf's hook (result " + std::to_string(static_cast<int32_t>(s.errorDetail)) + "; " +
              codeText(rc) + ")";
    else if (exitFor(rc) == kExitRefused)
        why = "a value is refused by its leaf's constraint (" + codeText(rc) + ")";
    else
        why = codeText(rc);
    fail(what + ": " + why, exitFor(rc));
}

uint32_t leafType(Database& db, uint32_t key, const std::string& path) {
    const int32_t type = kesDBMGetType(&db.s, key);
    if (type < 0) fail(path + " is not a leaf");
    if (type > Float64) fail(path + ": unknown value type " + std::to_string(type));
    return static_cast<uint32_t>(type);
}

}  // namespace

int cmdCreate(const CreateOptions& o) {
    Progress own("create", 0);
    Progress& progress = o.progress ? *o.progress : own;
    // Everything that can be checked is checked before anything is made.
    std::vector<Item> items = o.items;
    if (!o.from.empty()) items = parseDescription(o.from);
    progress.setTotal(progress.done() + countItems(items));
    if (highestHook(items) > o.hooks.size())
        fail(o.from + ": the description uses hook " + std::to_string(highestHook(items)) + " but only " +
             std::to_string(o.hooks.size()) + " --hook lines are given");
    if (o.size < 4096) fail("--size must be at least 4096 bytes", kExitUsage);
    const uint32_t size = mediumSizeFor(items, o.size);
    const bool elsewhere = !o.installDir.empty() || !o.targetLibDir.empty();
    if (!o.installDir.empty() && o.installDir[0] != '/') fail("--install-dir must be an absolute path", kExitUsage);
    if (!o.targetLibDir.empty() && o.targetLibDir[0] != '/')
        fail("--target-lib-dir must be an absolute path", kExitUsage);
    const std::string libs = o.targetLibDir.empty() ? libDir() : o.targetLibDir;
    const std::string hooks = hookConfig(o.hooks, libs, o.targetLibDir.empty());

    std::string target = o.dir;
    while (target.size() > 1 && target.back() == '/') target.pop_back();
    std::error_code ec;
    if (fs::exists(fs::symlink_status(target, ec)) && !(fs::is_directory(target, ec) && fs::is_empty(target, ec)))
        fail(target + " already exists");
    const std::string finalDir = absolutePath(parentOf(target)) + "/" + baseName(target);

    // The database is made in a sibling directory and takes its place only when complete.
    removeLeftovers(finalDir);
    std::string tmpl = finalDir + ".tmp-XXXXXX";
    if (!mkdtemp(tmpl.data())) fail("cannot make a directory next to " + finalDir + ": " + std::strerror(errno));
    const std::string tmp = tmpl;
    try {
        BuildDir building(tmp);
        // The directory gets what the umask allows, like the files in it (mkdtemp made it 0700).
        const mode_t mask = umask(0);
        umask(mask);
        chmod(tmp.c_str(), 0777 & ~mask);
        const char* single[] = {kSingleMedium};
        for (const char* m : o.fourFiles ? std::vector<const char*>(kMediaFiles, kMediaFiles + 4)
                                         : std::vector<const char*>(single, single + 1))
            if (int32_t e = kesdb_layMedium((tmp + "/" + m).c_str(), size, 0); e != 0)
                fail(std::string("cannot lay down ") + m + ": " + std::strerror(e));
        writeText(tmp + "/" + kDescriptorFile, descriptorText(o.fourFiles));
        // Media files are named relative to the directory, so it works wherever it is moved;
        // the drivers of another machine are stood in for by the tool's own while building.
        writeText(tmp + "/media.conf", mediaConfigText(o.fourFiles, libs));
        // Building needs no hook; the hooks of another machine are not loaded here.
        writeText(tmp + "/hook.conf", o.targetLibDir.empty() ? hooks : "");
        {
            // Nobody sees the directory before it is complete, so it is built through the
            // mapped driver and written to the device once, below; its tables are private,
            // so the new directory has none.
            Database db(tmp, Access::Private);
            FastMedia fast(db, FastMedia::Access::Exclusive);
            makeRoot(db);
            importInto(db, items, static_cast<uint32_t>(o.hooks.size()), &progress);
            fast.flush();
        }
        writeText(tmp + "/hook.conf", hooks);
        // Every file and the directory reach the device before the directory takes its name.
        for (const char* m : o.fourFiles ? std::vector<const char*>(kMediaFiles, kMediaFiles + 4)
                                         : std::vector<const char*>(single, single + 1))
            syncPath(tmp + "/" + m);
        for (const char* f : {kDescriptorFile, "media.conf", "hook.conf"}) syncPath(tmp + "/" + f);
        syncPath(tmp);
        checkInterrupted();
        building.finish();
        if (rename(tmp.c_str(), finalDir.c_str()) != 0)
            fail("cannot rename " + tmp + " to " + finalDir + ": " + std::strerror(errno));
        syncPath(parentOf(finalDir));
    } catch (...) {
        fs::remove_all(tmp, ec);
        throw;
    }
    (void)elsewhere;  // started where it is installed; its first start-up there keeps its id
    return kExitOk;
}

int cmdImport(const std::string& dir, const std::string& file, double wait) {
    Progress progress("import", 0);
    const std::vector<Item> items = parseDescription(file);  // checked before the database is touched
    progress.setTotal(countItems(items));
    Database db(dir);
    const uint32_t root = db.root();
    if (kesDBMGetFirstChild(&db.s, root) != 0) fail("the database is not empty (its root has children)");
    const uint32_t hooks = static_cast<uint32_t>(std::max(hook_getCount(), 0));
    if (highestHook(items) > hooks)
        fail(file + ": the description uses hook " + std::to_string(highestHook(items)) + " but only " +
             std::to_string(hooks) + " hooks are configured");
    ScopedLock lock(db, root, wait, "import");

    // All or nothing: the media files are copied aside first and put back when the import
    // fails half-way.
    std::vector<std::string> media = db.mediaFiles();
    std::error_code ec;
    for (const std::string& m : media)
        if (m.empty() || !fs::is_regular_file(m, ec))
            fail("import needs media kept in files ('" + m + "' is not); use \"kesdb create DIR --from FILE\"");
    std::vector<std::string> saved;
    auto dropCopies = [&] {
        for (const std::string& c : saved) fs::remove(c, ec);
    };
    try {
        for (const std::string& m : media) {
            const std::string copy = m + ".kesdb-import";
            if (!fs::copy_file(m, copy, fs::copy_options::overwrite_existing, ec))
                fail("cannot copy " + m + " aside: " + ec.message());
            saved.push_back(copy);
        }
        // Through the mapped driver, which other processes using the database see as well;
        // the media reach the device once, at the end.
        FastMedia fast(db, FastMedia::Access::Shared);
        importInto(db, items, hooks, &progress);
        fast.flush();
        for (const std::string& m : media) syncPath(m);
    } catch (...) {
        for (size_t i = 0; i < saved.size(); ++i) fs::rename(saved[i], media[i], ec);
        throw;
    }
    dropCopies();
    return kExitOk;
}

int cmdExport(const std::string& dir, const std::string& fileIn, const std::string& pathIn, bool noHooks) {
    std::string text, file = fileIn, path = pathIn;
    {
        Database db(dir, readAccess(noHooks));  // read through a read-only mapping
        // An argument that names a component of the tree is that path, never a file name.
        if (path.empty() && !file.empty() && file[0] == '/') {
            const uint32_t key = quietly([&] { return kesDBMSearchByName(&db.s, file.c_str()); });
            if (key != 0 && db.pathOf(key) == file) path.swap(file);
        }
        if (!path.empty()) db.find(path);  // an unknown path fails here
        Progress progress("export", 0);
        text = exportText(db, &progress);
    }
    if (!path.empty()) text = subtreeText(text, path);
    if (file.empty() || file == "-") {
        std::fputs(text.c_str(), data());
    } else {
        writeText(file, text);
    }
    return kExitOk;
}

int cmdGet(const std::string& dir, const std::string& path, ValueSet which, bool noHooks) {
    Database db(dir, readAccess(noHooks));
    const uint32_t key = db.find(path);
    const uint32_t type = leafType(db, key, path);
    const int32_t len = kesDBMGetLength(&db.s, key);
    if (len <= 0 || len > kValueMax) lengthFailure(db.s, len, "get " + path);
    std::string buf(static_cast<size_t>(len), '\0');
    int32_t n = len;
    const int32_t rc = which == ValueSet::Current   ? kesDBMGetGeneric(&db.s, key, buf.data(), &n)
                       : which == ValueSet::Default ? kesDBMGetDefaultGeneric(&db.s, key, buf.data(), &n)
                                                    : kesDBMGetFactoryGeneric(&db.s, key, buf.data(), &n);
    if (rc != 0) refused(db, key, path, rc);
    buf.resize(static_cast<size_t>(std::max(0, std::min(n, len))));
    std::fprintf(data(), "%s\n", valueToText(type, buf).c_str());
    return kExitOk;
}

int cmdSet(const std::string& dir, const std::string& path, const std::string& text, ValueSet which, double wait) {
    Database db(dir);
    const uint32_t key = db.find(path);
    const uint32_t type = leafType(db, key, path);
    const int32_t len = kesDBMGetLength(&db.s, key);
    if (len <= 0 || len > kValueMax) lengthFailure(db.s, len, "set " + path);
    // The value is converted and checked by the leaf's type before the library sees it.
    std::string data;
    if (type == String) {
        if (static_cast<int64_t>(text.size()) + 1 > len)
            fail("value '" + text + "' does not fit " + path + " (" + std::to_string(len) + " bytes with the NUL)");
        if (!validUtf8(text)) fail("value for " + path + " is not UTF-8 text");
        data = text;
        data.resize(static_cast<size_t>(len), '\0');
    } else if (type == Generic) {
        if (!fromHex(text, data)) fail("value '" + text + "' does not parse as Generic (hex digit pairs)");
        if (static_cast<int64_t>(data.size()) > len)
            fail("value '" + text + "' does not fit " + path + " (" + std::to_string(len) + " bytes)");
        data.resize(static_cast<size_t>(len), '\0');
    } else if (std::string why = numberFromText(type, text, data); !why.empty()) {
        fail("value '" + text + "' " + why);
    }
    const int32_t size = static_cast<int32_t>(data.size());
    ScopedLock lock(db, key, wait, "set " + path);
    const int32_t rc = which == ValueSet::Default ? kesDBMSetDefaultGeneric(&db.s, key, data.data(), size)
                       : which == ValueSet::Factory
                           ? value_setGeneric(&db.s, kesDBMGetFactoryValueKey(&db.s, key), data.data(), size)
                           : kesDBMSetGeneric(&db.s, key, data.data(), size);
    if (rc != 0) refused(db, key, path, rc, data);
    return kExitOk;
}

// The named component is locked for the whole command, and each leaf below it while it is
// copied (a lock covers its own component only).
namespace {

// Runs `copy` (a transfer between a leaf's value sets) on every leaf at or below `path`, each
// under its lock. Below a node the copies run through the mapped driver under the media
// journal: all of them or, when one is refused, none; the media reach the device once.
template <class Copy>
int copyBelow(const std::string& dirIn, const std::string& path, double wait, const std::string& what, Copy copy) {
    const std::string dir = absolutePath(dirIn);
    Database db(dir);
    const uint32_t key = db.find(path);
    const bool node = kesDBMGetType(&db.s, key) < 0;
    std::optional<DirectoryGuard> guard;
    std::optional<FastMedia> fast;
    std::optional<MediaJournal> journal;
    if (node) {
        guard.emplace(dir);
        fast.emplace(db, FastMedia::Access::Shared);
        journal.emplace(dir, db.mediaFiles());
    }
    ScopedLock lock(db, key, wait, what + " " + path);
    const int32_t rc = forEachLeafLocked(db, key, key, wait, what, [&](uint32_t k) { return copy(&db.s, k); });
    if (rc != 0) copyRefused(what + " " + path, db.s, rc);
    if (node) {
        fast->flush();
        journal->commit();
    }
    return kExitOk;
}

}  // namespace

int cmdReset(const std::string& dir, const std::string& path, double wait) {
    return copyBelow(dir, path, wait, "reset", kesDBMDefaultToCurrent);
}

int cmdFactoryToDefault(const std::string& dir, const std::string& path, double wait) {
    return copyBelow(dir, path, wait, "factory-to-default", kesDBMFactoryToDefault);
}

int cmdPrint(const std::string& dir, const std::string& path, bool noHooks) {
    Database db(dir, readAccess(noHooks));
    const uint32_t key = db.find(path);
    // The library prints the tree on standard output, which is the diagnostics' descriptor
    // (main.cpp): for this command it is the data asked for.
    std::fflush(stdout);
    std::fflush(data());
    const int diagnostics = dup(1);
    dup2(fileno(data()), 1);
    db.s.error = 0;
    kesDBMtraverseAndPrint(&db.s, key);
    std::fflush(stdout);
    if (diagnostics >= 0) {
        dup2(diagnostics, 1);
        close(diagnostics);
    }
    // The library's walk stops at a component reached twice or too deep, and records it.
    if (db.s.error != 0)
        fail("print stopped at component " + std::to_string(static_cast<uint32_t>(db.s.errorDetail)) + ": " +
                 codeText(static_cast<int32_t>(db.s.error)) + " (a damaged tree; 'kesdb check' lists what is wrong)",
             exitFor(static_cast<int32_t>(db.s.error)));
    return kExitOk;
}

int cmdLock(const std::string& dir, const std::string& path, bool shared, double wait) {
    Database db(dir);
    const uint32_t key = db.find(path);
    requireRegisteredLocks(db);
    lockWithin(db, key, shared, wait, "lock " + path);
    return kExitOk;
}

int cmdUnlock(const std::string& dir, const std::string& path) {
    Database db(dir);
    const uint32_t key = db.find(path);
    requireRegisteredLocks(db);
    if (int32_t rc = kesDBMUnlock(&db.s, key); rc != 0)
        fail("unlock " + path + ": " + codeText(rc) + startCause(db.dir()), exitFor(rc));
    return kExitOk;
}

int cmdLocks(const std::string& dir, bool asJson) {
    Database db(dir);
    const TablePaths tables = tablePaths(dir);
    json all = json::array();
    for (const LockView& l : listLocks(tables.session, tables.lock)) {
        // A lock of another database sharing the lock table is named by its database and key.
        std::string path = l.dbId == db.s.dbId ? db.pathOf(l.key) : "";
        if (path.empty()) {
            char other[48];
            std::snprintf(other, sizeof other, "db %u key 0x%x", l.dbId, l.key);
            path = other;
        }
        const char* mode = l.shared ? "shared" : "exclusive";
        if (asJson) {
            json j = {{"path", path}, {"mode", mode}, {"session", l.session}};
            j["pid"] = l.pid ? json(l.pid) : json(nullptr);
            j["process"] = l.process;
            all.push_back(j);
            continue;
        }
        std::string holder = "session " + std::to_string(l.session);
        if (l.pid) holder += " pid " + std::to_string(l.pid);
        std::fprintf(data(), "%s %s %s (%s)\n", path.c_str(), mode, holder.c_str(), l.process);
    }
    if (asJson) std::fputs((all.dump(2) + "\n").c_str(), data());
    return kExitOk;
}

}  // namespace kesdb
