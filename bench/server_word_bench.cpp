// Reads and writes a word of a server, by the server's name.
#include "measure.h"

void bench::server_word(Measurement& measurement, const Cluster& cluster, Contestants& contestants) {
    const Asked asked(cluster);
    const auto check = [&](auto& who) {
        who.set_server_word(asked.server, 41);
        who.set_server_word(Cluster::server(0), 43);
        const uint32_t first = who.server_word(asked.server);
        who.set_server_word(asked.server, 42);
        return first == 41 && who.server_word(asked.server) == 42 && who.server_word(Cluster::server(0)) == 43;
    };
    measurement.row("server_word_get/" + cluster.servers_text(), contestants, check,
                    [asked](auto& who) { keep(who.server_word(asked.server)); });
    measurement.row("server_word_set/" + cluster.servers_text(), contestants, check,
                    [asked](auto& who) { who.set_server_word(asked.server, 42); });
}
