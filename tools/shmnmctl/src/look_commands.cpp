// The small commands that only look: list, get, dump.
#include <fmt/format.h>

#include "context.h"
#include "picture/answers.h"
#include "picture/decode.h"
#include "picture/escape.h"
#include "picture/json.h"
#include "picture/keys.h"
#include "picture/spelling.h"
#include "whole_file.h"

namespace shmnmctl {
namespace {

Exit list(const Context& context, const std::string& prefix) {
    expect_prefix(prefix);
    std::vector<Word> listed = words(decode(look(context)));
    std::erase_if(listed, [&](const Word& word) { return !is_below(word.key, prefix); });
    if (listed.empty()) {
        throw Error(ErrorKind::no_such_key, fmt::format("no key lies below {}", as_typed(prefix)));
    }
    std::string text;
    if (context.json()) {
        Json answer = document("list");
        answer["words"] = to_json(listed);
        text = line(answer);
    } else {
        for (const Word& word : listed) text += fmt::format("{} {}\n", word.key, word.value.to_text());
    }
    write_output(text);
    return Exit::done;
}

Exit get(const Context& context, const std::string& key) {
    expect_key(key);
    const Word word = word_of(decode(look(context)), key);
    if (context.json()) {
        Json answer = document("get");
        answer["key"] = word.key;
        answer["value"] = to_json(word.value);
        write_output(line(answer));
    } else {
        write_output(word.value.to_text() + "\n");
    }
    return Exit::done;
}

Exit dump(const Context& context, const std::string& name) {
    const Snapshot snapshot = look_unjudged(context, Bytes::all);
    const std::string_view bytes(reinterpret_cast<const char*>(snapshot.bytes.data()), snapshot.bytes.size());
    if (name == "-") {
        write_output(bytes);
        return Exit::done;
    }
    write_whole_file(name, bytes);
    if (context.json()) {
        Json answer = document("dump");
        answer["file"] = as_typed(name);
        answer["size"] = bytes.size();
        write_output(line(answer));
    }
    return Exit::done;
}

/// All keys that there can be.
std::string keys_footer() {
    std::string text = "Keys:";
    for (const KeyHelp& key : key_help()) text += fmt::format("\n  {:<35} {}", key.pattern, key.help);
    return text;
}

}  // namespace

void add_looking_commands(CLI::App& app, Context& context) {
    static std::string argument;
    CLI::App* const list_command = app.add_subcommand("list", "List every word with its key");
    add_format(*list_command, context);
    add_file(*list_command, context);
    add_read_force(*list_command, context);
    list_command->add_option("PREFIX", argument, "Only keys at or below this one");
    list_command->footer(keys_footer());
    list_command->callback([&] { context.command = [&] { return list(context, argument); }; });

    CLI::App* const get_command = app.add_subcommand("get", "Print the value of one key");
    add_format(*get_command, context);
    add_file(*get_command, context);
    add_read_force(*get_command, context);
    get_command->add_option("KEY", argument, "\"shmnmctl list\" shows all keys")->required();
    get_command->callback([&] { context.command = [&] { return get(context, argument); }; });

    CLI::App* const dump_command = app.add_subcommand("dump", "Write the region's bytes to a file");
    add_format(*dump_command, context);
    dump_command->add_option("FILE", argument, "The file to write; \"-\": standard output, the bytes alone")
        ->required();
    dump_command->callback([&] { context.command = [&] { return dump(context, argument); }; });
}

}  // namespace shmnmctl
