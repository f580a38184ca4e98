#include "support/other_user_linux.h"

#include <grp.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "support/forked_linux.h"

namespace test {

uid_t spare_user(unsigned which) {
    return SHMNM_SPARE_USERS + static_cast<uid_t>(getpid()) % 10'000 * 4 + which;
}

void become(uid_t user) {
    if (setgroups(0, nullptr) == 0 && setresgid(user, user, user) == 0 && setresuid(user, user, user) == 0) return;
    std::perror("cannot become another user: run this as root");
    std::abort();
}

void in_fork_as(uid_t user, const std::function<void()>& body) {
    in_fork([&] {
        become(user);
        body();
    });
}

}  // namespace test
