// What a service sees of the region, look by look, becomes events: one for each change, however long it lasts.
#pragma once

#include <functional>
#include <string>

#include "picture/layout.h"
#include "service/service.h"

namespace service {

class RegionWatch {
  public:
    using Tell = std::function<void(Event, const std::string&)>;

    explicit RegionWatch(Tell tell) : tell_(std::move(tell)) {}

    /// @param[in] why  the region is refused; "": it is not
    void see_region(const std::string& why);
    /// @param[in] problem  why the processes of the cluster cannot use the configuration; "": they can
    void see_configuration(const std::string& problem);
    /// This process has taken the lock over from an owner that ended.
    void see_takeover();

  private:
    void see(std::string& last, const std::string& now, Event worse, Event better, const char* fine);

    Tell tell_;
    std::string refusal_, problem_;
};

/// Why the processes of the cluster cannot use the installed configuration for a region with these counts; "": they
/// can.
std::string configuration_problem(const picture::Counts& of_region);

}  // namespace service
