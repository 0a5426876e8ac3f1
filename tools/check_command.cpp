// kesdb check: the database's media verified read-only (check.hpp has the invariants). The
// media are found from the directory's descriptor and media configuration without starting
// the library, so nothing is registered, mapped or written, and a database whose start-up
// would fail is checked all the same.
#include <fstream>
#include <map>
#include <sstream>

#include "check.hpp"
#include "commands.hpp"
#include "common.hpp"
#include "database.hpp"

namespace kesdb {

namespace {

// key=value lines of the descriptor.
std::map<std::string, std::string> descriptorOf(const std::string& dir) {
    std::ifstream in(dir + "/" + kDescriptorFile);
    if (!in) fail(dir + " is not a kesdb database (no " + kDescriptorFile + ")");
    std::map<std::string, std::string> values;
    for (std::string line; std::getline(in, line);)
        if (!line.empty() && line[0] != '#' && line.find('=') != std::string::npos)
            values[line.substr(0, line.find('='))] = line.substr(line.find('=') + 1);
    return values;
}

std::string inDir(const std::string& dir, const std::string& file) {
    return file.empty() || file[0] == '/' ? file : dir + "/" + file;
}

// The lines of a configuration file that name something: neither blank nor a comment.
std::vector<std::vector<std::string>> configLines(const std::string& file) {
    std::vector<std::vector<std::string>> lines;
    std::ifstream in(file);
    for (std::string line; std::getline(in, line);) {
        line = line.substr(0, line.find('#'));
        std::istringstream words(line);
        std::vector<std::string> w;
        for (std::string x; words >> x;) w.push_back(x);
        if (!w.empty()) lines.push_back(w);
    }
    return lines;
}

uint32_t indexOf(const std::map<std::string, std::string>& d, const char* key) {
    auto it = d.find(key);
    if (it == d.end()) fail(std::string(kDescriptorFile) + ": no " + key + " index");
    char* end = nullptr;
    const unsigned long n = std::strtoul(it->second.c_str(), &end, 10);
    if (it->second.empty() || *end != '\0' || n > 64)
        fail(std::string(kDescriptorFile) + ": " + key + "=" + it->second + " is not a media index");
    return static_cast<uint32_t>(n);
}

}  // namespace

int cmdCheck(const std::string& dirIn) {
    const std::string dir = absolutePath(dirIn);
    const auto d = descriptorOf(dir);
    check::Layout layout;
    layout.component = indexOf(d, "component");
    layout.value = indexOf(d, "value");
    layout.constraint = indexOf(d, "constraint");
    layout.string = indexOf(d, "string");
    auto get = [&](const char* key) { return d.count(key) ? d.at(key) : std::string(); };
    if (!get("defmedia").empty()) layout.files[0] = inDir(dir, get("defmedia"));
    // Media index i >= 1 is the i-th line of the media configuration; its last word is the
    // file, relative to the directory unless absolute.
    uint32_t index = 0;
    for (const auto& words : configLines(inDir(dir, get("media")))) layout.files[++index] = inDir(dir, words.back());
    layout.hookCount = static_cast<uint32_t>(configLines(inDir(dir, get("hook"))).size());
    for (uint32_t m : {layout.component, layout.value, layout.constraint, layout.string})
        if (!layout.files.count(m)) fail(dir + ": no file for media index " + std::to_string(m));

    const check::Report report = check::check(layout);
    std::fputs(report.text().c_str(), data());
    uint32_t freeElements = 0;
    for (const auto& [m, n] : report.freeElements) freeElements += n;
    const std::string counts = std::to_string(report.nodes) + " nodes, " + std::to_string(report.leaves) +
                               " leaves, " + std::to_string(report.values) + " values, " +
                               std::to_string(report.strings) + " names, " + std::to_string(report.constraints) +
                               " constraints, " + std::to_string(freeElements) + " free blocks";
    if (!report.ok())
        fail(dir + ": " + std::to_string(report.violations.size()) + " problems found (" + counts + " checked)");
    std::fprintf(data(), "%s: consistent (%s)\n", dir.c_str(), counts.c_str());
    return kExitOk;
}

}  // namespace kesdb
