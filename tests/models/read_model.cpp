// A read without the lock, step by step: writers take the lock, change two words that it guards and release it, or are
// killed; a reader copies the words and keeps the copy if nobody seems to have owned the lock meanwhile.
//
// What a writer stores waits in its store buffer and reaches memory in any order that the code does not forbid: this is
// weaker than x86-64, which keeps the order of stores, so that each fence has something to do. The reader's loads
// happen in any order that the code does not forbid.
#include <algorithm>
#include <array>
#include <string>

#include "models.h"

namespace models {
namespace {

constexpr unsigned most_writers = 3, most_takes = 3;

constexpr const char* kept_is_whole = "a copy that is kept is what the last owner left";

enum ReadMutant : unsigned {
    faithful,
    owner_read_first,
    name_decides,
    dead_owner_counts_as_free,
    takes_not_compared,
    word_read_without_acquire,
    no_acquire_fence,
    takes_stored_without_release,
    no_release_fence,
    unlock_without_release,
};
constexpr Mutant mutants[] = {
    {"owner_read_first", kept_is_whole},
    {"name_decides", kept_is_whole},
    {"dead_owner_counts_as_free", kept_is_whole},
    {"takes_not_compared", kept_is_whole},
    {"word_read_without_acquire", kept_is_whole},
    {"no_acquire_fence", kept_is_whole},
    {"takes_stored_without_release", kept_is_whole},
    {"no_release_fence", kept_is_whole},
    {"unlock_without_release", kept_is_whole},
};

constexpr uint8_t died = 8;  ///< the word: a writer's number, 0 or this mark

/// What an owner stores, in the order of its program.
enum Store : uint8_t { take, count, write_name, write_first, write_second, clear_name, unlock, stores };
constexpr uint8_t bit(unsigned place) {
    return static_cast<uint8_t>(1u << place);
}
constexpr uint8_t before(Store store) {
    return static_cast<uint8_t>(bit(store) - 1);
}

/// What the reader loads.
enum Load : uint8_t { takes_before, word_or_name, first_word, second_word, takes_after, loads };
constexpr uint8_t all_loads = bit(loads) - 1;

struct Writer {
    uint8_t next = take;    ///< its next store
    uint8_t buffered = 0;   ///< stores that have not reached memory
    uint8_t number = 0;     ///< of its take
    uint8_t looks = 0;      ///< it changes nothing this time
    uint8_t is_killed = 0;  ///< what it has stored still reaches memory; then the kernel marks the word
    bool operator==(const Writer&) const = default;
};

struct Pair {
    uint8_t first = 0, second = 0;
    bool operator==(const Pair&) const = default;
};

class Reads {
  public:
    struct State {
        std::array<Writer, most_writers> writers;
        uint8_t word = 0, takes = 0, name = 0;
        Pair data;                                 ///< in memory
        Pair true_data;                            ///< as the owners' programs have changed it
        std::array<Pair, most_takes + 1> settled;  ///< what each take left when it was released
        uint8_t loaded = 0;                        ///< what the reader has loaded
        std::array<uint8_t, loads> values{};
        uint8_t deaths = 0;
    };

    Reads(const Size& size, ReadMutant mutant) : size_(size), mutant_(mutant) {}

    static State first() { return {}; }
    static std::string name_of(unsigned actor) { return actor == 0 ? "the reader" : "W" + std::to_string(actor); }

    template <typename Take>
    void steps(const State& state, const Take& take_step) const {
        for (uint8_t me = 1; me <= size_.processes; ++me) {
            run(state, me, take_step);
            drain(state, me, take_step);
            kill(state, me, take_step);
        }
        for (uint8_t load = 0; load < loads; ++load) read(state, static_cast<Load>(load), take_step);
    }

    static const char* broken_in(const State&, bool) { return nullptr; }

    /// Writers in order.
    State canonical(const State& state) const {
        std::array<uint8_t, most_writers> order{0, 1, 2};
        const auto begin = order.begin(), end = begin + size_.processes;
        State best = state;
        while (std::next_permutation(begin, end)) {
            const State other = in_order(state, order);
            if (std::memcmp(&other, &best, sizeof best) < 0) best = other;
        }
        return best;
    }

  private:
    static State in_order(const State& state, const std::array<uint8_t, most_writers>& order) {
        State result = state;
        for (unsigned at = 0; at < most_writers; ++at) result.writers[at] = state.writers[order[at]];
        const auto renumber = [&](uint8_t& number) {
            if (number == 0 || number == died) return;
            const auto* const found = std::find(order.begin(), order.end(), number - 1);
            number = static_cast<uint8_t>(found - order.begin() + 1);
        };
        renumber(result.word);
        renumber(result.name);
        renumber(result.values[word_or_name]);
        return result;
    }

    /// The stores that must reach memory before this one.
    uint8_t held_back_by(Store store) const {
        switch (store) {
            case take:
                return 0;
            case count:
                return mutant_ == takes_stored_without_release ? 0 : before(store);
            case write_name:
                return before(store);
            case write_first:
            case write_second:
                return mutant_ == no_release_fence ? 0 : before(write_name);
            case unlock:
                if (mutant_ == unlock_without_release) return bit(take);
                return before(store);
            default:
                return before(store);
        }
    }
    /// The loads that must happen before this one.
    uint8_t waits_for(Load load) const {
        constexpr uint8_t both = bit(takes_before) | bit(word_or_name);
        switch (load) {
            case takes_before:
                return mutant_ == owner_read_first ? bit(word_or_name) : 0;
            case word_or_name:
                return mutant_ == owner_read_first ? 0 : bit(takes_before);
            case takes_after:
                return mutant_ == no_acquire_fence ? both : all_loads - bit(takes_after);
            default:
                return mutant_ == word_read_without_acquire ? bit(takes_before) : both;
        }
    }

