// Many processes on one database at once, each started on its own, serialising through the
// component locks the way applications do: counters incremented under leaf locks, leaves
// created and deleted under the lock of their parent node (and the allocator lock), and
// shared-lock readers checking the child lists while that goes on. At the end every
// increment must be counted, the leaves present must be exactly those created and not
// deleted, the child lists and the free list must be sound and no lock or session is left.
//
// KESDB_STRESS_PROCS (default 8) and KESDB_STRESS_ROUNDS (default 150) size the run.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "testkit.hpp"
#include "treekit.hpp"

namespace {

constexpr uint32_t kExclusiveWait = 0x0000;
constexpr uint32_t kSharedWait = 0x0100;
constexpr int kMaxProcs = 32;
constexpr int kMaxRounds = 4000;
constexpr int kCounters = 4;
constexpr int kPools = 2;
constexpr int kInitialLeaves = 3;  // per pool
constexpr uint32_t kPoolBit = 0x80000000u;  // logged ids carry their pool in the top bit

// What one process did, written by it into memory shared with the test.
struct ProcLog {
    uint32_t increments[kCounters];
    uint32_t created, deleted, checks;
    uint32_t createdIds[kMaxRounds];  // leaf id | pool bit
    uint32_t deletedIds[kMaxRounds];
    int32_t failRound;
    char failure[160];
};

struct SharedArea {
    std::atomic<int> ready;
    std::atomic<int> go;
    ProcLog proc[kMaxProcs];
};

int envCount(const char* name, int fallback, int limit) {
    const char* v = std::getenv(name);
    int n = v ? std::atoi(v) : fallback;
    return std::clamp(n, 1, limit);
}

double seconds() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

uint32_t nextRandom(uint32_t& state) {
    state ^= state << 13;
    state ^= state >> 17;
    state ^= state << 5;
    return state;
}

std::string leafName(uint32_t id) { return "n" + std::to_string(id); }

// The keys of the fixed part of the tree.
struct Layout {
    uint32_t root = 0;
    uint32_t counters[kCounters] = {};
    uint32_t pools[kPools] = {};
};

// One worker process: its own start-up and session, `rounds` operations, then shut-down.
// Returns 0, or a number naming the failed step (the log says which round and code).
class Worker {
public:
    Worker(const DBMInitParam& param, const Layout& layout, SharedArea* area, int index, int procs, int rounds)
        : param_(param), layout_(layout), area_(area), log_(area->proc[index]), index_(index), procs_(procs),
          rounds_(rounds), random_(0x9E3779B9u * static_cast<uint32_t>(index + 1)) {}

    int run() {
        int32_t err = 0;
        const int32_t id = kesDBMInit(&param_, &err);
        if (id <= 0) return fail(1, "kesDBMInit", err);
        if (int32_t rc = kesDBMInitSession(&s_, static_cast<uint32_t>(id)); rc != 0)
            return fail(2, "kesDBMInitSession", rc);
        // Everybody started before anybody works: the most contention, and one registration.
        area_->ready.fetch_add(1);
        for (int i = 0; i < 30000 && !area_->go.load(); ++i) usleep(1000);
        if (!area_->go.load()) return fail(3, "start signal", 0);
        for (round_ = 0; round_ < rounds_; ++round_) {
            const uint32_t pick = nextRandom(random_) % 10;
            int rc = pick < 6 ? increment() : pick < 8 ? createOrDelete() : checkPool();
            if (rc != 0) return rc;
        }
        if (int32_t rc = kesDBMTermSession(&s_); rc != 0) return fail(4, "kesDBMTermSession", rc);
        if (int32_t rc = kesDBMTerm(static_cast<uint32_t>(id)); rc != 0) return fail(5, "kesDBMTerm", rc);
        return 0;
    }

private:
    int fail(int step, const char* what, int32_t code) {
        log_.failRound = round_;
        std::snprintf(log_.failure, sizeof log_.failure, "process %d round %d: %s gave %d (session error %u)", index_,
                      round_, what, code, s_.error);
        return step;
    }

