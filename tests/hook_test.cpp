// The hook table: the configuration file's result rules, getHook, and the hooks run by the
// value calls and by the copy with hooks.
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "valcstrtkit.hpp"

namespace {

std::string sampleLib() { return kt::libPath("libkeshook_sample.so"); }

// The sample library as the test process sees it: the same instance the hook table loaded.
struct Sample {
    void* handle = dlopen(sampleLib().c_str(), RTLD_NOW);
    template <class F>
    F fn(const char* name) const {
        return reinterpret_cast<F>(dlsym(handle, name));
    }
    int calls(int slot) const { return fn<int (*)(int)>("test_calls")(slot); }
    std::array<int, 4> calls() const { return {calls(0), calls(1), calls(2), calls(3)}; }  // PreSet..PostGet
    uint32_t lastKey(int slot) const { return fn<uint32_t (*)(int)>("test_lastKey")(slot); }
    int32_t lastLength(int slot) const { return fn<int32_t (*)(int)>("test_lastLength")(slot); }
    uint32_t lastWord(int slot) const { return fn<uint32_t (*)(int)>("test_lastWord")(slot); }
    void reset() const { fn<void (*)()>("test_reset")(); }
    ~Sample() {
        if (handle) dlclose(handle);
    }
};
enum { PreSet = 0, PostSet = 1, PreGet = 2, PostGet = 3 };
using Calls = std::array<int, 4>;

// One hook_init on a file of the given text, then hook_term; gives the result and the count.
struct Load {
    int32_t result;
    int32_t count;
};
Load load(const kt::TempDir& dir, const std::string& text) {
    const std::string path = dir.file("hooks.conf");
    kt::writeFile(path, text);
    Load l{hook_init(path.c_str()), hook_getCount()};
    hook_term();
    return l;
}

std::string line(const std::string& a, const std::string& b, const std::string& c, const std::string& d) {
    return sampleLib() + " " + a + " " + b + " " + c + " " + d + "\n";
}

TEST(HookTable, ResultIsTheStatusOfTheLastLineHandled) {
    kt::TempDir dir;
    const std::string good = line("test_recPreSet", "NULL", "NULL", "NULL");
    struct Case {
        const char* what;
        std::string text;
        int32_t result;
        int32_t count;
    };
    const std::vector<Case> cases = {
        {"ends right after the hook line", good, 0, 1},
        {"trailing comment line", good + "# done\n", -1, 1},
        {"trailing blank line", good + "\n", -1, 1},
        {"comment at the end of the hook line", sampleLib() + " NULL NULL NULL NULL # note\n", 0, 1},
        {"only comments and blank lines", "# a\n\n  # b\n", -1, 0},
        {"empty file", "", 0, 0},
        {"four tokens on the last line", good + sampleLib() + " NULL NULL NULL\n", -1, 1},
        {"library alone", sampleLib() + "\n", -1, 0},
        {"tokens after the fifth are ignored", sampleLib() + " NULL NULL NULL NULL extra more\n", 0, 1},
        {"lowercase null in preSet", line("null", "NULL", "NULL", "NULL"), 33, 0},
        {"lowercase null in postSet", line("NULL", "null", "NULL", "NULL"), 34, 0},
        {"lowercase null in postGet", line("NULL", "NULL", "NULL", "null"), 36, 0},
        {"unknown symbol", line("NULL", "no_such_hook", "NULL", "NULL"), 34, 0},
        {"unloadable library last", good + "/nonexistent/libnone.so NULL NULL NULL NULL\n", 32, 1},
        {"unloadable library then a good line", "/nonexistent/libnone.so NULL NULL NULL NULL\n" + good, 0, 1},
        {"indented comments between hooks", good + " \t# indented\n" + good, 0, 2},
        // A line longer than the 4095 characters of one read goes on as a line of its own:
        // the rest of the comment is taken for a library name.
        {"overlong comment line", line("NULL", "NULL", "NULL", "NULL") + "#" + std::string(5000, 'x') + "\n", 32, 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const Load l = load(dir, c.text);
        EXPECT_EQ(l.result, c.result);
        EXPECT_EQ(l.count, c.count);
        EXPECT_EQ(hook_table, nullptr);  // unloaded by hook_term
        EXPECT_EQ(hook_getCount(), 0);
    }
}

TEST(HookTable, FailingLinesAreRebuiltInTheSameEntry) {
    kt::TempDir dir;
    const std::string path = dir.file("hooks.conf");
    kt::writeFile(path, "/nonexistent/libnone.so NULL NULL NULL NULL\n" +
                            line("test_refuse5", "NULL", "NULL", "test_recPostGet") +
                            line("NULL", "missing_symbol", "NULL", "NULL") + "# comment\n" +
                            line("NULL", "test_recPostSet", "NULL", "NULL"));
    ASSERT_EQ(hook_init(path.c_str()), 0);
    ASSERT_EQ(hook_getCount(), 2);
    Sample sample;
    ASSERT_NE(sample.handle, nullptr);
    // Hook 1 is the second line, hook 2 the last line.
    EXPECT_NE(hook_table[0].handle, nullptr);
    EXPECT_EQ(hook_table[0].preSet, sample.fn<kesHookFn>("test_refuse5"));
    EXPECT_EQ(hook_table[0].postSet, nullptr);
    EXPECT_EQ(hook_table[0].preGet, nullptr);
    EXPECT_EQ(hook_table[0].postGet, sample.fn<kesHookFn>("test_recPostGet"));
    EXPECT_EQ(hook_table[1].preSet, nullptr);
    EXPECT_EQ(hook_table[1].postSet, sample.fn<kesHookFn>("test_recPostSet"));

    // getHook: 0 and count + 1 record 28; 1 and 2 are the entries.
    for (uint32_t bad : {0u, 3u, 0xFFFFFFFFu}) {
        Session s{};
        EXPECT_EQ(getHook(&s, bad), nullptr);
        EXPECT_EQ(s.error, 28u);
        EXPECT_EQ(s.errorDetail, 0u);
    }
    Session s{};
    EXPECT_EQ(getHook(&s, 1), &hook_table[0]);
    EXPECT_EQ(getHook(&s, 2), &hook_table[1]);
    EXPECT_EQ(getHook(nullptr, 9), nullptr);

    // A second hook_init only counts: even an unreadable path gives 0; the table stays.
    EXPECT_EQ(hook_init("/nonexistent/hooks.conf"), 0);
    EXPECT_EQ(hook_term(), 0);
    EXPECT_EQ(hook_getCount(), 2);
    EXPECT_NE(hook_table, nullptr);
    EXPECT_EQ(hook_term(), 0);
    EXPECT_EQ(hook_table, nullptr);
    EXPECT_EQ(hook_getCount(), 0);
    // A shut-down too many does not keep the next start-up from loading.
    EXPECT_EQ(hook_term(), 0);
    EXPECT_EQ(hook_init(path.c_str()), 0);
    EXPECT_EQ(hook_getCount(), 2);
    EXPECT_EQ(hook_term(), 0);
}

// An unopenable file (or none) fails the first start-up; the failed call stays counted.
TEST(HookTable, UnopenableFileAndLaterCalls) {
    EXPECT_EQ(kt::captureStdout([] { EXPECT_EQ(hook_init(nullptr), 30); }), "hook_init err3\n");
    EXPECT_EQ(kt::captureStdout([] { EXPECT_EQ(hook_init("/nonexistent/hooks.conf"), 0); }), "");
    EXPECT_EQ(hook_getCount(), 0);
}

// The hook lines of the HookCalls database, by index.
enum HookIndex { Recording = 1, RefusePre, RefusePost, Shorten, AllNull, Policy, RefusePreRecordPost, RecordPostOnly,
                 CountRecording };

struct HookCalls : ::testing::Test {
    // Medium 1: a named file that a test can take away to make data reads fail.
    static kt::DbOptions options(const std::string& dataPath) {
        kt::DbOptions o = vk::withFileMedium(dataPath);
        o.hookConfig = "# hooks of the value call tests\n" +
                       line("test_recPreSet", "test_recPostSet", "test_recPreGet", "test_recPostGet") +
                       line("test_refuse5", "NULL", "test_refuse5", "NULL") +
                       line("NULL", "test_refuse5", "NULL", "test_refuse5") +
                       line("test_shortenTo2", "NULL", "NULL", "NULL") + line("NULL", "NULL", "NULL", "NULL") +
                       line("policy_preSet", "log_postSet", "NULL", "log_postGet") +
                       line("test_refuse5", "test_recPostSet", "NULL", "NULL") +
                       line("NULL", "test_recPostSet", "NULL", "NULL") +
                       line("NULL", "NULL", "test_countPreGet", "test_countPostGet");
        return o;
    }
    kt::TempDir side;
    std::string dataPath = side.file("data.bin");
    kt::Db db{options(dataPath)};
    Sample sample;
    Session* s = &db.s;
    void SetUp() override {
        ASSERT_GT(db.id, 0) << db.initError;
        ASSERT_EQ(hook_getCount(), 9);
        ASSERT_NE(sample.handle, nullptr);
        sample.reset();
    }
    uint32_t value(uint32_t v) { return vk::make<uint32_t>(s, Uint32, v); }
    uint32_t leafOf(uint32_t current, uint32_t hook, uint32_t def = 0) { return vk::makeLeaf(s, current, def, 0, hook); }
    uint32_t readU32(uint32_t key) { return vk::readU32(s, key); }
    using Err = std::pair<uint32_t, uint32_t>;
    Err error() const { return {db.s.error, db.s.errorDetail}; }
};

TEST_F(HookCalls, ReadAndWriteSequencesSeeKeyDataAndLength) {
    const uint32_t cur = value(7), def = value(8);
    const uint32_t leaf = leafOf(cur, Recording, def);
    ASSERT_NE(leaf, 0u);
    ASSERT_EQ(kesDBMSetUint32(s, leaf, 42), 0);
    EXPECT_EQ(sample.calls(), (Calls{1, 1, 0, 0}));
    EXPECT_EQ(sample.lastKey(PreSet), cur);
    EXPECT_EQ(sample.lastLength(PreSet), 4);
    EXPECT_EQ(sample.lastWord(PostSet), 42u);

    uint32_t out = 0;
    ASSERT_EQ(kesDBMGetUint32(s, leaf, &out), 0);
    EXPECT_EQ(out, 42u);
    EXPECT_EQ(sample.calls(), (Calls{1, 1, 1, 1}));
    EXPECT_EQ(sample.lastWord(PostGet), 42u);  // postGet sees the filled buffer
    EXPECT_EQ(sample.lastLength(PostGet), 4);

    // The default value calls run the same hooks on the default value's key.
    int32_t len = 4;
    ASSERT_EQ(kesDBMGetDefaultGeneric(s, leaf, &out, &len), 0);
    EXPECT_EQ(out, 8u);
    EXPECT_EQ(sample.lastKey(PreGet), def);
    ASSERT_EQ(kesDBMSetDefaultGeneric(s, leaf, &out, 4), 0);
    EXPECT_EQ(sample.lastKey(PostSet), def);

    // The create-list read hands the hooks the count itself in the length pointer's place.
    const uint32_t listLeaf = leafOf(cur, CountRecording);
    ASSERT_NE(listLeaf, 0u);
    sample.reset();
    uint8_t buf[6];
    ASSERT_EQ(kesDBMGetCreateListGeneric(s, listLeaf, buf, 6), 0);
    EXPECT_EQ(sample.lastLength(PreGet), 6);
    EXPECT_EQ(sample.lastLength(PostGet), 6);
    EXPECT_EQ(sample.lastKey(PostGet), cur);
    EXPECT_EQ(sample.calls(PreGet), 1);
}

// A refusing pre-hook stops the call before the access (9 for a write, 7 for a read, detail the
// hook's result); a refusing post-hook comes after it (10 and 8).
TEST_F(HookCalls, RefusingHooks) {
    struct Case {
        HookIndex hook;
        int32_t set, get;
        bool accessed;
    };
    for (const Case c : {Case{RefusePre, 9, 7, false}, Case{RefusePost, 10, 8, true}}) {
        SCOPED_TRACE(c.hook);
        const uint32_t cur = value(7);
        const uint32_t leaf = leafOf(cur, c.hook);
        ASSERT_NE(leaf, 0u);
        EXPECT_EQ(kesDBMSetUint32(s, leaf, 99), c.set);
        EXPECT_EQ(error(), Err(c.set, 5));
        EXPECT_EQ(readU32(cur), c.accessed ? 99u : 7u);
        uint32_t out = 0x12345678u;
        EXPECT_EQ(kesDBMGetUint32(s, leaf, &out), c.get);
        EXPECT_EQ(error(), Err(c.get, 5));
        EXPECT_EQ(out, c.accessed ? 99u : 0x12345678u);
        uint8_t buf[4] = {};
        if (c.hook == RefusePre) {
            EXPECT_EQ(kesDBMGetCreateListGeneric(s, leaf, buf, 4), 7);
        }
    }
}

TEST_F(HookCalls, PreSetMayShortenTheWrittenLength) {
    const uint32_t cur = value(0);
    const uint32_t leaf = leafOf(cur, Shorten);
    ASSERT_NE(leaf, 0u);
    ASSERT_EQ(kesDBMSetUint32(s, leaf, 0x11223344u), 0);
    EXPECT_EQ(readU32(cur), vk::firstBytes(0, 0x11223344u, 2));
    EXPECT_EQ(value_getLength(s, cur), 4);
}

// No hook, a line of NULLs, and an index beyond the table (which records 28 and still runs the
// access) call nothing.
TEST_F(HookCalls, NoHookNullHooksAndInvalidIndexes) {
    const uint32_t cur = value(1);
    for (const auto& [index, recorded] : {std::pair<uint32_t, uint32_t>{0, 0}, {AllNull, 0}, {10, 28}}) {
        SCOPED_TRACE(index);
        const uint32_t leaf = leafOf(cur, index);
        session_setError(s, 0, 0);
        ASSERT_EQ(kesDBMSetUint32(s, leaf, 5 + index), 0);
        EXPECT_EQ(error(), Err(recorded, 0));
        EXPECT_EQ(readU32(cur), 5 + index);
        session_setError(s, 0, 0);
        uint32_t out = 0;
        ASSERT_EQ(kesDBMGetUint32(s, leaf, &out), 0);
        EXPECT_EQ(out, 5 + index);
        EXPECT_EQ(error(), Err(recorded, 0));
    }
    EXPECT_EQ(sample.calls(), (Calls{0, 0, 0, 0}));
}

TEST_F(HookCalls, FailedWriteSkipsPostSet) {
    const uint32_t cur = value(50);
    ASSERT_EQ(value_setConstraintKey(s, cur, vk::newRange(s, rangeU32_new, Uint32, 0u, 100u)), 0);
    const uint32_t leaf = leafOf(cur, Recording);
    EXPECT_EQ(kesDBMSetUint32(s, leaf, 101), 67);
    EXPECT_EQ(sample.calls(), (Calls{1, 0, 0, 0}));
    EXPECT_EQ(readU32(cur), 50u);

    // A failed data access (the data medium cannot be opened) skips postGet and postSet.
    const uint32_t v = 5, far = value_create(s, Uint32, 0, &v, 4, 1);
    ASSERT_NE(far, 0u);
    const uint32_t farLeaf = leafOf(far, Recording);
    ASSERT_EQ(unlink(dataPath.c_str()), 0);
    sample.reset();
    uint32_t out = 0;
    EXPECT_EQ(kesDBMGetUint32(s, farLeaf, &out), 22);
    EXPECT_EQ(kesDBMSetUint32(s, farLeaf, 6), 22);
    EXPECT_EQ(sample.calls(), (Calls{1, 0, 1, 0}));
}

TEST_F(HookCalls, SamplePolicyAndLogging) {
    const uint32_t cur = value(0);
    const uint32_t leaf = leafOf(cur, Policy);
    std::string out = kt::captureStdout([&] { EXPECT_EQ(kesDBMSetUint32(s, leaf, 1000), 0); });
    EXPECT_EQ(out, "keshook set key " + std::to_string(cur) + " len 4\n");
    out = kt::captureStdout([&] { EXPECT_EQ(kesDBMSetUint32(s, leaf, 1001), 9); });
    EXPECT_EQ(out, "");
    EXPECT_EQ(db.s.errorDetail, 1u);
    EXPECT_EQ(readU32(cur), 1000u);
    const uint8_t none = 0;
    EXPECT_EQ(kesDBMSetGeneric(s, leaf, &none, 0), 9);
    EXPECT_EQ(db.s.errorDetail, 2u);
    uint32_t v = 0;
    out = kt::captureStdout([&] { EXPECT_EQ(kesDBMGetUint32(s, leaf, &v), 0); });
    EXPECT_EQ(out, "keshook get key " + std::to_string(cur) + " len 4\n");
}

TEST_F(HookCalls, CopyRunsSourceReadHooksAndDestinationWriteHooks) {
    const uint32_t srcv = value(31), dstv = value(0);
    const uint32_t src = leafOf(srcv, Recording);
    const uint32_t dst = leafOf(dstv, RefusePreRecordPost);
    EXPECT_EQ(kesDBMCopy(s, src, dst), 9);
    EXPECT_EQ(sample.calls(), (Calls{0, 0, 1, 1}));
    EXPECT_EQ(readU32(dstv), 0u);
    const uint32_t dst2 = leafOf(dstv, RecordPostOnly);
    EXPECT_EQ(kesDBMCopy(s, src, dst2), 0);
    EXPECT_EQ(readU32(dstv), 31u);
    EXPECT_EQ(sample.lastKey(PostSet), dstv);
}

TEST_F(HookCalls, CopyWithSetHooks) {
    const uint32_t srcv = value(31), dstv = value(3);
    // preSet refuses: 9 with detail 5, nothing written, postSet not called.
    EXPECT_EQ(value_copy2(s, dstv, srcv, RefusePreRecordPost), 9);
    EXPECT_EQ(db.s.errorDetail, 5u);
    EXPECT_EQ(readU32(dstv), 3u);
    EXPECT_EQ(sample.calls(PostSet), 0);
    // postSet refuses: 10, the value is written.
    EXPECT_EQ(value_copy2(s, dstv, srcv, RefusePost), 10);
    EXPECT_EQ(db.s.errorDetail, 5u);
    EXPECT_EQ(readU32(dstv), 31u);
    // Both hooks see the destination key and the copied length.
    const uint32_t src2 = value(64);
    EXPECT_EQ(value_copy2(s, dstv, src2, Recording), 0);
    EXPECT_EQ(sample.lastKey(PreSet), dstv);
    EXPECT_EQ(sample.lastLength(PostSet), 4);
    EXPECT_EQ(sample.lastWord(PostSet), 64u);
    EXPECT_EQ(readU32(dstv), 64u);
    // preSet shortening the length: 2 bytes written.
    const uint32_t src3 = value(0xA1A2A3A4u);
    EXPECT_EQ(value_copy2(s, dstv, src3, Shorten), 0);
    EXPECT_EQ(readU32(dstv), vk::firstBytes(64, 0xA1A2A3A4u, 2));
    // Index 0 is the plain copy; an index beyond the table records 28 and copies.
    EXPECT_EQ(value_copy2(s, dstv, srcv, 0), 0);
    EXPECT_EQ(readU32(dstv), 31u);
    session_setError(s, 0, 0);
    EXPECT_EQ(value_copy2(s, dstv, src2, 40), 0);
    EXPECT_EQ(db.s.error, 28u);
    EXPECT_EQ(readU32(dstv), 64u);
}

}  // namespace
