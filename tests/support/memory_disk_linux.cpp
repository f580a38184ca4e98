#include "support/memory_disk_linux.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "support/temporary_folder.h"

namespace test {

void use_private_memory_disk(const std::string& options) {
    const uid_t user = geteuid();
    const gid_t group = getegid();
    ASSERT_EQ(unshare(user == 0 ? CLONE_NEWNS : CLONE_NEWNS | CLONE_NEWUSER), 0) << strerror(errno);
    if (user != 0) {
        write_text("/proc/self/setgroups", "deny");
        write_text("/proc/self/uid_map", "0 " + std::to_string(user) + " 1");
        write_text("/proc/self/gid_map", "0 " + std::to_string(group) + " 1");
    }
    ASSERT_EQ(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0) << strerror(errno);
    ASSERT_EQ(mount("tmpfs", "/dev/shm", "tmpfs", 0, options.c_str()), 0) << strerror(errno);
    ASSERT_EQ(chmod("/dev/shm", 01777), 0);
}

}  // namespace test
