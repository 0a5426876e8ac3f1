// Changes of the tree's shape: creating, moving and deleting components.
//
// Every change is worked out in memory before anything is written: the records it touches
// are read once (a record read again sees the change staged for it so far), changed, and
// staged; only when every read has succeeded are the staged records written, in the order
// they were first staged. So a key that names no readable record, a damaged list or a place
// that cannot take the component leaves the tree exactly as it was; only a failing write
// can leave a change half done. The order of staging is the order of writes an interrupted
// change must respect: creation writes the neighbour (previous sibling or parent), then the
// wrapped child, then the new record; a move writes the spliced children, the old
// predecessor, the old parent (always, changed or not), the new neighbour, the wrapped child
// and last the moved record; a delete writes the unlinking records first and releases last.
// A record touched twice (the old parent that is also the new one) is written once, at its
// first place, with its final contents.
//
// Checks made before anything is written (each refusal records KESDB_ERR_COMP_NOTNODE, 2,
// detail 0, "the named place cannot take this component"):
//   - the new parent must be a node, and so must the old one named by the parent word;
//   - a previous sibling must be a child of the new parent (its parent word names it);
//   - a component is never placed behind itself or below itself: the new parent, previous
//     sibling or child to wrap may not be the component itself, and a subtree moved whole
//     may not go below one of its own components;
//   - the child to wrap must be the component directly behind the insertion point, the only
//     one that can leave the list in its favour.
// A leaf move needs a leaf (else error 1) and a node move a node (else error 2): a node
// moved as a leaf would have its 40-byte record written over the start of the next record.
//
// Parent words: when a node's children take its place in its parent's list (node_move and
// comp_delete), their parent words are rewritten to name that parent, so that every parent
// word names the node whose list holds the component.
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "kesdbm/tree.h"
#include "storage/medium_io.hpp"
#include "tree/walk_guard.hpp"
#include "value/changes.hpp"

namespace {

using kes::tree::failureCode;
using kes::tree::LoopGuard;
using kes::tree::ownKey;
using kes::tree::readCommon;
using kes::tree::WalkBudget;

// Enters a change for watchers (value/changes.cpp) when `result` says it was made.
int32_t entered(Session* s, int32_t result, uint32_t key, uint32_t parent) {
    if (result == 0) kes::changes::record(s, key, parent);
    return result;
}

int32_t refuse(Session* s) { return session_setError(s, KESDB_ERR_COMP_NOTNODE, 0); }

// A growing array of plain records that records KESDB_ERR_NOMEM when it cannot grow.
template <class T>
class GrowArray {
public:
    GrowArray() = default;
    GrowArray(const GrowArray&) = delete;
    GrowArray& operator=(const GrowArray&) = delete;
    ~GrowArray() { std::free(items_); }
    // Appends a slot and returns it, or null (error recorded).
    T* append(Session* s) {
        if (count_ == capacity_) {
            const size_t capacity = capacity_ ? capacity_ * 2 : 16;
            // A size_t of 32 bits wraps long before the walk's bounds are reached.
            void* grown = nullptr;
            if (capacity <= SIZE_MAX / sizeof(T))
                grown = std::realloc(items_, capacity * sizeof(T));
            else
                errno = ENOMEM;
            if (!grown) {
                session_setError(s, KESDB_ERR_NOMEM, static_cast<uint32_t>(errno));
                return nullptr;
            }
            items_ = static_cast<T*>(grown);
            capacity_ = capacity;
        }
        return &items_[count_++];
    }
    size_t size() const { return count_; }
    T& operator[](size_t i) { return items_[i]; }
    const T& operator[](size_t i) const { return items_[i]; }

private:
    T* items_ = nullptr;
    size_t count_ = 0;
    size_t capacity_ = 0;
};

// The records one change touches, staged in memory until every read is done.
class Change {
public:
    explicit Change(Session* s) : s_(s) {}
    Change(const Change&) = delete;
    Change& operator=(const Change&) = delete;

    Session* session() const { return s_; }

