// Two processes set and get the same word under the lock, as fast as they can. The row tells how many rounds they make
// together, how evenly the rounds are shared, and the longest wait for the lock.
#pragma once

#include <algorithm>

#include "role.h"

namespace bench {

/// ARGUMENT: how many milliseconds to run. Reports "ready", waits for the parent's word, then reports the number of
/// rounds and the longest wait in nanoseconds.
template <typename Contestant>
void hammer(const Part& part) {
    Contestant contestant(part.place);
    const Asked asked(part.cluster);
    uint64_t rounds = 0, longest_wait = 0, wrong = 0;
    say("ready");
    if (!told()) return;
    const uint64_t end = now_ns() + part.number(0) * 1'000'000;
    const auto own = static_cast<uint32_t>(now_ns() << 1);
    for (uint64_t before = now_ns(); before < end; before = now_ns()) {
        contestant.lock();
        longest_wait = std::max(longest_wait, now_ns() - before);
        const uint32_t value = own + static_cast<uint32_t>(rounds);
        contestant.set_pair(asked, value);
        if (contestant.pair(asked) != value) ++wrong;
        contestant.unlock();
        ++rounds;
    }
    say(wrong > 0 ? "wrong" : std::to_string(rounds) + " " + std::to_string(longest_wait));
    told();
}

}  // namespace bench
