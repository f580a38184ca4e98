// Explores one model and prints what it found: explore_models lock|read|object [PROCESSES [DEATHS [STOPS [MUTANT]]]]
#include <charconv>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string_view>

#include "models/models.h"

namespace {

using models::Finding;
using models::Mutant;

bool read(const char* text, unsigned least, unsigned most, unsigned& number) {
    const char* const end = text + std::strlen(text);
    const auto [stop, error] = std::from_chars(text, end, number);
    return error == std::errc{} && stop == end && number >= least && number <= most;
}

int print_usage() {
    std::fputs(
        "usage: explore_models lock|read|object [PROCESSES [DEATHS [STOPS [MUTANT]]]]\n"
        "PROCESSES is 2 to 4, DEATHS and STOPS are 0 to 4. Mutants:\n",
        stderr);
    for (const auto mutants : {models::lock_mutants(), models::read_mutants(), models::object_mutants()}) {
        for (const Mutant& mutant : mutants) std::fprintf(stderr, "  %s\n", mutant.name);
    }
    return 2;
}

int explore(int count, char** arguments) {
    const std::string_view name = count > 1 ? arguments[1] : "";
    if ((name != "lock" && name != "read" && name != "object") || count > 6) return print_usage();
    const auto explore_model = name == "lock"   ? models::explore_lock
                               : name == "read" ? models::explore_read
                                                : models::explore_object;

    models::Size size;
    if (count > 2 && !read(arguments[2], 2, 4, size.processes)) return print_usage();
    if (count > 3 && !read(arguments[3], 0, 4, size.deaths)) return print_usage();
    if (count > 4 && !read(arguments[4], 0, 4, size.stops)) return print_usage();
    const Finding finding = explore_model(size, count > 5 ? arguments[5] : "");
    std::printf("%zu states: %s%s\n", finding.states,
                finding.broken.empty() ? "no promise is broken" : "broken: ", finding.broken.c_str());
    for (size_t i = 0; i < finding.steps.size(); ++i) std::printf("%4zu. %s\n", i + 1, finding.steps[i].c_str());
    return finding.broken.empty() ? 0 : 1;
}

}  // namespace

int main(int count, char** arguments) {
    try {
        return explore(count, arguments);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "explore_models: %s\n", error.what());
        return 3;
    }
}
