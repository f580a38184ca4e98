// How this process is asked to stop: SIGTERM, SIGINT and SIGHUP; on Windows Ctrl-C, Ctrl-Break, the end of the console
// or of the session.
#pragma once

#include <functional>
#include <memory>

namespace boost::asio {
class io_context;
}

namespace bridge {

class StopRequests {
  public:
    /// @param[in] asked  called by the io_context
    StopRequests(boost::asio::io_context& io, std::function<void()> asked);
    ~StopRequests();
    StopRequests(const StopRequests&) = delete;
    StopRequests& operator=(const StopRequests&) = delete;

  private:
    class Implementation;
    std::unique_ptr<Implementation> implementation_;
};

}  // namespace bridge
