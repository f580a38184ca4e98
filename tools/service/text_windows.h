// Text of the programs as the system's calls take it, and back.
#pragma once

#include <string>

namespace service {

std::wstring wide(const std::string& text);
std::string narrow(const std::wstring& text);

}  // namespace service
