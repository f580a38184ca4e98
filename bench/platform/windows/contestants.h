// The contestants on this platform.
#pragma once

#include "floor_calls.h"
#include "library.h"
#include "strcmp_peer.h"

namespace bench {

struct Contestants {
    explicit Contestants(const Place& place) : library(place), floor(place), strcmp_peer(place) {}

    template <typename Do>
    void each(const Do& what) {
        what(library);
        what(floor);
        what(strcmp_peer);
    }

    Library library;
    Floor floor;  ///< a copy of the library's region
    StrcmpPeer strcmp_peer;
};

/// The contestants of the rows with several processes.
using ProcessContestants = List<Library, StrcmpPeer>;

}  // namespace bench
