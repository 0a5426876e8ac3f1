// Fault-injection sweep: a whole workload (start-up, tree creation, typed sets and gets,
// constraints, copies, transfers, searches, moves, deletes, locks, printing, syncs) runs on
// six media served by the fault-injection driver, and for each kind of driver failure (failed
// open, read, write, seek, sync; read or write cut to 2 bytes) the 1st, 2nd, ... call of that
// kind is made to fail, up to the last call the workload makes.
//
// How: a child process runs the workload without faults. Before each step it forks one
// process that runs the step cleanly (what the step does: its calls, its code, the bytes it
// writes), then one process per call of the kind that the step makes, which arms that call,
// runs the step and checks; the media are put back after each. So a crash or a hang is caught
// and reported with the kind and N.
//
// For every injected fault:
//   - no crash, no hang; no memory leak under AddressSanitizer (the leak checker runs in the
//     process whenever the step left more heap in use than it does without the fault);
//   - every medium opened was closed again (the driver's opens == closes);
//   - the session holds the code specified for that medium and operation, with the
//     driver's error number as detail, or a code that the specified behaviour of the
//     operation puts in its place (see specified());
//   - nothing is written outside the bytes the step writes without a fault, and the
//     consistency checker (support/consistency.hpp) finds no damage outside them;
//   - every value holds the data it had before the step or after it in the clean run.
// A short transfer that the armed count does not cut must leave the step as the clean run did.
// Each test prints one summary line with the figures of its kind; KESDB_SWEEP_SAMPLE=n makes
// only every n-th call fail (for slow runs such as valgrind's).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <new>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "consistency.hpp"
#include "kesdbm/kesdbm.h"
#include "mediakit.hpp"
#include "testkit.hpp"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
// Part of the sanitizer runtime (the header declaring it does not come with every compiler).
extern "C" size_t __sanitizer_get_current_allocated_bytes(void);
#endif

