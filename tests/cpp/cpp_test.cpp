// What shmnm.hpp sets in the region is what it gets, and what the C functions get.
#include <numeric>

#include "region_fixture.h"
#include "shmnm.hpp"

namespace {

using shmnm::FstKind;
using shmnm::HbResource;
using shmnm::NpResource;
using shmnm::Priority;
using shmnm::Server;
using shmnm::State;
using testing::Each;
using testing::ElementsAre;

class Cpp : public test::RegionTest {
  protected:
    Cpp() {
        map_region({.servers = 6, .hb = 3, .np = 3});
        alpha.add({10});
        beta.add({20});
        lan1.add(1);
        ping1.add(2);
    }

    const Server alpha{"alpha"}, beta{"beta"};
    const HbResource lan1{"lan", "lan1"};
    const NpResource ping1{"ping", "ping1"};
};

TEST_F(Cpp, SetsAndGetsEachWordOfTheCluster) {
    shmnm::set(shmnm::waitstat, State{11});
    shmnm::set(shmnm::bwflag, State{12});
    shmnm::set(shmnm::bwflagdisk, State{13});
    shmnm::set(shmnm::clstat, State{14});
    shmnm::set(shmnm::fstrscstat, State{15});
    EXPECT_EQ(shmnm::get(shmnm::waitstat).value, 11u);
    EXPECT_EQ(shmnm::get(shmnm::bwflag).value, 12u);
    EXPECT_EQ(shmnm::get(shmnm::bwflagdisk).value, 13u);
    EXPECT_EQ(shmnm::get(shmnm::clstat).value, 14u);
    EXPECT_EQ(shmnm::get(shmnm::fstrscstat).value, 15u);
    EXPECT_EQ(word_at(44), 11u);
    EXPECT_EQ(word_at(56), 14u);
}

TEST_F(Cpp, SetsAndGetsEachWordOfAServer) {
    EXPECT_EQ(alpha.get(shmnm::nodestat), State::initial);
    const auto set_and_get = [this](auto word, uint32_t value) {
        beta.set(word, State{value});
        EXPECT_EQ(beta.get(word).value, value);
        EXPECT_NE(alpha.get(word).value, value) << "another server's word stays";
    };
    set_and_get(shmnm::nodestat, 21);
    set_and_get(shmnm::nodestat_nw, 22);
    set_and_get(shmnm::downnotifystat, 23);
    set_and_get(shmnm::isolateflag, 24);
    set_and_get(shmnm::pingstat, 25);
    set_and_get(shmnm::holdstat, 26);
    uint32_t holdstat = 0;
    EXPECT_EQ(shmnm_getholdstat("beta", &holdstat), SHMNM_OK);
    EXPECT_EQ(holdstat, 26u);
}

TEST_F(Cpp, CombinesAServersWordsOrSaysThatThereIsNoCombination) {
    EXPECT_EQ(alpha.combined(), State{2});
    alpha.set(shmnm::nodestat, State::alive);
    EXPECT_EQ(alpha.combined(), State{1});
    alpha.set(shmnm::isolateflag, State{1});
    EXPECT_EQ(alpha.combined(), State{0x10});
    alpha.set(shmnm::isolateflag, State{2});
    EXPECT_EQ(alpha.combined(), std::nullopt);
}

TEST_F(Cpp, TellsWhetherAServerIsAlive) {
    EXPECT_FALSE(shmnm::any_alive());
    alpha.set(shmnm::nodestat, State::alive);
    EXPECT_TRUE(shmnm::any_alive());
    EXPECT_FALSE(alpha.any_other_alive());
    EXPECT_TRUE(beta.any_other_alive());
}

TEST_F(Cpp, AddsFindsChangesAndRemovesServers) {
    EXPECT_EQ(beta.priority(), Priority{20});
    beta.set_priority({30});
    EXPECT_EQ(beta.priority(), Priority{30});
    const Server found = Server::with_priority({30});
    EXPECT_STREQ(found.name().c_str(), "beta");
    EXPECT_EQ(found.get(shmnm::nodestat), State::initial) << "the name is kept in the object";
    alpha.remove();
    EXPECT_THAT(Server::names(), ElementsAre("beta"));
}

TEST_F(Cpp, AddsFindsChangesAndRemovesResources) {
    EXPECT_EQ(lan1.priority(), 1u);
    EXPECT_EQ(ping1.priority(), 2u);
    lan1.set_priority(7);
    EXPECT_EQ(lan1.priority(), 7u);
    EXPECT_STREQ(HbResource::named("lan1").type().c_str(), "lan");
    EXPECT_STREQ(NpResource::named("ping1").type().c_str(), "ping");
    const HbResource disk1("disk", "disk1");
    disk1.add(3);
    EXPECT_THAT(HbResource::names(), ElementsAre("lan1", "disk1"));
    EXPECT_THAT(HbResource::types(), ElementsAre("lan", "disk"));
    EXPECT_THAT(HbResource::names_of_type("disk"), ElementsAre("disk1"));
    EXPECT_THAT(NpResource::names(), ElementsAre("ping1"));
    lan1.remove();
    EXPECT_THAT(HbResource::names(), ElementsAre("disk1"));
}

TEST_F(Cpp, SetsAndGetsTheStatesOfResources) {
    lan1.set(shmnm::hbrscstat, State{31});
    ping1.set(shmnm::nprscstat, State{32});
    lan1.set(shmnm::hbrscsvstat, {20}, State{33});
    ping1.set(shmnm::nprscsvstat, {20}, State{34});
    lan1.set(shmnm::rscsvstat_nw, {20}, State{35});
    EXPECT_EQ(lan1.get(shmnm::hbrscstat), State{31});
    EXPECT_EQ(ping1.get(shmnm::nprscstat), State{32});
    EXPECT_EQ(lan1.get(shmnm::hbrscsvstat, {20}), State{33});
    EXPECT_EQ(ping1.get(shmnm::nprscsvstat, {20}), State{34});
    EXPECT_EQ(lan1.get(shmnm::rscsvstat_nw, {20}), State{35});
    EXPECT_EQ(lan1.get(shmnm::hbrscsvstat, {10}), State::initial);
    EXPECT_EQ(HbResource(shmnm::any_type, "lan1").get(shmnm::hbrscstat), State{31}) << "of whatever type";
    HbResource::set_all_of_type("lan", State{36});
    EXPECT_EQ(lan1.get(shmnm::hbrscstat), State{36});
    EXPECT_EQ(lan1.get(shmnm::hbrscsvstat, {10}), State{36});
    EXPECT_EQ(ping1.get(shmnm::nprscstat), State{32});
}

TEST_F(Cpp, SetsAndGetsDescriptionsOfAnyBytes) {
    lan1.set_description(std::string_view("first line"));
    EXPECT_EQ(lan1.description()[0], 'f');
    EXPECT_EQ(lan1.description()[10], 0);
    const std::array<std::byte, 2> two{std::byte{0xFF}, std::byte{0}};
    ping1.set_description(two);
    EXPECT_EQ(ping1.description()[0], 0xFF);
    std::vector<uint8_t> all(256);
    std::iota(all.begin(), all.end(), uint8_t{0});
    shmnm::set_fst_description(all);
    EXPECT_THAT(shmnm::fst_description(), testing::ElementsAreArray(all));
    std::error_code error;
    lan1.set_description(std::string_view(), error);
    EXPECT_EQ(error, shmnm::errc::param) << "a description has at least one byte";
}

TEST_F(Cpp, SetsAndGetsTheValuesOfTheHeader) {
    shmnm::set_hb_info({3, 4});
    EXPECT_EQ(shmnm::hb_info().a, 3);
    EXPECT_EQ(shmnm::hb_info().b, 4);
    EXPECT_EQ(shmnm::maxima().servers, 6);
    EXPECT_EQ(shmnm::maxima().hb, 3);
    EXPECT_EQ(shmnm::maxima().np, 3);
    shmnm::set_maxima({6, 2, 1});
    EXPECT_EQ(word_at(12), 2u);
    EXPECT_EQ(word_at(16), 1u);
}

TEST_F(Cpp, SimulatesAPartition) {
    beta.set_priority({1});
    alpha.set_priority({0});
    const std::vector<uint32_t> failed{0, 1};
    EXPECT_FALSE(shmnm::partition_simulated());
    shmnm::simulate_partition(failed);
    EXPECT_TRUE(shmnm::partition_simulated());
    std::array<State, 2> read{};
    EXPECT_TRUE(shmnm::partition_simulated(read));
    EXPECT_THAT(read, ElementsAre(State{0}, State{1}));
    shmnm::end_partition();
    EXPECT_FALSE(shmnm::partition_simulated(read));
    EXPECT_THAT(read, ElementsAre(State{0}, State{1})) << "left as it is while nothing is simulated";
}

TEST_F(Cpp, KeepsProcessIdsByNameAndKind) {
    EXPECT_EQ(shmnm::fst_pid("monitor", FstKind::one).pid, 0u);
    shmnm::set_fst_pid("monitor", FstKind::one, {77, 0x123456789A});
    EXPECT_EQ(shmnm::fst_pid("monitor", FstKind::one).pid, 77u);
    EXPECT_EQ(shmnm::fst_pid("monitor", FstKind::one).piddata, 0x123456789Au);
    EXPECT_EQ(shmnm::fst_pid("monitor", FstKind::two).pid, 0u);
}

TEST_F(Cpp, OpensAndClosesColumns) {
    HbResource::close_column(0);
    EXPECT_EQ(lan1.get(shmnm::hbrscsvstat, {10}), State::initial);
    std::error_code error;
    HbResource::open_column(2, error);
    EXPECT_EQ(error, shmnm::errc::index);
    NpResource::open_column(1);
    EXPECT_EQ(ping1.get(shmnm::nprscsvstat, {20}), State::initial);
}

TEST_F(Cpp, CopiesTheBytesOfTheRegion) {
    const std::vector<uint8_t> bytes = shmnm::dump();
    EXPECT_EQ(bytes.size(), shmnm::dump_size());
    test::Bytes region = region_bytes();
    region.resize(bytes.size());
    EXPECT_EQ(bytes, region);
    std::vector<char> room(bytes.size() + 1, 'x');
    shmnm::dump(room);
    EXPECT_EQ(std::memcmp(room.data(), bytes.data(), bytes.size()), 0);
    EXPECT_EQ(room.back(), 'x');
    std::error_code error;
    room.resize(bytes.size() - 1);
    shmnm::dump(room, error);
    EXPECT_EQ(error, shmnm::errc::buffer);
    shmnm::dump(std::vector<std::byte>(), error);
    EXPECT_EQ(error, shmnm::errc::buffer) << "an empty range is no question for the size";
    shmnm::clear();
    EXPECT_THAT(shmnm::dump(), Each(0));
}

}  // namespace
