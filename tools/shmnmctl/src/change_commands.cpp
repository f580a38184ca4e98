// The commands that change the picture. Each takes the lock once, and does all or nothing.
#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "context.h"
#include "picture/assignments.h"
#include "picture/decode.h"
#include "picture/escape.h"
#include "picture/library.h"

namespace shmnmctl {
namespace {

constexpr size_t server_name_limit = 255, resource_text_limit = 31, pid_name_limit = 255, description_size = 256;

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
                      fmt::format("the {} {} has a % without two hexadecimal digits; a % itself is written %25", what,
                                  printable(text)));
    }
    if (name->empty() || name->size() > limit || name->find('\0') != std::string::npos) {
        throw Failure(Exit::usage, fmt::format("the {} \"{}\" is not taken; 1 to {} bytes without NUL are", what,
                                               escaped(*name), limit));
    }
    return *name;
}

template <typename Number>
Number number_from(const std::string& text, const char* what, std::optional<Number> (Value::*in_range)() const) {
    const auto value = Value::parse(text);
    const auto number = value ? (*value.*in_range)() : std::nullopt;
    if (!number) throw Failure(Exit::usage, fmt::format("{} is no {}", printable(text), what));
    return *number;
}

/// Turns what the library answered into the end of the command.
void expect_changed(const char* function, uint32_t result, const std::string& what) {
    switch (result) {
        case SHMNM_ERR_NOTFOUND:
            throw Failure(Exit::no, fmt::format("there is no {}; \"shmnmctl status\" shows what there is", what));
        case SHMNM_ERR_EXIST:
            throw Failure(Exit::failed, fmt::format("there is a {} already; \"shmnmctl modify\" changes it", what));
        case SHMNM_ERR_COUNTOVER:
        case SHMNM_ERR_RSCOVER:
            throw Failure(Exit::failed, fmt::format("the {} has no room: {}; raise its number in the configuration",
                                                    what, meaning(result)));
        default:
            expect_ok(function, result);
    }
}

/// Makes one call of the library on the attached region, under the lock.
template <typename Call>
Exit change(const Context& context, const char* function, const std::string& what, const Call& call) {
    LiveRegion region(context.access);
    const Change attached(region, context.force);
    expect_changed(function, call(library()), what);
    return Exit::done;
}

std::string read_standard_input() {
    std::string text;
    char part[1 << 14];
    for (size_t size = 0; (size = std::fread(part, 1, sizeof part, stdin)) > 0;) text.append(part, size);
    return text;
}

Exit set(const Context& context, const Arguments& given) {
    std::vector<Assignment> assignments;
    if (given.many.size() == 1 && given.many[0] == "-") {
        assignments = parse_assignments(read_standard_input());
    } else if (given.many.size() % 2 == 0) {
        for (size_t i = 0; i < given.many.size(); i += 2) {
            assignments.push_back(parse_assignment(given.many[i], given.many[i + 1]));
        }
    } else {
        throw Failure(Exit::usage, "set takes pairs of a KEY and a VALUE, or - to read them from standard input");
    }
    LiveRegion region(context.access);
    const Change change(region, context.force);
    const Picture picture = decode(change.before());
    for (const Step& step : plan(picture, assignments)) expect_ok(step.function, step.call());
    return Exit::done;
}

Exit add_server(const Context& context, const Arguments& given) {
    const std::string name = name_from(given.name, "server", server_name_limit);
    const int32_t pri = number_from(given.pri, "priority of a server", &Value::to_int32);
    return change(context, "shmnm_addnode", "server " + escaped(name),
                  [&](const Library& calls) { return calls.shmnm_addnode(name.c_str(), pri); });
}

Exit remove_server(const Context& context, const Arguments& given) {
    const std::string name = name_from(given.name, "server", server_name_limit);
    return change(context, "shmnm_rmnode", "server " + escaped(name),
                  [&](const Library& calls) { return calls.shmnm_rmnode(name.c_str()); });
}

Exit modify_server(const Context& context, const Arguments& given) {
    const std::string name = name_from(given.name, "server", server_name_limit);
    const int32_t pri = number_from(given.pri, "priority of a server", &Value::to_int32);
    return change(context, "shmnm_modifynode", "server " + escaped(name),
                  [&](const Library& calls) { return calls.shmnm_modifynode(name.c_str(), pri); });
}

