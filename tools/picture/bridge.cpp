#include "picture/bridge.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>
#include <utility>

#include "bridge_marks/live.h"
#include "kzmutil.h"
#include "picture/escape.h"
#include "picture/platform.h"

namespace picture {
namespace {

using bridge::Freshness;
using bridge::Mark;
using bridge::Marks;
using bridge::MarksPage;
using bridge::ReadMarks;

constexpr uint64_t stands_still_us = bridge::marks_stand_still_ms * 1'000;

/// The shared memory, mapped for reading. Held only for a read: it would keep a dead bridge's marks.
class View {
  public:
    View() : mapping_(KzmutilOpenNamedFileMapping(map_read, 0, bridge::marks_name)) {
        if (mapping_) base_ = platform::map_for_reading(mapping_);
    }
    ~View() {
        if (base_) platform::unmap(base_);
        if (mapping_) platform::close(mapping_);
    }
    View(const View&) = delete;
    View& operator=(const View&) = delete;

    /// Null: there are no marks.
    const MarksPage* page() const {
        const bool is_whole = base_ && platform::view_size(base_) >= sizeof(MarksPage);
        return is_whole ? static_cast<const MarksPage*>(base_) : nullptr;
    }

  private:
    static constexpr uint32_t map_read = 4;

    void* mapping_;
    const void* base_ = nullptr;
};

uint64_t sequence_of(const MarksPage& page) {
    return std::atomic_ref<uint64_t>(const_cast<MarksPage&>(page).header.sequence).load(std::memory_order_relaxed);
}

/// Reads marks whose writer may be in the middle of a write. @return nothing: it has stopped there, or never wrote
std::optional<ReadMarks> read_patiently(const MarksPage& page) {
    const uint64_t end_us = platform::steady_clock_us() + stands_still_us;
    for (;;) {
        const uint64_t before = sequence_of(page);
        auto read = read_marks(page);
        const bool is_being_written = before % 2 != 0 || sequence_of(page) != before;
        if (read || !is_being_written || platform::steady_clock_us() >= end_us) return read;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

/// Nobody vouches for what a bridge said that does not run.
void forget_freshness(Marks& marks) {
    marks.is_connected = marks.is_running = marks.is_fed = false;
    for (Mark& mark : marks.servers) mark.freshness = Freshness::unknown;
}

}  // namespace

const char* name_of(Freshness freshness) {
    switch (freshness) {  // branch: each has its case
        case Freshness::fresh:
            return "fresh";
        case Freshness::silent:
            return "silent";
        case Freshness::unknown:
            break;
    }
    return "unknown";
}

const Mark* find_mark(const Bridge& bridge, std::string_view server) {
    const auto& all = bridge.marks.servers;
    const auto found = std::find_if(all.begin(), all.end(), [&](const Mark& mark) { return mark.server == server; });
    return found == all.end() ? nullptr : &*found;
}

void make_safe(Marks& marks) {
    std::erase_if(marks.servers, [](const Mark& mark) {
        const auto name = unescaped(mark.server);
        return !name || name->empty() || escaped(*name) != mark.server;
    });
    for (Mark& mark : marks.servers) mark.address = as_typed(mark.address);
    for (std::string* const text : {&marks.server, &marks.cluster, &marks.member}) *text = as_typed(*text);
    for (auto* const texts : {&marks.contested, &marks.unmatched}) {
        for (std::string& text : *texts) text = as_typed(text);
    }
}

bool say_the_same(const Bridge& one, const Bridge& other) {
    const auto without_what_moves = [](const Bridge& bridge) {
        Marks marks = bridge.marks;
        marks.longest_hold_us = 0;
        for (Mark& mark : marks.servers) {
            mark.age = std::min<int64_t>(mark.age, 0);
            mark.sequence = 0;
        }
        return marks;
    };
    return one.is_up == other.is_up && one.is_there() == other.is_there() && one.left_out == other.left_out &&
           one.lost_servers == other.lost_servers && without_what_moves(one) == without_what_moves(other);
}

Bridge BridgeReader::read() {
    const View view;
    const MarksPage* const page = view.page();
    if (!page) {
        last_.reset();
        return {};
    }
    auto read = last_ ? read_marks(*page) : read_patiently(*page);
    if (read) {
        last_ = std::move(read);
        make_safe(last_->marks);
    }
    if (!last_) return {};
    const uint64_t now_us = platform::steady_clock_us();
    const uint64_t passed_us = now_us - std::min(now_us, last_->written_us);
    Bridge found{.is_up = passed_us < stands_still_us,
                 .marks = last_->marks,
                 .left_out = last_->lost_words,
                 .lost_servers = last_->lost_servers};
    make_older(found.marks, passed_us);
    if (!found.is_up) {
        found.stopped_us = passed_us;
        forget_freshness(found.marks);
    }
    return found;
}

}  // namespace picture
