#include "models.h"

#include <algorithm>
#include <stdexcept>

namespace models {

unsigned number_of(std::string_view mutant, std::span<const Mutant> mutants) {
    if (mutant.empty()) return 0;
    const auto found =
        std::find_if(mutants.begin(), mutants.end(), [&](const Mutant& each) { return mutant == each.name; });
    if (found == mutants.end()) throw std::invalid_argument("unknown mutant: " + std::string(mutant));
    return static_cast<unsigned>(found - mutants.begin()) + 1;
}

}  // namespace models
