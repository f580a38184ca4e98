// The library with its own companions among real processes: who creates, who attaches, what outlives whom, and who gets
// the lock of an owner that was killed.
#include <gmock/gmock.h>

#include "shmnm.h"
#include "support/child.h"
#include "support/temporary_folder.h"

namespace {

using test::Child;
using test::report;
using test::start;
using test::told;
using testing::HasSubstr;
using testing::Not;

/// An installation for this process and its children.
class CrossProcess : public testing::Test {
  protected:
    CrossProcess() : path_("KZM_INSTALL_PATH", folder_.string().c_str()) { configure(4, 2, 2, 1); }

    void configure(int servers, int hb, int np, int fst) const {
        const auto element = [](const char* name, int value) {
            return "<" + std::string(name) + ">" + std::to_string(value) + "</" + name + ">";
        };
        folder_.write("etc/cluster.xml",
                      "<root><all><num>" + element("server", servers) + element("hbr", hb) + element("npr", np) +
                          element("fstr", fst) +
                          "</num></all><shmnm><log><level>16</level><size>1000000</size></log></shmnm></root>");
    }
    std::string log() const { return test::contents_of(folder_.path() / "log" / "shmnm.log"); }

    test::TemporaryFolder folder_;
    test::ScopedEnvironment path_;
};

uint32_t clstat() {
    uint32_t value = 0xDEAD;
    return shmnm_getclstat(&value) == SHMNM_OK ? value : 0xDEAD;
}

/// Creates the region, sets the cluster state that it is told, and then does what it is told.
CHILD(creator) {
    report(shmnm_create());
    report(clstat());
    report(shmnm_setclstat(static_cast<uint32_t>(told())));
    test::hang();
}

CHILD(attacher) {
    report(shmnm_attach());
    report(clstat());
    report(shmnm_setclstat(static_cast<uint32_t>(told())));
    test::hang();
}

TEST_F(CrossProcess, AllProcessesSeeOneRegion) {
    Child first = start(creator);
    ASSERT_EQ(first.reported(), SHMNM_OK);
    EXPECT_EQ(first.reported(), 0u) << "a new region is zero";
    first.tell(11);
    ASSERT_EQ(first.reported(), SHMNM_OK);
    Child second = start(attacher);
    ASSERT_EQ(second.reported(), SHMNM_OK);
    EXPECT_EQ(second.reported(), 11u);
    second.tell(22);
    ASSERT_EQ(second.reported(), SHMNM_OK);
    ASSERT_EQ(shmnm_attach(), SHMNM_OK);
    EXPECT_EQ(clstat(), 22u);
    EXPECT_EQ(shmnm_detach(), SHMNM_OK);
}

TEST_F(CrossProcess, AttachFailsWithoutARegion) {
    EXPECT_EQ(shmnm_attach(), SHMNM_ERR_OPENMAP);
}

TEST_F(CrossProcess, SecondCreateUsesTheRegionAndKeepsItsContents) {
    Child first = start(creator);
    ASSERT_EQ(first.reported(), SHMNM_OK);
    ASSERT_EQ(first.reported(), 0u);
    first.tell(11);
    ASSERT_EQ(first.reported(), SHMNM_OK);
    EXPECT_THAT(log(), HasSubstr("KzmutilCreateNamedFileMapping(new)"));
    EXPECT_THAT(log(), Not(HasSubstr("KzmutilCreateNamedFileMapping(use)")));
    configure(3, 1, 1, 1);
    Child second = start(creator);
    ASSERT_EQ(second.reported(), SHMNM_OK);
    EXPECT_EQ(second.reported(), 11u);
    EXPECT_THAT(log(), HasSubstr("KzmutilCreateNamedFileMapping(use)"));
    ASSERT_EQ(shmnm_attach(), SHMNM_OK);
    uint32_t servers = 0, hb = 0, np = 0;
    ASSERT_EQ(shmnm_getmaxvalue_ex(&servers, &hb, &np), SHMNM_OK);
    EXPECT_EQ(servers, 3u) << "the header's counts are those of the last one that mapped it";
    EXPECT_EQ(shmnm_detach(), SHMNM_OK);
}

TEST_F(CrossProcess, ContentsSurviveTheCreator) {
    Child first = start(creator);
    ASSERT_EQ(first.reported(), SHMNM_OK);
    ASSERT_EQ(first.reported(), 0u);
    first.tell(11);
    ASSERT_EQ(first.reported(), SHMNM_OK);
    Child second = start(attacher);
    ASSERT_EQ(second.reported(), SHMNM_OK);
    ASSERT_EQ(second.reported(), 11u);
    first.kill();
    Child third = start(attacher);
    EXPECT_EQ(third.reported(), SHMNM_OK);
    EXPECT_EQ(third.reported(), 11u);
}

TEST_F(CrossProcess, RegionEndsWithItsLastKilledHolderAndTheNextOneIsZero) {
    {
        Child first = start(creator);
        ASSERT_EQ(first.reported(), SHMNM_OK);
        ASSERT_EQ(first.reported(), 0u);
        first.tell(11);
        ASSERT_EQ(first.reported(), SHMNM_OK);
        Child second = start(attacher);
        ASSERT_EQ(second.reported(), SHMNM_OK);
        ASSERT_EQ(second.reported(), 11u);
        first.kill();
        second.kill();
    }
    EXPECT_EQ(shmnm_attach(), SHMNM_ERR_OPENMAP);
    Child next = start(creator);
    EXPECT_EQ(next.reported(), SHMNM_OK);
    EXPECT_EQ(next.reported(), 0u);
}

CHILD(creates_and_detaches) {
    report(shmnm_create());
    report(shmnm_setclstat(33));
    report(shmnm_detach());
    report(shmnm_delete());
    test::hang();
}

TEST_F(CrossProcess, CreateThenDetachKeepsTheRegionAlive) {
    Child first = start(creates_and_detaches);
    ASSERT_EQ(first.reported(), SHMNM_OK);
    ASSERT_EQ(first.reported(), SHMNM_OK);
    EXPECT_EQ(first.reported(), SHMNM_OK);
    EXPECT_EQ(first.reported(), SHMNM_ERR_NOTINIT);
    Child second = start(attacher);
    EXPECT_EQ(second.reported(), SHMNM_OK);
    EXPECT_EQ(second.reported(), 33u);
}

CHILD(creates_and_deletes) {
    report(shmnm_create());
    report(shmnm_delete());
    test::hang();
}

TEST_F(CrossProcess, DeleteByTheOnlyHolderEndsTheRegion) {
    Child first = start(creates_and_deletes);
    ASSERT_EQ(first.reported(), SHMNM_OK);
    ASSERT_EQ(first.reported(), SHMNM_OK);
    EXPECT_EQ(shmnm_attach(), SHMNM_ERR_OPENMAP);
}

/// Takes the lock as often as it is told, and releases it as often as it is told then.
CHILD(locker) {
    const uint64_t takes = told();
    for (uint64_t i = 0; i < takes; ++i) {
        if (shmnm_rwlock(0) != SHMNM_OK) report(99);
    }
    report(takes);
    for (;;) {
        told();
        report(shmnm_rwunlock());
    }
}

TEST_F(CrossProcess, TakingALockThatAnotherProcessHoldsTimesOut) {
    Child owner = start(locker);
    owner.tell(1);
    ASSERT_EQ(owner.reported(), 1u);
    EXPECT_EQ(shmnm_rwlock(0), SHMNM_ERR_LOCK);
    EXPECT_EQ(shmnm_rolock(0), SHMNM_ERR_LOCK) << "readers exclude one another as well";
    EXPECT_EQ(shmnm_rolock(50), SHMNM_ERR_LOCK);
    owner.tell(0);
    ASSERT_EQ(owner.reported(), SHMNM_OK);
    EXPECT_EQ(shmnm_rwlock(0), SHMNM_OK);
    EXPECT_EQ(shmnm_rwunlock(), SHMNM_OK);
}

TEST_F(CrossProcess, TwoTakesNeedTwoUnlocks) {
    Child owner = start(locker);
    owner.tell(2);
    ASSERT_EQ(owner.reported(), 2u);
    owner.tell(0);
    ASSERT_EQ(owner.reported(), SHMNM_OK);
    EXPECT_EQ(shmnm_rwlock(0), SHMNM_ERR_LOCK);
    owner.tell(0);
    ASSERT_EQ(owner.reported(), SHMNM_OK);
    EXPECT_EQ(shmnm_rwlock(0), SHMNM_OK);
    EXPECT_EQ(shmnm_rwunlock(), SHMNM_OK);
}

TEST_F(CrossProcess, LockIsTakenOverFromAKilledOwner) {
    Child owner = start(locker);
    owner.tell(2);
    ASSERT_EQ(owner.reported(), 2u);
    ASSERT_EQ(shmnm_rwlock(0), SHMNM_ERR_LOCK);
    owner.kill();
    EXPECT_EQ(shmnm_rwlock(10'000), SHMNM_OK);
    EXPECT_EQ(shmnm_rwunlock(), SHMNM_OK);
    Child next = start(locker);
    next.tell(1);
    EXPECT_EQ(next.reported(), 1u) << "one unlock was enough: nothing of the dead owner's takes is left";
}

CHILD(waiter) {
    report(0);
    report(shmnm_rwlock(0xFFFFFFFF));
    test::hang();
}

TEST_F(CrossProcess, WaitWithoutALimitEndsWhenTheOwnerIsKilled) {
    Child owner = start(locker);
    owner.tell(1);
    ASSERT_EQ(owner.reported(), 1u);
    Child next = start(waiter);
    ASSERT_EQ(next.reported(), 0u);
    owner.kill();
    EXPECT_EQ(next.reported(), SHMNM_OK);
    EXPECT_EQ(shmnm_rwlock(0), SHMNM_ERR_LOCK);
}

TEST_F(CrossProcess, AllProcessesWriteToOneTraceLog) {
    Child first = start(creator);
    ASSERT_EQ(first.reported(), SHMNM_OK);
    ASSERT_EQ(first.reported(), 0u);
    first.tell(1);
    ASSERT_EQ(first.reported(), SHMNM_OK);
    Child second = start(attacher);
    ASSERT_EQ(second.reported(), SHMNM_OK);
    ASSERT_EQ(second.reported(), 1u);
    const std::string lines = log();
    EXPECT_THAT(lines, HasSubstr("_setclstat"));
    EXPECT_THAT(lines, HasSubstr("_attach"));
    EXPECT_THAT(lines, HasSubstr("<<< EXIT >>> : 0x00000000"));
    EXPECT_THAT(lines, HasSubstr("src/windows/server/library/shmnm/src/shmnm"));
    EXPECT_THAT(lines, HasSubstr("SIZE:"));
}

TEST_F(CrossProcess, CallsSucceedWhenTheLogCanNoLongerBeWritten) {
    ASSERT_EQ(shmnm_create(), SHMNM_OK);
    std::filesystem::remove(folder_.path() / "log" / "shmnm.log");
    std::filesystem::create_directory(folder_.path() / "log" / "shmnm.log");
    EXPECT_EQ(shmnm_setclstat(11), SHMNM_OK);
    EXPECT_EQ(clstat(), 11u);
    EXPECT_EQ(shmnm_delete(), SHMNM_OK);
}

TEST_F(CrossProcess, MissingConfigurationIsReported) {
    std::filesystem::remove(folder_.path() / "etc" / "cluster.xml");
    EXPECT_EQ(shmnm_create(), SHMNM_ERR_LOADCONFIG);
    EXPECT_EQ(log(), "") << "the log was not opened";
}

}  // namespace
