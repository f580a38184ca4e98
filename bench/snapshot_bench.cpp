// The picture as JSON through the C library that reads pictures, of a full cluster: 128 servers, 16 hb and 16 np
// resources.
//
//     snapshot_bench COUNT
//
// Creates the region, and prints for each snapshot the microseconds of a copy with its document, and those of an update
// that finds nothing changed.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <string>
#include <string_view>

#include "full_cluster.h"
#include "shmnmpicture.h"

namespace {

using Clock = std::chrono::steady_clock;

long long microseconds_since(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start).count();
}

void expect_answer(shmnmpicture* picture, int32_t result) {
    if (result != SHMNMPICTURE_OK) throw std::runtime_error(shmnmpicture_error(picture));
}

void run(int argc, char** argv) {
    if (argc != 2) throw std::runtime_error("usage: snapshot_bench COUNT");
    bench::fill();
    for (int left = std::atoi(argv[1]); left > 0; --left) {
        bench::expect(shmnm_setclstat(static_cast<uint32_t>(left)));
        shmnmpicture* picture = nullptr;
        const char* text = nullptr;
        size_t size = 0;
        const Clock::time_point start = Clock::now();
        expect_answer(picture, shmnmpicture_open_live(nullptr, &picture));
        expect_answer(picture, shmnmpicture_json(picture, &text, &size));
        const long long copied_us = microseconds_since(start);
        const std::string written = "\"clstat\":" + std::to_string(left) + ",";
        if (std::string_view(text, size).find(written) == std::string_view::npos) {
            throw std::runtime_error("a snapshot has not shown the last change");
        }
        int32_t changed = 1;
        const Clock::time_point asked = Clock::now();
        expect_answer(picture, shmnmpicture_update(picture, 0, &changed));
        const long long updated_us = microseconds_since(asked);
        if (changed != 0) throw std::runtime_error("an update has found a change that nobody made");
        shmnmpicture_free(picture);
        std::printf("%lld %lld\n", copied_us, updated_us);
    }
    shmnm_delete();
}

}  // namespace

int main(int argc, char** argv) {
    try {
        run(argc, argv);
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "snapshot_bench: %s\n", error.what());
        return 1;
    }
}
