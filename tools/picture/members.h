// Servers and resources by their names, as the library adds, removes and changes them.
#pragma once

#include <cstdint>
#include <string>

#include "picture/error.h"
#include "picture/words.h"

namespace picture {

/// Bytes that the library stores of a name or a type, without its NUL, and of a description.
inline constexpr size_t server_name_limit = 255, resource_text_limit = 31, pid_name_limit = 255, description_size = 256;

struct Member {
    const ResourceKind* kind = nullptr;  ///< null: a server
    std::string type;                    ///< of a resource
    std::string name;
};

/// "server alpha", "hb resource lan/lan1"; printable.
std::string to_text(const Member& member);

/// The result of a function of the library.
struct Answer {
    const char* function;
    uint32_t result;
};
Answer add(const Member& member, int64_t priority);
Answer remove(const Member& member);
Answer set_priority(const Member& member, int64_t priority);
/// Of a resource; 256 bytes.
Answer describe(const Member& member, const std::string& bytes);

/// That there is no such member, and which server may be meant.
Error no_such_member(const Picture& picture, const Member& member);

/// @throws Error  the result is not SHMNM_OK; the message names the member
void expect_ok(const Answer& answer, const Member& member);

/// The first member with this name, which the library would find; null if there is none.
const Server* find_server(const Picture& picture, const std::string& name);
const Resource* find_resource(const Picture& picture, const Member& member);

}  // namespace picture
