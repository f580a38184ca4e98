// "status --watch" on a screen.
#include <algorithm>
#include <optional>
#include <string>

#include "duration.h"
#include "picture/decode.h"
#include "picture/error.h"
#include "picture/platform.h"
#include "region_source.h"
#include "screen.h"
#include "session.h"
#include "status_view.h"

namespace shmnmctl {
namespace {

/// The time and the interval, as long as there is room.
std::vector<std::string> titles(uint32_t interval_ms) {
    constexpr size_t clock_begin = 11, clock_size = 8;
    const std::string time = platform::to_text(platform::wall_clock_us());
    const std::string clock = time.substr(clock_begin, clock_size), every = "  every " + duration_text(interval_ms);
    return {time + every, time, clock + every, clock};
}

}  // namespace

Exit show_on_screen(const Context& context, const StatusOptions& options, Screen& screen) {
    // A key that is pressed while the lock does not come takes effect no later than this.
    constexpr uint32_t longest_lock_ms = 1'000;
    RegionSource region(context, false);
    Viewport viewport;
    std::optional<Picture> shown;
    const auto look = [&] {
        Content content{.titles = titles(options.interval_ms), .notes = {}, .sheet = {}};
        try {
            std::optional<Snapshot> snapshot = region.try_copy(Bytes::in_use, longest_lock_ms);
            if (!snapshot) throw Error(ErrorKind::no_region, "no process holds the region");
            Picture picture = decode(*snapshot);
            content.notes = warnings(*snapshot);
            if (snapshot->way == CopyWay::by_reader) content.notes.push_back(std::string("! ") + read_without_lock);
            content.sheet = to_sheet(picture, options.selection, shown ? &*shown : &picture);
            shown = std::move(picture);
        } catch (const Error& error) {
            // It may come back.
            if (error.kind != ErrorKind::no_region && error.kind != ErrorKind::lock_timeout) throw;
            content.notes = {Failure(error).what()};
            shown.reset();
        }
        viewport.show(std::move(content));
    };
    uint64_t next_us = 0;
    for (;;) {
        const uint64_t now_us = platform::steady_clock_us();
        if (now_us >= next_us) {
            look();
            next_us = now_us + uint64_t{options.interval_ms} * 1'000;
        }
        screen.draw(viewport.lines(screen.size()));
        const uint64_t left_us = next_us - std::min(next_us, platform::steady_clock_us());
        const session::WakeFor also{.closed_output = true, .key = screen.has_keys()};
        switch (session::wait(static_cast<uint32_t>((left_us + 999) / 1'000), also)) {
            case session::Wake::stop:
                return Exit::done;
            case session::Wake::closed_output:
                throw closed_output();
            case session::Wake::key:
                while (const auto press = screen.key()) {
                    if (!viewport.press(*press)) return Exit::done;
                }
                break;
            case session::Wake::resize:
            case session::Wake::timeout:
                break;
        }
    }
}

}  // namespace shmnmctl
