// The processes of a small cluster, which scripts/demo starts, each with one role. A process ends non-zero if a call
// fails or if it reads back a wrong value.
//
//     cluster_demo work SERVER ROUNDS        acts as a server: sets its states, raises the wait state ROUNDS times
//     cluster_demo live SERVER               acts as a server at a pace that a person can follow, with a failure now
//     and then cluster_demo hang                      takes the lock and keeps it until it is killed cluster_demo check
//     WAITSTAT SERVER...  checks that these servers, in this order, have the states that "work" sets
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "shmnm.h"

namespace {

constexpr uint32_t lock_timeout_ms = 60'000;
constexpr uint32_t alive = 1;

using Names = std::vector<std::string>;

/// Ends the process if a library call did not succeed.
void expect_ok(const char* call, uint32_t result) {
    if (result == SHMNM_OK) return;
    std::fprintf(stderr, "%s failed with code %u\n", call, result);
    std::exit(1);
}

void expect_equal(const std::string& what, uint64_t found, uint64_t expected) {
    if (found == expected) return;
    std::fprintf(stderr, "%s is %llu, expected %llu\n", what.c_str(), static_cast<unsigned long long>(found),
                 static_cast<unsigned long long>(expected));
    std::exit(1);
}

/// Holds the cross-process lock for a scope.
class Lock {
  public:
    Lock() { expect_ok("shmnm_rwlock", shmnm_rwlock(lock_timeout_ms)); }
    ~Lock() { shmnm_rwunlock(); }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;
};

/// Gets a list of names from the library: first its size, then the names, under one lock.
template <typename List>
Names names(const char* call, List list) {
    uint32_t size = 0;
    expect_ok(call, list(nullptr, &size));
    std::vector<char> buffer(size);
    expect_ok(call, list(buffer.data(), &size));
    Names result;
    for (const char* name = buffer.data(); *name; name += result.back().size() + 1) result.emplace_back(name);
    return result;
}

Names servers() {
    return names("shmnm_enumnode", [](char* buf, uint32_t* size) { return shmnm_enumnode(buf, size); });
}
Names hb_resources() {
    return names("shmnm_enumhbrsc", [](char* buf, uint32_t* size) { return shmnm_enumhbrsc(nullptr, buf, size); });
}
Names np_resources() {
    return names("shmnm_enumnprsc", [](char* buf, uint32_t* size) { return shmnm_enumnprsc(nullptr, buf, size); });
}

/// The state that a server sets for the resource at a position. It differs for every pair.
uint32_t pair_state(int32_t priority, size_t resource) {
    return 100 + 10 * static_cast<uint32_t>(priority) + static_cast<uint32_t>(resource);
}
uint32_t network_state(uint32_t state) {
    return state + 1000;
}

uint64_t started(int32_t priority) {
    return 0x1'0000'0000 + static_cast<uint64_t>(priority);
}

int32_t priority_of(const std::string& server) {
    int32_t priority = 0;
    expect_ok("shmnm_getnodepri", shmnm_getnodepri(server.c_str(), &priority));
    return priority;
}

int work(const std::string& server, int rounds) {
    expect_ok("shmnm_attach", shmnm_attach());
    {
        const Lock lock;
        const int32_t priority = priority_of(server);
        expect_ok("shmnm_setnodestat", shmnm_setnodestat(server.c_str(), alive));
        expect_ok("shmnm_setpingstat", shmnm_setpingstat(server.c_str(), alive));
        const Names hb = hb_resources(), np = np_resources();
        for (size_t i = 0; i < hb.size(); ++i) {
            const uint32_t state = pair_state(priority, i);
            expect_ok("shmnm_sethbrscsvstat", shmnm_sethbrscsvstat(nullptr, hb[i].c_str(), priority, state));
            expect_ok("shmnm_setrscsvstat_nw",
                      shmnm_setrscsvstat_nw(nullptr, hb[i].c_str(), priority, network_state(state)));
        }
        for (size_t i = 0; i < np.size(); ++i) {
            expect_ok("shmnm_setnprscsvstat",
                      shmnm_setnprscsvstat(nullptr, np[i].c_str(), priority, pair_state(priority, i)));
        }
        expect_ok("shmnm_setfstrscpid",
                  shmnm_setfstrscpid(server.c_str(), 0, pair_state(priority, 0), started(priority)));
    }
    for (int round = 0; round < rounds; ++round) {
        const Lock lock;
        uint32_t value = 0;
        expect_ok("shmnm_getwaitstat", shmnm_getwaitstat(&value));
        expect_ok("shmnm_setwaitstat", shmnm_setwaitstat(value + 1));
    }
    expect_ok("shmnm_detach", shmnm_detach());
    return 0;
}

/// The values that examples/states.json names.
enum State : uint32_t { unused, normal, unknown, degraded, failed };
constexpr uint32_t down = 2;

/// What one server sees and says of itself.
class LiveServer {
  public:
    explicit LiveServer(std::string name) : name_(std::move(name)), priority_(priority_of(name_)) {}

