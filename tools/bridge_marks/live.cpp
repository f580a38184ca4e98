#include "bridge_marks/live.h"

#include <fmt/format.h>

#include <algorithm>

#include "kzmutil.h"
#include "picture/error.h"
#include "picture/live.h"
#include "picture/platform.h"

namespace bridge {
namespace {

namespace platform = picture::platform;

picture::Error cannot(const char* what) {
    return {picture::ErrorKind::failed, fmt::format("cannot {} the bridge's marks {} {}", what,
                                                    picture::full_name(marks_name), picture::last_failure())};
}

std::optional<ReadMarks> read(const MarksPage* page) {
    if (platform::view_size(page) < sizeof *page) return std::nullopt;
    auto marks = read_marks(*page);
    if (!marks) return std::nullopt;
    constexpr uint64_t us_per_ms = 1'000;
    // The marks may have been written again since the clock was read.
    const uint64_t now_us = platform::steady_clock_us();
    const uint64_t passed_us = now_us - std::min(now_us, marks->written_us);
    if (passed_us >= marks_stand_still_ms * us_per_ms) return std::nullopt;
    make_older(marks->marks, passed_us);
    return marks;
}

}  // namespace

std::optional<ReadMarks> read_live_marks() {
    constexpr uint32_t to_read = 4, error_none_of_that_name = 2;
    void* const mapping = KzmutilOpenNamedFileMapping(to_read, 0, marks_name);
    if (!mapping && platform::last_error() == error_none_of_that_name) return std::nullopt;
    if (!mapping) throw cannot("open");
    const void* const page = platform::map_for_reading(mapping);
    if (!page) {
        const picture::Error error = cannot("map");
        platform::close(mapping);
        throw picture::Error(error);
    }
    auto marks = read(static_cast<const MarksPage*>(page));
    platform::unmap(page);
    platform::close(mapping);
    return marks;
}

LiveMarks::LiveMarks() {
    constexpr uint32_t page_read_write = 4;
    void* const no_file = reinterpret_cast<void*>(~uintptr_t{0});
    mapping_ = KzmutilCreateNamedFileMapping(no_file, page_read_write, 0, sizeof(MarksPage), marks_name);
    if (!mapping_) throw cannot("create");
    page_ = static_cast<MarksPage*>(platform::map_for_writing(mapping_));
    if (page_ && platform::view_size(page_) >= sizeof *page_) return;
    const picture::Error error = cannot("map");
    if (page_) platform::unmap(page_);
    platform::close(mapping_);
    throw picture::Error(error);
}

LiveMarks::~LiveMarks() {
    platform::unmap(page_);
    platform::close(mapping_);
}

void LiveMarks::write(const Marks& marks) {
    write_marks(*page_, marks, platform::steady_clock_us());
}

}  // namespace bridge
