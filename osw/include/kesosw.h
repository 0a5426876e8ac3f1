/* Operating-system wrapper: semaphores and memory for the kesDBM library. */
#ifndef KESOSW_H
#define KESOSW_H

#include <stdint.h>

#if defined(__GNUC__)
#define KESOSW_API __attribute__((visibility("default")))
#else
#define KESOSW_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Failure codes of the wrapper. */
#define KESOSW_ERR_PARAM 200   /* bad handle or argument */
#define KESOSW_ERR_FULL 201    /* no free handle */
#define KESOSW_ERR_SYSTEM 202  /* a system call failed; errno tells which */

KESOSW_API int32_t kesOSWCreateMutexSem(uint32_t *handle, uint32_t name, uint32_t flags);
KESOSW_API int32_t kesOSWCreateCountSem(uint32_t *handle, uint32_t name, uint32_t initial);
KESOSW_API int32_t kesOSWCreateEventSem(uint32_t *handle, uint32_t name, uint32_t initial);
KESOSW_API int32_t kesOSWRequestMutexSem(uint32_t handle, uint32_t timeout);
KESOSW_API int32_t kesOSWReleaseMutexSem(uint32_t handle);
KESOSW_API int32_t kesOSWWaitCountSem(uint32_t handle, uint32_t timeout);
KESOSW_API int32_t kesOSWPostCountSem(uint32_t handle);
KESOSW_API int32_t kesOSWWaitEventSem(uint32_t handle, uint32_t timeout);
KESOSW_API int32_t kesOSWPostEventSem(uint32_t handle);
KESOSW_API void *kesOSWSubAllocMem(uint32_t size);
KESOSW_API int32_t kesOSWOrgFreeMemPart(uint32_t pool, void *memory);

/* Binding of unnamed semaphores to a shared key.
 * Semaphores created with name 0 by the calling thread while a key is set are the
 * mutex, counting semaphore and event of that key's set: every process that sets the
 * same key (a file path) and creates them gets semaphores that act on one another.
 * With no key set, the semaphores act only within the process.
 * A shared mutex whose holder dies is taken over by the next requester: through the
 * kernel's robust-mutex lists where it keeps them, else (for instance under a user-mode
 * emulator, or with KESOSW_MUTEX=tracked in the environment of the process that first
 * creates the set) by a waiter that finds the holder's thread gone.
 * Returns 0, or a failure code. */
KESOSW_API int32_t kesOSWSetCreateKey(const char *key);

#ifdef __cplusplus
}
#endif

#endif
