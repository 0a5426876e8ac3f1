#include "walk.hpp"

#include "common.hpp"

namespace kesdb {

void WalkGuard::enter(uint32_t key, const std::string& path, const std::string& from) {
    if (entered_.insert(key).second) return;
    fail("the tree is damaged: component " + std::to_string(key) + " (" + path + ") is reached a second time from " +
         from + " (a sibling list loops, lists share a tail or a child names an ancestor); 'kesdb check' lists "
         "what is wrong");
}

}  // namespace kesdb
