/* The system half of a minimal kit on POSIX: threads, mutexes, memory, sleep, randomness,
 * time and logging. A camera's kit maps these onto its own RTOS or Linux services. */
#define _POSIX_C_SOURCE 200809L

#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include "vexo_platform.h"

typedef struct {
    pthread_t thread;
    vexo_thread_hook_t enter;
    vexo_thread_hook_t exit;
    vexo_thread_func_t func;
    void *arg;
} stub_thread_t;

static void *thread_main(void *p) {
    stub_thread_t *t = p;
    if (t->enter != NULL) {
        t->enter();
    }
    t->func(t->arg);
    if (t->exit != NULL) {
        t->exit();
    }
    return NULL;
}

int32_t CreateAndStart(vexo_thread_t *handle, vexo_thread_hook_t enter, vexo_thread_hook_t exit,
                       vexo_thread_func_t func, void *arg, const vexo_thread_param_t *param) {
    (void)param; /* stack size and priority: the system's defaults here */
    stub_thread_t *t = calloc(1, sizeof *t);
    if (handle == NULL || func == NULL || t == NULL) {
        free(t);
        return -1;
    }
    t->enter = enter;
    t->exit = exit;
    t->func = func;
    t->arg = arg;
    *handle = t; /* before the thread can look at it */
    if (pthread_create(&t->thread, NULL, thread_main, t) != 0) {
        *handle = NULL;
        free(t);
        return -1;
    }
    return 0;
}

/* Joins: the module's thread leaves within one pass (well under a second) once uninit
 * cleared its flag, and its state must stay valid until it has. */
int32_t DeleteThrdHandle(vexo_thread_t handle) {
    stub_thread_t *t = handle;
    if (t == NULL) {
        return 0;
    }
    int rc = pthread_join(t->thread, NULL);
    free(t);
    return rc == 0 ? 0 : -1;
}

int32_t vexo_hal_mutex_create_init(vexo_mutex_t *mutex) {
    pthread_mutex_t *m = malloc(sizeof *m);
    if (mutex == NULL || m == NULL || pthread_mutex_init(m, NULL) != 0) {
        free(m);
        return -1;
    }
    *mutex = m;
    return 0;
}

int32_t vexo_hal_mutex_lock(vexo_mutex_t mutex) {
    return mutex != NULL && pthread_mutex_lock(mutex) == 0 ? 0 : -1;
}

int32_t vexo_hal_mutex_unlock(vexo_mutex_t mutex) {
    return mutex != NULL && pthread_mutex_unlock(mutex) == 0 ? 0 : -1;
}

void *Malloc(size_t size) {
    return malloc(size);
}
void Free(void *ptr) {
    free(ptr);
}
void *vexo_hal_system_malloc(size_t size) {
    return malloc(size);
}
void vexo_hal_system_free(void *ptr) {
    free(ptr);
}

void vexo_hal_system_sleep(uint32_t ms) {
    struct timespec ts = {(time_t)(ms / 1000), (long)(ms % 1000) * 1000000L};
    while (nanosleep(&ts, &ts) != 0) {
    }
}

uint32_t vexo_hal_get_random_data(uint32_t range) {
    return range == UINT32_MAX ? (uint32_t)rand() : (uint32_t)rand() % (range + 1);
}

uint32_t uni_time_get_posix(void) {
    return (uint32_t)time(NULL);
}

int32_t uni_local_time_get_custom(uint32_t posix, struct tm *local) {
    time_t t = (time_t)posix;
    return local != NULL && localtime_r(&t, local) != NULL ? 0 : -1;
}

static void print_line(const char *level, const char *file, int32_t line, const char *fmt,
                       va_list args) {
    fprintf(stderr, "[%s] %s:%d ", level, file, (int)line);
    vfprintf(stderr, fmt, args);
    fputc('\n', stderr);
}

void PrintErrLog(const char *file, int32_t line, const char *fmt, ...) {
    va_list args;
    va_start(args, fmt);
    print_line("E", file, line, fmt, args);
    va_end(args);
}

/* Debug and trace lines are dropped: the module is chatty at those levels. */
void PrintDebugLog(const char *file, int32_t line, const char *fmt, ...) {
    (void)file;
    (void)line;
    (void)fmt;
}

void PrintTraceLog(const char *file, int32_t line, const char *fmt, ...) {
    (void)file;
    (void)line;
    (void)fmt;
}

int32_t log_seq_insert_log(const char *module, uint32_t seq, uint32_t kind, ...) {
    (void)module;
    (void)seq;
    (void)kind;
    return 0;
}

int32_t log_seq_insert_report_log(const char *module, uint32_t seq, uint32_t kind, ...) {
    (void)module;
    (void)seq;
    (void)kind;
    return 0;
}
