// Text for standard output and standard error, whatever they are. Pipes, files and the terminals of Linux take UTF-8 as
// it is. A console of Windows gets wide characters, which it shows whatever its code page is, and colours as
// attributes.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>

namespace console {

enum class Written { all, not_all, is_no_console };
/// Writes UTF-8 with the escape sequences of colours to standard output or standard error if that is a console of
/// Windows, which takes neither as bytes.
Written write_to_console(std::FILE* stream, std::string_view text);

/// Writes UTF-8 in one piece to standard output or standard error, a console or not, and flushes it.
/// @return "", or why not all of it is written
std::string write(std::FILE* stream, std::string_view text);

}  // namespace console
