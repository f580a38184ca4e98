// Nothing of shmnm.hpp allocates except what returns a vector, and what is thrown.
#include <cstdlib>
#include <new>

#include "region_fixture.h"
#include "shmnm.hpp"

namespace {

uint64_t allocations = 0;

void* allocate(std::size_t size) {
    ++allocations;
    if (void* const block = std::malloc(size ? size : 1)) return block;
    std::abort();
}

}  // namespace

// Counts what this program allocates. The library's own run time is not counted: its functions are the C functions.
void* operator new(std::size_t size) {
    return allocate(size);
}
void* operator new[](std::size_t size) {
    return allocate(size);
}
void operator delete(void* block) noexcept {
    std::free(block);
}
void operator delete[](void* block) noexcept {
    std::free(block);
}
void operator delete(void* block, std::size_t) noexcept {
    std::free(block);
}
void operator delete[](void* block, std::size_t) noexcept {
    std::free(block);
}

namespace {

using namespace std::chrono_literals;
using shmnm::HbResource;
using shmnm::NpResource;
using shmnm::Server;
using shmnm::State;

class Allocations : public test::RegionTest {
  protected:
    Allocations() {
        // The recorder that takes the log's lines would allocate for each of them.
        fake.log_opens = false;
        map_region({.servers = 4, .hb = 2, .np = 2});
        Server("alpha").add({1});
        HbResource("lan", "lan1").add(1);
        NpResource("ping", "ping1").add(1);
    }
    /// How many allocations a call makes.
    template <typename Call>
    static uint64_t made_by(const Call& call) {
        const uint64_t before = allocations;
        call();
        return allocations - before;
    }
};

/// Calls what returns no vector, in one of the two forms.
template <typename... Codes>
void call_all(Codes&... codes) {
    State states[4];
    uint8_t bytes[64] = {1};
    const Server alpha(std::string_view("alpha"));
    const HbResource lan1("lan", std::string_view("lan1"));
    const NpResource ping1("ping", "ping1");
    const shmnm::WriteLock lock(5s, codes...);
    shmnm::set(shmnm::clstat, shmnm::get(shmnm::clstat, codes...), codes...);
    alpha.set(shmnm::nodestat, alpha.get(shmnm::nodestat, codes...), codes...);
    alpha.set_priority(alpha.priority(codes...), codes...);
    static_cast<void>(alpha.combined(codes...));
    static_cast<void>(alpha.any_other_alive(codes...));
    static_cast<void>(Server::with_priority({1}, codes...).get(shmnm::pingstat, codes...));
    alpha.copy_column(shmnm::hbrscsvstat, states, lock, codes...);
    alpha.copy_column(shmnm::nprscsvstat, states, codes...);
    const Server beta("beta");
    beta.add({2}, codes...);
    beta.remove(codes...);
    lan1.set(shmnm::hbrscstat, lan1.get(shmnm::hbrscstat, codes...), codes...);
    lan1.set(shmnm::hbrscsvstat, {1}, lan1.get(shmnm::hbrscsvstat, {1}, codes...), codes...);
    lan1.copy_row(shmnm::rscsvstat_nw, states, codes...);
    lan1.set_description(bytes, codes...);
    static_cast<void>(lan1.description(codes...));
    static_cast<void>(HbResource::named("lan1", codes...).priority(codes...));
    HbResource::set_all_of_type("lan", State{3}, codes...);
    ping1.set(shmnm::nprscstat, State{4}, codes...);
    shmnm::set_maxima(shmnm::maxima(codes...), codes...);
    shmnm::set_fst_pid("monitor", shmnm::FstKind::zero, {1, 2}, codes...);
    static_cast<void>(shmnm::fst_pid("monitor", shmnm::FstKind::zero, codes...));
    static_cast<void>(shmnm::partition_simulated(states, codes...));
    static_cast<void>(shmnm::dump_size(codes...));
}

TEST_F(Allocations, AreNoneInAnyCallThatReturnsNoVector) {
    EXPECT_EQ(made_by([] { call_all(); }), 0u);
    std::error_code error;
    EXPECT_EQ(made_by([&] { call_all(error); }), 0u);
    EXPECT_FALSE(error);
}

TEST_F(Allocations, AreNoneWhenAnErrorGoesIntoACode) {
    std::error_code error;
    EXPECT_EQ(made_by([&] { static_cast<void>(Server("omega").get(shmnm::nodestat, error)); }), 0u);
    EXPECT_EQ(error, shmnm::errc::notfound);
}

TEST_F(Allocations, AreCounted) {
    std::vector<std::string> names;
    EXPECT_GE(made_by([&] { names = Server::names(); }), 2u) << "the texts as C writes them, and the vector";
    EXPECT_THAT(names, testing::ElementsAre("alpha"));
}

}  // namespace
