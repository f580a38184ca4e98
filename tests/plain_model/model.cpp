#include "plain_model/model.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace model {
namespace {

enum : uint32_t { ok, param = 2, notfound, buffer, countover = 9, rscover, exist = 13, addsvstat, rmsvstat, bad_index };

std::string text(int64_t number) {
    return std::to_string(number);
}

std::string not_found(const char* type, const char* name) {
    return std::string("type:") + (type ? type : "-") + ",name:" + name + " not found";
}

std::string svid_not_found(const char* type, const char* name, int32_t svid) {
    return std::string("type:") + (type ? type : "-") + ",name:" + name + ",svid:" + text(svid) + " not found";
}

}  // namespace

Model::Model(int32_t servers, int32_t hb_count, int32_t np_count, int32_t fst, std::vector<uint8_t> bytes)
    : view(std::move(bytes)), fst_(fst) {
    const int64_t s = servers, h = hb_count, n = np_count, f = fst;
    hb_start_ = 1084 + 320 * s;
    np_start_ = hb_start_ + 584 * h * s;
    fst_start_ = np_start_ + 584 * n * s;
    pid_start_ = fst_start_ + 584 * f;
    network_start_ = pid_start_ + 324 * f * s;
    size_ = static_cast<uint32_t>(network_start_ + 4 * (2 * h + n) * s);
}

// ---- bytes ----

uint32_t Model::get(int64_t at) const {
    const auto i = static_cast<size_t>(at);
    return view.at(i) | uint32_t{view.at(i + 1)} << 8 | uint32_t{view.at(i + 2)} << 16 | uint32_t{view.at(i + 3)} << 24;
}

void Model::put(int64_t at, uint32_t value) {
    for (size_t i = 0; i < 4; ++i) view.at(static_cast<size_t>(at) + i) = static_cast<uint8_t>(value >> 8 * i);
}

bool Model::same(int64_t at, const char* key) const {
    for (;; ++at, ++key) {
        if (at >= end()) return false;
        if (view.at(static_cast<size_t>(at)) != static_cast<uint8_t>(*key)) return false;
        if (*key == 0) return true;
    }
}

int64_t Model::length(int64_t at) const {
    for (int64_t i = at; i < end(); ++i) {
        if (view.at(static_cast<size_t>(i)) == 0) return i - at;
    }
    return -1;
}

void Model::put_text(int64_t at, int64_t size, const char* key) {
    bool ended = false;
    for (int64_t i = 0; i < size; ++i) {
        if (!ended && key[i] == 0) ended = true;
        view.at(static_cast<size_t>(at + i)) = ended ? 0 : static_cast<uint8_t>(key[i]);
    }
}

// A damaged count of servers makes a row of gigabytes, so only what lies in the view is walked.
void Model::zero(int64_t at, int64_t size) {
    for (int64_t i = std::max<int64_t>(at, 0); i < std::min(at + size, end()); ++i) view.at(static_cast<size_t>(i)) = 0;
}

void Model::move_down(int64_t from, int64_t to, int64_t size) {
    const int64_t last = std::min(size, end() - std::max(from, to));
    for (int64_t i = std::max<int64_t>(0, -std::min(from, to)); i < last; ++i) {
        view.at(static_cast<size_t>(to + i)) = view.at(static_cast<size_t>(from + i));
    }
}

// ---- records ----

int32_t Model::visible(int64_t start, int64_t step, int64_t fixed, int32_t count) const {
    if (step <= 0 || start < 0) return 0;
    int32_t result = 0;
    while (result < count && inside(start + result * step, fixed)) ++result;
    return result;
}

int64_t Model::word(const Table& table, bool network, int32_t p, int64_t j) const {
    const int64_t row = network ? place(network_start_, 4 * int64_t{number(8)}, p) : resource(table, p) + 584;
    return place(row, 4, j);
}

int32_t Model::find_server(const char* name) const {
    for (int32_t p = 0; p < visible_servers(); ++p) {
        if (same(server(p), name)) return p;
    }
    return -1;
}

int32_t Model::find_priority(int32_t pri) const {
    for (int32_t p = 0; p < visible_servers(); ++p) {
        if (number(server(p) + 256) == pri) return p;
    }
    return -1;
}

