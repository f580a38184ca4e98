#include "context.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include <fmt/format.h>

#include "console/console.h"
#include "duration.h"
#include "picture/error.h"
#include "picture/escape.h"
#include "picture/laid_out.h"
#include "region_source.h"
#include "session.h"

namespace shmnmctl {

Snapshot look_unjudged(const Context& context, Bytes wanted) {
    if (!context.file.empty() && !context.from.empty()) {
        throw Failure(Exit::usage, "a dump and a server were named; use --file or --from");
    }
    return context.file.empty() ? RegionSource(context).copy(wanted) : read_dump(context.file);
}

Snapshot look(const Context& context) {
    Snapshot snapshot = look_unjudged(context, Bytes::in_use);
    std::string doubt;
    try {
        doubt = snapshot.live ? doubt_about(snapshot) : settle_dump(snapshot, context.file);
    } catch (const Error& error) {
        if (!context.force && error.kind == ErrorKind::not_whole) {
            const std::string file = shown_file(context.file);
            throw Failure(Exit::failed, fmt::format("{}; \"shmnmctl verify {}\" checks it, \"shmnmctl status --force "
                                                    "{}\" shows what there is",
                                                    error.what(), file, file));
        }
        if (!context.force) throw;
        doubt = error.what();
    }
    if (!doubt.empty()) write_error(warning(doubt, context.json()));
    return snapshot;
}

Failure closed_output() {
    return {Exit::failed, "cannot write to standard output: its reader has closed it"};
}

std::string read_standard_input() {
    std::string text;
    char part[1 << 14];
    for (size_t size = 0; (size = std::fread(part, 1, sizeof part, stdin)) > 0;) text.append(part, size);
    return text;
}

void write_error(const std::string& text) {
    console::write(stderr, text);
}

void write_output(std::string_view text) {
    const std::string problem = console::write(stdout, text);
    if (!problem.empty()) throw Failure(Exit::failed, "cannot write to standard output: " + problem);
}

void add_format(CLI::App& command, Context& context) {
    command.add_option("--format", context.format, "How to answer")
        ->type_name("text|json")
        ->check([](const std::string& format) {
            if (format == "text" || format == "json") return std::string();
            return fmt::format("invalid format \"{}\": use text or json", as_typed(format));
        })
        ->default_str("text");
}

CLI::Option* add_file(CLI::App& command, Context& context) {
    return command.add_option("-f,--file", context.file, "Read this dump, not the live region")->type_name("FILE");
}

CLI::Option* add_file_argument(CLI::App& command, Context& context) {
    return command.add_option("FILE", context.file, "The same as --file")->excludes(add_file(command, context));
}

void add_read_force(CLI::App& command, Context& context) {
    command.add_flag("--force", context.force, "Show what there is in a file that was cut or is not a dump");
}

void refuse_file(const Context& context, const std::string& advice) {
    if (!context.file.empty()) throw Failure(Exit::usage, "a dump does not change: " + advice);
}

void add_from(CLI::App& app, Context& context) {
    app.add_option("--from", context.from, "Read from shmnmweb at unix:PATH, http://HOST:PORT or https://HOST:PORT")
        ->type_name("ADDRESS");
    app.add_option("--machine", context.machines,
                   "Read from the machine of this server, whose address the bridge knows")
        ->type_name("SERVER")
        ->allow_extra_args(false);
    app.add_option("--ca-file", context.credentials.authorities, "Authorities that https servers are known by")
        ->type_name("FILE");
    app.add_option("--cert", context.credentials.certificate, "This user's certificate for https")->type_name("FILE");
    app.add_option("--key", context.credentials.key, "Its key, if that is in a file of its own")->type_name("FILE");
    add_time(app, context.server_timeout_ms,
             {.name = "--server-timeout",
              .help = "Time for the server to connect and to answer, and for each 256 KiB of a long answer",
              .least = "1ms",
              .most = "24h"});
}

void refuse_from(const CLI::App& app, const Context& context) {
    if (context.from.empty() && context.machines.empty()) {
        if (context.credentials.empty()) return;
        throw Failure(Exit::usage, "--ca-file, --cert and --key are for a server; name it by --from https://HOST:PORT");
    }
    constexpr std::array readers{"status", "list", "get", "dump", "verify", "query", "wait", "watch", "export", "diff"};
    for (const CLI::App* const command : app.get_subcommands()) {
        if (context.machines.size() > 1 && command->get_name() != "diff") {
            throw Failure(Exit::usage,
                          "several machines were named; \"status --machines\" shows all of them, \"diff\" "
                          "compares two");
        }
        if (std::find(readers.begin(), readers.end(), command->get_name()) != readers.end()) continue;
        throw Failure(Exit::usage, fmt::format("\"{}\" needs the region of this machine: run it there, without {}",
                                               command->get_name(), context.from.empty() ? "--machine" : "--from"));
    }
}

void add_force(CLI::App& command, Context& context) {
    command.add_flag(
        "--force", context.force,
        "Change the region even if its counts differ from this machine's configuration; with set also its maxima");
}

}  // namespace shmnmctl
