// One random sequence of calls of every function, with companions that fail at random, and what each call shows:
// result, outputs, log lines, calls into the companions, and the region's bytes. same_answers_test.py runs it natively
// and as a Windows program, and compares the two records.
//
//     same_answers SEED CALLS [--show BLOCK] [--differ CALL]
//
// It writes a digest per block of 1000 calls and then what the sequence has covered; with --show every line of one
// block instead. --differ changes a byte of the outputs of one call, to show that a difference is found.
#include <array>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "fakes/companions.h"
#include "kernel.h"
#include "kernel_objects.h"
#include "plain_model/harness.h"
#include "region_fixture.h"
#include "same_answers/other_thread.h"
#include "same_answers/record.h"
#include "shmnm.h"
#include "support/child.h"
#include "support/child_platform.h"

namespace answers {
namespace {

struct Options {
    uint64_t seed = 1;
    size_t calls = 0;
    std::optional<size_t> shown_block, differs_at;
};

/// A region of the default counts is megabytes long: it is looked at after some calls only.
constexpr size_t large_region = 200'000;
constexpr size_t calls_between_large_looks = 50;

std::string mapping_name() {
    const char* const prefix = std::getenv("KZMUTIL_NAMESPACE");
    return (prefix ? prefix : "") + std::string("oru_kzmshmnm_map");
}

/// The region's bytes, through a view of this program's own.
class Witness {
  public:
    ~Witness() { close(); }
    /// @return whether there is a region
    bool open() {
        if (view_) return true;
        mapping_ = test::open_mapping(0xF001F, mapping_name().c_str());
        if (!mapping_) return false;
        view_ = static_cast<uint8_t*>(test::map_view(mapping_, 2));
        if (!view_) throw std::runtime_error("the region was not mapped");
        size_ = shmnm::kernel::view_size(view_);
        before_.assign(view_, view_ + size_);
        return true;
    }
    /// Lets go of the region, which lives on only if the library holds it.
    void close() {
        if (!view_) return;
        shmnm::kernel::unmap_view(view_);
        shmnm::kernel::close(mapping_);
        view_ = nullptr;
    }
    void look(Record& record) {
        if (!view_) return record.text("region", "none");
        record.bytes("region", {view_, size_}, before_);
        std::memcpy(before_.data(), view_, size_);
    }
    uint8_t* view() { return view_; }
    size_t size() const { return view_ ? size_ : 0; }

  private:
    void* mapping_ = nullptr;
    uint8_t* view_ = nullptr;
    size_t size_ = 0;
    std::vector<unsigned char> before_;
};

class Sequence {
  public:
    Sequence(const Options& options, std::ostream& out)
        : options_(options), random_(options.seed), record_(out, options.shown_block) {
        for (size_t i = 0; i < model::function_count(); ++i) {
            calls_of_[model::name_of(model::call_of(i, model::Call{}))] = 0;
        }
    }

    void run() {
        start_anew();
        while (index_ < options_.calls) step();
        witness_.close();
        other_.end();
        test::unmap_everything();
    }

    /// What the sequence has covered.
    void summarise(std::ostream& out) const {
        for (const auto& [function, count] : calls_of_) out << "calls of " << function << " " << count << "\n";
        for (const auto& [failure, count] : failures_) out << "failures of " << failure << " " << count << "\n";
        for (const auto& [result, count] : results_) out << "results " << result << " " << count << "\n";
    }

  private:
    size_t below(size_t limit) { return static_cast<size_t>(random_() % limit); }
    bool once_in(size_t times) { return below(times) == 0; }

    void step() {
        const size_t choice = below(1000);
        if (choice < 2) {
            start_anew();
        } else if (choice < 6) {
            configure();
        } else if (choice < 10) {
            damage();
        } else if (choice < 14) {
            crowd();
        } else if (choice < 44) {
            use_lock();
        } else if (choice < (is_mapped_ ? 54U : 500U)) {
            live();
        } else {
            call(any_call());
        }
    }

    model::Call any_call() {
        model::Call call;
        for (uint8_t& byte : call.choices) byte = static_cast<uint8_t>(random_());
        return call;
    }

    /// Everything closed, new counts, and companions that succeed.
    void start_anew() {
        witness_.close();
        test::unmap_everything();
        is_mapped_ = false;
        fakes::companions().reset();
        counts();
        ++beginnings_;
        // Each failed attempt to create the region takes a second, so there are few.
        if (beginnings_ == 20) fakes::companions().create_errors = {8};
        if (beginnings_ == 60) fakes::companions().create_errors = {5, 8, 5, 8, 1450};
        if (!fakes::companions().create_errors.empty()) {
            ++failures_["KzmutilCreateNamedFileMapping"];
            create();
        }
    }

