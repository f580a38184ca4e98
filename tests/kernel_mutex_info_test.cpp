// What tools and other builds see of a mutex: its owner and counters, its page in the shared file, the note of a change
// and the count of looks.
#include <gmock/gmock.h>
#include <kzmkernel.h>
#include <linux/futex.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <random>
#include <string>
#include <thread>

#include "support/child.h"
#include "support/forked_linux.h"
#include "support/kernel_linux.h"
#include "support/temporary_folder.h"

namespace {

using namespace kernel_test;

uint64_t this_second_ns() {
    return static_cast<uint64_t>(std::time(nullptr)) * 1'000'000'000;
}

TEST(KernelMutexInfo, NamesTheOwnerAndTheTimeOfItsTake) {
    const Handle mutex(create_mutex(object_name()));
    EXPECT_EQ(info_of(mutex.value).owner_process, 0u);
    EXPECT_EQ(info_of(mutex.value).takeovers, 0u);
    EXPECT_EQ(info_of(mutex.value).last_takeover_ns, 0u);
    // The first take of a handle by a thread, and any later one.
    for (int i = 0; i < 2; ++i) {
        const uint64_t before = this_second_ns();
        kzmkernel_wait(mutex.value, 0);
        const kzmkernel_mutex_info info = info_of(mutex.value);
        EXPECT_GE(info.owned_since_ns, before);
        EXPECT_LE(info.owned_since_ns, this_second_ns());
        EXPECT_EQ(info.owned_since_ns % 1'000'000'000, 0u);
        kzmkernel_release(mutex.value);
    }
    kzmkernel_wait(mutex.value, 0);
    kzmkernel_wait(mutex.value, 0);
    const Handle other(open_mutex(object_name()));
    std::thread([&] {
        const kzmkernel_mutex_info info = info_of(other.value);
        EXPECT_EQ(info.owner_process, static_cast<uint32_t>(getpid()));
        EXPECT_EQ(info.owner_thread, static_cast<uint32_t>(getpid()));
    }).join();
    kzmkernel_release(mutex.value);
    EXPECT_NE(info_of(mutex.value).owner_process, 0u);
    kzmkernel_release(mutex.value);
    EXPECT_EQ(info_of(mutex.value).owner_process, 0u);
    EXPECT_EQ(info_of(mutex.value).owner_thread, 0u);
}

TEST(KernelMutexInfo, CountsAndDatesTakeOvers) {
    const Handle mutex(create_mutex(object_name()));
    for (uint64_t round = 1; round <= 3; ++round) {
        Forked owner([&] { kzmkernel_wait(mutex.value, 0); });
        EXPECT_EQ(owner.wait(), 0);
        EXPECT_EQ(info_of(mutex.value).owner_process, static_cast<uint32_t>(owner.id()));
        EXPECT_EQ(info_of(mutex.value).takeovers, round - 1);
        const uint64_t before = clock_ns(CLOCK_REALTIME), second_before = this_second_ns();
        EXPECT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_ABANDONED});
        EXPECT_EQ(info_of(mutex.value).takeovers, round);
        EXPECT_GE(info_of(mutex.value).last_takeover_ns, before);
        EXPECT_LE(info_of(mutex.value).last_takeover_ns, clock_ns(CLOCK_REALTIME));
        EXPECT_GE(info_of(mutex.value).owned_since_ns, second_before);
        EXPECT_LE(info_of(mutex.value).owned_since_ns, this_second_ns());
        EXPECT_EQ(info_of(mutex.value).owner_process, static_cast<uint32_t>(getpid()));
        EXPECT_TRUE(kzmkernel_release(mutex.value));
    }
}

