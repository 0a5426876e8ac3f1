// Operating-system wrapper: semaphores and memory for the kesDBM library.
//
// Semaphores are reached through 32-bit handles (index + 1 into a table of this process).
// A handle names one object: a mutex, a counting semaphore or an event. Objects come in two
// flavours:
//
//  - Keyed objects. While the calling thread has a create key set (kesOSWSetCreateKey), a
//    mutex, counting semaphore or event created with name 0 is the object of that key's set.
//    The set lives in a small shared file "<key>.sem" that every process setting the same key
//    maps, so the objects act across processes:
//      mutex  - a holder that dies (even by SIGKILL) does not block the others: the next
//               requester takes it over. Two kinds, chosen by the process that lays the set
//               down and recorded in the file, so every process uses the same one:
//               robust  - a process-shared robust pthread mutex: the kernel marks it when its
//                         holder dies and wakes a waiter. Used where the kernel keeps robust
//                         lists for this process (it does natively);
//               tracked - a futex word holding the holder's thread id. A waiter that has slept
//                         one poll interval checks that the holder still runs (kill(tid, 0), and
//                         a zombie counts as ended)
//                         and takes over when it does not. Used where the kernel keeps no
//                         robust list for the process (a user-mode emulator such as qemu-user),
//                         or when KESOSW_MUTEX=tracked is set at lay-down. Its limits: the
//                         processes must share one pid namespace, and a holder whose thread id
//                         was handed to a new thread before anyone noticed its death stays
//                         "alive" until that thread ends;
//      count  - a process-shared POSIX semaphore;
//      event  - a sequence word: a post increments it and wakes every waiter; a wait returns
//               when the word changes or after a short poll interval, whichever comes first.
//    A set is mapped once per process; creating the same key's object again returns the same
//    handle, so repeated start-ups neither leak mappings nor use up handles.
//  - Private objects, created while no key is set: the same kinds of object on the heap,
//    acting only between the threads of this process.
//
// Timeouts of the wait calls: 0 and 0xFFFFFFFF both mean "no time limit", any other value
// is a limit in milliseconds (exceeding it fails with KESOSW_ERR_SYSTEM, errno ETIMEDOUT).
// The event wait ignores its timeout: it always returns 0 after a post or after the poll
// interval, so a waiter that missed a post tries again within that interval and no waiter
// ever sleeps for good on a post that came just before it started waiting.
//
// Failure codes: KESOSW_ERR_PARAM for a bad handle or argument (errno EINVAL),
// KESOSW_ERR_FULL when the handle table or the table of mapped sets is full,
// KESOSW_ERR_SYSTEM when a system call failed (errno says which).
#include "kesosw.h"

#include <fcntl.h>
#include <linux/futex.h>
#include <pthread.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr uint32_t kMaxHandles = 1024;      // handles of one process
constexpr uint32_t kMaxSets = 64;           // keyed sets mapped by one process
constexpr uint32_t kMaxKeyLength = 4095;    // a key is a path of at most this many bytes
constexpr long kEventPollNs = 25L * 1000 * 1000;  // longest single event wait: 25 ms
constexpr uint32_t kNoLimit = 0xFFFFFFFFu;
constexpr long kMutexPollNs = 50L * 1000 * 1000;  // tracked mutex: liveness check interval
constexpr uint32_t kSetMagic = 0x4B534D31u;         // marks a set laid down with a robust mutex
constexpr uint32_t kTrackedMagic = 0x4B534D32u;     // marks a set laid down with a tracked mutex
constexpr uint32_t kWaiters = 0x80000000u;          // tracked mutex: someone sleeps on the word
constexpr uint32_t kTidMask = 0x3FFFFFFFu;          // tracked mutex: the holder's thread id

enum Kind : uint32_t { kNone = 0, kMutex = 1, kCount = 2, kEvent = 3 };

// One set of objects; the layout of the "<key>.sem" file, and of a private object on the heap
// (which uses only the member of its kind).
struct SemObjects {
    uint32_t magic;       // kSetMagic or kTrackedMagic once the objects are initialised
    uint32_t layoutSize;  // sizeof(SemObjects) of the process that laid the file down
    uint32_t eventSeq;    // the event's sequence word
    uint32_t ownerWord;   // tracked mutex: 0 when free, else holder's thread id | kWaiters
    pthread_mutex_t mutex;  // robust mutex (also the mutex of a private object)
    sem_t count;
};

