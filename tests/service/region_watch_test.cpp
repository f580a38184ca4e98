// What a service sees becomes events: one for each change.
#include "service/region_watch.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "support/child.h"
#include "support/temporary_folder.h"

namespace {

using service::configuration_problem;
using service::Event;
using service::RegionWatch;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;

class Watching : public testing::Test {
  protected:
    using Told = std::vector<std::pair<Event, std::string>>;

    /// The events since the last call.
    Told told() { return std::exchange(told_, {}); }

    RegionWatch watch{[this](Event event, const std::string& what) { told_.emplace_back(event, what); }};

  private:
    Told told_;
};

TEST_F(Watching, TellsARefusalOnceHoweverLongItLasts) {
    watch.see_region("");
    EXPECT_THAT(told(), IsEmpty());
    watch.see_region("it belongs to another user");
    watch.see_region("it belongs to another user");
    EXPECT_THAT(told(), ElementsAre(Pair(Event::region_refused, "it belongs to another user")));
    watch.see_region("");
    watch.see_region("");
    EXPECT_THAT(told(), ElementsAre(Pair(Event::region_accepted, "It can be read now, or it has ended.")));
}

TEST_F(Watching, TellsALostConfigurationAgainIfTheReasonChanges) {
    watch.see_configuration("it is not there");
    watch.see_configuration("it has other counts");
    EXPECT_THAT(told(), ElementsAre(Pair(Event::configuration_lost, "it is not there"),
                                    Pair(Event::configuration_lost, "it has other counts")));
    watch.see_configuration("");
    EXPECT_THAT(told(), ElementsAre(Pair(Event::configuration_found, "Processes can attach again.")));
}

TEST_F(Watching, TellsEveryTakeOverOfTheLockAndWhatToDoNext) {
    watch.see_takeover();
    watch.see_takeover();
    const auto event = Pair(Event::lock_taken_over, HasSubstr("\"shmnmctl verify\""));
    EXPECT_THAT(told(), ElementsAre(event, event));
}

/// An installation with a configuration of 4 servers, 3 hb, 2 np and 1 fst.
class ConfigurationProblem : public testing::Test {
  protected:
    ConfigurationProblem() : path_("KZM_INSTALL_PATH", folder_.string().c_str()) { configure(4); }
    void configure(int servers) {
        folder_.write("etc/cluster.xml", "<root><all><num><server>" + std::to_string(servers) +
                                             "</server><hbr>3</hbr><npr>2</npr><fstr>1</fstr></num></all></root>");
    }
    std::filesystem::path file() const { return folder_.path() / "etc/cluster.xml"; }

    static constexpr picture::Counts region{.servers = 4, .hb = 3, .np = 2, .fst = 1};

  private:
    test::TemporaryFolder folder_;
    test::ScopedEnvironment path_;
};

TEST_F(ConfigurationProblem, IsNoneWhileTheCountsAreTheRegions) {
    EXPECT_EQ(configuration_problem(region), "");
}

TEST_F(ConfigurationProblem, IsAFileThatIsGoneOrDamaged) {
    std::filesystem::remove(file());
    EXPECT_THAT(configuration_problem(region), HasSubstr("cannot read the configuration"));
    EXPECT_THAT(configuration_problem(region), HasSubstr("Put it back: no process can attach without it."));
    test::write_text(file(), "<root><all></root>");
    EXPECT_THAT(configuration_problem(region), HasSubstr("not well-formed XML"));
    configure(4);
    EXPECT_EQ(configuration_problem(region), "");
}

TEST_F(ConfigurationProblem, IsAnyOtherCount) {
    configure(5);
    EXPECT_THAT(configuration_problem(region), HasSubstr("has servers 5, hb 3, np 2, fst 1, but the live region has "
                                                         "servers 4, hb 3, np 2, fst 1. Put the region's counts"));
}

}  // namespace
