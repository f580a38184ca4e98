// The services of the system: what is asked of the service manager, and what it answers. Failures are told with what to
// do about them.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace service {

/// A service as it is to be installed.
struct Definition {
    std::wstring name, description, command_line;
    std::wstring account;                   ///< "": LocalSystem; of an installed service: as it is
    std::optional<std::wstring> password;   ///< of the account, if it needs one
    std::vector<std::wstring> environment;  ///< "NAME=value"
    std::wstring message_file;              ///< the file that has the texts of its events
};

/// After a failure the service is started again: after the first, the second and each further one in a day.
inline constexpr uint32_t restart_delays_ms[]{5'000, 30'000, 60'000};
inline constexpr uint32_t failures_forgotten_after_s = 86'400;

enum class Phase { stopped, starting, stopping, running, paused };

/// A service as it is installed.
struct Installed {
    Phase phase = Phase::stopped;
    uint32_t process = 0;                  ///< 0: none
    bool process_has_ended = false;        ///< without telling the service manager, which may not have noticed yet
    uint32_t error = 0;                    ///< of the last run, as the system numbers errors
    uint32_t exit = 0;                     ///< of the last run, if the service itself failed
    uint32_t checkpoint = 0, wait_ms = 0;  ///< how far a start or stop is, and the time until the next checkpoint
    std::wstring command_line, account;
    bool is_automatic = false, is_disabled = false;
    std::vector<std::wstring> environment;

    bool is_running() const { return phase == Phase::running && !process_has_ended; }
    bool has_ended() const { return phase == Phase::stopped || process_has_ended; }
};

class ControlManager {
  public:
    /// @param[in] to_change  also to install services
    /// @throws picture::Error  it cannot be reached
    explicit ControlManager(bool to_change);

    /// @return nothing: there is no service of that name
    std::optional<Installed> find(const std::wstring& name) const;
    /// All of it or nothing. @throws picture::Error
    void install(const Definition& definition) const;
    /// Makes an installed service as it is defined. When it starts and what follows a failure stay as an administrator
    /// may have set them. @return whether anything was changed. @throws picture::Error
    bool change(const Definition& definition, const Installed& installed) const;
    /// Marks a service for removal, unless it is marked already, and removes the source of its events. The service is
    /// gone when it has ended and no program has it open. @throws picture::Error
    void remove(const std::wstring& name) const;
    /// Asks for it and does not wait: the service may have ended again already. @throws picture::Error
    void start(const std::wstring& name) const;
    /// Asks for it and does not wait. @return false: it is just starting or stopping; ask again.
    /// @throws picture::Error
    bool stop(const std::wstring& name) const;

  private:
    struct Closer {
        void operator()(void* handle) const;
    };
    using Handle = std::unique_ptr<void, Closer>;

    Handle open(const std::wstring& name, uint32_t access, const char* what) const;

    Handle manager_;
};

/// Removes what a service has left in the system's list of event sources.
void remove_event_source(const std::wstring& name);

}  // namespace service
