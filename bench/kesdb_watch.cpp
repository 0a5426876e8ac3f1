// What watching for changes costs, through the built-in medium and the memory-mapped driver:
//  - latency: from the start of a typed set in one process to the return of kesDBMWatch in
//    another process asleep on the leaf (median and 99th percentile over the rounds);
//  - set cost: a typed set with the change entered and with entering turned off
//    (kesdb_recordChanges), in alternating batches in one process with nobody watching; the
//    ratio is the median of the rounds' ratios (target: at most 1.05 on the mmap medium).
//
//   build/bin/kesdb_watch [ROUNDS]      (default 1000 latency rounds)
//
// Each medium gets a fresh database in a temporary directory ($TMPDIR or /tmp): a root and
// one Uint64 leaf. The watcher reads the set's start time from the leaf's value.
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "kesdbm/kesdbm.h"

namespace {

constexpr int kCostRounds = 61;
constexpr double kBatchNs = 20e6;

[[noreturn]] void die(const char* what) {
    std::fprintf(stderr, "kesdb_watch: %s\n", what);
    std::exit(2);
}

int64_t nowNs() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

void writeText(const std::string& path, const std::string& text) {
    FILE* f = std::fopen(path.c_str(), "w");
    if (!f || std::fputs(text.c_str(), f) < 0 || std::fclose(f) != 0) die("cannot write a configuration file");
}

struct Medium {
    const char* name;
    uint32_t index;  // media-table index of every kind of record
};

// A started database with one session and the key of its leaf.
struct Db {
    int32_t id = -1;
    Session s{};
    uint32_t leaf = 0;
};

DBMInitParam paramFor(const std::string& dir, const Medium& m) {
    DBMInitParam p{};
    std::snprintf(p.sessionTablePath, KESDB_PATH_MAX, "%s/session.tbl", dir.c_str());
    std::snprintf(p.lockTablePath, KESDB_PATH_MAX, "%s/lock.tbl", dir.c_str());
    std::snprintf(p.mediaConfigPath, KESDB_PATH_MAX, "%s/media.conf", dir.c_str());
    std::snprintf(p.hookConfigPath, KESDB_PATH_MAX, "%s/hook.conf", dir.c_str());
    p.componentMedium = p.valueMedium = p.constraintMedium = p.stringMedium = m.index;
    return p;
}

Db open(const std::string& dir, const Medium& m) {
    const DBMInitParam p = paramFor(dir, m);
    Db db;
    int32_t err = 0;
    db.id = kesDBMInit(&p, &err);
    if (db.id <= 0 || kesDBMInitSession(&db.s, static_cast<uint32_t>(db.id)) != 0) die("cannot start the database");
    db.leaf = kesDBMSearchByName(&db.s, "/t");
    return db;
}

// Lays the medium and builds "/" with the leaf "/t" (a child process, so that every measuring
// process starts the library afresh).
void build(const std::string& dir, const Medium& m) {
    const std::string file = dir + (m.index == 0 ? "/builtin.med" : "/mmap.med");
    if (kesdb_layMedium(file.c_str(), 1 << 20, 0) != 0) die("cannot lay the medium");
    setenv("KESDB_DEFMEDIA", file.c_str(), 1);
    setenv("KESDB_DBTABLE", (dir + "/db.tbl").c_str(), 1);
    writeText(dir + "/hook.conf", "");
    writeText(dir + "/media.conf",
              m.index == 0 ? ""
                           : std::string(KESDB_LIB_DIR) +
                                 "/libkesdrv_mmap.so mmapMedia_open mmapMedia_close mmapMedia_read mmapMedia_write "
                                 "mmapMedia_seek mmapMedia_sync " +
                                 file + "\n");
    const pid_t pid = fork();
    if (pid == 0) {
        const DBMInitParam p = paramFor(dir, m);
        int32_t err = 0;
        Session s{};
        const int32_t id = kesDBMInit(&p, &err);
        if (id <= 0 || kesDBMInitSession(&s, static_cast<uint32_t>(id)) != 0) _exit(1);
        NodeRecord root{};
        if (!comp_newNode(&s, &root)) _exit(2);
        root.comp.kind = KESDB_KIND_NODE;
        root.comp.stringKey = kesDBMCreateString(&s, "/", m.index);
        if (comp_setNode(&s, &root) != 0 || flst_m_setRoot(&s, m.index, root.comp.key) != 0) _exit(2);
        const uint64_t zero = 0;
        const uint32_t value = kesDBMCreateValue(&s, Uint64, 0, &zero, 8, m.index);
        if (kesDBMCreateLeaf(&s, kesDBMCreateString(&s, "t", m.index), root.comp.key, 0, value, 0, 0, 0) == 0) _exit(3);
        kesDBMTermSession(&s);
        kesDBMTerm(static_cast<uint32_t>(id));
        _exit(0);
    }
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0)
        die("cannot build the database");
}

double quantile(std::vector<double> v, double q) {
    std::sort(v.begin(), v.end());
    return v[std::min(v.size() - 1, static_cast<size_t>(q * static_cast<double>(v.size())))];
}

// Wake latencies in microseconds, measured from the start of the set and from its return (the
// change is entered as the set's last step, so the watcher may wake before the set returns).
// A watcher process reports ready, the setter waits until it is asleep, sets the leaf to the
// time, and the watcher reports the time it woke.
struct Wake {
    std::vector<double> fromStart, fromReturn;
};

