// Takes and releases the free lock, alone and around setting a word.
#include "measure.h"

void bench::lock(Measurement& measurement, const Cluster& cluster, Contestants& contestants) {
    const Asked asked(cluster);
    const auto check = [&](auto& who) {
        who.set_pair(asked, 41);
        who.lock();
        who.set_pair(asked, 42);
        who.unlock();
        return who.pair(asked) == 42;
    };
    if (cluster.servers <= 4) {
        measurement.row("lock", contestants, check, [](auto& who) {
            who.lock();
            who.unlock();
        });
    }
    measurement.row("locked_set/" + cluster.size_text(), contestants, check, [asked](auto& who) {
        who.lock();
        who.set_pair(asked, 42);
        who.unlock();
    });
}
