// Makes sequences of calls and runs them on new regions of small, random counts.
//
// SHMNM_MODEL_CALLS asks for that many calls (for a long run), SHMNM_MODEL_SEED for the sequences of an earlier run.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "plain_model/harness.h"

namespace model {

struct Run {
    size_t calls = 0, wanted = 0;
    uint64_t seed = 0;
    std::string difference;  ///< what was found, with the shortest sequence that shows it; empty: nothing
};

Run run_random_calls();

/// What the environment asks for, or these.
size_t calls_wanted(size_t calls);
uint64_t seed_wanted();
/// The counts of a region for any four bytes.
Counts counts_of(uint8_t servers, uint8_t hb, uint8_t np, uint8_t fst);
/// Half of the time, for any byte: raises the maxima far beyond what the view holds and adds so many servers that some
/// of the following calls find no room for another record. @return what differs, if anything does
std::optional<std::string> crowd(Harness& harness, uint8_t how);

}  // namespace model
