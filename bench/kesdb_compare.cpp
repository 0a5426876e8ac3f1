// What a keyed read and write of a setting costs through the built-in medium and through the
// memory-mapped driver, against the system calls the built-in medium makes for them, and
// against the same workload on LMDB and SQLite; also path search, creating and deleting a
// leaf, and that keyed access and creation cost the same whatever the size of the tree.
//
//   build/bin/kesdb_compare [--benchmark_filter=REGEX] [--benchmark_repetitions=N]
//
// Two kinds of measurement, all in real (wall-clock) time:
//  - each workload on its own (get/..., set/..., search/..., create_delete/...): the best of
//    the repetitions (default 3, interleaved at random with the other benchmarks);
//  - head to head (vs/...): the workloads compared by a ratio run in alternating batches,
//    round by round, so that both meet the same load; the ratio is the median over the rounds.
//    The targets are judged on these, which stay stable on a busy machine.
// A summary with every figure, the ratios and the targets follows the table.
//
// The databases are built once at start in a temporary directory ($TMPDIR or /tmp), each by a
// child process with a library of its own: through the mmap driver, and for the built-in
// medium's files with every record written through the mmap driver and the value data and names
// through the built-in medium on a memory file system (/dev/shm), then copied (the file format
// is the same whatever the driver). Each tree has groups of 100 leaves under the root
// ("/g0000/l000" ...) and one empty node ("spare") under which leaves are created.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <lmdb.h>
#include <sqlite3.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "kesdbm/kesdbm.h"

namespace {

namespace fs = std::filesystem;

constexpr uint32_t kCompareLeaves = 10000;
const uint32_t kSizes[] = {100, 1000, 10000, 100000};
constexpr int kCreateRounds = 100;  // rounds of 1000 creations (deleted again after each)
constexpr uint32_t kO_DSYNC = O_DSYNC;

[[noreturn]] void die(const std::string& what) {
    std::fprintf(stderr, "kesdb_compare: %s\n", what.c_str());
    std::exit(2);
}

std::string tempBase() {
    const char* t = getenv("TMPDIR");
    return t && *t ? t : "/tmp";
}

std::string makeTempDir(const std::string& base) {
    std::string pattern = base + "/kesdb-compare-XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (!mkdtemp(buffer.data())) die("cannot make a directory in " + base);
    return buffer.data();
}

void writeText(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::trunc);
    out << text;
    if (!out) die("cannot write " + path);
}

// Gives every hole of the file its blocks (the laid free space is sparse) and writes it back,
// so that measurements do not pay for block allocation on first touch.
void settleFile(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDWR);
    struct stat st;
    if (fd < 0 || fstat(fd, &st) != 0) die("cannot open " + path);
    if (posix_fallocate(fd, 0, st.st_size) != 0 || fsync(fd) != 0) die("cannot settle " + path);
    ::close(fd);
}

// ---- The databases ------------------------------------------------------------------------

// Media indexes in the measuring process. Index 0 is the built-in medium; its file is chosen
// per benchmark through KESDB_DEFMEDIA.
enum MediumIndex : uint32_t {
    kBuiltin = 0,
    kMmap10k = 1,     // the comparison database, lazily synced (also the 10,000 of the sizes)
    kDurable10k = 2,  // "sync:" medium: every write synced
    kMmap100 = 3,
    kMmap1k = 4,
    kMmap100k = 5,
    kMediaCount = 6,
};

struct Paths {
    std::string dir;  // on the device
    std::string shm;  // memory file system for building, or dir
    std::string driver;
    std::string builtinFile(uint32_t n) const { return dir + "/builtin" + std::to_string(n) + ".med"; }
    std::string mmapFile(uint32_t index) const { return dir + "/mmap" + std::to_string(index) + ".med"; }
};

uint32_t mmapIndexFor(uint32_t leaves) {
    switch (leaves) {
        case 100: return kMmap100;
        case 1000: return kMmap1k;
        case 10000: return kMmap10k;
        default: return kMmap100k;
    }
}

// One line of a media configuration file naming the mmap driver.
std::string mmapLine(const Paths& p, const std::string& name) {
    return p.driver + " mmapMedia_open mmapMedia_close mmapMedia_read mmapMedia_write mmapMedia_seek mmapMedia_sync " +
           name + "\n";
}

DBMInitParam paramIn(const std::string& dir, const std::string& tag, uint32_t index) {
    DBMInitParam p{};
    std::snprintf(p.sessionTablePath, KESDB_PATH_MAX, "%s/%s-session.tbl", dir.c_str(), tag.c_str());
    std::snprintf(p.lockTablePath, KESDB_PATH_MAX, "%s/%s-lock.tbl", dir.c_str(), tag.c_str());
    std::snprintf(p.mediaConfigPath, KESDB_PATH_MAX, "%s/%s-media.conf", dir.c_str(), tag.c_str());
    std::snprintf(p.hookConfigPath, KESDB_PATH_MAX, "%s/%s-hook.conf", dir.c_str(), tag.c_str());
    p.componentMedium = p.valueMedium = p.constraintMedium = p.stringMedium = index;
    return p;
}

