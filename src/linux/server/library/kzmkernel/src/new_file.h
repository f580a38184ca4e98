// The file of an object in the making: an unnamed file with all of its memory, until it is given its name.
#pragma once

#include <cstdint>

#include "descriptor.h"
#include "folder.h"

namespace kzmkernel {

/// An unnamed file in the folder, which disappears with the process, and with this object unless it is named. Without
/// /proc, which naming needs, it has a name of its own until then.
class NewFile {
  public:
    explicit NewFile(const Gate& gate) noexcept : gate_(gate) {}
    ~NewFile();
    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;

    /// Makes the file and allocates its memory. @return 0 or a Windows error number, as the other two
    uint32_t make(uint64_t size) noexcept;
    /// Prepares a mutex in it.
    uint32_t prepare_mutex() const noexcept;
    /// Gives it a name that is free. The gate must be held.
    uint32_t name(const char* file_name) noexcept;

  private:
    void open() noexcept;

    const Gate& gate_;
    Descriptor file_;
    char own_name_[32]{};
};

}  // namespace kzmkernel
