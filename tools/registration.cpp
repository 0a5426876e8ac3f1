#include "registration.hpp"

#include <cstdlib>
#include <map>

#include "commands.hpp"

namespace kesdb {

void requireRegisteredLocks(Database& db) {
    const TablePaths tables = tablePaths(db.dir());
    std::vector<LockView> locks;
    try {
        locks = listLocks(tables.session, tables.lock);
    } catch (const Failure&) {
        return;  // a table that cannot be read: the lock call itself says why
    }
    std::map<uint32_t, size_t> lost;
    for (const LockView& l : locks)
        if (l.dbId != db.s.dbId && db_getDb(l.dbId) == nullptr) ++lost[l.dbId];
    if (lost.empty()) return;
    const char* dbTable = std::getenv("KESDB_DBTABLE");
    const auto& [id, count] = *lost.begin();
    fail(std::string("the database table ") + (dbTable ? dbTable : "") + " no longer registers database " +
         std::to_string(id) + ", which holds " + std::to_string(count) + " locks in " + tables.lock +
         " (the table was removed, cut short or lost at a reboot); this start-up got id " +
         std::to_string(db.s.dbId) + ", whose locks would not exclude those. Once no process uses them, release them "
         "with \"kesdb -d " + db.dir() + " orphans --clear --closed\" (or remove " + tables.lock + ") and retry");
}

}  // namespace kesdb