    bool readComp(uint32_t key, CompRecord& r) { return read(key, &r, sizeof r); }
    bool readNode(uint32_t key, NodeRecord& r) { return read(key, &r, sizeof r); }
    bool readLeaf(uint32_t key, LeafRecord& r) { return read(key, &r, sizeof r); }
    bool readRecord(uint32_t key, NodeRecord& r) { return readNode(key, r); }
    bool readRecord(uint32_t key, LeafRecord& r) { return readLeaf(key, r); }
    bool stage(const CompRecord& r) { return put(r.key, &r, sizeof r); }
    bool stage(const NodeRecord& r) { return put(r.comp.key, &r, sizeof r); }
    bool stage(const LeafRecord& r) { return put(r.comp.key, &r, sizeof r); }

    // Writes the staged records in the order they were first staged, each with the size it
    // was staged with. Returns the write result of the record at `key` (0 when none is).
    int32_t commit(uint32_t key) {
        int32_t result = 0;
        for (size_t i = 0; i < slots_.size(); ++i) {
            const int32_t r = write(slots_[i]);
            if (slots_[i].key == key) result = r;
        }
        return result;
    }

private:
    struct Slot {
        uint32_t key;
        uint32_t size;
        unsigned char bytes[sizeof(LeafRecord)];
    };

    Slot* find(uint32_t key) {
        for (size_t i = 0; i < slots_.size(); ++i)
            if (slots_[i].key == key) return &slots_[i];
        return nullptr;
    }

    // A record of `size` bytes (24, 28 or 40): the staged version where it covers them,
    // otherwise the medium's record with the staged bytes laid over it.
    bool read(uint32_t key, void* out, uint32_t size) {
        Slot* slot = find(key);
        if (slot && slot->size >= size) {
            std::memcpy(out, slot->bytes, size);
            return true;
        }
        bool ok = false;
        if (size == sizeof(CompRecord)) {
            ok = readCommon(s_, key, static_cast<CompRecord*>(out)) != nullptr;
        } else if (size == sizeof(NodeRecord)) {
            ok = comp_getNode(s_, key, static_cast<NodeRecord*>(out)) != nullptr;
        } else {
            ok = comp_getLeaf(s_, key, static_cast<LeafRecord*>(out)) != nullptr;
        }
        if (!ok) return false;
        uint32_t stored = 0;
        std::memcpy(&stored, out, sizeof stored);
        if (!ownKey(s_, key, stored)) return false;
        if (slot) std::memcpy(out, slot->bytes, slot->size);
        return true;
    }

    bool put(uint32_t key, const void* bytes, uint32_t size) {
        Slot* slot = find(key);
        if (!slot) {
            slot = slots_.append(s_);
            if (!slot) return false;
            slot->key = key;
            slot->size = 0;
        }
        std::memcpy(slot->bytes, bytes, size);
        if (size > slot->size) slot->size = size;
        return true;
    }

    int32_t write(const Slot& slot) {
        if (slot.size == sizeof(CompRecord)) {
            CompRecord r;
            std::memcpy(&r, slot.bytes, sizeof r);
            return comp_setComponent(s_, &r);
        }
        if (slot.size == sizeof(NodeRecord)) {
            NodeRecord r;
            std::memcpy(&r, slot.bytes, sizeof r);
            return comp_setNode(s_, &r);
        }
        LeafRecord r;
        std::memcpy(&r, slot.bytes, sizeof r);
        return comp_setLeaf(s_, &r);
    }

