#include <windows.h>

#include <algorithm>
#include <cwchar>

#include "system.h"
#include "wide_path.h"

namespace kzmlog {
namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;

Error error_of(DWORD number) {
    switch (number) {
        case ERROR_FILE_NOT_FOUND:
        case ERROR_PATH_NOT_FOUND:
        case ERROR_DIRECTORY:
        case ERROR_INVALID_NAME:
        case ERROR_FILENAME_EXCED_RANGE:
            return path_not_found;
        case ERROR_TOO_MANY_OPEN_FILES:
        case ERROR_NO_SYSTEM_RESOURCES:
            return too_many_open;
        case ERROR_NOT_ENOUGH_MEMORY:
        case ERROR_OUTOFMEMORY:
            return out_of_memory;
        case ERROR_DISK_FULL:
        case ERROR_HANDLE_DISK_FULL:
            return disk_full;
        case ERROR_ACCESS_DENIED:
        case ERROR_WRITE_PROTECT:
        case ERROR_SHARING_VIOLATION:
        case ERROR_DELETE_PENDING:
            return access_denied;
        default:
            return write_fault;
    }
}

/// A path of absolute() for a wide call. It lies on the stack, because a line must not be lost for want of memory, nor
/// its writer.
class WidePath {
  public:
    explicit WidePath(const char* path) noexcept {
        if (!MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, path, -1, text_, longest)) text_[0] = L'\0';
        std::replace(text_, text_ + std::wcslen(text_), L'/', L'\\');
    }
    operator const wchar_t*() const noexcept { return text_; }

  private:
    static constexpr int longest = 4352;  ///< the folder has at most 4096 bytes
    wchar_t text_[longest];
};

HANDLE system_handle(intptr_t handle) {
    return reinterpret_cast<HANDLE>(handle);
}