namespace {

// ---- Media ------------------------------------------------------------------------------

// Media-table indexes (the order of the media configuration lines). Value data and name
// texts have media of their own, so a fault's medium tells which transfer it hit.
enum : uint32_t { kComp = 1, kValues = 2, kCstrt = 3, kStrings = 4, kData = 5, kText = 6, kMedia = 7 };
const char* const kFileNames[kMedia] = {"", "comp.bin", "values.bin", "cstrt.bin", "strings.bin", "data.bin",
                                        "text.bin"};
constexpr uint32_t kRecordMediumSize = 4096;
constexpr int32_t kErrno = 4242;      // error number of an injected failure: no driver makes it up
constexpr uint32_t kShortBytes = 2;   // what a short transfer still moves
constexpr int kChildTimeout = 30;     // seconds before a child counts as hung

using Bytes = std::vector<uint8_t>;
using Snapshot = std::vector<Bytes>;  // per medium index

// A whole file, read in one transfer (thousands of runs read the media and tables).
std::string readAll(const std::string& path) {
    std::string bytes;
    struct stat st {};
    const int fd = open(path.c_str(), O_RDONLY);
    if (fd >= 0 && fstat(fd, &st) == 0) bytes.resize(static_cast<size_t>(st.st_size));
    bytes.resize(fd >= 0 ? static_cast<size_t>(std::max<ssize_t>(0, pread(fd, bytes.data(), bytes.size(), 0))) : 0);
    if (fd >= 0) close(fd);
    return bytes;
}

Snapshot snapshot(const std::string& dir) {
    Snapshot snap(kMedia);
    for (uint32_t m = 1; m < kMedia; ++m) {
        const std::string bytes = readAll(dir + "/" + kFileNames[m]);
        snap[m].assign(bytes.begin(), bytes.end());
    }
    return snap;
}

// Puts the media back as they were in `snap` (the driver opens them by path at every access).
void restore(const std::string& dir, const Snapshot& snap) {
    for (uint32_t m = 1; m < kMedia; ++m) kt::writeFile(dir + "/" + kFileNames[m], std::string(snap[m].begin(), snap[m].end()));
}

// The shared tables of the database in `dir`, where a run in a process of its own leaves its
// sessions and locks: read, and put back where they changed (the writes reach the tables'
// mappings through the page cache).
const char* const kTables[3] = {"db.tbl", "session.tbl", "lock.tbl"};
std::vector<std::string> tables(const std::string& dir) {
    std::vector<std::string> t;
    for (const char* name : kTables) t.push_back(readAll(dir + "/" + name));
    return t;
}
void restoreTables(const std::string& dir, const std::vector<std::string>& saved) {
    const std::vector<std::string> now = tables(dir);
    for (size_t i = 0; i < saved.size(); ++i) {
        const std::string path = dir + "/" + kTables[i];
        if (now[i] != saved[i]) saved[i].empty() ? (void)unlink(path.c_str()) : kt::writeFile(path, saved[i]);
    }
}

// A byte range of a medium.
struct Range {
    uint32_t medium, offset, length;
};

// The ranges in which two snapshots differ (bytes added at the end included).
std::vector<Range> diff(const Snapshot& before, const Snapshot& after) {
    std::vector<Range> ranges;
    for (uint32_t m = 1; m < kMedia; ++m) {
        const Bytes& a = before[m];
        const Bytes& b = after[m];
        const size_t n = std::max(a.size(), b.size());
        auto differs = [&](size_t i) { return i >= a.size() || i >= b.size() || a[i] != b[i]; };
        for (size_t i = 0; i < n; ++i) {
            if (!differs(i)) continue;
            size_t j = i;
            while (j < n && differs(j)) ++j;
            if (!ranges.empty() && ranges.back().medium == m && ranges.back().offset + ranges.back().length + 8 >= i) {
                ranges.back().length = static_cast<uint32_t>(j - ranges.back().offset);
            } else {
                ranges.push_back({m, static_cast<uint32_t>(i), static_cast<uint32_t>(j - i)});
            }
            i = j;
        }
    }
    return ranges;
}

bool touches(const std::vector<Range>& ranges, const ck::Place& p) {
    for (const Range& r : ranges)
        if (r.medium == p.medium && r.offset < uint64_t(p.key) + p.size && p.key < uint64_t(r.offset) + r.length)
            return true;
    return false;
}

ck::Layout layoutOf(const std::string& dir) {
    ck::Layout l;
    for (uint32_t m = 1; m < kMedia; ++m) l.files[m] = dir + "/" + kFileNames[m];
    l.component = kComp;
    l.value = kValues;
    l.constraint = kCstrt;
    l.string = kStrings;
    l.hookCount = 0;
    return l;
}

// The configuration files and fresh media of a database in `dir`, all served by the fault
// driver. The data and text media only receive appended bytes behind their header.
void layDatabase(const std::string& dir) {
    std::string conf;
    for (uint32_t m = 1; m < kMedia; ++m) {
        conf += mk::driverLine("libkesdrv_fault.so", "faultMedia_", dir + "/" + kFileNames[m]);
        kesdb_layMedium((dir + "/" + kFileNames[m]).c_str(), m <= kStrings ? kRecordMediumSize : 24, 0);
    }
    kt::writeFile(dir + "/media.conf", conf);
    kt::writeFile(dir + "/hook.conf", "");
}

// ---- Workload ---------------------------------------------------------------------------

struct Work {
    std::string dir;
    int32_t id = -1;
    Session s{};
    std::map<std::string, uint32_t> k;  // keys made by earlier steps (0 when a step failed)
    uint32_t operator[](const std::string& name) { return k[name]; }
};

struct Step {
    std::string name;
    std::function<void(Work&)> run;
    // Codes the step's specified behaviour leaves in place of a driver failure (any detail):
    // a path search ends by recording 5 or 100 whatever stopped it; opening a session wipes
    // the error of its root look-up.
    std::set<int32_t> replaced = {};
    // The step creates a value record or string entry: after a failed open for the
    // allocator's link or fill write the allocation goes on, and the record write that
    // follows records 0.
    bool createsClearing = false;
    // The step copies values: a source read that returns 0 after a failure lets the copy write
    // its zero-filled buffer, and the destination's constraint, or its missing length (86),
    // may then give the result.
    bool copies = false;
};

const std::set<int32_t> kCopyCodes = {KESDB_ERR_NOMEM, 64, 65, 66, 67, 68, 69, 70, 71, 72};

template <class T>
void addValue(std::vector<Step>& steps, const std::string& name, uint32_t type, T v) {
    steps.push_back({name, [=](Work& w) { w.k[name] = kesDBMCreateValue(&w.s, type, 7, &v, sizeof v, kData); }, {}, true});
}

void addName(std::vector<Step>& steps, const std::string& text) {
    steps.push_back({"name " + text, [=](Work& w) { w.k["name " + text] = kesDBMCreateString(&w.s, text.c_str(), kText); },
                     {}, true});
}

// A leaf `name` with three values of type T under `parent`, behind `previous` ("" = head).
template <class T>
void addLeaf(std::vector<Step>& steps, const std::string& name, const std::string& parent, const std::string& previous,
             uint32_t type, T current, T def, T factory) {
    addName(steps, name);
    addValue(steps, name + ".cur", type, current);
    addValue(steps, name + ".def", type, def);
    addValue(steps, name + ".fac", type, factory);
    steps.push_back({"leaf " + name, [=](Work& w) {
                         w.k[name] = kesDBMCreateLeaf(&w.s, w["name " + name], w[parent],
                                                      previous.empty() ? 0 : w[previous], w[name + ".cur"],
                                                      w[name + ".def"], w[name + ".fac"], 0);
                     }});
}

std::vector<Step> workload() {
    std::vector<Step> st;
    st.push_back({"start", [](Work& w) {
                      DBMInitParam p{};
                      for (auto [field, name] : {std::pair{p.sessionTablePath, "session.tbl"}, {p.lockTablePath, "lock.tbl"},
                                                 {p.mediaConfigPath, "media.conf"}, {p.hookConfigPath, "hook.conf"}})
                          std::snprintf(field, KESDB_PATH_MAX, "%s/%s", w.dir.c_str(), name);
                      p.componentMedium = kComp;
                      p.valueMedium = kValues;
                      p.constraintMedium = kCstrt;
                      p.stringMedium = kStrings;
                      int32_t err = 0;
                      w.id = kesDBMInit(&p, &err);
                      if (w.id > 0) kesDBMInitSession(&w.s, static_cast<uint32_t>(w.id));
                  }, {0}});
    // Tree creation: the root is laid down with the record operations, as a preparing program does.
    addName(st, "/");
    st.push_back({"root record", [](Work& w) {
                      NodeRecord r{};
                      r.comp.stringKey = w["name /"];
                      if (comp_newNode(&w.s, &r) && comp_setNode(&w.s, &r) == 0) w.k["root"] = r.comp.key;
                  }});
    st.push_back({"set root", [](Work& w) { flst_m_setRoot(&w.s, kComp, w["root"]); }});
    addName(st, "net");
    st.push_back({"node net", [](Work& w) { w.k["net"] = kesDBMCreateNode(&w.s, w["name net"], w["root"], 0, 0); }});
    addName(st, "sys");
    st.push_back({"node sys", [](Work& w) { w.k["sys"] = kesDBMCreateNode(&w.s, w["name sys"], w["root"], w["net"], 0); }});
    addLeaf<uint32_t>(st, "ip", "net", "", Uint32, 10, 20, 30);
    addLeaf<uint16_t>(st, "port", "net", "ip", Uint16, 80, 80, 443);
    addLeaf<uint8_t>(st, "mask", "net", "port", Uint8, 24, 24, 16);
    addLeaf<float>(st, "temp", "sys", "", Float32, 20.0f, 25.0f, 25.0f);
    addLeaf<int64_t>(st, "count", "sys", "temp", Sint64, -5, 0, 0);
    addLeaf<uint64_t>(st, "blob", "sys", "count", Generic, 0x0102030405060708ull, 0, 0);
    addName(st, "host");
    for (const char* v : {"host.cur", "host.def", "host.fac"}) {
        const std::string name = v;
        st.push_back({name, [name](Work& w) {
                          const char text[16] = "device";
                          w.k[name] = kesDBMCreateValue(&w.s, String, 0, text, sizeof text, kData);
                      }, {}, true});
    }
    st.push_back({"leaf host", [](Work& w) {
                      w.k["host"] = kesDBMCreateLeaf(&w.s, w["name host"], w["sys"], w["blob"], w["host.cur"],
                                                     w["host.def"], w["host.fac"], 0);
                  }});

    // Constraints, made as a preparing program makes them and attached through the interface.
    st.push_back({"ip range", [](Work& w) {
                      RangeRecordU32 r{0, Uint32, 0, 1000, 10};
                      if (rangeU32_new(&w.s, &r)) w.k["ip range"] = r.key;
                  }});
    st.push_back({"ip range on current", [](Work& w) { kesDBMSetConstraintKey(&w.s, w["ip.cur"], w["ip range"]); }});
    st.push_back({"ip range on default", [](Work& w) { kesDBMSetConstraintKey(&w.s, w["ip.def"], w["ip range"]); }});
    st.push_back({"port members", [](Work& w) { w.k["port array"] = constraint_newEnumArray(&w.s, 2, 3); }});
    st.push_back({"port enum", [](Work& w) {
                      EnumRecord e{0, Uint16 * KESDB_CSTRT_ENUM_FACTOR, w["port array"], 2, 3};
                      if (enum_new(&w.s, &e)) w.k["port enum"] = e.key;
                  }});
    st.push_back({"port enum data", [](Work& w) {
                      const uint16_t members[3] = {80, 443, 8080};
                      enum_setData(&w.s, w["port enum"], 2, 3, members);
                  }});
    st.push_back({"port enum on current", [](Work& w) { kesDBMSetConstraintKey(&w.s, w["port.cur"], w["port enum"]); }});

    // Typed sets and gets, accepted and refused by constraints.
    st.push_back({"set ip", [](Work& w) { kesDBMSetUint32(&w.s, w["ip"], 500); }});
    st.push_back({"set ip above range", [](Work& w) { kesDBMSetUint32(&w.s, w["ip"], 5000); }});
    st.push_back({"get ip", [](Work& w) { uint32_t v = 0; kesDBMGetUint32(&w.s, w["ip"], &v); }});
    st.push_back({"set port", [](Work& w) { kesDBMSetUint16(&w.s, w["port"], 443); }});
    st.push_back({"set port not member", [](Work& w) { kesDBMSetUint16(&w.s, w["port"], 81); }});
    st.push_back({"get port", [](Work& w) { uint16_t v = 0; kesDBMGetUint16(&w.s, w["port"], &v); }});
    st.push_back({"set mask", [](Work& w) { kesDBMSetUint8(&w.s, w["mask"], 8); }});
    st.push_back({"get mask", [](Work& w) { uint8_t v = 0; kesDBMGetUint8(&w.s, w["mask"], &v); }});
    st.push_back({"set temp", [](Work& w) { kesDBMSetFloat32(&w.s, w["temp"], 21.5f); }});
    st.push_back({"get temp", [](Work& w) { float v = 0; kesDBMGetFloat32(&w.s, w["temp"], &v); }});
    st.push_back({"set count", [](Work& w) { kesDBMSetSint64(&w.s, w["count"], -1234567890123ll); }});
    st.push_back({"get count", [](Work& w) { int64_t v = 0; kesDBMGetSint64(&w.s, w["count"], &v); }});
    st.push_back({"set blob", [](Work& w) { const uint8_t b[8] = {9, 8, 7, 6, 5, 4, 3, 2}; kesDBMSetGeneric(&w.s, w["blob"], b, 8); }});
    st.push_back({"get blob", [](Work& w) { uint8_t b[8] = {}; int32_t n = 8; kesDBMGetGeneric(&w.s, w["blob"], b, &n); }});
    st.push_back({"set host", [](Work& w) { kesDBMSetString(&w.s, w["host"], "router-1"); }});
    st.push_back({"get host", [](Work& w) { char b[16] = {}; kesDBMGetString(&w.s, w["host"], b, sizeof b); }});
    st.push_back({"set default ip", [](Work& w) { const uint32_t v = 40; kesDBMSetDefaultGeneric(&w.s, w["ip"], &v, 4); }});
    st.push_back({"get factory port", [](Work& w) { uint16_t v = 0; int32_t n = 2; kesDBMGetFactoryGeneric(&w.s, w["port"], &v, &n); }});
    st.push_back({"get type and length", [](Work& w) { kesDBMGetType(&w.s, w["temp"]); kesDBMGetLength(&w.s, w["host"]); }});

    // The constraint calls.
    st.push_back({"constraint type", [](Work& w) { kesDBMGetConstraintType(&w.s, w["ip"]); }});
    st.push_back({"constraint length", [](Work& w) { kesDBMGetConstraintLength(&w.s, w["port"]); }});
    st.push_back({"constraint data", [](Work& w) { uint32_t d[3] = {}; kesDBMGetConstraintData(&w.s, w["ip"], d, sizeof d); }});
    st.push_back({"set range data", [](Work& w) { const uint32_t d[3] = {0, 600, 10}; kesDBMSetConstraintData(&w.s, w["ip"], d, sizeof d); }});
    st.push_back({"set enum data", [](Work& w) { const uint16_t d[3] = {80, 443, 8443}; kesDBMSetConstraintData(&w.s, w["port"], d, sizeof d); }});

    // Copies and value-set transfers.
    st.push_back({"copy", [](Work& w) { kesDBMCopy(&w.s, w["count"], w["blob"]); }, kCopyCodes, false, true});
    st.push_back({"current to default", [](Work& w) { kesDBMCurrentToDefault(&w.s, w["net"]); }, kCopyCodes, false, true});
    st.push_back({"factory to default", [](Work& w) { kesDBMFactoryToDefault(&w.s, w["sys"]); }, kCopyCodes, false, true});
    st.push_back({"default to current", [](Work& w) { kesDBMDefaultToCurrent(&w.s, w["root"]); }, kCopyCodes, false, true});

    // Navigation and search.
    st.push_back({"search", [](Work& w) { kesDBMSearchByName(&w.s, "/net/port"); }, {5, 100}});
    st.push_back({"set current", [](Work& w) { kesDBMSetCurrentComponent(&w.s, w["sys"]); }});
    st.push_back({"search relative", [](Work& w) { kesDBMSearchByName(&w.s, "host"); }, {5, 100}});
    st.push_back({"child count", [](Work& w) { kesDBMGetChildCount(&w.s, w["sys"]); }});
    st.push_back({"child by index", [](Work& w) { kesDBMGetChildByIndex(&w.s, w["sys"], 2); }});
    st.push_back({"get root", [](Work& w) { w.k["got root"] = kesDBMGetRoot(&w.s); }});
    st.push_back({"get parent", [](Work& w) { kesDBMGetParent(&w.s, w["ip"]); }});
    st.push_back({"first child", [](Work& w) { w.k["first"] = kesDBMGetFirstChild(&w.s, w["got root"]); }});
    st.push_back({"next child", [](Work& w) { kesDBMGetNextChild(&w.s, w["first"]); }});

    // Locks (the lock table: no medium is reached).
    st.push_back({"lock", [](Work& w) {
                      kesDBMLock(&w.s, w["ip"], 1);
                      kesDBMLock(&w.s, w["net"], 0);
                  }});
    st.push_back({"unlock", [](Work& w) {
                      kesDBMUnlock(&w.s, w["ip"]);
                      kesDBMUnlock(&w.s, w["net"]);
                  }});

    // Moves.
    st.push_back({"move leaf", [](Work& w) { kesDBMMoveLeaf(&w.s, w["mask"], w["sys"], 0); }});
    addName(st, "grp");
    st.push_back({"node wrapping", [](Work& w) { w.k["grp"] = kesDBMCreateNode(&w.s, w["name grp"], w["sys"], 0, w["mask"]); }});
    st.push_back({"move node", [](Work& w) { kesDBMMoveNode(&w.s, w["grp"], w["net"], w["ip"], 0); }});
    st.push_back({"move subtree", [](Work& w) { kesDBMMoveSubTree(&w.s, w["net"], w["sys"], w["host"]); }});

    // Deletes.
    st.push_back({"delete leaf", [](Work& w) { kesDBMDeleteComponent(&w.s, w["blob"]); }});
    st.push_back({"delete value", [](Work& w) { kesDBMDeleteValue(&w.s, w["blob.cur"]); }});
    st.push_back({"delete string", [](Work& w) { kesDBMDeleteString(&w.s, w["name blob"]); }});
    st.push_back({"delete node", [](Work& w) { kesDBMDeleteComponent(&w.s, w["grp"]); }});
    st.push_back({"delete subtree", [](Work& w) { kesDBMDeleteComponentWithSub(&w.s, w["net"]); }});

    // Print (standard output of the child goes nowhere) and sync.
    st.push_back({"print", [](Work& w) { kesDBMtraverseAndPrint(&w.s, 0); }});
    st.push_back({"sync", [](Work& w) {
                      kesDBMSync(&w.s, kComp, 0);
                      kesDBMSync(&w.s, kData, 0);
                  }});
    st.push_back({"stop", [](Work& w) {
                      kesDBMTermSession(&w.s);
                      kesDBMTerm(static_cast<uint32_t>(w.id));
                  }});
    return st;
}

// ---- Fault kinds and the codes they must leave --------------------------------------------

struct Kind {
    const char* name;
    int op;
    bool shortTransfer;
};

const Kind kKinds[] = {
    {"open", KESDRV_FAULT_OPEN, false},        {"read", KESDRV_FAULT_READ, false},
    {"write", KESDRV_FAULT_WRITE, false},      {"seek", KESDRV_FAULT_SEEK, false},
    {"sync", KESDRV_FAULT_SYNC, false},        {"short read", KESDRV_FAULT_READ, true},
    {"short write", KESDRV_FAULT_WRITE, true},
};

// The codes a fault may leave in the session: those reported with the driver's error number
// as detail (0 for a short transfer, which stores none), and those whose detail is something
// else, or that the operation's specified behaviour records in place of the driver's failure.
struct Expected {
    std::set<int32_t> driverDetail, otherDetail;
};

// For a fault of `kind` on medium `m` met by `step`; `length` is the transfer the failed read
// or write asked for.
//   - Record media have codes of their own for their records (component 53/55/54, value
//     44/46/45, constraint 59/61/60, string 38/40/39) and the allocator's (22/24/23) for their
//     free lists and headers; data areas and texts have 22/24/23. A sync failure is 26; a seek
//     failure leaves no end to append at, 23.
//   - Range and enumeration records report 59 and 60 with errno; a failed split (the
//     allocator's 0xFFFFFFFF) makes the constraint creators record 62 and the string creator
//     41, with errno.
//   - The allocator goes on after a failed link or fill write (under 8 bytes) and hands out
//     the block; the value record, string entry and constraint record writes that follow
//     record 0 when they succeed, so no code may be left.
//   - Short transfers the record layer takes as they are: a string entry read (the cut entry
//     names text medium 0, which the runs cannot open: 22), a name text read, and data-area
//     reads and writes (only a negative result is a failure). A copy writes as many bytes as
//     its short read brought, which a constrained destination refuses with 65.
//   - A path search records 5 or 100 when it ends without a match, whatever stopped it.
Expected specified(uint32_t m, const Kind& kind, uint32_t length, const Step& step) {
    Expected e;
    e.otherDetail = step.replaced;
    if (kind.op == KESDRV_FAULT_SYNC) {
        e.driverDetail = {KESDB_ERR_MEDIA_SYNC};
        return e;
    }
    if (kind.op == KESDRV_FAULT_SEEK) {
        e.driverDetail = {KESDB_ERR_MEDIA_WRITE};
        return e;
    }
    struct Codes {
        int32_t open, read, write;
    };
    static const std::map<uint32_t, Codes> own = {
        {kComp, {KESDB_ERR_COMP_OPEN, KESDB_ERR_COMP_READ, KESDB_ERR_COMP_WRITE}},
        {kValues, {KESDB_ERR_VALUE_OPEN, KESDB_ERR_VALUE_READ, KESDB_ERR_VALUE_WRITE}},
        {kCstrt, {KESDB_ERR_CSTRT_OPEN, KESDB_ERR_CSTRT_READ, KESDB_ERR_CSTRT_WRITE}},
        {kStrings, {KESDB_ERR_STR_OPEN, KESDB_ERR_STR_READ, KESDB_ERR_STR_WRITE}},
    };
    auto it = own.find(m);
    const bool record = it != own.end();
    switch (kind.op) {
        case KESDRV_FAULT_OPEN:
            e.driverDetail = {KESDB_ERR_MEDIA_OPEN};
            if (record) e.driverDetail.insert(it->second.open);
            if (m == kCstrt) e.otherDetail.insert({KESDB_ERR_CSTRT_OPEN, KESDB_ERR_CSTRT_ALLOC});  // split
            if (m == kStrings) e.otherDetail.insert(KESDB_ERR_STR_ALLOC);                          // split
            if (step.createsClearing) e.otherDetail.insert(0);
            break;
        case KESDRV_FAULT_READ:
            e.driverDetail = {KESDB_ERR_MEDIA_READ};
            if (record) e.driverDetail.insert(it->second.read);
            if (kind.shortTransfer && m == kStrings) e.otherDetail.insert({0, KESDB_ERR_MEDIA_OPEN});
            if (kind.shortTransfer && m == kText) e.otherDetail.insert(0);
            if (kind.shortTransfer && m == kData) e.otherDetail.insert({0, KESDB_ERR_CSTRT_LENGTH});
            break;
        default:
            e.driverDetail = {KESDB_ERR_MEDIA_WRITE};
            if (record) e.driverDetail.insert(it->second.write);
            if (m == kCstrt) {
                e.driverDetail.insert(KESDB_ERR_CSTRT_READ);  // an enumeration array write
                e.otherDetail.insert({KESDB_ERR_CSTRT_WRITE, KESDB_ERR_CSTRT_ALLOC});
            }
            if (m == kStrings) e.otherDetail.insert(KESDB_ERR_STR_ALLOC);
            if (record && length < 8) e.otherDetail.insert(0);
            if (kind.shortTransfer && m == kData) e.otherDetail.insert(0);
            break;
    }
    return e;
}
// ---- Runs in child processes ------------------------------------------------------------

// What a step does without a fault, recorded by the process that runs it cleanly.
struct StepRecord {
    uint32_t calls = 0;              // calls of the kind's operation after the step
    uint32_t error = 0, detail = 0;  // the session after the step
    int64_t grew = 0;                // heap bytes it left in use (under AddressSanitizer)
};

// Figures of a sweep, in memory shared with the processes that gather them.
struct Shared {
    StepRecord clean;
    uint32_t calls, runs, injected, survived, ownDamage, notCut;  // calls: of the whole workload
};

// Writes a child's findings (one line each) where its parent reads them.
struct Out {
    FILE* f;
    explicit Out(const std::string& path) : f(std::fopen(path.c_str(), "w")) {}
    ~Out() { if (f) std::fclose(f); }
    void line(const std::string& text) { if (f) std::fprintf(f, "%s\n", text.c_str()); }
};

// Heap bytes in use (under AddressSanitizer; 0 otherwise).
int64_t heapInUse() {
#if defined(__SANITIZE_ADDRESS__)
    return static_cast<int64_t>(__sanitizer_get_current_allocated_bytes());
#else
    return 0;
#endif
}

// Leaves a child: a memory-leak check under AddressSanitizer, unless `check` says it cannot
// find anything (a full check costs far more than the run it ends).
int leaveChild(int code, bool check = true) {
#if defined(__SANITIZE_ADDRESS__)
    if (check && __lsan_do_recoverable_leak_check() != 0) return 3;
#else
    (void)check;
#endif
    return code;
}

// Runs `body` in a forked process; its exit status, 128 + the signal that ended it, or -1.
int inChild(const std::function<int()>& body) {
    // Nothing buffered may be written twice: a child's exit under valgrind flushes the
    // streams it inherited.
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) _exit(body());
    int status = 0;
    if (waitpid(pid, &status, 0) != pid) return -1;
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : -1;
}

