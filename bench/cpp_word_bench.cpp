// Reads and writes words through shmnm.hpp, beside C calls whose results are checked as well.
#include <cstdlib>

#include "measure.h"
#include "shmnm.hpp"

namespace {

using bench::Asked;

/// The words that a row asks for, in three ways to call the library.
struct InC {
    static constexpr const char* who = "library";

    explicit InC(const Asked& words) : asked(words) {}

    static void expect(uint32_t result) {
        if (result != SHMNM_OK) std::abort();
    }
    static uint32_t header_word() {
        uint32_t value = 0;
        expect(shmnm_getclstat(&value));
        return value;
    }
    static void set_header_word(uint32_t value) { expect(shmnm_setclstat(value)); }
    uint32_t server_word() const {
        uint32_t value = 0;
        expect(shmnm_getnodestat(asked.server.data(), &value));
        return value;
    }
    void set_server_word(uint32_t value) const { expect(shmnm_setnodestat(asked.server.data(), value)); }
    uint32_t pair() const {
        uint32_t value = 0;
        expect(shmnm_gethbrscsvstat(asked.type.data(), asked.resource.data(), asked.priority, &value));
        return value;
    }
    void set_pair(uint32_t value) const {
        expect(shmnm_sethbrscsvstat(asked.type.data(), asked.resource.data(), asked.priority, value));
    }

    Asked asked;
};

struct Objects {
    explicit Objects(const Asked& words)
        : asked(words),
          server(asked.server.data()),
          resource(asked.type.data(), asked.resource.data()),
          priority{asked.priority} {}
    Objects(const Objects&) = delete;
    Objects& operator=(const Objects&) = delete;

    Asked asked;
    shmnm::Server server;
    shmnm::HbResource resource;
    shmnm::Priority priority;
};

struct Throwing : Objects {
    static constexpr const char* who = "cpp";
    using Objects::Objects;

    static uint32_t header_word() { return shmnm::get(shmnm::clstat).value; }
    static void set_header_word(uint32_t value) { shmnm::set(shmnm::clstat, {value}); }
    uint32_t server_word() const { return server.get(shmnm::nodestat).value; }
    void set_server_word(uint32_t value) const { server.set(shmnm::nodestat, {value}); }
    uint32_t pair() const { return resource.get(shmnm::hbrscsvstat, priority).value; }
    void set_pair(uint32_t value) const { resource.set(shmnm::hbrscsvstat, priority, {value}); }
};

struct WithCodes : Objects {
    static constexpr const char* who = "cpp_codes";
    using Objects::Objects;

    static void expect() {
        if (error) std::abort();
    }
    static uint32_t header_word() {
        const shmnm::State state = shmnm::get(shmnm::clstat, error);
        expect();
        return state.value;
    }
    static void set_header_word(uint32_t value) {
        shmnm::set(shmnm::clstat, {value}, error);
        expect();
    }
    uint32_t server_word() const {
        const shmnm::State state = server.get(shmnm::nodestat, error);
        expect();
        return state.value;
    }
    void set_server_word(uint32_t value) const {
        server.set(shmnm::nodestat, {value}, error);
        expect();
    }
    uint32_t pair() const {
        const shmnm::State state = resource.get(shmnm::hbrscsvstat, priority, error);
        expect();
        return state.value;
    }
    void set_pair(uint32_t value) const {
        resource.set(shmnm::hbrscsvstat, priority, {value}, error);
        expect();
    }

    static inline std::error_code error;
};

struct Ways {
    explicit Ways(const Asked& asked) : in_c(asked), throwing(asked), with_codes(asked) {}

    template <typename Do>
    void each(const Do& what) {
        what(in_c);
        what(throwing);
        what(with_codes);
    }

    InC in_c;
    Throwing throwing;
    WithCodes with_codes;
};

}  // namespace

void bench::cpp_word(Measurement& measurement, const Cluster& cluster, Contestants&) {
    Ways ways{Asked(cluster)};
    const auto check = [](auto& way) {
        way.set_header_word(41);
        way.set_server_word(42);
        way.set_pair(43);
        return way.header_word() == 41 && way.server_word() == 42 && way.pair() == 43;
    };
    if (cluster.servers <= 4) {
        measurement.row("cpp_header_word_get", ways, check, [](auto& way) { keep(way.header_word()); });
        measurement.row("cpp_header_word_set", ways, check, [](auto& way) { way.set_header_word(42); });
    }
    const std::string servers = cluster.servers_text(), size = cluster.size_text();
    measurement.row("cpp_server_word_get/" + servers, ways, check, [](auto& way) { keep(way.server_word()); });
    measurement.row("cpp_server_word_set/" + servers, ways, check, [](auto& way) { way.set_server_word(42); });
    measurement.row("cpp_pair_get/" + size, ways, check, [](auto& way) { keep(way.pair()); });
    measurement.row("cpp_pair_set/" + size, ways, check, [](auto& way) { way.set_pair(42); });
}
