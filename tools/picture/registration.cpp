#include "picture/registration.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <limits>

#include "picture/error.h"

namespace picture {
namespace {

/// The priority of the first member until the others are registered: an extreme that no member of its kind has.
int64_t unfinished_priority(const ClusterMembers& members, const ResourceKind* kind) {
    const int64_t step = kind ? -1 : 1;
    int64_t priority = kind ? int64_t{std::numeric_limits<uint32_t>::max()} : std::numeric_limits<int32_t>::min();
    const auto has_it = [&](const ClusterMember& member) { return member.kind == kind && member.priority == priority; };
    while (std::any_of(members.begin(), members.end(), has_it)) priority += step;
    return priority;
}

/// The priority of a member of the region; nothing when there is no such member.
std::optional<int64_t> priority_in(const Picture& picture, const Member& member) {
    if (!member.kind) {
        const Server* const server = find_server(picture, member.name);
        return server ? std::optional<int64_t>(server->record.pri) : std::nullopt;
    }
    const Resource* const resource = find_resource(picture, member);
    return resource ? std::optional<int64_t>(resource->record.pri) : std::nullopt;
}

bool is_unfinished(const Picture& picture, const ClusterMembers& members, const ClusterMember& member) {
    return priority_in(picture, member) == unfinished_priority(members, member.kind);
}

void take_out(const ClusterMembers& added) {
    std::for_each(added.rbegin(), added.rend(), [](const Member& member) { remove(member); });
}

/// Adds those that are missing, or none. @param[in] first_priority  of the first
ClusterMembers add_missing(const ClusterMembers& members, std::optional<int64_t> first_priority) {
    ClusterMembers added;
    for (const ClusterMember& member : members) {
        const uint32_t result =
            add(member, added.empty() ? first_priority.value_or(member.priority) : member.priority).result;
        if (result == SHMNM_ERR_EXIST) continue;
        // A server whose columns cannot be opened stays in the table.
        if (result == SHMNM_OK || result == SHMNM_ERR_ADDSVSTAT) added.push_back(member);
        if (result == SHMNM_OK) continue;
        take_out(added);
        throw Error(ErrorKind::refused,
                    fmt::format("nothing was registered: cannot register {}: {}", to_text(member), meaning(result)));
    }
    return added;
}

}  // namespace

ClusterMembers missing_from(const Picture& picture, const ClusterMembers& members) {
    ClusterMembers missing;
    std::copy_if(members.begin(), members.end(), std::back_inserter(missing),
                 [&](const ClusterMember& member) { return !priority_in(picture, member); });
    return missing;
}

bool is_half_registered(const Picture& picture, const ClusterMembers& members) {
    return std::any_of(members.begin(), members.end(),
                       [&](const ClusterMember& member) { return is_unfinished(picture, members, member); });
}

ClusterMembers register_all(const ClusterMembers& members) {
    if (members.empty()) return {};
    ClusterMembers added = add_missing(members, unfinished_priority(members, members[0].kind));
    if (!added.empty()) expect_ok(set_priority(added[0], added[0].priority), added[0]);
    return added;
}

ClusterMembers register_missing(const Picture& picture, const ClusterMembers& members) {
    // A full table refuses even members that are already there.
    ClusterMembers added = add_missing(missing_from(picture, members), std::nullopt);
    for (const ClusterMember& member : members) {
        if (is_unfinished(picture, members, member)) expect_ok(set_priority(member, member.priority), member);
    }
    return added;
}

}  // namespace picture
