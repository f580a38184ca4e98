// What a call leaves if its caller is killed, looked at after every instruction that writes to the region: the region
// as it was, the region as it will be, or a note from which the change is completed.
#include <gtest/gtest.h>
#include <kzmkernel.h>
#include <kzmutil.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "change_steps.h"
#include "killed_calls.h"
#include "support/child.h"
#include "support/stepper_linux.h"
#include "support/temporary_folder.h"

namespace {

using killed_calls::Promise;
using killed_calls::Scenario;
using killed_calls::scenarios;
using shmnm::Note;
using Bytes = std::vector<uint8_t>;

CHILD(makes_the_call) {
    if (shmnm_attach() != SHMNM_OK || shmnm_rwlock(10'000) != SHMNM_OK) std::abort();
    test::begin_steps();
    scenarios[std::strtoul(test::argument().c_str(), nullptr, 10)].call();
    test::end_steps();
    test::hang();
}

class KilledCall : public testing::TestWithParam<size_t> {
  protected:
    KilledCall() : path_("KZM_INSTALL_PATH", folder_.string().c_str()) {
        folder_.write("etc/cluster.xml", killed_calls::configuration);
        EXPECT_EQ(shmnm_create(), SHMNM_OK);
        killed_calls::fill();
        mutex_ = KzmutilCreateNamedMutex(0, "oru_kzmshmnm_lock");
        mapping_ = KzmutilOpenNamedFileMapping(0xF001F, 1, "oru_kzmshmnm_map");
        view_ = static_cast<uint8_t*>(kzmkernel_map_view(mapping_, 2, 0, 0));
        size_ = kzmkernel_view_size(view_);
    }
    ~KilledCall() override {
        kzmkernel_unmap_view(view_);
        kzmkernel_close(mapping_);
        kzmkernel_close(mutex_);
        EXPECT_EQ(shmnm_delete(), SHMNM_OK);
    }

    static const Scenario& scenario() { return scenarios[GetParam()]; }
    Bytes bytes() const { return {view_, view_ + size_}; }
    /// The region after the whole call, which is taken back.
    Bytes after_the_call() const {
        const Bytes before = bytes();
        scenario().call();
        Bytes after = bytes();
        std::memcpy(view_, before.data(), before.size());
        return after;
    }
    Note note() const {
        Note note;
        EXPECT_NE(kzmkernel_note_read(mutex_, &note), 0);
        return note;
    }
    /// The region after this note was completed in it.
    static Bytes completed(Bytes bytes, Note note) {
        const shmnm::Counts counts{note.servers, note.hb, note.np, note.fst};
        const shmnm::Region region{bytes.data(), bytes.size(), counts, shmnm::Layout(counts), note.object};
        EXPECT_TRUE(can_complete(region, note));
        complete(region, note);
        return bytes;
    }
    /// Makes the call in another process and looks after every instruction that writes to the region.
    template <typename Look>
    void step_through(const Look& look) {
        test::Stepper writer(makes_the_call, std::to_string(GetParam()));
        test::Watched watched({view_, size_});
        unsigned writes = 0;
        writer.step_through(watched, [&] {
            SCOPED_TRACE("write " + std::to_string(++writes));
            look();
            if (HasFailure()) writer.kill();
        });
        EXPECT_GT(writes, 0U);
    }

    test::TemporaryFolder folder_;
    test::ScopedEnvironment path_;
    void *mutex_ = nullptr, *mapping_ = nullptr;
    uint8_t* view_ = nullptr;
    size_t size_ = 0;
};

TEST_P(KilledCall, LeavesTheOldRegionTheNewOneOrANoteOfTheChange) {
    const Bytes before = bytes(), after = after_the_call();
    ASSERT_NE(before, after);
    step_through([&] {
        const Note left = note();
        if (left.state != Note::open) {
            EXPECT_TRUE(bytes() == before || bytes() == after) << "nothing tells of this half of a change";
        } else if (scenario().promise != Promise::named) {
            EXPECT_EQ(completed(bytes(), left), after);
        }
    });
    EXPECT_EQ(bytes(), after);
    EXPECT_EQ(note().state, Note::closed);
}

INSTANTIATE_TEST_SUITE_P(, KilledCall, testing::Range(size_t{0}, std::size(scenarios)),
                         [](const auto& instance) { return scenarios[instance.param].name; });

/// The first five calls, each of which adds a record.
class KilledAddition : public KilledCall {};

TEST_P(KilledAddition, ShowsARecordOnlyOnceItIsWhole) {
    static const size_t counts[] = {28, 32, 36, 40, 40};
    const auto count = [&](const Bytes& bytes) {
        uint32_t word = 0;
        std::memcpy(&word, &bytes[counts[GetParam()]], sizeof word);
        return word;
    };
    const Bytes before = bytes(), after = after_the_call();
    ASSERT_EQ(count(after), count(before) + 1);
    step_through([&] {
        const Bytes now = bytes();
        EXPECT_TRUE(count(now) == count(before) || now == after);
    });
}

INSTANTIATE_TEST_SUITE_P(, KilledAddition, testing::Range(size_t{0}, size_t{5}),
                         [](const auto& instance) { return scenarios[instance.param].name; });

}  // namespace
