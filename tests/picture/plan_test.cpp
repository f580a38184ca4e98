// What no calls of the library do is refused by name; what they do on the way is undone on the way.
#include "picture/plan.h"

#include <gmock/gmock.h>

#include <functional>
#include <string>

#include "picture/error.h"
#include "picture/library_region.h"
#include "shmnm.h"

namespace picture {
namespace {

using test::LibraryRegion;

/// A full region whose servers have two priorities, and a way to plan for an edited picture of it.
class PlanTest : public testing::Test {
  protected:
    PlanTest() {
        region_.fill();
        shmnm_modifynode("server2", 0);
        shmnm_sethbinfo_ex(3, 4);
        live_ = document_of(region_.dump());
    }

    /// Why no calls lead to an edited picture; "" if some do.
    std::string refusal(const std::function<void(Document&)>& edit) {
        Document target = live_;
        edit(target);
        try {
            plan(live_, target);
            return "";
        } catch (const Error& error) {
            EXPECT_EQ(error.kind, ErrorKind::inexpressible);
            return error.what();
        }
    }
    std::string refusal_of(const std::function<void(Picture&)>& edit) {
        return refusal([&](Document& document) { edit(document.picture); });
    }
    /// The functions that are called for an edited picture.
    std::vector<std::string> calls(const std::function<void(Picture&)>& edit) {
        Document target = live_;
        edit(target.picture);
        std::vector<std::string> names;
        for (const Step& step : plan(live_, target)) names.push_back(step.function);
        return names;
    }

