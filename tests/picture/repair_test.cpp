// What is completed from the note of a killed caller, and when the note is refused.
#include "picture/repair.h"

#include <gmock/gmock.h>
#include <kzmkernel.h>

#include <algorithm>
#include <functional>
#include <vector>

#include "picture/apply.h"
#include "picture/live_region.h"

namespace picture {
namespace {

using shmnm::Note;
using shmnm::NotedCall;
using testing::HasSubstr;
using testing::IsEmpty;
using Memory = std::vector<uint8_t>;

class Repair : public test::LiveCopy {
  protected:
    void SetUp() override {
        ASSERT_EQ(shmnm_addnode("beta", 2), SHMNM_OK);
        Memory before = bytes();
        with_note([](Note&) { EXPECT_EQ(shmnm_rmnode("alpha"), SHMNM_OK); });
        after_ = bytes();
        before_ = std::move(before);
        std::copy(before_.begin(), before_.end(), map_.base());
    }
    void TearDown() override {
        with_note([](Note& note) { note.state = note.superseded.state = Note::closed; });
    }

    Memory bytes() const { return {map_.base(), map_.base() + map_.size()}; }
    /// Changes the note as the lock's owner.
    void with_note(const std::function<void(Note&)>& change) {
        ASSERT_EQ(shmnm_rwlock(0), SHMNM_OK);
        change(*static_cast<Note*>(kzmkernel_note(live_.mutex())));
        ASSERT_EQ(shmnm_rwunlock(), SHMNM_OK);
    }
    Note note() const {
        Note note;
        EXPECT_NE(kzmkernel_note_read(live_.mutex(), &note), 0);
        return note;
    }
    kzmkernel_mutex_info lock_facts() {
        kzmkernel_mutex_info info{};
        EXPECT_NE(kzmkernel_mutex_info_get(live_.mutex(), &info), 0);
        return info;
    }
    /// As if the caller that removed alpha had been killed before its first step, in the lock's last take.
    void leave_open(const std::function<void(Note&)>& change = [](Note&) {}) {
        with_note([&](Note& note) {
            note.state = Note::open;
            note.progress = 0;
            note.takes = lock_facts().takes;
            note.looks = looks();
            change(note);
        });
    }
    uint64_t looks() {
        uint64_t looks = 0;
        EXPECT_NE(kzmkernel_look_count_get(live_.mutex(), &looks), 0);
        return looks;
    }
    void expect_refused(ErrorKind kind, const std::string& why, bool force = false) {
        const Memory unchanged = bytes();
        try {
            repair({}, force, false);
            ADD_FAILURE() << "not refused";
        } catch (const Error& error) {
            EXPECT_EQ(error.kind, kind);
            EXPECT_THAT(error.what(), HasSubstr("nothing was changed: "));
            EXPECT_THAT(error.what(), HasSubstr(why));
        }
        EXPECT_EQ(bytes(), unchanged);
    }

