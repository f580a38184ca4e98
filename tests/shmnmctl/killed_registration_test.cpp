// What a killed "serve" leaves in a new region: the registration is stepped, its process killed after each member, and
// the next "serve" completes it, for another process holds the region meanwhile.
#include <fmt/format.h>
#include <gmock/gmock.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "picture/live.h"
#include "picture/registration.h"
#include "shmnm.h"
#include "support/dynamic_library.h"
#include "support/program.h"
#include "support/stepper_linux.h"
#include "support/temporary_folder.h"

namespace picture {
namespace {

using test::Stepper;
using test::Watched;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

constexpr const char* configuration =
    "<root><all><num><server>4</server><hbr>3</hbr><npr>2</npr><fstr>1</fstr></num></all>"
    "<shmnm><log><level>0</level></log></shmnm>"
    "<cluster><server name='alpha' priority='-2147483648'/><server name='beta' priority='1'/>"
    "<hb type='lan' name='lanhb1' priority='4294967295'/><hb type='disk' name='diskhb1' priority='1'/>"
    "<np type='ping' name='pingnp1' priority='0'/></cluster></root>";

ClusterMembers members() {
    return read_cluster_file(installed_cluster_file()).members;
}

CHILD(registers_all) {
    LiveRegion region({});
    const Locked locked(region);
    if (library().shmnm_attach() != SHMNM_OK) std::abort();
    const ClusterMembers all = members();
    test::begin_steps();
    register_all(all);
    test::end_steps();
    test::hang();
}

class KilledRegistration : public testing::Test {
  protected:
    KilledRegistration() : path_("KZM_INSTALL_PATH", folder_.string().c_str()) {
        folder_.write("etc/cluster.xml", configuration);
        EXPECT_EQ(shmnm_create(), SHMNM_OK);
        map_ = std::make_unique<WritableRegion>();
        new_region_.assign(map_->base(), map_->base() + map_->size());
    }
    ~KilledRegistration() override {
        map_.reset();
        EXPECT_EQ(shmnm_delete(), SHMNM_OK);
    }

    /// Kills it after it has changed the header that often, as each added member does once.
    /// @return whether it came so far
    bool kill_after(unsigned members_added) const {
        std::memcpy(map_->base(), new_region_.data(), new_region_.size());
        Stepper registration(registers_all);
        Watched header({map_->base(), sizeof(shmnm_header)});
        for (unsigned i = 0; i < members_added; ++i) {
            if (!registration.step_until_changed(header)) return false;
        }
        registration.kill();
        return true;
    }

    static std::vector<std::string> registered() {
        LiveRegion region({});
        const Locked locked(region);
        const Picture picture = decode(region.copy_locked());
        std::vector<std::string> all;
        for (const Server& server : picture.servers)
            all.push_back(fmt::format("{} {}", server.name, server.record.pri));
        for (const auto* const resources : {&picture.hb, &picture.np}) {
            for (const Resource& one : *resources)
                all.push_back(fmt::format("{} {}", one.name, uint32_t(one.record.pri)));
        }
        return all;
    }
    static test::ProgramResult serve() {
        return test::run_program(test::own_folder() + "shmnmctl", "serve --until-eof 2>&1 </dev/null");
    }

  private:
    test::TemporaryFolder folder_;
    test::ScopedEnvironment path_;
    std::unique_ptr<WritableRegion> map_;
    std::vector<uint8_t> new_region_;
};

TEST_F(KilledRegistration, IsCompletedByTheNextServeWhereverItWasKilled) {
    unsigned added = 1;
    for (; kill_after(added); ++added) {
        SCOPED_TRACE(fmt::format("killed after {} members", added));
        // The first member's own priority is the one that would mark it, so the mark is the next.
        ASSERT_EQ(registered().size(), added);
        EXPECT_EQ(registered()[0], "alpha -2147483647");
        const test::ProgramResult next = serve();
        EXPECT_EQ(next.status, 0);
        EXPECT_THAT(next.output, HasSubstr(fmt::format("; it was there, and {} members were registered, which a killed "
                                                       "process had left out\n",
                                                       5 - added)));
        EXPECT_THAT(registered(),
                    ElementsAre("alpha -2147483648", "beta 1", "lanhb1 4294967295", "diskhb1 1", "pingnp1 0"));
        EXPECT_THAT(serve().output, Not(HasSubstr("killed")));
    }
    EXPECT_EQ(added, 6U);
    EXPECT_THAT(registered(), ElementsAre("alpha -2147483648", "beta 1", "lanhb1 4294967295", "diskhb1 1", "pingnp1 0"))
        << "one that is not killed";
}

}  // namespace
}  // namespace picture
