// kesdb migrate: a database brought to the structure of a new description (a firmware
// upgrade), keeping every current value the new structure still accepts.
//
// The old tree is read whole into memory, the new description is filled with the kept
// values, and the result is built beside the directory by create (same descriptor, media
// layout, media size and hook configuration) and takes the directory's place by an atomic
// exchange of the two directories. Before the exchange nothing of the old database has
// changed; after it the new database is whole. A kill or power cut at any moment leaves
// one of the two in place and, at most, a leftover beside it ("DIR.kesdb-new", or
// "DIR.kesdb-old" where the exchange is not available), which the next migrate removes or,
// when the directory itself is missing, puts back.
//
// Running processes: the shared tables (db.tbl, session.tbl, lock.tbl and the files
// beside them: .sem, the change record) are carried over as the same files, so the database keeps its registration and
// id; but component keys change, so migrate refuses while a session of a running process
// is open or a lock is held.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <map>
#include <sstream>
#include <type_traits>
#include <utility>

#include "database.hpp"
#include "description.hpp"
#include "fast_media.hpp"
#include "journal.hpp"
#include "migrate.hpp"
#include "progress.hpp"
#include "treeio.hpp"
#include "values.hpp"

namespace fs = std::filesystem;

namespace kesdb {

namespace {

constexpr const char* kNewSuffix = ".kesdb-new";
constexpr const char* kOldSuffix = ".kesdb-old";
constexpr const char* kTables[] = {"db.tbl", "session.tbl", "lock.tbl"};


std::string parentPath(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == 0 || slash == std::string::npos ? "/" : path.substr(0, slash);
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream buf;
    buf << in.rdbuf();
    return buf.str();
}

// ---- values carried from the old leaf to the new one ----

// Why `v` has no exact value of type To ("" when `out` holds it).
template <class To, class From>
std::string convertExactly(From v, To& out) {
    if constexpr (std::is_floating_point_v<From>) {
        if (!std::isfinite(v)) {
            if constexpr (std::is_floating_point_v<To>) {
                out = static_cast<To>(v);
                return "";
            }
            return "is not a whole number";
        }
    }
    if constexpr (std::is_floating_point_v<To>) {
        const To t = static_cast<To>(v);
        if (!std::isfinite(t)) return "is out of range";
        if constexpr (std::is_floating_point_v<From>) {
            if (static_cast<From>(t) != v) return "has no exact value";
        } else {
            const double high = std::ldexp(1.0, std::numeric_limits<From>::digits);
            const double low = std::is_signed_v<From> ? -high : 0.0;
            const double d = static_cast<double>(t);
            if (!(d >= low && d < high) || static_cast<From>(t) != v) return "has no exact value";
        }
        out = t;
        return "";
    } else if constexpr (std::is_floating_point_v<From>) {
        if (std::trunc(v) != v) return "is not a whole number";
        const double high = std::ldexp(1.0, std::numeric_limits<To>::digits);
        const double low = std::is_signed_v<To> ? -high : 0.0;
        if (!(static_cast<double>(v) >= low && static_cast<double>(v) < high)) return "is out of range";
        out = static_cast<To>(v);
        return "";
    } else {
        if (!std::in_range<To>(v)) return "is out of range";
        out = static_cast<To>(v);
        return "";
    }
}

// A numeric value converted to another numeric type; "" or why not.
std::string convertNumber(uint32_t from, const std::string& bytes, uint32_t to, std::string& out) {
    return withType(from, [&](auto f) {
        std::memcpy(&f, bytes.data(), std::min(bytes.size(), sizeof f));
        return withType(to, [&](auto t) {
            std::string why = convertExactly(f, t);
            if (!why.empty()) return numberToText(from, bytes) + " " + why + " for " + typeName(to);
            out.assign(reinterpret_cast<const char*>(&t), sizeof t);
            return std::string();
        });
    });
}

}  // namespace

std::string constraintReason(const Item& it, const std::string& value) {
    const std::string v = numberToText(it.type, value);
    const size_t w = static_cast<size_t>(widthOf(it.type));
    auto member = [&](const std::string& packed, size_t i) { return numberToText(it.type, packed.substr(i * w, w)); };
    if (it.hasEnum && enumVerdict(it.type, it.members, value) != 0) {
        std::string list;
        for (size_t i = 0; i < it.count && i < 10; ++i) list += (i ? ", " : "") + member(it.members, i);
        if (it.count > 10) list += ", ...";
        return v + " is not one of " + list;
    }
    if (!it.hasRange) return "";
    switch (rangeVerdict(it.type, it.range, value)) {
        case KESDB_ERR_CSTRT_BELOWMIN:
            return v + " is below the minimum " + member(it.range, 0);
        case KESDB_ERR_CSTRT_ABOVEMAX:
            return v + " is above the maximum " + member(it.range, 1);
        case KESDB_ERR_CSTRT_STEP:
            return v + " is not on a step of " + member(it.range, 2) + " from " + member(it.range, 0);
        default:
            return "";
    }
}

std::string valueText(uint32_t type, const std::string& bytes) {
    if (type == Generic) return toHex(bytes);
    if (type == String) return json(std::string(bytes.c_str(), strnlen(bytes.data(), bytes.size()))).dump();
    return numberToText(type, bytes);
}

std::string carryValue(const Item& old, const Item& leaf, std::string& out) {
    const std::string& v = old.current;
    if (isNumeric(old.type) && isNumeric(leaf.type)) {
        if (std::string why = convertNumber(old.type, v, leaf.type, out); !why.empty()) return why;
        return constraintReason(leaf, out);
    }
    if (old.type != leaf.type)
        return "the type changed from " + std::string(typeName(old.type)) + " to " + typeName(leaf.type);
    if (old.type == String) {
        const std::string text(v.c_str(), strnlen(v.data(), v.size()));
        if (static_cast<int64_t>(text.size()) + 1 > leaf.size)
            return "text of " + std::to_string(text.size()) + " bytes does not fit size " + std::to_string(leaf.size);
        out = text;
    } else {
        // Generic: only zero bytes may be cut off.
        const size_t size = static_cast<size_t>(leaf.size);
        if (v.size() > size && v.find_first_not_of('\0', size) != std::string::npos)
            return std::to_string(v.size()) + " bytes do not fit size " + std::to_string(leaf.size);
        out = v.substr(0, std::min(v.size(), size));
    }
    out.resize(static_cast<size_t>(leaf.size), '\0');
    return "";
}

namespace {

// ---- the trees ----

void indexTree(const std::vector<Item>& items, const std::string& parent, std::map<std::string, const Item*>& out) {
    for (const Item& it : items) {
        const std::string path = childPath(parent, it.name);
        out[path] = &it;
        indexTree(it.children, path, out);
    }
}

struct Merge {
    std::map<std::string, const Item*> old, fresh;
    std::vector<std::string> report;

