// Component records: whole-record reads and writes in the component medium, allocation and
// release of records, and the single-field accessors the tree operations are built from.
#include <cerrno>
#include <cstddef>
#include <cstdio>

#include "kesdbm/storage.h"
#include "kesdbm/tree.h"
#include "storage/medium_io.hpp"
#include "tree/walk_guard.hpp"

static_assert(sizeof(CompRecord) == 24, "common part is 24 bytes");
static_assert(offsetof(CompRecord, key) == 0);
static_assert(offsetof(CompRecord, stringKey) == 4);
static_assert(offsetof(CompRecord, reserved) == 8);
static_assert(offsetof(CompRecord, parent) == 12);
static_assert(offsetof(CompRecord, nextSibling) == 16);
static_assert(offsetof(CompRecord, kind) == 20);
static_assert(sizeof(NodeRecord) == 28, "node record is 28 bytes");
static_assert(offsetof(NodeRecord, comp) == 0);
static_assert(offsetof(NodeRecord, firstChild) == 24);
static_assert(sizeof(LeafRecord) == 40, "leaf record is 40 bytes");
static_assert(offsetof(LeafRecord, comp) == 0);
static_assert(offsetof(LeafRecord, currentValue) == 24);
static_assert(offsetof(LeafRecord, defaultValue) == 28);
static_assert(offsetof(LeafRecord, factoryValue) == 32);
static_assert(offsetof(LeafRecord, hookIndex) == 36);

