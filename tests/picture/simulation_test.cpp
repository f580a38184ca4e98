// Which priorities a simulated partition cuts off.
#include "picture/simulation.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "picture/error.h"
#include "shmnmctl/full_picture.h"

namespace picture {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/// Servers with these priorities: server000, server001 and so on.
Picture with_priorities(const std::vector<int32_t>& priorities) {
    Picture picture = test::full_picture(priorities.size(), 0);
    for (size_t i = 0; i < priorities.size(); ++i) picture.servers[i].record.pri = priorities[i];
    return picture;
}

std::string refusal(const std::vector<int32_t>& priorities, const std::string& server, ErrorKind kind) {
    try {
        failures_by_priority(with_priorities(priorities), {server});
        return "";
    } catch (const Error& error) {
        EXPECT_EQ(error.kind, kind);
        return error.what();
    }
}

TEST(Simulation, CutsOffThePrioritiesOfItsServersAndNoOthers) {
    const Picture picture = with_priorities({2, 0, 2, 5});
    EXPECT_THAT(failures_by_priority(picture, {"server001"}), ElementsAre(1));
    EXPECT_THAT(failures_by_priority(picture, {"server002", "server000"}), ElementsAre(0, 0, 1));
    EXPECT_THAT(failures_by_priority(picture, {"server003", "server001"}), ElementsAre(1, 0, 0, 0, 0, 1));
    EXPECT_THAT(failures_by_priority(picture, {}), IsEmpty());
}

TEST(Simulation, RefusesAServerWhosePriorityAnotherServerHas) {
    EXPECT_EQ(refusal({2, 0, 2}, "server000", ErrorKind::shared_priority),
              "cannot simulate by priority: server server002 has the priority 2 too and would be cut off with it");
}

TEST(Simulation, RefusesPrioritiesThatMakeNoShortList) {
    EXPECT_EQ(refusal({-1}, "server000", ErrorKind::refused),
              "cannot simulate server server000: its priority -1 is not from 0 to 1048575");
    EXPECT_EQ(refusal({1'048'576}, "server000", ErrorKind::refused),
              "cannot simulate server server000: its priority 1048576 is not from 0 to 1048575");
    EXPECT_EQ(failures_by_priority(with_priorities({1'048'575}), {"server000"}).size(), 1'048'576u);
}

TEST(Simulation, RefusesAServerThatIsNotThere) {
    EXPECT_EQ(refusal({0}, "nobody", ErrorKind::no_such_member), "there is no server nobody");
    EXPECT_EQ(refusal({0}, "servr000", ErrorKind::no_such_member),
              "there is no server servr000; did you mean \"server000\"?");
}

}  // namespace
}  // namespace picture
