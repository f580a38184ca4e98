// Signals and the C library: one ends a wait, and the library raises none.
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/time.h>

#include <csignal>

#include "opened.h"
#include "picture/live_region.h"

namespace {

using test::Opened;

class PictureSignal : public test::LiveCopy {};

/// A signal each 10 ms, for the length of a scope: one that comes before the wait begins ends nothing.
class Alarms {
  public:
    Alarms() {
        struct sigaction action {};
        action.sa_handler = [](int) {};
        sigaction(SIGALRM, &action, &before_);
        const itimerval often{.it_interval = {.tv_sec = 0, .tv_usec = 10'000},
                              .it_value = {.tv_sec = 0, .tv_usec = 10'000}};
        setitimer(ITIMER_REAL, &often, nullptr);
    }
    ~Alarms() {
        const itimerval never{};
        setitimer(ITIMER_REAL, &never, nullptr);
        sigaction(SIGALRM, &before_, nullptr);
    }
    Alarms(const Alarms&) = delete;
    Alarms& operator=(const Alarms&) = delete;

  private:
    struct sigaction before_ {};
};

TEST_F(PictureSignal, EndsAWaitForAChange) {
    Opened picture = Opened::live();
    const Alarms alarms;
    EXPECT_EQ(picture.update(UINT32_MAX), 0);
    EXPECT_EQ(picture.result(), SHMNMPICTURE_OK);
}

TEST_F(PictureSignal, EndsAWaitForARegion) {
    const test::ScopedEnvironment other("KZMUTIL_NAMESPACE", "picture-signal-of-nothing-");
    Opened picture = Opened::live();
    ASSERT_EQ(picture.result(), SHMNMPICTURE_ERR_NO_REGION);
    const Alarms alarms;
    EXPECT_EQ(picture.update(UINT32_MAX), -1);
    EXPECT_EQ(picture.result(), SHMNMPICTURE_ERR_NO_REGION);
}

}  // namespace
