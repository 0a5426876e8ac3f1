/* The example of the developer's guide (docs/guide.md): prepares a database, starts the
 * library, opens sessions, reads and writes settings, meets a constraint and a hook, takes
 * locks and shuts down.
 *
 *   guide_example DIR [MODULEDIR]
 *
 * DIR is created if needed and holds everything: the four media files, the descriptor and
 * both configuration files, and the three shared tables. The database is started from its
 * directory (kesDBMInitDir), which names its files relative to it; the system-wide default
 * table is never touched. MODULEDIR is the directory of the installed medium driver
 * and sample hooks (libkesdrv_file.so, libkeshook_sample.so); its default is compiled in. */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <kesdbm/kesdbm.h>

#ifndef KESDB_MODULE_DIR
#define KESDB_MODULE_DIR "/usr/lib/kesdbm"
#endif

static char g_dir[1024];

/* DIR/name. */
static const char *path(const char *name) {
    static char buffer[4][1200];
    static int next;
    char *p = buffer[next++ % 4];
    snprintf(p, sizeof buffer[0], "%s/%s", g_dir, name);
    return p;
}

/* Prints a call's result, with the name of its code when it is not 0. */
static int32_t show(const char *what, int32_t rc) {
    if (rc == 0)
        printf("  %-40s -> 0\n", what);
    else
        printf("  %-40s -> %d %s\n", what, rc, kesdb_errorName(rc));
    return rc;
}

/* ---- 1. Preparing a database -------------------------------------------------------------
 * Four media files, one per kind of record, each laid down with its header and one free
 * element; the media configuration names the file driver for each (medium names relative to
 * the directory), the hook configuration one entry of the sample hook library (hook index 1),
 * and the descriptor kesdb.conf the start-up parameter block: the table and configuration
 * files, and the media-table index of each kind of record (entry 0 is the built-in medium;
 * the configured drivers follow, 1..4). "kesdb create DIR --files" makes the same layout. */
static const char kDescriptor[] = "session=session.tbl\nlock=lock.tbl\nmedia=media.conf\nhook=hook.conf\n"
                                  "component=1\nvalue=2\nconstraint=3\nstring=4\n";

static const char *const kMedia[4] = {"components.med", "values.med", "constraints.med", "strings.med"};

static int prepare(const char *moduleDir) {
    FILE *descriptor = fopen(path("kesdb.conf"), "w");
    if (!descriptor || fputs(kDescriptor, descriptor) < 0 || fclose(descriptor) != 0) {
        perror("kesdb.conf");
        return -1;
    }
    FILE *media = fopen(path("media.conf"), "w");
    FILE *hooks = fopen(path("hook.conf"), "w");
    if (!media || !hooks) {
        perror("configuration file");
        if (media) fclose(media);
        if (hooks) fclose(hooks);
        return -1;
    }
    for (int i = 0; i < 4; ++i) {
        int32_t rc = kesdb_layMedium(path(kMedia[i]), 64 * 1024, 0);
        if (rc != 0) {
            fprintf(stderr, "%s: %s\n", path(kMedia[i]), strerror(rc));
            fclose(media);
            fclose(hooks);
            return -1;
        }
        fprintf(media, "%s/libkesdrv_file.so fileMedia_open fileMedia_close fileMedia_read fileMedia_write "
                       "fileMedia_seek fileMedia_sync %s\n",
                moduleDir, kMedia[i]);
    }
    /* Hook 1: the sample write policy before every write; no other hook function. */
    fprintf(hooks, "%s/libkeshook_sample.so policy_preSet NULL NULL NULL\n", moduleDir);
    int bad = fclose(media) != 0;
    bad |= fclose(hooks) != 0;
    printf("prepared 4 media of 64 KiB, kesdb.conf, media.conf and hook.conf\n");
    return bad ? -1 : 0;
}

/* A name in the string table. */
static uint32_t name(Session *s, const char *text) {
    return kesDBMCreateString(s, text, db_getDb(s->dbId)->stringMedium);
}

/* A value whose data area lies in the value medium. */
static uint32_t value(Session *s, ValueType type, const void *data, int32_t size) {
    return kesDBMCreateValue(s, (uint32_t)type, 0, data, size, db_getDb(s->dbId)->valueMedium);
}

/* A leaf with its current, default and factory values of one type. */
static uint32_t leaf(Session *s, uint32_t parent, uint32_t previous, const char *text, ValueType type,
                     const void *current, const void *preset, int32_t size, uint32_t hook) {
    return kesDBMCreateLeaf(s, name(s, text), parent, previous, value(s, type, current, size),
                            value(s, type, preset, size), value(s, type, preset, size), hook);
}

/* The tree of a small device:
 *   /                  root node
 *     net              node
 *       /hostname      String, 32 bytes
 *       /port          Uint16, range 1..65535
 *       /mode          Uint8, one of 0, 1, 2
 *     interval         Uint32, watched by hook 1 (refuses values above 1000)
 * A component's name holds the '/' that leads to it, except below the root, whose name is
 * the leading '/' itself: "/" + "net" + "/port" spells the path /net/port. */
