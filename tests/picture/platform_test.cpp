// What Linux tells of locks and processes, of memory that processes map, and of files that cannot be read.
#include "picture/platform.h"

#include <gmock/gmock.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <csignal>
#include <fstream>

#include "kzmutil.h"
#include "picture/error.h"
#include "picture/holders.h"
#include "picture/live.h"
#include "picture/live_region.h"
#include "support/forked_linux.h"
#include "support/traced_linux.h"

namespace picture {
namespace {

using test::Child;
using testing::Contains;
using testing::Field;

TEST(NoMutex, TellsNothing) {
    EXPECT_FALSE(platform::lock_holder(nullptr));
    EXPECT_FALSE(platform::note(nullptr));
    EXPECT_FALSE(platform::begin_lockless_copy(nullptr));
    EXPECT_FALSE(platform::try_own(nullptr));
}

CHILD(own_the_lock) {
    LiveRegion live({});
    test::report(platform::try_own(live.mutex()));
    test::told();
}

TEST(Mutex, IsOwnedAtOnceOrNotAtAll) {
    LiveRegion live({});
    Child owner = test::start(own_the_lock);
    EXPECT_EQ(owner.reported(), 1u);
    EXPECT_FALSE(platform::try_own(live.mutex())) << "a living process has it";
    owner.kill();
    EXPECT_TRUE(platform::try_own(live.mutex())) << "its owner was killed";
    EXPECT_TRUE(platform::try_own(live.mutex())) << "this thread has it";
}

TEST(Process, IsStoppedWhileADebuggerHoldsIt) {
    test::Traced traced([] { test::pause_forever(); });
    ASSERT_TRUE(traced.step());
    EXPECT_EQ(platform::process(static_cast<uint32_t>(traced.id()))->state, "stopped");
    EXPECT_FALSE(platform::process(UINT32_MAX));
}

/// The process ids of the others that hold a mapped file.
std::vector<uint32_t> holders_of(const void* view) {
    const std::optional<Holders> found = platform::holders(view);
    std::vector<uint32_t> all;
    for (const Holder& holder : found->processes) all.push_back(holder.process);
    return all;
}

TEST(Dump, IsRefusedIfReadingItFailsHalfWay) {
    try {
        // No memory is mapped at address 0.
        read_dump("/proc/self/mem");
        FAIL() << "not refused";
    } catch (const Error& error) {
        EXPECT_EQ(error.kind, ErrorKind::not_a_dump);
        EXPECT_STREQ(error.what(), "cannot read /proc/self/mem: reading it failed half-way");
    }
}

TEST(Holders, OfAFileAreKnownAfterItsRemovalToo) {
    const test::TemporaryFolder folder;
    const std::string file = folder.string() + "/memory";
    const int descriptor = open(file.c_str(), O_CREAT | O_RDWR, 0600);
    ASSERT_EQ(ftruncate(descriptor, 4096), 0);
    void* const view = mmap(nullptr, 4096, PROT_READ, MAP_SHARED, descriptor, 0);
    close(descriptor);
    test::Forked child([] { test::pause_forever(); });
    const auto id = static_cast<uint32_t>(child.id());
    EXPECT_THAT(holders_of(view), testing::ElementsAre(id));
    unlink(file.c_str());
    EXPECT_THAT(holders_of(view), testing::ElementsAre(id));
    // As the system calls the removed file from then on.
    std::ofstream(file + " (deleted)") << "another";
    EXPECT_THAT(holders_of(view), testing::ElementsAre(id));
    child.kill();
    EXPECT_THAT(holders_of(view), testing::IsEmpty());
    munmap(view, 4096);
}

TEST(Holders, AreUnknownForAnAddressThatStartsNoMapping) {
    int local = 0;
    EXPECT_FALSE(platform::holders(&local));
}

}  // namespace
}  // namespace picture
