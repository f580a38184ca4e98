// The region kept alive by a handle alone. Nothing is written to it, so holding it cannot harm it.
#pragma once

#include <cstdint>
#include <optional>
#include <utility>

#include "picture/layout.h"

namespace picture {

class HeldRegion {
  public:
    /// Makes the region, filled with zeros, or opens the live one, in one step: it cannot end in between.
    /// @throws Error  it cannot be made, or it is refused
    static HeldRegion make_or_open(const Counts& counts);
    /// Opens the live region. @return nothing: there is none
    /// @throws Error  it is refused
    static std::optional<HeldRegion> open();

    HeldRegion(HeldRegion&& other) noexcept
        : mapping_(std::exchange(other.mapping_, nullptr)), is_new_(other.is_new_) {}
    HeldRegion& operator=(HeldRegion&&) = delete;
    ~HeldRegion();

    bool is_new() const { return is_new_; }

    /// What the region itself tells of its layout.
    struct Size {
        Counts counts;       ///< from the header; all 0 until its creator has written them
        uint64_t bytes = 0;  ///< in whole pages
        bool fits(const Counts& wanted) const;
    };
    /// Reads it through a read-only view, without the lock. @throws Error  the region cannot be mapped
    Size size() const;

  private:
    HeldRegion(void* mapping, bool is_new) : mapping_(mapping), is_new_(is_new) {}

    void* mapping_;
    bool is_new_;
};

}  // namespace picture
