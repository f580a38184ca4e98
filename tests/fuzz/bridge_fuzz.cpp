// Fuzzes what the bridge reads from the network: etcd's answers, lines of its watches, and the bridge's own values.
// What is taken is what would have been written, and what others wrote stands in messages only as printable text.
#include <string>
#include <string_view>
#include <variant>

#include "core_keys.h"
#include "etcd/gateway.h"
#include "fuzz/input.h"

namespace {

using fuzz::require;

struct Start {
    uint8_t reader, status;
};

bool is_presentable(const std::string& text) {
    return text.size() < 2000 && std::all_of(text.begin(), text.end(), [](char byte) {
               return static_cast<unsigned char>(byte) >= ' ' && byte != 0x7F;
           });
}

int status_of(uint8_t choice) {
    static const int all[] = {200, 200, 200, 400, 401, 404, 500, 503, 0, -1};
    return all[choice % std::size(all)];
}

void try_answer(const etcd::Request& request, int status, std::string_view body) {
    const etcd::Answer answer = etcd::decode(request, status, body);
    require(is_presentable(answer.reason));
    require((answer.failure == etcd::Failure::none) == answer.reason.empty());
    if (answer.failure == etcd::Failure::none) require(status == 200);
}

/// What is read can be written, and reads the same again.
template <typename Value>
void try_value(std::optional<Value> (*read)(const std::string&), const std::string& text) {
    const std::optional<Value> value = read(text);
    if (!value) return;
    std::string written = bridge::to_json(*value);
    if (fuzz::plants_fault() && written.size() > 50) written.pop_back();
    const std::optional<Value> again = read(written);
    require(again && bridge::to_json(*again) == written);
}

void try_watch(std::string_view line) {
    const auto read = etcd::decode_watch(line);
    if (const auto* const end = std::get_if<etcd::WatchEnd>(&read)) {
        require(end->failure != etcd::Failure::none && is_presentable(end->reason));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Input input(data, size);
    const auto start = input.take<Start>();
    const int status = status_of(start.status);
    const std::string text(input.rest());
    switch (start.reader % 15) {
        case 0:
            try_answer(etcd::Transaction{{}, {etcd::Put{"a", "b"}, etcd::Read{{"a"}}}, {etcd::Read{{"a", "b"}}}},
                       status, text);
            break;
        case 1:
            try_answer(etcd::Read{{"a", "b"}}, status, text);
            break;
        case 2:
            try_answer(etcd::Put{"a", "b"}, status, text);
            break;
        case 3:
            try_answer(etcd::Grant{10}, status, text);
            break;
        case 4:
            try_answer(etcd::KeepAlive{7}, status, text);
            break;
        case 5:
            try_answer(etcd::Revoke{7}, status, text);
            break;
        case 6:
            try_answer(etcd::Compact{7}, status, text);
            break;
        case 7:
            try_watch(text);
            break;
        case 8: {
            const etcd::WatchEnd end = etcd::decode_refused_watch(status, text);
            require(end.failure != etcd::Failure::none && is_presentable(end.reason));
            break;
        }
        case 9: {
            const etcd::Token token = etcd::decode_authentication(status, text);
            require(is_presentable(token.reason));
            require(token.failure != etcd::Failure::none || token.is_needless || !token.token.empty());
            break;
        }
        case 10:
            require(is_presentable(etcd::presentable(text)));
            etcd::asks_for_token(status, text);
            break;
        case 11:
            try_value(bridge::claim_from, text);
            break;
        case 12:
            try_value(bridge::state_from, text);
            break;
        case 13:
            try_value(bridge::beat_from, text);
            break;
        default:
            try_value(bridge::proposal_from, text);
            break;
    }
    return 0;
}
