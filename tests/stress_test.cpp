// Many processes on one database at once, each started on its own, serialising through the
// component locks the way applications do: counters incremented under leaf locks, leaves
// created and deleted under the locks of their parent node and of the root (the allocator's),
// and shared-lock readers walking the child lists meanwhile. At the end every increment is
// counted, the leaves present are exactly those created and not deleted, the consistency
// checker finds the media sound, and no lock or session is left.
//
// KESDB_STRESS_PROCS (default 8) and KESDB_STRESS_ROUNDS (default 150) size the run.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <set>

#include "consistency.hpp"
#include "treekit.hpp"

namespace {

constexpr int kMaxProcs = 32, kMaxRounds = 4000, kCounters = 4, kPools = 2;
constexpr uint32_t kPoolBit = 0x80000000u;  // logged ids carry their pool in the top bit

// What one process did, written into memory shared with the test.
struct ProcLog {
    uint32_t increments[kCounters], created, deleted;
    uint32_t createdIds[kMaxRounds], deletedIds[kMaxRounds];
    char failure[160];
};
struct SharedArea {
    std::atomic<int> ready, go;
    ProcLog proc[kMaxProcs];
};
struct Layout {
    uint32_t root = 0, counters[kCounters] = {}, pools[kPools] = {};
};

int envCount(const char* name, int fallback, int limit) {
    const char* v = std::getenv(name);
    return std::clamp(v ? std::atoi(v) : fallback, 1, limit);
}
std::string leafName(uint32_t id) { return "n" + std::to_string(id); }

// One worker process: its own start-up and session, `rounds` operations, then shut-down. 0, or
// 1 with the failed call in the log.
struct Worker {
    const Layout& l;
    ProcLog& log;
    int index, round = 0;
    uint32_t random = 0x9E3779B9u * (index + 1);
    Session s{};

    uint32_t next() { return random ^= random << 13, random ^= random >> 17, random ^= random << 5; }
    bool ok(bool good, const char* what, int32_t code) {
        if (!good)
            std::snprintf(log.failure, sizeof log.failure, "process %d round %d: %s gave %d (session error %u)", index,
                          round, what, code, s.error);
        return good;
    }
    bool call(const char* what, int32_t rc) { return ok(rc == 0, what, rc); }

    bool increment() {
        const uint32_t c = next() % kCounters, key = l.counters[c];
        uint32_t v = 0;
        return call("lock", kesDBMLock(&s, key, 0)) && call("get", kesDBMGetUint32(&s, key, &v)) &&
               call("set", kesDBMSetUint32(&s, key, v + 1)) && call("unlock", kesDBMUnlock(&s, key)) &&
               ++log.increments[c];
    }

    // Under the pool's and the root's locks: a leaf created behind a random child, or a random
    // child deleted with its value and name.
    bool createOrDelete() {
        const uint32_t p = next() % kPools, pool = l.pools[p], poolBit = p ? kPoolBit : 0;
        if (!call("lock pool", kesDBMLock(&s, pool, 0)) || !call("lock root", kesDBMLock(&s, l.root, 0))) return false;
        const int32_t count = kesDBMGetChildCount(&s, pool);
        if (!ok(count >= 0, "child count", count)) return false;
        if (count == 0 || (next() & 1u) == 0) {
            const uint32_t id = uint32_t(index + 1) * 100000u + log.created;
            const uint32_t name = kesDBMCreateString(&s, leafName(id).c_str(), 0);
            const uint32_t value = kesDBMCreateValue(&s, Uint32, 0, &id, 4, 0);
            const int32_t at = int32_t(next() % uint32_t(count + 1)) - 1;  // -1: at the head
            const uint32_t previous = at < 0 ? 0 : kesDBMGetChildByIndex(&s, pool, at);
            if (!ok(name && value && (at < 0 || previous), "create string, value or child by index", at) ||
                !ok(kesDBMCreateLeaf(&s, name, pool, previous, value, 0, 0, 0) != 0, "create leaf", 0))
                return false;
            log.createdIds[log.created++] = id | poolBit;
        } else {
            const uint32_t key = kesDBMGetChildByIndex(&s, pool, int32_t(next() % uint32_t(count)));
            uint32_t id = 0;
            if (!ok(key != 0, "child by index", 0) || !call("get leaf id", kesDBMGetUint32(&s, key, &id))) return false;
            const uint32_t value = kesDBMGetCurrentValueKey(&s, key), name = kesDBMGetStringKey(&s, key);
            if (!call("delete leaf", kesDBMDeleteComponent(&s, key)) || !call("delete value", kesDBMDeleteValue(&s, value)) ||
                !call("delete string", kesDBMDeleteString(&s, name)))
                return false;
            log.deletedIds[log.deleted++] = id | poolBit;
        }
        return call("unlock root", kesDBMUnlock(&s, l.root)) && call("unlock pool", kesDBMUnlock(&s, pool));
    }

