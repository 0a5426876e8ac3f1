// The memory-mapped medium driver: its six operations on their own, across processes and
// threads, across unloading, and the library running on mmap media.
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/statfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "kesdbm/kesdbm.h"
#include "mediakit.hpp"
#include "testkit.hpp"
#include "treekit.hpp"

namespace {

using mk::Bytes;
using namespace std::string_literals;

constexpr const char* kLib = "libkesdrv_mmap.so";
constexpr uint32_t kMiB = 1u << 20;

// The driver opened by hand: a library handle and its six operations.
struct Driver {
    std::unique_ptr<mk::Lib> lib = std::make_unique<mk::Lib>(kLib);
    mk::Ops op{*lib, "mmapMedia_"};
    // Unloads the library (when this was its only handle) and loads it again.
    void reload() {
        lib.reset();
        lib = std::make_unique<mk::Lib>(kLib);
        op = mk::Ops(*lib, "mmapMedia_");
    }
    static inline thread_local int32_t scratch = 0;  // the error word where a caller passes none
    int open(const std::string& name, int32_t* err = &scratch) { return op.open(name.c_str(), 0, err); }
    Bytes read(int d, uint32_t offset, uint32_t length, int* count = nullptr) {
        Bytes bytes(length);
        const int n = op.read(d, bytes.data(), length, offset, &scratch);
        if (count) *count = n;
        bytes.resize(n < 0 ? 0 : static_cast<size_t>(n));
        return bytes;
    }
    int write(int d, uint32_t offset, const std::string& text) {
        return op.write(d, text.data(), static_cast<uint32_t>(text.size()), offset, &scratch);
    }
    int end(int d) { return op.seek(d, 0, SEEK_END, &scratch); }
};

Bytes bytesOf(const std::string& text) { return Bytes(text.begin(), text.end()); }

off_t fileSize(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

// Mappings of `path` in this process, and the kilobytes of them that are dirty (written and
// not yet written back), from /proc/self/smaps.
struct MapInfo {
    int mappings = 0;
    long dirtyKb = 0;
};
MapInfo mapInfo(const std::string& path) {
    MapInfo info;
    std::ifstream smaps("/proc/self/smaps");
    bool inside = false;
    for (std::string line; std::getline(smaps, line);) {
        std::istringstream words(line);
        std::string first, perms, offset, dev, inode, name;
        long kb = 0;
        words >> first;
        if (!first.empty() && first.back() != ':') {  // a mapping's header line
            words >> perms >> offset >> dev >> inode >> name;
            inside = name == path;
            info.mappings += inside;
        } else if (inside && (first == "Shared_Dirty:" || first == "Private_Dirty:") && words >> kb) {
            info.dirtyKb += kb;
        }
    }
    return info;
}

// Open descriptors of this process that refer to `path`.
int openFilesOf(const std::string& path) {
    int count = 0;
    std::error_code ec;
    for (const auto& e : std::filesystem::directory_iterator("/proc/self/fd", ec))
        count += std::filesystem::read_symlink(e.path(), ec) == path;
    return count;
}

// Writes the file's pages back, so that only what a test writes afterwards shows as dirty.
void writeBack(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(fsync(fd), 0);
    close(fd);
}

// True when writes to files in `dir` go through writeback (not a memory file system).
bool hasWriteback(const std::string& dir) {
    struct statfs fs;
    return statfs(dir.c_str(), &fs) == 0 && fs.f_type != 0x01021994 /* tmpfs */;
}

TEST(MmapDriver, RoundTripsBoundsAndDescriptors) {
    kt::TempDir dir;
    const std::string path = dir.file("m.bin");
    kt::writeFile(path, "0123456789");
    Driver d;
    ASSERT_TRUE(d.op.ok());

    // A missing file is not created; only a regular file has a size to map.
    int32_t err = 0;
    for (const auto& [name, number] : {std::pair<std::string, int>{dir.file("none"), ENOENT}, {dir.path(), EISDIR},
                                       {"/dev/null", ENODEV}}) {
        EXPECT_EQ(d.open(name, &err), -1) << name;
        EXPECT_EQ(err, number) << name;
    }
    EXPECT_EQ(fileSize(dir.file("none")), -1);
    EXPECT_EQ(d.op.open(nullptr, 0, &err), -1);
    EXPECT_EQ(err, EFAULT);

    // One descriptor per name, handed out again by every open; close leaves it usable.
    const int fd = d.open(path);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(d.open(path), fd);
    kt::writeFile(dir.file("other.bin"), "abc");
    const int other = d.open(dir.file("other.bin"));
    EXPECT_GE(other, 0);
    EXPECT_NE(other, fd);
    EXPECT_EQ(d.open(path), fd);
    EXPECT_EQ(d.op.close(fd, &err), 0);
    EXPECT_EQ(d.read(fd, 0, 4), bytesOf("0123"));

    // Writes land in the file; reads see the file, like pread: short at the end, empty beyond.
    EXPECT_EQ(d.write(fd, 4, "ab"), 2);
    EXPECT_EQ(kt::readFile(path), "0123ab6789");
    kt::writeBytes(path, 8, "XY", 2);  // written through the file: seen through the mapping
    EXPECT_EQ(d.read(fd, 3, 7), bytesOf("3ab67XY"));
    int count = 0;
    EXPECT_EQ(d.read(fd, 8, 16, &count), bytesOf("XY"));
    EXPECT_EQ(count, 2);
    EXPECT_EQ(d.read(fd, 10, 4, &count).size(), 0u);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(d.read(fd, 0xFFFFFFF0u, 0x20, &count).size(), 0u);  // end beyond 4 GiB
    EXPECT_EQ(count, 0);
    EXPECT_EQ(d.read(other, 0, 8), bytesOf("abc"));  // each name its own file

    // Seek moves a position of the medium as lseek does; the end is the file's size.
    EXPECT_EQ(d.op.seek(fd, 5, SEEK_SET, &err), 5);
    EXPECT_EQ(d.op.seek(fd, 2, SEEK_CUR, &err), 7);
    EXPECT_EQ(d.op.seek(fd, 0, SEEK_END, &err), 10);
    EXPECT_EQ(d.op.seek(fd, 3, SEEK_END, &err), 13);
    err = 0;
    EXPECT_EQ(d.op.seek(fd, 0, 7, &err), -1);
    EXPECT_EQ(err, EINVAL);

    // Empty transfers move nothing; a missing buffer is refused; bad descriptors fail alike.
    EXPECT_EQ(d.op.read(fd, nullptr, 0, 0, &err), 0);
    EXPECT_EQ(d.op.write(fd, nullptr, 0, 100, &err), 0);
    EXPECT_EQ(fileSize(path), 10);
    err = 0;
    EXPECT_EQ(d.op.read(fd, nullptr, 4, 0, &err), -1);
    EXPECT_EQ(err, EFAULT);
    err = 0;
    EXPECT_EQ(d.op.write(fd, nullptr, 4, 0, &err), -1);
    EXPECT_EQ(err, EFAULT);
    uint8_t buf[4] = {};
    for (int bad : {-1, 2, 127, 128, 1000}) {
        SCOPED_TRACE(bad);
        const std::pair<const char*, std::function<int()>> calls[] = {
            {"read", [&] { return d.op.read(bad, buf, 4, 0, &err); }},
            {"write", [&] { return d.op.write(bad, buf, 4, 0, &err); }},
            {"seek", [&] { return d.op.seek(bad, 0, SEEK_END, &err); }},
            {"sync", [&] { return d.op.sync(bad, &err, 0); }},
            {"close", [&] { return d.op.close(bad, &err); }},
        };
        for (const auto& [what, call] : calls) {
            SCOPED_TRACE(what);
            err = 0;
            EXPECT_EQ(call(), -1);
            EXPECT_EQ(err, EBADF);
        }
    }
    // A succeeding operation leaves the error word alone.
    err = 1234;
    EXPECT_EQ(d.read(fd, 0, 1).size(), 1u);
    EXPECT_EQ(d.op.write(fd, "z", 1, 0, &err), 1);
    EXPECT_EQ(d.op.sync(fd, &err, 0), 0);
    EXPECT_EQ(err, 1234);
}

TEST(MmapDriver, WritesBeyondTheEndGrowTheFileAndTheMapping) {
    kt::TempDir dir;
    const std::string path = dir.file("m.bin");
    kt::writeFile(path, std::string(4096, 'a'));
    Driver d;
    const int fd = d.open(path);
    ASSERT_GE(fd, 0);

    // Across the end, then past it with a gap that reads as zeros.
    EXPECT_EQ(d.write(fd, 4094, "BCDE"), 4);
    EXPECT_EQ(fileSize(path), 4098);
    EXPECT_EQ(d.write(fd, 5000, "gap"), 3);
    EXPECT_EQ(fileSize(path), 5003);
    EXPECT_EQ(d.end(fd), 5003);
    EXPECT_EQ(d.read(fd, 4093, 6), bytesOf("aBCDE\0"s));
    EXPECT_EQ(d.read(fd, 4998, 10), bytesOf("\0\0gap"s));

    // Far beyond what the first mapping covers: the medium is mapped anew, and what was
    // there before reads the same through the new mapping.
    const uint32_t far = 3 * kMiB;
    EXPECT_EQ(d.write(fd, far, "far"), 3);
    EXPECT_EQ(d.end(fd), static_cast<int>(far + 3));
    EXPECT_EQ(d.read(fd, far - 1, 8), bytesOf("\0far"s));
    EXPECT_EQ(d.read(fd, 0, 2), bytesOf("aa"));
    EXPECT_EQ(d.write(fd, far + 1, "AR"), 2);  // now inside: a plain copy
    EXPECT_EQ(kt::readBytes(path, far, 3), bytesOf("fAR"));

    // A file extended behind the driver's back is seen by the next access beyond the known end.
    kt::writeBytes(path, 8 * kMiB, "outside", 7);
    EXPECT_EQ(d.read(fd, 8 * kMiB, 7), bytesOf("outside"));
    EXPECT_EQ(d.write(fd, 8 * kMiB + 3, "IDE"), 3);
    EXPECT_EQ(kt::readBytes(path, 8 * kMiB, 7), bytesOf("outIDEe"));
    // Offsets and lengths near the top of the 32-bit range do not wrap around.
    int32_t err = 0;
    if (sizeof(void*) >= 8) {
        EXPECT_EQ(d.op.write(fd, "x", 1, 0xFFFFFFFFu, &err), 1);
        EXPECT_EQ(fileSize(path), 0x100000000LL);
        EXPECT_EQ(d.read(fd, 0xFFFFFFFFu, 4), bytesOf("x"));
    } else {
        // A 32-bit process cannot map a 4 GiB medium: the write is refused with an error
        // number, and what was there stays readable.
        EXPECT_EQ(d.op.write(fd, "x", 1, 0xFFFFFFFFu, &err), -1);
        EXPECT_NE(err, 0);
        EXPECT_EQ(d.read(fd, 8 * kMiB, 7), bytesOf("outIDEe"));
    }
}

TEST(MmapDriver, ProcessesSeeEachOthersWritesAndAppends) {
    kt::TempDir dir;
    const std::string path = dir.file("m.bin");
    kt::writeFile(path, std::string(4096, '\0'));
    Driver d;
    const int fd = d.open(path);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(d.write(fd, 10, "parent"), 6);

    // A child that inherited the mapping writes inside it and appends twice, once far beyond
    // what this process has mapped.
    const uint32_t far = 4096 + 2 * kMiB;
    EXPECT_EQ(kt::runChild([&] {
                  if (d.read(fd, 10, 6) != bytesOf("parent")) return 1;
                  if (d.write(fd, 100, "child") != 5) return 2;
                  if (d.write(fd, 4096, "appended") != 8) return 3;
                  return d.write(fd, far, "far") == 3 ? 0 : 4;
              }),
              0);
    EXPECT_EQ(d.read(fd, 100, 5), bytesOf("child"));
    EXPECT_EQ(d.read(fd, 4096, 8), bytesOf("appended"));
    EXPECT_EQ(d.read(fd, far, 3), bytesOf("far"));
    EXPECT_EQ(d.end(fd), static_cast<int>(far + 3));

    // A child that starts the driver afresh (its own mapping) and runs at the same time as
    // this process: each waits for the other's write through the shared file.
    d.reload();
    ASSERT_TRUE(d.op.ok());
    auto waitFor = [&](int desc, uint32_t offset, const std::string& text) {
        for (int i = 0; i < 2000; ++i) {
            if (d.read(desc, offset, static_cast<uint32_t>(text.size())) == bytesOf(text)) return true;
            usleep(1000);
        }
        return false;
    };
    pid_t child = kt::forkChild([&] {
        const int own = d.open(path);
        if (own < 0 || d.read(own, far, 3) != bytesOf("far")) return 1;
        if (!waitFor(own, 200, "ping")) return 2;
        if (d.write(own, far + 3, "pong") != 4) return 3;  // appended by the child
        return 0;
    });
    const int mine = d.open(path);
    ASSERT_GE(mine, 0);
    EXPECT_EQ(d.write(mine, 200, "ping"), 4);
    EXPECT_TRUE(waitFor(mine, far + 3, "pong"));
    EXPECT_EQ(kt::waitChild(child), 0);
    EXPECT_EQ(d.end(mine), static_cast<int>(far + 7));
}

TEST(MmapDriver, SyncWritesBackAndSyncModeWritesThrough) {
    kt::TempDir dir;
    if (!hasWriteback(dir.path())) GTEST_SKIP() << "the temporary directory has no writeback";
    const std::string lazy = dir.file("lazy.bin"), eager = dir.file("eager.bin");
    kt::writeFile(lazy, std::string(64 * 1024, '\0'));
    kt::writeFile(eager, std::string(64 * 1024, '\0'));
    writeBack(lazy);
    writeBack(eager);
    Driver d;
    const int l = d.open(lazy);
    const int e = d.open("sync:" + eager);
    ASSERT_GE(l, 0);
    ASSERT_GE(e, 0);
    EXPECT_EQ(mapInfo(lazy).mappings, 1);
    EXPECT_EQ(mapInfo(eager).mappings, 1);

    // Plain medium: written pages stay dirty until the medium is synced.
    EXPECT_EQ(d.write(l, 5000, "dirty"), 5);
    EXPECT_EQ(d.write(l, 40000, "dirty"), 5);
    EXPECT_GE(mapInfo(lazy).dirtyKb, 8);
    int32_t err = 0;
    EXPECT_EQ(d.op.sync(l, &err, 0), 0);
    EXPECT_EQ(mapInfo(lazy).dirtyKb, 0);

    // "sync:" medium: every write has been written back when it returns, growth included.
    for (uint32_t offset : {0u, 4095u, 30000u, 70000u}) {
        SCOPED_TRACE(offset);
        EXPECT_EQ(d.write(e, offset, "written"), 7);
        EXPECT_EQ(mapInfo(eager).dirtyKb, 0);
    }
    EXPECT_EQ(kt::readBytes(eager, 4095, 7), bytesOf("written"));
    EXPECT_EQ(kt::readBytes(eager, 70000, 7), bytesOf("written"));
    // The same file under both names: two media sharing the file's contents.
    const int plain = d.open(eager);
    EXPECT_NE(plain, e);
    EXPECT_EQ(d.read(plain, 30000, 7), bytesOf("written"));
}

TEST(MmapDriver, UnloadReleasesMappingsAndReloadStartsAfresh) {
    kt::TempDir dir;
    const std::string path = dir.file("m.bin");
    kt::writeFile(path, std::string(100, '.'));
    {
        Driver d;
        const int fd = d.open(path);
        ASSERT_GE(fd, 0);
        EXPECT_EQ(d.write(fd, 2 * kMiB, "grown"), 5);  // a second, larger mapping
        EXPECT_EQ(d.write(fd, 0, "kept"), 4);
        EXPECT_EQ(mapInfo(path).mappings, 2);
        EXPECT_EQ(openFilesOf(path), 1);
    }  // the only handle is closed: the library is unloaded
    EXPECT_EQ(mapInfo(path).mappings, 0);
    EXPECT_EQ(openFilesOf(path), 0);
    EXPECT_EQ(kt::readBytes(path, 0, 4), bytesOf("kept"));

    // Replaced by another file of the same name: the reloaded driver maps the new one.
    ASSERT_EQ(unlink(path.c_str()), 0);
    kt::writeFile(path, "fresh file");
    Driver again;
    const int fd = again.open(path);
    EXPECT_EQ(fd, 0);  // descriptors count from 0 again
    EXPECT_EQ(again.read(fd, 0, 100), bytesOf("fresh file"));
    EXPECT_EQ(again.end(fd), 10);
}

TEST(MmapDriver, ThreadsOpenReadAndGrowAtOnce) {
    kt::TempDir dir;
    const std::string path = dir.file("m.bin");
    const std::string header(4096, 'h');
    kt::writeFile(path, header);
    Driver d;

    // Threads opening a new name at once all get the one descriptor.
    constexpr int kOpeners = 8;
    std::atomic<int> ready{0};
    std::vector<int> got(kOpeners, -2);
    std::vector<std::thread> threads;
    for (int t = 0; t < kOpeners; ++t)
        threads.emplace_back([&, t] {
            ++ready;
            while (ready < kOpeners) std::this_thread::yield();
            got[t] = d.open(path);
        });
    for (std::thread& t : threads) t.join();
    threads.clear();
    ASSERT_GE(got[0], 0);
    for (int g : got) EXPECT_EQ(g, got[0]);
    const int fd = got[0];

    // Writers append 64 KiB chunks far past the end (each forcing a look at the size, many a
    // new mapping) while readers copy from the first page through whatever mapping is current.
    constexpr int kWriters = 4, kChunks = 24;
    constexpr uint32_t kChunk = 64 * 1024;
    std::atomic<bool> writing{true};
    std::atomic<int> badReads{0}, badWrites{0};
    for (int r = 0; r < 2; ++r)
        threads.emplace_back([&] {
            while (writing) badReads += d.read(fd, 0, 4096) != bytesOf(header);
        });
    std::vector<std::thread> writers;
    for (int w = 0; w < kWriters; ++w) {
        writers.emplace_back([&, w] {
            const std::string chunk(kChunk, static_cast<char>('A' + w));
            for (int c = 0; c < kChunks; ++c) {
                const uint32_t offset = 4096 + static_cast<uint32_t>((c * kWriters + w)) * kChunk;
                if (d.write(fd, offset, chunk) != static_cast<int>(kChunk)) ++badWrites;
            }
        });
    }
    for (std::thread& t : writers) t.join();
    writing = false;
    for (std::thread& t : threads) t.join();
    EXPECT_EQ(badReads, 0);
    EXPECT_EQ(badWrites, 0);
    EXPECT_EQ(d.end(fd), static_cast<int>(4096 + kWriters * kChunks * kChunk));
    for (int i = 0; i < kWriters * kChunks; ++i) {
        const uint32_t offset = 4096 + static_cast<uint32_t>(i) * kChunk;
        const Bytes expect(kChunk, static_cast<uint8_t>('A' + i % kWriters));
        ASSERT_EQ(d.read(fd, offset, kChunk), expect) << "chunk " << i;
    }
}

// A database whose four kinds of record and value data all live in one mmap medium (index 1),
// the file laid down by the test kit; `prefix` is the medium name's option.
struct MmapDb : ::testing::Test {
    std::unique_ptr<kt::Db> db;
    Session* s = nullptr;
    void startWith(const std::string& prefix) {
        kt::DbOptions o;
        o.start = false;
        o.mediumSize = 256 * 1024;
        o.componentMedium = o.valueMedium = o.constraintMedium = o.stringMedium = 1;
        db = std::make_unique<kt::Db>(o);
        writeBack(db->mediumPath);
        kt::writeFile(db->param.mediaConfigPath, mk::driverLine(kLib, "mmapMedia_", prefix + db->mediumPath));
        ASSERT_GT(db->start(), 0);
        s = &db->s;
    }
};

TEST_F(MmapDb, LibraryRunsOnMmapMedia) {
    startWith("");
    const uint32_t root = tk::makeRoot(s, "/");
    ASSERT_NE(root, 0u);
    const uint32_t net = tk::node(s, root, 0, "net");
    const uint32_t ip = tk::leaf(s, net, 0, "/ip", tk::u32(s, 0x0A000001));
    ASSERT_TRUE(net && ip);
    EXPECT_EQ(kesDBMSearchByName(s, "/net/ip"), ip);
    uint32_t v = 0;
    EXPECT_EQ(kesDBMSetUint32(s, ip, 0xC0A80001u), 0);
    EXPECT_EQ(kesDBMGetUint32(s, ip, &v), 0);
    EXPECT_EQ(v, 0xC0A80001u);

    // Enough leaves and data to grow the medium well past its laid size and first mapping.
    const uint32_t blob = kesDBMCreateValue(s, Generic, 0, nullptr, static_cast<int32_t>(2 * kMiB), 1);
    ASSERT_NE(blob, 0u);
    std::vector<uint32_t> leaves;
    uint32_t previous = 0;
    for (uint32_t i = 0; i < 300; ++i) {
        previous = tk::leaf(s, root, previous, "l" + std::to_string(i), tk::u32(s, i * 7));
        ASSERT_NE(previous, 0u) << i;
        leaves.push_back(previous);
    }
    EXPECT_GT(fileSize(db->mediumPath), static_cast<off_t>(2 * kMiB));
    for (uint32_t i = 0; i < leaves.size(); ++i) {
        ASSERT_EQ(kesDBMGetUint32(s, leaves[i], &v), 0);
        ASSERT_EQ(v, i * 7);
    }
    EXPECT_EQ(kesDBMSearchByName(s, "/l299"), leaves.back());
    EXPECT_EQ(kesDBMSync(s, 1, 0), 0);

    // Two processes: a child increments a counter under the component lock while this one
    // does, and creates a leaf whose records this process reads afterwards.
    const uint32_t counter = tk::leaf(s, root, 0, "counter", tk::u32(s, 0));
    ASSERT_NE(counter, 0u);
    constexpr int kRounds = 200;
    auto increment = [&](Session* own) {
        for (int i = 0; i < kRounds; ++i) {
            uint32_t c = 0;
            if (kesDBMLock(own, counter, 0) != 0 || kesDBMGetUint32(own, counter, &c) != 0 ||
                kesDBMSetUint32(own, counter, c + 1) != 0 || kesDBMUnlock(own, counter) != 0)
                return 1;
        }
        return 0;
    };
    const uint32_t id = static_cast<uint32_t>(db->id);
    pid_t child = kt::forkChild([&] {
        Session own{};
        if (kesDBMInitSession(&own, id) != 0) return 10;
        if (increment(&own) != 0) return 11;
        const uint32_t made = tk::leaf(&own, root, 0, "fromChild", tk::u32(&own, 77));
        return made != 0 && kesDBMTermSession(&own) == 0 ? 0 : 12;
    });
    EXPECT_EQ(increment(s), 0);
    EXPECT_EQ(kt::waitChild(child), 0);
    EXPECT_EQ(kesDBMGetUint32(s, counter, &v), 0);
    EXPECT_EQ(v, 2u * kRounds);
    const uint32_t fromChild = kesDBMSearchByName(s, "/fromChild");
    ASSERT_NE(fromChild, 0u);
    EXPECT_EQ(kesDBMGetUint32(s, fromChild, &v), 0);
    EXPECT_EQ(v, 77u);

    // Stopped, the file holds the database: the named-file driver reads it the same.
    db->stop();
    kt::DbOptions o;
    o.mediumSize = 0;
    o.componentMedium = o.valueMedium = o.constraintMedium = o.stringMedium = 1;
    o.mediaConfig = mk::driverLine("libkesdrv_file.so", "fileMedia_", db->mediumPath);
    kt::Db viaFile(o);
    ASSERT_GT(viaFile.id, 0);
    Session* f = &viaFile.s;
    EXPECT_EQ(kesDBMSearchByName(f, "/net/ip"), ip);
    EXPECT_EQ(kesDBMGetUint32(f, ip, &v), 0);
    EXPECT_EQ(v, 0xC0A80001u);
    EXPECT_EQ(kesDBMGetUint32(f, counter, &v), 0);
    EXPECT_EQ(v, 2u * kRounds);
    EXPECT_EQ(kesDBMGetUint32(f, leaves[299], &v), 0);
    EXPECT_EQ(v, 299u * 7);
    EXPECT_EQ(kesDBMGetLength(f, kesDBMSearchByName(f, "/fromChild")), 4);
}

TEST_F(MmapDb, DurableMediumSyncsEveryWrite) {
    startWith("sync:");
    if (!hasWriteback(db->dir.path())) GTEST_SKIP() << "the temporary directory has no writeback";
    const uint32_t root = tk::makeRoot(s, "/");
    const uint32_t leaf = tk::leaf(s, root, 0, "v", tk::u32(s, 1));
    ASSERT_NE(leaf, 0u);
    for (uint32_t i = 0; i < 5; ++i) {
        ASSERT_EQ(kesDBMSetUint32(s, leaf, i), 0);
        EXPECT_EQ(mapInfo(db->mediumPath).dirtyKb, 0);
        uint32_t v = 99;
        EXPECT_EQ(kesDBMGetUint32(s, leaf, &v), 0);
        EXPECT_EQ(v, i);
    }
    EXPECT_EQ(kesDBMSync(s, 1, 0), 0);
}

}  // namespace