struct Slot {
    std::atomic<uint32_t> kind{kNone};  // published last: a slot with a kind is complete
    SemObjects* objects = nullptr;
    bool shared = false;
    bool tracked = false;  // a keyed mutex of the tracked kind
};

struct MappedSet {
    dev_t dev;
    ino_t ino;
    SemObjects* objects;
};

// The handle table and the mapped sets. Slots are only ever added, so a published slot can be
// read without the guard; creation and the set table are changed under it.
pthread_mutex_t g_guard = PTHREAD_MUTEX_INITIALIZER;
Slot g_slots[kMaxHandles];
uint32_t g_slotCount = 0;
MappedSet g_sets[kMaxSets];
uint32_t g_setCount = 0;

// A fork while another thread creates an object must not leave the child's guard taken.
void guardLock() { pthread_mutex_lock(&g_guard); }
void guardUnlock() { pthread_mutex_unlock(&g_guard); }
[[maybe_unused]] const int g_atforkRegistered = pthread_atfork(guardLock, guardUnlock, guardUnlock);

// The create key of this thread: a copy of the caller's text, or null.
thread_local char* t_key = nullptr;

int32_t fail(int32_t code, int err) {
    errno = err;
    return code;
}
int32_t badParam() { return fail(KESOSW_ERR_PARAM, EINVAL); }
int32_t systemFailure(int err) { return fail(KESOSW_ERR_SYSTEM, err); }

struct GuardHold {
    GuardHold() { guardLock(); }
    ~GuardHold() { guardUnlock(); }
    GuardHold(const GuardHold&) = delete;
    GuardHold& operator=(const GuardHold&) = delete;
};

struct FdHold {
    int fd;
    explicit FdHold(int f) : fd(f) {}
    ~FdHold() {
        if (fd >= 0) ::close(fd);
    }
    FdHold(const FdHold&) = delete;
    FdHold& operator=(const FdHold&) = delete;
};

int initMutex(pthread_mutex_t* m, bool shared) {
    pthread_mutexattr_t attr;
    int rc = pthread_mutexattr_init(&attr);
    if (rc != 0) return rc;
    // Error checking: a second request by the owner fails instead of hanging forever, and a
    // release by a thread that does not own the mutex is refused.
    rc = pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ERRORCHECK);
    if (rc == 0) rc = pthread_mutexattr_setrobust(&attr, PTHREAD_MUTEX_ROBUST);
    if (rc == 0 && shared) rc = pthread_mutexattr_setpshared(&attr, PTHREAD_PROCESS_SHARED);
    if (rc == 0) rc = pthread_mutex_init(m, &attr);
    pthread_mutexattr_destroy(&attr);
    return rc;
}

// True when the kernel keeps a robust-mutex list for the calling thread, so that it releases
// the robust mutexes of a thread that dies. A user-mode emulator may not provide one.
bool kernelKeepsRobustList() {
    void* head = nullptr;
    size_t length = 0;
    const int saved = errno;
    const bool kept = syscall(SYS_get_robust_list, 0, &head, &length) == 0 && head != nullptr;
    errno = saved;
    return kept;
}

bool useTrackedMutex() {
    const char* choice = getenv("KESOSW_MUTEX");
    if (choice && std::strcmp(choice, "tracked") == 0) return true;
    return !kernelKeepsRobustList();
}

// Initialises every object of a freshly laid-down set; 0 or an errno value.
int initSharedObjects(SemObjects* o) {
    const bool tracked = useTrackedMutex();
    int rc = initMutex(&o->mutex, true);
    if (rc != 0) return rc;
    if (sem_init(&o->count, 1, 0) != 0) return errno;
    o->eventSeq = 0;
    o->ownerWord = 0;
    o->layoutSize = sizeof(SemObjects);
    __atomic_store_n(&o->magic, tracked ? kTrackedMagic : kSetMagic, __ATOMIC_RELEASE);
    return 0;
}

