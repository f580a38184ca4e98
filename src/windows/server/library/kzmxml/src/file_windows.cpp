#include "file.h"

#include <windows.h>

#include <memory>

#include "wide_path.h"

namespace kzmxml {
namespace {

struct Close {
    void operator()(HANDLE file) const noexcept { CloseHandle(file); }
};

/// Pipes and consoles have another type. Folders and volumes have the type of a disk too, but folders are marked as
/// such, and volumes give no information about a file.
bool is_regular(HANDLE file) {
    BY_HANDLE_FILE_INFORMATION found{};
    return GetFileType(file) == FILE_TYPE_DISK && GetFileInformationByHandle(file, &found) &&
           (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0;
}

}  // namespace

bool read_file(const std::string& path, size_t limit, std::string& text) {
    const HANDLE opened = CreateFileW(wide_path::for_call(path).c_str(), GENERIC_READ,
                                      FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                                      FILE_ATTRIBUTE_NORMAL, nullptr);
    if (opened == INVALID_HANDLE_VALUE) return false;
    const std::unique_ptr<void, Close> file(opened);
    if (!is_regular(file.get())) return false;
    char part[4096];
    for (;;) {
        DWORD bytes = 0;
        if (!ReadFile(file.get(), part, sizeof part, &bytes, nullptr)) return false;
        if (bytes == 0) return true;
        text.append(part, bytes);
        if (text.size() > limit) return false;
    }
}

}  // namespace kzmxml
