/**
 * @file kesdbm/tree.h
 * @brief The component tree: node and leaf records, navigation and search, creating, moving
 * and deleting components, value-set transfers and printing.
 *
 * Records live in the component medium. Unless said otherwise the operations record the codes
 * of the record accesses: #KESDB_ERR_DB_NOTFOUND, #KESDB_ERR_MEDIA_INDEX,
 * #KESDB_ERR_COMP_NULLKEY, #KESDB_ERR_COMP_OPEN, #KESDB_ERR_COMP_READ, #KESDB_ERR_COMP_WRITE,
 * #KESDB_ERR_COMP_BADKIND (detail: the driver's error word or 0).
 */
#ifndef KESDBM_TREE_H
#define KESDBM_TREE_H

#include <stdint.h>

#include "kesdbm/export.h"
#include "kesdbm/session.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Kind of a node record. */
#define KESDB_KIND_NODE 0u
/** Kind of a leaf record. */
#define KESDB_KIND_LEAF 1u
/** Size of the name buffer of a search: names are at most 255 bytes. */
#define KESDB_NAME_BUFFER 256

/** Common part of every component record, 24 bytes. */
typedef struct CompRecord {
    uint32_t key;         /**< The record's own key in the component medium. */
    uint32_t stringKey;   /**< Name: key of a string-table entry. */
    uint32_t reserved;    /**< Not interpreted. */
    uint32_t parent;      /**< Parent node's key; 0 for the root. */
    uint32_t nextSibling; /**< Next sibling's key; 0 for the last child. */
    uint32_t kind;        /**< #KESDB_KIND_NODE or #KESDB_KIND_LEAF. */
} CompRecord;

/** Node record, 28 bytes. */
typedef struct NodeRecord {
    CompRecord comp;     /**< Common part. */
    uint32_t firstChild; /**< First child's key; 0 when it has none. */
} NodeRecord;

/** Leaf record, 40 bytes. */
typedef struct LeafRecord {
    CompRecord comp;       /**< Common part. */
    uint32_t currentValue; /**< Key of the current value record. */
    uint32_t defaultValue; /**< Key of the default value record. */
    uint32_t factoryValue; /**< Key of the factory value record. */
    uint32_t hookIndex;    /**< Hook entry run around value accesses (from 1); 0 for none. */
} LeafRecord;

/* Whole records. */
/**
 * Reads the common part of a component record.
 * @param s The session.
 * @param key Component key.
 * @param buffer Receives 24 bytes.
 * @return @p buffer, or NULL on failure (#KESDB_ERR_DB_NOTFOUND, #KESDB_ERR_MEDIA_INDEX,
 *         #KESDB_ERR_COMP_OPEN, #KESDB_ERR_COMP_READ; a message is printed).
 */
KESDB_API CompRecord *comp_getComponent(Session *s, uint32_t key, CompRecord *buffer);
/**
 * Reads a node record.
 * @param s The session.
 * @param key Component key.
 * @param buffer Receives 28 bytes.
 * @return @p buffer, or NULL on failure (#KESDB_ERR_COMP_NULLKEY for key 0, the read codes).
 */
KESDB_API NodeRecord *comp_getNode(Session *s, uint32_t key, NodeRecord *buffer);
/**
 * Reads a leaf record.
 * @param s The session.
 * @param key Component key.
 * @param buffer Receives 40 bytes.
 * @return @p buffer, or NULL on failure (#KESDB_ERR_COMP_NULLKEY for key 0, the read codes;
 *         a message is printed).
 */
KESDB_API LeafRecord *comp_getLeaf(Session *s, uint32_t key, LeafRecord *buffer);
/**
 * Writes the common part of a component record at its key.
 * @param s The session.
 * @param record The record.
 * @return 0, or #KESDB_ERR_DB_NOTFOUND, #KESDB_ERR_MEDIA_INDEX, #KESDB_ERR_COMP_OPEN,
 *         #KESDB_ERR_COMP_WRITE.
 */
KESDB_API int32_t comp_setComponent(Session *s, const CompRecord *record);
/**
 * Writes a node record at its key.
 * @param s The session.
 * @param record The record.
 * @return 0, or a code as comp_setComponent().
 */