// Space for the records of `leaves` leaves and their values, their group nodes, and the leaves
// the creation benchmarks add; names and value data are appended behind it.
uint32_t laySize(uint32_t leaves) { return leaves * (40 + 28) + (leaves / 100 + 2) * 28 + 4 * 1024 * 1024; }

// Builds the tree in a started database: records in medium `recordIndex`, value data and name
// texts in medium `dataIndex`. 0, or the step that failed.
int buildTree(Session* s, uint32_t leaves, uint32_t recordIndex, uint32_t dataIndex) {
    NodeRecord root{};
    if (!comp_newNode(s, &root)) return 1;
    root.comp.stringKey = kesDBMCreateString(s, "/", dataIndex);
    root.comp.kind = KESDB_KIND_NODE;
    if (root.comp.stringKey == 0 || comp_setNode(s, &root) != 0) return 2;
    if (flst_m_setRoot(s, recordIndex, root.comp.key) != 0) return 3;
    char name[32];
    uint32_t previousGroup = 0;
    for (uint32_t g = 0; g * 100 < leaves; ++g) {
        std::snprintf(name, sizeof name, "g%04u", g);
        const uint32_t group =
            kesDBMCreateNode(s, kesDBMCreateString(s, name, dataIndex), root.comp.key, previousGroup, 0);
        if (group == 0) return 4;
        previousGroup = group;
        uint32_t previousLeaf = 0;
        for (uint32_t j = 0; j < 100 && g * 100 + j < leaves; ++j) {
            std::snprintf(name, sizeof name, "/l%03u", j);
            const uint32_t v = g * 100 + j;
            const uint32_t value = kesDBMCreateValue(s, Uint32, 0, &v, 4, dataIndex);
            const uint32_t stringKey = kesDBMCreateString(s, name, dataIndex);
            if (value == 0 || stringKey == 0) return 5;
            previousLeaf = kesDBMCreateLeaf(s, stringKey, group, previousLeaf, value, 0, 0, 0);
            if (previousLeaf == 0) return 6;
        }
    }
    if (kesDBMCreateNode(s, kesDBMCreateString(s, "spare", dataIndex), root.comp.key, previousGroup, 0) == 0) return 7;
    return 0;
}

// Builds one medium file in a child process with a library of its own: `config` is its media
// configuration, records go to `recordIndex`, data to `dataIndex`; KESDB_DEFMEDIA names
// `defMedia` when it is not empty.
void buildInChild(const Paths& p, const std::string& tag, const std::string& config, uint32_t leaves,
                  uint32_t recordIndex, uint32_t dataIndex, const std::string& defMedia) {
    std::fflush(stdout);
    const pid_t pid = fork();
    if (pid < 0) die("fork");
    if (pid == 0) {
        setenv("KESDB_DBTABLE", (p.dir + "/" + tag + "-db.tbl").c_str(), 1);
        if (!defMedia.empty()) setenv("KESDB_DEFMEDIA", defMedia.c_str(), 1);
        DBMInitParam param = paramIn(p.dir, tag, recordIndex);
        writeText(param.mediaConfigPath, config);
        writeText(param.hookConfigPath, "");
        int32_t err = 0;
        const int32_t id = kesDBMInit(&param, &err);
        Session s{};
        if (id <= 0 || kesDBMInitSession(&s, static_cast<uint32_t>(id)) != 0) _exit(20);
        const int r = buildTree(&s, leaves, recordIndex, dataIndex);
        if (r != 0) std::fprintf(stderr, "build %s: step %d, error %u detail %u\n", tag.c_str(), r, s.error, s.errorDetail);
        kesDBMTermSession(&s);
        kesDBMTerm(static_cast<uint32_t>(id));
        std::fflush(stdout);
        _exit(r);
    }
    int status = 0;
    if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0)
        die("building " + tag + " failed");
}

// A built-in medium file of `leaves` leaves: its records through the mmap driver (index 1) and
// its names and value data through the built-in medium (index 0), both on one file in memory.
void buildBuiltin(const Paths& p, uint32_t leaves) {
    const std::string work = p.shm + "/build" + std::to_string(leaves) + ".med";
    if (kesdb_layMedium(work.c_str(), laySize(leaves), 0) != 0) die("cannot lay " + work);
    buildInChild(p, "builtin" + std::to_string(leaves), mmapLine(p, work), leaves, 1, 0, work);
    const std::string target = p.builtinFile(leaves);
    fs::copy_file(work, target, fs::copy_options::overwrite_existing);
    fs::remove(work);
    settleFile(target);
}

// A medium file for the mmap driver at `index`, built through the same index (the lines before
// it are placeholders that are never opened, so that the indexes match).
void buildMmap(const Paths& p, uint32_t index, uint32_t leaves) {
    const std::string file = p.mmapFile(index);
    if (kesdb_layMedium(file.c_str(), laySize(leaves), 0) != 0) die("cannot lay " + file);
    std::string config;
    for (uint32_t i = 1; i < index; ++i) config += mmapLine(p, p.dir + "/unused" + std::to_string(i));
    config += mmapLine(p, file);
    buildInChild(p, "mmap" + std::to_string(index), config, leaves, index, index, "");
    settleFile(file);
}

