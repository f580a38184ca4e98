#include <gtest/gtest.h>
#include <windows.h>

#include <stdexcept>

#include "support/dynamic_library.h"

namespace test {

DynamicLibrary::DynamicLibrary(const std::string& path) : handle_(LoadLibraryA(path.c_str())) {
    if (!handle_) error_ = "error " + std::to_string(GetLastError());
}

DynamicLibrary::~DynamicLibrary() {
    if (handle_) FreeLibrary(static_cast<HMODULE>(handle_));
}

DynamicLibrary::Address DynamicLibrary::address(const char* name) const {
    const FARPROC symbol = GetProcAddress(static_cast<HMODULE>(handle_), name);
    if (!symbol) throw std::runtime_error(std::string(name) + " is not exported");
    return reinterpret_cast<Address>(reinterpret_cast<void*>(symbol));
}

bool DynamicLibrary::in_process(const std::string& name) {
    return GetModuleHandleA(name.c_str()) != nullptr;
}

const char* const line_of_refused_load = "";

std::string own_folder() {
    std::string path(4096, '\0');
    path.resize(GetModuleFileNameA(nullptr, path.data(), static_cast<DWORD>(path.size())));
    return path.substr(0, path.rfind('\\') + 1);
}

void expect_refused_load(Child& child) {
    EXPECT_EQ(child.reported(), 3u);
    EXPECT_EQ(child.wait(), 0);
}

}  // namespace test
