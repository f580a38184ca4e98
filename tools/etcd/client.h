// A client of etcd 3.4 and later, over its JSON gateway. It knows several members and speaks with one at a time; a
// member that fails to answer in time is left for the next one.
//
// It has no thread of its own: all of it runs where the caller runs the io_context, and so do the handlers, which are
// never called from inside a function of the client. Only Asio looks names up on a thread of its own; addresses are not
// looked up.
//
// Requests are sent one after the other over one connection, in the order of the calls. Each is answered within the
// time-out. The client repeats only what certainly was not carried out, so no request is carried out twice.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "etcd/messages.h"
#include "etcd/settings.h"

namespace boost::asio {
class io_context;
}

namespace etcd {

class Client {
  public:
    /// @throws Error  a setting cannot be used
    Client(boost::asio::io_context& io, const Settings& settings);
    /// No handler is called after it.
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    using Answered = std::function<void(const Answer&)>;
    void send(Request request, Answered answered);

    using Told = std::function<void(const WatchMessage&)>;
    using Ended = std::function<void(const WatchEnd&)>;
    /// Watches over a connection of its own, until unwatch() or the stream's end. The first message comes within the
    /// time-out, otherwise the watch ends. Each watch begins at another member than the last one.
    /// @return the watch's number
    uint64_t watch(const Watch& watch, Told told, Ended ended);
    /// Ends a watch; its handlers are not called any more.
    void unwatch(uint64_t number);

    /// Where requests are sent now.
    std::string member() const;

  private:
    class Implementation;
    std::shared_ptr<Implementation> implementation_;
};

}  // namespace etcd