// A started database of the measuring process with the keys the benchmarks use.
struct Db {
    uint32_t index = 0;
    std::string defMedia;  // the built-in medium's file, for index 0
    int32_t id = -1;
    Session s{};
    uint32_t leaf = 0, spare = 0, nameKey = 0, valueKey = 0;
    ValueRecord value{};
    std::string leafPath;

    // Points the built-in medium at this database's file.
    void use() const {
        if (!defMedia.empty()) setenv("KESDB_DEFMEDIA", defMedia.c_str(), 1);
    }
};

struct World {
    Paths paths;
    std::map<uint32_t, Db> builtin;  // by number of leaves
    std::map<uint32_t, Db> mmap;     // by number of leaves
    Db durable;
    MDB_env* lmdb = nullptr;
    MDB_dbi dbi = 0;
    sqlite3* sql = nullptr;
    sqlite3_stmt* select = nullptr;
    sqlite3_stmt* update = nullptr;
};

World* g_world = nullptr;

std::string leafPathFor(uint32_t leaves) {
    const uint32_t groups = (leaves + 99) / 100;
    char path[64];
    std::snprintf(path, sizeof path, "/g%04u/l050", groups / 2);
    return path;
}

// Stops and starts a database again, which makes it the newest entry of the list of started
// databases that every record access walks: databases compared with each other by size are
// each made the newest before they are measured, so that they pay the same walk.
void restartDb(World& w, Db& db) {
    kesDBMTermSession(&db.s);
    kesDBMTerm(static_cast<uint32_t>(db.id));
    db.use();
    DBMInitParam param = paramIn(w.paths.dir, "run", db.index);
    int32_t err = 0;
    db.id = kesDBMInit(&param, &err);
    if (db.id <= 0 || kesDBMInitSession(&db.s, static_cast<uint32_t>(db.id)) != 0) die("cannot restart a database");
}

void startDb(World& w, Db& db, uint32_t index, uint32_t leaves, const std::string& defMedia) {
    db.index = index;
    db.defMedia = defMedia;
    db.use();
    DBMInitParam param = paramIn(w.paths.dir, "run", index);
    int32_t err = 0;
    db.id = kesDBMInit(&param, &err);
    if (db.id <= 0 || kesDBMInitSession(&db.s, static_cast<uint32_t>(db.id)) != 0)
        die("cannot start database " + std::to_string(index) + ": " + std::to_string(err));
    db.leafPath = leafPathFor(leaves);
    db.leaf = kesDBMSearchByName(&db.s, db.leafPath.c_str());
    db.spare = kesDBMSearchByName(&db.s, "/spare");
    db.nameKey = kesDBMGetStringKey(&db.s, db.spare);
    db.valueKey = kesDBMGetCurrentValueKey(&db.s, db.leaf);
    uint32_t v = 0;
    if (db.leaf == 0 || db.spare == 0 || db.valueKey == 0 || !value_get(&db.s, db.valueKey, &db.value) ||
        kesDBMGetUint32(&db.s, db.leaf, &v) != 0 || v != (leaves + 99) / 100 / 2 * 100 + 50)
        die("database " + std::to_string(index) + " of " + std::to_string(leaves) + " leaves is not as built");
}

void mdbCheck(int rc, const char* what) {
    if (rc != 0) die(std::string(what) + ": " + mdb_strerror(rc));
}

void sqlCheck(int rc, const char* what) {
    if (rc != SQLITE_OK && rc != SQLITE_DONE && rc != SQLITE_ROW)
        die(std::string(what) + ": " + sqlite3_errstr(rc));
}

void sqlExec(sqlite3* db, const char* statement) { sqlCheck(sqlite3_exec(db, statement, nullptr, nullptr, nullptr), statement); }

void setupLmdb(World& w) {
    mdbCheck(mdb_env_create(&w.lmdb), "mdb_env_create");
    mdbCheck(mdb_env_set_mapsize(w.lmdb, 64u << 20), "mdb_env_set_mapsize");
    mdbCheck(mdb_env_open(w.lmdb, (w.paths.dir + "/lmdb.mdb").c_str(), MDB_NOSUBDIR, 0664), "mdb_env_open");
    MDB_txn* txn = nullptr;
    mdbCheck(mdb_txn_begin(w.lmdb, nullptr, 0, &txn), "mdb_txn_begin");
    mdbCheck(mdb_dbi_open(txn, nullptr, MDB_INTEGERKEY, &w.dbi), "mdb_dbi_open");
    for (uint32_t k = 0; k < kCompareLeaves; ++k) {
        MDB_val key{sizeof k, &k}, val{sizeof k, &k};
        mdbCheck(mdb_put(txn, w.dbi, &key, &val, 0), "mdb_put");
    }
    mdbCheck(mdb_txn_commit(txn), "mdb_txn_commit");
}

