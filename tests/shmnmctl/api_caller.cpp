// Holds a region and makes the calls of the library that standard input tells it, one a line: the function's name and
// its inputs, names escaped as %XX. Answers each with a line: the result, then the outputs of a call that succeeded.
// What a program that is not the tool sees and does.
//
//     shmnm_addnode alpha 0            -> 0
//     shmnm_getnodepri alpha           -> 0 0
//     shmnm_enumnode                   -> 0 alpha beta
//     shmnm_setnpsimu 1 0,1,0          -> 0
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

#include "picture/escape.h"
#include "picture/live.h"
#include "shmnm.h"

namespace {

using picture::escaped;
using picture::unescaped;

struct Line {
    std::vector<std::string> inputs;
    size_t next = 0;
    std::string outputs;

    std::string input() {
        if (next >= inputs.size()) {
            std::fputs("api_caller: too few inputs\n", stderr);
            std::exit(1);
        }
        return inputs[next++];
    }
    void output(const std::string& text) { outputs += " " + text; }
};

/// A parameter of a function: made from the line before the call, written to it after one that succeeded.
template <typename Type>
struct Parameter;

template <>
struct Parameter<const char*> {
    explicit Parameter(Line& line) : text(unescaped(line.input()).value()) {}
    const char* argument() const { return text.c_str(); }
    void report(Line&) const {}
    std::string text;
};

template <typename Type>
requires std::is_integral_v<Type>
struct Parameter<Type> {
    explicit Parameter(Line& line) : number(read(line.input())) {}
    static Type read(const std::string& text) {
        return static_cast<Type>(text.starts_with('-') ? static_cast<uint64_t>(std::stoll(text)) : std::stoull(text));
    }
    Type argument() const { return number; }
    void report(Line&) const {}
    Type number;
};

template <typename Type>
requires std::is_integral_v<Type>
struct Parameter<Type*> {
    explicit Parameter(Line&) {}
    Type* argument() { return &number; }
    void report(Line& line) const { line.output(std::to_string(number)); }
    Type number = 0;
};

/// An array of words that is read, and its length behind it: written as 1,2,3.
struct Words {
    explicit Words(const std::string& text) {
        std::istringstream stream(text);
        for (std::string word; std::getline(stream, word, ',');) {
            values.push_back(static_cast<uint32_t>(std::stoul(word)));
        }
    }
    std::vector<uint32_t> values;
};

template <typename... Types>
uint32_t plain(uint32_t (*function)(Types...), Line& line) {
    std::tuple<Parameter<Types>...> parameters{Parameter<Types>(line)...};
    return std::apply(
        [&](auto&... parameter) {
            const uint32_t result = function(parameter.argument()...);
            if (result == SHMNM_OK) (parameter.report(line), ...);
            return result;
        },
        parameters);
}

template <typename List>
uint32_t names(Line& line, List list) {
    uint32_t size = 0;
    if (const uint32_t result = list(nullptr, &size); result != SHMNM_OK) return result;
    std::vector<char> buffer(size);
    const uint32_t result = list(buffer.data(), &size);
    // Every name with its NUL, and one NUL more. No names are two NULs, as is a single empty one.
    if (size == 2) return result;
    for (const char* name = buffer.data(); result == SHMNM_OK && name + 1 < buffer.data() + size;) {
        const std::string text = name;
        line.output(text.empty() ? "%" : escaped(text));
        name += text.size() + 1;
    }
    return result;
}

template <typename List>
uint32_t states(Line& line, List list) {
    uint32_t size = 0;
    if (const uint32_t result = list(nullptr, &size); result != SHMNM_OK) return result;
    std::vector<uint32_t> buffer(size / sizeof(uint32_t) + 1);
    const uint32_t result = list(buffer.data(), &size);
    for (size_t i = 0; result == SHMNM_OK && i + 1 < buffer.size(); ++i) line.output(std::to_string(buffer[i]));
    return result;
}

std::string input_bytes(Line& line) {
    return unescaped(line.input()).value();
}

uint32_t described(Line& line, uint32_t (*get)(const char*, const char*, void*, const int32_t*)) {
    const std::string type = input_bytes(line), name = input_bytes(line);
    std::string bytes(256, '\0');
    const int32_t size = 256;
    const uint32_t result = get(type.c_str(), name.c_str(), bytes.data(), &size);
    if (result == SHMNM_OK) line.output(escaped(bytes));
    return result;
}

uint32_t describe(Line& line, uint32_t (*set)(const char*, const char*, const void*, int32_t)) {
    const std::string type = input_bytes(line), name = input_bytes(line), bytes = input_bytes(line);
    return set(type.c_str(), name.c_str(), bytes.data(), static_cast<int32_t>(bytes.size()));
}

using Function = std::function<uint32_t(Line&)>;

#define PLAIN(name)                                          \
    {                                                        \
#name, [](Line & line) { return plain(name, line); } \
    }
#define NAMES(name)                                          \
    {                                                        \
#name, [](Line & line) { return names(line, name); } \
    }
#define NAMES_OF_TYPE(name)                                                                 \
    {                                                                                       \
#name, [](Line& line) {                                                                   \
            const std::string type = input_bytes(line);                                           \
            return names(line, [&](char* buf, uint32_t* size) { return name(type.c_str(), buf, size); }); \
        } \
    }
