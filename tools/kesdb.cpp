// kesdb: command-line client of the kesDBM library.
//
// Creates a database in a directory (media, media and hook configuration, a descriptor
// "kesdb.conf" and the root node), imports and exports the tree as JSON, and reads, writes,
// resets, prints and locks components. Run "kesdb --help" for the commands.
//
// Directory layout made by "kesdb create DIR":
//   kesdb.conf   descriptor, key=value lines; relative file names are relative to DIR
//   media.conf   media drivers (empty when the built-in medium holds everything)
//   hook.conf    hook libraries, one line per hook index 1, 2, ...
//   medium.bin   the built-in medium (default), or components/values/constraints/strings.med
//   db.tbl, session.tbl, lock.tbl   tables made by the library on first start-up
//
// Names in the database: the root is "/", first-level components carry their plain name
// ("net") and deeper ones a leading slash ("/ip"), because a search matches whole names at
// the beginning of the remaining path and hands the rest, slash included, to the children.
// The tool adds and strips that slash; on its command line paths are written "/net/ip".
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <limits>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

#include "kesdbm/kesdbm.h"

namespace {

using json = nlohmann::ordered_json;

constexpr int kExitUsage = 1;
constexpr int kExitData = 2;
constexpr size_t kNameMax = 200;
constexpr int kDepthMax = 64;
constexpr size_t kWalkMax = 1000000;  // bound on components visited by an export

// An error that ends the command: message for stderr (without "kesdb: ") and exit code.
struct Failure {
    std::string what;
    int code;
};

[[noreturn]] void fail(const std::string& what, int code = kExitData) { throw Failure{what, code}; }

std::string codeText(int32_t code) { return std::to_string(code) + " " + kesdb_errorName(code); }

// ---- value types --------------------------------------------------------

struct TypeName {
    const char* name;
    uint32_t code;
};
const TypeName kTypes[] = {{"Generic", Generic}, {"String", String},   {"Sint8", Sint8},     {"Sint16", Sint16},
                           {"Sint32", Sint32},   {"Sint64", Sint64},   {"Uint8", Uint8},     {"Uint16", Uint16},
                           {"Uint32", Uint32},   {"Uint64", Uint64},   {"Float32", Float32}, {"Float64", Float64}};

const char* typeName(uint32_t code) {
    for (const auto& t : kTypes)
        if (t.code == code) return t.name;
    return "unknown";
}

bool typeByName(const std::string& name, uint32_t& code) {
    for (const auto& t : kTypes)
        if (name == t.name) {
            code = t.code;
            return true;
        }
    return false;
}

bool isNumeric(uint32_t code) { return code >= Sint8 && code <= Float64; }

// Calls f with a value of the numeric type `code` (only for numeric codes).
template <class F>
auto withType(uint32_t code, F&& f) {
    switch (code) {
        case Sint8: return f(int8_t{});
        case Sint16: return f(int16_t{});
        case Sint32: return f(int32_t{});
        case Sint64: return f(int64_t{});
        case Uint8: return f(uint8_t{});
        case Uint16: return f(uint16_t{});
        case Uint32: return f(uint32_t{});
        case Uint64: return f(uint64_t{});
        case Float32: return f(float{});
        default: return f(double{});
    }
}

int widthOf(uint32_t code) {
    return withType(code, [](auto v) { return static_cast<int>(sizeof v); });
}

template <class T>
std::string bytesOf(T v) {
    return std::string(reinterpret_cast<const char*>(&v), sizeof v);
}

template <class T>
T fromBytes(const std::string& b, size_t offset = 0) {
    T v{};
    if (b.size() >= offset + sizeof v) std::memcpy(&v, b.data() + offset, sizeof v);
    return v;
}

// A JSON number converted to the bytes of T; false when it is not a number of T's range.
template <class T>
bool jsonToBytes(const json& j, std::string& out) {
    if constexpr (std::is_integral_v<T>) {
        if (j.is_number_unsigned()) {
            uint64_t u = j.get<uint64_t>();
            if (u > static_cast<uint64_t>(std::numeric_limits<T>::max())) return false;
            out = bytesOf(static_cast<T>(u));
            return true;
        }
        if (j.is_number_integer()) {
            int64_t i = j.get<int64_t>();
            if (std::is_unsigned_v<T> && i < 0) return false;
            if (std::is_signed_v<T> && (i < static_cast<int64_t>(std::numeric_limits<T>::min()) ||
                                        i > static_cast<int64_t>(std::numeric_limits<T>::max())))
                return false;
            out = bytesOf(static_cast<T>(i));
            return true;
        }
        return false;
    } else {
        if (!j.is_number()) return false;
        double d = j.get<double>();
        if (!std::isfinite(d)) return false;
        if (std::is_same_v<T, float> && std::fabs(d) > FLT_MAX) return false;
        out = bytesOf(static_cast<T>(d));
        return true;
    }
}

template <class T>
json bytesToJson(const std::string& b) {
    T v = fromBytes<T>(b);
    if constexpr (std::is_same_v<T, float>)
        return json(static_cast<double>(v));
    else if constexpr (std::is_integral_v<T> && sizeof(T) < 4)
        return json(static_cast<int32_t>(v));
    else
        return json(v);
}

// Command-line text converted to the bytes of T; false when it does not parse or is out of range.
template <class T>
bool textToBytes(const std::string& text, std::string& out) {
    if (text.empty() || std::isspace(static_cast<unsigned char>(text[0]))) return false;
    char* end = nullptr;
    errno = 0;
    if constexpr (std::is_floating_point_v<T>) {
        double d = std::strtod(text.c_str(), &end);
        if (errno != 0 || *end != '\0' || !std::isfinite(d)) return false;
        if (std::is_same_v<T, float> && std::fabs(d) > FLT_MAX) return false;
        out = bytesOf(static_cast<T>(d));
    } else if constexpr (std::is_signed_v<T>) {
        long long v = std::strtoll(text.c_str(), &end, 0);
        if (errno != 0 || *end != '\0') return false;
        if (v < std::numeric_limits<T>::min() || v > std::numeric_limits<T>::max()) return false;
        out = bytesOf(static_cast<T>(v));
    } else {
        if (text[0] == '-') return false;
        unsigned long long v = std::strtoull(text.c_str(), &end, 0);
        if (errno != 0 || *end != '\0') return false;
        if (v > std::numeric_limits<T>::max()) return false;
        out = bytesOf(static_cast<T>(v));
    }
    return true;
}

template <class T>
std::string bytesToText(const std::string& b) {
    T v = fromBytes<T>(b);
    char buf[64];
    if constexpr (std::is_same_v<T, float>)
        std::snprintf(buf, sizeof buf, "%.9g", static_cast<double>(v));
    else if constexpr (std::is_same_v<T, double>)
        std::snprintf(buf, sizeof buf, "%.17g", v);
    else
        return std::to_string(v);
    return buf;
}

std::string toHex(const std::string& b) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (unsigned char c : b) {
        out += digits[c >> 4];
        out += digits[c & 15];
    }
    return out;
}

