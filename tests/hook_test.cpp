// The hook table: the configuration file's result rules, getHook, and the hooks run by the
// value calls and by the copy with hooks.
#include <dlfcn.h>
#include <unistd.h>

#include <array>

#include "valcstrtkit.hpp"

namespace {

std::string sampleLib() { return kt::libPath("libkeshook_sample.so"); }

enum { PreSet = 0, PostSet = 1, PreGet = 2, PostGet = 3 };
using Calls = std::array<int, 4>;

// The sample library's records of its test hooks, per slot; the same instance the table loaded.
struct Sample {
    void* handle = dlopen(sampleLib().c_str(), RTLD_NOW);
    uint32_t get(const char* fn, int slot) const { return reinterpret_cast<uint32_t (*)(int)>(dlsym(handle, fn))(slot); }
    Calls calls() const { return {int(get("test_calls", 0)), int(get("test_calls", 1)), int(get("test_calls", 2)),
                                  int(get("test_calls", 3))}; }
    uint32_t lastKey(int slot) const { return get("test_lastKey", slot); }
    int32_t lastLength(int slot) const { return static_cast<int32_t>(get("test_lastLength", slot)); }
    uint32_t lastWord(int slot) const { return get("test_lastWord", slot); }
    void reset() const { reinterpret_cast<void (*)()>(dlsym(handle, "test_reset"))(); }
    ~Sample() { dlclose(handle); }
};

// A hook line of the sample library with the four symbols (or NULL) given.
std::string line(const std::string& symbols) { return sampleLib() + " " + symbols + "\n"; }

TEST(HookTable, ResultIsTheStatusOfTheLastLineHandled) {
    kt::TempDir dir;
    const std::string good = line("test_recPreSet NULL NULL NULL"), none = "/nonexistent/libnone.so";
    const struct { const char* what; std::string text; int32_t result, count; } cases[] = {
        {"ends right after the hook line", good, 0, 1},
        {"trailing comment line", good + "# done\n", -1, 1},
        {"trailing blank line", good + "\n", -1, 1},
        {"comment at the end of the hook line", sampleLib() + " NULL NULL NULL NULL # note\n", 0, 1},
        {"only comments and blank lines", "# a\n\n  # b\n", -1, 0},
        {"empty file", "", 0, 0},
        {"library alone", sampleLib() + "\n", -1, 0},
        {"tokens after the fifth are ignored", sampleLib() + " NULL NULL NULL NULL extra more\n", 0, 1},
        {"lowercase null in preSet", line("null NULL NULL NULL"), 33, 0},
        {"lowercase null in postGet", line("NULL NULL NULL null"), 36, 0},
        {"unknown symbol", line("NULL no_such_hook NULL NULL"), 34, 0},
        {"unloadable library last", good + none + " NULL NULL NULL NULL\n", 32, 1},
        {"unloadable library then a good line", none + " NULL NULL NULL NULL\n" + good, 0, 1},
        {"indented comments between hooks", good + " \t# indented\n" + good, 0, 2},
        // Beyond the 4095 characters of one read the rest of the comment is taken for a library.
        {"overlong comment line", good + "#" + std::string(5000, 'x') + "\n", 32, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        kt::writeFile(dir.file("hooks.conf"), c.text);
        EXPECT_EQ(hook_init(dir.file("hooks.conf").c_str()), c.result);
        EXPECT_EQ(hook_getCount(), c.count);
        hook_term();
        EXPECT_TRUE(hook_table == nullptr && hook_getCount() == 0);
    }
}

TEST(HookTable, FailingLinesAreRebuiltInTheSameEntry) {
    kt::TempDir dir;
    const std::string path = dir.file("hooks.conf");
    kt::writeFile(path, "/nonexistent/libnone.so NULL NULL NULL NULL\n" + line("test_refuse5 NULL NULL test_recPostGet") +
                            line("NULL missing_symbol NULL NULL") + "# comment\n" + line("NULL test_recPostSet NULL NULL"));
    ASSERT_EQ(hook_init(path.c_str()), 0);
    ASSERT_EQ(hook_getCount(), 2);
    Sample sample;
    const HookEntry* t = hook_table;
    EXPECT_TRUE(t[0].handle && !t[0].postSet && !t[0].preGet && !t[1].preSet && !t[1].preGet && !t[1].postGet);
    auto is = [&](kesHookFn f, const char* name) { return reinterpret_cast<void*>(f) == dlsym(sample.handle, name); };
    EXPECT_TRUE(is(t[0].preSet, "test_refuse5") && is(t[0].postGet, "test_recPostGet") && is(t[1].postSet, "test_recPostSet"));
    for (uint32_t bad : {0u, 3u, 0xFFFFFFFFu}) {
        Session s{0, 0, 0, 9, 0};
        EXPECT_EQ(getHook(&s, bad), nullptr);
        EXPECT_TRUE(s.error == 28u && s.errorDetail == 0u);
    }
    Session s{};
    EXPECT_TRUE(getHook(&s, 1) == &t[0] && getHook(&s, 2) == &t[1] && getHook(nullptr, 9) == nullptr);
    // A second hook_init only counts, even on an unreadable path; a shut-down too many does not
    // keep the next start-up from loading.
    EXPECT_TRUE(hook_init("/nonexistent/hooks.conf") == 0 && hook_term() == 0);
    EXPECT_TRUE(hook_getCount() == 2 && hook_table == t);
    EXPECT_TRUE(hook_term() == 0 && hook_getCount() == 0 && hook_table == nullptr);
    EXPECT_TRUE(hook_term() == 0 && hook_init(path.c_str()) == 0 && hook_getCount() == 2 && hook_term() == 0);
    // An unopenable file (or none) fails the first start-up; the failed call stays counted.
    EXPECT_EQ(kt::captureStdout([] { EXPECT_EQ(hook_init(nullptr), 30); }), "hook_init err3\n");
    EXPECT_EQ(kt::captureStdout([] { EXPECT_EQ(hook_init("/nonexistent/hooks.conf"), 0); }), "");
}

// The hook lines of the HookCalls database, by index.
enum HookIndex : uint32_t { Recording = 1, RefusePre, RefusePost, Shorten, AllNull, RefusePreRecordPost,
                            RecordPostOnly, CountRecording };

struct HookCalls : ::testing::Test {
    // Medium 1: a named file that a test can take away to make data reads fail.
    static kt::DbOptions options(const std::string& dataPath) {
        kt::DbOptions o = vk::withFileMedium(dataPath);
        o.hookConfig = "# hooks of the value call tests\n";
        for (const char* symbols : {"test_recPreSet test_recPostSet test_recPreGet test_recPostGet",
                                    "test_refuse5 NULL test_refuse5 NULL", "NULL test_refuse5 NULL test_refuse5",
                                    "test_shortenTo2 NULL NULL NULL", "NULL NULL NULL NULL",
                                    "test_refuse5 test_recPostSet NULL NULL", "NULL test_recPostSet NULL NULL",
                                    "NULL NULL test_countPreGet test_countPostGet"})
            o.hookConfig += line(symbols);
        return o;
    }
    kt::TempDir side;
    std::string dataPath = side.file("data.bin");
    kt::Db db{options(dataPath)};
    Sample sample;
    Session* s = &db.s;
    void SetUp() override {
        ASSERT_TRUE(db.id > 0 && hook_getCount() == 8 && sample.handle) << db.initError;
        sample.reset();
    }
    uint32_t value(uint32_t v) { return vk::make<uint32_t>(s, Uint32, v); }
    uint32_t leafOf(uint32_t current, uint32_t hook, uint32_t def = 0) { return vk::makeLeaf(s, current, def, 0, hook); }
    uint32_t readU32(uint32_t key) { return vk::readU32(s, key); }
};

// One call on a leaf whose current value holds 7, by hook index: its result, what it recorded
// (a refusal's detail is the hook's 5; an index beyond the table records 28 and goes on without
// hooks), the value afterwards (a read's buffer for reads), and the recording hooks' calls.
TEST_F(HookCalls, EachCallRunsItsHooksByIndex) {
    enum Op { Set, Get, List, Copy2 };
    constexpr uint32_t kNew = 0x11223344u, kUntouched = 0xAAAAAAAAu;
    const uint32_t shortened = vk::firstBytes(7, kNew, 2);
    const struct { Op op; uint32_t hook; int32_t result; uint32_t recorded, value; Calls calls; } rows[] = {
        {Set, Recording, 0, 0, kNew, {1, 1, 0, 0}},  {Set, RefusePre, 9, 9, 7, {}},
        {Set, RefusePost, 10, 10, kNew, {}},         {Set, Shorten, 0, 0, shortened, {}},
        {Set, AllNull, 0, 0, kNew, {}},              {Set, 0, 0, 0, kNew, {}},
        {Set, 10, 0, 28, kNew, {}},                  {Get, Recording, 0, 0, 7, {0, 0, 1, 1}},
        {Get, RefusePre, 7, 7, kUntouched, {}},      {Get, RefusePost, 8, 8, 7, {}},
        {Get, AllNull, 0, 0, 7, {}},                 {Get, 10, 0, 28, 7, {}},
        {List, RefusePre, 7, 7, kUntouched, {}},     {Copy2, Recording, 0, 0, kNew, {1, 1, 0, 0}},
        {Copy2, RefusePreRecordPost, 9, 9, 7, {}},   {Copy2, RefusePost, 10, 10, kNew, {}},
        {Copy2, Shorten, 0, 0, shortened, {}},       {Copy2, 0, 0, 0, kNew, {}},
        {Copy2, 40, 0, 28, kNew, {}},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(::testing::Message() << "call " << r.op << ", hook " << r.hook);
        const uint32_t cur = value(7), source = value(kNew), leaf = leafOf(cur, r.hook);
        ASSERT_NE(leaf, 0u);
        sample.reset(), session_setError(s, 0, 0);
        uint32_t out = kUntouched;
        const int32_t result = r.op == Set    ? kesDBMSetUint32(s, leaf, kNew)
                               : r.op == Get  ? kesDBMGetUint32(s, leaf, &out)
                               : r.op == List ? kesDBMGetCreateListGeneric(s, leaf, &out, 4)
                                              : value_copy2(s, cur, source, r.hook);
        EXPECT_EQ(result, r.result);
        EXPECT_TRUE(db.s.error == r.recorded && db.s.errorDetail == (r.result ? 5u : 0u));
        EXPECT_EQ(r.op == Set || r.op == Copy2 ? readU32(cur) : out, r.value);
        EXPECT_EQ(sample.calls(), r.calls);
    }
}

TEST_F(HookCalls, HooksSeeKeyDataAndLength) {
    const uint32_t cur = value(7), def = value(8), leaf = leafOf(cur, Recording, def);
    ASSERT_EQ(kesDBMSetUint32(s, leaf, 42), 0);
    EXPECT_TRUE(sample.lastKey(PreSet) == cur && sample.lastLength(PreSet) == 4 && sample.lastWord(PostSet) == 42u);
    uint32_t out = 0;
    ASSERT_EQ(kesDBMGetUint32(s, leaf, &out), 0);
    EXPECT_TRUE(sample.lastWord(PostGet) == 42u && sample.lastLength(PostGet) == 4);  // sees the filled buffer
    // The default value calls run the same hooks on the default value's key.
    int32_t len = 4;
    EXPECT_TRUE(kesDBMGetDefaultGeneric(s, leaf, &out, &len) == 0 && out == 8u && sample.lastKey(PreGet) == def);
    EXPECT_TRUE(kesDBMSetDefaultGeneric(s, leaf, &out, 4) == 0 && sample.lastKey(PostSet) == def);
    // The create-list read hands the hooks the count itself in the length pointer's place.
    sample.reset();
    uint8_t buf[6];
    ASSERT_EQ(kesDBMGetCreateListGeneric(s, leafOf(cur, CountRecording), buf, 6), 0);
    EXPECT_TRUE(sample.lastLength(PreGet) == 6 && sample.lastLength(PostGet) == 6 && sample.lastKey(PostGet) == cur);
    EXPECT_EQ(sample.calls(), (Calls{0, 0, 1, 1}));
    ASSERT_EQ(value_copy2(s, cur, value(64), Recording), 0);  // the destination key, the copied bytes
    EXPECT_TRUE(sample.lastKey(PreSet) == cur && sample.lastLength(PostSet) == 4 && sample.lastWord(PostSet) == 64u);
}

// A failed write (out of range) or data access (the data medium is gone) skips the post hooks.
TEST_F(HookCalls, FailedAccessSkipsPostHooks) {
    const uint32_t cur = value(50);
    ASSERT_EQ(value_setConstraintKey(s, cur, vk::newRange(s, rangeU32_new, Uint32, 0u, 100u)), 0);
    EXPECT_TRUE(kesDBMSetUint32(s, leafOf(cur, Recording), 101) == 67 && readU32(cur) == 50u);
    EXPECT_EQ(sample.calls(), (Calls{1, 0, 0, 0}));
    uint32_t out = 5;
    const uint32_t farLeaf = leafOf(value_create(s, Uint32, 0, &out, 4, 1), Recording);
    ASSERT_TRUE(farLeaf != 0 && unlink(dataPath.c_str()) == 0);
    sample.reset();
    EXPECT_TRUE(kesDBMGetUint32(s, farLeaf, &out) == 22 && kesDBMSetUint32(s, farLeaf, 6) == 22);
    EXPECT_EQ(sample.calls(), (Calls{1, 0, 1, 0}));
}

TEST_F(HookCalls, CopyRunsSourceReadHooksAndDestinationWriteHooks) {
    const uint32_t dstv = value(0), src = leafOf(value(31), Recording);
    EXPECT_TRUE(kesDBMCopy(s, src, leafOf(dstv, RefusePreRecordPost)) == 9 && readU32(dstv) == 0u);
    EXPECT_EQ(sample.calls(), (Calls{0, 0, 1, 1}));
    EXPECT_EQ(kesDBMCopy(s, src, leafOf(dstv, RecordPostOnly)), 0);
    EXPECT_TRUE(readU32(dstv) == 31u && sample.lastKey(PostSet) == dstv);
}

}  // namespace
