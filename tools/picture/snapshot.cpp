#include "picture/snapshot.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <utility>

#include "picture/error.h"
#include "picture/escape.h"
#include "picture/platform.h"
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
    throw Error(ErrorKind::not_a_dump, fmt::format("cannot read {}: {}", shown_file(file), why));
}

void expect_possible(uint64_t size, const std::string& file) {
    constexpr uint64_t most = uint64_t{1} << 32;
    if (size > most) refuse(file, "it is larger than any region, which has at most 2^32 bytes");
}

/// @param[in] stream  of the file, opened just now
std::vector<uint8_t> read_opened(std::ifstream& stream, const std::string& file) {
    if (!stream) refuse(file, std::strerror(errno));

    std::vector<uint8_t> bytes;
    char part[1 << 16];
    while (stream) {
        stream.read(part, sizeof part);
        bytes.insert(bytes.end(), part, part + stream.gcount());
        expect_possible(bytes.size(), file);
    }
    if (stream.bad()) refuse(file, "reading it failed half-way");
    return bytes;
}

/// The bytes of the file at a place.
std::vector<uint8_t> read_at(const std::filesystem::path& place, const std::string& file) {
    std::error_code error;
    if (std::filesystem::is_directory(place, error)) refuse(file, "it is a folder");
    // Before it takes as much memory. A pipe does not tell its size.
    if (const uint64_t size = std::filesystem::file_size(place, error); !error) expect_possible(size, file);
    errno = 0;
    std::ifstream stream(place, std::ios::binary);
    return read_opened(stream, file);
}

std::filesystem::path path_of_utf8(const std::string& file) {
    try {
        static_cast<void>(std::filesystem::path(std::u8string(file.begin(), file.end())));
        return platform::file(file);
    } catch (const std::system_error&) {
        refuse(file, "its name is not UTF-8");
    }
}

Snapshot to_dump(std::vector<uint8_t> bytes, const std::string& file) {
    Snapshot snapshot;
    snapshot.bytes = std::move(bytes);
    if (snapshot.bytes.size() < sizeof(shmnm_header)) {
        refuse(file, fmt::format("it has {} bytes and the header alone has {}, so it was cut or is not a dump",
                                 snapshot.bytes.size(), sizeof(shmnm_header)));
    }
    snapshot.mapped = snapshot.bytes.size();
    snapshot.counts = snapshot.header_counts();
    return snapshot;
}

}  // namespace

std::vector<uint8_t> read_file(const std::string& file) {
    return read_at(platform::file(file), file);
}

Snapshot read_dump(const std::string& file) {
    return to_dump(read_file(file), file);
}

Snapshot read_dump_of_utf8_name(const std::string& file) {
    return to_dump(read_at(path_of_utf8(file), file), file);
}

Snapshot dump_of(std::vector<uint8_t> bytes, const std::string& file) {
    return to_dump(std::move(bytes), file);
}

}  // namespace picture
