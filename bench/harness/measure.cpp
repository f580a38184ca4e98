#include "measure.h"

#include <algorithm>
#include <fstream>

#include "platform.h"

namespace bench {
namespace {

/// Finds, by doubling, how many calls fill a round.
uint64_t times_for(const Runner& runner, uint64_t round_ns) {
    for (uint64_t times = 1;; times *= 2) {
        const uint64_t start = now_ns();
        runner.run(times);
        const uint64_t taken = now_ns() - start;
        if (taken * 2 >= round_ns) return std::max<uint64_t>(1, times * round_ns / std::max<uint64_t>(taken, 1));
    }
}

}  // namespace

void Measurement::race(const std::string& name, const std::vector<Runner>& runners) {
    if (options_.count > 0) {
        for (const Runner& runner : runners) runner.run(options_.count);
        return;
    }
    std::vector<uint64_t> times;
    times.reserve(runners.size());
    for (const Runner& runner : runners) times.push_back(times_for(runner, options_.round_ns));
    const size_t first = figures_.size();
    for (const Runner& runner : runners) figures_.push_back({name, runner.who, {}});
    for (unsigned round = 0; round < options_.rounds; ++round) {
        // The order of the contestants changes from round to round.
        for (size_t turn = 0; turn < runners.size(); ++turn) {
            const size_t i = (turn + round) % runners.size();
            figures_[first + i].ns.push_back(time_one(name, runners[i], times[i]));
        }
    }
}

bool Measurement::write(const std::string& file) const {
    std::ofstream out(file);
    out.precision(9);
    const char* separator = "[\n";
    for (const Figures& figures : figures_) {
        out << separator << R"( {"row": ")" << figures.row << R"(", "who": ")" << figures.who << R"(", "ns": [)";
        const char* comma = "";
        for (const double ns : figures.ns) {
            out << comma << ns;
            comma = ", ";
        }
        out << "]}";
        separator = ",\n";
    }
    out << (figures_.empty() ? "[]\n" : "\n]\n");
    out.close();
    return !out.fail();
}

}  // namespace bench
