// When the log reads the time zone. The clock is the test's own: the function below stands before the C library's for
// the whole program.
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <ctime>

#include "kzmlog.h"
#include "kzmlog_test_platform.h"
#include "support/child.h"
#include "support/forked_linux.h"

namespace {

std::atomic<int64_t> seconds_now{0};  // 0: the system's clock

}  // namespace

extern "C" int clock_gettime(clockid_t clock, timespec* time) noexcept {
    if (seconds_now == 0) return static_cast<int>(syscall(SYS_clock_gettime, clock, time));
    *time = {seconds_now, 0};
    return 0;
}

namespace test {
namespace {

constexpr int64_t quarter = 900;
constexpr int64_t start_of_a_quarter = 2'000'000 * quarter;
constexpr int east = 330, west = -555;

/// A log that was opened in the east, at the start of a quarter of an hour.
class KzmLogZone : public KzmLog {
  protected:
    KzmLogZone() {
        move_east();
        seconds_now = start_of_a_quarter;
        log_ = open_log();
    }
    ~KzmLogZone() override {
        EXPECT_EQ(kzmlog_close(log_), 0);
        seconds_now = 0;
    }

    static void move_east() { move("EAST-05:30"); }
    static void move_west() { move("WEST+09:15"); }
    /// The offset of a line that is written so many seconds after the log was opened.
    int offset_after(int64_t seconds) const {
        seconds_now = start_of_a_quarter + seconds;
        EXPECT_EQ(write(log_, "line"), 0);
        const std::vector<LogLine> lines = parsed(text());
        EXPECT_EQ(lines.back().utc_ms, seconds_now * 1000);
        return lines.back().offset_minutes;
    }

    static void move(const char* zone) {
        set_environment("TZ", zone);
        tzset();
    }

  private:
    ScopedEnvironment zone_{"TZ", "UTC0"};
    void* log_ = nullptr;
};

TEST_F(KzmLogZone, IsReadOnceInEachQuarterOfAnHour) {
    move_west();
    EXPECT_EQ(offset_after(0), east);
    EXPECT_EQ(offset_after(quarter - 1), east);
    EXPECT_EQ(offset_after(quarter), west);
    move_east();
    EXPECT_EQ(offset_after(2 * quarter - 1), west);
    EXPECT_EQ(offset_after(2 * quarter), east);
}

TEST_F(KzmLogZone, IsThatOfTheTimeOfTheLine) {
    move("STANDARD-01:00SUMMER-02:00,M3.5.0,M10.5.0");
    constexpr int64_t day = int64_t{24} * 3600;  // from 15 January on
    EXPECT_EQ(offset_after(60 * day), 60);
    EXPECT_EQ(offset_after(180 * day), 120);
    EXPECT_EQ(offset_after(300 * day), 60);
}

// Reading the zone takes a lock that may be locked for ever in a forked process.
TEST_F(KzmLogZone, IsNeverReadByAForkedProcess) {
    in_fork([this] {
        move_west();
        EXPECT_EQ(offset_after(0), east);
        EXPECT_EQ(offset_after(quarter), east);
    });
    move_west();
    EXPECT_EQ(offset_after(quarter), west);
}

}  // namespace
}  // namespace test
