// kesdb: a medium driver private to the tool, for media that no other process uses while
// the tool works on them (a database being built in a directory nobody knows yet).
//
// The file is mapped once and records are copied in and out of the mapping; nothing is
// written to the device before `privateMedium_sync`. Since no one else changes the file,
// its size is kept in memory: the end that a seek finds is the end of what was written,
// not a look at the file. The file is lengthened ahead in steps, so that appends land in
// the mapping, and cut back to the written end when the medium is synced; after a sync the
// file holds exactly the bytes that synchronous positioned writes would have left.
//
// Read-only, for inspection: the file is opened and mapped for reading only (a read-only
// image can be inspected), writes fail with EROFS, and a read beyond the end looks at the
// file again, since another process may have lengthened it meanwhile.
//
// The functions have the signatures of the media-table slots; the medium's name is the
// file's path. Descriptors stay valid until privateMedium_releaseAll, which syncs nothing.
#pragma once

#include <cstdint>

namespace kesdb {

// Whether media opened from now on are opened read-only (until privateMedium_releaseAll).
void privateMedium_setReadOnly(bool readOnly);
int privateMedium_open(const char* name, uint32_t arg, int32_t* errPtr);
int privateMedium_close(int descriptor, int32_t* errPtr);
int privateMedium_read(int descriptor, void* buffer, uint32_t length, uint32_t offset, int32_t* errPtr);
int privateMedium_write(int descriptor, const void* buffer, uint32_t length, uint32_t offset, int32_t* errPtr);
int privateMedium_seek(int descriptor, uint32_t offset, int whence, int32_t* errPtr);
// Cuts the file to the written end and writes the mapping to it (msync); 0 or -1.
int privateMedium_sync(int descriptor, int32_t* errPtr, uint32_t syncArg);
// Unmaps and closes every medium; a medium not synced keeps its lengthened size.
void privateMedium_releaseAll();

}  // namespace kesdb