    void counts() {
        fakes::Companions& fake = fakes::companions();
        const auto pick = [&] { return static_cast<int32_t>(once_in(10) ? 0 : 1 + below(6)); };
        fake.values["/root/all/num/server"] = once_in(20) ? 20 : pick();
        fake.values["/root/all/num/hbr"] = pick();
        fake.values["/root/all/num/npr"] = pick();
        fake.values["/root/all/num/fstr"] = static_cast<int32_t>(below(3));
    }

    /// Companions that fail from now on, until the next time.
    void configure() {
        static const std::array<const char*, 15> calls = {"xmllib_init(shmnm)",
                                                          "xmllib_load_config(0)",
                                                          "xmllib_unload_config()",
                                                          "xmllib_term()",
                                                          "xmllib_load_policy(all)",
                                                          "xmllib_unload_policy(all)",
                                                          "xmllib_load_policy(shmnm)",
                                                          "xmllib_unload_policy(shmnm)",
                                                          "xmllib_get_value(/root/all/num/server,1,4)",
                                                          "xmllib_get_value(/root/all/num/hbr,1,4)",
                                                          "xmllib_get_value(/root/all/num/npr,1,4)",
                                                          "xmllib_get_value(/root/all/num/fstr,1,4)",
                                                          "xmllib_get_value(/root/shmnm/log/level,1,4)",
                                                          "KzmutilGetInstallPath(1024)",
                                                          "kzmlog_close(log)"};
        static const int32_t codes[] = {1, 2, 5, 7, -1, INT32_MIN, INT32_MAX};
        static const uint32_t errors[] = {2, 5, 6, 8, 1450};
        fakes::Companions& fake = fakes::companions();
        fake.reset();
        counts();
        const auto fails = [&](const char* name) { ++failures_[name]; };
        for (const char* const name : calls) {
            if (!once_in(12)) continue;
            fake.results[name] = codes[below(std::size(codes))];
            fails(name);
        }
        for (const char* const path : {"/root/all/num/hbr", "/root/shmnm/log/size"}) {
            if (!once_in(20)) continue;
            fake.values.erase(path);
            fails(path);
        }
        if (once_in(5)) {
            fake.open_errors = {errors[below(std::size(errors))]};
            fails("KzmutilOpenNamedFileMapping");
        }
        if (once_in(10)) {
            fake.hand_out_unmappable = true;
            fails("MapViewOfFile");
        }
        if (once_in(10)) {
            fake.log_opens = false;
            fake.log_open_result = 1;
            fails("kzmlog_open");
        }
    }

    /// Bytes that no call would write.
    void damage() {
        if (witness_.size() < 4) return;
        static const uint32_t words[] = {0,    1,          2,          3,          8,          20,
                                         1000, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF, 0xFFFFFF6E, 0xFFFFFF6D};
        for (size_t count = 1 + below(3); count > 0; --count) {
            if (once_in(2)) {
                std::memcpy(witness_.view() + 8 + 4 * below(9), &words[below(std::size(words))], 4);
            } else {
                const size_t at = below(witness_.size()), size = 1 + below(300);
                std::memset(witness_.view() + at, once_in(2) ? 's' : static_cast<int>(below(256)),
                            std::min(size, witness_.size() - at));
            }
        }
    }

    /// Maxima far beyond what the view holds, and servers until it is full.
    void crowd() {
        model::Call raise;
        raise.choices = {0, 0, 0, 0, 203, 203, 203, 0, 0, 0, 0, 0};
        call(model::call_of("setmaxvalue_ex", raise));
        // This name is stored cut, so that no add finds it again.
        model::Call add;
        add.choices[2] = 172;
        for (size_t servers = below(100); servers > 0; --servers) call(model::call_of("addnode", add));
    }

    void call(const model::Call& call) {
        begin_call();
        const uint32_t result = caller_.make(call);
        ++calls_of_[model::name_of(call)];
        static const std::vector<unsigned char> untouched(caller_.outputs().size(), 0xC3);
        if (record_.shows()) {
            std::ostringstream text;
            text << index_ << " " << call;
            record_.text("call", text.str());
        }
        std::vector<unsigned char> changed;
        Bytes outputs = caller_.outputs();
        if (options_.differs_at == index_) {
            changed.assign(outputs.begin(), outputs.end());
            changed[0] ^= 1;
            outputs = changed;
        }
        record_.bytes("outputs", outputs, untouched);
        end_call(result);
    }

    /// A call that is not made through the model's list.
    template <typename Function>
    uint32_t named(const char* name, Function function) {
        begin_call();
        const uint32_t result = function();
        ++calls_of_[name];
        record_.text("call", std::to_string(index_) + " shmnm_" + name);
        end_call(result);
        return result;
    }

    /// Each thread has a last error of its own, which a time-out leaves as it was.
    static void begin_call() { test::set_last_error(0); }