void setupSqlite(World& w) {
    sqlCheck(sqlite3_open((w.paths.dir + "/sqlite.db").c_str(), &w.sql), "sqlite3_open");
    sqlExec(w.sql, "PRAGMA journal_mode=WAL");
    sqlExec(w.sql, "PRAGMA synchronous=NORMAL");
    sqlExec(w.sql, "CREATE TABLE kv(k INTEGER PRIMARY KEY, v INTEGER NOT NULL)");
    sqlExec(w.sql, "BEGIN");
    sqlite3_stmt* insert = nullptr;
    sqlCheck(sqlite3_prepare_v2(w.sql, "INSERT INTO kv VALUES(?, ?)", -1, &insert, nullptr), "prepare insert");
    for (uint32_t k = 0; k < kCompareLeaves; ++k) {
        sqlite3_bind_int64(insert, 1, k);
        sqlite3_bind_int64(insert, 2, k);
        sqlCheck(sqlite3_step(insert), "insert");
        sqlite3_reset(insert);
    }
    sqlite3_finalize(insert);
    sqlExec(w.sql, "COMMIT");
    sqlCheck(sqlite3_prepare_v2(w.sql, "SELECT v FROM kv WHERE k = ?", -1, &w.select, nullptr), "prepare select");
    sqlCheck(sqlite3_prepare_v2(w.sql, "UPDATE kv SET v = ? WHERE k = ?", -1, &w.update, nullptr), "prepare update");
}

void setup(World& w) {
    Paths& p = w.paths;
    p.dir = makeTempDir(tempBase());
    p.shm = fs::is_directory("/dev/shm") ? makeTempDir("/dev/shm") : p.dir;
    p.driver = std::string(KESDB_LIB_DIR) + "/libkesdrv_mmap.so";
    if (!fs::exists(p.driver)) die("no driver library at " + p.driver);
    setenv("SIM_BYTE_ORDER", "BIG_ENDIAN", 1);

    std::printf("Building the databases in %s ...\n", p.dir.c_str());
    std::fflush(stdout);
    for (uint32_t n : kSizes) {
        buildBuiltin(p, n);
        buildMmap(p, mmapIndexFor(n), n);
    }
    buildMmap(p, kDurable10k, kCompareLeaves);
    if (p.shm != p.dir) fs::remove_all(p.shm);

    // The measuring process's media: the mmap files, the durable one under "sync:".
    setenv("KESDB_DBTABLE", (p.dir + "/run-db.tbl").c_str(), 1);
    std::string config;
    for (uint32_t i = 1; i < kMediaCount; ++i)
        config += mmapLine(p, (i == kDurable10k ? "sync:" : "") + p.mmapFile(i));
    const DBMInitParam param = paramIn(p.dir, "run", 0);
    writeText(param.mediaConfigPath, config);
    writeText(param.hookConfigPath, "");
    // Every record access walks the database table's list of started databases, newest
    // first: the comparison databases are started last, as in a process that uses one.
    for (uint32_t n : kSizes) {
        if (n != kCompareLeaves) startDb(w, w.mmap[n], mmapIndexFor(n), n, "");
    }
    startDb(w, w.durable, kDurable10k, kCompareLeaves, "");
    for (uint32_t n : kSizes) startDb(w, w.builtin[n], kBuiltin, n, p.builtinFile(n));
    startDb(w, w.mmap[kCompareLeaves], kMmap10k, kCompareLeaves, "");
    setupLmdb(w);
    setupSqlite(w);
}

void teardown(World& w) {
    sqlite3_finalize(w.select);
    sqlite3_finalize(w.update);
    sqlite3_close(w.sql);
    mdb_env_close(w.lmdb);
    auto stop = [](Db& db) {
        kesDBMTermSession(&db.s);
        kesDBMTerm(static_cast<uint32_t>(db.id));
    };
    for (auto& [n, db] : w.builtin) stop(db);
    for (auto& [n, db] : w.mmap) stop(db);
    stop(w.durable);
    std::error_code ec;
    fs::remove_all(w.paths.dir, ec);
}

// ---- The workloads -------------------------------------------------------------------------

// One kind of operation: `prepare` makes it ready (outside any timing: it may point the
// built-in medium at its file or switch a mode), `run(k)` does it k times and tells success.
struct Workload {
    std::function<void()> prepare;
    std::function<bool(int)> run;
    std::function<bool()> finish = [] { return true; };  // after the timing: undoes what run left
};

Workload typedGet(Db* db) {
    return {[db] { db->use(); }, [db](int k) {
                uint32_t v = 0;
                bool ok = true;
                for (int i = 0; i < k; ++i) ok &= kesDBMGetUint32(&db->s, db->leaf, &v) == 0;
                benchmark::DoNotOptimize(v);
                return ok;
            }};
}

Workload typedSet(Db* db) {
    return {[db] { db->use(); }, [db, v = uint32_t{0}](int k) mutable {
                bool ok = true;
                for (int i = 0; i < k; ++i) ok &= kesDBMSetUint32(&db->s, db->leaf, ++v) == 0;
                return ok;
            }};
}

Workload search(Db* db) {
    return {[db] { db->use(); }, [db](int k) {
                bool ok = true;
                for (int i = 0; i < k; ++i) ok &= kesDBMSearchByName(&db->s, db->leafPath.c_str()) == db->leaf;
                return ok;
            }};
}

// A new leaf at the head of the spare node, deleted again: the tree stays as it was.
Workload createDelete(Db* db) {
    return {[db] { db->use(); }, [db](int k) {
                bool ok = true;
                for (int i = 0; i < k; ++i) {
                    const uint32_t leaf = kesDBMCreateLeaf(&db->s, db->nameKey, db->spare, 0, db->valueKey, 0, 0, 0);
                    ok &= leaf != 0 && kesDBMDeleteComponent(&db->s, leaf) == 0;
                }
                return ok;
            }};
}

