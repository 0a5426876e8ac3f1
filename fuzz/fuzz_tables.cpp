// Fuzz target: damaged shared table files at start-up.
//
// The input is the database, session and lock table files: three parts, each a 16-bit
// little-endian length and its bytes (a length beyond the input takes what is there), then
// one flag byte. Bit 0 of the flag pads each file with zeros to its table's size, so that
// the contents are mapped and read rather than refused as too short. Each run writes the
// three files into a private directory, starts a database on them (no media, no hooks),
// opens a session, takes and gives back a lock and shows the tables, and shuts down again.
// Any outcome is allowed but a crash, a sanitizer report, a leak or a hang; every step must
// give a code the library documents for it.
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "support.hpp"

namespace {

std::string g_dir;
DBMInitParam g_param;

void put(char* field, const std::string& value) { std::snprintf(field, KESDB_PATH_MAX, "%s", value.c_str()); }

void writeTable(const std::string& path, const uint8_t* data, size_t size, uint32_t tableSize, bool pad) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) kf::fail("cannot write a table file");
    if (size > 0 && write(fd, data, size) != static_cast<ssize_t>(size)) kf::fail("cannot write a table file");
    if (pad && size < tableSize && ftruncate(fd, tableSize) != 0) kf::fail("cannot pad a table file");
    close(fd);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    kf::setUp();
    g_dir = kf::tempDirWithTable("tables");
    setenv("SIM_BYTE_ORDER", "BIG_ENDIAN", 1);
    for (const char* conf : {"/media.conf", "/hook.conf"}) writeTable(g_dir + conf, nullptr, 0, 0, false);
    put(g_param.sessionTablePath, g_dir + "/session.tbl");
    put(g_param.lockTablePath, g_dir + "/lock.tbl");
    put(g_param.mediaConfigPath, g_dir + "/media.conf");
    put(g_param.hookConfigPath, g_dir + "/hook.conf");
    std::atexit([] {
        for (const char* f : {"db.tbl", "session.tbl", "lock.tbl", "db.tbl.sem", "session.tbl.sem", "lock.tbl.sem",
                              "media.conf", "hook.conf"})
            unlink((g_dir + "/" + f).c_str());
        rmdir(g_dir.c_str());
    });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string files[3] = {g_dir + "/db.tbl", g_param.sessionTablePath, g_param.lockTablePath};
    const uint32_t sizes[3] = {KESDB_DBTABLE_SIZE, KESDB_SESSION_TABLE_SIZE, KESDB_LOCK_TABLE_SIZE};
    const uint8_t* part[3] = {};
    size_t length[3] = {};
    for (int i = 0; i < 3; ++i) {
        size_t n = size >= 2 ? static_cast<size_t>(data[0] | data[1] << 8) : 0;
        const size_t skip = size >= 2 ? 2 : size;
        data += skip;
        size -= skip;
        if (n > size) n = size;
        part[i] = data;
        length[i] = n;
        data += n;
        size -= n;
    }
    const bool pad = size > 0 && (data[0] & 1);
    for (int i = 0; i < 3; ++i) writeTable(files[i], part[i], length[i], sizes[i], pad);

    int32_t error = 0;
    const int32_t id = kesDBMInit(&g_param, &error);
    if (id < 0 && error == 0) kf::fail("a failed start-up gave no code");
    if (id >= 0) {
        Session s{};
        if (kesDBMInitSession(&s, static_cast<uint32_t>(id)) == 0) {
            if (kesDBMLock(&s, 16, 1) == 0) kesDBMUnlock(&s, 16);
            kesDBMTermSession(&s);
        }
        db_show(3);
        session_show(3);
        lock_show(3);
    }
    // A failed start-up is undone by its shut-down as well: the steps that were set up count it.
    kesDBMTerm(id >= 0 ? static_cast<uint32_t>(id) : 0u);
    return 0;
}
