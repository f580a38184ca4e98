#include <malloc.h>

#include "memory_in_use.h"

uint64_t test::memory_in_use() {
    const auto heap = mallinfo2();
    return heap.uordblks + heap.hblkhd;
}