    LibraryRegion region_{{3, 2, 1, 1}};
    Document live_{{},
                   {.header = {}, .layout = Layout({}), .servers = {}, .hb = {}, .np = {}, .fst = {}, .fst_pids = {}}};
};

TEST_F(PlanTest, RefusesNamesThatAreThereTwice) {
    EXPECT_EQ(
        refusal_of([](Picture& picture) { picture.servers[1].name = "server0"; }),
        "nothing was changed: cannot set servers/server0: it is there twice, and the library finds only the first");
    EXPECT_EQ(refusal_of([](Picture& picture) { picture.hb[1].name = "lanhb0"; }),
              "nothing was changed: cannot set hb/lan/lanhb0: it is there twice, and the library finds only the first");
    EXPECT_EQ(
        refusal_of([](Picture& picture) { picture.fst_pids[2].name = "agent1"; }),
        "nothing was changed: cannot set fst/pids/agent1: it is there twice, and the library finds only the first");
}

TEST_F(PlanTest, RefusesNamesBeyondTheirFields) {
    const std::string long_name(32, 'n');
    for (const size_t server : {size_t{0}, size_t{1}}) {
        EXPECT_EQ(
            refusal_of([&](Picture& picture) { picture.servers[server].name = std::string(256, 's'); }),
            "nothing was changed: cannot set servers/" + std::string(256, 's') + ": a name has at most 255 bytes");
    }
    EXPECT_EQ(refusal_of([&](Picture& picture) { picture.np[0].name = long_name; }),
              "nothing was changed: cannot set np/ping/" + long_name + ": a name has at most 31 bytes");
    EXPECT_EQ(refusal_of([&](Picture& picture) { picture.hb[0].type = long_name; }),
              "nothing was changed: cannot set hb/" + long_name + "/lanhb0: a name has at most 31 bytes");
    for (const size_t record : {size_t{0}, size_t{2}}) {
        EXPECT_EQ(
            refusal_of([&](Picture& picture) { picture.fst_pids[record].name = std::string(256, 'p'); }),
            "nothing was changed: cannot set fst/pids/" + std::string(256, 'p') + ": a name has at most 255 bytes");
    }
}

TEST_F(PlanTest, RefusesADescriptionThatTheLibraryDoesNotReach) {
    EXPECT_EQ(refusal_of([](Picture& picture) { picture.hb[1].descript = "second"; }),
              "nothing was changed: cannot set hb/lan/lanhb1/descript: the library reaches only the description of the "
              "first hb resource");
    EXPECT_THAT(calls([](Picture& picture) { picture.hb[0].descript = "first"; }),
                testing::ElementsAre("shmnm_sethbdescript"));
}

TEST(PlanOfManyServers, ReachesADescriptionWhereTheLibraryLooksForAnotherRecord) {
    // A record with its states is one and a half times as long as a record alone.
    const auto is_refused = [](int32_t resources, size_t position) {
        LibraryRegion region({73, resources, 0, 0});
        region.fill();
        const Document live = document_of(region.dump());
        Document target = live;
        target.picture.hb[position].descript = "far";
        try {
            plan(live, target);
            return false;
        } catch (const Error&) {
            return true;
        }
    };
    EXPECT_TRUE(is_refused(4, 1));
    EXPECT_FALSE(is_refused(4, 2));
    EXPECT_TRUE(is_refused(4, 3));
    EXPECT_TRUE(is_refused(3, 2)) << "there is no fourth record";
}

TEST_F(PlanTest, SetsAProcessIdOrWhatIsStoredBesideItIfEitherDiffers) {
    live_.picture.fst_pids.pop_back();
    const auto named = testing::ElementsAre("shmnm_setfstrscpid");
    EXPECT_THAT(calls([](Picture& picture) { picture.fst_pids[0].pid[0] = 9; }), named);
    EXPECT_THAT(calls([](Picture& picture) { picture.fst_pids[0].piddata[0] = 9; }), named);
    const auto third = [](size_t kinds) {
        return [kinds](Picture& picture) {
            picture.fst_pids.push_back({.name = "third"});
            for (size_t kind = 0; kind < kinds; ++kind) picture.fst_pids.back().piddata[kind] = 7;
        };
    };
    EXPECT_THAT(calls(third(1)), named);
    EXPECT_THAT(refusal_of(third(2)), testing::HasSubstr("it fills the table of process ids"));
}

TEST_F(PlanTest, SetsBothWordsOfAPairInOneCall) {
    EXPECT_THAT(calls([](Picture& picture) { picture.header.hbinfo_a = picture.header.hbinfo_b = 9; }),
                testing::ElementsAre("shmnm_sethbinfo_ex"));
}

TEST_F(PlanTest, RefusesAPairBelowOne) {
    EXPECT_EQ(refusal_of([](Picture& picture) { picture.header.hbinfo_b = 0; }),
              "nothing was changed: cannot set cluster/hbinfo_b: it and what is set together with it are at least 1");
}

TEST_F(PlanTest, RefusesASimulationThatNoCallMakes) {
    EXPECT_EQ(refusal_of([](Picture& picture) { picture.header.dfailstatus = 2; }),
              "nothing was changed: cannot set cluster/dfailstatus: it is 0 or 1");
    EXPECT_EQ(refusal_of([](Picture& picture) { picture.servers[1].record.dfailstatus = 1; }),
              "nothing was changed: cannot set servers/server1/dfailstatus: servers fail only while "
              "cluster/dfailstatus is 1");
    for (const uint32_t fails : {2u, 5u}) {
        EXPECT_EQ(refusal_of([&](Picture& picture) { picture.servers[1].record.dfailstatus = fails; }),
                  "nothing was changed: cannot set servers/server1/dfailstatus: it is 0 or 1");
    }
}

TEST_F(PlanTest, RefusesToRemoveOrMoveNamesWithProcessIds) {
    EXPECT_EQ(refusal_of([](Picture& picture) { picture.fst_pids.pop_back(); }),
              "nothing was changed: cannot set fst/pids/agent2: names with process ids cannot be removed or put into "
              "another order");
    EXPECT_EQ(refusal_of([](Picture& picture) { std::swap(picture.fst_pids[0], picture.fst_pids[1]); }),
              "nothing was changed: cannot set fst/pids/agent0: names with process ids cannot be removed or put into "
              "another order");
}

TEST_F(PlanTest, RefusesProcessIdsWhileTheirTableIsFull) {
    EXPECT_EQ(refusal_of([](Picture& picture) { picture.fst_pids[0].pid[1] = 9; }),
              "nothing was changed: cannot set fst/pids/agent0: the table of process ids is full, and the library then "
              "sets none");
    live_.picture.fst_pids.pop_back();
    const auto with_third = [](size_t kinds) {
        return [kinds](Picture& picture) {
            picture.fst_pids.push_back({.name = "third"});
            for (size_t kind = 0; kind < kinds; ++kind) picture.fst_pids.back().pid[kind] = 7;
            picture.fst_pids[0].pid[1] = 9;
        };
    };
    EXPECT_EQ(refusal_of(with_third(2)),
              "nothing was changed: cannot set fst/pids/third: it fills the table of process ids, and the library then "
              "sets no other");
    EXPECT_EQ(refusal_of(with_third(1)), "");
}

TEST_F(PlanTest, RefusesOtherCountsAndChangedMaxima) {
    EXPECT_EQ(refusal([](Document& document) { document.counts.hb = 5; }),
              "nothing was changed: the region has room for servers 3, hb 2, np 1, fst 1, the picture's for servers 3, "
              "hb 5, np 1, fst 1");
    EXPECT_EQ(refusal_of([](Picture& picture) { picture.header.max_np = 9; }),
              "nothing was changed: the picture has changed maxima: servers 3, hb 2, np 9, fst 1, but room for servers "
              "3, hb 2, np 1, fst 1");
    EXPECT_EQ(refusal_of([](Picture& picture) { picture.servers.push_back(picture.servers[0]); }),
              "nothing was changed: the picture has 4 servers and room for 3");
    EXPECT_EQ(refusal_of([](Picture& picture) { picture.hb.push_back(picture.hb[0]); }),
              "nothing was changed: the picture has 3 hb resources and room for 2");
    EXPECT_EQ(refusal_of([](Picture& picture) { picture.np.push_back(picture.hb[0]); }),
              "nothing was changed: the picture has 2 np resources and room for 1");
    EXPECT_EQ(refusal_of([](Picture& picture) { picture.fst_pids.push_back(picture.fst_pids[0]); }),
              "nothing was changed: the picture has 4 names with process ids and room for 3");
    live_.picture.header.max_np = 9;
    EXPECT_EQ(refusal_of([](Picture& picture) { picture.header.max_np = 1; }),
              "nothing was changed: the region has changed maxima: servers 3, hb 2, np 9, fst 1, but room for servers "
              "3, hb 2, np 1, fst 1");
}

TEST_F(PlanTest, GivesServersOtherPrioritiesOnlyWhileTheLibraryWouldFindOthers) {
    EXPECT_THAT(calls([](Picture& picture) { picture.hb[1].network.states[1] = 8; }),
                testing::ElementsAre("shmnm_setrscsvstat_nw"));
    EXPECT_THAT(
        calls([](Picture& picture) { picture.hb[1].network.states[2] = picture.np[0].svstat.states[2] = 8; }),
        testing::ElementsAre("shmnm_modifynode", "shmnm_setrscsvstat_nw", "shmnm_setnprscsvstat", "shmnm_modifynode"));
    EXPECT_THAT(calls([](Picture& picture) { picture.header.dfailstatus = picture.servers[2].record.dfailstatus = 1; }),
                testing::ElementsAre("shmnm_modifynode", "shmnm_setnpsimu", "shmnm_modifynode"));
}

TEST_F(PlanTest, LeavesPrioritiesThatTheLibraryCanTakeAsIndexes) {
    const auto calls_with = [&](int32_t first, int32_t second, int32_t third) {
        live_.picture.servers[0].record.pri = first;
        live_.picture.servers[1].record.pri = second;
        live_.picture.servers[2].record.pri = third;
        return calls([](Picture& picture) { picture.header.dfailstatus = picture.servers[2].record.dfailstatus = 1; });
    };
    EXPECT_THAT(calls_with(5, 0, 9), testing::ElementsAre("shmnm_setnpsimu"));
    EXPECT_THAT(calls_with(5, 65'535, 9), testing::ElementsAre("shmnm_setnpsimu"));
    EXPECT_THAT(calls_with(5, 65'536, 9), testing::Contains("shmnm_modifynode"));
    EXPECT_THAT(calls_with(5, -1, 9), testing::Contains("shmnm_modifynode"));
}

TEST_F(PlanTest, GivesAServerTheGreatestPriorityThatNoServerHas) {
    shmnm_modifynode("server1", INT32_MAX);
    live_ = document_of(region_.dump());
    Document target = live_;
    target.picture.hb[1].network.states[2] = 8;
    const std::vector<Step> steps = plan(live_, target);
    ASSERT_EQ(steps.size(), 3u);
    EXPECT_EQ(steps[0].call(), SHMNM_OK);
    EXPECT_EQ(document_of(region_.dump()).picture.servers[2].record.pri, INT32_MAX - 1);
}

/// A picture of a region with so many np resources.
Document with_np(const Counts& counts, size_t resources) {
    LibraryRegion region(counts);
    Document document = document_of(region.dump());
    for (size_t i = 0; i < resources; ++i) {
        document.picture.np.push_back(
            {.type = "ping", .name = std::to_string(i), .record = {}, .descript = {}, .svstat = {}, .network = {}});
    }
    return document;
}

TEST(PlanForOneServer, RefusesTablesThatReachIntoOthers) {
    const auto refusal = [](const Counts& counts, size_t resources) -> std::string {
        const Document document = with_np(counts, resources);
        try {
            plan(document, document);
            return "";
        } catch (const Error& error) {
            return error.what();
        }
    };
    // Each record takes 4 bytes more than its table has for it. The fst resource's description begins at byte 288.
    EXPECT_EQ(refusal({1, 0, 100, 1}, 72), "");
    EXPECT_EQ(refusal({1, 0, 73, 1}, 72), "");
    EXPECT_EQ(refusal({1, 0, 72, 1}, 72), "");
    EXPECT_EQ(refusal({1, 0, 73, 1}, 73), "nothing was changed: the region has tables that overlap");
    EXPECT_EQ(refusal({1, 0, 2, 0}, 2), "nothing was changed: the region has tables that overlap");
    EXPECT_EQ(refusal({1, 0, 2, 0}, 1), "");
}

TEST(PlanForNoServers, NeedsNoCallForAPictureThatIsThere) {
    const Document document = with_np({0, 2, 1, 1}, 0);
    EXPECT_TRUE(plan(document, document).empty());
}

TEST_F(PlanTest, KnowsTheStatesThatServersTakeAwayAndBring) {
    const auto rows = [](Picture& picture) {
        return std::vector{&picture.hb[0].svstat.states, &picture.hb[1].svstat.states, &picture.hb[0].network.states,
                           &picture.hb[1].network.states, &picture.np[0].svstat.states};
    };
    for (std::vector<uint32_t>* const row : rows(live_.picture)) *row = {7, 8, 9};
    EXPECT_THAT(calls([&](Picture& picture) {
                    picture.servers.erase(picture.servers.begin());
                    for (std::vector<uint32_t>* const row : rows(picture)) row->erase(row->begin());
                }),
                testing::ElementsAre("shmnm_rmnode"));
    const Server third = live_.picture.servers.back();
    live_.picture.servers.pop_back();
    for (std::vector<uint32_t>* const row : rows(live_.picture)) row->pop_back();
    const auto with_third = [&](uint32_t state) {
        return calls([&](Picture& picture) {
            picture.servers.push_back(third);
            picture.servers.back().record.pri = 4711;
            for (std::vector<uint32_t>* const row : rows(picture)) row->push_back(state);
        });
    };
    EXPECT_THAT(with_third(2), testing::ElementsAre("shmnm_addnode"));
    EXPECT_EQ(with_third(3).size(), 6u) << "one call for each row";
}

TEST_F(PlanTest, RemovesNoMoreThanWhatIsInAnotherPlace) {
    EXPECT_THAT(calls([](Picture& picture) {
                    picture.servers.erase(picture.servers.begin() + 1);
                    for (std::vector<uint32_t>* const row :
                         {&picture.hb[0].svstat.states, &picture.hb[1].svstat.states, &picture.hb[0].network.states,
                          &picture.hb[1].network.states, &picture.np[0].svstat.states}) {
                        row->pop_back();
                    }
                }),
                testing::ElementsAre("shmnm_rmnode"));
}

}  // namespace
}  // namespace picture
