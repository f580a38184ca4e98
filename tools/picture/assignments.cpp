#include "picture/assignments.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <map>
#include <memory>
#include <set>

#include "picture/error.h"
#include "picture/escape.h"
#include "picture/library.h"

namespace picture {
namespace {

using SetWord = uint32_t (*)(uint32_t);
using SetServerWord = uint32_t (*)(const char*, uint32_t);
using SetResourceWord = uint32_t (*)(const char*, const char*, uint32_t);
using SetPairWord = uint32_t (*)(const char*, const char*, int32_t, uint32_t);

[[noreturn]] void refuse(ErrorKind kind, const std::string& key, const std::string& why) {
    throw Error(kind, fmt::format("cannot set {}: {}", printable(key), why));
}

[[noreturn]] void does_not_fit(const Assignment& assignment, const char* range) {
    throw Error(ErrorKind::invalid, fmt::format("invalid value \"{}\" for {}: use {}", assignment.value.to_text(),
                                                printable(assignment.key), range));
}

[[noreturn]] void refuse_unsettable(const std::string& key, const std::string& word) {
    if (word == "dfailstatus") refuse(ErrorKind::set_by_simulation, key, "only a simulation sets it");
    refuse(ErrorKind::refused, key, "it follows from other words");
}

uint32_t word_of(const Assignment& assignment) {
    const auto value = assignment.value.to_uint32();
    if (!value) does_not_fit(assignment, "0 to 4294967295");
    return *value;
}

int32_t positive_of(const Assignment& assignment) {
    const auto value = assignment.value.to_int32();
    if (!value || *value < 1) does_not_fit(assignment, "1 to 2147483647");
    return *value;
}

/// Turns assignments into steps. What the library sets together is collected and set once.
class Planner {
  public:
    explicit Planner(const Picture& picture)
        : picture_(picture),
          words_(words(picture)),
          hbinfo_{picture.header.hbinfo_a, picture.header.hbinfo_b},
          maxima_{picture.header.max_servers, picture.header.max_hb, picture.header.max_np} {
        for (const Word& word : words_) keys_.insert(word.key);
        for (const FstPid& record : picture.fst_pids) pids_.emplace(record.name, record);
    }

    void add(const Assignment& assignment) {
        if (!keys_.contains(assignment.key)) {
            throw Error(ErrorKind::no_such_key,
                        fmt::format("nothing was set: there is no key {}", printable(assignment.key)));
        }
        const std::vector<std::string> part = parts(assignment.key);
        if (part[0] == "cluster") {
            add_cluster(assignment, part[1]);
        } else if (part[0] == "servers") {
            add_server(assignment, name(part[1]), part[2]);
        } else if (part[0] == "hb" || part[0] == "np") {
            add_resource(assignment, part);
        } else {
            add_fst(assignment, part);
        }
    }

    std::vector<Step> take() {
        if (hbinfo_set_) {
            for (const int32_t value : hbinfo_) {
                if (value < 1) {
                    refuse(ErrorKind::set_together, "cluster/hbinfo_a",
                           "hbinfo_a and hbinfo_b are set together, each to at least 1");
                }
            }
            step("shmnm_sethbinfo_ex", [pair = hbinfo_] { return library().shmnm_sethbinfo_ex(pair[0], pair[1]); });
        }
        if (maxima_set_) {
            for (const int32_t value : maxima_) {
                if (value < 1) {
                    refuse(ErrorKind::set_together, "cluster/max_servers",
                           "max_servers, max_hb and max_np are set together, each to at least 1");
                }
            }
            step("shmnm_setmaxvalue_ex",
                 [all = maxima_] { return library().shmnm_setmaxvalue_ex(all[0], all[1], all[2]); });
        }
        return std::move(steps_);
    }

  private:
    static std::string name(const std::string& part) { return unescaped(part).value_or(""); }

    void step(const char* function, std::function<uint32_t()> call) { steps_.push_back({function, std::move(call)}); }

