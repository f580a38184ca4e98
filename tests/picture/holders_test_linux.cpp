// Which processes hold a file: those that have it mapped or open, and how they are shown.
#include "picture/holders.h"

#include <gmock/gmock.h>

#include <fcntl.h>
#include <pwd.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "picture/live_region.h"
#include "support/forked_linux.h"
#include "support/other_user_linux.h"
#include "support/temporary_folder.h"
#include "support/traced_linux.h"

namespace picture {
namespace {

using test::Forked;
using test::Sign;
using testing::ElementsAre;
using testing::IsEmpty;

/// A file of one page, which this process has mapped and not open.
class HoldersTest : public testing::Test {
  protected:
    HoldersTest() {
        const int descriptor = open(path_.c_str(), O_CREAT | O_RDWR, 0600);
        EXPECT_EQ(ftruncate(descriptor, size), 0);
        view_ = mmap(nullptr, size, PROT_READ, MAP_SHARED, descriptor, 0);
        EXPECT_NE(view_, MAP_FAILED);
        close(descriptor);
    }
    ~HoldersTest() override { unmap(); }

    void unmap() { munmap(view_, size); }
    std::vector<Holder> found() const { return platform::holders(view_)->processes; }
    /// Their process ids.
    std::vector<uint32_t> ids() const {
        std::vector<uint32_t> all;
        for (const Holder& holder : found()) all.push_back(holder.process);
        return all;
    }

    static constexpr size_t size = 4096;
    const test::TemporaryFolder folder_;
    const std::string path_ = folder_.string() + "/memory";
    void* view_ = nullptr;
};

uint32_t id_of(const Forked& process) {
    return static_cast<uint32_t>(process.id());
}

TEST_F(HoldersTest, AreKnownAfterTheFilesRemovalToo) {
    Forked child([] { test::pause_forever(); });
    EXPECT_THAT(ids(), ElementsAre(id_of(child)));
    unlink(path_.c_str());
    EXPECT_THAT(ids(), ElementsAre(id_of(child)));
    // As the system calls the removed file from then on.
    std::ofstream(path_ + " (deleted)") << "another";
    EXPECT_THAT(ids(), ElementsAre(id_of(child)));
    child.kill();
    EXPECT_THAT(ids(), IsEmpty());
}

TEST_F(HoldersTest, HaveItMappedOrOpen) {
    const std::string beside = path_ + "-beside";
    Sign is_open, has_another;
    Forked mapper([] { test::pause_forever(); });
    Forked opener([&] {
        const int descriptor = open(path_.c_str(), O_RDONLY);
        unmap();
        if (descriptor >= 0) is_open.give();
        test::pause_forever();
    });
    Forked stranger([&] {
        const int descriptor = open(beside.c_str(), O_CREAT | O_RDONLY, 0600);
        unmap();
        if (descriptor >= 0) has_another.give();
        test::pause_forever();
    });
    is_open.await();
    has_another.await();
    std::vector<uint32_t> both{id_of(mapper), id_of(opener)};
    std::sort(both.begin(), both.end());
    EXPECT_EQ(ids(), both);
}

TEST_F(HoldersTest, AreShownWithTheirEffectiveUsers) {
    const uid_t user = test::spare_user();
    Sign has_changed;
    Forked same([] { test::pause_forever(); });
    Forked other([&] {
        if (seteuid(user) == 0) has_changed.give();
        test::pause_forever();
    });
    has_changed.await();
    const std::vector<Holder> all = found();
    ASSERT_EQ(all.size(), 2u);
    const size_t first = all[0].process == id_of(same) ? 0 : 1;
    const Holder &of_same = all[first], &of_other = all[1 - first];
    EXPECT_EQ(of_same.user, geteuid());
    EXPECT_EQ(of_same.user_name, getpwuid(geteuid())->pw_name);
    EXPECT_EQ(of_other.user, user);
    EXPECT_EQ(of_other.user_name, std::to_string(user));
}

/// Waits until a child has ended, and leaves it there.
void await_end(const Forked& child) {
    siginfo_t ended{};
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(child.id()), &ended, WEXITED | WNOWAIT), 0);
}

TEST_F(HoldersTest, AreNoProcessesThatHaveEnded) {
    const Forked ended([] {});
    await_end(ended);
    EXPECT_THAT(ids(), IsEmpty());
}

TEST_F(HoldersTest, AreUnknownForAnAddressThatStartsNoMapping) {
    const int local = 0;
    EXPECT_FALSE(platform::holders(&local));
}

TEST_F(HoldersTest, AreLookedForWithoutKeepingAFolderOpen) {
    using std::filesystem::directory_iterator;
    const auto open_descriptors = [] {
        return std::distance(directory_iterator("/proc/self/fd"), directory_iterator());
    };
    const auto before = open_descriptors();
    ids();
    EXPECT_EQ(open_descriptors(), before);
}

