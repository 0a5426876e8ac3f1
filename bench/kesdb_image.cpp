// Preparing a device image: how long `kesdb create --from` takes to build a database from a
// description, `kesdb export` to write it back, `kesdb migrate` to bring it to a description
// in which every tenth leaf has another default and range, and `kesdb import --merge` to write
// a new current value into every leaf, against SQLite creating and filling a table of the same
// rows in one durable transaction (journal WAL, synchronous=FULL) and `sqlite3 .dump` writing
// it back (migrate and merge are judged against the create-and-fill). Every step is a process of its own, as an image builder
// runs it; the figures are wall-clock times.
//
//   build/bin/kesdb_image [--leaves N] [--rounds R] [--kesdb PATH] [--sqlite3 PATH] [--dir DIR]
//
// The tree: N/10 nodes "n0001", "n0002", ... below the root, each with ten Uint32 leaves "l01"
// to "l10" with a range (fixed-width names, since the path search needs names that are not
// prefixes of their siblings'). The table: one row per leaf (path, type, the three values and
// the range). The six steps run in turn, round after round, so that both meet the same load;
// each ratio is the median over the rounds, and the targets are judged on it.
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

extern char** environ;

namespace {

namespace fs = std::filesystem;

constexpr double kTarget = 2.0;  // kesdb's time at most this many times SQLite's

[[noreturn]] void die(const std::string& what) {
    std::fprintf(stderr, "kesdb_image: %s\n", what.c_str());
    std::exit(1);
}

double now() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

// Runs a program with standard input and output redirected to files ("" for /dev/null);
// its wall-clock time in seconds. A failure ends the benchmark.
double timed(const std::vector<std::string>& args, const std::string& in, const std::string& out) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, in.empty() ? "/dev/null" : in.c_str(), O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, out.empty() ? "/dev/null" : out.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0644);
    std::vector<char*> argv;
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    const double start = now();
    pid_t pid = 0;
    const int rc = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) die("cannot run " + args[0] + ": " + std::strerror(rc));
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) die("waitpid: " + std::string(std::strerror(errno)));
    }
    const double seconds = now() - start;
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        std::string line;
        for (const std::string& a : args) line += " " + a;
        die("failed:" + line);
    }
    return seconds;
}

std::string nodeName(int i) {
    char b[16];
    std::snprintf(b, sizeof b, "n%04d", i);
    return b;
}

std::string leafName(int j) {
    char b[16];
    std::snprintf(b, sizeof b, "l%02d", j);
    return b;
}

// The description and the SQL script of the same rows. `changed`: every tenth leaf gets another
// default and a narrower range (the description a firmware upgrade brings), no script.
void writeInputs(int nodes, const std::string& description, const std::string& script, bool changed = false) {
    std::ofstream d(description), s(script.empty() ? "/dev/null" : script);
    s << "PRAGMA journal_mode=WAL;\nPRAGMA synchronous=FULL;\nBEGIN;\n"
         "CREATE TABLE leaf(path TEXT PRIMARY KEY, type TEXT, cur INTEGER, def INTEGER, fac INTEGER,"
         " min INTEGER, max INTEGER, step INTEGER);\n";
    d << "{\"children\": [\n";
    for (int i = 1; i <= nodes; ++i) {
        d << (i > 1 ? ",\n" : "") << " {\"name\": \"" << nodeName(i) << "\", \"children\": [";
        for (int j = 1; j <= 10; ++j) {
            const unsigned value = static_cast<unsigned>(i) * 10u + static_cast<unsigned>(j);
            const bool other = changed && j == 10;
            d << (j > 1 ? ", " : "") << "\n  {\"name\": \"" << leafName(j) << "\", \"type\": \"Uint32\", \"current\": "
              << (other ? value + 1 : value) << ", \"range\": {\"min\": 0, \"max\": " << (other ? 500000 : 1000000)
              << ", \"step\": 1}}";
            s << "INSERT INTO leaf VALUES('/" << nodeName(i) << "/" << leafName(j) << "','Uint32'," << value << ","
              << value << "," << value << ",0,1000000,1);\n";
        }
        d << "]}";
    }
    d << "\n]}\n";
    s << "COMMIT;\n";
    if (!d || !s) die("cannot write the inputs");
}

