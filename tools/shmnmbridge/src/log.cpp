#include "log.h"

#include <cstdio>

#include "picture/escape.h"

namespace bridge {

void log(const std::string& line) {
    // In one piece, so that lines of several processes do not mix. What etcd or another machine has sent may hold
    // anything.
    std::fputs(("shmnmbridge: " + picture::as_typed(line) + "\n").c_str(), stderr);
    std::fflush(stderr);
}

}  // namespace bridge
