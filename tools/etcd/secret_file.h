// Secrets in files: passwords and keys. A file that others could read, or have written, is refused.
#pragma once

#include <string>

namespace etcd {

/// Reads a file of this process's user that nobody else may read or write.
/// @throws Error  it cannot be read, or others may use it
std::string read_secret_file(const std::string& name);

/// The same, without the end of its only line.
std::string read_password_file(const std::string& name);

}  // namespace etcd
