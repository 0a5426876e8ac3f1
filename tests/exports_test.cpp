// Every call and operation of the interface is exported from the shared library under its
// own name, and nothing else of the library's internals is.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <link.h>

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "testkit.hpp"

namespace {

const std::vector<std::string> kPublicCalls = {
    "kesDBMCopy", "kesDBMCreateLeaf", "kesDBMCreateNode", "kesDBMCreateString", "kesDBMCreateValue",
    "kesDBMCurrentToDefault", "kesDBMDefaultToCurrent", "kesDBMDeleteComponentWithSub",
    "kesDBMDeleteComponent", "kesDBMDeleteString", "kesDBMDeleteValue", "kesDBMFactoryToDefault",
    "kesDBMGetChildByIndex", "kesDBMGetChildCount", "kesDBMGetConstraintData",
    "kesDBMGetConstraintKey", "kesDBMGetConstraintLength", "kesDBMGetConstraintType",
    "kesDBMGetCreateListGeneric", "kesDBMGetCurrentValueKey", "kesDBMGetDefaultGeneric",
    "kesDBMGetDefaultValueKey", "kesDBMGetFactoryGeneric", "kesDBMGetFactoryValueKey",
    "kesDBMGetFirstChild", "kesDBMGetFloat32", "kesDBMGetFloat64", "kesDBMGetGeneric",
    "kesDBMGetLength", "kesDBMGetNextChild", "kesDBMGetParent", "kesDBMGetRoot", "kesDBMGetSint16",
    "kesDBMGetSint32", "kesDBMGetSint64", "kesDBMGetSint8", "kesDBMGetStringKey", "kesDBMGetString",
    "kesDBMGetType", "kesDBMGetUint16", "kesDBMGetUint32", "kesDBMGetUint64", "kesDBMGetUint8",
    "kesDBMInitSession", "kesDBMInit", "kesDBMLock", "kesDBMMoveLeaf", "kesDBMMoveNode",
    "kesDBMMoveSubTree", "kesDBMSearchByName", "kesDBMSetConstraintData", "kesDBMSetConstraintKey",
    "kesDBMSetCurrentComponent", "kesDBMSetCurrentValueKey", "kesDBMSetDefaultGeneric",
    "kesDBMSetDefaultValueKey", "kesDBMSetFactoryValueKey", "kesDBMSetFloat32", "kesDBMSetFloat64",
    "kesDBMSetGeneric", "kesDBMSetSint16", "kesDBMSetSint32", "kesDBMSetSint64", "kesDBMSetSint8",
    "kesDBMSetStringKey", "kesDBMSetString", "kesDBMSetUint16", "kesDBMSetUint32",
    "kesDBMSetUint64", "kesDBMSetUint8", "kesDBMSync", "kesDBMTermSession", "kesDBMTerm",
    "kesDBMUnlock", "kesDBMtraverseAndPrint",
};

const std::vector<std::string> kOperations = {
    "IsCompMedia", "boadj_judge", "boadj_type", "boadj_word", "boadj_wordx2", "checkEnumF32",
    "checkEnumF64", "checkEnumS16", "checkEnumS32", "checkEnumS64", "checkEnumS8", "checkEnumU16",
    "checkEnumU32", "checkEnumU64", "checkEnumU8", "checkRangeF32", "checkRangeF64",
    "checkRangeS16", "checkRangeS32", "checkRangeS64", "checkRangeS8", "checkRangeU16",
    "checkRangeU32", "checkRangeU64", "checkRangeU8", "compFileRead", "comp_currentToDefault",
    "comp_defaultToCurrent", "comp_delete", "comp_deleteWithSub", "comp_factoryToDefault",
    "comp_getChildByIndex", "comp_getChildCount", "comp_getComponent", "comp_getFirstChild",
    "comp_getLeaf", "comp_getNextSibling", "comp_getNode", "comp_getParent", "comp_getRoot",
    "comp_getStringKey", "comp_init", "comp_lock", "comp_newLeaf", "comp_newNode",
    "comp_searchByName", "comp_setComponent", "comp_setDeleted", "comp_setFirstChild",
    "comp_setLeaf", "comp_setNextSibling", "comp_setNode", "comp_setParent", "comp_setStringKey",
    "comp_term", "comp_traverseAndPrint", "comp_unlock", "constraint_check", "constraint_get",
    "constraint_getData", "constraint_getEnumArray", "constraint_getLength", "constraint_getType",
    "constraint_init", "constraint_new", "constraint_newEnumArray", "constraint_set",
    "constraint_setData", "constraint_setEnumArray", "constraint_term", "db_getDb", "db_init",
    "db_show", "db_term", "defMedia_close", "defMedia_open", "defMedia_read", "defMedia_seek",
    "defMedia_sync", "defMedia_write", "dummydummy1", "dummydummy2", "enum_get", "enum_new",
    "enum_set", "enum_setData", "fillHookEntry", "fillMediaEntry", "flst_fillFlagmented",
    "flst_get", "flst_getAnchorOffset", "flst_getElement", "flst_getFirstOffset",
    "flst_m_fillFlagmented", "flst_m_get", "flst_m_getAnchorOffset", "flst_m_getElement",
    "flst_m_getFirstOffset", "flst_m_getRoot", "flst_m_release", "flst_m_setElement",
    "flst_m_setFirstOffset", "flst_m_setNext", "flst_m_setRoot", "flst_release", "flst_setElement",
    "flst_setFirstOffset", "flst_setNext", "getHook", "getMedia", "hook_getCount", "hook_init",
    "hook_table", "hook_term", "kesdb_getStrEntry", "kesdb_getString", "leaf_create",
    "leaf_getCurrentValueKey", "leaf_getDefaultValueKey", "leaf_getFactoryValueKey", "leaf_move",
    "leaf_setCurrentValueKey", "leaf_setDefaultValueKey", "leaf_setFactoryValueKey",
    "lock_compLock", "lock_compLockW", "lock_compUnlock", "lock_compUnlockAll", "lock_init",
    "lock_show", "lock_term", "lock_valueLock", "lock_valueLockW", "lock_valueUnlock",
    "lock_valueUnlockAll", "media_getCount", "media_init", "media_sync", "media_table",
    "media_term", "misc_freeSems", "misc_getSems", "misc_pathCompare", "misc_postCount",
    "misc_postEvent", "misc_postMtx", "misc_resetEvent", "misc_waitCount", "misc_waitEvent",
    "misc_waitMtx", "node_create", "node_move", "node_moveWithSub", "rangeF32_get",
    "rangeF32_getData", "rangeF32_new", "rangeF32_set", "rangeF32_setData", "rangeF64_get",
    "rangeF64_getData", "rangeF64_new", "rangeF64_set", "rangeF64_setData", "rangeS16_get",
    "rangeS16_getData", "rangeS16_new", "rangeS16_set", "rangeS16_setData", "rangeS32_get",
    "rangeS32_getData", "rangeS32_new", "rangeS32_set", "rangeS32_setData", "rangeS64_get",
    "rangeS64_getData", "rangeS64_new", "rangeS64_set", "rangeS64_setData", "rangeS8_get",
    "rangeS8_getData", "rangeS8_new", "rangeS8_set", "rangeS8_setData", "rangeU16_get",
    "rangeU16_getData", "rangeU16_new", "rangeU16_set", "rangeU16_setData", "rangeU32_get",
    "rangeU32_getData", "rangeU32_new", "rangeU32_set", "rangeU32_setData", "rangeU64_get",
    "rangeU64_getData", "rangeU64_new", "rangeU64_set", "rangeU64_setData", "rangeU8_get",
    "rangeU8_getData", "rangeU8_new", "rangeU8_set", "rangeU8_setData", "session_init",
    "session_initSession", "session_setError", "session_show", "session_term",
    "session_termSession", "str_create", "str_delete", "str_newEntry", "str_setDeleted",
    "str_setEntry", "value_copy", "value_copy2", "value_create", "value_delete", "value_get",
    "value_getConstraintKey", "value_getCreateListGeneric", "value_getGeneric", "value_getLength",
    "value_getType", "value_init", "value_new", "value_print", "value_set",
    "value_setConstraintKey", "value_setDeleted", "value_setGeneric", "value_term",
};

void* openLibrary() {
    void* handle = dlopen(kt::libPath("libkesdbm.so").c_str(), RTLD_NOW | RTLD_LOCAL);
    EXPECT_NE(handle, nullptr) << dlerror();
    return handle;
}

TEST(Exports, EveryPublicCallIsExported) {
    void* handle = openLibrary();
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(kPublicCalls.size(), 75u);
    for (const std::string& name : kPublicCalls) EXPECT_NE(dlsym(handle, name.c_str()), nullptr) << name;
}

TEST(Exports, EveryOperationIsExported) {
    void* handle = openLibrary();
    ASSERT_NE(handle, nullptr);
    for (const std::string& name : kOperations) EXPECT_NE(dlsym(handle, name.c_str()), nullptr) << name;
}

TEST(Exports, InternalHelpersAreHidden) {
    void* handle = openLibrary();
    ASSERT_NE(handle, nullptr);
    // C++ helpers of the library stay inside it.
    EXPECT_EQ(dlsym(handle, "_ZN3kes14mapSharedTableEPKcjRKNS_16SharedTableCodesE"), nullptr);
}

// The exported tables are part of the interface: their entries' layout must not depend on the
// compiler's choices. On the 32-bit target every field is one 32-bit word: a MediaEntry is nine
// words (36 bytes), a HookEntry five (20 bytes). A 64-bit build widens the pointers to 8 bytes
// (and pads `arg`). The library's own table is checked too: its symbol spans 128 entries of
// that size, and entry 0 holds the built-in medium's operations at those offsets.
TEST(Exports, TableEntryLayout) {
    struct Layout {
        size_t mediaSize, media[9], hookSize, hook[5];
    };
    const Layout target32{36, {0, 4, 8, 12, 16, 20, 24, 28, 32}, 20, {0, 4, 8, 12, 16}};
    const Layout host64{72, {0, 8, 16, 24, 32, 40, 48, 56, 64}, 40, {0, 8, 16, 24, 32}};
    ASSERT_TRUE(sizeof(void*) == 4 || sizeof(void*) == 8);
    const Layout& want = sizeof(void*) == 4 ? target32 : host64;

    EXPECT_EQ(sizeof(MediaEntry), want.mediaSize);
    const size_t media[9] = {offsetof(MediaEntry, handle), offsetof(MediaEntry, name),  offsetof(MediaEntry, arg),
                             offsetof(MediaEntry, open),   offsetof(MediaEntry, close), offsetof(MediaEntry, read),
                             offsetof(MediaEntry, write),  offsetof(MediaEntry, seek),  offsetof(MediaEntry, sync)};
    for (int i = 0; i < 9; ++i) EXPECT_EQ(media[i], want.media[i]) << "MediaEntry field " << i;
    EXPECT_EQ(sizeof(HookEntry), want.hookSize);
    const size_t hook[5] = {offsetof(HookEntry, handle), offsetof(HookEntry, preSet), offsetof(HookEntry, postSet),
                            offsetof(HookEntry, preGet), offsetof(HookEntry, postGet)};
    for (int i = 0; i < 5; ++i) EXPECT_EQ(hook[i], want.hook[i]) << "HookEntry field " << i;

    void* handle = openLibrary();
    ASSERT_NE(handle, nullptr);
    auto symbolSize = [handle](const char* name) -> size_t {
        void* address = dlsym(handle, name);
        Dl_info info{};
        void* entry = nullptr;
        if (!address || !dladdr1(address, &info, &entry, RTLD_DL_SYMENT) || !entry) return 0;
        return static_cast<const ElfW(Sym)*>(entry)->st_size;
    };
    EXPECT_EQ(symbolSize("media_table"), 128 * want.mediaSize);
    EXPECT_EQ(symbolSize("hook_table"), sizeof(void*));
    // Entry 0 read as raw bytes at the offsets above: handle null, name "", arg 0, then the
    // built-in medium's six operations in order.
    const auto* table = static_cast<const unsigned char*>(dlsym(handle, "media_table"));
    ASSERT_NE(table, nullptr);
    auto pointerAt = [table](size_t offset) {
        void* p = nullptr;
        std::memcpy(&p, table + offset, sizeof p);
        return p;
    };
    EXPECT_EQ(pointerAt(want.media[0]), nullptr);
    ASSERT_NE(pointerAt(want.media[1]), nullptr);
    EXPECT_STREQ(static_cast<const char*>(pointerAt(want.media[1])), "");
    uint32_t arg = 0xFFFFFFFFu;
    std::memcpy(&arg, table + want.media[2], 4);
    EXPECT_EQ(arg, 0u);
    const char* operations[6] = {"defMedia_open",  "defMedia_close", "defMedia_read",
                                 "defMedia_write", "defMedia_seek",  "defMedia_sync"};
    for (int i = 0; i < 6; ++i) EXPECT_EQ(pointerAt(want.media[3 + i]), dlsym(handle, operations[i])) << operations[i];
    std::printf("MediaEntry %zu bytes, HookEntry %zu bytes, %zu-bit pointers\n", sizeof(MediaEntry),
                sizeof(HookEntry), 8 * sizeof(void*));
}

}  // namespace