    int increment() {
        const uint32_t c = nextRandom(random_) % kCounters;
        const uint32_t key = layout_.counters[c];
        if (int32_t rc = kesDBMLock(&s_, key, kExclusiveWait); rc != 0) return fail(10, "lock counter", rc);
        uint32_t v = 0;
        if (int32_t rc = kesDBMGetUint32(&s_, key, &v); rc != 0) return fail(11, "get counter", rc);
        if (int32_t rc = kesDBMSetUint32(&s_, key, v + 1); rc != 0) return fail(12, "set counter", rc);
        if (int32_t rc = kesDBMUnlock(&s_, key); rc != 0) return fail(13, "unlock counter", rc);
        ++log_.increments[c];
        return 0;
    }

    // Under the pool's lock and the allocator's (the root: every record and append of the
    // one medium goes through it), create a leaf at a random place or delete a random one.
    int createOrDelete() {
        const uint32_t p = nextRandom(random_) % kPools;
        const uint32_t pool = layout_.pools[p];
        if (int32_t rc = kesDBMLock(&s_, pool, kExclusiveWait); rc != 0) return fail(20, "lock pool", rc);
        if (int32_t rc = kesDBMLock(&s_, layout_.root, kExclusiveWait); rc != 0) return fail(21, "lock root", rc);
        const int32_t count = kesDBMGetChildCount(&s_, pool);
        if (count < 0) return fail(22, "child count", count);
        const bool create = count == 0 || (nextRandom(random_) & 1u) == 0;
        int rc = create ? createLeaf(p, pool, count) : deleteLeaf(p, pool, count);
        if (rc != 0) return rc;
        if (int32_t u = kesDBMUnlock(&s_, layout_.root); u != 0) return fail(23, "unlock root", u);
        if (int32_t u = kesDBMUnlock(&s_, pool); u != 0) return fail(24, "unlock pool", u);
        return 0;
    }

    int createLeaf(uint32_t p, uint32_t pool, int32_t count) {
        const uint32_t id = static_cast<uint32_t>(index_ + 1) * 100000u + log_.created;
        const uint32_t nameKey = kesDBMCreateString(&s_, leafName(id).c_str(), 0);
        if (nameKey == 0) return fail(30, "create string", 0);
        const uint32_t value = kesDBMCreateValue(&s_, Uint32, 0, &id, 4, 0);
        if (value == 0) return fail(31, "create value", 0);
        // Behind a random child, or at the head.
        const int32_t at = static_cast<int32_t>(nextRandom(random_) % static_cast<uint32_t>(count + 1)) - 1;
        const uint32_t previous = at < 0 ? 0 : kesDBMGetChildByIndex(&s_, pool, at);
        if (at >= 0 && previous == 0) return fail(32, "child by index", at);
        if (kesDBMCreateLeaf(&s_, nameKey, pool, previous, value, 0, 0, 0) == 0) return fail(33, "create leaf", 0);
        log_.createdIds[log_.created++] = id | (p ? kPoolBit : 0);
        return 0;
    }

    int deleteLeaf(uint32_t p, uint32_t pool, int32_t count) {
        const int32_t at = static_cast<int32_t>(nextRandom(random_) % static_cast<uint32_t>(count));
        const uint32_t key = kesDBMGetChildByIndex(&s_, pool, at);
        if (key == 0) return fail(40, "child by index", at);
        uint32_t id = 0;
        if (int32_t rc = kesDBMGetUint32(&s_, key, &id); rc != 0) return fail(41, "get leaf id", rc);
        const uint32_t value = kesDBMGetCurrentValueKey(&s_, key);
        const uint32_t nameKey = kesDBMGetStringKey(&s_, key);
        if (value == 0 || nameKey == 0) return fail(42, "leaf's value or name key", 0);
        if (int32_t rc = kesDBMDeleteComponent(&s_, key); rc != 0) return fail(43, "delete leaf", rc);
        if (int32_t rc = kesDBMDeleteValue(&s_, value); rc != 0) return fail(44, "delete value", rc);
        if (int32_t rc = kesDBMDeleteString(&s_, nameKey); rc != 0) return fail(45, "delete string", rc);
        log_.deletedIds[log_.deleted++] = id | (p ? kPoolBit : 0);
        return 0;
    }

