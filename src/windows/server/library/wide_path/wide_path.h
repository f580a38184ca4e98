// Text and paths for the wide calls of Windows, which take every character and, with a prefix, paths of every length.
// The project's own text is UTF-8.
#pragma once

#include <windows.h>

#include <algorithm>
#include <string>
#include <string_view>

namespace wide_path {

/// Text that is not UTF-8 is taken for text in the system's code page: an installation may have its own kzmutil.
inline std::wstring to_wide(std::string_view text) {
    const auto size = static_cast<int>(text.size());
    const auto convert = [&](UINT code_page, DWORD flags, wchar_t* buffer, int length) {
        return MultiByteToWideChar(code_page, flags, text.data(), size, buffer, length);
    };
    UINT code_page = CP_UTF8;
    DWORD flags = MB_ERR_INVALID_CHARS;
    int length = convert(code_page, flags, nullptr, 0);
    if (length == 0) length = convert(code_page = CP_ACP, flags = 0, nullptr, 0);
    std::wstring wide(static_cast<size_t>(length), L'\0');
    convert(code_page, flags, wide.data(), length);
    return wide;
}

inline std::string to_utf8(std::wstring_view wide) {
    const auto size = static_cast<int>(wide.size());
    const int length = WideCharToMultiByte(CP_UTF8, 0, wide.data(), size, nullptr, 0, nullptr, nullptr);
    std::string text(static_cast<size_t>(length), '\0');
    WideCharToMultiByte(CP_UTF8, 0, wide.data(), size, text.data(), length, nullptr, nullptr);
    return text;
}

/// Calls `fill(buffer, size)` with growing buffers until the text fits. `fill` returns the length of its text, or at
/// least `size` if the text does not fit, or 0 on failure, which gives an empty text.
template <typename Fill>
std::wstring fill_text(Fill fill) {
    std::wstring text(MAX_PATH, L'\0');
    for (;;) {
        const DWORD length = fill(text.data(), static_cast<DWORD>(text.size()));
        if (length < text.size()) {
            text.resize(length);
            return text;
        }
        text.resize(std::max<size_t>(length + 1, text.size() * 2));
    }
}

/// The path, made absolute and with the prefix that lifts the system's limit of 260 characters if it, or a file some
/// names below it, could exceed that limit. Behind the prefix the system replaces no slashes and follows no "..".
inline std::wstring unlimited(const std::wstring& path) {
    constexpr size_t harmless = 180;
    if (path.size() < harmless && path.find(L':') != std::wstring::npos) return path;
    std::wstring full =
        fill_text([&](wchar_t* buffer, DWORD size) { return GetFullPathNameW(path.c_str(), size, buffer, nullptr); });
    if (full.size() < harmless || full.starts_with(L"\\\\?\\") || full.starts_with(L"\\\\.\\")) return path;
    std::replace(full.begin(), full.end(), L'/', L'\\');
    return full.starts_with(L"\\\\") ? L"\\\\?\\UNC" + full.substr(1) : L"\\\\?\\" + full;
}

/// A path in UTF-8 for a wide call.
inline std::wstring for_call(std::string_view path) {
    return unlimited(to_wide(path));
}

}  // namespace wide_path
