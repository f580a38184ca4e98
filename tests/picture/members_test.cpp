// Servers and resources by their names: how they are added, changed and removed, found and told.
#include "picture/members.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "picture/decode.h"
#include "picture/library_region.h"
#include "shmnm.h"

namespace picture {
namespace {

const ResourceKind* const hb = &resource_kinds[0];
const ResourceKind* const np = &resource_kinds[1];
const Member alpha{.type = "", .name = "alpha"}, lan1{hb, "lan", "lan1"}, ping1{np, "ping", "ping1"};

class MembersTest : public testing::Test {
  protected:
    Picture picture() const { return decode(region_.dump()); }

    test::LibraryRegion region_{{2, 2, 2, 1}};
};

std::string done(const Answer& answer) {
    return std::string(answer.function) + " " + std::to_string(answer.result);
}

TEST_F(MembersTest, AreAddedChangedAndRemovedByTheFunctionsOfTheirKind) {
    EXPECT_EQ(done(add(alpha, -5)), "shmnm_addnode 0");
    EXPECT_EQ(done(add(lan1, UINT32_MAX)), "shmnm_addhbrsc 0");
    EXPECT_EQ(done(add(ping1, 7)), "shmnm_addnprsc 0");
    EXPECT_EQ(picture().servers.at(0).record.pri, -5);
    EXPECT_EQ(picture().hb.at(0).record.pri, UINT32_MAX);
    EXPECT_EQ(picture().np.at(0).record.pri, 7u);
    EXPECT_EQ(done(set_priority(alpha, INT32_MIN)), "shmnm_modifynode 0");
    EXPECT_EQ(done(set_priority(lan1, 8)), "shmnm_modifyhbrsc 0");
    EXPECT_EQ(done(set_priority(ping1, 9)), "shmnm_modifynprsc 0");
    EXPECT_EQ(picture().servers.at(0).record.pri, INT32_MIN);
    EXPECT_EQ(picture().hb.at(0).record.pri, 8u);
    EXPECT_EQ(picture().np.at(0).record.pri, 9u);
    EXPECT_EQ(done(describe(lan1, std::string(256, 'h'))), "shmnm_sethbdescript 0");
    EXPECT_EQ(picture().hb.at(0).descript, std::string(256, 'h'));
    EXPECT_EQ(done(describe(ping1, std::string(256, 'n'))), "shmnm_setnpdescript 0");
    EXPECT_EQ(done(remove(lan1)), "shmnm_rmhbrsc 0");
    EXPECT_EQ(done(remove(ping1)), "shmnm_rmnprsc 0");
    EXPECT_EQ(done(remove(alpha)), "shmnm_rmnode 0");
    EXPECT_EQ(picture().servers.size() + picture().hb.size() + picture().np.size(), 0u);
}

TEST_F(MembersTest, AreFoundByTheirWholeNames) {
    add(alpha, 0);
    add(lan1, 0);
    add(ping1, 0);
    const Picture now = picture();
    EXPECT_EQ(find_server(now, "alpha"), &now.servers[0]);
    EXPECT_EQ(find_server(now, "alph"), nullptr);
    EXPECT_EQ(find_resource(now, lan1), &now.hb[0]);
    EXPECT_EQ(find_resource(now, ping1), &now.np[0]);
    for (const Member& other : {Member{hb, "lan", "lan2"}, Member{hb, "disk", "lan1"}, Member{np, "lan", "lan1"}}) {
        EXPECT_EQ(find_resource(now, other), nullptr) << to_text(other);
    }
}

TEST_F(MembersTest, AreNamedWhenTheyAreRefused) {
    const auto refusal = [](const Answer& answer, const Member& member, ErrorKind kind) -> std::string {
        try {
            expect_ok(answer, member);
            return "";
        } catch (const Error& error) {
            EXPECT_EQ(error.kind, kind);
            return error.what();
        }
    };
    EXPECT_EQ(refusal(remove(alpha), alpha, ErrorKind::no_such_member), "there is no server alpha");
    EXPECT_EQ(refusal(remove(lan1), lan1, ErrorKind::no_such_member), "there is no hb resource lan/lan1");
    for (const Member& member : {alpha, lan1}) EXPECT_EQ(refusal(add(member, 0), member, ErrorKind::failed), "");
    EXPECT_EQ(refusal(add(alpha, 0), alpha, ErrorKind::member_exists), "server alpha exists already");
    EXPECT_EQ(refusal(add(lan1, 0), lan1, ErrorKind::member_exists), "hb resource lan/lan1 exists already");
    add({.type = "", .name = "beta"}, 1);
    add({hb, "lan", "lan2"}, 0);
    const Member odd{.type = "", .name = "b c"}, lan3{hb, "lan", "lan3"};
    EXPECT_EQ(refusal(add(odd, 2), odd, ErrorKind::refused),
              "cannot add server b%20c: the server table or the fst process-id table is full; raise its maximum in the "
              "configuration");
    EXPECT_EQ(refusal(add(lan3, 0), lan3, ErrorKind::refused),
              "cannot add hb resource lan/lan3: the resource table is full; raise its maximum in the configuration");
    EXPECT_EQ(refusal({"shmnm_addnode", SHMNM_ERR_NOTINIT}, alpha, ErrorKind::failed),
              "shmnm_addnode failed with code 1 (the region is not mapped in this process)");
    EXPECT_EQ(refusal({"shmnm_addnode", 4711}, alpha, ErrorKind::failed),
              "shmnm_addnode failed with code 4711 (an unknown result)");
}

TEST_F(MembersTest, ThatAreMisspeltBringOutTheServerThatMayBeMeant) {
    add(alpha, 0);
    const Error error = no_such_member(picture(), {.type = "", .name = "alhpa"});
    EXPECT_EQ(error.kind, ErrorKind::no_such_member);
    EXPECT_STREQ(error.what(), "there is no server alhpa; did you mean \"alpha\"?");
    EXPECT_STREQ(no_such_member(picture(), {hb, "lan", "alhpa"}).what(), "there is no hb resource lan/alhpa");
}

}  // namespace
}  // namespace picture
