// Makes numbered changes of the region, each under the lock for itself, over several words in turn: numbered_writer
// COUNT Change n (from 0 on) writes n / 5 + 1 to word n % 5. It says "ready" when it has attached, begins when it is
// told a line, says "done", and ends when its standard input does.
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "shmnm.h"

namespace {

/// In the order of the picture: cluster/clstat, servers/alpha/pingstat, servers/beta/holdstat,
/// hb/lan/lanhb1/svstat/gamma, np/ping/pingnp1/stat.
uint32_t write(uint64_t word, uint32_t number) {
    switch (word) {
        case 0:
            return shmnm_setclstat(number);
        case 1:
            return shmnm_setpingstat("alpha", number);
        case 2:
            return shmnm_setholdstat("beta", number);
        case 3:
            return shmnm_sethbrscsvstat("lan", "lanhb1", 2, number);
        default:
            return shmnm_setnprscstat("ping", "pingnp1", number);
    }
}

void say(const char* text) {
    std::puts(text);
    std::fflush(stdout);
}

[[noreturn]] void fail(const char* what) {
    std::fprintf(stderr, "numbered_writer: %s\n", what);
    std::exit(1);
}

}  // namespace

int main(int argc, char** argv) {
    constexpr uint64_t words = 5;
    if (argc != 3) fail("tell how many changes, and the pause between two");
    const uint64_t count = std::strtoull(argv[1], nullptr, 10);
    const std::chrono::microseconds pause(std::strtoul(argv[2], nullptr, 10));
    if (shmnm_attach() != SHMNM_OK) fail("no region to attach to");
    say("ready");
    if (std::getchar() == EOF) fail("not told to begin");
    for (uint64_t change = 0; change < count; ++change) {
        if (shmnm_rwlock(60'000) != SHMNM_OK) fail("the lock does not come");
        const uint32_t result = write(change % words, static_cast<uint32_t>(change / words + 1));
        shmnm_rwunlock();
        if (result != SHMNM_OK) fail("a change is refused");
        if (pause.count() > 0) std::this_thread::sleep_for(pause);
    }
    say("done");
    while (std::getchar() != EOF) {
    }
    shmnm_detach();
    return 0;
}
