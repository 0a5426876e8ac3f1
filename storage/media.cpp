// The media table: the built-in file medium in entry 0 and the drivers loaded from the
// media configuration file in entries 1 and up.
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <cstdint>

#include "kesdbm/session.h"
#include "kesdbm/storage.h"
#include "storage/config_file.hpp"
#include "storage/dir_state.hpp"
#include "storage/medium_io.hpp"

namespace {

// Name of the built-in medium: the empty string (its open ignores the name).
char defMediaName[] = "";

// Valid indexes are 0 .. mediaCount-1; entry 0 is always there.
int32_t mediaCount = 1;
// media_init calls not yet matched by media_term.
int32_t mediaRefCount = 0;

const char kDelims[] = " \t\n";

inline void storeErr(int32_t* errPtr, int32_t value) {
    if (errPtr) *errPtr = value;
}

// Undoes the loader reference of a line that failed after its library was loaded: the slot is
// reused by the next line, so nothing else would ever release it.
int32_t failLine(MediaEntry* entry, int32_t status) {
    if (entry->handle) {
        dlclose(entry->handle);
        entry->handle = nullptr;
    }
    return status;
}

}  // namespace

extern "C" {

int defMedia_open(const char* name, uint32_t arg, int32_t* errPtr) {
    (void)name;
    (void)arg;
    // Read afresh at every open, so a changed variable takes effect on the next access. A
    // database started from a directory names its own file.
    const char* path = kesdb_defMediaFile();
    if (!path) return -1;  // no error number is stored in this case
    int fd = ::open(path, O_RDWR | O_DSYNC);
    if (fd < 0) storeErr(errPtr, errno);
    return fd;
}

const char* kesdb_defMediaFile(void) {
    const kes::DirState* dir = kes::dirState();
    return dir && dir->defMedia[0] ? dir->defMedia : getenv("KESDB_DEFMEDIA");
}

int defMedia_close(int descriptor, int32_t* errPtr) {
    int r = ::close(descriptor);
    if (r == -1) storeErr(errPtr, errno);
    return r;
}

int defMedia_read(int descriptor, void* buffer, uint32_t length, uint32_t offset, int32_t* errPtr) {
    ssize_t r = ::pread(descriptor, buffer, length, static_cast<off_t>(offset));
    if (r == -1) storeErr(errPtr, errno);
    return static_cast<int>(r);
}

int defMedia_write(int descriptor, const void* buffer, uint32_t length, uint32_t offset, int32_t* errPtr) {
    ssize_t r = ::pwrite(descriptor, buffer, length, static_cast<off_t>(offset));
    if (r == -1) storeErr(errPtr, errno);
    return static_cast<int>(r);
}

int defMedia_seek(int descriptor, uint32_t offset, int whence, int32_t* errPtr) {
    off_t r = ::lseek(descriptor, static_cast<off_t>(offset), whence);
    if (r == -1) storeErr(errPtr, errno);
    return static_cast<int>(r);
}

int defMedia_sync(int descriptor, int32_t* errPtr, uint32_t syncArg) {
    (void)syncArg;
    int r = ::fsync(descriptor);
    if (r == -1) storeErr(errPtr, errno);
    return r;
}

// Entry 0 is filled when the library is loaded, before any caller can see the table: an
// initialised table would take its whole size in the library file, a zeroed one none.
MediaEntry media_table[KESDB_MEDIA_MAX];

}  // extern "C"

namespace {

__attribute__((constructor)) void media_layBuiltIn() {
    media_table[0] = {nullptr, defMediaName, 0u, defMedia_open, defMedia_close, defMedia_read, defMedia_write,
                      defMedia_seek, defMedia_sync};
}

}  // namespace

