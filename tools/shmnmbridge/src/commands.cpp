#include "commands.h"

#include "configuration.h"

namespace bridge {

void add_configuration(CLI::App& command, std::string& file) {
    command.add_option("--config", file, "The bridge's configuration (etc/bridge.xml below the installation path)")
        ->type_name("FILE");
}

std::string file_or_installed(const std::string& file) {
    return file.empty() ? installed_configuration_file() : file;
}

void add_commands(CLI::App& app, Command& command) {
    add_run_command(app, command);
    add_check_command(app, command);
    add_status_command(app, command);
}

}  // namespace bridge
