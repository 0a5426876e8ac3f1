// kesdb: migrate, and the carrying of a value from an old leaf to a new one.
#pragma once

#include <cstdint>
#include <string>

#include "commands.hpp"

namespace kesdb {

// Brings the database in DIR to the structure of the description FILE (see migrate.cpp);
// prints one line per leaf reset, added or dropped. `check`: the report only. `size`:
// bytes of each new medium file (0: as the old ones).
int cmdMigrate(const std::string& dir, const std::string& file, bool check, uint32_t size);

// Cleans what a killed migrate left beside DIR (or puts the old database back when DIR
// itself is missing).
void migrateRecover(const std::string& dir);

// The current value of `old` as a value of `leaf` (its type, size and constraint), in
// `out`; "" when it is taken, else why not ("2 is not one of 0, 1").
std::string carryValue(const Item& old, const Item& leaf, std::string& out);

// Why the range or enumeration of `leaf` refuses `value` ("" when it passes).
std::string constraintReason(const Item& leaf, const std::string& value);

// A value as the reports show it: numbers in decimal, String quoted, Generic in hex.
std::string valueText(uint32_t type, const std::string& bytes);

}  // namespace kesdb
