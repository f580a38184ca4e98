// The words of the picture, each once: its key, the member of the record that holds it, how the library sets it, how it
// is shown and what it means. Keys, JSON, the columns of tables, assignments, help and the manual are made from these
// tables: a new word is one new line here.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <variant>
#include <vector>

#include "note.h"
#include "picture/layout.h"
#include "picture/library.h"
#include "picture/picture.h"
#include "picture/value.h"
#include "shmnm.h"

namespace picture {

/// Where the value of a word comes from: a member of the record in a part of the picture, or a function that computes
/// it from the part.
template <auto record>
class Source;

template <typename Part, typename Record, Record Part::*record>
class Source<record> {
  public:
    constexpr Source(uint32_t Record::*word) : word_(word) {}
    constexpr Source(int32_t Record::*number) : number_(number) {}
    constexpr Source(Value (*compute)(const Part&)) : compute_(compute) {}
    constexpr Source(bool (*test)(const Part&)) : test_(test) {}
    /// A number that is shown as unsigned.
    static constexpr Source without_sign(int32_t Record::*number) {
        Source source(number);
        source.has_sign_ = false;
        return source;
    }

    Value value(const Part& part) const {
        if (test_) return uint32_t{test_(part)};
        if (compute_) return compute_(part);
        if (word_) return part.*record.*word_;
        const int32_t number = part.*record.*number_;
        return has_sign_ ? Value(number) : Value(static_cast<uint32_t>(number));
    }
    /// What the word can be in any region.
    Values values() const {
        if (test_) return {uint32_t{0}, uint32_t{1}};
        if (compute_) return {any_word.least, any_word.most, true};
        return number_ && has_sign_ ? any_number : any_word;
    }
    /// Whether the value follows from other words.
    constexpr bool is_computed() const { return !word_ && !number_; }
    /// Puts a value into the member of a word that is not computed. @return false: it does not fit
    bool put(Part& part, const Value& value) const {
        if (word_) return stored(part.*record.*word_, value.to_uint32());
        return has_sign_ ? stored(part.*record.*number_, value.to_int32())
                         : stored(part.*record.*number_, value.to_uint32());
    }
    /// Whether the value is a yes or no.
    constexpr bool is_flag() const { return test_ != nullptr; }
    /// The member, if it has a sign in the record.
    constexpr int32_t Record::*number() const { return number_; }
    /// In the record, in bytes; 0 for a computed word.
    uint64_t offset() const {
        static const Record origin{};
        if (!word_ && !number_) return 0;
        const void* const member = word_ ? static_cast<const void*>(&(origin.*word_)) : &(origin.*number_);
        return static_cast<uint64_t>(static_cast<const char*>(member) - reinterpret_cast<const char*>(&origin));
    }

  private:
    template <typename Number, typename Given>
    static bool stored(Number& number, std::optional<Given> given) {
        if (given) number = static_cast<Number>(*given);
        return given.has_value();
    }

    uint32_t Record::*word_ = nullptr;
    int32_t Record::*number_ = nullptr;
    Value (*compute_)(const Part&) = nullptr;
    bool (*test_)(const Part&) = nullptr;
    bool has_sign_ = true;
};

// How a word is set, if not by a call for it alone.
struct Computed {};      ///< from other words
struct BySimulation {};  ///< a simulation sets it

/// A call that sets several numbers of the header at once, each to 1 or more.
template <typename... Numbers>
struct Joint {
    Call<Numbers...> function;
    std::array<int32_t shmnm_header::*, sizeof...(Numbers)> numbers;
};
using Pair = Joint<int32_t, int32_t>;
using Triple = Joint<int32_t, int32_t, int32_t>;

using HeaderSource = Source<&Picture::header>;

struct ClusterWord {
    const char* key;
    HeaderSource source;
    std::variant<Computed, BySimulation, const Pair*, const Triple*, Call<uint32_t>> set;
    const char* help;
    int32_t Counts::*count = nullptr;  ///< of a maximum: the region's count that it sets

