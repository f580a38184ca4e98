#include <fcntl.h>
#include <spawn.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <stdexcept>

#include "support/child_platform.h"
#include "support/forked_linux.h"

namespace test {
namespace {

constexpr const char* own_file = "/proc/self/exe";

bool read_whole(int descriptor, void* data, size_t size) {
    auto* at = static_cast<char*>(data);
    while (size > 0) {
        const ssize_t count = ::read(descriptor, at, size);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return false;
        at += count;
        size -= static_cast<size_t>(count);
    }
    return true;
}

bool write_whole(int descriptor, const void* data, size_t size) {
    const auto* at = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t count = ::write(descriptor, at, size);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return false;
        at += count;
        size -= static_cast<size_t>(count);
    }
    return true;
}

class LinuxProcess final : public Child::Process {
  public:
    explicit LinuxProcess(const std::vector<std::string>& arguments) {
        int to_child[2], from_child[2];
        if (pipe2(to_child, O_CLOEXEC) != 0 || pipe2(from_child, O_CLOEXEC) != 0) throw std::runtime_error("pipe2");
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, to_child[0], STDIN_FILENO);
        posix_spawn_file_actions_adddup2(&actions, from_child[1], STDOUT_FILENO);
        std::vector<char*> argv;
        std::string name = "test-child";
        argv.push_back(name.data());
        std::vector<std::string> copies = arguments;
        for (std::string& copy : copies) argv.push_back(copy.data());
        argv.push_back(nullptr);
        const int error = posix_spawn(&pid_, own_file, &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        close(to_child[0]);
        close(from_child[1]);
        input_ = to_child[1];
        output_ = from_child[0];
        if (error != 0) throw std::runtime_error("posix_spawn");
    }
    ~LinuxProcess() override {
        kill();
        close(input_);
        close(output_);
    }
    bool read(void* data, size_t size) override { return read_whole(output_, data, size); }
    bool write(const void* data, size_t size) override { return write_whole(input_, data, size); }
    void kill() override {
        if (ended_) return;
        ::kill(pid_, SIGKILL);
        wait();
    }
    int wait() override {
        if (ended_) return status_;
        ended_ = true;
        return status_ = wait_for_end(pid_);
    }
    uint32_t id() const override { return static_cast<uint32_t>(pid_); }

  private:
    pid_t pid_ = 0;
    int input_ = -1, output_ = -1, status_ = 0;
    bool ended_ = false;
};

}  // namespace

std::unique_ptr<Child::Process> start_process(const std::vector<std::string>& arguments) {
    std::signal(SIGPIPE, SIG_IGN);
    return std::make_unique<LinuxProcess>(arguments);
}

int run_again(int, char** argv) {
    execv(own_file, argv);
    return 127;
}

bool read_from_parent(void* data, size_t size) {
    return read_whole(STDIN_FILENO, data, size);
}
bool write_to_parent(const void* data, size_t size) {
    return write_whole(STDOUT_FILENO, data, size);
}
void end_process(int status) {
    _exit(status);
}

void set_environment(const char* name, const char* value) {
    if (value) {
        setenv(name, value, 1);
    } else {
        unsetenv(name);
    }
}

uint32_t process_id() {
    return static_cast<uint32_t>(getpid());
}

}  // namespace test
