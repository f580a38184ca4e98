// The gateway's JSON: what requests look like, and what is made of answers, of etcd and of anybody else.
#include "etcd/gateway.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

#include "etcd/base64.h"
#include "etcd/endpoint.h"
#include "etcd/error.h"

using namespace etcd;
using testing::HasSubstr;
using testing::SizeIs;
using testing::StartsWith;

namespace {

const std::string header =
    R"("header":{"cluster_id":"18446744073709551615","member_id":"3","revision":"9","raft_term":"2"})";

WatchMessage message_of(const std::string& line) {
    return std::get<WatchMessage>(decode_watch(line));
}
WatchEnd end_of(const std::string& line) {
    return std::get<WatchEnd>(decode_watch(line));
}
std::string wrapped(const std::string& result) {
    return R"({"result":{)" + header + "," + result + "}}";
}

}  // namespace

TEST(Base64, IsReadAndWritten) {
    const std::vector<std::pair<std::string, std::string>> pairs{{"", ""},
                                                                 {"f", "Zg=="},
                                                                 {"fo", "Zm8="},
                                                                 {"foo", "Zm9v"},
                                                                 {"foob", "Zm9vYg=="},
                                                                 {"fooba", "Zm9vYmE="},
                                                                 {"foobar", "Zm9vYmFy"},
                                                                 {"\xFF\xFE\xFD", "//79"}};
    for (const auto& [bytes, text] : pairs) {
        EXPECT_EQ(to_base64(bytes), text);
        EXPECT_EQ(from_base64(text), bytes);
    }
}

TEST(Base64, ReadsBackAllBytesItWrites) {
    std::mt19937 random(7);
    for (size_t size = 0; size < 300; ++size) {
        std::string bytes;
        for (size_t i = 0; i < size; ++i) bytes += static_cast<char>(random());
        EXPECT_EQ(from_base64(to_base64(bytes)), bytes);
    }
}

TEST(Base64, RefusesOtherText) {
    for (const char* text : {"Z", "Zg", "Zg=", "Zg===", "====", "Z===", "Zm9v\n", "Zm9-", "Zg=g", "Zh==", "Zm9="}) {
        EXPECT_EQ(from_base64(text), std::nullopt) << text;
    }
}

TEST(KeysBelow, EndAtTheNextPrefix) {
    EXPECT_EQ(below("/a/").end, "/a0");
    EXPECT_EQ(below("a\xFF\xFF").end, "b");
    EXPECT_EQ(below("a\xFF\xFF").first, "a\xFF\xFF");
    EXPECT_EQ(below("").first, std::string(1, '\0'));
    EXPECT_EQ(below("").end, std::string(1, '\0'));
}

TEST(Endpoint, IsRead) {
    const Endpoint plain = parse_endpoint("http://alpha.lan:1234");
    EXPECT_EQ(plain.host, "alpha.lan");
    EXPECT_EQ(plain.port, 1234);
    EXPECT_FALSE(plain.is_tls);
    const Endpoint tls = parse_endpoint("https://[::1]/");
    EXPECT_EQ(tls.host, "::1");
    EXPECT_EQ(tls.port, 2379);
    EXPECT_TRUE(tls.is_tls && tls.is_loopback());
    EXPECT_EQ(tls.text(), "https://[::1]:2379");
    EXPECT_TRUE(parse_endpoint("http://127.1.2.3").is_loopback());
    EXPECT_FALSE(parse_endpoint("http://127.evil.example").is_loopback());
    EXPECT_FALSE(parse_endpoint("http://10.0.0.1").is_loopback());
}

TEST(Endpoint, RefusesOtherText) {
    for (const char* text : {"", "alpha", "ftp://alpha", "http://", "http://:2379", "http://a:0", "http://a:65536",
                             "http://a:1x", "http://a:", "http://a b", "http://a/b", "http://[::1", "http://[::1]x",
                             "http://a@b", "http://a\r\n", "http://::1", "http://[a.b]g"}) {
        EXPECT_THROW(parse_endpoint(text), Error) << text;
    }
}

TEST(Request, OfATransactionHasNumbersAsTextAndKeysInBase64) {
    const Transaction transaction{
        .compares = {{.key = "k", .revision = 7},
                     {.key = "k", .property = Compare::Property::create_revision, .revision = 8},
                     {.key = "k", .property = Compare::Property::value, .value = "v"}},
        .then = {Put{"k", "w", 12}, Delete{below("d/")}, Read{{"k"}}},
        .otherwise = {Put{"k", "", 0}}};
    const Post post = encode(transaction);
    EXPECT_EQ(post.path, "/v3/kv/txn");
    EXPECT_EQ(post.body,
              R"({"compare":[{"key":"aw==","mod_revision":"7","result":"EQUAL","target":"MOD"},)"
              R"({"create_revision":"8","key":"aw==","result":"EQUAL","target":"CREATE"},)"
              R"({"key":"aw==","result":"EQUAL","target":"VALUE","value":"dg=="}],)"
              R"("failure":[{"request_put":{"key":"aw==","value":""}}],)"
              R"("success":[{"request_put":{"key":"aw==","lease":"12","value":"dw=="}},)"
              R"({"request_delete_range":{"key":"ZC8=","range_end":"ZDA="}},{"request_range":{"key":"aw=="}}]})");
}

