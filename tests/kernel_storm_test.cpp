// A storm of hand-overs: sixteen threads in several processes pass one mutex around while processes are killed, and on
// Linux stopped, at random. At no instant are there two owners, and nobody who waits is forgotten.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "kernel.h"
#include "kernel_objects.h"
#include "kernel_storm.h"
#include "support/child.h"

namespace {

namespace kernel = shmnm::kernel;
using test::Child;

constexpr uint32_t owned = 0, abandoned = 0x80, timed_out = 258, infinite = 0xFFFFFFFF;

/// What all of them share.
struct Field {
    std::atomic<uint32_t> owner;          ///< 0, or who is between a wait and a release
    std::atomic<uint32_t> two_owners;     ///< how often somebody found another one there
    std::atomic<uint32_t> wrong_results;  ///< of a wait or a release
    std::atomic<uint32_t> hand_overs;
    std::atomic<uint32_t> take_overs;
    std::atomic<uint32_t> last_round;  ///< set when nobody is killed any more
    std::atomic<uint32_t> next_owner;
    std::atomic<uint32_t> victim_wanted;  ///< the next owner keeps it until its process is killed
    std::atomic<uint32_t> victim;         ///< the process of that owner
};
static_assert(std::atomic<uint32_t>::is_always_lock_free);

struct Objects {
    explicit Objects(const std::string& name)
        : mutex(test::create_mutex((name + "-lock").c_str())),
          mapping(test::create_mapping(sizeof(Field), (name + "-field").c_str())),
          field(static_cast<Field*>(kernel::map_view(mapping))) {}
    ~Objects() {
        kernel::unmap_view(field);
        kernel::close(mapping);
        kernel::close(mutex);
    }
    Objects(const Objects&) = delete;
    Objects& operator=(const Objects&) = delete;
    void* mutex;
    void* mapping;
    Field* field;
};

/// Between a wait and the release: nobody else may be there. Whoever took the lock over clears up behind the dead one.
void own(Field& field, uint32_t me, bool taken_over, unsigned steps) {
    const uint32_t before = field.owner.exchange(me);
    if (before != 0 && !taken_over) ++field.two_owners;
    for (unsigned i = 0; i < steps; ++i) {
        if (field.owner != me) ++field.two_owners;
        // Most of the time somebody should own it, also when a process is killed.
        if (i % 8 == 7) std::this_thread::yield();
    }
    if (field.victim_wanted.exchange(0) != 0) {
        field.victim = test::process_id();
        test::hang();
    }
    uint32_t expected = me;
    if (!field.owner.compare_exchange_strong(expected, 0)) ++field.two_owners;
}

void pass_the_lock_around(Objects& objects, unsigned seed) {
    Field& field = *objects.field;
    std::minstd_rand random(seed);
    // Once nobody is killed any more, everybody has to get it a few times without a limit.
    for (int rounds_left = 20; rounds_left > 0;) {
        const bool last = field.last_round != 0;
        const uint32_t timeout_ms = last || random() % 2 == 0 ? infinite : static_cast<uint32_t>(random() % 4);
        const uint32_t result = kernel::wait(objects.mutex, timeout_ms);
        if (result == timed_out && timeout_ms != infinite) continue;
        if (result != owned && result != abandoned) {
            ++field.wrong_results;
            return;
        }
        const bool again = random() % 8 == 0;
        if (again && kernel::wait(objects.mutex, 0) != owned) ++field.wrong_results;
        if (result == abandoned) ++field.take_overs;
        own(field, ++field.next_owner, result == abandoned, static_cast<unsigned>(random() % 50));
        ++field.hand_overs;
        if (again && !kernel::release(objects.mutex)) ++field.wrong_results;
        if (!kernel::release(objects.mutex)) ++field.wrong_results;
        rounds_left -= last;
        // A process that waits gets a chance before this thread takes the mutex again.
        if (random() % 2 == 0) std::this_thread::yield();
    }
}

CHILD(storm) {
    const std::string& argument = test::argument();
    const size_t space = argument.find(' ');
    const auto seed = static_cast<unsigned>(std::stoul(argument.substr(0, space)));
    Objects objects(argument.substr(space + 1));
    test::report(1);
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < test::storm_threads_a_process; ++i) {
        threads.emplace_back([&objects, seed, i] { pass_the_lock_around(objects, seed * 16 + i); });
    }
    for (std::thread& thread : threads) thread.join();
}