    /// Whether it is shown as a state of the cluster.
    constexpr bool is_state() const { return !count && !std::holds_alternative<BySimulation>(set); }
};

struct ServerWord {
    const char* key;
    Source<&Server::record> source;
    std::variant<Computed, BySimulation, Call<const char*, uint32_t>, Call<const char*, int32_t>> set;
    const char* heading;  ///< of its column in text; null if it has none
    const char* help;
    bool has_key = true;
};

struct ResourceKind;

/// A word of an hb or np resource. Its key is also the heading of its column.
struct ResourceWord {
    const char* key;
    Source<&Resource::record> source;
    Call<const char*, const char*, uint32_t> ResourceKind::*set;
    const char* help;
};

/// A row of words of an hb or np resource, one word per server.
struct RowWord {
    const char* key;
    Row Resource::*row;
    Call<const char*, const char*, int32_t, uint32_t> ResourceKind::*set;  ///< null in a kind without such a row
    const char* help;
};

/// How many records of a table are in use.
struct TableCount {
    const char* key;      ///< of the header's count, in JSON and in findings
    const char* heading;  ///< in text
    int32_t shmnm_header::*count;
    int32_t shmnm_header::*limit;
    int64_t (*slots)(const Counts& counts);  ///< of a region that is laid out by these counts
};

/// A word of the bridge between machines.
struct BridgeWord {
    const char* key;
    Value (*value)(const Bridge& bridge);
    Values values;
    const char* help;
    bool is_flag = false;
};

/// A word of the bridge's mark of a server.
struct MarkWord {
    const char* key;
    Value (*value)(const bridge::Mark& mark);
    Values values;
    const char* help;
    bool moves = false;  ///< all the time, so its changes are not told
};

/// A function of the library that leaves a note of its change.
struct NotedFunction {
    shmnm::NotedCall call;
    const char* name;
};

/// Everything that differs between hb resources and np resources.
struct ResourceKind {
    const char* key;
    std::vector<Resource> Picture::*resources;
    const TableCount* in_use;
    int32_t Counts::*count;
    uint64_t Layout::*table;
    uint64_t Layout::*end;  ///< where the next area starts
    Call<const char*, const char*, uint32_t> add;
    Call<const char*, const char*> remove;
    Call<const char*, const char*, uint32_t> set_priority, set_state;
    Call<const char*, const char*, int32_t, uint32_t> set_server_state;
    Call<const char*, const char*, int32_t, uint32_t> set_network_state;  ///< null: there are no network-wide states
    Call<const char*, const char*, const void*, int32_t> describe;
    NotedFunction noted_add, noted_remove, noted_open_column, noted_close_column, noted_describe, noted_set_states;
};

struct FstWord {
    const char* key;
    Source<&Fst::record> source;
    Call<uint32_t> set;
    const char* help;
};

/// A word of a record of process ids, one per kind (0 to 2). The library sets a process id and its data together.
struct PidWord {
    const char* key;
    const char* member;  ///< of the record, and in JSON
    std::variant<std::array<uint32_t, 3> FstPid::*, std::array<uint64_t, 3> FstPid::*> values;
    uint64_t offset;      ///< of the first in the record
    const char* heading;  ///< of its columns in text, before the kind
    const char* help;

