// Where the folder of kernel objects lies: kzmkernel.UID on the memory disk, or the folder that KZMKERNEL_FOLDER names.
#pragma once

#include <climits>
#include <cstddef>
#include <cstdint>

#include "descriptor.h"

namespace kzmkernel {

/// The memory disk's root, and the start of the names of all users' folders in it.
inline constexpr char memory_disk[] = "/dev/shm", folder_prefix[] = "kzmkernel.";

/// The parent of the effective user's folder, open, and the names in it.
class Place {
  public:
    /// @return 0 or a Windows error number: 5 if other users could rename or remove the folder
    uint32_t open() noexcept;

    int parent() const { return parent_.get(); }
    const char* folder() const { return folder_path_ + name_at_; }
    /// The sibling: the file beside the folder that guards the folder.
    const char* sibling() const { return sibling_path_ + name_at_; }
    const char* folder_path() const { return folder_path_; }
    const char* sibling_path() const { return sibling_path_; }

  private:
    uint32_t name() noexcept;

    Descriptor parent_;
    size_t name_at_ = 0;  ///< where the last part of either path begins
    char folder_path_[PATH_MAX]{}, sibling_path_[PATH_MAX]{};
};

}  // namespace kzmkernel
