// Reads and writes the state of a resource on a server: the server by its priority, the resource by its type and name.
#include "measure.h"

void bench::pair_word(Measurement& measurement, const Cluster& cluster, Contestants& contestants) {
    const Asked asked(cluster);
    Asked other = asked;
    other.resource = Cluster::resource(0);
    const auto check = [&](auto& who) {
        who.set_pair(asked, 41);
        who.set_pair(other, 43);
        const uint32_t first = who.pair(asked);
        who.set_pair(asked, 42);
        return first == 41 && who.pair(asked) == 42 && who.pair(other) == 43;
    };
    measurement.row("pair_get/" + cluster.size_text(), contestants, check,
                    [asked](auto& who) { keep(who.pair(asked)); });
    measurement.row("pair_set/" + cluster.size_text(), contestants, check,
                    [asked](auto& who) { who.set_pair(asked, 42); });
}