    void end_call(uint32_t result) {
        ++results_[result];
        record_.number("result", result);
        const std::string flag =
            ":" + std::to_string(static_cast<int32_t>(reinterpret_cast<uintptr_t>(caller_.flag())));
        fakes::Companions& fake = fakes::companions();
        for (const std::string& made : fake.take_calls()) record_.text("companion", made);
        for (fakes::LogLine& line : fake.take_lines()) {
            record_.number("level", line.level);
            record_.text("function", line.function);
            // One line shows an address.
            if (line.text.starts_with("flag") && line.text.ends_with(flag)) {
                line.text.replace(line.text.size() - flag.size(), flag.size(), ":ADDRESS");
            }
            record_.text("line", line.text);
            record_.text("file", line.file);
            record_.number("source line", static_cast<uint64_t>(line.line));
        }
        if (witness_.size() < large_region || index_ % calls_between_large_looks == 0) witness_.look(record_);
        record_.end_call();
        ++index_;
    }

    void use_lock() {
        static const struct {
            const char* name;
            uint32_t (*function)(uint32_t);
        } takes[] = {{"rwlock", shmnm_rwlock}, {"rolock", shmnm_rolock}};
        static const struct {
            const char* name;
            uint32_t (*function)();
        } releases[] = {{"rwunlock", shmnm_rwunlock}, {"rounlock", shmnm_rounlock}};
        const size_t which = below(2);
        const bool by_other = once_in(3);
        if (by_other && once_in(10)) return other_.end();
        const auto make = [&](const std::function<uint32_t()>& function) {
            if (!by_other) return function();
            return other_.make([&] {
                begin_call();
                return function();
            });
        };
        if (once_in(2)) {
            named(takes[which].name, [&] { return make([&] { return takes[which].function(0); }); });
        } else {
            named(releases[which].name, [&] { return make([&] { return releases[which].function(); }); });
        }
    }

    void create() {
        const uint32_t result = named("create", [&] {
            const uint32_t created = shmnm_create();
            return watch(created);
        });
        is_mapped_ = is_mapped_ || result == SHMNM_OK;
    }

    /// The region may be a new one.
    uint32_t watch(uint32_t result) {
        if (result == SHMNM_OK) witness_.open();
        return result;
    }

    void live() {
        const size_t choice = below(is_mapped_ ? 8 : 14);
        if (choice < 2) {
            named("detach", [&] { return unmapping(shmnm_detach); });
        } else if (choice < 4) {
            named("delete", [&] { return unmapping(shmnm_delete); });
        } else if (choice < 7) {
            const uint32_t result = named("attach", [&] { return watch(shmnm_attach()); });
            is_mapped_ = is_mapped_ || result == SHMNM_OK;
        } else {
            create();
        }
    }

    /// The region ends with this call unless the library holds it: this program's own view must not keep it.
    uint32_t unmapping(uint32_t (*function)()) {
        witness_.close();
        const uint32_t result = function();
        uint32_t waitstat = 0;
        fakes::Companions& fake = fakes::companions();
        // Whether the region is still mapped is asked without leaving a trace.
        const std::vector<fakes::LogLine> lines = fake.take_lines();
        is_mapped_ = shmnm_getwaitstat(&waitstat) == SHMNM_OK;
        fake.take_lines();
        fake.lines = lines;
        witness_.open();
        return result;
    }

    Options options_;
    std::mt19937_64 random_;
    Record record_;
    Witness witness_;
    OtherThread other_;
    model::Caller caller_;
    bool is_mapped_ = false;
    size_t index_ = 0, beginnings_ = 0;
    std::map<std::string, size_t> calls_of_, failures_;
    std::map<uint32_t, size_t> results_;
};

int run(int argc, char** argv) {
    if (argc < 3 || argc % 2 == 0) {
        std::cerr << "usage: same_answers SEED CALLS [--show BLOCK] [--differ CALL]\n";
        return 2;
    }
    Options options;
    const auto number = [&](int at) { return std::strtoull(argv[at], nullptr, 10); };
    options.seed = number(1);
    options.calls = number(2);
    for (int at = 3; at < argc; at += 2) {
        (std::string_view(argv[at]) == "--show" ? options.shown_block : options.differs_at) = number(at + 1);
    }
    Sequence sequence(options, std::cout);
    sequence.run();
    if (!options.shown_block) sequence.summarise(std::cout);
    return std::cout.flush() ? 0 : 1;
}

}  // namespace
}  // namespace answers

int main(int argc, char** argv) {
    if (!std::getenv("KZMUTIL_NAMESPACE")) {
        test::set_environment("KZMUTIL_NAMESPACE", ("test-" + std::to_string(test::process_id()) + "-").c_str());
        return test::run_again(argc, argv);
    }
    return answers::run(argc, argv);
}
