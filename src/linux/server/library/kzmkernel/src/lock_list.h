// The system's list of file locks, /proc/locks, which shows the locks of all users to all users.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

namespace kzmkernel {

/// The process that holds an flock on a file, or 0 if the list does not show it.
pid_t process_that_locked(const struct stat& file) noexcept;

/// Whether any process holds an open file description lock on a byte of a file.
bool is_listed_as_locked(const struct stat& file, off_t place) noexcept;

}  // namespace kzmkernel
