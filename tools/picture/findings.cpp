#include "picture/findings.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <string_view>
#include <unordered_map>

#include "picture/escape.h"
#include "picture/interrupted.h"
#include "picture/overlaps.h"
#include "picture/words.h"
#include "shmnm.h"

namespace picture {
namespace {

/// A text field of a record. The library writes its first `room` bytes; the others stay zero.
struct TextField {
    const char* name;
    uint64_t offset, size, room;
    bool ends_in_room;  ///< a text that is too long is cut one byte short, for its NUL
};
/// A field that stays zero.
struct ReservedField {
    const char* name;
    uint64_t offset, size;
};
#define PICTURE_FIELD(record, member) #member, offsetof(record, member), sizeof(record::member)
constexpr TextField server_name{PICTURE_FIELD(shmnm_server, name), 256, true};
constexpr TextField resource_name{PICTURE_FIELD(shmnm_resource, name), 32, true};
constexpr TextField resource_type{PICTURE_FIELD(shmnm_resource, type), 32, true};
constexpr TextField pid_name{PICTURE_FIELD(shmnm_fst_pid, name), 256, false};

constexpr ReservedField header_reserved[] = {{PICTURE_FIELD(shmnm_header, reserved_64)}};
constexpr ReservedField server_reserved[] = {{PICTURE_FIELD(shmnm_server, reserved_272)},
                                             {PICTURE_FIELD(shmnm_server, reserved_292)}};
constexpr ReservedField resource_reserved[] = {{PICTURE_FIELD(shmnm_resource, reserved_552)}};
constexpr ReservedField fst_reserved[] = {{PICTURE_FIELD(shmnm_resource, name)},
                                          {PICTURE_FIELD(shmnm_resource, type)},
                                          {PICTURE_FIELD(shmnm_resource, pri)},
                                          {PICTURE_FIELD(shmnm_resource, reserved_552)}};
constexpr ReservedField pid_reserved[] = {{PICTURE_FIELD(shmnm_fst_pid, reserved_292)}};
#undef PICTURE_FIELD

/// What a text field holds.
struct Text {
    std::optional<std::string> bytes;  ///< none: it is wrong, or another table may own it
    bool may_be_cut = false;           ///< it has the greatest length: two long texts may have been cut to the same
    std::optional<Finding> wrong;      ///< its key still without the record's
};

class Search {
  public:
    explicit Search(const Snapshot& snapshot)
        : snapshot_(snapshot),
          header_counts_(snapshot.header_counts()),
          layout_(snapshot.counts),
          fits_(snapshot.bytes.size() == layout_.size),
          placed_(fits_ && header_counts_ == snapshot.counts) {
        std::memcpy(&header_, snapshot.bytes.data(), sizeof header_);
    }

    std::vector<Finding> run() {
        interrupted();
        maxima();
        header();
        servers();
        if (placed_) {
            const Owners owners(snapshot_.counts);
            for (const ResourceKind& kind : resource_kinds) resources(kind, owners.beside(kind));
            fst(owners.resources);
            fst_pids(owners.resources);
            network(owners.resources);
        }
        std::stable_sort(found_.begin(), found_.end(),
                         [](const Finding& a, const Finding& b) { return a.offset < b.offset; });
        return std::move(found_);
    }

  private:
    void add(uint64_t offset, std::string key, std::string expected, std::string found) {
        found_.push_back(
            {.offset = offset, .key = std::move(key), .expected = std::move(expected), .found = std::move(found)});
    }

    std::string size_of(const Counts& counts) const {
        const uint64_t size = Layout(counts).size;
        return size >= Layout::nowhere ? "beyond all memory" : fmt::format("{} bytes", size);
    }

    /// What a killed process has left, by its own note.
    void interrupted() {
        for (const Interrupted& one : interrupted_in(snapshot_)) {
            add(0, "region/changes", "whole changes", sentence(one));
            found_.back().can_be_completed = !one.superseded;
        }
    }

