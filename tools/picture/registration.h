// The registration of the configuration's members. A region that a killed process left half registered is told from one
// whose members an operator removed: the first member has a priority of its own until the others are registered.
#pragma once

#include <vector>

#include "picture/cluster_file.h"
#include "picture/decode.h"

namespace picture {

using ClusterMembers = std::vector<ClusterMember>;

/// Those that the region does not have, in the order of the configuration.
ClusterMembers missing_from(const Picture& picture, const ClusterMembers& members);

/// Whether a process was killed while it registered these members in a new region.
bool is_half_registered(const Picture& picture, const ClusterMembers& members);

// Both register all of the members that are missing or, if one is refused, none. The caller holds the lock and has
// mapped the region.

/// Registers the members in a new region. While that is half done, is_half_registered() holds.
/// @return the members that were registered
/// @throws Error  one is refused
ClusterMembers register_all(const ClusterMembers& members);

/// Registers what is missing, and touches no priority of what is there but the one that a killed registration left.
ClusterMembers register_missing(const Picture& picture, const ClusterMembers& members);

}  // namespace picture
