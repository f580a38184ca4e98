// Pictures as documents: what is written is read back whole, and what is not whole is refused.
#include "picture/picture_document.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cstddef>
#include <functional>
#include <string>

#include "picture/differences.h"
#include "picture/error.h"
#include "picture/library_region.h"
#include "shmnm.h"

namespace picture {
namespace {

using test::LibraryRegion;
using test::Random;

std::vector<std::string> lines(const std::vector<Difference>& differences) {
    std::vector<std::string> all(differences.size());
    std::transform(differences.begin(), differences.end(), all.begin(),
                   [](const Difference& one) { return to_text(one); });
    return all;
}

TEST(Document, ReadsBackWhatItWrote) {
    Random random(test::seed());
    for (unsigned round = 0; round < test::share_of(100); ++round) {
        LibraryRegion region({6, 5, 4, static_cast<int32_t>(test::below(random, 3))});
        region.call(random, test::below(random, 200));
        const Document document = document_of(region.dump());
        const std::string text = to_json(document).dump();
        const Document read = document_from(text);
        EXPECT_EQ(to_json(read).dump(), text);
        EXPECT_THAT(differences(document, read), testing::IsEmpty());
        for (int32_t shmnm_header::*const count :
             {&shmnm_header::fst_count, &shmnm_header::fst_pid_limit, &shmnm_header::server_count,
              &shmnm_header::hb_count, &shmnm_header::np_count, &shmnm_header::fst_pid_count}) {
            EXPECT_EQ(read.picture.header.*count, document.picture.header.*count);
        }
    }
}

TEST(Document, RefusesWhatIsNotWholeAndNamesThePlace) {
    LibraryRegion region({2, 1, 1, 1});
    region.fill();
    const Json whole = to_json(document_of(region.dump()));
    const auto refusal = [&](const std::function<void(Json&)>& edit) -> std::string {
        Json edited = whole;
        edit(edited);
        try {
            document_from(edited.dump());
            return "";
        } catch (const Error& error) {
            EXPECT_EQ(error.kind, ErrorKind::not_a_picture);
            return error.what();
        }
    };
    EXPECT_EQ(refusal([](Json&) {}), "");
    EXPECT_EQ(refusal([](Json& json) { json["kind"] = "status"; }), "the document is not a picture in JSON");
    EXPECT_EQ(refusal([](Json& json) { json["version"] = 2; }), "the document has another version than 1");
    EXPECT_EQ(refusal([](Json& json) { json = Json::array(); }), "the document is not a picture in JSON");
    EXPECT_EQ(refusal([](Json& json) { json["cluster"].erase("clstat"); }), "cluster has no member \"clstat\"");
    EXPECT_EQ(refusal([](Json& json) { json["servers"][1]["pristat"] = 1; }),
              "servers[1] has an unknown member \"pristat\"");
    for (const auto& [place, path] : std::vector<std::pair<std::string, std::string>>{{"the document", ""},
                                                                                      {"counts", "/counts"},
                                                                                      {"cluster", "/cluster"},
                                                                                      {"hb[0]", "/hb/0"},
                                                                                      {"fst", "/fst"},
                                                                                      {"fst.pids[1]", "/fst/pids/1"}}) {
        EXPECT_EQ(refusal([&pointer = path](Json& json) { json[Json::json_pointer(pointer)]["mine"] = 1; }),
                  place + " has an unknown member \"mine\"");
    }
    EXPECT_EQ(refusal([](Json& json) { json["servers"][1]["pri"] = 1u << 31; }),
              "servers[1].pri is out of range: 2147483648");
    EXPECT_EQ(refusal([](Json& json) { json["servers"][1]["pingstat"] = -1; }),
              "servers[1].pingstat is out of range: -1");
    EXPECT_EQ(refusal([](Json& json) { json["servers"][0]["pingstat"] = 1.5; }),
              "servers[0].pingstat is not a whole number");
    EXPECT_EQ(refusal([](Json& json) { json["servers"][0]["pingstat"] = "none"; }),
              "servers[0].pingstat is not a whole number");
    EXPECT_EQ(refusal([](Json& json) { json["servers"][0] = 1; }), "servers[0] is not an object");
    EXPECT_EQ(refusal([](Json& json) { json["servers"][0]["name"] = 1; }), "servers[0].name is not a text");
    EXPECT_EQ(refusal([](Json& json) { json["servers"][0]["name"] = "a%2"; }),
              "servers[0].name has a % without two hexadecimal digits after it");
    EXPECT_EQ(refusal([](Json& json) { json["servers"][0]["name"] = "a%00b"; }),
              "servers[0].name has a NUL within a name");
    EXPECT_EQ(refusal([](Json& json) { json["hb"][0]["descript"] = std::string(257, 'd'); }),
              "hb[0].descript has 257 bytes; 256 is the most");
    EXPECT_EQ(refusal([](Json& json) { json["hb"][0]["network"].push_back(1); }), "hb[0].network has 3 entries, not 2");
    EXPECT_EQ(refusal([](Json& json) { json["np"][0]["network"] = Json::array(); }),
              "np[0] has an unknown member \"network\"");
    EXPECT_EQ(refusal([](Json& json) { json["fst"]["pids"][1]["piddata"][2] = "18446744073709551616"; }),
              "fst.pids[1].piddata[2] is not a whole number");
    EXPECT_EQ(refusal([](Json& json) { json["fst"]["pids"][1]["piddata"][2] = "-1"; }),
              "fst.pids[1].piddata[2] is out of range: -1");
    EXPECT_EQ(refusal([](Json& json) { json["fst"]["pids"] = Json::object(); }), "fst.pids is not a list");
    EXPECT_EQ(refusal([](Json& json) { json["counts"]["fst"] = 0; }), "fst is not empty although counts.fst is 0");
    EXPECT_EQ(refusal([](Json& json) {
                  json["counts"]["fst"] = 0;
                  json["fst"]["stat"] = nullptr;
              }),
              "fst is not empty although counts.fst is 0");
    EXPECT_EQ(refusal([](Json& json) { json["counts"]["hb"] = -1; }), "counts.hb is below 0");
    EXPECT_EQ(refusal([](Json& json) { json["counts"]["servers"] = INT32_MAX; }),
              "counts are those of a region larger than 4 GiB");
}

TEST(Document, IsNotMadeFromACutRegion) {
    LibraryRegion region({2, 1, 1, 1});
    Snapshot snapshot = region.dump();
    snapshot.bytes.pop_back();
    EXPECT_THROW(document_of(snapshot), Error);
}

TEST(Document, IsNotMadeFromARegionWithANegativeCount) {
    LibraryRegion region({2, 1, 1, 1});
    const struct {
        size_t count;
        std::string of;
    } counts[] = {{offsetof(shmnm_header, server_count), "servers"},
                  {offsetof(shmnm_header, hb_count), "hb resources"},
                  {offsetof(shmnm_header, np_count), "np resources"},
                  {offsetof(shmnm_header, fst_pid_count), "names with process ids"}};
    for (const auto& [count, of] : counts) {
        Snapshot snapshot = region.dump();
        std::fill_n(snapshot.bytes.begin() + static_cast<std::ptrdiff_t>(count), 4, uint8_t{0xFF});
        try {
            document_of(snapshot);
            ADD_FAILURE() << "taken for a whole region";
        } catch (const Error& error) {
            EXPECT_EQ(error.kind, ErrorKind::damaged);
            EXPECT_EQ(error.what(), "the header counts -1 " + of + ", but the bytes hold 0");
        }
    }
}

TEST(Document, IsNotMadeFromARegionThatCountsMoreThanItHolds) {
    LibraryRegion region({2, 1, 1, 1});
    Snapshot snapshot = region.dump();
    snapshot.bytes[offsetof(shmnm_header, server_count)] = 200;
    try {
        document_of(snapshot);
        FAIL() << "taken for a whole region";
    } catch (const Error& error) {
        EXPECT_STREQ(error.what(), "the header counts 200 servers, but the bytes hold 13");
    }
}

TEST(Document, HasNoZerosAtTheEndOfADescription) {
    LibraryRegion region({2, 1, 1, 1});
    region.fill();
    Json json = to_json(document_of(region.dump()));
    json["hb"][0]["descript"] = "a%00b%00%00";
    EXPECT_EQ(document_from(json.dump()).picture.hb[0].descript, std::string("a\0b", 3));
}

TEST(Document, HasNumbersOf64BitsAsText) {
    LibraryRegion region({2, 1, 1, 1});
    shmnm_setfstrscpid("agent", 1, 4711, UINT64_MAX);
    EXPECT_EQ(to_json(document_of(region.dump()))["fst"]["pids"].dump(),
              R"([{"name":"agent","pid":[0,4711,0],"piddata":["0","18446744073709551615","0"]}])");
}

TEST(Differences, AreListedForEveryKindOfThing) {
    LibraryRegion region({3, 2, 1, 1});
    shmnm_addnode("alpha", -1);
    shmnm_addnode("beta", 2);
    shmnm_addhbrsc("lan", "lan1", 4);
    shmnm_setfstdescript("before", 6);
    shmnm_setfstrscpid("agent", 0, 1, UINT64_MAX);
    const Document before = document_of(region.dump());
    Document after = before;
    EXPECT_THAT(differences(before, after), testing::IsEmpty());
    Picture& picture = after.picture;
    after.counts.np = 4;
    std::swap(picture.servers[0], picture.servers[1]);
    picture.servers[1].record.pri = 9;
    picture.servers[1].record.nodestat = 1;
    picture.hb[0].network.states = {5, 2};
    picture.hb[0].descript = "new";
    picture.fst->descript.clear();
    picture.fst_pids[0].piddata[0] = 7;
    EXPECT_THAT(lines(differences(before, after)),
                testing::ElementsAre("counts servers 3, hb 2, np 1, fst 1 -> servers 3, hb 2, np 4, fst 1",
                                     "servers alpha beta -> beta alpha", "servers/alpha/pri -1 -> 9",
                                     "servers/alpha/nodestat 2 -> 1", "hb/lan/lan1/network/beta 2 -> 5",
                                     "fst/piddata/agent/0 18446744073709551615 -> 7", "fst/descript \"before\" -> \"\"",
                                     "hb/lan/lan1/descript \"\" -> \"new\""));
}

TEST(Differences, ShowAnotherOrderInEachTable) {
    LibraryRegion region({2, 2, 2, 1});
    region.fill();
    const Document before = document_of(region.dump());
    Document after = before;
    Picture& picture = after.picture;
    std::swap(picture.servers[0], picture.servers[1]);
    std::swap(picture.hb[0], picture.hb[1]);
    std::swap(picture.np[0], picture.np[1]);
    std::swap(picture.fst_pids[0], picture.fst_pids[1]);
    EXPECT_THAT(lines(differences(before, after)),
                testing::UnorderedElementsAre("servers server0 server1 -> server1 server0",
                                              "hb lan/lanhb0 lan/lanhb1 -> lan/lanhb1 lan/lanhb0",
                                              "np ping/pingnp0 ping/pingnp1 -> ping/pingnp1 ping/pingnp0",
                                              "fst/pids agent0 agent1 -> agent1 agent0"));
}

TEST(Differences, ShowWhatIsOnOneSideAlone) {
    LibraryRegion region({3, 2, 1, 1});
    shmnm_addnode("alpha", 1);
    const Document before = document_of(region.dump());
    shmnm_addnode("b c", -2);
    shmnm_addhbrsc("lan", "lan1", 4);
    shmnm_sethbdescript("lan", "lan1", "new", 3);
    shmnm_addnprsc("ping", "without a description", 5);
    shmnm_setfstrscpid("agent", 0, 1, UINT64_MAX);
    const Document after = document_of(region.dump());
    const std::vector<Difference> found = differences(before, after);
    EXPECT_THAT(lines(found),
                testing::IsSupersetOf(
                    {"servers/b%20c/pri - -> -2", "servers/b%20c/nodestat - -> 2", "hb/lan/lan1/network/b%20c - -> 2",
                     "fst/piddata/agent/0 - -> 18446744073709551615", "hb/lan/lan1/descript - -> \"new\""}));
    EXPECT_THAT(lines(found), testing::Not(testing::Contains(testing::HasSubstr("combstat"))));
    EXPECT_THAT(lines(found),
                testing::Not(testing::Contains(testing::HasSubstr("without%20a%20description/descript"))));
    EXPECT_THAT(lines(found), testing::Not(testing::Contains(testing::StartsWith("servers "))));
    std::vector<std::string> back = lines(differences(after, before));
    EXPECT_EQ(back.size(), found.size());
    EXPECT_THAT(back, testing::IsSupersetOf({"servers/b%20c/pri -2 -> -", "hb/lan/lan1/descript \"new\" -> -"}));
}

TEST(Differences, HaveTheirSidesInJson) {
    const std::vector<Difference> found{
        {"a", Shown{"1", 1}, Shown{"2", 2}}, {"b", {}, Shown{"3", 3}}, {"c", Shown{"4", 4}, {}}};
    EXPECT_EQ(to_json(found).dump(), R"([{"key":"a","old":1,"new":2},{"key":"b","new":3},{"key":"c","old":4}])");
    LibraryRegion region({3, 2, 1, 1});
    shmnm_addnode("alpha", 1);
    shmnm_addnode("beta", 2);
    shmnm_addnprsc("ping", "p1", 5);
    const Document before = document_of(region.dump());
    Document after = before;
    std::swap(after.picture.servers[0], after.picture.servers[1]);
    after.picture.np[0].descript = "d e";
    EXPECT_EQ(to_json(differences(before, after)).dump(),
              R"([{"key":"servers","old":["alpha","beta"],"new":["beta","alpha"]},)"
              R"({"key":"np/ping/p1/descript","old":"","new":"d%20e"}])");
}

TEST(Differences, ShowTheSecondOfTwoRecordsOfOneName) {
    LibraryRegion region({3, 2, 1, 1});
    const std::string cut(300, 'x'), key = "servers/" + std::string(255, 'x') + "%002/";
    shmnm_addnode(cut.c_str(), 1);
    shmnm_addnode(cut.c_str(), 2);
    const Document before = document_of(region.dump());
    ASSERT_EQ(before.picture.servers.size(), 2u);
    Document after = before;
    after.picture.servers[1].record.holdstat = 3;
    EXPECT_THAT(lines(differences(before, after)), testing::ElementsAre(key + "holdstat 0 -> 3"));
}

TEST(Differences, ShowTheSecondOfTwoResourcesOrProcessIdsOfOneName) {
    LibraryRegion region({3, 2, 2, 1});
    region.fill();
    Document before = document_of(region.dump());
    before.picture.hb[1].name = before.picture.hb[0].name;
    before.picture.np[1].name = before.picture.np[0].name;
    before.picture.fst_pids[1].name = before.picture.fst_pids[0].name;
    Document after = before;
    after.picture.hb[1].record.pri = 3;
    after.picture.np[1].record.pri = 4;
    after.picture.fst_pids[1].pid[0] = 5;
    EXPECT_THAT(lines(differences(before, after)),
                testing::ElementsAre("hb/lan/lanhb0%002/pri 0 -> 3", "np/ping/pingnp0%002/pri 0 -> 4",
                                     "fst/pids/agent0%002/0 1 -> 5"));
}

}  // namespace
}  // namespace picture
