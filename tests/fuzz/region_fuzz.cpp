// Fuzzes the region's bytes with a sequence of calls on them: after each call the library agrees with its plain model
// on result, outputs, log lines and every byte, and touches no page beside its view.
#include <cstdio>
#include <memory>

#include "fakes/companions.h"
#include "fuzz/input.h"
#include "plain_model/driver.h"
#include "plain_model/harness.h"
#include "shmnm.h"
#include "support/child.h"

namespace {

struct Start {
    uint8_t servers, hb, np, fst;
};
/// A call, or a change of the region's bytes.
struct Step {
    uint8_t kind;
    model::Call call;
};
static_assert(sizeof(Step) == 13);

constexpr uint8_t first_poke = 200;

/// A region of these counts as new; the last one is used again if it has the same.
model::Harness& region_of(const Start& start) {
    static std::unique_ptr<model::Harness> harness;
    static model::Counts counts{};
    const model::Counts wanted = model::counts_of(start.servers, start.hb, start.np, start.fst);
    if (!harness || counts.servers != wanted.servers || counts.hb != wanted.hb || counts.np != wanted.np ||
        counts.fst != wanted.fst) {
        harness.reset();
        harness = std::make_unique<model::Harness>(wanted, true);
        counts = wanted;
    } else {
        harness->restart();
    }
    return *harness;
}

void poke(model::Harness& harness, const model::Call& call) {
    fuzz::Poke poke{};
    std::memcpy(&poke, call.choices.data(), sizeof poke);
    poke.each(harness.view_size(), [&](size_t offset, uint8_t byte) { harness.poke(offset, &byte, 1); });
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // Made before the region, whose end uses them.
    fakes::companions();
    test::set_environment("KZMUTIL_NAMESPACE", ("fuzz-" + std::to_string(test::process_id()) + "-").c_str());
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Input input(data, size);
    model::Harness& harness = region_of(input.take<Start>());
    uint32_t stat = 0;
    while (!input.is_empty()) {
        const auto step = input.take<Step>();
        if (step.kind >= first_poke) {
            poke(harness, step.call);
        } else if (const auto difference = harness.step(step.call)) {
            std::fprintf(stderr, "%s\n", difference->c_str());
            std::abort();
        } else if (fuzz::plants_fault() && shmnm_getfstrscstat(&stat) == SHMNM_OK && stat == 0x12345678) {
            // As if the library had written a word that the model does not know of.
            shmnm_setclstat(stat);
        }
        fakes::companions().take_lines();
    }
    return 0;
}
