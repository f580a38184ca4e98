// A resource's words on all servers, and a server's words of all resources.
#include <vector>

#include "measure.h"

void bench::listings(Measurement& measurement, const Cluster& cluster, Contestants& contestants) {
    const Asked asked(cluster);
    std::vector<uint32_t> words(max_servers);
    const auto servers = static_cast<size_t>(cluster.servers), resources = static_cast<size_t>(cluster.resources);
    // Each cell holds a value of its own.
    const auto fill = [&](auto& who) {
        for (int32_t resource = 0; resource < cluster.resources; ++resource) {
            for (int32_t server = 0; server < cluster.servers; ++server) {
                Asked cell = asked;
                cell.resource = Cluster::resource(resource);
                cell.server = Cluster::server(server);
                cell.priority = Cluster::priority(server);
                who.set_pair(cell, static_cast<uint32_t>(1000 * resource + server));
            }
        }
        words.assign(max_servers, 0);
    };
    const auto row_is_right = [&](auto& who) {
        fill(who);
        bool right = who.row(asked, words.data()) == servers;
        for (size_t i = 0; i < servers; ++i) right = right && words[i] == 1000 * (resources - 1) + i;
        return right;
    };
    const auto column_is_right = [&](auto& who) {
        fill(who);
        who.column(asked, words.data());
        bool right = true;
        for (size_t i = 0; i < resources; ++i) right = right && words[i] == 1000 * i + servers - 1;
        return right;
    };
    measurement.row("row/" + cluster.size_text(), contestants, row_is_right,
                    [asked, words = words.data()](auto& who) { keep(who.row(asked, words)); });
    measurement.row("column/" + cluster.size_text(), contestants, column_is_right,
                    [asked, words = words.data()](auto& who) { who.column(asked, words); });
}
