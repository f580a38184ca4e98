// The rows of a benchmark and their contestants. The contestants of a row are timed in turn, round after round, so that
// a disturbance of the machine affects all of them. In one round each contestant makes a few thousand calls.
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <regex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "cluster.h"
#include "contestants.h"

namespace bench {

/// A contestant with the work of a row: `run` does the work `times` times.
struct Runner {
    std::string who;
    std::function<void(uint64_t times)> run;
};

/// Times one runner, on Linux with Google Benchmark. @return nanoseconds per call
double time_one(const std::string& row, const Runner& runner, uint64_t times);

/// Measures the chosen rows and keeps their figures.
class Measurement {
  public:
    struct Options {
        std::string only;              ///< a regular expression: only rows whose names match it
        std::vector<std::string> who;  ///< names of contestants; empty: all
        unsigned rounds = 101;
        uint64_t round_ns = 400'000;
        uint64_t count = 0;  ///< above 0: times nothing, and runs each row that often, for a profiler
    };
    explicit Measurement(Options options) : options_(std::move(options)) {}

    /// Measures one row. `check(contestant)` tells whether its answers are right; `work(contestant)` is timed.
    template <typename Entrants, typename Check, typename Work>
    void row(const std::string& name, Entrants& contestants, const Check& check, const Work& work) {
        if (!std::regex_search(name, std::regex(options_.only))) return;
        std::vector<Runner> runners;
        contestants.each([&](auto& who) { enter(runners, name, who, check, work); });
        race(name, runners);
    }

    /// Writes the figures of every round as JSON. @return whether that succeeded
    bool write(const std::string& file) const;

  private:
    struct Figures {
        std::string row, who;
        std::vector<double> ns;
    };

    template <typename Contestant, typename Check, typename Work>
    void enter(std::vector<Runner>& runners, const std::string& name, Contestant& contestant, const Check& check,
               const Work& work) {
        if (!options_.who.empty() && std::ranges::find(options_.who, Contestant::who) == options_.who.end()) return;
        if (!check(contestant)) throw std::runtime_error(name + "/" + Contestant::who + " gives a wrong answer");
        runners.push_back({Contestant::who, [&contestant, work](uint64_t times) {
                               for (uint64_t i = 0; i < times; ++i) work(contestant);
                           }});
    }
    void race(const std::string& name, const std::vector<Runner>& runners);

    Options options_;
    std::vector<Figures> figures_;
};

/// Makes the compiler believe that a value is used.
template <typename Value>
void keep(const Value& value) {
    asm volatile("" : : "r,m"(value) : "memory");
}

/// Measures the rows of one subject. Each subject has a file in bench/.
using Subject = void (*)(Measurement& measurement, const Cluster& cluster, Contestants& contestants);
void header_word(Measurement& measurement, const Cluster& cluster, Contestants& contestants);
void server_word(Measurement& measurement, const Cluster& cluster, Contestants& contestants);
void pair_word(Measurement& measurement, const Cluster& cluster, Contestants& contestants);
void listings(Measurement& measurement, const Cluster& cluster, Contestants& contestants);
void lock(Measurement& measurement, const Cluster& cluster, Contestants& contestants);
void picture(Measurement& measurement, const Cluster& cluster, Contestants& contestants);
void cpp_word(Measurement& measurement, const Cluster& cluster, Contestants& contestants);

}  // namespace bench
