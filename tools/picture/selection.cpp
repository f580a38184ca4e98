#include "picture/selection.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>

#include "picture/error.h"
#include "picture/escape.h"
#include "picture/keys.h"
#include "picture/pattern.h"
#include "picture/spelling.h"
#include "picture/words.h"

namespace picture {
namespace {

constexpr std::string_view areas[] = {"cluster", "servers", resource_kinds[0].key, resource_kinds[1].key,
                                      "fst",     "bridge"};

/// A word as the rows of a table have it: alone, or once for each server or kind.
struct RowKey {
    std::string_view word;
    bool is_many;
};

bool may_match(std::string_view pattern, const RowKey& key) {
    const size_t slash = pattern.find('/');
    if ((slash != std::string_view::npos) != key.is_many) return false;
    if (key.is_many && pattern.find('/', slash + 1) != std::string_view::npos) return false;
    return matches(pattern.substr(0, slash), key.word);
}

std::vector<RowKey> server_keys() {
    std::vector<RowKey> keys;
    for (const ServerWord& word : server_words) {
        if (word.has_key) keys.push_back({word.key, false});
    }
    return keys;
}

std::vector<RowKey> resource_keys(const ResourceKind& kind) {
    std::vector<RowKey> keys;
    for (const ResourceWord& word : resource_words) keys.push_back({word.key, false});
    for (const RowWord& word : row_words) {
        if (kind.*word.set) keys.push_back({word.key, true});
    }
    return keys;
}

std::vector<RowKey> pid_keys() {
    std::vector<RowKey> keys;
    for (const PidWord& word : pid_words) keys.push_back({word.key, true});
    return keys;
}

/// The words of a row, with keys that follow the row's.
std::vector<Word> words_of(const Server& server) {
    std::vector<Word> all;
    for (const ServerWord& word : server_words) {
        if (word.has_key) all.push_back({word.key, word.source.value(server)});
    }
    return all;
}

std::vector<Word> words_of(const Resource& resource, const std::vector<std::string>& servers) {
    std::vector<Word> all;
    for (const ResourceWord& word : resource_words) all.push_back({word.key, word.source.value(resource)});
    for (const RowWord& word : row_words) {
        const std::vector<uint32_t>& states = (resource.*word.row).states;
        for (size_t i = 0; i < states.size(); ++i) all.push_back({word.key + ("/" + servers[i]), states[i]});
    }
    return all;
}

std::vector<Word> words_of(const FstPid& record) {
    std::vector<Word> all;
    for (const PidWord& word : pid_words) {
        for (size_t kind = 0; kind < record.pid.size(); ++kind) {
            all.push_back({fmt::format("{}/{}", word.key, kind), word.value(record, kind)});
        }
    }
    return all;
}

/// The same words with their whole keys.
std::vector<std::string> whole_keys(const std::string& row, const std::vector<Word>& words) {
    std::vector<std::string> keys;
    keys.reserve(words.size());
    for (const Word& word : words) keys.push_back(row + word.key);
    return keys;
}

std::vector<std::string> pid_whole_keys(const FstPid& record) {
    std::vector<std::string> keys;
    for (const PidWord& word : pid_words) {
        for (size_t kind = 0; kind < record.pid.size(); ++kind) {
            keys.push_back(fmt::format("fst/{}/{}/{}", word.key, escaped(record.name), kind));
        }
    }
    return keys;
}

}  // namespace

bool names_area(std::string_view text) {
    const std::string_view part = text.substr(0, text.find('/'));
    return std::find(std::begin(areas), std::end(areas), part) != std::end(areas);
}

bool is_like_area(std::string_view text) {
    return !nearest(text.substr(0, text.find('/')), {std::begin(areas), std::end(areas)}).empty();
}

std::vector<std::string> words_of_rows() {
    std::vector<std::string> all;
    for (const auto& keys : {server_keys(), resource_keys(resource_kinds[0]), pid_keys()}) {
        for (const RowKey& key : keys) all.push_back(std::string(key.word) + (key.is_many ? "/" : ""));
    }
    return all;
}

bool ShownRows::any() const {
    const auto any_of = [](const std::vector<bool>& rows) {
        return std::find(rows.begin(), rows.end(), true) != rows.end();
    };
    return any_of(servers) || any_of(hb) || any_of(np) || any_of(fst_pids);
}

Selection::Selection(std::vector<std::string> prefixes, const std::optional<std::string>& only)
    : prefixes_(std::move(prefixes)) {
    if (!only) return;
    only_.emplace(*only);
    const auto have = [](const std::vector<RowKey>& keys, const std::string& pattern) {
        return std::any_of(keys.begin(), keys.end(), [&](const RowKey& key) { return may_match(pattern, key); });
    };
    const std::vector<RowKey> servers = server_keys(), hb = resource_keys(resource_kinds[0]),
                              np = resource_keys(resource_kinds[1]), pids = pid_keys();
    for (const std::string& pattern : only_->patterns()) {
        const Tables having{have(servers, pattern), have(hb, pattern), have(np, pattern), have(pids, pattern)};
        // branch: np resources have no word that hb resources do not have
        if (!having.servers && !having.hb && !having.np && !having.fst_pids) {
            std::vector<std::string> known = words_of_rows();
            for (std::string& word : known) word = word.substr(0, word.find('/'));
            throw Error(ErrorKind::no_such_word,
                        fmt::format("no row has a word \"{}\"{}", as_typed(pattern),
                                    did_you_mean(pattern.substr(0, pattern.find('/')), known,
                                                 "name a word without the key of its row, as in nodestat!=1")));
        }
        tables_ = {tables_.servers && having.servers, tables_.hb && having.hb, tables_.np && having.np,
                   tables_.fst_pids && having.fst_pids};
    }
    // branch: np resources have no word that hb resources do not have
    if (!tables_.servers && !tables_.hb && !tables_.np && !tables_.fst_pids) {
        throw Error(ErrorKind::no_such_word, "no row has all words of the condition");
    }
}

bool Selection::shows(std::string_view key) const {
    return prefixes_.empty() || std::any_of(prefixes_.begin(), prefixes_.end(),
                                            [&](const std::string& prefix) { return is_below(key, prefix); });
}

ShownRows Selection::rows(const Picture& picture) const {
    const auto any_shown = [&](const std::vector<std::string>& keys) {
        return std::any_of(keys.begin(), keys.end(), [&](const std::string& key) { return shows(key); });
    };
    const auto meets = [&](bool is_of_table, const std::vector<Word>& words) {
        return !only_ || (is_of_table && only_->holds(words));
    };
    if (is_everything()) {
        const auto all = [](const auto& records) { return std::vector<bool>(records.size(), true); };
        return {all(picture.servers), all(picture.hb), all(picture.np), all(picture.fst_pids)};
    }
    ShownRows shown;
    std::vector<std::string> names;
    for (const Server& server : picture.servers) {
        names.push_back(escaped(server.name));
        const std::vector<Word> words = words_of(server);
        shown.servers.push_back(meets(tables_.servers, words) &&
                                any_shown(whole_keys("servers/" + names.back() + "/", words)));
    }
    const auto resources = [&](const ResourceKind& kind, bool is_of_table) {
        std::vector<bool> rows;
        for (const Resource& resource : picture.*kind.resources) {
            const std::vector<Word> words = words_of(resource, names);
            const std::string row = fmt::format("{}/{}/{}/", kind.key, escaped(resource.type), escaped(resource.name));
            rows.push_back(meets(is_of_table, words) && any_shown(whole_keys(row, words)));
        }
        return rows;
    };
    shown.hb = resources(resource_kinds[0], tables_.hb);
    shown.np = resources(resource_kinds[1], tables_.np);
    for (const FstPid& record : picture.fst_pids) {
        shown.fst_pids.push_back(meets(tables_.fst_pids, words_of(record)) && any_shown(pid_whole_keys(record)));
    }
    return shown;
}

void Selection::expect_words(const Picture& picture) const {
    if (prefixes_.empty()) return;
    const std::vector<Word> all = words(picture);
    for (const std::string& prefix : prefixes_) {
        if (std::any_of(all.begin(), all.end(), [&](const Word& word) { return is_below(word.key, prefix); })) continue;
        throw Error(ErrorKind::no_such_key, fmt::format("no key lies below {}", as_typed(prefix)));
    }
}

}  // namespace picture
