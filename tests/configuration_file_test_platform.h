// What the two platforms can put in the place of the configuration that is no regular file.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "support/child.h"

namespace test {

/// Something that can be put in the place of a file.
struct Special {
    const char* name;
    void (*put)(const std::filesystem::path& place);
};
std::vector<Special> specials();

/// Makes a link to a file that a reader follows: on Linux a symbolic one, on Windows, where that takes a right of its
/// own, a hard one.
void link_file(const std::filesystem::path& file, const std::filesystem::path& link);

/// A process that hands a document to everybody who reads a pipe.
class PipedDocument {
  public:
    /// @param folder  in which the pipe may be made
    PipedDocument(const std::filesystem::path& folder, const std::string& document);
    /// The installation path below which the pipe is etc/cluster.xml.
    const std::string& install_path() const { return install_path_; }

  private:
    std::string install_path_;
    Child writer_;
};

}  // namespace test
