#include "picture/cluster_file.h"

#include <fmt/format.h>

#include <filesystem>
#include <limits>
#include <set>

#include "document.h"
#include "kzmutil.h"
#include "picture/error.h"
#include "picture/escape.h"
#include "picture/value.h"

namespace picture {
namespace {

/// Reads the elements of one file.
class Reader {
  public:
    explicit Reader(const std::string& file) : file_(file) {}

    [[noreturn]] void refuse(const std::string& why) const {
        throw Error(ErrorKind::invalid_configuration,
                    fmt::format("invalid configuration {}: {}", printable(file_), why));
    }

    kzmxml::Element document() const {
        kzmxml::Element document;
        switch (kzmxml::read_document(file_, document)) {
            case XMLLIB_OK:
                return document;
            case XMLLIB_ERR_FILE:
                throw Error(ErrorKind::no_configuration,
                            fmt::format("cannot read the configuration {}{}", printable(file_),
                                        is_something_else() ? ": it is not a regular file" : ""));
            default:
                refuse("it is too large, or not well-formed XML without a document type");
        }
    }

    int32_t count(const kzmxml::Element& document, const char* path, int32_t fallback) const {
        int32_t value = fallback;
        const kzmxml::Element* const element = kzmxml::find(document, path);
        return element && kzmxml::read_integer(*element, value) ? value : fallback;
    }

    ClusterMember member(const std::string& element, const kzmxml::Element& content) const {
        ClusterMember member;
        if (element != "server") {
            member.kind = entry(resource_kinds, element);
            if (!member.kind) {
                refuse(fmt::format("unknown element {} in /root/cluster: use server, hb and np", printable(element)));
            }
            member.type = text(element, content, "type", resource_text_limit);
        }
        member.name = text(element, content, "name", member.kind ? resource_text_limit : server_name_limit);
        member.priority = priority(element, content, !member.kind);
        // A member that stands in another one would not be registered.
        for (const auto& [inner, ignored] : content) {
            if (inner.starts_with('<')) continue;
            refuse(fmt::format("the {} {} in /root/cluster contains an element {}: members stand side by side", element,
                               printable(member.name), printable(inner)));
        }
        return member;
    }

  private:
    bool is_something_else() const {
        std::error_code unknown;
        const auto status = std::filesystem::status(file_, unknown);
        return std::filesystem::exists(status) && !std::filesystem::is_regular_file(status);
    }

    std::string text(const std::string& element, const kzmxml::Element& content, const char* attribute,
                     size_t limit) const {
        const auto value = content.get_optional<std::string>(fmt::format("<xmlattr>.{}", attribute));
        if (!value || value->empty()) refuse(fmt::format("a {} in /root/cluster has no {}", element, attribute));
        if (value->size() > limit) {
            refuse(fmt::format("the {} \"{}\" of a {} in /root/cluster is longer than {} bytes", attribute,
                               printable(*value), element, limit));
        }
        return *value;
    }

    int64_t priority(const std::string& element, const kzmxml::Element& content, bool is_signed) const {
        const std::string value = text(element, content, "priority", resource_text_limit);
        const auto parsed = Value::parse(value);
        const auto narrow = parsed ? parsed->to_int32() : std::nullopt;
        const auto wide = parsed && !is_signed ? parsed->to_uint32() : std::nullopt;
        if (is_signed ? !narrow : !wide) {
            refuse(fmt::format("the priority \"{}\" of a {} in /root/cluster is not a 32-bit number", printable(value),
                               element));
        }
        return is_signed ? int64_t{*narrow} : int64_t{*wide};
    }

    const std::string& file_;
};

/// @param[in] kind  null: of the servers
void check_room(const Reader& reader, const ClusterFile& read, const ResourceKind* kind) {
    const char* const element = kind ? kind->key : "server";
    const int32_t limit = kind ? read.counts.*kind->count : read.counts.servers;
    std::set<std::pair<std::string, std::string>> names;
    for (const ClusterMember& member : read.members) {
        if (member.kind != kind) continue;
        if (!names.insert({member.type, member.name}).second) {
            reader.refuse(fmt::format("/root/cluster has the {} {} twice", element, printable(member.name)));
        }
    }
    if (static_cast<int64_t>(names.size()) > limit) {
        reader.refuse(fmt::format("/root/cluster has {} {} elements, and /root/all/num has room for {}", names.size(),
                                  element, limit));
    }
}

}  // namespace

std::string installed_cluster_file() {
    char path[1024];
    if (!KzmutilGetInstallPath(path, sizeof path)) {
        throw Error(ErrorKind::failed, "the installation path is unknown: set KZM_INSTALL_PATH");
    }
    std::filesystem::path folder = std::string(path) + "/etc";
    // The packages' etc is a link to a folder of /etc, where administrators look for it.
    std::error_code unknown;
    if (std::filesystem::is_symlink(folder, unknown)) {
        const auto followed = std::filesystem::canonical(folder, unknown);
        if (!unknown) folder = followed;
    }
    return folder.string() + "/cluster.xml";
}

ClusterFile read_cluster_file(const std::string& file) {
    const Reader reader(file);
    const kzmxml::Element document = reader.document();
    ClusterFile read{
        .counts = {reader.count(document, "/root/all/num/server", 128), reader.count(document, "/root/all/num/hbr", 16),
                   reader.count(document, "/root/all/num/npr", 16), reader.count(document, "/root/all/num/fstr", 1)},
        .members = {}};
    if (const kzmxml::Element* const cluster = kzmxml::find(document, "/root/cluster")) {
        for (const auto& [element, content] : *cluster) {
            if (element.starts_with('<')) continue;  // the parser's own, such as attributes
            read.members.push_back(reader.member(element, content));
        }
    }
    check_room(reader, read, nullptr);
    for (const ResourceKind& kind : resource_kinds) check_room(reader, read, &kind);
    return read;
}

}  // namespace picture
