#include "values.hpp"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <type_traits>

namespace kesdb {

namespace {

struct TypeName {
    const char* name;
    uint32_t code;
};
constexpr TypeName kTypes[] = {{"Generic", Generic}, {"String", String}, {"Sint8", Sint8},     {"Sint16", Sint16},
                               {"Sint32", Sint32},   {"Sint64", Sint64}, {"Uint8", Uint8},     {"Uint16", Uint16},
                               {"Uint32", Uint32},   {"Uint64", Uint64}, {"Float32", Float32}, {"Float64", Float64}};

template <class T>
std::string bytesOf(T v) {
    return std::string(reinterpret_cast<const char*>(&v), sizeof v);
}

// The value of T at `offset` of the bytes; 0 when the bytes are too short.
template <class T>
T fromBytes(const std::string& b, size_t offset = 0) {
    T v{};
    if (b.size() >= offset + sizeof v) std::memcpy(&v, b.data() + offset, sizeof v);
    return v;
}

// Shortest decimal text that reads back (through double, as JSON numbers are read) to v.
template <class F>
std::string shortestText(F v) {
    if (std::isnan(v)) return "nan";
    if (std::isinf(v)) return v < 0 ? "-inf" : "inf";
    char buf[64] = {};
    const int most = std::numeric_limits<F>::max_digits10;
    for (int p = 1; p <= most; ++p) {
        std::snprintf(buf, sizeof buf, "%.*g", p, static_cast<double>(v));
        if (static_cast<F>(std::strtod(buf, nullptr)) == v) break;
    }
    return buf;
}

// Whether a finite double rounds to a finite F: below F's largest value plus half a unit
// in its last place (the halfway point rounds to the even neighbour, which is infinity).
template <class F>
bool fitsFloat(double d) {
    using L = std::numeric_limits<F>;
    if constexpr (sizeof(F) >= sizeof(double)) return std::isfinite(d);
    const double limit = static_cast<double>(L::max()) + std::ldexp(1.0, L::max_exponent - L::digits - 1);
    return std::fabs(d) < limit;
}

template <class F>
bool nonFiniteFromText(const std::string& text, F& v) {
    if (text == "nan")
        v = std::numeric_limits<F>::quiet_NaN();
    else if (text == "inf")
        v = std::numeric_limits<F>::infinity();
    else if (text == "-inf")
        v = -std::numeric_limits<F>::infinity();
    else
        return false;
    return true;
}

template <class T>
bool jsonTo(const json& j, std::string& out) {
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
        T v{};
        if (j.is_string()) {
            if (!nonFiniteFromText(j.get<std::string>(), v)) return false;
        } else if (j.is_number()) {
            double d = j.get<double>();
            if (!fitsFloat<T>(d)) return false;
            v = static_cast<T>(d);
        } else {
            return false;
        }
        out = bytesOf(v);
        return true;
    }
}

template <class T>
json toJson(const std::string& b) {
    T v = fromBytes<T>(b);
    if constexpr (std::is_floating_point_v<T>) {
        if (!std::isfinite(v)) return json(shortestText(v));
        return json(std::strtod(shortestText(v).c_str(), nullptr));
    } else if constexpr (sizeof(T) < 4) {
        return json(static_cast<int32_t>(v));
    } else {
        return json(v);
    }
}

template <class T>
std::string rangeText() {
    if constexpr (std::is_integral_v<T>)
        return " (" + std::to_string(+std::numeric_limits<T>::min()) + " to " +
               std::to_string(+std::numeric_limits<T>::max()) + ")";
    else
        return "";
}

template <class T>
std::string textTo(uint32_t type, const std::string& text, std::string& out) {
    const std::string notParsed = "does not parse as " + std::string(typeName(type));
    const std::string outOfRange = "is out of range for " + std::string(typeName(type)) + rangeText<T>();
    if (text.empty() || std::isspace(static_cast<unsigned char>(text[0]))) return notParsed;
    if constexpr (std::is_floating_point_v<T>) {
        T v{};
        if (!nonFiniteFromText(text, v)) {
            char* end = nullptr;
            errno = 0;
            const double d = std::strtod(text.c_str(), &end);
            // Only "nan", "inf" and "-inf" name the non-finite values (taken above).
            if (end == text.c_str() || *end != '\0' || std::isnan(d)) return notParsed;
            if (std::isinf(d) && errno != ERANGE) return notParsed;
            if (!fitsFloat<T>(d)) return outOfRange;
            v = static_cast<T>(d);
        }
        out = bytesOf(v);
        return "";
    } else {
        // Sign, then decimal digits or "0x" and hexadecimal digits; nothing else.
        size_t i = 0;
        bool negative = false;
        if (text[i] == '+' || text[i] == '-') negative = text[i++] == '-';
        int base = 10;
        if (text.size() > i + 1 && text[i] == '0' && (text[i + 1] == 'x' || text[i + 1] == 'X')) {
            base = 16;
            i += 2;
        }
        const std::string digits = text.substr(i);
        if (digits.empty()) return notParsed;
        for (char c : digits)
            if (!(base == 16 ? std::isxdigit(static_cast<unsigned char>(c))
                             : std::isdigit(static_cast<unsigned char>(c))))
                return notParsed;
        errno = 0;
        uint64_t magnitude = std::strtoull(digits.c_str(), nullptr, base);
        if (errno == ERANGE) return outOfRange;
        if constexpr (std::is_unsigned_v<T>) {
            if (negative && magnitude != 0) return outOfRange;
            if (magnitude > std::numeric_limits<T>::max()) return outOfRange;
            out = bytesOf(static_cast<T>(magnitude));
        } else {
            const uint64_t most = static_cast<uint64_t>(std::numeric_limits<T>::max());
            if (magnitude > most + (negative ? 1 : 0)) return outOfRange;
            // Negated in unsigned arithmetic, so the smallest value needs no overflow.
            uint64_t bits = negative ? ~magnitude + 1 : magnitude;
            out = bytesOf(static_cast<T>(static_cast<int64_t>(bits)));
        }
        return "";
    }
}

template <class T>
std::string toText(const std::string& b) {
    T v = fromBytes<T>(b);
    if constexpr (std::is_floating_point_v<T>)
        return shortestText(v);
    else
        return std::to_string(+v);
}

// The library's range test: W is the type the comparisons and the step remainder are
// computed in (int32_t for the types narrower than 32 bits, sign- or zero-extended; the
// type itself from 32 bits on). The difference from min wraps in W; a negative step acts
// as its magnitude; floating-point values have no step and NaN is below every minimum.
template <class W>
int32_t rangeTest(W v, W min, W max, W step) {
    if constexpr (std::is_floating_point_v<W>) {
        if (!(v >= min)) return KESDB_ERR_CSTRT_BELOWMIN;
        if (v > max) return KESDB_ERR_CSTRT_ABOVEMAX;
        return 0;
    } else {
        if (v < min) return KESDB_ERR_CSTRT_BELOWMIN;
        if (v > max) return KESDB_ERR_CSTRT_ABOVEMAX;
        if (step == 0) return 0;
        using U = std::make_unsigned_t<W>;
        const W diff = static_cast<W>(static_cast<U>(static_cast<U>(v) - static_cast<U>(min)));
        W rem = 0;
        if constexpr (std::is_signed_v<W>)
            rem = step == -1 ? W(0) : static_cast<W>(diff % step);
        else
            rem = static_cast<W>(diff % step);
        return rem == 0 ? 0 : KESDB_ERR_CSTRT_STEP;
    }
}

template <class T>
using Wide = std::conditional_t<(sizeof(T) < 4 && std::is_integral_v<T>), int32_t, T>;

}  // namespace

