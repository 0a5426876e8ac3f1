// Navigation: counting the children of a node, taking a child by position, and finding a
// component by a path name.
#include <cstdio>
#include <cstring>

#include "kesdbm/tree.h"
#include "kesdbm/value.h"
#include "storage/medium_io.hpp"
#include "tree/walk_guard.hpp"

namespace {

using kes::tree::LoopGuard;
using kes::tree::readCommon;
using kes::tree::WalkBudget;

// Steps 1 to 3 of counting and indexing: the node record of `key`, which must be a node.
bool readParentNode(Session* s, uint32_t key, NodeRecord* node) {
    CompRecord comp;
    if (!readCommon(s, key, &comp)) return false;
    if (comp.kind != KESDB_KIND_NODE) {
        session_setError(s, KESDB_ERR_COMP_NOTNODE, 0);
        return false;
    }
    return comp_getNode(s, key, node) != nullptr;
}

enum class NameMatch { Unreadable, Differs, Matches };

// Compares a component's name with the beginning of the path. Kept out of line so that the
// 256-byte name buffer lives only during the comparison, not in every level of the search.
[[gnu::noinline]] NameMatch matchName(Session* s, uint32_t stringKey, const char* path, size_t* length) {
    char name[KESDB_NAME_BUFFER];
    if (!kes::tree::fetchName(s, stringKey, name)) return NameMatch::Unreadable;
    const size_t n = std::strlen(name);
    if (std::strncmp(path, name, n) != 0) return NameMatch::Differs;
    *length = n;
    return NameMatch::Matches;
}

struct Search {
    Session* s;
    WalkBudget budget;
};

// One level of the search. `next` receives the component's next sibling (read with its
// common part), so the caller's loop over a list needs no second read per child.
uint32_t searchFrom(Search& search, uint32_t key, const char* path, int64_t level, uint32_t* next) {
    Session* const s = search.s;
    *next = 0;
    if (!search.budget.enter(s, key, level)) return 0;
    CompRecord comp;
    if (!readCommon(s, key, &comp)) return 0;
    *next = comp.nextSibling;

    size_t n = 0;
    switch (matchName(s, comp.stringKey, path, &n)) {
        case NameMatch::Unreadable: return 0;
        case NameMatch::Differs: session_setError(s, KESDB_ERR_COMP_NOMATCH, key); return 0;
        case NameMatch::Matches: break;
    }
    const char* rest = path + n;
    const uint32_t candidate = (*rest == '\0' || *rest == '/') ? key : 0;
    if (*rest == '\0') return key;
    if (comp.kind != KESDB_KIND_NODE) return 0;
    NodeRecord node;
    if (!comp_getNode(s, key, &node)) return candidate;

    if (node.firstChild == 0) {
        if (candidate != 0) return key;
    } else {
        LoopGuard guard;
        uint32_t child = node.firstChild;
        while (child != 0) {
            if (!guard.visit(child)) {
                search.budget.stop(s, child);
                return 0;
            }
            uint32_t after = 0;
            const uint32_t found = searchFrom(search, child, rest, level + 1, &after);
            if (found != 0) return found;
            if (search.budget.aborted) return 0;
            if (kes::lastError(s) == KESDB_ERR_COMP_ENDSEARCH) {
                std::printf("comp_searchByName NG1 KESDB_ERR_COMP_ENDSEARCH\n");
                break;
            }
            child = after;
        }
    }
    if (kes::lastError(s) == KESDB_ERR_COMP_ENDSEARCH) return 0;
    std::printf("comp_searchByName NG2 KESDB_ERR_COMP_ENDSEARCH\n");
    session_setError(s, KESDB_ERR_COMP_ENDSEARCH, key);
    return 0;
}

}  // namespace

extern "C" {

int32_t comp_getChildCount(Session* s, uint32_t key) {
    NodeRecord node;
    if (!readParentNode(s, key, &node)) return 0;
    int32_t count = 0;
    LoopGuard guard;
    for (uint32_t child = node.firstChild; child != 0; child = comp_getNextSibling(s, child)) {
        if (!guard.visit(child)) {
            kes::tree::walkLimit(s, child);
            return 0;
        }
        ++count;
    }
    return count;
}

uint32_t comp_getChildByIndex(Session* s, uint32_t key, int32_t index) {
    NodeRecord node;
    if (!readParentNode(s, key, &node)) return 0;
    int32_t position = 0;
    LoopGuard guard;
    for (uint32_t child = node.firstChild; child != 0; child = comp_getNextSibling(s, child)) {
        if (!guard.visit(child)) {
            kes::tree::walkLimit(s, child);
            return 0;
        }
        if (position == index) return child;
        ++position;
    }
    return 0;
}

// A null path finds nothing: error 89, detail 0.
uint32_t comp_searchByName(Session* s, uint32_t key, const char* path) {
    if (!path) {
        session_setError(s, KESDB_ERR_NULLARG, 0);
        return 0;
    }
    Search search{s, {}};
    // A search may follow a cycle as far as the path leads: its depth is bounded by the path
    // and the depth limit, and it never branches (a node that matched either finds the path
    // or records the end-of-search code, which ends every loop above it).
    search.budget.enterOnce = false;
    uint32_t next = 0;
    return searchFrom(search, key, path, 0, &next);
}

}  // extern "C"
