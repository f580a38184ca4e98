// The lock, step by step: threads take it, with and without a limit of time, once or twice, and release it, rightly or
// not. A step is one access to shared memory or what the kernel does in one go. Between any two steps a thread may be
// killed; a new one with the same id takes its place.
//
// A stop needs no step of its own: in some of the orders that are visited, a thread makes no step for as long as one
// likes. That it never makes one again is covered by looking, in every state, at what each thread can do all alone.
#include <algorithm>
#include <array>
#include <string>
#include <utility>

#include "models.h"

namespace models {
namespace {

constexpr unsigned most_threads = 4, most_depth = 2;

constexpr const char* one_owner = "there is one owner at a time";
constexpr const char* death_told_once = "each death of an owner is told once";
constexpr const char* wakes_suffice = "nobody sleeps beside a free lock while no wake is lost";
constexpr const char* found_by_oneself = "whoever waits beside a free lock takes it without help from others";
constexpr const char* ends_taken = "no wait runs out of time beside a free lock";
constexpr const char* owner_releases = "the owner can release and nobody else";
constexpr const char* name_is_owners = "the name in the page is the owner's";
constexpr const char* depth_is_right = "the depth is how often the owner took the lock";
constexpr const char* nothing_pending = "the kernel has no pointer to the lock after a call";
constexpr const char* stays_usable = "the lock stays usable";

enum LockMutant : unsigned {
    faithful,
    no_slices,
    no_try_after_a_time_out,
    waiter_does_not_mark,
    woken_taker_drops_the_mark,
    take_over_drops_the_mark,
    take_over_is_not_made_consistent,
    take_over_keeps_the_mark_of_the_death,
    take_over_keeps_the_depth,
    release_writes_before_the_word_decides,
    release_wakes_nobody,
};
constexpr Mutant mutants[] = {
    {"no_slices", found_by_oneself},
    {"no_try_after_a_time_out", nothing_pending},
    {"waiter_does_not_mark", wakes_suffice},
    {"woken_taker_drops_the_mark", wakes_suffice},
    {"take_over_drops_the_mark", wakes_suffice},
    {"take_over_is_not_made_consistent", stays_usable},
    {"take_over_keeps_the_mark_of_the_death", death_told_once},
    {"take_over_keeps_the_depth", depth_is_right},
    {"release_writes_before_the_word_decides", owner_releases},
    {"release_wakes_nobody", wakes_suffice},
};

// The lock's word: 0 or the owner's id, with the kernel's two marks.
constexpr uint8_t waiters = 8, died = 16;
constexpr uint8_t id(uint8_t word) {
    return word & 7;
}

enum class At : uint8_t {
    home,         ///< outside
    try_swap,     ///< pthread_mutex_trylock(): has read the word
    try_failed,   ///< is to forget the pending operation
    slice,        ///< about to begin pthread_mutex_clocklock()
    swap,         ///< has read the word
    sleep,        ///< is to call futex()
    asleep,       ///< in futex(), in the queue or woken
    read_again,   ///< is to read the word
    taken_over,   ///< owns it, is to forget the pending operation
    consistent,   ///< is to call pthread_mutex_consistent()
    taken,        ///< owns it, is to forget the pending operation
    name,         ///< is to write its name
    taken_again,  ///< owned it before, is to forget the pending operation
    release,      ///< has seen that the lock is its own
    unlock,       ///< in pthread_mutex_unlock(), is to give the word back
    wake,         ///< is to wake a sleeper
    unlocked,     ///< is to forget the pending operation
};

struct Thread {
    At at = At::home;
    uint8_t seen = 0;      ///< the word as it was last read
    uint8_t owns = 0;      ///< how often
    bool limited = false;  ///< the wait has a limit, which may be reached at any time
    bool slept = false;    ///< in this slice; so others may sleep too
    bool queued = false;   ///< in the kernel's queue of sleepers; a stopped one stays there
    bool pending = false;  ///< the robust list's pending operation: at this thread's end the kernel looks at the word
    bool owes = false;     ///< is to wake a sleeper, or was woken and has not looked yet
    bool stopped = false;  ///< for ever
    bool operator==(const Thread&) const = default;
};

class Lock {
  public:
    struct State {
        std::array<Thread, most_threads> threads;
        uint8_t word = 0, name = 0, depth = 0;
        uint8_t owner = 0;          ///< who really owns it
        bool untold = false;        ///< an owner died and nobody was told
        bool inconsistent = false;  ///< taken over, and not made consistent yet
        bool unusable = false;      ///< released like that
        bool wake_lost = false;     ///< one that owed a wake was killed when the lock had another owner already
        uint8_t deaths = 0, stops = 0;
    };

