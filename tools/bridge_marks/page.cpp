#include "bridge_marks/page.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <memory>
#include <string_view>
#include <thread>

namespace bridge {
namespace {

constexpr uint32_t claimed = 1, unmatched = 2, duplicate = 4, other_names = 8, other_times = 16;

constexpr size_t words_of_page = sizeof(MarksPage) / sizeof(uint64_t);
static_assert(sizeof(MarksPage) % sizeof(uint64_t) == 0);
constexpr size_t word_of_sequence = offsetof(MarksHeader, sequence) / sizeof(uint64_t);

/// Reader and writer touch the page only in whole words. An atomic reference to a constant comes only with C++26.
std::atomic_ref<uint64_t> word_of(const MarksPage& page, size_t word) {
    return std::atomic_ref<uint64_t>(reinterpret_cast<uint64_t*>(const_cast<MarksPage*>(&page))[word]);
}

template <size_t size>
void put(char (&field)[size], std::string_view text) {
    std::memset(field, 0, size);
    std::memcpy(field, text.data(), std::min(size, text.size()));
}

template <size_t size>
std::string text_of(const char (&field)[size]) {
    return {field, std::find(field, field + size, '\0')};
}

uint32_t flag(bool is_set, uint32_t flag) {
    return is_set ? flag : 0;
}

void put(MarkedServer& marked, const Mark& mark) {
    put(marked.name, mark.server);
    put(marked.address, mark.address);
    marked.freshness = static_cast<uint32_t>(mark.freshness);
    marked.flags = flag(mark.is_claimed, claimed) | flag(mark.is_unmatched, unmatched) |
                   flag(mark.is_duplicate, duplicate) | flag(mark.has_other_names, other_names) |
                   flag(mark.has_other_times, other_times);
    marked.age_ms = mark.age;
    marked.state_sequence = mark.sequence;
}

Mark mark_of(const MarkedServer& marked) {
    Mark mark;
    mark.server = text_of(marked.name);
    mark.address = text_of(marked.address);
    mark.freshness = marked.freshness <= static_cast<uint32_t>(Freshness::silent)
                         ? static_cast<Freshness>(marked.freshness)
                         : Freshness::unknown;
    mark.is_claimed = marked.flags & claimed;
    mark.is_unmatched = marked.flags & unmatched;
    mark.is_duplicate = marked.flags & duplicate;
    mark.has_other_names = marked.flags & other_names;
    mark.has_other_times = marked.flags & other_times;
    mark.age = marked.age_ms;
    mark.sequence = marked.state_sequence;
    return mark;
}

/// Everything but magic, version and sequence.
void fill(MarksPage& page, const Marks& marks) {
    MarksHeader& header = page.header;
    header.size = sizeof(MarksPage);
    header.connected = marks.is_connected;
    header.running = marks.is_running;
    header.refused = marks.is_refused;
    header.fed = marks.is_fed;
    header.limit_ms = marks.limit;
    header.longest_hold_us = marks.longest_hold_us;
    header.proposed = marks.agreed.proposed;
    header.accepted = marks.agreed.accepted;
    header.lost = marks.agreed.lost;
    header.replaced = marks.agreed.replaced;
    put(header.server, marks.server);
    put(header.cluster, marks.cluster);
    put(header.member, marks.member);
    const size_t servers = std::min(marks.servers.size(), marked_servers);
    const size_t contested = std::min(marks.contested.size(), marked_words);
    const size_t others = std::min(marks.unmatched.size(), marked_words - contested);
    header.servers = static_cast<uint32_t>(servers);
    header.lost_servers = static_cast<uint32_t>(marks.servers.size() - servers);
    header.contested = static_cast<uint32_t>(contested);
    header.unmatched = static_cast<uint32_t>(others);
    header.lost_words = static_cast<uint32_t>(marks.contested.size() + marks.unmatched.size() - contested - others);
    for (size_t at = 0; at < servers; ++at) put(page.servers[at], marks.servers[at]);
    for (size_t at = 0; at < contested; ++at) put(page.words[at].key, marks.contested[at]);
    for (size_t at = 0; at < others; ++at) put(page.words[contested + at].key, marks.unmatched[at]);
}

Marks marks_of(const MarksPage& page) {
    const MarksHeader& header = page.header;
    Marks marks;
    marks.is_connected = header.connected;
    marks.is_running = header.running;
    marks.is_refused = header.refused;
    marks.is_fed = header.fed;
    marks.limit = header.limit_ms;
    marks.longest_hold_us = header.longest_hold_us;
    marks.server = text_of(header.server);
    marks.cluster = text_of(header.cluster);
    marks.member = text_of(header.member);
    marks.agreed = {header.proposed, header.accepted, header.lost, header.replaced};
    for (size_t at = 0; at < std::min<size_t>(header.servers, marked_servers); ++at) {
        marks.servers.push_back(mark_of(page.servers[at]));
    }
    const size_t contested = std::min<size_t>(header.contested, marked_words);
    const size_t words = contested + std::min<size_t>(header.unmatched, marked_words - contested);
    for (size_t at = 0; at < words; ++at) {
        (at < contested ? marks.contested : marks.unmatched).push_back(text_of(page.words[at].key));
    }
    return marks;
}

}  // namespace

void write_marks(MarksPage& page, const Marks& marks, uint64_t now_us) {
    const auto written = std::make_unique<MarksPage>();
    written->header.magic = marks_magic;
    written->header.version = marks_version;
    written->header.written_us = now_us;
    fill(*written, marks);
    std::atomic_ref<uint64_t> sequence(page.header.sequence);
    const uint64_t begun = sequence.load(std::memory_order_relaxed) | 1;
    written->header.sequence = begun;
    sequence.store(begun, std::memory_order_relaxed);
    std::atomic_thread_fence(std::memory_order_release);
    for (size_t word = 0; word < words_of_page; ++word) {
        word_of(page, word).store(word_of(*written, word).load(std::memory_order_relaxed), std::memory_order_relaxed);
    }
    sequence.store(begun + 1, std::memory_order_release);
}

std::optional<ReadMarks> read_marks(const MarksPage& page) {
    const auto copy = std::make_unique<MarksPage>();
    for (int tries = 0; tries < 100; ++tries) {
        // A writer that a busy machine interrupted goes on after some milliseconds.
        if (tries > 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        const uint64_t before = word_of(page, word_of_sequence).load(std::memory_order_acquire);
        if (before % 2 != 0) continue;
        for (size_t word = 0; word < words_of_page; ++word) {
            word_of(*copy, word).store(word_of(page, word).load(std::memory_order_relaxed), std::memory_order_relaxed);
        }
        std::atomic_thread_fence(std::memory_order_acquire);
        if (word_of(page, word_of_sequence).load(std::memory_order_relaxed) != before) continue;
        if (copy->header.magic != marks_magic || copy->header.version != marks_version) return std::nullopt;
        return ReadMarks{marks_of(*copy), before, copy->header.written_us, copy->header.lost_words,
                         copy->header.lost_servers};
    }
    return std::nullopt;
}

void make_older(Marks& marks, uint64_t passed_us) {
    constexpr uint64_t us_per_ms = 1'000;
    for (Mark& mark : marks.servers) {
        if (mark.age < 0) continue;
        mark.age += static_cast<int64_t>(passed_us / us_per_ms);
        const bool is_old = marks.limit > 0 && mark.age >= marks.limit;
        if (mark.freshness == Freshness::fresh && is_old) mark.freshness = Freshness::unknown;
    }
}

}  // namespace bridge