bool fromHex(const std::string& text, std::string& out) {
    if (text.size() % 2 != 0) return false;
    out.clear();
    for (size_t i = 0; i < text.size(); i += 2) {
        int v = 0;
        for (size_t k = i; k < i + 2; ++k) {
            char c = text[k];
            int d = (c >= '0' && c <= '9') ? c - '0' : (c >= 'a' && c <= 'f') ? c - 'a' + 10
                                                    : (c >= 'A' && c <= 'F') ? c - 'A' + 10 : -1;
            if (d < 0) return false;
            v = v * 16 + d;
        }
        out += static_cast<char>(v);
    }
    return true;
}

// ---- the description of a tree -----------------------------------------

// One component of a description; values are held as the bytes stored in the database.
struct Item {
    std::string name;
    bool leaf = false;
    uint32_t type = 0;
    int32_t size = 0;
    std::string current, defaults, factory;
    bool hasRange = false;
    std::string rangeData;  // min, max, step packed
    bool hasEnum = false;
    std::string enumData;  // members packed
    uint32_t enumCount = 0;
    uint32_t hook = 0;
    std::vector<Item> children;
};

// Checks a value of T against the item's constraint; empty when it passes.
template <class T>
std::string violation(const Item& it, const std::string& value) {
    T v = fromBytes<T>(value);
    if (it.hasRange) {
        T min = fromBytes<T>(it.rangeData, 0), max = fromBytes<T>(it.rangeData, sizeof(T)),
          step = fromBytes<T>(it.rangeData, 2 * sizeof(T));
        if (v < min) return "below the range minimum";
        if (v > max) return "above the range maximum";
        if constexpr (std::is_integral_v<T>) {
            if (step != 0) {
                using U = std::make_unsigned_t<T>;
                U diff = static_cast<U>(static_cast<U>(v) - static_cast<U>(min));
                if (diff % static_cast<U>(step) != 0) return "off the range step";
            }
        }
    }
    if (it.hasEnum) {
        for (uint32_t i = 0; i < it.enumCount; ++i)
            if (fromBytes<T>(it.enumData, i * sizeof(T)) == v) return "";
        return "not a member of the enumeration";
    }
    return "";
}

const std::set<std::string> kNodeKeys = {"name", "children"};
const std::set<std::string> kLeafKeys = {"name",  "type",  "size", "current", "default",
                                         "factory", "range", "enum", "hook"};

// Converts one value of a leaf from JSON, with `where` naming it in messages.
std::string leafValue(const Item& it, const json& j, const std::string& where) {
    std::string out;
    if (it.type == String) {
        if (!j.is_string()) fail(where + ": a String value must be a JSON string");
        out = j.get<std::string>();
        if (out.find('\0') != std::string::npos) fail(where + ": text contains a NUL byte");
        if (static_cast<int64_t>(out.size()) + 1 > it.size)
            fail(where + ": text of " + std::to_string(out.size()) + " bytes does not fit size " +
                 std::to_string(it.size));
        out.resize(static_cast<size_t>(it.size), '\0');
    } else if (it.type == Generic) {
        if (!j.is_string() || !fromHex(j.get<std::string>(), out))
            fail(where + ": a Generic value must be a string of hex digit pairs");
        if (static_cast<int64_t>(out.size()) > it.size)
            fail(where + ": " + std::to_string(out.size()) + " bytes do not fit size " + std::to_string(it.size));
        out.resize(static_cast<size_t>(it.size), '\0');
    } else {
        bool ok = withType(it.type, [&](auto v) { return jsonToBytes<decltype(v)>(j, out); });
        if (!ok) fail(where + ": " + j.dump() + " is not a " + typeName(it.type) + " value");
    }
    return out;
}

Item parseItem(const json& j, const std::string& parentPath, int depth);

std::vector<Item> parseChildren(const json& j, const std::string& path, int depth) {
    if (!j.is_array()) fail(path + ": \"children\" must be an array");
    if (depth > kDepthMax) fail(path + ": tree deeper than " + std::to_string(kDepthMax) + " levels");
    std::vector<Item> out;
    std::set<std::string> names;
    for (const auto& c : j) {
        out.push_back(parseItem(c, path, depth));
        if (!names.insert(out.back().name).second)
            fail((path == "/" ? "" : path) + "/" + out.back().name + ": name used twice among siblings");
    }
    return out;
}

