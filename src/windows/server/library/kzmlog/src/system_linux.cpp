#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>

#include "system.h"

namespace kzmlog {
namespace {

/// The permissions of the log and of the lock for its rotation. Any user who can open the lock's file can hold the
/// lock.
constexpr mode_t log_mode = 0640, lock_mode = 0600;

Error error_of(int number) {
    switch (number) {
        case ENOENT:
        case ENOTDIR:
        // branch: an installation path leaves no room for the log's name
        case ENAMETOOLONG:
            return path_not_found;
        case EMFILE:
        case ENFILE:
            return too_many_open;
        case ENOMEM:
            return out_of_memory;
        // branch: a disk has no inode left for a new file
        case ENOSPC:
        case EDQUOT:
        case EFBIG:
            return disk_full;
        case EACCES:
        // branch: a file is immutable (chattr +i)
        case EPERM:
        case EROFS:
        case ELOOP:
        case EISDIR:
        case ENXIO:
            return access_denied;
        default:
            return write_fault;
    }
}

bool is_own_file(const struct stat& status) {
    return S_ISREG(status.st_mode) && status.st_uid == geteuid() && status.st_nlink == 1;
}

/// Opens a regular file of this user that has one name, or creates it. Follows no link. Removes permissions beyond
/// `mode` from an existing file.
/// @return its descriptor, or -1 and errno
int open_own(const char* path, int flags, mode_t mode, struct stat& status) {
    flags |= O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
    bool removed = true;
    // A rotation may remove the file between open() and fstat(); the loop then tries its successor.
    // branch by chance: the file is removed in each of the rounds
    for (int round = 0; removed && round < 4; ++round) {
        // O_CREAT comes in a second step, because it locks the folder.
        int descriptor = open(path, flags);
        if (descriptor < 0 && errno == ENOENT) descriptor = open(path, flags | O_CREAT, mode);
        if (descriptor < 0) return -1;
        const bool known = fstat(descriptor, &status) == 0;
        if (known && is_own_file(status)) {
            if ((status.st_mode & ALLPERMS & ~mode) != 0) fchmod(descriptor, status.st_mode & mode);
            return descriptor;
        }
        close(descriptor);
        removed = known && status.st_nlink == 0;
    }
    errno = EACCES;
    return -1;
}

uint64_t size_of(int descriptor) {
    struct stat status {};
    // branch: an open file can be looked at
    return fstat(descriptor, &status) == 0 ? static_cast<uint64_t>(status.st_size) : 0;
}

/// Whether the file ends within a line that no process will complete. A line that another process is just writing also
/// becomes visible in parts, page by page. But the kernel makes only one write or allocation per file at a time. So
/// after an allocation (which changes nothing here) such a line is complete and the file has grown.
bool ends_within_a_line(int descriptor, uint64_t size) {
    for (int round = 0; round < 4; ++round) {
        char last = '\n';
        // branch by chance: another process cuts the file in this moment
        if (size == 0 || pread(descriptor, &last, 1, static_cast<off_t>(size - 1)) != 1 || last == '\n') return false;
        static_cast<void>(fallocate(descriptor, FALLOC_FL_KEEP_SIZE, 0, 1));
        const uint64_t size_then = size_of(descriptor);
        if (size_then == size) return true;
        size = size_then;
    }
    return false;
}

/// Blocks the signal that a write beyond the process's file size limit raises. Does nothing if there is no such limit,
/// which is the usual case.
class NoSizeSignal {
  public:
    NoSizeSignal() {
        struct rlimit limit {};
        // branch: the system tells every process its limits
        if (getrlimit(RLIMIT_FSIZE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) return;
        sigset_t pending;
        sigemptyset(&pending);
        sigpending(&pending);
        if (sigismember(&pending, SIGXFSZ) == 1) return;  // already pending: the program blocks it itself
        blocked_ = pthread_sigmask(SIG_BLOCK, &signal(), &old_mask_) == 0;
    }
    ~NoSizeSignal() {
        if (!blocked_) return;
        const timespec at_once{};
        // branch: a handler of another signal runs in this moment
        while (sigtimedwait(&signal(), nullptr, &at_once) < 0 && errno == EINTR) {
        }
        pthread_sigmask(SIG_SETMASK, &old_mask_, nullptr);
    }
    NoSizeSignal(const NoSizeSignal&) = delete;
    NoSizeSignal& operator=(const NoSizeSignal&) = delete;

  private:
    const sigset_t& signal() {
        sigemptyset(&signal_);
        sigaddset(&signal_, SIGXFSZ);
        return signal_;
    }

    bool blocked_ = false;
    sigset_t signal_, old_mask_;
};

}  // namespace

File::File(const char* path) noexcept {
    struct stat status {};
    handle_ = open_own(path, O_RDWR | O_APPEND, log_mode, status);
    if (handle_ < 0) {
        error_ = error_of(errno);
    } else {
        size_ = static_cast<uint64_t>(status.st_size);
    }
}

File::~File() {
    if (handle_ >= 0) close(static_cast<int>(handle_));
}

Error File::append(std::string_view line) const noexcept {
    const auto descriptor = static_cast<int>(handle_);
    if (!ends_within_a_line(descriptor, size_)) line.remove_prefix(1);
    ssize_t written;
    int error;
    {
        const NoSizeSignal no_signal;
        do {
            written = write(descriptor, line.data(), line.size());
            error = errno;
            // branch: a signal interrupts a write to a regular file only on network file systems
        } while (written < 0 && error == EINTR);
    }
    if (written < 0) return error_of(error);
    // A partial write means that no space is left. The writer of the next line ends the fragment with a newline.
    return static_cast<size_t>(written) == line.size() ? ok : disk_full;
}

FileLock::FileLock(const char* path) noexcept {
    struct stat status {};
    handle_ = open_own(path, O_RDWR, lock_mode, status);
}

Attempt FileLock::take() noexcept {
    held_ = handle_ >= 0 && flock(static_cast<int>(handle_), LOCK_EX | LOCK_NB) == 0;
    if (held_) return Attempt::succeeded;
    return handle_ >= 0 && (errno == EWOULDBLOCK || errno == EINTR) ? Attempt::busy : Attempt::failed;
}

FileLock::~FileLock() {
    // A child that is forked at this moment has a copy of the descriptor. The copy must not keep the lock.
    if (held_) flock(static_cast<int>(handle_), LOCK_UN);
    if (handle_ >= 0) close(static_cast<int>(handle_));
    if (replaced_ >= 0) close(static_cast<int>(replaced_));
}

// While the replaced file is open here, removing its name does not free its disk space. And because rename() then
// replaces no file, the file system does not first write the renamed file to the disk, which would take milliseconds.
bool FileLock::rename_over(const char* from, const char* to) noexcept {
    const int replaced = open(to, O_PATH | O_NOFOLLOW | O_CLOEXEC);
    if (replaced >= 0) {
        // branch: another program puts a file under the name that the rotation has just freed
        if (replaced_ >= 0) close(static_cast<int>(replaced_));
        replaced_ = replaced;
        unlink(to);
    }
    return rename(from, to) == 0;
}

UndisturbedThread::UndisturbedThread() noexcept : last_error_(errno) {
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancel_state_);
}

UndisturbedThread::~UndisturbedThread() {
    pthread_setcancelstate(cancel_state_, nullptr);
    errno = last_error_;
}

bool exists(const char* path) noexcept {
    struct stat status {};
    return lstat(path, &status) == 0;
}

void make_folder(const char* path) noexcept {
    mkdir(path, 0755);
}

std::string absolute(const std::string& path) {
    // branch: an installation path is never empty
    if (!path.empty() && path[0] == '/') return path;
    const std::unique_ptr<char, decltype(&std::free)> current(getcwd(nullptr, 0), &std::free);
    // branch: the working folder was removed
    return current ? std::string(current.get()) + '/' + path : path;
}

uint32_t process_id() noexcept {
    return static_cast<uint32_t>(getpid());
}
uint32_t thread_id() noexcept {
    return static_cast<uint32_t>(gettid());
}

int32_t utc_offset_minutes(int64_t seconds) noexcept {
    const time_t time = seconds;
    struct tm local {};
    // branch: fails only for years beyond 2^31
    return localtime_r(&time, &local) ? static_cast<int32_t>(local.tm_gmtoff / 60) : 0;
}

void pause(std::chrono::microseconds limit) noexcept {
    constexpr std::chrono::microseconds usual(100);
    const timespec time{0, static_cast<long>(std::min(usual, limit).count()) * 1000};
    nanosleep(&time, nullptr);
}

}  // namespace kzmlog
