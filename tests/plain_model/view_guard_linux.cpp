#include "plain_model/view_guard.h"

#include <sys/mman.h>

#include <cstdio>
#include <fstream>
#include <stdexcept>
#include <string>

namespace model {
namespace {

constexpr size_t page = 4096;

/// What this process has mapped at some addresses.
struct Mapped {
    uintptr_t begin, end;
    bool region, touchable;
};

std::vector<Mapped> all_mapped() {
    std::vector<Mapped> all;
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        unsigned long begin = 0, end = 0;
        char rights[5] = "";
        if (std::sscanf(line.c_str(), "%lx-%lx %4s", &begin, &end, rights) != 3) continue;
        all.push_back(
            {begin, end, line.find("oru_kzmshmnm_map") != std::string::npos, rights[0] == 'r' || rights[1] == 'w'});
    }
    return all;
}

Mapped refused{};  ///< the view whose neighbours were in use

bool map_untouchable(uintptr_t address) {
    void* const place = reinterpret_cast<void*>(address);
    return mmap(place, page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0) == place;
}

}  // namespace

std::unique_ptr<ViewGuard> ViewGuard::place([[maybe_unused]] int32_t servers) {
    const std::vector<Mapped> mapped = all_mapped();
    const Mapped* view = nullptr;
    for (const Mapped& one : mapped) {
        if (one.region) view = &one;
    }
    if (!view) throw std::runtime_error("the library's view was not found");
    std::unique_ptr<ViewGuard> guard(new ViewGuard);
    for (const uintptr_t neighbour : {view->begin - page, view->end}) {
        if (map_untouchable(neighbour)) {
            guard->pages_.push_back(neighbour);
            continue;
        }
        // What is there already does as well if nobody may touch it.
        for (const Mapped& one : mapped) {
            if (neighbour < one.begin || neighbour >= one.end || !one.touchable) continue;
            refused = *view;
            return nullptr;
        }
    }
    return guard;
}

void ViewGuard::close_gap() {
    void* const place = reinterpret_cast<void*>(refused.begin);
    const size_t size = refused.end - refused.begin;
    if (mmap(place, size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0) == MAP_FAILED) {
        throw std::runtime_error("the gap was not closed");
    }
}

ViewGuard::~ViewGuard() {
    for (const uintptr_t address : pages_) munmap(reinterpret_cast<void*>(address), page);
}

}  // namespace model