// A partial description for import --merge: a new current value for every leaf.
void writeMerge(int nodes, const std::string& file) {
    std::ofstream m(file);
    m << "{\"children\": [\n";
    for (int i = 1; i <= nodes; ++i) {
        m << (i > 1 ? ",\n" : "") << " {\"name\": \"" << nodeName(i) << "\", \"children\": [";
        for (int j = 1; j <= 10; ++j)
            m << (j > 1 ? ", " : "") << "{\"name\": \"" << leafName(j) << "\", \"current\": " << i * 10 + j + 7 << "}";
        m << "]}";
    }
    m << "\n]}\n";
    if (!m) die("cannot write the merge file");
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    const size_t n = v.size();
    return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

std::string besideMe(const char* program) {
    char buf[PATH_MAX];
    const ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
    if (n <= 0) return program;
    buf[n] = '\0';
    return (fs::path(buf).parent_path() / program).string();
}

size_t countOf(const std::string& file, const std::string& what) {
    std::ifstream in(file);
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

}  // namespace

int main(int argc, char** argv) {
    int leaves = 10000, rounds = 7;
    std::string kesdb = besideMe("kesdb"), sqlite3 = "sqlite3";
    std::string base = std::getenv("TMPDIR") ? std::getenv("TMPDIR") : "/tmp";
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (i + 1 >= argc)
            die("usage: kesdb_image [--leaves N] [--rounds R] [--kesdb PATH] [--sqlite3 PATH] [--dir DIR]");
        const std::string v = argv[++i];
        if (a == "--leaves") leaves = std::atoi(v.c_str());
        else if (a == "--rounds") rounds = std::atoi(v.c_str());
        else if (a == "--kesdb") kesdb = v;
        else if (a == "--sqlite3") sqlite3 = v;
        else if (a == "--dir") base = v;
        else die("unknown option " + a);
    }
    if (leaves < 10 || leaves % 10 != 0 || leaves > 99990) die("--leaves: a multiple of 10 from 10 to 99990");
    if (rounds < 1) die("--rounds: at least 1");
    const int nodes = leaves / 10;

    std::string tmpl = base + "/kesdb_image-XXXXXX";
    if (!mkdtemp(tmpl.data())) die("cannot make a directory in " + base);
    const fs::path dir = tmpl;
    const std::string description = dir / "tree.json", script = dir / "fill.sql", sqliteDb = dir / "table.db",
                      kesdbDir = dir / "db", exported = dir / "export.json", upgrade = dir / "upgrade.json",
                      merge = dir / "merge.json";
    writeInputs(nodes, description, script);
    writeInputs(nodes, upgrade, "", true);
    writeMerge(nodes, merge);
    // Room for the records (about 160 bytes a leaf) and the appended values and names.
    const std::string size = std::to_string(std::max(1u << 20, static_cast<unsigned>(leaves) * 256u));

    std::vector<double> create, fill, exportTime, dump, migrate, merged, createRatio, exportRatio, migrateRatio,
        mergeRatio;
    for (int r = 0; r < rounds; ++r) {
        fs::remove_all(kesdbDir);
        for (const char* suffix : {"", "-wal", "-shm"}) fs::remove(sqliteDb + suffix);
        fill.push_back(timed({sqlite3, sqliteDb}, script, ""));
        create.push_back(timed({kesdb, "create", kesdbDir, "--size", size, "--from", description}, "", ""));
        dump.push_back(timed({sqlite3, sqliteDb, ".dump"}, "", ""));
        exportTime.push_back(timed({kesdb, "-d", kesdbDir, "export"}, "", ""));
        createRatio.push_back(create.back() / fill.back());
        exportRatio.push_back(exportTime.back() / dump.back());
        migrate.push_back(timed({kesdb, "-d", kesdbDir, "migrate", upgrade}, "", ""));
        merged.push_back(timed({kesdb, "-d", kesdbDir, "import", "--merge", merge}, "", ""));
        migrateRatio.push_back(migrate.back() / fill.back());
        mergeRatio.push_back(merged.back() / fill.back());
    }
    // The database holds the whole tree.
    timed({kesdb, "-d", kesdbDir, "export", exported}, "", "");
    const size_t found = countOf(exported, "\"type\": \"Uint32\"");
    if (found != static_cast<size_t>(leaves))
        die("the export holds " + std::to_string(found) + " leaves, not " + std::to_string(leaves));

    std::printf("image preparation: %d leaves (%d nodes of ten Uint32 leaves with a range), %d rounds, medians\n",
                leaves, nodes, rounds);
    std::printf("  %-48s %8.3f s\n", "kesdb create --from", median(create));
    std::printf("  %-48s %8.3f s\n", "SQLite create and fill (WAL, synchronous=FULL)", median(fill));
    std::printf("  %-48s %8.3f s\n", "kesdb export", median(exportTime));
    std::printf("  %-48s %8.3f s\n", "sqlite3 .dump", median(dump));
    std::printf("  %-48s %8.3f s\n", "kesdb migrate (every tenth leaf changed)", median(migrate));
    std::printf("  %-48s %8.3f s\n", "kesdb import --merge (every leaf)", median(merged));
    bool met = true;
    auto verdict = [&](const char* what, double ratio) {
        const bool ok = ratio <= kTarget;
        met = met && ok;
        std::printf("  %-48s %8.2f  (target <= %.0f: %s)\n", what, ratio, kTarget, ok ? "met" : "NOT met");
    };
    verdict("create --from / SQLite create and fill", median(createRatio));
    verdict("export / sqlite3 .dump", median(exportRatio));
    verdict("migrate / SQLite create and fill", median(migrateRatio));
    verdict("import --merge / SQLite create and fill", median(mergeRatio));
    fs::remove_all(dir);
    return met ? 0 : 3;
}
