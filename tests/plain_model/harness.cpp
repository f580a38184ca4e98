#include "plain_model/harness.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <ostream>
#include <sstream>
#include <stdexcept>

#include "fakes/companions.h"
#include "kernel.h"
#include "kernel_objects.h"
#include "plain_model/view_guard.h"
#include "shmnm.h"

namespace model {
namespace {

constexpr size_t text_count = 20;

const std::string* texts() {
    static const std::string all[] = {"a",
                                      "b",
                                      "A",
                                      "lan1",
                                      "lan2",
                                      "",
                                      std::string(31, 'n'),
                                      std::string(32, 'n'),
                                      std::string(33, 'n'),
                                      std::string(255, 's'),
                                      std::string(256, 's'),
                                      std::string(257, 's'),
                                      std::string(300, 's'),
                                      "server001",
                                      "server002",
                                      "server0010000000",
                                      std::string(292, 's'),
                                      std::string(293, 's'),
                                      std::string(330, 's'),
                                      std::string(1000, 's')};
    static_assert(std::size(all) == text_count);
    return all;
}

/// Everything that a call can write to. Bytes that nobody writes keep the pattern.
struct Outputs {
    static constexpr size_t buffer_size = 8192;
    alignas(8) char buffer[buffer_size];
    uint32_t words[4];
    int32_t number;
    uint64_t data;
    uint32_t size;
    int32_t signed_size;

    void reset(uint32_t new_size) {
        std::memset(static_cast<void*>(this), 0xC3, sizeof *this);
        size = new_size;
        signed_size = static_cast<int32_t>(new_size);
    }
};

/// The arguments that the choices of a call stand for.
class Arguments {
  public:
    Arguments(const Call& call, uint32_t last_size) : choices_(call.choices), last_size_(last_size) {}

