#include "etcd/gateway.h"

#include <algorithm>
#include <charconv>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <utility>

#include "etcd/base64.h"

namespace etcd {
namespace {

using Json = nlohmann::json;

/// Nothing that etcd sends nests deeper, or has more values in a message of the size that is read.
constexpr int deepest = 16;
constexpr size_t most_values = 1'000'000;
constexpr size_t longest_reason = 200;

/// etcd's codes of errors, those of gRPC.
enum Code : int {
    deadline_exceeded = 4,
    not_found = 5,
    permission_denied = 7,
    resource_exhausted = 8,
    out_of_range = 11,
    unavailable = 14,
    unauthenticated = 16
};

// Keys and values

Json base64(const std::string& bytes) {
    return to_base64(bytes);
}
Json number(int64_t value) {
    return std::to_string(value);
}

Json range_of(const Keys& keys) {
    Json made{{"key", base64(keys.first)}};
    if (!keys.end.empty()) made["range_end"] = base64(keys.end);
    return made;
}

Json body_of(const Put& put) {
    Json made{{"key", base64(put.key)}, {"value", base64(put.value)}};
    if (put.lease != 0) made["lease"] = number(put.lease);
    return made;
}

Json body_of(const Compare& compare) {
    Json made{{"key", base64(compare.key)}, {"result", "EQUAL"}};
    switch (compare.property) {
        case Compare::Property::mod_revision:
            made["target"] = "MOD";
            made["mod_revision"] = number(compare.revision);
            break;
        case Compare::Property::create_revision:
            made["target"] = "CREATE";
            made["create_revision"] = number(compare.revision);
            break;
        case Compare::Property::value:
            made["target"] = "VALUE";
            made["value"] = base64(compare.value);
            break;
    }
    return made;
}

Json operations(const std::vector<Operation>& all) {
    struct Encoder {
        Json operator()(const Put& put) const { return {{"request_put", body_of(put)}}; }
        Json operator()(const Delete& deletion) const { return {{"request_delete_range", range_of(deletion.keys)}}; }
        Json operator()(const Read& read) const { return {{"request_range", range_of(read.keys)}}; }
    };
    Json made = Json::array();
    for (const Operation& each : all) made.push_back(std::visit(Encoder{}, each));
    return made;
}

struct Encoder {
    Post operator()(const Transaction& transaction) const {
        Json compares = Json::array();
        for (const Compare& each : transaction.compares) compares.push_back(body_of(each));
        const Json body{{"compare", std::move(compares)},
                        {"success", operations(transaction.then)},
                        {"failure", operations(transaction.otherwise)}};
        return {"/v3/kv/txn", body.dump()};
    }
    Post operator()(const Read& read) const { return {"/v3/kv/range", range_of(read.keys).dump()}; }
    Post operator()(const Put& put) const { return {"/v3/kv/put", body_of(put).dump()}; }
    Post operator()(const Grant& grant) const {
        return {"/v3/lease/grant", Json{{"TTL", number(grant.seconds)}}.dump()};
    }
    Post operator()(const KeepAlive& alive) const {
        return {"/v3/lease/keepalive", Json{{"ID", number(alive.lease)}}.dump()};
    }
    Post operator()(const Revoke& revoke) const {
        return {"/v3/lease/revoke", Json{{"ID", number(revoke.lease)}}.dump()};
    }
    Post operator()(const Compact& compact) const {
        return {"/v3/kv/compaction", Json{{"revision", number(compact.revision)}}.dump()};
    }
};

// Answers

/// An answer that etcd does not give.
struct Invalid : std::runtime_error {
    using std::runtime_error::runtime_error;
};

Json parse(std::string_view text) {
    size_t values = 0;
    const auto limited = [&](int depth, Json::parse_event_t, const Json&) {
        if (depth > deepest || ++values > most_values) throw Invalid("it nests too deeply or is too large");
        return true;
    };
    try {
        return Json::parse(text, limited);
    } catch (const Json::exception&) {
        throw Invalid("it is not JSON");
    }
}

/// A member of an object, or null if the field was left out, which means zero.
const Json* member(const Json& object, const char* name) {
    if (!object.is_object()) throw Invalid("it has a value where an object should be");
    const auto found = object.find(name);
    return found == object.end() || found->is_null() ? nullptr : &*found;
}

template <typename Integer>
Integer integer(const Json& object, const char* name) {
    const Json* const value = member(object, name);
    if (!value) return 0;
    if (value->is_number_integer() && !value->is_number_unsigned() && std::is_signed_v<Integer>) {
        return static_cast<Integer>(value->get<int64_t>());
    }
    std::string text;
    if (value->is_string()) text = value->get_ref<const std::string&>();
    if (value->is_number_unsigned()) text = std::to_string(value->get<uint64_t>());
    Integer result = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, result);
    if (text.empty() || error != std::errc{} || stop != end) throw Invalid("it has no number where one should be");
    return result;
}

bool boolean(const Json& object, const char* name) {
    const Json* const value = member(object, name);
    if (!value) return false;
    if (!value->is_boolean()) throw Invalid("it has no true or false where one should be");
    return value->get<bool>();
}

std::string text(const Json& object, const char* name) {
    const Json* const value = member(object, name);
    if (!value) return {};
    if (!value->is_string()) throw Invalid("it has no text where one should be");
    return value->get<std::string>();
}

std::string bytes(const Json& object, const char* name) {
    const std::optional<std::string> decoded = from_base64(text(object, name));
    if (!decoded) throw Invalid("it has no base64 where it should be");
    return *decoded;
}

const Json& elements(const Json& object, const char* name) {
    static const Json none = Json::array();
    const Json* const value = member(object, name);
    if (!value) return none;
    if (!value->is_array()) throw Invalid("it has no array where one should be");
    return *value;
}

KeyValue entry(const Json& object) {
    return {.key = bytes(object, "key"),
            .value = bytes(object, "value"),
            .create_revision = integer<int64_t>(object, "create_revision"),
            .mod_revision = integer<int64_t>(object, "mod_revision"),
            .version = integer<int64_t>(object, "version"),
            .lease = integer<int64_t>(object, "lease")};
}

std::vector<KeyValue> entries(const Json& range) {
    std::vector<KeyValue> all;
    for (const Json& each : elements(range, "kvs")) all.push_back(entry(each));
    return all;
}

/// Whoever answers something without it is not etcd.
template <typename Message>
void read_header(const Json& answer, Message& message) {
    const Json* const header = member(answer, "header");
    if (!header) throw Invalid("it has no header");
    message.cluster = integer<uint64_t>(*header, "cluster_id");
    message.revision = integer<int64_t>(*header, "revision");
    if (message.cluster == 0) throw Invalid("it names no cluster");
}

/// What a stream's message holds.
const Json& result_of(const Json& message) {
    const Json* const result = member(message, "result");
    if (!result) throw Invalid("it has no result");
    return *result;
}

struct Reader {
    const Json& json;
    Answer& answer;

