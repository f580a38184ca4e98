// The description of a resource: up to 256 bytes, free for callers to use.
#pragma once

#include <algorithm>

#include "region.h"

namespace shmnm {

/// Both take a size above 0. The rest of the field stays as it was.
inline void put_description(shmnm_resource& resource, const void* data, int32_t size) noexcept {
    put_bytes(resource.descript, data, std::min(static_cast<size_t>(size), sizeof resource.descript));
}
inline void get_description(void* data, const shmnm_resource& resource, int32_t size) noexcept {
    std::memcpy(data, resource.descript, std::min(static_cast<size_t>(size), sizeof resource.descript));
}

}  // namespace shmnm