    Lock(const Size& size, LockMutant mutant) : size_(size), mutant_(mutant) {}

    static State first() { return {}; }
    static std::string name_of(unsigned thread) { return "T" + std::to_string(thread); }

    template <typename Take>
    void steps(const State& state, const Take& take) const {
        for (uint8_t me = 1; me <= size_.processes; ++me) {
            if (!state.threads[me - 1].stopped) {
                step_of(state, me, take);
                stop(state, me, take);
            }
            if (state.deaths < size_.deaths) kill(state, me, take);
        }
    }

    const char* broken_in(const State& state, bool quiet) const {
        for (uint8_t me = 1; me <= size_.processes; ++me) {
            const Thread& self = state.threads[me - 1];
            if (self.at == At::home) {
                if (self.pending) return nothing_pending;
                if (self.owns != 0 && state.name != me) return name_is_owners;
                if (self.owns != 0 && state.depth != self.owns) return depth_is_right;
            }
            if (is_waiting(self) && id(state.word) == 0 && !takes_alone(state, me)) return found_by_oneself;
            if (quiet && self.queued && !self.stopped && id(state.word) == 0) return wakes_suffice;
        }
        return nullptr;
    }

    /// Threads in order. Those that are alike but for the threads that they know of are tried in each order.
    State canonical(const State& state) const {
        std::array<uint64_t, most_threads> keys{};
        for (uint8_t me = 1; me <= size_.processes; ++me) keys[me - 1] = key(state, me);
        std::array<uint8_t, most_threads> order{1, 2, 3, 4};
        const auto begin = order.begin(), end = begin + size_.processes;
        State best;
        bool found = false;
        do {
            if (!std::is_sorted(begin, end, [&](uint8_t a, uint8_t b) { return keys[a - 1] < keys[b - 1]; })) continue;
            const State other = in_order(state, order);
            if (!std::exchange(found, true) || std::memcmp(&other, &best, sizeof best) < 0) best = other;
        } while (std::next_permutation(begin, end));
        return best;
    }

  private:
    static bool is_waiting(const Thread& self) { return self.at >= At::try_swap && self.at <= At::read_again; }

    static uint64_t key(const State& state, uint8_t me) {
        Thread self = state.threads[me - 1];
        const uint8_t known = id(self.seen);
        self.seen = static_cast<uint8_t>(self.seen - known + (known == me ? 1 : known != 0 ? 2 : 0));
        uint64_t value = 0;
        for (const unsigned part :
             {static_cast<unsigned>(self.at), unsigned{self.seen}, unsigned{self.owns}, unsigned{self.limited},
              unsigned{self.slept}, unsigned{self.queued}, unsigned{self.pending}, unsigned{self.owes},
              unsigned{self.stopped}, unsigned{id(state.word) == me}, unsigned{state.name == me}}) {
            value = value << 5 | part;
        }
        return value;
    }

    State in_order(const State& state, const std::array<uint8_t, most_threads>& order) const {
        State result = state;
        std::array<uint8_t, most_threads + 1> number{};
        for (uint8_t at = 0; at < size_.processes; ++at) number[order[at]] = static_cast<uint8_t>(at + 1);
        const auto renumber = [&](uint8_t word) { return static_cast<uint8_t>(word - id(word) + number[id(word)]); };
        for (unsigned at = 0; at < size_.processes; ++at) {
            result.threads[at] = state.threads[order[at] - 1];
            result.threads[at].seen = renumber(result.threads[at].seen);
        }
        result.word = renumber(state.word);
        result.name = renumber(state.name);
        result.owner = renumber(state.owner);
        return result;
    }

    /// Whether a thread that waits comes to own the lock if no other one makes a step and its time is not over yet.
    bool takes_alone(const State& state, uint8_t me) const {
        State now = state;
        now.threads[me - 1].stopped = false;
        now.wake_lost = mutant_ != no_slices;  // all that is left to it is the end of its slice
        for (int steps = 0; steps < 16 && now.threads[me - 1].owns == 0; ++steps) {
            State after = now;
            step_of(now, me, [&](const State& next, const Step&) {
                if (after.threads[me - 1] == now.threads[me - 1]) after = next;
            });
            if (after.threads[me - 1] == now.threads[me - 1] || after.threads[me - 1].at == At::home) return false;
            now = after;
        }
        return now.threads[me - 1].owns != 0;
    }

    /// The kernel takes one sleeper out of the queue; which one is its choice.
    template <typename Take>
    void wake_one(State state, uint8_t waker, const Step& step, const Take& take) const {
        state.threads[waker - 1].owes = false;
        bool found = false;
        for (unsigned at = 0; at < size_.processes; ++at) {
            if (!state.threads[at].queued) continue;
            State next = state;
            next.threads[at].queued = false;
            next.threads[at].owes = true;
            next.wake_lost = state.wake_lost || next.threads[at].stopped;
            take(next, step);
            found = true;
        }
        if (!found) take(state, step);
    }

