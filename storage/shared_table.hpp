// Internal: mapping of the shared table files (database, session and lock tables).
#pragma once

#include <cstdint>

namespace kes {

// Outcome of opening a shared table file.
struct SharedTableOpen {
    void* map = nullptr;   // the shared mapping, or null
    int32_t code = 0;      // 0, or the code of the failing step
    bool created = false;  // the file was created (and zero-filled) by this call
};

// Codes a table uses for the steps of its set-up.
struct SharedTableCodes {
    int32_t shortWrite;  // the zero-filled file could not be written whole
    int32_t noFile;      // the file can be neither opened nor created (or the path is null)
};

// Opens the table file at `path` for reading and writing and maps `size` bytes of it shared.
// A missing (or empty) file is created (mode 0664) and filled with `size` zero bytes from a
// buffer of the operating-system wrapper's allocator (none: KESDB_ERR_NOMEM); the caller then
// initialises the table (`created`). An existing file is used unchanged; one shorter than
// `size` is refused with KESDB_ERR_MMAP rather than mapped, since touching the missing part of
// the mapping would fault. Mapping failure: KESDB_ERR_MMAP. A file that can be neither opened
// nor created gives `codes.noFile` (0 leaves the table unmapped without a failure).
SharedTableOpen mapSharedTable(const char* path, uint32_t size, const SharedTableCodes& codes);

// Unmaps a table mapped by mapSharedTable; false when munmap failed.
bool unmapSharedTable(void* map, uint32_t size);

}  // namespace kes
