// The picture as JSON: every member, in its order.
#include "picture/json.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "picture/decode.h"
#include "shmnmctl/full_picture.h"

namespace picture {
namespace {

/// One record of each kind, in which every number has a value of its own.
Picture small_picture() {
    Picture picture = test::full_picture(1, 1);
    shmnm_header& header = picture.header;
    int32_t number = 1;
    for (int32_t* const word : {&header.max_servers, &header.max_hb, &header.max_np, &header.fst_count,
                                &header.fst_pid_limit, &header.server_count, &header.hb_count, &header.np_count,
                                &header.fst_pid_count, &header.hbinfo_a, &header.hbinfo_b}) {
        *word = number++;
    }
    header.max_np = -7;
    header.waitstat = 100;
    header.bwflag = 101;
    header.bwflagdisk = 102;
    header.clstat = 103;
    header.dfailstatus = 1;
    Server& server = picture.servers[0];
    server.name = "a b";
    server.record.pri = -5;
    server.record.nodestat = 1;
    server.record.dfailstatus = 1;
    server.combstat = 16;
    picture.servers.push_back(server);
    picture.servers[1].name = "c";
    picture.servers[1].record.nodestat = 2;
    picture.servers[1].record.dfailstatus = 0;
    picture.servers[1].combstat.reset();
    picture.hb[0].name = "x/y";
    picture.hb[0].descript = "d e";
    picture.fst->descript = "f\n";
    picture.fst->record.stat = 9;
    picture.fst_pids[0].name = "ag ent";
    picture.fst_pids[0].piddata = {1, uint64_t{1} << 53, UINT64_MAX};
    return picture;
}

Snapshot snapshot() {
    Snapshot snapshot;
    snapshot.bytes.resize(1234);
    snapshot.live = true;
    snapshot.object = 6;
    snapshot.note.emplace();
    snapshot.note->state = shmnm::Note::open;
    snapshot.note->call = shmnm::NotedCall::addnode;
    snapshot.note->process = 4711;
    snapshot.note->object = 6;
    snapshot.note->name[0] = 'n';
    return snapshot;
}

TEST(StatusLine, HasEveryPartOfThePicture) {
    const std::string line = status_line(snapshot(), small_picture());
    EXPECT_EQ(line,
              R"({"version":1,"kind":"status","region":{"live":true,"size":1234,"max_servers":1,"max_hb":2,)"
              R"("max_np":-7,"fst_count":4,"fst_pid_limit":5,"server_count":6,"hb_count":7,"np_count":8,)"
              R"("fst_pid_count":9},"cluster":{"waitstat":100,"bwflag":101,"bwflagdisk":102,"clstat":103,)"
              R"("hbinfo_a":10,"hbinfo_b":11,"alive":true},"servers":[{"name":"a%20b","pri":-5,"nodestat":1,)"
              R"("nodestat_nw":1000002,"downnotifystat":1000004,"isolateflag":1000005,"pingstat":1000003,)"
              R"("holdstat":1000006,"dfailstatus":1,"combstat":16,"alive":true},{"name":"c","pri":-5,"nodestat":2,)"
              R"("nodestat_nw":1000002,"downnotifystat":1000004,"isolateflag":1000005,"pingstat":1000003,)"
              R"("holdstat":1000006,"dfailstatus":0,"combstat":null,"alive":false}],"hb":[{"type":"lan",)"
              R"("name":"x%2Fy","pri":1000007,"stat":1000008,"descript":"d%20e","svstat":[1000009],)"
              R"("network":[1000010]}],"np":[{"type":"ping","name":"ping0","pri":1000011,"stat":1000012,)"
              R"("descript":"","svstat":[1000013]}],"simulation":{"dfailstatus":1,"failed":["a%20b"]},)"
              R"("fst":{"stat":9,"descript":"f%0A","pids":[{"name":"ag%20ent","pid":[1000014,1000015,1000016],)"
              R"("piddata":["1","9007199254740992","18446744073709551615"]}]},"interrupted":[{"process":4711,)"
              R"("call":"shmnm_addnode","change":"added server n","superseded":false}]})"
              "\n");
    EXPECT_EQ(to_json(snapshot(), small_picture()).dump() + "\n", line);
}

TEST(StatusLine, HasNoFstResourceWhereThereIsNone) {
    Picture picture = small_picture();
    picture.fst.reset();
    picture.fst_pids.clear();
    picture.servers.clear();
    Snapshot dump = snapshot();
    dump.live = false;
    dump.note.reset();
    const Json status = to_json(dump, picture);
    EXPECT_EQ(status["fst"].dump(), R"({"stat":null,"descript":null,"pids":[]})");
    EXPECT_EQ(status["region"]["live"], false);
    EXPECT_EQ(status["cluster"]["alive"], false);
    EXPECT_EQ(status["servers"].dump() + status["interrupted"].dump(), "[][]");
    EXPECT_FALSE(status.contains("bridge"));
}

/// Marks in which every number has a value of its own and every second flag of the document is set.
Bridge some_bridge(bool is_odd) {
    Bridge bridge{
        .is_up = is_odd, .stopped_us = is_odd ? uint64_t{0} : 2'001'999, .marks = {}, .left_out = 5, .lost_servers = 6};
    bridge::Marks& marks = bridge.marks;
    marks.is_connected = marks.is_refused = is_odd;
    marks.is_running = marks.is_fed = !is_odd;
    marks.cluster = "production";
    marks.server = "alpha";
    marks.member = "http://m";
    marks.agreed = {1, 2, 3, 4};
    marks.contested = {"cluster/clstat", "cluster/bwflag"};
    marks.unmatched = {"servers/x"};
    bridge::Mark mark{.server = "beta",
                      .freshness = bridge::Freshness::fresh,
                      .age = is_odd ? 0 : -1,
                      .sequence = 8,
                      .address = "h:1"};
    mark.is_claimed = mark.is_duplicate = mark.has_other_times = is_odd;
    mark.is_unmatched = mark.has_other_names = !is_odd;
    marks.servers.push_back(mark);
    return bridge;
}

TEST(BridgeInJson, HasEachMark) {
    EXPECT_EQ(to_json_text(some_bridge(true)),
              R"({"up":true,"stopped_ms":null,"connected":true,"running":false,"refused":true,"fed":false,)"
              R"("cluster":"production","server":"alpha","member":"http://m","proposals":{"proposed":1,"accepted":2,)"
              R"("lost":3,"replaced":4},"contested":["cluster/clstat","cluster/bwflag"],"unmatched":["servers/x"],)"
              R"("left_out":5,"lost_servers":6,"servers":[{"name":"beta","freshness":"fresh","age_ms":0,"revision":8,)"
              R"("address":"h:1","claimed":true,"unmatched":false,"duplicate_priority":true,"other_names":false,)"
              R"("other_times":true}]})");
    EXPECT_EQ(to_json_text(some_bridge(false)),
              R"({"up":false,"stopped_ms":2001,"connected":false,"running":true,"refused":false,"fed":true,)"
              R"("cluster":"production","server":"alpha","member":"http://m","proposals":{"proposed":1,"accepted":2,)"
              R"("lost":3,"replaced":4},"contested":["cluster/clstat","cluster/bwflag"],"unmatched":["servers/x"],)"
              R"("left_out":5,"lost_servers":6,"servers":[{"name":"beta","freshness":"fresh","age_ms":null,)"
              R"("revision":8,"address":"h:1","claimed":false,"unmatched":true,"duplicate_priority":false,)"
              R"("other_names":true,"other_times":false}]})");
    Snapshot with_bridge = snapshot();
    with_bridge.bridge = some_bridge(true);
    EXPECT_EQ(to_json(with_bridge, small_picture())["bridge"].dump(), to_json_text(some_bridge(true)));
}

/// Checks that a document with one flag set shows this flag as true and the others as false.
template <typename Owner, size_t count, typename Shown>
void expect_each_by_itself(const std::pair<const char*, bool Owner::*> (&flags)[count], const Shown& shown) {
    for (const auto& [name, flag] : flags) {
        Owner owner;
        owner.*flag = true;
        const Json document = shown(owner);
        for (const auto& [other, unused] : flags) EXPECT_EQ(document.at(other), other == name) << name << ", " << other;
    }
}

TEST(BridgeInJson, ShowsEachFlagByItself) {
    using bridge::Mark, bridge::Marks;
    const std::pair<const char*, bool Marks::*> flags[] = {{"connected", &Marks::is_connected},
                                                           {"running", &Marks::is_running},
                                                           {"refused", &Marks::is_refused},
                                                           {"fed", &Marks::is_fed}};
    expect_each_by_itself(flags, [](const Marks& marks) {
        Bridge bridge;
        bridge.marks = marks;
        return Json::parse(to_json_text(bridge));
    });
    const std::pair<const char*, bool Mark::*> flags_of_a_server[] = {{"claimed", &Mark::is_claimed},
                                                                      {"unmatched", &Mark::is_unmatched},
                                                                      {"duplicate_priority", &Mark::is_duplicate},
                                                                      {"other_names", &Mark::has_other_names},
                                                                      {"other_times", &Mark::has_other_times}};
    expect_each_by_itself(flags_of_a_server, [](const Mark& mark) {
        Bridge bridge;
        bridge.marks.servers.push_back(mark);
        return Json::parse(to_json_text(bridge)).at("servers").at(0);
    });
}

TEST(WordsInJson, AreTheirValuesByTheirKeys) {
    const std::vector<Word> words{{"a", 1u}, {"b", -2}, {"c", {}}, {"d", UINT64_MAX}};
    EXPECT_EQ(to_json(words).dump(), R"({"a":1,"b":-2,"c":null,"d":"18446744073709551615"})");
}

TEST(InterruptedChangesInJson, NameTheirCall) {
    EXPECT_EQ(to_json(interrupted_in(snapshot())).dump(),
              R"([{"process":4711,"call":"shmnm_addnode","change":"added server n","superseded":false}])");
}

TEST(Documents, HaveTheirKindAndVersion) {
    EXPECT_EQ(line(document("status")), "{\"version\":1,\"kind\":\"status\"}\n");
    JsonText text = document_text("status");
    EXPECT_EQ(line(text), "{\"version\":1,\"kind\":\"status\"}\n");
}

}  // namespace
}  // namespace picture
