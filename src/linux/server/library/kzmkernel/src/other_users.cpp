#include "other_users.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "descriptor.h"
#include "folder.h"
#include "guard.h"
#include "lock_list.h"
#include "object.h"
#include "place.h"

namespace kzmkernel {
namespace {

/// Whether this is the folder of the user who owns it, by its name on the memory disk.
bool is_folder_of(const char* name, const struct stat& found) {
    char expected[32];
    std::snprintf(expected, sizeof expected, "%s%u", folder_prefix, found.st_uid);
    return S_ISDIR(found.st_mode) && std::strcmp(name, expected) == 0;
}

}  // namespace

bool find_other_user(const char* mapping, uid_t& user) noexcept {
    const Descriptor disk = open_at(AT_FDCWD, memory_disk, O_RDONLY | O_DIRECTORY);
    DIR* const listing = disk ? opendir(memory_disk) : nullptr;
    if (!listing) return false;
    char file_name[file_name_size];
    file_name_of(Kind::mapping, mapping, file_name);
    bool is_found = false;
    while (const dirent* const entry = is_found ? nullptr : readdir(listing)) {
        struct stat found {};
        if (fstatat(disk.get(), entry->d_name, &found, AT_SYMLINK_NOFOLLOW) != 0 || found.st_uid == geteuid() ||
            !is_folder_of(entry->d_name, found)) {
            continue;
        }
        is_found = is_listed_as_locked(found, name_place(file_name));
        user = found.st_uid;
    }
    closedir(listing);
    return is_found;
}

}  // namespace kzmkernel
