// kesdb: the commands that change a database in place: import --merge, add, delete,
// factory-reset (edit.cpp). Each is all or nothing through the media journal (journal.hpp).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kesdb {

// A new leaf (type given) or node (no type) for add.
struct AddOptions {
    std::string path;
    std::string type;                 // "" for a node
    std::string size, value;          // "" when not given
    std::vector<std::string> range;   // MIN MAX STEP, or empty
    std::string members;              // A,B,... or ""
};

// Each holds the exclusive lock of what it changes (the leaves written, the parent of what is
// added, everything deleted), waiting up to `wait` seconds for another holder.
int cmdMerge(const std::string& dir, const std::string& file, double wait);
int cmdAdd(const std::string& dir, const AddOptions& options, double wait);
int cmdDelete(const std::string& dir, const std::string& path, double wait);
int cmdFactoryReset(const std::string& dir, const std::string& path, double wait);

}  // namespace kesdb
