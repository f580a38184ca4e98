// The members of the cluster as the configuration file names them: what "serve" registers.
#pragma once

#include <cstdint>
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

/// etc/cluster.xml below the installation path.
std::string installed_cluster_file();

/// @throws Error  the file cannot be read, or an element of it is invalid; the line names the element
ClusterFile read_cluster_file(const std::string& file);

}  // namespace picture
