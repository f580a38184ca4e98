// Pictures as documents: export, diff, apply.
#include <fmt/format.h>

#include <algorithm>
#include <string>
#include <vector>

#include "context.h"
#include "picture/apply.h"
#include "picture/differences.h"
#include "picture/picture_document.h"

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

Exit diff(const Context& context, const DocumentArguments& given) {
    if (given.left == "-" && given.right == "-") {
        throw Failure(Exit::usage, "A and B cannot both be standard input: write one of them to a file");
    }
    const std::vector<Difference> found = differences(side(context, given.left), side(context, given.right));
    if (context.json()) {
        Json answer = document("diff");
        answer["differences"] = to_json(found);
        write_output(line(answer));
    } else {
        write_output(lines(found));
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
    diff_command->add_option("A", given.left, "An export, a dump, or \"live\"; \"-\": standard input")->required();
    diff_command->add_option("B", given.right, "An export, a dump, or \"live\"; \"-\": standard input")->required();
    diff_command->callback([&] { context.command = [&] { return diff(context, given); }; });

    CLI::App* const apply_command =
        app.add_subcommand("apply", "Make the live region show a picture, all of it or nothing");
    add_format(*apply_command, context);
    add_force(*apply_command, context);
    apply_command->add_flag("--dry-run", given.dry_run, "Only list what would be changed");
    apply_command->add_option("FILE", given.file, "An export or a dump; \"-\": standard input")->required();
    apply_command->callback([&] { context.command = [&] { return apply_picture(context, given); }; });
}

}  // namespace shmnmctl
