#include "picture/plan.h"

#include <fmt/format.h>

#include <algorithm>
#include <limits>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <variant>

#include "picture/error.h"
#include "picture/escape.h"
#include "picture/members.h"
#include "picture/words.h"

namespace picture {
namespace {

[[noreturn]] void refuse_plan(const std::string& key, const std::string& why) {
    throw Error(ErrorKind::inexpressible, fmt::format("nothing was changed: cannot set {}: {}", key, why));
}

std::string key_of(const Server& server) {
    return "servers/" + escaped(server.name);
}
std::string key_of(const ResourceKind& kind, const Resource& resource) {
    return fmt::format("{}/{}/{}", kind.key, escaped(resource.type), escaped(resource.name));
}
std::string key_of(const FstPid& record) {
    return "fst/pids/" + escaped(record.name);
}

bool same_name(const Server& a, const Server& b) {
    return a.name == b.name;
}
bool same_name(const Resource& a, const Resource& b) {
    return a.type == b.type && a.name == b.name;
}

/// The state that the library gives what is new.
constexpr uint32_t state_of_new = 2;

/// The first record of that name, which the library finds.
template <typename Record>
size_t first_of_name(const std::vector<Record>& records, const Record& named) {
    const auto found =
        std::find_if(records.begin(), records.end(), [&](const Record& each) { return same_name(each, named); });
    return static_cast<size_t>(found - records.begin());
}

/// A record that is in the way: the first whose place in the target is not the one it has. Nothing when all can stay.
template <typename Record>
std::optional<size_t> misplaced(const std::vector<Record>& records, const std::vector<Record>& target) {
    for (size_t i = 0; i < records.size(); ++i) {
        if (i >= target.size() || !same_name(records[i], target[i])) return i;
    }
    return std::nullopt;
}

/// @throws Error  a count is not one that a table of the region can have
void expect_regular(const char* which, const Document& document) {
    const auto refuse = [&](const std::string& why) {
        throw Error(ErrorKind::inexpressible, fmt::format("nothing was changed: {} {}", which, why));
    };
    const Counts& counts = document.counts;
    const shmnm_header& header = document.picture.header;
    const Counts maxima{header.max_servers, header.max_hb, header.max_np, header.fst_count};
    if (maxima != counts) {
        refuse(fmt::format("has changed maxima: {}, but room for {}", to_text(maxima), to_text(counts)));
    }
    const auto expect_room = [&](const char* what, size_t used, int64_t room) {
        if (static_cast<int64_t>(used) > room) refuse(fmt::format("has {} {} and room for {}", used, what, room));
    };
    const Picture& picture = document.picture;
    expect_room("servers", picture.servers.size(), counts.servers);
    expect_room("hb resources", picture.hb.size(), counts.hb);
    expect_room("np resources", picture.np.size(), counts.np);
    expect_room("names with process ids", picture.fst_pids.size(), int64_t{counts.servers} * counts.fst);
    // With room for one server a record takes 4 bytes more than its table has for it.
    const uint64_t step = sizeof(shmnm_resource) + sizeof(uint32_t) * static_cast<uint64_t>(counts.servers);
    const Layout layout(counts);
    const uint64_t after_np = counts.fst > 0 ? layout.fst + offsetof(shmnm_resource, descript) : layout.network;
    const uint64_t after_hb = picture.np.empty() ? after_np : layout.np;
    if (layout.hb + step * picture.hb.size() > after_hb || layout.np + step * picture.np.size() > after_np) {
        refuse("has tables that overlap");
    }
}

/// Finds the calls. `now_` is the picture as it is after those found so far.
class Plan {
  public:
    Plan(const Document& live, const Document& target)
        : now_(live.picture), target_(target.picture), pid_limit_(live.picture.header.fst_pid_limit) {}

    std::vector<Step> take() {
        expect_expressible();
        remove_misplaced();
        add_missing();
        set_server_words();
        for (const ResourceKind& kind : resource_kinds) set_resource_words(kind);
        for (size_t position = 0; position < target_.servers.size(); ++position) set_rows(position);
        set_simulation();
        for (const ClusterWord& word : cluster_words) set_cluster_word(word);
        set_fst();
        return std::move(steps_);
    }

  private:
    template <typename... Parameters, typename... Arguments>
    void step(Call<Parameters...> function, const Arguments&... arguments) {
        steps_.push_back(step_of(function, arguments...));
    }

    template <typename Record>
    static void expect_name(const std::vector<Record>& records, size_t i, const std::string& key, size_t size,
                            size_t limit) {
        if (size > limit) refuse_plan(key, fmt::format("a name has at most {} bytes", limit));
        if (first_of_name(records, records[i]) != i) {
            refuse_plan(key, "it is there twice, and the library finds only the first");
        }
    }

