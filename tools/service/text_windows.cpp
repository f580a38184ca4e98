#include "service/text_windows.h"

#include <windows.h>

namespace service {

std::wstring wide(const std::string& text) {
    const int size = static_cast<int>(text.size());
    std::wstring result(static_cast<size_t>(MultiByteToWideChar(CP_ACP, 0, text.data(), size, nullptr, 0)), L'\0');
    MultiByteToWideChar(CP_ACP, 0, text.data(), size, result.data(), static_cast<int>(result.size()));
    return result;
}

std::string narrow(const std::wstring& text) {
    const int size = static_cast<int>(text.size());
    const int length = WideCharToMultiByte(CP_ACP, 0, text.data(), size, nullptr, 0, nullptr, nullptr);
    std::string result(static_cast<size_t>(length), '\0');
    WideCharToMultiByte(CP_ACP, 0, text.data(), size, result.data(), length, nullptr, nullptr);
    return result;
}

}  // namespace service
