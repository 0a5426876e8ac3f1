// Keys past 2 GiB through the built-in medium, the named-file driver, the path-based allocator
// and the record layer.
#include <unistd.h>

#include "mediakit.hpp"

// Keys are 32-bit unsigned byte offsets: a record at a key past 2 GiB (in a sparse file) is read
// and written like any other, also where the C library's file offsets are 32 bits by default.
TEST(Driver, KeysPast2GiB) {
    constexpr uint32_t kFar = 0x80000800u;
    kt::DbOptions options;
    options.start = false;
    kt::Db db(options);
    const std::string path = db.mediumPath;
    {
        const int fd = open(path.c_str(), O_RDWR);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(ftruncate64(fd, off64_t{kFar} + 0x1000), 0) << "no sparse file of 2 GiB here";
        close(fd);
    }
    auto farBytes = [&](uint32_t n) {
        std::string bytes(n, '\0');
        const int fd = open(path.c_str(), O_RDONLY);
        const ssize_t got = fd >= 0 ? pread64(fd, bytes.data(), n, kFar) : -1;
        if (fd >= 0) close(fd);
        return got == static_cast<ssize_t>(n) ? bytes : std::string("(unreadable)");
    };
    int32_t err = 0;
    mk::Lib lib("libkesdrv_file.so");
    const struct { const char* what; mk::Ops d; std::string text; } drivers[] = {
        {"built-in medium", mk::Ops(media_table[0]), "abcdef"}, {"file driver", mk::Ops(lib, "fileMedia_"), "ghijkl"}};
    for (const auto& [what, d, text] : drivers) {
        SCOPED_TRACE(what);
        ASSERT_TRUE(d.ok());
        const int fd = d.open(path.c_str(), 0, &err);
        ASSERT_GE(fd, 0);
        char back[6] = {};
        EXPECT_TRUE(d.write(fd, text.data(), 6, kFar, &err) == 6 && d.read(fd, back, 6, kFar, &err) == 6) << err;
        d.close(fd, &err);
        EXPECT_EQ(std::string(back, 6), text);
        EXPECT_EQ(farBytes(6), text);
    }
    Session s{};
    const FreeElement e{0x12345678u, 0x40};
    FreeElement got{};
    EXPECT_EQ(flst_setElement(&s, path.c_str(), kFar, &e), 0);
    EXPECT_EQ(flst_getElement(&s, path.c_str(), kFar, &got), &got);
    EXPECT_TRUE(got.next == e.next && s.error == 0u);
    ASSERT_GT(db.start(), 0);
    NodeRecord node{{kFar, 0x10, 0, 0x20, 0x30, 0}, 0x40};
    EXPECT_EQ(comp_setNode(&db.s, &node), 0);
    NodeRecord read{};
    EXPECT_EQ(comp_getNode(&db.s, kFar, &read), &read);
    EXPECT_TRUE(read.firstChild == 0x40u && read.comp.parent == 0x20u && db.s.error == 0u);
}