int32_t Model::find_resource(const Table& table, const char* type, const char* name) const {
    const int32_t count = visible_resources(table);
    for (int32_t p = 0; p < count; ++p) {
        if (type && !same(resource(table, p) + 256, type)) continue;
        if (same(resource(table, p), name)) return p;
    }
    return -1;
}

// ---- calls ----

uint32_t Model::fail(uint32_t code, const std::string& message) {
    say(1, message);
    return code;
}

uint32_t Model::call(const char* function, const std::function<uint32_t()>& work) {
    functions_.push_back(function);
    say(16, "<<< ENTER >>>");
    const uint32_t code = work();
    char exit_line[64];
    std::snprintf(exit_line, sizeof exit_line, "<<< EXIT >>> : 0x%08x", code);
    say(16, exit_line);
    functions_.pop_back();
    return code;
}

uint32_t Model::clear() {
    zero(0, size_);
    functions_.push_back("shmnm_clear");
    say(4, "shmnm clear.");
    say(16, "<<< EXIT >>> : 0x00000000");
    functions_.pop_back();
    return ok;
}

uint32_t Model::dump(uint8_t* buf, int32_t* size) {
    return call("_dump", [&]() -> uint32_t {
        if (!size) return fail(param, "invalid param");
        if (!buf) {
            *size = static_cast<int32_t>(size_);
            return ok;
        }
        if (*size < static_cast<int64_t>(size_)) return fail(buffer, "not enough buffer");
        for (uint32_t i = 0; i < size_; ++i) buf[i] = i < view.size() ? view[i] : 0;
        return ok;
    });
}

uint32_t Model::setmaxvalue_ex(int32_t servers, int32_t hb_count, int32_t np_count) {
    return call("_setmaxvalue_ex", [&]() -> uint32_t {
        if (servers < 1 || hb_count < 1 || np_count < 1) return fail(param, "invalid param");
        put(8, static_cast<uint32_t>(servers));
        put(12, static_cast<uint32_t>(hb_count));
        put(16, static_cast<uint32_t>(np_count));
        return ok;
    });
}

uint32_t Model::getmaxvalue_ex(uint32_t* servers, uint32_t* hb_count, uint32_t* np_count) {
    return call("_getmaxvalue_ex", [&]() -> uint32_t {
        if (!servers || !hb_count || !np_count) return fail(param, "invalid param");
        *servers = get(8);
        *hb_count = get(12);
        *np_count = get(16);
        return ok;
    });
}

uint32_t Model::sethbinfo_ex(int32_t a, int32_t b) {
    return call("_sethbinfo_ex", [&]() -> uint32_t {
        if (a < 1 || b < 1) return fail(param, "invalid param");
        put(4, static_cast<uint32_t>(a));
        put(0, static_cast<uint32_t>(b));
        return ok;
    });
}

uint32_t Model::gethbinfo_ex(uint32_t* a, uint32_t* b) {
    return call("_gethbinfo_ex", [&]() -> uint32_t {
        if (!a || !b) return fail(param, "invalid param");
        *a = get(4);
        *b = get(0);
        return ok;
    });
}

uint32_t Model::set_header_word(const char* function, int64_t at, uint32_t value) {
    return call(function, [&]() -> uint32_t {
        put(at, value);
        return ok;
    });
}

uint32_t Model::get_header_word(const char* function, int64_t at, uint32_t* value) {
    return call(function, [&]() -> uint32_t {
        if (!value) return fail(param, "invalid param");
        *value = get(at);
        return ok;
    });
}

// ---- servers ----

uint32_t Model::addnode(const char* name, int32_t pri) {
    return call("_addnode", [&]() -> uint32_t {
        if (!name) return fail(param, "invalid param");
        const int32_t count = number(28);
        const std::string full = "node count is over(" + text(count) + ")";
        if (count >= number(8)) return fail(countover, full);
        if (find_server(name) >= 0) return fail(exist, std::string("server(") + name + ") already exist");
        // A place that is not in the view counts as a full table.
        if (count < 0 || !inside(server(count), 320)) return fail(countover, full);
        put_text(server(count), 256, name);
        view.at(static_cast<size_t>(server(count) + 255)) = 0;
        put(server(count) + 256, static_cast<uint32_t>(pri));
        put(server(count) + 260, 2);
        put(server(count) + 264, 2);
        put(server(count) + 268, 0);
        put(28, static_cast<uint32_t>(count + 1));
        if (const uint32_t code = addhbrscsvstat(count)) {
            return fail(addsvstat, "shmnm_addhbrscsvstat() failed(ret:" + text(code) + ")");
        }
        if (const uint32_t code = addnprscsvstat(count)) {
            return fail(addsvstat, "shmnm_addnprscsvstat() failed(ret:" + text(code) + ")");
        }
        return ok;
    });
}

