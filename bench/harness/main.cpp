// Times the rows of one size of cluster and writes the figures:
//
//     shmnm_bench SERVERS RESOURCES [--only ROW] [--who NAME]... [--rounds N] [--count N] [--json FILE]
//
// KZM_INSTALL_PATH must name an installation with its configuration. KZMUTIL_NAMESPACE must be set; the names of all
// shared objects begin with it. scripts/bench provides both.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <string>

#include "measure.h"
#include "platform.h"

namespace {

struct Command {
    bench::Cluster cluster{};
    bench::Measurement::Options options;
    std::string json;
};

Command command_of(int argc, char** argv) {
    Command command;
    if (argc < 3 || argc % 2 == 0) throw std::runtime_error("usage: shmnm_bench SERVERS RESOURCES [--OPTION VALUE]...");
    command.cluster = {std::stoi(argv[1]), std::stoi(argv[2])};
    for (int i = 3; i < argc; i += 2) {
        const std::string option = argv[i], value = argv[i + 1];
        if (option == "--only") {
            command.options.only = value;
        } else if (option == "--who") {
            command.options.who.push_back(value);
        } else if (option == "--rounds") {
            command.options.rounds = static_cast<unsigned>(std::stoul(value));
        } else if (option == "--count") {
            command.options.count = std::stoull(value);
        } else if (option == "--json") {
            command.json = value;
        } else {
            throw std::runtime_error("unknown option " + option);
        }
    }
    return command;
}

void run(const Command& command) {
    const char* const scratch = std::getenv("KZMUTIL_NAMESPACE");
    if (!scratch || !std::getenv("KZM_INSTALL_PATH")) {
        throw std::runtime_error("KZMUTIL_NAMESPACE and KZM_INSTALL_PATH must be set");
    }
    bench::pin_to_processor(1);
    bench::Contestants contestants({scratch, true});
    contestants.each([&](auto& who) { who.fill(command.cluster); });
    bench::Measurement measurement(command.options);
    for (const bench::Subject subject : {bench::header_word, bench::server_word, bench::pair_word, bench::listings,
                                         bench::lock, bench::picture, bench::cpp_word}) {
        subject(measurement, command.cluster, contestants);
    }
    if (!command.json.empty() && !measurement.write(command.json)) throw std::runtime_error("cannot write figures");
}

}  // namespace

int main(int argc, char** argv) {
    try {
        run(command_of(argc, argv));
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "shmnm_bench: %s\n", error.what());
        return 1;
    }
}
