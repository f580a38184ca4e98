#include "place.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "error.h"
#include "explanation.h"
#include "kzmkernel.h"

namespace kzmkernel {
namespace {

constexpr const char* variable = "KZMKERNEL_FOLDER";

/// Whether our files in it are safe from being renamed or removed by other users. The memory disk belongs to the
/// system, even if another user owns it, as in a container.
bool is_safe_parent(const struct stat& parent, bool is_memory_disk) {
    const bool others_may_write = (parent.st_mode & (S_IWGRP | S_IWOTH)) != 0;
    const bool is_trusted = is_memory_disk || parent.st_uid == 0 || parent.st_uid == geteuid();
    return is_trusted && (!others_may_write || (parent.st_mode & S_ISVTX) != 0);
}

}  // namespace

uint32_t Place::name() noexcept {
    // A program with more rights than its caller ignores the variable.
    const char* const chosen = secure_getenv(variable);
    const int length = chosen && *chosen ? std::snprintf(folder_path_, sizeof folder_path_, "%s", chosen)
                                         : std::snprintf(folder_path_, sizeof folder_path_, "%s/%s%u", memory_disk,
                                                         folder_prefix, geteuid());
    auto end = static_cast<size_t>(length);
    while (end > 1 && end < sizeof folder_path_ && folder_path_[end - 1] == '/') folder_path_[--end] = '\0';
    const char* const slash = std::strrchr(folder_path_, '/');
    name_at_ = slash ? static_cast<size_t>(slash + 1 - folder_path_) : 0;
    const char* const last = folder();
    const int sibling_length = std::snprintf(sibling_path_, sizeof sibling_path_, "%s.guard", folder_path_);
    if (folder_path_[0] == '/' && *last != '\0' && std::strcmp(last, ".") != 0 && std::strcmp(last, "..") != 0 &&
        static_cast<size_t>(sibling_length) < sizeof sibling_path_) {
        return 0;
    }
    return explained(KZMKERNEL_ERROR_INVALID_NAME, "%s=%.200s is not the full path of a folder: mend it or unset it",
                     variable, chosen);
}

uint32_t Place::open() noexcept {
    if (const uint32_t error = name()) return error;
    char parent[PATH_MAX];
    std::snprintf(parent, sizeof parent, "%.*s", static_cast<int>(name_at_), folder_path_);
    parent_ = open_at(AT_FDCWD, parent, O_RDONLY | O_DIRECTORY);
    struct stat found {};
    if (!parent_ || fstat(parent_.get(), &found) != 0) {
        const int error = errno;
        return explained(windows_error(error), "cannot open %s: %s", parent, std::strerror(error));
    }
    const bool is_memory_disk =
        std::strncmp(folder_path_, memory_disk, sizeof memory_disk - 1) == 0 && name_at_ == sizeof memory_disk;
    if (is_safe_parent(found, is_memory_disk)) return 0;
    if (found.st_uid != 0 && found.st_uid != geteuid())
        return explained(KZMKERNEL_ERROR_ACCESS_DENIED, "%s belongs to user %u: run this program as that user", parent,
                         found.st_uid);
    return explained(
        KZMKERNEL_ERROR_ACCESS_DENIED,
        "other users may remove your folder from %s: give that folder to root and set its sticky bit (chmod +t)",
        parent);
}

}  // namespace kzmkernel
