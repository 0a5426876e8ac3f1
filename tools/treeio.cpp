#include "treeio.hpp"

#include <algorithm>
#include <cstring>

#include "sizing.hpp"
#include "values.hpp"
#include "walk.hpp"

namespace kesdb {

namespace {

std::string childPath(const std::string& parent, const std::string& name) {
    return (parent == "/" ? "" : parent) + "/" + name;
}

[[noreturn]] void libraryFailure(const Session& s, const std::string& what) {
    fail(what + ": " + codeText(static_cast<int32_t>(s.error)));
}

template <class T>
T at(const std::string& bytes, size_t index) {
    T v{};
    if (bytes.size() >= (index + 1) * sizeof v) std::memcpy(&v, bytes.data() + index * sizeof v, sizeof v);
    return v;
}

// A range record of the leaf's type; its key, or 0 with the cause in the session.
uint32_t makeRange(Session* s, uint32_t type, const std::string& range) {
    auto make = [&](auto rec, auto create) -> uint32_t {
        using T = decltype(rec.min);
        rec.type = type;
        rec.min = at<T>(range, 0);
        rec.max = at<T>(range, 1);
        rec.step = at<T>(range, 2);
        return create(s, &rec) ? rec.key : 0;
    };
    switch (type) {
        case Sint8:
            return make(RangeRecordS8{}, rangeS8_new);
        case Sint16:
            return make(RangeRecordS16{}, rangeS16_new);
        case Sint32:
            return make(RangeRecordS32{}, rangeS32_new);
        case Sint64:
            return make(RangeRecordS64{}, rangeS64_new);
        case Uint8:
            return make(RangeRecordU8{}, rangeU8_new);
        case Uint16:
            return make(RangeRecordU16{}, rangeU16_new);
        case Uint32:
            return make(RangeRecordU32{}, rangeU32_new);
        case Uint64:
            return make(RangeRecordU64{}, rangeU64_new);
        case Float32:
            return make(RangeRecordF32{}, rangeF32_new);
        default:
            return make(RangeRecordF64{}, rangeF64_new);
    }
}

// An enumeration: its array, its record, then the members.
uint32_t makeEnum(Session* s, const Item& it) {
    EnumRecord rec{};
    rec.type = it.type * KESDB_CSTRT_ENUM_FACTOR;
    rec.elementSize = static_cast<uint32_t>(widthOf(it.type));
    rec.count = it.count;
    rec.arrayKey = constraint_newEnumArray(s, rec.elementSize, rec.count);
    if (rec.arrayKey == 0 || rec.arrayKey == KESDB_FLST_FAILED || !enum_new(s, &rec)) return 0;
    if (enum_setData(s, rec.key, rec.elementSize, rec.count, it.members.data()) != 0) return 0;
    return rec.key;
}

void buildLeaf(Database& db, const Item& it, uint32_t parent, uint32_t previous, uint32_t name, const std::string& path,
               uint32_t& key) {
    Session& s = db.s;
    uint32_t constraint = 0;
    if (it.hasRange) constraint = makeRange(&s, it.type, it.range);
    if (it.hasEnum) constraint = makeEnum(&s, it);
    if ((it.hasRange || it.hasEnum) && constraint == 0)
        creationFailure(db, db.param().constraintMedium, "constraint", 8, "cannot create the constraint of " + path);
    const std::pair<const char*, const std::string*> data[3] = {
        {"current", &it.current}, {"default", &it.defaults}, {"factory", &it.factory}};
    uint32_t values[3] = {};
    for (int i = 0; i < 3; ++i) {
        const std::string& bytes = *data[i].second;
        values[i] = kesDBMCreateValue(&s, it.type, 0, bytes.data(), it.size, db.param().valueMedium);
        if (values[i] == 0)
            creationFailure(db, db.param().valueMedium, "value", 28,
                            "cannot create the " + std::string(data[i].first) + " value of " + path);
        if (constraint == 0) continue;
        if (kesDBMSetConstraintKey(&s, values[i], constraint) != 0)
            libraryFailure(s, "cannot attach the constraint of " + path);
        // The description was checked the same way; the library has the last word.
        if (int32_t rc = constraint_check(&s, constraint, it.type, bytes.data(), it.size); rc != 0)
            fail(path + ": the " + data[i].first + " value is refused by its constraint: " + codeText(rc));
    }
    key = kesDBMCreateLeaf(&s, name, parent, previous, values[0], values[1], values[2], it.hook);
    if (key == 0) creationFailure(db, db.param().componentMedium, "component", 40, "cannot create leaf " + path);
}

// Creates the items below `parent`, each behind the sibling created before it, so the
// children keep the description's order.
void build(Database& db, const std::vector<Item>& items, uint32_t parent, const std::string& parentPath, int depth) {
    Session& s = db.s;
    uint32_t previous = 0;
    for (const Item& it : items) {
        checkInterrupted();
        const std::string path = childPath(parentPath, it.name);
        const std::string stored = depth == 1 ? it.name : "/" + it.name;
        const uint32_t name = kesDBMCreateString(&s, stored.c_str(), db.param().stringMedium);
        if (name == 0) creationFailure(db, db.param().stringMedium, "string", 16, "cannot store the name of " + path);
        uint32_t key = 0;
        if (it.leaf) {
            buildLeaf(db, it, parent, previous, name, path, key);
        } else {
            key = kesDBMCreateNode(&s, name, parent, previous, 0);
            if (key == 0) creationFailure(db, db.param().componentMedium, "component", 28, "cannot create node " + path);
            build(db, it.children, key, path, depth + 1);
        }
        previous = key;
    }
}

// The bytes of a value record's data.
std::string readValue(Session& s, uint32_t valueKey, const std::string& what) {
    const int32_t len = value_getLength(&s, valueKey);
    if (len < 0 || len > kValueMax) lengthFailure(s, len, "cannot read " + what);
    std::string buf(static_cast<size_t>(len), '\0');
    int32_t n = len;
    if (len > 0 && (value_getGeneric(&s, valueKey, buf.data(), &n) != 0 || n != len))
        libraryFailure(s, "cannot read " + what);
    return buf;
}

json exportLeaf(Session& s, uint32_t key, const std::string& path) { return leafJson(readLeaf(s, key, path)); }

// The name of a child as written in paths (stored below the first level with a leading '/').
std::string childName(Session& s, uint32_t key, const std::string& parentPath) {
    char buf[KESDB_NAME_BUFFER] = {};
    const uint32_t nameKey = kesDBMGetStringKey(&s, key);
    if (nameKey == 0 || !kesdb_getString(&s, nameKey, buf, sizeof buf - 1))
        libraryFailure(s, "cannot read a name below " + parentPath);
    std::string name(buf);
    if (!name.empty() && name[0] == '/') name.erase(0, 1);
    return name;
}

void leavesBelow(Database& db, uint32_t key, const std::string& path, int depth, WalkGuard& visited,
                 const std::function<void(const Item&)>& visit) {
    Session& s = db.s;
    CompRecord rec{};
    if (!comp_getComponent(&s, key, &rec)) libraryFailure(s, "cannot read " + path);
    if (rec.kind == KESDB_KIND_LEAF) {
        visit(readLeaf(s, key, path));
        return;
    }
    if (depth > kDepthMax) fail(path + ": the tree is deeper than " + std::to_string(kDepthMax) + " levels");
    for (uint32_t child = kesDBMGetFirstChild(&s, key); child != 0; child = kesDBMGetNextChild(&s, child)) {
        const std::string below = childPath(path, childName(s, child, path));
        visited.enter(child, below, path);
        leavesBelow(db, child, below, depth + 1, visited, visit);
    }
}

json exportChildren(Session& s, uint32_t parent, const std::string& parentPath, int depth, WalkGuard& visited) {
    json children = json::array();
    for (uint32_t key = kesDBMGetFirstChild(&s, parent); key != 0; key = kesDBMGetNextChild(&s, key)) {
        const std::string name = childName(s, key, parentPath);
        const std::string path = childPath(parentPath, name);
        visited.enter(key, path, parentPath);
        if (!validUtf8(name)) fail(path + ": the name is not UTF-8, which a description cannot hold");
        CompRecord rec{};
        if (!comp_getComponent(&s, key, &rec)) libraryFailure(s, "cannot read " + path);
        json item;
        item["name"] = name;
        if (rec.kind == KESDB_KIND_LEAF) {
            item.update(exportLeaf(s, key, path));
        } else {
            if (depth >= kDepthMax) fail(path + ": the tree is deeper than " + std::to_string(kDepthMax) + " levels");
            item["children"] = exportChildren(s, key, path, depth + 1, visited);
        }
        children.push_back(std::move(item));
    }
    return children;
}

}  // namespace

void lengthFailure(const Session& s, int32_t length, const std::string& what) {
    if (length < 0 && s.error != 0) libraryFailure(s, what);
    fail(what + ": its length word says " + std::to_string(static_cast<uint32_t>(length)) +
         " bytes, outside 1.." + std::to_string(kValueMax) + " (a damaged value record)");
}

void makeRoot(Database& db) {
    Session& s = db.s;
    NodeRecord root{};
    if (!comp_newNode(&s, &root)) libraryFailure(s, "cannot create the root node");
    root.comp.stringKey = kesDBMCreateString(&s, "/", db.param().stringMedium);
    if (root.comp.stringKey == 0) libraryFailure(s, "cannot store the root's name");
    root.comp.kind = KESDB_KIND_NODE;
    if (comp_setNode(&s, &root) != 0) libraryFailure(s, "cannot write the root node");
    if (flst_m_setRoot(&s, db.param().componentMedium, root.comp.key) != 0)
        libraryFailure(s, "cannot record the root node");
    // The session was opened before there was a root.
    kesDBMSetCurrentComponent(&s, root.comp.key);
}

void importInto(Database& db, const std::vector<Item>& items, uint32_t hooks) {
    const uint32_t root = db.root();
    if (kesDBMGetFirstChild(&db.s, root) != 0) fail("the database is not empty (its root has children)");
    const uint32_t used = highestHook(items);
    if (used > hooks)
        fail("the description uses hook " + std::to_string(used) + " but only " + std::to_string(hooks) +
             " hooks are configured");
    build(db, items, root, "/", 1);
}

std::string exportText(Database& db) {
    WalkGuard visited;
    const uint32_t root = db.root();
    visited.enter(root, "/", "/");
    json top;
    top["children"] = exportChildren(db.s, root, "/", 1, visited);
    return top.dump(2) + "\n";
}

json valueJson(uint32_t type, const std::string& bytes, const std::string& what) {
    if (type == Generic) return json(toHex(bytes));
    if (type == String) {
        std::string text(bytes.c_str(), strnlen(bytes.data(), bytes.size()));
        if (!validUtf8(text)) fail(what + ": the text is not UTF-8, which a description cannot hold");
        return json(text);
    }
    return numberToJson(type, bytes);
}

Item readLeaf(Session& s, uint32_t key, const std::string& path) {
    LeafRecord leaf{};
    if (!comp_getLeaf(&s, key, &leaf)) libraryFailure(s, "cannot read " + path);
    const int32_t type = value_getType(&s, leaf.currentValue);
    if (type < Generic || type > Float64) libraryFailure(s, "cannot read the type of " + path);
    Item it;
    it.name = path;
    it.leaf = true;
    it.type = static_cast<uint32_t>(type);
    it.current = readValue(s, leaf.currentValue, "the current value of " + path);
    it.defaults = readValue(s, leaf.defaultValue, "the default value of " + path);
    it.factory = readValue(s, leaf.factoryValue, "the factory value of " + path);
    it.size = static_cast<int32_t>(std::max({it.current.size(), it.defaults.size(), it.factory.size()}));
    it.hook = leaf.hookIndex;
    const uint32_t ck = value_getConstraintKey(&s, leaf.currentValue);
    if (ck == 0 || !isNumeric(it.type)) return it;
    const uint32_t ctype = constraint_getType(&s, ck);
    const int32_t clen = constraint_getLength(&s, ck);
    const int32_t w = widthOf(it.type);
    if (clen <= 0 || clen > 8 * 65536) libraryFailure(s, "cannot read the constraint of " + path);
    std::string data(static_cast<size_t>(clen), '\0');
    if (constraint_getData(&s, ck, data.data(), static_cast<uint32_t>(clen)) != 0)
        libraryFailure(s, "cannot read the constraint of " + path);
    if (ctype == it.type && clen == 3 * w) {
        it.hasRange = true;
        it.range = data;
    } else if (ctype == it.type * KESDB_CSTRT_ENUM_FACTOR && clen % w == 0) {
        it.hasEnum = true;
        it.members = data;
        it.count = static_cast<uint32_t>(clen / w);
    } else {
        fail(path + ": its constraint of type " + std::to_string(ctype) + " does not fit a " + typeName(it.type));
    }
    return it;
}

json leafJson(const Item& it) {
    const uint32_t t = it.type;
    const int w = isNumeric(t) ? widthOf(t) : 1;
    auto member = [&](const std::string& packed, uint32_t i) { return packed.substr(i * w, static_cast<size_t>(w)); };
    json item;
    item["type"] = typeName(t);
    if (!isNumeric(t)) item["size"] = it.size;
    item["current"] = valueJson(t, it.current, it.name + " current");
    item["default"] = valueJson(t, it.defaults, it.name + " default");
    item["factory"] = valueJson(t, it.factory, it.name + " factory");
    if (it.hasRange) {
        json r;
        r["min"] = numberToJson(t, member(it.range, 0));
        r["max"] = numberToJson(t, member(it.range, 1));
        r["step"] = numberToJson(t, member(it.range, 2));
        item["range"] = r;
    } else if (it.hasEnum) {
        json e = json::array();
        for (uint32_t i = 0; i < it.count; ++i) e.push_back(numberToJson(t, member(it.members, i)));
        item["enum"] = e;
    }
    if (it.hook != 0) item["hook"] = it.hook;
    return item;
}

void forEachLeaf(Database& db, uint32_t key, const std::string& path, const std::function<void(const Item&)>& visit) {
    WalkGuard visited;
    visited.enter(key, path, path);
    leavesBelow(db, key, path, 1, visited, visit);
}

}  // namespace kesdb
