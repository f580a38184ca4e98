/**
 * @file kzmutil.h
 * Named kernel objects in this installation's namespace, and the place of the installation.
 *
 * What holds for every function:
 *  - Failure  null (or 0), and the reason as a Windows error number in the thread's last error.
 *  - Success  of a create leaves the last error at 0 (the object is new) or 183 (it existed); of the others as it was.
 *  - Names    KZMUTIL_NAMESPACE, an environment variable, is put before every name; unset it adds nothing.
 *  - Handles  are waited on, mapped and closed through the kernel: kernel32 on Windows, kzmkernel on Linux. Children
 *             do not inherit those that a create gives.
 *  - Access   a new object admits the user who made it, on Windows administrators and the system too, and nobody else.
 *             An existing one is refused (5) if it belongs to anybody else or, on Windows, anybody else may change it.
 *  - Setuid   on Linux a program with more rights than its caller (setuid, file capabilities) reads every variable as
 *             unset.
 *  - Threads  any thread may call any function.
 */
#ifndef KZMUTIL_H
#define KZMUTIL_H

#include <stdint.h>

#if defined(_WIN32) && defined(KZMUTIL_BUILD)
#define KZMUTIL_API __declspec(dllexport)
#elif defined(_WIN32)
#define KZMUTIL_API __declspec(dllimport)
#else
#define KZMUTIL_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Creates the named mutex, or opens it when it exists. It is not owned by the caller afterwards.
 *
 * @param[in] flags  reserved: 0
 * @param[in] name   NUL-terminated, at least one byte, without the namespace
 * @return the mutex, or null: 87 a bad argument, 5 it is refused (see Access), other numbers as the kernel gives them
 */
KZMUTIL_API void* KzmutilCreateNamedMutex(uint32_t flags, const char* name);

/**
 * Creates a named piece of shared memory, zero-filled, or opens the one that exists, whatever its size.
 *
 * @param[in] file       all ones: the memory belongs to no file; nothing else is supported
 * @param[in] protect    4: to be read and written
 * @param[in] size_high  upper 32 bits of the size in bytes
 * @param[in] size_low   lower 32 bits of it
 * @param[in] name       NUL-terminated, at least one byte, without the namespace
 * @return the mapping, or null
 */
KZMUTIL_API void* KzmutilCreateNamedFileMapping(void* file, uint32_t protect, uint32_t size_high, uint32_t size_low,
                                                const char* name);

/**
 * Opens a named piece of shared memory.
 *
 * @param[in] access   0xF001F: everything; 4: reading alone
 * @param[in] inherit  nonzero: on Windows, children that inherit handles inherit this one; no effect on Linux
 * @param[in] name     NUL-terminated, at least one byte, without the namespace
 * @return the mapping, or null: 2 when there is none, 5 when it is refused (see Access)
 */
KZMUTIL_API void* KzmutilOpenNamedFileMapping(uint32_t access, int32_t inherit, const char* name);

/**
 * Gives the folder that the installation lies in: KZM_INSTALL_PATH, an environment variable, or, while that is unset or
 * empty, the parent of the folder that holds this library's own file. It does not end with a separator, except for a
 * root.
 *
 * @param[out] path  receives the path with its NUL
 * @param[in]  size  bytes that `path` can hold
 * @return nonzero on success; 0 when `path` is null (87) or too small (122), which leaves it unchanged
 */
KZMUTIL_API int32_t KzmutilGetInstallPath(char* path, uint32_t size);

#ifdef __cplusplus
}
#endif

#endif