bool holds(const Bytes& b, const ck::Place& p) { return uint64_t(p.key) + p.size <= b.size(); }
bool same(const Bytes& a, const Bytes& b, const ck::Place& p) {
    return holds(a, p) && holds(b, p) && std::equal(a.begin() + p.key, a.begin() + p.key + p.size, b.begin() + p.key);
}

// What the step did in its clean run, and the media before and after it.
struct Clean {
    const StepRecord& record;
    const Snapshot &before, &after;
    std::vector<Range> wrote;
};

// The checks after the step in which the fault took effect; every failed one is a line.
void checkAfterFault(Out& out, const std::string& dir, const Kind& kind, const Step& what, const Clean& clean,
                     const Session& s, mk::FaultControl& f) {
    // The code, from the medium and the transfer the fault hit.
    const std::string medium = f.lastFiredMedium();
    uint32_t m = 0;
    for (uint32_t j = 1; j < kMedia; ++j)
        if (medium == dir + "/" + kFileNames[j]) m = j;
    uint32_t offset = 0, length = 0;
    f.firedTransfer(&offset, &length);
    const int32_t code = static_cast<int32_t>(s.error);
    const Expected e = specified(m, kind, length, what);
    const uint32_t driverDetail = kind.shortTransfer ? 0u : static_cast<uint32_t>(kErrno);
    if (!(e.driverDetail.count(code) && s.errorDetail == driverDetail) && !e.otherDetail.count(code)) {
        std::string list;
        for (int32_t c : e.driverDetail) list += " " + std::to_string(c) + "/" + std::to_string(driverDetail);
        for (int32_t c : e.otherDetail) list += " " + std::to_string(c);
        out.line("code " + std::to_string(code) + "/" + std::to_string(s.errorDetail) + " after a " + kind.name +
                 " fault on " + (m ? kFileNames[m] : medium) + " (" + std::to_string(length) + " bytes at " +
                 std::to_string(offset) + "), expected one of" + list);
    }
    // A constraint whose header cannot be read (its 8-byte read, or its open) lets the write
    // through unchecked, leaving 59 or 61 in the session: specified, so a refused write then
    // takes place.
    const bool unchecked = m == kCstrt && (code == KESDB_ERR_CSTRT_OPEN || code == KESDB_ERR_CSTRT_READ) &&
                           (kind.op == KESDRV_FAULT_OPEN || length == 8);
    // Writes and damage only in the bytes the step writes when nothing fails.
    const Snapshot now = snapshot(dir);
    const Snapshot& before = clean.before;
    // A copy's zero-filled buffer: every data byte the step changed is now 0.
    auto zeroed = [&](uint32_t medium, uint32_t from, uint32_t length) {
        if (!what.copies || medium != kData) return false;
        for (uint64_t i = from; i < uint64_t(from) + length; ++i)
            if (i < now[medium].size() && (i >= before[medium].size() || before[medium][i] != now[medium][i]) &&
                now[medium][i] != 0)
                return false;
        return true;
    };
    for (const Range& r : diff(before, now))
        if (!touches(clean.wrote, {r.medium, r.offset, r.length}) && !(unchecked && r.medium == kData) &&
            !zeroed(r.medium, r.offset, r.length))
            out.line("wrote " + std::to_string(r.length) + " bytes at " + std::to_string(r.medium) + ":" +
                     std::to_string(r.offset) + ", which the step does not write without a fault");
    const ck::Report c = ck::check(layoutOf(dir));
    bool own = false;
    for (const ck::Violation& v : c.violations) {
        bool mine = false;
        for (const ck::Place& p : v.places) mine |= touches(clean.wrote, p);
        own |= mine;
        if (!mine) {
            ck::Report one;
            one.violations.push_back(v);
            std::string text = one.text();
            text.pop_back();
            out.line("damage outside the step: " + text);
        }
    }
    if (own) out.line("own damage");
    // Contents: every value holds the data it had before the step or after it in the clean
    // run, never a mixture or anything else. Specified exceptions: a data write cut short,
    // and a copy of a data read cut short, are taken as they are (only a negative count is a
    // failure there); a copy's zero-filled buffer; and the unchecked write above.
    for (const ck::Place& a : c.dataAreas) {
        if (same(now[a.medium], before[a.medium], a) || same(now[a.medium], clean.after[a.medium], a)) continue;
        const bool cutWrite = kind.shortTransfer && kind.op == KESDRV_FAULT_WRITE && m == a.medium &&
                              offset < uint64_t(a.key) + a.size && a.key < uint64_t(offset) + length;
        const bool cutRead = kind.shortTransfer && kind.op == KESDRV_FAULT_READ && m == kData;
        if (!cutWrite && !cutRead && !unchecked && !zeroed(a.medium, a.key, a.size))
            out.line("the data area " + std::to_string(a.medium) + ":" + std::to_string(a.key) + "+" +
                     std::to_string(a.size) + " holds bytes it had neither before the step nor after it in the clean run");
    }
}

