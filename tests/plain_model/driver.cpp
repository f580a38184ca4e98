#include "plain_model/driver.h"

#include <cstdlib>
#include <random>

namespace model {

size_t calls_wanted(size_t calls) {
    const char* const wanted = std::getenv("SHMNM_MODEL_CALLS");
    return wanted ? std::strtoull(wanted, nullptr, 10) : calls;
}

uint64_t seed_wanted() {
    const char* const wanted = std::getenv("SHMNM_MODEL_SEED");
    if (wanted) return std::strtoull(wanted, nullptr, 10);
    std::random_device device;
    return uint64_t{device()} << 32 | device();
}

Counts counts_of(uint8_t servers, uint8_t hb, uint8_t np, uint8_t fst) {
    if (servers % 8 == 7) return {1, 1, 1, 1};
    return {1 + servers % 4, 1 + hb % 4, 1 + np % 4, fst % 3};
}

std::optional<std::string> crowd(Harness& harness, uint8_t how) {
    if (how % 2 == 0) return std::nullopt;
    constexpr uint8_t thousand = 203, long_name = 172;
    Call raise;
    raise.choices = {0, 0, 0, 0, thousand, thousand, thousand, 0, 0, 0, 0, 0};
    if (auto difference = harness.step(call_of("setmaxvalue_ex", raise))) return difference;
    // This name is stored cut, so that no add finds it again.
    Call add;
    add.choices[2] = long_name;
    const size_t room = (harness.view_size() - 1084) / 320, wanted = how < 128 ? 0 : room - how % 4;
    for (size_t servers = 0; servers < wanted; ++servers) {
        if (auto difference = harness.step(call_of("addnode", add))) return difference;
    }
    return std::nullopt;
}

}  // namespace model
