// kesdb check, its core: see check.hpp for the invariants.
#include "check.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <set>
#include <sstream>

namespace kesdb::check {
namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint32_t kHeader = 16;
constexpr uint32_t kAnchor = 12;
constexpr uint32_t kRootWord = 8;
constexpr uint32_t kCommon = 24, kNode = 28, kLeaf = 40;
constexpr uint32_t kValue = 28, kEntry = 16, kCstrtHeader = 8, kEnum = 20;
constexpr uint32_t kNameMax = 256;

Bytes load(const std::string& path) {
    Bytes bytes;
    const int fd = ::open(path.c_str(), O_RDONLY);
    if (fd < 0) return bytes;
    struct stat st {};
    if (::fstat(fd, &st) == 0 && st.st_size > 0) {
        bytes.resize(static_cast<size_t>(st.st_size));
        const ssize_t n = ::pread(fd, bytes.data(), bytes.size(), 0);
        bytes.resize(n < 0 ? 0 : static_cast<size_t>(n));
    }
    ::close(fd);
    return bytes;
}

// Member width of a numeric value type code (2..11); 0 for any other code.
uint32_t widthOf(uint32_t type) {
    switch (type) {
        case 2: case 6: return 1;
        case 3: case 7: return 2;
        case 4: case 8: case 10: return 4;
        case 5: case 9: case 11: return 8;
        default: return 0;
    }
}

uint32_t rangeRecordSize(uint32_t width) {
    switch (width) {
        case 1: return 12;
        case 2: return 16;
        case 4: return 20;
        default: return 32;
    }
}

// A reachable (or free) byte range of one medium.
struct Span {
    uint64_t begin, end;
    bool free;
    std::string what;
    Place place;
};

class Checker {
public:
    explicit Checker(const Layout& layout) : layout_(layout) {
        for (const auto& [index, path] : layout.files) files_[index] = load(path);
    }

    Report run() {
        std::set<uint32_t> recordMedia{layout_.component, layout_.value, layout_.constraint, layout_.string};
        bool headersOk = true;
        for (uint32_t m : recordMedia) {
            if (size(m) < kHeader) {
                add("M1", "medium " + std::to_string(m) + " is shorter than its header", {{m, 0, kHeader}});
                headersOk = false;
            }
        }
        if (!headersOk) return report_;
        for (uint32_t m : recordMedia) freeList(m);
        tree();
        overlaps();
        return report_;
    }

private:
    size_t size(uint32_t m) const {
        auto it = files_.find(m);
        return it == files_.end() ? 0 : it->second.size();
    }
    bool known(uint32_t m) const { return files_.count(m) != 0; }
    // [key, key + n) lies inside the file of medium m, behind the header.
    bool inside(uint32_t m, uint64_t key, uint64_t n) const { return key >= kHeader && key + n <= size(m); }
    uint32_t word(uint32_t m, uint64_t offset) const {
        uint32_t w = 0;
        const Bytes& b = files_.at(m);
        if (offset + 4 <= b.size()) std::memcpy(&w, b.data() + offset, 4);
        return w;
    }

    void add(const std::string& rule, const std::string& text, std::vector<Place> places) {
        report_.violations.push_back({rule, text, std::move(places)});
    }
    void span(uint32_t m, uint32_t key, uint64_t n, bool free, const std::string& what) {
        if (n == 0) return;
        spans_[m].push_back({key, key + n, free, what, {m, key, static_cast<uint32_t>(n)}});
    }

    // M2: the free list of medium m.
    void freeList(uint32_t m) {
        uint32_t count = 0;
        uint64_t floor = kHeader;  // where the next element may start at the earliest
        Place holder{m, kAnchor, 4};
        const uint64_t limit = size(m) / 8 + 1;
        for (uint32_t k = word(m, kAnchor); k != 0; ++count) {
            const std::string at = "free element " + std::to_string(k) + " of medium " + std::to_string(m);
            if (count > limit || k < floor) {
                add("M2", at + " does not lie behind the element before it", {holder, {m, k, 8}});
                break;
            }
            if (!inside(m, k, 8)) {
                add("M2", at + " lies outside the medium", {holder, {m, k, 8}});
                break;
            }
            const uint32_t next = word(m, k), bytes = word(m, uint64_t(k) + 4);
            if (bytes < 8 || !inside(m, k, bytes)) {
                add("M2", at + " has size " + std::to_string(bytes) + ", which does not fit the medium",
                    {holder, {m, k, 8}});
                break;
            }
            span(m, k, bytes, true, "free element");
            holder = {m, k, 8};
            floor = uint64_t(k) + bytes;
            k = next;
        }
        report_.freeElements[m] = count;
    }

