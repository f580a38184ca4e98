// "serve": creates the region from the configuration, registers the members, and holds it until it is told to stop.
#include <fmt/format.h>

#include <algorithm>
#include <string>
#include <vector>

#include "context.h"
#include "kzmutil.h"
#include "picture/cluster_file.h"
#include "picture/escape.h"
#include "picture/library.h"
#include "session.h"

namespace shmnmctl {
namespace {

struct ServeOptions {
    std::string file;
    bool clean = false, until_eof = false;
};

void create(const std::string& installed) {
    const uint32_t result = library().shmnm_create();
    if (result == SHMNM_OK) return;
    std::string advice = "see the trace log";
    if (result == SHMNM_ERR_LOADCONFIG) advice = fmt::format("put the configuration at {}", printable(installed));
    if (result == SHMNM_ERR_CREATEMAP) advice = "make room in shared memory, or see who owns the region's name";
    throw Failure(Exit::failed,
                  fmt::format("shmnm_create failed with code {} ({}); {}", result, meaning(result), advice));
}

/// All of them, or none: one that is refused takes those before it with it, and no priority is touched.
void register_members(LiveRegion& region, const std::vector<ClusterMember>& members) {
    const Locked locked(region);
    std::vector<const ClusterMember*> added, there_before;
    for (const ClusterMember& member : members) {
        const uint32_t result = add(member, member.priority).result;
        if (result == SHMNM_OK || result == SHMNM_ERR_EXIST) {
            (result == SHMNM_OK ? added : there_before).push_back(&member);
            continue;
        }
        std::for_each(added.rbegin(), added.rend(), [](const Member* one) { remove(*one); });
        throw Failure(Exit::failed, fmt::format("cannot register {}: {}; the region existed before and may be full",
                                                to_text(member), meaning(result)));
    }
    for (const ClusterMember* const member : there_before) expect_ok(set_priority(*member, member->priority), *member);
}

/// What others have removed meanwhile stays removed.
void take_out(LiveRegion& region, const std::vector<ClusterMember>& members) {
    const Locked locked(region);
    for (const Member& member : members) remove(member);
}

void tell_that_it_is_ready(const Context& context, const ClusterFile& file) {
    const auto count = [&](const ResourceKind* kind) {
        return std::count_if(file.members.begin(), file.members.end(),
                             [=](const Member& member) { return member.kind == kind; });
    };
    const auto servers = count(nullptr);
    if (context.json()) {
        Json ready = document("serve");
        ready["ready"] = true;
        ready["region"] = full_name(mapping_name);
        ready["servers"] = servers;
        for (const ResourceKind& kind : resource_kinds) ready[kind.key] = count(&kind);
        write_output(line(ready));
    } else {
        std::string resources;
        for (const ResourceKind& kind : resource_kinds) {
            resources += fmt::format("{}{} {}", resources.empty() ? "" : " and ", count(&kind), kind.key);
        }
        write_output(
            fmt::format("ready: {} with {} servers, {} resources\n", full_name(mapping_name), servers, resources));
    }
    session::notify_service_manager("READY=1");
}

Exit serve(const Context& context, const ServeOptions& options) {
    const std::string installed = installed_cluster_file();
    const ClusterFile file = read_cluster_file(options.file.empty() ? installed : options.file);
    if (const auto configured = configured_counts(); configured && *configured != file.counts) {
        throw Failure(
            Exit::failed,
            fmt::format("{} has {}, but every process lays the region out by {}, which has {}; make "
                        "them equal",
                        printable(options.file), to_text(file.counts), printable(installed), to_text(*configured)));
    }
    session::catch_stop();
    LiveRegion region(context.access);
    region.mutex();
    create(installed);
    try {
        register_members(region, file.members);
        tell_that_it_is_ready(context, file);
        session::wait_for_stop(options.until_eof);
        session::notify_service_manager("STOPPING=1");
        if (options.clean) take_out(region, file.members);
    } catch (...) {
        library().shmnm_delete();
        throw;
    }
    call(library().shmnm_delete);
    return Exit::done;
}

}  // namespace

void add_serve_command(CLI::App& app, Context& context) {
    static ServeOptions options;
    CLI::App* const command = app.add_subcommand("serve", "Create the region from the configuration and hold it");
    add_format(*command, context);
    command->add_option("--config", options.file, "The configuration (etc/cluster.xml below the installation path)");
    command->add_flag("--clean", options.clean, "Remove the members before the end");
    command->add_flag("--until-eof", options.until_eof, "End when standard input ends, too");
    command->callback([&context] { context.command = [&context] { return serve(context, options); }; });
}

}  // namespace shmnmctl
