// A memory disk, /dev/shm, that only the running process and its children see.
#pragma once

#include <string>

namespace test {

/// Mounts it with these options. A user other than root becomes root of a user namespace for that. Call it in a forked
/// process: it is for the rest of the process's life.
void use_private_memory_disk(const std::string& options = "size=64m");

}  // namespace test
