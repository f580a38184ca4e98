#include "new_file.h"

#include <pthread.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "error.h"
#include "explanation.h"
#include "kzmkernel.h"
#include "mapped_mutex.h"

namespace kzmkernel {
namespace {

constexpr uint64_t allocation_step = 1u << 20;

/// Links to open files: a file is named through them, which needs only the rights of its user.
constexpr const char* descriptors = "/proc/self/fd";

/// Charges all of the memory now. It is allocated in steps, because a signal makes an allocation start again.
int allocate(int file, uint64_t size) {
    struct statvfs disk {};
    if (fstatvfs(file, &disk) != 0) return errno;
    if (disk.f_blocks != 0 && size / disk.f_frsize > disk.f_bavail) return ENOSPC;
    for (uint64_t done = 0; done < size;) {
        const uint64_t step = std::min(allocation_step, size - done);
        const int result = posix_fallocate(file, static_cast<off_t>(done), static_cast<off_t>(step));
        if (result == EINTR) continue;
        if (result != 0) return result;
        done += step;
    }
    return 0;
}

/// The same without SIGXFSZ, which would end the process: the system sends it to a thread that exceeds the limit of
/// file sizes (ulimit -f).
int allocate_without_signal(int file, uint64_t size) {
    sigset_t limit, before, pending;
    sigemptyset(&limit);
    sigaddset(&limit, SIGXFSZ);
    pthread_sigmask(SIG_BLOCK, &limit, &before);
    sigpending(&pending);
    const int error = allocate(file, size);
    // A signal that was pending before belongs to the program.
    if (error == EFBIG && sigismember(&pending, SIGXFSZ) == 0) {
        const timespec no_time{};
        sigtimedwait(&limit, nullptr, &no_time);
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return error;
}

}  // namespace

NewFile::~NewFile() {
    if (own_name_[0] != '\0') unlinkat(gate_.folder(), own_name_, 0);
}

uint32_t NewFile::make(uint64_t size) noexcept {
    open();
    // A folder that was removed takes no more files.
    if (!file_ && errno == ENOENT) return KZMKERNEL_ERROR_FILE_INVALID;
    if (!file_ || fchmod(file_.get(), 0600) != 0) return windows_error(errno);
    const int error = allocate_without_signal(file_.get(), size);
    if (error == 0) return 0;
    return explained(windows_error(error), "cannot allocate %llu bytes: %s%s", static_cast<unsigned long long>(size),
                     std::strerror(error), error == EFBIG ? ": raise the limit of file sizes (ulimit -f)" : "");
}

void NewFile::open() noexcept {
    constexpr int most_tries = 100;
    if (access(descriptors, X_OK) == 0) file_ = open_at(gate_.folder(), ".", O_RDWR | O_TMPFILE, 0600);
    // An object's name never begins with a dot.
    for (int i = 0; i < most_tries && !file_; ++i) {
        std::snprintf(own_name_, sizeof own_name_, ".new.%d.%d", getpid(), i);
        file_ = open_at(gate_.folder(), own_name_, object_flags | O_CREAT | O_EXCL, 0600);
        if (!file_) own_name_[0] = '\0';
        if (!file_ && errno != EEXIST) return;
    }
}

uint32_t NewFile::prepare_mutex() const noexcept {
    MappedMutex* const mapped = map_mutex(file_.get());
    if (!mapped) return windows_error(errno);
    const uint32_t error = mapped->mutex->prepare();
    unmap_mutex(mapped);
    return error;
}

uint32_t NewFile::name(const char* file_name) noexcept {
    const int folder = gate_.folder();
    char unnamed[32];
    std::snprintf(unnamed, sizeof unnamed, "%s/%d", descriptors, file_.get());
    const bool is_named = own_name_[0] != '\0' ? renameat(folder, own_name_, folder, file_name) == 0
                                               : linkat(AT_FDCWD, unnamed, folder, file_name, AT_SYMLINK_FOLLOW) == 0;
    if (!is_named) return windows_error(errno);
    own_name_[0] = '\0';
    return 0;
}

}  // namespace kzmkernel
