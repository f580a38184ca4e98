// The commands that change the picture. Each takes the lock once, and does all or nothing.
#include <fmt/format.h>

#include <cstdio>
#include <limits>
#include <map>
#include <string>
#include <vector>

#include "context.h"
#include "picture/assignments.h"
#include "picture/decode.h"
#include "picture/error.h"
#include "picture/escape.h"
#include "picture/library.h"
#include "picture/members.h"
#include "picture/simulation.h"
#include "picture/spelling.h"

namespace shmnmctl {
namespace {

/// What the command line named. CLI11 writes here; one command runs in a process.
struct Arguments {
    std::string type, name, pri, kind, pid, data, text;
    std::vector<std::string> many;
    bool yes = false, has_text = false;
};

/// A name as it is written in keys.
std::string name_from(const std::string& text, const char* what, size_t limit) {
    const auto name = unescaped(text);
    if (!name) {
        throw Failure(Exit::usage,
                      fmt::format("invalid {} \"{}\": use two hexadecimal digits after each %, and %25 for "
                                  "a % itself",
                                  what, as_typed(text)));
    }
    if (name->empty() || name->size() > limit || name->find('\0') != std::string::npos) {
        throw Failure(Exit::usage,
                      fmt::format("invalid {} \"{}\": use 1 to {} bytes without NUL", what, escaped(*name), limit));
    }
    return *name;
}

template <typename Number>
Number number_from(const std::string& text, const char* what, std::optional<Number> (Value::*in_range)() const) {
    const auto value = Value::parse(text);
    const auto number = value ? (*value.*in_range)() : std::nullopt;
    if (!number) {
        throw Failure(Exit::usage,
                      fmt::format("invalid {} \"{}\": use a whole number from {} to {}", what, as_typed(text),
                                  std::numeric_limits<Number>::min(), std::numeric_limits<Number>::max()));
    }
    return *number;
}

/// Makes one call of the library on the attached region, under the lock.
template <typename Call>
void change(const Context& context, const Call& call) {
    LiveRegion region(context.access);
    const Change attached(region, context.force);
    call();
}

/// Makes one call that concerns a member.
template <typename Call>
void change(const Context& context, const Member& member, const Call& call) {
    LiveRegion region(context.access);
    const Change attached(region, context.force);
    const Answer answer = call();
    if (answer.result == SHMNM_ERR_NOTFOUND) throw no_such_member(decode(attached.before()), member);
    expect_ok(answer, member);
}

/// The end of a change: a document, if one is asked for, once the lock was given back.
Exit answered(const Context& context, const Json& answer) {
    if (context.json()) write_output(line(answer));
    return Exit::done;
}

/// Which words were set, and what they are now.
Json set_words(const char* kind, const std::vector<Word>& words) {
    Json answer = document(kind);
    answer["words"] = to_json(words);
    return answer;
}

/// The beginning of the keys of a member.
std::string key_of(const Member& member) {
    if (!member.kind) return "servers/" + escaped(member.name);
    return fmt::format("{}/{}/{}", member.kind->key, escaped(member.type), escaped(member.name));
}

Value value_of_priority(int64_t priority) {
    return priority < 0 ? Value(static_cast<int32_t>(priority)) : Value(static_cast<uint64_t>(priority));
}

void set_all(const Context& context, const std::vector<Assignment>& assignments) {
    LiveRegion region(context.access);
    // Values that are there already need no change of the region, and so no attaching, which writes its header.
    if (plan(decode(region.copy(Bytes::in_use)), assignments, context.force).empty()) return;
    const Change change(region, context.force);
    const Picture picture = decode(change.before());
    for (const Step& step : plan(picture, assignments, context.force)) expect_ok(step.function, step.call());
}

Exit set(const Context& context, const Arguments& given) {
    std::vector<Assignment> assignments;
    if (given.many.size() == 1 && given.many[0] == "-") {
        assignments = parse_assignments(read_standard_input());
        // "list" has them, and only the bridge says them.
        std::erase_if(assignments, [](const Assignment& one) { return is_below(one.key, "bridge"); });
    } else if (given.many.size() % 2 == 0) {
        for (size_t i = 0; i < given.many.size(); i += 2) {
            assignments.push_back(parse_assignment(given.many[i], given.many[i + 1]));
        }
    } else {
        const std::string& key = given.many.back();
        const std::string range = range_of(key);
        throw Failure(Exit::usage, fmt::format("VALUE is missing after {}: use a whole number{}{}", as_typed(key),
                                               range.empty() ? "" : " from ", range));
    }
    set_all(context, assignments);
    // Of two values for one word the last one stays.
    std::map<std::string_view, Value> values;
    for (const Assignment& one : assignments) values[one.key] = one.value;
    std::vector<Word> words;
    for (const Assignment& one : assignments) {
        if (const auto found = values.extract(one.key)) words.push_back({.key = one.key, .value = found.mapped()});
    }
    return answered(context, set_words("set", words));
}

/// @param[in] kind  null: a server
Member member_from(const ResourceKind* kind, const Arguments& given) {
    if (!kind) return {.type = "", .name = name_from(given.name, "server name", server_name_limit)};
    return {.kind = kind,
            .type = name_from(given.type, "type", resource_text_limit),
            .name = name_from(given.name, "resource name", resource_text_limit)};
}

int64_t priority_from(const Member& member, const Arguments& given) {
    if (!member.kind) return number_from(given.pri, "priority of a server", &Value::to_int32);
    return number_from(given.pri, "priority of a resource", &Value::to_uint32);
}

Exit add_member(const Context& context, const ResourceKind* kind, const Arguments& given) {
    const Member member = member_from(kind, given);
    const int64_t priority = priority_from(member, given);
    change(context, member, [&] { return add(member, priority); });
    return answered(context,
                    set_words("add", {{.key = key_of(member) + "/pri", .value = value_of_priority(priority)}}));
}

Exit remove_member(const Context& context, const ResourceKind* kind, const Arguments& given) {
    const Member member = member_from(kind, given);
    change(context, member, [&] { return remove(member); });
    Json answer = document("remove");
    answer["removed"] = key_of(member);
    return answered(context, answer);
}

Exit modify_member(const Context& context, const ResourceKind* kind, const Arguments& given) {
    const Member member = member_from(kind, given);
    const int64_t priority = priority_from(member, given);
    change(context, member, [&] { return set_priority(member, priority); });
    return answered(context,
                    set_words("modify", {{.key = key_of(member) + "/pri", .value = value_of_priority(priority)}}));
}

Exit add_fst(const Context& context, const Arguments& given) {
    const std::string name = name_from(given.name, "name", pid_name_limit);
    const int32_t kind = number_from(given.kind, "kind", &Value::to_int32);
    if (kind < 0 || kind > 2) throw Failure(Exit::usage, fmt::format("invalid kind \"{}\": use 0, 1 or 2", kind));
    const uint32_t pid = number_from(given.pid, "process id", &Value::to_uint32);
    const uint64_t data = number_from(given.data.empty() ? "0" : given.data, "value", &Value::to_uint64);
    change(context, [&] {
        const auto& set = library().shmnm_setfstrscpid;
        const uint32_t result = set(name.c_str(), kind, pid, data);
        if (result == SHMNM_ERR_COUNTOVER) {
            throw Failure(Exit::failed,
                          fmt::format("cannot add process ids of {}: {}; raise the number of servers or fst "
                                      "resources in the configuration",
                                      escaped(name), meaning(result)));
        }
        expect_ok(set.name, result);
    });
    const auto word = [&](const char* key, const Value& value) {
        return Word{.key = fmt::format("fst/{}/{}/{}", key, escaped(name), kind), .value = value};
    };
    return answered(context, set_words("add", {word("pids", pid), word("piddata", data)}));
}

/// The bytes of a description as they are stored: the text, then zeros.
std::string description_from(const std::string& text) {
    auto bytes = unescaped(text);
    if (!bytes || bytes->size() > description_size) {
        throw Failure(Exit::usage,
                      fmt::format("invalid description: use at most {} bytes, with a % written %25", description_size));
    }
    bytes->resize(description_size);
    return *bytes;
}

/// @param[in] bytes  zeros at their end are not shown
Json description_document(const std::string& bytes) {
    Json answer = document("describe");
    answer["descript"] = escaped(std::string_view(bytes).substr(0, bytes.find_last_not_of('\0') + 1));
    return answer;
}

Exit show_description(const Context& context, const std::string& descript) {
    if (!context.json()) write_output(printable(descript) + "\n");
    return answered(context, description_document(descript));
}

const Resource& described(const Picture& picture, const Member& member) {
    const Resource* const resource = find_resource(picture, member);
    if (!resource) throw Error(ErrorKind::no_such_member, fmt::format("there is no {}", to_text(member)));
    return *resource;
}

void set_description(const Context& context, const Member& member, const std::string& bytes) {
    LiveRegion region(context.access);
    const Change change(region, context.force);
    described(decode(change.before()), member);
    const Answer answer = describe(member, bytes);
    if (answer.result == SHMNM_ERR_NOTFOUND) {
        throw Failure(Exit::failed, fmt::format("cannot describe {}: the library reaches only the description of the "
                                                "first {} resource",
                                                to_text(member), member.kind->key));
    }
    expect_ok(answer, member);
}

Exit describe_resource(const Context& context, const ResourceKind& kind, const Arguments& given) {
    const Member member = member_from(&kind, given);
    if (!given.has_text) return show_description(context, described(decode(look(context)), member).descript);

    const std::string bytes = description_from(given.text);
    set_description(context, member, bytes);
    return answered(context, description_document(bytes));
}

Exit describe_fst(const Context& context, const Arguments& given) {
    const auto missing = [] {
        return Failure(Exit::no, "the region has no fst resource: the configuration's fstr was 0 when it was created");
    };
    if (!given.has_text) {
        const Picture picture = decode(look(context));
        if (!picture.fst) throw missing();
        return show_description(context, picture.fst->descript);
    }
    const std::string bytes = description_from(given.text);
    change(context, [&] {
        const auto& describe_it = library().shmnm_setfstdescript;
        const uint32_t result = describe_it(bytes.data(), static_cast<int32_t>(bytes.size()));
        if (result == SHMNM_ERR_NOTFOUND) throw missing();
        expect_ok(describe_it.name, result);
    });
    return answered(context, description_document(bytes));
}

/// @param[in] failed  the servers' names
Json simulation_document(uint32_t state, const std::vector<std::string>& failed) {
    Json answer = document("simulate");
    answer["dfailstatus"] = state;
    answer["failed"] = Json::array();
    for (const std::string& name : failed) answer["failed"].push_back(escaped(name));
    return answer;
}

Exit simulate_on(const Context& context, const Arguments& given) {
    std::vector<std::string> servers;
    for (const std::string& text : given.many) servers.push_back(name_from(text, "server name", server_name_limit));
    {
        LiveRegion region(context.access);
        const Change change(region, context.force);
        std::vector<uint32_t> failed = failures_by_priority(decode(change.before()), servers);
        call(library().shmnm_setnpsimu, 1u, failed.empty() ? nullptr : failed.data(),
             static_cast<int32_t>(failed.size()));
    }
    return answered(context, simulation_document(1, servers));
}

Exit simulate_off(const Context& context) {
    change(context, [] { call(library().shmnm_setnpsimu, 0u, nullptr, 0); });
    return answered(context, simulation_document(0, {}));
}

Exit clear(const Context& context, const Arguments& given) {
    if (!given.yes) {
        throw Failure(Exit::usage, "clear removes all servers, resources and values: add --yes to confirm");
    }
    change(context, [] {
        call(library().shmnm_clear);
        // Mapping it anew writes the maxima, without which nothing could be added.
        call(library().shmnm_detach);
        call(library().shmnm_attach);
    });
    return answered(context, document("clear"));
}

}  // namespace

void add_changing_commands(CLI::App& app, Context& context) {
    static Arguments given;
    const auto command = [&context](CLI::App& parent, const char* name, const std::string& what, auto work) {
        CLI::App* const made = parent.add_subcommand(name, what);
        add_format(*made, context);
        add_force(*made, context);
        made->callback([&context, work] { context.command = [&context, work] { return work(context); }; });
        return made;
    };
    const auto group = [&app](const char* name, const char* what) {
        CLI::App* const made = app.add_subcommand(name, what);
        made->require_subcommand(1);
        return made;
    };
    const auto name_option = [](CLI::App& made) {
        made.add_option("NAME", given.name, "The name, as in keys")->required();
    };
    const auto type_and_name = [&](CLI::App& made) {
        made.add_option("TYPE", given.type, "The type, as in keys")->required();
        name_option(made);
    };
    const auto pri_option = [](CLI::App& made) {
        made.add_option("PRI", given.pri, "The priority, a whole number")->required();
    };

    command(app, "set", "Set words by their keys, all under one lock or none",
            [](const Context& all) { return set(all, given); })
        ->add_option("KEY VALUE", given.many, "Pairs; \"-\" alone reads them, one per line, from standard input")
        ->required();

    CLI::App* const add = group("add", "Add a server, a resource or a process id");
    CLI::App* const remove = group("remove", "Remove a server or a resource");
    CLI::App* const modify = group("modify", "Give a server or a resource another priority");
    CLI::App* const describe = group("describe", "Show or set the description of a resource");

    // Without a kind: servers.
    const auto commands_on = [&](const ResourceKind* kind) {
        const char* const key = kind ? kind->key : "server";
        const std::string one = kind ? fmt::format("an {} resource", key) : "a server";
        const auto names = [&](CLI::App& made) { kind ? type_and_name(made) : name_option(made); };
        CLI::App* made =
            command(*add, key, "Add " + one, [kind](const Context& all) { return add_member(all, kind, given); });
        names(*made);
        pri_option(*made);
        made = command(*remove, key, "Remove " + one,
                       [kind](const Context& all) { return remove_member(all, kind, given); });
        names(*made);
        made = command(*modify, key, "Give " + one + " another priority",
                       [kind](const Context& all) { return modify_member(all, kind, given); });
        names(*made);
        pri_option(*made);
    };
    const auto text_option = [&](CLI::App& made) {
        add_file(made, context);
        made.add_option("TEXT", given.text, "The new description, escaped as names are")->each([](const std::string&) {
            given.has_text = true;
        });
    };
    commands_on(nullptr);
    CLI::App* made = nullptr;
    for (const ResourceKind& kind : resource_kinds) {
        commands_on(&kind);
        made = command(*describe, kind.key, fmt::format("Show or set the description of an {} resource", kind.key),
                       [&kind](const Context& all) { return describe_resource(all, kind, given); });
        type_and_name(*made);
        text_option(*made);
    }
    made = command(*add, "fst", "Set the process id of a kind under a name, which may be new",
                   [](const Context& all) { return add_fst(all, given); });
    name_option(*made);
    made->add_option("KIND", given.kind, "0, 1 or 2")->required();
    made->add_option("PID", given.pid, "The process id")->required();
    made->add_option("DATA", given.data, "The 64-bit value beside it (0)");
    made = command(*describe, "fst", "Show or set the description of the fst resource",
                   [](const Context& all) { return describe_fst(all, given); });
    text_option(*made);

    CLI::App* const simulate = group("simulate", "Simulate a network partition");
    command(*simulate, "on", "Simulate that these servers have failed", [](const Context& all) {
        return simulate_on(all, given);
    })->add_option("SERVER", given.many, "As in keys");
    command(*simulate, "off", "End the simulation", [](const Context& all) { return simulate_off(all); });

    command(app, "clear", "Remove everything from the picture", [](const Context& all) {
        return clear(all, given);
    })->add_flag("--yes", given.yes, "Confirm");
}

}  // namespace shmnmctl