// Maps the set of `key` (once per process); 0 and the set, or a failure code. Guard held.
int32_t attachSet(const char* key, SemObjects** out) {
    size_t length = std::strlen(key);
    char* path = static_cast<char*>(std::malloc(length + 5));
    if (!path) return systemFailure(ENOMEM);
    std::memcpy(path, key, length);
    std::memcpy(path + length, ".sem", 5);
    FdHold file(open(path, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0664));  // never through a link
    int openErr = errno;
    std::free(path);
    if (file.fd < 0) return systemFailure(openErr);

    struct stat st {};
    if (fstat(file.fd, &st) != 0) return systemFailure(errno);
    // A mapping holds the file, so its inode number cannot be handed to another file while
    // the set stays in the table: device and inode identify the set.
    for (uint32_t i = 0; i < g_setCount; ++i) {
        if (g_sets[i].dev == st.st_dev && g_sets[i].ino == st.st_ino) {
            *out = g_sets[i].objects;
            return 0;
        }
    }
    if (g_setCount >= kMaxSets) return fail(KESOSW_ERR_FULL, ENOSPC);

    // The first user lays the file down; concurrent first users wait on the file lock.
    while (flock(file.fd, LOCK_EX) != 0) {
        if (errno != EINTR) return systemFailure(errno);
    }
    struct Unlock {
        int fd;
        ~Unlock() { flock(fd, LOCK_UN); }
    } unlock{file.fd};
    if (fstat(file.fd, &st) != 0) return systemFailure(errno);
    if (st.st_size < static_cast<off_t>(sizeof(SemObjects)) &&
        ftruncate(file.fd, sizeof(SemObjects)) != 0)
        return systemFailure(errno);
    void* map = mmap(nullptr, sizeof(SemObjects), PROT_READ | PROT_WRITE, MAP_SHARED, file.fd, 0);
    if (map == MAP_FAILED) return systemFailure(errno);
    auto* objects = static_cast<SemObjects*>(map);
    int err = 0;
    const uint32_t magic = __atomic_load_n(&objects->magic, __ATOMIC_ACQUIRE);
    if (magic != kSetMagic && magic != kTrackedMagic)
        err = initSharedObjects(objects);
    else if (objects->layoutSize != sizeof(SemObjects))
        err = EINVAL;  // laid down by a process of another layout: never reinterpret it
    if (err != 0) {
        munmap(map, sizeof(SemObjects));
        return systemFailure(err);
    }
    g_sets[g_setCount++] = MappedSet{st.st_dev, st.st_ino, objects};
    *out = objects;
    return 0;
}

// Creates a private object of `kind`; 0 or an errno value.
int makePrivate(Kind kind, uint32_t initial, SemObjects** out) {
    auto* o = static_cast<SemObjects*>(std::calloc(1, sizeof(SemObjects)));
    if (!o) return ENOMEM;
    int rc = 0;
    if (kind == kMutex)
        rc = initMutex(&o->mutex, false);
    else if (kind == kCount && sem_init(&o->count, 0, initial) != 0)
        rc = errno;
    if (rc != 0) {
        std::free(o);
        return rc;
    }
    *out = o;
    return 0;
}

int32_t create(Kind kind, uint32_t* handle, uint32_t name, uint32_t initial) {
    // Named objects are not provided: every object is either keyed or private.
    if (!handle || name != 0) return badParam();
    if (kind == kCount && initial > static_cast<uint32_t>(SEM_VALUE_MAX)) return badParam();
    GuardHold hold;
    const bool shared = t_key != nullptr;
    SemObjects* objects = nullptr;
    if (shared) {
        int32_t rc = attachSet(t_key, &objects);
        if (rc != 0) return rc;
        for (uint32_t i = 0; i < g_slotCount; ++i) {
            if (g_slots[i].objects == objects && g_slots[i].kind.load(std::memory_order_relaxed) == kind) {
                *handle = i + 1;
                return 0;
            }
        }
    }
    if (g_slotCount >= kMaxHandles) return fail(KESOSW_ERR_FULL, ENOSPC);
    if (!shared) {
        int err = makePrivate(kind, initial, &objects);
        if (err != 0) return systemFailure(err);
    }
    Slot& slot = g_slots[g_slotCount];
    slot.objects = objects;
    slot.shared = shared;
    slot.tracked = shared && kind == kMutex &&
                   __atomic_load_n(&objects->magic, __ATOMIC_ACQUIRE) == kTrackedMagic;
    slot.kind.store(kind, std::memory_order_release);
    *handle = ++g_slotCount;
    return 0;
}

// The slot of a handle of the expected kind, or null.
Slot* slotOf(uint32_t handle, Kind kind) {
    if (handle == 0 || handle > kMaxHandles) return nullptr;
    Slot* slot = &g_slots[handle - 1];
    return slot->kind.load(std::memory_order_acquire) == kind ? slot : nullptr;
}

