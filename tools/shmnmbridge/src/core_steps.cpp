#include "core_steps.h"

#include "picture/escape.h"
#include "picture/keys.h"
#include "picture/words.h"

namespace bridge {
namespace {

using picture::Library;

std::string raw(std::string_view escaped) {
    return picture::unescaped(escaped).value_or(std::string(escaped));
}

picture::Step header_step(size_t word, const AgreedValue& value) {
    if (word == hbinfo) {
        return picture::step_of(&Library::shmnm_sethbinfo_ex, static_cast<int32_t>(value[0]),
                                static_cast<int32_t>(value[1]));
    }
    const picture::ClusterWord* const entry = picture::entry(picture::cluster_words, header_words[word]);
    return picture::step_of(std::get<picture::Call<uint32_t>>(entry->set), value[0]);
}

constexpr picture::Call<uint32_t*> header_readers[] = {&Library::shmnm_getwaitstat, &Library::shmnm_getbwflag,
                                                       &Library::shmnm_getbwflagdisk, &Library::shmnm_getclstat};
constexpr picture::Call<const char*, uint32_t*> server_readers[] = {
    &Library::shmnm_getnodestat,    &Library::shmnm_getnodestat_nw, &Library::shmnm_getdownnotifystat,
    &Library::shmnm_getisolateflag, &Library::shmnm_getpingstat,    &Library::shmnm_getholdstat};

Reading header_reading(size_t word) {
    const Library& library = picture::library();
    if (word == hbinfo) {
        return [read = library.shmnm_gethbinfo_ex](AgreedValue& value) {
            return read(value.data(), &value[1]) == SHMNM_OK;
        };
    }
    return [read = library.*header_readers[word]](AgreedValue& value) { return read(value.data()) == SHMNM_OK; };
}

/// Of a resource's own state.
Reading state_reading(bool is_hb, const std::string& type, const std::string& name) {
    const Library& library = picture::library();
    return [read = is_hb ? library.shmnm_gethbrscstat : library.shmnm_getnprscstat, type, name](AgreedValue& value) {
        return read(type.c_str(), name.c_str(), value.data()) == SHMNM_OK;
    };
}

/// Of a resource's state on a server, whose column the library finds by its priority.
Reading cell_reading(const Call& call, bool is_hb, const std::string& type, const std::string& name) {
    const Library& library = picture::library();
    const auto read = call.setter == Call::Setter::network ? library.shmnm_getrscsvstat_nw
                      : is_hb                              ? library.shmnm_gethbrscsvstat
                                                           : library.shmnm_getnprscsvstat;
    return [read, name_of = library.shmnm_getnodename, type, name, server = raw(call.server),
            pri = call.pri](AgreedValue& value) {
        char found[sizeof(shmnm_server::name)]{};
        return name_of(found, pri) == SHMNM_OK && server == found &&
               read(type.c_str(), name.c_str(), pri, value.data()) == SHMNM_OK;
    };
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

Reading to_reading(const Call& call) {
    if (call.setter == Call::Setter::header_word) return header_reading(call.word);
    if (call.setter == Call::Setter::server_word) {
        return [read = picture::library().*server_readers[call.word], server = raw(call.server)](AgreedValue& value) {
            return read(server.c_str(), value.data()) == SHMNM_OK;
        };
    }
    const auto parts = picture::parts_of(call.resource);
    const bool is_hb = parts[0] == "hb";
    const std::string type = raw(parts[1]), name = raw(parts[2]);
    if (call.setter == Call::Setter::stat) return state_reading(is_hb, type, name);
    return cell_reading(call, is_hb, type, name);
}

}  // namespace bridge
