// What later calls do with the note of a change that a killed caller has left open: they keep its name, leave it alone
// or make its change themselves. The note is opened again here, as the kill would have left it.
#include <gmock/gmock.h>
#include <kzmkernel.h>
#include <kzmutil.h>
#include <unistd.h>

#include <cstring>

#include "shmnm.h"
#include "support/child.h"
#include "support/temporary_folder.h"

namespace {

constexpr uint32_t closed = 0, open = 1, addnode = 1, rmnode = 2, settypehbstat = 18, settypenpstat = 19;

class ChangeNote : public testing::Test {
  protected:
    ChangeNote() : path_("KZM_INSTALL_PATH", folder_.string().c_str()) {
        folder_.write("etc/cluster.xml",
                      "<root><all><num><server>4</server><hbr>2</hbr><npr>2</npr><fstr>1</fstr></num></all></root>");
        EXPECT_EQ(shmnm_create(), SHMNM_OK);
        EXPECT_EQ(shmnm_rwlock(0), SHMNM_OK);
        mutex_ = KzmutilCreateNamedMutex(0, "oru_kzmshmnm_lock");
        note_ = static_cast<const char*>(kzmkernel_note(mutex_));
    }
    ~ChangeNote() override {
        kzmkernel_close(mutex_);
        shmnm_rwunlock();
        shmnm_delete();
    }

    void SetUp() override {
        ASSERT_NE(note_, nullptr);
        ASSERT_EQ(shmnm_addnode("alpha", 1), SHMNM_OK);
        ASSERT_EQ(shmnm_addnode("beta", 2), SHMNM_OK);
    }
    /// As if the process that made the last change had been killed before its end.
    void leave_open() const { *static_cast<uint32_t*>(kzmkernel_note(mutex_)) = open; }
    uint32_t word(size_t at) const {
        uint32_t value = 0;
        std::memcpy(&value, note_ + at, sizeof value);
        return value;
    }
    uint32_t state() const { return word(0); }
    uint32_t superseded_state() const { return word(664); }