// New leaves at the head of the spare node, each from the front of the one large free element;
// they are deleted again after the timing, newest first, which gives their space back to the
// front of that element, so every batch creates in the same state of the medium.
Workload create(Db* db) {
    auto made = std::make_shared<std::vector<uint32_t>>();
    return {[db] { db->use(); },
            [db, made](int k) {
                bool ok = true;
                for (int i = 0; i < k; ++i) {
                    const uint32_t leaf = kesDBMCreateLeaf(&db->s, db->nameKey, db->spare, 0, db->valueKey, 0, 0, 0);
                    ok &= leaf != 0;
                    made->push_back(leaf);
                }
                return ok;
            },
            [db, made] {
                bool ok = true;
                for (auto it = made->rbegin(); it != made->rend(); ++it) ok &= kesDBMDeleteComponent(&db->s, *it) == 0;
                made->clear();
                return ok;
            }};
}

// The system calls the built-in medium makes for one typed get: the leaf record, the value
// record and the value's data, each open (O_RDWR | O_DSYNC), pread, close.
Workload floorGet(Db* db) {
    return {[] {}, [db](int k) {
                const char* path = db->defMedia.c_str();
                const std::pair<uint32_t, uint32_t> reads[] = {
                    {40u, db->leaf}, {28u, db->valueKey}, {4u, db->value.dataOffset}};
                uint8_t buffer[40];
                bool ok = true;
                for (int i = 0; i < k; ++i) {
                    for (const auto& [size, offset] : reads) {
                        const int fd = ::open(path, O_RDWR | kO_DSYNC);
                        ok &= pread(fd, buffer, size, offset) == static_cast<ssize_t>(size);
                        ::close(fd);
                    }
                }
                return ok;
            }};
}

// ... and for one typed set: the two record reads, then the data written synchronously.
Workload floorSet(Db* db) {
    return {[] {}, [db, v = uint32_t{0}](int k) mutable {
                const char* path = db->defMedia.c_str();
                const std::pair<uint32_t, uint32_t> reads[] = {{40u, db->leaf}, {28u, db->valueKey}};
                uint8_t buffer[40];
                bool ok = true;
                for (int i = 0; i < k; ++i) {
                    for (const auto& [size, offset] : reads) {
                        const int fd = ::open(path, O_RDWR | kO_DSYNC);
                        ok &= pread(fd, buffer, size, offset) == static_cast<ssize_t>(size);
                        ::close(fd);
                    }
                    ++v;
                    const int fd = ::open(path, O_RDWR | kO_DSYNC);
                    ok &= pwrite(fd, &v, 4, db->value.dataOffset) == 4;
                    ::close(fd);
                }
                return ok;
            }};
}

Workload lmdbGet() {
    return {[] {}, [](int k) {
                World& w = *g_world;
                uint32_t key32 = kCompareLeaves / 2, v = 0;
                bool ok = true;
                for (int i = 0; i < k; ++i) {
                    MDB_txn* txn = nullptr;
                    MDB_val key{sizeof key32, &key32}, val{};
                    if (mdb_txn_begin(w.lmdb, nullptr, MDB_RDONLY, &txn) != 0) return false;
                    ok &= mdb_get(txn, w.dbi, &key, &val) == 0 && val.mv_size == sizeof v;
                    if (ok) std::memcpy(&v, val.mv_data, sizeof v);
                    mdb_txn_abort(txn);
                }
                benchmark::DoNotOptimize(v);
                return ok;
            }};
}

// A write transaction per set; `noSync` leaves the flush to the system (MDB_NOSYNC).
Workload lmdbSet(bool noSync) {
    return {[noSync] { mdb_env_set_flags(g_world->lmdb, MDB_NOSYNC, noSync ? 1 : 0); },
            [v = uint32_t{0}](int k) mutable {
                World& w = *g_world;
                uint32_t key32 = kCompareLeaves / 2;
                bool ok = true;
                for (int i = 0; i < k; ++i) {
                    MDB_txn* txn = nullptr;
                    ++v;
                    MDB_val key{sizeof key32, &key32}, val{sizeof v, &v};
                    if (mdb_txn_begin(w.lmdb, nullptr, 0, &txn) != 0) return false;
                    if (mdb_put(txn, w.dbi, &key, &val, 0) != 0) {
                        mdb_txn_abort(txn);
                        return false;
                    }
                    ok &= mdb_txn_commit(txn) == 0;
                }
                return ok;
            }};
}

Workload sqliteGet() {
    return {[] {}, [](int k) {
                World& w = *g_world;
                int64_t v = 0;
                bool ok = true;
                for (int i = 0; i < k; ++i) {
                    sqlite3_bind_int64(w.select, 1, kCompareLeaves / 2);
                    ok &= sqlite3_step(w.select) == SQLITE_ROW;
                    v = sqlite3_column_int64(w.select, 0);
                    sqlite3_reset(w.select);
                }
                benchmark::DoNotOptimize(v);
                return ok;
            }};
}

