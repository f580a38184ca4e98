// A process that plays one part in a row with several processes of one contestant. bench/run.py starts these processes.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "cluster.h"
#include "platform.h"

namespace bench {

/// The arguments of such a process.
struct Part {
    Place place;
    Cluster cluster;
    std::vector<std::string> arguments;

    uint64_t number(size_t index) const { return std::stoull(arguments.at(index)); }
};

/// Reports a line to the parent.
inline void say(const std::string& line) {
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}
/// Waits for the parent's word. @return false if the parent has ended
inline bool told() {
    int c = 0;
    while ((c = std::getchar()) != EOF) {
        if (c == '\n') return true;
    }
    return false;
}

}  // namespace bench
