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
    return {1 + servers % 4, 1 + hb % 4, 1 + np % 4, fst % 3};
}

}  // namespace model