// Only every n-th call is made to fail when KESDB_SWEEP_SAMPLE is n (for slow runs such as
// valgrind's); every call by default.
uint32_t sampleEvery() {
    const char* v = getenv("KESDB_SWEEP_SAMPLE");
    const long n = v ? std::strtol(v, nullptr, 10) : 1;
    return n > 1 && n < 1000000 ? static_cast<uint32_t>(n) : 1u;
}

// Grandchild: the step with call `nth` of the kind's operation in it armed. The first line is
// "fired" or "not cut"; every failed check is a line of its own. The database is left
// started: it belongs to the parent.
int faultStep(const std::string& dir, const std::string& report, const Kind& kind, const Step& step,
              const Clean& clean, uint32_t nth, Work w) {
    alarm(kChildTimeout);
    Out out(report);
    mk::FaultControl f;
    if (!f.ok()) return 2;
    f.reset();
    kind.shortTransfer ? f.shortOp(kind.op, nth, kShortBytes) : f.fail(kind.op, nth, kErrno);
    w.s.error = w.s.errorDetail = 0;
    const int64_t heap = heapInUse();
    step.run(w);
    // The step leaves as many bytes in use as without a fault (the keys it notes down), or
    // the full leak check runs.
    const bool mayLeak = heapInUse() - heap > clean.record.grew;
    if (f.fired() == 0) {
        // A short transfer no longer than the armed count: the step must run as it did.
        out.line("not cut");
        if (w.s.error != clean.record.error || w.s.errorDetail != clean.record.detail)
            out.line("the step left " + std::to_string(w.s.error) + "/" + std::to_string(w.s.errorDetail) +
                     ", the clean run " + std::to_string(clean.record.error) + "/" + std::to_string(clean.record.detail));
        if (snapshot(dir) != clean.after) out.line("the media differ from the clean run's");
    } else {
        out.line("fired");
        f.fail(kind.op, UINT32_MAX, kErrno);  // disarmed: nothing else fails
        checkAfterFault(out, dir, kind, step, clean, w.s, f);
    }
    if (f.opens() != f.closes()) out.line("opens " + std::to_string(f.opens()) + " closes " + std::to_string(f.closes()));
    return leaveChild(0, mayLeak);
}

