// The system's calls about services and events, which tests replace: so they see what is asked of the system.
#pragma once

#include <windows.h>

namespace service {

struct Calls {
    // A process that is a service.
    decltype(&::StartServiceCtrlDispatcherW) dispatch = ::StartServiceCtrlDispatcherW;
    decltype(&::RegisterServiceCtrlHandlerExW) register_handler = ::RegisterServiceCtrlHandlerExW;
    decltype(&::SetServiceStatus) set_status = ::SetServiceStatus;
    // Events.
    decltype(&::RegisterEventSourceW) register_source = ::RegisterEventSourceW;
    decltype(&::ReportEventW) report_event = ::ReportEventW;
    decltype(&::DeregisterEventSource) deregister_source = ::DeregisterEventSource;
    // The service manager.
    decltype(&::OpenSCManagerW) open_manager = ::OpenSCManagerW;
    decltype(&::CloseServiceHandle) close = ::CloseServiceHandle;
    decltype(&::CreateServiceW) create = ::CreateServiceW;
    decltype(&::OpenServiceW) open = ::OpenServiceW;
    decltype(&::ChangeServiceConfigW) change = ::ChangeServiceConfigW;
    decltype(&::ChangeServiceConfig2W) change_more = ::ChangeServiceConfig2W;
    decltype(&::QueryServiceConfigW) query_configuration = ::QueryServiceConfigW;
    decltype(&::QueryServiceStatusEx) query_status = ::QueryServiceStatusEx;
    decltype(&::StartServiceW) start = ::StartServiceW;
    decltype(&::ControlService) control = ::ControlService;
    decltype(&::DeleteService) remove = ::DeleteService;
};

/// The calls in use.
Calls& calls();

}  // namespace service
