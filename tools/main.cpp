// kesdb: command-line client of the kesDBM library, for whoever prepares a database (a
// device-image builder) and for a developer on the device. It makes databases, imports
// and exports their tree as JSON, reads and writes settings by path, copies value sets,
// prints the tree, and takes and releases component locks; all through the library's
// exported calls. It also finds and clears the sessions and locks that ended processes left
// in the shared tables (orphans.cpp). "kesdb --help" and the manual page kesdb(1) describe every command.
//
// This file: the command line. Every command is one entry of kCommands (name, usage,
// description, options, handler), from which the parser, "kesdb --help", "kesdb help CMD"
// and "kesdb CMD --help" are made, so they cannot disagree. Options may stand before or
// after the command; "--" ends them (so a value such as "--x" can be set). Numbers such as
// "-5" are arguments, and so is "-" (standard input or output).
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <map>
#include <string>
#include <vector>

#include "commands.hpp"
#include "common.hpp"
#include "database.hpp"
#include "sizing.hpp"
#include "edit.hpp"
#include "lock_wait.hpp"
#include "migrate.hpp"

namespace kesdb {
namespace {

struct CommandLine;
using Handler = int (*)(CommandLine&);

struct OptionSpec {
    const char* name;
    int takesValue;  // how many values follow the option (0 for a flag)
};

struct CommandSpec {
    const char* name;
    const char* usage;  // what follows the name
    const char* text;   // what it does: lines of at most 80 columns
    std::vector<OptionSpec> options;
    size_t minArgs, maxArgs;
    Handler run;
};

struct CommandLine {
    std::string dir;
    bool help = false, version = false, quiet = false;
    const CommandSpec* command = nullptr;
    std::vector<std::string> args;
    std::map<std::string, std::vector<std::string>> options;

