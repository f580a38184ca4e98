// What differs between the platforms: kernel calls with complete names, the environment, this library's own file.
// A function that fails returns null, or an empty text, and leaves the reason in the thread's last error.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace kzmutil {

uint32_t last_error() noexcept;
void set_last_error(uint32_t error) noexcept;

/// The present value of an environment variable; empty if it is unset or if the program has more rights than its
/// caller.
std::string environment(const char* name);
/// The absolute path of the file that this library was loaded from.
std::string own_file();
/// The characters that separate the parts of a path.
extern const std::string_view path_separators;
/// The number of characters at the start of a path that name its root: 1 for "/usr", 0 for "usr".
size_t root_length(std::string_view path) noexcept;

/// The installation's value of a variable; empty if it has none.
/// @throws Unknown  the value cannot be read
std::string setting(const char* name);
struct Unknown {
    uint32_t error;
};

/// Creates or opens an object. After a success the last error is 0 if the object is new and 183 if it existed.
void* create_mutex(const char* name);
void* create_mapping(uint32_t protect, uint64_t size, const char* name);
/// Opens an existing mapping; a success may change the last error.
void* open_mapping(uint32_t access, bool inherit, const char* name);

}  // namespace kzmutil