    void set_node(uint32_t state) {
        expect_ok("shmnm_setnodestat", shmnm_setnodestat(name_.c_str(), state));
        expect_ok("shmnm_setnodestat_nw", shmnm_setnodestat_nw(name_.c_str(), state));
        expect_ok("shmnm_setdownnotifystat", shmnm_setdownnotifystat(name_.c_str(), state == down));
        expect_ok("shmnm_setpingstat", shmnm_setpingstat(name_.c_str(), state == down ? 0 : 1));
        const State all = state == down ? unknown : normal;
        for (const std::string& resource : hb_resources()) set_hb(resource, all);
        for (const std::string& resource : np_resources()) set_np(resource, all);
    }
    void set_hold(bool on) { expect_ok("shmnm_setholdstat", shmnm_setholdstat(name_.c_str(), on)); }
    void set_isolated(bool on) {
        expect_ok("shmnm_setisolateflag", shmnm_setisolateflag(name_.c_str(), on));
        expect_ok("shmnm_setpingstat", shmnm_setpingstat(name_.c_str(), on ? 2 : 1));
    }
    void set_hb(const std::string& resource, State state) {
        expect_ok("shmnm_sethbrscsvstat", shmnm_sethbrscsvstat(nullptr, resource.c_str(), priority_, state));
        expect_ok("shmnm_setrscsvstat_nw", shmnm_setrscsvstat_nw(nullptr, resource.c_str(), priority_, state));
    }
    void set_np(const std::string& resource, State state) {
        expect_ok("shmnm_setnprscsvstat", shmnm_setnprscsvstat(nullptr, resource.c_str(), priority_, state));
    }

