// The owner of the lock is killed: when does the next one have it?
#pragma once

#include "role.h"

namespace bench {

/// Takes the lock, says "locked", and waits to be killed.
template <typename Contestant>
void hold(const Part& part) {
    Contestant contestant(part.place);
    contestant.lock();
    say("locked");
    told();
}

/// Says "waiting", waits for the lock, and says when it had it on the monotonic clock.
template <typename Contestant>
void take_over(const Part& part) {
    Contestant contestant(part.place);
    say("waiting");
    contestant.lock();
    const uint64_t taken = now_ns();
    contestant.set_pair(Asked(part.cluster), 7);
    contestant.unlock();
    say(std::to_string(taken));
}

}  // namespace bench
