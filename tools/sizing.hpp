// kesdb: how large the media of a database must be, and what to say when one is full.
//
// The records (components, value records, name entries, constraint records) are taken from
// the free list of the space laid down when the medium was made; value data and name texts
// are appended behind it and grow the file. So the laid-down size bounds the number of
// records, and a description needs about
//   28 bytes per node, 40 per leaf, 28 per value (three per leaf), 16 per name entry,
//   12 to 32 per range record, 20 per enumeration record plus its members,
// which mediumSizeFor doubles and adds 4 KiB to, for later additions.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "database.hpp"
#include "description.hpp"

namespace kesdb {

// Record bytes the description's components take (each medium's share when they are split).
uint64_t recordBytes(const std::vector<Item>& items);
// Bytes of each medium file for a new database holding `items`: twice their records plus
// 4 KiB, and at least `floor` (--size); fails when that does not fit a medium (4 GiB).
uint32_t mediumSizeFor(const std::vector<Item>& items, uint32_t floor);

// Fails for a record that could not be created in the medium `medium`: "WHAT: CODE", and
// when no free block of `bytes` is left there, "; the KIND medium is full" with what to do.
[[noreturn]] void creationFailure(Database& db, uint32_t medium, const char* kind, uint32_t bytes,
                                  const std::string& what);

// grow: every medium file of DIR enlarged to `size` bytes, the new space added to its free list.
int cmdGrow(const std::string& dir, uint32_t size);

}  // namespace kesdb
