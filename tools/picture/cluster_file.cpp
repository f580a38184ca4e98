#include "picture/cluster_file.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <limits>
#include <map>
#include <tuple>

#include "document.h"
#include "file.h"
#include "kzmutil.h"
#include "picture/element_lines.h"
#include "picture/error.h"
#include "picture/escape.h"
#include "picture/platform.h"
#include "picture/spelling.h"
#include "picture/value.h"
#include "well_formed.h"

namespace picture {
namespace {

/// One of the counts, as the library reads it.
struct CountElement {
    const char* name;
    int32_t Counts::*count;
    int32_t fallback;
};
constexpr CountElement count_elements[] = {
    {"server", &Counts::servers, 128}, {"hbr", &Counts::hb, 16}, {"npr", &Counts::np, 16}, {"fstr", &Counts::fst, 1}};

/// Reads the elements of one file and collects what is wrong with them.
class Reader {
  public:
    Reader(std::string_view text, const kzmxml::Element& document) : document_(document), lines_(text, document) {}

    CheckedClusterFile read() {
        for (const CountElement& element : count_elements) checked_.file.counts.*element.count = element.fallback;
        if (const kzmxml::Element* const num = kzmxml::find(document_, "/root/all/num")) read_counts(*num);
        if (const kzmxml::Element* const cluster = kzmxml::find(document_, "/root/cluster")) read_members(*cluster);
        std::stable_sort(checked_.problems.begin(), checked_.problems.end(),
                         [](const auto& left, const auto& right) { return left.line < right.line; });
        return std::move(checked_);
    }

  private:
    void report(const kzmxml::Element& at, const std::string& text) {
        checked_.problems.push_back({lines_.line_of(at), text});
    }

    void read_counts(const kzmxml::Element& num) {
        const size_t problems_before = checked_.problems.size();
        std::map<std::string, uint32_t> seen;  // with the line
        for (const auto& [name, content] : num) {
            if (name.starts_with('<')) continue;  // the parser's own, such as attributes
            const auto* const element =
                std::find_if(std::begin(count_elements), std::end(count_elements),
                             [&name = name](const CountElement& each) { return name == each.name; });
            if (element == std::end(count_elements)) {
                report(content, fmt::format("unknown element \"{}\" in /root/all/num{}", printable(name),
                                            did_you_mean(name, count_names(), "use server, hbr, npr and fstr")));
            } else if (const auto [first, is_new] = seen.emplace(name, lines_.line_of(content)); !is_new) {
                report(content, fmt::format("/root/all/num has {} twice, and only the first counts, in line {}: remove "
                                            "one of them",
                                            name, first->second));
            } else {
                read_count(content, *element);
            }
        }
        const Counts& counts = checked_.file.counts;
        if (checked_.problems.size() > problems_before) return;
        if (counts.servers == 1 && counts.hb + int64_t{counts.np} > 0) {
            report(num, "with room for 1 server the tables would overlap: set server to 2 or more");
        } else if (const auto problem = size_problem(counts, platform::memory_size())) {
            report(num, *problem);
        }
    }

    void read_count(const kzmxml::Element& content, const CountElement& element) {
        int32_t value = 0;
        if (!kzmxml::read_integer(content, value)) {
            report(content, fmt::format("the number \"{}\" of {} in /root/all/num is not a 32-bit number, and {} would "
                                        "be used instead: use digits alone",
                                        printable(content.data()), element.name, element.fallback));
        } else if (value < 0) {
            report(content,
                   fmt::format("the number {} of {} in /root/all/num is negative: use 0 or more", value, element.name));
        } else {
            checked_.file.counts.*element.count = value;
        }
    }

    void read_members(const kzmxml::Element& cluster) {
        for (const auto& [name, content] : cluster) {
            if (name.starts_with('<')) continue;
            try {
                add(content, member(name, content));
            } catch (const Error& error) {
                report(content, error.what());
            }
        }
    }

    [[noreturn]] static void refuse(const std::string& why) { throw Error(ErrorKind::invalid_configuration, why); }

    static ClusterMember member(const std::string& element, const kzmxml::Element& content) {
        ClusterMember member;
        if (element != "server") {
            member.kind = entry(resource_kinds, element);
            if (!member.kind) {
                refuse(fmt::format("unknown element \"{}\" in /root/cluster{}", printable(element),
                                   did_you_mean(element, member_names(), "use server, hb and np")));
            }
            member.type = text(element, content, "type", resource_text_limit);
        }
        member.name = text(element, content, "name", member.kind ? resource_text_limit : server_name_limit);
        member.priority = priority(element, content, !member.kind);
        // A member that stands in another one would not be registered.
        for (const auto& [inner, ignored] : content) {
            if (inner.starts_with('<')) continue;
            refuse(fmt::format("the {} {} in /root/cluster contains an element {}: put members side by side", element,
                               printable(member.name), printable(inner)));
        }
        return member;
    }

    static std::string text(const std::string& element, const kzmxml::Element& content, const char* attribute,
                            size_t limit) {
        const auto value = content.get_optional<std::string>(fmt::format("<xmlattr>.{}", attribute));
        if (!value || value->empty()) {
            refuse(fmt::format("a {} in /root/cluster has no {}: give it one", element, attribute));
        }
        if (value->size() > limit) {
            refuse(fmt::format("the {} \"{}\" of a {} in /root/cluster is longer than {} bytes: shorten it", attribute,
                               printable(*value), element, limit));
        }
        return *value;
    }

