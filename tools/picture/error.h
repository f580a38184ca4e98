// What goes wrong with a picture. How a program ends then, and what it advises, is up to the program: the kind tells.
#pragma once

#include <stdexcept>
#include <string>

namespace picture {

enum class ErrorKind {
    invalid,                ///< a text is not the value, name or assignment that it should be
    invalid_condition,      ///< a text is not a condition
    no_such_word,           ///< no region has such a key, whatever its names are
    no_such_key,            ///< the picture has no word of that key
    no_such_member,         ///< the region has no such server or resource
    member_exists,          ///< a server or resource is to be added that is there already
    set_together,           ///< the library sets the word together with others, which have no valid value yet
    set_by_simulation,      ///< only a simulation sets the word
    shared_priority,        ///< the library finds servers by priority, and two have the same one
    needs_force,            ///< it may harm the region, so it must be asked for expressly
    no_region,              ///< no process holds the region
    lock_timeout,           ///< the lock did not come in time
    configuration_differs,  ///< the region was laid out by other counts than this machine's configuration has
    no_configuration,       ///< there is no configuration at its place
    invalid_configuration,  ///< the configuration is not as it should be
    not_a_dump,             ///< a file does not hold a region
    no_notes,               ///< the system keeps no note of changes
    note_outdated,          ///< the note of an interrupted change is of a region that has ended
    change_in_doubt,        ///< an interrupted change can be completed, but the region was used since
    change_lost,            ///< an interrupted change cannot be completed any more
    refused,                ///< it cannot be done, however often it is tried
    failed                  ///< the system or the library failed
};

class Error : public std::runtime_error {
  public:
    /// @param[in] line  what failed and why, in one line without its end; printable
    Error(ErrorKind kind_of_error, const std::string& line) : std::runtime_error(line), kind(kind_of_error) {}

    ErrorKind kind;
};

}  // namespace picture
