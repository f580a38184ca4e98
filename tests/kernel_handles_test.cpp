// The handles of kzmkernel: how many there are, invented ones, and those that threads use and close at once.
#include <gtest/gtest.h>
#include <kzmkernel.h>
#include <pthread.h>

#include <array>
#include <atomic>
#include <filesystem>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/forked_linux.h"
#include "support/kernel_linux.h"
#include "support/temporary_folder.h"

namespace {

using namespace kernel_test;

TEST(KernelHandles, AreAllDifferentAndFailWith4WhenTheTableIsFull) {
    const std::string name = object_name();
    std::set<void*> handles;
    void* last = nullptr;
    while ((last = create_mutex(name)) != nullptr) ASSERT_TRUE(handles.insert(last).second);
    EXPECT_EQ(kzmkernel_last_error(), uint32_t{KZMKERNEL_ERROR_TOO_MANY_OPEN_FILES});
    EXPECT_GE(handles.size(), 65536u);
    // So it is in a child, which looks through the table.
    in_fork([&] {
        EXPECT_EQ(create_mutex(name), nullptr);
        EXPECT_EQ(kzmkernel_last_error(), uint32_t{KZMKERNEL_ERROR_TOO_MANY_OPEN_FILES});
        for (void* const handle : handles) ASSERT_TRUE(kzmkernel_close(handle));
        EXPECT_EQ(Handle(create_mutex(name)).error, uint32_t{KZMKERNEL_ERROR_ALREADY_EXISTS});
    });
    for (void* const handle : handles) ASSERT_TRUE(kzmkernel_close(handle));
    EXPECT_FALSE(fs::exists(file_of_mutex(name)));
    // Places are used again, numbers are not.
    std::vector<void*> again(1000);
    for (void*& handle : again) {
        handle = create_mutex(name);
        ASSERT_NE(handle, nullptr);
        ASSERT_TRUE(handles.insert(handle).second);
    }
    for (void* const handle : again) ASSERT_TRUE(kzmkernel_close(handle));
}

TEST(KernelHandles, AreInvalidWithAnyBitChanged) {
    const Handle mutex(create_mutex(object_name()));
    const auto number = reinterpret_cast<uintptr_t>(mutex.value);
    for (int bit = 0; bit < 64; ++bit) {
        void* const invented = reinterpret_cast<void*>(number ^ uintptr_t{1} << bit);
        kzmkernel_set_last_error(0);
        EXPECT_EQ(kzmkernel_wait(invented, 0), uint32_t{KZMKERNEL_WAIT_FAILED}) << bit;
        EXPECT_EQ(kzmkernel_last_error(), uint32_t{KZMKERNEL_ERROR_INVALID_HANDLE}) << bit;
        EXPECT_FALSE(kzmkernel_close(invented)) << bit;
    }
    EXPECT_FALSE(kzmkernel_close(reinterpret_cast<void*>(UINTPTR_MAX)));
}

TEST(KernelHandles, CanBeUsedAndClosedByManyThreadsAtOnce) {
    const std::string name = object_name();
    constexpr size_t places = 8;
    std::array<std::atomic<void*>, places> shared{};
    std::atomic<int> inside{0};
    std::atomic<int> taken{0};
    std::vector<std::thread> threads;
    for (unsigned seed = 1; seed <= 6; ++seed) {
        threads.emplace_back([&, seed] {
            std::minstd_rand random(seed);
            for (int i = 0; i < 3000; ++i) {
                std::atomic<void*>& place = shared[random() % places];
                switch (random() % 4) {
                    case 0:
                        if (void* const old = place.exchange(create_mutex(name))) {
                            EXPECT_TRUE(kzmkernel_close(old));
                        }
                        break;
                    case 1:
                        if (void* const old = place.exchange(nullptr)) {
                            EXPECT_TRUE(kzmkernel_close(old));
                        }
                        break;
                    default: {
                        const Handle own(create_mutex(name));
                        if (kzmkernel_wait(place, 1) != KZMKERNEL_WAIT_OWNED) break;
                        EXPECT_EQ(inside.fetch_add(1), 0);
                        ++taken;
                        inside.fetch_sub(1);
                        EXPECT_TRUE(kzmkernel_release(own.value));
                        break;
                    }
                }
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    for (std::atomic<void*>& place : shared) {
        if (place) kzmkernel_close(place);
    }
    EXPECT_GT(taken, 100);
    EXPECT_FALSE(fs::exists(file_of_mutex(name)));
}

TEST(KernelHandles, StayOpenWhileManyThreadsUseThem) {
    const Handle mapping(create_page(object_name()));
    const uint64_t number = kzmkernel_object_number(mapping.value);
    ASSERT_NE(number, 0u);
    constexpr int count = 4;
    std::atomic<int> ready{0}, wrong{0};
    std::vector<std::thread> threads;
    threads.reserve(count);
    for (int i = 0; i < count; ++i) {
        threads.emplace_back([&] {
            // One thread may be through before the next one is made.
            for (++ready; ready < count;) std::this_thread::yield();
            for (int use = 0; use < 100'000; ++use) wrong += kzmkernel_object_number(mapping.value) != number;
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(wrong, 0);
    EXPECT_TRUE(fs::exists(file_of_mapping(object_name())));
}

/// How often a file is mapped into this process.
size_t mappings_of(const std::string& file) {
    const std::string maps = test::contents_of("/proc/self/maps");
    size_t count = 0;
    for (size_t at = maps.find(file); at != std::string::npos; at = maps.find(file, at + 1)) ++count;
    return count;
}

TEST(KernelHandles, FreeTheirPageWhenClosedAfterAnotherThreadUsedThem) {
    const std::string name = object_name();
    Sign used, closed;
    void* const mutex = create_mutex(name);
    std::thread user([&] {
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(kzmkernel_wait(mutex, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
            EXPECT_TRUE(kzmkernel_release(mutex));
        }
        used.give();
        closed.await();
        EXPECT_EQ(kzmkernel_wait(mutex, 0), uint32_t{KZMKERNEL_WAIT_FAILED});
        EXPECT_EQ(kzmkernel_last_error(), uint32_t{KZMKERNEL_ERROR_INVALID_HANDLE});
        EXPECT_FALSE(kzmkernel_release(mutex));
        EXPECT_EQ(kzmkernel_last_error(), uint32_t{KZMKERNEL_ERROR_INVALID_HANDLE});
    });
    used.await();
    EXPECT_TRUE(kzmkernel_close(mutex));
    expect_new(create_mutex, name);  // the object is gone, although the thread still lives
    closed.give();
    user.join();
    expect_new(create_mutex, name + "another");
    EXPECT_EQ(mappings_of(file_of_mutex(name).filename()), 0u);
}

TEST(KernelHandles, FreeThePagesOfClosedMutexesWhoseOwnersEnded) {
    const std::string name = object_name();
    Handle other(create_mutex("other" + name));
    std::thread([&] {
        void* const mutex = create_mutex(name);
        EXPECT_EQ(kzmkernel_wait(mutex, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
        EXPECT_TRUE(kzmkernel_close(mutex));
    }).join();
    EXPECT_EQ(mappings_of(file_of_mutex(name).filename()), 1u) << "the owner's list of locks needs it";
    other.close();
    EXPECT_EQ(mappings_of(file_of_mutex(name).filename()), 0u);
}

TEST(KernelHandles, KeepThePagesOfClosedMutexesWhoseOwnersLive) {
    const std::string name = object_name();
    void* const owned = create_mutex(name + "1");
    ASSERT_EQ(kzmkernel_wait(owned, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
    EXPECT_TRUE(kzmkernel_close(owned));
    std::thread([&] {
        void* const mutex = create_mutex(name + "2");
        EXPECT_EQ(kzmkernel_wait(mutex, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
        EXPECT_TRUE(kzmkernel_close(mutex));
    }).join();
    const Handle next(create_mutex(name));
    EXPECT_EQ(mappings_of(file_of_mutex(name + "2").filename()), 0u);
    EXPECT_EQ(mappings_of(file_of_mutex(name + "1").filename()), 1u) << "this thread's list of locks needs it";
}

void* cancelled_while_it_creates(void* name) {
    pthread_cancel(pthread_self());
    void* const mutex = kzmkernel_create_mutex(static_cast<const std::string*>(name)->c_str());
    EXPECT_NE(mutex, nullptr);
    EXPECT_TRUE(kzmkernel_close(mutex));
    pthread_testcancel();
    return nullptr;
}

TEST(KernelHandles, CanBeOpenedAndClosedByAThreadThatIsCancelledMeanwhile) {
    std::string name = object_name();
    pthread_t thread{};
    ASSERT_EQ(pthread_create(&thread, nullptr, cancelled_while_it_creates, &name), 0);
    void* result = nullptr;
    ASSERT_EQ(pthread_join(thread, &result), 0);
    EXPECT_EQ(result, PTHREAD_CANCELED) << "the thread can be cancelled afterwards";
    expect_new(create_mutex, name);
}

TEST(KernelHandles, FreeTheirPageWhenClosedAfterTheThreadsThatUsedThemEnded) {
    const std::string name = object_name();
    void* const mutex = create_mutex(name);
    std::thread([&] {
        EXPECT_EQ(kzmkernel_wait(mutex, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
        EXPECT_TRUE(kzmkernel_release(mutex));
    }).join();
    EXPECT_EQ(mappings_of(file_of_mutex(name).filename()), 1u);
    EXPECT_TRUE(kzmkernel_close(mutex));
    EXPECT_EQ(mappings_of(file_of_mutex(name).filename()), 0u);
}

TEST(KernelHandles, FreeTheirPagesWhenUsedInTurnAndClosed) {
    const std::string name = object_name();
    void* const mutexes[] = {create_mutex(name + "1"), create_mutex(name + "2")};
    for (void* const mutex : mutexes) {
        EXPECT_EQ(kzmkernel_wait(mutex, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
        EXPECT_TRUE(kzmkernel_release(mutex));
    }
    for (void* const mutex : mutexes) EXPECT_TRUE(kzmkernel_close(mutex));
    EXPECT_EQ(mappings_of(file_of_mutex(name).filename()), 0u);
}

// The page in which a new mutex is prepared is not kept.
TEST(KernelHandles, MapOnePageOfAMutex) {
    const std::string place = folder().string() + '/';
    const size_t before = mappings_of(place);
    void* const mutex = create_mutex(object_name());
    EXPECT_EQ(mappings_of(place), before + 1);
    EXPECT_EQ(kzmkernel_wait(mutex, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
    EXPECT_TRUE(kzmkernel_release(mutex));
    EXPECT_TRUE(kzmkernel_close(mutex));
    EXPECT_EQ(mappings_of(place), before);
}

TEST(KernelHandles, AreDistinguishedWhenMutexesAreUsedInTurn) {
    const Handle first(create_mutex(object_name() + "1")), second(create_mutex(object_name() + "2"));
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(kzmkernel_wait(first.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
        EXPECT_FALSE(kzmkernel_release(second.value));
        EXPECT_EQ(kzmkernel_wait(second.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
        EXPECT_NE(info_of(first.value).owner_thread, 0u);
        EXPECT_TRUE(kzmkernel_release(first.value));
        EXPECT_EQ(info_of(first.value).owner_thread, 0u);
        EXPECT_NE(info_of(second.value).owner_thread, 0u);
        EXPECT_TRUE(kzmkernel_release(second.value));
    }
}

}  // namespace
