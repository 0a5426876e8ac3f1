/* Fault-injection medium driver for tests: libkesdrv_fault.so.
 *
 * Its six operations, faultMedia_open, faultMedia_close, faultMedia_read, faultMedia_write,
 * faultMedia_seek and faultMedia_sync, behave like the named-file driver on the existing file
 * named by the medium's name (the eighth token of the media configuration line):
 *   <dir>/libkesdrv_fault.so faultMedia_open faultMedia_close faultMedia_read faultMedia_write
 *   faultMedia_seek faultMedia_sync /path/to/file
 *
 * A test controls the driver through the calls below. It reaches them by dlopen() of the same
 * library path that the media configuration names (the loader hands out the same loaded
 * instance, so the state is shared) and dlsym() of the names in KESDRV_FAULT_SYM_*; keeping its
 * own handle open also keeps the state alive across media_term.
 *
 * One fault can be armed per operation; arming again replaces it. A fault counts the calls of
 * its operation made after it was armed, from 1 (n = 1 is the very next call):
 *   - kesdrvFault_fail(op, n, e): call n of op returns -1 and stores e as the error number
 *     (KESDRV_FAULT_NOERR: stores nothing). An open made to fail opens nothing; a close made to
 *     fail still closes the descriptor.
 *   - kesdrvFault_failFrom(op, n, e): the same for call n and every later call.
 *   - kesdrvFault_short(op, n, bytes): call n of read or write transfers at most `bytes` bytes
 *     (really transfers them) and returns that count, storing no error number.
 * kesdrvFault_calls(op) counts every call of op since the last reset (or loading), failed ones
 * included. kesdrvFault_opens()
 * counts the opens that returned a descriptor, kesdrvFault_closes() the closes called, so a test
 * checks that every successful open was closed with opens() == closes(). kesdrvFault_reset()
 * disarms every fault and zeroes every counter.
 *
 * kesdrvFault_fired() counts the calls whose outcome an armed fault changed: every call made to
 * fail, and every read or write that a short fault really cut (a transfer no longer than the
 * armed byte count is not cut and not counted). kesdrvFault_firedMedium(buffer, size) copies the
 * name of the medium of the last such call (the name its descriptor was opened with) into
 * buffer, NUL-terminated and cut to size - 1 characters, and returns the name's full length; the
 * name is empty before any fault fired. kesdrvFault_firedTransfer(offset, length) gives the
 * offset and length that call asked for when it was a read or a write (both 0 otherwise). All
 * three are cleared by kesdrvFault_reset().
 *
 * The state is guarded by a mutex; it is per process (a forked child has its own copy).
 */
#ifndef KESDRV_FAULT_H
#define KESDRV_FAULT_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
    KESDRV_FAULT_OPEN = 0,
    KESDRV_FAULT_CLOSE = 1,
    KESDRV_FAULT_READ = 2,
    KESDRV_FAULT_WRITE = 3,
    KESDRV_FAULT_SEEK = 4,
    KESDRV_FAULT_SYNC = 5,
    KESDRV_FAULT_OPS = 6
};

/* Error number that makes a failing call store nothing at its error pointer. */
#define KESDRV_FAULT_NOERR INT32_MIN

typedef void (*kesdrvFault_resetFn)(void);
typedef void (*kesdrvFault_failFn)(int op, uint32_t nth, int32_t errorNumber);
typedef void (*kesdrvFault_failFromFn)(int op, uint32_t nth, int32_t errorNumber);
typedef void (*kesdrvFault_shortFn)(int op, uint32_t nth, uint32_t bytes);
typedef uint32_t (*kesdrvFault_callsFn)(int op);
typedef uint32_t (*kesdrvFault_opensFn)(void);
typedef uint32_t (*kesdrvFault_closesFn)(void);
typedef uint32_t (*kesdrvFault_firedFn)(void);
typedef uint32_t (*kesdrvFault_firedMediumFn)(char *buffer, uint32_t size);
typedef void (*kesdrvFault_firedTransferFn)(uint32_t *offset, uint32_t *length);

#define KESDRV_FAULT_SYM_RESET "kesdrvFault_reset"
#define KESDRV_FAULT_SYM_FAIL "kesdrvFault_fail"
#define KESDRV_FAULT_SYM_FAILFROM "kesdrvFault_failFrom"
#define KESDRV_FAULT_SYM_SHORT "kesdrvFault_short"
#define KESDRV_FAULT_SYM_CALLS "kesdrvFault_calls"
#define KESDRV_FAULT_SYM_OPENS "kesdrvFault_opens"
#define KESDRV_FAULT_SYM_CLOSES "kesdrvFault_closes"
#define KESDRV_FAULT_SYM_FIRED "kesdrvFault_fired"
#define KESDRV_FAULT_SYM_FIREDMEDIUM "kesdrvFault_firedMedium"
#define KESDRV_FAULT_SYM_FIREDTRANSFER "kesdrvFault_firedTransfer"

void kesdrvFault_reset(void);
void kesdrvFault_fail(int op, uint32_t nth, int32_t errorNumber);
void kesdrvFault_failFrom(int op, uint32_t nth, int32_t errorNumber);
void kesdrvFault_short(int op, uint32_t nth, uint32_t bytes);
uint32_t kesdrvFault_calls(int op);
uint32_t kesdrvFault_opens(void);
uint32_t kesdrvFault_closes(void);
uint32_t kesdrvFault_fired(void);
uint32_t kesdrvFault_firedMedium(char *buffer, uint32_t size);
void kesdrvFault_firedTransfer(uint32_t *offset, uint32_t *length);

#ifdef __cplusplus
}
#endif

#endif
