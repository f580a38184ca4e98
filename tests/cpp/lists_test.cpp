// Lists of shmnm.hpp: measured and filled in one call of the caller, with a lock and without.
#include "region_fixture.h"
#include "shmnm.hpp"

namespace {

using namespace std::chrono_literals;
using fakes::LogLine;
using shmnm::errc;
using shmnm::HbResource;
using shmnm::NpResource;
using shmnm::Server;
using shmnm::State;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr size_t server_count = 28, hb_count = 32;

class Lists : public test::RegionTest {
  protected:
    Lists() {
        map_region({.servers = 4, .hb = 3, .np = 2});
        for (const char* const name : {"alpha", "beta", "gamma"}) Server(name).add({position_++});
        for (const char* const name : {"lan1", "lan2"}) HbResource("lan", name).add(1);
        HbResource("lan", "lan2").set(shmnm::hbrscsvstat, {1}, State{7});
        HbResource("lan", "lan2").set(shmnm::rscsvstat_nw, {1}, State{8});
        log_of_last_call();
    }

    /// Changes a count of the header each time a function has returned, as another process might.
    void after_each(const std::string& function, size_t count, std::vector<uint32_t> values) {
        fake.on_line = [this, function, count, values, next = size_t{0}](const LogLine& line) mutable {
            if (line.function != function || line.text.rfind("<<< EXIT", 0) != 0) return;
            if (next < values.size()) poke_word(count, values[next++]);
        };
    }
    /// The functions that were called since this was asked last.
    std::vector<std::string> called() {
        fake.on_line = nullptr;
        std::vector<std::string> functions;
        for (const LogLine& line : log_of_last_call()) {
            if (line.text == "<<< ENTER >>>") functions.push_back(line.function);
        }
        return functions;
    }

