#include "treeio.hpp"

#include <algorithm>
#include <cstring>

#include "values.hpp"

namespace kesdb {

namespace {

// Most components an export visits: a sibling list that loops ends the export.
constexpr size_t kWalkMax = 4u << 20;

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
    if ((it.hasRange || it.hasEnum) && constraint == 0) libraryFailure(s, "cannot create the constraint of " + path);
    const std::pair<const char*, const std::string*> data[3] = {
        {"current", &it.current}, {"default", &it.defaults}, {"factory", &it.factory}};
    uint32_t values[3] = {};
    for (int i = 0; i < 3; ++i) {
        const std::string& bytes = *data[i].second;
        values[i] = kesDBMCreateValue(&s, it.type, 0, bytes.data(), it.size, db.param().valueMedium);
        if (values[i] == 0) libraryFailure(s, "cannot create the " + std::string(data[i].first) + " value of " + path);
        if (constraint == 0) continue;
        if (kesDBMSetConstraintKey(&s, values[i], constraint) != 0)
            libraryFailure(s, "cannot attach the constraint of " + path);
        // The description was checked the same way; the library has the last word.
        if (int32_t rc = constraint_check(&s, constraint, it.type, bytes.data(), it.size); rc != 0)
            fail(path + ": the " + data[i].first + " value is refused by its constraint: " + codeText(rc));
    }
    key = kesDBMCreateLeaf(&s, name, parent, previous, values[0], values[1], values[2], it.hook);
    if (key == 0) libraryFailure(s, "cannot create leaf " + path);
}

// Creates the items below `parent`, each behind the sibling created before it, so the
// children keep the description's order.
void build(Database& db, const std::vector<Item>& items, uint32_t parent, const std::string& parentPath, int depth) {
    uint32_t previous = 0;
    for (const Item& it : items) previous = buildComponent(db, it, parent, previous, parentPath, depth);
}

// The bytes of a value record's data.
std::string readValue(Session& s, uint32_t valueKey, const std::string& what) {
    const int32_t len = value_getLength(&s, valueKey);
    if (len < 0 || len > kValueMax) libraryFailure(s, "cannot read " + what);
    std::string buf(static_cast<size_t>(len), '\0');
    int32_t n = len;
    if (len > 0 && (value_getGeneric(&s, valueKey, buf.data(), &n) != 0 || n != len))
        libraryFailure(s, "cannot read " + what);
    return buf;
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

json exportLeaf(Session& s, uint32_t key, const std::string& path) {
    LeafRecord leaf{};
    if (!comp_getLeaf(&s, key, &leaf)) libraryFailure(s, "cannot read " + path);
    const int32_t type = value_getType(&s, leaf.currentValue);
    if (type < Generic || type > Float64) libraryFailure(s, "cannot read the type of " + path);
    const uint32_t t = static_cast<uint32_t>(type);
    const std::string cur = readValue(s, leaf.currentValue, "the current value of " + path);
    const std::string def = readValue(s, leaf.defaultValue, "the default value of " + path);
    const std::string fac = readValue(s, leaf.factoryValue, "the factory value of " + path);
    json item;
    item["type"] = typeName(t);
    if (!isNumeric(t)) item["size"] = std::max({cur.size(), def.size(), fac.size()});
    item["current"] = valueJson(t, cur, path + " current");
    item["default"] = valueJson(t, def, path + " default");
    item["factory"] = valueJson(t, fac, path + " factory");
    const uint32_t ck = value_getConstraintKey(&s, leaf.currentValue);
    if (ck != 0 && isNumeric(t)) {
        const uint32_t ctype = constraint_getType(&s, ck);
        const int32_t clen = constraint_getLength(&s, ck);
        const int w = widthOf(t);
        if (clen <= 0 || clen > 8 * 65536) libraryFailure(s, "cannot read the constraint of " + path);
        std::string data(static_cast<size_t>(clen), '\0');
        if (constraint_getData(&s, ck, data.data(), static_cast<uint32_t>(clen)) != 0)
            libraryFailure(s, "cannot read the constraint of " + path);
        auto member = [&](int32_t i) { return data.substr(static_cast<size_t>(i) * w, static_cast<size_t>(w)); };
        if (ctype == t && clen == 3 * w) {
            json r;
            r["min"] = numberToJson(t, member(0));
            r["max"] = numberToJson(t, member(1));
            r["step"] = numberToJson(t, member(2));
            item["range"] = r;
        } else if (ctype == t * KESDB_CSTRT_ENUM_FACTOR && clen % w == 0) {
            json e = json::array();
            for (int32_t i = 0; i < clen / w; ++i) e.push_back(numberToJson(t, member(i)));
            item["enum"] = e;
        } else {
            fail(path + ": its constraint of type " + std::to_string(ctype) + " does not fit a " + typeName(t));
        }
    }
    if (leaf.hookIndex != 0) item["hook"] = leaf.hookIndex;
    return item;
}

json exportChildren(Session& s, uint32_t parent, const std::string& parentPath, int depth, size_t& visited) {
    json children = json::array();
    for (uint32_t key = kesDBMGetFirstChild(&s, parent); key != 0; key = kesDBMGetNextChild(&s, key)) {
        if (++visited > kWalkMax) fail("the tree below " + parentPath + " does not end (a sibling list loops?)");
        char buf[KESDB_NAME_BUFFER] = {};
        const uint32_t nameKey = kesDBMGetStringKey(&s, key);
        if (nameKey == 0 || !kesdb_getString(&s, nameKey, buf, sizeof buf - 1))
            libraryFailure(s, "cannot read a name below " + parentPath);
        std::string name(buf);
        if (depth > 1 && !name.empty() && name[0] == '/') name.erase(0, 1);
        const std::string path = childPath(parentPath, name);
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

uint32_t buildComponent(Database& db, const Item& it, uint32_t parent, uint32_t previous, const std::string& parentPath,
                        int depth) {
    Session& s = db.s;
    checkInterrupted();
    const std::string path = childPath(parentPath, it.name);
    const std::string stored = depth == 1 ? it.name : "/" + it.name;
    const uint32_t name = kesDBMCreateString(&s, stored.c_str(), db.param().stringMedium);
    if (name == 0) libraryFailure(s, "cannot store the name of " + path);
    uint32_t key = 0;
    if (it.leaf) {
        buildLeaf(db, it, parent, previous, name, path, key);
    } else {
        key = kesDBMCreateNode(&s, name, parent, previous, 0);
        if (key == 0) libraryFailure(s, "cannot create node " + path);
        build(db, it.children, key, path, depth + 1);
    }
    return key;
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
    size_t visited = 0;
    json top;
    top["children"] = exportChildren(db.s, db.root(), "/", 1, visited);
    return top.dump(2) + "\n";
}

std::string subtreeText(const std::string& description, const std::string& path) {
    json top = json::parse(description);
    json* level = &top;
    size_t at = 1;
    while (at < path.size()) {
        const size_t slash = path.find('/', at);
        const std::string name = path.substr(at, slash == std::string::npos ? std::string::npos : slash - at);
        at = slash == std::string::npos ? path.size() : slash + 1;
        if (name.empty()) continue;
        json kept = json::array();
        for (json& c : (*level)["children"])
            if (c["name"] == name) kept.push_back(std::move(c));
        if (kept.empty()) fail("unknown path " + path);
        (*level)["children"] = std::move(kept);
        level = &(*level)["children"][0];
        if (!level->contains("children")) break;
    }
    return top.dump(2) + "\n";
}

}  // namespace kesdb
