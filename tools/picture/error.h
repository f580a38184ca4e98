// The errors of this library. The program decides by the kind how it ends and what it advises.
#pragma once

#include <stdexcept>
#include <string>

namespace picture {

enum class ErrorKind {
    invalid,                ///< a text is not a valid value, name or assignment
    invalid_condition,      ///< a text is not a condition
    no_such_word,           ///< no region can have such a key, whatever names it contains
    no_such_key,            ///< the picture has no word with that key
    no_such_member,         ///< the region has no such server or resource
    member_exists,          ///< a server or resource to be added exists already
    set_together,           ///< the library sets the word together with others, which do not have valid values yet
    set_by_simulation,      ///< only a simulation sets the word
    shared_priority,        ///< the library finds servers by priority, and two have the same one
    needs_force,            ///< it may harm the region, so it must be asked for expressly
    no_region,              ///< no process holds the region
    lock_timeout,           ///< waiting for the lock timed out
    configuration_differs,  ///< the region was laid out by counts other than this machine's configuration
    no_configuration,       ///< the configuration file does not exist
    invalid_configuration,  ///< the configuration file is invalid
    not_a_dump,             ///< a file does not hold a region
    not_a_picture,          ///< a text is not an exported picture
    damaged,                ///< the bytes of a region contradict themselves
    interrupted,            ///< a killed process has left a change half done
    inexpressible,          ///< no calls of the library make the region so
    not_whole,              ///< a file holds no region or a part of one, but it has a header
    no_notes,               ///< the system keeps no note of changes
    note_outdated,          ///< the note of an interrupted change is of a region that has ended
    change_in_doubt,        ///< an interrupted change can be completed, but the region was used since
    change_lost,            ///< an interrupted change can no longer be completed
    region_refused,         ///< a region lives, but it is of another user or was laid out by other counts
    refused,                ///< trying again cannot help
    failed                  ///< the system or the library failed
};

class Error : public std::runtime_error {
  public:
    /// @param[in] line  what failed and why, in one line without a newline; printable
    Error(ErrorKind kind_of_error, const std::string& line) : std::runtime_error(line), kind(kind_of_error) {}

    ErrorKind kind;
};

}  // namespace picture
