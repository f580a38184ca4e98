#include "picture/installation.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace picture {
namespace {

constexpr const char* around_values = " \t\r";

std::string trimmed(const std::string& text) {
    const size_t begin = text.find_first_not_of(around_values);
    return begin == std::string::npos ? "" : text.substr(begin, text.find_last_not_of(around_values) + 1 - begin);
}

/// The service manager reads the same file and allows quotes around a value.
std::string unquoted(const std::string& value) {
    const bool is_quoted =
        value.size() > 1 && (value.front() == '"' || value.front() == '\'') && value.front() == value.back();
    return is_quoted ? value.substr(1, value.size() - 2) : value;
}

}  // namespace

void use_packaged_installation() {
    // Variables of two installations are never mixed.
    if (const char* const chosen = std::getenv("KZM_INSTALL_PATH"); chosen && *chosen) return;
    // setenv() below would keep an empty value.
    unsetenv("KZM_INSTALL_PATH");
    std::error_code unknown;
    const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe", unknown);
    std::ifstream file(program.parent_path().parent_path() / "share/shmnm/environment");
    for (std::string line; std::getline(file, line);) {
        const size_t equals = line.find('=');
        const std::string name = trimmed(line.substr(0, equals));
        if (equals == std::string::npos || !name.starts_with("KZM")) continue;
        setenv(name.c_str(), unquoted(trimmed(line.substr(equals + 1))).c_str(), 0);
    }
}

}  // namespace picture
