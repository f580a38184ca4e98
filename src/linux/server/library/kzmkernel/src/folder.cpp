#include "folder.h"

#include <dirent.h>
#include <sys/file.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "error.h"
#include "explanation.h"
#include "guard.h"
#include "kzmkernel.h"
#include "lock_list.h"

namespace kzmkernel {
namespace {

constexpr mode_t folder_mode = 0700, file_mode = 0600, all_permissions = 0777;

/// Adds missing permissions to a file or folder of ours: a creator with an unusual umask, or one that was killed
/// between two steps, left it with fewer.
bool widen_own(int parent, const char* name, mode_t type, mode_t mode) {
    struct stat found {};
    return fstatat(parent, name, &found, AT_SYMLINK_NOFOLLOW) == 0 && (found.st_mode & S_IFMT) == type &&
           found.st_uid == geteuid() && (found.st_mode & all_permissions & ~mode) == 0 &&
           (found.st_mode & mode) != mode && fchmodat(parent, name, mode, 0) == 0;
}

bool is_proper_folder(const struct stat& found) {
    return S_ISDIR(found.st_mode) && found.st_uid == geteuid() && (found.st_mode & all_permissions) == folder_mode;
}

/// Explains what is wrong with a file that cannot be used.
/// @param cause  why it cannot be opened; 0 if it can
uint32_t refuse(int parent, const char* name, const char* path, mode_t type, mode_t mode, int cause) {
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
    if (cause != 0 && (type == S_IFDIR || found.st_nlink == 1))
        return explained(windows_error(cause), "cannot open %.300s: %s", path, std::strerror(cause));
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
           // branch: another disk is mounted over the path in this moment
           named.st_dev == opened.st_dev;
}

}  // namespace

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
            return refuse(place_.parent(), place_.folder(), place_.folder_path(), S_IFDIR, folder_mode, error);
        }
    }
}

uint32_t Gate::make_folder(bool make, bool& again) noexcept {
    const Descriptor sibling = open_at(place_.parent(), place_.sibling(), object_flags);
    if (sibling && life_of(sibling.get(), place_.folder(), nullptr) != Life::dead) {
        // Another process may have made it since. If it is still missing, it was removed.
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
    const int error = sibling_ ? 0 : errno;
    struct stat found {};
    if (!sibling_) {
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
    return again ? 0 : refuse(parent, place_.sibling(), place_.sibling_path(), S_IFREG, file_mode, error);
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

uint32_t Gate::refuse_file(const char* file_name, int cause) const noexcept {
    char path[PATH_MAX + NAME_MAX];
    std::snprintf(path, sizeof path, "%s/%s", place_.folder_path(), file_name);
    return refuse(folder_.get(), file_name, path, S_IFREG, file_mode, cause);
}

uint32_t Gate::explain_replaced(const char* file_name) const noexcept {
    return explained(
        KZMKERNEL_ERROR_FILE_INVALID,
        "%.200s/%s was removed or replaced while processes use the object: end all of them and start again",
        place_.folder_path(), file_name);
}

// Unlocks the gate instead of only closing it: a child that another thread has just started may hold a copy until its
// exec.
void Gate::step_out() noexcept {
    if (folder_) flock(folder_.get(), LOCK_UN);
}

uint32_t Gate::step_in() noexcept {
    if (const uint32_t error = lock()) return error;
    struct stat opened {};
    if (fstat(folder_.get(), &opened) != 0) return windows_error(errno);
    // This process guards the folder, so no other folder can have taken its place.
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
    Patience patience{500 * ns_per_ms};
    bool waited = false;
    while (!lock_for_writing(sibling_.get(), making_) && errno == EAGAIN && patience.wait()) waited = true;
    return waited;
}

void Gate::stop_making() noexcept {
    if (making_ != 0) unlock(sibling_.get(), std::exchange(making_, 0));
}

bool is_proper_file(const struct stat& file) noexcept {
    return S_ISREG(file.st_mode) && file.st_uid == geteuid() && file.st_nlink == 1 &&
           (file.st_mode & ~static_cast<mode_t>(S_IFMT)) == file_mode;
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
        Descriptor file = open_at(gate.folder(), entry->d_name, read_flags);
        if (!file || is_used_by_others(file.get(), Patience{0})) continue;
        if (unlinkat(gate.folder(), entry->d_name, 0) == 0) removed.add(std::move(file));
    }
    closedir(listing);
}

}  // namespace kzmkernel
