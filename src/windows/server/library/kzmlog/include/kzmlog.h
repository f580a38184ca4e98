/**
 * @file kzmlog.h
 * A trace log that many processes write at once: one line per message, rotated at a given size.
 *
 * Functions return 0 on success and a Windows error number otherwise. Any thread may call any function at any time. A
 * closed or invented handle is refused (6) and does no harm.
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
 * Opens the log of a module: the file log/MODULE.log below the installation path. Creates the folder and the file if
 * they are missing. A process may hold 64 logs open.
 *
 * The log is never written to a file that has a second name or is not a regular file. On Linux it is not written to a
 * symbolic link or to another user's file either. On Linux only its user can write the log and only its group can read
 * it (0640), and only its user can open the lock (0600); a file with more permissions loses them when it is opened.
 *
 * @param[in]  module   the file's name: letters, digits, '-', '_' and '.' (not at the start), at most 31 bytes
 * @param[out] log      receives the handle; null after a failure
 * @param[in]  level    a message is written if its level is not above this level
 * @param[in]  size     bytes at which the file is rotated; 0: never. A line that would exceed the size begins a new
 *                      file. Three older generations are kept; MODULE.log.1 is the youngest
 * @param[in]  flags    reserved: 0
 * @param[in]  channel  the name of the lock that rotation takes, the file log/CHANNEL.lock: like `module`, but at most
 *                      63 bytes
 * @return 0 on success; 87 a bad argument; 3 the folder is missing and cannot be created; 5 no access, or the file is
 *         refused as said above; 4 too many logs or files are open; 8 no memory
 */
KZMLOG_API int32_t kzmlog_open(const char* module, void** log, uint32_t level, uint32_t size, uint32_t flags,
                               const char* channel);

/**
 * Closes the log. A message that another thread writes at that moment is either written whole or dropped. The call does
 * not wait for other threads.
 */
KZMLOG_API int32_t kzmlog_close(void* log);

/**
 * Writes one line: time, process and thread id, level, function, file:line, message.
 *
 *     2026-01-31T07:05:09.042+09:00 1234 1235 ERROR _addnode src/name:77 invalid param
 *
 * Control characters, line separators, backslashes and bytes that are not UTF-8 are escaped (\n, \r, \t, \\, \xHH). In
 * the names of the function and the file spaces are escaped too. So no text can forge a line or a field, and every text
 * can be read back.
 *
 * A message above the log's level costs a comparison. A message that cannot be written (a full disk, a read-only
 folder)
 * is lost; the caller's errno or last error stays as it was. While another process rotates the file, the call waits for
 * less than 5 ms. If the wait fails, the line goes to the old file and a later line rotates it; later lines do not wait
 * again until the lock has been free.
 *
 * @param[in] log       the handle
 * @param[in] level     1 error, 2 warning, 4 information, 16 trace
 * @param[in] flags     reserved: 0
 * @param[in] file      source file, NUL-terminated; null counts as empty, here and in the other two texts
 * @param[in] line      line in the source file
 * @param[in] function  name of the function
 * @param[in] message   the finished message
 * @return 0 the message was written, or dropped because of its level; 6 the log is not open; any other number: the
 *         message was lost (112: the disk is full)

 */
KZMLOG_API int32_t kzmlog_write(void* log, uint32_t level, uint32_t flags, const char* file, int32_t line,
                                const char* function, const char* message);

#ifdef __cplusplus
}
#endif

#endif
