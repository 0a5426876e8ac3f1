// kesdb watch: prints each leaf below a path as it changes, in any process, until interrupted.
//
// The library tells which components changed (kesDBMWatch). A changed leaf that is known and
// still at its path is printed as it is now. Anything else (a node: a transfer, move or
// deletion of a subtree; a new or deleted leaf; changes missed) makes the tool read the
// subtree again and print what differs from what it knew: new leaves, changed values or
// paths, and deleted leaves (the path alone, or "deleted": true in JSON).
#include <cstdio>
#include <map>
#include <set>
#include <string>

#include "commands.hpp"
#include "common.hpp"
#include "database.hpp"
#include "values.hpp"

namespace kesdb {
namespace {

constexpr int kDepthMax = 1024;
constexpr int32_t kValueMax = 1 << 20;
constexpr int32_t kPollMs = 500;  // how often an interruption is looked for

struct Leaf {
    std::string path, value;  // value as printed: text, or JSON with --json
};
using Snapshot = std::map<uint32_t, Leaf>;

std::string nameOf(Database& db, uint32_t key) {
    char buf[KESDB_NAME_BUFFER] = {};
    const uint32_t nameKey = kesDBMGetStringKey(&db.s, key);
    if (nameKey == 0 || !kesdb_getString(&db.s, nameKey, buf, sizeof buf - 1)) return std::string();
    return buf;
}

// The current value of a leaf as the tool prints it ("" when it cannot be read).
std::string valueOf(Database& db, uint32_t key, bool asJson) {
    const int32_t type = kesDBMGetType(&db.s, key);
    const int32_t len = kesDBMGetLength(&db.s, key);
    if (type < 0 || len <= 0 || len > kValueMax) return std::string();
    std::string buf(static_cast<size_t>(len), '\0');
    int32_t n = len;
    if (kesDBMGetGeneric(&db.s, key, buf.data(), &n) != 0) return std::string();
    buf.resize(static_cast<size_t>(n < 0 ? 0 : n > len ? len : n));
    const auto t = static_cast<uint32_t>(type);
    if (t == String) {
        const std::string text(buf.c_str());
        return asJson ? json(validUtf8(text) ? text : toHex(buf)).dump() : text;
    }
    if (t == Generic) return asJson ? json(toHex(buf)).dump() : toHex(buf);
    return asJson ? numberToJson(t, buf).dump() : numberToText(t, buf);
}

void scan(Database& db, uint32_t key, const std::string& path, int depth, bool asJson, std::set<uint32_t>& seen,
          Snapshot& out) {
    CompRecord c;
    if (depth > kDepthMax || !seen.insert(key).second || !comp_getComponent(&db.s, key, &c)) return;
    if (c.kind == KESDB_KIND_LEAF) {
        out[key] = {path, valueOf(db, key, asJson)};
        return;
    }
    for (uint32_t child = kesDBMGetFirstChild(&db.s, key); child != 0; child = kesDBMGetNextChild(&db.s, child)) {
        if (seen.count(child)) break;
        scan(db, child, path + nameOf(db, child), depth + 1, asJson, seen, out);
    }
}

// The leaves below `top`, read without the library's diagnostics on standard output.
Snapshot leavesBelow(Database& db, uint32_t top, bool asJson) {
    return quietly([&] {
        Snapshot out;
        std::set<uint32_t> seen;
        scan(db, top, db.pathOf(top), 0, asJson, seen, out);
        return out;
    });
}

void print(const Leaf& leaf, bool asJson, bool deleted = false) {
    if (asJson)
        std::fprintf(data(), "{\"path\":%s,%s}\n", json(leaf.path).dump().c_str(),
                    deleted ? "\"deleted\":true" : ("\"value\":" + leaf.value).c_str());
    else if (deleted)
        std::fprintf(data(), "%s\n", leaf.path.c_str());
    else
        std::fprintf(data(), "%s=%s\n", leaf.path.c_str(), leaf.value.c_str());
}

}  // namespace

int cmdWatch(const std::string& dir, const std::string& path, bool asJson) {
    Database db(dir);
    const uint32_t top = path.empty() ? db.root() : db.find(path);
    uint32_t sequence = 0;
    int32_t count = 0;
    if (int32_t rc = kesDBMWatch(&db.s, top, &sequence, 0, nullptr, &count); rc != 0)
        fail("watch: " + codeText(rc));
    Snapshot known = leavesBelow(db, top, asJson);
    uint32_t changed[64];
    while (!interrupted()) {
        count = 64;
        if (int32_t rc = kesDBMWatch(&db.s, top, &sequence, kPollMs, changed, &count); rc != 0)
            fail("watch: " + codeText(rc));
        bool rescan = count < 0;
        for (int32_t i = 0; i < count && !rescan; ++i) {
            auto it = known.find(changed[i]);
            rescan = it == known.end() || quietly([&] { return db.pathOf(changed[i]); }) != it->second.path;
        }
        if (!rescan) {
            for (int32_t i = 0; i < count; ++i) {
                Leaf& leaf = known[changed[i]];
                leaf.value = quietly([&] { return valueOf(db, changed[i], asJson); });
                print(leaf, asJson);
            }
        } else {
            Snapshot now = leavesBelow(db, top, asJson);
            for (const auto& [key, leaf] : known)
                if (!now.count(key)) print(leaf, asJson, true);
            for (const auto& [key, leaf] : now) {
                auto it = known.find(key);
                if (it == known.end() || it->second.path != leaf.path || it->second.value != leaf.value)
                    print(leaf, asJson);
            }
            known.swap(now);
        }
        std::fflush(data());
    }
    failInterrupted();
}

}  // namespace kesdb
