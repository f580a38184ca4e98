// The stack protector of the Windows builds, whose value and end are the project's own.
#include <gtest/gtest.h>

#include <cstdint>
#include <set>

#include "support/child.h"

extern "C" uintptr_t __stack_chk_guard;

namespace {

using test::Child;
using test::start;

[[gnu::noinline]] void fill(volatile char* text, size_t length) {
    for (size_t i = 0; i < length; ++i) text[i] = 'x';
}
[[gnu::noinline]] void overwrite_own_stack() {
    char text[16];
    fill(text, 4 * sizeof text);
}

CHILD(overwriter) {
    overwrite_own_stack();
    test::report(1);
}

CHILD(teller) {
    test::report(__stack_chk_guard);
}

TEST(StackGuard, EndsAProgramBeforeAFunctionReturnsWhoseStackWasOverwritten) {
    Child child = start(overwriter);
    EXPECT_FALSE(child.next_report());
    EXPECT_EQ(static_cast<uint32_t>(child.wait()), 0xC0000409);
}

TEST(StackGuard, IsAnotherOneInEachProcessWhichNoStringHolds) {
    std::set<uint64_t> guards;
    for (int i = 0; i < 4; ++i) {
        Child child = start(teller);
        const uint64_t guard = child.reported();
        EXPECT_EQ(guard & 0xFF, 0u);
        EXPECT_TRUE(guards.insert(guard).second);
        EXPECT_EQ(child.wait(), 0);
    }
}

}  // namespace