/// All that tells the commands on hb resources from those on np resources.
struct Table {
    const char* name;
    const char* add_function;
    const char* remove_function;
    const char* modify_function;
    const char* describe_function;
    decltype(Library::shmnm_addhbrsc) Library::*add;
    decltype(Library::shmnm_rmhbrsc) Library::*remove;
    decltype(Library::shmnm_modifyhbrsc) Library::*modify;
    decltype(Library::shmnm_sethbdescript) Library::*describe;
    std::vector<Resource> Picture::*resources;
};

const Table hb{"hb",
               "shmnm_addhbrsc",
               "shmnm_rmhbrsc",
               "shmnm_modifyhbrsc",
               "shmnm_sethbdescript",
               &Library::shmnm_addhbrsc,
               &Library::shmnm_rmhbrsc,
               &Library::shmnm_modifyhbrsc,
               &Library::shmnm_sethbdescript,
               &Picture::hb};
const Table np{"np",
               "shmnm_addnprsc",
               "shmnm_rmnprsc",
               "shmnm_modifynprsc",
               "shmnm_setnpdescript",
               &Library::shmnm_addnprsc,
               &Library::shmnm_rmnprsc,
               &Library::shmnm_modifynprsc,
               &Library::shmnm_setnpdescript,
               &Picture::np};

struct Identity {
    std::string type, name, text;
};

Identity identity_from(const Table& table, const Arguments& given) {
    Identity identity{.type = name_from(given.type, "type", resource_text_limit),
                      .name = name_from(given.name, "resource", resource_text_limit),
                      .text = ""};
    identity.text = fmt::format("{} resource {}/{}", table.name, escaped(identity.type), escaped(identity.name));
    return identity;
}

Exit add_resource(const Context& context, const Table& table, const Arguments& given) {
    const Identity identity = identity_from(table, given);
    const uint32_t pri = number_from(given.pri, "priority of a resource", &Value::to_uint32);
    return change(context, table.add_function, identity.text, [&](const Library& calls) {
        return (calls.*table.add)(identity.type.c_str(), identity.name.c_str(), pri);
    });
}

Exit remove_resource(const Context& context, const Table& table, const Arguments& given) {
    const Identity identity = identity_from(table, given);
    return change(context, table.remove_function, identity.text, [&](const Library& calls) {
        return (calls.*table.remove)(identity.type.c_str(), identity.name.c_str());
    });
}

Exit modify_resource(const Context& context, const Table& table, const Arguments& given) {
    const Identity identity = identity_from(table, given);
    const uint32_t pri = number_from(given.pri, "priority of a resource", &Value::to_uint32);
    return change(context, table.modify_function, identity.text, [&](const Library& calls) {
        return (calls.*table.modify)(identity.type.c_str(), identity.name.c_str(), pri);
    });
}

Exit add_fst(const Context& context, const Arguments& given) {
    const std::string name = name_from(given.name, "name", pid_name_limit);
    const int32_t kind = number_from(given.kind, "kind of a process id", &Value::to_int32);
    if (kind < 0 || kind > 2) throw Failure(Exit::usage, "a kind is 0, 1 or 2");
    const uint32_t pid = number_from(given.pid, "process id", &Value::to_uint32);
    const uint64_t data = number_from(given.data.empty() ? "0" : given.data, "64-bit value", &Value::to_uint64);
    return change(context, "shmnm_setfstrscpid", "table of process ids",
                  [&](const Library& calls) { return calls.shmnm_setfstrscpid(name.c_str(), kind, pid, data); });
}

/// The bytes of a description as they are stored: the text, then zeros.
std::string description_from(const std::string& text) {
    auto bytes = unescaped(text);
    if (!bytes || bytes->size() > description_size) {
        throw Failure(Exit::usage,
                      fmt::format("a description has at most {} bytes; a % is written %25", description_size));
    }
    bytes->resize(description_size);
    return *bytes;
}

Exit show_description(const Context& context, const std::string& descript) {
    if (context.json()) {
        Json answer = document("describe");
        answer["descript"] = escaped(descript);
        write_output(line(answer));
    } else {
        write_output(printable(descript) + "\n");
    }
    return Exit::done;
}

