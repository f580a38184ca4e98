#include "same_answers/record.h"

#include <cstring>
#include <iomanip>
#include <ostream>

namespace answers {
namespace {

constexpr uint64_t odd = 0x9E3779B97F4A7C15;

uint64_t mixed(uint64_t lane, uint64_t word) {
    lane = (lane ^ word) * odd;
    return lane ^ lane >> 29;
}

/// Printable, and on one line, whatever bytes a damaged region had.
void show(std::ostream& out, std::string_view text) {
    for (const char byte : text) {
        if (byte >= ' ' && byte <= '~') {
            out << byte;
        } else {
            out << "\\x" << std::hex << unsigned{static_cast<unsigned char>(byte)} << std::dec;
        }
    }
}

}  // namespace

void Digest::add(uint64_t number) {
    lanes_[0] = mixed(lanes_[0], number);
}

void Digest::add(Bytes bytes) {
    add(bytes.size());
    size_t at = 0;
    // Four lanes, because a multiplication takes the time of four.
    for (; at + 32 <= bytes.size(); at += 32) {
        uint64_t words[4];
        std::memcpy(words, bytes.data() + at, sizeof words);
        for (int lane = 0; lane < 4; ++lane) lanes_[lane] = mixed(lanes_[lane], words[lane]);
    }
    for (; at < bytes.size(); ++at) add(bytes[at]);
}

void Record::text(const char* what, std::string_view text) {
    digest_.add({reinterpret_cast<const unsigned char*>(text.data()), text.size()});
    if (!shows()) return;
    out_ << "  " << what << " ";
    show(out_, text);
    out_ << "\n";
}

void Record::number(const char* what, uint64_t number) {
    digest_.add(number);
    if (shows()) out_ << "  " << what << " " << number << "\n";
}

void Record::bytes(const char* what, Bytes now, Bytes before) {
    digest_.add(now);
    if (!shows()) return;
    Digest of_all;
    of_all.add(now);
    out_ << "  " << what << " " << now.size() << " bytes, digest " << std::hex << of_all.value() << std::dec << "\n";
    const auto same = [&](size_t at) { return at < before.size() && now[at] == before[at]; };
    for (size_t at = 0; at < now.size(); ++at) {
        if (same(at)) continue;
        out_ << "  " << what << " at " << at << ":" << std::hex << std::setfill('0');
        for (size_t end = at + 32; at < end && at < now.size() && !same(at); ++at) {
            out_ << " " << std::setw(2) << unsigned{now[at]};
        }
        out_ << std::dec << "\n";
    }
}

void Record::end_call() {
    ++index_;
    if (index_ % block_size != 0 || shown_block_) return;
    out_ << "block " << index_ / block_size - 1 << " " << std::hex << digest_.value() << std::dec << "\n";
    digest_ = {};
}

}  // namespace answers
