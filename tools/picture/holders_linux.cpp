#include <dirent.h>
#include <fmt/format.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <fstream>
#include <sstream>
#include <string>

#include "picture/holders.h"
#include "picture/platform.h"

namespace picture::platform {
namespace {

/// The file behind shared memory, as /proc names it.
struct MemoryFile {
    std::string device_and_inode;  ///< "00:1a 4711", as in a list of mapped memory
    std::optional<dev_t> device;   ///< none: the file was removed
    ino_t inode = 0;
};

/// One line of a list of mapped memory.
struct MappedRange {
    uint64_t start = 0;
    std::string device, path;
    ino_t inode = 0;

    explicit MappedRange(const std::string& line) {
        std::istringstream words(line);
        std::string range, rights, offset;
        words >> range >> rights >> offset >> device >> inode >> std::ws;
        std::getline(words, path);
        std::from_chars(range.data(), range.data() + range.size(), start, 16);
    }
    std::string device_and_inode() const { return fmt::format("{} {}", device, inode); }
};

std::optional<MemoryFile> file_of(const void* view) {
    std::ifstream list("/proc/self/maps");
    for (std::string line; std::getline(list, line);) {
        const MappedRange range(line);
        if (range.start != reinterpret_cast<uint64_t>(view)) continue;
        struct stat found {};
        const bool is_there = ::stat(range.path.c_str(), &found) == 0 && found.st_ino == range.inode;
        return MemoryFile{range.device_and_inode(), is_there ? std::optional(found.st_dev) : std::nullopt, range.inode};
    }
    return std::nullopt;
}

enum class Look { holds, does_not, may_not };

/// Whether this user may not look at a process. One that has ended meanwhile holds nothing.
Look failed_look() {
    // EPERM where /proc is mounted with hidepid=1.
    return errno == EACCES || errno == EPERM ? Look::may_not : Look::does_not;
}

Look look_at_memory(const std::string& folder, const MemoryFile& file) {
    errno = 0;
    std::ifstream list(folder + "/maps");
    if (!list) return failed_look();
    for (std::string line; std::getline(list, line);) {
        if (MappedRange(line).device_and_inode() == file.device_and_inode) return Look::holds;
    }
    return Look::does_not;
}

/// The names in a folder of /proc that are numbers. Nothing when it cannot be read; errno tells why.
std::optional<std::vector<uint32_t>> numbers_in(const std::string& folder) {
    DIR* const listing = opendir(folder.c_str());
    if (!listing) return std::nullopt;
    std::vector<uint32_t> all;
    while (const dirent* const entry = readdir(listing)) {
        const std::string_view name = entry->d_name;
        uint32_t number = 0;
        if (std::from_chars(name.data(), name.data() + name.size(), number).ec == std::errc{}) all.push_back(number);
    }
    closedir(listing);
    std::sort(all.begin(), all.end());
    return all;
}

Look look_at_descriptors(const std::string& folder, const MemoryFile& file) {
    const auto descriptors = numbers_in(folder + "/fd");
    if (!descriptors) return failed_look();
    for (const uint32_t descriptor : *descriptors) {
        struct stat found {};
        // branch by chance: it is closed at that moment
        if (::stat(fmt::format("{}/fd/{}", folder, descriptor).c_str(), &found) != 0) continue;
        if (found.st_dev == file.device && found.st_ino == file.inode) return Look::holds;
    }
    return Look::does_not;
}

/// Whether a process holds the file. Its threads share what it has, but one whose first thread has ended shows nothing
/// in its own folder.
Look look_at(uint32_t process, const MemoryFile& file) {
    const std::string tasks = fmt::format("/proc/{}/task", process);
    const auto threads = numbers_in(tasks);
    if (!threads) return failed_look();
    for (const uint32_t thread : *threads) {
        if (has_ended({.process = process, .thread = thread})) continue;
        const std::string folder = fmt::format("{}/{}", tasks, thread);
        const Look memory = look_at_memory(folder, file);
        return memory == Look::does_not ? look_at_descriptors(folder, file) : memory;
    }
    return Look::does_not;
}

/// A thread of the system's kernel, or a process that has ended. Where its command is hidden too, nobody can tell.
bool has_no_memory(uint32_t process) {
    std::ifstream command(fmt::format("/proc/{}/cmdline", process));
    return command && command.peek() == std::ifstream::traits_type::eof();
}

/// Nothing when the process ends meanwhile.
std::optional<uint32_t> effective_user(uint32_t process) {
    std::ifstream status(fmt::format("/proc/{}/status", process));
    for (std::string word; status >> word;) {
        uint32_t real = 0, effective = 0;
        // branch by chance: the process ends at that moment
        if (word == "Uid:" && status >> real >> effective) return effective;
    }
    return std::nullopt;
}

std::string name_of(uint32_t user) {
    const passwd* const known = getpwuid(user);
    return known ? known->pw_name : std::to_string(user);
}

}  // namespace

std::optional<Holders> holders(const void* view) {
    const std::optional<MemoryFile> file = file_of(view);
    const auto processes = numbers_in("/proc");
    if (!file || !processes) return std::nullopt;
    Holders found;
    for (const uint32_t id : *processes) {
        if (id == static_cast<uint32_t>(getpid())) continue;
        const Look look = look_at(id, *file);
        if (look == Look::may_not && !has_no_memory(id)) ++found.unreadable;
        if (look != Look::holds) continue;
        const auto known = process(id);
        const auto user = effective_user(id);
        if (known && user) found.processes.push_back({id, *user, name_of(*user), known->command, known->state});
    }
    return found;
}

}  // namespace picture::platform
