// Every word of the picture under a key that people can read and type: "servers/alpha/nodestat". Names within a key are
// escaped (escape.h), so a key has one part more than it has slashes.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "picture/picture.h"
#include "picture/value.h"
#include "picture/words.h"

namespace picture {

struct Word {
    std::string key;
    Value value;
    uint64_t offset = 0;  ///< in the region, in bytes; 0 for what is computed

    bool operator==(const Word&) const = default;
};

/// All words, in the order of the picture. Where several records share a name, only the first is reached.
std::vector<Word> words(const Picture& picture);

// What a key names. The pointers are into the picture and the tables of words.
struct ClusterPlace {
    const ClusterWord* word;
};
struct ServerPlace {
    const ServerWord* word;
    const Server* server;
};
struct ResourcePlace {
    const ResourceWord* word;
    const ResourceKind* kind;
    const Resource* resource;
};
struct RowPlace {
    const RowWord* word;
    const ResourceKind* kind;
    const Resource* resource;
    const Server* server;
    size_t column;
};
struct FstPlace {
    const FstWord* word;
};
struct PidPlace {
    const PidWord* word;
    const FstPid* record;
    size_t kind;
};
using Place = std::variant<ClusterPlace, ServerPlace, ResourcePlace, RowPlace, FstPlace, PidPlace>;

/// What a key names; nothing when there is no such word. Only the records that it names are looked at.
std::optional<Place> locate(const Picture& picture, std::string_view key);

/// The word of a key, as words() has it; nothing when there is none.
std::optional<Word> find(const Picture& picture, std::string_view key);

/// What stands between the slashes of a key.
std::vector<std::string_view> parts_of(std::string_view key);

/// Whether a key lies at or below a prefix: "servers/alpha" holds "servers/alpha/pri", not "servers/alphabet/pri".
/// Every key lies below the empty prefix.
bool is_below(std::string_view key, std::string_view prefix);

/// All keys that there can be, with capitals for what the region names, and what each word means.
struct KeyHelp {
    std::string pattern;  ///< "servers/NAME/nodestat"
    std::string help;
    std::string range;  ///< of numbers that it takes: "0 to 4294967295"; "" where it cannot be set
};
std::vector<KeyHelp> key_help();

}  // namespace picture
