#include "configuration.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <optional>
#include <random>

#include "document.h"
#include "etcd/channel.h"
#include "etcd/endpoint.h"
#include "etcd/error.h"
#include "etcd/secret_file.h"
#include "file.h"
#include "machine.h"
#include "picture/cluster_file.h"
#include "picture/element_lines.h"
#include "picture/error.h"
#include "picture/escape.h"
#include "picture/keys.h"
#include "picture/spelling.h"
#include "well_formed.h"

namespace bridge {
namespace {

std::filesystem::path from_utf_8(const std::string& path) {
    return std::u8string(path.begin(), path.end());
}
std::string in_utf_8(const std::filesystem::path& path) {
    const std::u8string text = path.u8string();
    return {text.begin(), text.end()};
}

using kzmxml::Element;
using picture::printable;

struct Known {
    const char* name;
    bool may_repeat;
};
constexpr Known bridge_elements[] = {
    {"cluster", false}, {"server", false},    {"etcd", false},    {"host", false},      {"address", false},
    {"local", true},    {"window_ms", false}, {"lease_s", false}, {"gather_ms", false}, {"reset_when_cut_off", false}};
constexpr Known etcd_elements[] = {{"endpoint", true}, {"authorities", false}, {"certificate", false},
                                   {"key", false},     {"user", false},        {"password_file", false}};

constexpr size_t longest_text = 128;

bool is_name(const std::string& text) {
    return !text.empty() && text.size() <= longest_text && text == picture::escaped(text);
}

std::string random_name() {
    std::random_device random;
    return fmt::format("{:08x}{:08x}", random(), random());
}

/// Reads the elements of one file and collects what is wrong with them.
class Reader {
  public:
    Reader(std::string_view text, const Element& document, std::filesystem::path folder)
        : document_(document), lines_(text, document), folder_(std::move(folder)) {}

    CheckedConfiguration read() {
        const Element* const root = kzmxml::find(document_, "/bridge");
        if (!root) {
            report(document_.front().second, R"(the root element is not "bridge": write <bridge> ... </bridge>)");
            return std::move(checked_);
        }
        root_ = root;
        const Elements found = elements(*root, "/bridge", bridge_elements);
        read_names(found);
        read_times(found);
        read_local_words(found);
        if (found.contains("etcd")) {
            read_etcd(at(found, "etcd"));
        } else {
            report(*root, "no etcd: add an element etcd with an endpoint per member");
        }
        std::stable_sort(checked_.problems.begin(), checked_.problems.end(),
                         [](const auto& left, const auto& right) { return left.line < right.line; });
        return std::move(checked_);
    }

  private:
    using Elements = std::multimap<std::string, const Element*>;

    void report(const Element& at, const std::string& text) { checked_.problems.push_back({lines_.line_of(at), text}); }

    /// The known elements of an element, by their names. Others are reported.
    template <size_t size>
    Elements elements(const Element& parent, const char* path, const Known (&known)[size]) {
        Elements found;
        for (const auto& [name, element] : parent) {
            if (name == "<xmlattr>")
                report(parent, fmt::format("{} has attributes: write its values as elements", path));
            if (name.starts_with('<')) continue;  // the parser's own
            const auto* const entry = std::find_if(std::begin(known), std::end(known),
                                                   [&name = name](const Known& each) { return name == each.name; });
            if (entry == std::end(known)) {
                std::vector<std::string> names;
                for (const Known& each : known) names.emplace_back(each.name);
                report(element, fmt::format("unknown element \"{}\" in {}{}", printable(name), path,
                                            picture::did_you_mean(name, names,
                                                                  "use " + fmt::format("{}", fmt::join(names, ", ")))));
            } else if (!entry->may_repeat && found.contains(name)) {
                report(element, fmt::format("{} has {} twice, first in line {}: remove one of them", path, name,
                                            lines_.line_of(*found.find(name)->second)));
            } else {
                found.emplace(name, &element);
            }
        }
        return found;
    }

    /// The text of an element, without white space around it; nothing if it has none, which is reported.
    std::optional<std::string> text_of(const std::string& name, const Element& element) {
        for (const auto& [inner, ignored] : element) {
            if (inner == "<xmlcomment>") continue;
            report(element, fmt::format("{} contains {}: write its value as text between its tags", name,
                                        inner == "<xmlattr>" ? "attributes" : "the element " + printable(inner)));
            return std::nullopt;
        }
        const std::string& text = element.data();
        constexpr const char* spaces = " \t\r\n";
        const size_t first = text.find_first_not_of(spaces);
        if (first == std::string::npos) {
            report(element, fmt::format("{} is empty: give it a value, or remove it", name));
            return std::nullopt;
        }
        return text.substr(first, text.find_last_not_of(spaces) + 1 - first);
    }
    /// The text of an element that may be missing.
    std::optional<std::string> text_in(const Elements& elements, const char* name) {
        const auto found = elements.find(name);
        return found == elements.end() ? std::nullopt : text_of(name, *found->second);
    }
    const Element& at(const Elements& elements, const char* name) const { return *elements.find(name)->second; }

