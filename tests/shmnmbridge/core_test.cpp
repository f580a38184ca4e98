// Runs the core through schedules of faults on a virtual clock and checks the invariants of docs/bridge-protocol.md.
// With each rule switched off, an invariant must fail.
//
// SHMNM_SEED: the first seed, else 1. SHMNM_BRIDGE_SCHEDULES: how many schedules, else 2000. SHMNM_BRIDGE_RATES: also
// count how many of so many schedules fail without each rule. SHMNM_BRIDGE_TELL: print what happens in a failing
// schedule. SHMNM_BRIDGE_SIZING: print the table of docs/many-machines.md, for clusters of up to so many machines.
#include "core.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <iostream>

#include "shmnmbridge/simulation.h"
#include "shmnmbridge/sizing.h"

namespace bridge::test {
namespace {

uint64_t number_from(const char* variable, uint64_t otherwise) {
    const char* const text = std::getenv(variable);
    return text ? std::strtoull(text, nullptr, 10) : otherwise;
}

uint64_t first_seed() {
    return number_from("SHMNM_SEED", 1);
}

std::string report(const Schedule& schedule, const Result& result) {
    std::string text = to_text(schedule);
    for (const std::string& violation : result.violations) text += "  " + violation + '\n';
    return text;
}

bool fails(const Schedule& schedule, const Rules& rules = {}) {
    return !run(schedule, rules).violations.empty();
}

TEST(BridgeCore, KeepsItsInvariants) {
    using Clock = std::chrono::steady_clock;
    const uint64_t wanted = number_from("SHMNM_BRIDGE_SCHEDULES", 2'000), seed = first_seed();
    const auto begin = Clock::now();
    const auto seconds = [&] { return std::chrono::duration<double>(Clock::now() - begin).count(); };
    Result total;
    uint64_t done = 0, faults = 0, failed = 0;
    for (; done < wanted && failed < number_from("SHMNM_BRIDGE_SHOW", 3); ++done) {
        const Schedule schedule = random_schedule(seed + done);
        const Result result = run(schedule);
        faults += schedule.faults.size();
        total.looks += result.looks;
        total.requests += result.requests;
        total.calls += result.calls;
        total.proposals += result.proposals;
        total.trace = total.trace * 31 + result.trace;
        if (result.violations.empty()) continue;
        ++failed;
        const Schedule small = shrunk(schedule, [](const Schedule& less) { return fails(less); });
        ADD_FAILURE() << report(small, run(small, {}, number_from("SHMNM_BRIDGE_TELL", 0) != 0));
    }
    std::cout << done << " schedules from seed " << seed << " with " << faults << " faults, " << failed << " failed; "
              << static_cast<double>(done) / seconds() << " per second; " << total.looks << " looks, " << total.requests
              << " requests, " << total.calls << " calls, " << total.proposals << " proposals at the end; trace "
              << total.trace << '\n';
}

// A batch that is made between two looks hides nothing of a record that is added again between them.
TEST(BridgeCore, FeedsAServerThatIsAddedAgainWhileABatchIsMade) {
    const Schedule schedule = random_schedule(6'248);
    EXPECT_FALSE(fails(schedule)) << report(schedule, run(schedule));
}

// What it could not write first and could not read later does not add up: between the two its beats proved what it
// knew.
TEST(BridgeCore, IsFreshForAsLongAsItsNewestBeatProves) {
    const Schedule schedule{
        .seed = 2'093,
        .machines = 4,
        .windows = 21,
        .creator = {.sets_own = true, .sets_pair = true},
        .faults = {{.at = 10'273, .what = What::remove_server, .machine = 2, .lasts = 1'208, .detail = 370},
                   {.at = 11'378, .what = What::cut_from, .machine = 2, .lasts = 4'191}}};
    EXPECT_FALSE(fails(schedule)) << report(schedule, run(schedule));
}

TEST(BridgeCore, FeedsAResourceThatIsAddedAgainWhileABatchIsMade) {
    const Schedule schedule{.seed = 13'350,
                            .machines = 3,
                            .windows = 2,
                            .creator = {.sets_own = true, .sets_pair = true},
                            .reset_when_cut_off = true,
                            .local = 17,
                            .faults = {{.at = 4'701, .what = What::add_resource_again, .detail = 795}}};
    EXPECT_FALSE(fails(schedule)) << report(schedule, run(schedule));
}

// A process has set all states of a type since, so that no server looks new.
TEST(BridgeCore, KnowsARegionThatWasClearedWhileItWasStopped) {
    const Schedule schedule{.seed = 23'962,
                            .sets_pair = false,
                            .gather = 1'000,
                            .local = 1,
                            .faults = {{.at = 8'698, .what = What::stop, .lasts = 1'611, .detail = 148},
                                       {.at = 9'548, .what = What::clear, .lasts = 534, .detail = 601},
                                       {.at = 10'350, .what = What::set_type, .detail = 310}}};
    EXPECT_FALSE(fails(schedule)) << report(schedule, run(schedule));
}

// A process has set one of its words before the bridge has seen the new record.
TEST(BridgeCore, FeedsAServerThatIsAddedAgainAndChanged) {
    const Schedule schedules[] = {
        {.seed = 20'011'563,
         .sets_pair = false,
         .creator = {.sets_own = false, .sets_pair = true},
         .faults = {{.at = 7'188, .what = What::move_server, .machine = 1, .detail = 542},
                    {.at = 7'199, .what = What::set_foreign, .machine = 1, .detail = 226}}},
        {.seed = 20'039'216,
         .machines = 4,
         .creator = {.sets_own = false, .sets_pair = true},
         .reset_when_cut_off = true,
         .faults = {{.at = 6'730, .what = What::stop, .machine = 3, .lasts = 2'522, .detail = 942},
                    {.at = 7'088, .what = What::move_server, .machine = 3, .detail = 906},
                    {.at = 7'129, .what = What::set_type, .machine = 3, .detail = 56}}}};
    for (const Schedule& schedule : schedules) EXPECT_FALSE(fails(schedule)) << report(schedule, run(schedule));
}

// A process has set the states of its type before the bridge has seen the new record.
Schedule added_again_and_set(uint32_t detail) {
    return {.seed = 30'034'911,
            .sets_pair = false,
            .creator = {.sets_own = true, .sets_pair = true},
            .local = 31,
            .faults = {{.at = 4'520, .what = What::stop, .machine = 1, .lasts = 13'916, .detail = 828},
                       {.at = 7'751, .what = What::add_resource_again, .machine = 1, .detail = 295},
                       {.at = 9'522, .what = What::set_type, .machine = 1, .detail = detail}}};
}

TEST(BridgeCore, FeedsAResourceThatIsAddedAgainAndChanged) {
    constexpr uint32_t to_a_value = 956, to_unknown = 953;
    for (const uint32_t detail : {to_a_value, to_unknown}) {
        const Schedule schedule = added_again_and_set(detail);
        EXPECT_FALSE(fails(schedule)) << report(schedule, run(schedule));
    }
}

// It is started while the other machine can write but not read, and is cut off soon after that.
Schedule started_unheard() {
    return {.seed = 20'066'031,
            .machines = 3,
            .windows = 2,
            .creator = {.sets_own = true, .sets_pair = false},
            .local = 13,
            .faults = {{.at = 1'612, .what = What::rival, .lasts = 1'104, .detail = 724},
                       {.at = 4'903, .what = What::kill, .machine = 0, .lasts = 2'029, .detail = 897},
                       {.at = 4'908, .what = What::replace_etcd, .detail = 197},
                       {.at = 4'914, .what = What::cut_to, .machine = 1, .lasts = 486, .detail = 487},
                       {.at = 8'196, .what = What::cut_both, .machine = 0, .lasts = 232, .detail = 832}}};
}

TEST(BridgeCore, GivesAServerTheWindowBeforeItCallsItSilent) {
    const Schedule schedule = started_unheard();
    EXPECT_FALSE(fails(schedule)) << report(schedule, run(schedule));
}

// Machine 0 shows no words of machine 1, so that each change may be a new region's.
TEST(BridgeCore, CountsLossesAlthoughTheRegionMayBeNew) {
    const Schedule schedule{.seed = 40'067'523,
                            .windows = 15,
                            .reset_when_cut_off = true,
                            .faults = {{.at = 5'468, .what = What::cut_both, .lasts = 7'310, .detail = 59},
                                       {.at = 12'519, .what = What::cut_from, .lasts = 551, .detail = 18},
                                       {.at = 14'052, .what = What::rival, .lasts = 5'100, .detail = 84}}};
    EXPECT_FALSE(fails(schedule)) << report(schedule, run(schedule));
}

// The second call changes nothing but the other machine's state, as if the resource were new.
TEST(BridgeCore, LeavesStatesAloneThatAreSetToUnknownTwice) {
    const Schedule schedule{.seed = 7,
                            .writes = false,
                            .faults = {{.at = 4'000, .what = What::set_type, .machine = 0, .detail = 5},
                                       {.at = 6'000, .what = What::set_own, .machine = 1, .detail = 5},
                                       {.at = 8'000, .what = What::set_type, .machine = 0, .detail = 5}}};
    EXPECT_FALSE(fails(schedule)) << report(schedule, run(schedule));
}

// Each of these schedules was judged by something that a bridge cannot know.
TEST(BridgeCore, IsJudgedByWhatItCanKnow) {
    const Schedule schedules[] = {
        // A stopped bridge resets nothing.
        {.seed = 20'025'538,
         .creator = {.sets_own = true, .sets_pair = false},
         .reset_when_cut_off = true,
         .faults = {{.at = 11'309, .what = What::kill, .machine = 1, .lasts = 3'232, .detail = 56},
                    {.at = 13'788, .what = What::cut_to, .machine = 1, .lasts = 830, .detail = 118},
                    {.at = 15'540, .what = What::stop, .machine = 1, .lasts = 4'460, .detail = 783}}},
        // A bridge that has found a server silent has set nothing, and leaves what is set later.
        {.seed = 20'013'002,
         .windows = 29,
         .reset_when_cut_off = true,
         .local = 8,
         .faults = {{.at = 7'054, .what = What::stop, .machine = 1, .lasts = 12'946, .detail = 305},
                    {.at = 15'127, .what = What::end, .machine = 0, .lasts = 657, .detail = 767},
                    {.at = 17'237, .what = What::set_type, .machine = 0, .detail = 858}}},
        // On Windows a region without other servers' words may be a new one: what is open is dropped as lost.
        {.seed = 20'014'142,
         .windows = 10,
         .faults = {{.at = 5'081, .what = What::remove_server, .machine = 0, .lasts = 551, .detail = 940},
                    {.at = 6'216, .what = What::other_counts, .machine = 1, .lasts = 3'700, .detail = 816},
                    {.at = 8'588, .what = What::cut_from, .machine = 1, .lasts = 1'862, .detail = 701}},
         .ends = 41'000},
        // The end does not reach etcd before it has a leader again.
        {.seed = 20'015'163,
         .windows = 18,
         .reset_when_cut_off = true,
         .faults = {{.at = 5'101, .what = What::end, .machine = 0, .lasts = 4'124, .detail = 742},
                    {.at = 5'103, .what = What::fail_over, .lasts = 1'083, .detail = 328}}},
        // The watch of a machine that was cut off may be dead for the limit.
        {.seed = 20'028'375,
         .machines = 4,
         .windows = 2,
         .gather = 1'000,
         .reset_when_cut_off = true,
         .faults = {{.at = 12'570, .what = What::cut_both, .machine = 3, .lasts = 918, .detail = 650},
                    {.at = 17'042, .what = What::end, .machine = 0, .lasts = 1'156, .detail = 698}}},
        // A server that has been fed again for no time has not been reset yet.
        {.seed = 30'202'105,
         .creator = {.sets_own = true, .sets_pair = true},
         .reset_when_cut_off = true,
         .faults = {{.at = 10'297, .what = What::cut_from, .machine = 0, .lasts = 4'005, .detail = 578},
                    {.at = 13'275, .what = What::share_priority, .machine = 0, .lasts = 6'725, .detail = 758},
                    {.at = 13'804, .what = What::cut_both, .machine = 0, .lasts = 6'196, .detail = 33}}},
        // Events that wait while a bridge is stopped come from the etcd that is gone when it continues.
        {.seed = 40'050'458,
         .sets_pair = false,
         .creator = {.sets_own = false, .sets_pair = true},
         .faults = {{.at = 5'238, .what = What::kill, .machine = 0, .lasts = 528, .detail = 668},
                    {.at = 5'596, .what = What::stop, .machine = 1, .lasts = 13'820, .detail = 987},
                    {.at = 8'088, .what = What::replace_etcd, .detail = 859}}},
        // It is cut off just before the first beat of a machine that was cut off until then.
        {.seed = 40'033'508,
         .machines = 4,
         .creator = {.sets_own = false, .sets_pair = true},
         .faults = {{.at = 3'960, .what = What::cut_from, .machine = 3, .lasts = 3'234, .detail = 288},
                    {.at = 8'379, .what = What::cut_from, .machine = 2, .lasts = 7'339, .detail = 464}}},
        // The word that was overwritten was the last that proved that the region is not a new one.
        {.seed = 40'054'740,
         .creator = {.sets_own = true, .sets_pair = false},
         .faults = {{.at = 6'780, .what = What::stop, .machine = 1, .lasts = 3'165, .detail = 593},
                    {.at = 8'890, .what = What::kill, .machine = 0, .lasts = 2'872, .detail = 981},
                    {.at = 11'062, .what = What::stop, .machine = 1, .lasts = 8'938, .detail = 716},
                    {.at = 12'361, .what = What::set_foreign, .machine = 1, .detail = 448}}},
        // A contest ends when the region seems to be new.
        {.seed = 20'041'167,
         .windows = 5,
         .creator = {.sets_own = false, .sets_pair = true},
         .faults = {{.at = 2'079, .what = What::clear, .machine = 1, .lasts = 1'789, .detail = 743},
                    {.at = 3'325, .what = What::busy_lock, .machine = 0, .lasts = 4'483, .detail = 71},
                    {.at = 3'937, .what = What::rival, .lasts = 7'535, .detail = 239},
                    {.at = 8'741, .what = What::stop, .machine = 0, .lasts = 5'555, .detail = 5}}}};
    for (const Schedule& schedule : schedules) EXPECT_FALSE(fails(schedule)) << report(schedule, run(schedule));
}

TEST(BridgeCore, DoesTheSameForTheSameInputs) {
    const uint64_t seed = first_seed(), count = std::min<uint64_t>(30, number_from("SHMNM_BRIDGE_SCHEDULES", 30));
    for (uint64_t number = 0; number < count; ++number) {
        const Schedule schedule = random_schedule(seed + number);
        EXPECT_EQ(run(schedule).trace, run(schedule).trace) << "seed " << seed + number;
    }
    EXPECT_NE(run(random_schedule(seed)).trace, run(random_schedule(seed + 1)).trace);
}

TEST(BridgeCore, WritesNoMoreStatesInALargerCluster) {
    const Sizing few = measure({.machines = 4, .resources = 4, .changes = 10, .lasts = 3'000});
    EXPECT_TRUE(few.all_fresh);
    EXPECT_GT(few.states, 25) << "of 40 changes a second";
    const Sizing many = measure({.machines = 16, .resources = 4, .changes = 20, .lasts = 3'000});
    EXPECT_TRUE(many.all_fresh);
    EXPECT_GT(many.states, 60);
    EXPECT_LE(many.states, 125 + 3 * 16) << "of 320 changes a second; a beat that is due takes a state with it";
    EXPECT_LE(many.transactions, 180) << "most beats go out with the states";
    const uint64_t limit = number_from("SHMNM_BRIDGE_SIZING", 0);
    if (limit) std::cout << heading();
    const auto tell = [limit](const Cluster& cluster) {
        if (cluster.machines <= limit) std::cout << to_text(cluster, measure(cluster)) << std::flush;
    };
    for (const size_t machines : std::array<size_t, 4>{3, 5, 32, 128}) {
        for (const double changes : {0.1, 1.0, 10.0}) tell({.machines = machines, .changes = changes});
    }
    tell({.machines = 128, .changes = 1, .gather = 4'000});
}

struct Switch {
    const char* name;
    bool Rules::*rule;
    std::vector<Schedule> schedules = {};  ///< written by hand
};

// A quiet cluster in which only happens what the schedule says.
Schedule quiet(std::vector<Fault> faults, Creator creator = {}, uint32_t windows = 0) {
    Schedule schedule;
    schedule.seed = 7;
    schedule.writes = false;
    schedule.windows = windows;
    schedule.creator = creator;
    schedule.faults = std::move(faults);
    return schedule;
}

Schedule without_pair(Schedule schedule) {
    schedule.sets_pair = false;
    return schedule;
}
Schedule reading_seldom(Schedule schedule) {
    schedule.read_again = 300'000;
    return schedule;
}
/// With other latencies and losses.
std::vector<Schedule> seeds(const Schedule& schedule) {
    std::vector<Schedule> schedules(40, schedule);
    for (size_t number = 0; number < schedules.size(); ++number) schedules[number].seed = number;
    return schedules;
}

/// Machine 1 never runs, so that nothing of it stands in machine 0's region.
const Fault alone{.at = 0, .what = What::kill, .machine = 1, .lasts = 12'000};
const Fault word_is_set{.at = 4'000, .what = What::set_agreed, .machine = 0, .detail = 0};
constexpr Creator quick{.sets_own = true, .sets_pair = true};

const Switch switches[] = {
    {"fence", &Rules::fence},
    {"refuse_other_host", &Rules::refuse_other_host},
    {"replace_same_host",
     &Rules::replace_same_host,
     {quiet({{.at = 5'000, .what = What::kill, .machine = 1, .lasts = 50}})}},
    {"renew_lost_claim", &Rules::renew_lost_claim},
    {"state_on_base", &Rules::state_on_base},
    {"resend_unknown", &Rules::resend_unknown,
     seeds(quiet({{.at = 4'900, .what = What::slow, .lasts = 4'000},
                  {.at = 5'000, .what = What::flip_own, .lasts = 900},
                  {.at = 6'500, .what = What::flip_own, .lasts = 900},
                  {.at = 8'000, .what = What::flip_own, .lasts = 900}}))},
    {"beats_after_changes",
     &Rules::beats_after_changes,
     {quiet({{.at = 4'000, .what = What::set_own, .machine = 1, .detail = 0},
             {.at = 5'000, .what = What::lose_large, .machine = 1, .lasts = 8'000},
             {.at = 5'500, .what = What::set_own, .machine = 1, .detail = 0}})}},
    {"beats_after_looks",
     &Rules::beats_after_looks,
     {quiet({{.at = 4'000, .what = What::hold_lock, .machine = 1, .lasts = 8'000}})}},
    {"claim_on_base", &Rules::claim_on_base, {random_schedule(683)}},
    {"claim_has_lease", &Rules::claim_has_lease, {random_schedule(619)}},
    {"lease_is_kept", &Rules::lease_is_kept},
    {"beats_with_changes",
     &Rules::beats_with_changes,
     {quiet({{.at = 4'000, .what = What::set_often, .machine = 1, .lasts = 9'000}})}},
    {"end_deletes_keys",
     &Rules::end_deletes_keys,
     {quiet({{.at = 5'000, .what = What::end, .machine = 1, .lasts = 6'000}})}},
    {"own_is_never_fed", &Rules::own_is_never_fed},
    {"beats_are_dated", &Rules::beats_are_dated},
    {"read_beats_are_dated",
     &Rules::read_beats_are_dated,
     {quiet({{.at = 4'000, .what = What::kill, .machine = 1, .lasts = 12'000},
             {.at = 9'000, .what = What::kill, .machine = 0, .lasts = 300}})}},
    {"own_echo", &Rules::own_echo},
    {"grace_after_reconnection", &Rules::grace_after_reconnection},
    {"silence_needs_echo", &Rules::silence_needs_echo},
    {"unheard_have_time", &Rules::unheard_have_time, {started_unheard()}},
    {"runs_are_compared", &Rules::runs_are_compared,
     seeds(quiet({{.at = 3'000, .what = What::kill, .machine = 1, .lasts = 7'000},
                  {.at = 3'500, .what = What::set_own, .machine = 1, .detail = 0},
                  {.at = 9'000, .what = What::reorder, .machine = 0, .lasts = 3'000}}))},
    {"fresh_after_applying",
     &Rules::fresh_after_applying,
     {quiet({{.at = 4'000, .what = What::busy_lock, .machine = 0, .lasts = 9'000},
             {.at = 4'500, .what = What::set_own, .machine = 1, .detail = 0}})}},
    {"silence_writes_unknown", &Rules::silence_writes_unknown},
    {"silence_keeps_words", &Rules::silence_keeps_words},
    {"unheard_are_silent",
     &Rules::unheard_are_silent,
     {quiet({{.at = 4'000, .what = What::kill, .machine = 0, .lasts = 5'000},
             {.at = 5'000, .what = What::end, .machine = 1, .lasts = 15'000}})}},
    {"absence_is_not_fresh",
     &Rules::absence_is_not_fresh,
     {quiet({{.at = 8'000, .what = What::clear, .machine = 0, .lasts = 2'000}})}},
    {"changes_are_not_fresh", &Rules::changes_are_not_fresh},
    {"missing_is_unknown",
     &Rules::missing_is_unknown,
     {quiet({{.at = 4'000, .what = What::set_own, .machine = 1, .detail = 9},
             {.at = 8'000, .what = What::remove_resource, .machine = 1, .detail = 0}})}},
    {"cut_off_keeps_words",
     &Rules::cut_off_keeps_words,
     {quiet({{.at = 4'000, .what = What::cut_both, .machine = 0, .lasts = 9'000}})}},
    {"start_is_not_cut_off", &Rules::start_is_not_cut_off, {random_schedule(508)}},
    {"heard_before_fed", &Rules::heard_before_fed},
    {"revision_order", &Rules::revision_order},
    {"ended_watch_is_read",
     &Rules::ended_watch_is_read,
     {reading_seldom(
         quiet({{.at = 5'000, .what = What::compact}, {.at = 6'000, .what = What::lose_member, .machine = 1}}))}},
    {"keys_are_read_again",
     &Rules::keys_are_read_again,
     {quiet({{.at = 4'990, .what = What::lose_event, .machine = 0},
             {.at = 5'000, .what = What::set_own, .machine = 1, .detail = 0}})}},
    {"quiet_watch_is_read", &Rules::quiet_watch_is_read},
    // The new etcd's revisions are larger than the old one's once machine 0 sees them.
    {"cluster_is_checked",
     &Rules::cluster_is_checked,
     {quiet({{.at = 2'000, .what = What::kill, .machine = 1, .lasts = 200},
             {.at = 2'900, .what = What::cut_both, .machine = 0, .lasts = 9'000},
             {.at = 3'000, .what = What::replace_etcd}})}},
    {"revision_is_checked", &Rules::revision_is_checked, {quiet({{.at = 15'000, .what = What::restore_etcd}})}},
    {"calls_compare", &Rules::calls_compare, {random_schedule(159)}},
    {"counts_are_compared", &Rules::counts_are_compared},
    {"refuse_duplicates", &Rules::refuse_duplicates},
    {"step_back", &Rules::step_back},
    {"added_again_is_fed",
     &Rules::added_again_is_fed,
     {quiet({{.at = 4'000, .what = What::set_own, .machine = 1, .detail = 0},
             {.at = 8'000, .what = What::move_server, .machine = 0, .detail = 1}})}},
    {"changed_rows_are_fed", &Rules::changed_rows_are_fed, {added_again_and_set(956), added_again_and_set(953)}},
    {"set_type_contests",
     &Rules::set_type_contests,
     {quiet({{.at = 4'000, .what = What::set_own, .machine = 1, .detail = 5},
             {.at = 8'000, .what = What::set_type, .machine = 0, .detail = 5}})}},
    {"contest_ends", &Rules::contest_ends, {random_schedule(100)}},
    {"requests_wait", &Rules::requests_wait},
    {"new_region_takes", &Rules::new_region_takes},
    {"old_answers_are_dropped", &Rules::old_answers_are_dropped,
     seeds(quiet({{.at = 4'900, .what = What::slow, .lasts = 500},
                  {.at = 5'000, .what = What::set_agreed, .detail = 0},
                  {.at = 5'060, .what = What::new_region, .lasts = 1}}))},
    {"same_base", &Rules::same_base, {random_schedule(376)}},
    {"late_own_is_accepted", &Rules::late_own_is_accepted,
     seeds(quiet({{.at = 3'900, .what = What::lose_answers, .lasts = 700},
                  {.at = 4'000, .what = What::set_agreed, .detail = 0}}))},
    {"contest_ends_proposals",
     &Rules::contest_ends_proposals,
     {quiet({{.at = 4'000, .what = What::rival, .lasts = 8'000}})}},
    {"local_words_stay", &Rules::local_words_stay},
    {"new_values_are_no_change", &Rules::new_values_are_no_change},
    {"values_are_proposed",
     &Rules::values_are_proposed,
     {quiet({word_is_set, {.at = 10'000, .what = What::replace_etcd}})}},
    {"pair_needs_value",
     &Rules::pair_needs_value,
     {without_pair(quiet({{.at = 4'000, .what = What::new_region, .lasts = 500}}))}},
    // The region's number is the only sign: between two looks all that was set before is set again.
    {"object_tells",
     &Rules::object_tells,
     {quiet({alone, word_is_set, {.at = 8'010, .what = What::new_region, .lasts = 1}}, quick)}},
    // One look finds no own server.
    {"absence_tells",
     &Rules::absence_tells,
     {quiet({alone, word_is_set, {.at = 8'010, .what = What::clear, .lasts = 60}}, quick)}},
    {"fallen_words_tell",
     &Rules::fallen_words_tell,
     {quiet({alone, word_is_set, {.at = 8'010, .what = What::clear, .lasts = 1}},
            {.sets_own = false, .sets_pair = true})}},
    {"fallen_pair_tells",
     &Rules::fallen_pair_tells,
     {quiet({alone, word_is_set, {.at = 8'010, .what = What::clear, .lasts = 1}},
            {.sets_own = true, .sets_pair = false})}},
    {"fallen_others_tell",
     &Rules::fallen_others_tell,
     {quiet({word_is_set, {.at = 8'010, .what = What::clear, .lasts = 1}}, quick)}},
    {"fallen_row_tells",
     &Rules::fallen_row_tells,
     {quiet({{.at = 4'000, .what = What::set_agreed, .machine = 0, .detail = 6},
             {.at = 4'500, .what = What::set_own, .machine = 0, .detail = 9},
             {.at = 8'010, .what = What::add_resource_again, .machine = 0}})}},
    {"gap_needs_witness",
     &Rules::gap_needs_witness,
     {quiet({alone,
             word_is_set,
             {.at = 7'000, .what = What::stop, .lasts = 2'000},
             {.at = 8'010, .what = What::clear, .lasts = 100}},
            quick)}},
    {"witness",
     &Rules::witness,
     {quiet({alone, word_is_set, {.at = 8'010, .what = What::new_region, .lasts = 1}}, quick, 1)}},
};

// No rule is left out. They are nothing but switches.
static_assert(std::size(switches) == sizeof(Rules));

/// For the test's messages.
std::ostream& operator<<(std::ostream& stream, const Switch& tried) {
    return stream << tried.name;
}

class BridgeRule : public testing::TestWithParam<Switch> {};

TEST_P(BridgeRule, IsNeeded) {
    const Switch& tried = GetParam();
    Rules rules;
    rules.*tried.rule = false;
    bool is_noticed = false;
    size_t noticing = 0;
    for (const Schedule& schedule : tried.schedules) {
        const Result with = run(schedule), without = run(schedule, rules);
        EXPECT_TRUE(with.violations.empty()) << "with the rule: " << report(schedule, with);
        if (without.violations.empty()) continue;
        ++noticing;
        if (noticing == 1) std::cout << "without it: " << report(schedule, without);
    }
    is_noticed = noticing > 0;
    std::cout << noticing << " of " << tried.schedules.size() << " schedules written by hand fail\n";
    const uint64_t seed = first_seed(), rates = number_from("SHMNM_BRIDGE_RATES", 0);
    uint64_t failed = 0, tries = 0;
    for (; rates ? tries < rates : !is_noticed && tries < 3'000; ++tries) {
        const Schedule schedule = random_schedule(seed + tries);
        if (!fails(schedule, rules)) continue;
        ++failed;
        if (is_noticed) continue;
        const Result with = run(schedule);
        EXPECT_TRUE(with.violations.empty()) << "with the rule: " << report(schedule, with);
        is_noticed = true;
        const Schedule small = shrunk(schedule, [&rules](const Schedule& less) { return fails(less, rules); });
        std::cout << "without it, the " << tries + 1 << ". schedule: " << report(small, run(small, rules));
    }
    if (rates) std::cout << "RATE " << tried.name << ": " << failed << " of " << tries << " random schedules fail\n";
    EXPECT_TRUE(is_noticed) << "no schedule of " << tries << " from seed " << seed << " fails without it";
}

INSTANTIATE_TEST_SUITE_P(Without, BridgeRule, testing::ValuesIn(switches),
                         [](const testing::TestParamInfo<Switch>& tried) { return std::string(tried.param.name); });

}  // namespace
}  // namespace bridge::test
