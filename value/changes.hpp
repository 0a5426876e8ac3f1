// Internal: the change record, a file shared by every process of a database that counts the
// changes made through the public calls and keeps the last KESDB_WATCH_RING of them, and the
// futex word that wakes the processes waiting for one (api/watch.cpp).
#pragma once

#include <cstdint>

#include "kesdbm/session.h"
#include "kesdbm/watch.h"

namespace kes::changes {

// One change of the ring. `sequence` is the change's position plus one once it is complete,
// anything else while it is written.
struct Slot {
    uint32_t sequence;
    uint32_t dbId;    // database the change was made in
    uint32_t key;     // component touched
    uint32_t parent;  // its parent or former parent (moves, deletions), or 0
};

// The whole file; all zero is an empty record.
struct Record {
    uint32_t head;         // changes claimed so far (a change at position p sits in slot p % ring)
    uint32_t event;        // futex word: completed changes times 2, plus 1 while someone waits
    uint32_t reserved[2];
    Slot slot[KESDB_WATCH_RING];
};

enum class Read { Ready, Pending, Gone };

// Maps the record beside the session table at `sessionTablePath` (first call of the process;
// later ones count). A record that cannot be made leaves the process without one.
void init(const char* sessionTablePath);
void term();

// Enters a change of `key` (and `parent`, 0 when none) in the session's database.
void record(const Session* s, uint32_t key, uint32_t parent);

// Whether this process enters changes (it has a record and entering is on).
bool recording();
// The mapped record of this process, or null.
const Record* mapped();
// Changes claimed so far, and the event word (read before looking at the ring).
uint32_t head(const Record* r);
uint32_t event(const Record* r);
// The change at `position`: Ready (copied to `out`), Pending (still being written) or Gone
// (written over by a later one).
Read at(const Record* r, uint32_t position, Slot& out);
// Sleeps while the event word still shows the completed changes of `seen`, at most
// `timeoutNs` (negative: no limit). False when the time ran out or a signal came.
bool wait(const Record* r, uint32_t seen, int64_t timeoutNs);

}  // namespace kes::changes
