// Pictures as documents: export, diff, apply.
#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <string>
#include <vector>

#include "context.h"
#include "machines.h"
#include "picture/apply.h"
#include "picture/differences.h"
#include "picture/picture_document.h"
#include "picture/shared_words.h"

namespace shmnmctl {
namespace {

struct DocumentArguments {
    std::string left, right, file;
    bool dry_run = false;
};

std::string lines(const std::vector<Difference>& differences) {
    std::string text;
    for (const Difference& difference : differences) text += to_text(difference) + "\n";
    return text;
}

Exit export_picture(const Context& context) {
    const Snapshot snapshot = look(context);
    write_output(line(to_json(context.force ? document_of_rest(snapshot) : document_of(snapshot))));
    return Exit::done;
}

/// The export or dump in a file; "-" is standard input.
Document read(const std::string& file) {
    if (file != "-") return read_document(file);
    const std::string text = read_standard_input();
    return document_in({text.begin(), text.end()}, "standard input");
}

/// What one side of a comparison names.
Document side(const Context& context, const std::string& name) {
    return name == "live" ? document_of(look(context)) : read(name);
}

/// What the machine shows.
Document side(const Context& context, const Machine& machine) {
    try {
        return document_of(look(at_machine(context, machine)));
    } catch (const std::exception&) {
        throw failure_at(machine, current_failure());
    }
}

/// The two pictures that were named: files first, then machines.
std::vector<Document> sides(const Context& context, const DocumentArguments& given) {
    std::vector<std::string> names;
    for (const std::string* const name : {&given.left, &given.right}) {
        if (!name->empty()) names.push_back(*name);
    }
    const size_t count = names.size() + context.machines.size();
    if (count < 2) {
        throw Failure(Exit::usage, fmt::format("{} is missing: an export, a dump, or \"live\", or --machine SERVER; "
                                               "\"shmnmctl diff --help\" tells more",
                                               count == 0 ? "A" : "B"));
    }
    if (count > 2) throw Failure(Exit::usage, "more than two pictures were named; compare two at a time");
    if (names.size() == 2 && names[0] == "-" && names[1] == "-") {
        throw Failure(Exit::usage, "A and B cannot both be standard input: write one of them to a file");
    }
    std::vector<Document> all;
    const std::vector<Machine> machines = named_machines(context);
    all.reserve(count);
    for (const std::string& name : names) all.push_back(side(context, name));
    for (const Machine& machine : machines) all.push_back(side(context, machine));
    return all;
}

Exit diff(const Context& context, const DocumentArguments& given) {
    const std::vector<Document> both = sides(context, given);
    std::vector<Difference> found = differences(both[0], both[1]), local;
    // Machines need not agree on words that never leave them.
    if (!context.machines.empty()) {
        const auto first_local =
            std::stable_partition(found.begin(), found.end(), [](const Difference& one) { return is_shared(one.key); });
        local.assign(std::make_move_iterator(first_local), std::make_move_iterator(found.end()));
        found.erase(first_local, found.end());
    }
    if (context.json()) {
        Json answer = document("diff");
        answer["differences"] = to_json(found);
        if (!context.machines.empty()) answer["local"] = to_json(local);
        write_output(line(answer));
    } else {
        std::string text = lines(found);
        if (!local.empty()) text += "words that no bridge shares:\n" + lines(local);
        write_output(text);
    }
    return found.empty() ? Exit::done : Exit::no;
}

/// The difference is written before anything is changed, and without the lock: its reader may be slow.
Exit apply_picture(const Context& context, const DocumentArguments& given) {
    const Document target = read(given.file);
    std::vector<Difference> shown = differences_to_apply(context.access, target, context.force);
    if (!context.json()) write_output(lines(shown));
    if (!given.dry_run) {
        std::vector<Difference> applied = apply(context.access, target, context.force);
        if (context.json()) {
            shown = std::move(applied);
        } else {
            // What other processes changed since.
            std::erase_if(applied, [&](const Difference& one) {
                return std::find(shown.begin(), shown.end(), one) != shown.end();
            });
            write_output(lines(applied));
        }
    }
    if (context.json()) {
        Json answer = document("apply");
        answer["applied"] = !given.dry_run;
        answer["differences"] = to_json(shown);
        write_output(line(answer));
    }
    return Exit::done;
}

}  // namespace

void add_document_commands(CLI::App& app, Context& context) {
    static DocumentArguments given;
    CLI::App* const export_command =
        app.add_subcommand("export", "Write the picture as a JSON document, for diff and apply");
    add_format(*export_command, context);
    add_file(*export_command, context);
    add_read_force(*export_command, context);
    export_command->callback([&] { context.command = [&] { return export_picture(context); }; });

    CLI::App* const diff_command =
        app.add_subcommand("diff", "List what is different between two pictures; the exit status is 1 if anything is");
    add_format(*diff_command, context);
    diff_command->add_option("A", given.left, "An export, a dump, or \"live\"; \"-\": standard input");
    diff_command->add_option("B", given.right, "An export, a dump, or \"live\"; \"-\": standard input");
    diff_command->footer(
        "--machine SERVER names a picture too, and may be given twice. Words that no bridge shares are then listed "
        "apart, "
        "and\ndo not count for the exit status.");
    diff_command->callback([&] {
        context.compares_machines = true;
        context.command = [&] { return diff(context, given); };
    });

    CLI::App* const apply_command =
        app.add_subcommand("apply", "Make the live region show a picture, all of it or nothing");
    add_format(*apply_command, context);
    add_force(*apply_command, context);
    apply_command->add_flag("--dry-run", given.dry_run, "Only list what would be changed");
    apply_command->add_option("FILE", given.file, "An export or a dump; \"-\": standard input")->required();
    apply_command->callback([&] { context.command = [&] { return apply_picture(context, given); }; });
}

}  // namespace shmnmctl