TEST(KernelMutexInfo, CountsTheTakesOfAllOwnersButNoRecursiveTakes) {
    const Handle mutex(create_mutex(object_name()));
    EXPECT_EQ(info_of(mutex.value).takes, 0u);
    kzmkernel_wait(mutex.value, 0);
    kzmkernel_wait(mutex.value, 0);
    EXPECT_EQ(info_of(mutex.value).takes, 1u);
    kzmkernel_release(mutex.value);
    kzmkernel_release(mutex.value);
    Forked owner([&] { kzmkernel_wait(mutex.value, 0); });
    EXPECT_EQ(owner.wait(), 0);
    EXPECT_EQ(info_of(mutex.value).takes, 2u);
    EXPECT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_ABANDONED});
    EXPECT_EQ(info_of(mutex.value).takes, 3u);
    kzmkernel_release(mutex.value);
    EXPECT_EQ(info_of(mutex.value).takes, 3u);
}

TEST(KernelMutexInfo, FailsWithoutAnOpenMutexOrAnOutput) {
    const Handle mutex(create_mutex(object_name() + "1")), mapping(create_mapping(object_name() + "2"));
    kzmkernel_mutex_info info{};
    EXPECT_FALSE(kzmkernel_mutex_info_get(mutex.value, nullptr));
    EXPECT_EQ(kzmkernel_last_error(), uint32_t{KZMKERNEL_ERROR_INVALID_PARAMETER});
    EXPECT_FALSE(kzmkernel_mutex_info_get(mapping.value, &info));
    EXPECT_EQ(kzmkernel_last_error(), uint32_t{KZMKERNEL_ERROR_INVALID_HANDLE});
    EXPECT_FALSE(kzmkernel_mutex_info_get(nullptr, &info));
    EXPECT_EQ(kzmkernel_last_error(), uint32_t{KZMKERNEL_ERROR_INVALID_HANDLE});
}

TEST(KernelMutexPage, HasItsFieldsAtFixedOffsets) {
    const std::string name = object_name();
    fill_stack();
    const Handle mutex(kzmkernel_create_mutex(name.c_str()));
    ASSERT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
    ASSERT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
    ASSERT_TRUE(kzmkernel_look_count(mutex.value));
    std::memset(kzmkernel_note(mutex.value), 0xA5, KZMKERNEL_NOTE_BYTES);
    const std::string bytes = test::contents_of(file_of_mutex(object_name()));
    ASSERT_EQ(bytes.size(), 4096u);
    const auto word = [&](size_t at) {
        uint32_t value = 0;
        std::memcpy(&value, bytes.data() + at, sizeof value);
        return value;
    };
    const auto thread = static_cast<uint32_t>(gettid()), process = static_cast<uint32_t>(getpid());
    struct stat name_space {};
    ASSERT_EQ(stat("/proc/self/ns/pid", &name_space), 0);
    EXPECT_EQ(bytes.substr(0, 8), "\x01kzmlock");
    EXPECT_EQ(word(8), static_cast<uint32_t>(name_space.st_ino));
    EXPECT_EQ(word(16) & FUTEX_TID_MASK, thread) << "the lock's own word";
    EXPECT_EQ(word(32), 128u + 16u + 2u) << "a shared robust lock that looks for errors";
    EXPECT_EQ(word(56), 2u) << "version";
    EXPECT_EQ(word(60), 2048u) << "size";
    EXPECT_EQ(word(64), 2u) << "depth";
    EXPECT_EQ(word(72), 1u) << "takes";
    EXPECT_EQ(word(80), process);
    EXPECT_EQ(word(84), thread);
    EXPECT_NE(word(88), 0u) << "owned since";
    EXPECT_EQ(word(96), 0u) << "take-overs";
    EXPECT_EQ(word(104), 0u) << "last take-over";
    EXPECT_EQ(word(112), 1u) << "looks";
    EXPECT_EQ(bytes.substr(120, 904), std::string(904, 0)) << "reserved";
    EXPECT_EQ(bytes.substr(1024, 1024), std::string(1024, static_cast<char>(0xA5))) << "the note";
    EXPECT_EQ(bytes.substr(2048), std::string(2048, 0));
    EXPECT_TRUE(kzmkernel_release(mutex.value));
    EXPECT_TRUE(kzmkernel_release(mutex.value));
}

