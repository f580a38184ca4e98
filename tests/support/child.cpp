#include "support/child.h"

#include <cstdlib>
#include <stdexcept>
#include <vector>

#include "support/child_main.h"
#include "support/child_platform.h"

namespace test {
namespace {

std::vector<const ChildBody*>& bodies() {
    static std::vector<const ChildBody*> all;
    return all;
}

std::string own_argument;

}  // namespace

ChildBody::ChildBody(const char* child_name, void (*function)()) : name(child_name), run(function) {
    bodies().push_back(this);
}

Child::Child(std::unique_ptr<Process> process) : process_(std::move(process)) {}
Child::Child(Child&&) noexcept = default;
Child& Child::operator=(Child&& other) noexcept {
    if (this != &other) {
        if (process_) process_->kill();
        process_ = std::move(other.process_);
    }
    return *this;
}
Child::~Child() {
    if (process_) process_->kill();
}

std::optional<uint64_t> Child::next_report() {
    uint64_t number = 0;
    if (!process_->read(&number, sizeof number)) return std::nullopt;
    return number;
}

uint64_t Child::reported() {
    if (const std::optional<uint64_t> number = next_report()) return *number;
    throw std::runtime_error("the child ended without a report");
}

std::string Child::reported_text() {
    std::string text(static_cast<size_t>(reported()), '\0');
    if (!process_->read(text.data(), text.size())) throw std::runtime_error("the child ended within a report");
    return text;
}

void Child::tell(uint64_t number) {
    if (!process_->write(&number, sizeof number)) throw std::runtime_error("the child does not listen");
}

void Child::kill() {
    process_->kill();
}
int Child::wait() {
    return process_->wait();
}
uint32_t Child::process_id() const {
    return process_->id();
}

Child start(const ChildBody& body, std::string_view argument) {
    return Child(start_process({"--child", body.name, std::string(argument)}));
}

const std::string& argument() {
    return own_argument;
}

void report(uint64_t number) {
    write_to_parent(&number, sizeof number);
}

void report_text(std::string_view text) {
    report(text.size());
    write_to_parent(text.data(), text.size());
}

uint64_t told() {
    uint64_t number = 0;
    if (!read_from_parent(&number, sizeof number)) end_process(0);
    return number;
}

void hang() {
    for (;;) told();
}

bool run_as_child(int argc, char** argv) {
    if (argc != 4 || std::string_view(argv[1]) != "--child") return false;
    own_argument = argv[3];
    for (const ChildBody* body : bodies()) {
        if (std::string_view(argv[2]) != body->name) continue;
        body->run();
        return true;
    }
    std::abort();
}

unsigned share_of(unsigned amount) {
    return amount / SHMNM_TEST_DIVISOR;
}

ScopedEnvironment::ScopedEnvironment(const char* name, const char* value) : name_(name) {
    const char* const old = std::getenv(name);
    was_set_ = old != nullptr;
    if (old) old_value_ = old;
    set_environment(name, value);
}

ScopedEnvironment::~ScopedEnvironment() {
    set_environment(name_.c_str(), was_set_ ? old_value_.c_str() : nullptr);
}

}  // namespace test