KESDB_API int32_t comp_setNode(Session *s, const NodeRecord *record);
/**
 * Writes a leaf record at its key.
 * @param s The session.
 * @param record The record.
 * @return 0, or a code as comp_setComponent().
 */
KESDB_API int32_t comp_setLeaf(Session *s, const LeafRecord *record);
/**
 * Allocates a node record in the component medium and sets its key and kind in the buffer;
 * nothing is written to the medium.
 * @param s The session.
 * @param buffer Receives the key and kind 0.
 * @return @p buffer, or NULL on failure (#KESDB_ERR_DB_NOTFOUND, no space).
 */
KESDB_API NodeRecord *comp_newNode(Session *s, NodeRecord *buffer);
/**
 * Allocates a leaf record in the component medium and sets its key and kind in the buffer;
 * nothing is written to the medium.
 * @param s The session.
 * @param buffer Receives the key and kind 1.
 * @return @p buffer, or NULL on failure.
 */
KESDB_API LeafRecord *comp_newLeaf(Session *s, LeafRecord *buffer);
/**
 * Gives a component record's space back to the component medium's allocator.
 * @param s The session.
 * @param record The record (its kind gives the size).
 * @return 0, #KESDB_ERR_DB_NOTFOUND, or #KESDB_ERR_COMP_BADKIND.
 */
KESDB_API int32_t comp_setDeleted(Session *s, const CompRecord *record);
/**
 * Start-up step (nothing to set up).
 * @return 0.
 */
KESDB_API int32_t comp_init(void);
/**
 * Shut-down step (nothing to undo).
 * @return 0.
 */
KESDB_API int32_t comp_term(void);

/* Single fields. */
/**
 * The name (string key) of a component.
 * @param s The session.
 * @param key Component key.
 * @return The field, or 0 when the record cannot be read.
 */
KESDB_API uint32_t comp_getStringKey(Session *s, uint32_t key);
/**
 * Sets the name (string key) of a component.
 * @param s The session.
 * @param key Component key.
 * @param stringKey The string key.
 * @return 0, or a code.
 */
KESDB_API int32_t comp_setStringKey(Session *s, uint32_t key, uint32_t stringKey);
/**
 * The parent of a component.
 * @param s The session.
 * @param key Component key.
 * @return The field, or 0.
 */
KESDB_API uint32_t comp_getParent(Session *s, uint32_t key);
/**
 * Sets the parent word of a component (its parent's child list is not changed).
 * @param s The session.
 * @param key Component key.
 * @param parent The parent key.
 * @return 0, or a code.
 */
KESDB_API int32_t comp_setParent(Session *s, uint32_t key, uint32_t parent);
/**
 * The next sibling of a component.
 * @param s The session.
 * @param key Component key.
 * @return The field, or 0.
 */
KESDB_API uint32_t comp_getNextSibling(Session *s, uint32_t key);
/**
 * Sets the next-sibling word of a component.
 * @param s The session.
 * @param key Component key.
 * @param sibling The sibling key.
 * @return 0, or a code.
 */
KESDB_API int32_t comp_setNextSibling(Session *s, uint32_t key, uint32_t sibling);
/**
 * The first child of a node.
 * @param s The session.
 * @param key Component key.
 * @return The field; 0 for a leaf (nothing recorded) or when the record cannot be read.
 */
KESDB_API uint32_t comp_getFirstChild(Session *s, uint32_t key);
/**
 * Sets the first-child word of a node.
 * @param s The session.
 * @param key Component key.
 * @param child The child key.
 * @return 0, or a code (#KESDB_ERR_COMP_NOTNODE for a leaf).
 */
KESDB_API int32_t comp_setFirstChild(Session *s, uint32_t key, uint32_t child);
/**
 * The current value key of a leaf.
 * @param s The session.
 * @param key Component key of the leaf.
 * @return The field, or 0 (#KESDB_ERR_COMP_NOTLEAF, read codes).
 */
