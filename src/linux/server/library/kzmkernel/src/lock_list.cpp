#include "lock_list.h"

#include <sys/sysmacros.h>

#include <cstdio>
#include <cstring>
#include <memory>

namespace kzmkernel {
namespace {

/// One line of the list. Lines of waiting processes have another form and are skipped.
struct ListedLock {
    char type[16];
    int process;
    unsigned major, minor;
    unsigned long inode;
    unsigned long long first;
};

bool is_lock_of(const ListedLock& lock, const struct stat& file) {
    // branch by chance: other programs lock files on disks of other kinds
    return lock.major == major(file.st_dev) && lock.minor == minor(file.st_dev) && lock.inode == file.st_ino;
}

/// The first lock of the list that `matches`; false if there is none.
template <typename Matches>
bool find_lock(ListedLock& lock, Matches matches) {
    const std::unique_ptr<FILE, int (*)(FILE*)> list(std::fopen("/proc/locks", "re"), std::fclose);
    // The system shows the list in pieces and counts its lines between them. While other processes take and release
    // locks it misses a lock in up to one of three readings, so the list is read many times.
    for (int reading = 0; list && reading < 20; ++reading) {
        std::rewind(list.get());
        char line[256];
        while (std::fgets(line, sizeof line, list.get())) {
            const int fields = std::sscanf(line, "%*d: %15s %*s %*s %d %x:%x:%lu %llu", lock.type, &lock.process,
                                           &lock.major, &lock.minor, &lock.inode, &lock.first);
            if (fields == 6 && matches(lock)) return true;
        }
    }
    return false;
}

}  // namespace

pid_t process_that_locked(const struct stat& file) noexcept {
    ListedLock lock{};
    const bool found = find_lock(
        lock, [&](const ListedLock& one) { return std::strcmp(one.type, "FLOCK") == 0 && is_lock_of(one, file); });
    return found && lock.process > 0 ? lock.process : 0;
}

bool is_listed_as_locked(const struct stat& file, off_t place) noexcept {
    ListedLock lock{};
    return find_lock(lock, [&](const ListedLock& one) {
        return std::strcmp(one.type, "OFDLCK") == 0 && is_lock_of(one, file) &&
               one.first == static_cast<unsigned long long>(place);
    });
}

}  // namespace kzmkernel