    /// The writer's program makes its next store, which goes to the buffer.
    template <typename Take>
    void run(const State& state, uint8_t me, const Take& take_step) const {
        static constexpr const char* texts[stores] = {
            "takes the lock",          "raises the count of takes", "writes its name",  "changes the first word",
            "changes the second word", "clears its name",           "releases the lock"};
        State next = state;
        Writer& self = next.writers[me - 1];
        if (self.is_killed != 0 || self.next == stores) return;
        const auto store = static_cast<Store>(self.next);
        if (store == take) return begin(state, me, take_step);
        if (store == unlock) next.settled[self.number] = next.true_data;
        if (store == write_first) next.true_data.first = self.number;
        if (store == write_second) next.true_data.second = self.number;
        self.buffered |= bit(store);
        self.next = store == write_name && self.looks != 0 ? uint8_t{clear_name} : static_cast<uint8_t>(store + 1);
        take_step(next, {me, texts[store]});
    }

    /// The swap of the word succeeds only if memory has the old value, and no other swap comes between it and the
    /// moment at which all can see it.
    template <typename Take>
    void begin(const State& state, uint8_t me, const Take& take_step) const {
        if ((state.word != 0 && state.word != died) || state.takes == most_takes) return;
        for (const Writer& writer : state.writers) {
            if ((writer.buffered & bit(take)) != 0) return;
        }
        State next = state;
        Writer& self = next.writers[me - 1];
        self.number = static_cast<uint8_t>(state.takes + 1);
        self.buffered = bit(take);
        self.next = count;
        take_step(next, {me, state.word == died ? "takes the lock over, to write" : "takes the lock, to write", true});
        self.looks = 1;
        take_step(next, {me, state.word == died ? "takes the lock over, to look" : "takes the lock, to look", true});
    }

    /// A store of the buffer reaches memory.
    template <typename Take>
    void drain(const State& state, uint8_t me, const Take& take_step) const {
        static constexpr const char* texts[stores] = {
            "has its take reach memory",       "has its count reach memory",       "has its name reach memory",
            "has its first word reach memory", "has its second word reach memory", "has its cleared name reach memory",
            "has its release reach memory"};
        for (uint8_t place = 0; place < stores; ++place) {
            const auto store = static_cast<Store>(place);
            const uint8_t buffered = state.writers[me - 1].buffered;
            if ((buffered & bit(store)) == 0 || (buffered & held_back_by(store)) != 0) continue;
            State next = state;
            Writer& self = next.writers[me - 1];
            self.buffered = static_cast<uint8_t>(buffered & ~bit(store));
            switch (store) {
                case take:
                    next.word = me;
                    break;
                case count:
                    next.takes = self.number;
                    break;
                case write_name:
                    next.name = me;
                    break;
                case write_first:
                    next.data.first = self.number;
                    break;
                case write_second:
                    next.data.second = self.number;
                    break;
                case clear_name:
                    next.name = 0;
                    break;
                default:
                    next.word = 0;
                    break;
            }
            if (self.next == stores && self.buffered == 0) self = {};
            take_step(next, {me, texts[store]});
        }
    }

    template <typename Take>
    void kill(const State& state, uint8_t me, const Take& take_step) const {
        State next = state;
        Writer& self = next.writers[me - 1];
        if (self.is_killed != 0) {
            if (self.buffered != 0) return;
            self = {};
            next.word = died;
            return take_step(next, {me, "is gone; the kernel marks the word"});
        }
        if (self.next == take || self.next == stores || state.deaths == size_.deaths) return;
        self.is_killed = 1;
        ++next.deaths;
        take_step(next, {me, "is killed", true});
    }

    template <typename Take>
    void read(const State& state, Load load, const Take& take_step) const {
        static constexpr const char* texts[loads] = {"reads the count", "reads whether the lock has an owner",
                                                     "copies the first word", "copies the second word",
                                                     "reads the count again"};
        const uint8_t needed = waits_for(load);
        if ((state.loaded & bit(load)) != 0 || (state.loaded & needed) != needed) return;
        State next = state;
        next.loaded |= bit(load);
        uint8_t& value = next.values[load];
        switch (load) {
            case takes_before:
            case takes_after:
                value = state.takes;
                break;
            case word_or_name:
                value = mutant_ == name_decides ? state.name : state.word;
                break;
            case first_word:
                value = state.data.first;
                break;
            default:
                value = state.data.second;
                break;
        }
        Step step{0, texts[load], true};
        if (next.loaded == all_loads) {
            if (is_kept(next) && !is_whole(next)) step.broken = kept_is_whole;
            next.loaded = 0;
            next.values = {};
        }
        take_step(next, step);
    }

    bool is_kept(const State& state) const {
        const uint8_t owner = state.values[word_or_name];
        return (owner == 0 || (owner == died && mutant_ == dead_owner_counts_as_free)) &&
               (state.values[takes_before] == state.values[takes_after] || mutant_ == takes_not_compared);
    }
    static bool is_whole(const State& state) {
        const Pair copied{state.values[first_word], state.values[second_word]};
        return copied == state.settled[state.values[takes_before]];
    }

    const Size size_;
    const ReadMutant mutant_;
};

}  // namespace

Finding explore_read(const Size& size, std::string_view mutant) {
    Size bounded = size;
    bounded.processes = std::min(size.processes, most_writers);
    const Reads reads(bounded, static_cast<ReadMutant>(number_of(mutant, mutants)));
    return Explorer(reads).explore();
}

std::span<const Mutant> read_mutants() {
    return mutants;
}

}  // namespace models
