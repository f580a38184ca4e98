#include "shmnmbridge/schedule.h"

#include <algorithm>
#include <random>
#include <utility>

#include "core_settings.h"

namespace bridge::test {
namespace {

struct Kind {
    What what;
    const char* text;
    Time shortest, longest;  ///< of a random one; both 0: it takes no time
    unsigned weight;         ///< 0: only in schedules written by hand
};

constexpr Kind kinds[] = {
    {What::kill, "its bridge is killed", 50, 14'000, 6},
    {What::stop, "its bridge is stopped", 50, 14'000, 6},
    {What::end, "its bridge ends cleanly", 500, 6'000, 3},
    {What::cut_to, "nothing reaches etcd", 200, 9'000, 4},
    {What::cut_from, "nothing comes back", 200, 9'000, 4},
    {What::cut_both, "cut off", 200, 14'000, 4},
    {What::slow, "requests arrive late", 1'000, 6'000, 5},
    {What::lose_answers, "answers are lost", 500, 6'000, 4},
    {What::lose_large, "requests that write a state are lost", 1'000, 8'000, 2},
    {What::reorder, "events of different keys overtake each other", 2'000, 9'000, 5},
    {What::lose_event, "its watch loses a change", 0, 0, 0},
    {What::lose_member, "its member of etcd ends", 0, 0, 3},
    {What::lose_token, "its token is lost", 500, 6'000, 2},
    {What::fail_over, "etcd has no leader", 300, 2'700, 3},
    {What::etcd_down, "etcd is down", 500, 9'000, 2},
    {What::full, "etcd's database is full", 500, 9'000, 2},
    {What::compact, "etcd is compacted", 0, 0, 2},
    {What::replace_etcd, "etcd is replaced by an empty one", 0, 0, 1},
    {What::restore_etcd, "etcd is restored from an empty backup", 0, 0, 0},
    {What::hold_lock, "the region's lock is held", 300, 9'000, 3},
    {What::busy_lock, "the region's lock is never free when it is wanted", 300, 9'000, 3},
    {What::new_region, "the region is made anew", 1, 3'000, 4},
    {What::clear, "the region is cleared", 60, 2'000, 3},
    {What::move_server, "a server is added again at the end", 0, 0, 3},
    {What::remove_server, "a server is missing", 500, 6'000, 2},
    {What::add_resource_again, "a resource is added again", 0, 0, 2},
    {What::lose_server, "a foreign server is missing for good", 0, 0, 1},
    {What::remove_resource, "a resource is missing for good", 0, 0, 1},
    {What::share_priority, "two foreign servers share a priority", 1'000, 9'000, 2},
    {What::other_counts, "its configuration has other counts", 1'000, 9'000, 2},
    {What::set_own, "a local process sets an own word", 0, 0, 0},
    {What::flip_own, "a local process sets an own word, and back", 30, 3'000, 4},
    {What::set_agreed, "a local process sets an agreed word", 0, 0, 0},
    {What::set_foreign, "a local process sets a foreign word", 0, 0, 2},
    {What::set_type, "a local process sets the states of a type", 0, 0, 2},
    {What::set_often, "a local process sets an own word all the time", 500, 9'000, 2},
    {What::rival, "all machines set one agreed word", 1'000, 8'000, 1},
    {What::intruder, "another machine has its name", 2'000, 14'000, 3},
};

const Kind& kind_of(What what) {
    return *std::find_if(std::begin(kinds), std::end(kinds), [what](const Kind& kind) { return kind.what == what; });
}

bool is_of_etcd(What what) {
    return what == What::fail_over || what == What::etcd_down || what == What::full || what == What::compact ||
           what == What::replace_etcd || what == What::restore_etcd || what == What::rival;
}

}  // namespace

Time Schedule::limit() const {
    Settings settings;
    settings.gather = gather;
    return settings.limit();
}

Schedule random_schedule(uint64_t seed) {
    std::mt19937_64 random(seed);
    const auto below = [&random](uint64_t limit) { return random() % limit; };
    Schedule schedule;
    schedule.seed = seed;
    schedule.machines = 2 + below(100) % 4;
    schedule.windows = below(3) == 0 ? static_cast<uint32_t>(below(32)) : 0;
    schedule.sets_pair = below(4) != 0;
    schedule.creator = {below(2) == 0, below(2) == 0};
    schedule.gather = below(5) == 0 ? 1'000 : 0;
    schedule.reset_when_cut_off = below(4) == 0;
    schedule.local = below(4) == 0 ? static_cast<uint32_t>(below(32)) : 0;
    unsigned weights = 0;
    for (const Kind& kind : kinds) weights += kind.weight;
    const uint64_t count = 1 + below(8);
    Time intruded_until = 0;
    for (uint64_t number = 0; number < count; ++number) {
        unsigned at = static_cast<unsigned>(below(weights));
        const Kind* kind = kinds;
        while (at >= kind->weight) at -= (kind++)->weight;
        Fault fault;
        fault.what = kind->what;
        fault.at = 1'500 + static_cast<Time>(below(16'000));
        fault.machine = below(schedule.machines);
        fault.detail = static_cast<uint32_t>(below(1'000));
        // Short ones are as likely as long ones.
        if (kind->longest) {
            const Time longest = std::max(kind->shortest, kind->longest >> below(4));
            fault.lasts =
                kind->shortest + static_cast<Time>(below(static_cast<uint64_t>(longest - kind->shortest + 1)));
        }
        fault.lasts = std::min(fault.lasts, schedule.heals - fault.at);
        if (fault.what == What::intruder) intruded_until = std::max(intruded_until, fault.at + fault.lasts);
        schedule.faults.push_back(fault);
    }
    std::stable_sort(schedule.faults.begin(), schedule.faults.end(),
                     [](const Fault& one, const Fault& other) { return one.at < other.at; });
    // The intruder's claim lives on until its lease ends, which is when the fault ends.
    if (intruded_until) schedule.ends += 11'000;
    return schedule;
}

std::string to_text(const Fault& fault) {
    const Kind& kind = kind_of(fault.what);
    std::string text = "at " + std::to_string(fault.at) + " ms";
    text += is_of_etcd(fault.what) ? std::string(": ") : ", machine " + std::to_string(fault.machine) + ": ";
    text += kind.text;
    if (fault.lasts) text += ", for " + std::to_string(fault.lasts) + " ms";
    return text + " (detail " + std::to_string(fault.detail) + ")";
}

std::string to_text(const Schedule& schedule) {
    std::string text =
        "seed " + std::to_string(schedule.seed) + ", " + std::to_string(schedule.machines) +
        " machines, of Windows: " + std::to_string(schedule.windows) + ", creators set" +
        (schedule.sets_pair ? " the pair" : " no pair") + (schedule.creator.sets_own ? ", own words at once" : "") +
        (schedule.creator.sets_pair ? ", the pair at once" : "") + (schedule.gather ? ", changes are gathered" : "") +
        (schedule.reset_when_cut_off ? ", cut off resets" : "") + ", local words: " + std::to_string(schedule.local) +
        '\n';
    for (const Fault& fault : schedule.faults) text += "    " + to_text(fault) + '\n';
    return text;
}

Schedule shrunk(Schedule schedule, const std::function<bool(const Schedule&)>& fails) {
    for (bool smaller = true; smaller;) {
        smaller = false;
        for (size_t at = schedule.faults.size(); at-- > 0;) {
            Schedule less = schedule;
            less.faults.erase(less.faults.begin() + static_cast<ptrdiff_t>(at));
            if (!fails(less)) continue;
            schedule = std::move(less);
            smaller = true;
        }
        Schedule less = schedule;
        --less.machines;
        const bool fits = std::all_of(less.faults.begin(), less.faults.end(),
                                      [&less](const Fault& fault) { return fault.machine < less.machines; });
        if (less.machines >= 2 && fits && fails(less)) {
            schedule = std::move(less);
            smaller = true;
        }
    }
    return schedule;
}

}  // namespace bridge::test
