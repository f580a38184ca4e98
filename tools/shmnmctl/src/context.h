// What the options that all commands share say, and where output goes.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include <CLI/CLI.hpp>

#include "failure.h"
#include "picture/json.h"
#include "picture/live.h"
#include "picture/snapshot.h"
#include "picture_http/remote.h"

namespace shmnmctl {

using namespace picture;  // most of what the commands speak of

struct Context {
    Access access;
    std::string format = "text";
    std::string file;                   ///< a dump to be read in place of the live region; empty: none
    std::string from;                   ///< a server to be asked in place of the live region; empty: none
    std::vector<std::string> machines;  ///< whose regions are read in place of this one's, by their servers' names
    picture_http::Credentials credentials;
    uint32_t server_timeout_ms = picture_http::Remote::usual_timeout_ms;
    bool compares_machines = false;  ///< the command reads the machines itself
    bool force = false;
    std::function<Exit()> command;  ///< what the command line asks for
    bool is_service = false;        ///< and the service manager has started it

    bool json() const { return format == "json"; }
};

/// A copy of what a reading command looks at: the dump or server that was named, else the live region. What calls of
/// the library have made odd is told on standard error.
/// @throws Error  also when the dump was cut, or is none, unless --force was given
Snapshot look(const Context& context);

/// The same for a command that judges itself: without a warning, and whatever the dump is.
Snapshot look_unjudged(const Context& context, Bytes wanted);

/// Writes to standard output and makes sure that it is written.
/// @throws Failure  it is closed or full
void write_output(std::string_view text);

/// Writes to standard error.
void write_error(const std::string& text);

/// All bytes of standard input.
std::string read_standard_input();

/// What a command ends with whose output nobody can read any more.
Failure closed_output();

/// Options that several commands take.
void add_format(CLI::App& command, Context& context);
CLI::Option* add_file(CLI::App& command, Context& context);
CLI::Option* add_file_argument(CLI::App& command, Context& context);  // --file FILE, or FILE alone
void add_read_force(CLI::App& command, Context& context);             // for what looks()
/// For a command that waits for changes, which a dump does not have. @throws Failure  a dump was named
/// @param[in] advice  what reads a dump
void refuse_file(const Context& context, const std::string& advice);
void add_force(CLI::App& command, Context& context);
/// --from, with what belongs to it: for the whole tool.
void add_from(CLI::App& app, Context& context);
/// @throws Failure  a server was named, and this command needs this machine's region; or none was, but what it takes
void refuse_from(const CLI::App& app, const Context& context);

/// Every command adds itself.
void add_status_command(CLI::App& app, Context& context);      // status
void add_looking_commands(CLI::App& app, Context& context);    // list, get, dump
void add_changing_commands(CLI::App& app, Context& context);   // set, add, remove, modify, describe, simulate, clear
void add_document_commands(CLI::App& app, Context& context);   // export, diff, apply
void add_verify_command(CLI::App& app, Context& context);      // verify
void add_repair_command(CLI::App& app, Context& context);      // repair
void add_condition_commands(CLI::App& app, Context& context);  // query, wait
void add_watch_command(CLI::App& app, Context& context);       // watch
void add_lock_command(CLI::App& app, Context& context);        // lock
void add_holders_command(CLI::App& app, Context& context);     // holders
void add_serve_command(CLI::App& app, Context& context);       // serve
void add_service_command(CLI::App& app, Context& context);     // service

}  // namespace shmnmctl
