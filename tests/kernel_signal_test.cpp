// Waits of kzmkernel while signals come all the time.
#include <gtest/gtest.h>
#include <kzmkernel.h>
#include <sys/time.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <string>
#include <thread>

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

std::atomic<int> signals{0};

/// Sends this process a signal every half millisecond, which ends system calls.
class SignalStorm {
  public:
    SignalStorm() {
        signals = 0;
        struct sigaction action {};
        action.sa_handler = [](int) { ++signals; };
        sigaction(SIGALRM, &action, &old_);
        const itimerval interval{{0, 500}, {0, 500}};
        setitimer(ITIMER_REAL, &interval, nullptr);
    }
    ~SignalStorm() {
        const itimerval none{};
        setitimer(ITIMER_REAL, &none, nullptr);
        sigaction(SIGALRM, &old_, nullptr);
    }
    SignalStorm(const SignalStorm&) = delete;
    SignalStorm& operator=(const SignalStorm&) = delete;

  private:
    struct sigaction old_ {};
};

/// A thread that gets none of the signals: they are for the one that waits.
template <typename Body>
std::thread undisturbed(Body body) {
    return std::thread([body] {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, nullptr);
        body();
    });
}

class KernelSignals : public testing::Test {
  protected:
    void SetUp() override {
        std::thread owner = undisturbed([this] {
            EXPECT_EQ(kzmkernel_wait(mutex, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
            owned = true;
            while (!over) std::this_thread::yield();
            EXPECT_TRUE(kzmkernel_release(mutex));
        });
        owner_.swap(owner);
        while (!owned) std::this_thread::yield();
    }
    void TearDown() override {
        over = true;
        owner_.join();
        kzmkernel_close(mutex);
    }

    void* const mutex = kzmkernel_create_mutex((std::getenv("KZMUTIL_NAMESPACE") + std::string("signals")).c_str());
    std::atomic<bool> owned{false}, over{false};

  private:
    std::thread owner_;
};

TEST_F(KernelSignals, DoNotShortenOrLengthenAWait) {
    const SignalStorm storm;
    const auto begin = steady_clock::now();
    EXPECT_EQ(kzmkernel_wait(mutex, 300), uint32_t{KZMKERNEL_WAIT_TIMEOUT});
    EXPECT_GE(steady_clock::now() - begin, milliseconds(300));
    EXPECT_LT(steady_clock::now() - begin, milliseconds(3000));
    EXPECT_GT(signals, 20);
}

TEST_F(KernelSignals, DoNotEndAWaitWithoutLimit) {
    const SignalStorm storm;
    std::thread ender = undisturbed([this] {
        while (signals < 50) std::this_thread::yield();
        over = true;
    });
    EXPECT_EQ(kzmkernel_wait(mutex, KZMKERNEL_INFINITE), uint32_t{KZMKERNEL_WAIT_OWNED});
    EXPECT_GE(signals, 50);
    EXPECT_TRUE(kzmkernel_release(mutex));
    ender.join();
}

TEST_F(KernelSignals, DoNotShortenOrLengthenASleep) {
    const SignalStorm storm;
    const auto begin = steady_clock::now();
    kzmkernel_sleep(200);
    EXPECT_GE(steady_clock::now() - begin, milliseconds(200));
    EXPECT_LT(steady_clock::now() - begin, milliseconds(3000));
    EXPECT_GT(signals, 20);
}

}  // namespace
