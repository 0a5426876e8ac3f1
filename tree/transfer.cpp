// Value-set transfers over a subtree (current to default, factory to default, default to
// current) and the printout of a subtree.
#include <cstdio>
#include <initializer_list>

#include "kesdbm/tree.h"
#include "kesdbm/value.h"
#include "storage/medium_io.hpp"
#include "tree/walk_guard.hpp"

namespace {

using kes::tree::failureCode;
using kes::tree::LoopGuard;
using kes::tree::readCommon;
using kes::tree::WalkBudget;

// What a transfer does at a leaf; the walk over the tree is the same for all three.
enum class LeafCopy { CurrentToDefault, FactoryToDefault, DefaultToCurrent };

int32_t copyAtLeaf(Session* s, const LeafRecord& leaf, LeafCopy copy) {
    switch (copy) {
        case LeafCopy::CurrentToDefault: return value_copy(s, leaf.defaultValue, leaf.currentValue);
        case LeafCopy::FactoryToDefault: return value_copy(s, leaf.defaultValue, leaf.factoryValue);
        case LeafCopy::DefaultToCurrent:
            return value_copy2(s, leaf.currentValue, leaf.defaultValue, leaf.hookIndex);
    }
    return 0;
}

// Depth first in list order; stops at the first leaf or subtree whose result is not 0.
int32_t transferWalk(Session* s, uint32_t key, LeafCopy copy, WalkBudget& budget, int64_t level) {
    if (!budget.enter(s, key, level)) return KESDB_ERR_COMP_READ;
    CompRecord comp;
    if (!readCommon(s, key, &comp)) return failureCode(s);
    if (comp.kind == KESDB_KIND_LEAF) {
        LeafRecord leaf;
        if (!comp_getLeaf(s, key, &leaf)) return failureCode(s);
        return copyAtLeaf(s, leaf, copy);
    }
    if (comp.kind != KESDB_KIND_NODE) return session_setError(s, KESDB_ERR_COMP_BADKIND, 0);
    NodeRecord node;
    if (!comp_getNode(s, key, &node)) return failureCode(s);
    int32_t result = 0;
    LoopGuard guard;
    for (uint32_t child = node.firstChild; child != 0;) {
        if (!guard.visit(child)) {
            budget.stop(s, child);
            return KESDB_ERR_COMP_READ;
        }
        result = transferWalk(s, child, copy, budget, level + 1);
        if (budget.aborted) return KESDB_ERR_COMP_READ;
        const uint32_t after = comp_getNextSibling(s, child);
        if (result != 0) break;
        child = after;
    }
    return result;
}

int32_t transfer(Session* s, uint32_t key, LeafCopy copy) {
    WalkBudget budget;
    return transferWalk(s, key, copy, budget, 0);
}

void indent(int64_t spaces) {
    for (int64_t i = 0; i < spaces; ++i) std::putchar(' ');
}

// Prints a component's own line. Kept out of line so that the name buffer does not stay in
// every level of the recursion. A name that cannot be fetched is printed empty.
[[gnu::noinline]] void printComponentLine(Session* s, const char* what, uint32_t key, uint32_t stringKey,
                                          int64_t spaces) {
    char name[KESDB_NAME_BUFFER];
    kes::tree::fetchName(s, stringKey, name);
    indent(spaces);
    std::printf("%s %d [%s]\n", what, static_cast<int>(key), name);
}

void printWalk(Session* s, uint32_t key, int64_t depth, WalkBudget& budget, int64_t level) {
    if (!budget.enter(s, key, level)) return;
    CompRecord comp;
    if (!readCommon(s, key, &comp)) return;
    const int64_t own = depth > 0 ? 2 * depth : 0;
    const int64_t inner = 2 * depth + 2 > 0 ? 2 * depth + 2 : 0;
    if (comp.kind == KESDB_KIND_NODE) {
        NodeRecord node;
        if (!comp_getNode(s, key, &node)) return;
        printComponentLine(s, "node", key, comp.stringKey, own);
        LoopGuard guard;
        for (uint32_t child = node.firstChild; child != 0; child = comp_getNextSibling(s, child)) {
            if (!guard.visit(child)) {
                budget.stop(s, child);
                return;
            }
            printWalk(s, child, depth + 1, budget, level + 1);
            if (budget.aborted) return;
        }
    } else if (comp.kind == KESDB_KIND_LEAF) {
        LeafRecord leaf;
        if (!comp_getLeaf(s, key, &leaf)) return;
        printComponentLine(s, "leaf", key, comp.stringKey, own);
        for (uint32_t value : {leaf.currentValue, leaf.defaultValue, leaf.factoryValue}) {
            indent(inner);
            value_print(s, value);
        }
        if (leaf.hookIndex != 0) {
            indent(inner);
            std::printf("hook %d\n", static_cast<int>(leaf.hookIndex));
        }
    } else {
        session_setError(s, KESDB_ERR_COMP_BADKIND, 0);
    }
}

}  // namespace

extern "C" {

int32_t comp_currentToDefault(Session* s, uint32_t key) { return transfer(s, key, LeafCopy::CurrentToDefault); }

int32_t comp_factoryToDefault(Session* s, uint32_t key) { return transfer(s, key, LeafCopy::FactoryToDefault); }

int32_t comp_defaultToCurrent(Session* s, uint32_t key) { return transfer(s, key, LeafCopy::DefaultToCurrent); }

void comp_traverseAndPrint(Session* s, uint32_t key, int32_t depth) {
    WalkBudget budget;
    printWalk(s, key, depth, budget, 0);
}

}  // extern "C"