TEST(Request, OfAnyKindHasItsPath) {
    EXPECT_EQ(encode(Read{below("a")}).path, "/v3/kv/range");
    EXPECT_EQ(encode(Grant{10}).body, R"({"TTL":"10"})");
    EXPECT_EQ(encode(KeepAlive{9'007'199'254'740'993}).body, R"({"ID":"9007199254740993"})");
    EXPECT_EQ(encode(Revoke{1}).path, "/v3/lease/revoke");
    EXPECT_EQ(encode(Compact{5}).body, R"({"revision":"5"})");
    EXPECT_EQ(encode(Watch{below("a"), 5}).body,
              R"({"create_request":{"key":"YQ==","progress_notify":true,"range_end":"Yg==","start_revision":"5"}})");
    EXPECT_EQ(encode_authentication("u\"", "p\n\xFF").body, "{\"name\":\"u\\\"\",\"password\":\"p\\n\xEF\xBF\xBD\"}");
}

TEST(Answer, LeavesOutZeros) {
    const Answer answer = decode(Transaction{.compares = {}, .then = {}}, 200, "{" + header + "}");
    EXPECT_EQ(answer.failure, Failure::none) << answer.reason;
    EXPECT_FALSE(answer.succeeded);
    EXPECT_EQ(answer.cluster, 18'446'744'073'709'551'615U);
    EXPECT_EQ(answer.revision, 9);
}

TEST(Answer, OfAKeepAliveWithoutTimeSaysThatTheLeaseHasEnded) {
    EXPECT_EQ(decode(KeepAlive{5}, 200, wrapped(R"("ID":"5")")).seconds, 0);
    EXPECT_EQ(decode(KeepAlive{5}, 200, wrapped(R"("ID":"5")")).failure, Failure::none);
    EXPECT_EQ(decode(KeepAlive{5}, 200, wrapped(R"("ID":"5","TTL":"3")")).seconds, 3);
}

TEST(Answer, TellsFailuresApart) {
    const auto failure = [](int status, int code, const std::string& text) {
        const std::string body =
            R"({"error":")" + text + R"(","message":")" + text + R"(","code":)" + std::to_string(code) + "}";
        return decode(Put{"a", "b", 0}, status, body).failure;
    };
    EXPECT_EQ(failure(429, 8, "etcdserver: mvcc: database space exceeded"), Failure::full);
    EXPECT_EQ(failure(429, 8, "etcdserver: too many requests"), Failure::refused);
    EXPECT_EQ(failure(401, 16, "etcdserver: invalid auth token"), Failure::unauthenticated);
    EXPECT_EQ(failure(400, 3, "etcdserver: user name is empty"), Failure::unauthenticated);
    EXPECT_EQ(failure(400, 3, "etcdserver: revision of auth store is old"), Failure::unauthenticated);
    EXPECT_EQ(failure(400, 3, "etcdserver: authentication failed, invalid user ID or password"),
              Failure::unauthenticated);
    EXPECT_EQ(failure(403, 7, "etcdserver: permission denied"), Failure::denied);
    EXPECT_EQ(failure(404, 5, "etcdserver: requested lease not found"), Failure::no_lease);
    EXPECT_EQ(failure(400, 11, "etcdserver: mvcc: required revision has been compacted"), Failure::compacted);
    EXPECT_EQ(failure(400, 11, "etcdserver: mvcc: required revision is a future revision"), Failure::refused);
    EXPECT_EQ(failure(503, 14, "etcdserver: request timed out"), Failure::unavailable);
    EXPECT_EQ(failure(504, 4, "context deadline exceeded"), Failure::unavailable);
    EXPECT_EQ(failure(400, 3, "anything else"), Failure::refused);
    EXPECT_EQ(decode(Put{}, 502, "<html>bad gateway</html>").failure, Failure::unavailable);
    EXPECT_EQ(decode(Put{}, 404, "<html>not found</html>").failure, Failure::invalid_answer);
    EXPECT_EQ(decode(Put{}, 302, "").failure, Failure::invalid_answer);
}

TEST(Answer, OfSomeoneElseIsInvalid) {
    const Transaction reading{.compares = {}, .then = {Read{{"a"}}}, .otherwise = {Read{{"a"}}}};
    const std::string deep(100'000, '[');
    const std::vector<std::string> bodies{
        "",
        "null",
        "[]",
        "7",
        "\"text\"",
        "{}",
        "{",
        deep,
        deep + std::string(deep.size(), ']'),
        "{\"header\":" + deep,
        "{" + header,
        R"({"header":7})",
        R"({"header":{}})",
        R"({"header":{"cluster_id":"-1"}})",
        R"({"header":{"cluster_id":"18446744073709551616"}})",
        R"({"header":{"cluster_id":"1x"}})",
        R"({"header":{"cluster_id":1.5}})",
        R"({"header":{"cluster_id":true}})",
        R"({"header":{"cluster_id":"1","revision":"9223372036854775808"}})",
        "{" + header + R"(,"succeeded":"true"})",
        "{" + header + R"(,"succeeded":1})",
        "{" + header + "}",
        "{" + header + R"(,"responses":{}})",
        "{" + header + R"(,"responses":[7]})",
        "{" + header + R"(,"responses":[{}]})",
        "{" + header + R"(,"responses":[{"response_range":{}},{"response_range":{}}]})",
        "{" + header + R"(,"responses":[{"response_range":{"kvs":{}}}]})",
        "{" + header + R"(,"responses":[{"response_range":{"kvs":[[]]}}]})",
        "{" + header + R"(,"responses":[{"response_range":{"kvs":[{"key":"a"}]}}]})",
        "{" + header + R"(,"responses":[{"response_range":{"kvs":[{"key":7}]}}]})",
        "{" + header + R"(,"responses":[{"response_range":{"kvs":[{"mod_revision":""}]}}]})",
        "{" + header + "} trailing",
        "\xFF\xFE",
        "{" + header + ",\"responses\":[\"\xC3\"]}",
    };
    for (const std::string& body : bodies) {
        const Answer answer = decode(reading, 200, body);
        EXPECT_EQ(answer.failure, Failure::invalid_answer) << body.substr(0, 200);
        EXPECT_THAT(answer.reason, StartsWith("the answer is not etcd's: "));
        EXPECT_THAT(answer.found, SizeIs(0));
        EXPECT_EQ(answer.cluster, 0U);
        EXPECT_FALSE(answer.succeeded);
    }
    EXPECT_EQ(decode(reading, 200, "{" + header + R"(,"responses":[{"response_range":{}}]})").failure, Failure::none);
    EXPECT_EQ(decode(Read{}, 200, "{" + header + R"(,"more":true})").failure, Failure::invalid_answer);
    EXPECT_EQ(decode(Grant{5}, 200, "{" + header + "}").failure, Failure::invalid_answer);
    EXPECT_EQ(decode(KeepAlive{5}, 200, "{" + header + "}").failure, Failure::invalid_answer);
}

TEST(Answer, WithTooManyValuesIsRefusedBeforeItIsStored) {
    std::string many = "{" + header + R"(,"responses":[)";
    for (int i = 0; i < 1'000'000; ++i) many += "[],";
    many += "0]}";
    EXPECT_THAT(decode(Transaction{}, 200, many).reason, HasSubstr("too large"));
}

TEST(Answer, ReasonIsPrintableAndShort) {
    const Answer answer =
        decode(Put{}, 400, R"({"message":"\u001b[31m\nred\u0000)" + std::string(1'000, 'x') + R"(","code":3})");
    EXPECT_EQ(answer.failure, Failure::refused);
    EXPECT_THAT(answer.reason, StartsWith("?[31m?red?xxx"));
    EXPECT_THAT(answer.reason, SizeIs(200));
}

TEST(Answer, ChangedAtRandomIsReadOrRefused) {
    const Transaction reading{.compares = {}, .then = {Read{{"a"}}}, .otherwise = {Read{{"a"}}}};
    const std::vector<std::string> originals{
        "{" + header +
            R"(,"succeeded":true,"responses":[{"response_range":{"kvs":[{"key":"YQ==","create_revision":"2","mod_revision":"3","value":"Yg=="}],"count":"1"}}]})",
        wrapped(R"("created":true)"),
        wrapped(
            R"("events":[{"kv":{"key":"YQ==","mod_revision":"3","value":"Yg=="}},{"type":"DELETE","kv":{"key":"YQ==","mod_revision":"4"}}])"),
        wrapped(R"("canceled":true,"compact_revision":"4")"), R"({"error":"no","message":"no","code":5})"};
    const std::string pieces = "{}[]\",:0123456789-.eEtrufalsn\\ \n\xFF";
    std::mt19937 random(11);
    unsigned read = 0, refused = 0;
    for (unsigned round = 0; round < 20'000; ++round) {
        std::string text = originals[random() % originals.size()];
        for (unsigned changes = random() % 4; changes > 0; --changes) {
            const size_t at = random() % text.size();
            switch (random() % 3) {
                case 0:
                    text[at] = pieces[random() % pieces.size()];
                    break;
                case 1:
                    text.erase(at, random() % 8 + 1);
                    break;
                default:
                    text.insert(at, text.substr(random() % text.size(), random() % 16));
            }
            if (text.empty()) text = "x";
        }
        const Answer answer = decode(reading, 200, text);
        (answer.failure == Failure::none ? read : refused) += 1;
        if (answer.failure == Failure::none) {
            EXPECT_EQ(answer.found.size(), 1U) << text;
        }
        decode(KeepAlive{1}, 200, text);
        decode(Grant{1}, 400, text);
        decode_authentication(200, text);
        decode_refused_watch(500, text);
        decode_watch(text);
    }
    EXPECT_GT(read, 500U);
    EXPECT_GT(refused, 5'000U);
}

TEST(WatchLine, TellsChanges) {
    EXPECT_TRUE(message_of(wrapped(R"("created":true)")).created);
    const WatchMessage message = message_of(wrapped(
        R"("events":[{"kv":{"key":"YQ==","create_revision":"2","mod_revision":"3","version":"1","value":"Yg==","lease":"77"}},{"type":"DELETE","kv":{"key":"YQ==","mod_revision":"4"}}])"));
    EXPECT_FALSE(message.created);
    EXPECT_EQ(message.revision, 9);
    ASSERT_THAT(message.events, SizeIs(2));
    EXPECT_FALSE(message.events[0].is_deletion);
    EXPECT_EQ(message.events[0].entry.value, "b");
    EXPECT_EQ(message.events[0].entry.lease, 77);
    EXPECT_TRUE(message.events[1].is_deletion);
    EXPECT_EQ(message.events[1].entry.key, "a");
    EXPECT_EQ(message.events[1].entry.mod_revision, 4);
    EXPECT_THAT(message_of(wrapped(R"("watch_id":"0")")).events, SizeIs(0));  // progress
}

TEST(WatchLine, TellsWhyAWatchHasEnded) {
    const WatchEnd compacted = end_of(wrapped(R"("canceled":true,"compact_revision":"4")"));
    EXPECT_EQ(compacted.failure, Failure::compacted);
    EXPECT_EQ(compacted.compact_revision, 4);
    const auto canceled = [](const std::string& reason) {
        return end_of(wrapped(R"("watch_id":"-1","created":true,"canceled":true,"cancel_reason":")" + reason + "\""))
            .failure;
    };
    EXPECT_EQ(canceled("rpc error: code = Unauthenticated desc = etcdserver: invalid auth token"),
              Failure::unauthenticated);
    EXPECT_EQ(canceled("rpc error: code = InvalidArgument desc = etcdserver: user name is empty"),
              Failure::unauthenticated);
    EXPECT_EQ(canceled("rpc error: code = PermissionDenied desc = etcdserver: permission denied"), Failure::denied);
    EXPECT_EQ(canceled("etcdserver: no leader"), Failure::unavailable);
    EXPECT_EQ(canceled("anything else"), Failure::refused);
    EXPECT_EQ(
        end_of(
            R"({"error":{"grpc_code":14,"http_code":503,"message":"etcdserver: no leader","http_status":"Service Unavailable"}})")
            .failure,
        Failure::unavailable);
}

TEST(WatchLine, OfSomeoneElseEndsTheWatch) {
    for (const std::string& line :
         {std::string("{}"), std::string("x"), std::string(1'000, '['), wrapped(R"("events":[{}])"),
          wrapped(R"("events":7)"), wrapped(R"("events":[{"type":"EXPIRE","kv":{"key":"YQ=="}}])"),
          wrapped(R"("events":[{"kv":{"key":"?"}}])"), std::string(R"({"result":{"created":true}})"),
          std::string(R"({"error":{"grpc_code":"x"}})")}) {
        EXPECT_EQ(end_of(line).failure, Failure::invalid_answer) << line.substr(0, 100);
    }
}

TEST(Token, IsText) {
    EXPECT_EQ(decode_authentication(200, "{" + header + R"(,"token":"abc.12"})").token, "abc.12");
    EXPECT_EQ(decode_authentication(200, "{" + header + R"(,"token":"abc\r\nEvil: 1"})").failure,
              Failure::invalid_answer);
    EXPECT_EQ(decode_authentication(200, "{" + header + "}").failure, Failure::invalid_answer);
    EXPECT_TRUE(
        decode_authentication(412, R"({"message":"etcdserver: authentication is not enabled","code":9})").is_needless);
    EXPECT_EQ(decode_authentication(
                  400, R"({"message":"etcdserver: authentication failed, invalid user ID or password","code":3})")
                  .failure,
              Failure::unauthenticated);
}
