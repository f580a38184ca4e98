// Reads of what a mutex guards by threads that do not take it: when they count, and that they hold nobody up.
#include <gtest/gtest.h>
#include <kzmkernel.h>
#include <linux/futex.h>

#include <atomic>
#include <csignal>
#include <cstring>
#include <string>
#include <thread>

#include "support/child.h"
#include "support/forked_linux.h"
#include "support/kernel_linux.h"
#include "support/temporary_folder.h"

namespace {

using namespace kernel_test;

constexpr uint64_t untouched = 777;

struct Begun {
    int32_t found;
    uint64_t takes;
    uint32_t error;
};
Begun begin(void* mutex) {
    kzmkernel_set_last_error(untouched);
    Begun begun{0, untouched, 0};
    begun.found = kzmkernel_begin_read(mutex, &begun.takes);
    begun.error = kzmkernel_last_error();
    return begun;
}
bool ends_whole(void* mutex, const Begun& begun) {
    return kzmkernel_end_read(mutex, begun.takes) != 0;
}

void take_and_release(void* mutex) {
    ASSERT_EQ(kzmkernel_wait(mutex, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
    ASSERT_TRUE(kzmkernel_release(mutex));
}

TEST(KernelRead, IsWholeWhileNobodyTakesTheMutex) {
    const Handle mutex(create_mutex(object_name()));
    for (uint64_t takes = 0; takes < 3; ++takes) {
        const Begun begun = begin(mutex.value);
        EXPECT_EQ(begun.found, KZMKERNEL_READ_FREE);
        EXPECT_EQ(begun.takes, takes);
        EXPECT_EQ(begun.error, untouched) << "a success changed the last error";
        EXPECT_TRUE(ends_whole(mutex.value, begun));
        take_and_release(mutex.value);
    }
}

TEST(KernelRead, IsTornByAnyOwnerThatCameMeanwhile) {
    const Handle mutex(create_mutex(object_name()));
    const Begun gone = begin(mutex.value);
    take_and_release(mutex.value);
    EXPECT_FALSE(ends_whole(mutex.value, gone));
    EXPECT_EQ(kzmkernel_last_error(), uint32_t{KZMKERNEL_ERROR_BUSY});

    const Begun there = begin(mutex.value);
    ASSERT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
    EXPECT_FALSE(ends_whole(mutex.value, there));
    EXPECT_TRUE(kzmkernel_release(mutex.value));
}

TEST(KernelRead, DoesNotBeginBesideAnotherOwner) {
    const Handle mutex(create_mutex(object_name()));
    ASSERT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
    ASSERT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
    const auto expect_held = [&] {
        std::thread([&] {
            const Begun begun = begin(mutex.value);
            EXPECT_EQ(begun.found, 0);
            EXPECT_EQ(begun.error, uint32_t{KZMKERNEL_ERROR_BUSY});
            EXPECT_EQ(begun.takes, untouched) << "an output of a failure";
        }).join();
    };
    expect_held();
    EXPECT_TRUE(kzmkernel_release(mutex.value));
    expect_held();
    EXPECT_TRUE(kzmkernel_release(mutex.value));
    std::thread([&] { EXPECT_EQ(begin(mutex.value).found, KZMKERNEL_READ_FREE); }).join();
}

TEST(KernelRead, OfTheOwnerIsWholeWhateverTheOwnerDoes) {
    const Handle mutex(create_mutex(object_name()));
    ASSERT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
    const Begun begun = begin(mutex.value);
    EXPECT_EQ(begun.found, KZMKERNEL_READ_OWNED);
    ASSERT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
    EXPECT_TRUE(kzmkernel_release(mutex.value));
    EXPECT_TRUE(ends_whole(mutex.value, begun));
    EXPECT_TRUE(kzmkernel_release(mutex.value));
    in_fork([&] { EXPECT_EQ(begin(mutex.value).found, KZMKERNEL_READ_FREE); });
}

TEST(KernelRead, DoesNotBeginUntilADeadOwnersMutexWasTakenOver) {
    const Handle mutex(create_mutex(object_name()));
    Sign owned;
    Forked owner([&] {
        EXPECT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
        owned.give();
        pause_forever();
    });
    owned.await();
    owner.kill();
    EXPECT_EQ(begin(mutex.value).found, 0);
    EXPECT_EQ(begin(mutex.value).error, uint32_t{KZMKERNEL_ERROR_BUSY});
    ASSERT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_ABANDONED});
    EXPECT_TRUE(kzmkernel_release(mutex.value));
    const Begun begun = begin(mutex.value);
    EXPECT_EQ(begun.found, KZMKERNEL_READ_FREE);
    EXPECT_EQ(begun.takes, 2u);
    EXPECT_TRUE(ends_whole(mutex.value, begun));
}

TEST(KernelRead, GoesByTheWordAndNotByTheNameInThePage) {
    const Handle mutex(create_mutex(object_name()));
    uint8_t* const page_of_mutex = mapped_page_of(file_of_mutex(object_name()));
    const auto word_at = [&](size_t at) { return std::atomic_ref(*reinterpret_cast<uint32_t*>(page_of_mutex + at)); };
    word_at(80) = 4711;  // the name of some owner
    EXPECT_EQ(begin(mutex.value).found, KZMKERNEL_READ_FREE);
    word_at(80) = 0;
    word_at(16) = FUTEX_WAITERS;
    EXPECT_EQ(begin(mutex.value).found, KZMKERNEL_READ_FREE);
    for (const uint32_t taken : {uint32_t{FUTEX_OWNER_DIED}, FUTEX_OWNER_DIED | FUTEX_WAITERS, uint32_t{1}}) {
        word_at(16) = taken;
        EXPECT_EQ(begin(mutex.value).found, 0) << std::hex << taken;
    }
    word_at(16) = 0;
}

TEST(KernelRead, WritesNothing) {
    const Handle mutex(create_mutex(object_name()));
    take_and_release(mutex.value);
    const std::string before = contents_of(file_of_mutex(object_name()));
    const Begun begun = begin(mutex.value);
    EXPECT_EQ(contents_of(file_of_mutex(object_name())), before);
    EXPECT_TRUE(ends_whole(mutex.value, begun));
    EXPECT_EQ(contents_of(file_of_mutex(object_name())), before);
}

TEST(KernelRead, HoldsNobodyUpWhileItIsStopped) {
    const Handle mutex(create_mutex(object_name()));
    Sign begun, resume;
    Forked reader([&] {
        const Begun read = begin(mutex.value);
        EXPECT_EQ(read.found, KZMKERNEL_READ_FREE);
        begun.give();
        resume.await();
        EXPECT_FALSE(ends_whole(mutex.value, read));
        const Begun again = begin(mutex.value);
        EXPECT_EQ(again.takes, 100u);
        EXPECT_TRUE(ends_whole(mutex.value, again));
    });
    begun.await();
    ASSERT_EQ(kill(reader.id(), SIGSTOP), 0);
    for (int i = 0; i < 100; ++i) take_and_release(mutex.value);
    resume.give();
    ASSERT_EQ(kill(reader.id(), SIGCONT), 0);
    EXPECT_EQ(reader.wait(), 0);
}

TEST(KernelRead, FailsWithoutAnOpenMutexOrAnOutput) {
    const Handle mutex(create_mutex(object_name() + "1")), mapping(create_mapping(object_name() + "2"));
    EXPECT_FALSE(kzmkernel_begin_read(mutex.value, nullptr));
    EXPECT_EQ(kzmkernel_last_error(), uint32_t{KZMKERNEL_ERROR_INVALID_PARAMETER});
    for (void* const wrong : {static_cast<void*>(nullptr), mapping.value}) {
        EXPECT_EQ(begin(wrong).found, 0);
        EXPECT_EQ(begin(wrong).error, uint32_t{KZMKERNEL_ERROR_INVALID_HANDLE});
        EXPECT_FALSE(kzmkernel_end_read(wrong, 0));
        EXPECT_EQ(kzmkernel_last_error(), uint32_t{KZMKERNEL_ERROR_INVALID_HANDLE});
    }
}

}  // namespace
