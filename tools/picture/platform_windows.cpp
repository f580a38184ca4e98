#include "picture/platform.h"

#include <windows.h>

#include <fmt/format.h>

#include <cstring>
#include <string>

#include "kzmutil.h"
#include "setting_windows.h"
#include "wide_path.h"

namespace picture::platform {

namespace {

std::string install_path() {
    constexpr uint32_t longest = 32'768;
    std::string path(longest, '\0');
    if (!KzmutilGetInstallPath(path.data(), longest)) return "";
    path.resize(std::strlen(path.c_str()));
    return path;
}

/// Whether this process may create shared memory for all sessions.
bool may_create_globally() {
    DWORD session = 0;
    if (ProcessIdToSessionId(GetCurrentProcessId(), &session) && session == 0) return true;
    HANDLE token = nullptr;
    PRIVILEGE_SET wanted{
        .PrivilegeCount = 1, .Control = PRIVILEGE_SET_ALL_NECESSARY, .Privilege = {{{}, SE_PRIVILEGE_ENABLED}}};
    BOOL has_it = TRUE;
    if (OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token)) {
        if (LookupPrivilegeValueW(nullptr, L"SeCreateGlobalPrivilege", &wanted.Privilege[0].Luid)) {
            PrivilegeCheck(token, &wanted, &has_it);
        }
        CloseHandle(token);
    }
    return has_it != FALSE;
}

}  // namespace

std::filesystem::path file(const std::string& path) {
    return wide_path::for_call(path);
}
std::FILE* open_to_write(const std::string& path) {
    return _wfopen(wide_path::for_call(path).c_str(), L"wb");
}

const char* const library_file = "kzmshmnm.dll";

void* load_module(const char* file) {
    // This code is in a program or in a library, and the program that loads the library may be anywhere.
    constexpr DWORD longest = 32'768,
                    own = GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT;
    HMODULE here = nullptr;
    GetModuleHandleExA(own, reinterpret_cast<const char*>(&load_module), &here);
    std::wstring path(longest, L'\0');
    path.resize(GetModuleFileNameW(here, path.data(), longest));
    path.resize(path.rfind(L'\\') + 1);
    path.append(file, file + std::strlen(file));
    if (void* const module = LoadLibraryExW(path.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH)) return module;
    return LoadLibraryA(file);
}
void* symbol(void* module, const char* name) {
    return reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(module), name));
}

std::string object_prefix() {
    // A message about a failure asks for the prefix, and for the failure's number.
    const DWORD before = GetLastError();
    std::string prefix;
    kzmutil::read_setting("KZMUTIL_NAMESPACE", install_path, prefix);
    SetLastError(before);
    return prefix;
}

uint32_t last_error() {
    return GetLastError();
}
std::string explanation() {
    return "";
}
std::string why_not_created(const std::string& name) {
    if (!name.starts_with("Global\\") || may_create_globally()) return "";
    // An object that exists is denied by its own access list.
    const HANDLE mapping = OpenFileMappingW(FILE_MAP_READ, FALSE, wide_path::to_wide(name).c_str());
    const bool exists = mapping || GetLastError() != ERROR_FILE_NOT_FOUND;
    if (mapping) CloseHandle(mapping);
    if (exists) return "";
    return "below Global\\ this takes the privilege \"Create global objects\"; run this as a service or as an "
           "administrator with elevated rights, or give the privilege to this account";
}
/// Objects of other sessions cannot be looked for.
std::optional<std::string> other_user_of(const std::string&) {
    return std::nullopt;
}
bool may_only_read(const char* mapping) {
    if (GetLastError() != ERROR_ACCESS_DENIED) return false;
    void* const writable = KzmutilOpenNamedFileMapping(FILE_MAP_ALL_ACCESS, 0, mapping);
    if (!writable) return GetLastError() == ERROR_ACCESS_DENIED;
    CloseHandle(writable);
    return false;
}
void close(void* handle) {
    CloseHandle(handle);
}
const void* map_for_reading(void* mapping) {
    return MapViewOfFile(mapping, FILE_MAP_READ, 0, 0, 0);
}
void* map_for_writing(void* mapping) {
    return MapViewOfFile(mapping, FILE_MAP_WRITE, 0, 0, 0);
}
void unmap(const void* view) {
    UnmapViewOfFile(view);
}
uint64_t view_size(const void* view) {
    MEMORY_BASIC_INFORMATION information{};
    return VirtualQuery(view, &information, sizeof information) != 0 ? information.RegionSize : 0;
}
uint64_t object_number(void*) {
    return 0;
}

