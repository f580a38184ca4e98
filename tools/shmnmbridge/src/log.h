// The log: lines on standard error, as the service manager expects them.
#pragma once

#include <string>

namespace bridge {

/// @param[in] line  without its end
void log(const std::string& line);

}  // namespace bridge
