#include "picture/snapshot.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <system_error>

#include "picture/error.h"
#include "picture/escape.h"
#include "shmnm.h"

namespace picture {

uint32_t Snapshot::word(uint64_t offset) const {
    uint32_t value;
    std::memcpy(&value, bytes.data() + offset, sizeof value);
    return value;
}

uint64_t Snapshot::long_word(uint64_t offset) const {
    return word(offset) | uint64_t{word(offset + sizeof(uint32_t))} << 32;
}

std::string Snapshot::text(uint64_t offset, uint64_t size) const {
    if (offset >= bytes.size()) return {};
    const auto first = bytes.begin() + static_cast<std::ptrdiff_t>(offset);
    const auto limit = first + static_cast<std::ptrdiff_t>(std::min<uint64_t>(size, bytes.size() - offset));
    return {first, std::find(first, limit, uint8_t{0})};
}

Counts Snapshot::header_counts() const {
    return {number(offsetof(shmnm_header, max_servers)), number(offsetof(shmnm_header, max_hb)),
            number(offsetof(shmnm_header, max_np)), number(offsetof(shmnm_header, fst_count))};
}

namespace {

[[noreturn]] void refuse(const std::string& file, const std::string& why) {
    throw Error(ErrorKind::not_a_dump, fmt::format("cannot read {}: {}", printable(file), why));
}

/// On Windows names are UTF-8, and others cannot be converted.
std::filesystem::path path_of(const std::string& file) {
    try {
        return file;
    } catch (const std::system_error&) {
        refuse(file, "its name is not UTF-8");
    }
}

}  // namespace

std::vector<uint8_t> read_file(const std::string& file) {
    const std::filesystem::path path = path_of(file);
    std::error_code error;
    if (std::filesystem::is_directory(path, error)) refuse(file, "it is a folder");
    errno = 0;
    std::ifstream stream(path, std::ios::binary);
    if (!stream) refuse(file, std::strerror(errno));

    std::vector<uint8_t> bytes;
    char part[1 << 16];
    while (stream) {
        stream.read(part, sizeof part);
        bytes.insert(bytes.end(), part, part + stream.gcount());
        if (bytes.size() > std::numeric_limits<uint32_t>::max())
            refuse(file, "it is larger than any region, which has at most 2^32 bytes");
    }
    if (stream.bad()) refuse(file, "reading it failed half-way");
    return bytes;
}

Snapshot read_dump(const std::string& file) {
    Snapshot snapshot;
    snapshot.bytes = read_file(file);
    if (snapshot.bytes.size() < sizeof(shmnm_header)) {
        refuse(file, fmt::format("it has {} bytes and the header alone has {}, so it was cut or is not a dump",
                                 snapshot.bytes.size(), sizeof(shmnm_header)));
    }
    snapshot.mapped = snapshot.bytes.size();
    snapshot.counts = snapshot.header_counts();
    return snapshot;
}

}  // namespace picture
