#include "plain_model/view_guard.h"

#include <windows.h>

#include <stdexcept>

namespace model {
namespace {

/// A new region holds nothing before its maximum of servers.
bool is_new_region(const void* address, int32_t servers) {
    const auto* const header = static_cast<const int32_t*>(address);
    return header[0] == 0 && header[1] == 0 && header[2] == servers;
}

uintptr_t refused = 0;  ///< where the view lay whose neighbours were in use

bool touchable(uintptr_t address) {
    MEMORY_BASIC_INFORMATION pages{};
    VirtualQuery(reinterpret_cast<const void*>(address), &pages, sizeof pages);
    return pages.State == MEM_COMMIT && pages.Protect != PAGE_NOACCESS;
}

}  // namespace

// Addresses are given out in steps of 64 KiB, and a view ends within such a step: what lies behind it there belongs to
// nobody. Before it there may be anything; a page is reserved there when it is free.
std::unique_ptr<ViewGuard> ViewGuard::place(int32_t servers) {
    MEMORY_BASIC_INFORMATION pages{};
    uintptr_t begin = 0, end = 0;
    for (const char* at = nullptr; VirtualQuery(at, &pages, sizeof pages);
         at = static_cast<const char*>(pages.BaseAddress) + pages.RegionSize) {
        if (pages.Type != MEM_MAPPED || pages.State != MEM_COMMIT || pages.Protect != PAGE_READWRITE) continue;
        if (pages.AllocationBase != pages.BaseAddress || !is_new_region(pages.BaseAddress, servers)) continue;
        begin = reinterpret_cast<uintptr_t>(pages.BaseAddress);
        end = begin + pages.RegionSize;
    }
    if (!begin) throw std::runtime_error("the library's view was not found");
    if (touchable(begin - 1) || touchable(end)) {
        refused = begin;
        return nullptr;
    }
    return std::unique_ptr<ViewGuard>(new ViewGuard);
}

void ViewGuard::close_gap() {
    VirtualAlloc(reinterpret_cast<void*>(refused), 1, MEM_RESERVE, PAGE_NOACCESS);
}

ViewGuard::~ViewGuard() = default;

}  // namespace model