    /// A name or type: few enough to meet again, the fourth null.
    const char* text(size_t i) const {
        const uint8_t choice = choices_.at(i);
        if (choice >= 248) return nullptr;
        return texts()[choice < 128 ? choice % 6 : choice % text_count].c_str();
    }
    const char* name() const { return text(2); }
    const char* type() const { return text(3); }
    int32_t pri() const {
        static const int32_t all[] = {0, 1, 2, 3, 4, 1, 2, 7, -1, -2, INT32_MAX, INT32_MIN};
        return all[choices_[4] % std::size(all)];
    }
    uint32_t value() const {
        static const uint32_t all[] = {0, 1, 2, 3, 4, 5, 0x80000000, 0xFFFFFFFF, 0x12345678, 0x73737373, 0x73007373};
        return all[choices_[5] % std::size(all)];
    }
    uint64_t data() const { return uint64_t{value()} << 32 | choices_[6]; }
    int32_t maximum(size_t i) const {
        static const int32_t all[] = {2, 3, 4, 1, 2, 3, 4, 5, 8, 0, -1, 1000, 100'000, INT32_MAX, INT32_MIN, 6};
        return all[choices_.at(i) < 200 ? choices_.at(i) % 8 : choices_.at(i) % 16];
    }
    int32_t index() const {
        static const int32_t all[] = {0, 1, 2, 3, 4, 0, 1, 5, 7, -1, -2, -30, -400, INT32_MAX, INT32_MIN, 6, -60, -150};
        return all[choices_[4] % std::size(all)];
    }
    int32_t kind() const {
        static const int32_t all[] = {0, 1, 2, 0, 1, 2, 3, -1, INT32_MAX, INT32_MIN};
        return all[choices_[4] % std::size(all)];
    }
    int32_t array_count() const {
        static const int32_t all[] = {0, 1, 2, 3, 4, 5, 8, 16, -1, INT32_MIN};
        return all[choices_[4] % std::size(all)];
    }
    /// A size in bytes, often the one that was measured last.
    uint32_t size() const {
        static const uint32_t all[] = {0, 1, 2, 3, 4, 7, 8, 11, 12, 15, 16, 17, 256, 257, 1000, Outputs::buffer_size};
        const uint8_t choice = choices_[7];
        // Never more than there is: in a damaged region the measured size may be anything.
        const uint32_t last = last_size_ < Outputs::buffer_size ? last_size_ : uint32_t{Outputs::buffer_size};
        if (choice < 64) return last;
        if (choice < 96) return last > 0 ? last - 1 : 0;
        if (choice < 100) return 0x80000000;
        return all[choice % std::size(all)];
    }
    int32_t length() const {
        static const int32_t all[] = {1, 2, 6, 10, 20, 255, 256, 257, 300, 1000, 0, -1, INT32_MIN, INT32_MAX};
        return all[choices_[7] % std::size(all)];
    }
    /// A pointer, sometimes null.
    template <typename Value>
    Value* some(Value* pointer, size_t i = 8) const {
        return choices_.at(i) % 16 == 15 ? nullptr : pointer;
    }
    /// A buffer, often null: then the call measures.
    template <typename Value>
    Value* buffer(Outputs& out) const {
        return choices_[9] % 4 == 3 ? nullptr : reinterpret_cast<Value*>(out.buffer);
    }
    /// Bytes to be stored: 300 and more of them.
    const void* bytes() const {
        static const std::string all(1024, 'x');
        static const std::string others = [] {
            std::string pattern(1024, 0);
            for (size_t i = 0; i < pattern.size(); ++i) pattern[i] = static_cast<char>(i * 7 + 1);
            return pattern;
        }();
        return some((choices_[10] & 1) ? all.data() : others.data());
    }
    const uint32_t* failed() const {
        static const uint32_t all[][16] = {{0, 1, 0, 1, 1, 0, 1, 0, 0, 1, 1, 1, 0, 0, 1, 1},
                                           {1, 7, 0, 0xFFFFFFFF, 1, 2, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0}};
        return some(all[choices_[10] % 2]);
    }

  private:
    std::array<uint8_t, 12> choices_;
    uint32_t last_size_;
};

/// The library's functions under the model's names.
struct Library {
// clang-format off
#define SHMNM_EACH(X) \
    X(clear) X(dump) X(setmaxvalue_ex) X(getmaxvalue_ex) X(sethbinfo_ex) X(gethbinfo_ex) X(setwaitstat) \
    X(getwaitstat) X(setbwflag) X(getbwflag) X(setbwflagdisk) X(getbwflagdisk) X(setclstat) X(getclstat) \
    X(addnode) X(rmnode) X(modifynode) X(enumnode) X(getnodepri) X(getnodename) X(setnodestat) X(getnodestat) \
    X(setnodestat_nw) X(getnodestat_nw) X(setdownnotifystat) X(getdownnotifystat) X(setisolateflag) \
    X(getisolateflag) X(setpingstat) X(getpingstat) X(setholdstat) X(getholdstat) X(getnodecombstat) \
    X(chkalivesv) X(addhbrsc) X(addnprsc) X(rmhbrsc) X(rmnprsc) X(modifyhbrsc) X(modifynprsc) X(gethbrscpri) \
    X(getnprscpri) X(gethbrscinfo) X(getnprscinfo) X(enumhbtype) X(enumnptype) X(enumhbrsc) X(enumnprsc) \
    X(sethbrscstat) X(setnprscstat) X(gethbrscstat) X(getnprscstat) X(sethbrscsvstat) X(setnprscsvstat) \
    X(setrscsvstat_nw) X(gethbrscsvstat) X(getnprscsvstat) X(getrscsvstat_nw) X(enumhbrscsvstat) \
    X(enumnprscsvstat) X(enumrscsvstat_nw) X(enumsvhbrscstat) X(enumsvnprscstat) X(enumsvrscstat_nw) \
    X(settypehbstat) X(settypenpstat) X(sethbdescript) X(setnpdescript) X(gethbdescript) X(getnpdescript) \
    X(addhbrscsvstat) X(addnprscsvstat) X(rmhbrscsvstat) X(rmnprscsvstat) X(setnpsimu) X(getnpsimu) \
    X(getnpsimuflag) X(setfstrscstat) X(getfstrscstat) X(setfstdescript) X(getfstdescript) X(setfstrscpid) \
    X(getfstrscpid)
// clang-format on
#define SHMNM_FORWARD(name)           \
    template <typename... Args>       \
    uint32_t name(Args... args) {     \
        return shmnm_##name(args...); \
    }
    SHMNM_EACH(SHMNM_FORWARD)
#undef SHMNM_FORWARD
#undef SHMNM_EACH
};

struct Function {
    const char* name;
    int weight;  ///< how often it is called, compared with the others
    uint32_t (*on_library)(Library& side, const Arguments& in, Outputs& out);
    uint32_t (*on_model)(Model& side, const Arguments& in, Outputs& out);
};

#define CALL(weight, name, ...)                                                                            \
    Function {                                                                                             \
#name, weight,                                                                                     \
            []([[maybe_unused]] Library & side, [[maybe_unused]] const Arguments& in,                      \
               [[maybe_unused]] Outputs&                                                                   \
                   out) { return side.name(__VA_ARGS__); }, []([[maybe_unused]] Model & side,              \
                                                               [[maybe_unused]] const Arguments& in,       \
                                                               [[maybe_unused]] Outputs&                   \
                                                                   out) { return side.name(__VA_ARGS__); } \
    }

const Function functions[] = {
    CALL(8, addnode, in.name(), in.pri()),
    CALL(3, rmnode, in.name()),
    CALL(2, modifynode, in.name(), in.pri()),
    CALL(3, enumnode, in.buffer<char>(out), in.some(&out.size)),
    CALL(2, getnodepri, in.name(), in.some(&out.number)),
    CALL(2, getnodename, in.some(out.buffer), in.pri()),
    CALL(1, setnodestat, in.name(), in.value()),
    CALL(1, getnodestat, in.name(), in.some(out.words)),
    CALL(1, setnodestat_nw, in.name(), in.value()),
    CALL(1, getnodestat_nw, in.name(), in.some(out.words)),
    CALL(1, setdownnotifystat, in.name(), in.value()),
    CALL(1, getdownnotifystat, in.name(), in.some(out.words)),
    CALL(1, setisolateflag, in.name(), in.value()),
    CALL(1, getisolateflag, in.name(), in.some(out.words)),
    CALL(1, setpingstat, in.name(), in.value()),
    CALL(1, getpingstat, in.name(), in.some(out.words)),
    CALL(1, setholdstat, in.name(), in.value()),
    CALL(1, getholdstat, in.name(), in.some(out.words)),
    CALL(2, getnodecombstat, in.name(), in.some(out.words)),
    CALL(2, chkalivesv, in.name(), in.some(out.words)),
    CALL(6, addhbrsc, in.type(), in.name(), in.value()),
    CALL(6, addnprsc, in.type(), in.name(), in.value()),
    CALL(2, rmhbrsc, in.type(), in.name()),
    CALL(2, rmnprsc, in.type(), in.name()),
    CALL(1, modifyhbrsc, in.type(), in.name(), in.value()),
    CALL(1, modifynprsc, in.type(), in.name(), in.value()),
    CALL(1, gethbrscpri, in.type(), in.name(), in.some(out.words)),
    CALL(1, getnprscpri, in.type(), in.name(), in.some(out.words)),
    CALL(1, gethbrscinfo, in.some(out.buffer), in.name()),
    CALL(1, getnprscinfo, in.some(out.buffer), in.name()),
    CALL(2, enumhbtype, in.buffer<char>(out), in.some(&out.size)),
    CALL(2, enumnptype, in.buffer<char>(out), in.some(&out.size)),
    CALL(2, enumhbrsc, in.type(), in.buffer<char>(out), in.some(&out.size)),
    CALL(2, enumnprsc, in.type(), in.buffer<char>(out), in.some(&out.size)),
    CALL(1, sethbrscstat, in.type(), in.name(), in.value()),
    CALL(1, setnprscstat, in.type(), in.name(), in.value()),
    CALL(1, gethbrscstat, in.type(), in.name(), in.some(out.words)),
    CALL(1, getnprscstat, in.type(), in.name(), in.some(out.words)),
    CALL(2, sethbrscsvstat, in.type(), in.name(), in.pri(), in.value()),
    CALL(2, setnprscsvstat, in.type(), in.name(), in.pri(), in.value()),
    CALL(2, setrscsvstat_nw, in.type(), in.name(), in.pri(), in.value()),
    CALL(2, gethbrscsvstat, in.type(), in.name(), in.pri(), in.some(out.words)),
    CALL(2, getnprscsvstat, in.type(), in.name(), in.pri(), in.some(out.words)),
    CALL(2, getrscsvstat_nw, in.type(), in.name(), in.pri(), in.some(out.words)),
    CALL(2, enumhbrscsvstat, in.type(), in.name(), in.buffer<uint32_t>(out), in.some(&out.size)),
    CALL(2, enumnprscsvstat, in.type(), in.name(), in.buffer<uint32_t>(out), in.some(&out.size)),
    CALL(2, enumrscsvstat_nw, in.type(), in.name(), in.buffer<uint32_t>(out), in.some(&out.size)),
    CALL(2, enumsvhbrscstat, in.name(), in.buffer<uint32_t>(out), in.some(&out.size)),
    CALL(2, enumsvnprscstat, in.name(), in.buffer<uint32_t>(out), in.some(&out.size)),
    CALL(2, enumsvrscstat_nw, in.name(), in.buffer<uint32_t>(out), in.some(&out.size)),
    CALL(1, settypehbstat, in.type(), in.value()),
    CALL(1, settypenpstat, in.type(), in.value()),
    CALL(1, sethbdescript, in.type(), in.name(), in.bytes(), in.length() > 300 ? 300 : in.length()),
    CALL(1, setnpdescript, in.type(), in.name(), in.bytes(), in.length() > 300 ? 300 : in.length()),
    CALL(1, gethbdescript, in.type(), in.name(), in.some(out.buffer), in.some(&out.signed_size, 11)),
    CALL(1, getnpdescript, in.type(), in.name(), in.some(out.buffer), in.some(&out.signed_size, 11)),
    CALL(1, addhbrscsvstat, in.index()),
    CALL(1, addnprscsvstat, in.index()),
    CALL(1, rmhbrscsvstat, in.index()),
    CALL(1, rmnprscsvstat, in.index()),
    CALL(2, setnpsimu, in.value(), in.failed(), in.array_count()),
    CALL(2, getnpsimu, in.some(out.words, 11), in.some(reinterpret_cast<uint32_t*>(out.buffer)), in.array_count()),
    CALL(1, getnpsimuflag, in.some(out.words)),
    CALL(1, setfstrscstat, in.value()),
    CALL(1, getfstrscstat, in.some(out.words)),
    CALL(1, setfstdescript, in.bytes(), in.length() > 300 ? 300 : in.length()),
    CALL(1, getfstdescript, in.some(out.buffer), in.some(&out.signed_size, 11)),
    CALL(3, setfstrscpid, in.name(), in.kind(), in.value(), in.data()),
    CALL(2, getfstrscpid, in.name(), in.kind(), in.some(out.words), in.some(&out.data, 11)),
    CALL(1, setmaxvalue_ex, in.maximum(4), in.maximum(5), in.maximum(6)),
    CALL(1, getmaxvalue_ex, in.some(out.words), in.some(out.words + 1, 9), in.some(out.words + 2, 10)),
    CALL(1, sethbinfo_ex, in.pri(), in.maximum(5)),
    CALL(1, gethbinfo_ex, in.some(out.words), in.some(out.words + 1, 9)),
    CALL(2, setwaitstat, in.value()),
    CALL(1, getwaitstat, in.some(out.words)),
    CALL(1, setbwflag, in.value()),
    CALL(1, getbwflag, in.some(out.words)),
    CALL(1, setbwflagdisk, in.value()),
    CALL(1, getbwflagdisk, in.some(out.words)),
    CALL(1, setclstat, in.value()),
    CALL(1, getclstat, in.some(out.words)),
    CALL(1, dump, nullptr, in.some(&out.signed_size)),
    CALL(1, clear),
};

/// The function that a call's first two choices stand for.
const Function& function_of(const Call& call) {
    static const std::vector<const Function*> weighted = [] {
        std::vector<const Function*> all;
        for (const Function& function : functions) {
            for (int i = 0; i < function.weight; ++i) all.push_back(&function);
        }
        return all;
    }();
    return *weighted[static_cast<size_t>(call.choices[0] | call.choices[1] << 8) % weighted.size()];
}

std::string mapping_name() {
    const char* const prefix = std::getenv("KZMUTIL_NAMESPACE");
    return (prefix ? prefix : "") + std::string("oru_kzmshmnm_map");
}

}  // namespace

namespace {

/// Byte for byte: what no side has written holds the same pattern on both.
bool same_bytes(const Outputs& left, const Outputs& right) {
    const auto* const bytes = reinterpret_cast<const unsigned char*>(&left);
    return std::equal(bytes, bytes + sizeof left, reinterpret_cast<const unsigned char*>(&right));
}

/// The size that a call is given.
uint32_t size_for(const Function& function, const Arguments& arguments) {
    return function.name == std::string_view("dump") || std::strstr(function.name, "descript")
               ? static_cast<uint32_t>(arguments.length())
               : arguments.size();
}

}  // namespace

struct Caller::State {
    uint32_t last_size = 16;  ///< that a call has written back
    Outputs outputs;
    Library library;
};

Caller::Caller() : state_(std::make_unique<State>()) {}
Caller::~Caller() = default;

uint32_t Caller::make(const Call& call) {
    const Function& function = function_of(call);
    const Arguments arguments(call, state_->last_size);
    const uint32_t size = size_for(function, arguments);
    state_->outputs.reset(size);
    const uint32_t result = function.on_library(state_->library, arguments, state_->outputs);
    if (state_->outputs.size != size) state_->last_size = state_->outputs.size;
    return result;
}

std::span<const unsigned char> Caller::outputs() const {
    return {reinterpret_cast<const unsigned char*>(&state_->outputs), sizeof(Outputs)};
}

const void* Caller::flag() const {
    return state_->outputs.words;
}

struct Harness::State {
    std::unique_ptr<ViewGuard> guard;
    void* mapping = nullptr;
    uint8_t* view = nullptr;
    size_t view_size = 0;
    std::unique_ptr<Model> model;
    std::vector<uint8_t> first_bytes;  ///< of the view
    uint32_t last_size = 16;           ///< that a call has written back
    Outputs outputs, of_library;
    Library library;

