#include <windows.h>

#include <array>

#include "etcd/error.h"
#include "etcd/gateway.h"
#include "etcd/secret_file.h"
#include "security_windows.h"
#include "wide_path.h"

namespace etcd {
namespace {

constexpr size_t largest = size_t{64} * 1'024;

class File {
  public:
    explicit File(const std::string& name)
        : handle_(CreateFileW(wide_path::for_call(name).c_str(), GENERIC_READ | READ_CONTROL, FILE_SHARE_READ, nullptr,
                              OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr)) {}
    ~File() {
        if (is_open()) CloseHandle(handle_);
    }
    File(const File&) = delete;
    File& operator=(const File&) = delete;
    bool is_open() const { return handle_ != INVALID_HANDLE_VALUE; }
    HANDLE get() const { return handle_; }

  private:
    HANDLE handle_;
};

}  // namespace

std::string read_secret_file(const std::string& name) {
    const auto refuse = [&](const std::string& why) {
        throw Error("cannot use the secret in " + presentable(name) + ": " + why);
    };
    const auto refuse_with_code = [&] { refuse("error " + std::to_string(GetLastError())); };
    const File file(name);
    if (!file.is_open()) refuse_with_code();
    if (GetFileType(file.get()) != FILE_TYPE_DISK) refuse("it is not a file; name one");
    if (!kzmutil::is_trusted(file.get(), 0)) {
        refuse("others may use it, or it belongs to another user; permit it to its owner only, by icacls");
    }
    std::string bytes;
    std::array<char, 4'096> part{};
    for (;;) {
        DWORD size = 0;
        if (!ReadFile(file.get(), part.data(), static_cast<DWORD>(part.size()), &size, nullptr)) refuse_with_code();
        if (size == 0) return bytes;
        bytes.append(part.data(), size);
        if (bytes.size() > largest) refuse("it is longer than 64 KiB; name a file with one secret");
    }
}

}  // namespace etcd