    mutable LiveRegion live_{Access{}};
    WritableRegion map_;
    Memory before_, after_;
};

TEST_F(Repair, OfNothingDoesNothing) {
    const Repaired done = repair({}, false, false);
    EXPECT_THAT(done.completed, IsEmpty());
    EXPECT_THAT(done.discarded, IsEmpty());
    EXPECT_EQ(bytes(), before_);
}

TEST_F(Repair, CompletesTheChangeThatTheLocksLastOwnerLeft) {
    leave_open();
    const Repaired done = repair({}, false, false);
    ASSERT_EQ(done.completed.size(), 1u);
    EXPECT_EQ(done.completed[0].change, "removed server alpha");
    EXPECT_THAT(done.discarded, IsEmpty());
    EXPECT_EQ(bytes(), after_);
    EXPECT_EQ(note().state, Note::closed);
    EXPECT_THAT(repair({}, false, false).completed, IsEmpty());
}

TEST_F(Repair, NotesItsOwnTakeSoThatItCanBeRepeatedIfItIsKilled) {
    leave_open();
    const uint64_t before = looks();
    repair({}, false, false);
    EXPECT_EQ(note().takes, lock_facts().takes);
    EXPECT_EQ(looks(), before + 1);
    EXPECT_EQ(note().looks, looks());
}

TEST_F(Repair, RefusesIfTheLockWasTakenSinceUnlessForced) {
    leave_open();
    for (const char* const times : {"1 time since", "2 times since"}) {
        with_note([](Note&) {});
        expect_refused(ErrorKind::change_in_doubt, std::string("the lock was taken ") + times + " process " +
                                                       std::to_string(note().process) +
                                                       " was killed while it removed server alpha");
    }
    EXPECT_EQ(repair({}, true, false).completed.size(), 1u);
    EXPECT_EQ(bytes(), after_);
}

TEST_F(Repair, DoesNotMindTakesThatOnlyLooked) {
    with_note([&](Note&) { EXPECT_NE(kzmkernel_look_count(live_.mutex()), 0); });
    leave_open();
    for (int i = 0; i < 3; ++i) {
        with_note([&](Note&) { EXPECT_NE(kzmkernel_look_count(live_.mutex()), 0); });
    }
    EXPECT_EQ(repair({}, false, false).completed.size(), 1u);
}

TEST_F(Repair, IsNeededBeforeAPictureIsApplied) {
    const Document target = document_of(LiveRegion({}).copy(Bytes::all));
    leave_open();
    // apply() detaches again.
    ASSERT_EQ(shmnm_attach(), SHMNM_OK);
    for (const auto& applied : {differences_to_apply, apply}) {
        try {
            applied({}, target, false);
            ADD_FAILURE() << "applied";
        } catch (const Error& error) {
            EXPECT_EQ(error.kind, ErrorKind::interrupted);
            EXPECT_THAT(error.what(), HasSubstr("nothing was changed: process "));
            EXPECT_THAT(error.what(), HasSubstr(" was killed while it removed server alpha"));
        }
    }
    // It cannot complete this one.
    leave_open([](Note& note) {
        note.superseded.state = Note::open;
        note.superseded.object = note.object;
        note.state = Note::closed;
    });
    EXPECT_THAT(differences_to_apply({}, target, false), IsEmpty());
}

TEST_F(Repair, RefusesTheNoteOfARegionThatHasEnded) {
    leave_open([](Note& note) { ++note.object; });
    expect_refused(ErrorKind::note_outdated, "the note is of a region that has ended", true);
}

TEST_F(Repair, RefusesNotesOfAnotherVersion) {
    leave_open([](Note& note) { note.state = 2; });
    expect_refused(ErrorKind::refused, "the note is of another version", true);
    leave_open([](Note& note) { note.superseded.state = 2; });
    expect_refused(ErrorKind::refused, "the note is of another version", true);
}

TEST_F(Repair, RefusesAChangeThatItsNoteDoesNotDescribeWholly) {
    leave_open([](Note& note) { note.call = NotedCall::setnpsimu; });
    expect_refused(ErrorKind::change_lost, "the change cannot be completed from its note", true);
    EXPECT_EQ(note().state, Note::open);
}

TEST_F(Repair, RefusesAChangeAfterWhichTheTablesWereChanged) {
    leave_open();
    with_note([](Note&) { EXPECT_EQ(shmnm_addnode("gamma", 3), SHMNM_OK); });
    expect_refused(ErrorKind::change_lost, "has changed the region since, so it cannot be completed any more", true);
}

TEST_F(Repair, DropsAllNotesIfItIsToldToDiscardThem) {
    leave_open();
    with_note([](Note&) { EXPECT_EQ(shmnm_addnode("gamma", 3), SHMNM_OK); });
    leave_open();
    const Memory unchanged = bytes();
    const Repaired done = repair({}, false, true);
    EXPECT_THAT(done.completed, IsEmpty());
    ASSERT_EQ(done.discarded.size(), 2u);
    EXPECT_TRUE(done.discarded[0].superseded);
    EXPECT_EQ(done.discarded[1].change, "added server gamma");
    EXPECT_EQ(bytes(), unchanged);
    EXPECT_EQ(note().state, Note::closed);
    EXPECT_EQ(note().superseded.state, Note::closed);
}

TEST_F(Repair, ReleasesTheLock) {
    leave_open();
    repair({}, false, false);
    EXPECT_EQ(lock_facts().owner_process, 0u);
}

TEST_F(Repair, IsAnnouncedWithoutTheLockUnlessTheLocksOwnerIsAtTheChange) {
    const auto seen = [&] { return interrupted_changes_unlocked(live_.mutex(), map_.object()); };
    EXPECT_THAT(seen(), IsEmpty());
    leave_open([&](Note&) { EXPECT_THAT(seen(), IsEmpty()); });
    ASSERT_EQ(seen().size(), 1u) << "the lock has no owner";
    EXPECT_EQ(seen()[0].change, "removed server alpha");
    EXPECT_THAT(interrupted_changes_unlocked(live_.mutex(), map_.object() + 1), IsEmpty());
    leave_open([&](Note& note) {
        ++note.process;
        EXPECT_EQ(seen().size(), 1u) << "another process is the owner";
        --note.process;
    });
    leave_open([&](Note& note) {
        ++note.takes;
        EXPECT_EQ(seen().size(), 1u) << "the owner has taken the lock again";
    });
    leave_open([&](Note& note) {
        note.superseded.state = Note::open;
        note.superseded.object = note.object;
        note.superseded.superseded_by = 4711;
        ASSERT_EQ(seen().size(), 1u) << "an earlier change";
        EXPECT_THAT(sentence(seen()[0]), HasSubstr(", and process 4711 has changed the region since"));
        note.state = Note::closed;
        EXPECT_EQ(seen().size(), 1u);
    });
}

CHILD(hold_the_lock) {
    LiveRegion live({});
    test::report(live.try_lock());
    test::hang();
}

TEST(RepairWithoutARegion, IsRefusedWhoeverHasTheLock) {
    test::Child owner = test::start(hold_the_lock);
    ASSERT_EQ(owner.reported(), 1u);
    try {
        repair({.lock_timeout_ms = 1}, false, false);
        ADD_FAILURE() << "not refused";
    } catch (const Error& error) {
        EXPECT_EQ(error.kind, ErrorKind::no_region);
    }
}

}  // namespace
}  // namespace picture
