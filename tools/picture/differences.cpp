#include "picture/differences.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <unordered_set>
#include <utility>
#include <variant>

#include "picture/changes.h"
#include "picture/escape.h"
#include "picture/keys.h"
#include "picture/words.h"

namespace picture {
namespace {

/// Gives each record of a name that was there before another name.
template <typename Records, typename KeyOf>
void tell_apart(Records& records, const KeyOf& key_of) {
    std::map<std::string, int> seen;
    for (auto& record : records) {
        const int number = ++seen[key_of(record)];
        if (number > 1) record.name += fmt::format("{}{}", '\0', number);
    }
}

/// The picture with every record under a key of its own.
Picture with_own_names(Picture picture) {
    const auto name_of = [](const auto& record) { return record.name; };
    tell_apart(picture.servers, name_of);
    for (const ResourceKind& kind : resource_kinds) {
        tell_apart(picture.*kind.resources,
                   [](const Resource& resource) { return escaped(resource.type) + "/" + escaped(resource.name); });
    }
    tell_apart(picture.fst_pids, name_of);
    return picture;
}

bool follows_from_others(const Picture& picture, const std::string& key) {
    const std::optional<Place> place = locate(picture, key);
    // branch: the picture has the key
    return place && std::visit(
                        [](const auto& at) {
                            if constexpr (requires { at.word->source; }) return at.word->source.is_computed();
                            return false;
                        },
                        *place);
}

Shown shown(const std::string& description) {
    return {'"' + escaped(description) + '"', escaped(description)};
}
Shown shown(const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& name : names) text += (text.empty() ? "" : " ") + name;
    return {text, names};
}

std::optional<Shown> shown(const std::optional<Value>& value) {
    if (!value) return std::nullopt;
    return Shown{value->to_text(), to_json(*value)};
}

/// A thing that is on one side or on both.
template <typename Thing>
void compare(std::vector<Difference>& found, const std::string& key, const Thing* before, const Thing* after) {
    if (before && after && *before == *after) return;
    Difference difference{key, {}, {}};
    if (before) difference.before = shown(*before);
    if (after) difference.after = shown(*after);
    found.push_back(std::move(difference));
}

using Descriptions = std::map<std::string, std::string>;

/// The descriptions by their keys.
Descriptions descriptions(const Picture& picture) {
    Descriptions all;
    for (const ResourceKind& kind : resource_kinds) {
        for (const Resource& resource : picture.*kind.resources) {
            all[fmt::format("{}/{}/{}/descript", kind.key, escaped(resource.type), escaped(resource.name))] =
                resource.descript;
        }
    }
    if (picture.fst) all["fst/descript"] = picture.fst->descript;
    return all;
}

void compare_descriptions(std::vector<Difference>& found, const Descriptions& before, const Descriptions& after) {
    Descriptions keys = before;
    keys.insert(after.begin(), after.end());
    for (const auto& [key, text] : keys) {
        const auto left = before.find(key), right = after.find(key);
        // What a new resource has no description is not worth a line.
        const bool is_empty_on_one_side = (left == before.end() || right == after.end()) && text.empty();
        if (is_empty_on_one_side) continue;
        compare(found, key, left == before.end() ? nullptr : &left->second,
                right == after.end() ? nullptr : &right->second);
    }
}

using Names = std::vector<std::string>;

/// The names of each table's records, in their order.
std::map<std::string, Names> tables(const Picture& picture) {
    std::map<std::string, Names> all;
    for (const Server& server : picture.servers) all["servers"].push_back(escaped(server.name));
    for (const ResourceKind& kind : resource_kinds) {
        for (const Resource& resource : picture.*kind.resources) {
            all[kind.key].push_back(escaped(resource.type) + "/" + escaped(resource.name));
        }
    }
    for (const FstPid& record : picture.fst_pids) all["fst/pids"].push_back(escaped(record.name));
    return all;
}

/// The names that are on the other side too.
Names common(Names names, const Names& others) {
    const std::unordered_set<std::string> known(others.begin(), others.end());
    std::erase_if(names, [&](const std::string& name) { return !known.contains(name); });
    return names;
}

void compare_orders(std::vector<Difference>& found, const Picture& before, const Picture& after) {
    const auto left = tables(before), right = tables(after);
    for (const auto& [table, names] : left) {
        const auto others = right.find(table);
        if (others == right.end()) continue;
        const Names was = common(names, others->second), is = common(others->second, names);
        compare(found, table, &was, &is);
    }
}

}  // namespace

std::vector<Difference> differences(const Document& before, const Document& after) {
    std::vector<Difference> found;
    if (before.counts != after.counts) {
        found.push_back({"counts", Shown{to_text(before.counts), to_text(before.counts)},
                         Shown{to_text(after.counts), to_text(after.counts)}});
    }
    const Picture left = with_own_names(before.picture), right = with_own_names(after.picture);
    compare_orders(found, left, right);
    for (const WordChange& change : changes(words(left), words(right), "")) {
        if (follows_from_others(change.after ? right : left, change.key)) continue;
        found.push_back({change.key, shown(change.before), shown(change.after)});
    }
    compare_descriptions(found, descriptions(left), descriptions(right));
    return found;
}

std::string to_text(const Difference& difference) {
    const auto text = [](const std::optional<Shown>& side) { return side ? side->text : "-"; };
    return fmt::format("{} {} -> {}", difference.key, text(difference.before), text(difference.after));
}

Json to_json(const std::vector<Difference>& differences) {
    Json list = Json::array();
    for (const Difference& difference : differences) {
        Json one = {{"key", difference.key}};
        if (difference.before) one["old"] = difference.before->json;
        if (difference.after) one["new"] = difference.after->json;
        list.push_back(std::move(one));
    }
    return list;
}

}  // namespace picture
