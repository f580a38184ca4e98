// One process of several: shmnm_bench_process PART WHO SERVERS RESOURCES [ARGUMENT...]
//
// PART serve creates and fills the shared objects of WHO, reports "ready" and keeps them until its input ends. The
// other parts join.
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <string>

#include "attach_bench.h"
#include "contestants.h"
#include "owner_killed_bench.h"
#include "two_processes_bench.h"

namespace {

using bench::Part;

template <typename Contestant>
void serve(const Part& part) {
    Contestant contestant({part.place.scratch, true});
    contestant.fill(part.cluster);
    bench::say("ready");
    bench::told();
}

/// Plays a part if `who` names this contestant. @return whether it does
template <typename Contestant>
bool play(const std::string& name, const std::string& who, const Part& part) {
    if (who != Contestant::who) return false;
    if (name == "serve") {
        serve<Contestant>(part);
    } else if (name == "hammer") {
        bench::hammer<Contestant>(part);
    } else if (name == "hold") {
        bench::hold<Contestant>(part);
    } else if (name == "take_over") {
        bench::take_over<Contestant>(part);
    } else if (name == "attach") {
        bench::attach_and_detach<Contestant>(part);
    } else {
        throw std::runtime_error("unknown part " + name);
    }
    return true;
}

template <typename... Contestants>
void play_one_of(bench::List<Contestants...>, const std::string& name, const std::string& who, const Part& part) {
    if (!(play<Contestants>(name, who, part) || ...)) throw std::runtime_error("unknown contestant " + who);
}

void run(int argc, char** argv) {
    const char* const scratch = std::getenv("KZMUTIL_NAMESPACE");
    if (argc < 5 || !scratch) {
        throw std::runtime_error("usage: shmnm_bench_process PART WHO SERVERS RESOURCES [ARGUMENT...]");
    }
    play_one_of(bench::ProcessContestants{}, argv[1], argv[2],
                {{scratch, false}, {std::stoi(argv[3]), std::stoi(argv[4])}, {argv + 5, argv + argc}});
}

}  // namespace

int main(int argc, char** argv) {
    try {
        run(argc, argv);
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "shmnm_bench_process: %s\n", error.what());
        return 1;
    }
}