    // The new tree's leaves, with their current values taken from the old ones.
    void fill(std::vector<Item>& items, const std::string& parent) {
        for (Item& it : items) {
            const std::string path = childPath(parent, it.name);
            if (!it.leaf) {
                fill(it.children, path);
                continue;
            }
            auto found = old.find(path);
            if (found == old.end() || !found->second->leaf) {
                report.push_back(path + ": added with " + valueText(it.type, it.current) +
                                 (found == old.end() ? "" : " (was a node)"));
                continue;
            }
            std::string value;
            const std::string why = carryValue(*found->second, it, value);
            if (why.empty()) {
                it.current = value;
            } else {
                it.current = it.defaults;
                report.push_back(path + ": reset to " + valueText(it.type, it.current) + " (" + why + ")");
            }
        }
    }

    // The old leaves that have no leaf in the new tree.
    void drop(const std::vector<Item>& items, const std::string& parent) {
        for (const Item& it : items) {
            const std::string path = childPath(parent, it.name);
            if (!it.leaf) {
                drop(it.children, path);
                continue;
            }
            auto found = fresh.find(path);
            if (found != fresh.end() && found->second->leaf) continue;
            std::string why = found != fresh.end() ? "now a node" : "not in the new description";
            // Or an ancestor became a leaf.
            for (std::string up = parent; found == fresh.end() && up != "/"; up = parentPath(up)) {
                auto a = fresh.find(up);
                if (a != fresh.end() && a->second->leaf) {
                    why = up + " is now a leaf";
                    break;
                }
            }
            report.push_back(path + ": dropped (" + why + ")");
        }
    }
};

// ---- the directory ----

struct Layout {
    bool fourFiles = false;
    uint32_t size = 0;
    std::vector<std::string> hooks;
};

// The size a medium was laid with: the end of its free space when that is the last part
// of the laid region (the file grows beyond it with appended value data), else the file's
// size rounded down to 4 KiB.
uint32_t laidSize(const std::string& file) {
    std::error_code ec;
    const uintmax_t bytes = fs::file_size(file, ec);
    if (ec) fail("cannot read the size of " + file + ": " + ec.message());
    uint32_t end = 0;
    if (std::ifstream in(file, std::ios::binary); in) {
        uint32_t element[2] = {};
        in.seekg(12);
        in.read(reinterpret_cast<char*>(&element[0]), 4);
        for (size_t steps = 0; in && element[0] != 0 && element[0] < bytes && steps < (1u << 20); ++steps) {
            const uint32_t key = element[0];
            in.seekg(key);
            in.read(reinterpret_cast<char*>(element), sizeof element);
            if (in) end = std::max<uint32_t>(end, key + element[1]);
        }
    }
    return end >= 4096 && end <= bytes ? end : static_cast<uint32_t>(std::min<uintmax_t>(bytes, 0xFFFFF000u) & ~4095u);
}

Layout layoutOf(const std::string& dir) {
    Layout l;
    const std::string descriptor = readFile(dir + "/" + kDescriptorFile);
    if (descriptor == descriptorText(true))
        l.fourFiles = true;
    else if (descriptor != descriptorText(false))
        fail(dir + "/" + kDescriptorFile +
             " is not one that \"kesdb create\" writes; migrate rebuilds only such databases");
    for (const char* m : l.fourFiles ? std::vector<const char*>(kMediaFiles, kMediaFiles + 4)
                                     : std::vector<const char*>{kSingleMedium})
        l.size = std::max(l.size, laidSize(dir + "/" + m));
    std::istringstream hooks(readFile(dir + "/hook.conf"));
    for (std::string line; std::getline(hooks, line);)
        if (line.find_first_not_of(" \t") != std::string::npos && line[line.find_first_not_of(" \t")] != '#')
            l.hooks.push_back(line);
    return l;
}

// Refuses while a running process has a session open or any lock is held: their keys
// would name other components once the tree is rebuilt.
void requireIdle(const std::string& dir) {
    const TablePaths paths = tablePaths(dir);
    SessionTable sessions{};
    if (std::ifstream in(paths.session, std::ios::binary); in) {
        in.read(reinterpret_cast<char*>(&sessions), sizeof sessions);
        uint32_t e = sessions.usedHead;
        for (size_t steps = 0; e != 0 && e < KESDB_SESSION_ENTRIES && steps < KESDB_SESSION_ENTRIES; ++steps) {
            const pid_t pid = static_cast<pid_t>(sessions.entry[e].pid);
            if (pid != getpid() && (kill(pid, 0) == 0 || errno != ESRCH))
                fail("process " + std::to_string(pid) + " has a session of " + dir +
                         " open; migrate needs every process of the database stopped",
                     kExitBusy);
            e = sessions.entry[e].next;
        }
    }
    LockTable locks{};
    if (std::ifstream in(paths.lock, std::ios::binary); in) {
        in.read(reinterpret_cast<char*>(&locks), sizeof locks);
        if (in && locks.compHead != 0)
            fail(dir + " has component locks; release them (\"kesdb unlock\", or \"kesdb orphans --clear --closed\" "
                       "for those of ended processes) before migrate",
                 kExitBusy);
    }
}

// Every file and the directory itself written to the device.
void syncTree(const std::string& dir) {
    std::error_code ec;
    for (const auto& e : fs::directory_iterator(dir, ec))
        if (e.is_regular_file(ec) && !syncQuietly(e.path().string()))
            fail("cannot sync " + e.path().string() + ": " + std::strerror(errno));
    if (!syncQuietly(dir)) fail("cannot sync " + dir + ": " + std::strerror(errno));
}

// `fresh` takes the place of `dir`; the old database is removed afterwards.
void swapInto(const std::string& fresh, const std::string& dir) {
    const std::string parent = fs::path(dir).parent_path().string();
    checkInterrupted();
    if (renameat2(AT_FDCWD, fresh.c_str(), AT_FDCWD, dir.c_str(), RENAME_EXCHANGE) == 0) {
        syncQuietly(parent);
    } else if (errno == EINVAL || errno == ENOSYS || errno == ENOTSUP) {
        // No exchange on this file system: two renames, undone by the next migrate when a
        // kill falls between them.
        const std::string old = dir + kOldSuffix;
        if (rename(dir.c_str(), old.c_str()) != 0) fail("cannot rename " + dir + ": " + std::strerror(errno));
        if (rename(fresh.c_str(), dir.c_str()) != 0) {
            const int e = errno;
            rename(old.c_str(), dir.c_str());
            fail("cannot rename " + fresh + " to " + dir + ": " + std::strerror(e));
        }
        syncQuietly(parent);
        std::error_code ec;
        fs::remove_all(old, ec);
        return;
    } else {
        fail("cannot exchange " + fresh + " and " + dir + ": " + std::strerror(errno));
    }
    std::error_code ec;
    fs::remove_all(fresh, ec);  // now the old database
}

}  // namespace

void migrateRecover(const std::string& dirIn) {
    std::string dir = dirIn;
    while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
    std::error_code ec;
    const std::string old = dir + kOldSuffix;
    if (!fs::exists(dir, ec) && fs::exists(old + "/" + kDescriptorFile, ec)) {
        if (rename(old.c_str(), dir.c_str()) != 0)
            fail("cannot put " + old + " back to " + dir + ": " + std::strerror(errno));
        std::fprintf(stderr, "kesdb: %s: put back the database an interrupted migrate had moved aside\n", dir.c_str());
    }
    const fs::path p(dir);
    const std::string base = p.filename().string();
    for (const auto& e : fs::directory_iterator(p.parent_path().empty() ? fs::path(".") : p.parent_path(), ec)) {
        const std::string name = e.path().filename().string();
        if (name.rfind(base + kNewSuffix, 0) == 0 || name == base + kOldSuffix) fs::remove_all(e.path(), ec);
    }
}

int cmdMigrate(const std::string& dirIn, const std::string& file, bool check, uint32_t size) {
    Progress progress("migrate", 0);  // the old tree read, then the new one built
    std::vector<Item> items = parseDescription(file);  // a bad description touches nothing
    migrateRecover(dirIn);
    const std::string dir = absolutePath(dirIn);
    DirectoryGuard guard(dir);
    journalRecover(dir);
    const Layout layout = layoutOf(dir);
    if (highestHook(items) > layout.hooks.size())
        fail(file + ": the description uses hook " + std::to_string(highestHook(items)) + " but " + dir + " has only " +
             std::to_string(layout.hooks.size()) + " hooks configured");
    if (!check) requireIdle(dir);

    std::vector<Item> oldItems;
    {
        Database db(dir);
        FastMedia fast(db, FastMedia::Access::Shared);  // read through
        oldItems = readTree(db, &progress);
    }
    Merge m;
    indexTree(oldItems, "/", m.old);
    indexTree(items, "/", m.fresh);
    m.fill(items, "/");
    m.drop(oldItems, "/");
    for (const std::string& line : m.report) std::fprintf(data(), "%s\n", line.c_str());
    if (check) return kExitOk;

    CreateOptions o;
    o.dir = dir + kNewSuffix;
    o.installDir = dir;
    o.fourFiles = layout.fourFiles;
    o.size = size ? size : layout.size;
    o.hooks = layout.hooks;
    o.items = std::move(items);
    o.progress = &progress;
    cmdCreate(o);
    try {
        // The configuration as it was, and the shared tables as the same files.
        for (const char* f : {"media.conf", "hook.conf"})
            if (!fs::copy_file(dir + "/" + f, o.dir + "/" + f, fs::copy_options::overwrite_existing))
                fail("cannot copy " + dir + "/" + f);
        // (each table with the files beside it: ".sem", the change record ".changes", ...)
        std::error_code ec;
        for (const auto& e : fs::directory_iterator(dir, ec)) {
            const std::string name = e.path().filename().string();
            bool table = false;
            for (const char* t : kTables) table = table || name.rfind(t, 0) == 0;
            if (table && link((dir + "/" + name).c_str(), (o.dir + "/" + name).c_str()) != 0)
                fail("cannot link " + dir + "/" + name + ": " + std::strerror(errno));
        }
        syncTree(o.dir);
        swapInto(o.dir, dir);
    } catch (...) {
        std::error_code ec;
        fs::remove_all(o.dir, ec);
        throw;
    }
    return kExitOk;
}

}  // namespace kesdb
