// Assignments: how they are written, which calls they become, and why others are refused.
#include "picture/assignments.h"

#include <gmock/gmock.h>

#include <functional>
#include <string>
#include <vector>

#include "picture/decode.h"
#include "picture/error.h"
#include "picture/library_region.h"
#include "picture/spelling.h"
#include "shmnm.h"

namespace picture {
namespace {

using test::LibraryRegion;
using testing::ElementsAre;
using testing::IsEmpty;

struct Refusal {
    ErrorKind kind;
    std::string why;
    bool operator==(const Refusal&) const = default;
};
void PrintTo(const Refusal& refusal, std::ostream* stream) {
    *stream << static_cast<int>(refusal.kind) << " " << refusal.why;
}

Refusal refusal_by(const std::function<void()>& work) {
    try {
        work();
        return {ErrorKind::failed, "not refused"};
    } catch (const Error& error) {
        return {error.kind, error.what()};
    }
}

class AssignmentsTest : public testing::Test {
  protected:
    AssignmentsTest() {
        for (const char* const name : {"alpha", "beta", "gamma"}) shmnm_addnode(name, priority_++);
        for (const char* const name : {"lan1", "lan2"}) shmnm_addhbrsc("lan", name, 0);
        for (const char* const name : {"ping1", "ping2"}) shmnm_addnprsc("ping", name, 0);
        shmnm_setfstrscpid("agent", 0, 1, 2);
        shmnm_setfstrscpid("other", 0, 1, 2);
        shmnm_sethbinfo_ex(2, 3);
    }

    Picture picture() const { return decode(region_.dump()); }
    std::string value_of(const std::string& key) const {
        const auto word = find(picture(), key);
        return word ? word->value.to_text() : "no such key";
    }
    /// Makes the assignments. @return the functions that were called
    std::vector<std::string> set(const std::vector<Assignment>& assignments, bool force = false) const {
        std::vector<std::string> called;
        const Picture before = picture();
        for (const Step& step : plan(before, assignments, force)) {
            called.push_back(step.function);
            EXPECT_EQ(step.call(), SHMNM_OK) << step.function;
        }
        return called;
    }
    Refusal refusal(const Assignment& assignment, bool force = false) const {
        return refusal_by([&] { set({assignment}, force); });
    }

