// The same calls over sequences from plain seeds. What they find is shrunk natively: the seed's sequence is printed
// call by call up to the difference.
#include <random>
#include <sstream>

#include "plain_model/driver.h"

namespace model {
namespace {

constexpr size_t default_calls = 20'000;
constexpr size_t sequence = 400;

}  // namespace

Run run_random_calls() {
    Run run;
    run.wanted = calls_wanted(default_calls);
    run.seed = seed_wanted();
    std::mt19937_64 random(run.seed);
    const auto byte = [&] { return static_cast<uint8_t>(random()); };
    while (run.calls < run.wanted) {
        Harness harness(counts_of(byte(), byte(), byte(), byte()));
        const uint8_t how = byte();
        std::ostringstream calls;
        calls << "crowded by " << int{how} << "\n";
        if (const auto difference = crowd(harness, how)) {
            run.difference = *difference + "\nafter\n" + calls.str();
            return run;
        }
        for (size_t i = 0; i < sequence; ++i) {
            Call call;
            for (uint8_t& choice : call.choices) choice = byte();
            calls << call << "\n";
            ++run.calls;
            if (const auto difference = harness.step(call)) {
                run.difference = *difference + "\nafter\n" + calls.str();
                return run;
            }
        }
    }
    return run;
}

}  // namespace model
