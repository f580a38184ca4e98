// The kernel calls that the library stands on: one contract, held by kernel32 and by kzmkernel alike.
#include "kernel.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "kernel_objects.h"
#include "support/child.h"

namespace {

namespace kernel = shmnm::kernel;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using test::Child;
using testing::AnyOf;
using testing::Eq;

constexpr uint32_t owned = 0, abandoned = 0x80, timed_out = 258, failed = 0xFFFFFFFF, infinite = 0xFFFFFFFF;
constexpr uint32_t for_reading = 4, for_everything = 0xF001F;
constexpr uint32_t error_not_found = 2, error_access_denied = 5, error_invalid_handle = 6, error_no_memory = 8,
                   error_invalid_parameter = 87, error_disk_full = 112, error_not_owner = 288,
                   error_commitment_limit = 1455;
constexpr uint64_t page = 4096, no_last_error = 777;

/// A name of this run's own.
std::string object_name(const std::string& name) {
    return std::getenv("KZMUTIL_NAMESPACE") + ("kernel-" + name);
}

/// The name of an object of the running test. In a child it comes as the child's argument.
std::string object_name() {
    return object_name(testing::UnitTest::GetInstance()->current_test_info()->name());
}

/// A handle that is closed with its owner.
class Handle {
  public:
    explicit Handle(void* handle) : handle_(handle) {}
    ~Handle() {
        if (handle_) kernel::close(handle_);
    }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    void* get() const { return handle_; }
    bool close() { return kernel::close(std::exchange(handle_, nullptr)); }

