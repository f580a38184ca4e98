#include <windows.h>

#include <algorithm>

#include "console/console.h"
#include "wide_path.h"

namespace console {
namespace {

/// What a console shows for the numbers of the colours in escape sequences, with the console's own attributes for all
/// others.
WORD attributes_of(std::string_view numbers, WORD usual) {
    constexpr WORD colors = FOREGROUND_RED | FOREGROUND_GREEN | FOREGROUND_BLUE;
    const auto foreground = static_cast<WORD>(usual & colors), background = static_cast<WORD>(usual >> 4 & colors);
    const auto rest = static_cast<WORD>(usual & ~(colors | colors << 4));
    if (numbers == "1") return static_cast<WORD>(usual | FOREGROUND_INTENSITY);
    if (numbers == "7") return static_cast<WORD>(rest | foreground << 4 | background);
    if (numbers == "31") return static_cast<WORD>((usual & ~colors) | FOREGROUND_RED);
    if (numbers == "32") return static_cast<WORD>((usual & ~colors) | FOREGROUND_GREEN);
    return usual;
}

bool write_piece(HANDLE console, std::string_view text) {
    // Older consoles take no more than 64 KiB at once.
    constexpr size_t most = 8'192;
    const std::wstring wide = wide_path::to_wide(text);
    for (size_t at = 0; at < wide.size();) {
        size_t size = std::min(most, wide.size() - at);
        if (at + size < wide.size() && wide[at + size - 1] >= 0xD800 && wide[at + size - 1] < 0xDC00) --size;
        DWORD written = 0;
        if (!WriteConsoleW(console, wide.data() + at, static_cast<DWORD>(size), &written, nullptr) || written == 0) {
            return false;
        }
        at += written;
    }
    return true;
}

}  // namespace

// Attributes are shown by every console; escape sequences only by those that know them, and some accept them all the
// same and show them as text. Wide characters are shown whatever the console's code page is.
Written write_to_console(std::FILE* stream, std::string_view text) {
    const HANDLE console = GetStdHandle(stream == stdout ? STD_OUTPUT_HANDLE : STD_ERROR_HANDLE);
    CONSOLE_SCREEN_BUFFER_INFO before{};
    if (GetFileType(console) != FILE_TYPE_CHAR || !GetConsoleScreenBufferInfo(console, &before)) {
        return Written::is_no_console;
    }
    constexpr std::string_view begin = "\x1b[";
    bool is_written = true;
    while (!text.empty() && is_written) {
        const size_t size = std::min(text.find(begin), text.size());
        is_written = write_piece(console, text.substr(0, size));
        text.remove_prefix(size);
        if (text.empty()) break;
        const size_t end = std::min(text.find('m'), text.size() - 1);
        SetConsoleTextAttribute(console,
                                attributes_of(text.substr(begin.size(), end - begin.size()), before.wAttributes));
        text.remove_prefix(end + 1);
    }
    SetConsoleTextAttribute(console, before.wAttributes);
    return is_written ? Written::all : Written::not_all;
}

}  // namespace console
