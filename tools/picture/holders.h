// Which processes hold the live region, each by an open descriptor or mapped memory.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "picture/live.h"

namespace picture {

struct Holder {
    uint32_t process = 0, user = 0;
    std::string user_name;  ///< the number, where the user has no name
    std::string command;    ///< not escaped
    std::string state;      ///< "running", "stopped", "ended but not waited for"
};

struct Holders {
    std::vector<Holder> processes;  ///< by their numbers; without this process
    uint64_t unreadable = 0;        ///< processes that this user may not look at
};

/// @throws Error  there is no region, or the system does not tell
Holders holders(const Access& access);

namespace platform {

/// The processes, other than this one, that hold the shared memory of a view. Nothing where the system does not tell.
std::optional<Holders> holders(const void* view);

}  // namespace platform
}  // namespace picture
