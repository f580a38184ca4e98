#include "region.h"

namespace shmnm {
namespace {

constinit Region region;
constinit std::atomic<const Region*> mapped{nullptr};

}  // namespace

const Region* mapped_region() noexcept {
    return mapped.load(std::memory_order_acquire);
}

void publish_region(uint8_t* view, size_t view_size, const Layout& layout) noexcept {
    region = {view, view_size, layout};
    mapped.store(&region, std::memory_order_release);
}

void withdraw_region() noexcept {
    mapped.store(nullptr, std::memory_order_release);
}

}  // namespace shmnm
