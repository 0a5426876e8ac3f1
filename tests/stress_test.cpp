// Many processes on one database at once, each started on its own, serialising through the
// component locks the way applications do: counters incremented under leaf locks, leaves
// created and deleted under the lock of their parent node (and of the root, the allocator's),
// and shared-lock readers checking the child lists meanwhile. At the end every increment is
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
    uint32_t increments[kCounters], created, deleted, checks;
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
class Worker {
public:
    Worker(const Layout& layout, ProcLog& log, int index) : l_(layout), log_(log), index_(index), random_(0x9E3779B9u * (index + 1)) {}

    int run(DBMInitParam param, SharedArea* area, int rounds) {
        int32_t err = 0;
        const int32_t id = kesDBMInit(&param, &err);
        if (!ok(id > 0, "kesDBMInit", err) || !call("kesDBMInitSession", kesDBMInitSession(&s_, uint32_t(id)))) return 1;
        area->ready.fetch_add(1);  // everybody started before anybody works
        for (int i = 0; i < 30000 && !area->go.load(); ++i) usleep(1000);
        for (round_ = 0; round_ < rounds; ++round_) {
            const uint32_t pick = next() % 10;
            if (!(pick < 6 ? increment() : pick < 8 ? createOrDelete() : checkPool())) return 1;
        }
        return call("kesDBMTermSession", kesDBMTermSession(&s_)) && call("kesDBMTerm", kesDBMTerm(uint32_t(id))) ? 0 : 1;
    }

private:
    uint32_t next() { return random_ ^= random_ << 13, random_ ^= random_ >> 17, random_ ^= random_ << 5; }
    bool ok(bool good, const char* what, int32_t code) {
        if (!good)
            std::snprintf(log_.failure, sizeof log_.failure, "process %d round %d: %s gave %d (session error %u)",
                          index_, round_, what, code, s_.error);
        return good;
    }
    bool call(const char* what, int32_t rc) { return ok(rc == 0, what, rc); }

    bool increment() {
        const uint32_t c = next() % kCounters, key = l_.counters[c];
        uint32_t v = 0;
        if (!call("lock", kesDBMLock(&s_, key, 0)) || !call("get", kesDBMGetUint32(&s_, key, &v)) ||
            !call("set", kesDBMSetUint32(&s_, key, v + 1)) || !call("unlock", kesDBMUnlock(&s_, key)))
            return false;
        return ++log_.increments[c];
    }

    bool createOrDelete() {
        const uint32_t p = next() % kPools, pool = l_.pools[p];
        if (!call("lock pool", kesDBMLock(&s_, pool, 0)) || !call("lock root", kesDBMLock(&s_, l_.root, 0))) return false;
        const int32_t count = kesDBMGetChildCount(&s_, pool);
        if (!ok(count >= 0, "child count", count)) return false;
        const bool done = count == 0 || (next() & 1u) == 0 ? create(p, pool, count) : remove(p, pool, count);
        return done && call("unlock root", kesDBMUnlock(&s_, l_.root)) && call("unlock pool", kesDBMUnlock(&s_, pool));
    }

    bool create(uint32_t p, uint32_t pool, int32_t count) {
        const uint32_t id = uint32_t(index_ + 1) * 100000u + log_.created;
        const uint32_t name = kesDBMCreateString(&s_, leafName(id).c_str(), 0);
        const uint32_t value = kesDBMCreateValue(&s_, Uint32, 0, &id, 4, 0);
        const int32_t at = int32_t(next() % uint32_t(count + 1)) - 1;  // behind a random child, or at the head
        const uint32_t previous = at < 0 ? 0 : kesDBMGetChildByIndex(&s_, pool, at);
        if (!ok(name && value && (at < 0 || previous), "create string, value or child by index", at) ||
            !ok(kesDBMCreateLeaf(&s_, name, pool, previous, value, 0, 0, 0) != 0, "create leaf", 0))
            return false;
        log_.createdIds[log_.created++] = id | (p ? kPoolBit : 0);
        return true;
    }