    void maxima() {
        const char* const held = snapshot_.live ? "mapping" : "file";
        if (!fits_) {
            add(offsetof(shmnm_header, max_servers), "header/maxima",
                fmt::format("those of a {} of {} bytes", held, snapshot_.mapped),
                fmt::format("{}: {}", to_text(header_counts_), size_of(header_counts_)));
        } else {
            const auto same = [&](const char* name, uint64_t offset, int32_t laid_out, int32_t in_header) {
                if (laid_out == in_header) return;
                add(offset, fmt::format("header/{}", name), fmt::format("{}, as the region is laid out", laid_out),
                    fmt::format("{}", in_header));
            };
            const Counts &laid_out = snapshot_.counts, &named = header_counts_;
            for (const ClusterWord& word : cluster_words) {
                if (word.count) same(word.key, word.source.offset(), laid_out.*word.count, named.*word.count);
            }
            same("fst_count", offsetof(shmnm_header, fst_count), laid_out.fst, named.fst);
        }
        const std::optional<Counts>& configured = snapshot_.configured;
        if (configured && !(fits_ && *configured == snapshot_.counts)) {
            add(0, "region/size", fmt::format("{} ({}), as configured", size_of(*configured), to_text(*configured)),
                fmt::format("{} bytes mapped", snapshot_.mapped));
        }
    }

    void header() {
        const Counts &laid_out = snapshot_.counts, &named = header_counts_;
        // A limit that agrees with a wrong maximum is not a finding of its own.
        const int64_t limit = pids_in_use.slots(laid_out);
        if (fits_ && header_.fst_pid_limit != limit && header_.fst_pid_limit != pids_in_use.slots(named)) {
            add(offsetof(shmnm_header, fst_pid_limit), "header/fst_pid_limit",
                fmt::format("{}, the servers times the fst resources", limit),
                fmt::format("{}", header_.fst_pid_limit));
        }
        for (const TableCount* const table : table_counts) {
            in_use(*table, std::max(table->slots(laid_out), table->slots(named)));
        }
        reserved_fields(0, header_reserved, "header");
    }

    void in_use(const TableCount& table, int64_t maximum) {
        const int32_t count = header_.*table.count;
        if (count >= 0 && (count <= maximum || !fits_)) return;
        add(HeaderSource(table.count).offset(), fmt::format("header/{}", table.key),
            fits_ ? fmt::format("0 to {}", maximum) : std::string("0 or more"), fmt::format("{}", count));
    }

    static constexpr const char* free_slot = "zeros, as in every free slot";
    static constexpr const char* after_slots = "zeros after the last slot";

    /// Finds a byte that is not zero, at most one.
    void zero(uint64_t offset, uint64_t size, std::string key, const char* expected, const Ranges& except = {}) {
        if (const auto at = first_not_zero(offset, offset + size, except)) {
            add(*at, std::move(key), expected, byte(*at));
        }
    }
    template <size_t count>
    void reserved_fields(uint64_t record, const ReservedField (&fields)[count], const std::string& key,
                         const Ranges& except = {}) {
        for (const ReservedField& field : fields) {
            zero(record + field.offset, field.size, key + "/" + field.name, "zeros, as in every reserved field",
                 except);
        }
    }
    std::string byte(uint64_t at) const { return fmt::format("0x{:02X}", snapshot_.bytes[at]); }

    std::optional<uint64_t> first_not_zero(uint64_t begin, uint64_t end, const Ranges& except) const {
        end = std::min<uint64_t>(end, snapshot_.bytes.size());
        for (const Range& range : except) {
            if (range.begin >= end) break;
            if (const auto at = first_not_zero(begin, range.begin)) return at;
            begin = std::max(begin, range.end);
        }
        return first_not_zero(begin, end);
    }
    std::optional<uint64_t> first_not_zero(uint64_t begin, uint64_t end) const {
        static constexpr uint8_t zeros[1024] = {};
        const uint8_t* const bytes = snapshot_.bytes.data();
        for (uint64_t size; begin < end; begin += size) {
            size = std::min<uint64_t>(end - begin, sizeof zeros);
            if (std::memcmp(bytes + begin, zeros, size) == 0) continue;
            while (bytes[begin] == 0) ++begin;
            return begin;
        }
        return std::nullopt;
    }

