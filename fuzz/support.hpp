// Shared harness of the fuzz targets.
//
// In-memory media. A started database keeps its four kinds of record in media 1 to 4 of the
// media table (components, values, constraints, strings). Start-up loads four driver lines
// of the named-file driver, and the harness then puts its own six operations into those
// entries: each medium is a byte vector of this process, so a record access costs no system
// call. The operations check how the library uses them: a descriptor that is not open, or a
// buffer that is not addressable for the length handed over, stops the run.
//
// Input format of the media target, also that of the seed files: the four medium images in
// the order above, each a 16-bit little-endian length and its bytes, then the rest of the
// input (an operation program, see fuzz_media.cpp). A length beyond the end of the input
// takes what is there.
//
// The loader guard. The library loads driver and hook libraries with dlopen. The targets are
// linked with --wrap=dlopen, and the wrapper loads only the project's own libraries, found by
// their file name whatever directory a line gives ("libkesdrv_file.so", "libkesdrv_fault.so",
// "libkeshook_sample.so", from the build's lib directory); any other name is treated as a
// library that does not exist.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "kesdbm/kesdbm.h"

namespace kf {

constexpr uint32_t kMedia = 4;           // components, values, constraints, strings
constexpr uint32_t kFirstMedium = 1;     // media-table index of the component medium
constexpr uint32_t kValueMedium = 2, kStringMedium = 4;
constexpr size_t kMediumCap = 1u << 20;  // a write beyond this fails with ENOSPC

using Bytes = std::vector<uint8_t>;
using Images = std::array<Bytes, kMedia>;

// The media the memory driver works on, and its successful writes so far.
extern Images g_media;
extern uint64_t g_writes;
// Descriptors opened and not closed yet (0 between two library calls).
int openDescriptors();

// Splits an input into the four images (into g_media) and the rest; the offset of the rest.
size_t parseInput(const uint8_t* data, size_t size);
// The input holding the images and `rest`.
Bytes serialize(const Images& images, const Bytes& rest);

// The start of every target: standard output goes to /dev/null (the library's diagnostics)
// unless KESDB_FUZZ_VERBOSE is set, and one reference to each project library is kept, so the
// loads made by configuration lines only raise the loader's count.
void setUp();

// A fresh directory under $TMPDIR named after `tag` ("kesdb-fuzz-TAG-XXXXXX"), with
// KESDB_DBTABLE pointing at db.tbl inside it; its path. Aborts on failure.
std::string tempDirWithTable(const std::string& tag);

// The hook configuration of the started database: three hooks from the sample library. Read
// hooks neither dereference the length argument nor read the buffer (the create-list read
// hands a count where the others hand a length pointer, and a hook may be called either way),
// and write hooks never raise the length (a hook that does makes the library read past the
// caller's data, as documented for the length that preSet leaves).
extern const char* const kHookConfig;

// setUp(), then starts a database on the memory media (lays down empty media first) in a
// private directory under $TMPDIR that is removed at exit, and opens a session; aborts on
// failure.
Session* startDatabase();

// The components of the seed database: key, name (as stored), kind, children in list order.
struct SeedComponent {
    uint32_t key;
    std::string name;
    bool leaf;
    std::vector<size_t> children;  // indexes into the tree
};
using SeedTree = std::vector<SeedComponent>;  // [0] is the root

// Lays down the four memory media and builds a seed database in them through the library,
// from the top-level parts whose bits are set in `parts`:
//   1  /net: strings, a range, an enumeration, an empty node;
//   2  /time: a string and a hooked leaf;
//   4  /sys: one leaf of each numeric type and a Generic one, with constraints and hooks;
//   8  /flag, one leaf.
// Aborts on failure.
constexpr unsigned kSeedFull = 15, kSeedSmall = 9, kSeedTypes = 4;
SeedTree buildSeedDatabase(Session* s, unsigned parts);

// Paths over the seed database: ones that reach components, stop inside the tree or miss it.
extern const char* const kPaths[];
extern const size_t kPathCount;

// From now on, the library's allocations above 64 KiB fail (see support.cpp).
void capAllocations();

// Stops the run with a message on standard error (an invariant of the harness failed).
[[noreturn]] void fail(const char* what);

}  // namespace kf
