#include "setting_windows.h"

#include <windows.h>

#include <memory>
#include <string_view>

#include "wide_path.h"

namespace kzmutil {
namespace {

constexpr DWORD largest_file = 1 << 16;

std::string_view trimmed(std::string_view text) {
    constexpr std::string_view spaces = " \t\r";
    const size_t first = text.find_first_not_of(spaces);
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(spaces) + 1 - first);
}

std::string_view unquoted(std::string_view value) {
    const bool is_quoted =
        value.size() > 1 && value.front() == value.back() && (value.front() == '"' || value.front() == '\'');
    return is_quoted ? value.substr(1, value.size() - 2) : value;
}

/// The value of the last line that sets `name`, as a shell would have it. Other lines are comments.
std::string value_in(std::string_view text, std::string_view name) {
    constexpr std::string_view byte_order_mark = "\xEF\xBB\xBF";
    if (text.starts_with(byte_order_mark)) text.remove_prefix(byte_order_mark.size());
    std::string value;
    while (!text.empty()) {
        const std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(line.size() < text.size() ? line.size() + 1 : line.size());
        const size_t equals = line.find('=');
        if (equals == std::string_view::npos || trimmed(line.substr(0, equals)) != name) continue;
        value = unquoted(trimmed(line.substr(equals + 1)));
    }
    return value;
}

struct CloseFile {
    void operator()(HANDLE file) const noexcept { CloseHandle(file); }
};

uint32_t read_small_file(const std::wstring& path, std::string& text) {
    const HANDLE opened =
        CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                    OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (opened == INVALID_HANDLE_VALUE) {
        const DWORD error = GetLastError();
        return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND ? ERROR_SUCCESS : error;
    }
    const std::unique_ptr<void, CloseFile> file(opened);
    text.resize(largest_file + 1);
    DWORD size = 0;
    if (GetFileType(opened) != FILE_TYPE_DISK) return ERROR_BAD_FILE_TYPE;
    if (!ReadFile(opened, text.data(), largest_file + 1, &size, nullptr)) return GetLastError();
    text.resize(size);
    return size > largest_file ? ERROR_FILE_TOO_LARGE : ERROR_SUCCESS;
}

}  // namespace

uint32_t read_setting(const char* name, std::string (*installation)(), std::string& value) {
    const std::wstring wide = wide_path::to_wide(name);
    value = wide_path::to_utf8(wide_path::fill_text(
        [&](wchar_t* buffer, DWORD size) { return GetEnvironmentVariableW(wide.c_str(), buffer, size); }));
    if (!value.empty()) return ERROR_SUCCESS;
    const std::string path = installation();
    if (path.empty()) return GetLastError();
    std::string text;
    const uint32_t error = read_small_file(wide_path::for_call(path + "\\etc\\environment"), text);
    if (error == ERROR_SUCCESS) value = value_in(text, name);
    return error;
}

}  // namespace kzmutil
