// Random sequences of calls: after every call the library and its plain model agree on all that can be seen. The
// sequences are made, and shrunk when they find something, by the platform's driver.
#include <gtest/gtest.h>

#include "plain_model/driver.h"

namespace {

TEST(Model, AgreesWithTheLibraryAfterEveryCall) {
    const model::Run run = model::run_random_calls();
    EXPECT_EQ(run.difference, "");
    EXPECT_GE(run.calls, run.wanted);
    std::printf("%zu calls, seed %llu\n", run.calls, static_cast<unsigned long long>(run.seed));
    RecordProperty("calls", std::to_string(run.calls));
}

}  // namespace
