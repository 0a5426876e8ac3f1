/* The public headers compile as C, and the record layouts have the sizes C sees too. */
#include <stddef.h>
#include <stdio.h>

#include "kesdbm/kesdbm.h"

#define CHECK(cond)                                   \
    do {                                              \
        if (!(cond)) {                                \
            fprintf(stderr, "failed: %s\n", #cond);   \
            return 1;                                 \
        }                                             \
    } while (0)

int main(void) {
    Session s = {0, 0, 0, 0, 0};
    CHECK(sizeof(Session) == 20);
    CHECK(sizeof(DBMInitParam) == 16404);
    CHECK(offsetof(DBMInitParam, componentMedium) == 16384);
    CHECK(offsetof(DBMInitParam, reserved) == 16400);
    CHECK(sizeof(CompRecord) == 24 && sizeof(NodeRecord) == 28 && sizeof(LeafRecord) == 40);
    CHECK(sizeof(ValueRecord) == 28 && sizeof(StringEntry) == 16);
    CHECK(sizeof(ConstraintHeader) == 8 && sizeof(EnumRecord) == 20);
    CHECK(sizeof(RangeRecordS8) == 12 && sizeof(RangeRecordU16) == 16);
    CHECK(sizeof(RangeRecordF32) == 20 && sizeof(RangeRecordS64) == 32);
    CHECK(sizeof(DbTable) == KESDB_DBTABLE_SIZE);
    CHECK(sizeof(SessionTable) == KESDB_SESSION_TABLE_SIZE);
    CHECK(sizeof(LockTable) == KESDB_LOCK_TABLE_SIZE);
    CHECK(session_setError(&s, KESDB_ERR_DB_NOTFOUND, 7) == KESDB_ERR_DB_NOTFOUND);
    CHECK(s.error == 83 && s.errorDetail == 7);
    CHECK(session_setError(NULL, KESDB_ERR_NULLARG, 1) == 89);
    return 0;
}
