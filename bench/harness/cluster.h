// The cluster that rows are measured on. Its names share their first letters, and rows ask for the last of each.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace bench {

/// The shared objects of a contestant: the names of all of them begin with `scratch`. One process creates them, the
/// other processes join.
struct Place {
    std::string scratch;
    bool create;
};

/// A list of types.
template <typename...>
struct List {};

/// The room that every contestant has; a row's size says how much of it is in use.
inline constexpr int32_t max_servers = 128, max_resources = 16;

/// A zero-padded name.
using Name = std::array<char, 16>;

struct Cluster {
    int32_t servers, resources;

    static Name server(int32_t position) {
        const std::string digits = std::to_string(position + 1);
        return name("server" + std::string(digits.size() < 3 ? 3 - digits.size() : 0, '0') + digits);
    }
    static Name resource(int32_t position) { return name("lanhb" + std::to_string(position + 1)); }
    static constexpr Name type{'l', 'a', 'n'};
    static int32_t priority(int32_t position) { return position; }

    std::string servers_text() const { return std::to_string(servers); }
    std::string size_text() const { return std::to_string(servers) + "/" + std::to_string(resources); }

  private:
    static Name name(const std::string& text) {
        Name name{};
        text.copy(name.data(), name.size() - 1);
        return name;
    }
};

/// All names, created once.
struct Names {
    static const auto& servers() {
        static const auto names = made<max_servers>(Cluster::server);
        return names;
    }
    static const auto& resources() {
        static const auto names = made<max_resources>(Cluster::resource);
        return names;
    }

  private:
    template <size_t count>
    static std::array<Name, count> made(Name (*name)(int32_t)) {
        std::array<Name, count> names;
        for (size_t i = 0; i < count; ++i) names[i] = name(static_cast<int32_t>(i));
        return names;
    }
};

/// The server and the resource that a row asks for.
struct Asked {
    explicit Asked(const Cluster& cluster)
        : server(Cluster::server(cluster.servers - 1)),
          resource(Cluster::resource(cluster.resources - 1)),
          priority(Cluster::priority(cluster.servers - 1)) {}

    Name server, type = Cluster::type, resource;
    int32_t priority;
};

}  // namespace bench
