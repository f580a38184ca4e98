#include "folder.h"

#include <dirent.h>
#include <sys/file.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <utility>

#include "error.h"
#include "explanation.h"
#include "kzmkernel.h"
#include "lock_list.h"

namespace kzmkernel {
namespace {

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

/// The byte of the sibling that a process locks while it makes an object of a name.
off_t maker_place(const char* name) {
    Hash hash;
    hash.add("new ", 4);
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

/// A creator with an odd umask, or one that was killed between two steps, left what is ours with fewer permissions.
bool widen_own(int parent, const char* name, mode_t type, mode_t mode) {
    struct stat found {};
    return fstatat(parent, name, &found, AT_SYMLINK_NOFOLLOW) == 0 && (found.st_mode & S_IFMT) == type &&
           found.st_uid == geteuid() && (found.st_mode & all_permissions & ~mode) == 0 &&
           (found.st_mode & mode) != mode && fchmodat(parent, name, mode, 0) == 0;
}

bool is_proper_folder(const struct stat& found) {
    return S_ISDIR(found.st_mode) && found.st_uid == geteuid() && (found.st_mode & all_permissions) == folder_mode;
}

/// What lies under the folder's name, or its sibling's, is not what belongs there.
uint32_t refuse(int parent, const char* name, const char* path, mode_t type, mode_t mode) {
    constexpr uint32_t error = KZMKERNEL_ERROR_ACCESS_DENIED;
    constexpr const char* advice = "remove it, or set KZMKERNEL_FOLDER to another folder in all processes";
    const char* const wanted = type == S_IFDIR ? "a folder" : "a file";
    struct stat found {};
    if (fstatat(parent, name, &found, AT_SYMLINK_NOFOLLOW) != 0)
        return explained(error, "cannot look at %.300s: %s", path, std::strerror(errno));
    if (found.st_uid != geteuid())
        return explained(error, "%.300s belongs to user %u, not to you: %s", path, found.st_uid, advice);
    if ((found.st_mode & S_IFMT) != type) return explained(error, "%.300s is not %s: %s", path, wanted, advice);
    const mode_t permissions = found.st_mode & (type == S_IFDIR ? all_permissions : ~mode_t{S_IFMT});
    if (permissions != mode)
        return explained(error, "%.300s has the mode %04o: set it to %04o (chmod)", path, permissions, mode);
    return explained(error, "%.300s has a second link: %s", path, advice);
}

uint32_t explain_removed(const char* path) {
    return explained(KZMKERNEL_ERROR_FILE_INVALID,
                     "%.300s was removed or replaced while processes use its objects: end all of them and start again",
                     path);
}

uint32_t explain_busy(int folder, const char* path) {
    struct stat found {};
    const pid_t holder = fstat(folder, &found) == 0 ? process_that_locked(found) : 0;
    constexpr uint32_t error = KZMKERNEL_ERROR_BUSY;
    if (holder == 0) return explained(error, "another process does not let go of %.300s", path);
    return explained(error, "process %d does not let go of %.300s: let it go on (kill -CONT %d) or end it", holder,
                     path, holder);
}

bool leads_to(int parent, const char* name, const struct stat& opened) {
    struct stat named {};
    return fstatat(parent, name, &named, AT_SYMLINK_NOFOLLOW) == 0 && named.st_ino == opened.st_ino &&
           named.st_dev == opened.st_dev;
}

}  // namespace

off_t name_place(const char* name) noexcept {
    Hash hash;
    hash.add(name, std::strlen(name) + 1);
    return hash.place();
}

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
    if (const uint32_t error = place_.open()) return error;
    do {
        bool again = false;
        const uint32_t error = enter_once(make, again);
        if (!again) return error;
        leave();
    } while (patience_.wait());
    return explained(KZMKERNEL_ERROR_BUSY, "%.300s and its sibling are removed again and again", place_.folder_path());
}

uint32_t Gate::enter_once(bool make, bool& again) noexcept {
    if (const uint32_t error = open_folder(make, again); error != 0 || again) return error;
    if (const uint32_t error = open_sibling(again); error != 0 || again) return error;
    if (const uint32_t error = lock()) return error;
    struct stat opened {};
    if (fstat(folder_.get(), &opened) != 0) return windows_error(errno);
    const Life life = life_of(sibling_.get(), place_.folder(), &opened);
    if (life != Life::replaced && !hold_alive(sibling_.get(), place_.folder(), opened)) return windows_error(errno);
    again = !has_its_names(opened);
    return life == Life::replaced && !again ? explain_removed(place_.folder_path()) : 0;
}

uint32_t Gate::open_folder(bool make, bool& again) noexcept {
    for (bool was_made = false;;) {
        folder_ = open_at(place_.parent(), place_.folder(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
        const int error = folder_ ? 0 : errno;
        struct stat found {};
        if (folder_ && fstat(folder_.get(), &found) != 0) return windows_error(errno);
        if (folder_ && is_proper_folder(found)) return 0;
        if (error == ENOENT) {
            again = std::exchange(was_made, true);
            if (again) return 0;
            if (const uint32_t failure = make_folder(make, again); failure != 0 || again) return failure;
        } else if (error != 0 && error != EACCES && error != ELOOP && error != ENOTDIR) {
            return windows_error(error);
        } else if (!widen_own(place_.parent(), place_.folder(), S_IFDIR, folder_mode)) {
            return refuse(place_.parent(), place_.folder(), place_.folder_path(), S_IFDIR, folder_mode);
        }
    }
}

uint32_t Gate::make_folder(bool make, bool& again) noexcept {
    const Descriptor sibling = open_at(place_.parent(), place_.sibling(), object_flags);
    if (sibling && life_of(sibling.get(), place_.folder(), nullptr) != Life::dead) {
        // Somebody may have made it since. If it is missing now too, it was removed.
        struct stat found {};
        again = fstatat(place_.parent(), place_.folder(), &found, AT_SYMLINK_NOFOLLOW) == 0;
        return again ? 0 : explain_removed(place_.folder_path());
    }
    if (!make) return KZMKERNEL_ERROR_FILE_NOT_FOUND;
    if (mkdirat(place_.parent(), place_.folder(), folder_mode) == 0 || errno == EEXIST) return 0;
    const int error = errno;
    return explained(windows_error(error), "cannot make %.300s: %s", place_.folder_path(), std::strerror(error));
}

uint32_t Gate::open_sibling(bool& again) noexcept {
    const int parent = place_.parent();
    sibling_ = open_at(parent, place_.sibling(), object_flags);
    if (!sibling_ && errno == ENOENT) {
        sibling_ = open_at(parent, place_.sibling(), object_flags | O_CREAT | O_EXCL, file_mode);
        again = !sibling_ && errno == EEXIST;
        if (again) return 0;
        if (sibling_ && fchmod(sibling_.get(), file_mode) != 0) return windows_error(errno);
    }
    struct stat found {};
    if (!sibling_) {
        const int error = errno;
        if (error == ENOENT || error == ENOSPC || error == EMFILE || error == ENFILE)
            return explained(windows_error(error), "cannot make %.300s: %s", place_.sibling_path(),
                             std::strerror(error));
    } else {
        if (fstat(sibling_.get(), &found) != 0) return windows_error(errno);
        if (is_proper_file(found)) return 0;
        again = found.st_nlink == 0;
        if (again) return 0;
    }
    again = widen_own(parent, place_.sibling(), S_IFREG, file_mode);
    return again ? 0 : refuse(parent, place_.sibling(), place_.sibling_path(), S_IFREG, file_mode);
}

uint32_t Gate::lock() noexcept {
    while (flock(folder_.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno == EINTR) continue;
        if (errno != EWOULDBLOCK) return windows_error(errno);
        if (!patience_.wait()) return explain_busy(folder_.get(), place_.folder_path());
    }
    return 0;
}

bool Gate::has_its_names(const struct stat& folder) const noexcept {
    struct stat sibling {};
    return leads_to(place_.parent(), place_.folder(), folder) && fstat(sibling_.get(), &sibling) == 0 &&
           leads_to(place_.parent(), place_.sibling(), sibling);
}

bool Gate::enter_again(int folder) noexcept {
    folder_ = open_at(folder, ".", O_RDONLY | O_DIRECTORY);
    return folder_ && lock() == 0;
}

uint32_t Gate::refuse_file(const char* file_name) const noexcept {
    char path[PATH_MAX + NAME_MAX];
    std::snprintf(path, sizeof path, "%s/%s", place_.folder_path(), file_name);
    return refuse(folder_.get(), file_name, path, S_IFREG, file_mode);
}

uint32_t Gate::explain_replaced(const char* file_name) const noexcept {
    return explained(
        KZMKERNEL_ERROR_FILE_INVALID,
        "%.200s/%s was removed or replaced while processes use the object: end all of them and start again",
        place_.folder_path(), file_name);
}

// The gate is unlocked, not only closed: a child that another thread has just started may hold a copy until its exec.
void Gate::step_out() noexcept {
    if (folder_) flock(folder_.get(), LOCK_UN);
}

uint32_t Gate::step_in() noexcept {
    if (const uint32_t error = lock()) return error;
    struct stat opened {};
    if (fstat(folder_.get(), &opened) != 0) return windows_error(errno);
    // No other folder can have come in its place, which this process guards.
    return has_its_names(opened) ? 0 : explain_removed(place_.folder_path());
}

void Gate::leave() noexcept {
    stop_making();
    step_out();
    folder_.reset();
    sibling_.reset();
}

void Gate::leave_guarded(KeptDescriptor& sibling, KeptDescriptor& folder) noexcept {
    stop_making();
    step_out();
    sibling = std::move(sibling_);
    folder = std::move(folder_);
}

bool Gate::wait_for_maker_of(const char* file_name) noexcept {
    making_ = maker_place(file_name);
    struct flock lock = one_byte(F_WRLCK, making_);
    Patience patience{500 * ns_per_ms};
    bool waited = false;
    while (fcntl(sibling_.get(), F_OFD_SETLK, &lock) != 0 && errno == EAGAIN && patience.wait()) waited = true;
    return waited;
}

void Gate::stop_making() noexcept {
    if (making_ == 0) return;
    struct flock lock = one_byte(F_UNLCK, std::exchange(making_, 0));
    fcntl(sibling_.get(), F_OFD_SETLK, &lock);
}

bool is_proper_file(const struct stat& file) noexcept {
    return S_ISREG(file.st_mode) && file.st_uid == geteuid() && file.st_nlink == 1 &&
           (file.st_mode & ~static_cast<mode_t>(S_IFMT)) == file_mode;
}

bool is_used_by_others(int file, Patience patience) noexcept {
    // A lease is for files that nobody else has. Whoever opens the file in this moment has the holder of the lease
    // told, by a signal that is ignored unless the program handles it.
    do {
        if (fcntl(file, F_SETSIG, SIGURG) != 0 || fcntl(file, F_SETLEASE, F_WRLCK) == 0) {
            fcntl(file, F_SETLEASE, F_UNLCK);
            return false;
        }
        // Where there are no leases nothing is known.
        if (errno != EAGAIN) return false;
    } while (patience.wait());
    return true;
}

// Views keep the open file description that they were mapped from, and with it its locks.
void mark_as_viewed(int file) noexcept {
    read_lock(file, 0);
}

bool is_marked_as_viewed(int file) noexcept {
    return is_read_locked(file, 0);
}

void remove_leftovers(const Gate& gate, RemovedFiles& removed) noexcept {
    Descriptor again = open_at(gate.folder(), ".", O_RDONLY | O_DIRECTORY);
    DIR* const listing = again ? fdopendir(again.get()) : nullptr;
    if (!listing) return;
    again.release();
    while (const dirent* const entry = readdir(listing)) {
        struct stat found {};
        if (fstatat(gate.folder(), entry->d_name, &found, AT_SYMLINK_NOFOLLOW) != 0 || !is_proper_file(found) ||
            life_of(gate.folder(), entry->d_name, &found) != Life::dead) {
            continue;
        }
        Descriptor file = open_at(gate.folder(), entry->d_name, object_flags);
        if (!file || is_used_by_others(file.get(), Patience{0})) continue;
        if (unlinkat(gate.folder(), entry->d_name, 0) == 0) removed.add(std::move(file));
    }
    closedir(listing);
}

}  // namespace kzmkernel