    void add_cluster(const Assignment& assignment, const std::string& word) {
        const Library& calls = library();
        const std::map<std::string, std::pair<const char*, SetWord>> setters = {
            {"waitstat", {"shmnm_setwaitstat", calls.shmnm_setwaitstat}},
            {"bwflag", {"shmnm_setbwflag", calls.shmnm_setbwflag}},
            {"bwflagdisk", {"shmnm_setbwflagdisk", calls.shmnm_setbwflagdisk}},
            {"clstat", {"shmnm_setclstat", calls.shmnm_setclstat}}};
        const std::map<std::string, size_t> hbinfo = {{"hbinfo_a", 0}, {"hbinfo_b", 1}};
        const std::map<std::string, size_t> maxima = {{"max_servers", 0}, {"max_hb", 1}, {"max_np", 2}};
        if (const auto setter = setters.find(word); setter != setters.end()) {
            const auto [function, set] = setter->second;
            step(function, [set = set, value = word_of(assignment)] { return set(value); });
        } else if (const auto place = hbinfo.find(word); place != hbinfo.end()) {
            hbinfo_[place->second] = positive_of(assignment);
            hbinfo_set_ = true;
        } else if (const auto maximum = maxima.find(word); maximum != maxima.end()) {
            maxima_[maximum->second] = positive_of(assignment);
            maxima_set_ = true;
        } else {
            refuse_unsettable(assignment.key, word);
        }
    }

    void add_server(const Assignment& assignment, const std::string& server, const std::string& word) {
        const Library& calls = library();
        const std::map<std::string, std::pair<const char*, SetServerWord>> setters = {
            {"nodestat", {"shmnm_setnodestat", calls.shmnm_setnodestat}},
            {"nodestat_nw", {"shmnm_setnodestat_nw", calls.shmnm_setnodestat_nw}},
            {"downnotifystat", {"shmnm_setdownnotifystat", calls.shmnm_setdownnotifystat}},
            {"isolateflag", {"shmnm_setisolateflag", calls.shmnm_setisolateflag}},
            {"pingstat", {"shmnm_setpingstat", calls.shmnm_setpingstat}},
            {"holdstat", {"shmnm_setholdstat", calls.shmnm_setholdstat}}};
        if (word == "pri") {
            const auto pri = assignment.value.to_int32();
            if (!pri) does_not_fit(assignment, "-2147483648 to 2147483647");
            step("shmnm_modifynode", [server, pri = *pri] { return library().shmnm_modifynode(server.c_str(), pri); });
        } else if (const auto setter = setters.find(word); setter != setters.end()) {
            const auto [function, set] = setter->second;
            step(function, [set = set, server, value = word_of(assignment)] { return set(server.c_str(), value); });
        } else {
            refuse_unsettable(assignment.key, word);
        }
    }

    /// The priority by which the library finds a server; refused where it would find another one.
    int32_t svid(const Assignment& assignment, const std::string& server) const {
        const auto named = std::find_if(picture_.servers.begin(), picture_.servers.end(),
                                        [&](const Server& one) { return one.name == server; });
        const auto found = std::find_if(picture_.servers.begin(), picture_.servers.end(),
                                        [&](const Server& one) { return one.pri == named->pri; });
        if (found != named) {
            refuse(ErrorKind::shared_priority, assignment.key,
                   fmt::format("the library finds servers by priority here, and {} has the same priority, {}",
                               escaped(found->name), found->pri));
        }
        return named->pri;
    }

