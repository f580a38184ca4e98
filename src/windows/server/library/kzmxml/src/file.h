// Reads a small file whole. Anything but a regular file is refused, because it might block its reader or never end.
#pragma once

#include <cstddef>
#include <string>

namespace kzmxml {

/// Reads a regular file of at most `limit` bytes. It never waits for another process.
/// @return whether all of it is in `text`
bool read_file(const std::string& path, size_t limit, std::string& text);

}  // namespace kzmxml
