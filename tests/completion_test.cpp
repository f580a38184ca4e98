// A completion that is itself killed: after every instruction that writes, to the region or to the note, the next
// completion makes the same region of what is there.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>
#include <string>

#include "noted_changes.h"
#include "support/stepper_linux.h"
#include "support/temporary_folder.h"

namespace {

using namespace noted_changes;

/// What the killed process shares with the next one.
struct Shared {
    uint32_t words[view_words];
    alignas(8) shmnm::Note note;
};

Shared& map_shared(const std::string& path) {
    const int descriptor = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (descriptor < 0 || ftruncate(descriptor, sizeof(Shared)) != 0) throw std::runtime_error("cannot make " + path);
    void* const place = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
    close(descriptor);
    if (place == MAP_FAILED) throw std::runtime_error("cannot map " + path);
    return *static_cast<Shared*>(place);
}

CHILD(completes) {
    Shared& shared = map_shared(test::argument());
    test::begin_steps();
    complete(region_in(shared.words), shared.note);
    test::end_steps();
    test::hang();
}

class Completion : public testing::TestWithParam<NotedChange> {};

TEST_P(Completion, ThatIsKilledAnywhereIsCompletedByTheNextOne) {
    const test::TemporaryFolder folder;
    const std::string path = folder.string() + "/shared";
    Shared& shared = map_shared(path);
    Words expected = filled_region();
    std::copy(expected.begin(), expected.end(), shared.words);
    shared.note = GetParam().note;
    GetParam().whole(expected);

    test::Stepper first(completes, path);
    test::Watched watched({reinterpret_cast<const uint8_t*>(&shared), sizeof shared});
    unsigned kills = 0;
    first.step_through(watched, [&] {
        ++kills;
        Words words(shared.words, shared.words + view_words);
        shmnm::Note note = shared.note;
        const shmnm::Region region = region_in(words.data());
        EXPECT_TRUE(can_complete(region, note)) << "killed after change " << kills;
        complete(region, note);
        EXPECT_EQ(words, expected) << "killed after change " << kills;
        if (testing::Test::HasFailure()) first.kill();
    });
    EXPECT_GT(kills, 0U);
    EXPECT_EQ(Words(shared.words, shared.words + view_words), expected);
    munmap(&shared, sizeof shared);
}

INSTANTIATE_TEST_SUITE_P(, Completion, testing::ValuesIn(all()),
                         [](const auto& instance) { return std::string(instance.param.name); });

}  // namespace
