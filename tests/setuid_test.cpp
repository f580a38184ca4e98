// Programs with more rights than their caller. A copy of setuid_probe belongs to one user and is setuid, and another
// user calls it with an environment of his own. Only root can set this up.
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/child.h"
#include "support/dynamic_library.h"
#include "support/other_user_linux.h"
#include "support/temporary_folder.h"

namespace {

namespace fs = std::filesystem;
using test::contents_of;
using testing::ElementsAre;
using testing::HasSubstr;

const uid_t privileged = test::spare_user(0), caller = test::spare_user(1);

/// A folder in which a setuid program gets its owner's rights: below one that is mounted so.
class ProgramFolder {
  public:
    ProgramFolder() {
        std::string refused;
        for (const fs::path& above :
             {fs::temp_directory_path(), fs::path("/var/tmp"), fs::path("/usr/local"), fs::path(test::own_folder())}) {
            struct statvfs mount {};
            const bool known = statvfs(above.c_str(), &mount) == 0;
            std::string made = (above / "shmnm-setuid-XXXXXX").string();
            if (known && (mount.f_flag & (ST_NOSUID | ST_NOEXEC)) == 0 && mkdtemp(made.data())) {
                path_ = made;
                return;
            }
            refused += " " + above.string();
        }
        throw std::runtime_error("no folder takes setuid programs (all are mounted nosuid or noexec):" + refused);
    }
    ~ProgramFolder() {
        std::error_code ignored;
        fs::remove_all(path_, ignored);
    }
    ProgramFolder(const ProgramFolder&) = delete;
    ProgramFolder& operator=(const ProgramFolder&) = delete;
    const fs::path& path() const { return path_; }

  private:
    fs::path path_;
};

/// Runs the shell's command that is its argument, as the caller.
CHILD(call_as_another_user) {
    const uid_t user = static_cast<uid_t>(test::told());
    test::become(user);
    execl("/bin/sh", "sh", "-c", test::argument().c_str(), nullptr);
}

class SetuidProgram : public testing::Test {
  protected:
    SetuidProgram() {
        give(folder_.path(), privileged, 0755);
        for (const char* const name : {"lib", "log"}) {
            fs::create_directory(folder_.path() / name);
            give(folder_.path() / name, privileged, 0755);
        }
        for (const char* const name : {"libkzmkernel.so", "libkzmutil.so", "libkzmlog.so", "setuid_probe"}) {
            fs::copy(test::own_folder() + name, folder_.path() / "lib" / name);
        }
        give(folder_.path() / "lib" / "setuid_probe", privileged, 04755);
        fs::create_directories(callers_.path() / "log");
        fs::create_directory(callers_.path() / "kernel");
        for (const char* const name : {"", "log", "kernel"}) give(callers_.path() / name, caller, 0777);
    }
    ~SetuidProgram() override {
        std::error_code ignored;
        for (const uid_t user : {privileged, caller}) {
            const std::string objects = "/dev/shm/kzmkernel." + std::to_string(user);
            fs::remove_all(objects, ignored);
            fs::remove(objects + ".guard", ignored);
        }
    }

    static void give(const fs::path& file, uid_t user, mode_t mode) {
        if (lchown(file.c_str(), user, user) != 0 || chmod(file.c_str(), mode) != 0) {
            throw std::runtime_error("run this as root: " + file.string());
        }
    }

    /// What the program writes when the caller runs it with his own values of all variables.
    std::vector<std::string> lines_of_a_call() const {
        const fs::path output = callers_.path() / "output";
        std::ofstream(output).close();
        give(output, caller, 0600);
        const test::ScopedEnvironment path("KZM_INSTALL_PATH", callers_.string().c_str());
        const test::ScopedEnvironment space("KZMUTIL_NAMESPACE", "callers-");
        const test::ScopedEnvironment objects("KZMKERNEL_FOLDER", (callers_.path() / "kernel" / "objects").c_str());
        const std::string libraries = (folder_.path() / "lib").string();
        test::Child child = test::start(call_as_another_user, "exec " + libraries + "/setuid_probe " + libraries + " " +
                                                                  name_ + " >" + output.string());
        child.tell(caller);
        EXPECT_EQ(child.wait(), 0) << contents_of(output);
        std::vector<std::string> lines;
        std::ifstream stream(output);
        for (std::string line; std::getline(stream, line);) lines.push_back(line);
        return lines;
    }
    auto lines_of_a_privileged_program(const std::string& log_result) const {
        return ElementsAre("secure=1", "install_path=" + folder_.path().string(), "created=1", "bare_name=1",
                           "opened=" + log_result, log_result == "0" ? "written=0" : "written=6");
    }

    fs::path log() const { return folder_.path() / "log" / "shmnm.log"; }
    const fs::path& callers() const { return callers_.path(); }

  private:
    ProgramFolder folder_;
    test::TemporaryFolder callers_;
    std::string name_ = "setuid-test-" + std::to_string(getpid());
};

TEST_F(SetuidProgram, IgnoresEveryVariableOfItsCaller) {
    EXPECT_THAT(lines_of_a_call(), lines_of_a_privileged_program("0"));
    EXPECT_THAT(contents_of(log()), HasSubstr(" function file:1 message\n"));
    EXPECT_TRUE(fs::is_empty(callers() / "log"));
    EXPECT_TRUE(fs::is_empty(callers() / "kernel"));
}

TEST_F(SetuidProgram, MakesItsLogForItsOwnUserOnly) {
    EXPECT_THAT(lines_of_a_call(), lines_of_a_privileged_program("0"));
    struct stat found {};
    ASSERT_EQ(stat(log().c_str(), &found), 0);
    EXPECT_EQ(found.st_uid, privileged);
    EXPECT_EQ(found.st_mode & 07777, 0640u);
}

/// What the caller, who may write in the folder of the log, can put there to have somebody else's file written to.
TEST_F(SetuidProgram, AppendsNothingToAFileThatItsCallerPutInPlaceOfTheLog) {
    give(log().parent_path(), privileged, 0777);
    const fs::path precious = log().parent_path() / "precious";
    const std::vector<void (*)(const fs::path&, const fs::path&)> attacks{
        [](const fs::path& file, const fs::path& place) { fs::create_symlink(file, place); },
        [](const fs::path& file, const fs::path& place) { fs::create_hard_link(file, place); },
        [](const fs::path&, const fs::path& place) {
            ASSERT_EQ(mkfifo(place.c_str(), 0666), 0);
            give(place, privileged, 0666);
        },
        [](const fs::path&, const fs::path& place) {
            std::ofstream(place).close();
            give(place, caller, 0666);
        }};
    for (size_t i = 0; i < attacks.size(); ++i) {
        SCOPED_TRACE(i);
        std::ofstream(precious) << "precious\n";
        give(precious, privileged, 0600);
        attacks[i](precious, log());
        EXPECT_THAT(lines_of_a_call(), lines_of_a_privileged_program("5"));
        EXPECT_EQ(contents_of(precious), "precious\n");
        if (!fs::is_fifo(log())) {
            EXPECT_THAT(contents_of(log()), testing::AnyOf("precious\n", ""));
        }
        fs::remove(log());
        fs::remove(precious);
    }
}

}  // namespace
