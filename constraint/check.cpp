// The check applied to every write of a value that names a constraint: the constraint's
// type code selects the range or enumeration test.
#include <iterator>

#include "kesdbm/constraint.h"

namespace {

using CheckFn = int32_t (*)(Session*, uint32_t, uint32_t, const void*, int32_t);

struct CheckEntry {
    uint32_t code;
    CheckFn test;
};

constexpr CheckEntry kChecks[] = {
    {2, checkRangeS8},      {3, checkRangeS16},     {4, checkRangeS32},     {5, checkRangeS64},
    {6, checkRangeU8},      {7, checkRangeU16},     {8, checkRangeU32},     {9, checkRangeU64},
    {10, checkRangeF32},    {11, checkRangeF64},    {2 * 256, checkEnumS8}, {3 * 256, checkEnumS16},
    {4 * 256, checkEnumS32}, {5 * 256, checkEnumS64}, {6 * 256, checkEnumU8}, {7 * 256, checkEnumU16},
    {8 * 256, checkEnumU32}, {9 * 256, checkEnumU64}, {10 * 256, checkEnumF32}, {11 * 256, checkEnumF64},
};
static_assert(std::size(kChecks) == 20);

}  // namespace

extern "C" {

// An unreadable constraint header lets the write through: the result is 0 and the session
// keeps the code of the failed read.
int32_t constraint_check(Session* s, uint32_t constraintKey, uint32_t valueType, const void* data, int32_t length) {
    ConstraintHeader h;
    if (!constraint_get(s, constraintKey, &h)) return 0;
    for (const CheckEntry& e : kChecks) {
        if (e.code == h.type) return e.test(s, constraintKey, valueType, data, length);
    }
    return session_setError(s, KESDB_ERR_CSTRT_CHECKTYPE, 0);
}

}  // extern "C"
