// Mappings that are opened for reading: their descriptors cannot write, and they keep an object alive like all others.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <kzmkernel.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <string>
#include <vector>

#include "support/child.h"
#include "support/forked_linux.h"
#include "support/kernel_linux.h"

namespace {

using namespace kernel_test;

constexpr int for_reading_only = O_RDONLY | O_CLOEXEC, for_all = O_RDWR | O_CLOEXEC;
constexpr uint32_t existed = KZMKERNEL_ERROR_ALREADY_EXISTS, not_found = KZMKERNEL_ERROR_FILE_NOT_FOUND,
                   denied = KZMKERNEL_ERROR_ACCESS_DENIED;

CHILD(create) {
    const Handle mapping(create_mapping(test::argument()));
    test::report(mapping.error);
    test::report(static_cast<uint64_t>(map(mapping.value)[0]));
    test::hang();
}

/// Another process that created the running test's mapping and wrote 'c' into it.
class Creator {
  public:
    Creator() { made_.await(); }
    void kill() { process_.kill(); }

  private:
    Sign made_;
    Forked process_{[this] {
        map(create_mapping(object_name()))[0] = 'c';
        made_.give();
        pause_forever();
    }};
};

/// The flags of this process's descriptors of the running test's file, as the system tells them.
std::vector<int> descriptors() {
    std::vector<int> all;
    for (const auto& entry : fs::directory_iterator("/proc/self/fdinfo")) {
        std::error_code error;
        const fs::path number = entry.path().filename();
        if (fs::read_symlink("/proc/self/fd" / number, error) != file_of_mapping(object_name())) continue;
        std::ifstream info(entry.path());
        for (std::string word; info >> word;) {
            if (word == "flags:" && info >> word) all.push_back(std::stoi(word, nullptr, 8) & (O_ACCMODE | O_CLOEXEC));
        }
    }
    std::sort(all.begin(), all.end());
    return all;
}

bool can_be_made_writable(char* view) {
    const bool done = mprotect(view, page, PROT_READ | PROT_WRITE) == 0;
    EXPECT_TRUE(done || errno == EACCES);
    return done;
}

void expect_no_writable_view(void* mapping) {
    EXPECT_EQ(kzmkernel_map_view(mapping, for_writing, 0, 0), nullptr);
    EXPECT_EQ(kzmkernel_last_error(), denied);
}

TEST(KernelReadOnly, HasNoDescriptorThatCanWriteAndNoViewThatCanBecomeWritable) {
    const Creator creator;
    Handle reading(open_to_read(object_name()));
    EXPECT_EQ(descriptors(), std::vector{for_reading_only});
    expect_no_writable_view(reading.value);
    char* const view = map_to_read(reading.value);
    EXPECT_EQ(view[0], 'c');
    EXPECT_FALSE(can_be_made_writable(view));
    reading.close();
    EXPECT_FALSE(can_be_made_writable(view));
    EXPECT_EQ(descriptors(), std::vector<int>());
    EXPECT_TRUE(kzmkernel_unmap_view(view));
}

TEST(KernelReadOnly, StaysSoIfTheSameProcessOpensTheMappingForWritingToo) {
    const Creator creator;
    Handle reading(open_to_read(object_name()));
    char* const view = map_to_read(reading.value);
    Handle writing(open_mapping(object_name()));
    EXPECT_EQ(descriptors(), (std::vector{for_reading_only, for_all}));
    map(writing.value)[0] = 'w';
    EXPECT_EQ(view[0], 'w');
    EXPECT_FALSE(can_be_made_writable(view));
    expect_no_writable_view(reading.value);
    const Handle second(open_to_read(object_name()));
    EXPECT_FALSE(can_be_made_writable(map_to_read(second.value)));
    // Each handle goes on without the other.
    reading.close();
    map(writing.value)[0] = 'x';
    writing.close();
    EXPECT_EQ(map_to_read(second.value)[0], 'x');
    expect_no_writable_view(second.value);
}

TEST(KernelReadOnly, CanBeOpenedByTheCreatorToo) {
    const Handle created(create_mapping(object_name()));
    const Handle reading(open_to_read(object_name()));
    map(created.value)[0] = 'w';
    char* const view = map_to_read(reading.value);
    EXPECT_EQ(view[0], 'w');
    EXPECT_FALSE(can_be_made_writable(view));
    expect_no_writable_view(reading.value);
}

TEST(KernelReadOnly, KeepsTheObjectAliveUntilItIsClosed) {
    Creator creator;
    Handle reading(open_to_read(object_name()));
    creator.kill();
    Child other = start(create, object_name());
    EXPECT_EQ(other.reported(), existed);
    EXPECT_EQ(other.reported(), uint64_t{'c'});
    other.kill();
    EXPECT_EQ(map_to_read(reading.value)[0], 'c');
    reading.close();
    EXPECT_EQ(Handle(open_to_read(object_name())).error, not_found);
    expect_new(create_page, object_name());
}

TEST(KernelReadOnly, RemovesTheFileWhenItIsClosedLast) {
    Creator creator;
    Handle reading(open_to_read(object_name()));
    creator.kill();
    EXPECT_TRUE(fs::exists(file_of_mapping(object_name())));
    reading.close();
    EXPECT_FALSE(fs::exists(file_of_mapping(object_name())));
    expect_new(create_page, object_name());
}

TEST(KernelReadOnly, LeavesTheFileToOtherHolders) {
    const Creator creator;
    { const Handle reading(open_to_read(object_name())); }
    EXPECT_TRUE(fs::exists(file_of_mapping(object_name())));
    EXPECT_EQ(Handle(create_mapping(object_name())).error, existed);
}

TEST(KernelReadOnly, FindsNothingOfADeadObject) {
    Creator creator;
    creator.kill();
    ASSERT_TRUE(fs::exists(file_of_mapping(object_name())));
    EXPECT_EQ(Handle(open_to_read(object_name())).error, not_found);
    expect_new(create_page, object_name());
}

TEST(KernelReadOnly, KeepsTheObjectAliveInAForkedChildWhichCannotWriteEither) {
    Creator creator;
    Handle reading(open_to_read(object_name()));
    Sign closed;
    Forked child([&, handle = reading.value] {
        closed.await();
        EXPECT_EQ(Handle(create_mapping(object_name())).error, existed);
        char* const view = map_to_read(handle);
        EXPECT_EQ(view[0], 'c');
        EXPECT_FALSE(can_be_made_writable(view));
        EXPECT_TRUE(kzmkernel_unmap_view(view));
        expect_no_writable_view(handle);
        EXPECT_TRUE(kzmkernel_close(handle));
    });
    creator.kill();
    reading.close();
    closed.give();
    EXPECT_EQ(child.wait(), 0);
    EXPECT_FALSE(fs::exists(file_of_mapping(object_name())));
}

}  // namespace