// An autocommitted UPDATE in WAL mode with the given synchronous setting.
Workload sqliteSet(const char* synchronous) {
    return {[synchronous] { sqlExec(g_world->sql, (std::string("PRAGMA synchronous=") + synchronous).c_str()); },
            [v = int64_t{0}](int k) mutable {
                World& w = *g_world;
                bool ok = true;
                for (int i = 0; i < k; ++i) {
                    sqlite3_bind_int64(w.update, 1, ++v);
                    sqlite3_bind_int64(w.update, 2, kCompareLeaves / 2);
                    ok &= sqlite3_step(w.update) == SQLITE_DONE;
                    sqlite3_reset(w.update);
                }
                return ok;
            }};
}

// ---- Benchmarks ---------------------------------------------------------------------------

double nowUs() {
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return t.tv_sec * 1e6 + t.tv_nsec / 1e3;
}

double median(std::vector<double> v) {
    if (v.empty()) return -1;
    std::sort(v.begin(), v.end());
    return v.size() % 2 ? v[v.size() / 2] : (v[v.size() / 2 - 1] + v[v.size() / 2]) / 2;
}

// One workload on its own: one operation per iteration.
void single(benchmark::State& state, const Workload& w) {
    w.prepare();
    for (auto _ : state) {
        if (!w.run(1)) {
            state.SkipWithError("operation failed");
            break;
        }
    }
}

// Workloads measured head to head: each round runs a batch of every member, in a rotating
// order, so that they share whatever load the machine has at that moment. Per member: the
// median and the best time of one operation over the rounds, and the median over the rounds
// of its time relative to the first member's in the same round.
struct Member {
    std::string name;
    int batch;
    Workload work;
};
struct GroupResult {
    std::vector<std::string> names;
    std::vector<double> medianUs, bestUs, ratio;
};
std::map<std::string, GroupResult> g_groups;

void group(benchmark::State& state, const std::string& title, const std::vector<Member>& members) {
    const size_t n = members.size();
    std::vector<std::vector<double>> perOp(n);
    size_t round = 0;
    for (auto _ : state) {
        for (size_t j = 0; j < n; ++j) {
            const Member& m = members[(j + round) % n];
            m.work.prepare();
            const double t0 = nowUs();
            bool ok = m.work.run(m.batch);
            const double t1 = nowUs();
            ok &= m.work.finish();
            if (!ok) {
                state.SkipWithError((m.name + " failed").c_str());
                return;
            }
            perOp[(j + round) % n].push_back((t1 - t0) / m.batch);
        }
        ++round;
    }
    GroupResult r;
    for (size_t i = 0; i < n; ++i) {
        std::vector<double> relative;
        for (size_t k = 0; k < perOp[i].size(); ++k) relative.push_back(perOp[i][k] / perOp[0][k]);
        r.names.push_back(members[i].name);
        r.medianUs.push_back(median(perOp[i]));
        r.bestUs.push_back(*std::min_element(perOp[i].begin(), perOp[i].end()));
        r.ratio.push_back(median(relative));
        state.counters[members[i].name + "_us"] = r.medianUs.back();
    }
    g_groups[title] = r;
}

void registerAll(World& w, int repetitions) {
    auto add = [repetitions](const std::string& name, const Workload& work) {
        return benchmark::RegisterBenchmark(name.c_str(), [work](benchmark::State& st) { single(st, work); })
            ->UseRealTime()
            ->Unit(benchmark::kMicrosecond)
            ->Repetitions(repetitions)
            ->ComputeStatistics("min", [](const std::vector<double>& v) { return *std::min_element(v.begin(), v.end()); })
            ->ReportAggregatesOnly(true);
    };
    auto addGroup = [](const std::string& title, int rounds, std::vector<Member> members) {
        benchmark::RegisterBenchmark(("vs/" + title).c_str(),
                                     [title, members](benchmark::State& st) { group(st, title, members); })
            ->UseRealTime()
            ->Unit(benchmark::kMillisecond)
            ->Iterations(rounds);
    };
    Db* b = &w.builtin[kCompareLeaves];
    Db* m = &w.mmap[kCompareLeaves];
    Db* d = &w.durable;

    // Each workload on its own.
    add("get/floor", floorGet(b));
    add("get/builtin", typedGet(b));
    add("get/mmap", typedGet(m));
    add("get/lmdb", lmdbGet());
    add("get/sqlite", sqliteGet());
    add("set/floor", floorSet(b));
    add("set/builtin", typedSet(b));
    add("set/mmap", typedSet(m));
    add("set/mmap_sync", typedSet(d));
    add("set/lmdb", lmdbSet(false));
    add("set/lmdb_nosync", lmdbSet(true));
    add("set/sqlite_normal", sqliteSet("NORMAL"));
    add("set/sqlite_off", sqliteSet("OFF"));
    add("search/builtin", search(b));
    add("search/mmap", search(m));
    add("create_delete/builtin", createDelete(b));
    add("create_delete/mmap", createDelete(m));
    add("create_delete/mmap_sync", createDelete(d));

    // Head to head, for the ratios.
    addGroup("get_builtin_floor", 300, {{"floor", 5, floorGet(b)}, {"builtin", 5, typedGet(b)}});
    addGroup("set_builtin_floor", 100, {{"floor", 2, floorSet(b)}, {"builtin", 2, typedSet(b)}});
    addGroup("get_mmap_lmdb", 300, {{"lmdb", 2000, lmdbGet()}, {"mmap", 2000, typedGet(m)}});
    addGroup("set_mmap_lmdb_nosync", 100, {{"lmdb_nosync", 20, lmdbSet(true)}, {"mmap", 2000, typedSet(m)}});
    addGroup("set_mmap_sync_lmdb", 40, {{"lmdb", 1, lmdbSet(false)}, {"mmap_sync", 1, typedSet(d)}});
    std::vector<Member> getB, setB, getM, setM, createM;
    for (uint32_t n : kSizes) {
        const std::string size = std::to_string(n);
        getB.push_back({size, 5, typedGet(&w.builtin[n])});
        setB.push_back({size, 2, typedSet(&w.builtin[n])});
        Db* mn = &w.mmap[n];
        auto newest = [&w, mn](Workload work) {
            work.prepare = [&w, mn] { restartDb(w, *mn); };
            return work;
        };
        getM.push_back({size, 2000, newest(typedGet(mn))});
        setM.push_back({size, 2000, newest(typedSet(mn))});
        createM.push_back({size, 1000, newest(create(mn))});
    }
    addGroup("sizes_get_builtin", 150, getB);
    addGroup("sizes_set_builtin", 100, setB);
    addGroup("sizes_get_mmap", 150, getM);
    addGroup("sizes_set_mmap", 150, setM);
    addGroup("sizes_create_mmap", kCreateRounds, createM);
}

