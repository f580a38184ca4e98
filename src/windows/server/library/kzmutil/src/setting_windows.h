// Variables that all processes of an installation share, whatever their session and account: etc\environment.
#pragma once

#include <cstdint>
#include <string>

namespace kzmutil {

/// Reads a variable from the process's environment or, if it is unset there, from a line NAME=VALUE of the file
/// etc\environment below the installation path. Spaces and quotes around the value do not belong to it.
/// @param[in]  installation  called only if the file is needed
/// @param[out] value         empty if the variable is set nowhere or there is no such file
/// @return 0, or why the file cannot be read. Without it, processes would use different names, so nobody may go on.
uint32_t read_setting(const char* name, std::string (*installation)(), std::string& value);

}  // namespace kzmutil
