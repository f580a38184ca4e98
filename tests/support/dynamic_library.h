// Loads a shared library at run time, on both platforms.
#pragma once

#include <string>

#include "support/child.h"

namespace test {

class DynamicLibrary {
  public:
    explicit DynamicLibrary(const std::string& path);
    ~DynamicLibrary();
    DynamicLibrary(const DynamicLibrary&) = delete;
    DynamicLibrary& operator=(const DynamicLibrary&) = delete;

    bool loaded() const { return handle_ != nullptr; }
    const std::string& error() const { return error_; }
    /// An exported function; throws if there is none with that name.
    template <typename Function>
    Function* function(const char* name) const {
        return reinterpret_cast<Function*>(address(name));
    }
    /// Whether a library whose file name contains `name` is loaded in this process.
    static bool in_process(const std::string& name);

  private:
    using Address = void (*)();
    Address address(const char* name) const;

    void* handle_ = nullptr;
    std::string error_;
};

/// What a child whose load of a library was refused shows: on Linux it ended with 127, on Windows it reported that the
/// load failed (3) and went on.
void expect_refused_load(Child& child);
/// What the child wrote to its standard error.
extern const char* const line_of_refused_load;

/// The folder that this program's file lies in, with a separator at its end.
std::string own_folder();

}  // namespace test
