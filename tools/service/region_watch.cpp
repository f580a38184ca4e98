#include "service/region_watch.h"

#include <fmt/format.h>

#include "picture/cluster_file.h"
#include "picture/error.h"
#include "picture/escape.h"
#include "picture/live.h"

namespace service {

void RegionWatch::see(std::string& last, const std::string& now, Event worse, Event better, const char* fine) {
    if (now == last) return;
    last = now;
    if (now.empty()) {
        tell_(better, fine);
    } else {
        tell_(worse, now);
    }
}

void RegionWatch::see_region(const std::string& why) {
    see(refusal_, why, Event::region_refused, Event::region_accepted, "It can be read now, or it has ended.");
}

void RegionWatch::see_configuration(const std::string& problem) {
    see(problem_, problem, Event::configuration_lost, Event::configuration_found, "Processes can attach again.");
}

void RegionWatch::see_takeover() {
    tell_(Event::lock_taken_over,
          R"(A change may be half done: check the picture with "shmnmctl verify" and "shmnmctl status".)");
}

std::string configuration_problem(const picture::Counts& of_region) {
    const std::string file = picture::installed_cluster_file();
    const auto now = picture::configured_counts();
    if (now && *now == of_region) return "";
    if (now) {
        return fmt::format(
            "{} has {}, but the live region has {}. Put the region's counts into it: a process that "
            "attaches writes its own into the region.",
            picture::shown_file(file), to_text(*now), to_text(of_region));
    }
    try {
        static_cast<void>(picture::read_cluster_file(file));
    } catch (const picture::Error& error) {
        return fmt::format("{}. Put it back: no process can attach without it.", error.what());
    }
    return fmt::format("{} cannot be read. Put it back: no process can attach without it.", picture::shown_file(file));
}

}  // namespace service