    void read_names(const Elements& elements) {
        Settings& settings = checked_.configuration.bridge;
        if (!elements.contains("cluster")) report(*root_, "no cluster: give it a name, the same on all its machines");
        if (const auto cluster = text_in(elements, "cluster")) {
            settings.cluster = *cluster;
            if (!is_name(*cluster)) {
                report(at(elements, "cluster"),
                       fmt::format("the name \"{}\" of the cluster cannot be part of a key: use at "
                                   "most {} letters, digits and -_.:@+,",
                                   printable(*cluster), longest_text));
            }
        }
        if (!elements.contains("server")) report(*root_, "no server: write this machine's name, as in cluster.xml");
        if (const auto server = text_in(elements, "server")) {
            settings.server = picture::escaped(*server);
            if (server->size() > picture::server_name_limit) {
                report(at(elements, "server"),
                       fmt::format("the name of the server is longer than {} bytes: write it as in cluster.xml",
                                   picture::server_name_limit));
            }
        }
        if (const auto host = text_in(elements, "host")) {
            settings.host = *host;
            if (!is_name(*host)) {
                report(at(elements, "host"),
                       fmt::format("the host \"{}\" is not a name: use at most {} letters, digits and -_.:@+,",
                                   printable(*host), longest_text));
            }
        } else if (!elements.contains("host")) {
            settings.host = usual_host();
            if (settings.host.empty()) {
                report(*root_, "the system tells no id of this machine: add an element host that no other machine has");
            }
        }
        if (const auto address = text_in(elements, "address")) read_address(at(elements, "address"), *address);
        settings.process = random_name();
    }

    /// Every machine may have its own, and so may every installation on it.
    static std::string usual_host() {
        std::string id = machine_id();
        const char* const name_space = std::getenv("KZMUTIL_NAMESPACE");
        if (id.empty() || !name_space || !*name_space) return id;
        return id + '.' + picture::escaped(name_space);
    }

    void read_address(const Element& element, const std::string& address) {
        const bool is_url = address.starts_with("http://") || address.starts_with("https://");
        if (!is_url || address.size() >= longest_text || address != picture::printable(address)) {
            report(element, fmt::format("the address \"{}\" is not where a browser finds this machine's picture: write "
                                        "http://HOST:PORT or https://HOST:PORT",
                                        printable(address)));
        }
        checked_.configuration.bridge.address = address;
    }

    /// @return nothing: it is missing, or wrong and reported
    std::optional<int32_t> number_in(const Elements& elements, const char* name, int32_t least, int32_t most) {
        const auto text = text_in(elements, name);
        if (!text) return std::nullopt;
        int32_t value = 0;
        if (kzmxml::read_integer(at(elements, name), value) && value >= least && value <= most) return value;
        report(at(elements, name),
               fmt::format("{} is \"{}\": use a number from {} to {}", name, printable(*text), least, most));
        return std::nullopt;
    }

