// Every function of shmnm.h can be called through shmnm.hpp, and gets its arguments in their order. The functions here
// are recorders that are made from shmnm.h.
#include <gmock/gmock.h>

#include <fstream>
#include <regex>
#include <set>
#include <sstream>

#include "recorder.h"
#include "shmnm.hpp"

namespace {

using namespace std::chrono_literals;
using shmnm::FstKind;
using shmnm::HbResource;
using shmnm::NpResource;
using shmnm::Server;
using shmnm::State;
using testing::ElementsAre;

/// The functions that shmnm.h declares.
std::set<std::string> declared_functions() {
    std::ifstream file(SHMNM_HEADER);
    std::stringstream text;
    text << file.rdbuf();
    const std::string header = text.str();
    const std::regex declaration(R"(SHMNM_API uint32_t (shmnm_\w+)\()");
    std::set<std::string> found;
    for (std::sregex_iterator at(header.begin(), header.end(), declaration), end; at != end; ++at)
        found.insert((*at)[1]);
    return found;
}

// Each operation in two forms: without a code it throws, with one it sets the code.

template <typename... Codes>
void life(Codes&... codes) {
    shmnm::Attachment attached = shmnm::attach(codes...);
    attached.close(codes...);
    const shmnm::Attachment created = shmnm::create(codes...);
    shmnm::clear(codes...);
}
template <typename... Codes>
void lock(Codes&... codes) {
    const shmnm::ReadLock reading(5s, codes...);
    const shmnm::WriteLock writing(0s, codes...);
}
template <typename... Codes>
void values(Codes&... codes) {
    uint32_t words[4] = {1, 0, 0, 1};
    uint8_t bytes[8] = {};
    EXPECT_EQ(shmnm::maxima(codes...).hb, 0);
    shmnm::set_maxima({1, 2, 3}, codes...);
    EXPECT_EQ(shmnm::hb_info(codes...).a, 0);
    shmnm::set_hb_info({4, 5}, codes...);
    EXPECT_FALSE(shmnm::any_alive(codes...));
    EXPECT_FALSE(shmnm::partition_simulated(codes...));
    EXPECT_FALSE(shmnm::partition_simulated(words, codes...));
    shmnm::simulate_partition(words, codes...);
    shmnm::end_partition(codes...);
    EXPECT_EQ(shmnm::fst_description(codes...)[0], 0);
    shmnm::set_fst_description(std::string_view("text"), codes...);
    EXPECT_EQ(shmnm::fst_pid("monitor", FstKind::one, codes...).pid, 0u);
    shmnm::set_fst_pid("monitor", FstKind::two, {77, 0x100000000}, codes...);
    EXPECT_EQ(shmnm::dump_size(codes...), 0u);
    EXPECT_THAT(shmnm::dump(codes...), testing::IsEmpty());
    shmnm::dump(bytes, codes...);
}
template <typename Word, typename... Codes>
void word(Word word, Codes&... codes) {
    EXPECT_EQ(shmnm::get(word, codes...), State{});
    shmnm::set(word, State{6}, codes...);
}
template <typename Word, typename... Codes>
void word(const Server& alpha, Word word, Codes&... codes) {
    EXPECT_EQ(alpha.get(word, codes...), State{});
    alpha.set(word, State{6}, codes...);
}
template <typename Kind, typename Word, typename... Codes>
void word(const shmnm::Resource<Kind>& resource, Word word, Codes&... codes) {
    EXPECT_EQ(resource.get(word, codes...), State{});
    resource.set(word, State{6}, codes...);
}
template <typename Kind, typename Word, typename... Codes>
void pair(const shmnm::Resource<Kind>& resource, Word word, Codes&... codes) {
    uint32_t words[4] = {};
    EXPECT_EQ(resource.get(word, {7}, codes...), State{});
    resource.set(word, {7}, State{6}, codes...);
    EXPECT_THAT(resource.row(word, codes...), testing::IsEmpty());
    EXPECT_EQ(resource.copy_row(word, words, codes...), 4u);
    const Server alpha("alpha");
    EXPECT_THAT(alpha.column(word, codes...), testing::IsEmpty());
    EXPECT_EQ(alpha.copy_column(word, words, codes...), 0u);
}
template <typename... Codes>
void server(Codes&... codes) {
    const Server alpha("alpha");
    alpha.add({7}, codes...);
    alpha.remove(codes...);
    alpha.set_priority({8}, codes...);
    EXPECT_EQ(alpha.priority(codes...), shmnm::Priority{});
    EXPECT_TRUE(Server::with_priority({7}, codes...).name().valid());
    EXPECT_THAT(Server::names(codes...), testing::IsEmpty());
    EXPECT_FALSE(alpha.combined(codes...).has_value());
    EXPECT_FALSE(alpha.any_other_alive(codes...));
}
template <typename Resource, typename... Codes>
void resource(const Resource& lan1, Codes&... codes) {
    lan1.add(9, codes...);
    lan1.remove(codes...);
    lan1.set_priority(10, codes...);
    EXPECT_EQ(lan1.priority(codes...), 0u);
    EXPECT_TRUE(Resource::named("lan1", codes...).type().valid());
    EXPECT_THAT(Resource::types(codes...), testing::IsEmpty());
    EXPECT_THAT(Resource::names(codes...), testing::IsEmpty());
    EXPECT_THAT(Resource::names_of_type("lan", codes...), testing::IsEmpty());
    Resource::set_all_of_type("lan", State{6}, codes...);
    Resource::open_column(11, codes...);
    Resource::close_column(12, codes...);
    EXPECT_EQ(lan1.description(codes...)[0], 0);
    lan1.set_description(std::string_view("text"), codes...);
}

template <typename Do>
void each_cluster_word(const Do& with) {
    with("waitstat", shmnm::waitstat);
    with("bwflag", shmnm::bwflag);
    with("bwflagdisk", shmnm::bwflagdisk);
    with("clstat", shmnm::clstat);
    with("fstrscstat", shmnm::fstrscstat);
}
template <typename Do>
void each_server_word(const Do& with) {
    with("nodestat", shmnm::nodestat);
    with("nodestat_nw", shmnm::nodestat_nw);
    with("downnotifystat", shmnm::downnotifystat);
    with("isolateflag", shmnm::isolateflag);
    with("pingstat", shmnm::pingstat);
    with("holdstat", shmnm::holdstat);
}
template <typename Do>
void each_kind(const Do& with) {
    with("hb", HbResource("lan", "lan1"), shmnm::hbrscstat);
    with("np", NpResource("lan", "lan1"), shmnm::nprscstat);
}
template <typename Do>
void each_pair(const Do& with) {
    with("hbrscsvstat", "svhbrscstat", HbResource("lan", "lan1"), shmnm::hbrscsvstat);
    with("nprscsvstat", "svnprscstat", NpResource("lan", "lan1"), shmnm::nprscsvstat);
    with("rscsvstat_nw", "svrscstat_nw", HbResource("lan", "lan1"), shmnm::rscsvstat_nw);
}

/// Calls an operation in both forms, expects the same calls of both, and returns them.
template <typename Operation>
std::vector<std::string> calls_of(const Operation& operation) {
    recorder::take();
    operation();
    std::vector<std::string> calls = recorder::take();
    std::error_code error = shmnm::errc::notfound;
    operation(error);
    EXPECT_EQ(recorder::take(), calls);
    EXPECT_FALSE(error) << "success clears the code";
    return calls;
}

TEST(EveryFunction, OfTheRegionsLifeIsReached) {
    EXPECT_THAT(calls_of([](auto&... code) { life(code...); }),
                ElementsAre("shmnm_attach()", "shmnm_detach()", "shmnm_create()", "shmnm_clear()", "shmnm_delete()"));
}

TEST(EveryFunction, OfTheLockIsReached) {
    EXPECT_THAT(calls_of([](auto&... code) { lock(code...); }),
                ElementsAre("shmnm_rolock(5000)", "shmnm_rwlock(0)", "shmnm_rwunlock()", "shmnm_rounlock()"));
}

TEST(EveryFunction, OfTheClustersValuesIsReached) {
    EXPECT_THAT(calls_of([](auto&... code) { values(code...); }),
                ElementsAre("shmnm_getmaxvalue_ex(*, *, *)", "shmnm_setmaxvalue_ex(1, 2, 3)",
                            "shmnm_gethbinfo_ex(*, *)", "shmnm_sethbinfo_ex(4, 5)", "shmnm_chkalivesv(null, *)",
                            "shmnm_getnpsimuflag(*)", "shmnm_getnpsimu(*, *, 4)", "shmnm_setnpsimu(1, *, 4)",
                            "shmnm_setnpsimu(0, null, 0)", "shmnm_getfstdescript(*, *)", "shmnm_setfstdescript(*, 4)",
                            "shmnm_getfstrscpid(monitor, 1, *, *)", "shmnm_setfstrscpid(monitor, 2, 77, 4294967296)",
                            "shmnm_dump(null, *)", "shmnm_dump(null, *)", "shmnm_dump(null, *)", "shmnm_dump(*, *)"));
    each_cluster_word([](const std::string& name, auto of_cluster) {
        EXPECT_THAT(calls_of([&](auto&... code) { word(of_cluster, code...); }),
                    ElementsAre("shmnm_get" + name + "(*)", "shmnm_set" + name + "(6)"));
    });
}

TEST(EveryFunction, OfServersIsReached) {
    EXPECT_THAT(calls_of([](auto&... code) { server(code...); }),
                ElementsAre("shmnm_addnode(alpha, 7)", "shmnm_rmnode(alpha)", "shmnm_modifynode(alpha, 8)",
                            "shmnm_getnodepri(alpha, *)", "shmnm_getnodename(*, 7)", "shmnm_enumnode(null, *)",
                            "shmnm_enumnode(*, *)", "shmnm_getnodecombstat(alpha, *)", "shmnm_chkalivesv(alpha, *)"));
    each_server_word([](const std::string& name, auto of_server) {
        EXPECT_THAT(calls_of([&](auto&... code) { word(Server("alpha"), of_server, code...); }),
                    ElementsAre("shmnm_get" + name + "(alpha, *)", "shmnm_set" + name + "(alpha, 6)"));
    });
}

TEST(EveryFunction, OfResourcesIsReached) {
    each_kind([](const std::string& kind, const auto& lan1, auto of_resource) {
        EXPECT_THAT(calls_of([&](auto&... code) { resource(lan1, code...); }),
                    ElementsAre("shmnm_add" + kind + "rsc(lan, lan1, 9)", "shmnm_rm" + kind + "rsc(lan, lan1)",
                                "shmnm_modify" + kind + "rsc(lan, lan1, 10)",
                                "shmnm_get" + kind + "rscpri(lan, lan1, *)", "shmnm_get" + kind + "rscinfo(*, lan1)",
                                "shmnm_enum" + kind + "type(null, *)", "shmnm_enum" + kind + "type(*, *)",
                                "shmnm_enum" + kind + "rsc(null, null, *)", "shmnm_enum" + kind + "rsc(null, *, *)",
                                "shmnm_enum" + kind + "rsc(lan, null, *)", "shmnm_enum" + kind + "rsc(lan, *, *)",
                                "shmnm_settype" + kind + "stat(lan, 6)", "shmnm_add" + kind + "rscsvstat(11)",
                                "shmnm_rm" + kind + "rscsvstat(12)", "shmnm_get" + kind + "descript(lan, lan1, *, *)",
                                "shmnm_set" + kind + "descript(lan, lan1, *, 4)"));
        EXPECT_THAT(
            calls_of([&](auto&... code) { word(lan1, of_resource, code...); }),
            ElementsAre("shmnm_get" + kind + "rscstat(lan, lan1, *)", "shmnm_set" + kind + "rscstat(lan, lan1, 6)"));
    });
}

TEST(EveryFunction, OfStatesOnServersIsReached) {
    each_pair([](const std::string& name, const std::string& column, const auto& lan1, auto of_pair) {
        EXPECT_THAT(calls_of([&](auto&... code) { pair(lan1, of_pair, code...); }),
                    ElementsAre("shmnm_get" + name + "(lan, lan1, 7, *)", "shmnm_set" + name + "(lan, lan1, 7, 6)",
                                "shmnm_enum" + name + "(lan, lan1, null, *)", "shmnm_enum" + name + "(lan, lan1, *, *)",
                                "shmnm_enum" + name + "(lan, lan1, *, *)", "shmnm_enum" + column + "(alpha, null, *)",
                                "shmnm_enum" + column + "(alpha, *, *)", "shmnm_enum" + column + "(alpha, null, *)",
                                "shmnm_enum" + column + "(alpha, null, *)", "shmnm_enum" + column + "(alpha, *, *)",
                                "shmnm_enum" + column + "(alpha, null, *)"));
    });
}

TEST(EveryFunction, OfTheCHeaderIsReached) {
    const std::vector<std::string> calls = calls_of([](auto&... code) {
        life(code...);
        lock(code...);
        values(code...);
        server(code...);
        each_cluster_word([&](const std::string&, auto of_cluster) { word(of_cluster, code...); });
        each_server_word([&](const std::string&, auto of_server) { word(Server("alpha"), of_server, code...); });
        each_kind([&](const std::string&, const auto& lan1, auto of_resource) {
            resource(lan1, code...);
            word(lan1, of_resource, code...);
        });
        each_pair([&](const std::string&, const std::string&, const auto& lan1, auto of_pair) {
            pair(lan1, of_pair, code...);
        });
    });
    std::set<std::string> called;
    for (const std::string& call : calls) called.insert(call.substr(0, call.find('(')));
    EXPECT_EQ(declared_functions().size(), 91u);
    EXPECT_EQ(called, declared_functions());
}

}  // namespace