    test::TemporaryFolder folder_;
    test::ScopedEnvironment path_;
    void* mutex_ = nullptr;
    const char* note_ = nullptr;
};

TEST_F(ChangeNote, KeepsTheNameOfTheFirstChangeThatLaterOnesSupersede) {
    ASSERT_EQ(shmnm_rmnode("alpha"), SHMNM_OK);
    EXPECT_EQ(superseded_state(), closed);
    leave_open();
    ASSERT_EQ(shmnm_addnode("gamma", 3), SHMNM_OK);
    EXPECT_EQ(state(), closed);
    const auto expect_alpha_superseded = [&] {
        EXPECT_EQ(superseded_state(), open);
        EXPECT_EQ(word(668), rmnode);
        EXPECT_EQ(word(672), static_cast<uint32_t>(getpid()));
        EXPECT_EQ(word(688), static_cast<uint32_t>(getpid())) << "superseded by";
        EXPECT_EQ(word(692), 0u) << "reserved";
        EXPECT_STREQ(note_ + 728, "alpha");
    };
    expect_alpha_superseded();
    leave_open();
    ASSERT_EQ(shmnm_rmnode("gamma"), SHMNM_OK);
    expect_alpha_superseded();
    ASSERT_EQ(shmnm_clear(), SHMNM_OK);
    EXPECT_EQ(superseded_state(), closed) << "nothing that it names is there any more";
}

TEST_F(ChangeNote, OfATableIsLeftAloneByCallsThatSetValues) {
    ASSERT_EQ(shmnm_rmnode("alpha"), SHMNM_OK);
    leave_open();
    ASSERT_EQ(shmnm_settypehbstat("lan", 1), SHMNM_OK);
    EXPECT_EQ(state(), open);
    EXPECT_EQ(word(4), rmnode);
    EXPECT_EQ(superseded_state(), closed);
}

TEST_F(ChangeNote, OfStatesIsClosedByTheSameCallMadeAgain) {
    const uint32_t failed[] = {0, 1, 0};
    ASSERT_EQ(shmnm_setnpsimu(1, failed, 3), SHMNM_OK);
    leave_open();
    ASSERT_EQ(shmnm_setnpsimu(0, nullptr, 0), SHMNM_OK);
    EXPECT_EQ(state(), closed);
    EXPECT_EQ(superseded_state(), closed);

    ASSERT_EQ(shmnm_settypehbstat("lan", 1), SHMNM_OK);
    leave_open();
    ASSERT_EQ(shmnm_settypehbstat("lan", 2), SHMNM_OK);
    EXPECT_EQ(superseded_state(), closed);
    leave_open();
    ASSERT_EQ(shmnm_settypehbstat("disk", 2), SHMNM_OK);
    EXPECT_EQ(superseded_state(), open);
    EXPECT_EQ(word(668), settypehbstat);
    EXPECT_STREQ(note_ + 696, "lan");
}

TEST_F(ChangeNote, OfStatesOfNpResourcesIsClosedByTheSameCallMadeAgain) {
    ASSERT_EQ(shmnm_settypenpstat("ping", 1), SHMNM_OK);
    leave_open();
    ASSERT_EQ(shmnm_settypenpstat("ping", 2), SHMNM_OK);
    EXPECT_EQ(state(), closed);
    EXPECT_NE(word(668), settypenpstat);
    leave_open();
    ASSERT_EQ(shmnm_settypenpstat("web", 2), SHMNM_OK);
    EXPECT_EQ(word(668), settypenpstat);
}

TEST_F(ChangeNote, OfATableIsSupersededByTheSameCallMadeAgain) {
    leave_open();
    ASSERT_EQ(shmnm_addnode("gamma", 3), SHMNM_OK);
    EXPECT_EQ(superseded_state(), open);
    EXPECT_EQ(word(668), addnode);
}

TEST_F(ChangeNote, OfAnOlderRegionMakesRoomForTheFirstOneOfTheNextRegion) {
    leave_open();
    ASSERT_EQ(shmnm_addnode("gamma", 3), SHMNM_OK);
    const uint32_t older = word(680);
    ASSERT_EQ(shmnm_delete(), SHMNM_OK);
    ASSERT_EQ(shmnm_create(), SHMNM_OK);
    ASSERT_EQ(shmnm_addnode("delta", 1), SHMNM_OK);
    leave_open();
    ASSERT_EQ(shmnm_rmnode("delta"), SHMNM_OK);
    EXPECT_EQ(superseded_state(), open);
    EXPECT_NE(word(680), older);
}

TEST_F(ChangeNote, OfAnEndedRegionMakesRoomForTheNextChange) {
    ASSERT_EQ(shmnm_rmnode("alpha"), SHMNM_OK);
    leave_open();
    const uint32_t ended = word(40);
    ASSERT_EQ(shmnm_delete(), SHMNM_OK);
    ASSERT_EQ(shmnm_create(), SHMNM_OK);
    ASSERT_EQ(shmnm_addnode("delta", 1), SHMNM_OK);
    EXPECT_EQ(state(), closed);
    EXPECT_EQ(word(4), addnode);
    EXPECT_NE(word(40), ended);
}

TEST_F(ChangeNote, CountsTheTakesOfTheLockAndThoseThatOnlyLooked) {
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(shmnm_rwunlock(), SHMNM_OK);
        ASSERT_EQ(shmnm_rwlock(0), SHMNM_OK);
        EXPECT_TRUE(i == 2 || kzmkernel_look_count(mutex_) != 0);
    }
    kzmkernel_mutex_info info{};
    ASSERT_NE(kzmkernel_mutex_info_get(mutex_, &info), 0);
    ASSERT_EQ(shmnm_rmnode("alpha"), SHMNM_OK);
    EXPECT_EQ(word(24), info.takes);
    EXPECT_EQ(word(32), 2u);
}