// Child: runs the workload without a fault. Before each step, one grandchild runs it cleanly,
// then one grandchild per call of the kind's operation that the step makes arms that call;
// after each the media are put back. Every failure is a line of the report.
int sweepChild(const std::string& dir, const std::vector<Step>& steps, const Kind& kind, Shared& sh) {
    setenv("KESDB_DBTABLE", (dir + "/db.tbl").c_str(), 1);
    setenv("KESDB_DEFMEDIA", (dir + "/none").c_str(), 1);
    setenv("SIM_BYTE_ORDER", "BIG_ENDIAN", 1);
    if (!std::freopen("/dev/null", "w", stdout)) return 90;
    Out out(dir + "/report.txt");
    mk::FaultControl f;
    if (!f.ok()) return 2;
    f.reset();
    Work w;
    w.dir = dir;
    const std::string gcReport = dir + "/step-report.txt";
    for (const Step& step : steps) {
        const Snapshot before = snapshot(dir);
        const std::vector<std::string> saved = tables(dir);
        const uint32_t callsBefore = f.calls(kind.op);
        const int status = inChild([&] {
            alarm(kChildTimeout);
            w.s.error = w.s.errorDetail = 0;
            const int64_t heap = heapInUse();
            step.run(w);
            sh.clean = {f.calls(kind.op), w.s.error, w.s.errorDetail, heapInUse() - heap};
            return f.opens() == f.closes() ? 0 : 4;
        });
        const StepRecord record = sh.clean;
        const Snapshot after = snapshot(dir);
        const Clean clean{record, before, after, diff(before, after)};
        restoreTables(dir, saved);
        const ck::Report damage = ck::check(layoutOf(dir));
        if (status != 0 || !damage.ok())
            out.line(std::string(kind.name) + ", the run without a fault: step " + step.name + " ended with status " +
                     std::to_string(status) + " " + damage.text());
        restore(dir, before);
        for (uint32_t n = callsBefore + 1; status == 0 && n <= record.calls; ++n) {
            if ((n - 1) % sampleEvery() != 0) continue;
            unlink(gcReport.c_str());
            const int runStatus = inChild([&] { return faultStep(dir, gcReport, kind, step, clean, n - callsBefore, w); });
            std::istringstream in(kt::readFile(gcReport));
            std::string first;
            std::getline(in, first);
            const std::string where = std::string(kind.name) + " N=" + std::to_string(n) + " (step " + step.name + "): ";
            const bool fired = first == "fired";
            bool ok = runStatus == 0 && (fired || first == "not cut"), own = false;
            ++sh.runs;
            sh.injected += fired;
            sh.notCut += first == "not cut";
            if (runStatus != 0) {
                out.line(where + (runStatus >= 128 ? "killed by signal " + std::to_string(runStatus - 128)
                                  : runStatus == 3 ? std::string("memory leak")
                                                   : "exit status " + std::to_string(runStatus)));
            } else if (!ok) {
                out.line(where + "no report");
            }
            for (std::string line; std::getline(in, line);) {
                if (line == "own damage") {
                    own = true;
                } else {
                    out.line(where + line);
                    ok = false;
                }
            }
            sh.survived += fired && ok;
            sh.ownDamage += fired && own;
            restore(dir, before);
        }
        w.s.error = w.s.errorDetail = 0;
        step.run(w);
        if (w.s.error != record.error || w.s.errorDetail != record.detail || f.calls(kind.op) != record.calls ||
            snapshot(dir) != after)
            out.line(std::string(kind.name) + ", the run without a fault: step " + step.name +
                     " ran differently from its clean run");
    }
    sh.calls = f.calls(kind.op);
    if (f.opens() != f.closes())
        out.line(std::string(kind.name) + ", the run without a fault: opens " + std::to_string(f.opens()) + " closes " +
                 std::to_string(f.closes()));
    return leaveChild(0);
}

