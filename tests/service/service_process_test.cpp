// "serve" as a service: what it tells the service manager and the event log.
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "context.h"
#include "picture/decode.h"
#include "picture/held_region.h"
#include "picture/live.h"
#include "program_as_a_service.h"

namespace {

using picture::HeldRegion;
using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::Field;
using testing::Ge;
using testing::HasSubstr;

using namespace test::event;

class ServeAsAService : public test::ProgramAsAService {
  protected:
    /// Starts it. Its region is in this process.
    void start(const std::string& arguments = "", uint32_t lock_timeout_ms = 1) {
        app_ = std::make_unique<CLI::App>("", "shmnmctl");
        context_ = {};
        shmnmctl::add_serve_command(*app_, context_);
        context_.access.lock_timeout_ms = lock_timeout_ms;
        app_->parse("serve --service " + arguments);
        run([this]() -> int {
            try {
                return static_cast<int>(context_.command());
            } catch (const picture::Error& error) {
                const bool is_refusal = error.kind == picture::ErrorKind::region_refused;
                service::tell(is_refusal ? service::Event::region_refused : service::Event::failed, error.what());
                return static_cast<int>(shmnmctl::Exit::failed);
            }
        });
    }

    shmnmctl::Context context_;

  private:
    std::unique_ptr<CLI::App> app_;
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
    EXPECT_FALSE(HeldRegion::open()) << "the region ends with the service";

    const auto starting = manager_.statuses(SERVICE_START_PENDING), stopping = manager_.statuses(SERVICE_STOP_PENDING);
    EXPECT_THAT(checkpoints(starting), ElementsAre(1, 2, 3));
    EXPECT_THAT(checkpoints(stopping), ElementsAre(1));
    for (const auto& pending : {starting, stopping}) {
        EXPECT_THAT(pending, Each(AllOf(Field(&SERVICE_STATUS::dwWaitHint, Ge(20'000U)),
                                        Field(&SERVICE_STATUS::dwControlsAccepted, 0U))));
    }
    expect_that_it_ran_and_ended_well();
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
    expect_that_it_takes_the_lock_over_and_tells_it();
}

TEST_F(ServeAsAService, TellsALostConfigurationAndWhenItIsBack) {
    start();
    expect_that_it_tells_a_lost_configuration_and_when_it_is_back();
}

}  // namespace
