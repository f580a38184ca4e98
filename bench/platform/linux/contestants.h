// The contestants on this platform.
#pragma once

#include "floor_calls.h"
#include "interprocess_peer.h"
#include "library.h"
#include "lmdb_peer.h"
#include "sqlite_peer.h"
#include "strcmp_peer.h"

namespace bench {

struct Contestants {
    explicit Contestants(const Place& place)
        : library(place),
          floor(place),
          strcmp_peer(place),
          interprocess_map(place),
          interprocess_hash(place),
          lmdb(place),
          sqlite(place) {}

    template <typename Do>
    void each(const Do& what) {
        what(library);
        what(floor);
        what(strcmp_peer);
        what(interprocess_map);
        what(interprocess_hash);
        what(lmdb);
        what(sqlite);
    }

    Library library;
    Floor floor;  ///< a copy of the library's region
    StrcmpPeer strcmp_peer;
    InterprocessPeer<InterprocessMap> interprocess_map;
    InterprocessPeer<InterprocessHash> interprocess_hash;
    LmdbPeer lmdb;
    SqlitePeer sqlite;
};

/// The contestants of the rows with several processes.
using ProcessContestants = List<Library, StrcmpPeer, InterprocessPeer<InterprocessMap>,
                                InterprocessPeer<InterprocessHash>, LmdbPeer, SqlitePeer>;

}  // namespace bench
