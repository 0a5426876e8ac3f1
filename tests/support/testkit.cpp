#include "testkit.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <tuple>
#include <utility>

namespace kt {

TempDir::TempDir() {
    const char* base = getenv("TMPDIR");
    path_ = std::string(base && *base ? base : "/tmp") + "/kesdbm-test-XXXXXX";
    if (!mkdtemp(path_.data())) throw std::runtime_error("mkdtemp failed");
}

TempDir::~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
}

void writeFile(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

std::vector<uint8_t> readBytes(const std::string& path, uint32_t offset, uint32_t length) {
    std::vector<uint8_t> bytes(length);
    const int fd = open(path.c_str(), O_RDONLY);
    const ssize_t n = fd < 0 ? 0 : pread(fd, bytes.data(), length, offset);
    if (fd >= 0) close(fd);
    bytes.resize(n < 0 ? 0 : static_cast<size_t>(n));
    return bytes;
}

uint32_t readWord(const std::string& path, uint32_t offset) {
    const std::vector<uint8_t> bytes = readBytes(path, offset, 4);
    uint32_t word = 0;
    return bytes.size() == 4 ? (std::memcpy(&word, bytes.data(), 4), word) : 0;
}

void writeBytes(const std::string& path, uint32_t offset, const void* data, uint32_t length) {
    const int fd = open(path.c_str(), O_WRONLY);
    if (fd < 0 || pwrite(fd, data, length, offset) != static_cast<ssize_t>(length)) perror(path.c_str());
    if (fd >= 0) close(fd);
}

std::string libPath(const std::string& fileName) { return std::string(KT_LIB_DIR) + "/" + fileName; }

pid_t spawnProgram(const TempDir& dir, const std::string& fileName, const std::vector<std::string>& args,
                   const std::string& tag) {
    const std::string outFile = dir.file(".out" + tag), errFile = dir.file(".err" + tag);
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        const int o = open(outFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        const int e = open(errFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (chdir(dir.path().c_str()) != 0 || o < 0 || e < 0) _exit(126);
        dup2(o, 1);
        dup2(e, 2);
        // Under an emulator, its command words (separated by '|') come first: a process of the
        // emulated machine cannot start a program of that machine by itself.
        std::vector<std::string> command;
        std::string word;
        for (char c : std::string(KT_EMULATOR) + "|")
            if (c != '|') word += c;
            else if (!word.empty()) command.push_back(std::exchange(word, ""));
        command.push_back(std::string(KT_BIN_DIR) + "/" + fileName);
        command.insert(command.end(), args.begin(), args.end());
        std::vector<char*> argv;
        for (auto& a : command) argv.push_back(a.data());
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        _exit(127);
    }
    return pid;
}

Outcome finishProgram(const TempDir& dir, pid_t pid, const std::string& tag) {
    const std::string outFile = dir.file(".out" + tag), errFile = dir.file(".err" + tag);
    Outcome r{waitChild(pid), readFile(outFile), readFile(errFile)};
    return unlink(outFile.c_str()), unlink(errFile.c_str()), r;
}

bool leaveNoRoomFor(size_t bytes) {
    const rlimit limit{bytes / 4, bytes / 4};
    setrlimit(RLIMIT_AS, &limit);
    auto fits = [bytes] {
        void* block = std::malloc(bytes);
        std::free(block);
        return block != nullptr;
    };
    if (!fits()) return true;
    if (sizeof(void*) != 4) return false;
    // Take every free range of 16 MiB or more; smaller ones stay for the allocator's own use.
    for (size_t chunk = size_t{1} << 30; chunk >= (size_t{16} << 20); chunk /= 2) {
        for (int i = 0; i < 4096; ++i) {
            void* range = mmap(nullptr, chunk, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
            if (range == MAP_FAILED) break;
        }
    }
    return !fits();
}

std::string captureStdout(const std::function<void()>& body) {
    fflush(stdout);
    char name[] = "/tmp/kesdbm-stdout-XXXXXX";
    const int capture = mkstemp(name), saved = dup(STDOUT_FILENO);
    if (capture < 0) throw std::runtime_error("mkstemp failed");
    dup2(capture, STDOUT_FILENO);
    body();
    fflush(stdout);
    dup2(saved, STDOUT_FILENO);
    close(saved);
    close(capture);
    const std::string text = readFile(name);
    return unlink(name), text;
}

int timeScale() {
    const char* text = std::getenv("KESDB_TEST_TIME_SCALE");
    const int scale = text != nullptr ? std::atoi(text) : 1;
    return scale >= 1 && scale <= 1000 ? scale : 1;
}

pid_t forkChild(const std::function<int()>& body) {
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        const int code = body();
        fflush(stdout);
        _exit(code);
    }
    return pid;
}

int waitChild(pid_t pid) {
    int status = 0;
    if (waitpid(pid, &status, 0) != pid) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : WIFSIGNALED(status) ? 128 + WTERMSIG(status) : -1;
}

int runChild(const std::function<int()>& body) { return waitChild(forkChild(body)); }

DBMInitParam makeParam(const TempDir& dir) {
    DBMInitParam p{};
    std::snprintf(p.sessionTablePath, KESDB_PATH_MAX, "%s", dir.file("session.tbl").c_str());
    std::snprintf(p.lockTablePath, KESDB_PATH_MAX, "%s", dir.file("lock.tbl").c_str());
    std::snprintf(p.mediaConfigPath, KESDB_PATH_MAX, "%s", dir.file("media.conf").c_str());
    std::snprintf(p.hookConfigPath, KESDB_PATH_MAX, "%s", dir.file("hook.conf").c_str());
    return p;
}

Db::Db(const DbOptions& options) {
    setenv("KESDB_DBTABLE", dir.file("db.tbl").c_str(), 1);
    // The media are kept as on the big-endian target: free-list elements in host order
    // (a test that sets the byte-order rule itself keeps its choice).
    setenv("SIM_BYTE_ORDER", "BIG_ENDIAN", 0);
    mediumPath = dir.file("medium.bin");
    setenv("KESDB_DEFMEDIA", mediumPath.c_str(), 1);
    param = makeParam(dir);
    std::tie(param.componentMedium, param.valueMedium, param.constraintMedium, param.stringMedium, param.reserved) =
        std::tie(options.componentMedium, options.valueMedium, options.constraintMedium, options.stringMedium,
                 options.reserved);
    writeFile(param.mediaConfigPath, options.mediaConfig);
    writeFile(param.hookConfigPath, options.hookConfig);
    if (options.mediumSize != 0 && kesdb_layMedium(mediumPath.c_str(), options.mediumSize, 0) != 0)
        throw std::runtime_error("cannot lay down the medium");
    if (options.start) start();
}

int32_t Db::start() {
    id = kesDBMInit(&param, &initError);
    if (id > 0 && kesDBMInitSession(&s, static_cast<uint32_t>(id)) == 0) sessionOpen = true;
    return id;
}

void Db::stop() {
    if (std::exchange(sessionOpen, false)) kesDBMTermSession(&s);
    if (id > 0) kesDBMTerm(static_cast<uint32_t>(std::exchange(id, -1)));
}

Db::~Db() { stop(); }

}  // namespace kt
