// A cluster process that changes words at a steady rate, all under the lock, and measures how long it waits for the
// lock.
//
//     busy_cluster SECONDS WORDS_PER_SECOND LAST
//
// At the end it sets the cluster's clstat to LAST and writes {"words", "groups", "contended", "median_us", "p99_us",
// "max_us"}: the words, the groups in which they were changed, how many of these found the lock in another's hands, and
// the waits.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "shmnm.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr int groups_per_second = 100;

void expect_ok(const char* call, uint32_t result) {
    if (result == SHMNM_OK) return;
    std::fprintf(stderr, "%s failed with code %u\n", call, result);
    std::exit(1);
}

std::vector<std::string> servers() {
    uint32_t size = 0;
    expect_ok("shmnm_enumnode", shmnm_enumnode(nullptr, &size));
    std::vector<char> buffer(size);
    expect_ok("shmnm_enumnode", shmnm_enumnode(buffer.data(), &size));
    std::vector<std::string> names;
    for (const char* name = buffer.data(); *name; name += names.back().size() + 1) names.emplace_back(name);
    return names;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) return 2;
    const int seconds = std::atoi(argv[1]), words_per_second = std::atoi(argv[2]);
    const auto last = static_cast<uint32_t>(std::atoi(argv[3]));
    expect_ok("shmnm_attach", shmnm_attach());
    const std::vector<std::string> names = servers();
    std::vector<double> waits;
    uint32_t words = 0, contended = 0;
    auto next = Clock::now();
    for (int group = 0; group < seconds * groups_per_second; ++group) {
        std::this_thread::sleep_until(next += std::chrono::milliseconds(1'000 / groups_per_second));
        const auto asked = Clock::now();
        if (shmnm_rwlock(0) != SHMNM_OK) {
            ++contended;
            expect_ok("shmnm_rwlock", shmnm_rwlock(60'000));
        }
        waits.push_back(std::chrono::duration<double, std::micro>(Clock::now() - asked).count());
        for (int i = 0; i < words_per_second / groups_per_second; ++i, ++words) {
            expect_ok("shmnm_setpingstat", shmnm_setpingstat(names[words % names.size()].c_str(), words));
        }
        expect_ok("shmnm_rwunlock", shmnm_rwunlock());
    }
    expect_ok("shmnm_setclstat", shmnm_setclstat(last));
    expect_ok("shmnm_detach", shmnm_detach());
    std::sort(waits.begin(), waits.end());
    std::printf(
        "{\"words\": %u, \"groups\": %zu, \"contended\": %u, \"median_us\": %.1f, \"p99_us\": %.1f, \"max_us\": "
        "%.1f}\n",
        words, waits.size(), contended, waits[waits.size() / 2], waits[waits.size() * 99 / 100], waits.back());
    return 0;
}
