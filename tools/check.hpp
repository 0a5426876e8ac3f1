// kesdb check, its core: verifies a database's media read-only. It reads the medium files
// directly (not through the library or a driver, so it sees exactly what is stored, starts
// nothing and cannot be disturbed by an armed fault) and lists every broken invariant with the
// places it involves. Time and memory are bounded by the size of the files on any input: every
// component is entered once, every free list is followed at most (file size / 8) steps. The
// core depends on nothing else of the tool, so the test suite checks its databases with it.
//
// Invariants checked (words in host order; free-list elements as written under the
// big-endian byte-order rule, i.e. not reversed):
//
// Media (each medium that holds records: components, values, constraints, strings)
//   M1  the file holds the 16-byte header;
//   M2  the free list from the anchor (offset 12) is bounded and sorted: every element lies
//       behind the header (key >= 16) and inside the file, has a size of at least 8 bytes,
//       and the next element starts behind its end (strictly ascending, no overlap, so the
//       list can neither loop nor run backwards).
// Tree (component medium)
//   T1  the root word (offset 8) is 0 (no tree) or names a component whose parent word is 0;
//   T2  every reachable component lies inside the file behind the header and begins with
//       its own key;
//   T3  its kind is 0 (node, 28 bytes) or 1 (leaf, 40 bytes); its reserved word is 0 (written
//       0 at creation and copied unchanged ever after);
//   T4  its parent word names the node whose child list holds it;
//   T5  sibling chains are acyclic and no component is reached twice (no list shares a tail
//       with another, no child names an ancestor), so every node's child count is the length
//       of its own list and the reachable components form a tree;
//   T6  a leaf's hook index does not exceed the number of hooks configured.
// Names (string medium)
//   S1  a component's string key is 0 or names a 16-byte entry inside the string medium,
//       behind the header, beginning with its own key;
//   S2  the entry's text medium is one of the database's files; its text length is 1..256
//       (names are read into 256-byte buffers), the text lies inside that file, ends with its
//       NUL and holds no earlier NUL.
// Values (value medium)
//   V1  each of a leaf's current, default and factory keys is 0 or names a 28-byte value
//       record inside the value medium, behind the header, beginning with its own key;
//   V2  its type code is 0..11;
//   V3  its data medium is one of the database's files and the data area (offset, length)
//       lies inside it, behind the header;
//   V4  its constraint key is 0 or names a constraint record (C1..C3).
// Constraints (constraint medium)
//   C1  the 8-byte header lies inside the file, behind the header, and begins with its key;
//   C2  its type is a range code (2..11) or an enumeration code (value type x 256, 512..2816);
//   C3  a range record is whole inside the file (12, 16, 20 or 32 bytes by the element
//       width); an enumeration record (20 bytes) is whole, its element size is its type's
//       member width and its array (element size x count bytes, at least 1) lies inside the
//       file behind the header.
// Space
//   P1  no two reachable records of one medium overlap (component records, value records,
//       string entries, constraint records, enumeration arrays, data areas, texts); several
//       references to the same record are allowed;
//   P2  no free element overlaps anything reachable in its medium.
//
// A record that fails its own checks (bounds, own key, kind, type) is not followed further,
// so one damaged record gives one violation rather than a cascade.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace kesdb::check {

// The media of one database: the file of each media-table index the database uses, and the
// index of each kind of record.
struct Layout {
    std::map<uint32_t, std::string> files;
    uint32_t component = 0, value = 0, constraint = 0, string = 0;
    uint32_t hookCount = UINT32_MAX;  // highest hook index a leaf may carry
};

// A byte range of a medium.
struct Place {
    uint32_t medium;
    uint32_t key;
    uint32_t size;
};

struct Violation {
    std::string rule;  // "T2", "P2", ...
    std::string text;
    std::vector<Place> places;
};

struct Report {
    std::vector<Violation> violations;
    uint32_t nodes = 0, leaves = 0, values = 0, strings = 0, constraints = 0;
    std::map<uint32_t, uint32_t> freeElements;  // per medium
    std::vector<Place> dataAreas;               // of the reachable values, each once
    bool ok() const { return violations.empty(); }
    // Every violation on one line each ("" when there is none).
    std::string text() const;
};

Report check(const Layout& layout);

}  // namespace kesdb::check
