// The calls whose callers tests kill in the middle, in a region full of values: every call that changes the tables, or
// a value of several words.
#pragma once

#include <gtest/gtest.h>

#include "shmnm.h"

namespace killed_calls {

/// The configuration of the region.
inline constexpr const char* configuration =
    "<root><all><num><server>4</server><hbr>4</hbr><npr>4</npr><fstr>1</fstr></num></all>"
    "<shmnm><log><level>0</level></log></shmnm></root>";

/// How much of a half-done change others may see.
enum class Promise {
    all_or_nothing,    ///< the region as before the call or as after it
    named_and_mended,  ///< or one that verify names and repair completes
    named              ///< or one that verify names
};

struct Scenario {
    const char* name;
    const char* change;  ///< as verify words it
    Promise promise;
    void (*call)();
};

inline constexpr uint32_t failed_servers[15] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 1, 0};
inline constexpr const char* long_text =
    "a description that takes many words, so that a killed writer leaves the head of the new one with the old one's "
    "end";

inline const Scenario scenarios[] = {
    {"AddsAServer", "added server delta-the-fourth", Promise::all_or_nothing,
     [] { shmnm_addnode("delta-the-fourth", 14); }},
    {"AddsAnHbResource", "added hb resource lan/lan-of-the-third-floor", Promise::all_or_nothing,
     [] { shmnm_addhbrsc("lan", "lan-of-the-third-floor", 33); }},
    {"AddsAnNpResource", "added np resource ping/ping-of-the-third-floor", Promise::all_or_nothing,
     [] { shmnm_addnprsc("ping", "ping-of-the-third-floor", 33); }},
    {"AddsProcessIds", "added the process ids of agent-of-the-third-floor", Promise::all_or_nothing,
     [] { shmnm_setfstrscpid("agent-of-the-third-floor", 1, 4711, 0x1122334455667788); }},
    {"AddsAnEmptyRecordOfProcessIds", "added the process ids of agent-of-the-third-floor", Promise::all_or_nothing,
     [] { shmnm_setfstrscpid("agent-of-the-third-floor", 3, 4711, 1); }},
    {"RemovesTheFirstServer", "removed server alpha-the-first", Promise::named_and_mended,
     [] { shmnm_rmnode("alpha-the-first"); }},
    {"RemovesAServerInTheMiddle", "removed server beta-the-second", Promise::named_and_mended,
     [] { shmnm_rmnode("beta-the-second"); }},
    {"RemovesTheLastServer", "removed server gamma-the-third", Promise::named_and_mended,
     [] { shmnm_rmnode("gamma-the-third"); }},
    {"RemovesTheFirstHbResource", "removed hb resource lan/lan-of-the-first-floor", Promise::named_and_mended,
     [] { shmnm_rmhbrsc("lan", "lan-of-the-first-floor"); }},
    {"RemovesTheLastHbResource", "removed hb resource disk/disk-of-the-ground-floor", Promise::named_and_mended,
     [] { shmnm_rmhbrsc("disk", "disk-of-the-ground-floor"); }},
    {"RemovesTheFirstNpResource", "removed np resource ping/ping-of-the-first-floor", Promise::named_and_mended,
     [] { shmnm_rmnprsc("ping", "ping-of-the-first-floor"); }},
    {"RemovesTheLastNpResource", "removed np resource majority/majority-of-all", Promise::named_and_mended,
     [] { shmnm_rmnprsc("majority", "majority-of-all"); }},
    {"OpensAnHbColumn", "opened column 0 of the hb resources", Promise::named_and_mended,
     [] { shmnm_addhbrscsvstat(0); }},
    {"OpensAnNpColumn", "opened column 0 of the np resources", Promise::named_and_mended,
     [] { shmnm_addnprscsvstat(0); }},
    {"ClosesAnHbColumn", "closed column 1 of the hb resources", Promise::named_and_mended,
     [] { shmnm_rmhbrscsvstat(1); }},
    {"ClosesAnNpColumn", "closed column 0 of the np resources", Promise::named_and_mended,
     [] { shmnm_rmnprscsvstat(0); }},
    {"SetsTheInfoPair", "", Promise::all_or_nothing, [] { shmnm_sethbinfo_ex(77, 88); }},
    {"SetsTheMaxima", "set the maxima", Promise::named_and_mended, [] { shmnm_setmaxvalue_ex(5, 9, 9); }},
    {"SetsAProcessId", "set a process id of agent-of-the-first-floor", Promise::named_and_mended,
     [] { shmnm_setfstrscpid("agent-of-the-first-floor", 2, 4711, 0x1122334455667788); }},
    {"DescribesAnHbResource", "set the description of hb resource lan/lan-of-the-first-floor",
     Promise::named_and_mended, [] { shmnm_sethbdescript("lan", "lan-of-the-first-floor", long_text, 113); }},
    {"DescribesAnNpResource", "set the description of np resource ping/ping-of-the-first-floor",
     Promise::named_and_mended, [] { shmnm_setnpdescript("ping", "ping-of-the-first-floor", long_text, 114); }},
    {"DescribesTheFstResource", "set the description of the fst resource", Promise::named_and_mended,
     [] { shmnm_setfstdescript(long_text, 115); }},
    // Named, but for lack of room not mended.
    {"SetsTheStatesOfAType", "set the states of all hb resources of type lan", Promise::named,
     [] { shmnm_settypehbstat("lan", 9); }},
    {"SimulatesFailures", "set the simulation of a network partition", Promise::named,
     [] { shmnm_setnpsimu(1, failed_servers, 15); }},
};

