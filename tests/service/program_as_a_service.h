// A program's own work as a service, in this process: the test stands in for the service manager and the event log; the
// region, its lock and its configuration are real.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <utility>

#include "picture/library.h"
#include "played_service_manager.h"
#include "service/service.h"
#include "support/child.h"
#include "support/temporary_folder.h"

namespace test {

class ProgramAsAService : public testing::Test {
  protected:
    ProgramAsAService() : path_("KZM_INSTALL_PATH", folder_.string().c_str()) { configure(); }
    ~ProgramAsAService() override {
        if (process_.joinable()) stop();
    }

    void configure() const {
        folder_.write("etc/cluster.xml",
                      "<root><all><num><server>4</server><hbr>3</hbr><npr>2</npr><fstr>1</fstr></num></all>"
                      "<cluster><server name=\"alpha\" priority=\"0\"/></cluster></root>");
    }
    void remove_configuration() const { std::filesystem::remove(folder_.path() / "etc/cluster.xml"); }

    /// Starts the service.
    /// @param work  what the program does until it is to stop; @return its exit code
    void run(std::function<int()> work) {
        process_ = std::thread([this, work = std::move(work)] { exit_ = service::run(work); });
    }
    void await_end() { process_.join(); }
    void stop(DWORD how = SERVICE_CONTROL_STOP) {
        EXPECT_EQ(manager_.control(how), DWORD{NO_ERROR});
        await_end();
    }

    /// Expects of the whole life of a service that it accepted stop and shutdown and ended without an error.
    void expect_that_it_ran_and_ended_well() const {
        EXPECT_EQ(exit_, 0);
        const auto running = manager_.statuses(SERVICE_RUNNING);
        ASSERT_EQ(running.size(), 1);
        EXPECT_EQ(running[0].dwControlsAccepted, DWORD{SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_SHUTDOWN});
        const SERVICE_STATUS& last = manager_.statuses().back();
        EXPECT_EQ(last.dwCurrentState, DWORD{SERVICE_STOPPED});
        EXPECT_EQ(last.dwWin32ExitCode, DWORD{NO_ERROR});
        EXPECT_THAT(manager_.events(), testing::ElementsAre(event::started, event::stopped));
    }

    /// Of a service that has started.
    void expect_that_it_takes_the_lock_over_and_tells_it() {
        manager_.await_event(event::started);
        // It ends while the service waits for the lock.
        std::thread([] {
            EXPECT_EQ(picture::library().shmnm_rwlock(10'000), SHMNM_OK);
            std::this_thread::sleep_for(std::chrono::milliseconds(1'200));
        }).join();
        EXPECT_THAT(manager_.await_event(event::lock_taken_over), testing::HasSubstr(L"\"shmnmctl verify\""));
        EXPECT_EQ(picture::library().shmnm_rwlock(10'000), SHMNM_OK) << "it is free again";
        picture::library().shmnm_rwunlock();
        stop();
        EXPECT_THAT(manager_.events(), testing::ElementsAre(event::started, event::lock_taken_over, event::stopped));
    }

    /// Of a service that has started.
    void expect_that_it_tells_a_lost_configuration_and_when_it_is_back() {
        manager_.await_event(event::started);
        remove_configuration();
        EXPECT_THAT(manager_.await_event(event::configuration_lost),
                    testing::HasSubstr(L"no process can attach without it"));
        configure();
        manager_.await_event(event::configuration_found);
        stop();
        EXPECT_THAT(manager_.events(), testing::ElementsAre(event::started, event::configuration_lost,
                                                            event::configuration_found, event::stopped));
    }

    ServiceManager manager_;
    int exit_ = -1;

  private:
    TemporaryFolder folder_;
    ScopedEnvironment path_;
    std::thread process_;
};

}  // namespace test
