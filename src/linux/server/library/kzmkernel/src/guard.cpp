#include "guard.h"

#include <fcntl.h>

#include <cerrno>
#include <csignal>
#include <cstring>

namespace kzmkernel {
namespace {

/// FNV-1a, with the bits of the result mixed again.
class Hash {
  public:
    void add(const void* data, size_t size) {
        const auto* const bytes = static_cast<const unsigned char*>(data);
        for (size_t i = 0; i < size; ++i) value_ = (value_ ^ bytes[i]) * 0x100000001B3;
    }
    /// A place in a file, which is a positive number.
    off_t place() const {
        const uint64_t mixed = (value_ ^ (value_ >> 32)) * 0xD6E8FEB86659FD93;
        return static_cast<off_t>((mixed ^ (mixed >> 32)) >> 2);
    }

  private:
    uint64_t value_ = 0xCBF29CE484222325;
};

off_t file_place(const char* name, const struct stat& file) {
    Hash hash;
    hash.add(name, std::strlen(name) + 1);
    hash.add(&file.st_ino, sizeof file.st_ino);
    // A folder's size changes with its contents.
    if (!S_ISDIR(file.st_mode)) hash.add(&file.st_size, sizeof file.st_size);
    return hash.place();
}

struct flock one_byte(short type, off_t place) {
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = place;
    lock.l_len = 1;
    return lock;
}

/// A failed look counts as locked: that leads to a refusal, never to a second object.
bool is_read_locked(int folder, off_t place) {
    struct flock lock = one_byte(F_WRLCK, place);
    return fcntl(folder, F_OFD_GETLK, &lock) != 0 || lock.l_type != F_UNLCK;
}

bool read_lock(int folder, off_t place) {
    struct flock lock = one_byte(F_RDLCK, place);
    return fcntl(folder, F_OFD_SETLK, &lock) == 0;
}

}  // namespace

off_t name_place(const char* name) noexcept {
    Hash hash;
    hash.add(name, std::strlen(name) + 1);
    return hash.place();
}

off_t maker_place(const char* name) noexcept {
    Hash hash;
    hash.add("new ", 4);
    hash.add(name, std::strlen(name) + 1);
    return hash.place();
}

bool lock_for_writing(int file, off_t place) noexcept {
    struct flock lock = one_byte(F_WRLCK, place);
    return fcntl(file, F_OFD_SETLK, &lock) == 0;
}

void unlock(int file, off_t place) noexcept {
    struct flock lock = one_byte(F_UNLCK, place);
    fcntl(file, F_OFD_SETLK, &lock);
}

Life life_of(int folder, const char* name, const struct stat* file) noexcept {
    const off_t place = name_place(name);
    if (!is_read_locked(folder, place)) return Life::dead;
    if (file && is_read_locked(folder, file_place(name, *file))) return Life::alive;
    // Holders may end at any moment, but no new holder can appear while the gate is held. So a process that still holds
    // the name held it when the byte of the file was found free.
    return is_read_locked(folder, place) ? Life::replaced : Life::dead;
}

bool hold_alive(int folder, const char* name, const struct stat& file) noexcept {
    return read_lock(folder, file_place(name, file)) && read_lock(folder, name_place(name));
}

bool is_used_by_others(int file, Patience patience) noexcept {
    // The system grants a lease only on a file that no other process has. If another process opens the file during the
    // lease, this process gets a signal, which is ignored unless the program handles it.
    do {
        if (fcntl(file, F_SETSIG, SIGURG) != 0 || fcntl(file, F_SETLEASE, F_WRLCK) == 0) {
            fcntl(file, F_SETLEASE, F_UNLCK);
            return false;
        }
        // On a file system without leases nothing is known.
        if (errno != EAGAIN) return false;
    } while (patience.wait());
    return true;
}

// Views keep the open file description that they were mapped from, and its locks.
void mark_as_viewed(int file) noexcept {
    read_lock(file, 0);
}

bool is_marked_as_viewed(int file) noexcept {
    return is_read_locked(file, 0);
}

}  // namespace kzmkernel
