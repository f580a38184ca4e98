#include "support/temporary_folder.h"

#include <atomic>
#include <fstream>
#include <iterator>

#include "support/child.h"

namespace test {

TemporaryFolder::TemporaryFolder() {
    static std::atomic<unsigned> made{0};
    path_ = std::filesystem::temp_directory_path() /
            ("shmnm-test-" + std::to_string(process_id()) + "-" + std::to_string(made++));
    std::filesystem::remove_all(path_);
    std::filesystem::create_directories(path_);
}

TemporaryFolder::~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

void TemporaryFolder::write(const std::filesystem::path& name, std::string_view contents) const {
    std::filesystem::create_directories((path_ / name).parent_path());
    write_text(path_ / name, contents);
}

void write_text(const std::filesystem::path& file, std::string_view text) {
    std::ofstream(file, std::ios::binary) << text;
}

std::string contents_of(const std::filesystem::path& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

}  // namespace test