    Text text(uint64_t record, const TextField& field, const Ranges& doubtful) const {
        const uint64_t at = record + field.offset, end = at + field.size;
        Text text;
        const auto wrong = [&](uint64_t offset, std::string expected, std::string found) {
            text.wrong = Finding{offset, field.name, std::move(expected), std::move(found)};
        };
        uint64_t length = field.room;
        if (!touches(doubtful, at, at + field.room)) {
            const uint64_t whole = snapshot_.text(at, field.size).size();
            if (whole >= field.room && field.ends_in_room) {
                wrong(at, fmt::format("a NUL within {} bytes", field.room),
                      fmt::format("{} bytes without a NUL", whole));
                return text;
            }
            if (whole == 0) {
                wrong(at, "a text", empty_text);
                return text;
            }
            length = whole;
            text.may_be_cut = length == field.room - (field.ends_in_room ? 1 : 0);
            text.bytes = snapshot_.text(at, field.size);
        }
        if (const auto rest = first_not_zero(at + length, end, doubtful)) {
            wrong(*rest, "zeros after the text", byte(*rest));
        }
        return text;
    }
    void add(const std::string& record, const Text& text) {
        if (!text.wrong) return;
        add(text.wrong->offset, record + "/" + text.wrong->key, text.wrong->expected, text.wrong->found);
    }

    /// The names of a table, each once.
    using Names = std::unordered_map<std::string, int32_t>;

    /// Enters a name that is not allowed twice. Returns the position where it was before, or its own.
    static int32_t first_with(Names& names, const std::string& name, bool cut, int32_t position) {
        return cut ? position : names.emplace(name, position).first->second;
    }

    void servers() {
        const int32_t count = header_.server_count;
        if (count < 0 || count > snapshot_.counts.servers) return;
        Names names;
        for (int32_t i = 0; i < count; ++i) {
            const uint64_t at = layout_.servers + sizeof(shmnm_server) * static_cast<uint64_t>(i);
            if (!snapshot_.holds(at, sizeof(shmnm_server))) return;
            server(at, i, names);
        }
        if (!fits_ || snapshot_.counts.servers != header_counts_.servers) return;
        free_slots("servers", layout_.servers, sizeof(shmnm_server), count, snapshot_.counts.servers, {});
    }
    void server(uint64_t at, int32_t position, Names& names) {
        std::string key = fmt::format("servers[{}]", position);
        const Text name = text(at, server_name, {});
        if (name.bytes) {
            const int32_t first = first_with(names, *name.bytes, name.may_be_cut, position);
            if (first != position) {
                add(at, key + "/name", "a name of its own", fmt::format("the name of servers[{}]", first));
            } else {
                key = "servers/" + escaped(*name.bytes);
            }
        }
        add(key, name);
        reserved_fields(at, server_reserved, key);
    }

    /// Slots that lie in the copy: of tables without servers there may be more.
    int32_t slots_held(uint64_t start, uint64_t step, int32_t slots) const {
        const uint64_t size = snapshot_.bytes.size();
        const uint64_t held = start < size ? (size - start + step - 1) / step : 0;
        return static_cast<int32_t>(std::min<uint64_t>(held, static_cast<uint64_t>(slots)));
    }

    void free_slots(const char* table, uint64_t start, uint64_t step, int32_t count, int32_t slots,
                    const Ranges& except) {
        for (int32_t i = count; i < slots_held(start, step, slots); ++i) {
            zero(start + step * static_cast<uint64_t>(i), step, fmt::format("{}[{}]", table, i), free_slot, except);
        }
    }

