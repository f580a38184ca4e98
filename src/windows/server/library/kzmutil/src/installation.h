// Where the installation is.
#pragma once

#include <string>

namespace kzmutil {

/// Empty, with the reason in the last error, if the library's own file is not known.
std::string install_path();

}  // namespace kzmutil