    // Under a shared lock: the count agrees with the walk, every child names the pool as its
    // parent and carries a readable id matching its name.
    int checkPool() {
        const uint32_t pool = layout_.pools[nextRandom(random_) % kPools];
        if (int32_t rc = kesDBMLock(&s_, pool, kSharedWait); rc != 0) return fail(50, "shared lock pool", rc);
        const int32_t count = kesDBMGetChildCount(&s_, pool);
        int32_t walked = 0;
        for (uint32_t c = kesDBMGetFirstChild(&s_, pool); c != 0 && walked <= count; c = kesDBMGetNextChild(&s_, c)) {
            ++walked;
            if (kesDBMGetParent(&s_, c) != pool) return fail(51, "child's parent word", static_cast<int32_t>(c));
            uint32_t id = 0;
            if (int32_t rc = kesDBMGetUint32(&s_, c, &id); rc != 0) return fail(52, "child's id", rc);
            char name[KESDB_NAME_BUFFER] = {};
            if (!kesdb_getString(&s_, kesDBMGetStringKey(&s_, c), name, sizeof name - 1) || leafName(id) != name)
                return fail(53, "child's name", static_cast<int32_t>(id));
        }
        if (walked != count) return fail(54, "child count against the walk", walked);
        if (int32_t rc = kesDBMUnlock(&s_, pool); rc != 0) return fail(55, "unlock pool", rc);
        ++log_.checks;
        return 0;
    }

    DBMInitParam param_;
    Layout layout_;
    SharedArea* area_;
    ProcLog& log_;
    int index_, procs_, rounds_;
    int round_ = 0;
    uint32_t random_;
    Session s_{};
};

struct Stress : ::testing::Test {
    kt::Db db{[] {
        kt::DbOptions o;
        o.mediumSize = 256 * 1024;
        return o;
    }()};
    Layout layout;
    SharedArea* area = nullptr;