static int build(Session *s) {
    /* The root node: a node record from the component medium's allocator, named "/", and its
     * key as the medium's root word. */
    NodeRecord root;
    memset(&root, 0, sizeof root);
    if (!comp_newNode(s, &root)) return -1;
    root.comp.stringKey = name(s, "/");
    root.comp.kind = KESDB_KIND_NODE;
    if (comp_setNode(s, &root) != 0) return -1;
    if (flst_m_setRoot(s, db_getDb(s->dbId)->componentMedium, root.comp.key) != 0) return -1;

    uint32_t net = kesDBMCreateNode(s, name(s, "net"), root.comp.key, 0, 0);
    char host[32] = "device-1", hostDefault[32] = "kesdbm";
    uint32_t hostname = leaf(s, net, 0, "/hostname", String, host, hostDefault, 32, 0);
    uint16_t port = 8080, portDefault = 80;
    uint32_t portLeaf = leaf(s, net, hostname, "/port", Uint16, &port, &portDefault, 2, 0);
    uint8_t mode = 1, modeDefault = 0;
    uint32_t modeLeaf = leaf(s, net, portLeaf, "/mode", Uint8, &mode, &modeDefault, 1, 0);
    uint32_t interval = 600, intervalDefault = 300;
    uint32_t intervalLeaf = leaf(s, root.comp.key, net, "interval", Uint32, &interval, &intervalDefault, 4, 1);
    if (!net || !hostname || !portLeaf || !modeLeaf || !intervalLeaf) return -1;

    /* Constraints guard the current value: a range for the port, an enumeration for the mode. */
    RangeRecordU16 range;
    memset(&range, 0, sizeof range);
    range.type = Uint16;
    range.min = 1;
    range.max = 65535;
    if (!rangeU16_new(s, &range)) return -1;
    kesDBMSetConstraintKey(s, kesDBMGetCurrentValueKey(s, portLeaf), range.key);

    const uint8_t modes[3] = {0, 1, 2};
    EnumRecord members;
    memset(&members, 0, sizeof members);
    members.type = Uint8 * KESDB_CSTRT_ENUM_FACTOR;
    members.elementSize = 1;
    members.count = 3;
    members.arrayKey = constraint_newEnumArray(s, 1, 3);
    if (!members.arrayKey || !enum_new(s, &members)) return -1;
    enum_setData(s, members.key, 1, 3, modes);
    kesDBMSetConstraintKey(s, kesDBMGetCurrentValueKey(s, modeLeaf), members.key);
    printf("built the tree: net/hostname, net/port, net/mode, interval\n");
    return 0;
}

/* ---- 3. Reading and writing settings ------------------------------------------------------ */
static void readWrite(Session *s) {
    uint32_t hostname = kesDBMSearchByName(s, "/net/hostname");
    uint32_t port = kesDBMSearchByName(s, "/net/port");
    char host[32];
    uint16_t number = 0;
    kesDBMGetString(s, hostname, host, sizeof host);
    kesDBMGetUint16(s, port, &number);
    printf("  hostname %s, port %u\n", host, number);
    show("kesDBMSetString(hostname, \"gateway-7\")", kesDBMSetString(s, hostname, "gateway-7"));
    show("kesDBMSetUint16(port, 443)", kesDBMSetUint16(s, port, 443));
    kesDBMGetString(s, hostname, host, sizeof host);
    kesDBMGetUint16(s, port, &number);
    printf("  hostname %s, port %u\n", host, number);
    kesDBMGetDefaultGeneric(s, port, &number, &(int32_t){sizeof number});
    printf("  type %d, length %d, default port %u\n", kesDBMGetType(s, port), kesDBMGetLength(s, port), number);

    /* A path without a leading '/' is matched against the children of the session's current
     * component (the root after kesDBMInitSession). */
    uint32_t net = kesDBMSearchByName(s, "/net");
    kesDBMSetCurrentComponent(s, kesDBMGetRoot(s));
    printf("  /net has %d children; \"net/mode\" is %s\n", kesDBMGetChildCount(s, net),
           kesDBMSearchByName(s, "net/mode") == kesDBMSearchByName(s, "/net/mode") ? "/net/mode" : "?");
    printf("  /net/gateway: key %u, session error %u %s\n", kesDBMSearchByName(s, "/net/gateway"), s->error,
           kesdb_errorName((int32_t)s->error));
}