/// Opens a file, or creates it. Other processes may read, write, rename and delete it meanwhile. Children do not
/// inherit the handle.
intptr_t open_shared(const char* path, DWORD access) {
    return reinterpret_cast<intptr_t>(CreateFileW(
        WidePath(path), access | FILE_READ_DATA | FILE_READ_ATTRIBUTES | SYNCHRONIZE,
        FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
}

/// Locks a byte far beyond the end of any file. Closing the handle unlocks it, however the process ends.
Attempt try_to_lock(HANDLE file) {
    OVERLAPPED place{};
    place.OffsetHigh = 0x40000000;
    if (LockFileEx(file, LOCKFILE_EXCLUSIVE_LOCK | LOCKFILE_FAIL_IMMEDIATELY, 0, 1, 0, &place)) {
        return Attempt::succeeded;
    }
    return GetLastError() == ERROR_LOCK_VIOLATION ? Attempt::busy : Attempt::failed;
}

/// Whether the system finds the end of the file and appends to it in one step.
bool appends_in_one_step() {
    static const bool is_wine = GetProcAddress(GetModuleHandleA("ntdll.dll"), "wine_get_version") != nullptr;
    return !is_wine;
}

bool ends_within_a_line(HANDLE file) {
    LARGE_INTEGER size{};
    if (!GetFileSizeEx(file, &size) || size.QuadPart == 0) return false;
    OVERLAPPED place{};
    place.Offset = static_cast<DWORD>((size.QuadPart - 1) & 0xFFFFFFFF);
    place.OffsetHigh = static_cast<DWORD>((size.QuadPart - 1) >> 32);
    char last = '\n';
    DWORD count = 0;
    return ReadFile(file, &last, 1, &count, &place) && count == 1 && last != '\n';
}

int64_t ticks(const FILETIME& time) {
    return static_cast<int64_t>(time.dwHighDateTime) << 32 | time.dwLowDateTime;
}

}  // namespace

File::File(const char* path) noexcept : handle_(open_shared(path, FILE_APPEND_DATA)) {
    BY_HANDLE_FILE_INFORMATION found{};
    if (system_handle(handle_) == INVALID_HANDLE_VALUE) {
        error_ = error_of(GetLastError());
    } else if (GetFileType(system_handle(handle_)) != FILE_TYPE_DISK) {
        error_ = access_denied;
    } else if (!GetFileInformationByHandle(system_handle(handle_), &found)) {
        error_ = error_of(GetLastError());
    } else if (found.nNumberOfLinks > 1) {
        error_ = access_denied;
    }
    size_ = uint64_t{found.nFileSizeHigh} << 32 | found.nFileSizeLow;
}

File::~File() {
    if (system_handle(handle_) != INVALID_HANDLE_VALUE) CloseHandle(system_handle(handle_));
}

// If a handle has only the right to append, Windows finds the end of the file and writes there in one step. Wine finds
// the end first and then writes, so lines that processes write at the same time overwrite each other. Therefore the
// append also takes a lock on the file, but only wine waits for that lock. If a holder is stopped, other processes wait
// for up to a second and then append without the lock.
Error File::append(std::string_view line) const noexcept {
    const HANDLE file = system_handle(handle_);
    succeeds_within(milliseconds(appends_in_one_step() ? 0 : 1000), [file] { return try_to_lock(file); });
    if (!ends_within_a_line(file)) line.remove_prefix(1);
    DWORD written = 0;
    if (line.size() > MAXDWORD) return write_fault;
    if (!WriteFile(file, line.data(), static_cast<DWORD>(line.size()), &written, nullptr)) {
        return error_of(GetLastError());
    }
    return written == line.size() ? ok : disk_full;
}

FileLock::FileLock(const char* path) noexcept : handle_(open_shared(path, 0)) {}

Attempt FileLock::take() noexcept {
    if (system_handle(handle_) == INVALID_HANDLE_VALUE) return Attempt::failed;
    const Attempt result = try_to_lock(system_handle(handle_));
    held_ = result == Attempt::succeeded;
    return result;
}

FileLock::~FileLock() {
    if (system_handle(handle_) != INVALID_HANDLE_VALUE) CloseHandle(system_handle(handle_));
}

UndisturbedThread::UndisturbedThread() noexcept : last_error_(static_cast<int32_t>(GetLastError())) {}
UndisturbedThread::~UndisturbedThread() {
    SetLastError(static_cast<DWORD>(last_error_));
}

bool exists(const char* path) noexcept {
    return GetFileAttributesW(WidePath(path)) != INVALID_FILE_ATTRIBUTES;
}

// Replacing a file that another process has open fails with 5. But newer systems free the name of such a file when it
// is deleted, so deleting it and renaming again succeeds. If the file to be renamed is the cause, the error is 32, and
// nothing is deleted.
bool FileLock::rename_over(const char* from, const char* to) noexcept {
    const WidePath wide_from(from), wide_to(to);
    if (MoveFileExW(wide_from, wide_to, MOVEFILE_REPLACE_EXISTING)) return true;
    return GetLastError() == ERROR_ACCESS_DENIED && DeleteFileW(wide_to) &&
           MoveFileExW(wide_from, wide_to, MOVEFILE_REPLACE_EXISTING);
}

void make_folder(const char* path) noexcept {
    CreateDirectoryW(WidePath(path), nullptr);
}

std::string absolute(const std::string& path) {
    const std::wstring wide = wide_path::to_wide(path);
    const std::wstring full = wide_path::fill_text(
        [&](wchar_t* buffer, DWORD size) { return GetFullPathNameW(wide.c_str(), size, buffer, nullptr); });
    return wide_path::to_utf8(wide_path::unlimited(full.empty() ? wide : full));
}

uint32_t process_id() noexcept {
    return GetCurrentProcessId();
}
uint32_t thread_id() noexcept {
    return GetCurrentThreadId();
}

int32_t utc_offset_minutes(int64_t seconds) noexcept {
    constexpr int64_t ticks_per_second = 10'000'000, unix_epoch = 11'644'473'600;
    const int64_t utc = (seconds + unix_epoch) * ticks_per_second;
    FILETIME time{static_cast<DWORD>(utc & 0xFFFFFFFF), static_cast<DWORD>(utc >> 32)};
    SYSTEMTIME at{}, local{};
    if (!FileTimeToSystemTime(&time, &at) || !SystemTimeToTzSpecificLocalTime(nullptr, &at, &local) ||
        !SystemTimeToFileTime(&local, &time)) {
        return 0;
    }
    return static_cast<int32_t>((ticks(time) - utc) / (60 * ticks_per_second));
}

void pause(microseconds limit) noexcept {
    // The shortest sleep may last for one tick of the system's clock, which is up to 16 ms.
    Sleep(limit > milliseconds(20) ? 1 : 0);
}

}  // namespace kzmlog