  private:
    std::string name_;
    int32_t priority_;
};

/// Runs until it is killed.
int live(const std::string& name) {
    expect_ok("shmnm_attach", shmnm_attach());
    std::mt19937 random(static_cast<uint32_t>(std::hash<std::string>{}(name)));
    const auto below = [&](size_t end) { return random() % end; };
    const auto rest = [&](int from_ms, int to_ms) {
        std::this_thread::sleep_for(
            std::chrono::milliseconds(from_ms + static_cast<int>(below(static_cast<size_t>(to_ms - from_ms)))));
    };
    LiveServer server = [&] {
        const Lock lock;
        return LiveServer(name);
    }();
    // Makes a change under the lock and takes it back after a while.
    const auto for_a_while = [&](const auto& change, const auto& undo) {
        {
            const Lock lock;
            change();
        }
        rest(3'000, 8'000);
        const Lock lock;
        undo();
    };
    {
        const Lock lock;
        expect_ok("shmnm_setclstat", shmnm_setclstat(1));
        server.set_node(alive);
    }
    for (;;) {
        rest(2'000, 9'000);
        Names hb, np;
        {
            const Lock lock;
            hb = hb_resources();
            np = np_resources();
        }
        switch (below(8)) {
            case 0:
                for_a_while([&] { server.set_node(down); }, [&] { server.set_node(alive); });
                break;
            case 1:
                for_a_while([&] { server.set_hold(true); }, [&] { server.set_hold(false); });
                break;
            case 2:
                for_a_while([&] { server.set_isolated(true); }, [&] { server.set_isolated(false); });
                break;
            case 3:
            case 4: {
                const std::string& resource = np[below(np.size())];
                for_a_while([&] { server.set_np(resource, failed); }, [&] { server.set_np(resource, normal); });
                break;
            }
            default: {
                const std::string& resource = hb[below(hb.size())];
                const State state = below(3) == 0 ? failed : degraded;
                for_a_while([&] { server.set_hb(resource, state); }, [&] { server.set_hb(resource, normal); });
            }
        }
    }
}

int hang() {
    const Lock lock;
    std::puts("holding the lock");
    std::fflush(stdout);
    for (;;) std::this_thread::sleep_for(std::chrono::hours(1));
}

/// Checks the states of all resources on all servers. `row` lists one resource's states, by server position.
template <typename Row>
void check_matrix(const Names& resources, const Names& all_servers, uint32_t offset, Row row) {
    for (size_t i = 0; i < resources.size(); ++i) {
        std::vector<uint32_t> states(all_servers.size());
        auto size = static_cast<uint32_t>(states.size() * sizeof states[0]);
        expect_ok("the listing of a row", row(resources[i].c_str(), states.data(), &size));
        for (size_t j = 0; j < states.size(); ++j) {
            expect_equal(resources[i] + " on " + all_servers[j], states[j],
                         pair_state(priority_of(all_servers[j]), i) + offset);
        }
    }
}

int check(uint32_t expected_waitstat, const Names& expected_servers) {
    expect_ok("shmnm_attach", shmnm_attach());
    {
        const Lock lock;
        uint32_t waitstat = 0;
        expect_ok("shmnm_getwaitstat", shmnm_getwaitstat(&waitstat));
        expect_equal("the wait state", waitstat, expected_waitstat);

        const Names all_servers = servers();
        if (all_servers != expected_servers) {
            std::fputs("the region does not have the expected servers\n", stderr);
            return 1;
        }
        for (const std::string& server : all_servers) {
            uint32_t nodestat = 0, pid = 0;
            uint64_t since = 0;
            const int32_t priority = priority_of(server);
            expect_ok("shmnm_getnodestat", shmnm_getnodestat(server.c_str(), &nodestat));
            expect_equal("the state of " + server, nodestat, alive);
            expect_ok("shmnm_getfstrscpid", shmnm_getfstrscpid(server.c_str(), 0, &pid, &since));
            expect_equal("the process id of " + server, pid, pair_state(priority, 0));
            expect_equal("the 64-bit value of " + server, since, started(priority));
        }
        check_matrix(hb_resources(), all_servers, 0, [](const char* name, uint32_t* buf, uint32_t* size) {
            return shmnm_enumhbrscsvstat(nullptr, name, buf, size);
        });
        check_matrix(hb_resources(), all_servers, network_state(0),
                     [](const char* name, uint32_t* buf, uint32_t* size) {
                         return shmnm_enumrscsvstat_nw(nullptr, name, buf, size);
                     });
        check_matrix(np_resources(), all_servers, 0, [](const char* name, uint32_t* buf, uint32_t* size) {
            return shmnm_enumnprscsvstat(nullptr, name, buf, size);
        });

        // Checks the same again, directly in the region's bytes.
        int32_t size = 0;
        expect_ok("shmnm_dump", shmnm_dump(nullptr, &size));
        std::vector<uint8_t> raw(static_cast<size_t>(size));
        expect_ok("shmnm_dump", shmnm_dump(raw.data(), &size));
        const auto* const header = reinterpret_cast<const shmnm_header*>(raw.data());
        expect_equal("the count of servers in the raw region", static_cast<uint64_t>(header->server_count),
                     expected_servers.size());
        expect_equal("the wait state in the raw region", header->waitstat, expected_waitstat);
        std::printf("%zu servers, wait state %u, %d bytes: all right\n", all_servers.size(), waitstat, size);
    }
    expect_ok("shmnm_detach", shmnm_detach());
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const Names arguments(argv + 1, argv + argc);
    const std::string role = arguments.empty() ? "" : arguments[0];
    if (role == "work" && arguments.size() == 3) return work(arguments[1], std::stoi(arguments[2]));
    if (role == "live" && arguments.size() == 2) return live(arguments[1]);
    if (role == "hang" && arguments.size() == 1) return hang();
    if (role == "check" && arguments.size() >= 2) {
        return check(static_cast<uint32_t>(std::stoul(arguments[1])), Names(arguments.begin() + 2, arguments.end()));
    }
    std::fputs("usage: cluster_demo work SERVER ROUNDS | live SERVER | hang | check WAITSTAT SERVER...\n", stderr);
    return 2;
}
