#include "file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace kzmxml {
namespace {

class Descriptor {
  public:
    explicit Descriptor(int number) : number_(number) {}
    ~Descriptor() {
        if (number_ >= 0) close(number_);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int number() const { return number_; }

  private:
    int number_;
};

}  // namespace

bool read_file(const std::string& path, size_t limit, std::string& text) {
    // Without O_NONBLOCK, opening a FIFO would wait for a writer.
    const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status {};
    // branch: an open file can be looked at
    if (file.number() < 0 || fstat(file.number(), &status) != 0 || !S_ISREG(status.st_mode)) return false;
    char part[4096];
    for (;;) {
        const ssize_t bytes = read(file.number(), part, sizeof part);
        // branch: a signal interrupts a read of a regular file only on network file systems
        if (bytes < 0 && errno == EINTR) continue;
        if (bytes <= 0) return bytes == 0;
        text.append(part, static_cast<size_t>(bytes));
        if (text.size() > limit) return false;
    }
}

}  // namespace kzmxml