    void operator()(const Transaction& transaction) const {
        answer.succeeded = boolean(json, "succeeded");
        const auto& wanted = answer.succeeded ? transaction.then : transaction.otherwise;
        const Json& responses = elements(json, "responses");
        if (responses.size() != wanted.size()) throw Invalid("it answers other operations");
        for (size_t i = 0; i < wanted.size(); ++i) {
            if (!std::holds_alternative<Read>(wanted[i])) continue;
            const Json* const range = member(responses[i], "response_range");
            if (!range) throw Invalid("it has no answer to a read");
            answer.found.push_back(entries(*range));
        }
    }
    void operator()(const Read&) const {
        if (boolean(json, "more")) throw Invalid("it is not complete");
        answer.found.push_back(entries(json));
    }
    void operator()(const Grant&) const {
        answer.lease = integer<int64_t>(json, "ID");
        answer.seconds = integer<int64_t>(json, "TTL");
        if (answer.lease == 0 || answer.seconds <= 0) throw Invalid("it grants no lease");
    }
    void operator()(const KeepAlive&) const { answer.seconds = integer<int64_t>(json, "TTL"); }
    void operator()(const Put&) const {}
    void operator()(const Revoke&) const {}
    void operator()(const Compact&) const {}
};

Failure failure_of(int code, std::string_view message) {
    const auto says = [&](std::string_view part) { return message.find(part) != std::string_view::npos; };
    switch (code) {
        case deadline_exceeded:
        case unavailable:
            return Failure::unavailable;
        case not_found:
            return says("lease") ? Failure::no_lease : Failure::refused;
        case permission_denied:
            return Failure::denied;
        case resource_exhausted:
            return says("space exceeded") ? Failure::full : Failure::refused;
        case out_of_range:
            return says("compacted") ? Failure::compacted : Failure::refused;
        case unauthenticated:
            return Failure::unauthenticated;
        default:
            // A token that was made before the users or their rights were changed is worth nothing.
            return says("authentication failed") || says("user name is empty") || says("auth store is old")
                       ? Failure::unauthenticated
                       : Failure::refused;
    }
}

/// A watch that etcd ends tells why only in words.
Failure failure_of_cancel(std::string_view reason) {
    const auto says = [&](std::string_view part) { return reason.find(part) != std::string_view::npos; };
    if (says("invalid auth token") || says("user name is empty") || says("auth store is old")) {
        return Failure::unauthenticated;
    }
    if (says("permission denied")) return Failure::denied;
    return says("no leader") ? Failure::unavailable : Failure::refused;
}

struct ErrorText {
    int code = 0;
    std::string message;
};

/// An error as the gateway sends it.
ErrorText error_of(const Json& json) {
    std::string message = text(json, "message");
    if (message.empty()) message = text(json, "error");
    if (message.empty()) throw Invalid("it is an error without a message");
    return {static_cast<int>(integer<int64_t>(json, "code")), message};
}

/// Fills in why a request failed.
template <typename Result>
void read_failure(Result& result, int status, std::string_view body) {
    constexpr int server_errors = 500;
    try {
        const auto [code, message] = error_of(parse(body));
        result.failure = failure_of(code, message);
        result.reason = presentable(message);
    } catch (const Invalid&) {
        result.failure = status >= server_errors ? Failure::unavailable : Failure::invalid_answer;
        result.reason = "HTTP status " + std::to_string(status);
    }
}

constexpr int ok = 200;

template <typename Result>
void read_invalid(Result& result, const Invalid& why) {
    result = {};
    result.failure = Failure::invalid_answer;
    result.reason = std::string("the answer is not etcd's: ") + why.what();
}

}  // namespace

