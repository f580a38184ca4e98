#include "messages.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace bridge {
namespace {

Request request_of(const decltype(Request::body)& body) {
    return {.id = 7, .body = body};
}

Outcome outcome_of(const decltype(Request::body)& body, etcd::Failure failure) {
    return from_etcd(request_of(body), {.failure = failure}).outcome;
}

TEST(BridgeMessages, WriteOnlyIfEveryCompareHoldsAndReadOtherwise) {
    const Transaction transaction{.compares = {{"claim", 5}, {"state", 0}},
                                  .puts = {{"state", "x", 9}},
                                  .deletions = {"beat"},
                                  .reads = {"claim"}};
    const auto made = std::get<etcd::Transaction>(to_etcd(request_of(transaction)));
    ASSERT_EQ(made.compares.size(), 2U);
    EXPECT_EQ(made.compares[0].key, "claim");
    EXPECT_EQ(made.compares[0].property, etcd::Compare::Property::mod_revision);
    EXPECT_EQ(made.compares[0].revision, 5);
    EXPECT_EQ(made.compares[1].revision, 0);
    ASSERT_EQ(made.then.size(), 2U);
    EXPECT_EQ(std::get<etcd::Put>(made.then[0]).value, "x");
    EXPECT_EQ(std::get<etcd::Put>(made.then[0]).lease, 9);
    EXPECT_EQ(std::get<etcd::Delete>(made.then[1]).keys.first, "beat");
    EXPECT_EQ(std::get<etcd::Delete>(made.then[1]).keys.end, "");
    ASSERT_EQ(made.otherwise.size(), 1U);
    EXPECT_EQ(std::get<etcd::Read>(made.otherwise[0]).keys.first, "claim");
}

TEST(BridgeMessages, AskForALeaseThatLivesNoShorterThanWanted) {
    EXPECT_EQ(std::get<etcd::Grant>(to_etcd(request_of(Grant{.life = 3'000}))).seconds, 3);
    EXPECT_EQ(std::get<etcd::Grant>(to_etcd(request_of(Grant{.life = 3'001}))).seconds, 4);
}

TEST(BridgeMessages, WatchAllKeysBelowThePrefix) {
    const etcd::Watch watch = to_etcd(Watch{.id = 3, .prefix = "/shmnm/c/1/", .from = 12});
    EXPECT_EQ(watch.keys.first, "/shmnm/c/1/");
    EXPECT_EQ(watch.keys.end, "/shmnm/c/10");
    EXPECT_EQ(watch.from, 12);
}

TEST(BridgeMessages, TellAFailedCompareWithWhatTheReadsHaveFound) {
    const Transaction transaction{.compares = {{"claim", 5}}, .puts = {}, .deletions = {}, .reads = {"claim", "state"}};
    const Answer answer =
        from_etcd(request_of(transaction), {.cluster = 1,
                                            .revision = 20,
                                            .succeeded = false,
                                            .found = {{{.key = "claim", .value = "v", .mod_revision = 6}}, {}}});
    EXPECT_EQ(answer.request, 7U);
    EXPECT_EQ(answer.outcome, Outcome::compare_failed);
    EXPECT_EQ(answer.cluster, 1U);
    ASSERT_EQ(answer.values.size(), 2U);
    EXPECT_EQ(answer.values[0].value, "v");
    EXPECT_EQ(answer.values[0].revision, 6);
    EXPECT_EQ(answer.values[1].key, "state");
    EXPECT_EQ(answer.values[1].value, std::nullopt) << "it does not exist";
    EXPECT_EQ(answer.values[1].revision, 20) << "as of the answer";
}

TEST(BridgeMessages, TellATransactionThatWasDone) {
    const Answer answer = from_etcd(request_of(Transaction{}), {.revision = 20, .succeeded = true});
    EXPECT_EQ(answer.outcome, Outcome::done);
    EXPECT_EQ(answer.revision, 20);
}

TEST(BridgeMessages, TellAllKeysOfARead) {
    const Answer answer =
        from_etcd(request_of(Range{"/p/"}),
                  {.found = {{{.key = "a", .value = "1", .mod_revision = 3}, {.key = "b", .value = ""}}}});
    ASSERT_EQ(answer.values.size(), 2U);
    EXPECT_EQ(answer.values[0].key, "a");
    EXPECT_EQ(answer.values[0].revision, 3);
}

TEST(BridgeMessages, TellWhetherALeaseLives) {
    EXPECT_TRUE(from_etcd(request_of(KeepAlive{3}), {.lease = 3, .seconds = 10}).lease_lives);
    EXPECT_FALSE(from_etcd(request_of(KeepAlive{3}), {.lease = 3, .seconds = 0}).lease_lives);
    const Answer gone = from_etcd(request_of(KeepAlive{3}), {.failure = etcd::Failure::no_lease});
    EXPECT_EQ(gone.outcome, Outcome::done) << "etcd has answered: the lease has ended";
    EXPECT_FALSE(gone.lease_lives);
    EXPECT_EQ(outcome_of(Transaction{}, etcd::Failure::no_lease), Outcome::no_lease);
}

/// Only what certainly was not carried out has failed; all else may still land.
TEST(BridgeMessages, TellWhetherARequestMayStillBeCarriedOut) {
    using etcd::Failure;
    for (const Failure failure :
         {Failure::not_sent, Failure::full, Failure::unauthenticated, Failure::denied, Failure::refused}) {
        EXPECT_EQ(outcome_of(Transaction{}, failure), Outcome::failed) << static_cast<int>(failure);
    }
    for (const Failure failure : {Failure::timed_out, Failure::cut, Failure::unavailable, Failure::invalid_answer}) {
        EXPECT_EQ(outcome_of(Transaction{}, failure), Outcome::timed_out) << static_cast<int>(failure);
    }
}

TEST(BridgeMessages, TellChangesAndDeletions) {
    const Events events =
        from_etcd(9, {.cluster = 2,
                      .events = {{.is_deletion = false, .entry = {.key = "a", .value = "1", .mod_revision = 4}},
                                 {.is_deletion = true, .entry = {.key = "b", .value = "", .mod_revision = 5}}}});
    EXPECT_EQ(events.watch, 9U);
    EXPECT_EQ(events.cluster, 2U);
    ASSERT_EQ(events.events.size(), 2U);
    EXPECT_EQ(events.events[0].value, "1");
    EXPECT_EQ(events.events[1].value, std::nullopt);
    EXPECT_EQ(events.events[1].revision, 5);
}

}  // namespace
}  // namespace bridge
