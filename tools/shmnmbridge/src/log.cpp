#include "log.h"

#include <cstdio>

#include "console/console.h"
#include "picture/escape.h"

namespace bridge {

void log(const std::string& line) {
    // In one piece, so that lines of several processes do not mix. What etcd or another machine has sent may hold
    // anything.
    console::write(stderr, "shmnmbridge: " + picture::shown_file(line) + "\n");
}

}  // namespace bridge
