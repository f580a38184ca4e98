// Channels without TLS.
#pragma once

#include <memory>

#include "etcd/channel.h"

namespace etcd {

std::unique_ptr<Channel> open_plain_channel(boost::asio::io_context& io, const Endpoint& endpoint);

}  // namespace etcd