Exit describe_resource(const Context& context, const Table& table, const Arguments& given) {
    const Identity identity = identity_from(table, given);
    const auto described = [&](const Picture& picture) -> const Resource& {
        for (const Resource& resource : picture.*table.resources) {
            if (resource.type == identity.type && resource.name == identity.name) return resource;
        }
        throw Failure(Exit::no, fmt::format("there is no {}; \"shmnmctl status\" shows what there is", identity.text));
    };
    if (!given.has_text) return show_description(context, described(decode(look(context))).descript);

    const std::string bytes = description_from(given.text);
    LiveRegion region(context.access);
    const Change change(region, context.force);
    described(decode(change.before()));
    const uint32_t result = (library().*table.describe)(identity.type.c_str(), identity.name.c_str(), bytes.data(),
                                                        static_cast<int32_t>(bytes.size()));
    if (result == SHMNM_ERR_NOTFOUND) {
        throw Failure(Exit::failed, fmt::format("{} is not described: the library reaches the description of the "
                                                "first {} resource alone",
                                                identity.text, table.name));
    }
    expect_ok(table.describe_function, result);
    return Exit::done;
}

Exit describe_fst(const Context& context, const Arguments& given) {
    const auto missing = [] {
        return Failure(Exit::no, "the region was laid out without an fst resource; the configuration's fstr says so");
    };
    if (!given.has_text) {
        const Picture picture = decode(look(context));
        if (!picture.fst) throw missing();
        return show_description(context, picture.fst->descript);
    }
    const std::string bytes = description_from(given.text);
    LiveRegion region(context.access);
    const Change change(region, context.force);
    const uint32_t result = library().shmnm_setfstdescript(bytes.data(), static_cast<int32_t>(bytes.size()));
    if (result == SHMNM_ERR_NOTFOUND) throw missing();
    expect_ok("shmnm_setfstdescript", result);
    return Exit::done;
}

Exit simulate_on(const Context& context, const Arguments& given) {
    constexpr int32_t priority_limit = 1 << 20;
    LiveRegion region(context.access);
    const Change change(region, context.force);
    const Picture picture = decode(change.before());
    std::map<int32_t, bool> failed;
    for (const std::string& text : given.many) {
        const std::string name = name_from(text, "server", server_name_limit);
        const auto found = std::find_if(picture.servers.begin(), picture.servers.end(),
                                        [&](const Server& server) { return server.name == name; });
        if (found == picture.servers.end()) {
            throw Failure(Exit::no,
                          fmt::format("there is no server {}; \"shmnmctl status\" shows what there is", escaped(name)));
        }
        if (found->pri < 0 || found->pri >= priority_limit) {
            throw Failure(Exit::failed,
                          fmt::format("server {} is not simulated: its priority {} is not between 0 and {}",
                                      escaped(name), found->pri, priority_limit - 1));
        }
        failed[found->pri] = true;
    }
    for (const Server& server : picture.servers) {
        const bool named = std::any_of(given.many.begin(), given.many.end(),
                                       [&](const std::string& text) { return unescaped(text) == server.name; });
        if (!named && failed.contains(server.pri)) {
            throw Failure(Exit::failed,
                          fmt::format("server {} shares the priority {}, and the library simulates by priority; name "
                                      "it too, or give it another with \"shmnmctl modify server\"",
                                      escaped(server.name), server.pri));
        }
    }
    std::vector<uint32_t> words(failed.empty() ? 0 : static_cast<size_t>(failed.rbegin()->first) + 1);
    for (const auto& [pri, is_failed] : failed) words[static_cast<size_t>(pri)] = is_failed;
    expect_ok("shmnm_setnpsimu",
              library().shmnm_setnpsimu(1, words.empty() ? nullptr : words.data(), static_cast<int32_t>(words.size())));
    return Exit::done;
}

Exit simulate_off(const Context& context) {
    LiveRegion region(context.access);
    const Change change(region, context.force);
    expect_ok("shmnm_setnpsimu", library().shmnm_setnpsimu(0, nullptr, 0));
    return Exit::done;
}