    void read_times(const Elements& elements) {
        Settings& settings = checked_.configuration.bridge;
        const size_t problems_before = checked_.problems.size();
        if (const auto window = number_in(elements, "window_ms", 500, 60'000)) settings.window = *window;
        if (const auto lease = number_in(elements, "lease_s", 2, 3'600)) settings.lease = Time{*lease} * 1'000;
        if (const auto gather = number_in(elements, "gather_ms", 0, 10'000)) settings.gather = *gather;
        if (const auto reset = number_in(elements, "reset_when_cut_off", 0, 1)) settings.reset_when_cut_off = *reset;
        if (checked_.problems.size() > problems_before) return;
        // What reaches a member more slowly needs a longer window.
        etcd::Settings& members = checked_.configuration.etcd;
        members.connect_timeout =
            std::clamp(std::chrono::milliseconds(settings.window / 10), members.connect_timeout, members.timeout);
        // A failure of etcd shorter than the window must not cost the claim: its lease is renewed each third of it.
        if (settings.lease * 2 < settings.window * 3) {
            const char* const name = elements.contains("window_ms") ? "window_ms" : "lease_s";
            report(at(elements, name),
                   fmt::format("a lease of {} ms is too short for a window of {} ms: make lease_s at "
                               "least one and a half times as long",
                               settings.lease, settings.window));
        }
    }

    void read_local_words(const Elements& elements) {
        const auto [first, last] = elements.equal_range("local");
        for (auto each = first; each != last; ++each) {
            const auto word = text_of("local", *each->second);
            if (!word) continue;
            if (!is_agreed_word(*word)) {
                std::vector<std::string> words(header_words.begin(), header_words.end());
                report(*each->second, fmt::format("\"{}\" is not a word that machines agree on{}", printable(*word),
                                                  picture::did_you_mean(
                                                      *word, words,
                                                      "use waitstat, bwflag, bwflagdisk, clstat, hbinfo, hb/TYPE/NAME "
                                                      "or np/TYPE/NAME, with names as \"shmnmctl list\" shows them")));
            }
            checked_.configuration.bridge.local.insert(*word);
        }
    }
    static bool is_agreed_word(const std::string& word) {
        if (std::find(header_words.begin(), header_words.end(), word) != header_words.end()) return true;
        const auto parts = picture::parts_of(word);
        return parts.size() == 3 && (parts[0] == "hb" || parts[0] == "np") && is_escaped(parts[1]) &&
               is_escaped(parts[2]);
    }
    static bool is_escaped(std::string_view name) {
        const auto raw = picture::unescaped(name);
        return raw && !raw->empty() && picture::escaped(*raw) == name;
    }

    /// A file's name; one that is not absolute is in the configuration's folder.
    std::string file_in(const Elements& elements, const char* name) {
        const auto text = text_in(elements, name);
        return text ? in_utf_8(folder_ / from_utf_8(*text)) : "";
    }

    void read_etcd(const Element& etcd) {
        const Elements found = elements(etcd, "/bridge/etcd", etcd_elements);
        etcd::Settings& settings = checked_.configuration.etcd;
        settings.tls = {.authorities = file_in(found, "authorities"),
                        .certificate = file_in(found, "certificate"),
                        .key = file_in(found, "key")};
        settings.user = text_in(found, "user").value_or("");
        settings.password_file = file_in(found, "password_file");
        const size_t problems_before = checked_.problems.size();
        read_endpoints(etcd, found);
        const bool has_user = found.contains("user"), has_password = found.contains("password_file");
        if (has_user != has_password) {
            report(at(found, has_user ? "user" : "password_file"),
                   has_user ? "a user of etcd needs a password_file: name the file with its password"
                            : "a password_file needs the user whose password it holds: add an element user");
        }
        if (has_password) {
            expect_usable(at(found, "password_file"), [&] { etcd::read_password_file(settings.password_file); });
        }
        const bool has_certificate = found.contains("certificate"), has_key = found.contains("key");
        if (has_certificate != has_key) {
            report(at(found, has_key ? "key" : "certificate"),
                   "a certificate for etcd needs its key, and a key its certificate: name both files");
        }
        if (has_key) expect_usable(at(found, "key"), [&] { etcd::read_secret_file(settings.tls.key); });
        if (checked_.problems.size() > problems_before) return;
        const bool has_tls = std::any_of(settings.endpoints.begin(), settings.endpoints.end(),
                                         [](const std::string& each) { return each.starts_with("https"); });
        if (has_tls) expect_usable(etcd, [&] { etcd::make_tls(settings.tls, has_user); });
        if (!has_tls && (has_key || found.contains("authorities"))) {
            report(at(found, has_key ? "certificate" : "authorities"),
                   "certificates are named, but no endpoint begins with https: correct the endpoints, or remove this");
        }
    }

    void read_endpoints(const Element& etcd, const Elements& found) {
        const auto [first, last] = found.equal_range("endpoint");
        if (first == last) report(etcd, "no endpoint: write one per member of etcd, such as http://127.0.0.1:2379");
        for (auto each = first; each != last; ++each) {
            const Element& element = *each->second;
            const auto text = text_of("endpoint", element);
            if (!text) continue;
            checked_.configuration.etcd.endpoints.push_back(*text);
            expect_usable(element, [&] {
                const etcd::Endpoint endpoint = etcd::parse_endpoint(*text);
                if (endpoint.is_tls || endpoint.is_loopback() || !found.contains("user")) return;
                throw etcd::Error("a password would cross the network readable on its way to " + endpoint.text() +
                                  ": use https");
            });
        }
    }

    template <typename Use>
    void expect_usable(const Element& element, Use use) {
        try {
            use();
        } catch (const etcd::Error& error) {
            report(element, error.what());
        }
    }

    const Element& document_;
    const Element* root_ = nullptr;
    picture::ElementLines lines_;
    std::filesystem::path folder_;
    CheckedConfiguration checked_;
};

std::string read_text(const std::string& file) {
    std::string text;
    if (kzmxml::read_file(file, kzmxml::size_limit, text)) return text;
    throw picture::Error(picture::ErrorKind::no_configuration,
                         fmt::format("cannot read the bridge's configuration {}; see \"man shmnmbridge\" for its "
                                     "contents, or name another file with --config",
                                     picture::shown_file(file)));
}

}  // namespace

std::string installed_configuration_file() {
    return in_utf_8(from_utf_8(picture::installed_cluster_file()).parent_path() / "bridge.xml");
}

CheckedConfiguration check_configuration(const std::string& file) {
    const std::string text = read_text(file);
    Element document;
    if (kzmxml::parse_document(text, document) == XMLLIB_OK) {
        return Reader(text, document, from_utf_8(file).parent_path()).read();
    }
    return {.configuration = {},
            .problems = {{picture::line_at(text, kzmxml::fault_in(text)),
                          "not well-formed XML without a document type, or too many elements: correct it here"}}};
}

}  // namespace bridge
