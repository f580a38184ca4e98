#include "folder.h"

#include <dirent.h>
#include <sys/file.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "error.h"
#include "kzmkernel.h"

namespace kzmkernel {
namespace {

constexpr const char* memory_disk = "/dev/shm";
constexpr mode_t folder_mode = 0700, file_mode = 0600, all_permissions = 0777;

/// FNV-1a, with the bits of the result mixed once more.
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

off_t name_place(const char* name) {
    Hash hash;
    hash.add(name, std::strlen(name) + 1);
    return hash.place();
}

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

/// A failed look counts as locked, which ends in a refusal and never in a second object.
bool is_read_locked(int folder, off_t place) {
    struct flock lock = one_byte(F_WRLCK, place);
    return fcntl(folder, F_OFD_GETLK, &lock) != 0 || lock.l_type != F_UNLCK;
}

bool read_lock(int folder, off_t place) {
    struct flock lock = one_byte(F_RDLCK, place);
    return fcntl(folder, F_OFD_SETLK, &lock) == 0;
}

bool lock_gate(int folder) {
    int result = 0;
    do {
        result = flock(folder, LOCK_EX);
    } while (result != 0 && errno == EINTR);
    return result == 0;
}

/// Others must not be able to rename or remove our folder.
bool is_safe_root(int root) {
    struct stat found {};
    return fstat(root, &found) == 0 && ((found.st_mode & (S_IWGRP | S_IWOTH)) == 0 || (found.st_mode & S_ISVTX) != 0);
}

/// A creator with an odd umask, or one that was killed between two steps, left our folder with fewer permissions.
bool widen_own_folder(int root, const char* name) {
    struct stat found {};
    return fstatat(root, name, &found, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(found.st_mode) &&
           found.st_uid == geteuid() && (found.st_mode & all_permissions & ~folder_mode) == 0 &&
           (found.st_mode & folder_mode) != folder_mode && fchmodat(root, name, folder_mode, 0) == 0;
}

bool is_proper_folder(const struct stat& found) {
    return S_ISDIR(found.st_mode) && found.st_uid == geteuid() && (found.st_mode & all_permissions) == folder_mode;
}

/// The folder is guarded in the memory disk's root as an object is in the folder.
uint32_t guard_folder(int root, const char* name, const struct stat& folder) {
    if (life_of(root, name, &folder) == Life::replaced) return KZMKERNEL_ERROR_FILE_INVALID;
    return hold_alive(root, name, folder) ? 0 : windows_error(errno);
}

}  // namespace

Life life_of(int folder, const char* name, const struct stat* file) noexcept {
    const off_t place = name_place(name);
    if (!is_read_locked(folder, place)) return Life::dead;
    if (file && is_read_locked(folder, file_place(name, *file))) return Life::alive;
    // Holders may end at any instant, but none can come while the gate is held: whoever still holds the name now held
    // it when the file's own byte was found free.
    return is_read_locked(folder, place) ? Life::replaced : Life::dead;
}

bool hold_alive(int folder, const char* name, const struct stat& file) noexcept {
    return read_lock(folder, file_place(name, file)) && read_lock(folder, name_place(name));
}

uint32_t Gate::enter(bool make) noexcept {
    char name[32];
    std::snprintf(name, sizeof name, "kzmkernel.%u", static_cast<unsigned>(geteuid()));
    root_ = open_at(AT_FDCWD, memory_disk, O_RDONLY | O_DIRECTORY);
    if (!root_) return windows_error(errno);
    if (!is_safe_root(root_.get())) return KZMKERNEL_ERROR_ACCESS_DENIED;
    for (;;) {
        if (const uint32_t error = open_folder(name, make)) return error;
        if (!lock_gate(folder_.get())) return windows_error(errno);
        struct stat opened {};
        struct stat named {};
        if (fstat(folder_.get(), &opened) != 0) return windows_error(errno);
        // While this process waited for the gate the folder may have been removed.
        if (fstatat(root_.get(), name, &named, AT_SYMLINK_NOFOLLOW) != 0 || named.st_ino != opened.st_ino) continue;
        return guard_folder(root_.get(), name, opened);
    }
}

uint32_t Gate::open_folder(const char* name, bool make) noexcept {
    for (bool missed_once = false;;) {
        folder_ = open_at(root_.get(), name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
        const int error = folder_ ? 0 : errno;
        struct stat found {};
        if (folder_ && fstat(folder_.get(), &found) != 0) return windows_error(errno);
        if (folder_ && is_proper_folder(found)) return 0;
        if (error == ENOENT) {
            if (life_of(root_.get(), name, nullptr) != Life::dead) {
                // Somebody may have made it since. If it is missing now too, it was removed.
                if (std::exchange(missed_once, true)) return KZMKERNEL_ERROR_FILE_INVALID;
                continue;
            }
            if (!make) return KZMKERNEL_ERROR_FILE_NOT_FOUND;
            if (mkdirat(root_.get(), name, folder_mode) != 0 && errno != EEXIST) return windows_error(errno);
        } else if (error != 0 && error != EACCES) {
            return windows_error(error);
        } else if (!widen_own_folder(root_.get(), name)) {
            return KZMKERNEL_ERROR_ACCESS_DENIED;
        }
    }
}

bool Gate::enter_again(int folder) noexcept {
    folder_ = open_at(folder, ".", O_RDONLY | O_DIRECTORY);
    return folder_ && lock_gate(folder_.get());
}

// The gate is unlocked, not only closed: a child that another thread has just started may hold a copy until its exec.
void Gate::leave() noexcept {
    if (folder_) flock(folder_.get(), LOCK_UN);
    folder_.reset();
    root_.reset();
}

void Gate::leave_guarded(Descriptor& root, Descriptor& folder) noexcept {
    flock(folder_.get(), LOCK_UN);
    root = std::move(root_);
    folder = std::move(folder_);
}

bool is_proper_file(const struct stat& file) noexcept {
    return S_ISREG(file.st_mode) && file.st_uid == geteuid() && file.st_nlink == 1 &&
           (file.st_mode & ~static_cast<mode_t>(S_IFMT)) == file_mode;
}

void remove_leftovers(const Gate& gate) noexcept {
    Descriptor again = open_at(gate.folder(), ".", O_RDONLY | O_DIRECTORY);
    DIR* const listing = again ? fdopendir(again.get()) : nullptr;
    if (!listing) return;
    again.release();
    while (const dirent* const entry = readdir(listing)) {
        struct stat found {};
        if (entry->d_name[0] == '.' || fstatat(gate.folder(), entry->d_name, &found, AT_SYMLINK_NOFOLLOW) != 0 ||
            !is_proper_file(found)) {
            continue;
        }
        if (life_of(gate.folder(), entry->d_name, &found) == Life::dead) unlinkat(gate.folder(), entry->d_name, 0);
    }
    closedir(listing);
}

}  // namespace kzmkernel