Exit clear(const Context& context, const Arguments& given) {
    if (!given.yes) {
        throw Failure(Exit::usage, "clear takes all servers, resources and values out of the picture; say --yes too");
    }
    LiveRegion region(context.access);
    const Change change(region, context.force);
    expect_ok("shmnm_clear", library().shmnm_clear());
    // Mapping it anew writes the maxima, without which nothing could be added.
    expect_ok("shmnm_detach", library().shmnm_detach());
    expect_ok("shmnm_attach", library().shmnm_attach());
    return Exit::done;
}

}  // namespace

void add_changing_commands(CLI::App& app, Context& context) {
    static Arguments given;
    const auto command = [&context](CLI::App& parent, const char* name, const char* what, auto work) {
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
    const auto name_option = [](CLI::App& made) { made.add_option("NAME", given.name, "As in keys")->required(); };
    const auto type_and_name = [&](CLI::App& made) {
        made.add_option("TYPE", given.type, "As in keys")->required();
        name_option(made);
    };
    const auto pri_option = [](CLI::App& made) { made.add_option("PRI", given.pri, "The priority")->required(); };

    command(app, "set", "Set words by their keys, all under one lock or none",
            [](const Context& all) { return set(all, given); })
        ->add_option("KEY VALUE", given.many, "Pairs; \"-\" alone reads such lines from standard input")
        ->required();

    CLI::App* const add = group("add", "Add a server, a resource or a process id");
    CLI::App* const remove = group("remove", "Remove a server or a resource");
    CLI::App* const modify = group("modify", "Give a server or a resource another priority");
    CLI::App* const describe = group("describe", "Show or set the description of a resource");

    CLI::App* made = command(*add, "server", "Add a server", [](const Context& all) { return add_server(all, given); });
    name_option(*made);
    pri_option(*made);
    made = command(*remove, "server", "Remove a server", [](const Context& all) { return remove_server(all, given); });
    name_option(*made);
    made = command(*modify, "server", "Give a server another priority",
                   [](const Context& all) { return modify_server(all, given); });
    name_option(*made);
    pri_option(*made);

    for (const Table* const table : {&hb, &np}) {
        const std::string of = fmt::format("an {} resource", table->name);
        made = command(*add, table->name, ("Add " + of).c_str(),
                       [table](const Context& all) { return add_resource(all, *table, given); });
        type_and_name(*made);
        pri_option(*made);
        made = command(*remove, table->name, ("Remove " + of).c_str(),
                       [table](const Context& all) { return remove_resource(all, *table, given); });
        type_and_name(*made);
        made = command(*modify, table->name, ("Give " + of + " another priority").c_str(),
                       [table](const Context& all) { return modify_resource(all, *table, given); });
        type_and_name(*made);
        pri_option(*made);
        made = command(*describe, table->name, ("Show or set the description of " + of).c_str(),
                       [table](const Context& all) { return describe_resource(all, *table, given); });
        type_and_name(*made);
        add_file(*made, context);
        made->add_option("TEXT", given.text, "The new description, escaped as names are")->each([](const std::string&) {
            given.has_text = true;
        });
    }
    made = command(*add, "fst", "Set the process id of a kind under a name, which may be new",
                   [](const Context& all) { return add_fst(all, given); });
    name_option(*made);
    made->add_option("KIND", given.kind, "0, 1 or 2")->required();
    made->add_option("PID", given.pid, "The process id")->required();
    made->add_option("DATA", given.data, "The 64-bit value beside it (0)");
    made = command(*describe, "fst", "Show or set the description of the fst resource",
                   [](const Context& all) { return describe_fst(all, given); });
    add_file(*made, context);
    made->add_option("TEXT", given.text, "The new description, escaped as names are")->each([](const std::string&) {
        given.has_text = true;
    });

    CLI::App* const simulate = group("simulate", "Simulate a network partition");
    command(*simulate, "on", "Simulate that these servers have failed", [](const Context& all) {
        return simulate_on(all, given);
    })->add_option("SERVER", given.many, "As in keys");
    command(*simulate, "off", "End the simulation", [](const Context& all) { return simulate_off(all); });

    command(app, "clear", "Take everything out of the picture", [](const Context& all) {
        return clear(all, given);
    })->add_flag("--yes", given.yes, "It is meant");
}

}  // namespace shmnmctl
