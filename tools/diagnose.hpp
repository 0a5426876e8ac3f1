// kesdb: why a database could not be started, in words. The library's start-up gives only
// its code (87 for any table file that cannot be mapped, 12 or 30 for a configuration file
// that cannot be opened); the tool looks at the files themselves and names the one at fault
// and what is wrong with it.
#pragma once

#include <string>

#include "kesdbm/kesdbm.h"

namespace kesdb {

// "; FILE: CAUSE" for each table or configuration file of `param` (and the database table
// named by KESDB_DBTABLE) that the start-up could not use; "" when none shows a fault.
std::string startCause(const DBMInitParam& param);

}  // namespace kesdb
