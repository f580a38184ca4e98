// Prints each hb resource with its state on each server.
//
//     hb_table
#include <cstdio>
#include <string>
#include <vector>

#include "shmnm.hpp"

using namespace std::chrono_literals;

namespace {

void print_table(const shmnm::Lock& lock) {
    // One vector for all rows: a row is copied into it, and nothing more is allocated.
    std::vector<shmnm::State> states(shmnm::Server::names(lock).size());
    for (const std::string& name : shmnm::HbResource::names(lock)) {
        const shmnm::HbResource resource = shmnm::HbResource::named(name);
        const std::size_t servers = resource.copy_row(shmnm::hbrscsvstat, states);
        std::printf("%s", name.c_str());
        for (std::size_t i = 0; i < servers; ++i) std::printf(" %u", static_cast<unsigned>(states[i].value));
        std::printf("\n");
    }
}

}  // namespace

int main() {
    try {
        const shmnm::Attachment region = shmnm::attach();
        shmnm::ReadLock lock(std::defer_lock);
        if (!lock.try_lock_for(200ms)) {
            std::fputs("the cluster is busy; try again\n", stderr);
            return 1;
        }
        print_table(lock);
        return 0;
    } catch (const shmnm::Error& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
}
