// Names of the error codes, for diagnostics and tools. The list below is packed at compile
// time into one block of codes, offsets and text: a table of pointers would need a relocation
// per name when the library is loaded, and take three times the room.
#include <cstddef>
#include <iterator>

#include "kesdbm/session.h"

namespace {

struct ErrorName {
    int32_t code;
    const char* name;
};

constexpr ErrorName kList[] = {
        {KESDB_ERR_HOOK_LINE, "KESDB_ERR_HOOK_LINE"},
        {KESDB_ERR_COMP_NOTLEAF, "KESDB_ERR_COMP_NOTLEAF"},
        {KESDB_ERR_COMP_NOTNODE, "KESDB_ERR_COMP_NOTNODE"},
        {KESDB_ERR_COMP_BADKIND, "KESDB_ERR_COMP_BADKIND"},
        {KESDB_ERR_COMP_NULLKEY, "KESDB_ERR_COMP_NULLKEY"},
        {KESDB_ERR_COMP_ENDSEARCH, "KESDB_ERR_COMP_ENDSEARCH"},
        {KESDB_ERR_HOOK_PREGET, "KESDB_ERR_HOOK_PREGET"},
        {KESDB_ERR_HOOK_POSTGET, "KESDB_ERR_HOOK_POSTGET"},
        {KESDB_ERR_HOOK_PRESET, "KESDB_ERR_HOOK_PRESET"},
        {KESDB_ERR_HOOK_POSTSET, "KESDB_ERR_HOOK_POSTSET"},
        {KESDB_ERR_MEDIA_CONFOPEN, "KESDB_ERR_MEDIA_CONFOPEN"},
        {KESDB_ERR_MEDIA_SYMOPEN, "KESDB_ERR_MEDIA_SYMOPEN"},
        {KESDB_ERR_MEDIA_SYMCLOSE, "KESDB_ERR_MEDIA_SYMCLOSE"},
        {KESDB_ERR_MEDIA_SYMREAD, "KESDB_ERR_MEDIA_SYMREAD"},
        {KESDB_ERR_MEDIA_SYMWRITE, "KESDB_ERR_MEDIA_SYMWRITE"},
        {KESDB_ERR_MEDIA_SYMSEEK, "KESDB_ERR_MEDIA_SYMSEEK"},
        {KESDB_ERR_MEDIA_SYMSYNC, "KESDB_ERR_MEDIA_SYMSYNC"},
        {KESDB_ERR_MEDIA_LOAD, "KESDB_ERR_MEDIA_LOAD"},
        {KESDB_ERR_MEDIA_INDEX, "KESDB_ERR_MEDIA_INDEX"},
        {KESDB_ERR_MEDIA_OPEN, "KESDB_ERR_MEDIA_OPEN"},
        {KESDB_ERR_MEDIA_WRITE, "KESDB_ERR_MEDIA_WRITE"},
        {KESDB_ERR_MEDIA_READ, "KESDB_ERR_MEDIA_READ"},
        {KESDB_ERR_MEDIA_SYNC, "KESDB_ERR_MEDIA_SYNC"},
        {KESDB_ERR_HOOK_INDEX, "KESDB_ERR_HOOK_INDEX"},
        {KESDB_ERR_HOOK_CONFOPEN, "KESDB_ERR_HOOK_CONFOPEN"},
        {KESDB_ERR_HOOK_CONFSEEK, "KESDB_ERR_HOOK_CONFSEEK"},
        {KESDB_ERR_HOOK_LOAD, "KESDB_ERR_HOOK_LOAD"},
        {KESDB_ERR_HOOK_SYMPRESET, "KESDB_ERR_HOOK_SYMPRESET"},
        {KESDB_ERR_HOOK_SYMPOSTSET, "KESDB_ERR_HOOK_SYMPOSTSET"},
        {KESDB_ERR_HOOK_SYMPREGET, "KESDB_ERR_HOOK_SYMPREGET"},
        {KESDB_ERR_HOOK_SYMPOSTGET, "KESDB_ERR_HOOK_SYMPOSTGET"},
        {KESDB_ERR_STR_OPEN, "KESDB_ERR_STR_OPEN"},
        {KESDB_ERR_STR_WRITE, "KESDB_ERR_STR_WRITE"},
        {KESDB_ERR_STR_READ, "KESDB_ERR_STR_READ"},
        {KESDB_ERR_STR_ALLOC, "KESDB_ERR_STR_ALLOC"},
        {KESDB_ERR_VALUE_OPEN, "KESDB_ERR_VALUE_OPEN"},
        {KESDB_ERR_VALUE_WRITE, "KESDB_ERR_VALUE_WRITE"},
        {KESDB_ERR_VALUE_READ, "KESDB_ERR_VALUE_READ"},
        {KESDB_ERR_VALUE_SHORTDEST, "KESDB_ERR_VALUE_SHORTDEST"},
        {KESDB_ERR_VALUE_NOVALUE, "KESDB_ERR_VALUE_NOVALUE"},
        {KESDB_ERR_VALUE_NULLKEY, "KESDB_ERR_VALUE_NULLKEY"},
        {KESDB_ERR_COMP_OPEN, "KESDB_ERR_COMP_OPEN"},
        {KESDB_ERR_COMP_WRITE, "KESDB_ERR_COMP_WRITE"},
        {KESDB_ERR_COMP_READ, "KESDB_ERR_COMP_READ"},
        {KESDB_ERR_CSTRT_OPEN, "KESDB_ERR_CSTRT_OPEN"},
        {KESDB_ERR_CSTRT_WRITE, "KESDB_ERR_CSTRT_WRITE"},
        {KESDB_ERR_CSTRT_READ, "KESDB_ERR_CSTRT_READ"},
        {KESDB_ERR_CSTRT_ALLOC, "KESDB_ERR_CSTRT_ALLOC"},
        {KESDB_ERR_CSTRT_TYPE, "KESDB_ERR_CSTRT_TYPE"},
        {KESDB_ERR_CSTRT_LENGTH, "KESDB_ERR_CSTRT_LENGTH"},
        {KESDB_ERR_CSTRT_BELOWMIN, "KESDB_ERR_CSTRT_BELOWMIN"},
        {KESDB_ERR_CSTRT_ABOVEMAX, "KESDB_ERR_CSTRT_ABOVEMAX"},
        {KESDB_ERR_CSTRT_STEP, "KESDB_ERR_CSTRT_STEP"},
        {KESDB_ERR_CSTRT_CHECKTYPE, "KESDB_ERR_CSTRT_CHECKTYPE"},
        {KESDB_ERR_CSTRT_UNKNOWN, "KESDB_ERR_CSTRT_UNKNOWN"},
        {KESDB_ERR_CSTRT_NOTMEMBER, "KESDB_ERR_CSTRT_NOTMEMBER"},
        {KESDB_ERR_CSTRT_BUFFER, "KESDB_ERR_CSTRT_BUFFER"},
        {KESDB_ERR_CSTRT_NONE, "KESDB_ERR_CSTRT_NONE"},
        {KESDB_ERR_LOCK_TABLEWRITE, "KESDB_ERR_LOCK_TABLEWRITE"},
        {KESDB_ERR_LOCK_BUSY, "KESDB_ERR_LOCK_BUSY"},
        {KESDB_ERR_LOCK_NOTFOUND, "KESDB_ERR_LOCK_NOTFOUND"},
        {KESDB_ERR_LOCK_MODE, "KESDB_ERR_LOCK_MODE"},
        {KESDB_ERR_LOCK_FULL, "KESDB_ERR_LOCK_FULL"},
        {KESDB_ERR_SESSION_TABLEWRITE, "KESDB_ERR_SESSION_TABLEWRITE"},
        {KESDB_ERR_SESSION_FULL, "KESDB_ERR_SESSION_FULL"},
        {KESDB_ERR_SESSION_NOTFOUND, "KESDB_ERR_SESSION_NOTFOUND"},
        {KESDB_ERR_DB_TABLEWRITE, "KESDB_ERR_DB_TABLEWRITE"},
        {KESDB_ERR_DB_NOTFOUND, "KESDB_ERR_DB_NOTFOUND"},
        {KESDB_ERR_DB_FULL, "KESDB_ERR_DB_FULL"},
        {KESDB_ERR_NOMEM, "KESDB_ERR_NOMEM"},
        {KESDB_ERR_MMAP, "KESDB_ERR_MMAP"},
        {KESDB_ERR_MUNMAP, "KESDB_ERR_MUNMAP"},
        {KESDB_ERR_NULLARG, "KESDB_ERR_NULLARG"},
        {KESDB_ERR_DB_MUTEX, "KESDB_ERR_DB_MUTEX"},
        {KESDB_ERR_COMP_NOMATCH, "KESDB_ERR_COMP_NOMATCH"},
        {KESDB_ERR_DIR_BAD, "KESDB_ERR_DIR_BAD"},
        {KESDB_ERR_DIR_OTHER, "KESDB_ERR_DIR_OTHER"},
};

constexpr size_t kCount = std::size(kList);

constexpr size_t lengthOf(const char* text) {
    size_t n = 0;
    while (text[n] != '\0') ++n;
    return n;
}

constexpr size_t textSize() {
    size_t n = 0;
    for (const ErrorName& e : kList) n += lengthOf(e.name) + 1;
    return n;
}

struct PackedNames {
    int32_t code[kCount];
    uint16_t at[kCount];  // offset of each name in text
    char text[textSize()];
};
static_assert(textSize() <= 0xFFFF, "name offsets are 16 bits");

constexpr PackedNames pack() {
    PackedNames p{};
    size_t at = 0;
    for (size_t i = 0; i < kCount; ++i) {
        p.code[i] = kList[i].code;
        p.at[i] = static_cast<uint16_t>(at);
        for (size_t k = 0; k <= lengthOf(kList[i].name); ++k) p.text[at++] = kList[i].name[k];
    }
    return p;
}

constexpr PackedNames kNames = pack();

}  // namespace

extern "C" const char* kesdb_errorName(int32_t code) {
    for (size_t i = 0; i < kCount; ++i) {
        if (kNames.code[i] == code) return kNames.text + kNames.at[i];
    }
    return code == 0 ? "OK" : "unknown";
}