    Session* s_;
    GrowArray<Slot> slots_;
};

// Insertion of R at (parent, previous): directly behind `previous`, or at the head of the
// parent's list when `previous` is 0. Sets R.parent and R.next sibling.
bool insert(Change& change, CompRecord& r, uint32_t parent, uint32_t previous) {
    Session* const s = change.session();
    if (parent == r.key || previous == r.key) return refuse(s), false;
    CompRecord place;
    if (!change.readComp(parent, place)) return false;
    if (place.kind != KESDB_KIND_NODE) return refuse(s), false;
    r.parent = parent;
    if (previous != 0) {
        CompRecord before;
        if (!change.readComp(previous, before)) return false;
        if (before.parent != parent) return refuse(s), false;
        r.nextSibling = before.nextSibling;
        before.nextSibling = r.key;
        return change.stage(before);
    }
    NodeRecord node;
    if (!change.readNode(parent, node)) return false;
    r.nextSibling = node.firstChild;
    node.firstChild = r.key;
    return change.stage(node);
}

// Wrapping: the child W, which must be the component now behind N, leaves the list and
// becomes N's only child; N takes its place.
bool wrap(Change& change, CompRecord& n, uint32_t child) {
    Session* const s = change.session();
    if (child == n.key || child != n.nextSibling) return refuse(s), false;
    CompRecord w;
    if (!change.readComp(child, w)) return false;
    n.nextSibling = w.nextSibling;
    w.parent = n.key;
    w.nextSibling = 0;
    return change.stage(w);
}

// Takes C out of its parent's list. With `splice`, a node's children take its place (their
// parent words then name that parent). A component whose parent word is 0 is in no list:
// the read of key 0 records error 4 and nothing is unlinked, and the change goes on.
bool unlink(Change& change, const CompRecord& c, uint32_t firstChild, bool splice) {
    Session* const s = change.session();
    NodeRecord parent;
    if (c.parent == 0) {
        comp_getNode(s, 0, &parent);
        return true;
    }
    if (!change.readNode(c.parent, parent)) return false;
    // A parent word that names a leaf marks a damaged record: a leaf read as a node would
    // have its value keys taken for a list.
    if (parent.comp.kind != KESDB_KIND_NODE) return refuse(s), false;

    uint32_t replacement = c.nextSibling;
    if (splice && c.kind == KESDB_KIND_NODE && firstChild != 0) {
        LoopGuard guard;
        for (uint32_t child = firstChild; child != 0;) {
            if (!guard.visit(child)) return kes::tree::walkLimit(s, child), false;
            CompRecord r;
            if (!change.readComp(child, r)) return false;
            const uint32_t after = r.nextSibling;
            r.parent = parent.comp.key;
            if (after == 0) r.nextSibling = c.nextSibling;  // the last child links on to C's successor
            if (!change.stage(r)) return false;
            child = after;
        }
        replacement = firstChild;
    }

    if (parent.firstChild == c.key) {
        parent.firstChild = replacement;
    } else {
        LoopGuard guard;
        for (uint32_t x = parent.firstChild; x != 0;) {
            if (!guard.visit(x)) return kes::tree::walkLimit(s, x), false;
            CompRecord r;
            if (!change.readComp(x, r)) return false;
            if (r.nextSibling == c.key) {
                r.nextSibling = replacement;
                if (!change.stage(r)) return false;
                break;
            }
            x = r.nextSibling;
        }
    }
    return change.stage(parent);
}

// Whether `place` is `key` or lies below it, by the parent words from `place` upwards.
// False when that cannot be told (a read failed, or the chain is longer than any walk may go).
bool within(Change& change, uint32_t place, uint32_t key, bool* inside) {
    Session* const s = change.session();
    LoopGuard guard;
    int32_t steps = 0;
    for (uint32_t k = place; k != 0;) {
        if (k == key) {
            *inside = true;
            return true;
        }
        if (!guard.visit(k) || ++steps > kes::tree::kMaxDepth) return kes::tree::walkLimit(s, k), false;
        CompRecord r;
        if (!change.readComp(k, r)) return false;
        k = r.parent;
    }
    *inside = false;
    return true;
}

// leaf_move and node_moveWithSub: plain unlinking, insertion, the record written last.
template <class R>
int32_t moveWhole(Session* s, uint32_t key, uint32_t newParent, uint32_t newPrevious) {
    Change change(s);
    R record;
    if (!change.readRecord(key, record)) return failureCode(s);
    uint32_t firstChild = 0;
    if constexpr (sizeof(R) == sizeof(NodeRecord)) {
        if (record.comp.kind != KESDB_KIND_NODE) return session_setError(s, KESDB_ERR_COMP_NOTNODE, 0);
        bool inside = false;
        if (!within(change, newParent, key, &inside)) return failureCode(s);
        if (inside) return refuse(s);
        firstChild = record.firstChild;
    } else {
        if (record.comp.kind != KESDB_KIND_LEAF) return session_setError(s, KESDB_ERR_COMP_NOTLEAF, 0);
    }
    const uint32_t oldParent = record.comp.parent;
    if (!unlink(change, record.comp, firstChild, false)) return failureCode(s);
    if (!insert(change, record.comp, newParent, newPrevious)) return failureCode(s);
    if (!change.stage(record)) return failureCode(s);
    return entered(s, change.commit(key), key, oldParent);
}

// Children's keys gathered before a subtree is deleted from the last child to the first.
class KeyList {
public:
    bool push(Session* s, uint32_t key) {
        uint32_t* slot = keys_.append(s);
        if (slot) *slot = key;
        return slot != nullptr;
    }
    size_t size() const { return keys_.size(); }
    uint32_t operator[](size_t i) const { return keys_[i]; }

private:
    GrowArray<uint32_t> keys_;
};

// The walk a deletion will make, made first without changing anything: the subtree must keep
// the walk bounds (no looped list, no cycle, not too deep) and every record read must begin
// with its own key. Below the component itself, a record that cannot be read ends its list
// there (the deletion skips it and goes on, as the walk below does); a leaf or a record of
// another kind has nothing below it. `next` receives the component's next sibling.
bool checkSubtree(Session* s, uint32_t key, WalkBudget& budget, int64_t level, uint32_t* next) {
    *next = 0;
    if (!budget.enter(s, key, level)) return false;
    NodeRecord record;
    if (!comp_getNode(s, key, &record)) return level != 0;
    if (!ownKey(s, key, record.comp.key)) return false;
    *next = record.comp.nextSibling;
    if (record.comp.kind != KESDB_KIND_NODE) return true;
    LoopGuard guard;
    for (uint32_t child = record.firstChild; child != 0;) {
        if (!guard.visit(child)) return budget.stop(s, child);
        uint32_t after = 0;
        if (!checkSubtree(s, child, budget, level + 1, &after)) return false;
        child = after;
    }
    return true;
}

int32_t deleteSubtree(Session* s, uint32_t key, uint32_t unlinkFirst, WalkBudget& budget, int64_t level) {
    if (!budget.enter(s, key, level)) return KESDB_ERR_COMP_READ;
    NodeRecord comp;
    bool read = false;
    uint32_t parent = 0;
    // The deletion is entered for watchers once it is over, however it ended.
    kes::ScopeExit enter([&] {
        if (level == 0 && read) kes::changes::record(s, key, parent);
    });
    {
        Change change(s);
        if (!change.readNode(key, comp)) return failureCode(s);
        read = true;
        parent = comp.comp.parent;
        if (unlinkFirst != 0) {
            if (!unlink(change, comp.comp, comp.firstChild, false)) return failureCode(s);
            change.commit(0);
            if (!comp_getNode(s, key, &comp) || !ownKey(s, key, comp.comp.key)) return failureCode(s);
        }
    }
    if (comp.comp.kind == KESDB_KIND_NODE && comp.firstChild != 0) {
        KeyList children;
        LoopGuard guard;
        for (uint32_t child = comp.firstChild; child != 0; child = comp_getNextSibling(s, child)) {
            if (!guard.visit(child)) {
                budget.stop(s, child);
                return KESDB_ERR_COMP_READ;
            }
            if (!children.push(s, child)) return KESDB_ERR_NOMEM;
        }
        // Each child's result is not looked at; a walk limit ends the whole deletion, so
        // that nothing above a subtree that could not be walked is released.
        for (size_t i = children.size(); i-- > 0;) {
            deleteSubtree(s, children[i], 0, budget, level + 1);
            if (budget.aborted) return KESDB_ERR_COMP_READ;
        }
    }
    return comp_setDeleted(s, &comp.comp);
}

}  // namespace