// ---- Reporting ----------------------------------------------------------------------------

// Shows the median and the best of each benchmark's repetitions, and keeps the best for the
// summary (in microseconds).
class Reporter : public benchmark::ConsoleReporter {
public:
    std::map<std::string, double> best;

    void ReportRuns(const std::vector<Run>& reports) override {
        std::vector<Run> shown;
        for (const Run& r : reports) {
            if (r.error_occurred) {
                shown.push_back(r);
                continue;
            }
            if (r.run_type != Run::RT_Aggregate) {
                if (r.repetitions > 1) continue;
                best[r.run_name.function_name] = micros(r);  // a single run is its own best
                shown.push_back(r);
                continue;
            }
            if (r.aggregate_name == "min") best[r.run_name.function_name] = micros(r);
            if (r.aggregate_name == "min" || r.aggregate_name == "median") shown.push_back(r);
        }
        ConsoleReporter::ReportRuns(shown);
    }

private:
    static double micros(const Run& r) {
        const double t = r.GetAdjustedRealTime();
        switch (r.time_unit) {
            case benchmark::kNanosecond: return t / 1e3;
            case benchmark::kMicrosecond: return t;
            case benchmark::kMillisecond: return t * 1e3;
            default: return t * 1e6;
        }
    }
};

std::string figure(double us) {
    char text[32];
    if (us < 0) return "-";
    if (us < 1) std::snprintf(text, sizeof text, "%.0f ns", us * 1e3);
    else if (us < 1000) std::snprintf(text, sizeof text, "%.2f us", us);
    else std::snprintf(text, sizeof text, "%.2f ms", us / 1e3);
    return text;
}