    /// How many servers, hb or np resources the region claims to have, whichever are most; never less than 0.
    size_t longest_list() const {
        int32_t counts[3];
        std::memcpy(counts, view + 28, sizeof counts);
        return static_cast<size_t>(std::max({0, counts[0], counts[1], counts[2]}));
    }
};

Harness::Harness(const Counts& counts, bool guarded) : state_(std::make_unique<State>()) {
    fakes::Companions& fake = fakes::companions();
    fake.reset();
    fake.values["/root/all/num/server"] = counts.servers;
    fake.values["/root/all/num/hbr"] = counts.hb;
    fake.values["/root/all/num/npr"] = counts.np;
    fake.values["/root/all/num/fstr"] = counts.fst;
    if (shmnm_create() != SHMNM_OK) throw std::runtime_error("the region was not created");
    for (int attempt = 0; guarded && !state_->guard; ++attempt) {
        state_->guard = ViewGuard::place(counts.servers);
        if (state_->guard) break;
        if (attempt == 100) throw std::runtime_error("no place with free neighbours was found for the view");
        shmnm_delete();
        ViewGuard::close_gap();
        if (shmnm_create() != SHMNM_OK) throw std::runtime_error("the region was not created");
    }
    state_->mapping = test::open_mapping(0xF001F, mapping_name().c_str());
    state_->view = static_cast<uint8_t*>(test::map_view(state_->mapping, 2));
    state_->view_size = shmnm::kernel::view_size(state_->view);
    state_->first_bytes.assign(state_->view, state_->view + state_->view_size);
    state_->model = std::make_unique<Model>(counts.servers, counts.hb, counts.np, counts.fst, state_->first_bytes);
    fake.take_lines();
}

void Harness::restart() {
    poke(0, state_->first_bytes.data(), state_->view_size);
    state_->last_size = 16;
}

Harness::~Harness() {
    shmnm::kernel::unmap_view(state_->view);
    shmnm::kernel::close(state_->mapping);
    state_->guard.reset();
    shmnm_delete();
}

size_t Harness::view_size() const {
    return state_->view_size;
}

void Harness::poke(size_t offset, const void* bytes, size_t size) {
    std::memcpy(state_->view + offset, bytes, size);
    std::memcpy(state_->model->view.data() + offset, bytes, size);
}

std::optional<std::string> Harness::step(const Call& call) {
    State& state = *state_;
    const Function& function = function_of(call);
    const Arguments arguments(call, state.last_size);
    uint32_t size = size_for(function, arguments);
    // Lists of words are as long as the counts in the region say, in a damaged one longer than the buffer.
    if (state.longest_list() > Outputs::buffer_size / sizeof(uint32_t)) {
        size = std::min(size, uint32_t{Outputs::buffer_size});
    }
    // Both sides write to the same place in turn: one line of the log shows a pointer.
    state.outputs.reset(size);
    const uint32_t found = function.on_library(state.library, arguments, state.outputs);
    std::memcpy(static_cast<void*>(&state.of_library), &state.outputs, sizeof state.outputs);
    const std::vector<fakes::LogLine> found_lines = fakes::companions().take_lines();
    state.outputs.reset(size);
    state.model->lines.clear();
    const uint32_t expected = function.on_model(*state.model, arguments, state.outputs);
    if (state.outputs.size != size) state.last_size = state.outputs.size;

    std::ostringstream difference;
    if (found != expected) difference << "result " << found << ", expected " << expected << "\n";
    if (!same_bytes(state.of_library, state.outputs)) {
        difference << "other outputs: size " << state.of_library.size << ", expected " << state.outputs.size
                   << "; first word " << state.of_library.words[0] << ", expected " << state.outputs.words[0] << "\n";
    }
    std::vector<Line> plain_lines;
    plain_lines.reserve(found_lines.size());
    for (const fakes::LogLine& line : found_lines) plain_lines.push_back({line.level, line.function, line.text});
    if (plain_lines != state.model->lines) {
        for (const Line& line : plain_lines)
            difference << "line  " << line.level << line.function << " " << line.text << "\n";
        for (const Line& line : state.model->lines) {
            difference << "expected " << line.level << line.function << " " << line.text << "\n";
        }
    }
    if (std::memcmp(state.view, state.model->view.data(), state.view_size) != 0) {
        size_t at = 0;
        while (state.view[at] == state.model->view[at]) ++at;
        difference << "byte " << at << " of the region is " << int{state.view[at]} << ", expected "
                   << int{state.model->view[at]} << "\n";
    }
    if (difference.str().empty()) return std::nullopt;
    difference << "in " << call;
    return difference.str();
}

size_t function_count() {
    return std::size(functions);
}

Call call_of(size_t function, Call choices) {
    size_t weighted = 0;
    for (size_t i = 0; i < function; ++i) weighted += static_cast<size_t>(functions[i].weight);
    choices.choices[0] = static_cast<uint8_t>(weighted);
    choices.choices[1] = static_cast<uint8_t>(weighted >> 8);
    return choices;
}

Call call_of(std::string_view function, Call choices) {
    const auto* const found = std::find_if(std::begin(functions), std::end(functions),
                                           [&](const Function& candidate) { return candidate.name == function; });
    if (found == std::end(functions)) throw std::logic_error("no such function: " + std::string(function));
    return call_of(static_cast<size_t>(found - std::begin(functions)), choices);
}

const char* name_of(const Call& call) {
    return function_of(call).name;
}

std::ostream& operator<<(std::ostream& stream, const Call& call) {
    const Arguments in(call, 0);
    const auto shown = [](const char* text) {
        if (!text) return std::string("null");
        const std::string_view view = text;
        return view.size() < 40 ? '"' + std::string(view) + '"'
                                : std::string(1, view[0]) + "x" + std::to_string(view.size());
    };
    stream << "shmnm_" << function_of(call).name << " [name " << shown(in.name()) << ", type " << shown(in.type())
           << ", pri " << in.pri() << ", value " << in.value() << ", index " << in.index() << "; bytes";
    for (const uint8_t choice : call.choices) stream << " " << int{choice};
    return stream << "]";
}

}  // namespace model