unsigned chosen_seed() {
    const char* const given = std::getenv("KERNEL_STORM_SEED");
    return given ? static_cast<unsigned>(std::stoul(given)) : std::random_device()();
}

/// Ends the program, with the seed, when a waiter was forgotten.
class Watchdog {
  public:
    explicit Watchdog(const Field& field) : thread_([this, &field] { watch(field); }) {}
    ~Watchdog() {
        over_ = true;
        thread_.join();
    }
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

  private:
    void watch(const Field& field) {
        constexpr int quiet_limit = 60'000 / 50;
        uint32_t seen = field.hand_overs;
        for (int quiet = 0; !over_; kernel::sleep(50)) {
            const uint32_t now = field.hand_overs;
            quiet = now == seen ? quiet + 1 : 0;
            seen = now;
            if (quiet < quiet_limit) continue;
            std::cerr << "no hand-over for a minute: somebody who waits was forgotten\n";
            std::abort();
        }
    }
    std::atomic<bool> over_{false};
    std::thread thread_;
};

TEST(KernelStorm, HasOneOwnerAtATimeAndForgetsNoWaiter) {
    const unsigned seed = chosen_seed();
    std::cout << "KERNEL_STORM_SEED=" << seed << std::endl;
    std::minstd_rand random(seed);
    const std::string name = std::getenv("KZMUTIL_NAMESPACE") + std::string("storm");
    Objects objects(name);
    Field& field = *objects.field;
    const Watchdog watchdog(field);

    unsigned started = 0;
    uint32_t killed_owners = 0;
    const auto start_one = [&] {
        Child child = start(storm, std::to_string(seed % 100'000 + ++started) + " " + name);
        child.reported();
        return child;
    };
    std::vector<Child> children;
    for (unsigned i = 0; i < test::storm_processes; ++i) children.push_back(start_one());
    // With a sanitizer a process takes much longer to start.
    const int rounds = std::max(20, static_cast<int>(test::share_of(test::storm_rounds)));
    for (int round = 0; round < rounds; ++round) {
        // Not before the lock has gone round, so that there is somebody to kill.
        const uint32_t goal = field.hand_overs + static_cast<uint32_t>(random() % 300);
        while (field.hand_overs < goal) std::this_thread::yield();
        Child* chosen = &children[random() % test::storm_processes];
        switch (test::storm_kills_anywhere ? random() % 3 : 1) {
            case 0: {
                // Nothing moves while a stopped process owns it, and all goes on afterwards.
                test::stop_process(chosen->process_id());
                const uint32_t before = field.hand_overs;
                for (int i = 0; i < 100 && field.hand_overs == before; ++i) std::this_thread::yield();
                test::continue_process(chosen->process_id());
                continue;
            }
            case 1:
                field.victim = 0;
                field.victim_wanted = 1;
                while (field.victim == 0) std::this_thread::yield();
                for (Child& child : children) {
                    if (child.process_id() == field.victim) chosen = &child;
                }
                ++killed_owners;
                break;
            default:
                break;
        }
        chosen->kill();
        *chosen = start_one();
    }
    field.last_round = 1;
    for (Child& child : children) EXPECT_EQ(child.wait(), 0);

    EXPECT_EQ(field.two_owners, 0u);
    EXPECT_EQ(field.wrong_results, 0u);
    EXPECT_EQ(field.owner, 0u);
    EXPECT_GE(field.hand_overs, test::storm_processes * test::storm_threads_a_process * 20);
    EXPECT_GE(field.take_overs, killed_owners);
    EXPECT_GT(killed_owners, 0u);
    EXPECT_EQ(kernel::wait(objects.mutex, 0), owned);
    EXPECT_TRUE(kernel::release(objects.mutex));
    std::cout << field.hand_overs << " hand-overs, " << field.take_overs << " take-overs\n";
}

}  // namespace
