// The names and arguments that kzmkernel takes and refuses, and the numbers that tell its objects apart.
#include <gtest/gtest.h>
#include <kzmkernel.h>
#include <unistd.h>

#include <array>
#include <string>

#include "support/forked_linux.h"
#include "support/kernel_linux.h"
#include "support/memory_disk_linux.h"
#include "support/temporary_folder.h"

namespace {

using namespace kernel_test;

TEST(KernelName, AcceptsUpTo200Bytes) {
    const std::string name = object_name(), longest = name + std::string(200 - name.size(), 'n');
    EXPECT_EQ(Handle(create_mutex(longest)).error, 0u);
    EXPECT_EQ(Handle(create_mapping(longest)).error, 0u);
}

TEST(KernelName, AcceptsOneByte) {
    in_fork([] {
        use_private_memory_disk();
        expect_new(create_mutex, "x");
        expect_new(create_page, "x");
    });
}

TEST(KernelName, RefusesAnInvalidName) {
    for (const std::string& name :
         {std::string(), std::string(201, 'n'), std::string("."), std::string(".new"), std::string("../x"),
          std::string("a/b"), std::string("a\nb"), std::string("a\x7F")}) {
        EXPECT_EQ(Handle(create_mutex(name)).error, uint32_t{KZMKERNEL_ERROR_INVALID_NAME}) << name;
        EXPECT_EQ(Handle(open_mutex(name)).error, uint32_t{KZMKERNEL_ERROR_INVALID_NAME}) << name;
        EXPECT_EQ(Handle(create_mapping(name)).error, uint32_t{KZMKERNEL_ERROR_INVALID_NAME}) << name;
        EXPECT_EQ(Handle(open_mapping(name)).error, uint32_t{KZMKERNEL_ERROR_INVALID_NAME}) << name;
    }
    EXPECT_EQ(Handle(kzmkernel_create_mutex(nullptr)).error, uint32_t{KZMKERNEL_ERROR_INVALID_PARAMETER});
}

TEST(KernelName, AcceptsAllOtherBytes) {
    const Handle handle(create_mutex(object_name() + " Global\\\xC3\xA4\xFF.new"));
    EXPECT_EQ(handle.error, 0u);
}

TEST(KernelMappingArguments, AreChecked) {
    const std::string name = object_name();
    EXPECT_EQ(Handle(kzmkernel_create_mapping(2, page, name.c_str())).error,
              uint32_t{KZMKERNEL_ERROR_INVALID_PARAMETER});
    kzmkernel_set_last_error(0);
    EXPECT_EQ(Handle(kzmkernel_open_mapping(0, name.c_str())).error, uint32_t{KZMKERNEL_ERROR_INVALID_PARAMETER});
    const Handle mapping(create_mapping(name, uint64_t{3} * 65536));
    const auto error_of = [&](uint32_t access, uint64_t offset, size_t length) {
        EXPECT_EQ(kzmkernel_map_view(mapping.value, access, offset, length), nullptr);
        return kzmkernel_last_error();
    };
    EXPECT_EQ(error_of(0, 0, 0), uint32_t{KZMKERNEL_ERROR_INVALID_PARAMETER});
    EXPECT_EQ(error_of(2, page, 0), uint32_t{KZMKERNEL_ERROR_MAPPED_ALIGNMENT});
    EXPECT_EQ(error_of(2, uint64_t{3} * 65536, 0), uint32_t{KZMKERNEL_ERROR_ACCESS_DENIED});
    EXPECT_EQ(error_of(2, 65536, 2 * 65536 + 1), uint32_t{KZMKERNEL_ERROR_ACCESS_DENIED});
    EXPECT_EQ(error_of(2, 0, SIZE_MAX), uint32_t{KZMKERNEL_ERROR_ACCESS_DENIED});
    char* const whole = map(mapping.value);
    auto* const part = static_cast<char*>(kzmkernel_map_view(mapping.value, 2, 65536, page + 1));
    EXPECT_EQ(kzmkernel_view_size(part), 2 * page);
    part[0] = 'p';
    EXPECT_EQ(whole[65536], 'p');
    const auto size_of = [&](uint64_t offset, size_t length) {
        void* const view = kzmkernel_map_view(mapping.value, 2, offset, length);
        const size_t size = kzmkernel_view_size(view);
        EXPECT_TRUE(kzmkernel_unmap_view(view));
        return size;
    };
    EXPECT_EQ(size_of(65536, size_t{2} * 65536), size_t{2} * 65536);
    EXPECT_EQ(size_of(uint64_t{2} * 65536, 0), 65536u);
    EXPECT_EQ(size_of(0, 1), page);
    EXPECT_EQ(kzmkernel_view_size(whole + page), 0u);
    kzmkernel_set_last_error(0);
    EXPECT_FALSE(kzmkernel_unmap_view(whole + page));
    EXPECT_EQ(kzmkernel_last_error(), uint32_t{KZMKERNEL_ERROR_INVALID_ADDRESS});
    EXPECT_TRUE(kzmkernel_unmap_view(part));
    EXPECT_FALSE(kzmkernel_unmap_view(part));
    EXPECT_EQ(kzmkernel_view_size(part), 0u);
    EXPECT_TRUE(kzmkernel_unmap_view(whole));
    EXPECT_EQ(contents_of("/proc/self/maps").find(file_of_mapping(name).filename()), std::string::npos);
}

TEST(KernelSuccess, LeavesTheLastErrorAsItWas) {
    const Handle first(create_mutex(object_name() + "1")), second(create_mutex(object_name() + "2"));
    const Handle mapping(create_mapping(object_name()));
    kzmkernel_set_last_error(77);
    for (void* const mutex : {first.value, second.value}) {
        EXPECT_EQ(kzmkernel_wait(mutex, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
        EXPECT_NE(kzmkernel_note(mutex), nullptr);
        EXPECT_TRUE(kzmkernel_look_count(mutex));
    }
    // The second one is the mutex that the thread used last.
    EXPECT_TRUE(kzmkernel_release(second.value));
    EXPECT_TRUE(kzmkernel_release(first.value));
    void* const view = map(mapping.value);
    EXPECT_EQ(kzmkernel_view_size(view), page);
    EXPECT_TRUE(kzmkernel_unmap_view(view));
    EXPECT_EQ(kzmkernel_last_error(), 77u);
    EXPECT_EQ(kzmkernel_view_size(view), 0u);
    EXPECT_EQ(kzmkernel_last_error(), uint32_t{KZMKERNEL_ERROR_INVALID_ADDRESS});
}

// As TRUE in Windows, with which a caller may compare it.
TEST(KernelSuccess, IsTheNumber1) {
    const Handle first(create_mutex(object_name() + "1")), second(create_mutex(object_name() + "2"));
    std::array<char, KZMKERNEL_NOTE_BYTES> note{};
    kzmkernel_mutex_info info{};
    uint64_t number = 0;
    for (void* const mutex : {first.value, second.value}) {
        ASSERT_EQ(kzmkernel_wait(mutex, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
        EXPECT_EQ(kzmkernel_look_count(mutex), 1);
        EXPECT_EQ(kzmkernel_look_count_get(mutex, &number), 1);
        EXPECT_EQ(kzmkernel_mutex_info_get(mutex, &info), 1);
        EXPECT_EQ(kzmkernel_note_read(mutex, note.data()), 1);
        EXPECT_EQ(kzmkernel_begin_read(mutex, &number), KZMKERNEL_READ_OWNED);
        EXPECT_EQ(kzmkernel_end_read(mutex, number), 1);
    }
    // The second one is the mutex that the thread used last.
    EXPECT_EQ(kzmkernel_release(second.value), 1);
    EXPECT_EQ(kzmkernel_release(first.value), 1);
    void* const mapping = create_mapping(object_name());
    EXPECT_EQ(kzmkernel_unmap_view(map(mapping)), 1);
    EXPECT_EQ(kzmkernel_close(mapping), 1);
}

TEST(KernelMutexOpen, FindsOnlyAMutexThatExists) {
    const std::string name = object_name();
    EXPECT_EQ(Handle(open_mutex(name)).error, uint32_t{KZMKERNEL_ERROR_FILE_NOT_FOUND});
    const Handle created(create_mutex(name));
    kzmkernel_set_last_error(77);
    const Handle opened(open_mutex(name));
    EXPECT_NE(opened.value, nullptr);
    EXPECT_EQ(opened.error, 77u);
    EXPECT_EQ(kzmkernel_wait(created.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
    EXPECT_TRUE(kzmkernel_release(opened.value));
}

TEST(KernelObjectNumber, IsTheSameForAllHandlesAndDifferentForTheNextObject) {
    Handle mapping(create_mapping(object_name()));
    const uint64_t number = kzmkernel_object_number(mapping.value);
    EXPECT_NE(number, 0u);
    Handle again(create_mapping(object_name()));
    EXPECT_EQ(kzmkernel_object_number(again.value), number);
    Forked other([&] {
        const Handle opened(kzmkernel_open_mapping(4, object_name().c_str()));
        _exit(kzmkernel_object_number(opened.value) == number ? 0 : 1);
    });
    EXPECT_EQ(other.wait(), 0);
    const Handle another(create_mapping(object_name() + "2"));
    EXPECT_NE(kzmkernel_object_number(another.value), number);
    mapping.close();
    again.close();
    const Handle successor(create_mapping(object_name()));
    EXPECT_EQ(successor.error, 0u);
    EXPECT_NE(kzmkernel_object_number(successor.value), number);
}

TEST(KernelObjectNumber, IsZeroWithoutAnOpenHandle) {
    EXPECT_EQ(kzmkernel_object_number(nullptr), 0u);
    EXPECT_EQ(kzmkernel_last_error(), uint32_t{KZMKERNEL_ERROR_INVALID_HANDLE});
    const Handle mutex(create_mutex(object_name()));
    EXPECT_NE(kzmkernel_object_number(mutex.value), 0u);
}

}  // namespace
