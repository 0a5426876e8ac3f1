// Test support: fresh temporary directories, a started database on real media,
// captured standard output, and forked child processes.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "kesdbm/kesdbm.h"

namespace kt {

// A fresh directory under $TMPDIR (or /tmp), removed with its contents at the end.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

// Writes a whole file (creating or truncating it).
void writeFile(const std::string& path, const std::string& text);
// Reads a whole file; empty when it cannot be read.
std::string readFile(const std::string& path);
// Reads `length` bytes at `offset` of a file.
std::vector<uint8_t> readBytes(const std::string& path, uint32_t offset, uint32_t length);
// Reads the 32-bit host-order word at `offset` of a file.
uint32_t readWord(const std::string& path, uint32_t offset);
// Writes bytes at `offset` of an existing file.
void writeBytes(const std::string& path, uint32_t offset, const void* data, uint32_t length);

// Path of a library built by the project (for example "libkesdrv_file.so").
std::string libPath(const std::string& fileName);

// What a program run by a test gave: its exit status (128 + signal when killed) and outputs.
struct Outcome {
    int code;
    std::string out;
    std::string err;
};
// Starts a program built by the project (for example "kesdb"; under the cross build's
// emulator when the tests run under one) with `args` in directory `dir`, its
// standard output and error into files of `dir` named after `tag`.
pid_t spawnProgram(const TempDir& dir, const std::string& fileName, const std::vector<std::string>& args,
                   const std::string& tag = "");
// Waits for a program started by spawnProgram and collects what it gave.
Outcome finishProgram(const TempDir& dir, pid_t pid, const std::string& tag = "");

// True when this host stores the lowest byte of a word first. Found by looking at the bytes of
// a word, not through the library.
inline bool hostIsLittleEndian() {
    const uint16_t probe = 0x0102;
    return *reinterpret_cast<const unsigned char*>(&probe) == 0x02;
}

// In a forked child: leaves no room for a block of `bytes` or more, so that an allocation of
// that size fails. It lowers the address-space limit and, where that limit is not enforced (a
// user-mode emulator does not hand it to the host) and the address space is 32 bits wide,
// fills the free address space with inaccessible mappings. False when neither works.
bool leaveNoRoomFor(size_t bytes);

// Runs `body` and returns what it printed on standard output.
std::string captureStdout(const std::function<void()>& body);

// Runs `body` in a forked child and returns the child's exit status (its return value,
// or 128 + signal). The child leaves with _exit, so nothing of the parent's state is torn down.
int runChild(const std::function<int()>& body);
// Starts `body` in a forked child without waiting; returns the pid.
pid_t forkChild(const std::function<int()>& body);
// Waits for a child started by forkChild; its exit status as runChild gives it.
int waitChild(pid_t pid);

// The factor this build applies to time limits (KESDB_TEST_TIME_SCALE, which CTest sets: more
// under an emulator, sanitizers or valgrind); 1 when unset. Bounds on how long something may
// take, and waits for a child's report, are multiplied by it.
int timeScale();

// Options for a started database.
struct DbOptions {
    // Content of the media configuration file ("" loads no driver).
    std::string mediaConfig;
    // Content of the hook configuration file ("" loads no hook).
    std::string hookConfig;
    // Media indexes of the four kinds of record. With the default 0s all four kinds
    // live in one file, the built-in medium (KESDB_DEFMEDIA).
    uint32_t componentMedium = 0, valueMedium = 0, constraintMedium = 0, stringMedium = 0;
    uint32_t reserved = 0;
    // Size of the built-in medium laid down in the directory (0: none is laid down).
    uint32_t mediumSize = 64 * 1024;
    // Start the database and open a session.
    bool start = true;
};

// A database in a fresh temporary directory: KESDB_DBTABLE and KESDB_DEFMEDIA point into it,
// the session and lock tables and both configuration files live there. SIM_BYTE_ORDER is set
// to "BIG_ENDIAN" unless the test set it before, so free-list elements are written in host
// order as on the target.
class Db {
public:
    explicit Db(const DbOptions& options = DbOptions());
    ~Db();
    Db(const Db&) = delete;
    Db& operator=(const Db&) = delete;

    // Starts the database (kesDBMInit) and opens the session; returns the database id.
    int32_t start();
    // Closes the session and stops the database if they were started.
    void stop();

    TempDir dir;
    DBMInitParam param{};
    std::string mediumPath;  // the built-in medium's file
    int32_t id = -1;
    int32_t initError = 0;
    Session s{};
    bool sessionOpen = false;
};

// A parameter block naming files in `dir`.
DBMInitParam makeParam(const TempDir& dir);

}  // namespace kt
