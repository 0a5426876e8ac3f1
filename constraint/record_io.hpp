// Internal: record transfers in the constraint medium shared by the constraint record,
// range and enumeration operations, and the tables of constraint type codes.
#pragma once

#include <cstdint>

#include "kesdbm/session.h"
#include "kesdbm/storage.h"

namespace kes::cstrt {

// Which word a failed open or write records as its detail: the driver's error word or
// the C library's errno.
enum class Detail { Driver, Errno };

// Member width of a numeric value type code (2..11); 0 for any other code.
constexpr uint32_t widthOfValueType(uint32_t valueType) {
    switch (valueType) {
        case 2: case 6: return 1;
        case 3: case 7: return 2;
        case 4: case 8: case 10: return 4;
        case 5: case 9: case 11: return 8;
        default: return 0;
    }
}

// A range code is the value type code it guards.
constexpr bool isRangeCode(uint32_t code) { return widthOfValueType(code) != 0; }

// Range data length (min, max, step packed): three member widths; 0 for a non-range code.
constexpr uint32_t rangeDataLength(uint32_t code) { return 3u * widthOfValueType(code); }

// Member size of an enumeration code (value type code x 256); 0 for a non-enumeration code.
constexpr uint32_t enumMemberSize(uint32_t code) {
    return code % 256u == 0 ? widthOfValueType(code / 256u) : 0u;
}
constexpr bool isEnumCode(uint32_t code) { return enumMemberSize(code) != 0; }

// Lengths exchanged with callers are signed 32-bit counts, and a medium is addressed by
// 32-bit keys: an array larger than this cannot exist, and no buffer that large is made.
constexpr uint64_t kMaxArrayBytes = 0x7FFFFFFFu;

// Arrays above this size are first checked against the end of the medium, so that a
// corrupt member count can never make us allocate memory that the medium cannot back.
constexpr uint64_t kArraySeekCheck = 64u * 1024u;

// Byte size of `count` members of `size` bytes, without 32-bit overflow.
constexpr uint64_t arrayBytes(uint32_t size, uint32_t count) {
    return static_cast<uint64_t>(size) * static_cast<uint64_t>(count);
}

// Records 89 (null pointer argument, detail 0) and returns it.
int32_t nullArgument(Session* s);

// Reads `size` bytes at `key` of the constraint medium into `buffer`. Records 83 (no
// database), 59 (open failed, driver error) or 61 (short read, driver error); a failed
// driver lookup has recorded 21. True on a full read.
bool readRecord(Session* s, uint32_t key, void* buffer, uint32_t size);

// Writes `size` bytes of `record` at `key`. No database: records and returns 83. Driver
// lookup fails: 0. Open fails: records and returns 59. A short write records 60, a full
// one records 0. Returns the close operation's result after a successful open.
// `detail` selects the detail word of 59 and 60.
int32_t writeRecord(Session* s, uint32_t key, const void* record, uint32_t size, Detail detail);

// Creates a record of `size` bytes whose first word is its key: allocates a block with
// the rooted allocator, stores its key in the record's first word and, when `write` is
// set, writes the whole record there. Records 83, 59 (open failed, `openDetail`),
// 62 (no block), 60 (short write, errno). True on success.
bool newRecord(Session* s, void* record, uint32_t size, Detail openDetail, bool write);

// Range data (min, max, step packed) of the range record at `key` whose range code is `code`
// (2..11): read into `buffer` of `size` bytes (65 when it is too small), or written from
// `data` of `length` bytes (65 unless it is exactly the data length).
int32_t rangeGetData(Session* s, uint32_t key, void* buffer, uint32_t size, uint32_t code);
int32_t rangeSetData(Session* s, uint32_t key, const void* data, uint32_t length, uint32_t code);

}  // namespace kes::cstrt