Keys below(const std::string& prefix) {
    std::string end = prefix;
    while (!end.empty() && end.back() == '\xFF') end.pop_back();
    if (end.empty()) return {std::string(1, '\0'), std::string(1, '\0')};  // all keys
    end.back() = static_cast<char>(static_cast<unsigned char>(end.back()) + 1);
    return {prefix, end};
}

bool may_be_done(Failure failure) {
    return failure == Failure::timed_out || failure == Failure::cut || failure == Failure::unavailable ||
           failure == Failure::invalid_answer;
}

Post encode(const Request& request) {
    return std::visit(Encoder{}, request);
}

Post encode(const Watch& watch) {
    Json create = range_of(watch.keys);
    create["progress_notify"] = true;
    if (watch.from != 0) create["start_revision"] = number(watch.from);
    return {"/v3/watch", Json{{"create_request", std::move(create)}}.dump()};
}

Post encode_authentication(const std::string& user, const std::string& password) {
    // Bytes that are not UTF-8 cannot be said in JSON: they are replaced, and etcd refuses the password.
    const Json body{{"name", user}, {"password", password}};
    return {"/v3/auth/authenticate", body.dump(-1, ' ', false, Json::error_handler_t::replace)};
}

Answer decode(const Request& request, int status, std::string_view body) {
    Answer answer;
    if (status != ok) {
        read_failure(answer, status, body);
        return answer;
    }
    try {
        const Json json = parse(body);
        const Json* whole = &json;
        if (std::holds_alternative<KeepAlive>(request)) {
            if (const Json* const error = member(json, "error"); error && error->is_object()) {
                const auto [code, message] = error_of(*error);
                answer.failure = failure_of(code, message);
                answer.reason = presentable(message);
                return answer;
            }
            whole = &result_of(json);
        }
        read_header(*whole, answer);
        std::visit(Reader{*whole, answer}, request);
    } catch (const Invalid& why) {
        read_invalid(answer, why);
    }
    return answer;
}

Token decode_authentication(int status, std::string_view body) {
    Token token;
    if (status != ok) {
        read_failure(token, status, body);
        if (token.reason.find("authentication is not enabled") != std::string::npos) {
            return {.is_needless = true};
        }
        return token;
    }
    try {
        token.token = text(parse(body), "token");
        if (token.token.empty()) throw Invalid("it has no token");
        // It becomes a field of later requests.
        const auto is_printable = [](char letter) { return letter > ' ' && letter < '\x7F'; };
        if (!std::all_of(token.token.begin(), token.token.end(), is_printable)) throw Invalid("its token is not text");
    } catch (const Invalid& why) {
        read_invalid(token, why);
    }
    return token;
}

bool asks_for_token(int status, std::string_view body) {
    if (status == ok) return false;
    Answer answer;
    read_failure(answer, status, body);
    return answer.failure == Failure::unauthenticated;
}

std::variant<WatchMessage, WatchEnd> decode_watch(std::string_view line) {
    WatchEnd end;
    try {
        const Json json = parse(line);
        if (const Json* const error = member(json, "error")) {
            // A stream's error has the code of gRPC under another name.
            end.failure = failure_of(static_cast<int>(integer<int64_t>(*error, "grpc_code")), text(*error, "message"));
            end.reason = presentable(text(*error, "message"));
            return end;
        }
        const Json& result = result_of(json);
        WatchMessage message;
        read_header(result, message);
        if (boolean(result, "canceled")) {
            end.compact_revision = integer<int64_t>(result, "compact_revision");
            end.reason = presentable(text(result, "cancel_reason"));
            end.failure = end.compact_revision != 0 ? Failure::compacted : failure_of_cancel(end.reason);
            if (end.reason.empty()) end.reason = end.compact_revision != 0 ? "compacted" : "canceled by etcd";
            return end;
        }
        message.created = boolean(result, "created");
        for (const Json& each : elements(result, "events")) {
            const std::string type = text(each, "type");
            if (!type.empty() && type != "PUT" && type != "DELETE") throw Invalid("it has an unknown event");
            const Json* const kv = member(each, "kv");
            if (!kv) throw Invalid("it has an event without a key");
            message.events.push_back({.is_deletion = type == "DELETE", .entry = entry(*kv)});
        }
        return message;
    } catch (const Invalid& why) {
        read_invalid(end, why);
        return end;
    }
}

WatchEnd decode_refused_watch(int status, std::string_view body) {
    WatchEnd end;
    read_failure(end, status, body);
    return end;
}

std::string presentable(std::string_view text) {
    std::string made(text.substr(0, longest_reason));
    for (char& letter : made) {
        if (letter < ' ' || letter > '~') letter = '?';
    }
    return made;
}

}  // namespace etcd