#define ROW(name)                                                                     \
    {                                                                                 \
#name, [](Line& line) {                                                             \
            const std::string type = input_bytes(line), resource = input_bytes(line);       \
            return states(line, [&](uint32_t* buf, uint32_t* size) {                        \
                return name(type.c_str(), resource.c_str(), buf, size);                     \
            });                                                                             \
        } \
    }
#define COLUMN(name)                                                                                      \
    {                                                                                                     \
#name, [](Line& line) {                                                                                 \
            const std::string server = input_bytes(line);                                                       \
            return states(line, [&](uint32_t* buf, uint32_t* size) { return name(server.c_str(), buf, size); }); \
        } \
    }

const std::map<std::string, Function> functions = {
    PLAIN(shmnm_create),
    PLAIN(shmnm_attach),
    PLAIN(shmnm_detach),
    PLAIN(shmnm_delete),
    PLAIN(shmnm_clear),
    PLAIN(shmnm_rolock),
    PLAIN(shmnm_rounlock),
    PLAIN(shmnm_rwlock),
    PLAIN(shmnm_rwunlock),
    PLAIN(shmnm_setmaxvalue_ex),
    PLAIN(shmnm_getmaxvalue_ex),
    PLAIN(shmnm_sethbinfo_ex),
    PLAIN(shmnm_gethbinfo_ex),
    PLAIN(shmnm_setwaitstat),
    PLAIN(shmnm_getwaitstat),
    PLAIN(shmnm_setbwflag),
    PLAIN(shmnm_getbwflag),
    PLAIN(shmnm_setbwflagdisk),
    PLAIN(shmnm_getbwflagdisk),
    PLAIN(shmnm_setclstat),
    PLAIN(shmnm_getclstat),
    PLAIN(shmnm_addnode),
    PLAIN(shmnm_rmnode),
    PLAIN(shmnm_modifynode),
    PLAIN(shmnm_getnodepri),
    NAMES(shmnm_enumnode),
    PLAIN(shmnm_setnodestat),
    PLAIN(shmnm_getnodestat),
    PLAIN(shmnm_setnodestat_nw),
    PLAIN(shmnm_getnodestat_nw),
    PLAIN(shmnm_setdownnotifystat),
    PLAIN(shmnm_getdownnotifystat),
    PLAIN(shmnm_setisolateflag),
    PLAIN(shmnm_getisolateflag),
    PLAIN(shmnm_setpingstat),
    PLAIN(shmnm_getpingstat),
    PLAIN(shmnm_setholdstat),
    PLAIN(shmnm_getholdstat),
    PLAIN(shmnm_getnodecombstat),
    {"shmnm_chkalivesv",
     [](Line& line) {
         uint32_t flag = 0;
         const uint32_t result = shmnm_chkalivesv(nullptr, &flag);
         line.output(std::to_string(flag));
         return result;
     }},
    PLAIN(shmnm_addhbrsc),
    PLAIN(shmnm_addnprsc),
    PLAIN(shmnm_rmhbrsc),
    PLAIN(shmnm_rmnprsc),
    PLAIN(shmnm_modifyhbrsc),
    PLAIN(shmnm_modifynprsc),
    PLAIN(shmnm_gethbrscpri),
    PLAIN(shmnm_getnprscpri),
    NAMES(shmnm_enumhbtype),
    NAMES(shmnm_enumnptype),
    NAMES_OF_TYPE(shmnm_enumhbrsc),
    NAMES_OF_TYPE(shmnm_enumnprsc),
    {"hb_names",
     [](Line& line) {
         return names(line, [](char* buf, uint32_t* size) { return shmnm_enumhbrsc(nullptr, buf, size); });
     }},
    {"np_names",
     [](Line& line) {
         return names(line, [](char* buf, uint32_t* size) { return shmnm_enumnprsc(nullptr, buf, size); });
     }},
    PLAIN(shmnm_sethbrscstat),
    PLAIN(shmnm_setnprscstat),
    PLAIN(shmnm_gethbrscstat),
    PLAIN(shmnm_getnprscstat),
    PLAIN(shmnm_sethbrscsvstat),
    PLAIN(shmnm_setnprscsvstat),
    PLAIN(shmnm_gethbrscsvstat),
    PLAIN(shmnm_getnprscsvstat),
    PLAIN(shmnm_settypehbstat),
    PLAIN(shmnm_settypenpstat),
    ROW(shmnm_enumhbrscsvstat),
    ROW(shmnm_enumnprscsvstat),
    COLUMN(shmnm_enumsvhbrscstat),
    COLUMN(shmnm_enumsvnprscstat),
    ROW(shmnm_enumrscsvstat_nw),
    COLUMN(shmnm_enumsvrscstat_nw),
    PLAIN(shmnm_setrscsvstat_nw),
    PLAIN(shmnm_getrscsvstat_nw),
    {"shmnm_sethbdescript", [](Line& line) { return describe(line, shmnm_sethbdescript); }},
    {"shmnm_setnpdescript", [](Line& line) { return describe(line, shmnm_setnpdescript); }},
    {"shmnm_gethbdescript", [](Line& line) { return described(line, shmnm_gethbdescript); }},
    {"shmnm_getnpdescript", [](Line& line) { return described(line, shmnm_getnpdescript); }},
    PLAIN(shmnm_addhbrscsvstat),
    PLAIN(shmnm_addnprscsvstat),
    PLAIN(shmnm_rmhbrscsvstat),
    PLAIN(shmnm_rmnprscsvstat),
    {"shmnm_setnpsimu",
     [](Line& line) {
         const auto flag = static_cast<uint32_t>(std::stoul(line.input()));
         const Words fail(line.input());
         return shmnm_setnpsimu(flag, fail.values.data(), static_cast<int32_t>(fail.values.size()));
     }},
    {"shmnm_getnpsimu",
     [](Line& line) {
         uint32_t flag = 0;
         std::vector<uint32_t> fail(std::stoul(line.input()));
         const uint32_t result = shmnm_getnpsimu(&flag, fail.data(), static_cast<int32_t>(fail.size()));
         line.output(std::to_string(flag));
         for (const uint32_t word : fail) line.output(std::to_string(word));
         return result;
     }},
    PLAIN(shmnm_getnpsimuflag),
    PLAIN(shmnm_setfstrscstat),
    PLAIN(shmnm_getfstrscstat),
    PLAIN(shmnm_setfstrscpid),
    PLAIN(shmnm_getfstrscpid),
    {"shmnm_setfstdescript",
     [](Line& line) {
         const std::string bytes = input_bytes(line);
         return shmnm_setfstdescript(bytes.data(), static_cast<int32_t>(bytes.size()));
     }},
    {"shmnm_getfstdescript",
     [](Line& line) {
         std::string bytes(256, '\0');
         const int32_t size = 256;
         const uint32_t result = shmnm_getfstdescript(bytes.data(), &size);
         line.output(escaped(bytes));
         return result;
     }},
    {"poke",  // writes a word of the region by no call of the library
     [](Line& line) {
         const size_t offset = std::stoul(line.input());
         const picture::WritableRegion region;
         *reinterpret_cast<volatile uint32_t*>(region.base() + offset) =
             static_cast<uint32_t>(std::stoul(line.input()));
         return uint32_t{SHMNM_OK};
     }},
    {"dump",
     [](Line& line) {
         int32_t size = 0;
         if (const uint32_t result = shmnm_dump(nullptr, &size); result != SHMNM_OK) return result;
         std::vector<uint8_t> bytes(static_cast<size_t>(size));
         const uint32_t result = shmnm_dump(bytes.data(), &size);
         std::FILE* const file = std::fopen(input_bytes(line).c_str(), "wb");
         if (!file || std::fwrite(bytes.data(), 1, bytes.size(), file) != bytes.size() || std::fclose(file) != 0) {
             std::fputs("api_caller: the dump is not written\n", stderr);
             std::exit(1);
         }
         return result;
     }},
};

}  // namespace

int main() {
    for (std::string text; std::getline(std::cin, text);) {
        if (text.ends_with('\r')) text.pop_back();
        std::istringstream stream(text);
        std::string name;
        Line line;
        stream >> name;
        for (std::string input; stream >> input;) line.inputs.push_back(input == "%" ? "" : input);
        const auto found = functions.find(name);
        if (found == functions.end()) {
            std::fprintf(stderr, "api_caller: no function %s\n", name.c_str());
            return 1;
        }
        const uint32_t result = found->second(line);
        std::printf("%u%s\n", result, line.outputs.c_str());
        std::fflush(stdout);
    }
    return 0;
}