uint32_t Model::rmnode(const char* name) {
    return call("_rmnode", [&]() -> uint32_t {
        if (!name) return fail(param, "invalid param");
        const int32_t found = find_server(name);
        if (found < 0) return fail(notfound, std::string("name:") + name + " not found");
        const int32_t count = number(28);
        zero(server(found), 320);
        // What lies beyond the view does not move.
        for (int32_t p = found; p < count - 1 && inside(server(p + 1), 1); ++p) {
            move_down(server(p + 1), server(p), 320);
            zero(server(p + 1), 320);
        }
        put(28, get(28) - 1);
        if (const uint32_t code = rmhbrscsvstat(found)) {
            return fail(rmsvstat, "shmnm_rmhbrscsvstat() failed(ret:" + text(code) + ")");
        }
        if (const uint32_t code = rmnprscsvstat(found)) {
            return fail(rmsvstat, "shmnm_rmnprscsvstat() failed(ret:" + text(code) + ")");
        }
        return ok;
    });
}

uint32_t Model::modifynode(const char* name, int32_t pri) {
    return call("_modifynode", [&]() -> uint32_t {
        if (!name) return fail(param, "invalid param");
        const int32_t found = find_server(name);
        if (found < 0) return fail(notfound, std::string("name:") + name + " not found");
        put(server(found) + 256, static_cast<uint32_t>(pri));
        return ok;
    });
}

uint32_t Model::list(const std::vector<int64_t>& texts, char* buf, uint32_t* size) {
    if (!size) return fail(param, "invalid param");
    std::vector<int64_t> listed;
    for (const int64_t at : texts) {
        if (length(at) < 0) break;
        listed.push_back(at);
    }
    if (!buf) {
        int64_t total = 0;
        for (const int64_t at : listed) total += length(at) + 1;
        if (total == 0) total = 1;
        *size = static_cast<uint32_t>(total + 1);
        return ok;
    }
    if (static_cast<int32_t>(*size) < 2) return buffer;
    int64_t used = 0;
    for (const int64_t at : listed) {
        if (int64_t{*size} < used + length(at) + 2) return buffer;
        for (int64_t i = 0; i <= length(at); ++i)
            buf[used + i] = static_cast<char>(view.at(static_cast<size_t>(at + i)));
        used += length(at) + 1;
    }
    if (used == 0) {
        buf[0] = 0;
        used = 1;
    }
    buf[used] = 0;
    *size = static_cast<uint32_t>(used + 1);
    return ok;
}

uint32_t Model::enumnode(char* buf, uint32_t* size) {
    return call("_enumnode", [&]() -> uint32_t {
        std::vector<int64_t> names;
        names.reserve(static_cast<size_t>(visible_servers()));
        for (int32_t p = 0; p < visible_servers(); ++p) names.push_back(server(p));
        return list(names, buf, size);
    });
}

uint32_t Model::getnodepri(const char* name, int32_t* pri) {
    return call("_getnodepri", [&]() -> uint32_t {
        if (!name || !pri) return fail(param, "invalid param");
        const int32_t found = find_server(name);
        if (found < 0) return fail(notfound, std::string("name:") + name + " not found");
        *pri = number(server(found) + 256);
        return ok;
    });
}

uint32_t Model::getnodename(char* name, int32_t pri) {
    return call("_getnodename", [&]() -> uint32_t {
        if (!name) return fail(param, "invalid param");
        const int32_t found = find_priority(pri);
        if (found < 0) return fail(notfound, "pri:" + text(pri) + " not found");
        for (int64_t i = 0; i < 256; ++i) {
            name[i] = static_cast<char>(view.at(static_cast<size_t>(server(found) + i)));
            if (name[i] == 0) break;
        }
        return ok;
    });
}

uint32_t Model::set_server_word(const char* function, int64_t at, const char* name, uint32_t value) {
    return call(function, [&]() -> uint32_t {
        if (!name) return fail(param, "invalid param");
        const int32_t found = find_server(name);
        if (found < 0) return fail(notfound, std::string("name:") + name + " not found");
        put(server(found) + at, value);
        return ok;
    });
}

