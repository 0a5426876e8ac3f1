// kesdb: why a database could not be started, in words. The library's start-up gives only
// its code (87 for any table file that cannot be mapped, 12 or 30 for a configuration file
// that cannot be opened); the tool looks at the files themselves and names the one at fault
// and what is wrong with it.
#pragma once

#include <string>

#include "kesdbm/kesdbm.h"

namespace kesdb {

// "; FILE: CAUSE" for each table or configuration file of the database directory `dir`
// that a start-up could not use; "" when none shows a fault.
std::string startCause(const std::string& dir);

}  // namespace kesdb
