// The service manager and the event log, which a test plays for a program's own work in this process.
#pragma once

#include <windows.h>

#include <algorithm>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "service/calls_windows.h"

namespace test {

/// The numbers of the events.
namespace event {
inline constexpr DWORD started = 0x40000001, stopped = 0x40000002, failed = 0xC0000003, region_refused = 0xC0000004,
                       region_accepted = 0x40000005, lock_taken_over = 0x80000006, configuration_lost = 0xC0000007,
                       configuration_found = 0x40000008;
}  // namespace event

/// The service manager and the event log, as this process sees them while this lives.
class ServiceManager {
  public:
    ServiceManager() {
        played_ = this;
        service::Calls& calls = service::calls();
        calls.dispatch = [](const SERVICE_TABLE_ENTRYW* table) -> BOOL {
            played_->serve(table->lpServiceProc);
            return TRUE;
        };
        calls.register_handler = [](LPCWSTR, LPHANDLER_FUNCTION_EX handler, void* context) {
            played_->take(handler, context);
            return reinterpret_cast<SERVICE_STATUS_HANDLE>(played_);
        };
        calls.set_status = [](SERVICE_STATUS_HANDLE, SERVICE_STATUS* status) -> BOOL {
            played_->take(*status);
            return TRUE;
        };
        calls.register_source = [](LPCWSTR, LPCWSTR) -> HANDLE { return played_; };
        calls.report_event = [](HANDLE, WORD, WORD, DWORD id, PSID, WORD, DWORD, LPCWSTR* texts, void*) -> BOOL {
            played_->take({id, texts[1]});
            return TRUE;
        };
        calls.deregister_source = [](HANDLE) -> BOOL { return TRUE; };
    }
    ~ServiceManager() { service::calls() = {}; }
    ServiceManager(const ServiceManager&) = delete;
    ServiceManager& operator=(const ServiceManager&) = delete;

    DWORD control(DWORD control) const { return control_(control); }
    void await_state(DWORD state) {
        await([&] { return !statuses_.empty() && statuses_.back().dwCurrentState == state; });
    }
    std::wstring await_event(DWORD id) {
        std::wstring text;
        await([&] {
            const auto found =
                std::find_if(events_.begin(), events_.end(), [&](const Written& event) { return event.id == id; });
            if (found == events_.end()) return false;
            text = found->text;
            return true;
        });
        return text;
    }
    std::vector<SERVICE_STATUS> statuses(DWORD state) const {
        std::vector<SERVICE_STATUS> found;
        for (const SERVICE_STATUS& status : statuses_) {
            if (status.dwCurrentState == state) found.push_back(status);
        }
        return found;
    }
    const std::vector<SERVICE_STATUS>& statuses() const { return statuses_; }
    std::vector<DWORD> events() const {
        std::vector<DWORD> ids;
        for (const Written& event : events_) ids.push_back(event.id);
        return ids;
    }

  private:
    struct Written {
        DWORD id;
        std::wstring text;
    };

    void serve(LPSERVICE_MAIN_FUNCTIONW service_main) {
        std::wstring name = L"shmnm-test";
        wchar_t* arguments[] = {name.data()};
        std::thread([&] { service_main(1, arguments); }).join();
    }
    void take(LPHANDLER_FUNCTION_EX handler, void* context) {
        control_ = [handler, context](DWORD control) { return handler(control, 0, nullptr, context); };
    }
    void take(const SERVICE_STATUS& status) {
        const std::scoped_lock hold(mutex_);
        statuses_.push_back(status);
        changed_.notify_all();
    }
    void take(const Written& event) {
        const std::scoped_lock hold(mutex_);
        events_.push_back(event);
        changed_.notify_all();
    }

    void await(const std::function<bool()>& is_so) {
        std::unique_lock hold(mutex_);
        changed_.wait(hold, is_so);
    }

    static inline ServiceManager* played_ = nullptr;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::function<DWORD(DWORD)> control_;
    std::vector<SERVICE_STATUS> statuses_;
    std::vector<Written> events_;
};

}  // namespace test
