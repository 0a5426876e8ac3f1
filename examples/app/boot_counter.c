/* An application built against the installed kesdbm package: it keeps a boot counter and the
 * time of the last boot in a small database of its own, and counts one boot per run.
 *
 *   kesdbm_boot_counter DIR
 *
 * On its first run it prepares the database in DIR (one medium file reached through the
 * installed named-file driver); every run starts the library, increments /boot/count, prints
 * the settings and shuts down. The shared tables live in DIR too (KESDB_DBTABLE=DIR/db.tbl). */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <kesdbm/kesdbm.h>

#ifndef KESDBM_MODULE_DIR
#error "KESDBM_MODULE_DIR: the directory of the installed drivers (from the package)"
#endif

static char g_dir[1024];

static const char *path(const char *name) {
    static char buffer[2][1200];
    static int next;
    char *p = buffer[next++ % 2];
    snprintf(p, sizeof buffer[0], "%s/%s", g_dir, name);
    return p;
}

static DBMInitParam parameters(void) {
    DBMInitParam p;
    memset(&p, 0, sizeof p);
    snprintf(p.sessionTablePath, sizeof p.sessionTablePath, "%s", path("session.tbl"));
    snprintf(p.lockTablePath, sizeof p.lockTablePath, "%s", path("lock.tbl"));
    snprintf(p.mediaConfigPath, sizeof p.mediaConfigPath, "%s", path("media.conf"));
    snprintf(p.hookConfigPath, sizeof p.hookConfigPath, "%s", path("hook.conf"));
    /* All four kinds of record in one medium: media-table entry 1, the first configured driver. */
    p.componentMedium = p.valueMedium = p.constraintMedium = p.stringMedium = 1;
    return p;
}

/* The media configuration: the installed file driver on DIR/settings.med; no hooks. */
static int writeConfiguration(void) {
    FILE *media = fopen(path("media.conf"), "w");
    if (!media) return -1;
    fprintf(media, "%s/libkesdrv_file.so fileMedia_open fileMedia_close fileMedia_read fileMedia_write "
                   "fileMedia_seek fileMedia_sync %s\n", KESDBM_MODULE_DIR, path("settings.med"));
    if (fclose(media) != 0) return -1;
    FILE *hooks = fopen(path("hook.conf"), "w");
    return hooks && fclose(hooks) == 0 ? 0 : -1;
}

static uint32_t newString(Session *s, const char *text) { return kesDBMCreateString(s, text, 1); }

static uint32_t newValue(Session *s, ValueType type, const void *data, int32_t size) {
    return kesDBMCreateValue(s, (uint32_t)type, 0, data, size, 1);
}

/* The tree: / -> boot -> /count (Uint32, 0), /last (String, 32 bytes). */
static int buildTree(Session *s) {
    NodeRecord root;
    memset(&root, 0, sizeof root);
    if (!comp_newNode(s, &root)) return -1;
    root.comp.stringKey = newString(s, "/");
    root.comp.kind = KESDB_KIND_NODE;
    if (comp_setNode(s, &root) != 0 || flst_m_setRoot(s, 1, root.comp.key) != 0) return -1;
    uint32_t boot = kesDBMCreateNode(s, newString(s, "boot"), root.comp.key, 0, 0);
    uint32_t zero = 0;
    char never[32] = "never";
    uint32_t count = kesDBMCreateLeaf(s, newString(s, "/count"), boot, 0, newValue(s, Uint32, &zero, 4),
                                      newValue(s, Uint32, &zero, 4), newValue(s, Uint32, &zero, 4), 0);
    uint32_t last = kesDBMCreateLeaf(s, newString(s, "/last"), boot, count, newValue(s, String, never, 32),
                                     newValue(s, String, never, 32), newValue(s, String, never, 32), 0);
    return boot && count && last ? 0 : -1;
}

int main(int argc, char **argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: %s DIR\n", argv[0]);
        return 1;
    }
    snprintf(g_dir, sizeof g_dir, "%s", argv[1]);
    if (mkdir(g_dir, 0775) != 0 && errno != EEXIST) {
        perror(g_dir);
        return 1;
    }
    setenv("KESDB_DBTABLE", path("db.tbl"), 1);
    /* Free lists in the target's (big-endian) order also on a little-endian development host. */
    setenv("SIM_BYTE_ORDER", "BIG_ENDIAN", 0);

    int fresh = access(path("settings.med"), F_OK) != 0;
    if (fresh && (kesdb_layMedium(path("settings.med"), 16 * 1024, 0) != 0 || writeConfiguration() != 0)) {
        fprintf(stderr, "cannot prepare the database in %s\n", g_dir);
        return 1;
    }

    DBMInitParam param = parameters();
    int32_t err = 0;
    int32_t id = kesDBMInit(&param, &err);
    if (id < 0) {
        printf("kesDBMInit: %d %s\n", err, kesdb_errorName(err));
        return 2;
    }
    Session s;
    memset(&s, 0, sizeof s);
    int status = 0;
    if (kesDBMInitSession(&s, (uint32_t)id) != 0 || (fresh && buildTree(&s) != 0)) {
        printf("session: %u %s\n", s.error, kesdb_errorName((int32_t)s.error));
        status = 2;
    } else {
        uint32_t countKey = kesDBMSearchByName(&s, "/boot/count");
        uint32_t lastKey = kesDBMSearchByName(&s, "/boot/last");
        uint32_t count = 0;
        char last[32] = "";
        char now[32];
        int32_t rc = kesDBMGetUint32(&s, countKey, &count);
        if (rc == 0) rc = kesDBMGetString(&s, lastKey, last, sizeof last);
        last[sizeof last - 1] = '\0';
        snprintf(now, sizeof now, "run %u", count + 1);
        if (rc == 0) rc = kesDBMSetUint32(&s, countKey, count + 1);
        if (rc == 0) rc = kesDBMSetString(&s, lastKey, now);
        if (rc == 0) rc = kesDBMSync(&s, 1, 0);
        if (rc != 0) {
            printf("update: %d %s\n", rc, kesdb_errorName(rc));
            status = 2;
        } else {
            printf("%s database, boot %u (previous: %s)\n", fresh ? "new" : "existing", count + 1, last);
        }
        kesDBMTermSession(&s);
    }
    kesDBMTerm((uint32_t)id);
    return status;
}