    template <typename Take>
    void stop(const State& state, uint8_t me, const Take& take) const {
        State next = state;
        Thread& self = next.threads[me - 1];
        if (self == Thread{} || state.stops == size_.stops) return;
        self.stopped = true;
        ++next.stops;
        next.wake_lost = state.wake_lost || self.owes;
        take(next, {me, "is stopped", true});
    }

    template <typename Take>
    void kill(const State& state, uint8_t me, const Take& take) const {
        const Thread& self = state.threads[me - 1];
        if (self == Thread{}) return;
        State next = state;
        next.threads[me - 1] = {};
        ++next.deaths;
        if (id(state.word) == me) {
            next.word = static_cast<uint8_t>((state.word & waiters) | died);
            next.owner = 0;
            next.untold = true;
            const Step step{me, "is killed; the kernel marks the word", true};
            if ((state.word & waiters) != 0) return wake_one(next, me, step, take);
            return take(next, step);
        }
        if (self.pending && state.word == 0) {
            return wake_one(next, me, {me, "is killed; the kernel wakes one, as the lock is free", true}, take);
        }
        next.wake_lost = state.wake_lost || self.owes;
        take(next, {me, "is killed", true});
    }

    /// The word was swapped for this thread's id.
    template <typename Take>
    void take_lock(State next, uint8_t me, uint8_t kept, const Take& take) const {
        Thread& self = next.threads[me - 1];
        const bool over = (next.word & died) != 0;
        Step step{me, over ? "takes the lock over" : "takes the lock"};
        if (next.owner != 0) step.broken = one_owner;
        if (next.untold != over) step.broken = death_told_once;
        if (next.unusable) step.broken = stays_usable;
        if (mutant_ == take_over_drops_the_mark && over) kept = 0;
        if (mutant_ == take_over_keeps_the_mark_of_the_death && over) kept |= died;
        next.word = me | kept;
        next.owner = me;
        next.untold = false;
        next.inconsistent = over;
        self.seen = 0;
        self.owes = self.slept = self.limited = false;
        self.owns = 1;
        self.at = over ? At::taken_over : At::taken;
        take(next, step);
    }

    /// The steps that a thread can make now: none while it sleeps and nothing ends its sleep.
    template <typename Take>
    void step_of(const State& state, uint8_t me, const Take& take) const {
        State next = state;
        Thread& self = next.threads[me - 1];
        const auto go = [&](At at, const char* text) {
            self.at = at;
            take(next, {me, text});
        };
        const auto kept = static_cast<uint8_t>(self.slept && mutant_ != woken_taker_drops_the_mark ? waiters : 0);
        switch (self.at) {
            case At::home:
                return act(state, me, take);

            case At::try_swap:
                if ((self.seen & died) != 0) {
                    if (state.word == self.seen) return take_lock(next, me, state.word & waiters, take);
                    self.seen = state.word;
                    return go(At::try_swap, "fails to take the lock over and reads the word again");
                }
                if (id(self.seen) == me) {
                    self.seen = 0;
                    return go(At::taken_again, "sees that it owns the lock already");
                }
                if (state.word == 0) return take_lock(next, me, 0, take);
                self.seen = (state.word & died) != 0 ? state.word : uint8_t{0};
                return (state.word & died) != 0 ? go(At::try_swap, "finds that the owner died")
                                                : go(At::try_failed, "tries and finds the lock taken");
            case At::try_failed:
                self.pending = false;
                go(At::slice, "has time left");
                if (!self.limited) return;
                self.limited = false;
                return go(At::home, "has no time left and gives up");

            case At::slice:
                self.pending = true;
                self.seen = state.word;
                return go(At::swap, "begins a slice and reads the word");
            case At::swap:
                if (id(self.seen) == 0) {
                    if (state.word == self.seen) return take_lock(next, me, kept | (state.word & waiters), take);
                    self.seen = state.word;
                    return go(At::swap, "fails to take the lock and reads the word again");
                }
                if ((self.seen & waiters) != 0 || mutant_ == waiter_does_not_mark) {
                    return go(At::sleep, "sees the word marked for waiters");
                }
                if (state.word == self.seen) {
                    next.word |= waiters;
                    self.seen |= waiters;
                    return go(At::sleep, "marks the word for waiters");
                }
                self.seen = state.word;
                return go(At::swap, "fails to mark the word and reads it again");
            case At::sleep:
                if (state.word != self.seen) {
                    self.seen = 0;
                    self.slept = true;
                    return go(At::read_again, "does not sleep, as the word has changed");
                }
                self.seen = 0;
                self.queued = true;
                self.owes = false;
                return go(At::asleep, "goes to sleep");
            case At::asleep:
                if (!self.queued) {
                    self.slept = true;
                    return go(At::read_again, "goes on, woken");
                }
                if (!self.limited && !state.wake_lost) return;
                return end_slice(next, me, take);
            case At::read_again:
                self.seen = state.word;
                return go(At::swap, "reads the word again");

            case At::taken_over:
                self.pending = false;
                return go(At::consistent, "is told that the owner died");
            case At::consistent:
                next.inconsistent = mutant_ == take_over_is_not_made_consistent;
                if (mutant_ != take_over_keeps_the_depth) next.depth = 1;
                next.name = me;
                return go(At::home, "makes the lock consistent and writes its name");
            case At::taken:
                self.pending = false;
                return go(At::name, "has the lock in its list");
            case At::name:
                next.depth = 1;
                next.name = me;
                return go(At::home, "writes its name");
            case At::taken_again:
                self.pending = false;
                self.limited = false;
                ++self.owns;
                ++next.depth;
                return go(At::home, "owns the lock once more");

            case At::release:
                if (state.depth > 1) {
                    if (id(state.word) != me) return go(At::home, "does not own the lock and is refused its release");
                    --next.depth;
                    --self.owns;
                    return go(At::home, "releases the lock once");
                }
                next.name = 0;
                return go(At::unlock, "takes its name away");
            case At::unlock:
                return unlock(next, me, take);
            case At::wake:
                self.at = At::unlocked;
                return wake_one(next, me, {me, "wakes a sleeper"}, take);
            case At::unlocked:
                self.pending = false;
                return go(At::home, "is done with the release");
        }
    }

