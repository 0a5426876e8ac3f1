// Cost of the library's everyday operations on a database in a temporary directory.
//
//   build/bin/kesdb_bench [--benchmark_filter=...]
//
// Every record access opens and closes its medium (the built-in medium writes with O_DSYNC),
// so these figures are dominated by system calls; db_getDb shows the in-memory lookup alone.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "kesdbm/kesdbm.h"

namespace {

struct BenchDb {
    std::string dir;
    int32_t id = -1;
    Session s{};
    uint32_t root = 0, leaf = 0;

    BenchDb() {
        char pattern[] = "/tmp/kesdb-bench-XXXXXX";
        dir = mkdtemp(pattern);
        setenv("KESDB_DBTABLE", (dir + "/db.tbl").c_str(), 1);
        setenv("KESDB_DEFMEDIA", (dir + "/medium").c_str(), 1);
        setenv("SIM_BYTE_ORDER", "BIG_ENDIAN", 1);
        kesdb_layMedium((dir + "/medium").c_str(), 1u << 20, 0);
        for (const char* f : {"/media.conf", "/hook.conf"}) fclose(fopen((dir + f).c_str(), "w"));
        DBMInitParam p{};
        snprintf(p.sessionTablePath, KESDB_PATH_MAX, "%s/session.tbl", dir.c_str());
        snprintf(p.lockTablePath, KESDB_PATH_MAX, "%s/lock.tbl", dir.c_str());
        snprintf(p.mediaConfigPath, KESDB_PATH_MAX, "%s/media.conf", dir.c_str());
        snprintf(p.hookConfigPath, KESDB_PATH_MAX, "%s/hook.conf", dir.c_str());
        int32_t err = 0;
        id = kesDBMInit(&p, &err);
        kesDBMInitSession(&s, static_cast<uint32_t>(id));
        NodeRecord r{};
        comp_newNode(&s, &r);
        r.comp.stringKey = kesDBMCreateString(&s, "/", 0);
        r.comp.kind = KESDB_KIND_NODE;
        comp_setNode(&s, &r);
        flst_m_setRoot(&s, 0, r.comp.key);
        root = r.comp.key;
        uint32_t node = root;
        // A tree of depth 4, ten children per level on the search path.
        for (int level = 0; level < 4; ++level) {
            uint32_t previous = 0, next = 0;
            for (int i = 0; i < 10; ++i) {
                std::string name = (level ? "/n" : "n") + std::to_string(i);
                previous = kesDBMCreateNode(&s, kesDBMCreateString(&s, name.c_str(), 0), node, previous, 0);
                if (i == 9) next = previous;
            }
            node = next;
        }
        uint32_t v = 7;
        leaf = kesDBMCreateLeaf(&s, kesDBMCreateString(&s, "/leaf", 0), node, 0,
                                kesDBMCreateValue(&s, Uint32, 0, &v, 4, 0), 0, 0, 0);
    }
    ~BenchDb() {
        kesDBMTermSession(&s);
        kesDBMTerm(static_cast<uint32_t>(id));
        std::string cmd = "rm -rf " + dir;
        if (system(cmd.c_str()) != 0) perror("rm");
    }
};

BenchDb& db() {
    static BenchDb instance;
    return instance;
}

void BM_dbGetDb(benchmark::State& state) {
    const uint32_t id = static_cast<uint32_t>(db().id);
    for (auto _ : state) benchmark::DoNotOptimize(db_getDb(id));
}
BENCHMARK(BM_dbGetDb);

void BM_getUint32(benchmark::State& state) {
    uint32_t v = 0;
    for (auto _ : state) benchmark::DoNotOptimize(kesDBMGetUint32(&db().s, db().leaf, &v));
}
BENCHMARK(BM_getUint32);

void BM_setUint32(benchmark::State& state) {
    uint32_t v = 0;
    for (auto _ : state) benchmark::DoNotOptimize(kesDBMSetUint32(&db().s, db().leaf, ++v));
}
BENCHMARK(BM_setUint32);

void BM_searchDepth5(benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(kesDBMSearchByName(&db().s, "/n9/n9/n9/n9/leaf"));
}
BENCHMARK(BM_searchDepth5);

void BM_lockUnlock(benchmark::State& state) {
    for (auto _ : state) {
        kesDBMLock(&db().s, db().leaf, 0x0001);
        kesDBMUnlock(&db().s, db().leaf);
    }
}
BENCHMARK(BM_lockUnlock);

}  // namespace

BENCHMARK_MAIN();