    bool remove(uint32_t p, uint32_t pool, int32_t count) {
        const uint32_t key = kesDBMGetChildByIndex(&s_, pool, int32_t(next() % uint32_t(count)));
        uint32_t id = 0;
        if (!ok(key != 0, "child by index", 0) || !call("get leaf id", kesDBMGetUint32(&s_, key, &id))) return false;
        const uint32_t value = kesDBMGetCurrentValueKey(&s_, key), name = kesDBMGetStringKey(&s_, key);
        if (!call("delete leaf", kesDBMDeleteComponent(&s_, key)) || !call("delete value", kesDBMDeleteValue(&s_, value)) ||
            !call("delete string", kesDBMDeleteString(&s_, name)))
            return false;
        log_.deletedIds[log_.deleted++] = id | (p ? kPoolBit : 0);
        return true;
    }

    // Under a shared lock: the count agrees with the walk; every child names the pool as its
    // parent and carries an id matching its name.
    bool checkPool() {
        const uint32_t pool = l_.pools[next() % kPools];
        if (!call("shared lock", kesDBMLock(&s_, pool, 0x0100))) return false;
        const int32_t count = kesDBMGetChildCount(&s_, pool);
        int32_t walked = 0;
        for (uint32_t c = kesDBMGetFirstChild(&s_, pool); c != 0 && walked <= count; c = kesDBMGetNextChild(&s_, c), ++walked) {
            uint32_t id = 0;
            char name[KESDB_NAME_BUFFER] = {};
            if (!ok(kesDBMGetParent(&s_, c) == pool, "child's parent word", int32_t(c)) ||
                !call("child's id", kesDBMGetUint32(&s_, c, &id)) ||
                !ok(kesdb_getString(&s_, kesDBMGetStringKey(&s_, c), name, sizeof name - 1) && leafName(id) == name,
                    "child's name", int32_t(id)))
                return false;
        }
        if (!ok(walked == count, "child count against the walk", walked) || !call("unlock", kesDBMUnlock(&s_, pool)))
            return false;
        return ++log_.checks;
    }

    const Layout& l_;
    ProcLog& log_;
    int index_, round_ = 0;
    uint32_t random_;
    Session s_{};
};

TEST(Stress, ConcurrentProcessesLoseNoUpdateAndKeepTheTreeSound) {
    kt::DbOptions o;
    o.mediumSize = 256 * 1024;
    kt::Db db(o);
    ASSERT_GT(db.id, 0);
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
            last = tk::leaf(s, previous, last, leafName(id), tk::u32(s, id));
            ASSERT_NE(last, 0u);
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
        workers.push_back(kt::forkChild([&, i] { return Worker(l, area->proc[i], i).run(db.param, area, rounds); }));
    for (int i = 0; i < 30000 && area->ready.load() < procs; ++i) usleep(1000);
    area->go.store(1);
    bool allPassed = true;
    for (int i = 0; i < procs; ++i) {
        const int status = kt::waitChild(workers[i]);
        EXPECT_EQ(status, 0) << area->proc[i].failure;
        allPassed &= status == 0;
    }
    ASSERT_TRUE(allPassed);
    ASSERT_GT(db.start(), 0);

    // Every increment counted; the leaves are those created and not deleted.
    for (int c = 0; c < kCounters; ++c) {
        uint32_t sum = 0;
        for (int i = 0; i < procs; ++i) sum += area->proc[i].increments[c];
        EXPECT_EQ(tk::leafU32(s, l.counters[c]), sum) << "counter " << c;
    }
    for (int i = 0; i < procs; ++i)
        expected.insert(area->proc[i].createdIds, area->proc[i].createdIds + area->proc[i].created);
    for (int i = 0; i < procs; ++i)
        for (uint32_t k = 0; k < area->proc[i].deleted; ++k) {
            const auto it = expected.find(area->proc[i].deletedIds[k]);
            ASSERT_NE(it, expected.end()) << "deleted a leaf never created";
            expected.erase(it);
        }
    std::multiset<uint32_t> found;
    for (int p = 0; p < kPools; ++p)
        for (uint32_t c : tk::children(s, l.pools[p], 100000)) found.insert(tk::leafU32(s, c) | (p ? kPoolBit : 0));
    EXPECT_EQ(found, expected);
    // The media are sound, and nothing is left behind: no lock, only this process's session.
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
