// kesdb show, diff and describe: the leaves of a tree as PATH=VALUE lines (or JSON) for
// people and scripts, and the rule behind a refused write, told in words.
//
// Values are written as `get` writes them and `set` reads them: numbers in decimal (floating
// point in the shortest form that reads back to the same bits), String as its text, Generic
// as hex digit pairs.
#include <dlfcn.h>

#include "commands.hpp"
#include "database.hpp"
#include "treeio.hpp"
#include "values.hpp"

namespace kesdb {

namespace {

// "/net/port" for "net/port/" and the like; "/" for the root.
std::string canonical(const std::string& path) {
    std::string p = path;
    while (p.size() > 1 && p.back() == '/') p.pop_back();
    if (p.empty() || p[0] != '/') p = "/" + p;
    return p;
}

const std::string& valueOf(const Item& leaf, ValueSet which) {
    return which == ValueSet::Current ? leaf.current : which == ValueSet::Default ? leaf.defaults : leaf.factory;
}

// The text of one packed member of a range or an enumeration.
std::string memberText(const Item& leaf, const std::string& packed, uint32_t i) {
    const size_t w = static_cast<size_t>(widthOf(leaf.type));
    return numberToText(leaf.type, packed.substr(i * w, w));
}

std::string membersText(const Item& leaf) {
    std::string out;
    for (uint32_t i = 0; i < leaf.count; ++i) out += (i ? ", " : "") + memberText(leaf, leaf.members, i);
    return out;
}

// "1..65535", "-128..100 step 4".
std::string rangeText(const Item& leaf) {
    const std::string step = memberText(leaf, leaf.range, 2);
    return memberText(leaf, leaf.range, 0) + ".." + memberText(leaf, leaf.range, 1) +
           (step == "0" ? "" : " step " + step);
}

void writeJson(const json& j) {
    std::fputs((j.dump(2, ' ', false, json::error_handler_t::replace) + "\n").c_str(), data());
}

// The hook entry's functions and library as a hook configuration line, when it is loaded.
std::string hookLine(uint32_t index) {
    if (index == 0 || static_cast<int32_t>(index) > hook_getCount() || !hook_table) return "";
    const HookEntry& e = hook_table[index - 1];
    std::string library, names;
    for (kesHookFn fn : {e.preSet, e.postSet, e.preGet, e.postGet}) {
        Dl_info info{};
        const bool known = fn && dladdr(reinterpret_cast<void*>(fn), &info) != 0;
        if (known && library.empty() && info.dli_fname) library = info.dli_fname;
        names += " " + std::string(!fn ? "NULL" : known && info.dli_sname ? info.dli_sname : "?");
    }
    return (library.empty() ? "?" : library) + names;
}

}  // namespace

int cmdShow(const std::string& dir, const std::string& path, ValueSet which, bool asJson, bool noHooks) {
    Database db(dir, readAccess(noHooks));
    const uint32_t key = db.find(path);
    json all = json::object();
    forEachLeaf(db, key, canonical(path), [&](const Item& leaf, uint32_t) {
        const std::string& v = valueOf(leaf, which);
        if (asJson)
            all[leaf.name] = valueJson(leaf.type, v, leaf.name);
        else
            std::fprintf(data(), "%s=%s\n", leaf.name.c_str(), valueToText(leaf.type, v).c_str());
    });
    if (asJson) writeJson(all);
    return kExitOk;
}

int cmdDiff(const std::string& dir, const std::string& path, bool factory, bool asJson, bool noHooks) {
    Database db(dir, readAccess(noHooks));
    const uint32_t key = db.find(path);
    const char* other = factory ? "factory" : "default";
    json all = json::object();
    forEachLeaf(db, key, canonical(path), [&](const Item& leaf, uint32_t) {
        const std::string& base = factory ? leaf.factory : leaf.defaults;
        const std::string cur = valueToText(leaf.type, leaf.current), was = valueToText(leaf.type, base);
        // Text up to its NUL is a String's value; what follows it is not compared.
        if (leaf.type == String ? cur == was : leaf.current == base) return;
        if (asJson)
            all[leaf.name] = {{"current", valueJson(leaf.type, leaf.current, leaf.name)},
                              {other, valueJson(leaf.type, base, leaf.name)}};
        else
            std::fprintf(data(), "%s=%s (%s %s)\n", leaf.name.c_str(), cur.c_str(), other, was.c_str());
    });
    if (asJson) writeJson(all);
    return kExitOk;
}

int cmdDescribe(const std::string& dir, const std::string& path, bool asJson, bool noHooks) {
    Database db(dir, readAccess(noHooks));
    const uint32_t key = db.find(path);
    const std::string p = canonical(path);
    if (kesDBMGetType(&db.s, key) < 0) fail(p + " is a node, not a leaf; \"kesdb show " + p + "\" lists its leaves");
    const Item leaf = readLeaf(db.s, key, p);
    const std::string hook = hookLine(leaf.hook);
    if (asJson) {
        json j = {{"path", p}, {"type", typeName(leaf.type)}, {"size", leaf.size}};
        const json described = leafJson(leaf);
        for (auto it = described.begin(); it != described.end(); ++it)
            if (it.key() != "type" && it.key() != "size") j[it.key()] = it.value();
        j["hook"] = leaf.hook;
        if (!hook.empty()) j["hookLine"] = hook;
        writeJson(j);
        return kExitOk;
    }
    std::string out = "path=" + p + "\ntype=" + typeName(leaf.type) + "\nsize=" + std::to_string(leaf.size) +
                      "\ncurrent=" + valueToText(leaf.type, leaf.current) +
                      "\ndefault=" + valueToText(leaf.type, leaf.defaults) +
                      "\nfactory=" + valueToText(leaf.type, leaf.factory) + "\n";
    if (leaf.hasRange)
        out += "min=" + memberText(leaf, leaf.range, 0) + "\nmax=" + memberText(leaf, leaf.range, 1) +
               "\nstep=" + memberText(leaf, leaf.range, 2) + "\n";
    if (leaf.hasEnum) out += "members=" + membersText(leaf) + "\n";
    out += "hook=" + std::to_string(leaf.hook) + (hook.empty() ? "" : " " + hook) + "\n";
    std::fputs(out.c_str(), data());
    return kExitOk;
}

std::string refusalText(Database& db, uint32_t key, const std::string& path, int32_t rc, const std::string& value) {
    const std::string p = canonical(path);
    const int32_t result = static_cast<int32_t>(db.s.errorDetail);
    switch (rc) {
        case KESDB_ERR_HOOK_PRESET:
        case KESDB_ERR_HOOK_PREGET:
            return p + ": refused by its hook (result " + std::to_string(result) + ")";
        case KESDB_ERR_HOOK_POSTSET:
            return p + ": refused by its hook after the write, which stays (result " + std::to_string(result) + ")";
        case KESDB_ERR_HOOK_POSTGET:
            return p + ": refused by its hook after the read (result " + std::to_string(result) + ")";
        default:
            break;
    }
    const Item leaf = readLeaf(db.s, key, p);
    const std::string v = isNumeric(leaf.type) ? numberToText(leaf.type, value) : "the value";
    if (leaf.hasRange) {
        const std::string range = " (range " + rangeText(leaf) + ")";
        if (rc == KESDB_ERR_CSTRT_BELOWMIN)
            return p + ": " + v + " is below the minimum " + memberText(leaf, leaf.range, 0) + range;
        if (rc == KESDB_ERR_CSTRT_ABOVEMAX)
            return p + ": " + v + " is above the maximum " + memberText(leaf, leaf.range, 1) + range;
        if (rc == KESDB_ERR_CSTRT_STEP)
            return p + ": " + v + " is not a whole number of steps " + memberText(leaf, leaf.range, 2) +
                   " from the minimum" + range;
    }
    if (leaf.hasEnum && rc == KESDB_ERR_CSTRT_NOTMEMBER) return p + ": " + v + " is not one of " + membersText(leaf);
    return p + ": " + codeText(rc);
}

}  // namespace kesdb