Item parseItem(const json& j, const std::string& parentPath, int depth) {
    std::string where = parentPath + " (child)";
    if (!j.is_object()) fail(where + ": a component must be a JSON object");
    if (!j.contains("name") || !j["name"].is_string()) fail(where + ": component without a \"name\" string");
    Item it;
    it.name = j["name"].get<std::string>();
    where = (parentPath == "/" ? "" : parentPath) + "/" + it.name;
    if (it.name.empty()) fail(parentPath + ": empty component name");
    if (it.name.find('/') != std::string::npos) fail(where + ": name contains '/'");
    if (it.name.find('\0') != std::string::npos) fail(where + ": name contains a NUL byte");
    if (it.name.size() > kNameMax) fail(where + ": name longer than " + std::to_string(kNameMax) + " characters");
    bool hasType = j.contains("type"), hasChildren = j.contains("children");
    if (hasType == hasChildren) fail(where + ": a component needs exactly one of \"type\" (leaf) or \"children\" (node)");
    for (const auto& [key, value] : j.items()) {
        (void)value;
        if (!(hasType ? kLeafKeys : kNodeKeys).count(key)) fail(where + ": unknown key \"" + key + "\"");
    }
    if (hasChildren) {
        it.children = parseChildren(j["children"], where, depth + 1);
        return it;
    }
    it.leaf = true;
    if (!j["type"].is_string() || !typeByName(j["type"].get<std::string>(), it.type))
        fail(where + ": unknown type " + j["type"].dump());
    if (!j.contains("current")) fail(where + ": leaf without \"current\"");
    const json& cur = j["current"];
    const json& def = j.contains("default") ? j["default"] : cur;
    const json& fac = j.contains("factory") ? j["factory"] : cur;
    if (isNumeric(it.type)) {
        if (j.contains("size") && (!j["size"].is_number_integer() || j["size"].get<int64_t>() != widthOf(it.type)))
            fail(where + ": size of a " + typeName(it.type) + " must be " + std::to_string(widthOf(it.type)));
        it.size = widthOf(it.type);
    } else if (j.contains("size")) {
        if (!j["size"].is_number_integer() || j["size"].get<int64_t>() < 1 || j["size"].get<int64_t>() > 65536)
            fail(where + ": size must be an integer from 1 to 65536");
        it.size = static_cast<int32_t>(j["size"].get<int64_t>());
    } else {
        // Default size: the longest of the three values (plus the NUL of a String).
        size_t longest = 0;
        for (const json* v : {&cur, &def, &fac}) {
            if (!v->is_string()) fail(where + ": a " + std::string(typeName(it.type)) + " value must be a JSON string");
            size_t n = v->get<std::string>().size();
            longest = std::max(longest, it.type == String ? n + 1 : n / 2);
        }
        if (longest == 0) fail(where + ": an empty Generic value needs a \"size\"");
        if (longest > 65536) fail(where + ": value longer than 65536 bytes");
        it.size = static_cast<int32_t>(longest);
    }
    it.current = leafValue(it, cur, where + " current");
    it.defaults = leafValue(it, def, where + " default");
    it.factory = leafValue(it, fac, where + " factory");
    if (j.contains("hook")) {
        if (!j["hook"].is_number_unsigned() || j["hook"].get<uint64_t>() > 1000)
            fail(where + ": hook must be an integer from 0 to 1000");
        it.hook = j["hook"].get<uint32_t>();
    }
    if (j.contains("range") && j.contains("enum")) fail(where + ": a leaf takes a range or an enumeration, not both");
    if ((j.contains("range") || j.contains("enum")) && !isNumeric(it.type))
        fail(where + ": constraints apply to numeric types only");
    if (j.contains("range")) {
        const json& r = j["range"];
        if (!r.is_object() || !r.contains("min") || !r.contains("max"))
            fail(where + ": range needs \"min\" and \"max\"");
        for (const auto& [key, value] : r.items()) {
            (void)value;
            if (key != "min" && key != "max" && key != "step") fail(where + ": unknown range key \"" + key + "\"");
        }
        it.hasRange = true;
        for (const char* k : {"min", "max", "step"}) {
            json v = r.contains(k) ? r[k] : json(0);
            std::string b;
            if (!withType(it.type, [&](auto t) { return jsonToBytes<decltype(t)>(v, b); }))
                fail(where + ": range " + k + " " + v.dump() + " is not a " + typeName(it.type) + " value");
            it.rangeData += b;
        }
    }
    if (j.contains("enum")) {
        const json& e = j["enum"];
        if (!e.is_array() || e.empty() || e.size() > 4096) fail(where + ": enum must be an array of 1 to 4096 values");
        it.hasEnum = true;
        for (const auto& v : e) {
            std::string b;
            if (!withType(it.type, [&](auto t) { return jsonToBytes<decltype(t)>(v, b); }))
                fail(where + ": enum member " + v.dump() + " is not a " + typeName(it.type) + " value");
            it.enumData += b;
            ++it.enumCount;
        }
    }
    if (it.hasRange || it.hasEnum) {
        const std::pair<const char*, const std::string*> values[] = {
            {"current", &it.current}, {"default", &it.defaults}, {"factory", &it.factory}};
        for (const auto& [label, value] : values) {
            std::string why = withType(it.type, [&](auto t) { return violation<decltype(t)>(it, *value); });
            if (!why.empty()) fail(where + ": " + label + " value is " + why);
        }
    }
    return it;
}

// Parses and validates a whole description; throws Failure with a clear message.
std::vector<Item> parseDescription(const std::string& file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) fail("cannot read " + file + ": " + std::strerror(errno));
    std::stringstream buf;
    buf << in.rdbuf();
    json j = json::parse(buf.str(), nullptr, false);
    if (j.is_discarded()) fail(file + ": not valid JSON");
    if (!j.is_object() || !j.contains("children")) fail(file + ": top level must be an object with \"children\"");
    for (const auto& [key, value] : j.items()) {
        (void)value;
        if (key != "children") fail(file + ": unknown top-level key \"" + key + "\"");
    }
    try {
        return parseChildren(j["children"], "/", 1);
    } catch (const Failure& f) {
        fail(file + ": " + f.what, f.code);
    }
}

// ---- files and directories ----------------------------------------------

void writeText(const std::string& file, const std::string& text) {
    FILE* f = std::fopen(file.c_str(), "w");
    if (!f) fail("cannot write " + file + ": " + std::strerror(errno));
    bool ok = std::fputs(text.c_str(), f) >= 0 || text.empty();
    if (std::fclose(f) != 0 || !ok) fail("cannot write " + file);
}

std::string absolute(const std::string& path) {
    char* r = realpath(path.c_str(), nullptr);
    if (!r) fail("cannot resolve " + path + ": " + std::strerror(errno));
    std::string out(r);
    std::free(r);
    return out;
}

