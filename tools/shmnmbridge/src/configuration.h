// The bridge's configuration, etc/bridge.xml below the installation path: beside the cluster's configuration and, like
// it, XML, so that one folder has one syntax, one parser and its limits.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "core_settings.h"
#include "etcd/settings.h"

namespace bridge {

struct Configuration {
    Settings bridge;
    etcd::Settings etcd;
};

struct ConfigurationProblem {
    uint32_t line;
    std::string text;  ///< what is wrong and what to do; printable
};

struct CheckedConfiguration {
    Configuration configuration;
    std::vector<ConfigurationProblem> problems;  ///< all there are, by their lines
};

/// etc/bridge.xml below the installation path.
std::string installed_configuration_file();

/// Reads and checks a configuration, with the files that it names.
/// @throws picture::Error  the file cannot be read
CheckedConfiguration check_configuration(const std::string& file);

}  // namespace bridge
