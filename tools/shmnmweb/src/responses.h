// What is answered to a request: a function of the request and of what was last seen of the region, free of sockets.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "history.h"
#include "host_check.h"
#include "http_message.h"
#include "look.h"
#include "metrics.h"
#include "names.h"

namespace shmnmweb {

/// What all answers are made from. One thread uses it.
struct Site {
    HostCheck hosts{{}};
    Names names;
    History history{""};
    std::shared_ptr<const Look> look;  ///< the newest; null before the first
    ScrapeFailures failures;
    std::vector<std::weak_ptr<const picture::Snapshot>> sent;  ///< copies of all bytes, while answers need them

    /// @return whether event streams have something new to be told
    bool add(std::shared_ptr<const Look> newest) {
        look = newest;
        return history.add(std::move(newest));
    }
};

Response respond(const Request& request, Site& site);

}  // namespace shmnmweb
