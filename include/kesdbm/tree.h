/* The component tree: node and leaf records, navigation, search, changes, transfers. */
#ifndef KESDBM_TREE_H
#define KESDBM_TREE_H

#include <stdint.h>

#include "kesdbm/export.h"
#include "kesdbm/session.h"

#ifdef __cplusplus
extern "C" {
#endif

#define KESDB_KIND_NODE 0u
#define KESDB_KIND_LEAF 1u
#define KESDB_NAME_BUFFER 256

/* Common part of every component record, 24 bytes. */
typedef struct CompRecord {
    uint32_t key;
    uint32_t stringKey;
    uint32_t reserved;
    uint32_t parent;
    uint32_t nextSibling;
    uint32_t kind;
} CompRecord;

/* Node record, 28 bytes. */
typedef struct NodeRecord {
    CompRecord comp;
    uint32_t firstChild;
} NodeRecord;

/* Leaf record, 40 bytes. */
typedef struct LeafRecord {
    CompRecord comp;
    uint32_t currentValue;
    uint32_t defaultValue;
    uint32_t factoryValue;
    uint32_t hookIndex;
} LeafRecord;

/* Whole records. */
KESDB_API CompRecord *comp_getComponent(Session *s, uint32_t key, CompRecord *buffer);
KESDB_API NodeRecord *comp_getNode(Session *s, uint32_t key, NodeRecord *buffer);
KESDB_API LeafRecord *comp_getLeaf(Session *s, uint32_t key, LeafRecord *buffer);
KESDB_API int32_t comp_setComponent(Session *s, const CompRecord *record);
KESDB_API int32_t comp_setNode(Session *s, const NodeRecord *record);
KESDB_API int32_t comp_setLeaf(Session *s, const LeafRecord *record);
KESDB_API NodeRecord *comp_newNode(Session *s, NodeRecord *buffer);
KESDB_API LeafRecord *comp_newLeaf(Session *s, LeafRecord *buffer);
KESDB_API int32_t comp_setDeleted(Session *s, const CompRecord *record);
KESDB_API int32_t comp_init(void);
KESDB_API int32_t comp_term(void);

/* Single fields. */
KESDB_API uint32_t comp_getStringKey(Session *s, uint32_t key);
KESDB_API int32_t comp_setStringKey(Session *s, uint32_t key, uint32_t stringKey);
KESDB_API uint32_t comp_getParent(Session *s, uint32_t key);
KESDB_API int32_t comp_setParent(Session *s, uint32_t key, uint32_t parent);
KESDB_API uint32_t comp_getNextSibling(Session *s, uint32_t key);
KESDB_API int32_t comp_setNextSibling(Session *s, uint32_t key, uint32_t sibling);
KESDB_API uint32_t comp_getFirstChild(Session *s, uint32_t key);
KESDB_API int32_t comp_setFirstChild(Session *s, uint32_t key, uint32_t child);
KESDB_API uint32_t leaf_getCurrentValueKey(Session *s, uint32_t key);
KESDB_API uint32_t leaf_getDefaultValueKey(Session *s, uint32_t key);
KESDB_API uint32_t leaf_getFactoryValueKey(Session *s, uint32_t key);
KESDB_API int32_t leaf_setCurrentValueKey(Session *s, uint32_t key, uint32_t valueKey);
KESDB_API int32_t leaf_setDefaultValueKey(Session *s, uint32_t key, uint32_t valueKey);
KESDB_API int32_t leaf_setFactoryValueKey(Session *s, uint32_t key, uint32_t valueKey);
KESDB_API uint32_t comp_getRoot(Session *s);
KESDB_API int32_t dummydummy1(void);
KESDB_API int32_t dummydummy2(void);

/* Navigation and search. */
KESDB_API int32_t comp_getChildCount(Session *s, uint32_t key);
KESDB_API uint32_t comp_getChildByIndex(Session *s, uint32_t key, int32_t index);
KESDB_API uint32_t comp_searchByName(Session *s, uint32_t key, const char *path);

/* Creating, moving, deleting. */
KESDB_API uint32_t leaf_create(Session *s, uint32_t stringKey, uint32_t parent, uint32_t previous,
                               uint32_t currentValue, uint32_t defaultValue, uint32_t factoryValue,
                               uint32_t hookIndex);
KESDB_API uint32_t node_create(Session *s, uint32_t stringKey, uint32_t parent, uint32_t previous, uint32_t child);
KESDB_API int32_t leaf_move(Session *s, uint32_t leaf, uint32_t newParent, uint32_t newPrevious);
KESDB_API int32_t node_move(Session *s, uint32_t node, uint32_t newParent, uint32_t newPrevious, uint32_t child);
KESDB_API int32_t node_moveWithSub(Session *s, uint32_t node, uint32_t newParent, uint32_t newPrevious);
KESDB_API int32_t comp_delete(Session *s, uint32_t key);
KESDB_API int32_t comp_deleteWithSub(Session *s, uint32_t key, uint32_t unlink);

/* Value-set transfers, printing and component locks. */
KESDB_API int32_t comp_currentToDefault(Session *s, uint32_t key);
KESDB_API int32_t comp_factoryToDefault(Session *s, uint32_t key);
KESDB_API int32_t comp_defaultToCurrent(Session *s, uint32_t key);
KESDB_API void comp_traverseAndPrint(Session *s, uint32_t key, int32_t depth);
KESDB_API int32_t comp_lock(Session *s, uint32_t key, uint32_t mode);
KESDB_API int32_t comp_unlock(Session *s, uint32_t key);

#ifdef __cplusplus
}
#endif

#endif
