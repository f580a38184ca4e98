#include "picture/repeated_copy.h"

#include <fmt/format.h>

#include <utility>

#include "picture/error.h"

namespace picture {

void repeat_until_equal(Snapshot& copy, const std::function<void(Snapshot&)>& copy_again,
                        const std::function<uint64_t()>& clock_us, uint32_t timeout_ms) {
    const uint64_t end_us = clock_us() + uint64_t{timeout_ms} * 1'000;
    for (copy.tries = 2;; ++copy.tries) {
        Snapshot next = copy;
        copy_again(next);
        const bool is_equal = next.bytes == copy.bytes;
        copy = std::move(next);
        if (is_equal) return;
        if (clock_us() < end_us) continue;
        throw Error(ErrorKind::lock_timeout,
                    fmt::format("the region changed during each of {} copies in {} ms, and this user has no right to "
                                "its lock",
                                copy.tries, timeout_ms));
    }
}

}  // namespace picture
