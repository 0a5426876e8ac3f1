// The kesdb tool as a script sees it: what each command prints on standard output and
// standard error, and the exit status it ends with.
#include <gtest/gtest.h>

#include <cstdlib>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "testkit.hpp"

namespace {

using kt::Outcome;

const std::string kHook = "libkeshook_sample.so policy_preSet log_postSet NULL NULL";

class Cli : public ::testing::Test {
protected:
    void SetUp() override { setenv("KESDB_DBTABLE", dir.file("db.tbl").c_str(), 1); }
    Outcome kesdb(const std::vector<std::string>& args) {
        return kt::finishProgram(dir, kt::spawnProgram(dir, "kesdb", args, ""), "");
    }
    Outcome db(std::vector<std::string> args) {
        args.insert(args.begin(), {"-d", "db"});
        return kesdb(args);
    }
    void create(const std::vector<std::string>& extra) {
        std::vector<std::string> args = {"create", "db"};
        args.insert(args.end(), extra.begin(), extra.end());
        const Outcome r = kesdb(args);
        ASSERT_EQ(r.code, 0) << r.err;
    }
    kt::TempDir dir;
};

// Rows run in order on one database made from the sample description; `out` and `err` are
// the whole stream when `exact`, else a part of it.
TEST_F(Cli, CommandsPrintWhatWasAskedAndExitByCause) {
    create({"--hook", kHook, "--from", std::string(KT_SOURCE_DIR) + "/examples/device.json"});
    struct Row {
        std::vector<std::string> args;
        int code;
        std::string out, err;
        bool exact = true;
    };
    const Row rows[] = {
        {{"show", "/net"}, 0, "/net/hostname=device-1\n/net/ip=192.168.1.20\n/net/port=8080\n/net/mode=1\n", ""},
        {{"show", "time/", "--factory"}, 0, "/time/zone=UTC\n/time/interval=300\n", ""},
        {{"show", "/net/port", "--json"}, 0, "{\n  \"/net/port\": 8080\n}\n", ""},
        {{"diff", "/net/port"}, 0, "/net/port=8080 (default 80)\n", ""},
        {{"diff", "/time", "--factory", "--json"}, 0, "\"/time/interval\": {\n    \"current\": 600,\n    \"factory\": 300", "", false},
        {{"describe", "/net/port"}, 0,
         "path=/net/port\ntype=Uint16\nsize=2\ncurrent=8080\ndefault=80\nfactory=80\nmin=1\nmax=65535\nstep=0\nhook=0\n", ""},
        {{"describe", "/net/mode"}, 0, "members=0, 1, 2\nhook=0\n", "", false},
        {{"describe", "/time/interval"}, 0, "/libkeshook_sample.so policy_preSet log_postSet NULL NULL\n", "", false},
        {{"describe", "/net/hostname", "--json"}, 0, "\"type\": \"String\",\n  \"size\": 32,\n  \"current\": \"device-1\"", "", false},
        {{"describe", "/net"}, 2, "", "kesdb: /net is a node, not a leaf; \"kesdb show /net\" lists its leaves\n"},
        {{"set", "/net/port", "0"}, 4, "", "kesdb: /net/port: 0 is below the minimum 1 (range 1..65535)\n"},
        {{"set", "/net/mode", "7", "--default"}, 4, "", "kesdb: /net/mode: 7 is not one of 0, 1, 2\n"},
        {{"set", "/time/interval", "5000"}, 4, "", "kesdb: /time/interval: refused by its hook (result 1)\n"},
        {{"set", "/net/port", "70000"}, 2, "", "out of range for Uint16", false},
        // The sample postSet hook prints a line: a diagnostic, kept off standard output.
        {{"set", "/time/interval", "900"}, 0, "", "keshook set key ", false},
        {{"-q", "set", "/time/interval", "900"}, 0, "", ""},
        {{"get", "/time/interval"}, 0, "900\n", ""},
        {{"get", "/net/nothing"}, 3, "", "kesdb: unknown path /net/nothing\n"},
        {{"show", "/nothing"}, 3, "", "kesdb: unknown path /nothing\n"},
        {{"lock", "/net/port", "--try"}, 0, "", ""},
        {{"lock", "/net/port", "--try", "--shared"}, 5, "", "locked by session ", false},
        {{"locks"}, 0, "/net/port exclusive session ", "", false},
        {{"locks", "--json"}, 0, "\"mode\": \"exclusive\",", "", false},
        {{"show", "--bogus"}, 1, "", "kesdb: show: unknown option --bogus\nRun 'kesdb help show' for its usage.\n"},
        {{"describe"}, 1, "", "describe PATH [--json] [--no-hooks])", false},
        {{"--version"}, 0, "kesdb ", "", false},
    };
    for (const Row& row : rows) {
        const Outcome r = db(row.args);
        const std::string label = ::testing::PrintToString(row.args);
        EXPECT_EQ(r.code, row.code) << label << r.err;
        if (row.exact) {
            EXPECT_EQ(r.out, row.out) << label;
            EXPECT_EQ(r.err, row.err) << label;
        } else {
            EXPECT_NE((row.out.empty() ? r.err : r.out).find(row.out.empty() ? row.err : row.out), std::string::npos)
                << label << "\n" << r.out << r.err;
        }
    }
}

// Every command of the overview has a usage of its own, the same by "help CMD" and by
// "CMD --help", and the manual page names the command and each of its options.
TEST_F(Cli, EachCommandHasItsOwnUsageAndManualEntry) {
    const Outcome all = kesdb({"--help"});
    ASSERT_EQ(all.code, 0);
    const std::string manual = kt::readFile(std::string(KT_SOURCE_DIR) + "/tools/kesdb.1");
    auto escaped = [](const std::string& word) {
        std::string e;
        for (char c : word) e += c == '-' ? std::string("\\-") : std::string(1, c);
        return e;
    };
    // The first word of the manual's bold lines: the command entries among them.
    std::set<std::string> entries;
    std::istringstream page(manual);
    for (std::string line; std::getline(page, line);)
        if (line.rfind(".B", 0) == 0 && line.find(' ') != std::string::npos) {
            std::istringstream rest(line.substr(line.find(' ')));
            std::string first;
            rest >> first;
            entries.insert(first);
        }
    std::istringstream lines(all.out.substr(all.out.find("Commands:\n")));
    int commands = 0;
    for (std::string line; std::getline(lines, line) && line.rfind("Options", 0) != 0;) {
        if (line.size() < 3 || line[2] == ' ' || line[0] != ' ') continue;
        const std::string usage = line.substr(2), name = usage.substr(0, usage.find(' '));
        ++commands;
        const Outcome own = kesdb({"help", name});
        EXPECT_EQ(own.out.rfind("usage: kesdb [-d DIR] [-q] " + usage + "\n", 0), 0u) << own.out;
        EXPECT_EQ(own.out.find("Commands:"), std::string::npos) << name;
        EXPECT_EQ(kesdb({name, "--help"}).out, own.out) << name;
        EXPECT_TRUE(entries.count(escaped(name))) << name;
        std::istringstream words(usage);
        for (std::string w; words >> w;) {
            const std::string option = w.substr(w.find("--") == std::string::npos ? w.size() : w.find("--"));
            const std::string bare = option.substr(0, option.find_first_of("]| "));
            if (!bare.empty()) {
                EXPECT_NE(manual.find(escaped(bare)), std::string::npos) << name << " " << bare;
            }
        }
    }
    EXPECT_GE(commands, 16);
}

// Values are printed in a form that reads back to the same bits: setting every leaf to
// what show printed leaves the medium byte for byte as it was.
TEST_F(Cli, PrintedValuesReadBackUnchanged) {
    kt::writeFile(dir.file("f.json"), R"({"children":[
      {"name":"a","type":"Float32","current":0.1},{"name":"b","type":"Float32","current":3.4028234663852886e38},
      {"name":"c","type":"Float32","current":1.401298464324817e-45},{"name":"d","type":"Float64","current":0.30000000000000004},
      {"name":"e","type":"Float64","current":-4.9406564584124654e-324},{"name":"f","type":"Float64","current":"-inf"},
      {"name":"g","type":"Sint64","current":-9223372036854775808},{"name":"h","type":"Generic","current":"00ff7f"},
      {"name":"i","type":"String","current":"a b=c"}]})");
    create({"--from", "f.json"});
    const std::string before = kt::readFile(dir.file("db/medium.bin"));
    const Outcome shown = db({"show"});
    ASSERT_EQ(shown.code, 0) << shown.err;
    std::istringstream lines(shown.out);
    int leaves = 0;
    for (std::string line; std::getline(lines, line); ++leaves) {
        const size_t eq = line.find('=');
        const Outcome r = db({"set", line.substr(0, eq), "--", line.substr(eq + 1)});
        EXPECT_EQ(r.code, 0) << line << r.err;
    }
    EXPECT_EQ(leaves, 9);
    EXPECT_TRUE(kt::readFile(dir.file("db/medium.bin")) == before);
    EXPECT_EQ(db({"show"}).out, shown.out);
}

}  // namespace
