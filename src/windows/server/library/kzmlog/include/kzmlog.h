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
 * Opens the log of a module: the file log/MODULE.log below the installation path. Folder and file are made if they are
 * missing. A process may hold 64 logs open.
 *
 * Nothing is ever written to a file that has a second name or is no regular file. On Linux nor is it to a symbolic link
 * or another user's file; the log admits its user and readers of its group (0640), the lock its user alone (0600), and
 * files that admit more are narrowed when they are opened.
 *
 * @param[in]  module   names the file: letters, digits, '-', '_' and '.' (not as the first one), at most 31 bytes
 * @param[out] log      receives the handle; null after a failure
 * @param[in]  level    a message is written when its own level is not above this one
 * @param[in]  size     bytes at which the file is rotated; 0: never. A line that would exceed it begins a new file;
 * three older generations are kept (MODULE.log.1 is the youngest)
 * @param[in]  flags    reserved: 0
 * @param[in]  channel  names the lock that rotation takes, the file log/CHANNEL.lock: as `module`, at most 63 bytes
 * @return 0; 87 a bad argument; 3 no such folder, and it cannot be made; 5 no access, or a file of that name that is
 * not written to; 4 too many logs or files open; 8 no memory
 */
KZMLOG_API int32_t kzmlog_open(const char* module, void** log, uint32_t level, uint32_t size, uint32_t flags,
                               const char* channel);

/**
 * Closes the log. Writes that other threads make at that moment are either written whole or dropped; none is waited
 * for.
 */
KZMLOG_API int32_t kzmlog_close(void* log);

/**
 * Writes one line: time, process and thread id, level, function, file:line, message.
 *
 *     2026-01-31T07:05:09.042+09:00 1234 1235 ERROR _addnode src/name:77 invalid param
 *
 * Control characters, separators of lines, backslashes and bytes that are no UTF-8 are escaped (\n, \r, \t, \\, \xHH),
 * in function and file spaces too, so that no text can forge a line or a field and every text can be read back.
 *
 * A message above the log's level costs a comparison. What cannot be written (a full disk, a folder that does not take
 * files) is lost; the caller never fails by it, its errno or last error stays as it was. While another process rotates
 * the file a writer waits for it, but for less than 5 ms, and after a wait in vain not again until the lock was free:
 * it writes to the old file, and the rotation is left to a later line.
 *
 * @param[in] log       the handle
 * @param[in] level     1 error, 2 warning, 4 information, 16 trace
 * @param[in] flags     reserved: 0
 * @param[in] file      source file, NUL-terminated; null reads as empty, as for the other two texts
 * @param[in] line      line in it
 * @param[in] function  name of the function
 * @param[in] message   the finished message
 * @return 0 written or dropped by its level; 6 not an open log; other numbers: lost (112 the disk is full)
 */
KZMLOG_API int32_t kzmlog_write(void* log, uint32_t level, uint32_t flags, const char* file, int32_t line,
                                const char* function, const char* message);

#ifdef __cplusplus
}
#endif

#endif
