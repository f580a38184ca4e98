// shmnmweb as a service: what it tells the service manager and the event log.
#include <windows.h>

#include <sddl.h>

#include "picture/held_region.h"
#include "picture/live.h"
#include "program_as_a_service.h"
#include "serving.h"

namespace {

using namespace test::event;
using picture::HeldRegion;
using testing::ElementsAre;
using testing::HasSubstr;

/// A region that its creator has laid out by the configuration.
class Region {
  public:
    Region() { EXPECT_EQ(picture::library().shmnm_create(), SHMNM_OK); }
    ~Region() { EXPECT_EQ(picture::library().shmnm_delete(), SHMNM_OK); }
    Region(const Region&) = delete;
    Region& operator=(const Region&) = delete;
};

class WebAsAService : public test::ProgramAsAService {
  protected:
    WebAsAService() { options_.listen = {"127.0.0.1:0"}; }

    void start() {
        run([this] { return shmnmweb::serve(options_); });
    }

    shmnmweb::Options options_;
};

/// Lets everybody do everything to the live region, as long as this lives.
class OpenToEverybody {
  public:
    OpenToEverybody()
        : region_(
              OpenFileMappingA(READ_CONTROL | WRITE_DAC, FALSE, picture::full_name(picture::mapping_name).c_str())) {
        EXPECT_TRUE(region_);
        set("D:P(A;;GA;;;WD)");
    }
    ~OpenToEverybody() {
        set("D:P(A;;GA;;;BA)(A;;GA;;;SY)");
        CloseHandle(region_);
    }
    OpenToEverybody(const OpenToEverybody&) = delete;
    OpenToEverybody& operator=(const OpenToEverybody&) = delete;

  private:
    void set(const char* list) const {
        PSECURITY_DESCRIPTOR descriptor = nullptr;
        EXPECT_TRUE(ConvertStringSecurityDescriptorToSecurityDescriptorA(list, SDDL_REVISION_1, &descriptor, nullptr));
        EXPECT_TRUE(SetKernelObjectSecurity(region_, DACL_SECURITY_INFORMATION, descriptor));
        LocalFree(descriptor);
    }

    HANDLE region_;
};

TEST_F(WebAsAService, TellsItsStartWithItsAddressAndItsEnd) {
    const Region region;
    start();
    EXPECT_THAT(manager_.await_event(started), HasSubstr(L"listening on http://127.0.0.1:"));
    stop();
    expect_that_it_ran_and_ended_well();
}

TEST_F(WebAsAService, EndsWhenTheSystemShutsDown) {
    start();
    manager_.await_state(SERVICE_RUNNING);
    stop(SERVICE_CONTROL_SHUTDOWN);
    EXPECT_EQ(exit_, 0);
    EXPECT_EQ(manager_.await_event(stopped), L"The system shuts down.");
}

TEST_F(WebAsAService, TellsWhyItCannotStart) {
    options_.names = "no such file.json";
    start();
    await_end();
    EXPECT_THAT(manager_.await_event(failed), HasSubstr(L"cannot use the names in no such file.json: "));
    EXPECT_THAT(manager_.events(), ElementsAre(failed));
    EXPECT_EQ(manager_.statuses().back().dwServiceSpecificExitCode, 5);
    EXPECT_EQ(exit_, 5);
}

TEST_F(WebAsAService, TellsARefusedRegionAndWhenItIsNoLongerRefused) {
    const Region region;
    {
        const OpenToEverybody refused;
        start();
        EXPECT_THAT(manager_.await_event(region_refused), HasSubstr(L"cannot open the region "));
        manager_.await_event(started);
    }
    manager_.await_event(region_accepted);
    stop();
    EXPECT_THAT(manager_.events(), ElementsAre(region_refused, started, region_accepted, stopped));
}

TEST_F(WebAsAService, TakesTheLockOverFromAnOwnerThatEndedAndTellsIt) {
    const Region region;
    start();
    expect_that_it_takes_the_lock_over_and_tells_it();
}

TEST_F(WebAsAService, TellsALostConfigurationAndWhenItIsBack) {
    const Region region;
    start();
    expect_that_it_tells_a_lost_configuration_and_when_it_is_back();
}

TEST_F(WebAsAService, ComparesNoCountsThatAreNotWrittenYet) {
    const HeldRegion held = HeldRegion::make_or_open({.servers = 4, .hb = 3, .np = 2, .fst = 1});
    start();
    manager_.await_event(started);
    stop();
    EXPECT_THAT(manager_.events(), ElementsAre(started, stopped));
}

}  // namespace