/* ---- 4. Constraints and hooks ------------------------------------------------------------- */
static void guarded(Session *s) {
    uint32_t port = kesDBMSearchByName(s, "/net/port");
    uint32_t mode = kesDBMSearchByName(s, "/net/mode");
    uint32_t interval = kesDBMSearchByName(s, "/interval");
    uint16_t limits[3] = {0, 0, 0}; /* minimum, maximum, step */
    kesDBMGetConstraintData(s, port, limits, sizeof limits);
    printf("  port: constraint type %u, %d bytes of data: min %u max %u step %u\n", kesDBMGetConstraintType(s, port),
           kesDBMGetConstraintLength(s, port), limits[0], limits[1], limits[2]);
    show("kesDBMSetUint16(port, 0)", kesDBMSetUint16(s, port, 0));
    show("kesDBMSetUint8(mode, 7)", kesDBMSetUint8(s, mode, 7));
    show("kesDBMSetUint8(mode, 2)", kesDBMSetUint8(s, mode, 2));
    show("kesDBMSetUint32(interval, 900)", kesDBMSetUint32(s, interval, 900));
    show("kesDBMSetUint32(interval, 5000)", kesDBMSetUint32(s, interval, 5000));
    printf("  session error %u, detail %u (the hook's result)\n", s->error, s->errorDetail);
    uint32_t now = 0;
    kesDBMGetUint32(s, interval, &now);
    printf("  interval is still %u\n", now);
}

/* ---- 5. Locks ----------------------------------------------------------------------------- */
#define LOCK_WAIT 0x0000u
#define LOCK_TRY 0x0001u
#define LOCK_SHARED 0x0100u

static void locks(Session *a, Session *b) {
    uint32_t port = kesDBMSearchByName(a, "/net/port");
    show("a: kesDBMLock(port, exclusive, try)", kesDBMLock(a, port, LOCK_TRY));
    show("b: kesDBMLock(port, shared, try)", kesDBMLock(b, port, LOCK_SHARED | LOCK_TRY));
    show("a: kesDBMUnlock(port)", kesDBMUnlock(a, port));
    show("b: kesDBMLock(port, shared, wait)", kesDBMLock(b, port, LOCK_SHARED | LOCK_WAIT));
    show("a: kesDBMLock(port, shared, try)", kesDBMLock(a, port, LOCK_SHARED | LOCK_TRY));
    show("b: kesDBMUnlock(port)", kesDBMUnlock(b, port));
    show("a: kesDBMUnlock(port)", kesDBMUnlock(a, port));
    show("a: kesDBMUnlock(port) again", kesDBMUnlock(a, port));
}

int main(int argc, char **argv) {
    if (argc < 2 || argc > 3) {
        fprintf(stderr, "usage: %s DIR [MODULEDIR]\n", argv[0]);
        return 1;
    }
    const char *moduleDir = argc == 3 ? argv[2] : KESDB_MODULE_DIR;
    if (snprintf(g_dir, sizeof g_dir, "%s", argv[1]) >= (int)sizeof g_dir) return 1;
    if (mkdir(g_dir, 0775) != 0 && errno != EEXIST) {
        perror(g_dir);
        return 1;
    }
    /* A fresh start: no tables left from an earlier run. */
    for (int i = 0; i < 3; ++i) unlink(path((const char *[]){"db.tbl", "session.tbl", "lock.tbl"}[i]));

    printf("1. prepare\n");
    if (prepare(moduleDir) != 0) return 1;

    printf("2. start up and open sessions\n");
    int32_t err = 0;
    int32_t id = kesDBMInitDir(g_dir, &err);
    if (id < 0) {
        printf("kesDBMInitDir failed: %d %s: %s\n", err, kesdb_errorName(err), kesDBMInitDirFailure());
        return 2;
    }
    Session a, b;
    memset(&a, 0, sizeof a);
    memset(&b, 0, sizeof b);
    printf("  database id %d, %d drivers and %d hook loaded\n", id, media_getCount() - 1, hook_getCount());
    show("kesDBMInitSession(a)", kesDBMInitSession(&a, (uint32_t)id));
    show("kesDBMInitSession(b)", kesDBMInitSession(&b, (uint32_t)id));
    if (build(&a) != 0) {
        printf("building the tree failed: %u %s\n", a.error, kesdb_errorName((int32_t)a.error));
        return 2;
    }

    printf("3. read and write settings\n");
    readWrite(&a);
    printf("4. constraints and hooks\n");
    guarded(&a);
    printf("5. locks\n");
    locks(&a, &b);

    printf("6. reset from the defaults, flush, shut down\n");
    show("kesDBMDefaultToCurrent(root)", kesDBMDefaultToCurrent(&a, kesDBMGetRoot(&a)));
    uint16_t port = 0;
    kesDBMGetUint16(&a, kesDBMSearchByName(&a, "/net/port"), &port);
    printf("  port %u\n", port);
    for (uint32_t m = 1; m <= 4; ++m) {
        if (kesDBMSync(&a, m, 0) != 0) printf("  sync of medium %u failed\n", m);
    }
    show("kesDBMTermSession(b)", kesDBMTermSession(&b));
    show("kesDBMTermSession(a)", kesDBMTermSession(&a));
    show("kesDBMTerm", kesDBMTerm((uint32_t)id));
    return 0;
}
