#include "core_steps.h"

#include "picture/escape.h"
#include "picture/keys.h"
#include "picture/words.h"

namespace bridge {
namespace {

std::string raw(std::string_view escaped) {
    return picture::unescaped(escaped).value_or(std::string(escaped));
}

picture::Step header_step(size_t word, const AgreedValue& value) {
    using picture::Library;
    if (word == hbinfo) {
        return picture::step_of(&Library::shmnm_sethbinfo_ex, static_cast<int32_t>(value[0]),
                                static_cast<int32_t>(value[1]));
    }
    const picture::ClusterWord* const entry = picture::entry(picture::cluster_words, header_words[word]);
    return picture::step_of(std::get<picture::Call<uint32_t>>(entry->set), value[0]);
}

}  // namespace

picture::Step to_step(const Call& call) {
    if (call.setter == Call::Setter::header_word) return header_step(call.word, call.value);
    if (call.setter == Call::Setter::server_word) {
        const picture::ServerWord* const entry = picture::entry(picture::server_words, server_words[call.word]);
        return picture::step_of(std::get<picture::Call<const char*, uint32_t>>(entry->set), raw(call.server),
                                call.value[0]);
    }
    const auto parts = picture::parts_of(call.resource);
    const picture::ResourceKind& kind = *picture::entry(picture::resource_kinds, parts[0]);
    const std::string type = raw(parts[1]), name = raw(parts[2]);
    if (call.setter == Call::Setter::stat) return picture::step_of(kind.set_state, type, name, call.value[0]);
    const auto set = call.setter == Call::Setter::svstat ? kind.set_server_state : kind.set_network_state;
    return picture::step_of(set, type, name, call.pri, call.value[0]);
}

}  // namespace bridge
