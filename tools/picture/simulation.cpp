#include "picture/simulation.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>

#include "picture/error.h"
#include "picture/escape.h"
#include "picture/members.h"

namespace picture {

std::vector<uint32_t> failures_by_priority(const Picture& picture, const std::vector<std::string>& servers) {
    constexpr int32_t priority_limit = 1 << 20;
    std::map<int32_t, bool> failed;
    for (const std::string& name : servers) {
        const Server* const server = find_server(picture, name);
        if (!server) throw no_such_member(picture, {.type = "", .name = name});
        const int32_t pri = server->record.pri;
        if (pri < 0 || pri >= priority_limit) {
            throw Error(ErrorKind::refused,
                        fmt::format("cannot simulate server {}: its priority {} is not from 0 to {}", escaped(name),
                                    pri, priority_limit - 1));
        }
        failed[pri] = true;
    }
    for (const Server& server : picture.servers) {
        if (!failed.contains(server.record.pri)) continue;
        if (std::find(servers.begin(), servers.end(), server.name) != servers.end()) continue;
        throw Error(
            ErrorKind::shared_priority,
            fmt::format("cannot simulate by priority: server {} has the priority {} too and would be cut off with it",
                        escaped(server.name), server.record.pri));
    }
    std::vector<uint32_t> by_priority(failed.empty() ? 0 : static_cast<size_t>(failed.rbegin()->first) + 1);
    for (const auto& [pri, is_failed] : failed) by_priority[static_cast<size_t>(pri)] = is_failed;
    return by_priority;
}

}  // namespace picture
