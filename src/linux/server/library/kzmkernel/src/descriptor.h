// File descriptors that close themselves.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <utility>

namespace kzmkernel {

class Descriptor {
  public:
    constexpr Descriptor() = default;
    explicit Descriptor(int value) : value_(value) {}
    Descriptor(Descriptor&& other) noexcept : value_(std::exchange(other.value_, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        Descriptor taken(std::move(other));
        std::swap(value_, taken.value_);
        return *this;
    }
    ~Descriptor() { reset(); }

    explicit operator bool() const { return value_ >= 0; }
    int get() const { return value_; }
    int release() { return std::exchange(value_, -1); }
    void reset() {
        if (value_ >= 0) close(release());
    }

  private:
    int value_ = -1;
};

/// Opens a file; on failure the descriptor is empty and errno says why. exec closes it. It never has the number of a
/// standard stream, even if the program closed these, so that the program's output never lands in an object.
inline Descriptor open_at(int folder, const char* name, int flags, mode_t mode = 0) {
    Descriptor opened(openat(folder, name, flags | O_CLOEXEC, mode));
    if (opened && opened.get() <= STDERR_FILENO) {
        opened = Descriptor(fcntl(opened.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    }
    return opened;
}

/// A descriptor that is kept for long. A program that closes all of its descriptors, as daemons do, closes this
/// descriptor too, and another file may soon get its number. So it is used and closed only while it still leads to the
/// same file.
class KeptDescriptor {
  public:
    KeptDescriptor() = default;
    KeptDescriptor& operator=(Descriptor fresh) noexcept {
        reset();
        struct stat found {};
        if (fstat(fresh.get(), &found) != 0) return *this;
        kept_ = std::move(fresh);
        device_ = found.st_dev;
        inode_ = found.st_ino;
        return *this;
    }
    ~KeptDescriptor() { reset(); }
    KeptDescriptor(const KeptDescriptor&) = delete;
    KeptDescriptor& operator=(const KeptDescriptor&) = delete;

    int get() const { return kept_.get(); }
    dev_t device() const { return device_; }
    ino_t inode() const { return inode_; }
    /// Whether it still leads to the same file. If not, forgets its number, because another file may get the number.
    bool is_there() noexcept {
        struct stat found {};
        if (kept_ && (fstat(kept_.get(), &found) != 0 || found.st_dev != device_ || found.st_ino != inode_)) {
            kept_.release();
        }
        return static_cast<bool>(kept_);
    }
    // branch: the folder's guard lies beside it on the same disk
    bool is(const struct stat& file) noexcept { return is_there() && device_ == file.st_dev && inode_ == file.st_ino; }
    void reset() noexcept {
        if (is_there()) kept_.reset();
    }
    /// Call it with each number that the system has just given to a new file: if it is the kept number, the kept
    /// descriptor was closed.
    void forget(int number) noexcept {
        if (number == kept_.get()) kept_.release();
    }

  private:
    Descriptor kept_;
    dev_t device_ = 0;
    ino_t inode_ = 0;
};

}  // namespace kzmkernel
