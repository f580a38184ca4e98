#include <malloc.h>

#include "memory_in_use.h"

uint64_t test::memory_in_use() {
    _HEAPINFO block{};
    uint64_t bytes = 0;
    while (_heapwalk(&block) == _HEAPOK) {
        if (block._useflag == _USEDENTRY) bytes += block._size;
    }
    return bytes;
}