namespace {

using kes::tree::failureCode;
using kes::tree::ownKey;
using kes::tree::readCommon;

enum class Outcome { Ok, NoDb, NoEntry, NullKey, OpenFailed, Short };

struct Transfer {
    Outcome outcome = Outcome::Ok;
    int count = 0;              // what the driver's read or write returned (Short)
    uint32_t err = 0;           // the driver's error word (OpenFailed, Short)
    const char* mediumName = "";  // for the leaf read's messages
};

// One whole-record transfer at `key` in the session's component medium, in the order of
// checks every record access makes: database, medium entry, key, open, transfer. A key
// below `minKey` is refused (NullKey) without opening the medium.
Transfer transfer(Session* s, uint32_t key, void* buffer, uint32_t size, bool write, uint32_t minKey) {
    Transfer t;
    const DBMInitParam* p = kes::dbOf(s);
    if (!p) {
        t.outcome = Outcome::NoDb;
        return t;
    }
    MediaEntry* entry = getMedia(s, kes::mediumIndex(p, kes::RecordKind::Component));
    if (!entry) {
        t.outcome = Outcome::NoEntry;
        return t;
    }
    if (entry->name) t.mediumName = entry->name;
    if (key < minKey) {
        t.outcome = Outcome::NullKey;
        return t;
    }
    kes::Medium medium(entry);
    if (!medium.open()) {
        t.outcome = Outcome::OpenFailed;
        t.err = medium.err();
        return t;
    }
    t.count = write ? medium.write(buffer, size, key) : medium.read(buffer, size, key);
    if (t.count != static_cast<int>(size)) {
        t.outcome = Outcome::Short;
        t.err = medium.err();
    }
    return t;
}

uint32_t keyOf(const CompRecord& r) { return r.key; }
uint32_t keyOf(const NodeRecord& r) { return r.comp.key; }
uint32_t keyOf(const LeafRecord& r) { return r.comp.key; }

// The three whole-record writes differ only in their size. A record whose key lies in the
// medium header (below 16) would overwrite the root word and the free-list anchor: such a
// write is refused with error 4, like a read of key 0.
template <class R>
int32_t writeRecord(Session* s, const R* record) {
    if (!record) return session_setError(s, KESDB_ERR_NULLARG, 0);
    const Transfer t =
        transfer(s, keyOf(*record), const_cast<R*>(record), sizeof(R), true, kes::tree::kFirstRecordKey);
    switch (t.outcome) {
        case Outcome::Ok: return 0;
        case Outcome::NoDb: return session_setError(s, KESDB_ERR_DB_NOTFOUND, 0);
        case Outcome::NoEntry: {
            const int32_t code = kes::lastError(s);  // 21, recorded by getMedia
            return code != 0 ? code : KESDB_ERR_MEDIA_INDEX;
        }
        case Outcome::NullKey: return session_setError(s, KESDB_ERR_COMP_NULLKEY, 0);
        case Outcome::OpenFailed: return session_setError(s, KESDB_ERR_COMP_OPEN, t.err);
        case Outcome::Short: break;
    }
    return session_setError(s, KESDB_ERR_COMP_WRITE, t.err);
}

// Takes a block from the rooted allocator. The allocator yields 0 both when no free element
// is large enough and when one of its own reads failed (it recorded that code then). Only
// the first case is recorded here, as `noSpaceCode` with ENOSPC as the detail; a failure the
// allocator recorded stays as it is, and a successful allocation leaves the session's
// earlier error pair untouched.
uint32_t allocate(Session* s, uint32_t medium, uint32_t size, int32_t noSpaceCode) {
    uint32_t key = 0;
    if (kes::recordedBy(s, [&] { key = flst_m_get(s, medium, size); }) == 0 && key == 0)
        session_setError(s, noSpaceCode, ENOSPC);
    return key;
}

// comp_newNode and comp_newLeaf. A component is never placed at key 0: when the allocator
// has no block large enough, the new record gets none and KESDB_ERR_COMP_WRITE (54) is
// recorded with ENOSPC as detail (the record cannot be written for lack of space). The
// allocator's failure value 0xFFFFFFFF gives none too; the allocator recorded its code.
template <class R>
R* newRecord(Session* s, R* buffer, uint32_t kind) {
    const DBMInitParam* p = kes::dbOf(s);
    if (!p) {
        session_setError(s, KESDB_ERR_DB_NOTFOUND, 0);
        return nullptr;
    }
    if (!buffer) {
        session_setError(s, KESDB_ERR_NULLARG, 0);
        return nullptr;
    }
    const uint32_t key = allocate(s, kes::mediumIndex(p, kes::RecordKind::Component), sizeof(R), KESDB_ERR_COMP_WRITE);
    if (key == 0 || key == KESDB_FLST_FAILED) return nullptr;
    buffer->comp.key = key;
    buffer->comp.kind = kind;
    return buffer;
}

// Reads a leaf for one of the six value-key accessors: the record must be a leaf.
LeafRecord* readLeafOf(Session* s, uint32_t key, LeafRecord* leaf) {
    if (!comp_getLeaf(s, key, leaf)) return nullptr;
    if (leaf->comp.kind != KESDB_KIND_LEAF) {
        session_setError(s, KESDB_ERR_COMP_NOTLEAF, 0);
        return nullptr;
    }
    return leaf;
}

// The three leaf setters: read the leaf, change one word, write the 40 bytes back.
template <class Change>
int32_t setLeafField(Session* s, uint32_t key, Change change) {
    LeafRecord leaf;
    if (!comp_getLeaf(s, key, &leaf)) return failureCode(s);
    if (leaf.comp.kind != KESDB_KIND_LEAF) return session_setError(s, KESDB_ERR_COMP_NOTLEAF, 0);
    if (!ownKey(s, key, leaf.comp.key)) return KESDB_ERR_COMP_READ;
    change(leaf);
    return comp_setLeaf(s, &leaf);
}

// The three common-part setters: read 24 bytes, change one word, write them back.
template <class Change>
int32_t setCommonField(Session* s, uint32_t key, Change change) {
    CompRecord comp;
    if (!readCommon(s, key, &comp)) return failureCode(s);
    if (!ownKey(s, key, comp.key)) return KESDB_ERR_COMP_READ;
    change(comp);
    return comp_setComponent(s, &comp);
}

// The common-part getters. Key 0 is refused with error 4 (see readCommon).
template <class Field>
uint32_t getCommonField(Session* s, uint32_t key, Field field) {
    CompRecord comp;
    if (!readCommon(s, key, &comp)) return 0;
    return field(comp);
}

}  // namespace

