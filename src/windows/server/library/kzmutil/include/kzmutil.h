/**
 * @file kzmutil.h
 * Named kernel objects in this installation's namespace, and the installation path.
 *
 * What holds for every function:
 *  - Failure  returns null (or 0) and leaves the reason as a Windows error number in the thread's last error.
 *  - Success  of a create sets the last error to 0 (the object is new) or 183 (it existed). Success of any other
 *             function leaves the last error as it was.
 *  - Names    get the value of the variable KZMUTIL_NAMESPACE, if it is set, as a prefix.
 *  - Settings are variables of the environment. On Windows a variable that is unset there is read from etc\environment
 *             below the installation path; if that file cannot be read, every call with a name fails.
 *  - Handles  are waited on, mapped and closed through the kernel: kernel32 on Windows, kzmkernel on Linux. Children
 *             do not inherit the handles that a create returns.
 *  - Access   a new object admits only the user who created it and, on Windows, administrators and the system; new
 *             memory also admits the group of the variable KZMUTIL_READERS, which can only map it for reading. An
 *             existing object is refused (5) if it belongs to anyone else or, on Windows, if anyone else may change it.
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
 * Creates the named mutex, or opens it if it exists. The caller does not own it afterwards.
 *
 * @param[in] flags  reserved: 0
 * @param[in] name   NUL-terminated, at least one byte, without the namespace
 * @return the mutex, or null: 87 for a bad argument, 5 if it is refused (see Access), otherwise the kernel's number
 */
KZMUTIL_API void* KzmutilCreateNamedMutex(uint32_t flags, const char* name);

/**
 * Creates named shared memory, filled with zeros, or opens it if it exists, whatever its size.
 *
 * @param[in] file       all ones: the memory belongs to no file; no other value is supported
 * @param[in] protect    4: for reading and writing
 * @param[in] size_high  upper 32 bits of the size in bytes
 * @param[in] size_low   lower 32 bits of the size
 * @param[in] name       NUL-terminated, at least one byte, without the namespace
 * @return the mapping, or null: 5 if it is refused (see Access), on Windows 1332 if there is no group KZMUTIL_READERS
 */
KZMUTIL_API void* KzmutilCreateNamedFileMapping(void* file, uint32_t protect, uint32_t size_high, uint32_t size_low,
                                                const char* name);

/**
 * Opens named shared memory.
 *
 * @param[in] access   0xF001F: all access; 4: only reading
 * @param[in] inherit  nonzero: on Windows, children that inherit handles inherit this handle; no effect on Linux
 * @param[in] name     NUL-terminated, at least one byte, without the namespace
 * @return the mapping, or null: 2 if there is none, 5 if it is refused (see Access)
 */
KZMUTIL_API void* KzmutilOpenNamedFileMapping(uint32_t access, int32_t inherit, const char* name);

/**
 * Gets the installation path: the value of the environment variable KZM_INSTALL_PATH or, if that is unset or empty, the
 * parent of the folder that holds this library's own file. The path does not end with a separator, unless it is a root.
 * On Windows it is UTF-8.
 *
 * @param[out] path  receives the path with its NUL
 * @param[in]  size  bytes that `path` can hold
 * @return nonzero on success; 0 if `path` is null (87) or too small (122), which leaves it unchanged

 */
KZMUTIL_API int32_t KzmutilGetInstallPath(char* path, uint32_t size);

#ifdef __cplusplus
}
#endif

#endif