/// A process that never had anything to do with a mutex is refused it.
CHILD(expect_refused_mutex) {
    const Handle created(create_mutex(test::argument())), opened(open_mutex(test::argument()));
    const bool refused = !created.value && created.error == KZMKERNEL_ERROR_ACCESS_DENIED && !opened.value &&
                         opened.error == KZMKERNEL_ERROR_ACCESS_DENIED;
    std::_Exit(refused ? 0 : 1);
}

class KernelMutexPageVersion : public testing::TestWithParam<std::streamoff> {};
INSTANTIATE_TEST_SUITE_P(SignatureNamespaceVersionAndSize, KernelMutexPageVersion, testing::Values(0, 8, 56, 60));

TEST_P(KernelMutexPageVersion, IsRefusedWhenItDiffers) {
    std::string name = object_name();
    const Handle mutex(create_mutex(name));
    std::fstream file(file_of_mutex(name), std::ios::binary | std::ios::in | std::ios::out);
    char byte = 0;
    ASSERT_TRUE(file.seekg(GetParam()).get(byte));
    ASSERT_TRUE(file.seekp(GetParam()).put(static_cast<char>(byte + 1)).flush());
    EXPECT_EQ(kzmkernel_wait(mutex.value, 0), KZMKERNEL_WAIT_FAILED);
    EXPECT_EQ(kzmkernel_last_error(), uint32_t{KZMKERNEL_ERROR_ACCESS_DENIED});
    EXPECT_FALSE(kzmkernel_release(mutex.value));
    EXPECT_EQ(test::start(expect_refused_mutex, name).wait(), 0);
}

// Whoever may write the page can end all who use the mutex by damaging the pointers of its list, which the C library
// and the kernel follow. What stands beside them is only counted and compared.
TEST(KernelMutexPage, SurvivesAnyDamageToTheLockWordAndTheCounters) {
    std::mt19937 random(22);
    for (int round = 0; round < 100; ++round) {
        Forked user([&] {
            const std::string name = object_name() + std::to_string(round);
            const Handle mutex(create_mutex(name));
            uint8_t* const bytes = mapped_page_of(file_of_mutex(name));
            for (int step = 0; step < 20; ++step) {
                kzmkernel_wait(mutex.value, step % 2 == 0 ? 0 : 1);
                uint32_t* const word = reinterpret_cast<uint32_t*>(bytes) + (step % 4 == 0 ? 4 : 16 + random() % 14);
                *word = step % 3 == 0 ? ~0u : static_cast<uint32_t>(random());
                kzmkernel_mutex_info info{};
                EXPECT_TRUE(kzmkernel_mutex_info_get(mutex.value, &info));
                kzmkernel_release(mutex.value);
                kzmkernel_note(mutex.value);
                kzmkernel_look_count(mutex.value);
            }
        });
        ASSERT_EQ(user.wait(), 0) << "round " << round;
    }
}

TEST(KernelNote, IsKeptWhenItsWriterReleasesTheMutexOrEnds) {
    const std::string name = object_name();
    const Handle mutex(create_mutex(name));
    std::array<char, KZMKERNEL_NOTE_BYTES> note{};
    ASSERT_TRUE(kzmkernel_note_read(mutex.value, note.data()));
    EXPECT_THAT(note, testing::Each(0));

    in_fork([&] {
        EXPECT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
        auto* const written = static_cast<char*>(kzmkernel_note(mutex.value));
        ASSERT_NE(written, nullptr);
        std::strcpy(written, "released");
        EXPECT_TRUE(kzmkernel_release(mutex.value));
    });
    ASSERT_TRUE(kzmkernel_note_read(mutex.value, note.data()));
    EXPECT_STREQ(note.data(), "released");

    Forked writer([&] {
        EXPECT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
        static_cast<char*>(kzmkernel_note(mutex.value))[KZMKERNEL_NOTE_BYTES - 1] = 'x';
        kill(getpid(), SIGKILL);
    });
    writer.wait();
    EXPECT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_ABANDONED});
    EXPECT_EQ(static_cast<const char*>(kzmkernel_note(mutex.value))[KZMKERNEL_NOTE_BYTES - 1], 'x');
    EXPECT_TRUE(kzmkernel_release(mutex.value));
}

