#include <utility>

#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>
#include <csignal>

#include "stop.h"

namespace bridge {

class StopRequests::Implementation {
  public:
    Implementation(boost::asio::io_context& io, std::function<void()> asked) : signals_(io, SIGINT, SIGTERM, SIGHUP) {
        signals_.async_wait([asked = std::move(asked)](const boost::system::error_code& why, int) {
            if (!why) asked();
        });
    }

  private:
    boost::asio::signal_set signals_;
};

StopRequests::StopRequests(boost::asio::io_context& io, std::function<void()> asked)
    : implementation_(std::make_unique<Implementation>(io, std::move(asked))) {}
StopRequests::~StopRequests() = default;

}  // namespace bridge
