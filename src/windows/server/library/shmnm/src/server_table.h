// The server table, for looking up servers.
#pragma once

#include "ascending_text.h"
#include "region.h"

namespace shmnm {

inline Strip server_strip(const Region& region) noexcept {
    return {region.layout.servers, sizeof(shmnm_server)};
}

/// The servers that the header counts at this moment.
struct Servers {
    explicit Servers(const Region& mapping) noexcept
        : region(mapping), count(load(mapping.header().server_count)), records(mapping, server_strip(mapping), count) {}

    /// The first server of this name.
    Found<shmnm_server> named(const char* name) const noexcept {
        const TextKey key(name);
        if (!key.fits(sizeof(shmnm_server))) [[unlikely]]
            return with_long_name(name);
        return records.first([&](const shmnm_server& server) { return key.may_equal(server.name); },
                             [&](const shmnm_server& server) { return key.equals_around(server.name, region.end()); });
    }
    /// The same for a long name: linear time, however much of the name records without a NUL hold.
    [[gnu::cold, gnu::noinline]] Found<shmnm_server> with_long_name(const char* name) const noexcept {
        return find_ascending(region, records, name);
    }
    /// The first server of this priority.
    Found<shmnm_server> of_priority(int32_t pri) const noexcept {
        return records.first([=](const shmnm_server& server) { return load(server.pri) == pri; });
    }

    const Region& region;
    int32_t count;                ///< as in the header
    Table<shmnm_server> records;  ///< those of them in the view
};

}  // namespace shmnm
