// kesdb: locks that outlived their database's registration.
//
// A lock names its database by the id the database table gave at start-up, and the tool
// keeps one registration in that table so that every later process gets the same id (see
// cmdCreate). When the table loses it (removed, cut short, on a tmpfs across a reboot) while
// the directory's lock table still holds locks, a new start-up gets a fresh id and its locks
// no longer exclude the old ones. Commands that lock therefore refuse then, and say how to
// recover, rather than lock beside them.
#pragma once

#include "database.hpp"

namespace kesdb {

// Fails when the lock table of `db` holds locks of a database id that the database table
// no longer registers (and that is not the id of this start-up).
void requireRegisteredLocks(Database& db);

}  // namespace kesdb
