#include "responses.h"

#include <fmt/format.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "page.h"
#include "picture/conditions.h"
#include "picture/escape.h"
#include "picture/json.h"
#include "picture/members.h"
#include "picture/transfer.h"
#include "target.h"

namespace shmnmweb {
namespace {

using picture::ErrorKind;
using picture::Json;
using picture::printable;

/// How shmnmctl would end.
constexpr int exit_no = 1, exit_usage = 2, exit_no_region = 3, exit_timeout = 4, exit_failed = 5;
/// A copy that is older tells nothing of the cluster any more.
constexpr uint64_t oldest_us = 5'000'000;
/// Longer ones would keep other clients waiting.
constexpr size_t longest_condition = 2'000;

Response plain_json(const Json& document) {
    Response response;
    response.bodies.push_back(body_of(picture::line(document)));
    return response;
}

int exit_of(ErrorKind kind) {
    if (kind == ErrorKind::no_region) return exit_no_region;
    return kind == ErrorKind::lock_timeout ? exit_timeout : exit_failed;
}

/// Why there is no picture that can be shown; nothing if there is one.
std::optional<Response> no_picture(const Site& site) {
    const Look* const look = site.look.get();
    if (!look || (!look->content && !look->problem)) {
        return error(503, exit_failed, "no copy of the region was made yet; ask again in a second");
    }
    if (!look->content) return error(503, exit_of(look->problem->kind), look->problem->message);
    if (!look->content->snapshot.live) return std::nullopt;
    const uint64_t age_us = picture::platform::steady_clock_us() - look->copied_steady_us;
    if (age_us <= oldest_us) return std::nullopt;
    const std::string age = fmt::format("the newest copy of the region is {} s old", age_us / 1'000'000);
    if (!look->problem) return error(503, exit_failed, age + "; see whether this machine is overloaded");
    return error(503, exit_of(look->problem->kind), fmt::format("{}: {}", age, look->problem->message));
}

/// Why the copy tells nothing of a living cluster; nothing if it does.
std::optional<Response> not_live(const Site& site) {
    if (auto none = no_picture(site)) return none;
    if (site.look->content->snapshot.live) return std::nullopt;
    return error(503, exit_failed, "a dump is shown, which tells nothing of now; start shmnmweb without --dump");
}

Response show_page() {
    Response response;
    response.content_type = "text/html; charset=utf-8";
    response.fields.emplace_back("Content-Security-Policy", page_policy);
    response.fields.emplace_back("X-Frame-Options", "DENY");
    response.bodies.push_back({nullptr, page});
    return response;
}

Response show_names(const Site& site) {
    if (site.names.text().empty()) {
        return error(404, exit_no, "there are no names for values; start shmnmweb with --names FILE");
    }
    Response response;
    response.bodies.push_back(body_of(site.names.text()));
    return response;
}

Response show_picture(const Site& site) {
    if (auto none = no_picture(site)) return *none;
    Response response;
    std::string_view document = site.look->content->document();
    if (!site.look->bridge) {
        response.bodies.push_back(body_within(site.look->content, document));
        return response;
    }
    // The marks age, and the rest is made once.
    document.remove_suffix(std::string_view("}\n").size());
    response.bodies.push_back(body_within(site.look->content, document));
    response.bodies.push_back(body_of(",\"bridge\":" + picture::to_json_text(*site.look->bridge) + "}\n"));
    return response;
}

Response show_events(const Request& request, const Site& site) {
    Response response;
    response.content_type = "text/event-stream";
    response.fields.emplace_back("X-Accel-Buffering", "no");
    response.is_stream = true;
    response.seen = site.history.step_of(request.last_event_id);
    response.closes = true;
    return response;
}

Response show_metrics(const Request& request, const Target& target, Site& site) {
    Scrape scrape;
    for (const auto& [name, value] : target.parameters) {
        if (name != "collect[]") continue;
        if (std::find(metric_groups.begin(), metric_groups.end(), value) == metric_groups.end()) {
            return error(400, exit_usage,
                         fmt::format("unknown group of metrics \"{}\"; use {}", printable(value),
                                     fmt::join(metric_groups, ", ")));
        }
        scrape.groups.push_back(value);
    }
    const Look nothing;
    scrape.look = site.look ? site.look.get() : &nothing;
    scrape.is_up = !no_picture(site);
    if (!scrape.is_up) {
        const auto kind = scrape.look->problem ? scrape.look->problem->kind : ErrorKind::failed;
        ++(kind == ErrorKind::no_region      ? site.failures.no_region
           : kind == ErrorKind::lock_timeout ? site.failures.lock_timeout
                                             : site.failures.refused);
    }
    scrape.names = &site.names;
    scrape.replacements = site.history.replacements();
    scrape.failures = site.failures;
    scrape.is_open_metrics = request.accept.find("application/openmetrics-text") != std::string::npos;
    Response response;
    response.content_type = scrape.is_open_metrics ? "application/openmetrics-text; version=1.0.0; charset=utf-8"
                                                   : "text/plain; version=0.0.4; charset=utf-8";
    response.fields.emplace_back("Vary", "Accept");
    response.bodies.push_back(body_of(to_metrics(scrape)));
    return response;
}

Response show_health(const Site& site) {
    if (auto none = not_live(site)) return *none;
    Json document = picture::document("health");
    document["healthy"] = true;
    document["copied"] = picture::platform::to_text(site.look->copied_us);
    return plain_json(document);
}

Response show_alive(const std::string& name, const Site& site) {
    if (auto none = not_live(site)) return *none;
    const picture::Server* const server = picture::find_server(site.look->content->decoded, name);
    if (!server) {
        return error(404, exit_no,
                     fmt::format("there is no server {}; /picture.json shows what there is", printable(name)));
    }
    Json document = picture::document("alive");
    document["server"] = picture::escaped(name);
    document["alive"] = server->is_alive();
    Response response = plain_json(document);
    response.status = server->is_alive() ? 200 : 503;
    return response;
}

/// What is answered before there is a copy of all bytes that may be sent: a slow client keeps its copy for long.
std::optional<Response> not_copied(Site& site) {
    constexpr size_t most = 8;
    std::erase_if(site.sent, [](const auto& copy) { return copy.expired(); });
    const auto& all = site.look->all;
    const bool is_sent =
        all && std::any_of(site.sent.begin(), site.sent.end(), [&](const auto& copy) { return copy.lock() == all; });
    if (!is_sent && site.sent.size() >= most) {
        return error(503, exit_failed, "clients are still reading 8 other copies of all bytes; try again later");
    }
    if (!all) {
        Response response;
        response.needs_all = true;
        return response;
    }
    if (!is_sent) site.sent.push_back(all);
    return std::nullopt;
}

Response show_dump(Site& site) {
    if (auto none = no_picture(site)) return *none;
    if (auto none = not_copied(site)) return *none;
    const auto& all = site.look->all;
    Response response;
    response.content_type = "application/octet-stream";
    response.bodies.push_back(body_within(all, {reinterpret_cast<const char*>(all->bytes.data()), all->bytes.size()}));
    return response;
}

/// Whether one of the tags that a client has is this one.
bool has_tag(std::string_view known, std::string_view tag) {
    return known == "*" || known.find(tag) != std::string_view::npos;
}

Response show_snapshot(const Request& request, const Target& target, Site& site) {
    if (auto none = no_picture(site)) return *none;
    const Look& look = *site.look;
    const bool all = target.has("all");
    if (all) {
        if (auto none = not_copied(site)) return *none;
    }
    Response response;
    response.content_type = "application/octet-stream";
    if (!all) {
        // Weak: the facts of the lock change without the region.
        const std::string tag = fmt::format("\"{}-{}-{}\"", site.history.run(), look.version, look.bridge_version);
        response.fields.emplace_back("ETag", "W/" + tag);
        response.fields.emplace_back("Cache-Control", "no-cache");
        if (has_tag(request.if_none_match, tag)) {
            response.status = 304;
            return response;
        }
    }
    const auto snapshot =
        all ? look.all : std::shared_ptr<const picture::Snapshot>(look.content, &look.content->snapshot);
    picture::Transfer transfer =
        picture::to_transfer(*snapshot, look.bridge ? &*look.bridge : nullptr, look.is_lock_held, all);
    response.bodies.push_back(body_of(std::move(transfer.head)));
    for (const std::string_view bytes : transfer.bytes) response.bodies.push_back(body_within(snapshot, bytes));
    return response;
}

/// The words of the region and of the bridge.
std::vector<picture::Word> all_words(const Look& look) {
    std::vector<picture::Word> words = look.content->words;
    if (!look.bridge) return words;
    for (picture::Word& word : picture::words(*look.bridge)) words.push_back(std::move(word));
    return words;
}

Response answer_query(const Target& target, const Site& site) {
    const auto text = target.parameter("condition");
    if (!text) {
        return error(400, exit_usage, "the condition is missing; use /query?condition=servers/alpha/nodestat=1");
    }
    if (text->size() > longest_condition) {
        return error(400, exit_usage,
                     fmt::format("the condition has {} bytes; use at most {}, or several requests", text->size(),
                                 longest_condition));
    }
    if (auto none = no_picture(site)) return *none;
    try {
        Json document = picture::document("query");
        document["holds"] = picture::Condition(*text).holds(all_words(*site.look));
        return plain_json(document);
    } catch (const picture::Error& wrong) {
        return error(400, exit_usage, std::string(wrong.what()) + R"(; see "shmnmctl query --help")");
    }
}

std::optional<Response> refuse_host(const Request& request, const Site& site) {
    if (request.is_local) return std::nullopt;
    if (request.hosts.size() > 1) return error(400, exit_usage, "the request names several hosts; send one Host field");
    if (request.hosts.empty()) {
        // Health checks speak HTTP/1.0 without it; no browser does.
        if (!request.is_http_1_1) return std::nullopt;
        return error(400, exit_usage, "the Host field is missing; send one, as HTTP/1.1 demands");
    }
    if (site.hosts.allows(request.hosts[0])) return std::nullopt;
    return error(
        421, exit_usage,
        fmt::format("this server is not known as \"{}\"; ask it as localhost, or start shmnmweb with --allow-host",
                    printable(request.hosts[0])));
}

Response route(const Request& request, const Target& target, Site& site) {
    if (target.is("")) return show_page();
    if (target.is("picture.json")) return show_picture(site);
    if (target.is("events")) return show_events(request, site);
    if (target.is("metrics")) return show_metrics(request, target, site);
    if (target.is("healthz")) return show_health(site);
    if (target.is("dump")) return show_dump(site);
    if (target.is("snapshot")) return show_snapshot(request, target, site);
    if (target.is("query")) return answer_query(target, site);
    if (target.is("names.json")) return show_names(site);
    const auto& path = target.path;
    if (path.size() == 3 && path[0] == "servers" && path[2] == "alive") return show_alive(path[1], site);
    return error(404, exit_no,
                 "there is nothing at this path; see /, /picture.json, /events, /metrics, /healthz, "
                 "/servers/NAME/alive, /dump, /snapshot, /query?condition= and /names.json");
}

Response refused(Response response) {
    response.closes = true;
    return response;
}

}  // namespace

Response respond(const Request& request, Site& site) {
    const bool is_head = request.method == "HEAD";
    Response response;
    if (auto wrong_host = refuse_host(request, site)) {
        response = refused(*wrong_host);
    } else if (!is_head && request.method != "GET") {
        response = refused(error(405, exit_usage, "shmnmweb only reads; use GET or HEAD"));
        response.fields.emplace_back("Allow", "GET, HEAD");
    } else if (request.has_body) {
        response = refused(error(400, exit_usage, "the request has a body; send it without one"));
    } else if (const auto target = parse_target(request.target)) {
        response = route(request, *target, site);
    } else {
        response = refused(error(400, exit_usage, "the target is not a path as URLs write it; begin it with a slash"));
    }
    response.is_head = is_head;
    return response;
}

}  // namespace shmnmweb