// Absolute CLOCK_REALTIME time `ms` milliseconds from now.
timespec deadlineAfter(uint32_t ms) {
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    ts.tv_sec += ms / 1000;
    ts.tv_nsec += static_cast<long>(ms % 1000) * 1000000L;
    if (ts.tv_nsec >= 1000000000L) {
        ts.tv_sec += 1;
        ts.tv_nsec -= 1000000000L;
    }
    return ts;
}

bool noLimit(uint32_t timeout) { return timeout == 0 || timeout == kNoLimit; }

long futexCall(uint32_t* word, int op, uint32_t value, const timespec* timeout) {
    return syscall(SYS_futex, word, op, value, timeout, nullptr, 0);
}

// ---- The tracked mutex: a futex word in the shared set.

uint32_t selfTid() { return static_cast<uint32_t>(syscall(SYS_gettid)); }

// True when the thread has ended but its process was not reaped yet: its state in
// /proc/<tid>/stat (after the name in parentheses) is Z (zombie) or X (dead).
bool holderEnded(uint32_t tid) {
    char path[48];
    std::snprintf(path, sizeof path, "/proc/%u/stat", tid);
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    char buf[512];
    const ssize_t n = read(fd, buf, sizeof buf - 1);
    close(fd);
    if (n <= 0) return false;
    buf[n] = '\0';
    const char* paren = std::strrchr(buf, ')');
    return paren != nullptr && paren[1] == ' ' && (paren[2] == 'Z' || paren[2] == 'X');
}

// True when no thread with that id runs any more: it does not exist (ESRCH), or it ended and
// waits only to be reaped by its parent. A thread of another user still counts as existing
// (EPERM).
bool holderGone(uint32_t tid) {
    if (tid == 0) return false;
    const int saved = errno;
    const bool gone = (kill(static_cast<pid_t>(tid), 0) != 0 && errno == ESRCH) || holderEnded(tid);
    errno = saved;
    return gone;
}

double monotonicMs() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) * 1000.0 + static_cast<double>(ts.tv_nsec) / 1e6;
}

// 0 once the calling thread holds the word, or an errno value (EDEADLK, ETIMEDOUT).
int trackedLock(uint32_t* word, uint32_t timeout) {
    const uint32_t self = selfTid() & kTidMask;
    uint32_t seen = 0;
    if (__atomic_compare_exchange_n(word, &seen, self, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED)) return 0;
    if ((seen & kTidMask) == self) return EDEADLK;
    const bool limited = !noLimit(timeout);
    const double deadline = limited ? monotonicMs() + timeout : 0.0;
    bool slept = false;
    for (;;) {
        uint32_t w = __atomic_load_n(word, __ATOMIC_RELAXED);
        // Taken while free, or over from a holder that no longer exists; the waiters mark is
        // kept since others may be asleep on the word.
        if (w == 0 || (slept && holderGone(w & kTidMask))) {
            if (__atomic_compare_exchange_n(word, &w, self | kWaiters, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED))
                return 0;
            continue;
        }
        if ((w & kWaiters) == 0) {
            if (!__atomic_compare_exchange_n(word, &w, w | kWaiters, false, __ATOMIC_RELAXED, __ATOMIC_RELAXED))
                continue;
            w |= kWaiters;
        }
        timespec slice{0, kMutexPollNs};
        if (limited) {
            const double left = deadline - monotonicMs();
            if (left <= 0.0) return ETIMEDOUT;
            if (left < kMutexPollNs / 1e6) slice.tv_nsec = static_cast<long>(left * 1e6);
        }
        const long rc = futexCall(word, FUTEX_WAIT, w, &slice);
        slept = rc != 0 && errno == ETIMEDOUT;
    }
}

// 0, or EPERM when the calling thread does not hold the word.
int trackedUnlock(uint32_t* word) {
    const uint32_t self = selfTid() & kTidMask;
    if ((__atomic_load_n(word, __ATOMIC_RELAXED) & kTidMask) != self) return EPERM;
    if (__atomic_exchange_n(word, 0u, __ATOMIC_RELEASE) & kWaiters) futexCall(word, FUTEX_WAKE, 1, nullptr);
    return 0;
}

}  // namespace

