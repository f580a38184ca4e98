#include "picture/members.h"

#include <fmt/format.h>

#include <algorithm>

#include "picture/error.h"
#include "picture/escape.h"
#include "picture/spelling.h"

namespace picture {
namespace {

template <typename... Parameters, typename... Arguments>
Answer answer(Call<Parameters...> function, Arguments... arguments) {
    const auto& called = library().*function;
    return {called.name, called(arguments...)};
}

}  // namespace

std::string to_text(const Member& member) {
    if (!member.kind) return "server " + escaped(member.name);
    return fmt::format("{} resource {}/{}", member.kind->key, escaped(member.type), escaped(member.name));
}

Answer add(const Member& member, int64_t priority) {
    if (!member.kind) {
        return answer(&Library::shmnm_addnode, member.name.c_str(), static_cast<int32_t>(priority));
    }
    return answer(member.kind->add, member.type.c_str(), member.name.c_str(), static_cast<uint32_t>(priority));
}

Answer remove(const Member& member) {
    if (!member.kind) return answer(&Library::shmnm_rmnode, member.name.c_str());
    return answer(member.kind->remove, member.type.c_str(), member.name.c_str());
}

Answer set_priority(const Member& member, int64_t priority) {
    if (!member.kind) {
        return answer(&Library::shmnm_modifynode, member.name.c_str(), static_cast<int32_t>(priority));
    }
    return answer(member.kind->set_priority, member.type.c_str(), member.name.c_str(), static_cast<uint32_t>(priority));
}

Answer describe(const Member& member, const std::string& bytes) {
    return answer(member.kind->describe, member.type.c_str(), member.name.c_str(), bytes.data(),
                  static_cast<int32_t>(bytes.size()));
}

Error no_such_member(const Picture& picture, const Member& member) {
    std::string near;
    if (!member.kind) {
        std::vector<std::string> names;
        for (const Server& server : picture.servers) names.push_back(escaped(server.name));
        near = nearest(escaped(member.name), names);
    }
    return {ErrorKind::no_such_member, fmt::format("there is no {}{}", to_text(member), question(near))};
}

void expect_ok(const Answer& answer, const Member& member) {
    switch (answer.result) {
        case SHMNM_ERR_NOTFOUND:
            throw Error(ErrorKind::no_such_member, fmt::format("there is no {}", to_text(member)));
        case SHMNM_ERR_EXIST:
            throw Error(ErrorKind::member_exists, fmt::format("{} exists already", to_text(member)));
        case SHMNM_ERR_COUNTOVER:
        case SHMNM_ERR_RSCOVER:
            throw Error(ErrorKind::refused, fmt::format("cannot add {}: {}; raise its maximum in the configuration",
                                                        to_text(member), meaning(answer.result)));
        default:
            expect_ok(answer.function, answer.result);
    }
}

const Server* find_server(const Picture& picture, const std::string& name) {
    const auto found = std::find_if(picture.servers.begin(), picture.servers.end(),
                                    [&](const Server& each) { return each.name == name; });
    return found == picture.servers.end() ? nullptr : &*found;
}

const Resource* find_resource(const Picture& picture, const Member& member) {
    const std::vector<Resource>& resources = picture.*member.kind->resources;
    const auto found = std::find_if(resources.begin(), resources.end(), [&](const Resource& each) {
        return each.type == member.type && each.name == member.name;
    });
    return found == resources.end() ? nullptr : &*found;
}

}  // namespace picture
