// Copies the whole picture while it holds the lock.
#include <algorithm>
#include <vector>

#include "measure.h"

void bench::picture(Measurement& measurement, const Cluster& cluster, Contestants& contestants) {
    const Asked asked(cluster);
    size_t size = 0;
    contestants.each([&](auto& who) { size = std::max(size, who.picture_size()); });
    std::vector<uint8_t> bytes(size);
    // A changed word must be visible in the next picture.
    const auto check = [&](auto& who) {
        who.set_pair(asked, 41);
        const size_t used = who.picture(bytes.data(), bytes.size());
        const std::vector<uint8_t> before(bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(used));
        who.set_pair(asked, 42);
        const bool same_size = used > 0 && who.picture(bytes.data(), bytes.size()) == used;
        return same_size && !std::equal(before.begin(), before.end(), bytes.begin());
    };
    measurement.row("picture/" + cluster.size_text(), contestants, check,
                    [data = bytes.data(), room = bytes.size()](auto& who) {
                        who.lock();
                        keep(who.picture(data, room));
                        who.unlock();
                    });
}
