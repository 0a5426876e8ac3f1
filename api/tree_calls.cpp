// Tree and structure calls of the public interface.
#include <cstdio>

#include "kesdbm/kesdbm.h"
#include "storage/medium_io.hpp"
#include "tree/walk_guard.hpp"
#include "value/changes.hpp"

namespace {

// The root's key for a call that starts from the root (a search by absolute path, the printout
// of the whole tree). False when the root word could not be read: the read's failure stays in
// the session and the call stops there instead of going on from key 0. A tree without a root
// gives true and 0, recording nothing, as comp_getRoot does; a successful look-up leaves the
// session's earlier error as it was.
bool rootOf(Session* s, uint32_t* root) {
    // comp_getRoot gives 0 whenever it records a failure.
    return kes::recordedBy(s, [&] { *root = comp_getRoot(s); }) == 0;
}

// Changes for watchers (value/changes.cpp); the tree operations enter their own. A field setter
// enters its component when it succeeds; a transfer enters where it started whatever its
// result, since it may have changed part of the subtree before it failed.
int32_t entered(Session* s, int32_t result, uint32_t key) {
    if (result == 0) kes::changes::record(s, key, 0);
    return result;
}
int32_t walked(Session* s, int32_t result, uint32_t key) {
    kes::changes::record(s, key, 0);
    return result;
}

}  // namespace

extern "C" {

// Calls that hand their arguments to one operation and return its result unchanged; those that
// change the tree also enter the change for watchers.
uint32_t kesDBMGetRoot(Session* s) { return comp_getRoot(s); }
uint32_t kesDBMGetParent(Session* s, uint32_t key) { return comp_getParent(s, key); }
uint32_t kesDBMGetFirstChild(Session* s, uint32_t key) { return comp_getFirstChild(s, key); }
uint32_t kesDBMGetNextChild(Session* s, uint32_t key) { return comp_getNextSibling(s, key); }
int32_t kesDBMGetChildCount(Session* s, uint32_t key) { return comp_getChildCount(s, key); }
uint32_t kesDBMGetChildByIndex(Session* s, uint32_t key, int32_t index) {
    return comp_getChildByIndex(s, key, index);
}
uint32_t kesDBMCreateNode(Session* s, uint32_t stringKey, uint32_t parent, uint32_t previous, uint32_t child) {
    return node_create(s, stringKey, parent, previous, child);
}
uint32_t kesDBMCreateLeaf(Session* s, uint32_t stringKey, uint32_t parent, uint32_t previous, uint32_t currentValue,
                          uint32_t defaultValue, uint32_t factoryValue, uint32_t hookIndex) {
    return leaf_create(s, stringKey, parent, previous, currentValue, defaultValue, factoryValue, hookIndex);
}
int32_t kesDBMMoveLeaf(Session* s, uint32_t leaf, uint32_t newParent, uint32_t newPrevious) {
    return leaf_move(s, leaf, newParent, newPrevious);
}
int32_t kesDBMMoveNode(Session* s, uint32_t node, uint32_t newParent, uint32_t newPrevious, uint32_t child) {
    return node_move(s, node, newParent, newPrevious, child);
}
int32_t kesDBMMoveSubTree(Session* s, uint32_t node, uint32_t newParent, uint32_t newPrevious) {
    return node_moveWithSub(s, node, newParent, newPrevious);
}
int32_t kesDBMDeleteComponent(Session* s, uint32_t key) { return comp_delete(s, key); }
int32_t kesDBMDeleteComponentWithSub(Session* s, uint32_t key) { return comp_deleteWithSub(s, key, 1); }
int32_t kesDBMCurrentToDefault(Session* s, uint32_t key) { return walked(s, comp_currentToDefault(s, key), key); }
int32_t kesDBMFactoryToDefault(Session* s, uint32_t key) { return walked(s, comp_factoryToDefault(s, key), key); }
int32_t kesDBMDefaultToCurrent(Session* s, uint32_t key) { return walked(s, comp_defaultToCurrent(s, key), key); }
int32_t kesDBMLock(Session* s, uint32_t key, uint32_t mode) { return comp_lock(s, key, mode); }
int32_t kesDBMUnlock(Session* s, uint32_t key) { return comp_unlock(s, key); }
uint32_t kesDBMGetCurrentValueKey(Session* s, uint32_t leaf) { return leaf_getCurrentValueKey(s, leaf); }
uint32_t kesDBMGetDefaultValueKey(Session* s, uint32_t leaf) { return leaf_getDefaultValueKey(s, leaf); }
uint32_t kesDBMGetFactoryValueKey(Session* s, uint32_t leaf) { return leaf_getFactoryValueKey(s, leaf); }
int32_t kesDBMSetCurrentValueKey(Session* s, uint32_t leaf, uint32_t valueKey) {
    return entered(s, leaf_setCurrentValueKey(s, leaf, valueKey), leaf);
}
int32_t kesDBMSetDefaultValueKey(Session* s, uint32_t leaf, uint32_t valueKey) {
    return entered(s, leaf_setDefaultValueKey(s, leaf, valueKey), leaf);
}
int32_t kesDBMSetFactoryValueKey(Session* s, uint32_t leaf, uint32_t valueKey) {
    return entered(s, leaf_setFactoryValueKey(s, leaf, valueKey), leaf);
}
uint32_t kesDBMGetStringKey(Session* s, uint32_t key) { return comp_getStringKey(s, key); }
int32_t kesDBMSetStringKey(Session* s, uint32_t key, uint32_t stringKey) {
    return entered(s, comp_setStringKey(s, key, stringKey), key);
}
uint32_t kesDBMCreateValue(Session* s, uint32_t type, uint32_t creatorWord, const void* data, int32_t size,
                           uint32_t dataMedium) {
    return value_create(s, type, creatorWord, data, size, dataMedium);
}
int32_t kesDBMDeleteValue(Session* s, uint32_t valueKey) { return value_delete(s, valueKey); }
uint32_t kesDBMGetConstraintKey(Session* s, uint32_t valueKey) { return value_getConstraintKey(s, valueKey); }
int32_t kesDBMSetConstraintKey(Session* s, uint32_t valueKey, uint32_t constraintKey) {
    return value_setConstraintKey(s, valueKey, constraintKey);
}
uint32_t kesDBMCreateString(Session* s, const char* text, uint32_t medium) { return str_create(s, text, medium); }
int32_t kesDBMDeleteString(Session* s, uint32_t stringKey) { return str_delete(s, stringKey); }
int32_t kesDBMSync(Session* s, uint32_t medium, uint32_t syncArg) { return media_sync(s, medium, syncArg); }

uint32_t kesDBMSearchByName(Session* s, const char* path) {
    if (!path || !s) {
        printf("kesDBMSearchByName err4\n");
        session_setError(s, KESDB_ERR_NULLARG, 0);
        return 0;
    }
    if (path[0] == '/') {
        uint32_t root = 0;
        if (!rootOf(s, &root)) return 0;
        uint32_t found = comp_searchByName(s, root, path);
        if (found != 0) return found;
        if (s->error == KESDB_ERR_COMP_ENDSEARCH) {
            printf("kesDBMSearchByName err1\n");
            s->error = KESDB_ERR_COMP_NOMATCH;  // the detail stays as the search left it
        }
        return 0;
    }
    NodeRecord current;
    if (!comp_getNode(s, s->current, &current)) return 0;
    // A list that loops back on itself ends the search with the walk-limit error (55, the
    // key where the loop closed), as every other walk over the tree does.
    kes::tree::LoopGuard guard;
    for (uint32_t child = current.firstChild; child != 0; child = comp_getNextSibling(s, child)) {
        if (!guard.visit(child)) {
            kes::tree::walkLimit(s, child);
            return 0;
        }
        uint32_t found = comp_searchByName(s, child, path);
        if (found != 0) return found;
        if (s->error == KESDB_ERR_COMP_ENDSEARCH) {
            printf("kesDBMSearchByName err2\n");
            break;
        }
    }
    if (s->error == KESDB_ERR_COMP_ENDSEARCH) return 0;
    printf("kesDBMSearchByName err3\n");
    session_setError(s, KESDB_ERR_COMP_ENDSEARCH, 0);
    return 0;
}

uint32_t kesDBMSetCurrentComponent(Session* s, uint32_t key) {
    CompRecord comp;
    if (!comp_getComponent(s, key, &comp)) return 0;
    if (comp.kind != KESDB_KIND_NODE && comp.kind != KESDB_KIND_LEAF) {
        session_setError(s, KESDB_ERR_COMP_BADKIND, 0);
        return 0;
    }
    if (s) s->current = key;
    return key;
}

}  // extern "C"

