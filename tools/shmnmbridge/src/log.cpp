#include "log.h"

#include <cstdio>

namespace bridge {

void log(const std::string& line) {
    // In one piece, so that lines of several processes do not mix.
    std::fputs(("shmnmbridge: " + line + "\n").c_str(), stderr);
    std::fflush(stderr);
}

}  // namespace bridge
