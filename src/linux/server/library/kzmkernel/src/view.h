// The views of mappings in this process.
#pragma once

#include <cstddef>
#include <cstdint>

#include "object.h"

namespace kzmkernel {

/// Maps `length` bytes of a mapping from `offset` on; 0: to the end. @return 0 or a Windows error number
uint32_t map_view(Object& mapping, bool writable, uint64_t offset, size_t length, void*& view) noexcept;
/// @return whether `view` was a view
bool unmap_view(const void* view) noexcept;
/// Whether this process has a view of the mapping with this file.
bool is_viewed_here(dev_t device, ino_t inode) noexcept;
/// The bytes of a view, in whole pages; 0: not a view.
size_t view_size(const void* view) noexcept;

}  // namespace kzmkernel