uint32_t Model::get_server_word(const char* function, int64_t at, const char* name, uint32_t* value) {
    return call(function, [&]() -> uint32_t {
        if (!name || !value) return fail(param, "invalid param");
        const int32_t found = find_server(name);
        if (found < 0) return fail(notfound, std::string("name:") + name + " not found");
        *value = get(server(found) + at);
        return ok;
    });
}

uint32_t Model::getnodecombstat(const char* name, uint32_t* stat) {
    return call("_getnodecombstat", [&]() -> uint32_t {
        if (!name || !stat) return fail(param, "invalid param");
        const int32_t found = find_server(name);
        if (found < 0) return fail(notfound, std::string("name:") + name + " not found");
        const uint32_t node = get(server(found) + 260), isolated = get(server(found) + 276), wait = get(44);
        if (node == 1 && wait <= 1 && isolated == 0) *stat = 1;
        if (node == 1 && wait <= 1 && isolated == 1) *stat = 16;
        if (node == 1 && wait == 2) *stat = 65538;
        if (node == 1 && wait >= 3) *stat = 9;
        if (node == 2 && (wait == 0 || wait == 3)) *stat = 2;
        if (node == 2 && wait == 2) *stat = 65538;
        if (node == 2 && (wait == 1 || wait >= 4)) *stat = 9;
        if (node != 1 && node != 2) *stat = 9;
        return ok;
    });
}

uint32_t Model::chkalivesv(const char* name, uint32_t* flag) {
    return call("shmnm_chkalivesv", [&]() -> uint32_t {
        if (!flag) return fail(param, "invalid param");
        *flag = 0;
        for (int32_t p = 0; p < visible_servers(); ++p) {
            if (name && same(server(p), name)) continue;
            if (get(server(p) + 260) == 1) {
                *flag = 1;
                break;
            }
        }
        const auto low = static_cast<int32_t>(static_cast<uint32_t>(reinterpret_cast<uintptr_t>(flag)));
        say(4, name ? "flag(" + std::string(name) + "):" + text(low) : "flag:" + text(low));
        return ok;
    });
}

// ---- resources ----

uint32_t Model::add(const char* function, Table table, const char* type, const char* name, uint32_t pri) {
    return call(function, [&]() -> uint32_t {
        if (!type || !name) return fail(param, "invalid param");
        const int32_t count = number(table.count_at), servers = number(28);
        const std::string full = std::string(table.word) + " resource count is over(" + text(count) + ")";
        if (count >= number(table.limit_at)) return fail(rscover, full);
        if (find_resource(table, type, name) >= 0)
            return fail(exist, std::string("resource(") + name + ") already exist");
        // A place, or a word of it, that is not in the view counts as a full table.
        if (count < 0 || stride() <= 0 || table.start < 0 || !inside(resource(table, count), 584))
            return fail(rscover, full);
        for (const int64_t j : {int64_t{0}, int64_t{servers} - 1}) {
            if (servers <= 0) break;
            if (!inside(word(table, false, count, j), 4)) return fail(rscover, full);
            if (table.network && !inside(word(table, true, count, j), 4)) return fail(rscover, full);
        }
        // Before anything is written: a row that lies over the header may change its maxima.
        const int64_t states = word(table, false, count, 0), network = word(table, true, count, 0);
        const int64_t at = resource(table, count);
        put_text(at + 256, 32, type);
        view.at(static_cast<size_t>(at + 256 + 31)) = 0;
        put_text(at, 32, name);
        view.at(static_cast<size_t>(at + 31)) = 0;
        put(at + 544, pri);
        put(table.count_at, static_cast<uint32_t>(count + 1));
        for (int32_t j = 0; j < servers; ++j) put(states + 4 * int64_t{j}, 2);
        for (int32_t j = 0; table.network && j < servers; ++j) put(network + 4 * int64_t{j}, 2);
        return ok;
    });
}

