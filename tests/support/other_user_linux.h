// Other users of the machine, for tests that run as root: numbers that no account has.
#pragma once

#include <sys/types.h>

#include <functional>

namespace test {

/// A user, and the group of that number, that only this process uses: `which` tells several of them apart. Forked
/// children get others, so ask before the fork.
uid_t spare_user(unsigned which = 0);

/// In a child: becomes that user permanently. Only root may; otherwise it ends the process.
void become(uid_t user);

/// Runs a part of a test in a child process of another user.
void in_fork_as(uid_t user, const std::function<void()>& body);

}  // namespace test