std::string dirName(const std::string& path) {
    size_t slash = path.find_last_of('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string baseName(const std::string& path) {
    size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

void removeTree(const std::string& dir) {
    // Only the flat directories the tool makes: remove the files, then the directory.
    if (DIR* d = opendir(dir.c_str())) {
        std::vector<std::string> names;
        while (dirent* e = readdir(d)) {
            std::string name = e->d_name;
            if (name != "." && name != "..") names.push_back(name);
        }
        closedir(d);
        for (const std::string& name : names) unlink((dir + "/" + name).c_str());
    }
    rmdir(dir.c_str());
}

std::string libDir() {
    if (const char* e = std::getenv("KESDB_LIB_DIR"); e && *e) return e;
    char buf[4096];
    ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
    if (n <= 0) return "../lib";
    buf[n] = '\0';
    return dirName(dirName(buf)) + "/lib";
}

bool g_userDbTable = false;  // KESDB_DBTABLE was set by the caller

// ---- the descriptor and an open database --------------------------------

struct Descriptor {
    std::map<std::string, std::string> values;
};

const char* kMediaFiles[] = {"components.med", "values.med", "constraints.med", "strings.med"};

std::string mediaConfig(const std::string& dir, bool files) {
    if (!files) return "";
    std::string conf;
    for (const char* m : kMediaFiles)
        conf += libDir() + "/libkesdrv_file.so fileMedia_open fileMedia_close fileMedia_read fileMedia_write"
                           " fileMedia_seek fileMedia_sync " +
                dir + "/" + m + "\n";
    return conf;
}

Descriptor readDescriptor(const std::string& dir) {
    std::ifstream in(dir + "/kesdb.conf");
    if (!in) fail(dir + " is not a kesdb database (no kesdb.conf)");
    Descriptor d;
    std::string line;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '#') continue;
        size_t eq = line.find('=');
        if (eq == std::string::npos) fail(dir + "/kesdb.conf: bad line '" + line + "'");
        d.values[line.substr(0, eq)] = line.substr(eq + 1);
    }
    return d;
}

std::string resolve(const std::string& dir, const std::string& name) {
    return !name.empty() && name[0] == '/' ? name : dir + "/" + name;
}

uint32_t number(const Descriptor& d, const char* key) {
    auto it = d.values.find(key);
    if (it == d.values.end()) return 0;
    return static_cast<uint32_t>(std::strtoul(it->second.c_str(), nullptr, 0));
}

// Runs `body` with standard output sent to /dev/null (library diagnostics the tool handles itself).
template <class F>
auto quiet(F&& body) {
    std::fflush(stdout);
    int saved = dup(1);
    int null = open("/dev/null", O_WRONLY);
    if (saved >= 0 && null >= 0) dup2(null, 1);
    if (null >= 0) close(null);
    auto r = body();
    std::fflush(stdout);
    if (saved >= 0) {
        dup2(saved, 1);
        close(saved);
    }
    return r;
}

// A started database with one session; stopped in the destructor.
class Database {
public:
    explicit Database(const std::string& dirIn) {
        dir_ = absolute(dirIn);
        Descriptor d = readDescriptor(dir_);
        if (!g_userDbTable) setenv("KESDB_DBTABLE", (dir_ + "/db.tbl").c_str(), 1);
        setenv("SIM_BYTE_ORDER", "BIG_ENDIAN", 0);
        if (auto it = d.values.find("defmedia"); it != d.values.end() && !it->second.empty())
            setenv("KESDB_DEFMEDIA", resolve(dir_, it->second).c_str(), 1);
        auto path = [&](const char* key, char* field) {
            auto it = d.values.find(key);
            if (it == d.values.end()) fail(dir_ + "/kesdb.conf: missing " + key);
            std::snprintf(field, KESDB_PATH_MAX, "%s", resolve(dir_, it->second).c_str());
        };
        path("session", param_.sessionTablePath);
        path("lock", param_.lockTablePath);
        path("media", param_.mediaConfigPath);
        path("hook", param_.hookConfigPath);
        param_.componentMedium = number(d, "component");
        param_.valueMedium = number(d, "value");
        param_.constraintMedium = number(d, "constraint");
        param_.stringMedium = number(d, "string");
        param_.reserved = number(d, "reserved");
        int32_t err = 0;
        id_ = kesDBMInit(&param_, &err);
        if (id_ < 0) {
            kesDBMTerm(0);
            fail("cannot start the database in " + dir_ + ": " + codeText(err));
        }
        int32_t rc = kesDBMInitSession(&s, static_cast<uint32_t>(id_));
        if (rc != 0) {
            kesDBMTerm(static_cast<uint32_t>(id_));
            fail("cannot open a session: " + codeText(rc));
        }
    }
    ~Database() {
        kesDBMTermSession(&s);
        if (!keepRegistered_) kesDBMTerm(static_cast<uint32_t>(id_));
    }
    // Leaves this start-up's registration in the database table when the process ends.
    void keepRegistered() { keepRegistered_ = true; }
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    const DBMInitParam& param() const { return param_; }

    // Key of a component named by a path ("/" or "" for the root); fails for an unknown path.
    uint32_t find(const std::string& path) {
        uint32_t root = kesDBMGetRoot(&s);
        if (root == 0) fail("the database has no root node");
        if (path.empty() || path == "/") return root;
        std::string p = path;
        if (p[0] != '/') p = "/" + p;
        while (p.size() > 1 && p.back() == '/') p.pop_back();
        uint32_t key = quiet([&] { return kesDBMSearchByName(&s, p.c_str()); });
        if (key == 0) fail("unknown path " + path);
        return key;
    }

    Session s{};

private:
    std::string dir_;
    DBMInitParam param_{};
    int32_t id_ = -1;
    bool keepRegistered_ = false;
};

uint32_t maxHook(const std::vector<Item>& items) {
    uint32_t m = 0;
    for (const Item& it : items) m = std::max({m, it.hook, maxHook(it.children)});
    return m;
}

void checkHooks(const std::vector<Item>& items, int32_t configured) {
    uint32_t m = maxHook(items);
    if (m > static_cast<uint32_t>(std::max(configured, 0)))
        fail("the description uses hook " + std::to_string(m) + " but only " + std::to_string(configured) +
             " hooks are configured");
}

// ---- import and export ---------------------------------------------------

uint32_t makeRange(Session* s, uint32_t type, const std::string& data) {
    auto make = [&](auto rec, auto newFn, auto v) -> uint32_t {
        using T = decltype(v);
        rec.type = type;
        rec.min = fromBytes<T>(data, 0);
        rec.max = fromBytes<T>(data, sizeof(T));
        rec.step = fromBytes<T>(data, 2 * sizeof(T));
        return newFn(s, &rec) ? rec.key : 0;
    };
    switch (type) {
        case Sint8: return make(RangeRecordS8{}, rangeS8_new, int8_t{});
        case Sint16: return make(RangeRecordS16{}, rangeS16_new, int16_t{});
        case Sint32: return make(RangeRecordS32{}, rangeS32_new, int32_t{});
        case Sint64: return make(RangeRecordS64{}, rangeS64_new, int64_t{});
        case Uint8: return make(RangeRecordU8{}, rangeU8_new, uint8_t{});
        case Uint16: return make(RangeRecordU16{}, rangeU16_new, uint16_t{});
        case Uint32: return make(RangeRecordU32{}, rangeU32_new, uint32_t{});
        case Uint64: return make(RangeRecordU64{}, rangeU64_new, uint64_t{});
        case Float32: return make(RangeRecordF32{}, rangeF32_new, float{});
        default: return make(RangeRecordF64{}, rangeF64_new, double{});
    }
}

