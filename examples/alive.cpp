#include <cstdio>

#include "shmnm.hpp"

int main() {
    using namespace std::chrono_literals;
    try {
        const shmnm::Attachment region = shmnm::attach();
        const shmnm::WriteLock lock(5s);
        shmnm::Server("alpha").set(shmnm::nodestat, shmnm::State::alive);
        const shmnm::State state = shmnm::get(shmnm::clstat);
        std::printf("alpha is alive, the cluster's state is %u\n", static_cast<unsigned>(state.value));
        return 0;
    } catch (const shmnm::Error& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
}
