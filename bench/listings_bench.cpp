// Lists a resource's states on all servers, and the states of all resources on a server.
#include <algorithm>
#include <random>
#include <vector>

#include "measure.h"

namespace {

/// A buffer whose offset within its page differs between processes, because the offsets of source and destination can
/// double the time of a copy.
class Words {
  public:
    explicit Words(size_t count)
        : memory_(page + count), start_(std::random_device{}() % page / alignment * alignment) {}
    uint32_t* data() { return memory_.data() + start_; }

  private:
    static constexpr size_t page = 4096 / sizeof(uint32_t), alignment = 16 / sizeof(uint32_t);
    std::vector<uint32_t> memory_;
    size_t start_;
};

}  // namespace

void bench::listings(Measurement& measurement, const Cluster& cluster, Contestants& contestants) {
    const Asked asked(cluster);
    Words memory(max_servers);
    uint32_t* const words = memory.data();
    const auto servers = static_cast<size_t>(cluster.servers), resources = static_cast<size_t>(cluster.resources);
    // Each cell holds a different value.
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
        std::fill_n(words, max_servers, 0);
    };
    const auto row_is_right = [&](auto& who) {
        fill(who);
        bool right = who.row(asked, words) == servers;
        for (size_t i = 0; i < servers; ++i) right = right && words[i] == 1000 * (resources - 1) + i;
        return right;
    };
    const auto column_is_right = [&](auto& who) {
        fill(who);
        who.column(asked, words);
        bool right = true;
        for (size_t i = 0; i < resources; ++i) right = right && words[i] == 1000 * i + servers - 1;
        return right;
    };
    measurement.row("row/" + cluster.size_text(), contestants, row_is_right,
                    [asked, words](auto& who) { keep(who.row(asked, words)); });
    measurement.row("column/" + cluster.size_text(), contestants, column_is_right,
                    [asked, words](auto& who) { who.column(asked, words); });
}
