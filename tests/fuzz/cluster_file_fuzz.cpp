// Fuzzes the cluster's configuration: each file is read, or has problems that name one of its lines in print.
#include <sys/mman.h>
#include <unistd.h>

#include <set>
#include <string>
#include <system_error>

#include "fuzz/input.h"
#include "picture/cluster_file.h"
#include "picture/error.h"

namespace {

using fuzz::require;

/// A file in memory, with another content for each input.
class MemoryFile {
  public:
    MemoryFile() : file_(memfd_create("cluster.xml", 0)) {
        if (file_ < 0) throw std::system_error(errno, std::generic_category(), "memfd_create");
    }
    std::string with(std::string_view text) {
        if (ftruncate(file_, 0) != 0 ||
            pwrite(file_, text.data(), text.size(), 0) != static_cast<ssize_t>(text.size())) {
            throw std::system_error(errno, std::generic_category(), "the file in memory");
        }
        return "/proc/self/fd/" + std::to_string(file_);
    }

  private:
    int file_;
};

bool is_printable(const std::string& text) {
    return std::all_of(text.begin(), text.end(), [](char byte) { return byte >= ' ' && byte <= '~'; });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static MemoryFile memory;
    const std::string_view text = fuzz::Input(data, size).rest();
    const std::string file = memory.with(text);
    const picture::CheckedClusterFile checked = picture::check_cluster_file(file);
    const auto lines = static_cast<uint32_t>(std::count(text.begin(), text.end(), '\n') + 1);
    uint32_t last = 1;
    for (const picture::ConfigurationProblem& problem : checked.problems) {
        const uint32_t off = fuzz::plants_fault() && checked.problems.size() > 1 ? lines : 0;
        require(problem.line >= last && problem.line + off <= lines);
        require(!problem.text.empty() && is_printable(problem.text));
        last = problem.line;
    }
    bool is_read = true;
    try {
        picture::read_cluster_file(file);
    } catch (const picture::Error& error) {
        is_read = false;
        require(error.kind == picture::ErrorKind::invalid_configuration && is_printable(error.what()));
    }
    require(is_read == checked.problems.empty());
    if (!is_read) return 0;
    const picture::Counts& counts = checked.file.counts;
    require(counts.servers >= 0 && counts.hb >= 0 && counts.np >= 0 && counts.fst >= 0);
    require(picture::Layout(counts).size <= UINT32_MAX);
    for (const picture::ClusterMember& member : checked.file.members) require(!member.name.empty());
    return 0;
}
