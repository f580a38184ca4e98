// A process that plays one part among several of one contestant; bench/run.py starts them and times what happens
// between.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "cluster.h"
#include "platform.h"

namespace bench {

/// What a process is told.
struct Part {
    Place place;
    Cluster cluster;
    std::vector<std::string> arguments;

    uint64_t number(size_t index) const { return std::stoull(arguments.at(index)); }
};

/// Tells the parent.
inline void say(const std::string& line) {
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}
/// Waits for the parent's word; @return false once the parent is gone
inline bool told() {
    int c = 0;
    while ((c = std::getchar()) != EOF) {
        if (c == '\n') return true;
    }
    return false;
}

}  // namespace bench
