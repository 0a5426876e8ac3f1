// kesdb: a checked description built into a database, and a database's tree written back
// as a description.
//
// Names in the database: the root is "/", the root's children keep their plain name
// ("net") and every deeper component carries a leading slash ("/ip"). The path search
// matches a component's whole name against the beginning of what is left of the path and
// hands the rest, slash included, to the children, so "/net/ip" finds the leaf "/ip"
// below "net". The tool adds the slash on import and strips it on export.
//
// Constraints: a leaf's range or enumeration is one constraint record attached to all
// three of its values, so a write of the current or the default value and the copies
// between them (reset, factory-to-default) are all checked. Export reads the constraint of
// the current value.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "database.hpp"
#include "description.hpp"
#include "progress.hpp"

namespace kesdb {

// Makes the root node "/" of a database that has none.
void makeRoot(Database& db);

// Builds `items` below the root, in description order. The root must have no children
// and no hook index may exceed `hooks`, the number of hooks the database will have;
// otherwise nothing is written. A failure on the way leaves what was built so far:
// callers that need all or nothing build in a copy. Each component built is a step of
// `progress` when one is given.
void importInto(Database& db, const std::vector<Item>& items, uint32_t hooks, Progress* progress = nullptr);

// Creates one component (a node with everything below it) under `parent`, behind the
// sibling `previous` (0: at the head of the list), `depth` levels below the root (1 for
// the root's children). Returns its key; fails as importInto does.
uint32_t buildComponent(Database& db, const Item& it, uint32_t parent, uint32_t previous, const std::string& parentPath,
                        int depth, Progress* progress = nullptr);

// The tree below the root as a description, ending with a newline; each component read
// is a step of `progress` when one is given.
std::string exportText(Database& db, Progress* progress = nullptr);

// The tree below the root as export reads it, without the text: the Items a description
// of it would parse into. Each component read is a step of `progress` when one is given.
std::vector<Item> readTree(Database& db, Progress* progress = nullptr);

// Of such a description, only the component at `path` with its ancestors (each with that
// one child), so that it can be merged back (import --merge).
std::string subtreeText(const std::string& description, const std::string& path);

// Number of components in `items`, their descendants included.
uint64_t countItems(const std::vector<Item>& items);

// A stored leaf read back as an Item (name = its path; size = its longest value).
Item readLeaf(Session& s, uint32_t key, const std::string& path);
// The description form of a leaf, without its name.
json leafJson(const Item& leaf);
// A value in JSON: a number, text, hex digit pairs for Generic; non-UTF-8 text fails.
json valueJson(uint32_t type, const std::string& bytes, const std::string& what);
// Fails for a value whose length (`length`, as read) is unreadable or beyond what a value
// may hold: "WHAT: CAUSE".
[[noreturn]] void lengthFailure(const Session& s, int32_t length, const std::string& what);
// Calls `visit` with every leaf at or below the component `key`, whose path is `path`, and
// the leaf's key, in tree order.
void forEachLeaf(Database& db, uint32_t key, const std::string& path,
                 const std::function<void(const Item&, uint32_t)>& visit);

}  // namespace kesdb