Wake latency(const std::string& dir, const Medium& m, int rounds) {
    int ready[2], results[2];
    if (pipe(ready) != 0 || pipe(results) != 0) die("pipe");
    const pid_t watcher = fork();
    if (watcher == 0) {
        Db db = open(dir, m);
        uint32_t sequence = 0, changed[4];
        int32_t count = 0;
        kesDBMWatch(&db.s, db.leaf, &sequence, 0, nullptr, &count);
        for (int i = 0; i < rounds; ++i) {
            if (write(ready[1], "r", 1) != 1) _exit(1);
            count = 4;
            if (kesDBMWatch(&db.s, db.leaf, &sequence, 5000, changed, &count) != 0 || count != 1) _exit(2);
            const int64_t woke = nowNs();
            if (write(results[1], &woke, sizeof woke) != sizeof woke) _exit(4);
        }
        _exit(0);
    }
    Db db = open(dir, m);
    Wake out;
    char c;
    for (int i = 0; i < rounds; ++i) {
        if (read(ready[0], &c, 1) != 1) die("the watcher stopped");
        usleep(300);  // long enough for it to fall asleep
        const int64_t start = nowNs();
        if (kesDBMSetSint64(&db.s, db.leaf, start) != 0) die("set failed");
        const int64_t returned = nowNs();
        int64_t woke = 0;
        if (read(results[0], &woke, sizeof woke) != sizeof woke) die("the watcher stopped");
        out.fromStart.push_back(static_cast<double>(woke - start) / 1000.0);
        out.fromReturn.push_back(static_cast<double>(woke - returned) / 1000.0);
    }
    int status = 0;
    waitpid(watcher, &status, 0);
    kesDBMTermSession(&db.s);
    kesDBMTerm(static_cast<uint32_t>(db.id));
    for (int f : {ready[0], ready[1], results[0], results[1]}) close(f);
    return out;
}

// Nanoseconds per set with entering on and off, and the median ratio of the rounds.
struct Cost {
    double on, off, ratio;
};

Cost setCost(const std::string& dir, const Medium& m) {
    Db db = open(dir, m);
    std::vector<double> on, off, ratios;
    int n = 10;
    auto batch = [&](bool recording) {
        kesdb_recordChanges(recording);
        const int64_t start = nowNs();
        for (int i = 0; i < n; ++i)
            if (kesDBMSetSint64(&db.s, db.leaf, i) != 0) die("set failed");
        return static_cast<double>(nowNs() - start) / n;
    };
    // Batches of about kBatchNs each (a durable medium takes milliseconds a set).
    n = static_cast<int>(std::clamp(kBatchNs / batch(true), 10.0, 100000.0));
    for (int r = 0; r < kCostRounds; ++r) {
        const bool first = r % 2 == 0;  // alternate which goes first
        const double a = batch(first), b = batch(!first);
        on.push_back(first ? a : b);
        off.push_back(first ? b : a);
        ratios.push_back(on.back() / off.back());
    }
    kesdb_recordChanges(1);
    kesDBMTermSession(&db.s);
    kesDBMTerm(static_cast<uint32_t>(db.id));
    return {quantile(on, 0.5), quantile(off, 0.5), quantile(ratios, 0.5)};
}

}  // namespace

int main(int argc, char** argv) {
    const int rounds = argc > 1 ? std::max(10, std::atoi(argv[1])) : 1000;
    setenv("SIM_BYTE_ORDER", "BIG_ENDIAN", 0);
    const char* t = getenv("TMPDIR");
    std::string base = std::string(t && *t ? t : "/tmp") + "/kesdb-watch-XXXXXX";
    if (!mkdtemp(base.data())) die("cannot make a temporary directory");
    std::printf("wake: microseconds from the start of a set (p50, p99) and from its return (p50, p99)\n");
    std::printf("set: nanoseconds a typed set takes with changes entered and without; ratio: median of the rounds\n");
    std::printf("%-9s %9s %9s %9s %9s %12s %12s %7s\n", "medium", "start p50", "start p99", "ret p50", "ret p99",
                "set (on)", "set (off)", "ratio");
    double mmapRatio = 0;
    for (const Medium& m : {Medium{"built-in", 0}, Medium{"mmap", 1}}) {
        const std::string dir = base + "/" + m.name;
        if (mkdir(dir.c_str(), 0775) != 0) die("cannot make a directory");
        build(dir, m);
        std::fflush(stdout);
        const Wake wake = latency(dir, m, rounds);
        const Cost cost = setCost(dir, m);
        if (m.index != 0) mmapRatio = cost.ratio;
        std::printf("%-9s %9.1f %9.1f %9.1f %9.1f %12.0f %12.0f %7.3f\n", m.name, quantile(wake.fromStart, 0.5),
                    quantile(wake.fromStart, 0.99), quantile(wake.fromReturn, 0.5), quantile(wake.fromReturn, 0.99),
                    cost.on, cost.off, cost.ratio);
        std::fflush(stdout);
    }
    std::printf("target: set cost with the change record at most 1.05 times without it on mmap: %s (%.3f)\n",
                mmapRatio <= 1.05 ? "met" : "NOT met", mmapRatio);
    const std::string cleanup = "rm -rf '" + base + "'";
    return std::system(cleanup.c_str()) == 0 ? 0 : 2;
}
