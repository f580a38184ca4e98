// Other users of the machine, for tests that run as root: numbers that no account has.
#pragma once

#include <grp.h>
#include <unistd.h>

#include <cstdlib>

namespace test {

/// A user, and the group of that number, that only this process uses: `which` tells several of them apart.
inline uid_t spare_user(unsigned which = 0) {
    return 20'000 + static_cast<uid_t>(getpid()) % 10'000 * 4 + which;
}

/// In a child: becomes that user for good. Ends the process when it may not, which only root may.
inline void become(uid_t user) {
    if (setgroups(0, nullptr) != 0 || setresgid(user, user, user) != 0 || setresuid(user, user, user) != 0) {
        std::abort();
    }
}

}  // namespace test
