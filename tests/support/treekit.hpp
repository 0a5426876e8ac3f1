// Test support for the component tree: trees built on a started database through the
// library's exported operations, and read back.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "kesdbm/kesdbm.h"
#include "mediakit.hpp"
#include "testkit.hpp"

namespace tk {

// A media index of the session's database (0 when it has none).
inline uint32_t mediumOf(Session* s, uint32_t DBMInitParam::*kind) {
    const DBMInitParam* p = db_getDb(s->dbId);
    return p ? p->*kind : 0;
}
inline uint32_t componentMedium(Session* s) { return mediumOf(s, &DBMInitParam::componentMedium); }

// A name in the string table, its text kept in the string medium.
inline uint32_t name(Session* s, const std::string& text) {
    return str_create(s, text.c_str(), mediumOf(s, &DBMInitParam::stringMedium));
}

// The root: a node without parent, named by the component medium's root word (node_create
// cannot make it: its insertion needs a parent). Its key, or 0.
inline uint32_t makeRoot(Session* s, const std::string& rootName) {
    NodeRecord root{};
    root.comp.stringKey = name(s, rootName);
    if (root.comp.stringKey == 0 || !comp_newNode(s, &root) || comp_setNode(s, &root) != 0 ||
        flst_m_setRoot(s, componentMedium(s), root.comp.key) != 0)
        return 0;
    return root.comp.key;
}

// A node or a leaf named `text` under `parent`, behind `previous` (0: at the head).
inline uint32_t node(Session* s, uint32_t parent, uint32_t previous, const std::string& text, uint32_t child = 0) {
    return node_create(s, name(s, text), parent, previous, child);
}
inline uint32_t leaf(Session* s, uint32_t parent, uint32_t previous, const std::string& text, uint32_t current = 0,
                     uint32_t defaultValue = 0, uint32_t factory = 0, uint32_t hook = 0) {
    return leaf_create(s, name(s, text), parent, previous, current, defaultValue, factory, hook);
}

// Uint32 and Uint64 values with their data in the value medium.
template <class T, uint32_t type>
uint32_t valueOf(Session* s, T v) {
    return value_create(s, type, 0, &v, sizeof v, mediumOf(s, &DBMInitParam::valueMedium));
}
inline uint32_t u32(Session* s, uint32_t v) { return valueOf<uint32_t, Uint32>(s, v); }
inline uint32_t u64(Session* s, uint64_t v) { return valueOf<uint64_t, Uint64>(s, v); }
// The Uint32 held by a value, or 0xDEADBEEF when it cannot be read.
inline uint32_t u32Of(Session* s, uint32_t valueKey) {
    uint32_t v = 0;
    int32_t length = 4;
    return value_getGeneric(s, valueKey, &v, &length) == 0 ? v : 0xDEADBEEFu;
}
// The Uint32 current value of a leaf, or 0xDEADBEEF when it cannot be read.
inline uint32_t leafU32(Session* s, uint32_t leafKey) {
    uint32_t v = 0;
    return kesDBMGetUint32(s, leafKey, &v) == 0 ? v : 0xDEADBEEFu;
}

// The children of a node in list order (at most `limit`, so a damaged list cannot hang a test).
inline std::vector<uint32_t> children(Session* s, uint32_t key, size_t limit = 1000) {
    std::vector<uint32_t> keys;
    for (uint32_t c = comp_getFirstChild(s, key); c != 0 && keys.size() < limit; c = comp_getNextSibling(s, c))
        keys.push_back(c);
    return keys;
}

// The names of a node's children in list order, joined with ","; a child whose parent word
// names another node is marked with a trailing '^'.
inline std::string childNames(Session* s, uint32_t key) {
    std::string joined;
    const std::vector<uint32_t> keys = children(s, key);
    for (size_t i = 0; i < keys.size(); ++i) {
        char text[KESDB_NAME_BUFFER] = {};
        kesdb_getString(s, comp_getStringKey(s, keys[i]), text, KESDB_NAME_BUFFER - 1);
        joined += (i ? "," : "") + std::string(text) + (comp_getParent(s, keys[i]) == key ? "" : "^");
    }
    return joined;
}

// Whole records, read directly.
inline CompRecord common(Session* s, uint32_t key) {
    CompRecord r{};
    return comp_getComponent(s, key, &r), r;
}
inline LeafRecord leafRecord(Session* s, uint32_t key) {
    LeafRecord r{};
    return comp_getLeaf(s, key, &r), r;
}

// Free blocks of a medium in list order, read through the rooted allocator's primitives.
struct FreeBlock {
    uint32_t key, size;
    bool operator==(const FreeBlock&) const = default;
};
inline std::vector<FreeBlock> freeList(Session* s, uint32_t medium, size_t limit = 10000) {
    std::vector<FreeBlock> blocks;
    FreeElement e{};
    for (uint32_t k = flst_m_getFirstOffset(s, medium);
         k != 0 && blocks.size() < limit && flst_m_getElement(s, medium, k, &e); k = e.next)
        blocks.push_back({k, e.size});
    return blocks;
}
// Whether the block [key, key + size) is wholly free.
inline bool isFree(const std::vector<FreeBlock>& blocks, uint32_t key, uint32_t size) {
    for (const FreeBlock& b : blocks)
        if (b.key <= key && key + size <= b.key + b.size) return true;
    return false;
}

// The session's error word as the signed code the operations return.
inline int32_t err(const Session* s) { return static_cast<int32_t>(s->error); }

// A copy of a session naming a database id that is not registered, its error words cleared.
inline Session unregistered(Session bad) {
    bad.dbId = 30;
    bad.error = bad.errorDetail = 0;
    return bad;
}

// A string entry whose text lies in medium `textMedium` (one the table does not have, for a
// name that cannot be fetched). Its key, or 0.
inline uint32_t danglingString(Session* s, uint32_t textMedium, uint32_t textLength = 4) {
    StringEntry e{};
    if (!str_newEntry(s, &e)) return 0;
    e.textMedium = textMedium;
    e.textLength = textLength;
    return str_setEntry(s, &e) == 0 ? e.key : 0;
}

// The key `body` returned, with what it printed on standard output.
template <typename F>
std::pair<uint32_t, std::string> keyAndOutput(F&& body) {
    uint32_t key = 0;
    std::string out = kt::captureStdout([&] { key = body(); });
    return {key, out};
}

// A started database whose component records live in medium 1: a file in the database's
// directory served by the fault-injection driver, whose control calls (the same loaded instance
// as the library's) make its calls fail or fall short. Strings and values stay in medium 0.
struct FaultComponents : mk::FaultControl {
    kt::Db db;
    std::string path = db.dir.file("components.bin");

    FaultComponents() : db(kt::DbOptions{.mediaConfig = {}, .hookConfig = {}, .componentMedium = 1, .start = false}) {
        kesdb_layMedium(path.c_str(), 64 * 1024, 0);
        kt::writeFile(db.param.mediaConfigPath, mk::driverLine("libkesdrv_fault.so", "faultMedia_", path));
        db.start();
        if (reset) reset();
    }
    bool ready() const { return db.id > 0 && ok(); }
};

}  // namespace tk
