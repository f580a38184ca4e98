// How a program of Windows gets its arguments: one line, from which it reads them again. Free of system headers.
#pragma once

#include <string>
#include <vector>

namespace service {

/// An argument in quotes. Quotes in it, and the backslashes before any quote, are escaped by a backslash each.
std::wstring quoted(const std::wstring& argument);

/// The command line of a program. The program is always quoted: the system would look for an unquoted
/// C:\Program Files\x.exe as C:\Program.exe first. Arguments are quoted where they must be.
std::wstring command_line(const std::wstring& program, const std::vector<std::wstring>& arguments);

/// Whether the service manager was to start a program with these arguments, even if they are otherwise wrong.
bool is_service(const std::vector<std::string>& arguments);

}  // namespace service