struct Result {
    Shared figures;
    std::vector<std::string> failures;
};

// The sweep of one kind over `work`, in a directory in memory when the machine has one
// (synchronous writes cost nothing there; thousands of runs add up).
Result sweep(const std::vector<Step>& work, const Kind& kind) {
    struct stat st {};
    if (stat("/dev/shm", &st) == 0 && S_ISDIR(st.st_mode) && access("/dev/shm", W_OK) == 0) setenv("TMPDIR", "/dev/shm", 1);
    kt::TempDir dir;
    layDatabase(dir.path());
    void* map = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (map == MAP_FAILED) return {{}, {"no shared memory"}};
    Shared& sh = *new (map) Shared{};
    Result r{};
    const int status = inChild([&] { return sweepChild(dir.path(), work, kind, sh); });
    if (status != 0) r.failures.push_back(std::string(kind.name) + ": the sweep ended with status " + std::to_string(status));
    std::istringstream in(kt::readFile(dir.file("report.txt")));
    for (std::string line; std::getline(in, line);) r.failures.push_back(line);
    r.figures = sh;
    munmap(map, sizeof(Shared));
    return r;
}

struct FaultSweep : ::testing::TestWithParam<Kind> {};
void PrintTo(const Kind& kind, std::ostream* os) { *os << kind.name; }

