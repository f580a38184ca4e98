// A folder that is removed with its object, and small files in it.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace test {

class TemporaryFolder {
  public:
    TemporaryFolder();
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    const std::filesystem::path& path() const { return path_; }
    std::string string() const { return path_.string(); }
    /// Writes a file, and the folders above it.
    void write(const std::filesystem::path& name, std::string_view contents) const;

  private:
    std::filesystem::path path_;
};

/// Writes a text file; an existing file is overwritten.
void write_text(const std::filesystem::path& file, std::string_view text);
/// A file's contents, byte for byte; empty if the file does not exist.
std::string contents_of(const std::filesystem::path& file);

}  // namespace test
