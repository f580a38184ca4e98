#include "picture/held_region.h"

#include <fmt/format.h>

#include <atomic>

#include "kzmutil.h"
#include "picture/error.h"
#include "picture/live.h"
#include "picture/platform.h"
#include "shmnm.h"

namespace picture {
namespace {

Error cannot(const char* what) {
    return {kind_of_last_failure(),
            fmt::format("cannot {} the region {} {}", what, full_name(mapping_name), last_failure())};
}

Error cannot_create() {
    constexpr uint32_t error_access_denied = 5;
    Error usual = cannot("create");
    if (platform::last_error() != error_access_denied) return usual;
    const std::string why = platform::why_not_created(platform::object_prefix() + mapping_name);
    if (why.empty()) return usual;  // branch: only Windows knows more
    return {ErrorKind::failed, fmt::format("cannot create the region {} (error {}): {}", full_name(mapping_name),
                                           error_access_denied, why)};
}

}  // namespace

HeldRegion HeldRegion::make_or_open(const Counts& counts) {
    constexpr uint32_t page_read_write = 4, error_already_exists = 183;
    void* const no_file = reinterpret_cast<void*>(~uintptr_t{0});
    const uint64_t size = Layout(counts).size;
    void* const mapping = KzmutilCreateNamedFileMapping(no_file, page_read_write, static_cast<uint32_t>(size >> 32),
                                                        static_cast<uint32_t>(size), mapping_name);
    if (!mapping) throw cannot_create();
    return {mapping, platform::last_error() != error_already_exists};
}

std::optional<HeldRegion> HeldRegion::open() {
    constexpr uint32_t to_read = 4, error_none_of_that_name = 2;
    void* const mapping = KzmutilOpenNamedFileMapping(to_read, 0, mapping_name);
    if (mapping) return HeldRegion(mapping, false);
    if (platform::last_error() == error_none_of_that_name) return std::nullopt;
    throw cannot("open");
}

HeldRegion::~HeldRegion() {
    if (mapping_) platform::close(mapping_);
}

HeldRegion::Size HeldRegion::size() const {
    const void* const view = platform::map_for_reading(mapping_);
    if (!view) throw cannot("map");
    auto& header = *static_cast<shmnm_header*>(const_cast<void*>(view));
    const auto load = [](int32_t& word) { return std::atomic_ref<int32_t>(word).load(std::memory_order_relaxed); };
    const Size size{.counts = {.servers = load(header.max_servers),
                               .hb = load(header.max_hb),
                               .np = load(header.max_np),
                               .fst = load(header.fst_count)},
                    .bytes = platform::view_size(view)};
    platform::unmap(view);
    return size;
}

bool HeldRegion::Size::fits(const Counts& wanted) const {
    return bytes == in_pages(Layout(wanted).size);
}

}  // namespace picture
