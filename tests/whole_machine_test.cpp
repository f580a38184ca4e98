// The whole machine: processes work on one region at the same time, under the lock, and some are killed at random
// points, with and without the lock held. After each kill the lock is to be had, the region decodes, and what completed
// calls wrote is there.
#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "machine_size.h"
#include "shmnm.h"
#include "support/child.h"
#include "support/temporary_folder.h"

namespace {

using test::Child;
using test::report;

constexpr uint32_t lock_timeout_ms = 60'000;
constexpr int32_t max_servers = 24, max_hb = 12, max_np = 12;  // as configured below

/// Everything that a process owns bears its name; its server's priority is its number.
struct Names {
    explicit Names(int number) : server("server" + std::to_string(number)), resource("lan" + std::to_string(number)) {}
    std::string server, resource;
};

/// The words that a process sets again and again: of its server, its hb and np resource, and of their pairs.
struct OwnWord {
    uint32_t initial;  ///< what it holds when its owner has just been added
    uint32_t (*set)(int number, uint32_t value);
    uint32_t (*get)(int number, uint32_t* value);
};
const char* server(int number) {
    static std::string name;
    name = Names(number).server;
    return name.c_str();
}
const char* resource(int number) {
    static std::string name;
    name = Names(number).resource;
    return name.c_str();
}
const std::array<OwnWord, 7> own_words = {{
    {2, [](int n, uint32_t v) { return shmnm_setnodestat(server(n), v); },
     [](int n, uint32_t* v) { return shmnm_getnodestat(server(n), v); }},
    {0, [](int n, uint32_t v) { return shmnm_setpingstat(server(n), v); },
     [](int n, uint32_t* v) { return shmnm_getpingstat(server(n), v); }},
    {0, [](int n, uint32_t v) { return shmnm_sethbrscstat("lan", resource(n), v); },
     [](int n, uint32_t* v) { return shmnm_gethbrscstat("lan", resource(n), v); }},
    {2, [](int n, uint32_t v) { return shmnm_sethbrscsvstat("lan", resource(n), n, v); },
     [](int n, uint32_t* v) { return shmnm_gethbrscsvstat("lan", resource(n), n, v); }},
    {2, [](int n, uint32_t v) { return shmnm_setrscsvstat_nw("lan", resource(n), n, v); },
     [](int n, uint32_t* v) { return shmnm_getrscsvstat_nw("lan", resource(n), n, v); }},
    {0, [](int n, uint32_t v) { return shmnm_setnprscstat("ping", resource(n), v); },
     [](int n, uint32_t* v) { return shmnm_getnprscstat("ping", resource(n), v); }},
    {2, [](int n, uint32_t v) { return shmnm_setnprscsvstat("ping", resource(n), n, v); },
     [](int n, uint32_t* v) { return shmnm_getnprscsvstat("ping", resource(n), n, v); }},
}};

/// In a child: ends the process when a call did not succeed; the parent then misses its report.
void expect_ok(uint32_t result) {
    if (result != SHMNM_OK) std::exit(3);
}

void add_own(int number) {
    expect_ok(shmnm_rwlock(lock_timeout_ms));
    expect_ok(shmnm_addnode(server(number), number));
    expect_ok(shmnm_addhbrsc("lan", resource(number), static_cast<uint32_t>(number)));
    expect_ok(shmnm_addnprsc("ping", resource(number), static_cast<uint32_t>(number)));
    expect_ok(shmnm_rwunlock());
}

/// Sets its own words, round after round, until it is killed. Round r sets each to r and reports r after each call; the
/// lock is taken for some words, left between others.
CHILD(victim) {
    const int number = std::stoi(test::argument());
    expect_ok(shmnm_attach());
    add_own(number);
    for (uint32_t round = 1;; ++round) {
        for (size_t word = 0; word < own_words.size(); ++word) {
            if (word % 3 == 0) expect_ok(shmnm_rwlock(lock_timeout_ms));
            expect_ok(own_words[word].set(number, round));
            report(round);
            if (word % 3 == 2 || word + 1 == own_words.size()) expect_ok(shmnm_rwunlock());
        }
    }
}

/// Does what changes the tables: servers and resources of its own come and go, so everyone else's move; and counts its
/// rounds in the wait state.
CHILD(survivor) {
    const int number = std::stoi(test::argument());
    expect_ok(shmnm_attach());
    report(0);
    std::mt19937 random(static_cast<unsigned>(number));
    bool has_server = false, has_hb = false, has_np = false;
    const uint64_t rounds = test::told();
    for (uint64_t round = 0; round < rounds; ++round) {
        expect_ok(shmnm_rwlock(lock_timeout_ms));
        switch (random() % 4) {
            case 0:
                expect_ok(has_server ? shmnm_rmnode(server(number)) : shmnm_addnode(server(number), number));
                has_server = !has_server;
                break;
            case 1:
                expect_ok(has_hb ? shmnm_rmhbrsc("disk", resource(number))
                                 : shmnm_addhbrsc("disk", resource(number), 1));
                has_hb = !has_hb;
                break;
            case 2:
                expect_ok(has_np ? shmnm_rmnprsc("majority", resource(number))
                                 : shmnm_addnprsc("majority", resource(number), 1));
                has_np = !has_np;
                break;
            default:
                expect_ok(shmnm_settypehbstat("disk", static_cast<uint32_t>(random())));
        }
        uint32_t count = 0;
        expect_ok(shmnm_getwaitstat(&count));
        expect_ok(shmnm_setwaitstat(count + 1));
        expect_ok(shmnm_rwunlock());
    }
    report(rounds);
    test::hang();
}

/// Adds and removes without end, to be killed in the middle of it.
CHILD(builder) {
    const int number = std::stoi(test::argument());
    expect_ok(shmnm_attach());
    for (uint32_t round = 1;; ++round) {
        expect_ok(shmnm_rwlock(lock_timeout_ms));
        // What an earlier builder left half done may refuse these; they must come back all the same.
        shmnm_addnode(server(number), number);
        shmnm_addhbrsc("lan", resource(number), 1);
        shmnm_addnprsc("ping", resource(number), 1);
        shmnm_rmnode(server(number));
        shmnm_rmhbrsc("lan", resource(number));
        shmnm_rmnprsc("ping", resource(number));
        expect_ok(shmnm_rwunlock());
        // Not while it owns the lock: a full pipe would stop it there.
        report(round);
    }
}

class WholeMachine : public testing::Test {
  protected:
    WholeMachine() : path_("KZM_INSTALL_PATH", folder_.string().c_str()) {
        folder_.write("etc/cluster.xml",
                      "<root><all><num><server>24</server><hbr>12</hbr><npr>12</npr><fstr>1</fstr></num></all>"
                      "<shmnm><log><level>1</level><size>1000000</size></log></shmnm></root>");
        std::printf("seed %u\n", seed_);
        EXPECT_EQ(shmnm_create(), SHMNM_OK);
    }
    ~WholeMachine() override { shmnm_delete(); }

