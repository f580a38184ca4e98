// As alive.cpp, for programs without exceptions: built with -fno-exceptions.
#include <cstdio>

#include "shmnm.hpp"

namespace {

int report(const std::error_code& error) {
    std::fprintf(stderr, "%s\n", error.message().c_str());
    return 1;
}

}  // namespace

int main() {
    using namespace std::chrono_literals;
    std::error_code error;
    const shmnm::Attachment region = shmnm::attach(error);
    if (!region) return report(error);
    const shmnm::WriteLock lock(5s, error);
    if (!lock) return report(error);
    shmnm::Server("alpha").set(shmnm::nodestat, shmnm::State::alive, error);
    if (error) return report(error);
    const shmnm::State state = shmnm::get(shmnm::clstat, error);
    if (error) return report(error);
    std::printf("alpha is alive, the cluster's state is %u\n", static_cast<unsigned>(state.value));
    return 0;
}