/// Runs a part of a test whose /proc shows the processes of this part alone.
void in_own_proc(const char* options, const std::function<void()>& body) {
    test::in_fork([&] {
        Forked all(
            [&] {
                ASSERT_EQ(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
                ASSERT_EQ(mount("proc", "/proc", "proc", 0, options), 0);
                body();
            },
            CLONE_NEWPID | CLONE_NEWNS);
        EXPECT_EQ(all.wait(), 0);
    });
}

TEST_F(HoldersTest, AreCountedIfThisUserMayNotLookAtThem) {
    const uid_t user = test::spare_user();
    const struct {
        const char* options;
        size_t unreadable;
    } cases[] = {{nullptr, 3}, {"hidepid=1", 4}};
    for (const auto& [options, unreadable] : cases) {
        in_own_proc(options, [&, unreadable = unreadable] {
            const Forked one([] { test::pause_forever(); }), another([] { test::pause_forever(); }), ended([] {});
            await_end(ended);
            test::in_fork_as(user, [&] {
                // Otherwise the user may not look at processes that were root's.
                ASSERT_EQ(prctl(PR_SET_DUMPABLE, 1), 0);
                const Forked own([] { test::pause_forever(); });
                EXPECT_THAT(ids(), ElementsAre(id_of(own)));
                EXPECT_EQ(platform::holders(view_)->unreadable, unreadable)
                    << "its parent and two others, and one that has ended where that is hidden";
            });
        });
    }
}

TEST_F(HoldersTest, AreShownWithTheirUserOrNotAtAllIfTheyEndMeanwhile) {
    const uid_t user = test::spare_user();
    in_own_proc(nullptr, [&] {
        Sign has_changed;
        const Forked holder([&] {
            if (seteuid(user) == 0) has_changed.give();
            test::pause_forever();
        });
        has_changed.await();
        bool has_failed = true;
        // Whichever look at a file of /proc comes too late.
        for (int position = 1; has_failed; ++position) {
            test::Traced looking([&] {
                const auto found = platform::holders(view_);
                if (!found) return;
                for (const Holder& one : found->processes) {
                    EXPECT_EQ(one.user, one.process == id_of(holder) ? user : geteuid());
                    EXPECT_EQ(one.state, "running");
                    EXPECT_FALSE(one.command.empty());
                }
            });
            has_failed = false;
            for (int opened = 0; looking.step();) {
                const std::vector<uint64_t> call = looking.entered();
                if (call.empty() || call[0] != SYS_openat || ++opened != position) continue;
                looking.fail_call(ENOENT);
                has_failed = true;
            }
            ASSERT_EQ(looking.status(), 0) << "file " << position;
        }
    });
}

TEST_F(HoldersTest, AreNotThoseOfAnotherFileWithTheRemovedFilesNumber) {
    test::in_fork([&] {
        ASSERT_EQ(unshare(CLONE_NEWNS), 0);
        ASSERT_EQ(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
        // Two disks that number their files in the same way.
        const std::string disks[] = {folder_.string() + "/one", folder_.string() + "/other"};
        for (const std::string& disk : disks) {
            std::filesystem::create_directory(disk);
            ASSERT_EQ(mount("tmpfs", disk.c_str(), "tmpfs", 0, "size=1m"), 0);
            std::ofstream(disk + "/memory") << std::string(size, 'x');
        }
        struct stat one {};
        struct stat other {};
        ASSERT_EQ(stat((disks[0] + "/memory").c_str(), &one), 0);
        ASSERT_EQ(stat((disks[1] + "/memory").c_str(), &other), 0);
        ASSERT_EQ(one.st_ino, other.st_ino);
        const int mapped = open((disks[0] + "/memory").c_str(), O_RDONLY);
        void* const view = mmap(nullptr, size, PROT_READ, MAP_SHARED, mapped, 0);
        ASSERT_NE(view, MAP_FAILED);
        close(mapped);
        Sign is_open;
        const Forked stranger([&] {
            munmap(view, size);
            if (open((disks[1] + "/memory").c_str(), O_RDONLY) >= 0) is_open.give();
            test::pause_forever();
        });
        is_open.await();
        // What the system calls the removed file from then on is a file of the other disk.
        std::ofstream(disks[1] + "/beside") << "another";
        std::filesystem::create_symlink(disks[1] + "/beside", disks[0] + "/memory (deleted)");
        std::filesystem::remove(disks[0] + "/memory");
        EXPECT_THAT(platform::holders(view)->processes, IsEmpty());
    });
}

CHILD(attach_and_hang) {
    test::report(shmnm_attach());
    test::hang();
}

using LiveRegionHolders = test::LiveCopy;

TEST_F(LiveRegionHolders, AreTheProcessesThatAreAttached) {
    test::Child other = test::start(attach_and_hang);
    ASSERT_EQ(other.reported(), SHMNM_OK);
    const Holders found = holders(Access{});
    ASSERT_EQ(found.processes.size(), 1u);
    EXPECT_EQ(found.processes[0].process, other.process_id());
    other.kill();
    EXPECT_THAT(holders(Access{}).processes, IsEmpty());
    EXPECT_EQ(shmnm_delete(), SHMNM_OK);
    EXPECT_FALSE(LiveRegion({}).try_copy(Bytes::in_use)) << "it did not end with its last holder";
}

}  // namespace
}  // namespace picture
