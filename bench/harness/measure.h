// Rows of a benchmark and those who compete in them. A row's contestants are timed in turn, round after round, so that
// what disturbs the machine disturbs all of them; a round of one is a few thousand calls.
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

/// One who does the work of a row, that many times.
struct Runner {
    std::string who;
    std::function<void(uint64_t times)> run;
};

/// Times one runner; @return nanoseconds a call. Google Benchmark's on Linux, one of our own elsewhere.
double time_one(const std::string& row, const Runner& runner, uint64_t times);

/// Does the rows that are asked for, and keeps their figures.
class Measurement {
  public:
    struct Options {
        std::string only;              ///< the rows in whose names this regular expression is found
        std::vector<std::string> who;  ///< names; empty: all
        unsigned rounds = 101;
        uint64_t round_ns = 400'000;
        uint64_t count = 0;  ///< above 0: nothing is timed, each row is run that often, for a profiler
    };
    explicit Measurement(Options options) : options_(std::move(options)) {}

    /// One row. `check(contestant)` tells whether it answers rightly, `work(contestant)` is what is timed.
    template <typename Check, typename Work>
    void row(const std::string& name, Contestants& contestants, const Check& check, const Work& work) {
        if (!std::regex_search(name, std::regex(options_.only))) return;
        std::vector<Runner> runners;
        contestants.each([&](auto& who) { enter(runners, name, who, check, work); });
        race(name, runners);
    }

    /// Writes the figures of every round as JSON; @return whether that went well
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
        if (!check(contestant)) throw std::runtime_error(name + "/" + Contestant::who + " answers wrongly");
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

/// The rows of one subject; each file of the folder is one.
using Subject = void (*)(Measurement& measurement, const Cluster& cluster, Contestants& contestants);
void header_word(Measurement& measurement, const Cluster& cluster, Contestants& contestants);
void server_word(Measurement& measurement, const Cluster& cluster, Contestants& contestants);
void pair_word(Measurement& measurement, const Cluster& cluster, Contestants& contestants);
void listings(Measurement& measurement, const Cluster& cluster, Contestants& contestants);
void lock(Measurement& measurement, const Cluster& cluster, Contestants& contestants);
void picture(Measurement& measurement, const Cluster& cluster, Contestants& contestants);

}  // namespace bench
