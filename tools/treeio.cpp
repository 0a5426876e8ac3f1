#include "treeio.hpp"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <string_view>

#include "sizing.hpp"
#include "values.hpp"
#include "walk.hpp"

namespace kesdb {

namespace {

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
void build(Database& db, const std::vector<Item>& items, uint32_t parent, const std::string& parentPath, int depth,
           Progress* progress) {
    uint32_t previous = 0;
    for (const Item& it : items) previous = buildComponent(db, it, parent, previous, parentPath, depth, progress);
}

// The record and the data of the `which` value of the leaf at `path`.
std::string readValue(Session& s, uint32_t valueKey, ValueRecord& rec, const char* which, const std::string& path) {
    auto what = [&] { return std::string("cannot read the ") + which + " value of " + path; };
    if (!value_get(&s, valueKey, &rec)) libraryFailure(s, what());
    if (rec.length > static_cast<uint32_t>(kValueMax)) lengthFailure(s, static_cast<int32_t>(rec.length), what());
    std::string buf(rec.length, '\0');
    int32_t n = static_cast<int32_t>(rec.length);
    if (n == 0 || (value_getGeneric(&s, valueKey, buf.data(), &n) == 0 && n == static_cast<int32_t>(rec.length)))
        return buf;
    libraryFailure(s, what());
}

// The name of a child as written in paths (stored below the first level with a leading '/').
std::string nameText(Session& s, uint32_t nameKey, const std::string& parentPath) {
    char buf[KESDB_NAME_BUFFER] = {};
    if (nameKey == 0 || !kesdb_getString(&s, nameKey, buf, sizeof buf - 1))
        libraryFailure(s, "cannot read a name below " + parentPath);
    std::string name(buf);
    if (!name.empty() && name[0] == '/') name.erase(0, 1);
    return name;
}
std::string childName(Session& s, uint32_t key, const std::string& parentPath) {
    return nameText(s, kesDBMGetStringKey(&s, key), parentPath);
}

void leavesBelow(Database& db, uint32_t key, const std::string& path, int depth, WalkGuard& visited,
                 const std::function<void(const Item&, uint32_t)>& visit) {
    Session& s = db.s;
    CompRecord rec{};
    if (!comp_getComponent(&s, key, &rec)) libraryFailure(s, "cannot read " + path);
    if (rec.kind == KESDB_KIND_LEAF) {
        visit(readLeaf(s, key, path), key);
        return;
    }
    if (depth > kDepthMax) fail(path + ": the tree is deeper than " + std::to_string(kDepthMax) + " levels");
    for (uint32_t child = kesDBMGetFirstChild(&s, key); child != 0; child = kesDBMGetNextChild(&s, child)) {
        const std::string below = childPath(path, childName(s, child, path));
        visited.enter(child, below, path);
        leavesBelow(db, child, below, depth + 1, visited, visit);
    }
}

// The export text, laid out byte for byte as json::dump(2) lays out the same document,
// but written component by component rather than built as one document first: opened
// objects and arrays take their members through key() and item().
class Layout {
public:
    explicit Layout(std::string& out) : out_(out) {}
    void open(char bracket) {
        out_ += bracket;
        empty_.push_back(1);
    }
    void close(char bracket) {
        const bool empty = empty_.back() != 0;
        empty_.pop_back();
        if (!empty) newline(empty_.size());
        out_ += bracket;
    }
    void key(std::string_view k) {
        item();
        out_ += '"';
        out_ += k;
        out_ += "\": ";
    }
    void item() {
        if (empty_.back() == 0) out_ += ',';
        empty_.back() = 0;
        newline(empty_.size());
    }
    void scalar(const json& j) {
        char digits[24];
        const char* end = digits;
        if (j.is_number_unsigned()) end = std::to_chars(digits, digits + sizeof digits, j.get<uint64_t>()).ptr;
        else if (j.is_number_integer()) end = std::to_chars(digits, digits + sizeof digits, j.get<int64_t>()).ptr;
        else if (j.is_string()) return text(j.get_ref<const std::string&>());
        else return void(out_ += j.dump());
        out_.append(digits, static_cast<size_t>(end - digits));
    }
    void text(std::string_view t) {
        const bool plain = std::none_of(t.begin(), t.end(), [](char c) {
            return static_cast<unsigned char>(c) < 0x20 || c == '"' || c == '\\';
        });
        if (!plain) {
            out_ += json(t).dump();
            return;
        }
        out_ += '"';
        out_ += t;
        out_ += '"';
    }

private:
    void newline(size_t depth) {
        out_ += '\n';
        out_.append(2 * depth, ' ');
    }
    std::string& out_;
    std::vector<char> empty_;  // per open object or array: 1 while it has no member
};

// A leaf's members in the export text: those of leafJson, in its order.
void writeLeaf(const Item& it, Layout& out) {
    const uint32_t t = it.type;
    const size_t w = isNumeric(t) ? static_cast<size_t>(widthOf(t)) : 1;
    auto member = [&](const std::string& packed, uint32_t i) { return numberToJson(t, packed.substr(i * w, w)); };
    out.key("type");
    out.text(typeName(t));
    if (!isNumeric(t)) {
        out.key("size");
        out.scalar(it.size);
    }
    const std::pair<const char*, const std::string*> values[3] = {
        {"current", &it.current}, {"default", &it.defaults}, {"factory", &it.factory}};
    for (const auto& [name, bytes] : values) {
        out.key(name);
        out.scalar(isNumeric(t) ? numberToJson(t, *bytes) : valueJson(t, *bytes, it.name + " " + name));
    }
    if (it.hasRange) {
        out.key("range");
        out.open('{');
        const char* bounds[3] = {"min", "max", "step"};
        for (uint32_t i = 0; i < 3; ++i) {
            out.key(bounds[i]);
            out.scalar(member(it.range, i));
        }
        out.close('}');
    } else if (it.hasEnum) {
        out.key("enum");
        out.open('[');
        for (uint32_t i = 0; i < it.count; ++i) {
            out.item();
            out.scalar(member(it.members, i));
        }
        out.close(']');
    }
    if (it.hook != 0) {
        out.key("hook");
        out.scalar(it.hook);
    }
}

// Calls `visit(key, name, path, isLeaf)` for each child of `parent` in list order, once its
// record and name are read and checked as a description needs them; a node deeper than a
// description may go fails.
template <class Visit>
void eachChild(Session& s, uint32_t parent, const std::string& parentPath, int depth, WalkGuard& visited,
               Progress* progress, Visit visit) {
    for (uint32_t key = kesDBMGetFirstChild(&s, parent); key != 0; key = kesDBMGetNextChild(&s, key)) {
        if (progress) progress->step();
        CompRecord rec{};
        if (!comp_getComponent(&s, key, &rec)) libraryFailure(s, "cannot read a name below " + parentPath);
        const std::string name = nameText(s, rec.stringKey, parentPath);
        const std::string path = childPath(parentPath, name);
        visited.enter(key, path, parentPath);
        if (!validUtf8(name)) fail(path + ": the name is not UTF-8, which a description cannot hold");
        const bool leaf = rec.kind == KESDB_KIND_LEAF;
        if (!leaf && depth >= kDepthMax)
            fail(path + ": the tree is deeper than " + std::to_string(kDepthMax) + " levels");
        visit(key, name, path, leaf);
    }
}

void exportChildren(Session& s, uint32_t parent, const std::string& parentPath, int depth, WalkGuard& visited,
                    Progress* progress, Layout& out) {
    out.open('[');
    eachChild(s, parent, parentPath, depth, visited, progress,
              [&](uint32_t key, const std::string& name, const std::string& path, bool leaf) {
                  out.item();
                  out.open('{');
                  out.key("name");
                  out.text(name);
                  if (leaf) {
                      writeLeaf(readLeaf(s, key, path), out);
                  } else {
                      out.key("children");
                      exportChildren(s, key, path, depth + 1, visited, progress, out);
                  }
                  out.close('}');
              });
    out.close(']');
}

std::vector<Item> readChildren(Session& s, uint32_t parent, const std::string& parentPath, int depth,
                               WalkGuard& visited, Progress* progress) {
    std::vector<Item> items;
    eachChild(s, parent, parentPath, depth, visited, progress,
              [&](uint32_t key, const std::string& name, const std::string& path, bool leaf) {
                  Item it;
                  if (leaf) it = readLeaf(s, key, path);
                  else it.children = readChildren(s, key, path, depth + 1, visited, progress);
                  it.name = name;
                  items.push_back(std::move(it));
              });
    return items;
}

}  // namespace

void lengthFailure(const Session& s, int32_t length, const std::string& what) {
    if (length < 0 && s.error != 0) libraryFailure(s, what);
    fail(what + ": its length word says " + std::to_string(static_cast<uint32_t>(length)) +
         " bytes, outside 1.." + std::to_string(kValueMax) + " (a damaged value record)");
}

uint32_t buildComponent(Database& db, const Item& it, uint32_t parent, uint32_t previous, const std::string& parentPath,
                        int depth, Progress* progress) {
    Session& s = db.s;
    checkInterrupted();
    if (progress) progress->step();
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
        build(db, it.children, key, path, depth + 1, progress);
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

void importInto(Database& db, const std::vector<Item>& items, uint32_t hooks, Progress* progress) {
    const uint32_t root = db.root();
    if (kesDBMGetFirstChild(&db.s, root) != 0) fail("the database is not empty (its root has children)");
    const uint32_t used = highestHook(items);
    if (used > hooks)
        fail("the description uses hook " + std::to_string(used) + " but only " + std::to_string(hooks) +
             " hooks are configured");
    build(db, items, root, "/", 1, progress);
}

std::string exportText(Database& db, Progress* progress) {
    WalkGuard visited;
    const uint32_t root = db.root();
    visited.enter(root, "/", "/");
    std::string text;
    text.reserve(4u << 20);
    Layout out(text);
    out.open('{');
    out.key("children");
    exportChildren(db.s, root, "/", 1, visited, progress, out);
    out.close('}');
    text += '\n';
    return text;
}

std::vector<Item> readTree(Database& db, Progress* progress) {
    WalkGuard visited;
    const uint32_t root = db.root();
    visited.enter(root, "/", "/");
    return readChildren(db.s, root, "/", 1, visited, progress);
}

uint64_t countItems(const std::vector<Item>& items) {
    uint64_t n = items.size();
    for (const Item& it : items) n += countItems(it.children);
    return n;
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
    Item it;
    it.name = path;
    it.leaf = true;
    ValueRecord current{}, other{};
    it.current = readValue(s, leaf.currentValue, current, "current", path);
    it.defaults = readValue(s, leaf.defaultValue, other, "default", path);
    it.factory = readValue(s, leaf.factoryValue, other, "factory", path);
    if (current.type > Float64) fail(path + ": unknown value type " + std::to_string(current.type));
    it.type = current.type;
    it.size = static_cast<int32_t>(std::max({it.current.size(), it.defaults.size(), it.factory.size()}));
    it.hook = leaf.hookIndex;
    const uint32_t ck = current.constraintKey;
    if (ck == 0 || !isNumeric(it.type)) return it;
    const uint32_t ctype = constraint_getType(&s, ck);
    const int32_t w = widthOf(it.type);
    // A range of the leaf's type always holds minimum, maximum and step.
    const int32_t clen = ctype == it.type ? 3 * w : constraint_getLength(&s, ck);
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

void forEachLeaf(Database& db, uint32_t key, const std::string& path,
                 const std::function<void(const Item&, uint32_t)>& visit) {
    WalkGuard visited;
    visited.enter(key, path, path);
    leavesBelow(db, key, path, 1, visited, visit);
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
        if (kept.empty()) fail("unknown path " + path, kExitNoPath);
        (*level)["children"] = std::move(kept);
        level = &(*level)["children"][0];
        if (!level->contains("children")) break;
    }
    return top.dump(2) + "\n";
}

}  // namespace kesdb
