// A program that calls the library through shmnm.hpp writes the log of the C program that it replaces, line for line.
#include <regex>

#include "region_fixture.h"
#include "shmnm.hpp"

namespace {

using namespace std::chrono_literals;
using fakes::LogLine;
using shmnm::FstKind;
using shmnm::HbResource;
using shmnm::NpResource;
using shmnm::Server;
using shmnm::State;

void program_in_c() {
    shmnm_create();
    shmnm_rwlock(5000);
    for (const char* const name : {"alpha", "beta"}) shmnm_addnode(name, 1);
    shmnm_addhbrsc("lan", "lan1", 1);
    shmnm_addhbrsc("lan", "lan1", 1);
    shmnm_addnprsc("ping", "ping1", 2);
    shmnm_setnodestat("beta", 1);
    shmnm_setclstat(3);
    shmnm_sethbrscsvstat("lan", "lan1", 1, 4);
    shmnm_rwunlock();

    shmnm_rolock(0xFFFFFFFF);
    uint32_t word = 0, size = 0, words[8];
    shmnm_enumnode(nullptr, &size);
    std::vector<char> names(size);
    shmnm_enumnode(names.data(), &size);
    shmnm_getnodestat("omega", &word);
    shmnm_getnodecombstat("alpha", &word);
    shmnm_chkalivesv("alpha", &word);
    shmnm_enumhbrscsvstat("lan", "lan1", nullptr, &size);
    shmnm_enumhbrscsvstat("lan", "lan1", words, &size);
    shmnm_enumsvhbrscstat("beta", nullptr, &size);
    shmnm_enumsvhbrscstat("beta", words, &size);
    shmnm_rounlock();

    const uint32_t failed[] = {0, 1};
    shmnm_setnpsimu(1, failed, 2);
    shmnm_getnpsimuflag(&word);
    shmnm_setnpsimu(0, nullptr, 0);
    shmnm_setfstrscpid("monitor", 1, 7, 8);
    shmnm_getfstrscpid("monitor", 1, &word, nullptr);
    shmnm_sethbdescript("lan", "lan1", "text", 4);
    shmnm_setnodestat(nullptr, 1);
    shmnm_rmnode("alpha");
    shmnm_delete();
    shmnm_getclstat(&word);
}

void program_in_cpp() {
    std::error_code error;
    shmnm::Attachment region = shmnm::create();
    const Server alpha("alpha"), beta("beta");
    const HbResource lan1("lan", "lan1");
    {
        const shmnm::WriteLock lock(5s);
        for (const Server& server : {alpha, beta}) server.add({1});
        lan1.add(1);
        lan1.add(1, error);
        NpResource("ping", "ping1").add(2);
        beta.set(shmnm::nodestat, State::alive);
        shmnm::set(shmnm::clstat, State{3});
        lan1.set(shmnm::hbrscsvstat, {1}, State{4});
    }
    {
        const shmnm::ReadLock lock(shmnm::forever);
        static_cast<void>(Server::names(lock));
        static_cast<void>(Server("omega").get(shmnm::nodestat, error));
        static_cast<void>(alpha.combined());
        static_cast<void>(alpha.any_other_alive());
        static_cast<void>(lan1.row(shmnm::hbrscsvstat, lock));
        static_cast<void>(beta.column(shmnm::hbrscsvstat, lock));
    }
    shmnm::simulate_partition(std::array<uint32_t, 2>{0, 1});
    static_cast<void>(shmnm::partition_simulated());
    shmnm::end_partition();
    shmnm::set_fst_pid("monitor", FstKind::one, {7, 8});
    static_cast<void>(shmnm::fst_pid("monitor", FstKind::one));
    lan1.set_description(std::string_view("text"));
    Server(std::string_view(std::string(300, 'x'))).set(shmnm::nodestat, State::alive, error);
    alpha.remove();
    region.close();
    static_cast<void>(shmnm::get(shmnm::clstat, error));
}

class CppLog : public test::RegionTest {
  protected:
    /// The lines of a program's log, and its calls into the companions.
    std::vector<std::string> written_by(void (*program)()) {
        companion_calls();
        log_of_last_call();
        program();
        std::vector<std::string> lines = companion_calls();
        for (const LogLine& line : log_of_last_call()) {
            std::ostringstream text;
            text << line;
            // The number is a part of an address.
            lines.push_back(std::regex_replace(text.str(), std::regex(R"(flag\((\w+)\):-?\d+)"), "flag($1):address"));
        }
        return lines;
    }
};

TEST_F(CppLog, IsThatOfTheCProgramThatItReplaces) {
    configure({.servers = 4, .hb = 2, .np = 2});
    const std::vector<std::string> of_c = written_by(program_in_c);
    EXPECT_GT(of_c.size(), 80u);
    EXPECT_EQ(written_by(program_in_cpp), of_c);
}

}  // namespace