extern "C" {

int32_t kesOSWSetCreateKey(const char* key) {
    if (!key) {
        std::free(t_key);
        t_key = nullptr;
        return 0;
    }
    size_t length = strnlen(key, kMaxKeyLength + 1);
    if (length == 0 || length > kMaxKeyLength) return badParam();
    char* copy = static_cast<char*>(std::malloc(length + 1));
    if (!copy) return systemFailure(ENOMEM);
    std::memcpy(copy, key, length + 1);
    std::free(t_key);
    t_key = copy;
    return 0;
}

int32_t kesOSWCreateMutexSem(uint32_t* handle, uint32_t name, uint32_t /*flags*/) {
    return create(kMutex, handle, name, 0);
}

// A keyed counting semaphore starts at 0 when its set is laid down and keeps its count
// afterwards; `initial` applies to private ones.
int32_t kesOSWCreateCountSem(uint32_t* handle, uint32_t name, uint32_t initial) {
    return create(kCount, handle, name, initial);
}

// An event starts not posted; `initial` is not used.
int32_t kesOSWCreateEventSem(uint32_t* handle, uint32_t name, uint32_t /*initial*/) {
    return create(kEvent, handle, name, 0);
}

int32_t kesOSWRequestMutexSem(uint32_t handle, uint32_t timeout) {
    Slot* slot = slotOf(handle, kMutex);
    if (!slot) return badParam();
    if (slot->tracked) {
        const int rc = trackedLock(&slot->objects->ownerWord, timeout);
        return rc == 0 ? 0 : systemFailure(rc);
    }
    pthread_mutex_t* m = &slot->objects->mutex;
    int rc;
    if (noLimit(timeout)) {
        rc = pthread_mutex_lock(m);
    } else {
        timespec until = deadlineAfter(timeout);
        rc = pthread_mutex_timedlock(m, &until);
    }
    if (rc == EOWNERDEAD) {
        // The previous owner died holding it: the mutex is ours now.
        rc = pthread_mutex_consistent(m);
    }
    return rc == 0 ? 0 : systemFailure(rc);
}

int32_t kesOSWReleaseMutexSem(uint32_t handle) {
    Slot* slot = slotOf(handle, kMutex);
    if (!slot) return badParam();
    int rc = slot->tracked ? trackedUnlock(&slot->objects->ownerWord) : pthread_mutex_unlock(&slot->objects->mutex);
    return rc == 0 ? 0 : systemFailure(rc);
}

int32_t kesOSWWaitCountSem(uint32_t handle, uint32_t timeout) {
    Slot* slot = slotOf(handle, kCount);
    if (!slot) return badParam();
    sem_t* s = &slot->objects->count;
    const bool limited = !noLimit(timeout);
    timespec until = limited ? deadlineAfter(timeout) : timespec{};
    for (;;) {
        int rc = limited ? sem_timedwait(s, &until) : sem_wait(s);
        if (rc == 0) return 0;
        if (errno != EINTR) return systemFailure(errno);
    }
}

int32_t kesOSWPostCountSem(uint32_t handle) {
    Slot* slot = slotOf(handle, kCount);
    if (!slot) return badParam();
    return sem_post(&slot->objects->count) == 0 ? 0 : systemFailure(errno);
}

int32_t kesOSWWaitEventSem(uint32_t handle, uint32_t /*timeout*/) {
    Slot* slot = slotOf(handle, kEvent);
    if (!slot) return badParam();
    uint32_t* word = &slot->objects->eventSeq;
    const uint32_t seen = __atomic_load_n(word, __ATOMIC_ACQUIRE);
    const timespec poll{0, kEventPollNs};
    const int op = slot->shared ? FUTEX_WAIT : FUTEX_WAIT_PRIVATE;
    if (futexCall(word, op, seen, &poll) != 0 && errno != EAGAIN && errno != ETIMEDOUT &&
        errno != EINTR) {
        // No futex to sleep on: sleep the poll interval instead, so a waiter never spins.
        timespec rest = poll;
        while (nanosleep(&rest, &rest) != 0 && errno == EINTR) {
        }
    }
    // Posted, woken, interrupted or timed out: the caller looks again either way.
    return 0;
}

int32_t kesOSWPostEventSem(uint32_t handle) {
    Slot* slot = slotOf(handle, kEvent);
    if (!slot) return badParam();
    uint32_t* word = &slot->objects->eventSeq;
    __atomic_fetch_add(word, 1u, __ATOMIC_RELEASE);
    const int op = slot->shared ? FUTEX_WAKE : FUTEX_WAKE_PRIVATE;
    return futexCall(word, op, INT_MAX, nullptr) >= 0 ? 0 : systemFailure(errno);
}

void* kesOSWSubAllocMem(uint32_t size) { return std::malloc(size != 0 ? size : 1); }

int32_t kesOSWOrgFreeMemPart(uint32_t /*pool*/, void* memory) {
    std::free(memory);
    return 0;
}

}  // extern "C"
