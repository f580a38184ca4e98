// Copies of the live region as the tools make them, of a full cluster: 128 servers, 16 hb and 16 np resources.
//
//     copy_bench COPIES BYTES LOCK     BYTES: in_use or all; LOCK: always or if_needed
//
// Creates the region, and prints for each copy the microseconds that it took and those for which it held the lock.
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <string>

#include "full_cluster.h"
#include "picture/decode.h"
#include "picture/live.h"
#include "picture/platform.h"
#include "shmnm.h"

namespace {

using bench::expect;
using bench::resources;
using bench::servers;

void run(int argc, char** argv) {
    if (argc != 4) throw std::runtime_error("usage: copy_bench COPIES in_use|all always|if_needed");
    const picture::Bytes wanted = std::string(argv[2]) == "all" ? picture::Bytes::all : picture::Bytes::in_use;
    const bool always = std::string(argv[3]) == "always";
    bench::fill();
    picture::LiveRegion region({.may_skip_lock = !always});
    for (int left = std::atoi(argv[1]); left > 0; --left) {
        // A copy must show the last change.
        const auto written = static_cast<uint32_t>(left);
        expect(shmnm_setnprscsvstat("ping", "pingnp15", servers - 1, written));
        const uint64_t start_us = picture::platform::steady_clock_us();
        const picture::Snapshot copy = region.copy(wanted);
        const uint64_t us = picture::platform::steady_clock_us() - start_us;
        if (decode(copy).np.at(resources - 1).svstat.states.at(servers - 1) != written) {
            throw std::runtime_error("a copy has not shown the last change");
        }
        std::printf("%llu %llu\n", static_cast<unsigned long long>(us),
                    static_cast<unsigned long long>(copy.lock_held_us));
    }
    shmnm_delete();
}

}  // namespace

int main(int argc, char** argv) {
    try {
        run(argc, argv);
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "copy_bench: %s\n", error.what());
        return 1;
    }
}
