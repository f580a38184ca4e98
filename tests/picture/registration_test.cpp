// The registration of a configuration's members: all or none, and half of it is recognised.
#include "picture/registration.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "picture/error.h"
#include "picture/library_region.h"
#include "shmnm.h"

namespace picture {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

ClusterMember server(const std::string& name, int64_t priority) {
    return {{nullptr, "", name}, priority};
}
ClusterMember hb(const std::string& name, int64_t priority) {
    return {{&resource_kinds[0], "lan", name}, priority};
}

class Registration : public testing::Test {
  protected:
    Picture picture() const { return decode(region_.dump()); }
    /// The servers and hb resources of the region with their priorities.
    std::vector<std::string> registered() const {
        std::vector<std::string> all;
        const Picture now = picture();
        for (const Server& each : now.servers) all.push_back(each.name + " " + std::to_string(each.record.pri));
        for (const Resource& each : now.hb) all.push_back(each.name + " " + std::to_string(each.record.pri));
        return all;
    }

    test::LibraryRegion region_{{2, 2, 2, 1}};
};

std::vector<std::string> names(const ClusterMembers& members) {
    std::vector<std::string> all;
    for (const ClusterMember& member : members) all.push_back(member.name);
    return all;
}

TEST_F(Registration, AddsAllMembersWithTheirPriorities) {
    const ClusterMembers members{server("a", 3), hb("l", UINT32_MAX), server("b", -1)};
    EXPECT_THAT(names(missing_from(picture(), members)), ElementsAre("a", "l", "b"));
    EXPECT_THAT(names(register_all(members)), ElementsAre("a", "l", "b"));
    EXPECT_THAT(registered(), ElementsAre("a 3", "b -1", "l 4294967295"));
    EXPECT_THAT(missing_from(picture(), members), IsEmpty());
    EXPECT_FALSE(is_half_registered(picture(), members));
    EXPECT_THAT(register_all({}), IsEmpty());
}

TEST_F(Registration, LeavesMembersThatAreThere) {
    shmnm_addhbrsc("lan", "l", 5);
    shmnm_addnode("a", 6);
    EXPECT_THAT(names(register_all({server("a", 1), hb("l", 2), hb("m", 3)})), ElementsAre("m"));
    EXPECT_THAT(registered(), ElementsAre("a 6", "l 5", "m 3"));
    EXPECT_THAT(register_all({server("a", 1)}), IsEmpty());
    EXPECT_THAT(registered(), ElementsAre("a 6", "l 5", "m 3"));
}

// The library refuses whatever is added to a full table, also what is there.
TEST_F(Registration, OfWhatIsMissingNeedsNoRoomForWhatIsThere) {
    shmnm_addnode("a", INT32_MIN);
    shmnm_addnode("b", 6);
    shmnm_addhbrsc("lan", "l", 5);
    shmnm_addhbrsc("lan", "m", 4);
    const ClusterMembers members{server("a", 1), server("b", 2), hb("l", 3), hb("m", 4)};
    EXPECT_TRUE(is_half_registered(picture(), members));
    EXPECT_THAT(register_missing(picture(), members), IsEmpty());
    EXPECT_THAT(registered(), ElementsAre("a 1", "b 6", "l 5", "m 4"));
}

TEST_F(Registration, TakesAllOutAgainIfOneIsRefused) {
    shmnm_addnode("a", 6);
    try {
        register_all({hb("l", 2), server("b", 1), server("c", 3)});
        ADD_FAILURE() << "registered";
    } catch (const Error& error) {
        EXPECT_EQ(error.kind, ErrorKind::refused);
        EXPECT_STREQ(error.what(),
                     "nothing was registered: cannot register server c: the server table or the fst "
                     "process-id table is full");
    }
    EXPECT_THAT(registered(), ElementsAre("a 6"));
}

TEST_F(Registration, ThatIsRefusedLeavesWhatWasThere) {
    for (const char* const name : {"a", "b"}) shmnm_addnode(name, 6);
    EXPECT_THROW(register_all({hb("l", 2), server("a", 1)}), Error) << "the table is full";
    EXPECT_THAT(registered(), ElementsAre("a 6", "b 6"));
}

TEST_F(Registration, GivesTheFirstMemberAnExtremePriorityUntilTheOthersAreThere) {
    const ClusterMembers servers_first{server("a", 3), hb("l", 4)};
    shmnm_addnode("a", INT32_MIN);
    EXPECT_TRUE(is_half_registered(picture(), servers_first));
    EXPECT_THAT(names(missing_from(picture(), servers_first)), ElementsAre("l"));
    EXPECT_THAT(names(register_missing(picture(), servers_first)), ElementsAre("l"));
    EXPECT_THAT(registered(), ElementsAre("a 3", "l 4"));
    EXPECT_FALSE(is_half_registered(picture(), servers_first));

    const ClusterMembers hb_first{hb("m", 7), server("a", 3)};
    shmnm_addhbrsc("lan", "m", UINT32_MAX);
    EXPECT_TRUE(is_half_registered(picture(), hb_first));
    EXPECT_THAT(register_missing(picture(), hb_first), IsEmpty());
    EXPECT_THAT(registered(), ElementsAre("a 3", "l 4", "m 7"));
}

TEST_F(Registration, LeavesTheExtremePriorityIfTheFirstMemberCannotGetItsOwn) {
    // The library cuts such a name when it adds the server, and then finds none of the whole name.
    const ClusterMembers members{server(std::string(300, 'x'), 3), hb("l", 4)};
    EXPECT_THROW(register_all(members), Error);
    EXPECT_THAT(registered(), ElementsAre(std::string(255, 'x') + " -2147483648", "l 4"));
}

TEST_F(Registration, TakesAnExtremePriorityThatNoMemberHas) {
    const ClusterMembers members{server("a", 3), server("b", INT32_MIN), hb("l", UINT32_MAX), hb("m", 1)};
    shmnm_addnode("b", INT32_MIN);
    shmnm_addhbrsc("lan", "l", UINT32_MAX);
    EXPECT_FALSE(is_half_registered(picture(), members));
    shmnm_addnode("a", INT32_MIN + 1);
    EXPECT_TRUE(is_half_registered(picture(), members));
    shmnm_modifynode("a", 3);
    shmnm_addhbrsc("lan", "m", UINT32_MAX - 1);
    EXPECT_TRUE(is_half_registered(picture(), members));
}

TEST_F(Registration, OfWhatIsMissingChangesNoOtherPriority) {
    shmnm_addnode("a", 8);
    const ClusterMembers members{server("a", 3), hb("l", 4)};
    EXPECT_THAT(names(register_missing(picture(), members)), ElementsAre("l"));
    EXPECT_THAT(registered(), ElementsAre("a 8", "l 4"));
}

}  // namespace
}  // namespace picture