uint32_t makeEnum(Session* s, uint32_t type, const Item& it) {
    EnumRecord rec{};
    rec.type = type * KESDB_CSTRT_ENUM_FACTOR;
    rec.elementSize = static_cast<uint32_t>(widthOf(type));
    rec.count = it.enumCount;
    rec.arrayKey = constraint_newEnumArray(s, rec.elementSize, rec.count);
    if (rec.arrayKey == 0 || !enum_new(s, &rec)) return 0;
    if (enum_setData(s, rec.key, rec.elementSize, rec.count, it.enumData.data()) != 0) return 0;
    return rec.key;
}

[[noreturn]] void libraryFailure(Session& s, const std::string& what) {
    fail(what + ": " + codeText(static_cast<int32_t>(s.error)));
}

// Creates the items below `parent`, each behind the sibling created before it.
void build(Database& db, const std::vector<Item>& items, uint32_t parent, const std::string& parentPath, int depth) {
    Session& s = db.s;
    const DBMInitParam& p = db.param();
    int32_t hooks = hook_getCount();
    uint32_t previous = 0;
    for (const Item& it : items) {
        std::string path = (parentPath == "/" ? "" : parentPath) + "/" + it.name;
        std::string stored = depth == 1 ? it.name : "/" + it.name;
        uint32_t name = kesDBMCreateString(&s, stored.c_str(), p.stringMedium);
        if (name == 0) libraryFailure(s, "cannot store the name of " + path);
        uint32_t key = 0;
        if (!it.leaf) {
            key = kesDBMCreateNode(&s, name, parent, previous, 0);
            if (key == 0) libraryFailure(s, "cannot create node " + path);
            build(db, it.children, key, path, depth + 1);
        } else {
            if (static_cast<int32_t>(it.hook) > hooks)
                fail(path + ": hook " + std::to_string(it.hook) + " is not configured (" + std::to_string(hooks) +
                     " hooks)");
            uint32_t constraint = 0;
            if (it.hasRange) constraint = makeRange(&s, it.type, it.rangeData);
            if (it.hasEnum) constraint = makeEnum(&s, it.type, it);
            if ((it.hasRange || it.hasEnum) && constraint == 0) libraryFailure(s, "cannot create the constraint of " + path);
            uint32_t values[3];
            const std::string* data[3] = {&it.current, &it.defaults, &it.factory};
            for (int i = 0; i < 3; ++i) {
                values[i] = kesDBMCreateValue(&s, it.type, 0, data[i]->data(), it.size, p.valueMedium);
                if (values[i] == 0) libraryFailure(s, "cannot create a value of " + path);
                if (constraint != 0 && kesDBMSetConstraintKey(&s, values[i], constraint) != 0)
                    libraryFailure(s, "cannot attach the constraint of " + path);
            }
            key = kesDBMCreateLeaf(&s, name, parent, previous, values[0], values[1], values[2], it.hook);
            if (key == 0) libraryFailure(s, "cannot create leaf " + path);
        }
        previous = key;
    }
}

void importInto(Database& db, const std::vector<Item>& items) {
    uint32_t root = db.find("/");
    if (kesDBMGetFirstChild(&db.s, root) != 0) fail("the database is not empty (its root has children)");
    checkHooks(items, hook_getCount());
    build(db, items, root, "/", 1);
}

std::string readValue(Session& s, uint32_t valueKey, const std::string& path) {
    int32_t len = value_getLength(&s, valueKey);
    if (len <= 0) libraryFailure(s, "cannot read a value of " + path);
    std::string buf(static_cast<size_t>(len), '\0');
    int32_t n = len;
    if (value_getGeneric(&s, valueKey, buf.data(), &n) != 0) libraryFailure(s, "cannot read a value of " + path);
    buf.resize(static_cast<size_t>(std::max(0, std::min(n, len))));
    return buf;
}

json valueJson(uint32_t type, const std::string& b) {
    if (type == String) return json(std::string(b.c_str(), strnlen(b.data(), b.size())));
    if (type == Generic) return json(toHex(b));
    return withType(type, [&](auto t) { return bytesToJson<decltype(t)>(b); });
}

json exportChildren(Session& s, uint32_t parent, const std::string& parentPath, int depth, size_t& visited) {
    json children = json::array();
    for (uint32_t key = kesDBMGetFirstChild(&s, parent); key != 0; key = kesDBMGetNextChild(&s, key)) {
        if (++visited > kWalkMax) fail("tree walk does not end (corrupt sibling list?)");
        char nameBuf[KESDB_NAME_BUFFER] = {};
        uint32_t nameKey = kesDBMGetStringKey(&s, key);
        if (nameKey == 0 || !kesdb_getString(&s, nameKey, nameBuf, sizeof nameBuf - 1))
            libraryFailure(s, "cannot read a name below " + parentPath);
        std::string name(nameBuf);
        if (depth > 1 && !name.empty() && name[0] == '/') name.erase(0, 1);
        std::string path = (parentPath == "/" ? "" : parentPath) + "/" + name;
        CompRecord rec{};
        if (!comp_getComponent(&s, key, &rec)) libraryFailure(s, "cannot read " + path);
        json item;
        item["name"] = name;
        if (rec.kind != KESDB_KIND_LEAF) {
            if (depth >= kDepthMax) fail(path + ": tree deeper than " + std::to_string(kDepthMax) + " levels");
            item["children"] = exportChildren(s, key, path, depth + 1, visited);
            children.push_back(std::move(item));
            continue;
        }
        LeafRecord leaf{};
        if (!comp_getLeaf(&s, key, &leaf)) libraryFailure(s, "cannot read " + path);
        int32_t type = value_getType(&s, leaf.currentValue);
        if (type < Generic || type > Float64) libraryFailure(s, "cannot read the type of " + path);
        uint32_t t = static_cast<uint32_t>(type);
        std::string cur = readValue(s, leaf.currentValue, path), def = readValue(s, leaf.defaultValue, path),
                    fac = readValue(s, leaf.factoryValue, path);
        item["type"] = typeName(t);
        if (!isNumeric(t)) item["size"] = cur.size();
        item["current"] = valueJson(t, cur);
        item["default"] = valueJson(t, def);
        item["factory"] = valueJson(t, fac);
        uint32_t ck = value_getConstraintKey(&s, leaf.currentValue);
        if (ck != 0 && isNumeric(t)) {
            uint32_t ctype = constraint_getType(&s, ck);
            int32_t clen = constraint_getLength(&s, ck);
            std::string data(static_cast<size_t>(std::max(clen, 0)), '\0');
            if (clen <= 0 || constraint_getData(&s, ck, data.data(), static_cast<uint32_t>(clen)) != 0)
                libraryFailure(s, "cannot read the constraint of " + path);
            int w = widthOf(t);
            if (ctype == t && clen == 3 * w) {
                json r;
                r["min"] = valueJson(t, data.substr(0, static_cast<size_t>(w)));
                r["max"] = valueJson(t, data.substr(static_cast<size_t>(w), static_cast<size_t>(w)));
                r["step"] = valueJson(t, data.substr(static_cast<size_t>(2 * w), static_cast<size_t>(w)));
                item["range"] = r;
            } else if (ctype == t * KESDB_CSTRT_ENUM_FACTOR && clen % w == 0) {
                json e = json::array();
                for (int32_t i = 0; i < clen; i += w)
                    e.push_back(valueJson(t, data.substr(static_cast<size_t>(i), static_cast<size_t>(w))));
                item["enum"] = e;
            } else {
                fail(path + ": constraint of type " + std::to_string(ctype) + " does not fit a " + typeName(t));
            }
        }
        if (leaf.hookIndex != 0) item["hook"] = leaf.hookIndex;
        children.push_back(std::move(item));
    }
    return children;
}