TEST_F(ChangeNote, TellsTheRegionsCountsBeforeTheChange) {
    ASSERT_EQ(shmnm_addhbrsc("lan", "lan1", 1), SHMNM_OK);
    ASSERT_EQ(shmnm_addnprsc("ping", "ping1", 1), SHMNM_OK);
    ASSERT_EQ(shmnm_addnprsc("ping", "ping2", 1), SHMNM_OK);
    ASSERT_EQ(shmnm_setfstrscpid("agent", 0, 4711, 1), SHMNM_OK);
    ASSERT_EQ(shmnm_rmnode("alpha"), SHMNM_OK);
    const uint32_t expected[] = {4, 2, 2, 1, 2, 1, 2, 1, 4};
    for (size_t i = 0; i < std::size(expected); ++i) EXPECT_EQ(word(48 + 4 * i), expected[i]) << 48 + 4 * i;
}

TEST_F(ChangeNote, IsNotMadeByACallerWithoutTheLockWhoseLastErrorStays) {
    ASSERT_EQ(shmnm_rwunlock(), SHMNM_OK);
    kzmkernel_set_last_error(4711);
    ASSERT_EQ(shmnm_rmnode("alpha"), SHMNM_OK);
    EXPECT_EQ(kzmkernel_last_error(), 4711u);
    ASSERT_EQ(shmnm_rwlock(0), SHMNM_OK);
    EXPECT_EQ(word(4), addnode);
}

TEST_F(ChangeNote, IsNotMadeOfAChangeThatItCouldNotComplete) {
    // Before the first column; then a region whose counts are not those that it was mapped by.
    ASSERT_EQ(shmnm_addhbrscsvstat(-1), SHMNM_OK);
    EXPECT_EQ(word(4), addnode);
    ASSERT_EQ(shmnm_setmaxvalue_ex(5, 2, 2), SHMNM_OK);
    const uint32_t setmaxvalue = word(4);
    ASSERT_EQ(shmnm_addhbrscsvstat(0), SHMNM_OK);
    ASSERT_EQ(shmnm_addhbrsc("lan", "lan1", 1), SHMNM_OK);
    ASSERT_EQ(shmnm_rmhbrsc("lan", "lan1"), SHMNM_OK);
    ASSERT_EQ(shmnm_addnode("gamma", 3), SHMNM_OK);
    ASSERT_EQ(shmnm_rmnode("gamma"), SHMNM_OK);
    ASSERT_EQ(shmnm_setfstrscpid("agent", 0, 4711, 1), SHMNM_OK);
    EXPECT_EQ(word(4), setmaxvalue);
}

TEST_F(ChangeNote, IsNotMadeOfAProcessIdOfNoKindForANameThatHasARecord) {
    ASSERT_EQ(shmnm_setfstrscpid("agent", 0, 4711, 1), SHMNM_OK);
    ASSERT_EQ(shmnm_rmnode("alpha"), SHMNM_OK);
    EXPECT_NE(shmnm_setfstrscpid("agent", 3, 4711, 1), SHMNM_OK);
    EXPECT_EQ(word(4), rmnode);
}

TEST_F(ChangeNote, HoldsTheWholeDescriptionThatACallSets) {
    ASSERT_EQ(shmnm_setfstdescript("as it is", 8), SHMNM_OK);
    EXPECT_EQ(word(392), 8U);
    EXPECT_EQ(std::string(note_ + 396, 8), "as it is");
}

TEST_F(ChangeNote, OfAFormatThatThisBuildDoesNotKnowIsLeftAlone) {
    *static_cast<uint32_t*>(kzmkernel_note(mutex_)) = 7;
    ASSERT_EQ(shmnm_rmnode("alpha"), SHMNM_OK);
    EXPECT_EQ(state(), 7u);
    *static_cast<uint32_t*>(kzmkernel_note(mutex_)) = closed;
}

}  // namespace
