// The memory-mapped medium driver: its six operations, growth, processes and threads sharing
// a medium, unloading, and the library running on mmap media.
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <thread>

#include "mediakit.hpp"
#include "treekit.hpp"

namespace {

using mk::Bytes;
using namespace std::string_literals;
constexpr const char* kLib = "libkesdrv_mmap.so";
constexpr uint32_t kMiB = 1u << 20;

// The driver opened by hand.
struct Driver {
    std::unique_ptr<mk::Lib> lib = std::make_unique<mk::Lib>(kLib);
    mk::Ops op{*lib, "mmapMedia_"};
    int32_t err = 0;
    void reload() {
        lib = nullptr;
        lib = std::make_unique<mk::Lib>(kLib);
        op = mk::Ops(*lib, "mmapMedia_");
    }
    int open(const std::string& name) { return op.open(name.c_str(), 0, &err); }
    Bytes read(int d, uint32_t offset, uint32_t length) {
        Bytes b(length);
        const int n = op.read(d, b.data(), length, offset, &err);
        b.resize(n < 0 ? 0 : static_cast<size_t>(n));
        return b;
    }
    int write(int d, uint32_t offset, const std::string& t) {
        return op.write(d, t.data(), static_cast<uint32_t>(t.size()), offset, &err);
    }
    int end(int d) { return op.seek(d, 0, SEEK_END, &err); }
};

Bytes bytesOf(const std::string& text) { return Bytes(text.begin(), text.end()); }
off_t fileSize(const std::string& path) { return std::filesystem::exists(path) ? std::filesystem::file_size(path) : -1; }

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

int openFilesOf(const std::string& path) {
    int count = 0;
    std::error_code ec;
    for (const auto& e : std::filesystem::directory_iterator("/proc/self/fd", ec))
        count += std::filesystem::read_symlink(e.path(), ec) == path;
    return count;
}

// Writes `path` with `text` and writes its pages back; false on a memory file system, where
// nothing is ever dirty.
bool layClean(const std::string& path, const std::string& text) {
    kt::writeFile(path, text);
    const int fd = ::open(path.c_str(), O_RDWR);
    fsync(fd);
    close(fd);
    struct statfs fs;
    return statfs(path.c_str(), &fs) == 0 && fs.f_type != 0x01021994 /* tmpfs */;
}

TEST(MmapDriver, OperationsBoundsAndDescriptors) {
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
    EXPECT_EQ(fileSize(dir.file("none")), -1);
    EXPECT_EQ(d.op.open(nullptr, 0, &d.err), -1);
    EXPECT_EQ(d.err, EFAULT);
    // One descriptor per name; close leaves it usable.
    const int fd = d.open(path);
    kt::writeFile(dir.file("other.bin"), "abc");
    const int other = d.open(dir.file("other.bin"));
    ASSERT_GE(fd, 0);
    EXPECT_NE(other, fd);
    EXPECT_EQ(d.open(path), fd);
    EXPECT_EQ(d.op.close(fd, &d.err), 0);
    // Reads and writes as pread and pwrite: short at the end, empty beyond, no wrap at 4 GiB.
    EXPECT_EQ(d.write(fd, 4, "ab"), 2);
    EXPECT_EQ(kt::readFile(path), "0123ab6789");
    kt::writeBytes(path, 8, "XY", 2);
    EXPECT_EQ(d.read(fd, 3, 7), bytesOf("3ab67XY"));
    EXPECT_EQ(d.read(fd, 8, 16), bytesOf("XY"));
    EXPECT_EQ(d.read(fd, 10, 4).size(), 0u);
    EXPECT_EQ(d.read(fd, 0xFFFFFFF0u, 0x20).size(), 0u);
    EXPECT_EQ(d.read(other, 0, 8), bytesOf("abc"));
    EXPECT_EQ(d.op.seek(fd, 5, SEEK_SET, &d.err), 5);
    EXPECT_EQ(d.op.seek(fd, 2, SEEK_CUR, &d.err), 7);
    EXPECT_EQ(d.op.seek(fd, 3, SEEK_END, &d.err), 13);
    EXPECT_EQ(d.op.seek(fd, 0, 7, &d.err), -1);
    EXPECT_EQ(d.err, EINVAL);
    EXPECT_EQ(d.op.write(fd, nullptr, 0, 100, &d.err), 0);
    EXPECT_EQ(fileSize(path), 10);
    EXPECT_EQ(d.op.read(fd, nullptr, 4, 0, &d.err), -1);
    EXPECT_EQ(d.err, EFAULT);
    uint8_t buf[4] = {};
    for (int bad : {-1, 2, 128}) {
        const std::function<int()> calls[] = {
            [&] { return d.op.read(bad, buf, 4, 0, &d.err); }, [&] { return d.op.write(bad, buf, 4, 0, &d.err); },
            [&] { return d.op.seek(bad, 0, SEEK_END, &d.err); }, [&] { return d.op.sync(bad, &d.err, 0); },
            [&] { return d.op.close(bad, &d.err); }};
        for (const auto& call : calls) {
            d.err = 0;
            EXPECT_EQ(call(), -1) << bad;
            EXPECT_EQ(d.err, EBADF) << bad;
        }
    }
    d.err = 1234;  // success leaves the error word alone
    EXPECT_EQ(d.write(fd, 0, "z"), 1);
    EXPECT_EQ(d.op.sync(fd, &d.err, 0), 0);
    EXPECT_EQ(d.err, 1234);
}

TEST(MmapDriver, WritesBeyondTheEndGrowTheFileAndTheMapping) {
    kt::TempDir dir;
    const std::string path = dir.file("m.bin");
    kt::writeFile(path, std::string(4096, 'a'));
    Driver d;
    const int fd = d.open(path);
    EXPECT_EQ(d.write(fd, 4094, "BCDE"), 4);
    EXPECT_EQ(d.write(fd, 5000, "gap"), 3);
    EXPECT_EQ(d.end(fd), 5003);
    EXPECT_EQ(d.read(fd, 4093, 6), bytesOf("aBCDE\0"s));
    const uint32_t far = 3 * kMiB;  // beyond the first mapping: mapped anew
    EXPECT_EQ(d.write(fd, far, "far"), 3);
    EXPECT_EQ(d.end(fd), static_cast<int>(far + 3));
    EXPECT_EQ(d.read(fd, far - 1, 8), bytesOf("\0far"s));
    EXPECT_EQ(d.read(fd, 0, 2), bytesOf("aa"));
    // A file extended behind the driver's back is seen beyond the known end.
    kt::writeBytes(path, 8 * kMiB, "outside", 7);
    EXPECT_EQ(d.write(fd, 8 * kMiB + 3, "IDE"), 3);
    EXPECT_EQ(kt::readBytes(path, 8 * kMiB, 7), bytesOf("outIDEe"));
    if (sizeof(void*) >= 8) {
        EXPECT_EQ(d.op.write(fd, "x", 1, 0xFFFFFFFFu, &d.err), 1);
        EXPECT_EQ(d.read(fd, 0xFFFFFFFFu, 4), bytesOf("x"));
    } else {  // a 32-bit process cannot map 4 GiB: refused, the rest stays readable
        EXPECT_EQ(d.op.write(fd, "x", 1, 0xFFFFFFFFu, &d.err), -1);
        EXPECT_EQ(d.read(fd, 8 * kMiB, 7), bytesOf("outIDEe"));
    }
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
    EXPECT_EQ(d.read(fd, 100, 5), bytesOf("child"));
    EXPECT_EQ(d.read(fd, far, 3), bytesOf("far"));
    // A child with a mapping of its own, running alongside: each waits for the other's write.
    d.reload();
    auto waitFor = [&](int desc, uint32_t offset, const std::string& text) {
        for (int i = 0; i < 2000 * kt::timeScale(); ++i, usleep(1000))
            if (d.read(desc, offset, static_cast<uint32_t>(text.size())) == bytesOf(text)) return true;
        return false;
    };
    const pid_t child = kt::forkChild([&] {
        const int own = d.open(path);
        return own >= 0 && waitFor(own, 200, "ping") && d.write(own, far + 3, "pong") == 4 ? 0 : 1;
    });
    const int mine = d.open(path);
    EXPECT_EQ(d.write(mine, 200, "ping"), 4);
    EXPECT_TRUE(waitFor(mine, far + 3, "pong"));
    EXPECT_EQ(kt::waitChild(child), 0);
    EXPECT_EQ(d.end(mine), static_cast<int>(far + 7));
}

TEST(MmapDriver, SyncWritesBackAndSyncModeWritesThrough) {
    kt::TempDir dir;
    const std::string lazy = dir.file("lazy.bin"), eager = dir.file("eager.bin");
    if (!layClean(lazy, std::string(65536, '\0')) || !layClean(eager, std::string(65536, '\0')))
        GTEST_SKIP() << "the temporary directory has no writeback";
    Driver d;
    const int l = d.open(lazy), e = d.open("sync:" + eager);
    EXPECT_EQ(d.write(l, 5000, "dirty"), 5);
    EXPECT_EQ(d.write(l, 40000, "dirty"), 5);
    EXPECT_GE(mapInfo(lazy).second, 8);
    EXPECT_EQ(d.op.sync(l, &d.err, 0), 0);
    EXPECT_EQ(mapInfo(lazy).second, 0);
    for (uint32_t offset : {0u, 4095u, 70000u}) {
        EXPECT_EQ(d.write(e, offset, "written"), 7);
        EXPECT_EQ(mapInfo(eager).second, 0) << offset;
    }
    const int plain = d.open(eager);  // another medium on the same file
    EXPECT_NE(plain, e);
    EXPECT_EQ(d.read(plain, 70000, 7), bytesOf("written"));
}

TEST(MmapDriver, UnloadReleasesMappingsAndReloadStartsAfresh) {
    kt::TempDir dir;
    const std::string path = dir.file("m.bin");
    kt::writeFile(path, std::string(100, '.'));
    {
        Driver d;
        const int fd = d.open(path);
        EXPECT_EQ(d.write(fd, 2 * kMiB, "grown"), 5);
        EXPECT_EQ(d.write(fd, 0, "kept"), 4);
        EXPECT_EQ(mapInfo(path).first, 2);
        EXPECT_EQ(openFilesOf(path), 1);
    }
    EXPECT_EQ(mapInfo(path).first, 0);
    EXPECT_EQ(openFilesOf(path), 0);
    EXPECT_EQ(kt::readBytes(path, 0, 4), bytesOf("kept"));
    ASSERT_EQ(unlink(path.c_str()), 0);
    kt::writeFile(path, "fresh file");
    Driver again;
    const int fd = again.open(path);
    EXPECT_EQ(fd, 0);
    EXPECT_EQ(again.read(fd, 0, 100), bytesOf("fresh file"));
}

TEST(MmapDriver, ThreadsOpenReadAndGrowAtOnce) {
    kt::TempDir dir;
    const std::string path = dir.file("m.bin"), header(4096, 'h');
    kt::writeFile(path, header);
    Driver d;
    std::atomic<int> ready{0}, bad{0};
    std::vector<int> got(8, -2);
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([&, t] {
            for (++ready; ready < 8;) std::this_thread::yield();
            got[t] = d.open(path);
        });
    for (std::thread& t : threads) t.join();
    threads.clear();
    for (int g : got) EXPECT_EQ(g, got[0]);
    const int fd = got[0];
    // Writers append 64 KiB chunks (many forcing a new mapping) while readers read page one.
    constexpr int kWriters = 4, kChunks = 24;
    constexpr uint32_t kChunk = 64 * 1024;
    std::atomic<bool> writing{true};
    for (int r = 0; r < 2; ++r)
        threads.emplace_back([&] {
            while (writing) bad += d.read(fd, 0, 4096) != bytesOf(header);
        });
    std::vector<std::thread> writers;
    for (int w = 0; w < kWriters; ++w)
        writers.emplace_back([&, w] {
            const std::string chunk(kChunk, static_cast<char>('A' + w));
            for (int c = 0; c < kChunks; ++c)
                bad += d.write(fd, 4096 + static_cast<uint32_t>(c * kWriters + w) * kChunk, chunk) != int(kChunk);
        });
    for (std::thread& t : writers) t.join();
    writing = false;
    for (std::thread& t : threads) t.join();
    EXPECT_EQ(bad, 0);
    for (int i = 0; i < kWriters * kChunks; ++i)
        ASSERT_EQ(d.read(fd, 4096 + static_cast<uint32_t>(i) * kChunk, kChunk), Bytes(kChunk, 'A' + i % kWriters)) << i;
}

// A database whose records and data all live in one mmap medium (index 1).
std::unique_ptr<kt::Db> mmapDb(const std::string& prefix) {
    kt::DbOptions o;
    o.start = false;
    o.mediumSize = 256 * 1024;
    o.componentMedium = o.valueMedium = o.constraintMedium = o.stringMedium = 1;
    auto db = std::make_unique<kt::Db>(o);
    kt::writeFile(db->param.mediaConfigPath, mk::driverLine(kLib, "mmapMedia_", prefix + db->mediumPath));
    db->start();
    return db;
}

TEST(MmapDb, LibraryRunsOnMmapMediaAcrossProcesses) {
    auto db = mmapDb("");
    ASSERT_GT(db->id, 0);
    Session* s = &db->s;
    const uint32_t root = tk::makeRoot(s, "/");
    // Enough data and leaves to grow the medium well past its first mapping.
    ASSERT_NE(kesDBMCreateValue(s, Generic, 0, nullptr, static_cast<int32_t>(2 * kMiB), 1), 0u);
    uint32_t previous = 0, v = 0;
    for (uint32_t i = 0; i < 300; ++i) ASSERT_NE(previous = tk::leaf(s, root, previous, "l" + std::to_string(i), tk::u32(s, i)), 0u);
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
        if (kesDBMInitSession(&own, static_cast<uint32_t>(db->id)) != 0 || increment(&own) != 0) return 1;
        return tk::leaf(&own, root, 0, "fromChild", tk::u32(&own, 77)) != 0 ? 0 : 2;
    });
    EXPECT_EQ(increment(s), 0);
    EXPECT_EQ(kt::waitChild(child), 0);
    db->stop();
    // The file holds the database: the named-file driver reads it the same.
    kt::DbOptions o;
    o.mediumSize = 0;
    o.componentMedium = o.valueMedium = o.constraintMedium = o.stringMedium = 1;
    o.mediaConfig = mk::driverLine("libkesdrv_file.so", "fileMedia_", db->mediumPath);
    kt::Db viaFile(o);
    Session* f = &viaFile.s;
    EXPECT_EQ(tk::leafU32(f, kesDBMSearchByName(f, "/counter")), 400u);
    EXPECT_EQ(tk::leafU32(f, kesDBMSearchByName(f, "/fromChild")), 77u);
    EXPECT_EQ(tk::leafU32(f, kesDBMSearchByName(f, "/l299")), 299u);
}

}  // namespace
