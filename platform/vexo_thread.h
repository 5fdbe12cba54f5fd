/// Threads, mutexes, memory, sleep and random numbers provided by the kit.
#ifndef VEXO_THREAD_H
#define VEXO_THREAD_H

#include "vexo_platform_common.h"

VEXO_EXTERN_C_BEGIN

typedef void *vexo_thread_t; /* 0 when none */
typedef void (*vexo_thread_hook_t)(void);
typedef void (*vexo_thread_func_t)(void *arg);
typedef struct {
    uint32_t stack_size;
    int32_t priority;
    const char *name;
} vexo_thread_param_t;

/// Creates a thread running func(arg); enter/exit hooks may be null. Stores the handle in
/// *handle before the thread can observe it. 0 on success. Any thread may call it.
int32_t CreateAndStart(vexo_thread_t *handle, vexo_thread_hook_t enter, vexo_thread_hook_t exit,
                       vexo_thread_func_t func, void *arg, const vexo_thread_param_t *param);
/// Releases a thread handle. Whether it joins or detaches a running thread is the kit's; it
/// must not block forever. A null handle is accepted. 0 on success.
int32_t DeleteThrdHandle(vexo_thread_t handle);

typedef void *vexo_mutex_t;
/// Creates a non-recursive mutex into *mutex. 0 on success.
int32_t vexo_hal_mutex_create_init(vexo_mutex_t *mutex);
/// Blocks until the mutex is held. -1 and nothing done for a null handle.
int32_t vexo_hal_mutex_lock(vexo_mutex_t mutex);
/// Releases a mutex held by the caller. -1 and nothing done for a null handle.
int32_t vexo_hal_mutex_unlock(vexo_mutex_t mutex);

/// General-purpose allocator; null on failure. Free(null) does nothing.
void *Malloc(size_t size);
void Free(void *ptr);
/// System allocator used for the audio mute buffer; null on failure.
void *vexo_hal_system_malloc(size_t size);
void vexo_hal_system_free(void *ptr);
/// Blocks the calling thread for ms milliseconds of the kit's clock.
void vexo_hal_system_sleep(uint32_t ms);
/// A random number from 0 to range inclusive. Not for key material.
uint32_t vexo_hal_get_random_data(uint32_t range);

VEXO_EXTERN_C_END

#endif