extern "C" {

CompRecord* comp_getComponent(Session* s, uint32_t key, CompRecord* buffer) {
    if (!buffer) {
        session_setError(s, KESDB_ERR_NULLARG, 0);
        return nullptr;
    }
    const Transfer t = transfer(s, key, buffer, sizeof(CompRecord), false, 0);
    switch (t.outcome) {
        case Outcome::Ok: return buffer;
        case Outcome::NoDb:
            std::printf("comp_getComponent err4\n");
            session_setError(s, KESDB_ERR_DB_NOTFOUND, 0);
            break;
        case Outcome::NoEntry: std::printf("comp_getComponent err3\n"); break;
        case Outcome::OpenFailed:
            std::printf("comp_getComponent err2\n");
            session_setError(s, KESDB_ERR_COMP_OPEN, t.err);
            break;
        case Outcome::NullKey: break;  // never: this read takes every key, 0 included
        case Outcome::Short:
            std::printf("comp_getComponent err1 0x%x 0x%x 0x%x\n", static_cast<unsigned>(t.count),
                        static_cast<unsigned>(sizeof(CompRecord)), key);
            session_setError(s, KESDB_ERR_COMP_READ, t.err);
            break;
    }
    return nullptr;
}

NodeRecord* comp_getNode(Session* s, uint32_t key, NodeRecord* buffer) {
    if (!buffer) {
        session_setError(s, KESDB_ERR_NULLARG, 0);
        return nullptr;
    }
    const Transfer t = transfer(s, key, buffer, sizeof(NodeRecord), false, 1);
    switch (t.outcome) {
        case Outcome::Ok: return buffer;
        case Outcome::NoDb: session_setError(s, KESDB_ERR_DB_NOTFOUND, 0); break;
        case Outcome::NoEntry: break;  // 21 stays as getMedia recorded it
        case Outcome::NullKey: session_setError(s, KESDB_ERR_COMP_NULLKEY, 0); break;
        case Outcome::OpenFailed: session_setError(s, KESDB_ERR_COMP_OPEN, t.err); break;
        case Outcome::Short: session_setError(s, KESDB_ERR_COMP_READ, t.err); break;
    }
    return nullptr;
}

// The error is recorded first and the message printed after it. Without a medium entry
// there is no medium name: the message then shows an empty name.
LeafRecord* comp_getLeaf(Session* s, uint32_t key, LeafRecord* buffer) {
    if (!buffer) {
        session_setError(s, KESDB_ERR_NULLARG, 0);
        return nullptr;
    }
    const Transfer t = transfer(s, key, buffer, sizeof(LeafRecord), false, 1);
    switch (t.outcome) {
        case Outcome::Ok: return buffer;
        case Outcome::NoDb:
            session_setError(s, KESDB_ERR_DB_NOTFOUND, 0);
            std::printf("comp_getLeaf err4 \n");
            break;
        case Outcome::NoEntry: std::printf("comp_getLeaf err3 %s\n", t.mediumName); break;
        case Outcome::NullKey:
            session_setError(s, KESDB_ERR_COMP_NULLKEY, 0);
            std::printf("comp_getLeaf err2 %s\n", t.mediumName);
            break;
        case Outcome::OpenFailed:
            session_setError(s, KESDB_ERR_COMP_OPEN, t.err);
            std::printf("comp_getLeaf err1 %s\n", t.mediumName);
            break;
        case Outcome::Short:
            session_setError(s, KESDB_ERR_COMP_READ, t.err);
            std::printf("comp_getLeaf err0 %s 0x%x\n", t.mediumName, static_cast<unsigned>(t.count));
            break;
    }
    return nullptr;
}

int32_t comp_setComponent(Session* s, const CompRecord* record) { return writeRecord(s, record); }
int32_t comp_setNode(Session* s, const NodeRecord* record) { return writeRecord(s, record); }
int32_t comp_setLeaf(Session* s, const LeafRecord* record) { return writeRecord(s, record); }

NodeRecord* comp_newNode(Session* s, NodeRecord* buffer) { return newRecord(s, buffer, KESDB_KIND_NODE); }
LeafRecord* comp_newLeaf(Session* s, LeafRecord* buffer) { return newRecord(s, buffer, KESDB_KIND_LEAF); }

// Gives a record's space back: 28 bytes for a node, 40 for a leaf. A key inside the medium
// header (below 16) never names a record, and releasing there would overwrite the header or
// the first record: it is refused with error 4 and nothing is released.
int32_t comp_setDeleted(Session* s, const CompRecord* record) {
    const DBMInitParam* p = kes::dbOf(s);
    if (!p) return session_setError(s, KESDB_ERR_DB_NOTFOUND, 0);
    if (!record) return session_setError(s, KESDB_ERR_NULLARG, 0);
    uint32_t size = 0;
    if (record->kind == KESDB_KIND_NODE) {
        size = sizeof(NodeRecord);
    } else if (record->kind == KESDB_KIND_LEAF) {
        size = sizeof(LeafRecord);
    } else {
        return session_setError(s, KESDB_ERR_COMP_BADKIND, 0);
    }
    if (record->key < kes::tree::kFirstRecordKey) return session_setError(s, KESDB_ERR_COMP_NULLKEY, 0);
    return flst_m_release(s, kes::mediumIndex(p, kes::RecordKind::Component), record->key, size);
}

int32_t comp_init(void) { return 0; }
int32_t comp_term(void) { return 0; }

uint32_t comp_getStringKey(Session* s, uint32_t key) {
    return getCommonField(s, key, [](const CompRecord& c) { return c.stringKey; });
}

int32_t comp_setStringKey(Session* s, uint32_t key, uint32_t stringKey) {
    return setCommonField(s, key, [stringKey](CompRecord& c) { c.stringKey = stringKey; });
}

uint32_t comp_getParent(Session* s, uint32_t key) {
    return getCommonField(s, key, [](const CompRecord& c) { return c.parent; });
}

int32_t comp_setParent(Session* s, uint32_t key, uint32_t parent) {
    return setCommonField(s, key, [parent](CompRecord& c) { c.parent = parent; });
}

uint32_t comp_getNextSibling(Session* s, uint32_t key) {
    return getCommonField(s, key, [](const CompRecord& c) { return c.nextSibling; });
}

int32_t comp_setNextSibling(Session* s, uint32_t key, uint32_t sibling) {
    return setCommonField(s, key, [sibling](CompRecord& c) { c.nextSibling = sibling; });
}

// A leaf has no children: 0 without an error. A kind that is neither node nor leaf marks a
// damaged record: 0 with error 3.
uint32_t comp_getFirstChild(Session* s, uint32_t key) {
    CompRecord comp;
    if (!readCommon(s, key, &comp)) return 0;
    if (comp.kind == KESDB_KIND_LEAF) return 0;
    if (comp.kind != KESDB_KIND_NODE) {
        session_setError(s, KESDB_ERR_COMP_BADKIND, 0);
        return 0;
    }
    NodeRecord node;
    if (!comp_getNode(s, key, &node)) return 0;
    return node.firstChild;
}

// A leaf gives error 2; a kind that is neither node nor leaf gives error 3.
int32_t comp_setFirstChild(Session* s, uint32_t key, uint32_t child) {
    CompRecord comp;
    if (!readCommon(s, key, &comp)) return failureCode(s);
    if (comp.kind == KESDB_KIND_LEAF) return session_setError(s, KESDB_ERR_COMP_NOTNODE, 0);
    if (comp.kind != KESDB_KIND_NODE) return session_setError(s, KESDB_ERR_COMP_BADKIND, 0);
    NodeRecord node;
    if (!comp_getNode(s, key, &node)) return failureCode(s);
    if (!ownKey(s, key, node.comp.key)) return KESDB_ERR_COMP_READ;
    node.firstChild = child;
    return comp_setNode(s, &node);
}

uint32_t leaf_getCurrentValueKey(Session* s, uint32_t key) {
    LeafRecord leaf;
    const bool read = comp_getLeaf(s, key, &leaf) != nullptr;
    dummydummy1();
    dummydummy2();
    if (!read) return 0;
    if (leaf.comp.kind != KESDB_KIND_LEAF) {
        std::printf("leaf_getCurrentValueKey err 0x%x", key);
        session_setError(s, KESDB_ERR_COMP_NOTLEAF, 0);
        return 0;
    }
    return leaf.currentValue;
}

uint32_t leaf_getDefaultValueKey(Session* s, uint32_t key) {
    LeafRecord leaf;
    return readLeafOf(s, key, &leaf) ? leaf.defaultValue : 0;
}

uint32_t leaf_getFactoryValueKey(Session* s, uint32_t key) {
    LeafRecord leaf;
    return readLeafOf(s, key, &leaf) ? leaf.factoryValue : 0;
}

int32_t leaf_setCurrentValueKey(Session* s, uint32_t key, uint32_t valueKey) {
    return setLeafField(s, key, [valueKey](LeafRecord& l) { l.currentValue = valueKey; });
}

int32_t leaf_setDefaultValueKey(Session* s, uint32_t key, uint32_t valueKey) {
    return setLeafField(s, key, [valueKey](LeafRecord& l) { l.defaultValue = valueKey; });
}

int32_t leaf_setFactoryValueKey(Session* s, uint32_t key, uint32_t valueKey) {
    return setLeafField(s, key, [valueKey](LeafRecord& l) { l.factoryValue = valueKey; });
}

uint32_t comp_getRoot(Session* s) {
    const DBMInitParam* p = kes::dbOf(s);
    if (!p) return 0;
    return flst_m_getRoot(s, kes::mediumIndex(p, kes::RecordKind::Component));
}

int32_t dummydummy1(void) { return 0; }
int32_t dummydummy2(void) { return 0; }

}  // extern "C"
