#include "change_steps.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "resource_description.h"
#include "server_table.h"
#include "text.h"

namespace shmnm {
namespace {

bool is_within(int32_t count, int32_t maximum) {
    return count >= 0 && count <= maximum;
}

/// Where a phase begins: at the noted stage if that is in this phase, else at the phase's start.
Stage stage_in(const Stage& from, Phase phase) {
    return from.phase == phase ? from : Stage{phase};
}

shmnm_server& server_at(const Region& region, int32_t position) {
    return *reinterpret_cast<shmnm_server*>(region.base + server_strip(region).at(position));
}
shmnm_fst_pid& fst_pid_at(const Region& region, int32_t position) {
    return *reinterpret_cast<shmnm_fst_pid*>(region.base + region.layout.fst_pids +
                                             sizeof(shmnm_fst_pid) * static_cast<uint64_t>(position));
}

/// Copies the `step` bytes at the next position down to this one.
void copy_next(const Region& region, const Strip& strip, int32_t position) {
    copy_words(region.word(strip.at(position)), region.word(strip.at(position + 1)),
               static_cast<size_t>(strip.step) / sizeof(uint32_t));
}
void zero(const Region& region, const Strip& strip, int32_t position) {
    zero_words(region.word(strip.at(position)), static_cast<size_t>(strip.step));
}

/// A noted text with a NUL, as calls take it: in the note it may fill its field.
template <size_t size>
struct Text {
    explicit Text(const char (&field)[size]) { std::memcpy(text, field, size); }
    char text[size + 1] = {};
};

}  // namespace

bool is_regular(const Region& region) noexcept {
    const shmnm_header& header = region.header();
    const Counts& counts = region.counts;
    if (counts.servers < 2 || counts.hb < 0 || counts.np < 0 || counts.fst < 0) return false;
    if (load(header.max_servers) != counts.servers || load(header.max_hb) != counts.hb ||
        load(header.max_np) != counts.np || load(header.fst_count) != counts.fst) {
        return false;
    }
    // Products of two counts cannot wrap in 64 bits; once each is below a view's size, the layout has not wrapped.
    const auto product = [](int32_t a, int32_t b) { return static_cast<uint64_t>(a) * static_cast<uint64_t>(b); };
    const uint64_t hb_words = product(counts.hb, counts.servers), np_words = product(counts.np, counts.servers);
    const uint64_t pids = product(counts.fst, counts.servers);
    if (std::max({hb_words, np_words, pids, uint64_t(counts.servers)}) > region.view_size) return false;
    if (!region.holds(region.layout.network, sizeof(uint32_t) * (2 * hb_words + np_words))) return false;
    return load(header.fst_pid_limit) == static_cast<int64_t>(pids) &&
           is_within(load(header.server_count), counts.servers) && is_within(load(header.hb_count), counts.hb) &&
           is_within(load(header.np_count), counts.np) &&
           is_within(load(header.fst_pid_count), load(header.fst_pid_limit));
}

void open_columns_early(const Region& region, int32_t position) noexcept {
    for (const Kind* const kind : {&hb, &np}) {
        const Resources resources(region, *kind);
        const StateRows rows(resources);
        for (int32_t resource = 0; resource < resources.count; ++resource) rows.open(resource, position);
    }
}

void take_out_server(const Region& region, int32_t position, int32_t count, const Progress& progress,
                     Stage from) noexcept {
    const Strip strip = server_strip(region);
    if (from.phase == Phase::records) {
        for (int32_t to = std::max(from.record, position); to < count - 1; ++to) {
            progress.at(Phase::records, to);
            copy_next(region, strip, to);
        }
    }
    if (from.phase <= Phase::last) {
        progress.at(Phase::last);
        zero(region, strip, count - 1);
    }
    if (from.phase <= Phase::count) {
        progress.at(Phase::count);
        store(region.header().server_count, count - 1);
    }
}

void take_out_resource(const Resources& resources, int32_t position, int32_t count, const Progress& progress,
                       Stage from) noexcept {
    const Region& region = resources.region;
    const Grid* const network = resources.kind.network;
    const Strip row = network ? resources.rows(*network) : Strip{};
    if (from.phase == Phase::records) {
        for (int32_t to = std::max(from.record, position); to < count - 1; ++to) {
            progress.at(Phase::records, to);
            copy_next(region, resources.strip, to);
            if (network) copy_next(region, row, to);
        }
    }
    if (from.phase <= Phase::last) {
        progress.at(Phase::last);
        zero(region, resources.strip, count - 1);
        // Deliberately, if the last resource is removed, its network-wide row keeps its values.
        if (network && position < count - 1) zero(region, row, count - 1);
    }
    if (from.phase <= Phase::count) {
        progress.at(Phase::count);
        store(region.header().*resources.kind.count, count - 1);
    }
}

void write_server(shmnm_server& server, const char* name, int32_t pri) noexcept {
    put_terminated(server.name, sizeof server.name, name);
    store(server.pri, pri);
    store(server.nodestat, opened_state);
    store(server.nodestat_nw, opened_state);
    store(server.downnotifystat, uint32_t{0});
}

void write_resource(shmnm_resource& resource, const char* type, const char* name, uint32_t pri) noexcept {
    put_terminated(resource.type, sizeof resource.type, type);
    // Only the first 32 bytes of the name's field are ever written here.
    put_terminated(resource.name, 32, name);
    store(resource.pri, pri);
}

void open_row(const StateRows& rows, int32_t resource, int32_t servers) noexcept {
    for (int32_t server = 0; server < servers; ++server) rows.open(resource, server);
}

void open_column(const Resources& resources, int32_t index, int32_t servers, const Progress& progress,
                 Stage from) noexcept {
    const StateRows rows(resources);
    for (int32_t resource = from.record; resource < resources.records.count(); ++resource) {
        // Deliberately stops one column short: for an index below the last two, the last word is not written.
        const int64_t last = int64_t{servers} - 3;
        int32_t step = std::exchange(from.word, 0);
        for (; last - step >= index; ++step) {
            progress.at(from.phase, resource, step);
            rows.copy(resource, last - step + 1, last - step);
        }
        progress.at(from.phase, resource, step);
        rows.open(resource, index);
    }
}

void close_column(const Resources& resources, int32_t index, int32_t servers, const Progress& progress,
                  Stage from) noexcept {
    const StateRows rows(resources);
    for (int32_t resource = from.record; resource < resources.records.count(); ++resource) {
        for (int32_t step = std::exchange(from.word, 0); int64_t{index} + step < servers; ++step) {
            progress.at(from.phase, resource, step);
            rows.copy(resource, int64_t{index} + step, int64_t{index} + step + 1);
        }
    }
}

void write_process_id(shmnm_fst_pid& record, int32_t kind, uint32_t pid, uint64_t piddata) noexcept {
    // The value comes first: a process id must never appear before the value that belongs to it.
    store_pair(&record.piddata[kind], {static_cast<uint32_t>(piddata), static_cast<uint32_t>(piddata >> 32)});
    keep_order();
    store(record.pid[kind], pid);
}

void write_maxima(const Region& region, int32_t servers, int32_t max_hb, int32_t max_np) noexcept {
    store(region.header().max_servers, servers);
    store(region.header().max_hb, max_hb);
    store(region.header().max_np, max_np);
}

void clear_region(const Region& region) noexcept {
    // By words: a reader without the lock loads them meanwhile.
    zero_words(region.base, std::min<size_t>(region.layout.size, region.view_size));
}

namespace {

/// The kind of resource that a noted call changes.
const Kind& kind_of(NotedCall call) {
    switch (call) {
        case NotedCall::addnprsc:
        case NotedCall::rmnprsc:
        case NotedCall::addnprscsvstat:
        case NotedCall::rmnprscsvstat:
        case NotedCall::setnpdescript:
            return np;
        default:
            return hb;
    }
}

void complete_new_server(const Region& region, const Note& note) {
    open_columns_early(region, note.position);
    write_server(server_at(region, note.position), Text(note.name).text, note.words[0]);
    keep_order();
    store(region.header().server_count, note.position + 1);
}

void complete_removed_server(const Region& region, const Note& note, const Progress& progress, const Stage& from) {
    take_out_server(region, note.position, note.server_count, progress, from);
    for (const Kind* const kind : {&hb, &np}) {
        const Phase phase = column_phase(*kind);
        if (from.phase > phase) continue;
        close_column(Resources(region, *kind), note.position, note.server_count - 1, progress, stage_in(from, phase));
    }
}

void complete_new_resource(const Region& region, const Note& note) {
    const Kind& kind = kind_of(note.call);
    const Resources resources(region, kind);
    open_row(StateRows(resources), note.position, note.server_count);
    write_resource(*reinterpret_cast<shmnm_resource*>(region.base + resources.strip.at(note.position)),
                   Text(note.type).text, Text(note.name).text, static_cast<uint32_t>(note.words[0]));
    keep_order();
    store(region.header().*kind.count, note.position + 1);
}

/// Completes a process id, in a new record or in an existing one.
void complete_process_id(const Region& region, const Note& note) {
    shmnm_fst_pid& record = fst_pid_at(region, note.position);
    if (note.call == NotedCall::addfstpid) put_text(record.name, sizeof record.name, Text(note.name).text);
    if (is_pid_kind(note.words[0])) {
        write_process_id(record, note.words[0], static_cast<uint32_t>(note.words[1]), note.value);
    }
    keep_order();
    if (note.call == NotedCall::addfstpid) store(region.header().fst_pid_count, note.position + 1);
}

/// Where the record of the noted description lies.
uint64_t described_record(const Region& region, const Note& note) {
    if (note.call == NotedCall::setfstdescript) return region.layout.fst;
    const uint64_t start = region.layout.*kind_of(note.call).states.start;
    return Strip{start, sizeof(shmnm_resource)}.at(note.position);
}

}  // namespace

bool can_complete(const Region& region, const Note& note) noexcept {
    const Counts& counts = region.counts;
    const auto takes_place_in = [&](int32_t count) { return note.position >= 0 && note.position < count; };
    switch (note.call) {
        case NotedCall::setmaxvalue:
        case NotedCall::clear:
            return true;
        case NotedCall::sethbdescript:
        case NotedCall::setnpdescript:
        case NotedCall::setfstdescript:
            return note.position >= 0 && note.size > 0 && note.size <= sizeof note.data &&
                   region.holds(described_record(region, note), sizeof(shmnm_resource));
        default:
            break;
    }
    if (!is_regular(region) || !is_within(note.server_count, counts.servers)) return false;
    switch (note.call) {
        case NotedCall::addnode:
            return takes_place_in(counts.servers);
        case NotedCall::rmnode:
            return takes_place_in(note.server_count);
        case NotedCall::addhbrsc:
            return takes_place_in(counts.hb);
        case NotedCall::addnprsc:
            return takes_place_in(counts.np);
        case NotedCall::rmhbrsc:
            return is_within(note.hb_count, counts.hb) && takes_place_in(note.hb_count);
        case NotedCall::rmnprsc:
            return is_within(note.np_count, counts.np) && takes_place_in(note.np_count);
        case NotedCall::addhbrscsvstat:
        case NotedCall::addnprscsvstat:
        case NotedCall::rmhbrscsvstat:
        case NotedCall::rmnprscsvstat:
            return takes_place_in(note.server_count);
        case NotedCall::addfstpid:
        case NotedCall::setfstpid:
            return takes_place_in(load(region.header().fst_pid_limit));
        default:
            return false;
    }
}

void complete(const Region& region, Note& note) noexcept {
    const Progress progress(&note.progress);
    const Stage from = Stage::unpacked(note.progress);
    const Kind& kind = kind_of(note.call);
    switch (note.call) {
        case NotedCall::addnode:
            return complete_new_server(region, note);
        case NotedCall::rmnode:
            return complete_removed_server(region, note, progress, from);
        case NotedCall::addhbrsc:
        case NotedCall::addnprsc:
            return complete_new_resource(region, note);
        case NotedCall::rmhbrsc:
            return take_out_resource(Resources(region, kind), note.position, note.hb_count, progress, from);
        case NotedCall::rmnprsc:
            return take_out_resource(Resources(region, kind), note.position, note.np_count, progress, from);
        case NotedCall::addhbrscsvstat:
        case NotedCall::addnprscsvstat:
            return open_column(Resources(region, kind), note.position, note.server_count, progress,
                               stage_in(from, column_phase(kind)));
        case NotedCall::rmhbrscsvstat:
        case NotedCall::rmnprscsvstat:
            return close_column(Resources(region, kind), note.position, note.server_count, progress,
                                stage_in(from, column_phase(kind)));
        case NotedCall::addfstpid:
        case NotedCall::setfstpid:
            return complete_process_id(region, note);
        case NotedCall::setmaxvalue:
            return write_maxima(region, note.words[0], note.words[1], note.words[2]);
        case NotedCall::clear:
            return clear_region(region);
        case NotedCall::sethbdescript:
        case NotedCall::setnpdescript:
        case NotedCall::setfstdescript: {
            auto* const record = reinterpret_cast<shmnm_resource*>(region.base + described_record(region, note));
            return put_description(*record, note.data, static_cast<int32_t>(note.size));
        }
        default:
            return;
    }
}

}  // namespace shmnm
