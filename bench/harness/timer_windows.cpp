// Times calls on Windows, where Google Benchmark is not used.
#include "measure.h"
#include "platform.h"

namespace bench {

double time_one(const std::string&, const Runner& runner, uint64_t times) {
    const uint64_t start = now_ns();
    runner.run(times);
    return static_cast<double>(now_ns() - start) / static_cast<double>(times);
}

}  // namespace bench
