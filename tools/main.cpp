// kesdb: command-line client of the kesDBM library, for whoever prepares a database (a
// device-image builder) and for a developer on the device. It makes databases, imports
// and exports their tree as JSON, reads and writes settings by path, copies value sets,
// prints the tree, and takes and releases component locks; all through the library's
// exported calls. It also finds and clears the sessions and locks that ended processes left
// in the shared tables (orphans.cpp). "kesdb --help" and the manual page kesdb(1) describe every command.
//
// This file: the command line. Options may stand before or after the command; "--" ends
// them (so a value such as "--x" can be set). Numbers such as "-5" are arguments, and so
// is "-" (standard input or output).
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <map>
#include <string>
#include <vector>

#include "commands.hpp"
#include "common.hpp"
#include "database.hpp"
#include "edit.hpp"
#include "migrate.hpp"

namespace kesdb {
namespace {

const char kHelp[] =
    "usage: kesdb [-d DIR] COMMAND [ARGUMENTS] [OPTIONS]\n"
    "\n"
    "Commands:\n"
    "  create DIR [--files] [--size BYTES] [--hook LINE]... [--from FILE]\n"
    "             [--install-dir PATH] [--target-lib-dir PATH]\n"
    "      Make a database in DIR (which must not exist, or be an empty directory): its\n"
    "      media, media.conf, hook.conf, the descriptor kesdb.conf and the root node \"/\".\n"
    "      By default the four kinds of record share one file, medium.bin, reached through\n"
    "      the built-in medium; --files keeps them in components.med, values.med,\n"
    "      constraints.med and strings.med through libkesdrv_file.so. --size: bytes of\n"
    "      each medium file (default 1048576, at least 4096). --hook \"LIB PRESET POSTSET\n"
    "      PREGET POSTGET\": one hook library per option, hook indexes 1, 2, ... in order;\n"
    "      NULL for a function it lacks; LIB without '/' is taken from the library\n"
    "      directory. --from FILE: import a description as part of the creation: DIR\n"
    "      appears only when everything succeeded, and nothing is left when it fails.\n"
    "      For a database prepared for another place or machine (a device image):\n"
    "      --install-dir PATH, the directory it will have there, and --target-lib-dir\n"
    "      PATH, where the driver and hook libraries are there; media.conf and hook.conf\n"
    "      then name those, hooks of --target-lib-dir are not loaded here, and no table\n"
    "      is left in DIR.\n"
    "  import FILE|-\n"
    "      Build the tree of a description below the root of an empty database. All or\n"
    "      nothing: when it fails half-way the media are put back as they were.\n"
    "  import --merge FILE|-\n"
    "      Write the current, default or factory values of the leaves a partial\n"
    "      description names; every path and value is checked first, all or nothing.\n"
    "  export [--path PATH] [FILE|-]\n"
    "      Write the tree (or the component at PATH inside its ancestors) as a\n"
    "      description to FILE or standard output; importing it again and exporting\n"
    "      gives the same bytes. An argument naming a tree component is the PATH.\n"
    "  migrate FILE [--check] [--size BYTES]\n"
    "      Bring the database to the structure of the description FILE, keeping each\n"
    "      current value the new leaf accepts (else its new default); one line per leaf\n"
    "      reset, added or dropped. --check: the report only. All or nothing, also when\n"
    "      killed; refused while another process has the database open.\n"
    "  add PATH [--type T [--size N] [--value V] [--range MIN MAX STEP | --enum A,B,...]]\n"
    "      Add a leaf (a node without --type) below an existing node.\n"
    "  delete PATH\n"
    "      Delete a leaf or a node with everything below it.\n"
    "  factory-reset [PATH]\n"
    "      Factory values to default values to current values below PATH, in one step.\n"
    "  get PATH [--default | --factory]\n"
    "      Print a leaf's current (default, factory) value by its type: numbers in decimal,\n"
    "      String as text, Generic as hex digit pairs.\n"
    "  set PATH VALUE [--default | --factory]\n"
    "      Write a leaf's current (default, factory) value. The text must parse for the\n"
    "      leaf's type (integers in decimal or 0x hex; nan, inf, -inf for floating point)\n"
    "      and lie in its range; the library then applies the constraint and the hooks.\n"
    "  reset [PATH]\n"
    "      Copy default values to current values below PATH (default: the whole tree),\n"
    "      through the leaves' hooks.\n"
    "  factory-to-default [PATH]\n"
    "      Copy factory values to default values below PATH (default: the whole tree).\n"
    "  print [PATH]\n"
    "      Print the tree, or the subtree at PATH, as the library prints it.\n"
    "  lock PATH [--shared] [--try]\n"
    "      Lock a component: exclusive unless --shared; wait until the lock is free unless\n"
    "      --try. The lock stays in the lock table after the tool ends, until unlocked.\n"
    "  unlock PATH\n"
    "      Release a lock on a component.\n"
    "  locks\n"
    "      Show the component locks of the lock table (entry:key, in hexadecimal).\n"
    "  orphans [--clear [--closed]] [--session-table FILE] [--lock-table FILE]\n"
    "      List the sessions whose process ended without closing them (killed, crashed)\n"
    "      with the locks they hold, and the locks whose session is closed (such as those\n"
    "      \"lock\" leaves). --clear removes the sessions and locks of ended processes and\n"
    "      wakes the processes waiting for those locks; --closed also removes the locks of\n"
    "      closed sessions. Sessions of running processes and their locks are never\n"
    "      touched. The tables are those of DIR, or the files given (then -d is not needed).\n"
    "  help\n"
    "      This text (also -h, --help).\n"
    "\n"
    "Options for every command:\n"
    "  -d DIR, --dir DIR   the database directory (create also takes it as its argument)\n"
    "  --lib-dir DIR       directory of the driver and hook libraries (default: $KESDB_LIB_DIR,\n"
    "                      else the installed ../lib/kesdbm beside the kesdb program, else\n"
    "                      ../lib beside it)\n"
    "\n"
    "Paths are written /net/port; / is the root.\n"
    "\n"
    "Description (JSON): {\"children\": [COMPONENT, ...]}\n"
    "  node: {\"name\": N, \"children\": [COMPONENT, ...]}\n"
    "  leaf: {\"name\": N, \"type\": T, \"size\": S, \"current\": V, \"default\": V, \"factory\": V,\n"
    "         \"range\": {\"min\": V, \"max\": V, \"step\": V} or \"enum\": [V, ...], \"hook\": H}\n"
    "  T: Sint8 Sint16 Sint32 Sint64 Uint8 Uint16 Uint32 Uint64 Float32 Float64 (V a JSON\n"
    "  number), String (V text; S bytes with the NUL, default the longest text + 1) or\n"
    "  Generic (V hex digit pairs; S bytes, default the longest value). \"default\" and\n"
    "  \"factory\" default to \"current\". A range or enumeration (numeric leaves only) guards\n"
    "  all three values; \"step\" 0 or missing means none. H: hook index, 0 for none.\n"
    "  Names: 1 to 254 bytes, no '/', unique among siblings; a node's name may not begin\n"
    "  a later sibling's name (the path search would stop at the node).\n"
    "\n"
    "Environment:\n"
    "  KESDB_DBTABLE   database table (default DIR/db.tbl)\n"
    "  SIM_BYTE_ORDER  byte-order rule of the library (default here BIG_ENDIAN, the order in\n"
    "                  which the free lists are read back on this host and on the target)\n"
    "  KESDB_LIB_DIR   library directory (see --lib-dir)\n"
    "\n"
    "Exit status: 0 success, 1 usage error, 2 data or library error, 3 no such path,\n"
    "4 value refused by its constraint or hook, 5 database busy, 130 interrupted.\n"
    "Library errors are shown with their code and name, as \"66 KESDB_ERR_CSTRT_BELOWMIN\".\n";

struct OptionSpec {
    const char* name;
    int takesValue;  // how many values follow the option (0 for a flag)
};

struct CommandSpec {
    const char* name;
    std::vector<OptionSpec> options;
    size_t minArgs, maxArgs;
};

const std::vector<CommandSpec> kCommands = {
    {"create",
     {{"--files", false},
      {"--size", true},
      {"--hook", true},
      {"--from", true},
      {"--install-dir", true},
      {"--target-lib-dir", true}},
     0,
     1},
    {"import", {{"--merge", false}}, 1, 1},
    {"export", {{"--path", true}}, 0, 1},
    {"get", {{"--default", false}, {"--factory", false}}, 1, 1},
    {"set", {{"--default", false}, {"--factory", false}}, 2, 2},
    {"reset", {}, 0, 1},
    {"factory-to-default", {}, 0, 1},
    {"print", {}, 0, 1},
    {"lock", {{"--shared", false}, {"--try", false}}, 1, 1},
    {"unlock", {}, 1, 1},
    {"locks", {}, 0, 0},
    {"orphans", {{"--clear", false}, {"--closed", false}, {"--session-table", true}, {"--lock-table", true}}, 0, 0},
    {"migrate", {{"--check", false}, {"--size", true}}, 1, 1},
    {"add", {{"--type", true}, {"--size", true}, {"--value", true}, {"--range", 3}, {"--enum", true}}, 1, 1},
    {"delete", {}, 1, 1},
    {"factory-reset", {}, 0, 1},
    {"help", {}, 0, 1},
};

struct CommandLine {
    std::string dir;
    bool help = false;
    const CommandSpec* command = nullptr;
    std::vector<std::string> args;
    std::map<std::string, std::vector<std::string>> options;