    void expect_expressible() const {
        for (size_t i = 0; i < target_.servers.size(); ++i) {
            const Server& server = target_.servers[i];
            expect_name(target_.servers, i, key_of(server), server.name.size(), server_name_limit);
        }
        for (const ResourceKind& kind : resource_kinds) {
            const std::vector<Resource>& resources = target_.*kind.resources;
            for (size_t i = 0; i < resources.size(); ++i) {
                const Resource& resource = resources[i];
                expect_name(resources, i, key_of(kind, resource), std::max(resource.name.size(), resource.type.size()),
                            resource_text_limit);
            }
        }
    }

    void remove_misplaced() {
        for (const ResourceKind& kind : resource_kinds) {
            std::vector<Resource>& resources = now_.*kind.resources;
            while (const auto position = misplaced(resources, target_.*kind.resources)) {
                const Resource named = resources[*position];
                step(kind.remove, named.type, named.name);
                resources.erase(resources.begin() + static_cast<std::ptrdiff_t>(first_of_name(resources, named)));
            }
        }
        while (const auto position = misplaced(now_.servers, target_.servers)) {
            const Server named = now_.servers[*position];
            step(&Library::shmnm_rmnode, named.name);
            const auto removed = static_cast<std::ptrdiff_t>(first_of_name(now_.servers, named));
            now_.servers.erase(now_.servers.begin() + removed);
            for_each_row([&](std::vector<uint32_t>& states) { states.erase(states.begin() + removed); });
        }
    }

    void add_missing() {
        for (size_t i = now_.servers.size(); i < target_.servers.size(); ++i) {
            const Server& wanted = target_.servers[i];
            step(&Library::shmnm_addnode, wanted.name, wanted.record.pri);
            Server added{.name = wanted.name, .record = {}, .combstat = {}};
            added.record.pri = wanted.record.pri;
            added.record.nodestat = added.record.nodestat_nw = state_of_new;
            now_.servers.push_back(std::move(added));
            for_each_row([](std::vector<uint32_t>& states) { states.push_back(state_of_new); });
        }
        for (const ResourceKind& kind : resource_kinds) {
            std::vector<Resource>& resources = now_.*kind.resources;
            for (size_t i = resources.size(); i < (target_.*kind.resources).size(); ++i) {
                const Resource& wanted = (target_.*kind.resources)[i];
                step(kind.add, wanted.type, wanted.name, wanted.record.pri);
                Resource added{.type = wanted.type,
                               .name = wanted.name,
                               .record = {},
                               .descript = {},
                               .svstat = {},
                               .network = {}};
                added.record.pri = wanted.record.pri;
                for (const RowWord& word : row_words) {
                    if (kind.*word.set) (added.*word.row).states.assign(now_.servers.size(), state_of_new);
                }
                resources.push_back(std::move(added));
            }
        }
    }

    template <typename Work>
    void for_each_row(const Work& work) {
        for (const ResourceKind& kind : resource_kinds) {
            for (Resource& resource : now_.*kind.resources) {
                for (const RowWord& word : row_words) {
                    if (kind.*word.set) work((resource.*word.row).states);
                }
            }
        }
    }

    void set_server_words() {
        for (size_t i = 0; i < target_.servers.size(); ++i) {
            for (const ServerWord& word : server_words) {
                const Value value = word.source.value(target_.servers[i]);
                if (value == word.source.value(now_.servers[i])) continue;
                std::visit([&](const auto& set) { set_server_word(set, target_.servers[i].name, value); }, word.set);
            }
            now_.servers[i].record.pri = target_.servers[i].record.pri;
        }
    }
    void set_server_word(Call<const char*, uint32_t> set, const std::string& name, const Value& value) {
        step(set, name, value.to_uint32().value());
    }
    void set_server_word(Call<const char*, int32_t> set, const std::string& name, const Value& value) {
        step(set, name, value.to_int32().value());
    }
    static void set_server_word(Computed, const std::string&, const Value&) {}
    static void set_server_word(BySimulation, const std::string&, const Value&) {}