/// The region of each scenario: full of values that differ from each other.
inline void fill() {
    const auto ok = [](uint32_t result) { EXPECT_EQ(result, SHMNM_OK); };
    const char* const servers[] = {"alpha-the-first", "beta-the-second", "gamma-the-third"};
    uint32_t next = 100;
    for (int32_t i = 0; i < 3; ++i) {
        ok(shmnm_addnode(servers[i], 11 + i));
        for (const auto set : {shmnm_setnodestat, shmnm_setnodestat_nw, shmnm_setdownnotifystat, shmnm_setisolateflag,
                               shmnm_setpingstat, shmnm_setholdstat}) {
            ok(set(servers[i], next++));
        }
    }
    const char* const hb[][2] = {
        {"lan", "lan-of-the-first-floor"}, {"lan", "lan-of-the-second-floor"}, {"disk", "disk-of-the-ground-floor"}};
    const char* const np[][2] = {
        {"ping", "ping-of-the-first-floor"}, {"ping", "ping-of-the-second-floor"}, {"majority", "majority-of-all"}};
    for (const auto& [type, name] : hb) {
        ok(shmnm_addhbrsc(type, name, next++));
        ok(shmnm_sethbrscstat(type, name, next++));
        for (int32_t svid = 11; svid < 14; ++svid) {
            ok(shmnm_sethbrscsvstat(type, name, svid, next++));
            ok(shmnm_setrscsvstat_nw(type, name, svid, next++));
        }
    }
    for (const auto& [type, name] : np) {
        ok(shmnm_addnprsc(type, name, next++));
        ok(shmnm_setnprscstat(type, name, next++));
        for (int32_t svid = 11; svid < 14; ++svid) ok(shmnm_setnprscsvstat(type, name, svid, next++));
    }
    ok(shmnm_sethbdescript("lan", "lan-of-the-first-floor", "the first floor's", 17));
    ok(shmnm_setnpdescript("ping", "ping-of-the-first-floor", "the first floor's gateway", 25));
    ok(shmnm_setfstdescript("as it was", 9));
    ok(shmnm_setfstrscstat(next++));
    for (int32_t kind = 0; kind < 3; ++kind, next += 2) {
        ok(shmnm_setfstrscpid("agent-of-the-first-floor", kind, next, next + 1));
    }
    ok(shmnm_sethbinfo_ex(5, 6));
}

}  // namespace killed_calls
