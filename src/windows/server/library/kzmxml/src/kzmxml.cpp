// The configuration companion. One state per process, under one lock, holds the loaded configuration and its counts.
#include "kzmxml.h"

#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "document.h"
#include "kzmutil.h"

namespace kzmxml {
namespace {

constexpr int32_t type_integer = 1;
constexpr size_t path_limit = 32'768;  // bytes of the longest installation path

/// How many calls of each kind still have to be undone, and what they loaded.
struct State {
    uint64_t initialised = 0, configuration_loads = 0;
    Element document;                                       ///< empty while the configuration is not loaded
    std::map<std::string, uint64_t, std::less<>> policies;  ///< the loaded policies and how often each was loaded

    void drop_configuration() {
        configuration_loads = 0;
        document.clear();
        policies.clear();
    }
};

std::mutex lock;
/// Created by the first init and deleted by the last term. It has no destructor, so threads that still run when the
/// process ends find it intact.
State* state = nullptr;

/// Runs the body of an export under the lock. No exception leaves the library.
template <typename Work>
int32_t locked(Work work) noexcept {
    try {
        const std::lock_guard held(lock);
        return work();
    } catch (...) {
        return XMLLIB_ERR_SYSTEM;
    }
}

bool is_configuration_loaded() {
    return state && state->configuration_loads > 0;
}

int32_t read_configuration(Element& document) {
    constexpr const char* file = "/etc/cluster.xml";
    char usual[1024];
    if (KzmutilGetInstallPath(usual, sizeof usual)) return read_document(std::string(usual) + file, document);
    const auto longest = std::make_unique_for_overwrite<char[]>(path_limit);
    if (!KzmutilGetInstallPath(longest.get(), path_limit)) return XMLLIB_ERR_SYSTEM;
    return read_document(std::string(longest.get()) + file, document);
}

/// The policy of an element's path: "all" for "/root/all/num/server".
std::string_view policy_of(std::string_view path) {
    constexpr std::string_view root = "/root/";
    if (!path.starts_with(root)) return {};
    path.remove_prefix(root.size());
    return path.substr(0, path.find('/'));
}

}  // namespace
}  // namespace kzmxml

using namespace kzmxml;

int32_t xmllib_init(const char* module) {
    if (!module || !*module) return XMLLIB_ERR_PARAM;
    return locked([&] {
        if (!state) state = new State;
        ++state->initialised;
        return XMLLIB_OK;
    });
}

int32_t xmllib_term(void) {
    return locked([&] {
        if (!state) return XMLLIB_ERR_ORDER;
        if (--state->initialised == 0) delete std::exchange(state, nullptr);
        return XMLLIB_OK;
    });
}

int32_t xmllib_load_config(int32_t flags) {
    if (flags != 0) return XMLLIB_ERR_PARAM;
    return locked([&]() -> int32_t {
        if (!state) return XMLLIB_ERR_ORDER;
        if (!is_configuration_loaded()) {
            const int32_t result = read_configuration(state->document);
            if (result != XMLLIB_OK) return result;
        }
        ++state->configuration_loads;
        return XMLLIB_OK;
    });
}

int32_t xmllib_unload_config(void) {
    return locked([&] {
        if (!is_configuration_loaded()) return XMLLIB_ERR_ORDER;
        if (--state->configuration_loads == 0) state->drop_configuration();
        return XMLLIB_OK;
    });
}

int32_t xmllib_load_policy(const char* policy) {
    if (!policy || !*policy) return XMLLIB_ERR_PARAM;
    return locked([&] {
        if (!is_configuration_loaded()) return XMLLIB_ERR_ORDER;
        const std::string path = std::string("/root/") + policy;
        if (policy_of(path) != policy || !find(state->document, path)) return XMLLIB_ERR_NOTFOUND;
        ++state->policies[policy];
        return XMLLIB_OK;
    });
}

int32_t xmllib_unload_policy(const char* policy) {
    if (!policy || !*policy) return XMLLIB_ERR_PARAM;
    return locked([&] {
        if (!is_configuration_loaded()) return XMLLIB_ERR_ORDER;
        const auto loaded = state->policies.find(policy);
        if (loaded == state->policies.end()) return XMLLIB_ERR_ORDER;
        if (--loaded->second == 0) state->policies.erase(loaded);
        return XMLLIB_OK;
    });
}

int32_t xmllib_get_value(const char* path, int32_t type, void* value, int32_t* length) {
    if (!path || type != type_integer || !value || !length) return XMLLIB_ERR_PARAM;
    return locked([&] {
        int32_t number = 0;
        if (!is_configuration_loaded()) return XMLLIB_ERR_ORDER;
        if (*length < static_cast<int32_t>(sizeof number)) return XMLLIB_ERR_BUFFER;
        const Element* const element = find(state->document, path);
        if (!element || !state->policies.contains(policy_of(path))) return XMLLIB_ERR_NOTFOUND;
        if (!read_integer(*element, number)) return XMLLIB_ERR_VALUE;
        std::memcpy(value, &number, sizeof number);
        *length = sizeof number;
        return XMLLIB_OK;
    });
}
