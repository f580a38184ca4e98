// The core's requests in the terms of the client of etcd, and its answers in the core's.
#pragma once

#include "core_messages.h"
#include "etcd/messages.h"

namespace bridge {

etcd::Request to_etcd(const Request& request);
etcd::Watch to_etcd(const Watch& watch);

Answer from_etcd(const Request& request, const etcd::Answer& answer);
Events from_etcd(uint64_t watch, const etcd::WatchMessage& message);

}  // namespace bridge
