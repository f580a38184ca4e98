// Names that are passed through, copied or refused by shmnm.hpp.
#include "region_fixture.h"
#include "shmnm.hpp"

namespace {

using fakes::Enter;
using fakes::Error;
using fakes::Exit;
using shmnm::errc;
using shmnm::HbResource;
using shmnm::Name;
using shmnm::Server;
using shmnm::State;
using testing::ElementsAre;
using testing::IsEmpty;

const std::string longest(255, 'x'), too_long(256, 'x');

static_assert(!std::is_constructible_v<Name, std::nullptr_t>, "there is no name without a text");
static_assert(!std::is_constructible_v<HbResource, std::nullptr_t, const char*>, "any type is asked for by its word");
static_assert(!std::is_convertible_v<const char*, Server>, "a text becomes a server only if it is said");

class Names : public test::RegionTest {
  protected:
    Names() {
        map_region({.servers = 4, .hb = 2, .np = 2});
        Server("alpha").add({1});
        HbResource("lan", "lan1").add(1);
        log_of_last_call();
    }
};

TEST_F(Names, PassTextsAndNamedStringsThrough) {
    const char* const text = "alpha";
    EXPECT_EQ(Name(text).c_str(), text);
    const std::string string = "alpha";
    EXPECT_EQ(Name(string).c_str(), string.c_str());
    EXPECT_EQ(Server(string).name().c_str(), string.c_str());
    EXPECT_EQ(Name(too_long).c_str(), too_long.c_str()) << "what is not copied has no limit here";
}

TEST_F(Names, CopyViewsAndTemporaries) {
    const std::string_view view = std::string_view("alphabet").substr(0, 5);
    const Name of_view(view), of_temporary(std::string("alpha"));
    EXPECT_NE(static_cast<const void*>(of_view.c_str()), view.data());
    EXPECT_STREQ(of_view.c_str(), "alpha");
    EXPECT_STREQ(of_temporary.c_str(), "alpha");
    EXPECT_STREQ(Name(std::string_view(longest)).c_str(), longest.c_str());
    EXPECT_STREQ(Name(std::string_view()).c_str(), "");
    EXPECT_EQ(Server(view).get(shmnm::nodestat), State::initial);
}

TEST_F(Names, AreTheirOwnAfterACopy) {
    Name copy("other");
    Server server("other");
    {
        const Name of_view(std::string_view("alpha"));
        copy = of_view;
        server = Server(of_view);
        EXPECT_NE(copy.c_str(), of_view.c_str());
        EXPECT_NE(Name(of_view).c_str(), of_view.c_str());
        EXPECT_NE(server.name().c_str(), of_view.c_str());
    }
    EXPECT_STREQ(copy.c_str(), "alpha");
    EXPECT_STREQ(server.name().c_str(), "alpha");
    const std::vector<Server> servers(3, server);
    EXPECT_EQ(servers.back().get(shmnm::nodestat), State::initial);
}

TEST_F(Names, AreInvalidIfTheyCannotBeCopied) {
    EXPECT_FALSE(Name(std::string_view(too_long)).valid());
    EXPECT_FALSE(Name(std::string(too_long)).valid());
    EXPECT_FALSE(Name(std::string_view("al\0pha", 6)).valid());
    EXPECT_FALSE(Name(static_cast<const char*>(nullptr)).valid());
    EXPECT_FALSE(Name(Name(std::string_view(too_long))).valid());
}

TEST_F(Names, ThatAreInvalidAreParameterErrorsOfTheCFunction) {
    std::error_code error;
    EXPECT_EQ(Server(std::string_view(too_long)).get(shmnm::nodestat, error), State{});
    EXPECT_EQ(error, errc::param);
    EXPECT_THAT(log_of_last_call(), ElementsAre(Enter("_getnodestat"), Error("_getnodestat", "invalid param"),
                                                Exit("_getnodestat", SHMNM_ERR_PARAM)));
    EXPECT_THROW(HbResource("lan", std::string_view(too_long)).add(1), shmnm::Error);
}

TEST_F(Names, ThatAreInvalidAreNeverTakenForAnyTypeOrServer) {
    std::error_code error;
    const HbResource of_no_type(std::string_view(too_long), "lan1");
    of_no_type.set(shmnm::hbrscstat, State{9}, error);
    EXPECT_EQ(error, errc::param);
    EXPECT_EQ(HbResource("lan", "lan1").get(shmnm::hbrscstat), State{0});
    error.clear();
    EXPECT_THAT(HbResource::names_of_type(std::string_view(too_long), error), IsEmpty());
    EXPECT_EQ(error, errc::param);
    error.clear();
    EXPECT_FALSE(Server(std::string_view(too_long)).any_other_alive(error));
    EXPECT_EQ(error, errc::param);
    error.clear();
    shmnm::set_fst_pid(std::string_view(too_long), shmnm::FstKind::zero, {1, 2}, error);
    EXPECT_EQ(error, errc::param);
    EXPECT_EQ(word_at(40), 0u) << "no record is made";
    error.clear();
    EXPECT_EQ(shmnm::fst_pid(std::string_view(too_long), shmnm::FstKind::zero, error).pid, 0u);
    EXPECT_EQ(error, errc::param);
}

TEST_F(Names, OfAnyTypeIdentifyNoResourceThatIsAddedOrRemoved) {
    std::error_code error;
    HbResource(shmnm::any_type, "lan1").remove(error);
    EXPECT_EQ(error, errc::param);
    EXPECT_THAT(HbResource::names(), ElementsAre("lan1"));
}

}  // namespace