namespace {

// The four constraint calls work on the constraint of the leaf's current value: they find it
// the same way and differ only in the operation applied and their failure result.
template <class Result, class Op>
Result onCurrentConstraint(Session* s, uint32_t leaf, Result failure, Op op) {
    LeafRecord record;
    if (!comp_getLeaf(s, leaf, &record)) return failure;
    if (record.comp.kind != KESDB_KIND_LEAF) {
        session_setError(s, KESDB_ERR_COMP_NOTLEAF, 0);
        return failure;
    }
    if (record.currentValue == 0) {
        session_setError(s, KESDB_ERR_VALUE_NOVALUE, 0);
        return failure;
    }
    ValueRecord value;
    if (!value_get(s, record.currentValue, &value)) return failure;
    if (value.constraintKey == 0) {
        session_setError(s, KESDB_ERR_CSTRT_NONE, 0);
        return failure;
    }
    return op(value.constraintKey);
}

}  // namespace

extern "C" {

uint32_t kesDBMGetConstraintType(Session* s, uint32_t leaf) {
    return onCurrentConstraint<uint32_t>(s, leaf, 0u, [s](uint32_t key) { return constraint_getType(s, key); });
}

int32_t kesDBMGetConstraintLength(Session* s, uint32_t leaf) {
    return onCurrentConstraint<int32_t>(s, leaf, -1, [s](uint32_t key) { return constraint_getLength(s, key); });
}

int32_t kesDBMGetConstraintData(Session* s, uint32_t leaf, void* buffer, uint32_t length) {
    return onCurrentConstraint<int32_t>(
        s, leaf, 0, [=](uint32_t key) { return constraint_getData(s, key, buffer, length); });
}

int32_t kesDBMSetConstraintData(Session* s, uint32_t leaf, const void* data, uint32_t length) {
    return onCurrentConstraint<int32_t>(
        s, leaf, 0, [=](uint32_t key) { return constraint_setData(s, key, data, length); });
}

void kesDBMtraverseAndPrint(Session* s, uint32_t key) {
    if (key == 0 && !rootOf(s, &key)) return;
    comp_traverseAndPrint(s, key, 0);
}

}  // extern "C"