TEST_P(FaultSweep, EveryCallOfTheKindFailsInTurn) {
    const auto started = std::chrono::steady_clock::now();
    const Kind& kind = GetParam();
    const mk::FaultControl loaded;  // loaded once here, so that each run finds it in place
    ASSERT_TRUE(loaded.ok());
    const Result r = sweep(workload(), kind);
    const Shared& t = r.figures;
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    const uint32_t every = sampleEvery();
    std::printf("fault sweep %-11s: %4u calls%s, %4u faults injected, %4u survived, %3u failed, "
                "%3u left damage in their own records, %2u not cut, %.1f s\n",
                kind.name, t.calls, every > 1 ? (" (1 in " + std::to_string(every) + ")").c_str() : "", t.injected,
                t.survived, t.injected - t.survived, t.ownDamage, t.notCut, seconds);
    for (const std::string& f : r.failures) std::printf("  FAILED %s\n", f.c_str());
    EXPECT_TRUE(r.failures.empty()) << r.failures.size() << " failed checks, listed above";
    EXPECT_GT(t.injected, 0u);
    EXPECT_EQ(t.runs, (t.calls + every - 1) / every);
    EXPECT_EQ(t.injected + t.notCut, t.runs);
}

INSTANTIATE_TEST_SUITE_P(Kinds, FaultSweep, ::testing::ValuesIn(kKinds), [](const ::testing::TestParamInfo<Kind>& i) {
    std::string name = i.param.name;
    std::replace(name.begin(), name.end(), ' ', '_');
    return name;
});

