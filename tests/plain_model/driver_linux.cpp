// Sequences by RapidCheck's stateful testing: a sequence that finds a difference is shrunk to a shortest one.
#include <rapidcheck.h>
#include <rapidcheck/state.h>

#include <sstream>

#include "plain_model/driver.h"
#include "support/child.h"

namespace model {
namespace {

constexpr int sequences_a_check = 50, longest_sequence = 400;

/// No call depends on what RapidCheck knows: the model that judges it lies beside the library.
struct Nothing {};

/// The library and its model, on a region of their own.
struct Pair {
    explicit Pair(const Counts& counts) : harness(counts) {}
    Harness harness;
};

size_t calls_made = 0;

struct Step : rc::state::Command<Nothing, Pair> {
    Step() {
        const auto choices = *rc::gen::container<std::array<uint8_t, 12>>(rc::gen::arbitrary<uint8_t>());
        call.choices = choices;
    }
    void run(const Nothing&, Pair& pair) const override {
        ++calls_made;
        if (const auto difference = pair.harness.step(call)) RC_FAIL(*difference);
    }
    void show(std::ostream& stream) const override { stream << call; }

    Call call;
};

}  // namespace

Run run_random_calls() {
    Run run;
    run.wanted = calls_wanted(test::share_of(100'000));
    run.seed = seed_wanted();
    calls_made = 0;
    rc::detail::TestParams params;
    params.maxSuccess = sequences_a_check;
    params.maxSize = longest_sequence;
    for (params.seed = run.seed; calls_made < run.wanted; ++params.seed) {
        const auto result = rc::detail::checkTestable(
            [] {
                const auto bytes = *rc::gen::container<std::array<uint8_t, 5>>(rc::gen::arbitrary<uint8_t>());
                Pair pair(counts_of(bytes[0], bytes[1], bytes[2], bytes[3]));
                if (const auto difference = crowd(pair.harness, bytes[4])) RC_FAIL(*difference);
                rc::state::check(Nothing{}, pair, rc::state::gen::execOneOfWithArgs<Step>());
            },
            rc::detail::TestMetadata{}, params);
        rc::detail::SuccessResult success;
        if (!result.match(success)) {
            std::ostringstream text;
            rc::detail::printResultMessage(result, text);
            run.difference = "seed " + std::to_string(params.seed) + ": " + text.str();
            break;
        }
    }
    run.calls = calls_made;
    return run;
}

}  // namespace model