    void set_resource_words(const ResourceKind& kind) {
        const std::vector<Resource>& wanted = target_.*kind.resources;
        for (size_t i = 0; i < wanted.size(); ++i) {
            const Resource& resource = wanted[i];
            for (const ResourceWord& word : resource_words) {
                const Value value = word.source.value(resource);
                if (value == word.source.value((now_.*kind.resources)[i])) continue;
                step(kind.*word.set, resource.type, resource.name, value.to_uint32().value());
            }
            if (resource.descript == (now_.*kind.resources)[i].descript) continue;
            if (!is_describable(i, wanted.size())) {
                refuse_plan(key_of(kind, resource) + "/descript",
                            fmt::format("the library reaches only the description of the first {} resource", kind.key));
            }
            step(kind.describe, resource.type, resource.name, whole(resource.descript), int32_t{description_size});
        }
    }
    /// The library looks for descriptions as if records had no states after them.
    bool is_describable(size_t position, size_t count) const {
        const size_t step = sizeof(shmnm_resource);
        const size_t place = position * (step + sizeof(uint32_t) * static_cast<size_t>(now_.header.max_servers));
        return place % step == 0 && place / step < count;
    }
    static std::string whole(std::string description) {
        description.resize(description_size);
        return description;
    }

    void set_pri(size_t position, int32_t pri) {
        if (now_.servers[position].record.pri == pri) return;
        step(&Library::shmnm_modifynode, now_.servers[position].name, pri);
        now_.servers[position].record.pri = pri;
    }
    bool is_first_of_its_priority(size_t position) const {
        return std::none_of(
            now_.servers.begin(), now_.servers.begin() + static_cast<std::ptrdiff_t>(position),
            [&](const Server& server) { return server.record.pri == now_.servers[position].record.pri; });
    }
    int32_t unused_priority() const {
        std::set<int32_t> used;
        for (const Server& server : now_.servers) used.insert(server.record.pri);
        int32_t pri = std::numeric_limits<int32_t>::max();
        while (used.contains(pri)) --pri;
        return pri;
    }

    /// All states on a server, which the library finds by its priority.
    void set_rows(size_t position) {
        for (const ResourceKind& kind : resource_kinds) {
            for (size_t i = 0; i < (target_.*kind.resources).size(); ++i) {
                const Resource& resource = (target_.*kind.resources)[i];
                for (const RowWord& word : row_words) {
                    if (!(kind.*word.set)) continue;
                    const uint32_t state = (resource.*word.row).states[position];
                    if (state == ((now_.*kind.resources)[i].*word.row).states[position]) continue;
                    if (!is_first_of_its_priority(position)) set_pri(position, unused_priority());
                    step(kind.*word.set, resource.type, resource.name, now_.servers[position].record.pri, state);
                }
            }
        }
        set_pri(position, target_.servers[position].record.pri);
    }

    void set_simulation() {
        const uint32_t flag = target_.header.dfailstatus;
        bool is_set = flag == now_.header.dfailstatus;
        std::vector<uint32_t> fails;
        for (size_t i = 0; i < target_.servers.size(); ++i) {
            const Server& server = target_.servers[i];
            fails.push_back(server.record.dfailstatus);
            if (fails[i] > 1) refuse_plan(key_of(server) + "/dfailstatus", "it is 0 or 1");
            if (fails[i] == 1 && flag != 1) {
                refuse_plan(key_of(server) + "/dfailstatus", "servers fail only while cluster/dfailstatus is 1");
            }
            is_set = is_set && fails[i] == now_.servers[i].record.dfailstatus;
        }
        if (flag > 1) refuse_plan("cluster/dfailstatus", "it is 0 or 1");
        if (is_set) return;
        if (flag == 0) return step(&Library::shmnm_setnpsimu, flag, std::vector<uint32_t>(), 0);
        if (!have_usable_priorities()) {
            for (size_t i = 0; i < fails.size(); ++i) set_pri(i, static_cast<int32_t>(i));
        }
        std::vector<uint32_t> by_priority;
        for (size_t i = 0; i < fails.size(); ++i) {
            const auto pri = static_cast<size_t>(now_.servers[i].record.pri);
            by_priority.resize(std::max(by_priority.size(), pri + 1));
            by_priority[pri] = fails[i];
        }
        step(&Library::shmnm_setnpsimu, flag, by_priority, static_cast<int32_t>(by_priority.size()));
        for (size_t i = 0; i < fails.size(); ++i) set_pri(i, target_.servers[i].record.pri);
    }
    /// Whether the library can take the states of servers by their priorities, as indexes of a short list.
    bool have_usable_priorities() const {
        constexpr int32_t limit = 1 << 16;
        std::set<int32_t> used;
        return std::all_of(now_.servers.begin(), now_.servers.end(), [&](const Server& server) {
            return server.record.pri >= 0 && server.record.pri < limit && used.insert(server.record.pri).second;
        });
    }

