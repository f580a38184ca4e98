// What the companions answer while the process gets no more memory.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdint>
#include <fstream>
#include <string>

#include "kzmlog.h"
#include "kzmxml.h"
#include "support/child.h"
#include "support/forked_linux.h"
#include "support/temporary_folder.h"

namespace {

/// While it lives, the process can get only so many more bytes.
class MemoryLimit {
  public:
    explicit MemoryLimit(rlim_t bytes) {
        rlim_t pages = 0;
        std::ifstream("/proc/self/statm") >> pages;
        getrlimit(RLIMIT_AS, &usual_);
        struct rlimit limit = usual_;
        limit.rlim_cur = pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) + bytes;
        setrlimit(RLIMIT_AS, &limit);
    }
    ~MemoryLimit() { setrlimit(RLIMIT_AS, &usual_); }
    MemoryLimit(const MemoryLimit&) = delete;
    MemoryLimit& operator=(const MemoryLimit&) = delete;

  private:
    struct rlimit usual_ {};
};

class WithoutMemory : public testing::Test {
  protected:
    test::TemporaryFolder folder_;

  private:
    test::ScopedEnvironment install_path_{"KZM_INSTALL_PATH", folder_.string().c_str()};
};

TEST_F(WithoutMemory, TheLogRefusesALongLine) {
    const std::string long_message(2'000'000, 'x');
    test::in_fork([&] {
        void* log = nullptr;
        ASSERT_EQ(kzmlog_open("shmnm", &log, 4, 0, 0, "channel"), 0);
        const auto write = [log](const char* message) { return kzmlog_write(log, 4, 0, "f", 1, "g", message); };
        {
            const MemoryLimit limit(200'000);
            EXPECT_EQ(write(long_message.c_str()), 8);
            EXPECT_EQ(write("short"), 0);
        }
        EXPECT_EQ(write(long_message.c_str()), 0);
        EXPECT_EQ(kzmlog_close(log), 0);
    });
    EXPECT_NE(test::contents_of(folder_.path() / "log/shmnm.log").find(" g f:1 short\n"), std::string::npos);
}

TEST_F(WithoutMemory, AConfigurationIsNotLoaded) {
    folder_.write("etc/cluster.xml", "<root>" + std::string(2'000'000, ' ') + "</root>");
    test::in_fork([] {
        ASSERT_EQ(xmllib_init("test"), XMLLIB_OK);
        {
            const MemoryLimit limit(200'000);
            EXPECT_EQ(xmllib_load_config(0), XMLLIB_ERR_SYSTEM);
        }
        EXPECT_EQ(xmllib_load_config(0), XMLLIB_OK);
        EXPECT_EQ(xmllib_term(), XMLLIB_OK);
    });
}

}  // namespace