uint32_t Model::rm(const char* function, Table table, const char* type, const char* name) {
    return call(function, [&]() -> uint32_t {
        if (!type || !name) return fail(param, "invalid param");
        const int32_t found = find_resource(table, type, name);
        if (found < 0) return fail(notfound, not_found(type, name));
        const int32_t count = number(table.count_at);
        const int64_t step = stride(), row = 4 * int64_t{number(8)};
        const auto record = [&](int64_t p) { return table.start + p * step; };
        const auto network = [&](int64_t p) { return network_start_ + p * row; };
        zero(record(found), step);
        for (int64_t k = found; k < count - 1; ++k) {
            // What lies beyond the view does not move.
            const bool record_there = inside(record(k + 1), 1);
            const bool row_there = table.network && row > 0 && inside(network(k + 1), 1);
            if (!record_there && !row_there) break;
            if (record_there) {
                move_down(record(k + 1), record(k), step);
                zero(record(k + 1), step);
            }
            if (row_there) {
                move_down(network(k + 1), network(k), row);
                zero(network(k + 1), row);
            }
        }
        put(table.count_at, static_cast<uint32_t>(count - 1));
        return ok;
    });
}

uint32_t Model::modify(const char* function, Table table, const char* type, const char* name, uint32_t pri) {
    return call(function, [&]() -> uint32_t {
        if (!type || !name) return fail(param, "invalid param");
        const int32_t found = find_resource(table, type, name);
        if (found < 0) return fail(notfound, not_found(type, name));
        put(resource(table, found) + 544, pri);
        return ok;
    });
}

uint32_t Model::getpri(const char* function, Table table, const char* type, const char* name, uint32_t* pri) {
    return call(function, [&]() -> uint32_t {
        if (!type || !name || !pri) return fail(param, "invalid param");
        const int32_t found = find_resource(table, type, name);
        if (found < 0) return fail(notfound, not_found(type, name));
        *pri = get(resource(table, found) + 544);
        return ok;
    });
}

uint32_t Model::getinfo(const char* function, Table table, char* type, const char* name) {
    return call(function, [&]() -> uint32_t {
        if (!name || name[0] == 0) return fail(param, "invalid param");
        const int32_t found = find_resource(table, nullptr, name);
        if (found < 0) return fail(notfound, std::string("name:") + name + " not found");
        for (int64_t i = 0; type && i < 32; ++i) {
            type[i] = static_cast<char>(view.at(static_cast<size_t>(resource(table, found) + 256 + i)));
            if (type[i] == 0) break;
        }
        return ok;
    });
}

uint32_t Model::enumtype(const char* function, Table table, char* buf, uint32_t* size) {
    return call(function, [&]() -> uint32_t {
        std::vector<int64_t> types;
        const int32_t count = visible_resources(table);
        types.reserve(static_cast<size_t>(count));
        for (int32_t p = 0; p < count; ++p) types.push_back(resource(table, p) + 256);
        return list(types, buf, size);
    });
}

uint32_t Model::enumrsc(const char* function, Table table, const char* type, char* buf, uint32_t* size) {
    return call(function, [&]() -> uint32_t {
        std::vector<int64_t> names;
        const int32_t count = visible_resources(table);
        for (int32_t p = 0; p < count; ++p) {
            if (!type || same(resource(table, p) + 256, type)) names.push_back(resource(table, p));
        }
        return list(names, buf, size);
    });
}

uint32_t Model::setstat(const char* function, Table table, const char* type, const char* name, uint32_t stat) {
    return call(function, [&]() -> uint32_t {
        if (!name) return fail(param, "invalid param");
        const int32_t found = find_resource(table, type, name);
        if (found < 0) return fail(notfound, not_found(type, name));
        put(resource(table, found) + 548, stat);
        return ok;
    });
}

uint32_t Model::getstat(const char* function, Table table, const char* type, const char* name, uint32_t* stat) {
    return call(function, [&]() -> uint32_t {
        if (!name || !stat) return fail(param, "invalid param");
        const int32_t found = find_resource(table, type, name);
        if (found < 0) return fail(notfound, not_found(type, name));
        *stat = get(resource(table, found) + 548);
        return ok;
    });
}

uint32_t Model::setsvstat(const char* function, Table table, bool network, const char* type, const char* name,
                          int32_t svid, uint32_t stat) {
    return call(function, [&]() -> uint32_t {
        if (!name) return fail(param, "invalid param");
        const int32_t j = find_priority(svid), p = find_resource(table, type, name);
        if (j < 0 || p < 0 || !inside(word(table, network, p, j), 4)) {
            return fail(notfound, svid_not_found(type, name, svid));
        }
        put(word(table, network, p, j), stat);
        return ok;
    });
}

