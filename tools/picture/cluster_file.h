// The cluster's configuration as an operator means it: the counts and the members that "serve" registers. What the
// library would accept but nobody can mean is reported, with its line.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "picture/layout.h"
#include "picture/members.h"

namespace picture {

struct ClusterMember : Member {
    int64_t priority = 0;
};

struct ClusterFile {
    Counts counts;
    std::vector<ClusterMember> members;  ///< in the order of the file
};

/// Something in the configuration with which the cluster cannot work, and what to do about it.
struct ConfigurationProblem {
    uint32_t line;
    std::string text;  ///< printable
};

struct CheckedClusterFile {
    ClusterFile file;  ///< without what is in doubt
    std::vector<ConfigurationProblem> problems;
};

/// etc/cluster.xml below the installation path.
std::string installed_cluster_file();

/// @throws Error  the file cannot be read
CheckedClusterFile check_cluster_file(const std::string& file);

/// @throws Error  the file cannot be read, or has problems; the message has the first one and its line
ClusterFile read_cluster_file(const std::string& file);

/// What is wrong with the size of a region with these counts on a machine with so many bytes of memory; nothing if it
/// is right.
std::optional<std::string> size_problem(const Counts& counts, uint64_t memory);

}  // namespace picture
