// What the two platforms implement for child.cpp.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "support/child.h"

namespace test {

struct Child::Process {
    Process() = default;
    virtual ~Process() = default;
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;
    /// Reads exactly that many bytes of what the child writes; false when it ended before.
    virtual bool read(void* data, size_t size) = 0;
    virtual bool write(const void* data, size_t size) = 0;
    virtual void kill() = 0;
    virtual int wait() = 0;
    virtual uint32_t id() const = 0;
};

/// Starts this executable again with these arguments, its standard input and output being pipes to this process.
std::unique_ptr<Child::Process> start_process(const std::vector<std::string>& arguments);
/// Replaces (or, on Windows, wraps) this process by itself, with the environment as it is now; the exit status.
int run_again(int argc, char** argv);

bool read_from_parent(void* data, size_t size);
bool write_to_parent(const void* data, size_t size);
[[noreturn]] void end_process(int status);

}  // namespace test