    void set_cluster_word(const ClusterWord& word) {
        const Value value = word.source.value(target_);
        if (value == word.source.value(now_)) return;
        std::visit([&](const auto& set) { set_cluster_word(set, word.key, value); }, word.set);
    }
    void set_cluster_word(Call<uint32_t> set, const char*, const Value& value) { step(set, value.to_uint32().value()); }
    template <typename... Numbers>
    void set_cluster_word(const Joint<Numbers...>* joint, const char* key, const Value&) {
        for (const auto number : joint->numbers) {
            if (target_.header.*number < 1) {
                refuse_plan(std::string("cluster/") + key, "it and what is set together with it are at least 1");
            }
            now_.header.*number = target_.header.*number;
        }
        std::apply([&](auto... numbers) { step(joint->function, target_.header.*numbers...); }, joint->numbers);
    }
    static void set_cluster_word(Computed, const char*, const Value&) {}
    static void set_cluster_word(BySimulation, const char*, const Value&) {}

    void set_fst() {
        // branch: both have the same counts, so both have an fst resource or neither has
        if (target_.fst && now_.fst) {
            for (const FstWord& word : fst_words) {
                const Value value = word.source.value(*target_.fst);
                if (value != word.source.value(*now_.fst)) step(word.set, value.to_uint32().value());
            }
            if (target_.fst->descript != now_.fst->descript) {
                step(&Library::shmnm_setfstdescript, whole(target_.fst->descript), int32_t{description_size});
            }
        }
        expect_same_names_with_pids();
        for (size_t i = 0; i < target_.fst_pids.size(); ++i) {
            i < now_.fst_pids.size() ? update_pids(i) : add_pids(target_.fst_pids[i], i + 1);
        }
    }
    /// Names with process ids only ever come; they are neither removed nor moved.
    void expect_same_names_with_pids() const {
        for (size_t i = 0; i < target_.fst_pids.size(); ++i) {
            const FstPid& record = target_.fst_pids[i];
            if (record.name.size() > pid_name_limit) {
                refuse_plan(key_of(record), fmt::format("a name has at most {} bytes", pid_name_limit));
            }
            const auto before = target_.fst_pids.begin() + static_cast<std::ptrdiff_t>(i);
            if (std::any_of(target_.fst_pids.begin(), before,
                            [&](const FstPid& each) { return each.name == record.name; })) {
                refuse_plan(key_of(record), "it is there twice, and the library finds only the first");
            }
        }
        for (size_t i = 0; i < now_.fst_pids.size(); ++i) {
            if (i < target_.fst_pids.size() && now_.fst_pids[i].name == target_.fst_pids[i].name) continue;
            refuse_plan(key_of(now_.fst_pids[i]), "names with process ids cannot be removed or put into another order");
        }
    }
    static bool has_values(const FstPid& record, size_t kind) {
        return record.pid[kind] != 0 || record.piddata[kind] != 0;
    }
    void set_pid(const FstPid& record, size_t kind) {
        step(&Library::shmnm_setfstrscpid, record.name, static_cast<int32_t>(kind), record.pid[kind],
             record.piddata[kind]);
    }
    void update_pids(size_t position) {
        const FstPid &is = now_.fst_pids[position], &wanted = target_.fst_pids[position];
        for (size_t kind = 0; kind < wanted.pid.size(); ++kind) {
            if (is.pid[kind] == wanted.pid[kind] && is.piddata[kind] == wanted.piddata[kind]) continue;
            if (static_cast<int64_t>(now_.fst_pids.size()) >= pid_limit_) {
                refuse_plan(key_of(wanted), "the table of process ids is full, and the library then sets none");
            }
            set_pid(wanted, kind);
        }
    }
    /// The name that fills the table is the last one, and gets one process id: none is set once the table is full.
    void add_pids(const FstPid& wanted, size_t count) {
        std::vector<size_t> kinds;
        for (size_t kind = 0; kind < wanted.pid.size(); ++kind) {
            if (has_values(wanted, kind)) kinds.push_back(kind);
        }
        if (kinds.empty()) kinds.push_back(0);
        if (kinds.size() > 1 && static_cast<int64_t>(count) >= pid_limit_) {
            refuse_plan(key_of(wanted), "it fills the table of process ids, and the library then sets no other");
        }
        for (const size_t kind : kinds) set_pid(wanted, kind);
    }

    Picture now_;
    const Picture& target_;
    int64_t pid_limit_;
    std::vector<Step> steps_;
};

}  // namespace

std::vector<Step> plan(const Document& live, const Document& target) {
    if (live.counts != target.counts) {
        throw Error(ErrorKind::inexpressible,
                    fmt::format("nothing was changed: the region has room for {}, the picture's for {}",
                                to_text(live.counts), to_text(target.counts)));
    }
    expect_regular("the region", live);
    expect_regular("the picture", target);
    return Plan(live, target).take();
}

}  // namespace picture
