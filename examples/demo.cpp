// Demonstration: prepares a database in a directory and uses it through the library.
//
//   kesdb_demo DIR
//
// The database keeps its four kinds of record in four files reached through the named-file
// driver; the tables live in DIR as well (never in the system-wide /tmp path).
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "kesdbm/kesdbm.h"

namespace {

std::string g_dir;
std::string g_lib = KESDB_LIB_DIR;

std::string path(const char* name) { return g_dir + "/" + name; }

bool writeText(const std::string& file, const std::string& text) {
    FILE* f = std::fopen(file.c_str(), "w");
    if (!f) return false;
    std::fputs(text.c_str(), f);
    return std::fclose(f) == 0;
}

void heading(const char* text) {
    std::printf("\n== %s\n", text);
    std::fflush(stdout);
}

// Reports a call's result with the name of its code.
int32_t show(const char* what, int32_t rc) {
    std::printf("%-44s -> %d %s\n", what, rc, kesdb_errorName(rc));
    return rc;
}

uint32_t makeName(Session* s, const char* text) { return kesDBMCreateString(s, text, db_getDb(s->dbId)->stringMedium); }

// A value with its data area in the value medium.
template <class T>
uint32_t makeValue(Session* s, uint32_t type, T v) {
    return kesDBMCreateValue(s, type, 0, &v, sizeof v, db_getDb(s->dbId)->valueMedium);
}

uint32_t makeString(Session* s, const char* text, int32_t size) {
    std::string padded(text);
    padded.resize(static_cast<size_t>(size), '\0');
    return kesDBMCreateValue(s, String, 0, padded.data(), size, db_getDb(s->dbId)->valueMedium);
}

// A leaf with three values of one type: current, default and factory.
template <class T>
uint32_t makeLeaf(Session* s, uint32_t parent, uint32_t previous, const char* name, uint32_t type, T current,
                  T defaults, uint32_t hook = 0) {
    return kesDBMCreateLeaf(s, makeName(s, name), parent, previous, makeValue(s, type, current),
                            makeValue(s, type, defaults), makeValue(s, type, defaults), hook);
}

int prepare() {
    heading("prepare: four media files, media and hook configuration");
    const char* media[] = {"components.med", "values.med", "constraints.med", "strings.med"};
    std::string conf;
    for (const char* m : media) {
        if (kesdb_layMedium(path(m).c_str(), 64 * 1024, 0) != 0) {
            std::perror(m);
            return 1;
        }
        conf += g_lib + "/libkesdrv_file.so fileMedia_open fileMedia_close fileMedia_read fileMedia_write"
                        " fileMedia_seek fileMedia_sync " +
                path(m) + "\n";
        std::printf("laid down %s (64 KiB, one free element behind the header)\n", m);
    }
    if (!writeText(path("media.conf"), conf) ||
        !writeText(path("hook.conf"), g_lib + "/libkeshook_sample.so policy_preSet log_postSet NULL NULL\n"))
        return 1;
    return 0;
}

DBMInitParam parameters() {
    DBMInitParam p{};
    std::snprintf(p.sessionTablePath, KESDB_PATH_MAX, "%s", path("session.tbl").c_str());
    std::snprintf(p.lockTablePath, KESDB_PATH_MAX, "%s", path("lock.tbl").c_str());
    std::snprintf(p.mediaConfigPath, KESDB_PATH_MAX, "%s", path("media.conf").c_str());
    std::snprintf(p.hookConfigPath, KESDB_PATH_MAX, "%s", path("hook.conf").c_str());
    p.componentMedium = 1;
    p.valueMedium = 2;
    p.constraintMedium = 3;
    p.stringMedium = 4;
    return p;
}

struct Tree {
    uint32_t root, net, hostname, port, mode, time, interval;
};

Tree build(Session* s) {
    heading("build the tree");
    Tree t{};
    NodeRecord root{};
    comp_newNode(s, &root);
    root.comp.stringKey = makeName(s, "/");
    root.comp.kind = KESDB_KIND_NODE;
    comp_setNode(s, &root);
    flst_m_setRoot(s, db_getDb(s->dbId)->componentMedium, root.comp.key);
    t.root = kesDBMGetRoot(s);
    kesDBMSetCurrentComponent(s, t.root);
    std::printf("root node at key %u (allocated from the component medium)\n", t.root);

    t.net = kesDBMCreateNode(s, makeName(s, "net"), t.root, 0, 0);
    t.hostname = kesDBMCreateLeaf(s, makeName(s, "/hostname"), t.net, 0, makeString(s, "device-1", 32),
                                  makeString(s, "kesdbm", 32), makeString(s, "kesdbm", 32), 0);
    t.port = makeLeaf<uint16_t>(s, t.net, t.hostname, "/port", Uint16, 8080, 80);
    t.mode = makeLeaf<uint8_t>(s, t.net, t.port, "/mode", Uint8, 1, 0);
    t.time = kesDBMCreateNode(s, makeName(s, "time"), t.root, t.net, 0);
    t.interval = makeLeaf<uint32_t>(s, t.time, 0, "/interval", Uint32, 600, 300, 1);

    // Port: range 1..65535. Mode: one of 0 (off), 1 (dhcp), 2 (static).
    RangeRecordU16 range{};
    range.type = Uint16;
    range.min = 1;
    range.max = 65535;
    rangeU16_new(s, &range);
    kesDBMSetConstraintKey(s, kesDBMGetCurrentValueKey(s, t.port), range.key);
    EnumRecord modes{};
    modes.type = Uint8 * KESDB_CSTRT_ENUM_FACTOR;
    modes.elementSize = 1;
    modes.count = 3;
    modes.arrayKey = constraint_newEnumArray(s, 1, 3);
    enum_new(s, &modes);
    const uint8_t members[] = {0, 1, 2};
    enum_setData(s, modes.key, 1, 3, members);
    kesDBMSetConstraintKey(s, kesDBMGetCurrentValueKey(s, t.mode), modes.key);
    std::printf("net: hostname, port (range 1..65535), mode (enumeration 0,1,2); time: interval (hook 1)\n");
    return t;
}

void find(Session* s) {
    heading("find components by path");
    for (const char* p : {"/net/port", "/time/interval", "/net/gateway"}) {
        uint32_t key = kesDBMSearchByName(s, p);
        std::printf("%-16s -> key %u%s\n", p, key, key ? "" : " (not found)");
    }
    uint32_t key = kesDBMSearchByName(s, "net/mode");
    std::printf("%-16s -> key %u (relative to the root)\n", "net/mode", key);
}

void readWrite(Session* s, const Tree& t) {
    heading("typed reads and writes");
    char host[32] = {};
    kesDBMGetString(s, t.hostname, host, sizeof host);
    uint16_t port = 0;
    kesDBMGetUint16(s, t.port, &port);
    std::printf("hostname = %s, port = %u\n", host, port);
    show("kesDBMSetString(hostname, \"gateway-7\")", kesDBMSetString(s, t.hostname, "gateway-7"));
    show("kesDBMSetUint16(port, 443)", kesDBMSetUint16(s, t.port, 443));
    kesDBMGetString(s, t.hostname, host, sizeof host);
    kesDBMGetUint16(s, t.port, &port);
    std::printf("hostname = %s, port = %u\n", host, port);

    heading("a setting watched by a hook (sample library: refuses intervals above 1000)");
    show("kesDBMSetUint32(interval, 900)", kesDBMSetUint32(s, t.interval, 900));
    show("kesDBMSetUint32(interval, 5000)", kesDBMSetUint32(s, t.interval, 5000));
    std::printf("session error %u, detail %u (the hook's result)\n", s->error, s->errorDetail);

    heading("writes refused by constraints");
    show("kesDBMSetUint16(port, 0)", kesDBMSetUint16(s, t.port, 0));
    show("kesDBMSetUint8(mode, 7)", kesDBMSetUint8(s, t.mode, 7));
    show("kesDBMSetUint8(mode, 2)", kesDBMSetUint8(s, t.mode, 2));
    kesDBMGetUint16(s, t.port, &port);
    std::printf("port is still %u\n", port);
}

void lockAcrossProcesses(Session* s, int32_t dbId, const Tree& t) {
    heading("a lock held across two processes");
    show("parent: kesDBMLock(port, exclusive, try)", kesDBMLock(s, t.port, 0x0001));
    std::fflush(stdout);
    pid_t child = fork();
    if (child == 0) {
        Session own{};
        kesDBMInitSession(&own, static_cast<uint32_t>(dbId));
        show("child:  kesDBMLock(port, shared, try)", kesDBMLock(&own, t.port, 0x0101));
        std::printf("child:  waiting for the lock ...\n");
        std::fflush(stdout);
        show("child:  kesDBMLock(port, shared, wait)", kesDBMLock(&own, t.port, 0x0100));
        show("child:  kesDBMUnlock(port)", kesDBMUnlock(&own, t.port));
        kesDBMTermSession(&own);
        std::fflush(stdout);
        _exit(0);
    }
    usleep(300 * 1000);
    show("parent: kesDBMUnlock(port)", kesDBMUnlock(s, t.port));
    std::fflush(stdout);
    int status = 0;
    waitpid(child, &status, 0);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s DIR\n", argv[0]);
        return 1;
    }
    g_dir = argv[1];
    if (const char* lib = std::getenv("KESDB_LIB_DIR")) g_lib = lib;
    mkdir(g_dir.c_str(), 0775);
    // Tables in the demonstration directory; free lists kept as on the big-endian target.
    setenv("KESDB_DBTABLE", path("db.tbl").c_str(), 0);
    setenv("SIM_BYTE_ORDER", "BIG_ENDIAN", 0);
    for (const char* old : {"db.tbl", "session.tbl", "lock.tbl"}) unlink(path(old).c_str());
    if (prepare() != 0) return 1;

