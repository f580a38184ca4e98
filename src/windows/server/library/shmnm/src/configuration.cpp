#include "configuration.h"

#include "kzmutil.h"
#include "kzmxml.h"

namespace shmnm {
namespace {

constexpr int32_t type_integer = 1;

/// Reads a 32-bit number of a loaded policy. A failed read leaves `value` as it was. @return 0 on success
int32_t read_number(const char* path, int32_t& value) {
    int32_t read = 0, length = sizeof read;
    const int32_t result = xmllib_get_value(path, type_integer, &read, &length);
    if (result == 0) value = read;
    return result;
}

/// Logs what a call of the configuration library returned, unless it is 0. @return whether it was 0
template <typename... Context>
bool expect_success(Call call, int32_t result, const Message& message, Context... context) {
    if (result != 0) call.log(Level::error, message, context..., result);
    return result == 0;
}

uint32_t read_counts(Call call, Counts& counts) {
    char install_path[1024];
    if (!KzmutilGetInstallPath(install_path, sizeof install_path)) {
        return call.fail(SHMNM_ERR_INSTALLPATH, "KzmutilGetInstallPath() failed.");
    }
    if (!expect_success(call, xmllib_load_policy("all"), "xmllib_load_policy(all) failed(ret:%d)")) return SHMNM_OK;
    const struct {
        const char* path;
        int32_t& count;
    } keys[] = {{"/root/all/num/server", counts.servers},
                {"/root/all/num/hbr", counts.hb},
                {"/root/all/num/npr", counts.np},
                {"/root/all/num/fstr", counts.fst}};
    for (const auto& [path, count] : keys) {
        expect_success(call, read_number(path, count), "xmllib_get_value(%s) failed(ret:%d)", path);
    }
    expect_success(call, xmllib_unload_policy("all"), "xmllib_unload_policy(all) failed(ret:%d)");
    // Deliberate, although nothing is read from this policy here: it is loaded, and unloaded even if the load failed.
    expect_success(call, xmllib_load_policy("shmnm"), "xmllib_load_policy(shmnm) failed(ret:%d)");
    expect_success(call, xmllib_unload_policy("shmnm"), "xmllib_unload_policy(shmnm) failed(ret:%d)");
    return SHMNM_OK;
}

}  // namespace

LogSettings read_log_settings() {
    LogSettings settings;
    if (xmllib_load_policy("shmnm") == 0) {
        read_number("/root/shmnm/log/level", settings.level);
        read_number("/root/shmnm/log/size", settings.size);
        xmllib_unload_policy("shmnm");
    }
    return settings;
}

uint32_t load_counts(Counts& counts) {
    const Call call{"_loadinfo"};
    call.enter();
    return call.leave(read_counts(call, counts));
}

}  // namespace shmnm
