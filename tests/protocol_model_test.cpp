// The protocols of kzmkernel, in every order of their steps: no promise is broken, and what is left out of a protocol
// breaks the promise that it is there for.
#include <gtest/gtest.h>

#include <string>

#include "models/models.h"

namespace {

using models::Finding;
using models::Mutant;

std::string text_of(const Finding& finding) {
    std::string text = finding.broken + '\n';
    for (const std::string& step : finding.steps) text += "  " + step + '\n';
    return text;
}

TEST(LockModel, KeepsItsPromisesWhereverThreeThreadsAreKilledAndStopped) {
    const Finding finding = models::explore_lock({.processes = 3, .deaths = 2, .stops = 1});
    EXPECT_EQ(finding.broken, "") << text_of(finding);
    EXPECT_GT(finding.states, 1'000'000u);
    RecordProperty("states", static_cast<int>(finding.states));
}

TEST(ReadModel, KeepsOnlyWholeCopiesBesideTwoWritersThatAreKilled) {
    const Finding finding = models::explore_read({.processes = 2, .deaths = 2, .stops = 0});
    EXPECT_EQ(finding.broken, "") << text_of(finding);
    EXPECT_GT(finding.states, 100'000u);
    RecordProperty("states", static_cast<int>(finding.states));
}

TEST(ObjectModel, KeepsItsPromisesWhereverThreeProcessesAreKilledAndStopped) {
    const Finding finding = models::explore_object({.processes = 3, .deaths = 3, .stops = 3});
    EXPECT_EQ(finding.broken, "") << text_of(finding);
    EXPECT_GT(finding.states, 100'000u);
    RecordProperty("states", static_cast<int>(finding.states));
}

class MutantOfLockModel : public testing::TestWithParam<Mutant> {};
class MutantOfReadModel : public testing::TestWithParam<Mutant> {};
class MutantOfObjectModel : public testing::TestWithParam<Mutant> {};
std::string name_of(const testing::TestParamInfo<Mutant>& instance) {
    return instance.param.name;
}
INSTANTIATE_TEST_SUITE_P(All, MutantOfLockModel,
                         testing::ValuesIn(models::lock_mutants().begin(), models::lock_mutants().end()), name_of);
INSTANTIATE_TEST_SUITE_P(All, MutantOfReadModel,
                         testing::ValuesIn(models::read_mutants().begin(), models::read_mutants().end()), name_of);
INSTANTIATE_TEST_SUITE_P(All, MutantOfObjectModel,
                         testing::ValuesIn(models::object_mutants().begin(), models::object_mutants().end()), name_of);

TEST_P(MutantOfLockModel, BreaksItsPromise) {
    const Finding finding = models::explore_lock({.processes = 3, .deaths = 2, .stops = 1}, GetParam().name);
    EXPECT_EQ(finding.broken, GetParam().breaks) << text_of(finding);
    EXPECT_FALSE(finding.steps.empty());
}

TEST_P(MutantOfReadModel, BreaksItsPromise) {
    const Finding finding = models::explore_read({.processes = 2, .deaths = 1, .stops = 0}, GetParam().name);
    EXPECT_EQ(finding.broken, GetParam().breaks) << text_of(finding);
    EXPECT_FALSE(finding.steps.empty());
}

TEST_P(MutantOfObjectModel, BreaksItsPromise) {
    const Finding finding = models::explore_object({.processes = 3, .deaths = 2, .stops = 1}, GetParam().name);
    EXPECT_EQ(finding.broken, GetParam().breaks) << text_of(finding);
    EXPECT_FALSE(finding.steps.empty());
}

}  // namespace