    void resources(const ResourceKind& kind, const Ranges& others) {
        const char* const table = kind.key;
        const uint64_t start = layout_.*kind.table, end = layout_.*kind.end;
        const int32_t count = header_.*kind.in_use->count, slots = snapshot_.counts.*kind.count;
        const uint64_t step = resource_step(snapshot_.counts);
        const int32_t held = slots_held(start, step, slots);
        const Slots places(start, step, static_cast<uint64_t>(held), others);
        if (count >= 0 && count <= slots) {
            Names names;
            for (int32_t i = 0; i < std::min(count, held); ++i) {
                resource(table, places.at(i), i, places.doubtful(i), names);
            }
            free_slots(table, start, step, count, slots, places.shared());
        }
        const uint64_t used = places.at(held);
        if (used < end) zero(used, end - used, fmt::format("{}/rest", table), after_slots);
    }
    void resource(const char* table, uint64_t at, int32_t position, const Ranges& doubtful, Names& names) {
        std::string key = fmt::format("{}[{}]", table, position);
        const Text name = text(at, resource_name, doubtful), type = text(at, resource_type, doubtful);
        if (name.bytes && type.bytes) {
            std::string both = *type.bytes;
            both += '\0';
            both += *name.bytes;
            const int32_t first = first_with(names, both, name.may_be_cut || type.may_be_cut, position);
            if (first != position) {
                add(at, key + "/name", "a type and a name of its own", fmt::format("those of {}[{}]", table, first));
            } else {
                key = fmt::format("{}/{}/{}", table, escaped(*type.bytes), escaped(*name.bytes));
            }
        }
        add(key, name);
        add(key, type);
        reserved_fields(at, resource_reserved, key, doubtful);
    }

    void fst(const Ranges& others) {
        const int32_t slots = snapshot_.counts.fst;
        const Ranges shared = intersections({layout_.fst, layout_.fst_pids}, others);
        if (slots > 0) reserved_fields(layout_.fst, fst_reserved, "fst[0]", shared);
        free_slots("fst", layout_.fst, record_size, 1, slots, shared);
    }

    void fst_pids(const Ranges& others) {
        const int32_t count = header_.fst_pid_count;
        const int64_t slots = pids_in_use.slots(snapshot_.counts);
        if (count < 0 || count > slots) return;
        const Ranges shared = intersections({layout_.fst_pids, layout_.network}, others);
        Names names;
        for (int32_t i = 0; i < count; ++i) {
            fst_pid(layout_.fst_pids + sizeof(shmnm_fst_pid) * static_cast<uint64_t>(i), i, shared, names);
        }
        free_slots("fst/pids", layout_.fst_pids, sizeof(shmnm_fst_pid), count, static_cast<int32_t>(slots), shared);
    }
    void fst_pid(uint64_t at, int32_t position, const Ranges& shared, Names& names) {
        std::string key = fmt::format("fst/pids[{}]", position);
        const Text name = text(at, pid_name, shared);
        if (name.bytes) {
            const int32_t first = first_with(names, *name.bytes, name.may_be_cut, position);
            if (first != position) {
                add(at, key + "/name", "a name of its own", fmt::format("the name of fst/pids[{}]", first));
            } else {
                key = "fst/pids/" + escaped(*name.bytes);
            }
        }
        add(key, name);
        reserved_fields(at, pid_reserved, key, shared);
    }

    void network(const Ranges& others) {
        const uint64_t row = word_size * static_cast<uint64_t>(snapshot_.counts.servers);
        const uint64_t used = layout_.network + row * static_cast<uint64_t>(snapshot_.counts.hb);
        zero(used, layout_.size - used, "network/rest", "zeros after the last row",
             intersections({used, layout_.size}, others));
    }

    const Snapshot& snapshot_;
    const Counts header_counts_;
    const Layout layout_;
    const bool fits_;    ///< the copy is as large as the counts say
    const bool placed_;  ///< and the header names these counts: it is known where everything lies
    shmnm_header header_;
    std::vector<Finding> found_;
};

}  // namespace

std::vector<Finding> findings(const Snapshot& snapshot) {
    return Search(snapshot).run();
}

}  // namespace picture