    void add_resource(const Assignment& assignment, const std::vector<std::string>& part) {
        const Library& calls = library();
        const bool hb = part[0] == "hb";
        const std::string type = name(part[1]), resource = name(part[2]);
        const std::string& word = part[3];
        const uint32_t value = word_of(assignment);
        if (word == "pri" || word == "stat") {
            const auto [function, set] = word == "pri"
                                             ? (hb ? std::pair{"shmnm_modifyhbrsc", calls.shmnm_modifyhbrsc}
                                                   : std::pair{"shmnm_modifynprsc", calls.shmnm_modifynprsc})
                                             : (hb ? std::pair{"shmnm_sethbrscstat", calls.shmnm_sethbrscstat}
                                                   : std::pair{"shmnm_setnprscstat", calls.shmnm_setnprscstat});
            const SetResourceWord setter = set;
            step(function, [=] { return setter(type.c_str(), resource.c_str(), value); });
        } else {
            const auto [function, set] = word == "network"
                                             ? std::pair{"shmnm_setrscsvstat_nw", calls.shmnm_setrscsvstat_nw}
                                         : hb ? std::pair{"shmnm_sethbrscsvstat", calls.shmnm_sethbrscsvstat}
                                              : std::pair{"shmnm_setnprscsvstat", calls.shmnm_setnprscsvstat};
            const SetPairWord setter = set;
            const int32_t server = svid(assignment, name(part[4]));
            step(function, [=] { return setter(type.c_str(), resource.c_str(), server, value); });
        }
    }

    void add_fst(const Assignment& assignment, const std::vector<std::string>& part) {
        if (part[1] == "stat") {
            step("shmnm_setfstrscstat", [value = word_of(assignment)] { return library().shmnm_setfstrscstat(value); });
            return;
        }
        if (picture_.header.fst_pid_count >= picture_.header.fst_pid_limit) {
            refuse(ErrorKind::refused, assignment.key,
                   "the table of process ids is full, and the library then refuses updates too");
        }
        const std::string holder = name(part[2]);
        const auto kind = static_cast<size_t>(part[3][0] - '0');
        FstPid& record = pids_.at(holder);
        if (part[1] == "pids") {
            record.pid[kind] = word_of(assignment);
        } else if (const auto value = assignment.value.to_uint64()) {
            record.piddata[kind] = *value;
        } else {
            does_not_fit(assignment, "0 to 18446744073709551615");
        }
        step("shmnm_setfstrscpid", [=, pid = record.pid[kind], data = record.piddata[kind]] {
            return library().shmnm_setfstrscpid(holder.c_str(), static_cast<int32_t>(kind), pid, data);
        });
    }

    const Picture& picture_;
    std::vector<Word> words_;
    std::set<std::string> keys_;
    std::map<std::string, FstPid> pids_;  ///< as they will be
    std::array<int32_t, 2> hbinfo_;
    std::array<int32_t, 3> maxima_;
    bool hbinfo_set_ = false, maxima_set_ = false;
    std::vector<Step> steps_;
};

}  // namespace

Assignment parse_assignment(const std::string& key, const std::string& value) {
    const auto parsed = Value::parse(value);
    if (!parsed || parsed->is_none()) {
        throw Error(ErrorKind::invalid,
                    fmt::format("invalid value \"{}\" for {}: use a whole number, such as 1, -1 or 0x10",
                                printable(value), printable(key)));
    }
    return {key, *parsed};
}

std::vector<Assignment> parse_assignments(std::string_view text) {
    constexpr std::string_view blanks = " \t\r";
    std::vector<Assignment> all;
    for (size_t number = 1; !text.empty(); ++number) {
        std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(line.size() + 1, text.size()));
        line.remove_prefix(std::min(line.find_first_not_of(blanks), line.size()));
        line = line.substr(0, line.find_last_not_of(blanks) + 1);
        if (line.empty() || line.starts_with('#')) continue;
        const size_t key_end = line.find_first_of(blanks);
        if (key_end == std::string_view::npos) {
            throw Error(ErrorKind::invalid, fmt::format("invalid line {}: use a key, a blank and a value, not \"{}\"",
                                                        number, printable(line)));
        }
        const std::string_view value = line.substr(line.find_first_not_of(blanks, key_end));
        all.push_back(parse_assignment(std::string(line.substr(0, key_end)), std::string(value)));
    }
    return all;
}

std::vector<Step> plan(const Picture& picture, const std::vector<Assignment>& assignments) {
    Planner planner(picture);
    for (const Assignment& assignment : assignments) planner.add(assignment);
    return planner.take();
}

}  // namespace picture
