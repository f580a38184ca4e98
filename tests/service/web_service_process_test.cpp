// shmnmweb as a service: what it tells the service manager and the event log. The test stands in for both; the region,
// its lock and its configuration are real.
#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sddl.h>

#include <filesystem>
#include <string>
#include <thread>

#include "picture/held_region.h"
#include "picture/library.h"
#include "picture/live.h"
#include "played_service_manager.h"
#include "service/service.h"
#include "serving.h"
#include "support/child.h"
#include "support/temporary_folder.h"

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

class WebAsAService : public testing::Test {
  protected:
    WebAsAService() : path_("KZM_INSTALL_PATH", folder_.string().c_str()) {
        configure();
        options_.listen = {"127.0.0.1:0"};
    }
    ~WebAsAService() override {
        if (process_.joinable()) stop();
    }

    void configure() const {
        folder_.write("etc/cluster.xml",
                      "<root><all><num><server>4</server><hbr>3</hbr><npr>2</npr><fstr>1</fstr></num></all></root>");
    }
    void remove_configuration() const { std::filesystem::remove(folder_.path() / "etc/cluster.xml"); }

    void start() {
        process_ = std::thread([this] { exit_ = service::run([this] { return shmnmweb::serve(options_); }); });
    }
    void await_end() { process_.join(); }
    void stop(DWORD how = SERVICE_CONTROL_STOP) {
        EXPECT_EQ(manager_.control(how), DWORD{NO_ERROR});
        await_end();
    }

    test::ServiceManager manager_;
    int exit_ = -1;
    shmnmweb::Options options_;

  private:
    test::TemporaryFolder folder_;
    test::ScopedEnvironment path_;
    std::thread process_;
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
    EXPECT_EQ(exit_, 0);
    const auto running = manager_.statuses(SERVICE_RUNNING);
    ASSERT_EQ(running.size(), 1);
    EXPECT_EQ(running[0].dwControlsAccepted, DWORD{SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_SHUTDOWN});
    const SERVICE_STATUS& last = manager_.statuses().back();
    EXPECT_EQ(last.dwCurrentState, DWORD{SERVICE_STOPPED});
    EXPECT_EQ(last.dwWin32ExitCode, DWORD{NO_ERROR});
    EXPECT_THAT(manager_.events(), ElementsAre(started, stopped));
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
    manager_.await_event(started);
    std::thread([] { EXPECT_EQ(picture::library().shmnm_rwlock(10'000), SHMNM_OK); }).join();
    EXPECT_THAT(manager_.await_event(lock_taken_over), HasSubstr(L"\"shmnmctl verify\""));
    EXPECT_EQ(picture::library().shmnm_rwlock(10'000), SHMNM_OK) << "it is free again";
    picture::library().shmnm_rwunlock();
    stop();
    EXPECT_THAT(manager_.events(), ElementsAre(started, lock_taken_over, stopped));
}

TEST_F(WebAsAService, TellsALostConfigurationAndWhenItIsBack) {
    const Region region;
    start();
    manager_.await_event(started);
    remove_configuration();
    EXPECT_THAT(manager_.await_event(configuration_lost), HasSubstr(L"no process can attach without it"));
    configure();
    manager_.await_event(configuration_found);
    stop();
    EXPECT_THAT(manager_.events(), ElementsAre(started, configuration_lost, configuration_found, stopped));
}

TEST_F(WebAsAService, ComparesNoCountsThatAreNotWrittenYet) {
    const HeldRegion held = HeldRegion::make_or_open({.servers = 4, .hb = 3, .np = 2, .fst = 1});
    start();
    manager_.await_event(started);
    stop();
    EXPECT_THAT(manager_.events(), ElementsAre(started, stopped));
}

}  // namespace
