// Error codes and exceptions of shmnm.hpp.
#include "region_fixture.h"
#include "shmnm.hpp"

namespace {

using shmnm::errc;
using shmnm::HbResource;
using shmnm::Server;

class Errors : public test::RegionTest {
  protected:
    Errors() { map_region({.servers = 2, .hb = 1, .np = 1}); }

    /// The text of the exception that a call throws.
    template <typename Call>
    static std::string thrown(const Call& call) {
        try {
            call();
        } catch (const shmnm::Error& error) {
            return error.what();
        }
        return "nothing is thrown";
    }
};

TEST_F(Errors, HaveTheMeaningsOfTheManual) {
    EXPECT_STREQ(shmnm::category().name(), "shmnm");
#define RESULT(name, value, meaning) EXPECT_EQ(shmnm::category().message(value), meaning) << #name;
    SHMNM_RESULTS(RESULT)
#undef RESULT
    EXPECT_EQ(shmnm::category().message(18), "unknown result 18");
    EXPECT_EQ(shmnm::category().message(-1), "unknown result -1");
}

TEST_F(Errors, AreErrorCodesForEveryResult) {
    const std::error_code error = errc::notfound;
    EXPECT_EQ(&error.category(), &shmnm::category());
    EXPECT_EQ(error.value(), static_cast<int>(SHMNM_ERR_NOTFOUND));
    EXPECT_EQ(error.message(), "no server or resource matches");
    std::vector<int> codes;
    for (const errc code :
         {errc::notinit, errc::param, errc::notfound, errc::buffer, errc::xmlinit, errc::createmap, errc::mapview,
          errc::openmap, errc::countover, errc::rscover, errc::loadinfo, errc::loadconfig, errc::exist, errc::addsvstat,
          errc::rmsvstat, errc::index, errc::lock, errc::installpath}) {
        codes.push_back(static_cast<int>(code));
    }
    std::vector<int> results;
#define RESULT(name, value, meaning) \
    if (value != SHMNM_OK) results.push_back(value);
    SHMNM_RESULTS(RESULT)
#undef RESULT
    EXPECT_EQ(codes, results);
}

TEST_F(Errors, AreComparedWithTheGenericConditions) {
    EXPECT_EQ(make_error_code(errc::lock), std::errc::timed_out);
    EXPECT_EQ(make_error_code(errc::param), std::errc::invalid_argument);
    EXPECT_NE(make_error_code(errc::notfound), std::errc::invalid_argument);
}

TEST_F(Errors, AreSetByAFailureAndClearedByASuccess) {
    std::error_code error;
    const Server alpha("alpha");
    EXPECT_EQ(alpha.get(shmnm::nodestat, error), shmnm::State{});
    EXPECT_EQ(error, errc::notfound);
    alpha.add({1}, error);
    EXPECT_FALSE(error);
    alpha.add({1}, error);
    EXPECT_EQ(error, errc::exist);
    error = std::make_error_code(std::errc::io_error);
    EXPECT_EQ(alpha.get(shmnm::nodestat, error), shmnm::State::initial);
    EXPECT_FALSE(error);
    EXPECT_EQ(alpha.priority(error), shmnm::Priority{1});
}

TEST_F(Errors, AreThrownWithTheFunctionTheNamesAndTheMeaning) {
    EXPECT_EQ(thrown([] { static_cast<void>(Server("omega").get(shmnm::nodestat)); }),
              R"(shmnm_getnodestat("omega"): no server or resource matches)");
    EXPECT_EQ(thrown([] { HbResource("lan", "lan9").remove(); }),
              R"(shmnm_rmhbrsc("lan", "lan9"): no server or resource matches)");
    EXPECT_EQ(thrown([] {
                  shmnm::set_hb_info({0, 1});
              }),
              "shmnm_sethbinfo_ex: a required pointer is null or a value is out of range");
    EXPECT_EQ(thrown([] { static_cast<void>(HbResource(shmnm::any_type, "lan9").get(shmnm::hbrscstat)); }),
              R"(shmnm_gethbrscstat("lan9"): no server or resource matches)");
}

TEST_F(Errors, AreSystemErrorsWithTheirCode) {
    try {
        Server("omega").remove();
        FAIL() << "nothing is thrown";
    } catch (const std::system_error& error) {
        EXPECT_EQ(error.code(), errc::notfound);
    }
}

TEST_F(Errors, TellThatNothingIsMapped) {
    EXPECT_EQ(shmnm_delete(), SHMNM_OK);
    std::error_code error;
    EXPECT_EQ(shmnm::get(shmnm::clstat, error), shmnm::State{});
    EXPECT_EQ(error, errc::notinit);
    EXPECT_EQ(thrown([] { static_cast<void>(Server::names()); }),
              "shmnm_enumnode: the region is not mapped in this process");
}

}  // namespace