    // Under a shared lock: the count agrees with the walk, every child names the pool.
    bool checkPool() {
        const uint32_t pool = l.pools[next() % kPools];
        if (!call("shared lock", kesDBMLock(&s, pool, 0x0100))) return false;
        const int32_t count = kesDBMGetChildCount(&s, pool);
        int32_t walked = 0;
        for (uint32_t c = kesDBMGetFirstChild(&s, pool); c != 0 && walked <= count; c = kesDBMGetNextChild(&s, c), ++walked)
            if (!ok(kesDBMGetParent(&s, c) == pool, "child's parent word", int32_t(c))) return false;
        return ok(walked == count, "child count against the walk", walked) && call("unlock", kesDBMUnlock(&s, pool));
    }

    int run(DBMInitParam param, SharedArea* area, int rounds) {
        int32_t err = 0;
        const int32_t id = kesDBMInit(&param, &err);
        if (!ok(id > 0, "kesDBMInit", err) || !call("kesDBMInitSession", kesDBMInitSession(&s, uint32_t(id)))) return 1;
        area->ready.fetch_add(1);  // everybody started before anybody works
        for (int i = 0; i < 30000 && !area->go.load(); ++i) usleep(1000);
        for (; round < rounds; ++round) {
            const uint32_t pick = next() % 10;
            if (!(pick < 6 ? increment() : pick < 8 ? createOrDelete() : checkPool())) return 1;
        }
        return call("kesDBMTermSession", kesDBMTermSession(&s)) && call("kesDBMTerm", kesDBMTerm(uint32_t(id))) ? 0 : 1;
    }
};

TEST(Stress, ConcurrentProcessesLoseNoUpdateAndKeepTheTreeSound) {
    kt::DbOptions o;
    o.mediumSize = 256 * 1024;
    kt::Db db(o);
    Session* s = &db.s;
    Layout l;
    std::multiset<uint32_t> expected;  // ids of the leaves that must be there at the end
    l.root = tk::makeRoot(s, "/");
    uint32_t previous = 0;
    for (int c = 0; c < kCounters; ++c) l.counters[c] = previous = tk::leaf(s, l.root, previous, "c" + std::to_string(c), tk::u32(s, 0));
    for (int p = 0; p < kPools; ++p) {
        l.pools[p] = previous = tk::node(s, l.root, previous, "pool" + std::to_string(p));
        for (uint32_t i = 0, last = 0; i < 3; ++i) {
            const uint32_t id = 900000u + p * 100 + i;
            ASSERT_NE(last = tk::leaf(s, previous, last, leafName(id), tk::u32(s, id)), 0u);
            expected.insert(id | (p ? kPoolBit : 0));
        }
    }
    void* m = mmap(nullptr, sizeof(SharedArea), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(m, MAP_FAILED);
    SharedArea* area = new (m) SharedArea();
    const int procs = envCount("KESDB_STRESS_PROCS", 8, kMaxProcs), rounds = envCount("KESDB_STRESS_ROUNDS", 150, kMaxRounds);
    db.stop();  // the workers start from scratch, as separate programs would
    std::vector<pid_t> workers;
    for (int i = 0; i < procs; ++i)
        workers.push_back(kt::forkChild([&, i] { return Worker{l, area->proc[i], i}.run(db.param, area, rounds); }));
    for (int i = 0; i < 30000 && area->ready.load() < procs; ++i) usleep(1000);
    area->go.store(1);
    for (int i = 0; i < procs; ++i) ASSERT_EQ(kt::waitChild(workers[i]), 0) << area->proc[i].failure;
    ASSERT_GT(db.start(), 0);

    uint32_t sums[kCounters] = {};
    for (int i = 0; i < procs; ++i) {
        const ProcLog& p = area->proc[i];
        for (int c = 0; c < kCounters; ++c) sums[c] += p.increments[c];
        expected.insert(p.createdIds, p.createdIds + p.created);
    }
    for (int c = 0; c < kCounters; ++c) EXPECT_EQ(tk::leafU32(s, l.counters[c]), sums[c]) << "counter " << c;
    for (int i = 0; i < procs; ++i) {
        for (uint32_t k = 0; k < area->proc[i].deleted; ++k) {
            const auto it = expected.find(area->proc[i].deletedIds[k]);
            ASSERT_NE(it, expected.end()) << "deleted a leaf never created";
            expected.erase(it);
        }
    }
    std::multiset<uint32_t> found;
    for (int p = 0; p < kPools; ++p)
        for (uint32_t c : tk::children(s, l.pools[p], 100000)) found.insert(tk::leafU32(s, c) | (p ? kPoolBit : 0));
    EXPECT_EQ(found, expected);
    ck::Layout media;
    media.files[0] = db.mediumPath;
    const ck::Report r = ck::check(media);
    EXPECT_TRUE(r.ok()) << r.text();
    EXPECT_EQ(r.leaves, kCounters + found.size());
    EXPECT_EQ(kt::captureStdout([] { lock_show(1); }), "\ncomp  head ->\n");
    char own[32];
    std::snprintf(own, sizeof own, " %x\n", s->id);
    EXPECT_EQ(kt::captureStdout([] { session_show(1); }), "\nsession  head ->" + std::string(own));
    munmap(m, sizeof(SharedArea));
}

}  // namespace
