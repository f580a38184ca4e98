// What the two platforms implement for kzmutil_test.cpp.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace test {

/// The absolute path of this test program.
std::string own_executable();
/// How many kernel objects (Linux: descriptors) this process holds open.
size_t open_handles();
/// Releases a mutex; whether this thread owned it.
bool release_mutex(void* mutex);
/// A name that the kernel refuses.
extern const char* const impossible_name;

struct PathCase {
    const char *given, *expected;
};
/// Installation paths as they are set and as they are given out.
std::vector<PathCase> path_cases();

}  // namespace test
