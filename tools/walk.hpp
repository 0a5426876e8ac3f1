// kesdb: the bounds of every walk the tool makes over a database's tree.
//
// Nothing read from a medium is trusted. A sibling word that names its own leaf, a list
// that loops back or shares its tail with another, or a child that names an ancestor would
// make a walk run until memory is gone. So every walk keeps the set of components it has
// entered: in a tree each component is reached once, and one reached a second time ends the
// walk with a message naming it (which also detects any loop exactly, however long the
// list). The depth is bounded by kDepthMax (description.hpp).
#pragma once

#include <cstdint>
#include <string>
#include <unordered_set>

namespace kesdb {

class WalkGuard {
public:
    // Accounts for entering `key` (at `path`, reached from the component at `from`); fails
    // when it was entered before.
    void enter(uint32_t key, const std::string& path, const std::string& from);

private:
    std::unordered_set<uint32_t> entered_;
};

}  // namespace kesdb
