// The memory-mapped medium driver: its operations, growth, processes sharing a medium, the
// writeback modes, and the library running on mmap media across processes.
#include <sys/statfs.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "treekit.hpp"

namespace {

using mk::Bytes;
using namespace std::string_literals;
constexpr const char* kLib = "libkesdrv_mmap.so";
constexpr uint32_t kMiB = 1u << 20;

// The driver opened by hand.
struct Driver {
    mk::Lib lib{kLib};
    mk::Ops op{lib, "mmapMedia_"};
    int32_t err = 0;
    int open(const std::string& name) { return op.open(name.c_str(), 0, &err); }
    std::string read(int d, uint32_t offset, uint32_t length) {
        std::string b(length, '\0');
        return b.substr(0, std::max(0, op.read(d, b.data(), length, offset, &err)));
    }
    int write(int d, uint32_t offset, const std::string& t) {
        return op.write(d, t.data(), static_cast<uint32_t>(t.size()), offset, &err);
    }
    int end(int d) { return op.seek(d, 0, SEEK_END, &err); }
};

// Mappings of `path` in this process and their dirty kilobytes, from /proc/self/smaps.
std::pair<int, long> mapInfo(const std::string& path) {
    std::ifstream smaps("/proc/self/smaps");
    int mappings = 0;
    long dirty = 0, kb = 0;
    bool inside = false;
    for (std::string line; std::getline(smaps, line);) {
        std::istringstream w(line);
        std::string first, skip, name;
        w >> first;
        if (!first.empty() && first.back() != ':') {
            w >> skip >> skip >> skip >> skip >> name;
            mappings += inside = name == path;
        } else if (inside && (first == "Shared_Dirty:" || first == "Private_Dirty:") && w >> kb) {
            dirty += kb;
        }
    }
    return {mappings, dirty};
}

TEST(MmapDriver, OperationsGrowthAndBounds) {
    kt::TempDir dir;
    const std::string path = dir.file("m.bin");
    kt::writeFile(path, "0123456789");
    Driver d;
    ASSERT_TRUE(d.op.ok());
    // Only an existing regular file opens; nothing is created.
    for (const auto& [name, number] : {std::pair<std::string, int>{dir.file("none"), ENOENT}, {dir.path(), EISDIR},
                                       {"/dev/null", ENODEV}}) {
        EXPECT_EQ(d.open(name), -1) << name;
        EXPECT_EQ(d.err, number) << name;
    }
    EXPECT_EQ(access(dir.file("none").c_str(), F_OK), -1);
    const int fd = d.open(path);
    EXPECT_TRUE(fd >= 0 && d.open(path) == fd);  // one descriptor per name
    EXPECT_EQ(d.write(fd, 4, "ab"), 2);
    kt::writeBytes(path, 8, "XY", 2);  // writes to the file are seen through the mapping
    EXPECT_TRUE(d.read(fd, 3, 7) == "3ab67XY" && d.read(fd, 8, 16) == "XY");
    EXPECT_EQ(d.read(fd, 0xFFFFFFF0u, 0x20), "");  // no wrap at 4 GiB
    EXPECT_TRUE(d.op.seek(fd, 5, SEEK_SET, &d.err) == 5 && d.op.seek(fd, 2, SEEK_CUR, &d.err) == 7);
    EXPECT_TRUE(d.op.seek(fd, 0, 7, &d.err) == -1 && d.err == EINVAL);
    char buf[4] = {};
    for (int bad : {-1, 2, 128}) {
        d.err = 0;
        EXPECT_EQ(d.op.read(bad, buf, 4, 0, &d.err) + d.op.write(bad, buf, 4, 0, &d.err) + d.op.sync(bad, &d.err, 0) +
                      d.op.seek(bad, 0, SEEK_END, &d.err) + d.op.close(bad, &d.err), -5);
        EXPECT_EQ(d.err, EBADF);
    }
    // Writes beyond the end grow the file, far ones into a mapping of their own.
    EXPECT_TRUE(d.write(fd, 12, "gap") == 3 && d.read(fd, 9, 6) == "Y\0\0gap"s);
    EXPECT_TRUE(d.write(fd, 3 * kMiB, "far") == 3 && d.end(fd) == static_cast<int>(3 * kMiB + 3));
    EXPECT_EQ(d.read(fd, 3 * kMiB - 1, 8), "\0far"s);
    kt::writeBytes(path, 8 * kMiB, "outside", 7);  // extended behind the driver's back
    EXPECT_TRUE(d.write(fd, 8 * kMiB + 3, "IDE") == 3 && d.read(fd, 8 * kMiB, 7) == "outIDEe");
    d.err = 1234;  // success leaves the error word alone
    EXPECT_TRUE(d.op.sync(fd, &d.err, 0) == 0 && d.err == 1234);
}

TEST(MmapDriver, ProcessesSeeEachOthersWritesAndAppends) {
    kt::TempDir dir;
    const std::string path = dir.file("m.bin");
    kt::writeFile(path, std::string(4096, '\0'));
    Driver d;
    const int fd = d.open(path);
    const uint32_t far = 4096 + 2 * kMiB;
    // A child with the inherited mapping writes inside it and appends far beyond.
    EXPECT_EQ(kt::runChild([&] { return d.write(fd, 100, "child") == 5 && d.write(fd, far, "far") == 3 ? 0 : 1; }), 0);
    EXPECT_TRUE(d.read(fd, 100, 5) == "child" && d.read(fd, far, 3) == "far");
    // A child with a mapping of its own (another name of the file is another medium), running
    // alongside: each waits for the other's write.
    const std::string alias = dir.path() + "/./m.bin";
    auto waitFor = [&](int desc, uint32_t offset, const std::string& text) {
        for (int i = 0; i < 2000 * kt::timeScale(); ++i, usleep(1000))
            if (d.read(desc, offset, static_cast<uint32_t>(text.size())) == text) return true;
        return false;
    };
    const pid_t child = kt::forkChild([&] {
        const int own = d.open(alias);
        return own >= 0 && waitFor(own, 200, "ping") && d.write(own, far + 3, "pong") == 4 ? 0 : 1;
    });
    const int mine = d.open(alias);
    EXPECT_TRUE(d.write(mine, 200, "ping") == 4 && waitFor(mine, far + 3, "pong"));
    EXPECT_TRUE(kt::waitChild(child) == 0 && d.end(mine) == static_cast<int>(far + 7));
}

// A plain medium's pages stay dirty until sync; a "sync:" medium writes every change through,
// whether the option begins the name or the file's own name (a directory's relative name
// made absolute: "DIR/sync:FILE").
TEST(MmapDriver, SyncWritesBackAndSyncModeWritesThrough) {
    kt::TempDir dir;
    const std::string lazy = dir.file("lazy.bin"), eager = dir.file("eager.bin");
    for (const std::string& file : {lazy, eager}) {
        kt::writeFile(file, std::string(65536, '\0'));
        const int fd = ::open(file.c_str(), O_RDWR);
        fsync(fd);
        close(fd);
    }
    struct statfs fs;
    if (statfs(lazy.c_str(), &fs) != 0 || fs.f_type == 0x01021994 /* tmpfs */)
        GTEST_SKIP() << "the temporary directory has no writeback";
    Driver d;
    const int l = d.open(lazy), e = d.open("sync:" + eager), inDir = d.open(dir.file("sync:eager.bin"));
    EXPECT_TRUE(d.write(l, 5000, "dirty") == 5 && d.write(l, 40000, "dirty") == 5);
    EXPECT_GE(mapInfo(lazy).second, 8);
    EXPECT_TRUE(d.op.sync(l, &d.err, 0) == 0 && mapInfo(lazy).second == 0);
    for (uint32_t offset : {0u, 4095u, 70000u}) {
        EXPECT_EQ(d.write(e, offset, "written"), 7);
        EXPECT_EQ(d.write(inDir, offset + 8, "written"), 7);
        EXPECT_EQ(mapInfo(eager).second, 0) << offset;
    }
    const int plain = d.open(eager);  // another medium on the same file
    EXPECT_TRUE(plain != e && d.read(plain, 70000, 7) == "written");
}

TEST(MmapDb, LibraryRunsOnMmapMediaAcrossProcesses) {
    kt::DbOptions o;
    o.start = false;
    o.mediumSize = 256 * 1024;
    o.componentMedium = o.valueMedium = o.constraintMedium = o.stringMedium = 1;
    kt::Db db(o);
    kt::writeFile(db.param.mediaConfigPath, mk::driverLine(kLib, "mmapMedia_", db.mediumPath));
    ASSERT_GT(db.start(), 0);
    Session* s = &db.s;
    const uint32_t root = tk::makeRoot(s, "/");
    // Enough data to grow the medium well past its first mapping.
    ASSERT_NE(kesDBMCreateValue(s, Generic, 0, nullptr, static_cast<int32_t>(2 * kMiB), 1), 0u);
    uint32_t v = 0;
    const uint32_t counter = tk::leaf(s, root, 0, "counter", tk::u32(s, 0));
    auto increment = [&](Session* own) {
        for (int i = 0; i < 200; ++i)
            if (kesDBMLock(own, counter, 0) || kesDBMGetUint32(own, counter, &v) || kesDBMSetUint32(own, counter, v + 1) ||
                kesDBMUnlock(own, counter))
                return 1;
        return 0;
    };
    const pid_t child = kt::forkChild([&] {
        Session own{};
        if (kesDBMInitSession(&own, static_cast<uint32_t>(db.id)) != 0 || increment(&own) != 0) return 1;
        return tk::leaf(&own, root, 0, "fromChild", tk::u32(&own, 77)) != 0 ? 0 : 2;
    });
    EXPECT_EQ(increment(s), 0);
    EXPECT_EQ(kt::waitChild(child), 0);
    EXPECT_EQ(tk::leafU32(s, kesDBMSearchByName(s, "/counter")), 400u);
    EXPECT_EQ(tk::leafU32(s, kesDBMSearchByName(s, "/fromChild")), 77u);
}

}  // namespace