  private:
    int32_t position_ = 0;
};

TEST_F(Lists, HoldEveryName) {
    EXPECT_THAT(Server::names(), ElementsAre("alpha", "beta", "gamma"));
    EXPECT_THAT(HbResource::names(), ElementsAre("lan1", "lan2"));
    EXPECT_THAT(HbResource::types(), ElementsAre("lan", "lan"));
    EXPECT_THAT(NpResource::names(), IsEmpty());
    EXPECT_THAT(NpResource::types(), IsEmpty());
}

TEST_F(Lists, KeepEmptyNamesBetweenOthers) {
    for (const char* const name : {"beta", "gamma"}) Server(name).remove();
    Server("").add({5});
    Server("delta").add({6});
    EXPECT_THAT(Server::names(), ElementsAre("alpha", "", "delta"));
}

TEST_F(Lists, MeasureOnceAndFillOnceUnderALock) {
    const shmnm::ReadLock reading(0s);
    EXPECT_THAT(Server::names(reading), ElementsAre("alpha", "beta", "gamma"));
    const shmnm::WriteLock writing(0s);
    EXPECT_THAT(HbResource::names_of_type("lan", writing), ElementsAre("lan1", "lan2"));
    EXPECT_THAT(called(), ElementsAre("_rolock", "_enumnode", "_enumnode", "_rwlock", "_enumhbrsc", "_enumhbrsc"));
}

TEST_F(Lists, TakeNoLock) {
    EXPECT_THAT(Server::names(), ElementsAre("alpha", "beta", "gamma"));
    EXPECT_THAT(called(), ElementsAre("_enumnode", "_enumnode"));
}

TEST_F(Lists, AreRepeatedWithoutALockWhenTheyHaveGrown) {
    poke_word(server_count, 0);
    after_each("_enumnode", server_count, {3});
    EXPECT_THAT(Server::names(), ElementsAre("alpha", "beta", "gamma"));
    EXPECT_THAT(called(), ElementsAre("_enumnode", "_enumnode", "_enumnode", "_enumnode"));
}

TEST_F(Lists, AreWhatWasFilledWhenTheyHaveShrunk) {
    after_each("_enumnode", server_count, {1});
    EXPECT_THAT(Server::names(), ElementsAre("alpha"));
    EXPECT_THAT(called(), ElementsAre("_enumnode", "_enumnode"));
}

TEST_F(Lists, FailUnderALockThatSomebodyDisregards) {
    poke_word(server_count, 0);
    const shmnm::ReadLock reading(0s);
    after_each("_enumnode", server_count, {3});
    std::error_code error;
    EXPECT_THAT(Server::names(reading, error), IsEmpty());
    EXPECT_EQ(error, errc::buffer);
    EXPECT_THAT(called(), ElementsAre("_rolock", "_enumnode", "_enumnode"));
}

TEST_F(Lists, RefuseALockThatIsNotHeld) {
    const shmnm::WriteLock writing(std::defer_lock);
    std::error_code error;
    EXPECT_THAT(Server::names(writing, error), IsEmpty());
    EXPECT_EQ(error, errc::lock);
    error.clear();
    EXPECT_THAT(HbResource("lan", "lan1").row(shmnm::hbrscsvstat, writing, error), IsEmpty());
    EXPECT_EQ(error, errc::lock);
    EXPECT_THROW(static_cast<void>(Server("alpha").column(shmnm::hbrscsvstat, writing)), shmnm::Error);
    EXPECT_THAT(called(), IsEmpty()) << "nothing is called";
}

TEST_F(Lists, HoldARowOfAResource) {
    const HbResource lan2("lan", "lan2");
    EXPECT_THAT(lan2.row(shmnm::hbrscsvstat), ElementsAre(State{2}, State{7}, State{2}));
    EXPECT_THAT(lan2.row(shmnm::rscsvstat_nw), ElementsAre(State{2}, State{8}, State{2}));
    std::error_code error;
    EXPECT_THAT(HbResource("lan", "lan9").row(shmnm::hbrscsvstat, error), IsEmpty());
    EXPECT_EQ(error, errc::notfound);
}

TEST_F(Lists, RepeatARowThatHasGrown) {
    poke_word(server_count, 1);
    after_each("_enumhbrscsvstat", server_count, {3});
    EXPECT_THAT(HbResource("lan", "lan2").row(shmnm::hbrscsvstat), ElementsAre(State{2}, State{7}, State{2}));
    EXPECT_EQ(called().size(), 4u);
}

TEST_F(Lists, CopyARowIntoAnyRange) {
    const HbResource lan2("lan", "lan2");
    uint32_t words[4] = {90, 91, 92, 93};
    EXPECT_EQ(lan2.copy_row(shmnm::hbrscsvstat, words), 3u);
    EXPECT_THAT(words, ElementsAre(2, 7, 2, 93));
    std::vector<State> states(3);
    EXPECT_EQ(lan2.copy_row(shmnm::hbrscsvstat, states), 3u);
    EXPECT_EQ(states[1], State{7});
    EXPECT_THAT(called(), ElementsAre("_enumhbrscsvstat", "_enumhbrscsvstat")) << "one call for each";
    std::error_code error;
    states.resize(2);
    EXPECT_EQ(lan2.copy_row(shmnm::hbrscsvstat, states, error), 0u);
    EXPECT_EQ(error, errc::buffer);
    EXPECT_EQ(lan2.copy_row(shmnm::hbrscsvstat, std::vector<State>(), error), 0u);
    EXPECT_EQ(error, errc::buffer) << "an empty range is no question for the size";
}

TEST_F(Lists, HoldAColumnOfAServer) {
    const Server beta("beta");
    EXPECT_THAT(beta.column(shmnm::hbrscsvstat), ElementsAre(State{2}, State{7}));
    EXPECT_THAT(beta.column(shmnm::rscsvstat_nw), ElementsAre(State{2}, State{8}));
    EXPECT_THAT(beta.column(shmnm::nprscsvstat), IsEmpty());
    std::error_code error;
    EXPECT_THAT(Server("omega").column(shmnm::hbrscsvstat, error), IsEmpty());
    EXPECT_EQ(error, errc::notfound);
}

TEST_F(Lists, MeasureAColumnAgainWithoutALock) {
    const Server beta("beta");
    EXPECT_THAT(beta.column(shmnm::hbrscsvstat), ElementsAre(State{2}, State{7}));
    EXPECT_THAT(called(), ElementsAre("_enumsvhbrscstat", "_enumsvhbrscstat", "_enumsvhbrscstat"));
    const shmnm::ReadLock reading(0s);
    EXPECT_THAT(beta.column(shmnm::hbrscsvstat, reading), ElementsAre(State{2}, State{7}));
    EXPECT_THAT(called(), ElementsAre("_rolock", "_enumsvhbrscstat", "_enumsvhbrscstat"));
}

TEST_F(Lists, RepeatAColumnThatHasShrunkOrGrown) {
    const Server beta("beta");
    // The fill wrote only one word, and could not say so.
    after_each("_enumsvhbrscstat", hb_count, {1});
    EXPECT_THAT(beta.column(shmnm::hbrscsvstat), ElementsAre(State{2}));
    after_each("_enumsvhbrscstat", hb_count, {2});
    EXPECT_THAT(beta.column(shmnm::hbrscsvstat), ElementsAre(State{2}, State{7}));
    uint32_t words[3] = {90, 91, 92};
    poke_word(hb_count, 1);
    after_each("_enumsvhbrscstat", hb_count, {1, 2});
    EXPECT_EQ(beta.copy_column(shmnm::hbrscsvstat, words), 2u);
    EXPECT_THAT(words, ElementsAre(2, 7, 92));
}

TEST_F(Lists, CopyAColumnIntoAnyRange) {
    const Server beta("beta");
    std::array<uint32_t, 3> words{90, 91, 92};
    EXPECT_EQ(beta.copy_column(shmnm::hbrscsvstat, words), 2u);
    EXPECT_THAT(words, ElementsAre(2, 7, 92));
    std::error_code error;
    std::array<State, 1> narrow{};
    EXPECT_EQ(beta.copy_column(shmnm::hbrscsvstat, narrow, error), 0u);
    EXPECT_EQ(error, errc::buffer);
}

// What is no range of words is refused by the compiler.
template <typename Range, typename Container>
constexpr bool is_taken = std::is_constructible_v<Range, Container>;
static_assert(is_taken<shmnm::Words, std::vector<State>&> && is_taken<shmnm::Words, uint32_t (&)[3]>);
static_assert(!is_taken<shmnm::Words, const std::vector<State>&> && !is_taken<shmnm::Words, std::vector<int>&>);
static_assert(is_taken<shmnm::ConstWords, const std::vector<uint32_t>&> && is_taken<shmnm::ConstBytes, std::string>);
static_assert(!is_taken<shmnm::ConstBytes, std::vector<uint32_t>&> && !is_taken<shmnm::Bytes, std::string_view>);

}  // namespace
