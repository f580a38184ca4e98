#include "whole_file.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <random>
#include <system_error>

#include "failure.h"
#include "picture/escape.h"
#include "picture/platform.h"

namespace shmnmctl {
namespace {

namespace fs = std::filesystem;

[[noreturn]] void fail(const std::string& name, const std::string& reason) {
    throw Failure(Exit::failed, fmt::format("cannot write {}: {}", shown_file(name), reason));
}

/// @return 0, or the reason as in errno
int write_all(const std::string& name, std::string_view bytes) {
    std::FILE* const file = platform::open_to_write(name);
    if (!file) return errno;
    errno = 0;
    int reason = std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size() ? 0 : errno;
    // Some file systems tell of a full disk only now.
    if (std::fclose(file) != 0 && reason == 0) reason = errno;
    return reason;
}

}  // namespace

void write_whole_file(const std::string& name, std::string_view bytes) {
    std::error_code error;
    const fs::file_status older = fs::status(platform::file(name), error);
    const bool is_new = older.type() == fs::file_type::not_found;
    if (!is_new && older.type() != fs::file_type::regular) {
        if (const int reason = write_all(name, bytes)) fail(name, std::strerror(reason));
        return;
    }
    std::string target = name;
    if (fs::is_symlink(platform::file(name), error)) {
        const std::u8string linked = fs::canonical(platform::file(name), error).u8string();
        target.assign(linked.begin(), linked.end());
    }
    const std::string part = fmt::format("{}.{:08x}.part", target, std::random_device()());
    const fs::path part_path = platform::file(part);
    // Nobody else reads the bytes before the permissions are those of the older file.
    int reason = write_all(part, "");
    std::error_code failed;
    if (reason == 0 && !is_new) fs::permissions(part_path, older.permissions(), failed);
    if (reason == 0 && !failed) reason = write_all(part, bytes);
    if (reason == 0 && !failed) fs::rename(part_path, platform::file(target), failed);
    if (reason != 0 || failed) {
        fs::remove(part_path, error);
        fail(name, reason != 0 ? std::strerror(reason) : failed.message());
    }
}

}  // namespace shmnmctl
