// The owner of the lock is killed: how long does it take until the next process owns the lock?
#pragma once

#include "role.h"

namespace bench {

/// Takes the lock, reports "locked", and waits to be killed.
template <typename Contestant>
void hold(const Part& part) {
    Contestant contestant(part.place);
    contestant.lock();
    say("locked");
    told();
}

/// Reports "waiting", waits for the lock, and reports the monotonic time at which it got the lock.
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
