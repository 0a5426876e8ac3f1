// kesdb: import --merge, add, delete and factory-reset. Everything that can be checked is
// checked before the first write; the writes then run under the media journal, so a
// failure, a kill or a power cut on the way leaves the database as it was.
#include "edit.hpp"

#include <algorithm>
#include <fstream>
#include <iostream>
#include <set>
#include <sstream>
#include <unordered_map>
#include <unordered_set>

#include "common.hpp"
#include "database.hpp"
#include "description.hpp"
#include "fast_media.hpp"
#include "journal.hpp"
#include "lock_wait.hpp"
#include "migrate.hpp"
#include "progress.hpp"
#include "treeio.hpp"
#include "values.hpp"

namespace kesdb {

namespace {

// A path without trailing slashes, beginning with one.
std::string normalPath(std::string p) {
    while (p.size() > 1 && p.back() == '/') p.pop_back();
    if (p.empty() || p[0] != '/') p = "/" + p;
    return p;
}

uint32_t findOrNoPath(Database& db, const std::string& path) {
    try {
        return db.find(path);
    } catch (const Failure& f) {
        fail(f.what, kExitNoPath);
    }
}

// A write the library refused: its code with the hook's result, and the code's exit status.
[[noreturn]] void writeFailed(const std::string& what, const Session& s, int32_t rc) {
    std::string detail;
    if (rc >= KESDB_ERR_HOOK_PREGET && rc <= KESDB_ERR_HOOK_POSTSET)
        detail = " (hook result " + std::to_string(static_cast<int32_t>(s.errorDetail)) + ")";
    fail(what + ": " + codeText(rc) + detail + "; nothing was changed", exitFor(rc));
}

// A leaf of the database as export describes it, with its key.
struct Leaf {
    Item item;
    uint32_t key = 0;
};

// The leaves of the database by path, from one walk of the tree (a search per leaf would
// read every sibling before it again). A path held twice names its first component, as the
// search does.
std::unordered_map<std::string, Leaf> leavesOf(Database& db) {
    std::unordered_map<std::string, Leaf> out;
    forEachLeaf(db, db.root(), "/", [&](const Item& leaf, uint32_t key) { out.try_emplace(leaf.name, Leaf{leaf, key}); });
    return out;
}

json readJson(const std::string& file) {
    std::stringstream buf;
    if (file == "-") {
        buf << std::cin.rdbuf();
    } else {
        std::ifstream in(file, std::ios::binary);
        if (!in) fail("cannot read " + file);
        buf << in.rdbuf();
    }
    try {
        return json::parse(buf.str());
    } catch (const json::parse_error& e) {
        fail(file + ": not valid JSON: " + e.what());
    }
}

// One value to write: the leaf's path and key, which of its values, the bytes.
struct Write {
    std::string path;
    uint32_t key;
    int which;  // 0 current, 1 default, 2 factory
    std::string bytes;
};

void collectMerge(const json& children, const std::string& parent, const std::unordered_map<std::string, Leaf>& leaves,
                  const std::string& file, std::vector<Write>& out) {
    if (!children.is_array()) fail(file + ": " + parent + ": \"children\" must be an array");
    for (const json& c : children) {
        if (!c.is_object() || !c.contains("name") || !c["name"].is_string())
            fail(file + ": " + parent + ": a component must be an object with a \"name\"");
        const std::string path = childPath(parent, c["name"].get<std::string>());
        if (c.contains("children")) {
            collectMerge(c["children"], path, leaves, file, out);
            continue;
        }
        auto found = leaves.find(path);
        if (found == leaves.end()) fail(file + ": " + path + ": no such leaf in the database", kExitNoPath);
        const Item& leaf = found->second.item;
        if (c.contains("type") && c["type"] != typeName(leaf.type))
            fail(file + ": " + path + ": the leaf is a " + typeName(leaf.type) + " in the database, not " +
                 c["type"].dump() + " (\"kesdb migrate\" changes types)");
        const char* keys[] = {"current", "default", "factory"};
        bool any = false;
        for (int k = 0; k < 3; ++k) {
            if (!c.contains(keys[k])) continue;
            any = true;
            const std::string where = file + ": " + path + " " + keys[k];
            Write w{path, found->second.key, k, leafValue(leaf, c[keys[k]], where)};
            if (std::string why = isNumeric(leaf.type) ? constraintReason(leaf, w.bytes) : ""; !why.empty())
                fail(where + ": " + why, kExitRefused);
            out.push_back(std::move(w));
        }
        if (!any) fail(file + ": " + path + ": a leaf needs \"current\", \"default\" or \"factory\"");
    }
}

// Of the constraint records in `gone`, those that no value of a leaf below `key` uses are
// left in it. False when the tree cannot be walked whole (a record unreadable, a list that
// loops): then nothing can be said to be unused.
bool keepUsed(Session& s, uint32_t key, int depth, std::unordered_set<uint32_t>& entered, std::set<uint32_t>& gone) {
    CompRecord rec{};
    if (depth > kDepthMax || !entered.insert(key).second || !comp_getComponent(&s, key, &rec)) return false;
    if (rec.kind == KESDB_KIND_LEAF) {
        LeafRecord leaf{};
        if (!comp_getLeaf(&s, key, &leaf)) return false;
        for (uint32_t v : {leaf.currentValue, leaf.defaultValue, leaf.factoryValue}) {
            ValueRecord r{};
            if (v != 0 && !value_get(&s, v, &r)) return false;
            if (v != 0) gone.erase(r.constraintKey);
        }
        return true;
    }
    for (uint32_t c = kesDBMGetFirstChild(&s, key); c != 0; c = kesDBMGetNextChild(&s, c))
        if (!keepUsed(s, c, depth + 1, entered, gone)) return false;
    return true;
}

// Gives a constraint record back to its medium's free list, with the member array of an
// enumeration; a record of no known kind is left alone. The library's code, 0 when released.
int32_t releaseConstraint(Database& db, uint32_t key) {
    Session& s = db.s;
    const uint32_t medium = db.param().constraintMedium, type = constraint_getType(&s, key);
    s.error = 0;
    if (type >= KESDB_CSTRT_ENUM_FACTOR) {
        EnumRecord e{};
        const uint32_t member = type / KESDB_CSTRT_ENUM_FACTOR;
        // A record that does not describe its array (damaged) is left alone.
        if (!enum_get(&s, key, &e) || !isNumeric(member) || e.elementSize != static_cast<uint32_t>(widthOf(member)) ||
            e.count > (1u << 20))
            return 0;
        flst_m_release(&s, medium, e.arrayKey, std::max(1u, e.elementSize * e.count));
        flst_m_release(&s, medium, key, sizeof e);
    } else if (isNumeric(type)) {
        // min, max and step behind the key and the type, padded to a word
        flst_m_release(&s, medium, key, (8u + 3u * static_cast<uint32_t>(widthOf(type)) + 3u) & ~3u);
    }
    return static_cast<int32_t>(s.error);
}

}  // namespace

int cmdMerge(const std::string& dirIn, const std::string& file, double wait) {
    Progress progress("import --merge", 0, "values");  // the command's time counts from here
    const json j = readJson(file);  // read before the database is touched
    if (!j.is_object() || !j.contains("children")) fail(file + ": the top level must be an object with \"children\"");
    const std::string dir = absolutePath(dirIn);
    DirectoryGuard guard(dir);
    Database db(dir);
    FastMedia fast(db, FastMedia::Access::Shared);  // other processes see every write at once
    std::vector<Write> writes;
    collectMerge(j["children"], "/", leavesOf(db), file, writes);
    MediaJournal journal(dir, db.mediaFiles());
    progress.setTotal(writes.size());
    for (const Write& w : writes) {
        checkInterrupted();
        progress.step();
        const uint32_t key = w.key;
        ScopedLock lock(db, key, wait, "import --merge " + w.path);
        const int32_t size = static_cast<int32_t>(w.bytes.size());
        const char* bytes = w.bytes.data();
        const int32_t rc = w.which == 0   ? kesDBMSetGeneric(&db.s, key, bytes, size)
                           : w.which == 1 ? kesDBMSetDefaultGeneric(&db.s, key, bytes, size)
                                          : value_setGeneric(&db.s, kesDBMGetFactoryValueKey(&db.s, key), bytes, size);
        if (rc != 0) writeFailed("import --merge: " + w.path, db.s, rc);
    }
    fast.flush();
    journal.commit();
    return kExitOk;
}

int cmdAdd(const std::string& dirIn, const AddOptions& o, double wait) {
    const std::string path = normalPath(o.path);
    if (path == "/") fail("add: the root exists already", kExitUsage);
    const size_t slash = path.rfind('/');
    const std::string parentPath = slash == 0 ? "/" : path.substr(0, slash), name = path.substr(slash + 1);
    const int depth = static_cast<int>(std::count(path.begin(), path.end(), '/'));

    // The component as a description, checked by the same rules as an import.
    json c;
    c["name"] = name;
    if (o.type.empty()) {
        if (!o.size.empty() || !o.value.empty() || !o.range.empty() || !o.members.empty())
            fail("add: a node (no --type) takes no --size, --value, --range or --enum", kExitUsage);
        c["children"] = json::array();
    } else {
        uint32_t type = 0;
        if (!typeByName(o.type, type))
            fail("add: unknown type " + o.type + " (Generic String Sint8 ... Float64)", kExitUsage);
        c["type"] = o.type;
        auto number = [&](const std::string& text, const char* what) {
            std::string bytes;
            if (std::string why = numberFromText(type, text, bytes); !why.empty())
                fail(std::string("add: ") + what + " '" + text + "' " + why, kExitUsage);
            return numberToJson(type, bytes);
        };
        if (!o.size.empty()) {
            char* end = nullptr;
            const long n = std::strtol(o.size.c_str(), &end, 10);
            if (*end != '\0' || o.size.empty()) fail("add: --size " + o.size + " is not a number", kExitUsage);
            c["size"] = n;
        }
        if (!o.range.empty()) {
            if (!isNumeric(type)) fail("add: only numeric leaves take a range", kExitUsage);
            c["range"] = {{"min", number(o.range[0], "range minimum")},
                          {"max", number(o.range[1], "range maximum")},
                          {"step", number(o.range[2], "range step")}};
        }
        if (!o.members.empty()) {
            if (!isNumeric(type)) fail("add: only numeric leaves take an enumeration", kExitUsage);
            json e = json::array();
            std::stringstream list(o.members);
            for (std::string m; std::getline(list, m, ',');) e.push_back(number(m, "enumeration member"));
            c["enum"] = e;
        }
        if (!o.value.empty())
            c["current"] = isNumeric(type) ? number(o.value, "value") : json(o.value);
        else if (c.contains("range"))
            c["current"] = c["range"]["min"];
        else if (c.contains("enum"))
            c["current"] = c["enum"][0];
        else
            c["current"] = isNumeric(type) ? json(0) : json("");
    }
    // Wrapped in its ancestors, so that messages name the whole path.
    json top = c;
    for (std::string up = parentPath; up != "/"; up = up.substr(0, std::max<size_t>(1, up.rfind('/'))))
        top = json{{"name", up.substr(up.rfind('/') + 1)}, {"children", json::array({top})}};
    Item item = parseDescriptionText(json{{"children", json::array({top})}}.dump(), "add").at(0);
    for (int d = 1; d < depth; ++d) {
        Item inner = std::move(item.children.at(0));
        item = std::move(inner);
    }

    const std::string dir = absolutePath(dirIn);
    DirectoryGuard guard(dir);
    Database db(dir);
    const uint32_t parent = findOrNoPath(db, parentPath);
    CompRecord rec{};
    if (!comp_getComponent(&db.s, parent, &rec) || rec.kind != KESDB_KIND_NODE)
        fail("add: " + parentPath + " is not a node");
    ScopedLock lock(db, parent, wait, "add " + path);
    // The path search takes a node whose name begins the name searched for: the new
    // component goes before the first such node, and a new node must stand behind every
    // sibling whose name it begins.
    uint32_t previous = 0;
    bool placed = false;
    for (uint32_t key = kesDBMGetFirstChild(&db.s, parent); key != 0; key = kesDBMGetNextChild(&db.s, key)) {
        char buf[KESDB_NAME_BUFFER] = {};
        if (!kesdb_getString(&db.s, kesDBMGetStringKey(&db.s, key), buf, sizeof buf - 1))
            fail("add: cannot read a name below " + parentPath);
        std::string sibling = buf;
        if (depth > 1 && !sibling.empty() && sibling[0] == '/') sibling.erase(0, 1);
        if (sibling == name) fail("add: " + path + " exists already");
        CompRecord r{};
        comp_getComponent(&db.s, key, &r);
        if (!placed && r.kind == KESDB_KIND_NODE && name.compare(0, sibling.size(), sibling) == 0) placed = true;
        if (placed && !item.leaf && sibling.compare(0, name.size(), name) == 0)
            fail("add: the node " + path + " cannot be placed among its siblings: its name begins " +
                 childPath(parentPath, sibling) + " and another node's name begins its own");
        if (!placed) previous = key;
    }
    MediaJournal journal(dir, db.mediaFiles());
    buildComponent(db, item, parent, previous, parentPath, depth);
    journal.commit();
    return kExitOk;
}

int cmdDelete(const std::string& dirIn, const std::string& pathIn, double wait) {
    const std::string path = normalPath(pathIn);
    if (path == "/") fail("delete: the root cannot be deleted (delete its children)", kExitUsage);
    const std::string dir = absolutePath(dirIn);
    DirectoryGuard guard(dir);
    Database db(dir);
    const uint32_t key = findOrNoPath(db, path);
    // What the component and everything below it hold: names, values and the values'
    // constraints. The component and the parent whose child list changes stay locked; each
    // component below is locked and let go again, so that nobody else holds it when it goes
    // (holding them all would fill the lock table with a large subtree).
    std::vector<uint32_t> strings, values, todo{key};
    std::set<uint32_t> constraints;
    const ScopedLock parentLock(db, kesDBMGetParent(&db.s, key), wait, "delete " + path);
    const ScopedLock ownLock(db, key, wait, "delete " + path);
    while (!todo.empty()) {
        const uint32_t k = todo.back();
        todo.pop_back();
        if (k != key) ScopedLock(db, k, wait, "delete " + path);  // a temporary: let go at once
        strings.push_back(kesDBMGetStringKey(&db.s, k));
        LeafRecord leaf{};
        CompRecord rec{};
        if (!comp_getComponent(&db.s, k, &rec)) fail("delete: cannot read a component below " + path);
        if (rec.kind == KESDB_KIND_LEAF && comp_getLeaf(&db.s, k, &leaf)) {
            for (uint32_t v : {leaf.currentValue, leaf.defaultValue, leaf.factoryValue}) {
                ValueRecord r{};
                if (v != 0 && value_get(&db.s, v, &r) && r.constraintKey != 0) constraints.insert(r.constraintKey);
                values.push_back(v);
            }
        } else {
            for (uint32_t c = kesDBMGetFirstChild(&db.s, k); c != 0; c = kesDBMGetNextChild(&db.s, c))
                todo.push_back(c);
        }
    }
    FastMedia fast(db, FastMedia::Access::Shared);  // a large subtree releases many records
    MediaJournal journal(dir, db.mediaFiles());
    if (int32_t rc = kesDBMDeleteComponentWithSub(&db.s, key); rc != 0) writeFailed("delete " + path, db.s, rc);
    auto error = [&] { return static_cast<int32_t>(db.s.error); };
    for (uint32_t v : values)
        if (v != 0 && kesDBMDeleteValue(&db.s, v) != 0) writeFailed("delete " + path + ": its values", db.s, error());
    for (uint32_t sk : strings)
        if (sk != 0 && str_delete(&db.s, sk) != 0) writeFailed("delete " + path + ": its names", db.s, error());
    // A constraint record can be shared: only those no value left in the database uses go.
    std::unordered_set<uint32_t> entered;
    if (!constraints.empty() && keepUsed(db.s, db.root(), 0, entered, constraints))
        for (uint32_t c : constraints)
            if (int32_t rc = releaseConstraint(db, c); rc != 0) writeFailed("delete " + path + ": its constraints", db.s, rc);
    fast.flush();
    journal.commit();
    return kExitOk;
}

int cmdFactoryReset(const std::string& dirIn, const std::string& path, double wait) {
    const std::string dir = absolutePath(dirIn);
    DirectoryGuard guard(dir);
    Database db(dir);
    const uint32_t key = path.empty() ? db.root() : findOrNoPath(db, path);
    FastMedia fast(db, FastMedia::Access::Shared);
    MediaJournal journal(dir, db.mediaFiles());
    ScopedLock lock(db, key, wait, "factory-reset " + path);
    const int32_t rc = forEachLeafLocked(db, key, key, wait, "factory-reset", [&](uint32_t k) {
        const int32_t r = kesDBMFactoryToDefault(&db.s, k);
        return r != 0 ? r : kesDBMDefaultToCurrent(&db.s, k);
    });
    if (rc != 0) writeFailed("factory-reset", db.s, rc);
    fast.flush();
    journal.commit();
    return kExitOk;
}

}  // namespace kesdb