uint32_t Model::getsvstat(const char* function, Table table, bool network, const char* type, const char* name,
                          int32_t svid, uint32_t* stat) {
    return call(function, [&]() -> uint32_t {
        if (!name) return fail(param, "invalid param");
        const int32_t j = find_priority(svid), p = find_resource(table, type, name);
        if (j < 0 || p < 0 || !inside(word(table, network, p, j), 4)) {
            return fail(notfound, svid_not_found(type, name, svid));
        }
        if (stat) *stat = get(word(table, network, p, j));
        return ok;
    });
}

uint32_t Model::enumrow(const char* function, Table table, bool network, const char* type, const char* name,
                        uint32_t* buf, uint32_t* size) {
    return call(function, [&]() -> uint32_t {
        if (!name || !size) return fail(param, "invalid param");
        const int32_t servers = number(28);
        const uint32_t needed = static_cast<uint32_t>(servers) * 4;
        if (!buf) {
            *size = needed;
            return ok;
        }
        if (*size < needed) return buffer;
        const int32_t p = find_resource(table, type, name);
        if (p < 0) return fail(notfound, not_found(type, name));
        uint32_t copied = 0;
        for (int32_t j = 0; j < servers && copied + 4 <= *size && inside(word(table, network, p, j), 4); ++j) {
            buf[j] = get(word(table, network, p, j));
            copied += 4;
        }
        *size = copied;
        return ok;
    });
}

uint32_t Model::enumcolumn(const char* function, Table table, bool network, const char* svname, uint32_t* buf,
                           uint32_t* size) {
    return call(function, [&]() -> uint32_t {
        if (!svname || !size) return fail(param, "invalid param");
        const int32_t count = number(table.count_at);
        const uint32_t needed = static_cast<uint32_t>(count) * 4;
        if (!buf) {
            *size = needed;
            return ok;
        }
        if (*size < needed) return buffer;
        const int32_t j = find_server(svname);
        if (j < 0) return fail(notfound, std::string("name:") + svname + " not found");
        // The words within records end with the last record in the view, the others where the view does.
        const int32_t rows = network ? count : visible_resources(table);
        for (int32_t p = 0; p < rows && static_cast<uint32_t>(p) < *size / 4; ++p) {
            if (!inside(word(table, network, p, j), 4)) break;
            buf[p] = get(word(table, network, p, j));
        }
        return ok;
    });
}

uint32_t Model::settype(const char* function, Table table, const char* type, uint32_t stat) {
    return call(function, [&]() -> uint32_t {
        if (!type) return fail(param, "invalid param");
        const int32_t count = visible_resources(table);
        for (int32_t p = 0; p < count; ++p) {
            if (same(resource(table, p) + 256, type)) put(resource(table, p) + 548, stat);
        }
        const int32_t servers = number(28);
        for (int32_t p = 0; p < count; ++p) {
            if (!same(resource(table, p) + 256, type)) continue;
            for (int32_t j = 0; j < servers && inside(word(table, false, p, j), 4); ++j)
                put(word(table, false, p, j), stat);
        }
        return ok;
    });
}

int64_t Model::find_described(const Table& table, const char* type, const char* name) const {
    const int32_t count = visible(table.start, 584, 584, number(table.count_at));
    for (int32_t p = 0; p < count; ++p) {
        const int64_t at = table.start + 584 * int64_t{p};
        if (same(at + 256, type) && same(at, name)) return at + 288;
    }
    return -1;
}

uint32_t Model::setdescript(const char* function, Table table, const char* type, const char* name, const void* data,
                            int32_t len) {
    return call(function, [&]() -> uint32_t {
        if (!type || !name || !data) return fail(param, "invalid param");
        if (len <= 0) return fail(param, "invalid param");
        const int64_t at = find_described(table, type, name);
        if (at < 0) return fail(notfound, not_found(type, name));
        std::memcpy(&view.at(static_cast<size_t>(at)), data, static_cast<size_t>(std::min(len, 256)));
        return ok;
    });
}

uint32_t Model::getdescript(const char* function, Table table, const char* type, const char* name, void* buf,
                            const int32_t* size) {
    return call(function, [&]() -> uint32_t {
        if (!type || !name || !buf) return fail(param, "invalid param");
        const int32_t wanted = size ? *size : 0;
        if (wanted <= 0) return fail(param, "invalid param");
        const int64_t at = find_described(table, type, name);
        if (at < 0) return fail(notfound, not_found(type, name));
        std::memcpy(buf, &view.at(static_cast<size_t>(at)), static_cast<size_t>(std::min(wanted, 256)));
        return ok;
    });
}

