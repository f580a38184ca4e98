// How long can a call take, whatever bytes the region holds? For every function that works on a table, the program
// searches for the header words, contents and arguments with which a call takes longest:
//
//     worst_header_bench TRIES [FUNCTION]
//
// TRIES is the number of regions to try per function. FUNCTION is a regular expression: only functions whose names
// match it are tried. Each line shows a function, the milliseconds of its longest call, and the choices for that call.
//
// shmnm_setnpsimu() and shmnm_getnpsimu() are left out, because they may write a line per server.
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <random>
#include <regex>
#include <stdexcept>
#include <string>
#include <vector>

#include "shmnm.h"

namespace {

constexpr int64_t most = INT32_MAX;

/// The choices for a call: each has a list of values to try.
enum Choice : size_t { max_servers, servers, hb, np, pids, content, name, type, index_of_server, value, choices };

const std::vector<int64_t> values[choices] = {
    // Strides of 4, 8, 12, 128, 288, 292, 296, 300, 320, 580, 584, 588, ... bytes.
    {-145, -144, -143, -114, -110, -105, -100, -90, -80,  -74,  -73,    -72,     -71, -66,
     -50,  -25,  -2,   -1,   0,    1,    2,    128, 1000, 2000, 20'000, 300'000, most},
    {most,   most - 1, 0,      1,       128,     1000,    2000,    3000,    5000,    6000,
     10'000, 30'000,   60'000, 100'000, 150'000, 200'000, 300'000, 400'000, 500'000, 600'000},
    {most, most - 1, 1, 16, 1000, 2000, 3000, 4000, 5000, 6000, 8000, 20'000, 60'000, 100'000, 300'000},
    {most, most - 1, 1, 16, 1000, 2000, 3000, 4000, 5000, 6000, 8000, 20'000, 60'000, 100'000, 300'000},
    {most - 1, 0, 1, 128},
    {0, 1, 2, 3, 4, 5, 6, 7},
    {0, 1, 2, 3, 4, 5, 6, 7, 8, 9},
    {0, 1, 2, 3, 4, 5, 6, 7, 8, 9},
    {0, 1, -1, -100, -270, -5000, -10'000, -300'000, 100, 1000, 10'000, 100'000, 300'000},
    {2, 0, 0x6E6E6E6E, 0x6E6E006E, 1},
};
constexpr const char* names[choices] = {"max_servers", "servers", "hb",   "np",    "pids",
                                        "content",     "name",    "type", "index", "value"};

using Try = std::vector<size_t>;

class Arguments {
  public:
    Arguments(size_t view_size, const Try& chosen) : chosen_(chosen) {
        static const std::vector<std::string> texts = [&] {
            std::vector<std::string> all;
            for (const size_t length : {size_t{0}, size_t{3}, size_t{31}, size_t{255}, size_t{292}, size_t{328},
                                        size_t{1000}, view_size / 4, view_size / 2, view_size - 300'000}) {
                all.emplace_back(length, 'n');
            }
            return all;
        }();
        texts_ = &texts;
    }
    int64_t get(Choice choice) const { return values[choice][chosen_[choice]]; }
    const char* name() const { return (*texts_)[static_cast<size_t>(get(::name))].c_str(); }
    const char* type() const { return (*texts_)[static_cast<size_t>(get(::type))].c_str(); }
    int32_t index() const { return static_cast<int32_t>(get(index_of_server)); }
    uint32_t value() const { return static_cast<uint32_t>(get(::value)); }

  private:
    const Try& chosen_;
    const std::vector<std::string>* texts_;
};

// Room for the outputs of any call.
std::vector<char> buffer(4'000'000);
uint32_t word, size;
int32_t number = 256;
uint64_t data;
uint32_t* room() {
    size = static_cast<uint32_t>(buffer.size());
    return &size;
}
uint32_t* words() {
    return reinterpret_cast<uint32_t*>(buffer.data());
}

struct Function {
    const char* name;
    void (*call)(const Arguments& in);
};

#define CALL(function, ...)                                                            \
    Function {                                                                         \
#function, []([[maybe_unused]] const Arguments& in) { function(__VA_ARGS__); } \
    }
const Function functions[] = {
    CALL(shmnm_addnode, in.name(), 1),
    CALL(shmnm_rmnode, in.name()),
    CALL(shmnm_modifynode, in.name(), 1),
    CALL(shmnm_enumnode, nullptr, room()),
    CALL(shmnm_enumnode, buffer.data(), room()),
    CALL(shmnm_getnodepri, in.name(), &number),
    CALL(shmnm_getnodename, buffer.data(), 77),
    CALL(shmnm_setnodestat, in.name(), 1),
    CALL(shmnm_getnodecombstat, in.name(), &word),
    CALL(shmnm_chkalivesv, in.name(), &word),
    CALL(shmnm_addhbrsc, in.type(), in.name(), 1),
    CALL(shmnm_addnprsc, in.type(), in.name(), 1),
    CALL(shmnm_rmhbrsc, in.type(), in.name()),
    CALL(shmnm_rmnprsc, in.type(), in.name()),
    CALL(shmnm_modifyhbrsc, in.type(), in.name(), 2),
    CALL(shmnm_gethbrscpri, in.type(), in.name(), &word),
    CALL(shmnm_gethbrscinfo, buffer.data(), in.name()),
    CALL(shmnm_enumhbtype, nullptr, room()),
    CALL(shmnm_enumnptype, buffer.data(), room()),
    CALL(shmnm_enumhbrsc, nullptr, nullptr, room()),
    CALL(shmnm_enumhbrsc, in.type(), nullptr, room()),
    CALL(shmnm_enumnprsc, in.type(), buffer.data(), room()),
    CALL(shmnm_sethbrscstat, in.type(), in.name(), 1),
    CALL(shmnm_gethbrscstat, nullptr, in.name(), &word),
    CALL(shmnm_getnprscstat, in.type(), in.name(), &word),
    CALL(shmnm_sethbrscsvstat, in.type(), in.name(), 0, 1),
    CALL(shmnm_getnprscsvstat, nullptr, in.name(), 0, &word),
    CALL(shmnm_enumhbrscsvstat, in.type(), in.name(), words(), room()),
    CALL(shmnm_enumnprscsvstat, nullptr, in.name(), words(), room()),
    CALL(shmnm_enumsvhbrscstat, in.name(), words(), room()),
    CALL(shmnm_enumsvnprscstat, in.name(), words(), room()),
    CALL(shmnm_settypehbstat, in.type(), in.value()),
    CALL(shmnm_settypenpstat, in.type(), in.value()),
    CALL(shmnm_sethbdescript, in.type(), in.name(), buffer.data(), 256),
    CALL(shmnm_getnpdescript, in.type(), in.name(), buffer.data(), &number),
    CALL(shmnm_addhbrscsvstat, in.index()),
    CALL(shmnm_addnprscsvstat, in.index()),
    CALL(shmnm_rmhbrscsvstat, in.index()),
    CALL(shmnm_rmnprscsvstat, in.index()),
    CALL(shmnm_setrscsvstat_nw, in.type(), in.name(), 0, 1),
    CALL(shmnm_enumrscsvstat_nw, in.type(), in.name(), words(), room()),
    CALL(shmnm_enumsvrscstat_nw, in.name(), words(), room()),
    CALL(shmnm_setfstrscpid, in.name(), 1, 77, 78),
    CALL(shmnm_getfstrscpid, in.name(), 1, &word, &data),
};
#undef CALL

/// The library's own view of the region, so that the library sees the damage made here.
struct View {
    View() {
        std::ifstream maps("/proc/self/maps");
        for (std::string line; std::getline(maps, line);) {
            unsigned long begin = 0, end = 0;
            if (line.find("oru_kzmshmnm_map") == std::string::npos) continue;
            if (std::sscanf(line.c_str(), "%lx-%lx", &begin, &end) != 2) continue;
            bytes = reinterpret_cast<uint8_t*>(begin);
            length = end - begin;
        }
        if (!bytes) throw std::runtime_error("cannot find the library's view of the region");
    }
    uint8_t* bytes = nullptr;
    size_t length = 0;
};

void damage(const View& view, const Arguments& in) {
    uint8_t* const bytes = view.bytes;
    std::memset(bytes, 0, sizeof(shmnm_header));
    uint8_t* const tables = bytes + sizeof(shmnm_header);
    const size_t length = view.length - sizeof(shmnm_header);
    const int64_t kind = in.get(content);
    std::memset(tables, kind == 0 ? 0 : 'n', length);
    switch (kind) {
        case 1:
            bytes[view.length - 1] = 0;
            break;
        case 2:
            tables[length / 2] = bytes[view.length - 1] = 0;
            break;
        case 3:
            for (size_t i = 3; i < length; i += 4) tables[i] = 0;
            break;
        case 4:
            for (size_t i = 299; i < length; i += 300) tables[i] = 0;
            break;
        case 5:  // one text, then none
            std::memset(tables + length / 2, 0, length - length / 2);
            break;
        case 6:
            for (size_t i = 0; i < length; i += 1001) tables[i] = 0;
            break;
        default:
            break;
    }
    auto& header = *reinterpret_cast<shmnm_header*>(bytes);
    header.max_servers = static_cast<int32_t>(in.get(max_servers));
    header.max_hb = header.max_np = header.fst_pid_limit = static_cast<int32_t>(most);
    header.server_count = static_cast<int32_t>(in.get(servers));
    header.hb_count = static_cast<int32_t>(in.get(hb));
    header.np_count = static_cast<int32_t>(in.get(np));
    header.fst_pid_count = static_cast<int32_t>(in.get(pids));
}

/// The processor time of this thread, so that other processes do not count.
double now_ms() {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return 1e3 * static_cast<double>(time.tv_sec) + 1e-6 * static_cast<double>(time.tv_nsec);
}

double ms_of(const View& view, const Function& function, const Try& chosen) {
    const Arguments in(view.length, chosen);
    damage(view, in);
    const double begin = now_ms();
    function.call(in);
    return now_ms() - begin;
}

/// Makes random tries first. Then varies the slowest try so far by one or two choices at a time.
void search(const View& view, const Function& function, unsigned tries, std::mt19937_64& random) {
    const auto any = [&](size_t choice) { return static_cast<size_t>(random() % values[choice].size()); };
    Try worst(choices), chosen(choices);
    double worst_ms = 0;
    for (unsigned i = 0; i < tries; ++i) {
        if (i < tries / 3) {
            for (size_t choice = 0; choice < choices; ++choice) chosen[choice] = any(choice);
        } else {
            chosen = worst;
            for (uint64_t changes = 1 + random() % 2; changes > 0; --changes) {
                const size_t choice = random() % choices;
                chosen[choice] = any(choice);
            }
        }
        const double ms = ms_of(view, function, chosen);
        if (ms <= worst_ms) continue;
        worst_ms = ms;
        worst = chosen;
    }
    // Repeats the slowest try, because a single measurement may have been disturbed.
    for (int i = 0; i < 3; ++i) worst_ms = std::min(worst_ms, ms_of(view, function, worst));
    std::printf("%s %.3f", function.name, worst_ms);
    for (size_t choice = 0; choice < choices; ++choice) {
        std::printf(" %s=%lld", names[choice], static_cast<long long>(values[choice][worst[choice]]));
    }
    std::printf("\n");
    std::fflush(stdout);
}

void run(unsigned tries, const std::string& wanted) {
    if (shmnm_create() != SHMNM_OK) throw std::runtime_error("cannot create the region");
    const View view;
    std::mt19937_64 random(1);
    for (const Function& function : functions) {
        if (std::regex_search(function.name, std::regex(wanted))) search(view, function, tries, random);
    }
    shmnm_delete();
}

}  // namespace

int main(int argc, char** argv) {
    try {
        if (argc < 2) throw std::runtime_error("usage: worst_header_bench TRIES [FUNCTION]");
        run(static_cast<unsigned>(std::stoul(argv[1])), argc > 2 ? argv[2] : "");
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "worst_header_bench: %s\n", error.what());
        return 1;
    }
}
