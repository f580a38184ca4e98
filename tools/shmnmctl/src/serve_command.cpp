// "serve": creates the region from the configuration and registers the members, or takes hold of the live region and
// changes nothing, and holds it until it is told to stop.
#include <fmt/format.h>

#include <optional>
#include <string>
#include <vector>

#include "context.h"
#include "picture/cluster_file.h"
#include "picture/decode.h"
#include "picture/error.h"
#include "picture/escape.h"
#include "picture/held_region.h"
#include "picture/library.h"
#include "picture/registration.h"
#include "service/region_watch.h"
#include "service/service.h"
#include "session.h"

namespace shmnmctl {
namespace {

struct ServeOptions {
    std::string file;
    bool register_missing = false, clean = false, until_eof = false;
    bool as_service = false, only_check_arguments = false;
};

/// The region as it was taken hold of.
struct Hold {
    HeldRegion region;
    bool completed = false;    ///< a killed process had left it half registered
    ClusterMembers added;      ///< what this process registered
    Picture picture;           ///< as it was then
    std::string without_lock;  ///< why the lock was not held meanwhile; empty: it was
};

/// The region is attached to as long as this lives.
class Attached {
  public:
    Attached() { call(library().shmnm_attach); }
    ~Attached() { library().shmnm_detach(); }
    Attached(const Attached&) = delete;
    Attached& operator=(const Attached&) = delete;
};

/// The region is mapped as by its creator as long as this lives.
class Created {
  public:
    explicit Created(const std::string& installed) {
        const uint32_t result = library().shmnm_create();
        if (result == SHMNM_OK) return;
        throw Failure(Exit::failed, fmt::format("shmnm_create failed with code {} ({}); {}", result, meaning(result),
                                                result == SHMNM_ERR_LOADCONFIG
                                                    ? fmt::format("put the configuration at {}", shown_file(installed))
                                                    : "see the trace log"));
    }
    ~Created() { library().shmnm_delete(); }
    Created(const Created&) = delete;
    Created& operator=(const Created&) = delete;
};

/// A creator that does not take the lock may be about to write its counts. Its region is not kept for it: it ends with
/// a creator that is killed.
void await_creator(const Access& access) {
    constexpr uint32_t look_ms = 10;
    const std::optional<HeldRegion> made = HeldRegion::open();
    if (!made || made->size().counts != Counts{}) return;
    if (access.tell) access.tell("waits for the creator of the region to write its counts");
    for (uint32_t waited_ms = 0; waited_ms < access.lock_timeout_ms; waited_ms += look_ms) {
        if (made->size().counts != Counts{} || session::wait(look_ms) == session::Wake::stop) return;
    }
}

/// Nothing is written to a region that was laid out by other counts: every process would read it at wrong places.
/// @throws Error  it was
void expect_counts(const HeldRegion& held, const Counts& wanted, const std::string& file) {
    const HeldRegion::Size size = held.size();
    if (size.counts == wanted && size.fits(wanted)) return;
    std::string advice;
    if (size.fits(wanted)) {
        advice = fmt::format(
            "; {}set its maxima back with \"shmnmctl set --force cluster/max_servers {} cluster/max_hb {} "
            "cluster/max_np {}\"",
            size.fits(size.counts) ? "if they were changed while it lived, " : "", wanted.servers, wanted.hb,
            wanted.np);
    }
    if (size.fits(size.counts)) {
        advice +=
            "; put the region's counts into the configuration, or stop every process of the cluster before you "
            "start it with other counts";
    }
    throw Error(ErrorKind::region_refused,
                fmt::format("nothing was written: the live region {} has {} in {} bytes, {} has {} in {} bytes{}",
                            full_name(mapping_name), to_text(size.counts), size.bytes, shown_file(file),
                            to_text(wanted), in_pages(Layout(wanted).size), advice));
}

/// Makes the region, or takes hold of the live one. All of it happens under the lock, so that others who serve find the
/// region with its members.
Hold make_or_hold(LiveRegion& region, const ServeOptions& options, const ClusterFile& file) {
    const Locked locked(region);
    HeldRegion held = HeldRegion::make_or_open(file.counts);
    ClusterMembers added;
    bool completed = false;
    if (held.is_new()) {
        const Created created(installed_cluster_file());
        // The configuration may have changed since it was read.
        expect_counts(held, file.counts, options.file);
        added = register_all(file.members);
    } else {
        expect_counts(held, file.counts, options.file);
        const Picture before = decode(region.copy_locked());
        completed = is_half_registered(before, file.members);
        if (completed || options.register_missing) {
            const Attached attached;
            added = register_missing(before, file.members);
        }
    }
    return {.region = std::move(held),
            .completed = completed,
            .added = std::move(added),
            .picture = decode(region.copy_locked()),
            .without_lock = ""};
}

/// The same, but a live region is held even if the lock does not come: holding it writes nothing.
Hold take_hold(LiveRegion& region, const ServeOptions& options, const ClusterFile& file) {
    try {
        return make_or_hold(region, options, file);
    } catch (const Error& error) {
        if (error.kind != ErrorKind::lock_timeout || options.register_missing) throw;
        std::optional<HeldRegion> held = HeldRegion::open();
        if (!held) throw;
        expect_counts(*held, file.counts, options.file);
        return {.region = std::move(*held),
                .completed = false,
                .added = {},
                .picture = decode(region.copy_locked()),
                .without_lock = error.what()};
    }
}

/// What others have removed meanwhile stays removed.
void take_out(LiveRegion& region, const ClusterMembers& members) {
    if (members.empty()) return;
    const Change change(region, false);
    for (const Member& member : members) remove(member);
}

std::string ready_text(const ClusterFile& file, const Hold& hold) {
    const size_t missing = missing_from(hold.picture, file.members).size();
    std::string text;
    for (const ResourceKind& kind : resource_kinds) {
        text += fmt::format("{}{} {}", text.empty() ? "" : " and ", (hold.picture.*kind.resources).size(), kind.key);
    }
    text = fmt::format("ready: {} with {} servers, {} resources", full_name(mapping_name), hold.picture.servers.size(),
                       text);
    if (!hold.region.is_new()) text += fmt::format("; it was there, and {} members were registered", hold.added.size());
    if (hold.completed) text += ", which a killed process had left out";
    if (missing == 1) text += "; 1 member of the configuration is not in it, --register registers it";
    if (missing > 1) {
        text += fmt::format("; {} members of the configuration are not in it, --register registers them", missing);
    }
    if (!hold.without_lock.empty()) text += "; " + hold.without_lock;
    return text;
}

void tell_that_it_is_ready(const Context& context, const ClusterFile& file, const Hold& hold) {
    if (service::is_running()) return service::ready(ready_text(file, hold));
    if (context.json()) {
        const size_t servers = hold.picture.servers.size();
        const size_t missing = missing_from(hold.picture, file.members).size();
        Json ready = document("serve");
        ready["ready"] = true;
        ready["region"] = full_name(mapping_name);
        ready["servers"] = servers;
        for (const ResourceKind& kind : resource_kinds) ready[kind.key] = (hold.picture.*kind.resources).size();
        ready["created"] = hold.region.is_new();
        ready["registered"] = hold.added.size();
        ready["completed"] = hold.completed;
        ready["missing"] = missing;
        if (!hold.without_lock.empty()) ready["without_lock"] = hold.without_lock;
        write_output(line(ready));
    } else {
        write_output(ready_text(file, hold) + "\n");
    }
    session::notify_service_manager("READY=1");
}

/// Until it is to stop, a service tells what its administrator should learn of.
void watch_until_stop(LiveRegion& region, const Counts& counts) {
    constexpr uint32_t look_ms = 1'000;
    service::RegionWatch watch(service::tell);
    while (session::wait(look_ms) != session::Wake::stop) {
        if (region.take_over()) watch.see_takeover();
        watch.see_configuration(service::configuration_problem(counts));
    }
}

Exit serve(const Context& context, ServeOptions options) {
    const std::string installed = installed_cluster_file();
    if (options.file.empty()) options.file = installed;
    const ClusterFile file = read_cluster_file(options.file);
    if (const auto configured = configured_counts(); configured && *configured != file.counts) {
        throw Failure(
            Exit::failed,
            fmt::format("{} has {}, but every process lays the region out by {}, which has {}; make "
                        "them equal",
                        shown_file(options.file), to_text(file.counts), shown_file(installed), to_text(*configured)));
    }
    session::catch_stop();
    // The lock may be waited for twice.
    service::starting(context.access.lock_timeout_ms);
    await_creator(context.access);
    service::starting(context.access.lock_timeout_ms);
    LiveRegion region(context.access);
    const Hold hold = take_hold(region, options, file);
    tell_that_it_is_ready(context, file, hold);
    if (service::is_running()) {
        watch_until_stop(region, file.counts);
    } else {
        session::wait_for_stop(options.until_eof);
    }
    session::notify_service_manager("STOPPING=1");
    if (options.clean && !service::ends_with_the_system()) {
        service::stopping(context.access.lock_timeout_ms);
        take_out(region, hold.added);
    }
    return Exit::done;
}

}  // namespace

void add_serve_command(CLI::App& app, Context& context) {
    static ServeOptions options;
    options = {};
    CLI::App* const command =
        app.add_subcommand("serve", "Create the region from the configuration, or hold the live one as it is");
    add_format(*command, context);
    command->add_option("--config", options.file, "The configuration (etc/cluster.xml below the installation path)")
        ->type_name("FILE");
    command->add_flag("--register", options.register_missing, "Register the members that a live region does not have");
    command->add_flag("--clean", options.clean, "Remove the members that it registered before it ends");
    command->add_flag("--until-eof", options.until_eof, "End when standard input ends, too");
    // For "shmnmctl service" only.
    command->add_flag("--service", options.as_service)->group("");
    command->add_flag("--check-arguments", options.only_check_arguments)->group("");
    command->callback([&context] {
        if (options.as_service && options.until_eof) {
            throw Failure(Exit::usage, "a service has no standard input: leave out --until-eof");
        }
        context.is_service = options.as_service && !options.only_check_arguments;
        context.command = [&context] { return options.only_check_arguments ? Exit::done : serve(context, options); };
    });
}

}  // namespace shmnmctl