    bool has(const char* name) const { return options.count(name) != 0; }
    std::string last(const char* name) const { return has(name) ? options.at(name).back() : std::string(); }
    std::string arg(size_t i) const { return i < args.size() ? args[i] : std::string(); }
};

[[noreturn]] void usageError(const std::string& what, const std::string& command = "") {
    fail(what + "\nRun " + (command.empty() ? "'kesdb --help' for the commands." : "'kesdb help " + command + "' for its usage."),
         kExitUsage);
}

uint32_t sizeOption(const std::string& text) {
    char* end = nullptr;
    errno = 0;
    unsigned long long n = std::strtoull(text.c_str(), &end, 10);
    if (text.empty() || text[0] == '-' || *end != '\0' || errno != 0 || n > 0xFFFFFFF0ull)
        usageError("--size " + text + " is not a size in bytes", "create");
    return static_cast<uint32_t>(n);
}

// The directory of a command that works on a database: -d DIR, else $KESDB_DIR.
std::string dirOf(const CommandLine& cl) {
    const std::string dir = defaultDir(cl.dir);
    if (dir.empty())
        usageError(std::string(cl.command->name) + " needs the database directory: -d DIR (or KESDB_DIR)", cl.command->name);
    return dir;
}

// --wait SECONDS, or `otherwise` when it is not given.
double waitOf(const CommandLine& cl, double otherwise) {
    if (!cl.has("--wait")) return otherwise;
    const std::string text = cl.last("--wait");
    char* end = nullptr;
    errno = 0;
    const double n = std::strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || errno != 0 || !(n >= 0) || n > 1e9)
        usageError("--wait " + text + " is not a number of seconds (0 or more)", cl.command->name);
    return n;
}
bool noHooks(const CommandLine& cl) { return cl.has("--no-hooks"); }

// --default or --factory (exclusive), else the current value.
ValueSet valueSet(const CommandLine& cl) {
    if (cl.has("--default") && cl.has("--factory"))
        usageError(std::string(cl.command->name) + ": --default and --factory exclude each other", cl.command->name);
    return cl.has("--default") ? ValueSet::Default : cl.has("--factory") ? ValueSet::Factory : ValueSet::Current;
}

int runCreate(CommandLine& cl) {
    CreateOptions o;
    const std::string arg0 = cl.arg(0);
    o.dir = !arg0.empty() ? arg0 : cl.dir;
    if (o.dir.empty()) usageError("create needs a directory", "create");
    if (!arg0.empty() && !cl.dir.empty() && cl.dir != arg0) usageError("create: two directories given", "create");
    o.fourFiles = cl.has("--files");
    if (cl.has("--size")) o.size = sizeOption(cl.last("--size"));
    if (cl.has("--hook")) o.hooks = cl.options["--hook"];
    o.from = cl.last("--from");
    o.installDir = cl.last("--install-dir");
    o.targetLibDir = cl.last("--target-lib-dir");
    return cmdCreate(o);
}

int runOrphans(CommandLine& cl) {
    OrphanOptions o;
    o.clear = cl.has("--clear");
    o.closedLocks = cl.has("--closed");
    if (o.closedLocks && !o.clear) usageError("orphans: --closed goes with --clear", "orphans");
    const std::string dir = defaultDir(cl.dir);
    if (!dir.empty() && !(cl.has("--session-table") && cl.has("--lock-table"))) {
        const TablePaths paths = tablePaths(dir);
        o.sessionTable = paths.session;
        o.lockTable = paths.lock;
    }
    if (cl.has("--session-table")) o.sessionTable = cl.last("--session-table");
    if (cl.has("--lock-table")) o.lockTable = cl.last("--lock-table");
    if (o.sessionTable.empty() || o.lockTable.empty())
        usageError("orphans needs the database directory (-d DIR) or --session-table and --lock-table", "orphans");
    return cmdOrphans(o);
}

int runHelp(CommandLine& cl);

const std::vector<CommandSpec> kCommands = {
    {"create", "DIR [--files] [--size BYTES] [--hook LINE]... [--from FILE] [--install-dir PATH] [--target-lib-dir PATH]",
     "Make a database in DIR (which must not exist, or be an empty directory): its\n"
     "media, media.conf, hook.conf, the descriptor kesdb.conf and the root node \"/\".\n"
     "By default the four kinds of record share one file, medium.bin, reached through\n"
     "the built-in medium; --files keeps them in components.med, values.med,\n"
     "constraints.med and strings.med through libkesdrv_file.so. --size: bytes of\n"
     "each medium file at the least (default 1048576, at least 4096); with --from,\n"
     "twice what the description's records take plus 4096 when that is more (grow\n"
     "enlarges the media later). A killed create's leftover directory beside DIR is\n"
     "removed by the next create of DIR. --hook \"LIB PRESET POSTSET\n"
     "PREGET POSTGET\": one hook library per option, hook indexes 1, 2, ... in order;\n"
     "NULL for a function it lacks; LIB without '/' is taken from the library\n"
     "directory. --from FILE: import a description as part of the creation: DIR\n"
     "appears only when everything succeeded, and nothing is left when it fails.\n"
     "For a database prepared for another place or machine (a device image):\n"
     "--install-dir PATH, the directory it will have there, and --target-lib-dir\n"
     "PATH, where the driver and hook libraries are there; media.conf and hook.conf\n"
     "then name those, hooks of --target-lib-dir are not loaded here, and no table\n"
     "is left in DIR. Example, from the sample description and its sample hook:\n"
     "  kesdb create db --hook \"libkeshook_sample.so policy_preSet log_postSet NULL NULL\" \\\n"
     "        --from examples/device.json",
     {{"--files", false},
      {"--size", true},
      {"--hook", true},
      {"--from", true},
      {"--install-dir", true},
      {"--target-lib-dir", true}},
     0, 1, runCreate},
    {"import", "[--merge] FILE|- [--wait SECONDS]",
     "Build the tree of a description below the root of an empty database. All or\n"
     "nothing: when it fails half-way the media are put back as they were. --merge:\n"
     "write the current, default or factory values of the leaves a partial\n"
     "description names (an export --path gives one) into an existing database; every\n"
     "path and value is checked first, then all are written through the hooks, or none.",
     {{"--merge", false}, {"--wait", true}}, 1, 1,
     [](CommandLine& cl) {
         const double wait = waitOf(cl, kDefaultWait);
         return cl.has("--merge") ? cmdMerge(dirOf(cl), cl.arg(0), wait) : cmdImport(dirOf(cl), cl.arg(0), wait);
     }},
    {"export", "[--path PATH] [FILE|-] [--no-hooks]",
     "Write the tree (or the component at PATH inside its ancestors) as a description\n"
     "to FILE or standard output; importing it again and exporting gives the same\n"
     "bytes. An argument that names a component of the tree is taken as the PATH.",
     {{"--path", true}, {"--no-hooks", false}}, 0, 1,
     [](CommandLine& cl) { return cmdExport(dirOf(cl), cl.arg(0), cl.last("--path"), noHooks(cl)); }},
    {"migrate", "FILE [--check] [--size BYTES]",
     "Bring the database to the structure of the description FILE (a new firmware's),\n"
     "keeping each current value the new leaf accepts (same or exactly convertible\n"
     "type, fitting size, passing range or enumeration), else its new default. One\n"
     "line per leaf reset, added or dropped, with the reason. --check: the report\n"
     "only. Built beside DIR and exchanged with it: all or nothing, also when killed.\n"
     "Refused (5) while a process has the database open or a lock is held. --size:\n"
     "bytes of each new medium file (default: as the old ones).",
     {{"--check", false}, {"--size", true}}, 1, 1,
     [](CommandLine& cl) {
         const uint32_t size = cl.has("--size") ? sizeOption(cl.last("--size")) : 0;
         return cmdMigrate(dirOf(cl), cl.arg(0), cl.has("--check"), size);
     }},
    {"add", "PATH [--type T [--size N] [--value V] [--range MIN MAX STEP | --enum A,B,...]] [--wait SECONDS]",
     "Add a leaf of type T (without --type: an empty node) below an existing node;\n"
     "--value sets all three values (default 0, the range minimum, the first member\n"
     "or empty).",
     {{"--type", 1}, {"--size", 1}, {"--value", 1}, {"--range", 3}, {"--enum", 1}, {"--wait", 1}}, 1, 1,
     [](CommandLine& cl) {
         if (cl.has("--range") && cl.has("--enum")) usageError("add: --range and --enum exclude each other", "add");
         AddOptions o{cl.arg(0), cl.last("--type"), cl.last("--size"), cl.last("--value"), {}, cl.last("--enum")};
         if (cl.has("--range")) o.range.assign(cl.options["--range"].end() - 3, cl.options["--range"].end());
         return cmdAdd(dirOf(cl), o, waitOf(cl, kDefaultWait));
     }},
    {"delete", "PATH [--wait SECONDS]", "Delete a leaf, or a node with everything below it.", {{"--wait", true}}, 1, 1,
     [](CommandLine& cl) { return cmdDelete(dirOf(cl), cl.arg(0), waitOf(cl, kDefaultWait)); }},
    {"factory-reset", "[PATH] [--wait SECONDS]",
     "Copy factory values to default values and default values to current values\n"
     "below PATH (default: the whole tree), in one step.",
     {{"--wait", true}}, 0, 1,
     [](CommandLine& cl) { return cmdFactoryReset(dirOf(cl), cl.arg(0), waitOf(cl, kDefaultWait)); }},
    {"get", "PATH [--default | --factory] [--no-hooks]",
     "Print a leaf's current (default, factory) value by its type: numbers in decimal\n"
     "(floating point in the shortest form that reads back the same), String as\n"
     "text, Generic as hex digit pairs.",
     {{"--default", false}, {"--factory", false}, {"--no-hooks", false}}, 1, 1,
     [](CommandLine& cl) { return cmdGet(dirOf(cl), cl.arg(0), valueSet(cl), noHooks(cl)); }},
    {"set", "PATH VALUE [--default | --factory] [--wait SECONDS]",
     "Write a leaf's current (default, factory) value. The text must parse for the leaf's type\n"
     "(integers in decimal or 0x hex; nan, inf, -inf for floating point) and fit it;\n"
     "the library then applies the constraint and the hooks. A refusal names the\n"
     "rule (\"0 is below the minimum 1 (range 1..65535)\") and exits with 4.",
     {{"--default", false}, {"--factory", false}, {"--wait", true}}, 2, 2,
     [](CommandLine& cl) { return cmdSet(dirOf(cl), cl.arg(0), cl.arg(1), valueSet(cl), waitOf(cl, kDefaultWait)); }},
    {"show", "[PATH] [--default | --factory] [--json] [--no-hooks]",
     "Print every leaf at or below PATH (default: the whole tree) as PATH=VALUE, one\n"
     "line each, values as get prints them; the default or factory values with\n"
     "--default or --factory. --json: one object, path to value.",
     {{"--default", false}, {"--factory", false}, {"--json", false}, {"--no-hooks", false}}, 0, 1,
     [](CommandLine& cl) { return cmdShow(dirOf(cl), cl.arg(0), valueSet(cl), cl.has("--json"), noHooks(cl)); }},
    {"diff", "[PATH] [--factory] [--json] [--no-hooks]",
     "Print the leaves at or below PATH whose current value differs from the default\n"
     "(with --factory: the factory) value, as PATH=CURRENT (default DEFAULT).\n"
     "--json: one object, path to {\"current\": V, \"default\": V}.",
     {{"--factory", false}, {"--json", false}, {"--no-hooks", false}}, 0, 1,
     [](CommandLine& cl) { return cmdDiff(dirOf(cl), cl.arg(0), cl.has("--factory"), cl.has("--json"), noHooks(cl)); }},
    {"describe", "PATH [--json] [--no-hooks]",
     "Print what a leaf is, one NAME=VALUE line each: path, type, size, the current,\n"
     "default and factory values, the range (min, max, step) or the enumeration's\n"
     "members, and the hook (its index; when loaded, its library and functions as a\n"
     "hook.conf line). --json: the leaf as in a description, with its path.",
     {{"--json", false}, {"--no-hooks", false}}, 1, 1,
     [](CommandLine& cl) { return cmdDescribe(dirOf(cl), cl.arg(0), cl.has("--json"), noHooks(cl)); }},
    {"reset", "[PATH] [--wait SECONDS]",
     "Copy default values to current values below PATH (default: the whole tree),\n"
     "through the leaves' hooks; below a node, all of them or, when one is refused,\n"
     "none.",
     {{"--wait", true}}, 0, 1, [](CommandLine& cl) { return cmdReset(dirOf(cl), cl.arg(0), waitOf(cl, kDefaultWait)); }},
    {"factory-to-default", "[PATH] [--wait SECONDS]",
     "Copy factory values to default values below PATH (default: the whole tree);\n"
     "below a node, all of them or none.",
     {{"--wait", true}}, 0, 1,
     [](CommandLine& cl) { return cmdFactoryToDefault(dirOf(cl), cl.arg(0), waitOf(cl, kDefaultWait)); }},
    {"print", "[PATH] [--no-hooks]",
     "Print the tree, or the subtree at PATH, in the library's own debugging format\n"
     "(record keys and values; show and describe are meant for reading).",
     {{"--no-hooks", false}}, 0, 1, [](CommandLine& cl) { return cmdPrint(dirOf(cl), cl.arg(0), noHooks(cl)); }},
    {"lock", "PATH [--shared] [--try | --wait SECONDS]",
     "Lock a component: exclusive unless --shared; wait until the lock is free unless\n"
     "--try (fail at once) or --wait (fail after SECONDS); then exit 5, naming the\n"
     "holder. The lock stays in the lock table after the tool ends, until unlocked.",
     {{"--shared", false}, {"--try", false}, {"--wait", true}}, 1, 1,
     [](CommandLine& cl) {
         if (cl.has("--try") && cl.has("--wait")) usageError("lock: --try and --wait exclude each other", "lock");
         return cmdLock(dirOf(cl), cl.arg(0), cl.has("--shared"), cl.has("--try") ? 0 : waitOf(cl, -1));
     }},
    {"unlock", "PATH", "Release a lock on a component.", {}, 1, 1,
     [](CommandLine& cl) { return cmdUnlock(dirOf(cl), cl.arg(0)); }},
    {"locks", "[--json]",
     "List the component locks, one line each: path, mode (exclusive or shared), the\n"
     "session holding it and its process id, and whether that process is running,\n"
     "has ended, or the session is closed (as a \"lock\" leaves it).",
     {{"--json", false}}, 0, 0, [](CommandLine& cl) { return cmdLocks(dirOf(cl), cl.has("--json")); }},
    {"watch", "[PATH] [--json]",
     "Print each leaf below PATH (default: the whole tree) as it changes, in this or any\n"
     "other process, one PATH=VALUE line each (a deleted leaf: its path alone), until\n"
     "interrupted. --json: one JSON object a line, {\"path\": P, \"value\": V} or\n"
     "{\"path\": P, \"deleted\": true}.",
     {{"--json", false}}, 0, 1, [](CommandLine& cl) { return cmdWatch(dirOf(cl), cl.arg(0), cl.has("--json")); }},
    {"orphans", "[--clear [--closed]] [--session-table FILE] [--lock-table FILE]",
     "List the sessions whose process ended without closing them (killed, crashed)\n"
     "with the locks they hold, and the locks whose session is closed (such as those\n"
     "\"lock\" leaves). --clear removes the sessions and locks of ended processes and\n"
     "wakes the processes waiting for those locks; --closed also removes the locks of\n"
     "closed sessions. Sessions of running processes and their locks are never\n"
     "touched. The tables are those of DIR, or the files given (then -d is not needed).",
     {{"--clear", false}, {"--closed", false}, {"--session-table", true}, {"--lock-table", true}}, 0, 0,
     runOrphans},
    {"grow", "--size BYTES",
     "Enlarge every medium file of the database to BYTES in place: the new space joins\n"
     "the medium's free list, for later additions and migrations. Files already as\n"
     "large are left as they are. The root is locked meanwhile.",
     {{"--size", true}}, 0, 0,
     [](CommandLine& cl) {
         if (!cl.has("--size")) usageError("grow needs --size BYTES", "grow");
         return cmdGrow(dirOf(cl), sizeOption(cl.last("--size")));
     }},
    {"check", "[DIR]",
     "Verify the database in DIR (or -d DIR) without starting it, reading its media\n"
     "files only: tree links, loops, kinds, keys inside their media, value and name\n"
     "lengths inside their media, free lists ordered and apart from the records,\n"
     "constraint records. Lists each problem, one line each, and exits 2 when there\n"
     "is any, else prints one line and exits 0. Meant to run at boot before\n"
     "applications start: it takes time and memory bounded by the media's size.",
     {}, 0, 1,
     [](CommandLine& cl) {
         if (!cl.arg(0).empty() && !cl.dir.empty() && cl.arg(0) != cl.dir)
             usageError("check: two directories given", "check");
         return cmdCheck(cl.arg(0).empty() ? dirOf(cl) : cl.arg(0));
     }},
    {"help", "[COMMAND]", "The usage of every command, or of COMMAND alone (also -h, --help, COMMAND --help).",
     {}, 0, 1, runHelp},
};

const char kCommonOptions[] =
    "Options for every command:\n"
    "  -d DIR, --dir DIR   the database directory (default $KESDB_DIR; create also takes it\n"
    "                      as its argument)\n"
    "  -q, --quiet         drop the library's diagnostics (else they go to standard error)\n"
    "  --lib-dir DIR       directory of the driver and hook libraries (default: $KESDB_LIB_DIR,\n"
    "                      else the installed ../lib/kesdbm beside the kesdb program, else\n"
    "                      ../lib beside it)\n"
    "  -h, --help          usage; --version: the version\n";

const char kExitStatus[] =
    "Exit status: 0 success, 1 usage error, 2 data or library error, 3 no such path,\n"
    "4 refused by a constraint or a hook, 5 lock busy or wait timed out, 130 interrupted.\n";

const char kMore[] =
    "\n"
    "Paths are written /net/port; / is the root. Standard output carries only what a\n"
    "command prints; errors and the library's diagnostics go to standard error.\n"
    "\n"
    "Commands that change values (set, reset, factory-to-default, import) hold the exclusive\n"
    "lock of each component they change, waiting up to --wait SECONDS (default 10) for\n"
    "another holder; then they fail with status 5, naming the holder. Reads (get, show,\n"
    "diff, describe, export, print) leave nothing in DIR; --no-hooks starts the database\n"
    "without hooks (a device image's, whose hooks are built for the target).\n"
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
    "  KESDB_DIR       database directory (see -d)\n"
    "  KESDB_LIB_DIR   library directory (see --lib-dir)\n"
    "The database is started from its directory as applications start it (kesDBMInitDir):\n"
    "its table is DIR/db.tbl, its files are named relative to DIR, and KESDB_DBTABLE,\n"
    "KESDB_DEFMEDIA and SIM_BYTE_ORDER are not read.\n"
    "\n";

std::string indented(const char* text, const char* indent) {
    std::string out = indent;
    for (const char* c = text; *c; ++c) {
        out += *c;
        if (*c == '\n') out += indent;
    }
    return out + "\n";
}

std::string usageLine(const CommandSpec& c) { return std::string(c.name) + " " + c.usage; }

std::string fullHelp() {
    std::string out = "usage: kesdb [-d DIR] [-q] COMMAND [ARGUMENTS] [OPTIONS]\n\nCommands:\n";
    for (const CommandSpec& c : kCommands) out += "  " + usageLine(c) + "\n" + indented(c.text, "      ");
    return out + "\n" + kCommonOptions + kMore + kExitStatus;
}

std::string commandHelp(const CommandSpec& c) {
    return "usage: kesdb [-d DIR] [-q] " + usageLine(c) + "\n\n" + indented(c.text, "  ") + "\n" + kCommonOptions +
           "\n" + kExitStatus;
}

const CommandSpec* findCommand(const std::string& name) {
    for (const CommandSpec& c : kCommands)
        if (name == c.name) return &c;
    return nullptr;
}

int runHelp(CommandLine& cl) {
    if (cl.args.empty()) {
        std::fputs(fullHelp().c_str(), data());
        return kExitOk;
    }
    const CommandSpec* c = findCommand(cl.args[0]);
    if (!c) usageError("unknown command '" + cl.args[0] + "'");
    std::fputs(commandHelp(*c).c_str(), data());
    return kExitOk;
}

CommandLine parse(const std::vector<std::string>& argv) {
    CommandLine cl;
    bool optionsEnded = false;
    for (size_t i = 0; i < argv.size(); ++i) {
        const std::string& a = argv[i];
        auto value = [&](const std::string& option, size_t eq) -> std::string {
            if (eq != std::string::npos) return a.substr(eq + 1);
            if (i + 1 >= argv.size()) usageError(option + " needs a value", cl.command ? cl.command->name : "");
            return argv[++i];
        };
        if (optionsEnded || a.empty() || a == "-" || a[0] != '-' ||
            (a.size() > 1 && a[1] != '-' && a != "-d" && a != "-h" && a != "-q")) {
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
        } else if (name == "--version") {
            cl.version = true;
        } else if (name == "-q" || name == "--quiet") {
            cl.quiet = true;
        } else if (name == "-d" || name == "--dir") {
            cl.dir = value(name, eq);
        } else if (name == "--lib-dir") {
            setLibDir(value(name, eq));
        } else {
            const OptionSpec* option = nullptr;
            if (cl.command)
                for (const OptionSpec& o : cl.command->options)
                    if (name == o.name) option = &o;
            const std::string cmd = cl.command ? cl.command->name : "";
            if (!option) usageError((cmd.empty() ? "" : cmd + ": ") + "unknown option " + name, cmd);
            if (!option->takesValue && eq != std::string::npos) usageError(name + " takes no value", cmd);
            cl.options[name].push_back(option->takesValue ? value(name, eq) : "");
            for (int more = 1; more < option->takesValue; ++more) {
                if (i + 1 >= argv.size())
                    usageError(name + " needs " + std::to_string(option->takesValue) + " values", cmd);
                cl.options[name].push_back(argv[++i]);
            }
        }
    }
    return cl;
}

int run(const std::vector<std::string>& argv) {
    CommandLine cl = parse(argv);
    if (cl.quiet) quietDiagnostics();
    if (cl.version) {
        std::fputs("kesdb " KESDB_VERSION "\n", data());
        return kExitOk;
    }
    if (cl.help) {
        std::fputs((cl.command ? commandHelp(*cl.command) : fullHelp()).c_str(), data());
        return kExitOk;
    }
    if (!cl.command) usageError("no command");
    const std::string cmd = cl.command->name;
    if (cl.args.size() < cl.command->minArgs || cl.args.size() > cl.command->maxArgs)
        usageError(cmd + ": wrong number of arguments (usage: kesdb " + usageLine(*cl.command) + ")", cmd);
    return cl.command->run(cl);
}

}  // namespace
}  // namespace kesdb

int main(int argc, char** argv) {
    kesdb::installSignalHandlers();
    kesdb::separateOutput();
    int status = kesdb::kExitOk;
    try {
        status = kesdb::run(std::vector<std::string>(argv + 1, argv + argc));
    } catch (const kesdb::Failure& f) {
        std::fflush(stdout);
        std::fprintf(stderr, "kesdb: %s\n", kesdb::printable(f.what).c_str());
        status = f.code;
    } catch (const std::exception& e) {
        std::fflush(stdout);
        std::fprintf(stderr, "kesdb: %s\n", e.what());
        status = kesdb::kExitData;
    }
    // What was printed must have reached standard output (a full disk, a closed pipe).
    if (std::fflush(kesdb::data()) != 0 || std::ferror(kesdb::data())) {
        std::fprintf(stderr, "kesdb: cannot write standard output: %s\n", std::strerror(errno));
        if (status == kesdb::kExitOk) status = kesdb::kExitData;
    }
    return status;
}
