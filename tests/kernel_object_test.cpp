// What mutexes and mappings have in common: their names, their lives and their handles.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "kernel_contract.h"
#include "support/child.h"

namespace {

using namespace kernel_contract;
using test::Child;

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

}  // namespace
