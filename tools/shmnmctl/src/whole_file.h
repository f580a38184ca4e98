// Files that are written as a whole or not at all.
#pragma once

#include <string>
#include <string_view>

namespace shmnmctl {

/// Writes a file beside the one of this name and puts it in its place, so that a full disk or a killed process leaves
/// an older file as it was. On Linux it keeps the older file's permissions. What is no file, such as a pipe or a
/// device, is written to directly.
/// @param[in] name  in UTF-8 on Windows
/// @throws Failure  it cannot be written, with the reason
void write_whole_file(const std::string& name, std::string_view bytes);

}  // namespace shmnmctl
