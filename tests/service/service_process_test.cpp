// "serve" as a service: what it tells the service manager and the event log. The test stands in for both; the region,
// its lock and its configuration are real.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "context.h"
#include "picture/decode.h"
#include "picture/held_region.h"
#include "picture/library.h"
#include "played_service_manager.h"
#include "service/service.h"
#include "support/child.h"
#include "support/temporary_folder.h"

namespace {

using picture::HeldRegion;
using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::Field;
using testing::Ge;
using testing::HasSubstr;

using namespace test::event;

class ServeAsAService : public testing::Test {
  protected:
    ServeAsAService() : path_("KZM_INSTALL_PATH", folder_.string().c_str()) { configure(); }
    ~ServeAsAService() override {
        if (process_.joinable()) stop();
    }

    void configure() const {
        folder_.write("etc/cluster.xml",
                      "<root><all><num><server>4</server><hbr>3</hbr><npr>2</npr><fstr>1</fstr></num></all>"
                      "<cluster><server name=\"alpha\" priority=\"0\"/></cluster></root>");
    }
    void remove_configuration() const { std::filesystem::remove(folder_.path() / "etc/cluster.xml"); }

    /// Starts it. Its region is in this process.
    void start(const std::string& arguments = "", uint32_t lock_timeout_ms = 1) {
        app_ = std::make_unique<CLI::App>("", "shmnmctl");
        context_ = {};
        shmnmctl::add_serve_command(*app_, context_);
        context_.access.lock_timeout_ms = lock_timeout_ms;
        app_->parse("serve --service " + arguments);
        process_ = std::thread([this] {
            exit_ = service::run([this]() -> int {
                try {
                    return static_cast<int>(context_.command());
                } catch (const picture::Error& error) {
                    const bool is_refusal = error.kind == picture::ErrorKind::region_refused;
                    service::tell(is_refusal ? service::Event::region_refused : service::Event::failed, error.what());
                    return static_cast<int>(shmnmctl::Exit::failed);
                }
            });
        });
    }
    void await_end() { process_.join(); }
    void stop(DWORD how = SERVICE_CONTROL_STOP) {
        EXPECT_EQ(manager_.control(how), DWORD{NO_ERROR});
        await_end();
    }

    test::ServiceManager manager_;
    int exit_ = -1;
    shmnmctl::Context context_;