    heading("start the database, open two sessions");
    DBMInitParam p = parameters();
    int32_t err = 0;
    int32_t id = kesDBMInit(&p, &err);
    if (id < 0) {
        std::printf("kesDBMInit failed: %d %s\n", err, kesdb_errorName(err));
        return 2;
    }
    Session s{}, other{};
    std::printf("database id %d, %d media drivers loaded, %d hook\n", id, media_getCount() - 1, hook_getCount());
    show("kesDBMInitSession", kesDBMInitSession(&s, static_cast<uint32_t>(id)));
    show("kesDBMInitSession (second)", kesDBMInitSession(&other, static_cast<uint32_t>(id)));
    std::printf("sessions in use:");
    session_show(1);
    std::printf("databases registered:");
    db_show(1);

    Tree t = build(&s);
    find(&s);
    readWrite(&s, t);

    heading("the whole tree");
    kesDBMtraverseAndPrint(&s, 0);

    heading("reset the settings from their defaults");
    show("kesDBMDefaultToCurrent(root)", kesDBMDefaultToCurrent(&s, t.root));
    kesDBMtraverseAndPrint(&s, t.net);

    lockAcrossProcesses(&s, id, t);

    heading("shut down");
    show("kesDBMTermSession", kesDBMTermSession(&other));
    show("kesDBMTermSession", kesDBMTermSession(&s));
    show("kesDBMTerm", kesDBMTerm(static_cast<uint32_t>(id)));
    return 0;
}
