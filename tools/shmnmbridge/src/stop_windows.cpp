#include <utility>

#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>

#include <windows.h>

#include "stop.h"

namespace bridge {
namespace {

boost::asio::io_context* told = nullptr;
std::function<void()>* handler = nullptr;

BOOL WINAPI on_console_event(DWORD event) {
    boost::asio::post(*told, *handler);
    // The system ends the process when the handler of these returns, or after some seconds: main() needs that time.
    if (event == CTRL_CLOSE_EVENT || event == CTRL_LOGOFF_EVENT || event == CTRL_SHUTDOWN_EVENT) Sleep(INFINITE);
    return TRUE;
}

}  // namespace

class StopRequests::Implementation {
  public:
    Implementation(boost::asio::io_context& io, std::function<void()> asked) : asked_(std::move(asked)) {
        told = &io;
        handler = &asked_;
        SetConsoleCtrlHandler(on_console_event, TRUE);
    }
    ~Implementation() { SetConsoleCtrlHandler(on_console_event, FALSE); }
    Implementation(const Implementation&) = delete;
    Implementation& operator=(const Implementation&) = delete;

  private:
    std::function<void()> asked_;
};

StopRequests::StopRequests(boost::asio::io_context& io, std::function<void()> asked)
    : implementation_(std::make_unique<Implementation>(io, std::move(asked))) {}
StopRequests::~StopRequests() = default;

}  // namespace bridge