KESDB_API uint32_t leaf_getCurrentValueKey(Session *s, uint32_t key);
/**
 * The default value key of a leaf.
 * @param s The session.
 * @param key Component key of the leaf.
 * @return The field, or 0.
 */
KESDB_API uint32_t leaf_getDefaultValueKey(Session *s, uint32_t key);
/**
 * The factory value key of a leaf.
 * @param s The session.
 * @param key Component key of the leaf.
 * @return The field, or 0.
 */
KESDB_API uint32_t leaf_getFactoryValueKey(Session *s, uint32_t key);
/**
 * Sets the current value key of a leaf.
 * @param s The session.
 * @param key Component key of the leaf.
 * @param valueKey The value key.
 * @return 0, or a code (#KESDB_ERR_COMP_NOTLEAF, read and write codes).
 */
KESDB_API int32_t leaf_setCurrentValueKey(Session *s, uint32_t key, uint32_t valueKey);
/**
 * Sets the default value key of a leaf.
 * @param s The session.
 * @param key Component key of the leaf.
 * @param valueKey The value key.
 * @return 0, or a code.
 */
KESDB_API int32_t leaf_setDefaultValueKey(Session *s, uint32_t key, uint32_t valueKey);
/**
 * Sets the factory value key of a leaf.
 * @param s The session.
 * @param key Component key of the leaf.
 * @param valueKey The value key.
 * @return 0, or a code.
 */
KESDB_API int32_t leaf_setFactoryValueKey(Session *s, uint32_t key, uint32_t valueKey);
/**
 * The root component: the root word of the component medium's header.
 * @param s The session.
 * @return The root key, or 0.
 */
KESDB_API uint32_t comp_getRoot(Session *s);
/**
 * Placeholder of the interface; does nothing.
 * @return 0.
 */
KESDB_API int32_t dummydummy1(void);
/**
 * Placeholder of the interface; does nothing.
 * @return 0.
 */
KESDB_API int32_t dummydummy2(void);

/* Navigation and search. */
/**
 * The number of children of a node.
 * @param s The session.
 * @param key Component key.
 * @return The count; 0 for a leaf (#KESDB_ERR_COMP_NOTNODE) or on failure.
 */
KESDB_API int32_t comp_getChildCount(Session *s, uint32_t key);
/**
 * The child of a node at a position (from 0).
 * @param s The session.
 * @param key Component key.
 * @param index The position.
 * @return The child's key; 0 when there is none (nothing recorded), for a leaf
 *         (#KESDB_ERR_COMP_NOTNODE) or on failure.
 */
KESDB_API uint32_t comp_getChildByIndex(Session *s, uint32_t key, int32_t index);
/**
 * Searches a component and its subtree for a path (see kesDBMSearchByName()).
 * @param s The session.
 * @param key Component to start at; its own name is matched first.
 * @param path NUL-terminated path.
 * @return The key found, or 0 with #KESDB_ERR_COMP_NOMATCH (a name not a prefix; detail its key) or
 *         #KESDB_ERR_COMP_ENDSEARCH (a node matched, nothing below it; detail the node's key).
 */
KESDB_API uint32_t comp_searchByName(Session *s, uint32_t key, const char *path);

/* Creating, moving, deleting. */
/**
 * Creates a leaf (kesDBMCreateLeaf()).
 * @param s The session.
 * @param stringKey Name.
 * @param parent Parent node.
 * @param previous Previous sibling; 0 for the head.
 * @param currentValue Current value key.
 * @param defaultValue Default value key.
 * @param factoryValue Factory value key.
 * @param hookIndex Hook index; 0 for none.
 * @return The new key, or 0. When the place cannot be read or take the leaf, or the
 *         neighbour's write fails, the leaf is not written and its block stays allocated.
 */
KESDB_API uint32_t leaf_create(Session *s, uint32_t stringKey, uint32_t parent, uint32_t previous,
                               uint32_t currentValue, uint32_t defaultValue, uint32_t factoryValue,
                               uint32_t hookIndex);
/**
 * Creates a node (kesDBMCreateNode()).
 * @param s The session.
 * @param stringKey Name.
 * @param parent Parent node.
 * @param previous Previous sibling; 0 for the head.
 * @param child Component to wrap; 0 for none.
 * @return The new key, or 0.
 */
