#include "picture/platform.h"

#include <dlfcn.h>
#include <fmt/format.h>
#include <pwd.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "kzmkernel.h"

namespace picture::platform {
namespace {

constexpr uint32_t map_read = 4;

std::string whole_file(const std::string& name) {
    std::ifstream stream(name, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

uint64_t clock_us(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000 + static_cast<uint64_t>(now.tv_nsec) / 1'000;
}

bool means_ended(char state) {
    return state == 'Z' || state == 'X';  // branch by chance: a thread ends at that moment
}

const char* state_text(char letter) {
    switch (letter) {
        case 'T':
        case 't':
            return "stopped";
        case 'Z':
        case 'X':  // branch by chance: its parent waits for it at that moment
            return "ended but not waited for";
        default:
            return "running";
    }
}

}  // namespace

std::filesystem::path file(const std::string& path) {
    return path;
}
std::FILE* open_to_write(const std::string& path) {
    return std::fopen(path.c_str(), "wb");
}

const char* const library_file = "libkzmshmnm.so.1";

void* load_module(const char* file) {
    std::error_code error;
    const auto program = std::filesystem::read_symlink("/proc/self/exe", error);
    if (!error) {  // branch: no test runs without /proc
        if (void* const module = dlopen((program.parent_path() / file).c_str(), RTLD_NOW | RTLD_LOCAL)) return module;
    }
    return dlopen(file, RTLD_NOW | RTLD_LOCAL);
}
void* symbol(void* module, const char* name) {
    return dlsym(module, name);
}

std::string object_prefix() {
    const char* const prefix = std::getenv("KZMUTIL_NAMESPACE");
    return prefix ? prefix : "";
}

uint32_t last_error() {
    return kzmkernel_last_error();
}
std::string explanation() {
    return kzmkernel_explanation();
}
std::string why_not_created(const std::string&) {
    return "";
}
std::optional<std::string> other_user_of(const std::string& mapping) {
    uint32_t user = 0;
    if (kzmkernel_find_other_user(mapping.c_str(), &user) == 0) return std::nullopt;
    const passwd* const known = getpwuid(user);
    return known ? fmt::format("{} ({})", known->pw_name, user) : fmt::format("{}", user);
}
bool may_only_read(const char*) {
    return false;
}
void close(void* handle) {
    kzmkernel_close(handle);
}
const void* map_for_reading(void* mapping) {
    return kzmkernel_map_view(mapping, map_read, 0, 0);
}
void* map_for_writing(void* mapping) {
    constexpr uint32_t map_write = 2;
    return kzmkernel_map_view(mapping, map_write, 0, 0);
}
void unmap(const void* view) {
    kzmkernel_unmap_view(view);
}
uint64_t view_size(const void* view) {
    return kzmkernel_view_size(view);
}
uint64_t object_number(void* mapping) {
    return kzmkernel_object_number(mapping);
}

bool try_own(void* mutex) {
    const uint32_t result = kzmkernel_wait(mutex, 0);
    return result == KZMKERNEL_WAIT_OWNED || result == KZMKERNEL_WAIT_ABANDONED;
}

std::optional<LockHolder> lock_holder(void* mutex) {
    kzmkernel_mutex_info info{};
    if (!kzmkernel_mutex_info_get(mutex, &info)) return std::nullopt;
    uint64_t looks = 0;
    kzmkernel_look_count_get(mutex, &looks);
    return LockHolder{.process = info.owner_process,
                      .thread = info.owner_thread,
                      .since_ns = info.owned_since_ns,
                      .takeovers = info.takeovers,
                      .last_takeover_ns = info.last_takeover_ns,
                      .takes = info.takes,
                      .looks = looks};
}

std::optional<shmnm::Note> note(void* mutex) {
    static_assert(sizeof(shmnm::Note) == KZMKERNEL_NOTE_BYTES);
    shmnm::Note copy;
    if (!kzmkernel_note_read(mutex, &copy)) return std::nullopt;
    return copy;
}
void* own_note(void* mutex) {
    return kzmkernel_note(mutex);
}
OwnedLock::OwnedLock(void*, uint32_t) {}
OwnedLock::~OwnedLock() = default;
void count_look(void* mutex) {
    kzmkernel_look_count(mutex);
}

const unsigned lockless_tries = 3;
std::optional<LocklessCopy> begin_lockless_copy(void* mutex) {
    LocklessCopy copy;
    const int32_t found = kzmkernel_begin_read(mutex, &copy.takes);
    if (found == 0) return std::nullopt;
    copy.as_owner = found == KZMKERNEL_READ_OWNED;
    return copy;
}
bool is_whole(void* mutex, const LocklessCopy& copy) {
    return kzmkernel_end_read(mutex, copy.takes) != 0;
}

bool has_ended(const LockHolder& holder) {
    if (holder.process == 0) return false;
    if (tgkill(static_cast<pid_t>(holder.process), static_cast<pid_t>(holder.thread), 0) != 0) return errno == ESRCH;
    const std::string stat = whole_file(fmt::format("/proc/{}/task/{}/stat", holder.process, holder.thread));
    const size_t name_end = stat.rfind(") ");
    // branch by chance: it ends at that moment
    return name_end != std::string::npos && means_ended(stat[name_end + 2]);
}

std::optional<Process> process(uint32_t id) {
    const std::string folder = fmt::format("/proc/{}/", id);
    const std::string stat = whole_file(folder + "stat");
    const size_t name_end = stat.rfind(") ");
    if (name_end == std::string::npos) return std::nullopt;
    std::string command = whole_file(folder + "cmdline");
    while (command.ends_with('\0')) command.pop_back();
    for (char& byte : command) {
        if (byte == '\0') byte = ' ';
    }
    // A process that has ended has no command line left, but still its name.
    if (command.empty()) {
        const size_t name = stat.find('(');
        command = stat.substr(name + 1, name_end - name - 1);
    }
    return Process{.command = command, .state = state_text(stat[name_end + 2])};
}

uint64_t memory_size() {
    struct sysinfo now {};
    sysinfo(&now);
    return (uint64_t{now.totalram} + now.totalswap) * now.mem_unit;
}

uint64_t wall_clock_us() {
    return clock_us(CLOCK_REALTIME);
}
uint64_t steady_clock_us() {
    // CLOCK_MONOTONIC stands still while the machine is suspended.
    return clock_us(CLOCK_BOOTTIME);
}

std::string to_text(uint64_t wall_clock_us) {
    const auto seconds = static_cast<time_t>(wall_clock_us / 1'000'000);
    tm local{};
    localtime_r(&seconds, &local);
    char date[32], offset[8];
    std::strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S", &local);
    std::strftime(offset, sizeof offset, "%z", &local);
    return fmt::format("{}.{:03}{:.3}:{}", date, wall_clock_us / 1'000 % 1'000, offset, offset + 3);
}

}  // namespace picture::platform
