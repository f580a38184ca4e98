#include "fakes/companions.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "fakes/routes.h"
#include "kernel_objects.h"

namespace fakes {
namespace {

constexpr const char* source_file = "src/windows/server/library/shmnm/src/shmnm";
constexpr int32_t not_found = 5;

std::string full_name(const char* name) {
    const char* const prefix = std::getenv("KZMUTIL_NAMESPACE");
    return (prefix ? prefix : "") + std::string(name);
}

std::string number(uint64_t value) {
    return std::to_string(value);
}

/// Records a call; its scripted result, or 0.
int32_t answer(const std::string& call) {
    Companions& fake = companions();
    fake.calls.push_back(call);
    if (fake.on_call) fake.on_call(call);
    const auto scripted = fake.results.find(call);
    return scripted == fake.results.end() ? 0 : scripted->second;
}

/// The next scripted error, or 0.
uint32_t next(std::vector<uint32_t>& errors) {
    if (errors.empty()) return 0;
    const uint32_t error = errors.front();
    errors.erase(errors.begin());
    return error;
}

template <typename Make>
void* hand_out(std::vector<uint32_t>& errors, Make make) {
    Companions& fake = companions();
    if (const uint32_t error = next(errors)) {
        test::set_last_error(error);
        return nullptr;
    }
    void* const handle = fake.hand_out_unmappable ? test::create_mutex(full_name("unmappable").c_str()) : make();
    if (handle) {
        fake.mappings.push_back(handle);
        fake.all_mappings.push_back(handle);
    }
    return handle;
}

void* create_mutex(uint32_t flags, const char* name) {
    answer("KzmutilCreateNamedMutex(" + number(flags) + "," + name + ")");
    return test::create_mutex(full_name(name).c_str());
}

void* create_mapping(void* file, uint32_t protect, uint32_t size_high, uint32_t size_low, const char* name) {
    const std::string origin = reinterpret_cast<uintptr_t>(file) == ~uintptr_t{0} ? "no file" : "a file";
    answer("KzmutilCreateNamedFileMapping(" + origin + "," + number(protect) + "," + number(size_high) + "," +
           number(size_low) + "," + name + ")");
    return hand_out(companions().create_errors, [&] {
        const uint32_t error = test::last_error();
        void* const mapping = test::create_mapping(uint64_t{size_high} << 32 | size_low, full_name(name).c_str());
        if (mapping && companions().create_keeps_last_error && test::last_error() == 0) test::set_last_error(error);
        if (mapping && companions().create_says_new) test::set_last_error(0);
        return mapping;
    });
}

void* open_mapping(uint32_t access, int32_t inherit, const char* name) {
    char text[64];
    std::snprintf(text, sizeof text, "KzmutilOpenNamedFileMapping(0x%X,%d,", access, inherit);
    answer(text + std::string(name) + ")");
    return hand_out(companions().open_errors, [&] { return test::open_mapping(access, full_name(name).c_str()); });
}

int32_t install_path(char* path, uint32_t size) {
    if (answer("KzmutilGetInstallPath(" + number(size) + ")") != 0) return 0;
    std::memcpy(path, ".", 2);
    return 1;
}

int32_t init(const char* module) {
    return answer(std::string("xmllib_init(") + module + ")");
}
int32_t term() {
    return answer("xmllib_term()");
}
int32_t load_config(int32_t flags) {
    return answer("xmllib_load_config(" + std::to_string(flags) + ")");
}
int32_t unload_config() {
    return answer("xmllib_unload_config()");
}
int32_t load_policy(const char* policy) {
    return answer(std::string("xmllib_load_policy(") + policy + ")");
}
int32_t unload_policy(const char* policy) {
    return answer(std::string("xmllib_unload_policy(") + policy + ")");
}

int32_t get_value(const char* path, int32_t type, void* value, int32_t* length) {
    const int32_t scripted = answer(std::string("xmllib_get_value(") + path + "," + std::to_string(type) + "," +
                                    std::to_string(*length) + ")");
    const auto found = companions().values.find(path);
    if (scripted != 0 || found == companions().values.end()) {
        // A failed read may have written to both.
        const int32_t rubbish = -99;
        std::memcpy(value, &rubbish, sizeof rubbish);
        *length = 1;
        return scripted != 0 ? scripted : not_found;
    }
    std::memcpy(value, &found->second, sizeof found->second);
    return 0;
}

int32_t log_open(const char* module, void** log, uint32_t level, uint32_t size, uint32_t flags, const char* channel) {
    answer(std::string("kzmlog_open(") + module + "," + (*log ? "set" : "null") + "," + number(level) + "," +
           number(size) + "," + number(flags) + "," + channel + ")");
    if (companions().log_opens) *log = &companions();
    return companions().log_open_result;
}

int32_t log_close(void* log) {
    return answer(log == &companions() ? "kzmlog_close(log)" : "kzmlog_close(another)");
}

int32_t log_write(void* log, uint32_t level, uint32_t flags, const char* file, int32_t line, const char* function,
                  const char* message) {
    if (log != &companions() || flags != 0) std::abort();
    const std::lock_guard guard(companions().lock);
    companions().lines.push_back({level, function, message, file, line});
    if (companions().on_line) companions().on_line(companions().lines.back());
    return 0;
}

const KzmutilRoutes kzmutil_routes = {create_mutex, create_mapping, open_mapping, install_path};
const KzmxmlRoutes kzmxml_routes = {init, term, load_config, unload_config, load_policy, unload_policy, get_value};
const KzmlogRoutes kzmlog_routes = {log_open, log_close, log_write};

}  // namespace

void Companions::reset() {
    values = {{"/root/all/num/server", 128}, {"/root/all/num/hbr", 16},     {"/root/all/num/npr", 16},
              {"/root/all/num/fstr", 1},     {"/root/shmnm/log/level", 16}, {"/root/shmnm/log/size", 1000000}};
    results.clear();
    create_errors.clear();
    create_keeps_last_error = false;
    create_says_new = false;
    open_errors.clear();
    on_call = nullptr;
    on_line = nullptr;
    hand_out_unmappable = false;
    log_opens = true;
    log_open_result = 0;
    calls.clear();
    lines.clear();
    mappings.clear();
    fake_kzmutil_route(&kzmutil_routes);
    fake_kzmxml_route(&kzmxml_routes);
    fake_kzmlog_route(&kzmlog_routes);
}

std::vector<LogLine> Companions::take_lines() {
    const std::lock_guard guard(lock);
    return std::exchange(lines, {});
}

std::vector<std::string> Companions::take_calls() {
    return std::exchange(calls, {});
}

Companions& companions() {
    static Companions instance;
    return instance;
}

testing::Matcher<const LogLine&> Line(uint32_t level, const char* function, const std::string& text) {
    using testing::AllOf;
    using testing::Field;
    // Every line names the module's one source path, and the line that it comes from.
    return AllOf(Field("level", &LogLine::level, level), Field("function", &LogLine::function, function),
                 Field("text", &LogLine::text, text), Field("file", &LogLine::file, source_file),
                 Field("line", &LogLine::line, testing::Gt(0)));
}

testing::Matcher<const LogLine&> Enter(const char* function) {
    return Line(16, function, "<<< ENTER >>>");
}

testing::Matcher<const LogLine&> Exit(const char* function, uint32_t result) {
    char text[64];
    std::snprintf(text, sizeof text, "<<< EXIT >>> : 0x%08x", result);
    return Line(16, function, text);
}

testing::Matcher<const LogLine&> Error(const char* function, const std::string& text) {
    return Line(1, function, text);
}
testing::Matcher<const LogLine&> Warning(const char* function, const std::string& text) {
    return Line(2, function, text);
}
testing::Matcher<const LogLine&> Information(const char* function, const std::string& text) {
    return Line(4, function, text);
}

std::ostream& operator<<(std::ostream& stream, const LogLine& line) {
    return stream << "{" << line.level << " " << line.function << " \"" << line.text << "\" " << line.file << ":"
                  << line.line << "}";
}

}  // namespace fakes