KESDB_API uint32_t node_create(Session *s, uint32_t stringKey, uint32_t parent, uint32_t previous, uint32_t child);
/**
 * Moves a leaf (kesDBMMoveLeaf()).
 * @param s The session.
 * @param leaf The leaf.
 * @param newParent New parent.
 * @param newPrevious New previous sibling; 0 for the head.
 * @return 0, or a code.
 */
KESDB_API int32_t leaf_move(Session *s, uint32_t leaf, uint32_t newParent, uint32_t newPrevious);
/**
 * Moves a node alone (kesDBMMoveNode()).
 * @param s The session.
 * @param node The node.
 * @param newParent New parent.
 * @param newPrevious New previous sibling; 0 for the head.
 * @param child Component to wrap; 0 for none.
 * @return 0, or a code.
 */
KESDB_API int32_t node_move(Session *s, uint32_t node, uint32_t newParent, uint32_t newPrevious, uint32_t child);
/**
 * Moves a node with its subtree (kesDBMMoveSubTree()).
 * @param s The session.
 * @param node The node.
 * @param newParent New parent.
 * @param newPrevious New previous sibling; 0 for the head.
 * @return 0, or a code.
 */
KESDB_API int32_t node_moveWithSub(Session *s, uint32_t node, uint32_t newParent, uint32_t newPrevious);
/**
 * Deletes one component (kesDBMDeleteComponent()). A component whose kind is neither node
 * nor leaf is taken out of its parent's list but not released (#KESDB_ERR_COMP_BADKIND).
 * @param s The session.
 * @param key Component key.
 * @return 0, or a code.
 */
KESDB_API int32_t comp_delete(Session *s, uint32_t key);
/**
 * Deletes a component with its subtree.
 * @param s The session.
 * @param key Component key.
 * @param unlink 1: unlink it from its parent first (kesDBMDeleteComponentWithSub()); 0: do not.
 * @return 0, or a code.
 */
KESDB_API int32_t comp_deleteWithSub(Session *s, uint32_t key, uint32_t unlink);

/* Value-set transfers, printing and component locks. */
/**
 * Copies current to default values at and below a component (kesDBMCurrentToDefault()).
 * @param s The session.
 * @param key Component key.
 * @return 0, or the first code met.
 */
KESDB_API int32_t comp_currentToDefault(Session *s, uint32_t key);
/**
 * Copies factory to default values at and below a component (kesDBMFactoryToDefault()).
 * @param s The session.
 * @param key Component key.
 * @return 0, or the first code met.
 */
KESDB_API int32_t comp_factoryToDefault(Session *s, uint32_t key);
/**
 * Copies default to current values at and below a component, with the set hooks
 * (kesDBMDefaultToCurrent()).
 * @param s The session.
 * @param key Component key.
 * @return 0, or the first code met.
 */
KESDB_API int32_t comp_defaultToCurrent(Session *s, uint32_t key);
/**
 * Prints a subtree on standard output, indented by depth.
 * @param s The session.
 * @param key Component key.
 * @param depth Depth of @p key (0 at the top).
 */
KESDB_API void comp_traverseAndPrint(Session *s, uint32_t key, int32_t depth);
/**
 * Locks a key (kesDBMLock()): low byte of @p mode 0 waits, 1 tries.
 * @param s The session.
 * @param key The key.
 * @param mode The mode.
 * @return 0, #KESDB_ERR_LOCK_BUSY, #KESDB_ERR_LOCK_MODE, #KESDB_ERR_LOCK_FULL, or a semaphore code.
 */
KESDB_API int32_t comp_lock(Session *s, uint32_t key, uint32_t mode);
/**
 * Unlocks a key (kesDBMUnlock()).
 * @param s The session.
 * @param key The key.
 * @return 0, #KESDB_ERR_LOCK_NOTFOUND, or a semaphore code.
 */
KESDB_API int32_t comp_unlock(Session *s, uint32_t key);

#ifdef __cplusplus
}
#endif

#endif