const char* typeName(uint32_t type) {
    for (const auto& t : kTypes)
        if (t.code == type) return t.name;
    return "unknown";
}

bool typeByName(const std::string& name, uint32_t& type) {
    for (const auto& t : kTypes)
        if (name == t.name) {
            type = t.code;
            return true;
        }
    return false;
}

bool isNumeric(uint32_t type) { return type >= Sint8 && type <= Float64; }

int widthOf(uint32_t type) {
    return withType(type, [](auto v) { return static_cast<int>(sizeof v); });
}

bool numberFromJson(uint32_t type, const json& j, std::string& bytes) {
    return withType(type, [&](auto t) { return jsonTo<decltype(t)>(j, bytes); });
}

json numberToJson(uint32_t type, const std::string& bytes) {
    return withType(type, [&](auto t) { return toJson<decltype(t)>(bytes); });
}

std::string numberFromText(uint32_t type, const std::string& text, std::string& bytes) {
    return withType(type, [&](auto t) { return textTo<decltype(t)>(type, text, bytes); });
}

std::string numberToText(uint32_t type, const std::string& bytes) {
    return withType(type, [&](auto t) { return toText<decltype(t)>(bytes); });
}

std::string valueToText(uint32_t type, const std::string& bytes) {
    if (type == String) return std::string(bytes.c_str(), strnlen(bytes.data(), bytes.size()));
    if (type == Generic) return toHex(bytes);
    return numberToText(type, bytes);
}

