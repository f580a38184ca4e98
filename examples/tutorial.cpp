// Attaches to the cluster's picture, marks this server as alive, and lists all servers with their states.
//
//     tutorial_cpp SERVER
#include <cstdio>
#include <string>

#include "shmnm.hpp"

using namespace std::chrono_literals;

namespace {

// Prints each server with its state. The lock is the proof that the list cannot change while it is read.
void print_servers(const shmnm::WriteLock& lock) {
    for (const std::string& name : shmnm::Server::names(lock)) {
        const shmnm::State state = shmnm::Server(name).get(shmnm::nodestat);
        std::printf("%s: %u\n", name.c_str(), static_cast<unsigned>(state.value));
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fputs("usage: tutorial_cpp SERVER\n", stderr);
        return 2;
    }
    const shmnm::Server own(argv[1]);
    try {
        // Another process has created the region; this process joins it until the end of the block.
        const shmnm::Attachment region = shmnm::attach();

        // Other processes must not see a change half done, so it is made under the lock. Five seconds are plenty: no
        // process holds the lock for even a millisecond.
        const shmnm::WriteLock lock(5s);
        own.set(shmnm::nodestat, shmnm::State::alive);
        print_servers(lock);
        return 0;
    } catch (const shmnm::Error& error) {
        std::fprintf(stderr, "%s\n", error.what());
        if (error.code() == shmnm::errc::openmap) std::fputs("start the creator of the region first\n", stderr);
        return 1;
    }
}