  private:
    test::TemporaryFolder folder_;
    test::ScopedEnvironment path_;
    std::unique_ptr<CLI::App> app_;
    std::thread process_;
};

std::vector<DWORD> checkpoints(const std::vector<SERVICE_STATUS>& statuses) {
    std::vector<DWORD> all;
    for (const SERVICE_STATUS& status : statuses) all.push_back(status.dwCheckPoint);
    return all;
}

TEST_F(ServeAsAService, TellsEachStepOfItsStartAndItsEnd) {
    start();
    const std::wstring ready = manager_.await_event(started);
    EXPECT_THAT(ready, HasSubstr(L"ready: "));
    EXPECT_THAT(ready, HasSubstr(L" with 1 servers, 0 hb and 0 np resources"));
    EXPECT_TRUE(HeldRegion::open());
    stop();
    EXPECT_EQ(exit_, 0);
    EXPECT_FALSE(HeldRegion::open()) << "the region ends with the service";

    const auto starting = manager_.statuses(SERVICE_START_PENDING), stopping = manager_.statuses(SERVICE_STOP_PENDING);
    EXPECT_THAT(checkpoints(starting), ElementsAre(1, 2, 3));
    EXPECT_THAT(checkpoints(stopping), ElementsAre(1));
    for (const auto& pending : {starting, stopping}) {
        EXPECT_THAT(pending, Each(AllOf(Field(&SERVICE_STATUS::dwWaitHint, Ge(20'000U)),
                                        Field(&SERVICE_STATUS::dwControlsAccepted, 0U))));
    }
    const auto running = manager_.statuses(SERVICE_RUNNING);
    ASSERT_EQ(running.size(), 1);
    EXPECT_EQ(running[0].dwControlsAccepted, DWORD{SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_SHUTDOWN});
    const SERVICE_STATUS& last = manager_.statuses().back();
    EXPECT_EQ(last.dwCurrentState, DWORD{SERVICE_STOPPED});
    EXPECT_EQ(last.dwWin32ExitCode, DWORD{NO_ERROR});
    EXPECT_THAT(manager_.events(), ElementsAre(started, stopped));
}

TEST_F(ServeAsAService, AnswersWhoAsksForItsStateAndRefusesWhatItDoesNotKnow) {
    start();
    manager_.await_state(SERVICE_RUNNING);
    EXPECT_EQ(manager_.control(SERVICE_CONTROL_INTERROGATE), DWORD{NO_ERROR});
    EXPECT_EQ(manager_.control(SERVICE_CONTROL_PAUSE), DWORD{ERROR_CALL_NOT_IMPLEMENTED});
    stop();
}

TEST_F(ServeAsAService, TellsHowLongItsEndMayWaitForTheLock) {
    start("--clean", 60'000);
    manager_.await_state(SERVICE_RUNNING);
    stop();
    const auto stopping = manager_.statuses(SERVICE_STOP_PENDING);
    ASSERT_THAT(checkpoints(stopping), ElementsAre(1, 2));
    EXPECT_EQ(stopping[1].dwWaitHint, 80'000);
}

TEST_F(ServeAsAService, PutsNothingInOrderWhenTheSystemShutsDown) {
    start("--clean");
    manager_.await_state(SERVICE_RUNNING);
    const std::optional<HeldRegion> held = HeldRegion::open();
    stop(SERVICE_CONTROL_SHUTDOWN);
    EXPECT_EQ(exit_, 0);
    EXPECT_THAT(checkpoints(manager_.statuses(SERVICE_STOP_PENDING)), ElementsAre(1));
    EXPECT_EQ(manager_.await_event(stopped), L"The system shuts down.");
    EXPECT_EQ(picture::decode(picture::LiveRegion({}).copy(picture::Bytes::in_use)).servers.size(), 1);
}

TEST_F(ServeAsAService, TellsARefusedRegionAndEndsWithAnError) {
    const HeldRegion other = HeldRegion::make_or_open({.servers = 5, .hb = 3, .np = 2, .fst = 1});
    start();
    await_end();
    EXPECT_THAT(manager_.await_event(region_refused), HasSubstr(L"nothing was written: the live region "));
    EXPECT_THAT(manager_.events(), ElementsAre(region_refused));
    const SERVICE_STATUS& last = manager_.statuses().back();
    EXPECT_EQ(last.dwCurrentState, DWORD{SERVICE_STOPPED});
    EXPECT_EQ(last.dwWin32ExitCode, DWORD{ERROR_SERVICE_SPECIFIC_ERROR});
    EXPECT_EQ(last.dwServiceSpecificExitCode, 5);
    EXPECT_EQ(exit_, 5);
}

TEST_F(ServeAsAService, TellsWhyItCannotStart) {
    remove_configuration();
    start();
    await_end();
    EXPECT_THAT(manager_.await_event(failed), HasSubstr(L"cannot read the configuration"));
    EXPECT_THAT(manager_.events(), ElementsAre(failed));
    EXPECT_EQ(exit_, 5);
}

TEST_F(ServeAsAService, TakesTheLockOverFromAnOwnerThatEndedAndTellsIt) {
    start();
    manager_.await_state(SERVICE_RUNNING);
    std::thread([] { EXPECT_EQ(picture::library().shmnm_rwlock(10'000), SHMNM_OK); }).join();
    EXPECT_THAT(manager_.await_event(lock_taken_over), HasSubstr(L"\"shmnmctl verify\""));
    EXPECT_EQ(picture::library().shmnm_rwlock(10'000), SHMNM_OK) << "it is free again";
    picture::library().shmnm_rwunlock();
    stop();
    EXPECT_THAT(manager_.events(), ElementsAre(started, lock_taken_over, stopped));
}

TEST_F(ServeAsAService, TellsALostConfigurationAndWhenItIsBack) {
    start();
    manager_.await_state(SERVICE_RUNNING);
    remove_configuration();
    EXPECT_THAT(manager_.await_event(configuration_lost), HasSubstr(L"no process can attach without it"));
    configure();
    manager_.await_event(configuration_found);
    stop();
    EXPECT_THAT(manager_.events(), ElementsAre(started, configuration_lost, configuration_found, stopped));
}

}  // namespace
