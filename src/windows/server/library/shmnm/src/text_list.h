// Lists of texts: each text with its NUL, one after the other, then one more NUL. An empty list is two NULs.
#pragma once

#include "ascending_text.h"
#include "frame.h"
#include "region.h"

namespace shmnm {

/// Measures the list of a text of the records, without its last NUL. Texts may overlap, so the end of one text is often
/// the end of the next text too.
template <typename Record, typename TextOf>
uint64_t size_of_texts(const Region& region, const Table<Record>& records, const TextOf& text_of) {
    const auto* const end = reinterpret_cast<const char*>(region.end());
    const char* nul = reinterpret_cast<const char*>(region.base);
    uint64_t size = 0;
    for (int32_t position = 0; position < records.count(); ++position) {
        const char* const text = text_of(records[position]);
        if (!text) continue;
        if (nul < text) nul = end_of_text(text, end);
        if (nul == end) break;
        size += static_cast<uint64_t>(nul - text) + 1;
    }
    return size;
}

/// Lists a text of the records in `buf`, or measures the list if `buf` is null. A text that does not end in the view
/// ends the list.
/// @param text_of  returns the text of a record, or null to leave the record out; called once per record, in ascending
/// order
template <typename Record, typename TextOf>
uint32_t list_texts(Call call, const Region& region, const Table<Record>& records, const TextOf& text_of, char* buf,
                    uint32_t* size) {
    if (!size) return call.fail(SHMNM_ERR_PARAM, "invalid param");
    if (!buf) {
        const uint64_t used = size_of_texts(region, records, text_of);
        *size = static_cast<uint32_t>((used > 0 ? used : 1) + 1);
        return SHMNM_OK;
    }
    const uint32_t room = *size;
    // Deliberately signed: a size of 2^31 or more is too small.
    if (static_cast<int32_t>(room) < 2) return SHMNM_ERR_BUFFER;
    uint64_t used = 0;
    for (int32_t position = 0; position < records.count(); ++position) {
        const char* const text = text_of(records[position]);
        if (!text) continue;
        const auto limit = static_cast<size_t>(region.end() - reinterpret_cast<const uint8_t*>(text));
        const size_t length = text_length(text, limit);
        if (length == limit) break;
        if (room < used + length + 2) return SHMNM_ERR_BUFFER;
        std::memcpy(buf + used, text, length);
        buf[used + length] = 0;
        used += length + 1;
    }
    if (used == 0) {
        buf[0] = 0;
        used = 1;
    }
    buf[used] = 0;
    *size = static_cast<uint32_t>(used + 1);
    return SHMNM_OK;
}

}  // namespace shmnm