    unsigned random_below(unsigned limit) { return static_cast<unsigned>(random_() % limit); }

    /// The region decodes: counts within their limits, each listing whole.
    static void expect_region_decodes() {
        uint32_t servers = 0, hb = 0, np = 0;
        ASSERT_EQ(shmnm_getmaxvalue_ex(&servers, &hb, &np), SHMNM_OK);
        EXPECT_EQ(servers, uint32_t{max_servers});
        EXPECT_EQ(hb, uint32_t{max_hb});
        EXPECT_EQ(np, uint32_t{max_np});
        int32_t size = 0;
        ASSERT_EQ(shmnm_dump(nullptr, &size), SHMNM_OK);
        std::vector<uint8_t> raw(static_cast<size_t>(size));
        ASSERT_EQ(shmnm_dump(raw.data(), &size), SHMNM_OK);
        const auto* const header = reinterpret_cast<const shmnm_header*>(raw.data());
        EXPECT_LE(header->server_count, max_servers);
        EXPECT_LE(header->hb_count, max_hb);
        EXPECT_LE(header->np_count, max_np);
        EXPECT_GE(std::min({header->server_count, header->hb_count, header->np_count}), 0);
        std::vector<char> names(100'000);
        auto room = static_cast<uint32_t>(names.size());
        EXPECT_EQ(shmnm_enumnode(names.data(), &room), SHMNM_OK);
        room = static_cast<uint32_t>(names.size());
        EXPECT_EQ(shmnm_enumhbrsc(nullptr, names.data(), &room), SHMNM_OK);
        room = static_cast<uint32_t>(names.size());
        EXPECT_EQ(shmnm_enumnprsc(nullptr, names.data(), &room), SHMNM_OK);
    }

    /// Kills a victim somewhere in its calls, and looks for what those that completed have written.
    void kill_and_check(int number) {
        Child child = test::start(victim, std::to_string(number));
        size_t completed = 0;
        for (const unsigned calls = 1 + random_below(100); completed < calls; ++completed) child.reported();
        child.kill();
        while (child.next_report()) ++completed;
        ASSERT_EQ(shmnm_rwlock(lock_timeout_ms), SHMNM_OK) << "the lock was not handed on";
        expect_region_decodes();
        for (size_t word = 0; word < own_words.size(); ++word) {
            const auto rounds = static_cast<uint32_t>((completed + own_words.size() - 1 - word) / own_words.size());
            uint32_t value = 0;
            ASSERT_EQ(own_words[word].get(number, &value), SHMNM_OK) << "word " << word;
            // The call behind the last completed one may have set its word and not come to report it.
            if (completed % own_words.size() == word && value == rounds + 1) continue;
            EXPECT_EQ(value, rounds > 0 ? rounds : own_words[word].initial)
                << "word " << word << " of server " << number;
        }
        EXPECT_EQ(shmnm_rmnode(server(number)), SHMNM_OK);
        EXPECT_EQ(shmnm_rmhbrsc("lan", resource(number)), SHMNM_OK);
        EXPECT_EQ(shmnm_rmnprsc("ping", resource(number)), SHMNM_OK);
        ASSERT_EQ(shmnm_rwunlock(), SHMNM_OK);
    }

    test::TemporaryFolder folder_;
    test::ScopedEnvironment path_;
    unsigned seed_ = std::random_device{}();
    std::mt19937 random_{seed_};
};

TEST_F(WholeMachine, KeepsTheResultsOfCompletedCallsWhenProcessesAreKilled) {
    std::vector<Child> survivors;
    for (int number = 0; number < machine::survivors; ++number) {
        survivors.push_back(test::start(survivor, std::to_string(number)));
        ASSERT_EQ(survivors.back().reported(), 0u);
    }
    for (Child& child : survivors) child.tell(machine::rounds);
    for (int kill = 0; kill < machine::kills; ++kill) {
        SCOPED_TRACE("kill " + std::to_string(kill));
        kill_and_check(100 + kill);
        if (HasFatalFailure()) return;
    }
    for (Child& child : survivors) EXPECT_EQ(child.reported(), machine::rounds) << "a survivor's call failed";
    uint32_t count = 0;
    ASSERT_EQ(shmnm_getwaitstat(&count), SHMNM_OK);
    EXPECT_EQ(count, machine::survivors * machine::rounds) << "no round was lost or counted twice";
    ASSERT_EQ(shmnm_rwlock(lock_timeout_ms), SHMNM_OK);
    expect_region_decodes();
    EXPECT_EQ(shmnm_rwunlock(), SHMNM_OK);
}

TEST_F(WholeMachine, StaysUsableWhenProcessesAreKilledWhileTheyAddAndRemove) {
    for (int kill = 0; kill < machine::kills; ++kill) {
        SCOPED_TRACE("kill " + std::to_string(kill));
        std::vector<Child> builders;
        builders.reserve(machine::builders);
        for (int number = 0; number < machine::builders; ++number) {
            builders.push_back(test::start(builder, std::to_string(number)));
        }
        Child& unlucky = builders[random_below(machine::builders)];
        for (unsigned reports = 1 + random_below(30); reports > 0; --reports) unlucky.reported();
        unlucky.kill();
        // The others go on: each has the lock once more.
        for (Child& other : builders) {
            if (&other == &unlucky) continue;
            for (int reports = 0; reports < 3; ++reports) other.reported();
        }
        ASSERT_EQ(shmnm_rwlock(lock_timeout_ms), SHMNM_OK) << "the lock was not handed on";
        expect_region_decodes();
        ASSERT_EQ(shmnm_rwunlock(), SHMNM_OK);
        for (Child& child : builders) child.kill();
        // A table that a killed process left half changed does not stop the next ones.
        ASSERT_EQ(shmnm_rwlock(lock_timeout_ms), SHMNM_OK);
        expect_region_decodes();
        ASSERT_EQ(shmnm_rwunlock(), SHMNM_OK);
    }
}

}  // namespace
