// Who may do what with the log's files on Linux, and what the log does about files that others have put in its place.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fstream>

#include "kzmlog.h"
#include "kzmlog_test_platform.h"
#include "support/other_user_linux.h"

namespace test {
namespace {

using testing::ElementsAre;

constexpr const char* lock_name = "oru_kzmshmnm_log.lock";
constexpr int32_t access_denied = 5;

struct stat status_of(const std::filesystem::path& file) {
    struct stat status {};
    EXPECT_EQ(lstat(file.c_str(), &status), 0) << file;
    return status;
}

mode_t mode_of(const std::filesystem::path& file) {
    return status_of(file).st_mode & ALLPERMS;
}

class ScopedMask {
  public:
    explicit ScopedMask(mode_t mask) : old_(umask(mask)) {}
    ~ScopedMask() { umask(old_); }
    ScopedMask(const ScopedMask&) = delete;
    ScopedMask& operator=(const ScopedMask&) = delete;

  private:
    mode_t old_;
};

class KzmLogAccess : public KzmLog {
  protected:
    /// A file of the log as an older version, or somebody else, has left it.
    std::filesystem::path left(const char* name, mode_t mode, uid_t owner, const char* contents) const {
        install().write("log/" + std::string(name), contents);
        EXPECT_EQ(chown(file(name).c_str(), owner, owner), 0);
        EXPECT_EQ(chmod(file(name).c_str(), mode), 0);
        return file(name);
    }
};

/// As another user, who is the argument: tries to open the log's files, then takes the lock where it could be opened.
CHILD(attack_as_another_user) {
    become(static_cast<uid_t>(std::stoul(argument())));
    const std::string folder = std::string(std::getenv("KZM_INSTALL_PATH")) + "/log/";
    const auto opens = [&](const std::string& name, int flags) {
        const int descriptor = open((folder + name).c_str(), flags | O_CLOEXEC);
        if (descriptor < 0 && errno != EACCES) std::abort();
        return descriptor;
    };
    for (const int flags : {O_RDONLY, O_WRONLY}) report(opens("shmnm.log", flags) >= 0);
    const int lock = opens(lock_name, O_RDONLY);
    report(lock >= 0 && flock(lock, LOCK_EX) == 0);
    hang();
}

struct Attack {
    explicit Attack(uid_t user) : child(start(attack_as_another_user, std::to_string(user))) {}
    Child child;
    bool reads = child.reported() != 0, writes = child.reported() != 0, holds_the_lock = child.reported() != 0;
};

TEST_F(KzmLogAccess, IsLimitedToItsUserUnderAnyUmask) {
    const ScopedMask none(0);
    void* const log = open_log(1);
    for (const char* const line : {"a", "b"}) EXPECT_EQ(write(log, line), 0);
    EXPECT_EQ(mode_of(folder()), 0755u);
    EXPECT_EQ(mode_of(file()), 0640u);
    EXPECT_EQ(mode_of(file("shmnm.log.1")), 0640u);
    EXPECT_EQ(mode_of(file(lock_name)), 0600u);
    const Attack attack(spare_user());
    EXPECT_FALSE(attack.reads);
    EXPECT_FALSE(attack.writes);
    EXPECT_FALSE(attack.holds_the_lock);
    EXPECT_EQ(write(log, "c"), 0);
    EXPECT_THAT(messages(text()), ElementsAre("c"));
    kzmlog_close(log);
}

TEST_F(KzmLogAccess, IsNarrowedByASinglePermission) {
    left("shmnm.log", 0641, getuid(), "");
    kzmlog_close(open_log());
    EXPECT_EQ(mode_of(file()), 0640u);
}

TEST_F(KzmLogAccess, IsNarrowedWhenFilesOfAnOlderVersionAreOpened) {
    left("shmnm.log", 0666, getuid(), "");
    left(lock_name, 0644, getuid(), "");
    void* const log = open_log(1);
    EXPECT_EQ(mode_of(file()), 0640u);
    for (const char* const line : {"a", "b"}) EXPECT_EQ(write(log, line), 0);
    EXPECT_EQ(mode_of(file(lock_name)), 0600u);
    const Attack attack(spare_user());
    EXPECT_FALSE(attack.reads);
    EXPECT_FALSE(attack.writes);
    EXPECT_FALSE(attack.holds_the_lock);
    kzmlog_close(log);
}

TEST_F(KzmLogAccess, StaysNarrowerIfItsUserMadeItSo) {
    left("shmnm.log", 0600, getuid(), "");
    void* const log = open_log();
    EXPECT_EQ(write(log, "a"), 0);
    EXPECT_EQ(mode_of(file()), 0600u);
    kzmlog_close(log);
}

TEST_F(KzmLogAccess, DelaysOnlyRotationWhenAnotherUserHoldsAnOldLockFile) {
    left(lock_name, 0644, getuid(), "");
    void* const log = open_log(1);
    Attack attack(spare_user());
    ASSERT_TRUE(attack.holds_the_lock);
    for (const char* const line : {"a", "b", "c"}) EXPECT_EQ(write(log, line), 0);
    EXPECT_THAT(messages(text()), ElementsAre("a", "b", "c"));
    attack.child.kill();
    EXPECT_EQ(write(log, "d"), 0);
    EXPECT_THAT(messages(text("shmnm.log.1")), ElementsAre("a", "b", "c"));
    EXPECT_THAT(messages(text()), ElementsAre("d"));
    EXPECT_FALSE(Attack(spare_user()).holds_the_lock);
    kzmlog_close(log);
}

CHILD(hold_the_lock_until_stopped) {
    hold_rotation_lock();
    report(0);
    raise(SIGSTOP);
    hang();
}

TEST_F(KzmLogAccess, DelaysOnlyRotationWhenAStoppedProcessHoldsTheLock) {
    void* const log = open_log(1);
    Child holder = start(hold_the_lock_until_stopped);
    holder.reported();
    for (const char* const line : {"a", "b", "c"}) EXPECT_EQ(write(log, line), 0);
    EXPECT_THAT(messages(text()), ElementsAre("a", "b", "c"));
    holder.kill();
    EXPECT_EQ(write(log, "d"), 0);
    EXPECT_THAT(kept_messages(), ElementsAre("a", "b", "c", "d"));
    EXPECT_THAT(messages(text()), ElementsAre("d"));
    kzmlog_close(log);
}

TEST_F(KzmLogAccess, RefusesALogFileOfAnotherUser) {
    void* log = open_log(1);
    EXPECT_EQ(kzmlog_close(log), 0);
    left("shmnm.log", 0666, spare_user(), "theirs\n");
    EXPECT_EQ(kzmlog_open("shmnm", &log, 4, 0, 0, "channel"), access_denied);
    EXPECT_EQ(log, nullptr);
    EXPECT_EQ(text(), "theirs\n");
    EXPECT_EQ(mode_of(file()), 0666u);
}

TEST_F(KzmLogAccess, EndsWhenTheLogFileBecomesAnotherUsers) {
    void* const log = open_log(1);
    EXPECT_EQ(write(log, "a"), 0);
    ASSERT_EQ(chown(file().c_str(), spare_user(), spare_user()), 0);
    EXPECT_EQ(write(log, "lost"), access_denied);
    EXPECT_THAT(messages(text()), ElementsAre("a"));
    ASSERT_EQ(chown(file().c_str(), getuid(), getgid()), 0);
    EXPECT_EQ(write(log, "b"), 0);
    EXPECT_THAT(kept_messages(), ElementsAre("a", "b"));
    kzmlog_close(log);
}

TEST_F(KzmLogAccess, IgnoresALockFileOfAnotherUser) {
    left(lock_name, 0666, spare_user(), "");
    void* const log = open_log(1);
    for (const char* const line : {"a", "b"}) EXPECT_EQ(write(log, line), 0);
    EXPECT_THAT(messages(text()), ElementsAre("a", "b"));
    EXPECT_EQ(mode_of(file(lock_name)), 0666u);
    kzmlog_close(log);
}

/// Everything that is no regular file, made under a name.
void make_link(const char* path) {
    ASSERT_EQ(symlink("elsewhere", path), 0);
}
void make_pipe(const char* path) {
    ASSERT_EQ(mkfifo(path, 0600), 0);
}
void make_device(const char* path) {
    ASSERT_EQ(mknod(path, S_IFCHR | 0600, makedev(1, 3)), 0) << "root may make a device in a temporary folder";
}
void make_socket(const char* path) {
    const int socket_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::string(path).copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    close(socket_);
}

TEST_F(KzmLogAccess, RefusesAnythingButARegularFileAndBlocksNobody) {
    for (const auto make : {make_link, make_pipe, make_device, make_socket}) {
        void* const log = open_log(1);
        EXPECT_EQ(write(log, "a"), 0);
        // Within the folder, where a link that is followed would lead to a new file.
        for (const char* const name : {"shmnm.log", lock_name}) {
            std::filesystem::remove(file(name));
            make(file(name).c_str());
            const mode_t kind = status_of(file(name)).st_mode;
            const bool is_log = name != lock_name;
            EXPECT_EQ(write(log, "b"), is_log ? access_denied : 0);
            EXPECT_EQ(write(log, "c"), is_log ? access_denied : 0);
            EXPECT_EQ(status_of(file(name)).st_mode, kind);
            EXPECT_FALSE(std::filesystem::exists(file("elsewhere")));
            std::filesystem::remove(file(name));
        }
        EXPECT_EQ(text("shmnm.log.1"), "");
        EXPECT_THAT(messages(text()), ElementsAre("b", "c"));
        EXPECT_EQ(kzmlog_close(log), 0);
        std::filesystem::remove_all(folder());
    }
}

}  // namespace
}  // namespace test