// ---- columns ----

bool Model::columns_inside(const Table& table, int64_t first, int64_t last) const {
    const int32_t rows = visible_resources(table);
    for (const bool network : {false, true}) {
        if (network && !table.network) continue;
        for (int32_t p = 0; p < rows; ++p) {
            if (!inside(word(table, network, p, first), 4) || !inside(word(table, network, p, last), 4)) return false;
        }
    }
    return true;
}

uint32_t Model::addcolumn(const char* function, Table table, int32_t index) {
    return call(function, [&]() -> uint32_t {
        const std::string invalid = "invalid index(" + text(index) + ")";
        const int64_t n = number(28);
        if (index >= n) return fail(bad_index, invalid);
        if (!columns_inside(table, index, std::max<int64_t>(index, n - 2))) return fail(bad_index, invalid);
        const int32_t rows = visible_resources(table);
        const int64_t step = stride(), row = 4 * int64_t{number(8)};
        for (int32_t p = 0; p < rows; ++p) {
            const int64_t status = table.start + p * step + 584, network = network_start_ + p * row;
            for (int64_t k = n - 3; k >= index; --k) {
                put(status + 4 * (k + 1), get(status + 4 * k));
                if (table.network) put(network + 4 * (k + 1), get(network + 4 * k));
            }
            put(status + 4 * int64_t{index}, 2);
            if (table.network) put(network + 4 * int64_t{index}, 2);
        }
        return ok;
    });
}

uint32_t Model::rmcolumn(const char* function, Table table, int32_t index) {
    return call(function, [&]() -> uint32_t {
        const std::string invalid = "invalid index(" + text(index) + ")";
        const int64_t n = number(28);
        if (index > n) return fail(bad_index, invalid);
        if (index < n && !columns_inside(table, index, n)) return fail(bad_index, invalid);
        const int32_t rows = visible_resources(table);
        const int64_t step = stride(), row = 4 * int64_t{number(8)};
        for (int32_t p = 0; p < rows; ++p) {
            const int64_t status = table.start + p * step + 584, network = network_start_ + p * row;
            for (int64_t k = int64_t{index} + 1; k <= n; ++k) {
                put(status + 4 * (k - 1), get(status + 4 * k));
                if (table.network) put(network + 4 * (k - 1), get(network + 4 * k));
            }
        }
        return ok;
    });
}

// ---- simulation ----

uint32_t Model::setnpsimu(uint32_t flag, const uint32_t* nodefail, int32_t count) {
    return call("shmnm_setnpsimu", [&]() -> uint32_t {
        for (int32_t i = 0; i < visible_servers(); ++i) {
            const int32_t pri = number(server(i) + 256);
            uint32_t value = 0;
            bool said = false;
            if (flag == 1 && nodefail && pri >= 0 && pri < count) {
                value = nodefail[pri];
                if (value != 0 && value != 1) {
                    say(2, "invalid node dfailstatus(" + text(static_cast<int32_t>(value)) +
                               "), set 0. (pri: " + text(pri) + ")");
                    value = 0;
                    said = true;
                }
            }
            if (!said) say(4, "set node dfailstatus(" + text(value) + "). (pri: " + text(pri) + ")");
            put(server(i) + 288, value);
        }
        if (flag == 0 || flag == 1) {
            say(4, "set cluster dfailstatus(" + text(flag) + ").");
        } else {
            say(2, "invalid cluster dfailstatus(" + text(static_cast<int32_t>(flag)) + "), set 0.");
        }
        put(60, flag == 1 ? 1 : 0);
        return ok;
    });
}

uint32_t Model::getnpsimu(uint32_t* flag, uint32_t* nodefail, int32_t count) {
    return call("shmnm_getnpsimu", [&]() -> uint32_t {
        if (!nodefail || count < number(28)) return fail(param, "invalid param");
        const uint32_t cluster = get(60);
        if (cluster == 1) {
            for (int32_t i = 0; i < count; ++i) nodefail[i] = 0;
            for (int32_t i = 0; i < visible_servers(); ++i) {
                const int32_t pri = number(server(i) + 256);
                const uint32_t value = get(server(i) + 288);
                if (pri < 0 || pri >= count) {
                    say(2, "invalid node priority(" + text(pri) +
                               "), ignore. (stat: " + text(static_cast<int32_t>(value)) + ")");
                } else {
                    nodefail[pri] = value;
                }
            }
        }
        if (flag) *flag = cluster;
        return ok;
    });
}

