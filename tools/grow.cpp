// kesdb grow: a database's media enlarged in place. Each medium file is extended to the size
// asked for and the new space, behind everything the file holds (records and the data and
// names appended behind them), is handed to the medium's free list through the allocator's
// own release, so later additions and migrations find room. The root is locked meanwhile.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "registration.hpp"
#include "sizing.hpp"

namespace kesdb {

namespace {

// Most free elements walked to find the last one.
constexpr uint32_t kFreeWalkMax = 1u << 22;

// Adds the block [key, key + bytes) behind the last element of the medium's free list (the
// allocator's release records no block behind its last element). The element is written
// before it is linked, so a kill in between leaves the list as it was.
void appendFree(Database& db, uint32_t medium, uint32_t key, uint32_t bytes, const std::string& file) {
    Session& s = db.s;
    s.error = 0;
    auto broken = [&](const std::string& why) {
        if (s.error != 0) failCode("grow: " + file + ": cannot " + why, static_cast<int32_t>(s.error));
        fail("grow: " + file + ": cannot " + why + " ('kesdb check' lists what is wrong)");
    };
    uint32_t last = 0;
    uint32_t steps = 0;
    for (uint32_t at = flst_m_getFirstOffset(&s, medium); at != 0; ++steps) {
        FreeElement e{};
        if (s.error != 0 || steps > kFreeWalkMax || at <= last || !flst_m_getElement(&s, medium, at, &e))
            broken("follow its free list");
        last = at;
        at = e.next;
    }
    if (s.error != 0) broken("read its free list");
    const FreeElement block{0, bytes};
    if (flst_m_setElement(&s, medium, key, &block) != 0 || s.error != 0) broken("write the new free block");
    const int32_t rc = last == 0 ? flst_m_setFirstOffset(&s, medium, key) : flst_m_setNext(&s, medium, last, key);
    if (rc != 0 || s.error != 0) broken("link the new free block");
}

}  // namespace

int cmdGrow(const std::string& dir, uint32_t size) {
    Database db(dir);
    const uint32_t root = db.root();
    requireRegisteredLocks(db);
    if (int32_t rc = kesDBMLock(&db.s, root, 1); rc != 0)
        fail("grow: " + codeText(rc) + " (the database is locked; try again when it is not)", exitFor(rc));
    struct Unlock {
        Database& db;
        uint32_t root;
        ~Unlock() { kesDBMUnlock(&db.s, root); }
    } unlock{db, root};

    const DBMInitParam& p = db.param();
    std::vector<uint32_t> done;
    for (uint32_t index : {p.componentMedium, p.valueMedium, p.constraintMedium, p.stringMedium}) {
        if (std::find(done.begin(), done.end(), index) != done.end()) continue;
        done.push_back(index);
        const char* defmedia = kesdb_defMediaFile();
        const std::string file = index == 0 ? (defmedia ? defmedia : "")
                                 : static_cast<int32_t>(index) < media_getCount() && media_table[index].name
                                     ? media_table[index].name
                                     : "";
        const int fd = open(file.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC);
        struct stat st {};
        if (fd < 0 || fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
            const std::string why = fd < 0 ? std::strerror(errno) : "not a regular file";
            if (fd >= 0) close(fd);
            fail("grow: medium " + std::to_string(index) + " ('" + file + "'): " + why +
                 "; only media kept in files can grow");
        }
        // The new block starts on an 8-byte boundary behind the file's end.
        const uint64_t start = (static_cast<uint64_t>(st.st_size) + 7) & ~7ull;
        if (start + 8 > size) {
            close(fd);
            std::fprintf(stderr, "kesdb: %s: already %lld bytes\n", file.c_str(), static_cast<long long>(st.st_size));
            continue;
        }
        const int grown = ftruncate(fd, static_cast<off_t>(size));
        const int err = errno;
        close(fd);
        if (grown != 0) fail("grow: cannot extend " + file + " to " + std::to_string(size) + " bytes: " + std::strerror(err));
        const uint32_t key = static_cast<uint32_t>(start), bytes = static_cast<uint32_t>(size - start);
        appendFree(db, index, key, bytes, file);
        std::fprintf(stderr, "kesdb: %s: %lld -> %u bytes, %u bytes more free\n", file.c_str(),
                     static_cast<long long>(st.st_size), size, bytes);
    }
    return kExitOk;
}

}  // namespace kesdb