extern "C" {

// Fills one table entry from one configuration line (already cut at its comment).
// 0: entry complete; positive: error code; -1: the line is not usable.
int32_t fillMediaEntry(char* line, MediaEntry* entry) {
    if (!line || !entry) return -1;
    char* save = nullptr;

    char* token = strtok_r(line, kDelims, &save);
    if (!token) {
        printf("fillMediaEntry err1\n");
        return -1;
    }
    char library[KESDB_PATH_MAX];
    const char* libraryName = kes::dirResolve(token, kes::DirName::Driver, library);
    entry->handle = dlopen(libraryName, RTLD_NOW);
    if (!entry->handle) {
        kes::dirNote("cannot load the driver", libraryName, dlerror());
        return 20;
    }

    token = strtok_r(nullptr, kDelims, &save);
    if (!token) {
        printf("fillMediaEntry err2\n");
        return failLine(entry, -1);
    }
    entry->open = reinterpret_cast<kesMediaOpenFn>(dlsym(entry->handle, token));
    if (!entry->open) {
        kes::dirNote(libraryName, "has no function", token);
        return failLine(entry, 14);
    }

    // Tokens 3 to 7: close, read, write, seek, sync, with codes 15 to 19.
    void* symbols[5] = {};
    for (int i = 0; i < 5; ++i) {
        token = strtok_r(nullptr, kDelims, &save);
        if (!token) return failLine(entry, -1);
        symbols[i] = dlsym(entry->handle, token);
        switch (i) {
            case 0: entry->close = reinterpret_cast<kesMediaCloseFn>(symbols[i]); break;
            case 1: entry->read = reinterpret_cast<kesMediaReadFn>(symbols[i]); break;
            case 2: entry->write = reinterpret_cast<kesMediaWriteFn>(symbols[i]); break;
            case 3: entry->seek = reinterpret_cast<kesMediaSeekFn>(symbols[i]); break;
            default: entry->sync = reinterpret_cast<kesMediaSyncFn>(symbols[i]); break;
        }
        if (!symbols[i]) {
            kes::dirNote(libraryName, "has no function", token);
            return failLine(entry, 15 + i);
        }
    }

    token = strtok_r(nullptr, kDelims, &save);
    if (!token) return failLine(entry, -1);
    char file[KESDB_PATH_MAX];
    const char* mediumName = kes::dirResolve(token, kes::DirName::File, file);
    size_t length = strlen(mediumName);
    char* name = static_cast<char*>(malloc(length + 1));
    if (!name) return failLine(entry, -1);
    memcpy(name, mediumName, length + 1);
    entry->name = name;
    entry->arg = 0;
    return 0;
}

int32_t media_init(const char* path) {
    ++mediaRefCount;
    if (mediaRefCount != 1) return 0;  // loaded by an earlier call; path is not looked at
    if (!path) return KESDB_ERR_MEDIA_CONFOPEN;

    FILE* file = kes::openConfigFile(path);
    if (!file) return KESDB_ERR_MEDIA_CONFOPEN;
    char* line = static_cast<char*>(malloc(KESDB_CONF_LINE));
    if (!line) {
        fclose(file);
        return KESDB_ERR_NOMEM;
    }

    int32_t result = 0;
    while (fgets(line, KESDB_CONF_LINE, file)) {
        if (mediaCount >= KESDB_MEDIA_MAX) break;  // the line just read is not used
        char* hash = strchr(line, '#');
        if (hash) *hash = '\0';
        int32_t status = fillMediaEntry(line, &media_table[mediaCount]);
        if (status == 0) {
            ++mediaCount;
            result = 0;
        } else if (status > 0) {
            result = status;
        } else {
            result = 0;
        }
    }

    free(line);
    fclose(file);
    return result;
}

int32_t media_term(void) {
    if (mediaRefCount <= 0) return 0;  // more shut-downs than set-ups: nothing to undo
    --mediaRefCount;
    if (mediaRefCount != 0) return 0;
    for (int32_t i = 1; i < mediaCount; ++i) {
        if (media_table[i].handle) dlclose(media_table[i].handle);
        media_table[i].handle = nullptr;
        free(media_table[i].name);
        media_table[i].name = nullptr;
    }
    mediaCount = 1;
    return 0;
}

int32_t media_getCount(void) { return mediaCount; }

MediaEntry* getMedia(Session* s, uint32_t index) {
    if (index >= static_cast<uint32_t>(mediaCount)) {
        session_setError(s, KESDB_ERR_MEDIA_INDEX, 0);
        return nullptr;
    }
    return &media_table[index];
}

int32_t media_sync(Session* s, uint32_t index, uint32_t syncArg) {
    MediaEntry* entry = getMedia(s, index);
    if (!entry) return 0;  // error 21 stays recorded in the session
    kes::Medium medium(entry);
    if (!medium.open()) {
        session_setError(s, KESDB_ERR_MEDIA_OPEN, medium.err());
        return KESDB_ERR_MEDIA_OPEN;
    }
    int32_t result = 0;
    if (medium.sync(syncArg) != 0) {
        session_setError(s, KESDB_ERR_MEDIA_SYNC, medium.err());
        result = KESDB_ERR_MEDIA_SYNC;
    }
    medium.close();
    return result;
}

int32_t IsCompMedia(const char* name) {
    if (!name) return 0;
    return strncmp(name, "compMedia", 8) == 0 ? 1 : 0;
}

int compFileRead(int descriptor, void* buffer, uint32_t length, uint32_t offset, int32_t* errPtr) {
    storeErr(errPtr, 0);
    ssize_t r = ::pread(descriptor, buffer, length, static_cast<off_t>(offset));
    if (r == -1) storeErr(errPtr, -1);
    return static_cast<int>(r);
}

}  // extern "C"
