// Mappings and their views: bytes, sizes, rights.
#include <gmock/gmock.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

#include "kernel_contract.h"
#include "support/child.h"

namespace {

using namespace kernel_contract;
using test::Child;
using testing::AnyOf;
using testing::Eq;

bool is_zero(const unsigned char* bytes, size_t size) {
    return std::all_of(bytes, bytes + size, [](unsigned char byte) { return byte == 0; });
}

/// A view that is unmapped with its owner.
class View {
  public:
    explicit View(void* view) : view_(static_cast<unsigned char*>(view)) {}
    ~View() { unmap(); }
    View(const View&) = delete;
    View& operator=(const View&) = delete;
    unsigned char* get() const { return view_; }
    unsigned char& operator[](size_t at) const { return view_[at]; }
    void unmap() {
        if (view_) kernel::unmap_view(std::exchange(view_, nullptr));
    }

  private:
    unsigned char* view_;
};

CHILD(write_and_hang) {
    const Handle mapping(test::create_mapping(page, test::argument().c_str()));
    const View view(kernel::map_view(mapping.get()));
    std::memset(view.get(), 0x5A, page);
    test::report(kernel::last_error());
    test::hang();
}
CHILD(open_for_reading_and_hang) {
    const Handle mapping(test::open_mapping(for_reading, test::argument().c_str()));
    test::report(mapping.get() != nullptr);
    test::hang();
}
constexpr int write_refused = 3;
CHILD(write_to_a_view_for_reading) {
    const Handle mapping(test::open_mapping(for_reading, test::argument().c_str()));
    const View view(test::map_view(mapping.get(), for_reading));
    test::report(view[0]);
    std::signal(SIGSEGV, [](int) { std::_Exit(write_refused); });
    view[0] = 1;
    test::report(view[0]);
}

TEST(KernelMapping, CannotBeOpenedWhenMissing) {
    EXPECT_EQ(test::open_mapping(for_everything, object_name().c_str()), nullptr);
    EXPECT_EQ(kernel::last_error(), error_not_found);
    EXPECT_EQ(test::open_mapping(for_reading, object_name().c_str()), nullptr);
    EXPECT_EQ(kernel::last_error(), error_not_found);
}

TEST(KernelMapping, IsZeroFilledAndSharedByAllViews) {
    const Handle created(test::create_mapping(2 * page, object_name().c_str()));
    const Handle opened(test::open_mapping(for_everything, object_name().c_str()));
    const View first(kernel::map_view(created.get()));
    const View second(kernel::map_view(opened.get()));
    ASSERT_NE(first.get(), nullptr);
    ASSERT_NE(second.get(), nullptr);
    EXPECT_TRUE(is_zero(first.get(), 2 * page));
    first[2 * page - 1] = 7;
    EXPECT_EQ(second[2 * page - 1], 7);
}

TEST(KernelMapping, IsSharedBetweenProcesses) {
    const Handle mapping(test::create_mapping(page, object_name().c_str()));
    const View view(kernel::map_view(mapping.get()));
    ASSERT_EQ(start(write_and_hang, object_name()).reported(), 183u);
    EXPECT_EQ(view[0], 0x5A);
    EXPECT_EQ(view[page - 1], 0x5A);
}

TEST(KernelMapping, IsZeroFilledAgainAfterItsHoldersWereKilled) {
    Child writer = start(write_and_hang, object_name());
    ASSERT_EQ(writer.reported(), 0u);
    writer.kill();
    EXPECT_EQ(test::open_mapping(for_everything, object_name().c_str()), nullptr);
    EXPECT_EQ(kernel::last_error(), error_not_found);
    const Handle mapping(test::create_mapping(page, object_name().c_str()));
    ASSERT_EQ(kernel::last_error(), 0u);
    const View view(kernel::map_view(mapping.get()));
    EXPECT_TRUE(is_zero(view.get(), page));
}

TEST(KernelMapping, IsZeroFilledAgainAfterItsHolderClosedIt) {
    {
        const Handle mapping(test::create_mapping(page, object_name().c_str()));
        const View view(kernel::map_view(mapping.get()));
        view[9] = 9;
    }
    const Handle mapping(test::create_mapping(page, object_name().c_str()));
    const View view(kernel::map_view(mapping.get()));
    EXPECT_TRUE(is_zero(view.get(), page));
}

TEST(KernelMapping, KeepsTheBytesOfAKilledWriterWhileAnotherHoldsIt) {
    Child writer = start(write_and_hang, object_name());
    ASSERT_EQ(writer.reported(), 0u);
    const Handle mapping(test::create_mapping(page, object_name().c_str()));
    writer.kill();
    const View view(kernel::map_view(mapping.get()));
    EXPECT_EQ(view[page - 1], 0x5A);
}

TEST(KernelMapping, KeepsItsBytesWhileAProcessHoldsItForReading) {
    Child writer = start(write_and_hang, object_name());
    ASSERT_EQ(writer.reported(), 0u);
    Child reader = start(open_for_reading_and_hang, object_name());
    ASSERT_EQ(reader.reported(), 1u);
    writer.kill();
    {
        const Handle mapping(test::create_mapping(page, object_name().c_str()));
        EXPECT_EQ(kernel::last_error(), 183u);
        const View view(kernel::map_view(mapping.get()));
        EXPECT_EQ(view[page - 1], 0x5A);
    }
    reader.kill();
    const Handle mapping(test::create_mapping(page, object_name().c_str()));
    EXPECT_EQ(kernel::last_error(), 0u);
}

TEST(KernelMapping, KeepsItsSizeWhenItIsCreatedAgain) {
    const Handle small(test::create_mapping(page, object_name().c_str()));
    const Handle again(test::create_mapping(16 * page, object_name().c_str()));
    ASSERT_EQ(kernel::last_error(), 183u);
    const View view(kernel::map_view(again.get()));
    EXPECT_EQ(kernel::view_size(view.get()), page);
}

TEST(KernelMapping, HasTheSizeOfItsNextCreatorAfterItEnded) {
    { const Handle small(test::create_mapping(page, object_name().c_str())); }
    const Handle large(test::create_mapping(16 * page, object_name().c_str()));
    ASSERT_EQ(kernel::last_error(), 0u);
    const View view(kernel::map_view(large.get()));
    EXPECT_EQ(kernel::view_size(view.get()), 16 * page);
}

TEST(KernelMapping, RefusesSize0WhetherItExistsOrNot) {
    EXPECT_EQ(test::create_mapping(0, object_name().c_str()), nullptr);
    EXPECT_EQ(kernel::last_error(), error_invalid_parameter);
    const Handle mapping(test::create_mapping(page, object_name().c_str()));
    ASSERT_EQ(kernel::last_error(), 0u);
    EXPECT_EQ(test::create_mapping(0, object_name().c_str()), nullptr);
    EXPECT_EQ(kernel::last_error(), error_invalid_parameter);
}

class KernelMappingSize : public testing::TestWithParam<uint64_t> {};
INSTANTIATE_TEST_SUITE_P(Sizes, KernelMappingSize,
                         testing::Values(1, page - 1, page, page + 1, 65536, 100'000, 50'000'001));

TEST_P(KernelMappingSize, IsRoundedUpToWholeWritablePages) {
    std::string name = object_name();
    std::replace(name.begin(), name.end(), '/', '-');
    const Handle mapping(test::create_mapping(GetParam(), name.c_str()));
    const View view(kernel::map_view(mapping.get()));
    ASSERT_NE(view.get(), nullptr);
    const uint64_t size = (GetParam() + page - 1) / page * page;
    ASSERT_EQ(kernel::view_size(view.get()), size);
    EXPECT_TRUE(is_zero(view.get(), size));
    std::memset(view.get(), 1, size);
}

class KernelMappingOf4GiB : public testing::TestWithParam<uint64_t> {};
INSTANTIATE_TEST_SUITE_P(Sizes, KernelMappingOf4GiB, testing::Values(0xFFFFFFFF, 0x100000001));

// A machine need not have that much memory, but then it must say so at once, and leave the name free.
TEST_P(KernelMappingOf4GiB, IsCreatedWholeOrRefused) {
    std::string name = object_name();
    std::replace(name.begin(), name.end(), '/', '-');
    {
        const Handle mapping(test::create_mapping(GetParam(), name.c_str()));
        if (mapping.get()) {
            EXPECT_EQ(kernel::last_error(), 0u);
            const View view(kernel::map_view(mapping.get()));
            ASSERT_NE(view.get(), nullptr);
            const uint64_t size = (GetParam() + page - 1) / page * page;
            EXPECT_EQ(kernel::view_size(view.get()), size);
            view[size - 1] = 1;
            EXPECT_EQ(view[size - 1], 1);
        } else {
            EXPECT_THAT(kernel::last_error(),
                        AnyOf(Eq(error_no_memory), Eq(error_disk_full), Eq(error_commitment_limit)));
        }
    }
    const Handle small(test::create_mapping(page, name.c_str()));
    EXPECT_EQ(kernel::last_error(), 0u);
}

TEST(KernelView, StaysWhenTheHandleIsClosed) {
    Handle mapping(test::create_mapping(page, object_name().c_str()));
    const View view(kernel::map_view(mapping.get()));
    view[0] = 3;
    ASSERT_TRUE(mapping.close());
    EXPECT_EQ(view[0], 3);
    view[page - 1] = 4;
    EXPECT_EQ(view[page - 1], 4);
    EXPECT_EQ(kernel::view_size(view.get()), page);
}

TEST(KernelView, StaysWhenAnotherViewIsUnmapped) {
    const Handle mapping(test::create_mapping(page, object_name().c_str()));
    const View view(kernel::map_view(mapping.get()));
    View other(kernel::map_view(mapping.get()));
    other[1] = 8;
    other.unmap();
    EXPECT_EQ(view[1], 8);
}

void expect_only_views_for_reading(const Handle& reading) {
    ASSERT_NE(reading.get(), nullptr);
    for (const uint32_t access : {2u, for_everything}) {
        EXPECT_EQ(test::map_view(reading.get(), access), nullptr);
        EXPECT_EQ(kernel::last_error(), error_access_denied);
    }
    const View view(test::map_view(reading.get(), for_reading));
    EXPECT_NE(view.get(), nullptr);
}

TEST(KernelView, CannotBeWritableThroughAReadOnlyHandle) {
    const Handle mapping(test::create_mapping(page, object_name().c_str()));
    expect_only_views_for_reading(Handle(test::open_mapping(for_reading, object_name().c_str())));
}

TEST(KernelView, CanBeWritableThroughASecondHandleAndStillNotThroughTheReadOnlyOne) {
    Child holder = start(write_and_hang, object_name());
    ASSERT_EQ(holder.reported(), 0u);
    const Handle reading(test::open_mapping(for_reading, object_name().c_str()));
    const View shown(test::map_view(reading.get(), for_reading));
    Handle writing(test::open_mapping(for_everything, object_name().c_str()));
    const View view(kernel::map_view(writing.get()));
    ASSERT_NE(view.get(), nullptr);
    view[0] = 8;
    EXPECT_EQ(shown[0], 8);
    expect_only_views_for_reading(reading);
    EXPECT_TRUE(writing.close());
    expect_only_views_for_reading(reading);
}

TEST(KernelView, ShowsTheBytesOfOthersAndCannotBeWrittenWhenReadOnly) {
    const Handle mapping(test::create_mapping(page, object_name().c_str()));
    const View view(kernel::map_view(mapping.get()));
    view[0] = 42;
    Child writer = start(write_to_a_view_for_reading, object_name());
    EXPECT_EQ(writer.reported(), 42u);
    EXPECT_THROW(writer.reported(), std::runtime_error);
    EXPECT_EQ(writer.wait(), write_refused);
    EXPECT_EQ(view[0], 42);
}

}  // namespace
