// Pages that nobody may touch, before and behind the view that the library has of the region.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

namespace model {

/// To be made while the library's view is the only one of this process.
class ViewGuard {
  public:
    /// Puts the pages there; null when a neighbour is in use by someone else.
    /// @param servers  the maximum in the region's header, by which the view may be recognised
    static std::unique_ptr<ViewGuard> place(int32_t servers);
    /// Takes the place of the view that was refused last and is unmapped by now, for good: the next one comes to lie
    /// elsewhere.
    static void close_gap();
    ~ViewGuard();
    ViewGuard(const ViewGuard&) = delete;
    ViewGuard& operator=(const ViewGuard&) = delete;

  private:
    ViewGuard() = default;

    std::vector<uintptr_t> pages_;
};

}  // namespace model