    // T1..T6 and, through the leaves, S, V and C.
    void tree() {
        const uint32_t cm = layout_.component;
        const uint32_t root = word(cm, kRootWord);
        if (root == 0) return;
        const Place header{cm, kRootWord, 4};
        if (!component(root, 0, header, true)) return;
        std::vector<uint32_t> pending{root};
        while (!pending.empty()) {
            const uint32_t node = pending.back();
            pending.pop_back();
            Place holder{cm, node, kNode};
            for (uint32_t c = word(cm, uint64_t(node) + 24); c != 0;) {
                if (visited_.count(c)) {
                    add("T5", "component " + std::to_string(c) + " is reached a second time from " +
                                  std::to_string(holder.key),
                        {holder, {cm, c, kCommon}});
                    break;
                }
                if (!component(c, node, holder)) break;
                if (word(cm, uint64_t(c) + 20) == 0) pending.push_back(c);
                holder = {cm, c, word(cm, uint64_t(c) + 20) == 0 ? kNode : kLeaf};
                c = word(cm, uint64_t(c) + 16);
            }
        }
    }

    // Checks one component reached through `holder`; false when it cannot be followed.
    bool component(uint32_t key, uint32_t parent, const Place& holder, bool isRoot = false) {
        const uint32_t cm = layout_.component;
        const std::string at = "component " + std::to_string(key);
        if (!inside(cm, key, kCommon)) {
            add("T2", at + " lies outside the component medium", {holder, {cm, key, kCommon}});
            return false;
        }
        if (word(cm, key) != key) {
            add("T2", at + " begins with " + std::to_string(word(cm, key)) + ", not its own key",
                {holder, {cm, key, kCommon}});
            return false;
        }
        const uint32_t kind = word(cm, uint64_t(key) + 20);
        if (kind > 1) {
            add("T3", at + " has kind " + std::to_string(kind), {holder, {cm, key, kCommon}});
            return false;
        }
        const uint32_t n = kind == 0 ? kNode : kLeaf;
        const Place self{cm, key, n};
        if (!inside(cm, key, n)) {
            add("T2", at + " does not fit the component medium", {holder, self});
            return false;
        }
        visited_.insert(key);
        if (kind == 0) {
            ++report_.nodes;
        } else {
            ++report_.leaves;
        }
        span(cm, key, n, false, kind == 0 ? "node" : "leaf");
        if (word(cm, uint64_t(key) + 8) != 0) add("T3", at + " has a reserved word that is not 0", {self});
        const uint32_t parentWord = word(cm, uint64_t(key) + 12);
        if (parentWord != parent) {
            std::vector<Place> places{self};
            if (parent != 0) places.push_back({cm, parent, kNode});
            if (isRoot) {
                add("T1", "the root " + std::to_string(key) + " names " + std::to_string(parentWord) + " as parent",
                    places);
            } else {
                add("T4", at + " names " + std::to_string(parentWord) + " as parent but is in the list of " +
                              std::to_string(parent),
                    places);
            }
        }
        name(self, word(cm, uint64_t(key) + 4));
        if (kind == 1) {
            const uint32_t hook = word(cm, uint64_t(key) + 36);
            if (hook > layout_.hookCount)
                add("T6", at + " has hook index " + std::to_string(hook), {self});
            static const char* const which[3] = {"current", "default", "factory"};
            for (uint32_t i = 0; i < 3; ++i) value(self, which[i], word(cm, uint64_t(key) + 24 + 4 * i));
        }
        return true;
    }

    // S1, S2.
    void name(const Place& owner, uint32_t key) {
        if (key == 0 || !strings_.insert(key).second) return;
        const uint32_t sm = layout_.string;
        const Place entry{sm, key, kEntry};
        const std::string at = "string entry " + std::to_string(key) + " of component " + std::to_string(owner.key);
        if (!inside(sm, key, kEntry) || word(sm, key) != key) {
            add("S1", at + " lies outside the string medium or does not begin with its key", {owner, entry});
            return;
        }
        ++report_.strings;
        span(sm, key, kEntry, false, "string entry");
        const uint32_t tm = word(sm, uint64_t(key) + 4), offset = word(sm, uint64_t(key) + 8),
                       length = word(sm, uint64_t(key) + 12);
        const Place text{tm, offset, length};
        if (!known(tm) || length == 0 || length > kNameMax || !inside(tm, offset, length)) {
            add("S2", at + " names a text (medium " + std::to_string(tm) + ", offset " + std::to_string(offset) +
                          ", length " + std::to_string(length) + ") that is not there",
                {entry});
            return;
        }
        span(tm, offset, length, false, "text");
        const Bytes& b = files_.at(tm);
        const auto first = b.begin() + offset, last = first + length - 1;
        if (*last != 0 || std::find(first, last, 0) != last)
            add("S2", at + " has a text that does not end with its only NUL", {entry, text});
    }