    Value value(const FstPid& record, size_t kind) const {
        return std::visit([&](const auto& member_values) { return Value((record.*member_values)[kind]); }, values);
    }
    uint64_t size() const { return std::holds_alternative<std::array<uint32_t, 3> FstPid::*>(values) ? 4 : 8; }
};

/// The numbers that a word takes, by what the library's call takes; "" where nothing sets it.
inline constexpr const char* range_of_words = "0 to 4294967295";
inline constexpr const char* range_of_numbers = "-2147483648 to 2147483647";
inline constexpr const char* range_of_maxima = "1 to 2147483647";
inline constexpr const char* range_of_long_words = "0 to 18446744073709551615";
constexpr const char* range(Computed) {
    return "";
}
constexpr const char* range(BySimulation) {
    return "";
}
constexpr const char* range(const Pair*) {
    return range_of_maxima;
}
constexpr const char* range(const Triple*) {
    return range_of_maxima;
}
constexpr const char* range(Call<uint32_t>) {
    return range_of_words;
}
constexpr const char* range(Call<const char*, uint32_t>) {
    return range_of_words;
}
constexpr const char* range(Call<const char*, int32_t>) {
    return range_of_numbers;
}

inline bool is_any_alive(const Picture& picture) {
    return picture.is_any_alive();
}
inline bool is_alive(const Server& server) {
    return server.is_alive();
}
inline Value combined(const Server& server) {
    return server.combstat;
}

// One line for each word.
// clang-format off
inline constexpr Pair hbinfo{&Library::shmnm_sethbinfo_ex, {&shmnm_header::hbinfo_a, &shmnm_header::hbinfo_b}};
inline constexpr Triple maxima{&Library::shmnm_setmaxvalue_ex,
                               {&shmnm_header::max_servers, &shmnm_header::max_hb, &shmnm_header::max_np}};

inline constexpr ClusterWord cluster_words[] = {
    {"waitstat",    &shmnm_header::waitstat,   &Library::shmnm_setwaitstat,   "state; combstat depends on it"},
    {"bwflag",      &shmnm_header::bwflag,     &Library::shmnm_setbwflag,     "state"},
    {"bwflagdisk",  &shmnm_header::bwflagdisk, &Library::shmnm_setbwflagdisk, "state"},
    {"clstat",      &shmnm_header::clstat,     &Library::shmnm_setclstat,     "state"},
    {"hbinfo_a",    HeaderSource::without_sign(hbinfo.numbers[0]), &hbinfo, "1 or more; set together with hbinfo_b"},
    {"hbinfo_b",    HeaderSource::without_sign(hbinfo.numbers[1]), &hbinfo, "1 or more; set together with hbinfo_a"},
    {"max_servers", HeaderSource::without_sign(maxima.numbers[0]), &maxima, "most servers; the maxima are set together",
                    &Counts::servers},
    {"max_hb",      HeaderSource::without_sign(maxima.numbers[1]), &maxima, "most hb resources", &Counts::hb},
    {"max_np",      HeaderSource::without_sign(maxima.numbers[2]), &maxima, "most np resources", &Counts::np},
    {"dfailstatus", &shmnm_header::dfailstatus, BySimulation{}, "1 while a network partition is simulated"},
    {"alive",       is_any_alive,               Computed{},     "1 while any server is alive"},
};

inline constexpr ServerWord server_words[] = {
    {"pri",            &shmnm_server::pri,            &Library::shmnm_modifynode, "pri", "priority, by which rows find it"},
    {"nodestat",       &shmnm_server::nodestat,       &Library::shmnm_setnodestat, "node", "state; 1: alive"},
    {"nodestat_nw",    &shmnm_server::nodestat_nw,    &Library::shmnm_setnodestat_nw, "node_nw", "network-wide state"},
    {"downnotifystat", &shmnm_server::downnotifystat, &Library::shmnm_setdownnotifystat, "downnotify", "state"},
    {"isolateflag",    &shmnm_server::isolateflag,    &Library::shmnm_setisolateflag, "isolate", "state; combstat depends on it"},
    {"pingstat",       &shmnm_server::pingstat,       &Library::shmnm_setpingstat, "ping", "state"},
    {"holdstat",       &shmnm_server::holdstat,       &Library::shmnm_setholdstat, "hold", "state"},
    {"dfailstatus",    &shmnm_server::dfailstatus,    BySimulation{}, nullptr, "1 while its failure is simulated"},
    {"combstat",       combined,                      Computed{}, "comb", "follows from nodestat, isolateflag and waitstat"},
    {"alive",          is_alive,                      Computed{}, "alive", "whether nodestat is 1", false},
};

inline constexpr ResourceWord resource_words[] = {
    {"pri",  &shmnm_resource::pri,  &ResourceKind::set_priority, "priority"},
    {"stat", &shmnm_resource::stat, &ResourceKind::set_state,    "state"},
};

inline constexpr RowWord row_words[] = {
    {"svstat",  &Resource::svstat,  &ResourceKind::set_server_state,  "state on a server"},
    {"network", &Resource::network, &ResourceKind::set_network_state, "network-wide state on a server"},
};

inline constexpr FstWord fst_words[] = {
    {"stat", &shmnm_resource::stat, &Library::shmnm_setfstrscstat, "state"},
};

inline constexpr PidWord pid_words[] = {
    {"pids",    "pid",     &FstPid::pid,     offsetof(shmnm_fst_pid, pid),     "",      "process id of a kind, 0 to 2"},
    {"piddata", "piddata", &FstPid::piddata, offsetof(shmnm_fst_pid, piddata), "data ", "64-bit value beside a process id"},
};

inline const Values yes_or_no{uint32_t{0}, uint32_t{1}};
inline const Values any_age{uint64_t{0}, uint64_t{INT64_MAX}, true};

inline const BridgeWord bridge_words[] = {
    {"up",        [](const Bridge& bridge) { return Value(uint32_t{bridge.is_up}); }, yes_or_no,
                  "1 while a bridge runs here and writes its marks", true},
    {"connected", [](const Bridge& bridge) { return Value(uint32_t{bridge.marks.is_connected}); }, yes_or_no,
                  "1 while what the bridge knows of the other machines is current", true},
    {"running",   [](const Bridge& bridge) { return Value(uint32_t{bridge.marks.is_running}); }, yes_or_no,
                  "1 while the bridge has claimed this machine's name", true},
    {"refused",   [](const Bridge& bridge) { return Value(uint32_t{bridge.marks.is_refused}); }, yes_or_no,
                  "1 while another machine has this machine's name", true},
    {"fed",       [](const Bridge& bridge) { return Value(uint32_t{bridge.marks.is_fed}); }, yes_or_no,
                  "1 while the bridge sets the other machines' words here", true},
    {"contested", [](const Bridge& bridge) { return Value(uint64_t{bridge.marks.contested.size()}); }, any_long_word,
                  "words that are left alone: a process here overwrites them"},
    {"unmatched", [](const Bridge& bridge) { return Value(uint64_t{bridge.marks.unmatched.size()}); }, any_long_word,
                  "records that only other machines have"},
    {"proposed",  [](const Bridge& bridge) { return Value(bridge.marks.agreed.proposed); }, any_long_word,
                  "changes of agreed words that were proposed to all machines"},
    {"accepted",  [](const Bridge& bridge) { return Value(bridge.marks.agreed.accepted); }, any_long_word,
                  "proposals that were accepted"},
    {"lost",      [](const Bridge& bridge) { return Value(bridge.marks.agreed.lost); }, any_long_word,
                  "proposals that another machine's value came before"},
    {"replaced",  [](const Bridge& bridge) { return Value(bridge.marks.agreed.replaced); }, any_long_word,
                  "values of a new region for which the cluster's were taken"},
};

inline const MarkWord mark_words[] = {
    {"freshness", [](const bridge::Mark& mark) { return Value(static_cast<uint32_t>(mark.freshness)); },
                  {uint32_t{0}, uint32_t{2}}, "0 unknown, 1 fresh, 2 silent"},
    {"age_ms",    [](const bridge::Mark& mark) {
                      // branch: taken in the tests' own copy of this inline function, which is not counted
                      return mark.age < 0 ? Value() : Value(static_cast<uint64_t>(mark.age));
                  }, any_age, "its words here are at most so old; none: not known", true},
    {"revision",  [](const bridge::Mark& mark) { return Value(mark.sequence); }, any_long_word,
                  "the number of its last state", true},
    {"claimed",   [](const bridge::Mark& mark) { return Value(uint32_t{mark.is_claimed}); }, yes_or_no,
                  "1 while a bridge has this name"},
};

inline constexpr TableCount servers_in_use{"server_count", "servers",
                                           &shmnm_header::server_count, &shmnm_header::max_servers,
                                           [](const Counts& counts) { return int64_t{counts.servers}; }};
inline constexpr TableCount hb_in_use{"hb_count", "hb",
                                      &shmnm_header::hb_count, &shmnm_header::max_hb,
                                      [](const Counts& counts) { return int64_t{counts.hb}; }};
inline constexpr TableCount np_in_use{"np_count", "np",
                                      &shmnm_header::np_count, &shmnm_header::max_np,
                                      [](const Counts& counts) { return int64_t{counts.np}; }};
inline constexpr TableCount pids_in_use{"fst_pid_count", "process ids",
                                        &shmnm_header::fst_pid_count, &shmnm_header::fst_pid_limit,
                                        [](const Counts& counts) { return int64_t{counts.servers} * counts.fst; }};
inline constexpr const TableCount* table_counts[] = {&servers_in_use, &hb_in_use, &np_in_use, &pids_in_use};

inline constexpr ResourceKind resource_kinds[] = {
    {"hb", &Picture::hb, &hb_in_use, &Counts::hb, &Layout::hb, &Layout::np,
           &Library::shmnm_addhbrsc, &Library::shmnm_rmhbrsc, &Library::shmnm_modifyhbrsc, &Library::shmnm_sethbrscstat,
           &Library::shmnm_sethbrscsvstat, &Library::shmnm_setrscsvstat_nw, &Library::shmnm_sethbdescript,
           {shmnm::NotedCall::addhbrsc,       "shmnm_addhbrsc"},
           {shmnm::NotedCall::rmhbrsc,        "shmnm_rmhbrsc"},
           {shmnm::NotedCall::addhbrscsvstat, "shmnm_addhbrscsvstat"},
           {shmnm::NotedCall::rmhbrscsvstat,  "shmnm_rmhbrscsvstat"},
           {shmnm::NotedCall::sethbdescript,  "shmnm_sethbdescript"},
           {shmnm::NotedCall::settypehbstat,  "shmnm_settypehbstat"}},
    {"np", &Picture::np, &np_in_use, &Counts::np, &Layout::np, &Layout::fst,
           &Library::shmnm_addnprsc, &Library::shmnm_rmnprsc, &Library::shmnm_modifynprsc, &Library::shmnm_setnprscstat,
           &Library::shmnm_setnprscsvstat, nullptr, &Library::shmnm_setnpdescript,
           {shmnm::NotedCall::addnprsc,       "shmnm_addnprsc"},
           {shmnm::NotedCall::rmnprsc,        "shmnm_rmnprsc"},
           {shmnm::NotedCall::addnprscsvstat, "shmnm_addnprscsvstat"},
           {shmnm::NotedCall::rmnprscsvstat,  "shmnm_rmnprscsvstat"},
           {shmnm::NotedCall::setnpdescript,  "shmnm_setnpdescript"},
           {shmnm::NotedCall::settypenpstat,  "shmnm_settypenpstat"}},
};
// clang-format on

/// The table's entry with a key; null if there is none.
template <typename Entry, size_t size>
constexpr const Entry* entry(const Entry (&table)[size], std::string_view key) {
    for (const Entry& each : table) {
        if (key == each.key) return &each;
    }
    return nullptr;
}

}  // namespace picture
