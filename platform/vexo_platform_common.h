/// Shared helpers for the kit declarations: C linkage and compile-time layout checks that
/// work from both C11 and C++.
#ifndef VEXO_PLATFORM_COMMON_H
#define VEXO_PLATFORM_COMMON_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define VEXO_EXTERN_C_BEGIN extern "C" {
#define VEXO_EXTERN_C_END }
#define VEXO_STATIC_ASSERT(cond, msg) static_assert(cond, msg)
#else
#define VEXO_EXTERN_C_BEGIN
#define VEXO_EXTERN_C_END
#define VEXO_STATIC_ASSERT(cond, msg) _Static_assert(cond, msg)
#endif

/// True on 32-bit targets (the camera's ARM build), where pointer positions are fixed.
#define VEXO_PTR32 (UINTPTR_MAX == 0xFFFFFFFFu)

#endif
