/* An application built against the installed kesdbm package: it keeps a boot counter and the
 * time of the last boot in a small database of its own, and counts one boot per run.
 *
 *   kesdbm_boot_counter DIR
 *
 * On its first run it prepares the database in DIR (one medium file reached through the
 * installed named-file driver); every run starts the database from its directory, increments
 * /boot/count, prints the settings and shuts down. The shared tables live in DIR too, and DIR
 * may be moved or copied: its files name each other relative to it. A database made with
 * "kesdb create DIR" is started the same way, with kesDBMInitDir(DIR). */
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

/* The descriptor (the start-up parameter block: tables and configuration files relative to
 * DIR; all four kinds of record in one medium, media-table entry 1, the first configured
 * driver) and the media configuration: the installed file driver on settings.med; no hooks. */
static int writeConfiguration(void) {
    FILE *descriptor = fopen(path("kesdb.conf"), "w");
    if (!descriptor) return -1;
    fputs("session=session.tbl\nlock=lock.tbl\nmedia=media.conf\nhook=hook.conf\n"
          "component=1\nvalue=1\nconstraint=1\nstring=1\n", descriptor);
    if (fclose(descriptor) != 0) return -1;
    FILE *media = fopen(path("media.conf"), "w");
    if (!media) return -1;
    fprintf(media, "%s/libkesdrv_file.so fileMedia_open fileMedia_close fileMedia_read fileMedia_write "
                   "fileMedia_seek fileMedia_sync settings.med\n", KESDBM_MODULE_DIR);
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
    int fresh = access(path("settings.med"), F_OK) != 0;
    if (fresh && (kesdb_layMedium(path("settings.med"), 16 * 1024, 0) != 0 || writeConfiguration() != 0)) {
        fprintf(stderr, "cannot prepare the database in %s\n", g_dir);
        return 1;
    }

    int32_t err = 0;
    int32_t id = kesDBMInitDir(g_dir, &err);
    if (id < 0) {
        printf("kesDBMInitDir: %d %s: %s\n", err, kesdb_errorName(err), kesDBMInitDirFailure());
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
