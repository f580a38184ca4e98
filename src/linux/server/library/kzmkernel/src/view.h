// The views of mappings in this process.
#pragma once

#include <cstddef>
#include <cstdint>

#include "descriptor.h"

namespace kzmkernel {

/// Mappings and views are whole pages.
inline constexpr uint64_t page = 4096;

/// Maps `length` bytes of a mapping's file from `offset` on; 0: to the end. @return 0 or a Windows error number
uint32_t map_view(KeptDescriptor& file, uint64_t file_size, bool writable, uint64_t offset, size_t length,
                  void*& view) noexcept;
/// @return whether `view` was a view
bool unmap_view(const void* view) noexcept;
/// Whether this process has a view of the mapping with this file. The caller holds the process's lock.
bool is_viewed_here(dev_t device, ino_t inode) noexcept;
/// The size of a view in bytes, in whole pages; 0 if it is not a view.
size_t view_size(const void* view) noexcept;

}  // namespace kzmkernel
