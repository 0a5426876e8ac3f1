// Helpers shared by the value, hook and constraint tests.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "mediakit.hpp"
#include "testkit.hpp"

namespace vk {

// A started database on the default media, for tests that need nothing else.
struct DbTest : testing::Test {
    kt::Db db;
    Session* s = &db.s;
    void SetUp() override { ASSERT_GT(db.id, 0); }
};

// Options of a database whose medium 1 is the file `path` (the named-file driver), created
// with `content`.
inline kt::DbOptions withFileMedium(const std::string& path, const std::string& content = "") {
    kt::writeFile(path, content);
    kt::DbOptions o;
    o.mediaConfig = mk::driverLine("libkesdrv_file.so", "fileMedia_", path);
    return o;
}

inline uint32_t makeLeaf(Session* s, uint32_t current, uint32_t def = 0, uint32_t factory = 0, uint32_t hook = 0) {
    LeafRecord leaf{};
    if (!comp_newLeaf(s, &leaf)) return 0;
    leaf.comp.kind = KESDB_KIND_LEAF;
    std::tie(leaf.currentValue, leaf.defaultValue, leaf.factoryValue, leaf.hookIndex) =
        std::tie(current, def, factory, hook);
    return comp_setLeaf(s, &leaf) == 0 ? leaf.comp.key : 0;
}

inline uint32_t makeNode(Session* s) {
    NodeRecord node{};
    if (!comp_newNode(s, &node)) return 0;
    node.comp.kind = KESDB_KIND_NODE;
    return comp_setNode(s, &node) == 0 ? node.comp.key : 0;
}

// A value of type `type` on medium 0 holding the bytes of `v`.
template <class T>
uint32_t make(Session* s, uint32_t type, T v) {
    return value_create(s, type, 0, &v, static_cast<int32_t>(sizeof v), 0);
}

// `n` bytes of a value's data as they lie in the built-in medium.
inline std::vector<uint8_t> dataOf(kt::Db& db, uint32_t valueKey, uint32_t n) {
    ValueRecord r{};
    if (!value_get(&db.s, valueKey, &r)) return {};
    return kt::readBytes(db.mediumPath, r.dataOffset, n);
}

inline uint32_t readU32(Session* s, uint32_t valueKey) {
    uint32_t v = 0;
    int32_t len = 4;
    return value_getGeneric(s, valueKey, &v, &len) == 0 ? v : 0xBADBADu;
}

// `v` with its first `n` bytes replaced by those of `w`, as a write cut to n bytes leaves it.
inline uint32_t firstBytes(uint32_t v, uint32_t w, size_t n) {
    std::memcpy(&v, &w, n);
    return v;
}

// A range record of any family member, created on the constraint medium; its key (0 on failure).
template <class Rec, class T>
uint32_t newRange(Session* s, Rec* (*create)(Session*, Rec*), uint32_t type, T min, T max, T step = 0) {
    Rec r{};
    std::tie(r.type, r.min, r.max, r.step) = std::tie(type, min, max, step);
    return create(s, &r) ? r.key : 0;
}

using CheckFn = int32_t (*)(Session*, uint32_t, uint32_t, const void*, int32_t);

// Puts a marker pair into the session: a pass must leave it, a refusal must replace it.
inline void mark(Session& s) { session_setError(&s, 5, 0x1234); }

// An enumeration of `type` over `members`, with its array; its key.
template <class T>
uint32_t newEnum(kt::Db& db, uint32_t type, const std::vector<T>& members) {
    const uint32_t count = static_cast<uint32_t>(members.size());
    const uint32_t arrayKey = constraint_newEnumArray(&db.s, sizeof(T), count);
    EXPECT_NE(arrayKey, 0xFFFFFFFFu);
    EnumRecord r{0, type * 256u, arrayKey, sizeof(T), count};
    EXPECT_EQ(enum_new(&db.s, &r), &r);
    if (count != 0) {
        EXPECT_EQ(enum_setData(&db.s, r.key, sizeof(T), count, members.data()), 0);
    }
    return r.key;
}

// A bare constraint record (header only) with the given type code.
inline uint32_t newHeader(kt::Db& db, uint32_t type) {
    ConstraintHeader h{};
    EXPECT_EQ(constraint_new(&db.s, &h), &h);
    h.type = type;
    EXPECT_EQ(constraint_set(&db.s, &h), 0);
    return h.key;
}

}  // namespace vk
