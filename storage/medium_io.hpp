// Internal: access to a medium through its driver, and the database lookup that every
// record access starts with. Every opened medium is closed when its Medium goes out of scope.
#pragma once

#include <cstdint>
#include <utility>

#include "kesdbm/api.h"
#include "kesdbm/session.h"
#include "kesdbm/storage.h"

namespace kes {

// Runs a function when the scope ends, on every path.
template <class F>
class ScopeExit {
public:
    explicit ScopeExit(F f) : f_(std::move(f)) {}
    ScopeExit(const ScopeExit&) = delete;
    ScopeExit& operator=(const ScopeExit&) = delete;
    ~ScopeExit() {
        if (armed_) f_();
    }
    void release() { armed_ = false; }

private:
    F f_;
    bool armed_ = true;
};

// The database id of a session; a null session has none (0 is never registered).
inline uint32_t dbIdOf(const Session* s) { return s ? s->dbId : 0u; }

// The current error code recorded in a session (0 for a null session).
inline int32_t lastError(const Session* s) { return s ? static_cast<int32_t>(s->error) : 0; }

// Runs `call` with the session's error pair cleared and gives the code it recorded (0 when it
// recorded none, and always for a null session). A recorded failure stays in the session; when
// nothing was recorded the pair the session held before is put back, so a call that succeeds
// leaves an earlier error as it was. Used where a call's result alone does not tell whether it
// failed (an allocator's 0, a read that leaves its buffer untouched).
template <class Call>
uint32_t recordedBy(Session* s, Call&& call) {
    if (!s) {
        call();
        return 0;
    }
    const uint32_t savedError = s->error;
    const uint32_t savedDetail = s->errorDetail;
    session_setError(s, 0, 0);
    call();
    const uint32_t recorded = s->error;
    if (recorded == 0) session_setError(s, static_cast<int32_t>(savedError), savedDetail);
    return recorded;
}

// The parameter copy of the session's database, or null (nothing recorded).
inline const DBMInitParam* dbOf(const Session* s) { return db_getDb(dbIdOf(s)); }

// Media-table index of each kind of record, from the database's parameter copy.
enum class RecordKind { Component, Value, Constraint, String };

inline uint32_t mediumIndex(const DBMInitParam* p, RecordKind kind) {
    switch (kind) {
        case RecordKind::Component: return p->componentMedium;
        case RecordKind::Value: return p->valueMedium;
        case RecordKind::Constraint: return p->constraintMedium;
        case RecordKind::String: return p->stringMedium;
    }
    return p->componentMedium;
}

// One opened medium. The driver's error word starts at 0 before every call, so a driver
// that fails without storing one leaves 0 as the detail.
class Medium {
public:
    explicit Medium(MediaEntry* entry) : entry_(entry) {}
    Medium(const Medium&) = delete;
    Medium& operator=(const Medium&) = delete;
    ~Medium() { close(); }

    // Opens the medium; false when the driver's open gave a negative descriptor.
    bool open() {
        err_ = 0;
        fd_ = entry_->open(entry_->name, entry_->arg, &err_);
        open_ = fd_ >= 0;
        return open_;
    }
    int read(void* buffer, uint32_t length, uint32_t offset) {
        err_ = 0;
        return entry_->read(fd_, buffer, length, offset, &err_);
    }
    int write(const void* buffer, uint32_t length, uint32_t offset) {
        err_ = 0;
        return entry_->write(fd_, buffer, length, offset, &err_);
    }
    int seek(uint32_t offset, int whence) {
        err_ = 0;
        return entry_->seek(fd_, offset, whence, &err_);
    }
    int sync(uint32_t syncArg) {
        err_ = 0;
        return entry_->sync(fd_, &err_, syncArg);
    }
    // Closes now and returns the driver's result; 0 when it was not open.
    int close() {
        if (!open_) return 0;
        open_ = false;
        int32_t closeErr = 0;
        return entry_->close(fd_, &closeErr);
    }
    int descriptor() const { return fd_; }
    // The driver's error word of the last operation, as a session detail.
    uint32_t err() const { return static_cast<uint32_t>(err_); }
    MediaEntry* entry() const { return entry_; }

private:
    MediaEntry* entry_;
    int fd_ = -1;
    int32_t err_ = 0;
    bool open_ = false;
};

}  // namespace kes