void summary(const std::map<std::string, double>& best) {
    auto t = [&](const std::string& name) {
        auto it = best.find(name);
        return it == best.end() ? -1.0 : it->second;
    };
    std::printf("\nEach workload on its own: real time of one operation, best of the repetitions, on %u leaves.\n",
                kCompareLeaves);
    auto row = [&](const char* what, const std::string& name) {
        std::printf("  %-46s %12s\n", what, figure(t(name)).c_str());
    };
    std::printf("\n typed get (kesDBMGetUint32 / point read)\n");
    row("system calls of a built-in get (floor)", "get/floor");
    row("built-in medium", "get/builtin");
    row("mmap driver", "get/mmap");
    row("LMDB, read transaction per get", "get/lmdb");
    row("SQLite, prepared point SELECT", "get/sqlite");
    std::printf("\n typed set (kesDBMSetUint32 / point write)\n");
    row("system calls of a built-in set (floor)", "set/floor");
    row("built-in medium (O_DSYNC)", "set/builtin");
    row("mmap driver, synced on kesDBMSync", "set/mmap");
    row("mmap driver, \"sync:\" (msync every write)", "set/mmap_sync");
    row("LMDB, write transaction per set, synced", "set/lmdb");
    row("LMDB, write transaction per set, MDB_NOSYNC", "set/lmdb_nosync");
    row("SQLite UPDATE, WAL, synchronous=NORMAL", "set/sqlite_normal");
    row("SQLite UPDATE, WAL, synchronous=OFF", "set/sqlite_off");
    std::printf("\n path search (kesDBMSearchByName, 51 groups and 51 leaves deep)\n");
    row("built-in medium", "search/builtin");
    row("mmap driver", "search/mmap");
    std::printf("\n create and delete a leaf\n");
    row("built-in medium", "create_delete/builtin");
    row("mmap driver", "create_delete/mmap");
    row("mmap driver, \"sync:\"", "create_delete/mmap_sync");
    std::printf("\n ratios of these\n");
    auto ratio = [&](const char* what, const std::string& a, const std::string& b) {
        const double x = t(a), y = t(b);
        std::printf("  %-46s %11.3fx\n", what, x > 0 && y > 0 ? x / y : -1.0);
    };
    ratio("built-in get / SQLite get", "get/builtin", "get/sqlite");
    ratio("built-in get / LMDB get", "get/builtin", "get/lmdb");
    ratio("mmap get / SQLite get", "get/mmap", "get/sqlite");
    ratio("mmap get / built-in get", "get/mmap", "get/builtin");
    ratio("mmap set / SQLite OFF set", "set/mmap", "set/sqlite_off");
    ratio("mmap \"sync:\" set / built-in set", "set/mmap_sync", "set/builtin");
    ratio("mmap \"sync:\" set / SQLite NORMAL set", "set/mmap_sync", "set/sqlite_normal");
    ratio("mmap search / built-in search", "search/mmap", "search/builtin");
    ratio("mmap create+delete / built-in", "create_delete/mmap", "create_delete/builtin");

    std::printf("\nHead to head: batches of the members alternated round by round; median time of one operation,\n"
                "and the median over the rounds of each member's time relative to the first member's.\n");
    auto groupOf = [&](const std::string& title) -> const GroupResult* {
        auto it = g_groups.find(title);
        return it == g_groups.end() ? nullptr : &it->second;
    };
    const char* titles[] = {"get_builtin_floor", "set_builtin_floor",  "get_mmap_lmdb",     "set_mmap_lmdb_nosync",
                            "set_mmap_sync_lmdb", "sizes_get_builtin", "sizes_set_builtin", "sizes_get_mmap",
                            "sizes_set_mmap",     "sizes_create_mmap"};
    for (const char* title : titles) {
        const GroupResult* g = groupOf(title);
        if (!g) continue;
        std::printf("\n %s\n", title);
        for (size_t i = 0; i < g->names.size(); ++i)
            std::printf("  %-12s median %12s  best %12s  relative %8.3fx\n", g->names[i].c_str(),
                        figure(g->medianUs[i]).c_str(), figure(g->bestUs[i]).c_str(), g->ratio[i]);
    }

    // A ratio of two members, or the spread (largest / smallest median) of a group over sizes.
    auto pairRatio = [&](const char* title) {
        const GroupResult* g = groupOf(title);
        return g && g->ratio.size() == 2 ? g->ratio[1] : -1.0;
    };
    auto spread = [&](const char* title) {
        const GroupResult* g = groupOf(title);
        if (!g || g->ratio.empty()) return -1.0;
        const auto [lo, hi] = std::minmax_element(g->ratio.begin(), g->ratio.end());
        return *hi / *lo;
    };
    struct Target {
        const char* what;
        double ratio;
        double limit;
    };
    const Target targets[] = {
        {"built-in get / floor get", pairRatio("get_builtin_floor"), 1.15},
        {"built-in set / floor set", pairRatio("set_builtin_floor"), 1.15},
        {"mmap get / LMDB get", pairRatio("get_mmap_lmdb"), 0.5},
        {"mmap set / LMDB NOSYNC set", pairRatio("set_mmap_lmdb_nosync"), 0.1},
        {"mmap \"sync:\" set / LMDB synced set", pairRatio("set_mmap_sync_lmdb"), 1.0},
        {"get flat 100..100,000, built-in", spread("sizes_get_builtin"), 1.25},
        {"set flat 100..100,000, built-in", spread("sizes_set_builtin"), 1.25},
        {"get flat 100..100,000, mmap", spread("sizes_get_mmap"), 1.25},
        {"set flat 100..100,000, mmap", spread("sizes_set_mmap"), 1.25},
        {"creation O(1) 100..100,000, mmap", spread("sizes_create_mmap"), 1.25},
    };
    std::printf("\nTargets (from the head-to-head ratios; flatness is largest / smallest relative time)\n");
    for (const Target& target : targets) {
        const char* verdict = target.ratio < 0 ? "not measured" : target.ratio <= target.limit ? "met" : "MISSED";
        std::printf("  %-46s %8.3fx  (<= %.2fx)  %s\n", target.what, target.ratio, target.limit, verdict);
    }
}

}  // namespace

int main(int argc, char** argv) {
    // Defaults that the command line may override: interleaved repetitions.
    std::vector<char*> args(argv, argv + argc);
    char interleave[] = "--benchmark_enable_random_interleaving=true";
    args.insert(args.begin() + 1, interleave);
    int count = static_cast<int>(args.size());
    benchmark::Initialize(&count, args.data());
    if (benchmark::ReportUnrecognizedArguments(count, args.data())) return 1;
    int repetitions = 3;
    for (int i = 1; i < argc; ++i) {
        if (std::strncmp(argv[i], "--benchmark_repetitions=", 24) == 0) repetitions = std::atoi(argv[i] + 24);
    }

    World world;
    g_world = &world;
    setup(world);
    registerAll(world, repetitions > 0 ? repetitions : 1);
    Reporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    summary(reporter.best);
    teardown(world);
    benchmark::Shutdown();
    return 0;
}