    int32_t priority_ = 0;
    LibraryRegion region_{{4, 3, 3, 1}};
};

TEST_F(AssignmentsTest, SetEachWordThatTheyNameAndNoOther) {
    std::vector<Assignment> all;
    std::vector<Word> others;
    uint32_t value = 100;
    for (const Word& word : words(picture())) {
        const bool is_set = !range_of(word.key).empty() && !word.key.starts_with("cluster/max_");
        if (is_set) all.push_back({word.key, value++});
        // These follow from what is set.
        if (!is_set && !word.key.ends_with("/combstat")) others.push_back(word);
    }
    EXPECT_EQ(set(all).size(), all.size() - 1) << "one call for hbinfo_a and hbinfo_b";
    for (const Assignment& assignment : all) {
        EXPECT_EQ(value_of(assignment.key), assignment.value.to_text()) << assignment.key;
    }
    for (const Word& word : others) EXPECT_EQ(value_of(word.key), word.value.to_text()) << word.key;
}

TEST_F(AssignmentsTest, SetTheGreatestAndTheLeastValues) {
    set({{"cluster/clstat", UINT32_MAX},
         {"servers/alpha/pri", INT32_MIN},
         {"servers/beta/pri", INT32_MAX},
         {"cluster/hbinfo_a", 1u},
         {"cluster/hbinfo_b", uint32_t{INT32_MAX}},
         {"fst/piddata/agent/2", UINT64_MAX}});
    EXPECT_EQ(value_of("cluster/clstat"), "4294967295");
    EXPECT_EQ(value_of("servers/alpha/pri"), "-2147483648");
    EXPECT_EQ(value_of("servers/beta/pri"), "2147483647");
    EXPECT_EQ(value_of("cluster/hbinfo_a"), "1");
    EXPECT_EQ(value_of("cluster/hbinfo_b"), "2147483647");
    EXPECT_EQ(value_of("fst/piddata/agent/2"), "18446744073709551615");
}

TEST_F(AssignmentsTest, OfWhatIsThereNeedNoCall) {
    std::vector<Assignment> all;
    for (const Word& word : words(picture())) all.push_back({word.key, word.value});
    EXPECT_THAT(set(all), IsEmpty());
    // What is there by then counts.
    EXPECT_THAT(set({{"cluster/clstat", 5u}, {"cluster/clstat", 5u}}), ElementsAre("shmnm_setclstat"));
    EXPECT_THAT(set({{"cluster/clstat", 6u}, {"cluster/clstat", 5u}}),
                ElementsAre("shmnm_setclstat", "shmnm_setclstat"));
    EXPECT_EQ(value_of("cluster/clstat"), "5");
}

TEST_F(AssignmentsTest, SetMaximaOnlyByForceAndAllThree) {
    EXPECT_EQ(refusal({"cluster/max_hb", 2u}),
              (Refusal{ErrorKind::needs_force,
                       "cannot set cluster/max_hb: the region was laid out by it, and every "
                       "process reads the tables by it"}));
    EXPECT_THAT(set({{"cluster/max_hb", 2u}, {"cluster/max_np", 1u}}, true), ElementsAre("shmnm_setmaxvalue_ex"));
    EXPECT_EQ(value_of("cluster/max_servers"), "4");
    EXPECT_EQ(value_of("cluster/max_hb"), "2");
    EXPECT_EQ(value_of("cluster/max_np"), "1");
}

TEST_F(AssignmentsTest, SetWhatIsSetTogetherOnlyIfAllOfItIsAtLeastOne) {
    shmnm_setmaxvalue_ex(4, 3, 3);
    Picture edited = picture();
    edited.header.hbinfo_b = 0;
    edited.header.max_servers = 0;
    EXPECT_EQ(refusal_by([&] {
                  plan(edited, {{"cluster/hbinfo_a", 7u}}, false);
              }),
              (Refusal{ErrorKind::set_together,
                       "cluster/hbinfo_a and cluster/hbinfo_b can only be set together, each to at least 1, as in "
                       "\"shmnmctl set cluster/hbinfo_a 7 cluster/hbinfo_b 1\""}));
    EXPECT_EQ(refusal_by([&] {
                  plan(edited, {{"cluster/max_np", 2u}}, true);
              }),
              (Refusal{ErrorKind::set_together,
                       "cluster/max_servers, cluster/max_hb and cluster/max_np can only be set together, each to at "
                       "least 1, as in \"shmnmctl set --force cluster/max_servers 1 cluster/max_hb 3 cluster/max_np "
                       "2\""}));
    EXPECT_EQ(plan(edited, {{"cluster/hbinfo_b", 1u}, {"cluster/hbinfo_a", 1u}}, false).size(), 1u);
}

TEST_F(AssignmentsTest, AreRefusedForValuesBeyondTheirRange) {
    const auto expect_invalid = [&](const char* key, const Value& value, const std::string& range) {
        EXPECT_EQ(refusal({key, value}), (Refusal{ErrorKind::invalid, "invalid value \"" + value.to_text() + "\" for " +
                                                                          key + ": use " + range}));
    };
    for (const char* const key : {"cluster/clstat", "servers/alpha/nodestat", "hb/lan/lan1/pri", "np/ping/ping1/stat",
                                  "hb/lan/lan1/svstat/beta", "fst/stat", "fst/pids/agent/1"}) {
        expect_invalid(key, -1, "0 to 4294967295");
        expect_invalid(key, uint64_t{UINT32_MAX} + 1, "0 to 4294967295");
        expect_invalid(key, Value(), "0 to 4294967295");
    }
    expect_invalid("servers/alpha/pri", uint64_t{INT32_MAX} + 1, "-2147483648 to 2147483647");
    expect_invalid("cluster/hbinfo_a", 0u, "1 to 2147483647");
    expect_invalid("cluster/hbinfo_a", uint64_t{INT32_MAX} + 1, "1 to 2147483647");
    expect_invalid("fst/piddata/agent/1", -1, "0 to 18446744073709551615");
}

TEST_F(AssignmentsTest, AreRefusedForWordsThatNoCallSets) {
    EXPECT_EQ(refusal({"cluster/alive", 1u}),
              (Refusal{ErrorKind::refused, "cannot set cluster/alive: it follows from other words"}));
    EXPECT_EQ(refusal({"servers/alpha/combstat", 1u}),
              (Refusal{ErrorKind::refused, "cannot set servers/alpha/combstat: it follows from other words"}));
    EXPECT_EQ(refusal({"cluster/dfailstatus", 1u}),
              (Refusal{ErrorKind::set_by_simulation, "cannot set cluster/dfailstatus: only a simulation sets it"}));
    EXPECT_EQ(
        refusal({"servers/alpha/dfailstatus", 1u}),
        (Refusal{ErrorKind::set_by_simulation, "cannot set servers/alpha/dfailstatus: only a simulation sets it"}));
    EXPECT_EQ(refusal({"bridge/up", 1u}),
              (Refusal{ErrorKind::refused, "cannot set bridge/up: only the bridge between machines says it"}));
    EXPECT_EQ(refusal({"servers/nobody/pri", 1u}),
              (Refusal{ErrorKind::no_such_key, "nothing was set: there is no key servers/nobody/pri"}));
}

TEST_F(AssignmentsTest, OfStatesOnAServerAreRefusedIfTheLibraryWouldFindAnotherServer) {
    shmnm_modifynode("gamma", 0);
    EXPECT_EQ(refusal({"hb/lan/lan1/network/gamma", 7u}),
              (Refusal{ErrorKind::shared_priority,
                       "cannot set hb/lan/lan1/network/gamma: the library finds servers by priority here, and alpha "
                       "has the same priority, 0"}));
    // The priorities count that they have by then.
    set({{"hb/lan/lan1/network/alpha", 6u}, {"servers/alpha/pri", 9u}, {"hb/lan/lan1/network/gamma", 7u}});
    EXPECT_EQ(value_of("hb/lan/lan1/network/alpha"), "6");
    EXPECT_EQ(value_of("hb/lan/lan1/network/gamma"), "7");
}

TEST_F(AssignmentsTest, OfProcessIdsAreRefusedOnceTheirTableIsFull) {
    shmnm_setfstrscpid("third", 0, 1, 2);
    EXPECT_THAT(set({{"fst/pids/agent/0", 4u}}), ElementsAre("shmnm_setfstrscpid"));
    shmnm_setfstrscpid("fourth", 0, 1, 2);
    EXPECT_EQ(refusal({"fst/pids/agent/0", 5u}),
              (Refusal{ErrorKind::refused,
                       "cannot set fst/pids/agent/0: the table of process ids is full, and the "
                       "library then refuses updates too"}));
}

TEST(ParsedAssignments, StandOneOnALineBetweenBlanksAndRemarks) {
    const auto texts = [](std::string_view text) {
        std::vector<std::string> all;
        for (const Assignment& one : parse_assignments(text)) all.push_back(one.key + "|" + one.value.to_text());
        return all;
    };
    EXPECT_THAT(texts("cluster/clstat 1\n\n  # a remark\n \t \n\tservers/a/pri \t -5  \r\n#\ncluster/waitstat 0x10"),
                ElementsAre("cluster/clstat|1", "servers/a/pri|-5", "cluster/waitstat|16"));
    EXPECT_EQ(parse_assignment("cluster/clstat", "  7").value, Value(7u));
    EXPECT_THAT(texts(""), IsEmpty());
    EXPECT_THAT(texts("\n"), IsEmpty());
}

TEST(ParsedAssignments, AreRefusedWithTheNumberOfTheirLine) {
    const auto refusal = [](std::string_view text) { return refusal_by([&] { parse_assignments(text); }); };
    EXPECT_EQ(refusal("cluster/clstat"), (Refusal{ErrorKind::invalid,
                                                  "invalid line 1: use a key, a blank and a value, "
                                                  "not \"cluster/clstat\""}));
    EXPECT_EQ(refusal("\n#\ncluster/clstat x\n"),
              (Refusal{ErrorKind::invalid,
                       "line 3: invalid value \"x\" for cluster/clstat: use a whole number from 0 "
                       "to 4294967295"}));
    EXPECT_EQ(
        refusal("cluster/clstat 1\nservers/a/combstat 1 2"),
        (Refusal{ErrorKind::invalid, "line 2: invalid value \"1 2\" for servers/a/combstat: use a whole number"}));
    EXPECT_EQ(refusal("cluster/clstatt 1").kind, ErrorKind::no_such_word);
}

}  // namespace
}  // namespace picture
