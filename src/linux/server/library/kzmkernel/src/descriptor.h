// A file descriptor that is closed with its owner.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <utility>

namespace kzmkernel {

class Descriptor {
  public:
    constexpr Descriptor() = default;
    explicit Descriptor(int value) : value_(value) {}
    Descriptor(Descriptor&& other) noexcept : value_(std::exchange(other.value_, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        if (this != &other) {
            reset();
            value_ = std::exchange(other.value_, -1);
        }
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

/// Opens a file; on failure the descriptor is empty and errno says why. It is closed by exec. Where a program closed
/// its standard streams their numbers are passed over: what is printed by mistake must never land in an object.
inline Descriptor open_at(int folder, const char* name, int flags, mode_t mode = 0) {
    Descriptor opened(openat(folder, name, flags | O_CLOEXEC, mode));
    if (opened && opened.get() <= STDERR_FILENO) {
        opened = Descriptor(fcntl(opened.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    }
    return opened;
}

}  // namespace kzmkernel
