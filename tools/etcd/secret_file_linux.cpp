#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "etcd/error.h"
#include "etcd/gateway.h"
#include "etcd/secret_file.h"

namespace etcd {
namespace {

constexpr size_t largest = size_t{64} * 1'024;

class File {
  public:
    // Not blocking: a pipe is refused, not waited for.
    explicit File(const std::string& name) : descriptor_(open(name.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {}
    ~File() {
        if (descriptor_ >= 0) close(descriptor_);
    }
    File(const File&) = delete;
    File& operator=(const File&) = delete;
    int get() const { return descriptor_; }

  private:
    int descriptor_;
};

}  // namespace

std::string read_secret_file(const std::string& name) {
    const std::string shown = presentable(name);
    const auto refuse = [&](const std::string& why) { throw Error("cannot use the secret in " + shown + ": " + why); };
    const File file(name);
    struct stat facts {};
    if (file.get() < 0 || fstat(file.get(), &facts) != 0) refuse(std::strerror(errno));
    if (!S_ISREG(facts.st_mode)) refuse("it is not a file; name one");
    if (facts.st_uid != geteuid() && facts.st_uid != 0) {
        refuse("it belongs to another user; run \"chown " + std::to_string(geteuid()) + " " + shown + "\"");
    }
    if ((facts.st_mode & (S_IRWXG | S_IRWXO)) != 0) refuse("others may use it; run \"chmod 600 " + shown + "\"");
    std::string bytes;
    std::array<char, 4'096> part{};
    for (;;) {
        const ssize_t size = read(file.get(), part.data(), part.size());
        if (size < 0 && errno == EINTR) continue;
        if (size < 0) refuse(std::strerror(errno));
        if (size == 0) return bytes;
        bytes.append(part.data(), static_cast<size_t>(size));
        if (bytes.size() > largest) refuse("it is longer than 64 KiB; name a file with one secret");
    }
}

}  // namespace etcd
