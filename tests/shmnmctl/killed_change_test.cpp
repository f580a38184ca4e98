// What a killed caller leaves: every call that changes the tables, or a value of several words, is stepped instruction
// by instruction and its process killed after each one that changed the region. Then another process takes the lock and
// looks through the library's calls and through verify; repair completes the change, byte for byte.
//
// SHMNM_KILLS=every kills after every instruction, also those that wrote nothing to the region; it takes hours.
// SHMNM_KILLS=100 does so after every hundredth.
#include <fmt/format.h>
#include <gmock/gmock.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "killed_calls.h"
#include "picture/findings.h"
#include "picture/interrupted.h"
#include "picture/live.h"
#include "picture/repair.h"
#include "shmnm.h"
#include "support/dynamic_library.h"
#include "support/program.h"
#include "support/stepper_linux.h"
#include "support/temporary_folder.h"

namespace picture {
namespace {

using killed_calls::Promise;
using killed_calls::Scenario;
using killed_calls::scenarios;
using test::Stepper;
using test::Watched;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

CHILD(removes_without_the_lock) {
    if (shmnm_attach() != SHMNM_OK) std::abort();
    test::begin_steps();
    shmnm_rmnode("beta-the-second");
    test::end_steps();
    test::hang();
}

CHILD(makes_the_call) {
    const Scenario& scenario = scenarios[std::strtoul(test::argument().c_str(), nullptr, 10)];
    if (shmnm_attach() != SHMNM_OK || shmnm_rwlock(10'000) != SHMNM_OK) std::abort();
    test::tell_address(reinterpret_cast<const void*>(shmnm_addnode));
    test::begin_steps();
    scenario.call();
    test::end_steps();
    shmnm_rwunlock();
    test::hang();
}

/// All that the library's getters tell.
class SeenPicture {
  public:
    std::string text() {
        header();
        for (const std::string& name : names([](char*buf, uint32_t*size) { return shmnm_enumnode(buf, size); })) {
            server(name.c_str());
        }
        resources("hb", shmnm_enumhbrsc, shmnm_enumhbtype,
                  {shmnm_gethbrscpri, shmnm_gethbrscstat, shmnm_enumhbrscsvstat, shmnm_enumrscsvstat_nw,
                   shmnm_gethbdescript});
        resources("np", shmnm_enumnprsc, shmnm_enumnptype,
                  {shmnm_getnprscpri, shmnm_getnprscstat, shmnm_enumnprscsvstat, nullptr, shmnm_getnpdescript});
        fst();
        return text_;
    }

  private:
    struct Getters {
        uint32_t (*pri)(const char*, const char*, uint32_t*);
        uint32_t (*stat)(const char*, const char*, uint32_t*);
        uint32_t (*states)(const char*, const char*, uint32_t*, uint32_t*);
        uint32_t (*network)(const char*, const char*, uint32_t*, uint32_t*);
        uint32_t (*description)(const char*, const char*, void*, const int32_t*);
    };

    template <typename... Args>
    void add(const char* format, const Args&... args) {
        text_ += fmt::format(fmt::runtime(format), args...);
    }
    static std::vector<std::string> names(const std::function<uint32_t(char*, uint32_t*)>& list) {
        char buf[8192];
        uint32_t size = sizeof buf;
        EXPECT_EQ(list(buf, &size), SHMNM_OK);
        std::vector<std::string> all;
        // An empty list is two NULs.
        for (const char* at = buf; at < buf + size - 1 && size > 2; at += all.back().size() + 1) all.emplace_back(at);
        return all;
    }
    void header() {
        uint32_t a = 0, b = 0, c = 0;
        shmnm_getmaxvalue_ex(&a, &b, &c);
        add("maxima {} {} {}\n", a, b, c);
        shmnm_gethbinfo_ex(&a, &b);
        add("info {} {}\n", a, b);
        uint32_t failed[15] = {};
        shmnm_getnpsimu(&a, failed, 15);
        add("simulation {}: {} {} {}\n", a, failed[11], failed[12], failed[13]);
    }
    void server(const char* name) {
        int32_t pri = -1;
        shmnm_getnodepri(name, &pri);
        add("server {} {}:", name, pri);
        for (const auto get : {shmnm_getnodestat, shmnm_getnodestat_nw, shmnm_getdownnotifystat, shmnm_getisolateflag,
                               shmnm_getpingstat, shmnm_getholdstat}) {
            uint32_t word = 0xDEAD;
            get(name, &word);
            add(" {}", word);
        }
        add("\n");
    }
    void words(const char* what, uint32_t (*list)(const char*, const char*, uint32_t*, uint32_t*), const char* type,
               const char* name) {
        uint32_t buf[64], size = sizeof buf;
        add(" {} {}:", what, list(type, name, buf, &size));
        for (uint32_t i = 0; i < size / sizeof *buf; ++i) add(" {}", buf[i]);
    }
    void resources(const char* table, uint32_t (*list)(const char*, char*, uint32_t*),
                   uint32_t (*types)(char*, uint32_t*), const Getters& getters) {
        const std::vector<std::string> all_types = names(types);
        const std::vector<std::string> all = names([=](char* buf, uint32_t* size) { return list(nullptr, buf, size); });
        for (size_t i = 0; i < std::max(all.size(), all_types.size()); ++i) {
            const char* const type = i < all_types.size() ? all_types[i].c_str() : "?";
            const char* const name = i < all.size() ? all[i].c_str() : "?";
            uint32_t pri = 0xDEAD, stat = 0xDEAD;
            getters.pri(type, name, &pri);
            getters.stat(type, name, &stat);
            add("{} {}/{} {} {}", table, type, name, pri, stat);
            words("states", getters.states, type, name);
            if (getters.network) words("network", getters.network, type, name);
            char description[256] = {};
            const int32_t size = sizeof description;
            getters.description(type, name, description, &size);
            add(" \"{}\"\n", std::string(description, std::strlen(description)));
        }
    }
    void fst() {
        uint32_t stat = 0;
        char description[256] = {};
        const int32_t size = sizeof description;
        shmnm_getfstrscstat(&stat);
        shmnm_getfstdescript(description, &size);
        add("fst {} \"{}\"\n", stat, description);
        for (const char* name : {"agent-of-the-first-floor", "agent-of-the-third-floor"}) {
            for (int32_t kind = 0; kind < 3; ++kind) {
                uint32_t pid = 0xDEAD;
                uint64_t data = 0xDEAD;
                shmnm_getfstrscpid(name, kind, &pid, &data);
                add("{} {}: {} {}\n", name, kind, pid, data);
            }
        }
    }

    std::string text_;
};

/// Kills after each change, or after each so many instructions.
uint64_t instructions_between_kills() {
    const char* const wanted = std::getenv("SHMNM_KILLS");
    if (!wanted) return 0;
    return std::strcmp(wanted, "every") == 0 ? 1 : std::strtoull(wanted, nullptr, 10);
}

/// What another process sees under the lock, which this test takes as a tool does.
std::string picture() {
    LiveRegion region({});
    const Locked locked(region);
    platform::count_look(region.mutex());
    return SeenPicture().text();
}
/// What verify says of changes.
std::string named() {
    std::string text;
    for (const Finding& finding : findings(LiveRegion({}).copy(Bytes::all))) {
        if (finding.key == "region/changes") text += finding.found;
    }
    return text;
}

class FilledRegion {
  public:
    FilledRegion() : path_("KZM_INSTALL_PATH", folder_.string().c_str()) {
        folder_.write("etc/cluster.xml", killed_calls::configuration);
        EXPECT_EQ(shmnm_create(), SHMNM_OK);
        map_.emplace();
        killed_calls::fill();
    }
    ~FilledRegion() {
        map_.reset();
        EXPECT_EQ(shmnm_delete(), SHMNM_OK);
    }

    std::vector<uint8_t> bytes() const { return {map_->base(), map_->base() + map_->size()}; }
    std::span<const volatile uint8_t> watched() const { return {map_->base(), map_->size()}; }
    void restore(const std::vector<uint8_t>& bytes) const { std::memcpy(map_->base(), bytes.data(), bytes.size()); }

  private:
    test::TemporaryFolder folder_;
    test::ScopedEnvironment path_;
    std::optional<WritableRegion> map_;
};

class KilledChange : public testing::TestWithParam<size_t> {
  protected:
    const Scenario& scenario() const { return scenarios[GetParam()]; }
    std::unique_ptr<Stepper> writer() const {
        return std::make_unique<Stepper>(makes_the_call, std::to_string(GetParam()));
    }
    /// Makes the whole call once. Up to where it first changes the region, the writers to come may run.
    void rehearse() {
        const std::unique_ptr<Stepper> whole = writer();
        Watched watch(region.watched());
        while (!watch.changed()) {
            first_write_ = whole->address() - whole->addresses().at(0);
            ASSERT_EQ(whole->step(), Stepper::State::held);
        }
        whole->run();
        ASSERT_EQ(whole->wait(), Stepper::State::at_end);
    }
    /// Lets a new writer go to its next place to be killed. @return nothing: it has come to its end
    std::unique_ptr<Stepper> writer_at(uint64_t number) const {
        std::unique_ptr<Stepper> stepper = writer();
        if (const uint64_t stride = instructions_between_kills()) {
            return stepper->step(number * stride) == Stepper::State::held ? std::move(stepper) : nullptr;
        }
        if (!stepper->run_to(stepper->addresses().at(0) + first_write_)) return nullptr;
        Watched watch(region.watched());
        for (uint64_t i = 0; i < number; ++i) {
            if (!stepper->step_until_changed(watch)) return nullptr;
        }
        return stepper;
    }

    FilledRegion region;

  private:
    uint64_t first_write_ = 0;  ///< as a distance in the library's code
};

TEST_P(KilledChange, LeavesTheOldRegionTheNewOneOrARepairableOne) {
    const std::vector<uint8_t> old_bytes = region.bytes();
    const std::string old_picture = picture();
    ASSERT_NO_FATAL_FAILURE(rehearse());
    const std::vector<uint8_t> new_bytes = region.bytes();
    const std::string new_picture = picture();
    ASSERT_NE(old_bytes, new_bytes);
    region.restore(old_bytes);

    uint64_t instructions = 0;
    unsigned states = 0, old_ones = 0, new_ones = 0, others = 0;
    for (uint64_t number = 1; std::unique_ptr<Stepper> killed = writer_at(number); ++number) {
        SCOPED_TRACE(fmt::format("killed after change {}, instruction {}", number, killed->steps()));
        instructions = killed->steps();
        killed->kill();
        const std::string seen = picture(), told = named();
        ++states;
        old_ones += seen == old_picture ? 1U : 0U;
        new_ones += seen == new_picture && seen != old_picture ? 1U : 0U;
        if (seen != old_picture && seen != new_picture) {
            ++others;
            EXPECT_NE(scenario().promise, Promise::all_or_nothing) << seen << "\nbefore:\n" << old_picture;
            EXPECT_NE(told, "") << "a silent state:\n" << seen;
        }
        if (!told.empty()) {
            EXPECT_EQ(told, fmt::format("process {} was killed while it {}", killed->child().process_id(),
                                        scenario().change));
            if (scenario().promise == Promise::named) {
                EXPECT_EQ(repair({}, false, true).discarded.size(), 1U);
                region.restore(new_bytes);
            } else {
                EXPECT_EQ(repair({}, false, false).completed.size(), 1U);
            }
            EXPECT_EQ(region.bytes(), new_bytes) << "repair has made another region than the call";
            EXPECT_EQ(picture(), new_picture);
        } else {
            EXPECT_TRUE(seen == old_picture || seen == new_picture);
            EXPECT_EQ(repair({}, false, false).completed.size(), 0U);
        }
        EXPECT_EQ(named(), "");
        ASSERT_FALSE(HasFailure());
        region.restore(old_bytes);
    }
    EXPECT_GT(states, 0U);
    fmt::print("{}: {} states: {} old, {} new, {} named, 0 silent; {} instructions\n", scenario().name, states,
               old_ones, new_ones, others, instructions);
}

INSTANTIATE_TEST_SUITE_P(, KilledChange, testing::Range(size_t{0}, std::size(scenarios)),
                         [](const auto& instance) { return scenarios[instance.param].name; });

/// A region in which a process was killed while it removed its first server.
class AfterAKill : public testing::Test {
  protected:
    AfterAKill() { kill_in(RemovesTheFirstServer, 20); }

    static size_t number_of(const char* name) {
        const auto* const found =
            std::find_if(std::begin(scenarios), std::end(scenarios),
                         [=](const Scenario& scenario) { return std::strcmp(scenario.name, name) == 0; });
        return static_cast<size_t>(found - scenarios);
    }
    /// Kills the caller after that many of the instructions that change the region.
    void kill_in(const char* scenario, unsigned changes) {
        Stepper writer(makes_the_call, std::to_string(number_of(scenario)));
        Watched watch(region_->watched());
        for (unsigned i = 0; i < changes; ++i) ASSERT_TRUE(writer.step_until_changed(watch));
        writer.kill();
        process = writer.child().process_id();
    }
    /// Makes a call as an owner of the lock.
    static uint32_t locked(const std::function<uint32_t()>& call) {
        EXPECT_EQ(shmnm_rwlock(10'000), SHMNM_OK);
        const uint32_t result = call();
        EXPECT_EQ(shmnm_rwunlock(), SHMNM_OK);
        return result;
    }
    static test::ProgramResult tool(const std::string& arguments) {
        return test::run_program(test::own_folder() + "shmnmctl", arguments + " 2>&1");
    }
    std::string removed() const {
        return fmt::format("process {} was killed while it removed server alpha-the-first", process);
    }

    static constexpr const char* RemovesTheFirstServer = "RemovesTheFirstServer";
    std::optional<FilledRegion> region_{std::in_place};
    uint32_t process = 0;
};

TEST_F(AfterAKill, EveryCommandReportsTheChangeAndRepairCompletesIt) {
    const test::ProgramResult verified = tool("verify");
    EXPECT_EQ(verified.status, 1);
    EXPECT_THAT(verified.output,
                HasSubstr("0 region/changes: expected whole changes (\"shmnmctl repair\" completes this "
                          "one); found " +
                          removed() + "\n"));
    EXPECT_THAT(tool("status").output, StartsWith("! " + removed() + "; see \"shmnmctl verify\"\n"));
    EXPECT_THAT(tool("lock --who").output, HasSubstr("\n" + removed() + "\n"));
    const std::string json = fmt::format(
        R"([{{"process":{},"call":"shmnm_rmnode","change":"removed server alpha-the-first","superseded":false}}])",
        process);
    EXPECT_THAT(tool("status --format json").output, HasSubstr("\"interrupted\":" + json));
    EXPECT_THAT(tool("lock --who --format json").output, HasSubstr("\"interrupted\":" + json));

    const test::ProgramResult repaired = tool("repair --format json");
    EXPECT_EQ(repaired.status, 0);
    EXPECT_EQ(repaired.output, R"({"version":1,"kind":"repair","completed":)" + json + R"(,"discarded":[]})" + "\n");
    EXPECT_EQ(tool("verify").status, 0);
    EXPECT_THAT(tool("status").output, Not(HasSubstr("killed")));
    EXPECT_THAT(tool("list servers").output, Not(HasSubstr("alpha")));
    const test::ProgramResult again = tool("repair");
    EXPECT_EQ(again.output, "nothing to repair\n");
    EXPECT_EQ(again.status, 0);
}

TEST_F(AfterAKill, RepairRefusesIfTheTablesWereChangedSince) {
    const std::vector<uint8_t> before = region_->bytes();
    EXPECT_EQ(locked([] { return shmnm_addnprsc("ping", "another", 1); }), SHMNM_OK);
    const std::string superseded =
        removed() + fmt::format(", and process {} has changed the region since", test::process_id());
    EXPECT_EQ(named(), superseded);
    const std::vector<uint8_t> changed = region_->bytes();
    EXPECT_NE(changed, before);
    for (const char* const arguments : {"repair", "repair --force"}) {
        const test::ProgramResult refused = tool(arguments);
        EXPECT_EQ(refused.status, 5);
        EXPECT_THAT(refused.output, StartsWith("shmnmctl: nothing was changed: " + superseded));
    }
    EXPECT_EQ(region_->bytes(), changed);
    EXPECT_EQ(tool("repair --discard").output, "dropped the note: " + superseded + "\n");
    EXPECT_EQ(named(), "");
    EXPECT_EQ(region_->bytes(), changed);
}

TEST_F(AfterAKill, RepairRefusesIfOthersHadTheLockSinceUnlessForced) {
    EXPECT_EQ(locked([] { return shmnm_setclstat(3); }), SHMNM_OK);
    EXPECT_EQ(named(), removed()) << "a word that is set changes no table";
    const std::vector<uint8_t> before = region_->bytes();
    for (int i = 0; i < 2; ++i) {
        const test::ProgramResult refused = tool("repair");
        EXPECT_EQ(refused.status, 5);
        EXPECT_THAT(refused.output, HasSubstr("the lock was taken 1 time since process"));
    }
    EXPECT_EQ(region_->bytes(), before);
    EXPECT_EQ(tool("repair --force").output, "completed: " + removed() + "\n");
    EXPECT_EQ(named(), "");
}

TEST_F(AfterAKill, NoteOfAnEndedRegionIsIgnored) {
    region_.reset();
    region_.emplace();
    EXPECT_EQ(named(), "");
    const std::vector<uint8_t> before = region_->bytes();
    const test::ProgramResult refused = tool("repair");
    EXPECT_EQ(refused.status, 5);
    EXPECT_THAT(refused.output, HasSubstr("the note is of a region that has ended"));
    EXPECT_EQ(region_->bytes(), before);
    EXPECT_EQ(locked([] { return shmnm_rmnode("gamma-the-third"); }), SHMNM_OK);
    EXPECT_EQ(named(), "");
    EXPECT_EQ(tool("repair").output, "nothing to repair\n");
}

TEST_F(AfterAKill, ClearingTheRegionDropsTheNote) {
    EXPECT_EQ(locked(shmnm_clear), SHMNM_OK);
    EXPECT_EQ(named(), "");
}

TEST_F(AfterAKill, SettingAValueKeepsTheNote) {
    EXPECT_EQ(locked([] { return shmnm_setfstdescript("new", 3); }), SHMNM_OK);
    EXPECT_EQ(named(), removed());
}

TEST_F(AfterAKill, FirstOfSeveralChangesStaysReported) {
    kill_in("RemovesAServerInTheMiddle", 3);
    EXPECT_THAT(named(), HasSubstr("alpha-the-first"));
    EXPECT_THAT(named(), HasSubstr("beta-the-second"));
    EXPECT_EQ(tool("repair").status, 0) << "the second one can be completed";
    EXPECT_THAT(named(), HasSubstr("alpha-the-first"));
    EXPECT_THAT(named(), Not(HasSubstr("beta-the-second")));
}

TEST_F(AfterAKill, CallerWithoutTheLockLeavesNoNote) {
    EXPECT_EQ(tool("repair").status, 0);
    Stepper writer(removes_without_the_lock);
    Watched watch(region_->watched());
    ASSERT_TRUE(writer.step_until_changed(watch));
    writer.kill();
    EXPECT_EQ(named(), "");
}

TEST_F(AfterAKill, StatesOfATypeAreReportedUntilTheyAreSetAgain) {
    EXPECT_EQ(tool("repair").status, 0);
    kill_in("SetsTheStatesOfAType", 2);
    EXPECT_EQ(named(),
              fmt::format("process {} was killed while it set the states of all hb resources of type lan", process));
    const test::ProgramResult refused = tool("repair");
    EXPECT_EQ(refused.status, 5);
    EXPECT_THAT(refused.output, HasSubstr("cannot be completed from its note"));
    EXPECT_EQ(locked([] { return shmnm_settypehbstat("lan", 9); }), SHMNM_OK);
    EXPECT_EQ(named(), "");
}

TEST_F(AfterAKill, SimulationIsReportedUntilItIsSetAgain) {
    EXPECT_EQ(tool("repair").status, 0);
    kill_in("SimulatesFailures", 1);
    EXPECT_EQ(named(),
              fmt::format("process {} was killed while it set the simulation of a network partition", process));
    EXPECT_EQ(locked([] { return shmnm_setnpsimu(0, nullptr, 0); }), SHMNM_OK);
    EXPECT_EQ(named(), "");
}

}  // namespace
}  // namespace picture
