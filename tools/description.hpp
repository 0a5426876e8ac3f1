// kesdb: the JSON description of a tree, read and checked completely before a database
// is touched.
//
//   {"children": [COMPONENT, ...]}
//   node: {"name": N, "children": [COMPONENT, ...]}
//   leaf: {"name": N, "type": T, "size": S, "current": V, "default": V, "factory": V,
//          "range": {"min": V, "max": V, "step": V} | "enum": [V, ...], "hook": H}
//
// Names are plain ("port"); the tool stores them as the path search needs them (see
// treeio.hpp). Missing "default" and "factory" take the current value.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "common.hpp"

namespace kesdb {

// Longest component name: stored with a leading '/' below the first level, it still fits
// the library's 256-byte name buffers with its NUL.
constexpr size_t kNameMax = 254;
// Deepest tree a description may hold (the root's children are at depth 1).
constexpr int kDepthMax = 64;
// Largest String or Generic value, in bytes.
constexpr int32_t kValueMax = 65536;

// One component; values are the bytes the library stores, each exactly `size` long.
struct Item {
    std::string name;
    bool leaf = false;
    uint32_t type = 0;
    int32_t size = 0;
    std::string current, defaults, factory;
    bool hasRange = false;
    std::string range;  // min, max and step packed
    bool hasEnum = false;
    std::string members;  // the enumeration's members packed
    uint32_t count = 0;   // number of members
    uint32_t hook = 0;
    std::vector<Item> children;
};

// One value of the leaf `it` (its type and size set) from JSON: exactly `size` bytes.
// Fails with "WHERE: what is wrong" ("WHERE WHICH: ..." when `which` is given).
std::string leafValue(const Item& it, const json& j, const std::string& where, const char* which = nullptr);

// Reads and checks a description file ("-": standard input); fails with "FILE: PATH: what is wrong".
std::vector<Item> parseDescription(const std::string& file);
// The same for a description held in memory; `label` starts the messages.
std::vector<Item> parseDescriptionText(const std::string& text, const std::string& label);

// Highest hook index used in the tree (0 when none).
uint32_t highestHook(const std::vector<Item>& items);

}  // namespace kesdb