    bool has(const char* name) const { return options.count(name) != 0; }
};

[[noreturn]] void usageError(const std::string& what) {
    fail(what + "\nRun 'kesdb --help' for the commands.", kExitUsage);
}

const CommandSpec* findCommand(const std::string& name) {
    for (const CommandSpec& c : kCommands)
        if (name == c.name) return &c;
    return nullptr;
}

CommandLine parse(const std::vector<std::string>& argv) {
    CommandLine cl;
    bool optionsEnded = false;
    for (size_t i = 0; i < argv.size(); ++i) {
        const std::string& a = argv[i];
        auto value = [&](const std::string& option, size_t eq) -> std::string {
            if (eq != std::string::npos) return a.substr(eq + 1);
            if (i + 1 >= argv.size()) usageError(option + " needs a value");
            return argv[++i];
        };
        if (optionsEnded || a.empty() || a == "-" || a[0] != '-' || (a.size() > 1 && a[1] != '-' && a != "-d" && a != "-h")) {
            // An argument ("-5" too): the command first, then its arguments.
            if (!cl.command) {
                cl.command = findCommand(a);
                if (!cl.command) usageError("unknown command '" + a + "'");
            } else {
                cl.args.push_back(a);
            }
            continue;
        }
        if (a == "--") {
            optionsEnded = true;
            continue;
        }
        const size_t eq = a.find('=');
        const std::string name = a.substr(0, eq);
        if (name == "-h" || name == "--help") {
            cl.help = true;
        } else if (name == "-d" || name == "--dir") {
            cl.dir = value(name, eq);
        } else if (name == "--lib-dir") {
            setLibDir(value(name, eq));
        } else {
            const OptionSpec* option = nullptr;
            if (cl.command)
                for (const OptionSpec& o : cl.command->options)
                    if (name == o.name) option = &o;
            if (!option) usageError((cl.command ? std::string(cl.command->name) + ": " : "") + "unknown option " + name);
            if (!option->takesValue && eq != std::string::npos) usageError(name + " takes no value");
            cl.options[name].push_back(option->takesValue ? value(name, eq) : "");
            for (int more = 1; more < option->takesValue; ++more) {
                if (i + 1 >= argv.size()) usageError(name + " needs " + std::to_string(option->takesValue) + " values");
                cl.options[name].push_back(argv[++i]);
            }
        }
    }
    return cl;
}

uint32_t sizeOption(const std::string& text) {
    char* end = nullptr;
    errno = 0;
    unsigned long long n = std::strtoull(text.c_str(), &end, 10);
    if (text.empty() || text[0] == '-' || *end != '\0' || errno != 0 || n > 0xFFFFFFF0ull)
        usageError("--size " + text + " is not a size in bytes");
    return static_cast<uint32_t>(n);
}

int run(const std::vector<std::string>& argv) {
    CommandLine cl = parse(argv);
    if (cl.help || (cl.command && std::string(cl.command->name) == "help")) {
        std::fputs(kHelp, stdout);
        return kExitOk;
    }
    if (!cl.command) usageError("no command");
    const std::string cmd = cl.command->name;
    if (cl.args.size() < cl.command->minArgs || cl.args.size() > cl.command->maxArgs)
        usageError(cmd + ": wrong number of arguments");
    const std::string arg0 = cl.args.empty() ? "" : cl.args[0];

    if (cmd == "create") {
        CreateOptions o;
        o.dir = !arg0.empty() ? arg0 : cl.dir;
        if (o.dir.empty()) usageError("create needs a directory");
        if (!arg0.empty() && !cl.dir.empty() && cl.dir != arg0) usageError("create: two directories given");
        o.fourFiles = cl.has("--files");
        if (cl.has("--size")) o.size = sizeOption(cl.options["--size"].back());
        if (cl.has("--hook")) o.hooks = cl.options["--hook"];
        if (cl.has("--from")) o.from = cl.options["--from"].back();
        if (cl.has("--install-dir")) o.installDir = cl.options["--install-dir"].back();
        if (cl.has("--target-lib-dir")) o.targetLibDir = cl.options["--target-lib-dir"].back();
        return cmdCreate(o);
    }
    if (cmd == "orphans") {
        OrphanOptions o;
        o.clear = cl.has("--clear");
        o.closedLocks = cl.has("--closed");
        if (o.closedLocks && !o.clear) usageError("orphans: --closed goes with --clear");
        if (!cl.dir.empty()) {
            const TablePaths paths = tablePaths(cl.dir);
            o.sessionTable = paths.session;
            o.lockTable = paths.lock;
        }
        if (cl.has("--session-table")) o.sessionTable = cl.options["--session-table"].back();
        if (cl.has("--lock-table")) o.lockTable = cl.options["--lock-table"].back();
        if (o.sessionTable.empty() || o.lockTable.empty())
            usageError("orphans needs the database directory (-d DIR) or --session-table and --lock-table");
        return cmdOrphans(o);
    }
    if (cl.dir.empty()) usageError(cmd + " needs the database directory: -d DIR");
    if (cmd == "migrate")
        return cmdMigrate(cl.dir, arg0, cl.has("--check"), cl.has("--size") ? sizeOption(cl.options["--size"].back()) : 0);
    if (cmd == "import") return cl.has("--merge") ? cmdMerge(cl.dir, arg0) : cmdImport(cl.dir, arg0);
    if (cmd == "export") return cmdExport(cl.dir, arg0, cl.has("--path") ? cl.options["--path"].back() : "");
    if (cmd == "add") {
        if (cl.has("--range") && cl.has("--enum")) usageError("add: --range and --enum exclude each other");
        auto last = [&](const char* o) { return cl.has(o) ? cl.options[o].back() : std::string(); };
        AddOptions o{arg0, last("--type"), last("--size"), last("--value"), {}, last("--enum")};
        if (cl.has("--range")) o.range.assign(cl.options["--range"].end() - 3, cl.options["--range"].end());
        return cmdAdd(cl.dir, o);
    }
    if (cmd == "delete") return cmdDelete(cl.dir, arg0);
    if (cmd == "factory-reset") return cmdFactoryReset(cl.dir, arg0);
    if (cmd == "get") {
        if (cl.has("--default") && cl.has("--factory")) usageError("get: --default and --factory exclude each other");
        return cmdGet(cl.dir, arg0,
                      cl.has("--default")   ? ValueSet::Default
                      : cl.has("--factory") ? ValueSet::Factory
                                            : ValueSet::Current);
    }
    if (cmd == "set") {
        if (cl.has("--default") && cl.has("--factory")) usageError("set: --default and --factory exclude each other");
        return cmdSet(cl.dir, arg0, cl.args[1],
                      cl.has("--default")   ? ValueSet::Default
                      : cl.has("--factory") ? ValueSet::Factory
                                            : ValueSet::Current);
    }
    if (cmd == "reset") return cmdReset(cl.dir, arg0);
    if (cmd == "factory-to-default") return cmdFactoryToDefault(cl.dir, arg0);
    if (cmd == "print") return cmdPrint(cl.dir, arg0);
    if (cmd == "lock") return cmdLock(cl.dir, arg0, cl.has("--shared"), cl.has("--try"));
    if (cmd == "unlock") return cmdUnlock(cl.dir, arg0);
    return cmdLocks(cl.dir);
}

}  // namespace
}  // namespace kesdb

int main(int argc, char** argv) {
    kesdb::installSignalHandlers();
    // The free-list allocator writes its elements byte-reversed under "LITTLE_ENDIAN" (and,
    // when this is unset, on a little-endian host) but reads them back unconverted; in
    // BIG_ENDIAN they are written as read, which is right on this host and on the target.
    setenv("SIM_BYTE_ORDER", "BIG_ENDIAN", 0);
    try {
        return kesdb::run(std::vector<std::string>(argv + 1, argv + argc));
    } catch (const kesdb::Failure& f) {
        std::fflush(stdout);
        std::fprintf(stderr, "kesdb: %s\n", f.what.c_str());
        return f.code;
    } catch (const std::exception& e) {
        std::fflush(stdout);
        std::fprintf(stderr, "kesdb: %s\n", e.what());
        return kesdb::kExitData;
    }
}