TEST(KernelNote, IsReadWhole) {
    const Handle mutex(create_mutex(object_name()));
    std::string written(KZMKERNEL_NOTE_BYTES, '\0'), read(KZMKERNEL_NOTE_BYTES + 8, '?');
    std::mt19937 random(11);
    for (char& byte : written) byte = static_cast<char>(random());
    ASSERT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
    std::memcpy(kzmkernel_note(mutex.value), written.data(), written.size());
    ASSERT_TRUE(kzmkernel_note_read(mutex.value, read.data()));
    EXPECT_TRUE(read == written + "????????");
    EXPECT_TRUE(kzmkernel_release(mutex.value));
}

TEST(KernelNote, CanBeWrittenOnlyByTheOwner) {
    const Handle mutex(create_mutex(object_name())), mapping(create_mapping(object_name() + "2"));
    std::array<char, KZMKERNEL_NOTE_BYTES> note{};
    EXPECT_EQ(kzmkernel_note(mutex.value), nullptr);
    EXPECT_EQ(kzmkernel_last_error(), uint32_t{KZMKERNEL_ERROR_NOT_OWNER});
    EXPECT_EQ(kzmkernel_note(mapping.value), nullptr);
    EXPECT_EQ(kzmkernel_last_error(), uint32_t{KZMKERNEL_ERROR_INVALID_HANDLE});
    EXPECT_FALSE(kzmkernel_note_read(nullptr, note.data()));
    EXPECT_EQ(kzmkernel_last_error(), uint32_t{KZMKERNEL_ERROR_INVALID_HANDLE});
    EXPECT_FALSE(kzmkernel_note_read(mutex.value, nullptr));
    EXPECT_EQ(kzmkernel_last_error(), uint32_t{KZMKERNEL_ERROR_INVALID_PARAMETER});

    ASSERT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
    EXPECT_NE(kzmkernel_note(mutex.value), nullptr);
    std::thread([&] { EXPECT_EQ(kzmkernel_note(mutex.value), nullptr); }).join();
    in_fork([&] { EXPECT_EQ(kzmkernel_note(mutex.value), nullptr); });
    EXPECT_TRUE(kzmkernel_release(mutex.value));
    EXPECT_EQ(kzmkernel_note(mutex.value), nullptr);
}

TEST(KernelLooks, AreCountedOnlyByTheOwnerAndApartFromTakes) {
    const Handle mutex(create_mutex(object_name()));
    const auto looks = [&] {
        uint64_t count = 777;
        EXPECT_TRUE(kzmkernel_look_count_get(mutex.value, &count));
        return count;
    };
    EXPECT_EQ(looks(), 0u);
    EXPECT_FALSE(kzmkernel_look_count(mutex.value));
    EXPECT_EQ(kzmkernel_last_error(), uint32_t{KZMKERNEL_ERROR_NOT_OWNER});
    for (uint64_t takes = 1; takes <= 3; ++takes) {
        ASSERT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
        if (takes > 1) {
            EXPECT_TRUE(kzmkernel_look_count(mutex.value));
        }
        EXPECT_TRUE(kzmkernel_release(mutex.value));
        EXPECT_EQ(looks(), takes - 1);
        EXPECT_EQ(info_of(mutex.value).takes, takes);
    }
    EXPECT_FALSE(kzmkernel_look_count_get(mutex.value, nullptr));
    EXPECT_EQ(kzmkernel_last_error(), uint32_t{KZMKERNEL_ERROR_INVALID_PARAMETER});
    EXPECT_FALSE(kzmkernel_look_count_get(nullptr, nullptr));
    EXPECT_EQ(kzmkernel_last_error(), uint32_t{KZMKERNEL_ERROR_INVALID_HANDLE});
}

}  // namespace