    void SetUp() override {
        ASSERT_GT(db.id, 0);
        Session* s = &db.s;
        layout.root = tk::makeRoot(s, "/");
        ASSERT_NE(layout.root, 0u);
        uint32_t previous = 0;
        for (int c = 0; c < kCounters; ++c) {
            previous = tk::leaf(s, layout.root, previous, "c" + std::to_string(c), tk::u32(s, 0));
            ASSERT_NE(previous, 0u);
            layout.counters[c] = previous;
        }
        for (int p = 0; p < kPools; ++p) {
            previous = tk::node(s, layout.root, previous, "pool" + std::to_string(p));
            ASSERT_NE(previous, 0u);
            layout.pools[p] = previous;
            uint32_t last = 0;
            for (int i = 0; i < kInitialLeaves; ++i) {
                const uint32_t id = 900000u + static_cast<uint32_t>(p * 100 + i);
                last = tk::leaf(s, previous, last, leafName(id), tk::u32(s, id));
                ASSERT_NE(last, 0u);
            }
        }
        void* m = mmap(nullptr, sizeof(SharedArea), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        ASSERT_NE(m, MAP_FAILED);
        area = new (m) SharedArea();
    }
    void TearDown() override {
        if (area) munmap(area, sizeof(SharedArea));
    }
};

TEST_F(Stress, ConcurrentProcessesLoseNoUpdateAndKeepTheTreeSound) {
    const int procs = envCount("KESDB_STRESS_PROCS", 8, kMaxProcs);
    const int rounds = envCount("KESDB_STRESS_ROUNDS", 150, kMaxRounds);
    // The workers start from scratch, as separate programs would: this process shuts down
    // first, so nothing of its start-up is inherited.
    db.stop();

    std::vector<pid_t> workers;
    for (int i = 0; i < procs; ++i) {
        workers.push_back(kt::forkChild([&, i] {
            Worker w(db.param, layout, area, i, procs, rounds);
            return w.run();
        }));
    }
    for (int i = 0; i < 30000 && area->ready.load() < procs; ++i) usleep(1000);
    const double start = seconds();
    area->go.store(1);
    bool allPassed = true;
    for (int i = 0; i < procs; ++i) {
        const int status = kt::waitChild(workers[static_cast<size_t>(i)]);
        EXPECT_EQ(status, 0) << area->proc[i].failure;
        allPassed = allPassed && status == 0;
    }
    const double elapsed = seconds() - start;
    ASSERT_TRUE(allPassed);

    ASSERT_GT(db.start(), 0);
    Session* s = &db.s;

    // Every increment counted.
    uint32_t incrementsDone = 0, incrementsFound = 0;
    for (int c = 0; c < kCounters; ++c) {
        uint32_t expected = 0;
        for (int i = 0; i < procs; ++i) expected += area->proc[i].increments[c];
        uint32_t v = 0;
        ASSERT_EQ(kesDBMGetUint32(s, layout.counters[c], &v), 0);
        EXPECT_EQ(v, expected) << "counter " << c;
        incrementsDone += expected;
        incrementsFound += v;
    }

    // The leaves present are exactly the initial ones and those created, less those deleted.
    std::multiset<uint32_t> expected;
    for (int p = 0; p < kPools; ++p)
        for (int i = 0; i < kInitialLeaves; ++i)
            expected.insert((900000u + static_cast<uint32_t>(p * 100 + i)) | (p ? kPoolBit : 0));
    uint32_t created = 0, deleted = 0, checks = 0;
    for (int i = 0; i < procs; ++i) {
        const ProcLog& log = area->proc[i];
        created += log.created;
        deleted += log.deleted;
        checks += log.checks;
        for (uint32_t k = 0; k < log.created; ++k) expected.insert(log.createdIds[k]);
    }
    for (int i = 0; i < procs; ++i) {
        const ProcLog& log = area->proc[i];
        for (uint32_t k = 0; k < log.deleted; ++k) {
            auto it = expected.find(log.deletedIds[k]);
            ASSERT_NE(it, expected.end()) << "deleted a leaf never created: " << log.deletedIds[k];
            expected.erase(it);
        }
    }
    std::multiset<uint32_t> found;
    std::vector<std::pair<uint32_t, uint32_t>> records;  // key, size of every live record
    records.push_back({layout.root, 28});
    for (uint32_t c : layout.counters) {
        records.push_back({c, 40});
        records.push_back({kesDBMGetCurrentValueKey(s, c), 28});
    }
    for (int p = 0; p < kPools; ++p) {
        const uint32_t pool = layout.pools[p];
        records.push_back({pool, 28});
        const std::vector<uint32_t> children = tk::children(s, pool, 100000);
        EXPECT_EQ(kesDBMGetChildCount(s, pool), static_cast<int32_t>(children.size()));
        for (uint32_t c : children) {
            EXPECT_EQ(kesDBMGetParent(s, c), pool);
            uint32_t id = 0;
            ASSERT_EQ(kesDBMGetUint32(s, c, &id), 0);
            char name[KESDB_NAME_BUFFER] = {};
            EXPECT_TRUE(kesdb_getString(s, kesDBMGetStringKey(s, c), name, sizeof name - 1));
            EXPECT_EQ(std::string(name), leafName(id));
            found.insert(id | (p ? kPoolBit : 0));
            records.push_back({c, 40});
            records.push_back({kesDBMGetCurrentValueKey(s, c), 28});
            records.push_back({kesDBMGetStringKey(s, c), 16});
        }
    }
    EXPECT_EQ(found, expected);
    EXPECT_EQ(tk::children(s, layout.root).size(), static_cast<size_t>(kCounters + kPools));

    // The free list is ascending, its blocks apart, and no live record lies in it.
    const std::vector<tk::FreeBlock> blocks = tk::freeList(s, 0);
    for (size_t i = 1; i < blocks.size(); ++i)
        EXPECT_GT(blocks[i].key, blocks[i - 1].key + blocks[i - 1].size) << "free block " << i;
    std::sort(records.begin(), records.end());
    for (size_t i = 0; i < records.size(); ++i) {
        const auto [key, size] = records[i];
        EXPECT_NE(key, 0u);
        if (i > 0) {
            EXPECT_LE(records[i - 1].first + records[i - 1].second, key) << "records overlap at " << key;
        }
        for (const tk::FreeBlock& b : blocks)
            EXPECT_TRUE(key + size <= b.key || b.key + b.size <= key) << "record " << key << " lies in free space";
    }

    // Nothing left behind: no lock, and only this process's session.
    EXPECT_EQ(kt::captureStdout([] { lock_show(1); }), "\ncomp  head ->\n");
    char own[32];
    std::snprintf(own, sizeof own, " %x\n", s->id);
    EXPECT_EQ(kt::captureStdout([] { session_show(1); }), "\nsession  head ->" + std::string(own));

    std::printf("[stress] %d processes x %d rounds in %.2f s: %u increments (%u counted), %u leaves created, %u "
                "deleted, %zu remaining (expected %zu), %u shared-lock checks\n",
                procs, rounds, elapsed, incrementsDone, incrementsFound, created, deleted, found.size(),
                expected.size(), checks);
}

}  // namespace
