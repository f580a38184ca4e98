#include <dlfcn.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "support/dynamic_library.h"

namespace test {

DynamicLibrary::DynamicLibrary(const std::string& path) : handle_(dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL)) {
    if (!handle_) error_ = dlerror();
}

DynamicLibrary::~DynamicLibrary() {
    if (handle_) dlclose(handle_);
}

DynamicLibrary::Address DynamicLibrary::address(const char* name) const {
    void* const symbol = dlsym(handle_, name);
    if (!symbol) throw std::runtime_error(std::string(name) + " is not exported");
    return reinterpret_cast<Address>(symbol);
}

bool DynamicLibrary::in_process(const std::string& name) {
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        const size_t file = line.rfind('/');
        if (file != std::string::npos && line.find(name, file) != std::string::npos) return true;
    }
    return false;
}

const char* const line_of_refused_load = "kzmshmnm: not loaded: no mutex oru_kzmshmnm_lock (error 5)\n";

std::string own_folder() {
    return std::filesystem::read_symlink("/proc/self/exe").parent_path().string() + "/";
}

void expect_refused_load(Child& child) {
    EXPECT_EQ(child.wait(), 127);
}

}  // namespace test
