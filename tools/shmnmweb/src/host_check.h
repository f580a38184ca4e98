// Which names this server may be called by. A page of another site can make a browser ask any name that leads to this
// machine, and would then read the answers as its own; the Host field tells which name that was.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace shmnmweb {

class HostCheck {
  public:
    /// @param[in] names  allowed beside the names of the loopback interface
    explicit HostCheck(std::vector<std::string> names);

    /// @param[in] host  the value of a Host field: a name or address, with or without a port
    bool allows(std::string_view host) const;

  private:
    std::vector<std::string> names_;  ///< in lower case
};

/// The value of a Host field without its port and in lower case; "" if it is not one.
std::string name_of_host(std::string_view host);

}  // namespace shmnmweb
