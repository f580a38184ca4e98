// Reads and writes a word of the header, which costs little more than the frame of a call.
#include "measure.h"

void bench::header_word(Measurement& measurement, const Cluster& cluster, Contestants& contestants) {
    if (cluster.servers > 4) return;  // the same at any size
    const auto check = [](auto& who) {
        who.set_header_word(41);
        const uint32_t first = who.header_word();
        who.set_header_word(42);
        return first == 41 && who.header_word() == 42;
    };
    measurement.row("header_word_get", contestants, check, [](auto& who) { keep(who.header_word()); });
    measurement.row("header_word_set", contestants, check, [](auto& who) { who.set_header_word(42); });
}