    /// What a thread can begin. One that owns nothing may stay as it is for ever.
    template <typename Take>
    void act(const State& state, uint8_t me, const Take& take) const {
        State next = state;
        Thread& self = next.threads[me - 1];
        const bool owns = self.owns != 0;
        if (self.owns < most_depth) {
            self.pending = true;
            self.seen = state.word;
            self.at = At::try_swap;
            take(next, {me, "begins to wait, without a limit", true});
            self.limited = true;
            take(next, {me, "begins to wait, with a limit", true});
        }
        next = state;
        if (mutant_ == release_writes_before_the_word_decides) {
            if (state.name != me) return refuse(state, me, take);
        } else if (id(state.word) != me) {
            return refuse(state, me, take);
        }
        self.at = At::release;
        take(next, {me, "begins to release the lock", !owns});
    }

    template <typename Take>
    void refuse(const State& state, uint8_t me, const Take& take) const {
        const bool owns = state.threads[me - 1].owns != 0;
        if (owns) take(state, {me, "owns the lock and is refused its release", true, owner_releases});
    }

    template <typename Take>
    void unlock(State next, uint8_t me, const Take& take) const {
        Thread& self = next.threads[me - 1];
        if (id(next.word) != me) {
            self.at = At::home;
            return take(next, {me, "does not own the lock and is refused its release", false,
                               self.owns != 0 ? owner_releases : nullptr});
        }
        Step step{me, "gives the lock back"};
        if (self.owns != 1) step.broken = owner_releases;
        self.pending = true;
        self.owes = (next.word & waiters) != 0 && mutant_ != release_wakes_nobody;
        self.owns = 0;
        self.at = self.owes ? At::wake : At::unlocked;
        next.unusable = next.inconsistent;
        next.inconsistent = false;
        next.word = next.owner = 0;
        take(next, step);
    }

    template <typename Take>
    void end_slice(State next, uint8_t me, const Take& take) const {
        Thread& self = next.threads[me - 1];
        self.queued = false;
        if (mutant_ == no_try_after_a_time_out) {
            self.at = At::home;
            const bool limited = self.limited;
            self.limited = self.slept = false;
            if (limited) {
                return take(next, {me, "runs out of time", false, id(next.word) == 0 ? ends_taken : nullptr});
            }
            self.at = At::slice;
            return take(next, {me, "sees its slice end"});
        }
        self.slept = false;
        self.seen = next.word;
        self.at = At::try_swap;
        take(next, {me, "sees its slice end and reads the word"});
    }

    const Size size_;
    const LockMutant mutant_;
};

}  // namespace

Finding explore_lock(const Size& size, std::string_view mutant) {
    const Lock lock(size, static_cast<LockMutant>(number_of(mutant, mutants)));
    return Explorer(lock).explore();
}

std::span<const Mutant> lock_mutants() {
    return mutants;
}

}  // namespace models
