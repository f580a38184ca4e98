// The changes that a killed caller's note can complete, in a region of plain memory whose words all differ: what the
// note says, and what the region is like before and after. Places are counted in words.
#pragma once

#include <cstring>
#include <functional>
#include <string_view>
#include <vector>

#include "change_steps.h"

namespace noted_changes {

using Words = std::vector<uint32_t>;

// 4 servers, 4 hb and 4 np resources and an fst resource may be there; 3, 3, 3 and 1 are, and 2 of 4 names with
// process ids.
constexpr shmnm::Counts counts{4, 4, 4, 1};
constexpr size_t region_words = 5781, view_words = 6144;
constexpr size_t max_servers = 2, max_hb = 3, max_np = 4, fst_count = 5, fst_pid_limit = 6, server_count = 7,
                 hb_count = 8, np_count = 9, fst_pid_count = 10;
constexpr size_t server(size_t position) {
    return 271 + 80 * position;
}
constexpr size_t hb(size_t position) {
    return 591 + 150 * position;
}
constexpr size_t np(size_t position) {
    return 2927 + 150 * position;
}
constexpr size_t fst = 5263;
constexpr size_t fst_pid(size_t position) {
    return 5409 + 81 * position;
}
/// A resource's states for the servers, and an hb resource's network-wide ones.
constexpr size_t states(size_t resource) {
    return resource + 146;
}
constexpr size_t network(size_t position) {
    return 5733 + 4 * position;
}

inline Words filled_region() {
    Words words(view_words);
    for (size_t i = 0; i < words.size(); ++i) words[i] = static_cast<uint32_t>(0x10000 + i);
    words[max_servers] = words[max_hb] = words[max_np] = words[fst_pid_limit] = 4;
    words[fst_count] = 1;
    words[server_count] = words[hb_count] = words[np_count] = 3;
    words[fst_pid_count] = 2;
    return words;
}
inline shmnm::Region region_in(uint32_t* words, size_t count = view_words, const shmnm::Counts& of = counts) {
    return {reinterpret_cast<uint8_t*>(words), 4 * count, of, shmnm::Layout(of), 1};
}

inline shmnm::Note note_of(shmnm::NotedCall call, int32_t position = 0) {
    shmnm::Note note{};
    note.state = shmnm::Note::open;
    note.call = call;
    note.position = position;
    note.servers = note.hb = note.np = note.stride = 4;
    note.fst = 1;
    note.server_count = note.hb_count = note.np_count = 3;
    note.fst_pid_count = 2;
    return note;
}
template <size_t size>
void put(char (&field)[size], std::string_view text) {
    std::memcpy(field, text.data(), text.size());
}

inline void zero(Words& words, size_t at, size_t count) {
    for (size_t i = 0; i < count; ++i) words[at + i] = 0;
}
inline void copy(Words& words, size_t to, size_t from, size_t count) {
    for (size_t i = 0; i < count; ++i) words[to + i] = words[from + i];
}
/// Writes a text, zero-padded.
inline void put(Words& words, size_t at, size_t count, std::string_view text) {
    zero(words, at, count);
    std::memcpy(&words[at], text.data(), text.size());
}

struct NotedChange {
    const char* name;
    shmnm::Note note;
    std::function<void(Words&)> whole;  ///< what the whole call does to the region
};

inline std::vector<NotedChange> all() {
    using shmnm::NotedCall;
    std::vector<NotedChange> changes;
    const auto add = [&](const char* name, const shmnm::Note& note, std::function<void(Words&)> whole) {
        changes.push_back({name, note, std::move(whole)});
    };

    shmnm::Note note = note_of(NotedCall::addnode, 3);
    put(note.name, "delta");
    note.words[0] = 44;
    add("AddsAServer", note, [](Words& words) {
        for (size_t i = 0; i < 3; ++i) {
            words[states(hb(i)) + 3] = words[states(np(i)) + 3] = words[network(i) + 3] = 2;
        }
        put(words, server(3), 64, "delta");
        words[server(3) + 64] = 44;
        words[server(3) + 65] = words[server(3) + 66] = 2;
        words[server(3) + 67] = 0;
        words[server_count] = 4;
    });
    note = note_of(NotedCall::addnode, 1);
    std::memset(note.name, 'n', sizeof note.name);
    add("AddsAServerWithALongName", note, [](Words& words) {
        for (size_t i = 0; i < 3; ++i) {
            words[states(hb(i)) + 1] = words[states(np(i)) + 1] = words[network(i) + 1] = 2;
        }
        put(words, server(1), 64, std::string(255, 'n'));
        words[server(1) + 64] = 0;
        words[server(1) + 65] = words[server(1) + 66] = 2;
        words[server(1) + 67] = 0;
        words[server_count] = 2;
    });
    const auto remove_server = [&](const char* name, size_t position) {
        add(name, note_of(NotedCall::rmnode, static_cast<int32_t>(position)), [=](Words& words) {
            for (size_t i = position; i < 2; ++i) copy(words, server(i), server(i + 1), 80);
            zero(words, server(2), 80);
            words[server_count] = 2;
            for (size_t i = 0; i < 3; ++i) {
                for (const size_t row : {states(hb(i)), states(np(i)), network(i)}) {
                    copy(words, row + position, row + position + 1, 2 - position);
                }
            }
        });
    };
    remove_server("RemovesTheFirstServer", 0);
    remove_server("RemovesAServerInTheMiddle", 1);
    remove_server("RemovesTheLastServer", 2);

    const auto add_resource = [&](const char* name, NotedCall call, size_t record, size_t count, bool has_network) {
        note = note_of(call, 3);
        put(note.type, "lan");
        put(note.name, "lan-of-the-third-floor-and-of-the-fourth");
        note.words[0] = 55;
        add(name, note, [=](Words& words) {
            for (size_t i = 0; i < 3; ++i) {
                words[states(record) + i] = 2;
                if (has_network) words[network(3) + i] = 2;
            }
            put(words, record, 8, "lan-of-the-third-floor-and-of-t");
            put(words, record + 64, 8, "lan");
            words[record + 136] = 55;
            words[count] = 4;
        });
    };
    add_resource("AddsAnHbResource", NotedCall::addhbrsc, hb(3), hb_count, true);
    add_resource("AddsAnNpResource", NotedCall::addnprsc, np(3), np_count, false);
    const auto remove_resource = [&](const char* name, NotedCall call, size_t (*record)(size_t), size_t count,
                                     size_t position) {
        note = note_of(call, static_cast<int32_t>(position));
        add(name, note, [=](Words& words) {
            for (size_t i = position; i < 2; ++i) {
                copy(words, record(i), record(i + 1), 150);
                if (count == hb_count) copy(words, network(i), network(i + 1), 4);
            }
            zero(words, record(2), 150);
            // The network-wide row of the last resource stays if it is itself removed.
            if (count == hb_count && position < 2) zero(words, network(2), 4);
            words[count] = 2;
        });
    };
    remove_resource("RemovesTheFirstHbResource", NotedCall::rmhbrsc, hb, hb_count, 0);
    remove_resource("RemovesAnHbResourceInTheMiddle", NotedCall::rmhbrsc, hb, hb_count, 1);
    remove_resource("RemovesTheLastHbResource", NotedCall::rmhbrsc, hb, hb_count, 2);
    remove_resource("RemovesTheFirstNpResource", NotedCall::rmnprsc, np, np_count, 0);
    remove_resource("RemovesTheLastNpResource", NotedCall::rmnprsc, np, np_count, 2);

    const auto open_column = [&](const char* name, NotedCall call, size_t (*record)(size_t), bool has_network) {
        add(name, note_of(call), [=](Words& words) {
            for (size_t i = 0; i < 3; ++i) {
                // One column fewer is moved than there are.
                words[states(record(i)) + 1] = words[states(record(i))];
                words[states(record(i))] = 2;
                if (!has_network) continue;
                words[network(i) + 1] = words[network(i)];
                words[network(i)] = 2;
            }
        });
    };
    open_column("OpensAnHbColumn", NotedCall::addhbrscsvstat, hb, true);
    open_column("OpensAnNpColumn", NotedCall::addnprscsvstat, np, false);
    const auto close_column = [&](const char* name, NotedCall call, size_t (*record)(size_t), bool has_network) {
        add(name, note_of(call, 1), [=](Words& words) {
            for (size_t i = 0; i < 3; ++i) {
                copy(words, states(record(i)) + 1, states(record(i)) + 2, 2);
                if (has_network) copy(words, network(i) + 1, network(i) + 2, 2);
            }
        });
    };
    close_column("ClosesAnHbColumn", NotedCall::rmhbrscsvstat, hb, true);
    close_column("ClosesAnNpColumn", NotedCall::rmnprscsvstat, np, false);

    const auto process_id = [&](const char* name, NotedCall call, size_t position, int32_t kind) {
        note = note_of(call, static_cast<int32_t>(position));
        put(note.name, "agent");
        note.words[0] = kind;
        note.words[1] = 4711;
        note.value = 0x1122334455667788;
        add(name, note, [=](Words& words) {
            const size_t record = fst_pid(position);
            if (call == NotedCall::addfstpid) {
                put(words, record, 64, "agent");
                words[fst_pid_count] = static_cast<uint32_t>(position + 1);
            }
            if (kind > 2) return;
            words[record + 64 + static_cast<size_t>(kind)] = 4711;
            words[record + 67 + 2 * static_cast<size_t>(kind)] = 0x55667788;
            words[record + 68 + 2 * static_cast<size_t>(kind)] = 0x11223344;
        });
    };
    process_id("AddsProcessIds", NotedCall::addfstpid, 2, 1);
    process_id("AddsAnEmptyRecordOfProcessIds", NotedCall::addfstpid, 2, 3);
    process_id("SetsAProcessId", NotedCall::setfstpid, 1, 2);

    note = note_of(NotedCall::setmaxvalue);
    note.words[0] = 5, note.words[1] = 9, note.words[2] = 8;
    add("SetsTheMaxima", note, [](Words& words) {
        words[max_servers] = 5;
        words[max_hb] = 9;
        words[max_np] = 8;
    });
    add("ClearsTheRegion", note_of(NotedCall::clear), [](Words& words) { zero(words, 0, region_words); });

    const auto describe = [&](const char* name, NotedCall call, int32_t position, size_t record) {
        note = note_of(call, position);
        note.size = 6;
        std::memcpy(note.data, "second", 6);
        add(name, note, [=](Words& words) { std::memcpy(&words[record + 72], "second", 6); });
    };
    describe("DescribesAnHbResource", NotedCall::sethbdescript, 1, 591 + 146);
    describe("DescribesAnNpResource", NotedCall::setnpdescript, 1, 2927 + 146);
    describe("DescribesTheFstResource", NotedCall::setfstdescript, 0, fst);
    return changes;
}

}  // namespace noted_changes
