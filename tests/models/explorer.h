// Visits every state that a model can reach, breadth first, so that the first broken promise is found on a shortest
// way.
//
// A model has a State without padding, which is its own key, and gives
//   first()             the state at the beginning
//   steps(state, take)  calls take(next, Step) for each step that some process can make
//   canonical(state)    one of the states that differ only in which process is which
//   broken_in(state, quiet)  the promise that a state breaks, or null; quiet: nobody has to make a step any more
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

namespace models {

struct Step {
    unsigned actor;                ///< the process that makes it, or that it happens to
    const char* text;              ///< what it does
    bool optional = false;         ///< it may never come
    const char* broken = nullptr;  ///< the promise that it breaks
};

struct Finding {
    size_t states = 0;               ///< visited
    std::string broken;              ///< the promise that is broken; empty: none
    std::vector<std::string> steps;  ///< a shortest way there
};

template <typename Model>
class Explorer {
  public:
    explicit Explorer(const Model& model) : model_(model), places_(size_t{1} << 16, no_state) {}

    Finding explore() {
        add(model_.canonical(model_.first()), 0);
        for (uint32_t at = 0; at < states_.size(); ++at) {
            const State state = states_[at];
            bool quiet = true;
            const char* broken = nullptr;
            model_.steps(state, [&](const State& next, const Step& step) {
                quiet = quiet && step.optional;
                if (step.broken) {
                    broken = step.broken;
                } else {
                    add(model_.canonical(next), at);
                }
            });
            if (!broken) broken = model_.broken_in(state, quiet);
            if (broken) return {states_.size(), broken, way_to(at)};
        }
        return {states_.size(), {}, {}};
    }

  private:
    using State = typename Model::State;
    static_assert(std::has_unique_object_representations_v<State>);
    static constexpr uint32_t no_state = UINT32_MAX;

    static size_t hash(const State& state) {
        uint64_t words[(sizeof state + 7) / 8] = {};
        std::memcpy(words, &state, sizeof state);
        uint64_t value = 0;
        for (const uint64_t word : words) {
            value = (value ^ word) * 0x9E3779B97F4A7C15;
            value ^= value >> 32;
        }
        return value;
    }

    void add(const State& state, uint32_t from) {
        const size_t mask = places_.size() - 1;
        size_t place = hash(state) & mask;
        for (; places_[place] != no_state; place = (place + 1) & mask) {
            if (std::memcmp(&states_[places_[place]], &state, sizeof state) == 0) return;
        }
        places_[place] = static_cast<uint32_t>(states_.size());
        states_.push_back(state);
        came_from_.push_back(from);
        if (states_.size() * 2 > places_.size()) grow();
    }

    void grow() {
        places_.assign(places_.size() * 2, no_state);
        const size_t mask = places_.size() - 1;
        for (uint32_t at = 0; at < states_.size(); ++at) {
            size_t place = hash(states_[at]) & mask;
            while (places_[place] != no_state) place = (place + 1) & mask;
            places_[place] = at;
        }
    }

    /// The states on the way are known but for which process is which, so the way is gone once more.
    std::vector<std::string> way_to(uint32_t end) {
        std::vector<uint32_t> way;
        for (uint32_t at = end; at != 0; at = came_from_[at]) way.insert(way.begin(), at);
        std::vector<std::string> texts;
        State state = model_.first();
        for (const uint32_t at : way) {
            const State from = state;
            bool found = false;
            model_.steps(from, [&](const State& next, const Step& step) {
                const State canonical = model_.canonical(next);
                if (found || step.broken || std::memcmp(&canonical, &states_[at], sizeof state) != 0) return;
                found = true;
                state = next;
                texts.push_back(text_of(step));
            });
        }
        bool found = false;
        model_.steps(state, [&](const State&, const Step& step) {
            if (step.broken && !found) texts.push_back(text_of(step));
            found = found || step.broken;
        });
        return texts;
    }
    static std::string text_of(const Step& step) { return Model::name_of(step.actor) + ' ' + step.text; }

    const Model& model_;
    std::vector<State> states_;
    std::vector<uint32_t> came_from_;
    std::vector<uint32_t> places_;  ///< of states in the hash table
};

}  // namespace models
