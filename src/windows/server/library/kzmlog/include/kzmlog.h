/**
 * @file kzmlog.h
 * A trace log that many processes write at once: one line a message, rotated at a given size.
 *
 * Functions return 0 on success and a Windows error number otherwise. Any thread may call any function at any time; a
 * handle that was closed, or never was one, is refused (6), it does no harm.
 */
#ifndef KZMLOG_H
#define KZMLOG_H

#include <stdint.h>

#if defined(_WIN32) && defined(KZMLOG_BUILD)
#define KZMLOG_API __declspec(dllexport)
#elif defined(_WIN32)
#define KZMLOG_API __declspec(dllimport)
#else
#define KZMLOG_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Opens the log of a module: the file log/MODULE.log below the installation path, made if it is missing.
 *
 * @param[in]  module   names the file: letters, digits, '-', '_' and '.', at most 31 bytes
 * @param[out] log      receives the handle; null after a failure
 * @param[in]  level    a message is written when its own level is not above this one
 * @param[in]  size     bytes at which the file is rotated; 0: never. Three older generations are kept (.1 is the
 * youngest)
 * @param[in]  flags    reserved: 0
 * @param[in]  channel  names the lock that rotation takes
 */
KZMLOG_API int32_t kzmlog_open(const char* module, void** log, uint32_t level, uint32_t size, uint32_t flags,
                               const char* channel);

/** Closes the log. Writes that other threads make at that moment are either written whole or dropped. */
KZMLOG_API int32_t kzmlog_close(void* log);

/**
 * Writes one line: time, process and thread id, level, function, file:line, message. Control characters are escaped.
 *
 * A message above the log's level costs a comparison. What cannot be written (a full disk, a folder that does not take
 * files) is lost; the caller never waits for it and never fails by it.
 *
 * @param[in] log       the handle
 * @param[in] level     1 error, 2 warning, 4 information, 16 trace
 * @param[in] flags     reserved: 0
 * @param[in] file      source file, NUL-terminated; null reads as empty, as for the other two texts
 * @param[in] line      line in it
 * @param[in] function  name of the function
 * @param[in] message   the finished message
 * @return 0 written or dropped by its level; 6 not an open log; other numbers: lost
 */
KZMLOG_API int32_t kzmlog_write(void* log, uint32_t level, uint32_t flags, const char* file, int32_t line,
                                const char* function, const char* message);

#ifdef __cplusplus
}
#endif

#endif
