// How long joining and leaving take: the first time in a process, and again.
#pragma once

#include <optional>

#include "role.h"

namespace bench {

/// ARGUMENT: how often to attach. Reports the nanoseconds of each attach and each detach in turn.
template <typename Contestant>
void attach_and_detach(const Part& part) {
    std::string figures;
    for (uint64_t i = 0; i < part.number(0); ++i) {
        std::optional<Contestant> contestant;
        const uint64_t before = now_ns();
        contestant.emplace(part.place);
        const uint64_t attached = now_ns();
        // The creator's words must be visible.
        if (contestant->pair(Asked(part.cluster)) != 2) throw std::runtime_error("attached to something else");
        const uint64_t leaves = now_ns();
        contestant.reset();
        const uint64_t left = now_ns();
        figures += std::to_string(attached - before) + " " + std::to_string(left - leaves) + " ";
    }
    say(figures);
}

}  // namespace bench