#if defined(__SANITIZE_ADDRESS__)
__attribute__((noinline)) void leak64() {
    void* p = std::malloc(64);
    std::memset(p, 1, 64);
}
#endif

// The sweep finds what it is there to find: behind the first steps of the workload, steps
// that misbehave when a fault meets them, as a faulty library would. Each misbehaviour is
// reported for that step and nothing is reported for the library's own steps.
TEST(FaultSweepHarness, FindsPlantedMisbehaviour) {
    setenv("KESDB_SWEEP_SAMPLE", "1", 1);  // every call, also in a sampled (slow) run
    const mk::FaultControl loaded;
    ASSERT_TRUE(loaded.ok());
    std::vector<Step> work = workload();
    const auto net = std::find_if(work.begin(), work.end(), [](const Step& st) { return st.name == "node net"; });
    ASSERT_NE(net, work.end());
    work.erase(net + 1, work.end());
    work.push_back({"swallows", [](Work& w) {
                        kesDBMGetChildCount(&w.s, w["root"]);
                        w.s.error = w.s.errorDetail = 0;
                    }});
    work.push_back({"strays", [](Work& w) {
                        kesDBMGetParent(&w.s, w["net"]);
                        const uint32_t kind = 9;
                        if (w.s.error != 0) kt::writeBytes(w.dir + "/comp.bin", w["root"] + 20, &kind, 4);
                    }});
    work.push_back({"leaves open", [](Work& w) {
                        kesDBMGetFirstChild(&w.s, w["root"]);
                        MediaEntry* e = getMedia(&w.s, kComp);
                        int32_t err = 0;
                        if (w.s.error != 0 && e) e->open(e->name, e->arg, &err);
                    }});
    work.push_back({"crashes", [](Work& w) {
                        kesDBMGetNextChild(&w.s, w["net"]);
                        if (w.s.error != 0) std::abort();
                    }});
#if defined(__SANITIZE_ADDRESS__)
    work.push_back({"leaks", [](Work& w) {
                        kesDBMGetStringKey(&w.s, w["net"]);
                        if (w.s.error != 0) leak64();
                    }});
#endif
    const Result r = sweep(work, kKinds[0]);
    std::string all;
    for (const std::string& f : r.failures) all += f + "\n";
    auto reported = [&](const std::string& step, const std::string& what) {
        return all.find("(step " + step + "): " + what) != std::string::npos;
    };
    EXPECT_TRUE(reported("swallows", "code 0/0 after a open fault on comp.bin")) << all;
    EXPECT_TRUE(reported("strays", "wrote 1 bytes at 1:")) << all;
    EXPECT_TRUE(reported("strays", "damage outside the step: T3")) << all;
    EXPECT_TRUE(reported("leaves open", "opens ")) << all;
    EXPECT_TRUE(reported("crashes", "killed by signal 6")) << all;
#if defined(__SANITIZE_ADDRESS__)
    EXPECT_TRUE(reported("leaks", "memory leak")) << all;
#endif
    for (const Step& st : work) {
        if (st.name == "node net") break;
        EXPECT_FALSE(reported(st.name, "")) << all;
    }
    EXPECT_GT(r.figures.survived, 0u);  // the library's own steps
}

}  // namespace