std::string toHex(const std::string& bytes) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (unsigned char c : bytes) {
        out += digits[c >> 4];
        out += digits[c & 15];
    }
    return out;
}

bool fromHex(const std::string& text, std::string& bytes) {
    if (text.size() % 2 != 0) return false;
    auto digit = [](char c) {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        if (c >= 'A' && c <= 'F') return c - 'A' + 10;
        return -1;
    };
    bytes.clear();
    for (size_t i = 0; i < text.size(); i += 2) {
        int hi = digit(text[i]), lo = digit(text[i + 1]);
        if (hi < 0 || lo < 0) return false;
        bytes += static_cast<char>(hi * 16 + lo);
    }
    return true;
}

bool validUtf8(const std::string& text) {
    size_t i = 0;
    while (i < text.size()) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (c < 0x80) {
            ++i;
            continue;
        }
        size_t n = 0;
        uint32_t cp = 0;
        if ((c >> 5) == 6) {
            n = 1;
            cp = c & 0x1F;
        } else if ((c >> 4) == 14) {
            n = 2;
            cp = c & 0x0F;
        } else if ((c >> 3) == 30) {
            n = 3;
            cp = c & 0x07;
        } else {
            return false;
        }
        if (i + n >= text.size()) return false;
        for (size_t k = 1; k <= n; ++k) {
            const unsigned char cc = static_cast<unsigned char>(text[i + k]);
            if ((cc >> 6) != 2) return false;
            cp = (cp << 6) | (cc & 0x3F);
        }
        // No overlong forms, no surrogates, nothing beyond U+10FFFF.
        static const uint32_t kLeast[] = {0, 0x80, 0x800, 0x10000};
        if (cp < kLeast[n] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
        i += n + 1;
    }
    return true;
}

int32_t rangeVerdict(uint32_t type, const std::string& range, const std::string& value) {
    return withType(type, [&](auto t) {
        using T = decltype(t);
        using W = Wide<T>;
        const size_t w = sizeof(T);
        return rangeTest<W>(static_cast<W>(fromBytes<T>(value)), static_cast<W>(fromBytes<T>(range, 0)),
                            static_cast<W>(fromBytes<T>(range, w)), static_cast<W>(fromBytes<T>(range, 2 * w)));
    });
}

int32_t enumVerdict(uint32_t type, const std::string& members, const std::string& value) {
    return withType(type, [&](auto t) {
        using T = decltype(t);
        const T v = fromBytes<T>(value);
        for (size_t at = 0; at + sizeof(T) <= members.size(); at += sizeof(T))
            if (fromBytes<T>(members, at) == v) return int32_t{0};
        return int32_t{KESDB_ERR_CSTRT_NOTMEMBER};
    });
}

}  // namespace kesdb