std::string exportText(Database& db) {
    size_t visited = 0;
    json top;
    top["children"] = exportChildren(db.s, db.find("/"), "/", 1, visited);
    return top.dump(2) + "\n";
}

// ---- create ---------------------------------------------------------------

struct CreateOptions {
    std::string dir;
    bool files = false;
    uint32_t size = 1024 * 1024;
    std::vector<std::string> hooks;
    std::string from;
};

std::string hookConfig(const std::vector<std::string>& hooks) {
    std::string conf;
    for (const std::string& h : hooks) {
        std::istringstream words(h);
        std::vector<std::string> w;
        for (std::string x; words >> x;) w.push_back(x);
        if (w.size() != 5) fail("--hook needs \"LIB PRESET POSTSET PREGET POSTGET\" (NULL for none), got '" + h + "'", kExitUsage);
        if (w[0].find('/') == std::string::npos) w[0] = libDir() + "/" + w[0];
        conf += w[0] + " " + w[1] + " " + w[2] + " " + w[3] + " " + w[4] + "\n";
    }
    return conf;
}

int cmdCreate(const CreateOptions& o) {
    // Everything that can be checked is checked before anything is made.
    std::vector<Item> items;
    if (!o.from.empty()) items = parseDescription(o.from);
    std::string hooks = hookConfig(o.hooks);
    try {
        checkHooks(items, static_cast<int32_t>(o.hooks.size()));
    } catch (const Failure& f) {
        fail(o.from + ": " + f.what, f.code);
    }
    if (o.size < 4096) fail("--size must be at least 4096 bytes", kExitUsage);
    std::string target = o.dir;
    while (target.size() > 1 && target.back() == '/') target.pop_back();
    struct stat st{};
    if (stat(target.c_str(), &st) == 0) {
        if (!S_ISDIR(st.st_mode) || rmdir(target.c_str()) != 0) fail(target + " already exists");
        mkdir(target.c_str(), 0775);  // an empty directory is replaced by the new database
    }
    std::string parent = absolute(dirName(target));
    std::string finalDir = parent + "/" + baseName(target);
    std::string tmpl = finalDir + ".tmp-XXXXXX";
    if (!mkdtemp(tmpl.data())) fail("cannot make a directory next to " + finalDir + ": " + std::strerror(errno));
    const std::string tmp = tmpl;
    try {
        chmod(tmp.c_str(), 0775);
        std::string desc = "session=session.tbl\nlock=lock.tbl\nmedia=media.conf\nhook=hook.conf\n";
        if (o.files) {
            for (const char* m : kMediaFiles)
                if (int32_t e = kesdb_layMedium((tmp + "/" + m).c_str(), o.size, 0); e != 0)
                    fail(std::string("cannot lay down ") + m + ": " + std::strerror(e));
            desc += "component=1\nvalue=2\nconstraint=3\nstring=4\nreserved=0\ndefmedia=\n";
        } else {
            if (int32_t e = kesdb_layMedium((tmp + "/medium.bin").c_str(), o.size, 0); e != 0)
                fail(std::string("cannot lay down medium.bin: ") + std::strerror(e));
            desc += "component=0\nvalue=0\nconstraint=0\nstring=0\nreserved=0\ndefmedia=medium.bin\n";
        }
        writeText(tmp + "/kesdb.conf", desc);
        writeText(tmp + "/media.conf", mediaConfig(tmp, o.files));
        writeText(tmp + "/hook.conf", hooks);
        {
            Database db(tmp);
            Session& s = db.s;
            NodeRecord root{};
            if (!comp_newNode(&s, &root)) libraryFailure(s, "cannot create the root node");
            root.comp.stringKey = kesDBMCreateString(&s, "/", db.param().stringMedium);
            if (root.comp.stringKey == 0) libraryFailure(s, "cannot store the root name");
            root.comp.kind = KESDB_KIND_NODE;
            if (comp_setNode(&s, &root) != 0) libraryFailure(s, "cannot write the root node");
            if (flst_m_setRoot(&s, db.param().componentMedium, root.comp.key) != 0)
                libraryFailure(s, "cannot record the root node");
            if (!items.empty()) importInto(db, items);
        }
        // The media configuration names the media files by their final place.
        writeText(tmp + "/media.conf", mediaConfig(finalDir, o.files));
        if (rename(tmp.c_str(), finalDir.c_str()) != 0) fail("cannot rename to " + finalDir + ": " + std::strerror(errno));
    } catch (...) {
        removeTree(tmp);
        throw;
    }
    // Database ids come from a shared table that hands a released slot out again only after
    // the others; a lock is named by the database id. One registration held from here on
    // keeps the id of this database stable across the tool's short-lived processes, so a
    // lock taken by one "kesdb lock" is seen by the next command.
    Database pin(finalDir);
    pin.keepRegistered();
    return 0;
}