bool try_own(void* mutex) {
    const DWORD taken = WaitForSingleObject(mutex, 0);
    return taken == WAIT_OBJECT_0 || taken == WAIT_ABANDONED;
}

std::optional<LockHolder> lock_holder(void*) {
    return std::nullopt;
}
std::optional<shmnm::Note> note(void*) {
    return std::nullopt;
}
void* own_note(void*) {
    return nullptr;
}
OwnedLock::OwnedLock(void* mutex, uint32_t timeout_ms) {
    const DWORD taken = WaitForSingleObject(mutex, timeout_ms);
    if (taken == WAIT_OBJECT_0 || taken == WAIT_ABANDONED) mutex_ = mutex;
    was_taken_over_ = taken == WAIT_ABANDONED;
}
OwnedLock::~OwnedLock() {
    if (mutex_) ReleaseMutex(mutex_);
}
void count_look(void*) {}
const unsigned lockless_tries = 1;
std::optional<LocklessCopy> begin_lockless_copy(void*) {
    return std::nullopt;
}
bool is_whole(void*, const LocklessCopy&) {
    return false;
}
bool has_ended(const LockHolder&) {
    return false;
}
std::optional<Process> process(uint32_t) {
    return std::nullopt;
}

uint64_t memory_size() {
    MEMORYSTATUSEX now{};
    now.dwLength = sizeof now;
    return GlobalMemoryStatusEx(&now) ? now.ullTotalPageFile : 0;
}

uint64_t wall_clock_us() {
    constexpr uint64_t from_1601_to_1970 = 11'644'473'600'000'000;
    FILETIME now{};
    GetSystemTimePreciseAsFileTime(&now);
    return ((uint64_t{now.dwHighDateTime} << 32) | now.dwLowDateTime) / 10 - from_1601_to_1970;
}

uint64_t steady_clock_us() {
    // This counter goes on while the machine is suspended.
    LARGE_INTEGER frequency{}, counter{};
    QueryPerformanceFrequency(&frequency);
    QueryPerformanceCounter(&counter);
    const auto ticks = static_cast<uint64_t>(counter.QuadPart), a_second = static_cast<uint64_t>(frequency.QuadPart);
    return ticks / a_second * 1'000'000 + ticks % a_second * 1'000'000 / a_second;
}

std::string to_text(uint64_t wall_clock_us) {
    constexpr uint64_t from_1601_to_1970 = 11'644'473'600'000'000;
    const uint64_t ticks = (wall_clock_us + from_1601_to_1970) * 10;
    const FILETIME time{.dwLowDateTime = static_cast<DWORD>(ticks), .dwHighDateTime = static_cast<DWORD>(ticks >> 32)};
    SYSTEMTIME utc{}, local{};
    FileTimeToSystemTime(&time, &utc);
    SystemTimeToTzSpecificLocalTime(nullptr, &utc, &local);
    FILETIME shifted{};
    SystemTimeToFileTime(&local, &shifted);
    const auto local_ticks = static_cast<int64_t>((uint64_t{shifted.dwHighDateTime} << 32) | shifted.dwLowDateTime);
    const int64_t offset = (local_ticks / 10'000'000 - static_cast<int64_t>(ticks / 10'000'000)) / 60;
    const int64_t minutes = offset < 0 ? -offset : offset;
    return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}{}{:02}:{:02}", local.wYear, local.wMonth, local.wDay,
                       local.wHour, local.wMinute, local.wSecond, local.wMilliseconds, offset < 0 ? '-' : '+',
                       minutes / 60, minutes % 60);
}

}  // namespace picture::platform
