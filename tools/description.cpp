#include "description.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <initializer_list>
#include <sstream>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

#include "values.hpp"

namespace kesdb {

namespace {


const char* verdictText(int32_t code) {
    switch (code) {
        case KESDB_ERR_CSTRT_BELOWMIN:
            return "is below the range minimum";
        case KESDB_ERR_CSTRT_ABOVEMAX:
            return "is above the range maximum";
        case KESDB_ERR_CSTRT_STEP:
            return "is not on a step of the range";
        default:
            return "is not a member of the enumeration";
    }
}

void checkKeys(const json& j, std::initializer_list<std::string_view> allowed, const std::string& where,
               const char* what) {
    for (auto m = j.begin(); m != j.end(); ++m)
        if (std::find(allowed.begin(), allowed.end(), m.key()) == allowed.end())
            fail(where + ": unknown " + what + "key \"" + m.key() + "\"");
}

// The members of a component object, found in one pass over it (a look-up per member would
// read every key again), and the first key a leaf or a node does not take.
struct Members {
    const json *name = nullptr, *type = nullptr, *children = nullptr, *size = nullptr, *current = nullptr,
               *defaults = nullptr, *factory = nullptr, *range = nullptr, *members = nullptr, *hook = nullptr;
    const std::string *notLeaf = nullptr, *notNode = nullptr;
};

Members membersOf(const json& j) {
    Members m;
    for (auto member = j.begin(); member != j.end(); ++member) {
        const std::string& key = member.key();
        const json* value = &member.value();
        bool leafKey = true, nodeKey = false;
        if (key == "name") m.name = value, nodeKey = true;
        else if (key == "children") m.children = value, nodeKey = true, leafKey = false;
        else if (key == "type") m.type = value;
        else if (key == "current") m.current = value;
        else if (key == "range") m.range = value;
        else if (key == "default") m.defaults = value;
        else if (key == "factory") m.factory = value;
        else if (key == "size") m.size = value;
        else if (key == "enum") m.members = value;
        else if (key == "hook") m.hook = value;
        else leafKey = false;
        if (!leafKey && !m.notLeaf) m.notLeaf = &key;
        if (!nodeKey && !m.notNode) m.notNode = &key;
    }
    return m;
}

Item parseItem(const json& j, const std::string& parentPath, int depth);

std::vector<Item> parseChildren(const json& j, const std::string& path, int depth) {
    if (!j.is_array()) fail(path + ": \"children\" must be an array");
    if (depth > kDepthMax) fail(path + ": tree deeper than " + std::to_string(kDepthMax) + " levels");
    std::vector<Item> out;
    out.reserve(j.size());
    std::unordered_set<std::string_view> names;  // views of the names in `out`, which never moves
    std::unordered_map<std::string_view, size_t> nodes;  // node names, with their place
    for (const auto& c : j) {
        out.push_back(parseItem(c, path, depth));
        const Item& last = out.back();
        if (!names.insert(last.name).second) fail(childPath(path, last.name) + ": name used twice among siblings");
        // The path search matches a name against the beginning of the path; a node whose
        // name begins another sibling's name takes that path first and ends the search
        // below itself, so a later sibling with the longer name could never be found.
        // Such a node's name is one of the beginnings of this name; the first such node is named.
        size_t first = out.size();
        for (size_t n = 1; n < last.name.size(); ++n)
            if (auto node = nodes.find(std::string_view(last.name).substr(0, n)); node != nodes.end())
                first = std::min(first, node->second);
        if (first < out.size())
            fail(childPath(path, last.name) + ": could not be found by its path behind the node " +
                 childPath(path, out[first].name) + ", whose name begins its own; list it before that node");
        if (!last.leaf) nodes.emplace(last.name, out.size() - 1);
    }
    return out;
}

Item parseItem(const json& j, const std::string& parentPath, int depth) {
    if (!j.is_object()) fail(parentPath + ": a component must be a JSON object");
    const Members m = membersOf(j);
    if (!m.name || !m.name->is_string()) fail(parentPath + ": a component without a \"name\" string");
    Item it;
    it.name = m.name->get<std::string>();
    const std::string where = childPath(parentPath, it.name);
    if (it.name.empty()) fail(parentPath + ": empty component name");
    if (it.name.find('/') != std::string::npos) fail(where + ": name contains '/'");
    if (it.name.find('\0') != std::string::npos) fail(where + ": name contains a NUL character");
    if (it.name.size() > kNameMax) fail(where + ": name longer than " + std::to_string(kNameMax) + " bytes");
    const bool hasType = m.type, hasChildren = m.children;
    if (hasType == hasChildren)
        fail(where + ": a component needs exactly one of \"type\" (leaf) or \"children\" (node)");
    if (const std::string* key = hasType ? m.notLeaf : m.notNode)
        fail(where + ": unknown " + (hasType ? "leaf " : "node ") + "key \"" + *key + "\"");
    if (hasChildren) {
        it.children = parseChildren(*m.children, where, depth + 1);
        return it;
    }

    it.leaf = true;
    if (!m.type->is_string() || !typeByName(m.type->get<std::string>(), it.type))
        fail(where + ": unknown type " + m.type->dump() +
             " (Generic String Sint8 Sint16 Sint32 Sint64 Uint8 Uint16 Uint32 Uint64 Float32 Float64)");
    if (!m.current) fail(where + ": leaf without \"current\"");
    const json& cur = *m.current;
    const json& def = m.defaults ? *m.defaults : cur;
    const json& fac = m.factory ? *m.factory : cur;
    if (isNumeric(it.type)) {
        it.size = widthOf(it.type);
        if (m.size && (!m.size->is_number_integer() || m.size->get<int64_t>() != it.size))
            fail(where + ": the size of a " + typeName(it.type) + " is " + std::to_string(it.size));
    } else if (m.size) {
        const json& size = *m.size;
        if (!size.is_number_integer() || size.get<int64_t>() < 1 || size.get<int64_t>() > kValueMax)
            fail(where + ": size must be an integer from 1 to " + std::to_string(kValueMax));
        it.size = static_cast<int32_t>(size.get<int64_t>());
    } else {
        // Without a size: the longest of the three values (a String with its NUL).
        size_t longest = 0;
        for (const json* v : {&cur, &def, &fac}) {
            if (!v->is_string()) fail(where + ": a " + std::string(typeName(it.type)) + " value must be a JSON string");
            const size_t n = v->get<std::string>().size();
            longest = std::max(longest, it.type == String ? n + 1 : n / 2);
        }
        if (longest == 0) fail(where + ": an empty Generic value needs a \"size\"");
        if (longest > static_cast<size_t>(kValueMax))
            fail(where + ": value longer than " + std::to_string(kValueMax) + " bytes");
        it.size = static_cast<int32_t>(longest);
    }
    it.current = leafValue(it, cur, where, "current");
    it.defaults = leafValue(it, def, where, "default");
    it.factory = leafValue(it, fac, where, "factory");

    if (m.hook) {
        const json& h = *m.hook;
        if (!h.is_number_unsigned() || h.get<uint64_t>() > 0x7FFFFFFF)
            fail(where + ": hook must be a hook index (0 for none)");
        it.hook = h.get<uint32_t>();
    }

    const bool hasRange = m.range, hasEnum = m.members;
    if (hasRange && hasEnum) fail(where + ": a leaf takes a range or an enumeration, not both");
    if ((hasRange || hasEnum) && !isNumeric(it.type))
        fail(where + ": only numeric leaves take a range or an enumeration");
    if (hasRange) {
        const json& r = *m.range;
        if (!r.is_object() || !r.contains("min") || !r.contains("max"))
            fail(where + ": a range needs \"min\" and \"max\" (\"step\" is optional)");
        checkKeys(r, {"min", "max", "step"}, where, "range ");
        it.hasRange = true;
        for (const char* k : {"min", "max", "step"}) {
            const auto found = r.find(k);
            const json v = found != r.end() ? *found : json(0);
            std::string b;
            if (!numberFromJson(it.type, v, b))
                fail(where + ": range " + k + " " + v.dump() + " is not a " + typeName(it.type) + " value");
            it.range += b;
        }
    }
    if (hasEnum) {
        const json& e = *m.members;
        if (!e.is_array() || e.empty() || e.size() > 4096)
            fail(where + ": \"enum\" must be an array of 1 to 4096 values");
        it.hasEnum = true;
        for (const auto& v : e) {
            std::string b;
            if (!numberFromJson(it.type, v, b))
                fail(where + ": enum member " + v.dump() + " is not a " + typeName(it.type) + " value");
            it.members += b;
            ++it.count;
        }
    }
    // The constraint guards all three values; each must pass the library's own check, or
    // copying it (reset, factory-to-default) would be refused later.
    if (it.hasRange || it.hasEnum) {
        const std::pair<const char*, const std::string*> values[] = {
            {"current", &it.current}, {"default", &it.defaults}, {"factory", &it.factory}};
        for (const auto& [label, value] : values) {
            const int32_t code =
                it.hasRange ? rangeVerdict(it.type, it.range, *value) : enumVerdict(it.type, it.members, *value);
            if (code != 0)
                fail(where + ": " + label + " value " + numberToText(it.type, *value) + " " + verdictText(code) + " (" +
                         codeText(code) + ")",
                     kExitRefused);
        }
    }
    return it;
}

}  // namespace

// One value of a leaf, `size` bytes long.
std::string leafValue(const Item& it, const json& j, const std::string& whereIn, const char* which) {
    // Composed only for a message.
    auto where = [&] { return which ? whereIn + " " + which : whereIn; };
    std::string out;
    if (it.type == String) {
        if (!j.is_string()) fail(where() + ": a String value must be a JSON string");
        out = j.get<std::string>();
        if (out.find('\0') != std::string::npos) fail(where() + ": text contains a NUL character");
        if (static_cast<int64_t>(out.size()) + 1 > it.size)
            fail(where() + ": text of " + std::to_string(out.size()) + " bytes does not fit size " +
                 std::to_string(it.size) + " (the NUL needs one byte)");
        out.resize(static_cast<size_t>(it.size), '\0');
    } else if (it.type == Generic) {
        if (!j.is_string() || !fromHex(j.get<std::string>(), out))
            fail(where() + ": a Generic value must be a string of hex digit pairs");
        if (static_cast<int64_t>(out.size()) > it.size)
            fail(where() + ": " + std::to_string(out.size()) + " bytes do not fit size " + std::to_string(it.size));
        out.resize(static_cast<size_t>(it.size), '\0');
    } else if (!numberFromJson(it.type, j, out)) {
        fail(where() + ": " + j.dump() + " is not a " + typeName(it.type) + " value");
    }
    return out;
}

std::vector<Item> parseDescriptionText(const std::string& text, const std::string& label) {
    json j;
    try {
        j = json::parse(text);
    } catch (const json::exception& e) {
        // "[json.exception.parse_error.101] parse error at line 1, column 5: ..." without the tag
        // (also a number beyond the largest double: out_of_range.406).
        std::string what = e.what();
        if (size_t close = what.find("] "); close != std::string::npos) what.erase(0, close + 2);
        fail(label + ": not valid JSON: " + what);
    }
    try {
        if (!j.is_object() || !j.contains("children")) fail("the top level must be an object with \"children\"");
        checkKeys(j, {"children"}, "/", "top-level ");
        return parseChildren(j["children"], "/", 1);
    } catch (const Failure& f) {
        fail(label + ": " + f.what, f.code);
    }
}

std::vector<Item> parseDescription(const std::string& file) {
    if (file == "-") {
        std::stringstream buf;
        buf << std::cin.rdbuf();
        return parseDescriptionText(buf.str(), "standard input");
    }
    std::ifstream in(file, std::ios::binary);
    if (!in) fail("cannot read " + file + ": " + std::strerror(errno));
    std::stringstream buf;
    buf << in.rdbuf();
    return parseDescriptionText(buf.str(), file);
}

uint32_t highestHook(const std::vector<Item>& items) {
    uint32_t m = 0;
    for (const Item& it : items) m = std::max({m, it.hook, highestHook(it.children)});
    return m;
}

}  // namespace kesdb