// ---- the other commands -----------------------------------------------------

std::string valueText(uint32_t type, const std::string& b) {
    if (type == String) return std::string(b.c_str(), strnlen(b.data(), b.size()));
    if (type == Generic) return toHex(b);
    return withType(type, [&](auto t) { return bytesToText<decltype(t)>(b); });
}

uint32_t leafType(Database& db, uint32_t key, const std::string& path) {
    int32_t type = kesDBMGetType(&db.s, key);
    if (type < 0) fail(path + " is not a leaf");
    return static_cast<uint32_t>(type);
}

int cmdGet(Database& db, const std::string& path, int which) {
    uint32_t key = db.find(path);
    uint32_t type = leafType(db, key, path);
    int32_t len = kesDBMGetLength(&db.s, key);
    if (len <= 0) libraryFailure(db.s, "get " + path);
    std::string buf(static_cast<size_t>(len), '\0');
    int32_t n = len;
    int32_t rc = which == 0   ? kesDBMGetGeneric(&db.s, key, buf.data(), &n)
                 : which == 1 ? kesDBMGetDefaultGeneric(&db.s, key, buf.data(), &n)
                              : kesDBMGetFactoryGeneric(&db.s, key, buf.data(), &n);
    if (rc != 0) {
        std::string detail = (rc >= KESDB_ERR_HOOK_PREGET && rc <= KESDB_ERR_HOOK_POSTSET)
                                 ? " (hook result " + std::to_string(db.s.errorDetail) + ")" : "";
        fail("get " + path + ": " + codeText(rc) + detail);
    }
    buf.resize(static_cast<size_t>(std::max(0, std::min(n, len))));
    std::printf("%s\n", valueText(type, buf).c_str());
    return 0;
}

int cmdSet(Database& db, const std::string& path, const std::string& text, bool toDefault) {
    uint32_t key = db.find(path);
    uint32_t type = leafType(db, key, path);
    int32_t len = kesDBMGetLength(&db.s, key);
    if (len <= 0) libraryFailure(db.s, "set " + path);
    std::string data;
    if (type == String) {
        if (static_cast<int64_t>(text.size()) + 1 > len)
            fail("value '" + text + "' does not fit " + path + " (" + std::to_string(len) + " bytes with the NUL)");
        data = text;
        data.resize(static_cast<size_t>(len), '\0');
    } else if (type == Generic) {
        if (!fromHex(text, data)) fail("value '" + text + "' does not parse as Generic (hex digit pairs)");
        if (static_cast<int64_t>(data.size()) > len)
            fail("value '" + text + "' does not fit " + path + " (" + std::to_string(len) + " bytes)");
        data.resize(static_cast<size_t>(len), '\0');
    } else {
        bool ok = withType(type, [&](auto t) { return textToBytes<decltype(t)>(text, data); });
        if (!ok) fail("value '" + text + "' does not parse as " + typeName(type));
    }
    int32_t rc = toDefault ? kesDBMSetDefaultGeneric(&db.s, key, data.data(), static_cast<int32_t>(data.size()))
                           : kesDBMSetGeneric(&db.s, key, data.data(), static_cast<int32_t>(data.size()));
    if (rc != 0) {
        std::string detail = (rc >= KESDB_ERR_HOOK_PREGET && rc <= KESDB_ERR_HOOK_POSTSET)
                                 ? " (hook result " + std::to_string(db.s.errorDetail) + ")" : "";
        fail("set " + path + ": " + codeText(rc) + detail);
    }
    return 0;
}

int cmdTransfer(Database& db, const std::string& path, bool factory) {
    uint32_t key = db.find(path);
    int32_t rc = factory ? kesDBMFactoryToDefault(&db.s, key) : kesDBMDefaultToCurrent(&db.s, key);
    if (rc != 0) fail(std::string(factory ? "factory-to-default " : "reset ") + path + ": " + codeText(rc));
    return 0;
}

const char kHelp[] =
    "usage: kesdb COMMAND ...    kesdb -d DIR COMMAND ...\n"
    "\n"
    "Commands:\n"
    "  create DIR [--files] [--size BYTES] [--hook \"LIB PRESET POSTSET PREGET POSTGET\"]... [--from FILE.json]\n"
    "        make a database in DIR (which must not exist, or be empty): media, media.conf,\n"
    "        hook.conf (one --hook per hook index 1, 2, ...; NULL for a missing function; LIB\n"
    "        without '/' is looked up in the library directory), kesdb.conf and the root node.\n"
    "        Default: one medium file medium.bin through the built-in medium; --files: four\n"
    "        files through libkesdrv_file.so. --size: bytes per medium file (default 1048576).\n"
    "        --from: import a JSON description; it is checked completely first and the\n"
    "        database is built in DIR.tmp-XXXXXX, renamed to DIR only when all succeeded.\n"
    "  import FILE.json          import a description into a database whose root has no children\n"
    "  export [FILE]             write the tree as JSON to FILE or standard output\n"
    "  get PATH [--default|--factory]   print a leaf's current (default, factory) value\n"
    "  set PATH VALUE [--default]       write a leaf's current (default) value\n"
    "  reset [PATH]              copy default values to current values (whole tree by default)\n"
    "  factory-to-default [PATH] copy factory values to default values (whole tree by default)\n"
    "  print [PATH]              print the tree or a subtree\n"
    "  lock PATH [--shared] [--try]     lock a component (exclusive and waiting by default);\n"
    "                            the lock stays in the lock table until unlocked\n"
    "  unlock PATH               release a lock on a component\n"
    "  help, --help              this text\n"
    "\n"
    "-d DIR names the database directory for every command but create and help.\n"
    "Paths are written /net/port; / is the root.\n"
    "\n"
    "JSON description: {\"children\": [COMPONENT, ...]}. A node is {\"name\": N, \"children\": [...]};\n"
    "a leaf is {\"name\": N, \"type\": T, \"current\": V, \"default\": V, \"factory\": V, ...} with T one of\n"
    "Sint8 Sint16 Sint32 Sint64 Uint8 Uint16 Uint32 Uint64 Float32 Float64 String Generic.\n"
    "String values are text, \"size\" = bytes including the NUL (default: longest text + 1);\n"
    "Generic values are hex strings, \"size\" = bytes (default: longest value). Missing default or\n"
    "factory values take the current value. Numeric leaves may carry \"range\": {\"min\", \"max\",\n"
    "\"step\"} or \"enum\": [V, ...]; the constraint applies to all three values of the leaf.\n"
    "\"hook\": index of a line of hook.conf (0: none). Names: non-empty, no '/', at most 200\n"
    "characters, unique among siblings.\n"
    "\n"
    "Environment: KESDB_DBTABLE (default DIR/db.tbl), SIM_BYTE_ORDER (default BIG_ENDIAN),\n"
    "KESDB_LIB_DIR (default: ../lib next to the program).\n"
    "Exit status: 0 success, 1 usage error, 2 data or library error.\n";