uint32_t Model::getnpsimuflag(uint32_t* flag) {
    return call("shmnm_getnpsimuflag", [&]() -> uint32_t {
        if (flag) *flag = get(60);
        return ok;
    });
}

// ---- fst ----

uint32_t Model::setfstrscstat(uint32_t stat) {
    return call("_setfstrscstat", [&]() -> uint32_t {
        if (!has_fst()) return notfound;
        put(fst_start_ + 548, stat);
        return ok;
    });
}

uint32_t Model::getfstrscstat(uint32_t* stat) {
    return call("_getfstrscstat", [&]() -> uint32_t {
        if (!stat) return fail(param, "invalid param");
        if (!has_fst()) return notfound;
        *stat = get(fst_start_ + 548);
        return ok;
    });
}

uint32_t Model::setfstdescript(const void* descript, int32_t len) {
    return call("_setfstdescript", [&]() -> uint32_t {
        if (!descript) return fail(param, "invalid param");
        if (len <= 0) return fail(param, "invalid param");
        if (!has_fst()) return notfound;
        std::memcpy(&view.at(static_cast<size_t>(fst_start_ + 288)), descript, static_cast<size_t>(std::min(len, 256)));
        return ok;
    });
}

uint32_t Model::getfstdescript(void* descript, const int32_t* len) {
    return call("_getfstdescript", [&]() -> uint32_t {
        if (!descript) return fail(param, "invalid param");
        const int32_t wanted = len ? *len : 0;
        if (wanted <= 0) return fail(param, "invalid param");
        if (!has_fst()) return notfound;
        std::memcpy(descript, &view.at(static_cast<size_t>(fst_start_ + 288)),
                    static_cast<size_t>(std::min(wanted, 256)));
        return ok;
    });
}

uint32_t Model::setfstrscpid(const char* name, int32_t kind, uint32_t pid, uint64_t piddata) {
    const std::string key = name ? name : "";
    const uint32_t traced = call("_setfstrscpid", [&]() -> uint32_t {
        const int32_t count = number(40);
        const std::string full = "pid count is over(" + text(count) + ")";
        if (count >= number(24)) return fail(countover, full);
        // As far as records lie in the view, whatever the count says.
        const int32_t visible_count = visible(pid_start_, 324, 324, count);
        int32_t p = 0;
        while (p < visible_count && !same(pid_start_ + 324 * int64_t{p}, key.c_str())) ++p;
        const bool known = p < visible_count;
        // Only a new name needs a place, and one that is not in the view counts as a full table.
        if (!known && (count < 0 || pid_start_ < 0 || !inside(pid_start_ + 324 * int64_t{count}, 324)))
            return fail(countover, full);
        const int64_t at = pid_start_ + 324 * int64_t{p};
        if (!known) {
            put(40, static_cast<uint32_t>(count + 1));
            put_text(at, 256, key.c_str());
        }
        if (kind < 0 || kind > 2) return fail(param, "invalid param");
        put(at + 256 + 4 * int64_t{kind}, pid);
        put(at + 268 + 8 * int64_t{kind}, static_cast<uint32_t>(piddata));
        put(at + 272 + 8 * int64_t{kind}, static_cast<uint32_t>(piddata >> 32));
        return ok;
    });
    return traced == 2 ? 1 : traced;
}

uint32_t Model::getfstrscpid(const char* name, int32_t kind, uint32_t* pid, uint64_t* piddata) {
    const std::string key = name ? name : "";
    const uint32_t traced = call("_getfstrscpid", [&]() -> uint32_t {
        const int32_t count = visible(pid_start_, 324, 324, number(40));
        for (int32_t p = 0; p < count; ++p) {
            const int64_t at = pid_start_ + 324 * int64_t{p};
            if (!same(at, key.c_str())) continue;
            if (kind < 0 || kind > 2) return fail(param, "invalid param");
            if (pid) *pid = get(at + 256 + 4 * int64_t{kind});
            if (piddata)
                *piddata = get(at + 268 + 8 * int64_t{kind}) | uint64_t{get(at + 272 + 8 * int64_t{kind})} << 32;
            return ok;
        }
        return ok;
    });
    return traced == 2 ? 1 : traced;
}

}  // namespace model