extern "C" {

// When the place cannot be read or cannot take the leaf, or the neighbour's write fails, the
// leaf is not written and its block stays allocated.
uint32_t leaf_create(Session* s, uint32_t stringKey, uint32_t parent, uint32_t previous, uint32_t currentValue,
                     uint32_t defaultValue, uint32_t factoryValue, uint32_t hookIndex) {
    LeafRecord leaf{};
    if (!comp_newLeaf(s, &leaf)) return 0;
    leaf.comp.stringKey = stringKey;
    leaf.comp.reserved = 0;
    leaf.comp.parent = parent;
    leaf.comp.nextSibling = 0;
    leaf.comp.kind = KESDB_KIND_LEAF;
    leaf.currentValue = currentValue;
    leaf.defaultValue = defaultValue;
    leaf.factoryValue = factoryValue;
    leaf.hookIndex = hookIndex;
    Change change(s);
    if (!insert(change, leaf.comp, parent, previous)) return 0;
    if (change.commit(previous != 0 ? previous : parent) != 0) return 0;
    if (comp_setLeaf(s, &leaf) != 0) return 0;
    kes::changes::record(s, leaf.comp.key, parent);
    return leaf.comp.key;
}

// When the place or the child to wrap cannot be read, or cannot take the node, the node's
// block goes back to the allocator and nothing is written. Once written, the key is
// returned whatever the node's own write gave (the neighbour names it already).
uint32_t node_create(Session* s, uint32_t stringKey, uint32_t parent, uint32_t previous, uint32_t child) {
    NodeRecord node{};
    if (!comp_newNode(s, &node)) return 0;
    node.comp.stringKey = stringKey;
    node.comp.reserved = 0;
    node.comp.parent = parent;
    node.comp.nextSibling = 0;
    node.comp.kind = KESDB_KIND_NODE;
    node.firstChild = child;
    Change change(s);
    const bool placed = insert(change, node.comp, parent, previous) &&
                        (child == 0 || wrap(change, node.comp, child)) && change.stage(node);
    if (!placed) {
        comp_setDeleted(s, &node.comp);
        return 0;
    }
    change.commit(node.comp.key);
    kes::changes::record(s, node.comp.key, parent);
    return node.comp.key;
}

int32_t leaf_move(Session* s, uint32_t leaf, uint32_t newParent, uint32_t newPrevious) {
    return moveWhole<LeafRecord>(s, leaf, newParent, newPrevious);
}

int32_t node_moveWithSub(Session* s, uint32_t node, uint32_t newParent, uint32_t newPrevious) {
    return moveWhole<NodeRecord>(s, node, newParent, newPrevious);
}

// The node's children stay behind in its old place; it arrives with the wrapped child as its
// only child, or with none.
int32_t node_move(Session* s, uint32_t node, uint32_t newParent, uint32_t newPrevious, uint32_t child) {
    Change change(s);
    NodeRecord record;
    if (!change.readNode(node, record)) return failureCode(s);
    if (record.comp.kind != KESDB_KIND_NODE) return session_setError(s, KESDB_ERR_COMP_NOTNODE, 0);
    const uint32_t oldParent = record.comp.parent;
    if (!unlink(change, record.comp, record.firstChild, true)) return failureCode(s);
    if (!insert(change, record.comp, newParent, newPrevious)) return failureCode(s);
    if (child != 0 && !wrap(change, record.comp, child)) return failureCode(s);
    record.firstChild = child;
    if (!change.stage(record)) return failureCode(s);
    return entered(s, change.commit(node), node, oldParent);
}

// A deleted node's children take its place under its parent. A record of another kind leaves
// its parent's list too, but is not released (error 3).
int32_t comp_delete(Session* s, uint32_t key) {
    Change change(s);
    NodeRecord record;
    if (!change.readNode(key, record)) return failureCode(s);
    const uint32_t parent = record.comp.parent;
    if (!unlink(change, record.comp, record.firstChild, true)) return failureCode(s);
    change.commit(0);
    CompRecord again;
    if (!readCommon(s, key, &again) || !ownKey(s, key, again.key)) return failureCode(s);
    const int32_t rc = comp_setDeleted(s, &again);
    kes::changes::record(s, key, parent);  // unlinked already, whatever the release gave
    return rc;
}

// Releases the component and everything below it: children from the last to the first, each
// subtree before its own root. A component below it that cannot be read, or whose kind is
// neither node nor leaf, is skipped (not released) and the deletion goes on; the result is
// the release of the component itself (error 3 for an unknown kind, after it was unlinked).
// The subtree is walked once before anything is unlinked or released; when the component
// cannot be read, a record does not begin with its own key, or the walk runs into a looped
// list, a cycle or the depth limit (error 55), nothing is changed and the code that walk
// recorded is returned.
int32_t comp_deleteWithSub(Session* s, uint32_t key, uint32_t unlinkFirst) {
    WalkBudget check;
    uint32_t next = 0;
    if (!checkSubtree(s, key, check, 0, &next)) return failureCode(s);
    WalkBudget budget;
    return deleteSubtree(s, key, unlinkFirst, budget, 0);
}

}  // extern "C"