    static int64_t priority(const std::string& element, const kzmxml::Element& content, bool is_signed) {
        const std::string value = text(element, content, "priority", resource_text_limit);
        const auto parsed = Value::parse(value);
        const auto narrow = parsed ? parsed->to_int32() : std::nullopt;
        const auto wide = parsed && !is_signed ? parsed->to_uint32() : std::nullopt;
        if (is_signed ? !narrow : !wide) {
            refuse(fmt::format("the priority \"{}\" of a {} in /root/cluster is not a 32-bit number: use {}",
                               printable(value), element, is_signed ? "-2147483648 to 2147483647" : "0 to 4294967295"));
        }
        return is_signed ? int64_t{*narrow} : int64_t{*wide};
    }

    /// Adds a member if it can be registered beside those before it.
    void add(const kzmxml::Element& content, const ClusterMember& member) {
        const char* const element = member.kind ? member.kind->key : "server";
        const auto [same, is_new] =
            names_.emplace(std::tuple(member.kind, member.type, member.name), lines_.line_of(content));
        if (!is_new) {
            refuse(fmt::format("/root/cluster has the {} {} twice, first in line {}: remove one of them", element,
                               printable(member.name), same->second));
        }
        const int32_t room = member.kind ? checked_.file.counts.*member.kind->count : checked_.file.counts.servers;
        if (++number_[member.kind] == int64_t{room} + 1) {
            refuse(fmt::format("/root/cluster has more {} elements than /root/all/num has room for, {}: raise {} there",
                               element, room, member.kind ? std::string(element) + "r" : element));
        }
        if (!member.kind) {
            const auto [other, is_first] = priorities_.emplace(member.priority, member.name);
            if (!is_first) {
                refuse(
                    fmt::format("the servers {} and {} in /root/cluster have the same priority, {}, by which the "
                                "states of resources find their server: give each its own",
                                printable(other->second), printable(member.name), member.priority));
            }
        }
        checked_.file.members.push_back(member);
    }

    static std::vector<std::string> count_names() {
        std::vector<std::string> names;
        for (const CountElement& element : count_elements) names.emplace_back(element.name);
        return names;
    }
    static std::vector<std::string> member_names() {
        std::vector<std::string> names{"server"};
        for (const ResourceKind& kind : resource_kinds) names.emplace_back(kind.key);
        return names;
    }

    const kzmxml::Element& document_;
    ElementLines lines_;
    CheckedClusterFile checked_;
    std::map<std::tuple<const ResourceKind*, std::string, std::string>, uint32_t> names_;  ///< with their lines
    std::map<const ResourceKind*, int64_t> number_;
    std::map<int64_t, std::string> priorities_;  ///< of the servers, with the first that has it
};

std::string read_text(const std::string& file) {
    std::string text;
    if (kzmxml::read_file(file, kzmxml::size_limit, text)) return text;
    std::error_code unknown;
    const auto status = std::filesystem::status(platform::file(file), unknown);
    const bool is_something_else = std::filesystem::exists(status) && !std::filesystem::is_regular_file(status);
    throw Error(ErrorKind::no_configuration, fmt::format("cannot read the configuration {}{}", shown_file(file),
                                                         is_something_else ? ": it is not a regular file" : ""));
}

}  // namespace

std::string installed_cluster_file() {
    char path[1024];
    if (!KzmutilGetInstallPath(path, sizeof path)) {
        throw Error(ErrorKind::failed, "the installation path is unknown: set KZM_INSTALL_PATH");
    }
    std::string folder = std::string(path) + "/etc";
    // The packages' etc is a link to a folder of /etc, where administrators look for it.
    std::error_code unknown;
    if (std::filesystem::is_symlink(platform::file(folder), unknown)) {
        const auto followed = std::filesystem::canonical(platform::file(folder), unknown).u8string();
        if (!unknown) folder.assign(followed.begin(), followed.end());
    }
    return folder + "/cluster.xml";
}

CheckedClusterFile check_cluster_file(const std::string& file) {
    const std::string text = read_text(file);
    kzmxml::Element document;
    if (kzmxml::parse_document(text, document) == XMLLIB_OK) return Reader(text, document).read();
    return {.file = {},
            .problems = {{line_at(text, kzmxml::fault_in(text)),
                          "not well-formed XML without a document type, or too many elements: correct it here"}}};
}

ClusterFile read_cluster_file(const std::string& file) {
    CheckedClusterFile checked = check_cluster_file(file);
    const std::vector<ConfigurationProblem>& problems = checked.problems;
    if (problems.empty()) return std::move(checked.file);
    throw Error(
        ErrorKind::invalid_configuration,
        fmt::format("invalid configuration {}, line {}: {}{}", shown_file(file), problems[0].line, problems[0].text,
                    problems.size() > 1
                        ? fmt::format("; {} more: \"shmnmctl verify --config\" lists all", problems.size() - 1)
                        : ""));
}

std::optional<std::string> size_problem(const Counts& counts, uint64_t memory) {
    constexpr uint64_t limit = std::numeric_limits<uint32_t>::max();
    const uint64_t size = Layout(counts).size;
    if (size > limit) {
        return fmt::format("a region with {} would exceed {} bytes, and its size would wrap: lower the numbers",
                           to_text(counts), limit);
    }
    if (memory != 0 && size > memory) {
        return fmt::format(
            "a region with {} would take {} bytes, and this machine has {} bytes of memory: lower the "
            "numbers",
            to_text(counts), size, memory);
    }
    return std::nullopt;
}

}  // namespace picture
