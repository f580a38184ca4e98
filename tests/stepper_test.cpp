// The stepper itself: it stops where it says, sees each change of shared bytes, interleaves children, and ends them
// where they stand.
#include "support/stepper_linux.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>

#include "support/temporary_folder.h"

using namespace test;
using testing::ElementsAre;

namespace {

struct Words {
    volatile uint32_t at[1024];
};

Words* map_words(const std::string& file) {
    const int descriptor = open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (descriptor < 0 || ftruncate(descriptor, sizeof(Words)) != 0) std::abort();
    void* const words = mmap(nullptr, sizeof(Words), PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
    close(descriptor);
    if (words == MAP_FAILED) std::abort();
    return static_cast<Words*>(words);
}

[[gnu::noinline]] void write_three(Words& words) {
    for (uint32_t i = 0; i < 3; ++i) words.at[i] = i + 1;
}

CHILD(writes_three_words) {
    Words& words = *map_words(argument());
    tell_address(reinterpret_cast<const void*>(write_three));
    tell_address(&words.at[1]);
    begin_steps();
    write_three(words);
    end_steps();
    report(17);
    hang();
}

CHILD(adds_one) {
    Words& words = *map_words(argument());
    begin_steps();
    words.at[0] = words.at[0] + 1;
    end_steps();
    hang();
}

CHILD(sleeps_in_the_kernel) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) std::abort();
    begin_steps();
    char byte = 0;
    static_cast<void>(read(ends[0], &byte, 1));
    end_steps();
}

CHILD(takes_two_turns) {
    Words& words = *map_words(argument());
    for (uint32_t turn = 1; turn <= 2; ++turn) {
        begin_steps();
        words.at[0] = turn;
        end_steps();
    }
    hang();
}

class StepperTest : public testing::Test {
  protected:
    std::span<const volatile uint8_t> bytes() const {
        return {reinterpret_cast<const volatile uint8_t*>(words.at), sizeof words.at};
    }
    std::vector<uint32_t> three() const { return {words.at[0], words.at[1], words.at[2]}; }

    TemporaryFolder folder;
    const std::string file = (folder.path() / "words").string();
    Words& words = *map_words(file);
};

TEST_F(StepperTest, StopsAfterEachInstructionThatChangedTheBytes) {
    Stepper child(writes_three_words, file);
    Watched watched(bytes());
    std::vector<std::vector<uint32_t>> seen;
    child.step_through(watched, [&] { seen.push_back(three()); });
    EXPECT_THAT(seen, ElementsAre(ElementsAre(1, 0, 0), ElementsAre(1, 2, 0), ElementsAre(1, 2, 3)));
    EXPECT_EQ(child.state(), Stepper::State::at_end);
    EXPECT_GT(child.steps(), 9U);
}

TEST_F(StepperTest, KillsTheChildWhereItStands) {
    Stepper child(writes_three_words, file);
    Watched watched(bytes());
    ASSERT_TRUE(child.step_until_changed(watched));
    ASSERT_TRUE(child.step_until_changed(watched));
    child.kill();
    EXPECT_THAT(three(), ElementsAre(1, 2, 0));
    EXPECT_EQ(child.child().wait(), 128 + SIGKILL);
}

TEST_F(StepperTest, InterleavesTwoChildrenSoThatOneUpdateIsLost) {
    Stepper first(adds_one, file), second(adds_one, file);
    Watched watched(bytes());
    // The last instruction before the first child's store: the one that a run of its own needed for it.
    Stepper rehearsal(adds_one, file);
    ASSERT_TRUE(rehearsal.step_until_changed(watched));
    words.at[0] = 0;
    first.step(rehearsal.steps() - 1);
    second.run();
    EXPECT_EQ(second.wait(), Stepper::State::at_end);
    EXPECT_EQ(words.at[0], 1U);
    first.run();
    EXPECT_EQ(first.wait(), Stepper::State::at_end);
    EXPECT_EQ(words.at[0], 1U);
}

TEST_F(StepperTest, RunsToAnAddressAndGoesOnFromThere) {
    Stepper child(writes_three_words, file);
    ASSERT_TRUE(child.run_to(child.addresses().at(0)));
    EXPECT_EQ(child.address(), child.addresses().at(0));
    EXPECT_THAT(three(), ElementsAre(0, 0, 0));
    child.poke(child.addresses().at(1), 77);
    EXPECT_EQ(words.at[1], 77U);
    child.run();
    EXPECT_EQ(child.wait(), Stepper::State::at_end);
    EXPECT_THAT(three(), ElementsAre(1, 2, 3));
}

TEST_F(StepperTest, LetsTheChildGoForGood) {
    Stepper child(writes_three_words, file);
    child.step(5);
    child.let_go();
    EXPECT_EQ(child.child().reported(), 17U);
    EXPECT_THAT(three(), ElementsAre(1, 2, 3));
}

TEST_F(StepperTest, HoldsAChildThatSleepsInTheKernel) {
    Stepper child(sleeps_in_the_kernel);
    ASSERT_TRUE(child.step_to_system_call(SYS_read));
    child.begin_step();
    child.wait_until_asleep();
    EXPECT_EQ(child.hold(), Stepper::State::held);
    EXPECT_EQ(child.state(), Stepper::State::held);
}

TEST_F(StepperTest, BeginsAgainWithAChildsNextSteps) {
    Stepper child(takes_two_turns, file);
    child.run();
    ASSERT_EQ(child.wait(), Stepper::State::at_end);
    EXPECT_EQ(words.at[0], 1U);
    child.begin_again();
    EXPECT_EQ(words.at[0], 1U);
    child.run();
    ASSERT_EQ(child.wait(), Stepper::State::at_end);
    EXPECT_EQ(words.at[0], 2U);
}

}  // namespace
