// What unloading the library leaves of it on the heap: nothing. This program is linked to none of the
// libraries.
#include <gtest/gtest.h>

#include <malloc.h>

#include "support/child.h"
#include "support/dynamic_library.h"

namespace {

size_t heap_in_use() {
    const struct mallinfo2 heap = mallinfo2();
    return heap.uordblks + heap.hblkhd;
}

void load_and_unload() {
    const test::DynamicLibrary library(test::own_folder() + SHMNM_LIBRARY);
    ASSERT_TRUE(library.loaded()) << library.error();
    ASSERT_TRUE(test::DynamicLibrary::in_process("kzmkernel"));
    EXPECT_EQ(library.function<uint32_t()>("shmnm_detach")(), 1u);
}

TEST(UnloadedLibrary, LeavesNothingOnTheHeap) {
    // The loader keeps lists of its own, and the heap what was given back last; both soon grow no more.
    for (int round = 0; round < 50; ++round) load_and_unload();
    const size_t before = heap_in_use();
    for (int round = 0; round < 50; ++round) load_and_unload();
    EXPECT_LT(heap_in_use(), before + 4096);
    for (const char* const name : {"kzmshmnm", "kzmlog", "kzmxml", "kzmutil", "kzmkernel"}) {
        EXPECT_FALSE(test::DynamicLibrary::in_process(name)) << name;
    }
}

}  // namespace