int usage(const std::string& what) {
    std::fprintf(stderr, "kesdb: %s\nRun 'kesdb --help' for the commands.\n", what.c_str());
    return kExitUsage;
}

int run(std::vector<std::string> args) {
    std::string dir;
    if (args.size() >= 2 && args[0] == "-d") {
        dir = args[1];
        args.erase(args.begin(), args.begin() + 2);
    }
    if (args.empty()) return usage("no command");
    std::string cmd = args[0];
    std::vector<std::string> rest(args.begin() + 1, args.end());
    if (cmd == "--help" || cmd == "-h" || cmd == "help") {
        std::fputs(kHelp, stdout);
        return 0;
    }
    if (cmd == "create") {
        CreateOptions o;
        for (size_t i = 0; i < rest.size(); ++i) {
            const std::string& a = rest[i];
            auto next = [&]() -> std::string {
                if (i + 1 >= rest.size()) fail(a + " needs an argument", kExitUsage);
                return rest[++i];
            };
            if (a == "--files") o.files = true;
            else if (a == "--size") {
                std::string v = next();
                char* end = nullptr;
                unsigned long long n = std::strtoull(v.c_str(), &end, 0);
                if (v.empty() || *end != '\0' || n > 0xFFFFFFF0ull) fail("--size " + v + " is not a size in bytes", kExitUsage);
                o.size = static_cast<uint32_t>(n);
            } else if (a == "--hook") o.hooks.push_back(next());
            else if (a == "--from") o.from = next();
            else if (!a.empty() && a[0] == '-') fail("create: unknown option " + a, kExitUsage);
            else if (o.dir.empty()) o.dir = a;
            else fail("create: more than one directory", kExitUsage);
        }
        if (o.dir.empty()) o.dir = dir;
        if (o.dir.empty()) return usage("create needs a directory");
        return cmdCreate(o);
    }
    // Commands on an existing database: split flags from positional arguments.
    std::vector<std::string> pos;
    std::set<std::string> flags;
    for (const std::string& a : rest) {
        if (a.size() > 2 && a.compare(0, 2, "--") == 0) flags.insert(a);
        else pos.push_back(a);
    }
    auto allow = [&](std::initializer_list<const char*> allowed, size_t minPos, size_t maxPos) {
        for (const std::string& f : flags) {
            bool ok = false;
            for (const char* x : allowed) ok = ok || f == x;
            if (!ok) fail(cmd + ": unknown option " + f, kExitUsage);
        }
        if (pos.size() < minPos || pos.size() > maxPos) fail(cmd + ": wrong number of arguments", kExitUsage);
    };
    bool known = cmd == "import" || cmd == "export" || cmd == "get" || cmd == "set" || cmd == "reset" ||
                 cmd == "factory-to-default" || cmd == "print" || cmd == "lock" || cmd == "unlock";
    if (!known) return usage("unknown command " + cmd);
    if (cmd == "import") allow({}, 1, 1);
    if (cmd == "export") allow({}, 0, 1);
    if (cmd == "get") allow({"--default", "--factory"}, 1, 1);
    if (cmd == "get" && flags.size() > 1) fail("get: --default and --factory exclude each other", kExitUsage);
    if (cmd == "set") allow({"--default"}, 2, 2);
    if (cmd == "reset" || cmd == "factory-to-default" || cmd == "print") allow({}, 0, 1);
    if (cmd == "lock") allow({"--shared", "--try"}, 1, 1);
    if (cmd == "unlock") allow({}, 1, 1);
    if (dir.empty()) return usage(cmd + " needs -d DIR");

    std::vector<Item> items;
    if (cmd == "import") items = parseDescription(pos[0]);  // checked before the database is touched
    Database db(dir);
    std::string path = pos.empty() ? "/" : pos[0];
    if (cmd == "import") {
        importInto(db, items);
        return 0;
    }
    if (cmd == "export") {
        std::string text = exportText(db);
        if (pos.empty()) std::fputs(text.c_str(), stdout);
        else writeText(pos[0], text);
        return 0;
    }
    if (cmd == "get") return cmdGet(db, path, flags.count("--default") ? 1 : flags.count("--factory") ? 2 : 0);
    if (cmd == "set") return cmdSet(db, path, pos[1], flags.count("--default") != 0);
    if (cmd == "reset") return cmdTransfer(db, path, false);
    if (cmd == "factory-to-default") return cmdTransfer(db, path, true);
    if (cmd == "print") {
        uint32_t key = pos.empty() ? 0 : db.find(path);
        kesDBMtraverseAndPrint(&db.s, key);
        std::fflush(stdout);
        return 0;
    }
    uint32_t key = db.find(path);
    if (cmd == "lock") {
        uint32_t mode = (flags.count("--shared") ? KESDB_LOCK_SHARED : 0u) | (flags.count("--try") ? 1u : 0u);
        int32_t rc = kesDBMLock(&db.s, key, mode);
        if (rc != 0) fail("lock " + path + ": " + codeText(rc));
        return 0;
    }
    int32_t rc = kesDBMUnlock(&db.s, key);
    if (rc != 0) fail("unlock " + path + ": " + codeText(rc));
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    g_userDbTable = std::getenv("KESDB_DBTABLE") != nullptr;
    setenv("SIM_BYTE_ORDER", "BIG_ENDIAN", 0);
    try {
        return run(std::vector<std::string>(argv + 1, argv + argc));
    } catch (const Failure& f) {
        std::fflush(stdout);
        std::fprintf(stderr, "kesdb: %s\n", f.what.c_str());
        return f.code;
    } catch (const std::exception& e) {
        std::fflush(stdout);
        std::fprintf(stderr, "kesdb: %s\n", e.what());
        return kExitData;
    }
}
