// kesdb: value types, and values converted between the bytes the library stores and the
// tool's two notations, JSON (descriptions) and command-line text (get and set).
#pragma once

#include <cstdint>
#include <string>

#include "common.hpp"
#include "kesdbm/value.h"

namespace kesdb {

// Calls f with a value of the numeric type `type` (numeric codes only).
template <class F>
auto withType(uint32_t type, F&& f) {
    switch (type) {
        case Sint8:
            return f(int8_t{});
        case Sint16:
            return f(int16_t{});
        case Sint32:
            return f(int32_t{});
        case Sint64:
            return f(int64_t{});
        case Uint8:
            return f(uint8_t{});
        case Uint16:
            return f(uint16_t{});
        case Uint32:
            return f(uint32_t{});
        case Uint64:
            return f(uint64_t{});
        case Float32:
            return f(float{});
        default:
            return f(double{});
    }
}

const char* typeName(uint32_t type);
bool typeByName(const std::string& name, uint32_t& type);
bool isNumeric(uint32_t type);
// Natural width of a numeric type (1, 2, 4 or 8).
int widthOf(uint32_t type);

// Numeric values: the bytes are the value in host order and the type's width, as the
// library stores them. 64-bit integers are exact (JSON integers are not taken through
// double); floating-point values are written in the shortest form that reads back to the
// same bits; the non-finite ones are the strings "nan", "inf" and "-inf".
bool numberFromJson(uint32_t type, const json& j, std::string& bytes);
json numberToJson(uint32_t type, const std::string& bytes);
// Command-line text: decimal, or hexadecimal after "0x" for integers. Returns "" when the
// text was taken, else why not ("does not parse as Uint16", "is out of range for ...").
std::string numberFromText(uint32_t type, const std::string& text, std::string& bytes);
std::string numberToText(uint32_t type, const std::string& bytes);

// Any value as command-line text: a number as above, String text up to its NUL, Generic
// as hex digit pairs. Numbers read back by numberFromText to the same bits.
std::string valueToText(uint32_t type, const std::string& bytes);

// Generic values: two hex digits per byte.
std::string toHex(const std::string& bytes);
bool fromHex(const std::string& text, std::string& bytes);

// String values are exported as JSON text, which must be UTF-8.
bool validUtf8(const std::string& text);

// The library's write check, computed the same way on bytes: 0 when the value passes,
// else 66 (below min), 67 (above max), 68 (off the step) or 71 (not a member). `range` is
// min, max and step packed; `members` the enumeration's members packed.
int32_t rangeVerdict(uint32_t type, const std::string& range, const std::string& value);
int32_t enumVerdict(uint32_t type, const std::string& members, const std::string& value);

}  // namespace kesdb