    // V1..V4.
    void value(const Place& leaf, const char* which, uint32_t key) {
        if (key == 0 || !values_.insert(key).second) return;
        const uint32_t vm = layout_.value;
        const Place record{vm, key, kValue};
        const std::string at = std::string(which) + " value " + std::to_string(key) + " of leaf " +
                               std::to_string(leaf.key);
        if (!inside(vm, key, kValue) || word(vm, key) != key) {
            add("V1", at + " lies outside the value medium or does not begin with its key", {leaf, record});
            return;
        }
        const uint32_t type = word(vm, uint64_t(key) + 4);
        if (type > 11) {
            add("V2", at + " has type " + std::to_string(type), {leaf, record});
            return;
        }
        ++report_.values;
        span(vm, key, kValue, false, "value record");
        const uint32_t dm = word(vm, uint64_t(key) + 8), offset = word(vm, uint64_t(key) + 12),
                       length = word(vm, uint64_t(key) + 16);
        if (!known(dm) || length >= 0x80000000u || !inside(dm, offset, length)) {
            add("V3", at + " has a data area (medium " + std::to_string(dm) + ", offset " + std::to_string(offset) +
                          ", length " + std::to_string(length) + ") that is not there",
                {record});
        } else {
            span(dm, offset, length, false, "data area");
            report_.dataAreas.push_back({dm, offset, length});
        }
        const uint32_t cstrt = word(vm, uint64_t(key) + 24);
        if (cstrt != 0) constraint(record, cstrt);
    }

    // C1..C3.
    void constraint(const Place& owner, uint32_t key) {
        if (!constraints_.insert(key).second) return;
        const uint32_t cm = layout_.constraint;
        const std::string at = "constraint " + std::to_string(key) + " of value " + std::to_string(owner.key);
        if (!inside(cm, key, kCstrtHeader) || word(cm, key) != key) {
            add("C1", at + " lies outside the constraint medium or does not begin with its key",
                {owner, {cm, key, kCstrtHeader}});
            return;
        }
        const uint32_t type = word(cm, uint64_t(key) + 4);
        const bool range = widthOf(type) != 0;
        const uint32_t member = type % 256 == 0 ? widthOf(type / 256) : 0;
        if (!range && member == 0) {
            add("C2", at + " has type " + std::to_string(type), {owner, {cm, key, kCstrtHeader}});
            return;
        }
        const uint32_t n = range ? rangeRecordSize(widthOf(type)) : kEnum;
        const Place self{cm, key, n};
        if (!inside(cm, key, n)) {
            add("C3", at + " does not fit the constraint medium", {owner, self});
            return;
        }
        ++report_.constraints;
        span(cm, key, n, false, range ? "range record" : "enumeration record");
        if (range) return;
        const uint32_t array = word(cm, uint64_t(key) + 8), elementSize = word(cm, uint64_t(key) + 12),
                       count = word(cm, uint64_t(key) + 16);
        const uint64_t bytes = std::max<uint64_t>(uint64_t(elementSize) * count, 1);
        if (elementSize != member) {
            add("C3", at + " has element size " + std::to_string(elementSize) + " for members of " +
                          std::to_string(member) + " bytes",
                {self});
        } else if (!inside(cm, array, bytes)) {
            add("C3", at + " has an array (" + std::to_string(array) + ", " + std::to_string(bytes) +
                          " bytes) outside the constraint medium",
                {self});
        } else {
            span(cm, array, bytes, false, "enumeration array");
        }
    }

    // P1, P2.
    void overlaps() {
        for (auto& [m, list] : spans_) {
            std::sort(list.begin(), list.end(), [](const Span& a, const Span& b) {
                return a.begin != b.begin ? a.begin < b.begin : a.end < b.end;
            });
            const Span* widest = nullptr;
            for (const Span& s : list) {
                if (widest && s.begin < widest->end) {
                    const bool same = !s.free && !widest->free && s.begin == widest->begin && s.end == widest->end &&
                                      s.what == widest->what;
                    if (!same) {
                        add(s.free || widest->free ? "P2" : "P1",
                            widest->what + " " + std::to_string(widest->begin) + ".." + std::to_string(widest->end) +
                                " overlaps " + s.what + " " + std::to_string(s.begin) + ".." +
                                std::to_string(s.end) + " in medium " + std::to_string(m),
                            {widest->place, s.place});
                    }
                }
                if (!widest || s.end > widest->end) widest = &s;
            }
        }
    }

    const Layout& layout_;
    std::map<uint32_t, Bytes> files_;
    std::map<uint32_t, std::vector<Span>> spans_;
    std::set<uint32_t> visited_, strings_, values_, constraints_;
    Report report_;
};

}  // namespace

std::string Report::text() const {
    std::ostringstream out;
    for (const Violation& v : violations) {
        out << v.rule << ": " << v.text << " [";
        for (size_t i = 0; i < v.places.size(); ++i)
            out << (i ? ", " : "") << v.places[i].medium << ":" << v.places[i].key << "+" << v.places[i].size;
        out << "]\n";
    }
    return out.str();
}

Report check(const Layout& layout) { return Checker(layout).run(); }

}  // namespace kesdb::check
