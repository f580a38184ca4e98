// A storm of reads without the lock: two writers change words and keep their checksum, take the mutex twice over now
// and then, and are killed at random. Every copy that a reader keeps has the checksum of its words and is of the last
// owner.
#include <gtest/gtest.h>
#include <kzmkernel.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <iostream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/child.h"

namespace {

using test::Child;
using Random = std::minstd_rand;

constexpr size_t words = 60;
constexpr auto relaxed = std::memory_order_relaxed;

/// What the mutex guards.
struct Field {
    std::atomic<uint32_t> takes;  ///< the number of the last owner's take
    std::array<std::atomic<uint32_t>, words> word;
    std::atomic<uint32_t> checksum;
};
static_assert(std::atomic<uint32_t>::is_always_lock_free);

uint32_t checksum_of(uint32_t takes, const std::array<uint32_t, words>& word) {
    uint32_t sum = takes;
    for (const uint32_t each : word) sum = (sum ^ each) * 0x01000193;
    return sum;
}

struct Objects {
    explicit Objects(const std::string& name)
        : mutex(kzmkernel_create_mutex((name + "-lock").c_str())),
          mapping(kzmkernel_create_mapping(4, sizeof(Field), (name + "-field").c_str())),
          field(static_cast<Field*>(kzmkernel_map_view(mapping, 2, 0, 0))) {}
    ~Objects() {
        kzmkernel_unmap_view(field);
        kzmkernel_close(mapping);
        kzmkernel_close(mutex);
    }
    Objects(const Objects&) = delete;
    Objects& operator=(const Objects&) = delete;
    void* mutex;
    void* mapping;
    Field* field;
};

std::string object_name() {
    return std::getenv("KZMUTIL_NAMESPACE") + std::string("read-storm");
}

void change_words(Field& field, Random& random) {
    for (unsigned left = random() % 16; left > 0; --left) {
        field.word[random() % words].store(static_cast<uint32_t>(random()), relaxed);
    }
}

void write(const Objects& objects, Random& random) {
    Field& field = *objects.field;
    kzmkernel_mutex_info info{};
    kzmkernel_mutex_info_get(objects.mutex, &info);
    field.takes.store(static_cast<uint32_t>(info.takes), relaxed);
    change_words(field, random);
    // A release that does not give the mutex up.
    if (random() % 4 == 0) {
        kzmkernel_wait(objects.mutex, 0);
        change_words(field, random);
        kzmkernel_release(objects.mutex);
        change_words(field, random);
    }
    // Now and then there is time for a reader, and to be killed.
    if (random() % 256 == 0) std::this_thread::yield();
    std::array<uint32_t, words> now{};
    for (size_t i = 0; i < words; ++i) now[i] = field.word[i].load(relaxed);
    field.checksum.store(checksum_of(static_cast<uint32_t>(info.takes), now), relaxed);
}

CHILD(write_until_killed) {
    const Objects objects(object_name());
    Random random(static_cast<unsigned>(std::stoul(test::argument())));
    test::report(1);
    for (;;) {
        const uint32_t result = kzmkernel_wait(objects.mutex, KZMKERNEL_INFINITE);
        if (result != KZMKERNEL_WAIT_OWNED && result != KZMKERNEL_WAIT_ABANDONED) std::abort();
        write(objects, random);
        kzmkernel_release(objects.mutex);
        // Leaves the mutex alone for a while, longer or shorter.
        std::atomic<unsigned> idle{static_cast<unsigned>(random() % 2000)};
        while (idle.fetch_sub(1, relaxed) > 1) {
        }
    }
}

/// Counts of all readers.
struct Counts {
    std::atomic<uint64_t> kept, held, given_up;
    std::atomic<uint64_t> torn_and_given_up;  ///< copies that would have been wrong
    std::atomic<uint64_t> torn, old;          ///< copies that were kept and are wrong
};

void read_once(const Objects& objects, Counts& counts) {
    Field& field = *objects.field;
    uint64_t takes = 0;
    if (kzmkernel_begin_read(objects.mutex, &takes) != KZMKERNEL_READ_FREE) {
        ++counts.held;
        std::this_thread::yield();  // to the owner
        return;
    }
    const uint32_t written_by = field.takes.load(relaxed);
    std::array<uint32_t, words> copy{};
    for (size_t i = 0; i < words; ++i) copy[i] = field.word[i].load(relaxed);
    const bool fits = field.checksum.load(relaxed) == checksum_of(written_by, copy);
    if (kzmkernel_end_read(objects.mutex, takes) == 0) {
        ++counts.given_up;
        if (!fits) ++counts.torn_and_given_up;
        return;
    }
    ++counts.kept;
    if (takes == 0) return;
    if (!fits) ++counts.torn;
    if (written_by != static_cast<uint32_t>(takes)) ++counts.old;
}

uint64_t copies_wanted() {
    const char* const given = std::getenv("KERNEL_READ_STORM_COPIES");
    return given ? std::stoull(given) : test::share_of(200'000);
}

TEST(KernelReadStorm, KeepsNoTornCopyBesideWritersThatAreKilled) {
    const char* const given = std::getenv("KERNEL_READ_STORM_SEED");
    const auto seed = given ? static_cast<unsigned>(std::stoul(given)) : std::random_device()() % 1'000'000;
    std::cout << "KERNEL_READ_STORM_SEED=" << seed << std::endl;
    Random random(seed);
    const Objects objects(object_name());
    Counts counts{};
    const uint64_t wanted = copies_wanted();
    unsigned started = 0;
    const auto start_one = [&] {
        Child child = start(write_until_killed, std::to_string(seed + ++started));
        child.reported();
        return child;
    };
    std::vector<Child> writers;
    writers.reserve(2);
    for (int i = 0; i < 2; ++i) writers.push_back(start_one());

    const auto takeovers = [&] {
        kzmkernel_mutex_info info{};
        kzmkernel_mutex_info_get(objects.mutex, &info);
        return info.takeovers;
    };
    std::atomic<bool> over{false};
    std::thread reader([&] {
        // Without copies that had to be given up, and an owner that was killed, there was no storm.
        while (counts.kept < wanted || counts.torn_and_given_up == 0 || counts.held == 0 || takeovers() == 0) {
            read_once(objects, counts);
        }
        over = true;
    });
    unsigned kills = 0;
    while (!over) {
        const uint64_t goal = counts.kept + random() % 4000;
        while (counts.kept < goal && !over) std::this_thread::yield();
        // Both at a time now and then, so that the dead one's mutex is not taken over at once.
        const bool both = random() % 4 == 0;
        const size_t first = random() % 2;
        for (size_t i = 0; i < (both ? 2 : 1); ++i, ++kills) writers[(first + i) % 2].kill();
        for (size_t i = 0; i < (both ? 2 : 1); ++i) writers[(first + i) % 2] = start_one();
    }
    reader.join();
    for (Child& writer : writers) writer.kill();

    kzmkernel_mutex_info info{};
    ASSERT_TRUE(kzmkernel_mutex_info_get(objects.mutex, &info));
    std::cout << counts.kept << " copies kept of " << info.takes << " takes, " << kills << " kills, " << info.takeovers
              << " takeovers; given up: " << counts.given_up << ", of them torn: " << counts.torn_and_given_up
              << "; not begun: " << counts.held << std::endl;
    EXPECT_EQ(counts.torn, 0u);
    EXPECT_EQ(counts.old, 0u);
    EXPECT_GE(counts.kept, wanted);
    EXPECT_GT(kills, 0u);
}

}  // namespace
