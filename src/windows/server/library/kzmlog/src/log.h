// One open log: its file and the rotation of the file.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>

#include "system.h"

namespace kzmlog {

class Log {
  public:
    /// @param size  bytes at which the file is rotated; 0: never
    Log(const std::string& folder, const std::string& module, const std::string& channel, uint32_t size);

    /// Creates the file and its folder if they are missing.
    Error prepare() const noexcept;
    /// Appends a line that begins and ends with a newline. Any number of threads and processes may do so at once.
    Error append(std::string_view line) const noexcept;

  private:
    bool fits(const File& file, size_t bytes) const;
    bool current_has_room(size_t bytes) const;
    void rotate(size_t bytes) const noexcept;

    std::string folder_;
    std::array<std::string, 4> generations_;  ///< paths of the current file and of the older files, youngest first
    std::string lock_;
    uint64_t size_;
    mutable std::atomic<bool> waited_in_vain_{false};  ///< a wait for the lock failed, and no later attempt succeeded
};

}  // namespace kzmlog
