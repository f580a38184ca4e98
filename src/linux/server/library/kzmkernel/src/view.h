// The process's views of mappings.
#pragma once

#include <cstddef>
#include <cstdint>

#include "object.h"

namespace kzmkernel {

/// Maps `length` bytes, or all that follows with 0, of a mapping. @return 0 or a Windows error number
uint32_t map_view(Object& mapping, bool writable, uint64_t offset, size_t length, void*& view) noexcept;
/// @return whether that is a view, or was until now
bool unmap_view(const void* view) noexcept;
/// Whether this process has a view of that mapping.
bool is_viewed_here(dev_t device, ino_t inode) noexcept;
/// Bytes of a view, in whole pages; 0: not a view.
size_t view_size(const void* view) noexcept;

}  // namespace kzmkernel