  private:
    void* handle_;
};

/// Runs a function in a thread of its own, which ends with it.
template <typename Result>
Result in_another_thread(Result (*function)(void*), void* argument) {
    Result result{};
    std::thread([&] { result = function(argument); }).join();
    return result;
}

uint32_t try_wait(void* mutex) {
    return kernel::wait(mutex, 0);
}

uint32_t try_and_give_back(void* mutex) {
    const uint32_t result = kernel::wait(mutex, 0);
    if (result == owned || result == abandoned) kernel::release(mutex);
    return result;
}

bool is_owned_by_another(void* mutex) {
    return in_another_thread(try_and_give_back, mutex) == timed_out;
}

struct Attempt {
    bool done;
    uint32_t error;
};
Attempt try_release(void* mutex) {
    const bool done = kernel::release(mutex);
    return {done, kernel::last_error()};
}

bool is_zero(const unsigned char* bytes, size_t size) {
    return std::all_of(bytes, bytes + size, [](unsigned char byte) { return byte == 0; });
}

// What both kinds of objects have in common.

struct Kind {
    const char* name;
    void* (*create)(const char* name);
};
void* create_page(const char* name) {
    return test::create_mapping(page, name);
}
constexpr Kind kinds[] = {{"Mutex", test::create_mutex}, {"Mapping", create_page}};

class KernelObject : public testing::TestWithParam<Kind> {
  protected:
    static std::string name() {
        std::string result = object_name();
        std::replace(result.begin(), result.end(), '/', '-');
        return result;
    }
    static std::string argument() { return GetParam().name + (" " + name()); }
    static void* create() { return GetParam().create(name().c_str()); }
};
INSTANTIATE_TEST_SUITE_P(Kinds, KernelObject, testing::ValuesIn(kinds),
                         [](const auto& instance) { return std::string(instance.param.name); });

/// In a child: creates the object that the argument names.
void* create_from_argument() {
    const std::string& argument = test::argument();
    const size_t space = argument.find(' ');
    for (const Kind& kind : kinds) {
        if (argument.substr(0, space) == kind.name) return kind.create(argument.substr(space + 1).c_str());
    }
    std::abort();
}

CHILD(create_and_hang) {
    test::set_last_error(no_last_error);
    create_from_argument();
    test::report(kernel::last_error());
    test::hang();
}
CHILD(create_and_exit) {
    create_from_argument();
    test::report(kernel::last_error());
}
CHILD(create_when_told) {
    for (;;) {
        test::told();
        const Handle handle(create_from_argument());
        test::report(handle.get() ? kernel::last_error() : no_last_error);
        test::told();
    }
}

TEST_P(KernelObject, SetsTheLastErrorTo0WhenNewEvenIfItWas183) {
    test::set_last_error(kernel::error_already_exists);
    const Handle handle(create());
    ASSERT_NE(handle.get(), nullptr);
    EXPECT_EQ(kernel::last_error(), 0u);
}

TEST_P(KernelObject, IsOpenedByASecondCreateWith183) {
    const Handle first(create());
    const Handle second(create());
    ASSERT_NE(second.get(), nullptr);
    EXPECT_EQ(kernel::last_error(), 183u);
    EXPECT_NE(first.get(), second.get());
}

TEST_P(KernelObject, IsOpenedByAnotherProcessWith183) {
    const Handle handle(create());
    EXPECT_EQ(start(create_and_hang, argument()).reported(), 183u);
}

TEST_P(KernelObject, EndsWithItsLastHandle) {
    Handle first(create());
    Handle second(create());
    EXPECT_TRUE(first.close());
    const Handle third(create());
    EXPECT_EQ(kernel::last_error(), 183u);
    EXPECT_TRUE(second.close());
    const Handle fourth(create());
    EXPECT_EQ(kernel::last_error(), 183u);
}

TEST_P(KernelObject, IsNewAgainAfterItsLastHandle) {
    for (int round = 0; round < 3; ++round) {
        Handle handle(create());
        EXPECT_EQ(kernel::last_error(), 0u);
        EXPECT_TRUE(handle.close());
    }
}

TEST_P(KernelObject, LivesOnInAnotherProcessWhenItsCreatorCloses) {
    Handle created(create());
    Child holder = start(create_and_hang, argument());
    ASSERT_EQ(holder.reported(), 183u);
    EXPECT_TRUE(created.close());
    const Handle again(create());
    EXPECT_EQ(kernel::last_error(), 183u);
}

TEST_P(KernelObject, LivesOnInAnotherProcessWhenItsCreatorIsKilled) {
    Child creator = start(create_and_hang, argument());
    ASSERT_EQ(creator.reported(), 0u);
    const Handle handle(create());
    ASSERT_EQ(kernel::last_error(), 183u);
    creator.kill();
    const Handle again(create());
    EXPECT_EQ(kernel::last_error(), 183u);
}

TEST_P(KernelObject, EndsWhenItsHolderExitsWithoutClosingIt) {
    Child holder = start(create_and_exit, argument());
    ASSERT_EQ(holder.reported(), 0u);
    EXPECT_EQ(holder.wait(), 0);
    const Handle handle(create());
    EXPECT_EQ(kernel::last_error(), 0u);
}

TEST_P(KernelObject, EndsWhenEveryHolderIsKilled) {
    for (int round = 0; round < 3; ++round) {
        Child first = start(create_and_hang, argument());
        ASSERT_EQ(first.reported(), 0u) << round;
        Child second = start(create_and_hang, argument());
        ASSERT_EQ(second.reported(), 183u) << round;
        first.kill();
        second.kill();
    }
    const Handle handle(create());
    EXPECT_EQ(kernel::last_error(), 0u);
}

TEST_P(KernelObject, IsNewToExactlyOneOfManySimultaneousCreators) {
    constexpr int creators = 8, rounds = 12;
    std::vector<Child> children;
    children.reserve(creators);
    for (int i = 0; i < creators; ++i) children.push_back(start(create_when_told, argument()));
    for (int round = 0; round < rounds; ++round) {
        for (Child& child : children) child.tell(1);
        int fresh = 0, existing = 0;
        for (Child& child : children) {
            const uint64_t error = child.reported();
            fresh += error == 0;
            existing += error == 183;
        }
        // All hold it now; then all close it at once, so that the next round begins while the last ones still close.
        EXPECT_EQ(fresh, 1) << round;
        EXPECT_EQ(existing, creators - 1) << round;
        for (Child& child : children) child.tell(1);
        while (Handle(create()).get() && kernel::last_error() == 183) {
        }
    }
}

TEST_P(KernelObject, FailsWith6ThroughAClosedHandle) {
    Handle handle(create());
    void* const stale = handle.get();
    ASSERT_TRUE(handle.close());
    EXPECT_FALSE(kernel::close(stale));
    EXPECT_EQ(kernel::last_error(), error_invalid_handle);
    test::set_last_error(0);
    EXPECT_EQ(kernel::wait(stale, 0), failed);
    EXPECT_EQ(kernel::last_error(), error_invalid_handle);
    test::set_last_error(0);
    EXPECT_FALSE(kernel::release(stale));
    EXPECT_EQ(kernel::last_error(), error_invalid_handle);
    test::set_last_error(0);
    EXPECT_EQ(kernel::map_view(stale), nullptr);
    EXPECT_EQ(kernel::last_error(), error_invalid_handle);
}

class InventedHandle : public testing::TestWithParam<uintptr_t> {};
INSTANTIATE_TEST_SUITE_P(Values, InventedHandle,
                         testing::Values(uintptr_t{0}, uintptr_t{3}, uintptr_t{0x3FFFC}, uintptr_t{0x7FFFFFF0},
                                         uintptr_t{0x12345678}, uintptr_t{0x5A5A5A5A5A5C}));

TEST_P(InventedHandle, FailsWith6) {
    void* const handle = reinterpret_cast<void*>(GetParam());
    test::set_last_error(0);
    EXPECT_FALSE(kernel::close(handle));
    EXPECT_EQ(kernel::last_error(), error_invalid_handle);
    test::set_last_error(0);
    EXPECT_EQ(kernel::wait(handle, 0), failed);
    EXPECT_EQ(kernel::last_error(), error_invalid_handle);
    test::set_last_error(0);
    EXPECT_FALSE(kernel::release(handle));
    EXPECT_EQ(kernel::last_error(), error_invalid_handle);
    test::set_last_error(0);
    EXPECT_EQ(kernel::map_view(handle), nullptr);
    EXPECT_EQ(kernel::last_error(), error_invalid_handle);
}

TEST(KernelNames, AreSharedByMutexesAndMappings) {
    const Handle mapping(test::create_mapping(page, object_name("mapping").c_str()));
    EXPECT_EQ(test::create_mutex(object_name("mapping").c_str()), nullptr);
    EXPECT_EQ(kernel::last_error(), error_invalid_handle);
    const Handle mutex(test::create_mutex(object_name("mutex").c_str()));
    EXPECT_EQ(test::create_mapping(page, object_name("mutex").c_str()), nullptr);
    EXPECT_EQ(kernel::last_error(), error_invalid_handle);
    EXPECT_EQ(test::open_mapping(for_reading, object_name("mutex").c_str()), nullptr);
    EXPECT_EQ(kernel::last_error(), error_invalid_handle);
}

TEST(KernelNames, CanNameTheOtherKindAfterTheObjectEnded) {
    { const Handle mapping(test::create_mapping(page, object_name().c_str())); }
    const Handle mutex(test::create_mutex(object_name().c_str()));
    EXPECT_NE(mutex.get(), nullptr);
    EXPECT_EQ(kernel::last_error(), 0u);
}

TEST(KernelHandle, FailsForTheWrongKindOfObject) {
    const Handle mapping(test::create_mapping(page, object_name("mapping").c_str()));
    const Handle mutex(test::create_mutex(object_name("mutex").c_str()));
    test::set_last_error(0);
    EXPECT_EQ(kernel::wait(mapping.get(), 0), failed);
    // A mapping's handle comes without the right to wait.
    EXPECT_EQ(kernel::last_error(), error_access_denied);
    test::set_last_error(0);
    EXPECT_FALSE(kernel::release(mapping.get()));
    EXPECT_EQ(kernel::last_error(), error_invalid_handle);
    test::set_last_error(0);
    EXPECT_EQ(kernel::map_view(mutex.get()), nullptr);
    EXPECT_EQ(kernel::last_error(), error_invalid_handle);
}

// Mappings.

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

TEST(KernelView, CannotBeWritableThroughAReadOnlyHandle) {
    const Handle mapping(test::create_mapping(page, object_name().c_str()));
    const Handle reading(test::open_mapping(for_reading, object_name().c_str()));
    ASSERT_NE(reading.get(), nullptr);
    EXPECT_EQ(kernel::map_view(reading.get()), nullptr);
    EXPECT_EQ(kernel::last_error(), error_access_denied);
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

// Mutexes.

class KernelMutex : public testing::Test {
  protected:
    const std::string name = object_name();
    const Handle mutex{test::create_mutex(name.c_str())};
};

CHILD(lock_and_hang) {
    void* const mutex = test::create_mutex(test::argument().c_str());
    test::report(kernel::wait(mutex, infinite));
    test::hang();
}
CHILD(lock_and_exit) {
    void* const mutex = test::create_mutex(test::argument().c_str());
    test::report(kernel::wait(mutex, infinite));
}
CHILD(lock_then_close_and_hang) {
    void* const mutex = test::create_mutex(test::argument().c_str());
    test::report(kernel::wait(mutex, infinite));
    test::report(kernel::close(mutex));
    test::hang();
}
CHILD(wait_and_release) {
    const Handle mutex(test::create_mutex(test::argument().c_str()));
    test::report(1);
    test::report(kernel::wait(mutex.get(), infinite));
    test::report(kernel::release(mutex.get()));
    test::hang();
}
CHILD(release_without_owning) {
    const Handle mutex(test::create_mutex(test::argument().c_str()));
    const Attempt attempt = try_release(mutex.get());
    test::report(attempt.done);
    test::report(attempt.error);
}

TEST_F(KernelMutex, IsNotOwnedByItsCreator) {
    EXPECT_EQ(in_another_thread(try_and_give_back, mutex.get()), owned);
}

TEST_F(KernelMutex, IsOwnedByOneThreadOnly) {
    ASSERT_EQ(kernel::wait(mutex.get(), infinite), owned);
    EXPECT_TRUE(is_owned_by_another(mutex.get()));
    EXPECT_TRUE(kernel::release(mutex.get()));
    EXPECT_EQ(in_another_thread(try_and_give_back, mutex.get()), owned);
}

TEST_F(KernelMutex, IsOwnedByOneProcessOnly) {
    Child owner = start(lock_and_hang, name);
    ASSERT_EQ(owner.reported(), owned);
    EXPECT_EQ(kernel::wait(mutex.get(), 0), timed_out);
    EXPECT_EQ(kernel::wait(mutex.get(), 20), timed_out);
}

TEST_F(KernelMutex, IsTheSameThroughAllItsHandles) {
    const Handle other(test::create_mutex(name.c_str()));
    ASSERT_EQ(kernel::wait(mutex.get(), 0), owned);
    EXPECT_EQ(kernel::wait(other.get(), 0), owned);
    EXPECT_TRUE(kernel::release(mutex.get()));
    EXPECT_TRUE(is_owned_by_another(other.get()));
    EXPECT_TRUE(kernel::release(other.get()));
    EXPECT_FALSE(kernel::release(other.get()));
    EXPECT_EQ(kernel::last_error(), error_not_owner);
}

TEST_F(KernelMutex, NeedsAsManyReleasesAsItWasTaken) {
    constexpr int depth = 1000;
    for (int i = 0; i < depth; ++i) ASSERT_EQ(kernel::wait(mutex.get(), i % 2 == 0 ? 0 : infinite), owned);
    for (int i = 0; i < depth; ++i) {
        if (i % 250 == 0 || i == depth - 1) {
            EXPECT_TRUE(is_owned_by_another(mutex.get())) << i;
        }
        ASSERT_TRUE(kernel::release(mutex.get()));
    }
    EXPECT_EQ(in_another_thread(try_and_give_back, mutex.get()), owned);
    EXPECT_FALSE(kernel::release(mutex.get()));
    EXPECT_EQ(kernel::last_error(), error_not_owner);
}

TEST_F(KernelMutex, CannotBeReleasedByAThreadThatDoesNotOwnIt) {
    const Attempt free = try_release(mutex.get());
    EXPECT_FALSE(free.done);
    EXPECT_EQ(free.error, error_not_owner);
    ASSERT_EQ(kernel::wait(mutex.get(), 0), owned);
    const Attempt other = in_another_thread(try_release, mutex.get());
    EXPECT_FALSE(other.done);
    EXPECT_EQ(other.error, error_not_owner);
    EXPECT_TRUE(is_owned_by_another(mutex.get()));
    EXPECT_TRUE(kernel::release(mutex.get()));
}

TEST_F(KernelMutex, CannotBeReleasedByAProcessThatDoesNotOwnIt) {
    ASSERT_EQ(kernel::wait(mutex.get(), 0), owned);
    Child other = start(release_without_owning, name);
    EXPECT_EQ(other.reported(), 0u);
    EXPECT_EQ(other.reported(), error_not_owner);
    EXPECT_TRUE(is_owned_by_another(mutex.get()));
    EXPECT_TRUE(kernel::release(mutex.get()));
}

TEST_F(KernelMutex, EndsAWaitOfZeroTimeAtOnceAndKeepsTheLastError) {
    Child owner = start(lock_and_hang, name);
    ASSERT_EQ(owner.reported(), owned);
    test::set_last_error(no_last_error);
    const auto begin = steady_clock::now();
    for (int i = 0; i < 100; ++i) EXPECT_EQ(kernel::wait(mutex.get(), 0), timed_out);
    EXPECT_LT(steady_clock::now() - begin, milliseconds(5000));
    EXPECT_EQ(kernel::last_error(), no_last_error);
}

TEST_F(KernelMutex, EndsAWaitAfterItsWholeTimeAndKeepsTheLastError) {
    Child owner = start(lock_and_hang, name);
    ASSERT_EQ(owner.reported(), owned);
    test::set_last_error(no_last_error);
    for (const uint32_t timeout_ms : {1u, 40u, 1100u}) {
        const auto begin = steady_clock::now();
        EXPECT_EQ(kernel::wait(mutex.get(), timeout_ms), timed_out);
        // Windows counts in ticks, of which the first may be a part.
        EXPECT_GE(steady_clock::now() - begin, milliseconds(timeout_ms) - milliseconds(16));
    }
    EXPECT_EQ(kernel::last_error(), no_last_error);
}

TEST_F(KernelMutex, DoesNotEndAWaitOfSeveralWeeks) {
    ASSERT_EQ(kernel::wait(mutex.get(), 0), owned);
    std::atomic<uint32_t> result{failed};
    std::thread waiter([&] {
        result = kernel::wait(mutex.get(), 0xFFFFFFFE);
        kernel::release(mutex.get());
    });
    Child other = start(wait_and_release, name);
    ASSERT_EQ(other.reported(), 1u);
    EXPECT_TRUE(kernel::release(mutex.get()));
    waiter.join();
    EXPECT_EQ(result, owned);
    EXPECT_EQ(other.reported(), owned);
}

TEST_F(KernelMutex, IsHandedToAWaitingThread) {
    ASSERT_EQ(kernel::wait(mutex.get(), 0), owned);
    std::atomic<bool> waits{false};
    uint32_t result = failed;
    std::thread waiter([&] {
        waits = true;
        result = kernel::wait(mutex.get(), infinite);
        kernel::release(mutex.get());
    });
    while (!waits) std::this_thread::yield();
    EXPECT_TRUE(kernel::release(mutex.get()));
    waiter.join();
    EXPECT_EQ(result, owned);
}

TEST_F(KernelMutex, IsHandedToAWaitingProcess) {
    ASSERT_EQ(kernel::wait(mutex.get(), 0), owned);
    Child waiter = start(wait_and_release, name);
    ASSERT_EQ(waiter.reported(), 1u);
    EXPECT_TRUE(kernel::release(mutex.get()));
    EXPECT_EQ(waiter.reported(), owned);
    EXPECT_EQ(waiter.reported(), 1u);
}

TEST_F(KernelMutex, IsAbandonedOnceWhenItsOwnerThreadEnds) {
    ASSERT_EQ(in_another_thread(try_wait, mutex.get()), owned);
    EXPECT_EQ(kernel::wait(mutex.get(), 0), abandoned);
    EXPECT_TRUE(kernel::release(mutex.get()));
    EXPECT_EQ(kernel::wait(mutex.get(), 0), owned);
    EXPECT_TRUE(kernel::release(mutex.get()));
}

TEST_F(KernelMutex, IsAbandonedCompletelyByAThreadThatTookItTwice) {
    std::thread([&] {
        EXPECT_EQ(kernel::wait(mutex.get(), 0), owned);
        EXPECT_EQ(kernel::wait(mutex.get(), 0), owned);
    }).join();
    EXPECT_EQ(kernel::wait(mutex.get(), 0), abandoned);
    EXPECT_TRUE(kernel::release(mutex.get()));
    EXPECT_FALSE(kernel::release(mutex.get()));
    EXPECT_EQ(kernel::last_error(), error_not_owner);
    EXPECT_EQ(in_another_thread(try_and_give_back, mutex.get()), owned);
}

TEST_F(KernelMutex, IsRecursiveAgainAfterATakeOver) {
    ASSERT_EQ(in_another_thread(try_wait, mutex.get()), owned);
    EXPECT_EQ(kernel::wait(mutex.get(), 0), abandoned);
    EXPECT_EQ(kernel::wait(mutex.get(), 0), owned);
    EXPECT_TRUE(kernel::release(mutex.get()));
    EXPECT_TRUE(is_owned_by_another(mutex.get()));
    EXPECT_TRUE(kernel::release(mutex.get()));
}

TEST_F(KernelMutex, IsAbandonedOnceWhenItsOwnerProcessIsKilled) {
    Child owner = start(lock_and_hang, name);
    ASSERT_EQ(owner.reported(), owned);
    owner.kill();
    EXPECT_EQ(kernel::wait(mutex.get(), 10'000), abandoned);
    EXPECT_TRUE(kernel::release(mutex.get()));
    EXPECT_EQ(kernel::wait(mutex.get(), 0), owned);
    EXPECT_TRUE(kernel::release(mutex.get()));
}

TEST_F(KernelMutex, IsAbandonedWhenItsOwnerProcessExits) {
    Child owner = start(lock_and_exit, name);
    ASSERT_EQ(owner.reported(), owned);
    EXPECT_EQ(owner.wait(), 0);
    EXPECT_EQ(kernel::wait(mutex.get(), 10'000), abandoned);
    EXPECT_TRUE(kernel::release(mutex.get()));
}

TEST_F(KernelMutex, IsAbandonedAgainWithEachOwnerThatEnds) {
    for (int round = 0; round < 3; ++round) {
        Child owner = start(lock_and_hang, name);
        EXPECT_EQ(owner.reported(), round == 0 ? owned : abandoned);
        owner.kill();
    }
    EXPECT_EQ(kernel::wait(mutex.get(), 10'000), abandoned);
    EXPECT_TRUE(kernel::release(mutex.get()));
}

TEST_F(KernelMutex, IsReportedAsAbandonedToExactlyOneOfItsWaiters) {
    Child owner = start(lock_and_hang, name);
    ASSERT_EQ(owner.reported(), owned);
    std::vector<Child> waiters;
    for (int i = 0; i < 4; ++i) {
        waiters.push_back(start(wait_and_release, name));
        ASSERT_EQ(waiters.back().reported(), 1u);
    }
    std::atomic<int> reports{0};
    std::vector<std::thread> threads;
    threads.reserve(4);
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            const uint32_t result = kernel::wait(mutex.get(), infinite);
            EXPECT_TRUE(result == owned || result == abandoned) << result;
            reports += result == abandoned;
            EXPECT_TRUE(kernel::release(mutex.get()));
        });
    }
    owner.kill();
    for (Child& waiter : waiters) {
        const uint64_t result = waiter.reported();
        EXPECT_TRUE(result == owned || result == abandoned) << result;
        reports += result == abandoned;
        EXPECT_EQ(waiter.reported(), 1u);
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(reports, 1);
}

TEST_F(KernelMutex, StaysOwnedAfterItsOwnerClosesItUntilTheOwnerEnds) {
    Child owner = start(lock_then_close_and_hang, name);
    ASSERT_EQ(owner.reported(), owned);
    ASSERT_EQ(owner.reported(), 1u);
    EXPECT_EQ(kernel::wait(mutex.get(), 0), timed_out);
    owner.kill();
    EXPECT_EQ(kernel::wait(mutex.get(), 10'000), abandoned);
    EXPECT_TRUE(kernel::release(mutex.get()));
}

TEST_F(KernelMutex, IsStillOwnedAfterItsOwnerClosesAndReopensIt) {
    Child other = start(wait_and_release, name);
    ASSERT_EQ(other.reported(), 1u);
    ASSERT_EQ(other.reported(), owned);
    ASSERT_EQ(other.reported(), 1u);
    Handle first(test::create_mutex((name + "2").c_str()));
    Child holder = start(create_and_hang, "Mutex " + name + "2");
    ASSERT_EQ(holder.reported(), 183u);
    ASSERT_EQ(kernel::wait(first.get(), 0), owned);
    ASSERT_TRUE(first.close());
    // Another mutex is taken and given back while the thread owns the closed one.
    EXPECT_EQ(kernel::wait(mutex.get(), 0), owned);
    EXPECT_TRUE(kernel::release(mutex.get()));
    const Handle again(test::create_mutex((name + "2").c_str()));
    EXPECT_EQ(kernel::last_error(), 183u);
    EXPECT_TRUE(is_owned_by_another(again.get()));
    EXPECT_EQ(kernel::wait(again.get(), 0), owned);
    EXPECT_TRUE(kernel::release(again.get()));
    EXPECT_TRUE(kernel::release(again.get()));
    EXPECT_FALSE(kernel::release(again.get()));
}

TEST_F(KernelMutex, IsNewAfterItsLastHandleIsClosedWhileOwned) {
    const std::string other = name + "2";
    for (int round = 0; round < 3; ++round) {
        Handle handle(test::create_mutex(other.c_str()));
        EXPECT_EQ(kernel::last_error(), 0u);
        EXPECT_EQ(kernel::wait(handle.get(), 0), owned);
        EXPECT_TRUE(handle.close());
    }
    const Handle handle(test::create_mutex(other.c_str()));
    EXPECT_EQ(in_another_thread(try_and_give_back, handle.get()), owned);
}

TEST_F(KernelMutex, EndsAWaitInOwnershipOrError6WhenItIsClosed) {
    for (int round = 0; round < 200; ++round) {
        void* const handle = test::create_mutex(name.c_str());
        ASSERT_EQ(kernel::wait(mutex.get(), 0), owned);
        std::atomic<int> step{0};
        uint32_t result = failed, error = 0;
        std::thread waiter([&] {
            step = 1;
            result = kernel::wait(handle, infinite);
            error = kernel::last_error();
            if (result == owned) kernel::release(mutex.get());
        });
        while (step == 0) std::this_thread::yield();
        EXPECT_TRUE(kernel::close(handle));
        EXPECT_TRUE(kernel::release(mutex.get()));
        waiter.join();
        EXPECT_TRUE(result == owned || (result == failed && error == error_invalid_handle)) << result << ' ' << error;
    }
}

TEST(KernelSleep, LastsAtLeastTheGivenTime) {
    for (const uint32_t time_ms : {0u, 1u, 30u, 1020u}) {
        const auto begin = steady_clock::now();
        kernel::sleep(time_ms);
        EXPECT_GE(steady_clock::now() - begin, milliseconds(time_ms) - milliseconds(16));
    }
}

}  // namespace
