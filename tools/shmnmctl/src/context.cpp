#include "context.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <fmt/format.h>

#include "picture/error.h"
#include "picture/escape.h"
#include "picture/laid_out.h"

namespace shmnmctl {

Snapshot look_unjudged(const Context& context, Bytes wanted) {
    return context.file.empty() ? LiveRegion(context.access).copy(wanted) : read_dump(context.file);
}

Snapshot look(const Context& context) {
    Snapshot snapshot = look_unjudged(context, Bytes::in_use);
    std::string doubt;
    try {
        doubt = snapshot.live ? doubt_about(snapshot) : settle_dump(snapshot, context.file);
    } catch (const Error& error) {
        if (!context.force) throw;
        doubt = error.what();
    }
    if (!doubt.empty()) std::fputs(warning(doubt, context.json()).c_str(), stderr);
    return snapshot;
}

Failure closed_output() {
    return {Exit::failed, "cannot write to standard output: its reader has closed it"};
}

void write_output(std::string_view text) {
    errno = 0;
    const bool written = std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::fflush(stdout) == 0;
    if (written) return;
    // What is still buffered would fail again as the process ends.
    const int error = errno;
    if (error == EPIPE || error == EINVAL) throw closed_output();
    throw Failure(Exit::failed, fmt::format("cannot write to standard output: {}", std::strerror(error)));
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

void add_force(CLI::App& command, Context& context) {
    command.add_flag(
        "--force", context.force,
        "Change the region even if its counts differ from this machine's configuration; with set also its maxima");
}

}  // namespace shmnmctl
